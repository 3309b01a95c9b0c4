#include "UTIL/cleanup.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
abnormal_exit_cleanup_fn cleanup = nullptr;

constexpr int MAX_FILES = 4;
constexpr size_t MAX_PATH = 4096;
// A slot is in use while its path is not empty; `in_use` is what a handler
// reads, written last when a slot is filled and first when it is emptied.
char paths[MAX_FILES][MAX_PATH];
volatile sig_atomic_t in_use[MAX_FILES];
}  // namespace

void set_abnormal_exit_cleanup(abnormal_exit_cleanup_fn fn) { cleanup = fn; }

void run_abnormal_exit_cleanup() {
    if (cleanup) cleanup();
    remove_temporary_files();
}

void write_failure_exit(const char* what, const char* name, int error) {
    std::fprintf(stderr, "\n>> Cannot write the %s %s : %s, Aborting\n", what, name, std::strerror(error));
    run_abnormal_exit_cleanup();
    std::exit(1);
}

bool register_temporary_file(const char* path) {
    size_t n = std::strlen(path);
    if (n == 0 || n >= MAX_PATH) return false;
    for (int i = 0; i < MAX_FILES; ++i)
        if (!in_use[i]) {
            std::memcpy(paths[i], path, n + 1);
            in_use[i] = 1;
            return true;
        }
    return false;
}

void forget_temporary_file(const char* path) {
    for (int i = 0; i < MAX_FILES; ++i)
        if (in_use[i] && std::strcmp(paths[i], path) == 0) in_use[i] = 0;
}

void remove_temporary_files() {
    for (int i = 0; i < MAX_FILES; ++i)
        if (in_use[i]) {
            in_use[i] = 0;
            unlink(paths[i]);
        }
}
