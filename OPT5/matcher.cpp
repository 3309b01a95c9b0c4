// The rule matcher.
#include "OPT5/matcher.h"

#include <algorithm>
#include <ctime>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/abort.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/simp.h"
#include "TYPES/type_pkg.h"

namespace {
const char THIS_MODULE[] = "OPT5/matcher";

bool initialised = false;
bool tracing = false;           // debug:mdebug
bool vectorise_vectors = true;  // cleared by disable:vecvec
int rule_count = 0;

FILE* trace_stream() { return print_debug && FDEBUG ? FDEBUG : stderr; }

template <class... A>
void trace(const char* fmt, A... args) {
    if (tracing) std::fprintf(trace_stream(), fmt, args...);
}

std::string root_key(const DFG* d) {
    if (!d) return "";
    if (d->op == DFG_TARGET || ((d->op == ICALL || d->op == MCALL) && !d->name.empty())) return d->name;
    const char* n = d->op >= 0 && d->op < NUM_OPCODES ? node_operator_name[d->op] : nullptr;
    return n ? n : std::to_string(d->op);
}

bool is_op_or_xop_form(const DFG* d) { return d && d->op == DFG_TARGET; }

// The declaration of the operator at a pattern's root says whether its
// operands commute.
bool operands_commute(const DFG* d) {
    if (!d || d->nopd != 2) return false;
    if (d->op >= 0 && d->op < NUM_OPCODES && commute_inv[d->op] == d->op) return true;
    if (!md_rule_base) return false;
    for (DECL_RULE* r : md_rule_base->find_declaration_for_DFG(const_cast<DFG*>(d), false, false))
        if (r->bif.flags & HF_OPDS_COMMUTE) return true;
    return false;
}

int constant_leaves(const DFG* d) {
    if (!d) return 0;
    if (d->op == SCON || d->op == ICON || d->op == FCON) return 1;
    if ((d->op == SWITCH || d->op == IF) && d->nopd > 0) return constant_leaves(d->opd[0]);
    int n = 0;
    for (int i = 0; i < d->nopd; ++i) n += constant_leaves(d->opd[i]);
    return n;
}

int parm_sizes(const DFG* d) {
    if (!d) return 0;
    if (d->op == DFG_PARM) return d->trep ? d->trep->bits : 0;
    int n = 0;
    for (int i = 0; i < d->nopd; ++i) n += parm_sizes(d->opd[i]);
    return n;
}

int root_element_size(const DFG* d) {
    if (d && d->op == COMMA && d->nopd > 0) d = d->opd[0];
    return d && d->trep ? d->trep->bits : 0;
}

bool same_dfg(const DFG* a, const DFG* b) {
    if (a == b) return true;
    if (!a || !b || a->op != b->op || a->name != b->name || a->nopd != b->nopd || a->ivalue != b->ivalue ||
        a->text != b->text || a->trep != b->trep || a->sf != b->sf)
        return false;
    for (int i = 0; i < a->nopd; ++i)
        if (!same_dfg(a->opd[i], b->opd[i])) return false;
    return true;
}

// Replaces the contents of `node` by those of `result`, keeping the node's
// type representation, its parent and its do-not-vectorise flag, so that
// references to the node stay valid.
void copy_into(DFG* node, const DFG* result) {
    if (node == result) return;
    TREP* keep_trep = node->trep;
    DFG* keep_parent = node->parent;
    unsigned keep_flags = node->flags & DFG_DO_NOT_VECTORIZE;
    DFG copy = *result;
    *node = copy;
    node->trep = keep_trep ? keep_trep : copy.trep;
    node->parent = keep_parent;
    node->flags = (node->flags & ~DFG_DO_NOT_VECTORIZE) | keep_flags;
    for (int i = 0; i < node->nopd; ++i)
        if (node->opd[i]) node->opd[i]->parent = node;
}

}  // namespace

std::string simd_failure_reason;
DFG_ARENA matcher_arena;

DFG* DFG_ARENA::make() {
    nodes_.push_back(std::make_unique<DFG>());
    return nodes_.back().get();
}

RULETABLE primary_rules{"Primary rules", {}, {}};
RULETABLE primary_declarations{"Primary declarations", {}, {}};
RULETABLE simplify_only_rules{"Simplify-only rules", {}, {}};
RULETABLE op_forward_rules{"OP forward rules", {}, {}};
RULETABLE non_op_xop_simplify_only_rules{"Non-OP/XOP simplify-only rules", {}, {}};
RULETABLE combine_rules{"COMBINE rules", {}, {}};

void RULETABLE::add(DECL_RULE* rule, const DFG* pattern) {
    std::string key = root_key(pattern);
    rules[key].push_back(rule);
    flags[key] = true;
}

void RULETABLE::print(FILE* out) const {
    std::fprintf(out, "[%s:]\n", title);
    for (const auto& [key, list] : rules)
        for (DECL_RULE* r : list)
            std::fprintf(out, "  %-12s line %d: %s %s\n", key.c_str(), r->line, declruletype_name(r->kind),
                         dfg_text(r->pattern).c_str());
}

// ---------------------------------------------------------------------------
// Initialisation

void reset_matcher() {
    initialised = false;
    for (RULETABLE* t : {&primary_rules, &primary_declarations, &simplify_only_rules, &op_forward_rules,
                         &non_op_xop_simplify_only_rules, &combine_rules})
        t->clear();
}

namespace {
// Rules the tables make for themselves (commuted twins, synthesised wider
// rules) and their nodes; they live as long as the tables.
DFG_ARENA table_nodes;
std::vector<std::unique_ptr<DECL_RULE>> table_rules;

DECL_RULE* twin_rules_storage(DECL_RULE* r) {
    table_rules.push_back(std::make_unique<DECL_RULE>(*r));
    return table_rules.back().get();
}

// A SIMD rule of factor 2 made into one of factor 4: the template twice,
// packed together by the synthetic pack operator.
DECL_RULE* synthesise_wider(DECL_RULE* simdrule) {
    if (!(simdrule->kind == rSIMD && simdrule->sf == 2))
        optassert("simdrule->kind == rSIMD && simdrule->sf == 2", THIS_MODULE, __LINE__);
    DECL_RULE* w = twin_rules_storage(simdrule);
    DFG* pack = table_nodes.make();
    pack->op = DFG_TARGET;
    pack->name = "__synpack";
    pack->sf = 4;
    pack->trep = simdrule->templt->trep;
    pack->opd[0] = simdrule->templt;
    pack->opd[1] = simdrule->templt;
    pack->nopd = 2;
    w->templt = pack;
    w->sf = 4;
    w->next = nullptr;
    return w;
}
}  // namespace

void matcher_init() {
    if (initialised) return;
    initialised = true;
    clock_t start = std::clock();
    tracing = pass_debug_mdebug != 0;
    vectorise_vectors = !pass_disable_vecvec;
    reset_matcher();
    initialised = true;
    if (pass_debug_parsemd) {
        parse_md_file(true);
    } else {
        md_rule_base = compiled_rule_base();
        md_rule_base->link_compiled_lists();
        md_rule_base->replace_dummy_types_and_treps();
        md_rule_base->filter_unneeded_decl_rule();
    }
    if (md_rule_base) build_rule_tables(md_rule_base);
    if (print_debug && FDEBUG) {
        DBG_CHECK(std::fprintf(FDEBUG, "[%d SIMD/SIMPLIFY/OP/XOP/COMBINE rules]\n", rule_count));
        DBG_CHECK(std::fprintf(FDEBUG, "(%.1f sec for matcher initialisation.)\n\n",
                               static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC));
    }
    if (pass_debug_dumprules) {
        FILE* out = print_debug && FDEBUG ? FDEBUG : stdout;
        for (RULETABLE* t : {&primary_rules, &primary_declarations, &simplify_only_rules, &op_forward_rules,
                             &non_op_xop_simplify_only_rules, &combine_rules})
            t->print(out);
    }
}

int build_rule_tables(RULE_BASE* rb) {
    for (RULETABLE* t : {&primary_rules, &primary_declarations, &simplify_only_rules, &op_forward_rules,
                         &non_op_xop_simplify_only_rules, &combine_rules})
        t->clear();
    table_rules.clear();
    table_nodes.recycle();
    rule_count = 0;
    std::vector<DECL_RULE*> all;
    for (DECL_RULE* list : {rb->decls, rb->imprecise_decls, rb->rules})
        for (DECL_RULE* r = list; r; r = r->next) all.push_back(r);
    for (DECL_RULE* r : all) {
        if (r->sf == 0) optassert("rdlist->sf != 0", THIS_MODULE, __LINE__);
        switch (r->kind) {
        case rICODE:
        case rICALL:
        case rMCALL: primary_declarations.add(r, r->pattern); break;
        case rOP:
        case rXOP:
            if (r->kind == rOP) {
                primary_declarations.add(r, r->pattern);
                op_forward_rules.add(r, r->pattern);
            }
            if (r->templt) {
                primary_rules.add(r, r->pattern);
                simplify_only_rules.add(r, r->pattern);
                if (!is_op_or_xop_form(r->pattern)) non_op_xop_simplify_only_rules.add(r, r->pattern);
                ++rule_count;
            }
            break;
        case rSIMD:
            primary_rules.add(r, r->pattern);
            ++rule_count;
            if (pass_debug_synrules && r->sf == 2) {
                DECL_RULE* w = synthesise_wider(r);
                primary_rules.add(w, w->pattern);
                ++rule_count;
            }
            break;
        case rSIMPLIFY: {
            int psf = r->pattern ? r->pattern->sf : 1;
            int tsf = r->templt ? r->templt->sf : psf;
            if (tsf != psf) {
                if (psf > 1) {
                    trace("Punting SIMPLIFY rule at %d because it changes SF but has SF>1 in the pattern.\n", r->line);
                    break;
                }
                trace("Allowing SF-changing SIMPLIFY rule at %d.\n", r->line);
            }
            simplify_only_rules.add(r, r->pattern);
            if (!is_op_or_xop_form(r->pattern)) non_op_xop_simplify_only_rules.add(r, r->pattern);
            primary_rules.add(r, r->pattern);
            ++rule_count;
            // A pattern whose root commutes with itself gets a twin with its
            // operands exchanged.
            DFG* p = r->pattern;
            if (operands_commute(p) && dfg2prefix(p->opd[0]) != dfg2prefix(p->opd[1])) {
                trace("  [adding self-commute for rule at %d]\n", r->line);
                DECL_RULE* twin = twin_rules_storage(r);
                DFG* q = table_nodes.make();
                *q = *p;
                std::swap(q->opd[0], q->opd[1]);
                twin->pattern = q;
                twin->self_commuted = true;
                twin->next = nullptr;
                simplify_only_rules.add(twin, q);
                if (!is_op_or_xop_form(q)) non_op_xop_simplify_only_rules.add(twin, q);
                primary_rules.add(twin, q);
            }
            break;
        }
        case rCOMBINE:
            combine_rules.add(r, r->pattern);
            ++rule_count;
            break;
        default: optassert("rdlist->kind == rOP || rdlist->kind == rXOP", THIS_MODULE, __LINE__);
        }
    }
    return rule_count;
}

// ---------------------------------------------------------------------------
// Matching

bool match_less(const CANDIDATE& a, const CANDIDATE& b) {
    const DFG* pa = a.rule->pattern;
    const DFG* pb = b.rule->pattern;
    // debug:nfa_by_cost: the cheaper replacement first, as the description
    // prices it.
    if (pass_debug_nfa_by_cost && md_rule_base) {
        int ca = md_rule_base->cost_of_dfg_and_children(a.rule->templt, 16);
        int cb = md_rule_base->cost_of_dfg_and_children(b.rule->templt, 16);
        if (ca != cb) return ca < cb;
    }
    if (pa->size() != pb->size()) return pa->size() > pb->size();
    if (a.rule->sf != b.rule->sf) return a.rule->sf > b.rule->sf;
    if (root_element_size(pa) != root_element_size(pb)) return root_element_size(pa) < root_element_size(pb);
    if (parm_sizes(pa) != parm_sizes(pb)) return parm_sizes(pa) < parm_sizes(pb);
    if (constant_leaves(pa) != constant_leaves(pb)) return constant_leaves(pa) > constant_leaves(pb);
    bool wa = a.rule->constraint.when != nullptr, wb = b.rule->constraint.when != nullptr;
    if (wa != wb) return wa;
    if (pa->op == DFG_SQC && pb->op == DFG_SQC && pa->opd[0] && pb->opd[0]) {
        auto rank = [](const DFG* d) { return d->op == GE ? 0 : d->op == GT ? 1 : 2; };
        if (rank(pa->opd[0]) != rank(pb->opd[0])) return rank(pa->opd[0]) < rank(pb->opd[0]);
    }
    // A rule as the description wrote it (the flag set) before a twin made
    // by commuting its operands (clear).
    if (a.rule->self_commuted != b.rule->self_commuted) return !a.rule->self_commuted;
    return false;
}

bool match_dfg(DFG* p, DFG* n, std::map<DFG*, DFG*, lessparm>& b, std::string* why) {
    auto fail = [&](const char* reason) {
        if (why) *why = reason;
        return false;
    };
    if (!p || !n) return fail("missing node");
    if (p->op == DFG_PARM) {
        if (p->flags & (DFG_ICON_SIGNED | DFG_ICON_UNSIGNED)) {
            if (n->op != ICON) return fail("parameter wants an integer constant");
            if ((p->flags & DFG_ICON_RANGE) && (n->ivalue < p->lo || n->ivalue > p->hi))
                return fail("constant out of the parameter's range");
        }
        auto it = b.find(p);
        if (it != b.end()) return it->second == n || same_dfg(it->second, n) ? true : fail("binding collision");
        b[p] = n;
        return true;
    }
    if (n->flags & DFG_DO_NOT_VECTORIZE) return fail("node is not to be vectorised");
    if (p->op != n->op || (!p->name.empty() && p->name != n->name)) return fail("operator mismatch");
    if (p->op == ICON) return p->ivalue == n->ivalue ? true : fail("constant mismatch");
    if (p->op == FCON || p->op == SCON) return p->text == n->text ? true : fail("constant mismatch");
    if (p->trep && n->trep && (p->trep->kind != n->trep->kind || p->trep->bits != n->trep->bits) &&
        p->trep->kind != 'x')
        return fail("TREP mismatch when vectorising");
    if (p->sf != n->sf) return fail("SIMD factor mismatch");
    if (p->nopd != n->nopd) return fail("operand count mismatch");
    std::map<DFG*, DFG*, lessparm> saved = b;
    bool ok = true;
    for (int i = 0; i < p->nopd && ok; ++i) ok = match_dfg(p->opd[i], n->opd[i], b, why);
    if (ok) return true;
    if (operands_commute(p)) {
        b = saved;
        if (match_dfg(p->opd[0], n->opd[1], b, why) && match_dfg(p->opd[1], n->opd[0], b, why)) {
            trace("  [commuted:  %s for %s]\n", dfg_text(n).c_str(), dfg_text(p).c_str());
            return true;
        }
    }
    b = saved;
    return false;
}

DFG* lookup_in_dfg_bindings(DFG* parm, std::map<DFG*, DFG*, lessparm>& bindings) {
    auto it = bindings.find(parm);
    return it == bindings.end() ? nullptr : it->second;
}

NODE* lookup_in_tree_bindings(DFG* parm, std::map<DFG*, NODE*>& bindings) {
    auto it = bindings.find(parm);
    return it == bindings.end() ? nullptr : it->second;
}

bool parameter_constraints_are_satisfied(CONSTRAINT* c, std::map<DFG*, DFG*, lessparm>& bindings) {
    return !c || !c->when || c->when->is_satisfied(bindings);
}

bool parameter_constraints_are_satisfied(CONSTRAINT* c, std::map<DFG*, NODE*>& bindings) {
    return !c || !c->when || c->when->is_satisfied(bindings);
}

bool nonparameter_constraints_are_satisfied(CONSTRAINT* c) {
    if (!c) return true;
    if (!c->targets.empty() && !targets_include_this_version(c->targets)) return false;
    return !c->given || c->given->is_satisfied();
}

DFG_ALIST* make_dfg_alist(DFG_LIST* from, DFG_LIST* to) {
    auto* alist = new DFG_ALIST;
    if (!from || !to) return alist;
    for (size_t i = 0; i < from->size() && i < to->size(); ++i) alist->push_back({(*from)[i], (*to)[i]});
    return alist;
}

DFG* copy_dfg_and_subst(DFG* t, DFG_ALIST* alist) {
    if (!t) return nullptr;
    if (t->op == DFG_PARM && alist)
        for (auto& [from, to] : *alist)
            if (from == t) return to;
    DFG* c = matcher_arena.make();
    *c = *t;
    c->parent = nullptr;
    for (int i = 0; i < t->nopd; ++i) {
        c->opd[i] = copy_dfg_and_subst(t->opd[i], alist);
        if (c->opd[i] && c->opd[i]->op != DFG_PARM) c->opd[i]->parent = c;
    }
    return c;
}

namespace {
DFG* instantiate(DFG* templt, std::map<DFG*, DFG*, lessparm>& bindings) {
    DFG_ALIST alist(bindings.begin(), bindings.end());
    return copy_dfg_and_subst(templt, &alist);
}
}  // namespace

std::deque<CANDIDATE> find_candidates(RULETABLE& table, DFG* node, int sf) {
    std::deque<CANDIDATE> out;
    auto it = table.rules.find(root_key(node));
    if (it == table.rules.end()) return out;
    for (DECL_RULE* r : it->second) {
        if (sf > 0 && r->sf != sf) continue;
        trace("[candidate rule at %d (%s %s):]\n", r->line, declruletype_name(r->kind), dfg_text(r->pattern).c_str());
        CANDIDATE c;
        c.rule = r;
        c.node = node;
        std::string why;
        if (!match_dfg(r->pattern, node, c.bindings, &why)) {
            trace("  [mismatch:  %s\n         vs:  %s]\n", dfg_text(r->pattern).c_str(), dfg_text(node).c_str());
            trace("  [failure reason:  %s]\n", why.c_str());
            continue;
        }
        if (!parameter_constraints_are_satisfied(&r->constraint, c.bindings) ||
            !nonparameter_constraints_are_satisfied(&r->constraint)) {
            trace("[rule at %d (%s %s) ==> rejected for secondary constraints]\n", r->line, declruletype_name(r->kind),
                  dfg_text(r->pattern).c_str());
            continue;
        }
        trace("[rule at %d (%s %s) matched:\n", r->line, declruletype_name(r->kind), dfg_text(r->pattern).c_str());
        out.push_back(c);
    }
    std::stable_sort(out.begin(), out.end(), match_less);
    trace("[%zu match%s]\n", out.size(), out.size() == 1 ? "" : "es");
    return out;
}

// ---------------------------------------------------------------------------
// Rewrites

DFG* simplify_using_rules(DFG* node, CDSTMT* stmt, bool vector_mode, bool* changed) {
    (void)stmt;
    if (changed) *changed = false;
    if (!node) return node;
    RULETABLE& table = vector_mode ? simplify_only_rules : non_op_xop_simplify_only_rules;
    DFG* cur = node;
    for (int steps = 0;; ++steps) {
        if (steps == 100) {
            if (print_debug) {
                std::fputs("\n +++++ Runaway in simplify matching\n", stderr);
                if (FDEBUG)
                    std::fprintf(FDEBUG, "\n +++++ Runaway in simplify matching for %s\n", dfg_text(node).c_str());
            }
            return node;
        }
        std::deque<CANDIDATE> found = find_candidates(table, cur, 0);
        DECL_RULE* rule = nullptr;
        for (CANDIDATE& c : found) {
            if (!c.rule->templt) continue;
            rule = c.rule;
            cur = instantiate(c.rule->templt, c.bindings);
            break;
        }
        if (!rule) break;
    }
    if (cur == node) return node;
    if (!vector_mode && cur->sf > 1) return node;  // a vector result is for the vectoriser only
    if (changed) *changed = true;
    if (node->trep && cur->trep && node->trep != cur->trep && node->trep->kind != 'x') cur->trep = node->trep;
    copy_into(node, cur);
    return node;
}

namespace {
// The expression tree as a graph: constants, operators, and leaves (names,
// registers) as register-candidate uses.
DFG* tree_to_dfg(NODE* t, std::map<DFG*, NODE*>& leaves) {
    if (!t) return nullptr;
    DFG* d = matcher_arena.make();
    d->op = t->opcode;
    d->trep = t->type && (integer_view(t->type) || t->type->is_floating()) ? find_TREP(t->type, 1) : nullptr;
    if (t->opcode == ICON) {
        d->ivalue = t->value;
        return d;
    }
    int arity = t->opcode >= 0 && t->opcode < NUM_OPCODES ? number_of_operands[t->opcode] : 0;
    if (t->opcode == NAME || t->opcode == VREG || arity == 0 || arity > 2 || side_effects[t->opcode] != 0) {
        d->op = DFG_RCUSE;
        leaves[d] = t;
        return d;
    }
    d->nopd = arity;
    d->opd[0] = tree_to_dfg(t->left, leaves);
    if (arity == 2) d->opd[1] = tree_to_dfg(t->right, leaves);
    return d;
}

NODE* dfg_to_tree(const DFG* d, std::map<DFG*, NODE*>& leaves, TYPE* type) {
    if (d->op == DFG_RCUSE) {
        auto it = leaves.find(const_cast<DFG*>(d));
        return it == leaves.end() ? nullptr : copy_tree(it->second);
    }
    TYPE* t = d->trep && d->trep->type ? d->trep->type : type;
    if (d->op == ICON) return mk_ICON(t && integer_view(t) ? truncate_to_type(d->ivalue, t) : d->ivalue, t);
    if (d->op < 0 || d->op >= DFG_DEF || d->op == DFG_TARGET) return nullptr;  // only tree operators go back
    NODE* l = d->nopd > 0 ? dfg_to_tree(d->opd[0], leaves, t) : nullptr;
    NODE* r = d->nopd > 1 ? dfg_to_tree(d->opd[1], leaves, t) : nullptr;
    if ((d->nopd > 0 && !l) || (d->nopd > 1 && !r)) {
        if (l) erase_tree(l);
        if (r) erase_tree(r);
        return nullptr;
    }
    return mktree(d->op, t, l, r);
}
}  // namespace

NODE* simplify_using_rules(NODE* tree) {
    if (!tree || !md_rule_base) return tree;
    std::map<DFG*, NODE*> leaves;
    DFG* d = tree_to_dfg(tree, leaves);
    bool changed = false;
    simplify_using_rules(d, nullptr, false, &changed);
    if (!changed) return tree;
    NODE* out = dfg_to_tree(d, leaves, tree->type);
    if (!out) return tree;  // the result has no tree form
    erase_tree(tree);
    return out;
}

namespace {
// The widest register the description's vector operations use, in bits.
int target_vector_bits() {
    int widest = 0;
    for (DECL_RULE* r = md_rule_base ? md_rule_base->decls : nullptr; r; r = r->next)
        if (r->pattern && r->pattern->trep && r->sf > 1) widest = std::max(widest, r->pattern->trep->bits * r->sf);
    return widest;
}

bool power_of_2(int v) { return v > 0 && (v & (v - 1)) == 0; }
}  // namespace

DFG* apply_SIMD_rules_to_DFG_node(DFG* node, CDSTMT* stmt, int sf) {
    (void)stmt;
    simd_failure_reason.clear();
    auto fail = [](const char* why) -> DFG* {
        simd_failure_reason = why;
        trace("  [failure reason:  %s]\n", why);
        return nullptr;
    };
    if (!node) return fail("no node");
    if (node->sf > 1) return fail(vectorise_vectors ? "already vectorised" : "can't vectorise vector");
    auto vectored = [&](const char* rule) {
        trace("[built-in %s rule]\n", rule);
        DFG* v = matcher_arena.make();
        *v = *node;
        v->sf = sf;
        return v;
    };
    switch (node->op) {
    case DFG_RCUSE: return vectored("RC");
    case DFG_FETCH: return vectored("FETCH");
    case DFG_STORE: return vectored("STORE");
    default: break;
    }
    // A simple element-wise operation the description declares as one.
    DFG probe = *node;
    probe.sf = sf;
    std::vector<DECL_RULE*> simple;
    if (md_rule_base)
        for (DECL_RULE* d : md_rule_base->find_declaration_for_DFG(&probe, false, false))
            if (d->bif.flags & HF_IS_SIMPLE_VECTOR_OP) simple.push_back(d);
    if (!simple.empty()) {
        for (int i = 0; i < node->nopd; ++i)
            if (node->opd[i] && node->opd[i]->trep && node->trep && node->opd[i]->trep != node->trep)
                return fail("types not all same for simple vector op");
        if (node->trep && !power_of_2(node->trep->bits)) return fail("non-power-of-2 element");
        if (node->trep && node->trep->bits * sf > target_vector_bits()) return fail("too wide");
        for (DECL_RULE* d : simple) {
            if (d->sf != sf) continue;
            trace("[built-in %s rule]\n", root_key(node).c_str());
            DFG* v = matcher_arena.make();
            *v = *node;
            v->sf = sf;
            v->opdecl = d;
            return v;
        }
    }
    std::deque<CANDIDATE> found = find_candidates(primary_rules, node, sf);
    for (CANDIDATE& c : found) {
        if (c.rule->kind != rSIMD) continue;
        DFG* v = instantiate(c.rule->templt, c.bindings);
        return v;
    }
    if (node->op == DFG_DEF) return fail("DEF is neither reduction nor MVE");
    return fail("no SIMD rule");
}

bool dfg_is_COMBINE_candidate(DFG* node) {
    return node && node->sf == 1 && combine_rules.rules.count(root_key(node)) > 0;
}

bool apply_COMBINE_rules(DFG* node, CDSTMT* stmt, bool vector_mode, bool trace_on) {
    (void)vector_mode;
    (void)trace_on;
    if (!dfg_is_COMBINE_candidate(node)) return false;
    for (DECL_RULE* r : combine_rules.rules[root_key(node)]) {
        std::map<DFG*, DFG*, lessparm> b;
        if (!match_dfg(r->pattern, node, b, nullptr)) continue;
        // The second node: the root of a later statement of the region.
        for (CDSTMT* s = stmt ? stmt->next : nullptr; s; s = s->next) {
            DFG* other = s->root;
            if (!other || other == node) continue;
            std::map<DFG*, DFG*, lessparm> both = b;
            if (!match_dfg(r->pattern2, other, both, nullptr)) continue;
            if (!parameter_constraints_are_satisfied(&r->constraint, both) ||
                !nonparameter_constraints_are_satisfied(&r->constraint))
                continue;
            DFG* first = instantiate(r->templt, both);
            DFG* second = instantiate(r->templt2, both);
            copy_into(node, first);
            copy_into(other, second);
            return true;
        }
    }
    return false;
}

DFG* revert_OP_and_XOP_to_generic_node(DFG* node, CDSTMT* stmt) {
    (void)stmt;
    for (int guard = 0; node && node->op == DFG_TARGET && guard < 100; ++guard) {
        DECL_RULE* decl = nullptr;
        for (DECL_RULE* list : {md_rule_base->decls, md_rule_base->imprecise_decls})
            for (DECL_RULE* r = list; r && !decl; r = r->next)
                if ((r->kind == rOP || r->kind == rXOP) && r->templt && r->pattern->name == node->name &&
                    r->sf == node->sf)
                    decl = r;
        if (!decl) break;
        std::map<DFG*, DFG*, lessparm> b;
        if (!match_dfg(decl->pattern, node, b, nullptr)) break;
        copy_into(node, instantiate(decl->templt, b));
    }
    return node;
}
