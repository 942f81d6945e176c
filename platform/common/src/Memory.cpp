#include "common/Memory.h"

#include <cstdlib>  // defines __GLIBC__

// uClibc claims to be glibc.
#if defined(__GLIBC__) && !defined(__UCLIBC__)
#include <malloc.h>
#define ZAV_GLIBC_HEAP 1
#else
#define ZAV_GLIBC_HEAP 0
#endif

namespace common {

void useOneHeap() {
#if ZAV_GLIBC_HEAP
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
    mallopt(M_ARENA_MAX, 1);
#endif
}

void releaseFreeMemory() {
#if ZAV_GLIBC_HEAP
    malloc_trim(0);
#endif
}

}  // namespace common
