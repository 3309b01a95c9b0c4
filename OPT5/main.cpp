#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <list>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>

#include "DEBUG_DISABLE/switches.h"
#include "IFILE/if_file.h"
#include "OPT5/abort.h"
#include "OPT5/call_effects.h"
#include "OPT5/matcher.h"
#include "OPT5/md_rules.h"
#include "OPT5/cmdline.h"
#include "OPT5/driver.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/opcodes.h"
#include "OPT5/opt_client.h"
#include "OPT5/park.h"
#include "OPT5/local_symbols.h"
#include "OPT5/pass.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"

namespace {
const char THIS_MODULE[] = "OPT5/main";

std::list<SYMTAB*> functions_queue;
std::mutex functions_queue_mutex;

// Turns whatever escapes a group of start-up or pipeline work into the
// matching abnormal end.
template <class F>
void guarded(F&& work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
        abort_optimizer("ERROR - OUT OF MEMORY");
    } catch (const std::exception& e) {
        std::string reason = std::string("Exception:  ") + e.what();
        abort_optimizer(reason.c_str());
    } catch (...) {
        abort_optimizer("Caught something that isn't std::exception.");
    }
}

// The last step of each function: writes it and lets go of it.
void output_function() {
    SYMTAB* fn = currfunc;
    // Written from its statements; the block listing of the debug stream
    // needs the flow graph.
    if (print_debug)
        unpark_function();
    else
        unpark_statements();
    // What the steps after "late rename symbols" left unused or made.
    rename_late_symbols();
    if (!(currfuninfo->flags() & FUN_BODY_NOT_WRITTEN) && write_function_body) write_function_body(fn);
    erase_function_body(currfuninfo);
    currfunc = nullptr;
    currfuninfo = nullptr;
    restore_function_options(print_debug);  // the debug stream reports it for every function
}

bool all_step_lists_empty() {
    for (auto& [fn, passes] : steps_table)
        if (!passes.empty()) return false;
    return true;
}

void worker_loop() {
    for (;;) {
        SYMTAB* fn;
        {
            std::lock_guard<std::mutex> lock(functions_queue_mutex);
            if (functions_queue.empty()) return;
            fn = functions_queue.front();
            functions_queue.pop_front();
        }
        FILE* saved = finfo;
        FILE* capture = std::tmpfile();
        OPT_REQUIRE(capture != nullptr);
        finfo = capture;
        try {
            run_function_steps(fn, steps_table.at(fn));
        } catch (...) {
            currfunc_at_abort = fn;
            finfo = saved;
            std::fclose(capture);
            throw;
        }
        long size = std::ftell(capture);
        if (size > 0) {
            std::string text(static_cast<size_t>(size), '\0');
            std::rewind(capture);
            size_t got = std::fread(text.data(), 1, text.size(), capture);
            text.resize(got);
            make_FUNINFO(fn)->info_text.push_back(std::move(text));
        }
        std::fclose(capture);
        finfo = saved;
    }
}

void run_stretch() {
    if (max_threads > 0) {
        {
            std::lock_guard<std::mutex> lock(functions_queue_mutex);
            functions_queue.assign(functions.begin(), functions.end());
        }
        size_t k = std::min(functions.size(), static_cast<size_t>(max_threads));
        std::vector<std::future<void>> workers;
        for (size_t i = 0; i < k; ++i) workers.push_back(std::async(std::launch::async, worker_loop));
        for (auto& w : workers) w.get();
    } else {
        for (SYMTAB* fn : functions) run_function_steps(fn, steps_table[fn]);
    }
}

// After a stretch run by workers: hands each function's captured information
// to the information stream in input order, so that it reads as in a serial
// run; after the last stretch, writes the functions whose tables lacked
// "output function", one at a time on this thread.
void finish_worker_stretch(bool last) {
    for (SYMTAB* fn : functions) {
        FUNINFO* fi = find_FUNINFO(fn);
        if (fi) {
            if (finfo)
                for (const std::string& text : fi->info_text) std::fputs(text.c_str(), finfo);
            fi->info_text.clear();
        }
        if (last && output_function_pass && !print_debug) {
            // The function's last stretch continues here: no new header.
            currfuninfo = make_FUNINFO(fn);
            currfunc = currfuninfo->symbol;
            apply_function_options();
            output_function_pass->run();
        }
    }
}

}  // namespace

// Whether the flags are those of the current function's own option set.
namespace {
bool function_options_in_force = false;
}  // namespace

// A function with an option set of its own runs under it.
void apply_function_options() {
    if (currfuninfo->option_set >= 0 && static_cast<size_t>(currfuninfo->option_set) < all_option_sets.size()) {
        set_global_flags(&all_option_sets[currfuninfo->option_set]);
        function_options_in_force = true;
    }
}

// Back to the file's flags when a function's set changed them.
void restore_function_options(bool always) {
    if (!function_options_in_force && !always) return;
    restore_global_flags();
    function_options_in_force = false;
}

std::map<SYMTAB*, step_list> steps_table;
// The list every function's steps start from.
std::vector<pass*> first_steps;
std::vector<SYMTAB*> unsuppressed_functions;
pass* output_function_pass = nullptr;
void (*read_input_unit)() = read_ifile_unit;
void (*write_function_body)(SYMTAB*) = write_function;

void build_step_tables() {
    if (functions.empty()) return;
    if (!output_function_pass) output_function_pass = new pass("output function", output_function, pass::NEVER);
    // Each function's table is a copy of the active list, shared until changed.
    first_steps = permuted_order;
    OPT_REQUIRE(first_steps.size() == permuted_order.size());
    if (max_threads == 0 || print_debug) first_steps.push_back(output_function_pass);
    for (SYMTAB* sym : functions) steps_table[sym] = step_list(&first_steps);
}

void run_function_steps(SYMTAB* fn, step_list& passes) {
    if (passes.empty() || passes.front()->is_barrier()) return;

    currfuninfo = make_FUNINFO(fn);
    currfunc = fn;
    OPT_REQUIRE(currfunc == currfuninfo->symbol);
    apply_function_options();
    // Each step unpacks the function when it first needs it; the debug
    // stream shows it whole from the start.
    if (print_debug) unpark_function();

    FILE* saved_debug = nullptr;
    bool split = pass_debug_split_odb && print_debug;
    if (split) {
        // The first stretch starts the function's file, later ones add to it.
        std::string name = debug_file_name + "." + fn->name;
        saved_debug = open_debug_file(name.c_str(), currfuninfo->split_debug_started);
        currfuninfo->split_debug_started = true;
    }
    if (print_debug) {
        DBG_CHECK(std::fprintf(FDEBUG, "\n\n==================== FUNCTION %s() ====================\n",
                               fn->name.c_str()));
        dump_FUNINFO(FDEBUG, currfuninfo);
        DBG_FLUSH();
    }
    if (write_opt_info && finfo) std::fprintf(finfo, "\n%s\n", std::string(78, '=').c_str());
    if ((currfuninfo->flags() & FUN_MUST_BE_UNSUPPRESSED) && print_debug && opt_level() >= 3)
        DBG_CHECK(std::fprintf(FDEBUG, "\n!!! %s() (%s) must be unsuppressed !!!\n\n", fn->name.c_str(),
                               fn->declaration().c_str()));

    while (!passes.empty() && !passes.front()->is_barrier()) {
        if (!currfuninfo->unreachable || passes.front() == output_function_pass) passes.front()->run();
        passes.pop_front();
    }

    OPT_REQUIRE(passes.empty() || passes.front()->is_barrier());
    // Until the barrier has run for every function, this one waits packed,
    // and the next function starts from the file's flags.
    if (!passes.empty()) {
        park_function();
        restore_function_options(false);
    }
    if (split) {
        if (std::fclose(FDEBUG) != 0) optassert("fclose(FDEBUG) == 0", THIS_MODULE, __LINE__);
        FDEBUG = saved_debug;
    }
}

void run_function_loop() {
    // A stretch may be empty (the unit has no functions, or the order ends
    // with a barrier); the last one still hands over what workers captured
    // and writes what they left unwritten.
    for (;;) {
        run_stretch();
        bool last = all_step_lists_empty();
        if (max_threads > 0) finish_worker_stretch(last);
        if (last) break;

        pass* barrier = steps_table[functions.front()].front();
        for (auto& [fn, passes] : steps_table) OPT_REQUIRE(!passes.empty() && barrier == passes.front());
        currfunc = nullptr;
        currfuninfo = nullptr;
        barrier->run();
        for (auto& [fn, passes] : steps_table) passes.pop_front();
        OPT_REQUIRE(unsuppressed_functions.empty());
    }
}

void print_time_stats(FILE* out, clock_t unit_ticks) {
    std::fprintf(out, "\nTime for whole compilation unit:  %.2f secs\n", static_cast<double>(unit_ticks) / 1e6);
    std::vector<FUNINFO*> infos;
    for (SYMTAB* fn : functions)
        if (FUNINFO* fi = find_FUNINFO(fn)) infos.push_back(fi);
    std::stable_sort(infos.begin(), infos.end(),
                     [](FUNINFO* a, FUNINFO* b) { return a->pass_time > b->pass_time; });
    int64_t in_functions = 0;
    for (FUNINFO* fi : infos) {
        std::fprintf(out, "%s:  %.2f secs\n", fi->symbol->name.c_str(), static_cast<double>(fi->pass_time) / 1e6);
        in_functions += fi->pass_time;
    }
    std::fprintf(out, "Non-function time:  %.2f secs\n", static_cast<double>(unit_ticks - in_functions) / 1e6);
}

void reset_driver() {
    // "output function" goes first, so that destroy_passes can restart the serials.
    delete output_function_pass;
    output_function_pass = nullptr;
    destroy_passes();
    steps_table.clear();
    first_steps.clear();
    unsuppressed_functions.clear();
    functions.clear();
    clear_FUNINFO_table();
    clear_call_effects();
    currfunc = nullptr;
    currfuninfo = nullptr;
    currfunc_at_abort = nullptr;
}

namespace {
// The shared file names and the type registry, at the end of a debug run.
void interned_stats() {
    IF_INTERNED_STATS s = if_interned_stats();
    DBG_CHECK(std::fprintf(FDEBUG, "Interned file names: %zu (%zu bytes), asked for %zu times\n", s.names, s.bytes,
                           s.requests));
}

void type_cache_stats() {
    TYPE_PKG::cache_stats s = type_pkg->type_cache_stats();
    DBG_CHECK(std::fprintf(FDEBUG, "Type cache: %zu types; %zu structural types asked for, %zu already there\n",
                           s.types, s.lookups, s.found));
}
}  // namespace

void optimizer_main(int argc, char** argv) {
    install_optimizer_signal_handlers(argc > 0 ? argv[0] : "opt5");
    guarded([&] { open_files(argc, argv); });
    guarded([] {
        init_opcode_tables();
        init_types();
        type_pkg->processor_version = processor_version;
        init_fileopts();
    });
    guarded([] { setup_passes(true); });
    if (pass_debug_parser) {
        guarded([] { parse_md_file(false); });
        discard_output();  // no unit was read: there is nothing to write
        close_files();
        std::exit(0);
    }
    clock_t start = (print_debug || enable_time_stats) ? std::clock() : 0;

    guarded([] {
        if (read_input_unit) read_input_unit();
    });
    clock_t read_end = std::clock();
    guarded(build_step_tables);
    guarded(matcher_init);
    guarded(run_function_loop);
    clock_t globals_start = std::clock();
    guarded(write_global_data);
    if (print_debug && FDEBUG) {
        interned_stats();
        type_cache_stats();
    }

    if (enable_time_stats || print_debug) {
        clock_t end = std::clock();
        clock_t total = end - start;
        if (enable_time_stats) print_time_stats(stderr, total);
        if (print_debug) print_time_stats(FDEBUG, total);
        if (enable_time_stats >= 2) {  // and the steps summed over the functions
            auto secs = [](clock_t t) { return static_cast<double>(t) / CLOCKS_PER_SEC; };
            print_step_times(stderr, {{"read input unit", secs(read_end - start)},
                                      {"write global data", secs(end - globals_start)}},
                             secs(total));
        }
    }
    guarded(close_files);
    std::exit(0);
}
