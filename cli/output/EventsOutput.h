#pragma once

#include "InputOutput.h"

#include <memory>

// NAME.events.png (--data): the exact events per pixel as 16-bit grey, no wrap.
class EventsOutput final : public InputOutput {
public:
    // The output of `input`; null when the run does not write it.
    static std::unique_ptr<InputOutput> make(const PlannedInput& input, const MapToolOptions& options);

    using InputOutput::InputOutput;
    QString role() const override;
    QString write(FinishedInput& finished) override;
};
