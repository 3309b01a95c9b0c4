// Parked functions and the small containers behind lean data.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "BITVEC/bitvec.h"
#include "IFILE/if_symbol.h"
#include "OPT5/bbutils.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/park.h"
#include "OPT5/symtab.h"
#include "UTIL/cell_pool.h"
#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"
#include "XINT/int65.h"

namespace {

class Park : public ::testing::Test {
protected:
    void SetUp() override {
        init_opcode_tables();
        currfuninfo = &fi;
        a.name = "a";
        b.name = "b";
    }
    void TearDown() override {
        unpark_function();
        free_cfg(&fi);
        for (BODY_ENTRY& e : fi.body)
            if (e.tree) erase_tree(e.tree);
        currfuninfo = nullptr;
        recycle_erased_nodes();
    }
    NODE* name(SYMTAB& s) {
        NODE* n = new_node(NAME, i16);
        n->symbol = &s;
        return n;
    }
    void stmt(NODE* t, PSN pos = {}) {
        BODY_ENTRY e;
        e.tree = t;
        e.pos = pos;
        fi.body.push_back(e);
    }
    void control(int kind, PSN pos) {
        BODY_ENTRY e;
        e.kind = BODY_ENTRY::CONTROL;
        e.control = kind;
        e.pos = pos;
        fi.body.push_back(e);
    }
    // The function's statements in layout order (copies), and its scopes.
    std::vector<BODY_ENTRY> statements() {
        std::vector<BODY_ENTRY> out = fi.scopes;
        for (BBLK* blk : layout_blocks())
            for (const BODY_ENTRY& e : blk->statements) {
                BODY_ENTRY c = e;
                c.tree = copy_tree(e.tree);
                out.push_back(c);
            }
        return out;
    }

    TYPE_PKG pkg;
    TYPE* i16 = pkg.mk_int(TYPE::IK_INT, true);
    TYPE* u40 = pkg.mk_int(TYPE::IK_ULONG, false);
    FUNINFO fi{nullptr};
    SYMTAB a, b;
    const char* file = "t.c";
};

// Everything a node holds comes back: values of every sign and width,
// symbols, flags, a creation type that differs from the type, and the rare
// payloads (texts with a zero byte, pragmas, field members); so do the
// statements' positions and the scope records.
TEST_F(Park, FunctionComesBackWhole) {
    control(2, {file, 1, 2});
    NODE* wide = mk_ICON(INT65::from_words(-1, 0x8000000000000001ULL), u40);
    stmt(mktree(ASG, i16, name(a), mktree(PLUS, i16, name(b), wide)), {file, 3, 4});
    NODE* big = mk_ICON(INT65::from_words(0, ~0ULL), u40);
    big->flags[2] = 7;
    big->type = i16;  // the creation type stays u40
    stmt(mktree(ASG, i16, name(b), mktree(MINUS, i16, big, mk_ICON(-32768, i16))), {file, 5, 6});
    NODE* s = new_node(SCON, i16);
    s->mk_scon("x\0y", 3);
    stmt(mktree(ASG, i16, name(a), s));
    NODE* p = new_node(PPRAGMA, nullptr);
    p->mx().pragma = new PRAGMA{9, {"4", "unroll"}};
    stmt(p);
    stmt(mk_LABELDEF(mk_LABELREF(5)));
    stmt(mktree(CBRANCH, nullptr, mktree(LT, i16, name(a), mk_ICON(3, i16)), mk_LABELREF(5)));
    stmt(mktree(URETURN, i16, name(a)));
    control(6, {file, 9, 1});
    buildcfg();
    std::vector<BODY_ENTRY> before = statements();
    size_t live = live_node_count();

    park_function();
    EXPECT_TRUE(fi.is_parked);
    EXPECT_EQ(fi.bb_list, nullptr);
    EXPECT_TRUE(fi.body.empty());
    EXPECT_NE(fi.parked.size(), 0u);
    EXPECT_LT(live_node_count(), live - 20);  // its trees are gone
    park_function();                          // parking twice is harmless
    unpark_function();
    EXPECT_FALSE(fi.is_parked);
    EXPECT_EQ(fi.parked.size(), 0u);
    ASSERT_NE(fi.bb_list, nullptr);

    std::vector<BODY_ENTRY> after = statements();
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) {
        EXPECT_EQ(after[i].kind, before[i].kind) << i;
        EXPECT_EQ(after[i].control, before[i].control) << i;
        EXPECT_TRUE(after[i].pos == before[i].pos) << i;
        EXPECT_TRUE(same_tree(after[i].tree, before[i].tree)) << i;
    }
    // Payloads that same_tree does not compare.
    const NODE *back = nullptr, *pragma = nullptr, *text = nullptr;
    for (const BODY_ENTRY& e : after) {
        if (!e.tree) continue;
        if (e.tree->opcode == PPRAGMA) pragma = e.tree;
        if (e.tree->right && e.tree->right->opcode == MINUS) back = e.tree->right->left;
        if (e.tree->right && e.tree->right->opcode == SCON) text = e.tree->right;
    }
    ASSERT_TRUE(back && pragma && text);
    EXPECT_EQ(back->flags[2], 7);
    EXPECT_EQ(back->creation_type, u40);
    EXPECT_EQ(back->type, i16);
    ASSERT_NE(pragma->x().pragma, nullptr);
    EXPECT_EQ(pragma->x().pragma->args, (std::vector<std::string>{"4", "unroll"}));
    EXPECT_EQ(std::string(text->scon_value(), 3), std::string("x\0y", 3));
    for (BODY_ENTRY& e : before) erase_tree(e.tree);
    for (BODY_ENTRY& e : after) erase_tree(e.tree);
}

// A look that changes nothing gets the statements and leaves the function
// parked as it was: the same bytes, not packed again, and its trees gone.
// A function that was not parked is left alone.
TEST_F(Park, ALookLeavesTheFunctionParkedAsItWas) {
    stmt(mktree(ASG, i16, name(a), mktree(PLUS, i16, name(b), mk_ICON(1, i16))), {file, 3, 4});
    NODE* p = new_node(PPRAGMA, nullptr);  // a payload held out of line
    p->mx().pragma = new PRAGMA{9, {"4", "unroll"}};
    stmt(p);
    stmt(mktree(URETURN, i16, name(a)));
    repark_unchanged();  // not parked: nothing happens
    EXPECT_FALSE(fi.is_parked);
    ASSERT_EQ(fi.body.size(), 3u);

    park_function();
    const unsigned char* bytes = fi.parked.data();
    std::vector<unsigned char> packed(bytes, bytes + fi.parked.size());
    size_t parked_nodes = live_node_count();
    for (int look = 0; look < 2; ++look) {
        unpark_statements_keeping_bytes();
        EXPECT_FALSE(fi.is_parked);
        ASSERT_EQ(fi.body.size(), 3u);
        EXPECT_EQ(fi.body[0].tree->right->opcode, PLUS);
        ASSERT_TRUE(fi.body[1].tree->has_extra() && fi.body[1].tree->x().pragma);
        EXPECT_EQ(fi.body[1].tree->x().pragma->args, (std::vector<std::string>{"4", "unroll"}));
        EXPECT_EQ(fi.body[0].pos.line, 3u);
        EXPECT_GT(live_node_count(), parked_nodes);
        repark_unchanged();
        EXPECT_TRUE(fi.is_parked);
        EXPECT_TRUE(fi.body.empty());
        EXPECT_EQ(live_node_count(), parked_nodes);
        EXPECT_EQ(fi.parked.data(), bytes);
        EXPECT_EQ(std::vector<unsigned char>(fi.parked.data(), fi.parked.data() + fi.parked.size()), packed);
    }
    // A look that turns into a change packs the function again.
    unpark_statements_keeping_bytes();
    erase_tree(fi.body.back().tree);
    fi.body.pop_back();
    park_function();
    unpark_function();
    ASSERT_NE(fi.bb_list, nullptr);
    ASSERT_EQ(fi.bb_list->statements.size(), 2u);
    EXPECT_EQ(fi.bb_list->statements[1].tree->x().pragma->args, (std::vector<std::string>{"4", "unroll"}));
}

// Trees far deeper than any recursion could follow are packed and unpacked
// with work lists.
TEST_F(Park, DeepTreesPark) {
    NODE* t = name(a);
    for (int i = 0; i < 300000; ++i) t = mktree(COMMA, i16, mk_ICON(i, i16), t);
    stmt(mktree(URETURN, i16, t));
    park_function();
    unpark_function();
    ASSERT_NE(fi.bb_list, nullptr);
    const NODE* n = fi.bb_list->statements.at(0).tree->left;
    int depth = 0;
    for (; n->opcode == COMMA; n = n->right) {
        EXPECT_EQ(n->left->value, INT65(299999 - depth));
        if (n->left->value != INT65(299999 - depth)) break;
        ++depth;
    }
    EXPECT_EQ(depth, 300000);
    EXPECT_EQ(n->symbol, &a);
}

// Parked bodies share slabs that are used again once emptied: a body must
// keep its bytes however the bodies around it come and go, small or large.
TEST(ParkedBody, KeepsItsBytesWhileOthersComeAndGo) {
    auto bytes = [](size_t n, size_t seed) {
        std::vector<unsigned char> v(n);
        for (size_t i = 0; i < n; ++i) v[i] = static_cast<unsigned char>((i * 131 + seed * 7) >> 3);
        return v;
    };
    auto size_of = [](size_t k) { return k % 97 == 0 ? (size_t{3} << 19) + k : 1 + (k * 7919) % 9000; };
    std::vector<std::unique_ptr<parked_body>> bodies;
    std::vector<size_t> seeds;
    size_t next = 0;
    for (int round = 0; round < 6; ++round) {
        for (int i = 0; i < 1500; ++i, ++next) {  // several slabs' worth
            bodies.push_back(std::make_unique<parked_body>());
            std::vector<unsigned char> v = bytes(size_of(next), next);
            bodies.back()->assign(v.data(), v.size());
            seeds.push_back(next);
        }
        for (size_t k = round % 2; k < bodies.size(); k += 2) bodies[k]->clear();  // every other one goes
        for (size_t k = 0; k < bodies.size(); ++k) {
            if (bodies[k]->size() == 0) continue;
            std::vector<unsigned char> v = bytes(size_of(seeds[k]), seeds[k]);
            ASSERT_EQ(bodies[k]->size(), v.size()) << k;
            ASSERT_EQ(std::memcmp(bodies[k]->data(), v.data(), v.size()), 0) << "body " << k << " round " << round;
        }
    }
}

TEST(SmallVector, StaysOrderedAndIndependentPastItsInlinePart) {
    small_vector<INT65, 2> v;
    for (int x : {5, 1, 4, 2, 3}) {
        const INT65* at = v.begin();
        while (at != v.end() && *at < INT65(x)) ++at;
        v.insert(const_cast<INT65*>(at), INT65(x));
    }
    ASSERT_EQ(v.size(), 5u);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(v[static_cast<size_t>(i)], INT65(i + 1));
    small_vector<INT65, 2> w = v;
    w.push_back(w.front());  // an element of the vector itself, while it grows
    EXPECT_EQ(w.back(), INT65(1));
    EXPECT_EQ(v.size(), 5u);
    EXPECT_FALSE(v == w);
    w = v;
    EXPECT_TRUE(v == w);
    small_vector<INT65, 2> small;
    small.push_back(INT65(9));
    small.swap(w);
    EXPECT_EQ(small.size(), 5u);
    EXPECT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0], INT65(9));
}

// Sets of data-flow bits live in these: vectors of them grow (moving every
// set), sets are resized, and work lists pop.
TEST(SmallVector, MovesTakeTheHeapPartAndLeaveTheSourceEmpty) {
    small_vector<uint64_t, 2> heap(5, 7), inline_part(2, 3);
    small_vector<uint64_t, 2> a(std::move(heap)), b(std::move(inline_part));
    EXPECT_EQ(heap.size(), 0u);
    EXPECT_EQ(inline_part.size(), 0u);
    ASSERT_EQ(a.size(), 5u);
    ASSERT_EQ(b.size(), 2u);
    EXPECT_EQ(a[4], 7u);
    EXPECT_EQ(b[1], 3u);
    heap.push_back(1);  // a moved-from vector is usable again
    EXPECT_EQ(heap.back(), 1u);
    b = std::move(a);  // an inline vector takes a heap block
    a = std::move(heap);
    EXPECT_EQ(b.size(), 5u);
    EXPECT_EQ(a.size(), 1u);
    b.resize(9, 0);
    EXPECT_EQ(b[4], 7u);
    EXPECT_EQ(b[8], 0u);
    b.pop_back();
    b.back() = 2;
    EXPECT_EQ(b.size(), 8u);
    EXPECT_EQ(b[7], 2u);
    std::vector<BITVEC> sets;
    for (size_t i = 0; i < 40; ++i) {
        sets.emplace_back(i * 10);
        if (i) sets.back().set(i * 10 - 1);
    }
    for (size_t i = 1; i < 40; ++i) EXPECT_EQ(sets[i].count(), 1u) << i;
    for (size_t i = 1; i < 40; ++i) EXPECT_TRUE(sets[i].test(i * 10 - 1)) << i;
}

// Cells are aligned, never handed out twice while taken, come back after
// they are given, and a cell given on another thread serves that thread;
// objects living in them keep what was written.
TEST(CellPool, CellsAreDistinctUntilGivenBack) {
    using pool = cell_pool<24, 8>;
    std::vector<void*> taken;
    std::set<void*> distinct;
    for (int i = 0; i < 3000; ++i) {  // past one chunk
        void* c = pool::take();
        EXPECT_EQ(reinterpret_cast<uintptr_t>(c) % 8, 0u);
        std::memset(c, i & 0xff, 24);
        taken.push_back(c);
        distinct.insert(c);
    }
    EXPECT_EQ(distinct.size(), taken.size());
    for (size_t i = 0; i < taken.size(); ++i)
        EXPECT_EQ(static_cast<unsigned char*>(taken[i])[23], static_cast<unsigned char>(i & 0xff)) << i;
    pool::give(taken.back());
    EXPECT_EQ(pool::take(), taken.back());  // the last given is the next taken
    void* elsewhere = nullptr;
    std::thread([&] {
        pool::give(taken.front());
        elsewhere = pool::take();
    }).join();
    EXPECT_EQ(elsewhere, taken.front());
    for (void* c : taken) pool::give(c);

    // Flow-graph edges live in such cells.
    EDGE* list = nullptr;
    for (int i = 0; i < 100; ++i) list = new EDGE{nullptr, static_cast<double>(i), list};
    int n = 99;
    for (EDGE* e = list; e; e = e->rest, --n) EXPECT_EQ(e->weight, n);
    free_edge_list(list);
}

TEST(PtrMap, FindsEveryKeyThroughGrowthAndCollisions) {
    // Keys 16 bytes apart, as nodes of one slab are, and values that move
    // when the table grows.
    std::vector<char> storage(16 * 5000);
    ptr_map<const char*, std::vector<int>> m;
    EXPECT_EQ(m.find(storage.data()), nullptr);
    for (int i = 0; i < 5000; i += 2) m[&storage[16 * static_cast<size_t>(i)]].push_back(i);
    EXPECT_EQ(m.size(), 2500u);
    for (int i = 0; i < 5000; ++i) {
        const std::vector<int>* v = m.find(&storage[16 * static_cast<size_t>(i)]);
        if (i % 2) {
            EXPECT_EQ(v, nullptr) << i;
        } else {
            ASSERT_NE(v, nullptr) << i;
            EXPECT_EQ(*v, std::vector<int>{i});
        }
    }
    m[storage.data()].push_back(-1);  // an existing key: the same entry
    EXPECT_EQ(m.size(), 2500u);
    EXPECT_EQ(*m.find(storage.data()), (std::vector<int>{0, -1}));
    EXPECT_EQ(m.find(nullptr), nullptr);
    m.clear();
    EXPECT_TRUE(m.empty());
    EXPECT_EQ(m.find(storage.data()), nullptr);
    // Filled again in the room it kept: only the new entries are there.
    for (int i = 1; i < 100; i += 2) m[&storage[16 * static_cast<size_t>(i)]].push_back(i);
    EXPECT_EQ(m.size(), 50u);
    for (int i = 0; i < 100; ++i) {
        const std::vector<int>* v = m.find(&storage[16 * static_cast<size_t>(i)]);
        if (i % 2) {
            ASSERT_NE(v, nullptr) << i;
            EXPECT_EQ(*v, std::vector<int>{i});
        } else {
            EXPECT_EQ(v, nullptr) << i;
        }
    }
}

}  // namespace
