#include "OPT5/dominator.h"

#include "OPT5/copyprop.h"

#include <cstdio>

#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/globals.h"

namespace {
const char THIS_MODULE[] = "OPT5/dominator";
}

Dominator::Dominator() { builder(); }

Dominator* compute_dominators(bool with_liveness) {
    FUNINFO* fi = currfuninfo;
    if (!fi->dominator) fi->dominator = new Dominator;
    else fi->dominator->builder();
    if (with_liveness) find_live_variables(true, true);
    return fi->dominator;
}

Dominator* dominators() {
    if (!currfuninfo->dominator) currfuninfo->dominator = new Dominator;
    return currfuninfo->dominator;
}

void Dominator::refresh() {
    if (dirty || count_ != currfuninfo->bb_count) builder();
}

// The iterative "intersect" method: blocks are numbered in reverse postorder
// of a depth-first walk (from the entry along successors, or from the exits
// along predecessors), so that a dominator has a smaller number than every
// block it dominates.
void Dominator::build_tree(bool post) {
    std::vector<int>& idom = post ? ipdom_ : idom_;
    std::vector<int>& order = post ? porder_ : order_;
    idom.assign(count_ + 1, 0);
    order.assign(count_ + 1, 0);
    std::vector<int> postorder;
    std::vector<bool> seen(count_ + 1, false);
    auto next_of = [post](BBLK* b) { return post ? b->predecessors : b->successors; };
    auto prev_of = [post](BBLK* b) { return post ? b->successors : b->predecessors; };

    std::vector<int> roots;
    if (!post) {
        roots.push_back(1);
    } else {
        for (int d = 1; d <= count_; ++d)
            if (!blocks_[d]->successors) roots.push_back(d);
    }
    // A virtual root 0 stands above several exits.
    for (int r : roots) {
        std::vector<std::pair<int, EDGE*>> stack{{r, next_of(blocks_[r])}};
        seen[r] = true;
        while (!stack.empty()) {
            auto& [d, e] = stack.back();
            if (e) {
                int s = e->bb->dfn;
                e = e->rest;
                if (s >= 1 && s <= count_ && !seen[s]) {
                    seen[s] = true;
                    stack.push_back({s, next_of(blocks_[s])});
                }
            } else {
                postorder.push_back(d);
                stack.pop_back();
            }
        }
    }
    int n = static_cast<int>(postorder.size());
    std::vector<int> rpo(postorder.rbegin(), postorder.rend());
    for (int i = 0; i < n; ++i) order[rpo[i]] = i + 1;
    auto is_root = [&](int d) {
        for (int r : roots)
            if (r == d) return true;
        return false;
    };
    auto intersect = [&](int a, int b) {
        while (a != b) {
            while (a != 0 && b != 0 && order[a] > order[b]) a = idom[a];
            while (a != 0 && b != 0 && order[b] > order[a]) b = idom[b];
            if (a == 0 || b == 0) return 0;  // only the virtual root is common
        }
        return a;
    };
    std::vector<bool> done(count_ + 1, false);
    for (int r : roots) done[r] = true;
    bool changed = true;
    while (changed) {
        changed = false;
        for (int d : rpo) {
            if (is_root(d)) continue;
            int nd = -1;
            for (EDGE* e = prev_of(blocks_[d]); e; e = e->rest) {
                int p = e->bb->dfn;
                if (p < 1 || p > count_ || !done[p]) continue;
                nd = nd < 0 ? p : intersect(p, nd);
            }
            if (nd >= 0 && idom[d] != nd) {
                idom[d] = nd;
                changed = true;
            }
            if (nd >= 0) done[d] = true;
        }
    }
    std::vector<std::vector<int>>& kids = post ? pchildren_ : children_;
    kids.assign(count_ + 1, {});
    for (int d = 1; d <= count_; ++d) {
        if (is_root(d)) continue;
        if (!done[d] || idom[d] == 0) {
            if (print_debug && FDEBUG)
                DBG_CHECK(std::fprintf(FDEBUG, post ? "**** >>>> WARNING: BB%d doesn't have a postdominator\n"
                                                    : "**** >>>> WARNING: BB%d doesn't have a dominator\n",
                                       d));
            continue;
        }
        kids[idom[d]].push_back(d);
    }
}

void Dominator::builder() {
    count_ = currfuninfo->bb_count;
    blocks_.assign(count_ + 1, nullptr);
    for (BBLK* b : layout_blocks())
        if (b->dfn >= 1 && b->dfn <= count_) blocks_[b->dfn] = b;
    if (count_ > 0) {
        build_tree(false);
        build_tree(true);
    }
    dirty = false;
}

int Dominator::immediate_dominator(int dfn) {
    refresh();
    return dfn >= 1 && dfn <= count_ ? idom_[dfn] : 0;
}

BBLK* Dominator::immediate_dominator(const BBLK* bb) {
    int d = immediate_dominator(bb->dfn);
    return d ? blocks_[d] : nullptr;
}

int Dominator::immediate_post_dominator(int dfn) {
    refresh();
    return dfn >= 1 && dfn <= count_ ? ipdom_[dfn] : 0;
}

BBLK* Dominator::immediate_post_dominator(const BBLK* bb) {
    int d = immediate_post_dominator(bb->dfn);
    return d ? blocks_[d] : nullptr;
}

bool Dominator::dominates(int a, int b) {
    refresh();
    if (a == b) return true;
    if (b < 1) return false;
    while (b >= 1 && b <= count_) {
        b = idom_[b];
        if (b == a) return true;
    }
    return false;
}

bool Dominator::dominates(const BBLK* a, const BBLK* b) { return dominates(a->dfn, b->dfn); }

bool Dominator::post_dominates(int a, int b) {
    refresh();
    if (a == b) return true;
    if (b < 1) return false;
    while (b >= 1 && b <= count_) {
        b = ipdom_[b];
        if (b == a) return true;
    }
    return false;
}

bool Dominator::post_dominates(const BBLK* a, const BBLK* b) { return post_dominates(a->dfn, b->dfn); }

const std::vector<int>& Dominator::dominator_children(int dfn) {
    refresh();
    static const std::vector<int> none;
    return dfn >= 1 && dfn <= count_ ? children_[dfn] : none;
}

const std::vector<int>& Dominator::post_dominator_children(int dfn) {
    refresh();
    static const std::vector<int> none;
    return dfn >= 1 && dfn <= count_ ? pchildren_[dfn] : none;
}

std::vector<BBLK*> Dominator::dominator_children(const BBLK* bb) {
    std::vector<BBLK*> out;
    for (int d : dominator_children(bb->dfn)) out.push_back(DFSblock(d));
    return out;
}

std::vector<BBLK*> Dominator::post_dominator_children(const BBLK* bb) {
    std::vector<BBLK*> out;
    for (int d : post_dominator_children(bb->dfn)) out.push_back(DFSblock(d));
    return out;
}

BBLK* Dominator::DFSblock(int dfn) {
    refresh();
    if (dfn < 1 || dfn > count_) {
        if (print_debug && FDEBUG)
            DBG_CHECK(std::fprintf(FDEBUG, " Error attempting to find BB with dfn=%d (currfuninfo->bb_count=%d)\n",
                                   dfn, currfuninfo->bb_count));
        abort_optimizer();
    }
    return blocks_[dfn];
}

void Dominator::generate_tree_walk(int root, std::vector<int>& out, bool post) {
    refresh();
    const std::vector<std::vector<int>>& kids = post ? pchildren_ : children_;
    std::vector<int> stack{root};
    while (!stack.empty()) {
        int d = stack.back();
        stack.pop_back();
        out.push_back(d);
        for (auto it = kids[d].rbegin(); it != kids[d].rend(); ++it) stack.push_back(*it);
    }
}

std::vector<BBLK*> Dominator::depth_first_doms() {
    std::vector<int> walk;
    if (count_ > 0) generate_tree_walk(1, walk, false);
    std::vector<BBLK*> out;
    for (int d : walk) out.push_back(blocks_[d]);
    return out;
}

std::vector<BBLK*> Dominator::depth_first_postdoms() {
    refresh();
    std::vector<BBLK*> out;
    for (int d = 1; d <= count_; ++d) {
        if (ipdom_[d] != 0) continue;  // roots of the post-dominator forest
        std::vector<int> walk;
        generate_tree_walk(d, walk, true);
        for (int w : walk) out.push_back(blocks_[w]);
    }
    return out;
}

void Dominator::print_IDOM() {
    refresh();
    if (!print_debug || !FDEBUG) return;
    for (int d = 1; d <= count_; ++d) DBG_CHECK(std::fprintf(FDEBUG, "IDOM(BB%d) = BB%d\n", d, idom_[d]));
}

void Dominator::print_POSTDOM() {
    refresh();
    if (!print_debug || !FDEBUG) return;
    for (int d = 1; d <= count_; ++d) DBG_CHECK(std::fprintf(FDEBUG, "IPOSTDOM(BB%d) = BB%d\n", d, ipdom_[d]));
}
