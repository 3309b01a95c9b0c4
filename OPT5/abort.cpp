#include "OPT5/abort.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/globals.h"
#include "OPT5/symtab.h"
#include "UTIL/assert.h"
#include "UTIL/cleanup.h"
#include "UTIL/signals.h"
#include "UTIL/support.h"

namespace {
std::atomic<bool> aborting{false};

const char* current_function_name() { return currfunc ? currfunc->name.c_str() : nullptr; }
const char* current_file_name() { return input_file_name.empty() ? nullptr : input_file_name.c_str(); }
}  // namespace

void abort_optimizer() { abort_optimizer(nullptr); }

void abort_optimizer(const char* reason) {
    if (aborting.exchange(true)) {
        // Another thread is already ending the run.
        for (;;) pause();
    }
    run_abnormal_exit_cleanup();

    if (print_debug && FDEBUG) {
        std::fputs("\n>>>> Optimizer terminated abnormally.\n", FDEBUG);
        if (reason) std::fprintf(FDEBUG, "\n>>>> %s.\n", reason);
        std::fclose(FDEBUG);
        FDEBUG = nullptr;
        print_debug = false;
    }

    std::fflush(stdout);
    std::fputs("\n>>>> Optimizer terminated abnormally\n", stderr);
    if (currfunc_at_abort) currfunc = currfunc_at_abort;
    if (currfunc) {
        std::fprintf(stderr, ">>>>    in function %s()\n", currfunc->name.c_str());
        if (currfunc->pos.file) std::fprintf(stderr, ">>>>    in file \"%s\"\n", currfunc->pos.file);
    }
    if (reason) std::fprintf(stderr, "\n>>>> %s.\n", reason);
    print_support_message();
    std::fflush(stderr);

    if (pass_debug_abort) {
        std::signal(SIGABRT, SIG_DFL);
        std::abort();
    }
    std::exit(1);
}

void optassert(const char*, const char*, int) { abort_optimizer(); }

void debug_write_failed(const char*, const char*, int) {
    int error = errno ? errno : EIO;
    if (FDEBUG) {
        std::fclose(FDEBUG);  // nothing more can be written to it
        FDEBUG = nullptr;
        print_debug = false;
    }
    write_failure_exit("debug file", debug_file_name.empty() ? "<unknown>" : debug_file_name.c_str(), error);
}

void optimizer_signal_callback(int sig) {
    std::fflush(nullptr);
    const char* name = signal_name(sig);
    if (FDEBUG) {
        std::fprintf(FDEBUG, "\n>>>> Optimizer terminated by signal: %s.\n", name);
        std::fclose(FDEBUG);
        FDEBUG = nullptr;
    }
    if (info_stream) {
        std::fprintf(info_stream, "\n>>>> Optimizer terminated by signal: %s.\n", name);
        std::fclose(info_stream);
        info_stream = nullptr;
    }
    run_abnormal_exit_cleanup();
}

void install_optimizer_signal_handlers(const char* program_name) {
    signal_program_name = program_name;
    signal_function_name_fn = current_function_name;
    signal_file_name_fn = current_file_name;
    install_common_handlers(common_signal_handler, optimizer_signal_callback);
    set_internal_error_handler(optassert);
}
