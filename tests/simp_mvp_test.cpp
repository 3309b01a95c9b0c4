// The simplifier's rules and analyses, and the integer metavalue lattice,
// on trees and values built in the test.
#include <gtest/gtest.h>

#include "BITVEC/bitvec.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/mvp.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/opt_client.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"

namespace {

class Simp : public ::testing::Test {
protected:
    void SetUp() override {
        init_opcode_tables();
        if (!type_pkg) init_types();
        currfuninfo = &fi;
        x.name = "x";
        y.name = "y";
        x.type = y.type = i16;
    }
    void TearDown() override { currfuninfo = nullptr; }
    NODE* name(SYMTAB& s, TYPE* t = nullptr) {
        NODE* n = new_node(NAME, t ? t : i16);
        n->symbol = &s;
        return n;
    }
    NODE* k(long long v, TYPE* t = nullptr) { return mk_ICON(INT65(v), t ? t : i16); }
    // Simplifies the tree and returns it in infix form (freeing it).
    std::string simp(NODE* t) {
        t = simp_tree(t, nullptr);
        std::string s = stmt2infix(t);
        erase_tree(t);
        return s;
    }

    TYPE* i16 = type_pkg ? type_pkg->mk_int(TYPE::IK_INT, true) : (init_types(), type_pkg->mk_int(TYPE::IK_INT, true));
    TYPE* u16 = type_pkg->mk_int(TYPE::IK_UINT, false);
    TYPE* i32 = type_pkg->mk_int(TYPE::IK_LONG, true);
    TYPE* u32 = type_pkg->mk_int(TYPE::IK_ULONG, false);
    FUNINFO fi{nullptr};
    SYMTAB x, y;
};

TEST_F(Simp, WidthRules) {
    EXPECT_EQ(truncate_to_type(INT65(0x18000), i16), INT65(-32768));
    EXPECT_EQ(truncate_to_type(INT65(-1), u16), INT65(0xFFFF));
    EXPECT_EQ(truncate_to_type(INT65(0x7FFF), i16), INT65(0x7FFF));
    // A pointer is the pointer-sized unsigned integer.
    EXPECT_EQ(truncate_to_type(INT65(-1), type_pkg->mk_ptr(i16)), INT65(0xFFFFFFFFu));
    EXPECT_EQ(sign_extend_by_type(INT65(0xFFFF), u16), INT65(-1));
    EXPECT_EQ(sign_extend_by_type(INT65(0xFFFFFFFFu), u32), INT65(-1));
    EXPECT_EQ(sign_extend_by_type_size(INT65(0xFF), type_pkg->mk_int(TYPE::IK_UCHAR, false)),
              sign_extend_by_type(INT65(0xFF), type_pkg->mk_int(TYPE::IK_SCHAR, true)));
    // Shift counts: 1 to width-2 for signed types, 1 to width-1 for unsigned.
    EXPECT_TRUE(shift_count_is_legal_and_nontrivial_for_type(INT65(30), i32));
    EXPECT_FALSE(shift_count_is_legal_and_nontrivial_for_type(INT65(31), i32));
    EXPECT_TRUE(shift_count_is_legal_and_nontrivial_for_type(INT65(31), u32));
    EXPECT_FALSE(shift_count_is_legal_and_nontrivial_for_type(INT65(0), u32));
    EXPECT_FALSE(shift_count_is_legal_and_nontrivial_for_type(INT65(32), u32));
    EXPECT_EXIT(truncate_to_type(INT65(1), type_pkg->mk_fltpt(TYPE::FK_FLOAT)), ::testing::ExitedWithCode(1), "");
    EXPECT_EXIT(truncate_to_type(INT65(1), nullptr), ::testing::ExitedWithCode(1), "");
}

TEST_F(Simp, KnownBits) {
    NODE* orb = mktree(ORB, i16, name(x), k(8));
    EXPECT_EQ(find_known_ones(orb, i16), INT65(8));
    NODE* andb = mktree(ANDB, i16, name(x), k(8));
    EXPECT_EQ(find_known_ones(andb, i16), INT65(0));
    EXPECT_EQ(find_known_zeros(andb, i16), truncate_to_type(~INT65(8), i16));
    NODE* both = mktree(ANDB, i16, mktree(ORB, i16, name(x), k(12)), k(10));
    EXPECT_EQ(find_known_ones(both, i16), INT65(8));
    NODE* shifted = mktree(SLL, i16, mktree(ORB, i16, name(x), k(1)), k(3));
    EXPECT_EQ(find_known_ones(shifted, i16), INT65(8));
    EXPECT_EQ(find_known_zeros(shifted, i16) & INT65(7), INT65(7));
    // A comparison is 0 or 1; a float has no known bits.
    NODE* lt = mktree(LT, i16, name(x), name(y));
    EXPECT_EQ(find_known_zeros(lt, i16) & INT65(0xFFFE), INT65(0xFFFE));
    EXPECT_EQ(find_known_ones(k(5), type_pkg->mk_fltpt(TYPE::FK_FLOAT)), INT65(0));
    // Nor has a pointer, not even a constant one, nor an integer taken
    // from a pointer.
    TYPE* p16 = type_pkg->mk_ptr(i16);
    NODE* address = mk_ICON(INT65(0x8001), p16);
    EXPECT_EQ(find_known_ones(address, p16), INT65(0));
    NODE* taken = mktree(SCONV, u32, mktree(ORB, p16, name(x), mk_ICON(INT65(1), p16)));
    EXPECT_EQ(find_known_ones(taken, u32), INT65(0));
    erase_tree(address);
    erase_tree(taken);
    for (NODE* t : {orb, andb, both, shifted, lt}) erase_tree(t);
    EXPECT_EQ(find_known_ones_in_range(INT65(12), INT65(15)), INT65(12));
    EXPECT_EQ(find_known_zeros_in_range(INT65(0), INT65(7)) & INT65(0xFF), INT65(0xF8));
}

TEST_F(Simp, BooleanInversion) {
    // !(c == 0) with c a comparison is c itself; !(a < b) is a >= b;
    // ! of something without an inverse is (t == 0).
    NODE* eq = mktree(EQ, i16, mktree(LT, i16, name(x), name(y)), k(0));
    NODE* r = invert_boolean_tree(eq);
    EXPECT_EQ(stmt2infix(r), "(x < y)");
    erase_tree(r);
    r = invert_boolean_tree(mktree(LT, i16, name(x), name(y)));
    EXPECT_EQ(stmt2infix(r), "(x >= y)");
    erase_tree(r);
    r = invert_boolean_tree(mktree(PLUS, i16, name(x), name(y)));
    EXPECT_EQ(stmt2infix(r), "((x + y) == 0)");
    erase_tree(r);
    // Floating comparisons invert only to comparisons that exist: < has
    // no opcode for "greater, equal or unordered".
    EXPECT_EQ(boolean_inv[FEQ], FNEQ);
    EXPECT_EQ(boolean_inv[FLT], ILLOP);
    EXPECT_EQ(boolean_inv[FORD], FUNO);
}

// A part of a complex value made of its parts is that part, unless the
// other part has effects; only a complex type has a part type.
TEST_F(Simp, PartsOfComplexValuesMadeOfTheirParts) {
    TYPE* c16 = type_pkg->mk_complex(i16);
    EXPECT_EQ(c16->part_type(), i16);
    EXPECT_EQ(simp(mktree(REAL, i16, mktree(COMPLEX, c16, name(x), name(y)))), "x");
    EXPECT_EQ(simp(mktree(IMAG, i16, mktree(COMPLEX, c16, name(x), k(3)))), "3");
    // The part that goes may not change anything: x++ stays.
    EXPECT_EQ(simp(mktree(IMAG, i16, mktree(COMPLEX, c16, mktree(PLUSPLUS, i16, name(x), k(1)), name(y)))),
              "IMAG(COMPLEX(PLUSPLUS(x, 1), y))");
    EXPECT_EXIT(i16->part_type(), ::testing::ExitedWithCode(1), "Bad kind:  TYPE::part_type\\(\\)");
}

TEST_F(Simp, RewritesKeepValuesExact) {
    EXPECT_EQ(simp(mktree(PLUS, i16, k(32767), k(1))), "-32768");
    EXPECT_EQ(simp(mktree(MINUS, u16, k(0, u16), k(1, u16))), "65535");
    EXPECT_EQ(simp(mktree(DIV, i16, k(-7), k(2))), "-3");
    EXPECT_EQ(simp(mktree(DIV, i16, k(1), k(0))), "(1 / 0)");  // left to trap at run time
    EXPECT_EQ(simp(mktree(SLL, i16, k(1), k(16))), "(1 << 16)");  // undefined: left alone
    EXPECT_EQ(simp(mktree(ULT, i16, k(-1), k(1))), "0");          // 0xFFFF < 1 unsigned
    EXPECT_EQ(simp(mktree(PLUS, i16, mktree(PLUS, i16, name(x), k(3)), k(4))), "(x + 7)");
    EXPECT_EQ(simp(mktree(MINUS, i16, name(x), k(-32768))), "(x + -32768)");
    EXPECT_EQ(simp(mktree(MULT, i16, k(8), name(x))), "(x << 3)");
    EXPECT_EQ(simp(mktree(DIV, u16, name(x, u16), k(4, u16))), "(x >> 2)");
    // A signed quotient by 2^k is a shift only when the dividend can't be negative.
    EXPECT_EQ(simp(mktree(DIV, i16, name(x), k(4))), "(x / 4)");
    EXPECT_EQ(simp(mktree(DIV, i16, mktree(ANDB, i16, name(x), k(0x7F)), k(4))), "((x & 127) >> 2)");
    EXPECT_EQ(simp(mktree(MOD, u16, name(x, u16), k(8, u16))), "(x & 7)");
    EXPECT_EQ(simp(mktree(LT, i16, k(3), name(x))), "(x > 3)");
    EXPECT_EQ(simp(mktree(EQ, i16, mktree(PLUS, i16, name(x), k(5)), k(7))), "(x == 2)");
    EXPECT_EQ(simp(mktree(EQ, i16, mktree(ORB, i16, name(x), k(8)), k(3))), "0");
    EXPECT_EQ(simp(mktree(UGE, i16, name(x, u16), k(0, u16))), "1");
    EXPECT_EQ(simp(mktree(ANDB, i16, mktree(ANDB, i16, name(x), k(12)), k(15))), "(x & 12)");
    EXPECT_EQ(simp(mktree(XORB, i16, name(x), name(x))), "0");
    EXPECT_EQ(simp(mktree(MULT, i16, name(x), k(0))), "0");
    EXPECT_EQ(simp(mktree(SCONV, i16, mktree(SCONV, i32, name(x)))), "x");
    // A value masked to what the inner type holds goes through it unchanged;
    // 0xFFFF does not fit a signed 16 bits.
    auto masked = [&](TYPE* inner, long long m) {
        return mktree(SCONV, i32, mktree(SCONV, inner, mktree(ANDB, u32, name(y, u32), k(m, u32))));
    };
    EXPECT_EQ(simp(masked(u16, 255)), "SCONV((y & 255))");
    EXPECT_EQ(simp(masked(u16, 0xFFFF)), "SCONV((y & 65535))");
    EXPECT_EQ(simp(masked(i16, 0xFFFF)), "SCONV(SCONV((y & 65535)))");
}

TEST_F(Simp, AssertionsDecideTestsButNotThemselves) {
    // With x > 0 asserted, a later x > 0 is 1 and x <= 0 is 0; the
    // assertion itself stays as it is, and the assertions are on again after.
    fi.assertions.push_back(mktree(GT, i16, name(x), k(0)));
    fi.assertions_in_force = true;
    NODE* assertion = mktree(ASSERT, nullptr, mktree(GT, i16, name(x), k(0)));
    assertion = simp_tree(assertion, nullptr);
    EXPECT_EQ(stmt2infix(assertion), "ASSERT((x > 0))");
    EXPECT_TRUE(fi.assertions_in_force);
    EXPECT_EQ(simp(mktree(GT, i16, name(x), k(0))), "1");
    EXPECT_EQ(simp(mktree(LE, i16, name(x), k(0))), "0");
    EXPECT_EQ(simp(mktree(GT, i16, name(y), k(0))), "(y > 0)");
    erase_tree(assertion);
    erase_tree(fi.assertions[0]);
    fi.assertions.clear();
}

// A local's address, converted or moved by constants, is never null; a
// global's may be compared (it stays), and so may a pointer variable's.
TEST_F(Simp, LocalAddressesAreNeverNull) {
    TYPE* pi = type_pkg->mk_ptr(i16);
    TYPE* pu = type_pkg->mk_ptr(u16);
    SYMTAB g, p;
    g.name = "g";
    g.global = true;
    p.name = "p";
    auto address = [&](SYMTAB& s) { return mktree(PLUS, pu, mktree(PCONV, pu, mktree(UAND, pi, name(s))), k(4)); };
    auto null = [&]() { return mktree(PCONV, pu, k(0)); };
    EXPECT_EQ(simp(mktree(EQ, i16, address(x), null())), "0");
    EXPECT_EQ(simp(mktree(NEQ, i16, null(), address(x))), "1");
    EXPECT_NE(simp(mktree(EQ, i16, address(g), null())), "0");
    EXPECT_NE(simp(mktree(EQ, i16, name(p, pu), null())), "0");
}

TEST_F(Simp, MemberAccessAndIndirection) {
    TYPE* rec = type_pkg->mk_struct("pt");
    TYPE* ptr = type_pkg->mk_ptr(rec);
    TYPE_ELEM member;
    member.name = "y";
    member.type = i16;
    member.nums = {0, 0, 32};  // not a bit field; offset 32 sixteenths: 2 units
    auto field = [&]() {
        NODE* f = new_node(FIELD, nullptr);
        f->mx().fld_member = &member;
        return f;
    };
    SYMTAB p, s;
    p.name = "p";
    s.name = "s";
    // (p + 3)->y is *((int *) p + 5).
    NODE* sum = mktree(PLUS, ptr, name(p, ptr), k(3));
    EXPECT_EQ(simp(mktree(STREF, i16, sum, field())), "*(PCONV(p) + 5)");
    // (&s)->y is s.y.
    NODE* addr = mktree(UAND, ptr, name(s, rec));
    EXPECT_EQ(simp(mktree(STREF, i16, addr, field())), "STDOT(s, FIELD)");
    // *&x is x before normalisation, and stays after it.
    EXPECT_EQ(simp(mktree(UMULT, i16, mktree(UAND, type_pkg->mk_ptr(i16), name(x)))), "x");
    trees_are_normalized = true;
    EXPECT_EQ(simp(mktree(UMULT, i16, mktree(UAND, type_pkg->mk_ptr(i16), name(x)))), "*&x");
    trees_are_normalized = false;

    // *sel(&x, &y, c) of a built-in of three arguments reads the objects
    // themselves: sel(x, y, c) in the type read.
    TYPE* pi = type_pkg->mk_ptr(i16);
    auto select = [&](NODE* third) {
        NODE* args = mktree(PCOMMA, nullptr, mktree(UAND, pi, name(x)),
                            mktree(PCOMMA, nullptr, mktree(UAND, pi, name(y)), third));
        NODE* call = mktree(ICALL, pi, args);
        call->mk_icall("__sel");
        return mktree(UMULT, i16, call);
    };
    NODE* t = simp_tree(select(k(1)), nullptr);
    EXPECT_EQ(t->opcode, ICALL);
    EXPECT_EQ(t->type, i16);
    EXPECT_EQ(t->left->left->opcode, NAME);
    EXPECT_EQ(t->left->right->left->opcode, NAME);
    erase_tree(t);
    // With a fourth argument it is not such a built-in.
    t = simp_tree(select(mktree(PCOMMA, nullptr, k(1), k(2))), nullptr);
    EXPECT_EQ(t->opcode, UMULT);
    erase_tree(t);

    // A member access through a pointer to anything but a record (or an
    // array of records) is a broken tree.
    EXPECT_EXIT(simp(mktree(STREF, i16, name(p, pi), field())), ::testing::ExitedWithCode(1), "terminated abnormally");
}

TEST(BitVec, SetsAndResizes) {
    BITVEC a(70), b(70);
    a.set(3);
    a.set(69);
    b.set(3);
    b.set(10);
    EXPECT_TRUE(a.union_with(b));
    EXPECT_FALSE(a.union_with(b));
    EXPECT_EQ(a.count(), 3u);
    a.subtract(b);
    EXPECT_TRUE(a.test(69));
    EXPECT_FALSE(a.test(3));
    a.set_all();
    EXPECT_EQ(a.count(), 70u);
    a.resize(100);
    EXPECT_EQ(a.count(), 70u);
    EXPECT_FALSE(a.test(99));
    BITVEC* zoned = new BITVEC(8, true);
    EXPECT_EXIT(free_bitvec(zoned), ::testing::ExitedWithCode(1), "");
    delete zoned;
}

TEST(Metavalues, ExactSetsBecomeRangesAtThirtyThree) {
    mvpIntegers mv;
    EXPECT_TRUE(mv.is_at_top());
    for (int i = 0; i < 32; ++i) EXPECT_TRUE(mv.merge_constant_integer_value(INT65(i * 3)));
    EXPECT_TRUE(mv.is_exact());
    EXPECT_EQ(mv.size(), 32u);
    EXPECT_FALSE(mv.merge_constant_integer_value(INT65(9)));  // already there: no change
    EXPECT_TRUE(mv.merge_constant_integer_value(INT65(96)));
    EXPECT_TRUE(mv.is_inexact());
    EXPECT_EQ(mv.minimum(), INT65(0));
    EXPECT_EQ(mv.maximum(), INT65(96));
    EXPECT_EQ(mv.stride(), INT65(3));
    EXPECT_TRUE(mv.contains_integer_value(INT65(51)));
    EXPECT_FALSE(mv.contains_integer_value(INT65(52)));
}

TEST(Metavalues, StridesAndKnownBits) {
    mvpIntegers mv;
    mv.merge_constant_integer_range(INT65(0), INT65(400), INT65(4));
    EXPECT_TRUE(mv.merge_constant_integer_value(INT65(404)));
    EXPECT_EQ(mv.stride(), INT65(4));
    EXPECT_EQ(mv.known_0_bits() & INT65(3), INT65(3));  // multiples of 4
    EXPECT_TRUE(mv.merge_constant_integer_value(INT65(7)));
    EXPECT_EQ(mv.stride(), INT65(1));
    EXPECT_EQ(mv.known_0_bits() & INT65(3), INT65(0));
    // An exact set knows the bits its values share.
    mvpIntegers set;
    set.merge_constant_integer_value(INT65(12));
    set.merge_constant_integer_value(INT65(13));
    EXPECT_EQ(set.known_1_bits(), INT65(12));
    EXPECT_EQ(set.known_0_bits() & INT65(0xFF), INT65(0xF2));
    mvpIntegers copy = set;
    EXPECT_FALSE(copy.meet_and_note_change(set));
    EXPECT_TRUE(set.is_subset_of(mv));
    EXPECT_FALSE(mv.is_subset_of(set));
    EXPECT_EXIT(set.meet_mvpIntegers_metavalues(set), ::testing::ExitedWithCode(1), "");
    mvpIntegers top;
    EXPECT_EXIT(top.minimum(), ::testing::ExitedWithCode(1), "");
}

// A short range that ends at the largest unsigned 64-bit value: stepping
// through it must stop there, not wrap around past it (it used to hang).
TEST(Metavalues, ARangeEndingAtTheLargestValueIsMergedValueByValue) {
    INT65 max_u = INT65::from_words(0, ~0ULL);
    mvpIntegers m;
    m.merge_constant_integer_range(max_u - INT65(6), max_u, INT65(2));
    EXPECT_TRUE(m.is_exact());
    EXPECT_EQ(m.size(), 4u);
    EXPECT_EQ(m.minimum(), max_u - INT65(6));
    EXPECT_EQ(m.maximum(), max_u);
}

TEST(Metavalues, EvaluationWrapsAndRefines) {
    init_opcode_tables();
    if (!type_pkg) init_types();
    TYPE* i16 = type_pkg->mk_int(TYPE::IK_INT, true);
    mvpIntegers a, b, r;
    a.merge_constant_integer_range(INT65(0), INT65(100), INT65(1));
    b.merge_constant_integer_value(INT65(2));
    r.eval_binary_operation(MULT, i16, i16, a, b);
    EXPECT_EQ(r.minimum(), INT65(0));
    EXPECT_EQ(r.maximum(), INT65(200));
    EXPECT_EQ(r.stride(), INT65(2));
    // Past the type's range the sum wraps: nothing is known but the type.
    mvpIntegers big;
    big.merge_constant_integer_range(INT65(32700), INT65(32767), INT65(1));
    r.eval_binary_operation(PLUS, i16, i16, big, big);
    EXPECT_EQ(r.minimum(), INT65(-32768));
    EXPECT_EQ(r.maximum(), INT65(32767));
    // Ranges that don't overlap decide comparisons.
    r.eval_binary_operation(LT, i16, i16, a, big);
    EXPECT_TRUE(r.is_exact());
    EXPECT_EQ(r.minimum(), INT65(1));
    EXPECT_EQ(r.size(), 1u);
    // x < 10 holding narrows [0, 100] to [0, 9].
    NODE* x = new_node(NAME, i16);
    NODE* test = mktree(LT, i16, x, mk_ICON(INT65(10), i16));
    mvpIntegers narrowed = a;
    narrowed.refine(test, true, x);
    EXPECT_EQ(narrowed.maximum(), INT65(9));
    narrowed = a;
    narrowed.refine(test, false, x);
    EXPECT_EQ(narrowed.minimum(), INT65(10));
    erase_tree(test);
    int n = 0;
    for (mvpIntegers::ITERATOR it(b); !it.done(); it.next()) n += it.value().as<int>();
    EXPECT_EQ(n, 2);
}

// An assertion keeps what lies within its bounds: values of a set, the
// part of a range on its stride; nothing left means it can't hold (top).
TEST(Metavalues, AssertionsKeepWhatLiesWithinTheirBounds) {
    mvpIntegers set;
    for (int v : {1, 4, 7, 9}) set.merge_constant_integer_value(INT65(v));
    INT65 seven(7);
    set.eval_exact_integer_assertion(INT65(2), INT65(9), &seven);
    ASSERT_TRUE(set.is_exact());
    EXPECT_EQ(set.size(), 2u);
    EXPECT_EQ(set.minimum(), INT65(4));
    EXPECT_EQ(set.maximum(), INT65(9));
    EXPECT_EQ(set.known_1_bits(), INT65(0));
    set.eval_exact_integer_assertion(INT65(5), INT65(8), nullptr);
    EXPECT_TRUE(set.is_at_top());

    mvpIntegers range;
    range.merge_constant_integer_range(INT65(0), INT65(300), INT65(3));
    range.eval_inexact_integer_assertion(INT65(10), INT65(200));
    ASSERT_TRUE(range.is_inexact());
    EXPECT_EQ(range.minimum(), INT65(12));  // the first on the stride
    EXPECT_EQ(range.maximum(), INT65(198));
    EXPECT_EQ(range.stride(), INT65(3));
    range.eval_inexact_integer_assertion(INT65(100), INT65(101));
    EXPECT_TRUE(range.is_at_top());
    // Few enough values left make an exact set.
    range.merge_constant_integer_range(INT65(0), INT65(300), INT65(3));
    range.eval_inexact_integer_assertion(INT65(10), INT65(100));
    EXPECT_TRUE(range.is_exact());
    EXPECT_EQ(range.size(), 30u);
    EXPECT_EQ(range.maximum(), INT65(99));
}

TEST(Metavalues, WideningMovesOnlyTheBoundsThatGrew) {
    init_opcode_tables();
    if (!type_pkg) init_types();
    TYPE* i16 = type_pkg->mk_int(TYPE::IK_INT, true);
    mvpIntegers before, grown;
    for (int v : {10, 16, 22}) before.merge_constant_integer_value(INT65(v));
    grown = before;
    grown.merge_constant_integer_value(INT65(28));
    mvpIntegers w = grown;
    w.widen(before, i16);
    // Upward only, in steps of 6 from 10: the last such value under 32768.
    EXPECT_TRUE(w.is_inexact());
    EXPECT_EQ(w.minimum(), INT65(10));
    EXPECT_EQ(w.maximum(), INT65(32764));
    EXPECT_EQ(w.stride(), INT65(6));
    EXPECT_TRUE(grown.is_subset_of(w));
    // Downward only, to the first such value at or over -32768.
    grown = before;
    grown.merge_constant_integer_value(INT65(4));
    w = grown;
    w.widen(before, i16);
    EXPECT_EQ(w.minimum(), INT65(-32768));  // 4 - 5462 * 6
    EXPECT_EQ(w.maximum(), INT65(22));
    EXPECT_TRUE(w.contains_integer_value(INT65(-2)));
    // A value that grew inside its bounds keeps them.
    grown = before;
    grown.merge_constant_integer_value(INT65(13));
    w = grown;
    w.widen(before, i16);
    EXPECT_TRUE(w == grown);
}

TEST(Metavalues, ArithmeticPastSixtyFiveBitsGivesTheWholeType) {
    init_opcode_tables();
    if (!type_pkg) init_types();
    // Unsigned 64-bit: products of full ranges need 128 bits; 65-bit
    // arithmetic used to wrap them into a narrow (and wrong) range.
    TYPE* u64 = type_pkg->mk_int(TYPE::IK_ULLONG, false);
    TYPE* s64 = type_pkg->mk_int(TYPE::IK_LLONG, true);
    INT65 max_u = INT65::from_words(0, ~0ULL);
    mvpIntegers a, r;
    a.merge_constant_integer_range(INT65(3), max_u, INT65(1));
    for (int op : {MULT, PLUS, SLL}) {
        mvpIntegers b;
        b.merge_constant_integer_range(op == SLL ? INT65(1) : INT65(2), op == SLL ? INT65(1) : max_u, INT65(1));
        r.eval_binary_operation(op, u64, u64, a, b);
        EXPECT_EQ(r.minimum(), INT65(0)) << op;
        EXPECT_EQ(r.maximum(), max_u) << op;
    }
    mvpIntegers lo;
    lo.merge_constant_integer_range(-(INT65(1) << INT65(63)), INT65(-5), INT65(1));
    r.eval_binary_operation(MINUS, s64, s64, lo, a);
    EXPECT_EQ(r.minimum(), -(INT65(1) << INT65(63)));
    EXPECT_EQ(r.maximum(), (INT65(1) << INT65(63)) - INT65(1));
    // The checked operations themselves, at the edges of 65 bits.
    INT65 out(7), min65 = INT65::from_words(-1, 0);
    EXPECT_TRUE(INT65::checked_add(max_u, INT65(0), &out));
    EXPECT_FALSE(INT65::checked_add(max_u, INT65(1), &out));
    EXPECT_FALSE(INT65::checked_sub(min65, INT65(1), &out));
    EXPECT_TRUE(INT65::checked_mul(INT65(-1), max_u, &out));
    EXPECT_EQ(out, -max_u);
    EXPECT_FALSE(INT65::checked_mul(max_u, INT65(2), &out));
    EXPECT_TRUE(INT65::checked_shl(INT65(-1), 64, &out));
    EXPECT_EQ(out, min65);
    EXPECT_FALSE(INT65::checked_shl(INT65(1), 64, &out));
    EXPECT_EQ(out, min65);  // left alone on overflow
}

}  // namespace
