#include "ActivityOutput.h"

std::unique_ptr<InputOutput> ActivityOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    if (input.activityPath.isEmpty())
        return nullptr;
    return std::make_unique<ActivityOutput>(input.activityPath, options.overwrite, options.steadyLight);
}

ActivityOutput::ActivityOutput(const QString& path, bool replaces, bool sceneChanges)
    : InputOutput(path, replaces)
    , m_table(path, sceneChanges)
{
}

void ActivityOutput::pairCounted(const MotionPassHooks::PairRecord& record)
{
    m_table.add(record);
}

QString ActivityOutput::role() const
{
    return QStringLiteral("activity");
}

QString ActivityOutput::write(FinishedInput&)
{
    return m_table.commit(replaces());
}
