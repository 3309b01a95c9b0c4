// What the unit does with its globals ("analyze globals", a barrier step),
// read from every defined function's statements and every initializer.
//  - A global is internal when no other unit can name it: a static object
//    or function (the symbol's value C is 1).
//  - An object's address escapes when it is used other than to read or
//    write the object itself (`*(&g + offset)` included): stored, passed,
//    compared, or named by an initializer.  A function escapes when it is
//    named other than as the target of a call.  Inline assembly anywhere
//    makes every address escape.
//  - An internal object whose address does not escape, that nothing writes
//    and that is never accessed as volatile keeps its initial value: from
//    -o2 (the reading function's level) its reads at known offsets become
//    that value.  An internal object without an initializer starts as
//    zeros.  One line of optimisation information per function and object.
#pragma once

#include "OPT5/object_access.h"
#include "UTIL/ptr_map.h"

struct SYMTAB;
struct NODE;


// How the unit uses one global.
struct global_use {
    bool escapes = false;
    bool read = false;
    bool written = false;
    bool volatile_access = false;
    int calls = 0;                       // functions: the calls naming it
    const SYMTAB* writer = nullptr;      // the function that writes it, while there is one
    bool several_writers = false;
};

struct unit_uses {
    ptr_map<const SYMTAB*, global_use> of;  // globals named anywhere
    bool assembly = false;                  // inline assembly somewhere: any address may be known

    // Whether no other unit, and nothing in this one but direct accesses
    // and calls, can reach the symbol.
    bool is_private(const SYMTAB* sym) const;
};

// From every defined function's summary (function_summary.h) and every
// initializer.
unit_uses scan_unit_uses();
// Adds what one statement of the function `fn` does with the globals.
void scan_function_tree(const NODE* root, const SYMTAB* fn, unit_uses& u);

// Whether no other unit can name the global.
bool is_internal(const SYMTAB* sym);

// "analyze globals".  Returns the number of reads replaced.
int analyze_global_symbols();
