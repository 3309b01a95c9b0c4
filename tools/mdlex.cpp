// mdlex: lexes a machine description into the C++ source of a token array.
//
//   mdlex description.md array_name output.cpp
//
// Comments run from "//" to the end of the line.  Words are keywords or
// identifiers (letters, digits, '_'); numbers are decimal or 0x hexadecimal
// integers, or floating constants with a '.' or an exponent; strings are in
// double quotes with C escapes.  A lexical error names the line and ends with
// status 1, and no output is left behind.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "OPT5/md_token.h"

namespace {

struct Tok {
    int line;
    tokentype kind;
    long long aux;
    std::string text;
};

[[noreturn]] void fail(const char* file, int line, const std::string& what) {
    std::fprintf(stderr, "%s:%d: %s\n", file, line, what.c_str());
    std::exit(1);
}

std::string c_string(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 32 || c > 126) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\%03o", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: mdlex description.md array_name output.cpp\n");
        return 2;
    }
    const char* file = argv[1];
    std::ifstream in(file, std::ios::binary);
    if (!in) fail(file, 0, "cannot read the description");
    std::stringstream ss;
    ss << in.rdbuf();
    std::string src = ss.str();
    std::vector<Tok> toks;
    int line = 1;
    size_t i = 0;
    while (i < src.size()) {
        char c = src[i];
        if (c == '\n') {
            ++line;
            ++i;
            continue;
        }
        if (std::isspace(static_cast<unsigned char>(c))) {
            ++i;
            continue;
        }
        if (c == '/' && i + 1 < src.size() && src[i + 1] == '/') {
            while (i < src.size() && src[i] != '\n') ++i;
            continue;
        }
        if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
            size_t j = i;
            while (j < src.size() && (std::isalnum(static_cast<unsigned char>(src[j])) || src[j] == '_')) ++j;
            std::string w = src.substr(i, j - i);
            tokentype k = md_keyword(w.c_str());
            toks.push_back({line, k == T_NONE ? T_IDENT : k, 0, k == T_NONE ? w : ""});
            i = j;
            continue;
        }
        if (std::isdigit(static_cast<unsigned char>(c))) {
            size_t j = i;
            bool hex = c == '0' && i + 1 < src.size() && (src[i + 1] == 'x' || src[i + 1] == 'X');
            if (hex) j += 2;
            while (j < src.size() && std::isxdigit(static_cast<unsigned char>(src[j])) &&
                   (hex || std::isdigit(static_cast<unsigned char>(src[j]))))
                ++j;
            bool floating = false;
            // "1..4" is a range, not a floating constant.
            if (!hex && j < src.size() && src[j] == '.' && !(j + 1 < src.size() && src[j + 1] == '.')) {
                floating = true;
                ++j;
                while (j < src.size() && std::isdigit(static_cast<unsigned char>(src[j]))) ++j;
            }
            if (!hex && j < src.size() && (src[j] == 'e' || src[j] == 'E')) {
                floating = true;
                ++j;
                if (j < src.size() && (src[j] == '+' || src[j] == '-')) ++j;
                while (j < src.size() && std::isdigit(static_cast<unsigned char>(src[j]))) ++j;
            }
            std::string w = src.substr(i, j - i);
            if (j < src.size() && (std::isalpha(static_cast<unsigned char>(src[j])) || src[j] == '_'))
                fail(file, line, "malformed number '" + w + src[j] + "'");
            long long v = floating ? 0 : std::strtoll(w.c_str(), nullptr, 0);
            toks.push_back({line, floating ? T_FLOAT : T_INT, v, w});
            i = j;
            continue;
        }
        if (c == '"') {
            std::string s;
            size_t j = i + 1;
            for (; j < src.size() && src[j] != '"'; ++j) {
                if (src[j] == '\n') fail(file, line, "string not closed on its line");
                if (src[j] == '\\' && j + 1 < src.size()) {
                    char e = src[++j];
                    s += e == 'n' ? '\n' : e == 't' ? '\t' : e;
                } else {
                    s += src[j];
                }
            }
            if (j >= src.size()) fail(file, line, "string not closed");
            toks.push_back({line, T_STRING, 0, s});
            i = j + 1;
            continue;
        }
        // Punctuation: the longest spelling that matches.
        tokentype best = T_NONE;
        size_t best_len = 0;
        for (const MD_SPELLING& sp : md_spellings) {
            size_t n = std::strlen(sp.text);
            if (std::isalpha(static_cast<unsigned char>(sp.text[0]))) continue;
            if (n > best_len && src.compare(i, n, sp.text) == 0) {
                best = sp.kind;
                best_len = n;
            }
        }
        if (best == T_NONE) fail(file, line, std::string("unexpected character '") + c + "'");
        toks.push_back({line, best, 0, ""});
        i += best_len;
    }
    toks.push_back({line, T_END, 0, ""});

    std::string out = "// Generated by mdlex from " + std::string(file) + "; do not edit.\n#include \"OPT5/md_token.h\"\n\n";
    out += "extern const MD_TOKEN " + std::string(argv[2]) + "[];\n";
    out += "const MD_TOKEN " + std::string(argv[2]) + "[] = {\n";
    for (const Tok& t : toks)
        out += "    {" + std::to_string(t.line) + ", (tokentype)" + std::to_string(t.kind) + ", " + std::to_string(t.aux) +
               "LL, " + c_string(t.text) + "},\n";
    out += "};\n";
    std::string tmp = std::string(argv[3]) + ".tmp";
    FILE* f = std::fopen(tmp.c_str(), "wb");
    if (!f || std::fwrite(out.data(), 1, out.size(), f) != out.size() || std::fclose(f) != 0) {
        std::remove(tmp.c_str());
        fail(argv[3], 0, "cannot write the output");
    }
    if (std::rename(tmp.c_str(), argv[3]) != 0) {
        std::remove(tmp.c_str());
        fail(argv[3], 0, "cannot write the output");
    }
    return 0;
}
