#pragma once

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

// Pictures for tests that build decoded frames by hand. Any thread.
namespace TestPictures {

// A picture of `format` at width x height with its planes allocated but not filled; null
// when FFmpeg cannot allocate it. The caller fills it and hands it on (MpegFrame takes it).
AVFrame* allocatePicture(AVPixelFormat format, int width, int height);

} // namespace TestPictures
