#include "ClipMaking.h"
#include "ReferenceMotion.h"
#include "ToolRunning.h"

#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QThread>
#include <QtTest>

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <opencv2/core.hpp>

#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <csignal>

namespace {

constexpr int kFps = 25;
const cv::Size kSize(160, 96);
// Frames of the clip whose square crosses the picture from left to right: 10 s.
constexpr int kCrossingFrames = 250;
// Frames of the clip that makes a film long enough to measure its memory, and to interrupt.
constexpr int kLongFrames = 2000;
// The bound for every picture's map part against an independent render.
constexpr double kMinimumPsnr = 35.0;

// The square's top-left corner in frame `i` of a clip of `frames` frames: from the left edge
// to the right one at a steady pace, half-way down.
cv::Point crossingAt(int i, int frames)
{
    const int travel = kSize.width - 12;
    return {2 + i * travel / (frames - 1), kSize.height / 2 - 4};
}

std::vector<cv::Mat> crossingFrames(int frames)
{
    return ClipMaking::squares(kSize, frames, [frames](int i) { return std::vector<cv::Point>{crossingAt(i, frames)}; });
}

// The time of pair p's second frame in a clip that starts at 0 with `kFps` frames a second.
double pairTime(int pair)
{
    return (pair + 1.0) / kFps;
}

// The 8-bit counts of the events that began in the pairs `counted` picks (by their time).
cv::Mat countsOf(const Reference::Analysis& analysis, const std::function<bool(double)>& counted)
{
    cv::Mat counts(kSize, CV_8UC1, cv::Scalar(0));
    const auto& pixels = analysis.newEventPixels();
    for (size_t pair = 0; pair < pixels.size(); ++pair) {
        if (!counted(pairTime(static_cast<int>(pair))))
            continue;
        for (const cv::Point& point : pixels[pair])
            counts.at<uchar>(point) = static_cast<uchar>(counts.at<uchar>(point) + 1);
    }
    return counts;
}

Reference::Analysis referenceOf(const std::vector<cv::Mat>& frames, const cv::Mat& mask = {})
{
    Reference::Analysis analysis(kSize.width, kSize.height, true, mask);
    for (const cv::Mat& frame : frames)
        analysis.addFrame(frame);
    return analysis;
}

// Converts a picture to 8-bit grey with swscale, as the film's quality is defined.
cv::Mat greyBySwscale(const uint8_t* const planes[], const int strides[], AVPixelFormat format, int width, int height)
{
    cv::Mat grey(height, width, CV_8UC1);
    SwsContext* scaler = sws_getContext(width, height, format, width, height, AV_PIX_FMT_GRAY8, SWS_BILINEAR, nullptr,
                                        nullptr, nullptr);
    if (!scaler)
        return {};
    uint8_t* const target[] = {grey.data};
    const int targetStrides[] = {static_cast<int>(grey.step)};
    sws_scale(scaler, planes, strides, 0, height, target, targetStrides);
    sws_freeContext(scaler);
    return grey;
}

cv::Mat greyOf(const QImage& image)
{
    const QImage rgb = image.convertToFormat(QImage::Format_RGB888);
    const uint8_t* const planes[] = {rgb.constBits()};
    const int strides[] = {static_cast<int>(rgb.bytesPerLine())};
    return greyBySwscale(planes, strides, AV_PIX_FMT_RGB24, rgb.width(), rgb.height());
}

// Every picture of a film, decoded back by FFmpeg's own program (which, unlike a reader that
// stops at the end of the file's packets, also hands out the pictures an H.264 decoder holds
// back for reordering), and converted to grey with swscale.
struct DecodedFilm {
    int width = 0;
    int height = 0;
    std::vector<cv::Mat> pictures;
};

DecodedFilm decode(const QString& path)
{
    DecodedFilm film;
    QProcess probe;
    probe.start("ffprobe", {"-v", "error", "-select_streams", "v:0", "-show_entries", "stream=width,height", "-of",
                            "csv=p=0", path});
    if (!probe.waitForFinished(30000))
        return film;
    const QStringList size = QString::fromLatin1(probe.readAllStandardOutput()).trimmed().split(',');
    if (size.size() != 2)
        return film;
    film.width = size[0].toInt();
    film.height = size[1].toInt();
    QProcess ffmpeg;
    ffmpeg.start("ffmpeg", {"-v", "error", "-nostdin", "-i", path, "-f", "rawvideo", "-pix_fmt", "yuv420p", "-"});
    if (!ffmpeg.waitForFinished(60000) || ffmpeg.exitCode() != 0)
        return film;
    const QByteArray raw = ffmpeg.readAllStandardOutput();
    const int lumaBytes = film.width * film.height;
    const int chromaBytes = (film.width / 2) * (film.height / 2);
    const int pictureBytes = lumaBytes + 2 * chromaBytes;
    for (int at = 0; at + pictureBytes <= raw.size(); at += pictureBytes) {
        const auto* data = reinterpret_cast<const uint8_t*>(raw.constData() + at);
        const uint8_t* const planes[] = {data, data + lumaBytes, data + lumaBytes + chromaBytes};
        const int strides[] = {film.width, film.width / 2, film.width / 2};
        film.pictures.push_back(greyBySwscale(planes, strides, AV_PIX_FMT_YUV420P, film.width, film.height));
    }
    return film;
}

// The luma PSNR of a film picture's map part (its top-left corner) against `map`.
double mapPsnr(const cv::Mat& picture, const QImage& map)
{
    const cv::Mat expected = greyOf(map);
    if (picture.empty() || expected.empty() || picture.cols < expected.cols || picture.rows < expected.rows)
        return 0.0;
    return cv::PSNR(picture(cv::Rect(0, 0, expected.cols, expected.rows)), expected);
}

QImage reference(const cv::Mat& counts, const cv::Mat& background)
{
    return Reference::renderMap(counts, background);
}

// The rows the crossing square passes along, over the columns from `x` for `width`.
cv::Rect bandOf(int x, int width)
{
    return {x, kSize.height / 2 - 8, width, 16};
}

// Mean absolute luma difference, over `area`, between a picture and `map`.
double meanDifference(const cv::Mat& picture, const QImage& map, const cv::Rect& area)
{
    const cv::Mat expected = greyOf(map);
    cv::Mat difference;
    cv::absdiff(picture(area), expected(area), difference);
    return cv::mean(difference)[0];
}

QStringList mp4Entries(const QString& folder)
{
    QStringList films;
    for (const QString& name : ToolRunning::entries(folder)) {
        if (name.contains(QLatin1String(".mp4")) || name.contains(QLatin1String(".steps")))
            films << name;
    }
    return films;
}

} // namespace

// --timelapse: NAME.timelapse.mp4, decoded back and compared with the reference count's
// pictures.
class TremoraMapTimelapseTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(clipsReady());
        m_crossing = crossingFrames(kCrossingFrames);
        QVERIFY(ClipMaking::writeGray(clip("crossing.mkv"), m_crossing));
        // One frame more: the last pair's time, 10 s, starts a step of its own.
        std::vector<cv::Mat> onBoundary = crossingFrames(kCrossingFrames + 1);
        QVERIFY(ClipMaking::writeGray(clip("boundary.mkv"), onBoundary));
        // A second clip for the combined line: the square crosses back, 4 s.
        std::vector<cv::Mat> back = ClipMaking::squares(kSize, 100, [](int i) {
            return std::vector<cv::Point>{crossingAt(99 - i, 100) + cv::Point(0, -30)};
        });
        m_back = back;
        QVERIFY(ClipMaking::writeGray(clip("back.mkv"), back));
        m_reference = std::make_unique<Reference::Analysis>(referenceOf(m_crossing));
    }

    void init() { QVERIFY(renew()); }

    void oneSecondStepsGiveOnePicturePerStepUpToTheLastPair()
    {
        const ToolRunning::Result result = tool({"--timelapse", "1s", clip("crossing.mkv")});
        QCOMPARE(result.exitCode, 0);
        // The writer's description of the container stays out of the tool's output.
        QCOMPARE(result.err, QByteArray());
        const DecodedFilm film = decode(out("crossing.timelapse.mp4"));
        // The last pair's second frame is at 9.96 s: floor(9.96 / 1) + 1.
        QCOMPARE(static_cast<int>(film.pictures.size()), 10);
    }

    void aLastPairOnAStepBoundaryGetsAPictureOfItsOwn()
    {
        QCOMPARE(tool({"--timelapse", "2s", clip("boundary.mkv")}).exitCode, 0);
        // The last pair is at exactly 10 s: floor(10 / 2) + 1.
        QCOMPARE(static_cast<int>(decode(out("boundary.timelapse.mp4")).pictures.size()), 6);
    }

    void filmIsH264InMp4At25PicturesASecondAndItsMapPartHasTheMapsSize()
    {
        QCOMPARE(tool({"--timelapse", "2s", clip("crossing.mkv")}).exitCode, 0);
        QProcess probe;
        probe.start("ffprobe", {"-v", "error", "-select_streams", "v:0", "-show_entries",
                                "stream=codec_name,pix_fmt,r_frame_rate:format=format_name", "-of",
                                "default=noprint_wrappers=1", out("crossing.timelapse.mp4")});
        QVERIFY(probe.waitForFinished(30000));
        const QString facts = QString::fromLocal8Bit(probe.readAllStandardOutput());
        QVERIFY2(facts.contains("codec_name=h264") && facts.contains("pix_fmt=yuv420p")
                     && facts.contains("r_frame_rate=25/1") && facts.contains("mp4"),
                 qPrintable(facts));
        const DecodedFilm film = decode(out("crossing.timelapse.mp4"));
        QCOMPARE(film.width, kSize.width);
        QVERIFY(film.height > kSize.height);
    }

    void everyPictureIsTheReferenceRenderOfTheEventsBeforeItsTime()
    {
        QCOMPARE(tool({"--timelapse", "2s", "--background", clip("crossing.mkv")}).exitCode, 0);
        const cv::Mat background = ToolRunning::readBackground(out("crossing.background.png"));
        QVERIFY(!background.empty());
        const DecodedFilm film = decode(out("crossing.timelapse.mp4"));
        QCOMPARE(static_cast<int>(film.pictures.size()), 5);
        for (size_t k = 0; k < film.pictures.size(); ++k) {
            const double end = (k + 1.0) * 2.0;
            const cv::Mat counts = countsOf(*m_reference, [end](double time) { return time < end; });
            const double psnr = mapPsnr(film.pictures[k], reference(counts, background));
            QVERIFY2(psnr >= kMinimumPsnr, qPrintable(QStringLiteral("picture %1: %2 dB").arg(k).arg(psnr)));
            // One step off would not pass: the next step's render is measurably further away.
            const cv::Mat next = countsOf(*m_reference, [end](double time) { return time < end + 2.0; });
            if (k + 1 < film.pictures.size())
                QVERIFY(mapPsnr(film.pictures[k], reference(next, background)) < psnr - 3.0);
        }
        // The pictures differ: a film of the final map alone would be far off at first.
        const QImage whole = reference(m_reference->counts(), background);
        const cv::Rect right = bandOf(kSize.width * 2 / 3, kSize.width / 3);
        QVERIFY2(meanDifference(film.pictures.front(), whole, right) > 3.0, qPrintable(QString::number(meanDifference(film.pictures.front(), whole, right))));
    }

    void lastPictureIsTheMapOfARunWithTheSameScale()
    {
        for (const QString& scale : {QStringLiteral("8.5"), QStringLiteral("3")}) {
            QVERIFY(renew());
            QCOMPARE(tool({"--timelapse", "3s", "--scale", scale, clip("crossing.mkv")}).exitCode, 0);
            const QImage map(out("crossing.png"));
            QVERIFY(!map.isNull());
            const DecodedFilm film = decode(out("crossing.timelapse.mp4"));
            QVERIFY(!film.pictures.empty());
            const double psnr = mapPsnr(film.pictures.back(), map);
            QVERIFY2(psnr >= kMinimumPsnr, qPrintable(QStringLiteral("scale %1: %2 dB").arg(scale).arg(psnr)));
            // A picture before the end is not the whole map: the square reaches the right later.
            const cv::Rect right = bandOf(kSize.width * 2 / 3, kSize.width / 3);
            QVERIFY2(meanDifference(film.pictures.front(), map, right) > 3.0, qPrintable(QString::number(meanDifference(film.pictures.front(), map, right))));
        }
    }

    void movingWindowShowsTheMotionLeavingTheLeft()
    {
        QCOMPARE(tool({"--timelapse", "1s", "--timelapse-window", "2s", "--background", clip("crossing.mkv")}).exitCode,
                 0);
        const cv::Mat background = ToolRunning::readBackground(out("crossing.background.png"));
        const DecodedFilm film = decode(out("crossing.timelapse.mp4"));
        QCOMPARE(static_cast<int>(film.pictures.size()), 10);
        for (size_t k = 0; k < film.pictures.size(); ++k) {
            const double end = (k + 1.0) * 1.0;
            const cv::Mat counts = countsOf(*m_reference, [end](double time) { return time < end && time >= end - 2.0; });
            const double psnr = mapPsnr(film.pictures[k], reference(counts, background));
            QVERIFY2(psnr >= kMinimumPsnr, qPrintable(QStringLiteral("picture %1: %2 dB").arg(k).arg(psnr)));
        }
        // The left third, where the square was in the first seconds, is the bare scene at the
        // end of the windowed film, and coloured at the end of the whole one.
        const QImage bare = reference(cv::Mat(kSize, CV_8UC1, cv::Scalar(0)), background);
        const cv::Rect left = bandOf(0, kSize.width / 3);
        QVERIFY2(meanDifference(film.pictures.back(), bare, left) < 2.0, qPrintable(QString::number(meanDifference(film.pictures.back(), bare, left))));
        QVERIFY2(meanDifference(film.pictures[1], bare, left) > 3.0, qPrintable(QString::number(meanDifference(film.pictures[1], bare, left))));
        QVERIFY(renew());
        QCOMPARE(tool({"--timelapse", "1s", "--background", clip("crossing.mkv")}).exitCode, 0);
        const DecodedFilm whole = decode(out("crossing.timelapse.mp4"));
        QVERIFY2(meanDifference(whole.pictures.back(), bare, left) > 3.0, qPrintable(QString::number(meanDifference(whole.pictures.back(), bare, left))));
    }

    void combinedFilmSumsEveryInputUpToItsTimeOnTheLine()
    {
        QCOMPARE(tool({"--combine", "both", "--timelapse", "2s", "--scale", "8.5", "--background", clip("crossing.mkv"),
                       clip("back.mkv")})
                     .exitCode,
                 0);
        const cv::Mat background = ToolRunning::readBackground(out("both.background.png"));
        QVERIFY(!background.empty());
        const DecodedFilm film = decode(out("both.timelapse.mp4"));
        // Back to back: 10 s, then 4 s whose last pair is at 13.96 s.
        QCOMPARE(static_cast<int>(film.pictures.size()), 7);
        const Reference::Analysis back = referenceOf(m_back);
        for (size_t k = 0; k < film.pictures.size(); ++k) {
            const double end = (k + 1.0) * 2.0;
            cv::Mat counts = countsOf(*m_reference, [end](double time) { return time < end; });
            counts += countsOf(back, [end](double time) { return time + 10.0 < end; });
            const double psnr = mapPsnr(film.pictures[k], reference(counts, background));
            QVERIFY2(psnr >= kMinimumPsnr, qPrintable(QStringLiteral("picture %1: %2 dB").arg(k).arg(psnr)));
        }
        QVERIFY(mapPsnr(film.pictures.back(), QImage(out("both.png"))) >= kMinimumPsnr);
        // At the end of the first input the second's events are not there yet.
        QVERIFY2(meanDifference(film.pictures[4], QImage(out("both.png")), cv::Rect(0, 0, kSize.width, 30)) > 2.0, qPrintable(QString::number(meanDifference(film.pictures[4], QImage(out("both.png")), cv::Rect(0, 0, kSize.width, 30)))));
    }

    void maskedPixelsStayBareInEveryPicture()
    {
        cv::Mat mask(kSize, CV_8UC1, cv::Scalar(255));
        mask(cv::Rect(0, 0, kSize.width / 2, kSize.height)).setTo(0);
        const QString maskPath = out("mask.png");
        QVERIFY(QImage(mask.data, mask.cols, mask.rows, static_cast<int>(mask.step), QImage::Format_Grayscale8)
                    .save(maskPath));
        QCOMPARE(tool({"--timelapse", "2s", "--mask", maskPath, "--background", clip("crossing.mkv")}).exitCode, 0);
        const cv::Mat background = ToolRunning::readBackground(out("crossing.background.png"));
        const Reference::Analysis masked = referenceOf(m_crossing, mask);
        const DecodedFilm film = decode(out("crossing.timelapse.mp4"));
        QCOMPARE(static_cast<int>(film.pictures.size()), 5);
        for (size_t k = 0; k < film.pictures.size(); ++k) {
            const double end = (k + 1.0) * 2.0;
            const cv::Mat counts = countsOf(masked, [end](double time) { return time < end; });
            QVERIFY(mapPsnr(film.pictures[k], reference(counts, background)) >= kMinimumPsnr);
        }
        const QImage bare = reference(cv::Mat(kSize, CV_8UC1, cv::Scalar(0)), background);
        QVERIFY2(meanDifference(film.pictures.back(), bare, cv::Rect(0, 0, kSize.width / 2 - 4, kSize.height)) < 2.0, qPrintable(QString::number(meanDifference(film.pictures.back(), bare, cv::Rect(0, 0, kSize.width / 2 - 4, kSize.height)))));
        QVERIFY(mapPsnr(film.pictures.back(), QImage(out("crossing.png"))) >= kMinimumPsnr);
    }

    void timeWindowFilmsOnlyItsPairsFromTheStepOfTheFirst()
    {
        QCOMPARE(tool({"--timelapse", "1s", "--start", "2", "--end", "6", "--background", clip("crossing.mkv")}).exitCode,
                 0);
        const cv::Mat background = ToolRunning::readBackground(out("crossing.background.png"));
        const DecodedFilm film = decode(out("crossing.timelapse.mp4"));
        // Pairs from 2.04 s to 5.96 s: steps 2 to 5.
        QCOMPARE(static_cast<int>(film.pictures.size()), 4);
        const Reference::Analysis windowed = referenceOf(
            std::vector<cv::Mat>(m_crossing.begin() + 2 * kFps, m_crossing.begin() + 6 * kFps));
        for (size_t k = 0; k < film.pictures.size(); ++k) {
            // The windowed reference starts its pairs' times at 0 where the film's are at 2 s.
            const double end = (k + 3.0) - 2.0;
            const cv::Mat counts = countsOf(windowed, [end](double time) { return time < end; });
            QVERIFY(mapPsnr(film.pictures[k], reference(counts, background)) >= kMinimumPsnr);
        }
        QVERIFY(mapPsnr(film.pictures.back(), QImage(out("crossing.png"))) >= kMinimumPsnr);
    }

    void steadyLightFilmEndsOnItsMap()
    {
        QCOMPARE(tool({"--timelapse", "2s", "--steady-light", clip("crossing.mkv")}).exitCode, 0);
        const DecodedFilm film = decode(out("crossing.timelapse.mp4"));
        QCOMPARE(static_cast<int>(film.pictures.size()), 5);
        QVERIFY(mapPsnr(film.pictures.back(), QImage(out("crossing.png"))) >= kMinimumPsnr);
    }

    void theManifestNamesTheFilmAsATimelapse()
    {
        QCOMPARE(tool({"--timelapse", "5s", "--data", clip("crossing.mkv")}).exitCode, 0);
        QCOMPARE(ToolRunning::schemaComplaint(TREMORA_MANIFEST_SCHEMA, out("crossing.json")), QString());
        const QByteArray manifest = ToolRunning::readAll(out("crossing.json"));
        QVERIFY(manifest.contains("\"timelapse\""));
        QVERIFY(manifest.contains("crossing.timelapse.mp4"));
        QVERIFY(renew());
        QCOMPARE(tool({"--timelapse", "5s", "--data", "--combine", "both", clip("crossing.mkv"), clip("back.mkv")}).exitCode,
                 0);
        QCOMPARE(ToolRunning::schemaComplaint(TREMORA_COMBINED_SCHEMA, out("both.json")), QString());
        QVERIFY(ToolRunning::readAll(out("both.json")).contains("both.timelapse.mp4"));
    }

    void badStepsAndWindowsAreUsageErrorsBeforeAnythingRuns_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("zero") << QStringList{"--timelapse", "0"};
        QTest::newRow("zero seconds") << QStringList{"--timelapse", "0s"};
        QTest::newRow("below a second") << QStringList{"--timelapse", "0.5s"};
        QTest::newRow("not whole seconds") << QStringList{"--timelapse", "1.5s"};
        QTest::newRow("a word") << QStringList{"--timelapse", "hourly"};
        QTest::newRow("negative") << QStringList{"--timelapse", "-10s"};
        QTest::newRow("window not a multiple") << QStringList{"--timelapse", "2s", "--timelapse-window", "3s"};
        QTest::newRow("window shorter than a step") << QStringList{"--timelapse", "1m", "--timelapse-window", "30s"};
        QTest::newRow("window a word") << QStringList{"--timelapse", "1s", "--timelapse-window", "long"};
        QTest::newRow("window without a step") << QStringList{"--timelapse-window", "10s"};
    }

    void badStepsAndWindowsAreUsageErrorsBeforeAnythingRuns()
    {
        QFETCH(QStringList, arguments);
        const ToolRunning::Result result = tool(arguments << clip("crossing.mkv"));
        QCOMPARE(result.exitCode, 2);
        QVERIFY(ToolRunning::entries(outPath()).isEmpty());
        // One line says what is wrong; the tool's usual pointer to --help follows it.
        const QList<QByteArray> lines = result.err.trimmed().split('\n');
        QVERIFY2(lines.size() == 2 && lines.front().contains("--timelapse") && lines.back().contains("--help"),
                 result.err.constData());
    }

    void aManifestCannotBeFilmed()
    {
        QCOMPARE(tool({"--data", clip("crossing.mkv")}).exitCode, 0);
        const ToolRunning::Result result =
            tool({"--combine", "again", "--timelapse", "1s", out("crossing.json")});
        QCOMPARE(result.exitCode, 2);
        QVERIFY(result.err.contains("--timelapse needs the videos"));
        QVERIFY(!QFileInfo::exists(out("again.timelapse.mp4")));
    }

    void anExistingFilmIsReplacedOnlyWithOverwrite()
    {
        QFile existing(out("crossing.timelapse.mp4"));
        QVERIFY(existing.open(QIODevice::WriteOnly));
        existing.write("mine");
        existing.close();
        const ToolRunning::Result refused = tool({"--timelapse", "1s", clip("crossing.mkv")});
        QCOMPARE(refused.exitCode, 1);
        QVERIFY(refused.err.contains("crossing.timelapse.mp4"));
        QCOMPARE(ToolRunning::readAll(out("crossing.timelapse.mp4")), QByteArray("mine"));
        QCOMPARE(tool({"--timelapse", "1s", "--overwrite", clip("crossing.mkv")}).exitCode, 0);
        QCOMPARE(static_cast<int>(decode(out("crossing.timelapse.mp4")).pictures.size()), 10);
        // Nothing of the film's making is left beside it.
        QCOMPARE(mp4Entries(outPath()), QStringList{"crossing.timelapse.mp4"});
    }

    void theFilmsMemoryDoesNotGrowWithItsLength()
    {
        const QString longClip = clip("long.mkv");
        const QString shortClip = clip("short.mkv");
        QVERIFY(QFileInfo::exists(longClip) || ToolRunning::makeClip(longClip, kLongFrames, QStringLiteral("480x270")));
        QVERIFY(QFileInfo::exists(shortClip) || ToolRunning::makeClip(shortClip, kLongFrames / 2, QStringLiteral("480x270")));
        // Under AddressSanitizer freed memory waits in a quarantine that grows with every
        // picture encoded; without it, what is freed is used again, as in a normal build.
        const QByteArray sanitizerOptions = qgetenv("ASAN_OPTIONS");
        qputenv("ASAN_OPTIONS", sanitizerOptions + ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0");
        // What the film adds to a run: the same for 80 pictures as for 40. Both films are long
        // enough to fill the encoder's look-ahead and frame threads, which a film of a few
        // pictures never does.
        const auto extraKb = [this](const QString& video) {
            long plain = -1;
            long filmed = -1;
            ToolRunning::run({"--quiet", "--output-dir", out("plain"), video}, 120000, &plain);
            ToolRunning::run({"--quiet", "--output-dir", out("filmed"), "--timelapse", "1s", video}, 120000, &filmed);
            return plain > 0 && filmed > 0 ? std::optional<long>(filmed - plain) : std::nullopt;
        };
        const std::optional<long> shortExtra = extraKb(shortClip);
        const std::optional<long> longExtra = extraKb(longClip);
        qputenv("ASAN_OPTIONS", sanitizerOptions);
        QCOMPARE(static_cast<int>(decode(out("filmed/long.timelapse.mp4")).pictures.size()), kLongFrames / kFps);
        QVERIFY(shortExtra && longExtra);
        // Holding the pictures, or their counts, would take 18 MB (or 10 MB) more for the long one.
        QVERIFY2(*longExtra - *shortExtra < 8 * 1024,
                 qPrintable(QStringLiteral("%1 KB against %2 KB").arg(*longExtra).arg(*shortExtra)));
    }

    void anInterruptedRunLeavesNoFilm()
    {
        const QString longClip = clip("long.mkv");
        QVERIFY(QFileInfo::exists(longClip) || ToolRunning::makeClip(longClip, kLongFrames, QStringLiteral("480x270")));
        QProcess process;
        process.start(TREMORA_MAP_EXECUTABLE,
                      {"--quiet", "--output-dir", outPath(), "--timelapse", "1s", longClip});
        QVERIFY(process.waitForStarted());
        QThread::msleep(1000);
        QVERIFY2(process.state() == QProcess::Running, "the run ended before it could be interrupted");
        ::kill(static_cast<pid_t>(process.processId()), SIGINT);
        QVERIFY(process.waitForFinished(60000));
        QCOMPARE(process.exitCode(), 130);
        QCOMPARE(mp4Entries(outPath()), QStringList());
    }

private:
    std::vector<cv::Mat> m_crossing;
    std::vector<cv::Mat> m_back;
    std::unique_ptr<Reference::Analysis> m_reference;
};

QTEST_GUILESS_MAIN(TremoraMapTimelapseTest)
#include "TremoraMapTimelapseTest.moc"
