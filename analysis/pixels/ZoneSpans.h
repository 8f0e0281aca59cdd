#pragma once

#include <opencv2/core/mat.hpp>
#include <opencv2/core/types.hpp>

#include <algorithm>
#include <cstdint>
#include <vector>

// Named parts of the picture (zones) as runs of pixels, row by row, so that a pair's motion
// can be told per zone with a look at the few runs of the rows that moved. A pixel belongs
// to a zone where cv::fillPoly (8-connected lines, no shift) fills its polygon, parts outside
// the picture cut off, and only where it is analysed. Zones may overlap: each run holds one
// combination of zones, and a small table says which zones each combination stands for, so
// that overlapping zones cost no more than a few runs more.
//
// Built once for a pass, then only read: the reading functions are reentrant, each stripe
// of a count calling them on rows of its own with tallies of its own.
class ZoneSpans {
public:
    using Polygon = std::vector<cv::Point>;

    // What a zone saw in one pair, or over a pass.
    struct Tally {
        std::int64_t movingPixels = 0;
        std::int64_t newEvents = 0;
    };

    // Per zone, over a whole count of events: their sum, and the pixels with at least one.
    struct Totals {
        std::int64_t events = 0;
        std::int64_t pixelsWithEvents = 0;
    };

    ZoneSpans() = default;
    // The zones `polygons` (at most 64) over a picture of `size`; `analysed`, when not empty,
    // is an 8-bit 1-channel plane of that size, 0 where pixels are ignored.
    ZoneSpans(cv::Size size, const std::vector<Polygon>& polygons, const cv::Mat& analysed);

    bool empty() const { return m_zones == 0; }
    int zones() const { return m_zones; }
    // Per zone, its analysed pixels.
    const std::vector<std::int64_t>& areas() const { return m_areas; }
    // Whether some zone has no analysed pixel at all.
    bool hasZoneWithoutPixel() const
    {
        return std::any_of(m_areas.begin(), m_areas.end(), [](std::int64_t area) { return area == 0; });
    }

    // Adds, to `tallies` (one per zone), the pixels of row `y` that moved in a pair
    // (`quiet` 0 after it) and the new events among them (`quietBefore`, the row's quiet
    // counts before the pair, at `quietForNewEvent`).
    void tallyRow(int y, const std::uint8_t* quietBefore, const std::uint8_t* quiet, std::uint8_t quietForNewEvent,
                  Tally* tallies) const;

    // Adds, to `moving` (one per zone), the pixels of row `y` where `movedAt(x0, x1)` counts
    // the moving pixels of the columns [x0, x1).
    template <typename MovedAt>
    void countRow(int y, const MovedAt& movedAt, std::int64_t* moving) const
    {
        for (int s = m_rowStarts[static_cast<size_t>(y)]; s < m_rowStarts[static_cast<size_t>(y) + 1]; ++s) {
            const Span& span = m_spans[static_cast<size_t>(s)];
            const std::int64_t moved = movedAt(span.begin, span.end);
            if (moved > 0)
                addToZones(span.combination, moved, moving);
        }
    }

    // Per zone, the sum and the non-zero pixels of `events` (16-bit 1-channel, the picture's
    // size).
    std::vector<Totals> totalsOf(const cv::Mat& events) const;

    // Each zone's pixels as 255 in an 8-bit plane of the picture's size, 0 elsewhere.
    cv::Mat planeOf(int zone) const;

private:
    struct Span {
        int begin = 0;
        int end = 0;
        int combination = 0; // index into m_combinations
    };

    void addToZones(int combination, std::int64_t value, std::int64_t* perZone) const;

    int m_zones = 0;
    int m_width = 0;
    std::vector<std::int64_t> m_areas;
    // Per row, the index of its first span; one more entry at the end.
    std::vector<int> m_rowStarts;
    std::vector<Span> m_spans;
    // Per combination, the zones it stands for, back to back from m_combinationStarts.
    std::vector<int> m_combinationStarts;
    std::vector<int> m_combinationZones;
};
