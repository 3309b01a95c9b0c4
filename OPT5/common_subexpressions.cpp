#include "OPT5/common_subexpressions.h"

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/dominator.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/opt_client.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"

namespace {

// A block keeps at most this many expressions available (the oldest go).
constexpr size_t MAX_AVAILABLE = 64;
// The blocks between a join and its immediate dominator looked at for what
// they change; a larger region passes nothing on.
constexpr size_t MAX_REGION = 256;

// Where a memory access lands: an object (or else the pointer the address
// starts from), a constant offset in units when there is one, and the
// access's extent in units (0: unknown).
struct mem_ref {
    const SYMTAB* object = nullptr;
    const NODE* base = nullptr;
    int64_t offset = 0;
    bool constant_offset = true;
    int64_t units = 0;
};

int64_t units_of(const TYPE* t) { return t && t->size ? static_cast<int64_t>((t->size + 15) / 16) : 0; }

bool is_pointer(const NODE* n) { return n && is_pointer_type(n->type); }

mem_ref decompose(const NODE* address, TYPE* accessed) {
    mem_ref r;
    r.units = units_of(accessed);
    const NODE* a = address;
    for (;;) {
        if (a->opcode == PCONV && a->left) {
            a = a->left;
        } else if ((a->opcode == PLUS || a->opcode == MINUS) && a->left && a->right) {
            const NODE* other = a->right;
            const NODE* pointer = a->left;
            if (a->opcode == PLUS && !is_pointer(pointer) && is_pointer(other)) std::swap(pointer, other);
            if (other->opcode == ICON && other->value.fits_in<int32_t>()) {
                int64_t v = other->value.as<int32_t>();
                r.offset += a->opcode == PLUS ? v : -v;
            } else {
                r.constant_offset = false;
            }
            a = pointer;
        } else {
            break;
        }
    }
    if (a->opcode == UAND && a->left && a->left->opcode == NAME) r.object = a->left->symbol;
    else if (a->opcode == NAME && a->type && !a->type->stripped()->is_scalar()) r.object = a->symbol;
    else r.base = a;
    return r;
}

bool may_overlap(const mem_ref& a, const mem_ref& b) {
    if (a.object && b.object) {
        if (a.object != b.object) return false;
    } else if (a.object || b.object || !same_tree(a.base, b.base)) {
        return true;
    }
    if (!a.constant_offset || !b.constant_offset || !a.units || !b.units) return true;
    return a.offset < b.offset + b.units && b.offset < a.offset + a.units;
}

bool same_value_type(TYPE* a, TYPE* b) {
    if (!a || !b) return false;
    a = a->stripped();
    b = b->stripped();
    if (a == b) return true;
    if (a->kind != b->kind || a->size != b->size) return false;
    if (a->kind == TYPE::INT_T) return a->is_signed() == b->is_signed();
    return a->kind == TYPE::PTR_T;
}

// An expression computed before: its value is in a variable, or (a
// subexpression, `var` null) it is still where it was computed and gets a
// temporary when it is met again.
struct available {
    NODE* expr;
    uint64_t shape = 0;                // shape_of(expr) when it was remembered
    SYMTAB* var = nullptr;
    NODE* stmt = nullptr;              // where a subexpression was computed: the statement (its root),
    NODE** slot = nullptr;             //  and the operand slot holding it
    PSN pos;
    std::vector<const SYMTAB*> reads;  // private variables it reads
    std::vector<mem_ref> loads;        // memory it reads
    bool unknown_memory = false;       // it reads memory that can't be described
    bool gone = false;                 // it was inside a subexpression that got a temporary
};
// Extended blocks share what they inherit: a temporary made for one is made
// for all.
using available_ptr = std::shared_ptr<available>;

// A hash of a tree's structure: equal trees hash alike.  Every node of the
// tree gets its own in `out`.
uint64_t shape_of(const NODE* tree, ptr_map<const NODE*, uint64_t>* out = nullptr) {
    struct item {
        const NODE* n;
        bool done;  // its operands' hashes are on `values`
    };
    small_vector<item, 32> work;
    small_vector<uint64_t, 32> values;
    work.push_back({tree, false});
    while (!work.empty()) {
        auto [n, done] = work.back();
        work.pop_back();
        if (!done) {
            work.push_back({n, true});
            if (n->right) work.push_back({n->right, false});
            if (n->left) work.push_back({n->left, false});
            continue;
        }
        uint64_t v = static_cast<uint64_t>(n->opcode) * 0x9E3779B97F4A7C15ull;
        v ^= reinterpret_cast<uintptr_t>(n->type) + (v << 6) + (v >> 2);
        v ^= reinterpret_cast<uintptr_t>(n->symbol) + (v << 6) + (v >> 2);
        v ^= static_cast<uint64_t>(n->value.low_word()) + (v << 6) + (v >> 2);
        // The left operand's hash was pushed first.
        uint64_t right = 0, left = 0;
        if (n->right) {
            right = values.back();
            values.pop_back();
        }
        if (n->left) {
            left = values.back();
            values.pop_back();
        }
        if (n->left) v ^= left * 0xC2B2AE3D27D4EB4Full + (v << 6) + (v >> 2);
        if (n->right) v ^= right * 0x165667B19E3779F9ull + (v << 6) + (v >> 2);
        if (out) (*out)[n] = v;
        values.push_back(v);
    }
    return values.back();
}

// What a statement may change.
struct effects {
    std::vector<const SYMTAB*> vars;
    std::vector<mem_ref> stores;
    bool all_memory = false;
};

// A subexpression is worth a temporary of its own from this many nodes:
// below it, the assignment to the temporary costs what it saves.
constexpr size_t SMALLEST_SHARED = 5;
// Larger ones are seldom computed twice, and looking at each would cost
// time in the square of an expression's depth.
constexpr size_t LARGEST_SHARED = 64;

class cse {
public:
    explicit cse(bool extended) : extended_(extended), taken_(address_taken_symbols()) {}
    int run();

private:
    bool is_private(const SYMTAB* s) const {
        return s && is_private_variable(s, taken_) && s->type && s->type->stripped()->is_scalar();
    }
    // Whether the expression may be kept in a variable, and what it reads.
    bool describe(const NODE* e, available& a) const;
    effects effects_of(const NODE* stmt) const;
    std::vector<available_ptr> inherited(BBLK* b, Dominator* dom,
                                         const std::map<BBLK*, std::vector<available_ptr>>& ends) const;
    static bool kills(const effects& fx, const available& a);
    int rewrite(BODY_ENTRY& e);
    SYMTAB* keep_in_temporary(available& a);
    void remember(available&& a) {
        if (avail_.size() >= MAX_AVAILABLE) avail_.erase(avail_.begin());
        avail_.push_back(std::make_shared<available>(std::move(a)));
    }

    bool extended_;
    std::set<const SYMTAB*> taken_;
    std::vector<available_ptr> avail_;
    int temporaries_ = 0;
    // The assignments to temporaries, by the statement they go in front of;
    // put in place once every block is done.
    std::map<const NODE*, std::vector<BODY_ENTRY>> before_;
    ptr_map<const NODE*, uint64_t> shapes_;  // of the statement being rewritten
};

bool cse::describe(const NODE* e, available& a) const {
    if (!e->left || e->opcode == LABEL) return false;
    small_vector<const NODE*, 32> work;
    work.push_back(e);
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        int op = n->opcode;
        if (is_volatile_access(n) || is_assignment(op) || is_call(op) || (side_effects[op] != 0)) return false;
        if (op == UAND && n->left && n->left->opcode == NAME) continue;  // an address
        if (op == NAME) {
            if (!n->symbol) return false;
            if (is_private(n->symbol)) a.reads.push_back(n->symbol);
            else if (n->type && n->type->stripped()->is_scalar()) {
                mem_ref r;
                r.object = n->symbol;
                r.units = units_of(n->type);
                a.loads.push_back(r);
            }
            continue;
        }
        if (op == UMULT) a.loads.push_back(decompose(n->left, n->type));
        if (op == STREF || op == STDOT || op == FIELD) a.unknown_memory = true;
        if (n->left) work.push_back(n->left);
        if (n->right) work.push_back(n->right);
    }
    return true;
}

effects cse::effects_of(const NODE* stmt) const {
    effects fx;
    small_vector<const NODE*, 32> work;
    work.push_back(stmt);
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        int op = n->opcode;
        if (is_assignment(op)) {
            const NODE* place = n->left;
            if (place && place->opcode == NAME && is_private(place->symbol)) {
                fx.vars.push_back(place->symbol);
            } else if (place && place->opcode == NAME) {
                mem_ref r;
                r.object = place->symbol;
                r.units = units_of(place->type);
                fx.stores.push_back(r);
            } else if (place && place->opcode == UMULT) {
                fx.stores.push_back(decompose(place->left, place->type));
            } else {
                fx.all_memory = true;
            }
        } else if (is_call(op) || (side_effects[op] != 0 && op != PCOMMA && op != CBRANCH && op != BRANCH &&
                                   op != SWITCH && op != URETURN && op != LABELDEF)) {
            fx.all_memory = true;
        }
        if (n->left) work.push_back(n->left);
        if (n->right) work.push_back(n->right);
    }
    return fx;
}

bool cse::kills(const effects& fx, const available& a) {
    for (const SYMTAB* v : fx.vars) {
        if (v == a.var) return true;
        for (const SYMTAB* r : a.reads)
            if (r == v) return true;
    }
    if (a.loads.empty() && !a.unknown_memory) return false;
    if (fx.all_memory || (a.unknown_memory && !fx.stores.empty())) return true;
    for (const mem_ref& s : fx.stores)
        for (const mem_ref& l : a.loads)
            if (may_overlap(s, l)) return true;
    return false;
}

// Gives a subexpression met again a temporary, assigned right before the
// statement that computed it.  Null when no temporary can be made.
SYMTAB* cse::keep_in_temporary(available& a) {
    SYMTAB* t = make_local_temporary(a.expr->type, "cse." + std::to_string(++temporaries_));
    if (!t) return nullptr;
    // What was remembered inside the expression now lives in the new
    // statement: it is forgotten.
    std::set<const NODE*> inside;
    std::vector<const NODE*> work{a.expr};
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        inside.insert(n);
        if (n->left) work.push_back(n->left);
        if (n->right) work.push_back(n->right);
    }
    for (const available_ptr& o : avail_)
        if (o.get() != &a && !o->var && inside.count(o->expr)) o->gone = true;
    std::erase_if(avail_, [](const available_ptr& o) { return o->gone; });
    NODE* expr = a.expr;
    *a.slot = mk_NAME(t, expr->type);
    BODY_ENTRY e;
    e.pos = a.pos;
    e.tree = mktree(ASG, expr->type, mk_NAME(t, expr->type), expr);
    before_[a.stmt].push_back(e);
    a.var = t;
    a.stmt = nullptr;
    a.slot = nullptr;
    return t;
}

// Replaces the expressions of the statement that are available by their
// variables, and remembers its other subexpressions; returns how many were
// replaced.
int cse::rewrite(BODY_ENTRY& e) {
    NODE* root = e.tree;
    if (!root) return 0;
    // Everything the statement reads must be read before anything it
    // changes: an embedded assignment, or a call other than the
    // statement's own, could change what an expression reads.
    small_vector<NODE*, 32> work;
    int calls = 0;
    work.push_back(root);
    while (!work.empty()) {
        NODE* n = work.back();
        work.pop_back();
        if (n != root && is_assignment(n->opcode)) return 0;
        if (is_call(n->opcode) && (++calls > 1 || !(n == root || (root->opcode == ASG && root->right == n))))
            return 0;
        if (n->left) work.push_back(n->left);
        if (n->right) work.push_back(n->right);
    }
    shapes_.clear();
    shape_of(root, &shapes_);
    int replaced = 0;
    struct item {
        NODE** slot;
        bool always;  // evaluated whenever the statement runs
    };
    small_vector<item, 32> slots;
    auto operands = [&](NODE* n, bool always) {
        bool rest = always && n->opcode != ANDAND && n->opcode != OROR && n->opcode != QUEST;
        if (n->right) slots.push_back({&n->right, rest});
        if (n->left) slots.push_back({&n->left, always});
    };
    if (is_assignment(root->opcode)) {
        // The place assigned is not a value; an address in it is.
        if (root->right) slots.push_back({&root->right, true});
        if (root->left && root->left->opcode == UMULT && root->left->left) slots.push_back({&root->left->left, true});
    } else {
        operands(root, true);
    }
    size_t whole = root->opcode == ASG ? 1 : 0;  // the right side of x = e is remembered with x
    while (!slots.empty()) {
        auto [slot, always] = slots.back();
        slots.pop_back();
        NODE* n = *slot;
        if (n->opcode == LABEL) continue;
        if (n->opcode == UAND) {
            if (n->left && n->left->opcode == UMULT && n->left->left) slots.push_back({&n->left->left, always});
            continue;
        }
        available* match = nullptr;
        for (const available_ptr& a : avail_)
            if (!a->gone && a->shape == shapes_[n] && a->expr != n && same_tree(a->expr, n)) {
                match = a.get();
                break;
            }
        SYMTAB* var = match ? match->var : nullptr;
        if (match && !var) var = keep_in_temporary(*match);
        if (var) {
            // The variable read as it is declared when only qualifiers tell
            // the types apart, so that later steps see a plain read of it.
            bool plain = var->type && n->type && var->type->stripped() == n->type->stripped();
            *slot = mk_NAME(var, plain ? var->type : n->type);
            erase_tree(n);
            ++replaced;
            continue;
        }
        bool right_side = whole && slot == &root->right;
        size_t size = always && !right_side ? tree_size_up_to(n, LARGEST_SHARED) : 0;
        if (size >= SMALLEST_SHARED && size <= LARGEST_SHARED && n->type && n->type->stripped()->is_scalar()) {
            available a;
            a.expr = n;
            a.shape = shapes_[n];
            a.stmt = root;
            a.pos = e.pos;
            a.slot = slot;
            // Only what reads memory: address arithmetic is left whole for
            // the induction variables and the addressing modes.
            if (describe(n, a) && (!a.loads.empty() || a.unknown_memory)) remember(std::move(a));
        }
        operands(n, always);
    }
    return replaced;
}

// What is available where a block begins.  After one predecessor, what was
// at its end; at a join, what was at the end of its immediate dominator and
// nothing on the ways from there to the join may have changed (the blocks
// those ways cross are walked back from the join's predecessors to the
// dominator; past MAX_REGION of them, nothing is available).
std::vector<available_ptr> cse::inherited(BBLK* b, Dominator* dom,
                                          const std::map<BBLK*, std::vector<available_ptr>>& ends) const {
    if (!b->predecessors) return {};
    BBLK* from = b->predecessors->rest ? dom->immediate_dominator(b) : b->predecessors->bb;
    auto it = from ? ends.find(from) : ends.end();
    if (it == ends.end()) return {};
    std::vector<available_ptr> in = it->second;
    if (!b->predecessors->rest) return in;
    std::set<BBLK*> region;
    std::vector<BBLK*> work;
    for (EDGE* p = b->predecessors; p; p = p->rest) work.push_back(p->bb);
    while (!work.empty() && !in.empty()) {
        BBLK* x = work.back();
        work.pop_back();
        if (x == from || !region.insert(x).second) continue;
        if (region.size() > MAX_REGION) return {};
        for (const BODY_ENTRY& e : x->statements) {
            if (!e.tree) continue;
            effects fx = effects_of(e.tree);
            std::erase_if(in, [&](const available_ptr& a) { return a->gone || kills(fx, *a); });
        }
        for (EDGE* p = x->predecessors; p; p = p->rest) work.push_back(p->bb);
    }
    return in;
}

int cse::run() {
    int total = 0;
    std::map<BBLK*, std::vector<available_ptr>> ends;
    // Blocks are visited dominators first; what ends a block is kept when a
    // block it alone enters, or a join it dominates immediately, inherits it.
    Dominator* dom = extended_ ? compute_dominators(false) : nullptr;
    std::vector<BBLK*> order = layout_blocks();
    std::set<BBLK*> wanted;
    if (dom) {
        std::vector<BBLK*> reached = dom->depth_first_doms();
        std::set<BBLK*> seen(reached.begin(), reached.end());
        for (BBLK* b : order)
            if (!seen.count(b)) reached.push_back(b);  // nothing reaches it
        order.swap(reached);
        for (BBLK* b : order) {
            if (!b->predecessors) continue;
            if (!b->predecessors->rest) wanted.insert(b->predecessors->bb);
            else if (seen.count(b)) wanted.insert(dom->immediate_dominator(b));
        }
    }
    for (BBLK* b : order) {
        avail_.clear();
        if (dom) avail_ = inherited(b, dom, ends);
        for (BODY_ENTRY& e : b->statements) {
            if (!e.tree) continue;
            if (int n = rewrite(e)) {
                total += n;
                if (write_opt_info && finfo)
                    std::fprintf(finfo, "Line %llu: %d common subexpression%s read from a variable.\n",
                                 static_cast<unsigned long long>(e.pos.line), n, n == 1 ? "" : "s");
            }
            NODE* t = e.tree;
            effects fx = effects_of(t);
            std::erase_if(avail_, [&](const available_ptr& a) { return a->gone || kills(fx, *a); });
            if (t->opcode != ASG || !t->left || t->left->opcode != NAME || !is_private(t->left->symbol) || !t->right)
                continue;
            available a;
            a.expr = t->right;
            a.shape = shape_of(a.expr);
            a.var = t->left->symbol;
            if (!same_value_type(a.var->type, a.expr->type) || !describe(a.expr, a)) continue;
            bool reads_itself = false;
            for (const SYMTAB* r : a.reads) reads_itself |= r == a.var;
            if (!reads_itself) remember(std::move(a));
        }
        if (wanted.count(b)) ends[b] = avail_;
    }
    if (before_.empty()) return total;
    for (BBLK* b : layout_blocks()) {
        std::vector<BODY_ENTRY> stmts;
        for (BODY_ENTRY& e : b->statements) {
            auto it = before_.find(e.tree);
            if (it != before_.end()) stmts.insert(stmts.end(), it->second.begin(), it->second.end());
            stmts.push_back(e);
        }
        b->statements.swap(stmts);
    }
    return total;
}

}  // namespace

int eliminate_common_subexpressions(bool extended) {
    if (opt_level() < 2 || !currfuninfo || !currfuninfo->bb_list) return 0;
    return cse(extended).run();
}
