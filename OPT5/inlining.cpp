#include "OPT5/inlining.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <memory>
#include <string>
#include <vector>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/abort.h"
#include "OPT5/call_graph.h"
#include "OPT5/copyprop.h"
#include "OPT5/cmdline.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opt_client.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"

namespace {
const char THIS_MODULE[] = "OPT5/inlining";

// Size limits in nodes by the size/speed goal (0: smallest code, 5:
// fastest); at goal 0 a body may also be as large as the call it replaces.
constexpr size_t LIMIT_BY_GOAL[6] = {0, 12, 24, 60, 120, 200};
// A function larger than this is never kept for copying.
constexpr size_t LARGEST_COPIED = 2 * LIMIT_BY_GOAL[5];
// What a caller may grow by: a share of its own size, and at least this.
constexpr size_t SMALLEST_BUDGET = 1000;

// A function kept for copying: its parameters and locals, and its
// statements (copies, owned).
struct callee_copy {
    SYMTAB* fn = nullptr;
    std::vector<SYMTAB*> params;
    std::vector<SYMTAB*> locals;
    std::vector<BODY_ENTRY> stmts;
    TYPE* return_type = nullptr;  // null: void
    size_t size = 0;
    bool always_inline = false;
    bool makes_calls = false;
    bool marks_symbol_refs = false;

    ~callee_copy() {
        erase_tree_list(stmts);
    }
};

bool is_void(TYPE* t) { return !t || t->stripped()->kind == TYPE::VOID_T; }

// The copy of a function that may be inlined, or null (and why not).
std::unique_ptr<callee_copy> keep_for_copying(FUNINFO* fi, const call_graph::node& nd, const char*& why) {
    SYMTAB* fn = nd.fn;
    TYPE* ft = fn->type ? fn->type->stripped() : nullptr;
    why = nullptr;
    if (nd.recursive) why = "it is on a cycle of calls";
    else if (!ft || ft->kind != TYPE::FUNC_T || (ft->flags & 2)) why = "it takes a variable number of arguments";
    else if (!fi->eht.empty()) why = "it has exception tables";
    else if (fi->has_edge_profile) why = "it carries edge profiles";
    else if (!is_void(ft->base) && !ft->base->stripped()->is_scalar()) why = "it returns an aggregate";
    if (why) return nullptr;
    auto copy = std::make_unique<callee_copy>();
    copy->fn = fn;
    copy->return_type = is_void(ft->base) ? nullptr : ft->base;
    for (const PRAGMA& p : fn->x().pragmas)
        if (p.kind == SP_ALWAYS_INLINE) copy->always_inline = true;
    // Its size as a copy: the labels and returns of the body turn into
    // nothing (or an assignment the copy's value is then read from).
    copy->size = body_size(fi);
    for (const BODY_ENTRY& e : fi->body)
        if (e.kind == BODY_ENTRY::STMT && e.tree && (e.tree->opcode == LABELDEF || e.tree->opcode == URETURN))
            --copy->size;
    if (copy->size > LARGEST_COPIED && !copy->always_inline) {
        why = "it is too large";
        return nullptr;
    }
    copy->params = function_parameters(fi);
    for (SYMTAB* p : copy->params)
        if (!(p->type && p->type->stripped()->is_scalar())) {
            why = "an argument is an aggregate";
            return nullptr;
        }
    copy->locals = function_locals(fi);
    for_each_body_node(fi->body, [&](const NODE* n) {
        if (n->opcode == ASM || n->opcode == PPRAGMA || n->opcode == RETURN) why = "of its body";
        if (n->opcode == NAME && n->symbol && needs_own_frame(n->symbol->name)) why = "it needs a frame of its own";
        if (is_call(n->opcode)) copy->makes_calls = true;
    });
    if (why) return nullptr;
    for (const BODY_ENTRY& e : fi->body)
        if (e.kind == BODY_ENTRY::STMT && e.tree) {
            BODY_ENTRY c = e;
            c.tree = copy_tree(e.tree);
            copy->stmts.push_back(c);
        }
    copy->marks_symbol_refs = fi->marks_symbol_refs;
    return copy;
}

// Whether a value of type `from` is given to a variable of type `to` as it
// is (0), through a conversion node (its opcode), or not at all (-1).
int conversion(TYPE* from, TYPE* to) {
    if (!from || !to) return -1;
    TYPE* f = from->stripped();
    TYPE* t = to->stripped();
    if (f == t) return 0;
    bool f_ptr = f->kind == TYPE::PTR_T, t_ptr = t->kind == TYPE::PTR_T;
    if (f_ptr && t_ptr) return PCONV;
    if (!f_ptr && !t_ptr && f->is_arithmetic() && t->is_arithmetic()) return SCONV;
    return -1;
}

NODE* passed_as(NODE* value, TYPE* to) {
    int op = conversion(value->type, to);
    return op > 0 ? mktree(op, to, value) : value;
}

int largest_label(const std::vector<BODY_ENTRY>& body) {
    int largest = 0;
    for_each_body_node(body, [&](const NODE* n) {
        if (n->opcode == LABEL || n->opcode == LABELDEF) largest = std::max(largest, n->value.as<int32_t>());
    });
    return largest;
}

// The locals of one callee's copies in a caller: the copies never run at
// the same time, so they share them.
struct copy_locals {
    ptr_map<const SYMTAB*, SYMTAB*> map;
    SYMTAB* result = nullptr;
};

class inliner {
public:
    inliner(FUNINFO* caller, const ptr_map<const SYMTAB*, callee_copy*>& copies) : fi_(caller), copies_(copies) {}

    // Replaces the calls the cost model allows; returns how many.
    int run(int& unit_allowance);

private:
    struct site {
        NODE** slot;
        const callee_copy* callee;
    };
    void find_sites(NODE*& root, const PSN& pos, std::vector<site>& sites);
    bool worth_copying(NODE* call, const callee_copy& c, const PSN& pos);
    bool touches_shared(const NODE* n) const;
    // Whether no node of the tree touches_shared (an address's operand is
    // not read).
    bool reads_only_private(const NODE* t) const;
    void expand(NODE* call, const PSN& pos, const callee_copy& c, std::vector<BODY_ENTRY>& out);
    copy_locals& locals_for(const callee_copy& c);
    void push(std::vector<BODY_ENTRY>& out, NODE* tree, const PSN& pos) {
        BODY_ENTRY e;
        e.tree = tree;
        e.pos = pos;
        out.push_back(e);
    }

    FUNINFO* fi_;
    const ptr_map<const SYMTAB*, callee_copy*>& copies_;
    int allowance_ = -1;  // copies still allowed in the unit, -1: any number
    size_t limit_ = 0, budget_ = 0, grown_ = 0;
    int next_label_ = 0;
    std::vector<SYMTAB*> new_locals_;
    ptr_map<const SYMTAB*, copy_locals*> locals_;
    std::vector<std::unique_ptr<copy_locals>> owned_;
    std::set<const SYMTAB*> address_taken_;  // the caller's locals a callee could reach
};

copy_locals& inliner::locals_for(const callee_copy& c) {
    if (copy_locals** l = locals_.find(c.fn)) return **l;
    owned_.push_back(std::make_unique<copy_locals>());
    copy_locals& l = *owned_.back();
    locals_[c.fn] = &l;
    for (const std::vector<SYMTAB*>* list : {&c.params, &c.locals})
        for (SYMTAB* s : *list) {
            SYMTAB* n = make_local_symbol(s, s->type, c.fn->name + "." + s->name);
            l.map[s] = n;
            new_locals_.push_back(n);
        }
    if (c.return_type) {
        l.result = make_local_symbol(nullptr, c.return_type, c.fn->name + ".result");
        new_locals_.push_back(l.result);
    }
    return l;
}

// Whether evaluating the node itself (not its operands) changes something
// or reads something a callee could change: anything but constants,
// addresses and the caller's own locals whose address is never taken.
bool inliner::touches_shared(const NODE* n) const {
    int op = n->opcode;
    if (op == NAME) {
        if (!n->symbol || is_volatile_access(n)) return true;
        bool address = n->type && !n->type->stripped()->is_scalar();
        return !address && (n->symbol->global || address_taken_.count(n->symbol));
    }
    return (side_effects[op] != 0 && op != PCOMMA) || is_call(op) || op == UMULT || op == STREF || op == STDOT;
}

bool inliner::reads_only_private(const NODE* t) const {
    std::vector<const NODE*> work{t};
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        if (!n) continue;
        if (n->opcode == UAND && n->left && n->left->opcode == NAME) continue;  // an address reads nothing
        if (touches_shared(n)) return false;
        work.push_back(n->left);
        work.push_back(n->right);
    }
    return true;
}

bool inliner::worth_copying(NODE* call, const callee_copy& c, const PSN& pos) {
    if (allowance_ == 0) return false;
    std::vector<NODE*> args = call_arguments(call);
    bool fits = args.size() == c.params.size();
    for (size_t i = 0; fits && i < args.size(); ++i) fits = conversion(args[i]->type, c.params[i]->type) >= 0;
    // A call costs its nodes, the jump there and the return; a copy costs
    // its body and the arguments (their assignments to the parameters are
    // propagated away).
    size_t call_size = tree_size_up_to(call, SIZE_MAX) + 2;
    size_t cost = c.size + call_size - 4;
    bool cheap = c.always_inline || c.size <= std::max(limit_, call_size);
    bool within = cost <= call_size || grown_ + cost <= budget_ || c.always_inline;
    if (pass_debug_inline_commentary && print_debug)
        DBG_CHECK(std::fprintf(FDEBUG, "call of %s() in %s() at line %llu: size %zu, limit %zu, %s\n",
                               c.fn->name.c_str(), fi_->symbol->name.c_str(), static_cast<unsigned long long>(pos.line),
                               c.size, limit_,
                               !fits ? "arguments don't fit" : !cheap ? "too large" : !within ? "over budget" : "inlined"));
    if (!fits || !cheap || !within) return false;
    grown_ += cost > call_size ? cost - call_size : 0;
    if (allowance_ > 0) --allowance_;
    return true;
}

// The calls of a statement that are copied, in the order they are made.  A
// call qualifies when everything the statement evaluates before it is
// private to the caller (a copy made before the statement then computes
// the same), and it is made whenever the statement runs (not under &&, ||
// or ?:).
void inliner::find_sites(NODE*& root, const PSN& pos, std::vector<site>& sites) {
    bool clean = true;  // what was evaluated so far is private to the caller
    enum { VISIT, AFTER, TAINT };
    struct item {
        NODE** slot;
        int what;
        bool clean_before = true;  // AFTER a call: whether the walk was clean before its arguments
    };
    std::vector<item> work{{&root, VISIT}};
    while (!work.empty()) {
        item it = work.back();
        work.pop_back();
        if (it.what == TAINT) {
            clean = false;
            continue;
        }
        NODE* n = *it.slot;
        int op = n->opcode;
        if (it.what == AFTER) {
            if (op == CALL || op == UCALL) {
                // The arguments go with the copy: what counts is what was
                // evaluated before them.
                SYMTAB* callee = called_function(n);
                callee_copy* const* c = callee && callee != fi_->symbol ? copies_.find(callee) : nullptr;
                bool copied = it.clean_before && c && ((*c)->return_type || n == root) && worth_copying(n, **c, pos);
                if (copied) sites.push_back({it.slot, *c});
                clean = copied;
            } else if (touches_shared(n)) {
                clean = false;
            }
            continue;
        }
        if (op == UAND && n->left && n->left->opcode == NAME) continue;  // an address reads nothing
        work.push_back({it.slot, AFTER, clean});
        if (op == ANDAND || op == OROR || op == QUEST) {
            // The left operand always runs, the rest may not: no copy there.
            if (!reads_only_private(n->right)) work.push_back({it.slot, TAINT});
            work.push_back({&n->left, VISIT});
            continue;
        }
        if ((is_assignment(op) || op == PLUSPLUS || op == MINMIN) && n->left && n->left->opcode == NAME) {
            // The place of a variable costs nothing; an operator-assignment
            // reads it first.
            if (n->right) work.push_back({&n->right, VISIT});
            if (op != ASG && !reads_only_private(n->left)) work.push_back({it.slot, TAINT});
            continue;
        }
        if ((is_assignment(op) || op == PLUSPLUS || op == MINMIN) && n->left && n->left->opcode == UMULT) {
            // The place in memory: its address is worked out, and an
            // operator-assignment loads it.
            if (n->right) work.push_back({&n->right, VISIT});
            if (op != ASG) work.push_back({it.slot, TAINT});
            work.push_back({&n->left->left, VISIT});
            continue;
        }
        if ((op == CALL || op == UCALL) && called_function(n)) {
            if (n->right) work.push_back({&n->right, VISIT});
            continue;
        }
        if (n->right) work.push_back({&n->right, VISIT});
        if (n->left) work.push_back({&n->left, VISIT});
    }
}

void inliner::expand(NODE* call, const PSN& pos, const callee_copy& c, std::vector<BODY_ENTRY>& out) {
    copy_locals& l = locals_for(c);
    std::vector<NODE*> args = call_arguments(call);
    for (size_t i = 0; i < args.size(); ++i) {
        SYMTAB* p = l.map[c.params[i]];
        push(out, mktree(ASG, p->type, mk_NAME(p, p->type), passed_as(copy_tree(args[i]), p->type)), pos);
    }
    std::map<int, int> labels;
    auto label = [&](int old) {
        auto [it, fresh] = labels.emplace(old, 0);
        if (fresh) it->second = next_label_++;
        return it->second;
    };
    int end = next_label_++;
    std::vector<NODE*> work;
    for (const BODY_ENTRY& e : c.stmts) {
        NODE* t = copy_tree(e.tree);
        work.push_back(t);
        while (!work.empty()) {
            NODE* n = work.back();
            work.pop_back();
            if (n->opcode == LABEL || n->opcode == LABELDEF) n->value = INT65(label(n->value.as<int32_t>()));
            if (n->symbol)
                if (SYMTAB** s = l.map.find(n->symbol)) n->symbol = *s;
            if (n->left) work.push_back(n->left);
            if (n->right) work.push_back(n->right);
        }
        if (t->opcode == URETURN) {
            NODE* value = t->left;
            t->left = nullptr;
            erase_node(t);
            if (l.result)
                push(out, mktree(ASG, l.result->type, mk_NAME(l.result, l.result->type), passed_as(value, l.result->type)),
                     e.pos);
            else
                erase_tree(value);
            push(out, mktree(BRANCH, nullptr, mk_LABELREF(end)), e.pos);
            continue;
        }
        push(out, t, e.pos);
    }
    push(out, mk_LABELDEF(mk_LABELREF(end)), pos);
    if (c.makes_calls) fi_->no_calls = false;
    if (c.marks_symbol_refs) fi_->marks_symbol_refs = true;
    if (write_opt_info && finfo)
        std::fprintf(finfo, "Line %llu: call of %s() inlined into %s().\n", static_cast<unsigned long long>(pos.line),
                     c.fn->name.c_str(), fi_->symbol->name.c_str());
    if (print_debug)
        DBG_CHECK(std::fprintf(FDEBUG, "Inlined %s() into %s() at line %llu\n", c.fn->name.c_str(),
                               fi_->symbol->name.c_str(), static_cast<unsigned long long>(pos.line)));
}

int inliner::run(int& unit_allowance) {
    if (opt_level() < 2 || !fi_->eht.empty() || !add_locals(fi_->body, {})) return 0;
    int goal = std::clamp(size_speed_goal(), 0, 5);
    limit_ = LIMIT_BY_GOAL[goal] * (opt_level() >= 3 ? 2 : 1);
    if (pass_debug_inline_small_limit > 0) limit_ = static_cast<size_t>(static_cast<int>(pass_debug_inline_small_limit));
    size_t own = body_size(fi_);
    budget_ = goal == 0 ? 0 : std::max(own, SMALLEST_BUDGET) * (goal >= 3 ? 2 : 1) / 2;
    allowance_ = unit_allowance;
    next_label_ = largest_label(fi_->body) + 1;
    for (const BODY_ENTRY& e : fi_->body) {
        if (e.kind == BODY_ENTRY::SYMBOL && e.sym && e.sym->type && !e.sym->type->stripped()->is_scalar())
            address_taken_.insert(static_cast<SYMTAB*>(e.sym));  // its name is its address
    }
    for_each_body_node(fi_->body, [&](const NODE* n) {
        if (n->opcode == UAND && n->left && n->left->opcode == NAME) address_taken_.insert(n->left->symbol);
    });

    std::vector<BODY_ENTRY> out;
    out.reserve(fi_->body.size());
    int replaced = 0;
    std::vector<site> sites;
    for (BODY_ENTRY& e : fi_->body) {
        sites.clear();
        if (e.kind == BODY_ENTRY::STMT && e.tree) find_sites(e.tree, e.pos, sites);
        if (sites.empty()) {
            out.push_back(e);
            continue;
        }
        // Where the statement reads each copy's value.
        ptr_map<const SYMTAB*, NODE*> reader;
        for (const site& st : sites) {
            NODE* call = *st.slot;
            SYMTAB* value = st.callee->return_type ? locals_for(*st.callee).result : nullptr;
            if (NODE** earlier = value ? reader.find(value) : nullptr) {
                // The function was called before in the statement: that
                // value moves to a temporary of its own before this copy
                // overwrites it.
                SYMTAB* keep = make_local_symbol(nullptr, value->type, value->name + std::to_string(replaced));
                new_locals_.push_back(keep);
                push(out, mktree(ASG, keep->type, mk_NAME(keep, keep->type), mk_NAME(value, value->type)), e.pos);
                (*earlier)->symbol = keep;
            }
            expand(call, e.pos, *st.callee, out);
            ++replaced;
            if (call == e.tree) {
                e.tree = nullptr;
            } else {
                *st.slot = mk_NAME(value, call->type);
                reader[value] = *st.slot;
            }
            erase_tree(call);
        }
        if (e.tree) out.push_back(e);
    }
    fi_->body.swap(out);
    if (!new_locals_.empty()) add_locals(fi_->body, new_locals_);
    unit_allowance = allowance_;
    return replaced;
}

}  // namespace

int auto_inline_call_sites() {
    if (pass_disable_newinline || !some_function_at_level(2)) return 0;
    call_graph g = build_call_graph();
    // Only a function optimised at level 2 or above inlines; a copy is kept
    // only of what such a function calls.
    std::vector<char> inlines(g.nodes.size()), copied(g.nodes.size());
    for (size_t i = 0; i < g.nodes.size(); ++i) inlines[i] = function_opt_level(g.nodes[i].fn) >= 2;
    for (size_t i = 0; i < g.nodes.size(); ++i)
        if (inlines[i])
            for (int c : g.nodes[i].callees) copied[static_cast<size_t>(c)] = 1;
    ptr_map<const SYMTAB*, callee_copy*> copies;
    std::vector<std::unique_ptr<callee_copy>> owned;
    int unit_allowance = pass_debug_inline_n > 0 ? static_cast<int>(pass_debug_inline_n) : -1;
    int replaced = 0;
    for (int v : g.bottom_up) {
        const call_graph::node& nd = g.nodes[v];
        if (!inlines[static_cast<size_t>(v)] && !copied[static_cast<size_t>(v)]) continue;
        with_function_statements(nd.fn, [&](FUNINFO* fi) {
            replaced += inliner(fi, copies).run(unit_allowance);
            if (!copied[static_cast<size_t>(v)]) return;
            const char* why = nullptr;
            if (std::unique_ptr<callee_copy> c = keep_for_copying(fi, nd, why)) {
                copies[nd.fn] = c.get();
                owned.push_back(std::move(c));
            } else if (pass_debug_inline_commentary && print_debug) {
                DBG_CHECK(std::fprintf(FDEBUG, "%s() is not copied: %s\n", nd.fn->name.c_str(), why));
            }
        });
    }
    return replaced;
}
