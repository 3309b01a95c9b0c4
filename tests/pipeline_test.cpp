#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "DEBUG_DISABLE/register_option.h"
#include "DEBUG_DISABLE/switches.h"
#include "DIAG/diag.h"
#include "OPT5/cmdline.h"
#include "OPT5/driver.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/pass.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "test_util.h"

namespace {

std::mutex seen_mutex;
std::vector<std::pair<std::string, std::thread::id>> seen;  // (function, thread)

void note_function() {
    std::lock_guard<std::mutex> lock(seen_mutex);
    seen.emplace_back(currfunc ? currfunc->name : "*", std::this_thread::get_id());
}
void note_written(SYMTAB* fn) {
    std::lock_guard<std::mutex> lock(seen_mutex);
    seen.emplace_back("write " + fn->name, std::this_thread::get_id());
}
void throw_in_g() {
    if (currfunc && currfunc->name == "g") throw std::runtime_error("g failed");
}
void burn_cpu_in_g() {
    if (!currfunc || currfunc->name != "g") return;
    clock_t start = std::clock();
    while (std::clock() - start < 20000) {
    }
}

class Pipeline : public ::testing::Test {
protected:
    void SetUp() override {
        reset_driver();
        register_option::reset_state();
        file_options = option_obj(true);
        unsetenv("FORCED_OPT_PASSES");
        max_threads = 0;
        seen.clear();
        f.name = "f";
        g.name = "g";
        int_type.subkind = TYPE::IK_INT;
        g_type.base = &int_type;
        g.type = &g_type;
        write_function_body = note_written;
    }
    void TearDown() override {
        stop_debug();
        reset_driver();
        register_option::reset_state();
        file_options = option_obj(true);
        max_threads = 0;
        write_function_body = nullptr;
        unsetenv("FORCED_OPT_PASSES");
    }
    void start_debug() {
        FDEBUG = std::tmpfile();
        print_debug = true;
    }
    void stop_debug() {
        if (FDEBUG) std::fclose(FDEBUG);
        FDEBUG = nullptr;
        print_debug = false;
    }
    std::string debug_text() { return read_all(FDEBUG); }
    // The steps run, as "function:serial" ("*" for barriers), read back from
    // the frames of the debug stream.
    std::vector<std::string> steps_run() {
        std::vector<std::string> out;
        std::string text = debug_text();
        std::regex frame(R"(FUNCTION (\w+)\(\)|ENTERING step (\d+) '([^']*)')");
        std::string fn = "*";
        for (std::sregex_iterator it(text.begin(), text.end(), frame), end; it != end; ++it) {
            if ((*it)[1].matched) {
                fn = (*it)[1];
                continue;
            }
            int serial = std::stoi((*it)[2]);
            bool barrier = serial < static_cast<int>(normal_order_passes.size()) &&
                           normal_order_passes[serial]->is_barrier();
            out.push_back((barrier ? std::string("*") : fn) + ":" + (*it)[2].str());
            if ((*it)[3] == "output function") fn = "*";
        }
        return out;
    }
    void run_unit(std::vector<SYMTAB*> fns) {
        functions = std::move(fns);
        build_step_tables();
        run_function_loop();
    }
    TYPE int_type{TYPE::INT_T}, g_type{TYPE::FUNC_T};  // int g()
    SYMTAB f, g;
};

TEST_F(Pipeline, TableHasFortyEightStepsWithBarriersInPlace) {
    setup_passes(false);
    ASSERT_EQ(normal_order_passes.size(), 48u);
    EXPECT_EQ(permuted_order, normal_order_passes);
    for (int i = 0; i < 48; ++i) {
        EXPECT_EQ(normal_order_passes[i]->serial(), i);
        EXPECT_EQ(normal_order_passes[i]->is_barrier(), i >= 3 && i <= 10) << i;
    }
    EXPECT_EQ(normal_order_passes[0]->name(), "pass 1 fcp/eda");
    EXPECT_EQ(normal_order_passes[9]->name(), "pass 2 header");
    EXPECT_EQ(normal_order_passes[27]->name(), "CD vectorizations");
    EXPECT_EQ(normal_order_passes[34]->name(), "Pellin rotate loops");
    EXPECT_EQ(normal_order_passes[47]->name(), "late LIR");

    FILE* out = std::tmpfile();
    list_passes(out);
    std::rewind(out);
    char line[80];
    ASSERT_NE(std::fgets(line, sizeof line, out), nullptr);
    EXPECT_STREQ(line, " 0:  pass 1 fcp/eda\n");
    int lines = 1;
    while (std::fgets(line, sizeof line, out)) ++lines;
    EXPECT_STREQ(line, "47:  late LIR\n");
    EXPECT_EQ(lines, 48);
    std::fclose(out);
}

TEST_F(Pipeline, StretchesRunFunctionByFunctionBetweenBarriers) {
    start_debug();
    setup_passes(false);
    run_unit({&f, &g});

    std::vector<std::string> expected;
    auto stretch = [&](int from, int to) {
        for (const char* fn : {"f", "g"}) {
            for (int s = from; s < to; ++s) expected.push_back(std::string(fn) + ":" + std::to_string(s));
            if (to == 48) expected.push_back(std::string(fn) + ":48");  // output function
        }
    };
    stretch(0, 3);
    for (int s = 3; s <= 10; ++s) expected.push_back("*:" + std::to_string(s));
    stretch(11, 48);
    EXPECT_EQ(steps_run(), expected);

    std::string text = debug_text();
    EXPECT_NE(text.find("Pass list is normal order.\n"), std::string::npos);
    EXPECT_NE(text.find("\n\n\t\t\t---------- ENTERING step 0 'pass 1 fcp/eda' ----------\n"), std::string::npos);
    EXPECT_NE(text.find("\n\n\n\t\t\t---------- EXITING step 48 'output function' ----------\n"), std::string::npos);
    EXPECT_NE(text.find("<<NULL SCOPE>>\n"), std::string::npos);
    for (SYMTAB* fn : functions) EXPECT_TRUE(steps_table[fn].empty());
}

TEST_F(Pipeline, OneWorkerRunsTheFunctionsInOrderOffTheMainThread) {
    setup_passes(false);
    normal_order_passes[0]->set_action(note_function);
    normal_order_passes[20]->set_action(note_function);
    max_threads = 1;
    run_unit({&f, &g});

    // Without debug printing the tables lack "output function": the main
    // thread writes the functions after their other steps, in input order.
    const std::thread::id main_id = std::this_thread::get_id();
    ASSERT_EQ(seen.size(), 6u);
    std::vector<std::string> order;
    for (auto& [what, id] : seen) order.push_back(what);
    EXPECT_EQ(order, (std::vector<std::string>{"f", "g", "f", "g", "write f", "write g"}));
    const std::thread::id worker = seen[0].second;
    EXPECT_NE(worker, main_id);
    EXPECT_EQ(seen[1].second, worker);
    EXPECT_EQ(seen[4].second, main_id);
    EXPECT_EQ(seen[5].second, main_id);
}

TEST_F(Pipeline, WorkerCapturesInformationTextInFunctionOrder) {
    FILE* info = std::tmpfile();
    finfo = info;
    write_opt_info = true;
    setup_passes(false);
    max_threads = 2;
    run_unit({&f, &g});
    finfo = nullptr;
    write_opt_info = false;
    std::string text = read_all(info);
    std::fclose(info);
    // One header line per function and stretch, as in a serial run.
    const std::string rule = "\n" + std::string(78, '=') + "\n";
    size_t count = 0;
    for (size_t at = text.find(rule); at != std::string::npos; at = text.find(rule, at + 1)) ++count;
    EXPECT_EQ(count, 4u);
    EXPECT_TRUE(make_FUNINFO(&f)->info_text.empty());
}

TEST_F(Pipeline, WorkersWriteFunctionsWhenTheOrderEndsWithABarrier) {
    setenv("FORCED_OPT_PASSES", "0,3", 1);
    setup_passes(true);
    max_threads = 1;
    run_unit({&f, &g});
    std::vector<std::string> order;
    for (auto& [what, id] : seen) order.push_back(what);
    EXPECT_EQ(order, (std::vector<std::string>{"write f", "write g"}));
}

TEST_F(Pipeline, WorkerExceptionNamesItsFunction) {
    setup_passes(false);
    normal_order_passes[12]->set_action(throw_in_g);
    max_threads = 2;
    functions = {&f, &g};
    build_step_tables();
    EXPECT_THROW(run_function_loop(), std::runtime_error);
    EXPECT_EQ(currfunc_at_abort, &g);
}

TEST_F(Pipeline, SkipPassAboveZeroOnly) {
    start_debug();
    pass_debug_skip_pass = 5;
    setup_passes(false);
    run_unit({&f});
    std::string text = debug_text();
    EXPECT_NE(text.find("\n\n\t\t\t---------- SKIPPING step 5 'do_interprocedural_propagation' ----------\n"), std::string::npos);
    std::vector<std::string> run = steps_run();
    EXPECT_EQ(std::count(run.begin(), run.end(), "*:5"), 0);
    EXPECT_EQ(run.size(), 48u);  // 47 table steps and "output function"
    stop_debug();

    reset_driver();
    start_debug();
    pass_debug_skip_pass = 0;
    setup_passes(false);
    run_unit({&f});
    EXPECT_EQ(debug_text().find("SKIPPING"), std::string::npos);
    EXPECT_EQ(steps_run().size(), 49u);
}

TEST_F(Pipeline, BodyNotWrittenStillRunsEveryStep) {
    start_debug();
    setup_passes(false);
    make_FUNINFO(&g)->set_flags(FUN_BODY_NOT_WRITTEN);
    run_unit({&f, &g});
    std::vector<std::string> run = steps_run();
    EXPECT_EQ(std::count_if(run.begin(), run.end(), [](const std::string& s) { return s.rfind("g:", 0) == 0; }), 41);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].first, "write f");
}

TEST_F(Pipeline, ForcedOrderFromOptionRepeatsAndOmits) {
    start_debug();
    const char* next = nullptr;
    file_options.process_option("-forced_passes=3,1,3", &next);
    setenv("FORCED_OPT_PASSES", "0", 1);  // the option wins
    setup_passes(true);
    ASSERT_EQ(permuted_order.size(), 3u);
    EXPECT_EQ(permuted_order[0]->serial(), 3);
    EXPECT_EQ(permuted_order[1]->serial(), 1);
    EXPECT_EQ(permuted_order[2]->serial(), 3);
    run_unit({&f});
    EXPECT_NE(debug_text().find("Pass list, from command-line option, is:  3 1 3\n\n"), std::string::npos);
    EXPECT_EQ(steps_run(), (std::vector<std::string>{"*:3", "f:1", "*:3", "f:48"}));
}

TEST_F(Pipeline, ForcedOrderFromEnvironmentAndEmptyOrder) {
    start_debug();
    setenv("FORCED_OPT_PASSES", "2 0", 1);
    setup_passes(true);
    EXPECT_NE(debug_text().find("Pass list, from environment variable, is:  2 0\n\n"), std::string::npos);
    stop_debug();

    reset_driver();
    start_debug();
    setenv("FORCED_OPT_PASSES", "", 1);
    setup_passes(true);
    run_unit({&f});
    EXPECT_NE(debug_text().find("Pass list, from environment variable, is: <empty>\n\n"), std::string::npos);
    EXPECT_EQ(steps_run(), (std::vector<std::string>{"f:48"}));
    stop_debug();

    // Given empty on the command line, the order is empty too (and wins
    // over the environment).
    reset_driver();
    start_debug();
    setenv("FORCED_OPT_PASSES", "2 0", 1);
    const char* next = nullptr;
    file_options.process_option("-forced_passes=", &next);
    setup_passes(true);
    run_unit({&f});
    EXPECT_NE(debug_text().find("Pass list, from command-line option, is: <empty>\n\n"), std::string::npos);
    EXPECT_EQ(steps_run(), (std::vector<std::string>{"f:48"}));
}

TEST_F(Pipeline, RandomOrderIsAPermutation) {
    EXPECT_EQ(random_pass_permutation(1), std::vector<int>{0});
    EXPECT_TRUE(random_pass_permutation(0).empty());
    std::vector<int> p = random_pass_permutation(48);
    std::vector<int> sorted = p;
    std::sort(sorted.begin(), sorted.end());
    for (int i = 0; i < 48; ++i) EXPECT_EQ(sorted[i], i);

    start_debug();
    setenv("FORCED_OPT_PASSES", "random", 1);
    setup_passes(true);
    EXPECT_EQ(permuted_order.size(), 48u);
    EXPECT_NE(debug_text().find("Pass list, from environment variable, is (random):  "), std::string::npos);
}

TEST_F(Pipeline, BadForcedSerialEndsTheRun) {
    setenv("FORCED_OPT_PASSES", "1,48", 1);
    EXPECT_EXIT(setup_passes(true), ::testing::ExitedWithCode(1),
                "invalid pass serial '48' in the forced pass order from environment variable");
}

TEST_F(Pipeline, EmptyUnitHasNoOutputStepAndRunsNothing) {
    start_debug();
    setup_passes(false);
    run_unit({});
    EXPECT_EQ(output_function_pass, nullptr);
    EXPECT_TRUE(steps_run().empty());
}

TEST_F(Pipeline, TimeStatisticsSortLargestFirst) {
    enable_time_stats = 1;
    setup_passes(false);
    normal_order_passes[0]->set_action(burn_cpu_in_g);
    run_unit({&f, &g});
    EXPECT_GE(make_FUNINFO(&g)->pass_time, 20000);
    EXPECT_LT(make_FUNINFO(&f)->pass_time, make_FUNINFO(&g)->pass_time);

    FILE* out = std::tmpfile();
    print_time_stats(out, 1000000);
    std::string text = read_all(out);
    std::fclose(out);
    std::regex shape(
        "\nTime for whole compilation unit:  1\\.00 secs\ng:  0\\.0\\d secs\nf:  0\\.0\\d secs\n"
        "Non-function time:  0\\.\\d\\d secs\n");
    EXPECT_TRUE(std::regex_match(text, shape)) << text;
}

TEST_F(Pipeline, MustBeUnsuppressedNoteAtLevelThree) {
    start_debug();
    const char* next = nullptr;
    file_options.process_option("o3", &next);
    setup_passes(false);
    make_FUNINFO(&g)->set_flags(FUN_MUST_BE_UNSUPPRESSED);
    run_unit({&f, &g});
    std::string text = debug_text();
    EXPECT_NE(text.find("\n!!! g() (int g()) must be unsuppressed !!!\n\n"), std::string::npos);
    EXPECT_EQ(text.find("!!! f()"), std::string::npos);
}

TEST_F(Pipeline, MismatchedBarrierIsAnInternalError) {
    setup_passes(false);
    functions = {&f, &g};
    build_step_tables();
    steps_table[&g].erase(steps_table[&g].begin() + 3);  // g lacks the first barrier
    EXPECT_EXIT(run_function_loop(), ::testing::ExitedWithCode(1), ">>>> Optimizer terminated abnormally\n");
}

}  // namespace
