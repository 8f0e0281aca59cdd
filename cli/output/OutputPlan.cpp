#include "OutputPlan.h"

#include "Manifest.h"
#include "MotionPass.h"
#include "OutputFile.h"
#include "SliceSet.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <algorithm>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// A spelling of `path` that two names of one file share as far as cheaply known: absolute,
// clean, with the folder's links resolved when the folder exists.
QString identity(const QString& path)
{
    const QFileInfo info(QDir::cleanPath(QFileInfo(path).absoluteFilePath()));
    const QString folder = QFileInfo(info.absolutePath()).canonicalFilePath();
    return folder.isEmpty() ? info.absoluteFilePath() : QDir(folder).filePath(info.fileName());
}

PlannedInput targetsOf(const QString& video, const MapToolOptions& options)
{
    const QDir folder(OutputPlan::outputFolder(video, options.outputDir));
    const auto pathOf = [&](const QString& name) { return QDir::cleanPath(folder.absoluteFilePath(name)); };
    PlannedInput input;
    input.video = video;
    if (options.sliceSeconds > 0.0)
        input.slicePattern = pathOf(OutputPlan::sliceFileName(video, options.format));
    else
        input.mapPath = pathOf(OutputPlan::mapFileName(video, options.format));
    // Slices have legends of their own.
    if (options.legend && options.sliceSeconds <= 0.0)
        input.legendPath = pathOf(OutputPlan::legendFileName(video));
    if (options.counts)
        input.countsPath = pathOf(OutputPlan::countsFileName(video));
    if (options.background || options.data)
        input.backgroundPath = pathOf(OutputPlan::backgroundFileName(video));
    if (options.data) {
        input.eventsPath = pathOf(OutputPlan::eventsFileName(video));
        input.activityPath = pathOf(OutputPlan::activityFileName(video));
        if (!options.zones.empty())
            input.zonesPath = pathOf(OutputPlan::zonesFileName(video));
        input.manifestPath = pathOf(OutputPlan::manifestFileName(video));
    }
    if (options.timelapseSeconds > 0.0)
        input.filmPath = pathOf(OutputPlan::filmFileName(video));
    return input;
}

// Files already spoken for, each with the input that writes it (or that is it).
class Claims {
public:
    explicit Claims(const QStringList& videos)
    {
        for (const QString& video : videos)
            m_owners.insert(identity(video), video);
    }

    // Why `input` cannot write its files, or an empty text when it can.
    QString conflictOf(const PlannedInput& input) const
    {
        for (const QString& path : claimedBy(input)) {
            const QString owner = m_owners.value(identity(path));
            if (owner.isNull())
                continue;
            if (identity(owner) == identity(path))
                return tr("'%1' would replace the video '%2'; '%3' is not analysed").arg(path, owner, input.video);
            return tr("'%1' and '%2' would both write '%3'; '%2' is not analysed").arg(owner, input.video, path);
        }
        return {};
    }

    void claim(const PlannedInput& input)
    {
        for (const QString& path : claimedBy(input))
            m_owners.insert(identity(path), input.video);
    }

private:
    // The slice maps are named only as their pass ends; two inputs with one pattern would
    // write the same slices.
    static QStringList claimedBy(const PlannedInput& input)
    {
        QStringList paths = input.outputs();
        if (!input.slicePattern.isEmpty())
            paths << input.slicePattern;
        return paths;
    }

    QHash<QString, QString> m_owners;
};

QString existingOutputOf(PlannedInput& input)
{
    for (const QString& path : input.outputs()) {
        if (!OutputFile::existsOrDangles(path))
            continue;
        if (path == input.manifestPath && QFileInfo(path).isFile() && Manifest::recordsCanceledAnalysis(path)) {
            input.replacesCanceledManifest = true;
            continue;
        }
        return path;
    }
    return {};
}

// With --slice: why the slices of `input` cannot all be written, as far as the length its
// container records tells before the analysis; empty when they can, or when it records none.
QString sliceClashOf(const PlannedInput& input, const MapToolOptions& options)
{
    const VideoInfo info = MotionPass::probe(QFile::encodeName(input.video));
    if (info.duration < 0.0)
        return {};
    // The pairs lie in the time window, on the video's own line.
    return SliceSet::clashBefore(options, input.slicePattern, QString::fromStdString(info.creationTime),
                                 {{options.start, std::min(info.duration, options.end)}},
                                 tr("'%1' is not analysed").arg(input.video));
}

} // namespace

QStringList PlannedInput::outputs() const
{
    QStringList paths;
    for (const QString& path :
         {mapPath, legendPath, countsPath, eventsPath, backgroundPath, activityPath, zonesPath, filmPath, manifestPath}) {
        if (!path.isEmpty())
            paths << path;
    }
    return paths;
}

namespace OutputPlan {

QString mapFileName(const QString& video, const QString& extension)
{
    return QFileInfo(video).baseName() + QLatin1Char('.') + extension;
}

QString sliceFileName(const QString& video, const QString& extension)
{
    return QFileInfo(video).baseName() + QStringLiteral(".slice-%1.") + extension;
}

QString slicePath(const QString& pattern, const QString& label)
{
    const QLatin1String marker("%1");
    const int at = pattern.lastIndexOf(marker);
    if (at < 0)
        return pattern;
    return pattern.left(at) + label + pattern.mid(at + marker.size());
}

QString countsFileName(const QString& video)
{
    return QFileInfo(video).baseName() + QStringLiteral(".counts.png");
}

QString legendFileName(const QString& video)
{
    return QFileInfo(video).baseName() + QStringLiteral(".legend.png");
}

QString backgroundFileName(const QString& video)
{
    return QFileInfo(video).baseName() + QStringLiteral(".background.png");
}

QString eventsFileName(const QString& video)
{
    return QFileInfo(video).baseName() + QStringLiteral(".events.png");
}

QString activityFileName(const QString& video)
{
    return QFileInfo(video).baseName() + QStringLiteral(".activity.csv");
}

QString zonesFileName(const QString& video)
{
    return QFileInfo(video).baseName() + QStringLiteral(".zones.csv");
}

QString manifestFileName(const QString& video)
{
    return QFileInfo(video).baseName() + QStringLiteral(".json");
}

QString filmFileName(const QString& video)
{
    return QFileInfo(video).baseName() + QStringLiteral(".timelapse.mp4");
}

QString outputFolder(const QString& video, const QString& outputDir)
{
    return outputDir.isEmpty() ? QFileInfo(video).absolutePath() : QFileInfo(outputDir).absoluteFilePath();
}

std::vector<PlannedInput> plan(const MapToolOptions& options)
{
    std::vector<PlannedInput> inputs;
    Claims claims(options.videos);
    for (const QString& video : options.videos) {
        PlannedInput input = targetsOf(video, options);
        // A manifest claims no file: its outputs are no one's to clash with.
        if (Manifest::namesManifest(video)) {
            input.error = tr("'%1' is a manifest; manifests are read with --combine NAME").arg(video);
            inputs.push_back(input);
            continue;
        }
        input.error = claims.conflictOf(input);
        const QString existing = options.overwrite ? QString() : existingOutputOf(input);
        if (input.error.isEmpty() && !existing.isEmpty())
            input.error = tr("File '%1' exists; '%2' is not analysed (--overwrite replaces it)").arg(existing, video);
        if (input.error.isEmpty() && !input.slicePattern.isEmpty())
            input.error = sliceClashOf(input, options);
        if (input.error.isEmpty())
            claims.claim(input);
        inputs.push_back(input);
    }
    return inputs;
}

} // namespace OutputPlan
