#include "ReportPage.h"

#include "MotionPass.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QUrl>

#include <algorithm>
#include <cmath>

// The page's files live in the tool's static library, whose resource registration a linker
// would drop as unreferenced; registering them here, outside any namespace, keeps them.
static void registerReportResources()
{
    Q_INIT_RESOURCE(report);
}

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

QByteArray resource(const QString& name)
{
    static const bool registered = (registerReportResources(), true);
    Q_UNUSED(registered);
    QFile file(QStringLiteral(":/report/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}


QString attribute(const char* name, const QString& value)
{
    return QStringLiteral(" %1=\"%2\"").arg(QLatin1String(name), ReportPage::escapeHtml(value));
}

QString figuresHtml(const ReportCard& card)
{
    QString html = QStringLiteral("<dl class=\"figures\">");
    for (const auto& [label, value] : card.figures)
        html += QStringLiteral("<dt>%1</dt><dd>%2</dd>").arg(ReportPage::escapeHtml(label), ReportPage::escapeHtml(value));
    return html + QStringLiteral("</dl>");
}

// One zone's figures in a line: its events, the share of its pixels with one, its time with
// motion, and when motion was first and last seen there.
QString zoneFiguresText(const QJsonObject& zone)
{
    QStringList parts;
    parts << tr("%1 events").arg(QString::number(zone.value(QLatin1String("events")).toDouble(), 'f', 0))
          << tr("%1 of its pixels").arg(ReportPage::percentText(zone.value(QLatin1String("pixels_with_events_share")).toDouble()));
    // Without a frame rate the pairs are all that tell the time with motion. A zone passed by
    // now and then moves for less than a second, which a clock would show as none.
    const QJsonValue motion = zone.value(QLatin1String("motion_s"));
    if (zone.value(QLatin1String("pairs_with_motion")).toDouble() == 0.0 && zone.contains(QLatin1String("pairs_with_motion")))
        parts << tr("no motion");
    else if (motion.isDouble() && motion.toDouble() < 60.0)
        parts << tr("motion for %1 s").arg(QString::number(motion.toDouble(), 'f', 1));
    else if (motion.isDouble())
        parts << tr("motion for %1").arg(ReportPage::clockText(motion.toDouble()));
    else if (zone.contains(QLatin1String("pairs_with_motion")))
        parts << tr("motion in %1 pairs").arg(zone.value(QLatin1String("pairs_with_motion")).toInt());
    const QJsonValue first = zone.value(QLatin1String("first_motion_s"));
    if (first.isDouble())
        parts << tr("seen %1 – %2").arg(ReportPage::clockText(first.toDouble()),
                                        ReportPage::clockText(zone.value(QLatin1String("last_motion_s")).toDouble()));
    const QJsonObject busiest = zone.value(QLatin1String("busiest_second")).toObject();
    if (!busiest.isEmpty())
        parts << tr("busiest at %1 (%2 events)")
                     .arg(ReportPage::clockText(busiest.value(QLatin1String("start_s")).toDouble()),
                          QString::number(busiest.value(QLatin1String("events")).toDouble(), 'f', 0));
    return parts.join(QStringLiteral(" · "));
}

QString zonesHtml(const ReportCard& card)
{
    if (card.zones.isEmpty())
        return {};
    QString html = QStringLiteral("<section class=\"zones\"><h3>%1</h3><ul class=\"zone-list\">")
                       .arg(ReportPage::escapeHtml(tr("Zones")));
    for (int i = 0; i < card.zones.size(); ++i) {
        const QJsonObject zone = card.zones[i].toObject();
        html += QStringLiteral("<li") + attribute("data-zone", QString::number(i)) + QStringLiteral("><span class=\"zone-name\">")
            + ReportPage::escapeHtml(zone.value(QLatin1String("name")).toString()) + QStringLiteral("</span> ")
            + ReportPage::escapeHtml(zoneFiguresText(zone)) + QStringLiteral("</li>");
    }
    return html + QStringLiteral("</ul></section>");
}

// The choice of the chart's series: the whole picture's, or one zone's.
QString zoneChoiceHtml(const ReportCard& card)
{
    QString html = QStringLiteral("<label class=\"chart-choice\">") + ReportPage::escapeHtml(tr("Chart of"))
        + QStringLiteral(" <select class=\"chart-zone\"><option value=\"\">")
        + ReportPage::escapeHtml(tr("the whole picture")) + QStringLiteral("</option>");
    for (int i = 0; i < card.zones.size(); ++i)
        html += QStringLiteral("<option") + attribute("value", QString::number(i)) + QStringLiteral(">")
            + ReportPage::escapeHtml(tr("zone %1").arg(card.zones[i].toObject().value(QLatin1String("name")).toString()))
            + QStringLiteral("</option>");
    return html + QStringLiteral("</select></label>");
}

// The zones with their figures as the card lists them, for the page to outline them on the
// map, and for anyone reading the page to take the exact figures the text rounds.
QString zonesJson(const ReportCard& card)
{
    return QString::fromUtf8(QJsonDocument(card.zones).toJson(QJsonDocument::Compact));
}

QString outcomeHtml(const ReportCard& card)
{
    if (card.status == QLatin1String("done"))
        return {};
    const QString text = card.status == QLatin1String("canceled") ? tr("Canceled before the end.")
                                                                   : tr("Failed: %1").arg(card.error);
    return QStringLiteral("<p class=\"outcome %1\" role=\"status\">%2</p>")
        .arg(ReportPage::escapeHtml(card.status), ReportPage::escapeHtml(text));
}

QString mapHtml(const ReportCard& card)
{
    if (card.mapFile.isEmpty())
        return QStringLiteral("<div class=\"map none\">%1</div>").arg(ReportPage::escapeHtml(tr("No map")));
    const QString alt = tr("Motion map of %1: blue where motion was seen rarely, red where often, over the scene in grey")
                            .arg(card.title);
    QString html = QStringLiteral("<figure class=\"map\"><div class=\"frame\"><img") + attribute("src", card.mapFile)
        + attribute("alt", alt) + attribute("width", QString::number(card.width))
        + attribute("height", QString::number(card.height)) + QStringLiteral(" loading=\"lazy\" decoding=\"async\"");
    if (card.hasCells)
        html += QStringLiteral(" tabindex=\"0\"")
            + attribute("aria-label", alt + tr(". Click, or move with the arrow keys and press Enter, to list when "
                                               "motion began at that point."));
    html += QStringLiteral("><div class=\"cursor\" hidden></div></div>");
    if (!card.legendFile.isEmpty())
        html += QStringLiteral("<img class=\"legend\"") + attribute("src", card.legendFile)
            + attribute("alt", tr("Legend: colours and event counts")) + QStringLiteral(" loading=\"lazy\">");
    if (card.hasCells)
        html += QStringLiteral("<figcaption>%1</figcaption>")
                    .arg(ReportPage::escapeHtml(tr("Click a point of the map: when did motion begin there?")));
    return html + QStringLiteral("</figure>");
}

// The map's time-lapse film beside it, played with the browser's own controls.
QString filmHtml(const ReportCard& card)
{
    if (card.filmFile.isEmpty())
        return {};
    return QStringLiteral("<figure class=\"film\"><video controls muted playsinline preload=\"metadata\"")
        + attribute("src", card.filmFile)
        + attribute("aria-label", tr("Time-lapse of the map of %1: where motion was seen, step by step").arg(card.title))
        + QStringLiteral("></video><figcaption>%1</figcaption></figure>")
              .arg(ReportPage::escapeHtml(tr("The map as it grew, step by step")));
}

// Names as people sort them: case aside, and numbers by value, so that cam9 comes before
// cam10.
bool naturalLess(const QString& a, const QString& b)
{
    int i = 0;
    int j = 0;
    while (i < a.size() && j < b.size()) {
        if (a[i].isDigit() && b[j].isDigit()) {
            int endA = i;
            int endB = j;
            while (endA < a.size() && a[endA].isDigit())
                ++endA;
            while (endB < b.size() && b[endB].isDigit())
                ++endB;
            const QString numberA = a.mid(i, endA - i).remove(QRegularExpression(QStringLiteral("^0+(?=.)")));
            const QString numberB = b.mid(j, endB - j).remove(QRegularExpression(QStringLiteral("^0+(?=.)")));
            if (numberA.size() != numberB.size())
                return numberA.size() < numberB.size();
            if (numberA != numberB)
                return numberA < numberB;
            i = endA;
            j = endB;
            continue;
        }
        const int order = QString::compare(a.mid(i, 1), b.mid(j, 1), Qt::CaseInsensitive);
        if (order != 0)
            return order < 0;
        ++i;
        ++j;
    }
    if (a.size() - i != b.size() - j)
        return a.size() - i < b.size() - j;
    return a < b;
}

QString partsJson(const std::vector<ReportPart>& parts)
{
    QJsonArray array;
    for (const ReportPart& part : parts)
        array.append(QJsonObject{{"key", part.key},
                                 {"offset", part.offset},
                                 {"video", part.videoHref},
                                 {"playable", part.playable},
                                 {"name", part.name}});
    return QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact));
}

QString windowAttributes(const ReportCard& card)
{
    if (card.from < 0.0)
        return {};
    return attribute("data-from", QString::number(card.from, 'f', 3)) + attribute("data-to", QString::number(card.to, 'f', 3));
}

QString cardHtml(const ReportCard& card)
{
    QString html = QStringLiteral("<article class=\"card\"") + attribute("id", QStringLiteral("card-") + card.key)
        + attribute("data-key", card.key) + attribute("data-width", QString::number(card.width))
        + attribute("data-height", QString::number(card.height))
        + attribute("data-creation", card.creationTime) + attribute("data-parts", partsJson(card.parts))
        + windowAttributes(card) + attribute("data-activity", card.hasActivity ? QStringLiteral("1") : QStringLiteral("0"))
        + attribute("data-cells", card.hasCells ? QStringLiteral("1") : QStringLiteral("0"))
        + (card.zones.isEmpty() ? QString() : attribute("data-zones", zonesJson(card)))
        + attribute("aria-labelledby", QStringLiteral("title-") + card.key) + QStringLiteral(">");
    html += QStringLiteral("<h2") + attribute("id", QStringLiteral("title-") + card.key) + QStringLiteral(">");
    if (card.videoHref.isEmpty())
        html += ReportPage::escapeHtml(card.title);
    else
        html += QStringLiteral("<a class=\"video-link\"") + attribute("href", card.videoHref) + QStringLiteral(">")
            + ReportPage::escapeHtml(card.title) + QStringLiteral("</a>");
    html += QStringLiteral("</h2>") + outcomeHtml(card);
    html += QStringLiteral("<div class=\"body\">") + mapHtml(card) + QStringLiteral("<div class=\"side\">")
        + filmHtml(card) + figuresHtml(card) + zonesHtml(card);
    if (card.hasCells)
        html += QStringLiteral("<section class=\"times\" aria-live=\"polite\"><h3>%1</h3><p class=\"hint\">%2</p>"
                               "<ol class=\"time-list\"></ol></section>")
                    .arg(ReportPage::escapeHtml(tr("When motion began here")),
                         ReportPage::escapeHtml(tr("Choose a point of the map.")));
    html += QStringLiteral("</div></div>");
    if (card.hasActivity && card.hasZoneSeries && !card.zones.isEmpty())
        html += zoneChoiceHtml(card);
    if (card.hasActivity)
        html += QStringLiteral("<div class=\"chart\"") + attribute("aria-label", tr("Activity over time of %1").arg(card.title))
            + QStringLiteral(" role=\"group\"></div>");
    return html + QStringLiteral("</article>\n");
}

} // namespace

namespace ReportPage {

QString escapeHtml(const QString& text)
{
    return text.toHtmlEscaped().replace(QLatin1Char('\''), QLatin1String("&#39;"));
}

QString relativeHref(const QString& folder, const QString& file)
{
    const QString relative = QDir(folder).relativeFilePath(file);
    return QString::fromLatin1(QUrl::toPercentEncoding(relative, "/"));
}

bool browserPlays(const QString& container, const QString& codec)
{
    static const QStringList codecs = {QStringLiteral("h264"), QStringLiteral("vp8"), QStringLiteral("vp9"),
                                       QStringLiteral("av1")};
    const bool knownContainer = container.contains(QLatin1String("mp4")) || container.contains(QLatin1String("webm"));
    return knownContainer && codecs.contains(codec);
}

QString percentText(double share)
{
    return QString::number(share * 100.0, 'f', share > 0.0 && share < 0.001 ? 3 : 1) + QLatin1Char('%');
}

QString clockText(double seconds)
{
    // A damaged file may record a length no whole number of seconds holds.
    if (!(seconds < MotionPass::kLatestTime))
        return tr("unknown");
    const long long whole = static_cast<long long>(std::floor(std::max(seconds, 0.0)));
    const long long h = whole / 3600;
    const long long m = whole / 60 % 60;
    const long long s = whole % 60;
    const QString tail = QStringLiteral("%1").arg(s, 2, 10, QLatin1Char('0'));
    if (h > 0)
        return QStringLiteral("%1:%2:%3").arg(h).arg(m, 2, 10, QLatin1Char('0')).arg(tail);
    return QStringLiteral("%1:%2").arg(m).arg(tail);
}

std::vector<std::pair<QString, QString>> countFigures(double eventsTotal, double maxEvents,
                                                      double pixelsWithEventsShare, std::int64_t sceneChanges)
{
    std::vector<std::pair<QString, QString>> figures{
        {tr("Events"), QString::number(eventsTotal, 'f', 0)},
        {tr("Most at a pixel"), QString::number(maxEvents, 'f', 0)},
        {tr("Pixels with motion"), percentText(pixelsWithEventsShare)},
    };
    if (sceneChanges >= 0)
        figures.push_back({tr("Scene changes"), QString::number(static_cast<qlonglong>(sceneChanges))});
    return figures;
}

std::pair<QString, QString> footageFigure(double seconds)
{
    return {tr("Footage"), seconds >= 0.0 ? clockText(seconds) : tr("unknown")};
}

ReportCard inputCard(const QString& key, const QString& video, const QJsonObject& manifest, const QString& planError,
                     const QString& mapFile, const QString& reportFolder)
{
    ReportCard card;
    card.key = key;
    card.title = QFileInfo(video).fileName();
    card.sortName = card.title;
    card.mapFile = mapFile;
    card.videoHref = relativeHref(reportFolder, QFileInfo(video).absoluteFilePath());
    card.parts = {{key, 0.0, card.videoHref, false, card.title}};
    if (manifest.isEmpty()) {
        card.status = QStringLiteral("failed");
        card.error = planError;
        return card;
    }
    const QJsonObject info = manifest.value(QLatin1String("video")).toObject();
    const QJsonObject outcome = manifest.value(QLatin1String("outcome")).toObject();
    const QJsonObject summary = manifest.value(QLatin1String("summary")).toObject();
    card.playable = browserPlays(info.value(QLatin1String("container")).toString(),
                                 info.value(QLatin1String("codec")).toString());
    card.parts.front().playable = card.playable;
    card.width = info.value(QLatin1String("width")).toInt();
    card.height = info.value(QLatin1String("height")).toInt();
    card.status = outcome.value(QLatin1String("status")).toString();
    card.error = outcome.value(QLatin1String("error")).toString();
    card.creationTime = info.value(QLatin1String("creation_time")).toString();
    const QJsonValue duration = info.value(QLatin1String("duration_s"));
    card.figures = {
        {tr("Duration"), duration.isDouble() ? clockText(duration.toDouble()) : tr("unknown")},
        {tr("Frames"), QString::number(manifest.value(QLatin1String("frames_decoded")).toDouble(), 'f', 0)},
        {tr("Size"), QStringLiteral("%1 × %2").arg(card.width).arg(card.height)},
        {tr("Recorded"), card.creationTime.isEmpty() ? tr("unknown") : card.creationTime},
    };
    // A manifest records its scene changes only when its run counted in steady light.
    const QJsonValue sceneChanges = manifest.value(QLatin1String("scene_changes"));
    const auto counts = countFigures(summary.value(QLatin1String("events_total")).toDouble(),
                                     summary.value(QLatin1String("max_events")).toDouble(),
                                     summary.value(QLatin1String("pixels_with_events_share")).toDouble(),
                                     sceneChanges.isObject()
                                         ? sceneChanges.toObject().value(QLatin1String("count")).toVariant().toLongLong()
                                         : -1);
    card.figures.insert(card.figures.end(), counts.begin(), counts.end());
    card.figures.push_back(
        {tr("Pairs with motion"), percentText(summary.value(QLatin1String("pairs_with_motion_share")).toDouble())});
    card.zones = manifest.value(QLatin1String("zones")).toArray();
    return card;
}

QByteArray render(const QString& title, std::vector<ReportCard> cards)
{
    QString page = QString::fromUtf8(resource(QStringLiteral("index.html")));
    if (page.isEmpty())
        return {};
    std::stable_sort(cards.begin(), cards.end(), [](const ReportCard& a, const ReportCard& b) {
        return naturalLess(a.sortName, b.sortName);
    });
    QString html;
    for (const ReportCard& card : cards)
        html += cardHtml(card);
    const auto inputs = std::count_if(cards.begin(), cards.end(), [](const ReportCard& card) { return card.ofAnInput; });
    QString videos = inputs == 1 ? tr("1 video") : tr("%1 videos").arg(inputs);
    const auto others = static_cast<std::ptrdiff_t>(cards.size()) - inputs;
    if (others > 0)
        videos += others == 1 ? tr(" and 1 more map") : tr(" and %1 more maps").arg(others);
    const QString subtitle = tr("%1. On each map, blue where motion was seen rarely, red where often.").arg(videos);
    page.replace(QLatin1String("{{TITLE}}"), escapeHtml(title));
    page.replace(QLatin1String("{{SUBTITLE}}"), escapeHtml(subtitle));
    page.replace(QLatin1String("{{CARDS}}"), html);
    return page.toUtf8();
}

std::vector<std::pair<QString, QByteArray>> assets()
{
    return {{QStringLiteral("report.css"), resource(QStringLiteral("report.css"))},
            {QStringLiteral("report.js"), resource(QStringLiteral("report.js"))}};
}

} // namespace ReportPage
