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
            learner.learn(*frame);
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
        learner.learn(*frames[0]);
        cv::Mat afterOne;
        learner.fetchBackground(afterOne);
        QVERIFY(equal(afterOne, synchronousBackground({frames[0]})));
        for (size_t i = 1; i < frames.size(); ++i)
            learner.learn(*frames[i]);
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

    void twoLearnersLearnSideBySide()
    {
        // The first learner keeps its model (with frames learnt) while the second, on another
        // thread, learns all of its own: neither waits for the other.
        const std::vector<SharedFrame> firstFrames = scene(6, 3);
        const std::vector<SharedFrame> secondFrames = scene(9, 30);
        AsyncBackgroundLearner first;
        first.learn(*firstFrames[0]);
        QCOMPARE(first.learntFrames(), 1);
        cv::Mat secondBackground;
        int secondLearnt = 0;
        std::thread other([&] {
            AsyncBackgroundLearner second;
            for (const SharedFrame& frame : secondFrames)
                second.learn(*frame);
            second.fetchBackground(secondBackground);
            secondLearnt = second.learntFrames();
        });
        other.join();
        QCOMPARE(secondLearnt, 9);
        QVERIFY(equal(secondBackground, synchronousBackground(secondFrames)));
        // The first model went on as if alone.
        for (size_t i = 1; i < firstFrames.size(); ++i)
            first.learn(*firstFrames[i]);
        cv::Mat firstBackground;
        first.fetchBackground(firstBackground);
        QCOMPARE(first.learntFrames(), 6);
        QVERIFY(equal(firstBackground, synchronousBackground(firstFrames)));
    }

    void finishingFreesTheModelAndANewOneStartsFromNothing()
    {
        const std::vector<SharedFrame> frames = scene(8, 5);
        AsyncBackgroundLearner learner;
        for (size_t i = 0; i + 1 < frames.size(); ++i)
            learner.learn(*frames[i]);
        learner.finish();
        QCOMPARE(learner.learntFrames(), 0);
        cv::Mat untouched(4, 6, CV_8UC3, cv::Scalar(1, 2, 3));
        learner.fetchBackground(untouched);
        QVERIFY(equal(untouched, cv::Mat(4, 6, CV_8UC3, cv::Scalar(1, 2, 3))));
        learner.learn(*frames.back());
        cv::Mat background;
        learner.fetchBackground(background);
        QVERIFY(equal(background, synchronousBackground({frames.back()})));
    }

    void framesMayGoAsSoonAsTheyAreHandedOver()
    {
        // The learner keeps its own R,G,B copies: each frame is freed right after learn().
        AsyncBackgroundLearner learner;
        const std::vector<SharedFrame> frames = scene(10, 7);
        const cv::Mat expected = synchronousBackground(frames);
        for (unsigned i = 0; i < 10; ++i) {
            SharedFrame frame = picture(40, 24, static_cast<int>(i * 3) % 32, 7 + i);
            learner.learn(*frame);
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
