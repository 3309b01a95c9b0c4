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

namespace {

// The parts of one local, by offset in units.
struct parts {
    bool ok = true;
    std::map<int64_t, TYPE*> at;
};

// Folds the offsets of the tree's accesses to locals that are not
// constants yet ("&t + 0 * 2").
void fold_local_offsets(NODE* root) {
    small_vector<NODE*, 32> work;
    work.push_back(root);
    while (!work.empty()) {
        NODE* n = work.back();
        work.pop_back();
        if (!n) continue;
        if (n->opcode == UMULT && n->left) {
            direct_access d = access_through(n->left, nullptr);
            if (d.object && !d.object->global && !d.known) n->left = simp_tree(n->left, nullptr);
        }
        work.push_back(n->left);
        work.push_back(n->right);
    }
}

// Notes one access; false when the local can't be split.
bool add_part(parts& p, const SYMTAB* sym, const local_access& a) {
    if (a.whole() || a.role == ADDRESS || !a.where.known || is_volatile_access(*a.slot)) return false;
    TYPE* type = (*a.slot)->type;
    if (!type || !type->stripped()->is_scalar() || type->size == 0 || type->size % 16) return false;
    if (a.where.offset.is_negative()) return false;
    int64_t off = a.where.offset.as<int64_t>();
    int64_t units = static_cast<int64_t>(type->size / 16);
    if (static_cast<uint64_t>(off + units) * 16 > sym->size) return false;
    auto it = p.at.find(off);
    if (it != p.at.end()) return exact_types(it->second->stripped(), type->stripped());
    // No overlap with the parts before and after it.
    auto next = p.at.lower_bound(off);
    if (next != p.at.end() && next->first < off + units) return false;
    if (next != p.at.begin()) {
        auto prev = std::prev(next);
        if (prev->first + static_cast<int64_t>(prev->second->size / 16) > off) return false;
    }
    p.at[off] = type;
    return true;
}

}  // namespace

int explode_auto_aggregates() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return 0;
    ptr_map<const SYMTAB*, parts> locals;
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
            fold_local_offsets(e.tree);
            bool plain = for_each_local_access(e.tree, [&](const local_access& a) {
                parts* p = locals.find(a.sym);
                if (p && p->ok && !add_part(*p, a.sym, a)) p->ok = false;
            });
            if (!plain || calls_own_frame_function(e.tree)) return 0;
        }

    // The variables of the parts.
    ptr_map<const SYMTAB*, std::map<int64_t, SYMTAB*>> vars;
    int replaced = 0;
    for (SYMTAB* s : order) {
        parts* p = locals.find(s);
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
            for_each_local_access(e.tree, [&](const local_access& a) {
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
