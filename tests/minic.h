// Small functions for the optimization tests, written as prefix expressions
// and turned into I-file text (ifrun runs them; see ifrun_oracle.h).
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
// "ext", see ifrun_oracle.h), (call f e...) (a function of the unit or one
// of its externs, any number of arguments); statements (if c L) (goto L) (ret e) and
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
    bool internal_globals = false;     // no other unit can name the arrays (static)

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
    // The arrays' first contents.
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
    const char* linkage = fns.front().internal_globals ? " c:1" : " c:0";
    for (const std::string& g : globals)
        s += "symbol S:\"" + name_of_decl(g) + "\" n:1600 n:0" + linkage + " w:0 n:" + std::to_string(global_type(g)) +
             " n:0 n:16 c:0 n:0 n:0 P:0 b:0\n";
    for (const std::string& x : fns.front().externs)
        s += "symbol S:\"" + x + "\" n:0 n:0 c:0 w:0 n:4 n:0 n:16 c:0 n:0 n:0 P:0 b:0\n";
    s += ".end\n";
    return s;
}

inline std::string MiniFunction::text() const { return unit_text({*this}); }

}  // namespace minic
