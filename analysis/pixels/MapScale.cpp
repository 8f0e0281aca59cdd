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
    const double rank = std::ceil(std::clamp(percent, 0.0, 100.0) / 100.0 * static_cast<double>(values.size()));
    const auto index = static_cast<std::size_t>(std::clamp(rank, 1.0, static_cast<double>(values.size())) - 1.0);
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index), values.end());
    return values[index];
}

double MapScale::automatic(const std::vector<cv::Mat>& planes)
{
    const double top = percentileOfNonZero(planes, 99.0);
    return top > 0.0 ? top : MotionMap::kDefaultScale;
}
