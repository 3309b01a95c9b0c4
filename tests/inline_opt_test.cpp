// Automatic inlining: C programs whose calls take every shape the step
// rewrites (and ones it must leave) run the same at every level, and the
// cost model decides as its level, goal and switches say.
#include <gtest/gtest.h>

#include <string>

#include "ifcc_util.h"

namespace {

class InlineOpt : public CProgramTest {
protected:
    uint64_t calls(const IFRUN_RESULT& r) { return ops(r, "CALL") + ops(r, "UCALL"); }
};

TEST_F(InlineOpt, CopiedBodiesComputeWhatTheCallsComputed) {
    compile(R"(#include <stdio.h>
static int g;
static int counter(void) { static int n; return ++n; }          /* a static local */
static short narrow(short v) { return (short)(v * 3); }          /* conversions both ways */
static int clamp(int v, int lo, int hi) {                        /* early returns */
    if (v < lo) return lo;
    if (v > hi) return hi;
    return v;
}
static void bump(int *p, int by) { *p += by; g += by; }           /* void, through a pointer */
static int sum_to(int n) {                                       /* a loop with labels */
    int s = 0;
    for (int i = 0; i < n; i++) {
        if (i == 7) continue;
        s += i;
    }
    return s;
}
static int twice(int v) { return clamp(v, -50, 50) * 2; }         /* a call inside a copy */
static int change_param(int v) { v += 10; return v; }            /* its own copy of the argument */
static int fact(int n) { return n <= 1 ? 1 : n * fact(n - 1); }  /* recursive */
static int odd(int n);
static int even(int n) { return n == 0 ? 1 : odd(n - 1); }      /* a cycle of two */
static int odd(int n) { return n == 0 ? 0 : even(n - 1); }
static int read_g(void) { return g; }
static int add(int a, int b) { return a + b; }
static int (*volatile through)(int, int) = add;
int main(void) {
    long total = 0;
    int x = 5;
    for (int i = -70; i < 70; i += 9) {
        total += clamp(i, -20, 30);
        long wide = narrow((short)i);                            /* the value converted */
        total += wide + twice(i) + twice(-i);
        bump(&x, i);
        total += change_param(x) - x;
        total += read_g();
    }
    total += sum_to(12) + sum_to(3);
    printf("%ld %d %d %d %d\n", total, x, g, fact(6), even(7) + odd(9));
    printf("%d %d %d %d\n", counter(), counter(), through(3, 4), add(x, 1));
    return clamp(x, 0, 100);
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    // At -o2 only these calls are still made: the recursive functions, the
    // call through a pointer, printf, and add, which follows the call
    // through a pointer in its statement (that call might change what add
    // reads).  At -o1 every call stays.
    IFRUN_RESULT o1 = run("-o1"), o2 = run("-o2");
    EXPECT_EQ(calls(o1), calls(reference));
    uint64_t remaining = 6 /* fact(6) */ + 8 /* even(7) */ + 10 /* odd(9) */ + 1 /* through */ + 2 /* printf */ +
                         1 /* add */;
    EXPECT_EQ(calls(o2), remaining);
}

// A copy's pointer parameters that hold the addresses of the caller's
// locals: what the copy reads and writes through them are the locals.
TEST_F(InlineOpt, PointersToLocalsBecomeTheLocals) {
    compile(R"(#include <stdio.h>
static void count_bits(int *n, int *run, int v) {
    for (int k = 0; k < 4; k++) {
        int b = (v >> k) & 1;
        *run = b ? *run + 1 : 0;
        *n += b;
    }
}
int main(void) {
    int n = 0, run = 0;
    for (int v = 0; v < 20; v++) count_bits(&n, &run, v);
    printf("%d %d\n", n, run);
    return n;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    EXPECT_GT(ops(reference, "UMULT"), 0u);
    EXPECT_EQ(ops(run("-o2"), "UMULT"), 0u);
}

// Comma lists become statements of their own where they run whenever the
// statement does, in their order; the calls in them are then inlined.
// Under && and || and in the arms of ?: they stay where they are.
TEST_F(InlineOpt, CommaListsRunInTheirOrderAndOnlyWhenTheyWould) {
    compile(R"(#include <stdio.h>
int n = 3, k = 0, seen = 0;
static int note(int v) { seen = seen * 3 + v; return v; }
int main(void) {
    int t, m, u = n;
    int r = u > 100 && (k = 7, note(1));        /* never runs */
    int q = u < 100 || (k = 9, note(2));        /* never runs */
    int s = n ? (u = 4, note(3) + u) : (u = 5, note(4));
    int v = (t = u, u = 11, note(5), t + u);
    int w = (m = 2, m * note(6));
    int z = note((note(7), 8));
    printf("%d %d %d %d %d %d %d %d %d\n", r, q, k, s, u, v, w, z, seen);
    return 0;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    EXPECT_EQ(reference.output, "0 1 0 7 11 15 12 8 461\n");
    EXPECT_EQ(calls(run("-o2")), 2u);  // printf, and note(3) in an arm of ?:
}

// The level, the size/speed goal and the switches decide.
TEST_F(InlineOpt, TheCostModelFollowsLevelGoalAndSwitches) {
    compile(R"(
static int tiny(int v) { return v + 1; }
static int larger(int v) {
    int s = v;
    for (int k = 0; k < 3; k++) {
        s = s * 5 + k;
        if (s > 1000) s -= 997;
        if (s < -1000) s += 991;
    }
    return s ^ (v << 1);
}
int main(void) {
    int t = 0;
    for (int i = 0; i < 20; i++) t += tiny(i) + larger(i);  /* both copied, one after the other */
    return t & 0x7fff;
})");
    IFRUN_RESULT reference = run("");
    ASSERT_TRUE(reference.ok);
    auto check = [&](const std::vector<std::string>& options, uint64_t expected_calls) {
        IFRUN_RESULT r = run(options);
        EXPECT_EQ(r.value, reference.value) << options.back();
        EXPECT_EQ(calls(r), expected_calls) << options.back();
    };
    check({"-o2"}, 0);
    check({"-o1"}, 40);
    check({"-o2", "--disable=newinline"}, 40);
    check({"-o2", "--opt_for_speed=0"}, 20);                 // smallest code: only the tiny body
    check({"-o2", "--debug=inline_small_limit=4"}, 20);      // a limit only the tiny body meets
    check({"-o2", "--debug=inline_n=1"}, 20);                // one call site replaced
}

// In a unit at level 0, a function whose own option set says level 2
// inlines what it calls (a copy is kept of what a function at level 2
// calls); the functions at level 0 keep their calls.
TEST_F(InlineOpt, OnlyFunctionsOptimizedAtLevelTwoInline) {
    compile(R"(#include <stdio.h>
static int scale(int v) { return v * 3 + 1; }
int at_two(int v) { return scale(v) + scale(v + 1); }
int at_zero(int v) { return scale(v) - 2; }
int main(void) { printf("%d %d\n", at_two(4), at_zero(5)); return 0; }
)");
    IFRUN_RESULT reference = run("");
    ASSERT_TRUE(reference.ok);
    give_function_option("at_two", "--opt_level=2");
    IFRUN_RESULT r = run(std::vector<std::string>{"-o0"});
    EXPECT_EQ(r.output, reference.output);
    EXPECT_EQ(calls(reference), 6u);  // main's three, at_two's two, at_zero's one
    EXPECT_EQ(calls(r), 4u);
}

}  // namespace
