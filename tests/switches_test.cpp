#include <gtest/gtest.h>

#include <string>

#include "DEBUG_DISABLE/register_option.h"
#include "DEBUG_DISABLE/switches.h"

namespace {

class Switches : public ::testing::Test {
protected:
    void SetUp() override { register_option::reset_state(); }
    void TearDown() override { register_option::reset_state(); }
};

TEST_F(Switches, RegistryHoldsEveryPrefixedSwitchAtZero) {
    const auto state = register_option::get_state();
    EXPECT_EQ(state.size(), static_cast<size_t>(switch_count));
    EXPECT_EQ(switch_count, 96);
    int debug = 0, disable = 0, enable = 0;
    for (const auto& [name, value] : state) {
        EXPECT_EQ(value, 0) << name;
        if (name.rfind("debug:", 0) == 0) ++debug;
        else if (name.rfind("disable:", 0) == 0) ++disable;
        else if (name.rfind("enable:", 0) == 0) ++enable;
        else ADD_FAILURE() << "switch without a known prefix: " << name;
    }
    EXPECT_EQ(debug, 47);
    EXPECT_EQ(disable, 27);
    EXPECT_EQ(enable, 22);
    EXPECT_EQ(register_option::get_option("debug:skip_pass"), &pass_debug_skip_pass);
    EXPECT_EQ(register_option::get_option("enable:time_stats"), &enable_time_stats);
    EXPECT_EQ(register_option::get_option("debug:no_such_switch"), nullptr);
}

TEST_F(Switches, ItemsWithAndWithoutValues) {
    process_debug_option("debug", "skip_pass,nthreads=0x10,inline_n=010,max_unroll_size=-3");
    EXPECT_EQ(pass_debug_skip_pass, 1);
    EXPECT_EQ(pass_debug_nthreads, 16);
    EXPECT_EQ(pass_debug_inline_n, 8);
    EXPECT_EQ(pass_debug_max_unroll_size, -3);
    process_debug_option("disable", "threads");
    process_debug_option("enable", "time_stats=5");
    EXPECT_EQ(pass_disable_threads, 1);
    EXPECT_EQ(enable_time_stats, 5);
}

TEST_F(Switches, PrefixSelectsTheFamily) {
    // lir_early exists both as enable: and disable:; only the named family moves.
    process_debug_option("enable", "lir_early");
    EXPECT_EQ(pass_enable_lir_early, 1);
    EXPECT_EQ(pass_disable_lir_early, 0);
}

TEST_F(Switches, UnknownEmptyAndOverlongItemsChangeNothing) {
    const auto before = register_option::get_state();
    process_debug_option("debug", "no_such_key,,=4,also_unknown=9");
    process_debug_option("nonsense", "skip_pass");
    process_debug_option("debug", (std::string(600, 'x')).c_str());
    process_debug_option("debug", "");
    EXPECT_EQ(register_option::get_state(), before);
}

TEST_F(Switches, LastValueWins) {
    process_debug_option("debug", "skip_pass=3,skip_pass=4");
    EXPECT_EQ(pass_debug_skip_pass, 4);
    process_debug_option("debug", "skip_pass=9");
    EXPECT_EQ(pass_debug_skip_pass, 9);
}

TEST_F(Switches, StateSnapshotRestoreAndReset) {
    process_debug_option("debug", "parser,split_odb=2");
    const auto saved = register_option::get_state();
    register_option::reset_state();
    EXPECT_EQ(pass_debug_parser, 0);
    register_option::set_state(saved);
    EXPECT_EQ(pass_debug_parser, 1);
    EXPECT_EQ(pass_debug_split_odb, 2);
    EXPECT_THROW(register_option::set_state({{"debug:not_a_switch", 1}}), std::invalid_argument);
}

TEST_F(Switches, LaterRegistrationReplacesEarlierAndUnregistersOnDestruction) {
    {
        register_option shadow("debug:skip_pass");
        EXPECT_EQ(register_option::get_option("debug:skip_pass"), &shadow);
        process_debug_option("debug", "skip_pass=6");
        EXPECT_EQ(shadow, 6);
        EXPECT_EQ(pass_debug_skip_pass, 0);
    }
    EXPECT_EQ(register_option::get_option("debug:skip_pass"), nullptr);
    // Put the real switch back for the other tests.
    register_option::objects()["debug:skip_pass"] = &pass_debug_skip_pass;
}

}  // namespace
