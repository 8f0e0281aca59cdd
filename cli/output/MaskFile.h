#pragma once

#include <QString>

#include <opencv2/core/mat.hpp>

// The --mask picture: any format Qt reads; its light parts are analysed and its dark parts
// (luma below 128) ignored.
namespace MaskFile {

// Over twice the width of an 8K video: a mask is scaled to each video, so a larger one adds
// nothing but the memory its decoding takes.
constexpr int kLargestSide = 16384;

// The mask at its own size as 8-bit 1-channel, 255 where analysed and 0 where ignored. On
// failure an empty matrix and `error` set to one line naming the file: it is missing, its
// header declares more than kLargestSide pixels on a side (found before anything is decoded),
// it cannot be read as a picture, or it has no light pixel at all (nothing would be analysed).
// Reentrant.
cv::Mat load(const QString& path, QString* error);

} // namespace MaskFile
