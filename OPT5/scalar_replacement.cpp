#include "OPT5/scalar_replacement.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "OPT5/bbutils.h"
#include "OPT5/call_graph.h"
#include "OPT5/cmdline.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/object_access.h"
#include "OPT5/opt_client.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"


int explode_auto_aggregates() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return 0;
    ptr_map<const SYMTAB*, object_parts> locals;
    std::vector<SYMTAB*> order;
    for (SYMTAB* s : function_locals(fi))
        if (is_aggregate_object(s) && !mentions_volatile(s->type)) {
            locals[s];
            order.push_back(s);
        }
    if (order.empty()) return 0;
    std::vector<BBLK*> blocks = layout_blocks();
    for (BBLK* b : blocks)
        for (BODY_ENTRY& e : b->statements) {
            fold_access_offsets(e.tree, [](const SYMTAB* s) { return !s->global; });
            bool plain = for_each_local_access(e.tree, [&](const object_access& a) {
                if (object_parts* p = locals.find(a.sym)) p->add(a);
            });
            if (!plain || calls_own_frame_function(e.tree)) return 0;
        }

    // The variables of the parts.
    ptr_map<const SYMTAB*, std::map<int64_t, SYMTAB*>> vars;
    int replaced = 0;
    for (SYMTAB* s : order) {
        object_parts* p = locals.find(s);
        if (!p->ok || p->at.empty()) continue;
        std::map<int64_t, SYMTAB*>& v = vars[s];
        for (auto [off, type] : p->at) {
            SYMTAB* part = make_local_temporary(type->stripped(), s->name + "." + std::to_string(off));
            if (!part) return 0;  // nothing rewritten yet: the parts made are named nowhere and go
            v[off] = part;
        }
        ++replaced;
    }
    if (!replaced) return 0;
    for (BBLK* b : blocks)
        for (BODY_ENTRY& e : b->statements)
            for_each_local_access(e.tree, [&](const object_access& a) {
                std::map<int64_t, SYMTAB*>* v = vars.find(a.sym);
                if (!v) return;
                NODE* access = *a.slot;
                SYMTAB* part = v->at(a.where.offset.as<int64_t>());
                *a.slot = mk_NAME(part, access->type);
                erase_tree(access);
            });
    if (write_opt_info && finfo)
        for (SYMTAB* s : order)
            if (const std::map<int64_t, SYMTAB*>* v = vars.find(s))
                std::fprintf(finfo, "Function %s(): '%s' is kept as %zu variable%s, one per part.\n",
                             currfunc->name.c_str(), s->name.c_str(), v->size(), v->size() == 1 ? "" : "s");
    return replaced;
}
