#include "OPT5/dump.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opt_client.h"
#include "OPT5/symtab.h"

namespace {
const char THIS_MODULE[] = "OPT5/dump";

// The last dump printed, and of which function: under dump_minimal an
// unchanged function is not printed again.
thread_local std::string last_text;
thread_local const SYMTAB* last_function = nullptr;

// What the switches ask of the infix form and the types.
INFIX_STYLE dump_style() {
    INFIX_STYLE style;
    style.types = pass_debug_dump_infix_types;
    style.full_types = pass_debug_dump_full_types;
    style.sym_addr = pass_debug_dump_sym_addr;
    style.regs = pass_debug_dump_infix_regs;
    return style;
}

// One node a line, indented by depth: the opcode, the type, the payload.
void tree_lines(const NODE* root, const INFIX_STYLE& style, std::string& out) {
    std::vector<std::pair<const NODE*, int>> work{{root, 3}};
    while (!work.empty()) {
        auto [n, depth] = work.back();
        work.pop_back();
        if (!n) continue;
        std::string line(static_cast<size_t>(depth) * 2, ' ');
        line += n->opcode >= 0 && n->opcode < NUM_OPCODES && node_operator_name[n->opcode] ? node_operator_name[n->opcode]
                                                                                          : "OP" + std::to_string(n->opcode);
        line += " : " + type_text(n->type, style);
        if (pass_debug_dump_otypes && n->creation_type && n->creation_type != n->type)
            line += " (made as " + type_text(n->creation_type, style) + ")";
        switch (n->opcode) {
        case ICON: case LABEL: line += "  " + n->value.to_string(); break;
        case VREG: line += (style.regs ? "  R" : "  ") + n->value.to_string(); break;
        case NAME:
            line += "  " + (n->symbol ? n->symbol->name : std::string("<noname>"));
            if (style.sym_addr && n->symbol) line += symbol_address(n->symbol);
            break;
        case SCON: case FCON: line += "  " + n->x().text; break;
        default: break;
        }
        if (pass_debug_dump_tree_hint) {
            char b[48];
            std::snprintf(b, sizeof b, "  [flags %02x %02x %02x %02x]", n->flags[0], n->flags[1], n->flags[2], n->flags[3]);
            line += b;
        }
        out += line + "\n";
        work.push_back({n->right, depth + 1});
        work.push_back({n->left, depth + 1});
    }
}

std::string render() {
    FUNINFO* fi = currfuninfo;
    const bool minimal = pass_debug_dump_minimal;
    const INFIX_STYLE style = dump_style();
    std::string out;
    if (pass_debug_dump_scope) {
        bool args = true;
        for (const BODY_ENTRY& e : fi->scopes) {
            if (e.kind == BODY_ENTRY::CONTROL && e.control == IR_END_ARGS) args = false;
            if (e.kind != BODY_ENTRY::SYMBOL || !e.sym) continue;
            const SYMTAB* s = static_cast<const SYMTAB*>(e.sym);
            out += std::string(args ? "  argument " : "  local    ") + (s->type ? s->type->declare(s->name) : s->name);
            if (style.sym_addr) out += " " + symbol_address(s);
            out += "\n";
        }
    }
    for (BBLK* b : layout_blocks()) {
        if (!minimal) {
            out += "  " + b->str() + "  preds:";
            for (EDGE* e = b->predecessors; e; e = e->rest) out += " " + std::to_string(e->bb->dfn);
            out += "  succs:";
            for (EDGE* e = b->successors; e; e = e->rest) out += " " + std::to_string(e->bb->dfn);
            out += "  loop depth " + std::to_string(b->loop ? b->loop->level : 0) + "\n";
        }
        int k = 0;
        for (const BODY_ENTRY& e : b->statements) {
            std::string prefix = "    ";
            if (pass_debug_dump_serial) prefix += "#" + std::to_string(k) + " ";
            if (pass_debug_dump_psn)
                prefix += std::string(e.pos.file ? e.pos.file : "") + ":" + std::to_string(e.pos.line) + ":" +
                          std::to_string(e.pos.col) + " ";
            ++k;
            out += prefix + stmt2infix(e.tree, style) + "\n";
            if (pass_debug_dump_trees) tree_lines(e.tree, style, out);
        }
    }
    return out;
}
}  // namespace

bool dumps_wanted() {
    return print_debug && FDEBUG &&
           (pass_debug_dump_infix || pass_debug_dump_trees || pass_debug_dump_infix_types || pass_debug_dump_infix_regs);
}

void prbbinfix(const char* when, int serial, const char* step) {
    FUNINFO* fi = currfuninfo;
    if (!dumps_wanted() || !fi || !fi->bb_list) return;
    std::string text = render();
    const char* name = currfunc ? currfunc->name.c_str() : "";
    if (pass_debug_dump_minimal && last_function == currfunc && text == last_text) {
        if (std::strcmp(when, "after") == 0)
            DBG_CHECK(std::fprintf(FDEBUG, "\n==== %s() unchanged by step %d '%s' ====\n", name, serial, step));
        return;
    }
    last_text = text;
    last_function = currfunc;
    DBG_CHECK(std::fprintf(FDEBUG, "\n==== %s() %s step %d '%s' ====\n%s", name, when, serial, step, text.c_str()));
}
