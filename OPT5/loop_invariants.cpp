#include "OPT5/loop_invariants.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/ddbloop.h"
#include "OPT5/dominator.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opt_client.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"

namespace {

bool plain_scalar(TYPE* t) { return t && t->stripped()->is_scalar(); }

// How a tree's value relates to the loop.
enum : char { VARIES, FIXED, INVARIANT };  // FIXED: a constant or an address; INVARIANT: reads what the loop keeps

class hoister {
public:
    explicit hoister(const std::set<const SYMTAB*>& taken) : taken_(taken) {}

    // Moves the invariant computations of the blocks out of the loop.
    int run(struct LOOP* loop, const std::vector<BBLK*>& blocks) {
        loop_ = loop;
        preheader_ = nullptr;
        const loop_effects& effects = find_region_constants(loop, taken_);
        if (effects.assembly) return 0;
        kind_.clear();
        moved_.clear();
        int moved = 0;
        for (BBLK* b : blocks)
            for (BODY_ENTRY& e : b->statements) moved += hoist_from(e);
        // Freed only now: the kinds remembered are of nodes that still live.
        for (NODE* n : dropped_) erase_tree(n);
        dropped_.clear();
        return moved;
    }

    BBLK* preheader() const { return preheader_; }

private:
    const std::set<const SYMTAB*>& taken_;
    struct LOOP* loop_ = nullptr;
    ptr_map<const NODE*, char> kind_;
    std::vector<std::pair<NODE*, SYMTAB*>> moved_;  // the trees computed before the loop, and their temporaries
    BBLK* preheader_ = nullptr;
    std::vector<NODE*> dropped_;  // trees the temporaries replaced
    int temporaries_ = 0;

    // The kind of a tree read as a value; every node of it gets its kind.
    char kind_of(const NODE* root) {
        if (const char* k = kind_.find(root)) return *k;
        std::vector<std::pair<const NODE*, bool>> work{{root, false}};
        while (!work.empty()) {
            auto [n, operands_done] = work.back();
            work.pop_back();
            if (kind_.find(n)) continue;
            if (!operands_done && is_pure_operator(n->opcode)) {
                work.push_back({n, true});
                for (const NODE* o : {n->left, n->right})
                    if (o && !kind_.find(o)) work.push_back({o, false});
                continue;
            }
            kind_[n] = classify(n);
        }
        return kind_[root];
    }

    char classify(const NODE* n) const {
        switch (n->opcode) {
        case ICON: case FCON: case SCON: return FIXED;
        case UAND: return n->left && n->left->opcode == NAME ? FIXED : VARIES;
        case NAME: {
            const SYMTAB* s = n->symbol;
            if (!s || !plain_scalar(n->type) || !plain_scalar(s->type) || is_volatile_access(n)) return VARIES;
            if (is_private_variable(s, taken_)) return loop_->effects.assigned.count(s) ? VARIES : INVARIANT;
            return loop_->effects.memory || loop_->effects.assigned.count(s) ? VARIES : INVARIANT;
        }
        case UMULT:
            if (loop_->effects.memory || is_volatile_access(n) || !plain_scalar(n->type) || !n->left) return VARIES;
            if (const char* k = kind_.find(n->left)) return *k != VARIES ? INVARIANT : VARIES;
            return VARIES;
        default: break;
        }
        if (!is_pure_operator(n->opcode)) return VARIES;
        char k = FIXED;
        for (const NODE* o : {n->left, n->right}) {
            if (!o) continue;
            const char* ok = kind_.find(o);
            if (!ok || *ok == VARIES) return VARIES;
            if (*ok == INVARIANT) k = INVARIANT;
        }
        return k;
    }

    // Visits the operand slots whose values the statement reads every time
    // it runs, and moves the largest invariant computations among them.
    int hoist_from(BODY_ENTRY& e) {
        NODE* t = e.tree;
        if (!t || t->opcode == LABELDEF || t->opcode == PPRAGMA || t->opcode == ASM) return 0;
        std::vector<NODE**> work;
        // The operands of n that run whenever n does: of an assignment, the
        // value and the address of the place it writes; not the second
        // operand of && and || nor the arms of ?:; nothing under &.
        auto push_operands = [&](NODE* n) {
            int op = n->opcode;
            if (op == UAND) return;
            if (side_effects[op] == 1) {
                if (n->left && n->left->opcode == UMULT && n->left->left) work.push_back(&n->left->left);
                work.push_back(&n->right);
                return;
            }
            work.push_back(&n->left);
            if (op != ANDAND && op != OROR && op != QUEST) work.push_back(&n->right);
        };
        push_operands(t);
        int moved = 0;
        while (!work.empty()) {
            NODE** slot = work.back();
            work.pop_back();
            NODE* n = *slot;
            if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
            // Tests stay in place: they are cheap, and where they are tested
            // they are conditions, not values.
            if (kind_of(n) == INVARIANT && n->opcode != NAME && !is_truth_operator(n->opcode) &&
                plain_scalar(n->type) && move(slot, e.pos)) {
                ++moved;
                continue;
            }
            push_operands(n);
        }
        return moved;
    }

    // Computes the tree in the slot before the loop; the slot reads the
    // temporary.
    bool move(NODE** slot, const PSN& pos) {
        NODE* n = *slot;
        SYMTAB* temp = nullptr;
        for (auto& [tree, t] : moved_)
            if (same_tree(tree, n)) temp = t;
        if (!temp) {
            if (!preheader_) preheader_ = preheader_of(loop_);
            if (!preheader_) return false;
            temp = make_local_temporary(n->type, "inv." + std::to_string(++temporaries_));
            if (!temp) return false;
            NODE* tree = copy_tree(n);
            append_before_jump(preheader_, mktree(ASG, n->type, mk_NAME(temp, n->type), tree), pos);
            moved_.push_back({tree, temp});
        }
        *slot = mk_NAME(temp, n->type);
        dropped_.push_back(n);
        return true;
    }
};

// The nearest block that dominates both.
BBLK* common_dominator(Dominator* dom, BBLK* a, BBLK* b) {
    std::set<const BBLK*> above;
    for (BBLK* x = a; x; x = dom->immediate_dominator(x)) {
        above.insert(x);
        if (x == currfuninfo->bb_list) break;
    }
    for (BBLK* x = b; x; x = dom->immediate_dominator(x)) {
        if (above.count(x)) return x;
        if (x == currfuninfo->bb_list) break;
    }
    return nullptr;
}

// The blocks of the loop itself (not of loops inside it) that run whenever
// the loop is entered, before it is left: those that dominate every block
// with an edge out of the loop.
std::vector<BBLK*> always_run(Dominator* dom, struct LOOP* loop) {
    BBLK* all = nullptr;
    bool any = false;
    for (EDGE* c = loop->contents; c; c = c->rest)
        for (EDGE* s = c->bb->successors; s; s = s->rest)
            if (!loop_contains(loop, s->bb)) {
                all = any ? common_dominator(dom, all, c->bb) : c->bb;
                any = true;
                if (!all) return {};
            }
    std::vector<BBLK*> out;
    for (BBLK* b = all; b && loop_contains(loop, b); b = dom->immediate_dominator(b)) {
        if (b->loop == loop) out.push_back(b);
        if (b == loop->head) break;
    }
    return out;
}

}  // namespace

int hoist_loop_invariants() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return 0;
    build_loop_hierarchy(false, false, false, 0);
    if (fi->loops.empty()) return 0;
    Dominator* dom = compute_dominators(false);
    std::vector<struct LOOP*> loops = fi->loops;  // inner loops first
    std::vector<std::vector<BBLK*>> blocks;
    for (struct LOOP* l : loops) blocks.push_back(always_run(dom, l));
    hoister h(fi->address_taken);
    int total = 0;
    for (size_t i = 0; i < loops.size(); ++i) {
        struct LOOP* l = loops[i];
        int moved = blocks[i].empty() ? 0 : h.run(l, blocks[i]);
        // A preheader made for this loop in the loop around it runs
        // whenever its head does.
        if (BBLK* pre = h.preheader(); pre && l->parent && pre->loop == l->parent)
            for (size_t j = i + 1; j < loops.size(); ++j)
                if (loops[j] == l->parent) {
                    std::vector<BBLK*>& outer = blocks[j];
                    bool listed = std::find(outer.begin(), outer.end(), pre) != outer.end();
                    for (size_t k = 0; k < outer.size() && !listed; ++k)
                        if (outer[k] == l->head) {
                            outer.insert(outer.begin() + static_cast<long>(k), pre);
                            break;
                        }
                }
        if (moved && write_opt_info && finfo) {
            unsigned long long line = l->head->statements.empty() ? 0 : l->head->statements.front().pos.line;
            std::fprintf(finfo, "Loop at line %llu: %d invariant computation%s moved before the loop.\n", line, moved,
                         moved == 1 ? "" : "s");
        }
        total += moved;
    }
    unbuild_loop_hierarchy();
    if (total) rebuildcfg();
    return total;
}
