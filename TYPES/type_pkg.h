// Types of the program being optimized, and the package that makes them.
//
// Sizes and alignments are in bits.  The addressable unit of the target is
// 16 bits, so every "byte" count of the optimizer is a count of 16-bit units.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "UTIL/psn.h"

class TYPE;
class TYPE_PKG;

// One element of a list carried by a function or aggregate type (parameter,
// data member, base class, friend, nested type, static member, member
// function, access declaration).  The type package knows the member's type
// and name; the other fields are carried for the I-file layer.
struct TYPE_ELEM {
    int code = 0;                   // I-file element record code (23, 30 .. 37)
    std::string name;
    TYPE* type = nullptr;
    std::vector<long long> nums;    // further fields, in record order
    std::vector<TYPE*> types;       // further type fields, in record order
    PSN pos;
};

struct TYPE_LIST {
    int list_kind = 0;
    std::vector<TYPE_ELEM> elems;
};

class TYPE {
public:
    enum KIND {
        VOID_T = 0,
        INT_T = 1,
        FLOAT_T = 2,
        FIXPT_T = 3,
        COMPLEX_T = 4,
        PTR_T = 5,
        PTM_T = 6,       // pointer to member
        QUAL_T = 7,
        TYPEDEF_T = 8,
        ARRAY_T = 9,
        VPRED_T = 10,    // vector predicate (lane mask)
        FUNC_T = 11,
        ENUM_T = 12,
        STRUCT_T = 13,
        CLASS_T = 14,
        UNION_T = 15,
        REF_T = 16,
        VECTOR_T = 17,
    };
    // Integer kinds; the rank table and the promotions depend on this order.
    enum IKIND {
        IK_BOOL = 0,
        IK_CHAR = 1,
        IK_UCHAR = 2,
        IK_SCHAR = 3,
        IK_SHORT = 4,
        IK_USHORT = 5,
        IK_INT = 6,
        IK_UINT = 7,
        IK_LONG = 8,
        IK_ULONG = 9,
        IK_LLONG = 10,
        IK_ULLONG = 11,
    };
    enum FKIND { FK_FLOAT = 0, FK_DOUBLE = 1, FK_LDOUBLE = 2 };
    enum CC_KIND { CC_DEFAULT = 0, CC_INTERRUPT = 1, CC_C = 2, CC_PASCAL = 3 };
    // Qualifier bits of QUAL_T.
    enum { Q_CONST = 1, Q_VOLATILE = 2, Q_RESTRICT = 4 };

    KIND kind;
    int subkind = 0;            // IKIND, FKIND, or the fixed-point scale
    bool signed_flag = false;   // integers: signedness as declared
    unsigned long size = 0;     // bits
    unsigned align = 0;         // bits
    TYPE* base = nullptr;       // pointee, element, underlying, qualified, return or part type
    TYPE* cls = nullptr;        // class of a pointer to member
    unsigned qual = 0;          // QUAL_T qualifier bits
    unsigned long count = 0;    // array elements / vector lanes
    unsigned flags = 0;         // further properties carried from the I-file
    int cc = CC_DEFAULT;        // function calling convention
    bool complete = true;
    bool cpp = false;           // its name is a C++ name
    std::string name;           // typedefs, enumerations, aggregates
    PSN pos;
    std::vector<TYPE_LIST> lists;  // function parameters, aggregate members
    TYPE* replacement = nullptr;   // set when this type was merged into another

    // Bookkeeping of the I-file writer.
    bool referenced = false;
    unsigned write_id = 0;

    explicit TYPE(KIND k) : kind(k) {}

    // Follows the chain of replacements to its last member.
    TYPE* resolved();
    // Looks through typedefs and qualifiers.
    TYPE* stripped();

    bool is_signed();
    bool is_unsigned();
    bool is_integral();
    bool is_floating();
    bool is_arithmetic() const;
    bool is_scalar() const;
    bool is_aggregate() const;
    bool is_schar();
    bool is_uchar();
    bool is_plain_char();
    bool is_complete();

    TYPE* type_pointed_to();
    TYPE* elem_type();
    TYPE* part_type();  // a complex type's real (and imaginary) part
    TYPE* underlying_type();
    TYPE* getr(KIND k);   // the type of kind k behind typedefs/qualifiers; fatal otherwise
    TYPE* getd(KIND k);   // the same, or null
    int rank();

    unsigned long size_in_bytes() const { return size >> 4; }
    unsigned long align_in_bytes() const { return align >> 4; }
    unsigned long storage_size() const;

    // The data member of an aggregate by index, or null.
    TYPE_ELEM* member(unsigned index);

    std::string print();
    // A declaration of `name` with this type: "int x", "int f(int, char)".
    std::string declare(const std::string& name);

private:
    std::string print_parameters();  // a function's parameter types, separated by ", "
};

// Errors of the package.
enum TP_ERROR_CODE { TP_NO_ERROR = 0, TP_SIZE_NOT_SUPPORTED = 1 };
const char* error_code_name(int code);

// An internal error of the package: "TP>> internal error: ..." on the
// standard error stream, the support message, exit status 1.
[[noreturn]] void tp_die(const char* message);

class TYPE_PKG {
public:
    TYPE_PKG();
    ~TYPE_PKG();
    TYPE_PKG(const TYPE_PKG&) = delete;
    TYPE_PKG& operator=(const TYPE_PKG&) = delete;

    int processor_version = 28;

    // Default sizes of the basic types on this target, in bits.
    unsigned long int_size(TYPE::IKIND k) const;
    unsigned long float_size(TYPE::FKIND k) const;
    unsigned long pointer_size = 32;

    TYPE* mk_void();
    TYPE* mk_int(TYPE::IKIND k, bool is_signed);
    TYPE* mk_int(TYPE::IKIND k, bool is_signed, unsigned long size, unsigned align, bool plain, bool boolean);
    TYPE* mk_fltpt(TYPE::FKIND k);
    TYPE* mk_fltpt(TYPE::FKIND k, unsigned long size, unsigned align);
    TYPE* mk_fxtpt(TYPE* base, int scale);
    TYPE* mk_fxtpt(TYPE* base, int scale, unsigned long size, unsigned align);
    TYPE* mk_complex(TYPE* part);
    TYPE* mk_complex(TYPE* part, unsigned long size, unsigned align);
    TYPE* mk_ptr(TYPE* to);
    TYPE* mk_ptr(TYPE* to, unsigned long size, unsigned align);
    TYPE* mk_ref(TYPE* to);
    TYPE* mk_ref(TYPE* to, unsigned long size, unsigned align);
    TYPE* mk_qual(TYPE* base, unsigned char qual);
    TYPE* mk_qual(TYPE* base, unsigned char qual, unsigned long size, unsigned align);
    TYPE* mk_ptm(TYPE* member, TYPE* cls, unsigned long size, unsigned align);
    TYPE* mk_array(TYPE* elem);                       // unknown bound
    TYPE* mk_array(TYPE* elem, unsigned long count);
    TYPE* mk_array(TYPE* elem, unsigned long count, unsigned flags);
    TYPE* mk_array(TYPE* elem, unsigned long count, unsigned flags, unsigned long size, unsigned align);
    TYPE* mk_vector(TYPE* elem, bool predicate, unsigned long lanes);
    TYPE* mk_vector(TYPE* elem, bool predicate, unsigned long lanes, unsigned long size, unsigned align);
    TYPE* mk_func(TYPE* ret, bool prototyped, bool varargs, bool no_return, TYPE::CC_KIND cc, unsigned long size,
                  unsigned align);
    // Aggregates and enumerations are nominal: each call makes a new type.
    TYPE* mk_enum(const std::string& name);
    TYPE* mk_enum(const std::string& name, TYPE* underlying, unsigned long size, unsigned align, unsigned flags);
    TYPE* mk_struct(const std::string& name);
    TYPE* mk_struct(const std::string& name, unsigned long size, unsigned align, unsigned flags);
    TYPE* mk_class(const std::string& name);
    TYPE* mk_class(const std::string& name, unsigned long size, unsigned align, unsigned flags);
    TYPE* mk_union(const std::string& name);
    TYPE* mk_union(const std::string& name, unsigned long size, unsigned align, unsigned flags);
    TYPE* mk_typedef(const std::string& name, TYPE* underlying, unsigned flags = 0, PSN pos = {});
    TYPE* mk_boolean_int();
    TYPE* mk_ptm_int();
    TYPE* mk_signed(TYPE* t);     // the signed integer of the same kind
    TYPE* mk_unsigned(TYPE* t);   // the unsigned integer of the same kind
    TYPE* mk_bool_vector(int lanes);
    TYPE* mk_vpred();
    TYPE* mk_struct_vector(unsigned long size, unsigned align);

    // Registers a type built elsewhere (the I-file reader): returns the equal
    // registered type when there is one (and deletes t), else takes t over.
    TYPE* intern(TYPE* t);
    // The registered type equal to t, or null.
    TYPE* find_equivalent_type(TYPE* t);
    bool owns(const TYPE* t) const;
    const std::vector<std::unique_ptr<TYPE>>& all_types() const { return types_; }
    // How the registry did: types held, and of the structural types asked
    // for, how many an equal registered type answered.
    struct cache_stats {
        size_t types = 0, lookups = 0, found = 0;
    };
    cache_stats type_cache_stats() const { return {types_.size(), lookups_, found_}; }

    TYPE* c_integral_promotions(TYPE* t);

private:
    std::vector<std::unique_ptr<TYPE>> types_;
    std::unordered_set<const TYPE*> owned_;
    std::unordered_multimap<size_t, TYPE*> index_;  // structural types by hash
    size_t lookups_ = 0, found_ = 0;
    TYPE* make(TYPE* t, bool nominal);
};

// The package of the run (made by init_types()).
extern TYPE_PKG* type_pkg;
void init_types();
void release_types();

// The qualifier bits (TYPE::Q_CONST ...) met on the way from the type
// through qualifiers and typedefs to the type they name.
unsigned TYPE_qual_kind(const TYPE* t);
bool compatible_types(const TYPE* a, const TYPE* b, bool ignore_qualifiers);
bool exact_types(const TYPE* a, const TYPE* b);
TYPE* merge_types(TYPE* a, TYPE* b);
TYPE* find_equivalent_type(TYPE* t);
TYPE* c_integral_promotions(TYPE* t);
TYPE* c_usual_arith_conv(TYPE* a, TYPE* b);
bool is_same_sign(TYPE* a, TYPE* b);
