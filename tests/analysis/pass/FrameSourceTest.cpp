#include "FrameSource.h"
#include "MpegFrame.h"
#include "MpegReader.h"
#include "TestSupport.h"

#include <QTemporaryDir>
#include <QtTest>

#include <vector>

namespace {

QByteArray lumaOf(const MpegFrame& frame)
{
    QByteArray luma;
    for (int y = 0; y < frame.height(); ++y)
        luma.append(reinterpret_cast<const char*>(frame.data() + y * frame.step()), frame.width());
    return luma;
}

struct Taken {
    std::vector<QByteArray> lumas;
    std::vector<std::int64_t> positions;
    std::int64_t endPosition = -2;
};

Taken takeAll(const QString& path, int threads, bool ahead)
{
    Taken taken;
    MpegReader reader;
    reader.setDecoderThreads(threads);
    if (!reader.open(path.toUtf8().constData()))
        return taken;
    FrameSource source(reader, ahead);
    for (;;) {
        const FrameSource::Frame next = source.next();
        if (!next.frame) {
            taken.endPosition = next.position;
            break;
        }
        taken.lumas.push_back(lumaOf(*next.frame));
        taken.positions.push_back(next.position);
    }
    return taken;
}

} // namespace

class FrameSourceTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_clip;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_clip = m_dir.filePath("motion.mp4");
        QString error;
        // P-pictures only: the decoder keeps each picture as the reference of the next.
        QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25,noise=alls=30:allf=t", "-frames:v", "40",
                                         "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "veryfast", "-bf", "0",
                                         m_clip},
                                        &error),
                 qPrintable(error));
    }

    void readingAheadGivesTheFramesAndPositionsOfReadingInTurn()
    {
        const Taken inTurn = takeAll(m_clip, 2, false);
        const Taken ahead = takeAll(m_clip, 2, true);
        QCOMPARE(inTurn.lumas.size(), size_t(40));
        QVERIFY(ahead.lumas == inTurn.lumas);
        QVERIFY(ahead.positions == inTurn.positions);
        QCOMPARE(ahead.endPosition, inTurn.endPosition);
        // The clip spans several input buffers, so the positions say something.
        QVERIFY(inTurn.positions.front() < inTurn.endPosition);
        QVERIFY(ahead.lumas == takeAll(m_clip, 1, false).lumas);
    }

    void afterTheEndOnlyNullFramesCome()
    {
        for (const bool ahead : {false, true}) {
            MpegReader reader;
            reader.setDecoderThreads(ahead ? 2 : 1);
            QVERIFY(reader.open(m_clip.toUtf8().constData()));
            FrameSource source(reader, ahead);
            int frames = 0;
            while (source.next().frame)
                ++frames;
            QCOMPARE(frames, 40);
            const FrameSource::Frame after = source.next();
            QVERIFY(!after.frame);
            QCOMPARE(after.position, std::int64_t(-1));
        }
    }

    void stoppingEarlyWithFramesReadAheadEnds()
    {
        MpegReader reader;
        reader.setDecoderThreads(2);
        QVERIFY(reader.open(m_clip.toUtf8().constData()));
        const int before = MpegReader::m_processedFrameCount.load();
        {
            FrameSource source(reader, true);
            QVERIFY(source.next().frame);
            QVERIFY(source.next().frame);
        }
        // No more than the frames taken and the few read ahead.
        const int read = MpegReader::m_processedFrameCount.load() - before;
        QVERIFY2(read >= 2 && read <= 2 + FrameSource::kMinDepth + 1, qPrintable(QString::number(read)));
        // The reader is the caller's again.
        QVERIFY(std::unique_ptr<MpegFrame>(reader.read(false)));
    }

    void readsAheadUpToItsDepthAndNoFurther()
    {
        constexpr int kDepth = 6;
        MpegReader reader;
        reader.setDecoderThreads(2);
        QVERIFY(reader.open(m_clip.toUtf8().constData()));
        const int before = MpegReader::m_processedFrameCount.load();
        FrameSource source(reader, true, kDepth);
        QVERIFY(source.next().frame);
        const auto read = [&] { return MpegReader::m_processedFrameCount.load() - before; };
        QTRY_COMPARE_WITH_TIMEOUT(read(), 1 + kDepth, 10000);
        QTest::qWait(200);
        QCOMPARE(read(), 1 + kDepth);
    }

    void depthIsWhatFitsTheQueuesMemoryWithinItsBounds()
    {
        QCOMPARE(FrameSource::depthFor(1920, 1080), FrameSource::kMaxDepth);
        QCOMPARE(FrameSource::depthFor(3840, 2160), 8);
        QCOMPARE(FrameSource::depthFor(7680, 4320), FrameSource::kMinDepth);
        QCOMPARE(FrameSource::depthFor(1, 1), FrameSource::kMaxDepth);
        QCOMPARE(FrameSource::depthFor(0, 0), FrameSource::kMaxDepth);
    }
};

QTEST_GUILESS_MAIN(FrameSourceTest)
#include "FrameSourceTest.moc"
