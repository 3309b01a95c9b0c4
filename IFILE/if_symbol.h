// Symbols, pragmas, option sets and exception tables as the I-file carries
// them.  The optimizer's SYMTAB derives from I_SYMTAB.
#pragma once

#include <string>
#include <vector>

#include "UTIL/psn.h"
#include "UTIL/rare_payload.h"

class TYPE;
class BASE_NODE;

// A pragma record (94): a kind and its text arguments.
struct PRAGMA {
    int kind = 0;
    std::vector<std::string> args;
    const char* name() const;  // the pragma's name for listings
};

// Kinds of symbol pragmas.
enum {
    SP_SOURCE_LANGUAGE = 1,
    SP_TRANSLATION_UNIT_ID = 2,
    SP_LOCAL_STATIC_OF = 3,
    SP_COMDAT_GROUP = 4,
    SP_FUNCTION_SYNONYM = 5,
    SP_ALWAYS_INLINE = 6,
    SP_FUNC_RET_BY_CCTOR = 7,
    SP_CLASS_MEMBER = 8,
    SP_CTOR_DTOR = 9,
    SP_CTOR = 10,
    SP_DTOR = 11,
    SP_EXCEPTION_SPEC = 12,
};
// Kinds of statement pragmas.  UNROLL(factor); PROB_ITERATE(minimum,
// probable trip count).  A pragma of kind 57 is never written out.
enum { PK_UNROLL = 30, PK_PROB_ITERATE = 31 };
inline constexpr int PRAGMA_NEVER_WRITTEN = 57;

class I_SYMTAB {
public:
    enum RETENTION_POLICY : unsigned char { RP_DEFAULT = 0, RP_RETAIN = 1, RP_DISCARD = 2 };
    static constexpr unsigned NO_INDEX = 0xFFFFFFFFu;

    virtual ~I_SYMTAB() = default;

    std::string name;
    unsigned long size = 0;      // bits
    unsigned long align = 0;     // bits
    unsigned long value_b = 0;   // symbol values carried unchanged
    int value_c = 0;
    int value_d = 0;
    unsigned long value_f = 0;
    unsigned long value_g = 0;
    TYPE* type = nullptr;
    TYPE* type2 = nullptr;
    PSN pos;
    RETENTION_POLICY retention = RP_DEFAULT;
    unsigned index = NO_INDEX;    // position in its table
    bool global = false;
    unsigned char flag_byte = 0;  // bit value 16: references are marked in the function

    // What few symbols have: `x()` reads it, `mx()` writes it.
    struct EXTRA {
        std::vector<PRAGMA> pragmas;  // symbol pragmas, in input order
        // Initializer of a global (init section).
        bool has_init = false;
        unsigned long init_offset = 0;
        std::vector<BASE_NODE*> init_trees;
    };
    const EXTRA& x() const { return extra_.read(); }
    EXTRA& mx() { return extra_.write(); }

private:
    rare_payload<EXTRA> extra_;
};

// An option set of the option section (111).
struct OPTION_SET {
    unsigned kind = 0;
    std::vector<std::string> options;
};

// Exception-table entries (93).
enum EHT_KIND { EHK_TRY = 0, EHK_CATCH = 1, EHK_CLEANUP = 2, EHK_CLEANUP_END = 3 };
struct EHT_ENTRY {
    int kind = EHK_TRY;
    unsigned id = 0;
    unsigned parent = 0;
    unsigned label = 0;
    TYPE* caught = nullptr;  // catch entries
};
