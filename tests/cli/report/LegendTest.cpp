#include "Legend.h"
#include "MotionMap.h"

#include <QtTest>

#include <cstring>
#include <limits>

namespace {

QImage mapOf(int width, int height)
{
    QImage map(width, height, QImage::Format_RGB888);
    map.fill(QColor(40, 90, 160));
    return map;
}

Legend::Content content()
{
    Legend::Content c;
    c.name = QStringLiteral("cam1.mkv");
    c.timeSpan = QStringLiteral("2024-05-01 10:00:00 – 10:10:00 UTC");
    c.scale = 20.0;
    c.footageHours = 0.5;
    c.mask = QStringLiteral("noclock.png");
    return c;
}

// Pixels of the strip (below `mapHeight`) that have exactly the colour `rgb`.
int pixelsOfColour(const QImage& legend, int mapHeight, QRgb rgb)
{
    int count = 0;
    for (int y = mapHeight; y < legend.height(); ++y)
        for (int x = 0; x < legend.width(); ++x)
            count += legend.pixel(x, y) == rgb ? 1 : 0;
    return count;
}

// Pixels of the strip dark enough to be text.
int inkPixels(const QImage& legend, int mapHeight)
{
    int count = 0;
    for (int y = mapHeight; y < legend.height(); ++y)
        for (int x = 0; x < legend.width(); ++x)
            count += qGray(legend.pixel(x, y)) < 60 ? 1 : 0;
    return count;
}

} // namespace

class LegendTest : public QObject {
    Q_OBJECT

private slots:
    void theMapStaysAsItIsAboveAStripOfItsWidth_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::newRow("320x240") << QSize(320, 240);
        QTest::newRow("1280x720") << QSize(1280, 720);
        QTest::newRow("4K") << QSize(3840, 2160);
    }

    void theMapStaysAsItIsAboveAStripOfItsWidth()
    {
        QFETCH(QSize, size);
        const QImage map = mapOf(size.width(), size.height());
        const QImage legend = Legend::render(map, content());
        QCOMPARE(legend.width(), size.width());
        QVERIFY(legend.height() > size.height());
        QCOMPARE(legend.copy(0, 0, size.width(), size.height()).convertToFormat(QImage::Format_RGB888), map);
        // Large enough to read, small enough to leave the picture the main part.
        const int strip = legend.height() - size.height();
        QVERIFY2(strip >= 5 * Legend::textPixels(size.width()), qPrintable(QString::number(strip)));
        QVERIFY2(strip <= size.height() * 6 / 10, qPrintable(QString::number(strip)));
        QVERIFY(inkPixels(legend, size.height()) > 30 * Legend::textPixels(size.width()));
        // The bar shows both ends of the scale.
        QVERIFY(pixelsOfColour(legend, size.height(), qRgb(ColorMap_R[255], ColorMap_G[255], ColorMap_B[255])) > 0);
        QVERIFY(pixelsOfColour(legend, size.height(), qRgb(ColorMap_R[0], ColorMap_G[0], ColorMap_B[0])) > 0);
    }

    void textGrowsWithTheMapWithinLegibleBounds()
    {
        QCOMPARE(Legend::textPixels(96), 11);
        QCOMPARE(Legend::textPixels(320), 11);
        QVERIFY(Legend::textPixels(1280) > Legend::textPixels(320));
        QVERIFY(Legend::textPixels(3840) > Legend::textPixels(1280));
        QVERIFY(Legend::textPixels(100000) <= 64);
    }

    void aSmallMapGetsAStripWideEnoughForItsText()
    {
        const QImage map = mapOf(96, 64);
        const QImage legend = Legend::render(map, content());
        QCOMPARE(legend.width(), 320);
        QCOMPARE(legend.copy((320 - 96) / 2, 0, 96, 64).convertToFormat(QImage::Format_RGB888), map);
    }

    void withoutFootageThereIsNoPerHourRow()
    {
        Legend::Content withoutHours = content();
        withoutHours.footageHours = 0.0;
        const QImage map = mapOf(640, 480);
        QVERIFY(Legend::render(map, withoutHours).height() < Legend::render(map, content()).height());
    }

    void steadyLightAddsOneLineOfTextAndMovesNothingElse()
    {
        Legend::Content steady = content();
        steady.steadyLight = true;
        const QImage map = mapOf(640, 480);
        const QImage plain = Legend::render(map, content()).convertToFormat(QImage::Format_RGB888);
        const QImage withLine = Legend::render(map, steady).convertToFormat(QImage::Format_RGB888);
        QCOMPARE(withLine.width(), plain.width());
        const int added = withLine.height() - plain.height();
        QVERIFY(added > 0);
        const auto sameRow = [&](int plainRow, int steadyRow) {
            return std::equal(plain.constScanLine(plainRow), plain.constScanLine(plainRow) + plain.width() * 3,
                              withLine.constScanLine(steadyRow));
        };
        int top = 0;
        while (top < plain.height() && sameRow(top, top))
            ++top;
        int bottom = 0;
        while (bottom < plain.height() && sameRow(plain.height() - 1 - bottom, withLine.height() - 1 - bottom))
            ++bottom;
        // Every row of the plain strip is still there, above or below the one line put in,
        // which lies below the map and holds text.
        QVERIFY2(top + bottom >= plain.height(), qPrintable(QStringLiteral("%1 + %2").arg(top).arg(bottom)));
        QVERIFY(top > map.height());
        // The line is drawn in the quieter grey of the facts above it, well off the paper.
        const QImage line = withLine.copy(0, top, withLine.width(), added);
        int written = 0;
        for (int y = 0; y < line.height(); ++y)
            for (int x = 0; x < line.width(); ++x)
                written += qGray(line.pixel(x, y)) < 160 ? 1 : 0;
        QVERIFY2(written > 10 * Legend::textPixels(640), qPrintable(QString::number(written)));
    }

    void contentSaysWhetherLightChangesWereIgnored()
    {
        QVERIFY(Legend::contentOf("clip.mp4", "", 8.5, 60.0, {}, true).steadyLight);
        QVERIFY(!Legend::contentOf("clip.mp4", "", 8.5, 60.0, {}, false).steadyLight);
    }

    void ticksAreRoundStepsEndingAtTheTop()
    {
        QCOMPARE(Legend::ticks(8.5), (QList<double>{2.0, 4.0, 6.0, 8.5}));
        QCOMPARE(Legend::ticks(20.0), (QList<double>{5.0, 10.0, 15.0, 20.0}));
        QCOMPARE(Legend::ticks(99.0), (QList<double>{20.0, 40.0, 60.0, 80.0, 99.0}));
        QCOMPARE(Legend::ticks(1.0).size(), 5);
        QCOMPARE(Legend::ticks(1.0).back(), 1.0);
    }

    void timeSpansSayClockTimeWhenKnown()
    {
        QCOMPARE(Legend::timeSpan("2024-05-01T10:00:00.000000Z", 30.0, 600.0),
                 QStringLiteral("2024-05-01 10:00:30 – 10:10:30 UTC"));
        QCOMPARE(Legend::timeSpan("2024-05-01T23:30:00Z", 0.0, 3600.0),
                 QStringLiteral("2024-05-01 23:30:00 – 2024-05-02 00:30:00 UTC"));
        QCOMPARE(Legend::timeSpan("", 90.0, 3725.0), QStringLiteral("0:01:30 – 1:03:35 of the video"));
        QVERIFY(Legend::timeSpan("", 0.0, -1.0).isEmpty());
    }

    // A damaged file may record lengths no whole number of milliseconds holds.
    void spansBeyondAnyRecordingAreLeftUnsaid()
    {
        QVERIFY(Legend::timeSpan("2024-05-01T10:00:00Z", 0.0, 1e300).isEmpty());
        QVERIFY(Legend::timeSpan("2024-05-01T10:00:00Z", 1e19, 10.0).isEmpty());
        QVERIFY(Legend::timeSpan("", -1e19, 10.0).isEmpty());
        QVERIFY(Legend::timeSpan("", 0.0, std::numeric_limits<double>::infinity()).isEmpty());
        QVERIFY(Legend::combinedTimeSpan({"", ""}, {10.0, 1e300}).isEmpty());
        QVERIFY(Legend::combinedTimeSpan({"2024-05-01T10:00:00Z"}, {1e18}).isEmpty());
        // Just inside: 300 years of footage still reads.
        QCOMPARE(Legend::timeSpan("", 0.0, 300.0 * 365 * 86400), QStringLiteral("0:00:00 – 2628000:00:00 of the video"));
    }

    void combinedSpansRunFromTheEarliestStartToTheLatestEnd()
    {
        QCOMPARE(Legend::combinedTimeSpan({"2024-05-01T10:10:00Z", "2024-05-01T10:00:00Z"}, {600.0, 300.0}),
                 QStringLiteral("2024-05-01 10:00:00 – 10:20:00 UTC"));
        QCOMPARE(Legend::combinedTimeSpan({"2024-05-01T10:10:00Z", ""}, {600.0, 300.0}),
                 QStringLiteral("2 files, 0:15:00 of footage"));
    }

    void contentCarriesNameSpanAndScaleAsGiven()
    {
        const Legend::Content made = Legend::contentOf("clip.mp4", "0:00:00 – 0:15:00 of the video", 12.5, 900.0, {}, false);
        QCOMPARE(made.name, QStringLiteral("clip.mp4"));
        QCOMPARE(made.timeSpan, QStringLiteral("0:00:00 – 0:15:00 of the video"));
        QCOMPARE(made.scale, 12.5);
    }

    void contentCountsFootageInHours()
    {
        QCOMPARE(Legend::contentOf("clip.mp4", "", 8.5, 5400.0, {}, false).footageHours, 1.5);
    }

    void unknownFootageGivesNoHours_data()
    {
        QTest::addColumn<double>("footageSeconds");
        QTest::newRow("unknown") << -1.0;
        QTest::newRow("none") << 0.0;
    }

    void unknownFootageGivesNoHours()
    {
        QFETCH(double, footageSeconds);
        QCOMPARE(Legend::contentOf("clip.mp4", "", 8.5, footageSeconds, {}, false).footageHours, 0.0);
    }

    void aFilmPictureKeepsTheMapAndHasEvenSides_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::newRow("even") << QSize(320, 240);
        QTest::newRow("odd width") << QSize(321, 240);
        QTest::newRow("odd height") << QSize(320, 241);
        QTest::newRow("narrow") << QSize(97, 63);
        QTest::newRow("1080p") << QSize(1920, 1080);
    }

    void aFilmPictureKeepsTheMapAndHasEvenSides()
    {
        QFETCH(QSize, size);
        const QImage map = mapOf(size.width(), size.height());
        const QImage picture = Legend::renderCaption(map, QStringLiteral("clip.mp4"), QStringLiteral("0:10:00"));
        QCOMPARE(picture.width() % 2, 0);
        QCOMPARE(picture.height() % 2, 0);
        QCOMPARE(picture.width(), size.width() + size.width() % 2);
        QCOMPARE(picture.copy(0, 0, size.width(), size.height()).convertToFormat(QImage::Format_RGB888), map);
        // Two lines of text below it: the time and the name.
        const int strip = picture.height() - size.height();
        QVERIFY2(strip >= 2 * Legend::textPixels(size.width()), qPrintable(QString::number(strip)));
        QVERIFY(inkPixels(picture, size.height()) > 5 * Legend::textPixels(size.width()));
    }

    void aFilmPictureSaysItsTime()
    {
        const QImage map = mapOf(320, 240);
        const QImage early = Legend::renderCaption(map, QStringLiteral("clip.mp4"), QStringLiteral("0:00:10"));
        const QImage late = Legend::renderCaption(map, QStringLiteral("clip.mp4"), QStringLiteral("0:59:50"));
        QCOMPARE(early.size(), late.size());
        QVERIFY(early != late);
        QCOMPARE(early.copy(0, 0, 320, 240), late.copy(0, 0, 320, 240));
    }

    // A film keeps one picture for all its steps: whatever a step painted must not show
    // through the next one's caption, and a map left in place stays as it was.
    void aReusedFilmPictureIsTheFreshPictureOfItsLatestStep()
    {
        const QImage first = mapOf(321, 241);
        QImage second = mapOf(321, 241);
        second.fill(QColor(200, 30, 10));
        Legend::CaptionedPictures pictures(first.size());
        QImage& picture = pictures.picture();
        QVERIFY(!picture.isNull());
        for (int row = 0; row < first.height(); ++row)
            std::memcpy(picture.scanLine(row), first.constScanLine(row), static_cast<size_t>(first.width()) * 3);
        pictures.caption(QStringLiteral("a much longer name of a camera.mp4"), QStringLiteral("2024-05-01 23:59:50 UTC"));
        pictures.caption(QStringLiteral("clip.mp4"), QStringLiteral("0:00:10"));
        QCOMPARE(picture, Legend::renderCaption(first, QStringLiteral("clip.mp4"), QStringLiteral("0:00:10")));
        for (int row = 0; row < second.height(); ++row)
            std::memcpy(picture.scanLine(row), second.constScanLine(row), static_cast<size_t>(second.width()) * 3);
        pictures.caption(QStringLiteral("clip.mp4"), QStringLiteral("0:00:20"));
        QCOMPARE(picture, Legend::renderCaption(second, QStringLiteral("clip.mp4"), QStringLiteral("0:00:20")));
    }

    void timePointsSayClockTimeWhenKnown()
    {
        QCOMPARE(Legend::timePoint(QStringLiteral("2024-05-01T10:00:00.000000Z"), 600.0),
                 QStringLiteral("2024-05-01 10:10:00 UTC"));
        QCOMPARE(Legend::timePoint(QStringLiteral("2024-05-01T23:59:00Z"), 120.5),
                 QStringLiteral("2024-05-02 00:01:00 UTC"));
        QCOMPARE(Legend::timePoint(QString(), 3725.9), QStringLiteral("1:02:05"));
        QCOMPARE(Legend::timePoint(QStringLiteral("not a time"), 59.0), QStringLiteral("0:00:59"));
        QCOMPARE(Legend::timePoint(QString(), 1e11), QString());
    }

    void masksAreNamedByFileOnceEachAndEmptyOnesLeftOut()
    {
        QCOMPARE(Legend::contentOf("both", "", 8.5, 60.0, {"/cams/left/mask.png", "", "mask.png", "/m/door.png"}, false).mask,
                 QStringLiteral("mask.png, door.png"));
        QVERIFY(Legend::contentOf("clip.mp4", "", 8.5, 60.0, {""}, false).mask.isEmpty());
        QVERIFY(Legend::contentOf("clip.mp4", "", 8.5, 60.0, {}, false).mask.isEmpty());
    }
};

QTEST_MAIN(LegendTest)
#include "LegendTest.moc"
