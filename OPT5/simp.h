// The tree simplifier: rewrites expression trees into cheaper equivalent
// forms and keeps them in the shape the later passes expect.
#pragma once

#include <functional>
#include <optional>
#include <unordered_map>

#include "OPT5/node.h"

struct LOOP;

// Trees are in normalised form (some rewrites are made only before).
extern bool trees_are_normalized;
// The widened-symbol table may be used to know bits of narrow variables.
extern bool wst_trustable;
// The widened-symbol table: bits known to be one in a variable.
extern std::unordered_map<const SYMTAB*, INT65> wst_known_ones;

// A value range [lo, hi] known for an expression (an SSA use), supplied by
// value propagation while its results are in force.
struct VALUE_RANGE {
    INT65 lo, hi;
    INT65 known_ones, known_zeros;  // bit masks, 0 when nothing is known
};
using RANGE_ORACLE = std::function<std::optional<VALUE_RANGE>(const NODE*)>;
extern RANGE_ORACLE simp_range_oracle;

void simp_all_trees();
NODE* simp_tree(NODE* tree, struct LOOP* loop);
NODE* simp_node(NODE* node, struct LOOP* loop);
NODE* simp_ss_tree(NODE* tree, bool distribute);
NODE* expunge_IDENTITY_ops_from_tree(NODE* tree);

NODE* simp_ASG(NODE* n);
NODE* simp_call(NODE* n);
NODE* simp_for_control(NODE* n);
NODE* simp_assoc(NODE* n);
NODE* simp_PLUS(NODE* n);
NODE* simp_MINUS(NODE* n);
NODE* simp_MULT(NODE* n);
NODE* simp_UMULT(NODE* n, struct LOOP* loop);
NODE* simp_DIV(NODE* n);
NODE* simp_DIV_by_ICON(NODE* n);
NODE* simp_MOD(NODE* n);
NODE* simp_shift(NODE* n);
NODE* simp_relop(NODE* n, struct LOOP* loop);
NODE* simp_ANDOR_ANDOR(NODE* n, struct LOOP* loop);
NODE* simp_redundant_test(NODE* n, struct LOOP* loop);
NODE* simp_STREF(NODE* n, struct LOOP* loop);
NODE* simp_SCONV(NODE* n);
NODE* simp_PCONV(NODE* n);
NODE* simp_MEMCPY(NODE* n);
NODE* simp_complex_part(NODE* n);  // REAL and IMAG
NODE* simp_vector_node(NODE* n);
NODE* simp_vector_VSCONV(NODE* n);
NODE* simp_vector_VRCONV(NODE* n);
NODE* simp_vector_VFIELD(NODE* n);
NODE* simp_vector_pack(NODE* n);
NODE* make_boolean(NODE* tree, struct LOOP* loop);
NODE* invert_boolean_tree(NODE* tree);
// The value of an operator over constant operands, when it has one (a
// division by zero or an undefined shift has none); nothing is changed.
std::optional<INT65> folded_value(const NODE* n);
// The node replaced by its folded value, or the node itself.
NODE* fold_constants(NODE* n);
// The comparison op (EQ .. UGT) of two values taken as they are.
bool compare_values(int op, INT65 a, INT65 b);

// Bit analyses (masks over the value as held: sign-extended for signed
// types, zero-extended for unsigned ones).
INT65 find_known_ones(const NODE* tree, TYPE* type);
INT65 find_known_zeros(const NODE* tree, TYPE* type);
INT65 find_known_zeros_in_ANDB(const NODE* tree, TYPE* type);
INT65 find_known_ones_in_range(INT65 lo, INT65 hi);
INT65 find_known_zeros_in_range(INT65 lo, INT65 hi);
// Narrows the bits of a tree that matter to those of mask: operations that
// only change bits outside it are dropped.  Returns the new tree.
NODE* prop_mask_into_subtree(NODE* tree, INT65 mask);

// Width rules.
INT65 sign_extend_by_type(INT65 v, TYPE* type);
INT65 sign_extend_by_type_size(INT65 v, TYPE* type);
bool shift_count_is_legal_and_nontrivial_for_type(INT65 count, TYPE* type);
NODE* truncate_RHS_for_assignment(NODE* asg);
bool tree_is_trivially_invertible(const NODE* tree);
bool returns_1_or_0(const NODE* tree);
bool is_constant(const NODE* tree, int op);
bool is_constant_and_zero(const NODE* tree);
INT65 ICON_value_of_integer_constant(const NODE* tree);
void change_integer_constant_value(NODE* tree, INT65 v);
double FCON_value_of_fp_constant(const NODE* tree);
void change_fp_constant_value(NODE* tree, double v);
// Moves term, an operand somewhere in a chain of the tree's associative
// operator, to the right operand of the root; returns the new root.
NODE* bubble_term_to_top(NODE* tree, NODE* term);
// The depth of a nest of && (or ||) chains; *n counts the terms and *term is
// set to the last one.
int andor_andor_height(const NODE* tree, int* n, const NODE** term);
// Divides both operands by a common power-of-two factor they share as
// constant multipliers; true when something was cancelled.
bool cancel_common_simple_factors(NODE*& a, NODE*& b);

// The integer view of a type: integers as they are, enumerations as their
// underlying type, pointers as the pointer-sized unsigned integer; null for
// anything else.
TYPE* integer_view(TYPE* type);
// Whether the type is a pointer (false for null).
bool is_pointer_type(TYPE* type);
// Whether the type is an integer or an enumeration (false for null).
bool is_integer_type(TYPE* type);
unsigned int_width(TYPE* type);
// True when evaluating the tree can change state or trap.
bool has_side_effects(const NODE* tree);
// The symbol whose address the tree is, through pointer conversions and
// constants added or taken (`moved` tells whether there were any); null
// for any other tree.
const SYMTAB* addressed_symbol(const NODE* tree, bool& moved);
// The two ways a rewrite replaces a node, freeing what it no longer holds:
// by its operand `keep` (the other operand and the node go), or by the
// constant v of `type` when it has no side effects (otherwise it stays).
NODE* keep_operand(NODE* n, NODE* keep);
NODE* replace_by_constant(NODE* n, INT65 v, TYPE* type);
