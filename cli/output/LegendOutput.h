#pragma once

#include "InputOutput.h"

#include <memory>

// NAME.legend.png (--legend): the map with the strip that explains it.
class LegendOutput final : public InputOutput {
public:
    // The output of `input`; null when the run does not write it.
    static std::unique_ptr<InputOutput> make(const PlannedInput& input, const MapToolOptions& options);

    using InputOutput::InputOutput;
    QString role() const override;
    QString write(FinishedInput& finished) override;
};
