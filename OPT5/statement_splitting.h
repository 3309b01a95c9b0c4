// Statements split at their comma operators, so that every later step sees
// one effect per statement where the front end wrote a list.
//  - A statement `(a , b)` becomes `a; b;`; a part without effects goes.
//  - Inside a statement, the left operand of the comma operator that runs
//    first becomes a statement of its own in front: `x = f((c = e , &c))`
//    becomes `c = e; x = f(&c)`.  Only when it runs whenever the statement
//    does (not under `&&`, `||` or `?:`) and what the statement evaluates
//    before it cannot tell the difference: constants, addresses, and
//    locals whose address is never taken that it does not assign.
//  - The hoisted part keeps the statement's position.
#pragma once

// From -o1, on the current function's flow graph.  Returns the number of
// parts made statements of their own.
int split_statements_at_commas();
