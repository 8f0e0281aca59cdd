#pragma once

#include "InputOutput.h"

#include <memory>

// NAME.json (--data): the record of how the input ended and of the files written before it,
// written last, and also for an input that failed or was canceled. It replaces, even without
// --overwrite, a manifest that records a canceled analysis (PlannedInput::replacesCanceledManifest).
class ManifestOutput final : public InputOutput {
public:
    // The output of `input`; null when the run does not write it.
    static std::unique_ptr<InputOutput> make(const PlannedInput& input, const MapToolOptions& options);

    using InputOutput::InputOutput;
    // Notes the scene changes (--steady-light).
    void pairCounted(const MotionPassHooks::PairRecord& record) override;
    bool recordsEveryOutcome() const override;
    QString role() const override;
    // Also keeps the manifest in `finished`, for the report.
    QString write(FinishedInput& finished) override;

private:
    Manifest::SceneChanges m_sceneChanges;
};
