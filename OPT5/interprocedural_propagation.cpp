#include "OPT5/interprocedural_propagation.h"

#include <cstdio>
#include <optional>
#include <vector>

#include "OPT5/call_graph.h"
#include "OPT5/cmdline.h"
#include "OPT5/funinfo.h"
#include "OPT5/global_symbols.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"

namespace {

// An integer constant passed or returned, as a value of `to` (a non-pointer
// integer type); nothing for anything else.
std::optional<INT65> constant_as(const NODE* value, TYPE* to) {
    TYPE* integer = integer_view(to);
    if (!value || value->opcode != ICON || !integer || is_pointer_type(to) || !integer_view(value->type) ||
        is_pointer_type(value->type))
        return std::nullopt;
    return truncate_to_type(value->value, integer);
}

// What every call of a function passes and every return of it gives.
struct callee {
    std::vector<SYMTAB*> params;
    std::vector<std::optional<INT65>> passed;  // per parameter, while every call agrees
    std::vector<char> varies;
    bool calls_fit = true;  // every call passes one argument per parameter
    TYPE* result = nullptr;
    std::optional<INT65> returned;
    bool returns_vary = false;
};

template <class FLAG>
void agree(std::optional<INT65>& seen, FLAG& varies, std::optional<INT65> v) {
    if (!v) varies = true;
    else if (!seen) seen = v;
    else if (!(*seen == *v)) varies = true;
}

// The slot holding the call a statement's value is, through conversions: the
// right side of an assignment to a variable, or the value returned.
NODE** call_slot(NODE* stmt) {
    NODE** slot = nullptr;
    if (stmt->opcode == ASG && stmt->left && stmt->left->opcode == NAME) slot = &stmt->right;
    else if (stmt->opcode == URETURN) slot = &stmt->left;
    while (slot && *slot && ((*slot)->opcode == SCONV || (*slot)->opcode == PCONV)) slot = &(*slot)->left;
    return slot && *slot && ((*slot)->opcode == CALL || (*slot)->opcode == UCALL) ? slot : nullptr;
}

}  // namespace

int do_interprocedural_propagation() {
    // Only a function optimised at level 2 or above takes the constants.
    if (!some_function_at_level(2)) return 0;
    unit_uses u = scan_unit_uses();
    ptr_map<const SYMTAB*, callee> callees;
    std::vector<SYMTAB*> defined;
    for (SYMTAB* fn : functions) {
        FUNINFO* fi = find_FUNINFO(fn);
        if (!fi || !fi->defined) continue;
        defined.push_back(fn);
        TYPE* ft = fn->type ? fn->type->stripped() : nullptr;
        const global_use* use = u.of.find(fn);
        if (!u.is_private(fn) || !use || use->calls == 0 || !ft || ft->kind != TYPE::FUNC_T || (ft->flags & 2))
            continue;
        callee& c = callees[fn];
        c.result = ft->base;
        read_function_statements(fn, [&](const FUNINFO* f) {
            c.params = function_parameters(f);
            c.passed.resize(c.params.size());
            c.varies.assign(c.params.size(), 0);
            for_each_body_node(f->body, [&](const NODE* n) {
                if (n->opcode == RETURN) c.returns_vary = true;
                if (n->opcode == URETURN) agree(c.returned, c.returns_vary, constant_as(n->left, c.result));
            });
        });
    }
    if (callees.size() == 0) return 0;
    for (SYMTAB* fn : defined)
        read_function_statements(fn, [&](const FUNINFO* f) {
            for_each_body_node(f->body, [&](const NODE* n) {
                SYMTAB* target = n->opcode == CALL || n->opcode == UCALL ? called_function(n) : nullptr;
                callee* c = target ? callees.find(target) : nullptr;
                if (!c) return;
                std::vector<NODE*> args = call_arguments(const_cast<NODE*>(n));
                if (args.size() != c->params.size()) c->calls_fit = false;
                for (size_t i = 0; i < args.size() && i < c->params.size(); ++i)
                    agree(c->passed[i], c->varies[i], constant_as(args[i], c->params[i]->type));
            });
        });

    // What varies, or reaches a function through calls that do not fit,
    // is no constant.
    bool one_value = false;  // some function returns one constant
    for (SYMTAB* g : defined)
        if (callee* c = callees.find(g)) {
            for (size_t i = 0; i < c->passed.size(); ++i)
                if (c->varies[i] || !c->calls_fit) c->passed[i].reset();
            if (c->returns_vary) c->returned.reset();
            one_value |= c->returned.has_value();
        }
    int changes = 0;
    for (SYMTAB* fn : defined) {
        callee* c = callees.find(fn);
        bool entry = false;
        for (size_t i = 0; c && i < c->passed.size(); ++i) entry |= c->passed[i].has_value();
        if (!entry && !one_value) continue;
        with_function_statements(fn, [&](FUNINFO* f) {
            if (opt_level() < 2) return;
            std::vector<BODY_ENTRY> body;
            body.reserve(f->body.size() + 1);
            bool first = true;
            for (BODY_ENTRY& e : f->body) {
                if (e.kind == BODY_ENTRY::STMT && first) {
                    first = false;
                    for (size_t i = 0; entry && i < c->params.size(); ++i) {
                        if (!c->passed[i]) continue;
                        SYMTAB* p = c->params[i];
                        NODE* value = mk_ICON(*c->passed[i], p->type);
                        body.push_back({BODY_ENTRY::STMT, mktree(ASG, p->type, mk_NAME(p, p->type), value), e.pos});
                        ++changes;
                        if (write_opt_info && finfo)
                            std::fprintf(finfo, "Function %s(): parameter '%s' is %lld at every call.\n",
                                         fn->name.c_str(), p->name.c_str(), c->passed[i]->as<long long>());
                    }
                }
                NODE** slot = e.kind == BODY_ENTRY::STMT && e.tree ? call_slot(e.tree) : nullptr;
                SYMTAB* target = slot ? called_function(*slot) : nullptr;
                const callee* d = target ? callees.find(target) : nullptr;
                if (d && d->returned && integer_view((*slot)->type)) {
                    NODE* call = *slot;
                    *slot = mk_ICON(truncate_to_type(*d->returned, integer_view(call->type)), call->type);
                    body.push_back({BODY_ENTRY::STMT, call, e.pos});
                    if (write_opt_info && finfo)
                        std::fprintf(finfo, "Line %llu: the call of %s() gives %lld, the only value it returns.\n",
                                     static_cast<unsigned long long>(e.pos.line), target->name.c_str(),
                                     d->returned->as<long long>());
                    ++changes;
                }
                body.push_back(e);
            }
            f->body.swap(body);
        });
    }
    return changes;
}
