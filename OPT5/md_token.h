// Tokens of the machine-description language.  The description text is
// lexed when the optimizer is built (tools/mdlex.cpp); the optimizer carries
// the tokens as an array and parses that.
#pragma once

#include <cstdint>
#include <cstring>

enum tokentype : int32_t {
    T_NONE = 0,
    T_END,  // end of input
    // Literals.
    T_IDENT,
    T_INT,
    T_FLOAT,
    T_STRING,
    // Punctuation.
    T_LPAREN,
    T_RPAREN,
    T_COLON,
    T_LBRACKET,
    T_RBRACKET,
    T_LBRACE,
    T_RBRACE,
    T_DOT,
    T_DOTDOT,
    T_AMP,
    T_MINUS,
    T_BANG,
    T_ANDAND,
    T_OROR,
    T_LT,
    T_GT,
    T_LE,
    T_GE,
    T_EQ,
    T_NE,
    T_DOLLAR,  // $n: a later occurrence of the subtree labelled n
    // Keywords.
    T_OPTIMIZER,
    T_MACHINE,
    T_DESCRIPTION,
    T_TARGETS,
    T_ENDIAN,
    T_LITTLE,
    T_BIG,
    T_FUNCTIONAL,
    T_UNITS,
    T_DERIVED,
    T_DEFAULT,
    T_COST,
    T_LATENCY,
    T_SPACE,
    T_ICODE,
    T_ICALL,
    T_MCALL,
    T_OP,
    T_XOP,
    T_IS,
    T_HOLDS,
    T_FUNITS,
    T_FOR,
    T_ALL,
    T_WHEN,
    T_GIVEN,
    T_SIMPLIFY,
    T_SIMD,
    T_COMBINE,
    T_AS,
    T_WITH,
    T_HOIST,
    T_SINK,
    T_REDUCE,
    T_ASSIGN,  // "=" of the printed HOLDS form
    // Lexical classes recognised by the token's text (getToken(k) only).
    T_PARMNAME,
    T_SSVNAME,
    T_TREP,
    T_PCFUNCTION,
    T_GIVENFUNCTION,
    T_RELOP,
    T_LABEL,
};

// One element of a compiled-in token array.
struct MD_TOKEN {
    int32_t line;
    tokentype kind;
    int64_t aux;       // the value of an integer
    const char* text;  // identifiers, numbers and strings; "" for the rest
};

// Spelling of keywords and punctuation (the lexer's table and the printer's).
struct MD_SPELLING {
    tokentype kind;
    const char* text;
};
inline constexpr MD_SPELLING md_spellings[] = {
    {T_LPAREN, "("},      {T_RPAREN, ")"},          {T_COLON, ":"},       {T_LBRACKET, "["},
    {T_RBRACKET, "]"},    {T_LBRACE, "{"},          {T_RBRACE, "}"},      {T_DOTDOT, ".."},
    {T_DOT, "."},         {T_ANDAND, "&&"},         {T_AMP, "&"},         {T_MINUS, "-"},
    {T_NE, "!="}, {T_DOLLAR, "$"},         {T_BANG, "!"},            {T_OROR, "||"},       {T_LE, "<="},
    {T_GE, ">="},         {T_LT, "<"},              {T_GT, ">"},          {T_EQ, "=="},
    {T_OPTIMIZER, "OPTIMIZER"}, {T_MACHINE, "MACHINE"}, {T_DESCRIPTION, "DESCRIPTION"},
    {T_TARGETS, "TARGETS"}, {T_ENDIAN, "ENDIAN"},   {T_LITTLE, "LITTLE"}, {T_BIG, "BIG"},
    {T_FUNCTIONAL, "FUNCTIONAL"}, {T_UNITS, "UNITS"}, {T_DERIVED, "DERIVED"}, {T_DEFAULT, "DEFAULT"},
    {T_COST, "COST"},     {T_LATENCY, "LATENCY"},   {T_SPACE, "SPACE"},   {T_ICODE, "ICODE"},
    {T_ICALL, "ICALL"},   {T_MCALL, "MCALL"},       {T_OP, "OP"},         {T_XOP, "XOP"},
    {T_IS, "IS"},         {T_HOLDS, "HOLDS"},       {T_FUNITS, "FUNITS"}, {T_FOR, "FOR"},
    {T_ALL, "ALL"},       {T_WHEN, "WHEN"},         {T_GIVEN, "GIVEN"},   {T_SIMPLIFY, "SIMPLIFY"},
    {T_SIMD, "SIMD"},     {T_COMBINE, "COMBINE"},   {T_AS, "AS"},         {T_WITH, "WITH"},
    {T_HOIST, "HOIST"},   {T_SINK, "SINK"},         {T_REDUCE, "REDUCE"},
    {T_ASSIGN, "="},
};

inline const char* md_spelling(tokentype k) {
    for (const MD_SPELLING& s : md_spellings)
        if (s.kind == k) return s.text;
    return nullptr;
}

inline tokentype md_keyword(const char* word) {
    for (const MD_SPELLING& s : md_spellings)
        if (std::strcmp(s.text, word) == 0) return s.kind;
    return T_NONE;
}
