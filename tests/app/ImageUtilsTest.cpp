#include "Utils.h"

#include <QImage>
#include <QPainter>
#include <QtTest>

namespace {

QImage filled(int width, int height, QColor colour)
{
    QImage image(width, height, QImage::Format_RGB888);
    image.fill(colour);
    return image;
}

// True when every pixel of `rect` in `image` is `colour`.
bool uniform(const QImage& image, const QRect& rect, QColor colour)
{
    for (int y = rect.top(); y <= rect.bottom(); ++y)
        for (int x = rect.left(); x <= rect.right(); ++x)
            if (image.pixelColor(x, y) != colour)
                return false;
    return true;
}

} // namespace

class ImageUtilsTest : public QObject {
    Q_OBJECT

private slots:
    void sameAspectFillsTheWholeDestination()
    {
        const QImage source = filled(2560, 1440, Qt::red);
        QImage destination = filled(1280, 720, Qt::black);
        Utils::drawImageCentered(source, destination, 0);
        QVERIFY(uniform(destination, destination.rect(), Qt::red));
    }

    void widerSourceIsCentredVertically()
    {
        // Shrink factor 2: the 200 x 100 source lands as 100 x 50 at rows 25 to 74.
        const QImage source = filled(200, 100, Qt::red);
        QImage destination = filled(100, 100, Qt::blue);
        Utils::drawImageCentered(source, destination, 0);
        QVERIFY(uniform(destination, QRect(0, 0, 100, 25), Qt::blue));
        QVERIFY(uniform(destination, QRect(0, 25, 100, 50), Qt::red));
        QVERIFY(uniform(destination, QRect(0, 75, 100, 25), Qt::blue));
    }

    void tallerSourceIsCentredHorizontally()
    {
        // Shrink factor 2: the 400 x 800 source lands as 200 x 400 at columns 100 to 299.
        const QImage source = filled(400, 800, Qt::green);
        QImage destination = filled(400, 400, Qt::blue);
        Utils::drawImageCentered(source, destination, 0);
        QVERIFY(uniform(destination, QRect(0, 0, 100, 400), Qt::blue));
        QVERIFY(uniform(destination, QRect(100, 0, 200, 400), Qt::green));
        QVERIFY(uniform(destination, QRect(300, 0, 100, 400), Qt::blue));
    }

    void narrowSourceIsPaintedOnlyUpToItsOwnWidth()
    {
        // 100 x 400 into 200 x 200: shrink 2, centred at columns 75..124, but the target is
        // the source's own rectangle (width 100), so only columns 75..99 are painted.
        const QImage source = filled(100, 400, Qt::green);
        QImage destination = filled(200, 200, Qt::blue);
        Utils::drawImageCentered(source, destination, 0);
        QVERIFY(uniform(destination, QRect(0, 0, 75, 200), Qt::blue));
        QVERIFY(uniform(destination, QRect(75, 0, 25, 200), Qt::green));
        QVERIFY(uniform(destination, QRect(100, 0, 100, 200), Qt::blue));
    }

    void wholeSourceIsScaledNotCropped()
    {
        // Left half red, right half green: both halves must appear, side by side.
        QImage source = filled(400, 200, Qt::red);
        QPainter(&source).fillRect(200, 0, 200, 200, Qt::green);
        QImage destination = filled(200, 100, Qt::black);
        Utils::drawImageCentered(source, destination, 0);
        QVERIFY(uniform(destination, QRect(0, 0, 98, 100), Qt::red));
        QVERIFY(uniform(destination, QRect(102, 0, 98, 100), Qt::green));
    }

    void marginShrinksThePicture()
    {
        // Margin 50: the 200 x 200 source must fit into 150 x 150 (shrink 4/3), centred, so it
        // covers 25..175 in both directions.
        const QImage source = filled(200, 200, Qt::red);
        QImage destination = filled(200, 200, Qt::blue);
        Utils::drawImageCentered(source, destination, 50);
        QVERIFY(uniform(destination, QRect(0, 0, 200, 24), Qt::blue));
        QVERIFY(uniform(destination, QRect(0, 0, 24, 200), Qt::blue));
        QVERIFY(uniform(destination, QRect(26, 26, 148, 148), Qt::red));
        QVERIFY(uniform(destination, QRect(176, 0, 24, 200), Qt::blue));
        QVERIFY(uniform(destination, QRect(0, 176, 200, 24), Qt::blue));
    }

    void smallerSourceIsPaintedOnlyWithinItsOwnRectangle()
    {
        // Source 1280 x 360 into 1280 x 720: scale 1, centred at rows 180..539, but the target
        // is the source's own rectangle, so only rows 180..359 are painted, with the source's
        // top half. Everything else keeps the destination's previous contents.
        QImage source = filled(1280, 360, Qt::red);
        QPainter(&source).fillRect(0, 180, 1280, 180, Qt::green);
        QImage destination = filled(1280, 720, Qt::blue);
        Utils::drawImageCentered(source, destination, 0);
        QVERIFY(uniform(destination, QRect(0, 0, 1280, 180), Qt::blue));
        QVERIFY(uniform(destination, QRect(0, 180, 1280, 180), Qt::red));
        QVERIFY(uniform(destination, QRect(0, 360, 1280, 360), Qt::blue));
    }

    void smoothScalingAveragesNeighbours()
    {
        // A fine black and white checkerboard shrunk to a quarter turns grey, not black or white.
        QImage source(400, 400, QImage::Format_RGB888);
        for (int y = 0; y < 400; ++y)
            for (int x = 0; x < 400; ++x)
                source.setPixelColor(x, y, (x + y) % 2 ? Qt::white : Qt::black);
        QImage destination = filled(100, 100, Qt::blue);
        Utils::drawImageCentered(source, destination, 0);
        const QColor middle = destination.pixelColor(50, 50);
        QVERIFY2(middle.red() > 60 && middle.red() < 200, qPrintable(middle.name()));
        QCOMPARE(middle.red(), middle.blue());
    }

    void nullImagesAreLeftAlone()
    {
        QImage destination = filled(10, 10, Qt::blue);
        Utils::drawImageCentered(QImage(), destination, 0);
        QVERIFY(uniform(destination, destination.rect(), Qt::blue));
        QImage nothing;
        Utils::drawImageCentered(filled(10, 10, Qt::red), nothing, 0);
        QVERIFY(nothing.isNull());
    }
};

QTEST_GUILESS_MAIN(ImageUtilsTest)
#include "ImageUtilsTest.moc"
