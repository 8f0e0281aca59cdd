#include "CombinedActivity.h"

#include "ActivityCsv.h"
#include "OutputFile.h"
#include "ZonesOutput.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>

#include <algorithm>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// A CSV field in double quotes, so that a comma or a quote in a file name stays in it.
QByteArray quoted(const QString& text)
{
    QByteArray field = text.toUtf8();
    field.replace('"', "\"\"");
    return '"' + field + '"';
}

// The header of `table`: one an input's table has, else empty.
QByteArray headerOf(const QString& table)
{
    QFile file(table);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray header = file.readLine();
    const bool known = header == ActivityCsv::kHeader || header == ActivityCsv::kHeaderWithSceneChanges
                       || header == ZonesOutput::kHeader;
    return known ? header : QByteArray();
}

// Copies the rows of `source` to `out`, each led by its file, with `offset` seconds added to
// the times when given. False unless its header is `header`.
bool copyRows(const CombinedActivity::Source& source, const QByteArray& header, const double* offset, QSaveFile& out,
              std::int64_t* sceneChanges)
{
    QFile table(source.table);
    if (!table.open(QIODevice::ReadOnly) || table.readLine() != header)
        return false;
    const QByteArray file = quoted(source.file) + ',';
    // A zones table's rows begin with the zone's quoted name, which may hold commas.
    const bool zoneLed = header == ZonesOutput::kHeader;
    const int columns = header.count(',') + 1 - (zoneLed ? 1 : 0);
    const bool withSceneChanges = header == ActivityCsv::kHeaderWithSceneChanges;
    while (!table.atEnd()) {
        QByteArray line = table.readLine();
        if (line.trimmed().isEmpty())
            continue;
        if (withSceneChanges && line.trimmed().endsWith(",1"))
            ++*sceneChanges;
        if (offset) {
            const int zoneEnd = zoneLed ? ZonesOutput::quotedFieldEnd(line, 0) + 1 : 0;
            if (zoneEnd < 0)
                return false;
            QList<QByteArray> fields = line.mid(zoneEnd).split(',');
            if (fields.size() != columns)
                return false;
            fields[1] = QByteArray::number(fields[1].toDouble() + *offset, 'f', 6);
            line = line.left(zoneEnd) + fields.join(',');
        }
        out.write(file + line);
    }
    return true;
}

QString unreadable(const QByteArray& header, const QString& table)
{
    if (header == ZonesOutput::kHeader)
        return tr("Can't read the zones table '%1'").arg(table);
    return tr("Can't read the activity table '%1'").arg(table);
}

// The combined table of `sources`, whose first table's header every other must have (else
// `emptyHeader` without sources).
QString writeTable(const QString& path, const std::vector<CombinedActivity::Source>& sources, bool overwrite,
                   const QByteArray& emptyHeader, std::int64_t* sceneChanges)
{
    *sceneChanges = 0;
    if (!overwrite && OutputFile::existsOrDangles(path))
        return OutputFile::notReplacedError(path);
    QSaveFile out(path);
    if (!out.open(QIODevice::WriteOnly))
        return OutputFile::saveError(path);
    // Every input was counted by one rule, so every table has the first one's columns (the
    // scene_change column with steady light).
    const QByteArray header = sources.empty() ? emptyHeader : headerOf(sources.front().table);
    if (header.isEmpty())
        return unreadable(emptyHeader, sources.front().table);
    out.write("file," + header);
    const std::optional<std::vector<double>> offsets = CombinedActivity::startOffsets(sources);
    for (size_t i = 0; i < sources.size(); ++i) {
        if (!copyRows(sources[i], header, offsets ? &(*offsets)[i] : nullptr, out, sceneChanges))
            return unreadable(emptyHeader, sources[i].table);
    }
    if (!out.commit())
        return OutputFile::saveError(path);
    if (header != ActivityCsv::kHeaderWithSceneChanges)
        *sceneChanges = -1;
    return {};
}

} // namespace

// FFmpeg gives creation times with microseconds ("2024-05-01T10:00:00.000000Z"), which
// Qt's ISO reading does not take: milliseconds are plenty for files minutes long.
QDateTime CombinedActivity::readCreationTime(const QString& text)
{
    static const QRegularExpression finer(QStringLiteral("(\\.\\d{3})\\d+"));
    QString trimmed = text;
    trimmed.replace(finer, QStringLiteral("\\1"));
    return QDateTime::fromString(trimmed, Qt::ISODateWithMs);
}

namespace CombinedActivity {

std::optional<std::vector<double>> startOffsets(const std::vector<Source>& sources)
{
    std::vector<QDateTime> starts;
    for (const Source& source : sources) {
        const QDateTime start = readCreationTime(source.creationTime);
        if (!start.isValid())
            return std::nullopt;
        starts.push_back(start);
    }
    if (starts.empty())
        return std::nullopt;
    const QDateTime earliest = *std::min_element(starts.begin(), starts.end());
    std::vector<double> offsets;
    for (const QDateTime& start : starts)
        offsets.push_back(static_cast<double>(earliest.msecsTo(start)) / 1000.0);
    return offsets;
}

QString write(const QString& path, const std::vector<Source>& sources, bool overwrite, std::int64_t* sceneChanges)
{
    return writeTable(path, sources, overwrite, ActivityCsv::kHeader, sceneChanges);
}

QString writeZones(const QString& path, const std::vector<Source>& sources, bool overwrite)
{
    std::int64_t sceneChanges = 0;
    return writeTable(path, sources, overwrite, ZonesOutput::kHeader, &sceneChanges);
}

} // namespace CombinedActivity
