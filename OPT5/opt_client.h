// The optimizer's side of the I-file reader, and the reading and writing of
// a whole unit.
#pragma once

#include "IFILE/if_file.h"

class NODE;
struct FUNINFO;
struct SYMTAB;

// The node side of a reader client: expression nodes are NODEs, symbols
// are SYMTABs filled from their records, and the loop and dependence records
// are left alone (the optimizer works them out again).
class NODE_CLIENT : public IF_CLIENT {
public:
    void cl_loop_def(unsigned, unsigned, unsigned, unsigned, unsigned, unsigned) override {}
    void cl_loop_header(unsigned, I_SYMTAB*, unsigned) override {}
    void cl_dd_vector(const std::vector<long long>&) override {}
    void cl_dd_edge(unsigned, unsigned, unsigned) override {}
    void cl_mbank(unsigned, unsigned, unsigned, unsigned, unsigned) override {}
    void cl_ir_end_func(PSN*) override {}
    BASE_NODE* cl_new_node(int opcode, TYPE* type) override;
    int cl_node_opcode(BASE_NODE* node) override;
    void cl_set_opcode(BASE_NODE* node, int opcode) override;
    TYPE* cl_node_type(BASE_NODE* node) override;
    void cl_set_operands(BASE_NODE* node, BASE_NODE* left, BASE_NODE* right) override;
    BASE_NODE* cl_left(BASE_NODE* node) override;
    BASE_NODE* cl_right(BASE_NODE* node) override;

protected:
    // A symbol's fields as its record gives them.
    static void fill_symbol(SYMTAB& s, char* name, TYPE* type, TYPE* type2, unsigned long size, unsigned long align,
                            unsigned long b, int c, int d, PSN* pos, unsigned long f, unsigned g,
                            I_SYMTAB::RETENTION_POLICY retention);
};

class OPT_CLIENT : public NODE_CLIENT {
public:
    bool cl_magic(int version, int cpu) override;
    void cl_source(const char* text) override;
    I_SYMTAB* cl_symbol_create(char* name, TYPE* type, TYPE* type2, unsigned long size, unsigned long align,
                               unsigned long b, int c, int d, PSN* pos, unsigned long f, unsigned g,
                               I_SYMTAB::RETENTION_POLICY retention) override;
    void cl_symbol_def(I_SYMTAB* sym) override;
    void cl_pragma(I_SYMTAB* sym, PRAGMA* pragma) override;
    void cl_merge_type_defs() override;
    void cl_preprocess_statics() override;
    void cl_begin_func(I_SYMTAB* fn, PSN* pos) override;
    void cl_end_args(PSN* pos) override;
    void cl_end_locals(PSN* pos) override;
    void cl_begin_block(PSN* pos) override;
    void cl_end_block(PSN* pos) override;
    void cl_end_func(PSN* pos) override;
    void cl_label(unsigned id) override;
    void cl_expr(BASE_NODE* tree, PSN* pos) override;
    void cl_inline_asm(char* text, PSN* pos) override;
    void cl_comment(char* text) override;
    void cl_func_info(int value) override;
    void cl_func_eht(EHT_ENTRY* entries, unsigned count) override;

private:
    void append(NODE* tree, const PSN* pos);
    void control(int kind, PSN* pos);
};

extern OPT_CLIENT opt_client;
extern I_FILE* i_file;   // the input
extern I_FILE* o_file;   // the output
extern int lex;          // open scopes of the current function
extern bool any_unions_in_program;

// Opens the input as an I-file and creates the output with the same header
// source; reads the whole unit (the driver's unit reader).
void read_ifile_unit();
// Writes one function ("output function", unless its body is suppressed).
void write_function(struct SYMTAB* fn);
// Writes the unit's global data after the last barrier.
void write_global_data();
// A new local variable of the current function (a temporary of the
// optimizer): declared after its other locals, so that the written unit
// numbers it as it numbers them.  Null when the locals can't take one.
struct SYMTAB* make_local_temporary(TYPE* type, const std::string& name);
// A local symbol not yet declared anywhere: declared like `like` (a symbol
// of another function; null: a plain temporary), of this type and name.
struct SYMTAB* make_local_symbol(const I_SYMTAB* like, TYPE* type, const std::string& name);
// Declares the symbols as the last locals of a statement list (or of the
// scope records of a function with a flow graph), numbered after the
// others.  False, and nothing declared, when the list can't take locals.
bool add_locals(std::vector<struct BODY_ENTRY>& entries, const std::vector<struct SYMTAB*>& syms);
// Releases the trees of a function's body.
void erase_function_body(FUNINFO* fi);
// The statement in infix form, for listings and interlisting comments.
std::string stmt2infix(const NODE* tree);
// What the dumps add to the infix form: the type of every name and constant
// (resolved through typedefs and qualifiers with `full_types`), the address
// of every symbol, and virtual registers as R<n>.
struct INFIX_STYLE {
    bool types = false, full_types = false, sym_addr = false, regs = false;
};
std::string stmt2infix(const NODE* tree, const INFIX_STYLE& style);
// A type and a symbol's address as the style writes them.
std::string type_text(TYPE* type, const INFIX_STYLE& style);
std::string symbol_address(const void* sym);
// Makes a tree writable: the casts the code generator needs, and
// optimizer-only opcodes back to their I-file forms.
NODE* insert_mandatory_casts(NODE* tree);
