// State shared by the driver and the passes.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

struct SYMTAB;
struct FUNINFO;

extern bool print_debug;       // the debug stream is on
extern FILE* FDEBUG;           // the debug stream
extern FILE* info_stream;      // the information file (finfo of the main thread)
extern std::string input_file_name, debug_file_name;
extern bool write_opt_info;    // the optimisation-information stream is on
extern thread_local FILE* finfo;  // that stream (per thread: workers capture their own)

extern thread_local SYMTAB* currfunc;       // function being processed
extern thread_local FUNINFO* currfuninfo;   // and its record
extern SYMTAB* currfunc_at_abort;           // set by a worker whose function threw

extern int max_threads;        // worker threads between barriers; 0: none

extern std::vector<SYMTAB*> functions;  // functions defined in the unit, in input order
