// The tree simplifier: the driver, the dispatch, the bit analyses and width
// rules shared by the handlers, and the handlers.
//
// Every rewrite keeps the value exact in the operand type: integer constants
// are folded with INT65 arithmetic and then truncated to the node's type, so
// wrap-around behaves as it does on the machine.  Floating trees are never
// reassociated.
#include "OPT5/simp.h"

#include <cstdio>
#include <cstdlib>

#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/symtab.h"

namespace {
const char THIS_MODULE[] = "OPT5/simp";
}

bool trees_are_normalized = false;
bool wst_trustable = false;
std::unordered_map<const SYMTAB*, INT65> wst_known_ones;
RANGE_ORACLE simp_range_oracle;

// ---------------------------------------------------------------------------
// Types and constants

bool is_pointer_type(TYPE* type) { return type && type->stripped()->kind == TYPE::PTR_T; }

TYPE* integer_view(TYPE* type) {
    if (!type) return nullptr;
    TYPE* t = type->stripped();
    if (t->kind == TYPE::ENUM_T) return t->base ? integer_view(t->base) : type_pkg->mk_int(TYPE::IK_INT, true);
    if (t->kind == TYPE::INT_T) return t;
    if (t->kind == TYPE::PTR_T) return type_pkg->mk_int(TYPE::IK_ULONG, false);
    return nullptr;
}

bool is_integer_type(TYPE* type) {
    if (!type) return false;
    TYPE::KIND k = type->stripped()->kind;
    return k == TYPE::INT_T || k == TYPE::ENUM_T;
}

unsigned int_width(TYPE* type) {
    TYPE* t = integer_view(type);
    return t ? static_cast<unsigned>(t->size) : 0;
}

namespace {

bool is_int_type(TYPE* type) { return type && type->stripped()->kind != TYPE::PTR_T && integer_view(type); }
bool is_signed_int(TYPE* type) {
    TYPE* t = integer_view(type);
    return t && t->signed_flag;
}
// All ones in the type's width.
INT65 width_mask(TYPE* type) {
    unsigned w = int_width(type);
    if (w == 0) return INT65(0);
    return w >= 64 ? INT65::from_words(0, ~uint64_t{0}) : INT65((uint64_t{1} << w) - 1);
}
bool is_power_of_2(INT65 v, unsigned* log) {
    if (v.is_negative() || v.is_zero()) return false;
    uint64_t x = v.low_word();
    if (x & (x - 1)) return false;
    unsigned k = 0;
    while ((x >> k) != 1) ++k;
    if (log) *log = k;
    return true;
}

bool is_icon(const NODE* n) { return n && n->opcode == ICON; }
bool icon_is(const NODE* n, long long v) { return is_icon(n) && n->value == INT65(v); }

NODE* new_icon(INT65 v, TYPE* type) { return mk_ICON(truncate_to_type(v, type), type); }

}  // namespace

NODE* keep_operand(NODE* n, NODE* keep) {
    NODE* other = n->left == keep ? n->right : n->left;
    if (other && other != keep) erase_tree(other);
    n->left = n->right = nullptr;
    erase_node(n);
    return keep;
}

NODE* replace_by_constant(NODE* n, INT65 v, TYPE* type) {
    if (has_side_effects(n)) return n;
    erase_tree(n);
    return new_icon(v, type);
}

namespace {

// The operand converted to the node's type when they differ.
NODE* retype(NODE* operand, TYPE* type) {
    if (!operand->type || !type || exact_types(operand->type, type)) return operand;
    if (operand->opcode == ICON && integer_view(type)) {
        operand->value = truncate_to_type(operand->value, type);
        operand->type = type;
        return operand;
    }
    return mktree(type->stripped()->kind == TYPE::PTR_T ? PCONV : SCONV, type, operand);
}

bool is_unsigned_relop(int op) { return op >= ULE && op <= UGT; }

}  // namespace

INT65 truncate_to_type(INT65 v, TYPE* type) {
    if (!type) optassert("TYPE_IS_INT(type)", THIS_MODULE, __LINE__);
    TYPE* t = type->stripped();
    bool second_category = t->kind == TYPE::ENUM_T;
    TYPE* it = integer_view(t);
    if (!it) optassert("TYPE_IS_INT(type)", THIS_MODULE, __LINE__);
    unsigned w = static_cast<unsigned>(it->size);
    if (w == 0 || w > 64) return v;
    INT65 masked = v & width_mask(it);
    if (!it->signed_flag) return masked;
    bool sign_set = ((masked.low_word() >> (w - 1)) & 1) != 0;
    if (!sign_set) return masked;
    if (second_category && !v.is_negative()) return masked;
    return v.truncate(w, true);
}

INT65 sign_extend_by_type(INT65 v, TYPE* type) {
    TYPE* t = type ? type->stripped() : nullptr;
    if (!t) return v;
    TYPE* target = t;
    if (t->kind == TYPE::INT_T) {
        switch (t->subkind) {
        case TYPE::IK_UINT: target = type_pkg->mk_int(TYPE::IK_INT, true); break;
        case TYPE::IK_ULONG: target = type_pkg->mk_int(TYPE::IK_LONG, true); break;
        case TYPE::IK_ULLONG: target = type_pkg->mk_int(TYPE::IK_LLONG, true); break;
        default: break;
        }
    } else if (t->kind == TYPE::PTR_T) {
        bool fits_int = t->size <= type_pkg->int_size(TYPE::IK_INT);
        target = type_pkg->mk_int(fits_int ? TYPE::IK_INT : TYPE::IK_LONG, true);
    }
    return truncate_to_type(v, target);
}

INT65 sign_extend_by_type_size(INT65 v, TYPE* type) {
    TYPE* t = type ? type->stripped() : nullptr;
    if (t && t->kind == TYPE::INT_T && t->subkind == TYPE::IK_UCHAR) type = type_pkg->mk_int(TYPE::IK_SCHAR, true);
    if (t && t->kind == TYPE::INT_T && t->subkind == TYPE::IK_USHORT) type = type_pkg->mk_int(TYPE::IK_SHORT, true);
    return sign_extend_by_type(v, type);
}

bool shift_count_is_legal_and_nontrivial_for_type(INT65 count, TYPE* type) {
    unsigned w = int_width(type);
    INT65 limit(static_cast<int>(w) - (is_signed_int(type) ? 1 : 0));
    return count >= INT65(1) && count < limit;
}

bool is_constant(const NODE* tree, int op) { return tree && tree->opcode == op; }
bool is_constant_and_zero(const NODE* tree) {
    if (is_icon(tree)) return tree->value.is_zero();
    if (tree && tree->opcode == FCON) return FCON_value_of_fp_constant(tree) == 0.0;
    return false;
}
INT65 ICON_value_of_integer_constant(const NODE* tree) {
    OPT_REQUIRE(is_icon(tree));
    return tree->value;
}
void change_integer_constant_value(NODE* tree, INT65 v) {
    OPT_REQUIRE(is_icon(tree));
    tree->value = integer_view(tree->type) ? truncate_to_type(v, tree->type) : v;
}
double FCON_value_of_fp_constant(const NODE* tree) {
    OPT_REQUIRE(tree && tree->opcode == FCON);
    return std::strtod(tree->x().text.c_str(), nullptr);
}
void change_fp_constant_value(NODE* tree, double v) {
    OPT_REQUIRE(tree && tree->opcode == FCON);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    tree->mx().text = buf;
}

bool has_side_effects(const NODE* tree) {
    if (!tree) return false;
    int op = tree->opcode;
    if (op < 0 || op >= NUM_OPCODES) return true;
    unsigned se = side_effects[op];
    if (se == 1 || se == 255) return true;
    if (is_volatile_access(tree)) return true;
    // A division may trap unless the divisor is a nonzero constant.
    if ((op == DIV || op == MOD) && !(is_icon(tree->right) && !tree->right->value.is_zero())) return true;
    if (op == SCON || op == LABEL) return false;
    return has_side_effects(tree->left) || has_side_effects(tree->right);
}

// ---------------------------------------------------------------------------
// Known bits

namespace {

// The type in which a shift's left operand is taken: int or unsigned int
// when it is narrower than int.
TYPE* shift_operand_type(TYPE* t) {
    TYPE* it = integer_view(t);
    if (!it) return t;
    if (it->size < type_pkg->int_size(TYPE::IK_INT))
        return type_pkg->mk_int(it->signed_flag ? TYPE::IK_INT : TYPE::IK_UINT, it->signed_flag);
    return t;
}

INT65 finish_mask(INT65 m, const NODE* tree, TYPE* type) {
    m = truncate_to_type(m, tree->type);
    return truncate_to_type(m, type);
}

// Bits above the width of an unsigned type are zero in every value.
INT65 zeros_above(TYPE* type) {
    TYPE* it = integer_view(type);
    if (!it || it->signed_flag) return INT65(0);
    return ~width_mask(it);
}

}  // namespace

INT65 find_known_ones(const NODE* tree, TYPE* type) {
    // Integers only: a pointer's bits are not known, whatever it points to.
    if (!tree || !is_integer_type(type) || !is_integer_type(tree->type)) return INT65(0);
    const NODE* l = tree->left;
    const NODE* r = tree->right;
    INT65 m(0);
    switch (tree->opcode) {
    case NAME: {
        TYPE* it = integer_view(tree->symbol ? tree->symbol->type : nullptr);
        if (it && tree->symbol->type->stripped()->kind == TYPE::INT_T && it->size >= 16 && wst_trustable) {
            auto f = wst_known_ones.find(tree->symbol);
            if (f != wst_known_ones.end()) m = f->second;
        }
        break;
    }
    case ICON: m = tree->value; break;
    case MULT:
    case MULTASG:
        if (is_icon(r) && is_power_of_2(r->value, nullptr)) m = find_known_ones(l, tree->type) * r->value;
        break;
    case ANDB:
    case ANDBASG: m = find_known_ones(l, tree->type) & find_known_ones(r, tree->type); break;
    case ORB:
    case ORBASG: m = find_known_ones(l, tree->type) | find_known_ones(r, tree->type); break;
    case QUEST:
        if (r && r->opcode == COLON) m = find_known_ones(r->left, tree->type) & find_known_ones(r->right, tree->type);
        break;
    case ASG: m = find_known_ones(r, tree->type); break;
    case SCONV:
    case ISP2CHAR: m = find_known_ones(l, tree->type); break;
    case SLL:
    case SLLASG:
        if (is_icon(r)) m = find_known_ones(l, shift_operand_type(l->type)) << r->value;
        break;
    case SRL:
    case SRLASG:
        if (is_icon(r)) {
            TYPE* lt = shift_operand_type(l->type);
            INT65 count = r->value.is_negative() ? -r->value : r->value;
            m = find_known_ones(l, lt);
            m = r->value.is_negative() ? m << count : m >> r->value;
            if (!is_signed_int(lt)) m = m & (r->value.is_negative() ? width_mask(lt) << count : width_mask(lt) >> r->value);
        }
        break;
    case SSA_USE:
    case SSA_DEF:
    case SSA_MU:
    case SSA_CHI: m = find_known_ones(l, tree->type); break;
    default: break;
    }
    return finish_mask(m, tree, type);
}

INT65 find_known_zeros(const NODE* tree, TYPE* type) {
    if (!tree || !integer_view(type) || !integer_view(tree->type)) return INT65(0);
    const NODE* l = tree->left;
    const NODE* r = tree->right;
    INT65 m(0);
    switch (tree->opcode) {
    case ICON: m = ~tree->value; break;
    case NAME: m = zeros_above(tree->type); break;
    case MULT:
    case MULTASG: {
        unsigned k;
        if (is_icon(r) && is_power_of_2(r->value, &k))
            m = (find_known_zeros(l, tree->type) << INT65(static_cast<int>(k))) | (r->value - INT65(1));
        break;
    }
    case ANDB:
    case ANDBASG: m = find_known_zeros_in_ANDB(tree, tree->type); break;
    case ORB:
    case ORBASG: m = find_known_zeros(l, tree->type) & find_known_zeros(r, tree->type); break;
    case XORB:
    case XORBASG: {
        INT65 zl = find_known_zeros(l, tree->type), zr = find_known_zeros(r, tree->type);
        INT65 ol = find_known_ones(l, tree->type), orr = find_known_ones(r, tree->type);
        m = (zl & zr) | (ol & orr);
        break;
    }
    case QUEST:
        if (r && r->opcode == COLON) m = find_known_zeros(r->left, tree->type) & find_known_zeros(r->right, tree->type);
        break;
    case ASG: m = find_known_zeros(r, tree->type); break;
    case SCONV:
    case ISP2CHAR:
        m = find_known_zeros(l, l->type) | zeros_above(l->type);
        if (!is_signed_int(l->type)) m = m | ~width_mask(l->type);
        break;
    case SLL:
    case SLLASG:
        if (is_icon(r) && !r->value.is_negative())
            m = (find_known_zeros(l, shift_operand_type(l->type)) << r->value) | ((INT65(1) << r->value) - INT65(1));
        break;
    case SRL:
    case SRLASG:
        if (is_icon(r) && !r->value.is_negative()) {
            TYPE* lt = shift_operand_type(l->type);
            m = find_known_zeros(l, lt) | zeros_above(lt);
            m = m >> r->value;
            if (!is_signed_int(lt)) m = m | ~(width_mask(lt) >> r->value);
        }
        break;
    case EQ: case NEQ: case LE: case LT: case GE: case GT: case ULE: case ULT: case UGE: case UGT:
    case FEQ: case FNEQ: case FLE: case FLT: case FGE: case FGT: case FEQN: case FNEQN: case FLEN: case FLTN:
    case FGEN: case FGTN: case FORD: case FUNO: case ANDAND: case OROR: case EXCLAIM:
        m = ~INT65(1);
        break;
    case SSA_USE:
    case SSA_DEF:
    case SSA_MU:
    case SSA_CHI: m = find_known_zeros(l, tree->type); break;
    default: break;
    }
    if (simp_range_oracle) {
        if (auto range = simp_range_oracle(tree)) m = m | range->known_zeros;
    }
    return finish_mask(m, tree, type);
}

INT65 find_known_zeros_in_ANDB(const NODE* tree, TYPE* type) {
    OPT_REQUIRE(tree && (tree->opcode == ANDB || tree->opcode == ANDBASG));
    return find_known_zeros(tree->left, type) | find_known_zeros(tree->right, type);
}

// Bits that are the same in every value of [lo, hi] and are one (or zero):
// the bits above the highest bit in which lo and hi differ.
INT65 find_known_ones_in_range(INT65 lo, INT65 hi) {
    if (hi < lo) return INT65(0);
    // The bits above the highest one in which lo and hi differ are the same
    // in every value between them.
    INT65 diff = lo ^ hi;
    if (diff.is_zero()) return lo;
    if (diff.is_negative()) return INT65(0);  // they differ in the 65th bit
    int differing = 64 - __builtin_clzll(diff.low_word());
    return lo & (~INT65(0) << INT65(differing));
}

INT65 find_known_zeros_in_range(INT65 lo, INT65 hi) {
    if (hi < lo) return INT65(0);
    return find_known_ones_in_range(~hi, ~lo);
}

NODE* prop_mask_into_subtree(NODE* tree, INT65 mask) {
    if (!tree || !is_int_type(tree->type)) return tree;
    if (tree->opcode == ANDB && is_icon(tree->right) && !has_side_effects(tree->right)) {
        // (x & c) under a mask that c covers: the AND changes nothing.
        INT65 c = tree->right->value;
        if (((c & mask) ^ mask).is_zero() || (((c | find_known_zeros(tree->left, tree->type)) & mask) ^ mask).is_zero())
            return prop_mask_into_subtree(keep_operand(tree, tree->left), mask);
    }
    if (tree->opcode == SCONV && tree->left && is_int_type(tree->left->type) &&
        int_width(tree->left->type) >= int_width(tree->type) && ((mask & ~width_mask(tree->type)).is_zero()) &&
        int_width(tree->type) == int_width(tree->left->type))
        return keep_operand(tree, tree->left);
    return tree;
}

// ---------------------------------------------------------------------------
// Booleans

bool returns_1_or_0(const NODE* tree) {
    if (!tree) return false;
    if (is_truth_operator(tree->opcode)) return true;
    if (is_icon(tree)) return tree->value == INT65(0) || tree->value == INT65(1);
    if (!integer_view(tree->type)) return false;
    INT65 z = find_known_zeros(tree, tree->type);
    return ((z | INT65(1)) & width_mask(tree->type)) == width_mask(tree->type);
}

bool tree_is_trivially_invertible(const NODE* tree) {
    return tree && tree->opcode >= 0 && tree->opcode < NUM_OPCODES && boolean_inv[tree->opcode] != ILLOP;
}

NODE* invert_boolean_tree(NODE* tree) {
    TYPE* int_t = type_pkg->mk_int(TYPE::IK_INT, true);
    bool vector = tree->type && tree->type->stripped()->kind == TYPE::VECTOR_T;
    if (!vector && tree->opcode == EQ && is_constant_and_zero(tree->right) && returns_1_or_0(tree->left)) {
        NODE* l = tree->left;
        erase_tree(tree->right);
        tree->left = tree->right = nullptr;
        erase_node(tree);
        return retype(l, int_t);
    }
    if (tree_is_trivially_invertible(tree)) {
        tree->opcode = boolean_inv[tree->opcode];
        return tree;
    }
    // !(a && b) is !a || !b, and the other way round.
    if ((tree->opcode == ANDAND || tree->opcode == OROR) && tree_is_trivially_invertible(tree->left) &&
        tree_is_trivially_invertible(tree->right)) {
        tree->opcode = tree->opcode == ANDAND ? OROR : ANDAND;
        tree->left->opcode = boolean_inv[tree->left->opcode];
        tree->right->opcode = boolean_inv[tree->right->opcode];
        return tree;
    }
    TYPE* t = tree->type;
    if (vector) {
        TYPE* etype = t->stripped()->base;
        if (!etype || !etype->stripped()->is_scalar()) optassert("TYPE_IS_SCALAR(etype)", THIS_MODULE, __LINE__);
        TYPE* e = etype->stripped();
        TYPE::IKIND k = e->size <= 16 ? TYPE::IK_SHORT : e->size <= 32 ? TYPE::IK_LONG : TYPE::IK_LLONG;
        TYPE* lane = type_pkg->mk_int(k, true);
        TYPE* vt = type_pkg->mk_vector(lane, false, t->stripped()->count);
        return mktree(EQ, vt, tree, new_node(ICON, lane));
    }
    bool floating = t && t->is_floating();
    NODE* zero;
    if (floating) {
        zero = new_node(FCON, t);
        zero->mx().text = "0";
    } else {
        zero = new_icon(INT65(0), t && integer_view(t) ? t : int_t);
    }
    return mktree(floating ? FEQ : EQ, int_t, tree, zero);
}

NODE* make_boolean(NODE* tree, struct LOOP* loop) {
    (void)loop;
    if (tree->opcode == PCONV && is_icon(tree->left)) {
        NODE* c = tree->left;
        tree->left = nullptr;
        erase_node(tree);
        tree = c;
    }
    if (is_icon(tree)) {
        bool nonzero = !tree->value.is_zero();
        tree->type = type_pkg->mk_int(TYPE::IK_INT, true);
        tree->value = INT65(nonzero ? 1 : 0);
    }
    return tree;
}

// The tree as a truth value 0 or 1 of type int.
static NODE* as_truth_value(NODE* tree, struct LOOP* loop) {
    tree = make_boolean(tree, loop);
    TYPE* int_t = type_pkg->mk_int(TYPE::IK_INT, true);
    if (returns_1_or_0(tree)) return retype(tree, int_t);
    bool floating = tree->type && tree->type->is_floating();
    NODE* zero;
    if (floating) {
        zero = new_node(FCON, tree->type);
        zero->mx().text = "0";
    } else {
        zero = new_icon(INT65(0), integer_view(tree->type) ? tree->type : int_t);
    }
    return simp_relop(mktree(floating ? FNEQN : NEQ, int_t, tree, zero), loop);
}

// ---------------------------------------------------------------------------
// Constant folding

bool compare_values(int op, INT65 a, INT65 b) {
    switch (op) {
    case EQ: return a == b;
    case NEQ: return a != b;
    case LT: case ULT: return a < b;
    case LE: case ULE: return a <= b;
    case GT: case UGT: return a > b;
    default: return a >= b;
    }
}

std::optional<INT65> folded_value(const NODE* n) {
    const NODE* l = n->left;
    const NODE* r = n->right;
    int op = n->opcode;
    if (op < 0 || op >= NUM_OPCODES || !is_icon(l) || (number_of_operands[op] == 2 && !is_icon(r))) return std::nullopt;
    TYPE* t = n->type;
    if (!integer_view(t)) return std::nullopt;
    TYPE* ot = l->type && integer_view(l->type) ? l->type : t;
    INT65 a = l->value;
    INT65 b = r ? r->value : INT65(0);
    INT65 v;
    switch (op) {
    case PLUS: v = a + b; break;
    case MINUS: v = a - b; break;
    case MULT: v = a * b; break;
    case DIV:
    case MOD:
        if (b.is_zero()) return std::nullopt;  // left for the machine to trap
        v = op == DIV ? a / b : a % b;
        break;
    case ANDB: v = a & b; break;
    case ORB: v = a | b; break;
    case XORB: v = a ^ b; break;
    case SLL:
    case SRL: {
        TYPE* lt = shift_operand_type(ot);
        if (b.is_negative() || b >= INT65(static_cast<int>(int_width(lt)))) return std::nullopt;  // undefined: leave it
        a = truncate_to_type(a, lt);
        v = op == SLL ? a << b : a >> b;
        break;
    }
    case UMINUS: v = -a; break;
    case NOTB: v = ~a; break;
    case EXCLAIM: v = INT65(a.is_zero() ? 1 : 0); break;
    case ANDAND: v = INT65(!a.is_zero() && !b.is_zero() ? 1 : 0); break;
    case OROR: v = INT65(!a.is_zero() || !b.is_zero() ? 1 : 0); break;
    case SCONV:
    case PCONV: v = a; break;
    case EQ: case NEQ: case LT: case LE: case GT: case GE: case ULT: case ULE: case UGT: case UGE: {
        if (!integer_view(ot)) return std::nullopt;
        if (is_unsigned_relop(op) || !is_signed_int(ot)) {
            a = a & width_mask(ot);
            b = truncate_to_type(b, ot) & width_mask(ot);
        } else {
            a = truncate_to_type(a, ot);
            b = truncate_to_type(b, ot);
        }
        v = INT65(compare_values(op, a, b) ? 1 : 0);
        break;
    }
    default: return std::nullopt;
    }
    return truncate_to_type(v, t);
}

NODE* fold_constants(NODE* n) {
    std::optional<INT65> v = folded_value(n);
    return v ? replace_by_constant(n, *v, n->type) : n;
}

// ---------------------------------------------------------------------------
// Handlers

NODE* simp_assoc(NODE* n) {
    // A constant goes to the right of a commutable operator, and a constant
    // inside a chain of the same operator is combined with the outer one:
    // (x op c1) op c2 -> x op (c1 op c2).
    int op = n->opcode;
    if (commute_inv[op] == op && is_icon(n->left) && !is_icon(n->right)) std::swap(n->left, n->right);
    if (!is_int_type(n->type) || !is_icon(n->right)) return n;
    NODE* l = n->left;
    if (l->opcode != op || !is_icon(l->right) || !exact_types(l->type, n->type)) return n;
    if (op != PLUS && op != MULT && op != ANDB && op != ORB && op != XORB) return n;
    NODE* c = mktree(op, n->type, l->right, n->right);
    n->right = fold_constants(c);
    n->left = l->left;
    l->left = l->right = nullptr;
    erase_node(l);
    return n;
}

NODE* simp_PLUS(NODE* n) {
    bool pointer = n->type && n->type->stripped()->kind == TYPE::PTR_T;
    if (!is_int_type(n->type) && !pointer) return n;
    if (!pointer) n = simp_assoc(n);
    if (n->opcode != PLUS) return n;
    if (icon_is(n->right, 0)) return retype(keep_operand(n, n->left), n->type);
    if (!pointer && icon_is(n->left, 0)) return retype(keep_operand(n, n->right), n->type);
    // (x - c1) + c2 -> x + (c2 - c1);  p + c1 + c2 with the same constant type.
    NODE* l = n->left;
    if (is_icon(n->right) && l->opcode == MINUS && is_icon(l->right) && exact_types(l->type, n->type) && !pointer) {
        INT65 c = n->right->value - l->right->value;
        erase_node(n->right);
        n->right = new_icon(c, n->type);
        n->left = l->left;
        erase_node(l->right);
        l->left = l->right = nullptr;
        erase_node(l);
        return simp_PLUS(n);
    }
    if (pointer && is_icon(n->right) && l->opcode == PLUS && is_icon(l->right) && exact_types(l->type, n->type) &&
        exact_types(l->right->type, n->right->type)) {
        l->right->value = truncate_to_type(l->right->value + n->right->value, l->right->type);
        erase_node(n->right);
        n->left = n->right = nullptr;
        erase_node(n);
        return l;
    }
    // x + (-y) -> x - y
    if (n->right->opcode == UMINUS && exact_types(n->right->type, n->type)) {
        NODE* neg = n->right;
        n->right = neg->left;
        neg->left = nullptr;
        erase_node(neg);
        n->opcode = MINUS;
        return simp_MINUS(n);
    }
    return n;
}

NODE* simp_MINUS(NODE* n) {
    if (!is_int_type(n->type) || !is_int_type(n->left->type) || !is_int_type(n->right->type)) return n;
    if (icon_is(n->right, 0)) return retype(keep_operand(n, n->left), n->type);
    if (same_tree(n->left, n->right) && !has_side_effects(n->left)) return replace_by_constant(n, INT65(0), n->type);
    if (icon_is(n->left, 0)) {
        NODE* r = n->right;
        erase_node(n->left);
        n->left = r;
        n->right = nullptr;
        n->opcode = UMINUS;
        return n;
    }
    // x - c -> x + (-c): constants then only ever appear added.
    if (is_icon(n->right) && exact_types(n->right->type, n->type)) {
        n->right->value = truncate_to_type(-n->right->value, n->type);
        n->opcode = PLUS;
        return simp_PLUS(n);
    }
    return n;
}

NODE* simp_MULT(NODE* n) {
    if (!is_int_type(n->type)) return n;
    n = simp_assoc(n);
    if (n->opcode != MULT || !is_icon(n->right)) return n;
    INT65 c = n->right->value;
    if (c.is_zero()) return replace_by_constant(n, INT65(0), n->type);
    if (c == INT65(1)) return retype(keep_operand(n, n->left), n->type);
    if (truncate_to_type(c, n->type) == truncate_to_type(INT65(-1), n->type) && exact_types(n->left->type, n->type)) {
        erase_node(n->right);
        n->right = nullptr;
        n->opcode = UMINUS;
        return n;
    }
    unsigned k;
    if (is_power_of_2(c & width_mask(n->type), &k) && k > 0 && k < int_width(n->type)) {
        // Strength reduction: x * 2^k -> x << k, the same bits in the type.
        n->opcode = SLL;
        erase_node(n->right);
        n->right = new_icon(INT65(static_cast<int>(k)), type_pkg->mk_int(TYPE::IK_INT, true));
        return n;
    }
    return n;
}

NODE* simp_DIV_by_ICON(NODE* n) {
    INT65 c = n->right->value;
    if (c == INT65(1)) return retype(keep_operand(n, n->left), n->type);
    bool is_signed = is_signed_int(n->type);
    if (is_signed && c == INT65(-1) && exact_types(n->left->type, n->type)) {
        erase_node(n->right);
        n->right = nullptr;
        n->opcode = UMINUS;
        return n;
    }
    unsigned k;
    if (!is_power_of_2(c, &k) || k == 0) return n;
    // A quotient by 2^k is a right shift when the dividend can't be negative.
    bool nonnegative = !is_signed;
    if (is_signed) {
        unsigned w = int_width(n->type);
        INT65 z = find_known_zeros(n->left, n->type);
        nonnegative = !((z >> INT65(static_cast<int>(w - 1))) & INT65(1)).is_zero();
    }
    if (!nonnegative) return n;
    n->opcode = SRL;
    erase_node(n->right);
    n->right = new_icon(INT65(static_cast<int>(k)), type_pkg->mk_int(TYPE::IK_INT, true));
    return n;
}

NODE* simp_DIV(NODE* n) {
    if (!is_int_type(n->type) || !is_icon(n->right) || n->right->value.is_zero()) return n;
    return simp_DIV_by_ICON(n);
}

NODE* simp_MOD(NODE* n) {
    if (!is_int_type(n->type) || !is_icon(n->right) || n->right->value.is_zero()) return n;
    INT65 c = n->right->value;
    if (c == INT65(1) || (c == INT65(-1) && is_signed_int(n->type))) return replace_by_constant(n, INT65(0), n->type);
    unsigned k;
    if (!is_power_of_2(c, &k)) return n;
    bool nonnegative = !is_signed_int(n->type);
    if (!nonnegative) {
        unsigned w = int_width(n->type);
        INT65 z = find_known_zeros(n->left, n->type);
        nonnegative = !((z >> INT65(static_cast<int>(w - 1))) & INT65(1)).is_zero();
    }
    if (!nonnegative) return n;
    n->opcode = ANDB;
    n->right->value = c - INT65(1);
    return n;
}

NODE* simp_shift(NODE* n) {
    if (!is_int_type(n->type) || !is_icon(n->right)) return n;
    INT65 c = n->right->value;
    if (c.is_zero()) return retype(keep_operand(n, n->left), n->type);
    NODE* l = n->left;
    // (x << c1) << c2 -> x << (c1 + c2) when the sum is still a legal count.
    if (l->opcode == n->opcode && is_icon(l->right) && exact_types(l->type, n->type) && !c.is_negative() &&
        !l->right->value.is_negative()) {
        INT65 sum = c + l->right->value;
        if (sum < INT65(static_cast<int>(int_width(n->type)))) {
            n->right->value = sum;
            n->left = l->left;
            erase_node(l->right);
            l->left = l->right = nullptr;
            erase_node(l);
        }
    }
    return n;
}

// True when the comparison op(a, b) holds for every a in [alo, ahi] and b
// (and *known is set), or fails for every one; false when it is undecided.
static bool decide_by_range(int op, INT65 lo, INT65 hi, INT65 b, bool* result) {
    switch (op) {
    case EQ:
        if (lo == hi && lo == b) return *result = true, true;
        if (b < lo || b > hi) return *result = false, true;
        return false;
    case NEQ:
        if (lo == hi && lo == b) return *result = false, true;
        if (b < lo || b > hi) return *result = true, true;
        return false;
    case LT: case ULT:
        if (hi < b) return *result = true, true;
        if (lo >= b) return *result = false, true;
        return false;
    case LE: case ULE:
        if (hi <= b) return *result = true, true;
        if (lo > b) return *result = false, true;
        return false;
    case GT: case UGT:
        if (lo > b) return *result = true, true;
        if (hi <= b) return *result = false, true;
        return false;
    case GE: case UGE:
        if (lo >= b) return *result = true, true;
        if (hi < b) return *result = false, true;
        return false;
    default: return false;
    }
}

NODE* simp_redundant_test(NODE* n, struct LOOP* loop) {
    (void)loop;
    if (!is_relop(n->opcode) || n->opcode >= FEQ || !is_icon(n->right) || !integer_view(n->left->type)) return n;
    if (has_side_effects(n->left)) return n;
    TYPE* ot = n->left->type;
    INT65 b = n->right->value;
    bool result = false;
    bool decided = false;
    // Known bits decide equality.
    if (n->opcode == EQ || n->opcode == NEQ) {
        INT65 ones = find_known_ones(n->left, ot), zeros = find_known_zeros(n->left, ot);
        INT65 m = width_mask(ot);
        if (!(((ones & ~b) | (zeros & b)) & m).is_zero()) decided = true, result = n->opcode == NEQ;
    }
    // So does a value range from value propagation (ranges are of the
    // value as held in its type, so unsigned compares want a non-negative lo).
    if (!decided && simp_range_oracle) {
        if (auto range = simp_range_oracle(n->left)) {
            bool unsigned_cmp = is_unsigned_relop(n->opcode) || !is_signed_int(ot);
            b = unsigned_cmp ? b & width_mask(ot) : truncate_to_type(b, ot);
            if (!unsigned_cmp || !range->lo.is_negative())
                decided = decide_by_range(n->opcode, range->lo, range->hi, b, &result);
        }
    }
    if (!decided) return n;
    erase_tree(n->left);
    erase_node(n->right);
    n->left = n->right = nullptr;
    TYPE* t = n->type;
    erase_node(n);
    return new_icon(INT65(result ? 1 : 0), t);
}

namespace {
// An assertion in force that settles the comparison: 1 or 0, or -1.
int decided_by_assertion(const NODE* n) {
    FUNINFO* fi = currfuninfo;
    if (!fi || !fi->assertions_in_force) return -1;
    for (const NODE* a : fi->assertions) {
        if (same_tree(a, n)) return 1;
        if (tree_is_trivially_invertible(a) && boolean_inv[a->opcode] == n->opcode && same_tree(a->left, n->left) &&
            same_tree(a->right, n->right))
            return 0;
    }
    return -1;
}
}  // namespace

namespace {
// A zero, converted or not.
bool is_null(const NODE* t) {
    while (t && (t->opcode == PCONV || t->opcode == SCONV)) t = t->left;
    return is_icon(t) && t->value.is_zero();
}
// &x for a local x, converted and moved by constants.
bool is_local_address(const NODE* t) {
    bool moved;
    const SYMTAB* s = addressed_symbol(t, moved);
    return s && !s->global;
}
}  // namespace

const SYMTAB* addressed_symbol(const NODE* t, bool& moved) {
    moved = false;
    while (t && (t->opcode == PCONV || ((t->opcode == PLUS || t->opcode == MINUS) && is_icon(t->right)))) {
        t = t->left;
        moved = true;
    }
    return t && t->opcode == UAND && t->left && t->left->opcode == NAME ? t->left->symbol : nullptr;
}

NODE* simp_relop(NODE* n, struct LOOP* loop) {
    int op = n->opcode;
    if (op == EXCLAIM) {
        NODE* operand = n->left;
        n->left = nullptr;
        erase_node(n);
        return invert_boolean_tree(make_boolean(operand, loop));
    }
    if (op >= FEQ) return n;  // floating comparisons are left as they are
    // The constant goes right: c < x -> x > c.
    if (is_icon(n->left) && !is_icon(n->right) && commute_inv[op] != ILLOP) {
        std::swap(n->left, n->right);
        n->opcode = op = commute_inv[op];
    }
    NODE* l = n->left;
    NODE* r = n->right;
    TYPE* ot = l->type;
    if (!integer_view(ot)) return n;
    if (same_tree(l, r) && !has_side_effects(l)) {
        bool res = op == EQ || op == LE || op == GE || op == ULE || op == UGE;
        return replace_by_constant(n, INT65(res ? 1 : 0), n->type);
    }
    // A local's address, moved by constants, is never null.
    if ((op == EQ || op == NEQ) && ((is_null(r) && is_local_address(l)) || (is_null(l) && is_local_address(r))))
        return replace_by_constant(n, INT65(op == NEQ ? 1 : 0), n->type);
    if (is_icon(r)) {
        bool unsigned_cmp = is_unsigned_relop(op) || !is_signed_int(ot);
        if (unsigned_cmp && r->value.is_zero()) {
            // Nothing is below zero when unsigned.
            if (op == ULT || op == LT) return replace_by_constant(n, INT65(0), n->type);
            if (op == UGE || op == GE) return replace_by_constant(n, INT65(1), n->type);
            if (op == ULE || op == LE) n->opcode = op = EQ;
            if (op == UGT || op == GT) n->opcode = op = NEQ;
        }
        // (x + c1) == c2 -> x == c2 - c1: adding is a bijection in the type.
        if ((op == EQ || op == NEQ) && l->opcode == PLUS && is_icon(l->right) && is_int_type(l->type) &&
            exact_types(l->left->type, l->type)) {
            r->value = truncate_to_type(r->value - l->right->value, l->type);
            r->type = l->type;
            n->left = l->left;
            erase_node(l->right);
            l->left = l->right = nullptr;
            erase_node(l);
        }
        // A comparison result against 0 or 1.
        if ((op == EQ || op == NEQ) && returns_1_or_0(n->left) && (r->value.is_zero() || r->value == INT65(1))) {
            bool keep_sense = (op == NEQ) == r->value.is_zero();
            NODE* inner = n->left;
            bool logical = inner->opcode == ANDAND || inner->opcode == OROR;
            // !(a && b) is !a || !b, and the other way round, when both
            // operands invert in place.
            bool de_morgan = logical && tree_is_trivially_invertible(inner->left) &&
                             tree_is_trivially_invertible(inner->right);
            if (is_relop(inner->opcode) || inner->opcode == EXCLAIM || (logical && (keep_sense || de_morgan))) {
                erase_node(r);
                n->left = n->right = nullptr;
                erase_node(n);
                return keep_sense ? inner : invert_boolean_tree(inner);
            }
        }
    }
    int by_assertion = decided_by_assertion(n);
    if (by_assertion >= 0) return replace_by_constant(n, INT65(by_assertion), n->type);
    return simp_redundant_test(n, loop);
}

NODE* simp_ANDOR_ANDOR(NODE* n, struct LOOP* loop) {
    bool is_and = n->opcode == ANDAND;
    TYPE* t = n->type ? n->type : type_pkg->mk_int(TYPE::IK_INT, true);
    if (is_icon(n->left)) {
        bool v = !n->left->value.is_zero();
        if (v == is_and) {  // 1 && x, 0 || x: the value of x as a truth value
            NODE* r = n->right;
            erase_node(n->left);
            n->left = n->right = nullptr;
            erase_node(n);
            return as_truth_value(r, loop);
        }
        erase_tree(n);  // 0 && x, 1 || x: x is never evaluated
        return new_icon(INT65(v ? 1 : 0), t);
    }
    if (is_icon(n->right)) {
        bool v = !n->right->value.is_zero();
        if (v == is_and) {  // x && 1, x || 0
            NODE* l = n->left;
            erase_node(n->right);
            n->left = n->right = nullptr;
            erase_node(n);
            return as_truth_value(l, loop);
        }
        return replace_by_constant(n, INT65(v ? 1 : 0), t);  // x && 0, x || 1 when x has no effect
    }
    return n;
}

NODE* simp_STREF(NODE* n, struct LOOP* loop) {
    NODE* p = n->left;
    NODE* f = n->right;
    fkMDATA* m = f ? f->x().fld_member : nullptr;
    // p + c -> *((member type *) p + c'), the member's offset folded in.
    if (p->opcode == PLUS && is_icon(p->right) && m && !m->nums.empty()) {
        bool bit_field = m->nums.size() > 1 && (m->nums[1] & 1);
        long long offset = m->nums.back();
        bool must_preserve_STDOT = n->type && n->type->is_aggregate();
        if (!bit_field && offset != 0 && !must_preserve_STDOT && n->type) {
            TYPE* ptr = type_pkg->mk_ptr(n->type);
            NODE* base = p->left;
            NODE* c = p->right;
            c->value = truncate_to_type(c->value + INT65(offset >> 4), c->type);
            p->left = p->right = nullptr;
            erase_node(p);
            erase_tree(f);
            TYPE* t = n->type;
            n->left = n->right = nullptr;
            erase_node(n);
            NODE* sum = simp_PLUS(mktree(PLUS, ptr, retype(base, ptr), c));
            return mktree(UMULT, t, sum);
        }
    }
    // (&s)->m -> s.m
    if (p->opcode == UAND && p->left && p->left->type) {
        TYPE* s = p->left->type->stripped();
        if ((s->kind == TYPE::STRUCT_T || s->kind == TYPE::UNION_T || s->kind == TYPE::CLASS_T) && p->type &&
            p->type->stripped()->kind == TYPE::PTR_T && p->type->stripped()->base &&
            p->type->stripped()->base->stripped() == s) {
            n->left = p->left;
            p->left = nullptr;
            erase_node(p);
            n->opcode = STDOT;
            return n;
        }
    }
    if (p->type && p->type->stripped()->kind == TYPE::PTR_T) {
        // A pointer to an array of records names the record type's members.
        TYPE* csu = p->type->stripped()->base;
        while (csu && csu->stripped()->kind == TYPE::ARRAY_T) csu = csu->stripped()->base;
        if (!csu || !csu->stripped()->is_aggregate()) optassert("csu_type->is_array()", THIS_MODULE, __LINE__);
    }
    (void)loop;
    return n;
}

NODE* simp_UMULT(NODE* n, struct LOOP* loop) {
    NODE* p = n->left;
    if (p->opcode == STREF) return n;  // already put in shape by simp_STREF
    n->left = p = simp_ss_tree(p, false);
    // *(T*)a where a is an array of T: the conversion is implied.
    if (p->opcode == PCONV && p->left && p->left->type && p->left->type->stripped()->kind == TYPE::ARRAY_T &&
        p->type->stripped()->base && compatible_types(p->left->type->stripped()->base, p->type->stripped()->base, true)) {
        n->left = p->left;
        p->left = nullptr;
        erase_node(p);
        p = n->left;
    }
    // *f(&a, &b, c) of a built-in of three arguments: f(a, b, c), in the
    // indirection's type.
    if (p->opcode == ICALL && p->left && p->left->opcode == PCOMMA && p->left->left &&
        p->left->left->opcode == UAND && p->left->right && p->left->right->opcode == PCOMMA &&
        p->left->right->left && p->left->right->left->opcode == UAND && p->left->right->right &&
        p->left->right->right->opcode != PCOMMA) {
        auto indirection = [&](NODE*& arg) {
            TYPE* t = arg->left && arg->left->type ? arg->left->type : n->type;
            arg = simp_UMULT(mktree(UMULT, t, arg), loop);
        };
        indirection(p->left->left);
        indirection(p->left->right->left);
        p->type = n->type;
        n->left = nullptr;
        erase_node(n);
        return p;
    }
    auto qualified = [](TYPE* t) { return (TYPE_qual_kind(t) & 2) != 0; };
    if (!trees_are_normalized && (p->opcode == UAND || p->opcode == ARGREF) && p->left &&
        !(qualified(n->type) && !qualified(p->left->type))) {
        if (p->opcode == ARGREF || (n->type && p->left->type && exact_types(n->type, p->left->type))) {
            NODE* x = p->left;
            p->left = nullptr;
            erase_node(p);
            n->left = nullptr;
            erase_node(n);
            return x;
        }
    }
    bool scon = p->opcode == SCON || (p->opcode == PLUS && ((p->left && p->left->opcode == SCON) ||
                                                            (p->right && p->right->opcode == SCON)));
    if (scon && n->type && n->type->kind != TYPE::QUAL_T) n->type = type_pkg->mk_qual(n->type, 1);
    return n;
}

NODE* simp_SCONV(NODE* n) {
    NODE* x = n->left;
    if (!x || !n->type || !x->type) return n;
    if (exact_types(n->type, x->type)) return keep_operand(n, x);
    if (is_icon(x) && integer_view(n->type) && integer_view(x->type)) return fold_constants(n);
    // (T1)(T2)x with x of T0, all integers: when T2 is at least as wide as T0
    // the low bits of x survive, so T1 no wider than T0 needs only (T1)x.
    if (x->opcode == SCONV && is_int_type(n->type) && is_int_type(x->type) && x->left && is_int_type(x->left->type)) {
        unsigned w0 = int_width(x->left->type), w1 = int_width(n->type), w2 = int_width(x->type);
        // A value masked to what T2 holds keeps its value through (T2).
        NODE* v = x->left;
        NODE* mask = v->opcode == ANDB ? (is_icon(v->right) ? v->right : is_icon(v->left) ? v->left : nullptr) : nullptr;
        bool fits = mask && !mask->value.is_negative() && truncate_to_type(mask->value, x->type) == mask->value;
        if ((w2 >= w0 && w1 <= w0) || fits) {
            NODE* inner = x->left;
            x->left = nullptr;
            erase_node(x);
            n->left = inner;
            if (exact_types(n->type, inner->type)) return keep_operand(n, inner);
        }
    }
    return n;
}

NODE* simp_PCONV(NODE* n) {
    if (!n->left || !n->type || !n->left->type) return n;
    // Pointers of every type have one size: a chain of conversions between
    // them is the last one.
    NODE* x = n->left;
    if (x->opcode == PCONV && x->left && x->left->type && x->left->type->stripped()->kind == TYPE::PTR_T &&
        x->type->stripped()->kind == TYPE::PTR_T && n->type->stripped()->kind == TYPE::PTR_T) {
        n->left = x->left;
        x->left = nullptr;
        erase_node(x);
    }
    if (exact_types(n->type, n->left->type)) return keep_operand(n, n->left);
    return n;
}

NODE* simp_ASG(NODE* n) { return truncate_RHS_for_assignment(n); }

NODE* truncate_RHS_for_assignment(NODE* asg) {
    NODE* r = asg->right;
    NODE* l = asg->left;
    if (!r || !l || !is_icon(r) || !integer_view(l->type)) return asg;
    r->value = truncate_to_type(r->value, l->type);
    r->type = l->type;
    // A conversion of the right side that only the assignment narrows.
    return asg;
}

NODE* simp_call(NODE* n) { return n; }
NODE* simp_for_control(NODE* n) { return n; }
NODE* simp_MEMCPY(NODE* n) { return n; }

NODE* simp_vector_VSCONV(NODE* n) {
    if (n->left && n->type && n->left->type && exact_types(n->type, n->left->type)) return keep_operand(n, n->left);
    return n;
}
NODE* simp_vector_VRCONV(NODE* n) { return simp_vector_VSCONV(n); }
NODE* simp_vector_VFIELD(NODE* n) { return n; }
NODE* simp_vector_pack(NODE* n) { return n; }
NODE* simp_vector_node(NODE* n) {
    switch (n->opcode) {
    case VSCONV: return simp_vector_VSCONV(n);
    case VRCONV: return simp_vector_VRCONV(n);
    case VFIELD: return simp_vector_VFIELD(n);
    default: return simp_vector_pack(n);
    }
}

NODE* bubble_term_to_top(NODE* tree, NODE* term) {
    int op = tree->opcode;
    if (tree->right == term || commute_inv[op] != op) return tree;
    if (tree->left == term) {
        std::swap(tree->left, tree->right);
        return tree;
    }
    // ((a op term) op b) -> ((a op b) op term)
    NODE* l = tree->left;
    if (l && l->opcode == op && exact_types(l->type, tree->type)) {
        l = bubble_term_to_top(l, term);
        tree->left = l;
        if (l->right == term) {
            l->right = tree->right;
            tree->right = term;
        }
    }
    return tree;
}

int andor_andor_height(const NODE* tree, int* n, const NODE** term) {
    if (!tree || (tree->opcode != ANDAND && tree->opcode != OROR)) {
        if (n) ++*n;
        if (term) *term = tree;
        return 0;
    }
    int hl = tree->left && tree->left->opcode == tree->opcode ? andor_andor_height(tree->left, n, term) : 0;
    if (!(tree->left && tree->left->opcode == tree->opcode)) andor_andor_height(tree->left, n, term);
    int hr = tree->right && tree->right->opcode == tree->opcode ? andor_andor_height(tree->right, n, term) : 0;
    if (!(tree->right && tree->right->opcode == tree->opcode)) andor_andor_height(tree->right, n, term);
    return 1 + (hl > hr ? hl : hr);
}

bool cancel_common_simple_factors(NODE*& a, NODE*& b) {
    auto shift_of = [](const NODE* t) -> int {
        if (t && t->opcode == SLL && is_icon(t->right) && !t->right->value.is_negative())
            return t->right->value.as<int>();
        return 0;
    };
    int k = std::min(shift_of(a), shift_of(b));
    if (k == 0) return false;
    for (NODE** t : {&a, &b}) {
        (*t)->right->value = (*t)->right->value - INT65(k);
        if ((*t)->right->value.is_zero()) *t = keep_operand(*t, (*t)->left);
    }
    return true;
}

// ---------------------------------------------------------------------------
// Driver and dispatch

NODE* expunge_IDENTITY_ops_from_tree(NODE* tree) {
    if (!tree) return tree;
    while (tree->opcode == IDENTITY && tree->left) tree = keep_operand(tree, tree->left);
    walk_and_modify_tree(tree, [](NODE*& slot) {
        while (slot->opcode == IDENTITY && slot->left) slot = keep_operand(slot, slot->left);
    });
    return tree;
}

// A part of a complex value made of its parts is that part, when the other
// part has no effects: REAL(COMPLEX(a, b)) is a, IMAG(COMPLEX(a, b)) is b.
NODE* simp_complex_part(NODE* n) {
    NODE* c = n->left;
    if (!c || c->opcode != COMPLEX || !c->left || !c->right || !c->type || !n->type) return n;
    TYPE* complex = c->type->stripped();
    if (complex->kind != TYPE::COMPLEX_T || !complex->base) return n;
    NODE* part = n->opcode == REAL ? c->left : c->right;
    NODE* other = n->opcode == REAL ? c->right : c->left;
    if (has_side_effects(other) || !part->type || part->type->stripped() != complex->part_type()->stripped() ||
        n->type->stripped() != complex->part_type()->stripped())
        return n;
    n->left = keep_operand(c, part);
    return keep_operand(n, n->left);
}

NODE* simp_node(NODE* n, struct LOOP* loop) {
    if (!n) return n;
    int op = n->opcode;
    OPT_REQUIRE(op != ILLOP);
    if (op < 0 || op >= NUM_OPCODES) return n;
    int arity = number_of_operands[op];
    if ((arity == 1 || arity == 2) && is_icon(n->left) && (arity == 1 || is_icon(n->right)) && op != QUEST &&
        op != CBRANCH && op != ASG && op != PCONV) {
        if (std::optional<INT65> v = folded_value(n)) return replace_by_constant(n, *v, n->type);
    }
    switch (op) {
    case PLUS: return simp_PLUS(n);
    case MINUS: return simp_MINUS(n);
    case MULT: return simp_MULT(n);
    case DIV: return simp_DIV(n);
    case MOD: return simp_MOD(n);
    case ANDB:
    case ORB:
    case XORB: {
        n = simp_assoc(n);
        if (n->opcode == op && is_icon(n->right) && is_int_type(n->type)) {
            INT65 c = n->right->value & width_mask(n->type);
            INT65 full = width_mask(n->type);
            if (op == ANDB) {
                if (c.is_zero()) return replace_by_constant(n, INT65(0), n->type);
                INT65 z = find_known_zeros(n->left, n->type) & full;
                if (((c | z) & full) == full) return retype(keep_operand(n, n->left), n->type);
                if ((c & ~z).is_zero()) return replace_by_constant(n, INT65(0), n->type);
            } else if (c.is_zero()) {
                return retype(keep_operand(n, n->left), n->type);
            } else if (op == ORB && c == full) {
                return replace_by_constant(n, INT65(-1), n->type);
            } else if (op == ORB && ((c & ~find_known_ones(n->left, n->type)) & full).is_zero()) {
                return retype(keep_operand(n, n->left), n->type);
            }
        }
        if (n->opcode == op && same_tree(n->left, n->right) && !has_side_effects(n->left)) {
            if (op == XORB) return replace_by_constant(n, INT65(0), n->type);
            return retype(keep_operand(n, n->left), n->type);
        }
        return n;
    }
    case SLL:
    case SRL: return simp_shift(n);
    case EQ: case NEQ: case LE: case LT: case GE: case GT: case ULE: case ULT: case UGE: case UGT: case EXCLAIM:
    case FEQ: case FNEQ: case FLE: case FLT: case FGE: case FGT: case FEQN: case FNEQN: case FLEN: case FLTN:
    case FGEN: case FGTN: case FORD: case FUNO:
        return simp_relop(n, loop);
    case ANDAND:
    case OROR: return simp_ANDOR_ANDOR(n, loop);
    case UMINUS:
        if (n->left->opcode == UMINUS && is_int_type(n->type) && exact_types(n->left->type, n->type)) {
            NODE* inner = n->left;
            n->left = nullptr;
            erase_node(n);
            return keep_operand(inner, inner->left);
        }
        return n;
    case NOTB:
        if (n->left->opcode == NOTB && exact_types(n->left->type, n->type)) {
            NODE* inner = n->left;
            n->left = nullptr;
            erase_node(n);
            return keep_operand(inner, inner->left);
        }
        return n;
    case QUEST: {
        NODE* c = n->left;
        NODE* arms = n->right;
        c = n->left = make_boolean(c, loop);
        if (is_icon(c) && arms && arms->opcode == COLON) {
            NODE* keep = c->value.is_zero() ? arms->right : arms->left;
            NODE* drop = c->value.is_zero() ? arms->left : arms->right;
            erase_tree(drop);
            arms->left = arms->right = nullptr;
            erase_node(arms);
            erase_node(c);
            n->left = n->right = nullptr;
            erase_node(n);
            return keep;
        }
        if (arms && arms->opcode == COLON && same_tree(arms->left, arms->right) && !has_side_effects(c)) {
            NODE* keep = arms->left;
            erase_tree(arms->right);
            arms->left = arms->right = nullptr;
            erase_node(arms);
            erase_tree(c);
            n->left = n->right = nullptr;
            erase_node(n);
            return keep;
        }
        return n;
    }
    case CBRANCH: n->left = make_boolean(n->left, loop); return n;
    case ASG: return simp_ASG(n);
    case CALL:
    case UCALL:
    case ICALL:
    case UICALL: return simp_call(n);
    case LOOP: return simp_for_control(n);
    case STREF: return simp_STREF(n, loop);
    case UMULT: return simp_UMULT(n, loop);
    case SCONV: return simp_SCONV(n);
    case PCONV: return simp_PCONV(n);
    case MEMCPY: return simp_MEMCPY(n);
    case REAL:
    case IMAG: return simp_complex_part(n);
    case VSCONV:
    case VRCONV:
    case VFIELD:
    case VPACK:
    case VPACKM:
    case VPACK1P: return simp_vector_node(n);
    default: return n;
    }
}

NODE* simp_tree(NODE* tree, struct LOOP* loop) {
    if (!tree) return tree;
    FUNINFO* fi = currfuninfo;
    if (tree->opcode == ASSERT && fi && fi->assertions_in_force) {
        // An assertion is never simplified with the help of the assertions.
        struct RESTORE {
            FUNINFO* fi;
            struct LOOP* loop;
            bool loop_was;
            ~RESTORE() {
                fi->assertions_in_force = true;
                if (loop) loop->assertions_in_force = loop_was;
            }
        } restore{fi, loop, loop ? loop->assertions_in_force : false};
        fi->assertions_in_force = false;
        if (loop) loop->assertions_in_force = false;
        return simp_tree(tree, loop);
    }
    if (tree->opcode == LABEL || tree->opcode == FIELD) return tree;
    if (tree->left) tree->left = simp_tree(tree->left, loop);
    if (tree->right) tree->right = simp_tree(tree->right, loop);
    return simp_node(tree, loop);
}

NODE* simp_ss_tree(NODE* tree, bool distribute) {
    tree = simp_tree(tree, nullptr);
    // (i + c) * k -> i * k + c * k: the constant part of a subscript apart.
    if (distribute && tree && tree->opcode == MULT && is_icon(tree->right) && tree->left->opcode == PLUS &&
        is_icon(tree->left->right) && is_int_type(tree->type) && exact_types(tree->left->type, tree->type)) {
        NODE* sum = tree->left;
        NODE* k = tree->right;
        INT65 ck = truncate_to_type(sum->right->value * k->value, tree->type);
        erase_node(sum->right);
        sum->right = new_icon(ck, tree->type);
        tree->left = sum->left;
        sum->left = simp_node(tree, nullptr);
        return simp_node(sum, nullptr);
    }
    return tree;
}

void simp_all_trees() {
    if (print_debug && FDEBUG)
        DBG_CHECK(std::fputs("\n\n\t\t\t---------- ENTERING 'simp_all_trees' ----------\n", FDEBUG));
    FUNINFO* fi = currfuninfo;
    // The asserted conditions as they stand now (copies: the statements
    // themselves may be rewritten meanwhile).
    for (NODE* a : fi->assertions) erase_tree(a);
    fi->assertions.clear();
    for (BBLK* b : layout_blocks())
        for (BODY_ENTRY& e : b->statements)
            if (e.tree && e.tree->opcode == ASSERT && e.tree->left) fi->assertions.push_back(copy_tree(e.tree->left));
    fi->assertions_in_force = !fi->assertions.empty();
    for (BBLK* b : layout_blocks())
        for (BODY_ENTRY& e : b->statements) {
            e.tree = expunge_IDENTITY_ops_from_tree(e.tree);
            e.tree = simp_tree(e.tree, nullptr);
        }
    fi->assertions_in_force = false;
    for (NODE* a : fi->assertions) erase_tree(a);
    fi->assertions.clear();
}
