#include "LargePageMats.h"
#include "LargePages.h"

#include <QtTest>

#include <opencv2/core.hpp>

#include <cstdint>

namespace {

bool allEqual(const cv::Mat& mat, const cv::Scalar& value)
{
    return cv::norm(mat, cv::Mat(mat.size(), mat.type(), value), cv::NORM_INF) == 0.0;
}

} // namespace

class LargePageMatsTest : public QObject {
    Q_OBJECT

private slots:
    void fullFrameMatrixLiesInLargePagesAndHoldsTheValue()
    {
        cv::Mat mat;
        LargePageMats::create(mat, cv::Size(1920, 1080), CV_8UC1, cv::Scalar(7));
        QCOMPARE(mat.size(), cv::Size(1920, 1080));
        QCOMPARE(mat.type(), CV_8UC1);
        QVERIFY(mat.isContinuous());
        QCOMPARE(reinterpret_cast<std::uintptr_t>(mat.data) % LargePages::kLargePage, std::uintptr_t{0});
        QVERIFY(allEqual(mat, cv::Scalar(7)));
    }

    void smallMatrixIsTheLibrarysOwnAndHoldsTheValue()
    {
        cv::Mat mat;
        LargePageMats::create(mat, cv::Size(33, 17), CV_8UC3, cv::Scalar(1, 2, 3));
        QCOMPARE(mat.size(), cv::Size(33, 17));
        QCOMPARE(mat.type(), CV_8UC3);
        QVERIFY(allEqual(mat, cv::Scalar(1, 2, 3)));
    }

    void createReplacesTheDataAndLeavesOtherHoldersTheirs()
    {
        cv::Mat mat(1080, 1920, CV_16UC1, cv::Scalar(5));
        const cv::Mat holder = mat;
        LargePageMats::create(mat, cv::Size(1920, 1080), CV_16UC1, cv::Scalar(9));
        QVERIFY(mat.data != holder.data);
        QVERIFY(allEqual(holder, cv::Scalar(5)));
        QVERIFY(allEqual(mat, cv::Scalar(9)));
    }

    void sharedDataLivesUntilTheLastHolderLetsGo()
    {
        cv::Mat copy;
        {
            cv::Mat mat;
            LargePageMats::create(mat, cv::Size(1000, 1000), CV_8UC3, cv::Scalar(4, 5, 6));
            copy = mat;
        }
        QVERIFY(allEqual(copy, cv::Scalar(4, 5, 6)));
        copy.setTo(cv::Scalar(8, 8, 8));
        QVERIFY(allEqual(copy, cv::Scalar(8, 8, 8)));
    }

    void theLibraryMakesOrdinaryClonesAndViews()
    {
        cv::Mat mat;
        LargePageMats::create(mat, cv::Size(1920, 1080), CV_8UC1, cv::Scalar(3));
        const cv::Mat clone = mat.clone();
        QVERIFY(clone.data != mat.data);
        QVERIFY(allEqual(clone, cv::Scalar(3)));
        const cv::Mat view = mat(cv::Rect(10, 20, 30, 40));
        QVERIFY(allEqual(view, cv::Scalar(3)));
        // A matrix that reuses its allocator for another size still works.
        mat.create(cv::Size(64, 48), CV_32FC1);
        mat.setTo(cv::Scalar(0.5));
        QVERIFY(allEqual(mat, cv::Scalar(0.5)));
    }
};

QTEST_GUILESS_MAIN(LargePageMatsTest)
#include "LargePageMatsTest.moc"
