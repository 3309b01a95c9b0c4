// The CD vectorizer's decisions: the pain model, memory access costs,
// complete unrolling, and the SIMD factors of type representations.
#include <gtest/gtest.h>

#include <memory>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/cdvect.h"
#include "OPT5/cmdline.h"
#include "OPT5/matcher.h"
#include "OPT5/opcodes.h"
#include "OPT5/optobj.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "tools/md_lexer.h"

namespace {

SIMD_CONFIGURATION config(int sf, int64_t time, int64_t ptime) {
    SIMD_CONFIGURATION c;
    c.sf = sf;
    c.time = time;
    c.ptime = ptime;
    return c;
}

TEST(SimdConfiguration, PainAndItsTieRule) {
    // 5 x (16 / SF) x time + 9 x peeling time.
    EXPECT_EQ(config(2, 6, 6).compute_pain_for_configuration(false), 5 * 8 * 6 + 9 * 6);
    // With SF 32, 16 / SF is 0: only the peeling counts.
    EXPECT_EQ(config(32, 1000, 3).compute_pain_for_configuration(false), 27);
    // Equal pain for SF 2 and SF 4 goes to SF 2, in either order.
    std::vector<SIMD_CONFIGURATION> c{config(1, 10, 0), config(4, 8, 2), config(2, 4, 2)};
    EXPECT_EQ(c[1].compute_pain_for_configuration(false), c[2].compute_pain_for_configuration(false));
    EXPECT_EQ(c[SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(c, 1)].sf, 2);
    std::swap(c[1], c[2]);
    EXPECT_EQ(c[SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(c, 1)].sf, 2);
    // A smaller pain wins whatever the factor.
    c = {config(2, 10, 0), config(4, 4, 0)};
    EXPECT_EQ(c[SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(c, 1)].sf, 4);
}

// debug:conservative_vec takes no factor that leaves iterations to a peeled
// loop; debug:aggressive_vec takes a vector factor whenever one is left,
// however it is priced.
TEST(SimdConfiguration, ConservativeAndAggressiveSwitches) {
    std::vector<SIMD_CONFIGURATION> peeling{config(1, 10, 0), config(2, 4, 2)};
    std::vector<SIMD_CONFIGURATION> dear{config(1, 1, 0), config(2, 100, 0)};
    EXPECT_EQ(peeling[SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(peeling, 1)].sf, 2);
    EXPECT_EQ(dear[SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(dear, 1)].sf, 1);
    pass_debug_conservative_vec = 1;
    EXPECT_EQ(peeling[SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(peeling, 1)].sf, 1);
    pass_debug_aggressive_vec = 1;  // the only vector factor needs peeling: none is left
    EXPECT_EQ(peeling[SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(peeling, 1)].sf, 1);
    EXPECT_EQ(dear[SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(dear, 1)].sf, 2);
    pass_debug_conservative_vec = 0;
    EXPECT_EQ(peeling[SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(peeling, 1)].sf, 2);
    pass_debug_aggressive_vec = 0;
}

TEST(SimdConfiguration, VectorTypeRepresentations) {
    TREP* i16 = find_TREP('i', 16, 1);
    EXPECT_EQ(vector_TREP_for_SF(i16, 1), i16);
    TREP* v3 = vector_TREP_for_SF(i16, 3);
    EXPECT_EQ(v3->lanes, 3);
    EXPECT_EQ(vector_TREP_for_SF(v3, 3), v3);
    EXPECT_EQ(vector_TREP_for_SF(i16, 8), find_TREP('i', 16, 8));
    EXPECT_EXIT(vector_TREP_for_SF(i16, 6), ::testing::ExitedWithCode(1), "");
    EXPECT_EXIT(vector_TREP_for_SF(i16, 0), ::testing::ExitedWithCode(1), "");
}

// A rule base parsed from description text after the header; null (with
// the test failed) on an error.
std::unique_ptr<RULE_BASE> description(const std::string& body) {
    std::string text = "OPTIMIZER MACHINE DESCRIPTION : \"T\"\nTARGETS : BRV\nENDIAN : LITTLE\n" + body;
    std::vector<MD_LEXED> lexed;
    std::string error;
    EXPECT_TRUE(md_lex(text, lexed, error)) << error;
    std::vector<MD_TOKEN> toks = md_token_array(lexed);
    std::unique_ptr<RULE_BASE> rb(parse_md_tokens(toks.data(), true, &error));
    EXPECT_TRUE(rb) << error;
    return rb;
}

class MemoryCost : public ::testing::Test {
protected:
    void SetUp() override {
        init_opcode_tables();
        rb = description("( ICODE (FETCH : I16 [16] a) COST 3 )\n( ICODE (STORE : I16 [4] a b) COST 2 )\n"
                         "( ICODE (STORE : I16 [2] a b) COST 1 )\n( ICODE (STORE : I16 a b) COST 1 )\n");
        ASSERT_TRUE(rb);
        saved = md_rule_base;
        md_rule_base = rb.get();
    }
    // The rule base in use before (this one is gone with the test).
    void TearDown() override {
        md_rule_base = saved;
        if (saved) build_rule_tables(saved);
    }
    RULE_BASE* saved = nullptr;
    DFG access(int op, int lanes) {
        DFG d;
        d.op = op;
        d.trep = find_TREP('i', 16, 1);
        d.sf = lanes;
        return d;
    }
    std::unique_ptr<RULE_BASE> rb;
};

TEST_F(MemoryCost, WiderAccessesAreComposedOfDeclaredOnes) {
    DFG f16 = access(DFG_FETCH, 16), f32 = access(DFG_FETCH, 32), s8 = access(DFG_STORE, 8);
    EXPECT_EQ(memory_access_cost(&f16), 3);
    EXPECT_EQ(memory_access_cost(&f32), 6);  // two 16-word accesses
    EXPECT_EQ(memory_access_cost(&s8), 4);   // two 4-word stores
    DFG f24 = access(DFG_FETCH, 24);         // 24 words: no declared width composes it
    EXPECT_EXIT(memory_access_cost(&f24), ::testing::ExitedWithCode(1), "");
    DFG plus = access(PLUS, 1);
    EXPECT_EXIT(memory_access_cost(&plus), ::testing::ExitedWithCode(1), "");
}

TEST_F(MemoryCost, VolatileAndMisalignedAccessesAreComposedOfNarrowerOnes) {
    DFG s4 = access(DFG_STORE, 4);
    EXPECT_EQ(memory_access_cost(&s4), 2);
    // A volatile object is stored one element at a time.
    s4.is_volatile = true;
    EXPECT_EQ(memory_access_cost(&s4), 4);
    EXPECT_EQ(md_cost_for_memref(DFG_STORE, 'i', 1, 2, INT65(0), true), 0);
    EXPECT_EQ(md_cost_for_memref(DFG_STORE, 'i', 1, 1, INT65(0), true), 1);
    // Aligned to one word, four words are four stores; aligned to two, two
    // pair stores; aligned to four, the one store of four.
    s4.is_volatile = false;
    s4.alignment = 16;
    EXPECT_EQ(memory_access_cost(&s4), 4);
    s4.alignment = 32;
    EXPECT_EQ(memory_access_cost(&s4), 2);
    s4.alignment = 64;
    EXPECT_EQ(memory_access_cost(&s4), 2);
    EXPECT_EQ(md_cost_for_memref(DFG_STORE, 'i', 1, 4, INT65(32), false), 0);
}

// What an iteration pays for its step and its test is the description's
// price of an addition and a comparison in the counter's type; what the
// description does not declare is free.
TEST_F(MemoryCost, LoopOverheadIsPricedByTheDescription) {
    init_types();
    SYMTAB i;
    i.name = "i";
    i.type = type_pkg->mk_int(TYPE::IK_INT, true);
    EXPECT_EQ(cd_loop_overhead(&i, false), 0);  // this description declares neither
    std::unique_ptr<RULE_BASE> priced = description(
        "DEFAULT COST : 1\nDEFAULT LATENCY : 1\nDEFAULT SPACE : 2\n"
        "( ICODE (PLUS : I16 a b) COST 3 SPACE 1 )\n( ICODE (LT : I16 a b) COST 4 )\n");
    ASSERT_TRUE(priced);
    md_rule_base = priced.get();
    EXPECT_EQ(cd_loop_overhead(&i, false), 7);
    EXPECT_EQ(cd_loop_overhead(&i, true), 3);  // the comparison takes the default space
    md_rule_base = rb.get();
}

TEST(CompleteUnrolling, DecisionOfThePeelingStep) {
    CDFG region;
    region.numBlocks = 1;
    region.numStatements = 5;
    int factor = 4;
    EXPECT_TRUE(unroll_completely_decision(nullptr, &region, 8, factor));
    EXPECT_EQ(factor, 8);
    factor = 4;
    region.numStatements = 6;
    EXPECT_FALSE(unroll_completely_decision(nullptr, &region, 8, factor));
    EXPECT_EQ(factor, 4);
    region.numStatements = 5;
    region.numBlocks = 2;
    EXPECT_FALSE(unroll_completely_decision(nullptr, &region, 8, factor));
    region.numBlocks = 1;
    // Nine iterations halve to four too: the factor becomes 8, which does
    // not divide the count.
    EXPECT_TRUE(unroll_completely_decision(nullptr, &region, 9, factor));
    EXPECT_EQ(factor, 8);
    factor = 128;
    EXPECT_FALSE(unroll_completely_decision(nullptr, &region, 256, factor));
}

class UnrollingWins : public ::testing::Test {
protected:
    void TearDown() override { file_options = option_obj(true); }
    void goal(int g) {
        const int goals[] = {5, 0, 3, 2, 4, 1};
        option_obj o(false);
        for (int i = 0; i < 6; ++i)
            if (goals[i] == g) o.setarg(OPT_opt_for_speed, i);
        file_options = o;
    }
    LOOP_UNROLLING_INFO info(int uf, float t1, float z1, float tu, float zu, int64_t trips) {
        LOOP_UNROLLING_INFO i;
        i.uf = uf;
        i.T1 = t1;
        i.Z1 = z1;
        i.Tu = tu;
        i.Zu = zu;
        i.trips = trips;
        return i;
    }
};

TEST_F(UnrollingWins, SpeedAgainstSpace) {
    goal(4);
    LOOP_UNROLLING_INFO marked = info(4, 10, 10, 40, 40, 4);
    marked.completely = true;
    EXPECT_TRUE(marked.unrolling_completely_wins(false));
    EXPECT_FALSE(info(4, 10, 10, 40, 40, 4).unrolling_completely_wins(false));  // no faster
    EXPECT_TRUE(info(4, 10, 10, 30, 10, 4).unrolling_completely_wins(false));   // faster, no bigger
    EXPECT_TRUE(info(4, 10, 10, 30, 30, 4).unrolling_completely_wins(false));   // 4 trips, small body
    EXPECT_FALSE(info(4, 10, 80, 30, 100, 4).unrolling_completely_wins(false));  // Z(1) over 77
    EXPECT_FALSE(info(4, 10, 10, 30, 120, 4).unrolling_completely_wins(false));  // Z(u) over 110
    EXPECT_FALSE(info(8, 10, 10, 30, 30, 9).unrolling_completely_wins(false));   // more than 8 trips
    EXPECT_FALSE(info(8, 10, 10, 30, 30, 6).unrolling_completely_wins(false));   // 5 to 8: no estimate
    EXPECT_FALSE(info(4, 10, 10, 30, 30, -1).unrolling_completely_wins(false));  // unknown count
    goal(2);
    EXPECT_FALSE(info(4, 10, 10, 30, 30, 4).unrolling_completely_wins(false));
    goal(1);
    EXPECT_FALSE(info(4, 10, 10, 30, 30, 4).unrolling_completely_wins(false));
    EXPECT_TRUE(info(4, 10, 10, 30, 10, 4).unrolling_completely_wins(false));  // no bigger: the goal is not asked
    goal(5);  // speed / space x u must reach 20
    EXPECT_FALSE(info(4, 10, 10, 8, 20, 4).unrolling_completely_wins(false));  // 5 / 2 x 4 = 10
    EXPECT_TRUE(info(4, 10, 10, 4, 20, 4).unrolling_completely_wins(false));   // 10 / 2 x 4 = 20
}

}  // namespace
