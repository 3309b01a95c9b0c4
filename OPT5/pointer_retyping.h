// Pointer variables read only through one pointer conversion.
//  - A local pointer (not an argument, its address not taken) whose every
//    read is converted to the same pointer type T (a struct pointer whose
//    fields are all of one type, or the stepped pointer the induction step
//    made from one) takes the type T: the conversions go from the reads, and
//    each assignment of another value converts it once instead.
//  - Steps (p += c, p++) keep their meaning: pointers step in addressable
//    units whatever they point to.
//  - Variables copied into one another or compared with one another change
//    together, or none of them does.
#pragma once

// On the current function's flow graph, from -o2.  Returns the number of
// variables retyped, with a line of optimisation information each.
int retype_converted_pointers();
