#include "AtomicCounter.h"

#include <QElapsedTimer>
#include <QThread>
#include <QtTest>

#include <thread>
#include <vector>

class AtomicCounterTest : public QObject {
    Q_OBJECT

private:
    static void addEvents(AtomicCounter& counter, int n)
    {
        for (int i = 0; i < n; ++i)
            counter.increment();
    }

private slots:
    void fiftyEventsOverOneSecondGiveFifty()
    {
        AtomicCounter counter;
        const QTime start(10, 0, 0);
        counter.m_time = start;
        addEvents(counter, 50);
        QCOMPARE(counter.getCountPerSecondAt(start.addMSecs(1000)), 50.0f);
    }

    void fiftyEventsOverTwoSecondsGiveTwentyFive()
    {
        AtomicCounter counter;
        const QTime start(10, 0, 0);
        counter.m_time = start;
        addEvents(counter, 50);
        QCOMPARE(counter.getCountPerSecondAt(start.addMSecs(2000)), 25.0f);
    }

    void rateIsComputedInSinglePrecision()
    {
        AtomicCounter counter;
        const QTime start(10, 0, 0);
        counter.m_time = start;
        addEvents(counter, 7);
        const float expected = static_cast<float>(7) / static_cast<float>(3) * 1000.0f;
        QCOMPARE(counter.getCountPerSecondAt(start.addMSecs(3)), expected);
    }

    void queryResetsCountAndRestartsInterval()
    {
        AtomicCounter counter;
        const QTime start(10, 0, 0);
        counter.m_time = start;
        addEvents(counter, 10);
        const QTime first = start.addMSecs(500);
        QCOMPARE(counter.getCountPerSecondAt(first), 20.0f);
        QCOMPARE(counter.m_count.load(), 0);
        QCOMPARE(counter.m_time, first);
        addEvents(counter, 4);
        QCOMPARE(counter.getCountPerSecondAt(first.addMSecs(1000)), 4.0f);
    }

    void twoQueriesInTheSameMillisecondReturnZeroAndDropTheEvents()
    {
        AtomicCounter counter;
        const QTime start(10, 0, 0);
        counter.m_time = start;
        const QTime now = start.addMSecs(1000);
        QCOMPARE(counter.getCountPerSecondAt(now), 0.0f);
        addEvents(counter, 3);
        QCOMPARE(counter.getCountPerSecondAt(now), 0.0f);
        QCOMPARE(counter.m_count.load(), 0);
        // The three events are gone: the next interval starts empty.
        QCOMPARE(counter.getCountPerSecondAt(now.addMSecs(1000)), 0.0f);
    }

    void rateIsZeroWithoutEvents()
    {
        AtomicCounter counter;
        const QTime start(10, 0, 0);
        counter.m_time = start;
        QCOMPARE(counter.getCountPerSecondAt(start.addMSecs(1000)), 0.0f);
    }

    void intervalAcrossMidnightCountsForward()
    {
        AtomicCounter counter;
        counter.m_time = QTime(23, 59, 59, 500);
        addEvents(counter, 30);
        QCOMPARE(counter.getCountPerSecondAt(QTime(0, 0, 0, 500)), 30.0f);
    }

    void firstQueryCoversTimeSinceConstruction()
    {
        const QTime before = QTime::currentTime();
        AtomicCounter counter;
        const QTime after = QTime::currentTime();
        QVERIFY(counter.m_time >= before && counter.m_time <= after);
        QCOMPARE(counter.m_count.load(), 0);
        addEvents(counter, 100);
        // The interval runs from construction, so it is between 1000 ms and 1000 ms plus
        // the time the construction took.
        // The bound is rounded as the rate is (count / ms * 1000 in single precision), so a
        // construction that took a millisecond does not fail on the last bit.
        const float rate = counter.getCountPerSecondAt(after.addMSecs(1000));
        const int constructionMs = before.msecsTo(after);
        const float slowest = 100.0f / static_cast<float>(1000 + constructionMs) * 1000.0f;
        QVERIFY2(rate <= 100.0f && rate >= slowest,
                 qPrintable(QString::number(static_cast<double>(rate))));
    }

    void realClockMeasuresTheElapsedInterval()
    {
        AtomicCounter counter;
        counter.getCountPerSecond();
        QElapsedTimer elapsed;
        elapsed.start();
        addEvents(counter, 100);
        QThread::msleep(200);
        const float rate = counter.getCountPerSecond();
        const qint64 upperMs = elapsed.elapsed() + 2;
        // At least 200 ms passed (rate at most 500), and not much more than measured.
        const float slowest = 100.0f / static_cast<float>(upperMs) * 1000.0f;
        QVERIFY2(rate <= 500.0f && rate >= slowest,
                 qPrintable(QString::number(static_cast<double>(rate))));
    }

    void incrementsFromManyThreadsAreAllCounted()
    {
        AtomicCounter counter;
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&counter] { addEvents(counter, 25000); });
        for (std::thread& thread : threads)
            thread.join();
        QCOMPARE(counter.m_count.load(), 100000);
    }
};

QTEST_GUILESS_MAIN(AtomicCounterTest)
#include "AtomicCounterTest.moc"
