// The rule base as generated C++ source, and the constructors that source
// uses to build the compiled-in rule base.
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "OPT5/md_rules.h"
#include "OPT5/opcodes.h"

namespace {
INT65 int65_of(const char* text) {
    INT65 v;
    if (text && *text) INT65::parse(text, v);
    return v;
}
}  // namespace

DFG::DFG(int o, const char* n, TREP* t, int factor, DFG* a, DFG* b, DFG* c, int count, char p, char s, int l,
         const char* iv, const char* low, const char* high, const char* txt, unsigned f, int ln)
    : op(o), name(n), trep(t), sf(factor), nopd(count), parm(p), ssv(s), label(l), ivalue(int65_of(iv)),
      lo(int65_of(low)), hi(int65_of(high)), text(txt), flags(f), line(ln) {
    opd[0] = a;
    opd[1] = b;
    opd[2] = c;
}

MD_BIF::MD_BIF(unsigned long f, unsigned opds, const char* max, const char* min, char ca, char cb, const char* bif)
    : flags(f), opds_must_not_cse(opds), maxval(int65_of(max)), minval(int65_of(min)), commute_a(ca), commute_b(cb),
      bif_name(bif) {}

DECL_RULE::DECL_RULE(declruletype k, DFG* p, DFG* t, int c, int l, int s, const MD_BIF& b, const CONSTRAINT& con,
                     int ln, int factor, const int* units, int nunits)
    : kind(k), pattern(p), templt(t), cost(c), latency(l), space(s), bif(b), constraint(con), line(ln), sf(factor),
      funits(units, units + nunits) {}

DECL_RULE::DECL_RULE(declruletype k, DFG* p, DFG* t, int c, int l, int s, const MD_BIF& b, const CONSTRAINT& con,
                     int ln, int factor, const int* units, int nunits, DFG* p2, DFG* t2, DFG* h, DFG* sk)
    : DECL_RULE(k, p, t, c, l, s, b, con, ln, factor, units, nunits) {
    pattern2 = p2;
    templt2 = t2;
    hoist = h;
    sink = sk;
}

RULE_BASE::RULE_BASE(const char* n, const char* tgts, DECL_RULE* const* d, DECL_RULE* const* imprecise,
                     DECL_RULE* const* r, int mbe, int tbe, const char* const* fus, size_t fu_count,
                     const char* const* derived, int cost, int lat, int spc)
    : name(n), md_big_endian(mbe != 0), target_big_endian(tbe != 0), default_cost(cost), default_latency(lat),
      default_space(spc), owns_objects(false) {
    targets = blank_separated(tgts);
    for (size_t i = 0; i < fu_count; ++i) fu_names.push_back(fus[i]);
    for (; derived && *derived; ++derived) {
        std::set<unsigned> units;
        for (const std::string& u : blank_separated(*derived)) units.insert(static_cast<unsigned>(std::stoul(u)));
        derived_fu.push_back(units);
    }
    real_fu_count = static_cast<int>(fu_names.size() - derived_fu.size());
    compiled_[0] = d;
    compiled_[1] = imprecise;
    compiled_[2] = r;
}

// The records of the generated source become lists (in their order), and
// the declarations are indexed.  Done once, at run time, so that no static
// object depends on another's construction.
void RULE_BASE::link_compiled_lists() {
    DECL_RULE** heads[3] = {&decls, &imprecise_decls, &rules};
    for (int k = 0; k < 3; ++k) {
        if (!compiled_[k]) continue;
        DECL_RULE* list = nullptr;
        for (DECL_RULE* const* at = compiled_[k]; *at; ++at) list = add_decl_rule(list, *at);
        *heads[k] = rev_declrule_list(list);
        compiled_[k] = nullptr;
    }
    by_op_.clear();
    for (DECL_RULE* r = decls; r; r = r->next) index_decl(r);
    for (DECL_RULE* r = imprecise_decls; r; r = r->next) index_decl(r);
    for (DECL_RULE* list : {decls, imprecise_decls})
        for (DECL_RULE* r = list; r; r = r->next)
            if (r->kind == rICALL || r->kind == rMCALL) icall_names.insert(r->pattern->name);
            else if (r->kind == rOP || r->kind == rXOP) op_names.insert(r->pattern->name);
}

// ---------------------------------------------------------------------------
// Writing the source

namespace {

std::string c_str(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') out += std::string("\\") + static_cast<char>(c);
        else if (c < 32 || c > 126) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\%03o", c);
            out += buf;
        } else out += static_cast<char>(c);
    }
    return out + "\"";
}

std::string c_char(char c) { return c ? "'" + std::string(1, c) + "'" : "0"; }

struct WRITER {
    FILE* out;
    std::set<const DFG*> done;

    std::string ref(const DFG* d) { return dfg_ref(d); }
    // Children first, so that every static refers only to earlier ones.
    void node(const DFG* d) {
        if (!d || done.count(d)) return;
        done.insert(d);
        for (int i = 0; i < d->nopd; ++i) node(d->opd[i]);
        std::string trep = d->trep ? "find_TREP(" + std::to_string(d->trep->kind) + ", " + std::to_string(d->trep->bits) +
                                         ", " + std::to_string(d->trep->lanes) + ")"
                                   : "nullptr";
        std::fprintf(out, "DFG %s(%d, %s, %s, %d, %s, %s, %s, %d, %s, %s, %d, %s, %s, %s, %s, %uu, %d);\n",
                     ref(d).c_str() + 1, d->op, c_str(d->name).c_str(), trep.c_str(), d->sf, ref(d->opd[0]).c_str(),
                     ref(d->opd[1]).c_str(), ref(d->opd[2]).c_str(), d->nopd, c_char(d->parm).c_str(),
                     c_char(d->ssv).c_str(), d->label, c_str(d->ivalue.to_string()).c_str(),
                     c_str(d->lo.to_string()).c_str(), c_str(d->hi.to_string()).c_str(), c_str(d->text).c_str(),
                     d->flags, d->line);
    }
    // Every node a constraint term refers to: its parameters, and the
    // constants and expressions of comparisons.
    void term_nodes(CONSTRAINT_FUNCTION* t) {
        if (!t) return;
        for (DFG* d : t->get_dfg_list()) node(d);
        if (auto* r = dynamic_cast<relop_constraint*>(t)) {
            node(r->left());
            node(r->right());
        } else if (auto* a = dynamic_cast<constraint_and*>(t)) {
            for (CONSTRAINT_FUNCTION* x : a->terms()) term_nodes(x);
        } else if (auto* o = dynamic_cast<constraint_or*>(t)) {
            term_nodes(o->first());
            term_nodes(o->second());
        } else if (auto* n = dynamic_cast<constraint_not*>(t)) {
            term_nodes(n->operand());
        }
    }
};

bool write_file(const std::string& path, const std::function<void(FILE*)>& body) {
    std::string tmp = path + ".tmp";
    FILE* f = std::fopen(tmp.c_str(), "w");
    if (!f) return false;
    body(f);
    bool ok = !std::ferror(f);
    if (std::fclose(f) != 0) ok = false;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        return false;
    }
    return true;
}

}  // namespace

bool RULE_BASE::dump(const std::string& dir) {
    reset_dfg_refs();
    const char* files[3] = {"md_decls", "md_imprecise_decls", "md_rules"};
    DECL_RULE* lists[3] = {decls, imprecise_decls, rules};
    int serial = 0;
    std::vector<std::string> list_names;
    for (int k = 0; k < 3; ++k) {
        std::string array = std::string(files[k]) + "_list";
        list_names.push_back(array);
        bool ok = write_file(dir + "/" + files[k] + ".cpp", [&](FILE* out) {
            std::fprintf(out, "// Generated from the \"%s\" machine description; do not edit.\n", name.c_str());
            std::fputs("#include \"OPT5/md_rules.h\"\n#include \"OPT5/opcodes.h\"\n\nnamespace {\n", out);
            WRITER w{out, {}};
            std::vector<std::string> names;
            for (DECL_RULE* r = lists[k]; r; r = r->next) {
                std::string id = std::to_string(++serial);
                for (DFG* d : {r->pattern, r->templt, r->pattern2, r->templt2, r->hoist, r->sink}) w.node(d);
                // Relational terms compare with a constant node of their own.
                w.term_nodes(r->constraint.when);
                w.term_nodes(r->constraint.given);
                std::fprintf(out, "static MD_BIF bif_%s(0x%lx, 0x%x, %s, %s, %s, %s, %s);\n", id.c_str(), r->bif.flags,
                             r->bif.opds_must_not_cse, c_str(r->bif.maxval.to_string()).c_str(),
                             c_str(r->bif.minval.to_string()).c_str(), c_char(r->bif.commute_a).c_str(),
                             c_char(r->bif.commute_b).c_str(), c_str(r->bif.bif_name).c_str());
                std::fprintf(out, "static CONSTRAINT con_%s(%s, ", id.c_str(), c_str(r->constraint.targets).c_str());
                if (r->constraint.when) r->constraint.when->dump(out);
                else std::fputs("nullptr", out);
                std::fputs(", ", out);
                if (r->constraint.given) r->constraint.given->dump(out);
                else std::fputs("nullptr", out);
                std::fputs(");\n", out);
                std::string units = "nullptr";
                if (!r->funits.empty()) {
                    units = "units_" + id;
                    std::fprintf(out, "const int %s[] = {", units.c_str());
                    for (size_t i = 0; i < r->funits.size(); ++i) std::fprintf(out, i ? ", %d" : "%d", r->funits[i]);
                    std::fputs("};\n", out);
                }
                std::fprintf(out, "DECL_RULE dr_%s((declruletype)%d, %s, %s, %d, %d, %d, %s, %s, %d, %d, %s, %d",
                             id.c_str(), static_cast<int>(r->kind), w.ref(r->pattern).c_str(), w.ref(r->templt).c_str(),
                             r->cost, r->latency, r->space, ("bif_" + id).c_str(), ("con_" + id).c_str(), r->line,
                             r->sf, units.c_str(), static_cast<int>(r->funits.size()));
                if (r->pattern2 || r->templt2 || r->hoist || r->sink)
                    std::fprintf(out, ", %s, %s, %s, %s", w.ref(r->pattern2).c_str(), w.ref(r->templt2).c_str(),
                                 w.ref(r->hoist).c_str(), w.ref(r->sink).c_str());
                std::fputs(");\n", out);
                names.push_back("&dr_" + id);
            }
            std::fputs("}  // namespace\n\n", out);
            std::fprintf(out, "extern DECL_RULE* const %s[];\nDECL_RULE* const %s[] = {", array.c_str(), array.c_str());
            for (const std::string& n : names) std::fprintf(out, "%s, ", n.c_str());
            std::fputs("nullptr};\n", out);
        });
        if (!ok) return false;
    }
    return write_file(dir + "/md_rule_base.cpp", [&](FILE* out) {
        std::fprintf(out, "// Generated from the \"%s\" machine description; do not edit.\n", name.c_str());
        std::fputs("#include \"OPT5/md_rules.h\"\n\n", out);
        for (const std::string& a : list_names) std::fprintf(out, "extern DECL_RULE* const %s[];\n", a.c_str());
        std::fputs("\nnamespace {\nconst char* const fu_names[] = {", out);
        for (const std::string& f : fu_names) std::fprintf(out, "%s, ", c_str(f).c_str());
        std::fputs("nullptr};\nconst char* const derived_units[] = {", out);
        for (const std::set<unsigned>& d : derived_fu) {
            std::string u;
            for (unsigned x : d) u += (u.empty() ? "" : " ") + std::to_string(x);
            std::fprintf(out, "%s, ", c_str(u).c_str());
        }
        std::string tg;
        for (const std::string& t : targets) tg += (tg.empty() ? "" : " ") + t;
        std::fputs("nullptr};\n}  // namespace\n\n", out);
        std::fprintf(out, "RULE_BASE rule_base(%s, %s, %s, %s, %s, %d, %d, %s, %zu, %s, %d, %d, %d);\n",
                     c_str(name).c_str(), c_str(tg).c_str(), list_names[0].c_str(), list_names[1].c_str(),
                     list_names[2].c_str(), md_big_endian ? 1 : 0, target_big_endian ? 1 : 0, "fu_names",
                     fu_names.size(), "derived_units", default_cost, default_latency, default_space);
        std::fputs("\nRULE_BASE* compiled_rule_base() { return &rule_base; }\n", out);
    });
}
