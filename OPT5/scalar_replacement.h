// "explode auto structs": a local array or structure the function reaches
// only part by part becomes one variable per part, which the scalar steps
// then treat as any other: values propagate through it, stores nothing
// reads go, and it needs no memory.
//  - Every access of the local must be a direct access `*(&x + c)` at a
//    constant offset inside it, read or written as a scalar; each part is
//    always accessed as the same type, or as integer types of one size
//    (which convert), and parts do not overlap.  A local
//    read or written as a whole, whose address is used otherwise, that is
//    volatile, or of a function with inline assembly or a call of the
//    setjmp family stays in memory.
//  - The parts are named after the local and their offset ("t.4").
// It runs as its own step and again after complete unrolling, which turns
// the indices of small arrays into constants.
#pragma once

// From -o2, on the current function's flow graph.  Returns the number of
// locals replaced; one line of optimisation information per local.
int explode_auto_aggregates();
