// The command line: parsing into the file-level option set, opening and
// closing the files, and the global flags that the options set.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "OPT5/optobj.h"

// Global flags set from the current option set (defaults restored by
// reset_global_flags()).
extern int alias_vars_option, inline_single, cache_sys_funinfo, code_is_reentrant, dump_ocg_in_GDL;
extern int dwim_aliases, dwim_loops, far_externs, kr_flag, memory_is_big_endian, memory_model;
extern int mini_mult, apply_symbolic_methods, pass_args_in_regs, program_mode, source_interlist;
extern int unsigned_index_wraps, unsigned_ok_for_RPTB, volit_vars, max_unrolled_loop_size;
extern int old_const_pointer_behavior, chars_alias_other_types, pointer_args_are_disjoint;
extern int loop_increments_are_not_zero, strict_fp, use_g2;
extern unsigned char aux_cmd_flag[10];
extern int ip_level;            // the -i setting
extern int processor_version;   // the silicon version; 28 is the Pellin family

inline constexpr int PELLIN_PROCESSOR_VERSION = 28;

extern option_obj file_options;               // the command line's set
extern std::vector<option_obj> all_option_sets;  // per-function sets from the I-file

extern FILE* input_file;
extern FILE* output_file;
extern std::string output_file_name;  // the input and listing names are in globals.h

// Parses the command line into file_options, sets the global flags and opens
// the input, output, information and debug files.  Errors end the run.
void open_files(int argc, char** argv);
// The next command-line argument not yet consumed, or null.
const char* next_arg();

void set_global_flags(option_obj* options);
void reset_global_flags();
// Sets the flags back from the file's set at the end of a function.
void restore_global_flags();
void init_fileopts();

// The set in force: the current function's own set, else the file's.
const option_obj& current_options();
int opt_level();
int size_speed_goal();

// Makes a new file (written anew, or appended to) the debug stream; returns
// the stream it replaces.  A file that can't be opened ends the run.
FILE* open_debug_file(const char* name, bool append = false);
void emit_cmd_line_text(FILE* out);
void close_files();
// Closes the I-files unfinished and removes the output file (abnormal end).
void discard_output();
