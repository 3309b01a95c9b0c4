// opt5_difffuzz: differential fuzzing of opt5 over many generated units.
//
//   opt5_difffuzz [--seed S] [--count N] [--levels 0,1,2,3,4] [--save DIR]
//                 [--opt5 PATH] [--unit FILE.mini] [--print] [-- extra opt5 options]
//
// Units S, S+1, ... S+N-1 are generated and checked; each failure is
// reduced, printed, and (with --save) written to DIR/seed<k>.mini, the form
// the regression test reads from tests/data/fuzz.  --unit checks one saved
// unit instead; --print prints the units instead of checking them.  Exit
// status 1 when anything failed.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "difffuzz.h"

int main(int argc, char** argv) {
    uint64_t seed = 1, count = 1000;
    std::vector<int> levels = {0, 1, 2, 3, 4};
    std::string save, unit;
    bool print = false;
    difffuzz::Checker checker;
    checker.opt5 = OPT5_BINARY;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "%s needs a value\n", a.c_str());
                std::exit(2);
            }
            return argv[++i];
        };
        if (a == "--seed") seed = std::stoull(value());
        else if (a == "--count") count = std::stoull(value());
        else if (a == "--save") save = value();
        else if (a == "--opt5") checker.opt5 = value();
        else if (a == "--unit") unit = value();
        else if (a == "--print") print = true;
        else if (a == "--levels") {
            levels.clear();
            std::string l = value();
            for (char c : l)
                if (c >= '0' && c <= '9') levels.push_back(c - '0');
        } else if (a == "--") {
            for (++i; i < argc; ++i) checker.options.push_back(argv[i]);
        } else {
            std::fprintf(stderr, "usage: %s [--seed S] [--count N] [--levels 0,1,2,3,4] [--save DIR] [--opt5 PATH] [--unit FILE] [--print] [-- options]\n", argv[0]);
            return 2;
        }
    }
    TempDir dir;
    checker.dir = dir.path;
    if (!unit.empty()) {
        std::string why = checker.check(difffuzz::Unit::load(slurp(unit)), levels);
        std::printf("%s: %s\n", unit.c_str(), why.empty() ? "agrees at every level" : why.c_str());
        return why.empty() ? 0 : 1;
    }
    int failures = 0;
    for (uint64_t k = seed; k < seed + count; ++k) {
        difffuzz::Unit u = difffuzz::generate(k);
        if (print) {
            std::printf("%s\n", u.save("seed " + std::to_string(k)).c_str());
            continue;
        }
        std::string why = checker.check(u, levels);
        if (why.empty()) continue;
        ++failures;
        std::printf("seed %llu: %s\n", static_cast<unsigned long long>(k), why.c_str());
        std::fflush(stdout);
        difffuzz::Unit small = checker.reduce_failure(u, levels, why);
        std::string again = checker.check(small, levels);
        std::string text = small.save("seed " + std::to_string(k) + ": " + again);
        std::printf("%s\n", text.c_str());
        if (!save.empty()) spit(fs::path(save) / ("seed" + std::to_string(k) + ".mini"), text);
    }
    std::printf("%d of %llu units failed\n", failures, static_cast<unsigned long long>(count));
    return failures ? 1 : 0;
}
