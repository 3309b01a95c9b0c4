// Small functions for the optimization tests, written as prefix expressions
// and turned into I-file text; and an interpreter for the text of a
// function, so that a test can check that optimizing kept its meaning.
//
//   MiniFunction f{"f", {"a", "b"}, {"x", "u:y"}};   // args, locals (u: unsigned, l: long)
//   f.body = {"(= x (+ a 5))", "L3:", "(if (< x b) 3)", "(goto 4)", "(ret x)"};
//
// Atoms: decimal integers (int; a "u" suffix makes them unsigned), the
// names of arguments and locals.  Operators: = + - * / % & | ^ << >> neg ~
// ! == != < <= > >= u< u<= u> u>= && || ?: , += -= *= conv-int conv-u
// conv-long, deref (*p), addr (&g); statements (if c L) (goto L) (ret e)
// and labels "L<n>:".  Globals are arrays of 100 ints ("a" in `globals`).
#pragma once

#include <cstdint>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace minic {

// Types of the generated units: 1 int, 2 unsigned int, 3 long, 4 the
// function, 5 int*, 6 int[100].
struct MiniFunction {
    std::string name;
    std::vector<std::string> args, locals;
    std::vector<std::string> body;
    std::vector<std::string> globals;

    std::string text() const;
};

inline int type_of_decl(const std::string& d) {
    if (d.rfind("u:", 0) == 0) return 2;
    if (d.rfind("l:", 0) == 0) return 3;
    if (d.rfind("p:", 0) == 0) return 5;
    return 1;
}
inline std::string name_of_decl(const std::string& d) {
    return d.size() > 2 && d[1] == ':' ? d.substr(2) : d;
}

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
    std::map<std::string, int> globals;               // name -> global index
    std::vector<std::string> toks;
    size_t at = 0;
    std::string out;

    // Emits one expression and returns its type.
    int expr() {
        std::string t = toks.at(at++);
        if (t != "(") {
            if (isdigit(static_cast<unsigned char>(t[0])) || t[0] == '-') {
                if (t.back() == 'u') {
                    out += "node b:4 n:2 n:" + t.substr(0, t.size() - 1) + "\n";
                    return 2;
                }
                out += "node b:4 n:1 i:" + t + "\n";
                return 1;
            }
            auto g = globals.find(t);
            if (g != globals.end()) {
                out += "node b:2 n:6 R:0:" + std::to_string(g->second) + "\n";
                return 6;
            }
            auto it = syms.find(t);
            if (it == syms.end()) throw std::runtime_error("unknown name " + t);
            out += "node b:2 n:" + std::to_string(it->second.second) + " R:1:" + std::to_string(it->second.first) + "\n";
            return it->second.second;
        }
        std::string op = toks.at(at++);
        static const std::map<std::string, int> binary = {
            {"=", 58},  {"+", 6},   {"-", 8},   {"*", 11},  {"/", 60},  {"%", 62},  {"&", 14},  {"|", 17},
            {"^", 19},  {"<<", 64}, {">>", 66}, {",", 56},  {"+=", 7},  {"-=", 9},  {"*=", 12}};
        static const std::map<std::string, int> compare = {
            {"==", 80}, {"!=", 81}, {"<=", 82}, {"<", 83},  {">=", 84},  {">", 85},
            {"u<=", 86}, {"u<", 87}, {"u>=", 88}, {"u>", 89}, {"&&", 23}, {"||", 24}};
        std::string head;
        size_t slot = out.size();
        int type = 1;
        if (binary.count(op)) {
            out += "";
            int lt = expr();
            expr();
            type = lt;
            head = "node b:" + std::to_string(binary.at(op)) + " n:" + std::to_string(type) + "\n";
        } else if (compare.count(op)) {
            expr();
            expr();
            head = "node b:" + std::to_string(compare.at(op)) + " n:1\n";
        } else if (op == "neg" || op == "~" || op == "!") {
            type = expr();
            int code = op == "neg" ? 10 : op == "~" ? 77 : 76;
            if (op == "!") type = 1;
            head = "node b:" + std::to_string(code) + " n:" + std::to_string(type) + "\n";
        } else if (op == "deref") {
            expr();
            head = "node b:13 n:1\n";
        } else if (op == "addr") {
            expr();
            type = 5;
            head = "node b:16 n:5\n";
        } else if (op == "conv-int" || op == "conv-u" || op == "conv-long") {
            expr();
            type = op == "conv-int" ? 1 : op == "conv-u" ? 2 : 3;
            head = "node b:104 n:" + std::to_string(type) + "\n";
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

inline std::string symbol_record(const std::string& decl) {
    int t = type_of_decl(decl);
    std::string size = t == 3 ? "32" : "16";
    return "symbol S:\"" + name_of_decl(decl) + "\" n:" + size + " n:0 c:0 w:0 n:" + std::to_string(t) + " n:0 n:" +
           size + " c:0 n:0 n:0 P:0 b:0\n";
}

inline std::string MiniFunction::text() const {
    Emitter e;
    int index = 0;
    for (const std::string& d : args) e.syms[name_of_decl(d)] = {index++, type_of_decl(d)};
    for (const std::string& d : locals) e.syms[name_of_decl(d)] = {index++, type_of_decl(d)};
    for (size_t g = 0; g < globals.size(); ++g) e.globals[globals[g]] = static_cast<int>(g) + 1;
    std::string s = ".header version=-71 cpu=0x258 source=\"t.c\" extra=0\n.section main\nbegin_func P:1:1:1 n:0\n";
    for (const std::string& d : args) s += symbol_record(d);
    s += "end_args P:0\n";
    for (const std::string& d : locals) s += symbol_record(d);
    s += "end_locals P:0\n";
    int line = 2;
    for (const std::string& st : body) {
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
    s += "end_func P:0\n.end\n.section types\n"
         "type n:1 b:8 b:1 n:16 n:16 b:0 b:0\n"
         "type n:2 b:9 b:0 n:16 n:16 b:0 b:0\n"
         "type n:3 b:10 b:1 n:32 n:32 b:0 b:0\n"
         "type n:4 b:22 n:1 b:1 b:0 b:0 b:0\n"
         "type n:5 b:17 n:1 n:32 n:32\n"
         "type n:6 b:20 n:1 n:100 n:0 n:1600 n:16\n.end\n"
         ".section files\nsource S:\"t.c\"\n.end\n"
         ".section globals\nsymbol S:\"" + name + "\" n:0 n:0 c:0 w:0 n:4 n:0 n:16 c:0 n:0 n:0 P:1:1:1 b:0\n";
    for (const std::string& g : globals)
        s += "symbol S:\"" + g + "\" n:1600 n:0 c:0 w:0 n:6 n:0 n:16 c:0 n:0 n:0 P:0 b:0\n";
    s += ".end\n";
    return s;
}

// ---------------------------------------------------------------------------
// The interpreter, over the text of a unit with one function.

struct Node {
    int op = 0, type = 0;
    int scope = 1;        // NAME: 0 for a global
    long long value = 0;  // ICON value, symbol index, label
    std::vector<Node> kids;
};

struct Program {
    std::map<int, std::pair<bool, int>> types;  // id -> signed, bits (integers only)
    std::map<int, int> lanes;                    // vector type id -> lanes
    int globals = 0;                             // global symbols after the function
    std::vector<Node> stmts;                     // labels are op -1 with the label in value
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
        bool in_func = false;
        while (std::getline(in, line)) {
            std::vector<std::string> f = fields(line);
            if (f.empty()) continue;
            if (f[0] == ".section") section = f[1];
            if (section == "types" && f[0] == "type" && f.size() >= 5) {
                int code = static_cast<int>(num(f[2]));
                if ((code >= 2 && code <= 11) || code == 52 || code == 53)
                    types[static_cast<int>(num(f[1]))] = {num(f[3]) != 0, static_cast<int>(num(f[4]))};
                if (code == 20 && f.size() >= 6 && (num(f[5]) & 1))
                    lanes[static_cast<int>(num(f[1]))] = static_cast<int>(num(f[4]));
            }
            if (section == "globals" && f[0] == "symbol") ++globals;
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
                symbol_types.push_back(static_cast<int>(num(f[5])));
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
        if (n.op == 4) n.value = std::stoll(num(f[3]));
        if (n.op == 25) n.value = std::stoll(num(f[3]).substr(1, num(f[3]).size() - 2));
        for (int k = 0; k < arity(n.op); ++k) n.kids.push_back(build(nodes, at));
        return n;
    }

    long long wrap(long long v, int type) const {
        auto it = types.find(type);
        if (it == types.end()) return v;
        int bits = it->second.second;
        if (bits >= 64) return v;
        uint64_t m = (uint64_t{1} << bits) - 1;
        uint64_t u = static_cast<uint64_t>(v) & m;
        if (it->second.first && (u >> (bits - 1))) u |= ~m;
        return static_cast<long long>(u);
    }
    bool is_unsigned(int type) const {
        auto it = types.find(type);
        return it != types.end() && !it->second.first;
    }
    int bits(int type) const {
        auto it = types.find(type);
        return it == types.end() ? 16 : it->second.second;
    }

    struct Trap {};

    // Memory: each global array has 100 words from address 1000 * index.
    mutable std::map<long long, long long> memory;

    int lanes_of(int type) const {
        auto it = lanes.find(type);
        return it == lanes.end() ? 1 : it->second;
    }

    long long eval(const Node& n, std::vector<long long>& env, int lane = 0) const {
        auto k = [&](int i) { return eval(n.kids.at(static_cast<size_t>(i)), env, lane); };
        auto element = [&](long long v) { return lanes_of(n.type) > 1 ? wrap(v, 1) : wrap(v, n.type); };
        if (lanes_of(n.type) > 1) {  // a vector: lane by lane
            switch (n.op) {
            case 6: return element(k(0) + k(1));
            case 8: return element(k(0) - k(1));
            case 11: return element(k(0) * k(1));
            case 13: return memory[eval(n.kids.at(0), env) + lane];
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
            return env.at(static_cast<size_t>(n.value));
        case 16: return k(0);                          // &array
        case 105: return k(0);                         // pointer conversion
        case 13: return memory[k(0)];
        case 4: case 25: return wrap(n.value, n.type);
        case 6: return wrap(k(0) + k(1), n.type);
        case 8: return wrap(k(0) - k(1), n.type);
        case 11: return wrap(k(0) * k(1), n.type);
        case 60: case 62: {
            long long a = k(0), b = k(1);
            if (b == 0) throw Trap{};
            if (is_unsigned(n.type)) {
                uint64_t ua = as_unsigned(a, n.type), ub = as_unsigned(b, n.type);
                return wrap(static_cast<long long>(n.op == 60 ? ua / ub : ua % ub), n.type);
            }
            return wrap(n.op == 60 ? a / b : a % b, n.type);
        }
        case 14: return wrap(k(0) & k(1), n.type);
        case 17: return wrap(k(0) | k(1), n.type);
        case 19: return wrap(k(0) ^ k(1), n.type);
        case 64: return wrap(static_cast<long long>(static_cast<uint64_t>(k(0)) << k(1)), n.type);
        case 66: {
            long long a = k(0), c = k(1);
            if (is_unsigned(n.kids[0].type)) return wrap(static_cast<long long>(as_unsigned(a, n.kids[0].type) >> c), n.type);
            return wrap(a >> c, n.type);
        }
        case 10: return wrap(-k(0), n.type);
        case 77: return wrap(~k(0), n.type);
        case 76: return k(0) == 0;
        case 104: return wrap(k(0), n.type);
        case 80: case 81: case 82: case 83: case 84: case 85: case 86: case 87: case 88: case 89: {
            long long a = k(0), b = k(1);
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
        case 21: return k(0) ? eval(n.kids[1].kids.at(0), env) : eval(n.kids[1].kids.at(1), env);
        case 56: k(0); return k(1);
        case 58: case 7: case 9: case 12: {
            if (n.kids[0].op == 13) {  // a store, of every lane of a vector
                long long address = eval(n.kids[0].kids.at(0), env);
                for (int l = 0; l < lanes_of(n.kids[0].type); ++l)
                    memory[address + l] = wrap(eval(n.kids.at(1), env, l), lanes_of(n.kids[0].type) > 1 ? 1 : n.kids[0].type);
                return 0;
            }
            long long v = k(1);
            long long& slot = env.at(static_cast<size_t>(n.kids[0].value));
            if (n.op == 7) v = slot + v;
            if (n.op == 9) v = slot - v;
            if (n.op == 12) v = slot * v;
            slot = wrap(v, symbol_types.at(static_cast<size_t>(n.kids[0].value)));
            return slot;
        }
        default: throw std::runtime_error("interpreter: opcode " + std::to_string(n.op));
        }
    }

    // Runs the function with the arguments (locals start at `junk`, the
    // value an unset variable happens to have); "trap" on division by zero.
    std::string run(std::vector<long long> args, long long junk = 0) const {
        memory.clear();
        for (int g = 1; g < globals; ++g)
            for (int i = 0; i < 100; ++i) memory[1000 * g + i] = wrap((g * 37 + i * 11) % 200 - 100, 1);
        std::string result = run_body(std::move(args), junk);
        for (auto& [address, v] : memory) result += " " + std::to_string(v);
        return result;
    }

    std::string run_body(std::vector<long long> args, long long junk) const {
        std::vector<long long> env(static_cast<size_t>(symbols), junk);
        for (size_t i = 0; i < args.size(); ++i)
            env[i] = wrap(args[i], symbol_types.at(i));
        std::map<long long, size_t> labels;
        for (size_t i = 0; i < stmts.size(); ++i)
            if (stmts[i].op == -1) labels[stmts[i].value] = i;
        size_t pc = 0;
        try {
            for (int steps = 0; steps < 100000 && pc < stmts.size(); ++steps) {
                const Node& s = stmts[pc++];
                if (s.op == -1) continue;
                if (s.op == 118) return std::to_string(eval(s.kids.at(0), env));
                if (s.op == 114) {
                    pc = labels.at(s.kids.at(0).value);
                    continue;
                }
                if (s.op == 109) {
                    if (eval(s.kids.at(0), env)) pc = labels.at(s.kids.at(1).value);
                    continue;
                }
                eval(s, env);
            }
        } catch (Trap&) {
            return "trap";
        }
        return pc < stmts.size() ? "runaway" : "fell off";
    }
};

}  // namespace minic
