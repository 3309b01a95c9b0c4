// Internal failures: broken invariants and abnormal ends of the run.
#pragma once

// Ends the run after an internal failure: removes the partial output, reports
// on the debug stream and the standard error stream, prints the support
// paragraph and exits with status 1 (or calls abort() under debug:abort).
[[noreturn]] void abort_optimizer();
[[noreturn]] void abort_optimizer(const char* reason);

// A broken invariant.  The condition text, file and line are not shown to
// the user; they identify the check for whoever reads the source.
[[noreturn]] void optassert(const char* condition, const char* file, int line);

// Checks an invariant; the including file defines THIS_MODULE ("OPT5/main").
#define OPT_REQUIRE(cond)                                         \
    do {                                                          \
        if (!(cond)) optassert(#cond, THIS_MODULE, __LINE__);     \
    } while (0)

// Every write to the debug stream is checked the same way; a failed one
// ends the run naming the file and the system's reason (a full disk is not
// a defect of the optimizer).
[[noreturn]] void debug_write_failed(const char* condition, const char* file, int line);
#define DBG_CHECK(stmt)                                                   \
    do {                                                                  \
        if ((stmt) < 0) debug_write_failed(#stmt, THIS_MODULE, __LINE__); \
    } while (0)
#define DBG_FLUSH()                                                                        \
    do {                                                                                   \
        if (std::fflush(FDEBUG) != 0) debug_write_failed("fflush(FDEBUG)", THIS_MODULE, __LINE__); \
    } while (0)

// The callback given to the fatal-signal handler: closes the listings with a
// note naming the signal and removes the partial output.
void optimizer_signal_callback(int sig);
// Installs the fatal-signal handlers with the callback above.
void install_optimizer_signal_handlers(const char* program_name);
