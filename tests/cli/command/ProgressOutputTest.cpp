#include "ProgressOutput.h"

#include <QBuffer>
#include <QtTest>

namespace {

const QByteArray kUpThreeAndClear = "\x1b[3A\r\x1b[J";

ProgressOutput::Snapshot twoRunningFiles()
{
    ProgressOutput::Snapshot snapshot;
    snapshot.running = {{QStringLiteral("a.mp4"), 42}, {QStringLiteral("b.mp4"), 7}};
    snapshot.finishedFiles = 1;
    snapshot.totalFiles = 4;
    snapshot.framesPerSecond = 119.6f;
    return snapshot;
}

// The text written to a buffer since the last call.
class Sink {
public:
    Sink() { m_buffer.open(QIODevice::ReadWrite); }
    QIODevice& device() { return m_buffer; }
    QByteArray take()
    {
        const QByteArray text = m_buffer.data().mid(m_read);
        m_read = m_buffer.data().size();
        return text;
    }

private:
    QBuffer m_buffer;
    int m_read = 0;
};

} // namespace

class ProgressOutputTest : public QObject {
    Q_OBJECT

private slots:
    void percentFollowsTheRowRule_data();
    void percentFollowsTheRowRule();
    void linesStylePrintsOneLineWhenAFileStartsAndEnds();
    void linesStyleDrawsNoBlock();
    void quietStylePrintsErrorsOnly();
    void liveBlockShowsEveryRunningFileAndTheRate();
    void liveRedrawMovesUpOverThePreviousBlock();
    void liveRedrawsAtMostFourTimesASecond();
    void liveMessageReplacesTheBlockAndTheBlockReturnsBelowIt();
    void finishTakesTheBlockAway();
    void liveLinesAreCutToTheTerminalWidth();
};

void ProgressOutputTest::percentFollowsTheRowRule_data()
{
    QTest::addColumn<qint64>("position");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<qint64>("percent");
    QTest::newRow("a quarter") << qint64(50) << qint64(200) << qint64(25);
    QTest::newRow("truncated, not rounded") << qint64(199) << qint64(200) << qint64(99);
    QTest::newRow("whole file") << qint64(200) << qint64(200) << qint64(100);
    QTest::newRow("empty file") << qint64(10) << qint64(0) << qint64(0);
    QTest::newRow("start") << qint64(0) << qint64(0) << qint64(0);
    QTest::newRow("large file without overflow") << qint64(3) * 1024 * 1024 * 1024 << qint64(4) * 1024 * 1024 * 1024 << qint64(75);
}

void ProgressOutputTest::percentFollowsTheRowRule()
{
    QFETCH(qint64, position);
    QFETCH(qint64, size);
    QFETCH(qint64, percent);
    QCOMPARE(progressPercent(position, size), percent);
}

void ProgressOutputTest::linesStylePrintsOneLineWhenAFileStartsAndEnds()
{
    Sink sink;
    ProgressOutput output(sink.device(), ProgressOutput::Style::Lines);
    output.started(QStringLiteral("clip.mp4"));
    QCOMPARE(sink.take(), QByteArray("clip.mp4: started\n"));
    output.done(QStringLiteral("clip.mp4"), QStringLiteral("/out/clip.png"));
    QCOMPARE(sink.take(), QByteArray("clip.mp4: done -> /out/clip.png\n"));
    output.canceled(QStringLiteral("long.mp4"));
    QCOMPARE(sink.take(), QByteArray("long.mp4: canceled\n"));
    output.error(QStringLiteral("Can't open video file 'x.mp4'"));
    QCOMPARE(sink.take(), QByteArray("Can't open video file 'x.mp4'\n"));
}

void ProgressOutputTest::linesStyleDrawsNoBlock()
{
    Sink sink;
    ProgressOutput output(sink.device(), ProgressOutput::Style::Lines);
    output.show(twoRunningFiles(), 0);
    output.show(twoRunningFiles(), 1000);
    output.finish();
    QVERIFY(sink.take().isEmpty());
}

void ProgressOutputTest::quietStylePrintsErrorsOnly()
{
    Sink sink;
    ProgressOutput output(sink.device(), ProgressOutput::Style::Quiet);
    output.started(QStringLiteral("clip.mp4"));
    output.show(twoRunningFiles(), 0);
    output.done(QStringLiteral("clip.mp4"), QStringLiteral("/out/clip.png"));
    output.canceled(QStringLiteral("clip.mp4"));
    output.finish();
    QVERIFY(sink.take().isEmpty());
    output.error(QStringLiteral("Can't save image file '/out/clip.png'"));
    QCOMPARE(sink.take(), QByteArray("Can't save image file '/out/clip.png'\n"));
}

void ProgressOutputTest::liveBlockShowsEveryRunningFileAndTheRate()
{
    Sink sink;
    ProgressOutput output(sink.device(), ProgressOutput::Style::Live);
    output.started(QStringLiteral("a.mp4"));
    QVERIFY(sink.take().isEmpty()); // the block shows running files instead
    output.show(twoRunningFiles(), 0);
    QCOMPARE(sink.take(), QByteArray("  42% a.mp4\n"
                                     "   7% b.mp4\n"
                                     "Frames per second: 120  (1 of 4 files finished)\n"));
}

void ProgressOutputTest::liveRedrawMovesUpOverThePreviousBlock()
{
    Sink sink;
    ProgressOutput output(sink.device(), ProgressOutput::Style::Live);
    output.show(twoRunningFiles(), 0);
    sink.take();
    ProgressOutput::Snapshot later = twoRunningFiles();
    later.running.pop_back();
    output.show(later, 300);
    QCOMPARE(sink.take(), kUpThreeAndClear + "  42% a.mp4\nFrames per second: 120  (1 of 4 files finished)\n");
    output.show(later, 600);
    QVERIFY(sink.take().startsWith("\x1b[2A\r\x1b[J"));
}

void ProgressOutputTest::liveRedrawsAtMostFourTimesASecond()
{
    Sink sink;
    ProgressOutput output(sink.device(), ProgressOutput::Style::Live);
    output.show(twoRunningFiles(), 1000);
    QVERIFY(!sink.take().isEmpty());
    output.show(twoRunningFiles(), 1100);
    output.show(twoRunningFiles(), 1249);
    QVERIFY(sink.take().isEmpty());
    output.show(twoRunningFiles(), 1250);
    QVERIFY(sink.take().startsWith(kUpThreeAndClear));
}

void ProgressOutputTest::liveMessageReplacesTheBlockAndTheBlockReturnsBelowIt()
{
    Sink sink;
    ProgressOutput output(sink.device(), ProgressOutput::Style::Live);
    output.show(twoRunningFiles(), 0);
    sink.take();
    output.done(QStringLiteral("c.mp4"), QStringLiteral("/out/c.png"));
    QCOMPARE(sink.take(), kUpThreeAndClear + "c.mp4: done -> /out/c.png\n");
    output.error(QStringLiteral("Can't open video file 'd.mp4'"));
    QCOMPARE(sink.take(), QByteArray("Can't open video file 'd.mp4'\n"));
    // Drawn again at once, without waiting for the interval: nothing is on screen to move over.
    output.show(twoRunningFiles(), 10);
    const QByteArray redraw = sink.take();
    QVERIFY(!redraw.contains('\x1b'));
    QVERIFY(redraw.startsWith("  42% a.mp4\n"));
}

void ProgressOutputTest::finishTakesTheBlockAway()
{
    Sink sink;
    ProgressOutput output(sink.device(), ProgressOutput::Style::Live);
    output.finish();
    QVERIFY(sink.take().isEmpty());
    output.show(twoRunningFiles(), 0);
    sink.take();
    output.finish();
    QCOMPARE(sink.take(), kUpThreeAndClear);
    output.finish();
    QVERIFY(sink.take().isEmpty());
}

void ProgressOutputTest::liveLinesAreCutToTheTerminalWidth()
{
    Sink sink;
    ProgressOutput output(sink.device(), ProgressOutput::Style::Live, 20);
    ProgressOutput::Snapshot snapshot = twoRunningFiles();
    snapshot.running.front().name = QStringLiteral("a-very-long-name-of-a-video.mp4");
    output.show(snapshot, 0);
    const QList<QByteArray> lines = sink.take().split('\n');
    QCOMPARE(lines.size(), 4); // three lines and the empty rest after the last newline
    QCOMPARE(lines[0], QByteArray("  42% a-very-long-n"));
    for (const QByteArray& line : lines)
        QVERIFY(line.size() < 20);
}

QTEST_GUILESS_MAIN(ProgressOutputTest)
#include "ProgressOutputTest.moc"
