// Loop rotation, address induction variables and post-increments: C
// programs are compiled by ifcc, optimized at every level and run by
// ifrun; the runs agree with the unoptimized one, and at -o2 the loops do
// what the steps promise (no jump back, no index arithmetic per iteration).
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "ifcc_util.h"
#include "recorder.h"

namespace {

class LoopOpt : public CProgramTest {};

// Loop shapes the steps must rewrite, and ones they must leave alone
// (counters read after the loop, stepped twice, narrow unsigned counters
// that wrap, parameters as counters, negative and scaled steps).
TEST_F(LoopOpt, EveryShapeOfLoopComputesTheSameAtEveryLevel) {
    compile(R"(#include <stdio.h>
#define N 24
static int a[N], b[N];
static long wide[N];
static float f[2 * N];
static int m[6][5];
static unsigned short us[12];

static long dot(const int *x, const int *y, int n) {
    long s = 0;
    for (int i = 0; i < n; i++) s += (long)x[i] * y[i];
    return s;
}
static void fill(int *x, int n) {          /* a parameter counts down */
    while (n > 0) { n--; x[n] = n * 3 - 20; }
}
static int reverse_into(int *to, const int *from, int n) {
    int i;
    for (i = 0; i < n; i++) to[i] = from[n - 1 - i];
    return i;                                /* the counter is read after */
}
static int find(const int *x, int n, int v) {
    int i;
    for (i = 0; i < n && x[i] != v; i++) {}
    return i;
}
static int skip_odd(const int *x, int n) {
    int s = 0;
    for (int i = 0; i < n; i++) {
        if (x[i] & 1) continue;
        s += x[i];
    }
    return s;
}
static int stepped_twice(const int *x, int n) {
    int s = 0;
    for (int i = 0; i < n; i++) {
        if (x[i] > 0) i++;
        if (i < n) s = s * 3 + x[i];
    }
    return s;
}
static float every_other(const float *x, int n) {
    float s = 0;
    for (int i = 0; i < n; i += 2) s += x[i] * 0.5f;
    return s;
}
static long columns(void) {
    long s = 0;
    for (int i = 0; i < 6; i++)
        for (int j = 0; j < 5; j++) m[i][j] = i * 7 - j;
    for (int j = 0; j < 5; j++)
        for (int i = 0; i < 6; i++) s = s * 5 + m[i][j];
    return s;
}
static long down(const long *x, int n) {
    long s = 0;
    for (int i = n - 1; i >= 0; i--) s = s * 2 + x[i];
    return s;
}
static int wrapping(void) {                  /* the index wraps at 16 bits */
    int s = 0;
    for (unsigned short u = 65530; u != 4; u++) us[(unsigned short)(u + 6)] = u;
    for (int i = 0; i < 12; i++) s += us[i] % 97;
    return s;
}
static int bounded(const int *x, int n) {
    int s = 0;
    for (int i = 1; n >= i; i++) s += x[i - 1] ^ i;
    for (int i = 0; i <= n - 1; i += 3) s -= x[i];
    return s;
}
static int both(const int *x, const int *y, int n) {  /* y[i] is read only when x[i] > 0 */
    int s = 0;
    for (int i = 0; i < n; i++) s += x[i] > 0 && y[i] < 5;
    for (int i = 0; i < n; i++) s += x[i] > 0 ? y[i] : -y[i];
    return s;
}
static int two_counters(const int *x, int n) {  /* the address moves with both */
    int s = 0;
    int j = 0;
    for (int i = 0; i < n / 2; i++) {
        s = s * 3 + (x + i)[j];
        j++;
    }
    return s;
}
int main(void) {
    fill(a, N);
    for (int i = 0; i < N; i++) { b[i] = i * i - 50; wide[i] = 1000L * i - 7; }
    for (int i = 0; i < 2 * N; i++) f[i] = (float)i / 4;
    printf("%ld %ld\n", dot(a, b, N), dot(a, b, 0));
    printf("%d %d %d\n", reverse_into(b, a, N), b[0], b[N - 1]);
    printf("%d %d %d\n", find(a, N, 1), find(a, N, 2), skip_odd(a, N));
    printf("%d %f\n", stepped_twice(a, N), (double)every_other(f, 2 * N));
    printf("%ld %ld %d %d\n", columns(), down(wide, N), wrapping(), bounded(a, N));
    printf("%d %d\n", both(a, b, N), two_counters(a, N));
    return 0;
})");
    expect_same_at_every_level();
}

// A plain array loop at -o2: tested at the bottom, its addresses in
// pointers stepped by the accesses, its counter gone.
TEST_F(LoopOpt, ArrayLoopPaysNeitherJumpBackNorIndexArithmetic) {
    compile(R"(
static int x[100], y[100];
static long dot(const int *p, const int *q, int n) {
    long s = 0;
    for (int i = 0; i < n; i++) s += (long)p[i] * q[i];
    return s;
}
static int total(void) {
    int s = 0;
    for (int i = 0; i < 100; i++) s += x[i];
    return s;
}
int main(void) { return (int)dot(x, y, 100) + total(); }
)");
    IFRUN_RESULT before = run("-o1"), after = run("-o2");
    ASSERT_TRUE(before.ok && after.ok);
    EXPECT_GE(ops(before, "BRANCH"), 100u);
    EXPECT_LT(ops(after, "BRANCH"), 5u);             // no jump back
    EXPECT_GE(ops(after, "PLUSPLUS"), 300u);         // every load steps its pointer
    EXPECT_LT(ops(after, "PLUS"), 10u);              // no address worked out per iteration
    EXPECT_LT(after.operations * 4, before.operations * 3);
    // The tests rotation puts in front of the loops see i = 0 (and dot's
    // copy in main sees n = 100) and are decided: one test per iteration
    // is all that is left, and unrolled, one per several iterations.
    IFRUN_RESULT rolled = run(std::vector<std::string>{"-o2", "--debug=skip_pass=37"});
    EXPECT_EQ(ops(before, "CBRANCH"), 2u * 100 + 2);
    EXPECT_EQ(ops(rolled, "CBRANCH"), 2u * 100);
    EXPECT_LE(ops(after, "CBRANCH"), 100u);
    EXPECT_EQ(rolled.value, before.value);
    EXPECT_EQ(after.value, before.value);
}

// Counted loops unrolled by factors that divide their trip counts, or
// completely: their counters are read in the body and after the loop, step
// down, wrap, or share the body with a branch.
TEST_F(LoopOpt, UnrolledLoopsComputeTheSameWithFewerTests) {
    compile(R"(#include <stdio.h>
static int a[64];
static long r[8];
int main(void) {
    long s = 0;
    for (int i = 0; i < 64; i++) a[i] = i * 7 - 100;
    for (int i = 0; i < 21; i++) s += a[i] * i;
    for (int i = 0; i < 13; i++) s ^= a[i + 3];
    for (int k = 0; k < 3; k++) r[k] = s >> k;
    int j;
    for (j = 10; j > 0; j -= 2) s += j * a[j];
    s += j;
    unsigned short c;
    for (c = 65530; c != 4; c++) s += c;
    for (int i = 0; i < 40; i++) {
        s += a[i];
        if (s > 1000) s -= 999;
    }
    printf("%ld %ld %ld %ld\n", s, r[0], r[1], r[2]);
    return 0;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    IFRUN_RESULT rolled = run_without_step(37, reference), unrolled = run("-o2");
    // The loops of 64, 21 and 3 iterations: at least 32 + 14 + 3 tests fewer.
    EXPECT_LE(ops(unrolled, "CBRANCH") + 49, ops(rolled, "CBRANCH"));
    EXPECT_LT(unrolled.operations, rolled.operations);
    // Smallest code: nothing is unrolled.
    IFRUN_RESULT small = run(std::vector<std::string>{"-o2", "--opt_for_speed=0"});
    EXPECT_EQ(small.output, reference.output);
    EXPECT_EQ(ops(small, "CBRANCH"), ops(rolled, "CBRANCH"));
}

// Loops whose trip counts are known only when they run: unrolled, with the
// iterations left over run first, for every count from 0 up, counting up to
// < and <= bounds, down, with != past the wrap of an unsigned counter; a
// loop entered without its test holding (a do-while) runs once, as before.
// Trip counts that no factor divides lose their remainder in front.
TEST_F(LoopOpt, RunTimeTripCountsUnrollWithTheLeftOverIterationsFirst) {
    compile(R"(#include <stdio.h>
static short a[80];
static volatile int nine = 9;
static long up(const short *x, int lo, int hi) { long s = 0; for (int i = lo; i < hi; i++) s += x[i]; return s; }
static long up_to(const short *x, int lo, int hi) { long s = 0; for (int i = lo; i <= hi; i++) s += x[i] * 3; return s; }
static long down(const short *x, int n) { long s = 0; for (int i = n; i > 0; i--) s = s * 3 + x[i]; return s; }
static long wraps(const short *x, unsigned lo, unsigned hi) {
    long s = 0;
    for (unsigned i = lo; i != hi; i++) s += x[i & 63] ^ (short)i;
    return s;
}
static long once(const short *x, int i, int n) {
    long s = 0;
    do { s += x[i & 63]; i++; } while (i < n);
    return s;
}
int main(void) {
    for (int i = 0; i < 80; i++) a[i] = (short)(i * 37 % 101 - 50);
    long t = 0;
    for (int n = 0; n < 12; n++)
        t = t * 7 + up(a, 3, 3 + n) + up_to(a, n, 2 * n) + down(a, n) + wraps(a, 65530u + n, 2u) + once(a, 20, n);
    for (int i = 0; i < 79; i++) t += a[i] * (i + nine);
    printf("%ld\n", t);
    return 0;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    IFRUN_RESULT rolled = run_without_step(37, reference), unrolled = run("-o2");
    EXPECT_GT(ops(unrolled, "SWITCH"), 0u);  // the jump to the left-over iterations
    EXPECT_LT(ops(unrolled, "CBRANCH") + 150, ops(rolled, "CBRANCH"));
    EXPECT_LT(unrolled.operations, rolled.operations);
}

// A bound whose low bits are known to be zero (a mask in the test, or a
// variable set to one before the loop; the hoisted bound is looked through)
// makes the trip count a multiple of a power of two: the loop is unrolled
// with nothing left over, no jump to left-over iterations.  A bound of at
// most 15 is too small to unroll.
TEST_F(LoopOpt, TripCountsKnownToBeMultiplesUnrollWithNothingLeftOver) {
    compile(R"(#include <stdio.h>
int a[64], b[64];
static volatile int vol = 37;
static long dot(int n) { long s = 0; for (int i = 0; i < (n & ~3); i++) s += a[i] * b[i]; return s; }
static long eights(int n) {
    long s = 0;
    int m = n & -8;
    for (int i = 0; i < m; i++) s += a[i] ^ b[i];
    return s;
}
static long small(int n) { long s = 0; for (int i = 0; i < (n & 15); i++) s += a[i] - b[i]; return s; }
int main(void) {
    long t = 0;
    for (int i = 0; i < 64; i++) { a[i] = i * 3 - 7; b[i] = 11 - i; }
    for (int k = -9; k < 64; k += 5) t = t * 3 + dot(k) + eights(k) + small(k);
    printf("%ld\n", t + dot(vol) + small(vol));
    return 0;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    IFRUN_RESULT unrolled = run(std::vector<std::string>{"-o2", "--info_file=info.txt", "--debug_file=dbg.txt"});
    std::string info = slurp(dir.path / "info.txt");
    EXPECT_NE(info.find("Loop at line 4 unrolled 4 times (a multiple of 4 iterations).\n"), std::string::npos) << info;
    EXPECT_NE(info.find("Loop at line 8 unrolled 4 times (a multiple of 8 iterations).\n"), std::string::npos) << info;
    EXPECT_EQ(info.find("Loop at line 11 unrolled"), std::string::npos) << info;
    EXPECT_NE(slurp(dir.path / "dbg.txt").find("  Maximum trip count is too small for unrolling: 15\n"),
              std::string::npos);
    EXPECT_EQ(ops(unrolled, "SWITCH"), 0u);
    EXPECT_LT(unrolled.operations, run_without_step(37, reference).operations);
}

// A struct pointer stepped through an array of structs whose fields are
// all 16 bits is read through one conversion: the pointer takes that type
// and the conversions go (not so for a struct of mixed fields).  Counters of
// narrow unsigned types that a counted loop keeps in range step pointers
// too, counting up and down; a two-trip loop is worth its pointer.
TEST_F(LoopOpt, StructPointersAndNarrowCountersStepWithoutConversions) {
    compile(R"(#include <stdio.h>
#include <stdint.h>
struct q { int16_t a, b, c, d; };
struct m { int32_t w; int16_t h; };
static struct q qs[6] = {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}, {13, 14, 15, 16}, {17, 18, 19, 20}, {21, 22, 23, 24}};
static struct m ms[4] = {{100000, 1}, {200000, 2}, {300000, 3}, {-5, 4}};
static const int16_t v[10] = {3, -1, 4, -1, 5, -9, 2, 6, -5, 3};
static long mix(struct q *p) { long r = p->a * 3 + p->b - p->c * p->d; p->a = (int16_t)(p->a + 1); return r; }
static long big(struct q *p, long s) {
    long r = (p->a * s + p->b) * p->c - (p->d ^ p->a) + (p->b * p->c + s) * (p->a - p->d);
    p->b = (int16_t)(p->b ^ (int16_t)r); p->c = (int16_t)(p->c + p->a); p->d = (int16_t)(r >> 3);
    return r;
}
int main(void) {
    long s = 0;
    for (int n = 0; n < 5; n++) {
        for (int k = 0; k < 6; k++) s = s * 3 + mix(&qs[k]);
        for (int k = 0; k < 2; k++) s = (s >> 2) + big(&qs[k + 3], s);
        for (int k = 0; k < 4; k++) s += ms[k].w + ms[k].h;
        for (unsigned short j = 0; j < 10; j++) s += v[j] * (long)j;
        for (unsigned char j = 250; j > 247; j--) s ^= v[j - 245];
    }
    printf("%ld %d\n", s, qs[2].a);
    return 0;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    IFRUN_RESULT plain = run("-o0"), optimized = run("-o2");
    // Per round 8 struct pointers of at least 5 reads and 1 write, 10 + 3
    // indexed reads.
    EXPECT_GE(ops(plain, "PCONV"), 5u * (8 * 6 + 13));
    // The two-trip loop's pointer steps: no index scaled (k * 4 is k << 2)
    // per iteration.
    EXPECT_EQ(ops(optimized, "SLL"), 0u);
    EXPECT_LE(ops(optimized, "PCONV") * 2, ops(plain, "PCONV"));
    // The narrow counters' 13 indexed reads a round (65 additions) are
    // pointer steps now.
    EXPECT_LE(ops(optimized, "PLUS") + 60, ops(plain, "PLUS"));
}

// Invariant computations leave their loops, but only from blocks every
// entry to the loop runs: a division the loop guards (by a test or by &&),
// one after a break,
// one in a loop that may not run and a read of a variable set on one path
// all stay where they are (moved, they would fail when the loop did not).
TEST_F(LoopOpt, InvariantsLeaveLoopsOnlyWhereTheyRanAnyway) {
    compile(R"(#include <stdio.h>
static int a[40], b[40];
static const int lut[8] = {3, 1, 4, 1, 5, 9, 2, 6};
static volatile int trips = 37, zero = 0;
static int touch(int v) { b[v & 31] = v; return v; }
int main(void) {
    int m = trips, z = zero, d = zero, k = m - 32, u;
    long s = 0;
    for (int i = 0; i < 40; i++) a[i] = i * 3 - 50;
    if (m > 100) u = 5;
    for (int i = 0; i < m; i++) s += a[i] * (k * k + 1) + lut[k & 7];
    for (int j = 0; j < 6; j++)
        for (int i = 0; i < m; i++) s += (k * k + j) ^ (j * 3 + k);
    for (int i = 0; i < m; i++) {
        if (d != 0) s += 100 / d;
        s += i * (k + 2);
    }
    for (int i = 0; i < m; i++) {
        if (i == 3 || d == 0) break;
        s += 100 / d;
    }
    for (int i = 0; i < z; i++) s += 100 / d;
    for (int i = 0; i < m; i++) {
        s += i;
        d && (s += 100 / d);            /* a statement that is itself an && */
    }
    for (int i = 0; i < m; i++)
        if (m > 100) s += u * 3;
    for (int i = 0; i < m; i++) {
        b[i & 31] = i;
        s += lut[k & 7] + b[k];
    }
    for (int i = 0; i < m; i++) s += touch(i) + b[k & 3] * (k - 1);
    printf("%ld %d %d\n", s, b[5], b[3]);
    return 0;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    // Without the step (and unrolling, its neighbour) every iteration
    // multiplies k by itself again: 37 times in the first loop, and k * k
    // and j * 3 in each of the 6 * 37 inner iterations of the nested one.
    IFRUN_RESULT kept = run_without_step(37, reference), moved = run("-o2");
    EXPECT_LE(ops(moved, "MULT") + 400, ops(kept, "MULT"));
    EXPECT_LT(moved.operations, kept.operations);
}

// The code generator learns where each loop begins: a loop-header record
// right before the label of the loop's first block, naming the variable a
// counted loop steps and tests, and none for a loop chasing pointers.
TEST_F(LoopOpt, EachLoopIsMarkedWithItsControlVariable) {
    compile(R"(
#include <stdio.h>
struct node { struct node* next; int v; };
struct node nodes[5];
int a[100];
int n;
int sum(const int* x, int count) {
    int s = 0;
    for (int i = 0; i < count; i++) s += x[i];
    return s;
}
int chase(struct node* p) {
    int s = 0;
    while (p) {
        s += p->v;
        p = p->next;
    }
    return s;
}
int main(void) {
    n = 90 + (a[3] & 1);
    for (int i = 0; i < 4; i++) {
        nodes[i].next = &nodes[i + 1];
        nodes[i].v = i * 3;
    }
    for (int i = 0; i < n; i++) a[i] = i * 7;
    printf("%d %d\n", sum(a, n), chase(nodes));
    return 0;
}
)");
    expect_same_at_every_level();
    run("-o2");
    Recorder records;
    FILE* in = std::fopen(last_optimized().c_str(), "rb");
    ASSERT_NE(in, nullptr);
    std::unique_ptr<I_FILE> f(I_FILE::if_open(in, &records));
    ASSERT_NE(f, nullptr);
    f->if_read_file();
    std::fclose(in);
    std::map<std::string, std::vector<std::string>> loops;  // by function: the control variables
    std::string function;
    const std::vector<std::string>& ev = records.events;
    for (size_t k = 0; k < ev.size(); ++k) {
        if (ev[k].rfind("begin ", 0) == 0) function = ev[k].substr(6);
        if (ev[k].rfind("loop_header ", 0) != 0) continue;
        std::istringstream fields(ev[k].substr(12));
        std::string id, lcv;
        fields >> id >> lcv;
        loops[function].push_back(lcv);
        ASSERT_LT(k + 1, ev.size());
        EXPECT_EQ(ev[k + 1].rfind("label ", 0), 0u) << function << ": " << ev[k + 1];
    }
    ASSERT_EQ(loops["sum"].size(), 1u);
    EXPECT_EQ(loops["sum"][0].substr(0, 1), "i") << loops["sum"][0];
    EXPECT_EQ(loops["chase"], std::vector<std::string>{"-"});
    EXPECT_GE(loops["main"].size(), 2u);
}

// C loops over arrays of 16-bit ints are vectorized as the front end writes
// them: the body in two blocks (the step after the `continue` label), the
// step as a post-increment, the arrays as `(int*)&a`.  A loop that reads the
// element it stores is as safe as one over separate arrays; the runs agree
// and the vector loop needs fewer operations than without the step.
TEST_F(LoopOpt, CLoopsOver16BitArraysAreVectorized) {
    compile(R"(#include <stdio.h>
int a[64], b[64], c[64];
static volatile int fifty = 50;
void kern(int n) {
    for (int i = 0; i < n; i++) c[i] = a[i] * b[i] + c[i];
}
int main(void) {
    for (int i = 0; i < 64; i++) { a[i] = i * 3 - 7; b[i] = 5 - i; c[i] = i ^ 9; }
    kern(fifty + (a[3] & 1));
    long s = 0;
    for (int i = 0; i < 64; i++) s += c[i] * (i + 1);
    printf("%ld\n", s);
    return 0;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    IFRUN_RESULT vectorized = run(std::vector<std::string>{"-o2", "--info_file=info.txt"});
    EXPECT_NE(slurp(dir.path / "info.txt").find("  Unrolling and vectorizing loop #1 at lines 5-5 by a factor of 2x.\n"),
              std::string::npos)
        << slurp(dir.path / "info.txt");
    IFRUN_RESULT scalar = run_without_step(27, reference);
    EXPECT_LT(vectorized.operations, scalar.operations);
}

// Every loop of a function is vectorized, the first ones too (the loops
// are found again, numbered afresh, after each one).  A bound computed in
// the test tells what the count is: a multiple of 4 needs no loop for the
// iterations left over, at most 15 is said, and at most one iteration is
// left scalar.
std::string vector_loops(const std::string& info) {
    std::string found;
    for (size_t at = info.find("nrolling and vectorizing loop #"); at != std::string::npos;
         at = info.find("nrolling and vectorizing loop #", at + 1)) {
        size_t lines = info.find(" at lines ", at);
        found += info.substr(lines + 1, info.find('\n', at) - lines - 1) + "\n";
    }
    return found;
}

TEST_F(LoopOpt, EveryLoopIsVectorizedAndItsBoundTellsWhatItCan) {
    compile(R"(#include <stdio.h>
int a[64], b[64], c[64];
static volatile int vol = 37;
int kern(int n) {
    int i, s = 0;
    for (i = 0; i < (n & ~3); i++) c[i] = a[i] + b[i];
    for (i = 0; i < (n & 15); i++) a[i] = c[i] - b[i];
    for (i = 0; i < n - 1; i++) b[i] = a[i] * c[i];
    for (i = 0; i < (n & 1); i++) c[i] = a[i] ^ b[i];
    for (i = 0; i < 64; i++) s += c[i] + a[i] + b[i];
    return s + i;
}
int main(void) {
    int i, t = 0;
    for (i = 0; i < 64; i++) { a[i] = i * 3 - 7; b[i] = 11 - i; c[i] = i ^ 5; }
    t += kern(vol); t += kern(vol + 27); t += kern(vol - 34); t += kern(vol - 42); t += kern(vol - 15);
    printf("%d\n", t);
    return 0;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    IFRUN_RESULT vectorized = run(std::vector<std::string>{"-o2", "--info_file=info.txt"});
    std::string info = slurp(dir.path / "info.txt");
    EXPECT_EQ(vector_loops(info), "at lines 8-8 by a factor of 2x.\nat lines 7-7 by a factor of 2x.\n"
                                  "at lines 6-6 by a factor of 2x.\n")
        << info;
    size_t first = info.find("This loop's iteration count is (n & -4)\n  It iterates a multiple of 4 times.\n");
    EXPECT_NE(first, std::string::npos) << info;
    EXPECT_EQ(info.find("does not provably divide", first), std::string::npos) << info;
    EXPECT_NE(info.find("This loop's iteration count is (n & 15)\n  It has at most 15 iterations.\n"), std::string::npos)
        << info;
    EXPECT_LT(vectorized.operations, run_without_step(27, reference).operations);
}

// Four loops over the same 64 elements, each reading what the one before
// wrote at the same index, the third with a counter of its own that is read
// after it: one loop does all four, and does less work for it.
TEST_F(LoopOpt, AdjacentLoopsOverTheSameElementsBecomeOne) {
    compile(R"(#include <stdio.h>
int a[64], b[64], c[65];
int main(void) {
    int i, j, s = 0;
    for (i = 0; i < 64; i++) b[i] = i * 3 - 7;
    for (i = 0; i < 64; i++) a[i] = b[i] + c[i + 1];
    for (j = 0; j < 64; j++) c[j] = a[j] << 1;
    for (i = 0; i < 64; i++) s += c[i] ^ i;
    printf("%d %d %d\n", s, j, c[64]);
    return 0;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    IFRUN_RESULT fused = run(std::vector<std::string>{"-o2", "--info_file=info.txt"});
    std::string info = slurp(dir.path / "info.txt");
    // c[i + 1] is read (by the second loop) an iteration before the third
    // writes it, as it was read before the third loop began.
    EXPECT_NE(info.find("Loops at lines 5 and 6 fused.\n"), std::string::npos) << info;
    EXPECT_NE(info.find("Loops at lines 7 and 8 fused.\n"), std::string::npos) << info;
    EXPECT_NE(info.find("Loops at lines 5 and 7 fused.\n"), std::string::npos) << info;
    IFRUN_RESULT apart = run_without_step(37, reference);
    EXPECT_LT(fused.operations, apart.operations);

    // Inside another loop, over a row of a two-dimensional array.
    compile(R"(#include <stdio.h>
int a[8][16], b[8][16];
int main(void) {
    int k, i, s = 0;
    for (k = 0; k < 8; k++) {
        for (i = 0; i < 16; i++) a[k][i] = i + k;
        for (i = 0; i < 16; i++) b[k][i] = a[k][i] * 3;
    }
    for (k = 0; k < 8; k++) for (i = 0; i < 16; i++) s += b[k][i];
    printf("%d\n", s);
    return 0;
})");
    ASSERT_TRUE(expect_same_at_every_level().ok);
    run(std::vector<std::string>{"-o2", "--info_file=info.txt"});
    info = slurp(dir.path / "info.txt");
    EXPECT_NE(info.find("Loops at lines 6 and 7 fused.\n"), std::string::npos) << info;
}

// Loops that fused would do something else stay apart, and every program
// still computes what it did.
TEST_F(LoopOpt, LoopsThatMustStayApartStayApart) {
    const char* programs[] = {
        // The second reads an element the first writes only later.
        "int a[65], b[64];\n"
        "int main(void) { int i;\n"
        "  for (i = 0; i < 64; i++) a[i] = i;\n"
        "  for (i = 0; i < 64; i++) b[i] = a[i + 1];\n"
        "  return b[3] + b[63]; }\n",
        // The same in a row of a two-dimensional array.
        "int a[8][17], b[8][16];\n"
        "int main(void) { int k, i, s = 0;\n"
        "  for (k = 0; k < 8; k++) {\n"
        "    for (i = 0; i < 16; i++) a[k][i] = i + k;\n"
        "    for (i = 0; i < 16; i++) b[k][i] = a[k][i + 1];\n"
        "  }\n"
        "  for (k = 0; k < 8; k++) s += b[k][15];\n"
        "  return s & 255; }\n",
        // A value the first computes is read by the second.
        "int a[64];\n"
        "int main(void) { int i, s = 0;\n"
        "  for (i = 0; i < 64; i++) s += i;\n"
        "  for (i = 0; i < 64; i++) a[i] = s;\n"
        "  return a[5] & 255; }\n",
        // Trip counts differ.
        "int a[64], b[64];\n"
        "int main(void) { int i;\n"
        "  for (i = 0; i < 64; i++) a[i] = i;\n"
        "  for (i = 0; i < 32; i++) b[i] = a[i];\n"
        "  return b[31]; }\n",
        // The second reaches memory through a pointer.
        "int a[64], b[64];\n"
        "int main(void) { int i; int *p = a + 1;\n"
        "  for (i = 0; i < 64; i++) a[i] = i;\n"
        "  for (i = 0; i < 63; i++) b[i] = p[i];\n"
        "  return b[0] + b[62]; }\n",
    };
    for (const char* program : programs) {
        compile(program);
        IFRUN_RESULT reference = expect_same_at_every_level();
        ASSERT_TRUE(reference.ok) << program;
        run(std::vector<std::string>{"-o2", "--info_file=info.txt"});
        std::string info = slurp(dir.path / "info.txt");
        EXPECT_EQ(info.find("fused"), std::string::npos) << program << info;
    }
}

}  // namespace
