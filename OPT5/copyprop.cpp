// Fast copy and constant propagation (fast_CP) and dead-assignment
// elimination (elim_dead_assigns).
//
// Both work on the function's scalar local variables whose address is never
// taken: nothing but a NAME node can read or write them, so a walk of the
// statements sees every use and every definition.
#include "OPT5/copyprop.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <unordered_set>
#include <unordered_map>

#include "BITVEC/bitvec.h"
#include "DEBUG_DISABLE/switches.h"
#include "OPT5/abort.h"
#include "OPT5/cmdline.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opt_client.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"

namespace {
const char THIS_MODULE[] = "OPT5/copyprop";

bool debugging() { return print_debug && FDEBUG; }


bool is_volatile(TYPE* t) { return TYPE_qual_kind(t) & TYPE::Q_VOLATILE; }
bool is_const(TYPE* t) { return TYPE_qual_kind(t) & TYPE::Q_CONST; }

// Scope level of a symbol: 0 for the unit's globals, 1 for the function's own.
int sym_level(const SYMTAB* sym) { return sym->global ? 0 : 1; }

template <class F>
void for_each_statement(F f) {
    for (BBLK* b : layout_blocks())
        for (BODY_ENTRY& e : b->statements)
            if (e.tree) f(b, e);
}

// Numbers the tracked variables of the current function.
void number_tracked_symbols() {
    FUNINFO* fi = currfuninfo;
    std::set<const SYMTAB*> taken = address_taken_symbols();
    // Each numbering has a stamp of its own: a symbol numbered before
    // (or by another function) does not carry it.
    static std::atomic<unsigned> numberings{0};
    fi->lva_numbering = ++numberings;
    fi->lva_syms.clear();
    for (const FUNC_SYM& fs : function_symbols()) {
        SYMTAB* s = fs.sym;
        if (!s->type || !is_private_variable(s, taken)) continue;
        TYPE* t = s->type->stripped();
        if (!t->is_scalar() || t->kind == TYPE::VECTOR_T) continue;
        s->lva = static_cast<int>(fi->lva_syms.size());
        s->lva_numbering = fi->lva_numbering;
        fi->lva_syms.push_back(s);
    }
}

int tracked(const NODE* n) {
    if (!n || n->opcode != NAME || !n->symbol) return -1;
    return lva_index(n->symbol);
}

// The tracked variables a statement reads, and those it surely assigns (not
// under a condition: such a kill is not certain), as indices.  Users apply
// the kills before the uses, so the order within each list is free.
void scan_uses_kills(const NODE* t, bool conditional, std::vector<int>& uses, std::vector<int>& kills) {
    struct item {
        const NODE* n;
        bool conditional;
    };
    small_vector<item, 32> work;
    while (true) {
        // Down the left spine; right operands wait on the stack.
        while (t) {
            int op = t->opcode;
            if (op == LABEL || op == FIELD || op == ICON) break;
            if (op == NAME) {
                int i = t->symbol ? lva_index(t->symbol) : -1;
                if (i >= 0) uses.push_back(i);
                break;
            }
            if (op == ASG) {
                int k = tracked(t->left);
                if (k >= 0) {
                    if (!conditional) kills.push_back(k);
                    t = t->right;
                    continue;
                }
            }
            if (t->right) work.push_back({t->right, conditional || op == QUEST || op == ANDAND || op == OROR});
            t = t->left;
        }
        if (work.empty()) return;
        t = work.back().n;
        conditional = work.back().conditional;
        work.pop_back();
    }
}

// live = (live - kills) | uses, the effect of one statement seen backwards;
// only the bits the statement names are touched.
void step_back(BITVEC& live, const NODE* stmt) {
    thread_local std::vector<int> uses, kills;
    uses.clear();
    kills.clear();
    scan_uses_kills(stmt, false, uses, kills);
    for (int k : kills) live.reset(static_cast<size_t>(k));
    for (int u : uses) live.set(static_cast<size_t>(u));
}



// Statements that only compute a value: when it has no effect they go.
bool is_expression_statement(const NODE* t) {
    switch (t->opcode) {
    case BRANCH: case CBRANCH: case RETURN: case URETURN: case SWITCH: case LABELDEF: case PPRAGMA: case ASM:
    case ASSERT: case NASSERT: case LOOP: case ENDLOOP: case DDNODE: case SKIP: case CASE: case DEFAULT:
    case BGNBLOCK: case ENDBLOCK: case ENDINIT: case INITLOOP:
        return false;
    default: return true;
    }
}

// Removes statements of the block that have become expressions without
// effect, keeping what effects they have.
bool drop_useless_statements(BBLK* b) {
    bool changed = false;
    std::vector<BODY_ENTRY> kept;
    for (BODY_ENTRY& e : b->statements) {
        if (e.tree && is_expression_statement(e.tree) && e.tree->opcode != ASG && !is_op_assign(e.tree->opcode) &&
            side_effects[e.tree->opcode] == 0) {
            NODE* rest = peel_for_effect(e.tree);
            changed |= rest != e.tree;
            e.tree = rest;
            if (!rest) continue;
        }
        kept.push_back(e);
    }
    b->statements.swap(kept);
    return changed;
}

}  // namespace

NODE* converted(NODE* value, TYPE* type) {
    if (!type || !value->type || exact_types(value->type, type)) return value;
    if (value->opcode == ICON && integer_view(type)) {
        value->value = truncate_to_type(value->value, type);
        value->type = type;
        return value;
    }
    return mktree(type->stripped()->kind == TYPE::PTR_T ? PCONV : SCONV, type, value);
}

std::set<const SYMTAB*> address_taken_symbols() {
    // Worked out again only when something that may change it happened since.
    FUNINFO* fi = currfuninfo;
    if (fi && fi->taken_known_at == fi->address_changes) return fi->taken_known;
    std::set<const SYMTAB*> out;
    std::vector<std::pair<const NODE*, bool>> work;  // node, under a UAND
    // The statements are in the blocks or, without a flow graph, in the body;
    // moving them from one to the other changes nothing.
    for_each_statement([&](BBLK*, BODY_ENTRY& e) { work.push_back({e.tree, false}); });
    if (fi)
        for (const BODY_ENTRY& e : fi->body)
            if (e.kind == BODY_ENTRY::STMT && e.tree) work.push_back({e.tree, false});
    while (!work.empty()) {
        auto [n, under] = work.back();
        work.pop_back();
        if (under && n->opcode == NAME && n->symbol) out.insert(n->symbol);
        bool below = under || n->opcode == UAND;
        if (n->left) work.push_back({n->left, below});
        if (n->right) work.push_back({n->right, below});
    }
    if (fi) {
        fi->taken_known = out;
        fi->taken_known_at = fi->address_changes;
    }
    return out;
}

std::vector<FUNC_SYM> function_symbols() {
    std::vector<FUNC_SYM> out;
    out.reserve(currfuninfo->scopes.size());
    bool in_args = true;
    for (const BODY_ENTRY& e : currfuninfo->scopes) {
        if (e.kind == BODY_ENTRY::CONTROL && e.control == IR_END_ARGS) in_args = false;
        if (e.kind == BODY_ENTRY::SYMBOL && e.sym) out.push_back({static_cast<SYMTAB*>(e.sym), in_args});
    }
    return out;
}

bool is_private_variable(const SYMTAB* sym, const std::set<const SYMTAB*>& taken) {
    return sym && sym_level(sym) > 0 && !taken.count(sym) && !(sym->type && is_volatile(sym->type));
}

int lva_sym_count() { return currfuninfo ? static_cast<int>(currfuninfo->lva_syms.size()) : 0; }

int lva_index(const SYMTAB* sym) {
    const FUNINFO* fi = currfuninfo;
    return fi && sym && fi->lva_numbering && sym->lva_numbering == fi->lva_numbering ? sym->lva : -1;
}

bool is_fixed_address(const NODE* t) {
    bool moved;
    const SYMTAB* s = addressed_symbol(t, moved);
    return s && (!moved || !s->global);
}

NODE* peel_for_effect(NODE* t) {
    if (!t) return nullptr;
    if (!has_side_effects(t)) {
        erase_tree(t);
        return nullptr;
    }
    int op = t->opcode;
    unsigned se = side_effects[op];
    bool whole = se == 1 || se == 255 || op == DIV || op == MOD || op == QUEST || op == ANDAND || op == OROR ||
                 is_volatile_access(t) || op == LABEL || op == FIELD;
    if (whole) return t;
    NODE* l = t->left ? peel_for_effect(t->left) : nullptr;
    NODE* r = t->right ? peel_for_effect(t->right) : nullptr;
    t->left = t->right = nullptr;
    erase_node(t);
    if (l && r) return mktree(COMMA, r->type, l, r);
    return l ? l : r;
}

namespace {
// Whether the tree names a symbol `matches` accepts (not counting labels and
// fields); the walk stops at the first.
template <class P>
bool names_matching(const NODE* tree, P matches) {
    std::vector<const NODE*> work;
    if (tree) work.push_back(tree);
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        if (n->opcode == LABEL || n->opcode == FIELD) continue;
        if (n->opcode == NAME && matches(n->symbol)) return true;
        if (n->left) work.push_back(n->left);
        if (n->right) work.push_back(n->right);
    }
    return false;
}
}  // namespace

int count_name(const NODE* t, const SYMTAB* sym) {
    int n = 0;
    for_each_node(t, [&](const NODE* x) { n += x->opcode == NAME && x->symbol == sym; });
    return n;
}

NODE** single_name_slot(NODE*& tree, const SYMTAB* sym) {
    NODE** found = nullptr;
    int n = 0;
    auto note = [&](NODE*& slot) {
        if (slot->opcode == NAME && slot->symbol == sym && ++n == 1) found = &slot;
    };
    note(tree);
    walk_and_modify_tree(tree, note);
    return n == 1 ? found : nullptr;
}

bool sym_appears_in_tree(const SYMTAB* sym, const NODE* tree) {
    return names_matching(tree, [&](const SYMTAB* s) { return s == sym; });
}

bool sym_appears_in_bb(const SYMTAB* sym, const BBLK* bb) {
    for (const BODY_ENTRY& e : bb->statements)
        if (sym_appears_in_tree(sym, e.tree)) return true;
    return false;
}

void find_live_variables(bool record, bool loops) {
    (void)record;  // the numbering is always kept
    FUNINFO* fi = currfuninfo;
    number_tracked_symbols();
    size_t n = fi->lva_syms.size();
    free_liveness(fi);
    std::vector<BBLK*> blocks = layout_blocks();
    size_t nb = blocks.size();
    // What a block does, seen backwards, is live_in = gen | (live_out - kill):
    // one walk of its statements finds gen and kill, and the equations are
    // then solved with operations on whole sets.
    std::vector<BITVEC> gen(nb, BITVEC(n)), kill(nb, BITVEC(n));
    ptr_map<BBLK*, size_t> index;
    index.reserve(nb);
    std::vector<int> uses, kills;
    for (size_t i = 0; i < nb; ++i) {
        index[blocks[i]] = i;
        for (auto s = blocks[i]->statements.rbegin(); s != blocks[i]->statements.rend(); ++s) {
            uses.clear();
            kills.clear();
            scan_uses_kills(s->tree, false, uses, kills);
            for (int k : kills) {
                gen[i].reset(static_cast<size_t>(k));
                kill[i].set(static_cast<size_t>(k));
            }
            for (int u : uses) gen[i].set(static_cast<size_t>(u));
        }
        blocks[i]->live_in = new BITVEC(gen[i]);
    }
    // A block is looked at again when a successor's live-in set grew.
    std::deque<size_t> work;
    std::vector<char> queued(nb, 1);
    for (size_t i = nb; i-- > 0;) work.push_back(i);
    BITVEC live(n);
    while (!work.empty()) {
        size_t i = work.front();
        work.pop_front();
        queued[i] = 0;
        BBLK* b = blocks[i];
        live.clear_all();
        for (EDGE* e = b->successors; e; e = e->rest) live.union_with(*e->bb->live_in);
        live.subtract(kill[i]);
        live.union_with(gen[i]);
        if (live == *b->live_in) continue;
        *b->live_in = live;
        for (EDGE* p = b->predecessors; p; p = p->rest) {
            const size_t* at = index.find(p->bb);
            if (at && !queued[*at]) {
                queued[*at] = 1;
                work.push_back(*at);
            }
        }
    }
    // Each loop records what is live where it may be left: its exits'
    // live-in sets (an exit without one, everything).
    if (loops)
        for (struct LOOP* l : fi->loops) {
            l->live_out = new BITVEC(n);
            for (EDGE* x = l->exits; x; x = x->rest) {
                if (x->bb->live_in) l->live_out->union_with(*x->bb->live_in);
                else l->live_out->set_all();
            }
        }
}

namespace {
// Merged values stay small: a run of assignments longer than this makes a
// chain of statements, not one tree as deep as the run is long.
constexpr size_t MAX_COMBINED_NODES = 48;

}  // namespace

bool assigns_variable(const NODE* t, const SYMTAB* sym) {
    small_vector<const NODE*, 32> work;
    work.push_back(t);
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        if (is_assignment(n->opcode) && n->left && n->left->opcode == NAME && n->left->symbol == sym)
            return true;
        if (n->left) work.push_back(n->left);
        if (n->right) work.push_back(n->right);
    }
    return false;
}

size_t tree_size_up_to(const NODE* t, size_t limit) {
    size_t n = 0;
    small_vector<const NODE*, 32> work;
    work.push_back(t);
    while (!work.empty() && n <= limit) {
        const NODE* x = work.back();
        work.pop_back();
        if (!x) continue;
        ++n;
        work.push_back(x->left);
        work.push_back(x->right);
    }
    return n;
}

namespace {

// b becomes x = f(e) when a is x = e and b is x = f(x), with x read once in
// f and nothing else happening; a is then freed.  False when they don't
// combine.
bool combine_pair(NODE* a, NODE* b) {
    if (!a || !b || a->opcode != ASG || b->opcode != ASG) return false;
    int x = tracked(a->left);
    if (x < 0 || !b->left || b->left->opcode != NAME || b->left->symbol != a->left->symbol) return false;
    const SYMTAB* sym = a->left->symbol;
    if (tree_size_up_to(a->right, MAX_COMBINED_NODES) + tree_size_up_to(b->right, MAX_COMBINED_NODES) >
        MAX_COMBINED_NODES)
        return false;
    // e may read x too: the combined statement reads it before it assigns,
    // and the one read of x is found before e goes in.
    if (has_side_effects(a->right) || has_side_effects(b->right)) return false;
    NODE** use = single_name_slot(b->right, sym);
    if (!use) return false;
    NODE* value = converted(a->right, a->left->type);
    a->right = nullptr;
    TYPE* t = (*use)->type;
    erase_node(*use);
    *use = converted(value, t);
    b->right = simp_tree(b->right, nullptr);
    erase_tree(a);
    return true;
}
}  // namespace

bool combine_assignments(std::vector<BODY_ENTRY>& statements) {
    // The statements kept so far; a merged one is tried again with the one
    // before it.
    std::vector<BODY_ENTRY> kept;
    kept.reserve(statements.size());
    bool changed = false;
    for (BODY_ENTRY& e : statements) {
        while (!kept.empty() && combine_pair(kept.back().tree, e.tree)) {
            kept.pop_back();
            changed = true;
        }
        kept.push_back(e);
    }
    if (changed) statements.swap(kept);
    return changed;
}

bool promote_embedded_assignments_in_bb(BBLK* bb) {
    bool changed = false;
    for (size_t i = 0; i < bb->statements.size(); ++i) {
        NODE* t = bb->statements[i].tree;
        if (!t) continue;
        // The single effect of the statement must be one assignment to a
        // tracked variable that appears nowhere else in it, not under a
        // conditional operator.
        NODE** found = nullptr;
        int effects = 0;
        struct item {
            NODE** slot;
            bool conditional;
        };
        small_vector<item, 32> work;
        if (t->opcode == ASG) work.push_back({&t->right, false});
        else if (t->opcode == CBRANCH || t->opcode == URETURN || t->opcode == RETURN || t->opcode == SWITCH)
            work.push_back({&t->left, false});
        else continue;
        while (!work.empty()) {
            auto [slot, conditional] = work.back();
            work.pop_back();
            NODE* n = *slot;
            if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
            int op = n->opcode;
            if (op < 0 || op >= NUM_OPCODES) continue;
            if (side_effects[op] == 1 || side_effects[op] == 255) {
                ++effects;
                if (op == ASG && !conditional && tracked(n->left) >= 0) found = slot;
            }
            bool cond_right = op == QUEST || op == ANDAND || op == OROR;
            work.push_back({&n->right, conditional || cond_right});
            work.push_back({&n->left, conditional});
        }
        if (effects != 1 || !found) continue;
        if (t->opcode == ASG && tracked(t->left) < 0 && has_side_effects(t->left)) continue;
        NODE* inner = *found;
        const SYMTAB* sym = inner->left->symbol;
        if (count_name(t, sym) != 1 || has_side_effects(inner->right)) continue;
        // y = (x = e) op z  ->  x = e; y = x op z
        NODE* use = copy_tree(inner->left);
        *found = use;
        BODY_ENTRY e = bb->statements[i];
        e.tree = inner;
        bb->statements.insert(bb->statements.begin() + static_cast<long>(i), e);
        ++i;
        changed = true;
    }
    return changed;
}

void promote_all_embedded_assignments() {
    if (!currfuninfo || !currfuninfo->bb_list) return;
    number_tracked_symbols();
    for (BBLK* b : layout_blocks()) promote_embedded_assignments_in_bb(b);
}

bool elim_locally_dead_assignments_in_bb(BBLK* bb, struct LOOP* loop) {
    (void)loop;
    size_t n = currfuninfo->lva_syms.size();
    BITVEC live(n);
    live.set_all();  // without the successors' sets everything is live at the end
    bool changed = false;
    for (size_t k = bb->statements.size(); k-- > 0;) {
        NODE* t = bb->statements[k].tree;
        int x = t && t->opcode == ASG ? tracked(t->left) : -1;
        if (x >= 0 && !live.test(static_cast<size_t>(x))) {
            NODE* rest = peel_for_effect(t->right);
            t->right = nullptr;
            erase_tree(t);
            changed = true;
            if (!rest) {
                bb->statements.erase(bb->statements.begin() + static_cast<long>(k));
                continue;
            }
            bb->statements[k].tree = t = rest;
        }
        if (t) step_back(live, t);
    }
    return changed;
}

bool combine_asgs_to_memory() {
    bool changed = false;
    for (BBLK* b : layout_blocks()) {
        for (size_t i = 0; i + 1 < b->statements.size(); ++i) {
            NODE* a = b->statements[i].tree;
            NODE* c = b->statements[i + 1].tree;
            if (!a || !c || a->opcode != ASG || c->opcode != ASG || !a->left || a->left->opcode != UMULT) continue;
            // *p = e1; *p = e2 with e2 not reading memory: the first store is
            // never seen.
            if (!same_tree(a->left, c->left) || has_side_effects(a->left) || has_side_effects(c->right)) continue;
            bool reads_memory = false;
            for (const NODE* side : {c->right, c->left->left})
                for_each_node(side, [&](const NODE* n) {
                    if (n->opcode == UMULT || n->opcode == STREF || n->opcode == CALL || n->opcode == UCALL ||
                        (n->opcode == NAME && n->symbol && lva_index(n->symbol) < 0))
                        reads_memory = true;
                });
            if (reads_memory) continue;
            NODE* rest = peel_for_effect(a->right);
            a->right = nullptr;
            erase_tree(a);
            if (rest) b->statements[i].tree = rest;
            else b->statements.erase(b->statements.begin() + static_cast<long>(i));
            changed = true;
        }
    }
    return changed;
}

void remove_unneeded_stores_from_destructor() {
    // The last store through the object pointer before a destructor returns
    // is dead when nothing reads it: the object's life ends there.  Only
    // functions marked as destructors qualify.
    SYMTAB* fn = currfunc;
    if (!fn) return;
    bool dtor = false;
    for (const PRAGMA& p : fn->x().pragmas) dtor |= p.kind == SP_DTOR;
    if (!dtor) return;
    for (BBLK* b : layout_blocks()) {
        if (b->statements.size() < 2) continue;
        NODE* last = b->statements.back().tree;
        if (last->opcode != URETURN && last->opcode != RETURN) continue;
        NODE* store = b->statements[b->statements.size() - 2].tree;
        if (store->opcode != ASG || !store->left || store->left->opcode != UMULT) continue;
        if (has_side_effects(store->left) || count_name(last, nullptr) > 0) continue;
        bool return_reads_memory = false;
        walk_and_modify_tree(last, [&](NODE*& n) { return_reads_memory |= n->opcode == UMULT || n->opcode == STREF; });
        if (return_reads_memory) continue;
        NODE* rest = peel_for_effect(store->right);
        store->right = nullptr;
        erase_tree(store);
        if (rest) b->statements[b->statements.size() - 2].tree = rest;
        else b->statements.erase(b->statements.end() - 2);
    }
}

namespace {

// Moves each assignment to a tracked variable down to just before the first
// statement that reads or writes the variable, disturbs what the value
// reads, or has effects of its own; the jump ending a block stays last.
void delay_assignments() {
    if (debugging()) DBG_CHECK(std::fputs("\n\n\t\t\t---------- ENTERING 'delay_assignments' ----------\n", FDEBUG));
    promote_all_embedded_assignments();
    for (BBLK* b : layout_blocks()) {
        auto& st = b->statements;
        for (size_t i = st.size(); i-- > 0;) {
            NODE* a = st[i].tree;
            if (!a || a->opcode != ASG || tracked(a->left) < 0 || has_side_effects(a->right)) continue;
            const SYMTAB* sym = a->left->symbol;
            std::set<const SYMTAB*> reads;
            bool reads_memory = false;
            for_each_node(a->right, [&](const NODE* n) {
                if (n->opcode == NAME && n->symbol) {
                    reads.insert(n->symbol);
                    if (lva_index(n->symbol) < 0) reads_memory = true;
                }
                if (n->opcode == UMULT || n->opcode == STREF) reads_memory = true;
            });
            size_t j = i + 1;
            for (; j < st.size(); ++j) {
                NODE* t = st[j].tree;
                if (!is_expression_statement(t) || sym_appears_in_tree(sym, t)) break;
                bool disturbs = false;
                walk_and_modify_tree(t, [&](NODE*& n) {
                    int op = n->opcode;
                    if (op >= 0 && op < NUM_OPCODES && (side_effects[op] == 255)) disturbs = true;
                    if ((op == ASG || is_op_assign(op)) && n->left &&
                        (n->left->opcode != NAME || reads.count(n->left->symbol) ||
                         (reads_memory && lva_index(n->left->symbol) < 0)))
                        disturbs = true;
                });
                if (t->opcode == ASG || is_op_assign(t->opcode)) {
                    if (!t->left || t->left->opcode != NAME || reads.count(t->left->symbol) ||
                        (reads_memory && lva_index(t->left->symbol) < 0))
                        disturbs = true;
                }
                if (disturbs) break;
            }
            if (j == i + 1) continue;
            BODY_ENTRY moved = st[i];
            st.erase(st.begin() + static_cast<long>(i));
            st.insert(st.begin() + static_cast<long>(j - 1), moved);
        }
    }
}

}  // namespace

void elim_dead_assigns(bool delay, bool promote) {
    FUNINFO* fi = currfuninfo;
    if (!fi || !fi->bb_list) return;
    find_live_variables(true, true);
    int count = lva_sym_count();
    if (count == 0) {
        free_liveness(fi);
        return;
    }
    BITVEC* live = new BITVEC(static_cast<size_t>(count));
    if (debugging()) DBG_CHECK(std::fputs("\n\n\t\t\t---------- ENTERING 'elim_dead_assigns' ----------\n", FDEBUG));
    std::vector<BBLK*> blocks = layout_blocks();
    for (auto it = blocks.rbegin(); it != blocks.rend(); ++it) {
        BBLK* b = *it;
        live->clear_all();
        // What is live where control may go next; at a loop's head also
        // what is live where it may leave the loop.
        auto merge = [&](const BITVEC* set) {
            if (!set) {
                live->set_all();
                return;
            }
            if (set->size() > live->size()) {
                if (debugging()) DBG_CHECK(std::fputs("Vector size mismatch:merge\n", FDEBUG));
                live->resize(set->size());
            }
            live->union_with(*set);
        };
        for (EDGE* e = b->successors; e; e = e->rest) merge(e->bb->live_in);
        if (b->loop && b->loop->head == b && b->loop->live_out) merge(b->loop->live_out);
        for (size_t k = b->statements.size(); k-- > 0;) {
            NODE* t = b->statements[k].tree;
            int x = t && t->opcode == ASG ? tracked(t->left) : -1;
            if (x >= 0 && !live->test(static_cast<size_t>(x))) {
                if (debugging())
                    DBG_CHECK(std::fprintf(FDEBUG, "\tDead assignment removed: %s\n", stmt2infix(t).c_str()));
                NODE* rest = peel_for_effect(t->right);
                t->right = nullptr;
                erase_tree(t);
                if (!rest) {
                    b->statements.erase(b->statements.begin() + static_cast<long>(k));
                    continue;
                }
                b->statements[k].tree = t = rest;
            }
            step_back(*live, t);
        }
        combine_assignments(b->statements);
        if (promote) promote_embedded_assignments_in_bb(b);
    }
    if (delay) {
        if (opt_level() <= 0) optassert("opt_level() > 0", THIS_MODULE, __LINE__);
        delay_assignments();
    }
    free_bitvec(live);
    free_liveness(fi);
}

void fast_CP(int32_t iterations, int32_t early) {
    if (opt_level() == 0) return;
    FUNINFO* fi = currfuninfo;
    if (!fi || !fi->bb_list) return;
    number_tracked_symbols();
    if (early) combine_asgs_to_memory();
    std::map<const SYMTAB*, NODE*> values;  // the value of each variable given one
    std::vector<const SYMTAB*> value_order;
    fi->wants_dead_assign_elim = false;
    for (int done = 0; done < iterations;) {
        if (debugging()) DBG_CHECK(std::fputs("\n\n\t\t\t---------- ENTERING 'fast_CP' -----------------\n", FDEBUG));
        number_tracked_symbols();
        // Assignments and uses of every tracked variable.
        struct USAGE {
            int assignments = 0, uses = 0;
            NODE* only_value = nullptr;  // the right side of its only top-level assignment
        };
        std::unordered_map<const SYMTAB*, USAGE> usage;
        small_vector<NODE*, 32> work;
        for_each_statement([&](BBLK*, BODY_ENTRY& e) {
            work.push_back(e.tree);
            while (!work.empty()) {
                NODE* n = work.back();
                work.pop_back();
                if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
                if (n->opcode == NAME && n->symbol) {
                    ++usage[n->symbol].uses;
                    continue;
                }
                if ((n->opcode == ASG || is_op_assign(n->opcode)) && n->left && n->left->opcode == NAME) {
                    USAGE& u = usage[n->left->symbol];
                    ++u.assignments;
                    if (is_op_assign(n->opcode)) ++u.uses;
                    u.only_value = n == e.tree && n->opcode == ASG ? n->right : nullptr;
                    work.push_back(n->right);
                    continue;
                }
                work.push_back(n->right);
                work.push_back(n->left);
            }
        });
        std::vector<const SYMTAB*> fresh;
        for (const FUNC_SYM& fs : function_symbols()) {
            SYMTAB* s = fs.sym;
            if (sym_level(s) <= 0) optassert("sym->level > 0", THIS_MODULE, __LINE__);
            if (lva_index(s) < 0 || values.count(s) || is_const(s->type)) continue;
            USAGE& u = usage[s];
            if (u.assignments == 0 && u.uses == 0) {
                if (debugging()) DBG_CHECK(std::fprintf(FDEBUG, "\tNo references in the function for '%s'\n", s->name.c_str()));
                continue;
            }
            if (fs.is_arg) {
                if (u.assignments == 0 && debugging())
                    DBG_CHECK(std::fprintf(FDEBUG, "\n\tArgument variable is not re-assigned: %s\n", s->declaration().c_str()));
                continue;
            }
            if (u.assignments == 0) {
                if (debugging())
                    DBG_CHECK(std::fprintf(FDEBUG, "\n\tVariable is used but never assigned: %s\n", s->declaration().c_str()));
                continue;
            }
            if (u.assignments != 1 || !u.only_value) continue;
            // A value that is the same wherever it is read: a constant, an
            // address fixed while the function runs (see is_fixed_address),
            // or an argument (or a variable already known) that is never
            // assigned.
            NODE* v = u.only_value;
            bool constant = v->opcode == ICON || v->opcode == FCON || is_fixed_address(v);
            if (!constant && v->opcode == NAME && v->symbol && v->symbol != s && lva_index(v->symbol) >= 0) {
                USAGE& src = usage[v->symbol];
                constant = src.assignments == 0;
            }
            if (!constant) continue;
            if (debugging())
                DBG_CHECK(std::fprintf(FDEBUG, "\n\tGlobally constant assignment: %s = %s\n", s->declaration().c_str(),
                                       stmt2infix(v).c_str()));
            values[s] = copy_tree(v);
            value_order.push_back(s);
            fresh.push_back(s);
            s->type = type_pkg->mk_qual(s->type, TYPE::Q_CONST);
            fi->wants_dead_assign_elim = true;
        }
        // Where each variable with a value is read (the reverse symbol
        // table), unless switched off: then every statement is visited.
        std::set<std::pair<BBLK*, size_t>> where;
        bool use_revsymtab = !pass_disable_fcprevsymtab;
        if (use_revsymtab && !fresh.empty()) {
            std::unordered_set<const SYMTAB*> named(fresh.begin(), fresh.end());
            for (BBLK* b : layout_blocks())
                for (size_t k = 0; k < b->statements.size(); ++k)
                    if (names_matching(b->statements[k].tree, [&](const SYMTAB* s) { return named.count(s) > 0; }))
                        where.insert({b, k});
        }
        bool changed = false;
        for (BBLK* b : layout_blocks()) {
            bool block_changed = false;
            for (size_t k = 0; k < b->statements.size(); ++k) {
                if (use_revsymtab && !where.count({b, k})) continue;
                NODE*& t = b->statements[k].tree;
                bool here = false;
                auto subst = [&](NODE*& slot) {
                    if (slot->opcode != NAME || !slot->symbol) return;
                    auto it = values.find(slot->symbol);
                    if (it == values.end()) return;
                    TYPE* type = slot->type;
                    erase_node(slot);
                    slot = converted(copy_tree(it->second), type);
                    here = true;
                };
                // The variable assigned keeps its name on the left.
                if (t->opcode == ASG && t->left && t->left->opcode == NAME) {
                    if (t->right) {
                        subst(t->right);
                        walk_and_modify_tree(t->right, subst);
                    }
                } else {
                    walk_and_modify_tree(t, subst);
                }
                if (!here) continue;
                t = simp_tree(t, nullptr);
                block_changed = true;
            }
            if (block_changed) {
                drop_useless_statements(b);
                changed = true;
            }
        }
        if (!changed) break;
        rebuildcfg();
        simpcfg(false, false);
        ++done;
    }
    if (early || fi->wants_dead_assign_elim) elim_dead_assigns(false, true);
    fi->wants_dead_assign_elim = false;
    if (debugging()) {
        DBG_CHECK(std::fputs("\nfast_CP values:\n", FDEBUG));
        for (const SYMTAB* s : value_order)
            DBG_CHECK(std::fprintf(FDEBUG, "\t%s = %s\n", s->name.c_str(), stmt2infix(values[s]).c_str()));
    }
    for (auto& [s, v] : values) erase_tree(v);
}
