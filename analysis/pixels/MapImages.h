#pragma once

#include <QImage>

#include <opencv2/core/mat.hpp>

// The one place where the analysis's matrices become images and back: the files a map comes
// with (counts, exact counts, background) are written from these, and read back into the
// same matrices. Reentrant: any thread, no shared state.
namespace MapImages {

// The per-pixel event counts (8-bit, 1 channel) as a grey image: pixel value = count.
QImage countsImage(const cv::Mat& motionCount);
// The exact event counts (16-bit, 1 channel) as a 16-bit grey image: pixel value = count.
QImage eventsImage(const cv::Mat& exactCounts);
// The background (8-bit, 3 channels R,G,B) as an RGB888 image.
QImage backgroundImage(const cv::Mat& background);
// The other way: `image` converted to `format`, as a matrix of `type` whose rows hold the
// same bytes; empty for a null image. The reader may hand a lossless file back in a wider
// format than it was written in.
cv::Mat matrixOf(const QImage& image, QImage::Format format, int type);

} // namespace MapImages
