#include "MapScale.h"
#include "MotionMap.h"
#include "ToolRunning.h"

#include <QDir>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cstring>
#include <vector>

// The executable's colour scale (--scale): the window's scale by default, any top, or one
// chosen from the counts.
namespace {

using ToolRunning::entries;
using ToolRunning::readBackground;
using ToolRunning::readAll;
using ToolRunning::readEvents;

// Pixels of a map that are not grey: those drawn in the scale's colours.
int colouredPixels(const QString& path)
{
    const QImage map = QImage(path).convertToFormat(QImage::Format_RGB888);
    int coloured = 0;
    for (int y = 0; y < map.height(); ++y)
        for (int x = 0; x < map.width(); ++x) {
            const QRgb p = map.pixel(x, y);
            coloured += (qRed(p) != qGreen(p) || qGreen(p) != qBlue(p)) ? 1 : 0;
        }
    return coloured;
}

// The 99th percentile of the non-zero counts by nearest rank, straight from its definition.
double sortedPercentile99(const cv::Mat& counts)
{
    std::vector<int> values;
    for (int y = 0; y < counts.rows; ++y)
        for (int x = 0; x < counts.cols; ++x)
            if (counts.at<int>(y, x) > 0)
                values.push_back(counts.at<int>(y, x));
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(values.size())));
    return values.empty() ? 0.0 : values[rank - 1];
}

} // namespace

class TremoraMapScaleTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

private:
    using Folders::clip;
    QString clip() const { return clip("noisy.mkv"); }

private slots:
    void initTestCase()
    {
        QVERIFY(clipsReady());
        // Noise makes events all over the picture, some pixels many more than others.
        QVERIFY(ToolRunning::makeClip(clip(), 200, QStringLiteral("96x64"), QStringLiteral(",noise=alls=40:allf=t")));
    }

    void init()
    {
        QVERIFY(renew());
    }

    void theDefaultScaleGivesTheMapOfARunWithoutOptions()
    {
        QCOMPARE(tool({clip()}).exitCode, 0);
        const QByteArray plain = readAll(out("noisy.png"));
        QVERIFY(colouredPixels(out("noisy.png")) > 100);
        QVERIFY(QFile::remove(out("noisy.png")));
        QCOMPARE(tool({"--scale", "8.5", clip()}).exitCode, 0);
        QCOMPARE(readAll(out("noisy.png")), plain);
        QVERIFY(QFile::remove(out("noisy.png")));
    }

    void aGivenScaleDrawsTheExactCountsOnThatScale()
    {
        QCOMPARE(tool({"--data", "--scale", "40", clip()}).exitCode, 0);
        const cv::Mat events = readEvents(out("noisy.events.png"));
        QVERIFY(cv::countNonZero(events) > 0);
        const QImage expected = MotionMap::render(events, readBackground(out("noisy.background.png")), 40.0);
        QCOMPARE(QImage(out("noisy.png")).convertToFormat(QImage::Format_RGB888), expected);
        const QByteArray onForty = readAll(out("noisy.png"));
        renew();
        QCOMPARE(tool({clip()}).exitCode, 0);
        QVERIFY(readAll(out("noisy.png")) != onForty);
    }

    void autoTakesTheNinetyNinthPercentileAndRecordsIt()
    {
        QCOMPARE(tool({"--data", "--scale", "auto", clip()}).exitCode, 0);
        const cv::Mat events = readEvents(out("noisy.events.png"));
        const double expected = sortedPercentile99(events);
        QVERIFY(expected > 1.0);
        const QJsonObject manifest = QJsonDocument::fromJson(readAll(out("noisy.json"))).object();
        const QJsonObject scale = manifest["parameters"].toObject()["scale"].toObject();
        QCOMPARE(scale["events_at_top"].toDouble(), expected);
        QCOMPARE(scale["auto"].toBool(), true);
        QCOMPARE(ToolRunning::schemaComplaint(QStringLiteral(TREMORA_MANIFEST_SCHEMA), out("noisy.json")), QString());
        const QImage map = MotionMap::render(events, readBackground(out("noisy.background.png")), expected);
        QCOMPARE(QImage(out("noisy.png")).convertToFormat(QImage::Format_RGB888), map);
    }

    void aManifestWithoutScaleSaysNothingOfIt()
    {
        QCOMPARE(tool({"--data", clip()}).exitCode, 0);
        const QJsonObject manifest = QJsonDocument::fromJson(readAll(out("noisy.json"))).object();
        QVERIFY(!manifest["parameters"].toObject().contains("scale"));
    }

    void aScaleOfZeroOrBelowIsAUsageErrorAndWritesNothing_data()
    {
        QTest::addColumn<QString>("value");
        QTest::newRow("zero") << "0";
        QTest::newRow("negative") << "-2";
        QTest::newRow("not a number") << "hot";
    }

    void aScaleOfZeroOrBelowIsAUsageErrorAndWritesNothing()
    {
        QFETCH(QString, value);
        QFile earlier(out("noisy.png"));
        QVERIFY(earlier.open(QIODevice::WriteOnly));
        earlier.write("earlier");
        earlier.close();
        const ToolRunning::Result result = tool({"--overwrite", "--scale=" + value, clip()});
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.startsWith("tremora-map: Bad scale '" + value.toUtf8() + "' for --scale"),
                 result.err.constData());
        QCOMPARE(entries(outPath()), QStringList{"noisy.png"});
        QCOMPARE(readAll(out("noisy.png")), QByteArray("earlier"));
    }
};

QTEST_GUILESS_MAIN(TremoraMapScaleTest)
#include "TremoraMapScaleTest.moc"
