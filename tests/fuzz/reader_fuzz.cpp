// libFuzzer target for the I-file reader: any input either reads or ends in
// one of the reader's format errors; nothing may crash.
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <stdexcept>
#include <vector>

#include "IFILE/if_file.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/cleanup.h"

namespace {

struct rejected : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void reject(const char* message) { throw rejected(message); }
[[noreturn]] void reject_exit() { throw rejected("abnormal exit"); }

// Keeps what it is given and lets go of it at the end of the input.
class Client : public IF_CLIENT {
public:
    std::vector<NODE*> trees;
    std::deque<std::unique_ptr<SYMTAB>> symbols;
    ~Client() override {
        for (NODE* t : trees) erase_tree(t);
    }
    bool cl_magic(int, int) override { return true; }
    void cl_source(const char*) override {}
    I_SYMTAB* cl_symbol_create(char* name, TYPE* type, TYPE* type2, unsigned long size, unsigned long align,
                               unsigned long, int, int, PSN*, unsigned long, unsigned,
                               I_SYMTAB::RETENTION_POLICY) override {
        auto s = std::make_unique<SYMTAB>();
        s->name = name;
        s->type = type;
        s->type2 = type2;
        s->size = size;
        s->align = align;
        symbols.push_back(std::move(s));
        return symbols.back().get();
    }
    void cl_symbol_def(I_SYMTAB*) override {}
    void cl_pragma(I_SYMTAB*, PRAGMA*) override {}
    void cl_merge_type_defs() override {}
    void cl_preprocess_statics() override {}
    void cl_begin_func(I_SYMTAB*, PSN*) override {}
    void cl_end_args(PSN*) override {}
    void cl_end_locals(PSN*) override {}
    void cl_begin_block(PSN*) override {}
    void cl_end_block(PSN*) override {}
    void cl_end_func(PSN*) override {}
    void cl_label(unsigned) override {}
    void cl_expr(BASE_NODE* tree, PSN*) override { trees.push_back(static_cast<NODE*>(tree)); }
    void cl_inline_asm(char*, PSN*) override {}
    void cl_comment(char*) override {}
    void cl_func_info(int) override {}
    void cl_func_eht(EHT_ENTRY*, unsigned) override {}
    void cl_loop_def(unsigned, unsigned, unsigned, unsigned, unsigned, unsigned) override {}
    void cl_loop_header(unsigned, I_SYMTAB*, unsigned) override {}
    void cl_dd_vector(const std::vector<long long>&) override {}
    void cl_dd_edge(unsigned, unsigned, unsigned) override {}
    void cl_mbank(unsigned, unsigned, unsigned, unsigned, unsigned) override {}
    void cl_ir_end_func(PSN*) override {}
    BASE_NODE* cl_new_node(int op, TYPE* t) override { return new_node(op, t); }
    int cl_node_opcode(BASE_NODE* n) override { return static_cast<NODE*>(n)->opcode; }
    void cl_set_opcode(BASE_NODE* n, int op) override { static_cast<NODE*>(n)->opcode = op; }
    TYPE* cl_node_type(BASE_NODE* n) override { return n ? static_cast<NODE*>(n)->type : nullptr; }
    void cl_set_operands(BASE_NODE* n, BASE_NODE* l, BASE_NODE* r) override {
        static_cast<NODE*>(n)->left = static_cast<NODE*>(l);
        static_cast<NODE*>(n)->right = static_cast<NODE*>(r);
    }
    BASE_NODE* cl_left(BASE_NODE* n) override { return static_cast<NODE*>(n)->left; }
    BASE_NODE* cl_right(BASE_NODE* n) override { return static_cast<NODE*>(n)->right; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = [] {
        init_opcode_tables();
        set_if_fatal_handler(reject);
        set_abnormal_exit_cleanup(reject_exit);
        return true;
    }();
    (void)ready;
    std::vector<uint8_t> copy(data, data + size);
    FILE* f = fmemopen(copy.empty() ? nullptr : copy.data(), copy.size(), "rb");
    if (!f) return 0;
    init_types();
    {
        Client client;
        try {
            std::unique_ptr<I_FILE> file(I_FILE::if_open(f, &client));
            if (file) file->if_read_file();
        } catch (const rejected&) {
        }
    }
    std::fclose(f);
    release_types();
    return 0;
}
