#pragma once

#include <opencv2/core/mat.hpp>

// Per-pixel counting of separate motion events over a sequence of frame pairs. One object
// serves one analysis pass; not thread-safe, used by the pass's own thread only.
class MotionCounter {
public:
    // Motion at a pixel counts as a new event only if at least this many pairs have passed
    // since the last pair in which that pixel moved; continuous motion counts once.
    static constexpr int kNewEventGap = 51;
    // Initial "last motion" index, far enough back that the first motion always counts.
    static constexpr int kNeverMoved = -1000;
    static constexpr int kBlurSize = 7;
    static constexpr double kThresholdBlurred = 20.0;
    static constexpr double kThresholdSharp = 40.0;

    // `size` is the video's frame size; all working matrices are allocated here, once.
    MotionCounter(cv::Size size, bool blur);

    // Analyses pair `pairIndex` (0, 1, 2, ... in order) of two 8-bit 1-channel frame views
    // of the video's size, and adds its new events to `motionCount` (8-bit 1-channel, same
    // size; the count wraps after 255). With blur on, `current` is smoothed in place, and
    // on pair 0 `previous` too: the current frame is the next pair's previous one, so every
    // frame is smoothed exactly once.
    void addPair(cv::Mat& previous, cv::Mat& current, int pairIndex, cv::Mat& motionCount);

    double threshold() const { return m_threshold; }
    // The last pair's thresholded difference: 255 where the frames differ by more than the
    // threshold, 0 elsewhere.
    const cv::Mat& difference() const { return m_difference; }
    const cv::Mat& lastMotionFrame() const { return m_lastMotionFrame; }

private:
    bool m_blur;
    double m_threshold;
    cv::Mat m_difference;
    cv::Mat m_lastMotionFrame;
};

namespace MotionCounting {

// The counting rule on its own: for every pixel where `difference` is non-zero, adds one
// event to `motionCount` (wrapping after 255) if pair `pairIndex` is at least
// MotionCounter::kNewEventGap pairs after `lastMotionFrame` there, and records the pair as
// that pixel's last motion. `difference` and `motionCount` are 8-bit 1-channel,
// `lastMotionFrame` 32-bit signed 1-channel, all of one size; `pairIndex` is 0 or more.
void countEvents(const cv::Mat& difference, int pairIndex, cv::Mat& lastMotionFrame, cv::Mat& motionCount);

} // namespace MotionCounting
