// ifcc: C to I-file.   ifcc [-S] [-o out] [-I dir] [-D name[=value]] [-U name] file.c
#include <cstdio>
#include <cstring>
#include <string>

#include "IFILE/if_text.h"
#include "tools/ifcc/ifcc.h"

namespace {

int usage(const char* program) {
    std::fprintf(stderr, "Usage: %s [-S] [-o output] [-I dir] [-D name[=value]] [-U name] file.c\n", program);
    return 1;
}

// Writes the unit: the record text itself with -S, else the I-file that
// ifas makes of it.  A partial file never stays behind.
bool write_output(const std::string& text, const std::string& path, bool as_text, std::string& error) {
    std::string temp = path + ".part";
    FILE* out = std::fopen(temp.c_str(), "wb");
    if (!out) {
        error = "cannot create " + temp + ": " + std::strerror(errno);
        return false;
    }
    int rc = 0;
    if (as_text) {
        rc = std::fwrite(text.data(), 1, text.size(), out) == text.size() ? 0 : 1;
        if (rc) error = "cannot write " + temp;
    } else {
        FILE* in = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
        if (!in) {
            error = "out of memory";
            rc = 1;
        } else {
            rc = ifas(in, out, error);
            std::fclose(in);
        }
    }
    if (std::fclose(out) != 0 && !rc) {
        error = "cannot write " + temp;
        rc = 1;
    }
    if (!rc && std::rename(temp.c_str(), path.c_str()) != 0) {
        error = "cannot create " + path + ": " + std::strerror(errno);
        rc = 1;
    }
    if (rc) std::remove(temp.c_str());
    return rc == 0;
}

}  // namespace

int main(int argc, char** argv) {
    IFCC_OPTIONS options;
    options.include_dir = IFCC_INCLUDE_DIR;
    std::string output;
    bool as_text = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-S") {
            as_text = true;
        } else if (a == "-o" && i + 1 < argc) {
            output = argv[++i];
        } else if ((a == "-I" || a == "-D" || a == "-U") && i + 1 < argc) {
            options.clang_args.push_back(a + argv[++i]);
        } else if (a.size() > 2 && (a.rfind("-I", 0) == 0 || a.rfind("-D", 0) == 0 || a.rfind("-U", 0) == 0)) {
            options.clang_args.push_back(a);
        } else if (a[0] == '-' || !options.input.empty()) {
            return usage(argv[0]);
        } else {
            options.input = a;
        }
    }
    if (options.input.empty()) return usage(argv[0]);
    if (output.empty()) {
        std::string base = options.input;
        size_t dot = base.rfind('.');
        if (dot != std::string::npos && base.find('/', dot) == std::string::npos) base.erase(dot);
        output = base + (as_text ? ".txt" : ".if");
    }
    std::string text, diagnostics;
    if (!ifcc_translate(options, text, diagnostics)) {
        std::fputs(diagnostics.c_str(), stderr);
        return 1;
    }
    std::string error;
    if (!write_output(text, output, as_text, error)) {
        std::fprintf(stderr, "ifcc: %s\n", error.c_str());
        return 1;
    }
    return 0;
}
