#include "CombinedRun.h"

#include "CombinedActivity.h"
#include "CombinedMap.h"
#include "Film.h"
#include "ImageFile.h"
#include "Legend.h"
#include "ManifestInput.h"
#include "MapImages.h"
#include "MapRun.h"
#include "OutputFile.h"
#include "OutputPlan.h"
#include "MapScale.h"
#include "Manifest.h"
#include "MotionMap.h"
#include "MotionPass.h"
#include "ProgressOutput.h"
#include "ReportFolder.h"
#include "ReportPage.h"
#include "ReportStaging.h"
#include "SliceSet.h"
#include "Version.h"
#include "ZoneSpans.h"
#include "ZoneFigures.h"
#include "ZonesOutput.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>

#include <sys/stat.h>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// The combined files, absolute; those not asked for empty.
struct Outputs {
    QString map, legend, background, events, activity, zones, film, manifest;
    QString slicePattern; // with --slice, the slice maps' path with "%1" for the slice's start

    QStringList all() const
    {
        QStringList paths;
        for (const QString& path : {map, legend, background, events, activity, zones, film, manifest}) {
            if (!path.isEmpty())
                paths << path;
        }
        return paths;
    }
};

Outputs outputsOf(const MapToolOptions& options)
{
    const QDir folder(options.outputDir.isEmpty() ? QDir::currentPath()
                                                  : QFileInfo(options.outputDir).absoluteFilePath());
    const QString& name = options.combineName;
    const auto pathOf = [&](const QString& suffix) { return QDir::cleanPath(folder.absoluteFilePath(name + suffix)); };
    Outputs outputs;
    // Slices take the place of the map of everything, and have legends of their own.
    if (options.sliceSeconds > 0.0)
        outputs.slicePattern = pathOf(QStringLiteral(".slice-%1.") + options.format);
    else
        outputs.map = pathOf(QLatin1Char('.') + options.format);
    if (options.legend && options.sliceSeconds <= 0.0)
        outputs.legend = pathOf(QStringLiteral(".legend.png"));
    if (options.background)
        outputs.background = pathOf(QStringLiteral(".background.png"));
    if (options.data) {
        outputs.events = pathOf(QStringLiteral(".events.png"));
        outputs.activity = pathOf(QStringLiteral(".activity.csv"));
        outputs.manifest = pathOf(QStringLiteral(".json"));
    }
    if (options.timelapseSeconds > 0.0)
        outputs.film = pathOf(QStringLiteral(".timelapse.mp4"));
    return outputs;
}

// Why the combined files cannot be written, before anything is analysed; empty when they can.
QString conflictOf(const Outputs& outputs, const MapToolOptions& options)
{
    for (const QString& path : outputs.all()) {
        for (const QString& input : options.videos) {
            if (QFileInfo(input).absoluteFilePath() == path
                || (QFileInfo::exists(path) && QFileInfo(input).canonicalFilePath() == QFileInfo(path).canonicalFilePath()))
                return tr("'%1' would replace the input '%2'; nothing is combined").arg(path, input);
        }
        if (!options.overwrite && OutputFile::existsOrDangles(path))
            return tr("File '%1' exists; nothing is combined (--overwrite replaces it)").arg(path);
    }
    return {};
}

// The time line the combined film runs along (--timelapse): the clock time it starts at, as
// containers record it (empty when unknown), and the run's cancel.
struct FilmLine {
    QString clock;
    const std::atomic<int>* cancel = nullptr;
};

// One input of the combination. Set up before the run; during it, only the pool thread of
// that input writes its fields, and the driving thread reads them after the run.
struct Item {
    QString given;          // as on the command line
    bool manifest = false;
    cv::Size size;          // empty when not known before the pass
    QString video;          // absolute path of the video
    QString creationTime;
    double footageSeconds = -1.0;
    double duration = -1.0; // as the container records it; -1 when unknown
    QString mask;           // the mask's file name; empty when none
    QString activity;       // the input's activity table
    QString zonesTable;     // the input's zones table; empty without zones
    QJsonArray zoneFigures; // each zone's figures, as its manifest or its pass gives them
    QString filmSteps;      // where its pass keeps its film's steps (--timelapse)
    // What makes two inputs one: the files it is (fileIdentity), a manifest's video among them.
    QStringList identities;
    QJsonObject parameters; // of the analysis, as a manifest records them
    bool combined = false;
    QString error;
};

// The file at `path` as the system knows it, whatever path reaches it (a link, "..", another
// mount of a bind): its device and inode; the clean absolute path of a file that is not there.
QString fileIdentity(const QString& path)
{
    struct stat status {};
    if (::stat(QFile::encodeName(path).constData(), &status) == 0)
        return QStringLiteral("inode %1:%2").arg(status.st_dev).arg(status.st_ino);
    return QStringLiteral("path ") + QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

QString sizeText(cv::Size size)
{
    return QStringLiteral("%1x%2").arg(size.width).arg(size.height);
}


// Reads what is known of every input before the run: a manifest's header, a video's size.
std::vector<Item> itemsOf(const MapToolOptions& options, const QString& scratch)
{
    std::vector<Item> items;
    for (const QString& given : options.videos) {
        Item item;
        item.given = given;
        item.manifest = Manifest::namesManifest(given);
        item.identities << fileIdentity(given);
        if (item.manifest) {
            const ManifestInput::Header header = ManifestInput::readHeader(given);
            item.parameters = header.parameters;
            if (!header.videoPath.isEmpty())
                item.identities << fileIdentity(header.videoPath);
            item.error = header.error;
            item.size = cv::Size(header.width, header.height);
            item.video = header.videoPath;
            item.creationTime = header.creationTime;
            item.footageSeconds = header.footageSeconds;
            item.activity = header.activityPath;
            item.zonesTable = header.zonesPath;
            item.zoneFigures = header.zoneFigures;
            item.mask = header.maskPath.isEmpty() ? QString() : QFileInfo(header.maskPath).fileName();
        } else {
            const VideoInfo info = MotionPass::probe(QFile::encodeName(given));
            item.size = cv::Size(info.width, info.height);
            item.creationTime = QString::fromStdString(info.creationTime);
            item.duration = info.duration;
            item.video = QFileInfo(given).absoluteFilePath();
            item.parameters = Manifest::parameters(options, 0.0);
            item.mask = options.maskPath.isEmpty() ? QString() : QFileInfo(options.maskPath).fileName();
            if (options.data)
                item.activity = QDir(scratch).filePath(QStringLiteral("%1.csv").arg(items.size()));
            if (options.data && !options.zones.empty())
                item.zonesTable = QDir(scratch).filePath(QStringLiteral("%1.zones.csv").arg(items.size()));
            if (options.timelapseSeconds > 0.0)
                item.filmSteps = QDir(scratch).filePath(QStringLiteral("%1.steps").arg(items.size()));
        }
        items.push_back(item);
    }
    return items;
}

// The input whose size and parameters every other must share: the first whose size is
// known; null when none is.
const Item* firstKnown(const std::vector<Item>& items)
{
    for (const Item& item : items) {
        if (item.error.isEmpty() && !item.size.empty())
            return &item;
    }
    return nullptr;
}

// An earlier input still to be combined that is `item` again, the same file or the same video
// under a manifest; null when there is none. `sameFile` tells which.
const Item* earlierSameInput(const std::vector<Item>& items, const Item& item, bool* sameFile)
{
    for (const Item& earlier : items) {
        if (&earlier == &item)
            return nullptr;
        if (!earlier.error.isEmpty())
            continue;
        for (const QString& identity : item.identities) {
            if (earlier.identities.contains(identity)) {
                *sameFile = earlier.identities.front() == item.identities.front();
                return &earlier;
            }
        }
    }
    return nullptr;
}

// Why `item` cannot be added to the combination of `first`; empty when it can.
QString mismatchOf(const std::vector<Item>& items, const Item& item, const Item& first, const QString& name)
{
    if (item.size.empty())
        return {};
    if (item.size != first.size)
        return tr("'%1' is %2, not %3 as the first input; left out of '%4'")
            .arg(item.given, sizeText(item.size), sizeText(first.size), name);
    bool sameFile = false;
    if (const Item* earlier = earlierSameInput(items, item, &sameFile))
        return tr("'%1' is the same input as '%2', given before it (%3); counted once, '%1' is left out of '%4'")
            .arg(item.given, earlier->given, sameFile ? tr("the same file") : tr("the same video"), name);
    const QStringList differences = Manifest::parameterDifferences(item.parameters, first.parameters);
    if (differences.isEmpty())
        return {};
    const QString text = item.manifest ? tr("'%1' was analysed with other parameters than the first input '%2' (%3); "
                                            "left out of '%4'")
                                       : tr("'%1' would be analysed with other parameters than the first input '%2' "
                                            "(%3); left out of '%4'");
    return text.arg(item.given, first.given, differences.join(QStringLiteral("; ")), name);
}

std::vector<PlannedInput> planOf(std::vector<Item>& items, const Item* first, const Outputs& outputs,
                                 const QString& name)
{
    std::vector<PlannedInput> planned;
    for (Item& item : items) {
        if (item.error.isEmpty() && first)
            item.error = mismatchOf(items, item, *first, name);
        PlannedInput input;
        input.video = item.given;
        input.mapPath = outputs.map;
        input.slicePattern = outputs.slicePattern;
        input.activityPath = item.manifest ? QString() : item.activity;
        input.zonesPath = item.manifest ? QString() : item.zonesTable;
        input.filmStepsPath = item.manifest ? QString() : item.filmSteps;
        input.error = item.error;
        planned.push_back(input);
    }
    return planned;
}

// The options of the run that only the videos it analyses follow, said once when manifests,
// which keep the parameters they were analysed with, are among the inputs.
QString noticeForManifests(const MapToolOptions& options, const std::vector<Item>& items)
{
    if (std::none_of(items.begin(), items.end(), [](const Item& item) { return item.manifest; }))
        return {};
    QStringList given;
    if (!options.maskPath.isEmpty())
        given << QStringLiteral("--mask");
    if (options.hasStart)
        given << QStringLiteral("--start");
    if (options.hasEnd)
        given << QStringLiteral("--end");
    if (!options.blur)
        given << QStringLiteral("--no-blur");
    if (given.isEmpty())
        return {};
    return tr("%1: not applied to the manifest inputs, which keep the parameters they were analysed with")
        .arg(given.join(QStringLiteral(", ")));
}

// The seconds of analysed video an input adds to a time line of inputs back to back: from
// the window's start to its end or the video's, whichever comes first.
double windowedLength(double duration, const MapToolOptions& options)
{
    return std::max(std::min(duration, options.end) - options.start, 0.0);
}

// Places every input of `planned` on the time line the slices run along: by clock time when
// every input records when it was made, else back to back in the order given. An input
// whose length is unknown cannot be followed: the inputs after it are left out.
void placeOnTimeLine(std::vector<Item>& items, std::vector<PlannedInput>& planned, const MapToolOptions& options)
{
    // An input that does not open fails in its pass; it has no place to keep.
    const auto placed = [&](size_t i) { return planned[i].error.isEmpty() && !items[i].size.empty(); };
    std::vector<CombinedActivity::Source> sources;
    for (size_t i = 0; i < items.size(); ++i) {
        if (placed(i))
            sources.push_back({items[i].video, {}, items[i].creationTime});
    }
    if (const auto offsets = CombinedActivity::startOffsets(sources)) {
        const QDateTime earliest = CombinedActivity::readCreationTime(sources.front().creationTime)
                                       .addMSecs(-std::llround(offsets->front() * 1000.0));
        size_t next = 0;
        for (size_t i = 0; i < items.size(); ++i) {
            if (!placed(i))
                continue;
            planned[i].sliceOffset = (*offsets)[next++];
            planned[i].sliceLineClock = earliest.toUTC().toString(Qt::ISODateWithMs);
        }
        return;
    }
    double lineEnd = 0.0;
    const Item* unknownLength = nullptr;
    for (size_t i = 0; i < items.size(); ++i) {
        if (!placed(i))
            continue;
        if (unknownLength) {
            items[i].error = tr("'%1' can't be placed on the time line of '%2': the length of '%3' is not known; "
                                  "left out")
                                 .arg(items[i].given, options.combineName, unknownLength->given);
            planned[i].error = items[i].error;
            continue;
        }
        // The pairs' times start at the window's start: that is where the input joins the line.
        planned[i].sliceOffset = lineEnd - options.start;
        if (items[i].duration < 0.0)
            unknownLength = &items[i];
        lineEnd += windowedLength(items[i].duration, options);
    }
}

// Why the slices of the line cannot all be written, as far as the lengths the containers
// record tell before the analysis; empty when they can.
QString sliceClashOf(const std::vector<Item>& items, const std::vector<PlannedInput>& planned,
                     const MapToolOptions& options, const Outputs& outputs)
{
    std::vector<SliceSet::Span> spans;
    QString lineClock;
    for (size_t i = 0; i < items.size(); ++i) {
        if (!planned[i].error.isEmpty() || items[i].manifest || items[i].duration < 0.0)
            continue;
        // The pairs' times run through the window, shifted onto the line.
        const double offset = planned[i].sliceOffset;
        spans.push_back({offset + options.start, offset + std::min(items[i].duration, options.end)});
        lineClock = planned[i].sliceLineClock;
    }
    return SliceSet::clashBefore(options, outputs.slicePattern, lineClock, spans, tr("nothing is combined"));
}

double scaleOf(const MapToolOptions& options, const cv::Mat& sum)
{
    if (options.scaleGiven && options.scaleAuto)
        return MapScale::automatic({sum});
    return options.scale;
}

QJsonValue orNull(const QString& text)
{
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

QJsonObject manifestOf(const MapToolOptions& options, const std::vector<Item>& items, const CombinedMap& map,
                       double scale, bool oneTimeLine, const Outputs& outputs)
{
    QJsonArray inputs;
    for (const Item& item : items) {
        QJsonObject entry{
            {"given", QFileInfo(item.given).absoluteFilePath()},
            {"video", orNull(item.video)},
            {"manifest", item.manifest ? QJsonValue(QFileInfo(item.given).absoluteFilePath()) : QJsonValue()},
            {"creation_time", orNull(item.creationTime)},
            {"status", item.combined ? QStringLiteral("combined") : QStringLiteral("left out")},
        };
        if (!item.combined)
            entry.insert("error", item.error.isEmpty() ? tr("not combined") : item.error);
        inputs.append(entry);
    }
    QJsonArray files;
    const QStringList roles{"map", "legend", "background", "events", "activity", "zones", "timelapse"};
    const QStringList paths{outputs.map,      outputs.legend, outputs.background, outputs.events,
                            outputs.activity, outputs.zones,  outputs.film};
    for (int i = 0; i < paths.size(); ++i) {
        if (!paths[i].isEmpty())
            files.append(Manifest::fileRecord(roles[i], paths[i]));
    }
    double largest = 0.0;
    cv::minMaxLoc(map.sum(), nullptr, &largest);
    return {
        {"format", QStringLiteral("tremora-map combined")},
        {"format_version", 1},
        {"tool", QStringLiteral("tremora-map")},
        {"tool_version", QString::fromLatin1(Version::version)},
        {"name", options.combineName},
        {"width", map.size().width},
        {"height", map.size().height},
        {"time_line", oneTimeLine ? QStringLiteral("creation_time") : QStringLiteral("per_file")},
        {"inputs", inputs},
        {"scale", QJsonObject{{"events_at_top", scale}, {"auto", options.scaleGiven && options.scaleAuto}}},
        {"files", files},
        {"summary",
         QJsonObject{
             {"pixels_with_events_share",
              static_cast<double>(cv::countNonZero(map.sum())) / static_cast<double>(map.sum().total())},
             {"max_events", largest},
             {"events_total", cv::sum(map.sum())[0]},
         }},
    };
}

// The zones every combined input was counted with (they are left out otherwise): the first's.
QJsonArray zonesOf(const std::vector<Item>& items)
{
    for (const Item& item : items) {
        if (item.combined)
            return item.parameters["zones"].toArray();
    }
    return {};
}

// What a combined zones table says of each zone on one time line: its first and last pair
// with motion and its busiest second, by zone name.
struct ZoneTimes {
    double first = 0.0;
    double last = 0.0;
    bool moved = false;
    std::map<std::int64_t, std::int64_t> eventsBySecond;
};

// Reads the combined table at `path` ("file,zone,pair,time_s,moving_pixels,new_events", the
// file and zone quoted).
std::map<QString, ZoneTimes> zoneTimesOf(const QString& path)
{
    std::map<QString, ZoneTimes> times;
    QFile table(path);
    if (!table.open(QIODevice::ReadOnly))
        return times;
    table.readLine();
    while (!table.atEnd()) {
        const QByteArray line = table.readLine().trimmed();
        QString zone;
        const int fileEnd = ZonesOutput::quotedFieldEnd(line, 0);
        const int zoneEnd = fileEnd < 0 ? -1 : ZonesOutput::quotedFieldEnd(line, fileEnd + 1, &zone);
        if (zoneEnd < 0)
            continue;
        const QList<QByteArray> fields = line.mid(zoneEnd + 1).split(',');
        if (fields.size() != 4)
            continue;
        ZoneTimes& seen = times[zone];
        const double time = fields[1].toDouble();
        if (fields[2].toLongLong() > 0) {
            seen.first = seen.moved ? std::min(seen.first, time) : time;
            seen.last = seen.moved ? std::max(seen.last, time) : time;
            seen.moved = true;
        }
        seen.eventsBySecond[static_cast<std::int64_t>(std::floor(time))] += fields[3].toLongLong();
    }
    return times;
}

// Each zone's figures over the combined inputs: its area, as every input has it; its events
// and the share of its pixels with one from the summed `events`; its pairs with motion and
// their time summed over the inputs; and, when the inputs lie on one time line, its first and
// last motion and busiest second on that line (null otherwise, as one video's seconds are
// not another's).
QJsonArray combinedZoneFigures(const std::vector<Item>& items, const cv::Mat& events, bool oneTimeLine,
                               const QString& zonesTable)
{
    const QJsonArray definitions = zonesOf(items);
    const std::vector<Zone> zones = ZoneFile::fromJson(definitions);
    // Ignored pixels hold no event in any input, so the zones' pixels need no mask here.
    const std::vector<ZoneSpans::Totals> totals = ZoneSpans(events.size(), ZoneFile::polygonsOf(zones), {}).totalsOf(events);
    const std::map<QString, ZoneTimes> times = oneTimeLine ? zoneTimesOf(zonesTable) : std::map<QString, ZoneTimes>();
    QJsonArray figures;
    for (int zone = 0; zone < definitions.size(); ++zone) {
        ZoneFigures figure;
        double motion = 0.0;
        bool motionKnown = true;
        bool areaKnown = false;
        for (const Item& item : items) {
            const QJsonObject recorded = item.combined ? item.zoneFigures[zone].toObject() : QJsonObject();
            if (recorded.isEmpty())
                continue;
            figure.area = areaKnown ? figure.area : static_cast<std::int64_t>(recorded["area_pixels"].toDouble());
            areaKnown = true;
            figure.pairsWithMotion += static_cast<std::int64_t>(recorded["pairs_with_motion"].toDouble());
            motion += recorded["motion_s"].toDouble();
            motionKnown = motionKnown && recorded["motion_s"].isDouble();
        }
        figure.totals = totals[static_cast<size_t>(zone)];
        figure.motionSeconds = motionKnown ? motion : -1.0;
        const auto seen = times.find(zones[static_cast<size_t>(zone)].name);
        if (seen != times.end()) {
            figure.moved = seen->second.moved;
            figure.firstMotion = seen->second.first;
            figure.lastMotion = seen->second.last;
            figure.takeBusiestOf(seen->second.eventsBySecond);
        }
        figures.append(figure.toJson(definitions[zone].toObject()));
    }
    return figures;
}

QImage legendOf(const QImage& map, const MapToolOptions& options, const std::vector<Item>& items, double scale)
{
    QStringList creationTimes;
    QList<double> seconds;
    double footage = 0.0;
    bool footageKnown = true;
    QStringList masks;
    bool steadyLight = options.steadyLight;
    for (const Item& item : items) {
        if (!item.combined)
            continue;
        // Manifests bring the masks their videos were analysed with, and their light rule.
        masks << item.mask;
        steadyLight = steadyLight || item.parameters.contains(QLatin1String("steady_light"));
        creationTimes << item.creationTime;
        seconds << item.footageSeconds;
        footage += std::max(item.footageSeconds, 0.0);
        footageKnown = footageKnown && item.footageSeconds >= 0.0;
    }
    Legend::Content content = Legend::contentOf(options.combineName, Legend::combinedTimeSpan(creationTimes, seconds),
                                                scale, footageKnown ? footage : 0.0, masks, steadyLight);
    content.zones = ZoneFile::fromJson(zonesOf(items));
    return Legend::render(map, content);
}

// The film of the combined time line (--timelapse): every input's steps summed, over the
// combined map's background and on its scale. The error, empty on success.
QString writeFilm(const MapToolOptions& options, const std::vector<Item>& items, const CombinedMap& map,
                  const Outputs& outputs, const FilmLine& line)
{
    QStringList steps;
    for (const Item& item : items) {
        // A pass without a pair kept no step.
        if (item.combined && QFileInfo::exists(item.filmSteps))
            steps << item.filmSteps;
    }
    Film::Settings settings;
    settings.path = outputs.film;
    settings.overwrite = options.overwrite;
    settings.stepSeconds = options.timelapseSeconds;
    settings.windowSeconds = options.timelapseWindowSeconds;
    settings.scale = scaleOf(options, map.sum());
    settings.name = options.combineName;
    settings.lineClock = line.clock;
    settings.cancel = line.cancel;
    return Film::write(settings, steps, map.background());
}

// Writes the combined files in the order of Outputs (the film before the manifest that names
// it); the error, empty on success. `sceneChanges` receives the inputs' scene changes, -1 when
// they were not counted in steady light or the run writes no data; `zoneFigures` each zone's
// figures as the manifest records them, none without zones.
QString writeOutputs(const MapToolOptions& options, const std::vector<Item>& items, const CombinedMap& map,
                     const Outputs& outputs, const FilmLine& line, std::int64_t* sceneChanges, QJsonArray* zoneFigures)
{
    const double scale = scaleOf(options, map.sum());
    for (const QString& path : outputs.all()) {
        if (!options.overwrite && OutputFile::existsOrDangles(path))
            return OutputFile::notReplacedError(path);
    }
    if (!outputs.map.isEmpty()) {
        const QImage image = MotionMap::render(map.sum(), map.background(), scale);
        if (!Utils::saveImage(image, outputs.map))
            return tr("Can't save image file '%1'").arg(outputs.map);
        if (!outputs.legend.isEmpty() && !Utils::saveImage(legendOf(image, options, items, scale), outputs.legend))
            return tr("Can't save image file '%1'").arg(outputs.legend);
    }
    if (!outputs.background.isEmpty() && !Utils::saveImage(MapImages::backgroundImage(map.background()), outputs.background))
        return tr("Can't save image file '%1'").arg(outputs.background);
    if (!outputs.film.isEmpty()) {
        const QString error = writeFilm(options, items, map, outputs, line);
        if (!error.isEmpty())
            return error;
    }
    if (!options.data)
        return {};
    cv::Mat events;
    map.sum().convertTo(events, CV_16UC1);  // saturates at 65535, as a single video's does
    if (!Utils::saveImage(MapImages::eventsImage(events), outputs.events))
        return tr("Can't save image file '%1'").arg(outputs.events);
    std::vector<CombinedActivity::Source> sources;
    for (const Item& item : items) {
        if (item.combined)
            sources.push_back({item.video, item.activity, item.creationTime});
    }
    QString error = CombinedActivity::write(outputs.activity, sources, options.overwrite, sceneChanges);
    if (!error.isEmpty())
        return error;
    const bool oneTimeLine = CombinedActivity::startOffsets(sources).has_value();
    if (!outputs.zones.isEmpty()) {
        std::vector<CombinedActivity::Source> tables;
        for (const Item& item : items) {
            if (item.combined)
                tables.push_back({item.video, item.zonesTable, item.creationTime});
        }
        error = CombinedActivity::writeZones(outputs.zones, tables, options.overwrite);
        if (!error.isEmpty())
            return error;
    }
    QJsonObject manifest = manifestOf(options, items, map, scale, oneTimeLine, outputs);
    if (!outputs.zones.isEmpty()) {
        *zoneFigures = combinedZoneFigures(items, events, oneTimeLine, outputs.zones);
        manifest.insert("zones", *zoneFigures);
    }
    // Only when the inputs were counted in steady light, so that other manifests stay as they were.
    if (*sceneChanges >= 0)
        manifest.insert("scene_changes", QJsonObject{{"count", static_cast<double>(*sceneChanges)}});
    return Manifest::write(outputs.manifest, manifest, options.overwrite);
}

class Combination final : public ResultSink {
public:
    Combination(const MapToolOptions& options, std::vector<Item>& items, cv::Size size, const Outputs& outputs,
                const FilmLine& line)
        : m_options(options)
        , m_items(items)
        , m_map(size)
        , m_outputs(outputs)
        , m_line(line)
    {
    }

    bool takesWithoutPass(int index) const override { return m_items[static_cast<size_t>(index)].manifest; }

    QString take(int index) override
    {
        Item& item = m_items[static_cast<size_t>(index)];
        cv::Mat events;
        cv::Mat background;
        // Only the earliest input's background is kept: the others' are checked, not decoded.
        const bool needsBackground = m_map.wantsBackground(index);
        // Each pool thread decodes every manifest's counts into the same memory.
        thread_local QImage storage;
        const QString error =
            ManifestInput::load(item.given, storage, &events, needsBackground ? &background : nullptr);
        if (!error.isEmpty())
            return error;
        return add(item, index, events, background);
    }

    QString takePass(int index, const MotionPassFacts& facts, const cv::Mat& background,
                     const QJsonArray& zones) override
    {
        Item& item = m_items[static_cast<size_t>(index)];
        item.zoneFigures = zones;
        item.creationTime = QString::fromStdString(facts.video.creationTime);
        if (facts.video.frameRate > 0.0)
            item.footageSeconds = facts.pairsAnalysed / facts.video.frameRate;
        return add(item, index, facts.exactCounts, background);
    }

    QStringList finish() override
    {
        if (m_map.inputs() == 0)
            return {tr("Nothing to combine into '%1'").arg(m_options.combineName)};
        const QString error = writeOutputs(m_options, m_items, m_map, m_outputs, m_line, &m_sceneChanges, &m_zoneFigures);
        return error.isEmpty() ? QStringList() : QStringList{error};
    }

    std::vector<ReportCard> reportCards(const QString& staging, const std::vector<ReportPart>& inputs,
                                        QString* error) override
    {
        if (m_map.inputs() == 0)
            return {};
        return {combinedCard(staging, inputs, error)};
    }

private:
    QString add(Item& item, int index, const cv::Mat& counts, const cv::Mat& background)
    {
        if (!m_map.add(index, counts, background))
            return tr("'%1' is %2, not %3 as the first input; left out")
                .arg(item.given, sizeText(counts.size()), sizeText(m_map.size()));
        item.combined = true;
        return {};
    }

    ReportCard combinedCard(const QString& staging, const std::vector<ReportPart>& inputs, QString* error) const;

    const MapToolOptions& m_options;
    std::vector<Item>& m_items;
    CombinedMap m_map;
    const Outputs& m_outputs;
    const FilmLine m_line;
    std::int64_t m_sceneChanges = -1; // as writeOutputs() counted them
    QJsonArray m_zoneFigures;         // as writeOutputs() summed them
};

// The inputs combined, as parts of one time line: by clock time when every one records it,
// else back to back in the order given, each as long as the footage it held.
std::vector<ReportPart> partsOnOneLine(const std::vector<Item>& items, const std::vector<ReportPart>& inputs,
                                       QString* lineClock)
{
    std::vector<CombinedActivity::Source> sources;
    std::vector<ReportPart> parts;
    for (size_t i = 0; i < items.size(); ++i) {
        if (!items[i].combined)
            continue;
        sources.push_back({items[i].video, {}, items[i].creationTime});
        parts.push_back(inputs[i]);
    }
    if (const auto offsets = CombinedActivity::startOffsets(sources)) {
        for (size_t i = 0; i < parts.size(); ++i)
            parts[i].offset = (*offsets)[i];
        const auto first = static_cast<size_t>(std::min_element(offsets->begin(), offsets->end()) - offsets->begin());
        *lineClock = sources[first].creationTime;
        return parts;
    }
    double lineEnd = 0.0;
    size_t next = 0;
    for (const Item& item : items) {
        if (!item.combined)
            continue;
        parts[next++].offset = lineEnd;
        lineEnd += std::max(item.footageSeconds, 0.0);
    }
    return parts;
}

ReportCard Combination::combinedCard(const QString& staging, const std::vector<ReportPart>& inputs,
                                     QString* error) const
{
    ReportCard card;
    card.key = QStringLiteral("c");
    card.title = m_options.combineName;
    card.sortName = m_options.combineName;
    card.status = QStringLiteral("done");
    card.ofAnInput = false;
    card.parts = partsOnOneLine(m_items, inputs, &card.creationTime);
    card.width = m_map.size().width;
    card.height = m_map.size().height;
    const double scale = scaleOf(m_options, m_map.sum());
    const QImage map = MotionMap::render(m_map.sum(), m_map.background(), scale);
    *error = ReportStaging::writeMap(staging, card.key, map, &card.mapFile);
    if (error->isEmpty())
        *error = ReportStaging::writeLegendStrip(staging, card.key, legendOf(map, m_options, m_items, scale),
                                                 map.height());
    card.legendFile = QStringLiteral("maps/%1.legend.png").arg(card.key);
    if (error->isEmpty())
        *error = ReportStaging::copyFilm(staging, card.key, m_outputs.film, &card.filmFile);
    double footage = 0.0;
    int leftOut = 0;
    for (const Item& item : m_items) {
        footage += item.combined ? std::max(item.footageSeconds, 0.0) : 0.0;
        leftOut += item.combined ? 0 : 1;
    }
    double largest = 0.0;
    cv::minMaxLoc(m_map.sum(), nullptr, &largest);
    const double pixels = static_cast<double>(m_map.sum().total());
    card.figures = ReportPage::countFigures(cv::sum(m_map.sum())[0], largest, cv::countNonZero(m_map.sum()) / pixels,
                                            m_sceneChanges);
    card.zones = m_zoneFigures;
    card.figures.insert(card.figures.begin(),
                        {{tr("Videos"), leftOut == 0 ? QString::number(m_map.inputs())
                                                     : tr("%1 (%2 left out)").arg(m_map.inputs()).arg(leftOut)},
                         ReportPage::footageFigure(footage)});
    return card;
}

} // namespace

namespace CombinedRun {

int run(const MapToolOptions& options, ProgressOutput& output, const std::atomic<int>& cancel, const cv::Mat& mask,
        ReportFolder* report)
{
    Outputs outputs = outputsOf(options);
    const QString conflict = conflictOf(outputs, options);
    if (!conflict.isEmpty()) {
        output.error(conflict);
        return MapRun::kExitFailure;
    }
    // The passes' activity tables and film steps wait here until they are combined.
    QTemporaryDir scratch;
    if ((options.data || options.timelapseSeconds > 0.0) && !scratch.isValid()) {
        output.error(tr("Can't create a temporary folder: %1").arg(scratch.errorString()));
        return MapRun::kExitFailure;
    }
    std::vector<Item> items = itemsOf(options, scratch.path());
    const QString notice = noticeForManifests(options, items);
    if (!notice.isEmpty())
        output.error(notice);
    const Item* first = firstKnown(items);
    const cv::Size size = first ? first->size : cv::Size();
    // The inputs' zones are known only now: those of the first, which every other shares.
    if (options.data && first && first->parameters.contains(QLatin1String("zones"))) {
        outputs.zones = QDir::cleanPath(QFileInfo(outputs.activity).dir().absoluteFilePath(options.combineName + QStringLiteral(".zones.csv")));
        const QString zonesConflict = conflictOf(outputs, options);
        if (!zonesConflict.isEmpty()) {
            output.error(zonesConflict);
            return MapRun::kExitFailure;
        }
    }
    std::vector<PlannedInput> planned = planOf(items, first, outputs, options.combineName);
    if (options.sliceSeconds > 0.0 || options.timelapseSeconds > 0.0)
        placeOnTimeLine(items, planned, options);
    if (options.sliceSeconds > 0.0) {
        const QString clash = sliceClashOf(items, planned, options, outputs);
        if (!clash.isEmpty()) {
            output.error(clash);
            return MapRun::kExitFailure;
        }
    }
    if (size.empty()) {
        for (const PlannedInput& input : planned)
            output.error(input.error.isEmpty() ? tr("Can't open video file '%1'").arg(input.video) : input.error);
        output.error(tr("Nothing to combine into '%1'").arg(options.combineName));
        return MapRun::kExitFailure;
    }
    FilmLine line;
    line.cancel = &cancel;
    for (const PlannedInput& input : planned)
        line.clock = line.clock.isEmpty() ? input.sliceLineClock : line.clock;
    Combination combination(options, items, size, outputs, line);
    return MapRun::run(options, planned, output, cancel, mask, report, &combination);
}

} // namespace CombinedRun
