// The I-file's table of expression-node opcodes: number, name and arity.
#pragma once

inline constexpr int IF_NODE_TABLE_SIZE = 201;

struct if_node_row {
    int opcode;        // the row's own number; -1 for a number without a row
    const char* name;  // null for a number without a row
    int arity;         // 0 for a number without a row
};

extern if_node_row if_node_info[IF_NODE_TABLE_SIZE];

// Fills if_node_info once.
void if_node_table_init();
// Enters one row; an opcode of 201 or more ends the run.
void if_enter_node(int opcode, const char* name, int arity);
