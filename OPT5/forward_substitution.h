// Values computed for one use ("lcse", after the common subexpressions).
//  - An assignment `v = e` to a variable (not one in memory) whose value
//    one later statement of the same block reads once, and nothing after,
//    goes: that statement reads `e` in its place, so the trees the code
//    generator sees are whole and no variable holds the value in between.
//  - Nothing in between may change what `e` reads (its variables; memory,
//    when it reads memory: no store, no call), `e` has no effects of its
//    own, and the statement that reads `v` does nothing else before its
//    own store (no call, no assignment inside it).
//  - At most 16 statements apart, and `e` at most 24 nodes.
#pragma once

// From -o2, on the current function's flow graph.  Returns the number of
// assignments folded into their use.
int substitute_single_uses();
