// Inputs that are not videos at all, videos at the edges of what the analysis meets, and
// lists that name a network address: each ends Done or Failed through the pass and the job
// alike, within the time bound, and nothing ever connects anywhere.

#include "BadInputRuns.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>

#include <random>

using namespace BadInputRuns;

namespace {

// A turning test pattern: motion nearly everywhere in every frame.
QStringList turningPattern(const QString& size, int frames)
{
    return {"-f", "lavfi", "-i", QStringLiteral("testsrc2=size=%1:rate=10,rotate=angle=t").arg(size), "-frames:v",
            QString::number(frames)};
}

QByteArray randomBytes(int size, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    QByteArray bytes(size, '\0');
    for (char& b : bytes)
        b = static_cast<char>(byte(random));
    return bytes;
}

} // namespace

class OddInputsTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    struct Runs {
        PassRun pass;
        JobRun job;
        QString problem; // empty when both ended as expected and agree
    };

    static Runs runBoth(const QString& path, Expected expected)
    {
        Runs runs{runPass(path), runJob(path), {}};
        runs.problem = disagreement(runs.pass, runs.job, QFileInfo(path).fileName(), expected);
        return runs;
    }

    QString written(const QString& name, const QByteArray& bytes)
    {
        const QString path = m_dir.filePath(name);
        return writeFile(path, bytes) ? path : QString();
    }

    QString encoded(const QString& name, const QStringList& args)
    {
        const QString path = m_dir.filePath(name);
        QString error;
        if (!TestSupport::runFfmpeg(args + QStringList{path}, &error)) {
            qWarning("%s", qPrintable(error));
            return {};
        }
        return path;
    }

    // A local listener that fails the test if anything connects to it.
    struct Listener {
        QTcpServer server;
        std::unique_ptr<QSignalSpy> connections;

        bool listen()
        {
            if (!server.listen(QHostAddress::LocalHost, 0))
                return false;
            connections = std::make_unique<QSignalSpy>(&server, &QTcpServer::newConnection);
            return true;
        }
        QString url(const QString& file) const
        {
            return QStringLiteral("http://127.0.0.1:%1/%2").arg(server.serverPort()).arg(file);
        }
        bool untouched()
        {
            // A connection would already be in the backlog; give the notifier one more turn.
            QTest::qWait(50);
            return connections->isEmpty() && !server.hasPendingConnections();
        }
    };

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void zeroByteFileFails()
    {
        const QString path = written("empty.mp4", {});
        QVERIFY(!path.isEmpty());
        const Runs runs = runBoth(path, Expected::Failed);
        QVERIFY2(runs.problem.isEmpty(), qPrintable(runs.problem));
    }

    void randomBytesNamedMp4Fail()
    {
        const QString path = written("random.mp4", randomBytes(64 * 1024, 20240611));
        QVERIFY(!path.isEmpty());
        const Runs runs = runBoth(path, Expected::Failed);
        QVERIFY2(runs.problem.isEmpty(), qPrintable(runs.problem));
    }

    void textFileFails()
    {
        const QString path = written("readme.txt", QByteArray("Camera 3, night of the 14th.\n").repeated(40));
        QVERIFY(!path.isEmpty());
        const Runs runs = runBoth(path, Expected::Failed);
        QVERIFY2(runs.problem.isEmpty(), qPrintable(runs.problem));
    }

    void folderFails()
    {
        QVERIFY(QDir(m_dir.path()).mkpath("clips.mp4"));
        const Runs runs = runBoth(m_dir.filePath("clips.mp4"), Expected::Failed);
        QVERIFY2(runs.problem.isEmpty(), qPrintable(runs.problem));
    }

    void missingPathFails()
    {
        const Runs runs = runBoth(m_dir.filePath("no/such/clip.mp4"), Expected::Failed);
        QVERIFY2(runs.problem.isEmpty(), qPrintable(runs.problem));
    }

    void pathWithSpacesAndNonAsciiLettersIsAnalysedLikeAPlainOne()
    {
        const QString plain = encoded("plain.mkv", turningPattern("64x48", 12) + QStringList{"-c:v", "ffv1"});
        QVERIFY(!plain.isEmpty());
        QVERIFY(QDir(m_dir.path()).mkpath(QStringLiteral("Überwachung 3 – ночь")));
        const QString odd = m_dir.filePath(QStringLiteral("Überwachung 3 – ночь/Kamera Süd 夜 #1.mkv"));
        QVERIFY(QFile::copy(plain, odd));

        const Runs plainRuns = runBoth(plain, Expected::Done);
        QVERIFY2(plainRuns.problem.isEmpty(), qPrintable(plainRuns.problem));
        const Runs oddRuns = runBoth(odd, Expected::Done);
        QVERIFY2(oddRuns.problem.isEmpty(), qPrintable(oddRuns.problem));
        QCOMPARE(oddRuns.job.text, QStringLiteral("Kamera Süd 夜 #1.mkv (done)"));
        QVERIFY(plainRuns.pass.pairs > 0);
        QCOMPARE(oddRuns.pass.pairs, plainRuns.pass.pairs);
        QVERIFY(sameCounts(oddRuns.pass.counts, plainRuns.pass.counts));
        QVERIFY(cv::countNonZero(oddRuns.pass.counts) > 0);
    }

    void onePixelClipCountsItsOnePixel()
    {
        // The pixel flips between black and white: it moves in every pair, one event.
        std::vector<QByteArray> frames;
        for (int i = 0; i < 8; ++i)
            frames.push_back(TestSupport::grayFrame(1, 1, i % 2 ? 255 : 0));
        const QString path = m_dir.filePath("dot.mkv");
        QVERIFY(TestSupport::writeRawClip(path, 1, 1, frames));
        const Runs runs = runBoth(path, Expected::Done);
        QVERIFY2(runs.problem.isEmpty(), qPrintable(runs.problem));
        QCOMPARE(runs.pass.pairs, 7);
        QCOMPARE(runs.pass.counts.size(), cv::Size(1, 1));
        QCOMPARE(int(runs.pass.counts.at<uchar>(0, 0)), 1);
        QCOMPARE(runs.job.result.size(), QSize(1, 1));
    }

    void uhdClipIsAnalysedAtFullSize()
    {
        const QString path = encoded("uhd.avi", {"-f", "lavfi", "-i", "testsrc2=size=4096x2160:rate=10", "-frames:v", "3",
                                                 "-c:v", "mpeg4", "-q:v", "20"});
        QVERIFY(!path.isEmpty());
        const Runs runs = runBoth(path, Expected::Done);
        QVERIFY2(runs.problem.isEmpty(), qPrintable(runs.problem));
        QCOMPARE(runs.pass.pairs, 2);
        QCOMPARE(runs.pass.counts.size(), cv::Size(4096, 2160));
        QCOMPARE(runs.job.result.size(), QSize(4096, 2160));
    }

    void streamChangingItsSizeEndsAtTheChange()
    {
        const QStringList h264 = {"-c:v", "libx264", "-preset", "ultrafast", "-bf", "0", "-pix_fmt", "yuv420p"};
        const QString big = encoded("big.h264", turningPattern("64x48", 8) + h264);
        const QString small = encoded("small.h264", turningPattern("32x24", 8) + h264);
        QVERIFY(!big.isEmpty() && !small.isEmpty());
        const QString joined = written("joined.h264", readFile(big) + readFile(small));
        QVERIFY(!joined.isEmpty());
        const Runs runs = runBoth(joined, Expected::Done);
        QVERIFY2(runs.problem.isEmpty(), qPrintable(runs.problem));
        QCOMPARE(runs.pass.counts.size(), cv::Size(64, 48));
        QVERIFY2(runs.pass.pairs >= 1 && runs.pass.pairs <= 7, qPrintable(QString::number(runs.pass.pairs)));
    }

    // The two tests below rely on the listener noticing a connection.
    void listenerNoticesAConnection()
    {
        Listener listener;
        QVERIFY(listener.listen());
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, listener.server.serverPort());
        QVERIFY(socket.waitForConnected(5000));
        QVERIFY(!listener.untouched());
    }

    void hlsPlaylistNamingALocalListenerFailsWithoutConnecting()
    {
        Listener listener;
        QVERIFY(listener.listen());
        const QString path = written("live.m3u8", QStringLiteral("#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:2\n"
                                                                 "#EXT-X-MEDIA-SEQUENCE:0\n#EXTINF:2.0,\n%1\n"
                                                                 "#EXT-X-ENDLIST\n")
                                                      .arg(listener.url("segment0.ts"))
                                                      .toUtf8());
        QVERIFY(!path.isEmpty());
        const Runs runs = runBoth(path, Expected::Failed);
        QVERIFY2(runs.problem.isEmpty(), qPrintable(runs.problem));
        QVERIFY(listener.untouched());
    }

    void concatListNamingALocalListenerFailsWithoutConnecting()
    {
        Listener listener;
        QVERIFY(listener.listen());
        const QString path = written("list.ffconcat",
                                     QStringLiteral("ffconcat version 1.0\nfile '%1'\n").arg(listener.url("clip.mp4")).toUtf8());
        QVERIFY(!path.isEmpty());
        const Runs runs = runBoth(path, Expected::Failed);
        QVERIFY2(runs.problem.isEmpty(), qPrintable(runs.problem));
        QVERIFY(listener.untouched());
    }
};

QTEST_MAIN(OddInputsTest)
#include "OddInputsTest.moc"
