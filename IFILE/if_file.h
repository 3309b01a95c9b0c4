// The I-file: a binary stream of records (id byte, LEB128 body size, body)
// with a header record at offset 0 and five sections after the main stream.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "IFILE/if_symbol.h"
#include "UTIL/psn.h"

class BASE_NODE;
class TYPE;
struct TYPE_ELEM;
class TYPE_PKG;

// Record ids.
enum IF_RECORD {
    IR_BEGIN_FUNC = 1,
    IR_END_FUNC = 2,
    IR_BEGIN_BLOCK = 3,
    IR_END_BLOCK = 4,
    IR_END_ARGS = 5,
    IR_END_LOCALS = 6,
    IR_HEADER = 8,
    IR_OTHER_BODY = 34,
    IR_SYMBOL = 35,
    IR_ASM = 36,
    IR_LOOP = 38,
    IR_LABEL = 42,
    IR_MBANK = 45,
    IR_STMT = 46,
    IR_COMMENT = 47,
    IR_DD_EDGE = 58,
    IR_DD_VECTOR = 59,
    IR_FUNC_INFO = 64,
    IR_EHT = 93,
    IR_PRAGMA = 94,
    IR_NODE = 101,
    IR_INIT = 105,
    IR_LDSPEC = 108,
    IR_OPTION_SET = 111,
    IR_TYPE = 116,
    IR_OTHER_BEGIN_FUNC = 123,
    IR_LOOP_HEADER = 124,
    IR_OTHER_END_FUNC = 125,
    IR_SOURCE = 126,
    IR_END = 255,
};

inline constexpr const char* IF_MAGIC = "!<icode>\n";
inline constexpr int IF_CPU_ID = 0x258;
inline constexpr int IF_VERSION_MIN = -86;
inline constexpr int IF_VERSION_MAX = -71;
inline constexpr int IF_VERSION_WRITTEN = -71;

// Receives what the reader reads.
class IF_CLIENT {
public:
    virtual ~IF_CLIENT() = default;
    virtual bool cl_magic(int version, int cpu) = 0;
    virtual void cl_source(const char* text) = 0;
    virtual I_SYMTAB* cl_symbol_create(char* name, TYPE* type, TYPE* type2, unsigned long size, unsigned long align,
                                       unsigned long b, int c, int d, PSN* pos, unsigned long f, unsigned g,
                                       I_SYMTAB::RETENTION_POLICY retention) = 0;
    virtual void cl_symbol_def(I_SYMTAB* sym) = 0;
    virtual void cl_pragma(I_SYMTAB* sym, PRAGMA* pragma) = 0;
    virtual void cl_merge_type_defs() = 0;
    virtual void cl_preprocess_statics() = 0;
    virtual void cl_begin_func(I_SYMTAB* fn, PSN* pos) = 0;
    virtual void cl_end_args(PSN* pos) = 0;
    virtual void cl_end_locals(PSN* pos) = 0;
    virtual void cl_begin_block(PSN* pos) = 0;
    virtual void cl_end_block(PSN* pos) = 0;
    virtual void cl_end_func(PSN* pos) = 0;
    virtual void cl_label(unsigned id) = 0;
    virtual void cl_expr(BASE_NODE* tree, PSN* pos) = 0;
    virtual void cl_inline_asm(char* text, PSN* pos) = 0;
    virtual void cl_comment(char* text) = 0;
    virtual void cl_func_info(int value) = 0;
    virtual void cl_func_eht(EHT_ENTRY* entries, unsigned count) = 0;
    virtual void cl_loop_def(unsigned a, unsigned b, unsigned c, unsigned d, unsigned e, unsigned flags) = 0;
    virtual void cl_loop_header(unsigned id, I_SYMTAB* sym, unsigned flags) = 0;
    virtual void cl_dd_vector(const std::vector<long long>& values) = 0;
    virtual void cl_dd_edge(unsigned a, unsigned b, unsigned c) = 0;
    virtual void cl_mbank(unsigned a, unsigned b, unsigned c, unsigned d, unsigned e) = 0;
    virtual void cl_ir_end_func(PSN* pos) = 0;
    // Builds an expression node; the I-file layer does not know the node class.
    virtual BASE_NODE* cl_new_node(int opcode, TYPE* type) = 0;
    virtual int cl_node_opcode(BASE_NODE* node) = 0;
    virtual void cl_set_opcode(BASE_NODE* node, int opcode) = 0;
    virtual TYPE* cl_node_type(BASE_NODE* node) = 0;
    virtual void cl_set_operands(BASE_NODE* node, BASE_NODE* left, BASE_NODE* right) = 0;
    virtual BASE_NODE* cl_left(BASE_NODE* node) = 0;
    virtual BASE_NODE* cl_right(BASE_NODE* node) = 0;
};

// A fatal format error: the message (a line "INTERNAL ERROR: ..., aborting")
// goes to the standard error stream, the partial output is removed and the
// run ends with status 1.  A fuzzing harness may install a handler of its
// own, which must not return.
using if_fatal_handler_fn = void (*)(const char* message);
void set_if_fatal_handler(if_fatal_handler_fn fn);
[[noreturn]] void if_fatal(const char* message);
// "INTERNAL ERROR: Invalid I-code record, aborting"
[[noreturn]] void if_invalid_record();

// The deepest expression tree the reader accepts (levels of operators).
constexpr size_t IF_MAX_TREE_DEPTH = 100000;

// The largest label number the reader accepts: the optimizer numbers the
// labels it makes from the largest one read, and they must fit an int.
constexpr uint64_t IF_MAX_LABEL = (uint64_t{1} << 30) - 1;

// File names of positions, shared by every I-file of the run; the pointers
// stay valid to the end of the run.
const char* if_intern_file_name(const std::string& name);
// What the shared file names hold: how many, their bytes, and how often a
// name was asked for.
struct IF_INTERNED_STATS {
    size_t names = 0, bytes = 0, requests = 0;
};
IF_INTERNED_STATS if_interned_stats();

class I_FILE {
public:
    ~I_FILE();

    // Reading.
    static I_FILE* if_open(FILE* f, IF_CLIENT* client);
    static I_FILE* if_open_basic(FILE* f, IF_CLIENT* client);
    bool if_read_magic();
    bool if_check_lengths();
    void if_read_file();
    int if_read_record();
    void if_read_func(long offset);
    void if_skip_func();
    void if_copy_raw(long offset, long length, I_FILE* out);
    // Writes the symbol records of this file's globals into `out`.
    void if_copy_symbols(I_FILE* out);

    // Writing.
    static I_FILE* if_create(FILE* f, TYPE_PKG* pkg, const char* source);
    // Ends the file: sections and the final header unless `abandon`; closes
    // the stream.  Non-zero when writing or closing failed.
    int if_close(bool named_types, bool abandon = false);

    long if_tell();
    void if_seek(long offset);
    int if_flush();

    void if_write_begin_func(I_SYMTAB* fn, PSN* pos);
    void if_write_control(int kind, PSN* pos);  // kinds 2 .. 6
    void if_write_label(unsigned id);
    void if_write_assembly(const char* text, PSN* pos);
    void if_write_comment(const char* text);
    void if_write_pragma(const PRAGMA* pragma);
    void if_write_func_info(int value);
    void if_write_symbol(I_SYMTAB* sym);
    void if_write_init(I_SYMTAB* sym, const std::vector<BASE_NODE*>& trees, IF_CLIENT* nodes);
    void if_write_func_eht(const std::vector<EHT_ENTRY>& entries);
    // Loop and dependence records, the inverse of what the reader hands its
    // client (cl_loop_def, cl_loop_header, cl_dd_vector, cl_dd_edge,
    // cl_mbank).  A loop header without a control variable passes null.
    void if_write_loop(const unsigned values[5], unsigned flags);
    void if_write_inloop(unsigned loop, I_SYMTAB* control_variable, unsigned flags);
    void if_write_dep_vector(const std::vector<long long>& values);
    void if_write_dep_edge(unsigned a, unsigned b, unsigned c);
    void if_write_mbank(const unsigned values[5]);
    void if_write_source(const char* text);
    void if_write_expr(BASE_NODE* tree, PSN* pos, IF_CLIENT* nodes);  // statement record and its tree
    void if_write_tree(BASE_NODE* tree, IF_CLIENT* nodes);            // the tree alone
    void if_enter_option_set(const OPTION_SET& set);
    unsigned i_enter_file_name(const char* name);
    // A global symbol of the output; its table index is its position.
    void if_enter_global(I_SYMTAB* sym);
    void if_enter_local(I_SYMTAB* sym);
    void if_clear_locals();

    // What the header and sections held.
    int version = IF_VERSION_WRITTEN;
    int cpu_id = IF_CPU_ID;
    uint32_t offsets[5] = {0, 0, 0, 0, 0};  // options, init, types, file names, globals
    std::string source;
    uint32_t extra_word = 0;
    std::vector<OPTION_SET> option_sets;
    std::vector<I_SYMTAB*> globals, locals;
    std::vector<const char*> file_names;  // id - 1 -> name
    int scope_level = 0;

    // Types read, by id.
    TYPE* find_typeref(unsigned id);
    TYPE_ELEM* find_mdataref(unsigned type_id, unsigned member);

private:
    I_FILE() = default;
    FILE* f_ = nullptr;
    long start_ = 0;
    bool write_mode_ = false;
    IF_CLIENT* client_ = nullptr;
    TYPE_PKG* pkg_ = nullptr;
    std::map<unsigned, TYPE*> type_map_;
    // Reading: a window onto the file, refilled a megabyte at a time; the
    // body of the record being read lies in it.
    std::unique_ptr<unsigned char[]> window_;
    size_t window_size_ = 0;
    long window_at_ = 0;  // file offset of window_[0]
    size_t window_pos_ = 0, window_end_ = 0;
    static constexpr size_t WINDOW_BYTES = size_t{1} << 20;
    const unsigned char* body_ = nullptr;
    size_t body_size_ = 0;
    size_t pos_ = 0;
    std::vector<unsigned char> out_;    // the record being written
    unsigned next_type_id_ = 1;
    std::vector<TYPE*> written_types_;
    bool init_started_ = false;
    std::vector<unsigned char> pending_;  // whole records not yet handed to the stream
    static constexpr size_t PENDING_LIMIT = size_t{1} << 20;

    enum { OFF_OPTIONS = 0, OFF_INIT = 1, OFF_TYPES = 2, OFF_FILES = 3, OFF_GLOBALS = 4 };

    // Record frame.
    int read_header(uint64_t& size);
    // The next `size` bytes become the body being read; false when the file
    // ends first.
    bool take_body(uint64_t size);
    void read_body(uint64_t size);
    void skip_body(uint64_t size);
    // Makes n bytes from window_pos_ on available, or fewer at the end of
    // the file; returns how many there are.
    size_t window_fill(size_t n);
    bool window_seek(long file_offset);
    // Primitives on the body being read.
    unsigned r_u8();
    int r_s8();
    int r_s16();
    uint32_t r_u32();
    uint64_t r_uint();
    unsigned r_label();
    int64_t r_sint();
    std::string r_string();
    std::string r_string(size_t n);
    PSN r_psn();
    TYPE* r_typeref();
    I_SYMTAB* r_symref();
    void r_end();  // the body must be used up

    void dispatch(int id);
    BASE_NODE* read_expr_node(bool nested);
    BASE_NODE* read_node_record(bool nested, int& opcode);
    void read_symbol_def();
    void read_pragma(I_SYMTAB* sym);
    void read_eht();
    void read_options();
    void read_type_defs();
    void read_globals();
    void read_all_init();
    void read_file_names();
    template <class F>
    void read_section(int which, F&& each);

    // Writing.
    void w_u8(unsigned v);
    void w_u16(unsigned v);
    void w_u32(uint32_t v);
    void w_uint(uint64_t v);
    void w_sint(int64_t v);
    void w_string(std::string_view s);
    void w_raw(const void* p, size_t n);
    void w_psn(const PSN* pos);
    void w_typeref(TYPE* t);
    void w_symref(I_SYMTAB* sym);
    void i_flush(int id);
    void i_drain();  // hands the pending records to the stream
    void i_write_eof();
    void write_header();
    bool write_expr_node(BASE_NODE* node, IF_CLIENT* nodes);
    void write_type_section(bool named_types);
    unsigned type_id(TYPE* t);
    void mark_type(TYPE* t);

    friend struct if_type_io;
};

// Reads the records of one section, handing each to `each` with its body
// loaded, up to the section's end record; the stream position is kept.
template <class F>
void I_FILE::read_section(int which, F&& each) {
    if (offsets[which] == 0) return;
    long saved = if_tell();
    if_seek(offsets[which]);
    for (;;) {
        uint64_t size;
        int id = read_header(size);
        if (id == IR_END) break;
        read_body(size);
        each(id);
    }
    if_seek(saved);
}

extern int icode_cpu_id;

// The payload of a type record of the given code, as a field string (b bool,
// c s8, u u8, n uint, s sint, S string, T type id, P psn; the data member,
// code 30, has two more uints after its u8 when that u8 has bit 0 set), or
// null for an unknown code.
const char* if_type_layout(int code);
inline constexpr int IF_TYPE_MDATA = 30;

// Whether a type name read from the I-file is a C++ (qualified) name.
bool if_read_type_is_cpp(const std::string& name);
