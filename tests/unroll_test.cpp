// Unroll-factor limits on loop records built in the test.
#include <gtest/gtest.h>

#include <cstdio>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/cmdline.h"
#include "OPT5/ddunroll.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/opt_client.h"
#include "OPT5/optobj.h"
#include "test_util.h"

namespace {

class Unroll : public ::testing::Test {
protected:
    void SetUp() override {
        init_opcode_tables();
        if (!type_pkg) init_types();
        goal(4);
        debug = std::tmpfile();
        FDEBUG = debug;
        print_debug = true;
        currfuninfo = &fi;
        loop.uid = 7;
    }
    void TearDown() override {
        print_debug = false;
        FDEBUG = nullptr;
        std::fclose(debug);
        file_options = option_obj(true);
        pass_debug_max_unroll_size = 0;
        currfuninfo = nullptr;
        for (NODE* n : made) erase_tree(n);
    }
    // The size/speed goal of the file's options.
    void goal(int g) {
        const int goals[] = {5, 0, 3, 2, 4, 1};  // the option's words in their order
        option_obj o(false);
        for (int i = 0; i < 6; ++i)
            if (goals[i] == g) o.setarg(OPT_opt_for_speed, i);
        file_options = o;
    }
    NODE* pragma(int kind, std::vector<std::string> args) {
        NODE* p = new_node(PPRAGMA, nullptr);
        p->mx().pragma = new PRAGMA{kind, args};
        made.push_back(p);
        return p;
    }
    NODE* k(long long v) {
        NODE* n = mk_ICON(INT65(v), type_pkg->mk_int(TYPE::IK_INT, true));
        return n;
    }
    std::string listing() { return read_all(debug); }

    FILE* debug = nullptr;
    FUNINFO fi{nullptr};
    struct LOOP loop;
    std::vector<NODE*> made;
};

TEST_F(Unroll, LargestFactorFromTheSizeBudget) {
    goal(3);
    EXPECT_EQ(max_unrolling_factor(&loop, 46), 1);  // 45 / 46 is 0
    EXPECT_EQ(max_unrolling_factor(&loop, 9), 5);   // 45 / 9
    goal(4);
    EXPECT_EQ(max_unrolling_factor(&loop, 5), 8);   // 54 / 5 = 10, at most 8
    loop.counter = 2;                               // already unrolled twice
    EXPECT_EQ(max_unrolling_factor(&loop, 5), 6);   // (10 + 2 + 1) / 2
    loop.counter = 0;
    max_unrolling_factor(&loop, 5);
    EXPECT_EQ(loop.counter, 1);
    pass_debug_max_unroll_size = 20;                // 20 * 0.6 / 5 = 2
    EXPECT_EQ(max_unrolling_factor(&loop, 5), 2);
    EXPECT_NE(listing().find("\n  Considering unrolling loop #7:  trips= fMax=2;\n\t\tsize=5; resII="),
              std::string::npos)
        << listing();
}

TEST_F(Unroll, TripCountBoundsLimitTheFactor) {
    loop.max_trips = k(40);
    EXPECT_EQ(max_unrolling_factor(&loop, 5), 5);  // 40 < 64, 40 / 8
    erase_tree(loop.max_trips);
    loop.max_trips = k(15);
    EXPECT_EQ(max_unrolling_factor(&loop, 5), 1);
    EXPECT_NE(listing().find("  Maximum trip count is too small for unrolling: 15\n"), std::string::npos);
    erase_tree(loop.max_trips);
    loop.max_trips = k(2);
    loop.max_trips_bound = k(2);
    EXPECT_EQ(max_unrolling_factor(&loop, 5), 2);
    erase_tree(loop.max_trips);
    erase_tree(loop.max_trips_bound);
    loop.max_trips = loop.max_trips_bound = nullptr;
    // A probable trip count from a pragma.
    loop.trip_count_pragma = pragma(PK_PROB_ITERATE, {"1", "100"});
    EXPECT_EQ(max_unrolling_factor(&loop, 5), 8);
    loop.trip_count_pragma = pragma(PK_PROB_ITERATE, {"1", "40"});
    EXPECT_EQ(max_unrolling_factor(&loop, 5), 5);
    loop.trip_count_pragma = pragma(PK_PROB_ITERATE, {"1", "10"});
    EXPECT_EQ(max_unrolling_factor(&loop, 5), 1);
    EXPECT_NE(listing().find(" Probable trip count is too small for unrolling 10 \n"), std::string::npos);
}

TEST_F(Unroll, TheUnrollPragmaDecides) {
    EXPECT_EQ(min_unrolling_factor(&loop), 1);
    EXPECT_TRUE(unroll_factor_satisfies_pragma(3, &loop, 1));
    loop.unroll_pragma = pragma(PK_UNROLL, {"4"});
    EXPECT_EQ(max_unrolling_factor(&loop, 100), 4);
    EXPECT_EQ(min_unrolling_factor(&loop), 4);
    EXPECT_TRUE(unroll_factor_satisfies_pragma(2, &loop, 0));
    EXPECT_FALSE(unroll_factor_satisfies_pragma(3, &loop, 0));
    EXPECT_FALSE(unroll_factor_satisfies_pragma(2, &loop, 1));
    EXPECT_TRUE(unroll_factor_satisfies_pragma(4, &loop, 1));
    EXPECT_TRUE(unroll_factor_satisfies_pragma(0, &loop, 1));
    EXPECT_EQ(choose_unroll_factor_for_SP(&loop), 4);
    // Listings name the pragmas they know and number the others.
    EXPECT_EQ(stmt2infix(loop.unroll_pragma), "#pragma UNROLL(4)");
    EXPECT_EQ(stmt2infix(pragma(PK_PROB_ITERATE, {"1", "40"})), "#pragma PROB_ITERATE(1, 40)");
    EXPECT_EQ(stmt2infix(pragma(99, {})), "#pragma 99()");
    loop.unroll_pragma = pragma(PK_UNROLL, {"4294967296"});
    EXPECT_EXIT(max_unrolling_factor(&loop, 5), ::testing::ExitedWithCode(1), "");
}

TEST_F(Unroll, CompleteUnrolling) {
    EXPECT_FALSE(OK_to_unroll_completely(&loop, 5, 0));  // no trip count
    loop.trips = k(1);
    EXPECT_FALSE(OK_to_unroll_completely(&loop, 5, 0));
    erase_tree(loop.trips);
    loop.trips = k(8);
    EXPECT_TRUE(OK_to_unroll_completely(&loop, 5, 0));
    EXPECT_NE(listing().find("  OK to unroll completely: size=40.\n"), std::string::npos);
    for (int g : {0, 1}) {
        goal(g);
        EXPECT_FALSE(OK_to_unroll_completely(&loop, 5, 0)) << g;
    }
    goal(4);
    loop.no_complete_unroll = true;
    EXPECT_FALSE(OK_to_unroll_completely(&loop, 5, 0));
    loop.no_complete_unroll = false;
    loop.unroll_pragma = pragma(PK_UNROLL, {"12"});  // not a multiple of 8
    EXPECT_FALSE(OK_to_unroll_completely(&loop, 5, 0));
    loop.unroll_pragma = pragma(PK_UNROLL, {"16"});
    EXPECT_TRUE(OK_to_unroll_completely(&loop, 5, 0));
    loop.unroll_pragma = nullptr;
    // Too big for the budget of 72 (90 when the function asks for it).
    EXPECT_FALSE(OK_to_unroll_completely(&loop, 10, 0));
    fi.unroll_completely = true;
    EXPECT_FALSE(OK_to_unroll_completely(&loop, 10, 1));  // 80 > 45 and 8 copies: only via the outer loop
    fi.unroll_completely = false;
    // 25 trips: only inside another loop.
    erase_tree(loop.trips);
    loop.trips = k(25);
    EXPECT_FALSE(OK_to_unroll_completely(&loop, 1, 0));
    EXPECT_NE(listing().find("  NOT OK to unroll completely so as to SP outer loop.\n\n"), std::string::npos);
    struct LOOP outer;
    loop.parent = &outer;
    EXPECT_TRUE(OK_to_unroll_completely(&loop, 1, 0));
    // Two copies of a big body inside another loop.
    erase_tree(loop.trips);
    loop.trips = k(2);
    EXPECT_TRUE(OK_to_unroll_completely(&loop, 25, 0));  // 50 <= (72 + 45) / 2
    EXPECT_NE(listing().find("  OK to unroll 2X completely.\n"), std::string::npos);
    EXPECT_FALSE(OK_to_unroll_completely(&loop, 30, 1));  // 60 > 58
    erase_tree(loop.trips);
    loop.trips = nullptr;
}

}  // namespace
