// The rule base: what the machine description declares (operations with
// their cost, latency, code space and functional units) and its rewrite
// rules, whose patterns and templates are data-flow graphs.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "XINT/int65.h"

class NODE;
class TYPE;
struct DECL_RULE;

// A machine type representation: kind letter ('i' signed, 'u' unsigned, 'f'
// floating, 'p' pointer, 'x' a container of any elements), element size in
// bits, lanes.  One shared record per combination.
struct TREP {
    unsigned char kind = 'i';
    int bits = 16;
    int lanes = 1;
    TYPE* type = nullptr;
    int bytes() const { return (bits + 15) / 16; }  // in 16-bit units
    std::string name() const;                     // "I16", "X32", "U16[2]"
};
TREP* find_TREP(unsigned char kind, int bits, int lanes);
TREP* find_TREP(TYPE* type, int lanes);
unsigned char TREP_kind_for_eType(TYPE* type);
TYPE* eType_for_TREP_kind_and_size(unsigned char kind, int bits);

// A scalar replicated across the lanes of a vector.
struct SSV {
    char name = 0;
    TREP* trep = nullptr;
};

// Flags of a DFG node.
enum : unsigned { DFG_DO_NOT_VECTORIZE = 1, DFG_ICON_SIGNED = 2, DFG_ICON_UNSIGNED = 4, DFG_ICON_RANGE = 8 };

// One data-flow node.  In rule patterns, parameters are DFG_PARM nodes
// named by a letter.
struct DFG {
    int op = 0;
    std::string name;          // OP/XOP (op DFG_TARGET), ICALL and MCALL names
    TREP* trep = nullptr;
    TREP* wantRep = nullptr;
    int sf = 1;
    DFG* opd[3] = {nullptr, nullptr, nullptr};
    int nopd = 0;
    char parm = 0;             // DFG_PARM: the parameter's letter
    char ssv = 0;              // an SSV operand, or the SSV after REDUCE / a graph operator
    int label = -1;            // a labelled subtree of a rule
    INT65 ivalue, lo, hi;      // ICON value; ICON parameter range
    std::string text;          // FCON and SCON text
    unsigned flags = 0;
    int line = 0;              // line in the description
    DECL_RULE* opdecl = nullptr;
    DFG* parent = nullptr;
    bool aligned = false;
    int alignment = 0;         // of a memory access, in bits (0: not known)
    bool is_volatile = false;  // a memory access to a volatile object

    DFG() = default;
    // The form the generated rule base uses (constants as decimal text).
    DFG(int op, const char* name, TREP* trep, int sf, DFG* a, DFG* b, DFG* c, int nopd, char parm, char ssv, int label,
        const char* ivalue, const char* lo, const char* hi, const char* text, unsigned flags, int line);

    bool is_parm() const;
    int size() const;          // nodes reachable through the operand links
};

using DFG_LIST = std::vector<DFG*>;
using DFG_ALIST = std::vector<std::pair<DFG*, DFG*>>;

// Orders pattern parameters by letter (then address), so that bindings
// list in a stable order.
struct lessparm {
    bool operator()(const DFG* a, const DFG* b) const;
};

// Prefix string of a graph: operator names (and names of OP/XOP/ICALL) in
// prefix order, parameters as '?'.
std::string dfg2prefix(const DFG* dfg);
// Text of a graph as the description writes it.
std::string dfg_text(const DFG* dfg);
// The name ("&dfg_N") under which the generated source refers to a node;
// numbers are given in order of first use since the last reset.
std::string dfg_ref(const DFG* dfg);
void reset_dfg_refs();

// ---------------------------------------------------------------------------
// Constraints

class CONSTRAINT_FUNCTION {
public:
    virtual ~CONSTRAINT_FUNCTION() = default;
    virtual bool is_satisfied() { return true; }
    virtual bool is_satisfied(std::map<DFG*, DFG*, lessparm>& bindings) {
        (void)bindings;
        return true;
    }
    virtual bool is_satisfied(std::map<DFG*, NODE*>& bindings) {
        (void)bindings;
        return true;
    }
    virtual bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) = 0;
    virtual void print(FILE* out) = 0;
    virtual DFG_LIST get_dfg_list() { return {}; }
    virtual CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) = 0;
    virtual void dump(FILE* out) = 0;
    virtual DFG* get_parm() { return nullptr; }
};

// p relop c, or (parameter expression) relop c.
class relop_constraint : public CONSTRAINT_FUNCTION {
public:
    relop_constraint(DFG* a, DFG* b, int relop) : a_(a), b_(b), relop_(relop) {}
    bool is_satisfied(std::map<DFG*, DFG*, lessparm>& bindings) override;
    bool is_satisfied(std::map<DFG*, NODE*>& bindings) override;
    bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) override;
    void print(FILE* out) override;
    DFG_LIST get_dfg_list() override;
    CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) override;
    void dump(FILE* out) override;
    DFG* get_parm() override { return a_; }
    int relop() const { return relop_; }
    DFG* left() const { return a_; }
    DFG* right() const { return b_; }

protected:
    DFG* a_;
    DFG* b_;
    int relop_;  // LT, GT, LE, GE, EQ, NEQ
    bool holds(INT65 v) const;
};
#define MD_RELOP_CLASS(NAME)                                                  \
    class NAME : public relop_constraint {                                    \
    public:                                                                   \
        NAME(DFG* a, DFG* b);                                                 \
    };
MD_RELOP_CLASS(constraint_lt)
MD_RELOP_CLASS(constraint_gt)
MD_RELOP_CLASS(constraint_le)
MD_RELOP_CLASS(constraint_ge)
MD_RELOP_CLASS(constraint_eq)
MD_RELOP_CLASS(constraint_neq)
#undef MD_RELOP_CLASS

// An attribute of the operand bound to one parameter.
class parm_attribute : public CONSTRAINT_FUNCTION {
public:
    parm_attribute(DFG* parm, const char* name) : parm_(parm), name_(name) {}
    bool is_satisfied(std::map<DFG*, DFG*, lessparm>& bindings) override;
    bool is_satisfied(std::map<DFG*, NODE*>& bindings) override;
    bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) override;
    void print(FILE* out) override;
    DFG_LIST get_dfg_list() override { return {parm_}; }
    CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) override;
    void dump(FILE* out) override;
    DFG* get_parm() override { return parm_; }
    const char* attribute() const { return name_; }

protected:
    DFG* parm_;
    const char* name_;  // "IS_ICON", ...
    virtual bool test(const DFG* bound) = 0;
    virtual bool test(const NODE* bound) = 0;
};
#define MD_ATTRIBUTE_CLASS(NAME)                                             \
    class NAME : public parm_attribute {                                     \
    public:                                                                  \
        explicit NAME(DFG* parm);                                            \
                                                                             \
    protected:                                                               \
        bool test(const DFG* bound) override;                                \
        bool test(const NODE* bound) override;                               \
    };
MD_ATTRIBUTE_CLASS(is_ICON)
MD_ATTRIBUTE_CLASS(is_RC)
MD_ATTRIBUTE_CLASS(is_FETCH)
MD_ATTRIBUTE_CLASS(is_SSV)
MD_ATTRIBUTE_CLASS(is_power_of_2)
#undef MD_ATTRIBUTE_CLASS

class is_IV : public CONSTRAINT_FUNCTION {
public:
    explicit is_IV(DFG* parm, std::string loop = "") : parm_(parm), loop_(std::move(loop)) {}
    bool is_satisfied(std::map<DFG*, DFG*, lessparm>& bindings) override;
    bool is_satisfied(std::map<DFG*, NODE*>& bindings) override;
    bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) override;
    void print(FILE* out) override;
    DFG_LIST get_dfg_list() override { return {parm_}; }
    CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) override;
    void dump(FILE* out) override;
    DFG* get_parm() override { return parm_; }

private:
    DFG* parm_;
    std::string loop_;
};

class stride : public CONSTRAINT_FUNCTION {
public:
    stride(DFG* parm, long long n) : parm_(parm), n_(n) {}
    bool is_satisfied(std::map<DFG*, DFG*, lessparm>& bindings) override;
    bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) override;
    void print(FILE* out) override;
    DFG_LIST get_dfg_list() override { return {parm_}; }
    CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) override;
    void dump(FILE* out) override;
    DFG* get_parm() override { return parm_; }

private:
    DFG* parm_;
    long long n_;
};

// A question about the compilation, not about operands.
class state_inquiry : public CONSTRAINT_FUNCTION {
public:
    explicit state_inquiry(const char* name) : name_(name) {}
    bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) override;
    void print(FILE* out) override;
    CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) override;
    void dump(FILE* out) override;
    const char* name() const { return name_; }

protected:
    const char* name_;
};
#define MD_STATE_CLASS(NAME)                                                 \
    class NAME : public state_inquiry {                                      \
    public:                                                                  \
        NAME();                                                              \
        bool is_satisfied() override;                                        \
    };
MD_STATE_CLASS(big_endian)
MD_STATE_CLASS(little_endian)
MD_STATE_CLASS(prefer_speed_always)
MD_STATE_CLASS(prefer_speed_strongly)
MD_STATE_CLASS(prefer_speed_weakly)
MD_STATE_CLASS(prefer_size_weakly)
MD_STATE_CLASS(prefer_size_strongly)
MD_STATE_CLASS(prefer_size_always)
MD_STATE_CLASS(saturating_add_associative)
MD_STATE_CLASS(saturating_add_not_associative)
MD_STATE_CLASS(fp_add_associative)
MD_STATE_CLASS(fp_add_not_associative)
#undef MD_STATE_CLASS
// The state inquiry of a given-function name, or null.
CONSTRAINT_FUNCTION* make_state_inquiry(const std::string& name);

class opt_level_at_least : public CONSTRAINT_FUNCTION {
public:
    explicit opt_level_at_least(int level) : level_(level) {}
    bool is_satisfied() override;
    bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) override;
    void print(FILE* out) override;
    CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) override;
    void dump(FILE* out) override;

private:
    int level_;
};

// Conjunction (a list), disjunction and negation.
class constraint_and : public CONSTRAINT_FUNCTION {
public:
    explicit constraint_and(std::vector<CONSTRAINT_FUNCTION*> terms) : terms_(std::move(terms)) {}
    bool is_satisfied() override;
    bool is_satisfied(std::map<DFG*, DFG*, lessparm>& bindings) override;
    bool is_satisfied(std::map<DFG*, NODE*>& bindings) override;
    bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) override;
    void print(FILE* out) override;
    DFG_LIST get_dfg_list() override;
    CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) override;
    void dump(FILE* out) override;
    const std::vector<CONSTRAINT_FUNCTION*>& terms() const { return terms_; }

private:
    std::vector<CONSTRAINT_FUNCTION*> terms_;
};

class constraint_or : public CONSTRAINT_FUNCTION {
public:
    constraint_or(CONSTRAINT_FUNCTION* a, CONSTRAINT_FUNCTION* b) : a_(a), b_(b) {}
    bool is_satisfied() override;
    bool is_satisfied(std::map<DFG*, DFG*, lessparm>& bindings) override;
    bool is_satisfied(std::map<DFG*, NODE*>& bindings) override;
    bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) override;
    void print(FILE* out) override;
    DFG_LIST get_dfg_list() override;
    CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) override;
    void dump(FILE* out) override;
    CONSTRAINT_FUNCTION* first() const { return a_; }
    CONSTRAINT_FUNCTION* second() const { return b_; }

private:
    CONSTRAINT_FUNCTION* a_;
    CONSTRAINT_FUNCTION* b_;
};

class constraint_not : public CONSTRAINT_FUNCTION {
public:
    explicit constraint_not(CONSTRAINT_FUNCTION* a) : a_(a) {}
    bool is_satisfied() override;
    bool is_satisfied(std::map<DFG*, DFG*, lessparm>& bindings) override;
    bool is_satisfied(std::map<DFG*, NODE*>& bindings) override;
    bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) override;
    void print(FILE* out) override;
    DFG_LIST get_dfg_list() override { return a_->get_dfg_list(); }
    CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) override;
    void dump(FILE* out) override;
    CONSTRAINT_FUNCTION* operand() const { return a_; }

private:
    CONSTRAINT_FUNCTION* a_;
};

class constraint_address_difference : public CONSTRAINT_FUNCTION {
public:
    constraint_address_difference(DFG* a, DFG* b, long long diff, bool equal)
        : a_(a), b_(b), diff_(diff), equal_(equal) {}
    bool is_satisfied(std::map<DFG*, DFG*, lessparm>& bindings) override;
    bool compatible_with(CONSTRAINT_FUNCTION* other, DFG_ALIST* alist) override;
    void print(FILE* out) override;
    DFG_LIST get_dfg_list() override { return {a_, b_}; }
    CONSTRAINT_FUNCTION* copy_and_subst_parms(DFG_ALIST* alist) override;
    void dump(FILE* out) override;

private:
    DFG* a_;
    DFG* b_;
    long long diff_;
    bool equal_;
};

// The constraint of a declaration or rule: targets, WHEN and GIVEN parts.
struct CONSTRAINT {
    std::string targets;  // "" for all targets
    CONSTRAINT_FUNCTION* when = nullptr;
    CONSTRAINT_FUNCTION* given = nullptr;

    CONSTRAINT() = default;
    CONSTRAINT(const char* t, CONSTRAINT_FUNCTION* w, CONSTRAINT_FUNCTION* g) : targets(t), when(w), given(g) {}
};

// Holds flags of a declaration.
enum : unsigned long {
    HF_OPDS_COMMUTE = 1,
    HF_MAXVAL = 2,
    HF_MINVAL = 4,
    HF_RETURNS_1_OR_0 = 8,
    HF_OPDS_MUST_NOT_CSE = 16,
    HF_MUST_NOT_CSE = 32,
    HF_IS_BARRIER = 64,
    HF_IS_SIMPLE_VECTOR_OP = 128,
    HF_IS_SELF_ASSOCIATIVE = 256,
    HF_IS_PROPER_ABSVAL = 512,
    HF_IS_PROPER_EXTRACT = 1024,
    HF_IS_PROPER_MINVAL = 2048,
    HF_IS_PROPER_MAXVAL = 4096,
};

struct MD_BIF {
    unsigned long flags = 0;
    unsigned opds_must_not_cse = 0;  // bit set of operand numbers
    INT65 maxval, minval;
    char commute_a = 0, commute_b = 0;  // OPDS_COMMUTE parameters
    std::string bif_name;               // ICALL/MCALL: the built-in function

    MD_BIF() = default;
    MD_BIF(unsigned long f, unsigned opds, const char* max, const char* min, char ca, char cb, const char* bif);
};

enum declruletype { rICODE = 0, rICALL = 1, rMCALL = 2, rXOP = 3, rOP = 4, rSIMD = 5, rSIMPLIFY = 6, rCOMBINE = 7, rWRAPPER = 8 };
const char* declruletype_name(int kind);

struct DECL_RULE {
    declruletype kind = rICODE;
    DFG* pattern = nullptr;
    DFG* templt = nullptr;
    DFG* pattern2 = nullptr;  // COMBINE
    DFG* templt2 = nullptr;
    DFG* hoist = nullptr;     // SIMD
    DFG* sink = nullptr;
    int cost = -1, latency = -1, space = -1;  // -1: the description's default
    MD_BIF bif;
    CONSTRAINT constraint;
    int line = 0;
    int sf = 1;
    std::vector<int> funits;
    bool disqualified = false;  // by the target checks
    bool self_commuted = false; // a twin made by commuting the pattern's operands
    DECL_RULE* next = nullptr;

    DECL_RULE() = default;
    // The forms the generated rule base uses.
    DECL_RULE(declruletype k, DFG* p, DFG* t, int c, int l, int s, const MD_BIF& b, const CONSTRAINT& con, int ln,
              int factor, const int* units, int nunits);
    DECL_RULE(declruletype k, DFG* p, DFG* t, int c, int l, int s, const MD_BIF& b, const CONSTRAINT& con, int ln,
              int factor, const int* units, int nunits, DFG* p2, DFG* t2, DFG* h, DFG* sk);

    void set_rule_simd_factor(int factor);
    void rewrite_vector_ICODE();
};
DECL_RULE* add_decl_rule(DECL_RULE* list, DECL_RULE* rule);
DECL_RULE* rev_declrule_list(DECL_RULE* list);

class RULE_BASE {
public:
    RULE_BASE() = default;
    // The compiled-in rule base: null-terminated arrays of its records,
    // linked into lists by link_compiled_lists() at start-up.
    RULE_BASE(const char* name, const char* targets, DECL_RULE* const* decls, DECL_RULE* const* imprecise,
              DECL_RULE* const* rules, int md_big_endian, int target_big_endian, const char* const* fu_names,
              size_t fu_count, const char* const* derived, int cost, int latency, int space);
    void link_compiled_lists();
    RULE_BASE(const RULE_BASE&) = delete;
    RULE_BASE& operator=(const RULE_BASE&) = delete;
    ~RULE_BASE();

    std::string name;
    std::vector<std::string> targets;
    bool md_big_endian = false;
    bool target_big_endian = false;
    std::vector<std::string> fu_names;  // real units, then derived ones
    int real_fu_count = 0;
    std::vector<std::set<unsigned>> derived_fu;  // for each derived unit its real units
    int default_cost = 1, default_latency = 1, default_space = 1;
    DECL_RULE* decls = nullptr;
    DECL_RULE* imprecise_decls = nullptr;
    DECL_RULE* rules = nullptr;
    std::vector<DFG*> nodes;  // every pattern and template node (owned unless static)
    std::vector<CONSTRAINT_FUNCTION*> terms;  // owned constraint terms
    std::vector<DECL_RULE*> owned_rules;
    std::set<std::string> op_names;   // declared OP/XOP operators
    std::set<std::string> icall_names;
    bool owns_objects = true;         // false for the compiled-in rule base

    DFG* new_dfg();
    CONSTRAINT_FUNCTION* keep(CONSTRAINT_FUNCTION* term);

    void handle_new_decl_rule(DECL_RULE* list);
    void handle_single_decl_rule(DECL_RULE* rule);
    bool validate(bool strict);
    bool validate_decl_rule(DECL_RULE* rule);
    bool check_one_decl_rule(DECL_RULE* rule);
    void remove_disqualified_decl_rule();
    void filter_unneeded_decl_rule();
    void refine_target_and_endianness();
    void assign_target_for_declrule(DECL_RULE* rule);
    void add_new_icalls_to_BIF();
    void add_complex_type_decl();
    void replace_dummy_types_and_treps();

    std::vector<DECL_RULE*> find_declaration_for_DFG(DFG* dfg, bool exact_sf, bool any_target);
    std::vector<DECL_RULE*> find_declaration_for_tree(NODE* tree, bool any_target);
    std::vector<DECL_RULE*> find_imprecise_declaration_for_DFG(DFG* dfg);
    std::vector<DECL_RULE*> find_imprecise_declaration_for_tree(NODE* tree, bool any_target);
    std::vector<DECL_RULE*> find_declaration_using_wantrep(DFG* dfg, bool exact_sf, bool any_target);

    int cost_of_dfg_and_children(DFG* dfg, int depth);
    int latency_of_dfg_and_children(DFG* dfg, int depth);
    int space_of_dfg_and_children(DFG* dfg, int depth);

    void print(FILE* out);
    // Writes the rule base as C++ source: md_decls.cpp, md_imprecise_decls.cpp,
    // md_rules.cpp and md_rule_base.cpp in `dir`.  False when a file can't be
    // written (none is left half-written).
    bool dump(const std::string& dir);

    int cost_of(const DECL_RULE* d) const { return d->cost >= 0 ? d->cost : default_cost; }
    int latency_of(const DECL_RULE* d) const { return d->latency >= 0 ? d->latency : default_latency; }
    int space_of(const DECL_RULE* d) const { return d->space >= 0 ? d->space : default_space; }
    int fu_index(const std::string& unit) const;  // -1 when not declared

private:
    std::unordered_map<std::string, std::vector<DECL_RULE*>> by_op_;
    DECL_RULE* const* compiled_[3] = {nullptr, nullptr, nullptr};
    void index_decl(DECL_RULE* d);
    friend struct RULE_BASE_BUILDER;
};

// The rule base in use, and the one compiled into the optimizer.
extern RULE_BASE* md_rule_base;
RULE_BASE* compiled_rule_base();

// True when the target name is that of the processor version selected.
bool target_is_this_version(const std::string& name);
// The words of a blank-separated list.
std::vector<std::string> blank_separated(const std::string& text);
// The same for any name of a blank-separated list.
bool targets_include_this_version(const std::string& targets);

// Parses the compiled-in description (Part of start-up under debug:parser
// and debug:parsemd) and installs the result as md_rule_base.
void parse_md_file(bool prune);
// Parses a token array; on a syntax error fills `error` and returns null.
RULE_BASE* parse_md_tokens(const struct MD_TOKEN* tokens, bool prune, std::string* error);

// Cost queries on md_rule_base.
int cost_of_dfg_node(DFG* dfg);
int latency_of_dfg_node(DFG* dfg);
int space_of_dfg_node(DFG* dfg);
void FU_usage_of_dfg_node(DFG* dfg, std::vector<std::pair<int, std::set<unsigned>>>& usage);
void FU_usage_of_tree_node(NODE* tree, bool any_target, std::vector<std::pair<int, std::set<unsigned>>>& usage);
std::set<unsigned> map_derivedFUIdx_to_realFU(int index);
