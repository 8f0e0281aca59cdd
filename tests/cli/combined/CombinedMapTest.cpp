#include "CombinedMap.h"

#include <QThreadPool>
#include <QtTest>

#include <opencv2/core.hpp>

class CombinedMapTest : public QObject {
    Q_OBJECT

private slots:
    void countsAddUpPastSixteenBits()
    {
        CombinedMap map(cv::Size(3, 2));
        const cv::Mat background(2, 3, CV_8UC3, cv::Scalar(9, 9, 9));
        const cv::Mat full(2, 3, CV_16UC1, cv::Scalar(65535));
        QVERIFY(map.add(0, full, background));
        QVERIFY(map.add(1, full, background));
        QVERIFY(map.add(2, cv::Mat(2, 3, CV_32SC1, cv::Scalar(5)), background));
        QCOMPARE(map.sum().type(), CV_32SC1);
        QCOMPARE(map.sum().at<int>(1, 2), 2 * 65535 + 5);
        QCOMPARE(map.inputs(), 3);
    }

    void theEarliestInputsBackgroundIsKeptWhateverTheOrderOfArrival()
    {
        CombinedMap map(cv::Size(2, 2));
        const cv::Mat counts(2, 2, CV_16UC1, cv::Scalar(1));
        QVERIFY(map.add(2, counts, cv::Mat(2, 2, CV_8UC3, cv::Scalar(30, 30, 30))));
        QVERIFY(map.add(1, counts, cv::Mat(2, 2, CV_8UC3, cv::Scalar(20, 20, 20))));
        QVERIFY(map.add(3, counts, cv::Mat(2, 2, CV_8UC3, cv::Scalar(40, 40, 40))));
        QCOMPARE(int(map.background().at<cv::Vec3b>(0, 0)[0]), 20);
    }

    void anotherSizeOrTypeIsRefusedAndAddsNothing()
    {
        CombinedMap map(cv::Size(4, 4));
        const cv::Mat background(4, 4, CV_8UC3, cv::Scalar(0, 0, 0));
        QVERIFY(!map.add(0, cv::Mat(4, 5, CV_16UC1, cv::Scalar(1)), background));
        QVERIFY(!map.add(0, cv::Mat(4, 4, CV_8UC1, cv::Scalar(1)), background));
        QVERIFY(!map.add(0, cv::Mat(4, 4, CV_16UC1, cv::Scalar(1)), cv::Mat(5, 4, CV_8UC3)));
        QCOMPARE(map.inputs(), 0);
        QCOMPARE(cv::countNonZero(map.sum()), 0);
    }

    void aLaterInputNeedsNoBackgroundOnceAnEarlierOneHasGivenOne()
    {
        CombinedMap map(cv::Size(2, 2));
        const cv::Mat counts(2, 2, CV_16UC1, cv::Scalar(1));
        QVERIFY(map.wantsBackground(5));
        QVERIFY(map.add(3, counts, cv::Mat(2, 2, CV_8UC3, cv::Scalar(30, 30, 30))));
        QVERIFY(!map.wantsBackground(5));
        QVERIFY(map.wantsBackground(2));
        QVERIFY(map.add(5, counts, cv::Mat()));
        QCOMPARE(map.sum().at<int>(0, 0), 2);
        QCOMPARE(int(map.background().at<cv::Vec3b>(1, 1)[2]), 30);
        // An input that could still be the earliest must bring its background.
        QVERIFY(!map.add(1, counts, cv::Mat()));
        QCOMPARE(map.inputs(), 2);
    }

    void inputsAddedFromManyThreadsAllCount()
    {
        CombinedMap map(cv::Size(64, 48));
        const cv::Mat counts(48, 64, CV_16UC1, cv::Scalar(3));
        const cv::Mat background(48, 64, CV_8UC3, cv::Scalar(1, 2, 3));
        QThreadPool pool;
        pool.setMaxThreadCount(4);
        for (int i = 0; i < 200; ++i)
            pool.start([&map, &counts, &background, i] { map.add(i, counts, background); });
        pool.waitForDone();
        QCOMPARE(map.inputs(), 200);
        QCOMPARE(map.sum().at<int>(47, 63), 600);
    }
};

QTEST_GUILESS_MAIN(CombinedMapTest)
#include "CombinedMapTest.moc"
