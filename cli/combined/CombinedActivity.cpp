#include "CombinedActivity.h"

#include "OutputFile.h"

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

// Copies the rows of `source` (its header left out) to `out`, each led by its file, with
// `offset` seconds added to the times when given.
bool copyRows(const CombinedActivity::Source& source, const double* offset, QSaveFile& out)
{
    QFile table(source.table);
    if (!table.open(QIODevice::ReadOnly))
        return false;
    const QByteArray file = quoted(source.file) + ',';
    table.readLine();
    while (!table.atEnd()) {
        QByteArray line = table.readLine();
        if (line.trimmed().isEmpty())
            continue;
        if (offset) {
            QList<QByteArray> fields = line.split(',');
            if (fields.size() != 4)
                return false;
            fields[1] = QByteArray::number(fields[1].toDouble() + *offset, 'f', 6);
            line = fields.join(',');
        }
        out.write(file + line);
    }
    return true;
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

QString write(const QString& path, const std::vector<Source>& sources, bool overwrite)
{
    if (!overwrite && OutputFile::existsOrDangles(path))
        return OutputFile::notReplacedError(path);
    QSaveFile out(path);
    if (!out.open(QIODevice::WriteOnly))
        return OutputFile::saveError(path);
    out.write(kHeader);
    const std::optional<std::vector<double>> offsets = startOffsets(sources);
    for (size_t i = 0; i < sources.size(); ++i) {
        if (!copyRows(sources[i], offsets ? &(*offsets)[i] : nullptr, out))
            return tr("Can't read the activity table '%1'").arg(sources[i].table);
    }
    if (!out.commit())
        return OutputFile::saveError(path);
    return {};
}

} // namespace CombinedActivity
