#include "OPT5/global_symbols.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <vector>

#include "IFILE/if_file.h"
#include "OPT5/abort.h"
#include "OPT5/call_graph.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/function_summary.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opt_client.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/small_vector.h"

namespace {
const char THIS_MODULE[] = "OPT5/global_symbols";

const std::vector<I_SYMTAB*>& unit_globals() {
    static const std::vector<I_SYMTAB*> none;
    return i_file ? i_file->globals : none;
}

// The global is written by `fn` (null: an initializer).
void note_write(global_use& g, const SYMTAB* fn) {
    g.written = true;
    if (g.writer && g.writer != fn) g.several_writers = true;
    g.writer = fn;
}

// `access` is the node that reads or writes the object.
void note(unit_uses& u, const SYMTAB* sym, operand_role r, const NODE* access, const SYMTAB* fn) {
    global_use& g = u.of[sym];
    if (r == ADDRESS) g.escapes = true;
    if (r == VALUE || r == PLACE_READ) g.read = true;
    if (r == PLACE || r == PLACE_READ) note_write(g, fn);
    if (is_volatile_access(access) || mentions_volatile(sym->type)) g.volatile_access = true;
}

// Notes what one tree does with the globals it names (fn: the function it
// belongs to, null for an initializer).
void scan_tree(const NODE* root, const SYMTAB* fn, unit_uses& u) {
    struct item {
        const NODE* n;
        operand_role r;
    };
    small_vector<item, 32> work;
    work.push_back({root, VALUE});
    while (!work.empty()) {
        auto [n, r] = work.back();
        work.pop_back();
        if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
        int op = n->opcode;
        if (op == NAME) {
            const SYMTAB* s = n->symbol;
            if (!s || !s->global) continue;
            if (is_function_symbol(s)) u.of[s].escapes = true;  // a call's target is not walked
            else note(u, s, r, n, fn);
            continue;
        }
        if (op == ASM) u.assembly = true;
        if ((op == CALL || op == UCALL) && called_function(n)) {
            ++u.of[called_function(n)].calls;
            if (op == CALL) work.push_back({n->right, VALUE});
            continue;
        }
        if (op == UMULT) {
            small_vector<const NODE*, 4> indices;
            direct_access d = access_through(n->left, &indices);
            if (d.object && d.object->global) {
                note(u, d.object, r, n, fn);
                for (const NODE* i : indices) work.push_back({i, VALUE});
                continue;
            }
        }
        work.push_back({n->left, left_role(op)});
        work.push_back({n->right, VALUE});
    }
}

// The constant an object that keeps its initial value holds at an offset,
// read as `type`; null when it is not a constant of that size.
class initial_values {
public:
    explicit initial_values(const SYMTAB* g) : g_(g) {
        if (!g->x().has_init) return;
        INT65 at;
        for (const BASE_NODE* b : g->x().init_trees) {
            const NODE* t = static_cast<const NODE*>(b);
            if (!t || t->opcode == ENDINIT || !t->type) break;
            at_[at.as<int64_t>()] = t;
            at = at + INT65(static_cast<int64_t>(t->type->size / 16));
        }
    }

    NODE* value(INT65 offset, TYPE* type) const {
        TYPE* integer = integer_view(type);
        if (!type || offset.is_negative() || is_pointer_type(type)) return nullptr;
        int64_t off = offset.as<int64_t>();
        if (!g_->x().has_init) {
            if (!integer || static_cast<uint64_t>(off) * 16 + type->size > g_->size) return nullptr;
            return mk_ICON(INT65(0), type);
        }
        auto it = at_.find(off);
        if (it == at_.end()) return nullptr;
        const NODE* t = it->second;
        if (t->type->size != type->size) return nullptr;
        if (t->opcode == ICON && integer && integer_view(t->type)) return mk_ICON(truncate_to_type(t->value, integer), type);
        if (t->opcode == FCON && exact_types(t->type, type)) return copy_tree(t);
        return nullptr;
    }

private:
    const SYMTAB* g_;
    std::map<int64_t, const NODE*> at_;
};

// Replaces the reads, at known offsets, of the objects that keep their
// initial values; counts them by object.
void fold_reads(NODE*& root, const ptr_map<const SYMTAB*, initial_values*>& fixed,
                std::vector<std::pair<const SYMTAB*, int>>& folded) {
    auto is_fixed = [&](const SYMTAB* s) { return fixed.find(s) != nullptr; };
    fold_access_offsets(root, is_fixed);  // offsets not folded yet
    for_each_access(root, is_fixed, [&](const object_access& a) {
        if (a.role != VALUE || !a.where.known) return;
        NODE* n = *a.slot;
        NODE* v = (*fixed.find(a.sym))->value(a.where.offset, n->type);
        if (!v) return;
        erase_tree(n);
        *a.slot = v;
        auto at = std::find_if(folded.begin(), folded.end(), [&](const auto& f) { return f.first == a.sym; });
        if (at == folded.end()) folded.push_back({a.sym, 1});
        else ++at->second;
    });
}

}  // namespace

bool is_internal(const SYMTAB* sym) { return sym && sym->global && sym->value_c == 1; }

bool unit_uses::is_private(const SYMTAB* sym) const {
    if (!is_internal(sym) || assembly) return false;
    const global_use* g = of.find(sym);
    return !g || !g->escapes;
}

void scan_function_tree(const NODE* root, const SYMTAB* fn, unit_uses& u) { scan_tree(root, fn, u); }

unit_uses scan_unit_uses() {
    unit_uses u;
    for (SYMTAB* fn : functions) {
        FUNINFO* fi = find_FUNINFO(fn);
        if (!fi || !fi->defined) continue;
        const function_summary& s = summary_of(fn);
        u.assembly |= s.assembly;
        for (const auto& [sym, own] : s.globals) {
            global_use& g = u.of[sym];
            g.escapes |= own.escapes;
            g.read |= own.read;
            g.volatile_access |= own.volatile_access;
            g.calls += own.calls;
            if (own.written) note_write(g, fn);
        }
    }
    for (I_SYMTAB* g : unit_globals())
        for (const BASE_NODE* t : g->x().init_trees) scan_tree(static_cast<const NODE*>(t), nullptr, u);
    return u;
}

int analyze_global_symbols() {
    // Only functions optimised at level 2 or above read the initial values;
    // the debug listing shows what is found in any case.
    if (!print_debug && !some_function_at_level(2)) return 0;
    unit_uses u = scan_unit_uses();
    std::vector<std::unique_ptr<initial_values>> owned;
    ptr_map<const SYMTAB*, initial_values*> fixed;
    for (I_SYMTAB* s : unit_globals()) {
        const SYMTAB* g = static_cast<const SYMTAB*>(s);
        const global_use* use = u.of.find(g);
        if (is_function_symbol(g) || !u.is_private(g) || !use || use->written || use->volatile_access ||
            !use->read)
            continue;
        owned.push_back(std::make_unique<initial_values>(g));
        fixed[g] = owned.back().get();
    }
    if (print_debug) {
        for (I_SYMTAB* s : unit_globals()) {
            const SYMTAB* g = static_cast<const SYMTAB*>(s);
            const global_use* use = u.of.find(g);
            if (!use || is_function_symbol(g)) continue;
            DBG_CHECK(std::fprintf(FDEBUG, "global %s:%s%s%s%s%s%s\n", g->name.c_str(), is_internal(g) ? " internal" : "",
                                   use->escapes ? " escapes" : "", use->read ? " read" : "",
                                   use->written ? (use->several_writers ? " written" : " written by one function") : "",
                                   use->volatile_access ? " volatile" : "", fixed.find(g) ? " constant" : ""));
        }
    }
    if (owned.empty()) return 0;
    int total = 0;
    for (SYMTAB* fn : functions) {
        FUNINFO* fi = find_FUNINFO(fn);
        if (!fi || !fi->defined || function_opt_level(fn) < 2) continue;
        with_function_statements(fn, [&](FUNINFO* f) {
            std::vector<std::pair<const SYMTAB*, int>> folded;  // in the order first met
            for (BODY_ENTRY& e : f->body)
                if (e.kind == BODY_ENTRY::STMT && e.tree) fold_reads(e.tree, fixed, folded);
            for (const auto& [g, n] : folded) {
                total += n;
                if (write_opt_info && finfo)
                    std::fprintf(finfo, "Function %s(): %d read%s of '%s', which nothing writes, take%s its initial value.\n",
                                 fn->name.c_str(), n, n == 1 ? "" : "s", g->name.c_str(), n == 1 ? "s" : "");
            }
        });
    }
    return total;
}
