// Basic blocks, edges and loops of a function.
// (The record LOOP shares its name with the opcode LOOP; code that sees both
// writes "struct LOOP".)
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "OPT5/funinfo.h"
#include "XINT/int65.h"

class NODE;
class BITVEC;
struct SYMTAB;
struct BBLK;
struct LOOP;
class Dominator;

// One cell of an edge list.
struct EDGE {
    BBLK* bb = nullptr;
    double weight = -1.0;  // -1.0: unknown
    EDGE* rest = nullptr;

    // Made by the thousand with every flow graph and freed with it: from
    // a cell pool of the thread (UTIL/cell_pool.h), never one by one from
    // the heap.
    static void* operator new(size_t size);
    static void operator delete(void* cell, size_t size) noexcept;
};

struct BBLK {
    std::vector<BODY_ENTRY> statements;  // trees with their positions
    BBLK* next = nullptr;                // layout order; null after the last block
    BBLK* prev = nullptr;                // circular: the entry's prev is the last block
    BBLK* chain = nullptr;               // blocks made after this one by insert_new_bb_with_branch
    EDGE* predecessors = nullptr;
    EDGE* successors = nullptr;
    int label = 0;                       // the block's label number
    struct LOOP* loop = nullptr;                // innermost loop holding the block
    int trace = 0;
    int dfn = 0;                         // 1-based layout position after renumber_bblocks
    bool visited = false;
    BITVEC* live_in = nullptr;           // variables live on entry (owned), after liveness

    const NODE* last_tree() const;
    // How dumps name the block: "BB 3 (L12)".
    std::string str() const;

    // From a cell pool, as edges are.
    static void* operator new(size_t size);
    static void operator delete(void* cell, size_t size) noexcept;
};

// An induction variable: assigned once per iteration by a constant step.
struct LOOPIV {
    const void* var = nullptr;  // the SYMTAB of the variable
    INT65 step;
};

// What a loop changes (find_region_constants): a private variable it does
// not assign is a constant of the loop, a shared one only when the loop
// changes no memory either.
struct loop_effects {
    std::set<const SYMTAB*> assigned;  // variables assigned by name
    bool memory = false;               // stores, calls, shared or volatile variables
    bool assembly = false;
};

struct LOOP {
    struct LOOP* parent = nullptr;
    std::vector<struct LOOP*> inner;  // the loops directly inside, in order of discovery
    struct LOOP* link = nullptr;
    struct LOOP* counterpart = nullptr;
    EDGE* contents = nullptr;   // every block of the loop, inner loops' blocks included
    EDGE* exits = nullptr;      // blocks outside the loop entered from it
    BBLK* preheader = nullptr;
    BBLK* head = nullptr;
    BBLK* tail = nullptr;       // the latch
    const void* LCV = nullptr;  // the loop-control variable (a SYMTAB), or null
    NODE* trips = nullptr;      // trip count, when the loop is counted (owned)
    int tripFactor = 0;         // a power of two the count is a multiple of (find_loop_assertions)
    int min_trips = 0;          // the fewest iterations, when known (find_loop_assertions)
    std::vector<LOOPIV> ivs;
    loop_effects effects;       // as find_region_constants last found them
    BITVEC* live_out = nullptr; // live where the loop may be left (owned), after liveness with loops
    uint32_t flags = 0;
    uint16_t uid = 0;
    uint16_t counter = 1;
    int16_t level = 42;         // 42 until assign_loop_levels runs
    uint8_t flag_byte = 0xe0;
    bool assertions_in_force = false;  // the loop's own assertions may be used
    // Unrolling: `counter` above is the product of the factors applied so far.
    NODE* unroll_pragma = nullptr;      // PPRAGMA statement asking for a factor (not owned)
    NODE* trip_count_pragma = nullptr;  // PPRAGMA statement giving a probable trip count (not owned)
    NODE* max_trips = nullptr;          // largest trip count, when bounded (owned)
    NODE* max_trips_bound = nullptr;    // a second bound beside it (owned)
    bool no_complete_unroll = false;    // never to be unrolled completely
};

// Edge lists: each returns the new head of the list.
EDGE* add_edge(BBLK* bb, EDGE* list, double weight = -1.0);
EDGE* mkedge(BBLK* bb, EDGE* list);
EDGE* remove_edge(BBLK* bb, EDGE* list);
EDGE* erase_edge(EDGE* cell);  // frees the cell, returns the rest
bool edge_memberp(const BBLK* bb, const EDGE* list);
int edge_length(const EDGE* list);
EDGE* copy_edge_list(const EDGE* list);
EDGE* rev_edge_list(EDGE* list);
void free_edge_list(EDGE* list);
void sort_edge_list(EDGE* list);  // ascending dfn, stable, the head cell stays the head
void fast_sort_edge_list(EDGE* list);  // the same order, for long lists

// Erases every tree of a statement list and empties it.
void erase_tree_list(std::vector<BODY_ENTRY>& list);

// Blocks.
BBLK* mkbblock(std::vector<BODY_ENTRY> statements, BBLK* next, FUNINFO* fi);
// A new block laid out after `after`, numbered `dfn` until the blocks are
// renumbered; edges are the caller's.
BBLK* insert_new_bb(int dfn, BBLK* after, std::vector<BODY_ENTRY> statements);
// The same, with a label of its own and ending in a jump to `target`.
BBLK* insert_new_bb_with_branch(int dfn, BBLK* after, BBLK* target, const PSN* position);
// Binds label `number` to the block; with 0 the block keeps its label or
// gets a new one.  Returns the block's label.
int mklabel(int number, BBLK* bb);
// Takes a block (not the entry) out of the layout; its edges stay.
void delink_old_bb(BBLK* bb);
void renumber_bblocks();
// In the jumps of bb, references to old become references to replacement.
void subst_bb_for_bb_in_bb(BBLK* replacement, BBLK* old, BBLK* bb);
void subst_bb_for_bb_in_stmts(BBLK* replacement, BBLK* old, std::vector<BODY_ENTRY>& stmts);
// In a jump statement, the references to one label become another; whether
// any did.
bool remap_labelrefs(NODE* jump, int old_label, int new_label);
// Makes bb's successors the places `stmt` (its last statement) may go,
// fall-through included, and the predecessor lists agree.
void fixup_edge_lists(BBLK* bb, const NODE* stmt);
// A new block on the edge from -> to, jumping to `to` unless it falls into it.
BBLK* split_cfg_edge(BBLK* from, BBLK* to);
// Whether control can leave b by falling into the next block.
bool falls_through(const BBLK* b);
void split_critical_edges(bool all);
bool bb_is_split_critical_edge(const BBLK* bb);
void clear_visited();
// The blocks of the current function in layout order.
std::vector<BBLK*> layout_blocks();

// Builds the current function's blocks from its statement list; the block
// structure replaces the statements of the body.
void buildcfg();
// Frees the blocks, edges, loops and dominators of a function.
void free_cfg(FUNINFO* fi);
// Turns the current function's blocks back into a statement list (the scope
// records, then each block's label and statements in layout order) and frees
// the flow graph.
void unbuildcfg();
// Builds the flow graph again from the statements of the current blocks
// (after jumps were added, removed or retargeted).
void rebuildcfg();
// Whether a statement of the flow graph from `entry` on is inline assembly.
bool has_inline_assembly(const BBLK* entry);

// A data-flow problem of up to 64 facts over the listed blocks, each block
// summed up as result = (meet & keep) | gen.  The meet of a block is the
// union (or, with `all`, the intersection) of its neighbours' results: its
// predecessors' going forward, its successors' going backward; a neighbour
// not listed gives 0, and the first block and blocks without predecessors
// (forward), blocks without successors (backward) meet `boundary` as well.
// Solved round by round from nothing (or, with `all`, everything) known.
struct block_masks {
    std::vector<uint64_t> meet, result;  // by block
};
block_masks solve_block_masks(const std::vector<BBLK*>& blocks, bool forward, bool all, uint64_t boundary,
                              const std::vector<uint64_t>& keep, const std::vector<uint64_t>& gen);
// Folds conditional jumps on constants, drops jumps to the next block and
// removes blocks that can't be reached (the function must have no loop
// hierarchy: loops would keep blocks that are gone); with `merge_blocks`, a block whose
// label nothing names joins the block that falls into it.  Rebuilds the
// graph when anything changed, which is what it returns.
bool simpcfg(bool merge_blocks, bool keep_empty);
// Frees every block's live-in set.
void free_liveness(FUNINFO* fi);
// Frees a function's loop records (the blocks keep their loop pointers).
void free_loops(FUNINFO* fi);
// A new label number for the current function.
int new_label_number();

// Jumps: the label numbers a statement may transfer control to, and whether
// control can also go on to the next statement.
void list_branch_targets(const NODE* stmt, std::vector<int>& labels, bool& falls_through);
