#include "CountsOutput.h"

#include "MapImages.h"

std::unique_ptr<InputOutput> CountsOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    return plannedOutput<CountsOutput>(input.countsPath, options.overwrite);
}

QString CountsOutput::role() const
{
    return QStringLiteral("counts");
}

QString CountsOutput::write(FinishedInput& finished)
{
    return saveImage(MapImages::countsImage(finished.motionCount));
}
