#include "MpegFrame.h"
#include "MpegReader.h"
#include "TestFrames.h"
#include "TestSupport.h"

#include <QTemporaryDir>
#include <QtTest>

extern "C" {
#include <libavutil/log.h>
}

#include <cmath>
#include <limits>
#include <memory>
#include <vector>

namespace {

using FramePtr = std::unique_ptr<MpegFrame>;
using TestFrames::lumaOf;

constexpr int kRate = 25;
// Eight seconds; the long-GOP clips have a key frame every two seconds.
constexpr int kPictures = 200;
constexpr int kGop = 50;
constexpr int kLongPictures = 3000;

struct Picture {
    QByteArray luma;
    double time;
};

// The pictures the reader gives from where it stands to the end, or `limit` of them.
std::vector<Picture> readOn(MpegReader& reader, int limit = std::numeric_limits<int>::max())
{
    std::vector<Picture> pictures;
    while (static_cast<int>(pictures.size()) < limit) {
        const FramePtr frame{reader.read(false)};
        if (!frame)
            break;
        pictures.push_back({lumaOf(*frame), frame->m_presentationTime});
    }
    return pictures;
}

std::vector<Picture> readAll(const QString& path, int threads = 1)
{
    MpegReader reader;
    reader.setDecoderThreads(threads);
    return reader.open(path.toUtf8().constData()) ? readOn(reader) : std::vector<Picture>();
}

// What a caller keeps after seeking: the pictures from `seconds` on.
std::vector<Picture> from(const std::vector<Picture>& pictures, double seconds)
{
    std::vector<Picture> kept;
    for (const Picture& picture : pictures) {
        if (picture.time >= seconds)
            kept.push_back(picture);
    }
    return kept;
}

bool samePictures(const std::vector<Picture>& a, const std::vector<Picture>& b, QString* difference)
{
    if (a.size() != b.size()) {
        *difference = QString("%1 pictures against %2").arg(a.size()).arg(b.size());
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].luma != b[i].luma || qAbs(a[i].time - b[i].time) > 1e-9) {
            *difference = QString("picture %1: %2 s against %3 s").arg(i).arg(a[i].time).arg(b[i].time);
            return false;
        }
    }
    return true;
}

bool sameTime(double a, double b)
{
    return qAbs(a - b) < 1e-9;
}

} // namespace

class MpegReaderSeekTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void seekOnIntraClipLandsOnThePictureAtThatTime();
    void seekOnLongGopClipLandsOnTheKeyFrameAtOrBefore_data();
    void seekOnLongGopClipLandsOnTheKeyFrameAtOrBefore();
    void seekWithoutIndexLandsAtOrBeforeOnAKeyFrame();
    void seekNearTheEndOfALongClipReadsFarFewerPackets();
    void seekWithTwoDecoderThreadsGivesThePicturesOfOne_data();
    void seekWithTwoDecoderThreadsGivesThePicturesOfOne();
    void seekPastTheEndGivesNoPictureFromThatTime_data();
    void seekPastTheEndGivesNoPictureFromThatTime();
    void seekAfterReadingGoesBackAndForthAndPastTheEnd_data();
    void seekAfterReadingGoesBackAndForthAndPastTheEnd();
    void seekToZeroOrBeforeChangesNothing();
    void seekInStreamWithoutTimestampsFailsAndReadingGoesOn();
    void seekWithoutOpenFileOrTimeFails();

private:
    QString path(const QString& name) const { return m_dir.filePath(name); }

    QTemporaryDir m_dir;
    QString m_intraClip;
    QString m_gopClip;
    QString m_gopTsClip;
    QString m_longClip;
    QString m_rawClip;
};

void MpegReaderSeekTest::initTestCase()
{
    av_log_set_level(AV_LOG_FATAL);
    QVERIFY(m_dir.isValid());
    QString error;
    const QStringList source{"-f", "lavfi", "-i", QString("testsrc=size=64x48:rate=%1").arg(kRate), "-frames:v",
                             QString::number(kPictures), "-pix_fmt", "yuv420p"};
    // Key frames exactly every kGop pictures, with B-pictures between them.
    const QStringList longGop{"-c:v", "libx264", "-preset", "veryfast", "-g", QString::number(kGop), "-keyint_min",
                              QString::number(kGop), "-sc_threshold", "0", "-bf", "2"};

    m_intraClip = path("intra.mkv");
    QVERIFY2(TestSupport::runFfmpeg(source + QStringList{"-c:v", "ffv1", "-g", "1", m_intraClip}, &error),
             qPrintable(error));
    m_gopClip = path("gop.mp4");
    QVERIFY2(TestSupport::runFfmpeg(source + longGop + QStringList{m_gopClip}, &error), qPrintable(error));
    // MPEG-TS has no index: it is searched by the packets' timestamps.
    m_gopTsClip = path("gop.ts");
    QVERIFY2(TestSupport::runFfmpeg({"-i", m_gopClip, "-c", "copy", m_gopTsClip}, &error), qPrintable(error));
    m_rawClip = path("untimed.h264");
    QVERIFY2(TestSupport::runFfmpeg(source + QStringList{"-c:v", "libx264", "-bf", "0", m_rawClip}, &error),
             qPrintable(error));

    m_longClip = path("long.mp4");
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", QString("testsrc=size=32x32:rate=%1").arg(kRate),
                                     "-frames:v", QString::number(kLongPictures), "-pix_fmt", "yuv420p", "-c:v",
                                     "libx264", "-preset", "veryfast", "-g", QString::number(kGop), "-keyint_min",
                                     QString::number(kGop), "-sc_threshold", "0", m_longClip},
                                    &error),
             qPrintable(error));
}

void MpegReaderSeekTest::seekOnIntraClipLandsOnThePictureAtThatTime()
{
    const std::vector<Picture> all = readAll(m_intraClip);
    QCOMPARE(all.size(), size_t(kPictures));
    // Times of pictures, and one between two pictures, which lands on the earlier one.
    for (const double seconds : {3.0, 0.04, 5.52, 7.96, 3.01}) {
        const int index = static_cast<int>(std::floor(seconds * kRate + 1e-9));
        MpegReader reader;
        QVERIFY(reader.open(m_intraClip.toUtf8().constData()));
        QVERIFY(reader.seek(seconds));
        const std::vector<Picture> rest = readOn(reader);
        QVERIFY(!rest.empty());
        QVERIFY2(sameTime(rest.front().time, index / double(kRate)),
                 qPrintable(QString("seek to %1 s landed at %2 s").arg(seconds).arg(rest.front().time)));
        QString difference;
        QVERIFY2(samePictures(rest, std::vector<Picture>(all.begin() + index, all.end()), &difference),
                 qPrintable(QString("seek to %1 s: %2").arg(seconds).arg(difference)));
    }
}

void MpegReaderSeekTest::seekOnLongGopClipLandsOnTheKeyFrameAtOrBefore_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<double>("keyFrame");
    QTest::newRow("between key frames") << 3.0 << 2.0;
    QTest::newRow("just before a key frame") << 3.96 << 2.0;
    QTest::newRow("on a key frame") << 4.0 << 4.0;
    QTest::newRow("just after a key frame") << 4.04 << 4.0;
    QTest::newRow("in the first group") << 1.0 << 0.0;
    QTest::newRow("in the last group") << 7.5 << 6.0;
}

void MpegReaderSeekTest::seekOnLongGopClipLandsOnTheKeyFrameAtOrBefore()
{
    QFETCH(double, seconds);
    QFETCH(double, keyFrame);
    // The decoder holds back its last pictures for reordering: the clip gives a few fewer.
    const std::vector<Picture> all = readAll(m_gopClip);
    QVERIFY(all.size() > size_t(kPictures - 5));
    MpegReader reader;
    QVERIFY(reader.open(m_gopClip.toUtf8().constData()));
    QVERIFY(reader.seek(seconds));
    const std::vector<Picture> rest = readOn(reader);
    QVERIFY(!rest.empty());
    QVERIFY2(sameTime(rest.front().time, keyFrame), qPrintable(QString("landed at %1 s").arg(rest.front().time)));
    QString difference;
    QVERIFY2(samePictures(rest, from(all, keyFrame), &difference), qPrintable(difference));
}

void MpegReaderSeekTest::seekWithoutIndexLandsAtOrBeforeOnAKeyFrame()
{
    // A search by timestamps stops on any packet, whose picture cannot be decoded without
    // the key frame before it; the reader goes back until it starts on a key frame.
    const std::vector<Picture> all = readAll(m_gopTsClip);
    QVERIFY(all.size() > size_t(kPictures - 5));
    for (const double seconds : {0.5, 3.0, 3.96, 4.04, 5.0, 7.5}) {
        MpegReader reader;
        QVERIFY(reader.open(m_gopTsClip.toUtf8().constData()));
        QVERIFY(reader.seek(seconds));
        const std::vector<Picture> rest = readOn(reader);
        QVERIFY(!rest.empty());
        const double landed = rest.front().time;
        const double group = landed / (kGop / double(kRate));
        QVERIFY2(landed <= seconds && sameTime(group, std::round(group)),
                 qPrintable(QString("seek to %1 s landed at %2 s").arg(seconds).arg(landed)));
        QString difference;
        QVERIFY2(samePictures(rest, from(all, landed), &difference),
                 qPrintable(QString("seek to %1 s: %2").arg(seconds).arg(difference)));
    }
}

void MpegReaderSeekTest::seekNearTheEndOfALongClipReadsFarFewerPackets()
{
    MpegReader whole;
    QVERIFY(whole.open(m_longClip.toUtf8().constData()));
    const std::vector<Picture> all = readOn(whole);
    QVERIFY(all.size() > size_t(kLongPictures - 5));
    QCOMPARE(whole.packetsRead(), int64_t(kLongPictures));

    const double seconds = 118.0; // two seconds before the end, on a key frame
    MpegReader end;
    QVERIFY(end.open(m_longClip.toUtf8().constData()));
    QVERIFY(end.seek(seconds));
    const std::vector<Picture> rest = readOn(end);
    QString difference;
    QVERIFY2(samePictures(from(rest, seconds), from(all, seconds), &difference), qPrintable(difference));
    QVERIFY(!rest.empty());
    QVERIFY2(end.packetsRead() <= 2 * kGop, qPrintable(QString("%1 packets").arg(end.packetsRead())));
}

void MpegReaderSeekTest::seekWithTwoDecoderThreadsGivesThePicturesOfOne_data()
{
    QTest::addColumn<QString>("clip");
    QTest::addColumn<double>("seconds");
    QTest::newRow("mp4") << m_gopClip << 3.0;
    QTest::newRow("mpegts") << m_gopTsClip << 5.0;
    QTest::newRow("intra") << m_intraClip << 6.0;
}

void MpegReaderSeekTest::seekWithTwoDecoderThreadsGivesThePicturesOfOne()
{
    QFETCH(QString, clip);
    QFETCH(double, seconds);
    std::vector<Picture> byThreads[2];
    for (const int threads : {1, 2}) {
        MpegReader reader;
        reader.setDecoderThreads(threads);
        QVERIFY(reader.open(clip.toUtf8().constData()));
        // Some pictures first, so that the threads are busy when the seek comes.
        QCOMPARE(readOn(reader, 20).size(), size_t(20));
        QVERIFY(reader.seek(seconds));
        byThreads[threads - 1] = readOn(reader);
    }
    QVERIFY(byThreads[0].size() >= 40);
    QVERIFY(byThreads[0].front().time <= seconds);
    QString difference;
    QVERIFY2(samePictures(byThreads[1], byThreads[0], &difference), qPrintable(difference));
}

void MpegReaderSeekTest::seekPastTheEndGivesNoPictureFromThatTime_data()
{
    QTest::addColumn<QString>("clip");
    QTest::newRow("intra") << m_intraClip;
    QTest::newRow("mp4") << m_gopClip;
    QTest::newRow("mpegts") << m_gopTsClip;
    QTest::newRow("long") << m_longClip;
}

void MpegReaderSeekTest::seekPastTheEndGivesNoPictureFromThatTime()
{
    QFETCH(QString, clip);
    MpegReader whole;
    QVERIFY(whole.open(clip.toUtf8().constData()));
    const std::vector<Picture> all = readOn(whole);
    QVERIFY(!all.empty());

    const double seconds = all.back().time + 10.0;
    MpegReader reader;
    QVERIFY(reader.open(clip.toUtf8().constData()));
    QVERIFY(reader.seek(seconds));
    const std::vector<Picture> rest = readOn(reader);
    const std::vector<Picture> late = from(rest, seconds);
    QVERIFY2(late.empty(), qPrintable(QString("a picture at %1 s").arg(late.empty() ? 0.0 : late.front().time)));
    // It went to the end rather than reading the file from its start.
    QVERIFY2(rest.size() <= size_t(kGop), qPrintable(QString("%1 pictures").arg(rest.size())));
    QVERIFY2(reader.packetsRead() < whole.packetsRead() / 2,
             qPrintable(QString("%1 of %2 packets").arg(reader.packetsRead()).arg(whole.packetsRead())));
    QVERIFY(!FramePtr(reader.read(false)));
}

void MpegReaderSeekTest::seekAfterReadingGoesBackAndForthAndPastTheEnd_data()
{
    QTest::addColumn<int>("threads");
    QTest::newRow("one thread") << 1;
    QTest::newRow("two threads") << 2;
}

void MpegReaderSeekTest::seekAfterReadingGoesBackAndForthAndPastTheEnd()
{
    QFETCH(int, threads);
    const std::vector<Picture> all = readAll(m_gopClip);
    MpegReader reader;
    reader.setDecoderThreads(threads);
    QVERIFY(reader.open(m_gopClip.toUtf8().constData()));
    QString difference;

    QCOMPARE(readOn(reader, 30).size(), size_t(30));
    QVERIFY(reader.seek(5.0));
    const std::vector<Picture> forth = readOn(reader, 10);
    QVERIFY2(samePictures(forth, std::vector<Picture>(all.begin() + 100, all.begin() + 110), &difference),
             qPrintable("forth: " + difference));

    QVERIFY(reader.seek(1.0));
    const std::vector<Picture> back = readOn(reader, 10);
    QVERIFY2(samePictures(back, std::vector<Picture>(all.begin(), all.begin() + 10), &difference),
             qPrintable("back: " + difference));

    // Read to the end, where a decoder on threads has been drained, then seek again.
    readOn(reader);
    QVERIFY(!FramePtr(reader.read(false)));
    QVERIFY(reader.seek(6.5));
    QVERIFY2(samePictures(readOn(reader), from(all, 6.0), &difference), qPrintable("after the end: " + difference));
}

void MpegReaderSeekTest::seekToZeroOrBeforeChangesNothing()
{
    const std::vector<Picture> all = readAll(m_intraClip);
    MpegReader reader;
    QVERIFY(reader.open(m_intraClip.toUtf8().constData()));
    QCOMPARE(readOn(reader, 10).size(), size_t(10));
    const int64_t packets = reader.packetsRead();
    QVERIFY(reader.seek(0.0));
    QVERIFY(reader.seek(-3.0));
    QCOMPARE(reader.packetsRead(), packets);
    QString difference;
    QVERIFY2(samePictures(readOn(reader), std::vector<Picture>(all.begin() + 10, all.end()), &difference),
             qPrintable(difference));
}

void MpegReaderSeekTest::seekInStreamWithoutTimestampsFailsAndReadingGoesOn()
{
    const std::vector<Picture> all = readAll(m_rawClip);
    QCOMPARE(all.size(), size_t(kPictures));
    for (const int threads : {1, 2}) {
        MpegReader reader;
        reader.setDecoderThreads(threads);
        QVERIFY(reader.open(m_rawClip.toUtf8().constData()));
        QCOMPARE(readOn(reader, 10).size(), size_t(10));
        QVERIFY(!reader.seek(3.0));
        const std::vector<Picture> rest = readOn(reader);
        // Several threads hold back a picture each at the end of an untimed stream.
        const std::vector<Picture> expected(all.begin() + 10, all.end() - (threads - 1));
        QString difference;
        QVERIFY2(samePictures(rest, expected, &difference),
                 qPrintable(QString("%1 threads: %2").arg(threads).arg(difference)));
    }
}

void MpegReaderSeekTest::seekWithoutOpenFileOrTimeFails()
{
    MpegReader reader;
    QVERIFY(!reader.seek(1.0));
    QVERIFY(!reader.open(path("no-such-file.mkv").toUtf8().constData()));
    QVERIFY(!reader.seek(1.0));
    QVERIFY(reader.open(m_intraClip.toUtf8().constData()));
    QVERIFY(!reader.seek(std::nan("")));
    QVERIFY(reader.seek(std::numeric_limits<double>::infinity()));
    QVERIFY(from(readOn(reader), 1e9).empty());
    reader.close();
    QVERIFY(!reader.seek(1.0));
}

QTEST_GUILESS_MAIN(MpegReaderSeekTest)
#include "MpegReaderSeekTest.moc"
