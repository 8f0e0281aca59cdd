#include "MapImages.h"

#include <cstring>

namespace {

// A copy of `matrix`, which must be of `type`, as an image whose rows hold the same bytes.
QImage imageOf(const cv::Mat& matrix, int type, QImage::Format format)
{
    if (matrix.empty() || matrix.type() != type)
        return {};
    QImage image(matrix.cols, matrix.rows, format);
    if (image.isNull())
        return {};
    const size_t rowBytes = static_cast<size_t>(matrix.cols) * matrix.elemSize();
    for (int y = 0; y < matrix.rows; ++y)
        std::memcpy(image.scanLine(y), matrix.ptr(y), rowBytes);
    return image;
}

} // namespace

namespace MapImages {

QImage countsImage(const cv::Mat& motionCount)
{
    return imageOf(motionCount, CV_8UC1, QImage::Format_Grayscale8);
}

QImage eventsImage(const cv::Mat& exactCounts)
{
    return imageOf(exactCounts, CV_16UC1, QImage::Format_Grayscale16);
}

QImage backgroundImage(const cv::Mat& background)
{
    return imageOf(background, CV_8UC3, QImage::Format_RGB888);
}

cv::Mat matrixOf(const QImage& image, QImage::Format format, int type)
{
    const QImage converted = image.convertToFormat(format);
    if (converted.isNull())
        return {};
    cv::Mat matrix(converted.height(), converted.width(), type);
    const size_t rowBytes = static_cast<size_t>(matrix.cols) * matrix.elemSize();
    for (int y = 0; y < matrix.rows; ++y)
        std::memcpy(matrix.ptr(y), converted.constScanLine(y), rowBytes);
    return matrix;
}

} // namespace MapImages
