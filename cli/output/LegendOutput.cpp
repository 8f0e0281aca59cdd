#include "LegendOutput.h"

std::unique_ptr<InputOutput> LegendOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    return plannedOutput<LegendOutput>(input.legendPath, options.overwrite);
}

QString LegendOutput::role() const
{
    return QStringLiteral("legend");
}

QString LegendOutput::write(FinishedInput& finished)
{
    return saveImage(finished.legend());
}
