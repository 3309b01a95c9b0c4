#include "OPT5/globals.h"

bool print_debug = false;
FILE* FDEBUG = nullptr;
bool write_opt_info = false;
thread_local FILE* finfo = nullptr;
thread_local SYMTAB* currfunc = nullptr;
thread_local FUNINFO* currfuninfo = nullptr;
SYMTAB* currfunc_at_abort = nullptr;
int max_threads = 0;
std::vector<SYMTAB*> functions;
