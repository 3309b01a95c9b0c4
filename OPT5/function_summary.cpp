#include "OPT5/function_summary.h"

#include <algorithm>
#include <memory>

#include "OPT5/call_graph.h"
#include "OPT5/funinfo.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"

namespace {
void summarize(const FUNINFO* fi, function_summary& s) {
    unit_uses own;
    for (const BODY_ENTRY& e : fi->body) {
        if (e.kind != BODY_ENTRY::STMT || !e.tree) continue;
        scan_function_tree(e.tree, fi->symbol, own);
        add_tree_effects(e.tree, s.effects, &s.effect_callees, true);
        for_each_node(e.tree, [&](const NODE* n) {
            SYMTAB* callee = n->opcode == CALL || n->opcode == UCALL ? called_function(n) : nullptr;
            if (callee && std::find(s.called.begin(), s.called.end(), callee) == s.called.end())
                s.called.push_back(callee);
        });
    }
    own.of.for_each([&](const SYMTAB* g, const global_use& use) { s.globals.emplace_back(g, use); });
    s.assembly = own.assembly;
}
}  // namespace

const function_summary& summary_of(SYMTAB* fn) {
    FUNINFO* fi = make_FUNINFO(fn);
    if (fi->summary && fi->is_parked && fi->summary_packing == fi->packings) return *fi->summary;
    auto s = std::make_shared<function_summary>();
    bool parked = fi->is_parked;
    read_function_statements(fn, [&](const FUNINFO* f) { summarize(f, *s); });
    // Kept only while the bytes it was read from stay.
    fi->summary = s;
    fi->summary_packing = parked ? fi->packings : ~uint64_t{0};
    return *s;
}
