#include "CellEventTimes.h"

#include <QtTest>

#include <cstdint>
#include <vector>

namespace {

using Seconds = std::vector<std::int64_t>;

std::vector<std::uint8_t> hits(const CellEventTimes& times, const std::vector<int>& cells)
{
    std::vector<std::uint8_t> flags(static_cast<size_t>(times.cells()), 0);
    for (const int cell : cells)
        flags[static_cast<size_t>(cell)] = 1;
    return flags;
}

} // namespace

class CellEventTimesTest : public QObject {
    Q_OBJECT

private slots:
    void theGridCoversThePictureWithNarrowerLastCells()
    {
        const CellEventTimes times(cv::Size(100, 33), 16);
        QCOMPARE(times.columns(), 7);
        QCOMPARE(times.rows(), 3);
        QCOMPARE(times.cells(), 21);
        QCOMPARE(times.cellAt(0, 0), 0);
        QCOMPARE(times.cellAt(15, 15), 0);
        QCOMPARE(times.cellAt(16, 0), 1);
        QCOMPARE(times.cellAt(99, 32), 20);
        QCOMPARE(times.cellAt(0, 16), 7);
    }

    void aDefaultGridIsEmptyAndRecordsNothing()
    {
        CellEventTimes times;
        QVERIFY(times.empty());
        times.record(3, {1, 1});
        QCOMPARE(times.activeSeconds(), size_t{0});
        QVERIFY(times.secondsOf(0).empty());
    }

    void eachCellKeepsItsDistinctSecondsInOrder()
    {
        CellEventTimes times(cv::Size(32, 32), 16);
        times.record(5, hits(times, {0, 3}));
        times.record(5, hits(times, {0}));
        times.record(2, hits(times, {0}));
        times.record(9, hits(times, {3}));
        times.record(7, hits(times, {}));
        QCOMPARE(times.secondsOf(0), (Seconds{2, 5}));
        QVERIFY(times.secondsOf(1).empty());
        QVERIFY(times.secondsOf(2).empty());
        QCOMPARE(times.secondsOf(3), (Seconds{5, 9}));
        // A pair without events leaves no second behind.
        QCOMPARE(times.activeSeconds(), size_t{3});
    }

    void negativeSecondsCountAsTheFirst()
    {
        CellEventTimes times(cv::Size(8, 8), 8);
        times.record(-1, hits(times, {0}));
        QCOMPARE(times.secondsOf(0), (Seconds{0}));
    }

    void cellsOutsideTheGridAreNeitherRecordedNorAnswered()
    {
        CellEventTimes times(cv::Size(16, 16), 16);
        times.record(1, {0, 1, 1});
        QVERIFY(times.secondsOf(0).empty());
        QVERIFY(times.secondsOf(1).empty());
        QVERIFY(times.secondsOf(-1).empty());
    }

    void allSecondsAnswersAsEveryCellDoes()
    {
        // More than 64 cells, so that cells share no word and span several.
        CellEventTimes times(cv::Size(200, 100), 10);
        for (int second = 0; second < 50; ++second) {
            std::vector<int> cells;
            for (int cell = second % 7; cell < times.cells(); cell += 3 + second % 5)
                cells.push_back(cell);
            times.record(second * 37 % 50, hits(times, cells));
        }
        const std::vector<Seconds> all = times.allSeconds();
        QCOMPARE(int(all.size()), times.cells());
        int nonEmpty = 0;
        for (int cell = 0; cell < times.cells(); ++cell) {
            QCOMPARE(all[static_cast<size_t>(cell)], times.secondsOf(cell));
            nonEmpty += all[static_cast<size_t>(cell)].empty() ? 0 : 1;
        }
        QCOMPARE(nonEmpty, times.cells());
    }

    void aBogusJumpInTimeCostsOneSecondsWorth()
    {
        CellEventTimes times(cv::Size(1920, 1080), 16);
        times.record(1, hits(times, {0}));
        times.record(4000000000LL, hits(times, {5}));
        QCOMPARE(times.activeSeconds(), size_t{2});
        QCOMPARE(times.secondsOf(5), (Seconds{4000000000LL}));
    }
};

QTEST_GUILESS_MAIN(CellEventTimesTest)
#include "CellEventTimesTest.moc"
