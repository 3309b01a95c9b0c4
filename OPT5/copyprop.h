// Fast copy and constant propagation, and dead-assignment elimination with
// per-block liveness.
#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include "OPT5/bbutils.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "UTIL/small_vector.h"

struct SYMTAB;
struct TYPE;

void fast_CP(int32_t iterations, int32_t early);
void elim_dead_assigns(bool delay, bool promote);

void promote_all_embedded_assignments();
bool promote_embedded_assignments_in_bb(BBLK* bb);
// Removes assignments in the block whose value is overwritten or never read
// before the block ends, given the variables live at its end.
bool elim_locally_dead_assignments_in_bb(BBLK* bb, struct LOOP* loop);
// Merges "x = e; x = f(x)" into "x = f(e)" where that is exact.
bool combine_assignments(std::vector<BODY_ENTRY>& statements);
// Drops a store to memory that the next statement overwrites unread.
bool combine_asgs_to_memory();
void remove_unneeded_stores_from_destructor();
// Computes the live-in set of every block over the function's tracked
// variables (lva_sym_count of them).  Each flag asks for one more thing:
// `record` keeps the variables' numbering in the function record (it is
// always kept), `loops` gives each loop of the hierarchy the set live where
// it may be left (LOOP::live_out).
void find_live_variables(bool record, bool loops);

// x op= e, ++ and --: assignments that also read the variable.
inline bool is_op_assign(int op) {
    switch (op) {
    case PLUSASG: case MINUSASG: case MULTASG: case DIVASG: case MODASG: case ANDBASG: case ORBASG:
    case XORBASG: case SLLASG: case SRLASG: case PLUSPLUS: case MINMIN:
        return true;
    default:
        return false;
    }
}
// Any assignment: = and the ones above.
inline bool is_assignment(int op) { return op == ASG || is_op_assign(op); }
// Whether the statement assigns the variable, at its root or inside.
bool assigns_variable(const NODE* t, const SYMTAB* sym);
// The number of nodes of the tree, counted up to `limit` (then limit + 1).
size_t tree_size_up_to(const NODE* t, size_t limit);
// Hands each NAME node of the tree that is read (not the place an
// assignment or & names) to `f` by its operand slot, where f may replace it.
template <class F>
void for_each_read_name(NODE*& tree, F&& f) {
    struct item {
        NODE** slot;
        bool place;  // a named place, not a read
    };
    small_vector<item, 32> work;
    work.push_back({&tree, false});
    while (!work.empty()) {
        auto [slot, place] = work.back();
        work.pop_back();
        NODE* t = *slot;
        if (!t || t->opcode == LABEL || t->opcode == FIELD) continue;
        if (t->opcode == NAME) {
            if (!place) f(*slot);
            continue;
        }
        work.push_back({&t->left, t->opcode == ASG || is_op_assign(t->opcode) || t->opcode == UAND});
        work.push_back({&t->right, false});
    }
}

// The value as the type: a constant truncated to it, or a conversion.
NODE* converted(NODE* value, TYPE* type);
// Whether the tree is an address the same wherever the function reads it:
// a symbol's, or a local's converted or moved by constants.  Taken into
// its uses, a local's makes their accesses direct (and the local may then
// become variables); a global's converted one would only cost more than
// the pointer that holds it.
bool is_fixed_address(const NODE* tree);
// The side effects of a tree (null when it has none); the rest is freed.
NODE* peel_for_effect(NODE* tree);
bool sym_appears_in_tree(const SYMTAB* sym, const NODE* tree);
// How many NAME nodes of the tree name the symbol.
int count_name(const NODE* t, const SYMTAB* sym);
// The operand slot of the tree's one NAME of the symbol (the tree itself
// when it is that NAME); null when it names the symbol never or more than
// once.
NODE** single_name_slot(NODE*& tree, const SYMTAB* sym);
bool sym_appears_in_bb(const SYMTAB* sym, const BBLK* bb);

// The current function's own symbols (arguments first), each with whether
// it is an argument.
struct FUNC_SYM {
    struct SYMTAB* sym;
    bool is_arg;
};
std::vector<FUNC_SYM> function_symbols();
// The symbols whose address the current function takes, in the statements
// of its blocks or of its body.  Kept with the function until
// note_address_change says it may have changed: address-of nodes are only
// ever made by reading and by copying trees, which note it, as does erasing
// one.
std::set<const SYMTAB*> address_taken_symbols();
// Only assignments that name the variable can change it: a local, not
// volatile, whose address is not taken (`taken`, as above).
bool is_private_variable(const SYMTAB* sym, const std::set<const SYMTAB*>& taken);

// Symbols of the current function whose liveness is tracked, numbered.
int lva_sym_count();
int lva_index(const SYMTAB* sym);  // -1 when not tracked
