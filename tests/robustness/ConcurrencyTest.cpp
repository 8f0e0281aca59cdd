// The analysis core's work across threads: the frame counter raised from many threads while
// it is read, jobs' state and cancel flag shared between a pool thread and the GUI thread,
// two passes at once on a pool of two, a pass whose decoder and loop have threads of their
// own, and a job refreshing its row while the GUI thread reads it. Meant for the
// ThreadSanitizer build as much as for the others.

#include "AtomicCounter.h"
#include "MotionPass.h"
#include "TestSupport.h"
#include "Tremora.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QRunnable>
#include <QTemporaryDir>
#include <QThreadPool>
#include <QtTest>

#include <opencv2/core.hpp>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr int kTimeBoundMs = 60000;
const QSize kIconSize(1280, 720);

class NeverCancelHooks final : public MotionPassHooks {
public:
    bool cancelRequested() override { return false; }
    void started() override {}
    void positionChanged(std::int64_t) override {}
    void pairAnalysed() override {}
    void refresh(Refresh) override {}
};

struct PassResult {
    MotionPassOutcome outcome = MotionPassOutcome::OpenFailed;
    cv::Mat counts;
    cv::Mat background;
};

PassResult runPass(const QString& path, int decoderThreads = 1)
{
    NeverCancelHooks hooks;
    PassResult result;
    MotionPassSettings settings;
    settings.decoderThreads = decoderThreads;
    result.outcome = MotionPass::run(path.toUtf8(), settings, result.counts, result.background, hooks);
    return result;
}

// Cancels once told to from another thread; counts the pairs it is told of, each taking a
// millisecond at least, so that a short clip cannot end before the cancel arrives.
class CancelOnRequestHooks final : public MotionPassHooks {
public:
    std::atomic<bool> cancel{false};
    std::atomic<int> pairs{0};

    bool cancelRequested() override { return cancel.load(); }
    void started() override {}
    void positionChanged(std::int64_t) override {}
    void pairAnalysed() override
    {
        pairs.fetch_add(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    void refresh(Refresh) override {}
};

bool equal(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && !a.empty() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

bool allFinal(const std::vector<std::unique_ptr<Tremora>>& jobs)
{
    for (const auto& job : jobs)
        if (job->m_state.load() < Tremora::Done)
            return false;
    return true;
}

int percentOf(const QString& text)
{
    const QRegularExpressionMatch match = QRegularExpression(QStringLiteral("processing\\.\\.\\. (\\d+)%")).match(text);
    return match.hasMatch() ? match.captured(1).toInt() : -1;
}

} // namespace

class ConcurrencyTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    // A turning test pattern of `frames` frames, losslessly coded: cheap to decode, motion
    // everywhere.
    QString clip(const QString& name, const QString& size, int frames)
    {
        const QString path = m_dir.filePath(name);
        if (QFile::exists(path))
            return path;
        const bool ok = TestSupport::runFfmpeg({"-f", "lavfi", "-i",
                                                QStringLiteral("testsrc2=size=%1:rate=25,rotate=angle=t").arg(size),
                                                "-frames:v", QString::number(frames), "-c:v", "ffv1", path});
        return ok ? path : QString();
    }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void counterCountsEveryIncrementFromManyThreads()
    {
        AtomicCounter counter;
        constexpr int kThreads = 8;
        constexpr int kIncrements = 20000;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&counter] {
                for (int i = 0; i < kIncrements; ++i)
                    counter.increment();
            });
        for (std::thread& thread : threads)
            thread.join();
        QCOMPARE(counter.m_count.load(), kThreads * kIncrements);
    }

    void counterReadWhileRaisedNeverCountsAnEventTwice()
    {
        AtomicCounter counter;
        constexpr int kThreads = 4;
        constexpr int kIncrements = 50000;
        std::atomic<int> running{kThreads};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < kIncrements; ++i)
                    counter.increment();
                --running;
            });
        // Intervals pinned to one second, so each rate is the count it read.
        qint64 read = 0;
        int queries = 0;
        while (running.load() > 0 || queries == 0) {
            read += qRound64(counter.getCountPerSecondAt(counter.m_time.addMSecs(1000)));
            ++queries;
        }
        for (std::thread& thread : threads)
            thread.join();
        const qint64 total = read + counter.m_count.load();
        // Increments landing between a query's read and reset are lost; none is counted twice.
        QVERIFY2(total <= qint64(kThreads) * kIncrements, qPrintable(QString::number(total)));
        QVERIFY(total > 0);
    }

    void twoPassesAtOnceOnAPoolOfTwoMatchTheirLoneRuns()
    {
        const QString first = clip("first.mkv", "96x64", 120);
        const QString second = clip("second.mkv", "64x48", 150);
        QVERIFY(!first.isEmpty() && !second.isEmpty());
        const PassResult firstAlone = runPass(first);
        const PassResult secondAlone = runPass(second);
        QCOMPARE(firstAlone.outcome, MotionPassOutcome::Finished);
        QCOMPARE(secondAlone.outcome, MotionPassOutcome::Finished);

        // Each pass hands its result over with a release store; the pool's own locks are
        // not enough for ThreadSanitizer, which cannot see inside Qt.
        PassResult firstTogether;
        PassResult secondTogether;
        std::atomic<int> passesDone{0};
        QThreadPool pool;
        pool.setMaxThreadCount(2);
        pool.start(QRunnable::create([&] {
            firstTogether = runPass(first);
            passesDone.fetch_add(1, std::memory_order_release);
        }));
        pool.start(QRunnable::create([&] {
            secondTogether = runPass(second);
            passesDone.fetch_add(1, std::memory_order_release);
        }));
        QVERIFY(pool.waitForDone(kTimeBoundMs));
        QCOMPARE(passesDone.load(std::memory_order_acquire), 2);

        QCOMPARE(firstTogether.outcome, MotionPassOutcome::Finished);
        QCOMPARE(secondTogether.outcome, MotionPassOutcome::Finished);
        QVERIFY(equal(firstTogether.counts, firstAlone.counts));
        QVERIFY(equal(firstTogether.background, firstAlone.background));
        QVERIFY(equal(secondTogether.counts, secondAlone.counts));
        QVERIFY(equal(secondTogether.background, secondAlone.background));
    }

    void passOnSeveralDecoderThreadsMatchesItsRunOnOne()
    {
        // With several decoder threads the pass reads ahead and loops on a thread of its own.
        const QString path = clip("several.mkv", "96x64", 120);
        QVERIFY(!path.isEmpty());
        const PassResult onOne = runPass(path, 1);
        const PassResult onSeveral = runPass(path, 2);
        QCOMPARE(onOne.outcome, MotionPassOutcome::Finished);
        QCOMPARE(onSeveral.outcome, MotionPassOutcome::Finished);
        QVERIFY(equal(onSeveral.counts, onOne.counts));
        QVERIFY(equal(onSeveral.background, onOne.background));
    }

    void passOnSeveralDecoderThreadsStopsWhenCanceledFromAnotherThread()
    {
        const QString path = clip("canceled.mkv", "96x64", 400);
        QVERIFY(!path.isEmpty());
        CancelOnRequestHooks hooks;
        MotionPassOutcome outcome = MotionPassOutcome::OpenFailed;
        cv::Mat counts, background;
        std::thread pass([&] {
            MotionPassSettings settings;
            settings.decoderThreads = 2;
            outcome = MotionPass::run(path.toUtf8(), settings, counts, background, hooks);
        });
        QElapsedTimer timer;
        timer.start();
        while (hooks.pairs.load() < 5 && timer.elapsed() < kTimeBoundMs)
            QThread::msleep(1);
        hooks.cancel.store(true);
        pass.join();
        QCOMPARE(outcome, MotionPassOutcome::Canceled);
        QVERIFY(hooks.pairs.load() >= 5);
        QVERIFY(hooks.pairs.load() < 399);
    }

    void jobsCanceledFromTheGuiThreadStopWhileOthersFinish()
    {
        // The canceled jobs get a clip far too long to end before the cancel arrives.
        const QString shortClip = clip("short.mkv", "64x48", 150);
        const QString longClip = m_dir.filePath("long.mp4");
        QVERIFY(!shortClip.isEmpty());
        QVERIFY(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=120", "-c:v",
                                        "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", longClip}));
        std::vector<std::unique_ptr<Tremora>> jobs;
        for (int i = 0; i < 4; ++i) {
            jobs.push_back(std::make_unique<Tremora>(i % 2 == 1 ? longClip : shortClip, kIconSize, 50));
            jobs.back()->setAutoDelete(false);
        }
        QThreadPool pool;
        pool.setMaxThreadCount(2);
        for (const auto& job : jobs)
            pool.start(job.get());

        // The GUI thread watches every state and cancels the long jobs once they are running.
        std::vector<int> lastSeen(jobs.size(), Tremora::Waiting);
        QElapsedTimer timer;
        timer.start();
        while (!allFinal(jobs) && timer.elapsed() < kTimeBoundMs) {
            for (size_t i = 0; i < jobs.size(); ++i) {
                const int state = jobs[i]->m_state.load();
                QVERIFY2(state >= lastSeen[i], "a job's state went back");
                lastSeen[i] = state;
                if (i % 2 == 1 && state == Tremora::Processing)
                    jobs[i]->m_cancel = -1;
            }
            QCoreApplication::processEvents();
        }
        QVERIFY(pool.waitForDone(kTimeBoundMs));
        QCoreApplication::processEvents();
        for (size_t i = 0; i < jobs.size(); ++i) {
            const bool canceled = i % 2 == 1;
            QCOMPARE(jobs[i]->m_state.load(), int(canceled ? Tremora::Canceled : Tremora::Done));
            QCOMPARE(jobs[i]->text(), canceled ? QStringLiteral("long.mp4 (canceled)") : QStringLiteral("short.mkv (done)"));
        }
        QVERIFY(equal(jobs[0]->m_motionCount, jobs[2]->m_motionCount));
    }

    void jobRefreshesItsRowWhileTheGuiThreadReadsIt()
    {
        const QString path = clip("refreshing.mkv", "96x64", 200);
        QVERIFY(!path.isEmpty());
        Tremora job(path, kIconSize, 3);
        job.setAutoDelete(false);
        QThreadPool pool;
        pool.setMaxThreadCount(2);
        const int pairsBefore = Tremora::globalCounter.m_count.load();
        pool.start(&job);

        int lastPercent = 0;
        QElapsedTimer timer;
        timer.start();
        while (job.m_state.load() < Tremora::Done && timer.elapsed() < kTimeBoundMs) {
            const QImage map = job.getResult();
            QVERIFY(map.isNull() || map.size() == QSize(96, 64));
            QCoreApplication::processEvents();
            const int percent = percentOf(job.text());
            QVERIFY(percent == -1 || percent >= lastPercent);
            lastPercent = std::max(lastPercent, percent);
        }
        QVERIFY(pool.waitForDone(kTimeBoundMs));
        QCoreApplication::processEvents();
        QCOMPARE(job.m_state.load(), int(Tremora::Done));
        QCOMPARE(job.text(), QStringLiteral("refreshing.mkv (done)"));
        QCOMPARE(Tremora::globalCounter.m_count.load() - pairsBefore, 199);
        QCOMPARE(job.getResult().size(), QSize(96, 64));
    }
};

QTEST_MAIN(ConcurrencyTest)
#include "ConcurrencyTest.moc"
