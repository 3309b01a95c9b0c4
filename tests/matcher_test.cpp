// The rule matcher on small data-flow graphs, with the Pellin rule base
// compiled into the optimizer and with rule bases parsed in the test.
#include <gtest/gtest.h>

#include "DEBUG_DISABLE/switches.h"

#include <memory>

#include "OPT5/matcher.h"
#include "OPT5/md_rules.h"
#include "OPT5/node.h"
#include "OPT5/symtab.h"
#include "OPT5/opcodes.h"
#include "TYPES/type_pkg.h"
#include "tools/md_lexer.h"

namespace {

class Matcher : public ::testing::Test {
protected:
    void SetUp() override {
        init_opcode_tables();
        if (!type_pkg) init_types();
        matcher_init();
        ASSERT_EQ(md_rule_base, compiled_rule_base());
    }
    void TearDown() override {
        md_rule_base = compiled_rule_base();
        build_rule_tables(md_rule_base);
        matcher_arena.recycle();
    }
    TREP* i16 = find_TREP('i', 16, 1);
    DFG* node(int op, DFG* a = nullptr, DFG* b = nullptr, DFG* c = nullptr) {
        DFG* d = matcher_arena.make();
        d->op = op;
        d->trep = i16;
        for (DFG* o : {a, b, c})
            if (o) {
                d->opd[d->nopd++] = o;
                o->parent = d;
            }
        return d;
    }
    DFG* reg(const char* name) {
        DFG* d = node(DFG_RCUSE);
        d->name = name;
        return d;
    }
    DFG* k(long long v) {
        DFG* d = node(ICON);
        d->ivalue = INT65(v);
        return d;
    }
    DFG* fetch(const char* base, long long offset) { return node(DFG_FETCH, node(PLUS, reg(base), k(offset))); }
    // A rule base of its own for the test (the tables are rebuilt from it).
    void use_rules(const std::string& body) {
        std::string text = "OPTIMIZER MACHINE DESCRIPTION : \"T\"\nTARGETS : BRV\nENDIAN : LITTLE\n" + body;
        std::vector<MD_LEXED> lexed;
        std::string error;
        ASSERT_TRUE(md_lex(text, lexed, error)) << error;
        std::vector<MD_TOKEN> toks = md_token_array(lexed);
        own.reset(parse_md_tokens(toks.data(), true, &error));
        ASSERT_TRUE(own) << error;
        md_rule_base = own.get();
        build_rule_tables(own.get());
    }
    std::unique_ptr<RULE_BASE> own;
};

TEST_F(Matcher, InitialisingTwiceChangesNothing) {
    size_t before = simplify_only_rules.rules.size() + primary_rules.rules.size() + combine_rules.rules.size();
    RULE_BASE* rb = md_rule_base;
    matcher_init();
    EXPECT_EQ(md_rule_base, rb);
    EXPECT_EQ(simplify_only_rules.rules.size() + primary_rules.rules.size() + combine_rules.rules.size(), before);
    EXPECT_EQ(md_rule_base->name, "Pellin");
}

TEST_F(Matcher, SimplificationsWithBindingsAndConstraints) {
    bool changed = false;
    DFG* n = node(PLUS, reg("x"), k(0));
    EXPECT_EQ(simplify_using_rules(n, nullptr, false, &changed), n);
    EXPECT_TRUE(changed);
    EXPECT_EQ(dfg_text(n), "(RCUSE : I16)");
    // The constant may come first: the operands of PLUS commute.
    n = node(PLUS, k(0), reg("x"));
    simplify_using_rules(n, nullptr, false, &changed);
    EXPECT_TRUE(changed);
    EXPECT_EQ(n->op, DFG_RCUSE);
    // x * 2 is a shift; x * 3 fails the rule's WHEN part.
    n = node(MULT, reg("x"), k(2));
    simplify_using_rules(n, nullptr, false, &changed);
    EXPECT_EQ(dfg_text(n), "(SLL : I16 (RCUSE : I16) 1)");
    n = node(MULT, reg("x"), k(3));
    simplify_using_rules(n, nullptr, false, &changed);
    EXPECT_FALSE(changed);
    // The multiply-accumulate needs optimization level 2 (GIVEN); at the
    // default level 1 nothing happens.
    n = node(PLUS, node(MULT, reg("a"), reg("b")), reg("c"));
    simplify_using_rules(n, nullptr, false, &changed);
    EXPECT_FALSE(changed);
}

TEST_F(Matcher, ExpressionTreesAreSimplifiedThroughTheirGraphs) {
    TYPE* int16 = type_pkg->mk_int(TYPE::IK_INT, true);
    SYMTAB x;
    x.name = "x";
    NODE* name = new_node(NAME, int16);
    name->symbol = &x;
    NODE* t = simplify_using_rules(mktree(MULT, int16, name, mk_ICON(INT65(2), int16)));
    EXPECT_EQ(t->opcode, SLL);
    ASSERT_TRUE(t->left);
    EXPECT_EQ(t->left->opcode, NAME);
    EXPECT_EQ(t->left->symbol, &x);
    EXPECT_EQ(t->right->value, INT65(1));
    erase_tree(t);
    // Nothing applies to a division: the tree comes back as it was.
    NODE* d = mktree(DIV, int16, mk_ICON(INT65(7), int16), mk_ICON(INT65(2), int16));
    EXPECT_EQ(simplify_using_rules(d), d);
    erase_tree(d);
}

TEST_F(Matcher, CandidatesPreferBiggerPatternsAndWhenClauses) {
    use_rules("( SIMPLIFY (PLUS : I16 a b) AS a )\n"
              "( SIMPLIFY (PLUS : I16 a b) AS b WHEN b.IS_ICON )\n"
              "( SIMPLIFY (PLUS : I16 (MULT : I16 a b) c) AS c )\n");
    std::deque<CANDIDATE> c = find_candidates(simplify_only_rules, node(PLUS, node(MULT, reg("a"), reg("b")), k(4)), 0);
    // The five-node pattern first, then its twin with the root's operands
    // exchanged, then the one with a WHEN part.
    ASSERT_EQ(c.size(), 4u);
    EXPECT_EQ(c[0].rule->line, 6);
    EXPECT_FALSE(c[0].rule->self_commuted);
    EXPECT_EQ(c[1].rule->line, 6);
    EXPECT_TRUE(c[1].rule->self_commuted);
    EXPECT_EQ(c[2].rule->line, 5);
    EXPECT_EQ(c[3].rule->line, 4);
    for (size_t i = 0; i + 1 < c.size(); ++i) EXPECT_FALSE(match_less(c[i + 1], c[i]));
}

// debug:nfa_by_cost puts the candidate whose replacement the description
// prices lowest first, before the size of the pattern.
TEST_F(Matcher, CandidatesByCostWhenAsked) {
    use_rules("( ICODE (MINUS : I16 a b) COST 5 )\n"
              "( SIMPLIFY (PLUS : I16 (MULT : I16 a b) c) AS (MINUS : I16 a c) )\n"
              "( SIMPLIFY (PLUS : I16 a b) AS a )\n");
    DFG* n = node(PLUS, node(MULT, reg("a"), reg("b")), reg("c"));
    std::deque<CANDIDATE> c = find_candidates(simplify_only_rules, n, 0);
    ASSERT_GE(c.size(), 2u);
    EXPECT_EQ(c[0].rule->line, 5);  // the bigger pattern
    pass_debug_nfa_by_cost = 1;
    c = find_candidates(simplify_only_rules, n, 0);
    for (size_t i = 0; i + 1 < c.size(); ++i) EXPECT_FALSE(match_less(c[i + 1], c[i]));
    pass_debug_nfa_by_cost = 0;
    ASSERT_GE(c.size(), 2u);
    EXPECT_EQ(c[0].rule->line, 6);  // the replacement that costs nothing
}

TEST_F(Matcher, RunawaySimplificationKeepsTheNode) {
    use_rules("( SIMPLIFY (PLUS : I16 a b) AS (MINUS : I16 a b) )\n( SIMPLIFY (MINUS : I16 a b) AS (PLUS : I16 a b) )\n"
              "( SIMPLIFY (MULT : I16 [2] a b) AS (MULT : I16 [4] a b) )\n");
    bool changed = true;
    DFG* n = node(PLUS, reg("x"), reg("y"));
    EXPECT_EQ(simplify_using_rules(n, nullptr, true, &changed), n);
    EXPECT_FALSE(changed);
    EXPECT_EQ(n->op, PLUS);
    // A rule that changes the SIMD factor of a vector pattern is never used.
    n = node(MULT, reg("x"), reg("y"));
    n->sf = 2;
    simplify_using_rules(n, nullptr, true, &changed);
    EXPECT_FALSE(changed);
    EXPECT_EQ(n->sf, 2);
}

TEST_F(Matcher, SimdRewrites) {
    DFG* n = node(PLUS, reg("x"), reg("y"));
    DFG* v = apply_SIMD_rules_to_DFG_node(n, nullptr, 2);
    ASSERT_TRUE(v) << simd_failure_reason;
    EXPECT_EQ(v->sf, 2);
    ASSERT_TRUE(v->opdecl);
    EXPECT_EQ(cost_of_dfg_node(v), 1);
    EXPECT_EQ(apply_SIMD_rules_to_DFG_node(v, nullptr, 2), nullptr);
    EXPECT_EQ(simd_failure_reason, "already vectorised");
    EXPECT_EQ(apply_SIMD_rules_to_DFG_node(n, nullptr, 4), nullptr);
    EXPECT_EQ(simd_failure_reason, "too wide");
    // The multiply-accumulate becomes the dual one by its SIMD rule.
    DFG* mac = node(DFG_TARGET, reg("a"), reg("b"), reg("c"));
    mac->name = "MAC16";
    v = apply_SIMD_rules_to_DFG_node(mac, nullptr, 2);
    ASSERT_TRUE(v) << simd_failure_reason;
    EXPECT_EQ(v->name, "DMAC");
    EXPECT_EQ(v->sf, 2);
    // ... and reverts to generic operations.
    revert_OP_and_XOP_to_generic_node(v, nullptr);
    EXPECT_EQ(dfg_text(v), "(PLUS : I16 [2] (MULT : I16 [2] (RCUSE : I16) (RCUSE : I16)) (RCUSE : I16))");
    DFG* def = node(DFG_DEF, reg("s"));
    EXPECT_EQ(apply_SIMD_rules_to_DFG_node(def, nullptr, 2), nullptr);
    EXPECT_EQ(simd_failure_reason, "DEF is neither reduction nor MVE");
}

TEST_F(Matcher, CombineJoinsAdjacentAdditions) {
    // s1: fetch(p+1) + y    s2: fetch(p+0) + z: the first operand of s1 is
    // one word after that of s2.
    CDSTMT s1, s2;
    s1.root = node(PLUS, fetch("p", 1), reg("y"));
    s2.root = node(PLUS, fetch("p", 0), reg("z"));
    s1.next = &s2;
    EXPECT_TRUE(dfg_is_COMBINE_candidate(s1.root));
    EXPECT_TRUE(apply_COMBINE_rules(s1.root, &s1, true, false));
    EXPECT_EQ(s1.root->sf, 2);
    EXPECT_EQ(s2.root->sf, 2);
    // Two words apart: no.
    s1.root = node(PLUS, fetch("p", 2), reg("y"));
    s2.root = node(PLUS, fetch("p", 0), reg("z"));
    EXPECT_FALSE(apply_COMBINE_rules(s1.root, &s1, true, false));
    EXPECT_EQ(s1.root->sf, 1);
}

}  // namespace
