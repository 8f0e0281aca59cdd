#include "ParallelStripes.h"

#include <QtTest>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// Long enough for a helper to wake on a loaded machine, short enough for a failing test.
constexpr std::chrono::seconds kPatience(10);

// The process's address space now, in bytes.
rlim_t addressSpaceInUse()
{
    std::ifstream statm("/proc/self/statm");
    rlim_t pages = 0;
    statm >> pages;
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

// Runs a job of `count` pieces; true when every piece ran once, all on the calling thread.
bool runsEveryPieceOnTheCaller(ParallelStripes& stripes, int count)
{
    std::set<std::thread::id> threads;
    int pieces = 0;
    stripes.run(count, [&](int) {
        threads.insert(std::this_thread::get_id());
        ++pieces;
    });
    return pieces == count && threads == std::set<std::thread::id>{std::this_thread::get_id()};
}

} // namespace

class ParallelStripesTest : public QObject {
    Q_OBJECT

private slots:
    void helpersTheSystemCannotStartLeaveTheirPiecesToTheCaller()
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        QSKIP("The sanitizers reserve address space that a limit on it would take away.");
#endif
        // A megabyte more address space than in use: no room for a new thread's stack. First
        // of the tests, because the C library keeps the stacks of ended threads for new ones.
        rlimit saved{};
        QCOMPARE(getrlimit(RLIMIT_AS, &saved), 0);
        rlimit limited = saved;
        limited.rlim_cur = addressSpaceInUse() + (1 << 20);
        QCOMPARE(setrlimit(RLIMIT_AS, &limited), 0);
        auto stripes = std::make_unique<ParallelStripes>(3);
        QCOMPARE(setrlimit(RLIMIT_AS, &saved), 0);
        QCOMPARE(stripes->helpers(), 0);
        QVERIFY(runsEveryPieceOnTheCaller(*stripes, 4));
    }

    void everyPieceRunsOnceBeforeRunReturns()
    {
        ParallelStripes stripes(3);
        QCOMPARE(stripes.helpers(), 3);
        std::vector<std::atomic<int>> runs(100);
        stripes.run(100, [&](int piece) { runs[static_cast<size_t>(piece)].fetch_add(1); });
        for (const std::atomic<int>& count : runs)
            QCOMPARE(count.load(), 1);
    }

    void aSleepingHelperWakesToRunAPieceWhileTheCallerRunsAnother()
    {
        // Each piece waits until the other has begun: only two threads at once finish both
        // without running out of patience. The helper is asleep when each job starts.
        ParallelStripes stripes(1);
        for (int job = 0; job < 3; ++job) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            std::atomic<int> begun{0};
            std::atomic<int> metTheOther{0};
            stripes.run(2, [&](int) {
                begun.fetch_add(1);
                const Clock::time_point giveUp = Clock::now() + kPatience;
                while (begun.load() < 2 && Clock::now() < giveUp)
                    std::this_thread::yield();
                if (begun.load() == 2)
                    metTheOther.fetch_add(1);
            });
            QCOMPARE(metTheOther.load(), 2);
        }
    }

    void withoutHelpersTheCallerRunsEveryPiece()
    {
        ParallelStripes stripes(0);
        QCOMPARE(stripes.helpers(), 0);
        QVERIFY(runsEveryPieceOnTheCaller(stripes, 5));
    }

    void evenSplitsCoverEveryItemOnceInPiecesDifferingByOneAtMost()
    {
        for (const int total : {0, 1, 7, 1080, 2025})
            for (const int count : {1, 2, 3, 7, 31}) {
                QCOMPARE(ParallelStripes::firstOf(0, count, total), 0);
                QCOMPARE(ParallelStripes::firstOf(count, count, total), total);
                for (int piece = 0; piece < count; ++piece) {
                    const int size = ParallelStripes::firstOf(piece + 1, count, total)
                                     - ParallelStripes::firstOf(piece, count, total);
                    QVERIFY(size == total / count || size == total / count + 1);
                }
            }
    }

    void noPiecesRunForAnEmptyJob()
    {
        ParallelStripes stripes(2);
        std::atomic<int> pieces{0};
        stripes.run(0, [&](int) { pieces.fetch_add(1); });
        QCOMPARE(pieces.load(), 0);
    }

    void manyJobsInARowEachRunWhole()
    {
        // Helpers go to sleep and wake again between jobs; none may miss a job or run a
        // piece of one twice.
        ParallelStripes stripes(2);
        long long total = 0;
        for (int job = 0; job < 2000; ++job) {
            std::atomic<int> sum{0};
            const int count = 1 + job % 4;
            stripes.run(count, [&](int piece) { sum.fetch_add(piece + 1); });
            QCOMPARE(sum.load(), count * (count + 1) / 2);
            total += sum.load();
        }
        QCOMPARE(total, 500LL * (1 + 3 + 6 + 10));
    }

    void piecesWriteWhatTheCallerReadsAfterwards()
    {
        // Plain memory written by the helpers is the caller's to read once run() returns.
        ParallelStripes stripes(3);
        std::vector<int> values(64, 0);
        for (int round = 1; round <= 50; ++round) {
            stripes.run(64, [&](int piece) { values[static_cast<size_t>(piece)] = round * piece; });
            for (int piece = 0; piece < 64; ++piece)
                QCOMPARE(values[static_cast<size_t>(piece)], round * piece);
        }
    }

    void helpersEndWithTheObjectWhetherTheyWorkedOrNot()
    {
        for (int i = 0; i < 50; ++i) {
            ParallelStripes idle(2);
            ParallelStripes used(2);
            std::atomic<int> pieces{0};
            used.run(3, [&](int) { pieces.fetch_add(1); });
            QCOMPARE(pieces.load(), 3);
        }
    }
};

QTEST_GUILESS_MAIN(ParallelStripesTest)
#include "ParallelStripesTest.moc"
