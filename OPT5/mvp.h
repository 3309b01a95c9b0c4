// Metavalue propagation: abstract values of SSA definitions, computed by
// propagating over the SSA graph until nothing changes.  mvpIntegers holds
// what is known of an integer: exact sets of up to 32 values, or strided
// ranges, with known-bit masks.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"
#include "XINT/int65.h"

class NODE;
class TYPE;
struct SSA_FORM;
struct SSA_DEFINITION;

class mvpIntegers {
public:
    static constexpr size_t MAX_EXACT = 32;

    bool is_at_top() const { return state_ == TOP; }
    bool is_at_bottom() const { return state_ == BOTTOM; }
    bool is_exact() const { return state_ == VALUE && exact_; }
    bool is_inexact() const { return state_ == VALUE && !exact_; }
    INT65 minimum() const;
    INT65 maximum() const;
    INT65 stride() const { return exact_ ? INT65(0) : stride_; }
    // Number of values (saturating); 0 at top or bottom.
    size_t size() const;
    bool contains_integer_value(INT65 v) const;
    bool is_subset_of(const mvpIntegers& other) const;
    bool operator==(const mvpIntegers& other) const;

    // Bits that are one in every value, and bits that are zero in every one.
    INT65 known_1_bits() const;
    INT65 known_0_bits() const;

    void set_top();
    void set_bottom();
    bool merge_constant_integer_value(INT65 v);
    bool merge_constant_integer_range(INT65 lo, INT65 hi, INT65 stride);
    bool merge_constant_tree_value(const NODE* tree);
    // The whole range of an integer type (a non-integer type: bottom).
    void merge_constant_type_range(TYPE* type, bool is_signed_view);
    // Wraps every value into the type; a range that does not fit becomes
    // the type's whole range.
    void cast_value_to_type(TYPE* type, bool keep_if_fits);
    void convert_exact_to_inexact();
    void copy(const mvpIntegers& other) { *this = other; }
    void swap(mvpIntegers& other);

    void meet_mvpIntegers_metavalues(const mvpIntegers& other);
    bool meet_and_note_change(const mvpIntegers& other);
    // A value that keeps growing, `before` being what it was: each bound
    // that moved since goes to the end of `type`, the stride stays.
    void widen(const mvpIntegers& before, TYPE* type);
    // Narrows the value with the fact that `test` (a comparison of the
    // variable `var_use` with a constant, on either side, or its inversion)
    // holds.  Unsigned comparisons narrow an unsigned variable.
    void refine(const NODE* test, bool holds, const NODE* var_use);
    // The same against what the other side of the test may be.
    void refine(const NODE* test, bool holds, const NODE* var_use, const mvpIntegers& other);

    // Evaluation of one operation on the operands' metavalues; the result
    // replaces this value.
    void eval_leaf_operation(const NODE* leaf);
    void eval_cast_operation(TYPE* to, const mvpIntegers& operand);
    void eval_unary_operation(int op, TYPE* type, const mvpIntegers& operand);
    void eval_exact_unary_operation(int op, TYPE* type, const mvpIntegers& operand);
    void eval_inexact_unary_operation(int op, TYPE* type, const mvpIntegers& operand);
    void eval_binary_operation(int op, TYPE* type, TYPE* operand_type, const mvpIntegers& a, const mvpIntegers& b);
    void eval_COLON_operation(const mvpIntegers& a, const mvpIntegers& b);

    class ITERATOR {
    public:
        explicit ITERATOR(const mvpIntegers& mv) : mv_(mv) {}
        bool done() const;
        INT65 value() const;
        void next();

    private:
        const mvpIntegers& mv_;
        size_t index_ = 0;
        INT65 offset_;
    };

    void print(FILE* out) const;

private:
    int merge_exact_set(const mvpIntegers& other);

    enum STATE { TOP, VALUE, BOTTOM } state_ = TOP;
    bool exact_ = true;
    small_vector<INT65, 4> values_;  // ascending, exact sets
    INT65 lo_, hi_, stride_{1};  // ranges
    INT65 ones_;                 // known ones, valid with ones_valid_
    INT65 may_ = ~INT65(0);      // bits that may be one
    bool ones_valid_ = false, may_valid_ = false;

    void reset_known_bits();
    void recompute_known_bits();
    void normalise_range();
};

// The value propagation of one function over its SSA form.
class ssa_integers_mvp {
public:
    explicit ssa_integers_mvp(SSA_FORM& ssa);
    void initialize_ssa_integer_mvp();
    // Propagates until no metavalue changes (a worklist over def-use edges,
    // each definition widened after a bounded number of changes), then
    // narrows what was widened; returns the number of definitions bound.
    int do_integer_value_propagation();

    // Valid until the next binding is set.
    const mvpIntegers& get_mv_for_definition(const SSA_DEFINITION* def) const;
    void set_mv_for_definition(const SSA_DEFINITION* def, const mvpIntegers& mv);
    // The metavalue of an expression under the current bindings.
    mvpIntegers eval_expression(const NODE* tree);
    mvpIntegers eval_expr(const NODE* tree);
    mvpIntegers eval_reaching_definition(const NODE* use);
    mvpIntegers eval_assignment(const SSA_DEFINITION* def);
    mvpIntegers eval_SSA_operation(const SSA_DEFINITION* def);

private:
    SSA_FORM& ssa_;
    std::vector<mvpIntegers> mvs_;
    std::vector<int> changes_;  // per definition, to widen ranges that keep growing
    std::vector<std::vector<int>> users_;  // per definition, those whose evaluation read it
    std::vector<char> evaluated_;          // per definition, evaluated at least once
    int other_depth_ = 0;                  // nesting of tests read against other values
    int evaluating_ = -1;                  // the definition being evaluated

    // A definition's value, read while evaluating another (the edge is kept).
    const mvpIntegers& value_of(const SSA_DEFINITION* def);

    // What a use reads: its reaching definition and the tests on the way
    // from there that narrow the value (the test, and whether it held).
    // They depend on the trees and the form alone, so while propagating,
    // when no tree changes, each use's are found once.
    struct USE_PATH {
        SSA_DEFINITION* def = nullptr;
        struct TEST {
            const NODE* test;
            bool holds;
            const NODE* var;  // the operand of the test that reads the definition
        };
        std::vector<TEST> tests;
    };
    USE_PATH find_use_path(const NODE* use) const;
    ptr_map<const NODE*, USE_PATH> use_paths_;
    bool propagating_ = false;
};

// The "intraprocedural MVP" step: SSA, integer propagation, and a pass of
// the simplifier that may use the value ranges to decide tests.
void intraprocedural_MVP();
