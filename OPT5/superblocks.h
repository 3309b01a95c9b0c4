// Code placement along the paths of a branch ("superblocks").
//  - An assignment made just before a branch whose value only some of the
//    branch's successors read (partially dead) moves into those successors:
//    the paths that never read it no longer pay for it.  The value must be
//    the same there (nothing after it in the block changes what it reads,
//    and it reads no memory), and a successor entered from elsewhere too
//    gets a block of its own on the edge.  It moves only when the paths
//    spared outnumber the jumps such blocks add.
//  - Repeated until nothing moves, so that an assignment sinks through a
//    chain of branches to the paths that read it.
#pragma once

// From -o2, on the current function's flow graph.  Returns the number of
// assignments moved; one line of optimisation information per assignment.
int sink_partially_dead_assignments();
