#include "DecoderThreads.h"

#include <QtTest>

using DecoderThreads::Sharing;

namespace {

// The rule written out: alone, every core (at least one); beside others, the cores divided
// among all (at least one each), or one thread each.
int expected(int passesAtOnce, int cores, Sharing sharing)
{
    if (passesAtOnce <= 1)
        return cores >= 1 ? cores : 1;
    if (sharing == Sharing::OneEach)
        return 1;
    const int share = cores / passesAtOnce;
    return share >= 1 ? share : 1;
}

} // namespace

class DecoderThreadsTest : public QObject {
    Q_OBJECT

private slots:
    void aPassAloneDecodesOnEveryCore_data();
    void aPassAloneDecodesOnEveryCore();
    void splitCoresDividesThemAmongThePassesRunning_data();
    void splitCoresDividesThemAmongThePassesRunning();
    void oneEachGivesAPassBesideAnotherOneThread_data();
    void oneEachGivesAPassBesideAnotherOneThread();
    void neverFewerThanOneThread();
    void agreesWithTheRuleOverEveryCaseUpToSixteen();
};

void DecoderThreadsTest::aPassAloneDecodesOnEveryCore_data()
{
    QTest::addColumn<int>("passes");
    QTest::addColumn<int>("cores");
    QTest::addColumn<int>("threads");
    QTest::newRow("one of two cores") << 1 << 2 << 2;
    QTest::newRow("one of eight cores") << 1 << 8 << 8;
    QTest::newRow("one on one core") << 1 << 1 << 1;
    QTest::newRow("none counted yet") << 0 << 4 << 4;
}

void DecoderThreadsTest::aPassAloneDecodesOnEveryCore()
{
    QFETCH(int, passes);
    QFETCH(int, cores);
    QFETCH(int, threads);
    QCOMPARE(DecoderThreads::forPass(passes, cores, Sharing::SplitCores), threads);
    QCOMPARE(DecoderThreads::forPass(passes, cores, Sharing::OneEach), threads);
}

void DecoderThreadsTest::splitCoresDividesThemAmongThePassesRunning_data()
{
    QTest::addColumn<int>("passes");
    QTest::addColumn<int>("cores");
    QTest::addColumn<int>("threads");
    QTest::newRow("two on two cores") << 2 << 2 << 1;
    QTest::newRow("two on eight cores") << 2 << 8 << 4;
    QTest::newRow("three on eight cores, rounded down") << 3 << 8 << 2;
    QTest::newRow("two on six cores") << 2 << 6 << 3;
}

void DecoderThreadsTest::splitCoresDividesThemAmongThePassesRunning()
{
    QFETCH(int, passes);
    QFETCH(int, cores);
    QFETCH(int, threads);
    QCOMPARE(DecoderThreads::forPass(passes, cores, Sharing::SplitCores), threads);
}

void DecoderThreadsTest::oneEachGivesAPassBesideAnotherOneThread_data()
{
    QTest::addColumn<int>("passes");
    QTest::addColumn<int>("cores");
    QTest::newRow("two on two cores") << 2 << 2;
    QTest::newRow("two on eight cores") << 2 << 8;
    QTest::newRow("three on sixteen cores") << 3 << 16;
}

void DecoderThreadsTest::oneEachGivesAPassBesideAnotherOneThread()
{
    QFETCH(int, passes);
    QFETCH(int, cores);
    QCOMPARE(DecoderThreads::forPass(passes, cores, Sharing::OneEach), 1);
}

void DecoderThreadsTest::neverFewerThanOneThread()
{
    QCOMPARE(DecoderThreads::forPass(4, 2, Sharing::SplitCores), 1);
    QCOMPARE(DecoderThreads::forPass(1, 0, Sharing::SplitCores), 1);
    QCOMPARE(DecoderThreads::forPass(1, 0, Sharing::OneEach), 1);
    QCOMPARE(DecoderThreads::forPass(3, 0, Sharing::SplitCores), 1);
}

void DecoderThreadsTest::agreesWithTheRuleOverEveryCaseUpToSixteen()
{
    for (const Sharing sharing : {Sharing::SplitCores, Sharing::OneEach}) {
        for (int passes = 0; passes <= 16; ++passes) {
            for (int cores = 0; cores <= 16; ++cores)
                QCOMPARE(DecoderThreads::forPass(passes, cores, sharing), expected(passes, cores, sharing));
        }
    }
}

QTEST_GUILESS_MAIN(DecoderThreadsTest)
#include "DecoderThreadsTest.moc"
