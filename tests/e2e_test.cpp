// Runs the optimizer binary (and the harness, which is the same driver with a
// made-up unit) as a separate process and checks status, streams and files.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "test_util.h"

namespace {

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override { fs::copy_file(fs::path(OPT5_SOURCE_DIR) / "samples/empty.if", dir / "in.if"); }

    Result run(const char* program, std::vector<std::string> args, std::map<std::string, std::string> env = {},
               void (*while_running)(pid_t) = nullptr) {
        return run_program(program, std::move(args), dir, env, while_running);
    }
    Result opt5(std::vector<std::string> args, std::map<std::string, std::string> env = {}) {
        return run(OPT5_BINARY, std::move(args), std::move(env));
    }
    Result harness(std::vector<std::string> args, std::map<std::string, std::string> env) {
        return run(OPT5_HARNESS, std::move(args), std::move(env));
    }
    bool has(const std::string& name) { return fs::exists(dir / name); }
    std::string file(const std::string& name) { return slurp(dir / name); }

    TempDir temp;
    const fs::path& dir = temp.path;
};

const std::string support_tail = "Include the .pp file created by option --preproc_with_comment\n\n";

TEST_F(EndToEnd, EmptyUnitSucceeds) {
    Result r = opt5({"-o2", "--opt_for_speed=3", "in.if", "out.if"});
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(has("out.if"));
}

TEST_F(EndToEnd, CommandLineErrorsExitWithOne) {
    Result r = opt5({});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, std::string("Usage: ") + OPT5_BINARY + " [-options] filename\n");

    r = opt5({"in.if", "out.if", "more.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\n>>>> OPTIMIZER ERROR: Garbage on command line\n\n");

    r = opt5({"in.if", "out.if", "-o2"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\n>>>> OPTIMIZER ERROR: Unexpected options: -o2  \n");

    r = opt5({"--no_such_option", "in.if", "out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "fatal error: invalid option:  --no_such_option\n");

    r = opt5({"--opt_level=9", "--ip_level=1", "in.if", "out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "error: bad argument to option --opt_level: should be one of {0,1,2,3,4,off}\n");
    EXPECT_FALSE(has("out.if"));
}

TEST_F(EndToEnd, FilesThatCannotBeOpened) {
    Result r = opt5({"missing.if", "out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\n>> Cannot Open Input icode File, missing.if : No such file or directory, Aborting\n");
    EXPECT_FALSE(has("out.if"));

    fs::create_directory(dir / "adir");
    r = opt5({"adir", "out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\n>> Error when opening input icode file : adir, Aborting\n");

    r = opt5({"in.if", "no/such/out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\n>> Cannot Open Output icode File, no/such/out.if : No such file or directory, Aborting\n");

    // The output is already open when the debug file fails: it is removed.
    r = opt5({"--debug_file=no/such/dbg", "in.if", "out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\n>> Cannot Open Debug File, no/such/dbg : No such file or directory, Aborting\n");
    EXPECT_FALSE(has("out.if"));
}

TEST_F(EndToEnd, NoticesForSizeAndVolatile) {
    Result r = opt5({"--opt_for_speed=0", "--volatile_all", "in.if", "out.if"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err,
              "\n\t*** Optimizing code size, not speed ***\n\n"
              "\n>>>> Warning: All non-auto lvalues are considered VOLATILE.\n\n");
}

TEST_F(EndToEnd, ListPassesAndTimeStatistics) {
    Result r = opt5({"--debug=list_passes", "--enable=time_stats", "in.if", "out.if"});
    EXPECT_EQ(r.status, 0);
    std::istringstream lines(r.out);
    std::string line;
    int n = 0;
    std::string first, last;
    while (std::getline(lines, line)) {
        if (n++ == 0) first = line;
        last = line;
    }
    EXPECT_EQ(n, 48);
    EXPECT_EQ(first, " 0:  pass 1 fcp/eda");
    EXPECT_EQ(last, "47:  late LIR");
    EXPECT_NE(r.err.find("\nTime for whole compilation unit:  0.0"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\nNon-function time:  0.0"), std::string::npos) << r.err;
}

TEST_F(EndToEnd, ForcedOrderReportedInTheDebugFile) {
    Result r = opt5({"--debug_file=dbg", "in.if", "out.if"}, {{"FORCED_OPT_PASSES", "3,1,3"}});
    EXPECT_EQ(r.status, 0);
    std::string dbg = file("dbg");
    // The start-up checks and the matcher's summary come before the pass list.
    EXPECT_EQ(dbg.rfind(" *** VALIDATING OPCODE TABLES\n *** OPCODE TABLES ARE OK\n\n[", 0), 0u) << dbg;
    size_t rules = dbg.find(" SIMD/SIMPLIFY/OP/XOP/COMBINE rules]\n(");
    size_t list = dbg.find("sec for matcher initialisation.)\n\nPass list, from environment variable, is:  3 1 3\n\n");
    EXPECT_NE(rules, std::string::npos) << dbg;
    EXPECT_NE(list, std::string::npos) << dbg;
    EXPECT_LT(rules, list);
    EXPECT_NE(dbg.find("\n== END OF DEBUG OUTPUT==\n"), std::string::npos);

    r = opt5({"--forced_passes=random", "--debug=list_passes", "in.if", "out.if"});
    EXPECT_EQ(r.status, 0);
    std::set<std::string> orders{r.out};
    for (int i = 0; i < 2; ++i) {
        // The seed has a resolution of one second.
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        orders.insert(opt5({"--forced_passes=random", "--debug=list_passes", "in.if", "out.if"}).out);
    }
    EXPECT_GT(orders.size(), 1u);
}

TEST_F(EndToEnd, FailedDebugWriteIsAnInternalError) {
    Result r = opt5({"--debug_file=/dev/full", "in.if", "out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("\n>>>> Optimizer terminated abnormally\n\nThis is a defect in the C/C++ Optimizer", 0), 0u)
        << r.err;
    EXPECT_TRUE(r.err.size() > support_tail.size() &&
                r.err.compare(r.err.size() - support_tail.size(), support_tail.size(), support_tail) == 0);
    EXPECT_FALSE(has("out.if"));
}

void terminate_soon(pid_t pid) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(pid, SIGTERM);
}
void interrupt_soon(pid_t pid) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(pid, SIGINT);
}

TEST_F(EndToEnd, TerminateAndInterruptExitWithTwo) {
    // Opening a FIFO with no writer blocks, which keeps the optimizer alive.
    ASSERT_EQ(mkfifo((dir / "pipe.if").c_str(), 0600), 0);
    Result r = run(OPT5_BINARY, {"pipe.if", "out.if"}, {}, terminate_soon);
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, std::string("[") + OPT5_BINARY + " received a terminate signal]\n");

    r = run(OPT5_BINARY, {"pipe.if", "out.if"}, {}, interrupt_soon);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, std::string("[") + OPT5_BINARY + " forced exit]\n");

    // A debug file that is a FIFO holds the run after the output is open.
    ASSERT_EQ(mkfifo((dir / "pipe.dbg").c_str(), 0600), 0);
    r = run(OPT5_BINARY, {"--debug_file=pipe.dbg", "in.if", "out.if"}, {}, terminate_soon);
    EXPECT_EQ(r.status, 2);
    EXPECT_FALSE(has("out.if"));
}

TEST_F(EndToEnd, FunctionsAreWrittenUnlessMarked) {
    Result r = harness({"in.if", "out.if"}, {{"HARNESS_FUNCS", "f,g,h"}, {"HARNESS_NOBODY", "g"}});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(file("out.if"), "body f\nbody h\n");
}

TEST_F(EndToEnd, DebugFramesAndSplitListings) {
    Result r = harness({"--debug_file=dbg", "--debug=split_odb", "in.if", "out.if"}, {{"HARNESS_FUNCS", "f,g"}});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Pellin C/C++ Optimizer Pass 2\n");
    std::string main_listing = file("dbg");
    EXPECT_NE(main_listing.find(">>>> SWITCHING LOG TO dbg.f\n"), std::string::npos);
    EXPECT_NE(main_listing.find("---------- ENTERING step 3 'analyze globals' ----------"), std::string::npos);
    EXPECT_EQ(main_listing.find("ENTERING step 0 "), std::string::npos);
    for (const char* fn : {"f", "g"}) {
        std::string own = file(std::string("dbg.") + fn);
        // Both stretches of the function land in its own file.
        EXPECT_NE(own.find("ENTERING step 0 'pass 1 fcp/eda'"), std::string::npos) << fn;
        EXPECT_NE(own.find("EXITING step 48 'output function'"), std::string::npos) << fn;
        EXPECT_EQ(own.find("analyze globals"), std::string::npos) << fn;
    }
}

TEST_F(EndToEnd, WorkerThreadKeepsTheSerialInformationListing) {
    Result serial = harness({"--info_file=serial.inf", "in.if", "out1.if"}, {{"HARNESS_FUNCS", "f,g"}});
    Result threaded = harness({"--info_file=threaded.inf", "in.if", "out2.if"},
                              {{"HARNESS_FUNCS", "f,g"}, {"HARNESS_THREADS", "1"}});
    EXPECT_EQ(serial.status, 0);
    EXPECT_EQ(threaded.status, 0);
    std::string a = file("serial.inf"), b = file("threaded.inf");
    EXPECT_NE(a.find("f on main\n"), std::string::npos);
    EXPECT_NE(b.find("f on worker\n"), std::string::npos);
    for (size_t at; (at = b.find("worker")) != std::string::npos;) b.replace(at, 6, "main");
    EXPECT_EQ(a, b);
    EXPECT_EQ(file("out1.if"), file("out2.if"));
}

TEST_F(EndToEnd, InternalErrorsRemoveTheOutput) {
    struct Case {
        const char* fault;
        std::string reason_line;
    } cases[] = {
        {"assert", ""},
        {"exception", "\n>>>> Exception:  boom.\n"},
        {"badalloc", "\n>>>> ERROR - OUT OF MEMORY.\n"},
        {"other", "\n>>>> Caught something that isn't std::exception..\n"},
    };
    for (const Case& c : cases) {
        Result r = harness({"--debug_file=dbg", "in.if", "out.if"},
                           {{"HARNESS_FUNCS", "f,g"}, {"HARNESS_FAULT", c.fault}, {"HARNESS_FAULT_AT", "13"},
                            {"HARNESS_FAULT_IN", "g"}});
        EXPECT_TRUE(r.exited) << c.fault;
        EXPECT_EQ(r.status, 1) << c.fault;
        std::string expected = "\n>>>> Optimizer terminated abnormally\n>>>>    in function g()\n>>>>    in file \"in.if\"\n" +
                               c.reason_line + "\nThis is a defect";
        EXPECT_EQ(r.err.rfind(expected, 0), 0u) << c.fault << ":\n" << r.err;
        EXPECT_FALSE(has("out.if")) << c.fault;
        std::string dbg = file("dbg");
        EXPECT_NE(dbg.find("\n>>>> Optimizer terminated abnormally.\n"), std::string::npos) << c.fault;
    }
}

TEST_F(EndToEnd, WorkerFailureNamesTheFunction) {
    Result r = harness({"in.if", "out.if"}, {{"HARNESS_FUNCS", "f,g,h"}, {"HARNESS_THREADS", "1"},
                                             {"HARNESS_FAULT", "exception"}, {"HARNESS_FAULT_IN", "g"}});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(">>>>    in function g()\n"), std::string::npos) << r.err;
    EXPECT_FALSE(has("out.if"));
}

TEST_F(EndToEnd, FatalSignalExitsWithTwo) {
    Result r = harness({"--debug_file=dbg", "--info_file=inf", "in.if", "out.if"},
                       {{"HARNESS_FUNCS", "f,g"}, {"HARNESS_FAULT", "segv"}, {"HARNESS_FAULT_IN", "g"}});
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, 2);
    std::string expected = std::string("\nINTERNAL ERROR: ") + OPT5_HARNESS +
                           " experienced a segmentation fault\n"
                           "                  while processing function g file in.if\n\n"
                           "\nThis is a defect";
    EXPECT_EQ(r.err.rfind(expected, 0), 0u) << r.err;
    EXPECT_FALSE(has("out.if"));
    EXPECT_NE(file("dbg").find("\n>>>> Optimizer terminated by signal: SIGSEGV.\n"), std::string::npos);
    EXPECT_NE(file("inf").find("\n>>>> Optimizer terminated by signal: SIGSEGV.\n"), std::string::npos);
}

TEST_F(EndToEnd, DebugAbortDumpsCoreInsteadOfExiting) {
    Result r = harness({"--debug=abort", "in.if", "out.if"}, {{"HARNESS_FUNCS", "f"}, {"HARNESS_FAULT", "assert"}});
    EXPECT_FALSE(r.exited);
    EXPECT_EQ(r.status, SIGABRT);
    EXPECT_NE(r.err.find(">>>> Optimizer terminated abnormally\n"), std::string::npos);
    EXPECT_FALSE(has("out.if"));
}

}  // namespace
