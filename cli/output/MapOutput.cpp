#include "MapOutput.h"

std::unique_ptr<InputOutput> MapOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    return plannedOutput<MapOutput>(input.mapPath, options.overwrite);
}

QString MapOutput::role() const
{
    return QStringLiteral("map");
}

QString MapOutput::write(FinishedInput& finished)
{
    return saveImage(finished.map());
}
