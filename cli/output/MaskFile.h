#pragma once

#include <QString>

#include <opencv2/core/mat.hpp>

// The --mask picture: any format Qt reads; its light parts are analysed and its dark parts
// (luma below 128) ignored.
namespace MaskFile {

// The mask at its own size as 8-bit 1-channel, 255 where analysed and 0 where ignored. On
// failure an empty matrix and `error` set to one line naming the file: it is missing, cannot
// be read as a picture, or has no light pixel at all (nothing would be analysed).
// Reentrant.
cv::Mat load(const QString& path, QString* error);

} // namespace MaskFile
