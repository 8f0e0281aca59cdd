#include "ZoneSpans.h"

#include <QtTest>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

// Zones as runs of pixels: each zone's pixels are those cv::fillPoly fills inside the
// picture and outside the ignored part, whatever other zones overlap it.
namespace {

const cv::Size kSize(40, 30);

// A zone's pixels by the plain rule: filled, inside the picture, analysed.
cv::Mat referencePlane(const std::vector<cv::Point>& polygon, const cv::Mat& analysed)
{
    cv::Mat plane(kSize, CV_8UC1, cv::Scalar(0));
    cv::fillPoly(plane, std::vector<std::vector<cv::Point>>{polygon}, cv::Scalar(255), cv::LINE_8, 0);
    if (!analysed.empty())
        plane.setTo(cv::Scalar(0), analysed == 0);
    return plane;
}

bool equal(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::countNonZero(a != b) == 0;
}

const std::vector<std::vector<cv::Point>> kOverlapping{
    {{2, 2}, {25, 2}, {25, 20}, {2, 20}},        // a rectangle
    {{15, 10}, {38, 5}, {30, 28}},               // a triangle over its lower right corner
    {{-10, -10}, {8, -10}, {8, 8}, {-10, 8}},    // mostly outside the picture, over the first
    {{20, 14}, {22, 14}, {22, 16}, {20, 16}},    // inside both of the first two
};

} // namespace

class ZoneSpansTest : public QObject {
    Q_OBJECT

private slots:
    void overlappingZonesEachKeepTheirOwnPixels()
    {
        const ZoneSpans spans(kSize, kOverlapping, {});
        QCOMPARE(spans.zones(), 4);
        for (int zone = 0; zone < 4; ++zone) {
            const cv::Mat expected = referencePlane(kOverlapping[static_cast<size_t>(zone)], {});
            QVERIFY2(equal(spans.planeOf(zone), expected), qPrintable(QString::number(zone)));
            QCOMPARE(spans.areas()[static_cast<size_t>(zone)], static_cast<std::int64_t>(cv::countNonZero(expected)));
        }
    }

    void aZonePartlyOutsideThePictureIsCutOff()
    {
        const ZoneSpans spans(kSize, {kOverlapping[2]}, {});
        // Columns and rows 0 to 8 inside the picture.
        QCOMPARE(spans.areas()[0], std::int64_t(9 * 9));
    }

    void ignoredPixelsAreInNoZone()
    {
        cv::Mat analysed(kSize, CV_8UC1, cv::Scalar(255));
        analysed(cv::Rect(0, 0, 20, 30)).setTo(cv::Scalar(0));
        const ZoneSpans spans(kSize, kOverlapping, analysed);
        for (int zone = 0; zone < 4; ++zone)
            QVERIFY(equal(spans.planeOf(zone), referencePlane(kOverlapping[static_cast<size_t>(zone)], analysed)));
        QCOMPARE(spans.areas()[2], std::int64_t(0));
    }

    void aRowTallyCountsMovedPixelsAndNewEventsPerZone()
    {
        const ZoneSpans spans(kSize, kOverlapping, {});
        const std::uint8_t gap = 50;
        // Row 15: quiet 0 after the pair means the pixel moved; a new event where it had
        // been quiet for the whole gap before.
        std::vector<std::uint8_t> before(static_cast<size_t>(kSize.width), 3);
        std::vector<std::uint8_t> after(static_cast<size_t>(kSize.width), 4);
        for (int x = 0; x < kSize.width; x += 3)
            after[static_cast<size_t>(x)] = 0;
        for (int x = 1; x < kSize.width; x += 2)
            before[static_cast<size_t>(x)] = gap;
        std::vector<ZoneSpans::Tally> tallies(4);
        spans.tallyRow(15, before.data(), after.data(), gap, tallies.data());
        for (int zone = 0; zone < 4; ++zone) {
            const cv::Mat plane = referencePlane(kOverlapping[static_cast<size_t>(zone)], {});
            std::int64_t moving = 0;
            std::int64_t newEvents = 0;
            for (int x = 0; x < kSize.width; ++x) {
                if (plane.at<std::uint8_t>(15, x) == 0 || after[static_cast<size_t>(x)] != 0)
                    continue;
                ++moving;
                newEvents += before[static_cast<size_t>(x)] == gap ? 1 : 0;
            }
            QCOMPARE(tallies[static_cast<size_t>(zone)].movingPixels, moving);
            QCOMPARE(tallies[static_cast<size_t>(zone)].newEvents, newEvents);
        }
        QVERIFY(tallies[0].movingPixels > 0 && tallies[1].movingPixels > 0 && tallies[3].newEvents > 0);
    }

    void totalsSumTheEventsOverEachZone()
    {
        cv::Mat events(kSize, CV_16UC1);
        cv::randu(events, cv::Scalar(0), cv::Scalar(4));
        const ZoneSpans spans(kSize, kOverlapping, {});
        const std::vector<ZoneSpans::Totals> totals = spans.totalsOf(events);
        for (int zone = 0; zone < 4; ++zone) {
            const cv::Mat plane = referencePlane(kOverlapping[static_cast<size_t>(zone)], {});
            cv::Mat inside(kSize, CV_16UC1, cv::Scalar(0));
            events.copyTo(inside, plane);
            QCOMPARE(totals[static_cast<size_t>(zone)].events, static_cast<std::int64_t>(cv::sum(inside)[0]));
            QCOMPARE(totals[static_cast<size_t>(zone)].pixelsWithEvents,
                     static_cast<std::int64_t>(cv::countNonZero(inside)));
        }
    }
};

QTEST_GUILESS_MAIN(ZoneSpansTest)
#include "ZoneSpansTest.moc"
