#include "OPT5/induction.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "BITVEC/bitvec.h"
#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/ddbloop.h"
#include "OPT5/dominator.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opt_client.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"

namespace {

// A loop keeps at most this many new pointers (address registers are few).
constexpr int MAX_POINTERS = 6;
// Loops known to iterate fewer times than this are left as they are: a
// pointer set up for one iteration saves nothing.
constexpr int MIN_TRIPS = 2;
// Coefficients beyond this are left alone rather than risk overflow.
constexpr int64_t MAX_COEFFICIENT = int64_t{1} << 24;

void info(const char* fmt, unsigned long long line, const char* name) {
    if (write_opt_info && finfo) std::fprintf(finfo, fmt, line, name);
}

unsigned pointer_bits() { return static_cast<unsigned>(integer_view(type_pkg->mk_int(TYPE::IK_ULONG, false))->size); }

// Calls f(slot) for every operand slot below the statement, node before
// operands; f returns false to keep the walk out of the slot's operands.
template <class F>
void walk_slots(NODE* stmt, F&& f) {
    std::vector<NODE**> work;
    if (stmt->left) work.push_back(&stmt->left);
    if (stmt->right) work.push_back(&stmt->right);
    while (!work.empty()) {
        NODE** slot = work.back();
        work.pop_back();
        if (!f(slot)) continue;
        if ((*slot)->right) work.push_back(&(*slot)->right);
        if ((*slot)->left) work.push_back(&(*slot)->left);
    }
}

// The loop under work: what it assigns, and one of its counters.
struct counter_view {
    struct LOOP* loop;
    const SYMTAB* iv;
    int64_t step;
    const std::set<const SYMTAB*>* assigned;  // every variable the loop assigns
    const std::set<const SYMTAB*>* taken;
    unsigned ptr_bits;
    bool iv_in_range = false;  // the counter's values never wrap in its type (a counted loop)

    bool invariant_name(const SYMTAB* s) const {
        return s != iv && is_private_variable(s, *taken) && !assigned->count(s);
    }

    // The tree as a * iv + (something invariant): a, or false when the tree
    // is not of that form or its arithmetic could wrap where a pointer's
    // would not.
    bool coefficient(const NODE* t, int64_t& a) const {
        int64_t l = 0, r = 0;
        auto narrow_unsigned = [&](TYPE* type) {
            TYPE* it = integer_view(type);
            return it && !is_pointer_type(type) && !it->signed_flag && it->size < ptr_bits;
        };
        switch (t->opcode) {
        case NAME:
            if (t->symbol == iv) {
                a = 1;
                return iv_in_range || !narrow_unsigned(t->type);
            }
            a = 0;
            return invariant_name(t->symbol);
        case ICON: a = 0; return true;
        case UAND: a = 0; return t->left && t->left->opcode == NAME;
        case PCONV:
            if (!coefficient(t->left, a)) return false;
            return a == 0 || (integer_view(t->type) && integer_view(t->left->type) &&
                              integer_view(t->type)->size == integer_view(t->left->type)->size);
        case SCONV: {
            if (!coefficient(t->left, a)) return false;
            if (a == 0) return true;
            TYPE* from = integer_view(t->left->type);
            TYPE* to = integer_view(t->type);
            if (!from || !to || to->size < from->size) return false;
            return from->signed_flag || from->size >= ptr_bits ||
                   (iv_in_range && t->left->opcode == NAME && t->left->symbol == iv);
        }
        case PLUS: case MINUS:
            if (!coefficient(t->left, l) || !coefficient(t->right, r)) return false;
            a = t->opcode == PLUS ? l + r : l - r;
            break;
        case MULT:
            if (!coefficient(t->left, l) || !coefficient(t->right, r)) return false;
            if (l != 0 && r != 0) return false;
            if (l != 0 && t->right->opcode != ICON) return false;
            if (r != 0 && t->left->opcode != ICON) return false;
            a = l != 0 ? l * t->right->value.as<int64_t>() : r != 0 ? r * t->left->value.as<int64_t>() : 0;
            break;
        case SLL:
            if (!coefficient(t->left, l) || !coefficient(t->right, r) || r != 0) return false;
            if (l == 0) {
                a = 0;
                return true;
            }
            if (t->right->opcode != ICON || t->right->value.is_negative() || t->right->value >= INT65(24)) return false;
            a = l << t->right->value.as<int64_t>();
            break;
        default:
            return false;
        }
        if (a > MAX_COEFFICIENT || a < -MAX_COEFFICIENT) return false;
        return a == 0 || !narrow_unsigned(t->type);
    }
};

// Whether the statement steps the counter by a constant ("iv += c", ++,
// --, -=, iv = iv + c).
bool is_step_of(const NODE* t, const SYMTAB* iv) {
    bool is_step = false;
    INT65 step;
    return assigned_var(t, is_step, step) == iv && is_step;
}

// One new pointer: the address it stands for and how it moves.
struct reduced {
    NODE* address;  // a copy of the address tree (owned)
    int64_t coefficient;
    SYMTAB* pointer;
};

class loop_reducer {
public:
    loop_reducer(struct LOOP* loop, Dominator* dom, const std::set<const SYMTAB*>& taken, bool* live)
        : loop_(loop), dom_(dom), taken_(taken), live_(live) {}
    int run();

private:
    struct LOOP* loop_;
    Dominator* dom_;
    const std::set<const SYMTAB*>& taken_;
    bool* live_;  // the blocks' live-in sets are there
    std::set<const SYMTAB*> assigned_;
    int pointers_ = 0;

    // A step of the counter: its block and statement.
    struct step_site {
        BBLK* block;
        NODE* tree;
    };
    int reduce_counter(const LOOPIV& iv);
    bool stays_in_type(const SYMTAB* iv, TYPE* type, INT65 per_iteration) const;
    bool replace_test(counter_view& view, const std::vector<reduced>& made, const std::vector<step_site>& steps);
};

// The index of a statement in its block.
size_t index_in(const BBLK* b, const NODE* tree) {
    size_t i = 0;
    while (i < b->statements.size() && b->statements[i].tree != tree) ++i;
    return i;
}

int loop_reducer::run() {
    // Setting pointers up costs about what a few iterations save.
    if (loop_->trips && loop_->trips->opcode == ICON && loop_->trips->value < INT65(MIN_TRIPS)) return 0;
    for (EDGE* e = loop_->contents; e; e = e->rest)
        for (BODY_ENTRY& s : e->bb->statements) {
            if (!s.tree) continue;
            auto note = [&](NODE* n) {
                if (is_assignment(n->opcode) && n->left && n->left->opcode == NAME) assigned_.insert(n->left->symbol);
            };
            note(s.tree);
            walk_slots(s.tree, [&](NODE** slot) {
                note(*slot);
                return true;
            });
        }
    // Counters stepped more than once per iteration (an unrolled loop's),
    // by the same amount each time, count too.
    std::vector<LOOPIV> counters = loop_->ivs;
    for (auto& [v, a] : assignments_in_loop(loop_))
        if (a.count >= 2 && a.steps_alike && !a.step.is_zero() &&
            is_private_variable(static_cast<const SYMTAB*>(v), taken_))
            counters.push_back({v, a.step});
    int changes = 0;
    for (const LOOPIV& iv : counters) changes += reduce_counter(iv);
    return changes;
}

// Whether every value the counter takes in the loop is one of its type, so
// that it never wraps: it starts at a known value and the loop's test at
// the bottom bounds it by a constant, which it passes by at most one
// iteration's steps.
bool loop_reducer::stays_in_type(const SYMTAB* iv, TYPE* type, INT65 per_iteration) const {
    INT65 init;
    const NODE* jump = latch_jump(loop_);
    if (!jump || !find_expr_init(loop_, iv, init)) return false;
    const NODE* test = jump->left;
    if (!test || !test->left || !test->right || test->right->opcode != ICON) return false;
    const NODE* counter = test->left;
    if (counter->opcode == SCONV && counter->left && integer_view(counter->type) &&
        integer_view(counter->left->type) && integer_view(counter->type)->size >= integer_view(counter->left->type)->size)
        counter = counter->left;
    if (counter->opcode != NAME || counter->symbol != iv) return false;
    INT65 bound = test->right->value, lo, hi;
    bool up = !per_iteration.is_negative();
    // A strict test's bound is the value next to it.
    switch (test->opcode) {
    case LT: case ULT: bound = bound - INT65(1); [[fallthrough]];
    case LE: case ULE:
        if (!up) return false;
        lo = init;
        hi = (init > bound ? init : bound) + per_iteration;
        break;
    case GT: case UGT: bound = bound + INT65(1); [[fallthrough]];
    case GE: case UGE:
        if (up) return false;
        hi = init;
        lo = (init < bound ? init : bound) + per_iteration;
        break;
    default: return false;
    }
    return truncate_to_type(lo, type) == lo && truncate_to_type(hi, type) == hi;
}

int loop_reducer::reduce_counter(const LOOPIV& iv) {
    counter_view view{loop_, static_cast<const SYMTAB*>(iv.var), 0, &assigned_, &taken_, pointer_bits()};
    if (!iv.step.fits_in<int32_t>()) return 0;
    view.step = iv.step.as<int64_t>();
    TYPE* iv_type = integer_view(view.iv->type);
    if (!iv_type) return 0;

    // The counter's steps, each in a block run once in every iteration.
    std::vector<step_site> steps;
    std::set<const NODE*> step_trees;
    for (EDGE* e = loop_->contents; e; e = e->rest)
        for (size_t i = 0; i < e->bb->statements.size(); ++i)
            if (is_step_of(e->bb->statements[i].tree, view.iv)) {
                if (!dom_->dominates(e->bb, loop_->tail)) return 0;
                steps.push_back({e->bb, e->bb->statements[i].tree});
                step_trees.insert(e->bb->statements[i].tree);
            }
    if (steps.empty()) return 0;
    view.iv_in_range = stays_in_type(view.iv, iv_type, iv.step * INT65(static_cast<long long>(steps.size())));

    // The addresses that move with it, alike ones together.
    std::vector<reduced> made;
    std::vector<std::pair<NODE**, size_t>> uses;  // slot, index into made
    for (EDGE* e = loop_->contents; e; e = e->rest)
        for (BODY_ENTRY& s : e->bb->statements) {
            if (!s.tree || step_trees.count(s.tree)) continue;
            walk_slots(s.tree, [&](NODE** slot) {
                NODE* n = *slot;
                int64_t a;
                if ((n->opcode != PLUS && n->opcode != MINUS) || !is_pointer_type(n->type) ||
                    !view.coefficient(n, a) || a == 0)
                    return true;
                size_t k = 0;
                while (k < made.size() && !same_tree(made[k].address, n)) ++k;
                if (k == made.size()) {
                    if (pointers_ + static_cast<int>(made.size()) >= MAX_POINTERS) return false;
                    made.push_back({copy_tree(n), a, nullptr});
                }
                uses.push_back({slot, k});
                return false;
            });
        }
    if (made.empty()) return 0;
    BBLK* pre = preheader_of(loop_);
    if (!pre) {
        for (reduced& r : made) erase_tree(r.address);
        return 0;
    }

    const BBLK* first = steps.front().block;
    PSN pos = first->statements[index_in(first, steps.front().tree)].pos;
    TYPE* long_t = type_pkg->mk_int(TYPE::IK_LONG, true);
    std::vector<BODY_ENTRY> pointer_steps;
    for (size_t k = 0; k < made.size(); ++k) {
        reduced& r = made[k];
        r.pointer = make_local_temporary(r.address->type, view.iv->name + ".p" + std::to_string(++pointers_));
        if (!r.pointer) {  // nothing changed yet for this one or the ones after
            for (size_t j = k; j < made.size(); ++j) erase_tree(made[j].address);
            made.resize(k);
            break;
        }
        assigned_.insert(r.pointer);  // stepped in the loop from now on: no invariant for the next counter
        NODE* start = simp_tree(copy_tree(r.address), nullptr);
        append_before_jump(pre, mktree(ASG, r.address->type, mk_NAME(r.pointer, r.address->type), start), pos);
        BODY_ENTRY step;
        step.tree = mktree(PLUSASG, r.address->type, mk_NAME(r.pointer, r.address->type),
                           mk_ICON(INT65(static_cast<long long>(r.coefficient * view.step)), long_t));
        step.pos = pos;
        pointer_steps.push_back(step);
        info("Loop at line %llu: the address stepped by '%s' is kept in a pointer of its own.\n", pos.line,
             view.iv->name.c_str());
    }
    for (auto [slot, k] : uses) {
        if (k >= made.size()) continue;
        erase_tree(*slot);
        *slot = mk_NAME(made[k].pointer, made[k].address->type);
    }
    // The pointers move right after each step of the counter.
    for (const step_site& st : steps) {
        std::vector<BODY_ENTRY> moves = pointer_steps;
        if (&st != &steps.front())
            for (BODY_ENTRY& m : moves) m.tree = copy_tree(m.tree);
        size_t at = index_in(st.block, st.tree);
        st.block->statements.insert(st.block->statements.begin() + static_cast<std::ptrdiff_t>(at) + 1, moves.begin(),
                                    moves.end());
    }
    int changes = static_cast<int>(made.size());
    if (!made.empty() && replace_test(view, made, steps)) ++changes;
    for (reduced& r : made) erase_tree(r.address);
    return changes;
}

// The latch's test "iv < bound" becomes "p < address(bound)" when the
// counter is then only stepped, and is dead after the loop.
bool loop_reducer::replace_test(counter_view& view, const std::vector<reduced>& made,
                                const std::vector<step_site>& steps) {
    if (!view.iv->type || !integer_view(view.iv->type)->signed_flag) return false;
    NODE* jump = latch_jump(loop_);
    if (!jump) return false;
    NODE* test = jump->left;
    if (!test || !test->left || !test->right) return false;
    int op = test->opcode;
    NODE* bound = test->right;
    if (test->right->opcode == NAME && test->right->symbol == view.iv) {
        bound = test->left;
        op = commute_inv[op];  // the comparisons checked below
    } else if (!(test->left->opcode == NAME && test->left->symbol == view.iv)) {
        return false;
    }
    if (op != LT && op != LE && op != GT && op != GE) return false;
    if (!(bound->opcode == ICON || (bound->opcode == NAME && view.invariant_name(bound->symbol)))) return false;
    if (!bound->type || !view.iv->type || integer_view(bound->type) != integer_view(view.iv->type)) return false;

    // Nothing else in the loop reads the counter, and nothing after it.
    int refs = 0;
    for (EDGE* e = loop_->contents; e; e = e->rest)
        for (BODY_ENTRY& s : e->bb->statements)
            if (s.tree) refs += count_name(s.tree, view.iv);
    if (refs != static_cast<int>(steps.size()) + 1) return false;  // the steps and the test
    if (!*live_) {  // liveness is worked out once, for the first test that needs it
        find_live_variables(true, false);
        *live_ = true;
    }
    int index = lva_index(view.iv);
    if (index < 0) return false;
    for (EDGE* e = loop_->exits; e; e = e->rest)
        if (!e->bb->live_in || e->bb->live_in->test(static_cast<size_t>(index))) return false;

    const reduced& r = made.front();
    BBLK* pre = loop_->preheader;
    SYMTAB* end = make_local_temporary(r.address->type, view.iv->name + ".end");
    if (!end) return false;
    NODE* limit = copy_tree(r.address);
    walk_slots(limit, [&](NODE** s) {
        if ((*s)->opcode == NAME && (*s)->symbol == view.iv) {
            erase_tree(*s);
            *s = copy_tree(bound);
            return false;
        }
        return true;
    });
    PSN pos = loop_->tail->statements.back().pos;
    limit = simp_tree(limit, nullptr);
    append_before_jump(pre, mktree(ASG, r.address->type, mk_NAME(end, r.address->type), limit), pos);
    // Addresses grow with the counter when the coefficient is positive.
    if (r.coefficient < 0) op = op == LT ? GT : op == LE ? GE : op == GT ? LT : LE;
    int pointer_op = op == LT ? ULT : op == LE ? ULE : op == GT ? UGT : UGE;
    TYPE* test_type = test->type;
    erase_tree(test);
    jump->left = mktree(pointer_op, test_type, mk_NAME(r.pointer, r.address->type), mk_NAME(end, r.address->type));
    for (const step_site& st : steps) {
        size_t at = index_in(st.block, st.tree);
        erase_tree(st.tree);
        st.block->statements.erase(st.block->statements.begin() + static_cast<std::ptrdiff_t>(at));
    }
    info("Loop at line %llu: counter '%s' replaced by a pointer in the loop's test.\n", pos.line,
         view.iv->name.c_str());
    return true;
}

}  // namespace

int reduce_address_induction() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return 0;
    build_loop_hierarchy(false, false, false, 0);
    if (fi->loops.empty()) return 0;
    Dominator* dom = compute_dominators(false);
    int changes = 0;
    bool live = false;
    for (struct LOOP* loop : std::vector<struct LOOP*>(fi->loops))
        if (loop_is_innermost(loop)) changes += loop_reducer(loop, dom, fi->address_taken, &live).run();
    unbuild_loop_hierarchy();
    if (live) free_liveness(fi);
    if (changes) rebuildcfg();
    return changes;
}

namespace {
constexpr int MAX_BLOCKS_BETWEEN = 32;

// Past a join: the nearest block above `from` in the dominator tree that
// names the pointer, when it and the step's block `step` run equally often
// (the same innermost loop, the step's block running whenever it does) and
// no block between them names the pointer.  `at` gets one past its last
// statement that does.  Null when there is none.
BBLK* use_above_join(BBLK* from, BBLK* step, const SYMTAB* p, size_t& at) {
    Dominator* dom = dominators();
    BBLK* d = from;
    for (int hops = 0;; ++hops) {
        if (hops > 8 || d == currfuninfo->bb_list) return nullptr;
        d = dom->immediate_dominator(d);
        if (!d) return nullptr;
        if (sym_appears_in_bb(p, d)) break;
    }
    if (d->loop != step->loop || !dom->post_dominates(step, d)) return nullptr;
    // Every block a path from d reaches before the step's block.
    std::vector<BBLK*> work;
    std::set<const BBLK*> seen{d, step};
    for (EDGE* e = d->successors; e; e = e->rest) work.push_back(e->bb);
    while (!work.empty()) {
        BBLK* x = work.back();
        work.pop_back();
        if (!seen.insert(x).second) continue;
        if (seen.size() > MAX_BLOCKS_BETWEEN || sym_appears_in_bb(p, x)) return nullptr;
        for (EDGE* e = x->successors; e; e = e->rest) work.push_back(e->bb);
    }
    at = d->statements.size();
    while (at > 0 && !(d->statements[at - 1].tree && sym_appears_in_tree(p, d->statements[at - 1].tree))) --at;
    return at > 0 ? d : nullptr;
}
}  // namespace

int fold_post_increments() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return 0;
    std::set<const SYMTAB*> taken = address_taken_symbols();
    bool loops = false;  // which loop each block is in, found when first asked
    int changes = 0;
    for (BBLK* b = fi->bb_list; b; b = b->next) {
        auto& stmts = b->statements;
        for (size_t j = 0; j < stmts.size(); ++j) {
            NODE* inc = stmts[j].tree;
            if (!inc || (inc->opcode != PLUSASG && inc->opcode != PLUSPLUS) || !inc->left ||
                inc->left->opcode != NAME || !inc->right || inc->right->opcode != ICON ||
                !is_pointer_type(inc->left->type) || !is_private_variable(inc->left->symbol, taken))
                continue;
            const SYMTAB* p = inc->left->symbol;
            // The nearest statement before it that names the pointer, in
            // this block or in the straight line of blocks that leads to it.
            BBLK* ub = b;
            size_t i = j;
            for (int hops = 0;; ) {
                while (i > 0 && !(ub->statements[i - 1].tree && sym_appears_in_tree(p, ub->statements[i - 1].tree))) --i;
                if (i > 0 || ++hops > 8 || edge_length(ub->predecessors) != 1) break;
                BBLK* pred = ub->predecessors->bb;
                if (edge_length(pred->successors) != 1 || pred == b) break;
                ub = pred;
                i = ub->statements.size();
            }
            if (i == 0) {
                if (!loops) build_loop_hierarchy(false, false, false, 0);
                loops = true;
                if (!(ub = use_above_join(ub, b, p, i))) continue;
            }
            BODY_ENTRY& use_entry = ub->statements[i - 1];
            NODE* use = use_entry.tree;
            if (count_name(use, p) != 1) continue;
            // The access must run whenever the statement does: not under
            // && , || or ?: .
            NODE** at = nullptr;
            walk_slots(use, [&](NODE** s) {
                int op = (*s)->opcode;
                if (op == ANDAND || op == OROR || op == QUEST || op == COLON) return false;
                if (op == UMULT && (*s)->left && (*s)->left->opcode == NAME && (*s)->left->symbol == p)
                    at = &(*s)->left;
                return at == nullptr;
            });
            if (!at) continue;
            NODE* name = *at;
            NODE* amount = inc->right;
            inc->right = nullptr;
            erase_tree(inc);
            stmts.erase(stmts.begin() + static_cast<std::ptrdiff_t>(j));
            int op = PLUSPLUS;
            if (amount->value.is_negative()) {
                op = MINMIN;
                amount->value = -amount->value;
            }
            *at = mktree(op, name->type, name, amount);
            info("Line %llu: the step of pointer '%s' joins its access.\n", use_entry.pos.line, p->name.c_str());
            ++changes;
            --j;  // the next statement has moved here (wraps to 0 when j was 0)
        }
    }
    if (loops) unbuild_loop_hierarchy();
    return changes;
}
