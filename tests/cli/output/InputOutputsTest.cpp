#include "InputOutputs.h"

#include "ActivityCsv.h"
#include "ImageFile.h"
#include "Legend.h"
#include "MapImages.h"
#include "MotionMap.h"
#include "OutputPlan.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>

namespace {

// An output that writes nothing but says when it was asked to, and fails when told to.
class Probe final : public InputOutput {
public:
    Probe(const QString& path, bool replaces, QStringList& log, QString failure = {}, bool records = false)
        : InputOutput(path, replaces)
        , m_log(log)
        , m_failure(std::move(failure))
        , m_records(records)
    {
    }

    bool recordsEveryOutcome() const override { return m_records; }
    QString role() const override { return QStringLiteral("probe ") + QFileInfo(path()).fileName(); }
    QString write(FinishedInput& finished) override
    {
        QStringList before;
        for (const Manifest::WrittenFile& file : finished.written)
            before << file.path;
        m_log << QFileInfo(path()).fileName() + QStringLiteral(" after ") + before.join(QLatin1Char('+'));
        return m_failure;
    }

private:
    QStringList& m_log;
    QString m_failure;
    bool m_records;
};

struct PassResults {
    PassResults()
    {
        motionCount = cv::Mat(12, 16, CV_8UC1, cv::Scalar(0));
        motionCount(cv::Rect(2, 2, 5, 5)).setTo(7);
        exactCounts = cv::Mat(12, 16, CV_16UC1, cv::Scalar(0));
        exactCounts(cv::Rect(2, 2, 5, 5)).setTo(7);
        background = cv::Mat(12, 16, CV_8UC3, cv::Scalar(10, 200, 30));
        facts.exactCounts = exactCounts;
        facts.video.frameRate = 25.0;
        facts.video.width = 16;
        facts.video.height = 12;
        facts.pairsAnalysed = 3;
    }

    cv::Mat motionCount;
    cv::Mat exactCounts;
    cv::Mat background;
    MotionPassFacts facts;
};

// An input whose pass has ended well, and probes to write for it.
struct Writing {
    void add(const QString& path, QString failure = {}, bool records = false, bool replaces = false)
    {
        outputs.push_back(std::make_unique<Probe>(path, replaces, log, std::move(failure), records));
    }
    void writeAll() { InputOutputs::writeAll(outputs, finished); }

    PassResults pass;
    PlannedInput input;
    MapToolOptions options;
    FinishedInput finished{input, options, pass.facts, pass.motionCount, pass.background};
    QStringList log;
    InputOutputList outputs;
};

bool put(const QString& path)
{
    return TestSupport::writeFile(path, "old");
}

QStringList pathsOf(const InputOutputList& outputs)
{
    QStringList paths;
    for (const auto& output : outputs)
        paths << output->path();
    return paths;
}

QStringList rolesOf(const InputOutputList& outputs)
{
    QStringList roles;
    for (const auto& output : outputs)
        roles << output->role();
    return roles;
}

// The files written, as "role path".
QStringList recordOf(const std::vector<Manifest::WrittenFile>& written)
{
    QStringList files;
    for (const Manifest::WrittenFile& file : written)
        files << file.role + QLatin1Char(' ') + file.path;
    return files;
}

} // namespace

class InputOutputsTest : public QObject {
    Q_OBJECT

private slots:
    void init();

    void aPlainRunWritesOnlyTheMap();
    void everyFileAskedForIsWrittenInThePlansOrderManifestLast();
    void slicesWriteNoMapOfTheWholeVideo();
    void outputsReplaceOnlyWithOverwrite();
    void aManifestOfACanceledAnalysisIsReplacedWithoutOverwrite();
    void aCombinationKeepsOnlyTheActivityTableWithData();

    void eachOutputIsWrittenInTurnAndRecordedAsWritten();
    void aFileThatAppearedStopsEveryOutputBeforeAnyIsWritten();
    void aFileThatAppearedIsReplacedWhenAllowed();
    void aFailedOutputStopsTheRestButTheRecordIsStillWritten();
    void aRecordsErrorCountsOnlyWhenThereWasNoneBefore();
    void aCanceledInputWritesOnlyItsRecord();

    void theFilesWrittenAreTheMapsImagesTableAndManifest();

private:
    QString path(const QString& name) const { return QDir(m_dir->path()).filePath(name); }
    PlannedInput plannedFor(const MapToolOptions& options) const;
    std::unique_ptr<QTemporaryDir> m_dir;
};

void InputOutputsTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

PlannedInput InputOutputsTest::plannedFor(const MapToolOptions& given) const
{
    MapToolOptions options = given;
    options.videos = QStringList{path("clip.mp4")};
    const std::vector<PlannedInput> planned = OutputPlan::plan(options);
    return planned.front();
}

void InputOutputsTest::aPlainRunWritesOnlyTheMap()
{
    MapToolOptions options;
    const PlannedInput input = plannedFor(options);
    QCOMPARE(pathsOf(InputOutputs::of(input, options)), QStringList{path("clip.png")});
}

void InputOutputsTest::everyFileAskedForIsWrittenInThePlansOrderManifestLast()
{
    MapToolOptions options;
    options.legend = true;
    options.counts = true;
    options.data = true;
    const PlannedInput input = plannedFor(options);
    const QStringList expected{path("clip.png"),        path("clip.legend.png"),   path("clip.counts.png"),
                               path("clip.events.png"), path("clip.background.png"), path("clip.activity.csv"),
                               path("clip.json")};
    const InputOutputList outputs = InputOutputs::of(input, options);
    QCOMPARE(pathsOf(outputs), expected);
    QCOMPARE(input.outputs(), expected);
    QCOMPARE(rolesOf(outputs),
             (QStringList{"map", "legend", "counts", "events", "background", "activity", "manifest"}));
}

void InputOutputsTest::slicesWriteNoMapOfTheWholeVideo()
{
    MapToolOptions options;
    options.sliceSeconds = 60.0;
    options.legend = true;
    const PlannedInput input = plannedFor(options);
    QVERIFY(InputOutputs::of(input, options).empty());
}

void InputOutputsTest::outputsReplaceOnlyWithOverwrite()
{
    MapToolOptions options;
    options.background = true;
    PlannedInput input = plannedFor(options);
    QVERIFY(put(input.mapPath));
    QVERIFY(put(input.backgroundPath));
    for (const auto& output : InputOutputs::of(input, options))
        QVERIFY(!output->refusal().isEmpty());
    options.overwrite = true;
    for (const auto& output : InputOutputs::of(input, options))
        QVERIFY(output->refusal().isEmpty());
}

void InputOutputsTest::aManifestOfACanceledAnalysisIsReplacedWithoutOverwrite()
{
    MapToolOptions options;
    options.data = true;
    PlannedInput input = plannedFor(options);
    QVERIFY(put(input.manifestPath));
    const auto refused = InputOutputs::of(input, options);
    QCOMPARE(refused.back()->path(), input.manifestPath);
    QVERIFY(!refused.back()->refusal().isEmpty());
    input.replacesCanceledManifest = true;
    const auto allowed = InputOutputs::of(input, options);
    QVERIFY(allowed.back()->refusal().isEmpty());
}

void InputOutputsTest::aCombinationKeepsOnlyTheActivityTableWithData()
{
    PlannedInput input;
    input.video = path("clip.mp4");
    input.mapPath = path("all.png");
    input.activityPath = path("table.csv");
    MapToolOptions options;
    options.combineName = QStringLiteral("all");
    QVERIFY(InputOutputs::forCombination(input, options).empty());
    options.data = true;
    QVERIFY(put(input.activityPath));
    const auto outputs = InputOutputs::forCombination(input, options);
    QCOMPARE(pathsOf(outputs), QStringList{path("table.csv")});
    // The combination's own temporary file, replaced without being asked.
    QVERIFY(outputs.front()->refusal().isEmpty());
}

void InputOutputsTest::eachOutputIsWrittenInTurnAndRecordedAsWritten()
{
    Writing writing;
    writing.add(path("a"));
    writing.add(path("b"));
    writing.add(path("record"), {}, true);
    writing.writeAll();
    QCOMPARE(writing.log,
             (QStringList{"a after ", "b after " + path("a"), "record after " + path("a") + "+" + path("b")}));
    QVERIFY(writing.finished.outcome == Manifest::Outcome::Done);
    QVERIFY(writing.finished.error.isEmpty());
    QCOMPARE(recordOf(writing.finished.written),
             (QStringList{"probe a " + path("a"), "probe b " + path("b"), "probe record " + path("record")}));
}

void InputOutputsTest::aFileThatAppearedStopsEveryOutputBeforeAnyIsWritten()
{
    QVERIFY(put(path("c")));
    Writing writing;
    writing.add(path("a"));
    writing.add(path("b"));
    writing.add(path("c"));
    writing.add(path("record"), {}, true);
    writing.writeAll();
    QCOMPARE(writing.log, QStringList{"record after "});
    QVERIFY(writing.finished.outcome == Manifest::Outcome::Failed);
    QCOMPARE(writing.finished.error,
             QStringLiteral("File '%1' exists; not replaced (--overwrite replaces it)").arg(path("c")));
    QCOMPARE(recordOf(writing.finished.written), QStringList{"probe record " + path("record")});
}

void InputOutputsTest::aFileThatAppearedIsReplacedWhenAllowed()
{
    QVERIFY(put(path("a")));
    Writing writing;
    writing.add(path("a"), {}, false, true);
    writing.writeAll();
    QCOMPARE(writing.log, QStringList{"a after "});
    QVERIFY(writing.finished.error.isEmpty());
}

void InputOutputsTest::aFailedOutputStopsTheRestButTheRecordIsStillWritten()
{
    Writing writing;
    writing.add(path("a"));
    writing.add(path("b"), QStringLiteral("disk full"));
    writing.add(path("c"));
    writing.add(path("record"), {}, true);
    writing.writeAll();
    QCOMPARE(writing.log, (QStringList{"a after ", "b after " + path("a"), "record after " + path("a")}));
    QVERIFY(writing.finished.outcome == Manifest::Outcome::Failed);
    QCOMPARE(writing.finished.error, QStringLiteral("disk full"));
}

void InputOutputsTest::aRecordsErrorCountsOnlyWhenThereWasNoneBefore()
{
    Writing alone;
    alone.add(path("record"), QStringLiteral("no room"), true);
    alone.writeAll();
    QCOMPARE(alone.finished.error, QStringLiteral("no room"));
    QVERIFY(alone.finished.written.empty());

    Writing afterAFailure;
    afterAFailure.add(path("a"), QStringLiteral("disk full"));
    afterAFailure.add(path("record"), QStringLiteral("no room"), true);
    afterAFailure.writeAll();
    QCOMPARE(afterAFailure.finished.error, QStringLiteral("disk full"));
}

void InputOutputsTest::aCanceledInputWritesOnlyItsRecord()
{
    Writing writing;
    writing.finished.outcome = Manifest::Outcome::Canceled;
    writing.add(path("a"));
    writing.add(path("record"), {}, true);
    writing.writeAll();
    QCOMPARE(writing.log, QStringList{"record after "});
    QVERIFY(writing.finished.outcome == Manifest::Outcome::Canceled);
    QVERIFY(writing.finished.error.isEmpty());
}

void InputOutputsTest::theFilesWrittenAreTheMapsImagesTableAndManifest()
{
    MapToolOptions options;
    options.counts = true;
    options.legend = true;
    options.data = true;
    const PlannedInput input = plannedFor(options);
    PassResults pass;
    auto outputs = InputOutputs::of(input, options);
    const MotionPassHooks::PairRecord first{0, 0.04, 25, 25};
    const MotionPassHooks::PairRecord second{1, 0.08, 0, 0};
    for (const auto& output : outputs) {
        output->pairCounted(first);
        output->pairCounted(second);
    }
    FinishedInput finished(input, options, pass.facts, pass.motionCount, pass.background);
    finished.pairsWithMotion = 1;
    InputOutputs::writeAll(outputs, finished);
    QVERIFY2(finished.error.isEmpty(), qPrintable(finished.error));

    // Each image as the image writer saves it, from the pass's results.
    QVERIFY(QDir(m_dir->path()).mkpath("reference"));
    const auto sameAs = [&](const QString& name, const QImage& image) {
        const QString reference = path("reference/" + name);
        return Utils::saveImage(image, reference) && TestSupport::readFile(path(name)) == TestSupport::readFile(reference);
    };
    const QImage map = MotionMap::render(pass.motionCount, pass.background);
    QVERIFY(sameAs("clip.png", map));
    const double footage = 3 / 25.0;
    QVERIFY(sameAs("clip.legend.png", Legend::render(map, Legend::contentOf("clip.mp4", Legend::timeSpan("", 0.0, footage),
                                                                            MotionMap::kDefaultScale, footage, {}, false))));
    QVERIFY(sameAs("clip.counts.png", MapImages::countsImage(pass.motionCount)));
    QVERIFY(sameAs("clip.events.png", MapImages::eventsImage(pass.exactCounts)));
    QVERIFY(sameAs("clip.background.png", MapImages::backgroundImage(pass.background)));
    QCOMPARE(TestSupport::readFile(path("clip.activity.csv")),
             QByteArray(ActivityCsv::kHeader) + "0,0.040000,25,25\n1,0.080000,0,0\n");
    const QJsonObject manifest = QJsonDocument::fromJson(TestSupport::readFile(path("clip.json"))).object();
    QCOMPARE(manifest, finished.manifest);
    QCOMPARE(manifest["outcome"].toObject()["status"].toString(), QStringLiteral("done"));
    QStringList files;
    for (const QJsonValue file : manifest["files"].toArray())
        files << file["role"].toString() + QLatin1Char(' ') + file["name"].toString();
    QCOMPARE(files, (QStringList{"map clip.png", "legend clip.legend.png", "counts clip.counts.png",
                                 "events clip.events.png", "background clip.background.png",
                                 "activity clip.activity.csv"}));
    QCOMPARE(manifest["summary"].toObject()["pairs_with_motion_share"].toDouble(), 1.0 / 3.0);
}

QTEST_MAIN(InputOutputsTest)
#include "InputOutputsTest.moc"
