// A reader client for the tests and the fuzz target: it builds plain nodes
// and symbols, notes what the reader hands over and frees the trees.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "IFILE/if_file.h"
#include "OPT5/node.h"
#include "OPT5/opt_client.h"
#include "OPT5/symtab.h"

class Recorder : public NODE_CLIENT {
public:
    std::vector<std::string> events;
    std::vector<NODE*> trees;
    std::deque<std::unique_ptr<SYMTAB>> symbols;
    bool accept = true;

    bool cl_magic(int, int) override { return accept; }
    void cl_source(const char* t) override { events.push_back(std::string("source ") + t); }
    I_SYMTAB* cl_symbol_create(char* name, TYPE* type, TYPE* type2, unsigned long size, unsigned long align,
                               unsigned long, int, int, PSN* pos, unsigned long, unsigned,
                               I_SYMTAB::RETENTION_POLICY retention) override {
        auto s = std::make_unique<SYMTAB>();
        s->name = name;
        s->type = type;
        s->type2 = type2;
        s->size = size;
        s->align = align;
        s->pos = *pos;
        s->retention = retention;
        symbols.push_back(std::move(s));
        return symbols.back().get();
    }
    void cl_symbol_def(I_SYMTAB* s) override {
        events.push_back("symbol " + s->name + " pragmas " + std::to_string(s->x().pragmas.size()));
    }
    void cl_pragma(I_SYMTAB* s, PRAGMA* p) override {
        events.push_back("pragma " + std::to_string(p->kind) + (s ? " of " + s->name : ""));
    }
    void cl_merge_type_defs() override {}
    void cl_preprocess_statics() override {}
    void cl_begin_func(I_SYMTAB* fn, PSN*) override { events.push_back("begin " + fn->name); }
    void cl_end_args(PSN*) override {}
    void cl_end_locals(PSN*) override {}
    void cl_begin_block(PSN*) override {}
    void cl_end_block(PSN*) override {}
    void cl_end_func(PSN*) override { events.push_back("end"); }
    void cl_label(unsigned id) override { events.push_back("label " + std::to_string(id)); }
    void cl_expr(BASE_NODE* tree, PSN*) override { trees.push_back(static_cast<NODE*>(tree)); }
    void cl_inline_asm(char*, PSN*) override {}
    void cl_comment(char* t) override { events.push_back(std::string("comment ") + t); }
    void cl_func_info(int) override {}
    void cl_func_eht(EHT_ENTRY*, unsigned n) override { events.push_back("eht " + std::to_string(n)); }
    void cl_loop_def(unsigned a, unsigned b, unsigned c, unsigned d, unsigned e, unsigned flags) override {
        events.push_back("loop " + std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(c) + " " +
                         std::to_string(d) + " " + std::to_string(e) + " flags " + std::to_string(flags));
    }
    void cl_loop_header(unsigned id, I_SYMTAB* sym, unsigned flags) override {
        events.push_back("loop_header " + std::to_string(id) + " " + (sym ? sym->name : "-") + " flags " +
                         std::to_string(flags));
    }
    void cl_dd_vector(const std::vector<long long>& values) override {
        std::string e = "dd_vector";
        for (long long v : values) e += " " + std::to_string(v);
        events.push_back(e);
    }
    void cl_dd_edge(unsigned a, unsigned b, unsigned c) override {
        events.push_back("dd_edge " + std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(c));
    }
    void cl_mbank(unsigned a, unsigned b, unsigned c, unsigned d, unsigned e) override {
        events.push_back("mbank " + std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(c) + " " +
                         std::to_string(d) + " " + std::to_string(e));
    }
    ~Recorder() override {
        for (NODE* t : trees) erase_tree(t);
    }
};

