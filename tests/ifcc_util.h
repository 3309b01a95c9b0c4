// C programs for the tests: ifcc translates them into I-files.
#pragma once

#include <string>

#include "test_util.h"
#include "tools/ifcc/ifcc.h"

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
