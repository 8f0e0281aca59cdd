#pragma once

#include <opencv2/core/mat.hpp>

#include <cstdint>
#include <vector>

// The top of a map's colour scale chosen from the counts themselves (--scale auto), so that
// a few pixels that never rest (a flag, a screen) do not push everything else into blue.
namespace MapScale {

// The percentile `percent` (0 < percent <= 100) of the non-zero counts of every plane in
// `planes` taken together (16-bit or 32-bit signed, 1 channel), by nearest rank: the smallest
// count that at least `percent` % of the non-zero counts do not exceed. 0 when no plane holds
// a non-zero count. Planes of another type are left out. Reentrant.
double percentileOfNonZero(const std::vector<cv::Mat>& planes, double percent);

// The scale for --scale auto: the 99th percentile of the non-zero counts, or the window's
// scale when there is no event at all (the map is then grey whatever the scale).
double automatic(const std::vector<cv::Mat>& planes);

// How often each non-zero count occurs over planes added one after the other, so that a scale
// can be chosen over more planes than fit in memory at once. Not thread-safe.
class Histogram {
public:
    // Adds the counts of `plane` (16-bit or 32-bit signed, 1 channel; others are left out).
    void add(const cv::Mat& plane);
    // As percentileOfNonZero over every plane added.
    double percentile(double percent) const;
    // As automatic() over every plane added.
    double automatic() const;

private:
    std::vector<std::int64_t> m_occurrences; // index: count
    std::int64_t m_nonZero = 0;
};

} // namespace MapScale
