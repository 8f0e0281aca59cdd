#include "MotionPass.h"

#include "AsyncBackgroundLearner.h"
#include "DecoderThreads.h"
#include "FfmpegMutex.h"
#include "FrameClock.h"
#include "FrameSource.h"
#include "LargePageMats.h"
#include "MotionCounter.h"
#include "MpegFrame.h"
#include "MpegReader.h"
#include "ThreadPriority.h"

#include <QMutexLocker>

#include <opencv2/core.hpp>


#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

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

// A seek the container cannot do by its index may open the file once more.
void seekLocked(MpegReader& reader, double seconds)
{
    QMutexLocker lock(&ffmpegMutex);
    reader.seek(seconds);
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
// Anew, in large pages: the pass sets them up before its first frame, and a fault a small page
// would hold up its start.
void resetMaps(cv::Size size, cv::Mat& motionCount, cv::Mat& background)
{
    LargePageMats::create(motionCount, size, CV_8UC1, cv::Scalar::all(0));
    LargePageMats::create(background, size, CV_8UC3, cv::Scalar::all(0));
}

// Where the pass is in its video: the times of its frames, the end of its time window, and
// the frames read so far.
struct Timeline {
    FrameClock clock;
    double windowEnd;
    std::int64_t framesDecoded = 0;
};

bool keepsExactCounts(const MotionPassSettings& settings)
{
    return settings.detailed || settings.exactCounts;
}

MotionCounter::Detail counterDetail(const MotionPassSettings& settings, cv::Size size)
{
    MotionCounter::Detail detail;
    detail.enabled = settings.detailed || !settings.mask.empty();
    detail.steadyLight = settings.steadyLight;
    detail.sceneChangeShare = settings.sceneChangeShare;
    detail.exactCounts = settings.exactCounts;
    if (settings.detailed) {
        detail.cellSize = std::max(settings.eventCellSize, 0);
        detail.zones = settings.zones;
    }
    if (!settings.mask.empty())
        detail.mask = MotionPass::maskAt(settings.mask, size);
    return detail;
}

// Stretches of the time line, each `seconds` long (none when 0), numbered from 0 at the line's
// start: the video's own, shifted by `offset`. As the pairs reach a later stretch, the one
// being counted is handed over with the events that began in its pairs; at the end of the
// video, the last. A pair whose time lies before its stretch's start (timestamps going back)
// stays in the stretch being counted, so that every stretch is handed over once.
class TimeStretches {
public:
    TimeStretches(double seconds, double offset, cv::Size size)
        : m_seconds(std::max(seconds, 0.0))
        , m_offset(offset)
    {
        if (on())
            m_startCounts = cv::Mat(size, CV_16UC1, cv::Scalar(0));
    }

    bool on() const { return m_seconds > 0.0; }
    double seconds() const { return m_seconds; }
    double onLine(double time) const { return time + m_offset; }

    // Whether the stretch of a pair at `time` can be numbered in an int (always, when off).
    bool numbers(double time) const
    {
        return !on()
            || (std::abs(onLine(time)) < MotionPass::kLatestTime
                && onLine(time) / m_seconds < static_cast<double>(std::numeric_limits<int>::max()));
    }

    // Whether the pair at `time` belongs to a later stretch than the one being counted, which
    // is then to be handed over (end()) before the pair is counted.
    bool endsBefore(double time) const { return on() && m_current >= 0 && stretchOf(time) > m_current; }

    // The pair at `time` is about to be counted.
    void enter(double time)
    {
        if (!on())
            return;
        m_current = std::max(stretchOf(time), m_current);
        m_lastPairTime = onLine(time);
    }

    // Hands the stretch being counted to `ended(stretch, lastPairTime, stretchCounts)`, if any.
    // The counts only ever grow, so a stretch's own events are what they grew by since its
    // start; a count saturated at 16 bits undercounts there, as the whole video's does.
    template <typename Ended>
    void end(const cv::Mat& counts, Ended ended)
    {
        if (m_current < 0 || counts.empty())
            return;
        cv::subtract(counts, m_startCounts, m_counts, cv::noArray(), CV_16UC1);
        ended(m_current, m_lastPairTime, m_counts);
        counts.copyTo(m_startCounts);
    }

private:
    int stretchOf(double time) const { return static_cast<int>(std::max(std::floor(onLine(time) / m_seconds), 0.0)); }

    const double m_seconds;
    const double m_offset;
    int m_current = -1;
    double m_lastPairTime = 0.0;
    cv::Mat m_startCounts;
    cv::Mat m_counts;
};

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
    PairLoop(FrameSource& source, Timeline& timeline, int decoderThreads, cv::Size size,
             const MotionPassSettings& settings, cv::Mat& motionCount, cv::Mat& background, MotionPassHooks& hooks)
        : m_source(source)
        , m_timeline(timeline)
        , m_size(size)
        , m_updateInterval(settings.updateInterval)
        , m_backgroundAtFirstPair(settings.backgroundAtMilestones)
        , m_reportPairs(settings.detailed)
        , m_counter(size, settings.blur, MotionCounter::stripesFor(size, decoderThreads), counterDetail(settings, size))
        , m_eventTimes(settings.detailed && settings.eventCellSize > 0 ? CellEventTimes(size, settings.eventCellSize)
                                                                        : CellEventTimes())
        , m_slices(settings.detailed ? settings.sliceSeconds : 0.0, settings.sliceOffset, size)
        , m_steps(keepsExactCounts(settings) ? settings.stepSeconds : 0.0, settings.sliceOffset, size)
        , m_motionCount(motionCount)
        , m_background(background)
        , m_hooks(hooks)
    {
    }

private:
    // What a slice and a step do as they end: go to the hooks.
    auto sliceEnded()
    {
        return [this](int slice, double, const cv::Mat& counts) {
            m_hooks.sliceEnded(slice, slice * m_slices.seconds(), counts);
        };
    }

    auto stepEnded()
    {
        return [this](int step, double lastPairTime, const cv::Mat& counts) {
            m_hooks.stepEnded(step, lastPairTime, counts);
        };
    }

public:
    void run(FramePtr first)
    {
        m_counter.start(viewOf(*first));
        first.reset();
        for (int pairIndex = 0;;) {
            double time = 0.0;
            FramePtr current = readNextFrame(time);
            const bool endOfVideo = current == nullptr;
            if (!endOfVideo) {
                if (!placeable(time))
                    return;
                // The exact counts are read only when a stretch ends: reading them folds the
                // wrapping count into them, which every pair would pay for.
                if (m_slices.endsBefore(time))
                    m_slices.end(m_counter.exactCounts(), sliceEnded());
                if (m_steps.endsBefore(time))
                    m_steps.end(m_counter.exactCounts(), stepEnded());
                m_slices.enter(time);
                m_steps.enter(time);
                analysePair(std::move(current), pairIndex, time);
                ++pairIndex;
            } else {
                m_slices.end(m_counter.exactCounts(), sliceEnded());
                m_steps.end(m_counter.exactCounts(), stepEnded());
            }
            refresh(pairIndex, endOfVideo);
            if (m_hooks.cancelRequested() || endOfVideo)
                return;
        }
    }

    int pairs() const { return m_counter.pairs(); }
    // Whether the loop stopped at a pair it could not place, and that pair's time.
    bool stoppedAtUnplaceableTime() const { return m_stoppedAtUnplaceableTime; }
    double unplaceableTime() const { return m_unplaceableTime; }
    const cv::Mat& exactCounts() const { return m_counter.exactCounts(); }
    CellEventTimes takeEventTimes() { return std::move(m_eventTimes); }

private:
    // A frame of another size than the first (a stream changing its resolution), and the
    // first frame at or after the end of the time window, end the pass like the end of the
    // video. `time` receives the frame's time.
    FramePtr readNextFrame(double& time)
    {
        FrameSource::Frame next = m_source.next();
        m_hooks.positionChanged(next.position);
        if (!next.frame)
            return nullptr;
        ++m_timeline.framesDecoded;
        time = m_timeline.clock.timeOf(*next.frame);
        if (!fits(*next.frame, m_size) || time >= m_timeline.windowEnd)
            return nullptr;
        return std::move(next.frame);
    }

    void analysePair(FramePtr current, int pairIndex, double time)
    {
        if (pairIndex < MotionPass::kLearningPairs)
            m_learner.learn(*current);
        m_counter.addFrame(viewOf(*current), m_motionCount);
        m_hooks.pairAnalysed();
        if (m_reportPairs) {
            const MotionCounter::PairActivity activity = m_counter.lastPair();
            const std::vector<ZoneSpans::Tally>* zones = m_counter.zones().empty() ? nullptr : &m_counter.lastPairZones();
            m_hooks.pairCounted({pairIndex, time, activity.movingPixels, activity.newEvents,
                                 m_counter.lastPairWasSceneChange(), zones});
            if (!m_eventTimes.empty() && activity.newEvents > 0)
                m_eventTimes.record(static_cast<std::int64_t>(std::floor(time)), m_counter.lastPairCells());
        }
    }

    // Slices are numbered in an int and event times in whole seconds: a time that neither
    // holds ends the loop before anything of its pair is counted.
    bool placeable(double time)
    {
        const bool fits = m_slices.numbers(time) && m_steps.numbers(time)
            && (m_eventTimes.empty() || std::abs(time) < MotionPass::kLatestTime);
        if (!fits) {
            m_stoppedAtUnplaceableTime = true;
            m_unplaceableTime = m_slices.on() || m_steps.on() ? m_slices.onLine(time) : time;
        }
        return fits;
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
    Timeline& m_timeline;
    const cv::Size m_size;
    const int m_updateInterval;
    const bool m_backgroundAtFirstPair;
    const bool m_reportPairs;
    MotionCounter m_counter;
    CellEventTimes m_eventTimes;
    AsyncBackgroundLearner m_learner;
    TimeStretches m_slices;
    TimeStretches m_steps;
    bool m_stoppedAtUnplaceableTime = false;
    double m_unplaceableTime = 0.0;
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

// The first frame of the time window that starts at `start`, after `first`, the video's
// first frame at `time`; null when the video ends (or the pass is canceled) before it.
// `time` receives the time of the frame returned.
// Where the video has timestamps the reader seeks to the key frame before `start`, so that
// the end of a long recording is reached without decoding all of it; the frames from there
// to `start` are decoded and dropped. Without timestamps, or where the file cannot seek, the
// frames are read one after the other from the start.
FramePtr frameAtWindowStart(MpegReader& reader, FramePtr first, double& time, double start, cv::Size size,
                            Timeline& timeline, MotionPassHooks& hooks)
{
    if (time >= start)
        return first;
    const bool timestamped = first->m_hasPresentationTime;
    // Done with before the reader moves on: it belongs to the decoder.
    first.reset();
    if (timestamped)
        seekLocked(reader, start);
    while (!hooks.cancelRequested()) {
        FramePtr frame(reader.read(false));
        hooks.positionChanged(reader.pos());
        if (!frame || !fits(*frame, size))
            return nullptr;
        ++timeline.framesDecoded;
        time = timeline.clock.timeOf(*frame);
        if (time >= start)
            return frame;
    }
    return nullptr;
}

void analyseFrames(MpegReader& reader, FramePtr firstFrame, cv::Size size, int runningPasses,
                   const MotionPassSettings& settings, cv::Mat& motionCount, cv::Mat& background,
                   MotionPassHooks& hooks, Timeline& timeline, MotionPassFacts& facts)
{
    resetMaps(size, motionCount, background);
    // Known before any pair is counted: a zone without a pixel makes the whole count
    // worthless to the caller, so the pass ends here rather than after the video.
    if (settings.detailed && !settings.zones.empty()) {
        facts.zones = ZoneSpans(size, settings.zones, MotionPass::maskAt(settings.mask, size));
        if (facts.zones.hasZoneWithoutPixel())
            return;
    }
    hooks.started();
    if (hooks.cancelRequested() || !firstFrame)
        return;
    ++timeline.framesDecoded;
    double time = timeline.clock.timeOf(*firstFrame);
    firstFrame = frameAtWindowStart(reader, std::move(firstFrame), time, settings.windowStart, size, timeline, hooks);
    // An empty window (its first frame at or after its end, or past the video's end) has no
    // pair; a cancel while skipping to it leaves no frame either.
    if (!firstFrame || time >= settings.windowEnd)
        return;
    const int decoderThreads = reader.decoderThreads();
    FrameSource source(reader, decoderThreads > 1, MotionPass::readAheadDepthFor(size, runningPasses));
    const auto loop = [&] {
        PairLoop pairs(source, timeline, decoderThreads, size, settings, motionCount, background, hooks);
        pairs.run(std::move(firstFrame));
        facts.pairsAnalysed = pairs.pairs();
        if (keepsExactCounts(settings))
            facts.exactCounts = pairs.exactCounts();
        facts.eventTimes = pairs.takeEventTimes();
        facts.stoppedAtUnplaceableTime = pairs.stoppedAtUnplaceableTime();
        facts.unplaceableTime = pairs.unplaceableTime();
    };
    if (decoderThreads > 1)
        runBelowDecoder(loop);
    else
        loop();
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
             const MotionPassSettings& settings, cv::Mat& motionCount, cv::Mat& background, MotionPassHooks& hooks,
             MotionPassFacts& facts)
{
    Timeline timeline{FrameClock(reader.fps()), settings.windowEnd};
    try {
        analyseFrames(reader, std::move(firstFrame), size, runningPasses, settings, motionCount, background, hooks,
                      timeline, facts);
        // A pass that counted no pair has counted no event, at the video's size like its map.
        if (keepsExactCounts(settings) && facts.exactCounts.empty())
            facts.exactCounts = cv::Mat(size, CV_16UC1, cv::Scalar(0));
    } catch (const std::exception&) {
    }
    facts.framesDecoded = timeline.framesDecoded;
}

} // namespace

int MotionPass::decoderThreadsFor(int requested, int runningPasses, int cores)
{
    if (requested > 0)
        return requested;
    return DecoderThreads::forPass(runningPasses, cores, DecoderThreads::Sharing::SplitCores);
}

VideoInfo MotionPass::probe(const QByteArray& utf8Path)
{
    MpegReader reader;
    VideoInfo info;
    if (openLocked(reader, utf8Path))
        info = reader.info();
    // A failed open leaves a half-open reader, released under the lock as well.
    closeLocked(reader);
    return info;
}

cv::Mat MotionPass::maskAt(const cv::Mat& mask, cv::Size size)
{
    cv::Mat scaled(size, CV_8UC1, cv::Scalar(255));
    if (mask.empty())
        return scaled;
    // The library's nearest-neighbour scaling rounds a centre that falls on a border between
    // two mask pixels to the left one; the pixel under a centre is the right one. Once per
    // video, so plain index tables do.
    std::vector<int> columns(static_cast<size_t>(size.width));
    for (int x = 0; x < size.width; ++x)
        columns[static_cast<size_t>(x)] = static_cast<int>((2LL * x + 1) * mask.cols / (2LL * size.width));
    for (int y = 0; y < size.height; ++y) {
        const auto* from = mask.ptr<std::uint8_t>(static_cast<int>((2LL * y + 1) * mask.rows / (2LL * size.height)));
        auto* to = scaled.ptr<std::uint8_t>(y);
        for (int x = 0; x < size.width; ++x)
            to[x] = from[columns[static_cast<size_t>(x)]] != 0 ? 255 : 0;
    }
    return scaled;
}

int MotionPass::readAheadDepthFor(cv::Size size, int runningPasses)
{
    return runningPasses > 1 ? FrameSource::kMinDepth : FrameSource::depthFor(size.width, size.height);
}

MotionPassOutcome MotionPass::run(const QByteArray& utf8Path, const MotionPassSettings& settings,
                                  cv::Mat& motionCount, cv::Mat& background, MotionPassHooks& hooks,
                                  MotionPassFacts* facts)
{
    MotionPassFacts ownFacts;
    MotionPassFacts& found = facts ? *facts : ownFacts;
    found = {};
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
        found.video = reader.info();
        firstFrame = readFirstFrame(reader);
        size = videoSize(reader, firstFrame.get());
    }
    analyse(reader, std::move(firstFrame), size, running.count(), settings, motionCount, background, hooks, found);
    closeLocked(reader);
    if (found.stoppedAtUnplaceableTime)
        return MotionPassOutcome::TimeOutOfRange;
    return hooks.cancelRequested() ? MotionPassOutcome::Canceled : MotionPassOutcome::Finished;
}
