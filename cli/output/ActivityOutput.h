#pragma once

#include "ActivityCsv.h"
#include "InputOutput.h"

#include <memory>

// NAME.activity.csv (--data): one row per frame pair, written as the pass counts them and
// put in place only once the pass has ended well (see ActivityCsv).
class ActivityOutput final : public InputOutput {
public:
    // The output of `input`; null when the run does not write it.
    static std::unique_ptr<InputOutput> make(const PlannedInput& input, const MapToolOptions& options);

    // `sceneChanges`: the table has the scene_change column (--steady-light).
    ActivityOutput(const QString& path, bool replaces, bool sceneChanges);
    void pairCounted(const MotionPassHooks::PairRecord& record) override;
    QString role() const override;
    QString write(FinishedInput& finished) override;

private:
    ActivityCsv m_table;
};
