// Expression-tree nodes.
#pragma once

#include <string>
#include <vector>

#include "IFILE/base_node.h"
#include "OPT5/opcodes.h"
#include "TYPES/type_pkg.h"
#include "UTIL/rare_payload.h"
#include "UTIL/small_vector.h"
#include "XINT/int65.h"

struct SYMTAB;
struct PRAGMA;

struct PTENV;          // points-to environment of a node (owned)
void delete_PTENV(PTENV* env);

struct NODE_SIDE {     // a side record attached to a node, which may own a tree
    class NODE* tree = nullptr;
};

// What few nodes carry, kept apart so that the common node stays small: the
// payloads of FIELD, SCON, FCON, ICALL, ASM, DDNODE, EPVAL, PPRAGMA and the
// second count of CALL, the markers later passes may set, and the attached
// side record and points-to environment.  A node has one only once something
// is stored in it.
struct NODE_EXTRA {
    int fld_kind = 0;
    fkMDATA* fld_member = nullptr;
    TYPE* fld_csu = nullptr;
    std::string text;            // SCON, FCON and ICALL texts, ASM text
    unsigned text_length = 0;    // SCON length
    unsigned dd_id = 0, dd_locale = 0, dd_flags = 0;
    unsigned edge_profile = 0;
    unsigned call_second = 0;    // the second count of CALL, the count of UCALL
    PRAGMA* pragma = nullptr;    // PPRAGMA statements (owned)
    int unset_int = -1;
    double unset_double = -1.0;
    NODE_SIDE* side = nullptr;   // owned
    PTENV* ptenv = nullptr;      // owned
};

class NODE : public BASE_NODE {
public:
    int opcode = NOP;
    unsigned char flags[4] = {0, 0, 0, 0};
    TYPE* type = nullptr;
    NODE* left = nullptr;
    NODE* right = nullptr;
    INT65 value;
    SYMTAB* symbol = nullptr;
    TYPE* creation_type = nullptr;

    // The rare payloads: `x()` reads them (the defaults when the node has
    // none), `mx()` makes them on first write.
    const NODE_EXTRA& x() const { return extra_.read(); }
    NODE_EXTRA& mx() { return extra_.write(); }
    bool has_extra() const { return extra_.present(); }
    // Hands the payloads over to someone else (a parked body), or takes
    // them back.
    NODE_EXTRA* release_extra() { return extra_.release(); }
    void adopt_extra(NODE_EXTRA* e) { extra_.reset(e); }
    // Frees the payloads (the owned pointers in them must be released first).
    void drop_extra() { extra_.reset(nullptr); }

    NODE() = default;
    NODE(const NODE&) = default;
    NODE& operator=(const NODE&) = default;

    I_SYMTAB* name_symbol() const override;
    int field_kind() const override { return x().fld_kind; }
    fkMDATA* field_mval() const override { return x().fld_member; }
    TYPE* field_csu() const override { return x().fld_csu; }
    unsigned icon_uvalue() const override { return value.as<uint32_t>(); }
    int icon_svalue() const override { return value.as<int32_t>(); }
    const char* lcon_value() const override;
    const char* fcon_value() const override { return x().text.c_str(); }
    const char* scon_value() const override { return x().text.c_str(); }
    unsigned scon_length() const override { return x().text_length; }
    int label_id() const override { return value.as<int32_t>(); }
    int vreg_id() const override { return static_cast<int>(value.low_word()); }
    int skip_count() const override { return value.as<int32_t>(); }
    int case_count() const override { return value.as<int32_t>(); }
    unsigned ddnode_id() const override { return x().dd_id; }
    unsigned ddnode_locale() const override { return x().dd_locale; }
    unsigned ddnode_flags() const override { return x().dd_flags; }
    unsigned call_num_vargs() const override { return static_cast<unsigned>(value.low_word()); }
    const char* icall_name() const override { return x().text.c_str(); }
    unsigned eh_entry_id() const override { return static_cast<unsigned>(value.low_word()); }
    unsigned get_edge_profile_value() const override { return x().edge_profile; }
    void set_edge_profile_value(unsigned v) override;
    void mk_name(I_SYMTAB* sym) override;
    void mk_field(int kind, fkMDATA* member, TYPE* csu) override;
    void mk_icon(int v) override;
    void mk_lcon(const char* text) override;
    void mk_fcon(const char* text) override;
    void mk_scon(const char* text, unsigned length) override;
    void mk_label(int id) override { value = INT65(id); }
    void mk_vreg(int id) override { value = INT65(id); }
    void mk_skip(int count) override { value = INT65(count); }
    void mk_switch(int cases) override { value = INT65(cases); }
    void mk_ddnode(int id, int locale, int flags) override;
    void mk_call(unsigned count, unsigned second) override;
    void mk_ucall(unsigned count) override;
    void mk_icall(const char* name) override { mx().text = name ? name : ""; }
    unsigned call_second_count() const override { return x().call_second; }
    bool icon_is_wide() const override;

private:
    // A copy of the node gets payloads of its own (their owned pointers
    // still shared: copy_tree and copy_node_if_changed make those the
    // copy's own).
    rare_payload<NODE_EXTRA> extra_;
};

// Creates a node (from a pool, so that an erased node keeps its ILLOP mark
// until the step that erased it has ended) and applies the creation rules.
NODE* new_node(int opcode, TYPE* type);
NODE* mktree(int opcode, TYPE* type, NODE* left, NODE* right = nullptr);
NODE* mk_ICON(INT65 v, TYPE* type);
NODE* mk_integer_constant(INT65 v, TYPE* type);
// A NAME node of the symbol, read as `type`.
NODE* mk_NAME(struct SYMTAB* sym, TYPE* type);
NODE* mk_LABELREF(int label);
NODE* mk_LABELDEF(NODE* label);
NODE* mk_ASM(int kind, const std::string& text);
// The value wrapped to the width and signedness of an integer type (a
// pointer counts as the pointer-sized integer; any other type is an
// internal error).
INT65 truncate_to_type(INT65 v, TYPE* type);

NODE* copy_node_if_changed(NODE* node, NODE* left, NODE* right);
NODE* copy_tree(const NODE* tree);
void erase_node(NODE* node);
// Tells the current function that the symbols whose address it takes may
// have changed (see address_taken_symbols): an address-of node is made or
// erased, a symbol renamed, statements unparked.
void note_address_change();
void erase_tree(NODE* tree);
// A work queue for walks; they nest, so each walk takes its own, and the
// queues are kept from walk to walk on the thread.
class walk_queue {
public:
    walk_queue();
    ~walk_queue();
    walk_queue(const walk_queue&) = delete;
    walk_queue& operator=(const walk_queue&) = delete;
    std::vector<NODE*>& nodes() { return *nodes_; }

private:
    std::vector<NODE*>* nodes_;
};

// Visits every operand slot of the tree, a node before its operands, level
// by level, and lets the callback replace the node in the slot (the walk
// goes on into the replacement).
template <class F>
void walk_and_modify_tree(NODE* tree, F&& visit) {
    if (!tree) return;
    walk_queue queue;
    std::vector<NODE*>& work = queue.nodes();
    work.push_back(tree);
    for (size_t i = 0; i < work.size(); ++i) {
        NODE* n = work[i];
        for (NODE** slot : {&n->left, &n->right}) {
            if (!*slot) continue;
            visit(*slot);
            if (*slot) work.push_back(*slot);
        }
    }
}
// Calls f on every node of the tree, a node before its operands.
template <class F>
void for_each_node(const NODE* tree, F&& f) {
    small_vector<const NODE*, 32> work;
    work.push_back(tree);
    while (!work.empty()) {
        const NODE* n = work.back();
        work.pop_back();
        if (!n) continue;
        f(n);
        work.push_back(n->right);
        work.push_back(n->left);
    }
}
// Reading or writing the node touches a volatile object: its type is
// volatile-qualified or, under --volatile_all, it names an object that is
// not a local variable (a global, or memory through a pointer).  Such an
// access is never removed, duplicated, combined or reordered.
bool is_volatile_access(const NODE* n);
// Structural equality of two trees (opcode, type, payload, operands).
bool same_tree(const NODE* a, const NODE* b);
// Nodes currently allocated and not erased (for leak checks in tests).
size_t live_node_count();
// Lets the nodes this thread erased so far be made again.  Called between
// steps, when no step holds a pointer into a tree (each thread has a pool of
// its own, so another thread's step is never disturbed).
void recycle_erased_nodes();
