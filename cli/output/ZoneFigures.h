#pragma once

#include "ZoneSpans.h"

#include <QJsonObject>

#include <cstdint>
#include <map>

// One zone's figures as every manifest records them (an input's, a combined map's, a
// slice's): one rule for their names and for when a figure is null. Reentrant.
struct ZoneFigures {
    std::int64_t area = 0;            // analysed pixels
    ZoneSpans::Totals totals;         // events, and pixels with one
    std::int64_t pairsWithMotion = 0;
    double motionSeconds = -1.0;      // the pairs with motion at their frame rates; -1: unknown
    bool moved = false;               // whether first and last motion are known
    double firstMotion = 0.0;
    double lastMotion = 0.0;
    std::int64_t busiestSecond = 0;   // meaningful while busiestEvents > 0
    std::int64_t busiestEvents = 0;

    // The zone's `definition` (name and polygon, as the zone file writes them) with the figures.
    QJsonObject toJson(const QJsonObject& definition) const;

    // Sets the busiest second from new events by second: the most, the earliest of equals;
    // none when no second has an event.
    void takeBusiestOf(const std::map<std::int64_t, std::int64_t>& eventsBySecond);
};
