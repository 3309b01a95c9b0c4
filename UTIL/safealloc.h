// Raw allocation that ends the run when memory is exhausted.
#pragma once

#include <cstddef>

// malloc(); on failure writes "ERROR: out of memory" and exits with status 1.
void* safemalloc(size_t size);
// realloc() with the same failure exit.
void* saferealloc(void* ptr, size_t size);
