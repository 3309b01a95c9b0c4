// What every abnormal end of the run must do before the process exits (the
// application removes its partial output here).
#pragma once

using abnormal_exit_cleanup_fn = void (*)();

void set_abnormal_exit_cleanup(abnormal_exit_cleanup_fn fn);
// Runs the installed cleanup, if any; safe to call more than once.
void run_abnormal_exit_cleanup();
