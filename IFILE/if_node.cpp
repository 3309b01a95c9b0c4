#include "IFILE/if_node.h"

#include <cstdio>
#include <cstdlib>

#include "IFILE/if_file.h"

namespace {
#include "IFILE/if_node_rows.inc"
}

if_node_row if_node_info[IF_NODE_TABLE_SIZE];

void if_enter_node(int opcode, const char* name, int arity) {
    if (opcode < 0 || opcode >= IF_NODE_TABLE_SIZE) if_fatal("\nINTERNAL ERROR: Invalid opcode, aborting");
    if_node_info[opcode] = {opcode, name, arity};
}

void if_node_table_init() {
    static bool done = false;
    if (done) return;
    for (int i = 0; i < IF_NODE_TABLE_SIZE; ++i) if_node_info[i] = {-1, nullptr, 0};
    for (const if_node_row& r : if_node_rows) if_enter_node(r.opcode, r.name, r.arity);
    done = true;
}
