#include "MapScale.h"
#include "MotionMap.h"

#include <QtTest>

#include <opencv2/core.hpp>

#include <numeric>

class MapScaleTest : public QObject {
    Q_OBJECT

private slots:
    void ninetyNinthPercentileOfOneToHundredIsNinetyNine()
    {
        // Counts 1..100 once each, among zeros that must not count.
        cv::Mat counts(20, 10, CV_32SC1, cv::Scalar(0));
        for (int i = 0; i < 100; ++i)
            counts.at<int>(i / 5, (i % 5) * 2) = 100 - i;
        QCOMPARE(MapScale::percentileOfNonZero({counts}, 99.0), 99.0);
        QCOMPARE(MapScale::percentileOfNonZero({counts}, 50.0), 50.0);
        QCOMPARE(MapScale::percentileOfNonZero({counts}, 100.0), 100.0);
        QCOMPARE(MapScale::automatic({counts}), 99.0);
    }

    void aFewRestlessPixelsDoNotSetTheScale()
    {
        // 990 pixels with 3 events, 10 with 5000: the top stays at 3.
        cv::Mat counts(1, 1000, CV_16UC1, cv::Scalar(3));
        counts(cv::Rect(0, 0, 10, 1)).setTo(cv::Scalar(5000));
        QCOMPARE(MapScale::automatic({counts}), 3.0);
        counts(cv::Rect(0, 0, 11, 1)).setTo(cv::Scalar(5000));
        QCOMPARE(MapScale::automatic({counts}), 5000.0);
    }

    void planesAreTakenTogether()
    {
        const cv::Mat low(10, 10, CV_32SC1, cv::Scalar(2));
        const cv::Mat high(10, 10, CV_16UC1, cv::Scalar(7));
        QCOMPARE(MapScale::automatic({low}), 2.0);
        QCOMPARE(MapScale::automatic({low, high}), 7.0);
        QCOMPARE(MapScale::percentileOfNonZero({low, high}, 50.0), 2.0);
    }

    void noEventAtAllKeepsTheWindowsScale()
    {
        const cv::Mat none(8, 8, CV_32SC1, cv::Scalar(0));
        QCOMPARE(MapScale::percentileOfNonZero({none}, 99.0), 0.0);
        QCOMPARE(MapScale::automatic({none}), MotionMap::kDefaultScale);
        QCOMPARE(MapScale::automatic({}), MotionMap::kDefaultScale);
    }

    // The histogram must choose what sorting every value would, whatever the spread.
    void histogramOfPlanesAddedOneByOneAgreesWithSortingThemAll()
    {
        cv::RNG random(7);
        std::vector<cv::Mat> planes;
        MapScale::Histogram histogram;
        for (int i = 0; i < 5; ++i) {
            cv::Mat plane(40, 30, i % 2 ? CV_16UC1 : CV_32SC1);
            random.fill(plane, cv::RNG::UNIFORM, 0, 20 + i * 300);
            planes.push_back(plane);
            histogram.add(plane);
        }
        for (double percent : {1.0, 33.3, 50.0, 90.0, 99.0, 100.0})
            QCOMPARE(histogram.percentile(percent), MapScale::percentileOfNonZero(planes, percent));
        QCOMPARE(histogram.automatic(), MapScale::automatic(planes));
    }

    void emptyHistogramKeepsTheWindowsScale()
    {
        MapScale::Histogram histogram;
        histogram.add(cv::Mat(4, 4, CV_16UC1, cv::Scalar(0)));
        histogram.add(cv::Mat(4, 4, CV_8UC1, cv::Scalar(9))); // not a count plane
        QCOMPARE(histogram.percentile(99.0), 0.0);
        QCOMPARE(histogram.automatic(), MotionMap::kDefaultScale);
    }
};

QTEST_GUILESS_MAIN(MapScaleTest)
#include "MapScaleTest.moc"
