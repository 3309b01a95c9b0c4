// Dumps of the current function in the debug listing, before and after
// each step, as the dump_ switches ask (see docs/options.md).
#pragma once

// Whether any dump is asked for (and the debug listing is on).
bool dumps_wanted();
// Prints the current function's blocks, if it has a flow graph; `when` is
// "before" or "after" the step `serial` named `step`.
void prbbinfix(const char* when, int serial, const char* step);
