// Building the SSA form: phis at the iterated dominance frontiers of each
// variable's defining blocks where the variable is live, then a walk of the
// dominator tree that gives every use its reaching definition.
#include "OPT5/ssa.h"

#include "BITVEC/bitvec.h"
#include "OPT5/abort.h"
#include "OPT5/copyprop.h"
#include "OPT5/dominator.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/symtab.h"

namespace {
const char THIS_MODULE[] = "OPT5/ssa";


struct BUILDER {
    SSA_FORM* ssa;
    std::vector<int> var_of_lva;  // by liveness index: the variable's number, or -1
    std::vector<std::vector<SSA_DEFINITION*>> stacks;  // per variable
    std::vector<int> pushed;  // variables whose stacks the blocks on the walk pushed
    Dominator* dom;

    int var_of(const NODE* n) const {
        if (!n || n->opcode != NAME || !n->symbol) return -1;
        int i = lva_index(n->symbol);
        return i < 0 ? -1 : var_of_lva[static_cast<size_t>(i)];
    }

    SSA_DEFINITION* make(SSA_DEFINITION::KIND kind, int var, BBLK* bb) {
        SSA_DEFINITION& d = ssa->defs.emplace_back();
        d.kind = kind;
        d.id = static_cast<int>(ssa->defs.size()) - 1;
        d.var = ssa->vars[static_cast<size_t>(var)];
        d.bb = bb;
        return &d;
    }

    // Uses and definitions of a tree in evaluation order: operands left to
    // right, then the node.  Under a conditional operator a definition may
    // not happen, so it merges with the one before.
    void rename_tree(const NODE* t, BBLK* bb, bool conditional) {
        if (!t || t->opcode == LABEL || t->opcode == FIELD) return;
        int v = var_of(t);
        if (v >= 0) {
            OPT_REQUIRE(!stacks[static_cast<size_t>(v)].empty());
            ssa->uses[t] = {stacks[static_cast<size_t>(v)].back(), bb};
            return;
        }
        if (is_assignment(t->opcode) && var_of(t->left) >= 0) {
            int x = var_of(t->left);
            rename_tree(t->right, bb, conditional);
            SSA_DEFINITION* before = stacks[static_cast<size_t>(x)].back();
            if (t->opcode != ASG) ssa->uses[t->left] = {before, bb};  // x op= e reads x
            SSA_DEFINITION* d = make(conditional ? SSA_DEFINITION::COND_ASSIGN : SSA_DEFINITION::ASSIGN, x, bb);
            d->node = t;
            d->prior = before;
            ssa->node_def[t] = d;
            stacks[static_cast<size_t>(x)].push_back(d);
            pushed.push_back(x);
            return;
        }
        bool cond_right = t->opcode == QUEST || t->opcode == ANDAND || t->opcode == OROR;
        rename_tree(t->left, bb, conditional);
        rename_tree(t->right, bb, conditional || cond_right);
    }

    // One block on the walk down the dominator tree: its phis and
    // statements push definitions, and the phis of its successors get
    // their operands for the edges from it.
    void rename_block(BBLK* bb, const std::vector<SSA_DEFINITION*>* own_phis,
                      const std::vector<std::vector<SSA_DEFINITION*>>& phis, const ptr_map<BBLK*, int>& index) {
        if (own_phis)
            for (SSA_DEFINITION* p : *own_phis) {
                int v = var_of_lva[static_cast<size_t>(lva_index(p->var))];
                stacks[static_cast<size_t>(v)].push_back(p);
                pushed.push_back(v);
            }
        for (BODY_ENTRY& e : bb->statements) rename_tree(e.tree, bb, false);
        for (EDGE* s = bb->successors; s; s = s->rest) {
            const int* at = index.find(s->bb);
            if (!at || phis[static_cast<size_t>(*at)].empty()) continue;
            int k = 0;
            for (EDGE* p = s->bb->predecessors; p; p = p->rest, ++k) {
                if (p->bb != bb) continue;
                for (SSA_DEFINITION* phi : phis[static_cast<size_t>(*at)])
                    phi->operands[static_cast<size_t>(k)] =
                        stacks[static_cast<size_t>(var_of_lva[static_cast<size_t>(lva_index(phi->var))])].back();
            }
        }
    }

    // The walk, with a work list: the dominator tree is as deep as the
    // function is long.
    void rename(BBLK* entry, const std::vector<std::vector<SSA_DEFINITION*>>& phis, const ptr_map<BBLK*, int>& index) {
        struct FRAME {
            BBLK* bb;
            size_t pushed_before;
            size_t next_child;
        };
        std::vector<FRAME> walk;
        auto enter = [&](BBLK* bb) {
            walk.push_back({bb, pushed.size(), 0});
            const int* at = index.find(bb);
            rename_block(bb, at ? &phis[static_cast<size_t>(*at)] : nullptr, phis, index);
        };
        enter(entry);
        while (!walk.empty()) {
            FRAME& f = walk.back();
            std::span<const int> children = dom->dominator_children(f.bb->dfn);
            if (f.next_child < children.size()) {
                enter(dom->DFSblock(children[f.next_child++]));
                continue;
            }
            while (pushed.size() > f.pushed_before) {
                stacks[static_cast<size_t>(pushed.back())].pop_back();
                pushed.pop_back();
            }
            walk.pop_back();
        }
    }
};

}  // namespace

SSA_DEFINITION* SSA_FORM::reaching_definition(const NODE* use) const {
    const USE* u = uses.find(use);
    return u ? u->def : nullptr;
}

BBLK* SSA_FORM::use_block(const NODE* use) const {
    const USE* u = uses.find(use);
    return u ? u->bb : nullptr;
}

SSA_FORM* construct_SSA_form() {
    FUNINFO* fi = currfuninfo;
    auto* ssa = new SSA_FORM;
    if (!fi || !fi->bb_list) return ssa;
    find_live_variables(true, false);  // numbers the tracked variables
    BUILDER b{ssa, {}, {}, {}, compute_dominators(false)};
    b.var_of_lva.assign(fi->lva_syms.size(), -1);
    for (size_t i = 0; i < fi->lva_syms.size(); ++i) {
        SYMTAB* s = fi->lva_syms[i];
        if (!s->type || !s->type->is_integral()) continue;
        b.var_of_lva[i] = static_cast<int>(ssa->vars.size());
        ssa->vars.push_back(s);
    }
    size_t nv = ssa->vars.size();
    b.stacks.assign(nv, {});
    std::vector<BBLK*> blocks = layout_blocks();
    size_t nb = blocks.size();
    ptr_map<BBLK*, int> index;
    index.reserve(nb);
    for (size_t i = 0; i < nb; ++i) index[blocks[i]] = static_cast<int>(i);
    auto index_of = [&](BBLK* bb) {
        const int* at = index.find(bb);
        return at ? *at : -1;
    };
    BBLK* entry = fi->bb_list;
    for (size_t v = 0; v < nv; ++v) b.stacks[v].push_back(b.make(SSA_DEFINITION::ENTRY, static_cast<int>(v), entry));

    // Dominance frontiers, by block index.  A join is added to a runner's
    // frontier once: the runs from its predecessors are made one after the
    // other, so a repeat is the last one added.
    std::vector<std::vector<int>> frontier(nb);
    for (size_t i = 0; i < nb; ++i) {
        BBLK* bb = blocks[i];
        if (edge_length(bb->predecessors) < 2) continue;
        BBLK* idom = b.dom->immediate_dominator(bb);
        for (EDGE* p = bb->predecessors; p; p = p->rest) {
            for (BBLK* runner = p->bb; runner && runner != idom; runner = b.dom->immediate_dominator(runner)) {
                int r = index_of(runner);
                if (r < 0) break;
                std::vector<int>& f = frontier[static_cast<size_t>(r)];
                if (f.empty() || f.back() != static_cast<int>(i)) f.push_back(static_cast<int>(i));
            }
        }
    }
    // Defining blocks of each variable (blocks in order, so a repeat is the
    // last one added), then phis at the iterated frontier where the
    // variable is live.
    std::vector<std::vector<int>> def_blocks(nv);
    for (size_t i = 0; i < nb; ++i) {
        auto note = [&](const NODE* n) {
            int v = n && is_assignment(n->opcode) ? b.var_of(n->left) : -1;
            if (v < 0) return;
            std::vector<int>& d = def_blocks[static_cast<size_t>(v)];
            if (d.empty() || d.back() != static_cast<int>(i)) d.push_back(static_cast<int>(i));
        };
        for (BODY_ENTRY& e : blocks[i]->statements) {
            note(e.tree);
            walk_and_modify_tree(e.tree, [&](NODE*& n) { note(n); });
        }
    }
    std::vector<std::vector<SSA_DEFINITION*>> phis(nb);
    std::vector<size_t> has_phi(nb, 0), defines(nb, 0);  // stamped with the variable's number + 1
    std::vector<int> work;
    for (size_t v = 0; v < nv; ++v) {
        const size_t stamp = v + 1;
        const int live_bit = lva_index(ssa->vars[v]);
        for (int d : def_blocks[v]) defines[static_cast<size_t>(d)] = stamp;
        work = def_blocks[v];
        while (!work.empty()) {
            int d = work.back();
            work.pop_back();
            for (int fb : frontier[static_cast<size_t>(d)]) {
                size_t f = static_cast<size_t>(fb);
                if (has_phi[f] == stamp) continue;
                has_phi[f] = stamp;
                BBLK* join = blocks[f];
                if (join->live_in && !join->live_in->test(static_cast<size_t>(live_bit))) continue;
                SSA_DEFINITION* phi = b.make(SSA_DEFINITION::PHI, static_cast<int>(v), join);
                phi->operands.assign(static_cast<size_t>(edge_length(join->predecessors)), nullptr);
                phis[f].push_back(phi);
                if (defines[f] != stamp) work.push_back(fb);
            }
        }
    }
    free_liveness(fi);
    b.rename(entry, phis, index);
    return ssa;
}

void deconstruct_SSA_form(SSA_FORM* ssa) { delete ssa; }
