// The loop hierarchy of the current function.
#pragma once

#include <map>
#include <set>

#include "OPT5/bbutils.h"

struct SYMTAB;

// Rebuilds the hierarchy: normalizes the loops (unless `normalise` is 0, or
// it is negative and `value_ranges` is false), finds the natural loops,
// their levels, preheaders, exits, induction variables, control variables
// and trip counts, and lists them on the debug stream.  A function whose
// flow is irreducible (or has unreachable blocks) is left without loops.
void build_loop_hierarchy(bool value_ranges, bool scalar_memrefs, bool simplify_loops, int normalise);
// The nest alone (levels, preheaders, exits, loop pragmas), normalised when
// asked; false when the function has no loop hierarchy.
bool build_minimal_loop_hierarchy(bool normalise);
void unbuild_loop_hierarchy();
struct LOOP* make_LOOP(BBLK* head, BBLK* tail, int uid, const struct LOOP* model);
void assign_loop_levels(struct LOOP* loop, int level);
// How a loop assigns each variable it assigns at a statement's root: how
// often, and whether each time by the same constant step (`step`).
struct loop_assignments {
    int count = 0;
    bool steps_alike = true;
    INT65 step;
};
std::map<const void*, loop_assignments> assignments_in_loop(const struct LOOP* loop);
// The loop's induction variables: private variables (see
// is_private_variable; `taken` holds the function's address-taken symbols)
// assigned once in the loop, by a constant step.
void find_loop_IVs(struct LOOP* loop, const std::set<const SYMTAB*>& taken);
// The loop's control variable (after find_region_constants, which says
// what a bound compared with it may be).
void find_loop_LCV(struct LOOP* loop);
// What the exit test says of the loop's trip count when it is not a
// constant, for a loop counting by one from a known constant while below a
// bound the loop leaves alone (the bound, or what a variable bound was set
// to before the loop): tripFactor, a power of two that divides the distance
// from the start to the bound; max_trips and min_trips, the most and the
// fewest iterations, for a bound that can't be negative.  Tested at the
// bottom, the distance is the trip count when the loop is entered with its
// test holding.
void find_loop_assertions(struct LOOP* loop);
// Whether the loop changes nothing a value reads: constants and private
// variables the loop never assigns (after find_region_constants), under
// integer operators that read no memory.
bool is_loop_invariant_value(const struct LOOP* loop, const NODE* n);
// Finds again what the loop changes (`taken`: the function's address-taken
// symbols, which count as shared) and keeps it in loop->effects.
const loop_effects& find_region_constants(struct LOOP* loop, const std::set<const SYMTAB*>& taken);
// The latch's conditional jump back to the head, the test at the bottom
// that keeps the loop going while it holds; null when the latch ends
// otherwise.
NODE* latch_jump(const struct LOOP* loop);
// The variable a statement assigns at its root (a SYMTAB), or null; with
// is_step set and the constant step when it is "v += c", "v -= c", "v++",
// "v--", "v = v + c" or "v = v - c".
const void* assigned_var(const NODE* t, bool& is_step, INT65& step);
// How many assignments to `var` the loop makes, at statements' roots or
// inside them.
int count_assignments_in_loop(const struct LOOP* loop, const void* var);
// The constant a variable holds on entry to the loop: the last assignment
// of a constant to it in the blocks that lead to the header from outside,
// walking back through single predecessors.
bool find_expr_init(const struct LOOP* loop, const void* var, INT65& value);
// The value of that last assignment, whatever it is; null when there is
// none, or the variable is changed otherwise (a step, an operator-assignment).
const NODE* find_expr_def(const struct LOOP* loop, const void* var);
void add_exit_blocks(struct LOOP* loop);
bool loop_is_innermost(const struct LOOP* loop);
void build_list_of_innermost_loop_headers(const struct LOOP* loop, std::vector<BBLK*>& list);
bool loop_contains(const struct LOOP* loop, const BBLK* bb);
// Where statements run once before the loop: its preheader, made (and
// added to the loops around it) when the loop has none, taking every way
// in; null when the block laid out before the head is in the loop and falls
// into it.  Without `renumber` (a step making many before it needs the
// blocks' numbers again) the new block is laid out before the head and the
// blocks keep their numbers, the new one none.
BBLK* preheader_of(struct LOOP* loop, bool renumber = true);
// Appends a statement to a block, before the jump that ends it.
void append_before_jump(BBLK* b, NODE* tree, const PSN& pos);
