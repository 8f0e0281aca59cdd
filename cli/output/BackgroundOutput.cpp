#include "BackgroundOutput.h"

#include "MapImages.h"

std::unique_ptr<InputOutput> BackgroundOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    return plannedOutput<BackgroundOutput>(input.backgroundPath, options.overwrite);
}

QString BackgroundOutput::role() const
{
    return QStringLiteral("background");
}

QString BackgroundOutput::write(FinishedInput& finished)
{
    return saveImage(MapImages::backgroundImage(finished.background));
}
