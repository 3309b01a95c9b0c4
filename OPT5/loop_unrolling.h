// Unrolling of counted loops ("DD restructuring").
//  - An innermost loop that is one block tested at its bottom, with a known
//    trip count, gets several copies of its body per test: the tests between
//    the copies would all hold, so they go.  The factor is the largest the
//    unroll-factor limits and the loop's unroll pragma allow that divides the
//    trip count, or a larger one with the iterations it leaves over peeled
//    in front of the loop.
//  - A loop the limits let go completely keeps no test at all.
//  - A loop whose trip count is known only when it runs (a counter stepped
//    by 1 or -1 against a bound the loop keeps, entered only when its test
//    holds) is unrolled by a power of two; a jump on the trip count's
//    remainder runs the iterations left over first, straight-line.
//  - Each copy keeps the counter's step, so what each copy reads is what
//    that iteration read; the induction step later turns the counter's
//    addresses into pointers stepped with it.
#pragma once

// From -o2, with a size/speed goal that favours speed, on the current
// function's flow graph.  Returns the number of loops unrolled, with one
// line of optimisation information each.
int unroll_loops();
