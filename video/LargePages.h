#pragma once

#include <cstddef>

// Fresh memory that the system backs with large pages where it allows (transparent huge
// pages in "madvise" mode or "always"). Each small page of fresh memory costs a fault when
// first written, which on a virtual machine also waits for the host; a large page costs one
// fault and a clear for 512 of them. The price: a large page is resident as a whole once any
// byte of it is written, so this is for buffers written from end to end.
//
// Thread-safe.
namespace LargePages {

constexpr std::size_t kLargePage = std::size_t{2} << 20;

// `bytes` of zeroed memory starting on a large page's boundary; null when the system has
// none to give. Its end is rounded up to a whole large page where that adds at most an
// eighth of `bytes`.
void* map(std::size_t bytes);

// Gives back memory from map(), with the same `bytes`.
void unmap(void* memory, std::size_t bytes);

} // namespace LargePages
