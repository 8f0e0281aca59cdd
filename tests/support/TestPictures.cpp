#include "TestPictures.h"

namespace TestPictures {

AVFrame* allocatePicture(AVPixelFormat format, int width, int height)
{
    AVFrame* frame = av_frame_alloc();
    if (!frame)
        return nullptr;
    frame->format = format;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame, 0) < 0)
        av_frame_free(&frame);
    return frame;
}

} // namespace TestPictures
