// Loop fusion ("DD restructuring", before invariants leave their loops and
// loops are unrolled).
//  Two innermost loops of one level, the second entered only from the end of
//  the first, each one block tested at its bottom, become one loop doing both
//  bodies per iteration, the first body first, when:
//   - their trip counts are the same constant, and their counters start at
//     the same constant and are stepped alike, once each, just before the
//     test;
//   - what lies between them only starts the second's counter (or variables
//     the first loop never names), and goes in front of the first loop;
//   - no variable one loop assigns is named by the other, counters aside;
//   - every memory access of either is an element of an array named by its
//     address (or of a row of one that neither loop moves), at the loop's
//     counter plus a constant; where both loops reach one array and one of
//     them stores, both start from the same row and each element is reached
//     by the first body no later in the fused loop than by the second, as
//     before;
//   - both carry the same loop pragmas, and the fused body stays small.
//  Each try is traced on the debug stream; each fusion gives a line of
//  optimisation information.
#pragma once

// From -o2, on the current function's flow graph (which it rebuilds when it
// fuses), at every level of the loop nest.  Returns the number of fusions.
int fuse_loops();
