// ifrun: runs a function of an I-file with the target's semantics.
//
// Memory is made of 16-bit addressable units; an object of a type takes
// ceil(bits / 16) units, and a value wraps to its type's width after every
// operation.  Globals get their initial data (zero where they have none),
// every call gets a frame of its own, and a pointer is a unit address.
// What the program does wrong stops the run with a message naming the
// function and the source position: division by zero, an access outside
// every object, a read of a local never written, a call of a function the
// unit does not define, running past the step limit.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

// What a function supplied by the embedding program may do to the run.
class IFRUN_CONTEXT {
public:
    virtual ~IFRUN_CONTEXT() = default;
    // Element `index` of the global `name`, an array of 16-bit units.
    virtual int64_t load_unit(const std::string& name, uint64_t index) = 0;
    virtual void store_unit(const std::string& name, uint64_t index, int64_t value) = 0;
    // Adds an event to the run's trace.
    virtual void trace(const std::string& event) = 0;
};
using IFRUN_EXTERNAL = std::function<int64_t(IFRUN_CONTEXT&, const std::vector<int64_t>& args)>;

struct IFRUN_OPTIONS {
    std::string entry = "main";
    std::vector<int64_t> args;        // bound to the entry's parameters in order
    uint64_t step_limit = 100000000;  // operations, calls included
    // Functions the unit calls but does not define, by name (besides the
    // built-ins).
    std::map<std::string, IFRUN_EXTERNAL> externals;
    // Each access to a volatile object goes into the trace, in order, as
    // " R<object>+<offset>" or " W<object>+<offset>=<value>".
    bool trace_volatile = false;
};

struct IFRUN_RESULT {
    bool ok = false;       // the entry returned
    int64_t value = 0;     // its return value (0 for void)
    std::string output;    // what printf and putchar wrote
    std::string error;     // why the run stopped, when !ok
    std::string trace;     // volatile accesses and what external functions added
    uint64_t operations = 0;
    uint64_t stack_units = 0;  // the most units the frames took at once
    uint64_t memory_accesses = 0;  // loads and stores of globals and of locals kept in memory
    std::map<std::string, uint64_t> per_opcode;    // operations by opcode name
    std::map<std::string, uint64_t> per_function;  // operations by function
    // Every global object's units at the end, in the order of the unit's
    // global symbols.
    std::vector<std::pair<std::string, std::vector<uint16_t>>> globals;
};

class IFRUN_UNIT {
public:
    // Reads the unit; on failure `error` says why and nothing can be run.
    static std::unique_ptr<IFRUN_UNIT> load(const std::string& path, std::string& error);
    virtual ~IFRUN_UNIT() = default;
    virtual IFRUN_RESULT run(const IFRUN_OPTIONS& options) = 0;
};
