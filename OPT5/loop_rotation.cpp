#include "OPT5/loop_rotation.h"

#include <set>
#include <vector>

#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/ddbloop.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"

namespace {

// Tests larger than this stay where they are: the copy costs space.
constexpr size_t MAX_TEST_NODES = 24;

// The test left in front of a rotated loop often reads what the block
// before it has just set (i = 0; if (i >= 10) ...): with those constants
// the test is decided, and becomes a jump or nothing.
// (The edges are still those of the loop before rotation: the latch is
// still among the guard's predecessors.)
void decide_entry_test(BBLK* guard, const BBLK* latch, const std::set<const SYMTAB*>& taken) {
    BBLK* before = nullptr;
    for (EDGE* e = guard->predecessors; e; e = e->rest) {
        if (e->bb == latch) continue;
        if (before) return;
        before = e->bb;
    }
    if (!before || before->next != guard || edge_length(before->successors) != 1) return;
    NODE* jump = guard->statements.front().tree;
    NODE* test = copy_tree(jump->left);
    bool known = true;
    std::vector<NODE**> work{&test};
    while (!work.empty() && known) {
        NODE** slot = work.back();
        work.pop_back();
        NODE* n = *slot;
        if (n->opcode != NAME) {
            if (n->left) work.push_back(&n->left);
            if (n->right) work.push_back(&n->right);
            continue;
        }
        known = false;
        if (!is_private_variable(n->symbol, taken)) break;
        for (auto it = before->statements.rbegin(); it != before->statements.rend(); ++it) {
            const NODE* t = it->tree;
            if (!t || !assigns_variable(t, n->symbol)) continue;
            if (t->opcode == ASG && t->left->opcode == NAME && t->right && t->right->opcode == ICON) {
                *slot = mk_ICON(t->right->value, n->type);
                erase_tree(n);
                known = true;
            }
            break;
        }
    }
    if (known) test = simp_tree(test, nullptr);
    if (!known || test->opcode != ICON) {
        erase_tree(test);
        return;
    }
    bool leaves = !test->value.is_zero();
    erase_tree(test);
    if (leaves) {
        guard->statements.front().tree = mktree(BRANCH, nullptr, jump->right);
        jump->right = nullptr;
        erase_tree(jump);
    } else {
        erase_tree(jump);
        guard->statements.clear();
    }
}

BBLK* block_with_label(EDGE* list, int label) {
    for (EDGE* e = list; e; e = e->rest)
        if (e->bb->label == label) return e->bb;
    return nullptr;
}

// Rotates one loop when it has the shape above; true when it did.
bool rotate(struct LOOP* loop) {
    BBLK* head = loop->head;
    BBLK* latch = loop->tail;
    if (latch == head || head->statements.size() != 1) return false;
    NODE* test = head->statements.front().tree;
    if (test->opcode != CBRANCH || !test->left || !test->right || test->right->opcode != LABEL) return false;
    int exit_label = test->right->value.as<int32_t>();
    BBLK* body = head->next;
    BBLK* exit = block_with_label(head->successors, exit_label);
    if (!body || body == exit || !loop_contains(loop, body) || !exit || loop_contains(loop, exit)) return false;
    if (latch->statements.empty()) return false;
    NODE* back = latch->statements.back().tree;
    if (back->opcode != BRANCH || !back->left || back->left->opcode != LABEL ||
        back->left->value.as<int32_t>() != head->label)
        return false;
    if (has_side_effects(test->left) || tree_size_up_to(test->left, MAX_TEST_NODES) > MAX_TEST_NODES) return false;

    NODE* again = invert_boolean_tree(copy_tree(test->left));
    PSN pos = latch->statements.back().pos;
    erase_tree(back);
    latch->statements.back().tree = mktree(CBRANCH, test->type, again, mk_LABELREF(body->label));
    if (latch->next != exit) {
        BODY_ENTRY leave;
        leave.tree = mktree(BRANCH, nullptr, mk_LABELREF(exit_label));
        leave.pos = pos;
        latch->statements.push_back(leave);
    }
    if (write_opt_info && finfo)
        std::fprintf(finfo, "Loop at line %llu rotated: its test is made at the bottom.\n",
                     head->statements.front().pos.line);
    decide_entry_test(head, latch, currfuninfo->address_taken);
    return true;
}

}  // namespace

int rotate_loops() {
    if (opt_level() < 2 || !currfuninfo || !currfuninfo->bb_list) return 0;
    build_loop_hierarchy(false, false, false, 0);
    int rotated = 0;
    for (struct LOOP* loop : currfuninfo->loops) rotated += rotate(loop) ? 1 : 0;
    unbuild_loop_hierarchy();
    if (rotated) {
        rebuildcfg();
        simpcfg(true, false);  // a loop that is never entered goes
    }
    return rotated;
}
