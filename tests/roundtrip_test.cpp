// Whole units through the optimizer with no optimization (level 0): written
// as text, assembled, optimized, disassembled and compared.
#include <gtest/gtest.h>

#include <signal.h>

#include <string>

#include "test_util.h"

namespace {

class RoundTrip : public ::testing::Test {
protected:
    // Assembles the text, runs the optimizer on it and returns the output as
    // text ("" when the run failed; see last).
    std::string optimize(const std::string& text, std::vector<std::string> options = {}) {
        EXPECT_EQ(assemble(text, dir.path / "in.if"), "");
        options.insert(options.begin(), "-o0");
        options.push_back("in.if");
        options.push_back("out.if");
        last = run_program(OPT5_BINARY, options, dir.path);
        if (!last.exited || last.status != 0) return "";
        return disassemble(dir.path / "out.if");
    }
    std::string data(const char* name) { return slurp(fs::path(OPT5_SOURCE_DIR) / "tests/data" / name); }
    TempDir dir;
    Result last;
};

// The main section of a disassembled unit.
std::string main_section(const std::string& text) {
    size_t from = text.find(".section main\n");
    size_t to = text.find(".end\n", from);
    if (from == std::string::npos || to == std::string::npos) return "<no main section>";
    from += 14;
    return text.substr(from, to - from);
}

TEST_F(RoundTrip, WrittenFormComesBackUnchanged) {
    for (const char* name : {"add.txt", "rich.txt"}) {
        std::string text = data(name);
        std::string out = optimize(text);
        EXPECT_EQ(last.status, 0) << name << ": " << last.err;
        EXPECT_EQ(out, normalize_text(text)) << name;

        // The tools reproduce the written file byte for byte, and a second
        // optimization changes nothing.
        std::string written = slurp(dir.path / "out.if");
        EXPECT_EQ(assemble(disassemble(dir.path / "out.if"), dir.path / "again.if"), "");
        EXPECT_EQ(slurp(dir.path / "again.if"), written) << name;
        Result second = run_program(OPT5_BINARY, {"-o0", "out.if", "out2.if"}, dir.path);
        EXPECT_EQ(second.status, 0);
        EXPECT_EQ(slurp(dir.path / "out2.if"), written) << name;
    }
}

// A unit with one function f (global 0) around the given main-stream
// records.  Types: 1 int, 2 float, 3 int f(void); they are referenced in
// that order, so the writer keeps their numbers.
std::string unit(const std::string& body, int version = -71) {
    std::string retention = version >= -71 ? " b:0" : "";
    return ".header version=" + std::to_string(version) + " cpu=0x258 source=\"u.c\" extra=0\n" +
           ".section main\nbegin_func P:1:1:1 n:0\nend_args P:0\nend_locals P:0\n" + body +
           "end_func P:0\n.end\n.section types\n"
           "type n:1 b:8 b:1 n:16 n:16 b:0 b:0\n"
           "type n:2 b:12 n:32 n:32\n"
           "type n:3 b:22 n:1 b:1 b:0 b:0 b:0\n"
           "type n:4 b:52 b:1 n:64 n:64 b:0 b:0\n.end\n"
           ".section files\nsource S:\"u.c\"\n.end\n"
           ".section globals\nsymbol S:\"f\" n:0 n:0 c:0 w:0 n:3 n:0 n:16 c:0 n:0 n:0 P:1:1:1" +
           retention + "\n.end\n";
}

const std::string leaf_prologue = "begin_func P:1:1:1 n:0\nend_args P:0\nend_locals P:0\nfunc_info c:76\n";

TEST_F(RoundTrip, WhatReadingNormalizes) {
    struct Case {
        const char* what;
        std::string body;      // records of f's body
        std::string expected;  // f's body in the output, after the prologue
    } cases[] = {
        {"LCON becomes an ICON truncated to its type",
         "stmt P:0\nnode b:25 n:1 S:\"65538\"\n", "stmt P:0\nnode b:4 n:1 i:2\n"},
        {"a constant wider than 32 bits is written as LCON text",
         "symbol S:\"w\" n:64 n:0 c:0 w:0 n:4 n:0 n:64 c:0 n:0 n:0 P:0 b:0\n"
         "stmt P:0\nnode b:58 n:4\nnode b:2 n:4 R:1:0\nnode b:25 n:4 S:\"-4294967296\"\n",
         // (the 64-bit type is the first one referenced, so it becomes type 1)
         "symbol S:\"w\" n:64 n:0 c:0 w:0 n:1 n:0 n:64 c:0 n:0 n:0 P:0 b:0\n"
         "stmt P:0\nnode b:58 n:1\nnode b:2 n:1 R:1:0\nnode b:25 n:1 S:\"-4294967296\"\n"},
        {"a branch to the label right after it is dropped; the label stays",
         "stmt P:0\nnode b:114 n:0\nnode b:1 n:0 n:7\nlabel n:7\nstmt P:0\nnode b:114 n:0\nnode b:1 n:0 n:7\n",
         "loop_header n:1 s:-1 s:0 b:224\nlabel n:1\nstmt P:0\nnode b:114 n:0\nnode b:1 n:0 n:1\n"},
        {"branches elsewhere stay (the jump back to L7 makes a loop, marked for the code generator); labels "
         "are numbered 1, 2, ... in the order of their blocks",
         "stmt P:0\nnode b:114 n:0\nnode b:1 n:0 n:8\nlabel n:7\nstmt P:0\nnode b:114 n:0\nnode b:1 n:0 n:7\n"
         "label n:8\n",
         "stmt P:0\nnode b:114 n:0\nnode b:1 n:0 n:2\nloop_header n:1 s:-1 s:0 b:224\nlabel n:1\nstmt P:0\n"
         "node b:114 n:0\nnode b:1 n:0 n:1\nlabel n:2\n"},
        {"a label that no jump names is not written", "label n:9\nstmt P:0\nnode b:4 n:1 i:1\n",
         "stmt P:0\nnode b:4 n:1 i:1\n"},
        {"scope records come before the statements",
         "stmt P:0\nnode b:4 n:1 i:1\nbegin_block P:0\nstmt P:0\nnode b:4 n:1 i:2\nend_block P:0\n",
         "begin_block P:0\nend_block P:0\nstmt P:0\nnode b:4 n:1 i:1\nstmt P:0\nnode b:4 n:1 i:2\n"},
        {"comments starting with '*' are dropped",
         "comment S:\"*banner\"\ncomment S:\"kept\"\n", "comment S:\"kept\"\n"},
        {"integer comparisons of floats become floating comparisons",
         "stmt P:0\nnode b:81 n:1\nnode b:5 n:2 S:\"1.5\"\nnode b:5 n:2 S:\"2\"\n",
         "stmt P:0\nnode b:150 n:1\nnode b:5 n:2 S:\"1.5\"\nnode b:5 n:2 S:\"2\"\n"},
        {"loop, dependence, memory-bank, load-speculation and function-information records are dropped",
         "loop n:1 n:2 n:3 n:4 n:5 h:0\ndd_edge n:1 n:2 n:3\ndd_vector n:2 s:1 s:-1\nmbank n:1 n:1 n:1 n:1 n:1\n"
         "loop_header n:1 s:-1 s:0 b:0\nldspec x:00\nfunc_info c:1\n",
         ""},
        {"a pragma of kind 57 is never written",
         "pragma n:57 n:0\npragma n:3 n:1 S:\"x\"\n", "pragma n:3 n:1 S:\"x\"\n"},
    };
    for (const Case& c : cases) {
        std::string out = optimize(unit(c.body));
        EXPECT_EQ(main_section(out), leaf_prologue + c.expected + "end_func P:0\n") << c.what << "\n" << last.err;
    }
}

// A handler is entered by no jump: its block stays and its label is
// written.  An entry whose label the function does not have goes, unless it
// ends a cleanup or a kept entry is inside it; the kept ones are numbered
// 1, 2, ... with their parents.  The labels are numbered 1, 2, ... like
// every function's, a cleanup end's that no block has after them.
TEST_F(RoundTrip, ExceptionTablesKeepTheirHandlersAndAreNumberedDensely) {
    const std::string body =
        "stmt P:0\nnode b:118 n:1\nnode b:4 n:1 i:0\nlabel n:5\nstmt P:0\nnode b:118 n:1\nnode b:4 n:1 i:1\n"
        "label n:6\nstmt P:0\nnode b:118 n:1\nnode b:4 n:1 i:2\n"
        "eht n:6 b:0 n:4 n:0 n:5 n:0 b:1 n:7 n:4 n:5 n:0 b:1 n:9 n:0 n:99 n:0 b:3 n:12 n:0 n:98 n:0 "
        "b:2 n:15 n:0 n:6 n:0 b:0 n:20 n:0 n:97 n:0\n";
    const std::string expected =
        "stmt P:0\nnode b:118 n:1\nnode b:4 n:1 i:0\nlabel n:1\n"
        "stmt P:0\nnode b:118 n:1\nnode b:4 n:1 i:1\nlabel n:2\n"
        "stmt P:0\nnode b:118 n:1\nnode b:4 n:1 i:2\n"
        "eht n:4 b:0 n:1 n:0 n:1 n:0 b:1 n:2 n:1 n:1 n:0 b:3 n:3 n:0 n:3 n:0 b:2 n:4 n:0 n:2 n:0\n";
    for (const char* level : {"-o0", "-o2"}) {
        std::string out = optimize(unit(body), {level});
        EXPECT_EQ(main_section(out), leaf_prologue + expected + "end_func P:0\n") << level << "\n" << last.err;
    }
}

TEST_F(RoundTrip, InterlistingCommentsStatementsButNotArgumentPrologues) {
    std::string body =
        "stmt P:0\nnode b:58 n:1\nnode b:4 n:1 i:1\nnode b:6 n:1\nnode b:4 n:1 i:2\nnode b:4 n:1 i:3\n"
        "stmt P:0\nnode b:57 n:1\nnode b:4 n:1 i:4\nnode b:4 n:1 i:5\n";
    std::string out = optimize(unit(body), {"--interlist"});
    EXPECT_EQ(main_section(out), leaf_prologue +
                                     "comment S:\"(1 = (2 + 3))\"\n"
                                     "stmt P:0\nnode b:58 n:1\nnode b:4 n:1 i:1\nnode b:6 n:1\nnode b:4 n:1 i:2\n"
                                     "node b:4 n:1 i:3\n"
                                     "stmt P:0\nnode b:57 n:1\nnode b:4 n:1 i:4\nnode b:4 n:1 i:5\n"
                                     "end_func P:0\n")
        << last.err;
}

TEST_F(RoundTrip, OldVersionsAndWideningAndGlobalsInTheMainStream) {
    // A -72 file has no retention byte; the output is always -71 and has one.
    std::string text = unit("", -72);
    text.replace(text.find(".section main\n") + 14, 0,
                 "symbol S:\"g\" n:22 n:0 c:0 w:0 n:1 n:0 n:16 c:0 n:0 n:0 P:0\n");
    std::string out = optimize(text);
    ASSERT_EQ(last.status, 0) << last.err;
    EXPECT_EQ(out.rfind(".header version=-71 ", 0), 0u) << out;
    // The global declared in the main stream joins the global section after
    // those read from it, widened to 32 bits; types nobody refers to (the
    // float) are not written, and the others are numbered in the order of
    // their first reference.
    EXPECT_NE(out.find(".section types\n"
                       "type n:1 b:22 n:2 b:1 b:0 b:0 b:0\n"
                       "type n:2 b:8 b:1 n:16 n:16 b:0 b:0\n.end\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find(".section globals\n"
                       "symbol S:\"f\" n:0 n:0 c:0 w:0 n:1 n:0 n:16 c:0 n:0 n:0 P:1:1:1 b:0\n"
                       "symbol S:\"g\" n:32 n:0 c:0 w:0 n:2 n:0 n:32 c:0 n:0 n:0 P:0 b:0\n"),
              std::string::npos)
        << out;
}

// The reader sees the file through a window of a megabyte: records that
// straddle its edge, and one larger than the window, come through whole.
TEST_F(RoundTrip, RecordsAcrossAndBeyondTheReadingWindow) {
    std::string body;
    for (int i = 0; i < 40000; ++i)  // about 1.3 MB of statements first
        body += "stmt P:1:" + std::to_string(i + 2) + ":1\nnode b:118 n:1\nnode b:4 n:1 i:" +
                std::to_string(i % 1000) + "\n";
    std::string big(1500000, 'x');
    for (size_t i = 0; i < big.size(); i += 97) big[i] = static_cast<char>('a' + i % 26);
    body += "asm S:\"" + big + "\" P:1:2:1\n";
    std::string text = unit(body);
    std::string out = optimize(text);
    ASSERT_EQ(last.status, 0) << last.err;
    // The same records, f now marked a leaf function (no diff printed: it
    // would be megabytes).
    std::string expected = main_section(normalize_text(text));
    expected.replace(0, leaf_prologue.size() - 15, leaf_prologue);
    EXPECT_TRUE(main_section(out) == expected);
}

TEST_F(RoundTrip, UnitWithoutFunctionsOrGlobals) {
    std::string out = optimize(".header version=-71 cpu=0x258 source=\"e.c\" extra=0\n.section main\n.end\n");
    EXPECT_EQ(out, ".header version=-71 cpu=0x258 source=\"e.c\" extra=0\n.section main\n.end\n"
                   ".section globals\n.end\n");
}

TEST_F(RoundTrip, BadFilesEndWithStatusOne) {
    spit(dir.path / "in.if", "not an I-file at all");
    Result r = run_program(OPT5_BINARY, {"in.if", "out.if"}, dir.path);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "\nINTERNAL ERROR: in.if is not an I-file of this tool chain, aborting\n");
    EXPECT_FALSE(fs::exists(dir.path / "out.if"));

    std::string out = optimize(unit("stmt P:0\ncomment S:\"x\"\n"));
    EXPECT_EQ(last.status, 1);
    EXPECT_EQ(last.err, "\nINTERNAL ERROR: Invalid I-code record, aborting");
    EXPECT_FALSE(fs::exists(dir.path / "out.if"));
}

// Every truncation and many single-byte changes of a real unit: the
// optimizer either copes or ends with status 1 and an error line, and never
// leaves an output behind then.
TEST_F(RoundTrip, DamagedFilesNeverCrash) {
    ASSERT_EQ(assemble(data("rich.txt"), dir.path / "good.if"), "");
    std::string good = slurp(dir.path / "good.if");
    std::vector<std::string> damaged;
    for (size_t n = 0; n < good.size(); n += 3) damaged.push_back(good.substr(0, n));
    for (size_t i = 1; i < good.size(); i += 2) {
        std::string bad = good;
        bad[i] = static_cast<char>(bad[i] ^ (i % 5 == 0 ? 0x80 : 0x3C));
        damaged.push_back(bad);
    }
    int failures = 0;
    for (const std::string& bytes : damaged) {
        spit(dir.path / "in.if", bytes);
        fs::remove(dir.path / "out.if");
        Result r = run_program(OPT5_BINARY, {"in.if", "out.if"}, dir.path);
        ASSERT_TRUE(r.exited) << "signal " << r.status << " at a damaged file of " << bytes.size() << " bytes";
        ASSERT_TRUE(r.status == 0 || r.status == 1) << r.status;
        if (r.status == 1) {
            ++failures;
            // A format error, or a diagnostic for a damaged option set.
            EXPECT_TRUE(r.err.find("INTERNAL ERROR: ") != std::string::npos ||
                        r.err.find("fatal error: ") != std::string::npos || r.err.rfind("error: ", 0) == 0)
                << r.err;
            EXPECT_FALSE(fs::exists(dir.path / "out.if"));
        }
    }
    EXPECT_GT(failures, static_cast<int>(damaged.size() / 2));
}

TEST_F(RoundTrip, ToolsOnTheCommandLine) {
    spit(dir.path / "add.txt", data("add.txt"));
    Result as = run_program(OPT5_IFAS, {"add.txt", "add.if"}, dir.path);
    EXPECT_EQ(as.status, 0) << as.err;
    Result dis = run_program(OPT5_IFDIS, {"add.if"}, dir.path);
    EXPECT_EQ(dis.status, 0);
    EXPECT_NE(dis.out.find("node b:6 n:1  # PLUS\n"), std::string::npos) << dis.out;

    spit(dir.path / "bad.txt", ".header version=-71 cpu=0x258 source=\"b.c\" extra=0\n.section main\nfrob n:1\n");
    Result bad = run_program(OPT5_IFAS, {"bad.txt", "bad.if"}, dir.path);
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.err, "ifas: line 3: unknown record frob\n");
    EXPECT_FALSE(fs::exists(dir.path / "bad.if"));
    Result usage = run_program(OPT5_IFDIS, {}, dir.path);
    EXPECT_EQ(usage.status, 2);
}

}  // namespace
