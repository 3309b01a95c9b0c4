#include <gtest/gtest.h>

#include <set>

#include "BITVEC/bitvec.h"
#include "OPT5/bbutils.h"
#include "OPT5/copyprop.h"
#include "OPT5/ddbloop.h"
#include "OPT5/dominator.h"
#include "OPT5/opt_client.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/symtab.h"

namespace {

// Builds a function from statements and runs buildcfg on it.
class Cfg : public ::testing::Test {
protected:
    void SetUp() override {
        init_opcode_tables();
        init_types();  // the run's package, for the types the passes make
        currfuninfo = &fi;
        i.name = "i";
        c.name = "c";
    }
    void TearDown() override {
        free_cfg(&fi);
        currfuninfo = nullptr;
    }
    NODE* name(SYMTAB& s) {
        NODE* n = new_node(NAME, i16);
        n->symbol = &s;
        return n;
    }
    NODE* k(int v) { return mk_ICON(v, i16); }
    void stmt(NODE* t) {
        BODY_ENTRY e;
        e.tree = t;
        fi.body.push_back(e);
    }
    void label(int n) { stmt(mk_LABELDEF(mk_LABELREF(n))); }
    void branch(int n) { stmt(mktree(BRANCH, nullptr, mk_LABELREF(n))); }
    void cbranch(NODE* cond, int n) { stmt(mktree(CBRANCH, nullptr, cond, mk_LABELREF(n))); }
    void set(SYMTAB& s, int v) { stmt(mktree(ASG, i16, name(s), k(v))); }
    void step(SYMTAB& s, int v) { stmt(mktree(PLUSASG, i16, name(s), k(v))); }
    void ret() { stmt(mktree(URETURN, i16, k(0))); }
    NODE* cmp(int op, SYMTAB& s, int v) { return mktree(op, i16, name(s), k(v)); }

    std::vector<int> succs(int dfn) {
        std::vector<int> out;
        for (EDGE* e = dominators()->DFSblock(dfn)->successors; e; e = e->rest) out.push_back(e->bb->dfn);
        std::sort(out.begin(), out.end());
        return out;
    }

    TYPE_PKG pkg;
    TYPE* i16 = pkg.mk_int(TYPE::IK_INT, true);
    FUNINFO fi{nullptr};
    SYMTAB i, c;
};

TEST_F(Cfg, BlocksEdgesAndDominatorsOfADiamond) {
    set(i, 0);
    cbranch(cmp(LT, i, 1), 1);
    set(i, 2);
    branch(2);
    label(1);
    set(i, 3);
    label(2);
    ret();
    buildcfg();
    ASSERT_EQ(fi.bb_count, 4);
    EXPECT_EQ(succs(1), (std::vector<int>{2, 3}));
    EXPECT_EQ(succs(2), (std::vector<int>{4}));
    EXPECT_EQ(succs(3), (std::vector<int>{4}));
    EXPECT_TRUE(succs(4).empty());
    Dominator* d = dominators();
    EXPECT_EQ(d->immediate_dominator(2), 1);
    EXPECT_EQ(d->immediate_dominator(3), 1);
    EXPECT_EQ(d->immediate_dominator(4), 1);
    EXPECT_EQ(d->immediate_post_dominator(1), 4);
    EXPECT_EQ(d->immediate_post_dominator(2), 4);
    EXPECT_TRUE(d->dominates(3, 3));
    EXPECT_FALSE(d->dominates(3, 0));
    EXPECT_FALSE(d->dominates(2, 4));
    EXPECT_TRUE(d->post_dominates(4, 1));
    std::span<const int> kids = d->dominator_children(1);
    EXPECT_EQ(std::vector<int>(kids.begin(), kids.end()), (std::vector<int>{2, 3, 4}));
    EXPECT_EQ(d->DFSblock(3)->label, 1);
    EXPECT_EXIT(d->DFSblock(9), ::testing::ExitedWithCode(1), "terminated abnormally");

    // Adding an edge that is already there changes nothing, not even the dominators.
    BBLK* b1 = d->DFSblock(1);
    EDGE* before = b1->successors;
    EXPECT_EQ(add_edge(d->DFSblock(2), before), before);
    EXPECT_FALSE(d->dirty);
    b1->successors = add_edge(d->DFSblock(4), b1->successors);
    EXPECT_TRUE(d->dirty);
    EXPECT_EQ(d->immediate_dominator(4), 1);  // rebuilt on the query
}

// On random graphs (jumps forward and back, several returns, blocks no one
// reaches, loops with no way out) every dominance answer agrees with the
// definition: a dominates b when b can be reached from the entry and no
// longer once a is taken away; a post-dominates b when b reaches a return
// and no longer without a.  Children are the blocks whose nearest dominator
// the block is.
TEST_F(Cfg, DominanceAgreesWithPathsOnRandomGraphs) {
    unsigned seed = 12345;
    auto next = [&](unsigned n) {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) % n;
    };
    for (int round = 0; round < 40; ++round) {
        free_cfg(&fi);
        fi.body.clear();
        const int labels = 3 + static_cast<int>(next(8));
        std::vector<int> order;
        for (int l = 1; l <= labels; ++l) order.push_back(l);
        for (int l = labels - 1; l > 0; --l) std::swap(order[static_cast<size_t>(l)], order[next(l + 1)]);
        for (int l : order) {
            set(i, l);
            switch (next(5)) {
            case 0: cbranch(cmp(LT, i, l), 1 + static_cast<int>(next(labels))); break;
            case 1: branch(1 + static_cast<int>(next(labels))); break;
            case 2: ret(); break;
            default: break;
            }
            label(l);
        }
        if (next(2)) ret();
        buildcfg();
        Dominator* d = dominators();
        const int n = fi.bb_count;
        // Blocks reached from `from` along successors (or predecessors),
        // never entering `without`.
        auto reached = [&](int from, int without, bool backwards) {
            std::vector<char> seen(static_cast<size_t>(n) + 1, 0);
            std::vector<int> work;
            if (from != without) work.push_back(from), seen[static_cast<size_t>(from)] = 1;
            while (!work.empty()) {
                BBLK* b = d->DFSblock(work.back());
                work.pop_back();
                for (EDGE* e = backwards ? b->predecessors : b->successors; e; e = e->rest)
                    if (e->bb->dfn != without && !seen[static_cast<size_t>(e->bb->dfn)])
                        seen[static_cast<size_t>(e->bb->dfn)] = 1, work.push_back(e->bb->dfn);
            }
            return seen;
        };
        std::vector<int> exits;
        for (int b = 1; b <= n; ++b)
            if (!d->DFSblock(b)->successors) exits.push_back(b);
        auto reaches_exit = [&](int b, int without) {
            std::vector<char> seen = reached(b, without, false);
            for (int x : exits)
                if (seen[static_cast<size_t>(x)]) return true;
            return false;
        };
        std::vector<char> from_entry = reached(1, 0, false);
        for (int a = 1; a <= n; ++a) {
            std::vector<char> avoiding = reached(1, a, false);
            for (int b = 1; b <= n; ++b) {
                SCOPED_TRACE(testing::Message() << "round " << round << ", BB" << a << " and BB" << b);
                bool dom = a == b || (from_entry[static_cast<size_t>(b)] && !avoiding[static_cast<size_t>(b)]);
                EXPECT_EQ(d->dominates(a, b), dom);
                bool pdom = a == b || (reaches_exit(b, 0) && !reaches_exit(b, a));
                EXPECT_EQ(d->post_dominates(a, b), pdom);
                const auto& kids = d->dominator_children(a);
                bool child = std::find(kids.begin(), kids.end(), b) != kids.end();
                EXPECT_EQ(child, a != b && d->immediate_dominator(b) == a);
                if (a != b && d->immediate_dominator(b) == a) EXPECT_TRUE(dom);
            }
        }
    }
}

// A jump finds its block whatever the label's number; the blocks the graph
// makes for statements without a label get new numbers no jump uses.
TEST_F(Cfg, JumpsFindTheirBlocksWhateverTheLabel) {
    for (int target : {1, 7, 1000}) {
        free_cfg(&fi);
        fi.body.clear();
        set(i, 0);
        cbranch(cmp(LT, i, 1), target);
        set(i, 2);
        label(target);
        ret();
        buildcfg();
        ASSERT_EQ(fi.bb_count, 3) << target;
        EXPECT_EQ(succs(1), (std::vector<int>{2, 3})) << target;
        EXPECT_EQ(dominators()->DFSblock(3)->label, target);
        EXPECT_GT(dominators()->DFSblock(2)->label, target);  // made here
    }
}

// Numbering the blocks of a graph whose successor lists are all there
// marks its edges complete, once: a mark set already stays as it is.
TEST_F(Cfg, NumberingCompletesPendingEdges) {
    set(i, 0);
    cbranch(cmp(LT, i, 1), 1);
    set(i, 2);
    label(1);
    ret();
    buildcfg();
    fi.set_flags(FUN_EDGES_PENDING);
    renumber_bblocks();
    EXPECT_EQ(fi.flags() & (FUN_EDGES_PENDING | FUN_EDGES_COMPLETE), unsigned{FUN_EDGES_COMPLETE});
    fi.set_flags(FUN_EDGES_PENDING);
    renumber_bblocks();
    EXPECT_EQ(fi.flags() & (FUN_EDGES_PENDING | FUN_EDGES_COMPLETE), unsigned{FUN_EDGES_PENDING | FUN_EDGES_COMPLETE});
}

// Dominators asked for with liveness come with each block's live-in set.
TEST_F(Cfg, DominatorsWithLivenessKnowWhatIsLiveOnEntry) {
    BODY_ENTRY decl;
    decl.kind = BODY_ENTRY::SYMBOL;
    decl.sym = &i;
    i.type = i16;
    fi.body.push_back(decl);
    cbranch(cmp(LT, i, 1), 1);  // reads i before anything sets it
    set(i, 2);
    label(1);
    stmt(mktree(URETURN, i16, name(i)));
    buildcfg();
    Dominator* d = compute_dominators(true);
    auto live = [&](int dfn) {
        const BITVEC* v = d->DFSblock(dfn)->live_in;
        return v && v->any();
    };
    EXPECT_TRUE(live(1));
    EXPECT_FALSE(live(2));  // sets i first
    EXPECT_TRUE(live(3));
    free_liveness(&fi);
}

// Liveness with loops gives each loop what is live where it may be left:
// c, read after the loop, and not the counter, which is set again there.
TEST_F(Cfg, LoopsKnowWhatIsLiveWhereTheyAreLeft) {
    for (SYMTAB* s : {&i, &c}) {
        BODY_ENTRY decl;
        decl.kind = BODY_ENTRY::SYMBOL;
        decl.sym = s;
        s->type = i16;
        fi.body.push_back(decl);
    }
    set(i, 0);
    set(c, 5);
    label(1);
    step(i, 1);
    cbranch(cmp(LT, i, 4), 1);
    set(i, 0);
    stmt(mktree(URETURN, i16, name(c)));
    buildcfg();
    build_loop_hierarchy(false, false, false, 1);
    ASSERT_EQ(fi.loops.size(), 1u);
    find_live_variables(true, true);
    const BITVEC* out = fi.loops[0]->live_out;
    ASSERT_NE(out, nullptr);
    EXPECT_TRUE(out->test(static_cast<size_t>(lva_index(&c))));
    EXPECT_FALSE(out->test(static_cast<size_t>(lva_index(&i))));
    free_liveness(&fi);
    EXPECT_EQ(fi.loops[0]->live_out, nullptr);
}

TEST_F(Cfg, SortKeepsTheHeadCellAndEqualOrder) {
    BBLK a, b, c2, d2;
    a.dfn = 3;
    b.dfn = 1;
    c2.dfn = 2;
    d2.dfn = 1;
    EDGE* list = nullptr;
    for (BBLK* x : {&d2, &c2, &b, &a}) list = new EDGE{x, -1.0, list};  // 3 1 2 1
    EDGE* head = list;
    sort_edge_list(list);
    EXPECT_EQ(list, head);
    std::vector<BBLK*> order;
    for (EDGE* e = list; e; e = e->rest) order.push_back(e->bb);
    EXPECT_EQ(order, (std::vector<BBLK*>{&b, &d2, &c2, &a}));
    free_edge_list(list);

    // The sort for long lists gives the same order, weights travelling
    // with their blocks.
    std::vector<BBLK> many(200);
    EDGE* slow = nullptr;
    for (size_t k = 0; k < many.size(); ++k) {
        many[k].dfn = static_cast<int>((k * 37) % 23);
        slow = new EDGE{&many[k], static_cast<double>(k), slow};
    }
    EDGE* fast = copy_edge_list(slow);
    sort_edge_list(slow);
    fast_sort_edge_list(fast);
    for (EDGE *x = slow, *y = fast; x || y; x = x->rest, y = y->rest) {
        ASSERT_TRUE(x && y);
        EXPECT_EQ(x->bb, y->bb);
        EXPECT_EQ(x->weight, y->weight);
    }
    free_edge_list(slow);
    free_edge_list(fast);
}

// A block put on the way from B2 to the join, by hand: B2's jump is
// remapped to it and B2's edges redone from the jump; the graph is then the
// one the statements give when rebuilt.
TEST_F(Cfg, EditedJumpsAndEdgesAgreeWithARebuiltGraph) {
    cbranch(cmp(LT, i, 1), 1);  // B1 -> B2, B3
    set(i, 2);
    branch(2);                  // B2 -> B4
    label(1);
    set(i, 3);                  // B3 -> B4
    label(2);
    ret();
    buildcfg();
    Dominator* d = dominators();
    BBLK* b2 = d->DFSblock(2);
    BBLK* b4 = d->DFSblock(4);
    BBLK* n = insert_new_bb_with_branch(0, b4, b4, nullptr);  // laid out last, jumps back to B4
    EXPECT_EQ(n->prev, b4);
    EXPECT_EQ(fi.bb_list->prev, n);
    EXPECT_NE(n->label, 0);
    EXPECT_EQ(mklabel(0, n), n->label);  // keeps the label it has
    NODE* jump = b2->statements.back().tree;
    EXPECT_FALSE(remap_labelrefs(jump, 99, n->label));
    EXPECT_TRUE(remap_labelrefs(jump, b4->label, n->label));
    fixup_edge_lists(b2, jump);
    n->successors = add_edge(b4, n->successors);
    b4->predecessors = add_edge(n, b4->predecessors);
    renumber_bblocks();
    auto preds = [](BBLK* b) {
        std::vector<int> out;
        for (EDGE* e = b->predecessors; e; e = e->rest) out.push_back(e->bb->dfn);
        std::sort(out.begin(), out.end());
        return out;
    };
    EXPECT_EQ(succs(2), (std::vector<int>{5}));
    EXPECT_EQ(preds(b4), (std::vector<int>{3, 5}));
    EXPECT_EQ(dominators()->immediate_dominator(b4), dominators()->DFSblock(1));
    EXPECT_EQ(dominators()->dominator_children(dominators()->DFSblock(2)),
              (std::vector<BBLK*>{dominators()->DFSblock(5)}));
    std::vector<int> under_b4;  // what B4 is the nearest post-dominator of
    for (BBLK* b : dominators()->post_dominator_children(b4)) under_b4.push_back(b->dfn);
    std::sort(under_b4.begin(), under_b4.end());
    EXPECT_EQ(under_b4, (std::vector<int>{1, 3, 5}));
    rebuildcfg();
    EXPECT_EQ(succs(2), (std::vector<int>{5}));
    EXPECT_EQ(succs(5), (std::vector<int>{4}));
    EXPECT_EQ(preds(dominators()->DFSblock(4)), (std::vector<int>{3, 5}));

    // Taken out of the layout, the block is gone from the walk.
    BBLK* last = fi.bb_list->prev;
    delink_old_bb(last);
    EXPECT_TRUE(dominators()->dirty);
    renumber_bblocks();
    EXPECT_EQ(layout_blocks().size(), 4u);
    EXPECT_EQ(fi.bb_list->prev, dominators()->DFSblock(4));
    free_edge_list(last->predecessors);
    free_edge_list(last->successors);
    erase_tree_list(last->statements);
    EXPECT_TRUE(last->statements.empty());
    delete last;
}

// A test on a constant folds; the edges out of its block are redone in
// place, the blocks stay the same objects.
TEST_F(Cfg, FoldedTestsLeaveTheRestOfTheGraphAlone) {
    set(i, 0);
    cbranch(mk_ICON(0, i16), 1);  // never taken: B1 -> B2 only
    set(i, 2);
    label(1);
    ret();
    buildcfg();
    std::vector<BBLK*> before = layout_blocks();
    EXPECT_TRUE(simpcfg(false, false));
    EXPECT_EQ(layout_blocks(), before);
    EXPECT_EQ(succs(1), (std::vector<int>{2}));
    EXPECT_EQ(edge_length(before[2]->predecessors), 1);
    EXPECT_EQ(before[2]->predecessors->bb, before[1]);
    EXPECT_EQ(dominators()->immediate_dominator(before[2]), before[1]);
}

// The block on a jump's edge goes where no block falls into it: B1 falls
// into B2, and B2 into B3; the new block comes last and jumps to B3.  The
// statements say what the edges say (a rebuilt graph is the same).
TEST_F(Cfg, CriticalEdgeIsSplit) {
    cbranch(cmp(LT, i, 1), 2);  // B1 -> B2, B3
    set(i, 2);                  // B2 -> B3
    label(2);
    ret();                      // B3 has two predecessors
    buildcfg();
    ASSERT_EQ(fi.bb_count, 3);
    split_critical_edges(false);
    ASSERT_EQ(fi.bb_count, 4);
    for (int rebuilt = 0; rebuilt < 2; ++rebuilt) {
        BBLK* n = dominators()->DFSblock(4);
        EXPECT_TRUE(bb_is_split_critical_edge(n));
        EXPECT_EQ(succs(1), (std::vector<int>{2, 4}));
        EXPECT_EQ(succs(2), (std::vector<int>{3}));
        EXPECT_EQ(succs(4), (std::vector<int>{3}));
        // B1's jump now goes to the new block.
        const NODE* jump = dominators()->DFSblock(1)->last_tree();
        EXPECT_EQ(jump->right->value, INT65(n->label));
        rebuildcfg();
    }
}

// A loop entered by a jump from a block that falls elsewhere, and one
// entered from two blocks: the preheader takes every way in, the block
// fallen into before stays where it was, and a rebuilt graph agrees.
TEST_F(Cfg, PreheadersTakeEveryWayIntoTheLoop) {
    for (int entries : {1, 2}) {
        free_cfg(&fi);
        set(i, 0);
        cbranch(cmp(GE, c, 1), 1);  // B1: into the loop, or on to B2
        if (entries == 1) ret();    // B2 returns
        else set(i, 5);             // B2 falls into the loop
        label(1);
        step(i, 1);                 // B3: the loop
        cbranch(cmp(LT, i, 9), 1);
        ret();
        buildcfg();
        build_loop_hierarchy(false, false, false, 0);
        ASSERT_EQ(fi.loops.size(), 1u);
        BBLK* pre = preheader_of(fi.loops[0]);
        ASSERT_NE(pre, nullptr) << entries;
        int pre_label = pre->label, head_label = fi.loops[0]->head->label;
        unbuild_loop_hierarchy();
        for (int rebuilt = 0; rebuilt < 2; ++rebuilt) {
            BBLK* head = nullptr;
            for (BBLK* b = fi.bb_list; b; b = b->next) {
                if (b->label == pre_label) pre = b;
                if (b->label == head_label) head = b;
            }
            ASSERT_NE(head, nullptr);
            EXPECT_EQ(edge_length(head->predecessors), 2) << entries;  // the preheader and the loop
            EXPECT_TRUE(edge_memberp(pre, head->predecessors)) << entries;
            EXPECT_EQ(edge_length(pre->predecessors), entries) << entries;
            BBLK* b1 = fi.bb_list;
            EXPECT_TRUE(edge_memberp(b1->next, b1->successors)) << entries;  // still falls into B2
            EXPECT_TRUE(edge_memberp(pre, b1->successors)) << entries;
            rebuildcfg();
        }
    }
}

TEST_F(Cfg, CountedLoopTestedAtTheBottom) {
    set(i, 0);
    label(1);
    set(c, 7);
    step(i, 2);
    cbranch(cmp(LT, i, 9), 1);
    ret();
    buildcfg();
    build_loop_hierarchy(false, false, false, 1);
    ASSERT_EQ(fi.loops.size(), 1u);
    struct LOOP* l = fi.loops[0];
    EXPECT_EQ(l->level, 1);
    EXPECT_EQ(l->head, l->tail);
    EXPECT_EQ(l->preheader, fi.bb_list);
    EXPECT_EQ(l->LCV, &i);
    ASSERT_NE(l->trips, nullptr);
    EXPECT_EQ(l->trips->value, INT65(5));  // i = 0, 2, 4, 6, 8
    ASSERT_EQ(l->ivs.size(), 1u);          // c is assigned a constant, not stepped
    EXPECT_EQ(l->ivs[0].step, INT65(2));
    EXPECT_EQ(edge_length(l->exits), 1);
}

TEST_F(Cfg, CountedLoopTestedAtTheTop) {
    set(i, 10);
    label(1);
    cbranch(cmp(LE, i, 0), 2);
    step(i, -3);
    branch(1);
    label(2);
    ret();
    buildcfg();
    build_loop_hierarchy(false, false, false, 1);
    ASSERT_EQ(fi.loops.size(), 1u);
    ASSERT_NE(fi.loops[0]->trips, nullptr);
    EXPECT_EQ(fi.loops[0]->trips->value, INT65(4));  // i = 10, 7, 4, 1
}

// i++ steps a counter as i += 1 does; a != test the counter starts beyond
// is reached only by wrapping around, so it gives no trip count.
TEST_F(Cfg, IncrementsCountAndWrappingTestsDoNot) {
    set(i, 0);
    label(1);
    stmt(mktree(PLUSPLUS, i16, name(i), k(1)));
    cbranch(cmp(LT, i, 6), 1);
    set(c, 20);
    label(2);
    stmt(mktree(PLUSPLUS, i16, name(c), k(1)));
    cbranch(cmp(NEQ, c, 4), 2);
    ret();
    buildcfg();
    build_loop_hierarchy(false, false, false, 1);
    ASSERT_EQ(fi.loops.size(), 2u);
    for (struct LOOP* l : fi.loops) {
        ASSERT_EQ(l->ivs.size(), 1u);
        EXPECT_EQ(l->ivs[0].step, INT65(1));
        if (l->LCV == &i) {
            ASSERT_NE(l->trips, nullptr);
            EXPECT_EQ(l->trips->value, INT65(6));
        } else {
            EXPECT_EQ(l->trips, nullptr);
        }
    }
}

TEST_F(Cfg, TwoBackEdgesBecomeNestedLoops) {
    set(i, 0);
    label(1);
    step(i, 1);
    cbranch(cmp(LT, i, 3), 1);  // first latch: the header itself
    step(c, 1);
    cbranch(cmp(LT, c, 3), 1);  // second latch
    ret();
    buildcfg();
    int blocks = fi.bb_count;
    build_loop_hierarchy(false, false, false, 1);
    EXPECT_EQ(fi.bb_count, blocks + 1);
    ASSERT_EQ(fi.loops.size(), 2u);
    struct LOOP* inner = fi.loops[0]->parent ? fi.loops[0] : fi.loops[1];
    struct LOOP* outer = inner->parent;
    ASSERT_NE(outer, nullptr);
    EXPECT_EQ(outer->level, 1);
    EXPECT_EQ(inner->level, 2);
    EXPECT_EQ(outer->head->next, inner->head);  // the new header stands right before the old
    EXPECT_EQ(inner->tail, inner->head);
}

TEST_F(Cfg, ThreeBackEdgesShareOneLatch) {
    label(1);
    step(i, 1);
    cbranch(cmp(LT, i, 3), 1);
    cbranch(cmp(LT, c, 3), 1);
    cbranch(cmp(LT, c, 4), 1);
    ret();
    buildcfg();
    build_loop_hierarchy(false, false, false, 1);
    ASSERT_EQ(fi.loops.size(), 1u);
    struct LOOP* l = fi.loops[0];
    EXPECT_EQ(edge_length(l->head->predecessors), 2);  // the entry and the shared latch
    EXPECT_EQ(l->tail->statements.size(), 1u);        // the new block: one jump
    EXPECT_EQ(l->tail->last_tree()->opcode, BRANCH);
    // It stands right after the last latch, whose test is turned round to
    // go on to the return, which it used to fall into.
    BBLK* lmax = l->tail->prev;
    ASSERT_NE(lmax->last_tree(), nullptr);
    EXPECT_EQ(stmt2infix(lmax->last_tree()), "CBRANCH((c >= 4), L" + std::to_string(l->tail->next->label) + ")");
    EXPECT_EQ(l->tail->next->last_tree()->opcode, URETURN);
    EXPECT_TRUE(edge_memberp(l->tail, lmax->successors));
    EXPECT_TRUE(edge_memberp(l->tail->next, lmax->successors));
    EXPECT_FALSE(edge_memberp(l->head, lmax->successors));
}

TEST_F(Cfg, IrreducibleFlowHasNoLoops) {
    cbranch(cmp(LT, c, 1), 2);  // enters the cycle in its middle
    label(1);
    set(i, 1);
    label(2);
    cbranch(cmp(LT, i, 5), 1);
    ret();
    buildcfg();
    build_loop_hierarchy(false, false, false, 1);
    EXPECT_TRUE(fi.loops.empty());
    for (BBLK* b : layout_blocks()) EXPECT_EQ(b->loop, nullptr);
}

// The nest alone: loops, levels and preheaders, but no control variables
// (those come with the analyses of the full hierarchy).
TEST_F(Cfg, MinimalHierarchyHasTheNestWithoutTheAnalyses) {
    set(i, 0);
    label(1);
    set(c, 0);
    label(2);
    step(c, 1);
    cbranch(cmp(LT, c, 4), 2);
    step(i, 1);
    cbranch(cmp(LT, i, 8), 1);
    ret();
    buildcfg();
    ASSERT_TRUE(build_minimal_loop_hierarchy(true));
    ASSERT_EQ(fi.loops.size(), 2u);
    for (struct LOOP* l : fi.loops) {
        EXPECT_EQ(l->level, l->parent ? 2 : 1);
        EXPECT_EQ(l->LCV, nullptr);
        EXPECT_NE(l->preheader, nullptr);
    }
    build_loop_hierarchy(false, false, false, 1);
    ASSERT_EQ(fi.loops.size(), 2u);
    for (struct LOOP* l : fi.loops) EXPECT_EQ(l->LCV, l->parent ? &c : &i);
}

// What each loop of a nest changes: the inner loop assigns c only; the
// outer one also i and stores through a pointer.  A variable whose address
// is taken is shared: assigning it changes memory.
TEST_F(Cfg, RegionConstantsAreWhatALoopLeavesAlone) {
    SYMTAB p, t;
    p.name = "p";
    t.name = "t";
    TYPE* pi = pkg.mk_ptr(i16);
    set(i, 0);
    label(1);
    set(c, 0);
    label(2);
    step(c, 1);
    cbranch(mktree(LT, i16, name(c), name(t)), 2);
    NODE* ptr = name(p);
    ptr->type = pi;
    stmt(mktree(ASG, i16, mktree(UMULT, i16, ptr), k(0)));  // *p = 0
    step(i, 1);
    cbranch(cmp(LT, i, 8), 1);
    ret();
    buildcfg();
    build_loop_hierarchy(false, false, false, 1);
    ASSERT_EQ(fi.loops.size(), 2u);
    struct LOOP* inner = fi.loops[0]->parent ? fi.loops[0] : fi.loops[1];
    struct LOOP* outer = inner->parent;
    EXPECT_EQ(inner->effects.assigned, (std::set<const SYMTAB*>{&c}));
    EXPECT_FALSE(inner->effects.memory);
    EXPECT_EQ(inner->LCV, &c);  // stepped against t, which the loop leaves alone
    EXPECT_EQ(outer->effects.assigned, (std::set<const SYMTAB*>{&c, &i}));
    EXPECT_TRUE(outer->effects.memory);
    std::set<const SYMTAB*> taken{&c};
    EXPECT_TRUE(find_region_constants(inner, taken).memory);
}

TEST_F(Cfg, NewLoopsCarryTheUnassignedLevel) {
    struct LOOP* l = make_LOOP(nullptr, nullptr, 3, nullptr);
    EXPECT_EQ(l->level, 42);
    EXPECT_EQ(l->counter, 1);
    EXPECT_EQ(l->flag_byte, 0xe0);
    struct LOOP* copy = make_LOOP(nullptr, nullptr, -1, l);
    EXPECT_EQ(copy->uid, 3);
    delete copy;
    delete l;
}

}  // namespace

// The symbols whose address is taken are found again only after something
// that may change them: here an address erased with its statement, and one
// copied in from a tree made before the last look.  Moving the statements
// into the blocks changes nothing.
TEST_F(Cfg, AddressTakenSymbolsFollowTheTrees) {
    SYMTAB p;
    p.name = "p";
    TYPE* ptr = pkg.mk_ptr(i16);
    auto take = [&](SYMTAB& s) { return mktree(ASG, ptr, name(p), mktree(UAND, ptr, name(s))); };
    NODE* kept = take(c);  // made now, copied in later
    stmt(take(i));
    set(c, 1);
    ret();
    using taken = std::set<const SYMTAB*>;
    EXPECT_EQ(address_taken_symbols(), taken{&i});  // in the body, without a flow graph
    buildcfg();
    EXPECT_EQ(address_taken_symbols(), taken{&i});
    std::vector<BODY_ENTRY>& st = fi.bb_list->statements;
    erase_tree(st[0].tree);
    st[0].tree = mktree(ASG, i16, name(i), k(2));
    EXPECT_EQ(address_taken_symbols(), taken{});
    st[1].tree = mktree(COMMA, i16, st[1].tree, copy_tree(kept));
    EXPECT_EQ(address_taken_symbols(), taken{&c});
    erase_tree(kept);
}
