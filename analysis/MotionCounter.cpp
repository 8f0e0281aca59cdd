#include "MotionCounter.h"

#include "MotionKernels.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int kRadius = MotionCounter::kBlurSize / 2;

int reflect101(int p, int n)
{
    if (n == 1)
        return 0;
    while (p < 0 || p >= n)
        p = p < 0 ? -p : 2 * n - 2 - p;
    return p;
}

std::uint8_t thresholdByte(double threshold)
{
    return static_cast<std::uint8_t>(threshold);
}

} // namespace

MotionCounter::MotionCounter(cv::Size size, bool blur)
    : m_blur(blur)
    , m_threshold(blur ? kThresholdBlurred : kThresholdSharp)
    , m_previous(size, CV_8UC1, cv::Scalar(0))
    , m_quiet(size, CV_8UC1, cv::Scalar(MotionKernels::kQuietForNewEvent))
    , m_columnSums(blur ? static_cast<size_t>(size.width) + 2 * kRadius : 0)
{
}

void MotionCounter::start(const cv::Mat& firstFrame)
{
    m_pairs = 0;
    m_quiet.setTo(cv::Scalar(MotionKernels::kQuietForNewEvent));
    const int width = m_previous.cols;
    for (int y = 0; y < m_previous.rows; ++y) {
        std::uint8_t* previous = m_previous.ptr<std::uint8_t>(y);
        if (m_blur)
            MotionKernels::meansOf49(columnSums(firstFrame, y), previous, width);
        else
            std::memcpy(previous, firstFrame.ptr<std::uint8_t>(y), static_cast<size_t>(width));
    }
}

void MotionCounter::addFrame(const cv::Mat& frame, cv::Mat& motionCount)
{
    const int width = m_previous.cols;
    const std::uint8_t threshold = thresholdByte(m_threshold);
    for (int y = 0; y < m_previous.rows; ++y) {
        std::uint8_t* previous = m_previous.ptr<std::uint8_t>(y);
        std::uint8_t* quiet = m_quiet.ptr<std::uint8_t>(y);
        std::uint8_t* counts = motionCount.ptr<std::uint8_t>(y);
        if (m_blur)
            MotionKernels::countBlurredRow(columnSums(frame, y), previous, quiet, counts, width, threshold);
        else
            MotionKernels::countRow(frame.ptr<std::uint8_t>(y), previous, quiet, counts, width, threshold);
    }
    ++m_pairs;
}

const std::uint16_t* MotionCounter::columnSums(const cv::Mat& frame, int row)
{
    const int width = m_previous.cols;
    const int height = m_previous.rows;
    std::uint16_t* sums = m_columnSums.data() + kRadius;
    if (row == 0) {
        std::fill(m_columnSums.begin(), m_columnSums.end(), std::uint16_t{0});
        for (int d = -kRadius; d <= kRadius; ++d)
            MotionKernels::addRow(sums, frame.ptr<std::uint8_t>(reflect101(d, height)), width);
    } else {
        MotionKernels::slideRows(sums, frame.ptr<std::uint8_t>(reflect101(row + kRadius, height)),
                                 frame.ptr<std::uint8_t>(reflect101(row - kRadius - 1, height)), width);
    }
    for (int d = 1; d <= kRadius; ++d) {
        sums[-d] = sums[reflect101(-d, width)];
        sums[width - 1 + d] = sums[reflect101(width - 1 + d, width)];
    }
    return m_columnSums.data();
}
