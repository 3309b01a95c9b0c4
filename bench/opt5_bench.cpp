// opt5_bench: generates units of several shapes in a series of sizes, runs
// opt5 over each at every level asked for, and prints throughput, the ratio to
// cp of the same file, peak memory per input byte, how time grows with size
// (the slope of log time over log size) and the costliest steps.
//
//   opt5_bench [--opt5 PATH] [--dir DIR] [--levels 0,2] [--quick] [--big]
//              [--shapes mixed,chain,...]
//
// Times are CPU seconds (user + system) of the child, peak memory its maximum
// resident set; each run is done once, so small units are noisy.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <fcntl.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/minic.h"
#include "tests/test_util.h"

namespace {

using minic::MiniFunction;
using Body = std::vector<std::string>;

std::string num(long v) { return std::to_string(v); }
std::string at(const std::string& array, const std::string& index) {
    return "(deref (+ (addr " + array + ") " + index + "))";
}

// Labels of a function are numbered from 1.
struct Labels {
    int next = 0;
    int make() { return ++next; }
};

MiniFunction new_function(const std::string& name) {
    MiniFunction f{name, {"a", "n"}, {"i", "j", "k", "s", "t", "u:w"}};
    f.globals = {"ga", "gb", "gc"};
    f.body = {"(= s a)", "(= t n)", "(= j 0)", "(= k 1)", "(= w 0u)"};
    return f;
}

// A counted loop over `iv` up to `bound`, around `inner`.
void counted_loop(Body& b, Labels& l, const std::string& iv, const std::string& bound, const Body& inner) {
    int head = l.make(), exit = l.make();
    b.push_back("(= " + iv + " 0)");
    b.push_back("L" + num(head) + ":");
    b.push_back("(if (>= " + iv + " " + bound + ") " + num(exit) + ")");
    b.insert(b.end(), inner.begin(), inner.end());
    b.push_back("(+= " + iv + " 1)");
    b.push_back("(goto " + num(head) + ")");
    b.push_back("L" + num(exit) + ":");
}

// Many functions of mixed code: array loops the vectorizer takes, a reduction,
// branches, a call, unsigned arithmetic and stores to globals.
std::vector<MiniFunction> mixed(long functions) {
    std::vector<MiniFunction> unit;
    for (long m = 0; m < functions; ++m) {
        MiniFunction f = new_function("f" + num(m));
        Labels l;
        Body& b = f.body;
        counted_loop(b, l, "i", "64", {"(= " + at("ga", "i") + " (+ " + at("gb", "i") + " " + at("gc", "i") + "))"});
        counted_loop(b, l, "i", "(& n 63)", {"(+= s (* " + at("ga", "i") + " a))"});
        int neg = l.make(), join = l.make(), skip = l.make();
        b.push_back("(if (< a " + num(m % 7) + ") " + num(neg) + ")");
        b.push_back("(= t (+ s (call ext a)))");
        b.push_back("(goto " + num(join) + ")");
        b.push_back("L" + num(neg) + ":");
        b.push_back("(= t (- s (* a " + num(m % 13 + 2) + ")))");
        b.push_back("L" + num(join) + ":");
        b.push_back("(= w (conv-u (& t 255)))");
        b.push_back("(if (u> w " + num(100 + m % 50) + "u) " + num(skip) + ")");
        b.push_back("(= " + at("gc", num(m % 64)) + " (+ t (<< a 2)))");
        b.push_back("L" + num(skip) + ":");
        b.push_back("(= k (?: (> t 0) (/ t 3) (% t 5)))");
        b.push_back("(ret (+ (+ t (conv-int w)) k))");
        unit.push_back(std::move(f));
    }
    return unit;
}

// One function of loops one after another, each using the value the one
// before computed.
std::vector<MiniFunction> chain(long loops) {
    MiniFunction f = new_function("chain");
    Labels l;
    for (long m = 0; m < loops; ++m)
        counted_loop(f.body, l, m % 2 ? "i" : "j", m % 3 ? "n" : num(16 + m % 40),
                     {"(= s (+ (* s 3) " + at("ga", "(& " + std::string(m % 2 ? "i" : "j") + " 63)") + "))"});
    f.body.push_back("(ret s)");
    return {f};
}

// One basic block of assignments among sixteen locals.
std::vector<MiniFunction> block(long statements) {
    MiniFunction f{"block", {"a", "n"}, {}};
    for (int v = 0; v < 16; ++v) {
        f.locals.push_back("x" + num(v));
        f.body.push_back("(= x" + num(v) + " (+ a " + num(v) + "))");
    }
    for (long m = 0; m < statements; ++m)
        f.body.push_back("(= x" + num(m % 16) + " (+ x" + num((m + 3) % 16) + " (* x" + num((m + 7) % 16) + " " +
                         num(m % 100 + 1) + ")))");
    f.body.push_back("(ret (+ x0 x15))");
    return {f};
}

// Statements whose expressions are 48 operators deep.
std::vector<MiniFunction> deep(long statements) {
    MiniFunction f = new_function("deep");
    static const char* ops[] = {"+", "-", "*", "&", "|", "^"};
    for (long m = 0; m < statements; ++m) {
        std::string e = "s";
        for (int d = 0; d < 48; ++d)
            e = "(" + std::string(ops[(m + d) % 6]) + " " + e + " " + (d % 3 == 0 ? "a" : d % 3 == 1 ? "n" : num(d + m % 9)) + ")";
        f.body.push_back("(= s " + e + ")");
    }
    f.body.push_back("(ret s)");
    return {f};
}

// Loop nests eight deep, one after another.
std::vector<MiniFunction> nest(long nests) {
    MiniFunction f = new_function("nest");
    for (int v = 0; v < 8; ++v) f.locals.push_back("q" + num(v));
    Labels l;
    for (long m = 0; m < nests; ++m) {
        Body inner = {"(+= s (* q0 q7))", "(= " + at("ga", "(& q7 63)") + " s)"};
        for (int d = 7; d >= 0; --d) {
            Body around;
            counted_loop(around, l, "q" + num(d), d % 2 ? "n" : num(3 + d), inner);
            inner = std::move(around);
        }
        f.body.insert(f.body.end(), inner.begin(), inner.end());
    }
    f.body.push_back("(ret s)");
    return {f};
}

// K branches over one variable.
std::vector<MiniFunction> branches(long k) {
    MiniFunction f = new_function("branches");
    Labels l;
    for (long m = 0; m < k; ++m) {
        int next = l.make();
        f.body.push_back("(if (!= a " + num(m) + ") " + num(next) + ")");
        f.body.push_back("(= s (+ s " + num(m % 97) + "))");
        f.body.push_back("L" + num(next) + ":");
    }
    f.body.push_back("(ret s)");
    return {f};
}

struct Shape {
    std::string name;
    std::function<std::vector<MiniFunction>(long)> make;
    std::vector<long> scales;  // the series of sizes, in the shape's own unit
    std::string unit;          // what a scale counts
};

struct Run {
    bool ok = false;
    double seconds = 0;
    long rss_kb = 0;
    std::string err;
};

Run run(const std::vector<std::string>& argv, const fs::path& err_file) {
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2);
        dup2(fd, 1);
        std::vector<char*> a;
        for (const std::string& s : argv) a.push_back(const_cast<char*>(s.c_str()));
        a.push_back(nullptr);
        execv(a[0], a.data());
        _exit(127);
    }
    int status = 0;
    struct rusage ru {};
    wait4(pid, &status, 0, &ru);
    Run r;
    r.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    r.seconds = static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    r.rss_kb = ru.ru_maxrss;
    r.err = slurp(err_file);
    return r;
}

// Least-squares slope of log y over log x.
double slope(const std::vector<double>& x, const std::vector<double>& y) {
    size_t n = x.size();
    if (n < 2) return NAN;
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (size_t i = 0; i < n; ++i) {
        double lx = std::log(x[i]), ly = std::log(std::max(y[i], 1e-4));
        sx += lx, sy += ly, sxx += lx * lx, sxy += lx * ly;
    }
    return (n * sxy - sx * sy) / (n * sxx - sx * sx);
}

// The step rows of an enable:time_stats=2 report: name and seconds.
std::vector<std::pair<std::string, double>> step_rows(const std::string& report) {
    std::vector<std::pair<std::string, double>> rows;
    std::istringstream in(report.substr(std::min(report.size(), report.find("Step times"))));
    std::string line;
    std::getline(in, line);
    std::getline(in, line);
    while (std::getline(in, line)) {
        std::istringstream l(line);
        double seconds, percent;
        if (!(l >> seconds >> percent)) continue;
        std::string rest;
        std::getline(l, rest);
        rest.erase(0, rest.find_first_not_of(" 0123456789"));
        if (!rest.empty() && rest[0] != '(') rows.push_back({rest, seconds});
    }
    return rows;
}

std::vector<std::string> split(const std::string& s) {
    std::vector<std::string> out;
    std::stringstream in(s);
    for (std::string w; std::getline(in, w, ',');) out.push_back(w);
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    std::string opt5 = (fs::path(argv[0]).parent_path() / "opt5").string();
    fs::path dir;
    std::vector<std::string> levels = {"0", "1", "2", "3", "4"};
    std::vector<std::string> only;
    double factor = 1;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&] {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "%s needs a value\n", a.c_str());
                std::exit(2);
            }
            return std::string(argv[++i]);
        };
        if (a == "--opt5") opt5 = value();
        else if (a == "--dir") dir = value();
        else if (a == "--levels") levels = split(value());
        else if (a == "--shapes") only = split(value());
        else if (a == "--quick") factor = 0.25;
        else if (a == "--big") factor = 4;
        else {
            std::fprintf(stderr, "usage: %s [--opt5 PATH] [--dir DIR] [--levels 0,2] [--shapes mixed,chain] [--quick|--big]\n", argv[0]);
            return 2;
        }
    }
    if (!fs::exists(opt5)) {
        std::fprintf(stderr, "no optimizer at %s (give --opt5)\n", opt5.c_str());
        return 2;
    }
    bool own_dir = dir.empty();
    if (own_dir) {
        char tmpl[] = "/tmp/opt5_bench.XXXXXX";
        if (!mkdtemp(tmpl)) return 2;
        dir = tmpl;
    }
    fs::create_directories(dir);

    auto scaled = [&](std::vector<long> v) {
        for (long& x : v) x = std::max(1L, static_cast<long>(std::lround(x * factor)));
        return v;
    };
    std::vector<Shape> shapes = {
        {"mixed", mixed, scaled({60, 600, 6000}), "functions"},
        {"chain", chain, scaled({250, 500, 1000, 2000}), "loops"},
        {"block", block, scaled({2000, 4000, 8000, 16000}), "statements"},
        {"deep", deep, scaled({250, 500, 1000, 2000}), "statements"},
        {"nest", nest, scaled({25, 50, 100, 200}), "nests"},
        {"branches", branches, scaled({1000, 2000, 4000, 8000}), "branches"},
    };

    std::printf("optimizer: %s\n", opt5.c_str());
    std::printf("CPU seconds, the best of three runs; MB/s = input MB / CPU s; x cp = opt5 CPU / cp CPU of the same file;\n"
                "RSS/B = peak resident set / input bytes.\n\n");
    std::printf("%-20s %10s", "unit", "bytes");
    for (const std::string& l : levels) std::printf(" | -o%-2s %7s %7s %6s %6s", l.c_str(), "s", "MB/s", "x cp", "RSS/B");
    std::printf("\n");

    // The cost of starting up, taken off the times before the growth is
    // fitted: the time of a unit of one small function.
    std::map<std::string, double> startup;
    {
        fs::path file = dir / "startup.if";
        assemble(minic::unit_text(mixed(1)), file);
        for (const std::string& l : levels) {
            double best = 1e9;
            for (int k = 0; k < 3; ++k)
                best = std::min(best, run({opt5, "-o" + l, file.string(), (dir / "out.if").string()}, dir / "opt5.err").seconds);
            startup[l] = best;
        }
    }
    std::map<std::string, std::map<std::string, std::pair<std::vector<double>, std::vector<double>>>> growth;
    std::vector<std::pair<std::string, fs::path>> largest;
    bool failed = false;
    for (const Shape& shape : shapes) {
        if (!only.empty() && std::find(only.begin(), only.end(), shape.name) == only.end()) continue;
        for (long scale : shape.scales) {
            std::string name = shape.name + "-" + num(scale);
            fs::path file = dir / (name + ".if");
            std::string error = assemble(minic::unit_text(shape.make(scale)), file);
            if (!error.empty()) {
                std::fprintf(stderr, "%s: %s\n", name.c_str(), error.c_str());
                return 2;
            }
            double bytes = static_cast<double>(fs::file_size(file));
            double cp = 1e9;
            for (int k = 0; k < 3; ++k)
                cp = std::min(cp, run({"/bin/cp", file.string(), (dir / "copy.if").string()}, dir / "cp.err").seconds);
            cp = std::max(cp, 1e-4);
            std::printf("%-20s %10.0f", (name + " " + shape.unit.substr(0, 1)).c_str(), bytes);
            std::fflush(stdout);
            for (const std::string& l : levels) {
                // The best of three runs, as for cp: a busy machine only adds time.
                Run r;
                for (int k = 0; k < 3 && (k == 0 || r.ok); ++k) {
                    Run t = run({opt5, "-o" + l, file.string(), (dir / "out.if").string()}, dir / "opt5.err");
                    if (k == 0 || !t.ok || t.seconds < r.seconds) r = t;
                }
                if (!r.ok) {
                    failed = true;
                    std::printf(" | -o%-2s %7s %7s %6s %6s", l.c_str(), "FAIL", "", "", "");
                    std::fprintf(stderr, "\n%s at -o%s failed:\n%s\n", name.c_str(), l.c_str(), r.err.c_str());
                    continue;
                }
                double s = std::max(r.seconds, 1e-4);
                std::printf(" | -o%-2s %7.3f %7.2f %6.0f %6.1f", l.c_str(), r.seconds, bytes / 1e6 / s, s / cp,
                            r.rss_kb * 1024.0 / bytes);
                std::fflush(stdout);
                growth[shape.name][l].first.push_back(bytes);
                growth[shape.name][l].second.push_back(std::max(r.seconds - startup[l], 1e-3));
            }
            std::printf("\n");
        }
        largest.push_back({shape.name, dir / (shape.name + "-" + num(shape.scales.back()) + ".if")});
    }

    std::printf("\nGrowth exponent (slope of log CPU time over log size, after taking off the start-up time\n"
                "of a one-function unit; 1.0 is linear):\n%-10s", "shape");
    for (const std::string& l : levels) std::printf(" %6s", ("-o" + l).c_str());
    std::printf("\n");
    for (auto& [shape, by_level] : growth) {
        std::printf("%-10s", shape.c_str());
        for (const std::string& l : levels) std::printf(" %6.2f", slope(by_level[l].first, by_level[l].second));
        std::printf("\n");
    }

    std::string top = std::find(levels.begin(), levels.end(), "2") != levels.end() ? "2" : levels.back();
    std::printf("\nCostliest steps at -o%s, largest unit of each shape (enable:time_stats=2):\n", top.c_str());
    for (auto& [shape, file] : largest) {
        Run r = run({opt5, "-o" + top, "--enable=time_stats=2", file.string(), (dir / "out.if").string()},
                    dir / "opt5.err");
        auto rows = step_rows(r.err);
        double total = 0;
        for (auto& row : rows) total += row.second;
        std::printf("%-10s", shape.c_str());
        for (size_t i = 0; i < rows.size() && i < 5; ++i)
            std::printf("%s %s %.0f%%", i ? "," : "", rows[i].first.c_str(), total > 0 ? 100 * rows[i].second / total : 0.0);
        std::printf("\n");
    }
    if (own_dir) fs::remove_all(dir);
    return failed ? 1 : 0;
}
