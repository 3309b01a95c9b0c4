// Common subexpressions: values read again from the variable that holds
// them, unless something in between may have changed what they read.
#include <gtest/gtest.h>

#include <string>

#include "ifcc_util.h"

namespace {

class CommonSubexpressions : public CProgramTest {};

// Every way an expression's value can change between two computations of
// it: its variables assigned, its memory stored to through an alias, a
// call, a store to an overlapping field; and the ways it can't: stores to
// other objects and other fields.
TEST_F(CommonSubexpressions, KeptValuesAreNeverStale) {
    compile(R"(#include <stdio.h>
struct pair { short lo, hi; };
static int a[8], b[8];
static int g;
static struct pair pr;
static void touch(void) { a[1]++; g++; }
int main(void) {
    int *p = a + 1, *volatile vp = b;
    long sum = 0;
    for (int i = 0; i < 6; i++) {
        int x = a[i] * 3;
        b[i] = 7;                       /* another object */
        int y = a[i] * 3;
        a[2] = x + 1;                   /* may be a[i] */
        int z = a[i] * 3;
        *p = z - 1;                     /* an alias of a[1] */
        int w = a[i] * 3;
        touch();                        /* a call */
        int u = a[i] * 3;
        int q = g + i;
        g = q * 2;                      /* a global read by the expression */
        int r = g + i;
        pr.lo = (short)i;
        int s = pr.hi + 1;
        pr.lo = (short)(s + 1);         /* another field */
        int t = pr.hi + 1;
        pr.hi = (short)(t * 3);         /* the same field */
        int v = pr.hi + 1;
        int k = i + 1;
        i = i + 0;                      /* the variable read, assigned */
        int m = i + 1;
        if (k > 3) sum += m;            /* a block entered from one other */
        int n = i + 1;
        sum += x + y + z + w + u + q + r + s + t + v + k + m + n + *vp;
    }
    printf("%ld %d %d %d %d\n", sum, a[1], a[2], g, pr.hi);
    return 0;
})");
    expect_same_at_every_level();
}

// Three reads of the same elements become one each.
TEST_F(CommonSubexpressions, RepeatedLoadsAreReadOnce) {
    compile(R"(
static const short vals[] = {3, -1, 4, 1, -5, 9, 2, -6};
int main(void) {
    int h = 0;
    for (int i = 0; i < 8; i++)
        for (int j = 0; j < 8; j++) {
            int s = vals[i] + vals[j];
            int d = vals[i] - vals[j];
            int m = vals[i] * vals[j];
            h = h * 3 + s + d * 5 + m;
        }
    return h & 0x7fff;
})");
    IFRUN_RESULT reference = run(""), o2 = run("-o2");
    ASSERT_TRUE(reference.ok && o2.ok);
    EXPECT_EQ(o2.value, reference.value);
    EXPECT_GE(ops(reference, "UMULT"), 6u * 64);
    EXPECT_LE(ops(o2, "UMULT"), 2u * 64 + 8);
}

// A const element read again is read from the variable that holds it; the
// copies that makes (one inlined function's parameters from another's) are
// propagated like any other, the qualifier of the element notwithstanding.
TEST_F(CommonSubexpressions, ReusedConstLoadsLeaveNoCopies) {
    compile(R"(
static const short vals[] = {3, -1, 4, 1, -5, 9, 2, -6};
static short add(short a, short b) { return (short)(a + b); }
static short sub(short a, short b) { return (short)(a - b); }
int main(void) {
    int h = 0;
    for (int i = 0; i < 8; i++) h = h * 3 + add(vals[i], vals[7 - i]) + sub(vals[i], vals[7 - i]);
    return h & 0x7fff;
})");
    IFRUN_RESULT reference = run(""), o2 = run("-o2");
    ASSERT_TRUE(reference.ok && o2.ok);
    EXPECT_EQ(o2.value, reference.value);
    // Per iteration: the two loads, the two results and h.
    EXPECT_LE(ops(o2, "ASG"), 5u * 8 + 4);
}

// Two blocks entered from one both compute again what it computed: the
// temporary is made once, for both.
TEST_F(CommonSubexpressions, BranchesShareOneTemporary) {
    compile(R"(
static int a[4] = {5, -3, 8, 1};
int pick(int i, int c) {
    int x = a[i] * 3 + a[i + 1];
    if (c) x += a[i] * 3 + 7;
    else x -= a[i] * 3 - 7;
    return x;
}
static volatile int one = 1, two = 2;
int main(void) { return pick(one, 0) * 100 + pick(two, one); }
)");
    IFRUN_RESULT reference = run("");
    ASSERT_TRUE(reference.ok);
    for (const char* level : {"-o2", "-o3"}) EXPECT_EQ(run(level).value, reference.value) << level;
}

// After a join or around a loop, what the dominating block computed is
// read again only when nothing on the ways there may have changed it: a
// store to the same array or a call on one of the ways keeps the loads.
TEST_F(CommonSubexpressions, JoinsAndLoopsReuseWhatNothingOnTheWayChanges) {
    compile(R"(
int g[12];
int h;
static void bump(int v) { h += v; }
static void (*volatile opaque)(int) = bump;
int f(int i, int c) {
    int a = g[i] * 3 + g[i + 1];
    if (c > 2) h = a; else h = -a;
    int b = g[i] * 3 + g[i + 1];                               /* reused after the join */
    for (int k = 0; k < c; k++) b += g[i] * 3 + g[i + 1];      /* and in a loop writing only h */
    for (int k = 0; k < c && k < 12; k += 4) g[k] += 1;        /* may write g[i] */
    int d = g[i] * 3 + g[i + 1];                               /* loaded again */
    if (c == 1) opaque(d);                                     /* a call on one way */
    int e = g[i] * 3 + g[i + 1];                               /* loaded again */
    return a + b + d + e + h;
}
int main(void) {
    for (int i = 0; i < 12; i++) g[i] = i * 7 - 3;
    return (f(8, 40) + f(3, 0) + f(0, 1) + f(5, 17)) & 0x7fff;
})");
    IFRUN_RESULT reference = run("");
    ASSERT_TRUE(reference.ok);
    for (const char* level : {"-o2", "-o3"}) EXPECT_EQ(run(level).value, reference.value) << level;
    IFRUN_RESULT o2 = run("-o2");
    // The loop of 40 (and 17) iterations read g twice each time before.
    EXPECT_GE(ops(reference, "UMULT"), 2u * 57);
    EXPECT_LE(ops(o2, "UMULT"), 2u * 57 / 2);
}

}  // namespace
