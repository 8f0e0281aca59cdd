#include "ActivityOutput.h"

std::unique_ptr<InputOutput> ActivityOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    return plannedOutput<ActivityOutput>(input.activityPath, options.overwrite);
}

ActivityOutput::ActivityOutput(const QString& path, bool replaces)
    : InputOutput(path, replaces)
    , m_table(path)
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
