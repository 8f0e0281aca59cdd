#include "MixtureModel.h"

#include <QtTest>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/background_segm.hpp>

#include <algorithm>
#include <cstring>
#include <functional>

// Every test feeds the same frames to the library's own model and to ours and requires the
// two backgrounds to be identical after every frame. Two more views see what rounding to
// 8 bits would hide: the unrounded backgrounds (the library gives them for frames of floats,
// which it learns exactly as the same frames in bytes), which show every bit of the leading
// weights and means, and the foreground masks, which hang on the variances.
namespace {

using FrameMaker = std::function<cv::Mat(int frame)>;

struct Mismatch {
    int frame = -1;
    int differingValues = 0;
    int differingMaskPixels = 0;
    int differingUnroundedValues = 0;
};

bool identical(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

int differingValues(const cv::Mat& a, const cv::Mat& b)
{
    if (a.size() != b.size() || a.type() != b.type())
        return -1;
    return cv::countNonZero(cv::Mat(a != b).reshape(1));
}

// The library's model twice: on the frames as given, and on the same frames as floats, for
// the unrounded background.
class LibraryModels {
public:
    // Learns `frame`; `mask` gets the library's foreground mask.
    void apply(const cv::Mat& frame, cv::Mat& mask)
    {
        m_model->apply(frame, mask, -1.0);
        frame.convertTo(m_floats, CV_32F);
        m_modelOnFloats->apply(m_floats, m_unusedMask, -1.0);
    }

    // Compares the backgrounds with ours; `frame` numbers the mismatch.
    Mismatch compare(const MixtureModel& ours, int frame) const
    {
        cv::Mat expected, actual, expectedUnrounded, actualUnrounded;
        m_model->getBackgroundImage(expected);
        m_modelOnFloats->getBackgroundImage(expectedUnrounded);
        ours.backgroundImage(actual);
        ours.backgroundImage(actualUnrounded, CV_32F);
        const bool sameUnrounded = actualUnrounded.size() == expectedUnrounded.size()
                                   && std::memcmp(actualUnrounded.data, expectedUnrounded.data,
                                                  actualUnrounded.total() * actualUnrounded.elemSize())
                                          == 0;
        if (identical(actual, expected) && sameUnrounded)
            return {};
        Mismatch mismatch;
        mismatch.frame = frame;
        mismatch.differingValues = differingValues(actual, expected);
        mismatch.differingUnroundedValues = differingValues(actualUnrounded, expectedUnrounded);
        return mismatch;
    }

private:
    cv::Ptr<cv::BackgroundSubtractorMOG2> m_model = cv::createBackgroundSubtractorMOG2();
    cv::Ptr<cv::BackgroundSubtractorMOG2> m_modelOnFloats = cv::createBackgroundSubtractorMOG2();
    cv::Mat m_floats;
    cv::Mat m_unusedMask;
};

// Returns the first frame after which the backgrounds or the masks differ, or frame -1.
Mismatch firstMismatch(int frames, const FrameMaker& makeFrame)
{
    LibraryModels library;
    MixtureModel ours;
    cv::Mat expectedMask, actualMask;
    for (int i = 0; i < frames; ++i) {
        const cv::Mat frame = makeFrame(i);
        library.apply(frame, expectedMask);
        ours.apply(frame, &actualMask);
        Mismatch mismatch = library.compare(ours, i);
        // The library marks shadows 127 among the foreground; ours does not tell them apart.
        mismatch.differingMaskPixels = cv::countNonZero((expectedMask == 0) != (actualMask == 0));
        if (mismatch.frame >= 0 || mismatch.differingMaskPixels > 0) {
            mismatch.frame = i;
            return mismatch;
        }
    }
    return {};
}

// As firstMismatch, but ours learns the frames in batches of 1, 2, 3, ... 7 frames, then
// again from 1, and the backgrounds are compared after each batch. `learntFrames` gets the
// count of frames our model says it has learnt.
Mismatch firstMismatchInBatches(int frames, const FrameMaker& makeFrame, int& learntFrames)
{
    LibraryModels library;
    MixtureModel ours;
    cv::Mat mask;
    int batchSize = 1;
    for (int first = 0; first < frames; first += batchSize, batchSize = batchSize % 7 + 1) {
        std::vector<cv::Mat> batch;
        for (int i = first; i < std::min(first + batchSize, frames); ++i) {
            batch.push_back(makeFrame(i));
            library.apply(batch.back(), mask);
        }
        ours.applyAll(batch);
        const Mismatch mismatch = library.compare(ours, first + static_cast<int>(batch.size()) - 1);
        if (mismatch.frame >= 0)
            return mismatch;
    }
    learntFrames = ours.frames();
    return {};
}

#define VERIFY_SAME_AS_LIBRARY(frames, maker)                                                                          \
    do {                                                                                                               \
        const Mismatch mismatch = firstMismatch((frames), (maker));                                                    \
        QVERIFY2(mismatch.frame < 0,                                                                                   \
                 qPrintable(QStringLiteral("frame %1: backgrounds differ in %2 values (%4 unrounded), masks in %3 "    \
                                               "pixels")                                                               \
                                .arg(mismatch.frame)                                                                   \
                                .arg(mismatch.differingValues)                                                         \
                                .arg(mismatch.differingMaskPixels)                                                     \
                                .arg(mismatch.differingUnroundedValues)));                                             \
    } while (false)

cv::Mat uniformNoise(cv::Size size, cv::RNG& random)
{
    cv::Mat frame(size, CV_8UC3);
    random.fill(frame, cv::RNG::UNIFORM, 0, 256);
    return frame;
}

// Smooth colour blotches, so that neighbouring pixels differ as in a real scene.
cv::Mat texturedScene(cv::Size size, cv::RNG& random)
{
    cv::Mat coarse(std::max(size.height / 8, 1), std::max(size.width / 8, 1), CV_8UC3);
    random.fill(coarse, cv::RNG::UNIFORM, 0, 256);
    cv::Mat scene;
    cv::resize(coarse, scene, size, 0, 0, cv::INTER_LINEAR);
    return scene;
}

cv::Mat withSensorNoise(const cv::Mat& scene, double sigma, cv::RNG& random)
{
    cv::Mat noise(scene.size(), CV_16SC3);
    random.fill(noise, cv::RNG::NORMAL, 0, sigma);
    cv::Mat noisy;
    cv::add(scene, noise, noisy, cv::noArray(), CV_8UC3);
    return noisy;
}

} // namespace

class MixtureModelTest : public QObject {
    Q_OBJECT

private slots:
    void hasNoBackgroundBeforeTheFirstFrame()
    {
        MixtureModel model;
        cv::Mat background(2, 2, CV_8UC3);
        model.backgroundImage(background);
        QVERIFY(background.empty());
        QCOMPARE(model.frames(), 0);
    }

    void firstFrameIsTheBackground()
    {
        cv::RNG random(1);
        const cv::Mat frame = uniformNoise(cv::Size(21, 5), random);
        MixtureModel model;
        model.apply(frame);
        cv::Mat background;
        model.backgroundImage(background);
        QVERIFY(identical(background, frame));
        QCOMPARE(model.frames(), 1);
    }

    void randomNoiseFillsEveryModeLikeTheLibrary()
    {
        cv::RNG random(2);
        VERIFY_SAME_AS_LIBRARY(60, [&](int) { return uniformNoise(cv::Size(37, 11), random); });
    }

    void movingBoxesOverANoisySceneLikeTheLibrary()
    {
        cv::RNG random(3);
        const cv::Size size(64, 36);
        const cv::Mat scene = texturedScene(size, random);
        VERIFY_SAME_AS_LIBRARY(120, [&](int i) {
            cv::Mat frame = withSensorNoise(scene, 2.5, random);
            cv::rectangle(frame, cv::Rect((i * 3) % size.width, 5, 9, 12), cv::Scalar(250, 30, 30), cv::FILLED);
            cv::rectangle(frame, cv::Rect(size.width - 1 - (i * 2) % size.width, 20, 6, 6), cv::Scalar(20, 20, 200),
                          cv::FILLED);
            return frame;
        });
    }

    void scenesTakingTurnsReorderTheModesLikeTheLibrary()
    {
        cv::RNG random(4);
        const cv::Size size(40, 24);
        const cv::Mat scenes[] = {texturedScene(size, random), texturedScene(size, random),
                                  texturedScene(size, random)};
        // Uneven turns, so that the modes' weights cross each other back and forth.
        const int pattern[] = {0, 0, 1, 0, 2, 1, 1, 0, 2, 2, 2, 1, 0, 0, 0, 1};
        VERIFY_SAME_AS_LIBRARY(200, [&](int i) { return withSensorNoise(scenes[pattern[i % 16]], 1.5, random); });
    }

    void slowDriftAndFlickerLikeTheLibrary()
    {
        cv::RNG random(5);
        const cv::Size size(48, 16);
        const cv::Mat scene = texturedScene(size, random);
        VERIFY_SAME_AS_LIBRARY(150, [&](int i) {
            cv::Mat frame;
            scene.convertTo(frame, CV_8UC3, 1.0, (i % 7 == 0) ? 40.0 : i / 10.0);
            return withSensorNoise(frame, 1.0, random);
        });
    }

    void learningRateReachesItsFloorLikeTheLibrary()
    {
        // The rate stops falling once twice the frame count reaches the 500-frame history.
        cv::RNG random(6);
        const cv::Size size(19, 7);
        const cv::Mat scene = texturedScene(size, random);
        VERIFY_SAME_AS_LIBRARY(300, [&](int i) {
            if (i % 37 == 0)
                return uniformNoise(size, random);
            return withSensorNoise(scene, 4.0, random);
        });
    }

    void oddWidthsAndOnePixelFramesLikeTheLibrary_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::newRow("1x1") << 1 << 1;
        QTest::newRow("1x40") << 1 << 40;
        QTest::newRow("40x1") << 40 << 1;
        QTest::newRow("7x3") << 7 << 3;
        QTest::newRow("9x5") << 9 << 5;
        QTest::newRow("15x2") << 15 << 2;
        QTest::newRow("17x4") << 17 << 4;
    }

    void oddWidthsAndOnePixelFramesLikeTheLibrary()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        cv::RNG random(7);
        const cv::Size size(width, height);
        const cv::Mat scene = texturedScene(size, random);
        VERIFY_SAME_AS_LIBRARY(80, [&](int i) {
            return i % 5 == 4 ? uniformNoise(size, random) : withSensorNoise(scene, 3.0, random);
        });
    }

    void frameOfAnotherSizeStartsOverLikeTheLibrary()
    {
        cv::RNG random(8);
        VERIFY_SAME_AS_LIBRARY(40, [&](int i) {
            const cv::Size size = i < 15 ? cv::Size(30, 10) : (i < 30 ? cv::Size(12, 25) : cv::Size(30, 10));
            return uniformNoise(size, random);
        });
        MixtureModel model;
        model.apply(cv::Mat(4, 4, CV_8UC3, cv::Scalar(1, 2, 3)));
        model.apply(cv::Mat(4, 4, CV_8UC3, cv::Scalar(1, 2, 3)));
        model.apply(cv::Mat(5, 4, CV_8UC3, cv::Scalar(1, 2, 3)));
        QCOMPARE(model.frames(), 1);
    }

    void framesLearntInBatchesGiveTheSameModel()
    {
        cv::RNG random(11);
        const cv::Size size(203, 67);
        const cv::Mat scene = texturedScene(size, random);
        int learntFrames = 0;
        const Mismatch mismatch = firstMismatchInBatches(
            90,
            [&](int i) {
                cv::Mat frame = i % 9 == 0 ? uniformNoise(size, random) : withSensorNoise(scene, 3.0, random);
                cv::rectangle(frame, cv::Rect((i * 5) % size.width, 10, 20, 30), cv::Scalar(10, 200, 90),
                              cv::FILLED);
                return frame;
            },
            learntFrames);
        QVERIFY2(mismatch.frame < 0, qPrintable(QStringLiteral("differs after frame %1").arg(mismatch.frame)));
        QCOMPARE(learntFrames, 90);
    }

    void batchWithAFrameOfAnotherSizeStartsOverAtThatFrame()
    {
        cv::RNG random(12);
        int learntFrames = 0;
        const Mismatch mismatch = firstMismatchInBatches(
            30, [&](int i) { return uniformNoise(i < 12 || i > 19 ? cv::Size(30, 10) : cv::Size(9, 4), random); },
            learntFrames);
        QVERIFY2(mismatch.frame < 0, qPrintable(QStringLiteral("differs after frame %1").arg(mismatch.frame)));
        QCOMPARE(learntFrames, 10);
    }

    void baselineCodeLikeTheLibrary()
    {
        // The same model without AVX2 (which the machines running these tests mostly have).
        MixtureModel::setAvx2Allowed(false);
        cv::RNG random(13);
        const cv::Size size(203, 37);
        const cv::Mat scene = texturedScene(size, random);
        const auto makeFrame = [&](int i) {
            cv::Mat frame = i % 7 == 3 ? uniformNoise(size, random) : withSensorNoise(scene, 3.0, random);
            cv::rectangle(frame, cv::Rect((i * 5) % size.width, 4, 20, 20), cv::Scalar(240, 20, 90), cv::FILLED);
            return frame;
        };
        const Mismatch oneByOne = firstMismatch(60, makeFrame);
        int learntFrames = 0;
        const Mismatch inBatches = firstMismatchInBatches(60, makeFrame, learntFrames);
        MixtureModel::setAvx2Allowed(true);
        QVERIFY2(oneByOne.frame < 0, qPrintable(QStringLiteral("differs after frame %1").arg(oneByOne.frame)));
        QVERIFY2(inBatches.frame < 0, qPrintable(QStringLiteral("differs after frame %1").arg(inBatches.frame)));
    }

    void largeFrameLikeTheLibrary()
    {
        // Big enough that the library splits each frame into many stripes over its threads.
        cv::RNG random(10);
        const cv::Size size(641, 359);
        const cv::Mat scene = texturedScene(size, random);
        VERIFY_SAME_AS_LIBRARY(12, [&](int i) {
            cv::Mat frame = withSensorNoise(scene, 3.0, random);
            cv::circle(frame, cv::Point(40 * i, 180), 50, cv::Scalar(0, 255, 0), cv::FILLED);
            return frame;
        });
    }

    void resultDoesNotDependOnTheThreadCount()
    {
        cv::RNG random(9);
        // Large enough for four stripes a frame.
        const cv::Size size(640, 420);
        std::vector<cv::Mat> frames;
        const cv::Mat scene = texturedScene(size, random);
        for (int i = 0; i < 30; ++i)
            frames.push_back(i % 3 == 0 ? uniformNoise(size, random) : withSensorNoise(scene, 3.0, random));
        MixtureModel fourThreads(4);
        MixtureModel oneThread(1);
        LibraryModels library;
        cv::Mat mask;
        const std::vector<cv::Mat> firstFrames(frames.begin(), frames.begin() + 3);
        fourThreads.applyAll(firstFrames);
        oneThread.applyAll(firstFrames);
        for (size_t i = 0; i < frames.size(); ++i) {
            if (i >= firstFrames.size()) {
                fourThreads.apply(frames[i]);
                oneThread.apply(frames[i]);
            }
            library.apply(frames[i], mask);
        }
        const int last = static_cast<int>(frames.size()) - 1;
        QCOMPARE(library.compare(fourThreads, last).frame, -1);
        QCOMPARE(library.compare(oneThread, last).frame, -1);
    }
};

QTEST_APPLESS_MAIN(MixtureModelTest)
#include "MixtureModelTest.moc"
