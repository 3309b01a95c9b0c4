// The recursive-descent parser of the machine-description language.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "OPT5/md_rules.h"
#include "OPT5/md_token.h"

// A syntax error: where parsing stopped and why.
struct FAIL {
    int line;
    std::string text;
    std::string message;
};

// The cursor over a token array.
class TOKEN {
public:
    explicit TOKEN(const MD_TOKEN* tokens) : tokens_(tokens) {}

    int index = -1;        // the current token
    int loaded = -1;       // the token last loaded
    std::string text;
    int line = 0;
    long long aux = 0;

    tokentype getToken();
    tokentype getToken(tokentype k);
    void returnToken();
    void seek(int at);  // back to a position noted from `index`
    tokentype kind() const;  // of the current token

    bool isParmname() const;
    bool isSSV() const;
    bool isTrep() const;
    bool isPcFunction() const;
    bool isGivenFunction() const;
    bool isRelop() const;

private:
    const MD_TOKEN* tokens_;
    void load();
};

class PARSER {
public:
    explicit PARSER(const MD_TOKEN* tokens) : tok_(tokens) {}
    // Parses the whole description; throws FAIL.  The caller owns the result.
    RULE_BASE* parse(bool prune);

private:
    RULE_BASE* rb_ = nullptr;
    TOKEN tok_;
    bool prune_ = false;
    std::map<int, DFG*> labels_;           // labelled subtrees of the rule being read
    std::map<char, DFG*> parms_;           // parameters of the declaration or rule being read
    declruletype current_kind_ = rICODE;

    [[noreturn]] void fail(const std::string& message);
    // Fails at the token after the current one (the one that is wrong).
    [[noreturn]] void fail_at_next(const std::string& message);
    void expect(tokentype k, const char* message);
    long long integer(const char* message);

    void mdfHeader();
    void mdfBanner();
    void targetDeclaration();
    void endianDeclaration();
    void funUnitDeclaration();
    void functionalUnits();
    void derivedFunctionalUnits();
    void defaultCost();
    void defaultLatency();
    void defaultSpace();
    std::vector<DECL_RULE*> declaration();
    std::vector<DECL_RULE*> icodeDecl();
    std::vector<DECL_RULE*> icallMcallDecl(declruletype kind);
    std::vector<DECL_RULE*> genopDecl();
    std::vector<DECL_RULE*> xopDecl();
    DFG* icodePattern(std::vector<int>& sfs, std::vector<TREP*>& treps);
    DFG* icallMcallPattern(std::vector<int>& sfs, std::vector<TREP*>& treps);
    DFG* genopPattern(std::vector<int>& sfs, std::vector<TREP*>& treps, bool xop);
    DFG* xopPattern(std::vector<int>& sfs, std::vector<TREP*>& treps);
    DFG* declPattern(int op, const std::string& name, std::vector<int>& sfs, std::vector<TREP*>& treps);
    void clauses(DECL_RULE& proto, const DFG* pattern);
    void holds(MD_BIF& bif, const DFG* pattern);
    void numeric_holds(MD_BIF& bif, const DFG* pattern);
    void holds_flag(MD_BIF& bif);
    void property(unsigned long flag, MD_BIF& bif);
    void funcUnits(DECL_RULE& proto);
    void costs(DECL_RULE& proto);
    void latency(DECL_RULE& proto);
    void space(DECL_RULE& proto);
    void constraint(CONSTRAINT& c);
    void targetConstraint(CONSTRAINT& c);
    CONSTRAINT_FUNCTION* xopIcallConstraint();
    CONSTRAINT_FUNCTION* icallParameterConstraint();
    CONSTRAINT_FUNCTION* parameterConstraint();
    CONSTRAINT_FUNCTION* pcProperty();
    CONSTRAINT_FUNCTION* pcExpr();
    CONSTRAINT_FUNCTION* joined(const std::function<CONSTRAINT_FUNCTION*()>& term);
    CONSTRAINT_FUNCTION* pcRelation(DFG* left);
    CONSTRAINT_FUNCTION* parmRelation();
    CONSTRAINT_FUNCTION* parmAddressRelation();
    DFG* parmExpression();
    CONSTRAINT_FUNCTION* pcFunction(DFG* parm);
    CONSTRAINT_FUNCTION* givenConstraint();
    CONSTRAINT_FUNCTION* givenFunction(bool& endian_seen);
    std::vector<TREP*> trep();
    std::vector<int> simdFactor();
    DFG* declParameter();
    void declParmIcon(DFG* parm);
    DFG* icons();
    std::vector<DECL_RULE*> rewriteRules();
    DECL_RULE* simplifyRule();
    DECL_RULE* simdRule();
    DECL_RULE* combineRule();
    DFG* pattern();
    DFG* templt();
    DFG* hoist();
    DFG* sink();
    DFG* unlabeledTree();
    DFG* literal();
    DFG* ruleParameter();
    DFG* typedOperator();
    DFG* ruleOperand();
    char ssv();
    DFG* operand();
    int label();
    void opd_pos(DFG* parent, DFG* child);

    DFG* parm_node(char letter);
    int operator_code(const std::string& name, bool in_rule) const;
};
