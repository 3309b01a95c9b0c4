#include "OPT5/scalar_replacement.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "OPT5/bbutils.h"
#include "OPT5/call_graph.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/object_access.h"
#include "OPT5/opt_client.h"
#include "TYPES/type_pkg.h"
#include "UTIL/small_vector.h"
#include "UTIL/ptr_map.h"

namespace {

// The assignments whose place is one of `places` (variables assigned as
// another type of their size) store the value converted to the variable's
// type; where the assignment's own value is used, it converts back.
void assign_in_own_types(NODE*& root, const small_vector<const NODE*, 4>& places) {
    struct item {
        NODE** slot;
        bool value_used;
    };
    small_vector<item, 32> work;
    work.push_back({&root, false});
    while (!work.empty()) {
        auto [slot, used] = work.back();
        work.pop_back();
        NODE* n = *slot;
        if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
        work.push_back({&n->left, n->opcode != COMMA});
        work.push_back({&n->right, n->opcode != COMMA || used});
        if (n->opcode != ASG || std::find(places.begin(), places.end(), n->left) == places.end()) continue;
        TYPE* seen = n->type;
        n->type = n->left->type;
        n->right = converted(n->right, n->type);  // walked through its new slot
        if (used) *slot = converted(n, seen);
    }
}

}  // namespace

int explode_auto_aggregates() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return 0;
    ptr_map<const SYMTAB*, object_parts> locals;
    std::vector<SYMTAB*> order;
    for (SYMTAB* s : function_locals(fi))
        if (is_aggregate_object(s) && !mentions_volatile(s->type)) {
            locals[s].integer_views = true;
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
        for (BODY_ENTRY& e : b->statements) {
            // Parts assigned as another integer type than their own.
            small_vector<const NODE*, 4> viewed;
            for_each_local_access(e.tree, [&](const object_access& a) {
                std::map<int64_t, SYMTAB*>* v = vars.find(a.sym);
                if (!v) return;
                NODE* access = *a.slot;
                SYMTAB* part = v->at(a.where.offset.as<int64_t>());
                if (exact_types(part->type->stripped(), access->type->stripped())) {
                    *a.slot = mk_NAME(part, access->type);
                } else if (a.role == PLACE) {
                    *a.slot = mk_NAME(part, part->type);
                    viewed.push_back(*a.slot);
                } else {
                    *a.slot = converted(mk_NAME(part, part->type), access->type);
                }
                erase_tree(access);
            });
            if (!viewed.empty()) assign_in_own_types(e.tree, viewed);
        }
    if (write_opt_info && finfo)
        for (SYMTAB* s : order)
            if (const std::map<int64_t, SYMTAB*>* v = vars.find(s))
                std::fprintf(finfo, "Function %s(): '%s' is kept as %zu variable%s, one per part.\n",
                             currfunc->name.c_str(), s->name.c_str(), v->size(), v->size() == 1 ? "" : "s");
    return replaced;
}
