#include "OPT5/loop_unrolling.h"

#include <cstdio>
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

// The factor for a loop of `trips` iterations: 0 to leave it, `trips` to
// unroll it completely.
int choose_factor(struct LOOP* loop, int64_t trips, int size) {
    if (OK_to_unroll_completely(loop, size, 1)) return static_cast<int>(trips);
    int largest = max_unrolling_factor(loop, size);
    for (int f = largest; f >= 2; --f)
        if (trips % f == 0 && trips / f >= 2 && unroll_factor_satisfies_pragma(f, loop, 0)) return f;
    return 0;
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

bool unroll(struct LOOP* loop) {
    BBLK* b = loop->head;
    if (loop->tail != b || edge_length(loop->contents) != 1 || b->statements.size() < 2) return false;
    NODE* jump = b->statements.back().tree;
    if (!jump || jump->opcode != CBRANCH || !jump->right || jump->right->opcode != LABEL ||
        jump->right->value != INT65(b->label))
        return false;
    if (!loop->trips || loop->trips->opcode != ICON || !loop->trips->value.fits_in<int32_t>()) return false;
    int64_t trips = loop->trips->value.as<int32_t>();
    if (trips < 2) return false;
    for (const BODY_ENTRY& e : b->statements)
        if (!e.tree || e.tree->opcode == ASM || e.tree->opcode == LABELDEF || e.tree->opcode == PPRAGMA) return false;
    int factor = choose_factor(loop, trips, count_instrs_in_loop(loop));
    if (factor < 2) return false;
    bool completely = factor == trips;

    std::vector<BODY_ENTRY> body(b->statements.begin(), b->statements.end() - 1);
    PSN pos = b->statements.back().pos;
    std::vector<BODY_ENTRY> unrolled;
    unrolled.reserve(body.size() * static_cast<size_t>(factor) + 1);
    if (completely && unroll_with_counter_values(loop, body, static_cast<int>(trips), unrolled)) {
        erase_tree(jump);
        b->statements.swap(unrolled);
    } else {
        unrolled.insert(unrolled.end(), body.begin(), body.end());
        for (int copy = 1; copy < factor; ++copy)
            for (const BODY_ENTRY& e : body) {
                BODY_ENTRY c = e;
                c.tree = copy_tree(e.tree);
                unrolled.push_back(c);
            }
        if (completely) erase_tree(jump);  // the last copy falls out of the loop
        else unrolled.push_back(b->statements.back());
        b->statements.swap(unrolled);
    }
    if (write_opt_info && finfo) {
        if (completely)
            std::fprintf(finfo, "Loop at line %llu unrolled completely (%lld iterations).\n",
                         static_cast<unsigned long long>(pos.line), static_cast<long long>(trips));
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
