// The machine-description parser: one routine per production.  Optional
// elements are tried with TOKEN::getToken(k) and skipped when absent; every
// syntax error throws FAIL.
#include "OPT5/md_parse.h"

#include <cctype>
#include <climits>
#include <cstring>
#include <functional>
#include <memory>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/abort.h"
#include "OPT5/cmdline.h"
#include "OPT5/globals.h"
#include "OPT5/opcodes.h"

namespace {
const char THIS_MODULE[] = "OPT5/md_parse";

// The lower-case names are the forms a rule base prints.
const char* const pc_functions[] = {"IS_IV",  "IS_RC", "IS_FETCH", "IS_ICON", "IS_POWER_OF_2",
                                    "STRIDE", "IS_SSV", "is_IV",   "stride"};
const char* const given_functions[] = {"BIG_ENDIAN",
                                       "LITTLE_ENDIAN",
                                       "SPEED_PREFERRED_ALWAYS",
                                       "SPEED_PREFERRED_STRONGLY",
                                       "SPEED_PREFERRED_WEAKLY",
                                       "SIZE_PREFERRED_WEAKLY",
                                       "SIZE_PREFERRED_STRONGLY",
                                       "SIZE_PREFERRED_ALWAYS",
                                       "OPT_LEVEL_AT_LEAST",
                                       "SATURATING_ADD_ASSOCIATIVE",
                                       "SATURATING_ADD_NOT_ASSOCIATIVE",
                                       "FP_ADD_ASSOCIATIVE",
                                       "FP_ADD_NOT_ASSOCIATIVE"};

bool one_of(const std::string& s, const char* const* list, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (s == list[i]) return true;
    return false;
}

bool is_trep_width(int w) { return w == 16 || w == 32 || w == 40 || w == 64 || w == 128; }

}  // namespace

// ---------------------------------------------------------------------------
// TOKEN

void TOKEN::load() {
    if (index < 0) {
        text.clear();
        line = 0;
        aux = 0;
        loaded = index;
        return;
    }
    const MD_TOKEN& t = tokens_[index];
    const char* spelled = md_spelling(t.kind);
    text = t.text && *t.text ? t.text : (spelled ? spelled : (t.kind == T_END ? "<end>" : ""));
    line = t.line;
    aux = t.aux;
    loaded = index;
}

tokentype TOKEN::kind() const { return index < 0 ? T_NONE : tokens_[index].kind; }

tokentype TOKEN::getToken() {
    if (index < 0 || tokens_[index].kind != T_END) ++index;
    load();
    return kind();
}

tokentype TOKEN::getToken(tokentype k) {
    int before = index;
    getToken();
    bool match = false;
    switch (k) {
    case T_PARMNAME: match = isParmname(); break;
    case T_SSVNAME: match = isSSV(); break;
    case T_TREP: match = isTrep(); break;
    case T_PCFUNCTION: match = isPcFunction(); break;
    case T_GIVENFUNCTION: match = isGivenFunction(); break;
    case T_RELOP: match = isRelop(); break;
    case T_LABEL: match = kind() == T_INT && text.size() == 1; break;
    default: match = kind() == k; break;
    }
    if (match) return k;
    index = before;
    load();
    return T_NONE;
}

void TOKEN::seek(int at) {
    index = at;
    load();
}

void TOKEN::returnToken() {
    if (index >= 0) --index;
    load();
}

bool TOKEN::isParmname() const {
    return kind() == T_IDENT && text.size() == 1 && std::isalpha(static_cast<unsigned char>(text[0])) && text[0] != 'T';
}
bool TOKEN::isSSV() const {
    return kind() == T_IDENT && text.size() == 1 && std::isalpha(static_cast<unsigned char>(text[0]));
}
bool TOKEN::isTrep() const {
    if (kind() != T_IDENT || text.empty()) return false;
    if (text[0] == 'X') {
        for (size_t i = 1; i < text.size(); ++i)
            if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
        return true;
    }
    if (!std::strchr("IUFP", text[0]) || text.size() < 3) return false;
    for (size_t i = 1; i < text.size(); ++i)
        if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    return is_trep_width(std::atoi(text.c_str() + 1));
}
bool TOKEN::isPcFunction() const {
    return kind() == T_IDENT && one_of(text, pc_functions, sizeof pc_functions / sizeof *pc_functions);
}
bool TOKEN::isGivenFunction() const {
    return kind() == T_IDENT && one_of(text, given_functions, sizeof given_functions / sizeof *given_functions);
}
bool TOKEN::isRelop() const {
    tokentype k = kind();
    return k == T_LT || k == T_GT || k == T_LE || k == T_GE || k == T_EQ || k == T_NE;
}

// ---------------------------------------------------------------------------
// PARSER: helpers

void PARSER::fail(const std::string& message) { throw FAIL{tok_.line, tok_.text, message}; }

void PARSER::fail_at_next(const std::string& message) {
    tok_.getToken();  // quote the token that is there
    fail(message);
}

void PARSER::expect(tokentype k, const char* message) {
    if (!tok_.getToken(k)) fail_at_next(message);
}

long long PARSER::integer(const char* message) {
    bool negative = tok_.getToken(T_MINUS) != T_NONE;
    if (!tok_.getToken(T_INT)) fail_at_next(message);
    long long v = negative ? -tok_.aux : tok_.aux;
    if (v < INT_MIN || v > INT_MAX) fail(message);
    return v;
}

DFG* PARSER::parm_node(char letter) {
    auto it = parms_.find(letter);
    if (it != parms_.end()) return it->second;
    DFG* p = rb_->new_dfg();
    p->op = DFG_PARM;
    p->parm = letter;
    p->line = tok_.line;
    parms_[letter] = p;
    return p;
}

// The opcode an operator name stands for: a tree operator, a graph operator
// (written without its DFG_ prefix), an OP/XOP or an intrinsic call; 0 when
// unknown.
int PARSER::operator_code(const std::string& name, bool in_rule) const {
    (void)in_rule;
    for (int op = 0; op < NUM_OPCODES; ++op) {
        const char* n = node_operator_name[op];
        if (!n) continue;
        if (name == n && op < DFG_DEF) return op;
        if (std::strncmp(n, "DFG_", 4) == 0 && name == n + 4) return op;
    }
    if (rb_->op_names.count(name)) return DFG_TARGET;
    if (rb_->icall_names.count(name)) return ICALL;
    return 0;
}

// ---------------------------------------------------------------------------
// Header

RULE_BASE* PARSER::parse(bool prune) {
    prune_ = prune;
    rb_ = new RULE_BASE;
    try {
        mdfHeader();
        while (!tok_.getToken(T_END)) {
            expect(T_LPAREN, "need a declaration or rule");
            parms_.clear();
            labels_.clear();
            std::vector<DECL_RULE*> made = declaration();
            bool is_decl = !made.empty();
            if (!is_decl) made = rewriteRules();
            if (made.empty()) fail_at_next("need a declaration or rule");
            expect(T_RPAREN, is_decl ? "declaration should be ended with a )" : "rewrite-rule should end up with a )");
            DECL_RULE* list = nullptr;
            for (DECL_RULE* d : made) list = add_decl_rule(list, d);
            rb_->handle_new_decl_rule(rev_declrule_list(list));
        }
        rb_->add_complex_type_decl();
        rb_->add_new_icalls_to_BIF();
        if (prune_) rb_->remove_disqualified_decl_rule();
        parms_.clear();
        labels_.clear();
        if (prune_) rb_->validate(true);
    } catch (FAIL&) {
        delete rb_;
        rb_ = nullptr;
        throw;
    }
    RULE_BASE* done = rb_;
    rb_ = nullptr;
    return done;
}

void PARSER::mdfHeader() {
    mdfBanner();
    targetDeclaration();
    endianDeclaration();
    funUnitDeclaration();
    derivedFunctionalUnits();
    // DEFAULT COST, LATENCY and SPACE, each optional, in this order.
    const tokentype order[] = {T_COST, T_LATENCY, T_SPACE};
    size_t next = 0;
    while (tok_.getToken(T_DEFAULT)) {
        tokentype k = tok_.getToken();
        size_t at = next;
        while (at < 3 && order[at] != k) ++at;
        if (at >= 3 || at != next) fail("need COST/LATENCY/SPACE after DEFAULT");
        if (k == T_COST) defaultCost();
        else if (k == T_LATENCY) defaultLatency();
        else defaultSpace();
        next = at + 1;
    }
}

void PARSER::mdfBanner() {
    if (!tok_.getToken(T_OPTIMIZER) || !tok_.getToken(T_MACHINE) || !tok_.getToken(T_DESCRIPTION))
        fail_at_next("need the keywords OPTIMIZER MACHINE DESCRIPTION");
    expect(T_COLON, "need a colon");
    expect(T_STRING, "need the keywords OPTIMIZER MACHINE DESCRIPTION");  // and the name after them
    rb_->name = tok_.text;
}

void PARSER::targetDeclaration() {
    expect(T_TARGETS, "need the keyword TARGETS");
    expect(T_COLON, "need a colon after TARGETS");
    if (tok_.getToken(T_LPAREN)) {
        bool any = false;
        while (tok_.getToken(T_IDENT)) {
            rb_->targets.push_back(tok_.text);
            any |= target_is_this_version(tok_.text);
        }
        expect(T_RPAREN, "need a target name");
        if (rb_->targets.empty()) fail("at least one target name is needed");
        if (!any) fail("none of cpu versions matches");
        return;
    }
    expect(T_IDENT, "need a target name");
    rb_->targets.push_back(tok_.text);
    if (!target_is_this_version(tok_.text)) fail("cpu version doesn't match");
}

void PARSER::endianDeclaration() {
    expect(T_ENDIAN, "need an ENDIAN declaration");
    expect(T_COLON, "need a colon after ENDIAN");
    if (tok_.getToken(T_LITTLE)) rb_->md_big_endian = false;
    else if (tok_.getToken(T_BIG)) rb_->md_big_endian = true;
    else {
        fail_at_next("unknown keyword after colon");
    }
    rb_->refine_target_and_endianness();
}

void PARSER::funUnitDeclaration() {
    if (!tok_.getToken(T_FUNCTIONAL)) return;
    expect(T_UNITS, "need a colon after FUNCTIONAL_UNITS");
    expect(T_COLON, "need a colon after FUNCTIONAL_UNITS");
    functionalUnits();
}

void PARSER::functionalUnits() {
    expect(T_LPAREN, "no functional units specified");
    while (tok_.getToken(T_IDENT)) {
        if (rb_->fu_index(tok_.text) >= 0) fail("duplicate functional unit");
        rb_->fu_names.push_back(tok_.text);
        if (pass_debug_parser) std::printf("+++ FU: %s\n", tok_.text.c_str());
    }
    if (rb_->fu_names.empty()) fail_at_next("at least one functional unit name is needed");
    expect(T_RPAREN, "FUNITS should end up with a )");
    rb_->real_fu_count = static_cast<int>(rb_->fu_names.size());
}

void PARSER::derivedFunctionalUnits() {
    if (!tok_.getToken(T_DERIVED)) return;
    expect(T_FUNCTIONAL, "need a colon after DERIVED FUNCTIONAL UNITS");
    expect(T_UNITS, "need a colon after DERIVED FUNCTIONAL UNITS");
    expect(T_COLON, "need a colon after DERIVED FUNCTIONAL UNITS");
    expect(T_LPAREN, "need a ( after DERIVED FUNCTIONAL UNITS");
    while (tok_.getToken(T_IDENT)) {
        if (rb_->fu_index(tok_.text) >= 0) fail("duplicate derived functional unit");
        std::string name = tok_.text;
        expect(T_LPAREN, "need a ( after the derived functional unit name");
        std::set<unsigned> units;
        while (tok_.getToken(T_IDENT)) {
            int i = rb_->fu_index(tok_.text);
            if (i < 0 || i >= rb_->real_fu_count) fail("unkonwn functional unit");
            units.insert(static_cast<unsigned>(i));
        }
        expect(T_RPAREN, "need a ) for a derived functional unit name");
        rb_->fu_names.push_back(name);
        rb_->derived_fu.push_back(units);
    }
    expect(T_RPAREN, "DERIVED FUNCTIONAL UNITS must end with a )");
}

void PARSER::defaultCost() {
    expect(T_COLON, "need : after DEFAULT COST");
    rb_->default_cost = static_cast<int>(integer("default cost must be an ICON"));
}
void PARSER::defaultLatency() {
    expect(T_COLON, "need : after DEFAULT LATENCY");
    rb_->default_latency = static_cast<int>(integer("default latency must be an ICON"));
}
void PARSER::defaultSpace() {
    expect(T_COLON, "need : after DEFAULT SPACE");
    rb_->default_space = static_cast<int>(integer("default space must be an ICON"));
}

// ---------------------------------------------------------------------------
// Declarations

namespace {
// Copies a pattern (parameters are shared: they stand for the same thing).
DFG* copy_pattern(RULE_BASE* rb, const DFG* d) {
    if (!d) return nullptr;
    if (d->op == DFG_PARM) return const_cast<DFG*>(d);
    DFG* c = rb->new_dfg();
    *c = *d;
    for (int i = 0; i < d->nopd; ++i) {
        c->opd[i] = copy_pattern(rb, d->opd[i]);
        if (c->opd[i] && c->opd[i]->op != DFG_PARM) c->opd[i]->parent = c;
    }
    return c;
}
}  // namespace

std::vector<DECL_RULE*> PARSER::declaration() {
    if (tok_.getToken(T_ICODE)) return icodeDecl();
    if (tok_.getToken(T_ICALL)) return icallMcallDecl(rICALL);
    if (tok_.getToken(T_MCALL)) return icallMcallDecl(rMCALL);
    if (tok_.getToken(T_OP)) return genopDecl();
    if (tok_.getToken(T_XOP)) return xopDecl();
    return {};
}

namespace {
// One declaration per SIMD factor or per container size.
std::vector<DECL_RULE*> expand(RULE_BASE* rb, DECL_RULE& proto, DFG* pattern, DFG* templt,
                               const std::vector<int>& sfs, const std::vector<TREP*>& treps, const char* what,
                               const char* sf_message, const std::function<void(const std::string&)>& fail) {
    size_t n = std::max<size_t>(1, std::max(sfs.size(), treps.size()));
    if (sfs.size() > 1 && treps.size() > 1 && sfs.size() != treps.size()) fail(sf_message);
    if (n > 1 && proto.constraint.when)
        fail(std::string("cannot declare multiple ") + what + " with a WHEN clause");
    std::vector<DECL_RULE*> out;
    for (size_t i = 0; i < n; ++i) {
        auto* d = new DECL_RULE(proto);
        d->pattern = i == 0 ? pattern : copy_pattern(rb, pattern);
        d->templt = templt && i > 0 ? copy_pattern(rb, templt) : templt;
        if (!treps.empty()) d->pattern->trep = treps[std::min(i, treps.size() - 1)];
        d->set_rule_simd_factor(sfs.empty() ? 1 : sfs[std::min(i, sfs.size() - 1)]);
        rb->owned_rules.push_back(d);
        out.push_back(d);
    }
    return out;
}
}  // namespace

std::vector<DECL_RULE*> PARSER::icodeDecl() {
    current_kind_ = rICODE;
    DECL_RULE proto;
    proto.kind = rICODE;
    proto.line = tok_.line;
    std::vector<int> sfs;
    std::vector<TREP*> treps;
    DFG* p = icodePattern(sfs, treps);
    clauses(proto, p);
    return expand(rb_, proto, p, nullptr, sfs, treps, "ICODEs", "# of icode's simd factors doesn not match # of decls",
                  [this](const std::string& m) { fail(m); });
}

std::vector<DECL_RULE*> PARSER::icallMcallDecl(declruletype kind) {
    current_kind_ = kind;
    DECL_RULE proto;
    proto.kind = kind;
    proto.line = tok_.line;
    std::vector<int> sfs;
    std::vector<TREP*> treps;
    DFG* p = icallMcallPattern(sfs, treps);
    proto.bif.bif_name = p->name;
    clauses(proto, p);
    return expand(rb_, proto, p, nullptr, sfs, treps, "ICALLs", "# of icall's simd factors doesn not match # of decls",
                  [this](const std::string& m) { fail(m); });
}

std::vector<DECL_RULE*> PARSER::genopDecl() {
    current_kind_ = rOP;
    DECL_RULE proto;
    proto.kind = rOP;
    proto.line = tok_.line;
    std::vector<int> sfs;
    std::vector<TREP*> treps;
    std::vector<DFG*> patterns{genopPattern(sfs, treps, false)};
    std::vector<DFG*> templates;
    if (tok_.getToken(T_IS)) {
        while (tok_.getToken(T_LPAREN)) {
            tok_.returnToken();
            templates.push_back(templt());
        }
        if (templates.empty()) fail_at_next("template is not valid");
        if (templates.size() != patterns.size() && templates.size() != std::max<size_t>(1, sfs.size()))
            fail("# of templates doesn't match # of patterns");
    }
    clauses(proto, patterns[0]);
    if (templates.size() > 1 && templates.size() != std::max<size_t>(1, std::max(sfs.size(), treps.size())))
        fail("don't know how to generate multiple templates");
    std::vector<DECL_RULE*> out = expand(rb_, proto, patterns[0], templates.empty() ? nullptr : templates[0], sfs,
                                         treps, "OPs", "# of genop's simd factors doesn not match # of decls",
                                         [this](const std::string& m) { fail(m); });
    for (size_t i = 1; i < out.size() && i < templates.size(); ++i) out[i]->templt = templates[i];
    return out;
}

std::vector<DECL_RULE*> PARSER::xopDecl() {
    current_kind_ = rXOP;
    DECL_RULE proto;
    proto.kind = rXOP;
    proto.line = tok_.line;
    std::vector<int> sfs;
    std::vector<TREP*> treps;
    DFG* p = xopPattern(sfs, treps);
    expect(T_IS, "need the keyword IS in xop declaration");
    DFG* t = templt();
    clauses(proto, p);
    return expand(rb_, proto, p, t, sfs, treps, "OPs", "# of genop's simd factors doesn not match # of decls",
                  [this](const std::string& m) { fail(m); });
}

DFG* PARSER::icodePattern(std::vector<int>& sfs, std::vector<TREP*>& treps) {
    expect(T_LPAREN, "pattern is not valid");
    expect(T_IDENT, "need a valid operator");
    int op = operator_code(tok_.text, false);
    if (op == 0 || op == DFG_TARGET || op == ICALL) fail("need a valid operator");
    return declPattern(op, "", sfs, treps);
}

DFG* PARSER::icallMcallPattern(std::vector<int>& sfs, std::vector<TREP*>& treps) {
    expect(T_LPAREN, "pattern is not valid");
    expect(T_IDENT, "need a valid operator");
    std::string name = tok_.text;
    rb_->icall_names.insert(name);
    DFG* p = declPattern(current_kind_ == rMCALL ? MCALL : ICALL, name, sfs, treps);
    if (p->nopd == 0) fail("ICALL/MCALL has no argument");
    return p;
}

DFG* PARSER::genopPattern(std::vector<int>& sfs, std::vector<TREP*>& treps, bool xop) {
    expect(T_LPAREN, "pattern is not valid");
    expect(T_IDENT, "need a valid operator");
    std::string name = tok_.text;
    int internal = 0;
    for (int op = 0; op < NUM_OPCODES && !internal; ++op)
        if (node_operator_name[op] && name == node_operator_name[op]) internal = op;
    if (xop && internal) fail("xop has the same name as an internal operator");
    rb_->op_names.insert(name);
    return declPattern(DFG_TARGET, name, sfs, treps);
}

DFG* PARSER::xopPattern(std::vector<int>& sfs, std::vector<TREP*>& treps) { return genopPattern(sfs, treps, true); }

DFG* PARSER::declPattern(int op, const std::string& name, std::vector<int>& sfs, std::vector<TREP*>& treps) {
    DFG* d = rb_->new_dfg();
    d->op = op;
    d->name = name;
    d->line = tok_.line;
    expect(T_COLON, "need a colon");
    treps = trep();
    d->trep = treps.front();
    sfs = simdFactor();
    int icon_parms = 0;
    bool any_parm = false;
    while (!tok_.getToken(T_RPAREN)) {
        if (d->nopd == 3) fail("pattern is not valid");
        DFG* o = nullptr;
        if (tok_.getToken(T_LPAREN)) {
            tok_.returnToken();
            std::vector<int> s2;
            std::vector<TREP*> t2;
            expect(T_LPAREN, "pattern is not valid");
            expect(T_IDENT, "need a valid operator");
            int op2 = operator_code(tok_.text, false);
            if (op2 == 0) fail("need a valid operator");
            o = declPattern(op2, op2 == DFG_TARGET || op2 == ICALL ? tok_.text : "", s2, t2);
            if (s2.size() > 1 || t2.size() > 1) fail("don't know how to generate multiple decls");
            any_parm = true;
        } else if (tok_.getToken(T_LBRACE)) {
            tok_.returnToken();
            o = rb_->new_dfg();
            o->op = DFG_SSV;
            o->ssv = ssv();
        } else if (tok_.getToken(T_PARMNAME)) {
            tok_.returnToken();
            o = declParameter();
            any_parm = true;
            if (o->flags & (DFG_ICON_SIGNED | DFG_ICON_UNSIGNED)) ++icon_parms;
        } else {
            o = literal();
        }
        opd_pos(d, o);
    }
    if (icon_parms > 0 && sfs.size() > 1) fail("cannot handle multiple ICONs and simd factors");
    if (icon_parms > 0 && d->trep && d->trep->kind == 'x') fail("cannot handle vectorized ICONs");
    if ((op == ICALL || op == MCALL || op == DFG_TARGET) && d->trep && d->trep->kind == 'x' && !any_parm)
        fail("at least one operand must be 'x' kind too");
    return d;
}

DFG* PARSER::declParameter() {
    expect(T_PARMNAME, "need two parmnames");
    DFG* p = parm_node(tok_.text[0]);
    if (tok_.getToken(T_COLON)) declParmIcon(p);
    return p;
}

void PARSER::declParmIcon(DFG* parm) {
    expect(T_IDENT, "incorrect ICON type");
    if (tok_.text == "s") parm->flags |= DFG_ICON_SIGNED;
    else if (tok_.text == "u") parm->flags |= DFG_ICON_UNSIGNED;
    else fail("incorrect ICON type");
    if (tok_.getToken(T_LBRACKET)) {
        long long lo = integer("a need constant (ICON/FCON/SCON)");
        expect(T_DOTDOT, "a need constant (ICON/FCON/SCON)");
        long long hi = integer("a need constant (ICON/FCON/SCON)");
        expect(T_RBRACKET, "a need constant (ICON/FCON/SCON)");
        if (lo > hi) fail("incorrect ICON type");
        parm->lo = INT65(lo);
        parm->hi = INT65(hi);
        parm->flags |= DFG_ICON_RANGE;
    }
}

std::vector<TREP*> PARSER::trep() {
    expect(T_TREP, "invalid ssv: no trep or inconsistent treps");
    std::string t = tok_.text;
    if (t[0] != 'X') {
        unsigned char kind = static_cast<unsigned char>(std::tolower(static_cast<unsigned char>(t[0])));
        return {find_TREP(kind, std::atoi(t.c_str() + 1), 1)};
    }
    // X, then one container size, a list, or a range {min - max}.
    std::vector<int> sizes;
    if (t.size() > 1) {
        sizes.push_back(std::atoi(t.c_str() + 1));
    } else if (tok_.getToken(T_LPAREN)) {
        while (tok_.getToken(T_INT)) sizes.push_back(static_cast<int>(tok_.aux));
        expect(T_RPAREN, "pattern is not valid");
    } else if (tok_.getToken(T_LBRACE)) {
        long long lo = integer("pattern is not valid");
        expect(T_MINUS, "pattern is not valid");
        long long hi = integer("pattern is not valid");
        expect(T_RBRACE, "pattern is not valid");
        if (lo >= hi) fail("pattern is not valid");
        for (long long s = lo; s <= hi; s *= 2) sizes.push_back(static_cast<int>(s));
    } else {
        expect(T_INT, "pattern is not valid");
        sizes.push_back(static_cast<int>(tok_.aux));
    }
    std::vector<TREP*> out;
    for (int s : sizes) {
        if (s <= 1 || !is_trep_width(s)) fail("pattern is not valid");
        out.push_back(find_TREP('x', s, 1));
    }
    if (out.empty()) fail("pattern is not valid");
    return out;
}

std::vector<int> PARSER::simdFactor() {
    std::vector<int> out;
    while (tok_.getToken(T_LBRACKET)) {
        long long n = integer("a need constant (ICON/FCON/SCON)");
        if (n <= 0) fail("a need constant (ICON/FCON/SCON)");
        expect(T_RBRACKET, "a need constant (ICON/FCON/SCON)");
        out.push_back(static_cast<int>(n));
    }
    return out;
}

void PARSER::clauses(DECL_RULE& proto, const DFG* pattern) {
    if (tok_.getToken(T_HOLDS)) holds(proto.bif, pattern);
    if (tok_.getToken(T_FUNITS)) funcUnits(proto);
    if (tok_.getToken(T_COST)) costs(proto);
    if (tok_.getToken(T_LATENCY)) latency(proto);
    if (tok_.getToken(T_SPACE)) space(proto);
    constraint(proto.constraint);
}

void PARSER::holds(MD_BIF& bif, const DFG* pattern) {
    expect(T_LPAREN, "invalid holds flag");
    if (tok_.getToken(T_INT)) {
        tok_.returnToken();
        numeric_holds(bif, pattern);
        return;
    }
    do {
        holds_flag(bif);
    } while (tok_.getToken(T_ANDAND));
    expect(T_RPAREN, "invalid holds flag");
}

// The form a rule base prints: "(flags must-not-cse maxval=v minval=v)",
// the flag word and the operand mask as numbers.  The operands that commute
// are the pattern's first two parameters.
void PARSER::numeric_holds(MD_BIF& bif, const DFG* pattern) {
    expect(T_INT, "invalid holds flag");
    bif.flags = static_cast<unsigned long>(tok_.aux);
    expect(T_INT, "invalid holds flag");
    bif.opds_must_not_cse = static_cast<unsigned>(tok_.aux);
    for (const char* bound : {"maxval", "minval"}) {
        expect(T_IDENT, "invalid holds flag");
        if (tok_.text != bound) fail("unknown holds flag");
        expect(T_ASSIGN, "invalid holds flag");
        (bound[1] == 'a' ? bif.maxval : bif.minval) = INT65(integer("a need constant (ICON/FCON/SCON)"));
    }
    expect(T_RPAREN, "invalid holds flag");
    if (!(bif.flags & HF_OPDS_COMMUTE)) return;
    std::vector<const DFG*> work{pattern};
    while (!work.empty() && !bif.commute_b) {
        const DFG* d = work.back();
        work.pop_back();
        if (!d) continue;
        if (d->is_parm() && d->parm != bif.commute_a) (bif.commute_a ? bif.commute_b : bif.commute_a) = d->parm;
        for (int i = d->nopd - 1; i >= 0; --i) work.push_back(d->opd[i]);
    }
    if (!bif.commute_b) fail("need two parmnames");
}

// One flag of a HOLDS clause; its argument, if it takes one, is read by
// property().
void PARSER::holds_flag(MD_BIF& bif) {
    expect(T_IDENT, "invalid holds flag");
    static const std::pair<const char*, unsigned long> flags[] = {
        {"OPDS_COMMUTE", HF_OPDS_COMMUTE},         {"MAXVAL", HF_MAXVAL},
        {"MINVAL", HF_MINVAL},                     {"RETURNS_1_OR_0", HF_RETURNS_1_OR_0},
        {"OPDS_MUST_NOT_CSE", HF_OPDS_MUST_NOT_CSE}, {"MUST_NOT_CSE", HF_MUST_NOT_CSE},
        {"IS_BARRIER", HF_IS_BARRIER},             {"IS_SIMPLE_VECTOR_OP", HF_IS_SIMPLE_VECTOR_OP},
        {"IS_SELF_ASSOCIATIVE", HF_IS_SELF_ASSOCIATIVE}, {"IS_PROPER_ABSVAL", HF_IS_PROPER_ABSVAL},
        {"IS_PROPER_EXTRACT", HF_IS_PROPER_EXTRACT}, {"IS_PROPER_MINVAL", HF_IS_PROPER_MINVAL},
        {"IS_PROPER_MAXVAL", HF_IS_PROPER_MAXVAL}};
    for (auto& [name, bit] : flags)
        if (tok_.text == name) {
            property(bit, bif);
            bif.flags |= bit;
            return;
        }
    fail("unknown holds flag");
}

// The argument of a HOLDS flag: the two operands that commute, a bound, or
// the operand numbers that must not be eliminated.
void PARSER::property(unsigned long flag, MD_BIF& bif) {
    switch (flag) {
    case HF_OPDS_COMMUTE:
        expect(T_LPAREN, "need two parmnames");
        expect(T_PARMNAME, "need two parmnames");
        bif.commute_a = tok_.text[0];
        expect(T_PARMNAME, "need two parmnames");
        bif.commute_b = tok_.text[0];
        expect(T_RPAREN, "need two parmnames");
        return;
    case HF_MAXVAL:
    case HF_MINVAL: {
        expect(T_LPAREN, "invalid holds flag");
        INT65 v(integer("a need constant (ICON/FCON/SCON)"));
        expect(T_RPAREN, "invalid holds flag");
        bool max = flag == HF_MAXVAL;
        INT65& slot = max ? bif.maxval : bif.minval;
        if ((bif.flags & flag) && slot != v) fail(max ? "inconsistent maximum value" : "inconsistent minimum value");
        slot = v;
        return;
    }
    case HF_OPDS_MUST_NOT_CSE:
        expect(T_LPAREN, "invalid holds flag");
        while (tok_.getToken(T_INT)) bif.opds_must_not_cse |= 1u << (tok_.aux & 31);
        expect(T_RPAREN, "invalid holds flag");
        return;
    default: return;  // a flag without argument
    }
}

void PARSER::funcUnits(DECL_RULE& proto) {
    auto unit = [&]() {
        if (tok_.getToken(T_INT)) {
            if (tok_.aux < 0 || tok_.aux >= static_cast<long long>(rb_->fu_names.size()))
                fail("functional unit index out-of-range");
            proto.funits.push_back(static_cast<int>(tok_.aux));
            return true;
        }
        if (tok_.getToken(T_IDENT)) {
            int i = rb_->fu_index(tok_.text);
            if (i < 0) fail("functional unit name not declared");
            proto.funits.push_back(i);
            return true;
        }
        return false;
    };
    if (tok_.getToken(T_LPAREN)) {
        while (unit()) {
        }
        expect(T_RPAREN, "FUNITS should end up with a )");
        return;
    }
    expect(T_IDENT, "need a FUNIT NAME or ( after FUNITS");
    tok_.returnToken();
    unit();
}

void PARSER::costs(DECL_RULE& proto) { proto.cost = static_cast<int>(integer("need an integer after COST")); }
void PARSER::latency(DECL_RULE& proto) { proto.latency = static_cast<int>(integer("need an integer after LATENCY")); }
void PARSER::space(DECL_RULE& proto) { proto.space = static_cast<int>(integer("need an integer after SPACE")); }

// ---------------------------------------------------------------------------
// Constraints

void PARSER::constraint(CONSTRAINT& c) {
    for (;;) {
        if (tok_.getToken(T_FOR)) {
            targetConstraint(c);
        } else if (tok_.getToken(T_WHEN)) {
            CONSTRAINT_FUNCTION* w = (current_kind_ == rICALL || current_kind_ == rMCALL) ? xopIcallConstraint()
                                                                                          : parameterConstraint();
            c.when = c.when ? rb_->keep(new constraint_and({c.when, w})) : w;
        } else if (tok_.getToken(T_GIVEN)) {
            CONSTRAINT_FUNCTION* g = givenConstraint();
            c.given = c.given ? rb_->keep(new constraint_and({c.given, g})) : g;
        } else {
            return;
        }
    }
}

void PARSER::targetConstraint(CONSTRAINT& c) {
    if (tok_.getToken(T_ALL)) {
        c.targets.clear();
        return;
    }
    expect(T_LPAREN, "target constraint needs a )");
    std::string names;
    while (tok_.getToken(T_IDENT)) {
        bool declared = false;
        for (const std::string& t : rb_->targets) declared |= t == tok_.text;
        if (!declared) fail("not declared in the target line");
        names += (names.empty() ? "" : " ") + tok_.text;
    }
    expect(T_RPAREN, "target constraint needs a )");
    c.targets = names;
}

CONSTRAINT_FUNCTION* PARSER::xopIcallConstraint() { return icallParameterConstraint(); }

// In ICALL and MCALL declarations only IS_FETCH and IS_ICON may be asked.
CONSTRAINT_FUNCTION* PARSER::icallParameterConstraint() {
    CONSTRAINT_FUNCTION* c = parameterConstraint();
    std::vector<CONSTRAINT_FUNCTION*> work{c};
    while (!work.empty()) {
        CONSTRAINT_FUNCTION* t = work.back();
        work.pop_back();
        if (auto* a = dynamic_cast<constraint_and*>(t)) {
            for (CONSTRAINT_FUNCTION* x : a->terms()) work.push_back(x);
            continue;
        }
        if (auto* o = dynamic_cast<constraint_or*>(t)) {
            work.push_back(o->first());
            work.push_back(o->second());
            continue;
        }
        if (auto* n = dynamic_cast<constraint_not*>(t)) {
            work.push_back(n->operand());
            continue;
        }
        auto* pa = dynamic_cast<parm_attribute*>(t);
        bool ok = pa && (std::strcmp(pa->attribute(), "IS_FETCH") == 0 || std::strcmp(pa->attribute(), "IS_ICON") == 0);
        if (!ok) fail("only is_fetch or is_icon is allowed in ICALL/MCALL contraint");
    }
    return c;
}

CONSTRAINT_FUNCTION* PARSER::parameterConstraint() {
    CONSTRAINT_FUNCTION* c = pcExpr();
    if (!c) fail_at_next("need a parameter constraint after WHEN");
    return c;
}

CONSTRAINT_FUNCTION* PARSER::pcExpr() { return joined([this] { return pcProperty(); }); }

// Terms read by `term` joined with && (tighter) and ||; null when a term
// is missing.
CONSTRAINT_FUNCTION* PARSER::joined(const std::function<CONSTRAINT_FUNCTION*()>& term) {
    std::vector<CONSTRAINT_FUNCTION*> conj;
    CONSTRAINT_FUNCTION* left = nullptr;
    for (;;) {
        CONSTRAINT_FUNCTION* t = term();
        if (!t) return nullptr;
        conj.push_back(t);
        if (tok_.getToken(T_ANDAND)) continue;
        CONSTRAINT_FUNCTION* c = conj.size() == 1 ? conj[0] : rb_->keep(new constraint_and(conj));
        conj.clear();
        left = left ? rb_->keep(new constraint_or(left, c)) : c;
        if (tok_.getToken(T_OROR)) continue;
        return left;
    }
}

CONSTRAINT_FUNCTION* PARSER::pcProperty() {
    if (tok_.getToken(T_BANG)) {
        CONSTRAINT_FUNCTION* a = pcProperty();
        if (!a) fail("need a parameter constraint after WHEN");
        return rb_->keep(new constraint_not(a));
    }
    if (tok_.getToken(T_LPAREN)) {
        // (&a - &b) == n, (parameter expression) relop n, or a group.
        if (tok_.getToken(T_AMP)) {
            tok_.returnToken();
            return parmAddressRelation();
        }
        int at = tok_.index;
        if (tok_.getToken(T_PARMNAME) && !tok_.getToken(T_DOT)) {
            tok_.seek(at);
            DFG* e = parmExpression();
            if (tok_.getToken(T_RPAREN)) return pcRelation(e);
        }
        tok_.seek(at);
        CONSTRAINT_FUNCTION* inner = pcExpr();
        if (!inner) fail("need a parameter constraint after WHEN");
        expect(T_RPAREN, "need a ) for WHEN-clause");
        return inner;
    }
    int at = tok_.index;
    if (!tok_.getToken(T_PARMNAME)) return nullptr;
    DFG* p = parm_node(tok_.text[0]);
    if (tok_.getToken(T_DOT)) return pcFunction(p);
    if (tok_.getToken(T_RELOP)) {
        tok_.seek(at);
        return parmRelation();
    }
    fail_at_next("need a pc_function after the parm name, or you might want a ( before parm if it is an expression");
}

CONSTRAINT_FUNCTION* PARSER::pcRelation(DFG* left) {
    expect(T_RELOP, "need a known pc_function");
    tokentype rel = tok_.kind();
    if (!tok_.getToken(T_INT) && !tok_.getToken(T_MINUS))
        fail_at_next("currently we only accept ICON for relation operator");
    bool negative = tok_.kind() == T_MINUS;
    if (negative && !tok_.getToken(T_INT)) fail("currently we only accept ICON for relation operator");
    DFG* c = rb_->new_dfg();
    c->op = ICON;
    c->ivalue = INT65(negative ? -tok_.aux : tok_.aux);
    switch (rel) {
    case T_LT: return rb_->keep(new constraint_lt(left, c));
    case T_GT: return rb_->keep(new constraint_gt(left, c));
    case T_LE: return rb_->keep(new constraint_le(left, c));
    case T_GE: return rb_->keep(new constraint_ge(left, c));
    case T_EQ: return rb_->keep(new constraint_eq(left, c));
    default: return rb_->keep(new constraint_neq(left, c));
    }
}

CONSTRAINT_FUNCTION* PARSER::parmRelation() {
    expect(T_PARMNAME, "need two parmnames");
    return pcRelation(parm_node(tok_.text[0]));
}

CONSTRAINT_FUNCTION* PARSER::parmAddressRelation() {
    expect(T_AMP, "need two parmnames");
    expect(T_PARMNAME, "need two parmnames");
    DFG* a = parm_node(tok_.text[0]);
    expect(T_MINUS, "need two parmnames");
    expect(T_AMP, "need two parmnames");
    expect(T_PARMNAME, "need two parmnames");
    DFG* b = parm_node(tok_.text[0]);
    expect(T_RPAREN, "need a ) for WHEN-clause");
    bool equal;
    if (tok_.getToken(T_EQ)) equal = true;
    else if (tok_.getToken(T_NE)) equal = false;
    else {
        fail_at_next("currently we only accept ICON for relation operator");
    }
    long long n = integer("currently we only accept ICON for relation operator");
    return rb_->keep(new constraint_address_difference(a, b, n, equal));
}

// p, or p - q, p + n ... as a small tree of PLUS/MINUS over parameters and
// integers.
DFG* PARSER::parmExpression() {
    auto atom = [&]() -> DFG* {
        if (tok_.getToken(T_PARMNAME)) return parm_node(tok_.text[0]);
        if (tok_.getToken(T_INT)) {
            DFG* c = rb_->new_dfg();
            c->op = ICON;
            c->ivalue = INT65(tok_.aux);
            return c;
        }
        fail_at_next("need two parmnames");
    };
    DFG* left = atom();
    while (tok_.getToken(T_MINUS)) {
        DFG* n = rb_->new_dfg();
        n->op = MINUS;
        n->opd[0] = left;
        n->opd[1] = atom();
        n->nopd = 2;
        left = n;
    }
    return left;
}

CONSTRAINT_FUNCTION* PARSER::pcFunction(DFG* parm) {
    expect(T_PCFUNCTION, "unknown pc function");
    std::string f = tok_.text;
    if (f == "STRIDE" || f == "stride") {
        expect(T_LPAREN, "the pc function needs an ICON parameter");
        long long n = integer("the pc function needs an ICON parameter");
        expect(T_RPAREN, "the pc function needs an ICON parameter");
        return rb_->keep(new stride(parm, n));
    }
    if (f == "IS_IV") return rb_->keep(new is_IV(parm));
    if (f == "is_IV") {  // the printed form names the loop, if any
        expect(T_LPAREN, "the pc function needs an ICON parameter");
        std::string loop = tok_.getToken(T_IDENT) ? tok_.text : "";
        expect(T_RPAREN, "the pc function needs an ICON parameter");
        return rb_->keep(new is_IV(parm, loop));
    }
    if (f == "IS_RC") return rb_->keep(new is_RC(parm));
    if (f == "IS_FETCH") return rb_->keep(new is_FETCH(parm));
    if (f == "IS_ICON") return rb_->keep(new is_ICON(parm));
    if (f == "IS_SSV") return rb_->keep(new is_SSV(parm));
    return rb_->keep(new is_power_of_2(parm));
}

CONSTRAINT_FUNCTION* PARSER::givenConstraint() {
    bool endian_seen = false;
    return joined([&]() -> CONSTRAINT_FUNCTION* {
        if (tok_.getToken(T_BANG)) return rb_->keep(new constraint_not(givenFunction(endian_seen)));
        return givenFunction(endian_seen);
    });
}

CONSTRAINT_FUNCTION* PARSER::givenFunction(bool& endian_seen) {
    expect(T_GIVENFUNCTION, "need a known pc_function");
    std::string g = tok_.text;
    if (g == "OPT_LEVEL_AT_LEAST") {
        expect(T_LPAREN, "the pc function needs an ICON parameter");
        long long n = integer("the pc function needs an ICON parameter");
        expect(T_RPAREN, "the pc function needs an ICON parameter");
        return rb_->keep(new opt_level_at_least(static_cast<int>(n)));
    }
    if (g == "BIG_ENDIAN" || g == "LITTLE_ENDIAN") {
        if (endian_seen) fail("an endian constraint has been specified before");
        endian_seen = true;
    }
    return rb_->keep(make_state_inquiry(g));
}

// ---------------------------------------------------------------------------
// Rewrite rules

std::vector<DECL_RULE*> PARSER::rewriteRules() {
    DECL_RULE* r = nullptr;
    if (tok_.getToken(T_SIMPLIFY)) r = simplifyRule();
    else if (tok_.getToken(T_SIMD)) r = simdRule();
    else if (tok_.getToken(T_COMBINE)) r = combineRule();
    if (!r) return {};
    rb_->owned_rules.push_back(r);
    return {r};
}

DECL_RULE* PARSER::simplifyRule() {
    current_kind_ = rSIMPLIFY;
    auto r = std::make_unique<DECL_RULE>();
    r->kind = rSIMPLIFY;
    r->line = tok_.line;
    r->pattern = pattern();
    if (r->pattern->op == DFG_REDUCE) fail("simplifing a reduce is not allowed");
    expect(T_AS, "need the keyword AS in simplify-rule");
    r->templt = templt();
    constraint(r->constraint);
    r->sf = r->pattern->sf;
    return r.release();
}

DECL_RULE* PARSER::simdRule() {
    current_kind_ = rSIMD;
    auto r = std::make_unique<DECL_RULE>();
    r->kind = rSIMD;
    r->line = tok_.line;
    r->pattern = pattern();
    expect(T_AS, "need the keyword AS in simd-rule");
    std::vector<DFG*> templates{templt()};
    while (tok_.getToken(T_LPAREN)) {
        tok_.returnToken();
        templates.push_back(templt());
    }
    if (templates.size() > 1) fail("don't know how to generate multiple templates");
    r->templt = templates[0];
    // A HOIST part goes with a SINK part.
    if (tok_.getToken(T_HOIST)) {
        r->hoist = hoist();
        expect(T_SINK, "need the keyword SINK in simd-rule");
        r->sink = sink();
    } else if (tok_.getToken(T_SINK)) {
        r->sink = sink();
    }
    constraint(r->constraint);
    r->sf = r->templt->sf;
    return r.release();
}

DECL_RULE* PARSER::combineRule() {
    current_kind_ = rCOMBINE;
    auto r = std::make_unique<DECL_RULE>();
    r->kind = rCOMBINE;
    r->line = tok_.line;
    r->pattern = pattern();
    expect(T_AS, "need the keyword AS in combine-rule");
    r->templt = templt();
    expect(T_WITH, "need the keyword WITH in combine-rule");
    r->pattern2 = pattern();
    expect(T_AS, "need the keyword AS in combine-rule");
    r->templt2 = templt();
    // Every parameter of the second template must come from the WITH pattern.
    std::set<char> with;
    std::vector<const DFG*> work{r->pattern2};
    while (!work.empty()) {
        const DFG* d = work.back();
        work.pop_back();
        if (!d) continue;
        if (d->op == DFG_PARM) with.insert(d->parm);
        for (int i = 0; i < d->nopd; ++i) work.push_back(d->opd[i]);
    }
    work = {r->templt2};
    while (!work.empty()) {
        const DFG* d = work.back();
        work.pop_back();
        if (!d) continue;
        if (d->op == DFG_PARM && !with.count(d->parm)) fail("template is not valid");
        for (int i = 0; i < d->nopd; ++i) work.push_back(d->opd[i]);
    }
    constraint(r->constraint);
    r->sf = r->pattern->sf;
    return r.release();
}

DFG* PARSER::pattern() {
    DFG* p = unlabeledTree();
    if (!p || p->op == DFG_PARM) fail("pattern is not valid");
    return p;
}

DFG* PARSER::templt() {
    DFG* t = ruleOperand();
    if (!t) fail_at_next("template is not valid");
    return t;
}

DFG* PARSER::hoist() {
    DFG* t = templt();
    if (t->op != DFG_DEF && t->op != DFG_VDEF) fail("HOIST needs a DEF or VDEF");
    return t;
}

DFG* PARSER::sink() {
    DFG* t = templt();
    if (t->op != DFG_DEF && t->op != DFG_VDEF) fail("SINK needs a DEF or VDEF");
    return t;
}

// ( typed-operator operands )
DFG* PARSER::unlabeledTree() {
    if (!tok_.getToken(T_LPAREN)) return nullptr;
    DFG* d = typedOperator();
    while (!tok_.getToken(T_RPAREN)) {
        DFG* o = ruleOperand();
        if (!o) fail_at_next("pattern is not valid");
        if (d->nopd == 3) fail("pattern is not valid");
        opd_pos(d, o);
    }
    int want = d->op >= 0 && d->op < NUM_OPCODES ? number_of_operands[d->op] : 255;
    if (want != 255 && d->op != DFG_TARGET && d->op != ICALL && d->op != MCALL && d->op != DFG_SSV &&
        want != d->nopd)
        fail("pattern is not valid");
    return d;
}

DFG* PARSER::typedOperator() {
    DFG* d = rb_->new_dfg();
    d->line = tok_.line;
    if (tok_.getToken(T_REDUCE)) {
        d->op = DFG_REDUCE;
        d->ssv = ssv();
        if (!d->ssv) fail("need a SSV after REDUCE or DFG op");
        return d;
    }
    expect(T_IDENT, "need a valid operator");
    d->op = operator_code(tok_.text, true);
    if (d->op == 0) fail("need a valid operator");
    if (d->op == DFG_TARGET || d->op == ICALL || d->op == MCALL) d->name = tok_.text;
    if (tok_.getToken(T_COLON)) {
        std::vector<TREP*> t = trep();
        if (t.size() != 1) fail("don't know how to generate multiple templates");
        d->trep = t[0];
    }
    std::vector<int> sfs = simdFactor();
    if (sfs.size() > 1) fail("don't know how to generate multiple templates");
    if (!sfs.empty()) d->sf = sfs[0];
    // Graph operators carry the SSV they stand for.
    if (d->op >= DFG_DEF && d->op != DFG_TARGET && d->op != DFG_PARM && tok_.getToken(T_LBRACE)) {
        tok_.returnToken();
        d->ssv = ssv();
    }
    return d;
}

DFG* PARSER::ruleOperand() {
    int l = label();
    if (l >= 0) {
        DFG* t = unlabeledTree();
        if (!t) fail("illegal labeled tree");
        t->label = l;
        labels_[l] = t;
        return t;
    }
    if (tok_.getToken(T_DOLLAR)) {
        expect(T_LABEL, "need number 0-9");
        auto it = labels_.find(static_cast<int>(tok_.aux));
        if (it == labels_.end()) fail("the label tree is not defined");
        return it->second;
    }
    return operand();
}

// A label: a number followed by a colon; it must be one digit.
int PARSER::label() {
    int at = tok_.index;
    if (tok_.getToken(T_INT)) {
        std::string digits = tok_.text;
        if (tok_.getToken(T_COLON)) {
            if (digits.size() != 1) fail("need number 0-9");
            return digits[0] - '0';
        }
    }
    tok_.seek(at);
    return -1;
}

DFG* PARSER::operand() {
    if (DFG* t = unlabeledTree()) return t;
    if (tok_.getToken(T_LBRACE)) {
        tok_.returnToken();
        DFG* s = rb_->new_dfg();
        s->op = DFG_SSV;
        s->ssv = ssv();
        return s;
    }
    if (DFG* p = ruleParameter()) return p;
    return literal();
}

DFG* PARSER::ruleParameter() {
    if (!tok_.getToken(T_PARMNAME)) return nullptr;
    DFG* p = parm_node(tok_.text[0]);
    if (tok_.getToken(T_COLON)) declParmIcon(p);
    return p;
}

char PARSER::ssv() {
    if (!tok_.getToken(T_LBRACE)) return 0;
    expect(T_SSVNAME, "need a SSV in {}");
    char c = tok_.text[0];
    expect(T_RBRACE, "ssv should be followed by a }");
    return c;
}

DFG* PARSER::literal() { return icons(); }

DFG* PARSER::icons() {
    DFG* c = rb_->new_dfg();
    if (tok_.getToken(T_MINUS)) {
        if (tok_.getToken(T_INT)) {
            c->op = ICON;
            c->ivalue = INT65(-tok_.aux);
            return c;
        }
        if (tok_.getToken(T_FLOAT)) {
            c->op = FCON;
            c->text = "-" + tok_.text;
            return c;
        }
    } else if (tok_.getToken(T_INT)) {
        c->op = ICON;
        c->ivalue = INT65(tok_.aux);
        return c;
    } else if (tok_.getToken(T_FLOAT)) {
        c->op = FCON;
        c->text = tok_.text;
        return c;
    } else if (tok_.getToken(T_STRING)) {
        c->op = SCON;
        c->text = tok_.text;
        return c;
    }
    fail_at_next("a need constant (ICON/FCON/SCON)");
}

void PARSER::opd_pos(DFG* parent, DFG* child) {
    parent->opd[parent->nopd++] = child;
    if (child->op != DFG_PARM) child->parent = parent;
}

// ---------------------------------------------------------------------------
// Entry points

extern const MD_TOKEN md_tokens[];  // the compiled-in description

RULE_BASE* parse_md_tokens(const MD_TOKEN* tokens, bool prune, std::string* error) {
    PARSER parser(tokens);
    try {
        return parser.parse(prune);
    } catch (FAIL& f) {
        if (error)
            *error = f.message + " MD file syntax error at line " + std::to_string(f.line) + ": when parsing " + f.text +
                     ", " + f.message;
        return nullptr;
    }
}

void parse_md_file(bool prune) {
    FILE* md_out = nullptr;
    if (pass_debug_parser) {
        md_out = std::fopen("md.out", "w");
        if (!md_out) {
            std::fputs("Oops, we failed to open md.out\n", stdout);
            return;
        }
    }
    std::string error;
    RULE_BASE* rb = parse_md_tokens(md_tokens, prune, &error);
    if (!rb) {
        if (md_out) std::fclose(md_out);
        std::printf("%s\nParse Failed!\n", error.c_str());
        std::fflush(stdout);
        abort_optimizer();
    }
    md_rule_base = rb;
    if (md_out) {
        rb->print(md_out);
        std::fclose(md_out);
    }
    if (print_debug) std::fprintf(stderr, "Parse succeeded!  (SIMD %s)\n", opt_level() >= 2 ? "active" : "disabled");
}
