#include "EventsOutput.h"

#include "MapImages.h"

std::unique_ptr<InputOutput> EventsOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    return plannedOutput<EventsOutput>(input.eventsPath, options.overwrite);
}

QString EventsOutput::role() const
{
    return QStringLiteral("events");
}

QString EventsOutput::write(FinishedInput& finished)
{
    return saveImage(MapImages::eventsImage(finished.facts.exactCounts));
}
