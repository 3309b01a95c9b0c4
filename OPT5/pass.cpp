#include "OPT5/pass.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>

#include "DEBUG_DISABLE/switches.h"
#include "DIAG/diag.h"
#include "OPT5/abort.h"
#include "OPT5/cmdline.h"
#include "OPT5/common_subexpressions.h"
#include "OPT5/call_graph.h"
#include "OPT5/cdvect.h"
#include "OPT5/copy_propagation.h"
#include "OPT5/conditional_paths.h"
#include "OPT5/copyprop.h"
#include "OPT5/ddbloop.h"
#include "OPT5/dump.h"
#include "OPT5/mvp.h"
#include "OPT5/node.h"
#include "OPT5/funinfo.h"
#include "OPT5/global_symbols.h"
#include "OPT5/induction.h"
#include "OPT5/interprocedural_propagation.h"
#include "OPT5/inlining.h"
#include "OPT5/loop_rotation.h"
#include "OPT5/loop_fusion.h"
#include "OPT5/loop_invariants.h"
#include "OPT5/loop_unrolling.h"
#include "OPT5/local_symbols.h"
#include "OPT5/stack_sharing.h"
#include "OPT5/statement_splitting.h"
#include "OPT5/forward_substitution.h"
#include "OPT5/register_promotion.h"
#include "OPT5/scalar_replacement.h"
#include "OPT5/ssa_dead_assignments.h"
#include "OPT5/superblocks.h"
#include "OPT5/symbol_merging.h"
#include "OPT5/park.h"
#include "OPT5/pointer_retyping.h"
#include "OPT5/globals.h"
#include "UTIL/support.h"

namespace {
const char THIS_MODULE[] = "OPT5/pass";

// Steps whose subsystem is not part of this build keep their place in the
// pipeline (they are announced, skipped by serial and timed like the others)
// and do nothing.
void no_action() {}

// "pass 2 header": the end of the whole-unit analyses.
void pass_2_header() {
    if (write_opt_info && finfo) std::fflush(finfo);
    if (print_debug) {
        DBG_FLUSH();
        std::printf("%s Pass 2\n", isa_and_tool_name());
        std::fflush(stdout);
    }
}

// "pass 2 inits": per-function set-up after the interprocedural steps.  No
// function carries a scope tree yet, so the dump shows the empty tree.
void pass_2_inits() {
    if (print_debug) DBG_CHECK(std::fputs("<<NULL SCOPE>>\n", FDEBUG));
    if (opt_level() > 0) {  // level 0 leaves statements as they are
        split_statements_at_commas();  // again: inlining makes more
        promote_all_embedded_assignments();
    }
}

// Copy propagation and dead assignments.
void pass_1_fcp_eda() {
    if (opt_level() < 2) return;
    fast_CP(4, 0);
    elim_dead_assigns(false, false);
}
// Comma lists become statements before anything looks at them.
void pass_1_fast_CP() {
    split_statements_at_commas();
    fast_CP(4, 0);
}
void fast_CP_4_1() { fast_CP(4, 1); }
void fast_CP_0_1() { fast_CP(0, 1); }
// The copies whose reads copy propagation rewrote are often dead then.
void global_CP() {
    if (opt_level() < 2) return;
    unbuild_loop_hierarchy();
    if (copyprop(1) > 0) elim_dead_assigns(false, false);
}
// Extended blocks for the global step, single blocks for the late one.
void global_CSE() { eliminate_common_subexpressions(true); }
// Repeated values are computed once, then those computed for a single use
// are folded into it.
void lcse() {
    eliminate_common_subexpressions(false);
    substitute_single_uses();
}
void rotate_loops_step() { rotate_loops(); }
// Adjacent loops become one, then invariants leave their loops before the
// loops are copied; the arrays
// whose indices complete unrolling made constants become variables.
void DD_restructuring() {
    fuse_loops();
    hoist_loop_invariants();
    if (unroll_loops() > 0) explode_auto_aggregates();
}
// Induction variables become pointers, whose steps then join their accesses.
// The pointers start from the counters' first values, known constants more
// often than not: propagated, they fold, and the counters' assignments die.
// Pointers read through one conversion take its type first.
void propagate_increments() {
    if (reduce_address_induction() > 0 && copyprop(1) > 0) elim_dead_assigns(false, false);
    retype_converted_pointers();
    fold_post_increments();
}
void auto_inline_step() { auto_inline_call_sites(); }
void analyze_globals() { analyze_global_symbols(); }
void set_call_graph_order() { set_up_and_build_call_graph(); }
void straighten_paths() { straighten_cond_paths(); }
void stack_sharing() { share_stack_storage(); }
void explode_auto_structs() { explode_auto_aggregates(); }
void promote_registers() { promote_vars_to_registers(true); }
void SSA_EDA() { eliminate_dead_SSA_assignments(); }
void late_rename_symbols() { rename_late_symbols(); }
void merge_variables() { merge_symbols(); }
void interprocedural_propagation() { do_interprocedural_propagation(); }
void superblocks() { sink_partially_dead_assignments(); }
void lcp() {
    if (opt_level() < 1) return;
    if (copyprop(1) > 0) elim_dead_assigns(false, false);
}

// One row per step: its name, whether it is a barrier (run once for the
// unit when every function has reached it), its action, and the lowest
// optimisation level at which the action works on a function's flow graph.
// Below that level the function is not unpacked for the step.
constexpr int NEVER = pass::NEVER;
struct step {
    const char* name;
    bool barrier;
    void (*action)();
    int cfg_from;
};

const step pass_table[] = {
    {"pass 1 fcp/eda", false, pass_1_fcp_eda, 2},
    {"pass 1 fast_CP(4,0)", false, pass_1_fast_CP, 1},
    {"value propagation for pass 1", false, no_action, NEVER},
    {"analyze globals", true, analyze_globals, NEVER},
    {"detect_recursion", true, detect_recursion, NEVER},
    {"do_interprocedural_propagation", true, interprocedural_propagation, NEVER},
    {"auto_inline_call_sites", true, auto_inline_step, NEVER},
    {"dump_call_graph_debug", true, dump_call_graph_debug, NEVER},
    {"collect_clustered_symbols", true, no_action, NEVER},
    {"pass 2 header", true, pass_2_header, NEVER},
    {"set call-graph order", true, set_call_graph_order, NEVER},
    {"pass 2 inits", false, pass_2_inits, 1},
    {"stack sharing", false, stack_sharing, 2},
    {"CPS", false, straighten_paths, 2},
    {"early LIR", false, no_action, NEVER},
    {"early fast_CP(4,1)", false, fast_CP_4_1, 1},
    {"MVP global assertions", false, no_action, NEVER},
    {"intraprocedural MVP", false, intraprocedural_MVP, 2},
    {"value propagation for SIMD", false, no_action, NEVER},
    {"explode auto structs", false, explode_auto_structs, 2},
    {"non-DD clone SSA NASSERTs", false, no_action, NEVER},
    {"non-DD SSA CP", false, no_action, NEVER},
    {"non-DD SSA EDA", false, SSA_EDA, 2},
    {"SSA RP with benign loads", false, promote_registers, 2},
    {"expand bitfields", false, no_action, NEVER},
    {"fast_CP(0,1)", false, fast_CP_0_1, 1},
    {"add profile loop annotations", false, no_action, NEVER},
    {"CD vectorizations", false, do_cd_vectorization, 2},
    {"CD ILP", false, do_cd_ilp, 2},
    {"late fast_CP(4,1)", false, fast_CP_4_1, 1},
    {"Disclose Vectors", false, no_action, NEVER},
    {"global CP", false, global_CP, 2},
    {"late points-to", false, no_action, NEVER},
    {"global CSE", false, global_CSE, 2},
    {"Pellin rotate loops", false, rotate_loops_step, 2},
    {"late rename symbols", false, late_rename_symbols, 2},
    {"merge symbols", false, merge_variables, 2},
    {"DD restructuring", false, DD_restructuring, 2},
    {"expand cluster refs", false, no_action, NEVER},
    {"CSU returning temp", false, no_action, NEVER},
    {"superblocks", false, superblocks, 2},
    {"subrange", false, no_action, NEVER},
    {"lcp", false, lcp, 1},
    {"sti-to-cinit", false, no_action, NEVER},
    {"lcse", false, lcse, 2},
    {"propagate increments", false, propagate_increments, 2},
    {"Disguise Vectors", false, no_action, NEVER},
    {"late LIR", false, no_action, NEVER},
};

// Reads a forced order: serials separated by commas or blanks.
std::vector<pass*> parse_forced_order(const std::string& text, const char* source) {
    std::string s = text;
    for (char& c : s)
        if (c == ',') c = ' ';
    std::vector<pass*> order;
    size_t i = 0;
    while (i < s.size()) {
        if (std::isspace(static_cast<unsigned char>(s[i]))) {
            ++i;
            continue;
        }
        size_t j = i;
        while (j < s.size() && !std::isspace(static_cast<unsigned char>(s[j]))) ++j;
        std::string token = s.substr(i, j - i);
        char* end = nullptr;
        long serial = std::strtol(token.c_str(), &end, 10);
        if (*end != '\0' || serial < 0 || serial >= static_cast<long>(normal_order_passes.size())) {
            std::string msg = "invalid pass serial '" + token + "' in the forced pass order from " + source +
                              " (serials are 0 to " + std::to_string(normal_order_passes.size() - 1) + ")";
            emit_diag(24041, THIS_MODULE, __LINE__, nullptr, msg.c_str());
        }
        order.push_back(normal_order_passes[serial]);
        i = j;
    }
    return order;
}

}  // namespace

std::vector<pass*> normal_order_passes;
std::vector<pass*> permuted_order;

// A random order of n serials, drawn by the inside-out shuffle.
std::vector<int> random_pass_permutation(size_t n) {
    std::srand(static_cast<unsigned>(std::time(nullptr) + std::clock()));
    std::vector<int> p(n);
    if (n == 0) return p;
    p[0] = 0;
    for (size_t i = 0; i + 2 <= n; ++i) {
        size_t j = static_cast<size_t>(static_cast<double>(std::rand()) * static_cast<double>(i + 2) *
                                       4.656612873077393e-10);
        p[i + 1] = p[j];
        p[j] = static_cast<int>(i + 1);
    }
    return p;
}

void pass::run() {
    if (pass_debug_skip_pass > 0 && pass_debug_skip_pass == serial()) {
        if (print_debug) {
            DBG_CHECK(std::fprintf(FDEBUG, "\n\n\t\t\t---------- SKIPPING step %d '%s' ----------\n", serial(),
                                   name_.c_str()));
            DBG_FLUSH();
        }
        return;
    }
    if (print_debug) {
        DBG_CHECK(std::fprintf(FDEBUG, "\n\n\t\t\t---------- ENTERING step %d '%s' ----------\n", serial(),
                               name_.c_str()));
        DBG_FLUSH();
    }
    // The action may end the function ("output function"); time goes to the
    // function that was current when the step began.
    FUNINFO* fi = currfuninfo;
    bool timed = print_debug || enable_time_stats;
    clock_t start = timed ? std::clock() : 0;
    if (fi && cfg_from_ != NEVER && opt_level() >= cfg_from_) unpark_function();
    prbbinfix("before", serial(), name_.c_str());
    action_();
    if (timed) {
        clock_t end = std::clock();
        if (print_debug)
            DBG_CHECK(std::fprintf(FDEBUG, "(%.1f sec for pass.)\n", static_cast<float>(end - start) / 1000000.0f));
        if (fi) fi->pass_time += end - start;
        seconds_ += static_cast<double>(end - start) / CLOCKS_PER_SEC;
        ++runs_;
    }
    if (currfuninfo == fi) prbbinfix("after", serial(), name_.c_str());
    recycle_erased_nodes();
    if (print_debug) {
        DBG_CHECK(std::fprintf(FDEBUG, "\n\n\n\t\t\t---------- EXITING step %d '%s' ----------\n", serial(),
                               name_.c_str()));
        DBG_FLUSH();
    }
}

void setup_passes(bool forced) {
    for (const step& s : pass_table)
        normal_order_passes.push_back(s.barrier ? new barrier_pass(s.name, s.action)
                                                : new pass(s.name, s.action, s.cfg_from));

    const char* order_text = nullptr;
    const char* source = nullptr;
    if (forced) {
        if (file_options.isset(OPT_forced_passes)) {
            order_text = file_options.getstrarg(OPT_forced_passes, 0);
            source = "command-line option";
        } else if ((order_text = std::getenv("FORCED_OPT_PASSES")) != nullptr) {
            source = "environment variable";
        }
    }
    if (!order_text) {
        permuted_order = normal_order_passes;
        if (print_debug) {
            DBG_CHECK(std::fprintf(FDEBUG, "Pass list is normal order.\n"));
            DBG_FLUSH();
        }
    } else {
        const char* label = "";
        if (std::string(order_text) == "random") {
            label = " (random)";
            permuted_order.clear();
            for (int serial : random_pass_permutation(normal_order_passes.size()))
                permuted_order.push_back(normal_order_passes[serial]);
        } else {
            permuted_order = parse_forced_order(order_text, source);
        }
        if (print_debug) {
            DBG_CHECK(std::fprintf(FDEBUG, "Pass list, from %s, is%s: ", source, label));
            if (permuted_order.empty()) DBG_CHECK(std::fprintf(FDEBUG, "<empty>"));
            for (pass* p : permuted_order) DBG_CHECK(std::fprintf(FDEBUG, " %d", p->serial()));
            DBG_CHECK(std::fprintf(FDEBUG, "\n\n"));
            DBG_FLUSH();
        }
    }
    if (pass_debug_list_passes) list_passes(stdout);
}

void list_passes(FILE* out) {
    for (pass* p : permuted_order) std::fprintf(out, "%2d:  %s\n", p->serial(), p->name().c_str());
    std::fflush(out);
}

void print_step_times(FILE* out, const std::vector<std::pair<std::string, double>>& outside, double total) {
    struct row {
        std::string name;
        long runs;
        double seconds;
    };
    std::vector<row> rows;
    for (const auto& [name, seconds] : outside) rows.push_back({name, 1, seconds});
    for (void* slot : serial_namespace<pass_manager_tag>::slots())
        if (auto* p = static_cast<const pass*>(static_cast<serial_object<pass_manager_tag>*>(slot)); p && p->runs() > 0)
            rows.push_back({p->name(), p->runs(), p->seconds()});
    std::stable_sort(rows.begin(), rows.end(), [](const row& a, const row& b) { return a.seconds > b.seconds; });
    std::fprintf(out, "\nStep times (CPU seconds, summed over the functions):\n");
    std::fprintf(out, "%10s %6s %8s  %s\n", "seconds", "%", "runs", "step");
    double listed = 0;
    for (const row& r : rows) {
        std::fprintf(out, "%10.3f %6.1f %8ld  %s\n", r.seconds, total > 0 ? 100.0 * r.seconds / total : 0.0, r.runs,
                     r.name.c_str());
        listed += r.seconds;
    }
    std::fprintf(out, "%10.3f %6.1f %8s  %s\n", total - listed, total > 0 ? 100.0 * (total - listed) / total : 0.0,
                 "", "(elsewhere)");
    std::fprintf(out, "%10.3f %6.1f %8s  %s\n", total, 100.0, "", "(whole run)");
}

void destroy_passes() {
    for (pass* p : normal_order_passes) delete p;
    normal_order_passes.clear();
    permuted_order.clear();
    serial_namespace<pass::pass_manager>::reset();
}
