#include "ZoneFigures.h"

#include <QJsonValue>

QJsonObject ZoneFigures::toJson(const QJsonObject& definition) const
{
    QJsonObject figure = definition;
    figure.insert("area_pixels", static_cast<double>(area));
    figure.insert("events", static_cast<double>(totals.events));
    figure.insert("pixels_with_events_share",
                  area > 0 ? static_cast<double>(totals.pixelsWithEvents) / static_cast<double>(area) : 0.0);
    figure.insert("pairs_with_motion", static_cast<double>(pairsWithMotion));
    figure.insert("motion_s", motionSeconds >= 0.0 ? QJsonValue(motionSeconds) : QJsonValue());
    figure.insert("busiest_second",
                  busiestEvents > 0 ? QJsonValue(QJsonObject{{"start_s", static_cast<double>(busiestSecond)},
                                                             {"events", static_cast<double>(busiestEvents)}})
                                    : QJsonValue());
    figure.insert("first_motion_s", moved ? QJsonValue(firstMotion) : QJsonValue());
    figure.insert("last_motion_s", moved ? QJsonValue(lastMotion) : QJsonValue());
    return figure;
}

void ZoneFigures::takeBusiestOf(const std::map<std::int64_t, std::int64_t>& eventsBySecond)
{
    busiestSecond = 0;
    busiestEvents = 0;
    // In the order of time, so that only a larger count replaces an earlier second.
    for (const auto& [second, events] : eventsBySecond) {
        if (events > busiestEvents) {
            busiestSecond = second;
            busiestEvents = events;
        }
    }
}
