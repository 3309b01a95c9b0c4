// The machine-description lexer: description text to tokens.
#pragma once

#include <string>
#include <vector>

#include "OPT5/md_token.h"

struct MD_LEXED {
    int line;
    tokentype kind;
    long long aux;
    std::string text;
};

// Lexes the text; on a lexical error returns false with `error` naming the
// line.  The last token is always the end of input.
bool md_lex(const std::string& src, std::vector<MD_LEXED>& toks, std::string& error);
// The tokens as MD_TOKENs that point into `toks` (which must outlive them).
std::vector<MD_TOKEN> md_token_array(const std::vector<MD_LEXED>& toks);
