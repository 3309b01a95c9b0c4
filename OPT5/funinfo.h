// Per-function record of the optimizer.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "IFILE/if_symbol.h"
#include "OPT5/park.h"
#include "UTIL/psn.h"
#include "UTIL/ptr_map.h"

struct SYMTAB;
class NODE;
struct BBLK;
struct LOOP;
class Dominator;

// One entry of a function body in reading order: a statement (a tree and
// its position), a control record (end of arguments, blocks, end of
// locals, end of function) or the definition of a local symbol.
struct BODY_ENTRY {
    enum KIND { STMT, CONTROL, SYMBOL } kind = STMT;
    NODE* tree = nullptr;
    PSN pos;
    int control = 0;           // record id of a control entry (2 .. 6)
    I_SYMTAB* sym = nullptr;
};

// Bits of FUNINFO::flags.
enum : unsigned {
    FUN_MUST_BE_UNSUPPRESSED = 4,  // output of the function must be forced
    FUN_BODY_NOT_WRITTEN = 64,     // the function's body is not written out
    FUN_EDGES_COMPLETE = 8,        // every block has its successor list
    FUN_EDGES_PENDING = 0x20000,   // successor lists are being completed
};

struct FUNINFO {
    explicit FUNINFO(SYMTAB* sym) : symbol(sym) {}

    SYMTAB* symbol;
    int nblocks = 0;
    int option_set = -1;           // index into all_option_sets, -1: the file's set
    int64_t pass_time = 0;         // clock ticks spent in this function's passes
    bool simd_value_propagation = false;
    bool split_debug_started = false;    // its own debug file exists (debug:split_odb)
    bool no_calls = true;                // no call node has been made in the function
    bool marks_symbol_refs = false;      // it names a symbol whose flag byte has bit value 16
    std::vector<std::string> info_text;  // optimisation information captured by a worker

    // The body as read from the I-file.
    PSN begin_pos;
    std::vector<BODY_ENTRY> body;
    std::vector<EHT_ENTRY> eht;
    bool has_edge_profile = false;
    bool defined = false;  // its body has been read
    bool recursive = false;  // on a cycle of direct calls ("detect_recursion")
    bool unreachable = false;  // nothing can call it any more ("set call-graph order"): no step runs, nothing is written
    // While the function waits for other functions (reading the unit, a
    // barrier step), its body is kept packed here and it has no trees.
    parked_body parked;
    uint64_t packings = 0;  // how often it has been packed
    bool is_parked = false;
    // What the barrier steps read from it, while `packings` stays what it
    // was then.
    std::shared_ptr<const struct function_summary> summary;
    uint64_t summary_packing = 0;
    bool unparked_without_cfg = false;  // its statements are back, its flow graph not yet

    // The flow graph (after buildcfg): the scope records and local symbols in
    // reading order, the blocks in layout order, the loops and dominators.
    std::vector<BODY_ENTRY> scopes;
    BBLK* bb_list = nullptr;
    int bb_count = 0;
    Dominator* dominator = nullptr;     // owned; made on first use
    std::vector<struct LOOP*> loops;    // owned, in order of discovery
    // With the loops: the symbols whose address the function takes.
    std::set<const SYMTAB*> address_taken;
    // The address-taken symbols as last worked out, while `address_changes`
    // (counting what may change them: address-of nodes made or erased,
    // symbols renamed, statements unparked) stays what it was then.
    uint64_t address_changes = 1;
    uint64_t taken_known_at = 0;
    std::set<const SYMTAB*> taken_known;
    int max_label = 0;                  // largest label number in use
    std::vector<SYMTAB*> temporaries;   // locals the steps made (make_local_temporary)

    // Assertions the simplifier may use to decide tests (owned copies of
    // the asserted conditions) and whether they are in force.
    std::vector<NODE*> assertions;
    bool assertions_in_force = false;

    // Variables whose liveness is tracked, by their index in the live sets.
    std::vector<SYMTAB*> lva_syms;
    unsigned lva_numbering = 0;  // stamped on the symbols numbered (0: none yet)
    bool wants_dead_assign_elim = false;  // copy propagation left dead assignments
    bool unroll_completely = false;       // complete unrolling gets the full size budget

    unsigned flags() {
        std::lock_guard<std::mutex> lock(flags_mutex_);
        return flags_;
    }
    void set_flags(unsigned bits) {
        std::lock_guard<std::mutex> lock(flags_mutex_);
        flags_ |= bits;
    }
    void clear_flags(unsigned bits) {
        std::lock_guard<std::mutex> lock(flags_mutex_);
        flags_ &= ~bits;
    }
    // Reads and changes the word under one acquisition: f returns the new word.
    template <class F>
    void update_flags(F&& f) {
        std::lock_guard<std::mutex> lock(flags_mutex_);
        flags_ = f(flags_);
    }

private:
    std::mutex flags_mutex_;
    unsigned flags_ = 0;
};

// The table of function infos: make_FUNINFO creates the record on first use
// and returns the same one afterwards; find_FUNINFO never creates.
FUNINFO* make_FUNINFO(SYMTAB* sym);
FUNINFO* find_FUNINFO(SYMTAB* sym);
void clear_FUNINFO_table();
void dump_FUNINFO(FILE* out, FUNINFO* fi);
