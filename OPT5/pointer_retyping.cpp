#include "OPT5/pointer_retyping.h"

#include <cstdio>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"

namespace {

// Calls f(slot, parent, grandparent) for every node of every statement,
// parents first.
template <class F>
void for_each_node(F&& f) {
    std::vector<std::tuple<NODE**, NODE*, NODE*>> work;
    for (BBLK* b = currfuninfo->bb_list; b; b = b->next)
        for (BODY_ENTRY& e : b->statements) {
            if (!e.tree) continue;
            work.assign(1, {&e.tree, nullptr, nullptr});
            while (!work.empty()) {
                auto [slot, parent, grand] = work.back();
                work.pop_back();
                f(slot, parent, grand);
                NODE* n = *slot;
                if (n->right) work.push_back({&n->right, n, parent});
                if (n->left) work.push_back({&n->left, n, parent});
            }
        }
}

// The pointer variables that may change type, in classes of variables
// copied into or compared with one another.
class retyping {
public:
    retyping() : taken_(address_taken_symbols()) {
        for (const FUNC_SYM& s : function_symbols())
            if (!s.is_arg && is_pointer_type(s.sym->type) && is_private_variable(s.sym, taken_)) {
                parent_[s.sym] = s.sym;
                order_.push_back(s.sym);
            }
    }

    int run() {
        if (parent_.empty()) return 0;
        for_each_node([&](NODE** slot, NODE* parent, NODE* grand) { look_at(*slot, parent, grand); });
        // Each class: every member fit, one type its reads convert to.
        std::map<const SYMTAB*, TYPE*> type_of;
        std::set<const SYMTAB*> unfit;
        for (const SYMTAB* v : failed_) unfit.insert(find(v));
        for (auto& [conv, v] : conversions_) {
            const SYMTAB* root = find(v);
            auto [it, fresh] = type_of.emplace(root, conv->type);
            if (!fresh && it->second != conv->type) unfit.insert(root);
        }
        std::map<const SYMTAB*, TYPE*> new_type;
        for (const SYMTAB* v : order_) {
            const SYMTAB* root = find(v);
            auto it = type_of.find(root);
            if (it != type_of.end() && !unfit.count(root) && it->second != v->type) new_type[v] = it->second;
        }
        if (new_type.empty()) return 0;
        apply(new_type);
        for (const SYMTAB* v : order_) {  // in declaration order, for the information file
            auto it = new_type.find(v);
            if (it == new_type.end()) continue;
            const_cast<SYMTAB*>(v)->type = it->second;
            if (write_opt_info && finfo)
                std::fprintf(finfo, "Pointer '%s' takes the type its reads convert it to.\n", v->name.c_str());
        }
        return static_cast<int>(new_type.size());
    }

private:
    std::set<const SYMTAB*> taken_;
    std::vector<const SYMTAB*> order_;              // the candidates, as declared
    std::map<const SYMTAB*, const SYMTAB*> parent_;  // union-find over the candidates
    std::set<const SYMTAB*> failed_;
    std::map<NODE*, const SYMTAB*> conversions_;  // PCONV(v) nodes
    std::set<NODE*> defs_;                        // v = (something that is not a candidate)

    bool candidate(const NODE* n) const { return n && n->opcode == NAME && parent_.count(n->symbol); }
    const SYMTAB* find(const SYMTAB* v) {
        while (parent_[v] != v) v = parent_[v] = parent_[parent_[v]];
        return v;
    }
    void unite(const SYMTAB* a, const SYMTAB* b) { parent_[find(a)] = find(b); }

    void look_at(NODE* n, NODE* parent, NODE* grand) {
        if (!candidate(n)) return;
        const SYMTAB* v = n->symbol;
        if (parent && is_assignment(parent->opcode) && parent->left == n) {
            if (parent->opcode == ASG) {
                if (candidate(parent->right)) unite(v, parent->right->symbol);
                else defs_.insert(parent);
            } else if (!((parent->opcode == PLUSASG || parent->opcode == MINUSASG || parent->opcode == PLUSPLUS ||
                          parent->opcode == MINMIN) &&
                         parent->right && integer_view(parent->right->type))) {
                failed_.insert(v);
                return;
            }
            if (grand) read_by(v, parent, grand);  // the assignment's value is the variable's
            return;
        }
        read_by(v, n, parent);
    }

    // The value `val` of variable v is an operand of q.
    void read_by(const SYMTAB* v, NODE* val, NODE* q) {
        if (!q) return;
        if (q->opcode == PCONV && q->left == val && is_pointer_type(q->type)) {
            conversions_[q] = v;
            return;
        }
        NODE* other = q->left == val ? q->right : q->left;
        if ((is_relop(q->opcode) || (q->opcode == ASG && q->right == val)) && candidate(other)) {
            unite(v, other->symbol);
            return;
        }
        failed_.insert(v);
    }

    void apply(const std::map<const SYMTAB*, TYPE*>& new_type) {
        auto retyped = [&](const NODE* n) -> TYPE* {
            if (!n || n->opcode != NAME) return nullptr;
            auto it = new_type.find(n->symbol);
            return it == new_type.end() ? nullptr : it->second;
        };
        for_each_node([&](NODE** slot, NODE*, NODE*) {
            NODE* n = *slot;
            auto conv = conversions_.find(n);
            if (conv != conversions_.end() && new_type.count(conv->second)) {
                *slot = n = keep_operand(n, n->left);
                conversions_.erase(conv);
            }
            if (TYPE* t = retyped(n)) n->type = t;
            if (is_assignment(n->opcode))
                if (TYPE* t = retyped(n->left)) {
                    n->type = t;
                    if (defs_.count(n)) n->right = simp_tree(mktree(PCONV, t, n->right), nullptr);
                }
        });
    }
};

}  // namespace

int retype_converted_pointers() {
    if (opt_level() < 2 || !currfuninfo || !currfuninfo->bb_list) return 0;
    return retyping().run();
}
