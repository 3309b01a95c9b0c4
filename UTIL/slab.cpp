#include "UTIL/slab.h"

#include <sys/mman.h>

#include <cstdlib>

void* allocate_slab() {
    void* p = std::aligned_alloc(SLAB_BYTES, SLAB_BYTES);
    if (!p) throw std::bad_alloc();
    madvise(p, SLAB_BYTES, MADV_HUGEPAGE);  // only advice: without huge pages it is ordinary memory
    return p;
}

void release_slab(void* slab) { std::free(slab); }
