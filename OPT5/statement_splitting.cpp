#include "OPT5/statement_splitting.h"

#include <optional>
#include <set>
#include <vector>

#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/object_access.h"
#include "OPT5/opcodes.h"
#include "OPT5/simp.h"
#include "TYPES/type_pkg.h"
#include "UTIL/small_vector.h"

namespace {

// The symbols whose address the function takes, worked out when first
// asked.
struct lazy_taken {
    std::optional<std::set<const SYMTAB*>> set;
    const std::set<const SYMTAB*>& get() {
        if (!set) set = address_taken_symbols();
        return *set;
    }
};

// Whether evaluating `tree` gives the same result after `moved` has run as
// before: no effects, no memory read, and only constants, addresses,
// functions and private variables `moved` does not assign.
bool unaffected_by(const NODE* tree, const NODE* moved, lazy_taken& taken) {
    if (!tree) return true;
    if (has_side_effects(tree)) return false;
    small_vector<const NODE*, 32> work;
    work.push_back(tree);
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        if (!n || n->opcode == LABEL || n->opcode == FIELD || n->opcode == ICON || n->opcode == FCON) continue;
        if (n->opcode == UAND && n->left && n->left->opcode == NAME) continue;  // an address
        if (n->opcode == NAME) {
            if (is_function_symbol(n->symbol)) continue;
            if (!is_private_variable(n->symbol, taken.get()) || assigns_variable(moved, n->symbol)) return false;
            continue;
        }
        if (n->opcode == UMULT || n->opcode == STREF || n->opcode == UAND) return false;
        work.push_back(n->left);
        work.push_back(n->right);
    }
    return true;
}

// The slot of the comma operator that the statement runs first, when its
// left operand may run as a statement of its own in front; null otherwise.
NODE** first_hoistable_comma(NODE*& root, lazy_taken& taken) {
    // The first comma in evaluation order (left operands first), with the
    // slots from the root down to it.
    small_vector<NODE**, 16> path;
    struct item {
        NODE** slot;
        size_t depth;
    };
    small_vector<item, 32> work;
    work.push_back({&root, 0});
    NODE** found = nullptr;
    while (!found && !work.empty()) {
        auto [slot, depth] = work.back();
        work.pop_back();
        NODE* n = *slot;
        if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
        path.resize(depth, nullptr);
        path.push_back(slot);
        if (n->opcode == COMMA) found = slot;
        work.push_back({&n->right, depth + 1});
        work.push_back({&n->left, depth + 1});
    }
    if (!found) return nullptr;
    NODE* comma = *found;
    if (!comma->left || !comma->right || !exact_types(comma->type, comma->right->type)) return nullptr;

    // What the statement evaluates before it.
    small_vector<const NODE*, 8> before;
    for (size_t k = 0; k + 1 < path.size(); ++k) {
        NODE* parent = *path[k];
        int op = parent->opcode;
        bool from_right = path[k + 1] == &parent->right;
        if (op == ASM) return nullptr;
        if (is_assignment(op)) {
            // Its place: a variable, or memory at an address evaluated first.
            const NODE* place = parent->left;
            if (place->opcode != NAME && place->opcode != UMULT) return nullptr;
            // x op= e also reads the place, maybe before e runs.
            if (from_right && is_op_assign(op)) before.push_back(place);
            else if (from_right && place->opcode == UMULT) before.push_back(place->left);
        } else if (from_right) {
            // The right operands of these run only when a condition holds.
            if (op == ANDAND || op == OROR || op == QUEST) return nullptr;
            before.push_back(parent->left);
        }
    }
    for (const NODE* b : before)
        if (!unaffected_by(b, comma->left, taken)) return nullptr;
    return found;
}

// Statements whose tree runs as an expression: assignments, calls, lists,
// and the values that jumps and returns compute.  Markers (assertions,
// loop and block bounds, pragmas, assembly) are left alone.
bool runs_as_expression(const NODE* t) {
    switch (t->opcode) {
    case BRANCH: case LABELDEF: case PPRAGMA: case ASM: case ASSERT: case NASSERT: case LOOP: case ENDLOOP:
    case DDNODE: case SKIP: case CASE: case DEFAULT: case BGNBLOCK: case ENDBLOCK: case ENDINIT: case INITLOOP:
        return false;
    default:
        return true;
    }
}

}  // namespace

int split_statements_at_commas() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 1 || !fi || !fi->bb_list) return 0;
    int hoisted = 0;
    lazy_taken taken;
    for (BBLK* b : layout_blocks()) {
        std::vector<BODY_ENTRY>& st = b->statements;
        for (size_t i = 0; i < st.size();) {
            NODE* t = st[i].tree;
            if (!t || !runs_as_expression(t)) {
                ++i;
                continue;
            }
            if (t->opcode == COMMA && t->left && t->right) {
                // (a , b): a; b; the parts without effects go.
                NODE* l = t->left;
                NODE* r = t->right;
                t->left = t->right = nullptr;
                erase_node(t);
                BODY_ENTRY second = st[i];
                st[i].tree = l;
                second.tree = r;
                st.insert(st.begin() + static_cast<long>(i) + 1, second);
                ++hoisted;
                for (size_t k : {i + 1, i})
                    if (!has_side_effects(st[k].tree)) {
                        erase_tree(st[k].tree);
                        st.erase(st.begin() + static_cast<long>(k));
                    }
                continue;
            }
            NODE** slot = first_hoistable_comma(st[i].tree, taken);
            if (!slot) {
                ++i;
                continue;
            }
            NODE* c = *slot;
            *slot = c->right;
            BODY_ENTRY part = st[i];
            part.tree = c->left;
            c->left = c->right = nullptr;
            erase_node(c);
            st.insert(st.begin() + static_cast<long>(i), part);
            ++hoisted;
            // The part itself is looked at next.
        }
    }
    return hoisted;
}
