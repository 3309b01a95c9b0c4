#include "UTIL/support.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

const char* tool_name() { return "C/C++ Optimizer"; }
const char* isa_and_tool_name() { return "Pellin C/C++ Optimizer"; }

void write_to_stderr(const char* text) {
    if (!text) return;
    size_t n = std::strlen(text);
    while (n > 0) {
        ssize_t k = write(2, text, n);
        if (k <= 0) return;
        text += k;
        n -= static_cast<size_t>(k);
    }
}

void print_support_message(const char* tool) {
    if (!tool) tool = tool_name();
    std::fflush(stderr);
    write_to_stderr("\nThis is a defect in the ");
    write_to_stderr(tool);
    write_to_stderr(", not in the program being compiled.\n"
        "A newer release of the tool chain may already correct it; upgrading is\n"
        "the first thing to try.  Otherwise, please report it to the Pellin tool\n"
        "chain support desk named in the release notes.  The report needs the\n"
        "entire error message above and a test case that reproduces the failure,\n"
        "together with all of the command-line options that were used.\n");
    if (!std::strcmp(tool, "C/C++ Parser") || !std::strcmp(tool, "C/C++ Optimizer") ||
        !std::strcmp(tool, "C/C++ Codegen"))
        write_to_stderr("Include the .pp file created by option --preproc_with_comment\n\n");
    else if (!std::strcmp(tool, "Linker"))
        write_to_stderr("Include all of the object files, libraries, and linker command files\n"
            "used to link the program.\n\n");
    else
        write_to_stderr("\n");
}

void dump_stack(FILE* out) {
    char cmd[128];
    std::snprintf(cmd, sizeof cmd, "/usr/bin/gdb --batch --pid %ld -ex where 2>&1", static_cast<long>(getpid()));
    std::fflush(out);
    FILE* p = popen(cmd, "r");
    if (!p) return;
    char line[512];
    while (std::fgets(line, sizeof line, p)) std::fputs(line, out);
    pclose(p);
    std::fflush(out);
}
