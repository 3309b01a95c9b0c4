// Helpers shared by the tests.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "IFILE/if_text.h"

namespace fs = std::filesystem;

// Everything written to the stream so far, read from its start; the stream
// is left positioned at its end.
inline std::string read_all(FILE* f) {
    std::fflush(f);
    std::rewind(f);
    std::string s;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
    return s;
}

inline std::string slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void spit(const fs::path& p, const std::string& text) {
    std::ofstream out(p, std::ios::binary);
    out << text;
}

struct Result {
    bool exited = false;
    int status = -1;  // exit status, or the signal when !exited
    std::string out, err;
};

// Runs a program in `dir` with its standard streams captured; `while_running`
// (if any) gets the child's pid before the wait.
inline Result run_program(const char* program, std::vector<std::string> args, const fs::path& dir,
                          const std::map<std::string, std::string>& env = {},
                          void (*while_running)(pid_t) = nullptr) {
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0) _exit(120);
        int out = open("stdout.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open("stderr.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(err, 2);
        struct rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        for (auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
        std::vector<char*> argv{const_cast<char*>(program)};
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(program, argv.data());
        _exit(121);
    }
    if (while_running) while_running(pid);
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    Result r;
    r.exited = WIFEXITED(wstatus);
    r.status = r.exited ? WEXITSTATUS(wstatus) : WTERMSIG(wstatus);
    r.out = slurp(dir / "stdout.txt");
    r.err = slurp(dir / "stderr.txt");
    return r;
}

// I-file text to an I-file; returns the assembler's complaint, empty when fine.
inline std::string assemble(const std::string& text, const fs::path& out) {
    FILE* in = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    FILE* o = std::fopen(out.c_str(), "wb");
    std::string error;
    ifas(in, o, error);
    std::fclose(in);
    std::fclose(o);
    return error;
}

// An I-file as text, without the opcode-name comments.
inline std::string disassemble(const fs::path& file) {
    FILE* in = std::fopen(file.c_str(), "rb");
    if (!in) return "<cannot open " + file.string() + ">";
    FILE* out = std::tmpfile();
    std::string error;
    int rc = ifdis(in, out, error);
    std::fclose(in);
    std::string text = read_all(out);
    std::fclose(out);
    if (rc) return "<" + error + ">";
    std::string clean;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        size_t hash = line.find("  #");
        if (hash != std::string::npos) line.erase(hash);
        clean += line + "\n";
    }
    return clean;
}

// Lines of I-file text without comments and blank lines, as ifdis prints them.
inline std::string normalize_text(const std::string& text) {
    std::string out;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        size_t hash = line.find('#');
        if (hash != std::string::npos && line.compare(0, 7, ".header") != 0) line.erase(hash);
        while (!line.empty() && line.back() == ' ') line.pop_back();
        if (!line.empty()) out += line + "\n";
    }
    return out;
}

// A fresh temporary folder, removed with the object.
struct TempDir {
    fs::path path;
    TempDir() {
        char tmpl[] = "/tmp/opt5_test_XXXXXX";
        path = mkdtemp(tmpl);
    }
    ~TempDir() { fs::remove_all(path); }
};
