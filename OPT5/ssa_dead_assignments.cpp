#include "OPT5/ssa_dead_assignments.h"

#include <cstdio>
#include <vector>

#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/opt_client.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/ssa.h"
#include "OPT5/symtab.h"
#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"

namespace {
const char THIS_MODULE[] = "OPT5/ssa_dead_assignments";

// The definitions the uses in a tree reach.
template <typename F>
void for_each_reached(const SSA_FORM& ssa, const NODE* root, F&& f) {
    for_each_node(root, [&](const NODE* n) {
        if (SSA_DEFINITION* d = ssa.reaching_definition(n)) f(d);
    });
}


// Marks what the needed statements read, then what the needed definitions
// read, and takes out the assignments left unmarked.
int one_round() {
    SSA_FORM* ssa = construct_SSA_form();
    std::vector<char> needed(ssa->defs.size(), 0);
    std::vector<SSA_DEFINITION*> work;
    auto need = [&](SSA_DEFINITION* d) {
        if (!d || needed[static_cast<size_t>(d->id)]) return;
        needed[static_cast<size_t>(d->id)] = 1;
        work.push_back(d);
    };
    // The statements that could go, by their definition; the others need
    // every value they read.
    ptr_map<const SSA_DEFINITION*, const NODE*> removable;
    std::vector<BBLK*> blocks = layout_blocks();
    for (BBLK* b : blocks)
        for (const BODY_ENTRY& e : b->statements) {
            const NODE* t = e.tree;
            if (!t) continue;
            SSA_DEFINITION* const* d = is_assignment(t->opcode) ? ssa->node_def.find(t) : nullptr;
            if (d && !has_side_effects(t->right) && !is_volatile_access(t->left)) removable[*d] = t;
            else for_each_reached(*ssa, t, need);
        }
    while (!work.empty()) {
        SSA_DEFINITION* d = work.back();
        work.pop_back();
        for (SSA_DEFINITION* o : d->operands) need(o);
        if (d->kind == SSA_DEFINITION::COND_ASSIGN) need(d->prior);  // where it does not happen, the one before holds
        if (const NODE* const* t = removable.find(d)) for_each_reached(*ssa, *t, need);
    }
    int removed = 0;
    for (BBLK* b : blocks)
        std::erase_if(b->statements, [&](const BODY_ENTRY& e) {
            SSA_DEFINITION* const* d = e.tree && is_assignment(e.tree->opcode) ? ssa->node_def.find(e.tree) : nullptr;
            if (!d || needed[static_cast<size_t>((*d)->id)] || !removable.find(*d)) return false;
            if (print_debug)
                DBG_CHECK(std::fprintf(FDEBUG, "\tDead SSA assignment removed: %s\n", stmt2infix(e.tree).c_str()));
            erase_tree(e.tree);
            ++removed;
            return true;
        });
    deconstruct_SSA_form(ssa);
    return removed;
}

}  // namespace

int eliminate_dead_SSA_assignments() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list || has_inline_assembly(fi->bb_list)) return 0;
    // A test left with nothing to decide goes, and what it read may be
    // dead in turn.
    int removed = 0;
    for (int round = 0; round < 3; ++round) {
        int now = one_round();
        removed += now;
        if (!now || !simpcfg(false, false)) break;
    }
    if (removed && write_opt_info && finfo)
        std::fprintf(finfo, "Function %s(): %d assignment%s whose value%s nothing needs removed.\n",
                     currfunc->name.c_str(), removed, removed == 1 ? "" : "s", removed == 1 ? "" : "s");
    return removed;
}
