// The rule matcher: rule tables built from the rule base, matching of rule
// patterns against data-flow graphs, and the rewrites (SIMPLIFY, SIMD,
// COMBINE, OP/XOP reverting).
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "OPT5/md_rules.h"

// A statement of a region under conversion: its graph, and the next
// statement of the region.
struct CDSTMT {
    DFG* root = nullptr;
    CDSTMT* next = nullptr;
    int id = 0;
};

// Owner of the nodes the matcher makes (templates instantiated); recycled
// together.
class DFG_ARENA {
public:
    DFG* make();
    void recycle() { nodes_.clear(); }
    size_t size() const { return nodes_.size(); }

private:
    std::vector<std::unique_ptr<DFG>> nodes_;
};
extern DFG_ARENA matcher_arena;

using RULELIST = std::vector<DECL_RULE*>;
struct RULETABLE {
    const char* title;
    std::map<std::string, RULELIST> rules;  // by the prefix of the pattern's root operator
    std::map<std::string, bool> flags;
    void add(DECL_RULE* rule, const DFG* pattern);
    void clear() {
        rules.clear();
        flags.clear();
    }
    void print(FILE* out) const;
};
extern RULETABLE primary_rules, primary_declarations, simplify_only_rules, op_forward_rules,
    non_op_xop_simplify_only_rules, combine_rules;

struct CANDIDATE {
    DECL_RULE* rule = nullptr;
    DFG* node = nullptr;
    DFG* replacement = nullptr;
    std::map<DFG*, DFG*, lessparm> bindings;
};
bool match_less(const CANDIDATE& a, const CANDIDATE& b);

void matcher_init();
// Files the rules of a rule base into the tables (what matcher_init does
// with the rule base it obtains); returns the number of rules filed.
int build_rule_tables(RULE_BASE* rb);
void reset_matcher();  // forget the tables (a later matcher_init builds them again)

// Matches one pattern against a node; the bindings grow; `why` says what
// failed.
bool match_dfg(DFG* pattern, DFG* node, std::map<DFG*, DFG*, lessparm>& bindings, std::string* why);
// The matching candidates of a node in a table, best first.
std::deque<CANDIDATE> find_candidates(RULETABLE& table, DFG* node, int sf);

DFG* lookup_in_dfg_bindings(DFG* parm, std::map<DFG*, DFG*, lessparm>& bindings);
NODE* lookup_in_tree_bindings(DFG* parm, std::map<DFG*, NODE*>& bindings);
bool parameter_constraints_are_satisfied(CONSTRAINT* c, std::map<DFG*, DFG*, lessparm>& bindings);
bool parameter_constraints_are_satisfied(CONSTRAINT* c, std::map<DFG*, NODE*>& bindings);
bool nonparameter_constraints_are_satisfied(CONSTRAINT* c);
DFG_ALIST* make_dfg_alist(DFG_LIST* from, DFG_LIST* to);
DFG* copy_dfg_and_subst(DFG* templt, DFG_ALIST* alist);

DFG* simplify_using_rules(DFG* node, CDSTMT* stmt, bool vector_mode, bool* changed);
NODE* simplify_using_rules(NODE* tree);
DFG* apply_SIMD_rules_to_DFG_node(DFG* node, CDSTMT* stmt, int sf);
bool apply_COMBINE_rules(DFG* node, CDSTMT* stmt, bool vector_mode, bool trace);
bool dfg_is_COMBINE_candidate(DFG* node);
DFG* revert_OP_and_XOP_to_generic_node(DFG* node, CDSTMT* stmt);

// Why the last SIMD rewrite failed ("already vectorised", "too wide", ...).
extern std::string simd_failure_reason;
