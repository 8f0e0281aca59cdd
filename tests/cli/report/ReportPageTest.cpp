#include "ReportPage.h"

#include <QtTest>

#include <QJsonArray>
#include <QJsonObject>
#include <QUrl>

#include <limits>

class ReportPageTest : public QObject {
    Q_OBJECT

private:
    static ReportCard card(const QString& key, const QString& title)
    {
        ReportCard c;
        c.key = key;
        c.title = title;
        c.sortName = title;
        c.status = QStringLiteral("done");
        c.mapFile = QStringLiteral("maps/%1.png").arg(key);
        c.width = 64;
        c.height = 48;
        return c;
    }

private slots:
    void textIsEscapedForHtmlAndAttributes()
    {
        QCOMPARE(ReportPage::escapeHtml(QStringLiteral("a <b> & \"c\" 'd'")),
                 QStringLiteral("a &lt;b&gt; &amp; &quot;c&quot; &#39;d&#39;"));
    }

    void linksToVideosKeepSpecialCharactersInOnePath()
    {
        const QString name = QStringLiteral("a <b> & c #1 %20 \"q\" 'é' 雪.mp4");
        const QString href = ReportPage::relativeHref(QStringLiteral("/r/report"), QStringLiteral("/r/videos/") + name);
        QCOMPARE(href.left(10), QStringLiteral("../videos/"));
        for (const QChar c : {'<', '&', '#', '"', '\'', ' ', '>'})
            QVERIFY2(!href.contains(c), qPrintable(href));
        QVERIFY(href.contains(QStringLiteral("%2520")));
        QCOMPARE(QUrl::fromPercentEncoding(href.toLatin1()), QStringLiteral("../videos/") + name);
    }

    void browsersPlayMp4AndWebmOfTheirCodecsOnly()
    {
        QVERIFY(ReportPage::browserPlays(QStringLiteral("mov,mp4,m4a,3gp,3g2,mj2"), QStringLiteral("h264")));
        QVERIFY(ReportPage::browserPlays(QStringLiteral("matroska,webm"), QStringLiteral("vp9")));
        QVERIFY(!ReportPage::browserPlays(QStringLiteral("matroska,webm"), QStringLiteral("ffv1")));
        QVERIFY(!ReportPage::browserPlays(QStringLiteral("avi"), QStringLiteral("h264")));
        QVERIFY(!ReportPage::browserPlays(QStringLiteral("mov,mp4,m4a,3gp,3g2,mj2"), QStringLiteral("hevc")));
    }

    void secondsReadAsAClock()
    {
        QCOMPARE(ReportPage::clockText(7.9), QStringLiteral("0:07"));
        QCOMPARE(ReportPage::clockText(123), QStringLiteral("2:03"));
        QCOMPARE(ReportPage::clockText(3723), QStringLiteral("1:02:03"));
        QCOMPARE(ReportPage::clockText(-4), QStringLiteral("0:00"));
        // A length a damaged file records beyond any recording is not converted.
        QCOMPARE(ReportPage::clockText(1e300), QStringLiteral("unknown"));
        QCOMPARE(ReportPage::clockText(std::numeric_limits<double>::infinity()), QStringLiteral("unknown"));
        QCOMPARE(ReportPage::clockText(1e9), QStringLiteral("277777:46:40"));
    }

    void cardsAreSortedByNameAndTheirTextEscaped()
    {
        const QString page = QString::fromUtf8(ReportPage::render(
            QStringLiteral("Report"), {card("1", "zeta.mp4"), card("2", "<b>&amp.mp4"), card("3", "clip10.mp4"),
                                       card("4", "clip9.mp4")}));
        QVERIFY(page.contains(QStringLiteral("<meta name=\"generator\" content=\"tremora-map\">")));
        QVERIFY(!page.contains(QStringLiteral("<b>&amp.mp4")));
        const int escaped = page.indexOf(QStringLiteral("&lt;b&gt;&amp;amp.mp4"));
        const int nine = page.indexOf(QStringLiteral(">clip9.mp4<"));
        const int ten = page.indexOf(QStringLiteral(">clip10.mp4<"));
        const int zeta = page.indexOf(QStringLiteral(">zeta.mp4<"));
        QVERIFY(escaped >= 0 && nine >= 0 && ten >= 0 && zeta >= 0);
        QVERIFY2(escaped < nine && nine < ten && ten < zeta,
                 qPrintable(QStringLiteral("%1 %2 %3 %4").arg(escaped).arg(nine).arg(ten).arg(zeta)));
        QVERIFY(page.contains(QStringLiteral("loading=\"lazy\"")));
        QVERIFY(page.contains(QStringLiteral("4 videos")));
    }

    void aZonesTimeWithMotionReadsInSecondsUnderAMinuteAndNoneSaysSo()
    {
        const auto zone = [](const char* name, double pairs, double seconds) {
            return QJsonObject{{"name", name}, {"polygon", QJsonArray{}}, {"events", pairs * 3},
                               {"pixels_with_events_share", 0.5}, {"pairs_with_motion", pairs}, {"motion_s", seconds}};
        };
        ReportCard zoned = card("1", "shop.mp4");
        zoned.zones = {zone("door", 8, 0.32), zone("till", 0, 0.0), zone("aisle", 2500, 100.0)};
        const QString page = QString::fromUtf8(ReportPage::render(QStringLiteral("Report"), {zoned}));
        QVERIFY(page.contains(QStringLiteral(">door</span> 24 events · 50.0% of its pixels · motion for 0.3 s</li>")));
        QVERIFY(page.contains(QStringLiteral(">till</span> 0 events · 50.0% of its pixels · no motion</li>")));
        QVERIFY(page.contains(QStringLiteral(">aisle</span> 7500 events · 50.0% of its pixels · motion for 1:40</li>")));
    }

    void aCardWithAFilmPlaysItBesideItsMapWithTheBrowsersControls()
    {
        ReportCard filmed = card("1", "clip.mp4");
        filmed.filmFile = QStringLiteral("maps/1.timelapse.mp4");
        const QString page = QString::fromUtf8(ReportPage::render(QStringLiteral("Report"), {filmed, card("2", "b.mp4")}));
        QCOMPARE(page.count(QStringLiteral("<video")), 1);
        const int video = page.indexOf(QStringLiteral("<video controls"));
        QVERIFY(video > 0);
        QVERIFY(page.indexOf(QStringLiteral("src=\"maps/1.timelapse.mp4\""), video) > video);
        // Beside the map: in the card's side column, after the map's figure.
        QVERIFY(page.lastIndexOf(QStringLiteral("<div class=\"side\">"), video)
                > page.lastIndexOf(QStringLiteral("<figure class=\"map\">"), video));
    }

    void aFailedInputShowsItsErrorAndNoMap()
    {
        const ReportCard failed = ReportPage::inputCard(QStringLiteral("1"), QStringLiteral("/v/x.mp4"), {},
                                                        QStringLiteral("File '/m/x.png' exists"), {},
                                                        QStringLiteral("/r"));
        QCOMPARE(failed.status, QStringLiteral("failed"));
        const QString page = QString::fromUtf8(ReportPage::render(QStringLiteral("Report"), {failed}));
        QVERIFY(page.contains(QStringLiteral("Failed: File &#39;/m/x.png&#39; exists")));
        QVERIFY(page.contains(QStringLiteral("No map")));
        QVERIFY(!page.contains(QStringLiteral("<img")));
    }

    void aCardTakesItsFiguresFromTheManifest()
    {
        const QJsonObject manifest{
            {"video", QJsonObject{{"container", "mov,mp4,m4a,3gp,3g2,mj2"}, {"codec", "h264"}, {"width", 320},
                                  {"height", 240}, {"duration_s", 75.5}, {"creation_time", "2026-01-02T03:04:05Z"}}},
            {"frames_decoded", 1888},
            {"outcome", QJsonObject{{"status", "done"}}},
            {"summary", QJsonObject{{"events_total", 4242}, {"max_events", 17}, {"pixels_with_events_share", 0.25},
                                    {"pairs_with_motion_share", 0.5}}},
        };
        const ReportCard c = ReportPage::inputCard(QStringLiteral("3"), QStringLiteral("/v/cam.mp4"), manifest, {},
                                                   QStringLiteral("maps/3.png"), QStringLiteral("/v/report"));
        QVERIFY(c.playable);
        QCOMPARE(c.width, 320);
        QCOMPARE(c.videoHref, QStringLiteral("../cam.mp4"));
        QCOMPARE(c.creationTime, QStringLiteral("2026-01-02T03:04:05Z"));
        const std::vector<std::pair<QString, QString>> expected = {
            {"Duration", "1:15"},     {"Frames", "1888"},          {"Size", "320 × 240"},
            {"Recorded", "2026-01-02T03:04:05Z"}, {"Events", "4242"}, {"Most at a pixel", "17"},
            {"Pixels with motion", "25.0%"},      {"Pairs with motion", "50.0%"},
        };
        QCOMPARE(c.figures, expected);
    }

    void countFiguresSayEventsMostAtAPixelAndPixelsWithMotion()
    {
        const std::vector<std::pair<QString, QString>> expected = {
            {"Events", "123457"}, {"Most at a pixel", "65535"}, {"Pixels with motion", "0.050%"}};
        QCOMPARE(ReportPage::countFigures(123456.6, 65535.0, 0.0005), expected);
        QCOMPARE(ReportPage::countFigures(123456.6, 65535.0, 0.0005, -1), expected);
    }

    void countFiguresInSteadyLightEndWithTheSceneChanges()
    {
        const std::vector<std::pair<QString, QString>> expected = {
            {"Events", "12"}, {"Most at a pixel", "3"}, {"Pixels with motion", "50.0%"}, {"Scene changes", "4"}};
        QCOMPARE(ReportPage::countFigures(12.0, 3.0, 0.5, 4), expected);
        // None seen is a figure too: the run looked for them.
        QCOMPARE(ReportPage::countFigures(12.0, 3.0, 0.5, 0).back(), (std::pair<QString, QString>{"Scene changes", "0"}));
    }

    void aCardOfASteadyLightManifestCountsItsSceneChanges()
    {
        const QJsonObject manifest{
            {"video", QJsonObject{{"container", "matroska,webm"}, {"codec", "ffv1"}, {"width", 160}, {"height", 120},
                                  {"duration_s", 10}}},
            {"frames_decoded", 250},
            {"outcome", QJsonObject{{"status", "done"}}},
            {"summary", QJsonObject{{"events_total", 860}, {"max_events", 1}, {"pixels_with_events_share", 0.5},
                                    {"pairs_with_motion_share", 0.25}}},
            {"scene_changes", QJsonObject{{"count", 3}, {"times_s", QJsonArray{4.0, 5.0, 6.0}}}},
        };
        const ReportCard c = ReportPage::inputCard(QStringLiteral("1"), QStringLiteral("/v/cam.mkv"), manifest, {},
                                                   QStringLiteral("maps/1.png"), QStringLiteral("/v/report"));
        const std::vector<std::pair<QString, QString>> expected = {
            {"Duration", "0:10"}, {"Frames", "250"}, {"Size", "160 × 120"}, {"Recorded", "unknown"},
            {"Events", "860"}, {"Most at a pixel", "1"}, {"Pixels with motion", "50.0%"}, {"Scene changes", "3"},
            {"Pairs with motion", "25.0%"},
        };
        QCOMPARE(c.figures, expected);
        QJsonObject without = manifest;
        without.remove("scene_changes");
        const ReportCard plain = ReportPage::inputCard(QStringLiteral("1"), QStringLiteral("/v/cam.mkv"), without, {},
                                                       QStringLiteral("maps/1.png"), QStringLiteral("/v/report"));
        QVERIFY(std::none_of(plain.figures.begin(), plain.figures.end(),
                             [](const auto& figure) { return figure.first == QLatin1String("Scene changes"); }));
        QCOMPARE(int(plain.figures.size()), int(expected.size()) - 1);
    }

    void footageIsAClockOrUnknown()
    {
        QCOMPARE(ReportPage::footageFigure(3723.9), (std::pair<QString, QString>{"Footage", "1:02:03"}));
        QCOMPARE(ReportPage::footageFigure(0.0), (std::pair<QString, QString>{"Footage", "0:00"}));
        QCOMPARE(ReportPage::footageFigure(-1.0), (std::pair<QString, QString>{"Footage", "unknown"}));
    }

    void thePagesFilesAreBuiltIntoTheTool()
    {
        const auto assets = ReportPage::assets();
        QCOMPARE(int(assets.size()), 2);
        for (const auto& [name, bytes] : assets) {
            QVERIFY2(bytes.size() > 500, qPrintable(name));
            // Nothing is fetched from the network: the one address is the name of SVG's namespace.
            QCOMPARE(bytes.count("http"), bytes.count("http://www.w3.org/2000/svg"));
        }
    }
};

QTEST_GUILESS_MAIN(ReportPageTest)
#include "ReportPageTest.moc"
