// Small functions for the optimization tests, written as prefix expressions
// and turned into I-file text; and an interpreter for the text of a
// function, so that a test can check that optimizing kept its meaning.
//
//   MiniFunction f{"f", {"a", "b"}, {"x", "u:y"}};   // args, locals
//   f.body = {"(= x (+ a 5))", "L3:", "(if (< x b) 3)", "(goto 4)", "(ret x)"};
//
// Declarations carry their type as a prefix: none int, "u:" unsigned int,
// "l:" long, "ul:" unsigned long (32 bits), "x:" and "ux:" the 40-bit signed
// and unsigned integers, "p:" int*, "v:" volatile int, "c:" const int.
// Globals are arrays of 100 elements: int, "u:" unsigned int, "v:" volatile
// int.  Atoms: decimal integers (int; a "u" suffix makes them unsigned,
// "#l", "#ul", "#x" and "#ux" the other types), the names of arguments,
// locals and globals.  Operators: = + - * / % & | ^ << >> neg ~ ! == != < <=
// > >= u< u<= u> u>= && || ?: , and the compound assignments += -= *= /= %=
// &= |= ^= <<= >>=; conv-int conv-u conv-long conv-ulong conv-x conv-ux;
// deref (*p), addr (&g, &local), (call ext e) (the external function
// "ext", see Program::call_ext), (call f e...) (a function of the unit, any
// number of arguments; the interpreter below knows only ext); statements (if c L) (goto L) (ret e) and
// labels "L<n>:".
#pragma once

#include <cstdint>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace minic {

// Type ids of the generated units.
enum TypeId {
    T_INT = 1, T_UINT = 2, T_LONG = 3, T_FUNC = 4, T_PINT = 5, T_AINT = 6, T_ULONG = 7, T_X40 = 8, T_UX40 = 9,
    T_VINT = 10, T_CINT = 11, T_PUINT = 12, T_AUINT = 13, T_PVINT = 14, T_AVINT = 15
};

inline const char* type_records() {
    return "type n:1 b:8 b:1 n:16 n:16 b:0 b:0\n"
           "type n:2 b:9 b:0 n:16 n:16 b:0 b:0\n"
           "type n:3 b:10 b:1 n:32 n:32 b:0 b:0\n"
           "type n:4 b:22 n:1 b:1 b:0 b:0 b:0\n"
           "type n:5 b:17 n:1 n:32 n:32\n"
           "type n:6 b:20 n:1 n:100 n:0 n:1600 n:16\n"
           "type n:7 b:11 b:0 n:32 n:32 b:0 b:0\n"
           "type n:8 b:52 b:1 n:40 n:40 b:0 b:0\n"
           "type n:9 b:53 b:0 n:40 n:40 b:0 b:0\n"
           "type n:10 b:19 n:1 n:2 n:16 n:16\n"
           "type n:11 b:19 n:1 n:1 n:16 n:16\n"
           "type n:12 b:17 n:2 n:32 n:32\n"
           "type n:13 b:20 n:2 n:100 n:0 n:1600 n:16\n"
           "type n:14 b:17 n:10 n:32 n:32\n"
           "type n:15 b:20 n:10 n:100 n:0 n:1600 n:16\n";
}

// The type of a declaration's prefix, and the name after it.
inline int type_of_decl(const std::string& d) {
    static const std::map<std::string, int> prefixes = {{"u", T_UINT}, {"l", T_LONG},  {"ul", T_ULONG}, {"x", T_X40},
                                                        {"ux", T_UX40}, {"p", T_PINT}, {"v", T_VINT},   {"c", T_CINT}};
    size_t colon = d.find(':');
    if (colon == std::string::npos) return T_INT;
    auto it = prefixes.find(d.substr(0, colon));
    if (it == prefixes.end()) throw std::runtime_error("unknown declaration " + d);
    return it->second;
}
inline std::string name_of_decl(const std::string& d) {
    size_t colon = d.find(':');
    return colon == std::string::npos ? d : d.substr(colon + 1);
}
inline int global_type(const std::string& d) {
    int t = type_of_decl(d);
    return t == T_UINT ? T_AUINT : t == T_VINT ? T_AVINT : T_AINT;
}
inline int type_bits(int t) { return t == T_LONG || t == T_ULONG || t == T_PINT || t == T_PUINT || t == T_PVINT ? 32 : t == T_X40 || t == T_UX40 ? 40 : 16; }
inline int pointer_to(int t) {
    switch (t) {
    case T_AINT: case T_INT: return T_PINT;
    case T_AUINT: case T_UINT: return T_PUINT;
    case T_AVINT: case T_VINT: return T_PVINT;
    default: throw std::runtime_error("no pointer type to " + std::to_string(t));
    }
}
inline int pointee(int t) { return t == T_PUINT ? T_UINT : t == T_PVINT ? T_VINT : T_INT; }

struct MiniFunction {
    std::string name;
    std::vector<std::string> args, locals;
    std::vector<std::string> body;
    std::vector<std::string> globals;
    std::vector<std::string> externs;  // functions called but not defined here

    std::string text() const;
};

inline std::vector<std::string> tokenize(const std::string& s) {
    std::vector<std::string> out;
    std::string cur;
    for (char c : s) {
        if (c == '(' || c == ')' || c == ' ') {
            if (!cur.empty()) out.push_back(cur);
            cur.clear();
            if (c != ' ') out.push_back(std::string(1, c));
        } else {
            cur += c;
        }
    }
    if (!cur.empty()) out.push_back(cur);
    return out;
}

struct Emitter {
    std::map<std::string, std::pair<int, int>> syms;  // name -> index, type
    std::map<std::string, std::pair<int, int>> globals;  // name -> global index, array type
    std::map<std::string, int> functions;                 // name -> global index
    std::vector<std::string> toks;
    size_t at = 0;
    std::string out;

    std::string constant(const std::string& t, int& type) {
        std::string digits = t;
        type = T_INT;
        size_t hash = t.find('#');
        if (hash != std::string::npos) {
            digits = t.substr(0, hash);
            type = type_of_decl(t.substr(hash + 1) + ":");
        } else if (t.back() == 'u') {
            digits = t.substr(0, t.size() - 1);
            type = T_UINT;
        }
        long long v = std::stoll(digits);
        std::string ty = std::to_string(type);
        if (v >= INT32_MIN && v <= INT32_MAX && (type == T_INT || type == T_LONG || type == T_X40))
            return "node b:4 n:" + ty + " i:" + digits + "\n";
        if (v >= 0 && v <= UINT32_MAX && (type == T_UINT || type == T_ULONG || type == T_UX40))
            return "node b:4 n:" + ty + " n:" + digits + "\n";
        return "node b:25 n:" + ty + " S:\"" + digits + "\"\n";
    }

    // Emits one expression and returns its type.
    int expr() {
        std::string t = toks.at(at++);
        if (t != "(") {
            if (isdigit(static_cast<unsigned char>(t[0])) || t[0] == '-') {
                int type;
                out += constant(t, type);
                return type;
            }
            auto g = globals.find(t);
            if (g != globals.end()) {
                out += "node b:2 n:" + std::to_string(g->second.second) + " R:0:" + std::to_string(g->second.first) + "\n";
                return g->second.second;
            }
            auto it = syms.find(t);
            if (it == syms.end()) throw std::runtime_error("unknown name " + t);
            out += "node b:2 n:" + std::to_string(it->second.second) + " R:1:" + std::to_string(it->second.first) + "\n";
            return it->second.second;
        }
        std::string op = toks.at(at++);
        static const std::map<std::string, int> binary = {
            {"=", 58},  {"+", 6},   {"-", 8},   {"*", 11},  {"/", 60},  {"%", 62},   {"&", 14},   {"|", 17},
            {"^", 19},  {"<<", 64}, {">>", 66}, {",", 56},  {"+=", 7},  {"-=", 9},   {"*=", 12},  {"/=", 61},
            {"%=", 63}, {"&=", 15}, {"|=", 18}, {"^=", 20}, {"<<=", 65}, {">>=", 67}};
        static const std::map<std::string, int> compare = {
            {"==", 80}, {"!=", 81}, {"<=", 82}, {"<", 83},  {">=", 84},  {">", 85},
            {"u<=", 86}, {"u<", 87}, {"u>=", 88}, {"u>", 89}, {"&&", 23}, {"||", 24}};
        static const std::map<std::string, int> conversions = {{"conv-int", T_INT}, {"conv-u", T_UINT},
                                                               {"conv-long", T_LONG}, {"conv-ulong", T_ULONG},
                                                               {"conv-x", T_X40}, {"conv-ux", T_UX40}};
        std::string head;
        size_t slot = out.size();
        int type = T_INT;
        if (binary.count(op)) {
            int lt = expr();
            int rt = expr();
            type = op == "," ? rt : lt == T_CINT || lt == T_VINT ? T_INT : lt;
            if (op.back() == '=') type = lt;  // an assignment
            head = "node b:" + std::to_string(binary.at(op)) + " n:" + std::to_string(type) + "\n";
        } else if (compare.count(op)) {
            expr();
            expr();
            head = "node b:" + std::to_string(compare.at(op)) + " n:1\n";
        } else if (op == "neg" || op == "~" || op == "!") {
            type = expr();
            if (type == T_CINT || type == T_VINT || op == "!") type = T_INT;
            int code = op == "neg" ? 10 : op == "~" ? 77 : 76;
            head = "node b:" + std::to_string(code) + " n:" + std::to_string(type) + "\n";
        } else if (op == "deref") {
            type = pointee(expr());
            head = "node b:13 n:" + std::to_string(type) + "\n";
        } else if (op == "addr") {
            type = pointer_to(expr());
            head = "node b:16 n:" + std::to_string(type) + "\n";
        } else if (conversions.count(op)) {
            expr();
            type = conversions.at(op);
            head = "node b:104 n:" + std::to_string(type) + "\n";
        } else if (op == "call") {
            std::string callee = toks.at(at++);
            auto fn = callee == "ext" ? functions.end() : functions.find(callee);
            if (callee != "ext" && fn == functions.end()) throw std::runtime_error("unknown function " + callee);
            out += "node b:2 n:4 R:0:" + std::to_string(callee == "ext" ? 0 : fn->second) + "\n";
            // Arguments: one hangs from the call itself, more from a chain of
            // PCOMMA nodes, the first argument on the left.
            int n = 0;
            for (; toks.at(at) != ")"; ++n) {
                size_t arg = out.size();
                expr();
                if (toks.at(at) != ")") out.insert(arg, "node b:57 n:1\n");
            }
            head = n == 0 ? "node b:72 n:1 n:0\n" : "node b:70 n:1 n:" + std::to_string(n) + " n:0\n";
        } else if (op == "?:") {
            expr();
            size_t colon = out.size();
            type = expr();
            expr();
            out.insert(colon, "node b:22 n:" + std::to_string(type) + "\n");
            head = "node b:21 n:" + std::to_string(type) + "\n";
        } else if (op == "if") {
            expr();
            out += "node b:1 n:0 n:" + toks.at(at++) + "\n";
            head = "node b:109 n:1\n";
        } else if (op == "goto") {
            out += "node b:1 n:0 n:" + toks.at(at++) + "\n";
            head = "node b:114 n:0\n";
        } else if (op == "ret") {
            type = expr();
            head = "node b:118 n:" + std::to_string(type) + "\n";
        } else {
            throw std::runtime_error("unknown operator " + op);
        }
        out.insert(slot, head);
        if (toks.at(at++) != ")") throw std::runtime_error("missing )");
        return type;
    }
};

inline std::string symbol_record(const std::string& name, int type) {
    std::string size = std::to_string(type_bits(type));
    return "symbol S:\"" + name + "\" n:" + size + " n:0 c:0 w:0 n:" + std::to_string(type) + " n:0 n:" + size +
           " c:0 n:0 n:0 P:0 b:0\n";
}

// What element i of the array that is global symbol `index` holds at first.
inline long long initial_word(long long index, long long i) { return (index * 37 + i * 11) % 200 - 100; }

// A unit of several functions (the arrays and externs of the first are the
// unit's).  The global symbols: "ext" first (index 0), then the functions,
// the arrays, and the external functions.
inline std::string unit_text(const std::vector<MiniFunction>& fns) {
    const std::vector<std::string>& globals = fns.front().globals;
    int first_array = static_cast<int>(fns.size()) + 1;
    std::string s = ".header version=-71 cpu=0x258 source=\"t.c\" extra=0\n.section main\n";
    int line = 2;
    for (size_t fi = 0; fi < fns.size(); ++fi) {
        const MiniFunction& f = fns[fi];
        Emitter e;
        int index = 0;
        for (const std::string& d : f.args) e.syms[name_of_decl(d)] = {index++, type_of_decl(d)};
        for (const std::string& d : f.locals) e.syms[name_of_decl(d)] = {index++, type_of_decl(d)};
        for (size_t g = 0; g < globals.size(); ++g)
            e.globals[name_of_decl(globals[g])] = {static_cast<int>(g) + first_array, global_type(globals[g])};
        for (size_t k = 0; k < fns.size(); ++k) e.functions[fns[k].name] = static_cast<int>(k) + 1;
        for (size_t k = 0; k < fns.front().externs.size(); ++k)
            e.functions[fns.front().externs[k]] = first_array + static_cast<int>(globals.size() + k);
        s += "begin_func P:1:1:1 n:" + std::to_string(fi + 1) + "\n";
        for (const std::string& d : f.args) s += symbol_record(name_of_decl(d), type_of_decl(d));
        s += "end_args P:0\n";
        for (const std::string& d : f.locals) s += symbol_record(name_of_decl(d), type_of_decl(d));
        s += "end_locals P:0\n";
        for (const std::string& st : f.body) {
            if (st.size() > 2 && st[0] == 'L' && st.back() == ':') {
                s += "label n:" + st.substr(1, st.size() - 2) + "\n";
                continue;
            }
            e.toks = tokenize(st);
            e.at = 0;
            e.out.clear();
            e.expr();
            s += "stmt P:1:" + std::to_string(line++) + ":1\n" + e.out;
        }
        s += "end_func P:0\n";
    }
    // The arrays' first contents, as Program::run sets them.
    s += ".end\n";
    if (!globals.empty()) s += ".section init\n";
    for (size_t g = 0; g < globals.size(); ++g) {
        int index = first_array + static_cast<int>(g);
        s += "init n:" + std::to_string(index) + "\n";
        for (int i = 0; i < 100; ++i) s += "node b:4 n:1 i:" + std::to_string(initial_word(index, i)) + "\n";
        s += "node b:112 n:0\n";
    }
    s += std::string(globals.empty() ? "" : ".end\n") + ".section types\n" + type_records() + ".end\n" +
         ".section files\nsource S:\"t.c\"\n.end\n"
         ".section globals\nsymbol S:\"ext\" n:0 n:0 c:0 w:0 n:4 n:0 n:16 c:0 n:0 n:0 P:0 b:0\n";
    for (const MiniFunction& f : fns)
        s += "symbol S:\"" + f.name + "\" n:0 n:0 c:0 w:0 n:4 n:0 n:16 c:0 n:0 n:0 P:1:1:1 b:0\n";
    for (const std::string& g : globals)
        s += "symbol S:\"" + name_of_decl(g) + "\" n:1600 n:0 c:0 w:0 n:" + std::to_string(global_type(g)) +
             " n:0 n:16 c:0 n:0 n:0 P:0 b:0\n";
    for (const std::string& x : fns.front().externs)
        s += "symbol S:\"" + x + "\" n:0 n:0 c:0 w:0 n:4 n:0 n:16 c:0 n:0 n:0 P:0 b:0\n";
    s += ".end\n";
    return s;
}

inline std::string MiniFunction::text() const { return unit_text({*this}); }

// ---------------------------------------------------------------------------
// The interpreter, over the text of a unit with one function.

struct Node {
    int op = 0, type = 0;
    int scope = 1;        // NAME: 0 for a global
    long long value = 0;  // ICON value, symbol index, label
    std::vector<Node> kids;
};

struct Program {
    struct IntType {
        bool is_signed;
        int bits;
    };
    std::map<int, IntType> types;      // id -> integer type (qualified types as their base)
    std::map<int, bool> volatile_type;  // id -> volatile-qualified
    std::map<int, int> lanes;           // vector type id -> lanes
    std::vector<std::string> global_names;  // global symbols in order
    std::vector<Node> stmts;            // labels are op -1 with the label in value
    int symbols = 0;
    std::vector<int> symbol_types;

    // Arity of an opcode for the operators the tests use.
    static int arity(int op) {
        switch (op) {
        case 1: case 2: case 4: case 25: return 0;
        case 10: case 13: case 16: case 76: case 77: case 104: case 105: case 114: case 118: return 1;
        default: return 2;
        }
    }

    explicit Program(const std::string& text) {
        std::istringstream in(text);
        std::string line, section;
        std::vector<std::vector<std::string>> nodes;
        auto fields = [](const std::string& l) {
            std::vector<std::string> f;
            std::istringstream ls(l.substr(0, l.find(" #")));
            std::string w;
            while (ls >> w) f.push_back(w);
            return f;
        };
        auto num = [](const std::string& f) { return std::stoll(f.substr(f.rfind(':') + 1)); };
        auto flush = [&]() {
            if (nodes.empty()) return;
            size_t at = 0;
            stmts.push_back(build(nodes, at));
            nodes.clear();
        };
        std::map<int, std::pair<int, int>> quals;  // id -> base, qualifiers
        bool in_func = false;
        while (std::getline(in, line)) {
            std::vector<std::string> f = fields(line);
            if (f.empty()) continue;
            if (f[0] == ".section") section = f[1];
            if (section == "types" && f[0] == "type" && f.size() >= 5) {
                int id = static_cast<int>(num(f[1]));
                int code = static_cast<int>(num(f[2]));
                if ((code >= 2 && code <= 11) || code == 52 || code == 53)
                    types[id] = {num(f[3]) != 0, static_cast<int>(num(f[4]))};
                if (code == 19) quals[id] = {static_cast<int>(num(f[3])), static_cast<int>(num(f[4]))};
                if (code == 20 && f.size() >= 6 && (num(f[5]) & 1)) lanes[id] = static_cast<int>(num(f[4]));
            }
            if (section == "globals" && f[0] == "symbol") global_names.push_back(f[1].substr(3, f[1].size() - 4));
            if (section != "main") continue;
            if (f[0] == "begin_func") in_func = true;
            if (!in_func) continue;
            if (f[0] == "node") {
                nodes.push_back(f);
                continue;
            }
            flush();
            if (f[0] == "symbol") {
                ++symbols;
                symbol_types.push_back(static_cast<int>(num(f[6])));
            }
            if (f[0] == "label") {
                Node l;
                l.op = -1;
                l.value = num(f[1]);
                stmts.push_back(l);
            }
            if (f[0] == "end_func") in_func = false;
        }
        flush();
        for (auto& [id, q] : quals) {
            if (types.count(q.first)) types[id] = types[q.first];
            volatile_type[id] = (q.second & 2) != 0;
        }
    }

    Node build(const std::vector<std::vector<std::string>>& nodes, size_t& at) {
        const std::vector<std::string>& f = nodes.at(at++);
        auto num = [](const std::string& s) { return s.substr(s.find(':') + 1); };
        Node n;
        n.op = std::stoi(num(f[1]));
        n.type = std::stoi(num(f[2]));
        if (n.op == 2) {
            n.value = std::stoll(f[3].substr(f[3].rfind(':') + 1));
            n.scope = std::stoi(f[3].substr(2, f[3].rfind(':') - 2));
        }
        if (n.op == 1) n.value = std::stoll(num(f[3]));
        if (n.op == 4) n.value = static_cast<long long>(std::stoull(num(f[3])));
        if (n.op == 4 && num(f[3])[0] == '-') n.value = std::stoll(num(f[3]));
        if (n.op == 25) n.value = std::stoll(num(f[3]).substr(1, num(f[3]).size() - 2));
        for (int k = 0; k < arity(n.op); ++k) n.kids.push_back(build(nodes, at));
        return n;
    }

    static long long int16(long long v) { return static_cast<int16_t>(static_cast<uint16_t>(v)); }

    long long wrap(long long v, int type) const {
        auto it = types.find(type);
        if (it == types.end()) return v;
        int bits = it->second.bits;
        if (bits >= 64) return v;
        uint64_t m = (uint64_t{1} << bits) - 1;
        uint64_t u = static_cast<uint64_t>(v) & m;
        if (it->second.is_signed && (u >> (bits - 1))) u |= ~m;
        return static_cast<long long>(u);
    }
    bool is_unsigned(int type) const {
        auto it = types.find(type);
        return it != types.end() && !it->second.is_signed;
    }
    int bits(int type) const {
        auto it = types.find(type);
        return it == types.end() ? 16 : it->second.bits;
    }
    bool is_volatile(int type) const {
        auto it = volatile_type.find(type);
        return it != volatile_type.end() && it->second;
    }

    struct Trap {};

    // Memory: each global array has 100 words from address 1000 * index;
    // the locals of the function live at LOCALS + their index, so that their
    // address can be taken.  Accesses to volatile objects and calls are
    // recorded in `trace`, in order.
    static constexpr long long LOCALS = 900000;
    mutable std::map<long long, long long> memory;
    mutable std::vector<long long> env;
    mutable std::string trace;

    int lanes_of(int type) const {
        auto it = lanes.find(type);
        return it == lanes.end() ? 1 : it->second;
    }

    long long& cell(long long address) const {
        if (address >= LOCALS && address < LOCALS + static_cast<long long>(env.size()))
            return env[static_cast<size_t>(address - LOCALS)];
        if (address < 1000 || address % 1000 >= 100) throw Trap{};  // outside every array
        return memory[address];
    }
    long long load(long long address, int type) const {
        long long v = wrap(cell(address), type);
        if (is_volatile(type)) trace += " R" + std::to_string(address);
        return v;
    }
    void store(long long address, long long v, int type) const {
        cell(address) = wrap(v, type);
        if (is_volatile(type)) trace += " W" + std::to_string(address) + "=" + std::to_string(cell(address));
    }
    // The external function: it returns 3v + 1 and counts its calls in the
    // first element of the first array.
    long long call_ext(long long v) const {
        trace += " C" + std::to_string(v);
        if (global_names.size() > 2) memory[2000] = int16(memory[2000] + 1);
        return int16(3 * v + 1);
    }

    long long eval(const Node& n, int lane = 0) const {
        auto k = [&](int i) { return eval(n.kids.at(static_cast<size_t>(i)), lane); };
        // Both operands of an arithmetic operator, the left one first (the
        // order the optimizer keeps; the generated units never depend on it).
        auto both = [&]() {
            long long a = k(0);
            return std::pair<long long, long long>{a, k(1)};
        };
        auto element = [&](long long v) { return lanes_of(n.type) > 1 ? int16(v) : wrap(v, n.type); };
        if (lanes_of(n.type) > 1) {  // a vector: lane by lane
            switch (n.op) {
            case 6: { auto [a, b] = both(); return element(a + b); }
            case 8: { auto [a, b] = both(); return element(a - b); }
            case 11: { auto [a, b] = both(); return element(a * b); }
            case 13: return cell(eval(n.kids.at(0)) + lane);
            default: break;
            }
        }
        auto as_unsigned = [&](long long v, int type) {
            int b = bits(type);
            return b >= 64 ? static_cast<uint64_t>(v) : static_cast<uint64_t>(v) & ((uint64_t{1} << b) - 1);
        };
        switch (n.op) {
        case 2:
            if (n.scope == 0) return 1000 * n.value;  // a global array: its address
            return load(LOCALS + n.value, n.type);
        case 16:  // the address of an array or a local
            return n.kids[0].op == 2 && n.kids[0].scope != 0 ? LOCALS + n.kids[0].value : k(0);
        case 105: return k(0);  // pointer conversion
        case 13: return load(k(0), n.type);
        case 4: case 25: return wrap(n.value, n.type);
        case 6: { auto [a, b] = both(); return wrap(a + b, n.type); }  // pointers are not wrapped
        case 8: { auto [a, b] = both(); return wrap(a - b, n.type); }
        case 11: { auto [a, b] = both(); return wrap(a * b, n.type); }
        case 60: case 62: { auto [a, b] = both(); return divide(n.op, a, b, n.type); }
        case 14: { auto [a, b] = both(); return wrap(a & b, n.type); }
        case 17: { auto [a, b] = both(); return wrap(a | b, n.type); }
        case 19: { auto [a, b] = both(); return wrap(a ^ b, n.type); }
        case 64: case 66: { auto [a, b] = both(); return shift(n.op, a, b, n.kids[0].type, n.type); }
        case 10: return wrap(-k(0), n.type);
        case 77: return wrap(~k(0), n.type);
        case 76: return k(0) == 0;
        case 104: return wrap(k(0), n.type);
        case 70: return call_ext(k(1));
        case 80: case 81: case 82: case 83: case 84: case 85: case 86: case 87: case 88: case 89: {
            auto [a, b] = both();
            int ot = n.kids[0].type;
            bool u = n.op >= 86 || is_unsigned(ot);
            if (u) {
                uint64_t ua = as_unsigned(a, ot), ub = as_unsigned(b, ot);
                switch (n.op) {
                case 80: return ua == ub;
                case 81: return ua != ub;
                case 82: case 86: return ua <= ub;
                case 83: case 87: return ua < ub;
                case 84: case 88: return ua >= ub;
                default: return ua > ub;
                }
            }
            switch (n.op) {
            case 80: return a == b;
            case 81: return a != b;
            case 82: return a <= b;
            case 83: return a < b;
            case 84: return a >= b;
            default: return a > b;
            }
        }
        case 23: return k(0) != 0 && k(1) != 0;
        case 24: return k(0) != 0 || k(1) != 0;
        case 21: return k(0) ? eval(n.kids[1].kids.at(0)) : eval(n.kids[1].kids.at(1));
        case 56: k(0); return k(1);
        case 58: case 7: case 9: case 12: case 15: case 18: case 20: case 61: case 63: case 65: case 67: {
            const Node& target = n.kids[0];
            long long address = target.op == 13 ? eval(target.kids.at(0)) : LOCALS + target.value;
            if (target.op == 13 && lanes_of(target.type) > 1) {  // a store of every lane of a vector
                for (int l = 0; l < lanes_of(target.type); ++l) cell(address + l) = int16(eval(n.kids.at(1), l));
                return 0;
            }
            long long v = k(1);
            if (n.op != 58) {
                long long old = load(address, target.type);
                switch (n.op) {
                case 7: v = old + v; break;
                case 9: v = old - v; break;
                case 12: v = old * v; break;
                case 15: v = old & v; break;
                case 18: v = old | v; break;
                case 20: v = old ^ v; break;
                case 61: case 63: v = divide(n.op == 61 ? 60 : 62, old, v, target.type); break;
                default: v = shift(n.op == 65 ? 64 : 66, old, v, target.type, target.type); break;
                }
            }
            store(address, v, target.type);
            return wrap(v, target.type);
        }
        default: throw std::runtime_error("interpreter: opcode " + std::to_string(n.op));
        }
    }

    long long divide(int op, long long a, long long b, int type) const {
        if (b == 0) throw Trap{};
        if (is_unsigned(type)) {
            uint64_t m = bits(type) >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits(type)) - 1;
            uint64_t ua = static_cast<uint64_t>(a) & m, ub = static_cast<uint64_t>(b) & m;
            return wrap(static_cast<long long>(op == 60 ? ua / ub : ua % ub), type);
        }
        return wrap(op == 60 ? a / b : a % b, type);
    }
    long long shift(int op, long long a, long long c, int operand_type, int type) const {
        if (c < 0 || c >= 64) throw Trap{};
        if (op == 64) return wrap(static_cast<long long>(static_cast<uint64_t>(a) << c), type);
        if (is_unsigned(operand_type)) {
            int b = bits(operand_type);
            uint64_t u = b >= 64 ? static_cast<uint64_t>(a) : static_cast<uint64_t>(a) & ((uint64_t{1} << b) - 1);
            return wrap(static_cast<long long>(u >> c), type);
        }
        return wrap(a >> c, type);
    }

    // Runs the function with the arguments (locals start at `junk`, the
    // value an unset variable happens to have); "trap" on division by zero
    // or an access outside the arrays.  The result is followed by the trace
    // and the contents of memory.
    std::string run(std::vector<long long> args, long long junk = 0) const {
        memory.clear();
        trace.clear();
        for (size_t g = 2; g < global_names.size(); ++g)
            for (int i = 0; i < 100; ++i) memory[1000 * static_cast<long long>(g) + i] = initial_word(static_cast<long long>(g), i);
        std::string result = run_body(std::move(args), junk);
        result += " |" + trace + " |";
        for (auto& [address, v] : memory) result += " " + std::to_string(static_cast<uint16_t>(v));  // as words
        return result;
    }

    std::string run_body(std::vector<long long> args, long long junk) const {
        env.assign(static_cast<size_t>(symbols), junk);
        for (size_t i = 0; i < args.size() && i < env.size(); ++i) env[i] = wrap(args[i], symbol_types.at(i));
        std::map<long long, size_t> labels;
        for (size_t i = 0; i < stmts.size(); ++i)
            if (stmts[i].op == -1) labels[stmts[i].value] = i;
        size_t pc = 0;
        try {
            for (int steps = 0; steps < 100000 && pc < stmts.size(); ++steps) {
                const Node& s = stmts[pc++];
                if (s.op == -1) continue;
                if (s.op == 118) return std::to_string(eval(s.kids.at(0)));
                if (s.op == 114) {
                    pc = labels.at(s.kids.at(0).value);
                    continue;
                }
                if (s.op == 109) {
                    if (eval(s.kids.at(0))) pc = labels.at(s.kids.at(1).value);
                    continue;
                }
                eval(s);
            }
        } catch (Trap&) {
            return "trap";
        }
        return pc < stmts.size() ? "runaway" : "fell off";
    }
};

}  // namespace minic
