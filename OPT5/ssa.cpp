// Building the SSA form: phis at the iterated dominance frontiers of each
// variable's defining blocks, then a walk of the dominator tree that gives
// every use its reaching definition.
#include "OPT5/ssa.h"

#include <functional>
#include <set>

#include "OPT5/abort.h"
#include "OPT5/copyprop.h"
#include "OPT5/dominator.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/symtab.h"

namespace {
const char THIS_MODULE[] = "OPT5/ssa";

bool assigns(int op) { return op == ASG || is_op_assign(op); }

struct BUILDER {
    SSA_FORM* ssa;
    std::unordered_map<const SYMTAB*, int> var_index;
    std::vector<std::vector<SSA_DEFINITION*>> stacks;  // per variable
    Dominator* dom;

    int var_of(const NODE* n) const {
        if (!n || n->opcode != NAME || !n->symbol) return -1;
        auto it = var_index.find(n->symbol);
        return it == var_index.end() ? -1 : it->second;
    }

    SSA_DEFINITION* make(SSA_DEFINITION::KIND kind, int var, BBLK* bb) {
        auto d = std::make_unique<SSA_DEFINITION>();
        d->kind = kind;
        d->id = static_cast<int>(ssa->defs.size());
        d->var = ssa->vars[static_cast<size_t>(var)];
        d->bb = bb;
        ssa->defs.push_back(std::move(d));
        return ssa->defs.back().get();
    }

    // Uses and definitions of a tree in evaluation order: operands left to
    // right, then the node.  Under a conditional operator a definition may
    // not happen, so it merges with the one before.
    void rename_tree(const NODE* t, BBLK* bb, bool conditional, std::vector<int>& pushed) {
        if (!t || t->opcode == LABEL || t->opcode == FIELD) return;
        int v = var_of(t);
        if (v >= 0) {
            OPT_REQUIRE(!stacks[static_cast<size_t>(v)].empty());
            ssa->use_def[t] = stacks[static_cast<size_t>(v)].back();
            ssa->use_block[t] = bb;
            return;
        }
        if (assigns(t->opcode) && var_of(t->left) >= 0) {
            int x = var_of(t->left);
            rename_tree(t->right, bb, conditional, pushed);
            SSA_DEFINITION* before = stacks[static_cast<size_t>(x)].back();
            if (t->opcode != ASG) {  // x op= e reads x
                ssa->use_def[t->left] = before;
                ssa->use_block[t->left] = bb;
            }
            SSA_DEFINITION* d = make(conditional ? SSA_DEFINITION::COND_ASSIGN : SSA_DEFINITION::ASSIGN, x, bb);
            d->node = t;
            d->prior = before;
            ssa->node_def[t] = d;
            stacks[static_cast<size_t>(x)].push_back(d);
            pushed.push_back(x);
            return;
        }
        bool cond_right = t->opcode == QUEST || t->opcode == ANDAND || t->opcode == OROR;
        rename_tree(t->left, bb, conditional, pushed);
        rename_tree(t->right, bb, conditional || cond_right, pushed);
    }

    void rename(BBLK* bb, const std::unordered_map<BBLK*, std::vector<SSA_DEFINITION*>>& phis) {
        std::vector<int> pushed;
        auto here = phis.find(bb);
        if (here != phis.end())
            for (SSA_DEFINITION* p : here->second) {
                int v = var_index.at(p->var);
                stacks[static_cast<size_t>(v)].push_back(p);
                pushed.push_back(v);
            }
        for (BODY_ENTRY& e : bb->statements) rename_tree(e.tree, bb, false, pushed);
        // Phi operands of the successors, by the position of bb among
        // their predecessors.
        for (EDGE* s = bb->successors; s; s = s->rest) {
            auto there = phis.find(s->bb);
            if (there == phis.end()) continue;
            int k = 0;
            for (EDGE* p = s->bb->predecessors; p; p = p->rest, ++k) {
                if (p->bb != bb) continue;
                for (SSA_DEFINITION* phi : there->second)
                    phi->operands[static_cast<size_t>(k)] = stacks[static_cast<size_t>(var_index.at(phi->var))].back();
            }
        }
        for (int child : dom->dominator_children(bb->dfn)) rename(dom->DFSblock(child), phis);
        for (auto it = pushed.rbegin(); it != pushed.rend(); ++it) stacks[static_cast<size_t>(*it)].pop_back();
    }
};

}  // namespace

SSA_DEFINITION* SSA_FORM::reaching_definition(const NODE* use) const {
    auto it = use_def.find(use);
    return it == use_def.end() ? nullptr : it->second;
}

SSA_FORM* construct_SSA_form() {
    FUNINFO* fi = currfuninfo;
    auto* ssa = new SSA_FORM;
    if (!fi || !fi->bb_list) return ssa;
    find_live_variables(true, false);  // numbers the tracked variables
    free_liveness(fi);
    BUILDER b{ssa, {}, {}, compute_dominators(false)};
    for (SYMTAB* s : fi->lva_syms) {
        if (!s->type || !s->type->is_integral()) continue;
        b.var_index[s] = static_cast<int>(ssa->vars.size());
        ssa->vars.push_back(s);
    }
    size_t nv = ssa->vars.size();
    b.stacks.assign(nv, {});
    std::vector<BBLK*> blocks = layout_blocks();
    BBLK* entry = fi->bb_list;
    for (size_t v = 0; v < nv; ++v) b.stacks[v].push_back(b.make(SSA_DEFINITION::ENTRY, static_cast<int>(v), entry));

    // Dominance frontiers.
    std::unordered_map<BBLK*, std::set<BBLK*>> frontier;
    for (BBLK* bb : blocks) {
        if (edge_length(bb->predecessors) < 2) continue;
        BBLK* idom = b.dom->immediate_dominator(bb);
        for (EDGE* p = bb->predecessors; p; p = p->rest) {
            BBLK* runner = p->bb;
            while (runner && runner != idom) {
                frontier[runner].insert(bb);
                runner = b.dom->immediate_dominator(runner);
            }
        }
    }
    // Defining blocks of each variable, then phis at the iterated frontier.
    std::vector<std::set<BBLK*>> def_blocks(nv);
    for (BBLK* bb : blocks)
        for (BODY_ENTRY& e : bb->statements)
            walk_and_modify_tree(e.tree, [&](NODE*& n) {
                if (assigns(n->opcode) && b.var_of(n->left) >= 0) def_blocks[static_cast<size_t>(b.var_of(n->left))].insert(bb);
            });
    for (BBLK* bb : blocks)
        for (BODY_ENTRY& e : bb->statements)
            if (e.tree && assigns(e.tree->opcode) && b.var_of(e.tree->left) >= 0)
                def_blocks[static_cast<size_t>(b.var_of(e.tree->left))].insert(bb);
    std::unordered_map<BBLK*, std::vector<SSA_DEFINITION*>> phis;
    for (size_t v = 0; v < nv; ++v) {
        std::vector<BBLK*> work(def_blocks[v].begin(), def_blocks[v].end());
        std::set<BBLK*> has_phi;
        while (!work.empty()) {
            BBLK* d = work.back();
            work.pop_back();
            for (BBLK* f : frontier[d]) {
                if (!has_phi.insert(f).second) continue;
                SSA_DEFINITION* phi = b.make(SSA_DEFINITION::PHI, static_cast<int>(v), f);
                phi->operands.assign(static_cast<size_t>(edge_length(f->predecessors)), nullptr);
                phis[f].push_back(phi);
                if (!def_blocks[v].count(f)) work.push_back(f);
            }
        }
    }
    b.rename(entry, phis);
    return ssa;
}

void deconstruct_SSA_form(SSA_FORM* ssa) { delete ssa; }
