#include "ClipMaking.h"
#include "ReferenceMotion.h"
#include "TestSupport.h"
#include "ToolRunning.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QtTest>

#include <opencv2/core.hpp>

#include <csignal>
#include <cstring>

#include <signal.h>

// The executable's per-video data (--data), masks (--mask) and time windows (--start,
// --end), each checked against the plain reference rules.
namespace {

using ToolRunning::entries;

using ClipMaking::speckledNoise;
using ToolRunning::readAll;
using ToolRunning::readJson;
using ToolRunning::readEvents;

QString schemaComplaint(const QString& manifest)
{
    return ToolRunning::schemaComplaint(QStringLiteral(TREMORA_MANIFEST_SCHEMA), manifest);
}

constexpr int kSignalTimeoutMs = 60000;

struct ActivityRow {
    int pair = 0;
    double time = 0.0;
    long long moving = 0;
    long long newEvents = 0;
};

// The rows of an activity table; an empty list when its header is not the documented one.
std::vector<ActivityRow> readActivity(const QString& path)
{
    const QList<QByteArray> lines = readAll(path).split('\n');
    std::vector<ActivityRow> rows;
    if (lines.isEmpty() || lines.front() != "pair,time_s,moving_pixels,new_events")
        return rows;
    for (int i = 1; i < lines.size(); ++i) {
        if (lines[i].isEmpty())
            continue;
        const QList<QByteArray> fields = lines[i].split(',');
        if (fields.size() != 4)
            return {};
        rows.push_back({fields[0].toInt(), fields[1].toDouble(), fields[2].toLongLong(), fields[3].toLongLong()});
    }
    return rows;
}

cv::Mat readGrey8(const QString& path)
{
    const QImage image = QImage(path).convertToFormat(QImage::Format_Grayscale8);
    cv::Mat out(image.height(), image.width(), CV_8UC1);
    for (int y = 0; y < image.height(); ++y)
        std::memcpy(out.ptr(y), image.constScanLine(y), static_cast<size_t>(image.width()));
    return out;
}

bool equal(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::countNonZero(a != b) == 0;
}

Reference::Analysis referenceOver(const std::vector<cv::Mat>& frames, const cv::Mat& mask = {}, bool blur = true)
{
    Reference::Analysis reference(frames.front().cols, frames.front().rows, blur, mask);
    for (const cv::Mat& frame : frames)
        reference.addFrame(frame);
    return reference;
}

bool sameActivity(const std::vector<ActivityRow>& rows, const Reference::Analysis& reference, int firstFrame = 0,
                  double fps = 25.0)
{
    const auto& pairs = reference.activity();
    if (rows.size() != pairs.size())
        return false;
    for (size_t i = 0; i < rows.size(); ++i) {
        const double time = (static_cast<double>(firstFrame) + static_cast<double>(i) + 1.0) / fps;
        if (rows[i].pair != static_cast<int>(i) || rows[i].moving != pairs[i].moving
            || rows[i].newEvents != pairs[i].newEvents || std::abs(rows[i].time - time) > 1e-6) {
            qWarning("row %zu: %d %f %lld %lld; expected %f %lld %lld", i, rows[i].pair, rows[i].time, rows[i].moving,
                     rows[i].newEvents, time, pairs[i].moving, pairs[i].newEvents);
            return false;
        }
    }
    return true;
}

// Frames of `size` where pixel (1, 1) changes every 51 frames: `events` separate events.
std::vector<cv::Mat> blinkingEvery51(cv::Size size, int events)
{
    std::vector<cv::Mat> frames;
    for (int i = 0; i <= 51 * events; ++i) {
        cv::Mat frame(size, CV_8UC1, cv::Scalar(ClipMaking::kBackground));
        if ((i / 51) % 2 == 1)
            frame.at<uchar>(1, 1) = ClipMaking::kObject;
        frames.push_back(frame);
    }
    return frames;
}

QString sha256Of(const QString& path)
{
    return QString::fromLatin1(QCryptographicHash::hash(readAll(path), QCryptographicHash::Sha256).toHex());
}

} // namespace

class TremoraMapDataTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

private:
    std::vector<cv::Mat> m_speckles;

private slots:
    void initTestCase()
    {
        QVERIFY(clipsReady());
        m_speckles = speckledNoise(cv::Size(48, 32), 160, 29);
        QVERIFY(ClipMaking::writeGray(clip("speckles.mkv"), m_speckles));
        // Every frame a key frame, so that cutting it with ffmpeg is exact.
        QVERIFY(ClipMaking::writeGray(clip("intra.mkv"), speckledNoise(cv::Size(32, 24), 300, 31),
                                      {"-c:v", "ffv1", "-g", "1"}));
        QVERIFY(ClipMaking::writeGray(clip("blink.mkv"), blinkingEvery51(cv::Size(4, 4), 300)));
        // A box crossing a black scene, recorded with the time the camera started.
        QVERIFY(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "color=c=black:s=64x48:r=25", "-f", "lavfi", "-i",
                                        "color=c=white:s=8x8:r=25", "-filter_complex",
                                        "[0][1]overlay=x='mod(n*2,64)':y=20", "-frames:v", "30", "-metadata",
                                        "creation_time=2024-05-01T10:00:00Z", "-c:v", "mpeg4", clip("camera.mp4")}));
    }

    void init()
    {
        QVERIFY(renew());
    }

    void dataFilesMatchTheReferenceAndTheMapStaysAsWithoutThem()
    {
        const ToolRunning::Result plain = tool({"--background", clip("speckles.mkv")});
        QCOMPARE(plain.exitCode, 0);
        const QByteArray plainMap = readAll(out("speckles.png"));
        const QByteArray plainBackground = readAll(out("speckles.background.png"));
        QVERIFY(QFile::remove(out("speckles.png")));
        QVERIFY(QFile::remove(out("speckles.background.png")));

        const ToolRunning::Result data = tool({"--data", clip("speckles.mkv")});
        QCOMPARE(data.exitCode, 0);
        QCOMPARE(entries(outPath()), (QStringList{"speckles.activity.csv", "speckles.background.png",
                                                      "speckles.events.png", "speckles.json", "speckles.png"}));
        QCOMPARE(readAll(out("speckles.png")), plainMap);
        QCOMPARE(readAll(out("speckles.background.png")), plainBackground);
        const Reference::Analysis reference = referenceOver(m_speckles);
        QVERIFY(cv::countNonZero(reference.exactCounts()) > 0);
        QVERIFY(equal(readEvents(out("speckles.events.png")), reference.exactCounts()));
        QVERIFY(sameActivity(readActivity(out("speckles.activity.csv")), reference));
    }

    void newEventsOfTheActivitySumToTheEventsImage()
    {
        QCOMPARE(tool({"--data", clip("speckles.mkv")}).exitCode, 0);
        long long sum = 0;
        for (const ActivityRow& row : readActivity(out("speckles.activity.csv")))
            sum += row.newEvents;
        QVERIFY(sum > 0);
        QCOMPARE(sum, static_cast<long long>(cv::sum(readEvents(out("speckles.events.png")))[0]));
        QCOMPARE(readJson(out("speckles.json"))["summary"].toObject()["events_total"].toDouble(), double(sum));
    }

    void eventsImageCountsPastTheMapsWrapAt256()
    {
        QCOMPARE(tool({"--data", "--counts", "--no-blur", clip("blink.mkv")}).exitCode, 0);
        const cv::Mat events = readEvents(out("blink.events.png"));
        QCOMPARE(events.at<int>(1, 1), 300);
        QCOMPARE(cv::countNonZero(events), 1);
        QCOMPARE(int(readGrey8(out("blink.counts.png")).at<uchar>(1, 1)), 300 - 256);
        QCOMPARE(readJson(out("blink.json"))["summary"].toObject()["max_events"].toInt(), 300);
    }

    void aHalfBlackMaskLeavesThatHalfAtZeroAndTheOtherAsWithout()
    {
        cv::Mat mask(32, 48, CV_8UC1, cv::Scalar(255));
        mask(cv::Rect(0, 0, 24, 32)).setTo(cv::Scalar(0));
        QVERIFY(ToolRunning::saveMask(clip("half.png"), mask));
        QCOMPARE(tool({"--data", clip("speckles.mkv")}).exitCode, 0);
        const cv::Mat whole = readEvents(out("speckles.events.png"));
        const QByteArray wholeMap = readAll(out("speckles.png"));
        renew();
        QCOMPARE(tool({"--data", "--mask", clip("half.png"), clip("speckles.mkv")}).exitCode, 0);
        const cv::Mat masked = readEvents(out("speckles.events.png"));
        const cv::Rect left(0, 0, 24, 32), right(24, 0, 24, 32);
        QVERIFY(cv::countNonZero(whole(left)) > 0);
        QCOMPARE(cv::countNonZero(masked(left)), 0);
        QVERIFY(equal(masked(right), whole(right)));
        QVERIFY(sameActivity(readActivity(out("speckles.activity.csv")), referenceOver(m_speckles, mask)));
        // The map shows the ignored half as the background's grey: its pixels are all grey.
        const QImage map = QImage(out("speckles.png")).convertToFormat(QImage::Format_RGB888);
        for (int y = 0; y < 32; ++y) {
            for (int x = 0; x < 24; ++x) {
                const QRgb pixel = map.pixel(x, y);
                QVERIFY(qRed(pixel) == qGreen(pixel) && qGreen(pixel) == qBlue(pixel));
            }
        }
        QVERIFY(readAll(out("speckles.png")) != wholeMap);
        QCOMPARE(readJson(out("speckles.json"))["parameters"].toObject()["mask"].toString(),
                 QFileInfo(clip("half.png")).absoluteFilePath());
    }

    void aMaskOfAnotherSizeIsScaledToEachVideo()
    {
        cv::Mat small(8, 12, CV_8UC1, cv::Scalar(255));
        small(cv::Rect(3, 2, 7, 5)).setTo(cv::Scalar(0));
        QVERIFY(ToolRunning::saveMask(clip("small.png"), small));
        // Unsmoothed, so that the speckles make events all over the picture.
        QCOMPARE(tool({"--data", "--no-blur", "--mask", clip("small.png"), clip("speckles.mkv")}).exitCode, 0);
        const cv::Mat mask = Reference::nearestMask(small, cv::Size(48, 32));
        const Reference::Analysis reference = referenceOver(m_speckles, mask, false);
        QVERIFY(equal(readEvents(out("speckles.events.png")), reference.exactCounts()));
        QVERIFY(cv::countNonZero(reference.exactCounts()) > 0);
        // The mask takes something away: a test with nothing under its dark part proves nothing.
        QVERIFY(!equal(reference.exactCounts(), referenceOver(m_speckles, {}, false).exactCounts()));
    }

    void aMaskAppliesWithoutData()
    {
        cv::Mat mask(32, 48, CV_8UC1, cv::Scalar(255));
        mask(cv::Rect(0, 0, 48, 16)).setTo(cv::Scalar(0));
        QVERIFY(ToolRunning::saveMask(clip("top.png"), mask));
        QCOMPARE(tool({"--counts", "--mask", clip("top.png"), clip("speckles.mkv")}).exitCode, 0);
        QVERIFY(equal(readGrey8(out("speckles.counts.png")), referenceOver(m_speckles, mask).counts()));
        QCOMPARE(entries(outPath()), (QStringList{"speckles.counts.png", "speckles.png"}));
    }

    void aWindowGivesWhatTheSameWindowCutOutWithFfmpegGives()
    {
        // Frames 50 (2 s) to 149 (5.96 s), every one a key frame.
        QVERIFY(TestSupport::runFfmpeg({"-ss", "2", "-i", clip("intra.mkv"), "-t", "4", "-c", "copy",
                                        clip("cut.mkv")}));
        QCOMPARE(tool({"--data", "--counts", clip("cut.mkv")}).exitCode, 0);
        QCOMPARE(tool({"--data", "--counts", "--start", "1.98", "--end", "0:05.98", clip("intra.mkv")}).exitCode, 0);
        const std::vector<ActivityRow> cut = readActivity(out("cut.activity.csv"));
        const std::vector<ActivityRow> window = readActivity(out("intra.activity.csv"));
        QCOMPARE(int(window.size()), 99);
        QCOMPARE(int(cut.size()), 99);
        QVERIFY(equal(readEvents(out("intra.events.png")), readEvents(out("cut.events.png"))));
        QCOMPARE(readAll(out("intra.counts.png")), readAll(out("cut.counts.png")));
        QCOMPARE(readAll(out("intra.background.png")), readAll(out("cut.background.png")));
        QCOMPARE(readAll(out("intra.png")), readAll(out("cut.png")));
        for (size_t i = 0; i < window.size(); ++i) {
            QCOMPARE(window[i].pair, cut[i].pair);
            QCOMPARE(window[i].moving, cut[i].moving);
            QCOMPARE(window[i].newEvents, cut[i].newEvents);
            // Times stay those of the whole video.
            QVERIFY(std::abs(window[i].time - (51 + static_cast<double>(i)) / 25.0) < 1e-6);
        }
        const QJsonObject window_ = readJson(out("intra.json"))["parameters"].toObject()["window"].toObject();
        QCOMPARE(window_["start_s"].toDouble(), 1.98);
        QCOMPARE(window_["end_s"].toDouble(), 5.98);
    }

    void aStartAfterTheEndOfTheVideoGivesABlackMapAndNoPair()
    {
        QCOMPARE(tool({"--data", "--start", "1:00", clip("speckles.mkv")}).exitCode, 0);
        const QImage map = QImage(out("speckles.png")).convertToFormat(QImage::Format_RGB888);
        QCOMPARE(map.size(), QSize(48, 32));
        for (int y = 0; y < map.height(); ++y)
            for (int x = 0; x < map.width(); ++x)
                QCOMPARE(map.pixel(x, y), qRgb(0, 0, 0));
        const QJsonObject manifest = readJson(out("speckles.json"));
        QCOMPARE(manifest["pairs_analysed"].toInt(), 0);
        QCOMPARE(manifest["outcome"].toObject()["status"].toString(), QStringLiteral("done"));
        QVERIFY(readActivity(out("speckles.activity.csv")).empty());
        QCOMPARE(readAll(out("speckles.activity.csv")), QByteArray("pair,time_s,moving_pixels,new_events\n"));
        QCOMPARE(schemaComplaint(out("speckles.json")), QString());
    }

    void theManifestDescribesTheInputTheVideoAndTheFiles()
    {
        QCOMPARE(tool({"--data", clip("camera.mp4")}).exitCode, 0);
        const QJsonObject manifest = readJson(out("camera.json"));
        QCOMPARE(schemaComplaint(out("camera.json")), QString());
        const QJsonObject input = manifest["input"].toObject();
        QCOMPARE(input["path"].toString(), QFileInfo(clip("camera.mp4")).absoluteFilePath());
        QCOMPARE(input["size_bytes"].toDouble(), double(QFileInfo(clip("camera.mp4")).size()));
        const QJsonObject video = manifest["video"].toObject();
        QVERIFY(video["container"].toString().contains(QStringLiteral("mp4")));
        QCOMPARE(video["codec"].toString(), QStringLiteral("mpeg4"));
        QCOMPARE(video["width"].toInt(), 64);
        QCOMPARE(video["height"].toInt(), 48);
        QCOMPARE(video["frame_rate"].toDouble(), 25.0);
        QVERIFY(std::abs(video["duration_s"].toDouble() - 1.2) < 0.05);
        QVERIFY(video["creation_time"].toString().startsWith(QStringLiteral("2024-05-01T10:00:00")));
        QCOMPARE(manifest["frames_decoded"].toInt(), 30);
        QCOMPARE(manifest["pairs_analysed"].toInt(), 29);
        QCOMPARE(manifest["outcome"].toObject()["status"].toString(), QStringLiteral("done"));
        const QJsonObject parameters = manifest["parameters"].toObject();
        QCOMPARE(parameters["threshold"].toInt(), 20);
        QVERIFY(parameters["mask"].isNull());
        QVERIFY(parameters["window"].toObject()["start_s"].isNull());
        QStringList names;
        for (const QJsonValue& file : manifest["files"].toArray()) {
            const QString name = file.toObject()["name"].toString();
            names << name;
            QCOMPARE(file.toObject()["sha256"].toString(), sha256Of(out(name)));
            QCOMPARE(file.toObject()["size_bytes"].toDouble(), double(QFileInfo(out(name)).size()));
        }
        QCOMPARE(names, (QStringList{"camera.png", "camera.events.png", "camera.background.png", "camera.activity.csv"}));
        const QJsonObject summary = manifest["summary"].toObject();
        QVERIFY(summary["pixels_with_events_share"].toDouble() > 0.0);
        QVERIFY(summary["pairs_with_motion_share"].toDouble() > 0.0);
    }

    void aVideoWithoutCreationTimeHasNone()
    {
        QCOMPARE(tool({"--data", clip("speckles.mkv")}).exitCode, 0);
        QVERIFY(readJson(out("speckles.json"))["video"].toObject()["creation_time"].isNull());
    }

    void aVideoThatCannotBeOpenedGetsAFailedManifest()
    {
        QVERIFY(QFile(clip("broken.mp4")).open(QIODevice::WriteOnly));
        const ToolRunning::Result result = tool({"--data", clip("broken.mp4"), clip("speckles.mkv")});
        QCOMPARE(result.exitCode, 1);
        const QJsonObject manifest = readJson(out("broken.json"));
        QCOMPARE(schemaComplaint(out("broken.json")), QString());
        QCOMPARE(manifest["outcome"].toObject()["status"].toString(), QStringLiteral("failed"));
        QVERIFY(manifest["outcome"].toObject()["error"].toString().contains(QStringLiteral("Can't open video file")));
        QVERIFY(manifest["files"].toArray().isEmpty());
        QVERIFY(QFile::exists(out("speckles.json")));
    }

    void badInputIsAUsageErrorAndWritesNothing_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QStringList>("named");
        QTest::newRow("malformed start") << QStringList{"--start", "1:2:3:4"} << QStringList{"--start", "1:2:3:4"};
        QTest::newRow("malformed end") << QStringList{"--end", "soon"} << QStringList{"--end", "soon"};
        QTest::newRow("start after end") << QStringList{"--start", "10", "--end", "5"} << QStringList{"--start", "--end"};
        QTest::newRow("missing mask") << QStringList{"--mask", "CLIPS/none.png"} << QStringList{"CLIPS/none.png"};
        QTest::newRow("unreadable mask") << QStringList{"--mask", "CLIPS/text.png"} << QStringList{"CLIPS/text.png"};
        QTest::newRow("empty mask file") << QStringList{"--mask", "CLIPS/empty.png"} << QStringList{"CLIPS/empty.png"};
        QTest::newRow("all-black mask") << QStringList{"--mask", "CLIPS/black.png"} << QStringList{"CLIPS/black.png"};
        QTest::newRow("mask is a folder") << QStringList{"--mask", "CLIPS"} << QStringList{"CLIPS"};
        QTest::newRow("mask wider than 16384") << QStringList{"--mask", "CLIPS/wide.png"}
                                               << QStringList{"CLIPS/wide.png", "16385x2", "16384"};
    }

    void badInputIsAUsageErrorAndWritesNothing()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QStringList, named);
        QVERIFY(QFile(clip("empty.png")).open(QIODevice::WriteOnly));
        QFile text(clip("text.png"));
        QVERIFY(text.open(QIODevice::WriteOnly));
        text.write("not a picture\n");
        text.close();
        QVERIFY(ToolRunning::saveMask(clip("black.png"), cv::Mat(8, 8, CV_8UC1, cv::Scalar(127))));
        QFile wide(clip("wide.png"));
        QVERIFY(wide.open(QIODevice::WriteOnly));
        wide.write(TestSupport::blackGreyPng(16385, 2, 8));
        wide.close();
        // An earlier result stays as it was.
        QFile earlier(out("speckles.json"));
        QVERIFY(earlier.open(QIODevice::WriteOnly));
        earlier.write("earlier");
        earlier.close();
        arguments.replaceInStrings(QStringLiteral("CLIPS"), clipsPath());
        named.replaceInStrings(QStringLiteral("CLIPS"), clipsPath());
        const ToolRunning::Result result =
            tool(QStringList{"--data", "--overwrite"} + arguments + QStringList{clip("speckles.mkv")});
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.startsWith("tremora-map: "), result.err.constData());
        QCOMPARE(result.err.count('\n'), 2);
        for (const QString& word : named)
            QVERIFY2(result.err.contains(word.toUtf8()), result.err.constData());
        QCOMPARE(entries(outPath()), QStringList{"speckles.json"});
        QCOMPARE(readAll(out("speckles.json")), QByteArray("earlier"));
    }

    void anExistingManifestIsNotReplacedWithoutOverwrite()
    {
        QFile earlier(out("speckles.json"));
        QVERIFY(earlier.open(QIODevice::WriteOnly));
        earlier.write("earlier");
        earlier.close();
        const ToolRunning::Result result = tool({"--data", clip("speckles.mkv")});
        QCOMPARE(result.exitCode, 1);
        QVERIFY(result.err.contains(out("speckles.json").toUtf8()));
        QCOMPARE(entries(outPath()), QStringList{"speckles.json"});
        QCOMPARE(readAll(out("speckles.json")), QByteArray("earlier"));
    }

    void anInterruptedRunLeavesNoHalfWrittenTableOrManifest()
    {
        QVERIFY(ClipMaking::writeGray(clip("long.mkv"), speckledNoise(cv::Size(320, 240), 1500, 5)));
        QProcess process;
        process.start(QStringLiteral(TREMORA_MAP_EXECUTABLE), {"--data", "-o", outPath(), clip("long.mkv")});
        QVERIFY(process.waitForStarted());
        QByteArray err;
        QElapsedTimer clock;
        clock.start();
        const QByteArray started = clip("long.mkv").toUtf8() + ": started\n";
        while (!err.contains(started) && clock.elapsed() < kSignalTimeoutMs && process.state() == QProcess::Running) {
            process.waitForReadyRead(100);
            err += process.readAllStandardError();
        }
        QVERIFY2(err.contains(started), err.constData());
        // Well into the pass, while the table is being written.
        QTest::qWait(300);
        QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
        QVERIFY(process.waitForFinished(kSignalTimeoutMs));
        QCOMPARE(process.exitCode(), 130);
        // Only the manifest that says the run was canceled; no table, no temporary file.
        QCOMPARE(entries(outPath()), QStringList{"long.json"});
        const QJsonObject manifest = readJson(out("long.json"));
        QCOMPARE(manifest["outcome"].toObject()["status"].toString(), QStringLiteral("canceled"));
        QVERIFY(manifest["files"].toArray().isEmpty());
        QCOMPARE(schemaComplaint(out("long.json")), QString());
    }

    void theReadmesPythonExampleLoadsTheFiles()
    {
        QCOMPARE(tool({"--data", clip("speckles.mkv")}).exitCode, 0);
        const QString readme = QString::fromUtf8(readAll(QStringLiteral(TREMORA_README)));
        const QRegularExpression block(QStringLiteral("```python\\n(.*?)```"),
                                       QRegularExpression::DotMatchesEverythingOption);
        const QRegularExpressionMatch match = block.match(readme);
        QVERIFY(match.hasMatch());
        // The README's files are named after clip.mp4.
        QString example = match.captured(1).replace(QStringLiteral("\"clip."), QStringLiteral("\"speckles."));
        QVERIFY(example.count(QLatin1Char('\n')) <= 6);
        QProcess python;
        python.setWorkingDirectory(outPath());
        python.start(QStringLiteral("/usr/bin/python3"), {"-c", example + QStringLiteral("\nprint(events.sum(), "
                                                                                           "int(activity['new_events'].sum()))\n")});
        QVERIFY(python.waitForFinished(60000));
        QCOMPARE(python.exitCode(), 0);
        const long long sum = static_cast<long long>(cv::sum(readEvents(out("speckles.events.png")))[0]);
        QVERIFY2(python.readAllStandardOutput().contains(QByteArray::number(sum) + ' ' + QByteArray::number(sum)),
                 python.readAllStandardError().constData());
    }
};

QTEST_GUILESS_MAIN(TremoraMapDataTest)
#include "TremoraMapDataTest.moc"
