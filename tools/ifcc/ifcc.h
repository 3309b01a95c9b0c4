// ifcc: a C front end that writes I-files for the optimizer.
//
// Clang parses and checks the program; ifcc walks Clang's syntax tree and
// writes the unit with the data model of the Pellin DSP: 16-bit char, short
// and int, 32-bit long and pointers, 64-bit long long, every object a whole
// number of 16-bit units.  Structs and unions are laid out by ifcc and their
// members reached through address arithmetic; `switch` becomes a chain of
// tests; loops become labels and branches.  A construct it cannot translate
// is reported with its file, line and column, and nothing is written.
#pragma once

#include <string>
#include <vector>

struct IFCC_OPTIONS {
    std::string input;                 // the C file
    std::vector<std::string> clang_args;  // -I, -D and -U given by the user
    std::string include_dir;           // ifcc's own headers
};

// Translates the input into the record text of the I-file (as ifdis writes
// it).  On failure returns false and `diagnostics` holds the messages.
bool ifcc_translate(const IFCC_OPTIONS& options, std::string& text, std::string& diagnostics);
