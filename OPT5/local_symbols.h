// "late rename symbols": the current function's declarations once the
// scalar steps are done with it.
//  - A local that no statement names any more (copies of inlined
//    parameters, variables whose every use was propagated away, locals that
//    took another's storage) is no longer declared; the symbols left are
//    numbered again in order.
//  - The temporaries the steps made are named after the order in which the
//    function first names them, each kind counted from 1 ("cse.1",
//    "inv.1", "i.p1"): the names no longer tell how many temporaries
//    earlier steps made and dropped, so they stay the same while the code
//    does.
#pragma once

// From -o2, on the current function's flow graph or, as it is written, its
// statements (the steps after this one make temporaries and leave locals
// unused too).  Returns the number of locals dropped; one line of
// optimisation information when any is.
int rename_late_symbols();
