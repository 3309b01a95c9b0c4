// Common subexpressions ("global CSE", "lcse").
//  - After `x = e`, where x is a variable only assignments naming it can
//    change, a later e in the same block reads x instead, as long as
//    nothing in between may change x or what e reads.
//  - What may change what e reads: an assignment to a variable it reads; a
//    store to memory that may overlap memory it loads (two distinct objects,
//    or one base at two offsets whose extents are apart, never overlap); a
//    call or anything else of unknown effect, when e reads memory.
//  - With `extended`, a block entered only from one other block starts with
//    what that block ended with (its extended block), and a join starts
//    with what its immediate dominator ended with, less what any block on
//    the ways from the dominator to the join (a loop's body, for a loop's
//    head) may change.
//  - Nothing volatile, no call and no assignment is ever taken as e; a
//    statement with an embedded assignment, or with a call before a use,
//    is left as it is.
#pragma once

// From -o2, on the current function's flow graph.  Returns the number of
// expressions replaced, with one line of optimisation information per
// statement changed.
int eliminate_common_subexpressions(bool extended);
