#include "LargePages.h"
#include "MpegFrame.h"
#include "RgbConverter.h"
#include "TestPictures.h"

#include <QtTest>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace {

using FramePtr = std::unique_ptr<MpegFrame>;

// A picture of `format` with random bytes in every plane (a valid picture of any format:
// every byte pattern is some colour).
FramePtr randomPicture(AVPixelFormat format, int width, int height, unsigned seed)
{
    AVFrame* frame = TestPictures::allocatePicture(format, width, height);
    if (!frame)
        return nullptr;
    std::mt19937 random(seed);
    for (int plane = 0; plane < AV_NUM_DATA_POINTERS && frame->buf[plane]; ++plane)
        for (size_t i = 0; i < frame->buf[plane]->size; ++i)
            frame->buf[plane]->data[i] = static_cast<uint8_t>(random());
    return std::make_unique<MpegFrame>(frame);
}

// The picture as MpegFrame::rgb24 converts it at its own size, rows packed.
std::vector<uint8_t> viaRgb24(const MpegFrame& frame)
{
    const int rowBytes = frame.width() * 3;
    std::vector<uint8_t> rgb(static_cast<size_t>(rowBytes) * static_cast<size_t>(frame.height()), 0);
    frame.rgb24(rgb.data(), rowBytes, frame.width(), frame.height());
    return rgb;
}

std::vector<uint8_t> converted(const RgbConverter& converter)
{
    const size_t rowBytes = static_cast<size_t>(converter.width()) * 3;
    std::vector<uint8_t> rgb;
    for (int y = 0; y < converter.height(); ++y) {
        const uint8_t* row = converter.data() + static_cast<ptrdiff_t>(y) * converter.stride();
        rgb.insert(rgb.end(), row, row + rowBytes);
    }
    return rgb;
}

} // namespace

class RgbConverterTest : public QObject {
    Q_OBJECT

private slots:
    void givesTheBytesOfRgb24_data()
    {
        QTest::addColumn<int>("format");
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        const std::vector<AVPixelFormat> formats = {AV_PIX_FMT_YUV420P,   AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV422P,
                                                    AV_PIX_FMT_YUV444P,   AV_PIX_FMT_NV12,     AV_PIX_FMT_GRAY8,
                                                    AV_PIX_FMT_YUV420P10LE, AV_PIX_FMT_RGB24,  AV_PIX_FMT_BGR0};
        // Odd sizes, a single pixel, a row width where the scaler's slack matters (568
        // pixels), and 1080p's row length.
        const std::vector<std::pair<int, int>> sizes = {{1, 1}, {3, 5}, {33, 17}, {568, 6}, {1920, 4}, {2, 64}};
        for (const AVPixelFormat format : formats)
            for (const auto& [width, height] : sizes)
                QTest::addRow("%s %dx%d", av_get_pix_fmt_name(format), width, height) << int(format) << width << height;
    }

    void givesTheBytesOfRgb24()
    {
        QFETCH(int, format);
        QFETCH(int, width);
        QFETCH(int, height);
        RgbConverter converter;
        // Two pictures through the same converter: the kept scaler converts the second as a
        // fresh one would.
        for (unsigned seed : {1u, 2u}) {
            const FramePtr picture = randomPicture(static_cast<AVPixelFormat>(format), width, height, seed);
            QVERIFY(picture);
            QVERIFY(converter.convert(*picture));
            QCOMPARE(converter.width(), width);
            QCOMPARE(converter.height(), height);
            QVERIFY(converter.stride() >= width * 3);
            QVERIFY(converted(converter) == viaRgb24(*picture));
        }
    }

    void keepsItsBufferWhileTheSizeStays()
    {
        RgbConverter converter;
        const FramePtr first = randomPicture(AV_PIX_FMT_YUV420P, 64, 48, 3);
        const FramePtr second = randomPicture(AV_PIX_FMT_YUV420P, 64, 48, 4);
        QVERIFY(converter.convert(*first));
        const uint8_t* buffer = converter.data();
        QVERIFY(converter.convert(*second));
        QCOMPARE(converter.data(), buffer);
        QVERIFY(converted(converter) == viaRgb24(*second));
    }

    void followsAChangeOfSizeAndFormat()
    {
        RgbConverter converter;
        const FramePtr small = randomPicture(AV_PIX_FMT_YUV420P, 16, 8, 5);
        const FramePtr large = randomPicture(AV_PIX_FMT_YUV444P, 40, 30, 6);
        QVERIFY(converter.convert(*small));
        QVERIFY(converter.convert(*large));
        QCOMPARE(converter.width(), 40);
        QCOMPARE(converter.height(), 30);
        QVERIFY(converted(converter) == viaRgb24(*large));
        QVERIFY(converter.convert(*small));
        QVERIFY(converted(converter) == viaRgb24(*small));
    }

    void bufferStartsOnALargePage()
    {
        RgbConverter converter;
        const FramePtr picture = randomPicture(AV_PIX_FMT_YUV420P, 640, 360, 7);
        QVERIFY(converter.convert(*picture));
        QCOMPARE(reinterpret_cast<std::uintptr_t>(converter.data()) % LargePages::kLargePage, std::uintptr_t{0});
        QVERIFY(converted(converter) == viaRgb24(*picture));
    }

    void emptyConverterHasNoPicture()
    {
        const RgbConverter converter;
        QVERIFY(converter.data() == nullptr);
        QCOMPARE(converter.width(), 0);
        QCOMPARE(converter.height(), 0);
    }

    void pictureWithoutPixelsIsRefused()
    {
        RgbConverter converter;
        MpegFrame empty(av_frame_alloc());
        QVERIFY(!converter.convert(empty));
        QVERIFY(converter.data() == nullptr);
    }

    void unconvertibleFormatGivesBlack()
    {
        // A hardware surface format has no pixels swscale can read.
        AVFrame* frame = av_frame_alloc();
        frame->format = AV_PIX_FMT_VAAPI;
        frame->width = 8;
        frame->height = 4;
        const MpegFrame surface(frame);
        RgbConverter converter;
        QVERIFY(!converter.convert(surface));
        QVERIFY(converter.data() != nullptr);
        const std::vector<uint8_t> rgb = converted(converter);
        QCOMPARE(rgb.size(), size_t(8 * 4 * 3));
        QVERIFY(std::all_of(rgb.begin(), rgb.end(), [](uint8_t value) { return value == 0; }));
    }
};

QTEST_GUILESS_MAIN(RgbConverterTest)
#include "RgbConverterTest.moc"
