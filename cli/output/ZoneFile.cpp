#include "ZoneFile.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <cmath>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// Far above any file of 64 zones a person writes; a larger one is not read whole.
constexpr qint64 kLargestFile = 16 << 20;

bool readCoordinate(const QJsonValue& value, int* coordinate)
{
    if (!value.isDouble())
        return false;
    const double number = value.toDouble();
    if (number != std::floor(number) || std::abs(number) > ZoneFile::kLargestCoordinate)
        return false;
    *coordinate = static_cast<int>(number);
    return true;
}

// The zone's polygon; the error, empty when it reads.
QString readPolygon(const QString& path, const QString& name, const QJsonValue& value, std::vector<cv::Point>* polygon)
{
    if (!value.isArray())
        return tr("Zone '%1' in zone file '%2' has no polygon.").arg(name, path);
    const QJsonArray points = value.toArray();
    if (points.size() < ZoneFile::kFewestPoints)
        return tr("Zone '%1' in zone file '%2' has fewer than three points.").arg(name, path);
    for (const QJsonValue& point : points) {
        const QJsonArray xy = point.toArray();
        cv::Point read;
        if (!point.isArray() || xy.size() != 2 || !readCoordinate(xy[0], &read.x) || !readCoordinate(xy[1], &read.y)) {
            const QString text = QString::fromUtf8(QJsonDocument(QJsonArray{point}).toJson(QJsonDocument::Compact));
            return tr("Zone '%1' in zone file '%2' has a point that is not two integer coordinates "
                      "from -%3 to %3: %4.")
                .arg(name, path)
                .arg(ZoneFile::kLargestCoordinate)
                .arg(text.mid(1, text.size() - 2));
        }
        polygon->push_back(read);
    }
    return {};
}

// The zone's name; the error, empty when it reads.
QString readName(const QString& path, int index, const QJsonObject& zone, QSet<QString>& seen, QString* name)
{
    const QString number = QString::number(index + 1);
    if (!zone.value("name").isString())
        return tr("Zone %1 in zone file '%2' has no name.").arg(number, path);
    *name = zone.value("name").toString();
    if (name->isEmpty())
        return tr("Zone %1 in zone file '%2' has an empty name.").arg(number, path);
    if (name->toUcs4().size() > ZoneFile::kLongestName)
        return tr("Zone %1 in zone file '%2' has a name longer than %3 characters.")
            .arg(number, path)
            .arg(ZoneFile::kLongestName);
    if (seen.contains(*name))
        return tr("Zone %1 in zone file '%2' repeats the name '%3'.").arg(number, path, *name);
    seen.insert(*name);
    return {};
}

// The zones of the document; the error, empty when they read.
QString readZones(const QString& path, const QJsonDocument& document, std::vector<Zone>* zones)
{
    const QJsonValue list = document.object().value("zones");
    if (!document.isObject() || !list.isArray() || list.toArray().isEmpty())
        return tr("Zone file '%1' has no \"zones\" list of zones.").arg(path);
    const QJsonArray entries = list.toArray();
    if (entries.size() > ZoneFile::kMostZones)
        return tr("Zone file '%1' has %2 zones: at most %3 are counted.")
            .arg(path)
            .arg(entries.size())
            .arg(ZoneFile::kMostZones);
    QSet<QString> seen;
    for (int i = 0; i < entries.size(); ++i) {
        if (!entries[i].isObject())
            return tr("Zone %1 in zone file '%2' is not an object with a name and a polygon.")
                .arg(QString::number(i + 1), path);
        Zone zone;
        QString error = readName(path, i, entries[i].toObject(), seen, &zone.name);
        if (error.isEmpty())
            error = readPolygon(path, zone.name, entries[i].toObject().value("polygon"), &zone.polygon);
        if (!error.isEmpty())
            return error;
        zones->push_back(std::move(zone));
    }
    return {};
}

} // namespace

namespace ZoneFile {

std::vector<Zone> load(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > kLargestFile) {
        *error = file.size() > kLargestFile ? tr("Zone file '%1' is larger than 16 MB.").arg(path)
                                            : tr("Can't read zone file '%1'.").arg(path);
        return {};
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = tr("Zone file '%1' is not JSON: %2 at byte %3.")
                     .arg(path, parseError.errorString())
                     .arg(parseError.offset);
        return {};
    }
    std::vector<Zone> zones;
    *error = readZones(path, document, &zones);
    if (!error->isEmpty())
        return {};
    return zones;
}

QJsonArray toJson(const std::vector<Zone>& zones)
{
    QJsonArray list;
    for (const Zone& zone : zones) {
        QJsonArray polygon;
        for (const cv::Point& point : zone.polygon)
            polygon.append(QJsonArray{point.x, point.y});
        list.append(QJsonObject{{"name", zone.name}, {"polygon", polygon}});
    }
    return list;
}

std::vector<Zone> fromJson(const QJsonArray& zones)
{
    std::vector<Zone> read;
    for (const QJsonValue& value : zones) {
        Zone zone;
        zone.name = value.toObject()["name"].toString();
        for (const QJsonValue& point : value.toObject()["polygon"].toArray())
            zone.polygon.emplace_back(point.toArray()[0].toInt(), point.toArray()[1].toInt());
        read.push_back(std::move(zone));
    }
    return read;
}

std::vector<std::vector<cv::Point>> polygonsOf(const std::vector<Zone>& zones)
{
    std::vector<std::vector<cv::Point>> polygons;
    for (const Zone& zone : zones)
        polygons.push_back(zone.polygon);
    return polygons;
}

} // namespace ZoneFile
