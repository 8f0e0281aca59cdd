#pragma once

#include "InputOutput.h"

#include <memory>

// NAME.FORMAT: the map itself, as the window saves it.
class MapOutput final : public InputOutput {
public:
    // The output of `input`; null when the run does not write it.
    static std::unique_ptr<InputOutput> make(const PlannedInput& input, const MapToolOptions& options);

    using InputOutput::InputOutput;
    QString role() const override;
    QString write(FinishedInput& finished) override;
};
