#include "BackgroundLearner.h"

#include <QtTest>

#include <opencv2/video/background_segm.hpp>

#include <random>
#include <vector>

namespace {

cv::Mat randomRgb(cv::Size size, std::mt19937& random)
{
    cv::Mat frame(size, CV_8UC3);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width * 3; ++x)
            frame.ptr<uchar>(y)[x] = static_cast<uchar>(random() % 256);
    return frame;
}

bool equal(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

} // namespace

class BackgroundLearnerTest : public QObject {
    Q_OBJECT

private slots:
    void fetchBeforeLearningLeavesTheBackgroundAsItIs()
    {
        BackgroundLearner learner;
        cv::Mat background(4, 6, CV_8UC3, cv::Scalar(0, 0, 0));
        const uchar* data = background.data;
        learner.fetchBackground(background);
        QCOMPARE(learner.learntFrames(), 0);
        QCOMPARE(background.size(), cv::Size(6, 4));
        QCOMPARE(background.data, data);
        QCOMPARE(cv::countNonZero(background.reshape(1)), 0);
    }

    void constantSceneBecomesTheBackgroundInItsChannelOrder()
    {
        BackgroundLearner learner;
        const cv::Mat scene(4, 6, CV_8UC3, cv::Scalar(10, 120, 230));
        for (int i = 0; i < 5; ++i)
            learner.learn({scene});
        cv::Mat background;
        learner.fetchBackground(background);
        QCOMPARE(learner.learntFrames(), 5);
        QCOMPARE(background.type(), CV_8UC3);
        QVERIFY(equal(background, scene));
    }

    void learnsLikeTheDefaultModelWithAutomaticRate()
    {
        std::mt19937 random(17);
        const cv::Size size(33, 17);
        BackgroundLearner learner;
        cv::Ptr<cv::BackgroundSubtractorMOG2> model = cv::createBackgroundSubtractorMOG2();
        cv::Mat mask;
        for (int i = 0; i < 30; ++i) {
            const cv::Mat frame = randomRgb(size, random);
            learner.learn({frame});
            model->apply(frame, mask, -1.0);
        }
        cv::Mat expected, actual;
        model->getBackgroundImage(expected);
        learner.fetchBackground(actual);
        QVERIFY(equal(actual, expected));
    }

    void framesLearntTogetherGiveWhatOneByOneGives()
    {
        std::mt19937 random(23);
        const cv::Size size(21, 13);
        BackgroundLearner together;
        BackgroundLearner oneByOne;
        std::vector<cv::Mat> frames;
        for (int i = 0; i < 12; ++i) {
            frames.push_back(randomRgb(size, random));
            oneByOne.learn({frames.back()});
        }
        together.learn(std::vector<cv::Mat>(frames.begin(), frames.begin() + 5));
        together.learn(std::vector<cv::Mat>(frames.begin() + 5, frames.end()));
        cv::Mat expected, actual;
        oneByOne.fetchBackground(expected);
        together.fetchBackground(actual);
        QCOMPARE(together.learntFrames(), 12);
        QVERIFY(equal(actual, expected));
    }

    void fetchKeepsTheCallersBuffer()
    {
        BackgroundLearner learner;
        learner.learn({cv::Mat(4, 6, CV_8UC3, cv::Scalar(1, 2, 3))});
        cv::Mat background(4, 6, CV_8UC3, cv::Scalar(0, 0, 0));
        const uchar* data = background.data;
        learner.fetchBackground(background);
        QCOMPARE(background.data, data);
        QVERIFY(equal(background, cv::Mat(4, 6, CV_8UC3, cv::Scalar(1, 2, 3))));
    }
};

QTEST_GUILESS_MAIN(BackgroundLearnerTest)
#include "BackgroundLearnerTest.moc"
