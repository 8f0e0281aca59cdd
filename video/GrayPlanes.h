#pragma once

#include <cstddef>

struct AVBufferPool;
struct AVBufferRef;

// Private to the video code: the memory of the grey copies a reader makes of pictures whose
// first plane is not 8-bit luma (ten-bit video, RGB, packed formats). The copy of a 1080p
// picture takes two megabytes, which the C library maps afresh for each picture where the
// program has it map large blocks on their own, and the system then faults and clears page by
// page, a cost that grows with the length of the video. From a pool, the few copies alive at
// once serve the whole video.
//
// Buffers handed out stay valid after the planes are gone; their memory goes with the last of
// them. take() is used by one thread at a time (the reader's); giveBack() on any thread.
class GrayPlanes {
public:
    GrayPlanes() = default;
    ~GrayPlanes();

    GrayPlanes(const GrayPlanes&) = delete;
    GrayPlanes& operator=(const GrayPlanes&) = delete;

    // A buffer of `bytes`, holding what an earlier picture left in it; null when the system has
    // no memory to give. A new size starts a new pool.
    AVBufferRef* take(std::size_t bytes);

    // Lets go of a plane, in place of av_buffer_unref, so that whoever takes it from the pool
    // next is seen to come after every use of it here.
    static void giveBack(AVBufferRef** buffer);

private:
    AVBufferPool* m_pool = nullptr;
    std::size_t m_bytes = 0;
};
