#include "MpegFrame.h"
#include "MpegReader.h"
#include "TestFrames.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
}

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <utility>
#include <vector>

namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr int kGrayPictures = 25;
constexpr int kDelayedClipPictures = 30;
// The byte size of FFmpeg's input buffer: pos() moves in steps of at most this much.
constexpr int64_t kInputBufferSize = 32768;

using FramePtr = std::unique_ptr<MpegFrame>;
using TestFrames::lumaOf;

const QByteArray kShoppingList("Shopping list\nmilk\nbread\n");

// An HLS playlist whose only segment lies on a web server at the port %1.
const QString kRemotePlaylist("#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:0\n"
                              "#EXTINF:2.0,\nhttp://127.0.0.1:%1/segment0.ts\n#EXT-X-ENDLIST\n");

// Luma value of picture i of the exact grey clips.
unsigned char grayValue(int picture)
{
    return static_cast<unsigned char>(10 * picture);
}

std::vector<QByteArray> grayPictures(int count, int width = kWidth, int height = kHeight)
{
    std::vector<QByteArray> pictures;
    for (int i = 0; i < count; ++i)
        pictures.push_back(TestSupport::grayFrame(width, height, grayValue(i)));
    return pictures;
}

int countPictures(MpegReader& reader, bool clone = true)
{
    int count = 0;
    while (FramePtr frame{reader.read(clone)})
        ++count;
    return count;
}

// Opens `path` and reads it to the end; -1 when it does not open.
int countPictures(const QString& path)
{
    MpegReader reader;
    if (!reader.open(path.toUtf8().constData()))
        return -1;
    return countPictures(reader);
}

int openFileDescriptors()
{
    return static_cast<int>(QDir("/proc/self/fd").entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size());
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A TCP port on the loopback address that counts who connects and hangs up on them at once,
// so that a reader reaching for the network fails quickly instead of waiting for an answer.
class LocalListener {
public:
    LocalListener()
    {
        m_socket = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        m_listening = m_socket >= 0 && bind(m_socket, reinterpret_cast<sockaddr*>(&address), length) == 0
                      && listen(m_socket, 8) == 0
                      && getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        m_port = ntohs(address.sin_port);
    }
    ~LocalListener()
    {
        if (m_socket >= 0)
            ::close(m_socket);
    }
    LocalListener(const LocalListener&) = delete;
    LocalListener& operator=(const LocalListener&) = delete;

    bool isListening() const { return m_listening; }
    int port() const { return m_port; }
    int connections() const { return m_connections; }

    void acceptPending()
    {
        for (int client = accept(m_socket, nullptr, nullptr); client >= 0; client = accept(m_socket, nullptr, nullptr)) {
            ++m_connections;
            ::close(client);
        }
    }

private:
    int m_socket = -1;
    bool m_listening = false;
    int m_port = 0;
    int m_connections = 0;
};

struct OpenAttempt {
    bool opened = false;
    int pictures = 0;
};

// Opens and reads `path` on a thread of its own while this thread serves the listener.
OpenAttempt openWhileListening(LocalListener& listener, const QString& path)
{
    const QByteArray url = path.toUtf8();
    std::future<OpenAttempt> attempt = std::async(std::launch::async, [url] {
        OpenAttempt result;
        MpegReader reader;
        result.opened = reader.open(url.constData());
        result.pictures = countPictures(reader);
        return result;
    });
    while (attempt.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready)
        listener.acceptPending();
    listener.acceptPending();
    return attempt.get();
}

} // namespace

class MpegReaderTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void opensGrayClipWithItsSizeRateAndStream();
    void readsEveryIntraPictureInOrder();
    void readWithoutCloneGivesTheSamePictures();
    void timeIsPacketDtsTimesStreamTimeBase();
    void processedFrameCountRisesPerPicture();

    void audioFirstFileChoosesSecondStreamAndSkipsAudio();
    void audioOnlyFileFailsWithoutStreamOrSize();
    void missingFileFailsAndCloseReleasesState();
    void nonVideoFileFailsAndCloseReleasesState();
    void queriesOnClosedReaderReturnUnknown();
    void readingPastEndKeepsReturningNull();
    void posIsMinusOneWhenNeverOpened();
    void posGrowsInStepsOfInputBufferNotPerPicture();
    void openingTwiceReleasesFirstFile();

    void delayingDecoderReturnsFewerPicturesThanClipHolds();
    void decoderThreadsDefaultToOne();
    void severalDecoderThreadsGiveThePicturesAndTimesOfOne_data();
    void severalDecoderThreadsGiveThePicturesAndTimesOfOne();
    void picturesReadWithoutCloneStayValidAfterLaterReadsAndClose();
    void severalThreadsOnPacketsWithoutTimestampsHoldBackAPicturePerExtraThread();
    void motionJpegReturnsEveryPicture();
    void clonedPictureIsWritableAndIndependentOfDecoder();

    void presentationTimesOfConstantRateClipAreIndexOverRate();
    void presentationTimesRiseInDisplayOrderThroughBPictures();
    void presentationTimesOfVariableRateClipAreItsTimestamps();
    void rawH264PicturesHaveNoPresentationTime();
    void clipStartingAtTenSecondsHasStartTimeTenAndFirstPictureAtZero();
    void packetsReadCountsThePacketsOfEveryStream();
    void infoOfMp4GivesContainerCodecSizeRateDurationAndCreationTime();
    void infoOfClipWithoutCreationTimeLeavesItEmpty();
    void closedReaderHasNoStartTimePacketsOrInfo();

    void emptyOrNullPathFails();
    void folderFails();
    void zeroByteFileFails();
    void textFileFails();
    void textFileNamedTxtFails();
    void stillImageFails();
    void truncatedVideoEndsEarly();
    void corruptPacketsAreSkipped();
    void onePixelVideoDecodes();
    void oddSizedVideoDecodes();

    void playlistNamingNetworkSegmentFailsWithoutConnecting();
    void concatListNamingNetworkFileFailsWithoutConnecting();
    void concatListReachingNetworkThroughPlaylistFailsWithoutConnecting();
    void networkUrlGivenAsPathFailsWithoutConnecting();
    void fileNamedLikeUrlOpensAsLocalFile();

private:
    QString path(const QString& name) const { return m_dir.filePath(name); }
    QString makeDelayedClip();
    // Writes the files, each %1 in them standing for the listener's port, and opens the first.
    OpenAttempt openListWhileListening(LocalListener& listener, const std::vector<std::pair<QString, QString>>& files);

    QTemporaryDir m_dir;
    QString m_grayClip;
    QString m_grayNutClip;
    QString m_audioFirstClip;
    QString m_audioOnlyFile;
    QString m_longClip;
    QString m_smallClip;
    QString m_motionClip;
    QString m_fromTenClip;
};

void MpegReaderTest::initTestCase()
{
    // The stream descriptions FFmpeg prints on every open would bury the test output.
    av_log_set_level(AV_LOG_FATAL);
    QVERIFY(m_dir.isValid());
    QString error;

    m_grayClip = path("gray.mkv");
    QVERIFY(TestSupport::writeRawClip(m_grayClip, kWidth, kHeight, grayPictures(kGrayPictures)));
    m_grayNutClip = path("gray.nut");
    QVERIFY(TestSupport::writeRawClip(m_grayNutClip, kWidth, kHeight, grayPictures(kGrayPictures)));

    m_audioFirstClip = path("audio-first.mkv");
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "sine=frequency=440:duration=1", "-i", m_grayClip,
                                     "-map", "0:a", "-map", "1:v", "-c:a", "pcm_s16le", "-c:v", "copy",
                                     m_audioFirstClip},
                                    &error),
             qPrintable(error));

    m_audioOnlyFile = path("audio-only.wav");
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "sine=frequency=440:duration=1", m_audioOnlyFile}, &error),
             qPrintable(error));

    m_longClip = path("long.mkv");
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=25:duration=8", "-pix_fmt",
                                     "yuv420p", "-c:v", "ffv1", m_longClip},
                                    &error),
             qPrintable(error));

    m_smallClip = path("small.mkv");
    QVERIFY(TestSupport::writeRawClip(m_smallClip, 32, 16, grayPictures(5, 32, 16)));

    // P-pictures only: each one is predicted from the decoder's previous picture.
    m_motionClip = path("motion.mp4");
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=160x120:rate=25", "-frames:v", "30",
                                     "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "veryfast", "-bf", "0",
                                     "-g", "30", m_motionClip},
                                    &error),
             qPrintable(error));

    // Ten pictures whose timestamps start at 10 s.
    m_fromTenClip = path("from-ten.mkv");
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=25", "-frames:v", "10", "-c:v",
                                     "ffv1", "-output_ts_offset", "10", m_fromTenClip},
                                    &error),
             qPrintable(error));
}

OpenAttempt MpegReaderTest::openListWhileListening(LocalListener& listener,
                                                   const std::vector<std::pair<QString, QString>>& files)
{
    for (const auto& [name, content] : files) {
        const QString text = content.contains("%1") ? content.arg(listener.port()) : content;
        if (!writeFile(path(name), text.toUtf8()))
            return {};
    }
    return openWhileListening(listener, path(files.front().first));
}

QString MpegReaderTest::makeDelayedClip()
{
    const QString clip = path("bframes.mp4");
    if (QFile::exists(clip))
        return clip;
    QString error;
    if (!TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=25", "-frames:v",
                                 QString::number(kDelayedClipPictures), "-pix_fmt", "yuv420p", "-c:v", "libx264",
                                 "-preset", "veryfast", "-bf", "3", clip},
                                &error))
        qWarning("%s", qPrintable(error));
    return clip;
}

void MpegReaderTest::opensGrayClipWithItsSizeRateAndStream()
{
    MpegReader reader;
    QVERIFY(reader.open(m_grayClip.toUtf8().constData()));
    QCOMPARE(reader.streamIndex(), 0);
    QCOMPARE(reader.width(), kWidth);
    QCOMPARE(reader.height(), kHeight);
    QCOMPARE(reader.fps(), 25.0);
    QVERIFY(!reader.isMJPEG());
}

void MpegReaderTest::readsEveryIntraPictureInOrder()
{
    MpegReader reader;
    QVERIFY(reader.open(m_grayClip.toUtf8().constData()));
    for (int i = 0; i < kGrayPictures; ++i) {
        const FramePtr frame{reader.read(true)};
        QVERIFY2(frame, qPrintable(QString("picture %1 missing").arg(i)));
        QCOMPARE(frame->width(), kWidth);
        QCOMPARE(frame->height(), kHeight);
        QCOMPARE(lumaOf(*frame), TestSupport::grayFrame(kWidth, kHeight, grayValue(i)));
    }
    QVERIFY(!FramePtr(reader.read(true)));
}

void MpegReaderTest::readWithoutCloneGivesTheSamePictures()
{
    MpegReader cloning;
    MpegReader sharing;
    QVERIFY(cloning.open(m_motionClip.toUtf8().constData()));
    QVERIFY(sharing.open(m_motionClip.toUtf8().constData()));
    int pictures = 0;
    for (;;) {
        const FramePtr cloned{cloning.read(true)};
        const FramePtr shared{sharing.read(false)};
        QCOMPARE(bool(cloned), bool(shared));
        if (!cloned)
            break;
        QCOMPARE(lumaOf(*shared), lumaOf(*cloned));
        ++pictures;
    }
    QCOMPARE(pictures, 30);
}

void MpegReaderTest::timeIsPacketDtsTimesStreamTimeBase()
{
    // Matroska counts in milliseconds, NUT in pictures (1/25 s): both give 40 ms a picture.
    for (const QString& clip : {m_grayClip, m_grayNutClip}) {
        MpegReader reader;
        QVERIFY(reader.open(clip.toUtf8().constData()));
        for (int i = 0; i < kGrayPictures; ++i) {
            const FramePtr frame{reader.read(true)};
            QVERIFY(frame);
            QVERIFY2(qAbs(frame->m_time - 0.04 * i) < 1e-9,
                     qPrintable(QString("%1: picture %2 at %3 s").arg(clip).arg(i).arg(frame->m_time)));
        }
    }
}

void MpegReaderTest::processedFrameCountRisesPerPicture()
{
    MpegReader reader;
    QVERIFY(reader.open(m_grayClip.toUtf8().constData()));
    const int before = MpegReader::m_processedFrameCount;
    QCOMPARE(countPictures(reader, true), kGrayPictures);
    QCOMPARE(MpegReader::m_processedFrameCount - before, kGrayPictures);
    QVERIFY(!FramePtr(reader.read(true)));
    QCOMPARE(MpegReader::m_processedFrameCount - before, kGrayPictures);
}

void MpegReaderTest::audioFirstFileChoosesSecondStreamAndSkipsAudio()
{
    MpegReader reader;
    QVERIFY(reader.open(m_audioFirstClip.toUtf8().constData()));
    QCOMPARE(reader.streamIndex(), 1);
    QCOMPARE(reader.width(), kWidth);
    QCOMPARE(reader.height(), kHeight);
    for (int i = 0; i < kGrayPictures; ++i) {
        const FramePtr frame{reader.read(true)};
        QVERIFY2(frame, qPrintable(QString("picture %1 missing").arg(i)));
        QCOMPARE(lumaOf(*frame), TestSupport::grayFrame(kWidth, kHeight, grayValue(i)));
    }
    QVERIFY(!FramePtr(reader.read(true)));
}

void MpegReaderTest::audioOnlyFileFailsWithoutStreamOrSize()
{
    MpegReader reader;
    QVERIFY(!reader.open(m_audioOnlyFile.toUtf8().constData()));
    QCOMPARE(reader.streamIndex(), -1);
    QCOMPARE(reader.width(), -1);
    QCOMPARE(reader.height(), -1);
    QCOMPARE(reader.fps(), -1.0);
    QVERIFY(!reader.isMJPEG());
    QVERIFY(!FramePtr(reader.read(true)));
    QVERIFY(!FramePtr(reader.read(false)));
}

void MpegReaderTest::missingFileFailsAndCloseReleasesState()
{
    MpegReader reader;
    QVERIFY(!reader.open(path("no-such-file.mkv").toUtf8().constData()));
    QCOMPARE(reader.streamIndex(), -1);
    QCOMPARE(reader.pos(), int64_t(-1));
    QCOMPARE(reader.width(), -1);
    QVERIFY(!FramePtr(reader.read(true)));
    reader.close();
    reader.close();
    QCOMPARE(reader.streamIndex(), -1);
    // The same reader is as good as new afterwards.
    QVERIFY(reader.open(m_grayClip.toUtf8().constData()));
    QCOMPARE(countPictures(reader), kGrayPictures);
}

void MpegReaderTest::nonVideoFileFailsAndCloseReleasesState()
{
    const int descriptorsBefore = openFileDescriptors();
    MpegReader reader;
    QVERIFY(!reader.open(m_audioOnlyFile.toUtf8().constData()));
    // Half-open: the file is still held and its read position known until close().
    QVERIFY(reader.pos() > 0);
    QCOMPARE(openFileDescriptors(), descriptorsBefore + 1);
    reader.close();
    QCOMPARE(reader.pos(), int64_t(-1));
    QCOMPARE(openFileDescriptors(), descriptorsBefore);
    reader.close();
    QCOMPARE(reader.pos(), int64_t(-1));
    QCOMPARE(reader.streamIndex(), -1);
    QCOMPARE(openFileDescriptors(), descriptorsBefore);
}

void MpegReaderTest::queriesOnClosedReaderReturnUnknown()
{
    MpegReader reader;
    QCOMPARE(reader.width(), -1);
    QCOMPARE(reader.height(), -1);
    QCOMPARE(reader.fps(), -1.0);
    QCOMPARE(reader.streamIndex(), -1);
    QVERIFY(!reader.isMJPEG());
    QVERIFY(!FramePtr(reader.read(true)));
    QVERIFY(!FramePtr(reader.read(false)));
    reader.close();

    QVERIFY(reader.open(m_grayClip.toUtf8().constData()));
    reader.close();
    QCOMPARE(reader.width(), -1);
    QCOMPARE(reader.height(), -1);
    QCOMPARE(reader.fps(), -1.0);
    QCOMPARE(reader.pos(), int64_t(-1));
    QVERIFY(!FramePtr(reader.read(true)));
}

void MpegReaderTest::readingPastEndKeepsReturningNull()
{
    MpegReader reader;
    QVERIFY(reader.open(m_grayClip.toUtf8().constData()));
    QCOMPARE(countPictures(reader), kGrayPictures);
    for (int i = 0; i < 5; ++i) {
        QVERIFY(!FramePtr(reader.read(true)));
        QVERIFY(!FramePtr(reader.read(false)));
    }
    QCOMPARE(reader.width(), kWidth);
}

void MpegReaderTest::posIsMinusOneWhenNeverOpened()
{
    const MpegReader reader;
    QCOMPARE(reader.pos(), int64_t(-1));
}

void MpegReaderTest::posGrowsInStepsOfInputBufferNotPerPicture()
{
    const int64_t fileSize = QFileInfo(m_longClip).size();
    QVERIFY(fileSize > 4 * kInputBufferSize);
    MpegReader reader;
    QVERIFY(reader.open(m_longClip.toUtf8().constData()));
    int64_t position = reader.pos();
    QVERIFY(position > 0);
    int pictures = 0;
    int steps = 0;
    while (FramePtr frame{reader.read(true)}) {
        ++pictures;
        const int64_t next = reader.pos();
        QVERIFY2(next >= position, qPrintable(QString("pos went back from %1 to %2").arg(position).arg(next)));
        QVERIFY2(next - position <= kInputBufferSize, qPrintable(QString("step of %1 bytes").arg(next - position)));
        if (next != position)
            ++steps;
        position = next;
    }
    QCOMPARE(pictures, 200);
    QCOMPARE(position, fileSize);
    // Many pictures fit into one buffer load: the position moves only now and then.
    QVERIFY2(steps >= 3 && steps <= pictures / 10, qPrintable(QString("%1 steps").arg(steps)));
}

void MpegReaderTest::openingTwiceReleasesFirstFile()
{
    MpegReader reader;
    const int descriptorsBefore = openFileDescriptors();
    QVERIFY(reader.open(m_grayClip.toUtf8().constData()));
    const int descriptorsWithOneFile = openFileDescriptors();
    QCOMPARE(descriptorsWithOneFile, descriptorsBefore + 1);
    QVERIFY(FramePtr(reader.read(true)));

    QVERIFY(reader.open(m_smallClip.toUtf8().constData()));
    QCOMPARE(openFileDescriptors(), descriptorsWithOneFile);
    QCOMPARE(reader.width(), 32);
    QCOMPARE(reader.height(), 16);
    // The second file is read from its start.
    const FramePtr first{reader.read(true)};
    QVERIFY(first);
    QCOMPARE(lumaOf(*first), TestSupport::grayFrame(32, 16, grayValue(0)));
    QCOMPARE(countPictures(reader) + 1, 5);

    reader.close();
    QCOMPARE(openFileDescriptors(), descriptorsBefore);
}

void MpegReaderTest::delayingDecoderReturnsFewerPicturesThanClipHolds()
{
    const int pictures = countPictures(makeDelayedClip());
    QVERIFY2(pictures > 0 && pictures < kDelayedClipPictures, qPrintable(QString("%1 pictures").arg(pictures)));
}

void MpegReaderTest::decoderThreadsDefaultToOne()
{
    MpegReader reader;
    QCOMPARE(reader.decoderThreads(), 1);
    reader.setDecoderThreads(3);
    QCOMPARE(reader.decoderThreads(), 3);
    reader.setDecoderThreads(0);
    QCOMPARE(reader.decoderThreads(), 0);
    reader.setDecoderThreads(-2);
    QCOMPARE(reader.decoderThreads(), 1);
}

namespace {

struct Picture {
    QByteArray luma;
    double time;
};

std::vector<Picture> readAll(const QString& path, int threads)
{
    MpegReader reader;
    reader.setDecoderThreads(threads);
    std::vector<Picture> pictures;
    if (!reader.open(path.toUtf8().constData()))
        return pictures;
    while (const FramePtr frame{reader.read(false)})
        pictures.push_back({lumaOf(*frame), frame->m_time});
    return pictures;
}

} // namespace

void MpegReaderTest::severalDecoderThreadsGiveThePicturesAndTimesOfOne_data()
{
    QTest::addColumn<QString>("clip");
    QTest::addColumn<int>("threads");
    // B-pictures (reordering delay), P-pictures only, MPEG-4 part 2, and slices.
    for (const int threads : {2, 3, 0}) {
        QTest::addRow("bframes %d", threads) << makeDelayedClip() << threads;
        QTest::addRow("motion %d", threads) << m_motionClip << threads;
        QTest::addRow("mpeg4 %d", threads) << path("mpeg4.avi") << threads;
        QTest::addRow("slices %d", threads) << path("slices.mp4") << threads;
    }
}

void MpegReaderTest::severalDecoderThreadsGiveThePicturesAndTimesOfOne()
{
    QFETCH(QString, clip);
    QFETCH(int, threads);
    QString error;
    if (clip.endsWith("mpeg4.avi") && !QFile::exists(clip))
        QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=25", "-frames:v", "30",
                                         "-c:v", "mpeg4", "-bf", "2", clip},
                                        &error),
                 qPrintable(error));
    if (clip.endsWith("slices.mp4") && !QFile::exists(clip))
        QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=96x64:rate=25", "-frames:v", "30",
                                         "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "veryfast",
                                         "-x264-params", "slices=4", clip},
                                        &error),
                 qPrintable(error));
    const std::vector<Picture> one = readAll(clip, 1);
    const std::vector<Picture> several = readAll(clip, threads);
    QVERIFY(one.size() >= 20);
    QCOMPARE(several.size(), one.size());
    for (size_t i = 0; i < one.size(); ++i) {
        QVERIFY2(several[i].luma == one[i].luma, qPrintable(QString("picture %1").arg(i)));
        QCOMPARE(several[i].time, one[i].time);
    }
}

void MpegReaderTest::severalThreadsOnPacketsWithoutTimestampsHoldBackAPicturePerExtraThread()
{
    // A raw H.264 stream has no decode timestamps: the pictures the threads still hold at
    // the end cannot be told from those held for reordering, so none of them is returned.
    const QString clip = path("raw.h264");
    QString error;
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=25", "-frames:v", "30",
                                     "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "veryfast", "-bf", "0",
                                     clip},
                                    &error),
             qPrintable(error));
    const std::vector<Picture> one = readAll(clip, 1);
    QCOMPARE(one.size(), size_t(30));
    for (const int threads : {2, 3}) {
        const std::vector<Picture> several = readAll(clip, threads);
        QCOMPARE(several.size(), one.size() - size_t(threads - 1));
        for (size_t i = 0; i < several.size(); ++i)
            QVERIFY(several[i].luma == one[i].luma);
    }
}

void MpegReaderTest::picturesReadWithoutCloneStayValidAfterLaterReadsAndClose()
{
    MpegReader kept;
    MpegReader reference;
    QVERIFY(kept.open(m_motionClip.toUtf8().constData()));
    QVERIFY(reference.open(m_motionClip.toUtf8().constData()));
    std::vector<FramePtr> frames;
    std::vector<QByteArray> expected;
    while (FramePtr frame{kept.read(false)}) {
        frames.push_back(std::move(frame));
        const FramePtr copy{reference.read(true)};
        QVERIFY(copy);
        expected.push_back(lumaOf(*copy));
    }
    kept.close();
    QCOMPARE(frames.size(), size_t(30));
    for (size_t i = 0; i < frames.size(); ++i)
        QVERIFY2(lumaOf(*frames[i]) == expected[i], qPrintable(QString("picture %1").arg(i)));
}

void MpegReaderTest::motionJpegReturnsEveryPicture()
{
    const QString clip = path("mjpeg.avi");
    QString error;
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=25", "-frames:v",
                                     QString::number(kDelayedClipPictures), "-c:v", "mjpeg", "-q:v", "3", clip},
                                    &error),
             qPrintable(error));
    MpegReader reader;
    QVERIFY(reader.open(clip.toUtf8().constData()));
    QVERIFY(reader.isMJPEG());
    QCOMPARE(countPictures(reader), kDelayedClipPictures);
}

void MpegReaderTest::clonedPictureIsWritableAndIndependentOfDecoder()
{
    MpegReader overwritten;
    MpegReader untouched;
    QVERIFY(overwritten.open(m_motionClip.toUtf8().constData()));
    QVERIFY(untouched.open(m_motionClip.toUtf8().constData()));
    int pictures = 0;
    QByteArray previous;
    for (;;) {
        const FramePtr frame{overwritten.read(true)};
        const FramePtr reference{untouched.read(true)};
        QCOMPARE(bool(frame), bool(reference));
        if (!frame)
            break;
        const QByteArray luma = lumaOf(*frame);
        QCOMPARE(luma, lumaOf(*reference));
        QVERIFY2(pictures == 0 || luma != previous, "the clip is meant to change from picture to picture");
        previous = luma;
        ++pictures;

        // Wipe the picture completely, every plane, as a caller filtering in place may.
        AVFrame* picture = frame->avFrame();
        const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(picture->format));
        QVERIFY(descriptor);
        for (int plane = 0; plane < AV_NUM_DATA_POINTERS && picture->data[plane]; ++plane) {
            const int rows = plane == 0 ? picture->height : AV_CEIL_RSHIFT(picture->height, descriptor->log2_chroma_h);
            std::memset(picture->data[plane], 0, static_cast<size_t>(picture->linesize[plane]) * rows);
        }
        std::memset(frame->data(), 0, static_cast<size_t>(frame->step()) * frame->height());
    }
    QCOMPARE(pictures, 30);
}

namespace {

struct Shown {
    double time;
    bool known;
};

std::vector<Shown> presentationTimes(const QString& path)
{
    MpegReader reader;
    std::vector<Shown> times;
    if (!reader.open(path.toUtf8().constData()))
        return times;
    while (const FramePtr frame{reader.read(false)})
        times.push_back({frame->m_presentationTime, frame->m_hasPresentationTime});
    return times;
}

bool sameTime(double a, double b)
{
    return qAbs(a - b) < 1e-9;
}

} // namespace

void MpegReaderTest::presentationTimesOfConstantRateClipAreIndexOverRate()
{
    // Matroska counts in milliseconds, NUT in pictures.
    for (const QString& clip : {m_grayClip, m_grayNutClip}) {
        const std::vector<Shown> times = presentationTimes(clip);
        QCOMPARE(times.size(), size_t(kGrayPictures));
        for (size_t i = 0; i < times.size(); ++i) {
            QVERIFY(times[i].known);
            QVERIFY2(sameTime(times[i].time, i / 25.0),
                     qPrintable(QString("%1: picture %2 at %3 s").arg(clip).arg(i).arg(times[i].time)));
        }
    }
}

void MpegReaderTest::presentationTimesRiseInDisplayOrderThroughBPictures()
{
    MpegReader reader;
    QVERIFY(reader.open(makeDelayedClip().toUtf8().constData()));
    int pictures = 0;
    while (const FramePtr frame{reader.read(false)}) {
        QVERIFY(frame->m_hasPresentationTime);
        QVERIFY2(sameTime(frame->m_presentationTime, pictures / 25.0),
                 qPrintable(QString("picture %1 at %2 s").arg(pictures).arg(frame->m_presentationTime)));
        ++pictures;
    }
    QVERIFY(pictures >= 20);
}

void MpegReaderTest::presentationTimesOfVariableRateClipAreItsTimestamps()
{
    // Picture n is shown at n * n / 100 seconds: gaps of 10, 30, 50 ... milliseconds.
    constexpr int pictures = 16;
    for (const QString& codec : {QString("ffv1"), QString("libx264")}) {
        const QString clip = path("variable-" + codec + (codec == "ffv1" ? ".mkv" : ".mp4"));
        QString error;
        QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=25", "-frames:v",
                                         QString::number(pictures), "-vf", "settb=1/1000,setpts=N*N*10",
                                         "-fps_mode", "passthrough", "-enc_time_base", "1:1000", "-pix_fmt",
                                         "yuv420p", "-c:v", codec, "-bf", "0", clip},
                                        &error),
                 qPrintable(error));
        const std::vector<Shown> times = presentationTimes(clip);
        QCOMPARE(times.size(), size_t(pictures));
        for (size_t n = 0; n < times.size(); ++n) {
            QVERIFY(times[n].known);
            QVERIFY2(sameTime(times[n].time, n * n / 100.0),
                     qPrintable(QString("%1: picture %2 at %3 s").arg(clip).arg(n).arg(times[n].time)));
        }
    }
}

void MpegReaderTest::rawH264PicturesHaveNoPresentationTime()
{
    // An H.264 elementary stream carries no timestamps, and FFmpeg makes up none for it.
    const QString clip = path("untimed.h264");
    QString error;
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=25", "-frames:v", "20",
                                     "-pix_fmt", "yuv420p", "-c:v", "libx264", "-bf", "0", clip},
                                    &error),
             qPrintable(error));
    const std::vector<Shown> times = presentationTimes(clip);
    QCOMPARE(times.size(), size_t(20));
    for (const Shown& shown : times) {
        QVERIFY(!shown.known);
        QCOMPARE(shown.time, 0.0);
    }
}

void MpegReaderTest::clipStartingAtTenSecondsHasStartTimeTenAndFirstPictureAtZero()
{
    MpegReader reader;
    QVERIFY(reader.open(m_fromTenClip.toUtf8().constData()));
    QCOMPARE(reader.startTime(), 10.0);
    for (int i = 0; i < 10; ++i) {
        const FramePtr frame{reader.read(false)};
        QVERIFY(frame && frame->m_hasPresentationTime);
        QVERIFY2(sameTime(frame->m_presentationTime, i / 25.0),
                 qPrintable(QString("picture %1 at %2 s").arg(i).arg(frame->m_presentationTime)));
        // The decode times keep the file's own clock.
        QVERIFY(sameTime(frame->m_time, 10.0 + i / 25.0));
    }
}

void MpegReaderTest::packetsReadCountsThePacketsOfEveryStream()
{
    MpegReader video;
    QVERIFY(video.open(m_grayClip.toUtf8().constData()));
    QCOMPARE(video.packetsRead(), int64_t(0));
    QVERIFY(FramePtr(video.read(true)));
    QCOMPARE(video.packetsRead(), int64_t(1));
    QCOMPARE(countPictures(video), kGrayPictures - 1);
    QCOMPARE(video.packetsRead(), int64_t(kGrayPictures));

    // The same pictures with a second of sound before them: its packets count as well.
    MpegReader withSound;
    QVERIFY(withSound.open(m_audioFirstClip.toUtf8().constData()));
    QCOMPARE(countPictures(withSound), kGrayPictures);
    QVERIFY2(withSound.packetsRead() > kGrayPictures, qPrintable(QString::number(withSound.packetsRead())));
    // Reopening starts the count again.
    QVERIFY(withSound.open(m_grayClip.toUtf8().constData()));
    QCOMPARE(withSound.packetsRead(), int64_t(0));
}

void MpegReaderTest::infoOfMp4GivesContainerCodecSizeRateDurationAndCreationTime()
{
    const QString clip = path("dated.mp4");
    QString error;
    QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=80x60:rate=20", "-frames:v", "30",
                                     "-pix_fmt", "yuv420p", "-c:v", "libx264", "-metadata",
                                     "creation_time=2024-05-01T10:00:00Z", clip},
                                    &error),
             qPrintable(error));
    MpegReader reader;
    QVERIFY(reader.open(clip.toUtf8().constData()));
    const VideoInfo info = reader.info();
    QCOMPARE(QString::fromStdString(info.container), QString("mov,mp4,m4a,3gp,3g2,mj2"));
    QCOMPARE(QString::fromStdString(info.codec), QString("h264"));
    QCOMPARE(info.width, 80);
    QCOMPARE(info.height, 60);
    QCOMPARE(info.frameRate, 20.0);
    QVERIFY2(sameTime(info.duration, 1.5), qPrintable(QString::number(info.duration)));
    // FFmpeg gives the time to the microsecond.
    QCOMPARE(QString::fromStdString(info.creationTime), QString("2024-05-01T10:00:00.000000Z"));
    QCOMPARE(info.streamFrames, int64_t(30));
}

void MpegReaderTest::infoOfClipWithoutCreationTimeLeavesItEmpty()
{
    MpegReader reader;
    QVERIFY(reader.open(m_grayClip.toUtf8().constData()));
    const VideoInfo info = reader.info();
    QCOMPARE(QString::fromStdString(info.container), QString("matroska,webm"));
    QCOMPARE(QString::fromStdString(info.codec), QString("ffv1"));
    QCOMPARE(info.width, kWidth);
    QCOMPARE(info.height, kHeight);
    QCOMPARE(info.frameRate, 25.0);
    QVERIFY2(sameTime(info.duration, kGrayPictures / 25.0), qPrintable(QString::number(info.duration)));
    QVERIFY(info.creationTime.empty());
    // Matroska declares no number of pictures.
    QCOMPARE(info.streamFrames, int64_t(0));
}

void MpegReaderTest::closedReaderHasNoStartTimePacketsOrInfo()
{
    MpegReader reader;
    QCOMPARE(reader.startTime(), 0.0);
    QCOMPARE(reader.packetsRead(), int64_t(0));
    QVERIFY(reader.info().container.empty());
    QCOMPARE(reader.info().width, 0);
    QCOMPARE(reader.info().duration, -1.0);

    QVERIFY(reader.open(m_fromTenClip.toUtf8().constData()));
    QVERIFY(FramePtr(reader.read(true)));
    QCOMPARE(reader.startTime(), 10.0);
    QVERIFY(reader.packetsRead() > 0);
    reader.close();
    QCOMPARE(reader.startTime(), 0.0);
    QCOMPARE(reader.packetsRead(), int64_t(0));
    QVERIFY(reader.info().codec.empty());

    // A file that is no video: half-open, still nothing to report.
    QVERIFY(!reader.open(m_audioOnlyFile.toUtf8().constData()));
    QVERIFY(reader.info().container.empty());
    QCOMPARE(reader.startTime(), 0.0);
}

void MpegReaderTest::emptyOrNullPathFails()
{
    MpegReader reader;
    QVERIFY(!reader.open(""));
    QCOMPARE(reader.streamIndex(), -1);
    QVERIFY(!FramePtr(reader.read(true)));
    QVERIFY(!reader.open(nullptr));
    QVERIFY(!FramePtr(reader.read(true)));
    QCOMPARE(reader.width(), -1);
    reader.close();
}

void MpegReaderTest::folderFails()
{
    MpegReader reader;
    QVERIFY(!reader.open(m_dir.path().toUtf8().constData()));
    QVERIFY(!FramePtr(reader.read(true)));
    QCOMPARE(reader.width(), -1);
}

void MpegReaderTest::zeroByteFileFails()
{
    const QString empty = path("empty.mkv");
    QVERIFY(writeFile(empty, {}));
    MpegReader reader;
    QVERIFY(!reader.open(empty.toUtf8().constData()));
    QVERIFY(!FramePtr(reader.read(true)));
    QCOMPARE(reader.height(), -1);
}

void MpegReaderTest::textFileFails()
{
    for (const QString& name : {QString("notes.mkv"), QString("notes.mp4"), QString("notes")}) {
        const QString text = path(name);
        QVERIFY(writeFile(text, kShoppingList.repeated(200)));
        MpegReader reader;
        QVERIFY2(!reader.open(text.toUtf8().constData()), qPrintable(name));
        QVERIFY(!FramePtr(reader.read(true)));
        QCOMPARE(reader.width(), -1);
    }
}

void MpegReaderTest::textFileNamedTxtFails()
{
    // FFmpeg would read text with the usual text extensions as ANSI art.
    for (const QString& name : {QString("notes.txt"), QString("readme.ans"), QString("log.nfo")}) {
        const QString text = path(name);
        QVERIFY(writeFile(text, kShoppingList.repeated(200)));
        MpegReader reader;
        QVERIFY2(!reader.open(text.toUtf8().constData()), qPrintable(name));
        QVERIFY(!FramePtr(reader.read(true)));
    }
}

void MpegReaderTest::stillImageFails()
{
    for (const QString& name : {QString("still.png"), QString("still.jpg"), QString("still.bmp")}) {
        const QString image = path(name);
        QVERIFY(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48", "-frames:v", "1", image}));
        MpegReader reader;
        QVERIFY2(!reader.open(image.toUtf8().constData()), qPrintable(name));
        QVERIFY(!FramePtr(reader.read(true)));
    }
}

void MpegReaderTest::truncatedVideoEndsEarly()
{
    const QByteArray whole = readFile(m_motionClip);
    QVERIFY(!whole.isEmpty());
    // Matroska and MPEG-TS copies too: they have their index at the end or none at all.
    const QString mkv = path("motion-for-cut.mkv");
    const QString ts = path("motion-for-cut.ts");
    QString error;
    QVERIFY2(TestSupport::runFfmpeg({"-i", m_motionClip, "-c", "copy", mkv}, &error), qPrintable(error));
    QVERIFY2(TestSupport::runFfmpeg({"-i", m_motionClip, "-c", "copy", ts}, &error), qPrintable(error));
    for (const QString& source : {m_motionClip, mkv, ts}) {
        const QByteArray bytes = readFile(source);
        for (double share : {0.1, 0.5, 0.9}) {
            const QString cut = path("cut-" + QFileInfo(source).fileName());
            QVERIFY(writeFile(cut, bytes.left(static_cast<int>(bytes.size() * share))));
            const int pictures = countPictures(cut);
            QVERIFY2(pictures < 30, qPrintable(QString("%1 cut at %2: %3 pictures").arg(source).arg(share).arg(pictures)));
        }
    }
    // Half a Matroska file still yields its first pictures.
    const QByteArray mkvBytes = readFile(mkv);
    QVERIFY(writeFile(path("half.mkv"), mkvBytes.left(mkvBytes.size() / 2)));
    QVERIFY(countPictures(path("half.mkv")) > 0);
}

void MpegReaderTest::corruptPacketsAreSkipped()
{
    const QString ts = path("motion-for-damage.ts");
    QString error;
    QVERIFY2(TestSupport::runFfmpeg({"-i", m_motionClip, "-c", "copy", ts}, &error), qPrintable(error));
    QByteArray bytes = readFile(ts);
    QVERIFY(bytes.size() > 10000);
    // Scribble over the middle of the file, sparing the first and last quarter.
    quint32 noise = 12345;
    for (int i = bytes.size() / 4; i < bytes.size() * 3 / 4; i += 7) {
        noise = noise * 1664525u + 1013904223u;
        bytes[i] = static_cast<char>(noise >> 24);
    }
    const QString damaged = path("damaged.ts");
    QVERIFY(writeFile(damaged, bytes));
    MpegReader reader;
    QVERIFY(reader.open(damaged.toUtf8().constData()));
    const int pictures = countPictures(reader);
    QVERIFY2(pictures > 0, qPrintable(QString("%1 pictures").arg(pictures)));
    QVERIFY(!FramePtr(reader.read(true)));
}

void MpegReaderTest::onePixelVideoDecodes()
{
    const QString clip = path("one-pixel.mkv");
    QVERIFY(TestSupport::writeRawClip(clip, 1, 1, {QByteArray(1, char(7)), QByteArray(1, char(200))}));
    MpegReader reader;
    QVERIFY(reader.open(clip.toUtf8().constData()));
    QCOMPARE(reader.width(), 1);
    QCOMPARE(reader.height(), 1);
    const FramePtr first{reader.read(true)};
    const FramePtr second{reader.read(true)};
    QVERIFY(first && second);
    QCOMPARE(first->data()[0], uint8_t(7));
    QCOMPARE(second->data()[0], uint8_t(200));
    QVERIFY(!FramePtr(reader.read(true)));
}

void MpegReaderTest::oddSizedVideoDecodes()
{
    for (const QString& codec : {QString("ffv1"), QString("mjpeg")}) {
        const QString clip = path("odd-" + codec + ".mkv");
        QString error;
        QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=33x17:rate=25", "-frames:v", "5",
                                         "-pix_fmt", codec == "ffv1" ? "yuv420p" : "yuvj420p", "-c:v", codec, clip},
                                        &error),
                 qPrintable(error));
        MpegReader reader;
        QVERIFY(reader.open(clip.toUtf8().constData()));
        QCOMPARE(reader.width(), 33);
        QCOMPARE(reader.height(), 17);
        int pictures = 0;
        while (FramePtr frame{reader.read(true)}) {
            QCOMPARE(frame->width(), 33);
            QCOMPARE(frame->height(), 17);
            QVERIFY(frame->step() >= 33);
            std::vector<uint8_t> rgb(33 * 3 * 17);
            frame->rgb24(rgb.data(), 33 * 3, 33, 17);
            ++pictures;
        }
        QCOMPARE(pictures, 5);
    }
}

void MpegReaderTest::playlistNamingNetworkSegmentFailsWithoutConnecting()
{
    LocalListener listener;
    QVERIFY(listener.isListening());
    const OpenAttempt attempt = openListWhileListening(listener, {{"remote.m3u8", kRemotePlaylist}});
    QCOMPARE(listener.connections(), 0);
    QVERIFY(!attempt.opened);
    QCOMPARE(attempt.pictures, 0);
}

void MpegReaderTest::concatListNamingNetworkFileFailsWithoutConnecting()
{
    LocalListener listener;
    QVERIFY(listener.isListening());
    const OpenAttempt attempt = openListWhileListening(
        listener, {{"remote.ffconcat", "ffconcat version 1.0\nfile http://127.0.0.1:%1/clip.mkv\n"}});
    QCOMPARE(listener.connections(), 0);
    QVERIFY(!attempt.opened);
    QCOMPARE(attempt.pictures, 0);
}

void MpegReaderTest::concatListReachingNetworkThroughPlaylistFailsWithoutConnecting()
{
    LocalListener listener;
    QVERIFY(listener.isListening());
    const OpenAttempt attempt = openListWhileListening(
        listener, {{"nested.ffconcat", "ffconcat version 1.0\nfile inner.m3u8\n"}, {"inner.m3u8", kRemotePlaylist}});
    QCOMPARE(listener.connections(), 0);
    QCOMPARE(attempt.pictures, 0);
}

void MpegReaderTest::networkUrlGivenAsPathFailsWithoutConnecting()
{
    LocalListener listener;
    QVERIFY(listener.isListening());
    for (const QString& url : {QStringLiteral("http://127.0.0.1:%1/clip.mkv"), QStringLiteral("tcp://127.0.0.1:%1"),
                               QStringLiteral("concat:http://127.0.0.1:%1/a.mkv|http://127.0.0.1:%1/b.mkv")}) {
        const OpenAttempt attempt = openWhileListening(listener, url.arg(listener.port()));
        QVERIFY2(!attempt.opened, qPrintable(url));
        QCOMPARE(attempt.pictures, 0);
    }
    QCOMPARE(listener.connections(), 0);
}

void MpegReaderTest::fileNamedLikeUrlOpensAsLocalFile()
{
    const QString previousFolder = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_dir.path()));
    for (const QString& name : {QString("http:clip.mkv"), QString("concat:clip.mkv"), QString("pipe:0")}) {
        QVERIFY(QFile::copy(m_grayClip, path(name)));
        MpegReader reader;
        const bool opened = reader.open(name.toUtf8().constData());
        const int pictures = opened ? countPictures(reader) : -1;
        MpegReader absolute;
        const bool openedAbsolute = absolute.open(path(name).toUtf8().constData());
        QVERIFY(QDir::setCurrent(previousFolder));
        QVERIFY2(opened, qPrintable(name));
        QCOMPARE(pictures, kGrayPictures);
        QVERIFY2(openedAbsolute, qPrintable(name));
        QVERIFY(QDir::setCurrent(m_dir.path()));
    }
    QVERIFY(QDir::setCurrent(previousFolder));
}

QTEST_GUILESS_MAIN(MpegReaderTest)
#include "MpegReaderTest.moc"
