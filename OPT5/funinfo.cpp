#include "OPT5/funinfo.h"

#include <map>
#include <memory>

#include "OPT5/symtab.h"

namespace {
std::mutex table_mutex;
std::map<SYMTAB*, std::unique_ptr<FUNINFO>>& table() {
    static std::map<SYMTAB*, std::unique_ptr<FUNINFO>> t;
    return t;
}
}  // namespace

FUNINFO* make_FUNINFO(SYMTAB* sym) {
    std::lock_guard<std::mutex> lock(table_mutex);
    auto& slot = table()[sym];
    if (!slot) slot = std::make_unique<FUNINFO>(sym);
    return slot.get();
}

FUNINFO* find_FUNINFO(SYMTAB* sym) {
    std::lock_guard<std::mutex> lock(table_mutex);
    auto it = table().find(sym);
    return it == table().end() ? nullptr : it->second.get();
}

void clear_FUNINFO_table() {
    std::lock_guard<std::mutex> lock(table_mutex);
    table().clear();
}

void dump_FUNINFO(FILE* out, FUNINFO* fi) {
    std::fprintf(out, "FUNINFO for %s(): %d blocks, option set %d, flags %#x, %lld ticks\n",
                 fi->symbol ? fi->symbol->name.c_str() : "?", fi->nblocks, fi->option_set, fi->flags(),
                 static_cast<long long>(fi->pass_time));
}
