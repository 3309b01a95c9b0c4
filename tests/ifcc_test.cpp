// ifcc: C programs are compiled, run in ifrun and, for the kernels of
// samples/, optimized at every level and run again.  The expected outputs
// follow from the data model: 16-bit char, short and int, 32-bit long and
// pointers, 64-bit long long, every object a whole number of 16-bit units.
#include <gtest/gtest.h>

#include <string>

#include "ifcc_util.h"
#include "tools/ifrun/ifrun.h"

namespace {

class IfCC : public ::testing::Test {
protected:
    TempDir dir;

    // Compiles the program; on failure returns the diagnostics (and no unit).
    std::string compile(const std::string& c, const fs::path& out) { return compile_c(c, dir.path, out); }
    // What the program prints, and its exit status after "exit ".
    std::string run(const std::string& c) {
        fs::path unit = dir.path / "p.if";
        std::string error = compile(c, unit);
        if (!error.empty()) return "compile error: " + error;
        std::unique_ptr<IFRUN_UNIT> u = IFRUN_UNIT::load(unit.string(), error);
        if (!u) return "load error: " + error;
        IFRUN_RESULT r = u->run(IFRUN_OPTIONS{});
        if (!r.ok) return "run error: " + r.error;
        return r.output + "exit " + std::to_string(r.value);
    }
};

TEST_F(IfCC, TheDataModelHasSixteenBitIntsAndUnits) {
    EXPECT_EQ(run(R"(#include <stdio.h>
#include <limits.h>
int main(void) {
    unsigned u = 65535u;
    long l = 70000L;
    long long ll = 1LL << 40;
    char c = 300;
    unsigned short us = 65535;
    int i = us;
    int m = INT_MIN;
    printf("%u %u %u %u %u\n", (unsigned)sizeof(char), (unsigned)sizeof(int), (unsigned)sizeof(long),
           (unsigned)sizeof(long long), (unsigned)sizeof(int *));
    printf("%u %ld %d %d %lld\n", u + 1u, l * 2, c, i, ll + 1);
    printf("%d %d %d %d\n", -7 / 2, -7 % 2, m - 1, 20000 + 20000);
    printf("%d %d\n", u > -1, (long)u > -1);
    return CHAR_BIT;
})"),
              "1 1 2 4 2\n0 140000 300 -1 1099511627777\n-3 -1 32767 -25536\n0 1\nexit 16");
}

TEST_F(IfCC, StructsUnionsAndBitFieldsAreLaidOutInUnits) {
    EXPECT_EQ(run(R"(#include <stdio.h>
struct S { int a; long b; unsigned f : 3; int g : 5; unsigned h : 12; int arr[3]; };
union U { long l; int w[2]; };
struct S gs = {1, 100000L, 5, -3, 4095, {7, 8, 9}};
struct S make(int k) { struct S s = gs; s.a = k; s.arr[2] = k * 10; return s; }
int bump(struct S s) { s.a += 100; s.f++; return s.a + s.f; }
int main(void) {
    union U u;
    struct S t, *p = &t;
    u.l = 0x12345678L;
    printf("%u %x %x\n", (unsigned)sizeof(struct S), u.w[0], u.w[1]);
    t = make(4);
    printf("%d %ld %u %d %u %d %d\n", t.a, t.b, t.f, t.g, t.h, t.arr[0], p->arr[2]);
    printf("%d %d\n", bump(t), t.a);
    p->f += 5;          /* wraps in 3 bits: 5 + 5 = 10 -> 2 */
    p->g = p->g * 6;    /* -18 wraps in 5 bits to 14 */
    printf("%u %d %u\n", t.f, t.g, t.h);
    unsigned old = t.f++;
    printf("%u %u\n", old, t.f);
    return gs.f;
})"),
              "8 5678 1234\n4 100000 5 -3 4095 7 40\n110 4\n2 14 4095\n2 3\nexit 5");
}

TEST_F(IfCC, ControlFlowKeepsCsMeaning) {
    EXPECT_EQ(run(R"(#include <stdio.h>
int classify(int v) {
    int r = 0;
    switch (v) {
    case 1: r += 1;
    case 2: r += 2; break;
    default: r = -1;
    case 5: r += 50; break;
    case 7: return 70;
    }
    return r;
}
int count;
int side(int v) { count++; return v; }
int main(void) {
    int i = 0, s = 0;
again:
    do {
        i++;
        if (i % 2) continue;
        s += i;
    } while (i < 10);
    if (s < 100) goto again;
    printf("%d %d %d %d %d %d\n", classify(1), classify(2), classify(3), classify(5), classify(7), s);
    s = (side(0) && side(1)) + (side(2) || side(3)) + (i > 5 ? side(4) : side(5));
    int t = (side(6), side(7));
    printf("%d %d %d\n", s, count, t);
    return i;
})"),
              "3 2 49 50 70 110\n5 5 7\nexit 20");
}

TEST_F(IfCC, InitializersGiveDataAddressesAndZeros) {
    EXPECT_EQ(run(R"(#include <stdio.h>
int a[5] = {10, 20, 30};
int *p = &a[2];
const char *msg = "hi";
char word[8] = "dsp";
long big[2][2] = {{1, 2}, {3}};
int counter(void) { static int n = 5; return n++; }
int main(void) {
    int local[4] = {1};
    struct { int x; int y; } pt = {.y = 9};
    counter();
    printf("%d %d %s %s %c %ld %ld\n", *p, p[-1], msg, word, word[3] + 'A', big[0][1], big[1][1]);
    printf("%d %d %d %d %d\n", local[0], local[3], pt.x, pt.y, counter());
    return (int)(p - a);
})"),
              "30 20 hi dsp A 2 0\n1 0 0 9 6\nexit 2");
}

TEST_F(IfCC, CompoundAssignmentsComputeInThePromotedType) {
    // x /= 2u is done in unsigned int: -32768 becomes 32768 first.  A
    // pointer steps by its element's units.
    EXPECT_EQ(run(R"(#include <stdio.h>
int main(void) {
    int x = -32768;
    int y = -7;
    unsigned z = 65000u;
    long arr[4] = {1, 2, 3, 4};
    long *q = arr;
    x /= 2u;
    y %= 3L;
    z += 1000L;
    q += 2;
    *q++ += 10;
    printf("%d %d %u %ld %ld %d\n", x, y, z, arr[2], *q, (int)(q - arr));
    return 0;
})"),
              "16384 -1 464 13 4 3\nexit 0");
}

// float is binary32 and double binary64, with IEEE rounding, infinities,
// NaNs and signed zeros; a conversion to an integer truncates.
TEST_F(IfCC, FloatingPointFollowsIeeeArithmetic) {
    EXPECT_EQ(run(R"(#include <stdio.h>
float gain = 0.5f;
double coef[4] = {0.25, -1.5, 3.0e-3, 1.0 / 3};
int trunc_init = (int)(7.9 * 2);
static float scale(float x, int k) { return x * gain + k; }
int main(void) {
    int i, s;
    double acc = 0;
    float f = 1.0f;
    for (i = 0; i < 4; i++) acc += coef[i] * (i + 1);
    printf("%.6f %g %e\n", acc, acc / 7, acc * 1e10);
    f += 2; f *= 1.5f; f--; ++f;
    printf("%f %f %d\n", f, scale(f, 3), trunc_init);
    i = f; s = -f / 2;
    unsigned u = 40000.0;
    long l = -123456.75;
    printf("%d %d %u %ld %d %d\n", i, s, u, l, f > 4.0f, !acc);
    double z = 0.0, nz = -z;
    printf("%d %d %g\n", z == nz, (z < 1) && acc, nz);
    f = 1e30f; f = f * f;
    float q = 16777216.0f;
    q += 1.0f;
    printf("%f %d %d %.1f\n", f, f != f, (f - f) != (f - f), q);
    return (int)acc;
})"),
              "-1.407667 -0.201095 -1.407667e+10\n4.500000 5.250000 15\n4 -2 40000 -123456 1 0\n1 1 -0\n"
              "inf 0 1 16777216.0\nexit -1");
}

// Functions are called through pointers held in variables, arrays and
// structs, initialized statically or at run time.
TEST_F(IfCC, CallsGoThroughFunctionPointers) {
    EXPECT_EQ(run(R"(#include <stdio.h>
typedef int (*binop)(int, int);
static int add(int a, int b) { return a + b; }
static int sub(int a, int b) { return a - b; }
static int mul(int a, int b) { return a * b; }
binop table[3] = {add, sub, &mul};
struct ops { const char *name; binop f; } named[] = {{"add", add}, {"sub", sub}};
static int apply(binop f, int a, int b) { return f(a, b) + (*f)(b, a); }
int main(void) {
    int i, s = 0;
    binop pick = 0;
    for (i = 0; i < 3; i++) s += table[i](7, 3) * (i + 1);
    for (i = 0; i < 2; i++) printf("%s %d\n", named[i].name, named[i].f(10, 4));
    pick = s > 50 ? mul : add;
    printf("%d %d %d %d\n", s, apply(sub, 9, 2), pick(6, 7), pick == mul);
    return 0;
})"),
              "add 14\nsub 6\n81 0 42 1\nexit 0");
}

TEST_F(IfCC, WhatItCannotTranslateIsReportedWhereItIs) {
    EXPECT_EQ(compile("int main(int n, char **v) {\n  int a[n];\n  a[0] = 1;\n  return a[0];\n}\n", dir.path / "x.if"),
              (dir.path / "p.c").string() + ":2:3: error: ifcc does not support variable-length arrays\n");
    std::string e = compile("int main(void) { return x; }\n", dir.path / "y.if");
    EXPECT_NE(e.find("p.c:1:25: error: use of undeclared identifier 'x'"), std::string::npos) << e;
    // The tool writes nothing then, and says so with status 1.
    spit(dir.path / "bad.c", "int main(void) { int *p = (int[]){1, 2}; return p[1]; }\n");
    Result r = run_program(IFCC_BINARY, {"bad.c"}, dir.path);
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("bad.c:1:"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(dir.path / "bad.if"));
    EXPECT_FALSE(fs::exists(dir.path / "bad.if.part"));
}

// The kernels of samples/kernels print what their .expected files hold, and
// still do after opt5 at every level.
TEST_F(IfCC, KernelsRunTheSameBeforeAndAfterTheOptimizer) {
    fs::path kernels = fs::path(OPT5_SOURCE_DIR) / "samples" / "kernels";
    int seen = 0;
    for (const auto& entry : fs::directory_iterator(kernels)) {
        if (entry.path().extension() != ".c") continue;
        ++seen;
        std::string name = entry.path().stem().string();
        std::string expected = slurp(fs::path(entry.path()).replace_extension(".expected"));
        Result c = run_program(IFCC_BINARY, {entry.path().string(), "-o", name + ".if"}, dir.path);
        ASSERT_EQ(c.status, 0) << name << c.err;
        for (std::string level : {"", "-o0", "-o1", "-o2", "-o3"}) {
            std::string unit = name + ".if";
            if (!level.empty()) {
                unit = name + level + ".if";
                Result o = run_program(OPT5_BINARY, {level, name + ".if", unit}, dir.path);
                ASSERT_EQ(o.status, 0) << name << level << o.err;
            }
            Result r = run_program(IFRUN_BINARY, {unit}, dir.path);
            EXPECT_EQ(r.status, 0) << name << level << r.err;
            EXPECT_EQ(r.out, expected) << name << level;
        }
    }
    EXPECT_EQ(seen, 9);
}

}  // namespace
