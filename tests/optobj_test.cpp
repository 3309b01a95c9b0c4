#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "DEBUG_DISABLE/register_option.h"
#include "DEBUG_DISABLE/switches.h"
#include "DIAG/diag.h"
#include "OPT5/cmdline.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/optobj.h"
#include "test_util.h"

namespace {

class Options : public ::testing::Test {
protected:
    void SetUp() override {
        capture_ = std::tmpfile();
        DIAGNOSTIC::out_m = capture_;
        DIAGNOSTIC::display_code_m = true;
        DIAGNOSTIC::remarks_m = true;
        diag_reset_error_count();
        register_option::reset_state();
        file_options = option_obj(true);
        all_option_sets.clear();
        currfuninfo = nullptr;
    }
    void TearDown() override {
        DIAGNOSTIC::out_m = nullptr;
        DIAGNOSTIC::display_code_m = false;
        DIAGNOSTIC::remarks_m = false;
        diag_reset_error_count();
        register_option::reset_state();
        file_options = option_obj(true);
        reset_global_flags();
        std::fclose(capture_);
    }
    // Parses the arguments as the command line does (without their dash).
    option_obj parse(std::vector<const char*> args) {
        option_obj o(true);
        for (size_t i = 0; i < args.size(); ++i) {
            const char* next = i + 1 < args.size() ? args[i + 1] : nullptr;
            i += static_cast<size_t>(o.process_option(args[i] + 1, &next));
        }
        return o;
    }
    std::string messages() { return read_all(capture_); }
    FILE* capture_ = nullptr;
};

TEST_F(Options, OptimizationLevelWords) {
    EXPECT_EQ(opt_level(), 1);  // not given
    const char* words[] = {"0", "1", "2", "3", "4", "off"};
    const int levels[] = {0, 1, 2, 3, 4, 0};
    for (int i = 0; i < 6; ++i) {
        std::string arg = std::string("--opt_level=") + words[i];
        file_options = parse({arg.c_str()});
        EXPECT_EQ(opt_level(), levels[i]) << arg;
    }
    file_options = parse({"-o3"});
    EXPECT_EQ(opt_level(), 3);
    EXPECT_EQ(messages(), "");
}

TEST_F(Options, SizeSpeedGoalWords) {
    EXPECT_EQ(size_speed_goal(), 4);  // not given
    for (const char* w : {"0", "1", "2", "3", "4", "5"}) {
        std::string arg = std::string("--opt_for_speed=") + w;
        file_options = parse({arg.c_str()});
        EXPECT_EQ(size_speed_goal(), std::stoi(w)) << arg;
    }
    // The words keep the program's own order: index i maps to 5,0,3,2,4,1.
    option_obj o(false);
    const int goals[] = {5, 0, 3, 2, 4, 1};
    for (int i = 0; i < 6; ++i) {
        o.setarg(OPT_opt_for_speed, i);
        file_options = o;
        EXPECT_EQ(size_speed_goal(), goals[i]);
    }
}

TEST_F(Options, FunctionSetAppliesWhileTheFunctionIsCurrent) {
    file_options = parse({"--opt_level=2"});
    all_option_sets.push_back(parse({"--opt_level=4", "--opt_for_speed=0"}));
    FUNINFO fi(nullptr);
    fi.option_set = 0;
    currfuninfo = &fi;
    EXPECT_EQ(opt_level(), 4);
    EXPECT_EQ(size_speed_goal(), 0);
    currfuninfo = nullptr;
    EXPECT_EQ(opt_level(), 2);
    EXPECT_EQ(size_speed_goal(), 4);
}

TEST_F(Options, ValueInTheNextArgumentIsTaken) {
    option_obj o(true);
    const char* next = "2";
    EXPECT_EQ(o.process_option("-opt_level", &next), 1);
    EXPECT_EQ(o.getnumarg(OPT_opt_level, 0), 2);
    next = "in.if";
    EXPECT_EQ(o.process_option("-volatile_all", &next), 0);
    EXPECT_TRUE(o.isset(OPT_volatile_all));
}

TEST_F(Options, NumberedDiagnostics) {
    parse({"--opt_level=5"});
    parse({"--ip_level=4"});
    parse({"--ip_level=two"});
    parse({"--debug_file="});
    parse({"--volatile_all=yes"});
    parse({"-o2", "-o3"});
    parse({"--big_endian", "--little_endian"});
    parse({"--unroll_limit=5", "--no_unroll_limit"});
    parse({"--no_silicon_version"});
    EXPECT_EQ(messages(),
              "error #24015-D: bad argument to option --opt_level: should be one of {0,1,2,3,4,off}\n"
              "error #24011-D: argument to option --ip_level (4) is out of range\n"
              "error #24012-D: argument to option --ip_level (two) is not a number\n"
              "error #24010-D: option --debug_file is missing its parameter 'file'\n"
              "warning #24019-D: garbage following option --volatile_all=yes ignored\n"
              "warning #24003-D: option --opt_level=3 overrides preceding option --opt_level=2\n"
              "error #24002-D: option --little_endian conflicts with previous option --big_endian\n"
              "remark #24004-D: option --no_unroll_limit clears preceding option --unroll_limit=5\n"
              "warning #24006-D: Attempt to clear PERSISTENT option --silicon_version ignored\n");
    EXPECT_EQ(diag_error_count(), 5u);
}

TEST_F(Options, UnknownOptionIsFatal) {
    EXPECT_EXIT(
        {
            DIAGNOSTIC::out_m = stderr;
            parse({"--frobnicate"});
        },
        ::testing::ExitedWithCode(1), "fatal error #6006: invalid option:  --frobnicate");
}

TEST_F(Options, DeprecatedWordWarnsAndIsAccepted) {
    testing::internal::CaptureStderr();
    option_obj o = parse({"--memory_model=huge"});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "WARNING: argument 'huge' to option '--memory_model' is deprecated and will be removed in a future "
              "release\n");
    file_options = o;
    set_global_flags(&file_options);
    EXPECT_EQ(memory_model, 1);
}

TEST_F(Options, ListOptionsFeedTheSwitchesInOrder) {
    file_options = parse({"--debug=skip_pass=4", "--enable=time_stats", "--disable=threads,vn",
                          "--debug=skip_pass=7,list_passes", "--aux_flags=1,0x20", "--aux_flags=3"});
    EXPECT_EQ(file_options.getargcount(OPT_debug), 2u);
    set_global_flags(&file_options);
    EXPECT_EQ(pass_debug_skip_pass, 7);
    EXPECT_EQ(pass_debug_list_passes, 1);
    EXPECT_EQ(enable_time_stats, 1);
    EXPECT_EQ(pass_disable_threads, 1);
    EXPECT_EQ(pass_disable_vn, 1);
    EXPECT_EQ(aux_cmd_flag[0], 1);
    EXPECT_EQ(aux_cmd_flag[1], 0x20);
    EXPECT_EQ(aux_cmd_flag[2], 3);
    EXPECT_EQ(aux_cmd_flag[3], 0);
}

TEST_F(Options, GlobalFlagsFollowTheSetAndRestore) {
    reset_global_flags();
    EXPECT_EQ(max_unrolled_loop_size, 195);
    EXPECT_EQ(program_mode, -1);
    EXPECT_EQ(cache_sys_funinfo, 2);
    EXPECT_EQ(code_is_reentrant, 1);
    EXPECT_EQ(strict_fp, 1);

    file_options = parse({"--unroll_limit=40", "--strict_fp=off", "--volatile_all", "--debug=skip_pass=3"});
    set_global_flags(&file_options);
    EXPECT_EQ(max_unrolled_loop_size, 40);
    EXPECT_EQ(strict_fp, 0);
    EXPECT_EQ(pass_debug_skip_pass, 3);

    // A function's set applies on top of the command line.
    option_obj fn = parse({"--program_mode", "--nonreentrant", "--big_endian", "--debug=skip_pass=20"});
    set_global_flags(&fn);
    EXPECT_EQ(program_mode, 1);
    EXPECT_EQ(code_is_reentrant, 0);
    EXPECT_EQ(memory_is_big_endian, 1);
    EXPECT_EQ(max_unrolled_loop_size, 40);
    EXPECT_EQ(strict_fp, 0);
    EXPECT_EQ(volit_vars, 1);
    EXPECT_EQ(pass_debug_skip_pass, 20);

    FILE* dbg = std::tmpfile();
    print_debug = true;
    FDEBUG = dbg;
    restore_global_flags();
    print_debug = false;
    FDEBUG = nullptr;
    EXPECT_EQ(program_mode, -1);
    EXPECT_EQ(code_is_reentrant, 1);
    EXPECT_EQ(memory_is_big_endian, 0);
    EXPECT_EQ(max_unrolled_loop_size, 40);
    EXPECT_EQ(volit_vars, 1);
    // The switches too are the command line's again.
    EXPECT_EQ(pass_debug_skip_pass, 3);
    pass_debug_skip_pass = 0;
    std::rewind(dbg);
    char line[128] = {};
    ASSERT_NE(std::fgets(line, sizeof line, dbg), nullptr);
    EXPECT_STREQ(line, "[Restoring options --> -o1 -i0 --opt_for_speed=4]\n");
    std::fclose(dbg);
}

TEST_F(Options, OutOfRangeStoredLevelEndsTheRun) {
    EXPECT_EXIT(
        {
            option_obj o(false);
            o.setarg(OPT_opt_level, 9);
            set_global_flags(&o);
        },
        ::testing::ExitedWithCode(1), "--opt_level given invalid value: 9\n");
    EXPECT_EXIT(
        {
            option_obj o(false);
            o.setarg(OPT_opt_for_speed, -2);
            set_global_flags(&o);
        },
        ::testing::ExitedWithCode(1), "--size_speed_goal given invalid value:  -2\n");
}

TEST_F(Options, UnsupportedSiliconVersionIsFatal) {
    EXPECT_EXIT(
        {
            DIAGNOSTIC::out_m = stderr;
            option_obj o = parse({"-v27"});
            set_global_flags(&o);
        },
        ::testing::ExitedWithCode(1), "fatal error #24033: Silicon version 27 is not a supported or valid value");
}

TEST_F(Options, ClassesAndExports) {
    option_obj o = parse({"--big_endian", "-o2", "--debug=a,b", "--debug=c"});
    EXPECT_TRUE(option_obj::isclass(OPT_big_endian, CLS_ENDIAN));
    EXPECT_FALSE(option_obj::isclass(OPT_opt_level, CLS_ENDIAN));
    EXPECT_TRUE(o.testclass(CLS_ENDIAN));
    EXPECT_FALSE(o.seenclass(CLS_DIAG));
    o.clearopt(OPT_big_endian);
    EXPECT_FALSE(o.testclass(CLS_ENDIAN));
    EXPECT_TRUE(o.seenclass(CLS_ENDIAN));
    EXPECT_EQ(o.export_option_list(), (std::vector<std::string>{"--opt_level=2", "--debug=a,b", "--debug=c"}));
}

TEST_F(Options, DumpShowsStateKindAndArguments) {
    option_obj o = parse({"-o2"});
    o.setopt(OPT_debug_file);
    FILE* f = std::tmpfile();
    o.dump(f);
    std::string all = read_all(f);
    std::fclose(f);
    EXPECT_NE(all.find("--opt_level          SEEN      ENABLED   ENUMERATED ARG: 2\n"), std::string::npos) << all;
    EXPECT_NE(all.find("--debug_file         SEEN      ENABLED   STRING ARG: <arg not provided>\n"), std::string::npos);
    EXPECT_NE(all.find("--volatile_all       not seen  disabled  NO ARGS\n"), std::string::npos);
}

TEST_F(Options, MergeReportsDifferencesBetweenFiles) {
    option_obj earlier = parse({"-o2", "--big_endian", "--program_mode"});
    option_obj now = parse({"-o3", "--little_endian", "--nonreentrant", "--debug=x"});
    std::fflush(capture_);
    long before = std::ftell(capture_);
    EXPECT_EQ(now.do_merge_conflicts(earlier), 2);
    std::string all = messages().substr(static_cast<size_t>(before));
    EXPECT_EQ(all,
              "error #24023-D: option --opt_level=3 conflicts with option --opt_level=2 of an earlier file\n"
              "error #24022-D: option --little_endian is incompatible with option --big_endian seen before\n"
              "warning #24020-D: option --program_mode was set for an earlier file but is not set now\n"
              "warning #24021-D: option --nonreentrant is set now but was not set for an earlier file\n");
}

TEST(OptionNames, ScrambledTableReadsBackPlain) {
    EXPECT_EQ(option_obj::rot13("opt_level"), "bcg_yriry");
    EXPECT_EQ(option_obj::rot13(option_obj::rot13("Mixed_Case_9")), "Mixed_Case_9");
    EXPECT_STREQ(option_obj::written_name(OPT_opt_level), "--opt_level");
    EXPECT_STREQ(option_obj::written_name(OPT_forced_passes), "--forced_passes");
    EXPECT_EQ(option_obj::kind(OPT_aux_flags), POT_NUMBER_LIST);
}

}  // namespace
