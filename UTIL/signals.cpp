#include "UTIL/signals.h"

#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "UTIL/cleanup.h"
#include "UTIL/support.h"

const char* volatile signal_program_name = nullptr;
const char* (*signal_function_name_fn)() = nullptr;
const char* (*signal_file_name_fn)() = nullptr;

namespace {
signal_callback_fn stored_callback = nullptr;

// Names read from global state while crashing are only trusted when they
// look like real addresses.
const char* plausible(const char* p, const char* fallback) {
    return (p && reinterpret_cast<uintptr_t>(p) > 100000) ? p : fallback;
}
}  // namespace

const char* signal_name(int sig) {
    switch (sig) {
    case 1: return "SIGHUP";
    case 2: return "SIGINT";
    case 4: return "SIGILL";
    case 5: return "SIGTRAP";
    case 6: return "SIGABRT";
    case 7: return "SIGBUS";
    case 8: return "SIGFPE";
    case 10: return "SIGUSR1";
    case 11: return "SIGSEGV";
    case 12: return "SIGUSR2";
    case 15: return "SIGTERM";
    case 23: return "SIGURG";
    case 24: return "SIGXCPU";
    case 25: return "SIGXFSZ";
    case 31: return "SIGSYS";
    default: return "<unknown>";
    }
}

const char* signal_description(int sig) {
    switch (sig) {
    case 4: return "executed an illegal instruction";
    case 5: return "received a TRAP signal";
    case 6: return "had an internal inconsistency and aborted";
    case 7: return "experienced a bus alignment fault";
    case 8: return "received a floating point exception";
    case 11: return "experienced a segmentation fault";
    case 24: return "exceeded the CPU time limit";
    case 25: return "exceeded the file size limit";
    case 31: return "experienced a bad system call";
    default: return "experienced a fatal internal fault";
    }
}

namespace {
// The handlers run on a stack of their own, so that even an overflow of the
// machine stack ends with its message.
alignas(16) char alternate_stack[64 * 1024];
}  // namespace

void install_common_handlers(signal_handler_fn handler, signal_callback_fn callback) {
    stored_callback = callback;
    stack_t ss{};
    ss.ss_sp = alternate_stack;
    ss.ss_size = sizeof alternate_stack;
    sigaltstack(&ss, nullptr);
    struct sigaction sa {};
    sa.sa_handler = handler;
    sa.sa_flags = SA_ONSTACK;
    sigfillset(&sa.sa_mask);  // one handler at a time
    for (int sig : {4, 6, 8, 11, 15, 2, 1, 5, 7, 31, 24, 25}) sigaction(sig, &sa, nullptr);
}

void common_signal_handler(int sig) {
    const char* prog = plausible(signal_program_name, "unknown");
    if (sig == 1 || sig == 2 || sig == 15) {
        write_to_stderr("[");
        write_to_stderr(prog);
        write_to_stderr(sig == 15 ? " received a terminate signal]\n" : " forced exit]\n");
        remove_temporary_files();
        _exit(2);
    }
    const char* func = plausible(signal_function_name_fn ? signal_function_name_fn() : nullptr, "<unknown>");
    const char* file = plausible(signal_file_name_fn ? signal_file_name_fn() : nullptr, "<unknown>");
    write_to_stderr("\nINTERNAL ERROR: ");
    write_to_stderr(prog);
    write_to_stderr(" ");
    write_to_stderr(signal_description(sig));
    write_to_stderr("\n                  while processing function ");
    write_to_stderr(func);
    write_to_stderr(" file ");
    write_to_stderr(file);
    write_to_stderr("\n\n");
    // The partial output goes before anything that might fail in a broken
    // process.
    remove_temporary_files();
    print_support_message();
    if (stored_callback) stored_callback(sig);
    _exit(2);
}

void debug_signal_handler(int sig) { std::signal(sig, debug_signal_handler); }

void try_gen_corefile(int) {}
