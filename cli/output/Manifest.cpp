#include "Manifest.h"

#include "MotionCounter.h"
#include "OutputFile.h"
#include "Version.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <opencv2/core.hpp>

#include <cmath>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// Times of files in UTC with milliseconds, as ISO 8601.
QString isoTime(const QDateTime& time)
{
    return time.toUTC().toString(Qt::ISODateWithMs);
}

QJsonValue orNull(const QString& text)
{
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

QJsonValue finiteOrNull(double value)
{
    return std::isfinite(value) && value >= 0.0 ? QJsonValue(value) : QJsonValue();
}

QString outcomeName(Manifest::Outcome outcome)
{
    switch (outcome) {
    case Manifest::Outcome::Done:
        return QStringLiteral("done");
    case Manifest::Outcome::Failed:
        return QStringLiteral("failed");
    case Manifest::Outcome::Canceled:
        return QStringLiteral("canceled");
    }
    return {};
}

QJsonObject inputOf(const PlannedInput& input)
{
    const QFileInfo video(input.video);
    return {
        {"path", video.absoluteFilePath()},
        {"size_bytes", static_cast<double>(video.size())},
        {"modified", isoTime(video.lastModified())},
    };
}

QJsonObject videoOf(const VideoInfo& info)
{
    return {
        {"container", orNull(QString::fromStdString(info.container))},
        {"codec", orNull(QString::fromStdString(info.codec))},
        {"width", info.width},
        {"height", info.height},
        {"frame_rate", finiteOrNull(info.frameRate > 0.0 ? info.frameRate : -1.0)},
        {"duration_s", finiteOrNull(info.duration)},
        {"creation_time", orNull(QString::fromStdString(info.creationTime))},
    };
}

QString sha256Of(const QString& path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return {};
    return QString::fromLatin1(hash.result().toHex());
}

// Named relative to the manifest, which lies beside them, so that a folder of results can be
// moved as a whole.
QJsonArray filesOf(const std::vector<Manifest::WrittenFile>& written)
{
    QJsonArray files;
    for (const Manifest::WrittenFile& file : written)
        files.append(Manifest::fileRecord(file.role, file.path));
    return files;
}

QJsonObject summaryOf(const MotionPassFacts& facts, std::int64_t pairsWithMotion)
{
    const cv::Mat& events = facts.exactCounts;
    double largest = 0.0;
    double pixelShare = 0.0;
    if (!events.empty()) {
        cv::minMaxLoc(events, nullptr, &largest);
        pixelShare = static_cast<double>(cv::countNonZero(events)) / static_cast<double>(events.total());
    }
    const double pairShare =
        facts.pairsAnalysed > 0 ? static_cast<double>(pairsWithMotion) / facts.pairsAnalysed : 0.0;
    return {
        {"pixels_with_events_share", pixelShare},
        {"max_events", largest},
        {"pairs_with_motion_share", pairShare},
        {"events_total", events.empty() ? 0.0 : cv::sum(events)[0]},
    };
}

// A parameter's value as JSON writes it ("true", "2.5", "\"/masks/a.png\""), "none" for null.
QString valueText(const QJsonValue& value)
{
    if (value.isNull() || value.isUndefined())
        return tr("none");
    const QByteArray json = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(json.mid(1, json.size() - 2));
}

// The zones a manifest records by their names ("'door', 'till'"), "none" without any.
QString zoneNamesOf(const QJsonValue& zones)
{
    QStringList names;
    for (const QJsonValue& zone : zones.toArray())
        names << QLatin1Char('\'') + zone.toObject()["name"].toString() + QLatin1Char('\'');
    return names.isEmpty() ? tr("none") : names.join(QLatin1String(", "));
}

// Zones by their names rather than every vertex, which would not fit a line.
QString zonesDifference(const QJsonValue& recorded, const QJsonValue& reference)
{
    const QString names = zoneNamesOf(recorded);
    const QString expected = zoneNamesOf(reference);
    if (names == expected)
        return tr("zones %1 with other polygons than %2").arg(names, expected);
    return tr("zones %1, not %2").arg(names, expected);
}

// Walks both objects' keys, so that a parameter only one of them records (an option added
// after the other was written) counts as "none" there rather than being passed over.
void addDifferences(const QString& prefix, const QJsonObject& recorded, const QJsonObject& reference,
                    QStringList* differences)
{
    QStringList keys = recorded.keys() + reference.keys();
    keys.removeDuplicates();
    keys.sort();
    for (const QString& key : keys) {
        // The colour scale draws a map from the counts; it changes no count.
        if (prefix.isEmpty() && key == QLatin1String("scale"))
            continue;
        const QJsonValue value = recorded.value(key);
        const QJsonValue expected = reference.value(key);
        const QString name = prefix.isEmpty() ? key : prefix + QLatin1Char('.') + key;
        if (prefix.isEmpty() && key == QLatin1String("zones")) {
            if (value != expected)
                *differences << zonesDifference(value, expected);
            continue;
        }
        if (value.isObject() && expected.isObject()) {
            addDifferences(name, value.toObject(), expected.toObject(), differences);
            continue;
        }
        const bool bothNone = (value.isNull() || value.isUndefined()) && (expected.isNull() || expected.isUndefined());
        if (!bothNone && value != expected)
            *differences << tr("%1 %2, not %3").arg(name, valueText(value), valueText(expected));
    }
}

QJsonObject sceneChangesOf(const Manifest::SceneChanges& changes)
{
    QJsonArray times;
    for (const double time : changes.times)
        times.append(time);
    return {{"count", static_cast<double>(changes.count)}, {"times_s", times}};
}

} // namespace

namespace Manifest {

bool namesManifest(const QString& path)
{
    return path.endsWith(QLatin1String(".json"), Qt::CaseInsensitive);
}

QJsonObject parameters(const MapToolOptions& options, double mapScale)
{
    QJsonObject recorded{
        {"blur", options.blur},
        {"threshold", options.blur ? MotionCounter::kThresholdBlurred : MotionCounter::kThresholdSharp},
        {"new_event_gap_pairs", MotionCounter::kNewEventGap},
        {"learning_pairs", MotionPass::kLearningPairs},
        {"mask", options.maskPath.isEmpty() ? QJsonValue() : QJsonValue(QFileInfo(options.maskPath).absoluteFilePath())},
        {"window",
         QJsonObject{
             {"start_s", options.hasStart ? QJsonValue(options.start) : QJsonValue()},
             {"end_s", options.hasEnd ? QJsonValue(options.end) : QJsonValue()},
         }},
    };
    // Only where asked for, so that a manifest without --scale stays as it was.
    // An automatic scale is known only once the counts are: null for a pass that did not end.
    if (options.scaleGiven) {
        const double top = mapScale > 0.0 ? mapScale : options.scaleAuto ? 0.0 : options.scale;
        recorded.insert("scale", QJsonObject{{"events_at_top", top > 0.0 ? QJsonValue(top) : QJsonValue()},
                                             {"auto", options.scaleAuto}});
    }
    // Likewise only in steady light; a manifest without it was counted as every earlier one.
    if (options.steadyLight)
        recorded.insert("steady_light", QJsonObject{{"scene_change_share", options.sceneChangeShare}});
    // Zones change no count of the picture, but the zones' own: inputs counted with other
    // zones are not summed zone by zone.
    if (!options.zones.empty())
        recorded.insert("zones", ZoneFile::toJson(options.zones));
    return recorded;
}

QStringList parameterDifferences(const QJsonObject& recorded, const QJsonObject& reference)
{
    QStringList differences;
    addDifferences(QString(), recorded, reference, &differences);
    return differences;
}

QJsonObject fileRecord(const QString& role, const QString& path)
{
    const QFileInfo info(path);
    return {
        {"role", role},
        {"name", info.fileName()},
        {"size_bytes", static_cast<double>(info.size())},
        {"sha256", sha256Of(path)},
    };
}

void SceneChanges::add(double time)
{
    ++count;
    if (times.size() < static_cast<size_t>(kKeptTimes))
        times.push_back(time);
}

QJsonObject build(const Content& content)
{
    const MotionPassFacts& facts = *content.facts;
    QJsonObject outcome{{"status", outcomeName(content.outcome)}};
    if (content.outcome == Outcome::Failed)
        outcome.insert("error", content.error);
    QJsonObject manifest{
        {"format", QLatin1String(kFormatName)},
        {"format_version", kFormatVersion},
        {"tool", QStringLiteral("tremora-map")},
        {"tool_version", QString::fromLatin1(Version::version)},
        {"input", inputOf(*content.input)},
        {"video", videoOf(facts.video)},
        {"frames_decoded", static_cast<double>(facts.framesDecoded)},
        {"pairs_analysed", facts.pairsAnalysed},
        {"parameters", parameters(*content.options, content.mapScale)},
        {"outcome", outcome},
        {"files", filesOf(content.written)},
        {"summary", summaryOf(facts, content.pairsWithMotion)},
    };
    // Only in steady light, so that every other manifest stays as it was.
    if (content.options->steadyLight && content.sceneChanges)
        manifest.insert("scene_changes", sceneChangesOf(*content.sceneChanges));
    // Likewise only with zones; figures are known once a pass has ended well.
    if (!content.options->zones.empty() && !content.zones.isEmpty())
        manifest.insert("zones", content.zones);
    return manifest;
}

QString write(const QString& path, const QJsonObject& manifest, bool overwrite)
{
    return OutputFile::write(path, QJsonDocument(manifest).toJson(QJsonDocument::Indented), overwrite);
}

bool recordsCanceledAnalysis(const QString& path)
{
    // Far above any manifest the tool writes; a larger file is not read whole to find out.
    constexpr qint64 largestManifest = 1 << 20;
    QFile file(path);
    if (file.size() > largestManifest || !file.open(QIODevice::ReadOnly))
        return false;
    const QJsonObject root = QJsonDocument::fromJson(file.readAll()).object();
    return root["format"].toString() == QLatin1String(kFormatName)
           && root["outcome"].toObject()["status"].toString() == outcomeName(Outcome::Canceled)
           && root["files"].toArray().isEmpty();
}

} // namespace Manifest
