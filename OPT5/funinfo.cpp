#include "OPT5/funinfo.h"

#include <mutex>

#include "OPT5/symtab.h"
#include "UTIL/slab.h"

namespace {
// Each function's information hangs off its symbol; the store only owns it.
// Like the symbols it lives to the end of the run.
std::mutex table_mutex;
slab_store<FUNINFO>& table() {
    static slab_store<FUNINFO>* t = new slab_store<FUNINFO>;
    return *t;
}
}  // namespace

FUNINFO* make_FUNINFO(SYMTAB* sym) {
    if (sym->funinfo) return sym->funinfo;
    std::lock_guard<std::mutex> lock(table_mutex);
    sym->funinfo = table().make(sym);
    return sym->funinfo;
}

FUNINFO* find_FUNINFO(SYMTAB* sym) { return sym->funinfo; }

void clear_FUNINFO_table() {
    std::lock_guard<std::mutex> lock(table_mutex);
    table().for_each([](FUNINFO& fi) {
        if (fi.symbol) fi.symbol->funinfo = nullptr;
    });
    table().clear();
}

void dump_FUNINFO(FILE* out, FUNINFO* fi) {
    std::fprintf(out, "FUNINFO for %s(): %d blocks, option set %d, flags %#x, %lld ticks\n",
                 fi->symbol ? fi->symbol->name.c_str() : "?", fi->nblocks, fi->option_set, fi->flags(),
                 static_cast<long long>(fi->pass_time));
}
