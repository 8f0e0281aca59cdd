#pragma once

#include <QByteArray>

#include "CellEventTimes.h"
#include "VideoInfo.h"
#include "ZoneSpans.h"

#include <opencv2/core/mat.hpp>

#include <cstdint>
#include <limits>

// One analysis pass over a whole video: decode every frame, count per pixel how many
// separate times motion was seen there, and learn the scene's background from the first
// pairs. The window's job and the command-line map tool both run their passes through
// runMotionPass, so the same video gives the same counts, background and map in both.

// What a caller plugs into a pass. Every call comes from the thread running the pass: the
// calling one, or one the pass starts for its loop (see MotionPass::run).
class MotionPassHooks {
public:
    enum class Refresh {
        Milestone, // after pair 1, after the last learning pair, at the end of the video;
                   // the background has just been fetched (at the end only, without
                   // MotionPassSettings::backgroundAtMilestones)
        Periodic,  // every `updateInterval` pairs
    };

    virtual ~MotionPassHooks() = default;

    // Polled once before the file is opened, once before the first pair, and once after
    // every pair (after the refreshes); with a time window, also once for every frame read
    // on the way to its start. Any true answer ends the pass as canceled.
    virtual bool cancelRequested() = 0;
    // The matrices are set up (zeroed, at the video's size) and the loop is about to begin.
    virtual void started() = 0;
    // The reader's byte position in the file after each read in the loop (-1 when unknown).
    virtual void positionChanged(std::int64_t bytes) = 0;
    // One more frame pair has been analysed and counted.
    virtual void pairAnalysed() = 0;

    // What the counting saw in one pair: its index (from 0, the first pair of the time
    // window), the time of its second frame in seconds from the video's start (FrameClock),
    // the pixels that moved and the new events among them. Only with
    // MotionPassSettings::detailed, right after pairAnalysed().
    struct PairRecord {
        int pair = 0;
        double time = 0.0;
        std::int64_t movingPixels = 0;
        std::int64_t newEvents = 0;
        // With MotionPassSettings::steadyLight: the pair was a scene change (no new events).
        bool sceneChange = false;
        // With MotionPassSettings::zones: what each zone saw, in their order; the pass's
        // own, valid during the call only. Null without zones.
        const std::vector<ZoneSpans::Tally>* zones = nullptr;
    };
    virtual void pairCounted(const PairRecord&) {}
    // With MotionPassSettings::sliceSeconds: slice `slice`, the seconds from
    // `startSeconds` = slice × sliceSeconds up to the next slice's start on the slices' time
    // line (the video's own, shifted by MotionPassSettings::sliceOffset), has ended, and
    // `exactCounts` (16-bit, like MotionPassFacts::exactCounts) holds the events that began
    // in its pairs. A pair belongs to the slice of its time (as in
    // PairRecord::time). Called before the first pair of a later slice is counted, and at the
    // end of the video (not on a cancel) for the last one; a slice without a pair is skipped.
    // The matrix is the pass's own and only valid during the call.
    virtual void sliceEnded(int /*slice*/, double /*startSeconds*/, const cv::Mat& /*exactCounts*/) {}
    // With MotionPassSettings::stepSeconds: step `step` of the time line (as slices number
    // theirs, in steps of stepSeconds) has ended, and `exactCounts` (16-bit) holds the events
    // that began in its pairs; `lastPairTime` is the time of its last pair on that line.
    // Called as sliceEnded() is, for every step with a pair; the matrix is only valid during
    // the call.
    virtual void stepEnded(int /*step*/, double /*lastPairTime*/, const cv::Mat& /*exactCounts*/) {}
    // The counts (and at milestones the background) are worth showing now. At the end of
    // the video both kinds may come, milestone first.
    virtual void refresh(Refresh kind) = 0;
};

struct MotionPassSettings {
    // Smooth frames before comparing them (and compare with the lower threshold).
    bool blur = true;
    // Pairs between two periodic refreshes; 0 or less means none.
    int updateInterval = 300;
    // Threads for the video decoder: 1 or more as given (see MpegReader::setDecoderThreads),
    // 0 to share the cores among the passes running when this one starts. On one thread the
    // pictures of a damaged video are the same from run to run; on several, FFmpeg's error
    // concealment depends on the threads' timing, so a damaged video's counts may vary.
    int decoderThreads = 1;
    // Fetch the background for the milestone after pair 1 too, waiting for the model to
    // learn that pair's frame. Callers that only use the final map turn this off, so that
    // the count runs on meanwhile; the background is then fetched after the last learning
    // pair and at the end of the video only.
    bool backgroundAtMilestones = true;

    // Keep the exact count of events (MotionPassFacts::exactCounts) and report every pair's
    // activity (MotionPassHooks::pairCounted). Costs a slower counting loop; off by default.
    bool detailed = false;
    // Keep the exact count of events (MotionPassFacts::exactCounts) and nothing more of what
    // `detailed` adds: no pair's activity is reported. Costs a counting loop nearly as fast
    // as the plain one; implied by `detailed`.
    bool exactCounts = false;
    // With `detailed`, and above 0: also record, in cells of this many pixels square, the
    // seconds at which events began (MotionPassFacts::eventTimes). 0: not recorded, at no cost.
    int eventCellSize = 0;
    // With `detailed`, and above 0: the length in seconds of the slices of time whose own
    // exact counts the pass hands to MotionPassHooks::sliceEnded. 0: no slices, at no cost.
    double sliceSeconds = 0.0;
    // With `exactCounts` (or `detailed`), and above 0: the length in seconds of the steps whose
    // own exact counts the pass hands to MotionPassHooks::stepEnded. 0: no steps, at no cost.
    double stepSeconds = 0.0;
    // Seconds added to every pair's time to place it in a slice or a step: where the video's
    // own time line starts on a longer one that slices several videos alike. 0: the video's own.
    double sliceOffset = 0.0;
    // 8-bit 1-channel picture of any size: 0 where pixels are ignored (they never move and
    // never count), anything else where they are analysed. Scaled to the video's size by
    // taking, for each video pixel, the mask pixel under its centre. Empty: every pixel.
    cv::Mat mask;
    // The part of the video analysed, in seconds from its start: the first frame analysed is
    // the first at or after `windowStart` (reached by seeking to the key frame before it where
    // the video has timestamps), and the pass ends before the first frame at or after
    // `windowEnd`, as at the end of the video.
    double windowStart = 0.0;
    double windowEnd = std::numeric_limits<double>::infinity();
    // A change of light is not motion: each pair's lower median difference is taken out
    // before the threshold, and a pair in which more than `sceneChangeShare` of the analysed
    // pixels still move is a scene change, which starts no event and is skipped for the quiet
    // pairs a new event needs (see MotionCounter::Detail). Costs a second look at each pair.
    bool steadyLight = false;
    double sceneChangeShare = 0.5;
    // With `detailed`: named parts of the picture, in pixel coordinates of the video, each
    // counted on its own in every pair (PairRecord::zones; see ZoneSpans for which pixels
    // a zone holds). Empty: none, at no cost.
    std::vector<ZoneSpans::Polygon> zones;
};

// What a pass learnt about its video besides the counts and the background.
struct MotionPassFacts {
    VideoInfo video;                 // empty when the file did not open
    std::int64_t framesDecoded = 0;  // frames the pass read, those before the window included
    int pairsAnalysed = 0;
    // With MotionPassSettings::detailed or exactCounts: 16-bit, saturating.
    cv::Mat exactCounts;
    // With MotionPassSettings::eventCellSize: per cell, the seconds (floor of the pair's time)
    // at which an event began in any of its pixels.
    CellEventTimes eventTimes;
    // With MotionPassSettings::zones (and `detailed`): the zones' pixels at the video's size,
    // once it is known. When one of them has none (ZoneSpans::hasZoneWithoutPixel), the pass
    // ends right there: started() is never called and no pair is counted.
    ZoneSpans zones;
    // The pass stopped at a pair it could not place (MotionPassOutcome::TimeOutOfRange), and
    // that pair's time, on the slices' time line when slicing or stepping
    // (MotionPassSettings::sliceOffset added).
    bool stoppedAtUnplaceableTime = false;
    double unplaceableTime = 0.0;
};

enum class MotionPassOutcome {
    OpenFailed, // the file could not be opened as video; nothing was set up or counted
    Finished,   // the video ended (or could not be read further, or changed its frame size),
                // or a zone has no pixel in it (see MotionPassFacts::zones)
    Canceled,   // cancelRequested() answered true, before the start or during the loop
    // With slices, steps or event times: a pair's time (MotionPassFacts::unplaceableTime) lies
    // beyond MotionPass::kLatestTime, where no slice, step or second can be numbered; the pass
    // stopped before counting that pair, and its slices, steps and event times are incomplete.
    TimeOutOfRange,
};

namespace MotionPass {

// Frame pairs whose second frame teaches the background model (pairs 0 to 99).
constexpr int kLearningPairs = 100;

// Seconds, about 317 years: no recording lasts that long, so a pair's time (or a slice's
// start) this far from the start, either way, comes from a damaged or crafted file. Slices
// and event times refuse it (MotionPassOutcome::TimeOutOfRange) rather than number seconds
// and slices past what their integers hold.
constexpr double kLatestTime = 1e10;

// The decoder threads a pass given `requested` (MotionPassSettings::decoderThreads) uses
// while `runningPasses` passes (itself included) run on a machine of `cores` cores: as many
// as requested, or with none requested, the cores split among the passes
// (DecoderThreads::Sharing::SplitCores).
int decoderThreadsFor(int requested, int runningPasses, int cores);

// The frames a pass over pictures of `size` reads ahead with several decoder threads while
// `runningPasses` passes (itself included) run: alone, as many as FrameSource::depthFor
// allows; sharing the machine, FrameSource::kMinDepth, so that passes side by side do not
// each hold a deep queue.
int readAheadDepthFor(cv::Size size, int runningPasses);

// Runs the pass over the video at `utf8Path`, writing into `motionCount` (8-bit 1-channel,
// per-pixel event count, wrapping after 255) and `background` (8-bit 3-channel R,G,B).
// Both are reset to zero at the video's size before the loop (to 0 x 0 when canceled
// before opening) and left untouched when the file cannot be opened. The video's size is
// that of its first frame (the reader's when it yields none). The file is opened and
// closed under ffmpegMutex; everything else runs unlocked. Decoding, and learning the
// background during the first pairs, use threads of their own besides the calling one. With
// several decoder threads, the loop over the pairs runs on a thread of its own too, whose
// priority (and that of the threads it starts) is lowered below the decoder's, while the
// calling thread waits; the calling thread's own priority is left as it was.
// Blocks until the pass ends. Reentrant: passes over different matrices may run on several
// threads at once, each learning with a background model of its own.
// `facts`, when given, is filled as far as the pass got.
MotionPassOutcome run(const QByteArray& utf8Path, const MotionPassSettings& settings,
                      cv::Mat& motionCount, cv::Mat& background, MotionPassHooks& hooks,
                      MotionPassFacts* facts = nullptr);

// What the container of the video at `utf8Path` records (size, frame rate, duration, creation
// time), read without decoding a picture, under ffmpegMutex; empty when it does not open.
// Reentrant.
VideoInfo probe(const QByteArray& utf8Path);

// `mask` (see MotionPassSettings::mask) at `size`: each pixel takes the mask pixel under its
// centre, as 255 where it is analysed and 0 where it is ignored. Reentrant.
cv::Mat maskAt(const cv::Mat& mask, cv::Size size);

} // namespace MotionPass
