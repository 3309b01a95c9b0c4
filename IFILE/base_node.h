// The expression node as the I-file layer knows it.
#pragma once

#include "TYPES/type_pkg.h"

class I_SYMTAB;
using fkMDATA = TYPE_ELEM;  // a data member named by a FIELD node

// The node as the I-file layer sees it: getters for writing, setters for
// the payload read with each expression-node record.
class BASE_NODE {
public:
    virtual I_SYMTAB* name_symbol() const = 0;
    virtual int field_kind() const = 0;
    virtual fkMDATA* field_mval() const = 0;
    virtual TYPE* field_csu() const = 0;
    virtual unsigned icon_uvalue() const = 0;
    virtual int icon_svalue() const = 0;
    virtual const char* lcon_value() const = 0;
    virtual const char* fcon_value() const = 0;
    virtual const char* scon_value() const = 0;
    virtual unsigned scon_length() const = 0;
    virtual int label_id() const = 0;
    virtual int vreg_id() const = 0;
    virtual int skip_count() const = 0;
    virtual int case_count() const = 0;
    virtual unsigned ddnode_id() const = 0;
    virtual unsigned ddnode_locale() const = 0;
    virtual unsigned ddnode_flags() const = 0;
    virtual unsigned call_num_vargs() const = 0;
    virtual const char* icall_name() const = 0;
    virtual unsigned eh_entry_id() const = 0;
    virtual unsigned get_edge_profile_value() const = 0;
    virtual void set_edge_profile_value(unsigned v) = 0;
    virtual void mk_name(I_SYMTAB* sym) = 0;
    virtual void mk_field(int kind, fkMDATA* member, TYPE* csu) = 0;
    virtual void mk_icon(int v) = 0;
    virtual void mk_lcon(const char* text) = 0;
    virtual void mk_fcon(const char* text) = 0;
    virtual void mk_scon(const char* text, unsigned length) = 0;
    virtual void mk_label(int id) = 0;
    virtual void mk_vreg(int id) = 0;
    virtual void mk_skip(int count) = 0;
    virtual void mk_switch(int cases) = 0;
    virtual void mk_ddnode(int id, int locale, int flags) = 0;
    virtual void mk_call(unsigned count, unsigned second) = 0;
    virtual void mk_ucall(unsigned count) = 0;
    virtual void mk_icall(const char* name) = 0;
    // The second count of CALL (and the count of UCALL), for the writer.
    virtual unsigned call_second_count() const = 0;
    // An ICON whose value needs more than 32 bits; the writer writes it as
    // LCON text (lcon_value), which reads back as the same ICON.
    virtual bool icon_is_wide() const = 0;
    virtual ~BASE_NODE() = default;
};

