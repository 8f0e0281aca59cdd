#pragma once

#include "InputOutput.h"

#include <memory>

// NAME.counts.png (--counts): the wrapping per-pixel count as 8-bit grey.
class CountsOutput final : public InputOutput {
public:
    // The output of `input`; null when the run does not write it.
    static std::unique_ptr<InputOutput> make(const PlannedInput& input, const MapToolOptions& options);

    using InputOutput::InputOutput;
    QString role() const override;
    QString write(FinishedInput& finished) override;
};
