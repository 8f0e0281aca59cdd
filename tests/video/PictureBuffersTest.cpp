#include "FfmpegPtr.h"
#include "LargePages.h"
#include "PictureBuffers.h"
#include "TestSupport.h"

#include <QTemporaryDir>
#include <QtTest>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <cstdint>
#include <memory>
#include <vector>

namespace {

// One decoded picture: its strides and the visible bytes of each plane, row after row.
struct Picture {
    std::vector<int> linesizes;
    std::vector<std::uint8_t> pixels;
};

Picture copyOf(const AVFrame& frame)
{
    Picture picture;
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    for (int plane = 0; plane < 4 && frame.data[plane]; ++plane) {
        picture.linesizes.push_back(frame.linesize[plane]);
        const bool chroma = plane == 1 || plane == 2;
        const int rows = chroma ? AV_CEIL_RSHIFT(frame.height, format->log2_chroma_h) : frame.height;
        const int bytes = av_image_get_linesize(static_cast<AVPixelFormat>(frame.format), frame.width, plane);
        for (int y = 0; y < rows; ++y) {
            const std::uint8_t* row = frame.data[plane] + static_cast<std::ptrdiff_t>(y) * frame.linesize[plane];
            picture.pixels.insert(picture.pixels.end(), row, row + bytes);
        }
    }
    return picture;
}

// An opened decoder for the video stream of a file, with or without the buffers.
struct Decoder {
    FormatContextPtr format;
    CodecContextPtr codec;
    int stream = -1;
};

bool openDecoder(Decoder& decoder, const QString& path, int threads, PictureBuffers* buffers)
{
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.toUtf8().constData(), nullptr, nullptr) < 0)
        return false;
    decoder.format.reset(format);
    if (avformat_find_stream_info(format, nullptr) < 0)
        return false;
    decoder.stream = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (decoder.stream < 0)
        return false;
    const AVCodecParameters* parameters = format->streams[decoder.stream]->codecpar;
    const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
    decoder.codec.reset(avcodec_alloc_context3(codec));
    if (!codec || !decoder.codec || avcodec_parameters_to_context(decoder.codec.get(), parameters) < 0)
        return false;
    decoder.codec->thread_count = threads;
    decoder.codec->thread_type = FF_THREAD_FRAME;
    if (buffers)
        buffers->serve(*decoder.codec);
    return avcodec_open2(decoder.codec.get(), codec, nullptr) >= 0;
}

// Every picture of the file; `kept`, when given, receives references to all of them.
std::vector<Picture> decodeAll(const QString& path, int threads, bool served, std::vector<FramePtr>* kept = nullptr)
{
    std::vector<Picture> pictures;
    PictureBuffers buffers;
    Decoder decoder;
    if (!openDecoder(decoder, path, threads, served ? &buffers : nullptr))
        return pictures;
    PacketPtr packet(av_packet_alloc());
    FramePtr frame(av_frame_alloc());
    bool ended = false;
    while (true) {
        const int received = avcodec_receive_frame(decoder.codec.get(), frame.get());
        if (received == 0) {
            pictures.push_back(copyOf(*frame));
            if (kept)
                kept->emplace_back(av_frame_clone(frame.get()));
            av_frame_unref(frame.get());
            continue;
        }
        if (received != AVERROR(EAGAIN) || ended)
            break;
        while (av_read_frame(decoder.format.get(), packet.get()) >= 0 && packet->stream_index != decoder.stream)
            av_packet_unref(packet.get());
        if (packet->data) {
            avcodec_send_packet(decoder.codec.get(), packet.get());
            av_packet_unref(packet.get());
        } else {
            avcodec_send_packet(decoder.codec.get(), nullptr);
            ended = true;
        }
    }
    return pictures;
}

// The picture a decoder's get_buffer2 gives for a frame of `width` x `height` in yuv420p.
FramePtr requestPicture(AVCodecContext& context, int width, int height)
{
    FramePtr frame(av_frame_alloc());
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = width;
    frame->height = height;
    if (context.get_buffer2(&context, frame.get(), 0) < 0)
        return nullptr;
    return frame;
}

} // namespace

class PictureBuffersTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_clip = m_dir.filePath("moving.mp4");
        QVERIFY(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc2=size=200x120:rate=25,rotate=angle=t", "-frames:v",
                                        "40", "-c:v", "libx264", "-preset", "ultrafast", "-bf", "2", "-pix_fmt",
                                        "yuv420p", m_clip}));
    }

    void decodedPicturesAreThoseOfFfmpegsOwnBuffers_data()
    {
        QTest::addColumn<int>("threads");
        QTest::newRow("one thread") << 1;
        QTest::newRow("three frame threads") << 3;
    }

    void decodedPicturesAreThoseOfFfmpegsOwnBuffers()
    {
        QFETCH(int, threads);
        const std::vector<Picture> own = decodeAll(m_clip, threads, false);
        const std::vector<Picture> served = decodeAll(m_clip, threads, true);
        QCOMPARE(static_cast<int>(own.size()), 40);
        QCOMPARE(served.size(), own.size());
        for (std::size_t i = 0; i < own.size(); ++i) {
            QCOMPARE(served[i].linesizes, own[i].linesizes);
            QVERIFY2(served[i].pixels == own[i].pixels, qPrintable(QString("picture %1 differs").arg(i)));
        }
    }

    void picturesOutliveTheBuffersAndTheDecoder()
    {
        std::vector<FramePtr> kept;
        const std::vector<Picture> pictures = decodeAll(m_clip, 2, true, &kept);
        QCOMPARE(kept.size(), pictures.size());
        QVERIFY(!kept.empty());
        for (std::size_t i = 0; i < kept.size(); ++i)
            QVERIFY(copyOf(*kept[i]).pixels == pictures[i].pixels);
    }

    void aPictureHasAllItsPlanesInOneBufferFromLargePages()
    {
        PictureBuffers buffers;
        Decoder decoder;
        QVERIFY(openDecoder(decoder, m_clip, 1, &buffers));
        const FramePtr first = requestPicture(*decoder.codec, 200, 120);
        QVERIFY(first);
        QVERIFY(first->buf[0]);
        QVERIFY(!first->buf[1]);
        // The first picture of a pool opens its first run of large pages.
        QCOMPARE(reinterpret_cast<std::uintptr_t>(first->buf[0]->data) % LargePages::kLargePage, std::uintptr_t{0});
        const std::uint8_t* begin = first->buf[0]->data;
        const std::uint8_t* end = begin + first->buf[0]->size;
        for (int plane = 0; plane < 3; ++plane) {
            QVERIFY(first->data[plane] >= begin);
            QVERIFY(first->data[plane] + static_cast<std::ptrdiff_t>(first->linesize[plane]) * 60 <= end);
            QCOMPARE(reinterpret_cast<std::uintptr_t>(first->data[plane]) % 64, std::uintptr_t{0});
        }
        // A second picture taken while the first is held lies after it, in the same run.
        const FramePtr second = requestPicture(*decoder.codec, 200, 120);
        QVERIFY(second);
        QVERIFY(second->buf[0]->data >= end);
        QVERIFY(second->buf[0]->data < begin + LargePages::kLargePage * 32);
    }

    void newPicturesAreZero()
    {
        PictureBuffers buffers;
        Decoder decoder;
        QVERIFY(openDecoder(decoder, m_clip, 1, &buffers));
        const FramePtr picture = requestPicture(*decoder.codec, 200, 120);
        QVERIFY(picture);
        const AVBufferRef& buffer = *picture->buf[0];
        for (std::size_t i = 0; i < buffer.size; ++i)
            QCOMPARE(buffer.data[i], std::uint8_t{0});
    }

    void anotherSizeGetsStridesOfItsOwn()
    {
        PictureBuffers buffers;
        Decoder decoder;
        QVERIFY(openDecoder(decoder, m_clip, 1, &buffers));
        const FramePtr small = requestPicture(*decoder.codec, 200, 120);
        const FramePtr large = requestPicture(*decoder.codec, 1000, 600);
        QVERIFY(small && large);
        QVERIFY(large->linesize[0] >= 1000);
        QVERIFY(large->linesize[1] >= 500);
        QVERIFY(large->buf[0]->size >= static_cast<std::size_t>(large->linesize[0]) * 600);
        QVERIFY(small->linesize[0] < large->linesize[0]);
        // The pool of the first size ends once its picture is freed; its memory is still this
        // picture's until then.
        QCOMPARE(small->data[0][0], std::uint8_t{0});
    }

private:
    QTemporaryDir m_dir;
    QString m_clip;
};

QTEST_GUILESS_MAIN(PictureBuffersTest)
#include "PictureBuffersTest.moc"
