// The optimizer's symbols.
#pragma once

#include <string>

#include "IFILE/if_symbol.h"

struct FUNINFO;

struct SYMTAB : I_SYMTAB {
    FUNINFO* funinfo = nullptr;    // a function's information (make_FUNINFO)
    // Its index among its function's variables whose liveness is tracked,
    // valid while `lva_numbering` is the function's (lva_index).
    int lva = -1;
    unsigned lva_numbering = 0;

    // Printable declaration ("int x", "int f(int)"), the bare name without a type.
    std::string declaration() const;
};
