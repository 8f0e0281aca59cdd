#include "ProcessMemory.h"

#if __has_include(<malloc.h>)
#include <malloc.h>
#endif

namespace ProcessMemory {

void returnLargeBlocksAtOnce()
{
#ifdef M_MMAP_THRESHOLD
    // Blocks of 256 KiB and more get mappings of their own, unmapped when freed. Setting the
    // threshold also stops the library from raising it.
    constexpr int kOwnMappingFrom = 256 * 1024;
    mallopt(M_MMAP_THRESHOLD, kOwnMappingFrom);
#endif
}

} // namespace ProcessMemory
