#include "ImageFile.h"
#include "TestSupport.h"
#include "ToolRunning.h"
#include "Tremora.h"

#include <QApplication>
#include <QImage>
#include <QtTest>

// A map written by tremora-map is the very file the window saves for the same video: the
// window's job is run here as the window runs it, and its map saved the way the window saves.
namespace {

using ToolRunning::readAll;

// Runs a job to its end on this thread and returns its map, as getResult() hands it to the
// window's export.
QImage windowMap(const QString& video, bool blur)
{
    Tremora job(video, QSize(1280, 720), 300);
    job.setAutoDelete(false);
    job.m_blur = blur;
    job.run();
    if (job.m_state != Tremora::Done)
        return {};
    return job.getResult();
}

} // namespace

class TremoraMapMatchesWindowTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void mapFileEqualsTheWindowsSavedMap_data();
    void mapFileEqualsTheWindowsSavedMap();
    void noBlurMapEqualsTheMapOfAJobWithoutBlur();
    void mapOfAVideoWithoutFramesEqualsTheWindowsBlackMap();
};

void TremoraMapMatchesWindowTest::initTestCase()
{
    QVERIFY(clipsReady());
    // Past the hundred learning pairs and past the job's refresh after 300 pairs, which the
    // tool does not make: neither may change the result.
    QVERIFY(ToolRunning::makeClip(clip("scene.mkv"), 330, QStringLiteral("128x96")));
    QVERIFY(ToolRunning::makeClip(clip("noisy.mkv"), 40, QStringLiteral("96x64"), QStringLiteral(",noise=alls=30:allf=t")));
    QVERIFY(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=25", "-frames:v", "0",
                                    "-c:v", "mpeg4", clip("empty.avi")}));
}

void TremoraMapMatchesWindowTest::init()
{
    QVERIFY(renew());
}

void TremoraMapMatchesWindowTest::mapFileEqualsTheWindowsSavedMap_data()
{
    QTest::addColumn<QString>("format");
    QTest::newRow("png") << "png";
    QTest::newRow("jpg") << "jpg";
    QTest::newRow("bmp") << "bmp";
}

void TremoraMapMatchesWindowTest::mapFileEqualsTheWindowsSavedMap()
{
    QFETCH(QString, format);
    const QImage map = windowMap(clip("scene.mkv"), true);
    QCOMPARE(map.size(), QSize(128, 96));
    const QString windowFile = out("window." + format);
    QVERIFY(Utils::saveImage(map, windowFile));

    const ToolRunning::Result result = ToolRunning::run({"--format", format, "-o", out("tool"), clip("scene.mkv")});
    QCOMPARE(result.exitCode, 0);
    const QString toolFile = out("tool/scene." + format);
    const QByteArray toolBytes = readAll(toolFile);
    QVERIFY(!toolBytes.isEmpty());
    QCOMPARE(toolBytes, readAll(windowFile));
    if (format != QLatin1String("jpg"))
        QCOMPARE(QImage(toolFile).convertToFormat(QImage::Format_RGB888), map);
}

void TremoraMapMatchesWindowTest::noBlurMapEqualsTheMapOfAJobWithoutBlur()
{
    const QImage sharp = windowMap(clip("noisy.mkv"), false);
    const QImage smoothed = windowMap(clip("noisy.mkv"), true);
    QVERIFY(!sharp.isNull());
    QVERIFY(sharp != smoothed);
    QVERIFY(Utils::saveImage(sharp, out("window-sharp.png")));
    QVERIFY(Utils::saveImage(smoothed, out("window-smoothed.png")));

    QCOMPARE(ToolRunning::run({"--no-blur", "-o", out("sharp"), clip("noisy.mkv")}).exitCode, 0);
    QCOMPARE(ToolRunning::run({"-o", out("smoothed"), clip("noisy.mkv")}).exitCode, 0);
    QCOMPARE(readAll(out("sharp/noisy.png")), readAll(out("window-sharp.png")));
    QCOMPARE(readAll(out("smoothed/noisy.png")), readAll(out("window-smoothed.png")));
}

void TremoraMapMatchesWindowTest::mapOfAVideoWithoutFramesEqualsTheWindowsBlackMap()
{
    const QImage map = windowMap(clip("empty.avi"), true);
    QCOMPARE(map.size(), QSize(64, 48));
    QVERIFY(Utils::saveImage(map, out("window.png")));
    QCOMPARE(ToolRunning::run({"-o", out("tool"), clip("empty.avi")}).exitCode, 0);
    QCOMPARE(readAll(out("tool/empty.png")), readAll(out("window.png")));
}

QTEST_MAIN(TremoraMapMatchesWindowTest)
#include "TremoraMapMatchesWindowTest.moc"
