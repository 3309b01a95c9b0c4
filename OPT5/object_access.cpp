#include "OPT5/object_access.h"

#include <utility>

#include "OPT5/copyprop.h"
#include "TYPES/type_pkg.h"

bool is_function_symbol(const SYMTAB* sym) {
    return sym && sym->type && sym->type->stripped()->kind == TYPE::FUNC_T;
}

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

void object_parts::add(const object_access& a) {
    if (!ok) return;
    ok = false;
    bool whole_scalar = a.whole() && !is_aggregate_object(a.sym);
    if ((a.whole() && !whole_scalar) || a.role == ADDRESS || (!a.whole() && !a.where.known) || is_volatile_access(*a.slot))
        return;
    TYPE* type = (*a.slot)->type;
    if (!type || !type->stripped()->is_scalar() || type->size == 0 || type->size % 16) return;
    int64_t off = whole_scalar ? 0 : a.where.offset.is_negative() ? -1 : a.where.offset.as<int64_t>();
    if (off < 0) return;
    int64_t units = static_cast<int64_t>(type->size / 16);
    if (static_cast<uint64_t>(off + units) * 16 > a.sym->size) return;
    auto it = at.find(off);
    if (it != at.end()) {
        TYPE* part = it->second->stripped();
        TYPE* mine = type->stripped();
        // Another view of the same bits: a conversion between integers of
        // one size keeps them (not so to or from bool).
        auto bits = [](TYPE* t) { return is_integer_type(t) && !(t->kind == TYPE::INT_T && t->subkind == TYPE::IK_BOOL); };
        if (exact_types(part, mine)) {
            ok = true;
        } else if (integer_views && bits(part) && bits(mine) && part->size == mine->size) {
            // A part updated in place keeps that access's type; the others
            // convert.
            ok = a.role != PLACE_READ || !updated.count(off);
            if (ok && a.role == PLACE_READ) it->second = type;
        }
        if (ok && a.role == PLACE_READ) updated.insert(off);
        return;
    }
    // No overlap with the parts before and after it.
    auto next = at.lower_bound(off);
    if (next != at.end() && next->first < off + units) return;
    if (next != at.begin()) {
        auto prev = std::prev(next);
        if (prev->first + static_cast<int64_t>(prev->second->size / 16) > off) return;
    }
    at[off] = type;
    if (a.role == PLACE_READ) updated.insert(off);
    ok = true;
}
