#include "ManifestInput.h"

#include "Manifest.h"
#include "MapImages.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QImageReader>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <limits>
#include <memory>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

struct Parsed {
    QJsonObject root;
    QString error;
};

Parsed parse(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {{}, tr("Can't read manifest '%1'").arg(path)};
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return {{}, tr("Manifest '%1' is not JSON: %2").arg(path, parseError.errorString())};
    const QJsonObject root = document.object();
    if (root["format"].toString() != QLatin1String(Manifest::kFormatName))
        return {{}, tr("'%1' is not a manifest written by tremora-map --data").arg(path)};
    const int version = root["format_version"].toInt(0);
    if (version > Manifest::kFormatVersion)
        return {{}, tr("Manifest '%1' has format version %2; this tremora-map reads up to %3")
                        .arg(path, QString::number(version), QString::number(Manifest::kFormatVersion))};
    if (version < 1)
        return {{}, tr("Manifest '%1' has no format version").arg(path)};
    const QString status = root["outcome"].toObject()["status"].toString();
    if (status != QLatin1String("done"))
        return {{}, tr("Manifest '%1' records an analysis that did not finish (%2)").arg(path, status)};
    return {root, {}};
}

// The recorded file of `role`, or a null object.
QJsonObject fileOf(const QJsonObject& root, const QString& role)
{
    for (const QJsonValue& file : root["files"].toArray()) {
        if (file.toObject()["role"].toString() == role)
            return file.toObject();
    }
    return {};
}

// A file name as the manifest records it: beside the manifest, never elsewhere.
QString besideManifest(const QString& manifest, const QString& name)
{
    if (name.isEmpty() || name.contains(QLatin1Char('/')))
        return {};
    return QFileInfo(manifest).absoluteDir().absoluteFilePath(name);
}

// A file checked against the manifest, its bytes mapped rather than copied: the background
// of a 1080p video is megabytes, and a merge reads hundreds of them.
struct CheckedFile {
    std::unique_ptr<QFile> file;
    QString path;
    QByteArray bytes;  // a view of the mapping, valid while `file` is open
};

// The file's bytes when its size and checksum are those recorded; the error otherwise.
QString readChecked(const QString& manifest, const QJsonObject& recorded, CheckedFile* checked)
{
    const QString path = besideManifest(manifest, recorded["name"].toString());
    checked->path = path;
    checked->file = std::make_unique<QFile>(path);
    QFile& file = *checked->file;
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly))
        return tr("Manifest '%1' names '%2', which is missing").arg(manifest, recorded["name"].toString());
    if (file.size() != static_cast<qint64>(recorded["size_bytes"].toDouble(-1.0)))
        return tr("'%1' does not match manifest '%2' (size)").arg(path, manifest);
    const uchar* mapped = file.size() > 0 ? file.map(0, file.size()) : nullptr;
    if (mapped)
        checked->bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(mapped), static_cast<int>(file.size()));
    else
        checked->bytes = file.readAll();
    const QString sha =
        QString::fromLatin1(QCryptographicHash::hash(checked->bytes, QCryptographicHash::Sha256).toHex());
    if (sha != recorded["sha256"].toString())
        return tr("'%1' does not match manifest '%2' (checksum)").arg(path, manifest);
    return {};
}

// Whether a video could have this size: FFmpeg refuses any picture whose (width + 128) x
// (height + 128) pixels at 8 bytes each reach 2 GiB. The size a manifest records decides the
// memory of every picture read for it and of the sums, so it is held to what was decodable.
bool decodableSize(int width, int height)
{
    constexpr qint64 kLargestPadded = std::numeric_limits<int>::max() / 8;
    return width > 0 && height > 0 && (qint64(width) + 128) * (qint64(height) + 128) < kLargestPadded;
}

// Whether the picture `reader` is about to decode has the size its manifest records, from its
// header alone; the error naming both sizes otherwise.
QString checkPictureSize(const QString& manifest, const CheckedFile& picture, QImageReader& reader, QSize recorded)
{
    const QSize declared = reader.size();
    if (declared == recorded && !recorded.isEmpty())
        return {};
    return tr("Manifest '%1' records %2x%3, but its picture '%4' declares %5x%6; not decoded")
        .arg(manifest, QString::number(recorded.width()), QString::number(recorded.height()), picture.path,
             QString::number(declared.width()), QString::number(declared.height()));
}

} // namespace

namespace ManifestInput {

Header readHeader(const QString& path)
{
    Header header;
    header.manifestPath = path;
    const Parsed parsed = parse(path);
    if (!parsed.error.isEmpty()) {
        header.error = parsed.error;
        return header;
    }
    const QJsonObject video = parsed.root["video"].toObject();
    header.videoPath = parsed.root["input"].toObject()["path"].toString();
    header.width = video["width"].toInt();
    header.height = video["height"].toInt();
    if (!decodableSize(header.width, header.height)) {
        header.error = tr("Manifest '%1' records a picture of %2x%3, which no video has")
                           .arg(path, QString::number(header.width), QString::number(header.height));
        return header;
    }
    header.creationTime = video["creation_time"].toString();
    header.parameters = parsed.root["parameters"].toObject();
    header.maskPath = header.parameters["mask"].toString();
    const double frameRate = video["frame_rate"].toDouble(0.0);
    if (frameRate > 0.0)
        header.footageSeconds = parsed.root["pairs_analysed"].toDouble(0.0) / frameRate;
    const QJsonObject events = fileOf(parsed.root, QStringLiteral("events"));
    const QJsonObject background = fileOf(parsed.root, QStringLiteral("background"));
    if (events.isEmpty() || background.isEmpty()) {
        header.error = tr("Manifest '%1' names no exact counts or no background").arg(path);
        return header;
    }
    header.eventsPath = besideManifest(path, events["name"].toString());
    header.backgroundPath = besideManifest(path, background["name"].toString());
    const QJsonObject activity = fileOf(parsed.root, QStringLiteral("activity"));
    if (!activity.isEmpty())
        header.activityPath = besideManifest(path, activity["name"].toString());
    const QJsonObject zones = fileOf(parsed.root, QStringLiteral("zones"));
    if (!zones.isEmpty())
        header.zonesPath = besideManifest(path, zones["name"].toString());
    header.zoneFigures = parsed.root["zones"].toArray();
    return header;
}

QString load(const QString& path, QImage& storage, cv::Mat* events, cv::Mat* background)
{
    const Parsed parsed = parse(path);
    if (!parsed.error.isEmpty())
        return parsed.error;
    CheckedFile eventsFile;
    CheckedFile backgroundFile;
    CheckedFile tableFile;
    QString error = readChecked(path, fileOf(parsed.root, QStringLiteral("events")), &eventsFile);
    if (error.isEmpty())
        error = readChecked(path, fileOf(parsed.root, QStringLiteral("background")), &backgroundFile);
    for (const QString& role : {QStringLiteral("activity"), QStringLiteral("zones")}) {
        const QJsonObject table = fileOf(parsed.root, role);
        if (error.isEmpty() && !table.isEmpty())
            error = readChecked(path, table, &tableFile);
    }
    if (!error.isEmpty())
        return error;
    const QJsonObject video = parsed.root["video"].toObject();
    const QSize recorded(video["width"].toInt(), video["height"].toInt());
    QBuffer eventsBuffer(&eventsFile.bytes);
    QImageReader eventsReader(&eventsBuffer, "PNG");
    QBuffer backgroundBuffer(&backgroundFile.bytes);
    QImageReader backgroundReader(&backgroundBuffer, "PNG");
    error = checkPictureSize(path, eventsFile, eventsReader, recorded);
    if (error.isEmpty())
        error = checkPictureSize(path, backgroundFile, backgroundReader, recorded);
    if (!error.isEmpty())
        return error;
    if (!eventsReader.read(&storage) || storage.format() != QImage::Format_Grayscale16)
        return tr("The files of manifest '%1' are not its counts and background").arg(path);
    if (background) {
        const QImage backgroundImage = backgroundReader.read();
        if (backgroundImage.size() != storage.size())
            return tr("The files of manifest '%1' are not its counts and background").arg(path);
        *background = MapImages::matrixOf(backgroundImage, QImage::Format_RGB888, CV_8UC3);
    }
    *events = cv::Mat(storage.height(), storage.width(), CV_16UC1, storage.bits(),
                      static_cast<size_t>(storage.bytesPerLine()));
    return {};
}

} // namespace ManifestInput
