// A source position.  The file name points into the I-file layer's table of
// file names, which lives to the end of the run; null means no file.
#pragma once

struct PSN {
    const char* file = nullptr;
    unsigned long long line = 0;
    unsigned long long col = 0;
};

inline bool operator==(const PSN& a, const PSN& b) {
    return a.file == b.file && a.line == b.line && a.col == b.col;
}
