#pragma once

// Private to the video code: the row layout of buffers that swscale writes into.

extern "C" {
#include <libavutil/macros.h>
}

namespace RowPadding {

// swscale's SIMD code writes a few dozen bytes past the last pixel of a row (24 bytes for a
// 568 pixel wide RGB24 picture), so the rows it writes into carry this much slack.
constexpr int kRowSlack = 64;
constexpr int kRowAlignment = 64;

inline int paddedStride(int rowBytes)
{
    return FFALIGN(rowBytes + kRowSlack, kRowAlignment);
}

} // namespace RowPadding
