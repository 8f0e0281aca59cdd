#include "ZonesOutput.h"

#include "OutputFile.h"
#include "ZoneFigures.h"

#include <QCoreApplication>
#include <QJsonObject>

#include <cmath>

std::unique_ptr<InputOutput> ZonesOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    if (input.zonesPath.isEmpty())
        return nullptr;
    return std::make_unique<ZonesOutput>(input.zonesPath, options.overwrite, options.zones);
}

ZonesOutput::ZonesOutput(const QString& path, bool replaces, const std::vector<Zone>& zones)
    : InputOutput(path, replaces)
    , m_file(path)
    , m_zones(zones)
    , m_seen(zones.size())
{
    for (const Zone& zone : zones)
        m_names.push_back(quoted(zone.name) + ',');
    // A table that cannot be started says so in write().
    if (m_file.open(QIODevice::WriteOnly))
        m_file.write(kHeader);
}

QByteArray ZonesOutput::quoted(const QString& name)
{
    QByteArray field = name.toUtf8();
    field.replace('"', "\"\"");
    return '"' + field + '"';
}

int ZonesOutput::quotedFieldEnd(const QByteArray& line, int from, QString* field)
{
    if (from >= line.size() || line[from] != '"')
        return -1;
    QByteArray text;
    for (int at = from + 1; at < line.size(); ++at) {
        if (line[at] != '"') {
            text += line[at];
        } else if (at + 1 < line.size() && line[at + 1] == '"') {
            text += '"';
            ++at;
        } else {
            if (field)
                *field = QString::fromUtf8(text);
            return at + 1;
        }
    }
    return -1;
}

void ZonesOutput::pairCounted(const MotionPassHooks::PairRecord& record)
{
    if (!record.zones)
        return;
    // As the activity table writes them: the locale never changes the decimal point.
    const QByteArray pairAndTime =
        QByteArray::number(record.pair) + ',' + QByteArray::number(record.time, 'f', 6) + ',';
    QByteArray rows;
    for (size_t zone = 0; zone < record.zones->size(); ++zone) {
        const ZoneSpans::Tally& tally = (*record.zones)[zone];
        if (tally.movingPixels == 0 && tally.newEvents == 0)
            continue;
        m_seen[zone].add(record.time, tally);
        rows += m_names[zone] + pairAndTime + QByteArray::number(static_cast<qint64>(tally.movingPixels)) + ','
                + QByteArray::number(static_cast<qint64>(tally.newEvents)) + '\n';
    }
    if (!rows.isEmpty() && m_file.isOpen())
        m_file.write(rows);
}

void ZonesOutput::Seen::add(double time, const ZoneSpans::Tally& tally)
{
    if (tally.movingPixels > 0) {
        firstMotion = pairsWithMotion == 0 ? time : firstMotion;
        lastMotion = time;
        ++pairsWithMotion;
    }
    newEvents += tally.newEvents;
    const auto at = static_cast<std::int64_t>(std::floor(time));
    if (at != second) {
        closeSecond();
        second = at;
        secondEvents = 0;
    }
    secondEvents += tally.newEvents;
}

void ZonesOutput::Seen::closeSecond()
{
    if (secondEvents > busiestEvents || (secondEvents == busiestEvents && secondEvents > 0 && second < busiestSecond)) {
        busiestEvents = secondEvents;
        busiestSecond = second;
    }
}

QString ZonesOutput::role() const
{
    return QStringLiteral("zones");
}

QString ZonesOutput::failureOf(const FinishedInput& finished) const
{
    const std::vector<std::int64_t>& areas = finished.facts.zones.areas();
    for (size_t zone = 0; zone < areas.size() && zone < m_zones.size(); ++zone) {
        if (areas[zone] == 0)
            return QCoreApplication::translate("MapTool", "Zone '%1' has no analysed pixel in '%2'")
                .arg(m_zones[zone].name, finished.input.video);
    }
    return {};
}

QString ZonesOutput::write(FinishedInput& finished)
{
    finished.zones = figuresOf(finished);
    return OutputFile::commit(m_file, path(), replaces());
}

QJsonArray ZonesOutput::figuresOf(const FinishedInput& finished)
{
    const MotionPassFacts& facts = finished.facts;
    // A pass that ended before the video's size was known has neither counts nor zones.
    const bool counted = !facts.exactCounts.empty() && facts.zones.zones() == static_cast<int>(m_zones.size());
    const std::vector<ZoneSpans::Totals> totals =
        counted ? facts.zones.totalsOf(facts.exactCounts) : std::vector<ZoneSpans::Totals>(m_zones.size());
    const QJsonArray definitions = ZoneFile::toJson(m_zones);
    const double frameRate = facts.video.frameRate;
    QJsonArray figures;
    for (size_t zone = 0; zone < m_zones.size(); ++zone) {
        Seen& seen = m_seen[zone];
        seen.closeSecond();
        ZoneFigures figure;
        figure.area = zone < facts.zones.areas().size() ? facts.zones.areas()[zone] : 0;
        figure.totals = totals[zone];
        figure.pairsWithMotion = seen.pairsWithMotion;
        figure.motionSeconds = frameRate > 0.0 ? static_cast<double>(seen.pairsWithMotion) / frameRate : -1.0;
        figure.moved = seen.pairsWithMotion > 0;
        figure.firstMotion = seen.firstMotion;
        figure.lastMotion = seen.lastMotion;
        figure.busiestSecond = seen.busiestSecond;
        figure.busiestEvents = seen.busiestEvents;
        figures.append(figure.toJson(definitions[static_cast<int>(zone)].toObject()));
    }
    return figures;
}
