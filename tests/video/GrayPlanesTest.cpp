#include "GrayPlanes.h"
#include "MpegFrame.h"
#include "MpegReader.h"
#include "TestSupport.h"

#include <QTemporaryDir>
#include <QtTest>

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
}

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include <malloc.h>
#include <sys/resource.h>

namespace {

constexpr std::size_t kBytes = 3 * 1000 * 1000;

struct BufferUnref {
    void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
using BufferPtr = std::unique_ptr<AVBufferRef, BufferUnref>;

long minorFaults()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

} // namespace

class GrayPlanesTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void bufferGivenBackIsHandedOutAgain();
    void buffersHeldAtOnceAreDistinctAndWhole();
    void newSizeGivesBuffersOfThatSize();
    void buffersOutliveTheirPlanes();
    void tenBitPicturesReadOneAfterAnotherFaultNoFreshPages();

private:
    QTemporaryDir m_dir;
};

void GrayPlanesTest::initTestCase()
{
    av_log_set_level(AV_LOG_FATAL);
    QVERIFY(m_dir.isValid());
}

void GrayPlanesTest::bufferGivenBackIsHandedOutAgain()
{
    GrayPlanes planes;
    BufferPtr first(planes.take(kBytes));
    QVERIFY(first);
    const std::uint8_t* memory = first->data;
    std::memset(first->data, 0x5a, kBytes);
    first.reset();
    const BufferPtr second(planes.take(kBytes));
    QVERIFY(second);
    QCOMPARE(static_cast<const std::uint8_t*>(second->data), memory);
}

void GrayPlanesTest::buffersHeldAtOnceAreDistinctAndWhole()
{
    GrayPlanes planes;
    BufferPtr buffers[3] = {BufferPtr(planes.take(kBytes)), BufferPtr(planes.take(kBytes)),
                            BufferPtr(planes.take(kBytes))};
    for (int i = 0; i < 3; ++i) {
        QVERIFY(buffers[i]);
        QCOMPARE(buffers[i]->size, kBytes);
        std::memset(buffers[i]->data, i + 1, kBytes);
    }
    // Each still holds its own bytes from end to end: none overlaps another.
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(int(buffers[i]->data[0]), i + 1);
        QCOMPARE(int(buffers[i]->data[kBytes - 1]), i + 1);
    }
}

void GrayPlanesTest::newSizeGivesBuffersOfThatSize()
{
    GrayPlanes planes;
    const BufferPtr large(planes.take(kBytes));
    const BufferPtr small(planes.take(1000));
    const BufferPtr odd(planes.take(12345));
    QVERIFY(large && small && odd);
    QCOMPARE(large->size, kBytes);
    QCOMPARE(small->size, std::size_t{1000});
    QCOMPARE(odd->size, std::size_t{12345});
    std::memset(odd->data, 7, 12345);
    QCOMPARE(int(odd->data[12344]), 7);
}

void GrayPlanesTest::buffersOutliveTheirPlanes()
{
    BufferPtr kept;
    {
        GrayPlanes planes;
        kept.reset(planes.take(kBytes));
        QVERIFY(kept);
    }
    std::memset(kept->data, 0x33, kBytes);
    QCOMPARE(int(kept->data[kBytes / 2]), 0x33);
}

// The tools have the C library map blocks of 256 KiB and more on their own and unmap them
// when freed. A grey copy made anew for each picture would then cost every one of its small
// pages a fault per picture; from the reader's planes the copies come back, so reading on
// takes no fresh memory. Counted in page faults, which do not depend on the machine's load.
void GrayPlanesTest::tenBitPicturesReadOneAfterAnotherFaultNoFreshPages()
{
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    const QString clip = m_dir.filePath("ten-bit.mp4");
    QString error;
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc2=s=640x480:r=25", "-frames:v", "60", "-c:v",
                                     "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p10le", clip},
                                    &error),
             qPrintable(error));
    MpegReader reader;
    reader.setDecoderThreads(1);
    QVERIFY(reader.open(clip.toUtf8().constData()));
    // Each frame is let go once the next is read, as the analysis does with its pairs; the
    // pictures the decoder holds and the copies in use settle within the first few.
    std::unique_ptr<MpegFrame> frame;
    for (int i = 0; i < 10; ++i) {
        frame.reset(reader.read(false));
        QVERIFY(frame);
    }
    const long pagesOfOneCopy = static_cast<long>(frame->step()) * frame->height() / 4096;
    QVERIFY(frame->step() >= 640 && pagesOfOneCopy >= 75);
    const long before = minorFaults();
    int read = 0;
    for (; read < 40; ++read) {
        frame.reset(reader.read(false));
        if (!frame)
            break;
        // The copy is used as the analysis uses it, written from the picture's luma.
        QVERIFY(frame->data() != frame->avFrame()->data[0]);
    }
    const long faults = minorFaults() - before;
    QCOMPARE(read, 40);
    // A copy made anew would fault every one of its pages for every picture. A quarter of them
    // leaves room for the small blocks decoding allocates, which a sanitizer's allocator keeps
    // from reuse for a while and so takes from fresh pages.
    QVERIFY2(faults < read * pagesOfOneCopy / 4,
             qPrintable(QStringLiteral("%1 faults over %2 pictures").arg(faults).arg(read)));
}

QTEST_APPLESS_MAIN(GrayPlanesTest)
#include "GrayPlanesTest.moc"
