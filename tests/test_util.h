// Helpers shared by the tests.
#pragma once

#include <cstdio>
#include <string>

// Everything written to the stream so far, read from its start; the stream
// is left positioned at its end.
inline std::string read_all(FILE* f) {
    std::fflush(f);
    std::rewind(f);
    std::string s;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
    return s;
}
