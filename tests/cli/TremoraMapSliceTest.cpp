#include "MotionMap.h"
#include "TestSupport.h"
#include "ToolRunning.h"

#include <QDir>
#include <QImage>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>

#include <cstring>
#include <memory>

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

} // namespace

class TremoraMapSliceTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_clips;
    std::unique_ptr<QTemporaryDir> m_out;

    QString clip() const { return m_clips.filePath("half.mkv"); }
    QString out(const QString& name) const { return m_out->filePath(name); }

    ToolRunning::Result tool(const QStringList& arguments)
    {
        return ToolRunning::run(QStringList{"--quiet", "--output-dir", m_out->path()} + arguments, 60000);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_clips.isValid());
        QVERIFY(makeSecondHalfClip(clip()));
        QVERIFY(makeSecondHalfClip(m_clips.filePath("dated.mkv"), "2026-01-02T09:30:00.000000Z"));
    }

    void slicesADayApartThatShareAClockNameAreNotWrittenOverEachOther()
    {
        const QString clip = m_clips.filePath("day.mkv");
        QVERIFY(makeDayApartClip(clip));
        const ToolRunning::Result result = tool({"--slice", "1h", "--overwrite", clip});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("day.slice-09h30m00s.png") && result.err.contains("a day apart"),
                 result.err.constData());
        QCOMPARE(entries(m_out->path()), QStringList());
    }

    void init()
    {
        m_out = std::make_unique<QTemporaryDir>();
        QVERIFY(m_out->isValid());
    }

    void aSliceWithoutMotionIsNotWrittenAndTheHotOneHoldsEveryEvent()
    {
        QCOMPARE(tool({"--data", "--scale", "4", clip()}).exitCode, 0);
        const cv::Mat events = readEvents(out("half.events.png"));
        QVERIFY(cv::countNonZero(events) > 100);
        const QImage whole = MotionMap::render(events, readBackground(out("half.background.png")), 4.0);

        m_out = std::make_unique<QTemporaryDir>();
        QCOMPARE(tool({"--slice", "2s", "--scale", "4", clip()}).exitCode, 0);
        QCOMPARE(entries(m_out->path()), QStringList{"half.slice-00h00m02s.png"});
        QCOMPARE(QImage(out("half.slice-00h00m02s.png")).convertToFormat(QImage::Format_RGB888), whole);
    }

    void slicesAreNamedByTheirStartFromTheVideosStart()
    {
        QCOMPARE(tool({"--slice", "1", "--format", "bmp", clip()}).exitCode, 0);
        QCOMPARE(entries(m_out->path()), (QStringList{"half.slice-00h00m02s.bmp", "half.slice-00h00m03s.bmp"}));
        for (const QString& name : entries(m_out->path()))
            QVERIFY(!QImage(out(name)).isNull());
    }

    void slicesAreNamedByClockTimeWhenTheVideoRecordsIt()
    {
        QCOMPARE(tool({"--slice", "1s", m_clips.filePath("dated.mkv")}).exitCode, 0);
        QCOMPARE(entries(m_out->path()), (QStringList{"dated.slice-09h30m02s.png", "dated.slice-09h30m03s.png"}));
    }

    void anExistingSliceIsReplacedOnlyWhenAsked()
    {
        QFile earlier(out("half.slice-00h00m02s.png"));
        QVERIFY(earlier.open(QIODevice::WriteOnly));
        earlier.write("earlier");
        earlier.close();
        const ToolRunning::Result refused = tool({"--slice", "2s", clip()});
        QCOMPARE(refused.exitCode, 1);
        QVERIFY2(refused.err.contains("exists; not replaced"), refused.err.constData());
        QCOMPARE(readAll(out("half.slice-00h00m02s.png")), QByteArray("earlier"));
        QCOMPARE(tool({"--slice", "2s", "--overwrite", clip()}).exitCode, 0);
        QVERIFY(!QImage(out("half.slice-00h00m02s.png")).isNull());
    }

    void twoVideosOfOneNameDoNotWriteTheSameSlices()
    {
        QDir(m_clips.path()).mkpath("other");
        const QString twin = m_clips.filePath("other/half.mkv");
        QVERIFY(QFile::exists(twin) || QFile::copy(clip(), twin));
        const ToolRunning::Result result = tool({"--slice", "2s", clip(), twin});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("would both write"), result.err.constData());
        QCOMPARE(entries(m_out->path()), QStringList{"half.slice-00h00m02s.png"});
    }

    void badSlicesAreUsageErrorsAndWriteNothing_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("message");
        QTest::newRow("zero") << QStringList{"--slice", "0"} << QByteArray("Bad duration '0' for --slice");
        QTest::newRow("negative") << QStringList{"--slice=-5m"} << QByteArray("Bad duration '-5m' for --slice");
        QTest::newRow("malformed") << QStringList{"--slice", "ten"} << QByteArray("Bad duration 'ten' for --slice");
        QTest::newRow("with --combine") << QStringList{"--slice", "1m", "--combine", "all"}
                                        << QByteArray("--slice does not apply to --combine");
        QTest::newRow("with --scale auto") << QStringList{"--slice", "1m", "--scale", "auto"}
                                           << QByteArray("--slice does not apply to --scale auto");
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
        QVERIFY(entries(m_out->path()).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TremoraMapSliceTest)
#include "TremoraMapSliceTest.moc"
