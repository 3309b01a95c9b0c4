// Straightened conditional paths: C programs whose tests are decided, or
// must not be, by the tests on the way to them run the same at every
// level, and the decided ones are jumped over.
#include <gtest/gtest.h>

#include <string>

#include "ifcc_util.h"

namespace {

class ConditionalPaths : public CProgramTest {};

TEST_F(ConditionalPaths, DecidedTestsAreJumpedOverAndOthersKept) {
    compile(R"(#include <stdio.h>
static volatile int seed = 7;
static int classify(int p, int acc) {
    int r;
    if (p > 0 && acc > 100 - p) r = 1;          /* p > 0 decides p < 0 below */
    else if (p < 0 && acc < -100 - p) r = 2;
    else r = 3;
    if (!(p == 5 || acc != 2)) r += 10;         /* negated or: p != 5 then acc == 2 */
    else if (p == 5) r += 20;                   /* p == 5 known on one way only */
    return r;
}
static int changed(int p) {
    int r = 0;
    if (p > 3 && p < 9) { p = -p; r = 1; }      /* p assigned on the way */
    if (p > 0) r += 2;
    return r;
}
static int ranges(unsigned u, int s) {
    int r = 0;
    if (u == 4 || s >= 10) r = 1;
    if (u == 4) r += 2;                         /* decided only where u == 4 was tested true */
    if (s < 10 && s > -10) r += 4;
    if (s >= 10) r += 8;                        /* decided where s < 10 held */
    return r;
}
int main(void) {
    long h = 0;
    int v = seed;
    for (int i = -60; i < 60; i += 3) {
        h = h * 31 + classify(i, v * i) + changed(i) * 7 + ranges((unsigned)(i & 7), i / 3);
        v = (v * 13 + 5) % 97;
    }
    printf("%ld\n", h);
    return (int)(h & 0x7f);
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    fs::path file = dir.path / "o2.info";
    IFRUN_RESULT o2 = run(std::vector<std::string>{"-o2", "--info_file=" + file.string()});
    IFRUN_RESULT kept = run_without_step(13, reference);
    EXPECT_NE(slurp(file).find("a test decided on the way there is jumped over."), std::string::npos);
    EXPECT_LT(o2.operations, kept.operations);
}

}  // namespace
