#include "Legend.h"

#include "CombinedActivity.h"
#include "MotionMap.h"
#include "MotionPass.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QFont>
#include <QFontMetrics>
#include <QPainter>
#include <QPainterPath>
#include <QPolygonF>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// Pixels, the narrowest strip whose text stays legible.
constexpr int kMinimumWidth = 320;

const QColor kPaper(250, 250, 250);
const QColor kInk(20, 20, 20);
const QColor kQuietInk(80, 80, 80);

// Short enough to sit under a tick of a bar 300 pixels wide: "0.35", "12", "9.2k", "37k".
QString number(double value)
{
    if (value >= 1e6)
        return QString::number(value / 1e6, 'f', 1) + QLatin1Char('M');
    if (value >= 1e4)
        return QString::number(std::round(value / 1e3)) + QLatin1Char('k');
    if (value >= 1e3)
        return QString::number(value / 1e3, 'f', 1) + QLatin1Char('k');
    if (value >= 10.0)
        return QString::number(std::round(value));
    return QString::number(value, 'g', 2);
}

QFont fontOf(int pixels, bool bold = false)
{
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setStyleHint(QFont::SansSerif);
    font.setPixelSize(pixels);
    font.setBold(bold);
    return font;
}

// The scale's colours from intensity 0 at the left to 255 at the right.
void drawBar(QPainter& painter, const QRect& bar)
{
    for (int x = 0; x < bar.width(); ++x) {
        const auto i = static_cast<std::size_t>(bar.width() > 1 ? x * 255 / (bar.width() - 1) : 255);
        painter.setPen(QColor(ColorMap_R[i], ColorMap_G[i], ColorMap_B[i]));
        painter.drawLine(bar.left() + x, bar.top(), bar.left() + x, bar.bottom());
    }
    // The frame goes around the bar, so that both ends keep their colours.
    painter.setPen(kQuietInk);
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(bar.adjusted(-1, -1, 0, 0));
}

// A label centred under `x`, kept inside [left, right], drawn only when it ends clear of
// the label to its right, which starts at `before`. Returns where the next label to the left
// must end: this one's start, or `before` when it was left out.
int drawLabelLeftOf(QPainter& painter, int x, int top, int left, int right, const QString& text, int before)
{
    const QFontMetrics metrics = painter.fontMetrics();
    const int width = metrics.horizontalAdvance(text);
    const int start = std::clamp(x - width / 2, left, std::max(left, right - width));
    if (start + width + metrics.horizontalAdvance(QLatin1Char(' ')) > before)
        return before;
    painter.drawText(QPoint(start, top + metrics.ascent()), text);
    return start;
}

const QLatin1String kDateAndTime("yyyy-MM-dd HH:mm:ss");

// The clock time `seconds` after `creationTime` (as containers record it), in UTC; invalid
// when it does not read.
QDateTime clockTimeAt(const QString& creationTime, double seconds)
{
    const QDateTime clock = CombinedActivity::readCreationTime(creationTime);
    return clock.isValid() ? clock.toUTC().addMSecs(std::llround(seconds * 1000.0)) : QDateTime();
}

// A time in a video, in whole seconds: "1:05:09".
QString videoTimeText(double seconds)
{
    const auto total = static_cast<long long>(std::floor(seconds));
    return QStringLiteral("%1:%2:%3")
        .arg(total / 3600)
        .arg(total / 60 % 60, 2, 10, QLatin1Char('0'))
        .arg(total % 60, 2, 10, QLatin1Char('0'));
}

struct Layout {
    int text = 0;     // pixels of the body text
    int margin = 0;
    int line = 0;     // height of one line of body text
    int barHeight = 0;
    int height = 0;   // of the whole strip
};

// `lightLine`: a line of its own says that changes of light were ignored, rather than
// sharing the facts' line, where a long time span would elide it on a narrow map.
Layout layoutFor(int width, bool perHour, bool lightLine)
{
    Layout layout;
    layout.text = Legend::textPixels(width);
    layout.margin = layout.text;
    layout.line = QFontMetrics(fontOf(layout.text)).height();
    layout.barHeight = layout.line;
    const int titleLine = QFontMetrics(fontOf(layout.text + layout.text / 4, true)).height();
    const int tickLines = perHour ? 2 : 1;
    layout.height = layout.margin + titleLine + layout.line + layout.margin / 2 + layout.barHeight
        + layout.text / 3 + tickLines * layout.line + layout.margin / 2 + layout.line + layout.margin
        + (lightLine ? layout.line : 0);
    return layout;
}

// Each zone's outline through its corner pixels' centres, a light line on a dark one so that
// it shows on any colour of the map, and its name on a dark label at its first corner, kept
// inside the map.
void drawZones(QPainter& painter, const std::vector<Zone>& zones, const QRect& map, int textPixels)
{
    if (zones.empty())
        return;
    painter.save();
    painter.setClipRect(map);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(map.topLeft());
    const qreal line = std::max(1.0, textPixels / 8.0);
    for (const Zone& zone : zones) {
        QPolygonF outline;
        for (const cv::Point& point : zone.polygon)
            outline << QPointF(point.x + 0.5, point.y + 0.5);
        painter.setBrush(Qt::NoBrush);
        painter.setPen(QPen(QColor(0, 0, 0, 200), line * 3, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.drawPolygon(outline);
        painter.setPen(QPen(QColor(255, 255, 255), line, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.drawPolygon(outline);
    }
    painter.setFont(fontOf(textPixels, true));
    const QFontMetrics metrics = painter.fontMetrics();
    for (const Zone& zone : zones) {
        const QString name = metrics.elidedText(zone.name, Qt::ElideRight, std::max(1, map.width() - 4));
        QRect label(0, 0, metrics.horizontalAdvance(name) + 4, metrics.height());
        const cv::Point& corner = zone.polygon.front();
        label.moveTo(std::clamp(corner.x, 0, std::max(0, map.width() - label.width())),
                     std::clamp(corner.y, 0, std::max(0, map.height() - label.height())));
        painter.fillRect(label, QColor(0, 0, 0, 170));
        painter.setPen(QColor(255, 255, 255));
        painter.drawText(label, Qt::AlignCenter, name);
    }
    painter.restore();
}

} // namespace

namespace Legend {

Content contentOf(const QString& name, const QString& timeSpan, double scale, double footageSeconds,
                  const QStringList& maskPaths, bool steadyLight)
{
    QStringList masks;
    for (const QString& path : maskPaths) {
        const QString mask = QFileInfo(path).fileName();
        if (!mask.isEmpty() && !masks.contains(mask))
            masks << mask;
    }
    Content content;
    content.name = name;
    content.timeSpan = timeSpan;
    content.scale = scale;
    content.footageHours = footageSeconds > 0.0 ? footageSeconds / 3600.0 : 0.0;
    content.mask = masks.join(QStringLiteral(", "));
    content.steadyLight = steadyLight;
    return content;
}

QString timeSpan(const QString& creationTime, double fromSeconds, double seconds)
{
    // Beyond any recording the times would not convert to whole milliseconds or seconds.
    if (!(seconds >= 0.0) || !(seconds < MotionPass::kLatestTime) || !(std::abs(fromSeconds) < MotionPass::kLatestTime))
        return {};
    const QDateTime start = clockTimeAt(creationTime, fromSeconds);
    if (start.isValid()) {
        const QDateTime end = start.addMSecs(std::llround(seconds * 1000.0));
        const QString endFormat = end.date() == start.date() ? QStringLiteral("HH:mm:ss") : QString(kDateAndTime);
        return QStringLiteral("%1 – %2 UTC").arg(start.toString(kDateAndTime), end.toString(endFormat));
    }
    return tr("%1 – %2 of the video").arg(videoTimeText(fromSeconds), videoTimeText(fromSeconds + seconds));
}

QString timePoint(const QString& creationTime, double seconds)
{
    if (!(std::abs(seconds) < MotionPass::kLatestTime))
        return {};
    const QDateTime clock = clockTimeAt(creationTime, seconds);
    if (clock.isValid())
        return QStringLiteral("%1 UTC").arg(clock.toString(kDateAndTime));
    return videoTimeText(seconds);
}

QString combinedTimeSpan(const QStringList& creationTimes, const QList<double>& seconds)
{
    QDateTime earliest;
    QDateTime latest;
    double footage = 0.0;
    bool clock = creationTimes.size() == seconds.size() && !seconds.isEmpty();
    for (int i = 0; i < seconds.size(); ++i) {
        if (!(seconds[i] < MotionPass::kLatestTime))
            return {};
        footage += std::max(seconds[i], 0.0);
        const QDateTime start = i < creationTimes.size() ? CombinedActivity::readCreationTime(creationTimes[i])
                                                         : QDateTime();
        if (!start.isValid() || seconds[i] < 0.0) {
            clock = false;
            continue;
        }
        const QDateTime end = start.addMSecs(std::llround(seconds[i] * 1000.0));
        if (!earliest.isValid() || start < earliest)
            earliest = start;
        if (!latest.isValid() || end > latest)
            latest = end;
    }
    if (clock)
        return timeSpan(earliest.toUTC().toString(Qt::ISODateWithMs), 0.0, earliest.msecsTo(latest) / 1000.0);
    if (!(footage < MotionPass::kLatestTime))
        return {};
    const auto total = static_cast<long long>(footage);
    return tr("%1 files, %2:%3:%4 of footage")
        .arg(seconds.size())
        .arg(total / 3600)
        .arg(total / 60 % 60, 2, 10, QLatin1Char('0'))
        .arg(total % 60, 2, 10, QLatin1Char('0'));
}

int textPixels(int mapWidth)
{
    return std::clamp(mapWidth / 60, 11, 64);
}

QList<double> ticks(double scale)
{
    // A round step that puts at most four ticks below the top.
    const double raw = scale / 5.0;
    const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
    double step = magnitude;
    for (const double factor : {1.0, 2.0, 5.0, 10.0}) {
        step = factor * magnitude;
        if (step >= raw)
            break;
    }
    QList<double> values;
    for (double value = step; value < scale * 0.85; value += step)
        values << value;
    values << scale;
    return values;
}

QImage render(const QImage& map, const Content& content)
{
    // A smaller map sits centred above a strip of the narrowest width its text fits in.
    const int width = std::max(map.width(), kMinimumWidth);
    const bool perHour = content.footageHours > 0.0;
    const Layout layout = layoutFor(width, perHour, content.steadyLight);
    QImage legend(width, map.height() + layout.height, QImage::Format_RGB888);
    legend.setDotsPerMeterX(map.dotsPerMeterX());
    legend.setDotsPerMeterY(map.dotsPerMeterY());
    legend.fill(kPaper);
    QPainter painter(&legend);
    painter.setRenderHint(QPainter::TextAntialiasing);
    painter.drawImage((width - map.width()) / 2, 0, map);
    drawZones(painter, content.zones, QRect((width - map.width()) / 2, 0, map.width(), map.height()), layout.text);

    const int left = layout.margin;
    const int right = width - layout.margin;
    const int textWidth = std::max(1, right - left);
    int y = map.height() + layout.margin;

    painter.setPen(kInk);
    painter.setFont(fontOf(layout.text + layout.text / 4, true));
    painter.drawText(QPoint(left, y + painter.fontMetrics().ascent()),
                     painter.fontMetrics().elidedText(content.name, Qt::ElideMiddle, textWidth));
    y += painter.fontMetrics().height();

    painter.setFont(fontOf(layout.text));
    painter.setPen(kQuietInk);
    QStringList facts;
    if (!content.timeSpan.isEmpty())
        facts << content.timeSpan;
    facts << (content.mask.isEmpty() ? tr("no mask") : tr("mask: %1").arg(content.mask));
    painter.drawText(QPoint(left, y + painter.fontMetrics().ascent()),
                     painter.fontMetrics().elidedText(facts.join(QStringLiteral("  ·  ")), Qt::ElideRight, textWidth));
    y += layout.line;
    if (content.steadyLight) {
        painter.drawText(QPoint(left, y + painter.fontMetrics().ascent()),
                         painter.fontMetrics().elidedText(tr("light changes ignored"), Qt::ElideRight, textWidth));
        y += layout.line;
    }
    y += layout.margin / 2;

    // The unit labels take the right end of the bar's rows.
    const QString eventsUnit = tr("events");
    const QString hourUnit = tr("per hour");
    const int unitWidth = std::max(painter.fontMetrics().horizontalAdvance(eventsUnit),
                                   painter.fontMetrics().horizontalAdvance(hourUnit))
        + layout.text;
    const QRect bar(left, y, std::max(2, textWidth - unitWidth), layout.barHeight);
    drawBar(painter, bar);
    y += layout.barHeight + layout.text / 3;

    painter.setPen(kInk);
    const QList<double> values = ticks(content.scale);
    for (int row = 0; row < (perHour ? 2 : 1); ++row) {
        // Right to left, so that the top of the scale always keeps its label.
        int before = std::numeric_limits<int>::max();
        for (auto it = values.rbegin(); it != values.rend(); ++it) {
            const double value = *it;
            const int x = bar.left() + static_cast<int>(std::lround(std::min(value / content.scale, 1.0) * (bar.width() - 1)));
            const double shown = row == 0 ? value : value / content.footageHours;
            QString label = number(shown);
            if (value == values.back())
                label = QStringLiteral("≥ ") + label;
            if (row == 0)
                painter.drawLine(x, bar.bottom() - layout.barHeight / 4, x, bar.bottom());
            before = drawLabelLeftOf(painter, x, y, left, bar.right(), label, before);
        }
        painter.setPen(row == 0 ? kInk : kQuietInk);
        painter.drawText(QPoint(bar.right() + layout.text, y + painter.fontMetrics().ascent()),
                         row == 0 ? eventsUnit : hourUnit);
        painter.setPen(kQuietInk);
        y += layout.line;
    }
    y += layout.margin / 2;

    // What the grey means, beside a swatch of it.
    const QRect swatch(left, y + layout.line / 6, layout.line * 2, layout.line * 2 / 3);
    painter.fillRect(swatch, QColor(64, 64, 64));
    painter.setPen(kQuietInk);
    painter.drawRect(swatch.adjusted(0, 0, -1, -1));
    painter.setPen(kInk);
    painter.drawText(QPoint(swatch.right() + layout.text / 2, y + painter.fontMetrics().ascent()),
                     painter.fontMetrics().elidedText(tr("grey: no motion seen (the scene, darkened)"), Qt::ElideRight,
                                                      std::max(1, right - swatch.right() - layout.text / 2)));
    painter.end();
    return legend;
}

QImage renderCaption(const QImage& map, const QString& name, const QString& time)
{
    CaptionedPictures pictures(map.size());
    QImage& picture = pictures.picture();
    if (picture.isNull())
        return {};
    const QImage rows = map.convertToFormat(QImage::Format_RGB888);
    const auto mapBytes = static_cast<size_t>(rows.width()) * 3;
    for (int row = 0; row < rows.height(); ++row)
        std::memcpy(picture.scanLine(row), rows.constScanLine(row), mapBytes);
    pictures.caption(name, time);
    return picture;
}

CaptionedPictures::CaptionedPictures(QSize mapSize)
    : m_mapHeight(mapSize.height())
    , m_text(textPixels(mapSize.width()))
    , m_titleLine(QFontMetrics(fontOf(m_text + m_text / 4, true)).height())
{
    const int line = QFontMetrics(fontOf(m_text)).height();
    // 4:2:0 video halves both sides for its colour.
    const int width = mapSize.width() + mapSize.width() % 2;
    const int strip = m_text / 2 + m_titleLine + line + m_text / 2;
    const int height = m_mapHeight + strip + (m_mapHeight + strip) % 2;
    m_picture = QImage(width, height, QImage::Format_RGB888);
    m_strip = QImage(width, height - m_mapHeight, QImage::Format_RGB32);
    if (m_strip.isNull())
        m_picture = QImage();
    // The paper's colour also beside a map of odd width, which no map covers.
    m_picture.fill(kPaper);
}

void CaptionedPictures::caption(const QString& name, const QString& time)
{
    if (m_picture.isNull())
        return;
    m_strip.fill(kPaper);
    QPainter painter(&m_strip);
    painter.setRenderHint(QPainter::TextAntialiasing);
    const int width = m_strip.width();
    const int left = std::min(m_text, width / 8);
    const int textWidth = std::max(1, width - 2 * left);
    int y = m_text / 2;
    painter.setPen(kInk);
    painter.setFont(fontOf(m_text + m_text / 4, true));
    painter.drawText(QPoint(left, y + painter.fontMetrics().ascent()),
                     painter.fontMetrics().elidedText(time, Qt::ElideRight, textWidth));
    y += m_titleLine;
    painter.setPen(kQuietInk);
    painter.setFont(fontOf(m_text));
    painter.drawText(QPoint(left, y + painter.fontMetrics().ascent()),
                     painter.fontMetrics().elidedText(name, Qt::ElideMiddle, textWidth));
    painter.end();

    const QImage strip888 = m_strip.convertToFormat(QImage::Format_RGB888);
    const auto rowBytes = static_cast<size_t>(width) * 3;
    for (int row = 0; row < strip888.height(); ++row)
        std::memcpy(m_picture.scanLine(m_mapHeight + row), strip888.constScanLine(row), rowBytes);
}

} // namespace Legend
