#include "OPT5/forward_substitution.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "BITVEC/bitvec.h"
#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/opt_client.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "UTIL/small_vector.h"

namespace {
const char THIS_MODULE[] = "OPT5/forward_substitution";

constexpr size_t MOST_APART = 16;
constexpr size_t MOST_NODES = 24;

// What a value reads: variables, and whether memory.
struct reads {
    std::vector<const SYMTAB*> vars;
    bool memory = false;
    bool volatile_access = false;
};

// What a statement may change, and how many things with effects it holds.
struct writes {
    std::vector<const SYMTAB*> vars;
    bool memory = false;
    int effects = 0;
    bool at_root = false;  // the statement's own root is one of them
};

reads reads_of(const NODE* e) {
    reads r;
    for_each_node(e, [&](const NODE* n) {
        if (is_volatile_access(n)) r.volatile_access = true;
        if (n->opcode == NAME && n->symbol) {
            if (lva_index(n->symbol) >= 0) r.vars.push_back(n->symbol);
            else if (!n->symbol->type || n->symbol->type->stripped()->kind != TYPE::FUNC_T) r.memory = true;
        } else if (n->opcode == UMULT || n->opcode == STREF) {
            r.memory = true;
        }
    });
    return r;
}

writes writes_of(const NODE* t) {
    writes w;
    for_each_node(t, [&](const NODE* n) {
        int op = n->opcode;
        if (side_effects[op] == 1) {
            ++w.effects;
            w.at_root |= n == t;
            const NODE* place = n->left;
            if (place && place->opcode == NAME && place->symbol && lva_index(place->symbol) >= 0)
                w.vars.push_back(place->symbol);
            else
                w.memory = true;
        } else if (side_effects[op] == 255 && op != PCOMMA && op != COMMAOP && op != PPRAGMA && op != NOP) {
            ++w.effects;
            w.at_root |= n == t;
            w.memory = true;
        }
    });
    return w;
}

bool shares(const std::vector<const SYMTAB*>& a, const std::vector<const SYMTAB*>& b) {
    for (const SYMTAB* x : a)
        if (std::find(b.begin(), b.end(), x) != b.end()) return true;
    return false;
}

// The only place in the statement where it reads `v` as a value; null when
// it reads it otherwise or more than once.
NODE** single_read(NODE*& t, const SYMTAB* v) {
    if (t->opcode != CALL && t->left && t->left->opcode == NAME && t->left->symbol == v &&
        (side_effects[t->opcode] == 1))
        return nullptr;  // it assigns v
    return single_name_slot(t, v);
}

class substituter {
public:
    int run() {
        int folded = 0;
        for (BBLK* b : layout_blocks()) folded += block(b);
        return folded;
    }

private:
    bool live_out(const BBLK* b, int index) const {
        for (EDGE* s = b->successors; s; s = s->rest)
            if (!s->bb->live_in || s->bb->live_in->test(static_cast<size_t>(index))) return true;
        return false;
    }

    // Whether nothing reads v after statement j before assigning it anew.
    bool dead_after(BBLK* b, size_t j, const SYMTAB* v, int index) const {
        std::vector<BODY_ENTRY>& st = b->statements;
        for (size_t k = j + 1; k < st.size(); ++k) {
            NODE* t = st[k].tree;
            if (!t) continue;
            int c = count_name(t, v);
            if (c == 0) continue;
            return t->opcode == ASG && t->left && t->left->opcode == NAME && t->left->symbol == v && c == 1;
        }
        return !live_out(b, index);
    }

    int block(BBLK* b) {
        std::vector<BODY_ENTRY>& st = b->statements;
        std::vector<char> gone(st.size(), 0);
        int folded = 0;
        for (size_t i = 0; i < st.size(); ++i) {
            NODE* def = st[i].tree;
            if (!def || def->opcode != ASG || !def->left || def->left->opcode != NAME || !def->right) continue;
            const SYMTAB* v = def->left->symbol;
            int index = v ? lva_index(v) : -1;
            if (index < 0 || has_side_effects(def->right) || count_name(def->right, v) != 0) continue;
            if (tree_size_up_to(def->right, MOST_NODES) > MOST_NODES) continue;
            reads r = reads_of(def->right);
            if (r.volatile_access) continue;
            for (size_t j = i + 1; j < st.size() && j <= i + MOST_APART; ++j) {
                if (gone[j] || !st[j].tree) continue;
                NODE*& use = st[j].tree;
                writes w = writes_of(use);
                if (count_name(use, v) == 0) {
                    if (shares(r.vars, w.vars) || (r.memory && w.memory)) break;
                    continue;
                }
                NODE** slot = single_read(use, v);
                if (!slot || w.effects > 1 || (w.effects == 1 && !w.at_root) || !dead_after(b, j, v, index)) break;
                TYPE* at = (*slot)->type;
                erase_node(*slot);
                *slot = converted(converted(def->right, def->left->type), at);
                use = simp_tree(use, nullptr);  // the value meets what is around it
                def->right = nullptr;
                erase_tree(def);
                st[i].tree = nullptr;
                gone[i] = 1;
                ++folded;
                if (print_debug) DBG_CHECK(std::fprintf(FDEBUG, "\tFolded into its use: %s\n", stmt2infix(use).c_str()));
                break;
            }
        }
        if (folded) {
            size_t k = 0;
            std::erase_if(st, [&](const BODY_ENTRY&) { return gone[k++] != 0; });
        }
        return folded;
    }
};

}  // namespace

int substitute_single_uses() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list || has_inline_assembly(fi->bb_list)) return 0;
    find_live_variables(true, false);
    int folded = substituter().run();
    free_liveness(fi);
    if (folded && write_opt_info && finfo)
        std::fprintf(finfo, "Function %s(): %d value%s computed for one use folded into it.\n", currfunc->name.c_str(),
                     folded, folded == 1 ? "" : "s");
    return folded;
}
