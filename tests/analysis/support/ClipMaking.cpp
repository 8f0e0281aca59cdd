#include "ClipMaking.h"

#include "TestSupport.h"

#include <QStringList>

#include <random>

namespace ClipMaking {

cv::Rect square(cv::Point corner)
{
    return {corner.x, corner.y, 8, 8};
}

std::vector<cv::Mat> squares(cv::Size size, int count, const std::function<std::vector<cv::Point>(int)>& objectsAt)
{
    std::vector<cv::Mat> frames;
    for (int i = 0; i < count; ++i) {
        cv::Mat frame(size, CV_8UC1, cv::Scalar(kBackground));
        for (const cv::Point& corner : objectsAt(i))
            frame(square(corner)).setTo(cv::Scalar(kObject));
        frames.push_back(frame);
    }
    return frames;
}

std::vector<cv::Mat> speckledNoise(cv::Size size, int count, unsigned seed)
{
    std::mt19937 random(seed);
    std::vector<cv::Mat> frames;
    cv::Mat state(size, CV_8UC1, cv::Scalar(kBackground));
    for (int i = 0; i < count; ++i) {
        cv::Mat frame(size, CV_8UC1);
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x) {
                if (random() % 40 == 0)
                    state.at<uchar>(y, x) = state.at<uchar>(y, x) == kBackground ? kObject : kBackground;
                const int noise = static_cast<int>(random() % 31) - 15;
                frame.at<uchar>(y, x) = cv::saturate_cast<uchar>(state.at<uchar>(y, x) + noise);
            }
        }
        frames.push_back(frame);
    }
    return frames;
}

bool writeGray(const QString& path, const std::vector<cv::Mat>& frames, const QStringList& outputArgs)
{
    std::vector<QByteArray> raw;
    for (const cv::Mat& frame : frames) {
        const cv::Mat continuous = frame.clone();
        raw.emplace_back(reinterpret_cast<const char*>(continuous.data), static_cast<int>(continuous.total()));
    }
    return TestSupport::writeRawClip(path, frames.front().cols, frames.front().rows, raw, outputArgs);
}

} // namespace ClipMaking
