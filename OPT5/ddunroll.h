// Unroll-factor limits: the largest factor worth unrolling a loop by, the
// smallest one the user demands, whether a factor honours the loop's unroll
// pragma, and whether a loop may be unrolled completely.
#pragma once

#include "OPT5/bbutils.h"
#include "XINT/int65.h"

class NODE;

// The statement pragma kinds read by the loop decisions (PK_UNROLL,
// PK_PROB_ITERATE) are the record layer's.
#include "IFILE/if_symbol.h"

int max_unrolling_factor(struct LOOP* loop, int size);
int min_unrolling_factor(struct LOOP* loop);
bool unroll_factor_satisfies_pragma(int factor, struct LOOP* loop, int exact);
bool OK_to_unroll_completely(struct LOOP* loop, int size, int no_outer_SP);
// The factor to unroll an innermost loop by before software pipelining:
// the largest one up to max_unrolling_factor that honours the pragma.
int choose_unroll_factor_for_SP(struct LOOP* loop);

// The integer argument `index` of a PPRAGMA statement (0 when missing).
INT65 get_PPRAGMA_tree_int_arg(const NODE* tree, int index);
void update_pragmas_for_loop(struct LOOP* loop, int factor);

// Size and bound estimates.
int count_instrs_in_block(const BBLK* bb);
int count_instrs_in_loop(const struct LOOP* loop);
int size_when_unrolled(int size, int trips, int copies_of_test);
int predict_loop_resource_bound(const struct LOOP* loop, int factor, int flags, int extra);
int predict_loop_recurrence_bound(const struct LOOP* loop);
INT65 calculate_maxval_for_tree(const NODE* tree, const struct LOOP* loop);
// The first part of the software-pipelining qualification of a loop, and
// the test every statement of a one-block loop must pass.
bool loop_qualifies_for_SP(const struct LOOP* loop);
bool statement_qualifies_for_SP(const NODE* stmt);
