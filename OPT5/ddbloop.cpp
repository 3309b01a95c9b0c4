#include "OPT5/ddbloop.h"
#include "OPT5/ddunroll.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "OPT5/abort.h"
#include "OPT5/copyprop.h"
#include "OPT5/dominator.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"

namespace {
const char THIS_MODULE[] = "OPT5/ddbloop";

// Moves the edge pred -> from to pred -> to, retargeting pred's jump.
void move_edge(BBLK* pred, BBLK* from, BBLK* to) {
    subst_bb_for_bb_in_bb(to, from, pred);
    pred->successors = remove_edge(from, pred->successors);
    from->predecessors = remove_edge(pred, from->predecessors);
    pred->successors = add_edge(to, pred->successors);
    to->predecessors = add_edge(pred, to->predecessors);
}

BBLK* new_jump_block(BBLK* after, BBLK* target) {
    BBLK* n = insert_new_bb_with_branch(currfuninfo->bb_count + 1, after, target, nullptr);
    n->successors = add_edge(target, n->successors);
    target->predecessors = add_edge(n, target->predecessors);
    return n;
}

std::vector<BBLK*> latches_of(BBLK* h) {
    std::vector<BBLK*> out;
    for (EDGE* e = h->predecessors; e; e = e->rest)
        if (e->bb->dfn >= h->dfn) out.push_back(e->bb);
    std::sort(out.begin(), out.end(), [](BBLK* a, BBLK* b) { return a->dfn < b->dfn; });
    return out;
}

// Gives every loop header one latch; false when the function can't have
// loops (an unreachable block, or a hierarchy already there).
bool normalise_loops(bool only_if_loops) {
    FUNINFO* fi = currfuninfo;
    if (!fi->loops.empty()) return false;
    renumber_bblocks();
    for (BBLK* b = fi->bb_list ? fi->bb_list->next : nullptr; b; b = b->next)
        if (!b->predecessors) return false;
    int back_edges = 0;
    for (BBLK* b = fi->bb_list; b; b = b->next)
        for (EDGE* e = b->successors; e; e = e->rest)
            if (e->bb->dfn <= b->dfn) ++back_edges;
    if (back_edges == 0 && only_if_loops) return true;
    bool inserted = false;
    // A loop headed by the entry block gets a block in front, so that the
    // header has an entry from outside.
    if (fi->bb_list && !latches_of(fi->bb_list).empty()) {
        BBLK* old_entry = fi->bb_list;
        BBLK* entry = mkbblock({}, old_entry, fi);
        mklabel(0, entry);
        entry->successors = add_edge(old_entry, entry->successors);
        old_entry->predecessors = add_edge(entry, old_entry->predecessors);
        renumber_bblocks();
    }
    for (BBLK* h : layout_blocks()) {
        std::vector<BBLK*> latches = latches_of(h);
        if (latches.size() < 2) continue;
        BBLK* lmax = latches.back();
        if (latches.size() == 2) {
            // Two nested loops: a new outer header P in front of H takes the
            // entries from outside and the back edge from Lmax.
            BBLK* p = new_jump_block(h->prev, h);
            std::vector<BBLK*> movers;
            for (EDGE* e = h->predecessors; e; e = e->rest)
                if (e->bb != p && (e->bb->dfn < h->dfn || e->bb == lmax)) movers.push_back(e->bb);
            for (BBLK* m : movers) move_edge(m, h, p);
        } else {
            // One shared latch T for every back edge, right after Lmax.  When
            // Lmax goes on into its next block N if its test fails, the test
            // is turned round: Lmax jumps to N and falls into T.  (A latch
            // ending otherwise gets T at the end of the layout.)
            BBLK* after = lmax;
            if (falls_through(lmax) && lmax->next) {
                NODE* jump = lmax->statements.empty() ? nullptr : lmax->statements.back().tree;
                BBLK* n = lmax->next;
                if (jump && jump->opcode == CBRANCH && jump->right && jump->right->opcode == LABEL &&
                    jump->right->value == INT65(h->label) && n != h) {
                    jump->left = invert_boolean_tree(jump->left);
                    remap_labelrefs(jump, h->label, mklabel(0, n));
                } else {
                    after = currfuninfo->bb_list->prev;
                }
            }
            BBLK* t = new_jump_block(after, h);
            for (BBLK* l : latches) move_edge(l, h, t);
        }
        inserted = true;
    }
    if (inserted) renumber_bblocks();
    return true;
}

void collect_loop_blocks(struct LOOP* loop) {
    BBLK* h = loop->head;
    std::vector<BBLK*> work{loop->tail};
    std::vector<BBLK*> members{h};
    h->visited = true;
    auto take = [&](BBLK* b) {
        if (b->visited) return;
        b->visited = true;
        members.push_back(b);
        work.push_back(b);
    };
    if (loop->tail != h) take(loop->tail);
    else work.clear();
    while (!work.empty()) {
        BBLK* b = work.back();
        work.pop_back();
        for (EDGE* e = b->predecessors; e; e = e->rest) take(e->bb);
    }
    for (BBLK* b : members) {
        b->visited = false;
        if (b == h) continue;
        if (b->loop && b->loop != loop) {
            // A block of an inner loop: that loop (or its outermost ancestor
            // so far) nests in this one.
            struct LOOP* inner = b->loop;
            while (inner->parent) inner = inner->parent;
            if (inner != loop) inner->parent = loop;
        } else {
            b->loop = loop;
        }
    }
    for (BBLK* b : members) loop->contents = new EDGE{b, -1.0, loop->contents};
}

bool discover_loops() {
    FUNINFO* fi = currfuninfo;
    Dominator* dom = compute_dominators(false);
    int count = 0;
    clear_visited();
    std::vector<BBLK*> blocks = layout_blocks();
    for (auto it = blocks.rbegin(); it != blocks.rend(); ++it) {
        BBLK* h = *it;
        if (!h->predecessors) continue;
        sort_edge_list(h->predecessors);
        for (EDGE* e = h->predecessors; e; e = e->rest) {
            BBLK* t = e->bb;
            if (t->dfn < h->dfn) continue;
            bool heads = h->loop && h->loop->head == h;
            if (heads || t->loop || latches_of(h).size() != 1 || !dom->dominates(h, t)) return false;
            struct LOOP* loop = make_LOOP(h, t, ++count, nullptr);
            fi->loops.push_back(loop);
            h->loop = loop;
            collect_loop_blocks(loop);
        }
    }
    return true;
}

}  // namespace

const void* assigned_var(const NODE* t, bool& is_step, INT65& step) {
    is_step = false;
    if (!t || !t->left || t->left->opcode != NAME) return nullptr;
    const void* v = t->left->symbol;
    const NODE* r = t->right;
    bool up = t->opcode == PLUSASG || t->opcode == PLUSPLUS;
    if ((up || t->opcode == MINUSASG || t->opcode == MINMIN) && r && r->opcode == ICON) {
        is_step = true;
        step = up ? r->value : -r->value;
    } else if (t->opcode == ASG && r && (r->opcode == PLUS || r->opcode == MINUS) && r->left &&
               r->left->opcode == NAME && r->left->symbol == v && r->right && r->right->opcode == ICON) {
        is_step = true;
        step = r->opcode == PLUS ? r->right->value : -r->right->value;
    } else if (t->opcode != ASG && !(t->opcode >= PLUSASG && t->opcode <= XORBASG) && t->opcode != PLUSPLUS &&
               t->opcode != MINMIN && t->opcode != MULTASG && t->opcode != DIVASG) {
        return nullptr;
    }
    return v;
}

const NODE* find_expr_def(const struct LOOP* loop, const void* var) {
    BBLK* b = nullptr;
    for (EDGE* e = loop->head->predecessors; e; e = e->rest)
        if (!loop_contains(loop, e->bb)) {
            if (b) return nullptr;
            b = e->bb;
        }
    for (int guard = 0; b && guard < 64; ++guard) {
        for (auto it = b->statements.rbegin(); it != b->statements.rend(); ++it) {
            const NODE* t = it->tree;
            bool is_step;
            INT65 step;
            if (assigned_var(t, is_step, step) == var) return t->opcode == ASG ? t->right : nullptr;
            bool inside = false;  // an assignment within the statement
            for_each_node(t, [&](const NODE* n) {
                inside |= side_effects[n->opcode] == 1 && n->left && n->left->opcode == NAME && n->left->symbol == var;
            });
            if (inside) return nullptr;
        }
        b = edge_length(b->predecessors) == 1 ? b->predecessors->bb : nullptr;
    }
    return nullptr;
}

bool find_expr_init(const struct LOOP* loop, const void* var, INT65& value) {
    const NODE* init = find_expr_def(loop, var);
    if (!init || init->opcode != ICON) return false;
    value = init->value;
    return true;
}

namespace {

INT65 ceil_div(INT65 a, INT65 b) { return (a + b - INT65(1)) / b; }

void dump_loops() {
    // The hierarchy's dump belongs to the flow graph's module.
    const char* const THIS_MODULE = "OPT5/bbutils";
    if (!print_debug || !FDEBUG) return;
    DBG_CHECK(std::fprintf(FDEBUG, "\n\n\t\t\t---------- ENTERING 'build_loop_hierarchy' -------\n"));
    for (struct LOOP* l : currfuninfo->loops) {
        DBG_CHECK(std::fprintf(FDEBUG, "LOOP %d: level %d, head BB%d, tail BB%d, preheader BB%d, parent %d, blocks:",
                               l->uid, l->level, l->head->dfn, l->tail->dfn, l->preheader ? l->preheader->dfn : 0,
                               l->parent ? l->parent->uid : 0));
        for (EDGE* e = l->contents; e; e = e->rest) DBG_CHECK(std::fprintf(FDEBUG, " BB%d", e->bb->dfn));
        if (l->LCV)
            DBG_CHECK(std::fprintf(FDEBUG, "; LCV %s", static_cast<const SYMTAB*>(l->LCV)->name.c_str()));
        if (l->trips) DBG_CHECK(std::fprintf(FDEBUG, "; trips %s", l->trips->value.to_string().c_str()));
        DBG_CHECK(std::fprintf(FDEBUG, "\n"));
    }
}

}  // namespace

bool loop_contains(const struct LOOP* loop, const BBLK* bb) { return edge_memberp(bb, loop->contents); }

namespace {
// A new block laid out just before the loop's head that the ways in from
// `outside` take instead; null when the block laid out before the head is
// in the loop and falls into it.  Without `renumber` the blocks keep their
// numbers (the new one has none) until the caller renumbers them.
BBLK* block_in_front_of(struct LOOP* loop, const std::vector<BBLK*>& outside, bool renumber) {
    BBLK* head = loop->head;
    BBLK* before = head == currfuninfo->bb_list ? nullptr : head->prev;
    if (before && loop_contains(loop, before) && falls_through(before)) return nullptr;
    mklabel(0, head);
    BBLK* pre = mkbblock({}, head, currfuninfo);
    mklabel(0, pre);
    for (BBLK* o : outside) move_edge(o, head, pre);
    pre->successors = add_edge(head, pre->successors);
    head->predecessors = add_edge(pre, head->predecessors);
    if (renumber) renumber_bblocks();
    return pre;
}
}  // namespace

BBLK* preheader_of(struct LOOP* loop, bool renumber) {
    if (loop->preheader) return loop->preheader;
    std::vector<BBLK*> outside;
    for (EDGE* e = loop->head->predecessors; e; e = e->rest)
        if (!loop_contains(loop, e->bb)) outside.push_back(e->bb);
    if (outside.empty()) return nullptr;
    BBLK* pre = nullptr;
    BBLK* from = outside.front();
    if (outside.size() == 1 && renumber) {
        pre = split_cfg_edge(from, loop->head);
    } else if (!(pre = block_in_front_of(loop, outside, renumber))) {
        return nullptr;
    }
    loop->preheader = pre;
    // It belongs to the loops around this one that the ways in were in.
    pre->loop = nullptr;
    for (struct LOOP* l = loop->parent; l; l = l->parent)
        if (loop_contains(l, from)) {
            if (!pre->loop) pre->loop = l;
            l->contents = mkedge(pre, l->contents);
        }
    return pre;
}

void append_before_jump(BBLK* b, NODE* tree, const PSN& pos) {
    BODY_ENTRY e;
    e.tree = tree;
    e.pos = pos;
    auto at = b->statements.end();
    if (!b->statements.empty()) {
        std::vector<int> labels;
        bool falls = true;
        list_branch_targets(b->statements.back().tree, labels, falls);
        if (!labels.empty() || !falls) --at;
    }
    b->statements.insert(at, e);
}

struct LOOP* make_LOOP(BBLK* head, BBLK* tail, int uid, const struct LOOP* model) {
    struct LOOP* l = new struct LOOP;
    if (model) {
        *l = *model;
        l->contents = copy_edge_list(model->contents);
        l->exits = copy_edge_list(model->exits);
        l->trips = model->trips ? copy_tree(model->trips) : nullptr;
        l->max_trips = model->max_trips ? copy_tree(model->max_trips) : nullptr;
        l->max_trips_bound = model->max_trips_bound ? copy_tree(model->max_trips_bound) : nullptr;
        l->link = l->counterpart = nullptr;
        l->live_out = nullptr;  // the model's liveness is not this loop's
    }
    if (head || !model) l->head = head;
    if (tail || !model) l->tail = tail;
    if (uid >= 0 || !model) l->uid = static_cast<uint16_t>(uid);
    return l;
}

void unbuild_loop_hierarchy() {
    FUNINFO* fi = currfuninfo;
    for (BBLK* b = fi->bb_list; b; b = b->next) b->loop = nullptr;
    free_loops(fi);
    fi->address_taken.clear();
}

void assign_loop_levels(struct LOOP* loop, int level) {
    if (level < INT16_MIN || level > INT16_MAX) {
        std::fprintf(stderr, "Too many nested loops:  %d\n", level);
        abort_optimizer();
    }
    loop->level = static_cast<int16_t>(level);
    for (struct LOOP* inner : loop->inner) assign_loop_levels(inner, level + 1);
    if (loop->contents && loop->contents->bb->dfn > loop->head->dfn) fast_sort_edge_list(loop->contents);
}

bool loop_is_innermost(const struct LOOP* loop) { return loop->inner.empty(); }

void build_list_of_innermost_loop_headers(const struct LOOP* loop, std::vector<BBLK*>& list) {
    for (struct LOOP* l : loop ? loop->inner : currfuninfo->loops)
        if (loop_is_innermost(l)) list.push_back(l->head);
        else if (l->parent == loop) build_list_of_innermost_loop_headers(l, list);
}

void add_exit_blocks(struct LOOP* loop) {
    for (EDGE* e = loop->contents; e; e = e->rest)
        for (EDGE* s = e->bb->successors; s; s = s->rest)
            if (!loop_contains(loop, s->bb)) loop->exits = add_edge(s->bb, loop->exits);
}

std::map<const void*, loop_assignments> assignments_in_loop(const struct LOOP* loop) {
    std::map<const void*, loop_assignments> out;
    for (EDGE* e = loop->contents; e; e = e->rest)
        for (BODY_ENTRY& s : e->bb->statements) {
            bool is_step = false;
            INT65 step;
            const void* v = s.tree ? assigned_var(s.tree, is_step, step) : nullptr;
            if (!v) continue;
            loop_assignments& a = out[v];
            if (!is_step || (a.count > 0 && a.step != step)) a.steps_alike = false;
            a.step = step;
            ++a.count;
        }
    return out;
}

void find_loop_IVs(struct LOOP* loop, const std::set<const SYMTAB*>& taken) {
    loop->ivs.clear();
    for (auto& [v, a] : assignments_in_loop(loop))
        if (a.count == 1 && a.steps_alike && !a.step.is_zero() &&
            is_private_variable(static_cast<const SYMTAB*>(v), taken))
            loop->ivs.push_back({v, a.step});
}

NODE* latch_jump(const struct LOOP* loop) {
    for (auto it = loop->tail->statements.rbegin(); it != loop->tail->statements.rend(); ++it) {
        NODE* j = it->tree;
        if (!j) continue;
        if (j->opcode != CBRANCH || !j->right || j->right->opcode != LABEL || j->right->value != INT65(loop->head->label))
            return nullptr;
        return j;
    }
    return nullptr;
}

namespace {
// Calls f on every assignment to `var` in the loop, at a statement's root or
// inside it.
template <class F>
void for_each_assignment_in_loop(const struct LOOP* loop, const void* var, F&& f) {
    for (EDGE* e = loop->contents; e; e = e->rest)
        for (const BODY_ENTRY& s : e->bb->statements)
            for_each_node(s.tree, [&](const NODE* n) {
                if (is_assignment(n->opcode) && n->left && n->left->opcode == NAME && n->left->symbol == var) f(n);
            });
}

}  // namespace

int count_assignments_in_loop(const struct LOOP* loop, const void* var) {
    int n = 0;
    for_each_assignment_in_loop(loop, var, [&](const NODE*) { ++n; });
    return n;
}

namespace {
// Whether every change of `var` in the loop adds a constant of one sign
// (`v++`, `*PLUSPLUS(v, 2)`, `v -= 1`, `v = v + 4`); and at least one does.
bool stepped_one_way(const struct LOOP* loop, const SYMTAB* var) {
    int sign = 0;
    bool ok = true;
    for_each_assignment_in_loop(loop, var, [&](const NODE* n) {
        bool is_step = false;
        INT65 step;
        assigned_var(n, is_step, step);
        int now = !is_step || step.is_zero() ? 0 : step.is_negative() ? -1 : 1;
        if (now == 0 || (sign != 0 && now != sign)) ok = false;
        sign = now;
    });
    return ok && sign != 0;
}

// The variable of an exit test `v op bound` (either side) that the loop
// steps one way and compares with what the loop does not change.
const void* stepped_against_invariant(const struct LOOP* loop, const NODE* test) {
    if (test->opcode < EQ || test->opcode > UGT) return nullptr;
    for (const NODE* side : {test->left, test->right}) {
        const NODE* other = side == test->left ? test->right : test->left;
        if (side->opcode == NAME && is_private_variable(side->symbol, currfuninfo->address_taken) &&
            is_loop_invariant_value(loop, other) && stepped_one_way(loop, side->symbol))
            return side->symbol;
    }
    return nullptr;
}
}  // namespace

const loop_effects& find_region_constants(struct LOOP* loop, const std::set<const SYMTAB*>& taken) {
    loop_effects& fx = loop->effects;
    fx = loop_effects();
    for (EDGE* c = loop->contents; c; c = c->rest)
        for (const BODY_ENTRY& e : c->bb->statements)
            for_each_node(e.tree, [&](const NODE* n) {
                int op = n->opcode;
                if (op == LABEL || op == FIELD) return;
                if (op == ASM) fx.assembly = true;
                if (is_volatile_access(n)) fx.memory = true;
                if (side_effects[op] == 1) {
                    const NODE* place = n->left;
                    if (place && place->opcode == NAME && place->symbol) {
                        fx.assigned.insert(place->symbol);
                        if (!is_private_variable(place->symbol, taken)) fx.memory = true;
                    } else {
                        fx.memory = true;
                    }
                } else if (side_effects[op] == 255 && op != PCOMMA && op != COMMAOP) {
                    fx.memory = true;
                }
            });
    return fx;
}

// Whether the loop changes nothing a value reads: constants and private
// variables the loop never assigns, under integer operators that read no
// memory.
bool is_loop_invariant_value(const struct LOOP* loop, const NODE* n) {
    std::vector<const NODE*> work{n};
    while (!work.empty()) {
        n = work.back();
        work.pop_back();
        switch (n->opcode) {
        case ICON: break;
        case NAME:
            if (!is_private_variable(n->symbol, currfuninfo->address_taken) || loop->effects.assigned.count(n->symbol))
                return false;
            break;
        case PLUS: case MINUS: case MULT: case ANDB: case ORB: case XORB: case SLL: case SRL:
            if (!n->right) return false;
            work.push_back(n->right);
            [[fallthrough]];
        case UMINUS: case NOTB: case SCONV:
            if (!integer_view(n->type) || !n->left) return false;
            work.push_back(n->left);
            break;
        default: return false;
        }
    }
    return true;
}

namespace {
// The exit test: a conditional jump at the latch back to the header (the
// loop goes on while the test holds), or at the header out of the loop (the
// loop ends when it holds).
struct exit_test {
    const NODE* cond = nullptr;
    bool continue_while_true = true;
};

exit_test find_exit_test(const struct LOOP* loop) {
    const NODE* latch = latch_jump(loop);
    const NODE* head = loop->head->last_tree();
    if (latch) return {latch->left, true};
    if (head && head->opcode == CBRANCH && head->right && head->right->opcode == LABEL)
        for (EDGE* e = loop->head->successors; e; e = e->rest)
            if (!loop_contains(loop, e->bb) && e->bb->label == head->right->value.as<int32_t>()) return {head->left, false};
    return {};
}
}  // namespace

void find_loop_LCV(struct LOOP* loop) {
    exit_test test = find_exit_test(loop);
    const NODE* c = test.cond;
    if (!c || !c->left || !c->right) return;
    const LOOPIV* iv = nullptr;
    for (const LOOPIV& v : loop->ivs)
        if (c->left->opcode == NAME && v.var == c->left->symbol) iv = &v;
    if (!iv || c->right->opcode != ICON) {
        loop->LCV = stepped_against_invariant(loop, c);
        return;
    }
    loop->LCV = iv->var;

    INT65 init;
    if (!find_expr_init(loop, iv->var, init)) return;
    // Normalize to "go on while i < bound" (or <=, !=) for a positive step,
    // and the mirror image for a negative one.
    int op = c->opcode;
    if (!test.continue_while_true) op = boolean_inv[op];  // the comparisons checked below
    INT65 bound = c->right->value, step = iv->step, span;
    bool up = !step.is_negative();
    INT65 s = up ? step : -step;
    switch (op) {
    case LT: case ULT: if (!up) return; span = bound - init; break;
    case LE: case ULE: if (!up) return; span = bound - init + INT65(1); break;
    case GT: case UGT: if (up) return; span = init - bound; break;
    case GE: case UGE: if (up) return; span = init - bound + INT65(1); break;
    case NEQ:
        span = up ? bound - init : init - bound;
        if (!(span % s).is_zero()) return;  // would step over the bound
        if (span.is_negative()) return;     // reached only by wrapping around
        break;
    default: return;
    }
    INT65 trips = span.is_negative() || span.is_zero() ? INT65(0) : ceil_div(span, s);
    // A test at the bottom runs the body once before it is first tested.
    if (test.continue_while_true && trips.is_zero()) trips = INT65(1);
    TYPE* type = c->right->type;
    loop->trips = mk_ICON(trips, type);
}

void find_loop_assertions(struct LOOP* loop) {
    loop->tripFactor = 1;
    loop->min_trips = 0;
    if (loop->max_trips) erase_tree(loop->max_trips);
    loop->max_trips = nullptr;
    const auto* lcv = static_cast<const SYMTAB*>(loop->LCV);
    if (!lcv || (loop->trips && loop->trips->opcode == ICON)) return;
    exit_test test = find_exit_test(loop);
    const NODE* c = test.cond;
    if (!c || !c->left || !c->right) return;
    // Normalised to "go on while lcv < bound".
    int op = c->opcode;
    const NODE* bound = c->right;
    if (c->right->opcode == NAME && c->right->symbol == lcv) {
        bound = c->left;
        op = commute_inv[op];
    } else if (c->left->opcode != NAME || c->left->symbol != lcv) {
        return;
    }
    if (!test.continue_while_true) op = boolean_inv[op];
    if (op != LT && op != ULT) return;
    bool by_one = false;
    for (const LOOPIV& v : loop->ivs)
        if (v.var == lcv) by_one = v.step == INT65(1);
    INT65 init;
    if (!by_one || !find_expr_init(loop, lcv, init)) return;
    // A variable set before the loop is as good as what it was set to.
    TYPE* type = integer_view(bound->type);
    if (bound->opcode == NAME) {
        const NODE* def = find_expr_def(loop, bound->symbol);
        TYPE* dt = def ? integer_view(def->type) : nullptr;
        if (dt && type && dt->size == type->size && dt->signed_flag == type->signed_flag) bound = def;
    }
    if (!type) return;
    // The bound's bits: its low ones known to be zero, and the start's, make
    // the distance a multiple of a power of two; a bound that can't be
    // negative lies between its bits known to be one and those that may be.
    INT65 zeros = find_known_zeros(bound, type), ones = find_known_ones(bound, type);
    auto bit = [](int k) { return INT65(1) << INT65(k); };
    int k = 0;
    while (k < 16 && !(zeros & bit(k)).is_zero() && (init & bit(k)).is_zero()) ++k;
    loop->tripFactor = 1 << k;
    int width = static_cast<int>(type->size);
    if (type->signed_flag && (zeros & bit(width - 1)).is_zero()) return;
    INT65 mask = bit(width) - INT65(1);
    INT65 hi = ~zeros & mask, lo = ones & mask;
    // Tested at the bottom, the body runs once before the first test.
    INT65 least = test.continue_while_true ? INT65(1) : INT65(0);
    loop->max_trips = mk_ICON(hi > init + least ? hi - init : least, type);
    if (lo > init && (lo - init).fits_in<int32_t>()) loop->min_trips = (lo - init).as<int32_t>();
}

bool build_minimal_loop_hierarchy(bool normalise) {
    OPT_REQUIRE(currfuninfo && currfuninfo->bb_list);
    unbuild_loop_hierarchy();
    if (normalise && !normalise_loops(true)) return false;
    renumber_bblocks();
    if (!discover_loops()) {
        unbuild_loop_hierarchy();
        return false;
    }
    for (struct LOOP* l : currfuninfo->loops)
        if (l->parent) l->parent->inner.push_back(l);
    for (struct LOOP* l : currfuninfo->loops)
        if (!l->parent) assign_loop_levels(l, 1);
    for (struct LOOP* l : currfuninfo->loops) {
        BBLK* outside = nullptr;
        int entries = 0;
        for (EDGE* e = l->head->predecessors; e; e = e->rest)
            if (!loop_contains(l, e->bb)) {
                outside = e->bb;
                ++entries;
            }
        if (entries == 1 && edge_length(outside->successors) == 1) l->preheader = outside;
        add_exit_blocks(l);
        // Loop pragmas stand just before the loop, at the end of the block
        // that enters it.
        if (entries == 1)
            for (BODY_ENTRY& e : outside->statements)
                if (e.tree && e.tree->opcode == PPRAGMA && e.tree->x().pragma) {
                    if (e.tree->x().pragma->kind == PK_UNROLL) l->unroll_pragma = e.tree;
                    if (e.tree->x().pragma->kind == PK_PROB_ITERATE) l->trip_count_pragma = e.tree;
                }
    }
    return true;
}

void build_loop_hierarchy(bool value_ranges, bool, bool, int normalise) {
    bool do_normalise = normalise >= 0 ? normalise != 0 : value_ranges;
    bool built = build_minimal_loop_hierarchy(do_normalise);
    if (built) {
        // Inner loops first: they were discovered first.  Only variables
        // that nothing but their own assignments can change count as
        // induction variables, so that a trip count is never read from one
        // that a store through a pointer may change.
        currfuninfo->address_taken = address_taken_symbols();
        for (struct LOOP* l : currfuninfo->loops) {
            find_region_constants(l, currfuninfo->address_taken);
            find_loop_IVs(l, currfuninfo->address_taken);
            find_loop_LCV(l);
            find_loop_assertions(l);
        }
    }
    dump_loops();
}
