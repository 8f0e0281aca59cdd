#include "GrayPlanes.h"

#include "LargePages.h"

extern "C" {
#include <libavutil/buffer.h>
}

#include <cstdint>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace {

// The pool passes a buffer from the thread that lets it go to the one that takes it under a
// mutex of FFmpeg's, which the thread sanitizer is told to look past (FFmpeg is not built for
// it); the hand-over is told to it here instead. Nothing in other builds.
void handedOver(void* data)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_release(data);
#else
    (void)data;
#endif
}

void takenOver(void* data)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(data);
#else
    (void)data;
#endif
}

// Each plane carries its own length in the buffer's opaque pointer, so that it is unmapped
// with the length it was mapped with whenever it goes, after its pool too.
void unmapPlane(void* length, std::uint8_t* data)
{
    LargePages::unmap(data, static_cast<std::size_t>(reinterpret_cast<std::uintptr_t>(length)));
}

// A plane is written whole for every picture: in large pages it costs a fault a large page
// once, rather than one a small page.
AVBufferRef* mapPlane(void* /*opaque*/, std::size_t bytes)
{
    void* memory = LargePages::map(bytes);
    if (!memory)
        return nullptr;
    AVBufferRef* buffer = av_buffer_create(static_cast<std::uint8_t*>(memory), bytes, unmapPlane,
                                           reinterpret_cast<void*>(static_cast<std::uintptr_t>(bytes)), 0);
    if (!buffer)
        LargePages::unmap(memory, bytes);
    return buffer;
}

} // namespace

GrayPlanes::~GrayPlanes()
{
    av_buffer_pool_uninit(&m_pool);
}

AVBufferRef* GrayPlanes::take(std::size_t bytes)
{
    if (!m_pool || bytes != m_bytes) {
        av_buffer_pool_uninit(&m_pool);
        m_pool = av_buffer_pool_init2(bytes, nullptr, mapPlane, nullptr);
        m_bytes = m_pool ? bytes : 0;
        if (!m_pool)
            return nullptr;
    }
    AVBufferRef* buffer = av_buffer_pool_get(m_pool);
    if (buffer)
        takenOver(buffer->data);
    return buffer;
}

void GrayPlanes::giveBack(AVBufferRef** buffer)
{
    if (*buffer)
        handedOver((*buffer)->data);
    av_buffer_unref(buffer);
}
