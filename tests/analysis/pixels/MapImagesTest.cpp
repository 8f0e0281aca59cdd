#include "MapImages.h"

#include <QImage>
#include <QtTest>

#include <opencv2/core.hpp>

// Matrices to images and back, byte for byte.
class MapImagesTest : public QObject {
    Q_OBJECT

private slots:
    void countsImageHoldsTheCountsAndBackgroundImageTheColours();
    void emptyMatricesGiveNoImages();
    void eventsImageAndMatrixOfGiveBackTheSixteenBitCounts();
    void matrixOfANullImageIsEmpty();
};

void MapImagesTest::countsImageHoldsTheCountsAndBackgroundImageTheColours()
{
    cv::Mat counts(3, 5, CV_8UC1);
    cv::Mat background(3, 5, CV_8UC3);
    for (int y = 0; y < 3; ++y) {
        for (int x = 0; x < 5; ++x) {
            counts.at<uchar>(y, x) = static_cast<uchar>(y * 5 + x + 250 * (x == 4));
            background.at<cv::Vec3b>(y, x) = cv::Vec3b(static_cast<uchar>(x * 40), static_cast<uchar>(y * 90), 7);
        }
    }
    const QImage countsImage = MapImages::countsImage(counts);
    QCOMPARE(countsImage.format(), QImage::Format_Grayscale8);
    const QImage backgroundImage = MapImages::backgroundImage(background);
    QCOMPARE(backgroundImage.format(), QImage::Format_RGB888);
    for (int y = 0; y < 3; ++y) {
        for (int x = 0; x < 5; ++x) {
            QCOMPARE(int(countsImage.constScanLine(y)[x]), int(counts.at<uchar>(y, x)));
            const cv::Vec3b rgb = background.at<cv::Vec3b>(y, x);
            QCOMPARE(backgroundImage.pixel(x, y), qRgb(rgb[0], rgb[1], rgb[2]));
        }
    }
}

void MapImagesTest::emptyMatricesGiveNoImages()
{
    QVERIFY(MapImages::countsImage(cv::Mat()).isNull());
    QVERIFY(MapImages::backgroundImage(cv::Mat()).isNull());
    QVERIFY(MapImages::countsImage(cv::Mat(2, 2, CV_8UC3)).isNull());
    QVERIFY(MapImages::backgroundImage(cv::Mat(2, 2, CV_8UC1)).isNull());
}

void MapImagesTest::eventsImageAndMatrixOfGiveBackTheSixteenBitCounts()
{
    cv::Mat events(4, 3, CV_16UC1);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 3; ++x)
            events.at<quint16>(y, x) = static_cast<quint16>(y * 20000 + x * 7 + 255 * (x == 2));
    const QImage image = MapImages::eventsImage(events);
    QCOMPARE(image.format(), QImage::Format_Grayscale16);
    const cv::Mat back = MapImages::matrixOf(image, QImage::Format_Grayscale16, CV_16UC1);
    QCOMPARE(back.type(), CV_16UC1);
    QCOMPARE(cv::countNonZero(back != events), 0);
    QVERIFY(MapImages::eventsImage(cv::Mat(2, 2, CV_8UC1)).isNull());
}

void MapImagesTest::matrixOfANullImageIsEmpty()
{
    QVERIFY(MapImages::matrixOf(QImage(), QImage::Format_RGB888, CV_8UC3).empty());
}

QTEST_APPLESS_MAIN(MapImagesTest)
#include "MapImagesTest.moc"
