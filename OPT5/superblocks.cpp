#include "OPT5/superblocks.h"

#include <cstdio>
#include <vector>

#include "BITVEC/bitvec.h"
#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/symtab.h"

namespace {

constexpr int MAX_ROUNDS = 4;

// The tracked variables a tree names (read or assigned) and those it
// assigns.
void note_names(const NODE* tree, BITVEC& named, BITVEC& assigned) {
    std::vector<const NODE*> work{tree};
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
        if (n->opcode == NAME && n->symbol) {
            int i = lva_index(n->symbol);
            if (i >= 0) named.set(static_cast<size_t>(i));
            continue;
        }
        if (is_assignment(n->opcode) && n->left && n->left->opcode == NAME && n->left->symbol) {
            int i = lva_index(n->left->symbol);
            if (i >= 0) assigned.set(static_cast<size_t>(i));
        }
        work.push_back(n->left);
        work.push_back(n->right);
    }
}

// A value that may be computed later with the same result: pure operators
// over tracked variables (added to `reads`) and constants.
bool movable_value(const NODE* value, std::vector<size_t>& reads) {
    std::vector<const NODE*> work{value};
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        if (!n) continue;
        switch (n->opcode) {
        case ICON: case FCON: case SCON: continue;
        case UAND:
            if (!n->left || n->left->opcode != NAME) return false;
            continue;
        case NAME: {
            int i = n->symbol ? lva_index(n->symbol) : -1;
            if (i < 0 || is_volatile_access(n)) return false;
            reads.push_back(static_cast<size_t>(i));
            continue;
        }
        default:
            if (!is_pure_operator(n->opcode)) return false;
            work.push_back(n->left);
            work.push_back(n->right);
        }
    }
    return true;
}

// One successor of a branch and the block that takes the statements moved
// towards it: the successor itself when the branch is its only way in, else
// a block on the edge, made when first needed.
struct way_out {
    BBLK* successor;
    BBLK* place;
    const BITVEC& live() const { return *(place ? place : successor)->live_in; }
};

class sinker {
public:
    explicit sinker(size_t vars) : vars_(vars) {}

    // Moves the partially dead assignments before the branch that ends `b`.
    int sink_before_branch(BBLK* b) {
        if (b->statements.size() < 2) return 0;
        const NODE* branch = b->statements.back().tree;
        if (!branch || (branch->opcode != CBRANCH && branch->opcode != SWITCH)) return 0;
        std::vector<way_out> outs;
        for (EDGE* e = b->successors; e; e = e->rest) {
            if (e->bb == b || !e->bb->live_in) return 0;
            for (const way_out& o : outs)
                if (o.successor == e->bb) return 0;  // two ways to one block
            bool only_way = edge_length(e->bb->predecessors) == 1;
            outs.push_back({e->bb, only_way ? e->bb : nullptr});
        }
        if (outs.size() < 2) return 0;
        BITVEC named(vars_), assigned(vars_);
        note_names(branch, named, assigned);
        int moved = 0;
        for (size_t k = b->statements.size() - 1; k-- > 0;) {
            NODE* s = b->statements[k].tree;
            if (s && try_to_sink(b, k, outs, named, assigned)) {
                ++moved;
                continue;
            }
            note_names(s, named, assigned);
        }
        return moved;
    }

private:
    size_t vars_;

    bool try_to_sink(BBLK* b, size_t k, std::vector<way_out>& outs, const BITVEC& named, const BITVEC& assigned) {
        NODE* s = b->statements[k].tree;
        if (s->opcode != ASG || !s->left || s->left->opcode != NAME || !s->left->symbol) return false;
        int x = lva_index(s->left->symbol);
        if (x < 0 || named.test(static_cast<size_t>(x))) return false;
        std::vector<size_t> reads;
        if (!movable_value(s->right, reads)) return false;
        for (size_t r : reads)
            if (assigned.test(r)) return false;
        // Where the value is read: those ways get the assignment.
        size_t live = 0, edges = 0;
        for (const way_out& o : outs)
            if (o.live().test(static_cast<size_t>(x))) {
                ++live;
                if (!o.place) ++edges;
            }
        size_t spared = outs.size() - live;
        if (live == 0 || spared <= edges || live - 1 > spared) return false;
        for (way_out& o : outs) {
            if (!o.live().test(static_cast<size_t>(x))) continue;
            if (!o.place) {
                o.place = split_cfg_edge(b, o.successor);
                o.place->live_in = new BITVEC(*o.successor->live_in);
            }
            BODY_ENTRY copy = b->statements[k];
            copy.tree = copy_tree(s);
            o.place->statements.insert(o.place->statements.begin(), copy);
            o.place->live_in->reset(static_cast<size_t>(x));
            for (size_t r : reads) o.place->live_in->set(r);
        }
        if (write_opt_info && finfo)
            std::fprintf(finfo, "Assignment to %s at line %llu moved into the %zu of %zu branches that read it.\n",
                         s->left->symbol->name.c_str(), static_cast<unsigned long long>(b->statements[k].pos.line),
                         live, outs.size());
        erase_tree(s);
        b->statements.erase(b->statements.begin() + static_cast<long>(k));
        return true;
    }
};

}  // namespace

int sink_partially_dead_assignments() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return 0;
    int total = 0;
    for (int round = 0; round < MAX_ROUNDS; ++round) {
        find_live_variables(false, false);
        sinker s(static_cast<size_t>(lva_sym_count()));
        int moved = 0;
        for (BBLK* b : layout_blocks()) moved += s.sink_before_branch(b);
        total += moved;
        if (!moved) break;
    }
    free_liveness(fi);
    return total;
}
