#include "OPT5/call_graph.h"

#include <algorithm>
#include <cstdio>

#include "IFILE/if_file.h"
#include "OPT5/abort.h"
#include "OPT5/call_effects.h"
#include "OPT5/driver.h"
#include "OPT5/function_summary.h"
#include "OPT5/funinfo.h"
#include "OPT5/global_symbols.h"
#include "OPT5/globals.h"
#include "OPT5/cmdline.h"
#include "OPT5/node.h"
#include "OPT5/park.h"
#include "OPT5/symtab.h"
#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"

namespace {
const char THIS_MODULE[] = "OPT5/call_graph";

// Tarjan's strongly connected parts, with an explicit stack; a part is
// complete only after every part it reaches, which gives callees first.
void find_cycles(call_graph& g) {
    const int n = static_cast<int>(g.nodes.size());
    std::vector<int> index(n, -1), low(n, 0), stack;
    std::vector<bool> on_stack(n, false);
    struct frame {
        int v;
        size_t next;
    };
    std::vector<frame> work;
    int counter = 0;
    for (int root = 0; root < n; ++root) {
        if (index[root] >= 0) continue;
        work.push_back({root, 0});
        while (!work.empty()) {
            frame& fr = work.back();
            int v = fr.v;
            if (fr.next == 0 && index[v] < 0) {
                index[v] = low[v] = counter++;
                stack.push_back(v);
                on_stack[v] = true;
            }
            const std::vector<int>& out = g.nodes[v].callees;
            if (fr.next < out.size()) {
                int w = out[fr.next++];
                if (index[w] < 0) {
                    work.push_back({w, 0});
                } else if (on_stack[w]) {
                    low[v] = std::min(low[v], index[w]);
                }
                continue;
            }
            if (low[v] == index[v]) {
                size_t first = stack.size();
                do --first;
                while (stack[first] != v);
                bool cycle = stack.size() - first > 1;
                for (size_t i = first; i < stack.size(); ++i) {
                    int w = stack[i];
                    on_stack[w] = false;
                    if (cycle) g.nodes[w].recursive = true;
                    g.bottom_up.push_back(w);
                }
                stack.resize(first);
            }
            work.pop_back();
            if (!work.empty()) low[work.back().v] = std::min(low[work.back().v], low[v]);
        }
    }
    for (call_graph::node& nd : g.nodes)
        if (std::find(nd.callees.begin(), nd.callees.end(), &nd - g.nodes.data()) != nd.callees.end())
            nd.recursive = true;
}

}  // namespace

SYMTAB* called_function(const NODE* call) {
    const NODE* f = call->left;
    if (f && f->opcode == UAND) f = f->left;
    return f && f->opcode == NAME && is_function_symbol(f->symbol) ? f->symbol : nullptr;
}

std::vector<NODE*> call_arguments(NODE* call) {
    std::vector<NODE*> args;
    if (call->opcode != CALL) return args;
    uint64_t n = call->value.as<uint64_t>();
    NODE* a = call->right;
    for (uint64_t k = 1; k < n && a && a->opcode == PCOMMA; ++k) {
        args.push_back(a->left);
        a = a->right;
    }
    if (a) args.push_back(a);
    return args;
}

namespace {
std::vector<SYMTAB*> declared(const FUNINFO* fi, bool parameters) {
    std::vector<SYMTAB*> out;
    bool in_args = true;
    // With a flow graph the declarations are kept apart from the blocks.
    for (const BODY_ENTRY& e : fi->bb_list ? fi->scopes : fi->body) {
        if (e.kind == BODY_ENTRY::CONTROL && e.control == IR_END_ARGS) in_args = false;
        SYMTAB* sym = e.kind == BODY_ENTRY::SYMBOL ? static_cast<SYMTAB*>(e.sym) : nullptr;
        if (sym && !sym->global && in_args == parameters) out.push_back(sym);
    }
    return out;
}
}  // namespace

bool needs_own_frame(const std::string& name) {
    static const char* const names[] = {"setjmp",  "_setjmp", "__setjmp", "sigsetjmp", "__sigsetjmp", "savectx",
                                        "vfork",   "getcontext", "alloca", "__builtin_alloca"};
    for (const char* n : names)
        if (name == n) return true;
    return false;
}

bool calls_own_frame_function(const NODE* t) {
    small_vector<const NODE*, 32> work;
    work.push_back(t);
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        if (!n) continue;
        if (n->opcode == CALL || n->opcode == UCALL)
            if (SYMTAB* f = called_function(n); f && needs_own_frame(f->name)) return true;
        work.push_back(n->left);
        work.push_back(n->right);
    }
    return false;
}

std::vector<SYMTAB*> function_parameters(const FUNINFO* fi) { return declared(fi, true); }
std::vector<SYMTAB*> function_locals(const FUNINFO* fi) { return declared(fi, false); }

namespace {
// Runs f on the function made current with its own options, between
// unpacking its statements (`unpack`) and parking it again (`park`).
void in_function(SYMTAB* fn, void (*unpack)(), void (*park)(), const std::function<void(FUNINFO*)>& f) {
    FUNINFO* fi = make_FUNINFO(fn);
    currfunc = fn;
    currfuninfo = fi;
    apply_function_options();
    unpack();
    f(fi);
    park();
    restore_function_options(false);
    currfunc = nullptr;
    currfuninfo = nullptr;
}
}  // namespace

void with_function_statements(SYMTAB* fn, const std::function<void(FUNINFO*)>& f) {
    in_function(fn, unpark_statements, park_function, f);
}

void read_function_statements(SYMTAB* fn, const std::function<void(const FUNINFO*)>& f) {
    in_function(fn, unpark_statements_keeping_bytes, repark_unchanged, [&](FUNINFO* fi) { f(fi); });
}

size_t body_size(const FUNINFO* fi) {
    size_t size = 0;
    for_each_body_node(fi->body, [&](const NODE*) { ++size; });
    return size;
}

call_graph build_call_graph() {
    call_graph g;
    ptr_map<const SYMTAB*, int> index;
    for (SYMTAB* fn : functions) {
        FUNINFO* fi = find_FUNINFO(fn);
        if (!fi || !fi->defined || index.find(fn)) continue;
        index[fn] = static_cast<int>(g.nodes.size());
        g.nodes.emplace_back().fn = fn;
    }
    for (call_graph::node& nd : g.nodes)
        for (SYMTAB* callee : summary_of(nd.fn).called)
            if (const int* at = index.find(callee)) nd.callees.push_back(*at);
    find_cycles(g);
    return g;
}

int function_opt_level(SYMTAB* fn) {
    SYMTAB* outer = currfunc;
    FUNINFO* outer_info = currfuninfo;
    currfunc = fn;
    currfuninfo = make_FUNINFO(fn);
    apply_function_options();
    int level = opt_level();
    restore_function_options(false);
    currfunc = outer;
    currfuninfo = outer_info;
    return level;
}

bool some_function_at_level(int level) {
    for (SYMTAB* fn : functions) {
        FUNINFO* fi = find_FUNINFO(fn);
        if (fi && fi->defined && function_opt_level(fn) >= level) return true;
    }
    return false;
}

void detect_recursion() {
    // Only the inliner and the listings ask: a unit with no function at
    // level 2 is not read for it unless a listing is written.
    if (!print_debug && !write_opt_info && !some_function_at_level(2)) return;
    call_graph g = build_call_graph();
    for (const call_graph::node& nd : g.nodes) {
        FUNINFO* fi = make_FUNINFO(nd.fn);
        fi->recursive = nd.recursive;
        if (!nd.recursive) continue;
        if (write_opt_info && finfo) std::fprintf(finfo, "Function %s() is recursive.\n", nd.fn->name.c_str());
        if (print_debug) DBG_CHECK(std::fprintf(FDEBUG, "%s() is on a cycle of calls\n", nd.fn->name.c_str()));
    }
}

void dump_call_graph_debug() {
    if (!print_debug || !FDEBUG) return;
    call_graph g = build_call_graph();
    DBG_CHECK(std::fprintf(FDEBUG, "Call graph: %zu defined functions, callees first\n", g.nodes.size()));
    for (int i : g.bottom_up) {
        const call_graph::node& nd = g.nodes[static_cast<size_t>(i)];
        DBG_CHECK(std::fprintf(FDEBUG, "  %s()%s%s calls", nd.fn->name.c_str(), nd.fn->value_c == 1 ? " static" : "",
                               nd.recursive ? " recursive" : ""));
        if (nd.callees.empty()) DBG_CHECK(std::fprintf(FDEBUG, " nothing defined here"));
        for (int c : nd.callees) DBG_CHECK(std::fprintf(FDEBUG, " %s()", g.nodes[static_cast<size_t>(c)].fn->name.c_str()));
        DBG_CHECK(std::fputc('\n', FDEBUG));
    }
}

int set_up_and_build_call_graph() {
    clear_call_effects();
    if (opt_level() < 2) return 0;
    unit_uses u = scan_unit_uses();
    if (u.assembly) return 0;
    call_graph g = build_call_graph();
    compute_call_effects(g, u);
    // Reached: what other units may call (external functions, functions
    // whose name goes elsewhere than to calls), and what they call.
    std::vector<char> reached(g.nodes.size(), 0);
    std::vector<int> work;
    for (size_t i = 0; i < g.nodes.size(); ++i) {
        const SYMTAB* fn = g.nodes[i].fn;
        FUNINFO* fi = find_FUNINFO(g.nodes[i].fn);
        bool root = !u.is_private(fn) || fn->retention == I_SYMTAB::RP_RETAIN ||
                    (fi && (fi->flags() & FUN_MUST_BE_UNSUPPRESSED));
        if (root) {
            reached[i] = 1;
            work.push_back(static_cast<int>(i));
        }
    }
    while (!work.empty()) {
        int v = work.back();
        work.pop_back();
        for (int c : g.nodes[static_cast<size_t>(v)].callees)
            if (!reached[static_cast<size_t>(c)]) {
                reached[static_cast<size_t>(c)] = 1;
                work.push_back(c);
            }
    }
    int removed = 0;
    for (size_t i = 0; i < g.nodes.size(); ++i) {
        if (reached[i]) continue;
        FUNINFO* fi = make_FUNINFO(g.nodes[i].fn);
        fi->unreachable = true;
        fi->set_flags(FUN_BODY_NOT_WRITTEN);
        ++removed;
        if (write_opt_info && finfo)
            std::fprintf(finfo, "Function %s() is not written: nothing can call it any more.\n",
                         g.nodes[i].fn->name.c_str());
        if (print_debug) DBG_CHECK(std::fprintf(FDEBUG, "%s() is unreachable\n", g.nodes[i].fn->name.c_str()));
    }
    return removed;
}
