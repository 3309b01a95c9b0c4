// The driver: start-up, the per-function step tables, the function loop
// with its barriers and workers, and the end of the run.
#pragma once

#include <cstdio>
#include <ctime>
#include <map>
#include <vector>

class pass;
struct SYMTAB;

// The steps still to run for one function, front first: one block of
// storage, the steps run so far skipped rather than moved.
class step_list {
public:
    using iterator = std::vector<pass*>::iterator;
    step_list() = default;
    template <class It>
    step_list(It first, It last) {
        steps_.reserve(static_cast<size_t>(last - first) + 1);  // room for "output function"
        steps_.assign(first, last);
    }
    bool empty() const { return next_ == steps_.size(); }
    size_t size() const { return steps_.size() - next_; }
    pass* front() const { return steps_[next_]; }
    void pop_front() { ++next_; }
    void push_back(pass* p) { steps_.push_back(p); }
    iterator begin() { return steps_.begin() + static_cast<std::ptrdiff_t>(next_); }
    iterator end() { return steps_.end(); }
    iterator erase(iterator at) { return steps_.erase(at); }

private:
    std::vector<pass*> steps_;
    size_t next_ = 0;
};

// Steps still to run for each function.
extern std::map<SYMTAB*, step_list> steps_table;
// Functions whose output must be forced; empty whenever a barrier runs.
extern std::vector<SYMTAB*> unsuppressed_functions;
// The last step of every function; created only when the unit has functions.
extern pass* output_function_pass;

// Where the unit comes from and where function bodies go: the I-file reader
// and writer (the test harness puts a made-up unit in their place).
extern void (*read_input_unit)();
extern void (*write_function_body)(SYMTAB* fn);

// The whole run; ends the process (status 0 on success).
[[noreturn]] void optimizer_main(int argc, char** argv);

// Pieces of the run, also used on their own by the tests.
void build_step_tables();
void run_function_loop();
void run_function_steps(SYMTAB* fn, step_list& passes);
void print_time_stats(FILE* out, clock_t unit_ticks);
// Forgets the passes, step tables, functions and function records.
void reset_driver();
