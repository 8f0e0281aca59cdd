#include "ClipMaking.h"
#include "ReferenceMotion.h"
#include "ToolRunning.h"

#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstring>
#include <map>

// The executable's zones (--zones): every zone's rows of NAME.zones.csv against the plain
// reference rule counted over that zone's pixels alone, their sums against the events
// picture, the manifest's figures, and the zone files and videos it refuses.
namespace {

using ToolRunning::readAll;
using ToolRunning::readJson;
using ToolRunning::readEvents;

const cv::Size kSize(48, 32);
constexpr int kFrames = 160;
constexpr double kFps = 25.0;

struct ZoneDefinition {
    QString name;
    std::vector<cv::Point> polygon;
};

// Overlapping zones, one partly outside the picture, one where nothing moves, one half under
// the mask of maskedOnTheLeft, and a name a CSV field and a JSON string must escape.
const std::vector<ZoneDefinition> kZones{
    {QString::fromUtf8("door \"<&>\", \xd0\xb4\xd0\xb2\xd0\xb5\xd1\x80\xd1\x8c"), {{0, 0}, {20, 0}, {20, 31}, {0, 31}}},
    {QStringLiteral("over"), {{10, 5}, {30, 5}, {30, 25}, {10, 25}}},
    {QStringLiteral("edge"), {{-6, -6}, {8, -6}, {8, 9}, {-6, 9}}},
    {QStringLiteral("quiet"), {{40, 2}, {46, 2}, {46, 29}, {40, 29}}},
    {QStringLiteral("tilted"), {{5, 12}, {33, 18}, {12, 28}}},
};

struct ZoneRow {
    QString zone;
    int pair = 0;
    double time = 0.0;
    long long moving = 0;
    long long newEvents = 0;
};

// One CSV field from `line` at `at`, quoted or not; `at` moves past it and its comma.
QString fieldAt(const QString& line, int& at)
{
    QString field;
    if (at < line.size() && line[at] == QLatin1Char('"')) {
        for (++at; at < line.size(); ++at) {
            if (line[at] == QLatin1Char('"') && at + 1 < line.size() && line[at + 1] == QLatin1Char('"')) {
                field += QLatin1Char('"');
                ++at;
            } else if (line[at] == QLatin1Char('"')) {
                ++at;
                break;
            } else {
                field += line[at];
            }
        }
    } else {
        while (at < line.size() && line[at] != QLatin1Char(','))
            field += line[at++];
    }
    ++at;
    return field;
}

// The rows of a zones table, or of a combined one (led by the file) when `combined`; none
// when its header is not the documented one.
std::vector<ZoneRow> readZoneRows(const QString& path, bool combined = false)
{
    const QStringList lines = QString::fromUtf8(readAll(path)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    const QString header = QLatin1String(combined ? "file," : "") + QLatin1String("zone,pair,time_s,moving_pixels,new_events");
    if (lines.isEmpty() || lines.front() != header)
        return {};
    std::vector<ZoneRow> rows;
    for (int i = 1; i < lines.size(); ++i) {
        int at = 0;
        ZoneRow row;
        if (combined)
            fieldAt(lines[i], at);
        row.zone = fieldAt(lines[i], at);
        row.pair = fieldAt(lines[i], at).toInt();
        row.time = fieldAt(lines[i], at).toDouble();
        row.moving = fieldAt(lines[i], at).toLongLong();
        row.newEvents = fieldAt(lines[i], at).toLongLong();
        rows.push_back(row);
    }
    return rows;
}

QByteArray zoneFileOf(const std::vector<ZoneDefinition>& zones)
{
    QJsonArray list;
    for (const ZoneDefinition& zone : zones) {
        QJsonArray polygon;
        for (const cv::Point& point : zone.polygon)
            polygon.append(QJsonArray{point.x, point.y});
        list.append(QJsonObject{{"name", zone.name}, {"polygon", polygon}});
    }
    return QJsonDocument(QJsonObject{{"zones", list}}).toJson();
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// The zone's pixels by the plain rule: what cv::fillPoly fills, where `analysed` is not 0.
cv::Mat zonePlane(const std::vector<cv::Point>& polygon, const cv::Mat& analysed)
{
    cv::Mat plane(kSize, CV_8UC1, cv::Scalar(0));
    cv::fillPoly(plane, std::vector<std::vector<cv::Point>>{polygon}, cv::Scalar(255), cv::LINE_8, 0);
    if (!analysed.empty())
        plane.setTo(cv::Scalar(0), analysed == 0);
    return plane;
}

// The rows the zones table should hold: each zone counted by the reference over its
// pixels alone, pairs in order and within a pair the zones in order, rows of nothing left out.
std::vector<ZoneRow> referenceRows(const std::vector<cv::Mat>& frames, const std::vector<ZoneDefinition>& zones,
                                   const cv::Mat& analysed, bool blur = false)
{
    std::vector<std::vector<Reference::Analysis::Pair>> perZone;
    for (const ZoneDefinition& zone : zones) {
        Reference::Analysis reference(kSize.width, kSize.height, blur, zonePlane(zone.polygon, analysed));
        for (const cv::Mat& frame : frames)
            reference.addFrame(frame);
        perZone.push_back(reference.activity());
    }
    std::vector<ZoneRow> rows;
    for (size_t pair = 0; pair + 1 < frames.size(); ++pair) {
        for (size_t zone = 0; zone < zones.size(); ++zone) {
            const Reference::Analysis::Pair& seen = perZone[zone][pair];
            if (seen.moving != 0 || seen.newEvents != 0)
                rows.push_back({zones[zone].name, static_cast<int>(pair), (static_cast<double>(pair) + 1.0) / kFps,
                                seen.moving, seen.newEvents});
        }
    }
    return rows;
}

bool sameRows(const std::vector<ZoneRow>& rows, const std::vector<ZoneRow>& expected)
{
    if (rows.size() != expected.size()) {
        qWarning("%zu rows, expected %zu", rows.size(), expected.size());
        return false;
    }
    for (size_t i = 0; i < rows.size(); ++i) {
        const ZoneRow& a = rows[i];
        const ZoneRow& b = expected[i];
        if (a.zone != b.zone || a.pair != b.pair || std::abs(a.time - b.time) > 1e-6 || a.moving != b.moving
            || a.newEvents != b.newEvents) {
            qWarning("row %zu: %s %d %lld %lld; expected %s %d %lld %lld", i, qPrintable(a.zone), a.pair, a.moving,
                     a.newEvents, qPrintable(b.zone), b.pair, b.moving, b.newEvents);
            return false;
        }
    }
    return true;
}

// Speckled noise everywhere but in the columns from 36 on, which stay still. Compared
// unsmoothed (--no-blur), its speckles move single pixels, so every zone sees many pairs.
std::vector<cv::Mat> stillOnTheRight()
{
    std::vector<cv::Mat> frames = ClipMaking::speckledNoise(kSize, kFrames, 41);
    for (cv::Mat& frame : frames)
        frame(cv::Rect(36, 0, kSize.width - 36, kSize.height)).setTo(cv::Scalar(ClipMaking::kBackground));
    return frames;
}

cv::Mat maskedOnTheLeft()
{
    cv::Mat mask(kSize, CV_8UC1, cv::Scalar(255));
    mask(cv::Rect(0, 0, 6, kSize.height)).setTo(cv::Scalar(0));
    return mask;
}

// The text of an HTML attribute's value as the page escapes it.
QString unescapeHtml(QString text)
{
    text.replace(QLatin1String("&quot;"), QLatin1String("\""))
        .replace(QLatin1String("&#39;"), QLatin1String("'"))
        .replace(QLatin1String("&lt;"), QLatin1String("<"))
        .replace(QLatin1String("&gt;"), QLatin1String(">"));
    return text.replace(QLatin1String("&amp;"), QLatin1String("&"));
}

// The value of `name` in the opening tag of the card keyed `key` on `page`; empty when absent.
QString cardAttribute(const QString& page, const QString& key, const QString& name)
{
    const int card = page.indexOf(QStringLiteral("<article class=\"card\" id=\"card-%1\"").arg(key));
    if (card < 0)
        return {};
    const QString tag = page.mid(card, page.indexOf(QLatin1Char('>'), card) - card);
    const QString opening = QLatin1Char(' ') + name + QStringLiteral("=\"");
    const int from = tag.indexOf(opening);
    if (from < 0)
        return {};
    const int start = from + opening.size();
    return unescapeHtml(tag.mid(start, tag.indexOf(QLatin1Char('"'), start) - start));
}

// The whole card keyed `key` on `page`, from its opening tag to its end.
QString cardHtml(const QString& page, const QString& key)
{
    const int card = page.indexOf(QStringLiteral("<article class=\"card\" id=\"card-%1\"").arg(key));
    return card < 0 ? QString() : page.mid(card, page.indexOf(QStringLiteral("</article>"), card) - card);
}

// One zone's figures over the rows of a time span by the plain rule: pairs with motion and
// their seconds at kFps, the first and last of them, the events, and the second with the
// most new events (the earliest of equals), null where there is nothing to tell.
QJsonObject referenceFigures(const std::vector<ZoneRow>& rows, const QString& zone, double from, double to)
{
    long long pairs = 0;
    long long events = 0;
    QJsonValue first;
    QJsonValue last;
    std::map<long long, long long> bySecond;
    for (const ZoneRow& row : rows) {
        if (row.zone != zone || row.time < from || row.time >= to)
            continue;
        events += row.newEvents;
        if (row.newEvents > 0)
            bySecond[static_cast<long long>(std::floor(row.time))] += row.newEvents;
        if (row.moving == 0)
            continue;
        ++pairs;
        first = first.isNull() ? QJsonValue(row.time) : first;
        last = row.time;
    }
    QJsonValue busiest;
    long long most = 0;
    for (const auto& [second, count] : bySecond) {
        if (count > most) {
            most = count;
            busiest = QJsonObject{{"start_s", static_cast<double>(second)}, {"events", static_cast<double>(count)}};
        }
    }
    return {{"pairs_with_motion", static_cast<double>(pairs)}, {"motion_s", static_cast<double>(pairs) / kFps},
            {"first_motion_s", first}, {"last_motion_s", last}, {"events", static_cast<double>(events)},
            {"busiest_second", busiest}};
}

// Whether every figure of `expected` is in `figure`, times to the table's microseconds; a
// warning names the first that differs.
bool hasFigures(const QJsonObject& figure, const QJsonObject& expected, const QString& what)
{
    for (auto it = expected.begin(); it != expected.end(); ++it) {
        const QJsonValue got = figure.value(it.key());
        const bool same = it->isDouble() && got.isDouble() ? std::abs(got.toDouble() - it->toDouble()) < 1e-5
                                                           : got == *it;
        if (!same) {
            qWarning("%s: %s is %s, expected %s", qPrintable(what), qPrintable(it.key()),
                     QJsonDocument(QJsonArray{got}).toJson(QJsonDocument::Compact).constData(),
                     QJsonDocument(QJsonArray{*it}).toJson(QJsonDocument::Compact).constData());
            return false;
        }
    }
    return true;
}

} // namespace

class TremoraMapZonesTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

private:
    std::vector<cv::Mat> m_frames;
    std::vector<cv::Mat> m_squares;

    // Two clips of the shop recorded two seconds apart, so that they lie on one time line.
    bool writeDayClips()
    {
        if (QFile::exists(clip("noon.mkv")))
            return true;
        return ClipMaking::writeGray(clip("morning.mkv"), m_frames,
                                     {"-c:v", "ffv1", "-metadata", "creation_time=2024-05-01T10:00:00Z"})
               && ClipMaking::writeGray(clip("noon.mkv"), stillOnTheRight(),
                                        {"-c:v", "ffv1", "-metadata", "creation_time=2024-05-01T10:00:02Z"});
    }

    // The day clips with the zones: analysed one by one into `each` (their manifests), and
    // combined from the videos into `fromVideos`, with a report in its report/ when `report`.
    bool analyseDay(const QString& each, const QString& fromVideos, bool report)
    {
        if (!writeDayClips())
            return false;
        const QStringList zones{"--no-blur", "--zones", clip("zones.json")};
        const QStringList reportOptions = report ? QStringList{"--report", fromVideos + "/report"} : QStringList();
        const ToolRunning::Result combining = tool(zones + QStringList{"-o", fromVideos, "--combine", "day"} + reportOptions
                                                   + QStringList{clip("morning.mkv"), clip("noon.mkv")});
        if (combining.exitCode != 0)
            qWarning("%s", combining.err.constData());
        return tool(zones + QStringList{"-o", each, clip("morning.mkv"), clip("noon.mkv")}).exitCode == 0
               && combining.exitCode == 0;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(clipsReady());
        m_frames = stillOnTheRight();
        QVERIFY(ClipMaking::writeGray(clip("shop.mkv"), m_frames));
        // Two squares crossing the zones, seen through the smoothing.
        m_squares = ClipMaking::squares(kSize, 120, [](int i) {
            return std::vector<cv::Point>{{(i / 2) % 40, 4}, {30 - (i / 3) % 30, 18}};
        });
        QVERIFY(ClipMaking::writeGray(clip("squares.mkv"), m_squares));
        QVERIFY(ToolRunning::saveMask(clip("left.png"), maskedOnTheLeft()));
        QVERIFY(writeFile(clip("zones.json"), zoneFileOf(kZones)));
    }

    void init()
    {
        QVERIFY(renew());
    }

    void zoneRowsMatchTheReferenceOverEachZonesPixels()
    {
        const ToolRunning::Result run = tool({"--no-blur", "--zones", clip("zones.json"), clip("shop.mkv")});
        QVERIFY2(run.exitCode == 0, run.err.constData());
        const std::vector<ZoneRow> rows = readZoneRows(out("shop.zones.csv"));
        QVERIFY(sameRows(rows, referenceRows(m_frames, kZones, {})));
        // Every zone but the still one saw something, and overlapping zones count the same pixels.
        for (const ZoneDefinition& zone : kZones) {
            const bool seen = std::any_of(rows.begin(), rows.end(), [&](const ZoneRow& row) { return row.zone == zone.name; });
            QCOMPARE(seen, zone.name != QLatin1String("quiet"));
        }
    }

    void smoothedFramesGiveTheReferencesZoneRowsToo()
    {
        QCOMPARE(tool({"--zones", clip("zones.json"), clip("squares.mkv")}).exitCode, 0);
        const std::vector<ZoneRow> rows = readZoneRows(out("squares.zones.csv"));
        QVERIFY(rows.size() > 20);
        QVERIFY(sameRows(rows, referenceRows(m_squares, kZones, {}, true)));
    }

    void zonesUnderAMaskCountOnlyTheirAnalysedPixels()
    {
        QCOMPARE(tool({"--no-blur", "--zones", clip("zones.json"), "--mask", clip("left.png"), clip("shop.mkv")}).exitCode, 0);
        const cv::Mat analysed = maskedOnTheLeft();
        QVERIFY(sameRows(readZoneRows(out("shop.zones.csv")), referenceRows(m_frames, kZones, analysed)));
        const QJsonArray zones = readJson(out("shop.json"))["zones"].toArray();
        QCOMPARE(zones.size(), 5);
        QCOMPARE(zones[0].toObject()["area_pixels"].toInt(), cv::countNonZero(zonePlane(kZones[0].polygon, analysed)));
    }

    void eachZonesNewEventsSumToTheEventsPictureOverTheZone()
    {
        QCOMPARE(tool({"--no-blur", "--zones", clip("zones.json"), clip("shop.mkv")}).exitCode, 0);
        const cv::Mat events = readEvents(out("shop.events.png"));
        QVERIFY(!events.empty());
        const std::vector<ZoneRow> rows = readZoneRows(out("shop.zones.csv"));
        const QJsonArray figures = readJson(out("shop.json"))["zones"].toArray();
        for (size_t zone = 0; zone < kZones.size(); ++zone) {
            long long sum = 0;
            for (const ZoneRow& row : rows)
                sum += row.zone == kZones[zone].name ? row.newEvents : 0;
            cv::Mat inside(kSize, CV_32SC1, cv::Scalar(0));
            events.copyTo(inside, zonePlane(kZones[zone].polygon, {}));
            QCOMPARE(sum, static_cast<long long>(cv::sum(inside)[0]));
            QCOMPARE(static_cast<long long>(figures[static_cast<int>(zone)].toObject()["events"].toDouble()), sum);
        }
    }

    void theManifestGivesEachZonesFiguresAsTheTableAndThePictureMakeThem()
    {
        QCOMPARE(tool({"--no-blur", "--zones", clip("zones.json"), clip("shop.mkv")}).exitCode, 0);
        QCOMPARE(ToolRunning::schemaComplaint(QStringLiteral(TREMORA_MANIFEST_SCHEMA), out("shop.json")), QString());
        const QJsonObject manifest = readJson(out("shop.json"));
        QCOMPARE(manifest["parameters"].toObject()["zones"].toArray().size(), 5);
        QCOMPARE(manifest["files"].toArray().last().toObject()["role"].toString(), QStringLiteral("zones"));
        const cv::Mat events = readEvents(out("shop.events.png"));
        const std::vector<ZoneRow> rows = readZoneRows(out("shop.zones.csv"));
        const QJsonArray figures = manifest["zones"].toArray();
        QCOMPARE(figures.size(), 5);
        for (size_t zone = 0; zone < kZones.size(); ++zone) {
            const QJsonObject figure = figures[static_cast<int>(zone)].toObject();
            QCOMPARE(figure["name"].toString(), kZones[zone].name);
            const cv::Mat plane = zonePlane(kZones[zone].polygon, {});
            QCOMPARE(figure["area_pixels"].toInt(), cv::countNonZero(plane));
            QCOMPARE(figure["polygon"].toArray().size(), static_cast<int>(kZones[zone].polygon.size()));
            cv::Mat inside(kSize, CV_32SC1, cv::Scalar(0));
            events.copyTo(inside, plane);
            QCOMPARE(figure["pixels_with_events_share"].toDouble(),
                     static_cast<double>(cv::countNonZero(inside)) / cv::countNonZero(plane));
            int pairsWithMotion = 0;
            double first = -1.0;
            double last = -1.0;
            std::map<long long, long long> bySecond;
            for (const ZoneRow& row : rows) {
                if (row.zone != kZones[zone].name)
                    continue;
                if (row.moving > 0) {
                    ++pairsWithMotion;
                    first = first < 0.0 ? row.time : first;
                    last = row.time;
                }
                bySecond[static_cast<long long>(std::floor(row.time))] += row.newEvents;
            }
            QCOMPARE(figure["pairs_with_motion"].toInt(), pairsWithMotion);
            QCOMPARE(figure["motion_s"].toDouble(), pairsWithMotion / kFps);
            long long busiest = -1;
            long long busiestEvents = 0;
            for (const auto& [second, count] : bySecond) {
                if (count > busiestEvents) {
                    busiest = second;
                    busiestEvents = count;
                }
            }
            if (pairsWithMotion == 0) {
                QVERIFY(figure["first_motion_s"].isNull() && figure["last_motion_s"].isNull());
                QVERIFY(figure["busiest_second"].isNull());
                continue;
            }
            QVERIFY(std::abs(figure["first_motion_s"].toDouble() - first) < 1e-6);
            QVERIFY(std::abs(figure["last_motion_s"].toDouble() - last) < 1e-6);
            QCOMPARE(figure["busiest_second"].toObject()["start_s"].toInt(), static_cast<int>(busiest));
            QCOMPARE(static_cast<long long>(figure["busiest_second"].toObject()["events"].toDouble()), busiestEvents);
        }
        QCOMPARE(figures[3].toObject()["pairs_with_motion"].toInt(), 0);
    }

    void namesAreQuotedInTheTable()
    {
        QCOMPARE(tool({"--no-blur", "--zones", clip("zones.json"), clip("shop.mkv")}).exitCode, 0);
        const QByteArray table = readAll(out("shop.zones.csv"));
        QVERIFY(table.contains("\n\"door \"\"<&>\"\", \xd0\xb4\xd0\xb2\xd0\xb5\xd1\x80\xd1\x8c\",0,"));
        QVERIFY(table.contains("\n\"over\","));
    }

    void otherFilesStayAsWithoutZones()
    {
        QCOMPARE(tool({"--no-blur", "--data", clip("shop.mkv")}).exitCode, 0);
        const QStringList names{"shop.png", "shop.events.png", "shop.background.png", "shop.activity.csv"};
        std::vector<QByteArray> without;
        for (const QString& name : names)
            without.push_back(readAll(out(name)));
        const QJsonObject plain = readJson(out("shop.json"));
        QVERIFY(!plain.contains("zones") && !plain["parameters"].toObject().contains("zones"));
        QVERIFY(!QFile::exists(out("shop.zones.csv")));
        QVERIFY(renew());
        QCOMPARE(tool({"--no-blur", "--zones", clip("zones.json"), clip("shop.mkv")}).exitCode, 0);
        for (int i = 0; i < names.size(); ++i)
            QVERIFY2(readAll(out(names[i])) == without[static_cast<size_t>(i)], qPrintable(names[i]));
        QCOMPARE(readJson(out("shop.json"))["summary"], plain["summary"]);
    }

    void eachSlicesCardListsItsZonesEventsInThatSlice()
    {
        const QString report = outPath() + QStringLiteral("/report");
        QCOMPARE(tool({"--no-blur", "--zones", clip("zones.json"), "--slice", "2s", "--report", report, clip("shop.mkv")})
                     .exitCode,
                 0);
        const QString page = QString::fromUtf8(readAll(report + "/index.html"));
        int slices = 0;
        for (const QString& label : {QStringLiteral("00h00m00s"), QStringLiteral("00h00m02s"), QStringLiteral("00h00m04s")}) {
            const cv::Mat events = readEvents(out("shop.slice-" + label + ".events.png"));
            QVERIFY(!events.empty());
            // The slice's card is the one whose map is this slice's.
            const int seconds = label.mid(6, 2).toInt();
            const QString title = QStringLiteral("shop.mkv, 0:00:%1").arg(seconds, 2, 10, QLatin1Char('0'));
            int card = -1;
            for (int from = 0; (from = page.indexOf(QStringLiteral("<article"), from + 1)) > 0;) {
                const int end = page.indexOf(QStringLiteral("</article>"), from);
                if (page.mid(from, end - from).contains(title)) {
                    card = from;
                    break;
                }
            }
            QVERIFY2(card > 0, qPrintable(title));
            const QString html = page.mid(card, page.indexOf(QStringLiteral("</article>"), card) - card);
            for (size_t zone = 0; zone < kZones.size(); ++zone) {
                cv::Mat inside(kSize, CV_32SC1, cv::Scalar(0));
                events.copyTo(inside, zonePlane(kZones[zone].polygon, {}));
                const QString expected = QStringLiteral("<li data-zone=\"%1\"><span class=\"zone-name\">%2</span> %3 events")
                                             .arg(zone)
                                             .arg(kZones[zone].name.toHtmlEscaped().replace('\'', "&#39;"))
                                             .arg(static_cast<qint64>(cv::sum(inside)[0]));
                QVERIFY2(html.contains(expected), qPrintable(expected));
            }
            ++slices;
        }
        QCOMPARE(slices, 3);
    }

    // Every slice card's zones, against the plain rule over the rows of `table` (a combined
    // one when `combined`) whose time lies in the slice. The number of slice cards checked.
    int checkSliceZones(const QString& report, const QString& table, bool combined)
    {
        const std::vector<ZoneRow> rows = readZoneRows(table, combined);
        if (rows.empty())
            return -1;
        const QString page = QString::fromUtf8(readAll(report + "/index.html"));
        int slices = 0;
        for (int slice = 1; !cardHtml(page, QStringLiteral("s%1").arg(slice)).isEmpty(); ++slice) {
            const QString key = QStringLiteral("s%1").arg(slice);
            const double from = cardAttribute(page, key, "data-from").toDouble();
            const double to = cardAttribute(page, key, "data-to").toDouble();
            const QJsonArray figures = QJsonDocument::fromJson(cardAttribute(page, key, "data-zones").toUtf8()).array();
            if (figures.size() != static_cast<int>(kZones.size()))
                return -1;
            for (size_t zone = 0; zone < kZones.size(); ++zone) {
                const QString what = QStringLiteral("slice from %1 s, zone %2").arg(from).arg(kZones[zone].name);
                if (!hasFigures(figures[static_cast<int>(zone)].toObject(),
                                referenceFigures(rows, kZones[zone].name, from, to), what))
                    return -1;
            }
            ++slices;
        }
        return slices;
    }

    void eachSlicesZoneFiguresAreThoseOfItsOwnPairs()
    {
        const QString report = outPath() + QStringLiteral("/report");
        QCOMPARE(tool({"--no-blur", "--zones", clip("zones.json"), "--slice", "2s", "--report", report, clip("shop.mkv")})
                     .exitCode,
                 0);
        // 6.4 seconds of motion in slices of 2: four slices.
        QCOMPARE(checkSliceZones(report, out("shop.zones.csv"), false), 4);
        // The busiest second of the first slice is within it, not the video's.
        const QJsonArray first = QJsonDocument::fromJson(
            cardAttribute(QString::fromUtf8(readAll(report + "/index.html")), "s1", "data-zones").toUtf8()).array();
        QVERIFY(first[0].toObject()["busiest_second"].toObject()["start_s"].toDouble() < 2.0);
    }

    void slicesOfCombinedVideosAddUpTheZonesOfEveryVideoInThem()
    {
        QVERIFY(writeDayClips());
        const QString report = outPath() + QStringLiteral("/report");
        const ToolRunning::Result run = tool({"--no-blur", "--zones", clip("zones.json"), "--slice", "2s", "--combine",
                                              "day", "--report", report, clip("morning.mkv"), clip("noon.mkv")});
        QVERIFY2(run.exitCode == 0, run.err.constData());
        // Noon starts 2 seconds after morning: 8.4 seconds on one line, the middle slices
        // with pairs of both videos.
        QCOMPARE(checkSliceZones(report, out("day.zones.csv"), true), 5);
    }

    void theCombinedCardListsItsZonesSummedAndChartsThem()
    {
        const QString fromVideos = outPath() + QStringLiteral("/videos");
        QVERIFY(analyseDay(outPath() + QStringLiteral("/each"), fromVideos, true));
        const QString page = QString::fromUtf8(readAll(fromVideos + "/report/index.html"));
        const QJsonArray summed = readJson(fromVideos + "/day.json")["zones"].toArray();
        QCOMPARE(summed.size(), static_cast<int>(kZones.size()));
        QCOMPARE(QJsonDocument::fromJson(cardAttribute(page, "c", "data-zones").toUtf8()).array(), summed);
        const QString card = cardHtml(page, "c");
        for (int zone = 0; zone < summed.size(); ++zone) {
            const QString listed = QStringLiteral("<li data-zone=\"%1\"><span class=\"zone-name\">%2</span> %3 events")
                                       .arg(zone)
                                       .arg(kZones[static_cast<size_t>(zone)].name.toHtmlEscaped().replace('\'', "&#39;"))
                                       .arg(static_cast<qint64>(summed[zone].toObject()["events"].toDouble()));
            QVERIFY2(card.contains(listed), qPrintable(listed));
            QVERIFY(card.contains(QStringLiteral("<option value=\"%1\">").arg(zone)));
        }
        QVERIFY(card.contains("class=\"chart-zone\""));
        // Its zone series are those of its videos, which its chart adds up on the line.
        QVERIFY(QFile::exists(fromVideos + "/report/data/1.zones.js") && QFile::exists(fromVideos + "/report/data/2.zones.js"));
    }

    void aManifestsCardChartsItsZonesFromItsTableAsItsVideoWould()
    {
        const QString each = outPath() + QStringLiteral("/each");
        const QString fromVideos = outPath() + QStringLiteral("/videos");
        const QString fromManifests = outPath() + QStringLiteral("/manifests");
        QVERIFY(analyseDay(each, fromVideos, true));
        const ToolRunning::Result run = tool({"-o", fromManifests, "--combine", "day", "--report", fromManifests + "/report",
                                              each + "/morning.json", each + "/noon.json"});
        QVERIFY2(run.exitCode == 0, run.err.constData());
        const QString page = QString::fromUtf8(readAll(fromManifests + "/report/index.html"));
        for (const QString& key : {QStringLiteral("1"), QStringLiteral("2")}) {
            const QByteArray series = readAll(fromManifests + "/report/data/" + key + ".zones.js");
            QVERIFY2(series.contains("\"seconds\":[["), qPrintable(key));
            QCOMPARE(series, readAll(fromVideos + "/report/data/" + key + ".zones.js"));
            QVERIFY2(cardHtml(page, key).contains("class=\"chart-zone\""), qPrintable(key));
        }
        QVERIFY(cardHtml(page, "c").contains("class=\"chart-zone\""));
        QCOMPARE(QJsonDocument::fromJson(cardAttribute(page, "c", "data-zones").toUtf8()).array(),
                 readJson(fromVideos + "/day.json")["zones"].toArray());
    }

    void theLegendOutlinesTheZonesAndTheMapStaysWithoutThem()
    {
        QVERIFY(writeFile(clip("one.json"), zoneFileOf({{"box", {{10, 6}, {37, 6}, {37, 25}, {10, 25}}}})));
        QCOMPARE(tool({"--no-blur", "--legend", "--data", clip("shop.mkv")}).exitCode, 0);
        const QByteArray plainMap = readAll(out("shop.png"));
        const QImage plainLegend(out("shop.legend.png"));
        QVERIFY(renew());
        QCOMPARE(tool({"--no-blur", "--legend", "--zones", clip("one.json"), clip("shop.mkv")}).exitCode, 0);
        QCOMPARE(readAll(out("shop.png")), plainMap);
        const QImage map(out("shop.png"));
        const QImage legend(out("shop.legend.png"));
        QCOMPARE(legend.size(), plainLegend.size());
        // The map sits centred above the strip; along the box's edges (away from its label at
        // the first corner) the legend's pixels are the outline's, not the map's, and far from
        // them the map is as it was.
        const int left = (legend.width() - map.width()) / 2;
        int outlined = 0;
        int edgePixels = 0;
        const auto differs = [&](int x, int y) { return legend.pixel(left + x, y) != map.pixel(x, y); };
        for (int x = 12; x <= 35; ++x) {
            ++edgePixels;
            outlined += differs(x, 25) ? 1 : 0;
        }
        QVERIFY2(outlined == edgePixels, qPrintable(QStringLiteral("%1 of %2").arg(outlined).arg(edgePixels)));
        QVERIFY(differs(10, 23) && differs(37, 23));
        for (const QPoint far : {QPoint(44, 30), QPoint(2, 30), QPoint(46, 1), QPoint(3, 3)})
            QVERIFY2(!differs(far.x(), far.y()), qPrintable(QStringLiteral("%1,%2").arg(far.x()).arg(far.y())));
        QVERIFY(legend.copy(0, map.height(), legend.width(), legend.height() - map.height())
                == plainLegend.copy(0, map.height(), legend.width(), legend.height() - map.height()));
    }

    void aVideoWithoutAPixelOfAZoneFailsAndTheOthersGoOn()
    {
        QVERIFY(ToolRunning::makeClip(clip("wide.mkv"), 20, QStringLiteral("96x80")));
        QVERIFY(writeFile(clip("far.json"), zoneFileOf({{"near", {{0, 0}, {10, 0}, {0, 10}}},
                                                        {"far corner", {{60, 60}, {90, 60}, {90, 75}}}})));
        const ToolRunning::Result run = tool({"--zones", clip("far.json"), clip("shop.mkv"), clip("wide.mkv")});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains("Zone 'far corner' has no analysed pixel in '" + clip("shop.mkv").toUtf8() + "'"),
                 run.err.constData());
        QVERIFY(!QFile::exists(out("shop.png")) && !QFile::exists(out("shop.zones.csv")));
        QCOMPARE(readJson(out("shop.json"))["outcome"].toObject()["status"].toString(), QStringLiteral("failed"));
        QVERIFY(QFile::exists(out("wide.zones.csv")) && QFile::exists(out("wide.png")));
    }

    void aZoneWithoutAPixelStopsItsVideoBeforeAnyPairIsCounted()
    {
        QVERIFY(writeFile(clip("outside.json"), zoneFileOf({{"near", {{0, 0}, {10, 0}, {0, 10}}},
                                                            {"outside", {{60, 40}, {90, 40}, {90, 75}}}})));
        QVERIFY(writeFile(clip("hidden.json"), zoneFileOf({{"hidden", {{0, 0}, {5, 0}, {5, 31}, {0, 31}}}})));
        const std::vector<QStringList> runs{{"--zones", clip("outside.json"), clip("shop.mkv")},
                                            {"--zones", clip("hidden.json"), "--mask", clip("left.png"), clip("shop.mkv")}};
        for (const QStringList& arguments : runs) {
            QVERIFY(renew());
            const ToolRunning::Result run = tool(arguments);
            QCOMPARE(run.exitCode, 1);
            QCOMPARE(run.err.trimmed().count('\n'), 0);
            // The manifest records how far the pass got: not a single pair.
            const QJsonObject manifest = readJson(out("shop.json"));
            QCOMPARE(manifest["outcome"].toObject()["status"].toString(), QStringLiteral("failed"));
            QVERIFY2(manifest.contains("pairs_analysed") && manifest["pairs_analysed"].toInt() == 0,
                     qPrintable(QString::number(manifest["pairs_analysed"].toInt())));
            QVERIFY(manifest["frames_decoded"].toInt() <= 1);
        }
    }

    void aZoneEntirelyUnderTheMaskFailsTheVideo()
    {
        QVERIFY(writeFile(clip("hidden.json"), zoneFileOf({{"hidden", {{0, 0}, {5, 0}, {5, 31}, {0, 31}}}})));
        const ToolRunning::Result run = tool({"--zones", clip("hidden.json"), "--mask", clip("left.png"), clip("shop.mkv")});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains("Zone 'hidden' has no analysed pixel"), run.err.constData());
    }

    void combiningVideosAndCombiningTheirManifestsGiveTheSameZones()
    {
        const QString each = outPath() + QStringLiteral("/each");
        const QString fromVideos = outPath() + QStringLiteral("/videos");
        const QString fromManifests = outPath() + QStringLiteral("/manifests");
        QVERIFY(analyseDay(each, fromVideos, false));
        QCOMPARE(tool({"--data", "-o", fromManifests, "--combine", "day", each + "/morning.json", each + "/noon.json"})
                     .exitCode,
                 0);
        const QByteArray table = readAll(fromVideos + "/day.zones.csv");
        QCOMPARE(readAll(fromManifests + "/day.zones.csv"), table);
        // Each input's rows in the order given, led by its video, on the one time line: noon
        // starts 2 seconds after morning.
        QByteArray expected = "file,zone,pair,time_s,moving_pixels,new_events\n";
        for (const QString& name : {QStringLiteral("morning"), QStringLiteral("noon")}) {
            const double offset = name == QLatin1String("noon") ? 2.0 : 0.0;
            for (const ZoneRow& row : readZoneRows(each + "/" + name + ".zones.csv")) {
                QByteArray zone = row.zone.toUtf8();
                zone.replace('"', "\"\"");
                expected += "\"" + clip(name + ".mkv").toUtf8() + "\",\"" + zone + "\"," + QByteArray::number(row.pair) + ","
                            + QByteArray::number(row.time + offset, 'f', 6) + "," + QByteArray::number(row.moving) + ","
                            + QByteArray::number(row.newEvents) + "\n";
            }
        }
        QCOMPARE(table, expected);
        const QJsonArray combined = readJson(fromVideos + "/day.json")["zones"].toArray();
        QCOMPARE(readJson(fromManifests + "/day.json")["zones"].toArray(), combined);
        QCOMPARE(ToolRunning::schemaComplaint(QStringLiteral(TREMORA_COMBINED_SCHEMA), fromVideos + "/day.json"), QString());
        const QJsonArray morning = readJson(each + "/morning.json")["zones"].toArray();
        const QJsonArray noon = readJson(each + "/noon.json")["zones"].toArray();
        QCOMPARE(combined.size(), static_cast<int>(kZones.size()));
        for (int zone = 0; zone < combined.size(); ++zone) {
            const QJsonObject sum = combined[zone].toObject();
            const QJsonObject a = morning[zone].toObject();
            const QJsonObject b = noon[zone].toObject();
            QCOMPARE(sum["name"], a["name"]);
            QCOMPARE(sum["area_pixels"], a["area_pixels"]);
            QCOMPARE(sum["events"].toDouble(), a["events"].toDouble() + b["events"].toDouble());
            QCOMPARE(sum["pairs_with_motion"].toDouble(), a["pairs_with_motion"].toDouble() + b["pairs_with_motion"].toDouble());
            if (a["first_motion_s"].isNull())
                continue;
            QCOMPARE(sum["first_motion_s"].toDouble(), a["first_motion_s"].toDouble());
            QVERIFY(std::abs(sum["last_motion_s"].toDouble() - (b["last_motion_s"].toDouble() + 2.0)) < 1e-6);
        }
    }

    void manifestsCountedWithOtherZonesAreLeftOut()
    {
        QVERIFY(writeDayClips());
        QVERIFY(writeFile(clip("other.json"), zoneFileOf({kZones[0], kZones[1]})));
        QCOMPARE(tool({"--zones", clip("zones.json"), clip("morning.mkv")}).exitCode, 0);
        QCOMPARE(tool({"--zones", clip("other.json"), clip("noon.mkv")}).exitCode, 0);
        QCOMPARE(tool({"--data", clip("shop.mkv")}).exitCode, 0);
        const ToolRunning::Result run =
            tool({"--data", "-o", outPath() + "/day", "--combine", "day", out("morning.json"), out("noon.json"), out("shop.json")});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains("'" + out("noon.json").toUtf8() + "' was analysed with other parameters")
                     && run.err.contains("zones 'door"),
                 run.err.constData());
        QVERIFY2(run.err.contains("'" + out("shop.json").toUtf8() + "' was analysed with other parameters")
                     && run.err.contains("zones none, not 'door"),
                 run.err.constData());
        const QJsonArray inputs = readJson(out("day/day.json"))["inputs"].toArray();
        QCOMPARE(inputs[1].toObject()["status"].toString(), QStringLiteral("left out"));
        QCOMPARE(inputs[2].toObject()["status"].toString(), QStringLiteral("left out"));
        // What is combined is the first input alone, its zones table led by its file.
        const QList<QByteArray> lines = readAll(out("day/day.zones.csv")).split('\n');
        QVERIFY(lines.size() > 2);
        for (int i = 1; i < lines.size(); ++i)
            QVERIFY(lines[i].isEmpty() || lines[i].startsWith("\"" + clip("morning.mkv").toUtf8() + "\","));
    }

    void aBadZoneFileIsAUsageErrorBeforeAnythingRuns()
    {
        QVERIFY(writeFile(clip("bad.json"), "{\"zones\": [{\"name\": \"door\", \"polygon\": [[0, 0], [4, 0]]}]}"));
        const ToolRunning::Result run = tool({"--zones", clip("bad.json"), clip("shop.mkv")});
        QCOMPARE(run.exitCode, 2);
        const QList<QByteArray> lines = run.err.trimmed().split('\n');
        QVERIFY2(lines.front().contains(clip("bad.json").toUtf8()) && lines.front().contains("'door'"), run.err.constData());
        QVERIFY(ToolRunning::entries(outPath()).isEmpty());
        const ToolRunning::Result missing = tool({"--zones", clip("none.json"), clip("shop.mkv")});
        QCOMPARE(missing.exitCode, 2);
        QVERIFY(missing.err.contains(clip("none.json").toUtf8()));
        QCOMPARE(tool({"--zones", "", clip("shop.mkv")}).exitCode, 2);
        QVERIFY(ToolRunning::entries(outPath()).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TremoraMapZonesTest)
#include "TremoraMapZonesTest.moc"
