// What every abnormal end of the run must do before the process exits.
//
// The files a run creates and must not leave behind are registered here.
// Their paths are copied into storage of this module when registered, so
// that a signal handler can remove them with unlink alone, which is safe in
// a handler; nothing else is ever removed.
#pragma once

using abnormal_exit_cleanup_fn = void (*)();

// The application's own cleanup (closing its streams), run by
// run_abnormal_exit_cleanup outside signal handlers.
void set_abnormal_exit_cleanup(abnormal_exit_cleanup_fn fn);
// Runs the installed cleanup, if any, then removes the registered files;
// safe to call more than once.
void run_abnormal_exit_cleanup();

// A file could not be written (a full disk, say): the user's trouble, not a
// defect.  Prints "\n>> Cannot write the WHAT NAME : REASON, Aborting\n",
// runs the abnormal-exit cleanup and exits with status 1.
[[noreturn]] void write_failure_exit(const char* what, const char* name, int error);

// A file this run created; false when the path is too long to keep or the
// registry is full (the caller must not go on then).
bool register_temporary_file(const char* path);
// The file is no longer ours to remove (it was renamed into place).
void forget_temporary_file(const char* path);
// Unlinks every registered file and forgets it.  Async-signal-safe.
void remove_temporary_files();
