#include "MapScale.h"
#include "MotionMap.h"
#include "TestSupport.h"
#include "ToolRunning.h"

#include <QDir>
#include <QImage>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cstring>

// The executable's maps per slice of time (--slice).
namespace {

using ToolRunning::entries;
using ToolRunning::readBackground;
using ToolRunning::readAll;
using ToolRunning::readEvents;

// 4 s at 25 frames a second of a still grey picture, with noise from 2 s on: every event
// lies in the second half. `created`, when given, is recorded as the container's creation time.
bool makeSecondHalfClip(const QString& path, const QString& created = QString())
{
    QStringList arguments{"-f", "lavfi", "-i",
                          "color=c=gray:size=96x64:rate=25,noise=alls=80:allf=t:enable='gte(t,2)'",
                          "-frames:v", "100", "-c:v", "ffv1"};
    if (!created.isEmpty())
        arguments << "-metadata" << "creation_time=" + created;
    return TestSupport::runFfmpeg(arguments << path);
}

// 25 hours at one frame a minute, recorded from 09:30 UTC: noise in the first three minutes
// of the first hour and of the hour a day later, still grey otherwise, so both hours hold
// events and their slices of an hour share a clock time.
bool makeDayApartClip(const QString& path)
{
    return TestSupport::runFfmpeg({"-f", "lavfi", "-i",
                                   "color=c=gray:size=32x24:rate=1/60,noise=alls=80:allf=t:enable='lt(mod(t,86400),180)'",
                                   "-frames:v", "1500", "-c:v", "ffv1", "-metadata",
                                   "creation_time=2026-01-02T09:30:00.000000Z", path});
}

// 4 s at 25 frames a second of a still blue-grey picture with noise from 1 s on, so that its
// slices of 2 s hold different amounts of events over another background than the grey clip's.
bool makeBusyClip(const QString& path)
{
    return TestSupport::runFfmpeg({"-f", "lavfi", "-i",
                                   "color=c=0x3060a0:size=96x64:rate=25,noise=alls=60:allf=t:enable='gte(t,1)'",
                                   "-frames:v", "100", "-c:v", "ffv1", path});
}

// 10 s at 25 frames a second of a blue-grey picture with a burst of noise every 2.5 s, further
// apart than the pairs that end an event: every burst is a new event, so a slice of 5 s holds
// two at each pixel where the grey clip's hold one.
bool makePulseClip(const QString& path)
{
    return TestSupport::runFfmpeg({"-f", "lavfi", "-i",
                                   "color=c=0x3060a0:size=96x64:rate=25,noise=alls=80:allf=t:enable='lt(mod(t,2.5),0.2)'",
                                   "-frames:v", "250", "-c:v", "ffv1", path});
}

cv::Mat sumOf(const std::vector<cv::Mat>& planes)
{
    cv::Mat sum = cv::Mat::zeros(planes.front().size(), CV_32SC1);
    for (const cv::Mat& plane : planes)
        sum += plane;
    return sum;
}

QImage mapFile(const QString& path)
{
    return QImage(path).convertToFormat(QImage::Format_RGB888);
}

} // namespace

class TremoraMapSliceTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

public:
    // A run that hangs fails its own test function before this test's time limit is up.
    TremoraMapSliceTest() : Folders(60000) {}

private:
    using Folders::clip;
    QString clip() const { return clip("half.mkv"); }

private slots:
    void initTestCase()
    {
        QVERIFY(clipsReady());
        QVERIFY(makeSecondHalfClip(clip()));
        QVERIFY(makeSecondHalfClip(clip("dated.mkv"), "2026-01-02T09:30:00.000000Z"));
        QVERIFY(makeSecondHalfClip(clip("later.mkv"), "2026-01-02T09:30:01.000000Z"));
        QVERIFY(makeBusyClip(clip("busy.mkv")));
        QVERIFY(makePulseClip(clip("pulse.mkv")));
    }

    void slicesADayApartThatShareAClockNameAreNotWrittenOverEachOther()
    {
        const QString day = clip("day.mkv");
        QVERIFY(makeDayApartClip(day));
        const ToolRunning::Result result = tool({"--slice", "1h", "--overwrite", "--data", day});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("day.slice-09h30m00s.png") && result.err.contains("a day apart"),
                 result.err.constData());
        // The length the container records tells before the analysis: the video's data,
        // which its pass would write, are not there either.
        QVERIFY2(result.err.contains("'" + day.toUtf8() + "' is not analysed"), result.err.constData());
        QCOMPARE(entries(outPath()), QStringList());
    }

    void combinedSlicesADayApartAreFoundBeforeTheAnalysis()
    {
        const QString day = clip("day.mkv");
        QVERIFY(QFile::exists(day) || makeDayApartClip(day));
        const ToolRunning::Result result = tool({"--slice", "1h", "--data", "--combine", "days", day});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("days.slice-09h30m00s.png") && result.err.contains("a day apart")
                     && result.err.contains("nothing is combined"),
                 result.err.constData());
        QCOMPARE(entries(outPath()), QStringList());
    }

    void init()
    {
        QVERIFY(renew());
    }

    void aSliceWithoutMotionIsNotWrittenAndTheHotOneHoldsEveryEvent()
    {
        QCOMPARE(tool({"--data", "--scale", "4", clip()}).exitCode, 0);
        const cv::Mat events = readEvents(out("half.events.png"));
        QVERIFY(cv::countNonZero(events) > 100);
        const QImage whole = MotionMap::render(events, readBackground(out("half.background.png")), 4.0);

        renew();
        QCOMPARE(tool({"--slice", "2s", "--scale", "4", clip()}).exitCode, 0);
        QCOMPARE(entries(outPath()), QStringList{"half.slice-00h00m02s.png"});
        QCOMPARE(QImage(out("half.slice-00h00m02s.png")).convertToFormat(QImage::Format_RGB888), whole);
    }

    void slicesAreNamedByTheirStartFromTheVideosStart()
    {
        QCOMPARE(tool({"--slice", "1", "--format", "bmp", clip()}).exitCode, 0);
        QCOMPARE(entries(outPath()), (QStringList{"half.slice-00h00m02s.bmp", "half.slice-00h00m03s.bmp"}));
        for (const QString& name : entries(outPath()))
            QVERIFY(!QImage(out(name)).isNull());
    }

    void slicesAreNamedByClockTimeWhenTheVideoRecordsIt()
    {
        QCOMPARE(tool({"--slice", "1s", clip("dated.mkv")}).exitCode, 0);
        QCOMPARE(entries(outPath()), (QStringList{"dated.slice-09h30m02s.png", "dated.slice-09h30m03s.png"}));
    }

    void anExistingSliceIsReplacedOnlyWhenAsked()
    {
        QFile earlier(out("half.slice-00h00m02s.png"));
        QVERIFY(earlier.open(QIODevice::WriteOnly));
        earlier.write("earlier");
        earlier.close();
        const ToolRunning::Result refused = tool({"--slice", "2s", "--data", clip()});
        QCOMPARE(refused.exitCode, 1);
        QVERIFY2(refused.err.contains("half.slice-00h00m02s.png' exists; '" + clip().toUtf8() + "' is not analysed"),
                 refused.err.constData());
        QCOMPARE(readAll(out("half.slice-00h00m02s.png")), QByteArray("earlier"));
        // Found before the analysis: none of the video's data was written.
        QCOMPARE(entries(outPath()), QStringList{"half.slice-00h00m02s.png"});
        QCOMPARE(tool({"--slice", "2s", "--overwrite", clip()}).exitCode, 0);
        QVERIFY(!QImage(out("half.slice-00h00m02s.png")).isNull());
    }

    void anExistingCombinedSliceStopsTheCombinationBeforeTheAnalysis()
    {
        QFile earlier(out("both.slice-00h00m04s.png"));
        QVERIFY(earlier.open(QIODevice::WriteOnly));
        earlier.write("earlier");
        earlier.close();
        // Back to back, the second clip's second half starts at 6 s.
        const ToolRunning::Result result = tool({"--slice", "2s", "--data", "--combine", "both", clip(), clip("busy.mkv")});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("both.slice-00h00m04s.png' exists; nothing is combined"), result.err.constData());
        QCOMPARE(entries(outPath()), QStringList{"both.slice-00h00m04s.png"});
        QCOMPARE(readAll(out("both.slice-00h00m04s.png")), QByteArray("earlier"));
    }

    // Names are taken as they are: nothing in them is a placeholder for the slice's start.
    void slicesOfNamesWithPercentSignsAndBracesKeepThoseNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("%1") << "cam%1";
        QTest::newRow("%0") << "x%0";
        QTest::newRow("%% and {}") << "y%%{}";
    }

    void slicesOfNamesWithPercentSignsAndBracesKeepThoseNames()
    {
        QFETCH(QString, name);
        const QString video = clip(name + ".mkv");
        QVERIFY(QFile::exists(video) || QFile::copy(clip(), video));
        const QString folder = out("maps %1");
        const ToolRunning::Result result = tool({"--slice", "2s", "--legend", "--data", "-o", folder, video});
        QCOMPARE(result.exitCode, 0);
        const QString slice = name + ".slice-00h00m02s";
        QCOMPARE(entries(folder), (QStringList{name + ".activity.csv", name + ".background.png", name + ".events.png",
                                               name + ".json", slice + ".events.png", slice + ".legend.png",
                                               slice + ".png"}));
    }

    void aVideoWithTimesBeyondAnyRecordingFailsAloneWhenSliced()
    {
        QVERIFY(ToolRunning::makeFarTimestampClip(clip("far.mkv")));
        const ToolRunning::Result result = tool({"--slice", "1s", clip("far.mkv"), clip()});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("far.mkv") && result.err.contains("1e+12 seconds from its start")
                     && result.err.contains("beyond any real recording"),
                 result.err.constData());
        QCOMPARE(entries(outPath()), (QStringList{"half.slice-00h00m02s.png", "half.slice-00h00m03s.png"}));
    }

    void twoVideosOfOneNameDoNotWriteTheSameSlices()
    {
        QDir(clipsPath()).mkpath("other");
        const QString twin = clip("other/half.mkv");
        QVERIFY(QFile::exists(twin) || QFile::copy(clip(), twin));
        const ToolRunning::Result result = tool({"--slice", "2s", clip(), twin});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("would both write"), result.err.constData());
        QCOMPARE(entries(outPath()), QStringList{"half.slice-00h00m02s.png"});
    }

    void slicesWithDataKeepTheirExactCountsWhichAddUpToTheVideos()
    {
        QCOMPARE(tool({"--data", "--slice", "1s", clip()}).exitCode, 0);
        const QStringList slices{"half.slice-00h00m02s", "half.slice-00h00m03s"};
        for (const QString& slice : slices)
            QVERIFY2(entries(outPath()).contains(slice + ".events.png"), qPrintable(slice));
        QVERIFY(!QFile::exists(out("half.png")));
        const cv::Mat background = readBackground(out("half.background.png"));
        std::vector<cv::Mat> events;
        for (const QString& slice : slices) {
            events.push_back(readEvents(out(slice + ".events.png")));
            QVERIFY(cv::countNonZero(events.back()) > 0);
            QCOMPARE(mapFile(out(slice + ".png")),
                     MotionMap::render(events.back(), background, MotionMap::kDefaultScale));
        }
        QCOMPARE(cv::norm(sumOf(events), readEvents(out("half.events.png")), cv::NORM_INF), 0.0);
    }

    void autoScaleIsChosenOverEverySliceOfTheRun()
    {
        const QString pulse = clip("pulse.mkv");
        QCOMPARE(tool({"--data", "--slice", "5s", "--scale", "auto", clip(), pulse}).exitCode, 0);
        const QList<QPair<QString, QString>> slices{{"half.slice-00h00m00s", "half"},
                                                    {"pulse.slice-00h00m00s", "pulse"},
                                                    {"pulse.slice-00h00m05s", "pulse"}};
        std::vector<cv::Mat> events;
        for (const auto& slice : slices)
            events.push_back(readEvents(out(slice.first + ".events.png")));
        const double scale = MapScale::percentileOfNonZero(events, 99.0);
        // Each slice on a scale of its own would differ: the test tells the two apart.
        QVERIFY(std::any_of(events.begin(), events.end(),
                            [&](const cv::Mat& plane) { return MapScale::automatic({plane}) != scale; }));
        for (int i = 0; i < slices.size(); ++i) {
            const cv::Mat background = readBackground(out(slices[i].second + ".background.png"));
            QCOMPARE(mapFile(out(slices[i].first + ".png")),
                     MotionMap::render(events[static_cast<size_t>(i)], background, scale));
        }
    }

    void eachSliceHasItsLegendWithTheSliceMapAboveIt()
    {
        QCOMPARE(tool({"--legend", "--slice", "2s", clip()}).exitCode, 0);
        QCOMPARE(entries(outPath()),
                 (QStringList{"half.slice-00h00m02s.legend.png", "half.slice-00h00m02s.png"}));
        const QImage map = mapFile(out("half.slice-00h00m02s.png"));
        const QImage legend = mapFile(out("half.slice-00h00m02s.legend.png"));
        QVERIFY(legend.height() > map.height());
        // A map narrower than the strip sits centred above it.
        const int left = (legend.width() - map.width()) / 2;
        QCOMPARE(legend.copy(left, 0, map.width(), map.height()), map);
    }

    void combinedSlicesRunBackToBackOverTheBackgroundOfTheInputTheyStartIn()
    {
        const QString busy = clip("busy.mkv");
        // Each video's own slices, for the combined ones to meet.
        QTemporaryDir alone;
        QCOMPARE(toolInto(alone.path(), {"--data", "--slice", "2s", clip(), busy}).exitCode, 0);
        QCOMPARE(tool({"--combine", "all", "--data", "--slice", "2s", clip(), busy}).exitCode, 0);
        // The grey clip covers 0-4 s of the line and the busy one 4-8 s.
        QCOMPARE(entries(outPath()),
                 (QStringList{"all.activity.csv", "all.events.png", "all.json", "all.slice-00h00m02s.events.png",
                              "all.slice-00h00m02s.png", "all.slice-00h00m04s.events.png", "all.slice-00h00m04s.png",
                              "all.slice-00h00m06s.events.png", "all.slice-00h00m06s.png"}));
        const QList<QPair<QString, QString>> meets{{"all.slice-00h00m02s", "half.slice-00h00m02s"},
                                                   {"all.slice-00h00m04s", "busy.slice-00h00m00s"},
                                                   {"all.slice-00h00m06s", "busy.slice-00h00m02s"}};
        for (const auto& [combined, own] : meets) {
            QCOMPARE(cv::norm(readEvents(out(combined + ".events.png")), readEvents(alone.filePath(own + ".events.png")),
                              cv::NORM_INF),
                     0.0);
            QCOMPARE(mapFile(out(combined + ".png")), mapFile(alone.filePath(own + ".png")));
        }
    }

    void combinedSlicesFollowClockTimesAndAddUpInputsThatOverlap()
    {
        // The later clip starts a second after the first: its events of 2-3 s fall in the
        // line's slice 2-4 s with all of the first clip's, those of 3-4 s in the next.
        const QString first = clip("dated.mkv");
        const QString later = clip("later.mkv");
        QTemporaryDir alone;
        QCOMPARE(toolInto(alone.path(), {"--data", "--slice", "1s", later}).exitCode, 0);
        QCOMPARE(toolInto(alone.path(), {"--data", first}).exitCode, 0);
        QCOMPARE(tool({"--combine", "day", "--data", "--slice", "2s", first, later}).exitCode, 0);
        QCOMPARE(entries(outPath()).filter("slice"),
                 (QStringList{"day.slice-09h30m02s.events.png", "day.slice-09h30m02s.png",
                              "day.slice-09h30m04s.events.png", "day.slice-09h30m04s.png"}));
        const cv::Mat expectedFirst =
            readEvents(alone.filePath("dated.events.png")) + readEvents(alone.filePath("later.slice-09h30m03s.events.png"));
        QCOMPARE(cv::norm(readEvents(out("day.slice-09h30m02s.events.png")), expectedFirst, cv::NORM_INF), 0.0);
        QCOMPARE(cv::norm(readEvents(out("day.slice-09h30m04s.events.png")),
                          readEvents(alone.filePath("later.slice-09h30m04s.events.png")), cv::NORM_INF),
                 0.0);
        QCOMPARE(mapFile(out("day.slice-09h30m02s.png")),
                 MotionMap::render(expectedFirst, readBackground(alone.filePath("dated.background.png")),
                                   MotionMap::kDefaultScale));
    }

    void badSlicesAreUsageErrorsAndWriteNothing_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("message");
        QTest::newRow("zero") << QStringList{"--slice", "0"} << QByteArray("Bad duration '0' for --slice");
        QTest::newRow("negative") << QStringList{"--slice=-5m"} << QByteArray("Bad duration '-5m' for --slice");
        QTest::newRow("malformed") << QStringList{"--slice", "ten"} << QByteArray("Bad duration 'ten' for --slice");
        QTest::newRow("a manifest") << QStringList{"--slice", "1m", "--combine", "all", "half.json"}
                                    << QByteArray("--slice needs the videos: 'half.json' is a manifest");
    }

    void badSlicesAreUsageErrorsAndWriteNothing()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, message);
        const ToolRunning::Result result = tool(arguments << clip());
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.startsWith("tremora-map: " + message), result.err.constData());
        const QList<QByteArray> lines = result.err.split('\n');
        QCOMPARE(lines.size(), 3);
        QVERIFY2(lines[1].startsWith("Try 'tremora-map --help'"), result.err.constData());
        QVERIFY(entries(outPath()).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TremoraMapSliceTest)
#include "TremoraMapSliceTest.moc"
