#include "TYPES/type_pkg.h"

#include <cstdlib>
#include <functional>
#include <unordered_map>

#include "UTIL/cleanup.h"
#include "UTIL/support.h"

TYPE_PKG* type_pkg = nullptr;

void tp_die(const char* message) {
    std::fprintf(stderr, "TP>> internal error: %s\n", message);
    print_support_message();
    run_abnormal_exit_cleanup();
    std::exit(1);
}

const char* error_code_name(int code) {
    switch (code) {
    case TP_NO_ERROR: return "no error";
    case TP_SIZE_NOT_SUPPORTED: return "object size not supported";
    default: return "unknown error";
    }
}

// ---------------------------------------------------------------------------
// TYPE

TYPE* TYPE::resolved() {
    TYPE* t = this;
    while (t->replacement) t = t->replacement;
    return t;
}

TYPE* TYPE::stripped() {
    TYPE* t = resolved();
    while ((t->kind == TYPEDEF_T || t->kind == QUAL_T) && t->base) t = t->base->resolved();
    return t;
}

bool TYPE::is_signed() {
    TYPE* t = resolved();
    unsigned quals = 0;
    for (;;) {
        if (t->kind == TYPEDEF_T || t->kind == QUAL_T) {
            if (t->kind == QUAL_T) quals |= t->qual;
            if (!t->base) return false;
            t = t->base->resolved();
        } else if (t->kind == ARRAY_T) {
            // The question is asked of the element, under the qualifiers met.
            if (!t->base) return false;
            t = t->base->resolved();
        } else {
            break;
        }
    }
    (void)quals;  // qualifiers do not change signedness
    switch (t->kind) {
    case INT_T: return t->signed_flag;
    case ENUM_T: return t->base ? t->base->is_signed() : true;
    case FLOAT_T: return t->subkind < 3;
    case FIXPT_T: return t->signed_flag;
    default: return false;
    }
}

bool TYPE::is_unsigned() {
    TYPE* t = stripped();
    if (t->kind == ENUM_T) return t->base && t->base->is_unsigned();
    return (t->kind == INT_T || t->kind == FIXPT_T) && !t->signed_flag;
}

bool TYPE::is_integral() {
    KIND k = stripped()->kind;
    return k == INT_T || k == ENUM_T;
}

bool TYPE::is_floating() { return stripped()->kind == FLOAT_T; }

bool TYPE::is_arithmetic() const {
    return kind == INT_T || kind == FLOAT_T || kind == FIXPT_T || kind == COMPLEX_T || kind == VPRED_T ||
           kind == ENUM_T;
}

bool TYPE::is_scalar() const { return (kind >= INT_T && kind <= PTM_T) || kind == VPRED_T || kind == ENUM_T; }

bool TYPE::is_aggregate() const { return kind == STRUCT_T || kind == CLASS_T || kind == UNION_T; }

bool TYPE::is_schar() {
    TYPE* t = stripped();
    return t->kind == INT_T && t->subkind == IK_SCHAR;
}
bool TYPE::is_uchar() {
    TYPE* t = stripped();
    return t->kind == INT_T && t->subkind == IK_UCHAR;
}
bool TYPE::is_plain_char() {
    TYPE* t = stripped();
    return t->kind == INT_T && t->subkind == IK_CHAR;
}

bool TYPE::is_complete() {
    TYPE* t = stripped();
    if (t->kind == VOID_T) return false;
    if (t->kind == ARRAY_T) return t->complete && t->base && t->base->is_complete();
    return t->complete;
}

TYPE* TYPE::type_pointed_to() {
    TYPE* t = stripped();
    if (t->kind != PTR_T && t->kind != REF_T && t->kind != PTM_T) tp_die("Bad kind:  TYPE::type_pointed_to");
    return t->base;
}

TYPE* TYPE::elem_type() {
    TYPE* t = stripped();
    if (t->kind != ARRAY_T && t->kind != VECTOR_T && t->kind != COMPLEX_T) tp_die("Bad kind:  TYPE::elem_type()");
    if (!t->base) tp_die("orphan type:  TYPE::elem_type()");
    return t->base;
}

TYPE* TYPE::part_type() {
    TYPE* t = stripped();
    if (t->kind != COMPLEX_T || !t->base) tp_die("Bad kind:  TYPE::part_type()");
    return t->base;
}

TYPE* TYPE::underlying_type() {
    TYPE* t = resolved();
    if (t->kind != ENUM_T && t->kind != TYPEDEF_T && t->kind != QUAL_T) tp_die("Bad kind:  TYPE::underlying_type");
    return t->base;
}

TYPE* TYPE::getd(KIND k) {
    TYPE* t = stripped();
    return t->kind == k ? t : nullptr;
}

TYPE* TYPE::getr(KIND k) {
    TYPE* t = getd(k);
    if (!t) tp_die("Bad kind:  TYPE::getr()");
    return t;
}

int TYPE::rank() {
    static const int ranks[12] = {0, 1, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5};
    TYPE* t = stripped();
    if (t->kind == ENUM_T && t->base) t = t->base->stripped();
    if (t->kind != INT_T || t->subkind < 0 || t->subkind >= 12) tp_die("Bad type: TYPE::rank()");
    return ranks[t->subkind];
}

unsigned long TYPE::storage_size() const {
    bool rounds = (kind >= INT_T && kind <= PTM_T) || kind == VPRED_T || kind == ENUM_T;
    if (!rounds) return size;
    unsigned long p = 1;
    while (p < size) p <<= 1;
    return p;
}

TYPE_ELEM* TYPE::member(unsigned index) {
    TYPE* t = stripped();
    unsigned n = 0;
    for (TYPE_LIST& l : t->lists)
        for (TYPE_ELEM& e : l.elems)
            if (e.code == 30 && n++ == index) return &e;
    return nullptr;
}

std::string TYPE::print_parameters() {
    std::string s;
    for (TYPE_LIST& l : lists)
        for (TYPE_ELEM& e : l.elems) {
            if (e.code != 23) continue;
            s += (s.empty() ? "" : ", ") + (e.type ? e.type->print() : std::string("?"));
        }
    return s;
}

std::string TYPE::declare(const std::string& name) {
    if (kind == FUNC_T) return (base ? base->print() : std::string("?")) + " " + name + "(" + print_parameters() + ")";
    return print() + " " + name;
}

std::string TYPE::print() {
    static const char* const inames[12] = {"bool", "char", "unsigned char", "signed char", "short", "unsigned short",
                                           "int", "unsigned int", "long", "unsigned long", "long long",
                                           "unsigned long long"};
    static const char* const fnames[3] = {"float", "double", "long double"};
    switch (kind) {
    case VOID_T: return "void";
    case INT_T:
        if (subkind >= 0 && subkind < 12) {
            std::string s = inames[subkind];
            if (subkind == IK_CHAR) s = signed_flag ? "char" : "char(unsigned)";
            return s;
        }
        return "int?" + std::to_string(subkind);
    case FLOAT_T: return subkind >= 0 && subkind < 3 ? fnames[subkind] : "float?" + std::to_string(subkind);
    case FIXPT_T: return "_Fract<" + std::to_string(subkind) + ">";
    case COMPLEX_T: return "_Complex " + (base ? base->print() : std::string("?"));
    case PTR_T: return (base ? base->print() : std::string("?")) + " *";
    case REF_T: return (base ? base->print() : std::string("?")) + " &";
    case PTM_T:
        return (base ? base->print() : std::string("?")) + " " + (cls ? cls->print() : std::string("?")) + "::*";
    case QUAL_T: {
        std::string q;
        if (qual & Q_CONST) q += "const ";
        if (qual & Q_VOLATILE) q += "volatile ";
        if (qual & Q_RESTRICT) q += "restrict ";
        return q + (base ? base->print() : std::string("?"));
    }
    case TYPEDEF_T: return name;
    case ARRAY_T:
        return (base ? base->print() : std::string("?")) + "[" + (complete ? std::to_string(count) : "") + "]";
    case VECTOR_T: return (base ? base->print() : std::string("?")) + " vector[" + std::to_string(count) + "]";
    case VPRED_T: return "vpred";
    case FUNC_T: return (base ? base->print() : std::string("?")) + " (" + print_parameters() + ")";
    case ENUM_T: return "enum " + name;
    case STRUCT_T: return "struct " + name;
    case CLASS_T: return "class " + name;
    case UNION_T: return "union " + name;
    }
    return "?";
}

// ---------------------------------------------------------------------------
// The package

namespace {

bool same_elems(const TYPE_ELEM& a, const TYPE_ELEM& b) {
    return a.code == b.code && a.name == b.name && a.type == b.type && a.nums == b.nums && a.types == b.types &&
           a.pos == b.pos;
}

bool same_structure(const TYPE* a, const TYPE* b) {
    if (a->kind != b->kind || a->subkind != b->subkind || a->signed_flag != b->signed_flag || a->size != b->size ||
        a->align != b->align || a->base != b->base || a->cls != b->cls || a->qual != b->qual ||
        a->count != b->count || a->flags != b->flags || a->cc != b->cc || a->complete != b->complete ||
        a->name != b->name || !(a->pos == b->pos) || a->lists.size() != b->lists.size())
        return false;
    for (size_t i = 0; i < a->lists.size(); ++i) {
        const TYPE_LIST& x = a->lists[i];
        const TYPE_LIST& y = b->lists[i];
        if (x.list_kind != y.list_kind || x.elems.size() != y.elems.size()) return false;
        for (size_t j = 0; j < x.elems.size(); ++j)
            if (!same_elems(x.elems[j], y.elems[j])) return false;
    }
    return true;
}

size_t structure_hash(const TYPE* t) {
    size_t h = std::hash<int>()(t->kind);
    auto mix = [&h](size_t v) { h ^= v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2); };
    mix(static_cast<size_t>(t->subkind));
    mix(t->size);
    mix(t->align);
    mix(std::hash<const void*>()(t->base));
    mix(t->count);
    mix(t->qual);
    mix(std::hash<std::string>()(t->name));
    return h;
}

bool is_nominal(TYPE::KIND k) {
    return k == TYPE::ENUM_T || k == TYPE::STRUCT_T || k == TYPE::CLASS_T || k == TYPE::UNION_T;
}

}  // namespace

TYPE_PKG::TYPE_PKG() = default;

TYPE_PKG::~TYPE_PKG() = default;

unsigned long TYPE_PKG::int_size(TYPE::IKIND k) const {
    switch (k) {
    case TYPE::IK_LONG:
    case TYPE::IK_ULONG: return 32;
    case TYPE::IK_LLONG:
    case TYPE::IK_ULLONG: return 64;
    default: return 16;  // bool, the chars, short and int fill one 16-bit unit
    }
}

unsigned long TYPE_PKG::float_size(TYPE::FKIND k) const { return k == TYPE::FK_FLOAT ? 32 : 64; }

TYPE* TYPE_PKG::find_equivalent_type(TYPE* t) {
    if (is_nominal(t->kind)) return owns(t) ? t : nullptr;
    auto range = index_.equal_range(structure_hash(t));
    for (auto it = range.first; it != range.second; ++it)
        if (it->second == t || same_structure(it->second, t)) return it->second;
    return nullptr;
}

bool TYPE_PKG::owns(const TYPE* t) const { return owned_.count(t) != 0; }

TYPE* TYPE_PKG::make(TYPE* t, bool nominal) {
    if (!nominal) {
        ++lookups_;
        if (TYPE* same = find_equivalent_type(t)) {
            ++found_;
            delete t;
            return same;
        }
    }
    types_.emplace_back(t);
    owned_.insert(t);
    if (!nominal) index_.emplace(structure_hash(t), t);
    return t;
}

TYPE* TYPE_PKG::intern(TYPE* t) { return make(t, is_nominal(t->kind)); }

TYPE* TYPE_PKG::mk_void() { return make(new TYPE(TYPE::VOID_T), false); }

TYPE* TYPE_PKG::mk_int(TYPE::IKIND k, bool is_signed) {
    unsigned long s = int_size(k);
    return mk_int(k, is_signed, s, static_cast<unsigned>(s), k == TYPE::IK_CHAR, k == TYPE::IK_BOOL);
}

TYPE* TYPE_PKG::mk_int(TYPE::IKIND k, bool is_signed, unsigned long size, unsigned align, bool plain, bool boolean) {
    TYPE* t = new TYPE(TYPE::INT_T);
    t->subkind = k;
    t->signed_flag = is_signed;
    t->size = size;
    t->align = align;
    t->flags = (plain ? 1u : 0u) | (boolean ? 2u : 0u);
    return make(t, false);
}

TYPE* TYPE_PKG::mk_fltpt(TYPE::FKIND k) {
    unsigned long s = float_size(k);
    return mk_fltpt(k, s, static_cast<unsigned>(s));
}

TYPE* TYPE_PKG::mk_fltpt(TYPE::FKIND k, unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::FLOAT_T);
    t->subkind = k;
    t->size = size;
    t->align = align;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_fxtpt(TYPE* base, int scale) {
    return mk_fxtpt(base, scale, base ? base->size : 16, base ? base->align : 16);
}

TYPE* TYPE_PKG::mk_fxtpt(TYPE* base, int scale, unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::FIXPT_T);
    t->base = base;
    t->subkind = scale;
    t->signed_flag = base ? base->is_signed() : true;
    t->size = size;
    t->align = align;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_complex(TYPE* part) {
    unsigned long s = part ? 2 * part->size : 0;
    return mk_complex(part, s, part ? part->align : 16);
}

TYPE* TYPE_PKG::mk_complex(TYPE* part, unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::COMPLEX_T);
    t->base = part;
    t->size = size;
    t->align = align;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_ptr(TYPE* to) { return mk_ptr(to, pointer_size, static_cast<unsigned>(pointer_size)); }

TYPE* TYPE_PKG::mk_ptr(TYPE* to, unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::PTR_T);
    t->base = to;
    t->size = size;
    t->align = align;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_ref(TYPE* to) { return mk_ref(to, pointer_size, static_cast<unsigned>(pointer_size)); }

TYPE* TYPE_PKG::mk_ref(TYPE* to, unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::REF_T);
    t->base = to;
    t->size = size;
    t->align = align;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_qual(TYPE* base, unsigned char qual) {
    return mk_qual(base, qual, base ? base->size : 0, base ? base->align : 0);
}

TYPE* TYPE_PKG::mk_qual(TYPE* base, unsigned char qual, unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::QUAL_T);
    t->base = base;
    t->qual = qual;
    t->size = size;
    t->align = align;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_ptm(TYPE* member, TYPE* cls, unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::PTM_T);
    t->base = member;
    t->cls = cls;
    t->size = size;
    t->align = align;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_array(TYPE* elem) {
    TYPE* t = mk_array(elem, 0, 0, 0, elem ? elem->align : 16);
    return t;
}

TYPE* TYPE_PKG::mk_array(TYPE* elem, unsigned long count) { return mk_array(elem, count, 0); }

TYPE* TYPE_PKG::mk_array(TYPE* elem, unsigned long count, unsigned flags) {
    unsigned long esize = elem ? elem->size : 0;
    return mk_array(elem, count, flags, esize * count, elem ? elem->align : 16);
}

TYPE* TYPE_PKG::mk_array(TYPE* elem, unsigned long count, unsigned flags, unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::ARRAY_T);
    t->base = elem;
    t->count = count;
    t->flags = flags;
    t->size = size;
    t->align = align;
    t->complete = count != 0 || size != 0;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_vector(TYPE* elem, bool predicate, unsigned long lanes) {
    unsigned long s = (elem ? elem->size : 16) * lanes;
    return mk_vector(elem, predicate, lanes, s, static_cast<unsigned>(s));
}

TYPE* TYPE_PKG::mk_vector(TYPE* elem, bool predicate, unsigned long lanes, unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::VECTOR_T);
    t->base = elem;
    t->count = lanes;
    t->flags = predicate ? 1u : 0u;
    t->size = size;
    t->align = align;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_func(TYPE* ret, bool prototyped, bool varargs, bool no_return, TYPE::CC_KIND cc,
                        unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::FUNC_T);
    t->base = ret;
    t->flags = (prototyped ? 1u : 0u) | (varargs ? 2u : 0u) | (no_return ? 4u : 0u);
    t->cc = cc;
    t->size = size;
    t->align = align;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_enum(const std::string& name) {
    TYPE* i = mk_int(TYPE::IK_INT, true);
    return mk_enum(name, i, i->size, i->align, 0);
}

TYPE* TYPE_PKG::mk_enum(const std::string& name, TYPE* underlying, unsigned long size, unsigned align,
                        unsigned flags) {
    TYPE* t = new TYPE(TYPE::ENUM_T);
    t->name = name;
    t->base = underlying;
    t->size = size;
    t->align = align;
    t->flags = flags;
    return make(t, true);
}

static TYPE* new_csu(TYPE::KIND k, const std::string& name, unsigned long size, unsigned align, unsigned flags,
                     bool complete) {
    TYPE* t = new TYPE(k);
    t->name = name;
    t->size = size;
    t->align = align;
    t->flags = flags;
    t->complete = complete;
    return t;
}

TYPE* TYPE_PKG::mk_struct(const std::string& name) { return make(new_csu(TYPE::STRUCT_T, name, 0, 16, 0, false), true); }
TYPE* TYPE_PKG::mk_struct(const std::string& name, unsigned long size, unsigned align, unsigned flags) {
    return make(new_csu(TYPE::STRUCT_T, name, size, align, flags, true), true);
}
TYPE* TYPE_PKG::mk_class(const std::string& name) { return make(new_csu(TYPE::CLASS_T, name, 0, 16, 0, false), true); }
TYPE* TYPE_PKG::mk_class(const std::string& name, unsigned long size, unsigned align, unsigned flags) {
    return make(new_csu(TYPE::CLASS_T, name, size, align, flags, true), true);
}
TYPE* TYPE_PKG::mk_union(const std::string& name) { return make(new_csu(TYPE::UNION_T, name, 0, 16, 0, false), true); }
TYPE* TYPE_PKG::mk_union(const std::string& name, unsigned long size, unsigned align, unsigned flags) {
    return make(new_csu(TYPE::UNION_T, name, size, align, flags, true), true);
}

TYPE* TYPE_PKG::mk_typedef(const std::string& name, TYPE* underlying, unsigned flags, PSN pos) {
    TYPE* t = new TYPE(TYPE::TYPEDEF_T);
    t->name = name;
    t->base = underlying;
    t->flags = flags;
    t->pos = pos;
    t->size = underlying ? underlying->size : 0;
    t->align = underlying ? underlying->align : 0;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_boolean_int() { return mk_int(TYPE::IK_BOOL, false); }

TYPE* TYPE_PKG::mk_ptm_int() { return mk_int(TYPE::IK_LONG, true); }

TYPE* TYPE_PKG::mk_signed(TYPE* t) {
    TYPE* s = t->stripped();
    if (s->kind != TYPE::INT_T) return t;
    int k = s->subkind;
    if (k == TYPE::IK_UCHAR || k == TYPE::IK_CHAR) k = TYPE::IK_SCHAR;
    else if (k == TYPE::IK_USHORT || k == TYPE::IK_UINT || k == TYPE::IK_ULONG || k == TYPE::IK_ULLONG) k -= 1;
    return mk_int(static_cast<TYPE::IKIND>(k), true, s->size, s->align, false, false);
}

TYPE* TYPE_PKG::mk_unsigned(TYPE* t) {
    TYPE* s = t->stripped();
    if (s->kind != TYPE::INT_T) return t;
    int k = s->subkind;
    if (k == TYPE::IK_SCHAR || k == TYPE::IK_CHAR) k = TYPE::IK_UCHAR;
    else if (k == TYPE::IK_SHORT || k == TYPE::IK_INT || k == TYPE::IK_LONG || k == TYPE::IK_LLONG) k += 1;
    return mk_int(static_cast<TYPE::IKIND>(k), false, s->size, s->align, false, k == TYPE::IK_BOOL);
}

TYPE* TYPE_PKG::mk_bool_vector(int lanes) { return mk_vector(mk_boolean_int(), true, static_cast<unsigned long>(lanes)); }

TYPE* TYPE_PKG::mk_vpred() {
    TYPE* t = new TYPE(TYPE::VPRED_T);
    t->size = 16;
    t->align = 16;
    return make(t, false);
}

TYPE* TYPE_PKG::mk_struct_vector(unsigned long size, unsigned align) {
    TYPE* t = new TYPE(TYPE::VECTOR_T);
    t->base = nullptr;
    t->size = size;
    t->align = align;
    t->flags = 2;  // a vector of aggregate lanes
    return make(t, false);
}

TYPE* TYPE_PKG::c_integral_promotions(TYPE* type) {
    if (!owns(type->resolved())) tp_die("Unregistered type:  c_integral_promotions()");
    // An enumeration stands for its underlying type.
    if (type->stripped()->kind == TYPE::ENUM_T && type->stripped()->base) type = type->stripped()->base;
    TYPE* t = type->stripped();
    if (t->kind != TYPE::INT_T || t->subkind > TYPE::IK_UINT) return type;
    TYPE* int_type = mk_int(TYPE::IK_INT, true);
    switch (t->subkind) {
    case TYPE::IK_CHAR:
    case TYPE::IK_SCHAR:
    case TYPE::IK_SHORT:
    case TYPE::IK_INT: return int_type;
    case TYPE::IK_UCHAR:
    case TYPE::IK_USHORT:
    case TYPE::IK_UINT: return t->size == int_type->size ? mk_int(TYPE::IK_UINT, false) : int_type;
    default: return type;
    }
}

// ---------------------------------------------------------------------------
// Free functions

void init_types() {
    if (!type_pkg) type_pkg = new TYPE_PKG;
}

void release_types() {
    delete type_pkg;
    type_pkg = nullptr;
}

TYPE* find_equivalent_type(TYPE* t) { return type_pkg ? type_pkg->find_equivalent_type(t) : nullptr; }

TYPE* c_integral_promotions(TYPE* t) {
    if (!type_pkg) tp_die("Unregistered type:  c_integral_promotions()");
    return type_pkg->c_integral_promotions(t);
}

static TYPE* strip_const(const TYPE* t) { return const_cast<TYPE*>(t)->stripped(); }

bool compatible_types(const TYPE* a, const TYPE* b, bool ignore_qualifiers) {
    if (!a || !b) return a == b;
    TYPE* x = const_cast<TYPE*>(a)->resolved();
    TYPE* y = const_cast<TYPE*>(b)->resolved();
    while (x->kind == TYPE::TYPEDEF_T && x->base) x = x->base->resolved();
    while (y->kind == TYPE::TYPEDEF_T && y->base) y = y->base->resolved();
    if (x == y) return true;
    unsigned qx = 0, qy = 0;
    while (x->kind == TYPE::QUAL_T || x->kind == TYPE::TYPEDEF_T) {
        if (x->kind == TYPE::QUAL_T) qx |= x->qual;
        x = x->base->resolved();
    }
    while (y->kind == TYPE::QUAL_T || y->kind == TYPE::TYPEDEF_T) {
        if (y->kind == TYPE::QUAL_T) qy |= y->qual;
        y = y->base->resolved();
    }
    if (!ignore_qualifiers && qx != qy) return false;
    if (x == y) return true;
    if (x->kind != y->kind) return false;
    switch (x->kind) {
    case TYPE::VOID_T:
    case TYPE::VPRED_T: return true;
    case TYPE::INT_T:
    case TYPE::FLOAT_T:
        return x->subkind == y->subkind && x->signed_flag == y->signed_flag && x->size == y->size;
    case TYPE::PTR_T:
    case TYPE::REF_T: return compatible_types(x->base, y->base, false);
    case TYPE::ARRAY_T:
        return compatible_types(x->base, y->base, false) && (!x->complete || !y->complete || x->count == y->count);
    case TYPE::VECTOR_T: return x->count == y->count && compatible_types(x->base, y->base, false);
    case TYPE::FUNC_T: {
        if (!compatible_types(x->base, y->base, false)) return false;
        if (!(x->flags & 1) || !(y->flags & 1)) return true;  // one has no prototype
        std::vector<TYPE*> px, py;
        for (auto& l : x->lists)
            for (auto& e : l.elems)
                if (e.code == 23) px.push_back(e.type);
        for (auto& l : y->lists)
            for (auto& e : l.elems)
                if (e.code == 23) py.push_back(e.type);
        if (px.size() != py.size() || (x->flags & 2) != (y->flags & 2)) return false;
        for (size_t i = 0; i < px.size(); ++i)
            if (!compatible_types(px[i], py[i], true)) return false;
        return true;
    }
    default: return false;  // enumerations and aggregates are compatible only with themselves
    }
}

bool exact_types(const TYPE* a, const TYPE* b) {
    if (!a || !b) return a == b;
    return const_cast<TYPE*>(a)->resolved() == const_cast<TYPE*>(b)->resolved();
}

TYPE* merge_types(TYPE* a, TYPE* b) {
    if (!a) return b;
    if (!b) return a;
    TYPE* x = a->stripped();
    TYPE* y = b->stripped();
    if (x->kind == TYPE::ARRAY_T && y->kind == TYPE::ARRAY_T && !x->complete && y->complete) return b;
    if (x->kind == TYPE::FUNC_T && y->kind == TYPE::FUNC_T && !(x->flags & 1) && (y->flags & 1)) return b;
    return a;
}

TYPE* c_usual_arith_conv(TYPE* a, TYPE* b) {
    TYPE* x = strip_const(a);
    TYPE* y = strip_const(b);
    if (x->kind == TYPE::FLOAT_T || y->kind == TYPE::FLOAT_T) {
        if (x->kind != TYPE::FLOAT_T) return y;
        if (y->kind != TYPE::FLOAT_T) return x;
        return x->subkind >= y->subkind ? x : y;
    }
    x = c_integral_promotions(x)->stripped();
    y = c_integral_promotions(y)->stripped();
    if (x == y) return x;
    bool sx = x->is_signed(), sy = y->is_signed();
    if (sx == sy) return x->rank() >= y->rank() ? x : y;
    TYPE* u = sx ? y : x;  // the unsigned one
    TYPE* s = sx ? x : y;
    if (u->rank() >= s->rank()) return u;
    if (s->size > u->size) return s;
    return type_pkg->mk_unsigned(s);
}

bool is_same_sign(TYPE* a, TYPE* b) { return a->is_signed() == b->is_signed(); }

unsigned TYPE_qual_kind(const TYPE* t) {
    unsigned q = 0;
    for (int depth = 0; t && (t->kind == TYPE::QUAL_T || t->kind == TYPE::TYPEDEF_T) && depth < 64; ++depth) {
        if (t->kind == TYPE::QUAL_T) q |= t->qual;
        t = t->base;
    }
    return q;
}
