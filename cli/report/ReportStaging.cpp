#include "ReportStaging.h"

#include "ImageFile.h"
#include "Legend.h"
#include "ManifestInput.h"
#include "MapScale.h"
#include "MotionMap.h"
#include "OutputFile.h"
#include "ZoneFile.h"
#include "ZonesOutput.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <opencv2/core.hpp>

#include <cmath>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// The time of a row of the table at `path`, from its `field`; false, with `error`, for a time
// beyond any recording, which no second can number.
bool placeableTime(const QString& path, const QByteArray& field, double* time, QString* error)
{
    *time = field.toDouble();
    if (std::abs(*time) < MotionPass::kLatestTime)
        return true;
    *error = tr("'%1' has a time of %2 seconds, beyond any real recording (a damaged file?): "
                "its report data can't be placed")
                 .arg(path, QString::fromLatin1(field));
    return false;
}

// An activity table of --data ("pair,time_s,moving_pixels,new_events", and ",scene_change"
// from a run in steady light) by second; false when it does not read. A time beyond any
// recording fails the table with `error`.
bool readActivity(const QString& path, ReportData::ActivityBySecond& seconds, QString* error)
{
    QFile table(path);
    if (!table.open(QIODevice::ReadOnly))
        return false;
    const int columns = table.readLine().count(',') + 1;
    while (!table.atEnd()) {
        const QList<QByteArray> fields = table.readLine().trimmed().split(',');
        if (fields.size() != columns || columns < 4)
            continue;
        double time = 0.0;
        if (!placeableTime(path, fields[1], &time, error))
            return false;
        const bool sceneChange = columns > 4 && fields[4] == "1";
        seconds.add({fields[0].toInt(), time, fields[2].toLongLong(), fields[3].toLongLong(), sceneChange});
    }
    return true;
}

// A zones table of --data ("zone,pair,time_s,moving_pixels,new_events", the name quoted)
// into `seconds`, each zone at its place among `names` (the manifest's zones in order); false
// when it does not read. A time beyond any recording fails it as it fails the activity table.
bool readZones(const QString& path, const QStringList& names, ReportData::ActivityBySecond& seconds, QString* error)
{
    QFile table(path);
    if (!table.open(QIODevice::ReadOnly))
        return false;
    table.readLine();
    const auto zones = static_cast<size_t>(names.size());
    while (!table.atEnd()) {
        const QByteArray line = table.readLine().trimmed();
        QString name;
        const int nameEnd = ZonesOutput::quotedFieldEnd(line, 0, &name);
        const int zone = nameEnd < 0 ? -1 : names.indexOf(name);
        const QList<QByteArray> fields = line.mid(nameEnd + 1).split(',');
        if (zone < 0 || fields.size() != 4)
            continue;
        double time = 0.0;
        if (!placeableTime(path, fields[1], &time, error))
            return false;
        seconds.addZone(static_cast<size_t>(zone), zones, time, fields[2].toLongLong(), fields[3].toLongLong());
    }
    return true;
}

// The names of the zones the manifest's run counted, in their order; none without zones.
QStringList zoneNamesOf(const QJsonObject& manifest)
{
    QStringList names;
    for (const Zone& zone : ZoneFile::fromJson(
             manifest.value(QLatin1String("parameters")).toObject().value(QLatin1String("zones")).toArray()))
        names << zone.name;
    return names;
}

QJsonObject readJson(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

// Where the analysis the manifest records began, in seconds from its video's start: 0 for
// the whole video.
double windowStartOf(const QJsonObject& manifest)
{
    return manifest.value(QLatin1String("parameters")).toObject().value(QLatin1String("window")).toObject()
        .value(QLatin1String("start_s")).toDouble(0.0);
}

// Whether the run that wrote the manifest counted in steady light.
bool countsInSteadyLight(const QJsonObject& manifest)
{
    return manifest.value(QLatin1String("parameters")).toObject().contains(QLatin1String("steady_light"));
}

} // namespace

namespace ReportStaging {

QString writeData(const QString& staging, const QString& key, const std::vector<ReportData::Second>& seconds,
                  bool sceneChanges, const CellEventTimes& eventTimes, int width, int height,
                  const std::vector<std::vector<ReportData::Second>>& zones)
{
    const QDir data(staging + QStringLiteral("/data"));
    const QString activity = data.filePath(key + QStringLiteral(".activity.js"));
    const QString cells = data.filePath(key + QStringLiteral(".cells.js"));
    // The staging folder is the run's own: nothing there is a user's to keep.
    QString error = OutputFile::write(
        activity, ReportData::script(key + QStringLiteral(".activity"), ReportData::activityJson(seconds, sceneChanges)),
        true);
    if (error.isEmpty() && !zones.empty())
        error = OutputFile::write(data.filePath(key + QStringLiteral(".zones.js")),
                                  ReportData::script(key + QStringLiteral(".zones"), ReportData::zonesJson(zones)), true);
    if (!error.isEmpty() || eventTimes.empty())
        return error;
    return OutputFile::write(
        cells, ReportData::script(key + QStringLiteral(".cells"), ReportData::cellsJson(eventTimes, width, height)),
        true);
}

QString writeMap(const QString& staging, const QString& key, const QImage& map, QString* file)
{
    const QString name = QStringLiteral("maps/%1.png").arg(key);
    if (!Utils::saveImage(map, staging + QLatin1Char('/') + name))
        return OutputFile::saveError(staging + QLatin1Char('/') + name);
    *file = name;
    return {};
}

QString writeLegendStrip(const QString& staging, const QString& key, const QImage& legend, int mapHeight)
{
    const QImage strip = legend.copy(0, mapHeight, legend.width(), legend.height() - mapHeight);
    const QString path = staging + QStringLiteral("/maps/") + key + QStringLiteral(".legend.png");
    return Utils::saveImage(strip, path) ? QString() : OutputFile::saveError(path);
}

QString copy(const QString& staging, const QString& source, const QString& file)
{
    const QString target = staging + QLatin1Char('/') + file;
    return QFile::copy(source, target) ? QString() : OutputFile::saveError(target);
}

QString copyFilm(const QString& staging, const QString& key, const QString& source, QString* file)
{
    if (source.isEmpty() || !QFileInfo(source).isFile())
        return {};
    const QString name = QStringLiteral("maps/%1.timelapse.mp4").arg(key);
    const QString error = copy(staging, source, name);
    if (error.isEmpty())
        *file = name;
    return error;
}

QImage mapOfEvents(const cv::Mat& events, const cv::Mat& background, const MapColours& colours, double* top)
{
    if (!colours.exact) {
        // The window's count wraps at 256 events where the exact one goes on.
        cv::Mat wrapped;
        cv::bitwise_and(events, cv::Scalar(255), wrapped);
        wrapped.convertTo(wrapped, CV_8UC1);
        *top = MotionMap::kDefaultScale;
        return MotionMap::render(wrapped, background);
    }
    *top = colours.automatic ? MapScale::automatic({events}) : colours.scale;
    return MotionMap::render(events, background, *top);
}

QString writeManifestInput(const QString& staging, const QString& key, const QString& manifestPath,
                           const MapColours& colours, QJsonObject* manifest)
{
    const ManifestInput::Header header = ManifestInput::readHeader(manifestPath);
    if (!header.error.isEmpty())
        return header.error;
    QImage storage;
    cv::Mat events;
    cv::Mat background;
    QString error = ManifestInput::load(manifestPath, storage, &events, &background);
    if (!error.isEmpty())
        return error;
    double top = MotionMap::kDefaultScale;
    const QImage map = mapOfEvents(events, background, colours, &top);
    QString mapFile;
    error = writeMap(staging, key, map, &mapFile);
    if (!error.isEmpty())
        return error;
    *manifest = readJson(manifestPath);
    const bool steadyLight = countsInSteadyLight(*manifest);
    const Legend::Content content =
        Legend::contentOf(QFileInfo(header.videoPath).fileName(),
                          Legend::timeSpan(header.creationTime, windowStartOf(*manifest), header.footageSeconds), top,
                          header.footageSeconds, {header.maskPath}, steadyLight);
    error = writeLegendStrip(staging, key, Legend::render(map, content), map.height());
    if (!error.isEmpty())
        return error;
    ReportData::ActivityBySecond seconds;
    if (!header.activityPath.isEmpty() && readActivity(header.activityPath, seconds, &error)) {
        const QStringList zoneNames = zoneNamesOf(*manifest);
        // A table that does not open leaves the card without its zones' series, as a missing
        // activity table leaves it without a chart.
        if (!header.zonesPath.isEmpty() && !zoneNames.isEmpty() && !readZones(header.zonesPath, zoneNames, seconds, &error)
            && !error.isEmpty())
            return error;
        error = writeData(staging, key, seconds.seconds(), steadyLight, CellEventTimes(), events.cols, events.rows,
                          seconds.zones());
        if (!error.isEmpty())
            return error;
    }
    return error;
}

ReportCard sliceCard(const QString& staging, const QString& key, const SliceSet::Written& slice,
                     const std::vector<ReportPart>& parts, QString* error)
{
    ReportCard card;
    card.key = key;
    card.title = slice.seriesName + QStringLiteral(", ")
        + Legend::timeSpan(slice.lineClock, slice.from, slice.to - slice.from);
    // After the card of its video (or combined map), in the order of time.
    card.sortName = slice.seriesName + QStringLiteral(" slice %1").arg(static_cast<qint64>(slice.from), 12, 10,
                                                                        QLatin1Char('0'));
    card.status = QStringLiteral("done");
    card.ofAnInput = false;
    card.creationTime = slice.lineClock;
    card.parts = parts;
    card.from = slice.from;
    card.to = slice.to;
    const QImage map(slice.mapPath);
    card.width = map.width();
    card.height = map.height();
    card.mapFile = QStringLiteral("maps/%1.%2").arg(key, QFileInfo(slice.mapPath).suffix());
    *error = copy(staging, slice.mapPath, card.mapFile);
    if (error->isEmpty() && !slice.legendPath.isEmpty()) {
        *error = writeLegendStrip(staging, key, QImage(slice.legendPath), map.height());
        card.legendFile = QStringLiteral("maps/%1.legend.png").arg(key);
    }
    card.zones = slice.zones;
    card.figures = ReportPage::countFigures(slice.eventsTotal, slice.maxEvents, slice.pixelsWithEventsShare,
                                            slice.sceneChanges);
    card.figures.insert(card.figures.begin(),
                        {{tr("Time"), ReportPage::clockText(slice.from) + QStringLiteral(" – ")
                                          + ReportPage::clockText(slice.to)},
                         ReportPage::footageFigure(slice.footageSeconds)});
    return card;
}

} // namespace ReportStaging
