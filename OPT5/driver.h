// The driver: start-up, the per-function step tables, the function loop
// with its barriers and workers, and the end of the run.
#pragma once

#include <cstdio>
#include <ctime>
#include <map>
#include <vector>

class pass;
struct SYMTAB;

// The steps still to run for one function, front first.  Every function
// starts with the same list: it is shared until a function's list is changed
// other than by running its front step, and only then copied.
class step_list {
public:
    using iterator = std::vector<pass*>::iterator;
    step_list() = default;
    explicit step_list(const std::vector<pass*>* shared) : shared_(shared) {}
    bool empty() const { return next_ == steps().size(); }
    size_t size() const { return steps().size() - next_; }
    pass* front() const { return steps()[next_]; }
    void pop_front() { ++next_; }
    iterator begin() { return own().begin() + static_cast<std::ptrdiff_t>(next_); }
    iterator end() { return own().end(); }
    iterator erase(iterator at) { return own().erase(at); }

private:
    const std::vector<pass*>& steps() const { return shared_ ? *shared_ : own_; }
    std::vector<pass*>& own() {
        if (shared_) own_ = *shared_;
        shared_ = nullptr;
        return own_;
    }
    const std::vector<pass*>* shared_ = nullptr;
    std::vector<pass*> own_;
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
// The current function's own option set, put in force and taken back
// (`always`: the file's flags are put back even when no set was in force).
void apply_function_options();
void restore_function_options(bool always);
// Forgets the passes, step tables, functions and function records.
void reset_driver();
