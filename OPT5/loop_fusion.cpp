#include "OPT5/loop_fusion.h"

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/ddbloop.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"

namespace {
const char THIS_MODULE[] = "OPT5/loop_fusion";

// The fused body's statements at most: more would crowd the registers.
constexpr size_t MAX_FUSED_STATEMENTS = 48;

void trace(const char* text) {
    if (print_debug && FDEBUG) DBG_CHECK(std::fputs(text, FDEBUG));
}

// A one-block loop tested at its bottom: its statements end with the step
// of its counter and the jump back.
struct shape {
    struct LOOP* loop = nullptr;
    BBLK* block = nullptr;
    const SYMTAB* lcv = nullptr;
    INT65 init, step;
};

bool one_block_loop(struct LOOP* l, shape& s) {
    BBLK* b = l->head;
    if (!loop_is_innermost(l) || b != l->tail || edge_length(l->contents) != 1 || !l->LCV) return false;
    if (b->statements.size() < 2) return false;
    const NODE* jump = b->statements.back().tree;
    if (!jump || jump->opcode != CBRANCH || !jump->right || jump->right->opcode != LABEL ||
        jump->right->value != INT65(b->label))
        return false;
    s.loop = l;
    s.block = b;
    s.lcv = static_cast<const SYMTAB*>(l->LCV);
    return true;
}

// The counter is stepped once, by the statement before the jump.
bool stepped_once_at_the_bottom(shape& s) {
    std::vector<BODY_ENTRY>& st = s.block->statements;
    bool is_step = false;
    if (assigned_var(st[st.size() - 2].tree, is_step, s.step) != s.lcv || !is_step) return false;
    return count_assignments_in_loop(s.loop, s.lcv) == 1;
}

// One memory access: an element of an array, at the counter plus `offset`
// from `base` (the array's address, or a row of it the loop does not move).
struct access {
    const SYMTAB* array;
    const NODE* base;
    INT65 offset;
    TYPE* type;
    bool store;
};

// The accesses of a loop's statements, the variables they name, and those
// their bases name; false when one reaches memory any other way (or makes a
// call).
struct loop_use {
    std::vector<access> accesses;
    std::set<const SYMTAB*> named, in_bases;
};

// The array whose address a base is: &a, or &a plus an offset, converted.
const SYMTAB* array_of(const NODE* base) {
    while (base && (base->opcode == PCONV || base->opcode == PLUS)) {
        if (base->opcode == PLUS && base->right && is_pointer_type(base->right->type)) base = base->right;
        else base = base->left;
    }
    if (!base || base->opcode != UAND || !base->left || base->left->opcode != NAME || !base->left->symbol)
        return nullptr;
    const SYMTAB* a = base->left->symbol;
    return a->type && a->type->stripped()->kind == TYPE::ARRAY_T ? a : nullptr;
}

// counter, counter + c, c + counter, counter - c: the constant.
bool counter_offset(const NODE* n, const SYMTAB* lcv, INT65& c) {
    auto is_lcv = [&](const NODE* x) { return x && x->opcode == NAME && x->symbol == lcv; };
    if (is_lcv(n)) {
        c = INT65(0);
        return true;
    }
    if (!n || !n->left || !n->right) return false;
    if (n->opcode == PLUS && is_lcv(n->left) && n->right->opcode == ICON) c = n->right->value;
    else if (n->opcode == PLUS && is_lcv(n->right) && n->left->opcode == ICON) c = n->left->value;
    else if (n->opcode == MINUS && is_lcv(n->left) && n->right->opcode == ICON) c = -n->right->value;
    else return false;
    return true;
}

bool uses_of(const std::vector<BODY_ENTRY>& stmts, const SYMTAB* lcv, const std::set<const SYMTAB*>& taken,
             loop_use& u) {
    bool ok = true;
    for (const BODY_ENTRY& e : stmts) {
        // (node, whether it is the place an assignment stores to)
        std::vector<std::pair<const NODE*, bool>> work{{e.tree, false}};
        while (!work.empty() && ok) {
            auto [n, place] = work.back();
            work.pop_back();
            if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
            int op = n->opcode;
            if (op == NAME) {
                if (!n->symbol || taken.count(n->symbol) || is_volatile_access(n)) ok = false;
                else u.named.insert(n->symbol);
                continue;
            }
            if (op == UMULT) {
                const NODE* a = n->left;
                INT65 c;
                const SYMTAB* array = nullptr;
                const NODE* base = nullptr;
                if (a && a->opcode == PLUS) {
                    if ((array = array_of(a->left)) && counter_offset(a->right, lcv, c)) base = a->left;
                    else if ((array = array_of(a->right)) && counter_offset(a->left, lcv, c)) base = a->right;
                    else array = nullptr;
                }
                if (!array || is_volatile_access(n)) {
                    ok = false;
                    continue;
                }
                u.accesses.push_back({array, base, c, n->type, place});
                u.named.insert(lcv);
                for_each_node(base, [&](const NODE* x) {
                    if (x->opcode == NAME && x->symbol && x->symbol != array) {
                        u.named.insert(x->symbol);
                        u.in_bases.insert(x->symbol);
                    }
                });
                continue;
            }
            if (is_assignment(op)) {
                work.push_back({n->left, true});
                work.push_back({n->right, false});
                continue;
            }
            if (side_effects[op] != 0 && op != CBRANCH && op != PCOMMA && op != COMMAOP) {
                ok = false;  // calls, stores of other kinds, assembly
                continue;
            }
            work.push_back({n->left, false});
            work.push_back({n->right, false});
        }
    }
    return ok;
}

bool same_pragma(const NODE* a, const NODE* b) {
    if (!a || !b) return a == b;
    const PRAGMA* pa = a->x().pragma;
    const PRAGMA* pb = b->x().pragma;
    return pa && pb && pa->kind == pb->kind && pa->args == pb->args;
}

// Everything is checked before anything changes; true when the two loops
// became one.
bool try_fusion(shape& a, shape& b, BBLK* between) {
    FUNINFO* fi = currfuninfo;
    if (print_debug && FDEBUG)
        DBG_CHECK(std::fprintf(FDEBUG, "\ntry fusion for loop%d and loop%d in %s()...\n", a.loop->uid, b.loop->uid,
                               currfunc ? currfunc->name.c_str() : ""));
    const NODE* ta = a.loop->trips;
    const NODE* tb = b.loop->trips;
    if (!ta || !tb || ta->opcode != ICON || tb->opcode != ICON || ta->value != tb->value ||
        ta->value <= INT65(0)) {
        trace("\n trip counts are not suitable\n");
        return false;
    }
    if (!find_expr_init(a.loop, a.lcv, a.init) || !find_expr_init(b.loop, b.lcv, b.init) || a.init != b.init) {
        trace("loop iv inittree is not suitable\n");
        return false;
    }
    if (!stepped_once_at_the_bottom(a) || !stepped_once_at_the_bottom(b) || a.step != b.step || a.step.is_zero()) {
        trace("loop iv incrtree is not suitable\n");
        return false;
    }
    const char* pragma = !same_pragma(a.loop->unroll_pragma, b.loop->unroll_pragma)           ? "unroll pragma"
                         : !same_pragma(a.loop->trip_count_pragma, b.loop->trip_count_pragma) ? "trip count pragma"
                                                                                              : nullptr;
    if (pragma) {
        if (print_debug && FDEBUG)
            DBG_CHECK(std::fprintf(FDEBUG, "\n\tcannot fuse loop%d and loop%d due to %s\n", a.loop->uid, b.loop->uid,
                                   pragma));
        return false;
    }
    // What lies between: constant assignments to the second's counter, or
    // to variables the first loop never names.
    loop_use ua, ub;
    const std::set<const SYMTAB*>& taken = fi->address_taken;
    // What each loop assigns by name, as find_region_constants found it.
    const std::set<const SYMTAB*>& assigned_a = a.loop->effects.assigned;
    const std::set<const SYMTAB*>& assigned_b = b.loop->effects.assigned;
    if (!uses_of(a.block->statements, a.lcv, taken, ua) || !uses_of(b.block->statements, b.lcv, taken, ub)) {
        trace("fusion not legal!\n");
        return false;
    }
    for (const BODY_ENTRY& e : between->statements) {
        const NODE* t = e.tree;
        bool constant_init = t && t->opcode == ASG && t->left && t->left->opcode == NAME && t->left->symbol &&
                             t->right && t->right->opcode == ICON && !taken.count(t->left->symbol);
        bool restarts_the_counter = constant_init && t->left->symbol == a.lcv && a.lcv == b.lcv;
        if (!constant_init || (!restarts_the_counter && ua.named.count(t->left->symbol))) {
            trace("fusion not legal!\n");
            return false;
        }
    }
    // Variables: the counters are each other's (or one), anything else
    // assigned in one is not named in the other.
    for (const SYMTAB* v : assigned_a)
        if (v != a.lcv && (ub.named.count(v) || assigned_b.count(v))) {
            trace("defined in 1st loop lives in 2nd loop\n");
            return false;
        }
    for (const SYMTAB* v : assigned_b)
        if (v != b.lcv && (ua.named.count(v) || assigned_a.count(v))) {
            trace("defined in 2nd loop lives in 1st loop\n");
            return false;
        }
    if (a.lcv != b.lcv && (ub.named.count(a.lcv) || ua.named.count(b.lcv))) {
        trace("defined in 1st loop lives in 2nd loop\n");
        return false;
    }
    // The rows the accesses start from stay where they are in both loops.
    for (const loop_use* u : {&ua, &ub})
        for (const SYMTAB* v : u->in_bases)
            if (assigned_a.count(v) || assigned_b.count(v)) {
                trace("fusion not legal!\n");
                return false;
            }
    // Memory: an element the first body reaches in iteration k1 and the
    // second in k2 was reached by the first before the second; fused it
    // still is when k1 <= k2, that is when the second's offset is not past
    // the first's in the direction the counters go.
    for (const access& x : ua.accesses)
        for (const access& y : ub.accesses) {
            if (x.array != y.array || (!x.store && !y.store)) continue;
            bool comparable = x.type && y.type && x.type->stripped() == y.type->stripped() && same_tree(x.base, y.base);
            bool in_order = !a.step.is_negative() ? y.offset <= x.offset : y.offset >= x.offset;
            if (!comparable || !in_order) {
                trace("fusion not legal!\n");
                return false;
            }
        }
    // Each body less its jump back.
    if (a.block->statements.size() - 1 + b.block->statements.size() - 1 > MAX_FUSED_STATEMENTS) {
        trace("fusion not profitable\n");
        return false;
    }
    trace("fusion OK!\n");

    // The second body goes before the first's step.  A second counter of
    // the same type as the first is the first in it, and takes its value
    // after the loop; one of another type keeps its own step beside.
    auto* first_lcv = const_cast<SYMTAB*>(a.lcv);
    auto* second_lcv = const_cast<SYMTAB*>(b.lcv);
    bool renamed = a.lcv != b.lcv && a.lcv->type && b.lcv->type && a.lcv->type->stripped() == b.lcv->type->stripped();
    std::vector<BODY_ENTRY>& sa = a.block->statements;
    std::vector<BODY_ENTRY>& sb = b.block->statements;
    unsigned long long first_line = sa.front().pos.line, second_line = sb.front().pos.line;
    size_t keep_b = sb.size() - 1 - (a.lcv == b.lcv || renamed ? 1 : 0);
    if (renamed)
        for (size_t k = 0; k < keep_b; ++k)
            walk_and_modify_tree(sb[k].tree, [&](NODE*& n) {
                if (n->opcode == NAME && n->symbol == second_lcv) n->symbol = first_lcv;
            });
    sa.insert(sa.end() - 2, sb.begin(), sb.begin() + static_cast<long>(keep_b));
    PSN exit_pos = sb.back().pos;
    for (size_t k = keep_b; k < sb.size(); ++k) erase_tree(sb[k].tree);
    sb.clear();
    // What lay between starts the second counter before the fused loop;
    // starting a counter the fused loop steps is dropped.
    BBLK* pre = a.block->prev;
    for (BODY_ENTRY& e : between->statements) {
        const SYMTAB* v = e.tree->left->symbol;
        if (v == a.lcv || (renamed && v == b.lcv)) erase_tree(e.tree);
        else append_before_jump(pre, e.tree, e.pos);
    }
    between->statements.clear();
    if (renamed) {
        TYPE* t = second_lcv->type;
        between->statements.push_back({BODY_ENTRY::STMT, mktree(ASG, t, mk_NAME(second_lcv, t), mk_NAME(first_lcv, t)),
                                       exit_pos});
    }
    if (write_opt_info && finfo) {
        std::fprintf(finfo, "Loops at lines %llu and %llu fused.\n", first_line, second_line);
    }
    return true;
}

// The first pair of neighbouring loops directly inside `parent` (null: the
// outermost loops), in layout order, fused; false when none could be.
bool fuse_loops_at_loop_level(struct LOOP* parent) {
    std::vector<BBLK*> heads;
    auto consider = [&](BBLK* b) {
        if (b->loop && b->loop->head == b && b->loop->parent == parent) heads.push_back(b);
    };
    if (parent) {
        for (EDGE* e = parent->contents; e; e = e->rest) consider(e->bb);
    } else {
        for (BBLK* b = currfuninfo->bb_list; b; b = b->next) consider(b);
    }
    for (BBLK* b : heads) {
        shape first, second;
        if (!one_block_loop(b->loop, first)) continue;
        BBLK* between = b->next;
        if (!between || between->loop != parent || edge_length(between->predecessors) != 1 ||
            edge_length(between->successors) != 1 || !falls_through(between) || !between->next)
            continue;
        BBLK* h = between->next;
        if (!h->loop || h->loop->head != h || h->loop->parent != parent || !one_block_loop(h->loop, second))
            continue;
        // Each loop is entered only from the block before it.
        if (edge_length(h->predecessors) != 2 || !edge_memberp(between, h->predecessors)) continue;
        if (b == currfuninfo->bb_list || edge_length(b->predecessors) != 2 || !edge_memberp(b->prev, b->predecessors) ||
            !falls_through(b->prev) || loop_contains(b->loop, b->prev))
            continue;
        if (try_fusion(first, second, between)) return true;
    }
    return false;
}

// One fusion at any level of the current hierarchy.
bool fuse_one_pair() {
    if (fuse_loops_at_loop_level(nullptr)) return true;
    for (struct LOOP* l : currfuninfo->loops)
        if (!loop_is_innermost(l) && fuse_loops_at_loop_level(l)) return true;
    return false;
}

}  // namespace

int fuse_loops() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return 0;
    int fused = 0;
    for (;;) {
        simpcfg(true, false);  // a loop body and its latch become one block
        build_loop_hierarchy(false, false, false, 0);
        bool done = fi->loops.size() < 2 || !fuse_one_pair();
        unbuild_loop_hierarchy();
        if (done) break;
        ++fused;
        rebuildcfg();
    }
    return fused;
}
