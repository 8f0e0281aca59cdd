#include "ManifestOutput.h"

std::unique_ptr<InputOutput> ManifestOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    return plannedOutput<ManifestOutput>(input.manifestPath, options.overwrite || input.replacesCanceledManifest);
}

void ManifestOutput::pairCounted(const MotionPassHooks::PairRecord& record)
{
    if (record.sceneChange)
        m_sceneChanges.add(record.time);
}

bool ManifestOutput::recordsEveryOutcome() const
{
    return true;
}

QString ManifestOutput::role() const
{
    return QStringLiteral("manifest");
}

QString ManifestOutput::write(FinishedInput& finished)
{
    Manifest::Content content = finished.manifestContent();
    content.sceneChanges = &m_sceneChanges;
    finished.manifest = Manifest::build(content);
    return Manifest::write(path(), finished.manifest, replaces());
}
