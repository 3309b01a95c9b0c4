// Dominator and post-dominator trees of a function, rebuilt on demand.
#pragma once

#include <vector>

struct BBLK;

class Dominator {
public:
    Dominator();  // builds both trees for the current function

    bool dirty = false;  // set by every edit of the flow graph

    int immediate_dominator(int dfn);
    BBLK* immediate_dominator(const BBLK* bb);
    int immediate_post_dominator(int dfn);
    BBLK* immediate_post_dominator(const BBLK* bb);
    bool dominates(int a, int b);
    bool dominates(const BBLK* a, const BBLK* b);
    bool post_dominates(int a, int b);
    bool post_dominates(const BBLK* a, const BBLK* b);
    const std::vector<int>& dominator_children(int dfn);
    const std::vector<int>& post_dominator_children(int dfn);
    std::vector<BBLK*> dominator_children(const BBLK* bb);
    std::vector<BBLK*> post_dominator_children(const BBLK* bb);
    BBLK* DFSblock(int dfn);
    std::vector<BBLK*> depth_first_doms();
    std::vector<BBLK*> depth_first_postdoms();
    void generate_tree_walk(int root, std::vector<int>& out, bool post);
    void print_IDOM();
    void print_POSTDOM();

    void builder();

private:
    int count_ = 0;
    std::vector<BBLK*> blocks_;       // by dfn
    std::vector<int> idom_, ipdom_;   // by dfn; 0: none
    std::vector<int> order_, porder_; // the walk numbers used by intersect
    std::vector<std::vector<int>> children_, pchildren_;

    void refresh();
    void build_tree(bool post);
};

// Makes (or rebuilds) the current function's dominators; with liveness the
// live-variable analysis runs afterwards.
Dominator* compute_dominators(bool with_liveness);
// The current function's dominators, built on first use.
Dominator* dominators();
