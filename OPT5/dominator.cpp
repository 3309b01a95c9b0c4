#include "OPT5/dominator.h"

#include "OPT5/copyprop.h"

#include <cstdio>
#include <memory>

#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/globals.h"

namespace {
const char THIS_MODULE[] = "OPT5/dominator";
}

Dominator::Dominator() { builder(); }

namespace {
// The dominators of the thread's last graph that went: their vectors keep
// their room for the next one.
thread_local std::unique_ptr<Dominator> spare;

Dominator* fresh_dominators() {
    if (!spare) return new Dominator;
    Dominator* d = spare.release();
    d->builder();
    return d;
}
}  // namespace

void release_dominators(FUNINFO* fi) {
    if (fi->dominator) spare.reset(fi->dominator);
    fi->dominator = nullptr;
}

Dominator* compute_dominators(bool with_liveness) {
    FUNINFO* fi = currfuninfo;
    if (!fi->dominator) fi->dominator = fresh_dominators();
    else fi->dominator->builder();
    if (with_liveness) find_live_variables(true, true);
    return fi->dominator;
}

Dominator* dominators() {
    if (!currfuninfo->dominator) currfuninfo->dominator = fresh_dominators();
    return currfuninfo->dominator;
}

void Dominator::refresh() {
    if (dirty || count_ != currfuninfo->bb_count) builder();
}

Dominator::TREE& Dominator::tree(bool post) {
    refresh();
    TREE& t = post ? pdom_ : dom_;
    if (!t.built) build_tree(post);
    return t;
}

// The iterative "intersect" method: blocks are numbered in reverse postorder
// of a depth-first walk (from the entry along successors, or from the exits
// along predecessors), so that a dominator has a smaller number than every
// block it dominates.  Then the children of each block, and an interval per
// block from a walk of the tree, so that "a dominates b" is two comparisons.
void Dominator::build_tree(bool post) {
    TREE& t = post ? pdom_ : dom_;
    std::vector<int>& idom = t.idom;
    std::vector<int>& order = t.order;
    size_t size = static_cast<size_t>(count_) + 1;
    idom.assign(size, 0);
    order.assign(size, 0);
    postorder_.clear();
    seen_.assign(size, 0);
    auto next_of = [post](BBLK* b) { return post ? b->predecessors : b->successors; };
    auto prev_of = [post](BBLK* b) { return post ? b->successors : b->predecessors; };

    roots_.clear();
    if (!post) {
        roots_.push_back(1);
    } else {
        for (int d = 1; d <= count_; ++d)
            if (!blocks_[d]->successors) roots_.push_back(d);
    }
    // A virtual root 0 stands above several exits.
    for (int r : roots_) {
        stack_.assign(1, {r, next_of(blocks_[r])});
        seen_[r] = 1;
        while (!stack_.empty()) {
            auto& [d, e] = stack_.back();
            if (e) {
                int s = e->bb->dfn;
                e = e->rest;
                if (s >= 1 && s <= count_ && !seen_[s]) {
                    seen_[s] = 1;
                    stack_.push_back({s, next_of(blocks_[s])});
                }
            } else {
                postorder_.push_back(d);
                stack_.pop_back();
            }
        }
    }
    int n = static_cast<int>(postorder_.size());
    for (int i = 0; i < n; ++i) order[postorder_[n - 1 - i]] = i + 1;
    auto intersect = [&](int a, int b) {
        while (a != b) {
            while (a != 0 && b != 0 && order[a] > order[b]) a = idom[a];
            while (a != 0 && b != 0 && order[b] > order[a]) b = idom[b];
            if (a == 0 || b == 0) return 0;  // only the virtual root is common
        }
        return a;
    };
    // `done`: 1 for a block with a dominator found, 2 for a root.
    done_.assign(size, 0);
    for (int r : roots_) done_[r] = 2;
    bool changed = true;
    while (changed) {
        changed = false;
        for (int i = n - 1; i >= 0; --i) {
            int d = postorder_[i];
            if (done_[d] == 2) continue;
            int nd = -1;
            for (EDGE* e = prev_of(blocks_[d]); e; e = e->rest) {
                int p = e->bb->dfn;
                if (p < 1 || p > count_ || !done_[p]) continue;
                nd = nd < 0 ? p : intersect(p, nd);
            }
            if (nd >= 0 && idom[d] != nd) {
                idom[d] = nd;
                changed = true;
            }
            if (nd >= 0) done_[d] = 1;
        }
    }
    // Children in dfn order, counted first.
    t.first_kid.assign(size + 1, 0);
    for (int d = 1; d <= count_; ++d) {
        if (done_[d] == 2) continue;
        if (!done_[d] || idom[d] == 0) {
            if (print_debug && FDEBUG)
                DBG_CHECK(std::fprintf(FDEBUG, post ? "**** >>>> WARNING: BB%d doesn't have a postdominator\n"
                                                    : "**** >>>> WARNING: BB%d doesn't have a dominator\n",
                                       d));
            idom[d] = 0;
            continue;
        }
        ++t.first_kid[static_cast<size_t>(idom[d]) + 1];
    }
    for (size_t d = 1; d <= size; ++d) t.first_kid[d] += t.first_kid[d - 1];
    t.kids.assign(static_cast<size_t>(t.first_kid[size]), 0);
    std::vector<int>& fill = postorder_;  // the next free place of each block's children
    fill.assign(t.first_kid.begin(), t.first_kid.end() - 1);
    for (int d = 1; d <= count_; ++d)
        if (done_[d] == 1 && idom[d] != 0) t.kids[static_cast<size_t>(fill[static_cast<size_t>(idom[d])]++)] = d;
    // Intervals: entered before every block below, left after them.
    t.enter.assign(size, 0);
    t.leave.assign(size, 0);
    int clock = 0;
    std::vector<int>& next = postorder_;  // the children of each block visited so far
    next.assign(size, 0);
    // The trees hang from the roots, and from the blocks that only the
    // virtual root stands above.
    for (int d = 1; d <= count_; ++d)
        if (done_[d] == 1 && idom[d] == 0) roots_.push_back(d);
    for (int r : roots_) {
        stack_.assign(1, {r, nullptr});
        t.enter[r] = ++clock;
        while (!stack_.empty()) {
            int d = stack_.back().first;
            int k = t.first_kid[d] + next[d];
            if (k < t.first_kid[d + 1]) {
                ++next[d];
                int c = t.kids[static_cast<size_t>(k)];
                t.enter[c] = ++clock;
                stack_.push_back({c, nullptr});
            } else {
                t.leave[d] = ++clock;
                stack_.pop_back();
            }
        }
    }
    t.built = true;
}

void Dominator::builder() {
    count_ = currfuninfo->bb_count;
    blocks_.assign(count_ + 1, nullptr);
    for (BBLK* b = currfuninfo->bb_list; b; b = b->next)
        if (b->dfn >= 1 && b->dfn <= count_) blocks_[b->dfn] = b;
    dom_.built = pdom_.built = false;
    dirty = false;
    if (count_ > 0) build_tree(false);
}

bool Dominator::within(const TREE& t, int a, int b) {
    if (a == b) return true;
    if (a < 1 || b < 1 || a >= static_cast<int>(t.enter.size()) || b >= static_cast<int>(t.enter.size()))
        return false;
    return t.enter[a] && t.enter[b] && t.enter[a] < t.enter[b] && t.leave[b] < t.leave[a];
}

int Dominator::immediate_dominator(int dfn) {
    TREE& t = tree(false);
    return dfn >= 1 && dfn <= count_ ? t.idom[dfn] : 0;
}

BBLK* Dominator::immediate_dominator(const BBLK* bb) {
    int d = immediate_dominator(bb->dfn);
    return d ? blocks_[d] : nullptr;
}

int Dominator::immediate_post_dominator(int dfn) {
    TREE& t = tree(true);
    return dfn >= 1 && dfn <= count_ ? t.idom[dfn] : 0;
}

BBLK* Dominator::immediate_post_dominator(const BBLK* bb) {
    int d = immediate_post_dominator(bb->dfn);
    return d ? blocks_[d] : nullptr;
}

bool Dominator::dominates(int a, int b) { return a == b || within(tree(false), a, b); }

bool Dominator::dominates(const BBLK* a, const BBLK* b) { return dominates(a->dfn, b->dfn); }

bool Dominator::post_dominates(int a, int b) { return a == b || within(tree(true), a, b); }

bool Dominator::post_dominates(const BBLK* a, const BBLK* b) { return post_dominates(a->dfn, b->dfn); }

std::span<const int> Dominator::children(bool post, int dfn) {
    TREE& t = tree(post);
    if (dfn < 1 || dfn > count_) return {};
    return {t.kids.data() + t.first_kid[dfn], static_cast<size_t>(t.first_kid[dfn + 1] - t.first_kid[dfn])};
}

std::span<const int> Dominator::dominator_children(int dfn) { return children(false, dfn); }

std::span<const int> Dominator::post_dominator_children(int dfn) { return children(true, dfn); }

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
    const TREE& t = tree(post);
    std::vector<int> stack{root};
    while (!stack.empty()) {
        int d = stack.back();
        stack.pop_back();
        out.push_back(d);
        for (int k = t.first_kid[d + 1] - 1; k >= t.first_kid[d]; --k) stack.push_back(t.kids[static_cast<size_t>(k)]);
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
    const TREE& t = tree(true);
    std::vector<BBLK*> out;
    for (int d = 1; d <= count_; ++d) {
        if (t.idom[d] != 0) continue;  // roots of the post-dominator forest
        std::vector<int> walk;
        generate_tree_walk(d, walk, true);
        for (int w : walk) out.push_back(blocks_[w]);
    }
    return out;
}

void Dominator::print_IDOM() {
    const TREE& t = tree(false);
    if (!print_debug || !FDEBUG) return;
    for (int d = 1; d <= count_; ++d) DBG_CHECK(std::fprintf(FDEBUG, "IDOM(BB%d) = BB%d\n", d, t.idom[d]));
}

void Dominator::print_POSTDOM() {
    const TREE& t = tree(true);
    if (!print_debug || !FDEBUG) return;
    for (int d = 1; d <= count_; ++d) DBG_CHECK(std::fprintf(FDEBUG, "IPOSTDOM(BB%d) = BB%d\n", d, t.idom[d]));
}
