// The whole-unit steps: globals that keep their initial values, constants
// passed to and returned from the functions only this unit calls.  C
// programs whose globals and functions are reachable in every way the
// steps must respect run the same at every level, and the information
// file says what was done.
#include <gtest/gtest.h>

#include <string>

#include "ifcc_util.h"

namespace {

class Interprocedural : public CProgramTest {
protected:
    // The optimisation information of the unit at -o2.
    std::string info() {
        fs::path file = dir.path / "o2.info";
        run(std::vector<std::string>{"-o2", "--info_file=" + file.string()});
        return slurp(file);
    }
    static bool has(const std::string& text, const std::string& line) { return text.find(line) != std::string::npos; }
};

TEST_F(Interprocedural, GlobalsThatNothingWritesAreReadAsTheirInitialValues) {
    compile(R"(#include <stdio.h>
static int k = 7;                        /* folded */
static const long table[4] = {100000, -5, 70000, 3};  /* folded where the index is known */
static int zero;                         /* no initializer: folded as 0 */
static int bumped = 1;                   /* written */
int shared = 9;                          /* other units may write it */
static int through = 4;                  /* its address is passed */
static int in_data = 6;                  /* an initializer holds its address */
static int *const where = &in_data;
static volatile int vol = 2;             /* volatile */
static void set(int *p, int v) { *p = v; }
static int scaled(int x) { return x * k + zero; }
int main(void) {
    long s = 0;
    for (int i = 0; i < 4; i++) s += table[i] + table[1];
    set(&through, 11);
    *where = 12;
    bumped += 2;
    printf("%ld %d %d %d %d %d %d\n", s, scaled(3), bumped, shared, through, in_data, vol);
    return k - 7;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    EXPECT_EQ(reference.output, "169978 21 3 9 11 12 2\n");
    std::string text = info();
    EXPECT_TRUE(has(text, "Function scaled(): 1 read of 'k', which nothing writes, takes its initial value.")) << text;
    EXPECT_TRUE(has(text, "Function scaled(): 1 read of 'zero'")) << text;
    EXPECT_TRUE(has(text, "Function main(): 1 read of 'table'")) << text;  // table[1]; table[i] stays
    for (const char* kept : {"'bumped'", "'shared'", "'through'", "'in_data'", "'vol'"})
        EXPECT_FALSE(has(text, kept)) << kept << "\n" << text;
    // Under --volatile_all every access to a global is volatile: none is folded.
    fs::path all = dir.path / "volatile.info";
    IFRUN_RESULT r = run(std::vector<std::string>{"-o2", "--volatile_all", "--info_file=" + all.string()});
    EXPECT_EQ(r.output, reference.output);
    EXPECT_FALSE(has(slurp(all), "initial value")) << slurp(all);
}

// In a unit at level 0, the one function whose own option set says level
// 2 reads the global nothing writes as its initial value and takes the
// constant it is always passed; the others are left as they are.
TEST_F(Interprocedural, OnlyFunctionsOptimizedAtLevelTwoTakeTheConstants) {
    compile(R"(#include <stdio.h>
static int k = 7;
static int at_two(int v) { return v * k; }
static int at_zero(int v) { return v + k; }
int main(void) { printf("%d %d\n", at_two(3), at_zero(3)); return 0; }
)");
    IFRUN_RESULT reference = run("");
    give_function_option("at_two", "--opt_level=2");
    fs::path file = dir.path / "o0.info";
    IFRUN_RESULT r = run(std::vector<std::string>{"-o0", "--info_file=" + file.string()});
    EXPECT_EQ(r.output, reference.output);
    std::string text = slurp(file);
    EXPECT_TRUE(has(text, "Function at_two(): 1 read of 'k', which nothing writes, takes its initial value.")) << text;
    EXPECT_TRUE(has(text, "Function at_two(): parameter 'v' is 3 at every call.")) << text;
    EXPECT_FALSE(has(text, "Function at_zero()")) << text;
}

TEST_F(Interprocedural, ConstantsCrossTheCallsOfFunctionsOnlyThisUnitCalls) {
    compile(R"(#include <stdio.h>
static int scale(int x, int by) { return x * by; }      /* by is 5 at every call */
static int shift(int x, int by) { return x << by; }     /* by varies */
static int offset(int x, int by) { return x + by; }     /* also called through a pointer with 9 */
static int (*volatile via)(int, int) = offset;
static int three(int x) { if (x > 10) return 3; return 3; }
static int mixed(int x) { if (x) return 1; return 2; }
int visible(int by) { return by + 1; }                  /* other units may call it */
int main(void) {
    long s = 0;
    for (int i = 0; i < 6; i++) s += scale(i, 5) + shift(i, i & 3) + offset(i, 2);
    int t = three((int)s);
    int m = mixed(t - 3);
    s += via(1, 9) + visible(4);
    printf("%ld %d %d\n", s, t, m);
    return three(1) - 3;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    std::string text = info();
    EXPECT_TRUE(has(text, "Function scale(): parameter 'by' is 5 at every call.")) << text;
    EXPECT_TRUE(has(text, "the call of three() gives 3, the only value it returns.")) << text;
    for (const char* kept : {"Function shift(): parameter", "Function offset(): parameter",
                             "Function visible(): parameter", "mixed() gives"})
        EXPECT_FALSE(has(text, kept)) << kept << "\n" << text;
}

// The debug listing shows the call graph after inlining, callees first.
TEST_F(Interprocedural, TheCallGraphIsListedCalleesFirst) {
    compile(R"(#include <stdio.h>
static int fact(int n) { return n <= 1 ? 1 : n * fact(n - 1); }
int twice(int n) { return fact(n) * 2; }
int main(void) { printf("%d\n", twice(5)); return 0; })");
    fs::path listing = dir.path / "o2.dbg";
    run(std::vector<std::string>{"-o2", "--debug_file=" + listing.string(), "--debug=dump_minimal"});
    std::string text = slurp(listing);
    size_t graph = text.find("Call graph: 3 defined functions, callees first\n");
    ASSERT_NE(graph, std::string::npos) << text;
    size_t fact = text.find("  fact() static recursive calls fact()\n", graph);
    size_t twice = text.find("  twice() calls fact()\n", graph);
    size_t main = text.find("  main() calls", graph);
    EXPECT_NE(fact, std::string::npos);
    EXPECT_NE(twice, std::string::npos);
    EXPECT_NE(main, std::string::npos);
    EXPECT_LT(fact, twice);
    EXPECT_LT(twice, main);
}

// Recursion is found at every level when the information file asks for it
// (at level 0 nothing else reads the functions for it).
TEST_F(Interprocedural, RecursiveFunctionsAreNamedAtEveryLevel) {
    compile(R"(#include <stdio.h>
static int fact(int n) { return n <= 1 ? 1 : n * fact(n - 1); }
static int even(int n);
static int odd(int n) { return n ? even(n - 1) : 0; }
static int even(int n) { return n ? odd(n - 1) : 1; }
int main(void) { printf("%d %d\n", fact(5), even(7)); return 0; })");
    for (const char* level : {"-o0", "-o2"}) {
        fs::path file = dir.path / (std::string(level) + ".info");
        run(std::vector<std::string>{level, "--info_file=" + file.string()});
        std::string text = slurp(file);
        for (const char* fn : {"fact", "odd", "even"})
            EXPECT_TRUE(has(text, std::string("Function ") + fn + "() is recursive.")) << level << " " << fn << "\n" << text;
        EXPECT_FALSE(has(text, "Function main() is recursive.")) << level;
    }
}

// After inlining, the static functions nothing can reach any more are not
// written; those reachable from outside, through a pointer or from a kept
// function stay.
TEST_F(Interprocedural, StaticFunctionsNothingCallsAnyMoreAreNotWritten) {
    compile(R"(#include <stdio.h>
static int leaf(int v) { return v * 3 + 1; }             /* inlined everywhere */
static int only_from_leafy(int v) { return v - 2; }
static int leafy(int v) { return only_from_leafy(v) + leaf(v); }   /* inlined: takes its callee along */
static int by_pointer(int v) { return v ^ 5; }
static int (*volatile fp)(int) = by_pointer;
static int fact(int n) { return n <= 1 ? 1 : n * fact(n - 1); }   /* recursive: stays a call */
static int unused(int v) { return v + 100; }             /* never called */
int visible(int v) { return leaf(v) + 1; }               /* other units may call it */
int main(void) {
    int s = 0;
    for (int i = 0; i < 5; i++) s += leaf(i) + leafy(i) + fp(i);
    printf("%d %d %d\n", s, fact(5), visible(2));
    return 0;
})");
    expect_same_at_every_level();
    std::string text = info();
    for (const char* gone : {"leaf", "leafy", "only_from_leafy", "unused"})
        EXPECT_TRUE(has(text, std::string("Function ") + gone + "() is not written")) << gone << "\n" << text;
    for (const char* kept : {"by_pointer", "fact", "visible", "main"})
        EXPECT_FALSE(has(text, std::string("Function ") + kept + "() is not written")) << kept << "\n" << text;
}

}  // namespace
