// Tool identity and the text printed after an internal failure.
#pragma once

#include <cstdio>

const char* tool_name();           // "C/C++ Optimizer"
const char* isa_and_tool_name();   // the tool's name with its target family
// The paragraph asking the user to report an internal failure, written to
// the standard error stream for the named tool (tool_name() by default),
// with write_to_stderr.
void print_support_message(const char* tool = nullptr);
// Writes the text to the standard error stream with write(2) alone, as a
// signal handler may.
void write_to_stderr(const char* text);
// Appends a stack trace of this process (taken with gdb) to the stream.
void dump_stack(FILE* out);
