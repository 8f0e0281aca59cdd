#include "ToolRunning.h"

#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

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

} // namespace

class TremoraMapLegendTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

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
