#include <gtest/gtest.h>

#include <cstdint>
#include <set>

#include "IFILE/if_node.h"
#include "OPT5/cmdline.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/abort.h"
#include "UTIL/assert.h"
#include "XINT/int65.h"

namespace {

const INT65 two_to_64 = INT65::from_words(-1, 0);  // -2^64 in 65 bits, the same pattern as bit 64

TEST(Int65, WrapsModuloTwoToThe65) {
    INT65 umax(UINT64_MAX);
    EXPECT_EQ(umax.sign_word(), 0);
    EXPECT_EQ((umax + INT65(1)), two_to_64);
    EXPECT_EQ(INT65(INT64_MIN) / INT65(-1), INT65(static_cast<unsigned long long>(INT64_MAX) + 1));
    EXPECT_EQ(INT65(-7) / INT65(2), INT65(-3));
    EXPECT_EQ(INT65(-7) % INT65(2), INT65(-1));
    EXPECT_EQ(INT65(-1) * INT65(-1), INT65(1));
    EXPECT_EQ(umax * INT65(2), INT65(-2));  // 2^65 - 2 wraps to -2
    EXPECT_TRUE(INT65(-1) < INT65(0u));
    EXPECT_TRUE(umax > INT65(INT64_MAX));
    EXPECT_EQ(two_to_64.to_string(), "-18446744073709551616");
    EXPECT_EQ(umax.to_string(), "18446744073709551615");
}

// Sums, negations, differences and order agree with 128-bit arithmetic
// wrapped to 65 bits, on values near every edge.
TEST(Int65, ArithmeticAgreesWithWideIntegers) {
    using s128 = __int128;
    const s128 span = static_cast<s128>(1) << 65, half = static_cast<s128>(1) << 64;
    auto wrap = [&](s128 v) {
        v %= span;
        if (v < -half) v += span;
        if (v >= half) v -= span;
        return v;
    };
    auto of = [&](s128 v) {
        v = wrap(v);
        return INT65::from_words(v < 0 ? -1 : 0, static_cast<uint64_t>(v));
    };
    std::vector<s128> edges = {0, 1, -1, 2, -2, INT64_MAX, INT64_MIN, static_cast<s128>(UINT64_MAX), -half,
                               half - 1, -half + 1, static_cast<s128>(INT64_MAX) + 1, 12345, -98765};
    for (s128 a : edges)
        for (s128 b : edges) {
            INT65 x = of(a), y = of(b);
            EXPECT_EQ(x + y, of(a + b));
            EXPECT_EQ(x - y, of(a - b));
            EXPECT_EQ(-x, of(-a));
            EXPECT_EQ(x < y, wrap(a) < wrap(b));
            EXPECT_EQ(x <= y, wrap(a) <= wrap(b));
        }
}

TEST(Int65, Shifts) {
    INT65 one(1);
    EXPECT_EQ(one << INT65(0), one);
    EXPECT_EQ(one << INT65(64), two_to_64);  // the bit shifted out of the low word sets the sign word
    EXPECT_EQ(one << INT65(65), INT65(0));
    EXPECT_EQ(INT65(3) << INT65(63), INT65::from_words(-1, 1ULL << 63));
    EXPECT_EQ(INT65(8) << INT65(-2), INT65(2));
    EXPECT_EQ(INT65(-8) >> INT65(2), INT65(-2));
    EXPECT_EQ(INT65(-8) >> INT65(200), INT65(-1));
    EXPECT_EQ(INT65(2) >> INT65(-3), INT65(16));
    EXPECT_EQ(INT65(-1).lshr(1), INT65(UINT64_MAX));
}

TEST(Int65, TruncateParseAndRanges) {
    set_internal_error_handler(optassert);  // as the optimizer does: its internal-error path
    EXPECT_EQ(INT65(0x1FFFF).truncate(16, true), INT65(-1));
    EXPECT_EQ(INT65(0x1FFFF).truncate(16, false), INT65(0xFFFF));
    EXPECT_EQ(INT65(-1).truncate(64, false), INT65(UINT64_MAX));
    INT65 v;
    bool overflow = true;
    EXPECT_TRUE(INT65::parse("-123", v, &overflow));
    EXPECT_EQ(v, INT65(-123));
    EXPECT_FALSE(overflow);
    EXPECT_TRUE(INT65::parse("18446744073709551615", v, &overflow));
    EXPECT_EQ(v, INT65(UINT64_MAX));
    EXPECT_TRUE(INT65::parse("99999999999999999999999", v, &overflow));
    EXPECT_TRUE(overflow);
    EXPECT_FALSE(INT65::parse("12x", v));
    EXPECT_FALSE(INT65::parse("-", v));
    EXPECT_TRUE(INT65(-5).fits_in<int32_t>());
    EXPECT_FALSE(INT65(-5).fits_in<uint32_t>());
    EXPECT_FALSE(INT65(0x100000000LL).fits_in<uint32_t>());
    EXPECT_FALSE(INT65(UINT64_MAX).fits_in<int64_t>());
    EXPECT_EXIT(INT65(0x100000000LL).as<uint32_t>(), ::testing::ExitedWithCode(1),
                ">>>> Optimizer terminated abnormally\n");
}

class Trees : public ::testing::Test {
protected:
    void SetUp() override {
        init_opcode_tables();
        reset_global_flags();
        currfuninfo = &fi;
    }
    void TearDown() override {
        currfuninfo = nullptr;
        reset_global_flags();
    }
    FUNINFO fi{nullptr};
    TYPE_PKG pkg;
    TYPE* i16 = pkg.mk_int(TYPE::IK_INT, true);
    TYPE* u16 = pkg.mk_int(TYPE::IK_UINT, false);
};

TEST_F(Trees, OpcodeTableProperties) {
    EXPECT_STREQ(node_operator_name[PLUS], "PLUS");
    EXPECT_EQ(number_of_operands[DFG_SQC], 3);
    EXPECT_EQ(number_of_operands[ILLOP], 255);
    EXPECT_EQ(number_of_operands[DFG_SSV], 255);
    EXPECT_EQ(number_of_operands[28], 255);
    EXPECT_EQ(node_operator_name[28], nullptr);
    EXPECT_EQ(node_operator_name[EPVAL], nullptr);
    EXPECT_EQ(precedence[ASG], 2);
    EXPECT_EQ(side_effects[CALL], 255);
    EXPECT_EQ(side_effects[BRANCH], 2);
    EXPECT_EQ(op_OK_for_SP[DIV], 0);
    for (int i = 0; i < 14; ++i) EXPECT_EQ(float_micro_ops_to_op(float_op_to_micro_ops[i]), FEQ + i);
    EXPECT_EQ(if_node_info[EPVAL].arity, 1);
    EXPECT_EQ(if_node_info[SKIP].arity, 1);
    EXPECT_EQ(if_node_info[28].name, nullptr);
    EXPECT_EXIT(if_enter_node(201, "X", 0), ::testing::ExitedWithCode(1), "INTERNAL ERROR: Invalid opcode, aborting");
}

TEST_F(Trees, CreationRules) {
    EXPECT_TRUE(fi.no_calls);
    erase_node(new_node(UCALL, i16));
    EXPECT_FALSE(fi.no_calls);

    TYPE* e = pkg.mk_enum("e", pkg.mk_typedef("T", u16), 16, 16, 0);
    NODE* conv = new_node(SCONV, e);
    EXPECT_EQ(conv->type, u16);
    EXPECT_EQ(conv->creation_type, e);
    erase_node(conv);

    TYPE_PKG* saved = type_pkg;
    type_pkg = &pkg;
    TYPE* puc = pkg.mk_ptr(pkg.mk_int(TYPE::IK_UCHAR, false));
    TYPE* pint = pkg.mk_ptr(i16);
    chars_alias_other_types = 0;
    NODE* a = new_node(PCONV, puc);
    chars_alias_other_types = 1;
    NODE* b = new_node(PCONV, puc);
    NODE* c = new_node(PCONV, pint);
    EXPECT_EQ(a->opcode, PCONV);
    EXPECT_EQ(b->opcode, ISP2CHAR);
    EXPECT_EQ(c->opcode, PCONV);
    for (NODE* n : {a, b, c}) erase_node(n);
    type_pkg = saved;
}

TEST_F(Trees, PayloadSetters) {
    set_internal_error_handler(optassert);
    NODE* s = new_node(ICON, i16);
    s->mk_icon(-1);
    EXPECT_EQ(s->value, INT65(-1));
    NODE* u = new_node(ICON, u16);
    u->mk_icon(-1);
    EXPECT_EQ(u->value, INT65(0xFFFFFFFFu));
    // A pointer is unsigned: the constant the I-file gives for it too.
    NODE* p = new_node(ICON, pkg.mk_ptr(i16));
    p->mk_icon(static_cast<int>(0x80000000u));
    EXPECT_EQ(p->value, INT65(0x80000000u));
    NODE* l = new_node(LCON, i16);
    l->mk_lcon("65537");
    EXPECT_EQ(l->opcode, ICON);
    EXPECT_EQ(l->value, INT65(1));  // truncated to 16 bits
    NODE* big = mk_ICON(INT65(0x100000000LL), pkg.mk_int(TYPE::IK_LLONG, true));
    EXPECT_EXIT(big->icon_uvalue(), ::testing::ExitedWithCode(1), "terminated abnormally");
    EXPECT_EXIT(mk_integer_constant(INT65(1), pkg.mk_ptr(i16)), ::testing::ExitedWithCode(1), "terminated abnormally");
    for (NODE* n : {s, u, p, l, big}) erase_node(n);
}

TEST_F(Trees, CopyIfChangedKeepsTheOldTree) {
    NODE* a = mk_ICON(1, i16);
    NODE* b = mk_ICON(2, i16);
    NODE* plus = mktree(PLUS, i16, a, b);
    EXPECT_EQ(copy_node_if_changed(plus, a, b), plus);
    EXPECT_EQ(copy_node_if_changed(nullptr, a, b), nullptr);
    NODE* c = mk_ICON(3, i16);
    NODE* copy = copy_node_if_changed(plus, a, c);
    ASSERT_NE(copy, plus);
    EXPECT_EQ(copy->opcode, PLUS);
    EXPECT_EQ(copy->left, a);
    EXPECT_EQ(copy->right, c);
    EXPECT_EQ(plus->right, b);
    copy->left = nullptr;  // a belongs to the old tree
    erase_tree(copy);
    erase_tree(plus);
}

TEST_F(Trees, ErasingCountsAndCatchesDoubleErase) {
    size_t before = live_node_count();
    NODE* orig = mktree(PLUS, i16, mk_ICON(1, i16), mk_ICON(2, i16));
    NODE* dupe = mktree(CSE_DUPE, i16, orig->left, orig->right);
    NODE* stmt = mktree(COMMA, i16, dupe, orig);
    EXPECT_EQ(live_node_count(), before + 5);
    erase_tree(stmt);  // the shared operands are erased once, through CSE_ORIG's side
    EXPECT_EQ(live_node_count(), before);

    NODE* n = mk_ICON(7, i16);
    erase_node(n);
    EXPECT_EQ(n->opcode, ILLOP);
    EXPECT_EXIT(erase_node(n), ::testing::ExitedWithCode(1), "ERROR IN 'erase_node'");
}

// A node erased in a step is not made again before the step ends: a stale
// pointer to it reads ILLOP, never a node made since.
TEST_F(Trees, ErasedNodesAreReusedOnlyBetweenSteps) {
    recycle_erased_nodes();
    std::set<NODE*> erased;
    for (int i = 0; i < 50; ++i) {
        NODE* n = mktree(UMINUS, i16, mk_ICON(i, i16));
        erased.insert(n);
        erased.insert(n->left);
        erase_tree(n);
    }
    for (int i = 0; i < 200; ++i) {
        NODE* fresh = mk_ICON(i, i16);
        EXPECT_EQ(erased.count(fresh), 0u);
        erase_node(fresh);
    }
    for (NODE* n : erased) EXPECT_EQ(n->opcode, ILLOP);
    recycle_erased_nodes();
    NODE* again = mk_ICON(1, i16);  // now the memory may serve again
    EXPECT_EQ(again->opcode, ICON);
    erase_node(again);
}

TEST_F(Trees, WalkVisitsAndReplaces) {
    NODE* tree = mktree(MULT, i16, mktree(PLUS, i16, mk_ICON(1, i16), mk_ICON(2, i16)), mk_ICON(3, i16));
    std::vector<int> seen;
    walk_and_modify_tree(tree, [&](NODE*& slot) {
        seen.push_back(slot->opcode);
        if (slot->opcode == PLUS) {
            NODE* old = slot;
            slot = mk_ICON(3, i16);
            erase_tree(old);
        }
    });
    EXPECT_EQ(seen, (std::vector<int>{PLUS, ICON}));  // the replacement has no operands to visit
    NODE* expected = mktree(MULT, i16, mk_ICON(3, i16), mk_ICON(3, i16));
    EXPECT_TRUE(same_tree(tree, expected));
    NODE* copy = copy_tree(tree);
    EXPECT_TRUE(same_tree(copy, tree));
    for (NODE* t : {tree, expected, copy}) erase_tree(t);
}

}  // namespace
