#include "MotionPass.h"

#include "AsyncBackgroundLearner.h"
#include "FfmpegMutex.h"
#include "FrameSource.h"
#include "MotionCounter.h"
#include "MpegFrame.h"
#include "MpegReader.h"
#include "ThreadPriority.h"

#include <QMutexLocker>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>

namespace {

using FramePtr = std::shared_ptr<MpegFrame>;

// Passes running in the process now; the decoder threads of a new pass are sized by it.
std::atomic<int> runningPasses{0};

class RunningPass {
public:
    RunningPass() { m_count = runningPasses.fetch_add(1) + 1; }
    ~RunningPass() { runningPasses.fetch_sub(1); }
    int count() const { return m_count; }

private:
    int m_count;
};

int cores()
{
    return std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
}

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
    // Only read, and done with before the next read.
    FramePtr frame(reader.read(false));
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

// A read-only view: nothing writes through it.
cv::Mat viewOf(const MpegFrame& frame)
{
    return cv::Mat(frame.height(), frame.width(), CV_8UC1, const_cast<std::uint8_t*>(frame.data()),
                   static_cast<size_t>(frame.step()));
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
    // Frames are only read (smoothing writes into the counter's own buffers), and the
    // counter and the learner's conversion are done with a frame before the next is taken,
    // so frames share the decoder's pictures. Keeping one longer would make the decoder's
    // reuse of its pictures, and so what the pictures of a damaged video show, depend on
    // timing. The count is split over as many threads as the decoder has: the cores this
    // pass does not share with others; a pass sharing them counts on its own thread, where
    // handing rows to another would only wait for the other pass's work.
    PairLoop(FrameSource& source, int decoderThreads, cv::Size size, const MotionPassSettings& settings,
             cv::Mat& motionCount, cv::Mat& background, MotionPassHooks& hooks)
        : m_source(source)
        , m_size(size)
        , m_updateInterval(settings.updateInterval)
        , m_backgroundAtFirstPair(settings.backgroundAtMilestones)
        , m_counter(size, settings.blur, MotionCounter::stripesFor(size, decoderThreads))
        , m_motionCount(motionCount)
        , m_background(background)
        , m_hooks(hooks)
    {
    }

    void run(FramePtr first)
    {
        m_counter.start(viewOf(*first));
        first.reset();
        for (int pairIndex = 0;;) {
            FramePtr current = readNextFrame();
            const bool endOfVideo = current == nullptr;
            if (!endOfVideo) {
                if (!analysePair(std::move(current), pairIndex))
                    return;
                ++pairIndex;
            }
            refresh(pairIndex, endOfVideo);
            if (m_hooks.cancelRequested() || endOfVideo)
                return;
        }
    }

private:
    // A frame of another size than the first (a stream changing its resolution) ends the
    // pass like the end of the video.
    FramePtr readNextFrame()
    {
        FrameSource::Frame next = m_source.next();
        m_hooks.positionChanged(next.position);
        if (next.frame && !fits(*next.frame, m_size))
            next.frame.reset();
        return std::move(next.frame);
    }

    // False when the pass was canceled while it waited to learn.
    bool analysePair(FramePtr current, int pairIndex)
    {
        if (pairIndex < MotionPass::kLearningPairs
            && !m_learner.learn(*current, [this] { return m_hooks.cancelRequested(); }))
            return false;
        m_counter.addFrame(viewOf(*current), m_motionCount);
        m_hooks.pairAnalysed();
        return true;
    }

    void refresh(int pairsDone, bool endOfVideo)
    {
        if (pairsDone == 1 || pairsDone == MotionPass::kLearningPairs || endOfVideo) {
            // After the last learning pair the model is final: its background is fetched
            // once more and the model freed, and at the end of the video it is kept as it is.
            const bool wanted = pairsDone != 1 || m_backgroundAtFirstPair || endOfVideo;
            if (pairsDone <= MotionPass::kLearningPairs && wanted) {
                m_learner.fetchBackground(m_background);
                if (pairsDone == MotionPass::kLearningPairs || endOfVideo)
                    m_learner.finish();
            }
            m_hooks.refresh(MotionPassHooks::Refresh::Milestone);
        }
        if (m_updateInterval > 0 && pairsDone % m_updateInterval == 0)
            m_hooks.refresh(MotionPassHooks::Refresh::Periodic);
    }

    FrameSource& m_source;
    const cv::Size m_size;
    const int m_updateInterval;
    const bool m_backgroundAtFirstPair;
    MotionCounter m_counter;
    AsyncBackgroundLearner m_learner;
    cv::Mat& m_motionCount;
    cv::Mat& m_background;
    MotionPassHooks& m_hooks;
};

// Runs `work` on a thread of its own, at a priority below the decoder's threads (the threads
// `work` starts inherit it), and waits for it; what `work` throws is thrown again here. Where
// no thread can be started, runs `work` on the calling thread as it is.
void runBelowDecoder(const std::function<void()>& work)
{
    std::exception_ptr failure;
    std::thread worker;
    try {
        worker = std::thread([&] {
            ThreadPriority::lowerCallingThread(ThreadPriority::kBelowDecoder);
            try {
                work();
            } catch (...) {
                failure = std::current_exception();
            }
        });
    } catch (const std::system_error&) {
        work();
        return;
    }
    worker.join();
    if (failure)
        std::rethrow_exception(failure);
}

// Everything between opening and closing. A picture too large for memory surfaces as an
// exception from the matrix library; it ends the pass like a read failure.
//
// A decoder with threads of its own reads ahead, and then everything else the pass computes
// (the count, the learning and the threads they start) runs below the decoder's priority:
// the decoder, which the whole pass waits for, then never waits for a core, and the frames
// it decodes meanwhile queue up (see MotionPass::readAheadDepthFor) until the count catches
// up in the time the decoder leaves a core idle. The reading-ahead thread is started before,
// so it keeps the decoder's priority.
void analyse(MpegReader& reader, FramePtr firstFrame, cv::Size size, int runningPasses,
             const MotionPassSettings& settings, cv::Mat& motionCount, cv::Mat& background, MotionPassHooks& hooks)
{
    try {
        resetMaps(size, motionCount, background);
        hooks.started();
        if (hooks.cancelRequested() || !firstFrame)
            return;
        const int decoderThreads = reader.decoderThreads();
        FrameSource source(reader, decoderThreads > 1, MotionPass::readAheadDepthFor(size, runningPasses));
        const auto loop = [&] {
            PairLoop(source, decoderThreads, size, settings, motionCount, background, hooks).run(std::move(firstFrame));
        };
        if (decoderThreads > 1)
            runBelowDecoder(loop);
        else
            loop();
    } catch (const std::exception&) {
    }
}

} // namespace

int MotionPass::decoderThreadsFor(int requested, int runningPasses, int cores)
{
    if (requested > 0)
        return requested;
    return std::max(cores / std::max(runningPasses, 1), 1);
}

int MotionPass::readAheadDepthFor(cv::Size size, int runningPasses)
{
    return runningPasses > 1 ? FrameSource::kMinDepth : FrameSource::depthFor(size.width, size.height);
}

MotionPassOutcome MotionPass::run(const QByteArray& utf8Path, const MotionPassSettings& settings,
                                  cv::Mat& motionCount, cv::Mat& background, MotionPassHooks& hooks)
{
    const RunningPass running;
    MpegReader reader;
    reader.setDecoderThreads(decoderThreadsFor(settings.decoderThreads, running.count(), cores()));
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
    analyse(reader, std::move(firstFrame), size, running.count(), settings, motionCount, background, hooks);
    closeLocked(reader);
    return hooks.cancelRequested() ? MotionPassOutcome::Canceled : MotionPassOutcome::Finished;
}
