#include "MotionCounter.h"

#include <opencv2/imgproc.hpp>

#include <cstdint>

namespace {

// Branch-free on purpose: the row loop is the hot path of the whole pass and must stay
// vectorisable, so the rule is written as selects rather than ifs.
void countRow(const std::uint8_t* difference, int pairIndex, std::int32_t* lastMotion, std::uint8_t* count, int width)
{
    // pairIndex - last >= gap, written so that it cannot overflow.
    const std::int32_t latestOldMotion = pairIndex - MotionCounter::kNewEventGap;
    for (int x = 0; x < width; ++x) {
        const bool moved = difference[x] != 0;
        const bool newEvent = moved & (lastMotion[x] <= latestOldMotion);
        count[x] = static_cast<std::uint8_t>(count[x] + static_cast<std::uint8_t>(newEvent));
        lastMotion[x] = moved ? pairIndex : lastMotion[x];
    }
}

void smooth(cv::Mat& frame)
{
    const cv::Size kernel(MotionCounter::kBlurSize, MotionCounter::kBlurSize);
    cv::blur(frame, frame, kernel, cv::Point(-1, -1), cv::BORDER_REFLECT_101);
}

} // namespace

MotionCounter::MotionCounter(cv::Size size, bool blur)
    : m_blur(blur)
    , m_threshold(blur ? kThresholdBlurred : kThresholdSharp)
    , m_difference(size, CV_8UC1, cv::Scalar(0))
    , m_lastMotionFrame(size, CV_32SC1, cv::Scalar(kNeverMoved))
{
}

void MotionCounter::addPair(cv::Mat& previous, cv::Mat& current, int pairIndex, cv::Mat& motionCount)
{
    if (m_blur) {
        smooth(current);
        if (pairIndex == 0)
            smooth(previous);
    }
    cv::absdiff(previous, current, m_difference);
    cv::threshold(m_difference, m_difference, m_threshold, 255.0, cv::THRESH_BINARY);
    MotionCounting::countEvents(m_difference, pairIndex, m_lastMotionFrame, motionCount);
}

void MotionCounting::countEvents(const cv::Mat& difference, int pairIndex, cv::Mat& lastMotionFrame, cv::Mat& motionCount)
{
    for (int y = 0; y < difference.rows; ++y)
        countRow(difference.ptr<std::uint8_t>(y), pairIndex, lastMotionFrame.ptr<std::int32_t>(y),
                 motionCount.ptr<std::uint8_t>(y), difference.cols);
}
