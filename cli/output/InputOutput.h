#pragma once

#include "Manifest.h"
#include "MapToolOptions.h"
#include "MotionPass.h"
#include "OutputPlan.h"

#include <QImage>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <opencv2/core/mat.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

// One input whose pass has ended, as its outputs see it: what the pass found, how the input
// has ended so far and which of its files are in place. The images are rendered once, for
// whichever output (or the report) asks first. Made, read and changed on the pass's thread.
struct FinishedInput {
    FinishedInput(const PlannedInput& input, const MapToolOptions& options, const MotionPassFacts& facts,
                  const cv::Mat& motionCount, const cv::Mat& background);

    // The map: the window's, from the wrapping count, unless a scale is given (mapScale);
    // then from the exact counts.
    const QImage& map();
    // The map with the strip that explains it below.
    const QImage& legend();
    // What the input's manifest says now.
    Manifest::Content manifestContent() const;
    // The input has failed, for `why`.
    void fail(const QString& why);

    const PlannedInput& input;
    const MapToolOptions& options;
    const MotionPassFacts& facts;
    const cv::Mat& motionCount;    // wraps after 255, as the window counts
    const cv::Mat& background;
    double mapScale = 0.0;         // the events at the top of the map's scale with --scale; else 0
    Manifest::Outcome outcome = Manifest::Outcome::Done;
    QString error;                 // why the input failed, with Outcome::Failed
    std::vector<Manifest::WrittenFile> written; // the files of this input in place, in order
    std::int64_t pairsWithMotion = 0;
    QJsonArray zones;              // with --zones: each zone's figures, once its table is written
    QJsonObject manifest;          // the manifest, once made
    const std::atomic<int>* cancel = nullptr; // non-zero: the run was interrupted; null: never

private:
    QImage m_map;
    QImage m_legend;
};

// One file an input writes: its map, its legend, a data file, its manifest. The run makes an
// input's outputs before its pass (InputOutputs::of), hands them every frame pair the pass
// counts, and once the pass has ended asks each in turn to write its file
// (InputOutputs::writeAll). Used on one pass's thread at a time.
class InputOutput {
public:
    // `path`: where the file goes. `replaces`: a file there may be replaced (--overwrite).
    InputOutput(const QString& path, bool replaces);
    virtual ~InputOutput() = default;

    const QString& path() const { return m_path; }

    // What the file is to a reader of the manifest: "map", "legend", "activity".
    virtual QString role() const = 0;

    // Why the file may not be written: one is there and is not to be replaced. Empty when it
    // may; the file system is read again on every call, as files may appear during a pass.
    QString refusal() const;

    // Each frame pair as the pass counts it, in their order.
    virtual void pairCounted(const MotionPassHooks::PairRecord& record);
    // Each step of the time line as the pass hands it over (MotionPassHooks::stepEnded).
    virtual void stepEnded(int step, double lastPairTime, const cv::Mat& exactCounts);

    // Why the input fails, whatever its files, from what its pass found; empty when it does
    // not. Asked once the pass has ended well, before any file is written.
    virtual QString failureOf(const FinishedInput& finished) const;

    // Whether it is written however the input ended (failed, canceled): a record of how it
    // ended is. Others are written only while everything has gone well.
    virtual bool recordsEveryOutcome() const;

    // Writes the file. The error, empty when the file is in place.
    virtual QString write(FinishedInput& finished) = 0;

protected:
    bool replaces() const { return m_replaces; }
    // Writes `image` to the output's path in the format its suffix names. The error, empty on
    // success.
    QString saveImage(const QImage& image) const;

private:
    QString m_path;
    bool m_replaces;
};

// An output of type T at `path`, the file the plan gives it, replacing a file there only with
// `replaces`; null when the plan gives it none, as the run does not write it.
template <typename T>
std::unique_ptr<InputOutput> plannedOutput(const QString& path, bool replaces)
{
    if (path.isEmpty())
        return nullptr;
    return std::make_unique<T>(path, replaces);
}
