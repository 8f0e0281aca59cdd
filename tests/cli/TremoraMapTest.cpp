#include "MotionMap.h"
#include "TestSupport.h"
#include "ToolRunning.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QImageReader>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

// The real executable, as a user or a script runs it.
namespace {

using ToolRunning::entries;
using ToolRunning::readAll;

constexpr int kSignalTimeoutMs = 60000;

bool write(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QImage rgb(const QString& path)
{
    return QImage(path).convertToFormat(QImage::Format_RGB888);
}

cv::Mat matOf(const QImage& image, int type)
{
    const int channels = type == CV_8UC3 ? 3 : 1;
    cv::Mat mat(image.height(), image.width(), type);
    for (int y = 0; y < image.height(); ++y)
        std::memcpy(mat.ptr(y), image.constScanLine(y), static_cast<size_t>(image.width() * channels));
    return mat;
}

// A pseudo-terminal whose slave side can stand in for a process's standard error.
class PseudoTerminal {
public:
    PseudoTerminal()
        : m_master(::posix_openpt(O_RDWR | O_NOCTTY))
    {
        if (m_master >= 0 && ::grantpt(m_master) == 0 && ::unlockpt(m_master) == 0) {
            m_slaveName = QString::fromLocal8Bit(::ptsname(m_master));
            ::fcntl(m_master, F_SETFL, O_NONBLOCK);
        }
    }
    ~PseudoTerminal()
    {
        if (m_master >= 0)
            ::close(m_master);
    }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    QString slaveName() const { return m_slaveName; }

    QByteArray readAvailable()
    {
        QByteArray data;
        char buffer[4096];
        for (ssize_t n; (n = ::read(m_master, buffer, sizeof buffer)) > 0;)
            data.append(buffer, static_cast<int>(n));
        return data;
    }

private:
    int m_master;
    QString m_slaveName;
};

} // namespace

class TremoraMapTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void helpPrintsTheManualOnStandardOutput();
    void versionPrintsTheVersion_data();
    void versionPrintsTheVersion();
    void usageErrorsExitWithTwoAndWriteNothing_data();
    void usageErrorsExitWithTwoAndWriteNothing();
    void mapIsNamedAfterTheBaseNameBesideTheVideo();
    void relativeVideoGetsItsMapInItsOwnFolder();
    void outputDirIsCreatedAndReceivesTheMaps();
    void existingMapIsLeftUntouchedWithoutOverwrite();
    void overwriteReplacesTheExistingMap();
    void twoInputsWithOneBaseNameWriteOnlyTheFirst();
    void failingInputAmongGoodOnesExitsOneAndWritesTheGoodMaps();
    void unwritableMapIsReportedAndLeavesNothingBehind();
    void jpgAndBmpMapsLoadBack();
    void jobsZeroAnalysesEveryFile();
    void countsAndBackgroundRebuildTheMap();
    void noBlurChangesTheMapOfANoisyClip();
    void videoWithoutFramesGivesABlackMap();
    void quietPrintsNothingButErrors();
    void plainLinesWhenStandardErrorIsNoTerminal();
    void interruptCancelsTheRunningFileAndKeepsEarlierMaps_data();
    void interruptCancelsTheRunningFileAndKeepsEarlierMaps();
    void progressIsRedrawnInPlaceOnATerminal();
    void toolDoesNotNeedTheWidgetsLibrary();
};

void TremoraMapTest::initTestCase()
{
    QVERIFY(clipsReady());
    QVERIFY(QFile::exists(QStringLiteral(TREMORA_MAP_EXECUTABLE)));
    QVERIFY(ToolRunning::makeClip(clip("clip.part1.mkv"), 40));
    QVERIFY(ToolRunning::makeClip(clip("other.mkv"), 30, QStringLiteral("80x60")));
    QVERIFY(ToolRunning::makeClip(clip("noisy.mkv"), 30, QStringLiteral("96x64"), QStringLiteral(",noise=alls=30:allf=t")));
    QVERIFY(QDir(clipsPath()).mkpath("second"));
    QVERIFY(ToolRunning::makeClip(clip("second/clip.mkv"), 25, QStringLiteral("64x48")));
    // Long enough to be still running when the test reacts to its start.
    QVERIFY(ToolRunning::makeClip(clip("long.mkv"), 1500, QStringLiteral("320x240")));
    QVERIFY(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=25", "-frames:v", "0",
                                    "-c:v", "mpeg4", clip("empty.avi")}));
}

void TremoraMapTest::init()
{
    QVERIFY(renew());
}

void TremoraMapTest::helpPrintsTheManualOnStandardOutput()
{
    const ToolRunning::Result result = ToolRunning::run({"--help"});
    QVERIFY(result.finished);
    QCOMPARE(result.exitCode, 0);
    QVERIFY(result.out.startsWith("Usage: tremora-map [OPTIONS] VIDEO...\n"));
    QVERIFY(result.out.contains("--output-dir DIR"));
    QVERIFY(result.out.contains("Exit status:"));
    QVERIFY(result.err.isEmpty());
}

void TremoraMapTest::versionPrintsTheVersion_data()
{
    QTest::addColumn<QString>("option");
    QTest::newRow("long") << "--version";
    QTest::newRow("short") << "-v";
}

void TremoraMapTest::versionPrintsTheVersion()
{
    QFETCH(QString, option);
    const ToolRunning::Result result = ToolRunning::run({option});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QByteArray("tremora-map 1.0.8\n"));
    QVERIFY(result.err.isEmpty());
}

void TremoraMapTest::usageErrorsExitWithTwoAndWriteNothing_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("mentioned");
    QTest::newRow("no video") << QStringList{} << QByteArray("No video");
    QTest::newRow("unknown option") << QStringList{"--colour", "VIDEO"} << QByteArray("colour");
    QTest::newRow("missing value") << QStringList{"VIDEO", "--format"} << QByteArray("format");
    QTest::newRow("bad format") << QStringList{"--format", "gif", "VIDEO"} << QByteArray("gif");
    QTest::newRow("bad jobs") << QStringList{"--jobs", "many", "VIDEO"} << QByteArray("many");
    QTest::newRow("negative jobs") << QStringList{"--jobs", "-2", "VIDEO"} << QByteArray("-2");
}

void TremoraMapTest::usageErrorsExitWithTwoAndWriteNothing()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, mentioned);
    arguments.replaceInStrings(QStringLiteral("VIDEO"), clip("clip.part1.mkv"));
    const ToolRunning::Result result = ToolRunning::run(QStringList{"--output-dir", outPath()} + arguments);
    QVERIFY(result.finished);
    QCOMPARE(result.exitCode, 2);
    QVERIFY(result.out.isEmpty());
    QVERIFY2(result.err.startsWith("tremora-map: "), result.err.constData());
    QVERIFY2(result.err.contains(mentioned), result.err.constData());
    QVERIFY(result.err.contains("Try 'tremora-map --help' for more information.\n"));
    QVERIFY(entries(outPath()).isEmpty());
}

void TremoraMapTest::mapIsNamedAfterTheBaseNameBesideTheVideo()
{
    QTemporaryDir folder;
    const QString video = QDir(folder.path()).filePath("clip.part1.mkv");
    QVERIFY(QFile::copy(clip("clip.part1.mkv"), video));
    const ToolRunning::Result result = ToolRunning::run({video});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(entries(folder.path()), (QStringList{"clip.part1.mkv", "clip.png"}));
    QCOMPARE(QImage(QDir(folder.path()).filePath("clip.png")).size(), QSize(96, 64));
    QVERIFY(result.err.contains(video.toUtf8() + ": done -> " + QDir(folder.path()).filePath("clip.png").toUtf8() + "\n"));
}

void TremoraMapTest::relativeVideoGetsItsMapInItsOwnFolder()
{
    QProcess process;
    process.setWorkingDirectory(clipsPath());
    process.start(QStringLiteral(TREMORA_MAP_EXECUTABLE), {"--quiet", "second/clip.mkv"});
    QVERIFY(process.waitForFinished(60000));
    QCOMPARE(process.exitCode(), 0);
    const QString map = clip("second/clip.png");
    QCOMPARE(QImage(map).size(), QSize(64, 48));
    QVERIFY(QFile::remove(map));
}

void TremoraMapTest::outputDirIsCreatedAndReceivesTheMaps()
{
    const QString maps = out("made/for/maps");
    const ToolRunning::Result result = ToolRunning::run({"-o", maps, clip("clip.part1.mkv"), clip("other.mkv")});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(entries(maps), (QStringList{"clip.png", "other.png"}));
    QCOMPARE(QImage(QDir(maps).filePath("other.png")).size(), QSize(80, 60));
    QVERIFY(!QFile::exists(clip("clip.png")));
}

void TremoraMapTest::existingMapIsLeftUntouchedWithoutOverwrite()
{
    const QByteArray precious("not a map, but someone's file");
    QVERIFY(write(out("clip.png"), precious));
    const ToolRunning::Result result = ToolRunning::run({"-o", outPath(), clip("clip.part1.mkv"), clip("other.mkv")});
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(readAll(out("clip.png")), precious);
    QVERIFY(result.err.contains(out("clip.png").toUtf8()));
    QVERIFY(!result.err.contains(clip("clip.part1.mkv").toUtf8() + ": started"));
    QCOMPARE(entries(outPath()), (QStringList{"clip.png", "other.png"}));
}

void TremoraMapTest::overwriteReplacesTheExistingMap()
{
    QVERIFY(write(out("clip.png"), "an old map"));
    const ToolRunning::Result result = ToolRunning::run({"--overwrite", "-o", outPath(), clip("clip.part1.mkv")});
    QCOMPARE(result.exitCode, 0);
    const QImage map(out("clip.png"));
    QCOMPARE(map.size(), QSize(96, 64));
    QCOMPARE(entries(outPath()), QStringList{"clip.png"});
}

void TremoraMapTest::twoInputsWithOneBaseNameWriteOnlyTheFirst()
{
    QTemporaryDir alone;
    QCOMPARE(ToolRunning::run({"-o", alone.path(), clip("clip.part1.mkv")}).exitCode, 0);
    const QByteArray firstAlone = readAll(QDir(alone.path()).filePath("clip.png"));

    const ToolRunning::Result result = ToolRunning::run({"-o", outPath(), clip("clip.part1.mkv"), clip("second/clip.mkv")});
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(entries(outPath()), QStringList{"clip.png"});
    QCOMPARE(readAll(out("clip.png")), firstAlone);
    QVERIFY(result.err.contains(clip("second/clip.mkv").toUtf8() + "' is not analysed"));
    QVERIFY(!result.err.contains(clip("second/clip.mkv").toUtf8() + ": started"));
}

void TremoraMapTest::failingInputAmongGoodOnesExitsOneAndWritesTheGoodMaps()
{
    QVERIFY(write(out("garbage.mkv"), QByteArray(4096, 'x')));
    const QString missing = clip("missing.mkv");
    const ToolRunning::Result result = ToolRunning::run(
        {"-o", out("maps"), clip("clip.part1.mkv"), missing, out("garbage.mkv"), clip("other.mkv")});
    QCOMPARE(result.exitCode, 1);
    QVERIFY(result.err.contains("Can't open video file '" + missing.toUtf8() + "'\n"));
    QVERIFY(result.err.contains("Can't open video file '" + out("garbage.mkv").toUtf8() + "'\n"));
    QCOMPARE(entries(out("maps")), (QStringList{"clip.png", "other.png"}));
}

void TremoraMapTest::unwritableMapIsReportedAndLeavesNothingBehind()
{
    // A folder where the map should go cannot be replaced by a file, whoever runs the test.
    QVERIFY(QDir(outPath()).mkpath("clip.png/kept"));
    const ToolRunning::Result result = ToolRunning::run({"--overwrite", "-o", outPath(), clip("clip.part1.mkv"), clip("other.mkv")});
    QCOMPARE(result.exitCode, 1);
    QVERIFY(result.err.contains("Can't save image file '" + out("clip.png").toUtf8() + "'\n"));
    QCOMPARE(entries(outPath()), (QStringList{"clip.png", "other.png"}));
    QCOMPARE(entries(out("clip.png")), QStringList{"kept"});
}

void TremoraMapTest::jpgAndBmpMapsLoadBack()
{
    QCOMPARE(ToolRunning::run({"-o", outPath(), clip("clip.part1.mkv")}).exitCode, 0);
    QCOMPARE(ToolRunning::run({"-f", "jpg", "-o", outPath(), clip("clip.part1.mkv")}).exitCode, 0);
    QCOMPARE(ToolRunning::run({"--format=bmp", "-o", outPath(), clip("clip.part1.mkv")}).exitCode, 0);
    QCOMPARE(entries(outPath()), (QStringList{"clip.bmp", "clip.jpg", "clip.png"}));

    QImageReader jpg(out("clip.jpg"));
    QCOMPARE(jpg.format(), QByteArray("jpeg"));
    QCOMPARE(jpg.read().size(), QSize(96, 64));
    QImageReader bmp(out("clip.bmp"));
    QCOMPARE(bmp.format(), QByteArray("bmp"));
    // Both lossless: the same pixels.
    QCOMPARE(rgb(out("clip.bmp")), rgb(out("clip.png")));
}

void TremoraMapTest::jobsZeroAnalysesEveryFile()
{
    const ToolRunning::Result result = ToolRunning::run(
        {"--jobs", "0", "-o", outPath(), clip("clip.part1.mkv"), clip("other.mkv"), clip("noisy.mkv")});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(entries(outPath()), (QStringList{"clip.png", "noisy.png", "other.png"}));
}

void TremoraMapTest::countsAndBackgroundRebuildTheMap()
{
    const ToolRunning::Result result = ToolRunning::run({"--counts", "--background", "-o", outPath(), clip("clip.part1.mkv")});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(entries(outPath()), (QStringList{"clip.background.png", "clip.counts.png", "clip.png"}));
    const QImage counts(out("clip.counts.png"));
    QCOMPARE(counts.format(), QImage::Format_Grayscale8);
    const QImage background = rgb(out("clip.background.png"));
    const cv::Mat countMat = matOf(counts, CV_8UC1);
    QVERIFY(cv::countNonZero(countMat) > 0);
    const QImage rebuilt = MotionMap::render(countMat, matOf(background, CV_8UC3));
    QCOMPARE(rebuilt, rgb(out("clip.png")));
}

void TremoraMapTest::noBlurChangesTheMapOfANoisyClip()
{
    QCOMPARE(ToolRunning::run({"--counts", "-o", out("blur"), clip("noisy.mkv")}).exitCode, 0);
    QCOMPARE(ToolRunning::run({"--counts", "--no-blur", "-o", out("sharp"), clip("noisy.mkv")}).exitCode, 0);
    QVERIFY(rgb(out("blur/noisy.png")) != rgb(out("sharp/noisy.png")));
    // Unsmoothed noise crosses even the higher threshold far more often.
    const int blurred = cv::countNonZero(matOf(QImage(out("blur/noisy.counts.png")), CV_8UC1));
    const int sharp = cv::countNonZero(matOf(QImage(out("sharp/noisy.counts.png")), CV_8UC1));
    QVERIFY2(sharp > blurred, qPrintable(QStringLiteral("%1 vs %2").arg(sharp).arg(blurred)));
}

void TremoraMapTest::videoWithoutFramesGivesABlackMap()
{
    const ToolRunning::Result result = ToolRunning::run({"-o", outPath(), clip("empty.avi")});
    QCOMPARE(result.exitCode, 0);
    const QImage map = rgb(out("empty.png"));
    QCOMPARE(map.size(), QSize(64, 48));
    QImage black(map.size(), QImage::Format_RGB888);
    black.fill(Qt::black);
    QCOMPARE(map, black);
}

void TremoraMapTest::quietPrintsNothingButErrors()
{
    const ToolRunning::Result success = ToolRunning::run({"-q", "-o", outPath(), clip("clip.part1.mkv")});
    QCOMPARE(success.exitCode, 0);
    QVERIFY2(success.err.isEmpty(), success.err.constData());
    QVERIFY(success.out.isEmpty());

    const ToolRunning::Result failure = ToolRunning::run({"--quiet", "-o", outPath(), clip("other.mkv"), clip("missing.mkv")});
    QCOMPARE(failure.exitCode, 1);
    QCOMPARE(failure.err, "Can't open video file '" + clip("missing.mkv").toUtf8() + "'\n");
    QVERIFY(QFile::exists(out("other.png")));
}

void TremoraMapTest::plainLinesWhenStandardErrorIsNoTerminal()
{
    const ToolRunning::Result result = ToolRunning::run({"--jobs", "1", "-o", outPath(), clip("clip.part1.mkv"), clip("other.mkv")});
    QCOMPARE(result.exitCode, 0);
    const QByteArray expected = clip("clip.part1.mkv").toUtf8() + ": started\n"
        + clip("clip.part1.mkv").toUtf8() + ": done -> " + out("clip.png").toUtf8() + "\n"
        + clip("other.mkv").toUtf8() + ": started\n"
        + clip("other.mkv").toUtf8() + ": done -> " + out("other.png").toUtf8() + "\n";
    // Nothing else: no escape sequences, and no stream descriptions from the decoder.
    QCOMPARE(result.err, expected);
    QVERIFY(result.out.isEmpty());
}

void TremoraMapTest::interruptCancelsTheRunningFileAndKeepsEarlierMaps_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("SIGINT") << int(SIGINT);
    QTest::newRow("SIGTERM") << int(SIGTERM);
}

void TremoraMapTest::interruptCancelsTheRunningFileAndKeepsEarlierMaps()
{
    QFETCH(int, signalNumber);
    QProcess process;
    process.start(QStringLiteral(TREMORA_MAP_EXECUTABLE),
                  {"--jobs", "1", "--counts", "-o", outPath(), clip("other.mkv"), clip("long.mkv"), clip("clip.part1.mkv")});
    QVERIFY(process.waitForStarted());

    const QByteArray earlierDone = clip("other.mkv").toUtf8() + ": done -> ";
    const QByteArray longStarted = clip("long.mkv").toUtf8() + ": started\n";
    QByteArray err;
    QByteArray earlierMap;
    QElapsedTimer clock;
    clock.start();
    while (!err.contains(longStarted) && clock.elapsed() < kSignalTimeoutMs && process.state() == QProcess::Running) {
        process.waitForReadyRead(100);
        err += process.readAllStandardError();
        if (earlierMap.isEmpty() && err.contains(earlierDone))
            earlierMap = readAll(out("other.png"));
    }
    QVERIFY2(err.contains(longStarted), err.constData());
    QVERIFY(!earlierMap.isEmpty());
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), signalNumber), 0);

    QVERIFY(process.waitForFinished(kSignalTimeoutMs));
    err += process.readAllStandardError();
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 130);
    QVERIFY2(err.contains(clip("long.mkv").toUtf8() + ": canceled\n"), err.constData());
    QVERIFY(err.contains(clip("clip.part1.mkv").toUtf8() + ": canceled\n"));
    // The earlier file's map and counts are exactly as written; nothing else is there.
    QCOMPARE(entries(outPath()), (QStringList{"other.counts.png", "other.png"}));
    QCOMPARE(readAll(out("other.png")), earlierMap);
}

void TremoraMapTest::progressIsRedrawnInPlaceOnATerminal()
{
    PseudoTerminal terminal;
    QVERIFY(!terminal.slaveName().isEmpty());
    QProcess process;
    process.setStandardErrorFile(terminal.slaveName());
    process.start(QStringLiteral(TREMORA_MAP_EXECUTABLE), {"-o", outPath(), clip("long.mkv")});
    QVERIFY(process.waitForStarted());

    QByteArray screen;
    QElapsedTimer clock;
    clock.start();
    // Two drawings of the block: the second moves the cursor up over the first.
    while (!screen.contains("\x1b[2A\r\x1b[J") && clock.elapsed() < kSignalTimeoutMs && process.state() == QProcess::Running) {
        process.waitForFinished(50);
        screen += terminal.readAvailable();
    }
    QVERIFY2(screen.contains("\x1b[2A\r\x1b[J"), screen.constData());
    ::kill(static_cast<pid_t>(process.processId()), SIGINT);
    QVERIFY(process.waitForFinished(kSignalTimeoutMs));
    screen += terminal.readAvailable();
    QCOMPARE(process.exitCode(), 130);

    QVERIFY(screen.contains("% " + clip("long.mkv").toUtf8()));
    QVERIFY(screen.contains("Frames per second: "));
    QVERIFY(screen.contains("(0 of 1 files finished)"));
    QVERIFY(!screen.contains(clip("long.mkv").toUtf8() + ": started"));
    QVERIFY(!QFile::exists(out("long.png")));
}

void TremoraMapTest::toolDoesNotNeedTheWidgetsLibrary()
{
    QProcess readelf;
    readelf.start(QStringLiteral("readelf"), {"-d", QStringLiteral(TREMORA_MAP_EXECUTABLE)});
    if (!readelf.waitForStarted())
        QSKIP("readelf is not available");
    QVERIFY(readelf.waitForFinished());
    const QByteArray dynamic = readelf.readAllStandardOutput();
    QVERIFY(dynamic.contains("libQt5Core"));
    QVERIFY(!dynamic.contains("libQt5Widgets"));
}

QTEST_GUILESS_MAIN(TremoraMapTest)
#include "TremoraMapTest.moc"
