#include "OPT5/bbutils.h"

#include <algorithm>
#include <climits>
#include <map>
#include <set>

#include "BITVEC/bitvec.h"
#include "OPT5/abort.h"
#include "OPT5/copyprop.h"
#include "OPT5/dominator.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "UTIL/cell_pool.h"
#include "UTIL/ptr_map.h"

namespace {
const char THIS_MODULE[] = "OPT5/bbutils";

void mark_dominators_dirty() {
    if (currfuninfo && currfuninfo->dominator) currfuninfo->dominator->dirty = true;
}

NODE* mk_BRANCH(int label) {
    NODE* b = new_node(BRANCH, nullptr);
    b->left = mk_LABELREF(label);
    return b;
}
}  // namespace

const NODE* BBLK::last_tree() const {
    for (auto it = statements.rbegin(); it != statements.rend(); ++it)
        if (it->tree) return it->tree;
    return nullptr;
}

std::string BBLK::str() const { return "BB " + std::to_string(dfn) + " (L" + std::to_string(label) + ")"; }

// ---------------------------------------------------------------------------
// Edge lists

using edge_cells = cell_pool<sizeof(EDGE), alignof(EDGE)>;
using block_cells = cell_pool<sizeof(BBLK), alignof(BBLK)>;

void* EDGE::operator new(size_t size) {
    OPT_REQUIRE(size == sizeof(EDGE));
    return edge_cells::take();
}

void EDGE::operator delete(void* cell, size_t) noexcept { edge_cells::give(cell); }

void* BBLK::operator new(size_t size) {
    OPT_REQUIRE(size == sizeof(BBLK));
    return block_cells::take();
}

void BBLK::operator delete(void* cell, size_t) noexcept { block_cells::give(cell); }

EDGE* add_edge(BBLK* bb, EDGE* list, double weight) {
    if (edge_memberp(bb, list)) return list;
    mark_dominators_dirty();
    return new EDGE{bb, weight, list};
}

EDGE* mkedge(BBLK* bb, EDGE* list) {
    mark_dominators_dirty();
    return new EDGE{bb, -1.0, list};
}

EDGE* erase_edge(EDGE* cell) {
    EDGE* rest = cell->rest;
    delete cell;
    mark_dominators_dirty();
    return rest;
}

EDGE* remove_edge(BBLK* bb, EDGE* list) {
    for (EDGE** link = &list; *link; link = &(*link)->rest)
        if ((*link)->bb == bb) {
            *link = erase_edge(*link);
            break;
        }
    return list;
}

bool edge_memberp(const BBLK* bb, const EDGE* list) {
    for (; list; list = list->rest)
        if (list->bb == bb) return true;
    return false;
}

int edge_length(const EDGE* list) {
    int n = 0;
    for (; list; list = list->rest) ++n;
    return n;
}

EDGE* copy_edge_list(const EDGE* list) {
    EDGE* head = nullptr;
    EDGE** tail = &head;
    for (; list; list = list->rest) {
        *tail = new EDGE{list->bb, list->weight, nullptr};
        tail = &(*tail)->rest;
    }
    return head;
}

EDGE* rev_edge_list(EDGE* list) {
    EDGE* out = nullptr;
    while (list) {
        EDGE* next = list->rest;
        list->rest = out;
        out = list;
        list = next;
    }
    return out;
}

void free_edge_list(EDGE* list) {
    while (list) {
        EDGE* next = list->rest;
        delete list;
        list = next;
    }
}

void sort_edge_list(EDGE* list) {
    // Insertion sort on the payloads, so that the head cell stays the head.
    for (EDGE* i = list ? list->rest : nullptr; i; i = i->rest) {
        for (EDGE* j = list; j != i; j = j->rest) {
            if (j->bb->dfn > i->bb->dfn) {
                // Rotate i's payload in front of j, keeping equal dfns in order.
                BBLK* bb = i->bb;
                double w = i->weight;
                for (EDGE* k = j; k != i->rest; k = k->rest) {
                    std::swap(bb, k->bb);
                    std::swap(w, k->weight);
                }
                break;
            }
        }
    }
}

void fast_sort_edge_list(EDGE* list) {
    std::vector<std::pair<BBLK*, double>> cells;
    for (EDGE* e = list; e; e = e->rest) cells.emplace_back(e->bb, e->weight);
    std::stable_sort(cells.begin(), cells.end(), [](const auto& a, const auto& b) { return a.first->dfn < b.first->dfn; });
    for (auto& [bb, weight] : cells) {
        list->bb = bb;
        list->weight = weight;
        list = list->rest;
    }
}

void erase_tree_list(std::vector<BODY_ENTRY>& list) {
    for (BODY_ENTRY& e : list)
        if (e.tree) erase_tree(e.tree);
    list.clear();
}

// ---------------------------------------------------------------------------
// Blocks

std::vector<BBLK*> layout_blocks() {
    std::vector<BBLK*> out;
    if (!currfuninfo) return out;
    out.reserve(static_cast<size_t>(std::max(currfuninfo->bb_count, 0)) + 1);  // the count may be behind
    for (BBLK* b = currfuninfo->bb_list; b; b = b->next) out.push_back(b);
    return out;
}

void clear_visited() {
    if (currfuninfo)
        for (BBLK* b = currfuninfo->bb_list; b; b = b->next) b->visited = false;
}

int new_label_number() {
    OPT_REQUIRE(currfuninfo->max_label < INT_MAX);
    return ++currfuninfo->max_label;
}

BBLK* mkbblock(std::vector<BODY_ENTRY> statements, BBLK* next, FUNINFO* fi) {
    BBLK* b = new BBLK;
    b->statements = std::move(statements);
    if (!fi->bb_list) {
        fi->bb_list = b;
        b->prev = b;
        return b;
    }
    BBLK* before = next ? next->prev : fi->bb_list->prev;  // the block it follows
    if (next == fi->bb_list) {
        // A new entry block.
        b->next = next;
        b->prev = next->prev;
        next->prev = b;
        fi->bb_list = b;
    } else {
        b->next = before->next;
        b->prev = before;
        before->next = b;
        if (b->next) b->next->prev = b;
        else fi->bb_list->prev = b;
    }
    mark_dominators_dirty();
    return b;
}

int mklabel(int number, BBLK* bb) {
    if (number) bb->label = number;
    else if (!bb->label) bb->label = new_label_number();
    return bb->label;
}

BBLK* insert_new_bb(int dfn, BBLK* after, std::vector<BODY_ENTRY> statements) {
    BBLK* n = new BBLK;
    n->statements = std::move(statements);
    n->dfn = dfn;
    n->trace = -1;
    n->next = after->next;
    n->prev = after;
    after->next = n;
    if (n->next) n->next->prev = n;
    else currfuninfo->bb_list->prev = n;
    mark_dominators_dirty();
    return n;
}

BBLK* insert_new_bb_with_branch(int dfn, BBLK* after, BBLK* target, const PSN* position) {
    BODY_ENTRY jump;
    jump.tree = mk_BRANCH(mklabel(0, target));
    if (position) jump.pos = *position;
    BBLK* n = insert_new_bb(dfn, after, {jump});
    n->chain = after->chain;
    after->chain = n;
    mklabel(0, n);
    return n;
}

void delink_old_bb(BBLK* bb) {
    FUNINFO* fi = currfuninfo;
    OPT_REQUIRE(bb != fi->bb_list);
    bb->prev->next = bb->next;
    if (bb->next) bb->next->prev = bb->prev;
    else fi->bb_list->prev = bb->prev;
    bb->next = bb->prev = nullptr;
    mark_dominators_dirty();
}

void renumber_bblocks() {
    FUNINFO* fi = currfuninfo;
    int n = 0;
    BBLK* last = nullptr;
    bool all_have_successors = true;
    for (BBLK* b = fi->bb_list; b; b = b->next) {
        if (last) b->prev = last;
        b->dfn = ++n;
        last = b;
        if (!b->successors && b->next) all_have_successors = false;
    }
    if (fi->bb_list) fi->bb_list->prev = last;
    fi->bb_count = n;
    if (all_have_successors)
        fi->update_flags([](unsigned flags) {
            if (!(flags & FUN_EDGES_PENDING) || (flags & FUN_EDGES_COMPLETE)) return flags;
            return (flags | FUN_EDGES_COMPLETE) & ~FUN_EDGES_PENDING;
        });
}

bool remap_labelrefs(NODE* jump, int old_label, int new_label) {
    if (!jump || !(jump->opcode == BRANCH || jump->opcode == CBRANCH || jump->opcode == SWITCH)) return false;
    bool changed = false;
    walk_and_modify_tree(jump, [&](NODE*& slot) {
        if (slot->opcode == LABEL && slot->value == INT65(old_label)) {
            slot->value = INT65(new_label);
            changed = true;
        }
    });
    return changed;
}

void subst_bb_for_bb_in_stmts(BBLK* replacement, BBLK* old, std::vector<BODY_ENTRY>& stmts) {
    for (BODY_ENTRY& e : stmts) remap_labelrefs(e.tree, old->label, replacement->label);
}

void subst_bb_for_bb_in_bb(BBLK* replacement, BBLK* old, BBLK* bb) {
    subst_bb_for_bb_in_stmts(replacement, old, bb->statements);
}

void fixup_edge_lists(BBLK* bb, const NODE* stmt) {
    std::vector<int> labels;
    bool falls = true;
    list_branch_targets(stmt, labels, falls);
    EDGE* old = bb->successors;
    for (EDGE* e = old; e; e = e->rest) e->bb->predecessors = remove_edge(bb, e->bb->predecessors);
    bb->successors = nullptr;
    if (falls && bb->next) bb->successors = add_edge(bb->next, bb->successors);
    // A jump made simpler goes where it went before: the old successors
    // are looked at first, the whole layout only for a new target.
    auto block_of = [&](int l) -> BBLK* {
        for (EDGE* e = old; e; e = e->rest)
            if (e->bb->label == l) return e->bb;
        for (BBLK* b = currfuninfo->bb_list; b; b = b->next)
            if (b->label == l) return b;
        return nullptr;
    };
    for (int l : labels)
        if (BBLK* b = block_of(l)) bb->successors = add_edge(b, bb->successors);
    free_edge_list(old);
    bb->successors = rev_edge_list(bb->successors);
    for (EDGE* e = bb->successors; e; e = e->rest) e->bb->predecessors = add_edge(bb, e->bb->predecessors);
    mark_dominators_dirty();
}

static void replace_edge(EDGE* list, BBLK* from, BBLK* to) {
    for (; list; list = list->rest)
        if (list->bb == from) list->bb = to;
}

bool falls_through(const BBLK* b) {
    std::vector<int> labels;
    bool falls = true;
    list_branch_targets(b->last_tree(), labels, falls);
    return falls;
}

// Where a block on the edge from -> to goes in the layout: after `from`
// when the edge is its fall-through or it does not fall through; else after
// a block that does not fall through, the one before `to` or the last one;
// else after `from`, which then jumps to the block it fell into.
static BBLK* place_for_edge_block(BBLK* from, BBLK* to) {
    FUNINFO* fi = currfuninfo;
    if (from->next == to || !from->next || !falls_through(from)) return from;
    BBLK* before_to = to == fi->bb_list ? nullptr : to->prev;
    if (before_to && !falls_through(before_to)) return before_to;
    if (!falls_through(fi->bb_list->prev)) return fi->bb_list->prev;
    BBLK* was_next = from->next;
    BODY_ENTRY jump;
    jump.tree = mk_BRANCH(mklabel(0, was_next));
    if (!from->statements.empty()) jump.pos = from->statements.back().pos;
    from->statements.push_back(jump);
    return from;
}

BBLK* split_cfg_edge(BBLK* from, BBLK* to) {
    BBLK* n = insert_new_bb_with_branch(0, place_for_edge_block(from, to), to, nullptr);
    if (n->next == to) {  // it falls into `to`
        erase_tree(n->statements.back().tree);
        n->statements.pop_back();
    }
    subst_bb_for_bb_in_bb(n, to, from);
    replace_edge(from->successors, to, n);
    replace_edge(to->predecessors, from, n);
    n->predecessors = new EDGE{from, -1.0, nullptr};
    n->successors = new EDGE{to, -1.0, nullptr};
    renumber_bblocks();
    return n;
}

bool bb_is_split_critical_edge(const BBLK* bb) {
    return edge_length(bb->predecessors) == 1 && edge_length(bb->successors) == 1 &&
           edge_length(bb->predecessors->bb->successors) >= 2 && edge_length(bb->successors->bb->predecessors) >= 2;
}

void split_critical_edges(bool all) {
    std::vector<BBLK*> blocks = layout_blocks();
    for (auto it = blocks.rbegin(); it != blocks.rend(); ++it) {
        BBLK* b = *it;
        if (edge_length(b->successors) < 2) continue;
        std::vector<BBLK*> targets;
        for (EDGE* e = b->successors; e; e = e->rest) targets.push_back(e->bb);
        for (BBLK* s : targets) {
            if (edge_length(s->predecessors) < 2) continue;
            if (!all) {
                if (!b->loop && b->dfn >= s->dfn) continue;
                if (b->loop && b->loop == s->loop && b == b->loop->tail && s == b->loop->head) continue;
            }
            if (print_debug && FDEBUG)
                DBG_CHECK(std::fprintf(FDEBUG, "Splitting critical edge between BB%d and BB%d\n", b->dfn, s->dfn));
            BBLK* n = split_cfg_edge(b, s);
            if (b->loop) {
                struct LOOP* l = (s->loop && b->loop->level > s->loop->level) ? s->loop : b->loop;
                n->loop = l;
                l->contents = add_edge(n, l->contents);
                mark_dominators_dirty();
                fast_sort_edge_list(l->contents);
                if (s->loop && s->loop->preheader == b) s->loop->preheader = n;
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Building the graph from the statement list

void list_branch_targets(const NODE* stmt, std::vector<int>& labels, bool& falls_through) {
    falls_through = true;
    if (!stmt) return;
    auto label_of = [](const NODE* n) { return n && n->opcode == LABEL ? n->value.as<int32_t>() : -1; };
    switch (stmt->opcode) {
    case BRANCH:
        falls_through = false;
        if (label_of(stmt->left) >= 0) labels.push_back(label_of(stmt->left));
        break;
    case CBRANCH:
        if (label_of(stmt->right) >= 0) labels.push_back(label_of(stmt->right));
        if (label_of(stmt->left) >= 0) labels.push_back(label_of(stmt->left));
        break;
    case RETURN:
    case URETURN: falls_through = false; break;
    case SWITCH: {
        // Every label of the case list; the default may fall through.
        std::vector<const NODE*> work{stmt};
        while (!work.empty()) {
            const NODE* n = work.back();
            work.pop_back();
            if (!n) continue;
            if (n->opcode == LABEL) labels.push_back(n->value.as<int32_t>());
            work.push_back(n->left);
            work.push_back(n->right);
        }
        break;
    }
    default: break;
    }
}

static bool ends_block(const NODE* t) {
    return t && (t->opcode == BRANCH || t->opcode == CBRANCH || t->opcode == RETURN || t->opcode == URETURN ||
                 t->opcode == SWITCH);
}

void buildcfg() {
    FUNINFO* fi = currfuninfo;
    std::vector<BODY_ENTRY> body;
    body.swap(fi->body);
    int max_label = 0;
    for (BODY_ENTRY& e : body) {
        if (e.kind != BODY_ENTRY::STMT) continue;
        walk_and_modify_tree(e.tree, [&](NODE*& n) {
            if (n->opcode == LABEL) max_label = std::max(max_label, n->value.as<int32_t>());
        });
        if (e.tree->opcode == LABELDEF) max_label = std::max(max_label, e.tree->value.as<int32_t>());
    }
    fi->max_label = max_label;

    BBLK* current = nullptr;
    bool current_has_labeldef = false;
    // The blocks by label; a label made here is new, and nothing jumps to
    // it.  Labels below 1 come only from damaged units.
    std::vector<BBLK*> by_label(static_cast<size_t>(max_label) + 1, nullptr);
    std::map<int, BBLK*> odd_labels;
    auto bind = [&](int label, BBLK* b) {
        if (label > max_label) return;
        if (label > 0) by_label[static_cast<size_t>(label)] = b;
        else odd_labels[label] = b;
    };
    auto block_of = [&](int label) -> BBLK* {
        if (label > max_label) return nullptr;
        if (label > 0) return by_label[static_cast<size_t>(label)];
        auto it = odd_labels.find(label);
        return it == odd_labels.end() ? nullptr : it->second;
    };
    // A block's statements: those up to its jump or the next label.
    auto block_length = [&](size_t from) {
        size_t n = 0;
        for (size_t i = from; i < body.size(); ++i) {
            if (body[i].kind != BODY_ENTRY::STMT) continue;
            if (body[i].tree->opcode == LABELDEF) break;
            ++n;
            if (ends_block(body[i].tree)) break;
        }
        return n;
    };
    auto start_block = [&](int label, size_t from) {
        current = mkbblock({}, nullptr, fi);
        current->statements.reserve(block_length(from));
        current->label = label;
        if (label) bind(label, current);
    };
    for (size_t at = 0; at < body.size(); ++at) {
        BODY_ENTRY& e = body[at];
        if (e.kind != BODY_ENTRY::STMT) {
            fi->scopes.push_back(e);
            continue;
        }
        NODE* t = e.tree;
        if (t->opcode == LABELDEF) {
            int label = t->value.as<int32_t>();
            erase_node(t);
            if (current && current->statements.empty() && !current_has_labeldef) {
                current->label = label;
                bind(label, current);
            } else {
                start_block(label, at + 1);
            }
            current_has_labeldef = true;
            continue;
        }
        if (!current) {
            start_block(new_label_number(), at);
            current_has_labeldef = false;
        }
        current->statements.push_back(e);
        if (ends_block(t)) {
            current = nullptr;
            current_has_labeldef = false;
        }
    }
    if (!fi->bb_list) start_block(new_label_number(), body.size());  // a function without statements

    std::vector<int> labels;
    for (BBLK* b = fi->bb_list; b; b = b->next) {
        labels.clear();
        bool falls = true;
        list_branch_targets(b->last_tree(), labels, falls);
        if (falls && b->next) b->successors = add_edge(b->next, b->successors);
        for (int l : labels)
            if (BBLK* target = block_of(l)) b->successors = add_edge(target, b->successors);
        b->successors = rev_edge_list(b->successors);
        for (EDGE* e = b->successors; e; e = e->rest) e->bb->predecessors = add_edge(b, e->bb->predecessors);
    }
    renumber_bblocks();
}

void free_loops(FUNINFO* fi) {
    for (struct LOOP* l : fi->loops) {
        free_edge_list(l->contents);
        free_edge_list(l->exits);
        if (l->trips) erase_tree(l->trips);
        if (l->max_trips) erase_tree(l->max_trips);
        if (l->max_trips_bound) erase_tree(l->max_trips_bound);
        delete l->live_out;
        delete l;
    }
    fi->loops.clear();
}

void free_cfg(FUNINFO* fi) {
    BBLK* b = fi->bb_list;
    while (b) {
        BBLK* next = b->next;
        erase_tree_list(b->statements);
        free_edge_list(b->predecessors);
        free_edge_list(b->successors);
        delete b->live_in;
        delete b;
        b = next;
    }
    fi->bb_list = nullptr;
    fi->bb_count = 0;
    free_loops(fi);
    release_dominators(fi);
    fi->scopes.clear();
}

void free_liveness(FUNINFO* fi) {
    for (BBLK* b = fi->bb_list; b; b = b->next) {
        delete b->live_in;
        b->live_in = nullptr;
    }
    for (struct LOOP* l : fi->loops) {
        delete l->live_out;
        l->live_out = nullptr;
    }
}

void unbuildcfg() {
    FUNINFO* fi = currfuninfo;
    size_t n = fi->scopes.size();
    for (BBLK* b = fi->bb_list; b; b = b->next) n += 1 + b->statements.size();
    std::vector<BODY_ENTRY> body;
    body.reserve(n);
    body = fi->scopes;
    for (BBLK* b : layout_blocks()) {
        BODY_ENTRY label;
        label.kind = BODY_ENTRY::STMT;
        label.tree = new_node(LABELDEF, nullptr);
        label.tree->value = INT65(b->label);
        if (!b->statements.empty()) label.pos = b->statements.front().pos;
        body.push_back(label);
        for (BODY_ENTRY& e : b->statements) body.push_back(e);
        b->statements.clear();
    }
    free_cfg(fi);
    fi->body = std::move(body);
}

bool has_inline_assembly(const BBLK* entry) {
    for (const BBLK* b = entry; b; b = b->next)
        for (const BODY_ENTRY& e : b->statements)
            if (e.tree && e.tree->opcode == ASM) return true;
    return false;
}

block_masks solve_block_masks(const std::vector<BBLK*>& blocks, bool forward, bool all, uint64_t boundary,
                              const std::vector<uint64_t>& keep, const std::vector<uint64_t>& gen) {
    size_t n = blocks.size();
    ptr_map<const BBLK*, size_t> index;
    index.reserve(n);
    for (size_t i = 0; i < n; ++i) index[blocks[i]] = i;
    const uint64_t none = all ? ~uint64_t{0} : 0;
    block_masks m{std::vector<uint64_t>(n, 0), std::vector<uint64_t>(n, none)};
    for (bool changed = true; changed;) {
        changed = false;
        for (size_t k = 0; k < n; ++k) {
            size_t i = forward ? k : n - 1 - k;
            const BBLK* b = blocks[i];
            EDGE* from = forward ? b->predecessors : b->successors;
            uint64_t meet = none;
            auto join = [&](uint64_t v) { meet = all ? meet & v : meet | v; };
            if (!from || (forward && i == 0)) join(boundary);
            for (EDGE* e = from; e; e = e->rest) {
                const size_t* at = index.find(e->bb);
                join(at ? m.result[*at] : 0);
            }
            uint64_t result = (meet & keep[i]) | gen[i];
            if (result != m.result[i]) changed = true;
            m.meet[i] = meet;
            m.result[i] = result;
        }
    }
    return m;
}

void rebuildcfg() {
    unbuildcfg();
    buildcfg();
}

// Takes a block out of the layout and frees it (its statements are gone
// already); the edges that named it are rebuilt by rebuild_after_unlinking.
static void unlink_block(BBLK* b) {
    delink_old_bb(b);
    free_edge_list(b->predecessors);
    free_edge_list(b->successors);
    delete b->live_in;
    delete b;
}

static void rebuild_after_unlinking() {
    for (BBLK* b : layout_blocks()) {
        free_edge_list(b->predecessors);
        free_edge_list(b->successors);
        b->predecessors = b->successors = nullptr;
    }
    rebuildcfg();
}

// Joins each block that only its layout predecessor falls into, and whose
// label nothing names, to that predecessor.
static bool merge_fallthrough_blocks() {
    FUNINFO* fi = currfuninfo;
    // The labels something names: jumps, tables, the exception table.
    std::vector<char> named(static_cast<size_t>(std::max(fi->max_label, 0)) + 1, 0);
    auto name = [&](int label) {
        if (label < 0) return;
        if (static_cast<size_t>(label) >= named.size()) named.resize(static_cast<size_t>(label) + 1, 0);
        named[static_cast<size_t>(label)] = 1;
    };
    auto is_named = [&](int label) {
        return label >= 0 && static_cast<size_t>(label) < named.size() && named[static_cast<size_t>(label)];
    };
    for (const EHT_ENTRY& e : fi->eht) name(static_cast<int>(e.label));
    std::vector<BBLK*> blocks = layout_blocks();
    std::vector<const NODE*> work;
    for (BBLK* b : blocks)
        for (BODY_ENTRY& e : b->statements) {
            work.assign(1, e.tree);
            while (!work.empty()) {
                const NODE* n = work.back();
                work.pop_back();
                if (!n) continue;
                if (n->opcode == LABEL) name(n->value.as<int32_t>());
                work.push_back(n->left);
                work.push_back(n->right);
            }
        }
    bool merged = false;
    std::vector<int> targets;
    for (BBLK* b : blocks) {
        BBLK* prev = b->prev;
        if (b == fi->bb_list || is_named(b->label) || edge_length(prev->successors) != 1 ||
            prev->successors->bb != b)
            continue;
        targets.clear();
        bool falls = true;
        if (!prev->statements.empty()) list_branch_targets(prev->statements.back().tree, targets, falls);
        if (!targets.empty() || !falls) continue;
        prev->statements.insert(prev->statements.end(), b->statements.begin(), b->statements.end());
        b->statements.clear();
        unlink_block(b);
        merged = true;
    }
    if (merged) rebuild_after_unlinking();
    return merged;
}

// Whether the block falls, through empty blocks only, into the block of
// the label.
static bool falls_to_label(const BBLK* b, const INT65& label) {
    for (const BBLK* n = b->next; n; n = n->next) {
        if (label == INT65(n->label)) return true;
        if (!n->statements.empty()) return false;
    }
    return false;
}

bool simpcfg(bool merge_blocks, bool keep_empty) {
    (void)keep_empty;
    FUNINFO* fi = currfuninfo;
    OPT_REQUIRE(fi->loops.empty());
    std::vector<BBLK*> rejumped;  // blocks whose last jump changed
    for (BBLK* b = fi->bb_list; b; b = b->next) {
        if (b->statements.empty()) continue;
        NODE* t = b->statements.back().tree;
        if (t->opcode == CBRANCH && t->left && t->left->opcode == ICON) {
            // A test that always goes one way.
            rejumped.push_back(b);
            if (t->left->value.is_zero()) {
                erase_tree(t);
                b->statements.pop_back();
            } else {
                NODE* label = t->right;
                t->right = nullptr;
                erase_tree(t->left);
                t->left = nullptr;
                erase_node(t);
                b->statements.back().tree = mktree(BRANCH, nullptr, label);
            }
            t = b->statements.empty() ? nullptr : b->statements.back().tree;
        }
        if (t && t->opcode == BRANCH && t->left && t->left->opcode == LABEL && b->next &&
            t->left->value == INT65(b->next->label)) {
            erase_tree(t);
            b->statements.pop_back();
            rejumped.push_back(b);
        } else if (t && t->opcode == CBRANCH && t->right && t->right->opcode == LABEL &&
                   falls_to_label(b, t->right->value)) {
            // A test that goes to the same place either way: what it does
            // besides testing stays.
            NODE* rest = peel_for_effect(t->left);
            t->left = nullptr;
            erase_tree(t);
            if (rest) b->statements.back().tree = rest;
            else b->statements.pop_back();
            rejumped.push_back(b);
        }
    }
    // Only the edges out of the blocks whose jumps changed need redoing.
    for (BBLK* b : rejumped) fixup_edge_lists(b, b->last_tree());
    bool changed = !rejumped.empty();
    if (changed) free_liveness(fi);
    // Blocks that can't be reached from the entry, nor from a label of the
    // exception table (a handler is entered by no jump).
    std::vector<BBLK*> work;
    work.reserve(static_cast<size_t>(std::max(fi->bb_count, 0)) + 1);
    work.push_back(fi->bb_list);
    clear_visited();
    if (fi->bb_list) fi->bb_list->visited = true;
    if (!fi->eht.empty()) {
        std::set<int> handlers;
        for (const EHT_ENTRY& e : fi->eht) handlers.insert(static_cast<int>(e.label));
        for (BBLK* b : layout_blocks())
            if (!b->visited && handlers.count(b->label)) {
                b->visited = true;
                work.push_back(b);
            }
    }
    while (!work.empty()) {
        BBLK* b = work.back();
        work.pop_back();
        for (EDGE* e = b->successors; e; e = e->rest)
            if (!e->bb->visited) {
                e->bb->visited = true;
                work.push_back(e->bb);
            }
    }
    // Nothing reachable jumps or falls into them, so they are unlinked and
    // the graph is built again without them.
    bool removed = false;
    for (BBLK* b : layout_blocks()) {
        if (b->visited) continue;
        erase_tree_list(b->statements);
        unlink_block(b);
        removed = true;
    }
    if (removed) {
        rebuild_after_unlinking();
        // Jumps that went past the blocks removed may now go to the next one.
        simpcfg(merge_blocks, keep_empty);
        return true;
    }
    if (merge_blocks && merge_fallthrough_blocks()) changed = true;
    return changed;
}
