#include "ReportData.h"

#include <QtTest>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdint>
#include <random>
#include <vector>

using Seconds = std::vector<std::int64_t>;

class ReportDataTest : public QObject {
    Q_OBJECT

private slots:
    void runsOfSecondsAreWrittenAsGapsAndLengths_data()
    {
        QTest::addColumn<Seconds>("seconds");
        QTest::addColumn<QString>("text");
        QTest::newRow("none") << Seconds{} << QString();
        QTest::newRow("second 0") << Seconds{0} << QStringLiteral("0");
        QTest::newRow("example") << Seconds{2, 3, 4, 90, 200, 201} << QStringLiteral("2+2,86,110+1");
        QTest::newRow("a long run") << Seconds{100, 101, 102, 103, 104, 105} << QStringLiteral("100+5");
        QTest::newRow("every other, as bits") << Seconds{1, 3, 5} << QStringLiteral("~q");
        QTest::newRow("busy, as bits") << Seconds{0, 1, 2, 4, 6, 8} << QStringLiteral("~XF");
        QTest::newRow("busy, late") << Seconds{13, 15, 17, 19} << QStringLiteral("~AAqC");
        QTest::newRow("every second of an hour") << [] {
            Seconds all;
            for (std::int64_t s = 0; s < 3600; ++s)
                all.push_back(s);
            return all;
        }() << QStringLiteral("0+3599");
    }

    void runsOfSecondsAreWrittenAsGapsAndLengths()
    {
        QFETCH(Seconds, seconds);
        QFETCH(QString, text);
        QCOMPARE(ReportData::encodeSeconds(seconds), text);
        Seconds decoded{99};
        QVERIFY(ReportData::decodeSeconds(text, &decoded));
        QCOMPARE(decoded, seconds);
    }

    void aCellOfAnHourNeverTakesMoreThan601Characters()
    {
        std::mt19937 random(11);
        for (const int share : {2, 3, 5, 10}) {
            Seconds seconds;
            for (std::int64_t s = 0; s < 3600; ++s) {
                if (random() % share == 0)
                    seconds.push_back(s);
            }
            const QString text = ReportData::encodeSeconds(seconds);
            QVERIFY2(text.size() <= 601, qPrintable(QString::number(text.size())));
            Seconds decoded;
            QVERIFY(ReportData::decodeSeconds(text, &decoded));
            QCOMPARE(decoded, seconds);
        }
    }

    void anySortedSecondsComeBackAsTheyWere()
    {
        std::mt19937 random(5);
        int bits = 0;
        for (int round = 0; round < 200; ++round) {
            Seconds seconds;
            std::int64_t at = random() % 3;
            for (int i = 0, n = static_cast<int>(random() % 60); i < n; ++i) {
                seconds.push_back(at);
                at += 1 + (random() % 4 == 0 ? random() % 5000 : random() % 2);
            }
            const QString text = ReportData::encodeSeconds(seconds);
            bits += text.startsWith(QLatin1Char('~')) ? 1 : 0;
            Seconds decoded;
            QVERIFY(ReportData::decodeSeconds(text, &decoded));
            QCOMPARE(decoded, seconds);
        }
        // Both forms were chosen.
        QVERIFY(bits > 0 && bits < 200);
    }

    void malformedTextIsRefused_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("letters") << QStringLiteral("a");
        QTest::newRow("two pluses") << QStringLiteral("1+2+3");
        QTest::newRow("no gap") << QStringLiteral("3,0");
        QTest::newRow("negative run") << QStringLiteral("3+-1");
        QTest::newRow("empty run") << QStringLiteral("3,,4");
        QTest::newRow("bits outside the alphabet") << QStringLiteral("~AB*");
    }

    void malformedTextIsRefused()
    {
        QFETCH(QString, text);
        Seconds seconds;
        QVERIFY(!ReportData::decodeSeconds(text, &seconds));
    }

    void pairsAreSummedIntoTheSecondsOfTheirTimes()
    {
        ReportData::ActivityBySecond activity;
        activity.add({0, 0.04, 10, 3});
        activity.add({1, 0.96, 30, 1});
        activity.add({2, 1.00, 5, 0});
        activity.add({3, 3.50, 7, 7});
        const auto& seconds = activity.seconds();
        QCOMPARE(int(seconds.size()), 3);
        QCOMPARE(seconds[0].second, std::int64_t{0});
        QCOMPARE(seconds[0].movingPixels, std::int64_t{30});
        QCOMPARE(seconds[0].newEvents, std::int64_t{4});
        QCOMPARE(seconds[1].second, std::int64_t{1});
        QCOMPARE(seconds[1].newEvents, std::int64_t{0});
        QCOMPARE(seconds[2].second, std::int64_t{3});
        QCOMPARE(seconds[2].movingPixels, std::int64_t{7});
    }

    void theCellsFileHandsTheGridAndEachCellsTimesToThePage()
    {
        CellEventTimes times(cv::Size(40, 20), 16);
        std::vector<std::uint8_t> hits(static_cast<size_t>(times.cells()), 0);
        hits[1] = 1;
        times.record(40, hits);
        times.record(41, hits);
        hits[1] = 0;
        hits[5] = 1;
        times.record(9, hits);
        const QByteArray script = ReportData::script(QStringLiteral("7.cells"), ReportData::cellsJson(times, 40, 20));
        const QByteArray prefix = "Tremora.data(\"7.cells\", ";
        QVERIFY(script.startsWith(prefix));
        QVERIFY(script.endsWith(");\n"));
        const QByteArray json = script.mid(prefix.size(), script.size() - prefix.size() - 3);
        QJsonParseError error;
        const QJsonObject object = QJsonDocument::fromJson(json, &error).object();
        QCOMPARE(error.error, QJsonParseError::NoError);
        QCOMPARE(object.value("cell").toInt(), 16);
        QCOMPARE(object.value("columns").toInt(), 3);
        QCOMPARE(object.value("rows").toInt(), 2);
        QCOMPARE(object.value("width").toInt(), 40);
        QCOMPARE(object.value("height").toInt(), 20);
        const QJsonObject cells = object.value("times").toObject();
        QCOMPARE(cells.keys(), (QStringList{"1", "5"}));
        QCOMPARE(cells.value("1").toString(), QStringLiteral("40+1"));
        QCOMPARE(cells.value("5").toString(), QStringLiteral("9"));
    }

    void sceneChangesAreCountedInTheSecondsOfTheirPairs()
    {
        ReportData::ActivityBySecond activity;
        activity.add({0, 0.04, 10, 3, false});
        activity.add({1, 1.20, 900, 0, true});
        activity.add({2, 1.60, 950, 0, true});
        activity.add({3, 1.80, 4, 1, false});
        activity.add({4, 2.10, 0, 0, false});
        activity.add({5, 3.00, 800, 0, true});
        const auto& seconds = activity.seconds();
        QCOMPARE(int(seconds.size()), 4);
        QCOMPARE(seconds[0].sceneChanges, std::int64_t{0});
        QCOMPARE(seconds[1].sceneChanges, std::int64_t{2});
        QCOMPARE(seconds[1].newEvents, std::int64_t{1});
        QCOMPARE(seconds[2].sceneChanges, std::int64_t{0});
        QCOMPARE(seconds[3].sceneChanges, std::int64_t{1});
        QCOMPARE(activity.sceneChanges(), std::int64_t{3});
    }

    void inSteadyLightEachSecondEndsWithItsSceneChanges()
    {
        const QByteArray json = ReportData::activityJson({{0, 12, 3, 0}, {4, 900, 0, 2}}, true);
        QCOMPARE(json, QByteArray("{\"seconds\":[[0,12,3,0],[4,900,0,2]]}"));
    }

    void withoutSteadyLightTheSecondsHaveNoSceneChangeValue()
    {
        // A run without the option writes the file it always wrote, whatever the seconds hold.
        const QByteArray json = ReportData::activityJson({{0, 12, 3, 0}, {4, 900, 0, 2}}, false);
        QCOMPARE(json, QByteArray("{\"seconds\":[[0,12,3],[4,900,0]]}"));
    }

    void theActivityFileListsEverySecond()
    {
        const QByteArray json = ReportData::activityJson({{0, 12, 3}, {2, 0, 0}}, false);
        const QJsonArray seconds = QJsonDocument::fromJson(json).object().value("seconds").toArray();
        QCOMPARE(seconds.size(), 2);
        QCOMPARE(seconds[0].toArray(), (QJsonArray{0, 12, 3}));
        QCOMPARE(seconds[1].toArray(), (QJsonArray{2, 0, 0}));
    }
};

QTEST_GUILESS_MAIN(ReportDataTest)
#include "ReportDataTest.moc"
