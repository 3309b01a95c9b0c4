#include "OPT5/conditional_paths.h"

#include <cstdio>
#include <optional>
#include <set>
#include <unordered_map>
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
#include "UTIL/ptr_map.h"

namespace {

// Rounds of straightening: a path straightened may decide another test.
constexpr int MAX_ROUNDS = 2;
// Blocks followed back from a predecessor for an earlier test.
constexpr int MAX_HOPS = 8;

// `x op k`, with x on the left.
struct var_test {
    const SYMTAB* x = nullptr;
    int op = 0;
    INT65 k;
    TYPE* type = nullptr;  // the integer type both are compared in
};

bool is_signed_relation(int op) { return op == EQ || op == NEQ || op == LT || op == LE || op == GT || op == GE; }

class straightener {
public:
    straightener() : taken_(address_taken_symbols()) {}

    int run() {
        int changes = 0;
        for (BBLK* b = currfuninfo->bb_list; b; b = b->next)
            for (const BODY_ENTRY& e : b->statements)
                if (e.tree && e.tree->opcode == ASM) return 0;
        // Tests against constants the front end wrote converted are folded
        // first.
        for (BBLK* b = currfuninfo->bb_list; b; b = b->next)
            if (!b->statements.empty() && b->statements.back().tree && b->statements.back().tree->opcode == CBRANCH) {
                NODE* jump = b->statements.back().tree;
                if (jump->left) jump->left = simp_tree(jump->left, nullptr);
            }
        // Splitting first: every block made is examined again.
        std::vector<BBLK*> work;
        for (BBLK* b = currfuninfo->bb_list; b; b = b->next) work.push_back(b);
        int splits = 0;
        while (!work.empty()) {
            BBLK* b = work.back();
            work.pop_back();
            if (BBLK* made = split(b)) {
                ++splits;
                work.push_back(b);
                work.push_back(made);
            }
        }
        if (splits) rebuildcfg();
        changes += splits;
        for (int round = 0; round < MAX_ROUNDS; ++round) {
            int n = thread_round();
            if (n == 0) break;
            changes += n;
            rebuildcfg();
        }
        if (changes > splits) simpcfg(false, false);
        return changes;
    }

private:
    std::set<const SYMTAB*> taken_;

    std::optional<var_test> test_of(const NODE* c) const {
        if (!c || !is_signed_relation(c->opcode) || !c->left || !c->right) return std::nullopt;
        const NODE* name = c->left;
        const NODE* k = c->right;
        int op = c->opcode;
        if (name->opcode == ICON) {
            std::swap(name, k);
            op = commute_inv[op];
        }
        if (name->opcode != NAME || k->opcode != ICON || !name->symbol || !name->type || !name->symbol->type)
            return std::nullopt;
        TYPE* type = integer_view(name->type);
        if (!type || is_pointer_type(name->type) || !exact_types(name->type, name->symbol->type) ||
            integer_view(k->type) != type || !is_private_variable(name->symbol, taken_))
            return std::nullopt;
        if (op != EQ && op != NEQ && !type->signed_flag) return std::nullopt;  // signed orders only
        return var_test{name->symbol, op, k->value, type};
    }

    // Whether a compound condition is worth splitting: one of its operands
    // tests a variable against a constant.
    bool worth_splitting(const NODE* c) const {
        for (const NODE* part : {c->left, c->right}) {
            while (part && part->opcode == EXCLAIM) part = part->left;
            if (test_of(part)) return true;
        }
        return false;
    }

    static int label_of(const NODE* jump) { return jump->right ? jump->right->value.as<int>() : -1; }

    // b ends with `if (a && b) goto L` or the like: two jumps.  Returns
    // the block made for the second, or null.
    BBLK* split(BBLK* b) {
        if (b->statements.empty() || !b->next) return nullptr;
        BODY_ENTRY& last = b->statements.back();
        NODE* jump = last.tree;
        if (!jump || jump->opcode != CBRANCH || !jump->left || !jump->right) return nullptr;
        NODE* c = jump->left;
        bool negated = false;
        while (c->opcode == EXCLAIM && c->left) {
            c = c->left;
            negated = !negated;
        }
        if ((c->opcode != ANDAND && c->opcode != OROR) || !c->left || !c->right || !worth_splitting(c)) return nullptr;
        bool either = (c->opcode == OROR) != negated;  // the jump is taken when either part holds
        NODE* first = c->left;
        NODE* second = c->right;
        c->left = c->right = nullptr;
        erase_tree(jump->left);
        if (negated) {
            first = invert_boolean_tree(first);
            second = invert_boolean_tree(second);
        }
        BBLK* fall = b->next;
        int target = label_of(jump);
        BBLK* made = insert_new_bb_with_branch(0, b, fall, &last.pos);
        erase_tree(made->statements.front().tree);
        made->statements.front().tree = mktree(CBRANCH, jump->type, second, mk_LABELREF(target));
        // either: jump on the first part to L, then on the second;
        // both: when the first fails, skip the second.
        if (either) {
            jump->left = first;
        } else {
            jump->left = invert_boolean_tree(first);
            jump->right->value = INT65(fall->label);
        }
        return made;
    }

    static std::optional<bool> decide(bool always, bool never) {
        if (always) return true;
        if (never) return false;
        return std::nullopt;
    }

    // What x op k is, for every value x has where `fact` is `holds`.
    static std::optional<bool> implied(const var_test& fact, bool holds, const var_test& t) {
        if (fact.type != t.type) return std::nullopt;
        int op = holds ? fact.op : boolean_inv[fact.op];
        unsigned w = int_width(t.type);
        INT65 half = INT65(1) << INT65(static_cast<int64_t>(w) - 1);
        INT65 lo = -half, hi = half - INT65(1);
        if (!t.type->signed_flag) {
            lo = INT65(0);
            hi = half + half - INT65(1);
        }
        if (op == NEQ) {  // every value but k
            if (t.k == fact.k && (t.op == EQ || t.op == NEQ)) return t.op == NEQ;
            return std::nullopt;
        }
        INT65 k = fact.k;
        switch (op) {
        case EQ: lo = hi = k; break;
        case LT: hi = k - INT65(1); break;
        case LE: hi = k; break;
        case GT: lo = k + INT65(1); break;
        case GE: lo = k; break;
        default: return std::nullopt;
        }
        if (hi < lo) return std::nullopt;  // no value: the path never runs
        INT65 c = t.k;
        switch (t.op) {
        case EQ:
            if (lo == hi && lo == c) return true;
            if (c < lo || hi < c) return false;
            return std::nullopt;
        case NEQ:
            if (lo == hi && lo == c) return false;
            if (c < lo || hi < c) return true;
            return std::nullopt;
        case LT: return decide(hi < c, lo >= c);
        case LE: return decide(hi <= c, lo > c);
        case GT: return decide(lo > c, hi <= c);
        case GE: return decide(lo >= c, hi < c);
        default: return std::nullopt;
        }
    }

    static bool assigns(const BBLK* b, const SYMTAB* x) {
        for (const BODY_ENTRY& e : b->statements)
            if (e.tree && assigns_variable(e.tree, x)) return true;
        return false;
    }

    // How the test t of block b comes out when entered from `pred`, when a
    // test of the same variable on the way there decides it.
    std::optional<bool> decided(BBLK* pred, BBLK* b, const var_test& t,
                                const ptr_map<const BBLK*, int>& position) const {
        BBLK* from = pred;
        BBLK* to = b;
        for (int hops = 0; hops < MAX_HOPS; ++hops) {
            const NODE* last = from->last_tree();
            bool ends_in_test = last && last->opcode == CBRANCH;
            std::optional<var_test> fact = ends_in_test ? test_of(last->left) : std::nullopt;
            if (fact && fact->x == t.x) {  // what comes before the test does not matter
                bool jumps_to = label_of(last) == to->label;
                bool falls_to = from->next == to;
                if (jumps_to == falls_to) return std::nullopt;
                return implied(*fact, jumps_to, t);
            }
            if (assigns(from, t.x)) return std::nullopt;
            if (!from->predecessors || from->predecessors->rest) return std::nullopt;
            to = from;
            from = from->predecessors->bb;
            const int* at = position.find(from);
            const int* here = position.find(to);
            if (from == b || !at || !here || *at >= *here) return std::nullopt;  // only forward edges
        }
        return std::nullopt;
    }

    int thread_round() {
        ptr_map<const BBLK*, int> position;
        std::unordered_map<int, BBLK*> by_label;
        int n = 0;
        for (BBLK* b = currfuninfo->bb_list; b; b = b->next) {
            position[b] = ++n;
            by_label[b->label] = b;
        }
        struct straightening {
            BBLK* pred;
            BBLK* block;
            BBLK* to;
            bool fall;  // the predecessor falls into the block
        };
        std::vector<straightening> found;
        for (BBLK* b = currfuninfo->bb_list; b; b = b->next) {
            if (b->statements.size() != 1 || b == currfuninfo->bb_list) continue;
            const NODE* jump = b->statements.front().tree;
            std::optional<var_test> t = jump && jump->opcode == CBRANCH ? test_of(jump->left) : std::nullopt;
            auto found_label = t ? by_label.find(label_of(jump)) : by_label.end();
            if (found_label == by_label.end() || !b->next) continue;
            BBLK* const* taken = &found_label->second;
            int here = *position.find(b);
            bool loop_head = false;
            for (EDGE* p = b->predecessors; p; p = p->rest) loop_head |= *position.find(p->bb) >= here;
            if (loop_head) continue;
            for (EDGE* p = b->predecessors; p; p = p->rest) {
                BBLK* pred = p->bb;
                const NODE* last = pred->last_tree();
                std::vector<int> labels;
                bool falls = true;
                list_branch_targets(last, labels, falls);
                bool jumps = false;
                for (int l : labels) jumps |= l == b->label;
                bool fall = falls && pred->next == b;
                if (jumps == fall) continue;
                std::optional<bool> outcome = decided(pred, b, *t, position);
                if (!outcome) continue;
                BBLK* to = *outcome ? *taken : b->next;
                if (*position.find(to) <= here) continue;  // never backwards
                found.push_back({pred, b, to, fall});
            }
        }
        for (const straightening& s : found) {
            if (s.fall) insert_new_bb_with_branch(0, s.pred, s.to, &s.block->statements.front().pos);
            else subst_bb_for_bb_in_bb(s.to, s.block, s.pred);
            if (write_opt_info && finfo)
                std::fprintf(finfo, "Line %llu: a test decided on the way there is jumped over.\n",
                             static_cast<unsigned long long>(s.block->statements.front().pos.line));
        }
        return static_cast<int>(found.size());
    }
};

}  // namespace

int straighten_cond_paths() {
    if (opt_level() < 2 || !currfuninfo || !currfuninfo->bb_list) return 0;
    return straightener().run();
}
