// Automatic inlining ("auto_inline_call_sites"), a barrier step.
//  - A call of a function defined in the unit is replaced by a copy of the
//    callee's body when the call is a statement of its own, the value of an
//    assignment to a variable, or the value returned (through conversions):
//    the arguments go to fresh locals in order, each return becomes an
//    assignment to a fresh local and a jump to the end of the copy.
//  - Functions are visited callees first, so that a callee's own calls have
//    been inlined before it is copied; no function on a cycle of calls is
//    ever copied, so the copies end.
//  - Never copied: variadic functions, aggregate parameters or return values,
//    functions with exception tables, inline assembly, pragmas in the body
//    or edge profiles, and the functions of the setjmp family and alloca are
//    never called from a copy.  A caller with exception tables is left alone.
//  - The cost model: from -o2 (the caller's level), a callee is copied when
//    its size in nodes is within the limit its caller's size/speed goal sets
//    (doubled at -o3; at goal 0 no larger than the call itself) or it is
//    marked always-inline, and as long as the caller's growth stays within
//    its budget.  "debug:inline_small_limit=N" sets the limit,
//    "debug:inline_n=N" stops after N copies, "disable:newinline" turns the
//    step off.
#pragma once

// Returns the number of calls replaced; one line of optimisation
// information each.
int auto_inline_call_sites();
