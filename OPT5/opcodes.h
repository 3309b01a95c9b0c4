// Opcode numbers of expression-tree nodes.  0..163 are those of the I-file;
// the others exist only inside the optimizer.
#pragma once

enum OPCODE {
    NOP = 0,
    LABEL = 1,
    NAME = 2,
    SCON = 3,
    ICON = 4,
    FCON = 5,
    PLUS = 6,
    PLUSASG = 7,
    MINUS = 8,
    MINUSASG = 9,
    UMINUS = 10,
    MULT = 11,
    MULTASG = 12,
    UMULT = 13,
    ANDB = 14,
    ANDBASG = 15,
    UAND = 16,
    ORB = 17,
    ORBASG = 18,
    XORB = 19,
    XORBASG = 20,
    QUEST = 21,
    COLON = 22,
    ANDAND = 23,
    OROR = 24,
    LCON = 25,
    FIELD = 26,
    ABS = 27,
    RETURN = 36,
    SWITCH = 40,
    DEFAULT = 46,
    CASE = 47,
    COMMA = 56,
    PCOMMA = 57,
    ASG = 58,
    COMMAOP = 59,
    DIV = 60,
    DIVASG = 61,
    MOD = 62,
    MODASG = 63,
    SLL = 64,
    SLLASG = 65,
    SRL = 66,
    SRLASG = 67,
    STDOT = 68,
    STREF = 69,
    CALL = 70,
    UCALL = 72,
    LOOP = 74,
    ENDLOOP = 75,
    EXCLAIM = 76,
    NOTB = 77,
    PLUSPLUS = 78,
    MINMIN = 79,
    EQ = 80,
    NEQ = 81,
    LE = 82,
    LT = 83,
    GE = 84,
    GT = 85,
    ULE = 86,
    ULT = 87,
    UGE = 88,
    UGT = 89,
    STFIELD = 96,
    ARGREF = 97,
    STASG = 98,
    STARG = 99,
    ARASG = 103,
    SCONV = 104,
    PCONV = 105,
    PMCONV = 106,
    PVCONV = 107,
    ACONV = 108,
    CBRANCH = 109,
    ENDINIT = 112,
    BRANCH = 114,
    SKIP = 115,
    URETURN = 118,
    DDNODE = 119,
    SQRT = 121,
    SQR = 122,
    NASSERT = 123,
    ASSERT = 124,
    MEMCPY = 125,
    TOIEEE = 127,
    FRIEEE = 128,
    ICALL = 129,
    UICALL = 130,
    RECIP = 131,
    MCALL = 132,
    UMCALL = 133,
    VPACK = 134,
    VPACKM = 135,
    VPACK1P = 136,
    VFIELD = 138,
    VRCONV = 139,
    COMPLEX = 140,
    REAL = 141,
    IMAG = 142,
    FEQ = 143,
    FNEQ = 144,
    FLE = 145,
    FLT = 146,
    FGE = 147,
    FGT = 148,
    FEQN = 149,
    FNEQN = 150,
    FLEN = 151,
    FLTN = 152,
    FGEN = 153,
    FGTN = 154,
    FORD = 155,
    FUNO = 156,
    VREG = 163,
    OUIALIGN = 164,
    NONALIGN = 165,
    SIMDHI = 166,
    SIMDLO = 167,
    PPRAGMA = 168,
    VSCONV = 169,
    EXPT = 170,
    EXPRSTUB = 171,
    CSE_DUPE = 172,
    CSE_ORIG = 173,
    ASM = 174,
    IF = 175,
    LABELDEF = 176,
    INITLOOP = 177,
    IDENTITY = 178,
    ISP2CHAR = 179,
    MIXVALUE = 180,
    MIX_CONJ = 181,
    MIX_DISJ = 182,
    MIX_SET = 183,
    BGNBLOCK = 184,
    ENDBLOCK = 185,
    SSA_PHI = 186,
    SSA_USE = 187,
    SSA_DEF = 188,
    SSA_MU = 189,
    SSA_CHI = 190,
    DFG_DEF = 191,
    DFG_VDEF = 192,
    DFG_PHI = 193,
    DFG_VPHI = 194,
    DFG_RCUSE = 195,
    DFG_VRCUSE = 196,
    DFG_SSV = 197,
    DFG_REDUCE = 198,
    DFG_SQC = 199,
    DFG_FETCH = 200,
    DFG_STORE = 201,
    DFG_VREF = 202,
    DFG_EXTRACT = 203,
    DFG_PACK = 204,
    DFG_REPACK = 205,
    DFG_TARGET = 206,
    DFG_PARM = 207,
    DFG_HASHPARM = 208,
    DFG_UNPACK1 = 209,
    DFG_UNPACK2 = 210,
    DFG_S2V = 211,
    DFG_V2S = 212,
    DFG_MVE = 213,
    DFG_HOIST = 214,
    DFG_SINK = 215,
    DFG_MAX = 216,
    DFG_MIN = 217,
    DFG_DONOTCSE = 218,
    DFG_ILS = 219,
    DFG_BUNDLE = 220,
    DFG_SPLIT = 221,
    ILLOP = 224,
    EPVAL = 110,  // an I-file opcode with no row in the optimizer's tables
};

inline constexpr int NUM_OPCODES = 225;

extern const char* node_operator_name[NUM_OPCODES];
extern unsigned char number_of_operands[NUM_OPCODES];  // 255: no such opcode
extern unsigned char op_OK_for_SP[NUM_OPCODES];
extern unsigned char precedence[NUM_OPCODES];
extern unsigned char side_effects[NUM_OPCODES];
// Calls of every kind: named, through a pointer, built-in and method calls.
inline bool is_call(int op) {
    return op == CALL || op == UCALL || op == ICALL || op == UICALL || op == MCALL || op == UMCALL;
}
// Comparisons, integer and floating.
inline bool is_relop(int op) { return (op >= EQ && op <= UGT) || (op >= FEQ && op <= FUNO); }
// Operators whose value is a truth value, 1 or 0.
inline bool is_truth_operator(int op) { return is_relop(op) || op == ANDAND || op == OROR || op == EXCLAIM; }
// Operators whose value is a function of their operands' values alone
// (arithmetic, logic, comparisons, conversions, the conditional operators).
inline bool is_pure_operator(int op) {
    switch (op) {
    case PLUS: case MINUS: case MULT: case DIV: case MOD: case ANDB: case ORB: case XORB: case SLL: case SRL:
    case UMINUS: case NOTB: case EXCLAIM: case ABS: case SCONV: case PCONV:
    case EQ: case NEQ: case LE: case LT: case GE: case GT: case ULE: case ULT: case UGE: case UGT:
    case FEQ: case FNEQ: case FLE: case FLT: case FGE: case FGT:
    case QUEST: case COLON: case ANDAND: case OROR:
        return true;
    default: return false;
    }
}
// The logical inverse of each comparison (ILLOP when it has none), and the
// operator to use when the operands of a commutable operator are swapped.
extern int boolean_inv[NUM_OPCODES];
extern int commute_inv[NUM_OPCODES];  // 0 none, 1 assignment, 2 control transfer, 255 any

// Fills the tables and checks them against the I-file node table and the
// floating-comparison micro-operation tables; a mismatch aborts.
void init_opcode_tables();

// The fourteen floating comparisons FEQ..FUNO as micro-operation masks
// (bit 0 less, 1 equal, 2 greater, 3 unordered, 4 the N form) and back.
extern const unsigned char float_op_to_micro_ops[14];
int float_micro_ops_to_op(unsigned micro_ops);
