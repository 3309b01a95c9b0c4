// The steps of the pipeline and the pass lists.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

// Objects numbered serially, from 0 in order of construction, within a
// namespace NS.  The registry is a vector indexed by serial; destroying an
// object clears its slot, and serials are not reused.
template <class NS>
class serial_namespace {
public:
    static std::vector<void*>& slots() {
        static std::vector<void*> v;
        return v;
    }
    // Forgets every serial; only allowed when no object is alive.
    static bool reset() {
        for (void* p : slots())
            if (p) return false;
        slots().clear();
        return true;
    }
};

template <class NS>
class serial_object {
public:
    serial_object() : serial_(static_cast<int>(serial_namespace<NS>::slots().size())) {
        serial_namespace<NS>::slots().push_back(this);
    }
    ~serial_object() { serial_namespace<NS>::slots()[serial_] = nullptr; }
    serial_object(const serial_object&) = delete;
    serial_object& operator=(const serial_object&) = delete;
    int serial() const { return serial_; }

private:
    int serial_;
};

struct pass_manager_tag {};

class pass : public serial_object<pass_manager_tag> {
public:
    using pass_manager = pass_manager_tag;
    using action_fn = void (*)();

    // At no level is the function unpacked for the step: it works on no
    // function, or unpacks what it needs itself ("output function").
    static constexpr int NEVER = 100;

    // `cfg_from`: the lowest optimisation level at which the step works on
    // the function's flow graph; below it the function may stay parked.
    pass(std::string name, action_fn action, int cfg_from = 0)
        : name_(std::move(name)), action_(action), cfg_from_(cfg_from) {}
    virtual ~pass() = default;
    virtual bool is_barrier() const { return false; }

    // Runs the step once for the current function (or, for a barrier, for the
    // whole unit), framed in the debug stream and timed when asked.
    void run();

    const std::string& name() const { return name_; }
    action_fn action() const { return action_; }
    void set_action(action_fn action) { action_ = action; }

    // CPU time spent in the action and how often it ran (kept under
    // enable:time_stats, for the summary at the end of the run).
    double seconds() const { return seconds_; }
    long runs() const { return runs_; }

private:
    std::string name_;
    action_fn action_;
    int cfg_from_;
    double seconds_ = 0;
    long runs_ = 0;
};

class barrier_pass : public pass {
public:
    barrier_pass(std::string name, void (*action)()) : pass(std::move(name), action, NEVER) {}
    bool is_barrier() const override { return true; }
};

// The passes in their fixed order, and the order actually run.
extern std::vector<pass*> normal_order_passes;
extern std::vector<pass*> permuted_order;

// Builds both lists; with `forced`, the order may come from the command line
// or the environment variable FORCED_OPT_PASSES.
void setup_passes(bool forced);
void list_passes(FILE* out);
// A random permutation of the serials 0..n-1 (inside-out shuffle, seeded
// from the time), as used by the forced order "random".
std::vector<int> random_pass_permutation(size_t n);
// Deletes every pass of the lists; when no other pass is alive the serials
// start again from 0 (tests build the pipeline more than once).
void destroy_passes();
// Under enable:time_stats=2: the CPU time of every step summed over the
// functions, the costliest first, with the time of reading the unit and of
// writing its global data (`outside`: name and seconds), as a table on `out`.
void print_step_times(FILE* out, const std::vector<std::pair<std::string, double>>& outside, double total);
