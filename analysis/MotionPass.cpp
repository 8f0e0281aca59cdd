#include "MotionPass.h"

#include "BackgroundLearner.h"
#include "FfmpegMutex.h"
#include "MotionCounter.h"
#include "MpegFrame.h"
#include "MpegReader.h"

#include <QMutexLocker>

#include <algorithm>
#include <exception>
#include <memory>

namespace {

using FramePtr = std::unique_ptr<MpegFrame>;

bool openLocked(MpegReader& reader, const QByteArray& utf8Path)
{
    QMutexLocker lock(&ffmpegMutex);
    return reader.open(utf8Path.constData());
}

void closeLocked(MpegReader& reader)
{
    QMutexLocker lock(&ffmpegMutex);
    reader.close();
}

cv::Size sizeOf(const MpegFrame& frame)
{
    return {frame.width(), frame.height()};
}

// A frame the pass can wrap as an 8-bit view of `size` without reading past its rows.
bool fits(const MpegFrame& frame, cv::Size size)
{
    return frame.data() != nullptr && sizeOf(frame) == size && frame.step() >= size.width;
}

FramePtr readFirstFrame(MpegReader& reader)
{
    FramePtr frame(reader.read(true));
    if (frame && (frame->width() <= 0 || frame->height() <= 0 || !fits(*frame, sizeOf(*frame))))
        frame.reset();
    return frame;
}

cv::Size videoSize(const MpegReader& reader, const MpegFrame* firstFrame)
{
    if (firstFrame)
        return sizeOf(*firstFrame);
    return {std::max(reader.width(), 0), std::max(reader.height(), 0)};
}

cv::Mat viewOf(MpegFrame& frame)
{
    return cv::Mat(frame.height(), frame.width(), CV_8UC1, frame.data(), static_cast<size_t>(frame.step()));
}

// Reallocates only when the size or type differs; clears in any case.
void resetMaps(cv::Size size, cv::Mat& motionCount, cv::Mat& background)
{
    motionCount.create(size, CV_8UC1);
    motionCount.setTo(cv::Scalar::all(0));
    background.create(size, CV_8UC3);
    background.setTo(cv::Scalar::all(0));
}

// The loop over the frame pairs, from the first frame to the end of the video or a cancel.
class PairLoop {
public:
    PairLoop(MpegReader& reader, cv::Size size, const MotionPassSettings& settings,
             cv::Mat& motionCount, cv::Mat& background, MotionPassHooks& hooks)
        : m_reader(reader)
        , m_size(size)
        , m_updateInterval(settings.updateInterval)
        , m_counter(size, settings.blur)
        , m_learner(size)
        , m_motionCount(motionCount)
        , m_background(background)
        , m_hooks(hooks)
    {
    }

    void run(FramePtr previous)
    {
        for (int pairIndex = 0;;) {
            FramePtr current = readNextFrame();
            if (current) {
                analysePair(*previous, *current, pairIndex);
                ++pairIndex;
            }
            refresh(pairIndex, current == nullptr);
            if (m_hooks.cancelRequested() || !current)
                return;
            previous = std::move(current);
        }
    }

private:
    // A frame of another size than the first (a stream changing its resolution) ends the
    // pass like the end of the video.
    FramePtr readNextFrame()
    {
        FramePtr frame(m_reader.read(true));
        m_hooks.positionChanged(m_reader.pos());
        if (frame && !fits(*frame, m_size))
            frame.reset();
        return frame;
    }

    void analysePair(MpegFrame& previous, MpegFrame& current, int pairIndex)
    {
        // Learn from the frame before smoothing changes its brightness plane.
        if (pairIndex < MotionPass::kLearningPairs)
            m_learner.learn(current);
        cv::Mat previousView = viewOf(previous);
        cv::Mat currentView = viewOf(current);
        m_counter.addPair(previousView, currentView, pairIndex, m_motionCount);
        m_hooks.pairAnalysed();
    }

    void refresh(int pairsDone, bool endOfVideo)
    {
        if (pairsDone == 1 || pairsDone == MotionPass::kLearningPairs || endOfVideo) {
            m_learner.fetchBackground(m_background);
            m_hooks.refresh(MotionPassHooks::Refresh::Milestone);
        }
        if (m_updateInterval > 0 && pairsDone % m_updateInterval == 0)
            m_hooks.refresh(MotionPassHooks::Refresh::Periodic);
    }

    MpegReader& m_reader;
    const cv::Size m_size;
    const int m_updateInterval;
    MotionCounter m_counter;
    BackgroundLearner m_learner;
    cv::Mat& m_motionCount;
    cv::Mat& m_background;
    MotionPassHooks& m_hooks;
};

// Everything between opening and closing. A picture too large for memory surfaces as an
// exception from the matrix library; it ends the pass like a read failure.
void analyse(MpegReader& reader, FramePtr firstFrame, cv::Size size, const MotionPassSettings& settings,
             cv::Mat& motionCount, cv::Mat& background, MotionPassHooks& hooks)
{
    try {
        resetMaps(size, motionCount, background);
        hooks.started();
        if (hooks.cancelRequested() || !firstFrame)
            return;
        PairLoop(reader, size, settings, motionCount, background, hooks).run(std::move(firstFrame));
    } catch (const std::exception&) {
    }
}

} // namespace

MotionPassOutcome MotionPass::run(const QByteArray& utf8Path, const MotionPassSettings& settings,
                                  cv::Mat& motionCount, cv::Mat& background, MotionPassHooks& hooks)
{
    MpegReader reader;
    FramePtr firstFrame;
    cv::Size size(0, 0);
    if (!hooks.cancelRequested()) {
        if (!openLocked(reader, utf8Path)) {
            // A failed open leaves a half-open reader; release it under the lock as well.
            closeLocked(reader);
            return MotionPassOutcome::OpenFailed;
        }
        firstFrame = readFirstFrame(reader);
        size = videoSize(reader, firstFrame.get());
    }
    analyse(reader, std::move(firstFrame), size, settings, motionCount, background, hooks);
    closeLocked(reader);
    return hooks.cancelRequested() ? MotionPassOutcome::Canceled : MotionPassOutcome::Finished;
}
