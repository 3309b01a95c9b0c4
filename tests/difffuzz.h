// Differential fuzzing of the optimizer: random functions are optimized at
// every level, and the input and the output are run in ifrun
// on edge-case arguments; any difference, crash, abnormal end or run past the
// time bound is a failure, which is then reduced to a small unit.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "minic.h"
#include "test_util.h"

namespace difffuzz {

// A generated unit: the function, and how many of its first statements set
// up the locals (the reducer keeps them, so that no variable is read unset).
struct Unit {
    minic::MiniFunction f{"f", {}, {}};
    size_t prologue = 0;

    std::string save(const std::string& note) const;
    static Unit load(const std::string& text);
};

Unit generate(uint64_t seed);

// Where the optimizer is and how long one run of it may take.
struct Checker {
    std::string opt5;
    fs::path dir;
    int seconds = 20;
    std::vector<std::string> options;  // given at every level

    // The first failure of the unit at any of the levels, or "".
    std::string check(const Unit& u, const std::vector<int>& levels) const;
    // The unit that failed with `why`, reduced while it fails the same way
    // (the same kind: "exit 2", "different result", ...).
    Unit reduce_failure(const Unit& u, const std::vector<int>& levels, const std::string& why) const;
};

// Removes statements and replaces subtrees by their operands or 0 while the
// unit still fails (`fails` says whether it does).
Unit reduce(Unit u, const std::function<bool(const Unit&)>& fails);

}  // namespace difffuzz
