#include "LargePages.h"
#include "MotionMap.h"
#include "ReferenceMotion.h"

#include <QtTest>

#include <cstdint>
#include <random>

namespace {

// A one-pixel map for `count` events over a background pixel of R,G,B.
QRgb pixelFor(int count, int r, int g, int b)
{
    const cv::Mat counts(1, 1, CV_8UC1, cv::Scalar(count));
    const cv::Mat background(1, 1, CV_8UC3, cv::Scalar(r, g, b));
    const QImage map = MotionMap::render(counts, background);
    return map.isNull() ? qRgba(0, 0, 0, 0) : map.pixel(0, 0);
}

cv::Mat randomMatrix(int rows, int cols, int type, std::mt19937& random)
{
    cv::Mat m(rows, cols, type);
    for (int y = 0; y < rows; ++y) {
        uchar* row = m.ptr<uchar>(y);
        for (size_t x = 0; x < static_cast<size_t>(cols) * m.elemSize(); ++x)
            row[x] = static_cast<uchar>(random() % 256);
    }
    return m;
}

// Counts 0..11: below, at and above the nine events that reach the top of the scale.
cv::Mat randomCounts(int rows, int cols, std::mt19937& random)
{
    cv::Mat m(rows, cols, CV_8UC1);
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x)
            m.at<uchar>(y, x) = static_cast<uchar>(random() % 12);
    return m;
}

} // namespace

class MotionMapTest : public QObject {
    Q_OBJECT

private slots:
    void colourTablesHaveTheScaleBreakpoints()
    {
        QCOMPARE(int(ColorMap_B[0]), 127);
        QCOMPARE(int(ColorMap_B[30]), 247);
        QCOMPARE(int(ColorMap_B[31]), 251);
        QCOMPARE(int(ColorMap_G[31]), 0);
        QCOMPARE(int(ColorMap_B[32]), 255);
        QCOMPARE(int(ColorMap_G[32]), 0);
        QCOMPARE(int(ColorMap_G[95]), 252);
        QCOMPARE(int(ColorMap_R[95]), 0);
        QCOMPARE(int(ColorMap_R[96]), 1);
        QCOMPARE(int(ColorMap_G[96]), 255);
        QCOMPARE(int(ColorMap_B[96]), 253);
        QCOMPARE(int(ColorMap_R[97]), 5);
        QCOMPARE(int(ColorMap_B[97]), 249);
        QCOMPARE(int(ColorMap_R[159]), 253);
        QCOMPARE(int(ColorMap_B[159]), 1);
        QCOMPARE(int(ColorMap_R[160]), 255);
        QCOMPARE(int(ColorMap_G[160]), 252);
        QCOMPARE(int(ColorMap_B[160]), 0);
        QCOMPARE(int(ColorMap_G[223]), 0);
        QCOMPARE(int(ColorMap_R[224]), 251);
        QCOMPARE(int(ColorMap_R[255]), 127);
        QCOMPARE(int(ColorMap_G[255]), 0);
        QCOMPARE(int(ColorMap_B[255]), 0);
    }

    void colourTablesFollowTheScaleEverywhere()
    {
        for (int i = 0; i < 256; ++i) {
            const Reference::Rgb expected = Reference::scale(i);
            QCOMPARE(int(ColorMap_R[size_t(i)]), expected.r);
            QCOMPARE(int(ColorMap_G[size_t(i)]), expected.g);
            QCOMPARE(int(ColorMap_B[size_t(i)]), expected.b);
        }
    }

    void intensityIsThirtyPerEventUpTo255()
    {
        QCOMPARE(MotionMap::intensity(0), 0);
        QCOMPARE(MotionMap::intensity(1), 30);
        QCOMPARE(MotionMap::intensity(8), 240);
        QCOMPARE(MotionMap::intensity(9), 255);
        QCOMPARE(MotionMap::intensity(255), 255);
    }

    void pixelWithoutEventsIsHalfTheBackgroundBrightness()
    {
        // (100 + 50 + 31) / 6 = 30 in integer division.
        QCOMPARE(pixelFor(0, 100, 50, 31), qRgb(30, 30, 30));
        QCOMPARE(pixelFor(0, 255, 255, 255), qRgb(127, 127, 127));
        QCOMPARE(pixelFor(0, 5, 0, 0), qRgb(0, 0, 0));
    }

    void oneEventIsIndexThirtyOverTheGrey()
    {
        QCOMPARE(pixelFor(1, 0, 0, 0), qRgb(0, 0, 247));
        // grey (12 + 12 + 12) / 6 = 6 is added to every channel.
        QCOMPARE(pixelFor(1, 12, 12, 12), qRgb(6, 6, 253));
    }

    void nineOrMoreEventsAreTheDarkRedTop()
    {
        QCOMPARE(pixelFor(9, 0, 0, 0), qRgb(127, 0, 0));
        QCOMPARE(pixelFor(200, 0, 0, 0), qRgb(127, 0, 0));
        QCOMPARE(pixelFor(9, 60, 60, 60), qRgb(157, 30, 30));
    }

    void middleCountsPickTheirIndex()
    {
        // 4 events: index 120 -> (4*24+1, 255, 253-96); 6 events: index 180 -> (255, 172, 0).
        QCOMPARE(pixelFor(4, 0, 0, 0), qRgb(97, 255, 157));
        QCOMPARE(pixelFor(6, 0, 0, 0), qRgb(255, 172, 0));
    }

    void colourChannelsAreClampedAt255()
    {
        // grey 127: blue 247 + 127 and green 255 + 127 would overflow a byte.
        QCOMPARE(pixelFor(1, 255, 255, 255), qRgb(127, 127, 255));
        QCOMPARE(pixelFor(4, 255, 255, 255), qRgb(224, 255, 255));
    }

    void wrappedCountOfZeroShowsGrey()
    {
        QCOMPARE(pixelFor(0, 90, 90, 90), qRgb(45, 45, 45));
        QCOMPARE(pixelFor(1, 90, 90, 90), qRgb(45, 45, 255));
    }

    void mapHasTheBackgroundsSizeAndFormat()
    {
        const cv::Mat counts(17, 33, CV_8UC1, cv::Scalar(0));
        const cv::Mat background(17, 33, CV_8UC3, cv::Scalar(0, 0, 0));
        const QImage map = MotionMap::render(counts, background);
        QCOMPARE(map.size(), QSize(33, 17));
        QCOMPARE(map.format(), QImage::Format_RGB888);
    }

    void missingOrMismatchedMatricesRenderNothing()
    {
        const cv::Mat counts(4, 4, CV_8UC1, cv::Scalar(1));
        const cv::Mat background(4, 4, CV_8UC3, cv::Scalar(0, 0, 0));
        QVERIFY(MotionMap::render(cv::Mat(), background).isNull());
        QVERIFY(MotionMap::render(counts, cv::Mat()).isNull());
        QVERIFY(MotionMap::render(counts, cv::Mat(4, 5, CV_8UC3, cv::Scalar(0, 0, 0))).isNull());
        QVERIFY(MotionMap::render(counts, cv::Mat(4, 4, CV_8UC1, cv::Scalar(0))).isNull());
        QVERIFY(!MotionMap::render(counts, background).isNull());
    }

    void mapRecords96DpiWhateverTheScreen()
    {
        const cv::Mat counts(4, 4, CV_8UC1, cv::Scalar(1));
        const cv::Mat background(4, 4, CV_8UC3, cv::Scalar(0, 0, 0));
        const QImage map = MotionMap::render(counts, background);
        QCOMPARE(map.dotsPerMeterX(), 3780);
        QCOMPARE(map.dotsPerMeterY(), 3780);
    }

    void renderMatchesReferenceOnRandomInput()
    {
        std::mt19937 random(7);
        for (const QSize size : {QSize(33, 17), QSize(1, 9), QSize(9, 1), QSize(64, 48)}) {
            const cv::Mat counts = randomCounts(size.height(), size.width(), random);
            const cv::Mat background = randomMatrix(size.height(), size.width(), CV_8UC3, random);
            QCOMPARE(MotionMap::render(counts, background), Reference::renderMap(counts, background));
        }
    }

    void largeMapRenderedOnSeveralThreadsIntoLargePagesMatchesReference()
    {
        // Above the size from which rows are shared out, with rows that do not split evenly.
        std::mt19937 random(13);
        const cv::Mat counts = randomCounts(401, 700, random);
        const cv::Mat background = randomMatrix(401, 700, CV_8UC3, random);
        const QImage map = MotionMap::render(counts, background);
        QCOMPARE(map, Reference::renderMap(counts, background));
        // Its pixels lie in large pages.
        QCOMPARE(reinterpret_cast<std::uintptr_t>(map.constBits()) % LargePages::kLargePage, std::uintptr_t{0});
        cv::Mat sixteen;
        counts.convertTo(sixteen, CV_16UC1);
        QCOMPARE(MotionMap::render(sixteen, background, MotionMap::kDefaultScale), map);
    }

    void defaultScaleGivesTheWindowsIntensityForEveryCount()
    {
        for (int count = 0; count < 300; ++count)
            QCOMPARE(MotionMap::intensity(std::int64_t(count), MotionMap::kDefaultScale), MotionMap::intensity(count));
    }

    void scaleTopIsReachedAtItsNumberOfEvents()
    {
        QCOMPARE(MotionMap::intensity(std::int64_t(100), 100.0), 255);
        QCOMPARE(MotionMap::intensity(std::int64_t(99), 100.0), 252);  // 99 x 2.55 = 252.45
        QCOMPARE(MotionMap::intensity(std::int64_t(50), 100.0), 127);
        QCOMPARE(MotionMap::intensity(std::int64_t(1), 100.0), 2);
        QCOMPARE(MotionMap::intensity(std::int64_t(70000), 100.0), 255);
        QCOMPARE(MotionMap::intensity(std::int64_t(1), 0.5), 255);
    }

    void exactCountsOnTheDefaultScaleRenderAsTheWrappingCount()
    {
        std::mt19937 random(5);
        const cv::Mat counts = randomCounts(23, 31, random);
        const cv::Mat background = randomMatrix(23, 31, CV_8UC3, random);
        cv::Mat sixteen, thirtyTwo;
        counts.convertTo(sixteen, CV_16UC1);
        counts.convertTo(thirtyTwo, CV_32SC1);
        const QImage window = MotionMap::render(counts, background);
        QCOMPARE(MotionMap::render(sixteen, background, MotionMap::kDefaultScale), window);
        QCOMPARE(MotionMap::render(thirtyTwo, background, MotionMap::kDefaultScale), window);
        QCOMPARE(MotionMap::render(thirtyTwo, background, MotionMap::kDefaultScale).dotsPerMeterX(), 3780);
    }

    void exactCountsPastTheWrapStayAtTheTop()
    {
        const cv::Mat background(1, 2, CV_8UC3, cv::Scalar(0, 0, 0));
        cv::Mat counts(1, 2, CV_32SC1);
        counts.at<int>(0, 0) = 256;
        counts.at<int>(0, 1) = 100000;
        const QImage map = MotionMap::render(counts, background, MotionMap::kDefaultScale);
        QCOMPARE(map.pixel(0, 0), qRgb(127, 0, 0));
        QCOMPARE(map.pixel(1, 0), qRgb(127, 0, 0));
    }

    void aLargerScaleMovesTheSameCountTowardsBlue()
    {
        const cv::Mat background(1, 1, CV_8UC3, cv::Scalar(0, 0, 0));
        const cv::Mat counts(1, 1, CV_32SC1, cv::Scalar(4));
        // 4 events: index 120 on the default scale; with 255 events at the top, index 4.
        QCOMPARE(MotionMap::render(counts, background, 8.5).pixel(0, 0), qRgb(97, 255, 157));
        QCOMPARE(MotionMap::render(counts, background, 255.0).pixel(0, 0),
                 qRgb(ColorMap_R[4], ColorMap_G[4], ColorMap_B[4]));
    }

    void exactRenderRefusesBadScalesAndTypes()
    {
        const cv::Mat background(2, 2, CV_8UC3, cv::Scalar(0, 0, 0));
        const cv::Mat counts(2, 2, CV_32SC1, cv::Scalar(1));
        QVERIFY(MotionMap::render(counts, background, 0.0).isNull());
        QVERIFY(MotionMap::render(counts, background, -3.0).isNull());
        QVERIFY(MotionMap::render(cv::Mat(2, 2, CV_32FC1, cv::Scalar(1)), background, 8.5).isNull());
        QVERIFY(MotionMap::render(cv::Mat(2, 3, CV_32SC1, cv::Scalar(1)), background, 8.5).isNull());
        QVERIFY(!MotionMap::render(counts, background, 8.5).isNull());
    }

    void renderIntoALargerPictureDrawsTheMapInItsCornerAndLeavesTheRest()
    {
        std::mt19937 random(17);
        const cv::Mat counts = randomCounts(401, 700, random);
        cv::Mat exact;
        counts.convertTo(exact, CV_32SC1);
        const cv::Mat background = randomMatrix(401, 700, CV_8UC3, random);
        QImage picture(701, 450, QImage::Format_RGB888);
        picture.fill(QColor(250, 250, 250));
        const QImage before = picture.copy();
        QVERIFY(MotionMap::renderInto(picture, exact, background, 3.0));
        QCOMPARE(picture.copy(0, 0, 700, 401), MotionMap::render(exact, background, 3.0));
        QCOMPARE(picture.copy(700, 0, 1, 450), before.copy(700, 0, 1, 450));
        QCOMPARE(picture.copy(0, 401, 701, 49), before.copy(0, 401, 701, 49));
    }

    void renderIntoRefusesAPictureItDoesNotFitAndLeavesIt()
    {
        const cv::Mat background(4, 6, CV_8UC3, cv::Scalar(1, 2, 3));
        const cv::Mat counts(4, 6, CV_32SC1, cv::Scalar(2));
        for (const QImage& refused : {QImage(5, 4, QImage::Format_RGB888), QImage(6, 3, QImage::Format_RGB888),
                                      QImage(6, 4, QImage::Format_RGB32)}) {
            QImage picture = refused;
            picture.fill(Qt::white);
            const QImage before = picture.copy();
            QVERIFY(!MotionMap::renderInto(picture, counts, background, 8.5));
            QCOMPARE(picture, before);
        }
        QImage fits(6, 4, QImage::Format_RGB888);
        QVERIFY(!MotionMap::renderInto(fits, counts, background, 0.0));
        QVERIFY(MotionMap::renderInto(fits, counts, background, 8.5));
    }

    void renderReadsPaddedRows()
    {
        std::mt19937 random(11);
        const cv::Mat countsWide = randomCounts(20, 40, random);
        const cv::Mat backgroundWide = randomMatrix(20, 40, CV_8UC3, random);
        const cv::Rect part(3, 2, 33, 17);
        QCOMPARE(MotionMap::render(countsWide(part), backgroundWide(part)),
                 Reference::renderMap(countsWide(part).clone(), backgroundWide(part).clone()));
    }
};

QTEST_GUILESS_MAIN(MotionMapTest)
#include "MotionMapTest.moc"
