#include "LargePages.h"

#include <cstdint>

#include <sys/mman.h>
#include <unistd.h>

namespace LargePages {

namespace {

std::size_t roundedUp(std::size_t bytes, std::size_t step)
{
    return (bytes + step - 1) / step * step;
}

// The length mapped for `bytes`: whole small pages, and whole large pages where that adds at
// most an eighth, so that a buffer just short of a large page (a 1920 x 1080 plane of bytes)
// still gets one. A longer last part stays in small pages rather than make the rest resident.
std::size_t mappedLength(std::size_t bytes)
{
    const std::size_t large = roundedUp(bytes, kLargePage);
    if (large - bytes <= bytes / 8)
        return large;
    return roundedUp(bytes, static_cast<std::size_t>(sysconf(_SC_PAGESIZE)));
}

} // namespace

void* map(std::size_t bytes)
{
    // A mapping starts on a small page only: one large page more is reserved, and what lies
    // before the first boundary and after the end is given back at once.
    const std::size_t length = mappedLength(bytes);
    const std::size_t reserved = length + kLargePage;
    void* memory = mmap(nullptr, reserved, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return nullptr;
    auto* const start = static_cast<std::uint8_t*>(memory);
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(start);
    const std::size_t lead = (kLargePage - address % kLargePage) % kLargePage;
    if (lead > 0)
        munmap(start, lead);
    munmap(start + lead + length, kLargePage - lead);
    madvise(start + lead, length, MADV_HUGEPAGE);
    return start + lead;
}

void unmap(void* memory, std::size_t bytes)
{
    if (memory)
        munmap(memory, mappedLength(bytes));
}

} // namespace LargePages
