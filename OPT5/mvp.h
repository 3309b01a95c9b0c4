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
    // The whole range of a type, as a metavalue.
    static mvpIntegers type_range(TYPE* type);
    // Narrows the value with the fact that `test` (a comparison of the
    // variable `var_use` with a constant, on either side, or its inversion)
    // holds.  Unsigned comparisons narrow an unsigned variable.
    void refine(const NODE* test, bool holds, const NODE* var_use);
    // The same against what the other side of the test may be.
    void refine(const NODE* test, bool holds, const NODE* var_use, const mvpIntegers& other);
    // What is left of a value asserted to lie in [lo, hi]: the values of an
    // exact set in there (but `excluded`), the range cut to it on its
    // stride; top when nothing is left, the assertion being impossible.
    void eval_exact_integer_assertion(INT65 lo, INT65 hi, const INT65* excluded);
    void eval_inexact_integer_assertion(INT65 lo, INT65 hi);

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

// The propagation engine, for any lattice MV of metavalues: each SSA
// definition starts at top and is evaluated again whenever a definition its
// evaluation read has changed, until nothing changes.  A phi that keeps
// growing is widened, any value that keeps growing goes to its type's whole
// range and then to bottom, so every cycle settles; then what was widened
// is narrowed again.  MV provides is_at_top(), meet_and_note_change(),
// widen(before, type), set_bottom(), is_subset_of(), ==, print() and
// MV::type_range(type).
template <class MV>
class ssa_mv_propagator {
public:
    explicit ssa_mv_propagator(SSA_FORM& ssa) : ssa_(ssa) {}
    virtual ~ssa_mv_propagator() = default;

    // Valid until the next binding is set.
    const MV& get_mv_for_definition(const SSA_DEFINITION* def) const;
    void set_mv_for_definition(const SSA_DEFINITION* def, const MV& mv);
    // The metavalue a definition gets from its right-hand side (or its
    // operands) under the current bindings.
    virtual MV eval_SSA_operation(const SSA_DEFINITION* def) = 0;

protected:
    void initialize();
    // Runs the propagation; returns the number of definitions bound, each
    // listed on the debug stream.
    int propagate();
    // A definition's value, read while evaluating another (the edge is kept).
    const MV& value_of(const SSA_DEFINITION* def);
    // Called when a propagation ends, also by an exception.
    virtual void propagation_done() {}

    SSA_FORM& ssa_;
    bool propagating_ = false;

private:
    std::vector<MV> mvs_;
    std::vector<int> changes_;             // per definition, to widen values that keep growing
    std::vector<std::vector<int>> users_;  // per definition, those whose evaluation read it
    std::vector<char> evaluated_;          // per definition, evaluated at least once
    int evaluating_ = -1;                  // the definition being evaluated
};

// Evaluation of trees for a propagator: the form of each tree decides which
// of the lattice's evaluations gives its metavalue.
template <class MV>
class mvpValues : public ssa_mv_propagator<MV> {
public:
    using ssa_mv_propagator<MV>::ssa_mv_propagator;

    // The metavalue of an expression under the current bindings.
    MV eval_expression(const NODE* tree) { return eval_expr(tree); }
    MV eval_expr(const NODE* tree);
    // An SSA use: the metavalue of its reaching definition.
    virtual MV eval_reaching_definition(const NODE* use) = 0;
    MV eval_SSA_operation(const SSA_DEFINITION* def) override;

protected:
    // A constant or an operand nothing more is known of.
    virtual MV eval_leaf_operation(const NODE* leaf) = 0;
    // Operators, conversions and choices.
    virtual MV eval_rvalue_operation(const NODE* tree) = 0;
    // The value a definition assigns.
    virtual MV eval_assignment(const SSA_DEFINITION* def) = 0;
    // Calls: what the callee may return; built-in functions by their
    // meaning where the lattice knows it.
    virtual MV eval_call_operation(const NODE* call) { return eval_leaf_operation(call); }
    virtual MV eval_BIF_operation(const NODE* call) { return eval_leaf_operation(call); }
    // A read of a variable, and an assignment read as a value.
    MV eval_USE_operation(const NODE* use);
    MV eval_DEF_operation(const NODE* asg);
};

// The integer instance: the value propagation of one function.
class ssa_integers_mvp : public mvpValues<mvpIntegers> {
public:
    explicit ssa_integers_mvp(SSA_FORM& ssa) : mvpValues(ssa) {}
    void initialize_ssa_integer_mvp() { initialize(); }
    // Propagates until no metavalue changes, then narrows what was widened;
    // returns the number of definitions bound.
    int do_integer_value_propagation();

    mvpIntegers eval_reaching_definition(const NODE* use) override;

protected:
    mvpIntegers eval_leaf_operation(const NODE* leaf) override;
    mvpIntegers eval_rvalue_operation(const NODE* tree) override;
    mvpIntegers eval_assignment(const SSA_DEFINITION* def) override;
    void propagation_done() override { use_paths_.clear(); }

private:
    int other_depth_ = 0;  // nesting of tests read against other values

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
};

// The "intraprocedural MVP" step: SSA, integer propagation, and a pass of
// the simplifier that may use the value ranges to decide tests.
void intraprocedural_MVP();
