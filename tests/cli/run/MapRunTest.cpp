#include "MapRun.h"
#include "MotionMap.h"
#include "OutputPlan.h"
#include "ProgressOutput.h"
#include "TestSupport.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

// The run loop in-process: order of starts, exit status, what is written and what not.
namespace {

bool makeClip(const QString& path, int frames, const QString& size = QStringLiteral("64x48"))
{
    return TestSupport::runFfmpeg({"-f", "lavfi", "-i",
                                   QStringLiteral("testsrc=size=%1:rate=25").arg(size),
                                   "-frames:v", QString::number(frames), "-c:v", "ffv1", path});
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

struct RunOutcome {
    int status;
    QString text;
};

RunOutcome runPlanned(const MapToolOptions& options, const std::vector<PlannedInput>& inputs,
                      const std::atomic<int>& cancel, ProgressOutput::Style style = ProgressOutput::Style::Lines)
{
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    ProgressOutput output(buffer, style);
    const int status = MapRun::run(options, inputs, output, cancel);
    return {status, QString::fromLocal8Bit(buffer.data())};
}

RunOutcome run(const MapToolOptions& options, ProgressOutput::Style style = ProgressOutput::Style::Lines)
{
    const std::atomic<int> noCancel{0};
    return runPlanned(options, OutputPlan::plan(options), noCancel, style);
}

} // namespace

class MapRunTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void oneJobStartsFilesInTheOrderGiven();
    void everyMapWrittenGivesStatusZero();
    void openFailureIsReportedAndTheOthersAreWritten();
    void plannedErrorIsReportedWithoutOpeningTheVideo();
    void fileThatAppearedDuringThePassIsNotReplaced();
    void writeFailureIsReportedWithTheFileName();
    void cancelBeforeTheStartWritesNothingAndGivesSignalStatus();
    void quietRunPrintsNothingButErrors();
    void filesStartingTogetherShareTheCores();
    void theLastFileDecodesOnEveryCoreOnlyOnceItRunsAlone();
    void oneJobAtATimeDecodesOnEveryCore();

private:
    QString clip(const QString& name) const { return m_clips.filePath(name); }
    QString out(const QString& name) const { return QDir(m_out->path()).filePath(name); }
    MapToolOptions options(const QStringList& videos) const;

    QTemporaryDir m_clips;
    std::unique_ptr<QTemporaryDir> m_out;
};

void MapRunTest::initTestCase()
{
    QVERIFY(m_clips.isValid());
    QVERIFY(makeClip(clip("first.mkv"), 30));
    QVERIFY(makeClip(clip("second.mkv"), 20));
    QVERIFY(makeClip(clip("third.mkv"), 10));
}

void MapRunTest::init()
{
    m_out = std::make_unique<QTemporaryDir>();
    QVERIFY(m_out->isValid());
}

MapToolOptions MapRunTest::options(const QStringList& videos) const
{
    MapToolOptions o;
    o.videos = videos;
    o.outputDir = m_out->path();
    return o;
}

void MapRunTest::oneJobStartsFilesInTheOrderGiven()
{
    MapToolOptions o = options({clip("third.mkv"), clip("first.mkv"), clip("second.mkv")});
    o.jobs = 1;
    const RunOutcome outcome = run(o);
    QCOMPARE(outcome.status, MapRun::kExitSuccess);
    const QStringList expected = {
        clip("third.mkv") + ": started",  clip("third.mkv") + ": done -> " + out("third.png"),
        clip("first.mkv") + ": started",  clip("first.mkv") + ": done -> " + out("first.png"),
        clip("second.mkv") + ": started", clip("second.mkv") + ": done -> " + out("second.png"),
    };
    QCOMPARE(outcome.text.split('\n', Qt::SkipEmptyParts), expected);
}

void MapRunTest::everyMapWrittenGivesStatusZero()
{
    MapToolOptions o = options({clip("first.mkv"), clip("second.mkv"), clip("third.mkv")});
    o.jobs = 3;
    o.counts = true;
    const RunOutcome outcome = run(o);
    QCOMPARE(outcome.status, MapRun::kExitSuccess);
    for (const char* name : {"first", "second", "third"}) {
        const QImage map(out(QString::fromLatin1(name) + ".png"));
        QCOMPARE(map.size(), QSize(64, 48));
        QCOMPARE(QImage(out(QString::fromLatin1(name) + ".counts.png")).size(), QSize(64, 48));
    }
}

void MapRunTest::openFailureIsReportedAndTheOthersAreWritten()
{
    QVERIFY(QFile(clip("broken.mkv")).open(QIODevice::WriteOnly));
    const RunOutcome outcome = run(options({clip("first.mkv"), clip("broken.mkv"), clip("second.mkv")}));
    QCOMPARE(outcome.status, MapRun::kExitFailure);
    QVERIFY(outcome.text.contains(QStringLiteral("Can't open video file '%1'\n").arg(clip("broken.mkv"))));
    QVERIFY(QFile::exists(out("first.png")));
    QVERIFY(QFile::exists(out("second.png")));
    QVERIFY(!QFile::exists(out("broken.png")));
}

void MapRunTest::plannedErrorIsReportedWithoutOpeningTheVideo()
{
    MapToolOptions o = options({clip("first.mkv"), clip("nothing-here.mkv")});
    std::vector<PlannedInput> plan = OutputPlan::plan(o);
    plan[1].error = QStringLiteral("planned refusal");
    const std::atomic<int> noCancel{0};
    const RunOutcome outcome = runPlanned(o, plan, noCancel);
    QCOMPARE(outcome.status, MapRun::kExitFailure);
    QVERIFY(outcome.text.startsWith(QStringLiteral("planned refusal\n")));
    QVERIFY(!outcome.text.contains(QStringLiteral("Can't open video file")));
    QVERIFY(!outcome.text.contains(clip("nothing-here.mkv") + ": started"));
    QVERIFY(QFile::exists(out("first.png")));
}

void MapRunTest::fileThatAppearedDuringThePassIsNotReplaced()
{
    MapToolOptions o = options({clip("first.mkv")});
    const std::vector<PlannedInput> plan = OutputPlan::plan(o);
    QVERIFY(plan[0].error.isEmpty());
    {
        QFile late(out("first.png"));
        QVERIFY(late.open(QIODevice::WriteOnly));
        late.write("written meanwhile");
    }
    const std::atomic<int> noCancel{0};
    const RunOutcome outcome = runPlanned(o, plan, noCancel);
    QCOMPARE(outcome.status, MapRun::kExitFailure);
    QVERIFY(outcome.text.contains(out("first.png")));
    QCOMPARE(readAll(out("first.png")), QByteArray("written meanwhile"));

    o.overwrite = true;
    QCOMPARE(runPlanned(o, plan, noCancel).status, MapRun::kExitSuccess);
    QCOMPARE(QImage(out("first.png")).size(), QSize(64, 48));
}

void MapRunTest::writeFailureIsReportedWithTheFileName()
{
    MapToolOptions o = options({clip("first.mkv"), clip("second.mkv")});
    o.overwrite = true;
    QVERIFY(QDir(m_out->path()).mkpath("first.png/in-the-way"));
    const RunOutcome outcome = run(o);
    QCOMPARE(outcome.status, MapRun::kExitFailure);
    QVERIFY(outcome.text.contains(QStringLiteral("Can't save image file '%1'\n").arg(out("first.png"))));
    QVERIFY(QFile::exists(out("second.png")));
    QCOMPARE(QDir(m_out->path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             (QStringList{"first.png", "second.png"}));
}

void MapRunTest::cancelBeforeTheStartWritesNothingAndGivesSignalStatus()
{
    MapToolOptions o = options({clip("first.mkv"), clip("second.mkv")});
    const std::atomic<int> interrupted{SIGINT};
    const RunOutcome outcome = runPlanned(o, OutputPlan::plan(o), interrupted);
    QCOMPARE(outcome.status, 130);
    QVERIFY(outcome.text.contains(clip("first.mkv") + ": canceled\n"));
    QVERIFY(outcome.text.contains(clip("second.mkv") + ": canceled\n"));
    QVERIFY(QDir(m_out->path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty());

    const std::atomic<int> terminated{SIGTERM};
    QCOMPARE(runPlanned(o, OutputPlan::plan(o), terminated).status, 130);
}

void MapRunTest::quietRunPrintsNothingButErrors()
{
    MapToolOptions o = options({clip("first.mkv"), clip("missing.mkv")});
    const RunOutcome outcome = run(o, ProgressOutput::Style::Quiet);
    QCOMPARE(outcome.status, MapRun::kExitFailure);
    QCOMPARE(outcome.text, QStringLiteral("Can't open video file '%1'\n").arg(clip("missing.mkv")));
    QVERIFY(QFile::exists(out("first.png")));
}

// Arguments: jobs, files still to start (this one included), files running (this one
// included), cores.
void MapRunTest::filesStartingTogetherShareTheCores()
{
    // Two files, --jobs 2, two cores: the first to start sees both to come, the second sees
    // only itself left to start but the first already running.
    QCOMPARE(MapRun::decoderThreadsFor(2, 2, 1, 2), 1);
    QCOMPARE(MapRun::decoderThreadsFor(2, 1, 2, 2), 1);
    // Four files on eight cores with --jobs 2: four decoder threads each.
    QCOMPARE(MapRun::decoderThreadsFor(2, 4, 1, 8), 4);
    QCOMPARE(MapRun::decoderThreadsFor(2, 3, 2, 8), 4);
    // More jobs than cores: still one thread each, never none.
    QCOMPARE(MapRun::decoderThreadsFor(4, 4, 3, 2), 1);
}

void MapRunTest::theLastFileDecodesOnEveryCoreOnlyOnceItRunsAlone()
{
    // The last of four files starts while the third still runs: one core each.
    QCOMPARE(MapRun::decoderThreadsFor(2, 1, 2, 2), 1);
    // The third ended long before: the last file runs alone and takes both cores.
    QCOMPARE(MapRun::decoderThreadsFor(2, 1, 1, 2), 2);
    // Of three files with --jobs 3 on six cores, the last starts beside one other.
    QCOMPARE(MapRun::decoderThreadsFor(3, 1, 2, 6), 3);
}

void MapRunTest::oneJobAtATimeDecodesOnEveryCore()
{
    QCOMPARE(MapRun::decoderThreadsFor(1, 5, 1, 2), 2);
    QCOMPARE(MapRun::decoderThreadsFor(1, 1, 1, 8), 8);
    // A --jobs of 0 is taken as one.
    QCOMPARE(MapRun::decoderThreadsFor(0, 3, 1, 4), 4);
}

QTEST_GUILESS_MAIN(MapRunTest)
#include "MapRunTest.moc"
