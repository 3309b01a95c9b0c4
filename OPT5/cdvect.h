// CD vectorization: innermost loops as control/data-flow graphs, rewritten
// into SIMD form with the machine description's rules, a SIMD factor chosen
// by a cost model, and the loop peeled, unrolled and vectorized.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "OPT5/bbutils.h"
#include "OPT5/matcher.h"

class NODE;
struct CD_LOOP_SHAPE;

// One region under conversion: an innermost loop's body.
struct CDFG {
    CDFG();
    ~CDFG();

    struct LOOP* loop = nullptr;
    bool whole_loop_body = false;
    int numBlocks = 0;
    int numStatements = 0;
    std::vector<CDSTMT*> stmts;  // in order; CDSTMT::next links them too
    DFG_ARENA arena;             // owns the region's nodes
    std::vector<std::unique_ptr<CDSTMT>> owned;
    // The conversion's view of the loop.
    const SYMTAB* iv = nullptr;  // the loop-control variable
    NODE* bound = nullptr;       // the loop runs while iv < bound (not owned)
    bool simd_form = false;
    std::unique_ptr<CD_LOOP_SHAPE> shape;  // the loop's blocks, test and statements
    std::map<DFG*, NODE*> addresses;       // address leaves of the graph -> their trees

    void recycle_DFG_nodes_in_CDFG_region(bool all);
};

struct SIMD_CONFIGURATION {
    int sf = 1;
    int64_t time = 0, space = 0;          // the vector body
    int64_t ptime = 0, pspace = 0;        // the peeled loop
    int resII = 0, size = 0;
    double unitII = 0.0;

    int64_t compute_pain_for_configuration(bool trace);
    // Chooses among the configurations by pain; ties go to the smaller factor.
    static int choose_SIMD_configuration_for_region(std::vector<SIMD_CONFIGURATION>& configs, int loop_uid);
};

// The state of the CD unroller for one loop.
struct LOOP_UNROLLING_INFO {
    int uf = 1;                  // the unrolling factor chosen
    bool completely = false;     // the loop is marked for complete unrolling
    int64_t trips = -1;          // the trip count when it is a known constant, else -1
    float T1 = 0, Z1 = 0;        // time and size of one iteration of the rolled loop
    float Tu = 0, Zu = 0;        // and of one iteration of the loop unrolled uf times
    bool unrolling_completely_wins(bool trace);
};

TREP* vector_TREP_for_SF(TREP* trep, int sf);
TREP* vector_TREP_for_SF(TYPE* type, int sf);
int memory_access_cost(DFG* access);
int md_cost_for_memref(int opcode, unsigned char kind, int esize, int lanes, INT65 alignment, bool is_volatile);
// Step 2 of peeling: whether a loop with this constant trip count and
// factor is unrolled completely (the factor doubled); traced either way.
bool unroll_completely_decision(struct LOOP* loop, const CDFG* region, int64_t trips, int& factor);

CDFG* convert_simple_CFG_region_to_CDFG(EDGE* entries, struct LOOP* loop, bool force);
void revert_CDFG_to_simple_CFG_region(CDFG* region);
// What one iteration of a loop counted by `iv` costs beside its statements
// (the step and the test), in time or in code space, as the description
// prices them.
int64_t cd_loop_overhead(const SYMTAB* iv, bool space);
bool convert_generic_CDFG_to_SIMD_form(CDFG* region, bool force);
bool peel_unroll_and_vectorize_loop(CDFG* region, bool completely_allowed);

void do_cd_vectorization();
// Pairs of adjacent statements on neighbouring elements that a COMBINE
// rule joins become one dual operation.
void do_cd_ilp();
