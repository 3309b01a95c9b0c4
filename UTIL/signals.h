// Handlers for the fatal signals.
#pragma once

using signal_handler_fn = void (*)(int);
using signal_callback_fn = void (*)(int);

// Stores the callback and installs the handler for signals 4, 6, 8, 11, 15,
// 2, 1, 5, 7, 31, 24 and 25.
void install_common_handlers(signal_handler_fn handler, signal_callback_fn callback);

// The standard handler: reports the signal on the standard error stream,
// calls the stored callback and ends the process with status 2.
void common_signal_handler(int sig);
// Only re-installs itself for the signal.
void debug_signal_handler(int sig);
// Core files are not produced on purpose; does nothing.
void try_gen_corefile(int sig);

const char* signal_name(int sig);          // "SIGSEGV", or "<unknown>"
const char* signal_description(int sig);   // "experienced a segmentation fault", ...

// Where the handler finds the names it prints.  Each may be null; pointers
// that look corrupt are not followed.
extern const char* volatile signal_program_name;
extern const char* (*signal_function_name_fn)();
extern const char* (*signal_file_name_fn)();

