// Symbols as the driver sees them.  The I-file reader creates one per
// function of the unit; the fields here are those the driver and the
// diagnostics need.
#pragma once

#include <string>

struct SYMTAB {
    std::string name;
    std::string decl;        // printable declaration, e.g. "int f(int)"
    std::string src_file;    // source file of the definition, empty if unknown
    bool is_declaration = false;
    SYMTAB* definition = nullptr;  // for a declaration: the defining symbol
};
