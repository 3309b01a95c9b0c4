// "stack sharing": locals kept in memory share storage when their contents
// are never needed at the same time.
//  - Candidates are the current function's locals that live in memory
//    (arrays, structures, locals whose address is taken), not volatile,
//    reached only by direct accesses: `*(&x + offset)` with any offset, and
//    reads and writes of the whole object.  A local whose address is kept,
//    passed or compared anywhere keeps storage of its own, and so does
//    every local of a function with inline assembly, exception tables or a
//    call of the setjmp family.  A local reached only at known offsets is
//    left to "explode auto structs", which makes variables of its parts.
//  - A candidate is in use from the first access to it that may have run
//    to the last read of it that may still come.  Two candidates whose uses
//    never overlap (nor meet in one statement) can share.
//  - The largest candidates choose first; a smaller one joins an object at
//    least as large and as aligned as itself, of its own type or, for an
//    array, with elements of its own type (so that every offset of the
//    object is still read as one type).  Locals of the same type are
//    renamed; arrays of another length are reached through the shared
//    object's address converted to their own pointer type.
// Inlined copies of one callee already share their locals; this lets the
// copies of different callees and the caller's own locals share too.
#pragma once

// From -o2, on the current function's flow graph.  Returns the number of
// locals that lost their own storage; one line of optimisation information
// per function that changed.
int share_stack_storage();
