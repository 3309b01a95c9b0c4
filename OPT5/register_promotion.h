// Promotion of globals to temporaries over loops ("SSA RP with benign
// loads").
//  - A scalar in a global object that a loop reaches at one known offset
//    as one type only (a variable, an element at a constant index, a
//    member) lives in a temporary while the loop runs: loaded before the
//    loop, stored back on every edge that leaves it when the loop writes
//    it.  Copy propagation and the
//    other scalar steps then see a variable where there were loads and
//    stores.
//  - Nothing else in the loop may reach the object: no access of it at a
//    variable offset, as a whole, overlapping, volatile, or by address; a
//    load or store through a pointer only when no pointer can reach the
//    object; a call only when neither the function nor what it calls names
//    the object, and never a call whose effects are unknown, nor inline
//    assembly.
//  - With `benign_loads` the load before the loop may read what the loop
//    itself might not have read: an object's own storage inside its
//    bounds, which always can be read.  Without, only what the loop's head
//    reads or writes is promoted.
//  - Inner loops first, so that the loads and stores an inner loop leaves
//    in the loop around it are promoted there in turn.  At most a dozen
//    scalars per loop, those accessed most.
//  - Then a read of a scalar of a global, or of a local array or structure
//    whose address serves only its direct accesses, takes the value last
//    stored there,
//    kept in a temporary (`t = e; g = t`), where every way to the read
//    passes a store of it and nothing since may have written it: a call
//    whose effects name it or are unknown, a load or store through a
//    pointer that may reach it, an access of it at a variable offset or
//    overlapping, inline assembly (availability over the flow graph, for
//    up to 64 scalars stored).
//  - Last, a store to such a scalar that every way from it overwrites
//    before anything may read it goes (the function's ends read every
//    global and no local); what its value does besides stays.
//  - Locals are not kept in temporaries over loops: a load in front of a
//    loop could read what was never stored.
#pragma once

// From -o2, on the current function's flow graph.  Returns the number of
// scalars promoted, loads replaced and stores removed; one line of
// optimisation information per loop, one for the loads, one for the stores.
int promote_vars_to_registers(bool benign_loads);
