// The optimizer with a made-up unit, for end-to-end tests of the driver.
//
// Environment:
//   HARNESS_FUNCS=f,g,h        functions of the unit, in input order
//   HARNESS_THREADS=n          worker-thread limit
//   HARNESS_NOBODY=g           a function whose body is not written
//   HARNESS_FAULT=kind         segv | overflow | assert | exception | badalloc | other
//   HARNESS_FAULT_AT=serial    the step that fails (default 0)
//   HARNESS_FAULT_IN=f         only in this function (default: any)
// Step 0 of every function writes "<function> on <main|worker>" to the
// information stream, and each written body is one line "body <function>" in
// the output file.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include "OPT5/abort.h"
#include "OPT5/cmdline.h"
#include "OPT5/driver.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/pass.h"
#include "OPT5/symtab.h"

namespace {

std::thread::id main_thread;
std::vector<SYMTAB> unit;

std::string env(const char* name, const char* fallback = "") {
    const char* v = std::getenv(name);
    return v ? v : fallback;
}

void record_step() {
    const char* where = std::this_thread::get_id() == main_thread ? "main" : "worker";
    if (finfo) std::fprintf(finfo, "%s on %s\n", currfunc->name.c_str(), where);
}

// Recurses until the machine stack is gone.
int overflow(volatile int depth) {
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    return overflow(depth + 1) + frame[0];
}

void fault() {
    std::string only = env("HARNESS_FAULT_IN");
    if (!only.empty() && (!currfunc || currfunc->name != only)) return;
    std::string kind = env("HARNESS_FAULT");
    if (kind == "segv") std::raise(SIGSEGV);
    if (kind == "overflow") overflow(0);
    if (kind == "assert") optassert("harness", "tests/harness", __LINE__);
    if (kind == "exception") throw std::runtime_error("boom");
    if (kind == "badalloc") throw std::bad_alloc();
    if (kind == "other") throw 42;
}

void read_unit() {
    std::string names = env("HARNESS_FUNCS");
    size_t start = 0;
    while (start < names.size()) {
        size_t comma = names.find(',', start);
        if (comma == std::string::npos) comma = names.size();
        SYMTAB s;
        s.name = names.substr(start, comma - start);
        s.pos.file = input_file_name.c_str();
        unit.push_back(s);
        start = comma + 1;
    }
    for (SYMTAB& s : unit) functions.push_back(&s);
    for (SYMTAB& s : unit)
        if (s.name == env("HARNESS_NOBODY")) make_FUNINFO(&s)->set_flags(FUN_BODY_NOT_WRITTEN);

    normal_order_passes[0]->set_action(record_step);
    if (!env("HARNESS_FAULT").empty()) normal_order_passes[std::stoi(env("HARNESS_FAULT_AT", "0"))]->set_action(fault);
}

void write_body(SYMTAB* fn) { std::fprintf(output_file, "body %s\n", fn->name.c_str()); }

}  // namespace

int main(int argc, char** argv) {
    main_thread = std::this_thread::get_id();
    unit.reserve(64);
    max_threads = std::atoi(env("HARNESS_THREADS", "0").c_str());
    read_input_unit = read_unit;
    write_function_body = write_body;
    optimizer_main(argc, argv);
}
