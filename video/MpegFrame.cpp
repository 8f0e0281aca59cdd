#include "MpegFrame.h"

#include "FfmpegPtr.h"
#include "GrayPlanes.h"
#include "RowPadding.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <cstring>
#include <new>
#include <vector>

namespace {

using RowPadding::paddedStride;

// XYZ pictures have no luma first; their first component is X.
bool isXyz(int format)
{
    return format == AV_PIX_FMT_XYZ12LE || format == AV_PIX_FMT_XYZ12BE;
}

// Formats whose first component is luma (or grey) stored as plain integers in the first plane.
bool isLumaFirstFormat(const AVPixFmtDescriptor& descriptor, int format)
{
    constexpr uint64_t notLuma = AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM
                                 | AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_FLOAT | AV_PIX_FMT_FLAG_BAYER;
    return descriptor.nb_components > 0 && (descriptor.flags & notLuma) == 0 && descriptor.comp[0].plane == 0
           && !isXyz(format);
}

// The first plane is 8-bit luma, one byte a pixel, rows top to bottom: the grey picture as
// it is, no copy needed.
bool hasGrayFirstPlane(const AVFrame& frame)
{
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    if (!descriptor || !isLumaFirstFormat(*descriptor, frame.format))
        return false;
    const AVComponentDescriptor& luma = descriptor->comp[0];
    return luma.offset == 0 && luma.depth == 8 && luma.step == 1 && luma.shift == 0 && frame.linesize[0] >= frame.width;
}

// Luma (or grey) read from its samples as they are: bytes of 8 bits, or 16-bit words holding
// 9 to 16 bits, at any offset and spacing in the first plane (planar, semi-planar and packed
// YUV alike).
bool hasReadableLuma(const AVFrame& frame, const AVPixFmtDescriptor& descriptor)
{
    if (!isLumaFirstFormat(descriptor, frame.format))
        return false;
    const AVComponentDescriptor& luma = descriptor.comp[0];
    const bool bytes = luma.depth == 8 && luma.shift == 0 && luma.step >= 1;
    const bool words = luma.depth > 8 && luma.depth + luma.shift <= 16 && luma.step >= 2;
    return bytes || words;
}

// Grey formats span the full sample range; video's luma keeps to its limited range (16 to
// 235 in 8 bits) unless the picture says otherwise.
bool isFullRange(const AVFrame& frame, const AVPixFmtDescriptor& descriptor)
{
    const bool gray = descriptor.nb_components <= 2;
    return gray || frame.color_range == AVCOL_RANGE_JPEG;
}

// Where pixel x's luma sample starts in its row. Every format spaces its samples evenly but
// one: 4:1:1 packed as U Y0 Y1 V Y2 Y3, which its descriptor cannot tell.
class LumaLayout {
public:
    LumaLayout(const AVFrame& frame, const AVComponentDescriptor& luma)
        : m_offset(luma.offset)
        , m_step(luma.step)
        , m_uyyvyy(frame.format == AV_PIX_FMT_UYYVYY411)
    {
    }

    ptrdiff_t at(int x) const
    {
        if (m_uyyvyy) {
            static constexpr int kInGroup[4] = {1, 2, 4, 5};
            return static_cast<ptrdiff_t>(x / 4) * 6 + kInGroup[x % 4];
        }
        return m_offset + static_cast<ptrdiff_t>(x) * m_step;
    }

private:
    int m_offset;
    int m_step;
    bool m_uyyvyy;
};

// Copies the luma samples of every YUV and grey format into a plane of its own, reduced to
// 8 bits within the picture's own range, because swscale always stretches limited-range luma
// to full range when it writes grey. The same scene then gives the same values whatever its
// pixel format: 8-bit samples as they are, and ten-bit video the values eight-bit video of
// the same scene would.
void copyLuma(const AVFrame& frame, const AVPixFmtDescriptor& descriptor, uint8_t* gray, int grayStep)
{
    const AVComponentDescriptor& luma = descriptor.comp[0];
    const LumaLayout layout(frame, luma);
    const bool words = luma.depth > 8;
    const bool bigEndian = (descriptor.flags & AV_PIX_FMT_FLAG_BE) != 0;
    const unsigned maximum = (1u << luma.depth) - 1;
    const int dropBits = luma.depth - 8;
    const bool fullRange = isFullRange(frame, descriptor);
    for (int y = 0; y < frame.height; ++y) {
        const uint8_t* row = frame.data[0] + static_cast<ptrdiff_t>(y) * frame.linesize[0];
        uint8_t* out = gray + static_cast<ptrdiff_t>(y) * grayStep;
        if (!words) {
            for (int x = 0; x < frame.width; ++x)
                out[x] = row[layout.at(x)];
            continue;
        }
        for (int x = 0; x < frame.width; ++x) {
            const uint8_t* sample = row + layout.at(x);
            const unsigned high = sample[bigEndian ? 0 : 1];
            const unsigned low = sample[bigEndian ? 1 : 0];
            const unsigned value = (((high << 8) | low) >> luma.shift) & maximum;
            const unsigned reduced = fullRange ? (value * 255 + maximum / 2) / maximum
                                               : (value + (1u << (dropBits - 1))) >> dropBits;
            out[x] = static_cast<uint8_t>(reduced > 255 ? 255 : reduced);
        }
    }
}

} // namespace

MpegFrame::MpegFrame(AVFrame* frame)
    : m_frame(frame)
{
    SwsContext* scaler = nullptr;
    makeGray(&scaler, nullptr);
    sws_freeContext(scaler);
}

MpegFrame::MpegFrame(AVFrame* frame, SwsContext** grayScaler, GrayPlanes& grayPlanes)
    : m_frame(frame)
{
    makeGray(grayScaler, &grayPlanes);
}

MpegFrame::~MpegFrame()
{
    GrayPlanes::giveBack(&m_gray);
    av_frame_free(&m_frame);
}

// The grey plane holds zeros wherever the picture does not write it, also when it comes from
// a pool: a picture swscale cannot convert comes out black rather than undefined, and the
// slack after each row never holds an earlier picture's bytes.
void MpegFrame::makeGray(SwsContext** grayScaler, GrayPlanes* grayPlanes)
{
    if (!m_frame || m_frame->width <= 0 || m_frame->height <= 0 || hasGrayFirstPlane(*m_frame))
        return;
    const int width = m_frame->width;
    const int height = m_frame->height;
    m_grayStep = paddedStride(width);
    const size_t bytes = static_cast<size_t>(m_grayStep) * static_cast<size_t>(height);
    m_gray = grayPlanes ? grayPlanes->take(bytes) : av_buffer_alloc(bytes);
    // A picture without memory for its grey copy fails as a failed allocation of the matrix
    // library's does, which readers of frames catch; the frame is never made, so the picture
    // is freed here.
    if (!m_gray) {
        av_frame_free(&m_frame);
        throw std::bad_alloc();
    }
    uint8_t* const gray = m_gray->data;

    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(m_frame->format));
    if (descriptor && hasReadableLuma(*m_frame, *descriptor)) {
        // Every pixel of every row is written; only the rows' slack is left.
        for (int y = 0; y < height; ++y)
            std::memset(gray + static_cast<ptrdiff_t>(y) * m_grayStep + width, 0,
                        static_cast<size_t>(m_grayStep - width));
        copyLuma(*m_frame, *descriptor, gray, m_grayStep);
        return;
    }
    std::memset(gray, 0, bytes);
    *grayScaler = sws_getCachedContext(*grayScaler, width, height, static_cast<AVPixelFormat>(m_frame->format), width,
                                       height, AV_PIX_FMT_GRAY8, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!*grayScaler)
        return;
    uint8_t* planes[4] = {gray, nullptr, nullptr, nullptr};
    const int strides[4] = {m_grayStep, 0, 0, 0};
    sws_scale(*grayScaler, m_frame->data, m_frame->linesize, 0, height, planes, strides);
}

uint8_t* MpegFrame::data()
{
    if (m_gray)
        return m_gray->data;
    return m_frame ? m_frame->data[0] : nullptr;
}

const uint8_t* MpegFrame::data() const
{
    if (m_gray)
        return m_gray->data;
    return m_frame ? m_frame->data[0] : nullptr;
}

int MpegFrame::step() const
{
    if (m_gray)
        return m_grayStep;
    return m_frame ? m_frame->linesize[0] : 0;
}

int MpegFrame::width() const
{
    return m_frame ? m_frame->width : 0;
}

int MpegFrame::height() const
{
    return m_frame ? m_frame->height : 0;
}

void MpegFrame::rgb16(void* dst, int dstStride, int dstWidth, int dstHeight) const
{
    convert(AV_PIX_FMT_RGB565LE, 2, dst, dstStride, dstWidth, dstHeight);
}

void MpegFrame::rgb24(void* dst, int dstStride, int dstWidth, int dstHeight) const
{
    convert(AV_PIX_FMT_RGB24, 3, dst, dstStride, dstWidth, dstHeight);
}

void MpegFrame::rgb32(void* dst, int dstStride, int dstWidth, int dstHeight) const
{
    convert(AV_PIX_FMT_BGRA, 4, dst, dstStride, dstWidth, dstHeight);
}

AVFrame* MpegFrame::avFrame() const
{
    return m_frame;
}

void MpegFrame::convert(int dstFormat, int bytesPerPixel, void* dst, int dstStride, int dstWidth,
                        int dstHeight) const
{
    if (!m_frame || m_frame->width <= 0 || m_frame->height <= 0 || !dst)
        return;
    if (dstWidth <= 0 || dstHeight <= 0 || av_image_check_size(static_cast<unsigned>(dstWidth),
                                                               static_cast<unsigned>(dstHeight), 0, nullptr) < 0)
        return;
    const int rowBytes = dstWidth * bytesPerPixel;
    if (dstStride < rowBytes)
        return;

    const SwsContextPtr scaler(sws_getContext(m_frame->width, m_frame->height,
                                              static_cast<AVPixelFormat>(m_frame->format), dstWidth, dstHeight,
                                              static_cast<AVPixelFormat>(dstFormat), SWS_BILINEAR, nullptr, nullptr,
                                              nullptr));
    if (!scaler)
        return;
    const int stagingStride = paddedStride(rowBytes);
    std::vector<uint8_t> staging(static_cast<size_t>(stagingStride) * static_cast<size_t>(dstHeight));
    uint8_t* planes[4] = {staging.data(), nullptr, nullptr, nullptr};
    const int strides[4] = {stagingStride, 0, 0, 0};
    if (sws_scale(scaler.get(), m_frame->data, m_frame->linesize, 0, m_frame->height, planes, strides) <= 0)
        return;
    av_image_copy_plane(static_cast<uint8_t*>(dst), dstStride, staging.data(), stagingStride, rowBytes, dstHeight);
}
