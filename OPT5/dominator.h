// Dominator and post-dominator trees of a function, rebuilt on demand.
#pragma once

#include <span>
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
    std::span<const int> dominator_children(int dfn);
    std::span<const int> post_dominator_children(int dfn);
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
    // One tree (or, for post-dominators, a forest under a virtual root 0),
    // every vector by dfn.
    struct TREE {
        bool built = false;
        std::vector<int> idom;             // 0: none
        std::vector<int> order;            // the walk numbers used by intersect
        std::vector<int> first_kid, kids;  // d's children: kids[first_kid[d] .. first_kid[d + 1])
        std::vector<int> enter, leave;     // d's interval in a walk of the tree; 0: not in it
    };
    int count_ = 0;
    std::vector<BBLK*> blocks_;  // by dfn
    TREE dom_, pdom_;            // post-dominators are worked out when first asked for
    // Work space kept between rebuilds.
    std::vector<int> postorder_, roots_;
    std::vector<char> seen_, done_;
    std::vector<std::pair<int, struct EDGE*>> stack_;

    void refresh();
    TREE& tree(bool post);
    std::span<const int> children(bool post, int dfn);
    void build_tree(bool post);
    static bool within(const TREE& t, int a, int b);
};

// Makes (or rebuilds) the current function's dominators; with liveness the
// live-variable analysis runs afterwards.
Dominator* compute_dominators(bool with_liveness);
// The current function's dominators, built on first use.
Dominator* dominators();
// Lets go of a function's dominators (its flow graph is gone).
void release_dominators(struct FUNINFO* fi);
