// The rule base: type representations, graph helpers, constraint terms, the
// declaration and rule lists, lookups, cost queries and printing.
#include "OPT5/md_rules.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <functional>
#include <memory>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/abort.h"
#include "OPT5/cmdline.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "TYPES/type_pkg.h"

namespace {
const char THIS_MODULE[] = "OPT5/md_rules";
}

RULE_BASE* md_rule_base = nullptr;

// ---------------------------------------------------------------------------
// Type representations

namespace {
std::vector<std::unique_ptr<TREP>>& trep_table() {
    static std::vector<std::unique_ptr<TREP>> table;
    return table;
}
}  // namespace

std::string TREP::name() const {
    std::string s(1, static_cast<char>(std::toupper(kind)));
    s += std::to_string(bits);
    if (lanes != 1) s += "[" + std::to_string(lanes) + "]";
    return s;
}

TREP* find_TREP(unsigned char kind, int bits, int lanes) {
    for (auto& t : trep_table())
        if (t->kind == kind && t->bits == bits && t->lanes == lanes) return t.get();
    auto t = std::make_unique<TREP>();
    t->kind = kind;
    t->bits = bits;
    t->lanes = lanes;
    trep_table().push_back(std::move(t));
    return trep_table().back().get();
}

unsigned char TREP_kind_for_eType(TYPE* type) {
    if (!type) return 'x';
    TYPE* t = type->stripped();
    if (t->kind == TYPE::FLOAT_T) return 'f';
    if (t->kind == TYPE::PTR_T) return 'p';
    if (t->is_integral()) return t->is_signed() ? 'i' : 'u';
    return 'x';
}

TREP* find_TREP(TYPE* type, int lanes) {
    TYPE* t = type ? type->stripped() : nullptr;
    TREP* r = find_TREP(TREP_kind_for_eType(type), t ? static_cast<int>(t->size) : 0, lanes);
    if (!r->type) r->type = type;
    return r;
}

TYPE* eType_for_TREP_kind_and_size(unsigned char kind, int bits) {
    if (!type_pkg) return nullptr;
    switch (kind) {
    case 'f': return type_pkg->mk_fltpt(bits <= 32 ? TYPE::FK_FLOAT : TYPE::FK_DOUBLE);
    case 'i':
    case 'u': {
        bool s = kind == 'i';
        TYPE::IKIND k = bits <= 16 ? (s ? TYPE::IK_INT : TYPE::IK_UINT)
                        : bits <= 32 ? (s ? TYPE::IK_LONG : TYPE::IK_ULONG)
                                     : (s ? TYPE::IK_LLONG : TYPE::IK_ULLONG);
        return type_pkg->mk_int(k, s);
    }
    default: return nullptr;
    }
}

// ---------------------------------------------------------------------------
// Graphs

bool DFG::is_parm() const { return op == DFG_PARM; }

int DFG::size() const {
    int n = 1;
    for (int i = 0; i < nopd; ++i)
        if (opd[i]) n += opd[i]->size();
    return n;
}

bool lessparm::operator()(const DFG* a, const DFG* b) const {
    if (a->parm != b->parm) return a->parm < b->parm;
    return a < b;
}

namespace {
std::string op_name(const DFG* d) {
    if (d->op == DFG_TARGET || ((d->op == ICALL || d->op == MCALL) && !d->name.empty())) return d->name;
    const char* n = d->op >= 0 && d->op < NUM_OPCODES ? node_operator_name[d->op] : nullptr;
    if (!n) return "OP" + std::to_string(d->op);
    return std::strncmp(n, "DFG_", 4) == 0 ? n + 4 : n;
}
}  // namespace

std::string dfg2prefix(const DFG* d) {
    if (!d) return "";
    if (d->op == DFG_PARM) return "?";
    std::string s = op_name(d);
    for (int i = 0; i < d->nopd; ++i) s += " " + dfg2prefix(d->opd[i]);
    return d->nopd ? "(" + s + ")" : s;
}

std::string dfg_text(const DFG* d) {
    if (!d) return "";
    switch (d->op) {
    case DFG_PARM: {
        std::string s(1, d->parm);
        if (d->flags & (DFG_ICON_SIGNED | DFG_ICON_UNSIGNED)) {
            s += (d->flags & DFG_ICON_SIGNED) ? ":s" : ":u";
            if (d->flags & DFG_ICON_RANGE) s += " [" + d->lo.to_string() + " .. " + d->hi.to_string() + "]";
        }
        return s;
    }
    case ICON: return d->ivalue.to_string();
    case FCON: return d->text;
    case SCON: {
        std::string s = "\"";
        for (char c : d->text) s += (c == '"' || c == '\\') ? std::string("\\") + c : std::string(1, c);
        return s + "\"";
    }
    case DFG_SSV: return std::string("{") + d->ssv + "}";
    default: break;
    }
    std::string s = d->label >= 0 ? std::to_string(d->label) + ":(" : "(";
    s += d->op == DFG_REDUCE ? "REDUCE" : op_name(d);
    if (d->trep) s += " : " + (d->trep->kind == 'x' ? "X" + std::to_string(d->trep->bits) : d->trep->name());
    if (d->sf != 1) s += " [" + std::to_string(d->sf) + "]";
    if (d->ssv) s += std::string(" {") + d->ssv + "}";
    for (int i = 0; i < d->nopd; ++i) s += " " + dfg_text(d->opd[i]);
    return s + ")";
}

// ---------------------------------------------------------------------------
// Constraint terms

namespace {
std::map<const DFG*, int>& dfg_numbers() {
    static std::map<const DFG*, int> numbers;
    return numbers;
}
}  // namespace

void reset_dfg_refs() { dfg_numbers().clear(); }

std::string dfg_ref(const DFG* d) {
    if (!d) return "nullptr";
    auto& numbers = dfg_numbers();
    auto it = numbers.find(d);
    int n = it != numbers.end() ? it->second : (numbers[d] = static_cast<int>(numbers.size()) + 1);
    return "&dfg_" + std::to_string(n);
}

namespace {
// The value a parameter is bound to, when it is an integer constant.
bool bound_icon(DFG* parm, std::map<DFG*, DFG*, lessparm>& b, INT65& v) {
    auto it = b.find(parm);
    if (it == b.end() || !it->second || it->second->op != ICON) return false;
    v = it->second->ivalue;
    return true;
}
bool bound_icon(DFG* parm, std::map<DFG*, NODE*>& b, INT65& v) {
    auto it = b.find(parm);
    if (it == b.end() || !it->second || it->second->opcode != ICON) return false;
    v = it->second->value;
    return true;
}
// The value of a parameter expression under bindings.
template <class B>
bool eval_parm_expr(DFG* e, B& b, INT65& v) {
    if (!e) return false;
    if (e->op == ICON) {
        v = e->ivalue;
        return true;
    }
    if (e->op == DFG_PARM) return bound_icon(e, b, v);
    if (e->op == MINUS && e->nopd == 2) {
        INT65 x, y;
        if (!eval_parm_expr(e->opd[0], b, x) || !eval_parm_expr(e->opd[1], b, y)) return false;
        v = x - y;
        return true;
    }
    return false;
}
DFG* subst(DFG* d, DFG_ALIST* alist) {
    if (!alist) return d;
    for (auto& [from, to] : *alist)
        if (from == d) return to;
    return d;
}
const char* relop_text(int op) {
    switch (op) {
    case LT: return "<";
    case GT: return ">";
    case LE: return "<=";
    case GE: return ">=";
    case EQ: return "==";
    default: return "!=";
    }
}
const char* relop_class(int op) {
    switch (op) {
    case LT: return "constraint_lt";
    case GT: return "constraint_gt";
    case LE: return "constraint_le";
    case GE: return "constraint_ge";
    case EQ: return "constraint_eq";
    default: return "constraint_neq";
    }
}
}  // namespace

bool relop_constraint::holds(INT65 v) const {
    INT65 c = b_->ivalue;
    switch (relop_) {
    case LT: return v < c;
    case GT: return v > c;
    case LE: return v <= c;
    case GE: return v >= c;
    case EQ: return v == c;
    default: return v != c;
    }
}
bool relop_constraint::is_satisfied(std::map<DFG*, DFG*, lessparm>& b) {
    INT65 v;
    return eval_parm_expr(a_, b, v) && holds(v);
}
bool relop_constraint::is_satisfied(std::map<DFG*, NODE*>& b) {
    INT65 v;
    return eval_parm_expr(a_, b, v) && holds(v);
}
bool relop_constraint::compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) {
    auto* o = dynamic_cast<relop_constraint*>(other);
    if (!o || subst(o->a_, alist) != a_ || o->relop_ != relop_) return true;
    return o->b_->ivalue == b_->ivalue;
}
namespace {
// A parameter expression as the description writes it: p, or p - q - 1.
std::string parm_expression_text(const DFG* d) {
    if (d->op == MINUS) return parm_expression_text(d->opd[0]) + " - " + parm_expression_text(d->opd[1]);
    return dfg_text(d);
}
}  // namespace

void relop_constraint::print(FILE* out) {
    std::string left = a_->op == DFG_PARM ? dfg_text(a_) : "(" + parm_expression_text(a_) + ")";
    std::fprintf(out, " %s %s %s ", left.c_str(), relop_text(relop_), b_->ivalue.to_string().c_str());
}
DFG_LIST relop_constraint::get_dfg_list() {
    DFG_LIST out;
    std::vector<DFG*> work{a_};
    while (!work.empty()) {
        DFG* d = work.back();
        work.pop_back();
        if (!d) continue;
        if (d->op == DFG_PARM) out.push_back(d);
        for (int i = 0; i < d->nopd; ++i) work.push_back(d->opd[i]);
    }
    return out;
}
CONSTRAINT_FUNCTION* relop_constraint::copy_and_subst_parms(DFG_ALIST* alist) {
    return new relop_constraint(subst(a_, alist), b_, relop_);
}
void relop_constraint::dump(FILE* out) {
    std::fprintf(out, "new %s(%s, %s)", relop_class(relop_), dfg_ref(a_).c_str(), dfg_ref(b_).c_str());
}

#define MD_RELOP_CTOR(NAME, OP) \
    NAME::NAME(DFG* a, DFG* b) : relop_constraint(a, b, OP) {}
MD_RELOP_CTOR(constraint_lt, LT)
MD_RELOP_CTOR(constraint_gt, GT)
MD_RELOP_CTOR(constraint_le, LE)
MD_RELOP_CTOR(constraint_ge, GE)
MD_RELOP_CTOR(constraint_eq, EQ)
MD_RELOP_CTOR(constraint_neq, NEQ)
#undef MD_RELOP_CTOR

bool parm_attribute::is_satisfied(std::map<DFG*, DFG*, lessparm>& b) {
    auto it = b.find(parm_);
    return it != b.end() && it->second && test(it->second);
}
bool parm_attribute::is_satisfied(std::map<DFG*, NODE*>& b) {
    auto it = b.find(parm_);
    return it != b.end() && it->second && test(it->second);
}
bool parm_attribute::compatible_with(CONSTRAINT_FUNCTION*, DFG_ALIST*) { return true; }
void parm_attribute::print(FILE* out) { std::fprintf(out, " %c.%s ", parm_->parm, name_); }
CONSTRAINT_FUNCTION* parm_attribute::copy_and_subst_parms(DFG_ALIST* alist) {
    DFG* p = subst(parm_, alist);
    if (!std::strcmp(name_, "IS_ICON")) return new is_ICON(p);
    if (!std::strcmp(name_, "IS_RC")) return new is_RC(p);
    if (!std::strcmp(name_, "IS_FETCH")) return new is_FETCH(p);
    if (!std::strcmp(name_, "IS_SSV")) return new is_SSV(p);
    return new is_power_of_2(p);
}
void parm_attribute::dump(FILE* out) {
    std::string cls = !std::strcmp(name_, "IS_ICON")    ? "is_ICON"
                      : !std::strcmp(name_, "IS_RC")    ? "is_RC"
                      : !std::strcmp(name_, "IS_FETCH") ? "is_FETCH"
                      : !std::strcmp(name_, "IS_SSV")   ? "is_SSV"
                                                        : "is_power_of_2";
    std::fprintf(out, "new %s(%s)", cls.c_str(), dfg_ref(parm_).c_str());
}

namespace {
bool dfg_is_power_of_2(INT65 v) {
    if (v.is_negative() || v.is_zero()) return false;
    uint64_t x = v.low_word();
    return (x & (x - 1)) == 0;
}
}  // namespace

is_ICON::is_ICON(DFG* p) : parm_attribute(p, "IS_ICON") {}
bool is_ICON::test(const DFG* d) { return d->op == ICON; }
bool is_ICON::test(const NODE* n) { return n->opcode == ICON; }
is_RC::is_RC(DFG* p) : parm_attribute(p, "IS_RC") {}
bool is_RC::test(const DFG* d) { return d->op == DFG_RCUSE || d->op == DFG_VRCUSE || d->op == DFG_PARM; }
bool is_RC::test(const NODE* n) { return n->opcode == NAME || n->opcode == VREG; }
is_FETCH::is_FETCH(DFG* p) : parm_attribute(p, "IS_FETCH") {}
bool is_FETCH::test(const DFG* d) { return d->op == DFG_FETCH; }
bool is_FETCH::test(const NODE* n) { return n->opcode == UMULT; }
is_SSV::is_SSV(DFG* p) : parm_attribute(p, "IS_SSV") {}
bool is_SSV::test(const DFG* d) { return d->op == DFG_SSV || d->op == DFG_S2V; }
bool is_SSV::test(const NODE*) { return false; }
is_power_of_2::is_power_of_2(DFG* p) : parm_attribute(p, "IS_POWER_OF_2") {}
bool is_power_of_2::test(const DFG* d) { return d->op == ICON && dfg_is_power_of_2(d->ivalue); }
bool is_power_of_2::test(const NODE* n) { return n->opcode == ICON && dfg_is_power_of_2(n->value); }

// Induction variables are known only on the loop's own graph, where the
// bound node is a register-candidate use of the loop's control variable.
bool is_IV::is_satisfied(std::map<DFG*, DFG*, lessparm>& b) {
    auto it = b.find(parm_);
    return it != b.end() && it->second && (it->second->op == DFG_RCUSE || it->second->op == DFG_VRCUSE) &&
           !(it->second->flags & DFG_DO_NOT_VECTORIZE) && it->second->name == "IV";
}
bool is_IV::is_satisfied(std::map<DFG*, NODE*>&) { return false; }
bool is_IV::compatible_with(CONSTRAINT_FUNCTION*, DFG_ALIST*) { return true; }
void is_IV::print(FILE* out) { std::fprintf(out, " %c.is_IV(%s) ", parm_->parm, loop_.c_str()); }
CONSTRAINT_FUNCTION* is_IV::copy_and_subst_parms(DFG_ALIST* alist) { return new is_IV(subst(parm_, alist), loop_); }
void is_IV::dump(FILE* out) { std::fprintf(out, "new is_IV(%s, \"%s\")", dfg_ref(parm_).c_str(), loop_.c_str()); }

bool stride::is_satisfied(std::map<DFG*, DFG*, lessparm>& b) {
    auto it = b.find(parm_);
    return it != b.end() && it->second && it->second->op == DFG_FETCH && it->second->alignment == n_;
}
bool stride::compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) {
    auto* o = dynamic_cast<stride*>(other);
    return !o || subst(o->parm_, alist) != parm_ || o->n_ == n_;
}
void stride::print(FILE* out) { std::fprintf(out, " %c.stride(%lld) ", parm_->parm, n_); }
CONSTRAINT_FUNCTION* stride::copy_and_subst_parms(DFG_ALIST* alist) { return new stride(subst(parm_, alist), n_); }
void stride::dump(FILE* out) { std::fprintf(out, "new stride(%s, %lld)", dfg_ref(parm_).c_str(), n_); }

bool state_inquiry::compatible_with(CONSTRAINT_FUNCTION*, DFG_ALIST*) { return true; }
void state_inquiry::print(FILE* out) { std::fprintf(out, " %s ", name_); }
CONSTRAINT_FUNCTION* state_inquiry::copy_and_subst_parms(DFG_ALIST*) { return make_state_inquiry(name_); }
void state_inquiry::dump(FILE* out) { std::fprintf(out, "make_state_inquiry(\"%s\")", name_); }

namespace {
int goal() { return size_speed_goal(); }
}  // namespace
#define MD_STATE(NAME, TEXT, TEST) \
    NAME::NAME() : state_inquiry(TEXT) {} \
    bool NAME::is_satisfied() { return TEST; }
MD_STATE(big_endian, "BIG_ENDIAN", memory_is_big_endian != 0)
MD_STATE(little_endian, "LITTLE_ENDIAN", memory_is_big_endian == 0)
MD_STATE(prefer_speed_always, "SPEED_PREFERRED_ALWAYS", goal() >= 5)
MD_STATE(prefer_speed_strongly, "SPEED_PREFERRED_STRONGLY", goal() >= 4)
MD_STATE(prefer_speed_weakly, "SPEED_PREFERRED_WEAKLY", goal() >= 3)
MD_STATE(prefer_size_weakly, "SIZE_PREFERRED_WEAKLY", goal() <= 2)
MD_STATE(prefer_size_strongly, "SIZE_PREFERRED_STRONGLY", goal() <= 1)
MD_STATE(prefer_size_always, "SIZE_PREFERRED_ALWAYS", goal() <= 0)
MD_STATE(saturating_add_associative, "SATURATING_ADD_ASSOCIATIVE", false)
MD_STATE(saturating_add_not_associative, "SATURATING_ADD_NOT_ASSOCIATIVE", true)
MD_STATE(fp_add_associative, "FP_ADD_ASSOCIATIVE", strict_fp == 0)
MD_STATE(fp_add_not_associative, "FP_ADD_NOT_ASSOCIATIVE", strict_fp != 0)
#undef MD_STATE

CONSTRAINT_FUNCTION* make_state_inquiry(const std::string& n) {
    if (n == "BIG_ENDIAN") return new big_endian;
    if (n == "LITTLE_ENDIAN") return new little_endian;
    if (n == "SPEED_PREFERRED_ALWAYS") return new prefer_speed_always;
    if (n == "SPEED_PREFERRED_STRONGLY") return new prefer_speed_strongly;
    if (n == "SPEED_PREFERRED_WEAKLY") return new prefer_speed_weakly;
    if (n == "SIZE_PREFERRED_WEAKLY") return new prefer_size_weakly;
    if (n == "SIZE_PREFERRED_STRONGLY") return new prefer_size_strongly;
    if (n == "SIZE_PREFERRED_ALWAYS") return new prefer_size_always;
    if (n == "SATURATING_ADD_ASSOCIATIVE") return new saturating_add_associative;
    if (n == "SATURATING_ADD_NOT_ASSOCIATIVE") return new saturating_add_not_associative;
    if (n == "FP_ADD_ASSOCIATIVE") return new fp_add_associative;
    if (n == "FP_ADD_NOT_ASSOCIATIVE") return new fp_add_not_associative;
    return nullptr;
}

bool opt_level_at_least::is_satisfied() { return opt_level() >= level_; }
bool opt_level_at_least::compatible_with(CONSTRAINT_FUNCTION*, DFG_ALIST*) { return true; }
void opt_level_at_least::print(FILE* out) { std::fprintf(out, " OPT_LEVEL_AT_LEAST(%d) ", level_); }
CONSTRAINT_FUNCTION* opt_level_at_least::copy_and_subst_parms(DFG_ALIST*) { return new opt_level_at_least(level_); }
void opt_level_at_least::dump(FILE* out) { std::fprintf(out, "new opt_level_at_least(%d)", level_); }

bool constraint_and::is_satisfied() {
    for (auto* t : terms_)
        if (!t->is_satisfied()) return false;
    return true;
}
bool constraint_and::is_satisfied(std::map<DFG*, DFG*, lessparm>& b) {
    for (auto* t : terms_)
        if (!t->is_satisfied(b)) return false;
    return true;
}
bool constraint_and::is_satisfied(std::map<DFG*, NODE*>& b) {
    for (auto* t : terms_)
        if (!t->is_satisfied(b)) return false;
    return true;
}
bool constraint_and::compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) {
    for (auto* t : terms_)
        if (!t->compatible_with(other, alist)) return false;
    return true;
}
void constraint_and::print(FILE* out) {
    for (size_t i = 0; i < terms_.size(); ++i) {
        if (i) std::fputs("&&", out);
        terms_[i]->print(out);
    }
}
DFG_LIST constraint_and::get_dfg_list() {
    DFG_LIST out;
    for (auto* t : terms_)
        for (DFG* d : t->get_dfg_list()) out.push_back(d);
    return out;
}
CONSTRAINT_FUNCTION* constraint_and::copy_and_subst_parms(DFG_ALIST* alist) {
    std::vector<CONSTRAINT_FUNCTION*> c;
    for (auto* t : terms_) c.push_back(t->copy_and_subst_parms(alist));
    return new constraint_and(c);
}
void constraint_and::dump(FILE* out) {
    std::fputs("new constraint_and({", out);
    for (size_t i = 0; i < terms_.size(); ++i) {
        if (i) std::fputs(", ", out);
        terms_[i]->dump(out);
    }
    std::fputs("})", out);
}

bool constraint_or::is_satisfied() { return a_->is_satisfied() || b_->is_satisfied(); }
bool constraint_or::is_satisfied(std::map<DFG*, DFG*, lessparm>& b) { return a_->is_satisfied(b) || b_->is_satisfied(b); }
bool constraint_or::is_satisfied(std::map<DFG*, NODE*>& b) { return a_->is_satisfied(b) || b_->is_satisfied(b); }
bool constraint_or::compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) {
    return a_->compatible_with(other, alist) || b_->compatible_with(other, alist);
}
void constraint_or::print(FILE* out) {
    std::fputs(" (", out);
    a_->print(out);
    std::fputs(" || ", out);
    b_->print(out);
    std::fputs(") ", out);
}
DFG_LIST constraint_or::get_dfg_list() {
    DFG_LIST out = a_->get_dfg_list();
    for (DFG* d : b_->get_dfg_list()) out.push_back(d);
    return out;
}
CONSTRAINT_FUNCTION* constraint_or::copy_and_subst_parms(DFG_ALIST* alist) {
    return new constraint_or(a_->copy_and_subst_parms(alist), b_->copy_and_subst_parms(alist));
}
void constraint_or::dump(FILE* out) {
    std::fputs("new constraint_or(", out);
    a_->dump(out);
    std::fputs(", ", out);
    b_->dump(out);
    std::fputs(")", out);
}

bool constraint_not::is_satisfied() { return !a_->is_satisfied(); }
bool constraint_not::is_satisfied(std::map<DFG*, DFG*, lessparm>& b) { return !a_->is_satisfied(b); }
bool constraint_not::is_satisfied(std::map<DFG*, NODE*>& b) { return !a_->is_satisfied(b); }
bool constraint_not::compatible_with(CONSTRAINT_FUNCTION*, DFG_ALIST*) { return true; }
void constraint_not::print(FILE* out) {
    std::fputs(" !", out);
    a_->print(out);
}
CONSTRAINT_FUNCTION* constraint_not::copy_and_subst_parms(DFG_ALIST* alist) {
    return new constraint_not(a_->copy_and_subst_parms(alist));
}
void constraint_not::dump(FILE* out) {
    std::fputs("new constraint_not(", out);
    a_->dump(out);
    std::fputs(")", out);
}

bool constraint_address_difference::is_satisfied(std::map<DFG*, DFG*, lessparm>& b) {
    auto ia = b.find(a_), ib = b.find(b_);
    if (ia == b.end() || ib == b.end() || !ia->second || !ib->second) return false;
    DFG* x = ia->second;
    DFG* y = ib->second;
    // Two fetches through the same base whose offsets are constants.
    if (x->op != DFG_FETCH || y->op != DFG_FETCH || !x->opd[0] || !y->opd[0]) return false;
    auto offset = [](DFG* addr, DFG*& base) -> INT65 {
        if (addr->op == PLUS && addr->opd[1] && addr->opd[1]->op == ICON) {
            base = addr->opd[0];
            return addr->opd[1]->ivalue;
        }
        base = addr;
        return INT65(0);
    };
    DFG *bx, *by;
    INT65 d = offset(x->opd[0], bx) - offset(y->opd[0], by);
    if (dfg2prefix(bx) != dfg2prefix(by) || bx->name != by->name) return false;
    return (d == INT65(diff_)) == equal_;
}
bool constraint_address_difference::compatible_with(CONSTRAINT_FUNCTION*, DFG_ALIST*) { return true; }
void constraint_address_difference::print(FILE* out) {
    std::fprintf(out, " (&%c - &%c) %s %d ", a_->parm, b_->parm, equal_ ? "==" : "!=", static_cast<int>(diff_));
}
CONSTRAINT_FUNCTION* constraint_address_difference::copy_and_subst_parms(DFG_ALIST* alist) {
    return new constraint_address_difference(subst(a_, alist), subst(b_, alist), diff_, equal_);
}
void constraint_address_difference::dump(FILE* out) {
    std::fprintf(out, "new constraint_address_difference(%s, %s, %lld, %s)", dfg_ref(a_).c_str(), dfg_ref(b_).c_str(),
                 diff_, equal_ ? "true" : "false");
}

// ---------------------------------------------------------------------------
// Declarations and rules

const char* declruletype_name(int kind) {
    switch (kind) {
    case rICODE: return "ICODE";
    case rICALL: return "ICALL";
    case rMCALL: return "MCALL";
    case rXOP: return "XOP";
    case rOP: return "OP";
    case rSIMD: return "SIMD";
    case rSIMPLIFY: return "SIMPLIFY";
    case rCOMBINE: return "COMBINE";
    default: return nullptr;
    }
}

DECL_RULE* add_decl_rule(DECL_RULE* list, DECL_RULE* rule) {
    if (!rule) return list;
    rule->next = list;
    return rule;
}

DECL_RULE* rev_declrule_list(DECL_RULE* list) {
    DECL_RULE* out = nullptr;
    while (list) {
        DECL_RULE* next = list->next;
        list->next = out;
        out = list;
        list = next;
    }
    return out;
}

void DECL_RULE::set_rule_simd_factor(int factor) {
    sf = factor;
    if (pattern) pattern->sf = factor;
}

// A vector ICODE on a container trep: its lanes follow from the container
// and the SIMD factor.
void DECL_RULE::rewrite_vector_ICODE() {
    if (kind != rICODE || !pattern || !pattern->trep || pattern->trep->kind != 'x' || sf <= 1) return;
    pattern->trep = find_TREP('x', pattern->trep->bits, sf);
}

RULE_BASE::~RULE_BASE() {
    if (!owns_objects) return;
    for (DFG* d : nodes) delete d;
    for (CONSTRAINT_FUNCTION* c : terms) delete c;
    for (DECL_RULE* r : owned_rules) delete r;
}

DFG* RULE_BASE::new_dfg() {
    DFG* d = new DFG;
    nodes.push_back(d);
    return d;
}

CONSTRAINT_FUNCTION* RULE_BASE::keep(CONSTRAINT_FUNCTION* term) {
    if (term) terms.push_back(term);
    return term;
}

int RULE_BASE::fu_index(const std::string& unit) const {
    for (size_t i = 0; i < fu_names.size(); ++i)
        if (fu_names[i] == unit) return static_cast<int>(i);
    return -1;
}

namespace {
// Declarations are found by operator: OP/XOP and call names, else the opcode.
std::string op_key(const DFG* d) { return d->op == DFG_TARGET || !d->name.empty() ? d->name : std::to_string(d->op); }
}  // namespace

void RULE_BASE::index_decl(DECL_RULE* d) {
    if (d->pattern) by_op_[op_key(d->pattern)].push_back(d);
}

void RULE_BASE::handle_new_decl_rule(DECL_RULE* list) {
    while (list) {
        DECL_RULE* next = list->next;
        list->next = nullptr;
        handle_single_decl_rule(list);
        list = next;
    }
}

// Declarations go to the declaration list (imprecise ones, on an X
// container of any width, to their own), rules to the rule list; OP and XOP
// declarations with a template are rules too.  Lists keep source order.
// Every rule base declares the complex type: a value of two 16-bit parts in
// one 32-bit container, made of its real and imaginary part.  A base that
// declares it already (one printed and parsed again) keeps its own.
void RULE_BASE::add_complex_type_decl() {
    for (DECL_RULE* d = decls; d; d = d->next)
        if (d->pattern && d->pattern->op == COMPLEX) return;
    DFG* pattern = new_dfg();
    pattern->op = COMPLEX;
    pattern->trep = find_TREP('x', 32, 1);
    for (char letter : {'a', 'b'}) {
        DFG* part = new_dfg();
        part->op = DFG_PARM;
        part->parm = letter;
        pattern->opd[pattern->nopd++] = part;
    }
    auto* r = new DECL_RULE;
    owned_rules.push_back(r);
    r->kind = rICODE;
    r->pattern = pattern;
    handle_single_decl_rule(r);
}

void RULE_BASE::handle_single_decl_rule(DECL_RULE* r) {
    auto append = [](DECL_RULE*& list, DECL_RULE* item) {
        DECL_RULE** at = &list;
        while (*at) at = &(*at)->next;
        *at = item;
    };
    switch (r->kind) {
    case rICODE:
    case rICALL:
    case rMCALL:
    case rOP:
    case rXOP:
        r->rewrite_vector_ICODE();
        assign_target_for_declrule(r);
        if (r->pattern && r->pattern->trep && r->pattern->trep->kind == 'x' && r->kind != rICODE)
            append(imprecise_decls, r);
        else
            append(decls, r);
        index_decl(r);
        break;
    case rSIMD:
    case rSIMPLIFY:
    case rCOMBINE:
        assign_target_for_declrule(r);
        append(rules, r);
        break;
    default: optassert("rdlist->kind != rWRAPPER", THIS_MODULE, __LINE__);
    }
}

std::vector<std::string> blank_separated(const std::string& text) {
    std::vector<std::string> words;
    for (size_t at = 0; at < text.size();) {
        size_t sp = text.find(' ', at);
        if (sp == std::string::npos) sp = text.size();
        if (sp > at) words.push_back(text.substr(at, sp - at));
        at = sp + 1;
    }
    return words;
}

bool targets_include_this_version(const std::string& targets) {
    for (const std::string& t : blank_separated(targets))
        if (target_is_this_version(t)) return true;
    return false;
}

void RULE_BASE::assign_target_for_declrule(DECL_RULE* r) {
    if (!r->constraint.targets.empty() && !targets_include_this_version(r->constraint.targets)) r->disqualified = true;
}

bool RULE_BASE::check_one_decl_rule(DECL_RULE* r) {
    if (r->sf == 0) return false;
    if (!r->pattern) return false;
    if ((r->kind == rXOP) && !r->templt) return false;
    if (r->kind == rCOMBINE && (!r->pattern2 || !r->templt2)) return false;
    return true;
}

bool RULE_BASE::validate_decl_rule(DECL_RULE* r) { return check_one_decl_rule(r); }

bool RULE_BASE::validate(bool strict) {
    bool ok = true;
    for (DECL_RULE* list : {decls, imprecise_decls, rules})
        for (DECL_RULE* r = list; r; r = r->next)
            if (!validate_decl_rule(r)) {
                ok = false;
                if (strict) optassert("rdlist->sf != 0", THIS_MODULE, __LINE__);
            }
    return ok;
}

void RULE_BASE::remove_disqualified_decl_rule() {
    for (DECL_RULE** list : {&decls, &imprecise_decls, &rules}) {
        DECL_RULE** at = list;
        while (*at) {
            if ((*at)->disqualified) *at = (*at)->next;
            else at = &(*at)->next;
        }
    }
    by_op_.clear();
    for (DECL_RULE* r = decls; r; r = r->next) index_decl(r);
    for (DECL_RULE* r = imprecise_decls; r; r = r->next) index_decl(r);
}

// Declarations for other targets are never wanted.
void RULE_BASE::filter_unneeded_decl_rule() {
    for (DECL_RULE* list : {decls, imprecise_decls, rules})
        for (DECL_RULE* r = list; r; r = r->next) assign_target_for_declrule(r);
    remove_disqualified_decl_rule();
}

void RULE_BASE::refine_target_and_endianness() { target_big_endian = memory_is_big_endian != 0; }

// Intrinsic calls of the description become known built-in functions.
void RULE_BASE::add_new_icalls_to_BIF() {
    for (DECL_RULE* list : {decls, imprecise_decls})
        for (DECL_RULE* r = list; r; r = r->next)
            if ((r->kind == rICALL || r->kind == rMCALL) && r->pattern) {
                r->bif.bif_name = r->pattern->name;
                icall_names.insert(r->pattern->name);
            }
}

void RULE_BASE::replace_dummy_types_and_treps() {
    for (DFG* d : nodes)
        if (d->trep && !d->trep->type && d->trep->kind != 'x')
            d->trep->type = eType_for_TREP_kind_and_size(d->trep->kind, d->trep->bits);
}

namespace {
bool trep_fits(const TREP* want, const DFG* d, bool exact_sf) {
    if (!want) return true;
    if (!d->trep) return true;
    if (want->kind == 'x') return d->trep->bits * std::max(1, d->sf) == want->bits || !exact_sf;
    return want->kind == d->trep->kind && want->bits == d->trep->bits;
}
}  // namespace

std::vector<DECL_RULE*> RULE_BASE::find_declaration_for_DFG(DFG* dfg, bool exact_sf, bool any_target) {
    std::vector<DECL_RULE*> out;
    if (!dfg) return out;
    auto it = by_op_.find(op_key(dfg));
    if (it == by_op_.end()) return out;
    for (DECL_RULE* d : it->second) {
        if (d->disqualified && !any_target) continue;
        if (d->pattern->trep && d->pattern->trep->kind == 'x' && d->kind != rICODE) continue;  // imprecise
        if (exact_sf && d->sf != dfg->sf) continue;
        if (!trep_fits(d->pattern->trep, dfg, exact_sf)) continue;
        out.push_back(d);
    }
    return out;
}

std::vector<DECL_RULE*> RULE_BASE::find_imprecise_declaration_for_DFG(DFG* dfg) {
    std::vector<DECL_RULE*> out;
    for (DECL_RULE* d = imprecise_decls; d; d = d->next)
        if (d->pattern && (d->pattern->name == dfg->name || d->pattern->op == dfg->op) && d->sf == dfg->sf) out.push_back(d);
    return out;
}

std::vector<DECL_RULE*> RULE_BASE::find_declaration_using_wantrep(DFG* dfg, bool exact_sf, bool any_target) {
    if (!dfg || !dfg->wantRep) return find_declaration_for_DFG(dfg, exact_sf, any_target);
    DFG probe = *dfg;
    probe.trep = dfg->wantRep;
    return find_declaration_for_DFG(&probe, exact_sf, any_target);
}

namespace {
DFG tree_probe(NODE* tree) {
    DFG probe;
    probe.op = tree->opcode;
    if (tree->opcode == ICALL || tree->opcode == UICALL) probe.name = tree->x().text;
    probe.trep = tree->type ? find_TREP(tree->type, 1) : nullptr;
    return probe;
}
}  // namespace

std::vector<DECL_RULE*> RULE_BASE::find_declaration_for_tree(NODE* tree, bool any_target) {
    if (!tree) return {};
    DFG probe = tree_probe(tree);
    return find_declaration_for_DFG(&probe, true, any_target);
}

std::vector<DECL_RULE*> RULE_BASE::find_imprecise_declaration_for_tree(NODE* tree, bool any_target) {
    (void)any_target;
    if (!tree) return {};
    DFG probe = tree_probe(tree);
    return find_imprecise_declaration_for_DFG(&probe);
}

int RULE_BASE::cost_of_dfg_and_children(DFG* d, int depth) {
    if (!d || depth < 0) return 0;
    int c = std::max(0, cost_of_dfg_node(d));
    for (int i = 0; i < d->nopd; ++i) c += cost_of_dfg_and_children(d->opd[i], depth - 1);
    return c;
}
int RULE_BASE::latency_of_dfg_and_children(DFG* d, int depth) {
    if (!d || depth < 0) return 0;
    int c = std::max(0, latency_of_dfg_node(d));
    int worst = 0;
    for (int i = 0; i < d->nopd; ++i) worst = std::max(worst, latency_of_dfg_and_children(d->opd[i], depth - 1));
    return c + worst;
}
int RULE_BASE::space_of_dfg_and_children(DFG* d, int depth) {
    if (!d || depth < 0) return 0;
    int c = std::max(0, space_of_dfg_node(d));
    for (int i = 0; i < d->nopd; ++i) c += space_of_dfg_and_children(d->opd[i], depth - 1);
    return c;
}

// ---------------------------------------------------------------------------
// Printing as description text

namespace {
void print_constraint(FILE* out, const CONSTRAINT& c) {
    if (!c.targets.empty()) std::fprintf(out, " FOR (%s)", c.targets.c_str());
    if (c.when) {
        std::fputs("\n WHEN ", out);
        c.when->print(out);
    }
    if (c.given) {
        std::fputs("\n GIVEN ", out);
        c.given->print(out);
    }
}

// The flag word and the bounds; the operands that commute are the pattern's
// first two parameters.
void print_holds(FILE* out, const MD_BIF& b) {
    if (!b.flags) return;
    std::fprintf(out, " HOLDS (0x%lx 0x%x maxval=%s minval=%s)\n", b.flags, b.opds_must_not_cse,
                 b.maxval.to_string().c_str(), b.minval.to_string().c_str());
}
}  // namespace

void RULE_BASE::print(FILE* out) {
    std::fprintf(out, "OPTIMIZER MACHINE DESCRIPTION : \"%s\"\nTARGETS : (", name.c_str());
    for (const std::string& t : targets) std::fprintf(out, " %s", t.c_str());
    std::fprintf(out, " )\nENDIAN : %s\n", md_big_endian ? "BIG" : "LITTLE");
    std::fprintf(out, "// MD ENDIAN %s, TARGET ENDIAN %s\n", md_big_endian ? "big" : "little",
                 target_big_endian ? "big" : "little");
    if (real_fu_count > 0) {
        std::fputs("FUNCTIONAL UNITS : (", out);
        for (int i = 0; i < real_fu_count; ++i) std::fprintf(out, " %s", fu_names[static_cast<size_t>(i)].c_str());
        std::fputs(" )\n", out);
    }
    if (!derived_fu.empty()) {
        std::fputs("DERIVED FUNCTIONAL UNITS : (", out);
        for (size_t i = 0; i < derived_fu.size(); ++i) {
            std::fprintf(out, " %s (", fu_names[static_cast<size_t>(real_fu_count) + i].c_str());
            for (unsigned u : derived_fu[i]) std::fprintf(out, " %s", fu_names[u].c_str());
            std::fputs(" )", out);
        }
        std::fputs(" )\n", out);
    }
    std::fprintf(out, "DEFAULT COST : %d\nDEFAULT LATENCY : %d\nDEFAULT SPACE : %d\n\n", default_cost, default_latency,
                 default_space);
    auto print_one = [&](DECL_RULE* r) {
        const char* kind = declruletype_name(r->kind);
        if (!kind) {
            std::fprintf(out, "Unknown DECL_RULE type %d\n", static_cast<int>(r->kind));
            return;
        }
        std::fprintf(out, "// line %d\n( %s ", r->line, kind);
        if (!r->pattern) {
            std::fputs("pattern is NULL!\n", out);
            std::fputs(")\n", out);
            return;
        }
        if (r->kind == rCOMBINE) {
            if (!r->templt) std::fputs("template1 of COMBINE RULE is NULL!\n", out);
            if (!r->pattern2) std::fputs("pattern2 of COMBINE RULE is NULL!\n", out);
            if (!r->templt2) std::fputs("template2 of COMBINE RULE is NULL!\n", out);
            std::fprintf(out, "%s AS %s WITH %s AS %s", dfg_text(r->pattern).c_str(), dfg_text(r->templt).c_str(),
                         dfg_text(r->pattern2).c_str(), dfg_text(r->templt2).c_str());
        } else if (r->kind == rSIMD || r->kind == rSIMPLIFY) {
            std::fprintf(out, "%s AS %s", dfg_text(r->pattern).c_str(), dfg_text(r->templt).c_str());
            if (r->hoist) std::fprintf(out, " HOIST %s", dfg_text(r->hoist).c_str());
            if (r->sink) std::fprintf(out, " SINK %s", dfg_text(r->sink).c_str());
        } else {
            std::fputs(dfg_text(r->pattern).c_str(), out);
            if (r->templt) std::fprintf(out, " IS %s", dfg_text(r->templt).c_str());
            print_holds(out, r->bif);
            if (!r->funits.empty()) {
                std::fputs(" FUNITS (", out);
                for (int u : r->funits) std::fprintf(out, " %d", u);
                std::fputs(" )", out);
            }
            if (r->cost >= 0) std::fprintf(out, " COST %d", r->cost);
            if (r->latency >= 0) std::fprintf(out, " LATENCY %d", r->latency);
            if (r->space >= 0) std::fprintf(out, " SPACE %d", r->space);
        }
        print_constraint(out, r->constraint);
        std::fputs(" )\n", out);
    };
    for (DECL_RULE* r = decls; r; r = r->next) print_one(r);
    for (DECL_RULE* r = imprecise_decls; r; r = r->next) print_one(r);
    for (DECL_RULE* r = rules; r; r = r->next) print_one(r);
}

// ---------------------------------------------------------------------------
// Targets and cost queries

// The Pellin family (processor version 28) is the target "BRV".
bool target_is_this_version(const std::string& name) { return name == "BRV" && processor_version == 28; }

namespace {
RULE_BASE* require_rule_base(const char* query) {
    if (!md_rule_base) {
        if (print_debug && FDEBUG) std::fprintf(FDEBUG, "\n md_rule_base is NULL in %s()!! \n", query);
        abort_optimizer();
    }
    return md_rule_base;
}

// The one declaration of a node: null when none; several is an internal error.
DECL_RULE* one_declaration(DFG* dfg, const char* query) {
    RULE_BASE* rb = require_rule_base(query);
    std::vector<DECL_RULE*> found = rb->find_declaration_for_DFG(dfg, true, false);
    if (found.empty()) found = rb->find_imprecise_declaration_for_DFG(dfg);
    if (found.size() > 1) {
        std::string lines = "Multiple declarations at lines";
        for (DECL_RULE* d : found) lines += " " + std::to_string(d->line);
        abort_optimizer(lines.c_str());
    }
    return found.empty() ? nullptr : found[0];
}

int no_declaration(const DFG* dfg) { return dfg->op == ICALL || dfg->op == MCALL ? 1 : -1; }
}  // namespace

int cost_of_dfg_node(DFG* dfg) {
    if (!dfg) return 0;
    DECL_RULE* d = one_declaration(dfg, "cost_of_dfg_node");
    return d ? md_rule_base->cost_of(d) : no_declaration(dfg);
}

int latency_of_dfg_node(DFG* dfg) {
    if (!dfg) return 0;
    DECL_RULE* d = one_declaration(dfg, "latency_of_dfg_node");
    return d ? md_rule_base->latency_of(d) : no_declaration(dfg);
}

int space_of_dfg_node(DFG* dfg) {
    if (!dfg) return 0;
    DECL_RULE* d = one_declaration(dfg, "space_of_dfg_node");
    return d ? md_rule_base->space_of(d) : no_declaration(dfg);
}

std::set<unsigned> map_derivedFUIdx_to_realFU(int index) {
    RULE_BASE* rb = require_rule_base("map_derivedFUIdx_to_realFU");
    if (index < 0) return {};
    if (index < rb->real_fu_count) return {static_cast<unsigned>(index)};
    size_t d = static_cast<size_t>(index - rb->real_fu_count);
    return d < rb->derived_fu.size() ? rb->derived_fu[d] : std::set<unsigned>{};
}

namespace {
// One cycle per unit of latency; each cycle occupies the declared units.
void usage_of(DECL_RULE* d, std::vector<std::pair<int, std::set<unsigned>>>& usage) {
    if (!d) return;
    std::set<unsigned> units;
    for (int u : d->funits)
        for (unsigned r : map_derivedFUIdx_to_realFU(u)) units.insert(r);
    if (!units.empty()) usage.push_back({0, units});
}
}  // namespace

void FU_usage_of_dfg_node(DFG* dfg, std::vector<std::pair<int, std::set<unsigned>>>& usage) {
    usage.clear();
    if (dfg) usage_of(one_declaration(dfg, "FU_usage_of_dfg_node"), usage);
}

void FU_usage_of_tree_node(NODE* tree, bool any_target, std::vector<std::pair<int, std::set<unsigned>>>& usage) {
    usage.clear();
    RULE_BASE* rb = require_rule_base("FU_usage_of_tree_node");
    std::vector<DECL_RULE*> found = rb->find_declaration_for_tree(tree, any_target);
    if (!found.empty()) usage_of(found[0], usage);
}
