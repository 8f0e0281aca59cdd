#include "MpegFrame.h"
#include "MpegReader.h"
#include "MpegWriter.h"
#include "TestPictures.h"
#include "TestSupport.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

namespace {

constexpr int kWidth = 160;
constexpr int kHeight = 120;
constexpr int kBitRate = 800000;
constexpr double kFps = 25.0;

// A YUV420P picture: a horizontal luma ramp starting at `luma`, neutral chroma.
std::unique_ptr<MpegFrame> makePicture(int luma, int64_t pts, int width = kWidth, int height = kHeight)
{
    AVFrame* frame = TestPictures::allocatePicture(AV_PIX_FMT_YUV420P, width, height);
    if (!frame)
        return nullptr;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            frame->data[0][y * frame->linesize[0] + x] = static_cast<uint8_t>(qBound(16, luma + x / 4, 235));
    for (int plane = 1; plane < 3; ++plane)
        for (int y = 0; y < (height + 1) / 2; ++y)
            std::memset(frame->data[plane] + y * frame->linesize[plane], 128, static_cast<size_t>((width + 1) / 2));
    frame->pts = pts;
    return std::make_unique<MpegFrame>(frame);
}

// Writes `count` pictures with pts 0, 1, ...; returns how many write() calls answered true.
int writePictures(MpegWriter& writer, int count, int firstLuma = 40)
{
    int accepted = 0;
    for (int i = 0; i < count; ++i) {
        const std::unique_ptr<MpegFrame> picture = makePicture(firstLuma + 3 * i, i);
        if (picture && writer.write(picture.get()))
            ++accepted;
    }
    return accepted;
}

double meanLuma(MpegFrame& frame)
{
    double sum = 0.0;
    for (int y = 0; y < frame.height(); ++y)
        for (int x = 0; x < frame.width(); ++x)
            sum += frame.data()[y * frame.step() + x];
    return sum / (static_cast<double>(frame.width()) * frame.height());
}

// One line of ffprobe's answer for the first video stream or the container, e.g.
// probe(path, "format=format_name").
QString probe(const QString& path, const QString& entries, const QStringList& extraArgs = {})
{
    QProcess process;
    process.start("ffprobe", extraArgs + QStringList{"-v", "error", "-select_streams", "v:0", "-show_entries", entries,
                                                     "-of", "default=noprint_wrappers=1:nokey=1", path});
    if (!process.waitForFinished(60000) || process.exitCode() != 0)
        return QStringLiteral("<ffprobe failed: %1>").arg(QString::fromLocal8Bit(process.readAllStandardError()));
    return QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
}

int probePacketCount(const QString& path)
{
    bool ok = false;
    const int count = probe(path, "stream=nb_read_packets", {"-count_packets"}).toInt(&ok);
    return ok ? count : -1;
}

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

struct DecodedClip {
    int width = -1;
    int height = -1;
    std::vector<std::unique_ptr<MpegFrame>> frames;
};

DecodedClip readClip(const QString& path)
{
    DecodedClip clip;
    MpegReader reader;
    if (!reader.open(path.toUtf8().constData()))
        return clip;
    clip.width = reader.width();
    clip.height = reader.height();
    while (MpegFrame* frame = reader.read(true))
        clip.frames.emplace_back(frame);
    reader.close();
    return clip;
}

// Packed R,G,B rows: the left half `left`, the right half `right`, each a grey level.
std::vector<uint8_t> rgbHalves(int width, int height, uint8_t left, uint8_t right)
{
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            std::memset(&rgb[(static_cast<size_t>(y) * width + x) * 3], x < width / 2 ? left : right, 3);
    return rgb;
}

// Writes `count` RGB pictures, a moving ramp, with pts 0, 1, ...; then drains.
void writeRgbRamps(MpegWriter& writer, int count)
{
    std::vector<uint8_t> rgb(static_cast<size_t>(kWidth) * kHeight * 3);
    for (int i = 0; i < count; ++i) {
        for (size_t b = 0; b < rgb.size(); ++b)
            rgb[b] = static_cast<uint8_t>((b / 3 % kWidth) * 2 + (b / 3 / kWidth) + i * 5 + b % 3 * 40);
        writer.writeRgb24(rgb.data(), kWidth * 3, i);
    }
    writer.drain();
}

// What av_dump_format and the rest of FFmpeg log while a test listens.
QStringList* loggedLines = nullptr;

void keepLogLine(void*, int, const char* format, va_list arguments)
{
    if (!loggedLines)
        return;
    char line[1024];
    std::vsnprintf(line, sizeof line, format, arguments);
    loggedLines->append(QString::fromUtf8(line));
}

} // namespace

class MpegWriterTest : public QObject {
    Q_OBJECT

private slots:
    void init();

    void mpgExtensionChoosesProgramStreamMuxer();
    void knownExtensionChoosesItsOwnMuxerAndDefaultCodec();
    void unknownExtensionFallsBackToProgramStream();
    void missingExtensionFallsBackToProgramStream();
    void fps25GivesTimeBaseOneTwentyFifth();
    void fps2997GivesTimeBaseHundredOver2997();

    void closeOnNeverOpenedWriterDoesNothing();
    void closeTwiceDoesNothingTheSecondTime();
    void openingSecondFileClosesFirstWithTrailer();
    void destructionClosesFileWithTrailer();

    void heldBackPictureReturnsFalseAndIsNotFlushedAtClose();
    void writeWithoutOpenFileReturnsFalse();
    void pictureOfOtherSizeOrFormatIsRefused();

    void drainWritesThePictureMpeg1HeldBack();
    void drainWritesEveryPictureH264HeldForItsLookAhead();
    void afterDrainWriteAndDrainAreRefused();
    void drainWithoutOpenFileReturnsFalse();

    void unwritablePathFailsAndCloseIsSafe();
    void containerWithoutVideoCodecFailsBeforeStreamExists();
    void encoderRefusingSettingsFailsAndCloseIsSafe();

    void roundTripThroughProgramStream();
    void roundTripThroughFileWithoutExtension();

    void containerOptionWinsOverTheFileNamesExtension();
    void namedEncoderIsUsedInsteadOfTheContainersDefault();
    void rgbPicturesBecomeLimitedRangeLuma();
    void rgbPictureOfAnotherSizeIsNotReadPastItsRows();
    void lowerConstantRateFactorGivesALargerFile();
    void indexFirstPutsTheIndexBeforeThePictures();
    void describingTheContainerIsOptional();

private:
    QString path(const QString& name) const { return m_dir->filePath(name); }
    void roundTrip(const QString& outputName);
    // Writes five pictures to `file` with `options` and drains; the container's and the
    // codec's names, or why not.
    QString writeFive(const QString& file, const MpegWriterOptions& options) const;

    std::unique_ptr<QTemporaryDir> m_dir;
};

void MpegWriterTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void MpegWriterTest::mpgExtensionChoosesProgramStreamMuxer()
{
    MpegWriter writer;
    QVERIFY(writer.open(path("clip.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QCOMPARE(QByteArray(writer.formatName()), QByteArray("mpeg"));
    QCOMPARE(QByteArray(writer.codecName()), QByteArray("mpeg1video"));
    QVERIFY(writePictures(writer, 5) > 0);
    writer.close();

    QCOMPARE(probe(path("clip.mpg"), "format=format_name"), QStringLiteral("mpeg"));
    QCOMPARE(probe(path("clip.mpg"), "stream=codec_name"), QStringLiteral("mpeg1video"));
}

void MpegWriterTest::knownExtensionChoosesItsOwnMuxerAndDefaultCodec()
{
    MpegWriter writer;
    QVERIFY(writer.open(path("clip.avi").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QCOMPARE(QByteArray(writer.formatName()), QByteArray("avi"));
    QCOMPARE(QByteArray(writer.codecName()), QByteArray("mpeg4"));
    QVERIFY(writePictures(writer, 5) > 0);
    writer.close();

    QCOMPARE(probe(path("clip.avi"), "format=format_name"), QStringLiteral("avi"));
    QCOMPARE(probe(path("clip.avi"), "stream=codec_name"), QStringLiteral("mpeg4"));
}

void MpegWriterTest::unknownExtensionFallsBackToProgramStream()
{
    MpegWriter writer;
    QVERIFY(writer.open(path("clip.unknownext").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QVERIFY(writer.isOpen());
    QCOMPARE(QByteArray(writer.formatName()), QByteArray("mpeg"));
    QVERIFY(writePictures(writer, 5) > 0);
    writer.close();

    QVERIFY(QFileInfo(path("clip.unknownext")).size() > 0);
    QCOMPARE(probe(path("clip.unknownext"), "format=format_name"), QStringLiteral("mpeg"));
}

void MpegWriterTest::missingExtensionFallsBackToProgramStream()
{
    MpegWriter writer;
    QVERIFY(writer.open(path("clip").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QVERIFY(writer.isOpen());
    QCOMPARE(QByteArray(writer.formatName()), QByteArray("mpeg"));
    QVERIFY(writePictures(writer, 5) > 0);
    writer.close();

    QVERIFY(QFileInfo(path("clip")).size() > 0);
    QCOMPARE(probe(path("clip"), "format=format_name"), QStringLiteral("mpeg"));
}

void MpegWriterTest::fps25GivesTimeBaseOneTwentyFifth()
{
    MpegWriter writer;
    QVERIFY(writer.open(path("clip.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, 25.0));
    QCOMPARE(writer.timeBaseNumerator(), 1);
    QCOMPARE(writer.timeBaseDenominator(), 25);
    QVERIFY(writePictures(writer, 3) > 0);
    writer.close();
    QCOMPARE(probe(path("clip.mpg"), "stream=r_frame_rate"), QStringLiteral("25/1"));
}

void MpegWriterTest::fps2997GivesTimeBaseHundredOver2997()
{
    // MPEG-1 video only knows the standard rates (29.97 there is 30000/1001), so this rate
    // goes into a container whose default codec takes any time base.
    MpegWriter writer;
    QVERIFY(writer.open(path("clip.avi").toUtf8().constData(), kBitRate, kWidth, kHeight, 29.97));
    QCOMPARE(writer.timeBaseNumerator(), 100);
    QCOMPARE(writer.timeBaseDenominator(), 2997);
    QVERIFY(writePictures(writer, 3) > 0);
    writer.close();
    QCOMPARE(probe(path("clip.avi"), "stream=time_base"), QStringLiteral("100/2997"));
}

void MpegWriterTest::closeOnNeverOpenedWriterDoesNothing()
{
    MpegWriter writer;
    writer.close();
    QVERIFY(!writer.isOpen());
    QCOMPARE(QByteArray(writer.formatName()), QByteArray());
    QCOMPARE(writer.timeBaseNumerator(), 0);
    QCOMPARE(writer.timeBaseDenominator(), 1);
    QVERIFY(QDir(m_dir->path()).isEmpty());
}

void MpegWriterTest::closeTwiceDoesNothingTheSecondTime()
{
    MpegWriter writer;
    QVERIFY(writer.open(path("clip.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QVERIFY(writePictures(writer, 8) > 0);
    writer.close();
    const QByteArray afterFirstClose = fileBytes(path("clip.mpg"));
    QVERIFY(!afterFirstClose.isEmpty());

    writer.close();
    QVERIFY(!writer.isOpen());
    QCOMPARE(fileBytes(path("clip.mpg")), afterFirstClose);
}

void MpegWriterTest::openingSecondFileClosesFirstWithTrailer()
{
    // The same pictures closed explicitly give the reference of a complete file: the
    // program-stream muxer keeps packets back until its trailer flushes them.
    {
        MpegWriter reference;
        QVERIFY(reference.open(path("reference.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
        QVERIFY(writePictures(reference, 8) > 0);
        reference.close();
    }

    MpegWriter writer;
    QVERIFY(writer.open(path("first.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    const int firstPackets = writePictures(writer, 8);
    QVERIFY(firstPackets > 0);
    QVERIFY(writer.open(path("second.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));

    QCOMPARE(fileBytes(path("first.mpg")), fileBytes(path("reference.mpg")));
    QCOMPARE(probePacketCount(path("first.mpg")), firstPackets);

    const int secondPackets = writePictures(writer, 4);
    QVERIFY(secondPackets > 0);
    writer.close();
    QCOMPARE(probePacketCount(path("second.mpg")), secondPackets);
}

void MpegWriterTest::destructionClosesFileWithTrailer()
{
    {
        MpegWriter reference;
        QVERIFY(reference.open(path("reference.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
        QVERIFY(writePictures(reference, 6) > 0);
        reference.close();
    }
    {
        MpegWriter writer;
        QVERIFY(writer.open(path("destroyed.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
        QVERIFY(writePictures(writer, 6) > 0);
    }
    QCOMPARE(fileBytes(path("destroyed.mpg")), fileBytes(path("reference.mpg")));
}

void MpegWriterTest::heldBackPictureReturnsFalseAndIsNotFlushedAtClose()
{
    // MPEG-1 video keeps one picture back before it hands out the packet of the one before.
    MpegWriter writer;
    QVERIFY(writer.open(path("clip.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    const std::unique_ptr<MpegFrame> first = makePicture(40, 0);
    QVERIFY(!writer.write(first.get()));

    constexpr int kPictures = 8;
    for (int i = 1; i < kPictures; ++i) {
        const std::unique_ptr<MpegFrame> picture = makePicture(40 + 10 * i, i);
        QVERIFY2(writer.write(picture.get()), qPrintable(QStringLiteral("picture %1").arg(i)));
    }
    writer.close();

    // The picture still held at close is dropped, not flushed.
    QCOMPARE(probePacketCount(path("clip.mpg")), kPictures - 1);
}

void MpegWriterTest::drainWritesThePictureMpeg1HeldBack()
{
    MpegWriter writer;
    QVERIFY(writer.open(path("drained.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    constexpr int kPictures = 8;
    QCOMPARE(writePictures(writer, kPictures), kPictures - 1);
    QVERIFY(writer.drain());
    writer.close();
    QCOMPARE(probePacketCount(path("drained.mpg")), kPictures);
}

void MpegWriterTest::drainWritesEveryPictureH264HeldForItsLookAhead()
{
    MpegWriter writer;
    QVERIFY(writer.open(path("drained.mp4").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QCOMPARE(QByteArray(writer.codecName()), QByteArray("libx264"));
    constexpr int kPictures = 30;
    // The encoder's look-ahead holds more pictures than that, so none comes back yet.
    QCOMPARE(writePictures(writer, kPictures), 0);
    QVERIFY(writer.drain());
    writer.close();
    QCOMPARE(probePacketCount(path("drained.mp4")), kPictures);
    QCOMPARE(probe(path("drained.mp4"), "stream=nb_read_frames", {"-count_frames"}), QString::number(kPictures));
}

void MpegWriterTest::afterDrainWriteAndDrainAreRefused()
{
    MpegWriter writer;
    QVERIFY(writer.open(path("ended.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QCOMPARE(writePictures(writer, 4), 3);
    QVERIFY(writer.drain());
    const std::unique_ptr<MpegFrame> late = makePicture(90, 4);
    QVERIFY(!writer.write(late.get()));
    QVERIFY(!writer.drain());
    writer.close();
    QCOMPARE(probePacketCount(path("ended.mpg")), 4);
}

void MpegWriterTest::drainWithoutOpenFileReturnsFalse()
{
    MpegWriter never;
    QVERIFY(!never.drain());
    MpegWriter closed;
    QVERIFY(closed.open(path("closed.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    closed.close();
    QVERIFY(!closed.drain());
}

void MpegWriterTest::writeWithoutOpenFileReturnsFalse()
{
    const std::unique_ptr<MpegFrame> picture = makePicture(80, 0);
    MpegWriter writer;
    QVERIFY(!writer.write(picture.get()));

    QVERIFY(writer.open(path("clip.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QVERIFY(!writer.write(nullptr));
    QVERIFY(writePictures(writer, 3) > 0);
    writer.close();
    QVERIFY(!writer.write(picture.get()));
}

void MpegWriterTest::pictureOfOtherSizeOrFormatIsRefused()
{
    MpegWriter writer;
    QVERIFY(writer.open(path("clip.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    int accepted = writePictures(writer, 4);
    QVERIFY(accepted > 0);

    const std::unique_ptr<MpegFrame> smaller = makePicture(80, 4, kWidth / 2, kHeight / 2);
    QVERIFY(!writer.write(smaller.get()));
    const std::unique_ptr<MpegFrame> packed = makePicture(80, 4);
    packed->avFrame()->format = AV_PIX_FMT_GRAY8;
    QVERIFY(!writer.write(packed.get()));

    // Refused pictures never reach the encoder: the next fitting one is taken as usual.
    const std::unique_ptr<MpegFrame> fitting = makePicture(80, 4);
    QVERIFY(writer.write(fitting.get()));
    ++accepted;
    writer.close();
    QCOMPARE(probePacketCount(path("clip.mpg")), accepted);
}

void MpegWriterTest::unwritablePathFailsAndCloseIsSafe()
{
    const QString unwritable = path("missing-folder/deeper/clip.mpg");
    MpegWriter writer;
    QVERIFY(!writer.open(unwritable.toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QVERIFY(!writer.isOpen());
    const std::unique_ptr<MpegFrame> picture = makePicture(80, 0);
    QVERIFY(!writer.write(picture.get()));
    writer.close();
    writer.close();
    QVERIFY(!QFileInfo::exists(unwritable));
    QVERIFY(!writer.open(nullptr, kBitRate, kWidth, kHeight, kFps));
    writer.close();

    // The writer is still usable afterwards.
    QVERIFY(writer.open(path("clip.mpg").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QVERIFY(writePictures(writer, 3) > 0);
}

void MpegWriterTest::containerWithoutVideoCodecFailsBeforeStreamExists()
{
    MpegWriter writer;
    QVERIFY(!writer.open(path("sound.wav").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QVERIFY(!writer.isOpen());
    QCOMPARE(QByteArray(writer.formatName()), QByteArray("wav"));
    QCOMPARE(QByteArray(writer.codecName()), QByteArray());
    writer.close();
    QVERIFY(!QFileInfo::exists(path("sound.wav")));
}

void MpegWriterTest::encoderRefusingSettingsFailsAndCloseIsSafe()
{
    MpegWriter writer;
    QVERIFY(!writer.open(path("empty.mpg").toUtf8().constData(), kBitRate, 0, 0, kFps));
    QVERIFY(!writer.isOpen());
    QCOMPARE(QByteArray(writer.codecName()), QByteArray("mpeg1video"));
    writer.close();
    QVERIFY(!QFileInfo::exists(path("empty.mpg")));
    // Destruction after a failed open must release the half-built state as well.
    QVERIFY(!writer.open(path("empty2.mpg").toUtf8().constData(), kBitRate, 0, 0, kFps));
}

void MpegWriterTest::roundTripThroughProgramStream()
{
    roundTrip(QStringLiteral("out.mpg"));
}

void MpegWriterTest::roundTripThroughFileWithoutExtension()
{
    roundTrip(QStringLiteral("out"));
}

void MpegWriterTest::roundTrip(const QString& outputName)
{
    constexpr int kFrames = 20;
    std::vector<QByteArray> rawFrames;
    for (int i = 0; i < kFrames; ++i) {
        QByteArray frame(kWidth * kHeight, Qt::Uninitialized);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                frame[y * kWidth + x] = static_cast<char>(qBound(16, 30 + 8 * i + (x + y) / 4, 235));
        rawFrames.push_back(frame);
    }
    const QString source = path("source.mkv");
    QVERIFY(TestSupport::writeRawClip(source, kWidth, kHeight, rawFrames, {"-c:v", "ffv1", "-pix_fmt", "yuv420p"}));

    DecodedClip original = readClip(source);
    QCOMPARE(original.width, kWidth);
    QCOMPARE(original.height, kHeight);
    QCOMPARE(static_cast<int>(original.frames.size()), kFrames);

    MpegWriter writer;
    const QString output = path(outputName);
    QVERIFY(writer.open(output.toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    int accepted = 0;
    for (size_t i = 0; i < original.frames.size(); ++i) {
        AVFrame* picture = original.frames[i]->avFrame();
        QCOMPARE(picture->format, static_cast<int>(AV_PIX_FMT_YUV420P));
        picture->pts = static_cast<int64_t>(i);
        // The lossless source marks every picture as a key picture; left alone, that would
        // force the encoder to code every one of them as such.
        picture->pict_type = AV_PICTURE_TYPE_NONE;
        if (writer.write(original.frames[i].get()))
            ++accepted;
    }
    writer.close();
    QVERIFY2(accepted > kFrames - 3, qPrintable(QString::number(accepted)));

    const DecodedClip copy = readClip(output);
    QCOMPARE(copy.width, kWidth);
    QCOMPARE(copy.height, kHeight);
    // Pictures held back by the encoder (at close) or by the decoder (at the end of input)
    // are missing at the end, never at the start.
    const int copied = static_cast<int>(copy.frames.size());
    QVERIFY2(copied <= accepted && copied >= accepted - 2,
             qPrintable(QStringLiteral("%1 of %2").arg(copied).arg(accepted)));

    constexpr double kLumaTolerance = 3.0;
    for (int i = 0; i < copied; ++i) {
        const double expected = meanLuma(*original.frames[static_cast<size_t>(i)]);
        const double actual = meanLuma(*copy.frames[static_cast<size_t>(i)]);
        QVERIFY2(qAbs(actual - expected) < kLumaTolerance,
                 qPrintable(QStringLiteral("picture %1: %2 instead of %3").arg(i).arg(actual).arg(expected)));
    }
    for (int i = 1; i < copied; ++i) {
        const double step = copy.frames[static_cast<size_t>(i)]->m_time - copy.frames[static_cast<size_t>(i) - 1]->m_time;
        QVERIFY2(qAbs(step - 1.0 / kFps) < 1e-3, qPrintable(QStringLiteral("picture %1: step %2").arg(i).arg(step)));
    }
}

void MpegWriterTest::containerOptionWinsOverTheFileNamesExtension()
{
    MpegWriterOptions options;
    options.container = "mp4";
    QCOMPARE(writeFive(path("clip.mp4.partial"), options), QStringLiteral("mp4 libx264"));
    QVERIFY(probe(path("clip.mp4.partial"), "format=format_name").contains("mp4"));
}

void MpegWriterTest::namedEncoderIsUsedInsteadOfTheContainersDefault()
{
    MpegWriterOptions options;
    options.encoder = "mpeg4";
    QCOMPARE(writeFive(path("clip.mp4"), options), QStringLiteral("mp4 mpeg4"));
    QCOMPARE(probe(path("clip.mp4"), "stream=codec_name"), QStringLiteral("mpeg4"));
}

QString MpegWriterTest::writeFive(const QString& file, const MpegWriterOptions& options) const
{
    MpegWriter writer;
    if (!writer.open(file.toUtf8().constData(), kBitRate, kWidth, kHeight, kFps, options))
        return QStringLiteral("<not opened>");
    const QString names = QStringLiteral("%1 %2").arg(writer.formatName(), writer.codecName());
    writePictures(writer, 5);
    const bool drained = writer.drain();
    writer.close();
    return drained ? names : QStringLiteral("<not drained>");
}

void MpegWriterTest::rgbPicturesBecomeLimitedRangeLuma()
{
    // A lossless encoder, so that the luma read back is the converted luma itself.
    MpegWriterOptions options;
    options.encoder = "ffv1";
    MpegWriter writer;
    QVERIFY(writer.open(path("rgb.mkv").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps, options));
    const std::vector<uint8_t> rgb = rgbHalves(kWidth, kHeight, 255, 0);
    for (int i = 0; i < 3; ++i)
        QVERIFY(writer.writeRgb24(rgb.data(), kWidth * 3, i));
    QVERIFY(writer.drain());
    writer.close();
    const DecodedClip clip = readClip(path("rgb.mkv"));
    QCOMPARE(static_cast<int>(clip.frames.size()), 3);
    for (const auto& frame : clip.frames) {
        // BT.601 in limited range: white at 235, black at 16.
        QVERIFY(qAbs(frame->data()[kHeight / 2 * frame->step() + kWidth / 4] - 235) <= 1);
        QVERIFY(qAbs(frame->data()[kHeight / 2 * frame->step() + kWidth * 3 / 4] - 16) <= 1);
    }
}

void MpegWriterTest::rgbPictureOfAnotherSizeIsNotReadPastItsRows()
{
    MpegWriter writer;
    QVERIFY(!writer.writeRgb24(nullptr, kWidth * 3, 0));
    QVERIFY(writer.open(path("rgb.mp4").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps));
    QVERIFY(!writer.writeRgb24(nullptr, kWidth * 3, 0));
    writer.close();
    const std::vector<uint8_t> rgb = rgbHalves(kWidth, kHeight, 10, 20);
    QVERIFY(!writer.writeRgb24(rgb.data(), kWidth * 3, 0));
}

void MpegWriterTest::lowerConstantRateFactorGivesALargerFile()
{
    for (const int factor : {10, 40}) {
        MpegWriterOptions options;
        options.encoder = "libx264";
        options.constantRateFactor = factor;
        MpegWriter writer;
        QVERIFY(writer.open(path(QStringLiteral("crf%1.mp4").arg(factor)).toUtf8().constData(), 0, kWidth, kHeight,
                            kFps, options));
        writeRgbRamps(writer, 20);
        writer.close();
    }
    const qint64 fine = QFileInfo(path("crf10.mp4")).size();
    const qint64 coarse = QFileInfo(path("crf40.mp4")).size();
    QVERIFY2(fine > 2 * coarse, qPrintable(QStringLiteral("%1 vs %2 bytes").arg(fine).arg(coarse)));
    QCOMPARE(probePacketCount(path("crf40.mp4")), 20);
}

void MpegWriterTest::indexFirstPutsTheIndexBeforeThePictures()
{
    for (const bool first : {true, false}) {
        MpegWriterOptions options;
        options.indexFirst = first;
        MpegWriter writer;
        const QString name = first ? QStringLiteral("first.mp4") : QStringLiteral("last.mp4");
        QVERIFY(writer.open(path(name).toUtf8().constData(), kBitRate, kWidth, kHeight, kFps, options));
        writeRgbRamps(writer, 10);
        writer.close();
        const QByteArray bytes = fileBytes(path(name));
        QVERIFY(bytes.indexOf("moov") > 0 && bytes.indexOf("mdat") > 0);
        QCOMPARE(bytes.indexOf("moov") < bytes.indexOf("mdat"), first);
        QCOMPARE(probePacketCount(path(name)), 10);
    }
}

void MpegWriterTest::describingTheContainerIsOptional()
{
    QStringList lines;
    loggedLines = &lines;
    av_log_set_callback(keepLogLine);
    MpegWriterOptions quiet;
    quiet.describe = false;
    MpegWriter writer;
    const bool quietOpened =
        writer.open(path("quiet.mp4").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps, quiet);
    writer.close();
    const QStringList quietLines = lines;
    lines.clear();
    const bool describedOpened = writer.open(path("described.mp4").toUtf8().constData(), kBitRate, kWidth, kHeight, kFps);
    writer.close();
    av_log_set_callback(av_log_default_callback);
    loggedLines = nullptr;
    QVERIFY(quietOpened && describedOpened);
    QVERIFY(!quietLines.join(QString()).contains("Output #0"));
    QVERIFY(lines.join(QString()).contains("Output #0"));
}

QTEST_GUILESS_MAIN(MpegWriterTest)
#include "MpegWriterTest.moc"
