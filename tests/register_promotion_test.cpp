// Globals kept in temporaries over loops, stored values read back and dead
// stores removed ("SSA RP with benign loads"): the programs run the same at
// every level, the loads and stores the step saves are measured by the
// interpreter, and what something else may reach stays in memory.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ifcc_util.h"

namespace {

constexpr int REGISTER_PROMOTION = 23;
constexpr int MERGE_SYMBOLS = 36;

class Promotion : public CProgramTest {
protected:
    // The information file of the unit at -o2.
    std::string info() {
        fs::path path = dir.path / "o2.info";
        Result r = run_program(OPT5_BINARY, {"-o2", "--info_file=" + path.string(), "p.if", "o2.if"}, dir.path);
        EXPECT_EQ(r.status, 0) << r.err;
        return slurp(path);
    }
    // The objects the loop at `line` keeps in temporaries, as listed.
    static std::string kept(const std::string& text, int line) {
        std::string head = "Loop at line " + std::to_string(line) + ": ";
        for (size_t at = text.find(head); at != std::string::npos; at = text.find(head, at + 1)) {
            std::string l = text.substr(at, text.find('\n', at) - at);
            size_t colon = l.find("while it runs: ");
            if (colon != std::string::npos) return l.substr(colon + 15);
        }
        return "";
    }
};

// A counter, an element at a constant index and a member, written in a
// loop that also prints and stores through a pointer: each is loaded once
// before the loop and stored back on the ways out, the way to the early
// return included, which main sees.
TEST_F(Promotion, GlobalsLoopsKeepAreLoadedOnceAndStoredBack) {
    compile(R"(#include <stdio.h>
#include <stdint.h>
static int hits;
static int32_t sums[4];
static struct { int16_t lo, hi; } range = {100, -100};
static int out[64];
int n = 60;
static int scan(int *dst, int stop) {
    if (stop < 0) return scan(dst, -stop);  /* recursive: never inlined, its return stays */
    for (int i = 0; i < n; i++) {
        int v = (i * 37) % 23 - 11;
        hits++;
        sums[2] += v;
        if (v < range.lo) range.lo = (int16_t)v;
        if (v > range.hi) range.hi = (int16_t)v;
        dst[i] = v;
        if (i % 16 == 15) printf("i=%d hits=%d\n", i, hits);
        if (i == stop) return -i;
    }
    return sums[2];
}
int main(void) {
    int a = scan(out, 1000);
    int b = scan(out, -21);
    printf("%d %d %d %ld %d %d %d\n", a, b, hits, (long)sums[2], range.lo, range.hi, out[5]);
    return 0;
}
)");
    IFRUN_RESULT reference = expect_same_at_every_level();
    IFRUN_RESULT promoted = run("-o2");
    IFRUN_RESULT kept_in_memory = run_without_step(REGISTER_PROMOTION, reference);
    // Per iteration: hits (load, store), sums[2] (load, store), range (two
    // loads, a store now and then) over 60 + 22 iterations.
    EXPECT_LE(promoted.memory_accesses + 4 * 80, kept_in_memory.memory_accesses)
        << promoted.memory_accesses << " " << kept_in_memory.memory_accesses;
    std::string text = info();
    std::string listed = kept(text, 10);
    for (const char* name : {"'hits'", "'sums'+4", "'range'+0", "'range'+1"})
        EXPECT_NE(listed.find(name), std::string::npos) << name << " in " << text;
    EXPECT_EQ(listed.find("'out'"), std::string::npos) << text;
}

// A value stored to a global is read back without a load where every way
// to the read passes the store, until a call that writes the global or a
// store through a pointer that may reach it.
TEST_F(Promotion, StoredValuesAreReadBackUntilSomethingMayChangeThem) {
    compile(R"(#include <stdio.h>
static int g, arr[4], h, k, m;
int n = 5;
static int touch(int d) { return d ? touch(d - 1) : (arr[2] = 9); }
int main(void) {
    g = n * 3;
    arr[2] = g + 1;
    int t = arr[2] * g;     /* both from the stores */
    int u = touch(2);
    u += arr[2];            /* touch wrote it: loaded */
    int *p = n > 3 ? &h : &k;
    h = 4;
    *p = 7;
    u += h;                 /* the pointer reached it: loaded */
    g = u;
    if (n > 4) printf("%d\n", u);
    t += g;                 /* past the join: from the store */
    m = t;
    if (n > 4) touch(0);
    t += m;                 /* touch does not name m: from the store */
    arr[2] = 5;
    if (n > 4) touch(0);
    t += arr[2];            /* touch may have written it: loaded */
    printf("%d %d %d\n", t, u, g);
    return 0;
}
)");
    IFRUN_RESULT reference = expect_same_at_every_level();
    IFRUN_RESULT forwarded = run("-o2");
    IFRUN_RESULT loaded = run_without_step(REGISTER_PROMOTION, reference);
    EXPECT_LE(forwarded.memory_accesses + 5, loaded.memory_accesses)
        << forwarded.memory_accesses << " " << loaded.memory_accesses;
    std::string text = info();
    EXPECT_NE(text.find("Function main(): 6 loads take the value stored before."), std::string::npos)
        << text;
}

// A store that every way from it overwrites before anything may read the
// global goes; one a called function may read, or the last before the
// function ends, stays.
TEST_F(Promotion, StoresOverwrittenBeforeAnyReadGo) {
    compile(R"(#include <stdio.h>
static int g, q;
int n = 3;
static int peek(int d) { return d ? peek(d - 1) : g; }
int main(void) {
    g = 1;              /* overwritten: goes */
    q = n;
    g = q + 2;          /* peek reads it: stays */
    int a = peek(1);
    if (a > n) g = 7;   /* overwritten on the way on: goes */
    g = 8;              /* the last: stays */
    printf("%d %d %d\n", a, g, q);
    return 0;
}
)");
    IFRUN_RESULT reference = expect_same_at_every_level();
    std::string text = info();
    EXPECT_NE(text.find("Function main(): 2 stores overwritten or never read removed."), std::string::npos)
        << text;
}

// A local array reached only by direct accesses is read back and loses
// the stores nothing reads before the function ends; one whose address a
// pointer takes keeps them all.
TEST_F(Promotion, LocalArraysReachedDirectlyAreReadBackAndLoseDeadStores) {
    compile(R"(#include <stdio.h>
int n = 6;
int main(void) {
    int buf[8], hist[4];
    int *p = hist + (n & 1);
    for (int i = 0; i < n; i++) buf[i] = i * 3;
    buf[2] = 5;
    int x = buf[2] + buf[n - 1];   /* buf[2] from the store */
    buf[3] = 7;                    /* never read: goes */
    hist[0] = x;                   /* read through p: stays */
    hist[1] = x * 2;
    printf("%d %d\n", x, p[0]);
    return 0;
}
)");
    expect_same_at_every_level();
    std::string text = info();
    EXPECT_NE(text.find("Function main(): 1 load takes the value stored before."), std::string::npos) << text;
    EXPECT_NE(text.find("Function main(): 1 store overwritten or never read removed."), std::string::npos) << text;
}

// A way out of the loop that a way around it joins gets a block of its own
// for the stores: the way around must not store what the loop never read.
TEST_F(Promotion, AWayOutOthersJoinStoresOnItsOwn) {
    compile(R"(#include <stdio.h>
static int pos = -1;
static int arr[16] = {1, 2, 3, 7, 5};
static int find(int limit) {
    if (limit < 0) return find(-limit);  /* recursive: never inlined */
    if (limit > 20) goto out;
    for (pos = 0; pos < limit; pos++)
        if (arr[pos & 15] == 7) break;
out:
    return pos;
}
int main(void) {
    int a = find(2), b = find(9), c = find(30);
    printf("%d %d %d\n", a, b, c);
    return 0;
}
)");
    expect_same_at_every_level();
    EXPECT_NE(kept(info(), 7).find("'pos'"), std::string::npos) << info();
}

// What the loop may reach otherwise stays in memory, and the program still
// prints what it printed: a global whose address a pointer holds, one a
// function called in the loop reads, one reached at a variable index, a
// volatile one, and everything in a loop that calls through a pointer.
TEST_F(Promotion, WhatOthersMayReachStaysInMemory) {
    compile(R"(#include <stdio.h>
static int aliased, other, peeked, indexed[4], calls;
static volatile int ticks;
static int seen;
int n = 12;
static int peek(int depth) { return depth ? peek(depth - 1) : peeked; }
static int bump(int v) { calls++; return v + 1; }
static int (*fn)(int) = bump;
int main(void) {
    int *p = n > 5 ? &aliased : &other;
    int total = 0;
    for (int i = 0; i < n; i++) {
        aliased += i;
        *p += 2;
        peeked += 3;
        total += peek(i & 3);
        indexed[i & 3] += i;
        indexed[1] ^= 5;
        ticks = ticks + 1;
    }
    for (int i = 0; i < n; i++) {
        seen += 2;
        total += fn(i);
    }
    printf("%d %d %d %d %d %d %d %d %d\n", aliased, other, peeked, indexed[1], indexed[2], ticks, calls, seen, total);
    return 0;
}
)");
    expect_same_at_every_level();
    std::string text = info();
    std::string listed = kept(text, 12) + kept(text, 21);
    for (const char* name : {"'aliased'", "'peeked'", "'indexed'", "'ticks'", "'seen'"})
        EXPECT_EQ(listed.find(name), std::string::npos) << name << " in " << text;
}

// Each loop of a nest keeps the global in a temporary of its own, copied
// from the one around it before the loop and back after it: "merge
// symbols" makes them one variable, and the copies, run once per outer
// iteration, go.
TEST_F(Promotion, NestedLoopsTemporariesBecomeOne) {
    compile(R"(#include <stdio.h>
static unsigned crc = 0xFFFF;
int n = 12;
int main(void) {
    for (int i = 0; i < n; i++)
        for (int j = 0; j < n; j++) {
            for (int k = 0; k < 3; k++) crc = (crc >> 1) ^ (unsigned)(i * j + k);
            crc += (unsigned)j;
        }
    printf("%u\n", crc);
    return 0;
}
)");
    IFRUN_RESULT reference = expect_same_at_every_level();
    IFRUN_RESULT merged = run("-o2");
    IFRUN_RESULT copied = run_without_step(MERGE_SYMBOLS, reference);
    // Two copies per run of the innermost loop.
    EXPECT_LE(merged.operations + 2 * 12 * 12, copied.operations) << merged.operations << " " << copied.operations;
    std::string text = info();
    EXPECT_NE(text.find("copies removed by merging the variables they join"), std::string::npos) << text;
}

}  // namespace
