#include "OPT5/node.h"
#include "OPT5/simp.h"

#include <cstdio>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "IFILE/if_file.h"
#include "IFILE/if_symbol.h"
#include "OPT5/abort.h"
#include "OPT5/cmdline.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/symtab.h"
#include "UTIL/slab.h"

struct PTENV {
    virtual ~PTENV() = default;
};

void delete_PTENV(PTENV* env) { delete env; }

namespace {
const char THIS_MODULE[] = "OPT5/bbutils";

// Nodes come from slabs, never from the heap one by one, and are never
// returned to it during a run.  Erased nodes first wait in `erased`, still
// marked ILLOP, until the step that erased them has ended; only then may
// new_node hand them out again.  So within a step a pointer to an erased node
// always reads ILLOP and never a node made later, whatever the order of
// erasing and making.  The pool is the thread's own: a worker's steps make
// and erase nodes without locking, and a node erased on one thread is simply
// reused by that thread.
struct node_pool {
    static constexpr size_t slab_nodes = SLAB_BYTES / sizeof(NODE);
    NODE* free_list = nullptr;  // linked through `right`
    NODE* erased = nullptr;     // linked through `right`, still ILLOP
    NODE* erased_last = nullptr;
    NODE* slab = nullptr;
    size_t slab_used = slab_nodes;

    NODE* allocate() {
        if (NODE* n = free_list) {
            free_list = n->right;
            n->~NODE();
            return new (n) NODE;
        }
        if (slab_used == slab_nodes) {
            slab = static_cast<NODE*>(allocate_slab());
            slab_used = 0;
        }
        return new (&slab[slab_used++]) NODE;
    }
    void release(NODE* n) {
        n->right = erased;
        if (!erased) erased_last = n;
        erased = n;
    }
    void recycle() {
        if (!erased) return;
        erased_last->right = free_list;
        free_list = erased;
        erased = erased_last = nullptr;
    }
};
thread_local node_pool pool;
std::atomic<long> live_nodes{0};

NODE* allocate_node() {
    live_nodes.fetch_add(1, std::memory_order_relaxed);
    return pool.allocate();
}

void release_node(NODE* n) {
    live_nodes.fetch_sub(1, std::memory_order_relaxed);
    pool.release(n);
}

bool is_char_kind(TYPE* t) {
    TYPE* s = t->stripped();
    return s->kind == TYPE::INT_T &&
           (s->subkind == TYPE::IK_CHAR || s->subkind == TYPE::IK_SCHAR || s->subkind == TYPE::IK_UCHAR);
}

// Deep copies of what a node owns, so that a copy can be erased on its own.
void own_copies(NODE* n) {
    if (!n->has_extra()) return;
    NODE_EXTRA& x = n->mx();
    if (x.side) {
        NODE_SIDE* s = new NODE_SIDE;
        s->tree = x.side->tree ? copy_tree(x.side->tree) : nullptr;
        x.side = s;
    }
    if (x.pragma) x.pragma = new PRAGMA(*x.pragma);
    x.ptenv = nullptr;
}
}  // namespace

void recycle_erased_nodes() { pool.recycle(); }

bool is_volatile_access(const NODE* n) {
    if (!n) return false;
    if (n->type && (TYPE_qual_kind(n->type) & TYPE::Q_VOLATILE)) return true;
    if (!volit_vars) return false;
    switch (n->opcode) {
    case UMULT: case STREF: case STDOT: return true;
    case NAME: {  // arrays and functions are named for their address
        TYPE* t = n->type ? n->type->stripped() : nullptr;
        return n->symbol && n->symbol->global && t && t->kind != TYPE::ARRAY_T && t->kind != TYPE::FUNC_T;
    }
    default: return false;
    }
}

size_t live_node_count() { return static_cast<size_t>(live_nodes.load(std::memory_order_relaxed)); }

I_SYMTAB* NODE::name_symbol() const { return symbol; }

bool NODE::icon_is_wide() const {
    bool is_signed = !type || type->is_signed();
    return is_signed ? !value.fits_in<int32_t>() : !value.fits_in<uint32_t>();
}

const char* NODE::lcon_value() const {
    // An ICON's value as decimal text, kept in the node's text field.
    if (opcode == ICON) const_cast<NODE*>(this)->mx().text = value.to_string();
    return x().text.c_str();
}

// A profile value read with the function tells the writer to keep the
// function's profile values.
void NODE::set_edge_profile_value(unsigned v) {
    mx().edge_profile = v;
    if (opcode == EPVAL && v != 0xFFFFFFFFu && currfuninfo) currfuninfo->has_edge_profile = true;
}

void NODE::mk_name(I_SYMTAB* sym) {
    symbol = static_cast<SYMTAB*>(sym);
    if (sym && (sym->flag_byte & 16) && currfuninfo) currfuninfo->marks_symbol_refs = true;
}

void NODE::mk_field(int kind, fkMDATA* member, TYPE* csu) {
    NODE_EXTRA& x = mx();
    x.fld_kind = kind;
    x.fld_member = member;
    x.fld_csu = csu;
}

void NODE::mk_icon(int v) {
    // Signed types, and those that are no integer but a pointer, extend
    // the sign; pointers and unsigned types are zero-extended.
    bool is_signed = !type || type->is_signed() || (!type->is_integral() && !is_pointer_type(type));
    value = is_signed ? INT65(v) : INT65(static_cast<unsigned>(v));
}

void NODE::mk_lcon(const char* t) {
    INT65 v;
    bool overflow = false;
    if (!INT65::parse(t ? t : "", v, &overflow)) if_invalid_record();
    value = type && type->stripped()->kind != TYPE::FLOAT_T && integer_view(type) ? truncate_to_type(v, type) : v;
    opcode = ICON;
}

void NODE::mk_fcon(const char* t) { mx().text = t ? t : ""; }

void NODE::mk_scon(const char* t, unsigned length) {
    mx().text.assign(t ? t : "", t ? length : 0);
    mx().text_length = length;
}

void NODE::mk_ddnode(int id, int locale, int f) {
    NODE_EXTRA& x = mx();
    x.dd_id = static_cast<unsigned>(id);
    x.dd_locale = static_cast<unsigned>(locale);
    x.dd_flags = static_cast<unsigned>(f);
}

void NODE::mk_call(unsigned count, unsigned second) {
    value = INT65(count);
    if (second || has_extra()) mx().call_second = second;
    if (currfuninfo) currfuninfo->no_calls = false;
}

void NODE::mk_ucall(unsigned count) {
    if (count || has_extra()) mx().call_second = count;
    if (currfuninfo) currfuninfo->no_calls = false;
}


void note_address_change() {
    if (currfuninfo) ++currfuninfo->address_changes;
}

NODE* new_node(int opcode, TYPE* type) {
    NODE* n = allocate_node();
    n->opcode = opcode;
    if (opcode == UAND) note_address_change();
    n->type = type;
    n->creation_type = type;
    switch (opcode) {
    case UCALL:
        if (currfuninfo) currfuninfo->no_calls = false;
        break;
    case SCONV:
        if (type && type->stripped()->kind == TYPE::ENUM_T && type->stripped()->base)
            n->type = type->stripped()->base->stripped();
        break;
    case PCONV:
        if (chars_alias_other_types && type && type_pkg) {
            TYPE* t = type->stripped();
            if (t->kind == TYPE::PTR_T && t->base && is_char_kind(t->base) &&
                type_pkg->int_size(TYPE::IK_CHAR) == t->base->stripped()->size)
                n->opcode = ISP2CHAR;
        }
        break;
    default: break;
    }
    return n;
}

NODE* mktree(int opcode, TYPE* type, NODE* left, NODE* right) {
    NODE* n = new_node(opcode, type);
    n->left = left;
    n->right = right;
    return n;
}

NODE* mk_ICON(INT65 v, TYPE* type) {
    NODE* n = new_node(ICON, type);
    n->value = v;
    return n;
}

NODE* mk_integer_constant(INT65 v, TYPE* type) {
    TYPE* t = type ? type->stripped() : nullptr;
    if (t && t->kind == TYPE::VECTOR_T && t->base) t = t->base->stripped();
    if (!t || !t->is_integral()) optassert("TYPE_IS_INT(type)", THIS_MODULE, __LINE__);
    return mk_ICON(v, type);
}

NODE* mk_NAME(SYMTAB* sym, TYPE* type) {
    NODE* n = new_node(NAME, type);
    n->mk_name(sym);
    return n;
}

NODE* mk_LABELREF(int label) {
    NODE* n = new_node(LABEL, nullptr);
    n->value = INT65(label);
    return n;
}

NODE* mk_LABELDEF(NODE* label) {
    NODE* n = new_node(LABELDEF, nullptr);
    n->value = label->value;
    erase_node(label);
    return n;
}

NODE* mk_ASM(int kind, const std::string& text) {
    NODE* n = new_node(ASM, nullptr);
    n->value = INT65(kind);
    n->mx().text = text;
    return n;
}

NODE* copy_node_if_changed(NODE* node, NODE* left, NODE* right) {
    if (!node) return nullptr;
    if (node->left == left && node->right == right) return node;
    NODE* n = allocate_node();
    *n = *node;
    own_copies(n);
    if (n->opcode == UAND) note_address_change();
    n->left = left;
    n->right = right;
    return n;
}

NODE* copy_tree(const NODE* tree) {
    if (!tree) return nullptr;
    NODE* n = allocate_node();
    *n = *tree;
    own_copies(n);
    if (n->opcode == UAND) note_address_change();
    n->left = copy_tree(tree->left);
    n->right = copy_tree(tree->right);
    return n;
}

void erase_node(NODE* node) {
    if (node->opcode == ILLOP) {
        std::fprintf(stderr, "\n\n!!! COMPILER (OPTIMIZER) ERROR IN 'erase_node' %p !!!\n\n", static_cast<void*>(node));
        if (print_debug && FDEBUG)
            std::fprintf(FDEBUG, "\n\n!!! COMPILER (OPTIMIZER) ERROR IN 'erase_node' %p !!!\n\n",
                         static_cast<void*>(node));
        abort_optimizer();
    }
    if (node->opcode == UAND) note_address_change();
    if (node->has_extra()) {
        NODE_EXTRA& x = node->mx();
        if (x.side) {
            erase_tree(x.side->tree);
            delete x.side;
        }
        delete_PTENV(x.ptenv);
        delete x.pragma;
        node->drop_extra();
    }
    node->opcode = ILLOP;
    node->left = nullptr;
    node->symbol = nullptr;
    node->flags[0] = node->flags[1] = node->flags[2] = node->flags[3] = 0;
    release_node(node);
}

void erase_tree(NODE* tree) {
    while (tree) {
        if (tree->opcode == CSE_DUPE) {
            // Its operands belong to the CSE_ORIG tree.
            tree->left = tree->right = nullptr;
            erase_node(tree);
            return;
        }
        NODE* right = tree->right;
        if (tree->left) erase_tree(tree->left);
        erase_node(tree);
        tree = right;
    }
}

namespace {
thread_local std::vector<std::unique_ptr<std::vector<NODE*>>> spare_walk_queues;
}

walk_queue::walk_queue() {
    if (spare_walk_queues.empty()) {
        nodes_ = new std::vector<NODE*>;
    } else {
        nodes_ = spare_walk_queues.back().release();
        spare_walk_queues.pop_back();
    }
}

walk_queue::~walk_queue() {
    nodes_->clear();
    spare_walk_queues.emplace_back(nodes_);
}

bool same_tree(const NODE* a, const NODE* b) {
    if (!a || !b) return a == b;
    if (a->opcode != b->opcode || a->type != b->type || a->value != b->value || a->symbol != b->symbol)
        return false;
    const NODE_EXTRA& x = a->x();
    const NODE_EXTRA& y = b->x();
    if (x.text != y.text || x.text_length != y.text_length || x.fld_kind != y.fld_kind ||
        x.fld_member != y.fld_member || x.fld_csu != y.fld_csu || x.dd_id != y.dd_id || x.dd_locale != y.dd_locale ||
        x.dd_flags != y.dd_flags || x.edge_profile != y.edge_profile || x.call_second != y.call_second)
        return false;
    return same_tree(a->left, b->left) && same_tree(a->right, b->right);
}
