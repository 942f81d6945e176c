#include "common/Memory.h"

#include <cstdlib>  // defines __GLIBC__

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace common {

void useOneHeap() {
#ifdef __GLIBC__
    mallopt(M_ARENA_MAX, 1);
#endif
}

void releaseFreeMemory() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

}  // namespace common
