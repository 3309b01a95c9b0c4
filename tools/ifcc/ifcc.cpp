#include "tools/ifcc/ifcc.h"

#include "IFILE/if_text.h"

#include <clang/AST/AST.h>
#include <clang/AST/RecordLayout.h>
#include <clang/Basic/SourceManager.h>
#include <clang/Frontend/ASTUnit.h>
#include <clang/Frontend/TextDiagnosticPrinter.h>
#include <clang/Tooling/Tooling.h>
#include <llvm/Support/raw_ostream.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

using namespace clang;

namespace {

// Opcodes of the trees ifcc writes.
enum OP {
    O_LABEL = 1, O_NAME = 2, O_SCON = 3, O_ICON = 4, O_PLUS = 6, O_PLUSASG = 7, O_MINUS = 8, O_MINUSASG = 9,
    O_UMINUS = 10, O_MULT = 11, O_MULTASG = 12, O_UMULT = 13, O_ANDB = 14, O_ANDBASG = 15, O_UAND = 16,
    O_FCON = 5, O_ORB = 17, O_ORBASG = 18, O_XORB = 19, O_XORBASG = 20, O_QUEST = 21, O_COLON = 22, O_ANDAND = 23,
    O_OROR = 24, O_LCON = 25, O_COMMA = 56, O_PCOMMA = 57, O_ASG = 58, O_DIV = 60, O_DIVASG = 61, O_MOD = 62,
    O_MODASG = 63, O_SLL = 64, O_SLLASG = 65, O_SRL = 66, O_SRLASG = 67, O_CALL = 70, O_UCALL = 72,
    O_EXCLAIM = 76, O_NOTB = 77, O_PLUSPLUS = 78, O_MINMIN = 79, O_EQ = 80, O_NEQ = 81, O_LE = 82, O_LT = 83,
    O_GE = 84, O_GT = 85, O_SCONV = 104, O_PCONV = 105, O_CBRANCH = 109, O_ENDINIT = 112, O_BRANCH = 114,
    O_URETURN = 118, O_SWITCH = 40, O_DEFAULT = 46, O_CASE = 47,
};

// A tree as it will be written: the node, then its operands.
struct TREE {
    int op = 0;
    int type = 0;
    std::string payload;  // the fields after the type
    std::unique_ptr<TREE> l, r;
};
using T = std::unique_ptr<TREE>;

T node(int op, int type, T l = nullptr, T r = nullptr, std::string payload = "") {
    T t = std::make_unique<TREE>();
    t->op = op;
    t->type = type;
    t->l = std::move(l);
    t->r = std::move(r);
    t->payload = std::move(payload);
    return t;
}

T clone(const TREE* t) {
    if (!t) return nullptr;
    return node(t->op, t->type, clone(t->l.get()), clone(t->r.get()), t->payload);
}


void write_tree(const TREE* t, std::string& out) {
    std::vector<const TREE*> work{t};
    while (!work.empty()) {
        const TREE* n = work.back();
        work.pop_back();
        out += "node b:" + std::to_string(n->op) + " n:" + std::to_string(n->type) + n->payload + "\n";
        if (n->r) work.push_back(n->r.get());
        if (n->l) work.push_back(n->l.get());
    }
}

// An error at a place of the source: translation stops.
struct FAILURE {
    SourceLocation at;
    std::string message;
};

// The scalar view of one of our types: its width, and whether it is signed
// or floating.
struct SCALAR {
    unsigned bits = 16;
    bool is_signed = true;
    bool is_float = false;
};

int64_t wrap(int64_t v, SCALAR s) {
    if (s.bits >= 64) return v;
    uint64_t mask = (uint64_t{1} << s.bits) - 1;
    uint64_t u = static_cast<uint64_t>(v) & mask;
    if (s.is_signed && (u >> (s.bits - 1))) u |= ~mask;
    return static_cast<int64_t>(u);
}

// Where each member of a struct or union lies, in units and bits.
struct MEMBER_PLACE {
    uint64_t unit = 0;
    unsigned bit = 0;    // bit-fields: the lowest bit, within the storage at `unit`
    unsigned width = 0;  // bit-fields: their width; 0 for other members
    unsigned storage_bits = 16;
};
struct LAYOUT {
    uint64_t units = 0;
    std::map<const FieldDecl*, MEMBER_PLACE> members;
};

// A loop or switch that `break` and `continue` leave or repeat.
struct JUMPS {
    int break_label = 0;
    int continue_label = 0;
};

class TRANSLATOR {
public:
    TRANSLATOR(ASTContext& ctx) : ctx_(ctx), sm_(ctx.getSourceManager()) {}

    std::string translate() {
        TranslationUnitDecl* tu = ctx_.getTranslationUnitDecl();
        // The global symbols first, so that every function and object has
        // its index before any tree names it.
        for (Decl* d : tu->decls()) collect_global(d);
        std::string main;
        for (Decl* d : tu->decls())
            if (auto* f = dyn_cast<FunctionDecl>(d))
                if (f->doesThisDeclarationHaveABody()) main += function(f);
        std::string init;
        for (size_t i = 0; i < globals_.size(); ++i)
            if (globals_[i].init_text.size()) init += "init n:" + std::to_string(i) + "\n" + globals_[i].init_text;
        std::string s = ".header version=-71 cpu=0x258 source=" + if_text_quote(main_file_) + " extra=0\n";
        s += ".section main\n" + main + ".end\n";
        if (!init.empty()) s += ".section init\n" + init + ".end\n";
        s += ".section types\n" + types_ + ".end\n";
        s += ".section files\n";
        for (const std::string& f : files_) s += "source S:" + if_text_quote(f) + "\n";
        s += ".end\n.section globals\n";
        for (const GLOBAL& g : globals_) s += symbol_record(g.name, g.bits, g.type, g.position, g.internal);
        s += ".end\n";
        return s;
    }

    std::string main_file_;

private:
    ASTContext& ctx_;
    SourceManager& sm_;
    std::string types_;
    std::map<const void*, int> type_ids_;
    int next_type_ = 1;
    std::vector<std::string> files_;
    std::map<std::string, int> file_ids_;
    std::map<const RecordDecl*, LAYOUT> layouts_;

    struct GLOBAL {
        std::string name;
        uint64_t bits = 0;
        int type = 0;
        std::string position = "P:0";
        std::string init_text;
        bool internal = false;  // no other unit can name it
    };
    std::vector<GLOBAL> globals_;
    std::map<const Decl*, int> global_index_;  // functions and objects (static locals included)
    std::set<std::string> global_names_;

    // The function being translated.
    const FunctionDecl* func_ = nullptr;
    std::map<const VarDecl*, int> local_index_;
    struct LOCAL {
        std::string name;
        int type;
        uint64_t bits;
    };
    std::vector<LOCAL> locals_;  // after the parameters
    std::set<std::string> local_names_;
    std::string body_;
    int next_label_ = 1;
    std::map<const LabelDecl*, int> user_labels_;
    std::vector<JUMPS> jumps_;
    std::map<const SwitchCase*, int> case_labels_;
    int return_label_ = 0;

    [[noreturn]] void fail(SourceLocation at, const std::string& message) { throw FAILURE{at, message}; }
    [[noreturn]] void unsupported(const Stmt* s, const std::string& what) {
        fail(s->getBeginLoc(), "ifcc does not support " + what);
    }

    // ---- Types ----

    SCALAR scalar(QualType q) {
        q = q.getCanonicalType();
        if (const auto* e = q->getAs<EnumType>()) q = e->getDecl()->getIntegerType();
        if (q->isPointerType() || q->isArrayType() || q->isFunctionType()) return {32, false};
        if (const auto* b = q->getAs<BuiltinType>()) {
            switch (b->getKind()) {
            case BuiltinType::Bool: return {16, false};
            case BuiltinType::Char_S: case BuiltinType::SChar: case BuiltinType::Short: case BuiltinType::Int: return {16, true};
            case BuiltinType::Char_U: case BuiltinType::UChar: case BuiltinType::UShort: case BuiltinType::UInt: return {16, false};
            case BuiltinType::Long: return {32, true};
            case BuiltinType::ULong: return {32, false};
            case BuiltinType::LongLong: return {64, true};
            case BuiltinType::ULongLong: return {64, false};
            case BuiltinType::Float: return {32, true, true};
            case BuiltinType::Double: case BuiltinType::LongDouble: return {64, true, true};
            default: break;
            }
        }
        return {0, false};
    }

    bool is_integer_like(QualType q) {
        q = q.getCanonicalType();
        return q->isIntegerType() || q->isPointerType();
    }

    uint64_t units(QualType q, SourceLocation at) {
        q = q.getCanonicalType();
        if (q->isVoidType()) return 1;  // arithmetic on void pointers steps by units
        if (const auto* a = dyn_cast<ConstantArrayType>(q.getTypePtr()))
            return a->getSize().getZExtValue() * units(a->getElementType(), at);
        if (isa<IncompleteArrayType>(q.getTypePtr())) return 0;
        if (const auto* r = q->getAs<RecordType>()) return layout(r->getDecl(), at).units;
        SCALAR s = scalar(q);
        if (s.bits == 0) fail(at, "ifcc does not support the type '" + q.getAsString() + "'");
        return (s.bits + 15) / 16;
    }

    const LAYOUT& layout(const RecordDecl* rd, SourceLocation at) {
        rd = rd->getDefinition();
        if (!rd) fail(at, "a struct or union that is never completed");
        auto it = layouts_.find(rd);
        if (it != layouts_.end()) return it->second;
        LAYOUT l;
        uint64_t bit = 0;  // the next free bit of a struct
        for (const FieldDecl* f : rd->fields()) {
            MEMBER_PLACE p;
            if (f->isBitField()) {
                unsigned w = f->getBitWidthValue(ctx_);
                SCALAR s = scalar(f->getType());
                if (w > s.bits || w > 32) fail(f->getLocation(), "a bit-field wider than its type");
                if (rd->isUnion()) {
                    p.unit = 0, p.bit = 0;
                } else if (w == 0 || (bit % 16) + w > 16) {
                    bit = (bit + 15) / 16 * 16;  // a new unit
                }
                if (w == 0) continue;
                if (!rd->isUnion()) p.unit = bit / 16, p.bit = bit % 16;
                p.width = w;
                p.storage_bits = p.bit + w > 16 ? 32 : 16;
                if (!rd->isUnion()) bit += w;
                l.units = std::max<uint64_t>(l.units, p.unit + p.storage_bits / 16);
                if (rd->isUnion() || p.storage_bits == 32) bit = std::max<uint64_t>(bit, (p.unit + p.storage_bits / 16) * 16);
            } else {
                uint64_t u = units(f->getType(), f->getLocation());
                if (!rd->isUnion()) {
                    bit = (bit + 15) / 16 * 16;
                    p.unit = bit / 16;
                    bit += u * 16;
                }
                l.units = std::max<uint64_t>(l.units, p.unit + u);
            }
            l.members[f] = p;
        }
        if (!rd->isUnion()) l.units = std::max<uint64_t>(l.units, (bit + 15) / 16);
        if (l.units == 0) l.units = 1;
        return layouts_[rd] = l;
    }

    int add_type(const std::string& body) {
        int id = next_type_++;
        types_ += "type n:" + std::to_string(id) + " " + body + "\n";
        return id;
    }

    // float is binary32, double and long double binary64.
    int float_type(unsigned bits) {
        int code = bits == 32 ? 12 : 13;
        const void* key = reinterpret_cast<const void*>(static_cast<uintptr_t>(code));
        auto it = type_ids_.find(key);
        if (it != type_ids_.end()) return it->second;
        std::string b = std::to_string(bits);
        int id = add_type("b:" + std::to_string(code) + " n:" + b + " n:16");
        float_types_.insert(id);
        return type_ids_[key] = id;
    }

    int int_type(unsigned bits, bool is_signed) {
        // The I-file codes of int, unsigned, long, unsigned long and the 64-bit pair.
        int code = bits == 16 ? (is_signed ? 8 : 9) : bits == 32 ? (is_signed ? 10 : 11) : (is_signed ? 52 : 53);
        const void* key = reinterpret_cast<const void*>(static_cast<uintptr_t>(code));
        auto it = type_ids_.find(key);
        if (it != type_ids_.end()) return it->second;
        std::string b = std::to_string(bits);
        int id = add_type("b:" + std::to_string(code) + " b:" + (is_signed ? "1" : "0") + " n:" + b + " n:" + b + " b:0 b:0");
        if (!is_signed) unsigned_types_.insert(id);
        return type_ids_[key] = id;
    }

    int type_id(QualType q, SourceLocation at) {
        q = q.getCanonicalType();
        const void* key = q.getAsOpaquePtr();
        auto it = type_ids_.find(key);
        if (it != type_ids_.end()) return it->second;
        int id;
        unsigned qual = (q.isConstQualified() ? 1 : 0) | (q.isVolatileQualified() ? 2 : 0);
        if (qual) {
            QualType base = q.getUnqualifiedType();
            int b = type_id(base, at);
            uint64_t bits = base->isFunctionType() || base->isVoidType() ? 0 : units(base, at) * 16;
            id = add_type("b:19 n:" + std::to_string(b) + " n:" + std::to_string(qual) + " n:" + std::to_string(bits) +
                          " n:16");
            if (qual & 2) volatile_types_.insert(id);
            if (unsigned_types_.count(b)) unsigned_types_.insert(id);
            if (float_types_.count(b)) float_types_.insert(id);
        } else if (q->isVoidType()) {
            id = add_type("b:51");
        } else if (const auto* p = q->getAs<PointerType>()) {
            id = add_type("b:17 n:" + std::to_string(type_id(p->getPointeeType(), at)) + " n:32 n:32");
            unsigned_types_.insert(id);
        } else if (const auto* a = dyn_cast<ArrayType>(q.getTypePtr())) {
            uint64_t count = 0;
            if (const auto* c = dyn_cast<ConstantArrayType>(a)) count = c->getSize().getZExtValue();
            else if (!isa<IncompleteArrayType>(a)) fail(at, "ifcc does not support variable-length arrays");
            int e = type_id(a->getElementType(), at);
            id = add_type("b:20 n:" + std::to_string(e) + " n:" + std::to_string(count) + " n:0 n:" +
                          std::to_string(count * units(a->getElementType(), at) * 16) + " n:16");
        } else if (const auto* f = q->getAs<FunctionType>()) {
            // A function returning a struct or union returns nothing: the
            // caller passes where the result goes as a first, hidden argument.
            const auto* proto = dyn_cast<FunctionProtoType>(f);
            QualType ret = f->getReturnType()->isRecordType() ? ctx_.VoidTy : f->getReturnType();
            id = add_type("b:22 n:" + std::to_string(type_id(ret, at)) + " b:" + (proto ? "1" : "0") +
                          " b:" + (proto && proto->isVariadic() ? "1" : "0") + " b:0 b:0");
        } else if (q->isRecordType()) {
            // An aggregate is an array of units; its members are reached by
            // address arithmetic.
            uint64_t u = units(q, at);
            id = add_type("b:20 n:" + std::to_string(int_type(16, false)) + " n:" + std::to_string(u) + " n:0 n:" +
                          std::to_string(u * 16) + " n:16");
        } else {
            SCALAR s = scalar(q);
            if (s.bits == 0) fail(at, "ifcc does not support the type '" + q.getAsString() + "'");
            return type_ids_[key] = s.is_float ? float_type(s.bits) : int_type(s.bits, s.is_signed);
        }
        return type_ids_[key] = id;
    }
    int type_id(const Expr* e) { return type_id(e->getType(), e->getExprLoc()); }
    int ptr_to(QualType q, SourceLocation at) { return type_id(ctx_.getPointerType(q), at); }

    // ---- Positions and symbols ----

    std::string pos(SourceLocation at) {
        PresumedLoc p = sm_.getPresumedLoc(sm_.getExpansionLoc(at));
        if (p.isInvalid()) return "P:0";
        std::string f = p.getFilename();
        auto it = file_ids_.find(f);
        if (it == file_ids_.end()) {
            files_.push_back(f);
            it = file_ids_.emplace(f, static_cast<int>(files_.size())).first;
        }
        return "P:" + std::to_string(it->second) + ":" + std::to_string(p.getLine()) + ":" + std::to_string(p.getColumn());
    }

    static std::string unique(std::string name, std::set<std::string>& taken) {
        if (taken.insert(name).second) return name;
        for (int k = 1;; ++k)
            if (taken.insert(name + "." + std::to_string(k)).second) return name + "." + std::to_string(k);
    }

    // Value C is 1 for a global that no other unit can name (a static
    // object or function, a static local).
    static std::string symbol_record(const std::string& name, uint64_t bits, int type, const std::string& position,
                                     bool internal = false) {
        return "symbol S:" + if_text_quote(name) + " n:" + std::to_string(bits) + " n:0 c:" + (internal ? "1" : "0") +
               " w:0 n:" + std::to_string(type) +
               " n:0 n:16 c:0 n:0 n:0 " + position + " b:0\n";
    }

    void collect_global(Decl* d) {
        if (auto* f = dyn_cast<FunctionDecl>(d)) {
            const FunctionDecl* first = f->getFirstDecl();
            if (global_index_.count(first)) return;
            GLOBAL& g = globals_[add_global(first, f->getNameAsString())];
            g.type = type_id(f->getType(), f->getLocation());
            g.internal = !f->isExternallyVisible();
            if (f->hasBody()) g.position = pos(f->getLocation());
        } else if (auto* v = dyn_cast<VarDecl>(d)) {
            global_object(v);
        } else if (isa<TypedefDecl>(d) || isa<RecordDecl>(d) || isa<EnumDecl>(d) || isa<EmptyDecl>(d) ||
                   isa<StaticAssertDecl>(d)) {
            return;
        } else {
            fail(d->getLocation(), std::string("ifcc does not support a declaration of kind ") + d->getDeclKindName());
        }
    }

    int add_global(const Decl* key, const std::string& name) {
        int index = static_cast<int>(globals_.size());
        globals_.emplace_back().name = unique(name, global_names_);
        global_index_[key] = index;
        return index;
    }

    // A global object or a static local: its symbol and its initial data,
    // from its definition (or its last tentative one).
    int global_object(const VarDecl* v) {
        const VarDecl* first = v->getFirstDecl();
        auto it = global_index_.find(first);
        if (it != global_index_.end()) return it->second;
        std::string name = v->getNameAsString();
        if (v->isStaticLocal()) name = func_->getNameAsString() + "." + name;
        int index = add_global(first, name);
        const VarDecl* def = v->getDefinition();
        if (!def) def = v->getActingDefinition();
        if (!def) def = v->getMostRecentDecl();
        QualType t = def->getType();
        if (const auto* inc = dyn_cast<IncompleteArrayType>(t.getCanonicalType().getTypePtr()))
            t = ctx_.getConstantArrayType(inc->getElementType(), llvm::APInt(32, 1), nullptr, ArrayType::Normal, 0);
        uint64_t u = units(t, def->getLocation());
        GLOBAL& g = globals_[index];
        g.internal = !v->isExternallyVisible();
        g.bits = u * 16;
        g.type = type_id(t, def->getLocation());
        g.position = pos(def->getLocation());
        if (const Expr* init = def->getInit()) globals_[index].init_text = static_init(init, t, u);
        return index;
    }

    // ---- Static initial data ----

    struct ITEM {
        int type;
        uint64_t units;
        T tree;
    };

    // The initial data of an object: its trees, unit by unit, with zeros
    // where nothing is given.
    std::string static_init(const Expr* init, QualType t, uint64_t total) {
        std::map<uint64_t, ITEM> items;
        std::map<uint64_t, uint64_t> bit_units;  // units filled by bit-fields
        place_static(init, t, 0, items, bit_units);
        for (auto& [unit, bits] : bit_units) {
            if (items.count(unit)) fail(init->getBeginLoc(), "a bit-field overlaps another initializer");
            items[unit] = {int_type(16, false), 1, icon(int_type(16, false), static_cast<int64_t>(bits & 0xFFFF))};
        }
        std::string out;
        uint64_t at = 0;
        for (auto& [unit, item] : items) {
            for (; at < unit; ++at) write_tree(icon(int_type(16, false), 0).get(), out);
            write_tree(item.tree.get(), out);
            at = unit + item.units;
        }
        for (; at < total; ++at) write_tree(icon(int_type(16, false), 0).get(), out);
        return out + "node b:112 n:0\n";
    }

    void place_static(const Expr* e, QualType t, uint64_t at, std::map<uint64_t, ITEM>& items,
                      std::map<uint64_t, uint64_t>& bit_units) {
        e = e->IgnoreParens();
        QualType c = t.getCanonicalType();
        if (const auto* list = dyn_cast<InitListExpr>(e)) {
            if (const auto* a = dyn_cast<ArrayType>(c.getTypePtr())) {
                uint64_t step = units(a->getElementType(), e->getExprLoc());
                for (unsigned i = 0; i < list->getNumInits(); ++i)
                    place_static(list->getInit(i), a->getElementType(), at + i * step, items, bit_units);
                return;
            }
            if (const auto* r = c->getAs<RecordType>()) {
                const LAYOUT& l = layout(r->getDecl(), e->getExprLoc());
                if (r->getDecl()->isUnion()) {
                    if (list->getNumInits() && list->getInitializedFieldInUnion())
                        place_member(list->getInitializedFieldInUnion(), list->getInit(0), l, at, items, bit_units);
                    return;
                }
                unsigned i = 0;
                for (const FieldDecl* f : r->getDecl()->getDefinition()->fields()) {
                    if (f->isUnnamedBitfield()) continue;
                    if (i >= list->getNumInits()) break;
                    place_member(f, list->getInit(i++), l, at, items, bit_units);
                }
                return;
            }
            if (list->getNumInits() == 1) return place_static(list->getInit(0), t, at, items, bit_units);
            if (list->getNumInits() == 0) return;
            unsupported(e, "this initializer");
        }
        if (isa<ImplicitValueInitExpr>(e)) return;  // zeros
        if (const auto* s = dyn_cast<StringLiteral>(e); s && c->isArrayType()) {
            uint64_t n = units(t, e->getExprLoc());
            std::string text = s->getBytes().str();
            int ct = type_id(cast<ArrayType>(c.getTypePtr())->getElementType(), e->getExprLoc());
            for (uint64_t i = 0; i < n && i < text.size(); ++i)
                items[at + i] = {ct, 1, icon(ct, static_cast<unsigned char>(text[i]))};
            return;
        }
        if (c->isRecordType()) unsupported(e, "a struct initialized from an expression");
        T tree = constant_tree(e, t);
        items[at] = {type_id(t, e->getExprLoc()), units(t, e->getExprLoc()), std::move(tree)};
    }

    void place_member(const FieldDecl* f, const Expr* e, const LAYOUT& l, uint64_t at, std::map<uint64_t, ITEM>& items,
                      std::map<uint64_t, uint64_t>& bit_units) {
        const MEMBER_PLACE& p = l.members.at(f);
        if (!p.width) return place_static(e, f->getType(), at + p.unit, items, bit_units);
        std::optional<int64_t> v = constant(e);
        if (!v) unsupported(e, "a bit-field initializer that is not a constant");
        uint64_t bits = (static_cast<uint64_t>(*v) & ((uint64_t{1} << p.width) - 1)) << p.bit;
        bit_units[at + p.unit] |= bits & 0xFFFF;
        if (p.storage_bits == 32) bit_units[at + p.unit + 1] |= (bits >> 16) & 0xFFFF;
    }

    // A constant of an initializer: an integer, or an address of a global
    // object or string with a constant offset.
    T constant_tree(const Expr* e, QualType t) {
        int type = type_id(t, e->getExprLoc());
        if (scalar(t).is_float) {
            // Floating arithmetic is the same on host and target: Clang
            // works the value out.
            Expr::EvalResult r;
            if (e->EvaluateAsRValue(r, ctx_) && r.Val.isFloat()) return fcon(type, fp_of(r.Val.getFloat()));
            unsupported(e, "this floating initializer (not a constant ifcc can compute)");
        }
        if (std::optional<int64_t> v = constant(e)) return icon(type, *v);
        if (t->isPointerType()) {
            const Expr* base = nullptr;
            int64_t offset = 0;
            if (address_constant(e, base, offset)) {
                T a;
                if (const auto* s = dyn_cast<StringLiteral>(base)) {
                    a = scon(s, type);
                } else if (const auto* fn = dyn_cast<FunctionDecl>(cast<DeclRefExpr>(base)->getDecl())) {
                    a = node(O_UAND, type, function_name(fn, e->getExprLoc()));
                } else {
                    const auto* v = cast<VarDecl>(cast<DeclRefExpr>(base)->getDecl());
                    a = node(O_UAND, type, name_of(v, e->getExprLoc()));
                }
                if (offset) a = node(O_PLUS, type, std::move(a), icon(int_type(32, true), offset));
                return a;
            }
        }
        unsupported(e, "this initializer (not a constant ifcc can compute)");
    }

    // Whether e is the address of a global object or string plus a constant
    // number of units.
    bool address_constant(const Expr* e, const Expr*& base, int64_t& offset) {
        e = e->IgnoreParens();
        if (const auto* c = dyn_cast<CastExpr>(e)) {
            switch (c->getCastKind()) {
            case CK_ArrayToPointerDecay: return lvalue_constant(c->getSubExpr(), base, offset);
            case CK_FunctionToPointerDecay: return lvalue_constant(c->getSubExpr(), base, offset);
            case CK_BitCast: case CK_NoOp: return address_constant(c->getSubExpr(), base, offset);
            default: return false;
            }
        }
        if (const auto* u = dyn_cast<UnaryOperator>(e); u && u->getOpcode() == UO_AddrOf)
            return lvalue_constant(u->getSubExpr(), base, offset);
        if (const auto* b = dyn_cast<BinaryOperator>(e); b && (b->getOpcode() == BO_Add || b->getOpcode() == BO_Sub)) {
            const Expr* p = b->getLHS();
            const Expr* i = b->getRHS();
            if (!p->getType()->isPointerType()) std::swap(p, i);
            std::optional<int64_t> n = constant(i);
            if (!n || !address_constant(p, base, offset)) return false;
            int64_t step = static_cast<int64_t>(units(p->getType()->getPointeeType(), e->getExprLoc()));
            offset += (b->getOpcode() == BO_Add ? 1 : -1) * *n * step;
            return true;
        }
        if (isa<StringLiteral>(e)) {
            base = e;
            return true;
        }
        return false;
    }

    bool lvalue_constant(const Expr* e, const Expr*& base, int64_t& offset) {
        e = e->IgnoreParens();
        if (const auto* d = dyn_cast<DeclRefExpr>(e)) {
            if (isa<FunctionDecl>(d->getDecl())) {
                base = d;
                return true;
            }
            const auto* v = dyn_cast<VarDecl>(d->getDecl());
            if (!v || v->hasLocalStorage()) return false;
            base = d;
            return true;
        }
        if (isa<StringLiteral>(e)) {
            base = e;
            return true;
        }
        if (const auto* a = dyn_cast<ArraySubscriptExpr>(e)) {
            std::optional<int64_t> n = constant(a->getIdx());
            if (!n || !address_constant(a->getBase(), base, offset)) return false;
            offset += *n * static_cast<int64_t>(units(a->getType(), e->getExprLoc()));
            return true;
        }
        if (const auto* m = dyn_cast<MemberExpr>(e)) {
            const auto* f = dyn_cast<FieldDecl>(m->getMemberDecl());
            if (!f || f->isBitField()) return false;
            bool ok = m->isArrow() ? address_constant(m->getBase(), base, offset) : lvalue_constant(m->getBase(), base, offset);
            if (!ok) return false;
            offset += static_cast<int64_t>(layout(f->getParent(), e->getExprLoc()).members.at(f).unit);
            return true;
        }
        if (const auto* u = dyn_cast<UnaryOperator>(e); u && u->getOpcode() == UO_Deref)
            return address_constant(u->getSubExpr(), base, offset);
        return false;
    }

    // The value of an integer constant expression in this data model.
    std::optional<int64_t> constant(const Expr* e) {
        e = e->IgnoreParens();
        if (const auto* c = dyn_cast<ConstantExpr>(e)) return constant(c->getSubExpr());
        SCALAR s = scalar(e->getType());
        if (const auto* i = dyn_cast<IntegerLiteral>(e)) return wrap(static_cast<int64_t>(i->getValue().getZExtValue()), s);
        if (const auto* c = dyn_cast<CharacterLiteral>(e)) return wrap(c->getValue(), s);
        if (const auto* d = dyn_cast<DeclRefExpr>(e))
            if (const auto* ec = dyn_cast<EnumConstantDecl>(d->getDecl())) return wrap(ec->getInitVal().getSExtValue(), s);
        if (const auto* t = dyn_cast<UnaryExprOrTypeTraitExpr>(e)) {
            if (t->getKind() == UETT_SizeOf) return static_cast<int64_t>(units(t->getTypeOfArgument(), e->getExprLoc()));
            if (t->getKind() == UETT_AlignOf || t->getKind() == UETT_PreferredAlignOf) return 1;
            return std::nullopt;
        }
        if (const auto* c = dyn_cast<CastExpr>(e)) {
            switch (c->getCastKind()) {
            case CK_IntegralCast: case CK_NoOp: case CK_IntegralToPointer: case CK_PointerToIntegral:
            case CK_NullToPointer: case CK_BitCast: {
                if (c->getCastKind() == CK_NullToPointer) return 0;
                std::optional<int64_t> v = constant(c->getSubExpr());
                if (!v || s.bits == 0) return std::nullopt;
                return wrap(*v, s);
            }
            case CK_IntegralToBoolean: {
                std::optional<int64_t> v = constant(c->getSubExpr());
                if (!v) return std::nullopt;
                return *v != 0;
            }
            case CK_FloatingToIntegral: case CK_FloatingToBoolean: {
                Expr::EvalResult r;
                if (s.bits == 0 || !c->getSubExpr()->EvaluateAsRValue(r, ctx_) || !r.Val.isFloat()) return std::nullopt;
                double d = fp_of(r.Val.getFloat());
                if (c->getCastKind() == CK_FloatingToBoolean) return d != 0;
                double lo = s.is_signed ? -std::ldexp(1.0, static_cast<int>(s.bits) - 1) : 0.0;
                double hi = std::ldexp(1.0, static_cast<int>(s.bits) - (s.is_signed ? 1 : 0));
                d = std::trunc(d);
                if (!(d >= lo && d < hi)) return std::nullopt;
                return wrap(s.is_signed ? static_cast<int64_t>(d) : static_cast<int64_t>(static_cast<uint64_t>(d)), s);
            }
            default: return std::nullopt;
            }
        }
        if (const auto* u = dyn_cast<UnaryOperator>(e)) {
            std::optional<int64_t> v = constant(u->getSubExpr());
            if (!v) return std::nullopt;
            switch (u->getOpcode()) {
            case UO_Minus: return wrap(static_cast<int64_t>(0 - static_cast<uint64_t>(*v)), s);
            case UO_Plus: return *v;
            case UO_Not: return wrap(~*v, s);
            case UO_LNot: return *v == 0;
            default: return std::nullopt;
            }
        }
        if (const auto* b = dyn_cast<BinaryOperator>(e)) {
            if (!is_integer_like(b->getLHS()->getType()) || !is_integer_like(b->getRHS()->getType()) ||
                b->getLHS()->getType()->isPointerType() || b->getRHS()->getType()->isPointerType())
                return std::nullopt;
            std::optional<int64_t> x = constant(b->getLHS());
            if (!x) return std::nullopt;
            if (b->getOpcode() == BO_LAnd && !*x) return 0;
            if (b->getOpcode() == BO_LOr && *x) return 1;
            std::optional<int64_t> y = constant(b->getRHS());
            if (!y) return std::nullopt;
            SCALAR ls = scalar(b->getLHS()->getType());
            uint64_t ux = static_cast<uint64_t>(*x), uy = static_cast<uint64_t>(*y);
            auto masked = [](int64_t v, SCALAR sc) {
                return sc.bits >= 64 ? static_cast<uint64_t>(v) : static_cast<uint64_t>(v) & ((uint64_t{1} << sc.bits) - 1);
            };
            switch (b->getOpcode()) {
            case BO_Add: return wrap(static_cast<int64_t>(ux + uy), s);
            case BO_Sub: return wrap(static_cast<int64_t>(ux - uy), s);
            case BO_Mul: return wrap(static_cast<int64_t>(ux * uy), s);
            case BO_Div: case BO_Rem:
                if (*y == 0) return std::nullopt;
                if (s.is_signed) {
                    if (*y == -1) return wrap(b->getOpcode() == BO_Div ? static_cast<int64_t>(0 - ux) : 0, s);
                    return wrap(b->getOpcode() == BO_Div ? *x / *y : *x % *y, s);
                }
                return wrap(static_cast<int64_t>(b->getOpcode() == BO_Div ? masked(*x, s) / masked(*y, s)
                                                                          : masked(*x, s) % masked(*y, s)), s);
            case BO_And: return wrap(*x & *y, s);
            case BO_Or: return wrap(*x | *y, s);
            case BO_Xor: return wrap(*x ^ *y, s);
            case BO_Shl:
                if (*y < 0 || *y >= static_cast<int64_t>(s.bits)) return std::nullopt;
                return wrap(static_cast<int64_t>(ux << *y), s);
            case BO_Shr:
                if (*y < 0 || *y >= static_cast<int64_t>(s.bits)) return std::nullopt;
                return s.is_signed ? wrap(*x >> *y, s) : wrap(static_cast<int64_t>(masked(*x, s) >> *y), s);
            case BO_LT: case BO_GT: case BO_LE: case BO_GE: case BO_EQ: case BO_NE: {
                bool r;
                if (ls.is_signed) {
                    r = b->getOpcode() == BO_LT ? *x < *y : b->getOpcode() == BO_GT ? *x > *y : b->getOpcode() == BO_LE ? *x <= *y
                      : b->getOpcode() == BO_GE ? *x >= *y : b->getOpcode() == BO_EQ ? *x == *y : *x != *y;
                } else {
                    uint64_t a = masked(*x, ls), c = masked(*y, ls);
                    r = b->getOpcode() == BO_LT ? a < c : b->getOpcode() == BO_GT ? a > c : b->getOpcode() == BO_LE ? a <= c
                      : b->getOpcode() == BO_GE ? a >= c : b->getOpcode() == BO_EQ ? a == c : a != c;
                }
                return r ? 1 : 0;
            }
            case BO_LAnd: case BO_LOr: return *y != 0;
            case BO_Comma: return *y;
            default: return std::nullopt;
            }
        }
        if (const auto* c = dyn_cast<ConditionalOperator>(e)) {
            std::optional<int64_t> k = constant(c->getCond());
            if (!k) return std::nullopt;
            std::optional<int64_t> v = constant(*k ? c->getTrueExpr() : c->getFalseExpr());
            if (!v) return std::nullopt;
            return wrap(*v, s);
        }
        return std::nullopt;
    }

    // ---- Leaves ----

    // A constant of one of our types; the record's encoding of the value
    // follows the type's signedness.
    T icon(int type, int64_t v) {
        bool is_unsigned = unsigned_types_.count(type) != 0;
        if (!is_unsigned && v >= INT32_MIN && v <= INT32_MAX) return node(O_ICON, type, nullptr, nullptr, " i:" + std::to_string(v));
        if (is_unsigned && v >= 0 && v <= UINT32_MAX) return node(O_ICON, type, nullptr, nullptr, " n:" + std::to_string(v));
        std::string digits = is_unsigned ? std::to_string(static_cast<uint64_t>(v)) : std::to_string(v);
        return node(O_LCON, type, nullptr, nullptr, " S:\"" + digits + "\"");
    }
    T icon_of(QualType t, int64_t v, SourceLocation at) {
        SCALAR s = scalar(t);
        return icon(type_id(t, at), wrap(v, s));
    }
    T int_icon(int64_t v) { return icon(int_type(16, true), v); }

    // A floating constant, written with all the digits that tell it apart.
    T fcon(int type, double v) {
        char text[64];
        std::snprintf(text, sizeof text, "%.17g", v);
        return node(O_FCON, type, nullptr, nullptr, " S:" + if_text_quote(text));
    }
    static double fp_of(llvm::APFloat v) {
        bool lost = false;
        v.convert(llvm::APFloat::IEEEdouble(), llvm::APFloat::rmNearestTiesToEven, &lost);
        return v.convertToDouble();
    }
    // The constant 1 (or 0) of an arithmetic type.
    T number(QualType t, int64_t v, SourceLocation at) {
        if (scalar(t).is_float) return fcon(type_id(t, at), static_cast<double>(v));
        return icon_of(t, v, at);
    }
    // A value as a truth value: a floating value is compared with zero, so
    // that no integer operator sees it.
    T truth(T v) {
        if (!float_types_.count(v->type)) return v;
        int vt = v->type;
        return node(O_NEQ, int_type(16, true), std::move(v), fcon(vt, 0));
    }

    T scon(const StringLiteral* s, int type) {
        if (s->getCharByteWidth() != 1) unsupported(s, "wide strings");
        std::string text = s->getBytes().str();
        return node(O_SCON, type, nullptr, nullptr, " L:" + if_text_quote(text));
    }

    T name_of(const VarDecl* v, SourceLocation at) {
        int type = type_id(v->getType(), at);
        if (v->hasLocalStorage()) {
            auto it = local_index_.find(v);
            if (it == local_index_.end()) fail(at, "a local variable of another function");
            if (isa<ParmVarDecl>(v) && v->getType()->isRecordType())
                return node(O_UMULT, type, node(O_NAME, ptr_to(v->getType(), at), nullptr, nullptr, " R:1:" + std::to_string(it->second)));
            return node(O_NAME, type, nullptr, nullptr, " R:1:" + std::to_string(it->second));
        }
        return node(O_NAME, type, nullptr, nullptr, " R:0:" + std::to_string(global_object(v)));
    }

    T function_name(const FunctionDecl* f, SourceLocation at) {
        auto g = global_index_.find(f->getFirstDecl());
        if (g == global_index_.end()) fail(at, "ifcc does not support a function declared inside a function");
        return node(O_NAME, type_id(f->getType(), at), nullptr, nullptr, " R:0:" + std::to_string(g->second));
    }

    // ---- Expressions ----

    // A conversion of a value to the type `to`.
    T convert(T v, QualType to, SourceLocation at) {
        int id = type_id(to, at);
        if (v->type == id) return v;
        if (to->isPointerType()) return node(O_PCONV, id, std::move(v));
        if (to->isVoidType()) return v;
        return node(O_SCONV, id, std::move(v));
    }

    static bool simple(const TREE* t) {
        if (!t) return true;
        switch (t->op) {
        case O_NAME: case O_ICON: case O_LCON: case O_SCON: case O_UAND: case O_PLUS: case O_MINUS: case O_MULT:
        case O_SCONV: case O_PCONV:
            return simple(t->l.get()) && simple(t->r.get());
        default: return false;
        }
    }

    // A new local of type q for a value worked out once.
    T temporary(QualType q, SourceLocation at) {
        int type = type_id(q, at);
        locals_.push_back({unique("tmp", local_names_), type, units(q, at) * 16});
        int local = static_cast<int>(params_count_ + locals_.size() - 1);
        return node(O_NAME, type, nullptr, nullptr, " R:1:" + std::to_string(local));
    }
    size_t params_count_ = 0;

    // The place an lvalue names: a NAME of a variable, or an indirection of
    // its address.  Bit-fields have their own path (`field`).
    T place(const Expr* e) {
        e = e->IgnoreParens();
        int type = type_id(e);
        if (const auto* d = dyn_cast<DeclRefExpr>(e)) {
            if (const auto* v = dyn_cast<VarDecl>(d->getDecl())) return name_of(v, e->getExprLoc());
            unsupported(e, "this kind of name");
        }
        if (const auto* m = dyn_cast<MemberExpr>(e))
            if (const auto* f = dyn_cast<FieldDecl>(m->getMemberDecl()); f && f->isBitField())
                unsupported(e, "this use of a bit-field");
        return node(O_UMULT, type, address(e));
    }

    // The address of an lvalue, typed as a pointer to it.
    T address(const Expr* e) {
        e = e->IgnoreParens();
        SourceLocation at = e->getExprLoc();
        int ptype = ptr_to(e->getType(), at);
        if (const auto* d = dyn_cast<DeclRefExpr>(e)) {
            if (const auto* v = dyn_cast<VarDecl>(d->getDecl())) {
                T n = name_of(v, at);
                if (n->op == O_UMULT) return std::move(n->l);  // a struct parameter: its address
                return node(O_UAND, ptype, std::move(n));
            }
            if (const auto* f = dyn_cast<FunctionDecl>(d->getDecl())) return node(O_UAND, ptype, function_name(f, at));
            unsupported(e, "this kind of name");
        }
        if (const auto* u = dyn_cast<UnaryOperator>(e); u && u->getOpcode() == UO_Deref)
            return convert(value(u->getSubExpr()), ctx_.getPointerType(e->getType()), at);
        if (const auto* a = dyn_cast<ArraySubscriptExpr>(e)) {
            T p = offset_pointer(value(a->getBase()), a->getBase()->getType(), value(a->getIdx()), a->getIdx()->getType(), false, at);
            return convert(std::move(p), ctx_.getPointerType(e->getType()), at);
        }
        if (const auto* m = dyn_cast<MemberExpr>(e)) {
            const auto* f = dyn_cast<FieldDecl>(m->getMemberDecl());
            if (!f) unsupported(e, "this member");
            if (f->isBitField()) unsupported(e, "the address of a bit-field");
            T base = m->isArrow() ? value(m->getBase()) : address(m->getBase());
            uint64_t off = layout(f->getParent(), at).members.at(f).unit;
            T p = node(O_PCONV, ptype, std::move(base));
            if (off) p = node(O_PLUS, ptype, std::move(p), icon(int_type(32, true), static_cast<int64_t>(off)));
            return p;
        }
        if (const auto* s = dyn_cast<StringLiteral>(e)) return scon(s, ptype);
        if (const auto* c = dyn_cast<CompoundLiteralExpr>(e)) unsupported(c, "compound literals");
        unsupported(e, "the address of this expression");
    }

    // p + i (or p - i) with i scaled by the size of what p points to; p's
    // type is `ptype`.
    T offset_pointer(T p, QualType ptype, T i, QualType itype, bool minus, SourceLocation at) {
        i = scaled_index(std::move(i), itype, ptype->getPointeeType(), at);
        return node(minus ? O_MINUS : O_PLUS, type_id(ptype, at), std::move(p), std::move(i));
    }

    // An index in units: times the pointee's size, in a type of at least 32
    // bits when the size is not 1.
    T scaled_index(T i, QualType itype, QualType pointee, SourceLocation at) {
        uint64_t step = units(pointee, at);
        if (step == 1) return i;
        SCALAR is = scalar(itype);
        int wide = int_type(std::max(32u, is.bits), is.is_signed);
        if (i->type != wide) i = node(O_SCONV, wide, std::move(i));
        return node(O_MULT, wide, std::move(i), icon(wide, static_cast<int64_t>(step)));
    }

    static int binary_op(BinaryOperatorKind k) {
        switch (k) {
        case BO_Add: case BO_AddAssign: return O_PLUS;
        case BO_Sub: case BO_SubAssign: return O_MINUS;
        case BO_Mul: case BO_MulAssign: return O_MULT;
        case BO_Div: case BO_DivAssign: return O_DIV;
        case BO_Rem: case BO_RemAssign: return O_MOD;
        case BO_And: case BO_AndAssign: return O_ANDB;
        case BO_Or: case BO_OrAssign: return O_ORB;
        case BO_Xor: case BO_XorAssign: return O_XORB;
        case BO_Shl: case BO_ShlAssign: return O_SLL;
        case BO_Shr: case BO_ShrAssign: return O_SRL;
        case BO_LT: return O_LT;
        case BO_GT: return O_GT;
        case BO_LE: return O_LE;
        case BO_GE: return O_GE;
        case BO_EQ: return O_EQ;
        case BO_NE: return O_NEQ;
        default: return 0;
        }
    }

    const FieldDecl* bit_field(const Expr* e) {
        if (const auto* m = dyn_cast<MemberExpr>(e->IgnoreParens()))
            if (const auto* f = dyn_cast<FieldDecl>(m->getMemberDecl()); f && f->isBitField()) return f;
        return nullptr;
    }

    // A bit-field's storage: the unit (or two) that holds it.
    T field_storage(const MemberExpr* m, const FieldDecl* f, MEMBER_PLACE& p, T* prefix) {
        SourceLocation at = m->getExprLoc();
        p = layout(f->getParent(), at).members.at(f);
        T base = m->isArrow() ? value(m->getBase()) : address(m->getBase());
        bool vol = m->getType().isVolatileQualified() || (m->isArrow() ? m->getBase()->getType()->getPointeeType().isVolatileQualified()
                                                                       : m->getBase()->getType().isVolatileQualified());
        QualType st = p.storage_bits == 32 ? ctx_.UnsignedLongTy : ctx_.UnsignedIntTy;
        if (vol) st = ctx_.getVolatileType(st);
        int sptr = ptr_to(st, at);
        T a = node(O_PCONV, sptr, std::move(base));
        if (p.unit) a = node(O_PLUS, sptr, std::move(a), icon(int_type(32, true), static_cast<int64_t>(p.unit)));
        if (!simple(a.get()) && prefix) {
            T tmp = temporary(ctx_.getPointerType(st), at);
            *prefix = node(O_ASG, tmp->type, clone(tmp.get()), std::move(a));
            a = std::move(tmp);
        }
        return node(O_UMULT, type_id(st, at), std::move(a));
    }

    // The value of a bit-field read from its storage: shifted up to the top
    // of the storage, then down, with the sign when the field has one.
    T field_value(T storage, const MEMBER_PLACE& p, QualType ft, SourceLocation at) {
        int sw = static_cast<int>(p.storage_bits);
        int ut = int_type(p.storage_bits, false);
        int wide = int_type(p.storage_bits, scalar(ft).is_signed);
        T v = storage->type == ut ? std::move(storage) : node(O_SCONV, ut, std::move(storage));
        int up = sw - static_cast<int>(p.bit + p.width);
        if (up) v = node(O_SLL, ut, std::move(v), int_icon(up));
        if (wide != ut) v = node(O_SCONV, wide, std::move(v));
        if (sw - static_cast<int>(p.width)) v = node(O_SRL, wide, std::move(v), int_icon(sw - static_cast<int>(p.width)));
        return convert(std::move(v), ft, at);
    }

    // Stores into a bit-field the value `new_value` makes of its old one:
    // storage = (storage & ~mask) | ((v << bit) & mask).  The expression's
    // value is the field's new value, or its old one with `old_result`.
    T field_store(const MemberExpr* m, const FieldDecl* f, const std::function<T(T old)>& new_value, bool old_result = false) {
        SourceLocation at = m->getExprLoc();
        QualType ft = f->getType();
        MEMBER_PLACE p;
        T prefix;
        T storage = field_storage(m, f, p, &prefix);
        int ut = int_type(p.storage_bits, false);
        uint64_t all = p.storage_bits == 32 ? 0xFFFFFFFFu : 0xFFFFu;
        uint64_t mask = ((uint64_t{1} << p.width) - 1) << p.bit;
        T tmp = temporary(ft, at);
        T old = field_value(clone(storage.get()), p, ft, at);
        T keep_old;
        if (old_result) {
            T before = temporary(ft, at);
            keep_old = node(O_ASG, before->type, clone(before.get()), std::move(old));
            old = std::move(before);
        }
        T set_tmp = node(O_ASG, tmp->type, clone(tmp.get()), convert(new_value(clone(old.get())), ft, at));
        T bits = node(O_ANDB, ut, node(O_SLL, ut, node(O_SCONV, ut, clone(tmp.get())), int_icon(p.bit)),
                      icon(ut, static_cast<int64_t>(mask)));
        T keep = node(O_ANDB, ut, clone(storage.get()), icon(ut, static_cast<int64_t>(all & ~mask)));
        int st = storage->type;
        T store = node(O_ASG, st, std::move(storage), node(O_ORB, ut, std::move(keep), std::move(bits)));
        T result = old_result ? std::move(old)
                              : field_value(node(O_SCONV, ut, clone(tmp.get())), MEMBER_PLACE{0, 0, p.width, p.storage_bits}, ft, at);
        int rt = result->type;
        T seq = node(O_COMMA, rt, std::move(set_tmp), node(O_COMMA, rt, std::move(store), std::move(result)));
        if (keep_old) seq = node(O_COMMA, rt, std::move(keep_old), std::move(seq));
        if (prefix) seq = node(O_COMMA, rt, std::move(prefix), std::move(seq));
        return seq;
    }

    T value(const Expr* e) {
        SourceLocation at = e->getExprLoc();
        e = e->IgnoreParens();
        if (const auto* c = dyn_cast<ConstantExpr>(e)) return value(c->getSubExpr());
        // A struct or union is only ever copied; as a value it stands for its address.
        if (e->getType()->isRecordType()) return struct_address(e);
        int type = type_id(e);
        if (const auto* i = dyn_cast<IntegerLiteral>(e)) return icon_of(e->getType(), static_cast<int64_t>(i->getValue().getZExtValue()), at);
        if (const auto* c = dyn_cast<CharacterLiteral>(e)) return icon_of(e->getType(), c->getValue(), at);
        if (const auto* f = dyn_cast<FloatingLiteral>(e)) return fcon(type, fp_of(f->getValue()));
        if (const auto* d = dyn_cast<DeclRefExpr>(e)) {
            if (const auto* ec = dyn_cast<EnumConstantDecl>(d->getDecl())) return icon_of(e->getType(), ec->getInitVal().getSExtValue(), at);
            return place(e);
        }
        if (const auto* t = dyn_cast<UnaryExprOrTypeTraitExpr>(e)) {
            std::optional<int64_t> v = constant(e);
            if (!v) unsupported(e, "this operator");
            return icon_of(e->getType(), *v, at);
        }
        if (isa<StringLiteral>(e)) return address(e);
        if (const auto* c = dyn_cast<CastExpr>(e)) return cast_value(c);
        if (const auto* u = dyn_cast<UnaryOperator>(e)) return unary(u);
        if (const auto* b = dyn_cast<BinaryOperator>(e)) return binary(b);
        if (const auto* c = dyn_cast<ConditionalOperator>(e)) {
            T cond = truth(value(c->getCond()));
            T a = value(c->getTrueExpr());
            T b = value(c->getFalseExpr());
            if (!e->getType()->isVoidType()) {
                a = convert(std::move(a), e->getType(), at);
                b = convert(std::move(b), e->getType(), at);
            } else {
                type = int_type(16, true);
            }
            return node(O_QUEST, type, std::move(cond), node(O_COLON, type, std::move(a), std::move(b)));
        }
        if (isa<ArraySubscriptExpr>(e)) return place(e);
        if (const auto* m = dyn_cast<MemberExpr>(e)) {
            if (const FieldDecl* f = bit_field(m)) {
                MEMBER_PLACE p;
                T s = field_storage(m, f, p, nullptr);
                return field_value(std::move(s), p, f->getType(), at);
            }
            return place(e);
        }
        if (const auto* call = dyn_cast<CallExpr>(e)) return call_value(call);
        if (isa<ImplicitValueInitExpr>(e)) return icon_of(e->getType(), 0, at);
        if (isa<StmtExpr>(e)) unsupported(e, "statement expressions");
        if (isa<CompoundLiteralExpr>(e)) unsupported(e, "compound literals");
        unsupported(e, std::string("the expression '") + e->getStmtClassName() + "'");
    }

    T cast_value(const CastExpr* c) {
        SourceLocation at = c->getExprLoc();
        const Expr* sub = c->getSubExpr();
        QualType to = c->getType();
        switch (c->getCastKind()) {
        case CK_LValueToRValue:
            if (sub->getType()->isRecordType()) return struct_address(sub);
            return value(sub);
        case CK_NoOp: case CK_IntegralCast: case CK_BitCast: case CK_IntegralToPointer: case CK_PointerToIntegral:
        case CK_BooleanToSignedIntegral:
            if (to->isRecordType()) return value(sub);
            return convert(value(sub), to, at);
        case CK_IntegralToFloating: case CK_FloatingToIntegral: case CK_FloatingCast:
            return convert(value(sub), to, at);
        case CK_NullToPointer: return icon(type_id(to, at), 0);
        case CK_IntegralToBoolean: case CK_PointerToBoolean: case CK_FloatingToBoolean: {
            T v = value(sub);
            int vt = v->type;
            T zero = sub->getType()->isPointerType() ? icon(vt, 0) : number(sub->getType(), 0, at);
            return convert(node(O_NEQ, int_type(16, true), std::move(v), std::move(zero)), to, at);
        }
        case CK_ArrayToPointerDecay:
            return convert(address(sub), to, at);
        case CK_FunctionToPointerDecay: return address(sub);
        case CK_ToVoid: return value(sub);
        default: unsupported(c, std::string("the conversion ") + c->getCastKindName());
        }
    }

    T call_value(const CallExpr* call) {
        SourceLocation at = call->getExprLoc();
        const FunctionDecl* f = call->getDirectCallee();
        T callee;
        if (f) {
            auto g = global_index_.find(f->getFirstDecl());
            if (g == global_index_.end()) unsupported(call, "a call of a function declared inside a function");
            callee = node(O_NAME, type_id(f->getType(), at), nullptr, nullptr, " R:0:" + std::to_string(g->second));
        } else {
            // Through a pointer: the function it points to, *p.
            const Expr* p = call->getCallee();
            QualType ft = p->getType()->getPointeeType();
            if (ft.isNull() || !ft->isFunctionType()) unsupported(call, "this kind of call");
            callee = node(O_UMULT, type_id(ft, at), value(p));
        }
        bool struct_result = call->getType()->isRecordType();
        int type = call->getType()->isVoidType() || struct_result ? int_type(16, true) : type_id(call);
        std::vector<T> args;
        T result;  // where a struct result goes
        if (struct_result) {
            result = temporary(call->getType(), at);
            args.push_back(node(O_UAND, ptr_to(call->getType(), at), clone(result.get())));
        }
        for (const Expr* a : call->arguments()) {
            if (a->getType()->isRecordType()) {
                // A struct argument: the callee gets the address of a copy.
                T copy = temporary(a->getType(), a->getExprLoc());
                int pt = ptr_to(a->getType(), at);
                T to = node(O_UAND, pt, clone(copy.get()));
                T fill = copy_object(clone(to.get()), struct_address(a), a->getType(), a->getType().isVolatileQualified(), at);
                args.push_back(node(O_COMMA, pt, std::move(fill), std::move(to)));
                continue;
            }
            args.push_back(value(a));
        }
        T c;
        if (args.empty()) {
            c = node(O_UCALL, type, std::move(callee), nullptr, " n:0");
        } else {
            // The arguments: one hangs from the call; more make a PCOMMA
            // chain with the first on the left.
            size_t n = args.size();
            T list = std::move(args.back());
            for (size_t k = args.size() - 1; k-- > 0;) list = node(O_PCOMMA, int_type(16, true), std::move(args[k]), std::move(list));
            c = node(O_CALL, type, std::move(callee), std::move(list), " n:" + std::to_string(n) + " n:0");
        }
        if (!struct_result) return c;
        int pt = ptr_to(call->getType(), at);
        return node(O_COMMA, pt, std::move(c), node(O_UAND, pt, std::move(result)));
    }

    // The address of a struct or union value: of the object an lvalue names,
    // or of the temporary that holds a call's result.
    T struct_address(const Expr* e) {
        e = e->IgnoreParens();
        SourceLocation at = e->getExprLoc();
        if (const auto* c = dyn_cast<ConstantExpr>(e)) return struct_address(c->getSubExpr());
        if (const auto* c = dyn_cast<CastExpr>(e); c && (c->getCastKind() == CK_LValueToRValue || c->getCastKind() == CK_NoOp))
            return struct_address(c->getSubExpr());
        if (const auto* call = dyn_cast<CallExpr>(e)) return call_value(call);
        if (const auto* b = dyn_cast<BinaryOperator>(e)) {
            if (b->getOpcode() == BO_Comma) {
                T r = struct_address(b->getRHS());
                int rt = r->type;
                return node(O_COMMA, rt, value(b->getLHS()), std::move(r));
            }
            if (b->getOpcode() == BO_Assign) {
                // The copy, then the address of the copy as the value.
                const Expr* l = b->getLHS();
                T to = address(l);
                int tt = to->type;
                T prefix;
                if (!simple(to.get())) {
                    T tmp = temporary(ctx_.getPointerType(l->getType()), at);
                    prefix = node(O_ASG, tt, clone(tmp.get()), std::move(to));
                    to = std::move(tmp);
                }
                bool vol = l->getType().isVolatileQualified() || b->getRHS()->getType().isVolatileQualified();
                T copy = copy_object(clone(to.get()), struct_address(b->getRHS()), l->getType(), vol, at);
                T r = node(O_COMMA, tt, std::move(copy), std::move(to));
                return prefix ? node(O_COMMA, tt, std::move(prefix), std::move(r)) : std::move(r);
            }
        }
        if (const auto* c = dyn_cast<ConditionalOperator>(e)) {
            int pt = ptr_to(e->getType(), at);
            T a = convert(struct_address(c->getTrueExpr()), ctx_.getPointerType(e->getType()), at);
            T b = convert(struct_address(c->getFalseExpr()), ctx_.getPointerType(e->getType()), at);
            return node(O_QUEST, pt, truth(value(c->getCond())), node(O_COLON, pt, std::move(a), std::move(b)));
        }
        if (e->isGLValue()) return address(e);
        unsupported(e, std::string("this struct or union value ('") + e->getStmtClassName() + "')");
    }

    T unary(const UnaryOperator* u) {
        SourceLocation at = u->getExprLoc();
        const Expr* sub = u->getSubExpr();
        int type = type_id(u);
        switch (u->getOpcode()) {
        case UO_Plus: return value(sub);
        case UO_Minus: return node(O_UMINUS, type, value(sub));
        case UO_Not: return node(O_NOTB, type, value(sub));
        case UO_LNot: return node(O_EXCLAIM, type, truth(value(sub)));
        case UO_AddrOf:
            if (bit_field(sub)) unsupported(u, "the address of a bit-field");
            return convert(address(sub), u->getType(), at);
        case UO_Deref:
            if (u->getType()->isFunctionType()) return convert(value(sub), ctx_.getPointerType(u->getType()), at);
            return place(u);
        case UO_PreInc: case UO_PreDec: case UO_PostInc: case UO_PostDec: {
            bool inc = u->getOpcode() == UO_PreInc || u->getOpcode() == UO_PostInc;
            bool post = u->isPostfix();
            QualType t = sub->getType();
            if (t->isBooleanType()) unsupported(u, "++ and -- of a _Bool");
            T step = t->isPointerType() ? icon(int_type(32, true), static_cast<int64_t>(units(t->getPointeeType(), at)))
                                        : number(t, 1, at);
            if (const FieldDecl* f = bit_field(sub)) {
                auto op = inc ? O_PLUS : O_MINUS;
                T stepc = clone(step.get());
                return field_store(cast<MemberExpr>(sub->IgnoreParens()), f, [&](T old) {
                    int ot = old->type;
                    return node(op, ot, std::move(old), std::move(stepc));
                }, post);
            }
            return node(post ? (inc ? O_PLUSPLUS : O_MINMIN) : (inc ? O_PLUSASG : O_MINUSASG), type_id(t, at), place(sub), std::move(step));
        }
        case UO_Extension: return value(sub);
        default: unsupported(u, "this unary operator");
        }
    }

    // Whether computing in `computation` and converting to `lhs` gives what
    // the compound operator of the I-file gives in `lhs`.
    bool same_in_lhs_type(BinaryOperatorKind k, QualType lhs, QualType computation) {
        SCALAR a = scalar(lhs), b = scalar(computation);
        if (a.is_float || b.is_float) return a.is_float == b.is_float && a.bits == b.bits;
        if (a.bits == b.bits && a.is_signed == b.is_signed) return true;
        switch (k) {
        case BO_AddAssign: case BO_SubAssign: case BO_MulAssign: case BO_AndAssign: case BO_OrAssign: case BO_XorAssign:
            return b.bits >= a.bits;
        default: return false;
        }
    }

    T binary(const BinaryOperator* b) {
        SourceLocation at = b->getExprLoc();
        BinaryOperatorKind k = b->getOpcode();
        const Expr* l = b->getLHS();
        const Expr* r = b->getRHS();
        int type = type_id(b);
        QualType lt = l->getType(), rt = r->getType();
        switch (k) {
        case BO_Comma: {
            T a = value(l);
            T c = value(r);
            int ct = c->type;
            return node(O_COMMA, ct, std::move(a), std::move(c));
        }
        case BO_LAnd: return node(O_ANDAND, type, truth(value(l)), truth(value(r)));
        case BO_LOr: return node(O_OROR, type, truth(value(l)), truth(value(r)));
        case BO_Assign: {
            if (lt->isRecordType()) return copy_aggregate(l, r);
            if (const FieldDecl* f = bit_field(l)) {
                T v = value(r);
                return field_store(cast<MemberExpr>(l->IgnoreParens()), f, [&](T) { return std::move(v); });
            }
            T p = place(l);
            return node(O_ASG, type_id(lt, at), std::move(p), convert(value(r), lt, at));
        }
        case BO_Add: case BO_Sub:
            if (lt->isPointerType() && rt->isPointerType()) {
                // The difference of two pointers, in elements.
                uint64_t step = units(lt->getPointeeType(), at);
                int wide = int_type(32, true);
                T d = node(O_MINUS, wide, node(O_SCONV, wide, value(l)), node(O_SCONV, wide, value(r)));
                if (step != 1) d = node(O_DIV, wide, std::move(d), icon(wide, static_cast<int64_t>(step)));
                return convert(std::move(d), b->getType(), at);
            }
            if (lt->isPointerType()) return offset_pointer(value(l), lt, value(r), rt, k == BO_Sub, at);
            if (rt->isPointerType()) return offset_pointer(value(r), rt, value(l), lt, false, at);
            break;
        default: break;
        }
        if (auto* ca = dyn_cast<CompoundAssignOperator>(b)) return compound(ca);
        int op = binary_op(k);
        if (!op) unsupported(b, "this binary operator");
        T a = value(l);
        T c = value(r);
        if (k == BO_EQ || k == BO_NE || k == BO_LT || k == BO_GT || k == BO_LE || k == BO_GE) {
            // Pointers compare as pointers; a null constant takes the other side's type.
            if (lt->isPointerType() && rt->isPointerType() && a->type != c->type) c = node(O_PCONV, a->type, std::move(c));
        }
        return node(op, type, std::move(a), std::move(c));
    }

    T compound(const CompoundAssignOperator* ca) {
        SourceLocation at = ca->getExprLoc();
        BinaryOperatorKind k = ca->getOpcode();
        const Expr* l = ca->getLHS();
        const Expr* r = ca->getRHS();
        QualType lt = l->getType();
        int op = binary_op(k);
        if (const FieldDecl* f = bit_field(l)) {
            T v = value(r);
            QualType ct = ca->getComputationLHSType();
            return field_store(cast<MemberExpr>(l->IgnoreParens()), f, [&](T old) {
                old = convert(std::move(old), ct, at);
                T rv = k == BO_ShlAssign || k == BO_ShrAssign ? std::move(v) : convert(std::move(v), ct, at);
                return node(op, type_id(ct, at), std::move(old), std::move(rv));
            });
        }
        if (lt->isPointerType()) {
            // p += i: the step scaled like p + i.
            T p = place(l);
            T i = scaled_index(value(r), r->getType(), lt->getPointeeType(), at);
            return node(k == BO_AddAssign ? O_PLUSASG : O_MINUSASG, type_id(lt, at), std::move(p), std::move(i));
        }
        QualType ct = ca->getComputationLHSType();
        if (same_in_lhs_type(k, lt, ct)) {
            int asg = op + 1;  // the assigning form follows each operator
            T rv = value(r);
            if (k != BO_ShlAssign && k != BO_ShrAssign) rv = convert(std::move(rv), lt, at);
            return node(asg, type_id(lt, at), place(l), std::move(rv));
        }
        // x op= y computed in a wider or differently signed type: x = (T)((C)x op y),
        // with x's address worked out once.
        T prefix;
        T p = stable_place(l, prefix);
        T old = convert(clone(p.get()), ct, at);
        T rv = value(r);
        if (k != BO_ShlAssign && k != BO_ShrAssign) rv = convert(std::move(rv), ct, at);
        T v = node(op, type_id(ct, at), std::move(old), std::move(rv));
        T asg = node(O_ASG, type_id(lt, at), std::move(p), convert(std::move(v), lt, at));
        if (prefix) {
            int t = asg->type;
            asg = node(O_COMMA, t, std::move(prefix), std::move(asg));
        }
        return asg;
    }

    // The place of an lvalue that can be named twice: its address goes to a
    // temporary first when working it out has effects.
    T stable_place(const Expr* e, T& prefix) {
        T p = place(e);
        if (p->op == O_NAME || simple(p->l.get())) return p;
        T tmp = temporary(ctx_.getPointerType(e->getType()), e->getExprLoc());
        prefix = node(O_ASG, tmp->type, clone(tmp.get()), std::move(p->l));
        p->l = std::move(tmp);
        return p;
    }

    // a = b for structs and unions.
    T copy_aggregate(const Expr* l, const Expr* r) {
        SourceLocation at = l->getExprLoc();
        bool vol = l->getType().isVolatileQualified() || r->getType().isVolatileQualified();
        return copy_object(address(l), struct_address(r), l->getType(), vol, at);
    }

    // The pieces a copy of an object of type q moves, by their offset in
    // units: each scalar member wider than a unit (of nested structs and
    // arrays too) as its own type.  Unions, bit-fields, integers of one
    // unit and whatever no member covers are left to the caller.
    void scalar_pieces(QualType q, uint64_t at_unit, std::map<uint64_t, QualType>& pieces, SourceLocation at) {
        q = q.getCanonicalType().getUnqualifiedType();
        if (const auto* a = dyn_cast<ConstantArrayType>(q.getTypePtr())) {
            uint64_t step = units(a->getElementType(), at);
            uint64_t n = a->getSize().getZExtValue();
            for (uint64_t i = 0; i < n && step; ++i) scalar_pieces(a->getElementType(), at_unit + i * step, pieces, at);
            return;
        }
        if (const auto* r = q->getAs<RecordType>()) {
            if (r->getDecl()->isUnion()) return;
            const LAYOUT& l = layout(r->getDecl(), at);
            for (const auto& [f, place] : l.members)
                if (!f->isBitField()) scalar_pieces(f->getType(), at_unit + place.unit, pieces, at);
            return;
        }
        // One unit of an integer moves as the unsigned unit it is.
        SCALAR sc = scalar(q);
        if (sc.bits > 16) pieces[at_unit] = q;
    }

    // Copies an object of type q from `from` to `to`: a member wider than a
    // unit as its own type, so that the copy moves it whole; the rest, and
    // all of a volatile object, unit by unit.  Each address is worked out
    // once.
    T copy_object(T to, T from, QualType q, bool vol, SourceLocation at) {
        uint64_t n = units(q, at);
        QualType unit = ctx_.UnsignedIntTy;
        std::map<uint64_t, QualType> pieces;
        if (vol) unit = ctx_.getVolatileType(unit);
        else scalar_pieces(q, 0, pieces, at);
        for (uint64_t u = 0; u < n;) {
            auto it = pieces.find(u);
            if (it != pieces.end()) {
                u += units(it->second, at);
                continue;
            }
            pieces[u++] = unit;
        }
        int up = ptr_to(unit, at);
        to = node(O_PCONV, up, std::move(to));
        from = node(O_PCONV, up, std::move(from));
        T prefix;
        for (T* side : {&to, &from}) {
            if (simple(side->get())) continue;
            T tmp = temporary(ctx_.getPointerType(unit), at);
            T set = node(O_ASG, tmp->type, clone(tmp.get()), std::move(*side));
            prefix = prefix ? node(O_COMMA, set->type, std::move(prefix), std::move(set)) : std::move(set);
            *side = std::move(tmp);
        }
        T seq = std::move(prefix);
        for (const auto& [i, type] : pieces) {
            int pt = type_id(type, at);
            auto piece = [&](const T& base) {
                T a = clone(base.get());
                if (i) a = node(O_PLUS, up, std::move(a), icon(int_type(32, true), static_cast<int64_t>(i)));
                if (type != unit) a = node(O_PCONV, ptr_to(type, at), std::move(a));
                return node(O_UMULT, pt, std::move(a));
            };
            T one = node(O_ASG, pt, piece(to), piece(from));
            seq = seq ? node(O_COMMA, pt, std::move(seq), std::move(one)) : std::move(one);
        }
        return seq;
    }

    // ---- Statements ----

    int new_label() { return next_label_++; }
    void label(int l) { body_ += "label n:" + std::to_string(l) + "\n"; }
    T label_node(int l) { return node(O_LABEL, 0, nullptr, nullptr, " n:" + std::to_string(l)); }
    void emit(T tree, SourceLocation at) {
        body_ += "stmt " + pos(at) + "\n";
        write_tree(tree.get(), body_);
    }
    void jump(int l, SourceLocation at) { emit(node(O_BRANCH, 0, label_node(l)), at); }
    // Jumps to l when the condition is true (or false, with `when` false).
    void branch(const Expr* cond, bool when, int l) {
        T c = truth(value(cond));
        if (!when) c = node(O_EXCLAIM, int_type(16, true), std::move(c));
        emit(node(O_CBRANCH, int_type(16, true), std::move(c), label_node(l)), cond->getExprLoc());
    }

    static bool has_effect(const TREE* t) {
        if (!t) return false;
        switch (t->op) {
        case O_ASG: case O_PLUSASG: case O_MINUSASG: case O_MULTASG: case O_DIVASG: case O_MODASG: case O_ANDBASG:
        case O_ORBASG: case O_XORBASG: case O_SLLASG: case O_SRLASG: case O_PLUSPLUS: case O_MINMIN: case O_CALL:
        case O_UCALL: case O_DIV: case O_MOD: case O_UMULT:
            return true;
        case O_NAME: return false;
        default: return has_effect(t->l.get()) || has_effect(t->r.get());
        }
    }
    bool reads_volatile(const Expr* e) { return e->getType().isVolatileQualified(); }

    void expression_statement(const Expr* e) {
        T t = value(e);
        // A statement of no effect is dropped, except a read of a volatile object.
        bool keep = has_effect(t.get());
        if (!keep) {
            std::vector<const TREE*> work{t.get()};
            while (!work.empty() && !keep) {
                const TREE* n = work.back();
                work.pop_back();
                if (!n) continue;
                keep = n->op == O_NAME && volatile_types_.count(n->type);
                work.push_back(n->l.get());
                work.push_back(n->r.get());
            }
        }
        if (keep) emit(std::move(t), e->getExprLoc());
    }
    std::set<int> volatile_types_;
    std::set<int> unsigned_types_;  // unsigned integers and pointers, qualified or not
    std::set<int> float_types_;     // floating types, qualified or not

    void local_init(const VarDecl* v) {
        const Expr* init = v->getInit();
        if (!init) return;
        SourceLocation at = v->getLocation();
        QualType t = v->getType();
        if (!t->isArrayType() && !t->isRecordType()) {
            T p = name_of(v, at);
            int pt = p->type;
            emit(node(O_ASG, pt, std::move(p), convert(value(init), t, at)), at);
            return;
        }
        // An aggregate: every unit is stored, the ones without an initializer as zero.
        if (const auto* e = dyn_cast<CXXConstructExpr>(init)) unsupported(e, "C++");
        if (!isa<InitListExpr>(init->IgnoreParens()) && !isa<StringLiteral>(init->IgnoreParens())) {
            if (t->isRecordType()) {  // a copy of another struct
                emit(copy_local_aggregate(v, init), at);
                return;
            }
            unsupported(init, "this initializer");
        }
        uint64_t n = units(t, at);
        std::vector<bool> covered(n, false);
        std::vector<std::pair<uint64_t, std::pair<QualType, const Expr*>>> leaves;
        std::vector<std::pair<uint64_t, std::pair<const FieldDecl*, const Expr*>>> fields;
        collect_leaves(init, t, 0, leaves, fields, at);
        for (auto& [off, te] : leaves)
            for (uint64_t k = 0; k < units(te.first, at); ++k) covered[off + k] = true;
        // The units of bit-fields are zeroed like the others, then the fields are or-ed in.
        QualType ut = ctx_.UnsignedIntTy;
        auto unit_place = [&](uint64_t off, QualType q) {
            int p = ptr_to(q, at);
            T a = node(O_UAND, p, name_of(v, at));
            if (off) a = node(O_PLUS, p, std::move(a), icon(int_type(32, true), static_cast<int64_t>(off)));
            return node(O_UMULT, type_id(q, at), std::move(a));
        };
        for (uint64_t k = 0; k < n; ++k)
            if (!covered[k]) emit(node(O_ASG, type_id(ut, at), unit_place(k, ut), icon(type_id(ut, at), 0)), at);
        for (auto& [off, te] : leaves) {
            T p = unit_place(off, te.first);
            int pt = p->type;
            emit(node(O_ASG, pt, std::move(p), convert(value(te.second), te.first, at)), at);
        }
        for (auto& [off, fe] : fields) {
            const FieldDecl* f = fe.first;
            const MEMBER_PLACE& mp = layout(f->getParent(), at).members.at(f);
            QualType st = mp.storage_bits == 32 ? ctx_.UnsignedLongTy : ctx_.UnsignedIntTy;
            int stt = type_id(st, at);
            uint64_t mask = ((uint64_t{1} << mp.width) - 1) << mp.bit;
            T bits = node(O_ANDB, stt, node(O_SLL, stt, node(O_SCONV, stt, value(fe.second)), int_icon(mp.bit)),
                          icon(stt, static_cast<int64_t>(mask)));
            T p = unit_place(off, st);
            emit(node(O_ORBASG, stt, std::move(p), std::move(bits)), at);
        }
    }

    T copy_local_aggregate(const VarDecl* v, const Expr* init) {
        // The same as an assignment of the whole struct.
        DeclRefExpr* ref = DeclRefExpr::Create(ctx_, NestedNameSpecifierLoc(), SourceLocation(), const_cast<VarDecl*>(v), false,
                                               v->getLocation(), v->getType(), VK_LValue);
        return copy_aggregate(ref, init);
    }

    void collect_leaves(const Expr* e, QualType t, uint64_t at,
                        std::vector<std::pair<uint64_t, std::pair<QualType, const Expr*>>>& leaves,
                        std::vector<std::pair<uint64_t, std::pair<const FieldDecl*, const Expr*>>>& fields, SourceLocation loc) {
        e = e->IgnoreParens();
        QualType c = t.getCanonicalType();
        if (const auto* list = dyn_cast<InitListExpr>(e)) {
            if (const auto* a = dyn_cast<ArrayType>(c.getTypePtr())) {
                uint64_t step = units(a->getElementType(), loc);
                for (unsigned i = 0; i < list->getNumInits(); ++i)
                    collect_leaves(list->getInit(i), a->getElementType(), at + i * step, leaves, fields, loc);
                return;
            }
            if (const auto* r = c->getAs<RecordType>()) {
                const LAYOUT& l = layout(r->getDecl(), loc);
                auto member = [&](const FieldDecl* f, const Expr* x) {
                    const MEMBER_PLACE& p = l.members.at(f);
                    if (p.width) fields.push_back({at + p.unit, {f, x}});
                    else collect_leaves(x, f->getType(), at + p.unit, leaves, fields, loc);
                };
                if (r->getDecl()->isUnion()) {
                    if (list->getNumInits() && list->getInitializedFieldInUnion())
                        member(list->getInitializedFieldInUnion(), list->getInit(0));
                    return;
                }
                unsigned i = 0;
                for (const FieldDecl* f : r->getDecl()->getDefinition()->fields()) {
                    if (f->isUnnamedBitfield()) continue;
                    if (i >= list->getNumInits()) break;
                    member(f, list->getInit(i++));
                }
                return;
            }
            if (list->getNumInits() == 1) return collect_leaves(list->getInit(0), t, at, leaves, fields, loc);
            if (list->getNumInits() == 0) return;
            unsupported(e, "this initializer");
        }
        if (isa<ImplicitValueInitExpr>(e)) return;
        if (const auto* s = dyn_cast<StringLiteral>(e); s && c->isArrayType()) {
            QualType ct = cast<ArrayType>(c.getTypePtr())->getElementType();
            std::string text = s->getBytes().str();
            uint64_t n = units(t, loc);
            for (uint64_t i = 0; i < n && i < text.size(); ++i) {
                auto* lit = new (ctx_) CharacterLiteral(static_cast<unsigned char>(text[i]), CharacterLiteral::Ascii, ctx_.IntTy, s->getBeginLoc());
                leaves.push_back({at + i, {ct, lit}});
            }
            return;
        }
        if (c->isRecordType()) unsupported(e, "a member struct initialized from an expression");
        leaves.push_back({at, {t, e}});
    }

    void collect_locals(const Stmt* s) {
        std::vector<const Stmt*> work{s};
        while (!work.empty()) {
            const Stmt* n = work.back();
            work.pop_back();
            if (!n) continue;
            if (const auto* ds = dyn_cast<DeclStmt>(n)) {
                for (const Decl* d : ds->decls()) {
                    if (const auto* v = dyn_cast<VarDecl>(d)) {
                        if (v->isStaticLocal() || v->hasExternalStorage()) {
                            global_object(v);
                            continue;
                        }
                        if (v->getType()->isVariablyModifiedType()) unsupported(ds, "variable-length arrays");
                        int type = type_id(v->getType(), v->getLocation());
                        local_index_[v] = static_cast<int>(params_count_ + locals_.size());
                        locals_.push_back({unique(v->getNameAsString(), local_names_), type,
                                           units(v->getType(), v->getLocation()) * 16});
                    }
                }
            }
            for (const Stmt* c : n->children()) work.push_back(c);
        }
    }

    std::string function(const FunctionDecl* f) {
        func_ = f;
        local_index_.clear();
        locals_.clear();
        local_names_.clear();
        body_.clear();
        next_label_ = 1;
        user_labels_.clear();
        case_labels_.clear();
        jumps_.clear();
        std::string head = "begin_func " + pos(f->getLocation()) + " n:" + std::to_string(global_index_.at(f->getFirstDecl())) + "\n";
        std::string params;
        // A struct result goes where the hidden first parameter points; a
        // struct parameter is the address of the caller's copy.
        unsigned hidden = f->getReturnType()->isRecordType() ? 1 : 0;
        params_count_ = f->getNumParams() + hidden;
        if (hidden) params += symbol_record(unique("result", local_names_), 32, ptr_to(f->getReturnType(), f->getLocation()), "P:0");
        for (unsigned i = 0; i < f->getNumParams(); ++i) {
            const ParmVarDecl* p = f->getParamDecl(i);
            local_index_[p] = static_cast<int>(i + hidden);
            std::string name = p->getNameAsString().empty() ? "arg" + std::to_string(i) : p->getNameAsString();
            bool by_address = p->getType()->isRecordType();
            params += symbol_record(unique(name, local_names_), by_address ? 32 : units(p->getType(), p->getLocation()) * 16,
                                    by_address ? ptr_to(p->getType(), p->getLocation()) : type_id(p->getType(), p->getLocation()),
                                    pos(p->getLocation()));
        }
        collect_locals(f->getBody());
        return_label_ = new_label();
        statement(f->getBody());
        label(return_label_);
        std::string locals;
        for (const LOCAL& l : locals_) locals += symbol_record(l.name, l.bits, l.type, "P:0");
        func_ = nullptr;
        return head + params + "end_args P:0\n" + locals + "end_locals P:0\n" + body_ + "end_func P:0\n";
    }

    void statement(const Stmt* s) {
        if (!s) return;
        if (const auto* e = dyn_cast<Expr>(s)) return expression_statement(e);
        switch (s->getStmtClass()) {
        case Stmt::CompoundStmtClass:
            for (const Stmt* c : cast<CompoundStmt>(s)->body()) statement(c);
            return;
        case Stmt::NullStmtClass: return;
        case Stmt::DeclStmtClass:
            for (const Decl* d : cast<DeclStmt>(s)->decls()) {
                if (const auto* v = dyn_cast<VarDecl>(d)) {
                    if (!v->isStaticLocal() && !v->hasExternalStorage()) local_init(v);
                } else if (isa<FunctionDecl>(d)) {
                    collect_global(const_cast<Decl*>(d));
                } else if (!isa<TypedefDecl>(d) && !isa<RecordDecl>(d) && !isa<EnumDecl>(d)) {
                    fail(d->getLocation(), std::string("ifcc does not support a local declaration of kind ") + d->getDeclKindName());
                }
            }
            return;
        case Stmt::ReturnStmtClass: {
            const auto* r = cast<ReturnStmt>(s);
            QualType rt = func_->getReturnType();
            if (r->getRetValue() && rt->isRecordType()) {
                T to = node(O_NAME, ptr_to(rt, r->getBeginLoc()), nullptr, nullptr, " R:1:0");
                emit(copy_object(std::move(to), struct_address(r->getRetValue()), rt, false, r->getBeginLoc()),
                     r->getBeginLoc());
                jump(return_label_, r->getBeginLoc());
            } else if (r->getRetValue() && !rt->isVoidType()) {
                T v = convert(value(r->getRetValue()), func_->getReturnType(), r->getBeginLoc());
                int vt = v->type;
                emit(node(O_URETURN, vt, std::move(v)), r->getBeginLoc());
            } else {
                if (r->getRetValue()) expression_statement(r->getRetValue());
                jump(return_label_, r->getBeginLoc());
            }
            return;
        }
        case Stmt::IfStmtClass: {
            const auto* i = cast<IfStmt>(s);
            if (i->getInit() || i->getConditionVariable()) unsupported(s, "this form of if");
            int other = new_label();
            branch(i->getCond(), false, other);
            statement(i->getThen());
            if (i->getElse()) {
                int end = new_label();
                jump(end, i->getElseLoc());
                label(other);
                statement(i->getElse());
                label(end);
            } else {
                label(other);
            }
            return;
        }
        case Stmt::WhileStmtClass: {
            const auto* w = cast<WhileStmt>(s);
            int top = new_label(), end = new_label();
            label(top);
            branch(w->getCond(), false, end);
            jumps_.push_back({end, top});
            statement(w->getBody());
            jumps_.pop_back();
            jump(top, w->getBeginLoc());
            label(end);
            return;
        }
        case Stmt::DoStmtClass: {
            const auto* d = cast<DoStmt>(s);
            int top = new_label(), cont = new_label(), end = new_label();
            label(top);
            jumps_.push_back({end, cont});
            statement(d->getBody());
            jumps_.pop_back();
            label(cont);
            branch(d->getCond(), true, top);
            label(end);
            return;
        }
        case Stmt::ForStmtClass: {
            const auto* f = cast<ForStmt>(s);
            statement(f->getInit());
            int top = new_label(), cont = new_label(), end = new_label();
            label(top);
            if (f->getCond()) branch(f->getCond(), false, end);
            jumps_.push_back({end, cont});
            statement(f->getBody());
            jumps_.pop_back();
            label(cont);
            if (f->getInc()) expression_statement(f->getInc());
            jump(top, f->getBeginLoc());
            label(end);
            return;
        }
        case Stmt::BreakStmtClass:
            if (jumps_.empty()) unsupported(s, "break outside a loop or switch");
            jump(jumps_.back().break_label, s->getBeginLoc());
            return;
        case Stmt::ContinueStmtClass:
            for (auto it = jumps_.rbegin(); it != jumps_.rend(); ++it)
                if (it->continue_label) return jump(it->continue_label, s->getBeginLoc());
            unsupported(s, "continue outside a loop");
        case Stmt::GotoStmtClass: jump(user_label(cast<GotoStmt>(s)->getLabel()), s->getBeginLoc()); return;
        case Stmt::LabelStmtClass: {
            const auto* l = cast<LabelStmt>(s);
            label(user_label(l->getDecl()));
            statement(l->getSubStmt());
            return;
        }
        case Stmt::SwitchStmtClass: return switch_statement(cast<SwitchStmt>(s));
        case Stmt::CaseStmtClass: case Stmt::DefaultStmtClass: {
            const auto* c = cast<SwitchCase>(s);
            auto it = case_labels_.find(c);
            if (it == case_labels_.end()) unsupported(s, "a case outside a switch");
            label(it->second);
            statement(c->getSubStmt());
            return;
        }
        case Stmt::GCCAsmStmtClass: case Stmt::MSAsmStmtClass: unsupported(s, "inline assembly");
        default: unsupported(s, std::string("the statement '") + s->getStmtClassName() + "'");
        }
    }

    int user_label(const LabelDecl* d) {
        auto it = user_labels_.find(d);
        if (it != user_labels_.end()) return it->second;
        return user_labels_[d] = new_label();
    }

    // A switch: its value in a temporary, then one test per case in source
    // order, then a jump to the default or past the end.
    void switch_statement(const SwitchStmt* s) {
        if (s->getInit() || s->getConditionVariable()) unsupported(s, "this form of switch");
        SourceLocation at = s->getBeginLoc();
        QualType ct = s->getCond()->getType();
        std::vector<const SwitchCase*> cases;
        for (const SwitchCase* c = s->getSwitchCaseList(); c; c = c->getNextSwitchCase()) cases.push_back(c);
        std::reverse(cases.begin(), cases.end());  // the list runs from the last case to the first
        // SWITCH(value, cases): CASE(constant, label) for each case and
        // DEFAULT(label), in a PCOMMA chain; without a default the switch
        // goes on with the jump past its end.
        int end = new_label();
        std::vector<T> entries;
        size_t count = 0;
        bool has_default = false;
        for (const SwitchCase* c : cases) {
            int l = new_label();
            case_labels_[c] = l;
            if (isa<DefaultStmt>(c)) {
                has_default = true;
                entries.push_back(node(O_DEFAULT, 0, label_node(l)));
                continue;
            }
            const auto* cs = cast<CaseStmt>(c);
            if (cs->getRHS()) unsupported(cs, "case ranges");
            std::optional<int64_t> v = constant(cs->getLHS());
            if (!v) unsupported(cs, "this case value");
            entries.push_back(node(O_CASE, 0, icon_of(ct, *v, at), label_node(l)));
            ++count;
        }
        if (entries.empty()) {
            emit(value(s->getCond()), at);  // only its effects
        } else {
            T list = std::move(entries.back());
            for (size_t k = entries.size() - 1; k-- > 0;) list = node(O_PCOMMA, 0, std::move(entries[k]), std::move(list));
            emit(node(O_SWITCH, type_id(ct, at), convert(value(s->getCond()), ct, at), std::move(list),
                      " n:" + std::to_string(count)),
                 at);
        }
        if (!has_default) jump(end, at);
        jumps_.push_back({end, 0});
        statement(s->getBody());
        jumps_.pop_back();
        label(end);
    }
};

}  // namespace

bool ifcc_translate(const IFCC_OPTIONS& options, std::string& text, std::string& diagnostics) {
    std::ifstream in(options.input, std::ios::binary);
    if (!in) {
        diagnostics = "ifcc: cannot open " + options.input + "\n";
        return false;
    }
    std::stringstream code;
    code << in.rdbuf();
    // Clang checks the program for a target whose int is 16 bits; ifcc's own
    // headers stand in for the C library.
    std::vector<std::string> args = {"-target", "msp430", "-std=gnu99", "-nostdinc", "-ffreestanding", "-fno-builtin",
                                     "-w", "-isystem", options.include_dir};
    args.insert(args.end(), options.clang_args.begin(), options.clang_args.end());
    std::string diag_text;
    llvm::raw_string_ostream diag_stream(diag_text);
    auto diag_options = llvm::makeIntrusiveRefCnt<DiagnosticOptions>();
    TextDiagnosticPrinter printer(diag_stream, diag_options.get());
    std::unique_ptr<ASTUnit> ast = tooling::buildASTFromCodeWithArgs(
        code.str(), args, options.input, "ifcc", std::make_shared<PCHContainerOperations>(),
        tooling::getClangStripDependencyFileAdjuster(), tooling::FileContentMappings(), &printer);
    diag_stream.flush();
    if (!ast || ast->getDiagnostics().hasErrorOccurred()) {
        diagnostics = diag_text;
        if (diagnostics.empty()) diagnostics = "ifcc: " + options.input + " could not be parsed\n";
        return false;
    }
    TRANSLATOR tr(ast->getASTContext());
    tr.main_file_ = options.input;
    try {
        text = tr.translate();
    } catch (FAILURE& f) {
        const SourceManager& sm = ast->getSourceManager();
        PresumedLoc p = sm.getPresumedLoc(sm.getExpansionLoc(f.at));
        if (p.isValid())
            diagnostics = std::string(p.getFilename()) + ":" + std::to_string(p.getLine()) + ":" + std::to_string(p.getColumn()) +
                          ": error: " + f.message + "\n";
        else
            diagnostics = options.input + ": error: " + f.message + "\n";
        return false;
    }
    return true;
}
