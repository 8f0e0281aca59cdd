#pragma once

#include "CellEventTimes.h"
#include "MotionPass.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <vector>

// The data a report's page loads for one card when it needs it, as small script files that
// hand an object to the page (`Tremora.data(name, object)`): a page opened from disk may
// load scripts but may not read JSON files. Reentrant.
namespace ReportData {

// The pixels of the video in a cell of the report's "when did motion begin here" grid.
constexpr int kCellSize = 16;

// One second of a video's activity: the most pixels that moved in one of its pairs, the
// new events of all its pairs and, in steady light, the pairs that were scene changes.
struct Second {
    std::int64_t second = 0;
    std::int64_t movingPixels = 0;
    std::int64_t newEvents = 0;
    std::int64_t sceneChanges = 0;
};

// Sums the pairs of a pass into seconds (floor of the pair's time) as they come; a video of
// ten hours keeps 36,000 entries. Times lie within MotionPass::kLatestTime either way, as a
// pass that records event times ensures. Fed by the pass's thread; read once the pass has ended.
class ActivityBySecond {
public:
    void add(const MotionPassHooks::PairRecord& record);
    const std::vector<Second>& seconds() const { return m_seconds; }
    // The pairs added that were scene changes.
    std::int64_t sceneChanges() const { return m_sceneChanges; }
    // With zones (PairRecord::zones): each zone's seconds alike, those in which it saw
    // nothing left out.
    const std::vector<std::vector<Second>>& zones() const { return m_zones; }
    // A row of a zones table read back: what zone `zone` of `zones` saw in the pair at
    // `time`. Rows of each zone in the order of time, as the table holds them.
    void addZone(size_t zone, size_t zones, double time, std::int64_t movingPixels, std::int64_t newEvents);

private:
    std::vector<Second> m_seconds;
    std::vector<std::vector<Second>> m_zones;
    std::int64_t m_sceneChanges = 0;
};

// Sorted distinct seconds as text, in the shorter of two forms. Runs: each run of consecutive
// seconds written as its distance from the end of the run before (from 0 for the first)
// and, for a run longer than one second, "+" and the seconds that follow its first;
// comma-separated: {2, 3, 4, 90, 200, 201} gives "2+2,86,110+1". Bits, where a cell is busy: "~"
// and one character of "A-Za-z0-9-_" for every six seconds from 0 to the last, its value's
// bit k set when second 6i + k is one: {0, 1, 2, 4, 6, 8} gives "~XF". The bits bound a cell
// to 601 characters an hour however busy it is. Empty for none.
QString encodeSeconds(const std::vector<std::int64_t>& seconds);
// The inverse; false on malformed text.
bool decodeSeconds(const QString& text, std::vector<std::int64_t>* seconds);

// `name` ("3.cells") and `object` (JSON text) as the script that hands it to the page.
QByteArray script(const QString& name, const QByteArray& objectJson);

// The cells of a pass as JSON: the grid ({"cell", "columns", "rows", "width", "height"}) and
// "times", an object from cell index to encodeSeconds text, for cells with events only.
QByteArray cellsJson(const CellEventTimes& times, int width, int height);

// The seconds as JSON: {"seconds": [[second, moving pixels, new events], ...]}; with
// `sceneChanges` (a run in steady light) each row ends with its scene changes as well.
QByteArray activityJson(const std::vector<Second>& seconds, bool sceneChanges);

// Each zone's seconds as JSON: {"zones": [{"seconds": [[second, moving pixels, new events],
// ...]}, ...]}, in the zones' order.
QByteArray zonesJson(const std::vector<std::vector<Second>>& zones);

} // namespace ReportData
