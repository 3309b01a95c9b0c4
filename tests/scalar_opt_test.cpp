// Scalar optimization end to end: small functions written as I-file text go
// through opt5, and the optimized statements (read from the interlisting
// comments) and the function's results on sample arguments are checked.
#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "ifrun_oracle.h"
#include "minic.h"
#include "test_util.h"

namespace {

using minic::MiniFunction;

class ScalarOpt : public ::testing::Test {
protected:
    // Optimizes the function; returns the output unit as text.
    std::string optimize(const MiniFunction& f, std::vector<std::string> options = {"-o2"}) {
        function = f;
        input = f.text();
        EXPECT_EQ(assemble(input, dir.path / "in.if"), "");
        options.push_back("--interlist");
        options.push_back("in.if");
        options.push_back("out.if");
        last = run_program(OPT5_BINARY, options, dir.path);
        EXPECT_TRUE(last.exited && last.status == 0) << last.err;
        output = last.status == 0 ? disassemble(dir.path / "out.if") : "";
        return output;
    }
    // The statements of the optimized function in infix form.
    std::vector<std::string> statements() const {
        std::vector<std::string> out;
        std::istringstream in(output);
        std::string line;
        while (std::getline(in, line))
            if (line.rfind("comment S:\"", 0) == 0) out.push_back(line.substr(11, line.size() - 12));
        return out;
    }
    // The input and the output give the same result for every argument list.
    void same_meaning(const std::vector<std::vector<long long>>& arg_lists) {
        std::vector<IFRUN_RESULT> before = oracle::run_all(dir.path / "in.if", function, arg_lists);
        std::vector<IFRUN_RESULT> after = oracle::run_all(dir.path / "out.if", function, arg_lists);
        for (size_t k = 0; k < arg_lists.size(); ++k) {
            ASSERT_TRUE(oracle::comparable(before[k])) << before[k].error;
            EXPECT_EQ(oracle::printed(after[k]), oracle::printed(before[k]))
                << "arguments " << ::testing::PrintToString(arg_lists[k]);
        }
    }
    TempDir dir;
    Result last;
    MiniFunction function{"f", {}, {}};
    std::string input, output;
};

const std::vector<std::vector<long long>> samples = {{0, 0}, {1, 2}, {-1, 7}, {5, -3}, {32767, 1}, {-32768, -1},
                                                     {100, 100}, {12, 0}, {-7, 3}, {255, 16}};

TEST_F(ScalarOpt, ConstantsPropagateFoldAndDecideBranches) {
    MiniFunction f{"f", {"a", "b"}, {"x", "y", "z"}};
    f.body = {"(= x 4)", "(= y (* x 8))", "(= z (* a y))", "(if (< y 10) 5)", "(ret (+ z b))", "L5:", "(ret 0)"};
    optimize(f);
    // x and y hold one value everywhere; the test on y always fails, so the
    // second return is gone; multiplying by 32 is a shift, and z, computed
    // for its one use, is folded into it.
    EXPECT_EQ(statements(), (std::vector<std::string>{"URETURN(((a << 5) + b))"})) << output;
    same_meaning(samples);
}

// A step of a variable whose constant value is known leaves a known
// constant, wrapped in the variable's type: 32766 + 3 is -32767, one less
// is -32768, and the test on it is decided.
TEST_F(ScalarOpt, ConstantsFoldThroughSteps) {
    MiniFunction f{"f", {"a", "b"}, {"x", "y"}};
    f.body = {"(= x 32766)",          "(+= x 3)",  "(= y (* x a))", "(-= x 1)", "(if (== x -32768) 5)",
              "(ret y)", "L5:", "(ret (+ y b))"};
    optimize(f);
    EXPECT_EQ(statements(), (std::vector<std::string>{"URETURN(((a * -32767) + b))"})) << output;
    same_meaning(samples);
}

TEST_F(ScalarOpt, NothingChangesBelowLevelOne) {
    MiniFunction f{"f", {"a", "b"}, {"x"}};
    f.body = {"(= x 4)", "(ret (+ a x))"};
    optimize(f, {"-o0"});
    EXPECT_EQ(statements(), (std::vector<std::string>{"(x = 4)", "URETURN((a + x))"}));
}

TEST_F(ScalarOpt, CopiesOfUnchangedArgumentsAreReplaced) {
    MiniFunction f{"f", {"a", "b"}, {"c", "d"}};
    f.body = {"(= c a)", "(= d (- (+ c 3) 1))", "(ret (* d b))"};
    optimize(f);
    // c is a copy of a, which never changes, and the constants combine.
    EXPECT_EQ(statements(), (std::vector<std::string>{"URETURN(((a + 2) * b))"})) << output;
    same_meaning(samples);
}

TEST_F(ScalarOpt, DeadAssignmentsGoButTheirEffectsStay) {
    MiniFunction f{"f", {"a", "b"}, {"x", "y"}};
    // x's first value is overwritten unread; y is never read, but dividing
    // may trap, so that part of its value stays.
    f.body = {"(= x (+ a 1))", "(= x (* b 3))", "(= y (/ a b))", "(ret x)"};
    optimize(f);
    EXPECT_EQ(statements(), (std::vector<std::string>{"(a / b)", "URETURN((b * 3))"})) << output;
    same_meaning(samples);
}

TEST_F(ScalarOpt, LoopsKeepTheirMeaning) {
    // s = 0; i = 0; while (i < a) { s += i * 4; i += 1; } return s + k, k = 2
    MiniFunction f{"f", {"a", "b"}, {"s", "i", "k"}};
    f.body = {"(= k 2)", "(= s 0)",        "(= i 0)", "L1:", "(if (>= i a) 2)", "(+= s (* i 4))",
              "(+= i 1)", "(goto 1)", "L2:", "(ret (+ s k))"};
    optimize(f);
    std::vector<std::string> st = statements();
    // k is known; the multiplication became a shift.
    EXPECT_NE(std::find(st.begin(), st.end(), "URETURN((s + 2))"), st.end()) << output;
    EXPECT_NE(std::find(st.begin(), st.end(), "(s += (i << 2))"), st.end()) << output;
    same_meaning({{0, 0}, {1, 0}, {5, 0}, {40, 0}, {-3, 0}});
}

TEST_F(ScalarOpt, FoldingIsExactInTheOperandType) {
    MiniFunction f{"f", {"a", "b"}, {"x", "u:u", "y"}};
    // 16-bit wrap-around: 32767 + 1 is -32768; unsigned 0 - 1 is 65535,
    // so the unsigned test is true and the signed one false.
    f.body = {"(= x (+ 32767 1))", "(= u (- 0u 1u))", "(= y (+ (u> u 100u) (< x 0)))", "(ret (+ y (* a 0)))"};
    optimize(f);
    EXPECT_EQ(statements(), (std::vector<std::string>{"URETURN(2)"})) << output;
    same_meaning(samples);
}

// Merging x = e; x = f(x) stops while the value is still small: a long run
// stays a chain of statements instead of one tree as deep as the run (which
// took time quadratic in the run and could not be read back past 100000).
TEST_F(ScalarOpt, LongRunsOfAssignmentsStayAChain) {
    MiniFunction f{"f", {"a", "b"}, {"x"}};
    f.body = {"(= x a)"};
    for (int i = 0; i < 300; ++i) f.body.push_back("(= x (^ (* x b) " + std::to_string(i % 7) + "))");
    f.body.push_back("(ret x)");
    optimize(f);
    std::vector<std::string> st = statements();
    EXPECT_GT(st.size(), 10u) << output;
    for (const std::string& s : st) EXPECT_LT(s.size(), 400u) << s;
    same_meaning(samples);
}

TEST_F(ScalarOpt, BooleanTestsAreInvertedAndNormalized) {
    MiniFunction f{"f", {"a", "b"}, {}};
    f.body = {"(if (! (< a b)) 7)", "(ret (== (!= a b) 0))", "L7:", "(ret (&& 1 (| a 8)))"};
    optimize(f);
    // !(a < b) is a >= b; (a != b) == 0 is a == b; 1 && t is t != 0, and
    // a | 8 is never zero.  (L7 is written as the function's first label.)
    EXPECT_EQ(statements(), (std::vector<std::string>{"CBRANCH((a >= b), L1)", "URETURN((a == b))", "URETURN(1)"}))
        << output;
    same_meaning(samples);
}

TEST_F(ScalarOpt, NegatedConjunctionsInvertTheirComparisons) {
    MiniFunction f{"f", {"a", "b"}, {}};
    f.body = {"(if (! (&& (< a b) (> a 3))) 7)", "(ret (== (|| (== a 1) (!= b 2)) 0))", "L7:",
              "(ret (!= (&& (< a b) (> b 5)) 0))"};
    optimize(f);
    // The jump on the disjunction is split (one jump per test), after which
    // a > 3 is known where the first return is: a != 1 holds there.
    EXPECT_EQ(statements(), (std::vector<std::string>{"CBRANCH((a >= b), L1)", "CBRANCH((a <= 3), L1)",
                                                      "URETURN((b == 2))", "URETURN(((a < b) && (b > 5)))"}))
        << output;
    same_meaning(samples);
}

TEST_F(ScalarOpt, ValueRangesDecideTestsInLoops) {
    // i runs from 0 to 9 inside the loop, so i > 20 never holds and the
    // block it leads to goes; x = a & 7 is never 9.
    MiniFunction f{"f", {"a", "b"}, {"s", "i", "x"}};
    f.body = {"(= s 0)", "(= i 0)", "(= x (& a 7))", "L1:", "(if (>= i 10) 2)", "(if (> i 20) 3)", "(if (== x 9) 3)",
              "(+= s i)", "(+= i 1)", "(goto 1)", "L2:", "(ret (+ s x))", "L3:", "(ret -1)"};
    optimize(f, {"-o2", "--debug=skip_pass=37"});  // the loop stays a loop: not unrolled
    std::vector<std::string> st = statements();
    for (const std::string& s : st) {
        EXPECT_EQ(s.find("20"), std::string::npos) << s;
        EXPECT_EQ(s.find("9)"), std::string::npos) << s;
        EXPECT_EQ(s.find("-1"), std::string::npos) << s;
    }
    // The loop is tested at its bottom, and the test in front of it is
    // decided by i = 0.
    EXPECT_NE(std::find_if(st.begin(), st.end(), [](const std::string& s) { return s.rfind("CBRANCH((i < 10), L", 0) == 0; }),
              st.end())
        << output;
    EXPECT_EQ(st.size(), 7u) << output;
    same_meaning(samples);
}

// Tests narrow the value of what they compare whichever side the constant
// is on; x != c takes c out of what x may be; an unsigned comparison
// narrows an unsigned variable.  Every test the narrowed values decide goes,
// and with it the return of -1 they guarded.
TEST_F(ScalarOpt, TestsNarrowValuesWithTheConstantOnEitherSide) {
    MiniFunction f{"f", {"a", "b"}, {"x", "y", "u:z"}};
    f.body = {"(= x (& a 15))", "(= y (& b 1))", "(= z (& a 7u))",
              "(if (>= 10 x) 1)",           // falls here when 10 < x: x is 11..15
              "(if (< x 6) 3)", "(ret x)",
              "L1:", "(if (> x 12) 3)",     // 10 >= x
              "(if (!= y 0) 4)", "(if (u< z 4u) 5)",
              "(if (u>= z 4u) 6)", "(ret 7)",  // z u< 4 did not hold: z is 4..7 here
              "L6:", "(if (u< z 3u) 3)", "(ret 8)",
              "L5:", "(if (u> z 5u) 3)", "(ret 9)",
              "L4:", "(if (== y 0) 3)", "(ret y)",  // y != 0: y is 1
              "L3:", "(ret -1)"};
    optimize(f, {"-o2"});
    for (const std::string& s : statements()) EXPECT_EQ(s.find("-1"), std::string::npos) << output;
    same_meaning(samples);
}

// A test against another variable bounds a value by what that variable may
// be: below i < n, with n at most 15, i is at most 14 and i > 20 never
// holds.  A test against an argument, which may be anything, decides
// nothing: i > b stays.
TEST_F(ScalarOpt, TestsAgainstOtherVariablesBoundValues) {
    MiniFunction f{"f", {"a", "b"}, {"s", "i", "n"}};
    f.body = {"(= n (& a 15))", "(= s 0)", "(= i 0)", "L1:", "(if (>= i n) 2)", "(if (> i 20) 3)", "(if (> i b) 4)",
              "(+= s i)", "(+= i 1)", "(goto 1)", "L2:", "(ret s)", "L3:", "(ret -1)", "L4:", "(ret -2)"};
    optimize(f, {"-o2", "--debug=skip_pass=37"});  // the loop stays a loop
    std::vector<std::string> st = statements();
    for (const std::string& s : st) EXPECT_EQ(s.find("-1"), std::string::npos) << output;
    EXPECT_NE(std::find_if(st.begin(), st.end(), [](const std::string& s) { return s.find("-2") != std::string::npos; }),
              st.end())
        << output;
    same_meaning(samples);
    // The bound grows as the outer loop goes on: the inner loop's values,
    // first seen against hi = 3 alone, are evaluated again as hi grows
    // (they once stayed {3}, and the sum read i as 3).
    MiniFunction g{"g", {"a", "b"}, {"s", "n", "hi", "i"}};
    g.body = {"(= s 0)", "(= n 0)", "L1:", "(if (>= n 12) 4)", "(= hi (+ n 3))", "(= i 3)", "L2:", "(if (>= i hi) 3)",
              "(+= s (* i a))", "(+= i 1)", "(goto 2)", "L3:", "(+= n 1)", "(goto 1)", "L4:", "(ret s)"};
    optimize(g, {"-o2"});
    same_meaning(samples);
}

TEST_F(ScalarOpt, LongLoopsKeepTheirBoundsAndStrides) {
    // i takes 500 values, many more than a value set holds or propagation
    // follows one by one: it is widened, and the loop's test brings its
    // bounds back, so i > 4000 never holds.  Its stride of 4 stays, so
    // i & 3 is 0.  After the loop i is 2000 and nothing else, so it is read
    // as the constant.
    MiniFunction f{"f", {"a", "b"}, {"s", "i"}};
    f.body = {"(= s 0)", "(= i 0)", "L1:", "(if (>= i 2000) 2)", "(if (> i 4000) 3)", "(if (!= (& i 3) 0) 3)",
              "(+= s (& i 3))", "(+= s a)", "(+= i 4)", "(goto 1)", "L2:", "(if (!= i 2000) 3)", "(ret (+ s i))",
              "L3:", "(ret -1)"};
    optimize(f);
    std::vector<std::string> st = statements();
    for (const std::string& s : st) {
        EXPECT_EQ(s.find("4000"), std::string::npos) << s;
        EXPECT_EQ(s.find("& 3"), std::string::npos) << s;
        EXPECT_EQ(s.find("!= 2000"), std::string::npos) << s;
        EXPECT_EQ(s.find("-1"), std::string::npos) << s;
    }
    // The read of i after the loop, where it can only be 2000, is 2000.
    EXPECT_NE(std::find(st.begin(), st.end(), "URETURN((s + 2000))"), st.end()) << output;
    same_meaning(samples);
}

TEST_F(ScalarOpt, CopiesReachReadsOnEveryPathUntilEitherSideChanges) {
    // x = y reaches both arms of the test, so x is read as y there; after
    // y changes, the return must still read x.  A copy that only one arm
    // makes reaches nothing past the join.
    MiniFunction f{"f", {"a", "b"}, {"s", "x", "y", "z"}};
    f.body = {"(= y (+ a 1))", "(= x y)",        "(= z b)",         "(if (< a 0) 1)", "(= s (* x 3))",
              "(= z y)",       "(goto 2)",       "L1:",             "(= s (+ x 3))",  "L2:",
              "(= s (+ s z))", "(= y (* b 5))",  "(ret (+ (+ s x) y))"};
    optimize(f, {"-o2", "--debug_file=dbg.txt"});
    std::vector<std::string> st = statements();
    auto has = [&](const std::string& s) { return std::find(st.begin(), st.end(), s) != st.end(); };
    EXPECT_TRUE(has("(s = (y * 3))")) << output;
    EXPECT_TRUE(has("(s = (y + 3))")) << output;
    EXPECT_TRUE(has("(s = (s + z))")) << output;
    bool return_reads_x = false;
    for (const std::string& s : st) return_reads_x |= s.rfind("URETURN", 0) == 0 && s.find('x') != std::string::npos;
    EXPECT_TRUE(return_reads_x) << output;
    EXPECT_NE(slurp(dir.path / "dbg.txt").find("Copy propagation: "), std::string::npos);
    same_meaning(samples);
}

TEST_F(ScalarOpt, DeadAssignmentsGoEvenWithoutPropagation) {
    // Only "fast_CP(0,1)": no value is propagated, but what is never read goes.
    MiniFunction f{"f", {"a", "b"}, {"x", "y"}};
    f.body = {"(= x 4)", "(= y (+ x 1))", "(ret (+ a x))"};
    optimize(f, {"-o2", "--forced_passes=25"});
    EXPECT_EQ(statements(), (std::vector<std::string>{"(x = 4)", "URETURN((a + x))"})) << output;
    same_meaning(samples);
}

TEST_F(ScalarOpt, PropagationStopsWhenNothingChanges) {
    MiniFunction f{"f", {"a", "b"}, {"x"}};
    f.body = {"(= x 4)", "(ret (+ a x))"};
    optimize(f, {"-o2", "--forced_passes=1", "--debug_file=dbg.txt"});
    EXPECT_EQ(statements(), (std::vector<std::string>{"URETURN((a + 4))"})) << output;
    std::string dbg = slurp(dir.path / "dbg.txt");
    // One iteration propagates x, the second finds nothing: two of the four.
    size_t n = 0;
    for (size_t at = dbg.find("ENTERING 'fast_CP'"); at != std::string::npos; at = dbg.find("ENTERING 'fast_CP'", at + 1)) ++n;
    EXPECT_EQ(n, 2u) << dbg;
    EXPECT_NE(dbg.find("Globally constant assignment: int x = 4"), std::string::npos) << dbg;
}

// c[i] = a[i] + b[i] for i from 0 while i < bound, over arrays of 16-bit ints.
MiniFunction array_loop(const std::string& bound, const std::string& value) {
    MiniFunction f{"f", {"n", "m"}, {"i"}};
    f.globals = {"a", "b", "c"};
    f.body = {"(= i 0)", "L1:", "(if (>= i " + bound + ") 2)", "(= (deref (+ (addr c) i)) " + value + ")", "(+= i 1)",
              "(goto 1)", "L2:", "(ret i)"};
    return f;
}
const char sum[] = "(+ (deref (+ (addr a) i)) (deref (+ (addr b) i)))";

bool has(const std::vector<std::string>& st, const std::string& s) { return std::find(st.begin(), st.end(), s) != st.end(); }

// The vectorizer's own output is looked at: the later step that turns the
// addresses into stepped pointers ("propagate increments", serial 45) is
// skipped.
const char keep_addresses[] = "--debug=skip_pass=45";

TEST_F(ScalarOpt, CountedLoopOver16BitArraysIsVectorized) {
    optimize(array_loop("n", sum), {"-o2", "--info_file=info.txt", keep_addresses});
    std::vector<std::string> st = statements();
    // A loop doing two elements at a time with the dual addition, in front
    // of the original loop, which does what is left.
    // (The test is in long: near the bottom of int, n - 2 would wrap.  With
    // i = 0 propagated, (long)i + 2 > (long)n is (long)n < 2.)
    EXPECT_TRUE(has(st, "CBRANCH((SCONV(n) < 2), L2)")) << output;
    EXPECT_TRUE(has(st, "(*PCONV((&c + i)) = (*PCONV((&a + i)) + *PCONV((&b + i))))")) << output;
    EXPECT_TRUE(has(st, "(i += 2)")) << output;
    EXPECT_TRUE(has(st, "(*(&c + i) = (*(&a + i) + *(&b + i)))")) << output;
    EXPECT_NE(output.find("b:20 n:1 n:2 b:1 n:32 n:32"), std::string::npos) << output;  // int vector of 2
    std::string info = slurp(dir.path / "info.txt");
    EXPECT_NE(info.find("Pain for loop #1: SF=1, time=6, space=6, ptime=0, pspace=0, pain=480\n"), std::string::npos)
        << info;
    EXPECT_NE(info.find("Pain for loop #1: SF=2, time=6, space=6, ptime=6, pspace=6, pain=294\n"), std::string::npos)
        << info;
    EXPECT_NE(info.find("  Unrolling and vectorizing loop #1 at lines 3-6 by a factor of 2x.\n"), std::string::npos)
        << info;
    EXPECT_NE(info.find("so we will add a 'peeled' loop for\n  the last few iterations.  Its iteration count is at most 1."),
              std::string::npos)
        << info;
    same_meaning({{0, 0}, {1, 0}, {2, 0}, {7, 0}, {10, 0}, {100, 0}, {-4, 0}, {-32767, 0}, {-32768, 0}});
}

// debug:conservative_vec leaves a loop scalar rather than add a peeled loop;
// debug:SIMD lists the vector forms chosen.
TEST_F(ScalarOpt, VectorizationSwitchesDecideAndShow) {
    optimize(array_loop("n", sum), {"-o2", "--debug_file=dbg.txt", "--debug=skip_pass=45,conservative_vec"});
    EXPECT_FALSE(has(statements(), "(i += 2)")) << output;
    EXPECT_NE(slurp(dir.path / "dbg.txt").find(" simd-peeling DISABLED\n"), std::string::npos);
    same_meaning({{0, 0}, {1, 0}, {7, 0}, {-4, 0}});
    optimize(array_loop("8", sum), {"-o2", "--debug_file=dbg.txt", "--debug=skip_pass=45,conservative_vec"});
    EXPECT_TRUE(has(statements(), "(i += 2)")) << output;  // 8 divides by 2: no peeled loop
    optimize(array_loop("n", sum), {"-o2", "--debug_file=dbg.txt", "--debug=skip_pass=45,SIMD"});
    EXPECT_TRUE(has(statements(), "(i += 2)")) << output;
    std::string listing = slurp(dir.path / "dbg.txt");
    EXPECT_NE(listing.find("  SIMD form (SF=2): "), std::string::npos) << listing.substr(0, 2000);
    EXPECT_EQ(listing.find(" simd-peeling DISABLED"), std::string::npos);
}

TEST_F(ScalarOpt, ShortConstantLoopsAreUnrolledCompletely) {
    // Five iterations: the factor 2 is half of them, so it doubles to 4 and
    // two dual additions replace the loop but for one last iteration.
    optimize(array_loop("5", sum), {"-o2", "--info_file=info.txt", keep_addresses});
    std::vector<std::string> st = statements();
    // i = 0 propagates into both dual additions.
    EXPECT_TRUE(has(st, "(*PCONV(&c) = (*PCONV(&a) + *PCONV(&b)))")) << output;
    EXPECT_TRUE(has(st, "(*PCONV((&c + 2)) = (*PCONV((&a + 2)) + *PCONV((&b + 2))))")) << output;
    EXPECT_TRUE(has(st, "(i = 4)")) << output;  // i += 4 after i = 0
    for (const std::string& s : st) EXPECT_EQ(s.find("(i > "), std::string::npos) << s;
    std::string info = slurp(dir.path / "info.txt");
    EXPECT_NE(info.find("\nUnrolling loop #1 completely.\n  Completely unrolling and vectorizing loop #1 at lines 3-6 "
                        "by a factor of 4x.\n  This loop has 5 iterations.\n"),
              std::string::npos)
        << info;
    EXPECT_NE(info.find("Its iteration count is 1.\n"), std::string::npos) << info;
    same_meaning({{0, 0}});
    // Ten iterations: a vector loop, which does all of them; the original
    // loop is gone.
    optimize(array_loop("10", sum), {"-o2", "--info_file=info.txt", keep_addresses});
    st = statements();
    EXPECT_TRUE(has(st, "CBRANCH(((SCONV(i) + 2) <= 10), L1)")) << output;  // at the bottom
    EXPECT_FALSE(has(st, "(i += 1)")) << output;
    EXPECT_EQ(st.size(), 5u) << output;  // i = 0, the vector loop's three statements, the return
    // Four iterations: two dual additions and nothing else; the counter's
    // last value is returned as a constant.
    optimize(array_loop("4", sum), {"-o2", keep_addresses});
    st = statements();
    EXPECT_EQ(st.size(), 3u) << output;
    EXPECT_TRUE(has(st, "URETURN(4)")) << output;
    same_meaning({{0, 0}});
    info = slurp(dir.path / "info.txt");
    EXPECT_NE(info.find("  This loop has 10 iterations.\n"), std::string::npos) << info;
    EXPECT_EQ(info.find("peeled"), std::string::npos) << info;
    same_meaning({{0, 0}});
}

// A loop whose trip count is known at run time, unrolled: the jump to the
// left-over iterations is a switch on the trip count's remainder, written
// with the number of its cases (three for four copies), and the function
// means what it meant for every count.
TEST_F(ScalarOpt, RunTimeUnrollingJumpsToTheLeftOverIterations) {
    MiniFunction f = array_loop("n", "(* 3 (deref (+ (addr a) i)))");
    optimize(f, {"-o2"});
    std::vector<std::string> st = statements();
    size_t switches = 0;
    for (const std::string& s : st) switches += s.rfind("SWITCH(", 0) == 0;
    EXPECT_EQ(switches, 1u) << output;
    EXPECT_NE(output.find("node b:40 n:3 n:3\n"), std::string::npos) << output;
    same_meaning({{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}, {7, 0}, {8, 0}, {-3, 0}});
}

// The pointers the induction step makes start from the counter's first
// value, which folds in; the counter then goes with its assignment.  (The
// loop is kept rolled: unrolled, its left-over iterations would come first.)
TEST_F(ScalarOpt, SteppedPointersStartFromTheCountersFirstValue) {
    MiniFunction f = array_loop("n", "(* 3 (deref (+ (addr a) i)))");
    f.body.back() = "(ret n)";
    optimize(f, {"-o2", "--debug=skip_pass=37"});
    std::vector<std::string> st = statements();
    EXPECT_TRUE(has(st, "(i.p1 = &a)")) << output;
    EXPECT_TRUE(has(st, "(i.p2 = &c)")) << output;
    for (const std::string& s : st) EXPECT_EQ(s.find("(i = 0)"), std::string::npos) << s;
    same_meaning({{0, 0}, {1, 0}, {7, 0}, {-3, 0}});
}

// A pointer stepped at the bottom of a loop whose body branches: the step
// joins the access at the top, as no path between them names the pointer.
// q is read before the loop and after it only: its step stays where it is.
TEST_F(ScalarOpt, PointerStepsJoinAccessesAcrossBranches) {
    MiniFunction f{"f", {"n", "m"}, {"s", "v", "w", "p:p", "p:q"}};
    f.globals = {"a"};
    f.body = {"(= p (addr a))", "(= q (addr a))", "(= w (deref q))", "(= s 0)", "L1:", "(= v (deref p))",
              "(if (< v m) 2)", "(= s (+ s v))", "(goto 3)", "L2:", "(= s (- s 1))", "L3:", "(+= p 1)", "(+= q 1)",
              "(+= n -1)", "(if (> n 0) 1)", "(ret (+ (+ s w) (deref q)))"};
    optimize(f, {"-o2"});
    std::vector<std::string> st = statements();
    EXPECT_TRUE(has(st, "(v = *PLUSPLUS(p, 1))")) << output;
    EXPECT_TRUE(has(st, "(q += 1)")) << output;
    same_meaning({{1, 0}, {5, 3}, {50, -2}});
}

TEST_F(ScalarOpt, LoopsThatCannotBeVectorizedStayAsTheyAre) {
    // A division has no vector form; -o1 does not vectorize.
    for (auto [value, level] : {std::pair<std::string, const char*>{"(/ (deref (+ (addr a) i)) 3)", "-o2"},
                                {sum, "-o1"}}) {
        optimize(array_loop("n", value), {level});
        for (const std::string& s : statements()) EXPECT_EQ(s.find("PCONV"), std::string::npos) << s;
        same_meaning({{0, 0}, {5, 0}, {12, 0}});
    }
    // An operator the optimizer has no row for (49) is left alone.
    std::string text = array_loop("n", sum).text();
    size_t plus = text.find("node b:6 n:1\n");
    ASSERT_NE(plus, std::string::npos);
    text.replace(plus, 12, "node b:49 n:1");
    ASSERT_EQ(assemble(text, dir.path / "odd.if"), "");
    Result r = run_program(OPT5_BINARY, {"-o2", "odd.if", "odd_out.if"}, dir.path);
    EXPECT_EQ(r.status, 0) << r.err;
    // Storing through a pointer that may point into the arrays read is unsafe.
    MiniFunction f{"f", {"p:p", "n"}, {"i"}};
    f.globals = {"a", "b"};
    f.body = {"(= i 0)", "L1:", "(if (>= i n) 2)", "(= (deref (+ p i)) (deref (+ (addr a) i)))", "(+= i 1)",
              "(goto 1)", "L2:", "(ret i)"};
    optimize(f, {"-o2", "--info_file=info.txt"});
    for (const std::string& s : statements()) EXPECT_EQ(s.find("PCONV"), std::string::npos) << s;
    // The report names the store's statement by its line (the fourth of the unit).
    std::string info = slurp(dir.path / "info.txt");
    EXPECT_NE(info.find("\tmaking vectorization for either statement unsafe."), std::string::npos) << info;
    EXPECT_NE(info.find("  (line 4)\n"), std::string::npos) << info;
}

TEST_F(ScalarOpt, NeighbouringElementOperationsBecomeOneDualOperation) {
    MiniFunction f{"f", {"n", "m"}, {}};
    f.globals = {"a", "b", "c"};
    auto at = [](const char* array, int k) {
        return std::string("(deref (+ (addr ") + array + ") " + std::to_string(k) + "))";
    };
    // c[5] = a[5] - b[5]; c[4] = a[4] - b[4]: one dual subtraction at
    // element 4.  c[8] = c[7] * 2 ... reads what the first one stores: no.
    f.body = {"(= " + at("c", 5) + " (- " + at("a", 5) + " " + at("b", 5) + "))",
              "(= " + at("c", 4) + " (- " + at("a", 4) + " " + at("b", 4) + "))",
              "(= " + at("c", 8) + " (+ " + at("c", 8) + " " + at("a", 8) + "))",
              "(= " + at("c", 9) + " (+ " + at("c", 8) + " " + at("a", 9) + "))", "(ret n)"};
    optimize(f);
    std::vector<std::string> st = statements();
    EXPECT_TRUE(has(st, "(*PCONV((&c + 4)) = (*PCONV((&a + 4)) - *PCONV((&b + 4))))")) << output;
    // c[9] reads the value stored to c[8] (from a temporary): they stay apart.
    EXPECT_TRUE(has(st, "(c.s1 = (*(&c + 8) + *(&a + 8)))")) << output;
    EXPECT_TRUE(has(st, "(*(&c + 8) = c.s1)")) << output;
    EXPECT_TRUE(has(st, "(*(&c + 9) = (c.s1 + *(&a + 9)))")) << output;
    same_meaning({{0, 0}});
    // Without the ILP step nothing is joined.
    optimize(f, {"-o2", "--disable=ilp"});
    for (const std::string& s : statements()) EXPECT_EQ(s.find("PCONV"), std::string::npos) << s;
}

// x = e; x = f(x) is one statement x = f(e) also when e reads x: each
// round of the hash is one assignment.
TEST_F(ScalarOpt, AssignmentsThatReadTheirOwnVariableCombine) {
    MiniFunction f{"f", {"a", "b"}, {"h", "i"}};
    f.body = {"(= h a)", "(= i 0)", "L1:", "(= h (+ (* h 33) i))", "(= h (^ (* h 33) b))", "(+= i 1)",
              "(if (< i b) 1)", "(ret h)"};
    optimize(f);
    int assignments = 0;
    for (const std::string& s : statements())
        if (s.rfind("(h = ", 0) == 0) ++assignments;
    EXPECT_EQ(assignments, 2) << output;  // h = a before the loop, one in it
    same_meaning(samples);
}

// "merge symbols" alone: temporaries joined by copies take one name and the
// copies go, while copies whose sides are both needed at once, or that
// join two variables of the source, stay.
constexpr const char* MERGE_SYMBOLS_ONLY = "--forced_passes=36";

bool is_plain_copy(const std::string& s) {
    // "(x = y)" with two names.
    if (s.size() < 7 || s.front() != '(' || s.back() != ')') return false;
    size_t eq = s.find(" = ");
    if (eq == std::string::npos || !std::isalpha(static_cast<unsigned char>(s[eq + 3]))) return false;
    for (const std::string& side : {s.substr(1, eq - 1), s.substr(eq + 3, s.size() - eq - 4)})
        for (char c : side)
            if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_') return false;
    return true;
}

TEST_F(ScalarOpt, CopiedTemporariesBecomeOneVariable) {
    MiniFunction f{"f", {"a", "b"}, {"i", "s", "t.1", "t.2", "t.3"}};
    f.body = {"(= i 0)", "(= s b)", "(= t.1 a)", "L1:", "(= t.2 t.1)", "(= t.3 (+ t.2 i))", "(= t.1 t.3)",
              "(+= s t.1)", "(+= i 1)", "(if (< i 10) 1)", "(ret (^ s t.1))"};
    optimize(f, {"-o2", MERGE_SYMBOLS_ONLY});
    // All three temporaries and the argument they start from are one; s
    // and b are both variables of the source.
    for (const std::string& s : statements()) {
        EXPECT_TRUE(!is_plain_copy(s) || s == "(s = b)") << s << "\n" << output;
        EXPECT_EQ(s.find("t."), std::string::npos) << s;
    }
    same_meaning(samples);
}

TEST_F(ScalarOpt, CopiesWhoseSidesAreNeededTogetherStay) {
    // t.2 copies t.1, which a statement then sets while reading t.2; y and
    // z are variables of the source; t.3 copies b, which changes while t.3
    // is still to be read.
    MiniFunction f{"f", {"a", "b"}, {"s", "y", "z", "t.1", "t.2", "t.3"}};
    f.body = {"(= t.1 (* a 3))", "(= t.2 t.1)", "(= s (+ (= t.1 b) t.2))", "(= t.3 b)", "(+= b 5)",
              "(= y (* s 7))", "(= z y)", "(ret (+ (+ (+ s t.1) (* t.3 b)) (* z 9)))"};
    optimize(f, {"-o2", MERGE_SYMBOLS_ONLY});
    std::vector<std::string> copies;
    for (const std::string& s : statements())
        if (is_plain_copy(s)) copies.push_back(s);
    EXPECT_EQ(copies, (std::vector<std::string>{"(t.2 = t.1)", "(t.3 = b)", "(z = y)"})) << output;
    same_meaning(samples);
}

// Every single-bit change of a unit the optimizing steps work hard on: the
// run ends with 0 or 1 and never crashes.
TEST_F(ScalarOpt, DamagedOptimizableUnitsNeverCrash) {
    MiniFunction f = array_loop("n", sum);
    f.locals.push_back("s");
    f.body.insert(f.body.begin() + 4, "(+= s (deref (+ (addr a) i)))");
    f.body.push_back("(ret (+ s (* i 4)))");
    ASSERT_EQ(assemble(f.text(), dir.path / "good.if"), "");
    std::string good = slurp(dir.path / "good.if");
    int crashes = 0;
    for (size_t i = 1; i < good.size(); ++i) {
        std::string bad = good;
        bad[i] = static_cast<char>(bad[i] ^ (1 << (i % 8)));
        spit(dir.path / "bad.if", bad);
        Result r = run_program(OPT5_BINARY, {"-o3", "bad.if", "bad_out.if"}, dir.path);
        if (!r.exited || (r.status != 0 && r.status != 1)) {
            ++crashes;
            ADD_FAILURE() << "byte " << i << ": " << r.err;
        }
        if (crashes > 3) break;
    }
}

}  // namespace
