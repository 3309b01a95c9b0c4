// C programs for the tests: ifcc translates them into I-files.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "test_util.h"
#include "tools/ifcc/ifcc.h"
#include "tools/ifrun/ifrun.h"

// Writes the program to dir/p.c and translates it into the unit `out`:
// empty on success, else ifcc's diagnostics or the assembler's complaint.
inline std::string compile_c(const std::string& c, const fs::path& dir, const fs::path& out) {
    fs::path src = dir / "p.c";
    spit(src, c);
    IFCC_OPTIONS o;
    o.input = src.string();
    o.include_dir = std::string(OPT5_SOURCE_DIR) + "/tools/ifcc/include";
    std::string text, diagnostics;
    if (!ifcc_translate(o, text, diagnostics)) return diagnostics.empty() ? "failed" : diagnostics;
    return assemble(text, out);
}

// A C program compiled once, then optimized with options and run.
class CProgramTest : public ::testing::Test {
protected:
    TempDir dir;

    void compile(const std::string& c) { ASSERT_EQ(compile_c(c, dir.path, dir.path / "p.if"), ""); }
    // The run of the unit optimized with these options (none: the unit as
    // compiled).
    IFRUN_RESULT run(const std::vector<std::string>& options) {
        std::string unit = "p.if";
        std::string what;
        if (!options.empty()) {
            unit = "p" + std::to_string(++optimized_) + ".if";
            std::vector<std::string> args = options;
            args.push_back("p.if");
            args.push_back(unit);
            for (const std::string& o : options) what += o + " ";
            Result o = run_program(OPT5_BINARY, args, dir.path);
            EXPECT_EQ(o.status, 0) << what << o.err;
        }
        std::string error;
        std::unique_ptr<IFRUN_UNIT> u = IFRUN_UNIT::load((dir.path / unit).string(), error);
        EXPECT_TRUE(u) << what << error;
        if (!u) return {};
        IFRUN_RESULT r = u->run(IFRUN_OPTIONS{});
        EXPECT_TRUE(r.ok) << what << r.error;
        return r;
    }
    IFRUN_RESULT run(const std::string& level) {
        return level.empty() ? run(std::vector<std::string>{}) : run(std::vector<std::string>{level});
    }
    // The unit as compiled, run; every level's run prints and returns the
    // same.  Returns the unoptimized run.
    IFRUN_RESULT expect_same_at_every_level() {
        IFRUN_RESULT reference = run("");
        EXPECT_TRUE(reference.ok);
        for (const char* level : {"-o0", "-o1", "-o2", "-o3"}) {
            IFRUN_RESULT r = run(level);
            EXPECT_EQ(r.output, reference.output) << level;
            EXPECT_EQ(r.value, reference.value) << level;
        }
        return reference;
    }
    // The unit at -o2 with the step of this serial skipped, which still
    // prints what the reference printed: what the step saves is measured
    // against it.
    IFRUN_RESULT run_without_step(int serial, const IFRUN_RESULT& reference) {
        IFRUN_RESULT r = run(std::vector<std::string>{"-o2", "--debug=skip_pass=" + std::to_string(serial)});
        EXPECT_EQ(r.output, reference.output) << "without step " << serial;
        return r;
    }
    static uint64_t ops(const IFRUN_RESULT& r, const char* opcode) {
        auto it = r.per_opcode.find(opcode);
        return it == r.per_opcode.end() ? 0 : it->second;
    }

    // Gives the compiled function `fn` an option set of its own (one option).
    void give_function_option(const std::string& fn, const std::string& option) {
        std::string text = disassemble(dir.path / "p.if");
        size_t globals = text.find(".section globals\n");
        size_t symbol = text.find("symbol S:\"" + fn + "\"", globals);
        ASSERT_NE(symbol, std::string::npos) << fn;
        int index = 0;  // its global symbol's index
        for (size_t at = text.find("symbol S:", globals); at < symbol; at = text.find("symbol S:", at + 1)) ++index;
        ASSERT_EQ(text.find(".section options"), std::string::npos);
        text.insert(text.find(".section types"), ".section options\noption_set n:" + std::to_string(index + 1) +
                                                     " n:1 S:\"" + option + "\"\n.end\n");
        ASSERT_EQ(assemble(text, dir.path / "p.if"), "");
    }

    // The unit the last optimizing run wrote.
    fs::path last_optimized() const { return dir.path / ("p" + std::to_string(optimized_) + ".if"); }

private:
    int optimized_ = 0;
};
