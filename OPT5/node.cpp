#include "OPT5/node.h"
#include "OPT5/simp.h"

#include <cstdio>
#include <deque>
#include <mutex>
#include <vector>

#include "IFILE/if_file.h"
#include "IFILE/if_symbol.h"
#include "OPT5/abort.h"
#include "OPT5/cmdline.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/symtab.h"

struct PTENV {
    virtual ~PTENV() = default;
};

void delete_PTENV(PTENV* env) { delete env; }

namespace {
const char THIS_MODULE[] = "OPT5/bbutils";

// Erased nodes first wait in `erased_nodes`, still marked ILLOP, until the
// step that erased them has ended; only then may new_node hand them out
// again.  So within a step a pointer to an erased node always reads ILLOP
// and never a node made later, whatever the order of erasing and making.
// Nodes are never returned to the heap during a run.
std::mutex pool_mutex;
std::vector<NODE*> free_nodes;
std::vector<NODE*> erased_nodes;
size_t live_nodes = 0;

NODE* allocate_node() {
    std::lock_guard<std::mutex> lock(pool_mutex);
    ++live_nodes;
    if (free_nodes.empty()) return new NODE;
    NODE* n = free_nodes.back();
    free_nodes.pop_back();
    *n = NODE();
    return n;
}

void release_node(NODE* n) {
    std::lock_guard<std::mutex> lock(pool_mutex);
    --live_nodes;
    erased_nodes.push_back(n);
}

bool is_char_kind(TYPE* t) {
    TYPE* s = t->stripped();
    return s->kind == TYPE::INT_T &&
           (s->subkind == TYPE::IK_CHAR || s->subkind == TYPE::IK_SCHAR || s->subkind == TYPE::IK_UCHAR);
}

// Deep copies of what a node owns, so that a copy can be erased on its own.
void own_copies(NODE* n) {
    if (n->side) {
        NODE_SIDE* s = new NODE_SIDE;
        s->tree = n->side->tree ? copy_tree(n->side->tree) : nullptr;
        n->side = s;
    }
    if (n->pragma) n->pragma = new PRAGMA(*n->pragma);
    n->ptenv = nullptr;
}
}  // namespace

void recycle_erased_nodes() {
    std::lock_guard<std::mutex> lock(pool_mutex);
    free_nodes.insert(free_nodes.end(), erased_nodes.begin(), erased_nodes.end());
    erased_nodes.clear();
}

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

size_t live_node_count() {
    std::lock_guard<std::mutex> lock(pool_mutex);
    return live_nodes;
}

I_SYMTAB* NODE::name_symbol() const { return symbol; }

bool NODE::icon_is_wide() const {
    bool is_signed = !type || type->is_signed();
    return is_signed ? !value.fits_in<int32_t>() : !value.fits_in<uint32_t>();
}

const char* NODE::lcon_value() const {
    // An ICON's value as decimal text, kept in the node's text field.
    if (opcode == ICON) const_cast<NODE*>(this)->text = value.to_string();
    return text.c_str();
}

void NODE::mk_name(I_SYMTAB* sym) {
    symbol = static_cast<SYMTAB*>(sym);
    if (sym && (sym->flag_byte & 16) && currfuninfo) currfuninfo->marks_symbol_refs = true;
}

void NODE::mk_field(int kind, fkMDATA* member, TYPE* csu) {
    fld_kind = kind;
    fld_member = member;
    fld_csu = csu;
}

void NODE::mk_icon(int v) {
    bool is_signed = !type || type->is_signed() || !type->is_integral();
    value = is_signed ? INT65(v) : INT65(static_cast<unsigned>(v));
}

void NODE::mk_lcon(const char* t) {
    INT65 v;
    bool overflow = false;
    if (!INT65::parse(t ? t : "", v, &overflow)) if_invalid_record();
    value = type && type->stripped()->kind != TYPE::FLOAT_T && integer_view(type) ? truncate_to_type(v, type) : v;
    opcode = ICON;
}

void NODE::mk_fcon(const char* t) { text = t ? t : ""; }

void NODE::mk_scon(const char* t, unsigned length) {
    text.assign(t ? t : "", t ? length : 0);
    text_length = length;
}

void NODE::mk_ddnode(int id, int locale, int f) {
    dd_id = static_cast<unsigned>(id);
    dd_locale = static_cast<unsigned>(locale);
    dd_flags = static_cast<unsigned>(f);
}

void NODE::mk_call(unsigned count, unsigned second) {
    value = INT65(count);
    call_second = second;
    if (currfuninfo) currfuninfo->no_calls = false;
}

void NODE::mk_ucall(unsigned count) {
    call_second = count;
    if (currfuninfo) currfuninfo->no_calls = false;
}


NODE* new_node(int opcode, TYPE* type) {
    NODE* n = allocate_node();
    n->opcode = opcode;
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
    n->text = text;
    return n;
}

NODE* copy_node_if_changed(NODE* node, NODE* left, NODE* right) {
    if (!node) return nullptr;
    if (node->left == left && node->right == right) return node;
    NODE* n = allocate_node();
    *n = *node;
    own_copies(n);
    n->left = left;
    n->right = right;
    return n;
}

NODE* copy_tree(const NODE* tree) {
    if (!tree) return nullptr;
    NODE* n = allocate_node();
    *n = *tree;
    own_copies(n);
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
    if (node->side) {
        erase_tree(node->side->tree);
        delete node->side;
        node->side = nullptr;
    }
    node->opcode = ILLOP;
    node->left = nullptr;
    delete_PTENV(node->ptenv);
    node->ptenv = nullptr;
    delete node->pragma;
    node->pragma = nullptr;
    node->symbol = nullptr;
    node->text.clear();
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

void walk_and_modify_tree(NODE* tree, const std::function<void(NODE*&)>& visit) {
    std::deque<NODE*> work;
    if (tree) work.push_back(tree);
    while (!work.empty()) {
        NODE* n = work.front();
        work.pop_front();
        for (NODE** slot : {&n->left, &n->right}) {
            if (!*slot) continue;
            visit(*slot);
            if (*slot) work.push_back(*slot);
        }
    }
}

bool same_tree(const NODE* a, const NODE* b) {
    if (!a || !b) return a == b;
    if (a->opcode != b->opcode || a->type != b->type || a->value != b->value || a->symbol != b->symbol ||
        a->text != b->text || a->text_length != b->text_length || a->fld_kind != b->fld_kind ||
        a->fld_member != b->fld_member || a->fld_csu != b->fld_csu || a->dd_id != b->dd_id ||
        a->dd_locale != b->dd_locale || a->dd_flags != b->dd_flags || a->edge_profile != b->edge_profile ||
        a->call_second != b->call_second)
        return false;
    return same_tree(a->left, b->left) && same_tree(a->right, b->right);
}
