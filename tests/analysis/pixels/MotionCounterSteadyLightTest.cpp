#include "MotionCounter.h"
#include "ReferenceMotion.h"

#include <QtTest>

#include <opencv2/core.hpp>

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;

// Grey frames with a little noise and a square walking across them; `light(i)` is added to
// every pixel of frame i (saturating), as a lamp or an exposure change would.
std::vector<cv::Mat> walkingSquare(int frames, const std::function<int(int)>& light, unsigned seed = 7)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> noise(-3, 3);
    std::vector<cv::Mat> out;
    for (int i = 0; i < frames; ++i) {
        cv::Mat frame(kHeight, kWidth, CV_8UC1);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                frame.at<uchar>(y, x) = cv::saturate_cast<uchar>(90 + (x + 2 * y) % 23 + noise(random) + light(i));
        const int left = (i * 2) % (kWidth - 10);
        frame(cv::Rect(left, 18, 10, 10)) += cv::Scalar(120);
        out.push_back(frame);
    }
    return out;
}

// Frames in which the left `columns` columns change at frame `at` and stay so, their top half
// brighter and their bottom half darker: a camera switching to infrared changes part of the
// picture, not all of it the same way. Taking out the median leaves that part moving.
std::vector<cv::Mat> partChangedAt(int frames, int at, int columns)
{
    std::vector<cv::Mat> out = walkingSquare(frames, [](int) { return 0; });
    for (int i = at; i < frames; ++i) {
        out[static_cast<size_t>(i)](cv::Rect(0, 0, columns, kHeight / 2)) += cv::Scalar(80);
        out[static_cast<size_t>(i)](cv::Rect(0, kHeight / 2, columns, kHeight - kHeight / 2)) -= cv::Scalar(80);
    }
    return out;
}

struct Run {
    cv::Mat counts;
    cv::Mat exactCounts;
    std::vector<Reference::Analysis::Pair> pairs;
};

Run countInSteadyLight(const std::vector<cv::Mat>& frames, bool blur, double share, int stripes = 1,
                       const cv::Mat& mask = {})
{
    MotionCounter::Detail detail;
    detail.enabled = true;
    detail.steadyLight = true;
    detail.sceneChangeShare = share;
    detail.mask = mask;
    MotionCounter counter(frames.front().size(), blur, stripes, detail);
    Run run;
    run.counts = cv::Mat(frames.front().size(), CV_8UC1, cv::Scalar(0));
    counter.start(frames.front());
    for (size_t i = 1; i < frames.size(); ++i) {
        counter.addFrame(frames[i], run.counts);
        Reference::Analysis::Pair pair;
        pair.moving = counter.lastPair().movingPixels;
        pair.newEvents = counter.lastPair().newEvents;
        pair.sceneChange = counter.lastPairWasSceneChange();
        pair.lightShift = counter.lastLightShift();
        run.pairs.push_back(pair);
    }
    run.exactCounts = counter.exactCounts().clone();
    // Every pair counts once, scene changes too.
    if (counter.pairs() != static_cast<int>(frames.size()) - 1)
        return {};
    return run;
}

// The counter without the detail: the map's count alone, or with the exact count kept (as a
// combination or a chosen scale wants it). Its pairs record only the scene changes.
Run countInSteadyLightWithoutDetail(const std::vector<cv::Mat>& frames, bool blur, bool exact, int stripes = 1)
{
    MotionCounter::Detail detail;
    detail.steadyLight = true;
    detail.exactCounts = exact;
    MotionCounter counter(frames.front().size(), blur, stripes, detail);
    Run run;
    run.counts = cv::Mat(frames.front().size(), CV_8UC1, cv::Scalar(0));
    counter.start(frames.front());
    for (size_t i = 1; i < frames.size(); ++i) {
        counter.addFrame(frames[i], run.counts);
        Reference::Analysis::Pair pair;
        pair.sceneChange = counter.lastPairWasSceneChange();
        pair.lightShift = counter.lastLightShift();
        run.pairs.push_back(pair);
    }
    if (exact)
        run.exactCounts = counter.exactCounts().clone();
    if (counter.pairs() != static_cast<int>(frames.size()) - 1)
        return {};
    return run;
}

Run countByDefault(const std::vector<cv::Mat>& frames, bool blur)
{
    MotionCounter::Detail detail;
    detail.enabled = true;
    MotionCounter counter(frames.front().size(), blur, 1, detail);
    Run run;
    run.counts = cv::Mat(frames.front().size(), CV_8UC1, cv::Scalar(0));
    counter.start(frames.front());
    for (size_t i = 1; i < frames.size(); ++i) {
        counter.addFrame(frames[i], run.counts);
        run.pairs.push_back({counter.lastPair().movingPixels, counter.lastPair().newEvents, false, 0});
    }
    run.exactCounts = counter.exactCounts().clone();
    return run;
}

Reference::Analysis referenceOf(const std::vector<cv::Mat>& frames, bool blur, double share, const cv::Mat& mask = {})
{
    Reference::Analysis reference(frames.front().cols, frames.front().rows, blur, mask);
    reference.setSteadyLight(share);
    for (const cv::Mat& frame : frames)
        reference.addFrame(frame);
    return reference;
}

bool equal(const cv::Mat& a, const cv::Mat& b)
{
    cv::Mat a32;
    cv::Mat b32;
    a.convertTo(a32, CV_32S);
    b.convertTo(b32, CV_32S);
    return a.size() == b.size() && cv::countNonZero(a32 != b32) == 0;
}

// Compares the counter with the reference pair by pair, naming the first pair that differs.
void compareWithReference(const Run& run, const Reference::Analysis& reference)
{
    QCOMPARE(run.pairs.size(), reference.activity().size());
    for (size_t p = 0; p < run.pairs.size(); ++p) {
        const Reference::Analysis::Pair& got = run.pairs[p];
        const Reference::Analysis::Pair& want = reference.activity()[p];
        const QByteArray where = QByteArray("pair ") + QByteArray::number(static_cast<int>(p));
        QVERIFY2(got.lightShift == want.lightShift, where.constData());
        QVERIFY2(got.sceneChange == want.sceneChange, where.constData());
        QVERIFY2(got.moving == want.moving, where.constData());
        QVERIFY2(got.newEvents == want.newEvents, where.constData());
    }
    QVERIFY(equal(run.exactCounts, reference.exactCounts()));
    QVERIFY(equal(run.counts, reference.counts()));
}

int countOf(const std::vector<Reference::Analysis::Pair>& pairs, bool sceneChange)
{
    return static_cast<int>(std::count_if(pairs.begin(), pairs.end(),
                                          [&](const auto& pair) { return pair.sceneChange == sceneChange; }));
}

} // namespace

class MotionCounterSteadyLightTest : public QObject {
    Q_OBJECT

private slots:
    void brightnessStepIsTakenOutAsTheReferenceDoes_data()
    {
        QTest::addColumn<bool>("blur");
        QTest::newRow("blurred") << true;
        QTest::newRow("sharp") << false;
    }

    void brightnessStepIsTakenOutAsTheReferenceDoes()
    {
        QFETCH(bool, blur);
        const auto frames = walkingSquare(170, [](int i) { return i >= 80 ? 45 : 0; });
        const Run run = countInSteadyLight(frames, blur, 0.5);
        compareWithReference(run, referenceOf(frames, blur, 0.5));
        QCOMPARE(run.pairs[79].lightShift, 45);
        QVERIFY(!run.pairs[79].sceneChange);
    }

    void slowExposureRampMatchesTheReference()
    {
        const auto frames = walkingSquare(160, [](int i) { return i / 2; });
        const Run run = countInSteadyLight(frames, true, 0.5);
        compareWithReference(run, referenceOf(frames, true, 0.5));
    }

    void twoFrameFlashMatchesTheReference()
    {
        const auto frames = walkingSquare(140, [](int i) { return i == 70 || i == 71 ? 60 : 0; });
        const Run run = countInSteadyLight(frames, false, 0.5);
        compareWithReference(run, referenceOf(frames, false, 0.5));
        QCOMPARE(run.pairs[69].lightShift, 60);
        QCOMPARE(run.pairs[71].lightShift, -60);
    }

    void changeOfSixtyPercentIsASceneChange()
    {
        const auto frames = partChangedAt(150, 90, kWidth * 6 / 10);
        const Run run = countInSteadyLight(frames, false, 0.5);
        compareWithReference(run, referenceOf(frames, false, 0.5));
        QVERIFY(run.pairs[89].sceneChange);
        QCOMPARE(run.pairs[89].newEvents, 0LL);
        QVERIFY(run.pairs[89].moving > kWidth * kHeight / 2);
        QCOMPARE(countOf(run.pairs, true), 1);
    }

    void changeOfFortyPercentIsNoSceneChange()
    {
        const auto frames = partChangedAt(150, 90, kWidth * 4 / 10);
        const Run run = countInSteadyLight(frames, false, 0.5);
        compareWithReference(run, referenceOf(frames, false, 0.5));
        QCOMPARE(countOf(run.pairs, true), 0);
        QVERIFY(run.pairs[89].newEvents > 0);
    }

    void smallerShareMakesTheFortyPercentChangeASceneChange()
    {
        const auto frames = partChangedAt(150, 90, kWidth * 4 / 10);
        const Run run = countInSteadyLight(frames, false, 0.3);
        compareWithReference(run, referenceOf(frames, false, 0.3));
        QVERIFY(run.pairs[89].sceneChange);
    }

    void sceneChangeDoesNotCountTowardsTheQuietGap()
    {
        // One pixel right of the changing part moves in pairs 9 and 10 and again in pair 61:
        // 50 still pairs between, a new event, unless the scene change of pair 30 is skipped,
        // which leaves 49.
        std::vector<cv::Mat> frames;
        for (int i = 0; i < 80; ++i) {
            cv::Mat frame(kHeight, kWidth, CV_8UC1, cv::Scalar(100));
            if (i >= 31) {
                frame(cv::Rect(0, 0, kWidth * 7 / 10, kHeight / 2)).setTo(180);
                frame(cv::Rect(0, kHeight / 2, kWidth * 7 / 10, kHeight - kHeight / 2)).setTo(20);
            }
            if (i == 10 || i == 62)
                frame.at<uchar>(40, 60) = 220;
            frames.push_back(frame);
        }
        const Run steady = countInSteadyLight(frames, false, 0.5);
        compareWithReference(steady, referenceOf(frames, false, 0.5));
        QVERIFY(steady.pairs[30].sceneChange);
        QCOMPARE(static_cast<int>(steady.exactCounts.at<std::uint16_t>(40, 60)), 1);
        const Run plain = countByDefault(frames, false);
        QCOMPARE(static_cast<int>(plain.exactCounts.at<std::uint16_t>(40, 60)), 2);
    }

    void maskedPixelsTakeNoPartInTheMedian()
    {
        // The light changes only under the mask's dark part, so the analysed pixels see none.
        auto frames = walkingSquare(150, [](int) { return 0; });
        cv::Mat mask(kHeight, kWidth, CV_8UC1, cv::Scalar(255));
        mask(cv::Rect(0, 0, kWidth * 3 / 4, kHeight)).setTo(0);
        for (size_t i = 60; i < frames.size(); ++i)
            frames[i](cv::Rect(0, 0, kWidth * 3 / 4, kHeight)) += cv::Scalar(70);
        const Run run = countInSteadyLight(frames, false, 0.5, 1, mask);
        compareWithReference(run, referenceOf(frames, false, 0.5, mask));
        QCOMPARE(run.pairs[58].lightShift, 0);
    }

    void stripesDoNotChangeTheResult()
    {
        const auto frames = walkingSquare(150, [](int i) { return i >= 60 ? -40 : 0; });
        const Run one = countInSteadyLight(frames, true, 0.5, 1);
        const Run three = countInSteadyLight(frames, true, 0.5, 3);
        QVERIFY(equal(one.exactCounts, three.exactCounts));
        QCOMPARE(one.pairs.size(), three.pairs.size());
        for (size_t p = 0; p < one.pairs.size(); ++p) {
            QCOMPARE(one.pairs[p].moving, three.pairs[p].moving);
            QCOMPARE(one.pairs[p].lightShift, three.pairs[p].lightShift);
        }
    }

    void stepGivesTheCountsOfTheClipWithoutIt()
    {
        // The step is small enough that no pixel saturates, so taking it out restores every
        // difference exactly.
        const auto stepped = walkingSquare(170, [](int i) { return i >= 80 ? 20 : 0; });
        const auto steady = walkingSquare(170, [](int) { return 0; });
        const Run withStep = countInSteadyLight(stepped, true, 0.5);
        const Run without = countByDefault(steady, true);
        QVERIFY(equal(withStep.exactCounts, without.exactCounts));
        QVERIFY(equal(withStep.counts, without.counts));
    }

    void withoutDetailTheMapsCountFollowsTheReference_data()
    {
        QTest::addColumn<bool>("blur");
        QTest::addColumn<bool>("exact");
        QTest::newRow("blurred, map alone") << true << false;
        QTest::newRow("sharp, map alone") << false << false;
        QTest::newRow("blurred, exact count") << true << true;
    }

    void withoutDetailTheMapsCountFollowsTheReference()
    {
        QFETCH(bool, blur);
        QFETCH(bool, exact);
        // A step, a flash and a scene change in one clip.
        auto frames = walkingSquare(260, [](int i) { return (i >= 60 ? 35 : 0) + (i == 120 || i == 121 ? 50 : 0); });
        for (size_t i = 180; i < frames.size(); ++i) {
            frames[i](cv::Rect(0, 0, kWidth * 7 / 10, kHeight / 2)) += cv::Scalar(80);
            frames[i](cv::Rect(0, kHeight / 2, kWidth * 7 / 10, kHeight - kHeight / 2)) -= cv::Scalar(80);
        }
        const Run run = countInSteadyLightWithoutDetail(frames, blur, exact, 2);
        const Reference::Analysis reference = referenceOf(frames, blur, 0.5);
        QVERIFY(equal(run.counts, reference.counts()));
        if (exact)
            QVERIFY(equal(run.exactCounts, reference.exactCounts()));
        QCOMPARE(countOf(run.pairs, true), 1);
        for (size_t p = 0; p < run.pairs.size(); ++p) {
            QCOMPARE(run.pairs[p].sceneChange, reference.activity()[p].sceneChange);
            QCOMPARE(run.pairs[p].lightShift, reference.activity()[p].lightShift);
        }
    }

    void clipWithoutLightChangeCountsAsWithoutTheOption_data()
    {
        QTest::addColumn<bool>("blur");
        QTest::newRow("blurred") << true;
        QTest::newRow("sharp") << false;
    }

    void clipWithoutLightChangeCountsAsWithoutTheOption()
    {
        QFETCH(bool, blur);
        const auto frames = walkingSquare(160, [](int) { return 0; });
        const Run steady = countInSteadyLight(frames, blur, 0.5, 2);
        const Run plain = countByDefault(frames, blur);
        QVERIFY(equal(steady.counts, plain.counts));
        QVERIFY(equal(steady.exactCounts, plain.exactCounts));
        for (size_t p = 0; p < plain.pairs.size(); ++p) {
            QCOMPARE(steady.pairs[p].lightShift, 0);
            QCOMPARE(steady.pairs[p].moving, plain.pairs[p].moving);
            QCOMPARE(steady.pairs[p].newEvents, plain.pairs[p].newEvents);
        }
    }
};

QTEST_APPLESS_MAIN(MotionCounterSteadyLightTest)
#include "MotionCounterSteadyLightTest.moc"
