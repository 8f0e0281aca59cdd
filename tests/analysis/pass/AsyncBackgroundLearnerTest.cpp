#include "AsyncBackgroundLearner.h"
#include "BackgroundLearner.h"
#include "MpegFrame.h"
#include "RgbConverter.h"
#include "TestPictures.h"

#include <QtTest>

#include <opencv2/core.hpp>

extern "C" {
#include <libavutil/frame.h>
}

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

using SharedFrame = std::shared_ptr<const MpegFrame>;

// A YUV 4:2:0 picture: a smooth scene with noise and a square at `x`.
SharedFrame picture(int width, int height, int x, unsigned seed)
{
    AVFrame* frame = TestPictures::allocatePicture(AV_PIX_FMT_YUV420P, width, height);
    if (!frame)
        return nullptr;
    std::mt19937 random(seed);
    for (int plane = 0; plane < 3; ++plane) {
        const int w = plane == 0 ? width : (width + 1) / 2;
        const int h = plane == 0 ? height : (height + 1) / 2;
        for (int row = 0; row < h; ++row)
            for (int column = 0; column < w; ++column) {
                const bool square = plane == 0 && column >= x && column < x + 8 && row < 8;
                const int value = square ? 230 : 60 + (row + column) % 100 + static_cast<int>(random() % 9);
                frame->data[plane][row * frame->linesize[plane] + column] = static_cast<uint8_t>(value);
            }
    }
    return std::make_shared<const MpegFrame>(frame);
}

std::vector<SharedFrame> scene(int count, unsigned seed)
{
    std::vector<SharedFrame> frames;
    for (int i = 0; i < count; ++i)
        frames.push_back(picture(40, 24, (i * 3) % 32, seed + static_cast<unsigned>(i)));
    return frames;
}

cv::Mat synchronousBackground(const std::vector<SharedFrame>& frames)
{
    BackgroundLearner learner;
    RgbConverter converter;
    for (const SharedFrame& frame : frames) {
        converter.convert(*frame);
        learner.learn({cv::Mat(converter.height(), converter.width(), CV_8UC3, const_cast<uint8_t*>(converter.data()),
                               static_cast<size_t>(converter.stride()))});
    }
    cv::Mat background;
    learner.fetchBackground(background);
    return background;
}

bool equal(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

const std::function<bool()> kNeverCanceled = [] { return false; };

template <typename Condition>
bool becomesTrue(Condition condition, std::chrono::milliseconds bound = std::chrono::milliseconds(10000))
{
    const auto end = std::chrono::steady_clock::now() + bound;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace

class AsyncBackgroundLearnerTest : public QObject {
    Q_OBJECT

private slots:
    void learnsWhatTheSynchronousLearnerLearns()
    {
        const std::vector<SharedFrame> frames = scene(30, 1);
        AsyncBackgroundLearner learner;
        // More frames than the queue holds, so the learner's pictures are reused.
        for (const SharedFrame& frame : frames)
            QVERIFY(learner.learn(*frame, kNeverCanceled));
        cv::Mat background;
        learner.fetchBackground(background);
        QCOMPARE(learner.learntFrames(), 30);
        QCOMPARE(background.type(), CV_8UC3);
        QVERIFY(equal(background, synchronousBackground(frames)));
    }

    void fetchesTheBackgroundOfEveryFrameQueuedSoFar()
    {
        const std::vector<SharedFrame> frames = scene(12, 2);
        AsyncBackgroundLearner learner;
        QVERIFY(learner.learn(*frames[0], kNeverCanceled));
        cv::Mat afterOne;
        learner.fetchBackground(afterOne);
        QVERIFY(equal(afterOne, synchronousBackground({frames[0]})));
        for (size_t i = 1; i < frames.size(); ++i)
            QVERIFY(learner.learn(*frames[i], kNeverCanceled));
        cv::Mat afterAll;
        learner.fetchBackground(afterAll);
        QVERIFY(equal(afterAll, synchronousBackground(frames)));
    }

    void fetchBeforeLearningLeavesTheBackgroundAsItIs()
    {
        AsyncBackgroundLearner learner;
        cv::Mat background(4, 6, CV_8UC3, cv::Scalar(7, 8, 9));
        const uchar* data = background.data;
        learner.fetchBackground(background);
        QCOMPARE(background.data, data);
        QVERIFY(equal(background, cv::Mat(4, 6, CV_8UC3, cv::Scalar(7, 8, 9))));
        QCOMPARE(learner.learntFrames(), 0);
    }

    void aSecondLearnerWaitsUntilTheFirstHasFinished()
    {
        const std::vector<SharedFrame> frames = scene(3, 3);
        AsyncBackgroundLearner first;
        QVERIFY(first.learn(*frames[0], kNeverCanceled));
        std::atomic<int> polls{0};
        std::atomic<bool> learnt{false};
        std::thread other([&] {
            AsyncBackgroundLearner second;
            learnt = second.learn(*frames[1], [&] {
                ++polls;
                return false;
            });
        });
        // It keeps asking whether to give up, and does not get the model meanwhile.
        QVERIFY(becomesTrue([&] { return polls.load() >= 3; }));
        QVERIFY(!learnt.load());
        first.finish();
        QVERIFY(becomesTrue([&] { return learnt.load(); }));
        other.join();
    }

    void aWaitingLearnerGivesUpWhenCanceled()
    {
        const std::vector<SharedFrame> frames = scene(2, 4);
        AsyncBackgroundLearner first;
        QVERIFY(first.learn(*frames[0], kNeverCanceled));
        AsyncBackgroundLearner second;
        int polls = 0;
        QVERIFY(!second.learn(*frames[1], [&] { return ++polls >= 3; }));
        QCOMPARE(polls, 3);
        QCOMPARE(second.learntFrames(), 0);
        // The first still learns on.
        QVERIFY(first.learn(*frames[1], kNeverCanceled));
        QCOMPARE(first.learntFrames(), 2);
    }

    void finishingFreesTheModelAndANewOneStartsFromNothing()
    {
        const std::vector<SharedFrame> frames = scene(8, 5);
        AsyncBackgroundLearner learner;
        for (size_t i = 0; i + 1 < frames.size(); ++i)
            QVERIFY(learner.learn(*frames[i], kNeverCanceled));
        learner.finish();
        QCOMPARE(learner.learntFrames(), 0);
        // The model is free: another learner takes it without waiting.
        {
            AsyncBackgroundLearner other;
            QVERIFY(other.learn(*frames[0], [] { return true; }));
        }
        QVERIFY(learner.learn(*frames.back(), kNeverCanceled));
        cv::Mat background;
        learner.fetchBackground(background);
        QVERIFY(equal(background, synchronousBackground({frames.back()})));
    }

    void destroyingALearnerWithFramesQueuedFreesTheModel()
    {
        const std::vector<SharedFrame> frames = scene(6, 6);
        {
            AsyncBackgroundLearner learner;
            for (const SharedFrame& frame : frames)
                QVERIFY(learner.learn(*frame, kNeverCanceled));
        }
        AsyncBackgroundLearner next;
        QVERIFY(next.learn(*frames[0], [] { return true; }));
    }

    void framesMayGoAsSoonAsTheyAreHandedOver()
    {
        // The learner keeps its own R,G,B copies: each frame is freed right after learn().
        AsyncBackgroundLearner learner;
        const std::vector<SharedFrame> frames = scene(10, 7);
        const cv::Mat expected = synchronousBackground(frames);
        for (unsigned i = 0; i < 10; ++i) {
            SharedFrame frame = picture(40, 24, static_cast<int>(i * 3) % 32, 7 + i);
            QVERIFY(learner.learn(*frame, kNeverCanceled));
            QCOMPARE(frame.use_count(), 1L);
            frame.reset();
        }
        cv::Mat background;
        learner.fetchBackground(background);
        QVERIFY(equal(background, expected));
    }
};

QTEST_GUILESS_MAIN(AsyncBackgroundLearnerTest)
#include "AsyncBackgroundLearnerTest.moc"
