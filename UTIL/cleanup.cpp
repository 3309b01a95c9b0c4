#include "UTIL/cleanup.h"

namespace {
abnormal_exit_cleanup_fn cleanup = nullptr;
}

void set_abnormal_exit_cleanup(abnormal_exit_cleanup_fn fn) { cleanup = fn; }

void run_abnormal_exit_cleanup() {
    if (cleanup) cleanup();
}
