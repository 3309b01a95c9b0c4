// Constants across calls ("do_interprocedural_propagation", a barrier
// step), for the functions only this unit calls, and only directly (a
// static function whose name goes nowhere but to its calls):
//  - A scalar parameter that every call passes the same constant is
//    assigned that constant on entry to the function, where copy
//    propagation then folds it.
//  - A function every return of which gives the same constant has that
//    constant used for its value where a call is the whole value of an
//    assignment to a variable or of a return: the call becomes a statement
//    of its own before it.
// Both from -o2, the level of the function changed; one line of
// optimisation information each.
#pragma once

// Returns the number of parameters and calls changed.
int do_interprocedural_propagation();
