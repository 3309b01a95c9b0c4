#include "OPT5/opcodes.h"

#include <cstdio>
#include <cstring>

#include "IFILE/if_node.h"
#include "OPT5/abort.h"
#include "OPT5/globals.h"

namespace {
const char THIS_MODULE[] = "OPT5/opcodes";

#include "OPT5/opcode_rows.inc"

constexpr unsigned char M_LT = 1, M_EQ = 2, M_GT = 4, M_UN = 8, M_N = 16;

[[noreturn]] void table_mismatch() {
    std::fputs("INTERNAL ERROR: if_node_info[] mismatch\n", stderr);
    abort_optimizer();
}

void debug_line(const char* text) {
    if (print_debug && FDEBUG) DBG_CHECK(std::fputs(text, FDEBUG));
}
}  // namespace

const char* node_operator_name[NUM_OPCODES];
unsigned char number_of_operands[NUM_OPCODES];
unsigned char op_OK_for_SP[NUM_OPCODES];
unsigned char precedence[NUM_OPCODES];
unsigned char side_effects[NUM_OPCODES];

const unsigned char float_op_to_micro_ops[14] = {
    M_EQ,                // FEQ
    M_LT | M_GT | M_UN,      // FNEQ
    M_LT | M_EQ,           // FLE
    M_LT,                // FLT
    M_GT | M_EQ,           // FGE
    M_GT,                // FGT
    M_EQ | M_N,            // FEQN
    M_LT | M_GT | M_UN | M_N,  // FNEQN
    M_LT | M_EQ | M_N,       // FLEN
    M_LT | M_N,            // FLTN
    M_GT | M_EQ | M_N,       // FGEN
    M_GT | M_N,            // FGTN
    M_LT | M_EQ | M_GT,      // FORD
    M_UN,                // FUNO
};

int float_micro_ops_to_op(unsigned micro_ops) {
    static const int back[32] = {
        // index: micro-operation mask
        -1,  FLT,  FEQ,  FLE,  FGT,  -1, FGE,  FORD, FUNO, -1, -1, -1, -1, FNEQ,  -1, -1,
        -1,  FLTN, FEQN, FLEN, FGTN, -1, FGEN, -1,   -1,   -1, -1, -1, -1, FNEQN, -1, -1,
    };
    return micro_ops < 32 ? back[micro_ops] : -1;
}

int boolean_inv[NUM_OPCODES];
int commute_inv[NUM_OPCODES];

void init_opcode_tables() {
    for (int i = 0; i < NUM_OPCODES; ++i) {
        node_operator_name[i] = nullptr;
        number_of_operands[i] = 255;
        op_OK_for_SP[i] = precedence[i] = side_effects[i] = 0;
    }
    for (const opcode_row& r : opcode_rows) {
        node_operator_name[r.number] = r.name;
        number_of_operands[r.number] = r.operands;
        op_OK_for_SP[r.number] = r.ok_for_sp;
        precedence[r.number] = r.precedence;
        side_effects[r.number] = r.side_effects;
    }
    for (int i = 0; i < NUM_OPCODES; ++i) boolean_inv[i] = commute_inv[i] = ILLOP;
    const int inverse_pairs[][2] = {{EQ, NEQ}, {LT, GE}, {LE, GT}, {ULT, UGE}, {ULE, UGT}};
    for (auto& p : inverse_pairs) {
        boolean_inv[p[0]] = p[1];
        boolean_inv[p[1]] = p[0];
    }
    // A floating comparison's inverse holds for exactly the other outcomes
    // (unordered included) and keeps the N form; not every set has an opcode.
    for (int i = 0; i < 14; ++i) {
        unsigned m = float_op_to_micro_ops[i];
        int inv = float_micro_ops_to_op((~m & 0xFu) | (m & 0x10u));
        boolean_inv[FEQ + i] = inv < 0 ? ILLOP : inv;
    }
    // Operators whose operands may be swapped, and what they become.
    const int commute_pairs[][2] = {{PLUS, PLUS}, {MULT, MULT}, {ANDB, ANDB}, {ORB, ORB},   {XORB, XORB},
                                    {EQ, EQ},     {NEQ, NEQ},   {LT, GT},     {GT, LT},     {LE, GE},
                                    {GE, LE},     {ULT, UGT},   {UGT, ULT},   {ULE, UGE},   {UGE, ULE},
                                    {FEQ, FEQ},   {FNEQ, FNEQ}, {FLT, FGT},   {FGT, FLT},   {FLE, FGE},
                                    {FGE, FLE},   {FEQN, FEQN}, {FNEQN, FNEQN}, {FLTN, FGTN}, {FGTN, FLTN},
                                    {FLEN, FGEN}, {FGEN, FLEN}, {FORD, FORD}, {FUNO, FUNO}};
    for (auto& p : commute_pairs) commute_inv[p[0]] = p[1];

    if_node_table_init();
    debug_line(" *** VALIDATING OPCODE TABLES\n");
    const struct {
        int op;
        int arity;
        const char* name;
    } spot[] = {{2, 0, "NAME"}, {10, 1, "UMINUS"}, {70, 2, "CALL"}};
    for (auto& s : spot) {
        const if_node_row& r = if_node_info[s.op];
        if (r.opcode != s.op || r.arity != s.arity || !r.name || std::strcmp(r.name, s.name) != 0) table_mismatch();
    }
    bool mismatch = false;
    for (int op = 0; op <= 163; ++op) {
        if (!node_operator_name[op]) continue;
        const if_node_row& r = if_node_info[op];
        if (r.opcode == op && r.arity == number_of_operands[op] && r.name &&
            std::strcmp(r.name, node_operator_name[op]) == 0)
            continue;
        mismatch = true;
        if (print_debug && FDEBUG) {
            DBG_CHECK(std::fprintf(FDEBUG, "OP#%d: %d || %d || (%d != %d) <<%s>> <<%s>>\n", op, r.opcode, op,
                                   r.arity, number_of_operands[op], r.name ? r.name : "", node_operator_name[op]));
            DBG_CHECK(std::fprintf(FDEBUG, "\tNo match for %s\n", node_operator_name[op]));
        }
    }
    if (mismatch) table_mismatch();

    for (int i = 0; i < 14; ++i) {
        if (float_micro_ops_to_op(float_op_to_micro_ops[i]) != FEQ + i) {
            const char* name = node_operator_name[FEQ + i];
            if (print_debug && FDEBUG)
                std::fprintf(FDEBUG, "float_micro_ops_to_op is not the reverse of float_op_to_micro_ops at %s\n", name);
            std::fprintf(stderr, "float_micro_ops_to_op is not the reverse of float_op_to_micro_ops at %s\n", name);
            abort_optimizer();
        }
    }
    debug_line(" *** OPCODE TABLES ARE OK\n\n");
}
