#include "OPT5/loop_rotation.h"

#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/ddbloop.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"

namespace {

// Tests larger than this stay where they are: the copy costs space.
constexpr int MAX_TEST_NODES = 24;

int node_count(const NODE* t, int limit) {
    if (!t || limit <= 0) return 0;
    int n = 1 + node_count(t->left, limit - 1);
    return n + node_count(t->right, limit - n);
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
    if (has_side_effects(test->left) || node_count(test->left, MAX_TEST_NODES + 1) > MAX_TEST_NODES) return false;

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
    return true;
}

}  // namespace

int rotate_loops() {
    if (opt_level() < 2 || !currfuninfo || !currfuninfo->bb_list) return 0;
    build_loop_hierarchy(false, false, false, 0);
    int rotated = 0;
    for (struct LOOP* loop : currfuninfo->loops) rotated += rotate(loop) ? 1 : 0;
    unbuild_loop_hierarchy();
    if (rotated) rebuildcfg();
    return rotated;
}
