// The dump_ switches: the function's blocks in the debug listing before and
// after each step.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>

#include "minic.h"
#include "test_util.h"

namespace {

using minic::MiniFunction;

class Dumps : public ::testing::Test {
protected:
    // The debug listing of an -o2 run with the dump switches `dumps`.
    std::string listing(const std::string& dumps) {
        MiniFunction f{"f", {"a", "b"}, {"s", "i"}};
        f.body = {"(= s 0)", "(= i 0)", "L1:", "(if (>= i 10) 2)", "(if (> i 20) 3)", "(+= s i)", "(+= i 1)",
                  "(goto 1)", "L2:", "(ret (+ s a))", "L3:", "(ret -1)"};
        EXPECT_EQ(assemble(f.text(), dir.path / "in.if"), "");
        std::vector<std::string> args = {"-o2", "--debug_file=dbg.txt"};
        if (!dumps.empty()) args.push_back("--debug=" + dumps);
        args.push_back("in.if");
        args.push_back("out.if");
        Result r = run_program(OPT5_BINARY, args, dir.path);
        EXPECT_TRUE(r.exited && r.status == 0) << r.err;
        return slurp(dir.path / "dbg.txt");
    }
    // The dump that follows `header`, up to the next one.
    static std::string dump(const std::string& text, const std::string& header) {
        size_t at = text.find(header);
        if (at == std::string::npos) return "";
        at = text.find('\n', at) + 1;
        return text.substr(at, text.find("\n====", at) - at);
    }
    TempDir dir;
};

TEST_F(Dumps, EachStepShowsWhatItChanged) {
    // The test i > 20 is there before value propagation and gone after it
    // (with "CPS" skipped, which jumps over it where i < 10 was tested).
    std::string text = listing("dump_infix,dump_minimal,skip_pass=13");
    std::string before = dump(text, "==== f() before step 0 'pass 1 fcp/eda'");
    std::string after = dump(text, "==== f() after step 17 'intraprocedural MVP'");
    EXPECT_NE(before.find("CBRANCH((i > 20), L3)"), std::string::npos) << text;
    ASSERT_FALSE(after.empty()) << text;
    EXPECT_EQ(after.find("20"), std::string::npos) << after;
    // A step that changes nothing says so instead of printing the function.
    EXPECT_NE(text.find("==== f() unchanged by step 2 'value propagation for pass 1' ===="), std::string::npos);
    EXPECT_EQ(text.find("after step 2 "), std::string::npos);
    // Without dump_minimal every step prints both dumps, with block headers.
    std::string full = listing("dump_infix");
    EXPECT_NE(dump(full, "==== f() after step 2 'value propagation for pass 1'").find("  BB 1 (L"), std::string::npos);
    EXPECT_EQ(full.find("unchanged by step"), std::string::npos);
    // No dump switch, no dump.
    EXPECT_EQ(listing("").find("==== f() before step"), std::string::npos);
}

TEST_F(Dumps, SwitchesAddPositionsSerialsScopeTreesAndTypes) {
    std::string d = dump(listing("dump_psn,dump_serial,dump_scope,dump_trees,dump_infix_types"),
                         "==== f() before step 0 'pass 1 fcp/eda'");
    std::istringstream in(d);
    std::string line;
    std::vector<std::string> lines;
    while (std::getline(in, line)) lines.push_back(line);
    ASSERT_GE(lines.size(), 4u) << d;
    EXPECT_EQ(lines[0], "  argument int a");
    EXPECT_EQ(lines[1], "  argument int b");
    EXPECT_EQ(lines[2], "  local    int s");
    // Statements: "#serial file:line:col infix", the serial counting from 0
    // in each block, the line rising; the tree below, one node a line.
    std::regex statement(R"(    #(\d+) t\.c:(\d+):1 (.*))");
    int statements = 0, last_line = 0, expected_serial = 0;
    for (size_t k = 0; k < lines.size(); ++k) {
        std::smatch m;
        if (lines[k].rfind("  BB ", 0) == 0) expected_serial = 0;
        if (!std::regex_match(lines[k], m, statement)) continue;
        ++statements;
        EXPECT_EQ(std::stoi(m[1]), expected_serial++) << lines[k];
        EXPECT_GT(std::stoi(m[2]), last_line) << lines[k];
        last_line = std::stoi(m[2]);
        ASSERT_LT(k + 1, lines.size());
        EXPECT_EQ(lines[k + 1].rfind("      ", 0), 0u) << lines[k + 1];  // the tree's root
    }
    EXPECT_EQ(statements, 9) << d;
    EXPECT_NE(d.find("(s{int} = 0{int})"), std::string::npos) << d;
    EXPECT_NE(d.find("      ASG : int\n        NAME : int  s\n        ICON : int  0\n"), std::string::npos) << d;
}

// A debug run ends with what the shared file names and the type registry
// hold: the unit's one source file, its types, and how often a type asked
// for was already registered.
TEST_F(Dumps, TheListingEndsWithWhatTheRegistriesHold) {
    std::string text = listing("");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(text, m,
                                  std::regex(R"(Interned file names: (\d+) \((\d+) bytes\), asked for (\d+) times
Type cache: (\d+) types; (\d+) structural types asked for, (\d+) already there
)")))
        << text.substr(text.size() > 400 ? text.size() - 400 : 0);
    EXPECT_EQ(m[1], "1");
    EXPECT_EQ(m[2], "4");  // "t.c" and its end
    EXPECT_GE(std::stoul(m[3]), 1u);
    EXPECT_GT(std::stoul(m[4]), 1u);
    EXPECT_GT(std::stoul(m[6]), 0u);
    EXPECT_GE(std::stoul(m[5]), std::stoul(m[6]));
}

}  // namespace
