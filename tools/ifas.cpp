// ifas: text back to an I-file.   ifas input.txt output.if
#include <cstdio>
#include <string>

#include "IFILE/if_text.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "Usage: %s input.txt output.if\n", argv[0]);
        return 2;
    }
    FILE* in = std::fopen(argv[1], "r");
    if (!in) {
        std::perror(argv[1]);
        return 1;
    }
    FILE* out = std::fopen(argv[2], "wb");
    if (!out) {
        std::perror(argv[2]);
        return 1;
    }
    std::string error;
    int rc = ifas(in, out, error);
    std::fclose(in);
    if (std::fclose(out) != 0) rc = 1;
    if (rc) {
        std::fprintf(stderr, "%s\n", error.c_str());
        std::remove(argv[2]);
    }
    return rc;
}
