// Broken invariants of the lowest layers (bit vectors, wide integers).  The
// application decides what happens (the optimizer installs its internal-error
// path); without a handler the condition is printed and the process exits
// with status 1.
#pragma once

using internal_error_fn = void (*)(const char* condition, const char* file, int line);

void set_internal_error_handler(internal_error_fn fn);
[[noreturn]] void internal_error(const char* condition, const char* file, int line);

#define UTIL_REQUIRE(cond)                                        \
    do {                                                          \
        if (!(cond)) internal_error(#cond, THIS_MODULE, __LINE__); \
    } while (0)
