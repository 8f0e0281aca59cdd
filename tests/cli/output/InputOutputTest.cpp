#include "InputOutput.h"

#include "Legend.h"
#include "MotionMap.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>

namespace {

// A pass's results small enough to read: counts that wrap, exact counts that do not, a
// background of one colour.
struct PassResults {
    PassResults()
    {
        motionCount = cv::Mat(24, 32, CV_8UC1, cv::Scalar(0));
        exactCounts = cv::Mat(24, 32, CV_16UC1, cv::Scalar(0));
        for (int x = 0; x < 32; ++x) {
            exactCounts.at<std::uint16_t>(5, x) = static_cast<std::uint16_t>(x * 20);
            motionCount.at<std::uint8_t>(5, x) = static_cast<std::uint8_t>((x * 20) % 256);
        }
        background = cv::Mat(24, 32, CV_8UC3, cv::Scalar(90, 120, 150));
        facts.exactCounts = exactCounts;
        facts.video.frameRate = 10.0;
        facts.pairsAnalysed = 36000;
        facts.video.creationTime = "2024-05-01T10:00:00Z";
    }

    cv::Mat motionCount;
    cv::Mat exactCounts;
    cv::Mat background;
    MotionPassFacts facts;
};

class Recorder final : public InputOutput {
public:
    using InputOutput::InputOutput;
    QString role() const override { return QStringLiteral("recorder"); }
    QString write(FinishedInput&) override { return {}; }
};

} // namespace

class InputOutputTest : public QObject {
    Q_OBJECT

private slots:
    void init();

    void theMapIsTheWindowsWithoutAScale();
    void theMapIsDrawnFromTheExactCountsOnAGivenScale();
    void theLegendExplainsTheMapWithTheVideosNameSpanFootageAndMask();
    void theManifestRecordsTheInputAsItStands();
    void aFailedInputSaysWhy();

    void aMissingFileMayBeWritten();
    void anExistingFileIsRefusedUnlessItMayBeReplaced();
    void aDanglingLinkIsRefusedUnlessItMayBeReplaced();

private:
    QString path(const QString& name) const { return QDir(m_dir->path()).filePath(name); }
    std::unique_ptr<QTemporaryDir> m_dir;
};

void InputOutputTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void InputOutputTest::theMapIsTheWindowsWithoutAScale()
{
    PassResults pass;
    PlannedInput input;
    MapToolOptions options;
    FinishedInput finished(input, options, pass.facts, pass.motionCount, pass.background);
    QCOMPARE(finished.map(), MotionMap::render(pass.motionCount, pass.background));
}

void InputOutputTest::theMapIsDrawnFromTheExactCountsOnAGivenScale()
{
    PassResults pass;
    PlannedInput input;
    MapToolOptions options;
    FinishedInput finished(input, options, pass.facts, pass.motionCount, pass.background);
    finished.mapScale = 400.0;
    const QImage expected = MotionMap::render(pass.exactCounts, pass.background, 400.0);
    QCOMPARE(finished.map(), expected);
    // The wrapping count would draw pixels above 255 events cold again.
    QVERIFY(finished.map() != MotionMap::render(pass.motionCount, pass.background));
}

void InputOutputTest::theLegendExplainsTheMapWithTheVideosNameSpanFootageAndMask()
{
    PassResults pass;
    PlannedInput input;
    input.video = QStringLiteral("/cams/door/clip.mp4");
    MapToolOptions options;
    options.hasStart = true;
    options.start = 60.0;
    options.maskPath = QStringLiteral("/masks/door.png");
    FinishedInput finished(input, options, pass.facts, pass.motionCount, pass.background);
    Legend::Content content;
    content.name = QStringLiteral("clip.mp4");
    content.timeSpan = QStringLiteral("2024-05-01 10:01:00 – 11:01:00 UTC");
    content.scale = MotionMap::kDefaultScale;
    content.footageHours = 1.0;
    content.mask = QStringLiteral("door.png");
    QCOMPARE(finished.legend(), Legend::render(MotionMap::render(pass.motionCount, pass.background), content));
}

void InputOutputTest::theManifestRecordsTheInputAsItStands()
{
    PassResults pass;
    PlannedInput input;
    MapToolOptions options;
    FinishedInput finished(input, options, pass.facts, pass.motionCount, pass.background);
    finished.outcome = Manifest::Outcome::Failed;
    finished.error = QStringLiteral("Can't save file 'x'");
    finished.written = {{QStringLiteral("map"), QStringLiteral("/out/clip.png")}};
    finished.pairsWithMotion = 12;
    finished.mapScale = 3.5;
    const Manifest::Content content = finished.manifestContent();
    QCOMPARE(content.input, &input);
    QCOMPARE(content.options, &options);
    QCOMPARE(content.facts, &pass.facts);
    QVERIFY(content.outcome == Manifest::Outcome::Failed);
    QCOMPARE(content.error, finished.error);
    QCOMPARE(content.written.size(), size_t(1));
    QCOMPARE(content.written.front().role, QStringLiteral("map"));
    QCOMPARE(content.written.front().path, QStringLiteral("/out/clip.png"));
    QCOMPARE(content.pairsWithMotion, std::int64_t(12));
    QCOMPARE(content.mapScale, 3.5);
}

void InputOutputTest::aFailedInputSaysWhy()
{
    PassResults pass;
    PlannedInput input;
    MapToolOptions options;
    FinishedInput finished(input, options, pass.facts, pass.motionCount, pass.background);
    QVERIFY(finished.outcome == Manifest::Outcome::Done);
    finished.fail(QStringLiteral("Can't open video file 'x.mp4'"));
    QVERIFY(finished.outcome == Manifest::Outcome::Failed);
    QCOMPARE(finished.error, QStringLiteral("Can't open video file 'x.mp4'"));
    QCOMPARE(finished.manifestContent().error, finished.error);
}

void InputOutputTest::aMissingFileMayBeWritten()
{
    QVERIFY(Recorder(path("clip.png"), false).refusal().isEmpty());
}

void InputOutputTest::anExistingFileIsRefusedUnlessItMayBeReplaced()
{
    QVERIFY(TestSupport::writeFile(path("clip.png"), "old"));
    QCOMPARE(Recorder(path("clip.png"), false).refusal(),
             QStringLiteral("File '%1' exists; not replaced (--overwrite replaces it)").arg(path("clip.png")));
    QVERIFY(Recorder(path("clip.png"), true).refusal().isEmpty());
}

void InputOutputTest::aDanglingLinkIsRefusedUnlessItMayBeReplaced()
{
    QVERIFY(QFile::link(path("gone.png"), path("clip.png")));
    QVERIFY(!Recorder(path("clip.png"), false).refusal().isEmpty());
    QVERIFY(Recorder(path("clip.png"), true).refusal().isEmpty());
}

QTEST_MAIN(InputOutputTest)
#include "InputOutputTest.moc"
