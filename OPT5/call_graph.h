// The unit's call graph, worked out at a barrier step from the statements of
// every defined function: who calls whom by name, and the cycles of those
// calls.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "OPT5/funinfo.h"
#include "OPT5/node.h"

struct SYMTAB;

struct call_graph {
    struct node {
        SYMTAB* fn = nullptr;
        std::vector<int> callees;   // defined functions it calls by name, each once
        bool recursive = false;     // on a cycle of direct calls, a call of itself included
    };
    std::vector<node> nodes;        // the defined functions, in unit order
    std::vector<int> bottom_up;     // callees before their callers; a cycle's members side by side
};

// The function a call node names as its target, or null for a call through
// a pointer.
SYMTAB* called_function(const NODE* call);

// The arguments of a call, in the order they are evaluated.
std::vector<NODE*> call_arguments(NODE* call);

// A function's parameters and its other locals, in declaration order, from
// its statements (unparked).
// The functions of the setjmp family and alloca depend on their caller's
// frame: a function calling them keeps its own.
bool needs_own_frame(const std::string& name);
// Whether the tree calls one of them.
bool calls_own_frame_function(const NODE* t);
std::vector<SYMTAB*> function_parameters(const FUNINFO* fi);
std::vector<SYMTAB*> function_locals(const FUNINFO* fi);

// From every defined function's summary (function_summary.h).
call_graph build_call_graph();

// Runs f on a defined function (its FUNINFO current) with its statements
// unparked and its own option set in force, then parks it again.  For
// barrier steps, which find every function parked.
void with_function_statements(SYMTAB* fn, const std::function<void(FUNINFO*)>& f);
// The same for f that only looks: the function stays parked as it was.
void read_function_statements(SYMTAB* fn, const std::function<void(const FUNINFO*)>& f);

// A defined function's optimisation level under its own option set; its
// statements stay parked.
int function_opt_level(SYMTAB* fn);
// Whether some defined function is optimised at `level` or above.
bool some_function_at_level(int level);

// Calls f(node) for every node of every statement of a body, a node
// before its operands.
template <class F>
void for_each_body_node(const std::vector<BODY_ENTRY>& body, F&& f) {
    for (const BODY_ENTRY& e : body)
        if (e.kind == BODY_ENTRY::STMT && e.tree) for_each_node(e.tree, f);
}

// The number of nodes in the statements of a body.
size_t body_size(const FUNINFO* fi);

// "detect_recursion": marks the functions on cycles of the call graph.
void detect_recursion();

// "dump_call_graph_debug": the call graph in the debug listing, callees
// first, each function with the defined functions it calls.
void dump_call_graph_debug();

// "set call-graph order": the call graph after inlining.  From -o2, a
// static function that nothing outside the unit can reach any more (no
// call from a function reachable from outside, its name nowhere but in
// calls, no inline assembly in the unit) is unreachable: no later step runs
// on it and it is not written.  Returns the number of such functions.
int set_up_and_build_call_graph();
