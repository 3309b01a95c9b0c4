#include "OPT5/call_effects.h"

#include <algorithm>
#include <string_view>

#include "IFILE/if_file.h"
#include "OPT5/funinfo.h"
#include "OPT5/function_summary.h"
#include "OPT5/node.h"
#include "OPT5/object_access.h"
#include "OPT5/opcodes.h"
#include "OPT5/opt_client.h"
#include "OPT5/symtab.h"
#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"

namespace {

ptr_map<const SYMTAB*, memory_effects> of_function;  // the defined functions'
ptr_map<const SYMTAB*, bool> only_direct;             // globals no pointer reaches

const memory_effects& unknown_effects() {
    static const memory_effects fx{{}, true, true};
    return fx;
}

const memory_effects& library_effects() {
    static const memory_effects fx{{}, true, false};
    return fx;
}

// Functions of the C library that call nothing of the program's and reach
// its memory only through their pointer arguments.
bool is_leaf_library_function(std::string_view name) {
    static constexpr std::string_view leaves[] = {
        "printf", "sprintf", "snprintf", "puts", "putchar", "memcpy", "memmove", "memset", "memcmp",
        "strlen", "strcmp", "strncmp", "strcpy", "strncpy", "strcat", "strchr", "abs", "labs", "llabs",
        "fabs", "fabsf", "sqrt", "sqrtf", "sin", "sinf", "cos", "cosf", "exp", "expf", "log", "logf",
        "pow", "powf", "floor", "floorf", "ceil", "ceilf"};
    return std::find(std::begin(leaves), std::end(leaves), name) != std::end(leaves);
}

bool by_address(const SYMTAB* a, const SYMTAB* b) { return std::less<const SYMTAB*>()(a, b); }

}  // namespace

bool memory_effects::names(const SYMTAB* g) const {
    return std::binary_search(globals.begin(), globals.end(), g, by_address);
}

void memory_effects::add(const SYMTAB* g) {
    auto at = std::lower_bound(globals.begin(), globals.end(), g, by_address);
    if (at == globals.end() || *at != g) globals.insert(at, g);
}

void memory_effects::merge(const memory_effects& o) {
    through_pointers |= o.through_pointers;
    unknown |= o.unknown;
    if (o.globals.empty()) return;
    std::vector<const SYMTAB*> all;
    all.reserve(globals.size() + o.globals.size());
    std::set_union(globals.begin(), globals.end(), o.globals.begin(), o.globals.end(), std::back_inserter(all),
                   by_address);
    globals.swap(all);
}

void add_tree_effects(const NODE* root, memory_effects& fx, std::vector<const SYMTAB*>* callees, bool any_defined) {
    auto defined = [&](const SYMTAB* f) {
        if (!any_defined) return of_function.find(f) != nullptr;
        const FUNINFO* fi = find_FUNINFO(const_cast<SYMTAB*>(f));
        return fi && fi->defined;
    };
    for_each_node(root, [&](const NODE* n) {
        int op = n->opcode;
        if (op == NAME) {
            if (n->symbol && n->symbol->global && !is_function_symbol(n->symbol)) fx.add(n->symbol);
            return;
        }
        if (is_call(op)) {
            const SYMTAB* f = called_function(n);
            if (callees && f && defined(f)) callees->push_back(f);
            else fx.merge(effects_of_call(n));
        } else if (op == UMULT) {
            if (!access_through(n->left, nullptr).object) fx.through_pointers = true;
        } else if (op == STREF || op == MEMCPY || op == ARASG || op == VFIELD) {
            fx.through_pointers = true;
        } else if (side_effects[op] == 255 && op != PCOMMA && op != COMMAOP && op != NOP && op != PPRAGMA) {
            fx.unknown = true;  // inline assembly, and what no step here makes
        }
    });
}

void compute_call_effects(const call_graph& g, const unit_uses& u) {
    clear_call_effects();
    for (const call_graph::node& nd : g.nodes) of_function[nd.fn] = {};
    std::vector<std::vector<const SYMTAB*>> callees(g.nodes.size());
    for (size_t i = 0; i < g.nodes.size(); ++i) {
        const function_summary& s = summary_of(g.nodes[i].fn);
        *of_function.find(g.nodes[i].fn) = s.effects;
        callees[i] = s.effect_callees;
    }
    // What the callees do, callees first; the members of a cycle go round
    // until nothing changes.
    for (bool changed = true; changed;) {
        changed = false;
        for (int i : g.bottom_up) {
            memory_effects& fx = *of_function.find(g.nodes[static_cast<size_t>(i)].fn);
            for (const SYMTAB* c : callees[static_cast<size_t>(i)]) {
                const memory_effects& other = *of_function.find(c);
                size_t before = fx.globals.size();
                bool pointers = fx.through_pointers, unknown = fx.unknown;
                fx.merge(other);
                changed |= fx.globals.size() != before || fx.through_pointers != pointers || fx.unknown != unknown;
            }
        }
    }
    if (!i_file) return;
    for (I_SYMTAB* s : i_file->globals) {
        const SYMTAB* sym = static_cast<const SYMTAB*>(s);
        if (u.is_private(sym) && !is_function_symbol(sym)) only_direct[sym] = true;
    }
}

void clear_call_effects() {
    of_function.clear();
    only_direct.clear();
}

const memory_effects& effects_of_call(const NODE* call) { return effects_of_function(called_function(call)); }

const memory_effects& effects_of_function(const SYMTAB* f) {
    if (!f) return unknown_effects();
    if (const memory_effects* fx = of_function.find(f)) return *fx;
    FUNINFO* fi = find_FUNINFO(const_cast<SYMTAB*>(f));
    if ((!fi || !fi->defined) && is_leaf_library_function(f->name)) return library_effects();
    return unknown_effects();
}

bool reached_only_directly(const SYMTAB* g) { return only_direct.find(g) != nullptr; }
