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
// them. Used by one thread at a time (the reader's).
class GrayPlanes {
public:
    GrayPlanes() = default;
    ~GrayPlanes();

    GrayPlanes(const GrayPlanes&) = delete;
    GrayPlanes& operator=(const GrayPlanes&) = delete;

    // A buffer of `bytes`, holding what an earlier picture left in it; null when the system has
    // no memory to give. A new size starts a new pool.
    AVBufferRef* take(std::size_t bytes);

private:
    AVBufferPool* m_pool = nullptr;
    std::size_t m_bytes = 0;
};
