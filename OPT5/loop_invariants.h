// Loop-invariant code motion.
//  - A computation a loop repeats with the same operands in every iteration
//    (variables the loop does not assign; memory only when the loop stores
//    nothing and calls nothing) is made once, before the loop, into a
//    temporary (inv.N) that the loop reads instead.
//  - Only computations of blocks that run whenever the loop is entered,
//    before it can be left, move: one that would fail (a division by zero,
//    a load from nowhere) failed in the loop's first iteration already.
//  - Constants and addresses of objects stay where they are; computations
//    of one loop identical in shape share a temporary.
//  - Inner loops first: what an inner loop's preheader computes moves out of
//    the loop around it when that loop does not change it either.
#pragma once

// From -o2, on the current function's flow graph.  Returns the number of
// computations moved; one line of optimisation information per loop.
int hoist_loop_invariants();
