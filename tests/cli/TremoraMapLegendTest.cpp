#include "TestSupport.h"
#include "ToolRunning.h"

#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QtTest>

#include <cmath>

// The executable's legends (--legend): the map unchanged above a strip that explains it, for
// one video and for a combined map.
namespace {

using ToolRunning::entries;
using ToolRunning::readAll;

QStringList rolesOf(const QString& manifest)
{
    QStringList roles;
    for (const QJsonValue& file : QJsonDocument::fromJson(readAll(manifest)).object()["files"].toArray())
        roles << file.toObject()["role"].toString();
    return roles;
}

// The text tesseract reads in the strip below a map `mapHeight` pixels high, one line of the
// strip a line, its spaces collapsed. The strip is enlarged three times, as OCR reads letters
// some 30 pixels high best. `error` receives why it could not be read.
QStringList readStrip(const QString& legendPath, int mapHeight, const QString& folder, QString* error)
{
    const QImage legend(legendPath);
    const QImage strip = legend.copy(0, mapHeight, legend.width(), legend.height() - mapHeight);
    const QString enlarged = QDir(folder).filePath(QStringLiteral("strip-for-ocr.png"));
    if (!strip.scaled(strip.size() * 3, Qt::IgnoreAspectRatio, Qt::SmoothTransformation).save(enlarged)) {
        *error = QStringLiteral("can't save %1").arg(enlarged);
        return {};
    }
    QProcess ocr;
    // One block of lines, in English.
    ocr.start(QStringLiteral("tesseract"), {enlarged, QStringLiteral("stdout"), QStringLiteral("--psm"),
                                            QStringLiteral("6"), QStringLiteral("-l"), QStringLiteral("eng")});
    if (!ocr.waitForStarted(10000) || !ocr.waitForFinished(60000) || ocr.exitCode() != 0) {
        *error = QStringLiteral("tesseract (Debian: tesseract-ocr) did not run: %1 %2")
                     .arg(ocr.errorString(), QString::fromLocal8Bit(ocr.readAllStandardError()));
        return {};
    }
    QStringList lines;
    for (const QString& line : QString::fromUtf8(ocr.readAllStandardOutput()).split(QLatin1Char('\n'))) {
        // OCR reads the dashes as one kind or another.
        QString text = line.simplified();
        text.replace(QChar(0x2013), QLatin1Char('-')).replace(QChar(0x2014), QLatin1Char('-'));
        if (!text.isEmpty())
            lines << text;
    }
    return lines;
}

// The line of `lines` that ends with `unit` ("events", "per hour"), its labels without the
// "≥" before the top one, which OCR reads as "=" or ">" as often as not.
QStringList tickLabels(const QStringList& lines, const QString& unit)
{
    for (const QString& line : lines) {
        if (!line.endsWith(unit))
            continue;
        QStringList labels;
        for (QString word : line.left(line.size() - unit.size()).split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
            word.remove(QRegularExpression(QStringLiteral("^[^0-9]+")));
            if (!word.isEmpty())
                labels << word.toLower();
        }
        return labels;
    }
    return {};
}

// A per-hour label as a reader expects it: thousands with one decimal below ten thousand,
// rounded thousands above.
QString thousands(double perHour)
{
    return perHour < 1e4 ? QString::number(perHour / 1e3, 'f', 1) + QLatin1Char('k')
                         : QString::number(std::round(perHour / 1e3)) + QLatin1Char('k');
}

} // namespace

class TremoraMapLegendTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

private:
    // The lines OCR reads in the strip of the legend of clip NAME.mkv (960 x 540) drawn with
    // `options`; `error` receives why there are none.
    QStringList legendLines(const QString& name, const QStringList& options, QString* error) const
    {
        const ToolRunning::Result result = tool(QStringList{"--legend"} + options + QStringList{clip(name + ".mkv")});
        if (result.exitCode != 0) {
            *error = QString::fromUtf8(result.err);
            return {};
        }
        return readStrip(out(name + ".legend.png"), 540, outPath(), error);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(clipsReady());
        QVERIFY(ToolRunning::makeClip(clip("wide.mkv"), 40, QStringLiteral("320x240"),
                                      QStringLiteral(",noise=alls=30:allf=t")));
        QVERIFY(ToolRunning::makeClip(clip("other.mkv"), 40, QStringLiteral("320x240")));
    }

    void init()
    {
        QVERIFY(renew());
    }

    void theLegendIsTheMapAboveAStripAndTheMapStaysAsWithout()
    {
        QCOMPARE(tool({clip("wide.mkv")}).exitCode, 0);
        const QByteArray plain = readAll(out("wide.png"));
        QVERIFY(QFile::remove(out("wide.png")));
        const ToolRunning::Result result = tool({"--legend", "--data", clip("wide.mkv")});
        QCOMPARE(result.exitCode, 0);
        // Nothing but the tool's own messages: the platform's start-up remarks are not shown.
        QVERIFY2(result.err.isEmpty(), result.err.constData());
        QCOMPARE(readAll(out("wide.png")), plain);
        const QImage map(out("wide.png"));
        const QImage legend(out("wide.legend.png"));
        QCOMPARE(legend.width(), 320);
        QVERIFY(legend.height() >= 240 + 80);
        QVERIFY(legend.height() <= 240 + 160);
        QCOMPARE(legend.copy(0, 0, 320, 240).convertToFormat(QImage::Format_RGB888),
                 map.convertToFormat(QImage::Format_RGB888));
        QCOMPARE(rolesOf(out("wide.json")), (QStringList{"map", "legend", "events", "background", "activity"}));
        QCOMPARE(ToolRunning::schemaComplaint(QStringLiteral(TREMORA_MANIFEST_SCHEMA), out("wide.json")), QString());
    }

    void withoutTheOptionNoLegendIsWritten()
    {
        QCOMPARE(tool({clip("wide.mkv")}).exitCode, 0);
        QCOMPARE(entries(outPath()), QStringList{"wide.png"});
    }

    void aCombinedMapGetsALegendToo()
    {
        QCOMPARE(tool({"--legend", "--combine", "both", clip("wide.mkv"), clip("other.mkv")}).exitCode, 0);
        QCOMPARE(entries(outPath()), (QStringList{"both.legend.png", "both.png"}));
        const QImage legend(out("both.legend.png"));
        QCOMPARE(legend.width(), 320);
        QCOMPARE(legend.copy(0, 0, 320, 240).convertToFormat(QImage::Format_RGB888),
                 QImage(out("both.png")).convertToFormat(QImage::Format_RGB888));
    }

    void aCombinedLegendNamesTheMaskItsManifestsWereMadeWith()
    {
        QImage mask(320, 240, QImage::Format_Grayscale8);
        mask.fill(255);
        QVERIFY(mask.save(clip("corner-mask.png")));
        QVERIFY(QDir(outPath()).mkpath("masked") && QDir(outPath()).mkpath("plain"));
        QCOMPARE(tool({"--data", "-o", out("masked"), "--mask", clip("corner-mask.png"), clip("wide.mkv")}).exitCode, 0);
        QCOMPARE(tool({"--data", "-o", out("plain"), clip("wide.mkv")}).exitCode, 0);
        // One combined name in two folders, so that only what the manifests bring differs.
        QCOMPARE(tool({"--legend", "-o", out("masked"), "--combine", "both", out("masked/wide.json")}).exitCode, 0);
        QCOMPARE(tool({"--legend", "-o", out("plain"), "--combine", "both", out("plain/wide.json")}).exitCode, 0);
        // A mask that ignores nothing leaves the map as it was: only the strip's mask line differs.
        QCOMPARE(readAll(out("masked/both.png")), readAll(out("plain/both.png")));
        const QImage masked = QImage(out("masked/both.legend.png")).convertToFormat(QImage::Format_RGB888);
        const QImage plain = QImage(out("plain/both.legend.png")).convertToFormat(QImage::Format_RGB888);
        QCOMPARE(masked.width(), plain.width());
        QVERIFY(masked != plain);
    }

    // Read back from the picture, as a person would: whose map, when, which mask, and the
    // ticks in events and per hour of footage.
    void theStripReadsBackTheNameTimeSpanMaskAndTicks()
    {
        // 51 frames at 25 a second: 50 pairs, two seconds of footage from 10:00:00 UTC.
        QVERIFY(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=960x540:rate=25", "-frames:v", "51",
                                        "-metadata", "creation_time=2024-05-06T10:00:00Z", "-c:v", "ffv1",
                                        clip("harbour.mkv")}));
        QImage mask(96, 54, QImage::Format_Grayscale8);
        mask.fill(255);
        QVERIFY(mask.save(clip("harbour-mask.png")));
        QString error;
        const QStringList lines =
            legendLines(QStringLiteral("harbour"), {"--scale", "10", "--mask", clip("harbour-mask.png")}, &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QVERIFY2(lines.size() >= 4, qPrintable(lines.join(QLatin1Char('|'))));
        QCOMPARE(lines[0], QStringLiteral("harbour.mkv"));
        QVERIFY2(lines[1].startsWith(QStringLiteral("2024-05-06 10:00:00 - 10:00:02 UTC")), qPrintable(lines[1]));
        QVERIFY2(lines[1].endsWith(QStringLiteral("mask: harbour-mask.png")), qPrintable(lines[1]));
        // Round steps of two events up to the top at ten; two seconds of footage make every
        // event 1,800 an hour.
        const QStringList events{"2", "4", "6", "8", "10"};
        QCOMPARE(tickLabels(lines, QStringLiteral("events")), events);
        QStringList perHour;
        for (const QString& count : events)
            perHour << thousands(count.toDouble() * 3600.0 / 2.0);
        QCOMPARE(perHour, (QStringList{"3.6k", "7.2k", "11k", "14k", "18k"}));
        QCOMPARE(tickLabels(lines, QStringLiteral("per hour")), perHour);
    }

    void aStripWithoutClockTimeOrMaskSaysSoInWords()
    {
        QVERIFY(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=960x540:rate=25", "-frames:v", "76",
                                        "-c:v", "ffv1", clip("quay.mkv")}));
        QString error;
        const QStringList lines = legendLines(QStringLiteral("quay"), {}, &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QVERIFY2(lines.size() >= 2, qPrintable(lines.join(QLatin1Char('|'))));
        QCOMPARE(lines[0], QStringLiteral("quay.mkv"));
        // 75 pairs: three seconds of the video.
        QVERIFY2(lines[1].startsWith(QStringLiteral("0:00:00 - 0:00:03 of the video")), qPrintable(lines[1]));
        QVERIFY2(lines[1].endsWith(QStringLiteral("no mask")), qPrintable(lines[1]));
        QVERIFY2(!lines.join(QLatin1Char('|')).contains(QStringLiteral("light")), qPrintable(lines.join(QLatin1Char('|'))));
    }

    void aStripInSteadyLightSaysLightChangesWereIgnored()
    {
        QVERIFY(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=960x540:rate=25", "-frames:v", "26",
                                        "-c:v", "ffv1", clip("lamp.mkv")}));
        QString error;
        const QStringList lines = legendLines(QStringLiteral("lamp"), {"--steady-light"}, &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QVERIFY2(lines.size() >= 3, qPrintable(lines.join(QLatin1Char('|'))));
        QCOMPARE(lines[0], QStringLiteral("lamp.mkv"));
        QVERIFY2(lines[1].endsWith(QStringLiteral("no mask")), qPrintable(lines[1]));
        QCOMPARE(lines[2], QStringLiteral("light changes ignored"));
    }

    void anExistingLegendIsNotReplacedAndItsVideoNotAnalysed()
    {
        QFile earlier(out("wide.legend.png"));
        QVERIFY(earlier.open(QIODevice::WriteOnly));
        earlier.write("earlier");
        earlier.close();
        const ToolRunning::Result result = tool({"--legend", clip("wide.mkv")});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("wide.legend.png"), result.err.constData());
        QCOMPARE(entries(outPath()), QStringList{"wide.legend.png"});
        QCOMPARE(readAll(out("wide.legend.png")), QByteArray("earlier"));
    }
};

QTEST_GUILESS_MAIN(TremoraMapLegendTest)
#include "TremoraMapLegendTest.moc"
