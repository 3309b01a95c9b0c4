// ifdis: an I-file as text.   ifdis input.if [output.txt]
#include <cstdio>
#include <string>

#include "IFILE/if_text.h"

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "Usage: %s input.if [output.txt]\n", argv[0]);
        return 2;
    }
    FILE* in = std::fopen(argv[1], "rb");
    if (!in) {
        std::perror(argv[1]);
        return 1;
    }
    FILE* out = argc == 3 ? std::fopen(argv[2], "w") : stdout;
    if (!out) {
        std::perror(argv[2]);
        return 1;
    }
    std::string error;
    int rc = ifdis(in, out, error);
    if (rc) std::fprintf(stderr, "%s\n", error.c_str());
    std::fclose(in);
    if (out != stdout && std::fclose(out) != 0) rc = 1;
    return rc;
}
