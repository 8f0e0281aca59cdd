#include "ClipMaking.h"
#include "MotionCounter.h"
#include "MotionKernels.h"
#include "ReferenceMotion.h"

#include <QtTest>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <vector>

namespace {

using ClipMaking::kBackground;
using ClipMaking::kObject;
using ClipMaking::speckledNoise;

// Frames of `size` where pixel (x 2, y 1) is bright in the frames for which `bright` is true.
std::vector<cv::Mat> blinkingPixel(cv::Size size, int frameCount, const std::function<bool(int)>& bright)
{
    std::vector<cv::Mat> frames;
    for (int i = 0; i < frameCount; ++i) {
        cv::Mat frame(size, CV_8UC1, cv::Scalar(kBackground));
        if (bright(i))
            frame.at<uchar>(1, 2) = kObject;
        frames.push_back(frame);
    }
    return frames;
}

// Runs the counter over `frames` the way a pass does: the first frame starts it, every
// later one makes a pair with the frame before.
cv::Mat countOver(const std::vector<cv::Mat>& frames, bool blur, int stripes = 0)
{
    const cv::Size size = frames.front().size();
    MotionCounter counter(size, blur, stripes);
    cv::Mat counts(size, CV_8UC1, cv::Scalar(0));
    counter.start(frames.front());
    for (size_t i = 1; i < frames.size(); ++i)
        counter.addFrame(frames[i], counts);
    return counts;
}

// The detailed counter's outputs after `frames`.
struct Detailed {
    cv::Mat counts;
    cv::Mat exactCounts;
    std::vector<Reference::Analysis::Pair> activity;
};

Detailed countDetailedOver(const std::vector<cv::Mat>& frames, bool blur, int stripes = 0, const cv::Mat& mask = {})
{
    const cv::Size size = frames.front().size();
    MotionCounter::Detail detail;
    detail.enabled = true;
    detail.mask = mask;
    MotionCounter counter(size, blur, stripes, detail);
    Detailed out;
    out.counts = cv::Mat(size, CV_8UC1, cv::Scalar(0));
    counter.start(frames.front());
    for (size_t i = 1; i < frames.size(); ++i) {
        counter.addFrame(frames[i], out.counts);
        out.activity.push_back({counter.lastPair().movingPixels, counter.lastPair().newEvents});
    }
    out.exactCounts = counter.exactCounts();
    return out;
}

// The counter keeping the exact count alone: its wrapping and its exact counts after `frames`.
struct Exact {
    cv::Mat counts;
    cv::Mat exactCounts;
};

Exact countExactOver(const std::vector<cv::Mat>& frames, bool blur, int stripes = 0)
{
    const cv::Size size = frames.front().size();
    MotionCounter::Detail detail;
    detail.exactCounts = true;
    MotionCounter counter(size, blur, stripes, detail);
    Exact out;
    out.counts = cv::Mat(size, CV_8UC1, cv::Scalar(0));
    counter.start(frames.front());
    for (size_t i = 1; i < frames.size(); ++i) {
        counter.addFrame(frames[i], out.counts);
        // It counts no pair's activity.
        if (counter.lastPair().movingPixels != 0 || counter.lastPair().newEvents != 0)
            return {};
    }
    out.exactCounts = counter.exactCounts().clone();
    return out;
}

// Frames of `size` whose left half turns from dark to bright and back every `leftPeriod`
// frames and whose right half every `rightPeriod` frames.
class TwoBlinkingHalves {
public:
    TwoBlinkingHalves(cv::Size size, int leftPeriod, int rightPeriod)
    {
        for (int left = 0; left < 2; ++left) {
            for (int right = 0; right < 2; ++right) {
                cv::Mat frame(size, CV_8UC1, cv::Scalar(kBackground));
                frame(cv::Rect(0, 0, size.width / 2, size.height)).setTo(left ? kObject : kBackground);
                frame(cv::Rect(size.width / 2, 0, size.width - size.width / 2, size.height))
                    .setTo(right ? kObject : kBackground);
                m_frames[left][right] = frame;
            }
        }
        m_leftPeriod = leftPeriod;
        m_rightPeriod = rightPeriod;
    }

    const cv::Mat& frame(int index) const
    {
        return m_frames[(index / m_leftPeriod) % 2][(index / m_rightPeriod) % 2];
    }

private:
    cv::Mat m_frames[2][2];
    int m_leftPeriod = 1;
    int m_rightPeriod = 1;
};

bool sameActivity(const std::vector<Reference::Analysis::Pair>& a, const std::vector<Reference::Analysis::Pair>& b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].moving != b[i].moving || a[i].newEvents != b[i].newEvents) {
            qWarning("pair %zu: moving %lld, new %lld; expected %lld, %lld", i, a[i].moving, a[i].newEvents,
                     b[i].moving, b[i].newEvents);
            return false;
        }
    }
    return true;
}

cv::Mat as32Bit(const cv::Mat& matrix)
{
    cv::Mat out;
    matrix.convertTo(out, CV_32SC1);
    return out;
}

cv::Mat referenceCounts(const std::vector<cv::Mat>& frames, bool blur)
{
    Reference::Analysis reference(frames.front().cols, frames.front().rows, blur);
    for (const cv::Mat& frame : frames)
        reference.addFrame(frame);
    return reference.counts();
}

bool equal(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::countNonZero(a != b) == 0;
}

cv::Mat randomFrame(cv::Size size, cv::RNG& random)
{
    cv::Mat frame(size, CV_8UC1);
    random.fill(frame, cv::RNG::UNIFORM, 0, 256);
    return frame;
}

cv::Mat libraryBlur(const cv::Mat& frame)
{
    cv::Mat blurred;
    cv::blur(frame, blurred, cv::Size(7, 7), cv::Point(-1, -1), cv::BORDER_REFLECT_101);
    return blurred;
}

// Counts the same 40000 pairs with exact counting alone and with the detailed count, which
// counts every event as it comes (and is itself held to the reference), and compares them at
// the pairs `looksAt` names and at the end. The left half moves every 51 pairs, as often as
// new events can come, the right half less often: the left half's count passes 256 several
// times.
void countExactBesideDetailedOver40000Pairs(bool blur, int stripes, const std::function<bool(int)>& looksAt)
{
    const cv::Size size(24, 9);
    const TwoBlinkingHalves frames(size, MotionCounter::kNewEventGap, 77);
    MotionCounter::Detail exactOnly;
    exactOnly.exactCounts = true;
    MotionCounter::Detail detailed;
    detailed.enabled = true;
    MotionCounter exact(size, blur, stripes, exactOnly);
    MotionCounter reference(size, blur, stripes, detailed);
    cv::Mat exactCounts(size, CV_8UC1, cv::Scalar(0));
    cv::Mat referenceCounts(size, CV_8UC1, cv::Scalar(0));
    exact.start(frames.frame(0));
    reference.start(frames.frame(0));
    for (int i = 1; i <= 40000; ++i) {
        exact.addFrame(frames.frame(i), exactCounts);
        reference.addFrame(frames.frame(i), referenceCounts);
        if (looksAt(i)) {
            QVERIFY2(equal(exact.exactCounts(), reference.exactCounts()), qPrintable(QStringLiteral("pair %1").arg(i)));
            QVERIFY(equal(exactCounts, referenceCounts));
        }
    }
    QVERIFY(equal(exact.exactCounts(), reference.exactCounts()));
    QVERIFY(equal(exactCounts, referenceCounts));
    QCOMPARE(int(exact.exactCounts().at<quint16>(4, 1)), 40000 / MotionCounter::kNewEventGap);
    QCOMPARE(int(exactCounts.at<uchar>(4, 1)), (40000 / MotionCounter::kNewEventGap) % 256);
}

} // namespace

class MotionCounterTest : public QObject {
    Q_OBJECT

private slots:
    void everyPixelStartsStillLongEnoughForItsFirstMotionToCount()
    {
        MotionCounter counter(cv::Size(5, 3), true);
        counter.start(cv::Mat(3, 5, CV_8UC1, cv::Scalar(kBackground)));
        QCOMPARE(counter.quietPairs().size(), cv::Size(5, 3));
        QCOMPARE(counter.quietPairs().type(), CV_8UC1);
        QCOMPARE(cv::countNonZero(counter.quietPairs() != MotionCounter::kNewEventGap - 1), 0);
        QCOMPARE(counter.pairs(), 0);
    }

    void firstMotionAtAPixelAlwaysCounts()
    {
        const std::vector<cv::Mat> frames = blinkingPixel(cv::Size(5, 3), 2, [](int i) { return i == 1; });
        const cv::Mat counts = countOver(frames, false);
        QCOMPARE(int(counts.at<uchar>(1, 2)), 1);
        QCOMPARE(cv::countNonZero(counts), 1);
    }

    void motionInPairsZeroAndFiftyCountsOneEvent()
    {
        // Pair k compares frames k and k+1: bright only in frame 0 and from frame 51 on.
        const auto frames = blinkingPixel(cv::Size(5, 3), 55, [](int i) { return i == 0 || i >= 51; });
        QCOMPARE(int(countOver(frames, false).at<uchar>(1, 2)), 1);
    }

    void motionInPairsZeroAndFiftyOneCountsTwoEvents()
    {
        const auto frames = blinkingPixel(cv::Size(5, 3), 55, [](int i) { return i == 0 || i >= 52; });
        QCOMPARE(int(countOver(frames, false).at<uchar>(1, 2)), 2);
    }

    void pixelMovingInEveryPairCountsOneEvent()
    {
        const auto frames = blinkingPixel(cv::Size(5, 3), 200, [](int i) { return i % 2 == 0; });
        QCOMPARE(int(countOver(frames, false).at<uchar>(1, 2)), 1);
    }

    void quietPairsCountFromTheLastMotionAndSaturate()
    {
        // Motion in pairs 2, 3, 9 and 10; then one pair without.
        const auto frames = blinkingPixel(cv::Size(5, 3), 13, [](int i) { return i == 3 || i == 10; });
        MotionCounter counter(cv::Size(5, 3), false);
        cv::Mat counts(3, 5, CV_8UC1, cv::Scalar(0));
        counter.start(frames.front());
        for (size_t i = 1; i + 1 < frames.size(); ++i)
            counter.addFrame(frames[i], counts);
        QCOMPARE(counter.pairs(), 11);
        QCOMPARE(int(counter.quietPairs().at<uchar>(1, 2)), 0);
        QCOMPARE(int(counter.quietPairs().at<uchar>(0, 0)), MotionCounter::kNewEventGap - 1);
        counter.addFrame(frames.back(), counts);
        QCOMPARE(int(counter.quietPairs().at<uchar>(1, 2)), 1);
        QCOMPARE(int(counts.at<uchar>(1, 2)), 1);
    }

    void the256thEventWrapsTheCountToZero()
    {
        // The pixel changes every 51 frames: motion in pairs 50, 101, 152 ..., each 51 pairs
        // after the one before, so each is a new event.
        const cv::Size size(5, 3);
        const auto frames = blinkingPixel(size, 2, [](int i) { return i == 1; });
        MotionCounter counter(size, false);
        cv::Mat counts(size, CV_8UC1, cv::Scalar(0));
        counter.start(frames[0]);
        const auto frameAt = [&](int i) -> const cv::Mat& { return frames[static_cast<size_t>((i / 51) % 2)]; };
        const auto countAfterEvents = [&](int events) {
            while (counter.pairs() < 51 + 51 * (events - 1))
                counter.addFrame(frameAt(counter.pairs() + 1), counts);
            return int(counts.at<uchar>(1, 2));
        };
        QCOMPARE(countAfterEvents(1), 1);
        QCOMPARE(countAfterEvents(255), 255);
        QCOMPARE(countAfterEvents(256), 0);
        QCOMPARE(countAfterEvents(257), 1);
        QCOMPARE(cv::countNonZero(counts), 1);
    }

    void withoutBlurTheThresholdIsFortyAndFramesAreOnlyRead()
    {
        MotionCounter counter(cv::Size(8, 8), false);
        QCOMPARE(counter.threshold(), 40.0);
        const cv::Mat previous(8, 8, CV_8UC1, cv::Scalar(100));
        cv::Mat current = previous.clone();
        current.at<uchar>(2, 2) = 140; // differs by exactly 40: not motion
        current.at<uchar>(5, 5) = 141; // differs by 41: motion
        current.at<uchar>(6, 1) = 59;  // differs by 41 the other way: motion
        const cv::Mat currentBefore = current.clone();
        cv::Mat counts(8, 8, CV_8UC1, cv::Scalar(0));
        counter.start(previous);
        counter.addFrame(current, counts);
        QVERIFY(equal(current, currentBefore));
        QVERIFY(equal(counter.previous(), current));
        QCOMPARE(int(counts.at<uchar>(5, 5)), 1);
        QCOMPARE(int(counts.at<uchar>(6, 1)), 1);
        QCOMPARE(cv::countNonZero(counts), 2);
    }

    void withBlurTheThresholdIsTwenty()
    {
        MotionCounter counter(cv::Size(8, 8), true);
        QCOMPARE(counter.threshold(), 20.0);
        cv::Mat counts(8, 8, CV_8UC1, cv::Scalar(0));
        counter.start(cv::Mat(8, 8, CV_8UC1, cv::Scalar(100)));
        counter.addFrame(cv::Mat(8, 8, CV_8UC1, cv::Scalar(120)), counts);
        QCOMPARE(cv::countNonZero(counts), 0);
        counter.addFrame(cv::Mat(8, 8, CV_8UC1, cv::Scalar(141)), counts);
        QCOMPARE(cv::countNonZero(counts), 64);
    }

    void framesAreOnlyReadAndTheSmoothedOneIsKept()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(33, 17), 3, 5);
        const std::vector<cv::Mat> originals = {frames[0].clone(), frames[1].clone(), frames[2].clone()};
        MotionCounter counter(cv::Size(33, 17), true);
        cv::Mat counts(17, 33, CV_8UC1, cv::Scalar(0));
        counter.start(frames[0]);
        QVERIFY(equal(counter.previous(), Reference::boxBlur7(originals[0])));
        counter.addFrame(frames[1], counts);
        QVERIFY(equal(counter.previous(), Reference::boxBlur7(originals[1])));
        counter.addFrame(frames[2], counts);
        QVERIFY(equal(counter.previous(), Reference::boxBlur7(originals[2])));
        for (size_t i = 0; i < frames.size(); ++i)
            QVERIFY(equal(frames[i], originals[i]));
    }

    void smoothingIsTheLibrarysBoxFilterAtEverySize_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        // Every size up to 12 x 12 (narrower and lower than the kernel, where borders reflect
        // more than once), odd sizes, and rows longer than one vector of any instruction set.
        for (int width = 1; width <= 12; ++width)
            for (int height = 1; height <= 12; ++height)
                QTest::addRow("%dx%d", width, height) << width << height;
        for (const cv::Size size : {cv::Size(33, 17), cv::Size(65, 9), cv::Size(97, 3), cv::Size(131, 71),
                                    cv::Size(1, 300), cv::Size(300, 1), cv::Size(321, 241)})
            QTest::addRow("%dx%d", size.width, size.height) << size.width << size.height;
    }

    void smoothingIsTheLibrarysBoxFilterAtEverySize()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        cv::RNG random(static_cast<uint64_t>(width * 1000 + height));
        const cv::Mat frame = randomFrame(cv::Size(width, height), random);
        MotionCounter counter(frame.size(), true);
        counter.start(frame);
        QVERIFY(equal(counter.previous(), libraryBlur(frame)));
        QVERIFY(equal(counter.previous(), Reference::boxBlur7(frame)));
    }

    void meanOf49IsRoundedDivisionForEverySum()
    {
        // Every sum of 49 bytes, each alone in its window of 7 column sums.
        constexpr int kLargestSum = 49 * 255;
        const int sums = kLargestSum + 1;
        std::vector<std::uint16_t> columnSums(static_cast<size_t>(sums) * 7 + 6, 0);
        for (int sum = 0; sum < sums; ++sum)
            columnSums[static_cast<size_t>(sum) * 7] = static_cast<std::uint16_t>(sum);
        std::vector<std::uint8_t> means(static_cast<size_t>(sums) * 7);
        MotionKernels::meansOf49(columnSums.data(), means.data(), static_cast<int>(means.size()));
        for (int sum = 0; sum < sums; ++sum)
            QCOMPARE(int(means[static_cast<size_t>(sum) * 7]), cvRound(sum / 49.0));
    }

    void framesWithPaddedRowsAreReadWithinTheirWidth()
    {
        // Decoded pictures have rows longer than their width; a view over such a buffer
        // (pointer and row stride, as the pass wraps frames) must not read the padding as
        // picture.
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(33, 17), 60, 21);
        std::vector<cv::Mat> buffers, views;
        for (const cv::Mat& frame : frames) {
            cv::Mat buffer(17, 48, CV_8UC1, cv::Scalar(255));
            frame.copyTo(buffer(cv::Rect(0, 0, 33, 17)));
            buffers.push_back(buffer);
            views.emplace_back(17, 33, CV_8UC1, buffer.data, buffer.step);
        }
        QVERIFY(equal(countOver(views, true), referenceCounts(frames, true)));
        QVERIFY(equal(countOver(views, false), referenceCounts(frames, false)));
        const cv::Mat padding = buffers[5](cv::Rect(33, 0, 15, 17));
        QCOMPARE(cv::countNonZero(padding != 255), 0);
    }

    void startingAgainForgetsTheVideoBefore()
    {
        const std::vector<cv::Mat> first = speckledNoise(cv::Size(20, 10), 80, 3);
        const std::vector<cv::Mat> second = speckledNoise(cv::Size(20, 10), 80, 4);
        MotionCounter counter(cv::Size(20, 10), true);
        cv::Mat counts(10, 20, CV_8UC1, cv::Scalar(0));
        counter.start(first.front());
        for (size_t i = 1; i < first.size(); ++i)
            counter.addFrame(first[i], counts);
        counts.setTo(cv::Scalar(0));
        counter.start(second.front());
        for (size_t i = 1; i < second.size(); ++i)
            counter.addFrame(second[i], counts);
        QVERIFY(equal(counts, referenceCounts(second, true)));
    }

    void matchesReferenceOnNoiseAndSpeckle_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<bool>("blur");
        for (const bool blur : {true, false}) {
            const char* suffix = blur ? "blurred" : "sharp";
            for (const cv::Size size : {cv::Size(33, 17), cv::Size(1, 40), cv::Size(40, 1), cv::Size(1, 1),
                                        cv::Size(2, 2), cv::Size(3, 5), cv::Size(7, 7), cv::Size(8, 9),
                                        cv::Size(64, 48), cv::Size(67, 13)})
                QTest::addRow("%dx%d %s", size.width, size.height, suffix) << size.width << size.height << blur;
        }
    }

    void matchesReferenceOnNoiseAndSpeckle()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(bool, blur);
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(width, height), 400, 13);
        const cv::Mat expected = referenceCounts(frames, blur);
        QVERIFY(cv::countNonZero(expected) > 0);
        QVERIFY(equal(countOver(frames, blur), expected));
    }

    void anyNumberOfStripesGivesTheReferenceCounts_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<int>("stripes");
        QTest::addColumn<bool>("blur");
        // Stripes lower than the kernel, uneven stripes, and more stripes than rows.
        for (const bool blur : {true, false}) {
            for (const cv::Size size : {cv::Size(33, 17), cv::Size(1, 40), cv::Size(40, 1), cv::Size(1, 1),
                                        cv::Size(5, 3), cv::Size(67, 13), cv::Size(20, 64), cv::Size(9, 97)}) {
                for (const int stripes : {1, 2, 3, 4, 7, 200})
                    QTest::addRow("%dx%d %d stripes %s", size.width, size.height, stripes, blur ? "blurred" : "sharp")
                        << size.width << size.height << stripes << blur;
            }
        }
    }

    void anyNumberOfStripesGivesTheReferenceCounts()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(int, stripes);
        QFETCH(bool, blur);
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(width, height), 200, 17);
        MotionCounter counter(frames.front().size(), blur, stripes);
        QCOMPARE(counter.stripes(), std::min(stripes, height));
        counter.start(frames.front());
        QVERIFY(equal(counter.previous(), blur ? libraryBlur(frames.front()) : frames.front()));
        const cv::Mat expected = referenceCounts(frames, blur);
        QVERIFY(cv::countNonZero(expected) > 0);
        QVERIFY(equal(countOver(frames, blur, stripes), expected));
    }

    void detailedCountingMatchesTheReferenceExactlyPairByPair_data() { anyNumberOfStripesGivesTheReferenceCounts_data(); }

    void detailedCountingMatchesTheReferenceExactlyPairByPair()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(int, stripes);
        QFETCH(bool, blur);
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(width, height), 300, 23);
        Reference::Analysis reference(width, height, blur);
        for (const cv::Mat& frame : frames)
            reference.addFrame(frame);
        const Detailed detailed = countDetailedOver(frames, blur, stripes);
        QVERIFY(cv::countNonZero(reference.counts()) > 0);
        QVERIFY(equal(detailed.counts, reference.counts()));
        QCOMPARE(detailed.exactCounts.type(), CV_16UC1);
        QVERIFY(equal(as32Bit(detailed.exactCounts), reference.exactCounts()));
        QVERIFY(sameActivity(detailed.activity, reference.activity()));
    }

    void exactCountingGivesTheReferencesAndTheDetailedCounts_data() { anyNumberOfStripesGivesTheReferenceCounts_data(); }

    void exactCountingGivesTheReferencesAndTheDetailedCounts()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(int, stripes);
        QFETCH(bool, blur);
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(width, height), 300, 23);
        Reference::Analysis reference(width, height, blur);
        for (const cv::Mat& frame : frames)
            reference.addFrame(frame);
        const Exact exact = countExactOver(frames, blur, stripes);
        QVERIFY(!exact.counts.empty());
        QVERIFY(cv::countNonZero(reference.exactCounts()) > 0);
        QVERIFY(equal(exact.counts, reference.counts()));
        QCOMPARE(exact.exactCounts.type(), CV_16UC1);
        QVERIFY(equal(as32Bit(exact.exactCounts), reference.exactCounts()));
        QVERIFY(equal(exact.exactCounts, countDetailedOver(frames, blur, stripes).exactCounts));
    }

    void exactCountingFollowsTheDetailedCountPairByPairPastTheWrap_data()
    {
        QTest::addColumn<bool>("blur");
        QTest::addColumn<int>("stripes");
        for (const bool blur : {true, false})
            for (const int stripes : {1, 3})
                QTest::addRow("%s, %d stripes", blur ? "blurred" : "sharp", stripes) << blur << stripes;
    }

    void exactCountingFollowsTheDetailedCountPairByPairPastTheWrap()
    {
        QFETCH(bool, blur);
        QFETCH(int, stripes);
        // Looked at now and then only, as a caller might; every look must be right.
        countExactBesideDetailedOver40000Pairs(blur, stripes, [](int pair) {
            return pair % 997 == 0 || pair == 13004 || pair == 13005 || pair == 13006;
        });
    }

    // Unread for 40000 pairs, the exact count must still take in every wrap of the map's count.
    void exactCountingUnreadStaysExactPastManyWraps_data() { exactCountingFollowsTheDetailedCountPairByPairPastTheWrap_data(); }

    void exactCountingUnreadStaysExactPastManyWraps()
    {
        QFETCH(bool, blur);
        QFETCH(int, stripes);
        countExactBesideDetailedOver40000Pairs(blur, stripes, [](int) { return false; });
    }

    void exactCountingStartedAgainForgetsTheVideoBefore()
    {
        const std::vector<cv::Mat> first = speckledNoise(cv::Size(30, 20), 200, 3);
        const std::vector<cv::Mat> second = speckledNoise(cv::Size(30, 20), 150, 4);
        MotionCounter::Detail detail;
        detail.exactCounts = true;
        MotionCounter counter(cv::Size(30, 20), true, 2, detail);
        cv::Mat counts(cv::Size(30, 20), CV_8UC1, cv::Scalar(0));
        counter.start(first.front());
        for (size_t i = 1; i < first.size(); ++i)
            counter.addFrame(first[i], counts);
        QVERIFY(cv::countNonZero(counter.exactCounts()) > 0);
        counter.start(second.front());
        QCOMPARE(cv::countNonZero(counter.exactCounts()), 0);
        // A fresh count for the second video, as a pass gives.
        counts.setTo(cv::Scalar(0));
        for (size_t i = 1; i < second.size(); ++i)
            counter.addFrame(second[i], counts);
        Reference::Analysis reference(30, 20, true);
        for (const cv::Mat& frame : second)
            reference.addFrame(frame);
        QVERIFY(cv::countNonZero(reference.exactCounts()) > 0);
        QVERIFY(equal(as32Bit(counter.exactCounts()), reference.exactCounts()));
    }

    void exactCountsAreOnlyKeptWhenAskedFor()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(20, 20), 10, 3);
        MotionCounter counter(frames.front().size(), true, 1);
        cv::Mat counts(frames.front().size(), CV_8UC1, cv::Scalar(0));
        counter.start(frames.front());
        for (size_t i = 1; i < frames.size(); ++i)
            counter.addFrame(frames[i], counts);
        QVERIFY(cv::countNonZero(counts) > 0);
        QVERIFY(counter.exactCounts().empty());
    }

    void newEventCellsOfEveryPairMatchTheReference_data()
    {
        QTest::addColumn<int>("stripes");
        QTest::addColumn<int>("cellSize");
        QTest::addColumn<bool>("blur");
        for (const int stripes : {1, 3, 7})
            for (const int cellSize : {16, 7, 1})
                for (const bool blur : {true, false})
                    QTest::addRow("%d stripes, %d px cells, %s", stripes, cellSize, blur ? "blur" : "sharp")
                        << stripes << cellSize << blur;
    }

    void newEventCellsOfEveryPairMatchTheReference()
    {
        QFETCH(int, stripes);
        QFETCH(int, cellSize);
        QFETCH(bool, blur);
        // 45 x 37: the last column and row of cells are narrower than the others.
        const cv::Size size(45, 37);
        const std::vector<cv::Mat> frames = speckledNoise(size, 240, 31);
        Reference::Analysis reference(size.width, size.height, blur);
        MotionCounter::Detail detail;
        detail.enabled = true;
        detail.cellSize = cellSize;
        MotionCounter counter(size, blur, stripes, detail);
        cv::Mat counts(size, CV_8UC1, cv::Scalar(0));
        reference.addFrame(frames.front());
        counter.start(frames.front());
        const int columns = (size.width + cellSize - 1) / cellSize;
        const size_t cells = static_cast<size_t>(columns) * static_cast<size_t>((size.height + cellSize - 1) / cellSize);
        QCOMPARE(counter.lastPairCells().size(), cells);
        int pairsWithEvents = 0;
        for (size_t i = 1; i < frames.size(); ++i) {
            reference.addFrame(frames[i]);
            counter.addFrame(frames[i], counts);
            std::vector<std::uint8_t> expected(cells, 0);
            for (const cv::Point& pixel : reference.newEventPixels().back())
                expected[static_cast<size_t>(pixel.y / cellSize * columns + pixel.x / cellSize)] = 1;
            if (counter.lastPair().newEvents == 0) {
                QVERIFY(reference.newEventPixels().back().empty());
                continue;
            }
            ++pairsWithEvents;
            std::vector<std::uint8_t> flagged(cells, 0);
            for (size_t cell = 0; cell < cells; ++cell)
                flagged[cell] = counter.lastPairCells()[cell] != 0 ? 1 : 0;
            QVERIFY2(flagged == expected, qPrintable(QStringLiteral("pair %1").arg(i - 1)));
        }
        QVERIFY(pairsWithEvents > 10);
    }

    void cellsAreOnlyKeptWhenAskedFor()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(20, 20), 10, 3);
        MotionCounter::Detail detail;
        detail.enabled = true;
        MotionCounter counter(frames.front().size(), true, 1, detail);
        cv::Mat counts(frames.front().size(), CV_8UC1, cv::Scalar(0));
        counter.start(frames.front());
        std::int64_t newEvents = 0;
        for (size_t i = 1; i < frames.size(); ++i) {
            counter.addFrame(frames[i], counts);
            newEvents += counter.lastPair().newEvents;
            QVERIFY(counter.lastPairCells().empty());
        }
        QVERIFY(newEvents > 0);
    }

    void detailedCountingGivesTheFastPathsCounts()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(64, 48), 300, 5);
        for (const bool blur : {true, false}) {
            const cv::Mat fast = countOver(frames, blur);
            QVERIFY(cv::countNonZero(fast) > 0);
            QVERIFY(equal(countDetailedOver(frames, blur).counts, fast));
        }
    }

    void newEventsOfAllPairsSumToTheExactCounts()
    {
        const Detailed detailed = countDetailedOver(speckledNoise(cv::Size(40, 30), 400, 7), true);
        long long sum = 0;
        for (const auto& pair : detailed.activity)
            sum += pair.newEvents;
        QVERIFY(sum > 0);
        QCOMPARE(sum, static_cast<long long>(cv::sum(detailed.exactCounts)[0]));
    }

    void theExactCountPassesTheWrapAt256()
    {
        // The pixel changes every 51 frames: each of its motions is a new event.
        const cv::Size size(5, 3);
        const auto frames = blinkingPixel(size, 2, [](int i) { return i == 1; });
        MotionCounter::Detail detail;
        detail.enabled = true;
        MotionCounter counter(size, false, 0, detail);
        cv::Mat counts(size, CV_8UC1, cv::Scalar(0));
        counter.start(frames[0]);
        while (counter.pairs() < 51 + 51 * 299)
            counter.addFrame(frames[static_cast<size_t>(((counter.pairs() + 1) / 51) % 2)], counts);
        QCOMPARE(int(counts.at<uchar>(1, 2)), 300 - 256);
        QCOMPARE(int(counter.exactCounts().at<quint16>(1, 2)), 300);
        QCOMPARE(cv::countNonZero(counter.exactCounts()), 1);
    }

    void theExactCountSaturatesAt65535()
    {
        for (const bool blur : {false, true}) {
            const int width = 40;
            std::vector<std::uint8_t> previous(width, 0), quiet(width, MotionKernels::kQuietForNewEvent);
            std::vector<std::uint8_t> current(width, 255), counts(width, 7), mask(width, 255);
            std::vector<std::uint16_t> events(width, 65534);
            std::vector<std::uint16_t> columnSums(width + 6, 7 * 255);
            const auto countOnce = [&] {
                return blur ? MotionKernels::countBlurredRowDetailed(columnSums.data(), previous.data(), quiet.data(),
                                                                     counts.data(), events.data(), mask.data(), width, 20)
                            : MotionKernels::countRowDetailed(current.data(), previous.data(), quiet.data(),
                                                              counts.data(), events.data(), mask.data(), width, 20);
            };
            const MotionKernels::RowTally first = countOnce();
            QCOMPARE(int(first.newEvents), width);
            QCOMPARE(int(events[13]), 65535);
            QCOMPARE(int(counts[13]), 8);
            std::fill(previous.begin(), previous.end(), std::uint8_t{0});
            std::fill(quiet.begin(), quiet.end(), MotionKernels::kQuietForNewEvent);
            const MotionKernels::RowTally second = countOnce();
            QCOMPARE(int(second.newEvents), width);
            QCOMPARE(int(second.moving), width);
            QVERIFY(std::all_of(events.begin(), events.end(), [](std::uint16_t e) { return e == 65535; }));
            QCOMPARE(int(counts[13]), 9);
        }
    }

    void aRowCountedApartFollowsTheRuleTalliesTheLightAndIsTakenBackExactly_data()
    {
        QTest::addColumn<bool>("blur");
        QTest::newRow("sharp") << false;
        QTest::newRow("blurred") << true;
    }

    // A pair counted apart leaves the picture and the quiet pairs as they were, writes the
    // rule's new quiet pairs beside them, tallies the row's light, and is taken back to the
    // counts it started from, also where a count wrapped. Long runs of darker pixels would
    // overflow a tally kept in too few bits.
    void aRowCountedApartFollowsTheRuleTalliesTheLightAndIsTakenBackExactly()
    {
        QFETCH(bool, blur);
        const int width = 1013; // whole vectors and a tail
        const std::uint8_t threshold = 20;
        cv::RNG random(23);
        std::vector<std::uint16_t> columnSums(width + 6);
        for (std::uint16_t& sum : columnSums)
            sum = static_cast<std::uint16_t>(random.uniform(0, 7 * 255 + 1));
        std::vector<std::uint8_t> current(width), previous(width), quiet(width), counts(width);
        for (int x = 0; x < width; ++x) {
            const size_t i = static_cast<size_t>(x);
            if (blur) {
                int sum49 = 0;
                for (int k = 0; k < 7; ++k)
                    sum49 += columnSums[i + static_cast<size_t>(k)];
                current[i] = static_cast<std::uint8_t>(std::lround(sum49 / 49.0));
            } else {
                current[i] = static_cast<std::uint8_t>(random.uniform(0, 256));
            }
            const bool darkRun = x >= 100 && x < 700;
            previous[i] = darkRun ? static_cast<std::uint8_t>(std::min(current[i] + 1 + x % 40, 255))
                                  : static_cast<std::uint8_t>(random.uniform(0, 256));
            quiet[i] = static_cast<std::uint8_t>(std::min(random.uniform(0, 80), 50));
            counts[i] = static_cast<std::uint8_t>(x % 3 == 0 ? 255 : random.uniform(0, 256));
        }
        const std::vector<std::uint8_t> expectedCurrent = current;
        const std::vector<std::uint8_t> previousBefore = previous, quietBefore = quiet, countsBefore = counts;
        std::vector<std::uint8_t> quietAfter(width, 99);
        if (blur)
            std::fill(current.begin(), current.end(), std::uint8_t{7});
        const MotionKernels::LightTally light = blur
            ? MotionKernels::countBlurredRowApartTallyingLight(columnSums.data(), current.data(), previous.data(),
                                                              quiet.data(), quietAfter.data(), counts.data(), width,
                                                              threshold)
            : MotionKernels::countRowApartTallyingLight(current.data(), previous.data(), quiet.data(),
                                                        quietAfter.data(), counts.data(), width, threshold);
        QCOMPARE(current, expectedCurrent);
        QCOMPARE(previous, previousBefore);
        QCOMPARE(quiet, quietBefore);
        int newEvents = 0;
        int darker = 0;
        int notBrighter = 0;
        int beyond = 0;
        for (size_t x = 0; x < current.size(); ++x) {
            const int difference = int(current[x]) - int(previous[x]);
            const bool moved = std::abs(difference) > threshold;
            const bool newEvent = moved && quiet[x] == 50;
            newEvents += newEvent ? 1 : 0;
            darker += difference < 0 ? 1 : 0;
            notBrighter += difference <= 0 ? 1 : 0;
            beyond += moved ? 1 : 0;
            QCOMPARE(int(counts[x]), (countsBefore[x] + (newEvent ? 1 : 0)) % 256);
            QCOMPARE(int(quietAfter[x]), moved ? 0 : std::min(quiet[x] + 1, 50));
        }
        QVERIFY(newEvents > 10);
        QVERIFY(darker > 600);
        QCOMPARE(int(light.darker), darker);
        QCOMPARE(int(light.notBrighter), notBrighter);
        QCOMPARE(int(light.beyondThreshold), beyond);
        MotionKernels::uncountRow(current.data(), previous.data(), quiet.data(), counts.data(), width, threshold);
        QCOMPARE(counts, countsBefore);
    }

    void foldingAddsWhatTheWrappingCountGrewByAndSaturatesAt65535()
    {
        const int width = 6;
        // Grown by 0, 1, 255, across the wrap (250 -> 4: 10), and twice onto a full count.
        std::vector<std::uint8_t> folded{9, 9, 0, 250, 100, 100};
        const std::vector<std::uint8_t> counts{9, 10, 255, 4, 101, 200};
        std::vector<std::uint16_t> events{3, 3, 3, 3, 65535, 65500};
        MotionKernels::foldRow(counts.data(), folded.data(), events.data(), width);
        QCOMPARE(events, (std::vector<std::uint16_t>{3, 4, 258, 13, 65535, 65535}));
        QCOMPARE(folded, counts);
        // Folded again without a change, nothing is added.
        MotionKernels::foldRow(counts.data(), folded.data(), events.data(), width);
        QCOMPARE(events, (std::vector<std::uint16_t>{3, 4, 258, 13, 65535, 65535}));
    }

    // The longest run without a fold may give a pixel 255 new events; one more pair could give
    // it the 256th, which the wrapping count would hide.
    void theExactCountFoldsBeforeAPixelCanWrapUnseen()
    {
        QVERIFY((MotionCounter::kFoldPairs + MotionCounter::kNewEventGap - 1) / MotionCounter::kNewEventGap <= 255);
        QVERIFY((MotionCounter::kFoldPairs + MotionCounter::kNewEventGap) / MotionCounter::kNewEventGap > 255);
    }

    void maskedPixelsNeverMoveAndTheOthersCountAsWithoutAMask()
    {
        const cv::Size size(48, 36);
        const std::vector<cv::Mat> frames = speckledNoise(size, 300, 11);
        cv::Mat mask(size, CV_8UC1, cv::Scalar(255));
        mask(cv::Rect(0, 0, size.width / 2, size.height)).setTo(cv::Scalar(0));
        for (const bool blur : {true, false}) {
            const Detailed masked = countDetailedOver(frames, blur, 3, mask);
            const Detailed whole = countDetailedOver(frames, blur, 3);
            const cv::Rect left(0, 0, size.width / 2, size.height);
            const cv::Rect right(size.width / 2, 0, size.width - size.width / 2, size.height);
            QCOMPARE(cv::countNonZero(masked.counts(left)), 0);
            QCOMPARE(cv::countNonZero(masked.exactCounts(left)), 0);
            QVERIFY(cv::countNonZero(whole.counts(left)) > 0);
            QVERIFY(equal(masked.counts(right), whole.counts(right)));
            QVERIFY(equal(masked.exactCounts(right), whole.exactCounts(right)));
            Reference::Analysis reference(size.width, size.height, blur, mask);
            for (const cv::Mat& frame : frames)
                reference.addFrame(frame);
            QVERIFY(sameActivity(masked.activity, reference.activity()));
        }
    }

    void anyNonZeroMaskValueMeansAnalysed()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(20, 10), 200, 3);
        const cv::Mat ones(frames.front().size(), CV_8UC1, cv::Scalar(1));
        QVERIFY(equal(countDetailedOver(frames, true, 1, ones).counts, countOver(frames, true)));
    }

    void stripesAreOneAThreadAsFarAsEachGetsItsMinimumPixels()
    {
        const int rows = MotionCounter::kMinStripePixels / 64;
        QCOMPARE(MotionCounter::stripesFor(cv::Size(64, 4 * rows), 4), 4);
        QCOMPARE(MotionCounter::stripesFor(cv::Size(64, 4 * rows - 1), 4), 3);
        QCOMPARE(MotionCounter::stripesFor(cv::Size(64, rows - 1), 4), 1);
        QCOMPARE(MotionCounter::stripesFor(cv::Size(64, 40 * rows), 4), 4);
        QCOMPARE(MotionCounter::stripesFor(cv::Size(1920, 1080), 1), 1);
        QCOMPARE(MotionCounter::stripesFor(cv::Size(0, 0), 4), 1);
    }

    void aCounterLeftToChooseUsesTheLibrarysThreads()
    {
        const int threads = cv::getNumThreads();
        cv::setNumThreads(3);
        const int stripes = MotionCounter(cv::Size(1920, 1080), true).stripes();
        const int oneARow = MotionCounter(cv::Size(4 * MotionCounter::kMinStripePixels, 2), true).stripes();
        cv::setNumThreads(threads);
        QCOMPARE(stripes, 3);
        QCOMPARE(oneARow, 2);
    }

    void matchesTheLibrarysOperationsOnRandomFrames()
    {
        // The straightforward pass written with the library: blur, absdiff, threshold and a
        // per-pixel loop over the last pair of motion, on frames of pure noise.
        const cv::Size size(71, 23);
        cv::RNG random(99);
        MotionCounter counter(size, true);
        cv::Mat counts(size, CV_8UC1, cv::Scalar(0));
        cv::Mat expected(size, CV_8UC1, cv::Scalar(0));
        cv::Mat lastMotion(size, CV_32SC1, cv::Scalar(-1000));
        cv::Mat previous = randomFrame(size, random);
        counter.start(previous);
        previous = libraryBlur(previous);
        for (int pair = 0; pair < 200; ++pair) {
            // Mostly still, with noise in a few places, so that gaps of every length occur.
            cv::Mat frame = previous.clone();
            cv::Mat noise = randomFrame(size, random);
            noise.copyTo(frame, noise > 230);
            counter.addFrame(frame, counts);
            const cv::Mat current = libraryBlur(frame);
            cv::Mat difference;
            cv::absdiff(previous, current, difference);
            cv::threshold(difference, difference, 20.0, 255.0, cv::THRESH_BINARY);
            for (int y = 0; y < size.height; ++y) {
                for (int x = 0; x < size.width; ++x) {
                    if (difference.at<uchar>(y, x) == 0)
                        continue;
                    if (pair - lastMotion.at<int>(y, x) >= 51)
                        ++expected.at<uchar>(y, x);
                    lastMotion.at<int>(y, x) = pair;
                }
            }
            previous = current;
        }
        QVERIFY(cv::countNonZero(expected) > 0);
        QVERIFY(equal(counts, expected));
    }
};

QTEST_GUILESS_MAIN(MotionCounterTest)
#include "MotionCounterTest.moc"
