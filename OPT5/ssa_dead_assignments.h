// Dead assignments found on the SSA form ("non-DD SSA EDA").
//  - An assignment is needed when a statement that must stay reads its
//    value (a jump, a store, a call, a return, anything with effects), or
//    a needed assignment or phi reads it; the rest are dead, also those
//    that only feed each other around a loop (`x = x * 3 + i` with x read
//    nowhere else), which liveness alone keeps.
//  - Only whole statements assigning an integer variable (not one in
//    memory) whose value has no effects of its own are taken out.
//  - Functions with inline assembly are left alone.
#pragma once

// From -o2, on the current function's flow graph.  Returns the number of
// assignments removed; one line of optimisation information per function.
int eliminate_dead_SSA_assignments();
