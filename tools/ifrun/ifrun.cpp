#include "tools/ifrun/ifrun.h"

#include <bit>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <deque>

#include "IFILE/if_file.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/opt_client.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"

namespace {

// Where things live: globals and string constants from GLOBAL_BASE, the
// frames of calls from STACK_BASE up; address 0 is no object.  Objects are
// kept one unit apart, so that running off the end of one is caught.
constexpr uint64_t GLOBAL_BASE = 0x100;
constexpr uint64_t STACK_BASE = 0x40000000;
constexpr uint64_t STACK_UNITS = uint64_t{1} << 22;
// Functions have addresses of their own, where no object lies: a pointer to
// a function can be called but not loaded from or stored through.
constexpr uint64_t FUNCTION_BASE = 0x30000000;
constexpr int MAX_CALL_DEPTH = 10000;
constexpr unsigned MAX_LANES = 16;

struct RUN_ERROR {
    std::string message;
};
[[noreturn]] void fail(const std::string& message) { throw RUN_ERROR{message}; }

struct STMT {
    const NODE* tree = nullptr;  // null: inline assembly, which cannot be run
    PSN pos;
};

// An object in memory: a global (its address) or a parameter or local (its
// offset from the start of the frame), and its size in units.
struct OBJECT {
    const SYMTAB* sym;
    uint64_t at, units;
    bool memory = false;  // a local a code generator keeps in memory: an aggregate, or its address taken
};

struct FUNC {
    SYMTAB* sym = nullptr;
    std::vector<SYMTAB*> params, locals;
    std::vector<STMT> stmts;
    std::map<int64_t, size_t> labels;   // label id -> index of the statement after it
    std::vector<OBJECT> frame;          // the parameters, then the locals
    ptr_map<const SYMTAB*, uint64_t> offset;  // parameter or local -> units from the frame's start
    uint64_t frame_units = 0;
    uint64_t operations = 0;  // counted while a run is in it
};

// Builds the unit's functions from the reader's records; the trees are the
// optimizer's own nodes.
class LOADER : public NODE_CLIENT {
public:
    std::deque<SYMTAB> symbols;
    std::deque<FUNC> funcs;
    FUNC* cur = nullptr;
    bool in_args = false;

    bool cl_magic(int, int) override { return true; }
    void cl_source(const char*) override {}
    I_SYMTAB* cl_symbol_create(char* name, TYPE* type, TYPE* type2, unsigned long size, unsigned long align,
                               unsigned long b, int c, int d, PSN* pos, unsigned long f, unsigned g,
                               I_SYMTAB::RETENTION_POLICY retention) override {
        SYMTAB& s = symbols.emplace_back();
        fill_symbol(s, name, type, type2, size, align, b, c, d, pos, f, g, retention);
        return &s;
    }
    void cl_symbol_def(I_SYMTAB* sym) override {
        if (cur && !sym->global) (in_args ? cur->params : cur->locals).push_back(static_cast<SYMTAB*>(sym));
    }
    void cl_pragma(I_SYMTAB*, PRAGMA*) override {}
    void cl_merge_type_defs() override {}
    void cl_preprocess_statics() override {}
    void cl_begin_func(I_SYMTAB* fn, PSN*) override {
        cur = &funcs.emplace_back();
        cur->sym = static_cast<SYMTAB*>(fn);
        in_args = true;
    }
    void cl_end_args(PSN*) override { in_args = false; }
    void cl_end_locals(PSN*) override {}
    void cl_begin_block(PSN*) override {}
    void cl_end_block(PSN*) override {}
    void cl_end_func(PSN*) override { cur = nullptr; }
    void cl_label(unsigned id) override {
        if (cur) cur->labels[id] = cur->stmts.size();
    }
    void cl_expr(BASE_NODE* tree, PSN* pos) override {
        if (cur) cur->stmts.push_back({static_cast<NODE*>(tree), pos ? *pos : PSN{}});
    }
    void cl_inline_asm(char*, PSN* pos) override {
        if (cur) cur->stmts.push_back({nullptr, pos ? *pos : PSN{}});
    }
    void cl_comment(char*) override {}
    void cl_func_info(int) override {}
    void cl_func_eht(EHT_ENTRY*, unsigned) override {}
};

uint64_t units_of_bits(uint64_t bits) { return (bits + 15) / 16; }

// The units an object takes: as its symbol or its type says, whichever is more.
uint64_t object_units(const SYMTAB* s) {
    TYPE* t = s->type ? s->type->stripped() : nullptr;
    return std::max<uint64_t>(1, units_of_bits(std::max<uint64_t>(s->size, t ? t->size : 0)));
}

// Integer view of a scalar type: its width and signedness.
struct SCALAR {
    unsigned bits = 16;
    bool is_signed = true;
};

SCALAR scalar_of(TYPE* type) {
    TYPE* t = type ? type->stripped() : nullptr;
    if (!t) fail("a value without a type");
    switch (t->kind) {
    case TYPE::INT_T:
    case TYPE::ENUM_T: return {static_cast<unsigned>(t->size), t->is_signed()};
    case TYPE::PTR_T: return {static_cast<unsigned>(t->size ? t->size : 32), false};
    case TYPE::ARRAY_T: return {32, false};  // an array's value is its address
    case TYPE::FLOAT_T: return {static_cast<unsigned>(t->size ? t->size : 64), false};  // the bits of the value
    default: fail("a value of this type cannot be computed (type kind " + std::to_string(t->kind) + ")");
    }
}

int64_t wrap(int64_t v, SCALAR s) {
    if (s.bits >= 64 || s.bits == 0) return v;
    uint64_t mask = (uint64_t{1} << s.bits) - 1;
    uint64_t u = static_cast<uint64_t>(v) & mask;
    if (s.is_signed && (u >> (s.bits - 1))) u |= ~mask;
    return static_cast<int64_t>(u);
}

uint64_t as_unsigned(int64_t v, SCALAR s) {
    return s.bits >= 64 ? static_cast<uint64_t>(v) : static_cast<uint64_t>(v) & ((uint64_t{1} << s.bits) - 1);
}

bool is_vector(TYPE* type) { return type && type->stripped()->kind == TYPE::VECTOR_T; }

// Floating values are held as the bits of their IEEE format: binary32 for a
// type of 32 bits, binary64 otherwise.  Arithmetic is done in double and
// rounded to the type, which gives the result of the type's own arithmetic.
bool is_float(TYPE* type) { return type && type->stripped()->kind == TYPE::FLOAT_T; }
bool is_single(TYPE* type) { return type->stripped()->size == 32; }

double fp_value(int64_t bits, TYPE* type) {
    return is_single(type) ? std::bit_cast<float>(static_cast<uint32_t>(bits)) : std::bit_cast<double>(bits);
}

int64_t fp_bits(double v, TYPE* type) {
    return is_single(type) ? std::bit_cast<uint32_t>(static_cast<float>(v)) : std::bit_cast<int64_t>(v);
}

int64_t fp_constant(const NODE* n) { return fp_bits(std::strtod(n->x().text.c_str(), nullptr), n->type); }

// A value of type `from` converted to type `to`: integers wrap, floating
// values round to the nearest, and a floating value becomes an integer by
// truncation, which must fit.
int64_t convert(int64_t v, TYPE* from, TYPE* to) {
    SCALAR ts = scalar_of(to);
    if (is_float(to)) {
        if (is_float(from)) return fp_bits(fp_value(v, from), to);
        SCALAR fs = scalar_of(from);
        if (is_single(to)) {
            float f = fs.is_signed ? static_cast<float>(v) : static_cast<float>(as_unsigned(v, fs));
            return fp_bits(f, to);
        }
        return fp_bits(fs.is_signed ? static_cast<double>(v) : static_cast<double>(as_unsigned(v, fs)), to);
    }
    if (is_float(from)) {
        double d = std::trunc(fp_value(v, from));
        double lo = ts.is_signed ? -std::ldexp(1.0, static_cast<int>(ts.bits) - 1) : 0.0;
        double hi = std::ldexp(1.0, static_cast<int>(ts.bits) - (ts.is_signed ? 1 : 0));
        if (!(d >= lo && d < hi)) fail("a floating value out of the range of a " + std::to_string(ts.bits) + "-bit integer");
        return wrap(ts.is_signed ? static_cast<int64_t>(d) : static_cast<int64_t>(static_cast<uint64_t>(d)), ts);
    }
    return wrap(v, ts);
}

class UNIT : public IFRUN_UNIT {
public:
    LOADER loader;
    std::unique_ptr<I_FILE> file;
    ptr_map<const SYMTAB*, FUNC*> func_of;
    ptr_map<const SYMTAB*, uint64_t> global_at;
    ptr_map<const SYMTAB*, uint64_t> function_at;
    std::vector<const SYMTAB*> functions;  // by address, from FUNCTION_BASE
    ptr_map<const NODE*, uint64_t> string_at;  // SCON node -> its characters
    std::vector<uint16_t> globals_mem;
    std::vector<uint8_t> globals_set;  // 0: no object, 1: unset, 2: set
    std::map<std::string, FUNC*> by_name;
    std::vector<OBJECT> objects;                // globals in symbol order
    std::vector<const NODE*> strings;           // SCON nodes, each with its place in string_at
    std::string program_name = "a.out";
    uint64_t argv_at = 0, program_name_at = 0;

    ~UNIT() override {
        for (FUNC& f : loader.funcs)
            for (STMT& st : f.stmts) erase_tree(const_cast<NODE*>(st.tree));
        for (SYMTAB& s : loader.symbols)
            if (s.x().has_init)
                for (BASE_NODE* b : s.x().init_trees) erase_tree(static_cast<NODE*>(b));
        recycle_erased_nodes();
    }

    IFRUN_RESULT run(const IFRUN_OPTIONS& options) override;

    // Lays out the globals and string constants and gives them their data.
    void lay_out(I_FILE* file) {
        uint64_t next = GLOBAL_BASE;
        for (I_SYMTAB* g : file->globals) {
            SYMTAB* s = static_cast<SYMTAB*>(g);
            TYPE* t = s->type ? s->type->stripped() : nullptr;
            if (t && t->kind == TYPE::FUNC_T) {
                function_at[s] = FUNCTION_BASE + functions.size();
                functions.push_back(s);
            }
            if (!t || t->kind == TYPE::FUNC_T) continue;
            uint64_t units = object_units(s);
            objects.push_back({s, next, units});
            global_at[s] = next;
            next += units + 1;
        }
        for (FUNC& f : loader.funcs)
            for (const STMT& st : f.stmts) next = place_strings(st.tree, next);
        for (const OBJECT& o : objects)
            if (o.sym->x().has_init)
                for (BASE_NODE* b : o.sym->x().init_trees) next = place_strings(static_cast<const NODE*>(b), next);
        // The arguments of main: argv[0] is the unit's name, argv[1] null.
        argv_at = next;
        next += 4 + 1;
        program_name_at = next;
        next += program_name.size() + 2;
        globals_mem.assign(next - GLOBAL_BASE, 0);
        globals_set.assign(next - GLOBAL_BASE, 0);
        for (const OBJECT& o : objects) {
            for (uint64_t u = 0; u < o.units; ++u) globals_set[o.at - GLOBAL_BASE + u] = 2;
            if (o.sym->x().has_init) initialize(o.at, o.units, o.sym->x().init_trees);
        }
        write_strings();
        for (uint64_t u = 0; u < 4; ++u) globals_set[argv_at - GLOBAL_BASE + u] = 2;
        globals_mem[argv_at - GLOBAL_BASE] = static_cast<uint16_t>(program_name_at);
        globals_mem[argv_at - GLOBAL_BASE + 1] = static_cast<uint16_t>(program_name_at >> 16);
        for (size_t i = 0; i <= program_name.size(); ++i) {
            globals_mem[program_name_at - GLOBAL_BASE + i] = i < program_name.size() ? static_cast<unsigned char>(program_name[i]) : 0;
            globals_set[program_name_at - GLOBAL_BASE + i] = 2;
        }
        for (auto& f : loader.funcs) {
            ptr_map<const SYMTAB*, bool> address_taken;
            for (const STMT& st : f.stmts) note_addresses(st.tree, address_taken);
            uint64_t off = 0;
            for (std::vector<SYMTAB*>* list : {&f.params, &f.locals})
                for (SYMTAB* s : *list) {
                    uint64_t units = object_units(s);
                    bool memory = address_taken.find(s) || (s->type && !s->type->stripped()->is_scalar());
                    f.frame.push_back({s, off, units, memory});
                    f.offset[s] = off;
                    off += units + 1;
                }
            f.frame_units = off;
            func_of[f.sym] = &f;
            by_name[f.sym->name] = &f;
        }
    }

    // The locals whose address the tree takes.
    static void note_addresses(const NODE* t, ptr_map<const SYMTAB*, bool>& taken) {
        std::vector<const NODE*> work{t};
        while (!work.empty()) {
            const NODE* n = work.back();
            work.pop_back();
            if (!n) continue;
            if (n->opcode == UAND && n->left && n->left->opcode == NAME && n->left->symbol) taken[n->left->symbol] = true;
            work.push_back(n->left);
            work.push_back(n->right);
        }
    }

    uint64_t place_strings(const NODE* t, uint64_t next) {
        std::vector<const NODE*> work{t};
        while (!work.empty()) {
            const NODE* n = work.back();
            work.pop_back();
            if (!n) continue;
            if (n->opcode == SCON && !string_at.find(n)) {
                string_at[n] = next;
                strings.push_back(n);
                next += n->x().text_length + 2;  // the characters, the terminating zero, the gap
            }
            work.push_back(n->left);
            work.push_back(n->right);
        }
        return next;
    }

    void write_strings() {
        for (const NODE* n : strings) {
            uint64_t at = *string_at.find(n) - GLOBAL_BASE;
            const std::string& s = n->x().text;
            for (size_t i = 0; i <= n->x().text_length; ++i) {
                globals_mem[at + i] = i < n->x().text_length && i < s.size() ? static_cast<unsigned char>(s[i]) : 0;
                globals_set[at + i] = 2;
            }
        }
    }

    // The value of a constant of an initializer: an integer, or an address
    // (of an object or a string) plus or minus a constant.
    int64_t initial_value(const NODE* n) {
        switch (n->opcode) {
        case ICON: case LCON: return wrap(static_cast<int64_t>(n->value.low_word()), scalar_of(n->type));
        case FCON: return fp_constant(n);
        case SCON: return static_cast<int64_t>(*string_at.find(n));
        case UAND:
            if (n->left && n->left->opcode == NAME) {
                if (const uint64_t* g = global_at.find(n->left->symbol)) return static_cast<int64_t>(*g);
                if (const uint64_t* f = function_at.find(n->left->symbol)) return static_cast<int64_t>(*f);
            }
            fail("an initializer takes the address of something that is not a global object or function");
        case NAME:
            if (const uint64_t* g = global_at.find(n->symbol); g && aggregate_type(n->type)) return static_cast<int64_t>(*g);
            fail("an initializer reads a variable");
        case PLUS: case MINUS: {
            uint64_t a = static_cast<uint64_t>(initial_value(n->left)), b = static_cast<uint64_t>(initial_value(n->right));
            return wrap(static_cast<int64_t>(n->opcode == PLUS ? a + b : a - b), scalar_of(n->type));
        }
        case PCONV: case SCONV: return convert(initial_value(n->left), n->left->type, n->type);
        default: fail(std::string("an initializer holds the operator ") + node_operator_name[n->opcode]);
        }
    }
    static bool aggregate_type(TYPE* t) {
        TYPE* s = t ? t->stripped() : nullptr;
        return s && (s->kind == TYPE::ARRAY_T || s->kind == TYPE::STRUCT_T || s->kind == TYPE::UNION_T);
    }

    // An initializer: its trees fill the object from its start, each
    // constant taking its type's units; SKIP leaves its count of units zero.
    void initialize(uint64_t at, uint64_t units, const std::vector<BASE_NODE*>& trees) {
        uint64_t off = 0;
        for (BASE_NODE* b : trees) {
            const NODE* n = static_cast<const NODE*>(b);
            if (n->opcode == ENDINIT) break;
            if (n->opcode == SKIP) {
                off += n->value.as<uint64_t>();
                continue;
            }
            SCALAR s = scalar_of(n->type);
            uint64_t u = units_of_bits(s.bits);
            if (off + u > units) fail("an initializer runs past its object");
            int64_t v = initial_value(n);
            for (uint64_t k = 0; k < u; ++k) globals_mem[at - GLOBAL_BASE + off + k] = static_cast<uint16_t>(v >> (16 * k));
            off += u;
        }
    }
};

// One run of a unit.
class MACHINE : public IFRUN_CONTEXT {
public:
    MACHINE(UNIT& unit, const IFRUN_OPTIONS& options, IFRUN_RESULT& result)
        : unit_(unit), options_(options), result_(result) {
        mem_ = unit.globals_mem;
        set_ = unit.globals_set;
    }

    int64_t load_unit(const std::string& name, uint64_t index) override {
        return load(global_named(name) + index, type_pkg->mk_int(TYPE::IK_INT, true));
    }
    void store_unit(const std::string& name, uint64_t index, int64_t value) override {
        store(global_named(name) + index, value, type_pkg->mk_int(TYPE::IK_INT, true));
    }
    void trace(const std::string& event) override { result_.trace += event; }

    std::vector<uint16_t> units_at(uint64_t address, uint64_t units) const {
        auto from = mem_.begin() + static_cast<long>(address - GLOBAL_BASE);
        return std::vector<uint16_t>(from, from + static_cast<long>(units));
    }

    int64_t call(FUNC& f, const std::vector<int64_t>& args) {
        if (static_cast<int>(frames_.size()) >= MAX_CALL_DEPTH)
            fail("calls nested deeper than " + std::to_string(MAX_CALL_DEPTH));
        uint64_t base = frames_.empty() ? STACK_BASE : frames_.back().base + frames_.back().func->frame_units + 1;
        if (base + f.frame_units >= STACK_BASE + STACK_UNITS) fail("the stack is full");
        uint64_t need = base + f.frame_units - STACK_BASE;
        result_.stack_units = std::max(result_.stack_units, need);
        if (stack_.size() < need) {
            stack_.resize(need, 0);
            stack_set_.resize(need, 0);
            stack_memory_.resize(need, 0);
        }
        std::fill(stack_set_.begin() + static_cast<long>(base - STACK_BASE), stack_set_.begin() + static_cast<long>(need), 0);
        std::fill(stack_memory_.begin() + static_cast<long>(base - STACK_BASE),
                  stack_memory_.begin() + static_cast<long>(need), 0);
        for (const OBJECT& o : f.frame) {
            std::fill_n(stack_set_.begin() + static_cast<long>(base + o.at - STACK_BASE), o.units, 1);
            if (o.memory) std::fill_n(stack_memory_.begin() + static_cast<long>(base + o.at - STACK_BASE), o.units, 1);
        }
        frames_.push_back({&f, base, 0});
        if (args.size() != f.params.size() && !(f.params.empty() && args.empty()))
            fail("'" + f.sym->name + "' takes " + std::to_string(f.params.size()) + " arguments, called with " +
                 std::to_string(args.size()));
        for (size_t i = 0; i < args.size(); ++i) {
            const OBJECT& p = f.frame[i];
            store(base + p.at, wrap(args[i], scalar_of(p.sym->type)), p.sym->type);
        }
        int64_t value = execute(f);
        frames_.pop_back();
        return value;
    }

    std::string where() const {
        if (frames_.empty()) return "";
        const FRAME& fr = frames_.back();
        std::string s = "in '" + fr.func->sym->name + "'";
        if (fr.pc < fr.func->stmts.size()) {
            const PSN& p = fr.func->stmts[fr.pc].pos;
            if (p.file) s += std::string(", ") + p.file;
            s += ", line " + std::to_string(p.line);
        }
        return s;
    }

private:
    struct FRAME {
        FUNC* func;
        uint64_t base;
        size_t pc;
    };
    UNIT& unit_;
    const IFRUN_OPTIONS& options_;
    IFRUN_RESULT& result_;
    std::vector<uint16_t> mem_, stack_;
    std::vector<uint8_t> set_, stack_set_;
    std::vector<uint8_t> stack_memory_;  // 1 where a frame holds a local kept in memory
    std::deque<FRAME> frames_;  // a frame stays put while calls made from it come and go

    void count(int opcode) {
        if (++result_.operations > options_.step_limit)
            fail("the step limit of " + std::to_string(options_.step_limit) + " operations is reached");
        ++per_opcode_[opcode];
        ++frames_.back().func->operations;
    }

public:
    uint64_t per_opcode_[NUM_OPCODES] = {};

private:
    // The cells of `units` units at `address`, checked.
    uint16_t* cells(uint64_t address, uint64_t units, bool write, std::vector<uint8_t>** state, uint64_t* index) {
        std::vector<uint16_t>* m = nullptr;
        if (address >= GLOBAL_BASE && address + units <= GLOBAL_BASE + mem_.size()) {
            m = &mem_;
            *state = &set_;
            *index = address - GLOBAL_BASE;
        } else if (address >= STACK_BASE && !frames_.empty() && address + units <= STACK_BASE + stack_.size()) {
            m = &stack_;
            *state = &stack_set_;
            *index = address - STACK_BASE;
        } else {
            fail(std::string(write ? "a store to" : "a load from") + (address == 0 ? " a null pointer" : " outside every object") +
                 " (address 0x" + hex(address) + ")");
        }
        if (m == &mem_ || stack_memory_[*index]) ++result_.memory_accesses;
        for (uint64_t u = 0; u < units; ++u) {
            uint8_t s = (**state)[*index + u];
            if (s == 0)
                fail(std::string(write ? "a store to" : "a load from") + " outside every object (address 0x" + hex(address) + ")");
            if (!write && s == 1) fail("a read of " + name_at(address) + " before anything was stored there");
        }
        return m->data() + *index;
    }

    // Units read lowest first as one number (of at most 64 bits).
    static uint64_t joined(const uint16_t* c, uint64_t units) {
        uint64_t v = 0;
        for (uint64_t k = 0; k < units && k < 4; ++k) v |= static_cast<uint64_t>(c[k]) << (16 * k);
        return v;
    }

    static std::string hex(uint64_t v) {
        char b[32];
        std::snprintf(b, sizeof b, "%" PRIx64, v);
        return b;
    }

    uint64_t global_named(const std::string& name) const {
        for (const OBJECT& o : unit_.objects)
            if (o.sym->name == name) return o.at;
        fail("the unit has no global '" + name + "'");
    }

    // "object+offset" for an address, as volatile accesses are traced: the
    // same before and after optimization, whatever the layout.
    std::string describe(uint64_t address) const {
        for (const OBJECT& o : unit_.objects)
            if (address >= o.at && address < o.at + o.units) return o.sym->name + "+" + std::to_string(address - o.at);
        for (auto fr = frames_.rbegin(); fr != frames_.rend(); ++fr)
            for (const OBJECT& o : fr->func->frame) {
                uint64_t at = fr->base + o.at;
                if (address >= at && address < at + o.units)
                    return fr->func->sym->name + "." + o.sym->name + "+" + std::to_string(address - at);
            }
        return "0x" + hex(address);
    }

    std::string name_at(uint64_t address) const {
        if (!frames_.empty()) {
            const FRAME& fr = frames_.back();
            for (const OBJECT& o : fr.func->frame)
                if (fr.base + o.at == address) return "'" + o.sym->name + "'";
        }
        return "address 0x" + hex(address);
    }

    int64_t load(uint64_t address, TYPE* type) {
        SCALAR s = scalar_of(type);
        uint64_t units = units_of_bits(s.bits), index;
        std::vector<uint8_t>* state;
        uint16_t* c = cells(address, units, false, &state, &index);
        uint64_t v = joined(c, units);
        if (options_.trace_volatile && (TYPE_qual_kind(type) & TYPE::Q_VOLATILE)) result_.trace += " R" + describe(address);
        return wrap(static_cast<int64_t>(v), s);
    }

    void store(uint64_t address, int64_t value, TYPE* type) {
        SCALAR s = scalar_of(type);
        uint64_t units = units_of_bits(s.bits), index;
        std::vector<uint8_t>* state;
        uint16_t* c = cells(address, units, true, &state, &index);
        for (uint64_t k = 0; k < units; ++k) {
            c[k] = k < 4 ? static_cast<uint16_t>(static_cast<uint64_t>(value) >> (16 * k)) : 0;
            (*state)[index + k] = 2;
        }
        if (options_.trace_volatile && (TYPE_qual_kind(type) & TYPE::Q_VOLATILE))
            result_.trace += " W" + describe(address) + "=" + std::to_string(wrap(value, s));
    }

    uint64_t address_of_symbol(const SYMTAB* s) {
        if (const uint64_t* g = unit_.global_at.find(s)) return *g;
        if (const uint64_t* f = unit_.function_at.find(s)) return *f;
        const FRAME& fr = frames_.back();
        if (const uint64_t* off = fr.func->offset.find(s)) return fr.base + *off;
        fail("'" + s->name + "' has no storage here");
    }

    // The address an lvalue names.
    uint64_t address_of(const NODE* n) {
        switch (n->opcode) {
        case NAME: return address_of_symbol(n->symbol);
        case UMULT: return static_cast<uint64_t>(eval(n->left));
        case STREF: case STDOT: {
            PLACE p = place_of(n);
            if (p.width) fail("the address of a bit-field");
            return p.at;
        }
        default: fail(std::string("an assignment to a ") + node_operator_name[n->opcode] + " node");
        }
    }

    // Where an lvalue is: the units at an address, or, for a bit-field,
    // `width` bits from bit `bit` of the units there (the lowest bit of the
    // first unit is bit 0).
    struct PLACE {
        uint64_t at = 0;
        unsigned bit = 0, width = 0;
    };

    // p->m (STREF) and s.m (STDOT): the member's record gives its offset in
    // bits and, for a bit-field, its width and the bit it starts at.
    PLACE place_of(const NODE* n) {
        if (n->opcode != STREF && n->opcode != STDOT) return {address_of(n)};
        const NODE* f = n->right;
        const TYPE_ELEM* m = f && f->opcode == FIELD ? f->x().fld_member : nullptr;
        if (!m || m->nums.empty()) fail("a member access without its member");
        uint64_t base = n->opcode == STREF ? static_cast<uint64_t>(eval(n->left)) : address_of(n->left);
        int64_t bits = m->nums.back();
        bool bit_field = m->nums.size() >= 4 && (m->nums[1] & 1);
        if (bit_field) {
            bits += m->nums[3];
            uint64_t width = static_cast<uint64_t>(m->nums[2]);
            if (width == 0 || width > 64) fail("a bit-field of " + std::to_string(width) + " bits");
            return {base + static_cast<uint64_t>(bits >> 4), static_cast<unsigned>(bits & 15), static_cast<unsigned>(width)};
        }
        if (bits & 15) fail("a member that does not start at a unit");
        return {base + static_cast<uint64_t>(bits >> 4)};
    }

    // The units a bit-field's bits lie in.
    static uint64_t field_units(const PLACE& p) {
        uint64_t units = (p.bit + p.width + 15) / 16;
        if (units > 4) fail("a bit-field across more than 64 bits");
        return units;
    }

    int64_t load_place(const PLACE& p, TYPE* type) {
        if (!p.width) return load(p.at, type);
        uint64_t units = field_units(p), index;
        std::vector<uint8_t>* state;
        uint16_t* c = cells(p.at, units, false, &state, &index);
        return wrap(static_cast<int64_t>(joined(c, units) >> p.bit), {p.width, scalar_of(type).is_signed});
    }

    // Stores v; returns the value the place holds then.
    int64_t store_place(const PLACE& p, int64_t v, TYPE* type) {
        if (!p.width) {
            store(p.at, v, type);
            return v;
        }
        uint64_t units = field_units(p), index;
        std::vector<uint8_t>* state;
        uint16_t* c = cells(p.at, units, true, &state, &index);
        uint64_t old = joined(c, units);
        uint64_t mask = (p.width >= 64 ? ~uint64_t{0} : (uint64_t{1} << p.width) - 1) << p.bit;
        uint64_t now = (old & ~mask) | ((static_cast<uint64_t>(v) << p.bit) & mask);
        for (uint64_t k = 0; k < units; ++k) {
            c[k] = static_cast<uint16_t>(now >> (16 * k));
            (*state)[index + k] = 2;
        }
        if (options_.trace_volatile && (TYPE_qual_kind(type) & TYPE::Q_VOLATILE))
            result_.trace += " W" + describe(p.at) + "=" + std::to_string(v);
        return wrap(v, {p.width, scalar_of(type).is_signed});
    }

    static bool aggregate(TYPE* t) {
        TYPE* s = t ? t->stripped() : nullptr;
        return s && (s->kind == TYPE::ARRAY_T || s->kind == TYPE::STRUCT_T || s->kind == TYPE::UNION_T);
    }

    int64_t divide(int op, int64_t a, int64_t b, TYPE* type) {
        SCALAR s = scalar_of(type);
        if (b == 0) fail("division by zero");
        if (!s.is_signed) {
            uint64_t ua = as_unsigned(a, s), ub = as_unsigned(b, s);
            return wrap(static_cast<int64_t>(op == DIV ? ua / ub : ua % ub), s);
        }
        if (b == -1) return wrap(op == DIV ? static_cast<int64_t>(0 - static_cast<uint64_t>(a)) : 0, s);
        return wrap(op == DIV ? a / b : a % b, s);
    }

    int64_t shift(int op, int64_t a, int64_t c, TYPE* operand_type, TYPE* type) {
        SCALAR s = scalar_of(operand_type);
        if (c < 0 || c >= static_cast<int64_t>(s.bits))
            fail("a shift by " + std::to_string(c) + " of a " + std::to_string(s.bits) + "-bit value");
        if (op == SLL) return wrap(static_cast<int64_t>(static_cast<uint64_t>(a) << c), scalar_of(type));
        if (!s.is_signed) return wrap(static_cast<int64_t>(as_unsigned(a, s) >> c), scalar_of(type));
        return wrap(a >> c, scalar_of(type));
    }

    int64_t fp_arith(int op, int64_t a, int64_t b, TYPE* type) {
        double x = fp_value(a, type), y = fp_value(b, type);
        switch (op) {
        case PLUS: return fp_bits(x + y, type);
        case MINUS: return fp_bits(x - y, type);
        case MULT: return fp_bits(x * y, type);
        case DIV: return fp_bits(x / y, type);
        default: fail(std::string("the operator ") + node_operator_name[op] + " on floating values");
        }
    }

    int64_t arith(int op, int64_t a, int64_t b, const NODE* n, TYPE* left_type) {
        if (is_float(n->type)) return fp_arith(op, a, b, n->type);
        SCALAR s = scalar_of(n->type);
        switch (op) {
        case PLUS: return wrap(static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b)), s);
        case MINUS: return wrap(static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b)), s);
        case MULT: return wrap(static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b)), s);
        case DIV:
        case MOD: return divide(op, a, b, n->type);
        case ANDB: return wrap(a & b, s);
        case ORB: return wrap(a | b, s);
        case XORB: return wrap(a ^ b, s);
        case SLL:
        case SRL: return shift(op, a, b, left_type, n->type);
        default: fail(std::string("operator ") + node_operator_name[op]);
        }
    }

    static int base_op(int op) {
        switch (op) {
        case PLUSASG: case PLUSPLUS: return PLUS;
        case MINUSASG: case MINMIN: return MINUS;
        case MULTASG: return MULT;
        case DIVASG: return DIV;
        case MODASG: return MOD;
        case ANDBASG: return ANDB;
        case ORBASG: return ORB;
        case XORBASG: return XORB;
        case SLLASG: return SLL;
        case SRLASG: return SRL;
        default: return NOP;
        }
    }

    // The floating comparisons: the plain ones are false when either side is
    // a NaN, the N forms true.
    static bool fp_compare(int op, double x, double y) {
        bool unordered = std::isnan(x) || std::isnan(y);
        switch (op) {
        case EQ: case FEQ: return !unordered && x == y;
        case FNEQ: return !unordered && x != y;
        case LE: case ULE: case FLE: return !unordered && x <= y;
        case LT: case ULT: case FLT: return !unordered && x < y;
        case GE: case UGE: case FGE: return !unordered && x >= y;
        case GT: case UGT: case FGT: return !unordered && x > y;
        case FEQN: return unordered || x == y;
        case NEQ: case FNEQN: return unordered || x != y;
        case FLEN: return unordered || x <= y;
        case FLTN: return unordered || x < y;
        case FGEN: return unordered || x >= y;
        case FGTN: return unordered || x > y;
        case FORD: return !unordered;
        default: return unordered;  // FUNO
        }
    }

    bool compare(int op, int64_t a, int64_t b, TYPE* operand_type) {
        if (is_float(operand_type)) return fp_compare(op, fp_value(a, operand_type), fp_value(b, operand_type));
        if (op >= FEQ) fail(std::string("the floating comparison ") + node_operator_name[op] + " of integers");
        SCALAR s = scalar_of(operand_type);
        if (op >= ULE || !s.is_signed) {
            uint64_t ua = as_unsigned(a, s), ub = as_unsigned(b, s);
            switch (op) {
            case EQ: return ua == ub;
            case NEQ: return ua != ub;
            case LE: case ULE: return ua <= ub;
            case LT: case ULT: return ua < ub;
            case GE: case UGE: return ua >= ub;
            default: return ua > ub;
            }
        }
        switch (op) {
        case EQ: return a == b;
        case NEQ: return a != b;
        case LE: return a <= b;
        case LT: return a < b;
        case GE: return a >= b;
        default: return a > b;
        }
    }

    // Vectors: lane by lane over elements laid out one after another.
    unsigned lanes_of(TYPE* t) {
        TYPE* v = t->stripped();
        if (v->count == 0 || v->count > MAX_LANES) fail("a vector of " + std::to_string(v->count) + " lanes");
        return static_cast<unsigned>(v->count);
    }
    void eval_vector(const NODE* n, int64_t* out) {
        count(n->opcode);
        TYPE* elem = n->type->stripped()->base;
        unsigned lanes = lanes_of(n->type);
        switch (n->opcode) {
        case UMULT: {
            uint64_t at = static_cast<uint64_t>(eval(n->left));
            uint64_t step = units_of_bits(scalar_of(elem).bits);
            for (unsigned l = 0; l < lanes; ++l) out[l] = load(at + l * step, elem);
            return;
        }
        case PLUS: case MINUS: case MULT: case ANDB: case ORB: case XORB: {
            int64_t a[MAX_LANES], b[MAX_LANES];
            eval_vector(n->left, a);
            eval_vector(n->right, b);
            SCALAR s = scalar_of(elem);
            for (unsigned l = 0; l < lanes; ++l) {
                uint64_t x = static_cast<uint64_t>(a[l]), y = static_cast<uint64_t>(b[l]);
                uint64_t r = n->opcode == PLUS ? x + y : n->opcode == MINUS ? x - y : n->opcode == MULT ? x * y
                           : n->opcode == ANDB ? (x & y) : n->opcode == ORB ? (x | y) : (x ^ y);
                out[l] = wrap(static_cast<int64_t>(r), s);
            }
            return;
        }
        default: fail(std::string("the vector operator ") + node_operator_name[n->opcode]);
        }
    }

    std::vector<int64_t> arguments(const NODE* call, std::vector<TYPE*>* types) {
        std::vector<const NODE*> list;
        if (call->opcode == CALL) {
            uint64_t n = call->value.as<uint64_t>();
            const NODE* a = call->right;
            for (uint64_t k = 1; k < n && a && a->opcode == PCOMMA; ++k) {
                list.push_back(a->left);
                a = a->right;
            }
            if (a) list.push_back(a);
        }
        std::vector<int64_t> values;
        for (const NODE* a : list) {
            values.push_back(aggregate(a->type) ? static_cast<int64_t>(address_of(a)) : eval(a));
            if (types) types->push_back(a->type);
        }
        return values;
    }

    int64_t call_node(const NODE* n) {
        const NODE* f = n->left;
        const SYMTAB* callee = f && f->opcode == NAME ? f->symbol : nullptr;
        if (f && f->opcode == UAND && f->left && f->left->opcode == NAME) callee = f->left->symbol;
        if (!callee && f) {
            // Through a pointer: *p, or p itself.
            uint64_t at = static_cast<uint64_t>(f->opcode == UMULT ? eval(f->left) : eval(f));
            if (at < FUNCTION_BASE || at - FUNCTION_BASE >= unit_.functions.size())
                fail("a call through a pointer that points at no function (address 0x" + hex(at) + ")");
            callee = unit_.functions[at - FUNCTION_BASE];
        }
        if (!callee) fail("a call without a function");
        std::vector<TYPE*> types;
        std::vector<int64_t> args = arguments(n, &types);
        if (FUNC* const* def = unit_.func_of.find(callee)) {
            TYPE* ft = callee->type ? callee->type->stripped() : nullptr;
            int64_t r = call(**def, args);
            TYPE* rt = ft && ft->base ? ft->base->stripped() : nullptr;
            return rt && rt->kind != TYPE::VOID_T ? wrap(r, scalar_of(rt)) : 0;
        }
        return builtin(callee->name, args, types);
    }

    std::string read_string(uint64_t address) {
        std::string s;
        for (;;) {
            int64_t c = load(address++, char_type());
            if (c == 0) return s;
            s += static_cast<char>(c);
        }
    }
    TYPE* char_type() { return type_pkg->mk_int(TYPE::IK_CHAR, true); }

    int64_t builtin(const std::string& name, const std::vector<int64_t>& args, const std::vector<TYPE*>& types) {
        auto external = options_.externals.find(name);
        if (external != options_.externals.end()) return external->second(*this, args);
        if (name == "putchar" && args.size() == 1) {
            result_.output += static_cast<char>(args[0]);
            return args[0];
        }
        if (name == "printf" && !args.empty()) {
            std::string fmt = read_string(static_cast<uint64_t>(args[0])), out;
            size_t next = 1;
            for (size_t i = 0; i < fmt.size(); ++i) {
                if (fmt[i] != '%') {
                    out += fmt[i];
                    continue;
                }
                size_t j = i + 1;
                while (j < fmt.size() && std::string("-+ #0123456789.").find(fmt[j]) != std::string::npos) ++j;
                while (j < fmt.size() && (fmt[j] == 'l' || fmt[j] == 'h')) ++j;
                if (j >= fmt.size()) fail("printf: a conversion is cut short");
                char conv = fmt[j];
                std::string flags = fmt.substr(i, j - i);
                while (!flags.empty() && (flags.back() == 'l' || flags.back() == 'h')) flags.pop_back();
                i = j;
                if (conv == '%') {
                    out += '%';
                    continue;
                }
                if (next >= args.size()) fail("printf: fewer arguments than conversions");
                int64_t v = args[next];
                SCALAR s = scalar_of(types[next]);
                ++next;
                char buf[128];
                switch (conv) {
                case 'd': case 'i': std::snprintf(buf, sizeof buf, (flags + "lld").c_str(), static_cast<long long>(v)); break;
                case 'u': case 'x': case 'X': case 'o':
                    std::snprintf(buf, sizeof buf, (flags + "ll" + conv).c_str(), static_cast<unsigned long long>(as_unsigned(v, s)));
                    break;
                case 'c': std::snprintf(buf, sizeof buf, (flags + "c").c_str(), static_cast<int>(v)); break;
                case 's': {
                    std::string text = read_string(static_cast<uint64_t>(v)), f = flags + "s";
                    int len = std::snprintf(nullptr, 0, f.c_str(), text.c_str());
                    std::string formatted(static_cast<size_t>(std::max(len, 0)) + 1, '\0');
                    std::snprintf(formatted.data(), formatted.size(), f.c_str(), text.c_str());
                    formatted.pop_back();
                    out += formatted;
                    continue;
                }
                case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A':
                    if (!is_float(types[next - 1])) fail(std::string("printf: %") + conv + " of an integer");
                    std::snprintf(buf, sizeof buf, (flags + conv).c_str(), fp_value(v, types[next - 1]));
                    break;
                default: fail(std::string("printf: the conversion %") + conv);
                }
                out += buf;
            }
            result_.output += out;
            return static_cast<int64_t>(out.size());
        }
        fail("a call of '" + name + "', which the unit does not define");
    }

public:
    int64_t eval(const NODE* n) {
        if (is_vector(n->type) && n->opcode != ASG) fail("a vector value where a scalar is wanted");
        count(n->opcode);
        switch (n->opcode) {
        case ICON: case LCON: return wrap(static_cast<int64_t>(n->value.low_word()), scalar_of(n->type));
        case FCON: return fp_constant(n);
        case SCON: return static_cast<int64_t>(*unit_.string_at.find(n));
        case NAME:
            if (aggregate(n->type) || is_function(n->type)) return static_cast<int64_t>(address_of_symbol(n->symbol));
            return load(address_of_symbol(n->symbol), n->type);
        case UAND: return static_cast<int64_t>(address_of(n->left));
        case STREF: case STDOT:
            if (aggregate(n->type)) return static_cast<int64_t>(address_of(n));
            return load_place(place_of(n), n->type);
        case UMULT: return aggregate(n->type) ? eval(n->left) : load(static_cast<uint64_t>(eval(n->left)), n->type);
        case SCONV: case PCONV: return convert(eval(n->left), n->left->type, n->type);
        case PLUS: case MINUS: case MULT: case DIV: case MOD: case ANDB: case ORB: case XORB: case SLL: case SRL: {
            int64_t a = eval(n->left);
            int64_t b = eval(n->right);
            return arith(n->opcode, a, b, n, n->left->type);
        }
        case UMINUS:
            if (is_float(n->type)) return fp_bits(-fp_value(eval(n->left), n->type), n->type);
            return wrap(static_cast<int64_t>(0 - static_cast<uint64_t>(eval(n->left))), scalar_of(n->type));
        case ABS: {
            int64_t v = eval(n->left);
            if (is_float(n->type)) return fp_bits(std::fabs(fp_value(v, n->type)), n->type);
            return wrap(v < 0 ? static_cast<int64_t>(0 - static_cast<uint64_t>(v)) : v, scalar_of(n->type));
        }
        case SQRT:
            if (!is_float(n->type)) fail("SQRT of an integer");
            return fp_bits(std::sqrt(fp_value(eval(n->left), n->type)), n->type);
        case NOTB: return wrap(~eval(n->left), scalar_of(n->type));
        case EXCLAIM: return !truth(n->left);
        case EQ: case NEQ: case LE: case LT: case GE: case GT: case ULE: case ULT: case UGE: case UGT:
        case FEQ: case FNEQ: case FLE: case FLT: case FGE: case FGT: case FEQN: case FNEQN: case FLEN: case FLTN:
        case FGEN: case FGTN: case FORD: case FUNO: {
            int64_t a = eval(n->left);
            int64_t b = eval(n->right);
            return compare(n->opcode, a, b, n->left->type);
        }
        case ANDAND: return truth(n->left) && truth(n->right);
        case OROR: return truth(n->left) || truth(n->right);
        case QUEST:
            if (!n->right || n->right->opcode != COLON) fail("'?' without ':'");
            return truth(n->left) ? eval(n->right->left) : eval(n->right->right);
        case COMMA: eval(n->left); return eval(n->right);
        case CALL: case UCALL: return call_node(n);
        case ASG:  // the place first, then the value
            if (is_vector(n->left->type)) {
                uint64_t at = address_of(n->left);
                int64_t lanes[MAX_LANES];
                eval_vector(n->right, lanes);
                TYPE* elem = n->left->type->stripped()->base;
                uint64_t step = units_of_bits(scalar_of(elem).bits);
                for (unsigned l = 0; l < lanes_of(n->left->type); ++l) store(at + l * step, lanes[l], elem);
                return 0;
            } else {
                PLACE at = place_of(n->left);
                int64_t v = convert(eval(n->right), n->right->type, n->left->type);
                return store_place(at, v, n->left->type);
            }
        case PLUSASG: case MINUSASG: case MULTASG: case DIVASG: case MODASG: case ANDBASG: case ORBASG: case XORBASG:
        case SLLASG: case SRLASG: case PLUSPLUS: case MINMIN: {
            PLACE at = place_of(n->left);
            int64_t old = load_place(at, n->left->type);
            int64_t b = eval(n->right);
            if (is_float(n->left->type)) b = convert(b, n->right->type, n->left->type);
            int64_t v = arith(base_op(n->opcode), old, b, n->left, n->left->type);
            v = store_place(at, wrap(v, scalar_of(n->left->type)), n->left->type);
            return n->opcode == PLUSPLUS || n->opcode == MINMIN ? old : v;  // ++ and -- give the value before
        }
        default: fail(std::string("the operator ") + node_operator_name[n->opcode] + " (not supported yet)");
        }
    }

    // Whether a value is nonzero (a floating zero of either sign is zero).
    bool truth(const NODE* n) {
        int64_t v = eval(n);
        return is_float(n->type) ? fp_value(v, n->type) != 0.0 : v != 0;
    }
    static bool is_function(TYPE* t) { return t && t->stripped()->kind == TYPE::FUNC_T; }

private:
    int64_t execute(FUNC& f) {
        FRAME& fr = frames_.back();
        size_t& pc = fr.pc;
        auto jump = [&](const NODE* label) {
            auto it = label ? f.labels.find(label->value.as<int64_t>()) : f.labels.end();
            if (it == f.labels.end()) fail("a jump to a label the function does not have");
            pc = it->second;
        };
        for (pc = 0; pc < f.stmts.size();) {
            const STMT& st = f.stmts[pc];
            const NODE* t = st.tree;
            if (!t) fail("inline assembly cannot be run");
            switch (t->opcode) {
            case LABELDEF: ++pc; continue;
            case BRANCH:
                count(t->opcode);
                jump(t->left);
                continue;
            case CBRANCH:
                count(t->opcode);
                if (truth(t->left)) jump(t->right);
                else ++pc;
                continue;
            case SWITCH: {
                // SWITCH(value, cases): the cases are CASE(constant, label)
                // and DEFAULT(label) nodes, one or a PCOMMA chain of them.
                // With no case equal and no default, the next statement.
                count(t->opcode);
                int64_t v = eval(t->left);
                const NODE* fallback = nullptr;
                const NODE* target = nullptr;
                std::vector<const NODE*> work{t->right};
                while (!work.empty() && !target) {
                    const NODE* c = work.back();
                    work.pop_back();
                    if (!c) continue;
                    if (c->opcode == PCOMMA) {
                        work.push_back(c->right);
                        work.push_back(c->left);
                    } else if (c->opcode == CASE) {
                        if (compare(EQ, v, convert(eval(c->left), c->left->type, t->left->type), t->left->type)) target = c->right;
                    } else if (c->opcode == DEFAULT) {
                        fallback = c->left;
                    } else {
                        fail(std::string("a ") + node_operator_name[c->opcode] + " node among the cases of a SWITCH");
                    }
                }
                if (!target) target = fallback;
                if (target) jump(target);
                else ++pc;
                continue;
            }
            case URETURN: {
                count(t->opcode);
                int64_t v = aggregate(t->left->type) ? static_cast<int64_t>(address_of(t->left)) : eval(t->left);
                return v;
            }
            default:
                eval(t);
                ++pc;
                continue;
            }
        }
        return 0;  // fell off the end
    }
};

IFRUN_RESULT UNIT::run(const IFRUN_OPTIONS& options) {
    IFRUN_RESULT result;
    auto at = by_name.find(options.entry);
    if (at == by_name.end()) {
        result.error = "the unit defines no function '" + options.entry + "'";
        return result;
    }
    MACHINE m(*this, options, result);
    for (FUNC& f : loader.funcs) f.operations = 0;
    std::vector<int64_t> args = options.args;
    // main(argc, argv) run without arguments gets argc 1 and argv {name, 0}.
    if (args.empty() && at->second->params.size() == 2 && options.entry == "main")
        args = {1, static_cast<int64_t>(argv_at)};
    try {
        result.value = m.call(*at->second, args);
        result.ok = true;
    } catch (RUN_ERROR& e) {
        std::string where = m.where();
        result.error = (where.empty() ? "" : where + ": ") + e.message;
    }
    for (const OBJECT& o : objects) result.globals.push_back({o.sym->name, m.units_at(o.at, o.units)});
    for (int op = 0; op < NUM_OPCODES; ++op)
        if (m.per_opcode_[op]) result.per_opcode[node_operator_name[op]] += m.per_opcode_[op];
    for (FUNC& f : loader.funcs)
        if (f.operations) result.per_function[f.sym->name] = f.operations;
    return result;
}

}  // namespace

std::unique_ptr<IFRUN_UNIT> IFRUN_UNIT::load(const std::string& path, std::string& error) {
    init_opcode_tables();
    if (!type_pkg) init_types();
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        error = "cannot open " + path;
        return nullptr;
    }
    auto unit = std::make_unique<UNIT>();
    unit->file.reset(I_FILE::if_open(f, &unit->loader));
    if (!unit->file) {
        std::fclose(f);
        error = path + " is not an I-file of this tool chain";
        return nullptr;
    }
    unit->file->if_read_file();
    try {
        unit->lay_out(unit->file.get());
    } catch (RUN_ERROR& e) {
        error = e.message;
        return nullptr;
    }
    return unit;
}
