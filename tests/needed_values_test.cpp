// Values no one needs and values computed for one use: dead assignments on
// the SSA form ("non-DD SSA EDA") go, also values that only feed each other
// around a loop, while what a test, a store or a call reads stays, and a
// test left deciding nothing goes with what only it read; a value read once
// is folded into its use ("lcse") unless something in between may change
// what it reads.  The programs print what they printed.
#include <gtest/gtest.h>

#include <string>

#include "ifcc_util.h"

namespace {

constexpr int SSA_EDA = 22;

class NeededValues : public CProgramTest {};

TEST_F(NeededValues, ValuesThatOnlyFeedEachOtherGo) {
    compile(R"(#include <stdio.h>
int n = 40;
int out[4];
int main(void) {
    int x = 0, y = 1, z = 7, w = 0, u = 0, v = 0;
    for (int i = 0; i < n; i++) {
        u = u * 5 + i;          /* read by a test that decides nothing once v goes */
        if (u & 4)
            v += u;             /* feeds only itself: goes, then u */
        x = x * 3 + i;          /* read by the test below: stays */
        if (x > 100) {
            y = y + x;          /* feeds only itself: goes */
            x -= 90;
        }
        z = (z ^ i) + y;        /* feeds only itself: goes */
        w += i;                 /* stored after the loop: stays */
    }
    out[1] = w;
    printf("%d %d\n", x, out[1]);
    return 0;
}
)");
    IFRUN_RESULT reference = expect_same_at_every_level();
    IFRUN_RESULT without = run_without_step(SSA_EDA, reference);
    IFRUN_RESULT with = run("-o2");
    // The updates of y, z, v and u and the test of u, three operations or
    // more each per iteration.
    EXPECT_LE(with.operations + 15 * 40, without.operations) << with.operations << " " << without.operations;
    fs::path info = dir.path / "o2.info";
    Result r = run_program(OPT5_BINARY, {"-o2", "--info_file=" + info.string(), "p.if", "o2.if"}, dir.path);
    ASSERT_EQ(r.status, 0) << r.err;
    std::string text = slurp(info);
    EXPECT_NE(text.find("Function main(): 8 assignments whose values nothing needs removed."), std::string::npos) << text;
}

TEST_F(NeededValues, ValuesReadOnceAreFoldedIntoTheirUse) {
    compile(R"(#include <stdio.h>
static int g = 5;
static int bump(int d) { return d ? bump(d - 1) : ++g; }
static int twice(int v, int d) { return d ? twice(v, d - 1) : 2 * v; }
static int calc(int a, int b, int d) {
    if (d) return calc(a, b, d - 1);   /* recursive: never inlined */
    int x = a * 3;          /* folded into w */
    int y = g + 1;          /* the call changes g: stays before it */
    int z = bump(b);
    int w = x + y + z;      /* folded into the return */
    int u = a + b;          /* read twice: stays */
    int y2 = g * 2;         /* its use calls bump first: stays */
    int v2 = bump(0) + twice(y2, 1);
    return w * u + u + v2;
}
int n = 4;
int main(void) {
    printf("%d %d\n", calc(n, n + 1, 1), g);
    return 0;
}
)");
    expect_same_at_every_level();
    fs::path info = dir.path / "o2.info";
    Result r = run_program(OPT5_BINARY, {"-o2", "--info_file=" + info.string(), "p.if", "o2.if"}, dir.path);
    ASSERT_EQ(r.status, 0) << r.err;
    std::string text = slurp(info);
    EXPECT_NE(text.find("Function calc(): 2 values computed for one use folded into it."), std::string::npos) << text;
}

}  // namespace
