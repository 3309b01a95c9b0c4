// Runs the optimizer binary (and the harness, which is the same driver with a
// made-up unit) as a separate process and checks status, streams and files.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

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
    EXPECT_EQ(r.err.find("Step times"), std::string::npos) << r.err;
}

// With time_stats=2 the specified statistics are followed by the steps'
// table: every step that ran, reading and writing among them, once each for
// the one function, and the whole run last.
TEST_F(EndToEnd, StepTimeTable) {
    fs::copy_file(fs::path(OPT5_SOURCE_DIR) / "samples/rich.if", dir / "rich.if");
    Result r = opt5({"--enable=time_stats=2", "rich.if", "out.if"});
    EXPECT_EQ(r.status, 0);
    size_t stats = r.err.find("\nTime for whole compilation unit:");
    size_t table = r.err.find("\nStep times (CPU seconds, summed over the functions):\n");
    ASSERT_NE(stats, std::string::npos) << r.err;
    ASSERT_NE(table, std::string::npos) << r.err;
    EXPECT_LT(stats, table);
    std::istringstream lines(r.err.substr(table));
    std::string line;
    std::map<std::string, long> runs;
    std::string last;
    while (std::getline(lines, line)) {
        std::istringstream row(line);
        double seconds, percent;
        long count;
        if (!(row >> seconds >> percent)) continue;
        std::string rest;
        std::getline(row >> std::ws, rest);
        count = 0;
        if (!rest.empty() && std::isdigit(static_cast<unsigned char>(rest[0]))) {
            size_t used = 0;
            count = std::stol(rest, &used);
            rest = rest.substr(rest.find_first_not_of(' ', used));
        }
        std::string name = rest;
        runs[name] = count;
        last = name;
    }
    EXPECT_EQ(last, "(whole run)");
    EXPECT_EQ(runs["read input unit"], 1);
    EXPECT_EQ(runs["write global data"], 1);
    EXPECT_EQ(runs["output function"], 1);
    EXPECT_EQ(runs["pass 1 fcp/eda"], 1);
    EXPECT_EQ(runs["analyze globals"], 1);
    EXPECT_EQ(runs.size(), 48u + 3 + 2) << r.err;  // the steps, output function, read, write, two totals
}

TEST_F(EndToEnd, ForcedOrderReportedInTheDebugFile) {
    Result r = opt5({"--debug_file=dbg", "in.if", "out.if"}, {{"FORCED_OPT_PASSES", "3,1,3"}});
    EXPECT_EQ(r.status, 0);
    std::string dbg = file("dbg");
    // The start-up checks, the pass list, then (once the unit is read) the
    // matcher's summary.
    EXPECT_EQ(dbg.rfind(" *** VALIDATING OPCODE TABLES\n *** OPCODE TABLES ARE OK\n\nPass list, from environment "
                        "variable, is:  3 1 3\n\n[",
                        0),
              0u)
        << dbg;
    EXPECT_NE(dbg.find(" SIMD/SIMPLIFY/OP/XOP/COMBINE rules]\n("), std::string::npos) << dbg;
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

// A full disk is the user's trouble, not a defect: the file and the
// system's reason are named, and nothing is left behind.
TEST_F(EndToEnd, FailedWritesNameTheFileAndTheReason) {
    Result r = opt5({"--debug_file=/dev/full", "in.if", "out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\n>> Cannot write the debug file /dev/full : No space left on device, Aborting\n");
    EXPECT_FALSE(has("out.if"));
    r = opt5({"--info_file=/dev/full", "in.if", "out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\n>> Cannot write the information file /dev/full : No space left on device, Aborting\n");
    EXPECT_FALSE(has("out.if"));
    r = opt5({"in.if", "/dev/full"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\n>> Cannot write the output icode file /dev/full : No space left on device, Aborting\n");
}

// Files that are not regular files are written into, never removed or
// replaced, whether the run fails or not.
TEST_F(EndToEnd, DevicesAndPipesAreNeverRemoved) {
    ASSERT_EQ(mknod((dir / "null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    ASSERT_EQ(mknod((dir / "full").c_str(), S_IFCHR | 0666, makedev(1, 7)), 0);
    ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
    spit(dir / "bad.if", "junk");
    auto kind = [&](const char* name) {
        struct stat st;
        return lstat((dir / name).c_str(), &st) == 0 ? st.st_mode & S_IFMT : 0;
    };
    for (const char* in : {"bad.if", "in.if"}) {
        for (const char* out : {"null", "full"}) {
            Result r = opt5({in, out});
            EXPECT_EQ(r.status, std::string(in) == "in.if" && std::string(out) == "null" ? 0 : 1) << in << " " << out;
            EXPECT_EQ(kind(out), static_cast<unsigned>(S_IFCHR)) << in << " " << out;
        }
    }
    // A reader at the pipe gets the whole output.
    std::thread reader([&] { spit(dir / "from_pipe", slurp(dir / "pipe")); });
    Result r = opt5({"in.if", "pipe"});
    reader.join();
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(kind("pipe"), static_cast<unsigned>(S_IFIFO));
    ASSERT_EQ(opt5({"in.if", "plain.if"}).status, 0);
    EXPECT_EQ(file("from_pipe"), file("plain.if"));
    // Nothing of ours is left in the directory.
    for (const auto& e : fs::directory_iterator(dir))
        EXPECT_EQ(e.path().filename().string().find(".if."), std::string::npos) << e.path();
}

// The output path naming the input, however spelt, is refused before
// anything is written, and the input stays as it was.
TEST_F(EndToEnd, OutputThatIsTheInputIsRefused) {
    std::string before = file("in.if");
    fs::create_symlink("in.if", dir / "link.if");
    fs::create_hard_link(dir / "in.if", dir / "hard.if");
    for (const char* out : {"in.if", "./in.if", "link.if", "hard.if"}) {
        Result r = opt5({"in.if", out});
        EXPECT_EQ(r.status, 1) << out;
        EXPECT_EQ(r.err, std::string("\n>> The output icode file ") + out + " is the input file in.if, Aborting\n");
        EXPECT_EQ(file("in.if"), before) << out;
    }
}

// A failed run leaves a file it was to replace as it was; a symbolic link
// as output is followed, not replaced.
TEST_F(EndToEnd, AFailedRunLeavesTheOldOutput) {
    spit(dir / "bad.if", "junk");
    spit(dir / "out.if", "old");
    EXPECT_EQ(opt5({"bad.if", "out.if"}).status, 1);
    EXPECT_EQ(file("out.if"), "old");
    fs::create_symlink("out.if", dir / "link.if");
    EXPECT_EQ(opt5({"in.if", "link.if"}).status, 0);
    EXPECT_TRUE(fs::is_symlink(dir / "link.if"));
    EXPECT_EQ(file("out.if"), file("link.if"));
    EXPECT_NE(file("out.if"), "old");
}

// A signal at any moment ends the run either normally, with the whole
// output, or with status 2 and nothing at all: no partial output, no file of
// ours left over.
TEST_F(EndToEnd, ASignalAtAnyMomentLeavesAllOrNothing) {
    std::string text = ".header version=-71 cpu=0x258 source=\"t.c\" extra=0\n.section main\n";
    for (int f = 0; f < 40; ++f) {
        text += "begin_func P:1:1:1 n:" + std::to_string(f) + "\n"
                "symbol S:\"a\" n:16 n:0 c:0 w:0 n:1 n:0 n:16 c:0 n:0 n:0 P:0 b:0\nend_args P:0\nend_locals P:0\n";
        for (int i = 0; i < 200; ++i)
            text += "stmt P:1:2:1\nnode b:7 n:1\nnode b:2 n:1 R:1:0\nnode b:11 n:1\nnode b:2 n:1 R:1:0\nnode b:4 n:1 i:3\n";
        text += "stmt P:1:3:1\nnode b:118 n:1\nnode b:2 n:1 R:1:0\nend_func P:0\n";
    }
    text += ".end\n.section types\ntype n:1 b:8 b:1 n:16 n:16 b:0 b:0\ntype n:2 b:22 n:1 b:1 b:0 b:0 b:0\n.end\n"
            ".section files\nsource S:\"t.c\"\n.end\n.section globals\n";
    for (int f = 0; f < 40; ++f)
        text += "symbol S:\"f" + std::to_string(f) + "\" n:0 n:0 c:0 w:0 n:2 n:0 n:16 c:0 n:0 n:0 P:1:1:1 b:0\n";
    text += ".end\n";
    ASSERT_EQ(assemble(text, dir / "big.if"), "");
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(opt5({"-o2", "big.if", "whole.if"}).status, 0);
    auto took = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
    std::string whole = file("whole.if");
    static int delay_us;
    int ends[3] = {0, 0, 0};
    for (int k = 0; k < 40; ++k) {
        // From 40% of the run to four times its length, so that some runs
        // end first even on a machine busier than when it was timed.
        delay_us = static_cast<int>(took.count() * (40 + 9 * k) / 100);
        Result r = run(OPT5_BINARY, {"-o2", "big.if", "out.if"}, {}, [](pid_t pid) {
            std::this_thread::sleep_for(std::chrono::microseconds(delay_us));
            kill(pid, SIGTERM);
        });
        // Before its handlers are in place the signal kills the process.
        if (!r.exited) EXPECT_EQ(r.status, SIGTERM);
        else ASSERT_TRUE(r.status == 0 || r.status == 2) << r.status;
        ++ends[r.exited ? r.status : 1];
        if (r.exited && r.status == 0) EXPECT_EQ(file("out.if"), whole) << delay_us;
        else EXPECT_FALSE(has("out.if")) << delay_us;
        for (const auto& e : fs::directory_iterator(dir))
            EXPECT_EQ(e.path().filename().string().rfind("out.if.", 0), std::string::npos) << e.path();
        fs::remove(dir / "out.if");
    }
    EXPECT_GT(ends[2], 0) << ends[0] << " " << ends[1];  // the signals did arrive during some runs
    EXPECT_GT(ends[0], 0) << ends[1] << " " << ends[2];  // and after some had ended
}

// The display options govern the messages about the command line itself,
// wherever they stand on it.
TEST_F(EndToEnd, DisplayOptionsComeFirst) {
    Result r = opt5({"--bogus", "--diagnostics=error_number", "in.if", "out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("#6006"), std::string::npos) << r.err;
    r = opt5({"--error_limit=1", "--bogus", "--bogus2", "in.if", "out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("--bogus"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("--bogus2"), std::string::npos) << r.err;
    r = opt5({"-o2", "-o3", "--diagnostics=no_warnings", "in.if", "out.if"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    r = opt5({"-o2", "-o3", "in.if", "out.if"});
    EXPECT_NE(r.err.find("warning: option --opt_level=3 overrides preceding option --opt_level=2"), std::string::npos)
        << r.err;
    r = opt5({"--opt_level=2", "--no_opt_level", "--diagnostics=remarks", "in.if", "out.if"});
    EXPECT_NE(r.err.find("remark: option --no_opt_level clears preceding option --opt_level=2"), std::string::npos)
        << r.err;
}

// A function's own option set applies on top of the command line, and an
// error in it is an error of the run.
TEST_F(EndToEnd, FunctionOptionSetsAddToTheCommandLine) {
    auto unit = [](const std::string& option) {
        return ".header version=-71 cpu=0x258 source=\"t.c\" extra=0\n.section main\nbegin_func P:1:1:1 n:0\n"
               "symbol S:\"p\" n:32 n:0 c:0 w:0 n:3 n:0 n:32 c:0 n:0 n:0 P:0 b:0\nend_args P:0\nend_locals P:0\n"
               "stmt P:1:2:1\nnode b:58 n:1\nnode b:13 n:1\nnode b:2 n:3 R:1:0\nnode b:4 n:1 i:1\n"
               "stmt P:1:3:1\nnode b:58 n:1\nnode b:13 n:1\nnode b:2 n:3 R:1:0\nnode b:4 n:1 i:2\n"
               "stmt P:1:4:1\nnode b:118 n:1\nnode b:4 n:1 i:0\nend_func P:0\n.end\n"
               ".section options\noption_set n:1 n:1 S:\"" + option + "\"\n.end\n.section types\n"
               "type n:1 b:8 b:1 n:16 n:16 b:0 b:0\ntype n:2 b:22 n:1 b:1 b:0 b:0 b:0\ntype n:3 b:17 n:1 n:32 n:32\n"
               ".end\n.section files\nsource S:\"t.c\"\n.end\n.section globals\n"
               "symbol S:\"f\" n:0 n:0 c:0 w:0 n:2 n:0 n:16 c:0 n:0 n:0 P:1:1:1 b:0\n.end\n";
    };
    auto stores = [&](const std::string& out) {
        std::string text = disassemble(dir / out);
        size_t n = 0;
        for (size_t at = text.find("node b:58 "); at != std::string::npos; at = text.find("node b:58 ", at + 1)) ++n;
        return n;
    };
    ASSERT_EQ(assemble(unit("--opt_level=2"), dir / "f.if"), "");
    ASSERT_EQ(opt5({"f.if", "plain.if"}).status, 0);
    EXPECT_EQ(stores("plain.if"), 1u);  // at level 2 the first store is dead
    Result r = opt5({"--volatile_all", "f.if", "volatile.if"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(stores("volatile.if"), 2u);  // the command line still holds
    // Files and the step order are the run's: a set naming them is warned
    // about and the rest of the run goes on as the command line says.
    for (const char* run_wide : {"--info_file=set.inf", "--forced_passes="}) {
        ASSERT_EQ(assemble(unit(run_wide), dir / "run_wide.if"), "");
        r = opt5({"run_wide.if", "run_wide_out.if"});
        EXPECT_EQ(r.status, 0) << r.err;
        std::string name = std::string(run_wide).substr(0, std::string(run_wide).find('='));
        EXPECT_NE(r.err.find("warning: Option " + name + " is not valid in an I-file option set (ignored)"),
                  std::string::npos)
            << r.err;
        EXPECT_EQ(stores("run_wide_out.if"), 1u) << run_wide;  // the steps ran: the dead store went
    }
    EXPECT_FALSE(has("set.inf"));
    ASSERT_EQ(assemble(unit("--opt_level=9"), dir / "bad.if"), "");
    r = opt5({"bad.if", "bad_out.if"});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("error"), std::string::npos) << r.err;
    EXPECT_FALSE(has("bad_out.if"));
}

// A function's option set ends with the function's own steps: the function
// after it, even in the stretch before a barrier, runs under the file's flags.
TEST_F(EndToEnd, FunctionOptionSetDoesNotReachTheNextFunction) {
    std::string body =
        "symbol S:\"p\" n:32 n:0 c:0 w:0 n:3 n:0 n:32 c:0 n:0 n:0 P:0 b:0\nend_args P:0\nend_locals P:0\n"
        "stmt P:1:2:1\nnode b:58 n:1\nnode b:13 n:1\nnode b:2 n:3 R:1:0\nnode b:4 n:1 i:1\n"
        "stmt P:1:3:1\nnode b:58 n:1\nnode b:13 n:1\nnode b:2 n:3 R:1:0\nnode b:4 n:1 i:2\n"
        "stmt P:1:4:1\nnode b:118 n:1\nnode b:4 n:1 i:0\nend_func P:0\n";
    std::string unit =
        ".header version=-71 cpu=0x258 source=\"t.c\" extra=0\n.section main\nbegin_func P:1:1:1 n:0\n" + body +
        "begin_func P:1:1:1 n:1\n" + body +
        ".end\n.section options\noption_set n:1 n:1 S:\"--volatile_all\"\n.end\n.section types\n"
        "type n:1 b:8 b:1 n:16 n:16 b:0 b:0\ntype n:2 b:22 n:1 b:1 b:0 b:0 b:0\ntype n:3 b:17 n:1 n:32 n:32\n"
        ".end\n.section files\nsource S:\"t.c\"\n.end\n.section globals\n"
        "symbol S:\"f\" n:0 n:0 c:0 w:0 n:2 n:0 n:16 c:0 n:0 n:0 P:1:1:1 b:0\n"
        "symbol S:\"g\" n:0 n:0 c:0 w:0 n:2 n:0 n:16 c:0 n:0 n:0 P:1:1:1 b:0\n.end\n";
    ASSERT_EQ(assemble(unit, dir / "fg.if"), "");
    // Dead stores go in "late fast_CP(4,1)", run here before a barrier.
    Result r = opt5({"-o2", "--forced_passes=29,3", "fg.if", "fg_out.if"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::string text = disassemble(dir / "fg_out.if");
    size_t g_at = text.find("begin_func", text.find("begin_func") + 1);
    ASSERT_NE(g_at, std::string::npos) << text;
    auto stores = [&](size_t from, size_t to) {
        size_t n = 0;
        for (size_t at = text.find("node b:58 ", from); at < to; at = text.find("node b:58 ", at + 1)) ++n;
        return n;
    };
    EXPECT_EQ(stores(0, g_at), 2u) << text;              // f keeps both stores
    EXPECT_EQ(stores(g_at, std::string::npos), 1u) << text;  // g loses the dead one

    // A set of kind 0 is every function's: g, without a set of its own, is
    // not optimized; f's own set applies on top of it, without a word about
    // the level it overrides.
    std::string sets = "option_set n:0 n:2 S:\"--opt_level=0\" S:\"--volatile_all\"\n"
                       "option_set n:1 n:1 S:\"--opt_level=2\"\n";
    std::string layered = unit;
    layered.replace(layered.find("option_set"), layered.find(".end", layered.find("option_set")) - layered.find("option_set"),
                    sets);
    ASSERT_EQ(assemble(layered, dir / "layered.if"), "");
    r = opt5({"-o2", "layered.if", "layered_out.if"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.find("overrides"), std::string::npos) << r.err;
    text = disassemble(dir / "layered_out.if");
    g_at = text.find("begin_func", text.find("begin_func") + 1);
    EXPECT_EQ(stores(0, g_at), 2u) << text;                  // f: volatile from the file's set, at level 2
    EXPECT_EQ(stores(g_at, std::string::npos), 2u) << text;  // g: level 0
    sets = "option_set n:0 n:1 S:\"--opt_level=0\"\noption_set n:1 n:1 S:\"--opt_level=2\"\n";
    layered = unit;
    layered.replace(layered.find("option_set"), layered.find(".end", layered.find("option_set")) - layered.find("option_set"),
                    sets);
    ASSERT_EQ(assemble(layered, dir / "layered2.if"), "");
    ASSERT_EQ(opt5({"-o2", "layered2.if", "layered2_out.if"}).status, 0);
    text = disassemble(dir / "layered2_out.if");
    g_at = text.find("begin_func", text.find("begin_func") + 1);
    EXPECT_EQ(stores(0, g_at), 1u) << text;                  // f: level 2
    EXPECT_EQ(stores(g_at, std::string::npos), 2u) << text;  // g: level 0
}

// Label numbers up to 2^30 - 1 are read (and new labels made above them);
// larger ones are invalid records.
TEST_F(EndToEnd, LabelNumbersThatCouldOverflowAreRefused) {
    auto unit = [](const std::string& label) {
        return ".header version=-71 cpu=0x258 source=\"t.c\" extra=0\n.section main\nbegin_func P:1:1:1 n:0\n"
               "symbol S:\"a\" n:16 n:0 c:0 w:0 n:1 n:0 n:16 c:0 n:0 n:0 P:0 b:0\nend_args P:0\nend_locals P:0\n"
               "stmt P:1:2:1\nnode b:109 n:1\nnode b:2 n:1 R:1:0\nnode b:1 n:0 n:" + label + "\n"
               "stmt P:1:3:1\nnode b:118 n:1\nnode b:4 n:1 i:1\nlabel n:" + label + "\n"
               "stmt P:1:4:1\nnode b:118 n:1\nnode b:4 n:1 i:2\nend_func P:0\n.end\n.section types\n"
               "type n:1 b:8 b:1 n:16 n:16 b:0 b:0\ntype n:2 b:22 n:1 b:1 b:0 b:0 b:0\n.end\n.section files\n"
               "source S:\"t.c\"\n.end\n.section globals\n"
               "symbol S:\"f\" n:0 n:0 c:0 w:0 n:2 n:0 n:16 c:0 n:0 n:0 P:1:1:1 b:0\n.end\n";
    };
    ASSERT_EQ(assemble(unit("1073741823"), dir / "big.if"), "");
    Result r = opt5({"-o4", "big.if", "big_out.if"});
    EXPECT_EQ(r.status, 0) << r.err;
    for (const char* label : {"1073741824", "2147483647", "4294967295"}) {
        ASSERT_EQ(assemble(unit(label), dir / "huge.if"), "");
        r = opt5({"-o4", "huge.if", "huge_out.if"});
        EXPECT_EQ(r.status, 1) << label;
        EXPECT_EQ(r.err, "\nINTERNAL ERROR: Invalid I-code record, aborting") << label;
        EXPECT_FALSE(has("huge_out.if"));
    }
}

// Trees as deep as the reader accepts go through every level; deeper ones
// are refused with a message, and a stack overflow would still end with
// status 2 and no output.
TEST_F(EndToEnd, DeepTreesAreOptimizedOrRefused) {
    auto unit = [](size_t depth) {
        std::string s = ".header version=-71 cpu=0x258 source=\"t.c\" extra=0\n.section main\nbegin_func P:1:1:1 n:0\n"
                        "symbol S:\"a\" n:16 n:0 c:0 w:0 n:1 n:0 n:16 c:0 n:0 n:0 P:0 b:0\nend_args P:0\nend_locals P:0\n"
                        "stmt P:1:2:1\nnode b:118 n:1\n";
        s.reserve(depth * 40);
        for (size_t i = 1; i < depth; ++i) s += "node b:6 n:1\nnode b:4 n:1 i:1\n";
        s += "node b:2 n:1 R:1:0\nend_func P:0\n.end\n.section types\ntype n:1 b:8 b:1 n:16 n:16 b:0 b:0\n"
             "type n:2 b:22 n:1 b:1 b:0 b:0 b:0\n.end\n.section files\nsource S:\"t.c\"\n.end\n.section globals\n"
             "symbol S:\"f\" n:0 n:0 c:0 w:0 n:2 n:0 n:16 c:0 n:0 n:0 P:1:1:1 b:0\n.end\n";
        return s;
    };
    ASSERT_EQ(assemble(unit(100000), dir / "deep.if"), "");
    for (const char* level : {"-o0", "-o2", "-o4"}) {
        Result r = opt5({level, "deep.if", "deep_out.if"});
        EXPECT_EQ(r.status, 0) << level << r.err;
    }
    ASSERT_EQ(assemble(unit(100001), dir / "deeper.if"), "");
    Result r = opt5({"deeper.if", "deeper_out.if"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\nINTERNAL ERROR: Expression nested deeper than 100000 levels, aborting");
    EXPECT_FALSE(has("deeper_out.if"));
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
    // The handler has a stack of its own: an overflow of the machine stack
    // ends the same way.
    r = harness({"in.if", "out.if"}, {{"HARNESS_FUNCS", "f"}, {"HARNESS_FAULT", "overflow"}});
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find(" experienced a segmentation fault\n"), std::string::npos) << r.err;
    EXPECT_FALSE(has("out.if"));
}

TEST_F(EndToEnd, DebugAbortDumpsCoreInsteadOfExiting) {
    Result r = harness({"--debug=abort", "in.if", "out.if"}, {{"HARNESS_FUNCS", "f"}, {"HARNESS_FAULT", "assert"}});
    EXPECT_FALSE(r.exited);
    EXPECT_EQ(r.status, SIGABRT);
    EXPECT_NE(r.err.find(">>>> Optimizer terminated abnormally\n"), std::string::npos);
    EXPECT_FALSE(has("out.if"));
}

}  // namespace
