#include "InputOutputs.h"

#include "ActivityOutput.h"
#include "BackgroundOutput.h"
#include "CountsOutput.h"
#include "EventsOutput.h"
#include "FilmOutput.h"
#include "LegendOutput.h"
#include "ManifestOutput.h"
#include "MapOutput.h"
#include "ZonesOutput.h"

namespace {

using Maker = std::unique_ptr<InputOutput> (*)(const PlannedInput&, const MapToolOptions&);

// Every kind of file an input writes, in the order they are written.
constexpr Maker kOutputs[] = {
    &MapOutput::make,
    &LegendOutput::make,
    &CountsOutput::make,
    &EventsOutput::make,
    &BackgroundOutput::make,
    &ActivityOutput::make,
    &ZonesOutput::make,
    &FilmOutput::make,
    &ManifestOutput::make,
};

// Why the input fails after all, or the first output whose file may not be written, as its
// refusal; empty when all may.
QString refusalOf(const InputOutputList& outputs, const FinishedInput& finished)
{
    for (const auto& output : outputs) {
        const QString failure = output->failureOf(finished);
        if (!failure.isEmpty())
            return failure;
    }
    for (const auto& output : outputs) {
        if (output->recordsEveryOutcome())
            continue;
        const QString refusal = output->refusal();
        if (!refusal.isEmpty())
            return refusal;
    }
    return {};
}

} // namespace

namespace InputOutputs {

InputOutputList of(const PlannedInput& input, const MapToolOptions& options)
{
    InputOutputList outputs;
    for (const Maker make : kOutputs) {
        if (auto output = make(input, options))
            outputs.push_back(std::move(output));
    }
    return outputs;
}

InputOutputList forCombination(const PlannedInput& input, const MapToolOptions& options)
{
    InputOutputList outputs;
    if (options.data)
        outputs.push_back(std::make_unique<ActivityOutput>(input.activityPath, true, options.steadyLight));
    if (!input.zonesPath.isEmpty())
        outputs.push_back(std::make_unique<ZonesOutput>(input.zonesPath, true, options.zones));
    if (!input.filmStepsPath.isEmpty())
        outputs.push_back(std::make_unique<FilmStepsOutput>(input.filmStepsPath, true));
    return outputs;
}

void writeAll(InputOutputList& outputs, FinishedInput& finished)
{
    if (finished.outcome == Manifest::Outcome::Done) {
        const QString refusal = refusalOf(outputs, finished);
        if (!refusal.isEmpty())
            finished.fail(refusal);
    }
    for (const auto& output : outputs) {
        const bool wentWell = finished.outcome == Manifest::Outcome::Done;
        if (!wentWell && !output->recordsEveryOutcome())
            continue;
        const QString error = output->write(finished);
        if (error.isEmpty())
            finished.written.push_back({output->role(), output->path()});
        else if (finished.error.isEmpty())
            finished.fail(error);
    }
}

} // namespace InputOutputs
