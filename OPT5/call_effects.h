// What a call may do to the unit's globals, worked out at "set call-graph
// order" (from -o2) from every defined function and what it calls.
//  - A defined function's effects are the globals it and its callees name
//    (any access, any role), and whether they load or store through
//    pointers.
//  - A call through a pointer, inline assembly, or a call of a function
//    defined elsewhere that may call back into the unit makes the effects
//    unknown.  The C library's functions that call nothing back (printf,
//    memcpy and their like) count as reaching memory through their pointer
//    arguments only.
//  - A global is reached only directly when no other unit can name it and
//    its address never leaves a direct access: no pointer can reach it.
//  - Until the step has run (and below -o2) every call is unknown and no
//    global is reached only directly.
#pragma once

#include <vector>

#include "OPT5/call_graph.h"
#include "OPT5/global_symbols.h"

struct memory_effects {
    std::vector<const SYMTAB*> globals;  // named, sorted by address
    bool through_pointers = false;       // loads or stores through pointers
    bool unknown = false;                // anything at all

    bool names(const SYMTAB* g) const;
    void add(const SYMTAB* g);
    void merge(const memory_effects& o);
};

// Adds what a tree does to memory beyond its direct accesses, with the
// globals it names.  Calls of defined functions go to `callees` when it is
// given, else their effects are added.  A function counts as defined when
// its effects have been worked out, or, with `any_defined`, when its body
// has been read.
void add_tree_effects(const NODE* root, memory_effects& fx, std::vector<const SYMTAB*>* callees = nullptr,
                      bool any_defined = false);

// Works the effects out for the graph's functions.
void compute_call_effects(const call_graph& g, const unit_uses& u);
// Forgets them (a new unit).
void clear_call_effects();

// The effects of a call node, and of a call of a function by name
// (unknown ones included).
const memory_effects& effects_of_call(const NODE* call);
const memory_effects& effects_of_function(const SYMTAB* fn);

// Whether only direct accesses `g`, `*(&g + offset)` can reach the global.
bool reached_only_directly(const SYMTAB* g);
