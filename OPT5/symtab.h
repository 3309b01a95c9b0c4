// The optimizer's symbols.
#pragma once

#include <string>

#include "IFILE/if_symbol.h"

struct SYMTAB : I_SYMTAB {
    std::string decl;        // printable declaration, e.g. "int f(int)"
    std::string src_file;    // source file of the definition, empty if unknown
    bool is_declaration = false;
    SYMTAB* definition = nullptr;  // for a declaration: the defining symbol
};
