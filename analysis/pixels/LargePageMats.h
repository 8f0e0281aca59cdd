#pragma once

#include <opencv2/core/mat.hpp>

// Matrices whose data lies in large pages (LargePages) when it takes half a large page or
// more: full-frame matrices that a pass sets up before its first frame and writes from end to
// end, where a fault a small page would hold up the start. Smaller ones are the library's own.
// Such a matrix is an ordinary cv::Mat; copies of it are the library's own again.
//
// Thread-safe.
namespace LargePageMats {

// `mat` as cv::Mat(size, type, value) would make it, its data anew in large pages.
void create(cv::Mat& mat, cv::Size size, int type, const cv::Scalar& value);

} // namespace LargePageMats
