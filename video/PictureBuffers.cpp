#include "PictureBuffers.h"

#include "FfmpegPtr.h"
#include "LargePages.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

namespace {

constexpr int kPlanes = 4;
// Planes start on this boundary, and each is followed by FFmpeg's own slack for reads past
// its end (16 bytes plus the alignment less one), as in FFmpeg's buffers.
constexpr std::size_t kPlaneAlignment = 64;
constexpr std::size_t kPlaneSlack = 16 + kPlaneAlignment - 1;
// Pictures are carved from runs of this many bytes; large pages of a run that no picture has
// reached yet are never resident.
constexpr std::size_t kRunBytes = 32 * LargePages::kLargePage;

std::size_t roundUp(std::size_t value, std::size_t step)
{
    return (value + step - 1) / step * step;
}

// The memory of one pool of pictures: runs of large pages, handed out front to back. A pool
// never gives a picture's memory back before it ends, and it ends once it has been let go
// and its last picture freed; the runs go with it.
class Runs {
public:
    Runs() = default;
    ~Runs()
    {
        for (const std::pair<void*, std::size_t>& run : m_runs)
            LargePages::unmap(run.first, run.second);
    }

    Runs(const Runs&) = delete;
    Runs& operator=(const Runs&) = delete;

    // Null when the system has no memory to give.
    std::uint8_t* take(std::size_t bytes)
    {
        const std::size_t taken = roundUp(bytes, kPlaneAlignment);
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_left < taken) {
            const std::size_t length = std::max(kRunBytes, roundUp(taken, LargePages::kLargePage));
            void* run = LargePages::map(length);
            if (!run)
                return nullptr;
            m_runs.emplace_back(run, length);
            m_next = static_cast<std::uint8_t*>(run);
            m_left = length;
        }
        std::uint8_t* const memory = m_next;
        m_next += taken;
        m_left -= taken;
        return memory;
    }

private:
    std::mutex m_mutex;
    std::vector<std::pair<void*, std::size_t>> m_runs;
    std::uint8_t* m_next = nullptr;
    std::size_t m_left = 0;
};

void keepMemory(void* /*opaque*/, std::uint8_t* /*data*/)
{
}

AVBufferRef* allocatePicture(void* runs, std::size_t bytes)
{
    std::uint8_t* memory = static_cast<Runs*>(runs)->take(bytes);
    return memory ? av_buffer_create(memory, bytes, keepMemory, nullptr, 0) : nullptr;
}

void endRuns(void* runs)
{
    delete static_cast<Runs*>(runs);
}

// Where the planes of one picture lie in its buffer.
struct Layout {
    int format = AV_PIX_FMT_NONE;
    int width = 0;
    int height = 0;
    int linesize[kPlanes] = {};
    std::size_t offset[kPlanes] = {};
    bool present[kPlanes] = {};
    std::size_t bytes = 0;
};

// The planes of `frame` with the strides FFmpeg's own buffers would have: the width is
// widened until every plane's stride is a multiple of the decoder's alignment, never one
// stride alone, since decoders count on the strides' ratios.
bool layoutFor(AVCodecContext& context, const AVFrame& frame, Layout& layout)
{
    const auto format = static_cast<AVPixelFormat>(frame.format);
    int width = frame.width;
    int height = frame.height;
    int strideAlignment[AV_NUM_DATA_POINTERS] = {};
    avcodec_align_dimensions2(&context, &width, &height, strideAlignment);
    int linesize[kPlanes] = {};
    for (;;) {
        if (av_image_fill_linesizes(linesize, format, width) < 0)
            return false;
        bool unaligned = false;
        for (int plane = 0; plane < kPlanes; ++plane)
            unaligned |= strideAlignment[plane] > 0 && linesize[plane] % strideAlignment[plane] != 0;
        if (!unaligned)
            break;
        width += width & ~(width - 1);
    }
    ptrdiff_t strides[kPlanes];
    for (int plane = 0; plane < kPlanes; ++plane)
        strides[plane] = linesize[plane];
    std::size_t sizes[kPlanes] = {};
    if (av_image_fill_plane_sizes(sizes, format, height, strides) < 0)
        return false;
    layout = Layout{frame.format, frame.width, frame.height, {}, {}, {}, 0};
    for (int plane = 0; plane < kPlanes && sizes[plane] > 0; ++plane) {
        if (sizes[plane] > static_cast<std::size_t>(INT_MAX) - kPlaneSlack)
            return false;
        layout.linesize[plane] = linesize[plane];
        layout.offset[plane] = layout.bytes;
        layout.present[plane] = true;
        layout.bytes = roundUp(layout.bytes + sizes[plane] + kPlaneSlack, kPlaneAlignment);
    }
    return layout.bytes > 0;
}

bool ownBuffersServe(const AVCodecContext& context, const AVFrame& frame)
{
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    return context.codec_type == AVMEDIA_TYPE_VIDEO && context.codec
           && (context.codec->capabilities & AV_CODEC_CAP_DR1) && !context.hw_frames_ctx && format
           && !(format->flags & (AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_PAL));
}

} // namespace

struct PictureBuffersState {
    // Called by the decoder's threads.
    int fill(AVCodecContext& context, AVFrame& frame)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!pool || frame.format != layout.format || frame.width != layout.width || frame.height != layout.height) {
            pool.reset();
            if (!layoutFor(context, frame, layout))
                return AVERROR(EINVAL);
            Runs* runs = new Runs;
            pool.reset(av_buffer_pool_init2(layout.bytes, runs, allocatePicture, endRuns));
            if (!pool) {
                delete runs;
                return AVERROR(ENOMEM);
            }
        }
        AVBufferRef* buffer = av_buffer_pool_get(pool.get());
        if (!buffer)
            return AVERROR(ENOMEM);
        frame.buf[0] = buffer;
        for (int plane = 0; plane < AV_NUM_DATA_POINTERS; ++plane) {
            const bool present = plane < kPlanes && layout.present[plane];
            frame.data[plane] = present ? buffer->data + layout.offset[plane] : nullptr;
            frame.linesize[plane] = present ? layout.linesize[plane] : 0;
        }
        frame.extended_data = frame.data;
        return 0;
    }

    std::mutex mutex;
    BufferPoolPtr pool;
    Layout layout;
};

namespace {

int getPicture(AVCodecContext* context, AVFrame* frame, int flags)
{
    if (!ownBuffersServe(*context, *frame))
        return avcodec_default_get_buffer2(context, frame, flags);
    return static_cast<PictureBuffersState*>(context->opaque)->fill(*context, *frame);
}

} // namespace

PictureBuffers::PictureBuffers()
    : m_state(std::make_unique<PictureBuffersState>())
{
}

PictureBuffers::~PictureBuffers() = default;

void PictureBuffers::serve(AVCodecContext& context)
{
    context.opaque = m_state.get();
    context.get_buffer2 = getPicture;
#if LIBAVCODEC_VERSION_MAJOR < 60
    // Until FFmpeg 6 a decoder's threads ask the caller's thread for pictures unless told
    // that the callback is thread-safe, which it is.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    context.thread_safe_callbacks = 1;
#pragma GCC diagnostic pop
#endif
}
