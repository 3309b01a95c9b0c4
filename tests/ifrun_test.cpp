// ifrun: units written as prefix expressions (minic.h) are assembled and
// run, in this process through the library and end to end through the tool.
#include <gtest/gtest.h>

#include <string>

#include "minic.h"
#include "test_util.h"
#include "tools/ifrun/ifrun.h"

namespace {

using minic::MiniFunction;

class IfRun : public ::testing::Test {
protected:
    // The unit of the functions, with each `edits` text (which must be
    // there) replaced by its partner first: forms minic does not write.
    std::unique_ptr<IFRUN_UNIT> load(const std::vector<MiniFunction>& fns,
                                     const std::vector<std::pair<std::string, std::string>>& edits = {},
                                     const std::string& name = "u.if") {
        std::string text = minic::unit_text(fns);
        for (const auto& [from, to] : edits) {
            size_t at = text.find(from);
            EXPECT_NE(at, std::string::npos) << from;
            if (at != std::string::npos) text.replace(at, from.size(), to);
        }
        EXPECT_EQ(assemble(text, dir.path / name), "");
        std::string error;
        std::unique_ptr<IFRUN_UNIT> unit = IFRUN_UNIT::load((dir.path / name).string(), error);
        EXPECT_TRUE(unit) << error;
        return unit;
    }
    IFRUN_RESULT run(const std::vector<MiniFunction>& fns, const std::string& entry, std::vector<int64_t> args = {}) {
        std::unique_ptr<IFRUN_UNIT> unit = load(fns);
        IFRUN_OPTIONS o;
        o.entry = entry;
        o.args = std::move(args);
        o.step_limit = 200000;
        return unit ? unit->run(o) : IFRUN_RESULT{};
    }
    TempDir dir;
};

// fact(n) recursively; mix(a, b, c) tells its arguments apart; main calls
// both and prints a digit.
std::vector<MiniFunction> calls_unit() {
    MiniFunction main_fn{"main", {}, {"r"}};
    main_fn.externs = {"putchar"};
    main_fn.body = {"(= r (+ (call fact 7) (call mix 1 2 3)))", "(call putchar (+ 48 (% r 10)))", "(ret r)"};
    MiniFunction fact{"fact", {"n"}, {}};
    fact.body = {"(if (> n 1) 1)", "(ret 1)", "L1:", "(ret (* n (call fact (- n 1))))"};
    MiniFunction mix{"mix", {"a", "b", "c"}, {}};
    mix.body = {"(ret (+ (+ (* a 100) (* b 10)) c))"};
    return {main_fn, fact, mix};
}

TEST_F(IfRun, CallsRecurseAndBindArgumentsInOrder) {
    IFRUN_RESULT r = run(calls_unit(), "main");
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.value, 5040 + 123);
    EXPECT_EQ(r.output, "3");
    EXPECT_EQ(run(calls_unit(), "mix", {4, 5, 6}).value, 456);
    // Seven calls of fact, one of mix, one of putchar; every function counted.
    EXPECT_EQ(r.per_opcode["CALL"], 9u);
    EXPECT_GT(r.per_function["fact"], r.per_function["mix"]);
    EXPECT_EQ(r.per_function.count("main"), 1u);
}

TEST_F(IfRun, ArithmeticWrapsAtEachTypesWidth) {
    MiniFunction f{"f", {"a", "u:b", "x:c", "ul:d"}, {"s"}};
    // a + 1 wraps at 16 bits signed, b * 2 at 16 bits unsigned, c + c at 40
    // bits, d at 32 bits unsigned; unsigned division and shifts.
    f.body = {"(= s (+ a 1))", "(if (!= s -32768) 1)", "(if (!= (conv-int (* b 2u)) -2) 1)",
              "(if (!= (conv-int (>> (+ c c) 39)) -1) 1)", "(if (!= (conv-int (>> (+ d 1#ul) 16)) 0) 1)",
              "(if (!= (conv-int (/ b 16u)) 4095) 1)", "(ret 7)", "L1:", "(ret 0)"};
    IFRUN_RESULT r = run({f}, "f", {32767, 65535, (int64_t{1} << 39) - 1, 4294967295});
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.value, 7);
}

TEST_F(IfRun, SixtyFourBitUnsignedConstantsRun) {
    // The unsigned 40-bit type of the generated units made 64 bits wide, and
    // a constant above the largest signed 64-bit value: x >> 60 is 15.
    MiniFunction f{"f", {}, {"ux:x"}};
    f.body = {"(= x 5#ux)", "(ret (conv-int (>> x 60)))"};
    std::unique_ptr<IFRUN_UNIT> unit = load({f}, {{"type n:9 b:53 b:0 n:40 n:40", "type n:9 b:53 b:0 n:64 n:64"},
                                                  {"node b:4 n:9 n:5\n", "node b:25 n:9 S:\"18446744073709551615\"\n"}});
    ASSERT_TRUE(unit);
    IFRUN_RESULT r = unit->run({"f"});
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.value, 15);
}

TEST_F(IfRun, WhatTheProgramDoesWrongStopsTheRunWithWhereItHappened) {
    MiniFunction f{"f", {"a"}, {"x", "y", "p:p"}};
    f.globals = {"g"};
    f.body = {"(if (== a 0) 1)", "(if (== a 1) 2)", "(if (== a 2) 3)", "(if (== a 3) 4)", "(ret (/ 10 (- a 4)))",
              "L1:", "(ret (+ x 1))",  // x was never written
              "L2:", "(= p (+ g 100))", "(ret (deref p))",  // one past the array
              "L3:", "(ret (call ext 1))",                  // not in the unit
              "L4:", "(goto 4)"};                           // forever
    struct CASE {
        int64_t a;
        std::string message;
    };
    for (const CASE& c : {CASE{0, "a read of 'x' before anything was stored there"},
                          CASE{1, "a load from outside every object"}, CASE{2, "a call of 'ext', which the unit does not define"},
                          CASE{3, "the step limit of 200000 operations is reached"}, CASE{4, "division by zero"}}) {
        IFRUN_RESULT r = run({f}, "f", {c.a});
        EXPECT_FALSE(r.ok) << c.a;
        EXPECT_NE(r.error.find(c.message), std::string::npos) << r.error;
        EXPECT_EQ(r.error.rfind("in 'f', t.c, line ", 0), 0u) << r.error;
    }
    // The array itself is there to be read, with its initial data.
    MiniFunction g{"g", {"i"}, {}};
    g.globals = {"arr"};
    g.body = {"(= (deref (+ arr 5)) 9)", "(ret (+ (deref (+ arr i)) (deref (+ arr 99))))"};
    EXPECT_EQ(run({g}, "g", {5}).value, 9 + minic::initial_word(2, 99));
    EXPECT_FALSE(run({g}, "g", {-1}).ok);
    // A global without initial data starts as zeros.
    MiniFunction z{"z", {}, {"x"}};
    z.globals = {"zero"};
    z.body = {"(= x 1)", "(ret x)"};
    std::string text = minic::unit_text({z});
    text.erase(text.find(".section init"), text.find(".section types") - text.find(".section init"));
    ASSERT_EQ(assemble(text, dir.path / "z.if"), "");
    std::string error;
    IFRUN_RESULT zr = IFRUN_UNIT::load((dir.path / "z.if").string(), error)->run({"z"});
    ASSERT_TRUE(zr.ok) << zr.error;
    ASSERT_EQ(zr.globals.size(), 1u);
    EXPECT_EQ(zr.globals[0].second, std::vector<uint16_t>(100, 0));
}

TEST_F(IfRun, EmbeddingProgramsSupplyFunctionsAndSeeVolatileAccesses) {
    // log(v) is supplied here: it records v and bumps g[1].  The volatile
    // local is traced by function, name and offset, in order with the call.
    MiniFunction f{"f", {"a"}, {"v:t"}};
    f.globals = {"g"};
    f.externs = {"log"};
    f.body = {"(= t a)", "(= t (+ (call log (+ t 1)) t))", "(ret t)"};
    std::unique_ptr<IFRUN_UNIT> unit = load({f});
    ASSERT_TRUE(unit);
    IFRUN_OPTIONS o;
    o.entry = "f";
    o.args = {5};
    o.trace_volatile = true;
    o.externals["log"] = [](IFRUN_CONTEXT& c, const std::vector<int64_t>& args) {
        c.trace(" log(" + std::to_string(args.at(0)) + ")");
        c.store_unit("g", 1, c.load_unit("g", 1) + 1);
        return int64_t{100};
    };
    IFRUN_RESULT r = unit->run(o);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.value, 105);
    EXPECT_EQ(r.trace, " Wf.t+0=5 Rf.t+0 log(6) Rf.t+0 Wf.t+0=105 Rf.t+0");
    ASSERT_EQ(r.globals.size(), 1u);
    EXPECT_EQ(r.globals[0].first, "g");
    EXPECT_EQ(static_cast<int16_t>(r.globals[0].second[1]), minic::initial_word(2, 1) + 1);
    // Without the function the call is an error; without the switch, no trace.
    o.externals.clear();
    o.trace_volatile = false;
    r = unit->run(o);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find("a call of 'log', which the unit does not define"), std::string::npos) << r.error;
    EXPECT_EQ(r.trace, "");
}

TEST_F(IfRun, PrintfReadsItsArgumentsInTheirOwnWidths) {
    // printf(format, a, b, b, 'Z', "ok"): a is a 16-bit int, b an unsigned
    // 16-bit value; the strings are placed where two marker constants were.
    MiniFunction f{"f", {"a", "u:b"}, {}};
    f.externs = {"printf"};
    f.body = {"(call printf 12345 a b b 90 23456)", "(ret 0)"};
    std::unique_ptr<IFRUN_UNIT> unit =
        load({f}, {{"node b:4 n:1 i:12345\n", "node b:3 n:5 L:\"a=%d b=%u hex=%04x c=%c s=%s 100%%\\n\"\n"},
                   {"node b:4 n:1 i:23456\n", "node b:3 n:5 L:\"ok\"\n"}});
    ASSERT_TRUE(unit);
    IFRUN_OPTIONS o;
    o.entry = "f";
    o.args = {-2, 65535};
    IFRUN_RESULT r = unit->run(o);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.output, "a=-2 b=65535 hex=ffff c=Z s=ok 100%\n");
}

TEST_F(IfRun, AnAssignmentFindsItsPlaceBeforeItsValue) {
    // The place is g[g[0] + 30] with g[0] as it was (-26): g[4].  The value,
    // a call, sets g[0] to 7 first, which would make the place g[37].
    MiniFunction f{"f", {}, {}};
    f.globals = {"g"};
    f.externs = {"bump"};
    f.body = {"(= (deref (+ (addr g) (+ (deref (addr g)) 30))) (call bump))", "(ret 0)"};
    std::unique_ptr<IFRUN_UNIT> unit = load({f});
    ASSERT_TRUE(unit);
    IFRUN_OPTIONS o;
    o.entry = "f";
    o.externals["bump"] = [](IFRUN_CONTEXT& c, const std::vector<int64_t>&) {
        c.store_unit("g", 0, 7);
        return int64_t{1};
    };
    IFRUN_RESULT r = unit->run(o);
    ASSERT_TRUE(r.ok) << r.error;
    ASSERT_EQ(minic::initial_word(2, 0), -26);
    EXPECT_EQ(r.globals.at(0).second.at(4), 1);
    EXPECT_EQ(static_cast<int16_t>(r.globals.at(0).second.at(37)), minic::initial_word(2, 37));
}

TEST_F(IfRun, OptimizedUnitsComputeTheSameWithFewerOperations) {
    // A loop over a global array with a copy and a constant the optimizer
    // folds away; run before and after opt5 at every level.
    MiniFunction f{"f", {"n"}, {"i", "s", "t", "k"}};
    f.globals = {"g"};
    f.body = {"(= k 3)", "(= s 0)", "(= i 0)", "L1:", "(if (>= i 64) 2)", "(= t i)", "(= (deref (+ g t)) (* t k))",
              "(+= s (deref (+ g i)))", "(+= i 1)", "(goto 1)", "L2:", "(ret (+ s n))"};
    ASSERT_EQ(assemble(minic::unit_text({f}), dir.path / "in.if"), "");
    std::string error;
    IFRUN_OPTIONS o;
    o.entry = "f";
    o.args = {5};
    IFRUN_RESULT before = IFRUN_UNIT::load((dir.path / "in.if").string(), error)->run(o);
    ASSERT_TRUE(before.ok) << before.error;
    EXPECT_EQ(before.value, 3 * (63 * 64 / 2) + 5);
    for (std::string level : {"0", "1", "2", "3", "4"}) {
        Result opt = run_program(OPT5_BINARY, {"-o" + level, "in.if", "out" + level + ".if"}, dir.path);
        ASSERT_TRUE(opt.exited && opt.status == 0) << opt.err;
        std::unique_ptr<IFRUN_UNIT> u = IFRUN_UNIT::load((dir.path / ("out" + level + ".if")).string(), error);
        ASSERT_TRUE(u) << error;
        IFRUN_RESULT after = u->run(o);
        ASSERT_TRUE(after.ok) << level << ": " << after.error;
        EXPECT_EQ(after.value, before.value) << level;
        if (level == "2") EXPECT_LT(after.operations, before.operations);
    }
}

// struct S { int a; long b; unsigned f : 3; int g : 5; }, reached through
// s.m (STDOT) and p->m (STREF), and a SWITCH on a bit-field:
//   s.a = k; p = &s; p->b = 100000; p->f = k + 6; s.g = -k; p->g += 20;
//   switch (s.f) { case 1: return s.a * 1000 + p->g;
//                  case 3: return (int)(p->b / 1000) + s.g;
//                  default: return s.g * 10 + s.f; }
const char* const MEMBERS_UNIT = R"(.header version=-71 cpu=0x258 source="m.c" extra=0
.section main
begin_func P:1:1:1 n:0
symbol S:"k" n:16 n:0 c:0 w:0 n:1 n:0 n:16 c:0 n:0 n:0 P:1:1:10 b:0
end_args P:1:1:12
symbol S:"s" n:64 n:0 c:0 w:0 n:4 n:0 n:16 c:0 n:0 n:0 P:1:2:3 b:0
symbol S:"p" n:32 n:0 c:0 w:0 n:5 n:0 n:16 c:0 n:0 n:0 P:1:2:6 b:0
end_locals P:1:2:9
stmt P:1:3:3
node b:58 n:1
node b:68 n:1
node b:2 n:4 R:1:1
node b:26 n:1 c:0 n:0 n:4
node b:2 n:1 R:1:0
stmt P:1:4:3
node b:58 n:5
node b:2 n:5 R:1:2
node b:16 n:5
node b:2 n:4 R:1:1
stmt P:1:5:3
node b:58 n:2
node b:69 n:2
node b:2 n:5 R:1:2
node b:26 n:2 c:0 n:1 n:4
node b:4 n:2 i:100000
stmt P:1:6:3
node b:58 n:3
node b:69 n:3
node b:2 n:5 R:1:2
node b:26 n:3 c:0 n:2 n:4
node b:104 n:3
node b:6 n:1
node b:2 n:1 R:1:0
node b:4 n:1 i:6
stmt P:1:7:3
node b:58 n:1
node b:68 n:1
node b:2 n:4 R:1:1
node b:26 n:1 c:0 n:3 n:4
node b:10 n:1
node b:2 n:1 R:1:0
stmt P:1:8:3
node b:7 n:1
node b:69 n:1
node b:2 n:5 R:1:2
node b:26 n:1 c:0 n:3 n:4
node b:4 n:1 i:20
stmt P:1:9:3
node b:40 n:3 n:2
node b:68 n:3
node b:2 n:4 R:1:1
node b:26 n:3 c:0 n:2 n:4
node b:57 n:0
node b:47 n:0
node b:4 n:3 n:1
node b:1 n:0 n:1
node b:57 n:0
node b:47 n:0
node b:4 n:3 n:3
node b:1 n:0 n:2
node b:46 n:0
node b:1 n:0 n:3
label n:1
stmt P:1:10:3
node b:118 n:1
node b:6 n:1
node b:11 n:1
node b:68 n:1
node b:2 n:4 R:1:1
node b:26 n:1 c:0 n:0 n:4
node b:4 n:1 i:1000
node b:69 n:1
node b:2 n:5 R:1:2
node b:26 n:1 c:0 n:3 n:4
label n:2
stmt P:1:11:3
node b:118 n:1
node b:6 n:1
node b:104 n:1
node b:60 n:2
node b:69 n:2
node b:2 n:5 R:1:2
node b:26 n:2 c:0 n:1 n:4
node b:4 n:2 i:1000
node b:68 n:1
node b:2 n:4 R:1:1
node b:26 n:1 c:0 n:3 n:4
label n:3
stmt P:1:12:3
node b:118 n:1
node b:6 n:1
node b:11 n:1
node b:68 n:1
node b:2 n:4 R:1:1
node b:26 n:1 c:0 n:3 n:4
node b:4 n:1 i:10
node b:104 n:1
node b:68 n:3
node b:2 n:4 R:1:1
node b:26 n:3 c:0 n:2 n:4
end_func P:1:13:1
.end
.section types
type n:1 b:8 b:1 n:16 n:16 b:0 b:0
type n:2 b:10 b:1 n:32 n:16 b:0 b:0
type n:3 b:9 b:0 n:16 n:16 b:0 b:0
type n:4 b:26 S:"S" b:4 n:64 n:16 P:0
type n:0 b:0 c:2
type n:0 b:30 n:1 S:"a" n:0 b:0 s:0 P:0
type n:0 b:30 n:2 S:"b" n:0 b:0 s:16 P:0
type n:0 b:30 n:3 S:"f" n:0 b:1 n:3 n:0 s:48 P:0
type n:0 b:30 n:1 S:"g" n:0 b:1 n:5 n:3 s:48 P:0
type n:0 b:1 c:2
type n:5 b:17 n:4 n:32 n:32
type n:6 b:22 n:1 b:1 b:0 b:0 b:0
.end
.section files
source S:"m.c"
.end
.section globals
symbol S:"f" n:0 n:0 c:0 w:0 n:6 n:0 n:16 c:0 n:0 n:0 P:1:1:5 b:0
.end
)";

TEST_F(IfRun, MembersBitFieldsAndSwitchRunBeforeAndAfterTheOptimizer) {
    ASSERT_EQ(assemble(MEMBERS_UNIT, dir.path / "m.if"), "");
    // k: the case the SWITCH takes, and what is returned.
    //   5: f = 11 & 7 = 3, g = -5 + 20 = 15            -> 100 + 15
    //   2: f = 0, g = -2 + 20 = 18, wrapped to -14     -> default, -140
    //   3: f = 1, g = 17 wrapped to -15                -> 3000 - 15
    const std::vector<std::pair<int64_t, int64_t>> cases = {{5, 115}, {2, -140}, {3, 2985}, {10, 100}};
    for (std::string level : {"", "0", "1", "2", "3"}) {
        std::string unit = "m.if";
        if (!level.empty()) {
            unit = "m" + level + ".if";
            Result opt = run_program(OPT5_BINARY, {"-o" + level, "m.if", unit}, dir.path);
            ASSERT_TRUE(opt.exited && opt.status == 0) << level << opt.err;
        }
        std::string error;
        std::unique_ptr<IFRUN_UNIT> u = IFRUN_UNIT::load((dir.path / unit).string(), error);
        ASSERT_TRUE(u) << error;
        for (auto [k, expected] : cases) {
            IFRUN_RESULT r = u->run({"f", {k}});
            ASSERT_TRUE(r.ok) << level << ": " << r.error;
            EXPECT_EQ(r.value, expected) << "-o" << level << " k=" << k;
        }
    }
}

TEST_F(IfRun, TheToolReportsStatusOutputAndStatistics) {
    ASSERT_EQ(assemble(minic::unit_text(calls_unit()), dir.path / "u.if"), "");
    Result r = run_program(IFRUN_BINARY, {"u.if", "--stats"}, dir.path);
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, (5040 + 123) & 0xFF);
    EXPECT_EQ(r.out, "3");
    EXPECT_NE(r.err.find("operations: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("function fact"), std::string::npos) << r.err;
    Result bad = run_program(IFRUN_BINARY, {"u.if", "--entry", "nothing"}, dir.path);
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("the unit defines no function 'nothing'"), std::string::npos) << bad.err;
    Result args = run_program(IFRUN_BINARY, {"u.if", "--entry", "mix", "2", "0", "7"}, dir.path);
    EXPECT_EQ(args.status, 207);
}

}  // namespace
