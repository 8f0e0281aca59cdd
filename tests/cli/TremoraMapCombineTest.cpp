#include "MotionMap.h"
#include "TestSupport.h"
#include "ToolRunning.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cstring>

#include <unistd.h>

// The executable's combined maps (--combine): sums of the inputs' exact counts, from videos
// or from the manifests --data wrote for them, and every input it must leave out.
namespace {

using ToolRunning::entries;
using ToolRunning::readBackground;
using ToolRunning::readAll;
using ToolRunning::readJson;
using ToolRunning::readEvents;

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

bool equal(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::countNonZero(a != b) == 0;
}

// A noisy test picture of `size`, 60 frames, recorded at `creation` when given.
bool makeClip(const QString& path, const QString& size, int seed, const QString& creation = {})
{
    QStringList arguments{"-f", "lavfi", "-i",
                          QStringLiteral("testsrc=size=%1:rate=25,noise=alls=40:allf=t:all_seed=%2").arg(size).arg(seed),
                          "-frames:v", "60"};
    if (!creation.isEmpty())
        arguments << "-metadata" << QStringLiteral("creation_time=%1").arg(creation);
    return TestSupport::runFfmpeg(arguments + QStringList{"-c:v", "ffv1", path});
}

struct CsvRow {
    QString file;
    double time = 0.0;
    long long newEvents = 0;
};

std::vector<CsvRow> readCombinedActivity(const QString& path)
{
    const QList<QByteArray> lines = readAll(path).split('\n');
    std::vector<CsvRow> rows;
    if (lines.isEmpty() || lines.front() != "file,pair,time_s,moving_pixels,new_events")
        return rows;
    for (int i = 1; i < lines.size(); ++i) {
        if (lines[i].isEmpty())
            continue;
        const QList<QByteArray> fields = lines[i].split(',');
        if (fields.size() != 5 || !fields[0].startsWith('"') || !fields[0].endsWith('"'))
            return {};
        rows.push_back({QString::fromUtf8(fields[0].mid(1, fields[0].size() - 2)), fields[2].toDouble(),
                        fields[4].toLongLong()});
    }
    return rows;
}

} // namespace

class TremoraMapCombineTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

private:
    QTemporaryDir m_data;  // the inputs' own files, written by --data once
    QTemporaryDir m_other; // the same clips analysed with other parameters, a folder each

    QString data(const QString& name) const { return m_data.filePath(name); }
    QString other(const QString& name) const { return m_other.filePath(name); }
    QStringList videos() const { return {clip("a.mkv"), clip("b.mkv"), clip("c.mkv")}; }

    // The manifests of the three clips in a folder of their own, to be damaged by a test.
    QString copyOfData()
    {
        const QString folder = out("copy");
        QDir().mkpath(folder);
        for (const QString& name : entries(m_data.path()))
            QFile::copy(data(name), folder + '/' + name);
        return folder;
    }

    // A copy of the manifests where b.json records `key` as `value` among its parameters; the
    // copy's folder, empty when it could not be written.
    QString copyWithParameterOfB(const QString& key, const QJsonValue& value)
    {
        const QString copy = copyOfData();
        QJsonObject manifest = readJson(copy + "/b.json");
        QJsonObject parameters = manifest["parameters"].toObject();
        parameters[key] = value;
        manifest["parameters"] = parameters;
        return writeFile(copy + "/b.json", QJsonDocument(manifest).toJson()) ? copy : QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(clipsReady());
        QVERIFY(m_data.isValid());
        QVERIFY(makeClip(clip("a.mkv"), "96x64", 1, "2024-05-01T10:00:00Z"));
        QVERIFY(makeClip(clip("b.mkv"), "96x64", 2, "2024-05-01T10:05:00Z"));
        QVERIFY(makeClip(clip("c.mkv"), "96x64", 3, "2024-05-01T10:10:00Z"));
        QVERIFY(makeClip(clip("odd.mkv"), "80x60", 4));
        QVERIFY(makeClip(clip("undated.mkv"), "96x64", 5));
        const ToolRunning::Result result = ToolRunning::run(
            QStringList{"--quiet", "--data", "--output-dir", m_data.path()} + videos() + QStringList{clip("undated.mkv")},
            120000);
        QCOMPARE(result.exitCode, 0);
        QVERIFY(m_other.isValid());
        QImage mask(96, 64, QImage::Format_Grayscale8);
        mask.fill(255);
        QVERIFY(mask.save(other("mask.png")));
        const QList<QStringList> analyses{{"noblur", "--no-blur"},
                                          {"masked", "--mask", other("mask.png")},
                                          {"window", "--start", "0.5"}};
        for (const QStringList& analysis : analyses) {
            const ToolRunning::Result run = ToolRunning::run(
                QStringList{"--quiet", "--data", "--output-dir", other(analysis.front())} + analysis.mid(1)
                    + QStringList{clip("a.mkv"), clip("b.mkv")},
                120000);
            QCOMPARE(run.exitCode, 0);
        }
    }

    void init()
    {
        QVERIFY(renew());
    }

    void combinedCountsAreTheSumsOfEveryInputsExactCounts()
    {
        const ToolRunning::Result result = tool(QStringList{"--data", "--combine", "day"} + videos());
        QCOMPARE(result.exitCode, 0);
        QCOMPARE(entries(outPath()), (QStringList{"day.activity.csv", "day.events.png", "day.json", "day.png"}));
        cv::Mat sum = cv::Mat::zeros(64, 96, CV_32SC1);
        for (const QString name : {"a", "b", "c"}) {
            const cv::Mat counts = readEvents(data(name + ".events.png"));
            QVERIFY(cv::countNonZero(counts) > 0);
            sum += counts;
        }
        QVERIFY(equal(readEvents(out("day.events.png")), sum));
        // The first input's background under the summed counts, on the window's scale.
        const QImage expected = MotionMap::render(sum, readBackground(data("a.background.png")), 8.5);
        QCOMPARE(QImage(out("day.png")).convertToFormat(QImage::Format_RGB888), expected);
        QVERIFY(expected != MotionMap::render(sum, readBackground(data("b.background.png")), 8.5));
        QCOMPARE(readJson(out("day.json"))["summary"].toObject()["events_total"].toDouble(), cv::sum(sum)[0]);
    }

    void withoutDataOnlyTheMapIsWritten()
    {
        QCOMPARE(tool(QStringList{"--combine", "day"} + videos()).exitCode, 0);
        QCOMPARE(entries(outPath()), QStringList{"day.png"});
    }

    void combiningManifestsGivesTheBytesOfCombiningTheVideos()
    {
        QCOMPARE(tool(QStringList{"--data", "--combine", "videos"} + videos()).exitCode, 0);
        const QStringList manifests{data("a.json"), data("b.json"), data("c.json")};
        QCOMPARE(tool(QStringList{"--data", "--combine", "manifests"} + manifests).exitCode, 0);
        for (const QString suffix : {".png", ".events.png", ".activity.csv"}) {
            QVERIFY(!readAll(out("videos" + suffix)).isEmpty());
            QVERIFY2(readAll(out("videos" + suffix)) == readAll(out("manifests" + suffix)), qPrintable(suffix));
        }
        const QJsonArray inputs = readJson(out("manifests.json"))["inputs"].toArray();
        QCOMPARE(inputs.size(), 3);
        QCOMPARE(inputs[1].toObject()["video"].toString(), QFileInfo(clip("b.mkv")).absoluteFilePath());
        QCOMPARE(inputs[1].toObject()["manifest"].toString(), data("b.json"));
    }

    void activityRowsCarryTheirFileOnOneTimeLine()
    {
        QCOMPARE(tool(QStringList{"--data", "--combine", "day"} + videos()).exitCode, 0);
        const std::vector<CsvRow> rows = readCombinedActivity(out("day.activity.csv"));
        QCOMPARE(rows.size(), size_t(3 * 59));
        long long events = 0;
        for (const CsvRow& row : rows)
            events += row.newEvents;
        QCOMPARE(double(events), cv::sum(readEvents(out("day.events.png")))[0]);
        QCOMPARE(rows[0].file, QFileInfo(clip("a.mkv")).absoluteFilePath());
        QCOMPARE(rows[59].file, QFileInfo(clip("b.mkv")).absoluteFilePath());
        // b started five minutes after a, c ten: their first pairs end 1/25 s into them.
        QCOMPARE(rows[0].time, 0.04);
        QCOMPARE(rows[59].time, 300.04);
        QCOMPARE(rows[118].time, 600.04);
        QCOMPARE(readJson(out("day.json"))["time_line"].toString(), QStringLiteral("creation_time"));
    }

    void withoutCreationTimesEachFileKeepsItsOwnTimes()
    {
        QCOMPARE(tool({"--data", "--combine", "day", clip("a.mkv"), clip("undated.mkv")}).exitCode, 0);
        const std::vector<CsvRow> rows = readCombinedActivity(out("day.activity.csv"));
        QCOMPARE(rows.size(), size_t(2 * 59));
        QCOMPARE(rows[59].file, QFileInfo(clip("undated.mkv")).absoluteFilePath());
        QCOMPARE(rows[59].time, 0.04);
        QCOMPARE(readJson(out("day.json"))["time_line"].toString(), QStringLiteral("per_file"));
    }

    void inputsOfAnotherSizeAreReportedOneLineEachAndLeftOut()
    {
        const ToolRunning::Result result =
            tool({"--data", "--combine", "day", clip("a.mkv"), clip("odd.mkv"), clip("b.mkv"), clip("odd.mkv")});
        QCOMPARE(result.exitCode, 1);
        const QList<QByteArray> lines = result.err.trimmed().split('\n');
        QCOMPARE(lines.size(), 2);
        for (const QByteArray& line : lines)
            QVERIFY2(line.contains("odd.mkv") && line.contains("80x60") && line.contains("96x64"), line.constData());
        const cv::Mat sum = readEvents(data("a.events.png")) + readEvents(data("b.events.png"));
        QVERIFY(equal(readEvents(out("day.events.png")), sum));
        const QJsonArray inputs = readJson(out("day.json"))["inputs"].toArray();
        QCOMPARE(inputs[1].toObject()["status"].toString(), QStringLiteral("left out"));
        QCOMPARE(inputs[2].toObject()["status"].toString(), QStringLiteral("combined"));
    }

    void theCombinedManifestFollowsItsSchemaWithInputsLeftOut()
    {
        QCOMPARE(tool({"--data", "--legend", "--combine", "day", clip("a.mkv"), clip("odd.mkv"), data("b.json")}).exitCode,
                 1);
        const QString schema = QStringLiteral(TREMORA_COMBINED_SCHEMA);
        QCOMPARE(ToolRunning::schemaComplaint(schema, out("day.json")), QString());
        // The schema does hold the manifest to its form: a status it does not know fails it.
        QJsonObject manifest = readJson(out("day.json"));
        QJsonArray inputs = manifest["inputs"].toArray();
        QJsonObject leftOut = inputs[1].toObject();
        leftOut["status"] = QStringLiteral("skipped");
        inputs[1] = leftOut;
        manifest["inputs"] = inputs;
        QVERIFY(writeFile(out("changed.json"), QJsonDocument(manifest).toJson()));
        QVERIFY(!ToolRunning::schemaComplaint(schema, out("changed.json")).isEmpty());
    }

    void aManifestWithAMissingFileIsReportedAndLeftOut()
    {
        const QString copy = copyOfData();
        QVERIFY(QFile::remove(copy + "/b.events.png"));
        const ToolRunning::Result result =
            tool({"--data", "--combine", "day", copy + "/a.json", copy + "/b.json", copy + "/c.json"});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("b.events.png") && result.err.contains("missing"), result.err.constData());
        const cv::Mat sum = readEvents(data("a.events.png")) + readEvents(data("c.events.png"));
        QVERIFY(equal(readEvents(out("day.events.png")), sum));
    }

    void aManifestWhoseFilesDoNotMatchIsReportedAndLeftOut_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("sameSize");
        QTest::addColumn<QByteArray>("complaint");
        QTest::newRow("longer background") << "b.background.png" << false << QByteArray("(size)");
        QTest::newRow("changed counts") << "b.events.png" << true << QByteArray("(checksum)");
        QTest::newRow("changed activity") << "b.activity.csv" << true << QByteArray("(checksum)");
    }

    void aManifestWhoseFilesDoNotMatchIsReportedAndLeftOut()
    {
        QFETCH(QString, file);
        QFETCH(bool, sameSize);
        QFETCH(QByteArray, complaint);
        const QString copy = copyOfData();
        QByteArray bytes = readAll(copy + '/' + file);
        if (sameSize)
            bytes[bytes.size() - 2] = char(bytes[bytes.size() - 2] ^ 0x01);
        else
            bytes.append("x");
        QVERIFY(writeFile(copy + '/' + file, bytes));
        const ToolRunning::Result result = tool({"--data", "--combine", "day", copy + "/a.json", copy + "/b.json"});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains(file.toUtf8()) && result.err.contains(complaint), result.err.constData());
        QVERIFY(equal(readEvents(out("day.events.png")), readEvents(data("a.events.png"))));
    }

    void aManifestOfANewerFormatVersionIsReportedAndLeftOut()
    {
        const QString copy = copyOfData();
        QJsonObject manifest = readJson(copy + "/b.json");
        manifest["format_version"] = 2;
        QVERIFY(writeFile(copy + "/b.json", QJsonDocument(manifest).toJson()));
        const ToolRunning::Result result = tool({"--combine", "day", copy + "/a.json", copy + "/b.json"});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("b.json") && result.err.contains("format version 2"), result.err.constData());
        QVERIFY(QFile::exists(out("day.png")));
    }

    void theSameVideoGivenTwiceIsCountedOnce()
    {
        const ToolRunning::Result result =
            tool({"--data", "--combine", "day", clip("a.mkv"), clip("b.mkv"), clip("a.mkv")});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("same input") && result.err.contains("a.mkv") && result.err.contains("day"),
                 result.err.constData());
        QVERIFY(equal(readEvents(out("day.events.png")),
                      readEvents(data("a.events.png")) + readEvents(data("b.events.png"))));
        const QJsonArray inputs = readJson(out("day.json"))["inputs"].toArray();
        QCOMPARE(inputs[0].toObject()["status"].toString(), QStringLiteral("combined"));
        QCOMPARE(inputs[2].toObject()["status"].toString(), QStringLiteral("left out"));
    }

    void theSameVideoThroughAnotherPathIsCountedOnce_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("symbolic link") << "link";
        QTest::newRow("hard link") << "hard";
        QTest::newRow("path through dot dot") << "dots";
    }

    void theSameVideoThroughAnotherPathIsCountedOnce()
    {
        QFETCH(QString, kind);
        const QString folder = out("inputs");
        QVERIFY(QDir().mkpath(folder));
        QString again = folder + "/again.mkv";
        if (kind == "link")
            QVERIFY(QFile::link(clip("a.mkv"), again));
        else if (kind == "hard")
            QCOMPARE(::link(QFile::encodeName(clip("a.mkv")).constData(), QFile::encodeName(again).constData()), 0);
        else
            again = folder + "/../../" + QFileInfo(clipsPath()).fileName() + "/a.mkv";
        QVERIFY(QFileInfo(again).isFile());
        const ToolRunning::Result result = tool({"--data", "--combine", "day", clip("a.mkv"), again});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("same input") && result.err.contains(again.toUtf8()), result.err.constData());
        QVERIFY(equal(readEvents(out("day.events.png")), readEvents(data("a.events.png"))));
    }

    void aVideoAndTheManifestWrittenForItAreCountedOnce_data()
    {
        QTest::addColumn<bool>("videoFirst");
        QTest::newRow("video first") << true;
        QTest::newRow("manifest first") << false;
    }

    void aVideoAndTheManifestWrittenForItAreCountedOnce()
    {
        QFETCH(bool, videoFirst);
        const QString video = clip("a.mkv");
        const QString manifest = data("a.json");
        const QString later = videoFirst ? manifest : video;
        const ToolRunning::Result result = tool({"--data", "--combine", "day", videoFirst ? video : manifest,
                                                 clip("b.mkv"), later});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("same input") && result.err.contains(later.toUtf8()), result.err.constData());
        QVERIFY(equal(readEvents(out("day.events.png")),
                      readEvents(data("a.events.png")) + readEvents(data("b.events.png"))));
    }

    void twoManifestsOfOneVideoAreCountedOnce()
    {
        const QString copy = copyOfData();
        const ToolRunning::Result result = tool({"--data", "--combine", "day", data("a.json"), copy + "/a.json"});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("same input") && result.err.contains(QString(copy + "/a.json").toUtf8()),
                 result.err.constData());
        QVERIFY(equal(readEvents(out("day.events.png")), readEvents(data("a.events.png"))));
    }

    void aManifestAnalysedWithOtherParametersIsLeftOutNamingTheDifference_data()
    {
        QTest::addColumn<QString>("analysis");
        QTest::addColumn<QStringList>("differences");
        QTest::newRow("no blur") << "noblur" << QStringList{"blur false, not true", "threshold"};
        QTest::newRow("mask") << "masked" << QStringList{"mask \"" + other("mask.png") + "\", not none"};
        QTest::newRow("window") << "window" << QStringList{"window.start_s 0.5, not none"};
    }

    void aManifestAnalysedWithOtherParametersIsLeftOutNamingTheDifference()
    {
        QFETCH(QString, analysis);
        QFETCH(QStringList, differences);
        const QString leftOut = other(analysis + "/b.json");
        const ToolRunning::Result result = tool({"--data", "--combine", "day", data("a.json"), leftOut, data("c.json")});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains(leftOut.toUtf8()) && result.err.contains(data("a.json").toUtf8())
                     && result.err.contains("other parameters"),
                 result.err.constData());
        for (const QString& difference : differences)
            QVERIFY2(result.err.contains(difference.toUtf8()), result.err.constData());
        QVERIFY(equal(readEvents(out("day.events.png")),
                      readEvents(data("a.events.png")) + readEvents(data("c.events.png"))));
    }

    void aVideoThatWouldBeAnalysedOtherwiseThanAFirstManifestIsLeftOut()
    {
        const ToolRunning::Result result = tool({"--data", "--combine", "day", other("noblur/a.json"), clip("b.mkv")});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("b.mkv") && result.err.contains("would be analysed")
                     && result.err.contains("blur true, not false"),
                 result.err.constData());
        QVERIFY(equal(readEvents(out("day.events.png")), readEvents(other("noblur/a.events.png"))));
    }

    void aParameterAddedAfterAManifestWasWrittenIsComparedToo()
    {
        const QString copy = copyWithParameterOfB("stabilise", true);
        QVERIFY(!copy.isEmpty());
        const ToolRunning::Result result = tool({"--combine", "day", copy + "/a.json", copy + "/b.json"});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("b.json") && result.err.contains("stabilise true, not none"),
                 result.err.constData());
    }

    void manifestsDrawnOnAnotherScaleAreStillCombined()
    {
        const QString copy = copyWithParameterOfB("scale", QJsonObject{{"events_at_top", 20}, {"auto", false}});
        QVERIFY(!copy.isEmpty());
        const ToolRunning::Result result = tool({"--data", "--combine", "day", copy + "/a.json", copy + "/b.json"});
        QCOMPARE(result.exitCode, 0);
        QVERIFY(equal(readEvents(out("day.events.png")),
                      readEvents(data("a.events.png")) + readEvents(data("b.events.png"))));
    }

    // The videos are analysed as the options say; the manifests keep what they recorded.
    void optionsBesideManifestsSayOnceThatTheyDoNotApplyToThem()
    {
        const ToolRunning::Result result =
            tool({"--data", "--no-blur", "--combine", "day", other("noblur/a.json"), clip("b.mkv")});
        QCOMPARE(result.exitCode, 0);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("--no-blur") && result.err.contains("not applied to the manifest inputs"),
                 result.err.constData());
        QVERIFY(equal(readEvents(out("day.events.png")),
                      readEvents(other("noblur/a.events.png")) + readEvents(other("noblur/b.events.png"))));
        QVERIFY(renew());
        const ToolRunning::Result all = tool({"--mask", other("mask.png"), "--start", "0", "--end", "10", "--combine",
                                              "day", data("a.json"), data("b.json")});
        QCOMPARE(all.exitCode, 0);
        QCOMPARE(all.err.count('\n'), 1);
        for (const char* option : {"--mask", "--start", "--end"})
            QVERIFY2(all.err.contains(option), all.err.constData());
    }

    void optionsWithVideosAloneSayNothing()
    {
        const ToolRunning::Result result =
            tool({"--no-blur", "--start", "0", "--combine", "day", clip("a.mkv"), clip("b.mkv")});
        QCOMPARE(result.exitCode, 0);
        QCOMPARE(result.err, QByteArray());
    }

    void aManifestWithoutCombineSaysManifestsAreReadWithCombine()
    {
        const ToolRunning::Result result = tool({"--data", data("a.json")});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains(data("a.json").toUtf8()) && result.err.contains("--combine")
                     && !result.err.contains("Can't open video file"),
                 result.err.constData());
        QVERIFY(entries(outPath()).isEmpty());
    }

    // The manifest claims no file: the video beside it that would write a.png still does.
    void aVideoBesideAManifestWithoutCombineIsStillAnalysed()
    {
        const ToolRunning::Result result = tool({data("a.json"), clip("a.mkv")});
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QCOMPARE(entries(outPath()), QStringList{"a.png"});
    }

    // 3 MB whose header declares 40000 x 40000 16-bit pixels, with a matching checksum: the
    // merge must refuse it before decoding, within the README's --mem=1G for a cluster node.
    void countsDeclaringAHugePictureAreRefusedFromTheHeaderWithinAGigabyte()
    {
        const QString copy = copyOfData();
        const QByteArray huge = TestSupport::blackGreyPng(40000, 40000, 16);
        QVERIFY(!huge.isEmpty());
        QVERIFY(writeFile(copy + "/b.events.png", huge));
        QJsonObject manifest = readJson(copy + "/b.json");
        QJsonArray files = manifest["files"].toArray();
        for (int i = 0; i < files.size(); ++i) {
            QJsonObject file = files[i].toObject();
            if (file["role"].toString() != "events")
                continue;
            file["size_bytes"] = double(huge.size());
            file["sha256"] = QString::fromLatin1(QCryptographicHash::hash(huge, QCryptographicHash::Sha256).toHex());
            files[i] = file;
        }
        manifest["files"] = files;
        QVERIFY(writeFile(copy + "/b.json", QJsonDocument(manifest).toJson()));
        long peakKb = 0;
        const ToolRunning::Result result = ToolRunning::run(
            {"--quiet", "--data", "--output-dir", outPath(), "--combine", "day", copy + "/a.json", copy + "/b.json"},
            120000, &peakKb);
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("b.events.png") && result.err.contains("40000x40000")
                     && result.err.contains("96x64"),
                 result.err.constData());
        QVERIFY2(peakKb > 0 && peakKb < 1024 * 1024, qPrintable(QStringLiteral("peak %1 kB").arg(peakKb)));
        QVERIFY(equal(readEvents(out("day.events.png")), readEvents(data("a.events.png"))));
    }

    void aNameWithAFolderIsAUsageErrorAndWritesNothing_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("slash") << "maps/day";
        QTest::newRow("leading slash") << "/tmp/day";
        QTest::newRow("backslash") << "maps\\day";
        QTest::newRow("dot dot") << "..";
        QTest::newRow("empty") << "";
    }

    void aNameWithAFolderIsAUsageErrorAndWritesNothing()
    {
        QFETCH(QString, name);
        const ToolRunning::Result result = tool(QStringList{"--data", "--combine=" + name} + videos());
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.startsWith("tremora-map: Bad name '" + name.toUtf8() + "' for --combine"),
                 result.err.constData());
        QVERIFY(entries(outPath()).isEmpty());
    }

    void anExistingCombinedFileIsNotReplacedAndNothingIsAnalysed()
    {
        QVERIFY(writeFile(out("day.json"), "earlier"));
        const ToolRunning::Result result = tool(QStringList{"--data", "--combine", "day"} + videos());
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err.count('\n'), 1);
        QVERIFY2(result.err.contains("day.json"), result.err.constData());
        QCOMPARE(entries(outPath()), QStringList{"day.json"});
        QCOMPARE(readAll(out("day.json")), QByteArray("earlier"));
    }

    void aCombinedFileNeverReplacesAnInput()
    {
        const QString copy = copyOfData();
        const ToolRunning::Result result = ToolRunning::run(
            {"--quiet", "--overwrite", "--data", "--output-dir", copy, "--combine", "a", copy + "/a.json", copy + "/b.json"});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("would replace the input"), result.err.constData());
        QCOMPARE(readAll(copy + "/a.json"), readAll(data("a.json")));
    }

    void autoScaleIsTakenOverTheCombinedCounts()
    {
        QCOMPARE(tool(QStringList{"--data", "--scale", "auto", "--combine", "day"} + videos()).exitCode, 0);
        const cv::Mat sum = readEvents(out("day.events.png"));
        std::vector<int> values;
        for (int y = 0; y < sum.rows; ++y)
            for (int x = 0; x < sum.cols; ++x)
                if (sum.at<int>(y, x) > 0)
                    values.push_back(sum.at<int>(y, x));
        std::sort(values.begin(), values.end());
        const double top = values[static_cast<size_t>(std::ceil(0.99 * double(values.size()))) - 1];
        const QJsonObject scale = readJson(out("day.json"))["scale"].toObject();
        QCOMPARE(scale["events_at_top"].toDouble(), top);
        QVERIFY(scale["auto"].toBool());
        QCOMPARE(QImage(out("day.png")).convertToFormat(QImage::Format_RGB888),
                 MotionMap::render(sum, readBackground(data("a.background.png")), top));
    }
};

QTEST_GUILESS_MAIN(TremoraMapCombineTest)
#include "TremoraMapCombineTest.moc"
