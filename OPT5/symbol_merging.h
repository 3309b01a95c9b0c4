// "merge symbols": variables joined by copies become one variable.
//  - Candidates are the current function's variables that only assignments
//    naming them can change (locals and arguments, scalar, not vectors, not
//    volatile, address never taken) and that a copy `a = b` joins to
//    another of exactly the same type.
//  - Two candidates interfere when one is assigned where the other is live
//    after the assignment; a copy `a = b` does not make a and b interfere
//    (they hold the same value there).  An assignment inside a statement
//    that assigns more than once, or not at its root, interferes with what
//    the statement reads too.  The arguments are assigned at the entry,
//    where every candidate then live interferes with every other one.
//  - Copies are taken innermost loop first; the two sides' groups join
//    when no member of one interferes with a member of the other, and at
//    most one of them is an argument or a variable of the source (the rest
//    are the steps' temporaries and inlined functions' locals, whose names
//    hold a '.'), so that every variable a debugger shows keeps its name.
//  - A group takes the name of its argument or source variable, else of
//    its first member; the copies inside it are `x = x` then and go.
//  - Functions with inline assembly are left alone.
#pragma once

// From -o2, on the current function's flow graph.  Returns the number of
// copies removed; one line of optimisation information when any is.
int merge_symbols();
