#include "ManifestOutput.h"

std::unique_ptr<InputOutput> ManifestOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    return plannedOutput<ManifestOutput>(input.manifestPath, options.overwrite || input.replacesCanceledManifest);
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
    finished.manifest = Manifest::build(finished.manifestContent());
    return Manifest::write(path(), finished.manifest, replaces());
}
