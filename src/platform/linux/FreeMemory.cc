#include "platform/FreeMemory.h"

#include <malloc.h>

namespace kel::platform {

void ReturnFreeMemory() { malloc_trim(0); }

// The allocator would raise both thresholds to the size of the largest block freed, and give each thread a pool that
// another thread's memory cannot be taken from.
void KeepLittleFreeMemory() {
    mallopt(M_ARENA_MAX, 2);
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    mallopt(M_TRIM_THRESHOLD, 1024 * 1024);
}

}  // namespace kel::platform
