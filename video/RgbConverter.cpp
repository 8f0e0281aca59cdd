#include "RgbConverter.h"

#include "FfmpegPtr.h"
#include "LargePages.h"
#include "MpegFrame.h"
#include "RowPadding.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace {

constexpr int kBytesPerPixel = 3;

// A buffer from LargePages: a picture is written whole, once a frame, so that its fresh
// memory costs a fault a large page instead of one a small page.
class Buffer {
public:
    Buffer() = default;
    ~Buffer() { LargePages::unmap(m_memory, m_bytes); }

    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    // Zeroed; false, with no buffer left, when the system has no memory to give.
    bool allocate(size_t bytes)
    {
        LargePages::unmap(m_memory, m_bytes);
        m_memory = static_cast<uint8_t*>(LargePages::map(bytes));
        m_bytes = m_memory ? bytes : 0;
        return m_memory != nullptr;
    }

    uint8_t* get() const { return m_memory; }

private:
    uint8_t* m_memory = nullptr;
    size_t m_bytes = 0;
};

} // namespace

struct RgbConverterState {
    SwsContextPtr scaler;
    Buffer buffer;
    int width = 0;
    int height = 0;
    int stride = 0;
};

namespace {

// Rows with swscale's slack, zero-filled: black until a conversion succeeds.
bool allocate(RgbConverterState& state, const AVFrame& picture)
{
    const int stride = RowPadding::paddedStride(picture.width * kBytesPerPixel);
    const size_t bytes = static_cast<size_t>(stride) * static_cast<size_t>(picture.height);
    const bool allocated = state.buffer.allocate(bytes);
    state.width = allocated ? picture.width : 0;
    state.height = allocated ? picture.height : 0;
    state.stride = allocated ? stride : 0;
    return allocated;
}

} // namespace

RgbConverter::RgbConverter()
    : m_state(std::make_unique<RgbConverterState>())
{
}

RgbConverter::~RgbConverter() = default;

bool RgbConverter::convert(const MpegFrame& frame)
{
    const AVFrame* picture = frame.avFrame();
    if (!picture || picture->width <= 0 || picture->height <= 0
        || av_image_check_size(static_cast<unsigned>(picture->width), static_cast<unsigned>(picture->height), 0, nullptr) < 0)
        return false;
    RgbConverterState& state = *m_state;
    if ((picture->width != state.width || picture->height != state.height) && !allocate(state, *picture))
        return false;
    // The same scaler settings as MpegFrame::rgb24, so the bytes are the same.
    SwsContext* scaler = sws_getCachedContext(state.scaler.release(), picture->width, picture->height,
                                              static_cast<AVPixelFormat>(picture->format), picture->width,
                                              picture->height, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr, nullptr);
    state.scaler.reset(scaler);
    if (!scaler)
        return false;
    uint8_t* planes[4] = {state.buffer.get(), nullptr, nullptr, nullptr};
    const int strides[4] = {state.stride, 0, 0, 0};
    if (sws_scale(scaler, picture->data, picture->linesize, 0, picture->height, planes, strides) <= 0)
        return false;
    return true;
}

const uint8_t* RgbConverter::data() const
{
    return m_state->buffer.get();
}

int RgbConverter::stride() const
{
    return m_state->stride;
}

int RgbConverter::width() const
{
    return m_state->width;
}

int RgbConverter::height() const
{
    return m_state->height;
}
