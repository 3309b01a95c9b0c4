// Static single assignment form of a function, kept beside its trees: every
// definition of a tracked integer variable (the entry value, an assignment,
// a phi at a join) is a record, and every use (a NAME node) points to the
// definition that reaches it.  The trees themselves are not changed, so
// taking the form down again only frees the records.  Phis are placed only
// where the variable is live.
#pragma once

#include <deque>
#include <vector>

#include "OPT5/bbutils.h"
#include "UTIL/ptr_map.h"

class NODE;
struct SYMTAB;

struct SSA_DEFINITION {
    enum KIND { ENTRY, ASSIGN, COND_ASSIGN, PHI } kind = ENTRY;
    int id = 0;
    const SYMTAB* var = nullptr;
    BBLK* bb = nullptr;
    const NODE* node = nullptr;      // the assigning node (ASSIGN, COND_ASSIGN)
    SSA_DEFINITION* prior = nullptr;        // COND_ASSIGN and op-assignments: the definition before
    std::vector<SSA_DEFINITION*> operands;  // PHI: one per predecessor, in predecessor-list order
};

struct SSA_FORM {
    std::deque<SSA_DEFINITION> defs;  // by id
    struct USE {
        SSA_DEFINITION* def = nullptr;  // the reaching definition
        BBLK* bb = nullptr;             // the block of the use's statement
    };
    ptr_map<const NODE*, USE> uses;                   // NAME nodes
    ptr_map<const NODE*, SSA_DEFINITION*> node_def;  // assigning node -> its definition
    std::vector<const SYMTAB*> vars;

    SSA_DEFINITION* reaching_definition(const NODE* use) const;
    BBLK* use_block(const NODE* use) const;
};

SSA_FORM* construct_SSA_form();
void deconstruct_SSA_form(SSA_FORM* ssa);
