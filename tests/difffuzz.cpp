#include "difffuzz.h"

#include <algorithm>
#include <sstream>

#include "ifrun_oracle.h"

namespace difffuzz {

using minic::MiniFunction;

namespace {

// The scalar types of the generated variables.
struct Scalar {
    int id;
    const char* prefix;  // of a declaration
    const char* suffix;  // of a constant
    const char* conv;    // conversion to it
    int bits;
    bool is_signed;
};
const Scalar scalars[] = {{minic::T_INT, "", "", "conv-int", 16, true},
                          {minic::T_UINT, "u:", "u", "conv-u", 16, false},
                          {minic::T_LONG, "l:", "#l", "conv-long", 32, true},
                          {minic::T_ULONG, "ul:", "#ul", "conv-ulong", 32, false},
                          {minic::T_X40, "x:", "#x", "conv-x", 40, true},
                          {minic::T_UX40, "ux:", "#ux", "conv-ux", 40, false}};
const Scalar& scalar(int id) {
    for (const Scalar& s : scalars)
        if (s.id == id) return s;
    return scalars[0];
}

struct Var {
    std::string name;
    int type;
    bool assignable;
};

struct Generator {
    uint64_t state;
    Unit u;
    std::vector<Var> vars;
    std::vector<std::string> ivs;  // loop variables in use: not assigned by the loop's body
    std::string pointer;           // "p", pointing at the local "t", when there is one
    bool volatile_array = false, volatile_local = false;
    int labels = 0;
    int depth = 0;
    // An assignment inside an expression (a comma) only at the top of a
    // statement's value, and never to the statement's own target: nothing
    // else in the statement may read the variable unsequenced.
    bool comma_allowed = false;
    std::string target;

    uint64_t next() {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return state;
    }
    int pick(int n) { return static_cast<int>(next() % static_cast<uint64_t>(n)); }
    bool chance(int percent) { return pick(100) < percent; }
    const Scalar& any_type() { return scalars[pick(6)]; }

    // A constant of the type: mostly edge values.
    std::string constant(const Scalar& s) {
        long long lo = s.is_signed ? -(1LL << (s.bits - 1)) : 0;
        long long hi = s.is_signed ? (1LL << (s.bits - 1)) - 1 : (1LL << s.bits) - 1;
        long long v;
        switch (pick(8)) {
        case 0: v = 0; break;
        case 1: v = 1; break;
        case 2: v = s.is_signed ? -1 : hi; break;
        case 3: v = lo; break;
        case 4: v = hi; break;
        case 5: v = (1LL << pick(s.bits - 1)) + pick(3) - 1; break;
        default: v = pick(200) - (s.is_signed ? 100 : 0); break;
        }
        v = std::clamp(v, lo, hi);
        return std::to_string(v) + s.suffix;
    }
    std::string convert(const std::string& e, int from, const Scalar& to) {
        return from == to.id ? e : "(" + std::string(to.conv) + " " + e + ")";
    }
    std::string int_const(int lo, int hi) { return std::to_string(lo + pick(hi - lo + 1)); }

    std::string array(bool for_store) {
        std::vector<std::string> names = {"ga", "gu"};
        if (volatile_array && (for_store || chance(50))) names.push_back("gv");
        return names[static_cast<size_t>(pick(static_cast<int>(names.size())))];
    }
    int element_type(const std::string& a) { return a == "gu" ? minic::T_UINT : a == "gv" ? minic::T_VINT : minic::T_INT; }
    std::string element(const std::string& a, int budget) {
        return "(deref (+ (addr " + a + ") (& (conv-int " + expr(scalar(minic::T_INT), budget) + ") 63)))";
    }

    std::string leaf(const Scalar& s) {
        std::vector<const Var*> same, other;
        for (const Var& v : vars) (v.type == s.id ? same : other).push_back(&v);
        int k = pick(10);
        if (k < 5 && !same.empty()) return same[static_cast<size_t>(pick(static_cast<int>(same.size())))]->name;
        if (k < 7 && !other.empty()) {
            const Var* v = other[static_cast<size_t>(pick(static_cast<int>(other.size())))];
            return convert(v->name, v->type == minic::T_VINT ? minic::T_INT : v->type, s);
        }
        if (k == 7 && volatile_local) return convert("vv", minic::T_INT, s);
        return constant(s);
    }

    // An expression of the type, of at most `budget` operators.
    std::string expr(const Scalar& s, int budget) {
        bool top = comma_allowed;
        comma_allowed = false;
        if (budget <= 0 || chance(25)) return leaf(s);
        int b = budget - 1;
        auto half = [&]() { return b / 2; };
        switch (pick(14)) {
        case 0: case 1: case 2: {
            static const char* ops[] = {"+", "-", "*", "&", "|", "^"};
            return "(" + std::string(ops[pick(6)]) + " " + expr(s, half()) + " " + expr(s, half()) + ")";
        }
        case 3: {
            std::string divisor = "(| " + expr(s, half()) + " 1" + s.suffix + ")";
            if (chance(50)) {  // by a constant: powers of two, -1, edges
                divisor = constant(s);
                if (divisor == std::string("0") + s.suffix) divisor = std::to_string(1 << pick(6)) + s.suffix;
            }
            return "(" + std::string(chance(50) ? "/" : "%") + " " + expr(s, half()) + " " + divisor + ")";
        }
        case 4: {
            std::string count = int_const(0, s.bits - 1);
            if (chance(30)) count = "(& (conv-int " + leaf(scalar(minic::T_INT)) + ") 15)";
            return "(" + std::string(chance(50) ? "<<" : ">>") + " " + expr(s, b) + " " + count + ")";
        }
        case 5: return "(" + std::string(chance(50) ? "neg" : "~") + " " + expr(s, b) + ")";
        case 6: {
            static const char* ops[] = {"==", "!=", "<", "<=", ">", ">=", "u<", "u<=", "u>", "u>="};
            const Scalar& t = any_type();
            return convert("(" + std::string(ops[pick(10)]) + " " + expr(t, half()) + " " + expr(t, half()) + ")", minic::T_INT, s);
        }
        case 7: {
            const Scalar& t = any_type();
            const char* op = pick(3) == 0 ? "!" : nullptr;
            if (op) return convert("(! " + expr(t, b) + ")", minic::T_INT, s);
            return convert("(" + std::string(chance(50) ? "&&" : "||") + " " + expr(t, half()) + " " + expr(any_type(), half()) + ")",
                           minic::T_INT, s);
        }
        case 8: return "(?: " + expr(any_type(), b / 3) + " " + expr(s, b / 3) + " " + expr(s, b / 3) + ")";
        case 9: {
            const Scalar& t = any_type();
            return convert(expr(t, b), t.id, s);
        }
        case 10: {
            std::string a = array(false);
            return convert(element(a, b / 2), element_type(a) == minic::T_UINT ? minic::T_UINT : minic::T_INT, s);
        }
        case 11:
            if (chance(40)) return convert("(call ext (conv-int " + expr(scalar(minic::T_INT), b) + "))", minic::T_INT, s);
            if (!pointer.empty()) return convert("(deref " + pointer + ")", minic::T_INT, s);
            return leaf(s);
        case 12: {  // a comma: an assignment, then the value
            const Var* v = assignable();
            if (!top || !v || v->name == target) return leaf(s);
            return "(, (= " + v->name + " " + expr(scalar(v->type), half()) + ") " + expr(s, half()) + ")";
        }
        default: return leaf(s);
        }
    }

    // The value of an assignment to `to`.
    std::string value(const Scalar& s, int budget, const std::string& to) {
        comma_allowed = true;
        target = to;
        std::string e = expr(s, budget);
        comma_allowed = false;
        return e;
    }

    const Var* assignable() {
        std::vector<const Var*> a;
        for (const Var& v : vars)
            if (v.assignable && std::find(ivs.begin(), ivs.end(), v.name) == ivs.end()) a.push_back(&v);
        return a.empty() ? nullptr : a[static_cast<size_t>(pick(static_cast<int>(a.size())))];
    }

    void add(const std::string& s) { u.f.body.push_back(s); }

    void statement(int budget) {
        int k = pick(depth < 2 ? 13 : 9);
        const Var* v = assignable();
        switch (k) {
        case 0: case 1: case 2:
            if (v) add("(= " + v->name + " " + value(scalar(v->type), budget, v->name) + ")");
            return;
        case 3:
            if (v) {
                const Scalar& s = scalar(v->type);
                static const char* ops[] = {"+=", "-=", "*=", "&=", "|=", "^="};
                switch (pick(3)) {
                case 0: add("(" + std::string(chance(50) ? "/=" : "%=") + " " + v->name + " (| " + expr(s, budget) + " 1" + s.suffix + "))"); break;
                case 1: add("(" + std::string(chance(50) ? "<<=" : ">>=") + " " + v->name + " " + int_const(0, s.bits - 1) + ")"); break;
                default: add("(" + std::string(ops[pick(6)]) + " " + v->name + " " + expr(s, budget) + ")"); break;
                }
            }
            return;
        case 4: {
            std::string a = array(true);
            add("(= " + element(a, 2) + " " + expr(scalar(element_type(a) == minic::T_UINT ? minic::T_UINT : minic::T_INT), budget) + ")");
            return;
        }
        case 5:
            if (!pointer.empty()) add("(= (deref " + pointer + ") " + expr(scalar(minic::T_INT), budget) + ")");
            else if (volatile_local) add("(= vv " + expr(scalar(minic::T_INT), budget) + ")");
            return;
        case 6:
            add("(call ext (conv-int " + expr(scalar(minic::T_INT), budget) + "))");
            return;
        case 7: {  // pairs of neighbouring elements, as ILP likes them
            std::string a = array(true);
            int at = pick(98);
            std::string op = chance(50) ? "+" : "-";
            for (int d : {1, 0})
                add("(= (deref (+ (addr " + a + ") " + std::to_string(at + d) + ")) (" + op + " (deref (+ (addr ga) " +
                    std::to_string(at + d) + ")) (deref (+ (addr gu) " + std::to_string(at + d) + "))))");
            return;
        }
        case 8: {  // a forward branch
            int l = ++labels;
            const Scalar& t = any_type();
            add("(if " + expr(t, budget) + " " + std::to_string(l) + ")");
            block(budget, 1 + pick(3));
            add("L" + std::to_string(l) + ":");
            return;
        }
        case 9: case 10: counted_loop(budget); return;
        case 11: wrapping_loop(budget); return;
        default: array_loop(); return;
        }
    }
    void block(int budget, int n) {
        ++depth;
        for (int i = 0; i < n; ++i) statement(budget);
        --depth;
    }

    // for (i = start; i < bound; i++) body
    void counted_loop(int budget) {
        std::string iv = "i" + std::to_string(depth);
        int head = ++labels, exit = ++labels;
        // A mask of 60 makes the count a multiple of 4, up to 60.
        std::string bound = chance(50) ? int_const(0, 12)
                                       : "(& (conv-int " + leaf(scalar(minic::T_INT)) + ") " + (chance(70) ? "15)" : "60)");
        // Inside another loop the bound may follow that loop's counter, from
        // a start that the first bound equals: the first inner loop runs no
        // iteration, the later ones more and more.
        std::string start = "0";
        if (!ivs.empty() && chance(30)) {
            start = int_const(1, 4);
            bound = "(+ " + ivs.back() + " " + start + ")";
        }
        add("(= " + iv + " " + start + ")");
        add("L" + std::to_string(head) + ":");
        add("(if (>= " + iv + " " + bound + ") " + std::to_string(exit) + ")");
        ivs.push_back(iv);
        block(budget, 1 + pick(3));
        ivs.pop_back();
        add("(+= " + iv + " 1)");
        add("(goto " + std::to_string(head) + ")");
        add("L" + std::to_string(exit) + ":");
    }
    // An unsigned counter that wraps around before it meets its end.
    void wrapping_loop(int budget) {
        static const int types[] = {minic::T_UINT, minic::T_ULONG, minic::T_UX40};
        const Scalar& s = scalar(types[pick(3)]);
        std::string k = "w" + std::to_string(labels);
        long long max = (1LL << s.bits) - 1;
        int n = 1 + pick(8), before = pick(n + 1);
        long long start = (max - before + 1) & max;  // `before` steps to the wrap
        long long end = (start + n) & max;
        int head = ++labels, exit = ++labels;
        add("(= " + k + " (" + s.conv + " " + std::to_string(start) + s.suffix + "))");
        add("L" + std::to_string(head) + ":");
        add("(if (== " + k + " " + std::to_string(end) + s.suffix + ") " + std::to_string(exit) + ")");
        ivs.push_back(k);
        block(budget, 1 + pick(2));
        ivs.pop_back();
        add("(+= " + k + " 1" + s.suffix + ")");
        add("(goto " + std::to_string(head) + ")");
        add("L" + std::to_string(exit) + ":");
        u.f.locals.push_back(std::string(s.prefix) + k);  // not read elsewhere: it may be unset there
    }
    // c[i] = a[i] op b[i] over arrays, as the vectorizer likes them; now and
    // then followed by loops over as many elements, with a counter of their
    // own or the same, each reading what the one before wrote a little
    // before or after (as fusion likes them, and not).
    void array_loop() {
        // The bound a constant, the variable, or computed from it in the
        // test (a multiple of 4 or of 2, at most 15, one less).
        static const char* const computed[] = {"nb", "(& nb -4)", "(& nb -2)", "(& nb 15)", "(- nb 1)"};
        std::string bound = chance(50) ? int_const(0, 96) : computed[chance(50) ? 0 : 1 + pick(4)];
        std::string dest = array_loop_over(bound, "i" + std::to_string(depth), "");
        for (int more = chance(40) ? 1 + pick(2) : 0; more > 0; --more) {
            int counter = depth < 2 && chance(50) ? depth + 1 : depth;
            dest = array_loop_over(bound, "i" + std::to_string(counter), dest);
        }
    }
    // One such loop; it reads `from` (when given) at the counter plus 0 to
    // 2, or minus 1 to 2 from 2 on.  Returns the array it writes.
    std::string array_loop_over(const std::string& bound, const std::string& iv, const std::string& from) {
        int head = ++labels, exit = ++labels;
        std::string dest = array(true), op = chance(50) ? "+" : chance(50) ? "-" : "*";
        auto at = [&](const std::string& a, int offset) {
            std::string index = offset == 0 ? iv : "(" + std::string(offset > 0 ? "+ " : "- ") + iv + " " + std::to_string(std::abs(offset)) + ")";
            return "(deref (+ (addr " + a + ") " + index + "))";
        };
        int offset = pick(3);
        bool back = chance(30);
        add("(= " + iv + " " + (back ? "2" : "0") + ")");
        if (!pointer.empty() && chance(30)) add("(= p (addr " + iv + "))");
        add("L" + std::to_string(head) + ":");
        add("(if (>= " + iv + " " + bound + ") " + std::to_string(exit) + ")");
        std::string first = from.empty() ? at(array(false), 0) : at(from, back ? -offset : offset);
        add("(= " + at(dest, 0) + " (" + op + " " + first + " " + at(array(false), 0) + "))");
        add("(+= " + iv + " 1)");
        add("(goto " + std::to_string(head) + ")");
        add("L" + std::to_string(exit) + ":");
        return dest;
    }
};

// Where two results differ: the return value, the trace, or a word of memory.
std::string difference(const std::string& expected, const std::string& got) {
    std::istringstream a(expected), b(got);
    std::vector<std::string> x, y;
    for (std::string w; a >> w;) x.push_back(w);
    for (std::string w; b >> w;) y.push_back(w);
    size_t i = 0;
    while (i < x.size() && i < y.size() && x[i] == y[i]) ++i;
    size_t bar = std::find(x.begin(), x.end(), "|") - x.begin();
    std::string where = i == 0 ? "the result" : i <= bar + 1 || x.size() != y.size() ? "the trace" : "memory word " + std::to_string(i);
    auto at = [&](const std::vector<std::string>& v) { return i < v.size() ? v[i] : std::string("nothing"); };
    std::string s = where + ": expected " + at(x) + ", got " + at(y);
    if (i > 0 && where == "the trace") s = "the trace: expected \"" + expected.substr(0, expected.rfind('|')) + "\", got \"" + got.substr(0, got.rfind('|')) + "\"";
    return s;
}

std::vector<std::vector<long long>> argument_lists(size_t nargs) {
    std::vector<std::vector<long long>> lists;
    const long long edges[] = {0, 1, -1, 2, 32767, -32768, 65535, 255, 16, 2147483647, -2147483647 - 1, 549755813887, 7};
    for (size_t k = 0; k < 6; ++k) {
        std::vector<long long> args;
        for (size_t i = 0; i < nargs; ++i) args.push_back(edges[(k * 5 + i * 3) % 13]);
        lists.push_back(args);
    }
    return lists;
}

}  // namespace

Unit generate(uint64_t seed) {
    Generator g{seed * 0x9E3779B97F4A7C15ULL + 1, {}, {}, {}, {}, false, false, 0, 0};
    for (int i = 0; i < 8; ++i) g.next();
    Unit& u = g.u;
    u.f.globals = {"ga", "u:gu"};
    u.f.internal_globals = seed % 2 == 1;  // from the seed, so that the rest of the unit does not change
    g.volatile_array = g.chance(30);
    if (g.volatile_array) u.f.globals.push_back("v:gv");
    // Arguments a0.. (never assigned) and locals x0.., of random types.
    auto declare = [&](std::vector<std::string>& decls, const char* stem, int n, bool assignable) {
        for (int i = 0; i < n; ++i) {
            const Scalar& s = g.any_type();
            std::string name = stem + std::to_string(i);
            decls.push_back(s.prefix + name);
            g.vars.push_back({name, s.id, assignable});
        }
    };
    int nargs = 1 + g.pick(3);
    declare(u.f.args, "a", nargs, false);
    declare(u.f.locals, "x", 2 + g.pick(4), true);
    for (const char* iv : {"i0", "i1", "i2"}) u.f.locals.push_back(iv);
    u.f.locals.push_back("nb");
    if (g.chance(40)) {  // an address-taken local
        u.f.locals.push_back("t");
        u.f.locals.push_back("p:p");
        g.pointer = "p";
    }
    g.volatile_local = g.chance(25);
    if (g.volatile_local) u.f.locals.push_back("v:vv");
    // Every local is set before anything reads it.
    for (const Var& v : g.vars) {
        if (!v.assignable) continue;
        const Var& a = g.vars[static_cast<size_t>(g.pick(nargs))];
        g.add("(= " + v.name + " " + (g.chance(50) ? g.constant(scalar(v.type)) : g.convert(a.name, a.type, scalar(v.type))) + ")");
    }
    for (const char* iv : {"i0", "i1", "i2"}) g.add("(= " + std::string(iv) + " 0)");
    g.add("(= nb (& (conv-int a0) 63))");
    if (!g.pointer.empty()) {
        g.add("(= t 7)");
        g.add("(= p (addr t))");
    }
    if (g.volatile_local) g.add("(= vv 1)");
    u.prologue = u.f.body.size();
    int n = 2 + g.pick(6);
    for (int i = 0; i < n; ++i) g.statement(2 + g.pick(5));
    // Every variable's value is visible in memory at the end.
    int slot = 100 - 3 * static_cast<int>(g.vars.size());
    for (const Var& v : g.vars) {
        const Scalar& s = scalar(v.type);
        for (int part = 0; part * 16 < s.bits; ++part, ++slot) {
            std::string value = part ? "(>> " + v.name + " " + std::to_string(16 * part) + ")" : v.name;
            g.add("(= (deref (+ (addr ga) " + std::to_string(slot) + ")) (conv-int " + value + "))");
        }
    }
    g.add("(ret " + g.expr(scalar(minic::T_INT), 3) + ")");
    return u;
}

namespace {

std::string argument_text(const std::vector<long long>& args) {
    std::string s;
    for (long long a : args) s += " " + std::to_string(a);
    return s;
}

}  // namespace

std::string Checker::check(const Unit& u, const std::vector<int>& levels) const {
    std::string text;
    try {
        text = u.f.text();
    } catch (std::exception& e) {
        return std::string("bad unit: ") + e.what();
    }
    if (std::string e = assemble(text, dir / "in.if"); !e.empty()) return "bad unit: " + e;
    // Every run must end the same after every level, or stop the same way.
    auto lists = argument_lists(u.f.args.size());
    std::vector<IFRUN_RESULT> ran = oracle::run_all(dir / "in.if", u.f, lists);
    for (int level : levels) {
        std::vector<std::string> argv = {"-s", "KILL", std::to_string(seconds), opt5, "-o" + std::to_string(level)};
        argv.insert(argv.end(), options.begin(), options.end());
        argv.push_back("in.if");
        argv.push_back("out.if");
        Result r = run_program("/usr/bin/timeout", argv, dir);
        std::string at = " at -o" + std::to_string(level);
        if (!r.exited) return "killed by signal " + std::to_string(r.status) + at;
        if (r.status == 124) return "ran past " + std::to_string(seconds) + " s" + at;
        if (r.status != 0) {
            size_t text = r.err.find_first_not_of('\n');
            std::string first = text == std::string::npos ? "" : r.err.substr(text);
            return "exit " + std::to_string(r.status) + at + ": " + first.substr(0, first.find('\n'));
        }
        std::vector<IFRUN_RESULT> after = oracle::run_all(dir / "out.if", u.f, lists);
        for (size_t k = 0; k < lists.size(); ++k) {
            if (!oracle::comparable(ran[k])) continue;
            std::string expected = oracle::printed(ran[k]), got = oracle::printed(after[k]);
            if (got != expected)
                return "different result" + at + " for arguments" + argument_text(lists[k]) + ": " +
                       difference(expected, got);
        }
    }
    return "";
}

Unit Checker::reduce_failure(const Unit& u, const std::vector<int>& levels, const std::string& why) const {
    auto kind = [](const std::string& w) { return w.substr(0, w.find(" at -o")); };
    return reduce(u, [&](const Unit& t) { return kind(check(t, levels)) == kind(why); });
}

namespace {

// The token ranges of the parenthesised subexpressions of a statement.
std::vector<std::pair<size_t, size_t>> subexpressions(const std::vector<std::string>& toks) {
    std::vector<std::pair<size_t, size_t>> out;
    std::vector<size_t> open;
    for (size_t i = 0; i < toks.size(); ++i) {
        if (toks[i] == "(") open.push_back(i);
        if (toks[i] == ")" && !open.empty()) {
            out.push_back({open.back(), i + 1});
            open.pop_back();
        }
    }
    return out;
}

// The operands of the subexpression [b, e): their token ranges.
std::vector<std::pair<size_t, size_t>> operands(const std::vector<std::string>& toks, size_t b, size_t e) {
    std::vector<std::pair<size_t, size_t>> out;
    size_t i = b + 2;
    while (i + 1 < e) {
        size_t start = i;
        if (toks[i] == "(") {
            int d = 0;
            do {
                d += toks[i] == "(" ? 1 : toks[i] == ")" ? -1 : 0;
                ++i;
            } while (d > 0 && i < e);
        } else {
            ++i;
        }
        out.push_back({start, i});
    }
    return out;
}

std::string join(const std::vector<std::string>& toks) {
    std::string s;
    for (size_t i = 0; i < toks.size(); ++i) {
        bool tight = i > 0 && (toks[i - 1] == "(" || toks[i] == ")");
        if (i > 0 && !tight) s += " ";
        s += toks[i];
    }
    return s;
}

}  // namespace

Unit reduce(Unit u, const std::function<bool(const Unit&)>& fails) {
    for (bool progress = true; progress;) {
        progress = false;
        // Statements, from the last.
        for (size_t i = u.f.body.size(); i-- > u.prologue;) {
            if (u.f.body[i].back() == ':') continue;
            Unit t = u;
            t.f.body.erase(t.f.body.begin() + static_cast<long>(i));
            if (fails(t)) {
                u = t;
                progress = true;
            }
        }
        // Labels nothing jumps to.
        for (size_t i = u.f.body.size(); i-- > u.prologue;) {
            const std::string& l = u.f.body[i];
            if (l.back() != ':') continue;
            std::string target = " " + l.substr(1, l.size() - 2) + ")";
            bool used = false;
            for (const std::string& s : u.f.body)
                used |= (s.rfind("(if ", 0) == 0 || s.rfind("(goto ", 0) == 0) && s.size() > target.size() &&
                        s.compare(s.size() - target.size(), target.size(), target) == 0;
            if (!used) u.f.body.erase(u.f.body.begin() + static_cast<long>(i));
        }
        // Subtrees: each by one of its operands, or by 0.
        for (size_t i = u.prologue; i < u.f.body.size(); ++i) {
            if (u.f.body[i].back() == ':') continue;
            for (bool again = true; again;) {
                again = false;
                std::vector<std::string> toks = minic::tokenize(u.f.body[i]);
                auto subs = subexpressions(toks);
                for (auto [b, e] : subs) {
                    if (b == 0) continue;  // the statement itself
                    std::vector<std::vector<std::string>> tries;
                    for (auto [ob, oe] : operands(toks, b, e))
                        if (toks[ob] == "(" || std::isdigit(static_cast<unsigned char>(toks[ob][0])) || toks[ob][0] == '-')
                            tries.push_back(std::vector<std::string>(toks.begin() + static_cast<long>(ob), toks.begin() + static_cast<long>(oe)));
                    tries.push_back({"0"});
                    for (const auto& r : tries) {
                        std::vector<std::string> n(toks.begin(), toks.begin() + static_cast<long>(b));
                        n.insert(n.end(), r.begin(), r.end());
                        n.insert(n.end(), toks.begin() + static_cast<long>(e), toks.end());
                        Unit t = u;
                        t.f.body[i] = join(n);
                        if (fails(t)) {
                            u = t;
                            again = progress = true;
                            break;
                        }
                    }
                    if (again) break;
                }
            }
        }
    }
    return u;
}

std::string Unit::save(const std::string& note) const {
    std::string s = "# " + note + "\nargs:";
    for (const std::string& a : f.args) s += " " + a;
    s += "\nlocals:";
    for (const std::string& l : f.locals) s += " " + l;
    s += "\nglobals:";
    for (const std::string& g : f.globals) s += " " + g;
    s += "\ninternal: " + std::to_string(f.internal_globals ? 1 : 0);
    s += "\nprologue: " + std::to_string(prologue) + "\nbody:\n";
    for (const std::string& b : f.body) s += b + "\n";
    return s;
}

Unit Unit::load(const std::string& text) {
    Unit u;
    std::istringstream in(text);
    std::string line;
    bool body = false;
    auto words = [](const std::string& l) {
        std::istringstream ls(l.substr(l.find(':') + 1));
        std::vector<std::string> w;
        for (std::string x; ls >> x;) w.push_back(x);
        return w;
    };
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        if (body) u.f.body.push_back(line);
        else if (line.rfind("args:", 0) == 0) u.f.args = words(line);
        else if (line.rfind("locals:", 0) == 0) u.f.locals = words(line);
        else if (line.rfind("globals:", 0) == 0) u.f.globals = words(line);
        else if (line.rfind("prologue:", 0) == 0) u.prologue = std::stoul(words(line).at(0));
        else if (line.rfind("internal:", 0) == 0) u.f.internal_globals = words(line).at(0) == "1";
        else if (line == "body:") body = true;
    }
    return u;
}

}  // namespace difffuzz
