#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <opencv2/core/mat.hpp>

#include <functional>
#include <vector>

// Building blocks for test clips with exactly known pixels.
namespace ClipMaking {

constexpr uchar kBackground = 50;
constexpr uchar kObject = 200;

// `count` grey frames of `size`; frame i is the background with an 8 x 8 object at each
// top-left corner that `objectsAt(i)` returns.
std::vector<cv::Mat> squares(cv::Size size, int count, const std::function<std::vector<cv::Point>(int)>& objectsAt);

// Noise on every pixel every frame plus speckles that flip single pixels now and then.
std::vector<cv::Mat> speckledNoise(cv::Size size, int count, unsigned seed);

// Writes grey frames losslessly (FFV1, grey) to `path`; true on success.
bool writeGray(const QString& path, const std::vector<cv::Mat>& frames, const QStringList& outputArgs = {"-c:v", "ffv1"});

// The 8 x 8 object square at `corner`.
cv::Rect square(cv::Point corner);

} // namespace ClipMaking
