// Conditional paths straightened ("CPS"), from -o2.
//  - A conditional jump on `a && b` or `a || b` (or their negations) whose
//    operands test a variable against a constant becomes two jumps, one per
//    operand, evaluated in the same order and only as far as the original
//    would: each test ends a block of its own, so that a path knows what
//    it has tested.
//  - A block that does nothing but jump on `x op c` (x a variable that
//    only assignments naming it change, c a constant) is bypassed by a
//    predecessor on whose path an earlier test of x already decides it: the
//    predecessor goes straight where the test would send it.  The path is
//    followed back through blocks entered from one block only that do not
//    assign x.  Loop heads, back edges and jumps backwards are left alone,
//    so no loop gains a second entry.
#pragma once

// Returns the number of jumps split and paths straightened; one line of
// optimisation information for each straightened path.
int straighten_cond_paths();
