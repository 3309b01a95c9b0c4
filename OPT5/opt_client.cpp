#include "OPT5/opt_client.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "DIAG/diag.h"
#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/park.h"
#include "OPT5/cmdline.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/symtab.h"
#include "UTIL/cleanup.h"
#include "UTIL/slab.h"

namespace {
const char THIS_MODULE[] = "OPT5/opt_client";

// Every symbol read lives to the end of the run; the store is never
// destroyed, so that leaving the program does not visit each one.
slab_store<SYMTAB>& all_symbols() {
    static slab_store<SYMTAB>* store = new slab_store<SYMTAB>;
    return *store;
}

NODE* as_node(BASE_NODE* n) { return static_cast<NODE*>(n); }
}  // namespace

SYMTAB* make_local_symbol(const I_SYMTAB* like, TYPE* type, const std::string& name) {
    SYMTAB* sym;
    {
        static std::mutex store_mutex;  // workers make temporaries side by side
        std::lock_guard<std::mutex> lock(store_mutex);
        sym = all_symbols().make();
    }
    if (like) {
        static_cast<I_SYMTAB&>(*sym) = *like;
    } else {
        sym->size = type->size;
        sym->align = 16;
    }
    sym->name = name;
    sym->type = type;
    sym->global = false;
    return sym;
}

bool add_locals(std::vector<BODY_ENTRY>& entries, const std::vector<SYMTAB*>& syms) {
    // The reader numbers a function's symbols in the order they come, and
    // the writer keeps each symbol's number: the new ones go last, after
    // the end of the arguments, numbered after every other.
    size_t at = 0;
    unsigned count = 0;
    bool args_ended = false;
    for (size_t i = 0; i < entries.size(); ++i) {
        const BODY_ENTRY& e = entries[i];
        if (e.kind == BODY_ENTRY::SYMBOL) {
            if (!e.sym || e.sym->index != count) return false;
            ++count;
            at = i + 1;
        } else if (e.kind == BODY_ENTRY::CONTROL && e.control == IR_END_ARGS) {
            at = i + 1;
            args_ended = true;
        }
    }
    if (!args_ended) return false;
    std::vector<BODY_ENTRY> decls(syms.size());
    for (size_t i = 0; i < syms.size(); ++i) {
        syms[i]->index = count + static_cast<unsigned>(i);
        decls[i].kind = BODY_ENTRY::SYMBOL;
        decls[i].sym = syms[i];
    }
    entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(at), decls.begin(), decls.end());
    return true;
}

SYMTAB* make_local_temporary(TYPE* type, const std::string& name) {
    FUNINFO* fi = currfuninfo;
    if (!fi || !fi->bb_list || !type || !add_locals(fi->scopes, {})) return nullptr;
    SYMTAB* sym = make_local_symbol(nullptr, type, name);
    add_locals(fi->scopes, {sym});
    fi->temporaries.push_back(sym);
    return sym;
}

OPT_CLIENT opt_client;
I_FILE* i_file = nullptr;
I_FILE* o_file = nullptr;
int lex = 0;
bool any_unions_in_program = false;

bool OPT_CLIENT::cl_magic(int, int) { return true; }

void OPT_CLIENT::cl_source(const char*) {}

I_SYMTAB* OPT_CLIENT::cl_symbol_create(char* name, TYPE* type, TYPE* type2, unsigned long size, unsigned long align,
                                       unsigned long b, int c, int d, PSN* pos, unsigned long f, unsigned g,
                                       I_SYMTAB::RETENTION_POLICY retention) {
    SYMTAB* sym = all_symbols().make();
    fill_symbol(*sym, name, type, type2, size, align, b, c, d, pos, f, g, retention);
    return sym;
}

void NODE_CLIENT::fill_symbol(SYMTAB& s, char* name, TYPE* type, TYPE* type2, unsigned long size, unsigned long align,
                              unsigned long b, int c, int d, PSN* pos, unsigned long f, unsigned g,
                              I_SYMTAB::RETENTION_POLICY retention) {
    s.name = name;
    s.type = type;
    s.type2 = type2;
    s.size = size;
    s.align = align;
    s.value_b = b;
    s.value_c = c;
    s.value_d = d;
    s.value_f = f;
    s.value_g = g;
    s.retention = retention;
    if (pos) s.pos = *pos;
}

std::string SYMTAB::declaration() const { return type ? type->declare(name) : name; }

void OPT_CLIENT::cl_symbol_def(I_SYMTAB* sym) {
    // A symbol defined inside a function is written back in the same place.
    if (currfunc && !sym->global) {
        BODY_ENTRY e;
        e.kind = BODY_ENTRY::SYMBOL;
        e.sym = sym;
        currfuninfo->body.push_back(e);
    }
}

void OPT_CLIENT::cl_pragma(I_SYMTAB* sym, PRAGMA* pragma) {
    if (sym) return;  // kept with the symbol by the reader
    if (!currfunc) {
        if (pragma->kind != PRAGMA_NEVER_WRITTEN) o_file->if_write_pragma(pragma);
        return;
    }
    NODE* n = new_node(PPRAGMA, nullptr);
    n->mx().pragma = new PRAGMA(*pragma);
    append(n, nullptr);
}

void OPT_CLIENT::cl_merge_type_defs() {
    any_unions_in_program = false;
    if (type_pkg)
        for (auto& t : type_pkg->all_types())
            if (t->kind == TYPE::UNION_T) any_unions_in_program = true;
}

void OPT_CLIENT::cl_preprocess_statics() {}

void OPT_CLIENT::cl_begin_func(I_SYMTAB* fn, PSN* pos) {
    SYMTAB* sym = static_cast<SYMTAB*>(fn);
    // Functions don't nest, and each is defined once.
    if (currfunc || (find_FUNINFO(sym) && find_FUNINFO(sym)->defined)) if_invalid_record();
    currfunc = sym;
    currfuninfo = make_FUNINFO(sym);
    currfuninfo->defined = true;
    currfuninfo->begin_pos = pos ? *pos : PSN{};
    currfuninfo->body.clear();
    take_spare_body(currfuninfo->body);
    currfuninfo->eht.clear();
    currfuninfo->no_calls = true;
    // An option set of kind k applies to the function of global index k - 1,
    // one of kind 0 to every function without a set of its own.
    if (i_file)
        for (size_t i = 0; i < i_file->option_sets.size(); ++i) {
            unsigned kind = i_file->option_sets[i].kind;
            if (kind == sym->index + 1 || (kind == 0 && currfuninfo->option_set < 0))
                currfuninfo->option_set = static_cast<int>(i);
        }
    lex = 1;
}

void OPT_CLIENT::control(int kind, PSN* pos) {
    if (!currfunc) if_invalid_record();  // a control record outside any function
    BODY_ENTRY e;
    e.kind = BODY_ENTRY::CONTROL;
    e.control = kind;
    if (pos) e.pos = *pos;
    currfuninfo->body.push_back(e);
}

void OPT_CLIENT::cl_end_args(PSN* pos) {
    control(IR_END_ARGS, pos);
    ++lex;
}

void OPT_CLIENT::cl_end_locals(PSN* pos) { control(IR_END_LOCALS, pos); }

void OPT_CLIENT::cl_begin_block(PSN* pos) {
    control(IR_BEGIN_BLOCK, pos);
    ++lex;
}

void OPT_CLIENT::cl_end_block(PSN* pos) {
    control(IR_END_BLOCK, pos);
    --lex;
}

void OPT_CLIENT::cl_end_func(PSN* pos) {
    control(IR_END_FUNC, pos);
    park_function();  // its flow graph is built when its first step runs
    functions.push_back(currfunc);
    currfunc = nullptr;
    currfuninfo = nullptr;
    lex = 0;
}

void OPT_CLIENT::append(NODE* tree, const PSN* pos) {
    if (!currfunc) if_invalid_record();  // a statement outside any function
    BODY_ENTRY e;
    e.tree = tree;
    if (pos) e.pos = *pos;
    currfuninfo->body.push_back(e);
}

void OPT_CLIENT::cl_label(unsigned id) {
    if (id > INT32_MAX) optassert("label_id <= INT32_MAX", THIS_MODULE, 728);
    if (!currfunc) if_invalid_record();
    std::vector<BODY_ENTRY>& body = currfuninfo->body;
    // A branch to the label that follows it goes nowhere.
    if (!body.empty() && body.back().kind == BODY_ENTRY::STMT && body.back().tree &&
        body.back().tree->opcode == BRANCH && body.back().tree->left && body.back().tree->left->opcode == LABEL &&
        body.back().tree->left->value == INT65(id)) {
        erase_tree(body.back().tree);
        body.pop_back();
    }
    append(mk_LABELDEF(mk_LABELREF(static_cast<int>(id))), nullptr);
}

void OPT_CLIENT::cl_expr(BASE_NODE* tree, PSN* pos) {
    append(as_node(tree), pos);
}

void OPT_CLIENT::cl_inline_asm(char* text, PSN* pos) {
    if (!currfunc) {
        o_file->if_write_assembly(text, pos);
        return;
    }
    append(mk_ASM('$', text), pos);
}

void OPT_CLIENT::cl_comment(char* text) {
    if (text[0] == '*') return;
    if (!currfunc) {
        o_file->if_write_comment(text);
        return;
    }
    append(mk_ASM('/', text), nullptr);
}

void OPT_CLIENT::cl_func_info(int) {}

void OPT_CLIENT::cl_func_eht(EHT_ENTRY* entries, unsigned count) {
    if (!currfunc) if_invalid_record();
    currfuninfo->eht.assign(entries, entries + count);
}

BASE_NODE* NODE_CLIENT::cl_new_node(int opcode, TYPE* type) { return new_node(opcode, type); }
int NODE_CLIENT::cl_node_opcode(BASE_NODE* node) { return as_node(node)->opcode; }
void NODE_CLIENT::cl_set_opcode(BASE_NODE* node, int opcode) { as_node(node)->opcode = opcode; }
TYPE* NODE_CLIENT::cl_node_type(BASE_NODE* node) { return node ? as_node(node)->type : nullptr; }
void NODE_CLIENT::cl_set_operands(BASE_NODE* node, BASE_NODE* left, BASE_NODE* right) {
    as_node(node)->left = as_node(left);
    as_node(node)->right = as_node(right);
}
BASE_NODE* NODE_CLIENT::cl_left(BASE_NODE* node) { return as_node(node)->left; }
BASE_NODE* NODE_CLIENT::cl_right(BASE_NODE* node) { return as_node(node)->right; }

void read_ifile_unit() {
    init_types();
    i_file = I_FILE::if_open(input_file, &opt_client);
    if (!i_file) {
        std::fprintf(stderr, "\nINTERNAL ERROR: %s is not an I-file of this tool chain, aborting\n",
                     input_file_name.c_str());
        run_abnormal_exit_cleanup();
        std::exit(1);
    }
    o_file = I_FILE::if_create(output_file, type_pkg, i_file->source.c_str());
    o_file->extra_word = i_file->extra_word;
    // The set of kind 0 is for the whole file: a function's own set applies
    // on top of it.
    const OPTION_SET* whole = nullptr;
    for (const OPTION_SET& set : i_file->option_sets)
        if (set.kind == 0) whole = &set;
    option_obj base(false);
    if (whole)
        for (const std::string& text : whole->options)
            if (text.size() > 1 && text[0] == '-') base.process_option(text.c_str() + 1, nullptr);
    for (const OPTION_SET& set : i_file->option_sets) {
        o_file->if_enter_option_set(set);
        if (&set == whole) {
            all_option_sets.push_back(base);
            continue;
        }
        option_obj o(false);
        for (const std::string& text : set.options)
            if (text.size() > 1 && text[0] == '-') o.process_option(text.c_str() + 1, nullptr);
        if (whole) o.layer_over(base);
        all_option_sets.push_back(o);
    }
    // An error in a function's set is an error of the run.
    if (diag_error_count() > 0) diag_exit();
    i_file->if_read_file();
    o_file->globals = i_file->globals;
}

void erase_function_body(FUNINFO* fi) {
    erase_tree_list(fi->body);
    spare_body(fi->body);
    fi->eht.clear();
    fi->unparked_without_cfg = false;
    free_cfg(fi);
}
