// Unrolling of counted loops ("DD restructuring").
//  - An innermost loop that is one block tested at its bottom, with a known
//    trip count, gets several copies of its body per test: the tests between
//    the copies would all hold, so they go.  The factor divides the trip
//    count and is the largest the unroll-factor limits and the loop's unroll
//    pragma allow.
//  - A loop the limits let go completely keeps no test at all.
//  - Each copy keeps the counter's step, so what each copy reads is what
//    that iteration read; the induction step later turns the counter's
//    addresses into pointers stepped with it.
#pragma once

// From -o2, with a size/speed goal that favours speed, on the current
// function's flow graph.  Returns the number of loops unrolled, with one
// line of optimisation information each.
int unroll_loops();
