#include "OPT5/object_access.h"

#include <utility>

#include "OPT5/copyprop.h"
#include "TYPES/type_pkg.h"

namespace {
bool is_function_symbol(const SYMTAB* sym) { return sym->type && sym->type->stripped()->kind == TYPE::FUNC_T; }
}  // namespace

bool mentions_volatile(const TYPE* t) {
    for (int depth = 0; t && depth < 64; ++depth) {
        if (t->kind == TYPE::QUAL_T && (t->qual & TYPE::Q_VOLATILE)) return true;
        if (t->kind != TYPE::QUAL_T && t->kind != TYPE::TYPEDEF_T && t->kind != TYPE::ARRAY_T) return false;
        t = t->base;
    }
    return false;
}

operand_role left_role(int op) {
    if (op == UAND) return ADDRESS;
    if (op == ASG || op == STASG || op == ARASG) return PLACE;
    return is_op_assign(op) ? PLACE_READ : VALUE;
}

direct_access access_through(const NODE* a, small_vector<const NODE*, 4>* indices) {
    direct_access d;
    while (a) {
        if (a->opcode == PCONV) {
            a = a->left;
        } else if (a->opcode == PLUS || a->opcode == MINUS) {
            if (!a->left || !a->right || is_pointer_type(a->right->type)) return {};
            const NODE* pointer = a->left;
            const NODE* other = a->right;
            if (!is_pointer_type(pointer->type)) {
                if (a->opcode == MINUS) return {};
                std::swap(pointer, other);
                if (!is_pointer_type(pointer->type)) return {};
            }
            if (indices) indices->push_back(other);
            if (other->opcode == ICON) d.offset = a->opcode == PLUS ? d.offset + other->value : d.offset - other->value;
            else d.known = false;
            a = pointer;
        } else if (a->opcode == UAND && a->left && a->left->opcode == NAME && a->left->symbol &&
                   !is_function_symbol(a->left->symbol)) {
            d.object = a->left->symbol;
            return d;
        } else {
            return {};
        }
    }
    return {};
}

