// ifrun unit.if [--entry NAME] [--stats] [--steps N] [ARG...]
// Runs a function of the unit (main unless --entry names another), with the
// integers ARG... as its arguments.  What the program printed goes to the
// standard output; the exit status is the function's return value (modulo
// 256), or 1 with a message on the standard error stream when the run stops
// on an error.  --stats prints the operations executed, by opcode and by
// function, and the most stack the frames took at once, on the standard
// error stream.
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/ifrun/ifrun.h"

namespace {
// Trees are walked recursively and may be as deep as the reader allows.
constexpr size_t RUN_STACK = size_t{1} << 30;

struct ARGS {
    int argc;
    char** argv;
    int status;
};

int usage(const char* me) {
    std::fprintf(stderr, "usage: %s unit.if [--entry NAME] [--stats] [--steps N] [ARG...]\n", me);
    return 2;
}

int run_main(int argc, char** argv) {
    std::string path;
    IFRUN_OPTIONS options;
    bool stats = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        char* end = nullptr;
        if (a == "--entry" && i + 1 < argc) {
            options.entry = argv[++i];
        } else if (a == "--stats") {
            stats = true;
        } else if (a == "--steps" && i + 1 < argc) {
            options.step_limit = std::strtoull(argv[++i], &end, 0);
            if (!end || *end) return usage(argv[0]);
        } else if (path.empty() && a.rfind("--", 0) != 0) {
            path = a;
        } else {
            long long v = std::strtoll(a.c_str(), &end, 0);
            if (a.empty() || !end || *end) return usage(argv[0]);
            options.args.push_back(v);
        }
    }
    if (path.empty()) return usage(argv[0]);
    std::string error;
    std::unique_ptr<IFRUN_UNIT> unit = IFRUN_UNIT::load(path, error);
    if (!unit) {
        std::fprintf(stderr, "ifrun: %s\n", error.c_str());
        return 1;
    }
    IFRUN_RESULT r = unit->run(options);
    std::fwrite(r.output.data(), 1, r.output.size(), stdout);
    std::fflush(stdout);
    if (stats) {
        std::fprintf(stderr, "operations: %llu\n", static_cast<unsigned long long>(r.operations));
        std::fprintf(stderr, "stack: %llu units\n", static_cast<unsigned long long>(r.stack_units));
        std::fprintf(stderr, "memory accesses: %llu\n", static_cast<unsigned long long>(r.memory_accesses));
        for (const auto& [name, n] : r.per_function) std::fprintf(stderr, "  function %-24s %llu\n", name.c_str(), static_cast<unsigned long long>(n));
        for (const auto& [name, n] : r.per_opcode) std::fprintf(stderr, "  opcode   %-24s %llu\n", name.c_str(), static_cast<unsigned long long>(n));
    }
    if (!r.ok) {
        std::fprintf(stderr, "ifrun: %s\n", r.error.c_str());
        return 1;
    }
    return static_cast<int>(r.value & 0xFF);
}

void* run(void* p) {
    ARGS* a = static_cast<ARGS*>(p);
    a->status = run_main(a->argc, a->argv);
    return nullptr;
}
}  // namespace

int main(int argc, char** argv) {
    ARGS args{argc, argv, 1};
    pthread_attr_t attr;
    pthread_t thread;
    if (pthread_attr_init(&attr) == 0 && pthread_attr_setstacksize(&attr, RUN_STACK) == 0 &&
        pthread_create(&thread, &attr, run, &args) == 0) {
        pthread_join(thread, nullptr);
        return args.status;
    }
    return run_main(argc, argv);
}
