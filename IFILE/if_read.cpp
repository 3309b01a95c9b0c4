// Reading an I-file.
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <set>

#include "IFILE/base_node.h"
#include "IFILE/if_file.h"
#include "IFILE/if_node.h"
#include "IFILE/if_prim.h"
#include "TYPES/type_pkg.h"
#include "UTIL/cleanup.h"

int icode_cpu_id = IF_CPU_ID;

namespace {
// Opcodes whose node records carry a payload (see the reader below).
constexpr int OP_LABEL = 1, OP_NAME = 2, OP_SCON = 3, OP_ICON = 4, OP_FCON = 5, OP_LCON = 25, OP_FIELD = 26,
              OP_SWITCH = 40, OP_CALL = 70, OP_UCALL = 72, OP_EQ = 80, OP_UGT = 89, OP_EPVAL = 110,
              OP_ENDINIT = 112, OP_SKIP = 115, OP_DDNODE = 119, OP_ICALL = 129, OP_UICALL = 130, OP_MCALL = 132,
              OP_UMCALL = 133, OP_FEQ = 143, OP_FLE = 145, OP_FLT = 146, OP_FGE = 147, OP_FGT = 148,
              OP_FNEQN = 150, OP_VREG = 163;

// The floating counterpart of an integer comparison (NEQ becomes FNEQN).
int floating_compare(int op) {
    switch (op) {
    case 80: return OP_FEQ;
    case 81: return OP_FNEQN;
    case 82:
    case 86: return OP_FLE;
    case 83:
    case 87: return OP_FLT;
    case 84:
    case 88: return OP_FGE;
    default: return OP_FGT;  // GT, UGT
    }
}

bool accepted_by_length_check(int id) {
    static const std::set<int> ids = {1,  2,  3,  4,  5,  6,  33, 34, 35, 36,  38,  42,  43,  45,  46,  47,  58,
                                      59, 60, 62, 63, 64, 91, 93, 94, 101, 108, 116, 123, 124, 125, 126};
    return ids.count(id) != 0;
}
}  // namespace

namespace {
if_fatal_handler_fn fatal_handler = nullptr;
}

void set_if_fatal_handler(if_fatal_handler_fn fn) { fatal_handler = fn; }

void if_fatal(const char* message) {
    if (fatal_handler) fatal_handler(message);
    std::fflush(stdout);
    std::fputs(message, stderr);
    run_abnormal_exit_cleanup();
    std::exit(1);
}

void if_invalid_record() { if_fatal("\nINTERNAL ERROR: Invalid I-code record, aborting"); }

namespace {
std::mutex interned_mutex;
std::deque<std::string> interned_names;
size_t interned_requests = 0;
}  // namespace

const char* if_intern_file_name(const std::string& name) {
    std::lock_guard<std::mutex> lock(interned_mutex);
    ++interned_requests;
    for (const std::string& n : interned_names)
        if (n == name) return n.c_str();
    interned_names.push_back(name);
    return interned_names.back().c_str();
}

IF_INTERNED_STATS if_interned_stats() {
    std::lock_guard<std::mutex> lock(interned_mutex);
    IF_INTERNED_STATS s;
    s.names = interned_names.size();
    s.requests = interned_requests;
    for (const std::string& n : interned_names) s.bytes += n.size() + 1;
    return s;
}

I_FILE::~I_FILE() = default;

// ---------------------------------------------------------------------------
// Positions and the record frame

long I_FILE::if_tell() {
    if (write_mode_) return std::ftell(f_) + static_cast<long>(pending_.size()) - start_;
    return window_at_ + static_cast<long>(window_pos_) - start_;
}

void I_FILE::if_seek(long offset) {
    if (write_mode_ ? std::fseek(f_, start_ + offset, SEEK_SET) != 0 : !window_seek(start_ + offset))
        if_invalid_record();
}

bool I_FILE::window_seek(long file_offset) {
    if (file_offset >= window_at_ && file_offset <= window_at_ + static_cast<long>(window_end_)) {
        window_pos_ = static_cast<size_t>(file_offset - window_at_);
        return true;
    }
    window_at_ = file_offset;
    window_pos_ = window_end_ = 0;
    return std::fseek(f_, file_offset, SEEK_SET) == 0;
}

size_t I_FILE::window_fill(size_t n) {
    size_t have = window_end_ - window_pos_;
    if (have >= n) return have;
    if (window_pos_ > 0) {  // what is left moves to the front
        std::memmove(window_.get(), window_.get() + window_pos_, have);
        window_at_ += static_cast<long>(window_pos_);
        window_pos_ = 0;
        window_end_ = have;
    }
    // The window grows past its size only for a record larger than it, and
    // only as far as the file really goes, so a corrupt size can't make us
    // allocate more than the file holds.
    for (;;) {
        if (window_end_ == window_size_) {
            if (window_end_ >= n && window_size_ > 0) break;
            // Not cleared: only what the file fills is ever read.
            std::unique_ptr<unsigned char[]> larger(new unsigned char[window_size_ + WINDOW_BYTES]);
            if (window_end_ > 0) std::memcpy(larger.get(), window_.get(), window_end_);
            window_ = std::move(larger);
            window_size_ += WINDOW_BYTES;
        }
        size_t got = fread_unlocked(window_.get() + window_end_, 1, window_size_ - window_end_, f_);
        window_end_ += got;
        if (got == 0 || window_end_ >= n) break;
    }
    return window_end_;
}

int I_FILE::if_flush() { return std::fflush(f_); }

int I_FILE::read_header(uint64_t& size) {
    size = 0;
    if (window_fill(11) == 0) if_invalid_record();  // an id and a size of at most ten bytes
    int id = window_[window_pos_++];
    if (id == IR_END) return id;
    if (!if_decode_uint(window_.get(), window_end_, window_pos_, size)) if_invalid_record();
    return id;
}

bool I_FILE::take_body(uint64_t size) {
    if (size > (uint64_t{1} << 40) || window_fill(static_cast<size_t>(size)) < size) return false;
    body_ = window_.get() + window_pos_;
    body_size_ = static_cast<size_t>(size);
    pos_ = 0;
    window_pos_ += body_size_;
    return true;
}

void I_FILE::read_body(uint64_t size) {
    if (!take_body(size)) if_invalid_record();
}

void I_FILE::skip_body(uint64_t size) { read_body(size); }

// ---------------------------------------------------------------------------
// Primitives on the record body

unsigned I_FILE::r_u8() {
    if (pos_ >= body_size_) if_invalid_record();
    return body_[pos_++];
}

int I_FILE::r_s8() { return static_cast<signed char>(r_u8()); }

int I_FILE::r_s16() {
    unsigned lo = r_u8();
    unsigned hi = r_u8();
    return static_cast<int16_t>(lo | (hi << 8));
}

uint32_t I_FILE::r_u32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(r_u8()) << (8 * i);
    return v;
}

uint64_t I_FILE::r_uint() {
    uint64_t v;
    if (!if_decode_uint(body_, body_size_, pos_, v)) if_invalid_record();
    return v;
}

int64_t I_FILE::r_sint() {
    int64_t v;
    if (!if_decode_sint(body_, body_size_, pos_, v)) if_invalid_record();
    return v;
}

std::string I_FILE::r_string() {
    const unsigned char* start = body_ + pos_;
    const void* nul = std::memchr(start, 0, body_size_ - pos_);
    if (!nul) if_invalid_record();
    size_t n = static_cast<const unsigned char*>(nul) - start;
    std::string s(reinterpret_cast<const char*>(start), n);
    pos_ += n + 1;
    return s;
}

std::string I_FILE::r_string(size_t n) {
    if (n > body_size_ - pos_) if_invalid_record();
    std::string s(reinterpret_cast<const char*>(body_ + pos_), n);
    pos_ += n;
    return s;
}

PSN I_FILE::r_psn() {
    PSN p;
    uint64_t file = r_uint();
    if (file == 0) return p;
    if (file > file_names.size()) if_invalid_record();
    p.file = file_names[file - 1];
    p.line = r_uint();
    p.col = r_uint();
    return p;
}

TYPE* I_FILE::r_typeref() { return find_typeref(static_cast<unsigned>(r_uint())); }

I_SYMTAB* I_FILE::r_symref() {
    uint64_t scope = r_uint();
    uint64_t index = r_uint();
    if (scope == 0xFFFFFFFFu) return nullptr;
    std::vector<I_SYMTAB*>& table = scope == 0 ? globals : locals;
    if (index >= table.size()) if_invalid_record();
    return table[index];
}

void I_FILE::r_end() {
    if (pos_ != body_size_) if_invalid_record();
}

TYPE* I_FILE::find_typeref(unsigned id) {
    if (id == 0) return nullptr;
    auto it = type_map_.find(id);
    if (it == type_map_.end()) if_invalid_record();
    return it->second;
}

TYPE_ELEM* I_FILE::find_mdataref(unsigned type_id, unsigned member) {
    TYPE* t = find_typeref(type_id);
    return t ? t->member(member) : nullptr;
}

// ---------------------------------------------------------------------------
// Opening

I_FILE* I_FILE::if_open_basic(FILE* f, IF_CLIENT* client) {
    I_FILE* file = new I_FILE;
    file->f_ = f;
    file->client_ = client;
    file->start_ = std::ftell(f);
    if (file->start_ < 0) file->start_ = 0;
    if (!file->if_read_magic()) {
        delete file;
        return nullptr;
    }
    return file;
}

I_FILE* I_FILE::if_open(FILE* f, IF_CLIENT* client) {
    std::unique_ptr<I_FILE> file(if_open_basic(f, client));
    if (!file) return nullptr;
    if_node_table_init();
    client->cl_source(file->source.c_str());
    file->read_options();  // may end in a format error: don't leave the object behind
    return file.release();
}

bool I_FILE::if_read_magic() {
    if (!window_seek(start_) || window_fill(11) == 0) return false;
    int id = window_[window_pos_++];
    if (id != IR_HEADER) return false;
    uint64_t size = 0;
    if (!if_decode_uint(window_.get(), window_end_, window_pos_, size) || size > 65536 || !take_body(size))
        return false;
    // Check the fixed part by hand: a wrong header is refused, not fatal.
    const size_t magic_len = std::strlen(IF_MAGIC) + 1;
    if (body_size_ < magic_len + 4 + 20 || std::memcmp(body_, IF_MAGIC, magic_len) != 0) return false;
    pos_ = magic_len;
    version = r_s16();
    cpu_id = r_s16();
    if (cpu_id != IF_CPU_ID || version < IF_VERSION_MIN || version > IF_VERSION_MAX) return false;
    for (uint32_t& o : offsets) o = r_u32();
    if (!std::memchr(body_ + pos_, 0, body_size_ - pos_)) return false;
    source = r_string();
    if (version >= -83) {
        if (body_size_ - pos_ < 4) return false;
        extra_word = r_u32();
    }
    if (pos_ != body_size_) return false;
    icode_cpu_id = cpu_id;
    return client_->cl_magic(version, cpu_id);
}

bool I_FILE::if_check_lengths() {
    long here = if_tell();
    if (!if_read_magic()) return false;
    long prev_at = 0;
    int prev_id = IR_HEADER;
    uint64_t prev_size = 0;
    for (;;) {
        long at = if_tell();
        int id = window_fill(11) == 0 ? EOF : window_[window_pos_++];
        uint64_t size = 0;
        if (id == IR_END) {
            if_seek(here);
            return true;
        }
        bool ok = id != EOF && accepted_by_length_check(id) &&
                  if_decode_uint(window_.get(), window_end_, window_pos_, size) && size < (uint64_t{1} << 40);
        // Past the end of the file the next id reads as EOF.
        if (ok && !window_seek(window_at_ + static_cast<long>(window_pos_) + static_cast<long>(size))) ok = false;
        if (!ok) {
            std::fprintf(stderr, ">>I-file error:@%d,id=%d,sz=%d,prev [@%d,id=%d,sz=%d]\n", static_cast<int>(at), id,
                         static_cast<int>(size), static_cast<int>(prev_at), prev_id, static_cast<int>(prev_size));
            if_seek(here);
            return false;
        }
        prev_at = at;
        prev_id = id;
        prev_size = size;
    }
}

// ---------------------------------------------------------------------------
// Sections

void I_FILE::read_options() {
    read_section(OFF_OPTIONS, [this](int id) {
        if (id != IR_OPTION_SET) if_invalid_record();
        OPTION_SET set;
        set.kind = static_cast<unsigned>(r_uint());
        uint64_t count = r_uint();
        for (uint64_t i = 0; i < count; ++i) set.options.push_back(r_string());
        r_end();
        option_sets.push_back(std::move(set));
    });
}

void I_FILE::read_file_names() {
    if (offsets[OFF_FILES] == 0) return;
    long saved = if_tell();
    if_seek(offsets[OFF_FILES]);
    for (;;) {
        uint64_t size;
        int id = read_header(size);
        if (id != IR_SOURCE) break;
        read_body(size);
        file_names.push_back(if_intern_file_name(r_string()));
        r_end();
    }
    if_seek(saved);
}

void I_FILE::read_globals() {
    int saved_level = scope_level;
    scope_level = 0;
    read_section(OFF_GLOBALS, [this](int id) {
        if (id != IR_SYMBOL) if_invalid_record();
        read_symbol_def();
    });
    scope_level = saved_level;
}

void I_FILE::read_all_init() {
    read_section(OFF_INIT, [this](int id) { dispatch(id); });
}

void I_FILE::if_read_file() {
    read_file_names();
    read_type_defs();
    client_->cl_merge_type_defs();
    read_globals();
    read_all_init();
    client_->cl_preprocess_statics();
    while (if_read_record() != IR_END) {
    }
}

int I_FILE::if_read_record() {
    uint64_t size;
    int id = read_header(size);
    if (id == IR_END) return id;
    read_body(size);
    switch (id) {
    case 1: case 2: case 3: case 4: case 5: case 6: case 34: case 35: case 36: case 38: case 42: case 45:
    case 46: case 47: case 58: case 59: case 64: case 93: case 94: case 101: case 105: case 108: case 111:
    case 116: case 123: case 124: case 125: case 126:
    case 33: case 43: case 60: case 62: case 63: case 91:
        dispatch(id);
        break;
    default: {
        // Where the record began: before its body, its size and its id.
        std::vector<unsigned char> size_bytes;
        if_encode_uint(size_bytes, size);
        long at = if_tell() - static_cast<long>(size + size_bytes.size() + 1);
        std::fprintf(stderr, "\n///ERROR @0x%lx\n\n", static_cast<unsigned long>(at));
        break;
    }
    }
    return id;
}

void I_FILE::if_read_func(long offset) {
    if (offset) if_seek(offset);
    for (;;) {
        int id = if_read_record();
        if (id == IR_END_FUNC) return;
        if (id == IR_END) if_invalid_record();
    }
}

void I_FILE::if_skip_func() {
    for (;;) {
        uint64_t size;
        int id = read_header(size);
        if (id == IR_END) if_invalid_record();
        skip_body(size);
        if (id == IR_END_FUNC) break;
    }
    scope_level = 0;
}

void I_FILE::if_copy_raw(long offset, long length, I_FILE* out) {
    long saved = if_tell();
    if_seek(offset);
    out->i_drain();  // the raw bytes follow the records written so far
    while (length > 0) {
        size_t n = std::min(window_fill(WINDOW_BYTES), static_cast<size_t>(length));
        if (n == 0) if_invalid_record();
        std::fwrite(window_.get() + window_pos_, 1, n, out->f_);
        window_pos_ += n;
        length -= static_cast<long>(n);
    }
    if_seek(saved);
}

// ---------------------------------------------------------------------------
// Records

void I_FILE::dispatch(int id) {
    switch (id) {
    case IR_BEGIN_FUNC: {
        PSN p = r_psn();
        uint64_t index = r_uint();
        r_end();
        if (index >= globals.size()) if_invalid_record();
        scope_level = 1;
        locals.clear();
        client_->cl_begin_func(globals[index], &p);
        break;
    }
    case IR_END_FUNC:
    case IR_BEGIN_BLOCK:
    case IR_END_BLOCK:
    case IR_END_ARGS:
    case IR_END_LOCALS:
    case IR_OTHER_END_FUNC: {
        PSN p = r_psn();
        r_end();
        switch (id) {
        case IR_END_FUNC:
            client_->cl_end_func(&p);
            scope_level = 0;
            break;
        case IR_BEGIN_BLOCK:
            client_->cl_begin_block(&p);
            ++scope_level;
            break;
        case IR_END_BLOCK:
            client_->cl_end_block(&p);
            --scope_level;
            break;
        case IR_END_ARGS:
            client_->cl_end_args(&p);
            scope_level = 2;
            break;
        case IR_END_LOCALS: client_->cl_end_locals(&p); break;
        default:
            client_->cl_ir_end_func(&p);
            scope_level = 0;
            break;
        }
        break;
    }
    case IR_OTHER_BODY: r_psn(); break;  // the rest of the body is skipped
    case IR_SYMBOL: read_symbol_def(); break;
    case IR_ASM: {
        std::string text = r_string();
        PSN p = r_psn();
        r_end();
        client_->cl_inline_asm(text.data(), &p);
        break;
    }
    case IR_LOOP: {
        unsigned v[5];
        for (unsigned& x : v) x = static_cast<unsigned>(r_uint());
        unsigned lo = r_u8();
        unsigned flags = lo | (r_u8() << 8);
        r_end();
        client_->cl_loop_def(v[0], v[1], v[2], v[3], v[4], flags);
        break;
    }
    case IR_LABEL: {
        unsigned label = r_label();
        r_end();
        client_->cl_label(label);
        break;
    }
    case IR_MBANK: {
        unsigned v[5];
        for (unsigned& x : v) x = static_cast<unsigned>(r_uint());
        r_end();
        client_->cl_mbank(v[0], v[1], v[2], v[3], v[4]);
        break;
    }
    case IR_STMT: {
        PSN p = r_psn();
        r_end();
        BASE_NODE* tree = read_expr_node(true);
        client_->cl_expr(tree, &p);
        break;
    }
    case IR_COMMENT: {
        std::string text = r_string();
        r_end();
        client_->cl_comment(text.data());
        break;
    }
    case IR_DD_EDGE: {
        unsigned a = static_cast<unsigned>(r_uint());
        unsigned b = static_cast<unsigned>(r_uint());
        unsigned c = static_cast<unsigned>(r_uint());
        r_end();
        client_->cl_dd_edge(a, b, c);
        break;
    }
    case IR_DD_VECTOR: {
        uint64_t n = r_uint();
        std::vector<long long> values;
        for (uint64_t i = 0; i < n; ++i) values.push_back(r_sint());
        r_end();
        client_->cl_dd_vector(values);
        break;
    }
    case IR_FUNC_INFO: {
        int v = r_s8();
        r_end();
        client_->cl_func_info(v);
        break;
    }
    case IR_EHT: read_eht(); break;
    case IR_PRAGMA: read_pragma(nullptr); break;
    case IR_NODE: break;  // a node outside any statement is dropped
    case IR_INIT: {
        uint64_t index = r_uint();
        r_end();
        if (index >= globals.size()) if_invalid_record();
        I_SYMTAB* sym = globals[index];
        for (;;) {
            BASE_NODE* tree = read_expr_node(true);
            sym->mx().init_trees.push_back(tree);
            if (client_->cl_node_opcode(tree) == OP_ENDINIT) break;
        }
        sym->mx().has_init = true;
        break;
    }
    case IR_LDSPEC: break;       // load speculation is worked out again by the optimizer
    case IR_OPTION_SET: break;   // meaningful in the option section only
    case IR_TYPE: if_invalid_record();  // types live in the type section
    case IR_OTHER_BEGIN_FUNC: {
        r_uint();
        r_uint();
        r_s8();
        r_uint();
        r_psn();
        r_end();
        scope_level = 1;
        locals.clear();
        break;
    }
    case IR_LOOP_HEADER: {
        unsigned loop = static_cast<unsigned>(r_uint());
        int64_t scope = r_sint();
        int64_t index = r_sint();
        unsigned flags = r_u8();
        r_end();
        I_SYMTAB* sym = nullptr;
        if (static_cast<uint32_t>(scope) != 0xFFFFFFFFu) {
            std::vector<I_SYMTAB*>& table = scope == 0 ? globals : locals;
            if (index < 0 || static_cast<uint64_t>(index) >= table.size()) if_invalid_record();
            sym = table[static_cast<size_t>(index)];
        }
        client_->cl_loop_header(loop, sym, flags);
        break;
    }
    case IR_SOURCE: {
        std::string text = r_string();
        r_end();
        client_->cl_source(text.c_str());
        break;
    }
    default: break;  // accepted ids without an action
    }
}

// A label number: one above IF_MAX_LABEL is an invalid record, so that the
// labels a function invents later always fit.
unsigned I_FILE::r_label() {
    uint64_t label = r_uint();
    if (label > IF_MAX_LABEL) if_invalid_record();
    return static_cast<unsigned>(label);
}

// One node record with its payload; its operands follow as records of
// their own.
BASE_NODE* I_FILE::read_node_record(bool nested, int& opcode) {
    if (nested) {
        uint64_t size;
        if (read_header(size) != IR_NODE) if_invalid_record();
        read_body(size);
    }
    opcode = static_cast<int>(r_u8());
    if (opcode > 163) if_invalid_record();
    TYPE* type = r_typeref();
    BASE_NODE* node = client_->cl_new_node(opcode, type);
    switch (opcode) {
    case OP_LABEL: node->mk_label(static_cast<int>(r_label())); break;
    case OP_NAME: node->mk_name(r_symref()); break;
    case OP_SCON: {
        uint64_t n = r_uint();
        std::string text = r_string(static_cast<size_t>(n));
        node->mk_scon(text.data(), static_cast<unsigned>(n));
        break;
    }
    case OP_ICON:
        if (!type || type->is_signed()) node->mk_icon(static_cast<int>(r_sint()));
        else node->mk_icon(static_cast<int>(static_cast<uint32_t>(r_uint())));
        break;
    case OP_FCON: node->mk_fcon(r_string().c_str()); break;
    case OP_LCON: node->mk_lcon(r_string().c_str()); break;
    case OP_FIELD: {
        int kind = r_s8();
        unsigned member = static_cast<unsigned>(r_uint());
        TYPE* csu = r_typeref();
        TYPE_ELEM* m = csu ? csu->member(member) : nullptr;
        if (!m) if_invalid_record();
        node->mk_field(kind, m, csu);
        break;
    }
    case OP_SWITCH: node->mk_switch(static_cast<int>(r_uint())); break;
    case OP_CALL: {
        unsigned count = static_cast<unsigned>(r_uint());
        unsigned second = static_cast<unsigned>(r_uint());
        node->mk_call(count, second);
        break;
    }
    case OP_UCALL: node->mk_ucall(static_cast<unsigned>(r_uint())); break;
    case OP_EPVAL: node->set_edge_profile_value(static_cast<unsigned>(r_uint())); break;
    case OP_SKIP: node->mk_skip(static_cast<int>(r_uint())); break;
    case OP_DDNODE: {
        int id = static_cast<int>(r_uint());
        int locale = static_cast<int>(r_uint());
        int flags = static_cast<int>(r_u8());
        node->mk_ddnode(id, locale, flags);
        break;
    }
    case OP_ICALL:
    case OP_UICALL:
    case OP_MCALL:
    case OP_UMCALL: node->mk_icall(r_string().c_str()); break;
    case OP_VREG: node->mk_vreg(static_cast<int>(r_sint())); break;
    default: break;
    }
    r_end();
    return node;
}

// Trees are read with a stack of their own, not the machine's: a tree as
// deep as the file allows is read, and one deeper than IF_MAX_TREE_DEPTH is
// refused, since the optimizing steps walk trees recursively.
BASE_NODE* I_FILE::read_expr_node(bool nested) {
    struct PENDING {
        BASE_NODE* node;
        int opcode, arity, have;
        BASE_NODE* operand[2];
    };
    static thread_local std::vector<PENDING> open;  // kept between trees: no allocation per statement
    open.clear();
    for (bool first = true;; first = false) {
        int opcode;
        BASE_NODE* done = read_node_record(first ? nested : true, opcode);
        int arity = opcode == OP_SKIP || opcode == OP_VREG ? 0 : if_node_info[opcode].arity;
        if (arity > 0) {
            if (open.size() >= IF_MAX_TREE_DEPTH)
                if_fatal("\nINTERNAL ERROR: Expression nested deeper than 100000 levels, aborting");
            open.push_back({done, opcode, arity, 0, {nullptr, nullptr}});
            continue;
        }
        while (!open.empty()) {
            PENDING& p = open.back();
            p.operand[p.have++] = done;
            if (p.have < p.arity) break;
            BASE_NODE* left = p.operand[0];
            BASE_NODE* right = p.arity >= 2 ? p.operand[1] : nullptr;
            client_->cl_set_operands(p.node, left, right);
            if (p.arity == 2 && p.opcode >= OP_EQ && p.opcode <= OP_UGT) {
                TYPE* lt = client_->cl_node_type(left);
                TYPE* rt = client_->cl_node_type(right);
                if ((lt && lt->stripped()->kind == TYPE::FLOAT_T) || (rt && rt->stripped()->kind == TYPE::FLOAT_T))
                    client_->cl_set_opcode(p.node, floating_compare(p.opcode));
            }
            done = p.node;
            open.pop_back();
        }
        if (open.empty()) return done;
    }
}

void I_FILE::read_symbol_def() {
    std::string name = r_string();
    unsigned long size = static_cast<unsigned long>(r_uint());
    unsigned long b = static_cast<unsigned long>(r_uint());
    int c = r_s8();
    int d = r_s16();
    TYPE* type = r_typeref();
    TYPE* type2 = r_typeref();
    unsigned long align = static_cast<unsigned long>(r_uint());
    int npragmas = r_s8();
    unsigned long f = static_cast<unsigned long>(r_uint());
    unsigned g = static_cast<unsigned>(r_uint());
    PSN p = r_psn();
    auto retention = I_SYMTAB::RP_DEFAULT;
    if (version >= -71) retention = static_cast<I_SYMTAB::RETENTION_POLICY>(r_u8());
    r_end();
    if (npragmas < 0) if_invalid_record();
    if (size == 22) size = align = 32;  // 22-bit objects are widened on purpose

    I_SYMTAB* sym = client_->cl_symbol_create(name.data(), type, type2, size, align, b, c, d, &p, f, g, retention);
    if (scope_level != 0) if_enter_local(sym);
    else if_enter_global(sym);
    for (int i = 0; i < npragmas; ++i) {
        uint64_t psize;
        if (read_header(psize) != IR_PRAGMA) if_invalid_record();
        read_body(psize);
        read_pragma(sym);
    }
    client_->cl_symbol_def(sym);
}

void I_FILE::if_enter_global(I_SYMTAB* sym) {
    sym->index = static_cast<unsigned>(globals.size());
    sym->global = true;
    globals.push_back(sym);
}

void I_FILE::if_enter_local(I_SYMTAB* sym) {
    sym->index = static_cast<unsigned>(locals.size());
    sym->global = false;
    locals.push_back(sym);
}

void I_FILE::if_clear_locals() { locals.clear(); }

const char* PRAGMA::name() const {
    switch (kind) {
    case SP_SOURCE_LANGUAGE: return "SOURCE_LANGUAGE";
    case SP_TRANSLATION_UNIT_ID: return "TRANSLATION_UNIT_ID";
    case SP_LOCAL_STATIC_OF: return "LOCAL_STATIC_OF";
    case SP_COMDAT_GROUP: return "COMDAT_GROUP";
    case SP_FUNCTION_SYNONYM: return "FUNCTION_SYNONYM";
    case SP_ALWAYS_INLINE: return "ALWAYS_INLINE";
    case SP_FUNC_RET_BY_CCTOR: return "FUNC_RET_BY_CCTOR";
    case SP_CLASS_MEMBER: return "CLASS_MEMBER";
    case SP_CTOR_DTOR: return "CTOR_DTOR";
    case SP_CTOR: return "CTOR";
    case SP_DTOR: return "DTOR";
    case SP_EXCEPTION_SPEC: return "EXCEPTION_SPEC";
    case PK_UNROLL: return "UNROLL";
    case PK_PROB_ITERATE: return "PROB_ITERATE";
    default: return nullptr;
    }
}

void I_FILE::read_pragma(I_SYMTAB* sym) {
    PRAGMA p;
    p.kind = static_cast<int>(r_uint());
    uint64_t count = r_uint();
    for (uint64_t i = 0; i < count; ++i) p.args.push_back(r_string());
    r_end();
    if (sym) {
        sym->mx().pragmas.push_back(p);
        client_->cl_pragma(sym, &sym->mx().pragmas.back());
    } else {
        client_->cl_pragma(nullptr, &p);
    }
}

void I_FILE::read_eht() {
    uint64_t count = r_uint();
    std::vector<EHT_ENTRY> entries;
    for (uint64_t i = 0; i < count; ++i) {
        EHT_ENTRY e;
        e.kind = static_cast<int>(r_u8());
        if (e.kind > EHK_CLEANUP_END) if_fatal("INTERNAL ERROR: Invalid EHT record in I-code, aborting");
        e.id = static_cast<unsigned>(r_uint());
        e.parent = static_cast<unsigned>(r_uint());
        e.label = r_label();
        e.caught = r_typeref();
        entries.push_back(e);
    }
    r_end();
    client_->cl_func_eht(entries.data(), static_cast<unsigned>(entries.size()));
}
