#include "UTIL/assert.h"

#include <cstdio>
#include <cstdlib>

#include "UTIL/cleanup.h"

namespace {
internal_error_fn handler = nullptr;
}

void set_internal_error_handler(internal_error_fn fn) { handler = fn; }

void internal_error(const char* condition, const char* file, int line) {
    if (handler) handler(condition, file, line);
    std::fprintf(stderr, "\nINTERNAL ERROR: %s (%s, line %d)\n", condition, file, line);
    run_abnormal_exit_cleanup();
    std::exit(1);
}
