#include "ReportData.h"

#include <QStringList>

#include <algorithm>

namespace ReportData {

namespace {

void addTo(std::vector<ReportData::Second>& seconds, std::int64_t second, std::int64_t movingPixels,
           std::int64_t newEvents, bool sceneChange)
{
    if (seconds.empty() || seconds.back().second != second)
        seconds.push_back({second, 0, 0, 0});
    ReportData::Second& last = seconds.back();
    last.movingPixels = std::max(last.movingPixels, movingPixels);
    last.newEvents += newEvents;
    last.sceneChanges += sceneChange ? 1 : 0;
}

std::int64_t secondOf(double time)
{
    return static_cast<std::int64_t>(time < 0.0 ? 0.0 : time);
}

} // namespace

void ActivityBySecond::add(const MotionPassHooks::PairRecord& record)
{
    addTo(m_seconds, secondOf(record.time), record.movingPixels, record.newEvents, record.sceneChange);
    m_sceneChanges += record.sceneChange ? 1 : 0;
    if (!record.zones)
        return;
    for (size_t zone = 0; zone < record.zones->size(); ++zone) {
        const ZoneSpans::Tally& tally = (*record.zones)[zone];
        addZone(zone, record.zones->size(), record.time, tally.movingPixels, tally.newEvents);
    }
}

void ActivityBySecond::addZone(size_t zone, size_t zones, double time, std::int64_t movingPixels,
                               std::int64_t newEvents)
{
    m_zones.resize(std::max(m_zones.size(), zones));
    if (zone < m_zones.size() && (movingPixels != 0 || newEvents != 0))
        addTo(m_zones[zone], secondOf(time), movingPixels, newEvents, false);
}

namespace {

const char kBitDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

QString runsOf(const std::vector<std::int64_t>& seconds)
{
    QString text;
    std::int64_t runEnd = 0;
    for (size_t i = 0; i < seconds.size();) {
        size_t last = i;
        while (last + 1 < seconds.size() && seconds[last + 1] == seconds[last] + 1)
            ++last;
        if (!text.isEmpty())
            text += QLatin1Char(',');
        text += QString::number(seconds[i] - runEnd);
        if (last > i)
            text += QLatin1Char('+') + QString::number(last - i);
        runEnd = seconds[last];
        i = last + 1;
    }
    return text;
}

// "~" and six seconds a character, from second 0 to the last; empty when longer than `limit`.
QString bitsOf(const std::vector<std::int64_t>& seconds, int limit)
{
    const std::int64_t characters = seconds.back() / 6 + 1;
    if (characters + 1 > limit)
        return {};
    std::vector<int> digits(static_cast<size_t>(characters), 0);
    for (const std::int64_t second : seconds)
        digits[static_cast<size_t>(second / 6)] |= 1 << (second % 6);
    QString text(QLatin1Char('~'));
    for (const int digit : digits)
        text += QLatin1Char(kBitDigits[digit]);
    return text;
}

bool decodeRuns(const QString& text, std::vector<std::int64_t>* seconds)
{
    std::int64_t runEnd = 0;
    for (const QString& run : text.split(QLatin1Char(','))) {
        const QStringList parts = run.split(QLatin1Char('+'));
        bool ok = parts.size() <= 2;
        const std::int64_t start = runEnd + (ok ? parts[0].toLongLong(&ok) : 0);
        bool lengthOk = true;
        const std::int64_t more = parts.size() == 2 ? parts[1].toLongLong(&lengthOk) : 0;
        if (!ok || !lengthOk || more < 0 || (!seconds->empty() && start <= runEnd))
            return false;
        for (std::int64_t s = start; s <= start + more; ++s)
            seconds->push_back(s);
        runEnd = start + more;
    }
    return true;
}

bool decodeBits(const QString& text, std::vector<std::int64_t>* seconds)
{
    const QByteArray digits(kBitDigits);
    for (int i = 1; i < text.size(); ++i) {
        const int digit = digits.indexOf(text[i].toLatin1());
        if (text[i].unicode() > 127 || digit < 0)
            return false;
        for (int bit = 0; bit < 6; ++bit) {
            if (digit & (1 << bit))
                seconds->push_back(static_cast<std::int64_t>(i - 1) * 6 + bit);
        }
    }
    return true;
}

} // namespace

QString encodeSeconds(const std::vector<std::int64_t>& seconds)
{
    if (seconds.empty())
        return {};
    const QString runs = runsOf(seconds);
    const QString bits = bitsOf(seconds, static_cast<int>(runs.size()) - 1);
    return bits.isEmpty() ? runs : bits;
}

bool decodeSeconds(const QString& text, std::vector<std::int64_t>* seconds)
{
    seconds->clear();
    if (text.isEmpty())
        return true;
    return text.startsWith(QLatin1Char('~')) ? decodeBits(text, seconds) : decodeRuns(text, seconds);
}

QByteArray script(const QString& name, const QByteArray& objectJson)
{
    // The name is ours ("3.cells"); JSON is valid script as it stands.
    return "Tremora.data(\"" + name.toUtf8() + "\", " + objectJson + ");\n";
}

QByteArray cellsJson(const CellEventTimes& times, int width, int height)
{
    QByteArray json = "{\"cell\":" + QByteArray::number(times.cellSize()) + ",\"columns\":"
        + QByteArray::number(times.columns()) + ",\"rows\":" + QByteArray::number(times.rows()) + ",\"width\":"
        + QByteArray::number(width) + ",\"height\":" + QByteArray::number(height) + ",\"times\":{";
    const std::vector<std::vector<std::int64_t>> all = times.allSeconds();
    bool first = true;
    for (size_t cell = 0; cell < all.size(); ++cell) {
        if (all[cell].empty())
            continue;
        json += (first ? "\"" : ",\"") + QByteArray::number(static_cast<qulonglong>(cell)) + "\":\""
            + encodeSeconds(all[cell]).toLatin1() + '"';
        first = false;
    }
    return json + "}}";
}

QByteArray activityJson(const std::vector<Second>& seconds, bool sceneChanges)
{
    QByteArray json = "{\"seconds\":[";
    for (size_t i = 0; i < seconds.size(); ++i) {
        if (i > 0)
            json += ',';
        json += '[' + QByteArray::number(static_cast<qlonglong>(seconds[i].second)) + ','
            + QByteArray::number(static_cast<qlonglong>(seconds[i].movingPixels)) + ','
            + QByteArray::number(static_cast<qlonglong>(seconds[i].newEvents));
        if (sceneChanges)
            json += ',' + QByteArray::number(static_cast<qlonglong>(seconds[i].sceneChanges));
        json += ']';
    }
    return json + "]}";
}

QByteArray zonesJson(const std::vector<std::vector<Second>>& zones)
{
    QByteArray json = "{\"zones\":[";
    for (size_t zone = 0; zone < zones.size(); ++zone)
        json += (zone > 0 ? "," : "") + activityJson(zones[zone], false);
    return json + "]}";
}

} // namespace ReportData
