#include "OPT5/copy_propagation.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <set>
#include <vector>

#include "BITVEC/bitvec.h"
#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/copyprop.h"
#include "OPT5/ddbloop.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"

namespace {
const char THIS_MODULE[] = "OPT5/copy_propagation";

// The sets are copies x blocks bits; past this many bits only the first
// copies are followed, so that a huge function costs bounded memory.
constexpr size_t MAX_SET_BITS = size_t{1} << 26;


// x = y between private variables; x = c with a constant c; x = &v with v
// a scalar variable, after which *x reads or writes v itself.
struct COPY {
    const SYMTAB* to;
    const SYMTAB* from;  // null for the other two kinds
    const NODE* value;   // the constant or the address (the statement's own right side)
};

class COPY_PROPAGATION {
public:
    int run(bool global) {
        FUNINFO* fi = currfuninfo;
        if (!fi || !fi->bb_list) return 0;
        taken_ = address_taken_symbols();
        blocks_ = layout_blocks();
        if (!find_copies()) return 0;
        std::vector<BODY_ENTRY*> folded;  // statements that now read constants
        int rewritten = propagate_constants(folded);
        size_t nb = blocks_.size(), nc = copies_.size();
        if (nc > 0) {
            std::vector<BITVEC> gen(nb, BITVEC(nc)), kill(nb, BITVEC(nc));
            for (size_t i = 0; i < nb; ++i)
                for (BODY_ENTRY& e : blocks_[i]->statements) step(e.tree, gen[i], &kill[i]);
            std::vector<BITVEC> in(nb, BITVEC(nc));
            if (global) solve(gen, kill, in);
            for (size_t i = 0; i < nb; ++i) {
                BITVEC avail = in[i];
                for (BODY_ENTRY& e : blocks_[i]->statements) {
                    rewritten += rewrite_reads(e.tree, avail);
                    step(e.tree, avail, nullptr);
                }
            }
        }
        // Constants fold; a test they decide leaves the flow graph.
        for (BODY_ENTRY* e : folded) e->tree = simp_tree(e->tree, nullptr);
        if (!folded.empty()) simpcfg(false, false);
        if (print_debug && FDEBUG)
            DBG_CHECK(std::fprintf(FDEBUG, "Copy propagation: %d of %zu copies' reads rewritten in %s()\n", rewritten,
                                   nc + constants_, currfunc ? currfunc->name.c_str() : ""));
        return rewritten;
    }

private:
    std::set<const SYMTAB*> taken_;
    std::vector<BBLK*> blocks_;
    std::vector<COPY> copies_;
    size_t constants_ = 0;                                // assignments of constants
    ptr_map<const NODE*, int> copy_of_;                   // a copy statement's tree -> its number
    ptr_map<const SYMTAB*, std::vector<int>> involving_;  // a variable -> the copies that name it

    const SYMTAB* private_name(const NODE* n) const {
        if (!n || n->opcode != NAME || !n->symbol || !n->type || !n->symbol->type) return nullptr;
        if (!exact_types(n->type, n->symbol->type) || !is_private_variable(n->symbol, taken_)) return nullptr;
        return n->symbol->type->stripped()->is_scalar() ? n->symbol : nullptr;
    }

    // A right side whose value a read may take instead of the variable: the
    // address of a scalar variable (read through *x).
    static const NODE* propagated_address(const NODE* r) {
        if (r->opcode != UAND || !r->left || r->left->opcode != NAME || !r->left->symbol) return nullptr;
        const NODE* v = r->left;
        if (!v->type || !v->symbol->type || !exact_types(v->type, v->symbol->type)) return nullptr;
        return v->type->stripped()->is_scalar() ? r : nullptr;
    }

    // Numbers the copies; false when there is none to follow (or the
    // function holds inline assembly, which may name any variable).
    bool find_copies() {
        size_t limit = std::max<size_t>(1, MAX_SET_BITS / std::max<size_t>(1, blocks_.size()));
        for (BBLK* b : blocks_)
            for (BODY_ENTRY& e : b->statements) {
                const NODE* t = e.tree;
                if (!t) continue;
                if (t->opcode == ASM) return false;
                if (t->opcode != ASG || copies_.size() >= limit) continue;
                const SYMTAB* to = private_name(t->left);
                if (!to || !t->right || !exact_types(t->left->type, t->right->type)) continue;
                const SYMTAB* from = private_name(t->right);
                if (is_constant(t->right)) ++constants_;
                const NODE* value = from ? nullptr : propagated_address(t->right);
                if (from == to || (!from && !value)) continue;
                int c = static_cast<int>(copies_.size());
                copies_.push_back({to, from, value});
                copy_of_[t] = c;
                involving_[to].push_back(c);
                if (from) involving_[from].push_back(c);
            }
        return !copies_.empty() || constants_ > 0;
    }

    // The private variables a statement assigns; `embedded` gets those
    // assigned anywhere but by the statement's own top-level assignment.
    template <class F>
    void for_each_assigned(const NODE* stmt, F&& f) const {
        small_vector<const NODE*, 32> work;
        work.push_back(stmt);
        while (!work.empty()) {
            const NODE* n = work.back();
            work.pop_back();
            if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
            if (is_assignment(n->opcode))
                if (const SYMTAB* v = private_name(n->left)) f(v, n != stmt);
            work.push_back(n->left);
            work.push_back(n->right);
        }
    }

    // The statement's effect on the available copies: those naming a
    // variable it assigns end, and a copy statement starts its own.
    void step(const NODE* stmt, BITVEC& avail, BITVEC* kill) const {
        if (!stmt) return;
        for_each_assigned(stmt, [&](const SYMTAB* v, bool) {
            if (const std::vector<int>* cs = involving_.find(v))
                for (int c : *cs) {
                    avail.reset(static_cast<size_t>(c));
                    if (kill) kill->set(static_cast<size_t>(c));
                }
        });
        if (const int* c = copy_of_.find(stmt)) avail.set(static_cast<size_t>(*c));
    }

    // Available on entry to a block: what every predecessor passes on
    // (nothing at the entry, or at a block nothing reaches).
    void solve(const std::vector<BITVEC>& gen, const std::vector<BITVEC>& kill, std::vector<BITVEC>& in) const {
        size_t nb = blocks_.size();
        ptr_map<BBLK*, size_t> index;
        for (size_t i = 0; i < nb; ++i) index[blocks_[i]] = i;
        std::vector<BITVEC> out(nb, BITVEC(copies_.size()));
        for (size_t i = 0; i < nb; ++i) {
            out[i].set_all();
            out[i].subtract(kill[i]);
            out[i].union_with(gen[i]);
        }
        std::deque<size_t> work;
        std::vector<char> queued(nb, 1);
        for (size_t i = 0; i < nb; ++i) work.push_back(i);
        while (!work.empty()) {
            size_t i = work.front();
            work.pop_front();
            queued[i] = 0;
            BBLK* b = blocks_[i];
            BITVEC avail(copies_.size());
            if (i != 0 && b->predecessors) {
                avail.set_all();
                for (EDGE* p = b->predecessors; p; p = p->rest) {
                    const size_t* at = index.find(p->bb);
                    if (at) avail.intersect_with(out[*at]);
                    else avail.clear_all();
                }
            }
            in[i] = avail;
            avail.subtract(kill[i]);
            avail.union_with(gen[i]);
            if (avail == out[i]) continue;
            out[i] = avail;
            for (EDGE* s = b->successors; s; s = s->rest) {
                const size_t* at = index.find(s->bb);
                if (at && !queued[*at]) {
                    queued[*at] = 1;
                    work.push_back(*at);
                }
            }
        }
    }

    // Reads of x become reads of y where the copy is available and the
    // statement assigns neither inside (its top-level assignment is made
    // after its operands are read); *x becomes v where x = &v is.
    int rewrite_reads(NODE*& stmt, const BITVEC& avail) const {
        if (!stmt || !avail.any()) return 0;
        symbols embedded = assigned_inside(stmt);
        // The copy of x in force here, if any.
        auto available = [&](const NODE* t) -> const COPY* {
            const SYMTAB* x = private_name(t);
            const std::vector<int>* cs = x ? involving_.find(x) : nullptr;
            if (!cs || holds(embedded, x)) return nullptr;
            for (int c : *cs) {
                const COPY& copy = copies_[static_cast<size_t>(c)];
                if (copy.to == x && avail.test(static_cast<size_t>(c)) && !(copy.from && holds(embedded, copy.from)))
                    return &copy;
            }
            return nullptr;
        };
        int n = 0;
        walk_and_modify_tree(stmt, [&](NODE*& slot) {
            if (slot->opcode != UMULT || !slot->left || slot->left->opcode != NAME) return;
            const COPY* copy = available(slot->left);
            if (!copy || !copy->value) return;
            const NODE* v = copy->value->left;
            if (!slot->type || !exact_types(slot->type, v->type)) return;
            erase_tree(slot);
            slot = copy_tree(v);
            ++n;
        });
        for_each_read_name(stmt, [&](NODE*& t) {
            const COPY* copy = available(t);
            if (!copy || !copy->from) return;
            t->symbol = const_cast<SYMTAB*>(copy->from);
            ++n;
        });
        return n;
    }

    // The variables a statement assigns inside (seldom any).
    using symbols = small_vector<const SYMTAB*, 4>;
    symbols assigned_inside(const NODE* stmt) const {
        symbols inside;
        for_each_assigned(stmt, [&](const SYMTAB* v, bool embedded) {
            if (embedded) inside.push_back(v);
        });
        return inside;
    }
    static bool holds(const symbols& set, const SYMTAB* v) { return std::find(set.begin(), set.end(), v) != set.end(); }

    static bool is_constant(const NODE* n) { return n->opcode == ICON || n->opcode == FCON; }

    // x = c with a constant c: later reads of x read c, along each extended
    // block (a block and those only it enters, depth first, the values of
    // a block undone when its walk is over): one visit per block.
    // The value a step of a variable whose constant value is known leaves
    // in it (x += c, x -= c, x++, x--), as a new constant; null for any
    // other statement.
    NODE* stepped_constant(const NODE* t, const ptr_map<const SYMTAB*, const NODE*>& value) const {
        bool is_step = false;
        INT65 step;
        const SYMTAB* x = private_name(t->left);
        if (!x || assigned_var(t, is_step, step) != x || !is_step) return nullptr;
        const NODE* const* known = value.find(x);
        TYPE* type = integer_view(t->left->type);
        if (!known || !*known || (*known)->opcode != ICON || !type) return nullptr;
        return mk_ICON(truncate_to_type((*known)->value + step, type), t->left->type);
    }

    int propagate_constants(std::vector<BODY_ENTRY*>& folded) {
        if (constants_ == 0) return 0;
        ptr_map<const SYMTAB*, const NODE*> value;  // null: none known
        std::vector<std::pair<const SYMTAB*, const NODE*>> undo;  // the values a walk replaced
        struct visit {
            BBLK* block;
            size_t undo_mark;
            bool leaving;
        };
        std::vector<visit> work;
        for (auto it = blocks_.rbegin(); it != blocks_.rend(); ++it)
            if (edge_length((*it)->predecessors) != 1 || *it == blocks_.front()) work.push_back({*it, 0, false});
        int n = 0;
        while (!work.empty()) {
            visit v = work.back();
            work.pop_back();
            if (v.leaving) {
                for (size_t k = undo.size(); k-- > v.undo_mark;) value[undo[k].first] = undo[k].second;
                undo.resize(v.undo_mark);
                continue;
            }
            work.push_back({v.block, undo.size(), true});
            for (BODY_ENTRY& e : v.block->statements) {
                if (!e.tree) continue;
                symbols embedded = assigned_inside(e.tree);
                bool here = false;
                for_each_read_name(e.tree, [&](NODE*& t) {
                    const SYMTAB* x = private_name(t);
                    const NODE* const* c = x && !holds(embedded, x) ? value.find(x) : nullptr;
                    if (!c || !*c) return;
                    TYPE* type = t->type;
                    erase_node(t);
                    t = converted(copy_tree(*c), type);
                    here = true;
                    ++n;
                });
                if (here) folded.push_back(&e);
                NODE* stepped = stepped_constant(e.tree, value);
                for_each_assigned(e.tree, [&](const SYMTAB* x, bool) {
                    const NODE* const* old = value.find(x);
                    undo.push_back({x, old ? *old : nullptr});
                    value[x] = nullptr;
                });
                if (stepped) {  // x += c after x = k: x = k + c
                    NODE* place = e.tree->left;
                    e.tree->left = nullptr;
                    erase_tree(e.tree);
                    e.tree = mktree(ASG, place->type, place, stepped);
                    ++n;
                }
                const NODE* t = e.tree;
                if (t->opcode == ASG && t->right && is_constant(t->right) && t->left && private_name(t->left) &&
                    exact_types(t->left->type, t->right->type))
                    value[t->left->symbol] = t->right;
            }
            for (EDGE* s = v.block->successors; s; s = s->rest)
                if (edge_length(s->bb->predecessors) == 1 && s->bb != blocks_.front())
                    work.push_back({s->bb, 0, false});
        }
        return n;
    }
};

}  // namespace

int copyprop(int global) {
    COPY_PROPAGATION cp;
    return cp.run(global != 0);
}
