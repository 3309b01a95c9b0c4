// Copy propagation over the flow graph ("global CP", "lcp").
//
// After a copy "x = y" between two private variables of one type (locals
// whose address is never taken, not volatile), a read of x that every path
// reaches with the copy still in force (neither x nor y assigned since)
// reads y instead.  After "x = c" with a constant c the read becomes c and
// the statement is simplified (a test so decided leaves the flow graph);
// after "x = &v" with v a scalar variable, *x becomes v.  The copy itself
// stays: dead-assignment elimination removes it once nothing reads x.
#pragma once

// `global`: copies reach across blocks (the available-copies data flow);
// otherwise only to the end of their own block.  Returns the number of reads
// rewritten.
int copyprop(int global);
