// Type records (116) of the type section.
//
// Every type record is "uint id, u8 code, payload".  The payload of each code
// is described by a field string: b bool, c s8, u u8, n uint, s sint,
// S string(0), T a type id (uint), P psn.  The data member (30) has two
// more uint fields (bit-field width and offset) when bit 0 of its u8 is set.
// Lists (function parameters, aggregate members) are a header (code 0), the
// elements and a trailer (code 1), right after the type that owns them.
//
// Reading goes in two steps: all records of the section are parsed first,
// then the types are built by id, so that a record may name a type defined
// further on (a structure holding a pointer to itself).
#include <cstring>
#include <map>
#include <set>

#include "IFILE/if_file.h"
#include "TYPES/type_pkg.h"

namespace {

enum {
    TC_LIST_HEADER = 0,
    TC_LIST_TRAILER = 1,
    TC_FIXPT = 15,
    TC_TYPEDEF = 16,
    TC_PTR = 17,
    TC_REF = 18,
    TC_QUAL = 19,
    TC_ARRAY = 20,
    TC_PTM = 21,
    TC_FUNC = 22,
    TC_PARAM = 23,
    TC_ENUM = 24,
    TC_CSU = 26,
    TC_CSU_EXTRA = 27,
    TC_MDATA = 30,
    TC_COMPLEX = 38,
    TC_VOID = 51,
};

}  // namespace

const char* if_type_layout(int code) {
    if ((code >= 2 && code <= 11) || code == 52 || code == 53) return "bnnbb";
    if (code >= 12 && code <= 14) return "nn";
    switch (code) {
    case TC_LIST_HEADER:
    case TC_LIST_TRAILER: return "c";
    case TC_FIXPT: return "cuTnn";
    case TC_TYPEDEF: return "STbP";
    case TC_PTR:
    case TC_REF: return "Tnn";
    case TC_QUAL: return "Tnnn";
    case TC_ARRAY: return "Tnunn";
    case TC_PTM: return "TTnn";
    case TC_FUNC: return "Tbbub";
    case TC_PARAM: return "TbnS";
    case TC_ENUM: return "SnnTP";
    case TC_CSU: return "SunnP";
    case TC_CSU_EXTRA: return "SunnnP";
    case TC_MDATA: return "TSnusP";  // plus the optional pair, see above
    case 31: return "Tsub";
    case 32: return "nu";
    case 33: return "ST";
    case 34:
    case 35: return "T";
    case 36: return "STu";
    case 37: return "STusbbbb";
    case TC_COMPLEX: return "nTn";
    case TC_VOID:
    case 28:
    case 29: return "";
    default: return (code >= 39 && code <= 50) ? "" : nullptr;
    }
}

namespace {
const char* layout(int code) { return if_type_layout(code); }

bool is_element(int code) { return code == TC_PARAM || (code >= 30 && code <= 37); }

struct FIELD {
    long long num = 0;
    std::string str;
    PSN pos;
};

struct RAW_TYPE;
struct RAW_LIST {
    int kind = 0;
    std::vector<RAW_TYPE> elems;
};
struct RAW_TYPE {
    unsigned id = 0;
    int code = 0;
    std::vector<FIELD> fields;
    std::vector<RAW_LIST> lists;
};

int ikind_of(int code) { return code <= 11 ? code - 2 : (code == 52 ? 10 : 11); }
int code_of_ikind(int ikind) { return ikind < 10 ? ikind + 2 : (ikind == 10 ? 52 : 53); }

}  // namespace

// Access to the I_FILE's primitives for the type records.
struct if_type_io {
    I_FILE& f;

    RAW_TYPE parse(unsigned id, int code) {
        const char* l = layout(code);
        if (!l) if_invalid_record();
        RAW_TYPE r;
        r.id = id;
        r.code = code;
        for (const char* p = l; *p; ++p) {
            FIELD v;
            switch (*p) {
            case 'b':
            case 'u': v.num = f.r_u8(); break;
            case 'c': v.num = f.r_s8(); break;
            case 'n':
            case 'T': v.num = static_cast<long long>(f.r_uint()); break;
            case 's': v.num = f.r_sint(); break;
            case 'S': v.str = f.r_string(); break;
            case 'P': v.pos = f.r_psn(); break;
            }
            r.fields.push_back(v);
            if (code == TC_MDATA && p - l == 3 && (v.num & 1)) {
                // Bit-field width and offset stand between the u8 and the offset.
                FIELD width, offset;
                width.num = static_cast<long long>(f.r_uint());
                offset.num = static_cast<long long>(f.r_uint());
                r.fields.push_back(width);
                r.fields.push_back(offset);
            }
        }
        f.r_end();
        return r;
    }

    std::map<unsigned, RAW_TYPE> raw;
    std::set<unsigned> building;

    TYPE* ref(long long id) {
        if (id == 0) return nullptr;
        auto built = f.type_map_.find(static_cast<unsigned>(id));
        if (built != f.type_map_.end()) return built->second;
        auto it = raw.find(static_cast<unsigned>(id));
        if (it == raw.end()) if_invalid_record();
        return build(it->second);
    }

    TYPE_ELEM element(const RAW_TYPE& r) {
        TYPE_ELEM e;
        e.code = r.code;
        const char* l = layout(r.code);
        bool have_type = false;
        size_t k = 0;
        for (const char* p = l; *p; ++p, ++k) {
            const FIELD& v = r.fields[k];
            switch (*p) {
            case 'S': e.name = v.str; break;  // no element has two names
            case 'T':
                if (!have_type) e.type = ref(v.num);
                else e.types.push_back(ref(v.num));
                have_type = true;
                break;
            case 'P': e.pos = v.pos; break;
            default:
                e.nums.push_back(v.num);
                if (r.code == TC_MDATA && p - l == 3 && (v.num & 1)) {
                    e.nums.push_back(r.fields[++k].num);
                    e.nums.push_back(r.fields[++k].num);
                }
            }
        }
        return e;
    }

    void build_lists(TYPE* t, const RAW_TYPE& r) {
        for (const RAW_LIST& rl : r.lists) {
            TYPE_LIST l;
            l.list_kind = rl.kind;
            for (const RAW_TYPE& re : rl.elems) l.elems.push_back(element(re));
            t->lists.push_back(std::move(l));
        }
    }

    TYPE* build(const RAW_TYPE& r) {
        if (building.count(r.id)) if_invalid_record();  // a type made of itself
        building.insert(r.id);
        const std::vector<FIELD>& v = r.fields;
        TYPE* t = nullptr;
        TYPE_PKG* pkg = type_pkg;
        auto num = [&](size_t i) { return v[i].num; };
        auto finish = [&](TYPE* made) {
            t = pkg->intern(made);
            f.type_map_[r.id] = t;
        };
        if ((r.code >= 2 && r.code <= 11) || r.code == 52 || r.code == 53) {
            TYPE* n = new TYPE(TYPE::INT_T);
            n->subkind = ikind_of(r.code);
            n->signed_flag = num(0) != 0;
            n->size = static_cast<unsigned long>(num(1));
            n->align = static_cast<unsigned>(num(2));
            n->flags = (num(3) ? 1u : 0u) | (num(4) ? 2u : 0u);
            finish(n);
        } else if (r.code >= 12 && r.code <= 14) {
            TYPE* n = new TYPE(TYPE::FLOAT_T);
            n->subkind = r.code - 12;
            n->size = static_cast<unsigned long>(num(0));
            n->align = static_cast<unsigned>(num(1));
            finish(n);
        } else {
            switch (r.code) {
            case TC_VOID: finish(new TYPE(TYPE::VOID_T)); break;
            case TC_FIXPT: {
                TYPE* n = new TYPE(TYPE::FIXPT_T);
                n->subkind = static_cast<int>(num(0));
                n->flags = static_cast<unsigned>(num(1));
                n->base = ref(num(2));
                n->signed_flag = n->base ? n->base->is_signed() : true;
                n->size = static_cast<unsigned long>(num(3));
                n->align = static_cast<unsigned>(num(4));
                finish(n);
                break;
            }
            case TC_TYPEDEF: {
                TYPE* n = new TYPE(TYPE::TYPEDEF_T);
                n->name = v[0].str;
                n->base = ref(num(1));
                n->flags = num(2) ? 1u : 0u;
                n->pos = v[3].pos;
                if (n->base) {
                    n->size = n->base->size;
                    n->align = n->base->align;
                }
                finish(n);
                break;
            }
            case TC_PTR:
            case TC_REF: {
                TYPE* n = new TYPE(r.code == TC_PTR ? TYPE::PTR_T : TYPE::REF_T);
                n->base = ref(num(0));
                n->size = static_cast<unsigned long>(num(1));
                n->align = static_cast<unsigned>(num(2));
                if (r.code == TC_PTR && n->size == 22) n->size = n->align = 32;
                finish(n);
                break;
            }
            case TC_QUAL: {
                TYPE* n = new TYPE(TYPE::QUAL_T);
                n->base = ref(num(0));
                n->qual = static_cast<unsigned>(num(1));
                n->size = static_cast<unsigned long>(num(2));
                n->align = static_cast<unsigned>(num(3));
                finish(n);
                break;
            }
            case TC_ARRAY: {
                unsigned bits = static_cast<unsigned>(num(2));
                TYPE* n = new TYPE((bits & 1) ? TYPE::VECTOR_T : TYPE::ARRAY_T);
                n->base = ref(num(0));
                n->count = static_cast<unsigned long>(num(1));
                n->complete = !(bits & 2);
                n->flags = bits >> 2;
                n->size = static_cast<unsigned long>(num(3));
                n->align = static_cast<unsigned>(num(4));
                finish(n);
                break;
            }
            case TC_PTM: {
                TYPE* n = new TYPE(TYPE::PTM_T);
                n->base = ref(num(0));
                n->cls = ref(num(1));
                n->size = static_cast<unsigned long>(num(2));
                n->align = static_cast<unsigned>(num(3));
                finish(n);
                break;
            }
            case TC_FUNC: {
                TYPE* n = new TYPE(TYPE::FUNC_T);
                n->base = ref(num(0));
                n->flags = (num(1) ? 1u : 0u) | (num(2) ? 2u : 0u) | (num(4) ? 4u : 0u);
                n->cc = static_cast<int>(num(3));
                build_lists(n, r);
                finish(n);
                break;
            }
            case TC_ENUM: {
                // Nominal: entered before its parts are built.
                TYPE* n = new TYPE(TYPE::ENUM_T);
                n->name = v[0].str;
                n->size = static_cast<unsigned long>(num(1));
                n->align = static_cast<unsigned>(num(2));
                n->pos = v[4].pos;
                n->cpp = if_read_type_is_cpp(n->name);
                finish(n);
                t->base = ref(num(3));
                break;
            }
            case TC_CSU:
            case TC_CSU_EXTRA: {
                unsigned bits = static_cast<unsigned>(num(1));
                static const TYPE::KIND kinds[4] = {TYPE::STRUCT_T, TYPE::CLASS_T, TYPE::UNION_T, TYPE::STRUCT_T};
                if ((bits & 3) == 3) if_invalid_record();
                TYPE* n = new TYPE(kinds[bits & 3]);
                n->name = v[0].str;
                n->subkind = r.code;
                n->complete = (bits & 4) != 0;
                n->flags = bits >> 3;
                n->size = static_cast<unsigned long>(num(2));
                n->align = static_cast<unsigned>(num(3));
                size_t at = 4;
                if (r.code == TC_CSU_EXTRA) n->count = static_cast<unsigned long>(num(at++));
                n->pos = v[at].pos;
                n->cpp = if_read_type_is_cpp(n->name);
                finish(n);
                build_lists(t, r);
                break;
            }
            case TC_COMPLEX: {
                TYPE* n = new TYPE(TYPE::COMPLEX_T);
                n->size = static_cast<unsigned long>(num(0));
                n->base = ref(num(1));
                n->align = static_cast<unsigned>(num(2));
                finish(n);
                break;
            }
            default:  // codes that build nothing
                f.type_map_[r.id] = nullptr;
                break;
            }
        }
        building.erase(r.id);
        return t;
    }

    void read_all() {
        RAW_TYPE* owner = nullptr;
        RAW_LIST* open_list = nullptr;
        f.read_section(I_FILE::OFF_TYPES, [&](int id) {
            if (id != IR_TYPE) if_invalid_record();
            unsigned tid = static_cast<unsigned>(f.r_uint());
            int code = static_cast<int>(f.r_u8());
            RAW_TYPE r = parse(tid, code);
            if (code == TC_LIST_HEADER) {
                if (!owner || open_list) if_invalid_record();
                owner->lists.push_back(RAW_LIST{static_cast<int>(r.fields[0].num), {}});
                open_list = &owner->lists.back();
            } else if (code == TC_LIST_TRAILER) {
                if (!open_list || open_list->kind != r.fields[0].num) if_invalid_record();
                open_list = nullptr;
            } else if (is_element(code)) {
                if (!open_list) if_invalid_record();
                open_list->elems.push_back(std::move(r));
            } else {
                if (open_list || tid == 0 || raw.count(tid)) if_invalid_record();
                owner = &(raw[tid] = std::move(r));
            }
        });
        if (open_list) if_invalid_record();
        for (auto& [id, r] : raw)
            if (!f.type_map_.count(id)) build(r);
    }

    // ---- writing

    void put(char kind, const FIELD& v) {
        switch (kind) {
        case 'b':
        case 'u':
        case 'c': f.w_u8(static_cast<unsigned>(v.num) & 0xFF); break;
        case 'n':
        case 'T': f.w_uint(static_cast<uint64_t>(v.num)); break;
        case 's': f.w_sint(v.num); break;
        case 'S': f.w_string(v.str); break;
        case 'P': f.w_psn(&v.pos); break;
        }
    }

    FIELD n(long long x) {
        FIELD v;
        v.num = x;
        return v;
    }
    FIELD s(const std::string& x) {
        FIELD v;
        v.str = x;
        return v;
    }
    FIELD p(const PSN& x) {
        FIELD v;
        v.pos = x;
        return v;
    }
    FIELD t(TYPE* x) { return n(x ? f.type_id(x) : 0); }

    void record(unsigned id, int code, const std::vector<FIELD>& fields) {
        f.w_uint(id);
        f.w_u8(static_cast<unsigned>(code));
        const char* l = layout(code);
        size_t k = 0;
        for (const char* q = l; *q; ++q) {
            put(*q, fields[k++]);
            if (code == TC_MDATA && q - l == 3 && (fields[k - 1].num & 1)) {
                put('n', fields[k++]);
                put('n', fields[k++]);
            }
        }
        f.i_flush(IR_TYPE);
    }

    std::vector<FIELD> element_fields(const TYPE_ELEM& e) {
        std::vector<FIELD> out;
        const char* l = layout(e.code);
        bool have_type = false;
        size_t ni = 0, ti = 0;
        for (const char* q = l; *q; ++q) {
            switch (*q) {
            case 'S': out.push_back(s(e.name)); break;
            case 'T':
                out.push_back(t(have_type ? (ti < e.types.size() ? e.types[ti++] : nullptr) : e.type));
                have_type = true;
                break;
            case 'P': out.push_back(p(e.pos)); break;
            default: {
                long long x = ni < e.nums.size() ? e.nums[ni++] : 0;
                out.push_back(n(x));
                if (e.code == TC_MDATA && q - l == 3 && (x & 1)) {
                    out.push_back(n(ni < e.nums.size() ? e.nums[ni++] : 0));
                    out.push_back(n(ni < e.nums.size() ? e.nums[ni++] : 0));
                }
            }
            }
        }
        return out;
    }

    void write_lists(TYPE* type) {
        for (const TYPE_LIST& l : type->lists) {
            record(0, TC_LIST_HEADER, {n(l.list_kind)});
            for (const TYPE_ELEM& e : l.elems) record(0, e.code, element_fields(e));
            record(0, TC_LIST_TRAILER, {n(l.list_kind)});
        }
    }

    // Writes one type; false for a kind that has no I-file form.
    void write(TYPE* x) {
        unsigned id = f.type_id(x);
        switch (x->kind) {
        case TYPE::VOID_T: record(id, TC_VOID, {}); break;
        case TYPE::INT_T:
            record(id, code_of_ikind(x->subkind),
                   {n(x->signed_flag), n(static_cast<long long>(x->size)), n(x->align), n(x->flags & 1),
                    n((x->flags >> 1) & 1)});
            break;
        case TYPE::FLOAT_T:
            record(id, 12 + x->subkind, {n(static_cast<long long>(x->size)), n(x->align)});
            break;
        case TYPE::FIXPT_T:
            record(id, TC_FIXPT,
                   {n(x->subkind), n(x->flags), t(x->base), n(static_cast<long long>(x->size)), n(x->align)});
            break;
        case TYPE::TYPEDEF_T: record(id, TC_TYPEDEF, {s(x->name), t(x->base), n(x->flags & 1), p(x->pos)}); break;
        case TYPE::PTR_T:
        case TYPE::REF_T:
            record(id, x->kind == TYPE::PTR_T ? TC_PTR : TC_REF,
                   {t(x->base), n(static_cast<long long>(x->size)), n(x->align)});
            break;
        case TYPE::QUAL_T:
            record(id, TC_QUAL, {t(x->base), n(x->qual), n(static_cast<long long>(x->size)), n(x->align)});
            break;
        case TYPE::ARRAY_T:
        case TYPE::VECTOR_T: {
            unsigned bits = (x->kind == TYPE::VECTOR_T ? 1u : 0u) | (x->complete ? 0u : 2u) | (x->flags << 2);
            record(id, TC_ARRAY,
                   {t(x->base), n(static_cast<long long>(x->count)), n(bits & 0xFF),
                    n(static_cast<long long>(x->size)), n(x->align)});
            break;
        }
        case TYPE::PTM_T:
            record(id, TC_PTM, {t(x->base), t(x->cls), n(static_cast<long long>(x->size)), n(x->align)});
            break;
        case TYPE::FUNC_T:
            record(id, TC_FUNC, {t(x->base), n(x->flags & 1), n((x->flags >> 1) & 1), n(x->cc), n((x->flags >> 2) & 1)});
            write_lists(x);
            break;
        case TYPE::ENUM_T:
            record(id, TC_ENUM, {s(x->name), n(static_cast<long long>(x->size)), n(x->align), t(x->base), p(x->pos)});
            break;
        case TYPE::STRUCT_T:
        case TYPE::CLASS_T:
        case TYPE::UNION_T: {
            unsigned kind = x->kind == TYPE::STRUCT_T ? 0 : (x->kind == TYPE::CLASS_T ? 1 : 2);
            unsigned bits = kind | (x->complete ? 4u : 0u) | (x->flags << 3);
            std::vector<FIELD> fields = {s(x->name), n(bits & 0xFF), n(static_cast<long long>(x->size)), n(x->align)};
            if (x->subkind == TC_CSU_EXTRA) fields.push_back(n(static_cast<long long>(x->count)));
            fields.push_back(p(x->pos));
            record(id, x->subkind == TC_CSU_EXTRA ? TC_CSU_EXTRA : TC_CSU, fields);
            write_lists(x);
            break;
        }
        case TYPE::COMPLEX_T:
            record(id, TC_COMPLEX, {n(static_cast<long long>(x->size)), t(x->base), n(x->align)});
            break;
        case TYPE::VPRED_T: break;  // only inside the optimizer; never referenced from written trees
        }
    }
};

bool if_read_type_is_cpp(const std::string& name) { return name.find("::") != std::string::npos; }

void I_FILE::read_type_defs() {
    if (!type_pkg) init_types();
    pkg_ = type_pkg;
    if_type_io io{*this, {}, {}};
    io.read_all();
}

unsigned I_FILE::type_id(TYPE* t) {
    t = t->resolved();
    if (!t->write_id) {
        t->write_id = next_type_id_++;
        written_types_.push_back(t);
    }
    return t->write_id;
}

void I_FILE::mark_type(TYPE* t) {
    if (!t) return;
    t = t->resolved();
    if (t->kind == TYPE::VPRED_T) return;
    type_id(t);
    t->referenced = true;
}

void I_FILE::write_type_section(bool named_types) {
    for (I_SYMTAB* g : globals) {
        mark_type(g->type);
        mark_type(g->type2);
    }
    if (named_types && pkg_)
        for (auto& owned : pkg_->all_types()) {
            TYPE* t = owned.get();
            if (t->kind == TYPE::TYPEDEF_T || t->kind == TYPE::ENUM_T || t->is_aggregate()) mark_type(t);
        }
    // Everything a marked type refers to is marked too.
    for (size_t i = 0; i < written_types_.size(); ++i) {
        TYPE* t = written_types_[i];
        t->referenced = true;
        mark_type(t->base);
        mark_type(t->cls);
        for (TYPE_LIST& l : t->lists)
            for (TYPE_ELEM& e : l.elems) {
                mark_type(e.type);
                for (TYPE* x : e.types) mark_type(x);
            }
    }
    if (written_types_.empty()) return;
    offsets[OFF_TYPES] = static_cast<uint32_t>(if_tell());
    if_type_io io{*this, {}, {}};
    for (TYPE* t : written_types_)
        if (t->is_aggregate()) io.write(t);
    for (TYPE* t : written_types_)
        if (!t->is_aggregate()) io.write(t);
    i_write_eof();
}
