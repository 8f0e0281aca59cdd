#include "MapScale.h"

#include "MotionMap.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace {

template <typename Count>
void collectNonZero(const cv::Mat& plane, std::vector<std::int32_t>& values)
{
    for (int y = 0; y < plane.rows; ++y) {
        const Count* row = plane.ptr<Count>(y);
        for (int x = 0; x < plane.cols; ++x) {
            if (row[x] > 0)
                values.push_back(static_cast<std::int32_t>(row[x]));
        }
    }
}

template <typename Count>
void tally(const cv::Mat& plane, std::vector<std::int64_t>& occurrences, std::int64_t& nonZero)
{
    for (int y = 0; y < plane.rows; ++y) {
        const Count* row = plane.ptr<Count>(y);
        for (int x = 0; x < plane.cols; ++x) {
            if (row[x] <= 0)
                continue;
            const auto count = static_cast<std::size_t>(row[x]);
            if (count >= occurrences.size())
                occurrences.resize(count + 1, 0);
            ++occurrences[count];
            ++nonZero;
        }
    }
}

// The rank, from 1, of the percentile `percent` among `values` sorted values, by nearest rank.
std::int64_t nearestRank(double percent, std::int64_t values)
{
    const double rank = std::ceil(std::clamp(percent, 0.0, 100.0) / 100.0 * static_cast<double>(values));
    return static_cast<std::int64_t>(std::clamp(rank, 1.0, static_cast<double>(values)));
}

} // namespace

double MapScale::percentileOfNonZero(const std::vector<cv::Mat>& planes, double percent)
{
    std::vector<std::int32_t> values;
    for (const cv::Mat& plane : planes) {
        if (plane.type() == CV_16UC1)
            collectNonZero<std::uint16_t>(plane, values);
        else if (plane.type() == CV_32SC1)
            collectNonZero<std::int32_t>(plane, values);
    }
    if (values.empty())
        return 0.0;
    const auto index = static_cast<std::size_t>(nearestRank(percent, static_cast<std::int64_t>(values.size())) - 1);
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index), values.end());
    return values[index];
}

double MapScale::automatic(const std::vector<cv::Mat>& planes)
{
    const double top = percentileOfNonZero(planes, 99.0);
    return top > 0.0 ? top : MotionMap::kDefaultScale;
}

void MapScale::Histogram::add(const cv::Mat& plane)
{
    if (plane.type() == CV_16UC1)
        tally<std::uint16_t>(plane, m_occurrences, m_nonZero);
    else if (plane.type() == CV_32SC1)
        tally<std::int32_t>(plane, m_occurrences, m_nonZero);
}

double MapScale::Histogram::percentile(double percent) const
{
    if (m_nonZero == 0)
        return 0.0;
    const std::int64_t rank = nearestRank(percent, m_nonZero);
    std::int64_t seen = 0;
    for (std::size_t count = 1; count < m_occurrences.size(); ++count) {
        seen += m_occurrences[count];
        if (seen >= rank)
            return static_cast<double>(count);
    }
    return static_cast<double>(m_occurrences.size() - 1);
}

double MapScale::Histogram::automatic() const
{
    const double top = percentile(99.0);
    return top > 0.0 ? top : MotionMap::kDefaultScale;
}
