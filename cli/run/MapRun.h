#pragma once

#include "MapToolOptions.h"
#include "OutputPlan.h"
#include "ReportPage.h"

#include <QJsonArray>

#include <opencv2/core/mat.hpp>

#include <atomic>
#include <vector>

class ProgressOutput;
class ReportFolder;
struct MotionPassFacts;

// What a run does with each input instead of writing that input's own files (--combine).
// Called on the pool's threads, several at once.
class ResultSink {
public:
    virtual ~ResultSink() = default;
    // Whether the input at `index` (its place in the order given) is taken without a pass.
    virtual bool takesWithoutPass(int index) const = 0;
    // Takes the input at `index` without a pass. The error, empty on success.
    virtual QString take(int index) = 0;
    // Takes the finished pass over the input at `index` (its activity table, with --data, is
    // complete at PlannedInput::activityPath, and with --zones its zones table at
    // PlannedInput::zonesPath, each zone's figures in `zones`). The error, empty on success.
    virtual QString takePass(int index, const MotionPassFacts& facts, const cv::Mat& background,
                             const QJsonArray& zones) = 0;
    // Once every input has ended, when the run was not canceled: writes what the sink makes
    // of them. The errors, one line each. Called on the run's thread.
    virtual QStringList finish() = 0;
    // After finish(), with --report: the sink's own cards, their files put in the report's
    // staging folder `staging`; `inputs` holds each input's part as its own card draws it.
    // `error` receives why a card's files could not be written. Called on the run's thread.
    virtual std::vector<ReportCard> reportCards(const QString& staging, const std::vector<ReportPart>& inputs,
                                                QString* error) = 0;
};

namespace MapRun {

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
// Canceled by SIGINT or SIGTERM: the shell's status for an interrupted command, whichever
// of the two asked, so scripts test one value.
constexpr int kExitInterrupted = 130;

// Analyses the planned inputs, options.jobs files at once on a pool of its own, in the order
// given, and writes each one's files as soon as its pass finishes. Inputs with a planning
// error are reported and skipped. While passes run it reports starts, ends and errors to
// `output` and shows the running files about ten times a second.
// `cancel` non-zero (a signal number) cancels: running passes stop after their current frame
// pair, waiting ones do not open their file, and nothing more is written; files already
// written stay. Returns the exit status: kExitSuccess when every map was written,
// kExitInterrupted when canceled, kExitFailure otherwise.
// Blocks until every pass has ended. Call from one thread at a time.
// `mask` (see MotionPassSettings::mask) applies to every input; empty for none.
// `report`, when given and prepared, receives each input's report data as its pass ends and,
// once every pass has ended (after a cancel too, its unfinished inputs shown canceled), the
// page, which then takes the report folder's place; a report that cannot be written counts as a failure, the maps stay.
// `sink`, when given, receives every input's results and no input writes files of its own.
int run(const MapToolOptions& options, const std::vector<PlannedInput>& inputs,
        ProgressOutput& output, const std::atomic<int>& cancel, const cv::Mat& mask = {},
        ReportFolder* report = nullptr, ResultSink* sink = nullptr);

// The decoder threads of a file about to start: the `cores` shared among the files analysed
// at once, so that passes do not fight over the cores. Those are the files running now,
// `filesRunning` (this one included), and, while the first files start together, as many as
// will run at once: `jobs`, or fewer when fewer are left (`filesToStart` counts this file and
// those after it). So the last file of a run decodes with every core only once it runs alone.
// The cores are split as DecoderThreads::Sharing::SplitCores splits them. Thread-safe.
int decoderThreadsFor(int jobs, int filesToStart, int filesRunning, int cores);

} // namespace MapRun
