// How trees reach objects: the roles of operands, direct accesses
// `*(&x + offset)`, and a walk over the accesses of chosen objects.
#pragma once

#include <map>
#include <set>

#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "UTIL/small_vector.h"
#include "XINT/int65.h"

// How a node's value is used by its parent.
enum operand_role { VALUE, PLACE, PLACE_READ, ADDRESS };
// The role of an operator's left operand (the right one is always a value).
operand_role left_role(int op);

// The object an address points into when it is &x (any object, not a
// function) moved by integer offsets, through pointer conversions, with the
// offset in units when every step is a constant; the offsets' trees go to
// `indices`.  No object for any other address.
struct direct_access {
    SYMTAB* object = nullptr;
    INT65 offset;
    bool known = true;
};
direct_access access_through(const NODE* a, small_vector<const NODE*, 4>* indices);

// Whether a type is, or holds elements that are, volatile (an access's own
// type is asked by is_volatile_access).
bool mentions_volatile(const TYPE* t);

// Whether the symbol names a function.
bool is_function_symbol(const SYMTAB* sym);

// Whether the object is more than one scalar (an array, a structure): it
// lives in memory whatever is done with its address.
inline bool is_aggregate_object(SYMTAB* s) { return s->type && !s->type->stripped()->is_scalar(); }

// One access of an object by a statement.
struct object_access {
    SYMTAB* sym;
    operand_role role;
    NODE** slot;         // the access: the NAME of a whole object, or the *
    NODE** address;      // the & at the bottom of the *'s address; null for a NAME
    direct_access where;  // the *'s offset
    bool whole() const { return !address; }
};

// The scalar parts an object is reached as, by offset in units, each with
// the one type it is read and written as.  An access at an offset not
// known, of the whole of an aggregate, by address, volatile, reaching
// outside the object, overlapping another part or as another type at a
// part's offset spoils them (`ok` false).  A whole scalar is its part at 0.
// With `integer_views`, a part may also be accessed as another integer
// type of its size: the part takes the type of its updates in place (there
// may be only one), else of its first access, and the others convert.
struct object_parts {
    bool ok = true;
    bool integer_views = false;
    std::map<int64_t, TYPE*> at;
    std::set<int64_t> updated;  // offsets updated in place (x op= e)
    void add(const struct object_access& a);
};

// Simplifies the offsets of the tree's accesses to the objects `want`
// accepts that are not constants yet ("&t + 0 * 2").
template <typename W>
void fold_access_offsets(NODE* root, W&& want) {
    small_vector<NODE*, 32> work;
    work.push_back(root);
    while (!work.empty()) {
        NODE* n = work.back();
        work.pop_back();
        if (!n) continue;
        if (n->opcode == UMULT && n->left) {
            direct_access d = access_through(n->left, nullptr);
            if (d.object && !d.known && want(d.object)) n->left = simp_tree(n->left, nullptr);
        }
        work.push_back(n->left);
        work.push_back(n->right);
    }
}

// Hands every access of an object that `want` (asked with a variable, not
// a function) accepts in the tree to `f`, which may replace the access in
// its slot (then nothing under it is visited) or the & in its own; returns
// false when the tree holds inline assembly.  A NAME under & is an access
// in the ADDRESS role.
template <typename W, typename F>
bool for_each_access(NODE*& root, W&& want, F&& f) {
    auto wanted = [&](const SYMTAB* s) { return s && !is_function_symbol(s) && want(s); };
    struct item {
        NODE** slot;
        operand_role r;
    };
    small_vector<item, 32> work;
    work.push_back({&root, VALUE});
    while (!work.empty()) {
        auto [slot, r] = work.back();
        work.pop_back();
        NODE* n = *slot;
        if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
        int op = n->opcode;
        if (op == ASM) return false;
        if (op == NAME) {
            if (wanted(n->symbol)) f(object_access{n->symbol, r, slot, nullptr, {}});
            continue;
        }
        if (op == UMULT) {
            direct_access d = access_through(n->left, nullptr);
            if (wanted(d.object)) {
                // The & at the bottom of the address.
                NODE** at = &n->left;
                while ((*at)->opcode != UAND) {
                    NODE* a = *at;
                    if (a->opcode == PCONV) at = &a->left;
                    else at = is_pointer_type(a->left->type) ? &a->left : &a->right;
                }
                f(object_access{d.object, r, slot, at, d});
                if (*slot != n) continue;
                // The offsets, by their slots.
                for (NODE** s = &n->left; *s && *s != *at;) {
                    NODE* a = *s;
                    if (a->opcode == PCONV) {
                        s = &a->left;
                    } else {
                        bool left_is_pointer = is_pointer_type(a->left->type);
                        work.push_back({left_is_pointer ? &a->right : &a->left, VALUE});
                        s = left_is_pointer ? &a->left : &a->right;
                    }
                }
                continue;
            }
        }
        work.push_back({&n->left, left_role(op)});
        work.push_back({&n->right, VALUE});
    }
    return true;
}

// The accesses of the function's own locals.
template <typename F>
bool for_each_local_access(NODE*& root, F&& f) {
    return for_each_access(root, [](const SYMTAB* s) { return !s->global; }, f);
}
