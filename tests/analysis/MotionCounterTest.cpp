#include "ClipMaking.h"
#include "MotionCounter.h"
#include "ReferenceMotion.h"

#include <QtTest>

#include <opencv2/imgproc.hpp>

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

// Runs the counter over `frames` the way a pass does: the current frame becomes the next
// pair's previous one, already smoothed.
cv::Mat countOver(std::vector<cv::Mat> frames, bool blur)
{
    const cv::Size size = frames.front().size();
    MotionCounter counter(size, blur);
    cv::Mat counts(size, CV_8UC1, cv::Scalar(0));
    for (size_t i = 1; i < frames.size(); ++i)
        counter.addPair(frames[i - 1], frames[i], static_cast<int>(i - 1), counts);
    return counts;
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

} // namespace

class MotionCounterTest : public QObject {
    Q_OBJECT

private slots:
    void workingMatricesStartAtNeverMoved()
    {
        MotionCounter counter(cv::Size(5, 3), true);
        QCOMPARE(counter.lastMotionFrame().size(), cv::Size(5, 3));
        QCOMPARE(counter.lastMotionFrame().type(), CV_32SC1);
        QCOMPARE(cv::countNonZero(counter.lastMotionFrame() != -1000), 0);
        QCOMPARE(counter.difference().type(), CV_8UC1);
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

    void lastMotionRecordsThePairOfEveryMotion()
    {
        const auto frames = blinkingPixel(cv::Size(5, 3), 12, [](int i) { return i == 3 || i == 10; });
        MotionCounter counter(cv::Size(5, 3), false);
        cv::Mat counts(3, 5, CV_8UC1, cv::Scalar(0));
        std::vector<cv::Mat> copies(frames);
        for (int pair = 0; pair + 1 < int(copies.size()); ++pair)
            counter.addPair(copies[size_t(pair)], copies[size_t(pair) + 1], pair, counts);
        // Motion in pairs 2, 3, 9 and 10: the last one is recorded, the rest stays untouched.
        QCOMPARE(counter.lastMotionFrame().at<int>(1, 2), 10);
        QCOMPARE(counter.lastMotionFrame().at<int>(0, 0), -1000);
        QCOMPARE(int(counts.at<uchar>(1, 2)), 1);
    }

    void the256thEventWrapsTheCountToZero()
    {
        cv::Mat moved(1, 2, CV_8UC1, cv::Scalar(255));
        moved.at<uchar>(0, 1) = 0;
        cv::Mat lastMotion(1, 2, CV_32SC1, cv::Scalar(-1000));
        cv::Mat counts(1, 2, CV_8UC1, cv::Scalar(0));
        for (int event = 0; event < 255; ++event)
            MotionCounting::countEvents(moved, event * 51, lastMotion, counts);
        QCOMPARE(int(counts.at<uchar>(0, 0)), 255);
        MotionCounting::countEvents(moved, 255 * 51, lastMotion, counts);
        QCOMPARE(int(counts.at<uchar>(0, 0)), 0);
        MotionCounting::countEvents(moved, 256 * 51, lastMotion, counts);
        QCOMPARE(int(counts.at<uchar>(0, 0)), 1);
        QCOMPARE(int(counts.at<uchar>(0, 1)), 0);
    }

    void withoutBlurTheThresholdIsFortyAndFramesStayUnsmoothed()
    {
        MotionCounter counter(cv::Size(8, 8), false);
        QCOMPARE(counter.threshold(), 40.0);
        cv::Mat previous(8, 8, CV_8UC1, cv::Scalar(100));
        cv::Mat current = previous.clone();
        current.at<uchar>(2, 2) = 140; // differs by exactly 40: not motion
        current.at<uchar>(5, 5) = 141; // differs by 41: motion
        const cv::Mat currentBefore = current.clone();
        cv::Mat counts(8, 8, CV_8UC1, cv::Scalar(0));
        counter.addPair(previous, current, 0, counts);
        QVERIFY(equal(current, currentBefore));
        QCOMPARE(int(counter.difference().at<uchar>(2, 2)), 0);
        QCOMPARE(int(counter.difference().at<uchar>(5, 5)), 255);
        QCOMPARE(cv::countNonZero(counter.difference()), 1);
        QCOMPARE(int(counts.at<uchar>(5, 5)), 1);
    }

    void withBlurTheThresholdIsTwenty()
    {
        MotionCounter counter(cv::Size(8, 8), true);
        QCOMPARE(counter.threshold(), 20.0);
        cv::Mat previous(8, 8, CV_8UC1, cv::Scalar(100));
        cv::Mat exactlyTwenty(8, 8, CV_8UC1, cv::Scalar(120));
        cv::Mat twentyOne(8, 8, CV_8UC1, cv::Scalar(141));
        cv::Mat counts(8, 8, CV_8UC1, cv::Scalar(0));
        counter.addPair(previous, exactlyTwenty, 0, counts);
        QCOMPARE(cv::countNonZero(counter.difference()), 0);
        counter.addPair(exactlyTwenty, twentyOne, 1, counts);
        QCOMPARE(cv::countNonZero(counter.difference()), 64);
    }

    void blurSmoothsTheCurrentFrameInPlaceAndThePreviousOnlyOnPairZero()
    {
        std::vector<cv::Mat> frames = speckledNoise(cv::Size(33, 17), 3, 5);
        const std::vector<cv::Mat> originals = {frames[0].clone(), frames[1].clone(), frames[2].clone()};
        MotionCounter counter(cv::Size(33, 17), true);
        cv::Mat counts(17, 33, CV_8UC1, cv::Scalar(0));

        counter.addPair(frames[0], frames[1], 0, counts);
        QVERIFY(equal(frames[0], Reference::boxBlur7(originals[0])));
        QVERIFY(equal(frames[1], Reference::boxBlur7(originals[1])));

        const cv::Mat previousBefore = frames[1].clone();
        counter.addPair(frames[1], frames[2], 1, counts);
        QVERIFY(equal(frames[1], previousBefore));
        QVERIFY(equal(frames[2], Reference::boxBlur7(originals[2])));
    }

    void blurIsTheLibrarysBoxFilterWithReflectedBorders()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(33, 17), 2, 9);
        cv::Mat expected;
        cv::blur(frames[1], expected, cv::Size(7, 7), cv::Point(-1, -1), cv::BORDER_REFLECT_101);
        QVERIFY(equal(Reference::boxBlur7(frames[1]), expected));
        cv::Mat current = frames[1].clone();
        cv::Mat previous = frames[0].clone();
        cv::Mat counts(17, 33, CV_8UC1, cv::Scalar(0));
        MotionCounter(cv::Size(33, 17), true).addPair(previous, current, 0, counts);
        QVERIFY(equal(current, expected));
    }

    void framesWithPaddedRowsAreReadWithinTheirWidth()
    {
        // Decoded pictures have rows longer than their width; a view over such a buffer
        // (pointer and row stride, as the pass wraps frames) must neither read the padding
        // as picture nor smooth into it.
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(33, 17), 60, 21);
        std::vector<cv::Mat> buffers, views;
        for (const cv::Mat& frame : frames) {
            cv::Mat buffer(17, 48, CV_8UC1, cv::Scalar(255));
            frame.copyTo(buffer(cv::Rect(0, 0, 33, 17)));
            buffers.push_back(buffer);
            views.emplace_back(17, 33, CV_8UC1, buffer.data, buffer.step);
        }
        QVERIFY(equal(countOver(views, true), referenceCounts(frames, true)));
        const cv::Mat padding = buffers[5](cv::Rect(33, 0, 15, 17));
        QCOMPARE(cv::countNonZero(padding != 255), 0);
    }

    void matchesReferenceOnNoiseAndSpeckle_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<bool>("blur");
        for (const bool blur : {true, false}) {
            const char* suffix = blur ? "blurred" : "sharp";
            QTest::addRow("33x17 %s", suffix) << 33 << 17 << blur;
            QTest::addRow("1x40 %s", suffix) << 1 << 40 << blur;
            QTest::addRow("40x1 %s", suffix) << 40 << 1 << blur;
            QTest::addRow("1x1 %s", suffix) << 1 << 1 << blur;
            QTest::addRow("64x48 %s", suffix) << 64 << 48 << blur;
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
        std::vector<cv::Mat> copies;
        for (const cv::Mat& frame : frames)
            copies.push_back(frame.clone());
        QVERIFY(equal(countOver(copies, blur), expected));
    }
};

QTEST_GUILESS_MAIN(MotionCounterTest)
#include "MotionCounterTest.moc"
