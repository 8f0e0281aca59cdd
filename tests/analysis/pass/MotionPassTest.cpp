#include "AsyncBackgroundLearner.h"
#include "ClipMaking.h"
#include "FrameSource.h"
#include "MotionMap.h"
#include "MotionPass.h"
#include "MpegFrame.h"
#include "MpegReader.h"
#include "ReferenceMotion.h"
#include "TestSupport.h"
#include "ThreadPriority.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/video/background_segm.hpp>

#include <algorithm>
#include <memory>
#include <utility>

#include <sys/syscall.h>
#include <unistd.h>

using namespace ClipMaking;

namespace {

using Refresh = MotionPassHooks::Refresh;

// Records what a pass reports, and cancels on request.
class RecordingHooks : public MotionPassHooks {
public:
    explicit RecordingHooks(const cv::Mat* background = nullptr)
        : m_background(background)
    {
    }

    bool cancelAtStart = false;
    int cancelAfterPairs = -1;

    int startedCount = 0;
    int pairs = 0;
    int cancelPolls = 0;
    std::vector<std::int64_t> positions;
    std::vector<std::pair<Refresh, int>> refreshes;
    std::vector<cv::Mat> milestoneBackgrounds;

    bool cancelRequested() override
    {
        ++cancelPolls;
        return cancelAtStart || (cancelAfterPairs >= 0 && pairs >= cancelAfterPairs);
    }
    void started() override { ++startedCount; }
    void positionChanged(std::int64_t bytes) override { positions.push_back(bytes); }
    void pairAnalysed() override { ++pairs; }
    void refresh(Refresh kind) override
    {
        refreshes.emplace_back(kind, pairs);
        if (kind == Refresh::Milestone && m_background)
            milestoneBackgrounds.push_back(m_background->clone());
    }

private:
    const cv::Mat* m_background;
};

// Also keeps every pair's record.
class PairRecordingHooks : public RecordingHooks {
public:
    std::vector<PairRecord> records;

    void pairCounted(const PairRecord& record) override { records.push_back(record); }
};

// Also keeps every slice handed over, with a copy of its counts.
class SliceRecordingHooks : public RecordingHooks {
public:
    struct Slice {
        int index;
        double start;
        cv::Mat counts;
    };
    std::vector<Slice> slices;

    void sliceEnded(int slice, double startSeconds, const cv::Mat& exactCounts) override
    {
        slices.push_back({slice, startSeconds, exactCounts.clone()});
    }
};

// Also keeps every step handed over, with a copy of its counts.
class StepRecordingHooks : public RecordingHooks {
public:
    struct Step {
        int index;
        double lastPairTime;
        cv::Mat counts;
    };
    std::vector<Step> steps;

    void stepEnded(int step, double lastPairTime, const cv::Mat& exactCounts) override
    {
        steps.push_back({step, lastPairTime, exactCounts.clone()});
    }
};

// Answers true from the given poll on.
class CancelAfterPolls : public RecordingHooks {
public:
    explicit CancelAfterPolls(int polls)
        : m_polls(polls)
    {
    }

    bool cancelRequested() override
    {
        RecordingHooks::cancelRequested();
        return cancelPolls >= m_polls;
    }

private:
    int m_polls;
};

using ThreadPriority::niceOfCallingThread;

long callingThreadId()
{
    return syscall(SYS_gettid);
}

// Also records which thread reports the pairs, and at what nice value.
class ThreadRecordingHooks : public RecordingHooks {
public:
    long pairThread = 0;
    int pairNice = 0;
    bool pairsFromOneThread = true;

    void pairAnalysed() override
    {
        RecordingHooks::pairAnalysed();
        const long thread = callingThreadId();
        pairsFromOneThread = pairsFromOneThread && (pairThread == 0 || pairThread == thread);
        pairThread = thread;
        pairNice = niceOfCallingThread();
    }
};

struct PassResult {
    MotionPassOutcome outcome;
    cv::Mat counts;
    cv::Mat background;
    int framesRead;
};

// One decoder thread unless asked: the pictures are then exactly those a plain reader returns.
PassResult runPass(const QString& path, RecordingHooks& hooks, bool blur = true, int updateInterval = 300,
                   int decoderThreads = 1)
{
    PassResult result{MotionPassOutcome::OpenFailed, cv::Mat(), cv::Mat(), 0};
    const int before = MpegReader::m_processedFrameCount.load();
    MotionPassSettings settings;
    settings.blur = blur;
    settings.updateInterval = updateInterval;
    settings.decoderThreads = decoderThreads;
    result.outcome = MotionPass::run(path.toUtf8(), settings, result.counts, result.background, hooks);
    result.framesRead = MpegReader::m_processedFrameCount.load() - before;
    return result;
}

bool equal(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

cv::Mat referenceCounts(const std::vector<cv::Mat>& frames, bool blur)
{
    Reference::Analysis reference(frames.front().cols, frames.front().rows, blur);
    for (const cv::Mat& frame : frames)
        reference.addFrame(frame);
    return reference.counts();
}

// Everything a reference needs from a decoded file: grey pictures and R,G,B conversions.
struct Decoded {
    std::vector<cv::Mat> grey;
    std::vector<cv::Mat> rgb;
};

Decoded decodeAll(const QString& path, int decoderThreads = 1)
{
    Decoded decoded;
    MpegReader reader;
    reader.setDecoderThreads(decoderThreads);
    if (!reader.open(path.toUtf8().constData()))
        return decoded;
    while (std::unique_ptr<MpegFrame> frame{reader.read(true)}) {
        const cv::Mat view(frame->height(), frame->width(), CV_8UC1, frame->data(), static_cast<size_t>(frame->step()));
        decoded.grey.push_back(view.clone());
        cv::Mat rgb(frame->height(), frame->width(), CV_8UC3);
        frame->rgb24(rgb.data, static_cast<int>(rgb.step), rgb.cols, rgb.rows);
        decoded.rgb.push_back(rgb);
    }
    reader.close();
    return decoded;
}

std::shared_ptr<const MpegFrame> firstFrameOf(const QString& path)
{
    MpegReader reader;
    if (!reader.open(path.toUtf8().constData()))
        return nullptr;
    return std::shared_ptr<const MpegFrame>(reader.read(true));
}

// The background a default model learns from the 100 frames after frame `first` (the first
// one analysed).
cv::Mat referenceBackground(const std::vector<cv::Mat>& rgbFrames, size_t first = 0)
{
    cv::Ptr<cv::BackgroundSubtractorMOG2> model = cv::createBackgroundSubtractorMOG2();
    cv::Mat mask, background;
    for (size_t i = first + 1; i < rgbFrames.size() && i <= first + 100; ++i)
        model->apply(rgbFrames[i], mask, -1.0);
    if (rgbFrames.size() > first + 1)
        model->getBackgroundImage(background);
    return background;
}

cv::Mat expectedCounts(cv::Size size, const std::vector<std::pair<cv::Point, int>>& squaresAndCounts)
{
    cv::Mat counts(size, CV_8UC1, cv::Scalar(0));
    for (const auto& [corner, count] : squaresAndCounts)
        counts(square(corner)).setTo(cv::Scalar(count));
    return counts;
}

struct DetailedPass {
    MotionPassOutcome outcome = MotionPassOutcome::OpenFailed;
    cv::Mat counts;
    cv::Mat background;
    MotionPassFacts facts;
    std::vector<MotionPassHooks::PairRecord> records;
};

DetailedPass runDetailedPass(const QString& path, MotionPassSettings settings)
{
    settings.detailed = true;
    DetailedPass pass;
    PairRecordingHooks hooks;
    pass.outcome = MotionPass::run(path.toUtf8(), settings, pass.counts, pass.background, hooks, &pass.facts);
    pass.records = hooks.records;
    return pass;
}

MotionPassSettings sharpSettings()
{
    MotionPassSettings settings;
    settings.blur = false;
    return settings;
}

MotionPassSettings windowSettings(double start, double end)
{
    MotionPassSettings settings;
    settings.windowStart = start;
    settings.windowEnd = end;
    return settings;
}

// The reference over `frames`, with `mask` at the frames' size (empty for none).
Reference::Analysis referenceOver(const std::vector<cv::Mat>& frames, bool blur, const cv::Mat& mask = {})
{
    Reference::Analysis reference(frames.front().cols, frames.front().rows, blur, mask);
    for (const cv::Mat& frame : frames)
        reference.addFrame(frame);
    return reference;
}

cv::Mat as32Bit(const cv::Mat& matrix)
{
    cv::Mat out;
    matrix.convertTo(out, CV_32SC1);
    return out;
}

bool sameActivity(const std::vector<MotionPassHooks::PairRecord>& records,
                  const std::vector<Reference::Analysis::Pair>& expected)
{
    if (records.size() != expected.size())
        return false;
    for (size_t i = 0; i < records.size(); ++i) {
        if (records[i].pair != static_cast<int>(i) || records[i].movingPixels != expected[i].moving
            || records[i].newEvents != expected[i].newEvents)
            return false;
    }
    return true;
}

const cv::Size kSize(64, 48);
const cv::Point kA(8, 8);
const cv::Point kB(40, 8);
const cv::Point kC(8, 32);

} // namespace

Q_DECLARE_METATYPE(MotionPassOutcome)

class MotionPassTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString clip(const QString& name, const std::vector<cv::Mat>& frames)
    {
        const QString path = m_dir.filePath(name);
        if (!QFile::exists(path) && !writeGray(path, frames))
            return {};
        return path;
    }

    // One square at A for frames 0-9, at B for 10-69, back at A from 70: motion at A and B in
    // pairs 9 and 69, 60 apart, so two events each. Another at C that leaves in pair 19 and
    // returns in pair 49, 30 apart: one event.
    static std::vector<cv::Mat> movingSquares()
    {
        return squares(kSize, 80, [](int i) {
            std::vector<cv::Point> at{i < 10 || i >= 70 ? kA : kB};
            if (i < 20 || i >= 50)
                at.push_back(kC);
            return at;
        });
    }

    // A raw H.264 stream of `frames` frames at 20 a second: it carries no timestamps at all,
    // only its frame rate. Empty when it cannot be made.
    QString untimedClip(const QString& name, int frames)
    {
        const QString path = m_dir.filePath(name);
        const bool made = TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=20", "-frames:v",
                                                  QString::number(frames), "-c:v", "libx264", "-bf", "0", "-f", "h264",
                                                  path});
        return made ? path : QString();
    }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void unopenableFileFailsWithoutReadingAFrame()
    {
        RecordingHooks hooks;
        PassResult result{MotionPassOutcome::Finished, cv::Mat(2, 2, CV_8UC1, cv::Scalar(7)), cv::Mat(), 0};
        const uchar* countData = result.counts.data;
        const int before = MpegReader::m_processedFrameCount.load();
        result.outcome = MotionPass::run(m_dir.filePath("missing.mkv").toUtf8(), MotionPassSettings{}, result.counts,
                                         result.background, hooks);
        QCOMPARE(result.outcome, MotionPassOutcome::OpenFailed);
        QCOMPARE(MpegReader::m_processedFrameCount.load() - before, 0);
        QCOMPARE(hooks.startedCount, 0);
        QCOMPARE(hooks.pairs, 0);
        QVERIFY(hooks.positions.empty());
        QVERIFY(hooks.refreshes.empty());
        QCOMPARE(result.counts.data, countData);
        QVERIFY(result.background.empty());
    }

    void badInputNeverCrashes_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<MotionPassOutcome>("outcome");
        const QByteArray words = QByteArray("just some words, not a video\n").repeated(50);
        QTest::newRow("zero-byte file") << "empty.mkv" << QByteArray() << MotionPassOutcome::OpenFailed;
        QTest::newRow("text file") << "notes.txt" << words << MotionPassOutcome::OpenFailed;
        QTest::newRow("text file of unknown type") << "notes.dat" << words << MotionPassOutcome::OpenFailed;
        QTest::newRow("repeated byte") << "noise.mp4" << QByteArray(4096, '\x5a') << MotionPassOutcome::OpenFailed;
    }

    void badInputNeverCrashes()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, content);
        QFETCH(MotionPassOutcome, outcome);
        const QString path = m_dir.filePath(name);
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
        RecordingHooks hooks;
        const PassResult result = runPass(path, hooks);
        QCOMPARE(result.outcome, outcome);
        QCOMPARE(result.counts.size(), result.background.size());
    }

    void emptyPathAndFolderFailToOpen()
    {
        RecordingHooks hooks;
        QCOMPARE(runPass(QString(), hooks).outcome, MotionPassOutcome::OpenFailed);
        QCOMPARE(runPass(m_dir.path(), hooks).outcome, MotionPassOutcome::OpenFailed);
        QCOMPARE(hooks.startedCount, 0);
    }

    void audioOnlyFileFailsToOpen()
    {
        const QString path = m_dir.filePath("tone.m4a");
        QString error;
        QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "sine=frequency=440:duration=1", "-c:a", "aac", path}, &error),
                 qPrintable(error));
        RecordingHooks hooks;
        QCOMPARE(runPass(path, hooks).outcome, MotionPassOutcome::OpenFailed);
    }

    void truncatedClipEndsDoneWithWhatWasCounted()
    {
        const std::vector<cv::Mat> frames = speckledNoise(kSize, 60, 3);
        const QString full = clip("whole.mkv", frames);
        QVERIFY(!full.isEmpty());
        QFile source(full);
        QVERIFY(source.open(QIODevice::ReadOnly));
        const QByteArray bytes = source.readAll();
        const QString cut = m_dir.filePath("cut.mkv");
        QFile target(cut);
        QVERIFY(target.open(QIODevice::WriteOnly));
        target.write(bytes.left(bytes.size() / 2));
        target.close();

        RecordingHooks hooks;
        const PassResult result = runPass(cut, hooks);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QVERIFY(hooks.pairs > 0 && hooks.pairs < 59);
        const std::vector<cv::Mat> counted(frames.begin(), frames.begin() + hooks.pairs + 1);
        QVERIFY(equal(result.counts, referenceCounts(counted, true)));
    }

    void corruptedClipEndsDoneWithoutCrashing()
    {
        const QString full = clip("whole.mkv", speckledNoise(kSize, 60, 3));
        QVERIFY(!full.isEmpty());
        QFile source(full);
        QVERIFY(source.open(QIODevice::ReadOnly));
        QByteArray bytes = source.readAll();
        for (int i = bytes.size() / 4; i < bytes.size(); i += 97)
            bytes[i] = static_cast<char>(bytes[i] ^ 0x5a);
        const QString broken = m_dir.filePath("broken.mkv");
        QFile target(broken);
        QVERIFY(target.open(QIODevice::WriteOnly));
        target.write(bytes);
        target.close();

        RecordingHooks hooks;
        const PassResult result = runPass(broken, hooks);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QCOMPARE(result.counts.size(), kSize);
        QCOMPARE(result.background.size(), kSize);
    }

    void canceledBeforeStartNeverOpensTheFile()
    {
        // The file does not exist: had the pass tried to open it, it would have failed.
        RecordingHooks hooks;
        hooks.cancelAtStart = true;
        cv::Mat counts(3, 3, CV_8UC1, cv::Scalar(5));
        cv::Mat background;
        const int before = MpegReader::m_processedFrameCount.load();
        const MotionPassOutcome outcome =
            MotionPass::run(m_dir.filePath("missing.mkv").toUtf8(), MotionPassSettings{}, counts, background, hooks);
        QCOMPARE(outcome, MotionPassOutcome::Canceled);
        QCOMPARE(MpegReader::m_processedFrameCount.load() - before, 0);
        QCOMPARE(hooks.startedCount, 1);
        QCOMPARE(hooks.pairs, 0);
        QVERIFY(hooks.refreshes.empty());
        QVERIFY(counts.empty());
        QVERIFY(background.empty());
    }

    void canceledBeforeStartOnARealClipReadsNothing()
    {
        const QString path = clip("noise.mkv", speckledNoise(kSize, 20, 5));
        RecordingHooks hooks;
        hooks.cancelAtStart = true;
        const PassResult result = runPass(path, hooks);
        QCOMPARE(result.outcome, MotionPassOutcome::Canceled);
        QCOMPARE(result.framesRead, 0);
        QVERIFY(hooks.positions.empty());
    }

    void cancelDuringTheVideoStopsAfterTheCurrentPair()
    {
        const std::vector<cv::Mat> frames = speckledNoise(kSize, 40, 5);
        const QString path = clip("noise40.mkv", frames);
        RecordingHooks hooks;
        hooks.cancelAfterPairs = 10;
        const PassResult result = runPass(path, hooks);
        QCOMPARE(result.outcome, MotionPassOutcome::Canceled);
        QCOMPARE(hooks.pairs, 10);
        QCOMPARE(result.framesRead, 11);
        const std::vector<cv::Mat> counted(frames.begin(), frames.begin() + 11);
        QVERIFY(equal(result.counts, referenceCounts(counted, true)));
    }

    void singleFrameVideoKeepsTheBackgroundZero()
    {
        const QString path = clip("single.mkv", speckledNoise(kSize, 1, 5));
        RecordingHooks hooks;
        const PassResult result = runPass(path, hooks);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QCOMPARE(hooks.pairs, 0);
        QCOMPARE(result.background.size(), kSize);
        QCOMPARE(result.background.type(), CV_8UC3);
        QCOMPARE(cv::countNonZero(result.background.reshape(1)), 0);
        QCOMPARE(cv::countNonZero(result.counts), 0);
        // End of video at pair 0: the milestone, and the periodic refresh since 0 divides.
        const std::vector<std::pair<Refresh, int>> expected = {{Refresh::Milestone, 0}, {Refresh::Periodic, 0}};
        QCOMPARE(hooks.refreshes, expected);
        const QImage map = MotionMap::render(result.counts, result.background);
        QCOMPARE(map.size(), QSize(64, 48));
        QCOMPARE(map.pixel(10, 10), qRgb(0, 0, 0));
    }

    void twoFramesMakeOnePairAndFetchTheBackgroundTwice()
    {
        std::vector<cv::Mat> frames = squares(kSize, 2, [](int i) { return i == 1 ? std::vector<cv::Point>{kA} : std::vector<cv::Point>{}; });
        const QString path = clip("two.mkv", frames);
        cv::Mat counts, background;
        RecordingHooks hooks(&background);
        const MotionPassOutcome outcome = MotionPass::run(path.toUtf8(), sharpSettings(), counts, background, hooks);
        QCOMPARE(outcome, MotionPassOutcome::Finished);
        QCOMPARE(hooks.pairs, 1);
        const std::vector<std::pair<Refresh, int>> expected = {{Refresh::Milestone, 1}, {Refresh::Milestone, 1}};
        QCOMPARE(hooks.refreshes, expected);
        // Learnt from the second frame only: the object is part of the background.
        QCOMPARE(hooks.milestoneBackgrounds.size(), size_t(2));
        QCOMPARE(hooks.milestoneBackgrounds[0].at<cv::Vec3b>(10, 10), cv::Vec3b(200, 200, 200));
        QCOMPARE(hooks.milestoneBackgrounds[0].at<cv::Vec3b>(0, 0), cv::Vec3b(50, 50, 50));
        QVERIFY(equal(counts, expectedCounts(kSize, {{kA, 1}})));
    }

    void positionIsReportedAfterEveryReadOfTheLoop()
    {
        const QString path = clip("noise40.mkv", speckledNoise(kSize, 40, 5));
        RecordingHooks hooks;
        const PassResult result = runPass(path, hooks);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QCOMPARE(hooks.pairs, 39);
        // 39 pairs, then the read that finds the end.
        QCOMPARE(hooks.positions.size(), size_t(40));
        QVERIFY(hooks.positions.back() > 0);
        QVERIFY(std::is_sorted(hooks.positions.begin(), hooks.positions.end()));
        // Before the file, once before the loop, once per pair and at the end of the video,
        // and once more for the outcome.
        QCOMPARE(hooks.cancelPolls, 1 + 1 + 40 + 1);
    }

    void refreshesComeAtMilestonesAndEveryInterval()
    {
        const QString path = clip("noise120.mkv", speckledNoise(cv::Size(16, 12), 120, 8));
        RecordingHooks hooks;
        const PassResult result = runPass(path, hooks, true, 25);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QCOMPARE(hooks.pairs, 119);
        const std::vector<std::pair<Refresh, int>> expected = {
            {Refresh::Milestone, 1},   {Refresh::Periodic, 25},  {Refresh::Periodic, 50}, {Refresh::Periodic, 75},
            {Refresh::Milestone, 100}, {Refresh::Periodic, 100}, {Refresh::Milestone, 119}};
        QCOMPARE(hooks.refreshes, expected);
    }

    void updateIntervalOfZeroMeansNoPeriodicRefresh()
    {
        const QString path = clip("noise40.mkv", speckledNoise(kSize, 40, 5));
        RecordingHooks hooks;
        QCOMPARE(runPass(path, hooks, true, 0).outcome, MotionPassOutcome::Finished);
        const std::vector<std::pair<Refresh, int>> expected = {{Refresh::Milestone, 1}, {Refresh::Milestone, 39}};
        QCOMPARE(hooks.refreshes, expected);
    }

    void backgroundIsLearntFromFramesTwoToOneHundredOneOnly()
    {
        // Noise for 101 frames, then black: learning past pair 99 would pull the background
        // towards black.
        std::vector<cv::Mat> frames = speckledNoise(cv::Size(32, 24), 101, 12);
        for (int i = 0; i < 60; ++i)
            frames.emplace_back(24, 32, CV_8UC1, cv::Scalar(0));
        const QString path = clip("learn.mkv", frames);
        cv::Mat counts, background;
        RecordingHooks hooks(&background);
        QCOMPARE(MotionPass::run(path.toUtf8(), MotionPassSettings{}, counts, background, hooks), MotionPassOutcome::Finished);
        const cv::Mat expected = referenceBackground(decodeAll(path).rgb);
        QVERIFY(!expected.empty());
        QVERIFY(equal(background, expected));
        QCOMPARE(hooks.milestoneBackgrounds.size(), size_t(3));
        QVERIFY(equal(hooks.milestoneBackgrounds[1], expected));
    }

    void withoutBackgroundAtMilestonesOnlyTheLaterMilestonesFetchIt()
    {
        std::vector<cv::Mat> frames = speckledNoise(cv::Size(32, 24), 101, 12);
        for (int i = 0; i < 20; ++i)
            frames.emplace_back(24, 32, CV_8UC1, cv::Scalar(0));
        const QString path = clip("learn-late.mkv", frames);
        cv::Mat counts, background;
        RecordingHooks hooks(&background);
        MotionPassSettings settings;
        settings.backgroundAtMilestones = false;
        QCOMPARE(MotionPass::run(path.toUtf8(), settings, counts, background, hooks), MotionPassOutcome::Finished);
        const cv::Mat expected = referenceBackground(decodeAll(path).rgb);
        QVERIFY(equal(background, expected));
        QVERIFY(equal(counts, referenceCounts(frames, true)));
        // Milestones still come after pairs 1 and 100 and at the end; the first finds the
        // background still black.
        QCOMPARE(hooks.milestoneBackgrounds.size(), size_t(3));
        QCOMPARE(cv::countNonZero(hooks.milestoneBackgrounds[0].reshape(1)), 0);
        QVERIFY(equal(hooks.milestoneBackgrounds[1], expected));
        QVERIFY(equal(hooks.milestoneBackgrounds[2], expected));
    }

    void withoutBackgroundAtMilestonesAShortVideoStillGetsItsBackground()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(32, 24), 2, 14);
        const QString path = clip("two-late.mkv", frames);
        cv::Mat counts, background;
        RecordingHooks hooks(&background);
        MotionPassSettings settings;
        settings.backgroundAtMilestones = false;
        QCOMPARE(MotionPass::run(path.toUtf8(), settings, counts, background, hooks), MotionPassOutcome::Finished);
        QVERIFY(equal(background, referenceBackground(decodeAll(path).rgb)));
        QVERIFY(cv::countNonZero(background.reshape(1)) > 0);
    }

    void motionInPairsZeroAndFiftyCountsOneEvent()
    {
        const auto frames = squares(kSize, 56, [](int i) { return i == 0 || i >= 51 ? std::vector<cv::Point>{kA} : std::vector<cv::Point>{}; });
        RecordingHooks hooks;
        const PassResult result = runPass(clip("gap50.mkv", frames), hooks, false);
        QVERIFY(equal(result.counts, expectedCounts(kSize, {{kA, 1}})));
    }

    void motionInPairsZeroAndFiftyOneCountsTwoEvents()
    {
        const auto frames = squares(kSize, 56, [](int i) { return i == 0 || i >= 52 ? std::vector<cv::Point>{kA} : std::vector<cv::Point>{}; });
        RecordingHooks hooks;
        const PassResult result = runPass(clip("gap51.mkv", frames), hooks, false);
        QVERIFY(equal(result.counts, expectedCounts(kSize, {{kA, 2}})));
    }

    void pixelMovingInEveryPairCountsOneEvent()
    {
        const auto frames = squares(kSize, 80, [](int i) { return i % 2 ? std::vector<cv::Point>{kB} : std::vector<cv::Point>{}; });
        RecordingHooks hooks;
        const PassResult result = runPass(clip("blink.mkv", frames), hooks, false);
        QVERIFY(equal(result.counts, expectedCounts(kSize, {{kB, 1}})));
    }

    void movingSquaresCountExactlyWithoutBlur()
    {
        const auto frames = movingSquares();
        RecordingHooks hooks;
        const PassResult result = runPass(clip("moving.mkv", frames), hooks, false);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QVERIFY(equal(result.counts, expectedCounts(kSize, {{kA, 2}, {kB, 2}, {kC, 1}})));
        QVERIFY(equal(result.counts, referenceCounts(frames, false)));
    }

    void movingSquaresWithBlurMatchTheReference()
    {
        const auto frames = movingSquares();
        RecordingHooks hooks;
        const PassResult result = runPass(clip("moving.mkv", frames), hooks, true);
        const cv::Mat expected = referenceCounts(frames, true);
        QVERIFY(equal(result.counts, expected));
        // The blur spreads each square by three pixels, and the square's middle moved too.
        QCOMPARE(int(result.counts.at<uchar>(kA.y + 4, kA.x + 4)), 2);
        QCOMPARE(int(result.counts.at<uchar>(kC.y + 4, kC.x + 4)), 1);
        QCOMPARE(int(result.counts.at<uchar>(0, 63)), 0);
    }

    void noiseAndSpeckleMatchTheReference_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<bool>("blur");
        for (const bool blur : {true, false}) {
            const char* suffix = blur ? "blurred" : "sharp";
            QTest::addRow("33x17 %s", suffix) << 33 << 17 << blur;
            QTest::addRow("1x24 %s", suffix) << 1 << 24 << blur;
            QTest::addRow("24x1 %s", suffix) << 24 << 1 << blur;
            QTest::addRow("1x1 %s", suffix) << 1 << 1 << blur;
            QTest::addRow("3x5 %s", suffix) << 3 << 5 << blur;
            QTest::addRow("67x9 %s", suffix) << 67 << 9 << blur;
        }
    }

    void noiseAndSpeckleMatchTheReference()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(bool, blur);
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(width, height), 150, 31);
        const QString path = clip(QStringLiteral("speckle-%1x%2.mkv").arg(width).arg(height), frames);
        QVERIFY(!path.isEmpty());
        RecordingHooks hooks;
        const PassResult result = runPass(path, hooks, blur);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QCOMPARE(hooks.pairs, 149);
        const cv::Mat expected = referenceCounts(frames, blur);
        QVERIFY(cv::countNonZero(expected) > 0);
        QVERIFY(equal(result.counts, expected));
        const cv::Mat background = referenceBackground(decodeAll(path).rgb);
        QVERIFY(equal(result.background, background));
    }

    void detailedPassGivesTheReferencesExactCountsAndActivityPairByPair()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(40, 30), 160, 41);
        const QString path = clip("detailed.mkv", frames);
        QVERIFY(!path.isEmpty());
        for (const bool blur : {true, false}) {
            MotionPassSettings settings;
            settings.blur = blur;
            const DetailedPass pass = runDetailedPass(path, settings);
            QCOMPARE(pass.outcome, MotionPassOutcome::Finished);
            const Reference::Analysis reference = referenceOver(frames, blur);
            QVERIFY(cv::countNonZero(reference.exactCounts()) > 0);
            QVERIFY(equal(pass.counts, reference.counts()));
            QCOMPARE(pass.facts.exactCounts.type(), CV_16UC1);
            QVERIFY(equal(as32Bit(pass.facts.exactCounts), reference.exactCounts()));
            QVERIFY(sameActivity(pass.records, reference.activity()));
            QCOMPARE(pass.facts.pairsAnalysed, 159);
            QCOMPARE(pass.facts.framesDecoded, std::int64_t{160});
            QCOMPARE(pass.facts.video.width, 40);
            QCOMPARE(pass.facts.video.height, 30);
        }
    }

    void steadyLightTakesOutALightStepAndSkipsSceneChangesAsTheReferenceDoes()
    {
        // Noise with a step of light at frame 60 and half the picture turned over at frame
        // 110: the step is taken out, the turn-over is a scene change.
        std::vector<cv::Mat> frames = speckledNoise(cv::Size(40, 30), 160, 47);
        for (size_t i = 60; i < frames.size(); ++i)
            frames[i] += cv::Scalar(30);
        for (size_t i = 110; i < frames.size(); ++i) {
            frames[i](cv::Rect(0, 0, 40, 10)) += cv::Scalar(90);
            frames[i](cv::Rect(0, 10, 40, 10)) -= cv::Scalar(90);
        }
        const QString path = clip("steady-light.mkv", frames);
        QVERIFY(!path.isEmpty());
        for (const bool blur : {true, false}) {
            MotionPassSettings settings;
            settings.blur = blur;
            settings.steadyLight = true;
            const DetailedPass pass = runDetailedPass(path, settings);
            QCOMPARE(pass.outcome, MotionPassOutcome::Finished);
            Reference::Analysis reference(40, 30, blur);
            reference.setSteadyLight(0.5);
            for (const cv::Mat& frame : frames)
                reference.addFrame(frame);
            QVERIFY(equal(pass.counts, reference.counts()));
            QVERIFY(equal(as32Bit(pass.facts.exactCounts), reference.exactCounts()));
            QVERIFY(sameActivity(pass.records, reference.activity()));
            int sceneChanges = 0;
            for (size_t p = 0; p < pass.records.size(); ++p) {
                QCOMPARE(pass.records[p].sceneChange, reference.activity()[p].sceneChange);
                sceneChanges += pass.records[p].sceneChange ? 1 : 0;
            }
            QCOMPARE(sceneChanges, 1);
            QVERIFY(pass.records[109].sceneChange);
        }
    }

    void exactCountsAloneAreTheDetailedPassesWithoutItsActivity()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(40, 30), 160, 41);
        const QString path = clip("exact.mkv", frames);
        QVERIFY(!path.isEmpty());
        for (const bool blur : {true, false}) {
            MotionPassSettings settings;
            settings.blur = blur;
            settings.exactCounts = true;
            PairRecordingHooks hooks;
            cv::Mat counts, background;
            MotionPassFacts facts;
            QCOMPARE(MotionPass::run(path.toUtf8(), settings, counts, background, hooks, &facts),
                     MotionPassOutcome::Finished);
            QVERIFY(hooks.records.empty());
            const Reference::Analysis reference = referenceOver(frames, blur);
            QVERIFY(cv::countNonZero(reference.exactCounts()) > 0);
            QVERIFY(equal(counts, reference.counts()));
            QCOMPARE(facts.exactCounts.type(), CV_16UC1);
            QVERIFY(equal(as32Bit(facts.exactCounts), reference.exactCounts()));
            const DetailedPass detailed = runDetailedPass(path, settings);
            QVERIFY(equal(facts.exactCounts, detailed.facts.exactCounts));
            QVERIFY(equal(background, detailed.background));
            QCOMPARE(facts.pairsAnalysed, 159);
        }
    }

    void eachSliceGetsTheExactCountsOfItsOwnPairs()
    {
        // 25 frames a second, slices of 1.99 s: pairs up to frame 49 (1.96 s) form slice 0,
        // up to frame 99 slice 1, and so on; the slice starts stay clear of the frames' times.
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(40, 30), 160, 43);
        const QString path = clip("slices.mkv", frames);
        QVERIFY(!path.isEmpty());
        const double sliceSeconds = 1.99;
        std::vector<cv::Mat> expected;
        Reference::Analysis reference(frames.front().cols, frames.front().rows, true, cv::Mat());
        cv::Mat before(frames.front().size(), CV_32SC1, cv::Scalar(0));
        for (size_t i = 0; i < frames.size(); ++i) {
            reference.addFrame(frames[i]);
            const bool lastOfSlice = i + 1 == frames.size()
                || std::floor((i + 1) / 25.0 / sliceSeconds) > std::floor(i / 25.0 / sliceSeconds);
            if (i > 0 && lastOfSlice) {
                expected.push_back(reference.exactCounts() - before);
                before = reference.exactCounts().clone();
            }
        }
        QCOMPARE(expected.size(), size_t{4});

        MotionPassSettings settings;
        settings.detailed = true;
        settings.sliceSeconds = sliceSeconds;
        SliceRecordingHooks hooks;
        cv::Mat counts, background;
        QCOMPARE(MotionPass::run(path.toUtf8(), settings, counts, background, hooks), MotionPassOutcome::Finished);
        QCOMPARE(hooks.slices.size(), expected.size());
        for (size_t k = 0; k < expected.size(); ++k) {
            QCOMPARE(hooks.slices[k].index, static_cast<int>(k));
            QCOMPARE(hooks.slices[k].start, k * sliceSeconds);
            QCOMPARE(hooks.slices[k].counts.type(), CV_16UC1);
            QVERIFY(cv::countNonZero(expected[k]) > 0);
            QVERIFY(equal(as32Bit(hooks.slices[k].counts), expected[k]));
        }
    }

    void slicesStartOnTheVideosTimeLineAndEmptyOnesAreSkipped()
    {
        // A window from 2.5 s: the first pair (frame 64, 2.56 s) lies in slice 2 of 1.2 s, and
        // the last (frame 149, 5.96 s) in slice 4.
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(24, 16), 150, 53);
        const QString path = clip("slice-window.mkv", frames);
        QVERIFY(!path.isEmpty());
        MotionPassSettings settings = windowSettings(2.5, 100.0);
        settings.detailed = true;
        settings.sliceSeconds = 1.2;
        SliceRecordingHooks hooks;
        MotionPassFacts facts;
        cv::Mat counts, background;
        QCOMPARE(MotionPass::run(path.toUtf8(), settings, counts, background, hooks, &facts),
                 MotionPassOutcome::Finished);
        QCOMPARE(hooks.slices.size(), size_t{3});
        cv::Mat sum(facts.exactCounts.size(), CV_32SC1, cv::Scalar(0));
        for (size_t k = 0; k < hooks.slices.size(); ++k) {
            QCOMPARE(hooks.slices[k].index, static_cast<int>(k) + 2);
            sum += as32Bit(hooks.slices[k].counts);
        }
        QVERIFY(cv::countNonZero(sum) > 0);
        QVERIFY(equal(sum, as32Bit(facts.exactCounts)));
    }

    void eachStepGetsTheExactCountsOfItsOwnPairsWithoutTheDetailedCount()
    {
        // 25 frames a second, steps of 2 s on a line starting 0.5 s before the video: pairs
        // up to frame 37 (1.48 s + 0.5) form step 0, then every 50 frames one more.
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(40, 30), 160, 47);
        const QString path = clip("steps.mkv", frames);
        QVERIFY(!path.isEmpty());
        const double stepSeconds = 2.0;
        const double offset = 0.5;
        std::vector<cv::Mat> expected;
        std::vector<double> lastTimes;
        Reference::Analysis reference(frames.front().cols, frames.front().rows, true, cv::Mat());
        cv::Mat before(frames.front().size(), CV_32SC1, cv::Scalar(0));
        for (size_t i = 0; i < frames.size(); ++i) {
            reference.addFrame(frames[i]);
            const double time = i / 25.0 + offset;
            const bool lastOfStep = i + 1 == frames.size() || std::floor((time + 0.04) / stepSeconds) > std::floor(time / stepSeconds);
            if (i > 0 && lastOfStep) {
                expected.push_back(reference.exactCounts() - before);
                lastTimes.push_back(time);
                before = reference.exactCounts().clone();
            }
        }
        QCOMPARE(expected.size(), size_t{4});

        MotionPassSettings settings;
        settings.exactCounts = true;
        settings.stepSeconds = stepSeconds;
        settings.sliceOffset = offset;
        StepRecordingHooks hooks;
        MotionPassFacts facts;
        cv::Mat counts, background;
        QCOMPARE(MotionPass::run(path.toUtf8(), settings, counts, background, hooks, &facts),
                 MotionPassOutcome::Finished);
        QCOMPARE(hooks.steps.size(), expected.size());
        cv::Mat sum(frames.front().size(), CV_32SC1, cv::Scalar(0));
        for (size_t k = 0; k < expected.size(); ++k) {
            QCOMPARE(hooks.steps[k].index, static_cast<int>(k));
            QVERIFY(std::abs(hooks.steps[k].lastPairTime - lastTimes[k]) < 1e-6);
            QCOMPARE(hooks.steps[k].counts.type(), CV_16UC1);
            QVERIFY(cv::countNonZero(expected[k]) > 0);
            QVERIFY(equal(as32Bit(hooks.steps[k].counts), expected[k]));
            sum += as32Bit(hooks.steps[k].counts);
        }
        QVERIFY(equal(sum, as32Bit(facts.exactCounts)));
    }

    void stepsNeedTheExactCountsAndLeaveTheSlicesAlone()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(24, 16), 60, 59);
        const QString path = clip("steps-off.mkv", frames);
        QVERIFY(!path.isEmpty());
        MotionPassSettings settings;
        settings.stepSeconds = 1.0;
        StepRecordingHooks plain;
        cv::Mat counts, background;
        QCOMPARE(MotionPass::run(path.toUtf8(), settings, counts, background, plain), MotionPassOutcome::Finished);
        QVERIFY(plain.steps.empty());
        // Steps and slices of other lengths side by side: each as long as asked.
        settings.detailed = true;
        settings.sliceSeconds = 2.0;
        StepRecordingHooks both;
        QCOMPARE(MotionPass::run(path.toUtf8(), settings, counts, background, both), MotionPassOutcome::Finished);
        QCOMPARE(both.steps.size(), size_t{3});
        QCOMPARE(both.steps.back().index, 2);
    }

    // 60 frames at 25 a second, the last 30 of them `jump` seconds later than the first 30.
    QString jumpingClip(const QString& name, const QString& jump)
    {
        const QString path = m_dir.filePath(name);
        if (QFile::exists(path))
            return path;
        const bool made = TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=48x32:rate=25", "-frames:v", "60",
                                                  "-vf", "setpts='PTS+if(gte(N,30)," + jump + "/TB,0)'",
                                                  "-fps_mode", "passthrough", "-c:v", "ffv1", path});
        return made ? path : QString();
    }

    // Slices are numbered in an int, event times in whole seconds: a pair that would need
    // more stops the pass before it is counted, and says so.
    void aPairNoSliceOrSecondCanNumberStopsThePass_data()
    {
        QTest::addColumn<QString>("jump");
        QTest::addColumn<double>("sliceSeconds");
        QTest::addColumn<double>("sliceOffset");
        QTest::addColumn<int>("eventCellSize");
        QTest::addColumn<bool>("stops");
        QTest::addColumn<double>("stoppedAt");
        QTest::newRow("1e12 s, sliced") << "1e12" << 1.0 << 0.0 << 0 << true << 1e12 + 1.2;
        QTest::newRow("1e12 s, event times") << "1e12" << 0.0 << 0.0 << 16 << true << 1e12 + 1.2;
        QTest::newRow("1e12 s, neither") << "1e12" << 0.0 << 0.0 << 0 << false << 0.0;
        QTest::newRow("1e9 s, slices of 1 s") << "1e9" << 1.0 << 0.0 << 0 << false << 0.0;
        QTest::newRow("1e9 s, slices of 0.25 s") << "1e9" << 0.25 << 0.0 << 0 << true << 1e9 + 1.2;
        QTest::newRow("a line starting far away") << "0" << 1.0 << 2e10 << 0 << true << 2e10 + 0.04;
    }

    void aPairNoSliceOrSecondCanNumberStopsThePass()
    {
        QFETCH(QString, jump);
        QFETCH(double, sliceSeconds);
        QFETCH(double, sliceOffset);
        QFETCH(int, eventCellSize);
        QFETCH(bool, stops);
        QFETCH(double, stoppedAt);
        const QString path = jumpingClip("jump-" + jump + ".mkv", jump);
        QVERIFY(!path.isEmpty());
        MotionPassSettings settings;
        settings.detailed = true;
        settings.sliceSeconds = sliceSeconds;
        settings.sliceOffset = sliceOffset;
        settings.eventCellSize = eventCellSize;
        SliceRecordingHooks hooks;
        MotionPassFacts facts;
        cv::Mat counts, background;
        const MotionPassOutcome outcome = MotionPass::run(path.toUtf8(), settings, counts, background, hooks, &facts);
        QCOMPARE(outcome, stops ? MotionPassOutcome::TimeOutOfRange : MotionPassOutcome::Finished);
        QCOMPARE(facts.stoppedAtUnplaceableTime, stops);
        if (!stops) {
            QCOMPARE(facts.pairsAnalysed, 59);
            return;
        }
        QVERIFY2(std::abs(facts.unplaceableTime - stoppedAt) < 0.01, qPrintable(QString::number(facts.unplaceableTime, 'f')));
        // Every pair before the one that cannot be placed was counted.
        QCOMPARE(facts.pairsAnalysed, sliceOffset > 0.0 ? 0 : 29);
        for (const SliceRecordingHooks::Slice& slice : hooks.slices)
            QVERIFY(slice.start < 2.0);
    }

    void withoutDetailNoSliceIsHandedOver()
    {
        const QString path = clip("slices.mkv", speckledNoise(cv::Size(40, 30), 160, 43));
        MotionPassSettings settings;
        settings.sliceSeconds = 1.0;
        SliceRecordingHooks hooks;
        cv::Mat counts, background;
        QCOMPARE(MotionPass::run(path.toUtf8(), settings, counts, background, hooks), MotionPassOutcome::Finished);
        QVERIFY(cv::countNonZero(counts) > 0);
        QVERIFY(hooks.slices.empty());
    }

    void eventTimesOfEachCellAreTheSecondsItsEventsBegan()
    {
        // 25 frames a second. The square at A blinks on at frames 62 (2.48 s) and 187
        // (7.48 s) for a few frames; the one at B moves in every frame from 100 to 120; C
        // never moves.
        const auto frames = squares(kSize, 250, [](int i) {
            std::vector<cv::Point> at;
            if ((i >= 62 && i < 66) || (i >= 187 && i < 190))
                at.push_back(kA);
            if (i >= 100 && i <= 120 && i % 2 == 0)
                at.push_back(kB);
            at.push_back(kC);
            return at;
        });
        const QString path = clip("event-times.mkv", frames);
        QVERIFY(!path.isEmpty());
        for (const bool blur : {true, false}) {
            for (const int cellSize : {16, 5}) {
                MotionPassSettings settings;
                settings.blur = blur;
                settings.eventCellSize = cellSize;
                const DetailedPass pass = runDetailedPass(path, settings);
                QCOMPARE(pass.outcome, MotionPassOutcome::Finished);
                const CellEventTimes& times = pass.facts.eventTimes;
                QCOMPARE(times.cellSize(), cellSize);
                std::vector<double> pairTimes;
                for (const auto& record : pass.records)
                    pairTimes.push_back(record.time);
                const auto expected = Reference::cellEventSeconds(referenceOver(frames, blur), kSize.width,
                                                                  kSize.height, cellSize, pairTimes);
                QCOMPARE(int(expected.size()), times.cells());
                for (int cell = 0; cell < times.cells(); ++cell) {
                    const std::vector<std::int64_t> got = times.secondsOf(cell);
                    QVERIFY2(std::vector<long long>(got.begin(), got.end()) == expected[static_cast<size_t>(cell)],
                             qPrintable(QStringLiteral("cell %1").arg(cell)));
                }
                // What the clip was made with, in plain seconds.
                const std::vector<std::int64_t> atA = times.secondsOf(times.cellAt(kA.x + 4, kA.y + 4));
                QCOMPARE(atA, (std::vector<std::int64_t>{2, 7}));
                QCOMPARE(times.secondsOf(times.cellAt(kB.x + 4, kB.y + 4)), (std::vector<std::int64_t>{4}));
                QVERIFY(times.secondsOf(times.cellAt(kC.x + 4, kC.y + 4)).empty());
                QVERIFY(times.secondsOf(times.cellAt(kSize.width - 1, kSize.height - 1)).empty());
            }
        }
    }

    void eventTimesAreNotRecordedUnlessAskedFor()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(16, 16), 20, 5);
        const DetailedPass pass = runDetailedPass(clip("no-times.mkv", frames), {});
        QCOMPARE(pass.facts.pairsAnalysed, 19);
        QVERIFY(pass.facts.eventTimes.empty());
        MotionPassSettings plain;
        plain.eventCellSize = 16;
        PairRecordingHooks hooks;
        cv::Mat counts, background;
        MotionPassFacts facts;
        QCOMPARE(MotionPass::run(clip("no-times.mkv", frames).toUtf8(), plain, counts, background, hooks, &facts),
                 MotionPassOutcome::Finished);
        QVERIFY(facts.eventTimes.empty());
    }

    void pairTimesAreThoseOfTheSecondFrameFromTheVideosStart()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(16, 16), 30, 5);
        const DetailedPass pass = runDetailedPass(clip("timed.mkv", frames), {});
        QCOMPARE(int(pass.records.size()), 29);
        for (const auto& record : pass.records)
            QVERIFY2(std::abs(record.time - (record.pair + 1) / 25.0) < 1e-6, qPrintable(QString::number(record.time)));
    }

    void pairTimesOfAVariableRateClipFollowItsTimestamps()
    {
        // Frame n is shown at n (n + 1) / 2 ticks of 1/25 s: every interval longer than the last.
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(16, 16), 20, 9);
        const QString path = m_dir.filePath("variable.mkv");
        QVERIFY(writeGray(path, frames, {"-vf", "setpts=N*(N+1)/2", "-fps_mode", "passthrough", "-c:v", "ffv1"}));
        const DetailedPass pass = runDetailedPass(path, {});
        QCOMPARE(int(pass.records.size()), 19);
        for (const auto& record : pass.records) {
            const int second = record.pair + 1;
            const double expected = second * (second + 1) / 2 / 25.0;
            QVERIFY2(std::abs(record.time - expected) < 0.0015,
                     qPrintable(QStringLiteral("pair %1: %2 s, expected %3 s").arg(record.pair).arg(record.time).arg(expected)));
        }
    }

    void pairTimesOfAClipWithoutTimestampsCountFramesAtItsRate()
    {
        const QString path = untimedClip("untimed.h264", 40);
        QVERIFY(!path.isEmpty());
        {
            MpegReader reader;
            QVERIFY(reader.open(path.toUtf8().constData()));
            const std::unique_ptr<MpegFrame> first(reader.read(true));
            QVERIFY(first && !first->m_hasPresentationTime);
        }
        const DetailedPass pass = runDetailedPass(path, {});
        QCOMPARE(int(pass.records.size()), 39);
        for (const auto& record : pass.records)
            QVERIFY2(std::abs(record.time - (record.pair + 1) / 20.0) < 1e-9, qPrintable(QString::number(record.time)));
    }

    void aWindowOnAClipWithoutTimestampsCountsFramesToReachIt()
    {
        const QString path = untimedClip("untimed-window.h264", 60);
        QVERIFY(!path.isEmpty());
        // Frames 20 (1 s) to 39 lie in the window.
        const DetailedPass pass = runDetailedPass(path, windowSettings(0.99, 1.99));
        QCOMPARE(int(pass.records.size()), 19);
        QVERIFY(std::abs(pass.records.front().time - 21 / 20.0) < 1e-9);
        QCOMPARE(pass.facts.framesDecoded, std::int64_t{41});
    }

    void detailsAreNotReportedUnlessAskedFor()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(16, 16), 20, 5);
        PairRecordingHooks hooks;
        cv::Mat counts, background;
        MotionPassFacts facts;
        QCOMPARE(MotionPass::run(clip("plain.mkv", frames).toUtf8(), MotionPassSettings{}, counts, background, hooks,
                                 &facts),
                 MotionPassOutcome::Finished);
        QVERIFY(hooks.records.empty());
        QVERIFY(facts.exactCounts.empty());
        QCOMPARE(facts.pairsAnalysed, 19);
    }

    void aMaskOfTheVideosSizeIgnoresItsDarkPixels()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(40, 30), 120, 43);
        const QString path = clip("masked.mkv", frames);
        cv::Mat mask(30, 40, CV_8UC1, cv::Scalar(255));
        mask(cv::Rect(0, 0, 20, 30)).setTo(cv::Scalar(0));
        MotionPassSettings settings;
        settings.mask = mask;
        const DetailedPass masked = runDetailedPass(path, settings);
        const DetailedPass whole = runDetailedPass(path, {});
        const cv::Rect left(0, 0, 20, 30);
        const cv::Rect right(20, 0, 20, 30);
        QCOMPARE(cv::countNonZero(masked.counts(left)), 0);
        QCOMPARE(cv::countNonZero(masked.facts.exactCounts(left)), 0);
        QVERIFY(cv::countNonZero(whole.counts(left)) > 0);
        QVERIFY(equal(masked.counts(right), whole.counts(right)));
        QVERIFY(equal(masked.facts.exactCounts(right), whole.facts.exactCounts(right)));
        QVERIFY(sameActivity(masked.records, referenceOver(frames, true, mask).activity()));
    }

    void aMaskAloneAppliesToTheMapsCount()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(40, 30), 120, 43);
        cv::Mat mask(30, 40, CV_8UC1, cv::Scalar(255));
        mask(cv::Rect(0, 0, 40, 15)).setTo(cv::Scalar(0));
        MotionPassSettings settings;
        settings.mask = mask;
        RecordingHooks hooks;
        cv::Mat counts, background;
        QCOMPARE(MotionPass::run(clip("masked.mkv", frames).toUtf8(), settings, counts, background, hooks),
                 MotionPassOutcome::Finished);
        QVERIFY(equal(counts, referenceOver(frames, true, mask).counts()));
        QCOMPARE(cv::countNonZero(counts(cv::Rect(0, 0, 40, 15))), 0);
    }

    void aMaskOfAnotherSizeTakesThePixelUnderEachCentre_data()
    {
        QTest::addColumn<QSize>("maskSize");
        QTest::addColumn<QSize>("videoSize");
        QTest::newRow("half") << QSize(20, 15) << QSize(40, 30);
        QTest::newRow("double") << QSize(80, 60) << QSize(40, 30);
        QTest::newRow("odd up") << QSize(7, 5) << QSize(33, 17);
        QTest::newRow("odd down") << QSize(33, 17) << QSize(7, 5);
        QTest::newRow("one pixel") << QSize(1, 1) << QSize(9, 4);
        QTest::newRow("thin") << QSize(3, 40) << QSize(40, 3);
    }

    void aMaskOfAnotherSizeTakesThePixelUnderEachCentre()
    {
        QFETCH(QSize, maskSize);
        QFETCH(QSize, videoSize);
        cv::Mat mask(maskSize.height(), maskSize.width(), CV_8UC1);
        cv::RNG random(7);
        random.fill(mask, cv::RNG::UNIFORM, 0, 2);
        mask *= 200;
        const cv::Size size(videoSize.width(), videoSize.height());
        const cv::Mat expected = Reference::nearestMask(mask, size) != 0;
        QVERIFY(equal(MotionPass::maskAt(mask, size), expected));
    }

    void aWindowAnalysesOnlyItsFramesAndNumbersItsPairsFromZero()
    {
        // 25 frames a second: frames 50 (2 s) to 149 (5.96 s) lie in the window; the bounds
        // stay clear of the frames' times, which the container rounds to milliseconds.
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(24, 16), 200, 47);
        const QString path = clip("window.mkv", frames);
        const DetailedPass pass = runDetailedPass(path, windowSettings(1.98, 5.98));
        QCOMPARE(pass.outcome, MotionPassOutcome::Finished);
        const std::vector<cv::Mat> inside(frames.begin() + 50, frames.begin() + 150);
        const Reference::Analysis reference = referenceOver(inside, true);
        QVERIFY(equal(pass.counts, reference.counts()));
        QVERIFY(equal(as32Bit(pass.facts.exactCounts), reference.exactCounts()));
        QVERIFY(sameActivity(pass.records, reference.activity()));
        QVERIFY(std::abs(pass.records.front().time - 51 / 25.0) < 1e-6);
        QVERIFY(std::abs(pass.records.back().time - 149 / 25.0) < 1e-6);
        std::vector<cv::Mat> decoded = decodeAll(path).rgb;
        decoded.resize(150);
        QVERIFY(equal(pass.background, referenceBackground(decoded, 50)));
    }

    void aWindowStartingBetweenFramesBeginsAtTheNextFrame()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(24, 16), 60, 47);
        const DetailedPass pass = runDetailedPass(clip("between.mkv", frames), windowSettings(1.01, 1.99));
        // Frame 26 (1.04 s) is the first analysed; frame 50 (2.0 s) is past the end.
        QCOMPARE(int(pass.records.size()), 49 - 26);
        QVERIFY(std::abs(pass.records.front().time - 27 / 25.0) < 1e-6);
        const std::vector<cv::Mat> inside(frames.begin() + 26, frames.begin() + 50);
        QVERIFY(equal(pass.counts, referenceOver(inside, true).counts()));
    }

    void aWindowPastTheEndOfTheVideoAnalysesNoPair()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(24, 16), 30, 47);
        const DetailedPass pass = runDetailedPass(clip("short.mkv", frames), windowSettings(60.0, 1e9));
        QCOMPARE(pass.outcome, MotionPassOutcome::Finished);
        QCOMPARE(pass.facts.pairsAnalysed, 0);
        QVERIFY(pass.records.empty());
        QCOMPARE(pass.counts.size(), cv::Size(24, 16));
        QCOMPARE(cv::countNonZero(pass.counts), 0);
        QCOMPARE(cv::countNonZero(pass.background.reshape(1)), 0);
        QCOMPARE(pass.facts.exactCounts.size(), cv::Size(24, 16));
    }

    void aWindowAtTheEndOfALongClipSeeksInsteadOfDecodingItAll()
    {
        // Every frame a key frame: the seek lands on the window's first frame.
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(16, 16), 1500, 3);
        const QString path = m_dir.filePath("long.mkv");
        QVERIFY(writeGray(path, frames, {"-c:v", "ffv1", "-g", "1"}));
        const DetailedPass pass = runDetailedPass(path, windowSettings(57.99, 1e9));
        QCOMPARE(pass.facts.pairsAnalysed, 49);
        QVERIFY2(pass.facts.framesDecoded < 100, qPrintable(QString::number(pass.facts.framesDecoded)));
        const std::vector<cv::Mat> inside(frames.begin() + 1450, frames.end());
        QVERIFY(equal(pass.counts, referenceOver(inside, true).counts()));
    }

    void aCancelWhileSkippingToTheWindowEndsCanceled()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(16, 16), 100, 3);
        CancelAfterPolls hooks(3);
        cv::Mat counts, background;
        const MotionPassOutcome outcome =
            MotionPass::run(clip("skip.mkv", frames).toUtf8(), windowSettings(3.0, 1e9), counts, background, hooks);
        QCOMPARE(outcome, MotionPassOutcome::Canceled);
        QCOMPARE(hooks.pairs, 0);
    }

    void h264WithAudioFirstFollowsTheRules()
    {
        const QString path = m_dir.filePath("talk.mp4");
        QString error;
        QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "sine=frequency=440:duration=5",
                                         "-f", "lavfi", "-i", "testsrc2=size=96x64:rate=25:duration=5",
                                         "-map", "0:a", "-map", "1:v", "-c:a", "aac",
                                         "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", path},
                                        &error),
                 qPrintable(error));
        const Decoded decoded = decodeAll(path);
        QVERIFY(decoded.grey.size() > 101);
        RecordingHooks hooks;
        const PassResult result = runPass(path, hooks);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QCOMPARE(hooks.pairs, int(decoded.grey.size()) - 1);
        const cv::Mat expectedCounts = referenceCounts(decoded.grey, true);
        QVERIFY(cv::countNonZero(expectedCounts) > 100);
        QVERIFY(equal(result.counts, expectedCounts));
        const cv::Mat expectedBackground = referenceBackground(decoded.rgb);
        QVERIFY(equal(result.background, expectedBackground));
        QCOMPARE(MotionMap::render(result.counts, result.background), Reference::renderMap(expectedCounts, expectedBackground));
    }

    void tenBitClipMatchesTheEightBitOne()
    {
        const auto frames = squares(kSize, 120, [](int i) {
            std::vector<cv::Point> at{cv::Point(4 + 8 * ((i / 7) % 6), 8)};
            if ((i / 30) % 2)
                at.push_back(kC);
            return at;
        });
        const QString eight = m_dir.filePath("eight.mkv");
        const QString ten = m_dir.filePath("ten.mkv");
        QVERIFY(writeGray(eight, frames, {"-c:v", "ffv1", "-pix_fmt", "yuv420p"}));
        QVERIFY(writeGray(ten, frames, {"-c:v", "ffv1", "-pix_fmt", "yuv420p10le"}));
        RecordingHooks hooks8, hooks10;
        const PassResult result8 = runPass(eight, hooks8);
        const PassResult result10 = runPass(ten, hooks10);
        QCOMPARE(result10.outcome, MotionPassOutcome::Finished);
        QCOMPARE(hooks10.pairs, hooks8.pairs);
        QVERIFY(cv::countNonZero(result8.counts) > 200);
        // Rounding of the deeper samples may move a threshold crossing by a pixel.
        const int differing = cv::countNonZero(result8.counts != result10.counts);
        QVERIFY2(differing <= int(result8.counts.total() / 50), qPrintable(QString::number(differing)));
        QVERIFY(cv::norm(result8.counts, result10.counts, cv::NORM_INF) <= 1.0);
        QVERIFY(cv::norm(result8.background, result10.background, cv::NORM_INF) <= 3.0);
    }

    void decodingOnSeveralThreadsCountsThePicturesItsReaderReturns()
    {
        // Frame threads hold pictures back until the end of the video, where the reader
        // still gives them: the pictures, and so every count, are those of one thread.
        const QString path = m_dir.filePath("threads.mp4");
        QString error;
        QVERIFY2(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc2=size=96x64:rate=25:duration=5,noise=alls=20:allf=t",
                                         "-c:v", "libx264", "-preset", "veryfast", "-bf", "3", "-pix_fmt", "yuv420p", path},
                                        &error),
                 qPrintable(error));
        const Decoded oneThread = decodeAll(path, 1);
        const Decoded twoThreads = decodeAll(path, 2);
        QCOMPARE(twoThreads.grey.size(), oneThread.grey.size());
        RecordingHooks hooks;
        const PassResult result = runPass(path, hooks, true, 300, 2);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QCOMPARE(hooks.pairs, int(oneThread.grey.size()) - 1);
        const cv::Mat expected = referenceCounts(oneThread.grey, true);
        QVERIFY(cv::countNonZero(expected) > 100);
        QVERIFY(equal(result.counts, expected));
        QVERIFY(equal(result.background, referenceBackground(oneThread.rgb)));
    }

    void withSeveralDecoderThreadsTheLoopRunsBelowTheDecodersPriority()
    {
        const QString path = clip(QStringLiteral("priority.mkv"), speckledNoise(kSize, 30, 9));
        QVERIFY(!path.isEmpty());
        const int callerNice = niceOfCallingThread();
        ThreadRecordingHooks several;
        const PassResult onSeveral = runPass(path, several, true, 300, 2);
        QCOMPARE(onSeveral.outcome, MotionPassOutcome::Finished);
        QCOMPARE(several.pairs, 29);
        QVERIFY(several.pairsFromOneThread);
        QVERIFY(several.pairThread != callingThreadId());
        QCOMPARE(several.pairNice, std::min(callerNice + ThreadPriority::kBelowDecoder, ThreadPriority::kWeakest));
        QCOMPARE(niceOfCallingThread(), callerNice);

        // One decoder thread decodes on the pass's thread: the caller's, left as it is.
        ThreadRecordingHooks one;
        const PassResult onOne = runPass(path, one, true, 300, 1);
        QCOMPARE(one.pairThread, callingThreadId());
        QCOMPARE(one.pairNice, callerNice);
        QVERIFY(equal(onSeveral.counts, onOne.counts));
        QVERIFY(equal(onSeveral.background, onOne.background));
    }

    void automaticDecoderThreadsShareTheCores()
    {
        QCOMPARE(MotionPass::decoderThreadsFor(0, 1, 2), 2);
        QCOMPARE(MotionPass::decoderThreadsFor(0, 2, 2), 1);
        QCOMPARE(MotionPass::decoderThreadsFor(0, 3, 2), 1);
        QCOMPARE(MotionPass::decoderThreadsFor(0, 2, 8), 4);
        QCOMPARE(MotionPass::decoderThreadsFor(0, 1, 1), 1);
        QCOMPARE(MotionPass::decoderThreadsFor(3, 2, 2), 3);
        QCOMPARE(MotionPass::decoderThreadsFor(1, 1, 8), 1);
    }

    void aLonePassReadsFarAheadAndPassesSideBySideDoNot()
    {
        QCOMPARE(MotionPass::readAheadDepthFor(cv::Size(1920, 1080), 1), FrameSource::depthFor(1920, 1080));
        QVERIFY(MotionPass::readAheadDepthFor(cv::Size(1920, 1080), 1) > FrameSource::kMinDepth);
        QCOMPARE(MotionPass::readAheadDepthFor(cv::Size(1920, 1080), 2), FrameSource::kMinDepth);
        QCOMPARE(MotionPass::readAheadDepthFor(cv::Size(64, 48), 3), FrameSource::kMinDepth);
    }

    void passLearnsWhileAnotherLearnerHoldsItsModel()
    {
        // Another learner is mid-way through its own learning: the pass learns beside it,
        // with a model of its own, and gives the background of its own frames.
        const QString path = clip(QStringLiteral("beside.mkv"), speckledNoise(kSize, 20, 5));
        QVERIFY(!path.isEmpty());
        AsyncBackgroundLearner holder;
        const std::shared_ptr<const MpegFrame> first = firstFrameOf(path);
        QVERIFY(first);
        holder.learn(*first);
        QCOMPARE(holder.learntFrames(), 1);
        RecordingHooks hooks;
        const PassResult result = runPass(path, hooks);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QCOMPARE(hooks.pairs, 19);
        const Decoded decoded = decodeAll(path);
        QVERIFY(equal(result.counts, referenceCounts(decoded.grey, true)));
        QVERIFY(equal(result.background, referenceBackground(decoded.rgb)));
        QCOMPARE(holder.learntFrames(), 1);
    }

    void frameSizeChangeEndsThePassLikeTheEndOfTheVideo()
    {
        // Two raw H.264 streams of different sizes back to back: the decoder switches size.
        const QString big = m_dir.filePath("big.h264");
        const QString small = m_dir.filePath("small.h264");
        const QStringList h264 = {"-c:v", "libx264", "-preset", "ultrafast", "-bf", "0", "-pix_fmt", "yuv420p"};
        QVERIFY(writeGray(big, speckledNoise(kSize, 30, 1), h264));
        QVERIFY(writeGray(small, speckledNoise(cv::Size(32, 24), 30, 2), h264));
        QFile a(big), b(small);
        QVERIFY(a.open(QIODevice::ReadOnly) && b.open(QIODevice::ReadOnly));
        const QString joined = m_dir.filePath("joined.h264");
        QFile out(joined);
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(a.readAll() + b.readAll());
        out.close();

        const Decoded decoded = decodeAll(joined);
        int firstSizeFrames = 0;
        while (firstSizeFrames < int(decoded.grey.size()) && decoded.grey[size_t(firstSizeFrames)].size() == kSize)
            ++firstSizeFrames;
        QVERIFY(firstSizeFrames > 1);
        QVERIFY(firstSizeFrames < int(decoded.grey.size()));

        RecordingHooks hooks;
        const PassResult result = runPass(joined, hooks);
        QCOMPARE(result.outcome, MotionPassOutcome::Finished);
        QCOMPARE(hooks.pairs, firstSizeFrames - 1);
        QCOMPARE(result.counts.size(), kSize);
        const std::vector<cv::Mat> counted(decoded.grey.begin(), decoded.grey.begin() + firstSizeFrames);
        QVERIFY(equal(result.counts, referenceCounts(counted, true)));
    }
};

QTEST_GUILESS_MAIN(MotionPassTest)
#include "MotionPassTest.moc"
