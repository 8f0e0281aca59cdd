#include "ZoneSpans.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <map>
#include <utility>

namespace {

// The combinations of zones met so far, each numbered from 1 (0: in no zone). Zones are added
// in their order, so a combination holding zone z as its last is reached from one other only.
class Combinations {
public:
    Combinations() : m_zones(1) {}

    int with(int combination, int zone)
    {
        const auto key = std::make_pair(combination, zone);
        const auto found = m_next.find(key);
        if (found != m_next.end())
            return found->second;
        std::vector<int> zones = m_zones[static_cast<size_t>(combination)];
        zones.push_back(zone);
        m_zones.push_back(std::move(zones));
        const int made = static_cast<int>(m_zones.size()) - 1;
        m_next.emplace(key, made);
        return made;
    }

    const std::vector<std::vector<int>>& zones() const { return m_zones; }

private:
    std::vector<std::vector<int>> m_zones;
    std::map<std::pair<int, int>, int> m_next;
};

} // namespace

ZoneSpans::ZoneSpans(cv::Size size, const std::vector<Polygon>& polygons, const cv::Mat& analysed)
    : m_zones(static_cast<int>(polygons.size()))
    , m_width(size.width)
    , m_areas(polygons.size(), 0)
{
    // The one plane of the zones' combinations lives only while the runs are found.
    cv::Mat labels(size, CV_32SC1, cv::Scalar(0));
    cv::Mat filled(size, CV_8UC1);
    Combinations combinations;
    for (int zone = 0; zone < m_zones; ++zone) {
        filled.setTo(cv::Scalar(0));
        const std::vector<Polygon> one{polygons[static_cast<size_t>(zone)]};
        cv::fillPoly(filled, one, cv::Scalar(255), cv::LINE_8, 0);
        for (int y = 0; y < size.height; ++y) {
            const std::uint8_t* in = filled.ptr<std::uint8_t>(y);
            const std::uint8_t* kept = analysed.empty() ? nullptr : analysed.ptr<std::uint8_t>(y);
            int* label = labels.ptr<int>(y);
            // Neighbours mostly share their combination: the last one found is asked first.
            int from = -1;
            int to = 0;
            for (int x = 0; x < size.width; ++x) {
                if (in[x] == 0 || (kept && kept[x] == 0))
                    continue;
                if (label[x] != from) {
                    from = label[x];
                    to = combinations.with(from, zone);
                }
                label[x] = to;
                ++m_areas[static_cast<size_t>(zone)];
            }
        }
    }
    for (const std::vector<int>& zones : combinations.zones()) {
        m_combinationStarts.push_back(static_cast<int>(m_combinationZones.size()));
        m_combinationZones.insert(m_combinationZones.end(), zones.begin(), zones.end());
    }
    m_combinationStarts.push_back(static_cast<int>(m_combinationZones.size()));
    m_rowStarts.reserve(static_cast<size_t>(size.height) + 1);
    for (int y = 0; y < size.height; ++y) {
        m_rowStarts.push_back(static_cast<int>(m_spans.size()));
        const int* label = labels.ptr<int>(y);
        for (int x = 0; x < size.width;) {
            const int begin = x;
            while (x < size.width && label[x] == label[begin])
                ++x;
            if (label[begin] != 0)
                m_spans.push_back({begin, x, label[begin]});
        }
    }
    m_rowStarts.push_back(static_cast<int>(m_spans.size()));
    m_spans.shrink_to_fit();
}

void ZoneSpans::addToZones(int combination, std::int64_t value, std::int64_t* perZone) const
{
    const int end = m_combinationStarts[static_cast<size_t>(combination) + 1];
    for (int i = m_combinationStarts[static_cast<size_t>(combination)]; i < end; ++i)
        perZone[m_combinationZones[static_cast<size_t>(i)]] += value;
}

void ZoneSpans::tallyRow(int y, const std::uint8_t* quietBefore, const std::uint8_t* quiet,
                         std::uint8_t quietForNewEvent, Tally* tallies) const
{
    for (int s = m_rowStarts[static_cast<size_t>(y)]; s < m_rowStarts[static_cast<size_t>(y) + 1]; ++s) {
        const Span& span = m_spans[static_cast<size_t>(s)];
        std::int64_t moving = 0;
        std::int64_t newEvents = 0;
        for (int x = span.begin; x < span.end; ++x) {
            const bool moved = quiet[x] == 0;
            moving += moved ? 1 : 0;
            newEvents += moved && quietBefore[x] == quietForNewEvent ? 1 : 0;
        }
        if (moving == 0)
            continue;
        const int end = m_combinationStarts[static_cast<size_t>(span.combination) + 1];
        for (int i = m_combinationStarts[static_cast<size_t>(span.combination)]; i < end; ++i) {
            Tally& tally = tallies[m_combinationZones[static_cast<size_t>(i)]];
            tally.movingPixels += moving;
            tally.newEvents += newEvents;
        }
    }
}

std::vector<ZoneSpans::Totals> ZoneSpans::totalsOf(const cv::Mat& events) const
{
    std::vector<Totals> totals(static_cast<size_t>(m_zones));
    std::vector<std::int64_t> sums(static_cast<size_t>(m_zones), 0);
    std::vector<std::int64_t> nonZero(static_cast<size_t>(m_zones), 0);
    for (int y = 0; y + 1 < static_cast<int>(m_rowStarts.size()); ++y) {
        const std::uint16_t* row = events.ptr<std::uint16_t>(y);
        countRow(
            y,
            [&](int begin, int end) {
                std::int64_t sum = 0;
                for (int x = begin; x < end; ++x)
                    sum += row[x];
                return sum;
            },
            sums.data());
        countRow(
            y,
            [&](int begin, int end) {
                return static_cast<std::int64_t>(std::count_if(row + begin, row + end, [](std::uint16_t v) { return v != 0; }));
            },
            nonZero.data());
    }
    for (size_t zone = 0; zone < totals.size(); ++zone)
        totals[zone] = {sums[zone], nonZero[zone]};
    return totals;
}

cv::Mat ZoneSpans::planeOf(int zone) const
{
    cv::Mat plane(static_cast<int>(m_rowStarts.size()) - 1, m_width, CV_8UC1, cv::Scalar(0));
    for (int y = 0; y < plane.rows; ++y) {
        std::uint8_t* row = plane.ptr<std::uint8_t>(y);
        for (int s = m_rowStarts[static_cast<size_t>(y)]; s < m_rowStarts[static_cast<size_t>(y) + 1]; ++s) {
            const Span& span = m_spans[static_cast<size_t>(s)];
            const int end = m_combinationStarts[static_cast<size_t>(span.combination) + 1];
            for (int i = m_combinationStarts[static_cast<size_t>(span.combination)]; i < end; ++i) {
                if (m_combinationZones[static_cast<size_t>(i)] == zone)
                    std::fill(row + span.begin, row + span.end, std::uint8_t{255});
            }
        }
    }
    return plane;
}
