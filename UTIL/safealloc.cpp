#include "UTIL/safealloc.h"

#include <cstdio>
#include <cstdlib>

[[noreturn]] static void out_of_memory() {
    std::fputs("ERROR: out of memory\n", stderr);
    std::exit(1);
}

void* safemalloc(size_t size) {
    void* p = std::malloc(size);
    if (!p) out_of_memory();
    return p;
}

void* saferealloc(void* ptr, size_t size) {
    void* p = std::realloc(ptr, size);
    if (!p) out_of_memory();
    return p;
}
