// Unroll-factor limits.
#include "OPT5/ddunroll.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/abort.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/globals.h"
#include "OPT5/md_rules.h"
#include "OPT5/node.h"
#include "OPT5/opt_client.h"
#include "OPT5/simp.h"

namespace {
const char THIS_MODULE[] = "OPT5/ddunroll";

bool debugging() { return print_debug && FDEBUG; }

// The size budget: debug:max_unroll_size when set, else 90.
int size_budget() { return pass_debug_max_unroll_size ? static_cast<int>(pass_debug_max_unroll_size) : 90; }

// An operator: a node with operands (leaves, labels and fields have none;
// 255 marks the nodes with any number, lists and the like).
bool is_operator(const NODE* t) { return number_of_operands[t->opcode] > 0 && number_of_operands[t->opcode] != 255; }

// A conversion the target makes on the way: a pointer's, and an integer's
// that keeps or drops bits (registers hold the low part; a load extends
// what it loads).
bool free_conversion(const NODE* t) {
    if (t->opcode == PCONV) return true;
    if (t->opcode != SCONV || !t->left) return false;
    TYPE* to = integer_view(t->type);
    TYPE* from = integer_view(t->left->type);
    if (!to || !from) return false;
    return to->size <= from->size || t->left->opcode == UMULT;
}

// Machine instructions of a statement, roughly: one per operator, less
// what the target does on the way.  The address of a memory access is its
// addressing mode when it is a register, a post-increment or a base plus a
// scaled index or an offset; conversions are free as free_conversion says;
// an operation assigned to a variable computes into it.
int instructions_in(const NODE* stmt) {
    enum role { VALUE, ADDRESS, INDEX };
    std::vector<std::pair<const NODE*, role>> work{{stmt, VALUE}};
    int n = 0;
    while (!work.empty()) {
        auto [t, r] = work.back();
        work.pop_back();
        if (!t) continue;
        if (r == ADDRESS) {
            switch (t->opcode) {
            case PCONV: work.push_back({t->left, ADDRESS}); continue;
            case NAME: case ICON: case UAND: continue;
            case PLUSPLUS: case MINMIN:
                if (t->left && t->left->opcode == NAME) continue;
                break;
            case PLUS: case MINUS:
                work.push_back({t->left, ADDRESS});
                work.push_back({t->right, INDEX});
                continue;
            default: break;
            }
        } else if (r == INDEX) {
            if (free_conversion(t)) {
                work.push_back({t->left, INDEX});
                continue;
            }
            if ((t->opcode == SLL || t->opcode == MULT) && t->right && t->right->opcode == ICON) {
                work.push_back({t->left, VALUE});
                continue;
            }
        }
        if (!is_operator(t)) continue;
        if (free_conversion(t)) {
            work.push_back({t->left, VALUE});
            continue;
        }
        if (t->opcode == UMULT) {  // a load
            ++n;
            work.push_back({t->left, ADDRESS});
            continue;
        }
        if (is_assignment(t->opcode) && t->left && t->left->opcode == UMULT) {  // a store
            n += t->opcode == ASG ? 1 : 3;                                    // read, operate, write
            work.push_back({t->left->left, ADDRESS});
            work.push_back({t->right, VALUE});
            continue;
        }
        if (t->opcode == ASG && t->left && t->left->opcode == NAME && t->right) {
            const NODE* value = t->right;
            while (free_conversion(value)) value = value->left;
            if (is_operator(value)) {
                work.push_back({t->right, VALUE});
                continue;
            }
        }
        ++n;
        work.push_back({t->left, VALUE});
        work.push_back({t->right, VALUE});
    }
    return n;
}

// The loop-carried latency of a statement x = f(x): the latencies along
// the longest path from the root down to a use of x.
int carried_latency(const NODE* t, const SYMTAB* x) {
    if (!t) return -1;
    if (t->opcode == NAME) return t->symbol == x ? 0 : -1;
    int below = std::max(carried_latency(t->left, x), carried_latency(t->right, x));
    if (below < 0) return -1;
    int own = 0;
    if (md_rule_base && number_of_operands[t->opcode] > 0) {
        std::vector<DECL_RULE*> d = md_rule_base->find_declaration_for_tree(const_cast<NODE*>(t), false);
        own = d.empty() ? 1 : md_rule_base->latency_of(d[0]);
    } else if (number_of_operands[t->opcode] > 0) {
        own = 1;
    }
    return below + own;
}
}  // namespace

INT65 get_PPRAGMA_tree_int_arg(const NODE* tree, int index) {
    if (!tree || !tree->x().pragma || index < 0 || static_cast<size_t>(index) >= tree->x().pragma->args.size()) return INT65(0);
    INT65 v;
    return INT65::parse(tree->x().pragma->args[static_cast<size_t>(index)].c_str(), v) ? v : INT65(0);
}

void update_pragmas_for_loop(struct LOOP* loop, int factor) {
    loop->counter = static_cast<uint16_t>(std::max(1, loop->counter * factor));
}

int count_instrs_in_block(const BBLK* bb) {
    int n = 0;
    for (const BODY_ENTRY& e : bb->statements) n += instructions_in(e.tree);
    return n;
}

int count_instrs_in_loop(const struct LOOP* loop) {
    int n = 0;
    for (EDGE* e = loop->contents; e; e = e->rest) n += count_instrs_in_block(e->bb);
    return n;
}

int size_when_unrolled(int size, int trips, int copies_of_test) {
    (void)copies_of_test;  // the test goes away when the loop is unrolled completely
    long long s = static_cast<long long>(size) * trips;
    return s > 1000000 ? 1000000 : static_cast<int>(s);
}

// Cycles the busiest functional unit needs for one iteration (the
// operations the description does not place count one cycle of an ALU).
int predict_loop_resource_bound(const struct LOOP* loop, int factor, int flags, int extra) {
    (void)flags;
    std::map<unsigned, int> busy;
    int unplaced = 0;
    for (EDGE* e = loop->contents; e; e = e->rest)
        for (const BODY_ENTRY& st : e->bb->statements) {
            std::vector<const NODE*> work{st.tree};
            while (!work.empty()) {
                const NODE* t = work.back();
                work.pop_back();
                if (!t || t->opcode == LABEL || t->opcode == FIELD) continue;
                if (is_operator(t)) {
                    std::vector<std::pair<int, std::set<unsigned>>> usage;
                    if (md_rule_base) FU_usage_of_tree_node(const_cast<NODE*>(t), false, usage);
                    if (usage.empty()) ++unplaced;
                    for (auto& [cycle, units] : usage)
                        if (!units.empty()) ++busy[*units.begin()];  // the first unit that can take it
                }
                work.push_back(t->left);
                work.push_back(t->right);
            }
        }
    int bound = (unplaced + 1) / 2;  // two ALUs
    for (auto& [unit, n] : busy) bound = std::max(bound, n);
    return std::max(1, bound * std::max(1, factor) + extra);
}

int predict_loop_recurrence_bound(const struct LOOP* loop) {
    int bound = 1;
    for (EDGE* e = loop->contents; e; e = e->rest)
        for (const BODY_ENTRY& st : e->bb->statements) {
            const NODE* t = st.tree;
            if (!t || !t->left || t->left->opcode != NAME) continue;
            if (t->opcode == ASG) bound = std::max(bound, carried_latency(t->right, t->left->symbol));
            else if (t->opcode >= PLUSASG && t->opcode <= SRLASG && side_effects[t->opcode] == 1)
                bound = std::max(bound, 1 + std::max(0, carried_latency(t->right, t->left->symbol)));
        }
    return bound;
}

INT65 calculate_maxval_for_tree(const NODE* tree, const struct LOOP* loop) {
    (void)loop;
    if (!tree) return INT65(0);
    if (tree->opcode == ICON) return tree->value;
    // Nothing better known than the type's range.
    TYPE* t = integer_view(tree->type);
    if (!t) return INT65(0x7FFFFFFF);
    unsigned w = static_cast<unsigned>(t->size);
    return (INT65(1) << INT65(static_cast<int>(t->signed_flag ? w - 1 : w))) - INT65(1);
}

bool statement_qualifies_for_SP(const NODE* stmt) {
    bool ok = true;
    std::vector<const NODE*> work{stmt};
    while (!work.empty() && ok) {
        const NODE* t = work.back();
        work.pop_back();
        if (!t) continue;
        if (is_call(t->opcode) || t->opcode == ASM || t->opcode == RETURN || t->opcode == URETURN ||
            t->opcode == SWITCH)
            ok = false;
        work.push_back(t->left);
        work.push_back(t->right);
    }
    return ok;
}

// A counted loop with a single back edge and no calls.
bool loop_qualifies_for_SP(const struct LOOP* loop) {
    if (!loop || !loop->trips || !loop->head || !loop->tail) return false;
    for (EDGE* e = loop->contents; e; e = e->rest)
        for (const BODY_ENTRY& st : e->bb->statements) {
            bool calls = false;
            walk_and_modify_tree(st.tree, [&](NODE*& n) { calls |= is_call(n->opcode); });
            if (st.tree && is_call(st.tree->opcode)) calls = true;
            if (calls) return false;
        }
    return true;
}

int min_unrolling_factor(struct LOOP* loop) {
    if (!loop->unroll_pragma) return 1;
    return get_PPRAGMA_tree_int_arg(loop->unroll_pragma, 0).as<int32_t>();
}

int max_unrolling_factor(struct LOOP* loop, int size) {
    if (loop->unroll_pragma) return get_PPRAGMA_tree_int_arg(loop->unroll_pragma, 0).as<int32_t>();
    if (size < 1) size = std::max(1, count_instrs_in_loop(loop));
    bool speed = size_speed_goal() > 3;
    int f = speed ? static_cast<int>(size_budget() * 0.6 / size) : 45 / size;
    int n = loop->counter;
    if (n >= 2) f = (f + n + 1) / n;
    else loop->counter = 1;
    int fMax = std::min(f, 8);
    if (debugging()) {
        int resII = predict_loop_resource_bound(loop, 1, 0, 0);
        int recII = predict_loop_recurrence_bound(loop);
        int II = std::max(resII, recII);
        std::string trips = loop->trips ? stmt2infix(loop->trips) : "";
        DBG_CHECK(std::fprintf(FDEBUG,
                               "\n  Considering unrolling loop #%d:  trips=%s fMax=%d;\n\t\tsize=%d; resII=%d; "
                               "recII=%d; II=%d; ILP=%3.1f\n",
                               loop->uid, trips.c_str(), fMax, size, resII, recII, II,
                               static_cast<double>(static_cast<float>(size) / static_cast<float>(II))));
    }
    if (fMax < 2) return 1;
    int c = fMax;
    if (loop->max_trips) {
        bool both_two = loop->max_trips->opcode == ICON && loop->max_trips->value == INT65(2) && loop->max_trips_bound &&
                        loop->max_trips_bound->opcode == ICON && loop->max_trips_bound->value == INT65(2);
        if (both_two) {
            c = 2;
        } else {
            INT65 m = calculate_maxval_for_tree(loop->max_trips, loop);
            if (m >= INT65(8 * fMax)) {
                c = fMax;
            } else if (m > INT65(15)) {
                c = (m / INT65(8)).as<int32_t>();
            } else {
                if (debugging())
                    DBG_CHECK(std::fprintf(FDEBUG, "  Maximum trip count is too small for unrolling: %s\n",
                                           m.to_string().c_str()));
                return 1;
            }
        }
    }
    if (loop->trip_count_pragma) {
        INT65 p = get_PPRAGMA_tree_int_arg(loop->trip_count_pragma, 1);
        if (p >= INT65(8) * INT65(c)) return c;
        if (p > INT65(15)) return (p / INT65(8)).as<int32_t>();
        if (debugging())
            DBG_CHECK(std::fprintf(FDEBUG, " Probable trip count is too small for unrolling %s \n", p.to_string().c_str()));
        return 1;
    }
    return c;
}

bool unroll_factor_satisfies_pragma(int factor, struct LOOP* loop, int exact) {
    if (factor <= 0 || !loop->unroll_pragma) return true;
    INT65 p = get_PPRAGMA_tree_int_arg(loop->unroll_pragma, 0);
    if (exact) return p == INT65(factor);
    return (p % INT65(factor)).is_zero();
}

bool OK_to_unroll_completely(struct LOOP* loop, int size, int no_outer_SP) {
    if (size_speed_goal() < 2) return false;
    int U = currfuninfo && currfuninfo->unroll_completely ? size_budget() : static_cast<int>(0.8 * size_budget());
    if (!loop->trips || loop->trips->opcode != ICON || !loop->trips->value.fits_in<int32_t>()) return false;
    int trips = loop->trips->value.as<int32_t>();
    if (trips < 2 || loop->no_complete_unroll) return false;
    if (loop->unroll_pragma) {
        INT65 p = get_PPRAGMA_tree_int_arg(loop->unroll_pragma, 0);
        if (!(p % INT65(trips)).is_zero()) return false;
    }
    int s = size_when_unrolled(size, trips, 1);
    if (s >= U) return false;
    bool outer_SP = false;
    if (s > 45) {
        if (trips == 2 && loop->parent && s <= (U + 45) / 2) {
            if (debugging()) DBG_CHECK(std::fputs("  OK to unroll 2X completely.\n", FDEBUG));
            return true;
        }
        outer_SP = true;
    } else if (trips <= 20 || (trips <= 30 && loop->parent)) {
        if (debugging()) DBG_CHECK(std::fprintf(FDEBUG, "  OK to unroll completely: size=%d.\n", s));
        return true;
    } else {
        outer_SP = true;
    }
    // Unrolling so that the outer loop can be software-pipelined.
    if (!outer_SP || no_outer_SP) return false;
    struct LOOP* parent = loop->parent;
    bool ok = parent && loop_qualifies_for_SP(parent);
    if (ok && parent->contents && !parent->contents->rest)
        for (const BODY_ENTRY& st : parent->contents->bb->statements) ok = ok && statement_qualifies_for_SP(st.tree);
    if (ok)
        for (EDGE* e = parent->contents; e; e = e->rest)
            if (e->bb != loop->head) s += count_instrs_in_block(e->bb);
    ok = ok && s <= U;
    if (debugging())
        DBG_CHECK(std::fputs(ok ? "  OK to unroll completely so as to SP outer loop.\n\n"
                                : "  NOT OK to unroll completely so as to SP outer loop.\n\n",
                             FDEBUG));
    return ok;
}

int choose_unroll_factor_for_SP(struct LOOP* loop) {
    int f = max_unrolling_factor(loop, 0);
    int least = std::max(1, min_unrolling_factor(loop));
    while (f > least && !unroll_factor_satisfies_pragma(f, loop, 0)) --f;
    return std::max(f, least);
}
