#include "TestSupport.h"
#include "ToolRunning.h"

#include <QtTest>

#include <QElapsedTimer>
#include <QProcess>

#include <QDir>
#include <QFile>
#include <QImage>
#include <QMap>
#include <QRegularExpression>

#include <signal.h>

namespace {

using ToolRunning::entries;

bool writeText(const QString& path, const QByteArray& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

// A grey picture whose 8 x 8 box flashes white for one frame every 60 frames, 259 times: each
// flash a new event, so the box holds 259 events, which the window's count, wrapping at 256,
// shows as 3.
bool makeWrappingClip(const QString& path)
{
    return TestSupport::runFfmpeg({"-f", "lavfi", "-i",
                                   "color=c=gray:size=32x24:rate=25,drawbox=x=8:y=8:w=8:h=8:color=white:t=fill:"
                                   "enable='eq(mod(n,60),30)'",
                                   "-frames:v", "15540", "-c:v", "ffv1", path});
}

QImage rgb(const QString& path)
{
    return QImage(path).convertToFormat(QImage::Format_RGB888);
}

// Four seconds of grey in which, from 2 s on, the left 60 % of the picture changes, its top
// half brighter and its bottom half darker by 80: in steady light the pair at 2 s is the one
// scene change. Boxes on the right flash at 1 s and at 3 s, so that both halves of the clip
// have events.
bool makeSceneChangeClip(const QString& path)
{
    return TestSupport::runFfmpeg(
        {"-f", "lavfi", "-i",
         "color=c=0x505050:size=64x48:rate=25:d=4,format=gray,"
         "drawbox=x=0:y=0:w=38:h=24:color=0xA0A0A0:t=fill:enable='gte(t,2)',"
         "drawbox=x=0:y=24:w=38:h=24:color=black:t=fill:enable='gte(t,2)',"
         "drawbox=x=48:y=8:w=8:h=8:color=white:t=fill:enable='between(t,1,1.07)',"
         "drawbox=x=48:y=32:w=8:h=8:color=white:t=fill:enable='between(t,3,3.07)'",
         "-c:v", "ffv1", "-pix_fmt", "gray", path});
}

// Each card's "Scene changes" figure by the card's id ("card-1"); cards without one are left out.
QMap<QString, QString> sceneChangeFigures(const QByteArray& page)
{
    QMap<QString, QString> figures;
    static const QRegularExpression card(QStringLiteral("<article class=\"card\" id=\"([^\"]+)\".*?</article>"),
                                         QRegularExpression::DotMatchesEverythingOption);
    static const QRegularExpression figure(QStringLiteral("<dt>Scene changes</dt><dd>([^<]*)</dd>"));
    for (auto it = card.globalMatch(QString::fromUtf8(page)); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        const QRegularExpressionMatch found = figure.match(match.captured(0));
        if (found.hasMatch())
            figures.insert(match.captured(1), found.captured(1));
    }
    return figures;
}

// The rows of a card's activity data as the page gets them, "[second,moving,events(,scene changes)]".
QStringList activityRows(const QString& script)
{
    static const QRegularExpression row(QStringLiteral("\\[(\\d+(,\\d+)*)\\]"));
    QStringList rows;
    for (auto it = row.globalMatch(QString::fromUtf8(ToolRunning::readAll(script))); it.hasNext();)
        rows << it.next().captured(1);
    return rows;
}

} // namespace

// The report as the tool writes it: its files, and what happens to a folder that cannot or
// must not take it. What the page does in a browser is tested by report_in_browser.py.
class TremoraMapReportTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

private:
    // The maps apart from the reports, so that a test sees what each of the two folders holds.
    ToolRunning::Result toolIntoMaps(const QStringList& arguments) const { return toolInto(out("maps"), arguments); }

private slots:
    void initTestCase()
    {
        QVERIFY(clipsReady());
        QVERIFY(ToolRunning::makeClip(clip("b.mkv"), 40));
        QVERIFY(ToolRunning::makeClip(clip("a.mkv"), 30));
    }

    void init()
    {
        QVERIFY(renew());
    }

    void aReportHoldsThePageItsFilesAndEachInputsMapAndData()
    {
        const ToolRunning::Result result = toolIntoMaps({"--report", out("report"), clip("b.mkv"), clip("a.mkv")});
        QCOMPARE(result.exitCode, 0);
        QCOMPARE(entries(out("report")), (QStringList{"data", "index.html", "maps", "report.css", "report.js"}));
        QCOMPARE(entries(out("report/maps")), (QStringList{"1.legend.png", "1.png", "2.legend.png", "2.png"}));
        QCOMPARE(ToolRunning::readAll(out("report/maps/1.png")), ToolRunning::readAll(out("maps/b.png")));
        QCOMPARE(entries(out("report/data")),
                 (QStringList{"1.activity.js", "1.cells.js", "2.activity.js", "2.cells.js"}));
        // The report brings the data files with it.
        QVERIFY(QFile::exists(out("maps/a.json")));
        QVERIFY(QFile::exists(out("maps/a.activity.csv")));
        const QByteArray page = ToolRunning::readAll(out("report/index.html"));
        QVERIFY(page.indexOf(">a.mkv<") >= 0);
        QVERIFY(page.indexOf(">a.mkv<") < page.indexOf(">b.mkv<"));
        QVERIFY(page.contains("href=\"../../"));
        QVERIFY(ToolRunning::readAll(out("report/data/2.cells.js")).startsWith("Tremora.data(\"2.cells\", {\"cell\":16,"));
    }

    void anInterruptedRunStillWritesItsReportWithTheUnfinishedInputCanceled()
    {
        QVERIFY(ToolRunning::makeClip(clip("long.mkv"), 3000, QStringLiteral("320x240")));
        QProcess process;
        process.start(QStringLiteral(TREMORA_MAP_EXECUTABLE),
                      {"--jobs", "1", "-o", out("maps"), "--report", out("report"), clip("a.mkv"), clip("long.mkv")});
        QVERIFY(process.waitForStarted());
        QByteArray err;
        QElapsedTimer clock;
        clock.start();
        const QByteArray started = clip("long.mkv").toUtf8() + ": started\n";
        while (!err.contains(started) && clock.elapsed() < 60000 && process.state() == QProcess::Running) {
            process.waitForReadyRead(100);
            err += process.readAllStandardError();
        }
        QVERIFY2(err.contains(started), err.constData());
        QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
        QVERIFY(process.waitForFinished(60000));
        QCOMPARE(process.exitCode(), 130);
        QVERIFY(!QFile::exists(out("maps/long.png")));
        const QByteArray page = ToolRunning::readAll(out("report/index.html"));
        QVERIFY(page.contains(">a.mkv<") && page.contains(">long.mkv<"));
        // The finished input keeps its map, the other says why it has none.
        QCOMPARE(ToolRunning::readAll(out("report/maps/1.png")), ToolRunning::readAll(out("maps/a.png")));
        QCOMPARE(page.count("class=\"outcome canceled\""), 1);
        QVERIFY(page.indexOf("Canceled before the end.") > page.indexOf(">long.mkv<"));
    }

    void aSlicedReportHasACardForTheVideoAndForEachSliceWithItsWindow()
    {
        const ToolRunning::Result result = toolIntoMaps({"--slice", "1s", "--report", out("report"), clip("b.mkv")});
        QCOMPARE(result.exitCode, 0);
        // No map of the whole video among the maps, but one on its card. The clip's picture
        // changes once a second: its first slice holds no event and has no card.
        QCOMPARE(entries(out("maps")), (QStringList{"b.activity.csv", "b.background.png", "b.events.png", "b.json",
                                                    "b.slice-00h00m01s.events.png", "b.slice-00h00m01s.png"}));
        QCOMPARE(entries(out("report/maps")), (QStringList{"1.legend.png", "1.png", "s1.legend.png", "s1.png"}));
        QCOMPARE(ToolRunning::readAll(out("report/maps/s1.png")), ToolRunning::readAll(out("maps/b.slice-00h00m01s.png")));
        const QByteArray page = ToolRunning::readAll(out("report/index.html"));
        QVERIFY(page.contains("id=\"card-s1\""));
        QVERIFY(page.contains("data-from=\"1.000\" data-to=\"2.000\""));
        QVERIFY(page.contains("1 video and 1 more map"));
    }

    void aCombinedReportHasACardForEachInputAndForTheCombinedMap()
    {
        QVERIFY(QDir(out("data")).mkpath("."));
        QCOMPARE(ToolRunning::run({"--quiet", "--data", "-o", out("data"), clip("a.mkv")}).exitCode, 0);
        const ToolRunning::Result result =
            toolIntoMaps({"--combine", "both", "--report", out("report"), clip("b.mkv"), out("data/a.json")});
        QCOMPARE(result.exitCode, 0);
        QCOMPARE(entries(out("report/maps")),
                 (QStringList{"1.legend.png", "1.png", "2.legend.png", "2.png", "c.legend.png", "c.png"}));
        // The combined card shows the combined map; the manifest's card its video's own map.
        QCOMPARE(QImage(out("report/maps/c.png")), QImage(out("maps/both.png")));
        QCOMPARE(QImage(out("report/maps/2.png")), QImage(out("data/a.png")));
        // The video brings when motion began; the manifest only its activity.
        QCOMPARE(entries(out("report/data")), (QStringList{"1.activity.js", "1.cells.js", "2.activity.js"}));
        const QByteArray page = ToolRunning::readAll(out("report/index.html"));
        QVERIFY(page.contains(">both<"));
        QVERIFY2(page.contains(">a.mkv</a>"), "the manifest's card is named after its video");
        QVERIFY(page.contains("2 videos and 1 more map"));
    }

    void eachCardShowsTheStripOfItsMapsLegendBelowTheMap()
    {
        const ToolRunning::Result result =
            toolIntoMaps({"--legend", "--report", out("report"), clip("a.mkv")});
        QCOMPARE(result.exitCode, 0);
        const QImage map(out("maps/a.png"));
        const QImage legend(out("maps/a.legend.png"));
        const QImage strip(out("report/maps/1.legend.png"));
        QVERIFY(!map.isNull() && !strip.isNull());
        QCOMPARE(strip.size(), QSize(legend.width(), legend.height() - map.height()));
        QCOMPARE(strip.convertToFormat(QImage::Format_RGB32),
                 legend.copy(0, map.height(), legend.width(), strip.height()).convertToFormat(QImage::Format_RGB32));
        const QByteArray page = ToolRunning::readAll(out("report/index.html"));
        QVERIFY(page.contains("<img class=\"legend\" src=\"maps/1.legend.png\""));
    }

    void aReportWithoutLegendOptionStillShowsTheStripButWritesNoLegendFile()
    {
        const ToolRunning::Result result = toolIntoMaps({"--report", out("report"), clip("a.mkv")});
        QCOMPARE(result.exitCode, 0);
        QVERIFY(!QFile::exists(out("maps/a.legend.png")));
        const QImage strip(out("report/maps/1.legend.png"));
        QVERIFY(!strip.isNull());
        QVERIFY(strip.width() >= QImage(out("maps/a.png")).width());
    }

    void anEarlierReportIsKeptWithoutOverwriteAndNothingIsAnalysed()
    {
        QCOMPARE(toolIntoMaps({"--report", out("report"), clip("a.mkv")}).exitCode, 0);
        const QByteArray before = ToolRunning::readAll(out("report/index.html"));
        QVERIFY(QDir(out("maps")).removeRecursively());
        const ToolRunning::Result again = toolIntoMaps({"--report", out("report"), clip("a.mkv"), clip("b.mkv")});
        QCOMPARE(again.exitCode, 2);
        QVERIFY2(again.err.contains("holds a report") && again.err.contains("--overwrite"), again.err.constData());
        QVERIFY(!QFile::exists(out("maps")));
        QCOMPARE(ToolRunning::readAll(out("report/index.html")), before);

        const ToolRunning::Result replaced =
            toolIntoMaps({"--overwrite", "--report", out("report"), clip("a.mkv"), clip("b.mkv")});
        QCOMPARE(replaced.exitCode, 0);
        QVERIFY(ToolRunning::readAll(out("report/index.html")).contains(">b.mkv<"));
        QCOMPARE(entries(outPath()), (QStringList{"maps", "report"}));
    }

    void aFolderOfOtherFilesIsNeverUsed()
    {
        QVERIFY(QDir().mkpath(out("mine")));
        QVERIFY(writeText(out("mine/index.html"), "my page"));
        const ToolRunning::Result result = toolIntoMaps({"--overwrite", "--report", out("mine"), clip("a.mkv")});
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.contains(out("mine").toUtf8()), result.err.constData());
        QCOMPARE(ToolRunning::readAll(out("mine/index.html")), QByteArray("my page"));
        QCOMPARE(entries(out("mine")), QStringList{"index.html"});
    }

    void aFolderThatCannotBeWrittenFailsTheRunButTheMapsAreWritten()
    {
        QVERIFY(writeText(out("blocker"), "a file"));
        const ToolRunning::Result result = toolIntoMaps({"--report", out("blocker/report"), clip("a.mkv")});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("Can't write report folder") && result.err.contains(out("blocker/report").toUtf8()),
                 result.err.constData());
        QVERIFY(QFile::exists(out("maps/a.png")));
        QVERIFY(QFile::exists(out("maps/a.json")));
    }

    // Cards of one report compare: a manifest's card is drawn as its video's is in the same
    // run, whatever --scale says, and its legend covers the window the manifest records.
    void aManifestsCardIsTheVideosCardPixelForPixel_data()
    {
        QTest::addColumn<QString>("clipName");
        QTest::addColumn<QStringList>("options");
        QTest::newRow("window's count, wrapped") << "wrap.mkv" << QStringList{};
        QTest::newRow("scale auto") << "a.mkv" << QStringList{"--scale", "auto"};
        QTest::newRow("scale 3") << "a.mkv" << QStringList{"--scale", "3"};
        QTest::newRow("scale auto from 0.5 s") << "b.mkv" << QStringList{"--scale", "auto", "--start", "0.5"};
    }

    void aManifestsCardIsTheVideosCardPixelForPixel()
    {
        QFETCH(QString, clipName);
        QFETCH(QStringList, options);
        if (clipName == QLatin1String("wrap.mkv") && !QFile::exists(clip(clipName)))
            QVERIFY(makeWrappingClip(clip(clipName)));
        // The manifest is made from a copy of the video under the same name elsewhere: a video
        // and its own manifest are one input, which --combine counts once.
        const QString copy = clip("copy/" + clipName);
        QVERIFY(QDir(clip("copy")).mkpath("."));
        QVERIFY(QFile::exists(copy) || QFile::copy(clip(clipName), copy));
        const QString manifest = out("data/" + QFileInfo(clipName).baseName() + ".json");
        QVERIFY(QDir(out("data")).mkpath("."));
        QCOMPARE(ToolRunning::run(QStringList{"--quiet", "--data", "-o", out("data")} + options + QStringList{copy})
                     .exitCode,
                 0);
        const ToolRunning::Result result = toolIntoMaps(QStringList{"--combine", "both", "--report", out("report")}
                                                        + options + QStringList{clip(clipName), manifest});
        QCOMPARE(result.exitCode, 0);
        // Card 1 is the video's, card 2 its manifest's.
        QCOMPARE(rgb(out("report/maps/2.png")), rgb(out("report/maps/1.png")));
        QCOMPARE(rgb(out("report/maps/2.legend.png")), rgb(out("report/maps/1.legend.png")));
        if (options.isEmpty()) {
            // Drawn as the window draws it: the map the run writes alone for the video.
            QCOMPARE(rgb(out("report/maps/2.png")), rgb(out("data/wrap.png")));
        }
    }

    void theReportsFolderCannotBeTheMapsFolderNorHoldIt_data()
    {
        QTest::addColumn<QString>("maps");
        QTest::addColumn<QString>("report");
        QTest::newRow("the same") << "shared" << "shared";
        QTest::newRow("spelt otherwise") << "shared" << "./shared/../shared/";
        QTest::newRow("maps inside") << "shared/maps" << "shared";
    }

    void theReportsFolderCannotBeTheMapsFolderNorHoldIt()
    {
        QFETCH(QString, maps);
        QFETCH(QString, report);
        const ToolRunning::Result result =
            ToolRunning::run({"--quiet", "-o", out(maps), "--report", out(report), clip("a.mkv")});
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.startsWith("tremora-map: --report") && result.err.contains("folder of its own"),
                 result.err.constData());
        QCOMPARE(entries(outPath()), QStringList());
    }

    void aReportFolderThatIsAFileSpeltAsAFolderIsRefusedBeforeAnything()
    {
        QVERIFY(writeText(out("blocker"), "a file"));
        const ToolRunning::Result result = toolIntoMaps({"--report", out("blocker/."), clip("a.mkv")});
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.contains("is a file"), result.err.constData());
        QVERIFY(!QFile::exists(out("maps")));
        QCOMPARE(ToolRunning::readAll(out("blocker")), QByteArray("a file"));
    }

    void aReportUnderAFileFailsButSlicesAndCombinedMapsAreWritten_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QString>("written");
        QTest::newRow("slices") << QStringList{"--slice", "1s"} << "b.slice-00h00m01s.png";
        QTest::newRow("combined") << QStringList{"--combine", "both"} << "both.png";
    }

    void aReportUnderAFileFailsButSlicesAndCombinedMapsAreWritten()
    {
        QFETCH(QStringList, options);
        QFETCH(QString, written);
        QVERIFY(writeText(out("blocker"), "a file"));
        const ToolRunning::Result result =
            toolIntoMaps(options + QStringList{"--report", out("blocker/report"), clip("b.mkv")});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("Can't write report folder"), result.err.constData());
        QVERIFY(QFile::exists(out("maps/" + written)));
    }

    void aVideoWithTimesBeyondAnyRecordingFailsAloneAndTheReportShowsWhy()
    {
        QVERIFY(ToolRunning::makeFarTimestampClip(clip("far.mkv")));
        const ToolRunning::Result result = toolIntoMaps({"--report", out("report"), clip("far.mkv"), clip("a.mkv")});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("far.mkv") && result.err.contains("1e+12 seconds")
                     && result.err.contains("beyond any real recording"),
                 result.err.constData());
        QVERIFY(QFile::exists(out("maps/a.png")));
        QVERIFY(!QFile::exists(out("maps/far.png")));
        const QByteArray page = ToolRunning::readAll(out("report/index.html"));
        QCOMPARE(page.count("class=\"outcome failed\""), 1);
        QVERIFY(page.contains("beyond any real recording"));
    }

    void aManifestWhoseTimesLieBeyondAnyRecordingFailsItsCard()
    {
        QVERIFY(ToolRunning::makeFarTimestampClip(clip("far.mkv")));
        QVERIFY(QDir(out("data")).mkpath("."));
        // Without slices or a report nothing numbers its seconds, so its data are written.
        QCOMPARE(ToolRunning::run({"--quiet", "--data", "-o", out("data"), clip("far.mkv")}).exitCode, 0);
        const ToolRunning::Result result =
            toolIntoMaps({"--combine", "both", "--report", out("report"), out("data/far.json")});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("far.activity.csv") && result.err.contains("beyond any real recording"),
                 result.err.constData());
    }

    void inSteadyLightEveryKindOfCardCountsItsSceneChanges()
    {
        QVERIFY(makeSceneChangeClip(clip("lamp.mkv")));
        QVERIFY(QFile::copy(clip("lamp.mkv"), clip("lamp2.mkv")));
        ToolRunning::Result result =
            toolIntoMaps({"--steady-light", "--slice", "2s", "--report", out("sliced"), clip("lamp.mkv")});
        QVERIFY2(result.exitCode == 0, result.err.constData());
        // The video's card, the slice before the change and the slice that begins with it.
        QCOMPARE(sceneChangeFigures(ToolRunning::readAll(out("sliced/index.html"))),
                 (QMap<QString, QString>{{"card-1", "1"}, {"card-s1", "0"}, {"card-s2", "1"}}));
        const QStringList rows = activityRows(out("sliced/data/1.activity.js"));
        QCOMPARE(rows.size(), 4);
        QVERIFY2(rows[2].startsWith(QStringLiteral("2,")) && rows[2].endsWith(QStringLiteral(",1")), qPrintable(rows[2]));
        for (const int second : {0, 1, 3})
            QVERIFY2(rows[second].count(QLatin1Char(',')) == 3 && rows[second].endsWith(QStringLiteral(",0")),
                     qPrintable(rows[second]));

        result = toolIntoMaps({"--steady-light", "--combine", "both", "--report", out("combined"), clip("lamp.mkv"),
                               clip("lamp2.mkv")});
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QCOMPARE(sceneChangeFigures(ToolRunning::readAll(out("combined/index.html"))),
                 (QMap<QString, QString>{{"card-1", "1"}, {"card-2", "1"}, {"card-c", "2"}}));

        // A manifest counted in steady light keeps its count, and its data its scene change,
        // in a run without the option.
        QVERIFY(renew());
        result = tool({"--steady-light", "--data", clip("lamp.mkv")});
        QVERIFY2(result.exitCode == 0, result.err.constData());
        result = toolIntoMaps({"--combine", "again", "--report", out("manifest"), out("lamp.json")});
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QCOMPARE(sceneChangeFigures(ToolRunning::readAll(out("manifest/index.html"))),
                 (QMap<QString, QString>{{"card-1", "1"}, {"card-c", "1"}}));
        QCOMPARE(activityRows(out("manifest/data/1.activity.js")), rows);
    }

    void withoutSteadyLightNoCardCountsSceneChanges()
    {
        QVERIFY(makeSceneChangeClip(clip("lamp.mkv")));
        const ToolRunning::Result result = toolIntoMaps({"--slice", "2s", "--report", out("plain"), clip("lamp.mkv")});
        QVERIFY2(result.exitCode == 0, result.err.constData());
        const QByteArray page = ToolRunning::readAll(out("plain/index.html"));
        QVERIFY(page.contains("id=\"card-s1\""));
        QVERIFY(sceneChangeFigures(page).isEmpty());
        const QStringList rows = activityRows(out("plain/data/1.activity.js"));
        QCOMPARE(rows.size(), 4);
        for (const QString& row : rows)
            QVERIFY2(row.count(QLatin1Char(',')) == 2, qPrintable(row));
    }

    void anEmptyReportFolderNameIsAUsageError()
    {
        const ToolRunning::Result result = toolIntoMaps({"--report", "", clip("a.mkv")});
        QCOMPARE(result.exitCode, 2);
        QVERIFY(result.err.contains("report folder"));
        QVERIFY(!QFile::exists(out("maps")));
    }
};

QTEST_GUILESS_MAIN(TremoraMapReportTest)
#include "TremoraMapReportTest.moc"
