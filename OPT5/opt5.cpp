#include <malloc.h>
#include <pthread.h>

#include <csignal>

#include <cstdio>
#include <cstdlib>

#include "OPT5/driver.h"

// The optimizing steps walk trees recursively, and the reader accepts trees
// up to IF_MAX_TREE_DEPTH levels deep: the run gets a machine stack that
// holds such walks (reserved address space; only what is used is ever
// touched).
namespace {
constexpr size_t OPTIMIZER_STACK = size_t{1} << 30;

struct ARGS {
    int argc;
    char** argv;
};

void* run(void* p) {
    ARGS* a = static_cast<ARGS*>(p);
    optimizer_main(a->argc, a->argv);
    return nullptr;
}
}  // namespace

int main(int argc, char** argv) {
    mallopt(M_ARENA_MAX, 1);  // one thread allocates: the main heap serves it best
    ARGS args{argc, argv};
    pthread_attr_t attr;
    pthread_t thread;
    if (pthread_attr_init(&attr) == 0 && pthread_attr_setstacksize(&attr, OPTIMIZER_STACK) == 0 &&
        pthread_create(&thread, &attr, run, &args) == 0) {
        // Signals sent to the process go to the optimizer's thread alone,
        // which holds them itself while it puts the output in place.
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        pthread_join(thread, nullptr);  // optimizer_main ends the process itself
        return 0;
    }
    optimizer_main(argc, argv);  // no thread to be had: the ordinary stack
}
