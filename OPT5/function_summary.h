// What the barrier steps learn from reading a defined function: whom it
// calls, what it does with the globals and what it does to memory.  One
// reading answers all three; the answer is kept with the function until
// its body is packed again, so that a barrier step after the first reads
// only the functions an earlier one changed.
#pragma once

#include <utility>
#include <vector>

#include "OPT5/call_effects.h"
#include "OPT5/global_symbols.h"

struct SYMTAB;

struct function_summary {
    // Every function called by name, in the order of first call.
    std::vector<SYMTAB*> called;
    // Its own uses of the globals it names (the writer is itself), and
    // whether it holds inline assembly.
    std::vector<std::pair<const SYMTAB*, global_use>> globals;
    bool assembly = false;
    // What it does to memory but through calls of defined functions, and
    // those calls, as add_tree_effects lists them.
    memory_effects effects;
    std::vector<const SYMTAB*> effect_callees;
};

// The summary of a defined function, read now or kept from before; the
// reference holds until the function is changed or summarized again.
const function_summary& summary_of(SYMTAB* fn);
