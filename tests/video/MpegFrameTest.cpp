#include "GrayPlanes.h"
#include "MpegFrame.h"
#include "MpegReader.h"
#include "TestSupport.h"

#include <QTemporaryDir>
#include <QtTest>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;

using FramePtr = std::unique_ptr<MpegFrame>;

struct Rgb {
    uint8_t r;
    uint8_t g;
    uint8_t b;
};

// Full-range BT.601 luma, the grey of an RGB colour.
int greyOf(int r, int g, int b)
{
    return static_cast<int>(std::lround(0.299 * r + 0.587 * g + 0.114 * b));
}

// A grey test pattern with many different values in every row and column.
uint8_t patternValue(int x, int y)
{
    return static_cast<uint8_t>((x * 5 + y * 3) % 256);
}

QByteArray grayPattern(int width = kWidth, int height = kHeight)
{
    QByteArray picture(width * height, '\0');
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            picture[y * width + x] = static_cast<char>(patternValue(x, y));
    return picture;
}

// Eight colour bars across the picture.
const std::vector<Rgb> kBars = {{255, 0, 0},   {0, 255, 0},   {0, 0, 255},     {255, 255, 255},
                                {0, 0, 0},     {128, 128, 128}, {10, 200, 30}, {250, 120, 5}};

Rgb barColour(int x, int width)
{
    return kBars[static_cast<size_t>(x * static_cast<int>(kBars.size()) / width)];
}

QByteArray colourBars(int width = kWidth, int height = kHeight)
{
    QByteArray picture;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const Rgb colour = barColour(x, width);
            picture.append(static_cast<char>(colour.r)).append(static_cast<char>(colour.g)).append(static_cast<char>(colour.b));
        }
    return picture;
}

QByteArray lumaOf(const MpegFrame& frame)
{
    QByteArray luma;
    for (int y = 0; y < frame.height(); ++y)
        luma.append(reinterpret_cast<const char*>(frame.data() + y * frame.step()), frame.width());
    return luma;
}

int maxDifference(const QByteArray& a, const QByteArray& b)
{
    int difference = a.size() == b.size() ? 0 : 256;
    for (int i = 0; i < std::min(a.size(), b.size()); ++i)
        difference = std::max(difference, std::abs(uint8_t(a[i]) - uint8_t(b[i])));
    return difference;
}

FramePtr firstPicture(const QString& path)
{
    MpegReader reader;
    if (!reader.open(path.toUtf8().constData()))
        return nullptr;
    return FramePtr(reader.read(true));
}

QString formatOf(const MpegFrame& frame)
{
    return QString::fromLatin1(av_get_pix_fmt_name(static_cast<AVPixelFormat>(frame.avFrame()->format)));
}

// A picture with its own buffers, content zero; null when FFmpeg cannot allocate it.
AVFrame* allocatePicture(AVPixelFormat format, int width, int height)
{
    AVFrame* frame = av_frame_alloc();
    frame->format = format;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame, 0) < 0) {
        av_frame_free(&frame);
        return nullptr;
    }
    for (int plane = 0; plane < AV_NUM_DATA_POINTERS && frame->buf[plane]; ++plane)
        std::memset(frame->buf[plane]->data, 0, frame->buf[plane]->size);
    return frame;
}

FramePtr makePicture(AVPixelFormat format, int width, int height)
{
    AVFrame* frame = allocatePicture(format, width, height);
    return frame ? std::make_unique<MpegFrame>(frame) : nullptr;
}

// A high-depth picture whose 16-bit luma samples repeat `values` along every row.
AVFrame* allocateLumaPicture(AVPixelFormat format, int width, int height, const std::vector<uint16_t>& values,
                             bool bigEndian)
{
    AVFrame* frame = allocatePicture(format, width, height);
    if (!frame)
        return nullptr;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const uint16_t value = values[static_cast<size_t>(x) % values.size()];
            uint8_t* sample = frame->data[0] + y * frame->linesize[0] + 2 * x;
            sample[bigEndian ? 1 : 0] = static_cast<uint8_t>(value & 0xff);
            sample[bigEndian ? 0 : 1] = static_cast<uint8_t>(value >> 8);
        }
    return frame;
}

FramePtr makeLumaPicture(AVPixelFormat format, int width, int height, const std::vector<uint16_t>& values,
                         bool bigEndian)
{
    AVFrame* frame = allocateLumaPicture(format, width, height, values, bigEndian);
    return frame ? std::make_unique<MpegFrame>(frame) : nullptr;
}

// Ten-bit samples of the eight-bit values given, the ten-bit video of the same scene.
std::vector<uint16_t> tenBitSamplesOf(const std::vector<int>& eightBitValues)
{
    std::vector<uint16_t> samples;
    for (int value : eightBitValues)
        samples.push_back(static_cast<uint16_t>(value << 2));
    return samples;
}

// A caller's buffer with guard bytes before and after the rows.
class GuardedBuffer {
public:
    static constexpr int kGuard = 256;
    static constexpr uint8_t kGuardValue = 0xA5;

    explicit GuardedBuffer(int size) : m_bytes(static_cast<size_t>(size + 2 * kGuard), kGuardValue), m_size(size) {}

    uint8_t* data() { return m_bytes.data() + kGuard; }
    bool guardsIntact() const
    {
        const auto intact = [](uint8_t value) { return value == kGuardValue; };
        return std::all_of(m_bytes.begin(), m_bytes.begin() + kGuard, intact)
               && std::all_of(m_bytes.end() - kGuard, m_bytes.end(), intact);
    }
    bool untouched() const
    {
        return std::all_of(m_bytes.begin(), m_bytes.end(), [](uint8_t value) { return value == kGuardValue; });
    }
    int size() const { return m_size; }

private:
    std::vector<uint8_t> m_bytes;
    int m_size;
};

} // namespace

class MpegFrameTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void eightBitYuvLumaIsFirstPlaneWithoutCopy();
    void constructedEightBitFormatsUseFirstPlane();
    void grayClipGivesExactLuma();
    void tenBitClipGivesLumaOfEightBitClip();
    void highDepthLumaKeepsItsValues_data();
    void highDepthLumaKeepsItsValues();
    void everyYuvClipGivesTheLumaOfItsPlanarClip_data();
    void everyYuvClipGivesTheLumaOfItsPlanarClip();
    void packedLumaKeepsItsValues_data();
    void packedLumaKeepsItsValues();
    void rgbClipGivesBt601Grey_data();
    void rgbClipGivesBt601Grey();
    void palettedClipGivesGreyOfItsColours();
    void gray16ClipGivesEightBitGrey();
    void bottomUpPictureGivesRowsTopDown();
    void unconvertiblePictureIsBlackAndLeavesRgbUntouched();
    void greyCopyFromUsedPlaneHoldsLumaAndZeroSlack();
    void unconvertiblePictureFromUsedPlaneIsBlack();
    void nullPictureIsHarmless();
    void constructedFrameOwnsPictureAndHasNoTime();

    void rgb24SameSizeKeepsColoursExactly();
    void rgb24SmallerSizeIsBilinearReduction();
    void rgb16HasRgb565LittleEndianLayout();
    void rgb32HasBgraLayout();
    void conversionsStayInsideTightBuffer568x320();
    void conversionsIgnoreInvalidArguments();
    void onePixelAndOddSizedPicturesConvert();

private:
    QString path(const QString& name) const { return m_dir.filePath(name); }

    QTemporaryDir m_dir;
    QString m_barsClip;
};

void MpegFrameTest::initTestCase()
{
    // The stream descriptions FFmpeg prints on every open would bury the test output.
    av_log_set_level(AV_LOG_FATAL);
    QVERIFY(m_dir.isValid());
    m_barsClip = path("bars-rgb24.nut");
    QVERIFY(TestSupport::writeRawClip(m_barsClip, kWidth, kHeight, {colourBars()},
                                      {"-c:v", "rawvideo", "-pix_fmt", "rgb24"}, "rgb24"));
}

void MpegFrameTest::eightBitYuvLumaIsFirstPlaneWithoutCopy()
{
    const QString clip = path("pattern-yuv420p.mkv");
    QVERIFY(TestSupport::writeRawClip(clip, kWidth, kHeight, {grayPattern()}, {"-pix_fmt", "yuv420p", "-c:v", "ffv1"}));
    const FramePtr frame = firstPicture(clip);
    QVERIFY(frame);
    QCOMPARE(formatOf(*frame), QString("yuv420p"));
    QCOMPARE(frame->data(), frame->avFrame()->data[0]);
    QCOMPARE(frame->step(), frame->avFrame()->linesize[0]);
    const MpegFrame& constFrame = *frame;
    QCOMPARE(constFrame.data(), frame->avFrame()->data[0]);
}

void MpegFrameTest::constructedEightBitFormatsUseFirstPlane()
{
    for (AVPixelFormat format : {AV_PIX_FMT_GRAY8, AV_PIX_FMT_NV12, AV_PIX_FMT_NV21, AV_PIX_FMT_YUVJ422P,
                                 AV_PIX_FMT_YUV410P, AV_PIX_FMT_YUV411P, AV_PIX_FMT_YUV440P, AV_PIX_FMT_YUVA420P,
                                 AV_PIX_FMT_YUV444P}) {
        const FramePtr frame = makePicture(format, 33, 17);
        QVERIFY(frame);
        QVERIFY2(frame->data() == frame->avFrame()->data[0], av_get_pix_fmt_name(format));
        QCOMPARE(frame->width(), 33);
        QCOMPARE(frame->height(), 17);
    }
}

void MpegFrameTest::grayClipGivesExactLuma()
{
    const QString clip = path("pattern-gray.mkv");
    QVERIFY(TestSupport::writeRawClip(clip, kWidth, kHeight, {grayPattern()}));
    const FramePtr frame = firstPicture(clip);
    QVERIFY(frame);
    QCOMPARE(formatOf(*frame), QString("gray"));
    QCOMPARE(frame->width(), kWidth);
    QCOMPARE(frame->height(), kHeight);
    QVERIFY(frame->step() >= kWidth);
    QCOMPARE(lumaOf(*frame), grayPattern());
}

void MpegFrameTest::tenBitClipGivesLumaOfEightBitClip()
{
    const QString eightBit = path("pattern-8bit.mkv");
    const QString tenBit = path("pattern-10bit.mkv");
    QVERIFY(TestSupport::writeRawClip(eightBit, kWidth, kHeight, {grayPattern()}, {"-pix_fmt", "yuv420p", "-c:v", "ffv1"}));
    QVERIFY(TestSupport::writeRawClip(tenBit, kWidth, kHeight, {grayPattern()}, {"-pix_fmt", "yuv420p10le", "-c:v", "ffv1"}));
    const FramePtr reference = firstPicture(eightBit);
    const FramePtr frame = firstPicture(tenBit);
    QVERIFY(reference && frame);
    QCOMPARE(formatOf(*frame), QString("yuv420p10le"));
    QCOMPARE(frame->width(), kWidth);
    QCOMPARE(frame->height(), kHeight);
    QVERIFY(frame->step() >= kWidth);
    const QByteArray luma = lumaOf(*frame);
    QVERIFY2(maxDifference(luma, lumaOf(*reference)) <= 1,
             qPrintable(QString("differs by %1").arg(maxDifference(luma, lumaOf(*reference)))));
    // Video range stays video range: black 16, white 235, not stretched to 0..255.
    const auto [darkest, brightest] = std::minmax_element(luma.begin(), luma.end(), [](char a, char b) {
        return uint8_t(a) < uint8_t(b);
    });
    QVERIFY2(std::abs(uint8_t(*darkest) - 16) <= 1, qPrintable(QString::number(uint8_t(*darkest))));
    QVERIFY2(std::abs(uint8_t(*brightest) - 235) <= 1, qPrintable(QString::number(uint8_t(*brightest))));
}

void MpegFrameTest::highDepthLumaKeepsItsValues_data()
{
    QTest::addColumn<int>("format");
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("shift");
    QTest::addColumn<bool>("bigEndian");
    QTest::newRow("yuv420p10le") << int(AV_PIX_FMT_YUV420P10LE) << 10 << 0 << false;
    QTest::newRow("yuv420p10be") << int(AV_PIX_FMT_YUV420P10BE) << 10 << 0 << true;
    QTest::newRow("yuv422p12le") << int(AV_PIX_FMT_YUV422P12LE) << 12 << 0 << false;
    QTest::newRow("yuv444p16le") << int(AV_PIX_FMT_YUV444P16LE) << 16 << 0 << false;
    QTest::newRow("p010le") << int(AV_PIX_FMT_P010LE) << 10 << 6 << false;
    QTest::newRow("gray10le") << int(AV_PIX_FMT_GRAY10LE) << 10 << 0 << false;
    QTest::newRow("gray16be") << int(AV_PIX_FMT_GRAY16BE) << 16 << 0 << true;
}

void MpegFrameTest::highDepthLumaKeepsItsValues()
{
    QFETCH(int, format);
    QFETCH(int, bits);
    QFETCH(int, shift);
    QFETCH(bool, bigEndian);
    const std::vector<int> eightBitValues = {0, 16, 100, 128, 200, 235, 255};
    std::vector<uint16_t> samples;
    for (int value : eightBitValues)
        samples.push_back(static_cast<uint16_t>((value << (bits - 8)) << shift));
    const FramePtr frame = makeLumaPicture(static_cast<AVPixelFormat>(format), 35, 6, samples, bigEndian);
    QVERIFY(frame);
    QVERIFY(frame->data() != frame->avFrame()->data[0]);
    QVERIFY(frame->step() >= 35);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 35; ++x) {
            const int expected = eightBitValues[static_cast<size_t>(x) % eightBitValues.size()];
            const int actual = frame->data()[y * frame->step() + x];
            QVERIFY2(std::abs(actual - expected) <= 1,
                     qPrintable(QString("(%1,%2): %3 instead of %4").arg(x).arg(y).arg(actual).arg(expected)));
        }
}

void MpegFrameTest::everyYuvClipGivesTheLumaOfItsPlanarClip_data()
{
    QTest::addColumn<QString>("format");
    for (const char* format : {"yuv422p", "yuyv422", "uyvy422", "yvyu422", "nv12", "nv21"})
        QTest::newRow(format) << QString::fromLatin1(format);
}

void MpegFrameTest::everyYuvClipGivesTheLumaOfItsPlanarClip()
{
    // The planar clip in video range (16 to 235); the others are converted from it, which
    // moves only the chroma.
    QFETCH(QString, format);
    const QString planar = path("pattern-planar.mkv");
    if (!QFile::exists(planar))
        QVERIFY(TestSupport::writeRawClip(planar, kWidth, kHeight, {grayPattern()}, {"-pix_fmt", "yuv420p", "-c:v", "ffv1"}));
    const QString clip = path(QStringLiteral("pattern-%1.nut").arg(format));
    QVERIFY(TestSupport::runFfmpeg({"-i", planar, "-pix_fmt", format, "-c:v", "rawvideo", clip}));
    const FramePtr reference = firstPicture(planar);
    const FramePtr frame = firstPicture(clip);
    QVERIFY(reference && frame);
    QCOMPARE(formatOf(*frame), format);
    const QByteArray luma = lumaOf(*frame);
    QCOMPARE(luma, lumaOf(*reference));
    const auto [darkest, brightest] = std::minmax_element(luma.begin(), luma.end(), [](char a, char b) {
        return uint8_t(a) < uint8_t(b);
    });
    QCOMPARE(int(uint8_t(*darkest)), 16);
    QCOMPARE(int(uint8_t(*brightest)), 235);
}

void MpegFrameTest::packedLumaKeepsItsValues_data()
{
    QTest::addColumn<int>("format");
    QTest::addColumn<int>("bits");
    QTest::newRow("yuyv422") << int(AV_PIX_FMT_YUYV422) << 8;
    QTest::newRow("uyvy422") << int(AV_PIX_FMT_UYVY422) << 8;
    QTest::newRow("uyyvyy411") << int(AV_PIX_FMT_UYYVYY411) << 8;
    QTest::newRow("ya8") << int(AV_PIX_FMT_YA8) << 8;
    QTest::newRow("y210le") << int(AV_PIX_FMT_Y210LE) << 10;
    QTest::newRow("ayuv64le") << int(AV_PIX_FMT_AYUV64LE) << 16;
    // Grey spans the full range: 255 is 65535.
    QTest::newRow("ya16be") << int(AV_PIX_FMT_YA16BE) << 16;
}

void MpegFrameTest::packedLumaKeepsItsValues()
{
    QFETCH(int, format);
    QFETCH(int, bits);
    const bool grey = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format))->nb_components <= 2;
    const std::vector<int> eightBitValues = {0, 16, 100, 128, 200, 235, 255};
    const int width = 35;
    const int height = 4;
    AVFrame* picture = allocatePicture(static_cast<AVPixelFormat>(format), width, height);
    QVERIFY(picture);
    const auto valueAt = [&](int x, int y) { return eightBitValues[static_cast<size_t>(x + y) % eightBitValues.size()]; };
    for (int y = 0; y < height; ++y) {
        uint8_t* row = picture->data[0] + y * picture->linesize[0];
        if (format == AV_PIX_FMT_UYYVYY411) {
            // U Y0 Y1 V Y2 Y3: its descriptor cannot say where the luma samples lie.
            for (int x = 0; x < width; ++x)
                row[(x / 4) * 6 + std::vector<int>{1, 2, 4, 5}[static_cast<size_t>(x % 4)]] = static_cast<uint8_t>(valueAt(x, y));
            continue;
        }
        std::vector<uint16_t> samples;
        for (int x = 0; x < width; ++x)
            samples.push_back(static_cast<uint16_t>(grey ? valueAt(x, y) * ((1 << bits) - 1) / 255 : valueAt(x, y) << (bits - 8)));
        av_write_image_line2(samples.data(), picture->data, picture->linesize, av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format)),
                             0, y, 0, width, 2);
    }
    const MpegFrame frame(picture);
    QVERIFY(frame.step() >= width);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            QVERIFY2(frame.data()[y * frame.step() + x] == valueAt(x, y),
                     qPrintable(QString("(%1,%2): %3 instead of %4").arg(x).arg(y).arg(frame.data()[y * frame.step() + x]).arg(valueAt(x, y))));
}

void MpegFrameTest::rgbClipGivesBt601Grey_data()
{
    QTest::addColumn<QString>("clip");
    QTest::addColumn<QString>("format");
    QTest::newRow("rgb24 rawvideo") << "bars-rgb24.nut" << "rgb24";
    QTest::newRow("bgr0 ffv1") << "bars-bgr0.mkv" << "bgr0";
    QTest::newRow("gbrp10 ffv1") << "bars-gbrp10.mkv" << "gbrp10le";
}

void MpegFrameTest::rgbClipGivesBt601Grey()
{
    QFETCH(QString, clip);
    QFETCH(QString, format);
    if (!QFile::exists(path(clip)))
        QVERIFY(TestSupport::writeRawClip(path(clip), kWidth, kHeight, {colourBars()},
                                          {"-pix_fmt", format, "-c:v", "ffv1"}, "rgb24"));
    const FramePtr frame = firstPicture(path(clip));
    QVERIFY(frame);
    QCOMPARE(formatOf(*frame), format);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const Rgb colour = barColour(x, kWidth);
            const int expected = greyOf(colour.r, colour.g, colour.b);
            const int actual = frame->data()[y * frame->step() + x];
            QVERIFY2(std::abs(actual - expected) <= 1,
                     qPrintable(QString("(%1,%2): %3 instead of %4").arg(x).arg(y).arg(actual).arg(expected)));
        }
}

void MpegFrameTest::palettedClipGivesGreyOfItsColours()
{
    const QString clip = path("bars-pal8.mkv");
    QVERIFY(TestSupport::writeRawClip(clip, kWidth, kHeight, {colourBars()}, {"-pix_fmt", "pal8", "-c:v", "png"}, "rgb24"));
    const FramePtr frame = firstPicture(clip);
    QVERIFY(frame);
    QCOMPARE(formatOf(*frame), QString("pal8"));
    std::vector<uint8_t> rgb(kWidth * kHeight * 3);
    frame->rgb24(rgb.data(), kWidth * 3, kWidth, kHeight);
    int darkest = 255;
    int brightest = 0;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const uint8_t* colour = &rgb[static_cast<size_t>((y * kWidth + x) * 3)];
            const int expected = greyOf(colour[0], colour[1], colour[2]);
            const int actual = frame->data()[y * frame->step() + x];
            QVERIFY2(std::abs(actual - expected) <= 1,
                     qPrintable(QString("(%1,%2): %3 instead of %4").arg(x).arg(y).arg(actual).arg(expected)));
            darkest = std::min(darkest, actual);
            brightest = std::max(brightest, actual);
        }
    // The palette's black and white bars.
    QVERIFY2(darkest <= 5 && brightest >= 240, qPrintable(QString("%1..%2").arg(darkest).arg(brightest)));
}

void MpegFrameTest::gray16ClipGivesEightBitGrey()
{
    const QString clip = path("pattern-gray16.mkv");
    QVERIFY(TestSupport::writeRawClip(clip, kWidth, kHeight, {grayPattern()}, {"-pix_fmt", "gray16le", "-c:v", "ffv1"}));
    const FramePtr frame = firstPicture(clip);
    QVERIFY(frame);
    QCOMPARE(formatOf(*frame), QString("gray16le"));
    QVERIFY2(maxDifference(lumaOf(*frame), grayPattern()) <= 1,
             qPrintable(QString("differs by %1").arg(maxDifference(lumaOf(*frame), grayPattern()))));
}

void MpegFrameTest::bottomUpPictureGivesRowsTopDown()
{
    AVFrame* frame = allocatePicture(AV_PIX_FMT_GRAY8, 20, 10);
    QVERIFY(frame);
    for (int y = 0; y < 10; ++y)
        std::memset(frame->data[0] + y * frame->linesize[0], 10 * y, static_cast<size_t>(frame->linesize[0]));
    // Stored bottom row first, as some decoders hand out pictures of bottom-up formats.
    frame->data[0] += frame->linesize[0] * 9;
    frame->linesize[0] = -frame->linesize[0];
    const MpegFrame picture(frame);
    QVERIFY(picture.step() >= 20);
    for (int y = 0; y < 10; ++y)
        QCOMPARE(int(picture.data()[y * picture.step() + 19]), 10 * (9 - y));
}

void MpegFrameTest::unconvertiblePictureIsBlackAndLeavesRgbUntouched()
{
    // A hardware surface handle: no pixels swscale could read.
    AVFrame* frame = av_frame_alloc();
    frame->format = AV_PIX_FMT_VAAPI;
    frame->width = 16;
    frame->height = 8;
    const MpegFrame picture(frame);
    QVERIFY(picture.data());
    QVERIFY(picture.step() >= 16);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 16; ++x)
            QCOMPARE(int(picture.data()[y * picture.step() + x]), 0);
    GuardedBuffer buffer(16 * 3 * 8);
    picture.rgb24(buffer.data(), 16 * 3, 16, 8);
    QVERIFY(buffer.untouched());
}

// The reader's grey copies come from a pool: a buffer that held another picture, and bytes
// a user wrote into it, must leave nothing behind.
void MpegFrameTest::greyCopyFromUsedPlaneHoldsLumaAndZeroSlack()
{
    constexpr int width = 35;
    constexpr int height = 6;
    GrayPlanes planes;
    SwsContext* scaler = nullptr;
    const uint8_t* used = nullptr;
    {
        MpegFrame earlier(allocateLumaPicture(AV_PIX_FMT_YUV420P10LE, width, height, tenBitSamplesOf({50, 60}), false),
                          &scaler, planes);
        QVERIFY(earlier.data() != earlier.avFrame()->data[0]);
        used = earlier.data();
        std::memset(earlier.data(), 0xAB, static_cast<size_t>(earlier.step()) * height);
    }
    const std::vector<int> values = {16, 100, 235};
    const MpegFrame frame(allocateLumaPicture(AV_PIX_FMT_YUV420P10LE, width, height, tenBitSamplesOf(values), false),
                          &scaler, planes);
    sws_freeContext(scaler);
    QCOMPARE(static_cast<const uint8_t*>(frame.data()), used);
    QVERIFY(frame.step() > width);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < frame.step(); ++x) {
            const int expected = x < width ? values[static_cast<size_t>(x) % values.size()] : 0;
            QCOMPARE(int(frame.data()[y * frame.step() + x]), expected);
        }
}

void MpegFrameTest::unconvertiblePictureFromUsedPlaneIsBlack()
{
    GrayPlanes planes;
    SwsContext* scaler = nullptr;
    const uint8_t* used = nullptr;
    {
        MpegFrame earlier(allocateLumaPicture(AV_PIX_FMT_YUV420P10LE, 16, 8, tenBitSamplesOf({200}), false), &scaler,
                          planes);
        used = earlier.data();
        std::memset(earlier.data(), 0xAB, static_cast<size_t>(earlier.step()) * 8);
    }
    // A hardware surface handle of the same size: no pixels swscale could read.
    AVFrame* surface = av_frame_alloc();
    surface->format = AV_PIX_FMT_VAAPI;
    surface->width = 16;
    surface->height = 8;
    const MpegFrame picture(surface, &scaler, planes);
    sws_freeContext(scaler);
    QCOMPARE(static_cast<const uint8_t*>(picture.data()), used);
    for (int i = 0; i < picture.step() * 8; ++i)
        QCOMPARE(int(picture.data()[i]), 0);
}

void MpegFrameTest::nullPictureIsHarmless()
{
    const MpegFrame picture(nullptr);
    QCOMPARE(picture.width(), 0);
    QCOMPARE(picture.height(), 0);
    QVERIFY(!picture.data());
    QVERIFY(!picture.avFrame());
    GuardedBuffer buffer(4 * 4 * 4);
    picture.rgb32(buffer.data(), 16, 4, 4);
    QVERIFY(buffer.untouched());
}

void MpegFrameTest::constructedFrameOwnsPictureAndHasNoTime()
{
    AVFrame* frame = allocatePicture(AV_PIX_FMT_YUV420P, 40, 30);
    QVERIFY(frame);
    const auto picture = std::make_unique<MpegFrame>(frame);
    QCOMPARE(picture->avFrame(), frame);
    QCOMPARE(picture->m_time, 0.0);
    QCOMPARE(picture->width(), 40);
    QCOMPARE(picture->height(), 30);
    QCOMPARE(picture->step(), frame->linesize[0]);
}

void MpegFrameTest::rgb24SameSizeKeepsColoursExactly()
{
    const FramePtr frame = firstPicture(m_barsClip);
    QVERIFY(frame);
    QCOMPARE(formatOf(*frame), QString("rgb24"));
    QByteArray rgb(kWidth * kHeight * 3, '\0');
    frame->rgb24(rgb.data(), kWidth * 3, kWidth, kHeight);
    QCOMPARE(rgb, colourBars());

    // A grey picture converts to equal red, green and blue.
    const QString grayClip = path("pattern-gray-for-rgb.mkv");
    QVERIFY(TestSupport::writeRawClip(grayClip, kWidth, kHeight, {grayPattern()}));
    const FramePtr gray = firstPicture(grayClip);
    QVERIFY(gray);
    gray->rgb24(rgb.data(), kWidth * 3, kWidth, kHeight);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            for (int channel = 0; channel < 3; ++channel)
                QCOMPARE(uint8_t(rgb[(y * kWidth + x) * 3 + channel]), patternValue(x, y));
}

void MpegFrameTest::rgb24SmallerSizeIsBilinearReduction()
{
    // One-pixel stripes, black and white: reduced to half, every pixel is a mix of both.
    QByteArray stripes;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            stripes.append(QByteArray(3, x % 2 ? char(255) : char(0)));
    const QString clip = path("stripes-rgb24.nut");
    QVERIFY(TestSupport::writeRawClip(clip, kWidth, kHeight, {stripes}, {"-c:v", "rawvideo", "-pix_fmt", "rgb24"}, "rgb24"));
    const FramePtr frame = firstPicture(clip);
    QVERIFY(frame);
    const int width = kWidth / 2;
    const int height = kHeight / 2;
    const int stride = width * 3 + 8; // a wider stride: the slack must stay as it was
    std::vector<uint8_t> rgb(static_cast<size_t>(stride * height), 0x5A);
    frame->rgb24(rgb.data(), stride, width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width * 3; ++x) {
            const int value = rgb[static_cast<size_t>(y * stride + x)];
            // The filter reaches past the picture at its left and right edges, which weighs
            // the outer stripes more: those columns are mixed too, just less evenly.
            const bool edge = x < 3 || x >= (width - 1) * 3;
            QVERIFY2(std::abs(value - 128) <= (edge ? 48 : 8),
                     qPrintable(QString("(%1,%2): %3").arg(x / 3).arg(y).arg(value)));
        }
        for (int x = width * 3; x < stride; ++x)
            QCOMPARE(int(rgb[static_cast<size_t>(y * stride + x)]), 0x5A);
    }

    // Colour bars reduced to a quarter keep their colours inside the bars.
    const FramePtr bars = firstPicture(m_barsClip);
    QVERIFY(bars);
    std::vector<uint8_t> small(16 * 3 * 12);
    bars->rgb24(small.data(), 16 * 3, 16, 12);
    for (int x : {0, 5, 10, 15}) {
        const int barMiddle = (x / 2) * 8 + 4; // two output columns a bar, eight source columns a bar
        const Rgb colour = barColour(barMiddle, kWidth);
        const uint8_t* pixel = &small[static_cast<size_t>((6 * 16 + x) * 3)];
        QVERIFY2(std::abs(pixel[0] - colour.r) <= 40 && std::abs(pixel[1] - colour.g) <= 40
                     && std::abs(pixel[2] - colour.b) <= 40,
                 qPrintable(QString("column %1: %2 %3 %4").arg(x).arg(pixel[0]).arg(pixel[1]).arg(pixel[2])));
    }
}

void MpegFrameTest::rgb16HasRgb565LittleEndianLayout()
{
    const FramePtr frame = firstPicture(m_barsClip);
    QVERIFY(frame);
    std::vector<uint8_t> rgb(kWidth * kHeight * 2);
    frame->rgb16(rgb.data(), kWidth * 2, kWidth, kHeight);
    // Bars 0..4: red, green, blue, white, black; eight source columns each.
    const uint16_t expected[] = {0xF800, 0x07E0, 0x001F, 0xFFFF, 0x0000};
    for (int bar = 0; bar < 5; ++bar) {
        const uint8_t* pixel = &rgb[static_cast<size_t>((10 * kWidth + bar * 8 + 4) * 2)];
        QCOMPARE(pixel[0], uint8_t(expected[bar] & 0xff));
        QCOMPARE(pixel[1], uint8_t(expected[bar] >> 8));
    }
}

void MpegFrameTest::rgb32HasBgraLayout()
{
    const FramePtr frame = firstPicture(m_barsClip);
    QVERIFY(frame);
    std::vector<uint8_t> bgra(kWidth * kHeight * 4);
    frame->rgb32(bgra.data(), kWidth * 4, kWidth, kHeight);
    for (int x = 0; x < kWidth; ++x) {
        const Rgb colour = barColour(x, kWidth);
        const uint8_t* pixel = &bgra[static_cast<size_t>((20 * kWidth + x) * 4)];
        QCOMPARE(pixel[0], colour.b);
        QCOMPARE(pixel[1], colour.g);
        QCOMPARE(pixel[2], colour.r);
        QCOMPARE(pixel[3], uint8_t(255));
        // One 32-bit word 0xAARRGGBB on this little-endian machine, as QImage keeps it.
        uint32_t word = 0;
        std::memcpy(&word, pixel, 4);
        QCOMPARE(word, 0xFF000000u | uint32_t(colour.r) << 16 | uint32_t(colour.g) << 8 | colour.b);
    }
}

void MpegFrameTest::conversionsStayInsideTightBuffer568x320()
{
    const QString clip = path("wide.mkv");
    QString error;
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=568x320:rate=25", "-frames:v", "1",
                                     "-pix_fmt", "yuv420p", "-c:v", "ffv1", clip},
                                    &error),
             qPrintable(error));
    const FramePtr frame = firstPicture(clip);
    QVERIFY(frame);
    struct Size {
        int width;
        int height;
    };
    for (const Size size : {Size{568, 320}, Size{284, 160}, Size{570, 322}, Size{33, 17}}) {
        for (int bytesPerPixel : {2, 3, 4}) {
            const int stride = size.width * bytesPerPixel;
            GuardedBuffer buffer(stride * size.height);
            if (bytesPerPixel == 2)
                frame->rgb16(buffer.data(), stride, size.width, size.height);
            else if (bytesPerPixel == 3)
                frame->rgb24(buffer.data(), stride, size.width, size.height);
            else
                frame->rgb32(buffer.data(), stride, size.width, size.height);
            const QString what = QString("%1x%2, %3 bytes a pixel").arg(size.width).arg(size.height).arg(bytesPerPixel);
            QVERIFY2(buffer.guardsIntact(), qPrintable(what));
            QVERIFY2(!buffer.untouched(), qPrintable(what));
            // The last pixel of the last row was written too.
            const uint8_t* last = buffer.data() + buffer.size() - bytesPerPixel;
            QVERIFY2(std::any_of(last, last + bytesPerPixel, [](uint8_t value) { return value != GuardedBuffer::kGuardValue; }),
                     qPrintable(what));
        }
    }
}

void MpegFrameTest::conversionsIgnoreInvalidArguments()
{
    const FramePtr frame = firstPicture(m_barsClip);
    QVERIFY(frame);
    GuardedBuffer buffer(kWidth * kHeight * 4);
    frame->rgb24(nullptr, kWidth * 3, kWidth, kHeight);
    frame->rgb24(buffer.data(), kWidth * 3, 0, kHeight);
    frame->rgb24(buffer.data(), kWidth * 3, kWidth, 0);
    frame->rgb24(buffer.data(), kWidth * 3, -5, kHeight);
    frame->rgb24(buffer.data(), kWidth * 3 - 1, kWidth, kHeight);
    frame->rgb32(buffer.data(), -kWidth * 4, kWidth, kHeight);
    frame->rgb16(buffer.data(), kWidth * 2, 1 << 30, 1 << 30);
    QVERIFY(buffer.untouched());
}

void MpegFrameTest::onePixelAndOddSizedPicturesConvert()
{
    // A white pixel in video range.
    FramePtr pixel = makePicture(AV_PIX_FMT_YUV420P, 1, 1);
    QVERIFY(pixel);
    pixel->avFrame()->data[0][0] = 235;
    pixel->avFrame()->data[1][0] = 128;
    pixel->avFrame()->data[2][0] = 128;
    QCOMPARE(pixel->data()[0], uint8_t(235));
    GuardedBuffer one(3);
    pixel->rgb24(one.data(), 3, 1, 1);
    QVERIFY(one.guardsIntact());
    for (int channel = 0; channel < 3; ++channel)
        QVERIFY2(one.data()[channel] >= 250, qPrintable(QString::number(one.data()[channel])));

    const QString clip = path("bars-33x17.nut");
    QVERIFY(TestSupport::writeRawClip(clip, 33, 17, {colourBars(33, 17)}, {"-c:v", "rawvideo", "-pix_fmt", "rgb24"}, "rgb24"));
    const FramePtr odd = firstPicture(clip);
    QVERIFY(odd);
    QCOMPARE(odd->width(), 33);
    QCOMPARE(odd->height(), 17);
    GuardedBuffer rgb(33 * 3 * 17);
    odd->rgb24(rgb.data(), 33 * 3, 33, 17);
    QVERIFY(rgb.guardsIntact());
    QCOMPARE(QByteArray(reinterpret_cast<const char*>(rgb.data()), rgb.size()), colourBars(33, 17));
    for (int x = 0; x < 33; ++x) {
        const Rgb colour = barColour(x, 33);
        QVERIFY(std::abs(odd->data()[16 * odd->step() + x] - greyOf(colour.r, colour.g, colour.b)) <= 1);
    }
}

QTEST_GUILESS_MAIN(MpegFrameTest)
#include "MpegFrameTest.moc"
