// Induction variables of innermost loops, and the increments of pointers.
//  - An address that moves with a loop's counter by the same amount in every
//    iteration (a[i], x + 2*i + k) is kept in a pointer of its own, set
//    before the loop and stepped right after the counter.
//  - A counter that is then only stepped and tested, and is dead after the
//    loop, goes: the loop tests one of its pointers against the address the
//    counter's bound gives instead.
//  - A pointer stepped by a constant after its last access in a block is
//    stepped by that access instead (a post-increment, which the target's
//    addressing does for free).
#pragma once

// From -o2, on the current function's flow graph.  Each returns the number
// of changes and writes one line of optimisation information per change.
int reduce_address_induction();
int fold_post_increments();
