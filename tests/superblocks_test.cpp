// Assignments that only some paths of a branch read move into those paths:
// programs whose values are read on some paths, changed after they are
// made, read in the branch itself or read from memory run the same at
// every level, and the paths that do not read a value stop paying for it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ifcc_util.h"

namespace {

class Superblocks : public CProgramTest {};

TEST_F(Superblocks, ValuesMoveToThePathsThatReadThem) {
    compile(R"(#include <stdio.h>
static short code[64];
static int regs[4];
int main(void) {
    for (int i = 0; i < 64; i++) code[i] = (short)(i * 2654435761u >> 7);
    long sum = 0;
    int acc = 1;
    for (int pc = 0; pc < 64; pc++) {
        int w = code[pc];
        int r = (w >> 6) & 3, a = w & 63, s = (w >> 3) & 7, t = w & 7;
        int imm = a & 32 ? a - 64 : a;
        int k = w & 5;
        int m = regs[w & 3];            /* reads memory: stays */
        regs[(w >> 2) & 3] = pc;
        int late = acc * 3;
        acc = acc * 5 + w;              /* changes what late read: stays */
        switch (w & 7) {
        case 0: regs[r] = imm; break;
        case 1: regs[r] += imm + k; break;
        case 2: regs[r] += regs[s & 3] * regs[t & 3] >> 4; break;
        case 3: sum += m + late; break;
        case 4: if (k) sum -= a; /* fall into the next case */
        case 5: sum += k * 7; break;
        default: sum += acc & 255; break;
        }
        int q = w * 5, z = w ^ 9;
        if (q > 300) sum += q + z; else if (z & 1) sum -= z;
    }
    printf("%ld %d %d %d %d\n", sum, regs[0], regs[1], regs[2], regs[3]);
    return 0;
})");
    IFRUN_RESULT reference = expect_same_at_every_level();
    ASSERT_TRUE(reference.ok);
    IFRUN_RESULT kept = run_without_step(40, reference), moved = run("-o2");
    // s and t are worked out on one path of eight, imm on two.
    EXPECT_LT(moved.operations + 64 * 10, kept.operations);
}

}  // namespace
