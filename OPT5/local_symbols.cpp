#include "OPT5/local_symbols.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "IFILE/if_file.h"
#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/symtab.h"
#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"

namespace {
const char THIS_MODULE[] = "OPT5/local_symbols";

// The locals the statements name, in the order they first do.
std::vector<SYMTAB*> named_locals(FUNINFO* fi) {
    std::vector<SYMTAB*> order;
    ptr_map<const SYMTAB*, bool> seen;
    std::vector<BBLK*> blocks;
    if (fi->bb_list) blocks = layout_blocks();
    for (size_t b = 0; b < (fi->bb_list ? blocks.size() : 1); ++b)
        for (const BODY_ENTRY& e : fi->bb_list ? blocks[b]->statements : fi->body) {
            if (e.kind != BODY_ENTRY::STMT) continue;
            small_vector<const NODE*, 32> work;
            work.push_back(e.tree);
            while (!work.empty()) {
                const NODE* n = work.back();
                work.pop_back();
                if (!n) continue;
                if (n->opcode == NAME && n->symbol && !n->symbol->global && !seen.find(n->symbol)) {
                    seen[n->symbol] = true;
                    order.push_back(n->symbol);
                }
                // Right first, so that the left operand is met first.
                work.push_back(n->right);
                work.push_back(n->left);
            }
        }
    return order;
}

// A temporary's kind: its name less the number at its end.
std::string kind_of(const std::string& name) {
    size_t end = name.size();
    while (end > 0 && name[end - 1] >= '0' && name[end - 1] <= '9') --end;
    return name.substr(0, end);
}

}  // namespace

int rename_late_symbols() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi) return 0;
    std::vector<SYMTAB*> order = named_locals(fi);
    ptr_map<const SYMTAB*, bool> named;
    for (SYMTAB* s : order) named[s] = true;

    // The parameters stay, named or not: the calls pass them.
    // Without a flow graph the declarations are among the statements.
    std::vector<BODY_ENTRY>& entries = fi->bb_list ? fi->scopes : fi->body;
    std::vector<BODY_ENTRY> kept;
    kept.reserve(entries.size());
    bool in_args = true;
    unsigned index = 0;
    int dropped = 0;
    for (BODY_ENTRY& e : entries) {
        if (e.kind == BODY_ENTRY::CONTROL && e.control == IR_END_ARGS) in_args = false;
        if (e.kind == BODY_ENTRY::SYMBOL && e.sym && !e.sym->global) {
            if (!in_args && !named.find(static_cast<const SYMTAB*>(e.sym))) {
                if (print_debug)
                    DBG_CHECK(std::fprintf(FDEBUG, "late rename symbols: '%s' is named nowhere, dropped.\n",
                                           e.sym->name.c_str()));
                ++dropped;
                continue;
            }
            e.sym->index = index++;
        }
        kept.push_back(e);
    }
    entries.swap(kept);

    ptr_map<const SYMTAB*, bool> temporary;
    for (SYMTAB* t : fi->temporaries) temporary[t] = true;
    std::map<std::string, int> count;
    for (SYMTAB* s : order) {
        if (!temporary.find(s)) continue;
        std::string kind = kind_of(s->name);
        std::string name = kind + std::to_string(++count[kind]);
        if (name == s->name) continue;
        if (print_debug)
            DBG_CHECK(std::fprintf(FDEBUG, "late rename symbols: '%s' is now '%s'.\n", s->name.c_str(), name.c_str()));
        s->name = name;
    }
    std::erase_if(fi->temporaries, [&](const SYMTAB* t) { return !named.find(t); });

    if (dropped && write_opt_info && finfo)
        std::fprintf(finfo, "Function %s(): %d local%s named nowhere no longer declared.\n", currfunc->name.c_str(),
                     dropped, dropped == 1 ? "" : "s");
    return dropped;
}
