// The differential fuzzer: fixed seeds at every level, the saved reduced
// cases, and the fuzzer's own parts.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "difffuzz.h"
#include "ifrun_oracle.h"

namespace {

using difffuzz::Unit;

difffuzz::Checker checker(const TempDir& dir) {
    difffuzz::Checker c;
    c.opt5 = OPT5_BINARY;
    c.dir = dir.path;
    return c;
}

const std::vector<int> every_level = {0, 1, 2, 3, 4};

TEST(DiffFuzz, GeneratedUnitsAgreeAtEveryLevel) {
    TempDir dir;
    difffuzz::Checker c = checker(dir);
    for (uint64_t seed = 1; seed <= 250; ++seed) {
        Unit u = difffuzz::generate(seed);
        std::string why = c.check(u, every_level);
        if (why.empty()) continue;
        Unit small = c.reduce_failure(u, every_level, why);
        ADD_FAILURE() << "seed " << seed << ": " << why << "\n" << small.save(c.check(small, every_level));
    }
}

// The reduced failures and the faults found earlier, one unit a file.
TEST(DiffFuzz, SavedCasesAgreeAtEveryLevel) {
    TempDir dir;
    difffuzz::Checker c = checker(dir);
    int cases = 0;
    for (const auto& e : fs::directory_iterator(fs::path(OPT5_SOURCE_DIR) / "tests/data/fuzz")) {
        if (e.path().extension() != ".mini") continue;
        ++cases;
        Unit u = Unit::load(slurp(e.path()));
        EXPECT_FALSE(u.f.body.empty()) << e.path();
        EXPECT_EQ(c.check(u, every_level), "") << e.path();
    }
    EXPECT_GT(cases, 0);
}

// The debug listing only watches: with it the functions are unpacked and
// given their flow graphs before every step and written block by block, and
// the output must still be the same bytes at every level.
TEST(DiffFuzz, DebugListingLeavesTheOutputAlone) {
    TempDir dir;
    for (uint64_t seed = 1; seed <= 40; seed += 3) {
        std::vector<minic::MiniFunction> fns;
        for (uint64_t k = 0; k < 3; ++k) {
            fns.push_back(difffuzz::generate(seed + k).f);
            fns.back().name = "f" + std::to_string(k);
            for (const std::string& g : fns.back().globals)  // the unit's globals are the first function's
                if (std::find(fns[0].globals.begin(), fns[0].globals.end(), g) == fns[0].globals.end())
                    fns[0].globals.push_back(g);
        }
        ASSERT_EQ(assemble(minic::unit_text(fns), dir.path / "in.if"), "") << seed;
        // The last order leaves the functions without flow graphs after the
        // barrier: the writer builds them again from the statements.
        for (std::string order : {"", "--forced_passes=1,3"})
            for (int level : every_level) {
                std::vector<std::string> args = {"-o" + std::to_string(level), "in.if"};
                if (!order.empty()) args.insert(args.begin(), order);
                std::vector<std::string> listed_args = args;
                listed_args.insert(listed_args.begin(), "--debug_file=listing.txt");
                args.push_back("plain.if");
                listed_args.push_back("listed.if");
                Result plain = run_program(OPT5_BINARY, args, dir.path);
                Result listed = run_program(OPT5_BINARY, listed_args, dir.path);
                ASSERT_EQ(plain.status, 0) << plain.err;
                ASSERT_EQ(listed.status, 0) << listed.err;
                EXPECT_FALSE(slurp(dir.path / "listing.txt").empty());
                EXPECT_EQ(slurp(dir.path / "plain.if"), slurp(dir.path / "listed.if"))
                    << "seed " << seed << " -o" << level << " " << order;
            }
    }
}

TEST(DiffFuzz, UnitsAreReproducibleAndVaried) {
    std::set<std::string> texts;
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        Unit u = difffuzz::generate(seed);
        EXPECT_EQ(u.save(""), difffuzz::generate(seed).save("")) << seed;
        texts.insert(u.f.text());
        // Saved and loaded, a unit is the same unit.
        EXPECT_EQ(Unit::load(u.save("note")).f.text(), u.f.text());
        // Every local is set in the prologue or by the loop that uses it.
        EXPECT_GT(u.prologue, 0u);
        EXPECT_LE(u.prologue, u.f.body.size());
    }
    EXPECT_EQ(texts.size(), 20u);
}

// An optimizer that fails without a word is still a failure, reported.
TEST(DiffFuzz, SilentFailuresAreReported) {
    TempDir dir;
    difffuzz::Checker c = checker(dir);
    c.opt5 = "/bin/false";
    EXPECT_EQ(c.check(difffuzz::generate(1), {3}), "exit 1 at -o3: ");
}

TEST(DiffFuzz, ReductionKeepsTheFailureAndLittleElse) {
    Unit u;
    u.f.args = {"a"};
    u.f.locals = {"x", "y"};
    u.f.globals = {"ga"};
    u.f.body = {"(= x 1)", "(= y (+ a (* x (- 7 a))))", "(if (< y 3) 1)", "(= x (+ (/ y 3) (* a 2)))", "L1:",
                "(= y (& x 4))", "(ret (^ x y))"};
    u.prologue = 1;
    // "Fails" while some statement still multiplies.
    auto fails = [](const Unit& t) {
        for (const std::string& s : t.f.body)
            if (s.find("(*") != std::string::npos) return true;
        return false;
    };
    Unit small = difffuzz::reduce(u, fails);
    EXPECT_TRUE(fails(small));
    // The prologue stays; one statement is left beside it, and in it the
    // multiplication of two atoms.
    ASSERT_EQ(small.f.body.size(), 2u) << small.save("");
    EXPECT_EQ(small.f.body[0], "(= x 1)");
    EXPECT_NE(small.f.body[1].find("(* "), std::string::npos) << small.f.body[1];
    EXPECT_LE(minic::tokenize(small.f.body[1]).size(), 10u) << small.f.body[1];
}

// Under --volatile_all every access to what is not a local is volatile:
// neither of two stores through a pointer may go.
TEST(KnownFaults, VolatileAllKeepsEveryStore) {
    TempDir dir;
    minic::MiniFunction f{"f", {"p:p"}, {}};
    f.globals = {"ga"};
    f.body = {"(= (deref p) 1)", "(= (deref p) 2)", "(ret 0)"};
    ASSERT_EQ(assemble(f.text(), dir.path / "in.if"), "");
    for (bool all : {false, true}) {
        std::vector<std::string> args = {"-o2", "in.if", "out.if"};
        if (all) args.insert(args.begin(), "--volatile_all");
        Result r = run_program(OPT5_BINARY, args, dir.path);
        ASSERT_EQ(r.status, 0) << r.err;
        std::string out = disassemble(dir.path / "out.if");
        size_t stores = 0;
        for (size_t at = out.find("node b:58 "); at != std::string::npos; at = out.find("node b:58 ", at + 1)) ++stores;
        EXPECT_EQ(stores, all ? 2u : 1u) << out;
    }
}

// The interpreter of these runs: what it missed would let wrong code pass.
TEST(KnownFaults, TheInterpreterNarrowsAndFollowsPointers) {
    minic::MiniFunction f{"f", {"a"}, {"x", "u:y", "c:k", "i", "p:p", "l:z"}};
    f.globals = {"ga"};
    f.body = {"(= x (+ a 8000))", "(= y (neg 1u))", "(= k 40000)", "(= i 1)", "(= p (addr i))", "(= (deref p) 2)",
              "(= z (* (conv-long a) 65536#l))", "(= (deref (+ (addr ga) 0)) (conv-int (>> z 16)))",
              "(ret (+ (+ x (conv-int (== y 65535u))) (+ k i)))"};
    TempDir dir;
    ASSERT_EQ(assemble(f.text(), dir.path / "f.if"), "");
    std::vector<IFRUN_RESULT> r = oracle::run_all(dir.path / "f.if", f, {{30000}});
    ASSERT_TRUE(r[0].ok) << r[0].error;
    // 30000 + 8000 wraps to -27536; y is 65535; k is -25536; i became 2.
    EXPECT_EQ(r[0].value, static_cast<int16_t>(-27536 + 1 + -25536 + 2));
    EXPECT_EQ(r[0].globals.at(0).second.at(0), 30000);  // z >> 16 went to memory
}

}  // namespace
