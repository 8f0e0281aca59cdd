#pragma once

#include "MotionPass.h"

#include <QByteArray>
#include <QImage>
#include <QMetaType>
#include <QString>
#include <QStringList>

#include <opencv2/core/mat.hpp>

#include <vector>

// Making bad inputs and running them through the analysis both ways the program does: the
// pass on its own (as the command-line tool runs it) and a Tremora job on a thread pool (as
// the window runs it), each within a time bound. Test thread only; the job runs need a
// QApplication.
namespace BadInputRuns {

// How long one input may take through the pass or the job before it counts as a hang.
constexpr int kTimeBoundMs = 30000;

// What an input must end with: a job's Done or Failed (for the pass: Finished or
// OpenFailed); some damaged files decode, some do not.
enum class Expected { DoneOrFailed, Done, Failed };

struct Input {
    QByteArray name; // row name of the data-driven test
    QString path;
    Expected expected;
};

// The fuzzer's seed clips (fuzz/make_seed_corpus.sh) written into `folder`; empty with
// *error set when the script fails.
QStringList makeSeedClips(const QString& folder, QString* error);

// Copies of `seed` in `folder`: cut at ten offsets, with ten bytes flipped (a seeded random
// generator picks them, several times over), and with its header zeroed.
std::vector<Input> damagedCopies(const QString& seed, const QString& folder);

QByteArray readFile(const QString& path);
bool writeFile(const QString& path, const QByteArray& bytes);

struct PassRun {
    bool ended = false; // false: still running when the time bound passed
    MotionPassOutcome outcome = MotionPassOutcome::OpenFailed;
    int started = 0;
    int pairs = 0;
    cv::Mat counts;
    cv::Mat background;
    QImage map;
};

// MotionPass::run over `path` on a pool thread with hooks that never cancel, then the map;
// with the decoder threads of a window job that runs alone.
PassRun runPass(const QString& path, int timeBoundMs = kTimeBoundMs);

struct JobRun {
    bool ended = false; // false: no final state within the time bound
    int state = -1;
    QString text;       // the row's text once its queued changes have arrived
    QImage result;
    cv::Mat counts;
};

// A Tremora job over `path` (1280 x 720 thumbnail, a refresh every 300 pairs) started on a
// thread pool while this thread keeps processing events, as the window does.
JobRun runJob(const QString& path, int timeBoundMs = kTimeBoundMs);

bool sameCounts(const cv::Mat& a, const cv::Mat& b);

// Empty when both runs ended, the way `expected` allows, and agree with each other: a
// failed open is the job's "failed" with no map; a finished pass is its "done" with the same
// counts and the same map (for a damaged file, Expected::DoneOrFailed, counts and map of the
// same size). Otherwise says what is wrong. `fileName` is what the row shows.
QString disagreement(const PassRun& pass, const JobRun& job, const QString& fileName, Expected expected);

} // namespace BadInputRuns

Q_DECLARE_METATYPE(BadInputRuns::Expected)
