// Functions that wait while others are read or worked on are parked: their
// statements and trees are packed into bytes (a few per node) and the trees
// are erased, so that a whole unit takes little more memory than its I-file
// between the barrier steps.  Unparking makes the same trees and statements
// again and builds the flow graph from them; parking a function that has one
// first turns its blocks back into statements, as rebuildcfg does.
#pragma once

#include <vector>

struct BODY_ENTRY;

// Both act on the current function (`currfuninfo`).
void park_function();
void unpark_function();
// Gives an empty statement list the storage of the last parked one.
void take_spare_body(std::vector<BODY_ENTRY>& body);
