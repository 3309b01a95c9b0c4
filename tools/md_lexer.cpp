// Comments run from "//" to the end of the line.  Words are keywords or
// identifiers (letters, digits, '_'); numbers are decimal or 0x hexadecimal
// integers, or floating constants with a '.' or an exponent; strings are in
// double quotes with C escapes.
#include "tools/md_lexer.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

bool md_lex(const std::string& src, std::vector<MD_LEXED>& toks, std::string& error) {
    toks.clear();
    int line = 1;
    size_t i = 0;
    auto fail = [&](const std::string& what) {
        error = "line " + std::to_string(line) + ": " + what;
        return false;
    };
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
            while (j < src.size() && (hex ? std::isxdigit(static_cast<unsigned char>(src[j]))
                                          : std::isdigit(static_cast<unsigned char>(src[j]))))
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
                return fail("malformed number '" + w + src[j] + "'");
            long long v = floating ? 0 : std::strtoll(w.c_str(), nullptr, 0);
            toks.push_back({line, floating ? T_FLOAT : T_INT, v, w});
            i = j;
            continue;
        }
        if (c == '"') {
            std::string s;
            size_t j = i + 1;
            for (; j < src.size() && src[j] != '"'; ++j) {
                if (src[j] == '\n') return fail("string not closed on its line");
                if (src[j] == '\\' && j + 1 < src.size()) {
                    char e = src[++j];
                    s += e == 'n' ? '\n' : e == 't' ? '\t' : e;
                } else {
                    s += src[j];
                }
            }
            if (j >= src.size()) return fail("string not closed");
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
        if (best == T_NONE) return fail(std::string("unexpected character '") + c + "'");
        toks.push_back({line, best, 0, ""});
        i += best_len;
    }
    toks.push_back({line, T_END, 0, ""});
    return true;
}

std::vector<MD_TOKEN> md_token_array(const std::vector<MD_LEXED>& toks) {
    std::vector<MD_TOKEN> out;
    for (const MD_LEXED& t : toks) out.push_back({t.line, t.kind, t.aux, t.text.c_str()});
    return out;
}
