// Writing an I-file.
#include <cstdlib>
#include <cstring>
#include <new>

#include "IFILE/base_node.h"
#include "IFILE/if_file.h"
#include "IFILE/if_node.h"
#include "IFILE/if_prim.h"
#include "TYPES/type_pkg.h"

namespace {
constexpr int OP_LABEL = 1, OP_NAME = 2, OP_SCON = 3, OP_ICON = 4, OP_FCON = 5, OP_LCON = 25, OP_FIELD = 26,
              OP_SWITCH = 40, OP_CALL = 70, OP_UCALL = 72, OP_EPVAL = 110, OP_SKIP = 115, OP_DDNODE = 119,
              OP_ICALL = 129, OP_UICALL = 130, OP_MCALL = 132, OP_UMCALL = 133, OP_VREG = 163;

unsigned member_index(TYPE* csu, TYPE_ELEM* member) {
    for (unsigned i = 0;; ++i) {
        TYPE_ELEM* m = csu->member(i);
        if (!m) return 0;
        if (m == member) return i;
    }
}
}  // namespace

I_FILE* I_FILE::if_create(FILE* f, TYPE_PKG* pkg, const char* src) {
    I_FILE* file = new I_FILE;
    file->f_ = f;
    file->write_mode_ = true;
    file->pkg_ = pkg;
    file->source = src ? src : "";
    file->cpu_id = icode_cpu_id;
    file->out_.reserve(32768);
    file->pending_.reserve(PENDING_LIMIT + 65536);
    file->start_ = 0;
    file->write_header();
    return file;
}

namespace {
// Puts bytes into a buffer that may have to grow; when it cannot, the
// record cannot be written and the run ends.
template <class F>
void growing(F&& put) {
    try {
        put();
    } catch (const std::bad_alloc&) {
        if_fatal(">> ICODE Buffer size exceeded and realloc failed");
    }
}
}  // namespace

void I_FILE::w_u8(unsigned v) {
    growing([&] { out_.push_back(static_cast<unsigned char>(v)); });
}

void I_FILE::w_u16(unsigned v) {
    w_u8(v & 0xFF);
    w_u8((v >> 8) & 0xFF);
}

void I_FILE::w_u32(uint32_t v) {
    for (int i = 0; i < 4; ++i) w_u8((v >> (8 * i)) & 0xFF);
}

void I_FILE::w_uint(uint64_t v) {
    growing([&] { if_encode_uint(out_, v); });
}

void I_FILE::w_sint(int64_t v) {
    growing([&] { if_encode_sint(out_, v); });
}

// The text and its terminating zero, without a copy of the text.
void I_FILE::w_string(std::string_view s) {
    w_raw(s.data(), s.size());
    w_u8(0);
}

void I_FILE::w_raw(const void* p, size_t n) {
    const unsigned char* b = static_cast<const unsigned char*>(p);
    growing([&] { out_.insert(out_.end(), b, b + n); });
}

unsigned I_FILE::i_enter_file_name(const char* name) {
    for (size_t i = 0; i < file_names.size(); ++i)
        if (file_names[i] == name || std::strcmp(file_names[i], name) == 0) return static_cast<unsigned>(i + 1);
    file_names.push_back(if_intern_file_name(name));
    return static_cast<unsigned>(file_names.size());
}

void I_FILE::w_psn(const PSN* pos) {
    if (!pos || (!pos->file && pos->line == 0 && pos->col == 0)) {
        w_uint(0);
        return;
    }
    w_uint(i_enter_file_name(pos->file ? pos->file : "NO_FILE"));
    w_uint(pos->line);
    w_uint(pos->col);
}

void I_FILE::w_typeref(TYPE* t) {
    if (!t) {
        w_uint(0);
        return;
    }
    mark_type(t);
    w_uint(type_id(t));
}

void I_FILE::w_symref(I_SYMTAB* sym) {
    if (!sym) {
        w_uint(0xFFFFFFFFu);
        w_uint(0);
        return;
    }
    w_uint(sym->global ? 0 : 1);
    w_uint(sym->index);
}

void I_FILE::i_flush(int id) {
    // The record joins the pending bytes: its id, its size, its body.  They
    // go to the stream a megabyte at a time (the stream is this file's own,
    // so it needs no locking).
    growing([&] {
        pending_.push_back(static_cast<unsigned char>(id));
        if_encode_uint(pending_, out_.size());
        pending_.insert(pending_.end(), out_.begin(), out_.end());
    });
    out_.clear();
    if (pending_.size() >= PENDING_LIMIT) i_drain();
}

void I_FILE::i_drain() {
    if (pending_.empty()) return;
    fwrite_unlocked(pending_.data(), 1, pending_.size(), f_);
    pending_.clear();
}

void I_FILE::i_write_eof() {
    growing([&] { pending_.push_back(static_cast<unsigned char>(IR_END)); });
    if (pending_.size() >= PENDING_LIMIT) i_drain();
}

void I_FILE::write_header() {
    w_raw(IF_MAGIC, std::strlen(IF_MAGIC) + 1);
    w_u16(static_cast<unsigned>(version) & 0xFFFF);
    w_u16(static_cast<unsigned>(cpu_id) & 0xFFFF);
    for (uint32_t o : offsets) w_u32(o);
    w_string(source);
    if (version >= -83) w_u32(extra_word);
    i_flush(IR_HEADER);
}

void I_FILE::if_write_begin_func(I_SYMTAB* fn, PSN* pos) {
    w_psn(pos);
    w_uint(fn->index);
    i_flush(IR_BEGIN_FUNC);
}

void I_FILE::if_write_control(int kind, PSN* pos) {
    w_psn(pos);
    i_flush(kind);
}

void I_FILE::if_write_label(unsigned id) {
    w_uint(id);
    i_flush(IR_LABEL);
}

void I_FILE::if_write_assembly(const char* text, PSN* pos) {
    w_string(text);
    w_psn(pos);
    i_flush(IR_ASM);
}

void I_FILE::if_write_comment(const char* text) {
    w_string(text);
    i_flush(IR_COMMENT);
}

void I_FILE::if_write_pragma(const PRAGMA* p) {
    w_uint(static_cast<uint64_t>(p->kind));
    w_uint(p->args.size());
    for (const std::string& a : p->args) w_string(a);
    i_flush(IR_PRAGMA);
}

void I_FILE::if_write_func_info(int value) {
    w_u8(static_cast<unsigned>(value) & 0xFF);
    i_flush(IR_FUNC_INFO);
}

void I_FILE::if_write_source(const char* text) {
    w_string(text);
    i_flush(IR_SOURCE);
}

void I_FILE::if_write_symbol(I_SYMTAB* sym) {
    w_string(sym->name);
    w_uint(sym->size);
    w_uint(sym->value_b);
    w_u8(static_cast<unsigned>(sym->value_c) & 0xFF);
    w_u16(static_cast<unsigned>(sym->value_d) & 0xFFFF);
    w_typeref(sym->type);
    w_typeref(sym->type2);
    w_uint(sym->align);
    w_u8(static_cast<unsigned>(sym->x().pragmas.size()) & 0xFF);
    w_uint(sym->value_f);
    w_uint(sym->value_g);
    w_psn(&sym->pos);
    w_u8(sym->retention);
    i_flush(IR_SYMBOL);
    for (const PRAGMA& p : sym->x().pragmas) if_write_pragma(&p);
}

void I_FILE::if_write_loop(const unsigned values[5], unsigned flags) {
    for (int i = 0; i < 5; ++i) w_uint(values[i]);
    w_u16(flags & 0xFFFF);
    i_flush(IR_LOOP);
}

void I_FILE::if_write_inloop(unsigned loop, I_SYMTAB* control_variable, unsigned flags) {
    w_uint(loop);
    // A symbol the tables do not hold is written as none.
    if (control_variable && control_variable->index != I_SYMTAB::NO_INDEX) {
        w_sint(control_variable->global ? 0 : 1);
        w_sint(control_variable->index);
    } else {
        w_sint(-1);
        w_sint(0);
    }
    w_u8(flags & 0xFF);
    i_flush(IR_LOOP_HEADER);
}

void I_FILE::if_write_dep_vector(const std::vector<long long>& values) {
    w_uint(values.size());
    for (long long v : values) w_sint(v);
    i_flush(IR_DD_VECTOR);
}

void I_FILE::if_write_dep_edge(unsigned a, unsigned b, unsigned c) {
    w_uint(a);
    w_uint(b);
    w_uint(c);
    i_flush(IR_DD_EDGE);
}

void I_FILE::if_write_mbank(const unsigned values[5]) {
    for (int i = 0; i < 5; ++i) w_uint(values[i]);
    i_flush(IR_MBANK);
}

void I_FILE::if_write_func_eht(const std::vector<EHT_ENTRY>& entries) {
    w_uint(entries.size());
    for (const EHT_ENTRY& e : entries) {
        w_u8(static_cast<unsigned>(e.kind));
        w_uint(e.id);
        w_uint(e.parent);
        w_uint(e.label);
        w_typeref(e.caught);
    }
    i_flush(IR_EHT);
}

void I_FILE::if_enter_option_set(const OPTION_SET& set) { option_sets.push_back(set); }

void I_FILE::if_copy_symbols(I_FILE* out) {
    for (I_SYMTAB* g : globals) out->if_write_symbol(g);
}

void I_FILE::if_write_expr(BASE_NODE* tree, PSN* pos, IF_CLIENT* nodes) {
    w_psn(pos);
    i_flush(IR_STMT);
    if_write_tree(tree, nodes);
}

void I_FILE::if_write_tree(BASE_NODE* tree, IF_CLIENT* nodes) { write_expr_node(tree, nodes); }

// Writes a node, its left subtree recursively and its right subtree in the
// same loop.  False when the tree had to be abandoned.
bool I_FILE::write_expr_node(BASE_NODE* node, IF_CLIENT* nodes) {
    while (node) {
        int op = nodes->cl_node_opcode(node);
        TYPE* type = nodes->cl_node_type(node);
        if (op < 0 || op > 163) if_fatal("\nINTERNAL ERROR: Invalid opcode, aborting");
        if (op == OP_NAME && node->name_symbol() && node->name_symbol()->index == I_SYMTAB::NO_INDEX) {
            std::fprintf(stderr, ">> Symbol %s is not in the symbol table\n", node->name_symbol()->name.c_str());
            out_.clear();
            return false;
        }
        bool wide = op == OP_ICON && node->icon_is_wide();
        w_u8(static_cast<unsigned>(wide ? OP_LCON : op));
        w_typeref(type);
        switch (op) {
        case OP_LABEL: w_uint(static_cast<uint32_t>(node->label_id())); break;
        case OP_NAME: w_symref(node->name_symbol()); break;
        case OP_SCON:
            w_uint(node->scon_length());
            w_raw(node->scon_value(), node->scon_length());
            break;
        case OP_ICON:
            // The low 32 bits: sign-extended for a signed type.
            if (wide) w_string(node->lcon_value());
            else if (!type || type->is_signed()) w_sint(static_cast<int32_t>(node->icon_svalue()));
            else w_uint(node->icon_uvalue());
            break;
        case OP_FCON:
        case OP_LCON: w_string(node->fcon_value()); break;
        case OP_FIELD: {
            TYPE* csu = node->field_csu();
            w_u8(static_cast<unsigned>(node->field_kind()) & 0xFF);
            w_uint(csu ? member_index(csu, node->field_mval()) : 0);
            w_typeref(csu);
            break;
        }
        case OP_SWITCH: w_uint(static_cast<uint32_t>(node->case_count())); break;
        case OP_CALL:
            w_uint(node->call_num_vargs());
            w_uint(node->call_second_count());
            break;
        case OP_UCALL: w_uint(node->call_second_count()); break;
        case OP_EPVAL: w_uint(node->get_edge_profile_value()); break;
        case OP_SKIP: w_uint(static_cast<uint32_t>(node->skip_count())); break;
        case OP_DDNODE:
            w_uint(node->ddnode_id());
            w_uint(node->ddnode_locale());
            w_u8(node->ddnode_flags() & 0xFF);
            break;
        case OP_ICALL:
        case OP_UICALL:
        case OP_MCALL:
        case OP_UMCALL: w_string(node->icall_name()); break;
        case OP_VREG:
            // The register id travels as its unsigned 32-bit pattern.
            w_sint(static_cast<int64_t>(static_cast<uint32_t>(node->vreg_id())));
            break;
        default: break;
        }
        i_flush(IR_NODE);
        if (op == OP_SKIP || op == OP_VREG) return true;
        BASE_NODE* left = nodes->cl_left(node);
        if (left && !write_expr_node(left, nodes)) return false;
        node = nodes->cl_right(node);
    }
    return true;
}

void I_FILE::if_write_init(I_SYMTAB* sym, const std::vector<BASE_NODE*>& trees, IF_CLIENT* nodes) {
    if (!init_started_) {
        i_write_eof();  // ends the main stream
        offsets[OFF_INIT] = static_cast<uint32_t>(if_tell());
        init_started_ = true;
    }
    sym->mx().init_offset = static_cast<unsigned long>(if_tell());
    w_uint(sym->index);
    i_flush(IR_INIT);
    for (BASE_NODE* t : trees) if_write_tree(t, nodes);
}

int I_FILE::if_close(bool named_types, bool abandon) {
    int failed = 0;
    if (write_mode_ && !abandon) {
        i_write_eof();  // ends the main stream, or the init section
        if (!option_sets.empty()) {
            offsets[OFF_OPTIONS] = static_cast<uint32_t>(if_tell());
            for (const OPTION_SET& set : option_sets) {
                w_uint(set.kind);
                w_uint(set.options.size());
                for (const std::string& o : set.options) w_string(o);
                i_flush(IR_OPTION_SET);
            }
            i_write_eof();
        }
        write_type_section(named_types);
        // The globals are written after the file names: enter theirs now.
        for (I_SYMTAB* g : globals)
            if (g->pos.file) i_enter_file_name(g->pos.file);
            else if (g->pos.line || g->pos.col) i_enter_file_name("NO_FILE");
        if (!file_names.empty()) {
            offsets[OFF_FILES] = static_cast<uint32_t>(if_tell());
            for (const char* name : file_names) if_write_source(name);
            i_write_eof();
        }
        offsets[OFF_GLOBALS] = static_cast<uint32_t>(if_tell());
        for (I_SYMTAB* g : globals) if_write_symbol(g);
        i_write_eof();
        i_drain();
        if (std::fseek(f_, start_, SEEK_SET) != 0) failed = 1;
        write_header();
        i_drain();
        if (std::fseek(f_, 0, SEEK_END) != 0) failed = 1;
    }
    i_drain();
    if (std::fflush(f_) != 0 || std::ferror(f_)) failed = 1;
    if (std::fclose(f_) != 0) failed = 1;
    f_ = nullptr;
    for (TYPE* t : written_types_) {
        t->write_id = 0;
        t->referenced = false;
    }
    return failed;
}
