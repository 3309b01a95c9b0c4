// The driver: start-up, the per-function step tables, the function loop
// with its barriers and workers, and the end of the run.
#pragma once

#include <cstdio>
#include <ctime>
#include <deque>
#include <map>
#include <vector>

class pass;
struct SYMTAB;

// Steps still to run for each function, front first.
extern std::map<SYMTAB*, std::deque<pass*>> steps_table;
// Functions whose output must be forced; empty whenever a barrier runs.
extern std::vector<SYMTAB*> unsuppressed_functions;
// The last step of every function; created only when the unit has functions.
extern pass* output_function_pass;

// Where the unit comes from and where function bodies go: the I-file reader
// and writer (the test harness puts a made-up unit in their place).
extern void (*read_input_unit)();
extern void (*write_function_body)(SYMTAB* fn);

// The whole run; ends the process (status 0 on success).
[[noreturn]] void optimizer_main(int argc, char** argv);

// Pieces of the run, also used on their own by the tests.
void build_step_tables();
void run_function_loop();
void run_function_steps(SYMTAB* fn, std::deque<pass*>& passes);
void print_time_stats(FILE* out, clock_t unit_ticks);
// Forgets the passes, step tables, functions and function records.
void reset_driver();
