#include "OPT5/loop_unrolling.h"

#include <cstdio>
#include <set>
#include <utility>
#include <vector>

#include "OPT5/bbutils.h"
#include "OPT5/copyprop.h"
#include "OPT5/cmdline.h"
#include "OPT5/ddbloop.h"
#include "OPT5/ddunroll.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"

namespace {

// How a loop of `trips` iterations is unrolled: `factor` copies per test
// (0 to leave it, `trips` to unroll it completely), after `peeled` copies
// run once in front of it, when no factor the limits allow divides the
// trip count as well.
struct unrolling {
    int factor = 0;
    int peeled = 0;
};

unrolling choose_factor(struct LOOP* loop, int64_t trips, int size) {
    if (OK_to_unroll_completely(loop, size, 1)) return {static_cast<int>(trips), 0};
    int largest = max_unrolling_factor(loop, size);
    int dividing = 0;
    for (int f = largest; f >= 2 && !dividing; --f)
        if (trips % f == 0 && trips / f >= 2 && unroll_factor_satisfies_pragma(f, loop, 0)) dividing = f;
    // A larger factor with the remainder peeled, the copies at most one
    // more than the limits allow the loop.
    for (int f = largest; f > 2 * dividing && f >= 2; --f) {
        int rest = static_cast<int>(trips % f);
        if (trips / f >= 2 && f + rest <= largest + 1 && unroll_factor_satisfies_pragma(f, loop, 0)) return {f, rest};
    }
    return {dividing, 0};
}

// A loop unrolled completely whose counter starts at a known constant: each
// copy reads the counter's value in its iteration as a constant, and the
// counter is set once, to its value after the loop.  The body's trees go to
// the copies.  False, and nothing done, when the counter is not known.
bool unroll_with_counter_values(struct LOOP* loop, std::vector<BODY_ENTRY>& body, int trips,
                                std::vector<BODY_ENTRY>& out) {
    const SYMTAB* counter = static_cast<const SYMTAB*>(loop->LCV);
    INT65 init, step;
    bool stepped = false;
    for (const LOOPIV& iv : loop->ivs)
        if (iv.var == counter) {
            step = iv.step;
            stepped = true;
        }
    TYPE* type = counter ? integer_view(counter->type) : nullptr;
    if (!stepped || !type || !find_expr_init(loop, counter, init)) return false;
    size_t step_at = body.size();
    for (size_t i = 0; i < body.size(); ++i) {
        bool is_step = false;
        INT65 amount;
        if (assigned_var(body[i].tree, is_step, amount) == counter && is_step) step_at = i;
    }
    if (step_at == body.size()) return false;
    for (int copy = 0; copy < trips; ++copy)
        for (size_t i = 0; i < body.size(); ++i) {
            if (i == step_at) continue;
            INT65 value = truncate_to_type(init + step * INT65(copy + (i > step_at ? 1 : 0)), type);
            BODY_ENTRY c = body[i];
            c.tree = copy == trips - 1 ? body[i].tree : copy_tree(body[i].tree);
            bool changed = false;
            for_each_read_name(c.tree, [&](NODE*& n) {
                if (n->symbol != counter) return;
                TYPE* t = n->type;
                erase_node(n);
                n = mk_ICON(truncate_to_type(value, t), t);
                changed = true;
            });
            if (changed) c.tree = simp_tree(c.tree, nullptr);
            out.push_back(c);
        }
    BODY_ENTRY last = body[step_at];
    erase_tree(last.tree);
    last.tree = mktree(ASG, counter->type, mk_NAME(const_cast<SYMTAB*>(counter), counter->type),
                       mk_ICON(truncate_to_type(init + step * INT65(trips), type), counter->type));
    out.push_back(last);
    return true;
}

// Appends `copies` copies of the statements to `out`.
void append_copies(const std::vector<BODY_ENTRY>& body, int copies, std::vector<BODY_ENTRY>& out) {
    for (int copy = 0; copy < copies; ++copy)
        for (const BODY_ENTRY& e : body) {
            BODY_ENTRY c = e;
            c.tree = copy_tree(e.tree);
            out.push_back(c);
        }
}

// The loop's counter and bound when its test is "counter op bound" (or the
// mirror image) on a counter stepped once per iteration by 1 or -1 and a
// bound the loop keeps; the test normalised to "go on while counter op
// bound".
struct counted_test {
    SYMTAB* counter = nullptr;
    TYPE* type = nullptr;  // the counter's, as the test reads it
    NODE* bound = nullptr;
    int op = 0;
    bool up = true;
};

bool find_counted_test(struct LOOP* loop, const NODE* test, counted_test& out) {
    if (!test || !test->left || !test->right) return false;
    int op = test->opcode;
    NODE* counter = test->left;
    NODE* bound = test->right;
    if (counter->opcode != NAME) {
        std::swap(counter, bound);
        op = commute_inv[op];  // the comparisons checked below
    }
    if (counter->opcode != NAME || (bound->opcode != NAME && bound->opcode != ICON)) return false;
    if (!integer_view(counter->type) || integer_view(counter->type) != integer_view(bound->type)) return false;
    const std::set<const SYMTAB*>& taken = currfuninfo->address_taken;
    if (!is_private_variable(counter->symbol, taken)) return false;
    if (bound->opcode == NAME && (bound->symbol == counter->symbol || !is_private_variable(bound->symbol, taken)))
        return false;
    auto assigned = assignments_in_loop(loop);
    if (bound->opcode == NAME && assigned.count(bound->symbol)) return false;
    auto it = assigned.find(counter->symbol);
    if (it == assigned.end() || it->second.count != 1 || !it->second.steps_alike) return false;
    bool up = it->second.step == INT65(1);
    if (!up && it->second.step != INT65(-1)) return false;
    switch (op) {
    case LT: case LE: case ULT: case ULE: if (!up) return false; break;
    case GT: case GE: case UGT: case UGE: if (up) return false; break;
    case NEQ: break;
    default: return false;
    }
    out = {counter->symbol, counter->type, bound, op, up};
    return true;
}

// Whether the loop's test holds whenever the loop is entered: the blocks
// that lead to it in a straight line from a jump on the opposite test (a
// rotated loop's guard) leave the counter and the bound alone, or set the
// bound to what the guard compares with (an invariant hoisted out of the
// loop) and leave that alone.
bool entered_only_when_test_holds(struct LOOP* loop, const NODE* test, const counted_test& c) {
    const std::set<const SYMTAB*>& taken = currfuninfo->address_taken;
    // Computed from private variables and constants, reading no memory.
    auto plain = [&](const NODE* e) {
        bool ok = true;
        for_each_node(e, [&](const NODE* n) {
            if (side_effects[n->opcode] != 0 || n->opcode == UMULT ||
                (n->opcode == NAME && !is_private_variable(n->symbol, taken)))
                ok = false;
        });
        return ok;
    };
    NODE* expected = copy_tree(test);
    std::set<const SYMTAB*> watched{c.counter};
    const SYMTAB* bound = c.bound->opcode == NAME ? c.bound->symbol : nullptr;
    if (bound) watched.insert(bound);
    bool holds = false;
    BBLK* to = loop->head;
    for (int hops = 0; hops < 8; ++hops) {
        BBLK* from = nullptr;
        bool several = false;
        for (EDGE* e = to->predecessors; e; e = e->rest) {
            if (loop_contains(loop, e->bb)) continue;
            several |= from != nullptr;
            from = e->bb;
        }
        if (!from || several) break;
        const NODE* jump = from->last_tree();
        if (jump && jump->opcode == CBRANCH && edge_length(from->successors) == 2) {
            if (!jump->right || jump->right->opcode != LABEL) break;
            bool taken_here = to->label != 0 && jump->right->value == INT65(to->label);
            bool falls = from->next == to;
            if (taken_here == falls) break;
            NODE* reached = copy_tree(jump->left);
            if (falls) reached = invert_boolean_tree(reached);
            holds = same_tree(reached, expected);
            erase_tree(reached);
            break;
        }
        if (edge_length(from->successors) != 1) break;
        bool ok = true;
        for (auto it = from->statements.rbegin(); ok && it != from->statements.rend(); ++it) {
            NODE* t = it->tree;
            if (!t) continue;
            if (bound && watched.count(bound) && t->opcode == ASG && t->left && t->left->opcode == NAME &&
                t->left->symbol == bound && t->right && plain(t->right) && !sym_appears_in_tree(bound, t->right) &&
                !sym_appears_in_tree(c.counter, t->right)) {
                walk_and_modify_tree(expected, [&](NODE*& n) {
                    if (n->opcode == NAME && n->symbol == bound) {
                        erase_tree(n);
                        n = copy_tree(t->right);
                    }
                });
                watched.erase(bound);
                for_each_node(t->right, [&](const NODE* n) {
                    if (n->opcode == NAME) watched.insert(n->symbol);
                });
                continue;
            }
            for (const SYMTAB* w : watched)
                if (sym_appears_in_tree(w, t)) ok = false;
        }
        if (!ok) break;
        to = from;
    }
    erase_tree(expected);
    return holds;
}

// The loop block's statements but its jump (`body`, the block's own
// entries), `factor` times, then the jump.
void repeat_body(BBLK* b, const std::vector<BODY_ENTRY>& body, int factor) {
    std::vector<BODY_ENTRY> unrolled(body.begin(), body.end());
    append_copies(body, factor - 1, unrolled);
    unrolled.push_back(b->statements.back());
    b->statements.swap(unrolled);
}

// A loop whose trip count is known only when it runs: unrolled by a power
// of two, after the iterations left over run once each, straight-line, in
// front of it (a jump on the remainder of the trip count by the factor to
// the right number of copies).  The loop must be entered only when its test
// holds, so that the trip count is the distance from the counter to the
// bound.
bool unroll_run_time(struct LOOP* loop, BBLK* b, NODE* jump) {
    counted_test c;
    if (loop->unroll_pragma || !find_counted_test(loop, jump->left, c)) return false;
    int largest = max_unrolling_factor(loop, count_instrs_in_loop(loop));
    // A trip count known to be a multiple of a power of two leaves no
    // iterations over for a factor that divides it: as many copies as the
    // limits allow.  Otherwise the copies are the factor's and factor - 1
    // in front.
    int factor = 1;
    while (2 * factor <= largest && loop->tripFactor % (2 * factor) == 0) factor *= 2;
    bool whole = factor >= 2;
    if (!whole)
        while (2 * (2 * factor) - 1 <= largest + 1) factor *= 2;
    if (factor < 2) return false;
    if (!entered_only_when_test_holds(loop, jump->left, c)) return false;
    PSN pos = b->statements.back().pos;
    std::vector<BODY_ENTRY> body(b->statements.begin(), b->statements.end() - 1);
    if (whole) {
        repeat_body(b, body, factor);
        if (write_opt_info && finfo)
            std::fprintf(finfo, "Loop at line %llu unrolled %d times (a multiple of %d iterations).\n",
                         static_cast<unsigned long long>(pos.line), factor, loop->tripFactor);
        return true;
    }
    BBLK* pre = preheader_of(loop, false);  // the blocks are renumbered once, after every loop
    if (!pre) return false;
    BBLK* exit = b->next;
    if (!exit || !edge_memberp(exit, b->successors)) return false;

    // The trip count, modulo the factor, in the counter's unsigned type.
    TYPE* u = type_pkg->mk_unsigned(integer_view(c.type));
    NODE* counter = mk_NAME(c.counter, c.type);
    NODE* bound = copy_tree(c.bound);
    NODE* distance = c.up ? mktree(MINUS, u, mktree(SCONV, u, bound), mktree(SCONV, u, counter))
                          : mktree(MINUS, u, mktree(SCONV, u, counter), mktree(SCONV, u, bound));
    if (c.op == LE || c.op == ULE || c.op == GE || c.op == UGE)
        distance = mktree(PLUS, u, distance, mk_ICON(INT65(1), u));
    NODE* selector = simp_tree(mktree(ANDB, u, distance, mk_ICON(INT65(factor - 1), u)), nullptr);

    BODY_ENTRY guard;
    guard.tree =
        mktree(CBRANCH, jump->type, invert_boolean_tree(copy_tree(jump->left)), mk_LABELREF(mklabel(0, exit)));
    guard.pos = pos;
    std::vector<BODY_ENTRY> guard_block{guard};
    bool pre_falls_into_loop = pre->next == b;
    if (!pre_falls_into_loop) {
        BODY_ENTRY on;
        on.tree = mktree(BRANCH, nullptr, mk_LABELREF(b->label));
        on.pos = pos;
        guard_block.push_back(on);
    }
    BBLK* at = pre_falls_into_loop ? b : pre->next;
    at = mkbblock(std::move(guard_block), at, currfuninfo);
    // Copies for remainders 1, 2, ... factor - 1, the larger in front.
    NODE* cases = mktree(DEFAULT, nullptr, mk_LABELREF(b->label));
    for (int k = 1; k < factor; ++k) {
        std::vector<BODY_ENTRY> copy;
        append_copies(body, 1, copy);
        at = mkbblock(std::move(copy), at, currfuninfo);
        cases = mktree(PCOMMA, nullptr, mktree(CASE, nullptr, mk_ICON(INT65(k), u), mk_LABELREF(mklabel(0, at))),
                       cases);
    }
    NODE* last = pre->statements.empty() ? nullptr : pre->statements.back().tree;
    if (last && last->opcode == BRANCH) {
        erase_tree(last);
        pre->statements.pop_back();
    }
    BODY_ENTRY sw;
    sw.tree = mktree(SWITCH, u, selector, cases);
    sw.tree->mk_switch(factor - 1);  // the cases, the default not counted
    sw.pos = pos;
    pre->statements.push_back(sw);

    repeat_body(b, body, factor);
    if (write_opt_info && finfo)
        std::fprintf(finfo, "Loop at line %llu unrolled %d times; the iterations left over run first.\n",
                     static_cast<unsigned long long>(pos.line), factor);
    return true;
}

bool unroll(struct LOOP* loop) {
    BBLK* b = loop->head;
    if (loop->tail != b || edge_length(loop->contents) != 1 || b->statements.size() < 2) return false;
    NODE* jump = latch_jump(loop);
    if (!jump || jump != b->statements.back().tree) return false;
    for (const BODY_ENTRY& e : b->statements)
        if (!e.tree || e.tree->opcode == ASM || e.tree->opcode == LABELDEF || e.tree->opcode == PPRAGMA) return false;
    if (!loop->trips || loop->trips->opcode != ICON) return unroll_run_time(loop, b, jump);
    if (!loop->trips->value.fits_in<int32_t>()) return false;
    int64_t trips = loop->trips->value.as<int32_t>();
    if (trips < 2) return false;
    unrolling how = choose_factor(loop, trips, count_instrs_in_loop(loop));
    int factor = how.factor;
    if (factor < 2) return false;
    bool completely = factor == trips;
    BBLK* pre = how.peeled ? preheader_of(loop, false) : nullptr;
    if (how.peeled && !pre) return false;

    std::vector<BODY_ENTRY> body(b->statements.begin(), b->statements.end() - 1);
    PSN pos = b->statements.back().pos;
    std::vector<BODY_ENTRY> unrolled;
    unrolled.reserve(body.size() * static_cast<size_t>(factor) + 1);
    if (completely && unroll_with_counter_values(loop, body, static_cast<int>(trips), unrolled)) {
        erase_tree(jump);
        b->statements.swap(unrolled);
    } else {
        for (int copy = 0; copy < how.peeled; ++copy)
            for (const BODY_ENTRY& e : body) append_before_jump(pre, copy_tree(e.tree), e.pos);
        unrolled.insert(unrolled.end(), body.begin(), body.end());
        append_copies(body, factor - 1, unrolled);
        if (completely) erase_tree(jump);  // the last copy falls out of the loop
        else unrolled.push_back(b->statements.back());
        b->statements.swap(unrolled);
    }
    if (write_opt_info && finfo) {
        if (completely)
            std::fprintf(finfo, "Loop at line %llu unrolled completely (%lld iterations).\n",
                         static_cast<unsigned long long>(pos.line), static_cast<long long>(trips));
        else if (how.peeled)
            std::fprintf(finfo, "Loop at line %llu unrolled %d times (%lld iterations, %d of them peeled off).\n",
                         static_cast<unsigned long long>(pos.line), factor, static_cast<long long>(trips), how.peeled);
        else
            std::fprintf(finfo, "Loop at line %llu unrolled %d times (%lld iterations).\n",
                         static_cast<unsigned long long>(pos.line), factor, static_cast<long long>(trips));
    }
    return true;
}

}  // namespace

int unroll_loops() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || size_speed_goal() < 3 || !fi || !fi->bb_list) return 0;
    simpcfg(true, false);  // a loop body and its latch become one block
    build_loop_hierarchy(false, false, false, 0);
    int changes = 0;
    for (struct LOOP* loop : std::vector<struct LOOP*>(fi->loops))
        if (loop_is_innermost(loop) && unroll(loop)) ++changes;
    unbuild_loop_hierarchy();
    if (changes) {
        rebuildcfg();
        simpcfg(true, false);
    }
    return changes;
}
