// Integer metavalues and their propagation over the SSA form.
#include "OPT5/mvp.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <numeric>
#include <optional>
#include <vector>

#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/ssa.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"

namespace {
const char THIS_MODULE[] = "OPT5/mvp";

INT65 abs65(INT65 v) { return v.is_negative() ? -v : v; }
INT65 gcd65(INT65 a, INT65 b) {
    a = abs65(a);
    b = abs65(b);
    if (!a.is_negative() && !b.is_negative())  // both below 2^64: in machine words
        return INT65(static_cast<unsigned long long>(std::gcd(a.low_word(), b.low_word())));
    while (!b.is_zero()) {
        INT65 r = a % b;
        a = b;
        b = r;
    }
    return a;
}
INT65 min65(INT65 a, INT65 b) { return a < b ? a : b; }
INT65 max65(INT65 a, INT65 b) { return a < b ? b : a; }

// The smallest and largest value of an integer type, as held.
bool type_bounds(TYPE* type, INT65& lo, INT65& hi) {
    TYPE* t = integer_view(type);
    if (!t || t->size == 0 || t->size > 64) return false;
    unsigned w = static_cast<unsigned>(t->size);
    INT65 one(1);
    if (t->signed_flag) {
        hi = (one << INT65(static_cast<int>(w - 1))) - one;
        lo = -(one << INT65(static_cast<int>(w - 1)));
    } else {
        lo = INT65(0);
        hi = (one << INT65(static_cast<int>(w))) - one;
    }
    return true;
}

bool is_signed_type(TYPE* type) {
    TYPE* t = integer_view(type);
    return t && t->signed_flag;
}

bool is_compare(int op) { return (op >= EQ && op <= UGT) || op == ANDAND || op == OROR; }

// One operation on two values, exact in the type; nullopt when it is
// undefined (division by zero, a shift out of range).
std::optional<INT65> apply(int op, TYPE* type, TYPE* operand_type, INT65 a, INT65 b) {
    INT65 v;
    switch (op) {
    case PLUS: case PLUSASG: v = a + b; break;
    case MINUS: case MINUSASG: v = a - b; break;
    case MULT: case MULTASG: v = a * b; break;
    case DIV: case DIVASG:
        if (b.is_zero()) return std::nullopt;
        v = a / b;
        break;
    case MOD: case MODASG:
        if (b.is_zero()) return std::nullopt;
        v = a % b;
        break;
    case ANDB: case ANDBASG: v = a & b; break;
    case ORB: case ORBASG: v = a | b; break;
    case XORB: case XORBASG: v = a ^ b; break;
    case SLL: case SLLASG:
    case SRL: case SRLASG: {
        unsigned w = int_width(operand_type);
        if (w < 16) w = 16;
        if (b.is_negative() || b >= INT65(static_cast<int>(w))) return std::nullopt;
        v = (op == SLL || op == SLLASG) ? a << b : a >> b;
        break;
    }
    case ANDAND: v = INT65(!a.is_zero() && !b.is_zero() ? 1 : 0); break;
    case OROR: v = INT65(!a.is_zero() || !b.is_zero() ? 1 : 0); break;
    case EQ: case NEQ: case LT: case LE: case GT: case GE: case ULT: case ULE: case UGT: case UGE: {
        if ((op >= ULE && op <= UGT) && is_signed_type(operand_type)) {
            INT65 m = (INT65(1) << INT65(static_cast<int>(int_width(operand_type)))) - INT65(1);
            a = a & m;
            b = b & m;
        }
        return INT65(compare_values(op, a, b) ? 1 : 0);
    }
    default: return std::nullopt;
    }
    return integer_view(type) ? truncate_to_type(v, type) : v;
}

}  // namespace

// ---------------------------------------------------------------------------
// The lattice

INT65 mvpIntegers::minimum() const {
    if (is_at_top() || is_at_bottom()) optassert("!is_at_top() && !is_at_bottom()", THIS_MODULE, __LINE__);
    return exact_ ? values_.front() : lo_;
}

INT65 mvpIntegers::maximum() const {
    if (is_at_top() || is_at_bottom()) optassert("!is_at_top() && !is_at_bottom()", THIS_MODULE, __LINE__);
    return exact_ ? values_.back() : hi_;
}

size_t mvpIntegers::size() const {
    if (state_ != VALUE) return 0;
    if (exact_) return values_.size();
    INT65 n = (hi_ - lo_) / stride_ + INT65(1);
    return n.fits_in<uint32_t>() ? static_cast<size_t>(n.as<uint32_t>()) : SIZE_MAX;
}

bool mvpIntegers::contains_integer_value(INT65 v) const {
    if (state_ == BOTTOM) return true;
    if (state_ == TOP) return false;
    if (exact_) return std::binary_search(values_.begin(), values_.end(), v);
    return v >= lo_ && v <= hi_ && ((v - lo_) % stride_).is_zero();
}

bool mvpIntegers::is_subset_of(const mvpIntegers& other) const {
    if (state_ == TOP || other.state_ == BOTTOM) return true;
    if (state_ == BOTTOM || other.state_ == TOP) return false;
    if (exact_) {
        for (const INT65& x : values_)
            if (!other.contains_integer_value(x)) return false;
        return true;
    }
    if (other.exact_) return false;  // a range has more values than a set of 32 holds
    return lo_ >= other.lo_ && hi_ <= other.hi_ && other.contains_integer_value(lo_) &&
           (stride_ % other.stride_).is_zero();
}

bool mvpIntegers::operator==(const mvpIntegers& o) const {
    if (state_ != o.state_) return false;
    if (state_ != VALUE) return true;
    if (exact_ != o.exact_) return false;
    return exact_ ? values_ == o.values_ : (lo_ == o.lo_ && hi_ == o.hi_ && stride_ == o.stride_);
}

void mvpIntegers::reset_known_bits() {
    ones_valid_ = may_valid_ = false;
    ones_ = INT65(0);
    may_ = ~INT65(0);
}

void mvpIntegers::recompute_known_bits() {
    if (state_ != VALUE || exact_) return;
    INT65 ones = find_known_ones_in_range(lo_, hi_);
    INT65 zeros = find_known_zeros_in_range(lo_, hi_);
    // Values lo + n * 2^k share their low k bits with lo.
    INT65 s = stride_;
    INT65 low(0);
    while (!s.is_zero() && (s & INT65(1)).is_zero()) {
        s = s >> INT65(1);
        low = (low << INT65(1)) | INT65(1);
    }
    ones = ones | (lo_ & low);
    zeros = zeros | (~lo_ & low);
    ones_ = ones;
    may_ = ~zeros;
    ones_valid_ = may_valid_ = true;
}

INT65 mvpIntegers::known_1_bits() const {
    if (state_ != VALUE) return INT65(0);
    if (ones_valid_) return ones_;
    if (!exact_) return find_known_ones_in_range(lo_, hi_);
    return INT65(0);
}

INT65 mvpIntegers::known_0_bits() const {
    if (state_ != VALUE) return INT65(0);
    if (may_valid_) return ~may_;
    if (!exact_) return find_known_zeros_in_range(lo_, hi_);
    return INT65(0);
}

void mvpIntegers::set_top() {
    *this = mvpIntegers();
}

void mvpIntegers::set_bottom() {
    state_ = BOTTOM;
    values_.clear();
    reset_known_bits();
}

void mvpIntegers::normalise_range() {
    if (stride_.is_zero() || stride_.is_negative()) stride_ = INT65(1);
    hi_ = lo_ + ((hi_ - lo_) / stride_) * stride_;
}

void mvpIntegers::convert_exact_to_inexact() {
    if (!is_exact()) return;
    lo_ = values_.front();
    hi_ = values_.back();
    INT65 g(0);
    for (const INT65& v : values_) g = gcd65(g, v - lo_);
    stride_ = g.is_zero() ? INT65(1) : g;
    values_.clear();
    exact_ = false;
    reset_known_bits();
    recompute_known_bits();
}

bool mvpIntegers::merge_constant_integer_value(INT65 v) {
    if (state_ == BOTTOM || contains_integer_value(v)) return false;
    if (state_ == TOP) {
        state_ = VALUE;
        exact_ = true;
        values_.clear();
    }
    if (exact_ && values_.size() >= MAX_EXACT) convert_exact_to_inexact();
    if (exact_) {
        if (values_.empty()) {
            ones_ = may_ = v;
        } else {
            ones_ = ones_ & v;
            may_ = may_ | v;
        }
        ones_valid_ = may_valid_ = true;
        auto at = values_.begin();
        while (at != values_.end() && *at < v) ++at;
        values_.insert(at, v);
        return true;
    }
    INT65 s = gcd65(gcd65(stride_, hi_ - v), v - lo_);
    if (s != stride_) {
        stride_ = s.is_zero() ? INT65(1) : s;
        reset_known_bits();
    }
    if (v < lo_) {
        lo_ = v;
        reset_known_bits();
    }
    if (v > hi_) {
        hi_ = v;
        reset_known_bits();
    }
    normalise_range();
    recompute_known_bits();
    return true;
}

bool mvpIntegers::merge_constant_integer_range(INT65 lo, INT65 hi, INT65 stride) {
    if (state_ == BOTTOM || hi < lo) return false;
    if (stride.is_zero() || stride.is_negative()) stride = INT65(1);
    INT65 span;
    bool few = INT65::checked_sub(hi, lo, &span) && span / stride < INT65(static_cast<int>(MAX_EXACT));
    if (few) {
        // Counted, not compared with hi: a step past the largest value the
        // integers hold would wrap around.
        bool changed = false;
        INT65 v = lo;
        for (INT65 k(0), n = span / stride; k <= n; k = k + INT65(1), v = v + stride) changed |= merge_constant_integer_value(v);
        return changed;
    }
    mvpIntegers before = *this;
    if (state_ == TOP) {
        state_ = VALUE;
        exact_ = false;
        lo_ = lo;
        hi_ = hi;
        stride_ = stride;
    } else {
        convert_exact_to_inexact();
        stride_ = gcd65(gcd65(stride_, stride), lo - lo_);
        if (stride_.is_zero()) stride_ = INT65(1);
        lo_ = min65(lo_, lo);
        hi_ = max65(hi_, hi);
    }
    normalise_range();
    reset_known_bits();
    recompute_known_bits();
    return !(before == *this);
}

bool mvpIntegers::merge_constant_tree_value(const NODE* tree) {
    if (!tree || tree->opcode != ICON) {
        bool changed = !is_at_bottom();
        set_bottom();
        return changed;
    }
    return merge_constant_integer_value(tree->type && integer_view(tree->type) ? truncate_to_type(tree->value, tree->type)
                                                                               : tree->value);
}

void mvpIntegers::merge_constant_type_range(TYPE* type, bool is_signed_view) {
    INT65 lo, hi;
    if (!type_bounds(type, lo, hi)) {
        set_bottom();
        return;
    }
    if (is_signed_view && !is_signed_type(type)) {
        // The same bits read as a signed number of the width.
        INT65 half = (hi + INT65(1)) / INT65(2);
        lo = -half;
        hi = half - INT65(1);
    }
    merge_constant_integer_range(lo, hi, INT65(1));
}

void mvpIntegers::cast_value_to_type(TYPE* type, bool keep_if_fits) {
    if (state_ != VALUE) return;
    INT65 lo, hi;
    if (!type_bounds(type, lo, hi)) {
        set_bottom();
        return;
    }
    if (keep_if_fits && minimum() >= lo && maximum() <= hi) return;
    if (exact_) {
        small_vector<INT65, 4> old = values_;
        set_top();
        for (const INT65& v : old) merge_constant_integer_value(truncate_to_type(v, type));
        return;
    }
    if (minimum() >= lo && maximum() <= hi) return;
    set_top();
    merge_constant_type_range(type, false);
}

void mvpIntegers::swap(mvpIntegers& other) { std::swap(*this, other); }

void mvpIntegers::meet_mvpIntegers_metavalues(const mvpIntegers& other) {
    if (this == &other) optassert("this != &mv2", THIS_MODULE, __LINE__);
    if (other.is_at_top() || is_at_bottom()) return;
    if (other.is_at_bottom()) {
        set_bottom();
        return;
    }
    if (other.exact_) {
        if (merge_exact_set(other) < 0)
            for (const INT65& v : other.values_) merge_constant_integer_value(v);
    } else {
        merge_constant_integer_range(other.lo_, other.hi_, other.stride_);
    }
}

// Two exact sets whose union stays exact, joined in one pass over both
// sorted lists, with the known bits updated for each new value as
// merge_constant_integer_value would: the number of values added, or -1
// when the union is not of that kind (nothing changed then).
int mvpIntegers::merge_exact_set(const mvpIntegers& other) {
    if (!other.exact_ || other.state_ != VALUE || (state_ != TOP && !(state_ == VALUE && exact_))) return -1;
    const bool was_top = state_ == TOP;
    thread_local std::vector<INT65> merged;
    merged.clear();
    const INT65 *a = values_.begin(), *a_end = was_top ? a : values_.end();
    const INT65 *b = other.values_.begin(), *b_end = other.values_.end();
    // The known bits as each new value, in ascending order, would leave them.
    INT65 ones = ones_, may = may_;
    bool first = was_top || values_.empty();
    int added = 0;
    while (a != a_end || b != b_end) {
        if (b == b_end || (a != a_end && *a < *b)) {
            merged.push_back(*a++);
        } else if (a != a_end && *a == *b) {
            merged.push_back(*a++);
            ++b;
        } else {
            if (first) {
                ones = may = *b;
                first = false;
            } else {
                ones = ones & *b;
                may = may | *b;
            }
            merged.push_back(*b++);
            ++added;
        }
        if (merged.size() > MAX_EXACT) return -1;
    }
    if (added == 0) return 0;
    ones_ = ones;
    may_ = may;
    ones_valid_ = may_valid_ = true;
    state_ = VALUE;
    exact_ = true;
    values_.clear();
    for (const INT65& v : merged) values_.push_back(v);
    return added;
}

bool mvpIntegers::meet_and_note_change(const mvpIntegers& other) {
    if (int added = merge_exact_set(other); added >= 0) return added > 0;
    mvpIntegers before = *this;
    meet_mvpIntegers_metavalues(other);
    return !(before == *this);
}

mvpIntegers mvpIntegers::type_range(TYPE* type) {
    mvpIntegers mv;
    mv.merge_constant_type_range(type, false);
    return mv;
}

void mvpIntegers::widen(const mvpIntegers& before, TYPE* type) {
    INT65 tlo, thi;
    if (state_ != VALUE || before.state_ != VALUE || !type_bounds(type, tlo, thi)) return;
    bool lower = minimum() < before.minimum(), higher = maximum() > before.maximum();
    if (!lower && !higher) return;
    convert_exact_to_inexact();
    if (lower && lo_ > tlo) lo_ = lo_ - ((lo_ - tlo) / stride_) * stride_;
    if (higher && hi_ < thi) hi_ = thi;
    normalise_range();
    reset_known_bits();
    recompute_known_bits();
}

void mvpIntegers::refine(const NODE* test, bool holds, const NODE* var_use) {
    if (!test || !var_use) return;
    const NODE* bound = test->left == var_use ? test->right : test->right == var_use ? test->left : nullptr;
    if (!bound || bound->opcode != ICON) return;
    mvpIntegers c;
    c.merge_constant_integer_value(bound->value);
    refine(test, holds, var_use, c);
}

void mvpIntegers::refine(const NODE* test, bool holds, const NODE* var_use, const mvpIntegers& other) {
    if (state_ != VALUE || other.state_ != VALUE || !test || !var_use) return;
    int op = test->opcode;
    if (op < EQ || op > UGT) return;
    // The variable on the right: c < x is x > c.
    if (test->left != var_use && test->right != var_use) return;
    if (test->right == var_use) op = commute_inv[op];
    if (!holds) op = boolean_inv[op];
    INT65 olo = other.minimum(), ohi = other.maximum();
    INT65 lo = minimum(), hi = maximum();
    if (!var_use->type) return;
    // An unsigned variable's values are held as they compare unsigned; a
    // signed comparison reads them so only below the sign bit.
    if (op >= ULE && op <= UGT) {
        if (!var_use->type->is_unsigned() || lo.is_negative() || olo.is_negative()) return;
        op = op == ULE ? LE : op == ULT ? LT : op == UGE ? GE : GT;
    } else if (var_use->type->is_unsigned()) {
        unsigned w = int_width(var_use->type);
        if (w == 0 || w > 64 || hi >= (INT65(1) << INT65(static_cast<long long>(w - 1)))) return;
    }
    INT65 c = olo;  // the other side, when it is one value
    switch (op) {
    case EQ: lo = max65(lo, olo); hi = min65(hi, ohi); break;
    case LT: hi = min65(hi, ohi - INT65(1)); break;
    case LE: hi = min65(hi, ohi); break;
    case GT: lo = max65(lo, olo + INT65(1)); break;
    case GE: lo = max65(lo, olo); break;
    case NEQ:
        // x != c takes c out of a set, or off either end of a range.
        if (olo != ohi) return;
        if (exact_) break;
        if (c == lo) lo = lo + stride_;
        else if (c == hi) hi = hi - stride_;
        else return;
        break;
    default: return;
    }
    if (hi < lo) {  // the test can't come out this way: no value flows here
        set_top();
        return;
    }
    if (exact_) eval_exact_integer_assertion(lo, hi, op == NEQ ? &c : nullptr);
    else eval_inexact_integer_assertion(lo, hi);
}

void mvpIntegers::eval_exact_integer_assertion(INT65 lo, INT65 hi, const INT65* excluded) {
    std::vector<INT65> kept;
    for (const INT65& v : values_)
        if (v >= lo && v <= hi && !(excluded && v == *excluded)) kept.push_back(v);
    set_top();  // when nothing is kept, the assertion can't hold: no value flows
    for (const INT65& v : kept) merge_constant_integer_value(v);
}

void mvpIntegers::eval_inexact_integer_assertion(INT65 lo, INT65 hi) {
    INT65 s = stride_;
    INT65 first = lo_;
    if (lo > lo_) first = lo_ + ((lo - lo_ + s - INT65(1)) / s) * s;
    hi = min65(hi, hi_);
    set_top();
    if (first <= hi) merge_constant_integer_range(first, hi, s);
}

// Evaluation

void mvpIntegers::eval_leaf_operation(const NODE* leaf) {
    set_top();
    if (leaf && leaf->opcode == ICON) merge_constant_tree_value(leaf);
    else if (leaf) merge_constant_type_range(leaf->type, false);
}

void mvpIntegers::eval_cast_operation(TYPE* to, const mvpIntegers& operand) {
    *this = operand;
    if (state_ == BOTTOM) {
        set_top();
        merge_constant_type_range(to, false);
        return;
    }
    cast_value_to_type(to, true);
}

void mvpIntegers::eval_exact_unary_operation(int op, TYPE* type, const mvpIntegers& operand) {
    set_top();
    for (const INT65& v : operand.values_) {
        INT65 r = op == UMINUS ? -v : op == NOTB ? ~v : INT65(v.is_zero() ? 1 : 0);
        merge_constant_integer_value(op == EXCLAIM || !integer_view(type) ? r : truncate_to_type(r, type));
    }
}

void mvpIntegers::eval_inexact_unary_operation(int op, TYPE* type, const mvpIntegers& operand) {
    set_top();
    switch (op) {
    case UMINUS: merge_constant_integer_range(-operand.hi_, -operand.lo_, operand.stride_); break;
    case NOTB: merge_constant_integer_range(~operand.hi_, ~operand.lo_, operand.stride_); break;
    default:  // !x: 1 only if 0 is a value
        merge_constant_integer_value(INT65(0));
        if (operand.contains_integer_value(INT65(0))) merge_constant_integer_value(INT65(1));
        return;
    }
    cast_value_to_type(type, true);
}

void mvpIntegers::eval_unary_operation(int op, TYPE* type, const mvpIntegers& operand) {
    if (operand.is_at_top()) {
        set_top();
        return;
    }
    if (operand.is_at_bottom()) {
        set_top();
        if (op == EXCLAIM) merge_constant_integer_range(INT65(0), INT65(1), INT65(1));
        else merge_constant_type_range(type, false);
        return;
    }
    if (operand.exact_) eval_exact_unary_operation(op, type, operand);
    else eval_inexact_unary_operation(op, type, operand);
}

void mvpIntegers::eval_binary_operation(int op, TYPE* type, TYPE* operand_type, const mvpIntegers& a,
                                        const mvpIntegers& b) {
    set_top();
    if (a.is_at_top() || b.is_at_top()) return;
    auto whole_type = [&]() {
        set_top();
        if (is_compare(op)) merge_constant_integer_range(INT65(0), INT65(1), INT65(1));
        else merge_constant_type_range(type, false);
    };
    if (a.is_at_bottom() || b.is_at_bottom()) {
        whole_type();
        return;
    }
    if (a.exact_ && b.exact_) {
        for (const INT65& x : a.values_)
            for (const INT65& y : b.values_) {
                std::optional<INT65> r = apply(op, type, operand_type, x, y);
                if (!r) {
                    if (op == DIV || op == MOD || op == DIVASG || op == MODASG) continue;  // it traps instead
                    whole_type();
                    return;
                }
                merge_constant_integer_value(*r);
            }
        if (!is_compare(op)) cast_value_to_type(type, true);
        return;
    }
    INT65 alo = a.minimum(), ahi = a.maximum(), blo = b.minimum(), bhi = b.maximum();
    INT65 as = a.exact_ ? INT65(0) : a.stride_, bs = b.exact_ ? INT65(0) : b.stride_;
    if (a.exact_) for (const INT65& v : a.values_) as = gcd65(as, v - alo);
    if (b.exact_) for (const INT65& v : b.values_) bs = gcd65(bs, v - blo);
    switch (op) {
    case PLUS: case PLUSASG: {
        INT65 lo, hi;
        if (!INT65::checked_add(alo, blo, &lo) || !INT65::checked_add(ahi, bhi, &hi)) return whole_type();
        merge_constant_integer_range(lo, hi, gcd65(as, bs));
        break;
    }
    case MINUS: case MINUSASG: {
        INT65 lo, hi;
        if (!INT65::checked_sub(alo, bhi, &lo) || !INT65::checked_sub(ahi, blo, &hi)) return whole_type();
        merge_constant_integer_range(lo, hi, gcd65(as, bs));
        break;
    }
    case MULT: case MULTASG: {
        INT65 p[4];
        if (!INT65::checked_mul(alo, blo, &p[0]) || !INT65::checked_mul(alo, bhi, &p[1]) ||
            !INT65::checked_mul(ahi, blo, &p[2]) || !INT65::checked_mul(ahi, bhi, &p[3]))
            return whole_type();
        INT65 lo = p[0], hi = p[0];
        for (const INT65& x : p) {
            lo = min65(lo, x);
            hi = max65(hi, x);
        }
        INT65 s(1);
        if ((blo == bhi && !INT65::checked_mul(as, blo, &s)) || (blo != bhi && alo == ahi && !INT65::checked_mul(bs, alo, &s)))
            s = INT65(1);
        merge_constant_integer_range(lo, hi, abs65(s));
        break;
    }
    case DIV: case DIVASG:
        if (blo != bhi || blo.is_zero()) return whole_type();
        {
            INT65 x = alo / blo, y = ahi / blo;
            merge_constant_integer_range(min65(x, y), max65(x, y), INT65(1));
        }
        break;
    case MOD: case MODASG:
        if (blo != bhi || blo.is_zero()) return whole_type();
        {
            INT65 m = abs65(blo) - INT65(1);
            if (!alo.is_negative() && ahi <= m) *this = a;
            else  // the remainder takes the dividend's sign
                merge_constant_integer_range(alo.is_negative() ? max65(alo, -m) : INT65(0),
                                             ahi.is_negative() ? INT65(0) : min65(ahi, m), INT65(1));
        }
        break;
    case ANDB: case ANDBASG:
        if (!alo.is_negative() || !blo.is_negative()) {
            INT65 hi = !alo.is_negative() && !blo.is_negative() ? min65(ahi, bhi) : !alo.is_negative() ? ahi : bhi;
            merge_constant_integer_range(INT65(0), hi, INT65(1));
        } else {
            return whole_type();
        }
        break;
    case SLL: case SLLASG:
        if (blo != bhi || blo.is_negative() || blo >= INT65(static_cast<int>(int_width(operand_type)))) return whole_type();
        {
            unsigned k = blo.as<unsigned>();
            INT65 lo, hi, s;
            if (!INT65::checked_shl(alo, k, &lo) || !INT65::checked_shl(ahi, k, &hi) ||
                !INT65::checked_shl(as.is_zero() ? INT65(1) : as, k, &s))
                return whole_type();
            merge_constant_integer_range(lo, hi, s);
        }
        break;
    case SRL: case SRLASG:
        if (blo != bhi || blo.is_negative() || blo >= INT65(static_cast<int>(int_width(operand_type)))) return whole_type();
        merge_constant_integer_range(alo >> blo, ahi >> blo, INT65(1));
        break;
    case EQ: case NEQ: case LT: case LE: case GT: case GE: {
        // Decided when the ranges don't overlap (or are one equal value).
        bool r;
        bool decided = true;
        switch (op) {
        case EQ: case NEQ:
            if (ahi < blo || bhi < alo) r = op == NEQ;
            else decided = false;
            break;
        case LT: if (ahi < blo) r = true; else if (alo >= bhi) r = false; else decided = false; break;
        case LE: if (ahi <= blo) r = true; else if (alo > bhi) r = false; else decided = false; break;
        case GT: if (alo > bhi) r = true; else if (ahi <= blo) r = false; else decided = false; break;
        default: if (alo >= bhi) r = true; else if (ahi < blo) r = false; else decided = false; break;
        }
        if (decided) merge_constant_integer_value(INT65(r ? 1 : 0));
        else merge_constant_integer_range(INT65(0), INT65(1), INT65(1));
        return;
    }
    default: return whole_type();
    }
    if (state_ == VALUE) cast_value_to_type(type, true);
}

void mvpIntegers::eval_COLON_operation(const mvpIntegers& a, const mvpIntegers& b) {
    *this = a;
    if (&a != &b) meet_mvpIntegers_metavalues(b);
}

bool mvpIntegers::ITERATOR::done() const {
    if (mv_.state_ != VALUE) return true;
    if (mv_.exact_) return index_ >= mv_.values_.size();
    return mv_.lo_ + offset_ > mv_.hi_;
}

INT65 mvpIntegers::ITERATOR::value() const { return mv_.exact_ ? mv_.values_[index_] : mv_.lo_ + offset_; }

void mvpIntegers::ITERATOR::next() {
    if (mv_.exact_) ++index_;
    else offset_ = offset_ + mv_.stride_;
}

void mvpIntegers::print(FILE* out) const {
    if (state_ == TOP) std::fputs("TOP", out);
    else if (state_ == BOTTOM) std::fputs("BOTTOM", out);
    else if (exact_) {
        std::fputc('{', out);
        for (size_t i = 0; i < values_.size(); ++i)
            std::fprintf(out, i ? ", %s" : "%s", values_[i].to_string().c_str());
        std::fputc('}', out);
    } else {
        std::fprintf(out, "[%s .. %s by %s]", lo_.to_string().c_str(), hi_.to_string().c_str(),
                     stride_.to_string().c_str());
    }
}

// ---------------------------------------------------------------------------
// Propagation

template <class MV>
void ssa_mv_propagator<MV>::initialize() {
    mvs_.assign(ssa_.defs.size(), MV());
    changes_.assign(ssa_.defs.size(), 0);
    users_.assign(ssa_.defs.size(), {});
    evaluated_.assign(ssa_.defs.size(), 0);
}

template <class MV>
const MV& ssa_mv_propagator<MV>::get_mv_for_definition(const SSA_DEFINITION* def) const {
    static const MV top{};
    return def ? mvs_.at(static_cast<size_t>(def->id)) : top;
}

template <class MV>
const MV& ssa_mv_propagator<MV>::value_of(const SSA_DEFINITION* def) {
    // What an evaluation reads depends on the trees and the form alone, so
    // the first evaluation of each definition finds all its edges.
    if (def && evaluating_ >= 0 && !evaluated_[static_cast<size_t>(evaluating_)]) {
        std::vector<int>& u = users_[static_cast<size_t>(def->id)];
        if (u.empty() || u.back() != evaluating_) u.push_back(evaluating_);
    }
    return get_mv_for_definition(def);
}

template <class MV>
void ssa_mv_propagator<MV>::set_mv_for_definition(const SSA_DEFINITION* def, const MV& mv) {
    MV* pMetavalue = &mvs_.at(static_cast<size_t>(def->id));
    if (!pMetavalue->is_at_top()) optassert("pMetavalue->is_at_top()", THIS_MODULE, __LINE__);
    *pMetavalue = mv;
}

template <class MV>
int ssa_mv_propagator<MV>::propagate() {
    initialize();
    propagating_ = true;
    struct DONE {
        ssa_mv_propagator& m;
        ~DONE() {
            m.propagating_ = false;
            m.propagation_done();
        }
    } done{*this};
    // Every cycle of the form passes through a phi: one that keeps growing
    // after a few changes is widened (its moving bounds go to the ends of
    // its type), and the narrowing below finds the loop's bounds again.  Any
    // other value that still grows takes its type's whole range after many
    // changes, and one that changes after that goes to bottom, where nothing
    // changes any more: every definition changes a bounded number of times,
    // so every loop settles.
    const int widen_phi_after = 6, widen_after = 40, give_up_after = 2 * widen_after;
    // A worklist over the def-use edges: a definition is evaluated again only
    // when one that it reads has changed.  The edges are recorded as the
    // evaluations read the definitions.
    std::deque<int> work;
    std::vector<char> queued(ssa_.defs.size(), 1);
    auto queue_users = [&](int id) {
        for (int user : users_[static_cast<size_t>(id)])
            if (!queued[static_cast<size_t>(user)]) {
                queued[static_cast<size_t>(user)] = 1;
                work.push_back(user);
            }
    };
    std::vector<int> widened;
    for (auto& d : ssa_.defs) work.push_back(d.id);
    while (!work.empty()) {
        int id = work.front();
        work.pop_front();
        queued[static_cast<size_t>(id)] = 0;
        const SSA_DEFINITION* d = &ssa_.defs[static_cast<size_t>(id)];
        evaluating_ = id;
        MV mv = eval_SSA_operation(d);
        evaluating_ = -1;
        evaluated_[static_cast<size_t>(id)] = 1;
        if (mv.is_at_top()) continue;
        MV& cur = mvs_[static_cast<size_t>(id)];
        int& n = changes_[static_cast<size_t>(id)];
        if (cur.is_at_top()) {
            set_mv_for_definition(d, mv);
        } else if (d->kind == SSA_DEFINITION::PHI && n + 1 >= widen_phi_after && n < widen_after) {
            MV before = cur;
            if (!cur.meet_and_note_change(mv)) continue;
            ++n;
            cur.widen(before, d->var->type);
            if (widened.empty() || widened.back() != id) widened.push_back(id);
        } else {
            if (!cur.meet_and_note_change(mv)) continue;
            if (++n > give_up_after) cur.set_bottom();
            else if (n > widen_after) cur.meet_and_note_change(MV::type_range(d->var->type));
        }
        queue_users(id);
    }
    // Narrowing: evaluated on values that hold, a definition gets values
    // that hold, so a widened value may be replaced by what its evaluation
    // gives now, as long as that is smaller.  A loop's tests narrow the uses
    // in it, and so the values its phi receives.  Each definition shrinks a
    // bounded number of times.
    const int narrow_at_most = 4;
    std::fill(changes_.begin(), changes_.end(), 0);
    for (int id : widened) {
        if (!queued[static_cast<size_t>(id)]) {
            queued[static_cast<size_t>(id)] = 1;
            work.push_back(id);
        }
        queue_users(id);
    }
    while (!work.empty()) {
        int id = work.front();
        work.pop_front();
        queued[static_cast<size_t>(id)] = 0;
        MV mv = eval_SSA_operation(&ssa_.defs[static_cast<size_t>(id)]);
        MV& cur = mvs_[static_cast<size_t>(id)];
        if (mv.is_at_top() || mv == cur || !mv.is_subset_of(cur)) continue;
        if (++changes_[static_cast<size_t>(id)] > narrow_at_most) continue;
        cur = std::move(mv);
        queue_users(id);
    }
    int bound = 0;
    for (auto& d : ssa_.defs) {
        const MV& mv = mvs_[static_cast<size_t>(d.id)];
        if (mv.is_at_top()) continue;
        ++bound;
        if (print_debug && FDEBUG) {
            DBG_CHECK(std::fprintf(FDEBUG, "\t%s#%d = ", d.var->name.c_str(), d.id));
            mv.print(FDEBUG);
            DBG_CHECK(std::fputc('\n', FDEBUG));
        }
    }
    return bound;
}

template <class MV>
MV mvpValues<MV>::eval_expr(const NODE* tree) {
    if (!tree) return MV();
    switch (tree->opcode) {
    case NAME: return this->ssa_.reaching_definition(tree) ? eval_USE_operation(tree) : eval_leaf_operation(tree);
    case ASG: case PLUSASG: case MINUSASG: case MULTASG: case DIVASG: case MODASG: case ANDBASG: case ORBASG:
    case XORBASG: case SLLASG: case SRLASG: return eval_DEF_operation(tree);
    case CALL: case UCALL: return eval_call_operation(tree);
    case ICALL: case UICALL: return eval_BIF_operation(tree);
    case COMMA: return eval_expr(tree->right);
    case ICON: case FCON: case SCON: return eval_leaf_operation(tree);
    default: return eval_rvalue_operation(tree);
    }
}

template <class MV>
MV mvpValues<MV>::eval_USE_operation(const NODE* use) {
    return eval_reaching_definition(use);
}

template <class MV>
MV mvpValues<MV>::eval_DEF_operation(const NODE* asg) {
    // An assignment the form knows is read as its definition's value; any
    // other (to memory) as what it stores.
    if (SSA_DEFINITION* const* d = this->ssa_.node_def.find(asg)) return this->value_of(*d);
    return asg->opcode == ASG ? eval_rvalue_operation(asg) : eval_leaf_operation(asg);
}

template <class MV>
MV mvpValues<MV>::eval_SSA_operation(const SSA_DEFINITION* def) {
    MV mv;
    switch (def->kind) {
    case SSA_DEFINITION::ENTRY: mv = MV::type_range(def->var->type); break;
    case SSA_DEFINITION::ASSIGN: mv = eval_assignment(def); break;
    case SSA_DEFINITION::COND_ASSIGN:
        mv = eval_assignment(def);
        mv.meet_and_note_change(this->value_of(def->prior));
        break;
    case SSA_DEFINITION::PHI:
        for (const SSA_DEFINITION* o : def->operands) {
            if (!o) continue;  // from a block that is never reached
            const MV& m = this->value_of(o);
            if (mv.is_at_top()) mv = m;
            else mv.meet_and_note_change(m);
        }
        break;
    }
    return mv;
}

template class ssa_mv_propagator<mvpIntegers>;
template class mvpValues<mvpIntegers>;

// The integer instance

ssa_integers_mvp::USE_PATH ssa_integers_mvp::find_use_path(const NODE* use) const {
    USE_PATH path;
    path.def = ssa_.reaching_definition(use);
    if (!path.def) optassert("!\"Invalid reaching definition!\"", THIS_MODULE, __LINE__);
    const SSA_DEFINITION* def = path.def;
    // Tests on the way from the definition narrow the value: while the use's
    // block has a single predecessor that ends in a test of the same value,
    // the test came out the way that leads here.
    BBLK* cur = ssa_.use_block(use);
    for (int steps = 0; cur && cur != def->bb && steps < 16; ++steps) {
        if (!cur->predecessors || cur->predecessors->rest) break;
        BBLK* pred = cur->predecessors->bb;
        if (pred == cur || pred->statements.empty()) {
            cur = pred == cur ? nullptr : pred;
            continue;
        }
        const NODE* last = pred->statements.back().tree;
        if (last->opcode == CBRANCH && last->left && last->right && last->right->opcode == LABEL) {
            const NODE* test = last->left;
            bool jumps_here = last->right->value == INT65(cur->label);
            bool falls_here = pred->next == cur;
            if (jumps_here != falls_here)
                for (const NODE* side : {test->left, test->right})
                    if (side && side->opcode == NAME && ssa_.reaching_definition(side) == def) {
                        path.tests.push_back({test, jumps_here, side});
                        break;
                    }
        }
        cur = pred;
    }
    return path;
}

mvpIntegers ssa_integers_mvp::eval_reaching_definition(const NODE* use) {
    // Once the value is neither exact nor a range, no test narrows it.
    auto narrowed = [&](const USE_PATH& path) {
        mvpIntegers mv = value_of(path.def);
        // What the other side of each test may be: a constant, or another
        // value, which bounds this one by what that may be.  The other sides
        // are read first, whatever the values are now: the edges of the
        // definition evaluated are recorded on its first evaluation, and it
        // must be evaluated again when they grow.  One left at top (not
        // read) narrows nothing.
        std::vector<mvpIntegers> others(path.tests.size());
        for (size_t k = 0; k < path.tests.size(); ++k) {
            const USE_PATH::TEST& t = path.tests[k];
            const NODE* other = t.test->left == t.var ? t.test->right : t.test->left;
            bool unsigned_test = t.test->opcode >= ULE && t.test->opcode <= UGT;
            if (other && other->opcode == ICON) {
                others[k].merge_constant_integer_value(other->value);
            } else if (other && other_depth_ < 2 && is_integer_type(other->type) &&
                       other->type->is_unsigned() == unsigned_test) {
                ++other_depth_;
                others[k] = eval_expr(other);
                --other_depth_;
            }
        }
        for (size_t k = 0; k < path.tests.size(); ++k) {
            if (!mv.is_exact() && !mv.is_inexact()) break;
            mv.refine(path.tests[k].test, path.tests[k].holds, path.tests[k].var, others[k]);
        }
        return mv;
    };
    if (!propagating_) return narrowed(find_use_path(use));  // the trees may be changing
    const USE_PATH* path = use_paths_.find(use);
    if (!path) path = &(use_paths_[use] = find_use_path(use));
    return narrowed(*path);
}

mvpIntegers ssa_integers_mvp::eval_leaf_operation(const NODE* leaf) {
    mvpIntegers mv;
    mv.eval_leaf_operation(leaf);
    return mv;
}

mvpIntegers ssa_integers_mvp::eval_rvalue_operation(const NODE* tree) {
    mvpIntegers mv;
    int op = tree->opcode;
    switch (op) {
    case ASG: {  // a store, read as the value stored
        mvpIntegers r = eval_expr(tree->right);
        mv.eval_cast_operation(tree->type, r);
        return mv;
    }
    case PLUS: case MINUS: case MULT: case DIV: case MOD: case ANDB: case ORB: case XORB: case SLL: case SRL:
    case EQ: case NEQ: case LT: case LE: case GT: case GE: case ULT: case ULE: case UGT: case UGE:
    case ANDAND: case OROR: {
        if (!integer_view(tree->type) || !tree->left || !integer_view(tree->left->type)) break;
        mvpIntegers a = eval_expr(tree->left), b = eval_expr(tree->right);
        mv.eval_binary_operation(op, tree->type, tree->left->type, a, b);
        return mv;
    }
    case UMINUS: case NOTB: case EXCLAIM: {
        if (!integer_view(tree->type)) break;
        mvpIntegers a = eval_expr(tree->left);
        mv.eval_unary_operation(op, tree->type, a);
        return mv;
    }
    case SCONV: {
        if (!integer_view(tree->type) || !tree->left || !integer_view(tree->left->type)) break;
        mvpIntegers a = eval_expr(tree->left);
        mv.eval_cast_operation(tree->type, a);
        return mv;
    }
    case QUEST:
        if (tree->right && tree->right->opcode == COLON) {
            mvpIntegers a = eval_expr(tree->right->left), b = eval_expr(tree->right->right);
            mv.eval_COLON_operation(a, b);
            return mv;
        }
        break;
    default: break;
    }
    return eval_leaf_operation(tree);
}

mvpIntegers ssa_integers_mvp::eval_assignment(const SSA_DEFINITION* def) {
    const NODE* n = def->node;
    TYPE* type = def->var->type;
    mvpIntegers value;
    if (n->opcode == ASG) {
        mvpIntegers r = eval_expr(n->right);
        value.eval_cast_operation(type, r);
    } else {
        // The variable's value before, as the tests on the way narrow it.
        mvpIntegers before = ssa_.reaching_definition(n->left) ? eval_reaching_definition(n->left)
                                                               : value_of(def->prior);
        mvpIntegers r;
        if (n->opcode == PLUSPLUS || n->opcode == MINMIN) r.merge_constant_tree_value(n->right);
        else r = eval_expr(n->right);
        int op = n->opcode == PLUSPLUS ? PLUS : n->opcode == MINMIN ? MINUS : n->opcode;
        value.eval_binary_operation(op, type, type, before, r);
    }
    return value;
}

int ssa_integers_mvp::do_integer_value_propagation() {
    if (print_debug && FDEBUG)
        DBG_CHECK(std::fputs("\n\n\t\t\t-------- ENTERING 'ssa_integers_mvp' ---------------\n", FDEBUG));
    int bound = propagate();
    if (print_debug && FDEBUG)
        DBG_CHECK(std::fprintf(FDEBUG, "\nMVP bindings for integer analysis: %d\tin %s()\n", bound,
                               currfunc ? currfunc->name.c_str() : ""));
    return bound;
}

namespace {
// Reads of a variable whose value there is one constant become that
// constant; the simplifier then folds what they feed.  A variable in an
// assigned place stays.
int replace_single_valued_uses(SSA_FORM& ssa, ssa_integers_mvp& mvp) {
    int replaced = 0;
    for (BBLK* b : layout_blocks())
        for (BODY_ENTRY& e : b->statements)
            for_each_read_name(e.tree, [&](NODE*& t) {
                if (!t->type || !integer_view(t->type)) return;
                SSA_DEFINITION* def = ssa.reaching_definition(t);
                if (!def || def->var != t->symbol) return;
                mvpIntegers mv = mvp.eval_reaching_definition(t);
                if (!mv.is_exact() || mv.size() != 1) return;
                t = replace_by_constant(t, truncate_to_type(mv.minimum(), t->type), t->type);
                ++replaced;
            });
    return replaced;
}
}  // namespace

void intraprocedural_MVP() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return;
    simpcfg(false, false);  // unreachable blocks have no dominator
    SSA_FORM* ssa = construct_SSA_form();
    ssa_integers_mvp mvp(*ssa);
    mvp.do_integer_value_propagation();
    // The simplifier may now ask what a use of a variable can be.
    simp_range_oracle = [&](const NODE* n) -> std::optional<VALUE_RANGE> {
        if (!n || n->opcode != NAME) return std::nullopt;
        SSA_DEFINITION* def = ssa->reaching_definition(n);
        if (!def || def->var != n->symbol) return std::nullopt;
        mvpIntegers mv = mvp.eval_reaching_definition(n);
        if (!mv.is_exact() && !mv.is_inexact()) return std::nullopt;
        return VALUE_RANGE{mv.minimum(), mv.maximum(), mv.known_1_bits(), mv.known_0_bits()};
    };
    struct CLEAR {
        ~CLEAR() { simp_range_oracle = nullptr; }
    } clear;
    int constants = replace_single_valued_uses(*ssa, mvp);
    if (print_debug && FDEBUG)
        DBG_CHECK(std::fprintf(FDEBUG, "Uses with one value made constants: %d\n", constants));
    simp_all_trees();
    simp_range_oracle = nullptr;
    deconstruct_SSA_form(ssa);
    simpcfg(false, false);
}
