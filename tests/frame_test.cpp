// What a function's frame holds at -o2: locals whose contents are never
// needed at the same time share storage ("stack sharing"), and the written
// function declares only the locals its statements name, its temporaries
// numbered from 1 ("late rename symbols").  The programs run the same at
// every level, and the frames are measured by the interpreter.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <string>

#include "ifcc_util.h"

namespace {

constexpr int STACK_SHARING = 12;
constexpr int EXPLODE_AUTO_STRUCTS = 19;

class Frames : public CProgramTest {
protected:
    static bool has(const std::string& text, const std::string& line) { return text.find(line) != std::string::npos; }
    // The unit at -o2, written to `name`, with its information file.
    std::string optimize(const std::string& name, std::vector<std::string> extra = {}) {
        fs::path info = dir.path / (name + ".info");
        std::vector<std::string> args = {"-o2", "--info_file=" + info.string()};
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back("p.if");
        args.push_back(name);
        Result r = run_program(OPT5_BINARY, args, dir.path);
        EXPECT_EQ(r.status, 0) << r.err;
        return slurp(info);
    }
};

// Three helpers, each with an array indexed by a variable the optimizer
// can't see through, all copied into main: arrays in use one after the
// other share, also arrays of other lengths; main's own pair of arrays,
// both in use while they are combined, must not share with each other.
const char* const HELPERS = R"(#include <stdio.h>
#include <stdint.h>
int n = 6;
static int fill(int seed) {
    int buf[8];
    for (int i = 0; i < n; i++) buf[i] = seed * i - 3;
    int s = 0;
    for (int i = n - 1; i >= 0; i--) s = s * 3 + buf[i];
    return s;
}
static long widen(int seed) {
    int acc[6];
    for (int i = 0; i < n; i++) acc[i] = seed << i;
    long s = 0;
    for (int i = 0; i < n; i++) s ^= acc[i] + i;
    return s;
}
int main(void) {
    int a = fill(5);
    long b = widen(a & 7);
    int x[6], y[6];
    for (int i = 0; i < n; i++) x[i] = i * a;
    for (int i = 0; i < n; i++) y[i] = x[n - 1 - i] + (int)b;
    long dot = 0;
    for (int i = 0; i < n; i++) dot += (long)x[i] * y[i];
    printf("%d %ld %ld\n", a, b, dot);
    return 0;
}
)";

TEST_F(Frames, LocalsNeverInUseTogetherShareStorage) {
    compile(HELPERS);
    IFRUN_RESULT reference = expect_same_at_every_level();
    IFRUN_RESULT shared = run("-o2");
    IFRUN_RESULT own = run_without_step(STACK_SHARING, reference);
    // widen's 6 units go into fill's 8, and so do the 6 of x or of y, but
    // not both (the interpreter keeps a unit between objects, too).
    EXPECT_GE(own.stack_units, shared.stack_units + 12) << own.stack_units << " " << shared.stack_units;
    std::string text = optimize("o2.if");
    EXPECT_TRUE(has(text, "Function main(): 2 locals share storage with others, 12 units less.")) << text;
}

// A local whose address is kept in a pointer, or that is volatile, keeps
// its own storage: the accesses through the pointer are not seen.
TEST_F(Frames, LocalsReachedOtherwiseKeepTheirOwn) {
    compile(R"(#include <stdio.h>
int n = 5;
int main(void) {
    int a[5], b[5];
    volatile int c[5];
    int *p = a;
    for (int i = 0; i < n; i++) p[i] = i + 1;
    for (int i = 0; i < n; i++) b[i] = i * 2;
    int s = 0;
    for (int i = 0; i < n; i++) s += b[i];
    for (int i = 0; i < n; i++) c[i] = s + i;
    for (int i = 0; i < n; i++) s += p[i] * c[i];
    printf("%d\n", s);
    return 0;
}
)");
    expect_same_at_every_level();
    std::string text = optimize("o2.if");
    EXPECT_FALSE(has(text, "share")) << text;
}

// The written function declares every local its statements name and no
// other, numbered in order; the temporaries of each kind count from 1.
TEST_F(Frames, WrittenFunctionsDeclareWhatTheyNameAndNumberTemporariesDensely) {
    compile(HELPERS);
    std::string text = optimize("o2.if");
    EXPECT_TRUE(has(text, "locals named nowhere no longer declared")) << text;
    std::string listing = disassemble(dir.path / "o2.if");
    size_t begin = listing.find("begin_func");
    size_t end = listing.find("end_func", begin);
    while (begin != std::string::npos && end != std::string::npos) {
        std::string fn = listing.substr(begin, end - begin);
        // Declarations come in index order: parameters, then locals.
        std::regex decl(R"re(\nsymbol S:"([^"]*)")re");
        size_t locals_from = fn.find("end_args");
        int index = 0;
        std::map<std::string, std::set<int>> temporaries;
        for (auto it = std::sregex_iterator(fn.begin(), fn.end(), decl); it != std::sregex_iterator(); ++it, ++index) {
            std::string name = (*it)[1];
            std::string ref = " R:1:" + std::to_string(index);
            if (static_cast<size_t>(it->position()) > locals_from)
                EXPECT_TRUE(has(fn, ref + " ") || has(fn, ref + "\n")) << name << " is declared but named nowhere";
            std::smatch m;
            if (std::regex_match(name, m, std::regex(R"((cse\.|inv\.|.*\.p)([0-9]+))")))
                temporaries[m[1]].insert(std::stoi(m[2]));
        }
        for (const auto& [kind, numbers] : temporaries)
            EXPECT_EQ(*numbers.rbegin(), static_cast<int>(numbers.size())) << kind;
        begin = listing.find("begin_func", end);
        end = listing.find("end_func", begin);
    }
}

// Locals reached part by part at constant offsets become one variable per
// part, also structures copied whole (the copy moves a long member as one
// long); an array with a variable index and one whose parts are read as two
// types of different sizes stay in memory.  The copies of small loops count
// as constant offsets.
TEST_F(Frames, AggregatesReachedPartByPartBecomeVariables) {
    compile(R"(#include <stdio.h>
#include <stdint.h>
struct point { int x, y; long w; };
int n = 3;
static long norm(int x, int y, long w) { return (long)x * x + (long)y * y + w; }
int main(void) {
    struct point a;                 /* parts: becomes variables */
    a.x = n; a.y = n + 1; a.w = 100000;
    struct point c = {n, 2, 3};
    struct point b = c;             /* copied whole: member by member */
    b.y += 2;
    int taps[4];                    /* constant indices after unrolling */
    for (int i = 0; i < 4; i++) taps[i] = i * n;
    int hist[4];                    /* a variable index: stays */
    for (int i = 0; i < 4; i++) hist[i] = 0;
    hist[n] = 5;
    union { int32_t l; int16_t h[2]; } u;  /* two types at offset 0: stays */
    u.l = 70000;
    long s = 0;
    for (int i = 0; i < 4; i++) s += taps[i] * (i + 1) + hist[i];
    printf("%ld %ld %ld %d\n", norm(a.x, a.y, a.w), norm(b.x, b.y, b.w), s, u.h[0]);
    return 0;
}
)");
    expect_same_at_every_level();
    std::string text = optimize("o2.if");
    EXPECT_TRUE(has(text, "Function main(): 'a' is kept as 3 variables, one per part.")) << text;
    EXPECT_TRUE(has(text, "Function main(): 'taps' is kept as 4 variables, one per part.")) << text;
    EXPECT_TRUE(has(text, "Function main(): 'b' is kept as 3 variables, one per part.")) << text;
    EXPECT_TRUE(has(text, "Function main(): 'c' is kept as 3 variables, one per part.")) << text;
    for (const char* stays : {"'hist'", "'u'"}) EXPECT_FALSE(has(text, stays)) << stays << "\n" << text;
}

// Once they are variables, the parts' values propagate: the loads and
// stores go (no loop here is unrolled, so the step is the only one that
// replaces the structure).
TEST_F(Frames, PartsThatBecameVariablesCostNoLoads) {
    compile(R"(#include <stdio.h>
struct acc { long sum; int count; int last; };
int n = 40;
int main(void) {
    struct acc a;
    a.sum = 0; a.count = 0; a.last = -1;
    for (int i = 0; i < n; i++) {
        if (i % 3 == 0) continue;
        a.sum += i * a.last;
        a.count++;
        a.last = i;
    }
    printf("%ld %d %d\n", a.sum, a.count, a.last);
    return 0;
}
)");
    IFRUN_RESULT reference = expect_same_at_every_level();
    IFRUN_RESULT replaced = run("-o2");
    IFRUN_RESULT kept = run_without_step(EXPLODE_AUTO_STRUCTS, reference);
    EXPECT_EQ(ops(replaced, "UMULT"), 0u);
    EXPECT_LT(replaced.operations * 10, kept.operations * 9) << replaced.operations << " " << kept.operations;
}

// Structures passed and returned by value: the front end copies them into
// temporaries whose addresses the calls take, a long member as a long and
// an int member as the unsigned unit it is.  Split into statements, the
// calls are inlined, the addresses the copies' parameters hold lead
// straight to the temporaries, and every structure becomes variables
// although its copies read the int member as another integer type: no load
// or store is left.
TEST_F(Frames, StructuresPassedAndReturnedByValueBecomeVariables) {
    compile(R"(#include <stdio.h>
typedef struct { int re; long im; } cplx;
int n = 5;
static cplx cmul(cplx a, cplx b) {
    cplx r;
    r.re = ((long)a.re * b.re - (long)a.im * b.im) >> 15;
    r.im = ((long)a.re * b.im + (long)a.im * b.re) >> 15;
    return r;
}
static cplx cadd(cplx a, cplx b) { cplx r; r.re = a.re + b.re; r.im = a.im + b.im; return r; }
int main(void) {
    cplx acc = {0, 0}, w = {23170, -23170};
    for (int i = 0; i < n; i++) {
        cplx x;
        x.re = i * 1000 - 7000;
        x.im = 3000 - i * 411;
        acc = cadd(acc, cmul(x, w));
    }
    printf("%d %ld\n", acc.re, acc.im);
    return 0;
}
)");
    IFRUN_RESULT reference = expect_same_at_every_level();
    IFRUN_RESULT o2 = run("-o2");
    EXPECT_EQ(ops(o2, "UMULT"), 0u);
    EXPECT_EQ(ops(o2, "CALL"), 1u);  // printf
    EXPECT_LT(o2.operations * 3, reference.operations) << o2.operations << " " << reference.operations;
    std::string text = optimize("o2.if");
    for (const char* kept : {"'acc' is kept as 2 variables", "'x' is kept as 2 variables", "'tmp' is kept as 2 variables"})
        EXPECT_TRUE(has(text, kept)) << kept << "\n" << text;
}

// Structures by value in every shape the front end makes: nested, with
// arrays, long, pointer, floating and bit-field members, unions, volatile
// ones, returned into a pointer's target, through recursion, with the
// result unused, and an argument the callee changes (its own copy).  The
// program checks itself; every level agrees.
TEST_F(Frames, StructuresByValueKeepTheirMeaning) {
    compile(R"(#include <stdio.h>
#include <stdint.h>
struct in { int16_t a; int32_t b; };
struct big { struct in p[3]; float f; double d; int64_t q; const char *s; unsigned flags : 3, kind : 5; uint32_t wide : 20; };
union u { int32_t l; int16_t h[2]; float f; };
typedef struct { int re; long im; } cx;
static int depth;
static struct big make(int k) {
    struct big b = {0};
    for (int i = 0; i < 3; i++) { b.p[i].a = (int16_t)(k * (i + 1)); b.p[i].b = (int32_t)k * 70000 + i; }
    b.f = k * 0.5f; b.d = k * 0.25; b.q = (int64_t)k << 40; b.s = k & 1 ? "odd" : "even";
    b.flags = k & 7; b.kind = (k * 3) & 31; b.wide = (uint32_t)k * 4099u;
    return b;
}
static struct big twist(struct big b, int by) {
    b.p[by % 3].a += 100; b.q -= by; b.flags ^= 5; b.wide += 7;
    return b;
}
static union u pun(int32_t v) { union u x; x.l = v; return x; }
static cx cmul(cx a, cx b) { cx r; r.re = a.re * b.re - (int)(a.im * b.im); r.im = (long)a.re * b.im + a.im * b.re; return r; }
static cx cpow(cx a, int n) { cx one = {1, 0}; ++depth; return n == 0 ? one : cmul(a, cpow(a, n - 1)); }
static long sum(struct big b) {
    long s = b.q >> 40;
    for (int i = 0; i < 3; i++) s += b.p[i].a + b.p[i].b % 1000;
    return s + (long)(b.f * 4) + (long)(b.d * 8) + b.s[0] + b.flags + b.kind + (long)b.wide;
}
int main(void) {
    struct big x = make(3), y;
    y = twist(x, 4);
    struct big *p = &y, arr[2];
    *p = twist(*p, 5);
    arr[1] = make(7);
    arr[0] = arr[1];
    arr[0].p[2].b = -1;
    volatile struct in v = {5, 6};
    struct in w = v;
    make(9);
    union u z = pun(0x12345678);
    cx c = {3, -2}, e = cpow(c, 4);
    printf("%d %d %d %d %d\n", sum(x) == sum(make(3)), y.p[1].a - x.p[1].a, y.p[2].a - x.p[2].a, (int)(x.q - y.q),
           y.flags == x.flags && y.wide == x.wide + 14);
    printf("%d %d %d %d %x\n", sum(arr[1]) == sum(make(7)), (int)(sum(arr[1]) - sum(arr[0])), w.a + (int)w.b, depth, z.h[1]);
    printf("%d %ld %s %s\n", e.re, e.im, x.s, arr[0].s);
    return 0;
}
)");
    IFRUN_RESULT reference = expect_same_at_every_level();
    // (3 - 2i)^4 = -119 - 120i; 7 % 1000 + 1 == 8 more for arr[1]'s p[2].b.
    EXPECT_EQ(reference.output, "1 100 100 9 1\n1 3 11 5 1234\n-119 -120 odd odd\n");
}

}  // namespace
