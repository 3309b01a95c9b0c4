// The optimizer's symbols.
#pragma once

#include <string>

#include "IFILE/if_symbol.h"

struct FUNINFO;

struct SYMTAB : I_SYMTAB {
    FUNINFO* funinfo = nullptr;    // a function's information (make_FUNINFO)

    // Printable declaration ("int x", "int f(int)"), the bare name without a type.
    std::string declaration() const;
};
