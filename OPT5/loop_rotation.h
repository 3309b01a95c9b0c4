// Loop rotation.  A loop tested at its top,
//     L: if (!c) goto X;  body;  goto L;  X:
// becomes one tested at its bottom,
//     if (!c) goto X;  B: body;  if (c) goto B;  X:
// so that an iteration no longer pays for the jump back.  The test is
// copied only when it has no side effects and is small; the number of times
// it is evaluated does not change.
#pragma once

// Rotates the loops of the current function (from -o2); one line of
// optimisation information per loop.  Returns the number of loops rotated.
int rotate_loops();
