// Writing functions and the unit's global data back to the output I-file.
#include <cstdio>
#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <unordered_map>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/ddbloop.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opt_client.h"
#include "OPT5/symtab.h"

namespace {
const char THIS_MODULE[] = "OPT5/write";

// An assignment between integers of different widths gets its conversion
// spelled out; ISP2CHAR goes back to PCONV, its I-file form.
void mandatory_cast(NODE*& n) {
    if (n->opcode == ISP2CHAR) n->opcode = PCONV;
    if (n->opcode != ASG || !n->left || !n->right || !n->left->type || !n->right->type) return;
    TYPE* to = n->left->type->stripped();
    TYPE* from = n->right->type->stripped();
    if (to->is_integral() && from->is_integral() && to->size != from->size)
        n->right = mktree(SCONV, n->left->type, n->right);
}

const char* control_mnemonic(int kind) {
    switch (kind) {
    case 1: return "I_BF";
    case 2: return "I_EF";
    case 3: return "I_BB";
    case 4: return "I_EB";
    case 5: return "I_EA";
    case 6: return "I_EL";
    default: return "<unknown key>";
    }
}

const char* infix_operator(int op) {
    switch (op) {
    case PLUS: return "+";
    case MINUS: return "-";
    case MULT: return "*";
    case DIV: return "/";
    case MOD: return "%";
    case ANDB: return "&";
    case ORB: return "|";
    case XORB: return "^";
    case SLL: return "<<";
    case SRL: return ">>";
    case ASG: return "=";
    case PLUSASG: return "+=";
    case MINUSASG: return "-=";
    case MULTASG: return "*=";
    case DIVASG: return "/=";
    case MODASG: return "%=";
    case ANDBASG: return "&=";
    case ORBASG: return "|=";
    case XORBASG: return "^=";
    case SLLASG: return "<<=";
    case SRLASG: return ">>=";
    case EQ: case FEQ: return "==";
    case NEQ: case FNEQ: case FNEQN: return "!=";
    case LE: case ULE: case FLE: return "<=";
    case LT: case ULT: case FLT: return "<";
    case GE: case UGE: case FGE: return ">=";
    case GT: case UGT: case FGT: return ">";
    case ANDAND: return "&&";
    case OROR: return "||";
    case COMMA: return ",";
    default: return nullptr;
    }
}

void infix(const NODE* n, std::string& out, const INFIX_STYLE& style) {
    if (!n) return;
    auto typed = [&]() {
        if (style.types) out += "{" + type_text(n->type, style) + "}";
    };
    switch (n->opcode) {
    case ICON: out += n->value.to_string(); typed(); return;
    case NAME:
        out += n->symbol ? n->symbol->name : "<noname>";
        if (style.sym_addr && n->symbol) out += symbol_address(n->symbol);
        typed();
        return;
    case LABEL: out += "L" + n->value.to_string(); return;
    case FCON: out += n->x().text; typed(); return;
    case SCON: out += "\"" + n->x().text + "\""; return;
    case VREG:
        if (style.regs) {
            out += "R" + n->value.to_string();
            typed();
            return;
        }
        break;
    case PPRAGMA:
        if (const PRAGMA* p = n->x().pragma) {
            const char* name = p->name();
            out += "#pragma " + (name ? std::string(name) : std::to_string(p->kind)) + "(";
            for (size_t i = 0; i < p->args.size(); ++i) out += (i ? ", " : "") + p->args[i];
            out += ")";
            return;
        }
        break;
    case UMULT: out += "*"; infix(n->left, out, style); return;
    case UAND: out += "&"; infix(n->left, out, style); return;
    case UMINUS: out += "-"; infix(n->left, out, style); return;
    case NOTB: out += "~"; infix(n->left, out, style); return;
    case EXCLAIM: out += "!"; infix(n->left, out, style); return;
    default: break;
    }
    if (const char* op = infix_operator(n->opcode)) {
        out += "(";
        infix(n->left, out, style);
        out += std::string(" ") + op + " ";
        infix(n->right, out, style);
        out += ")";
        return;
    }
    const char* name = n->opcode >= 0 && n->opcode < NUM_OPCODES ? node_operator_name[n->opcode] : nullptr;
    out += name ? name : "OP" + std::to_string(n->opcode);
    if (n->left || n->right) {
        out += "(";
        infix(n->left, out, style);
        if (n->right) {
            out += ", ";
            infix(n->right, out, style);
        }
        out += ")";
    }
}

void debug_listing(const char* fmt, const char* a, int b, long c, const char* d) {
    if (print_debug && FDEBUG) DBG_CHECK(std::fprintf(FDEBUG, fmt, a, b, c, d));
}

void wrstcr(int kind, PSN* pos) {
    if (kind == IR_BEGIN_FUNC)
        o_file->if_write_begin_func(currfunc, pos);
    else
        o_file->if_write_control(kind, pos);
    debug_listing("%s\t%d\t%ld\t\t\t;%s\n", control_mnemonic(kind), kind, static_cast<long>(pos ? pos->line : 0),
                  currfunc->name.c_str());
}

void wrasmr(int kind, const char* text, PSN* pos) {
    if (kind == '/') {
        o_file->if_write_comment(text);
        return;
    }
    o_file->if_write_assembly(text, pos);
    if (print_debug && FDEBUG)
        DBG_CHECK(std::fprintf(FDEBUG, "\n%c%5ld %s\n\n", kind, static_cast<long>(pos ? pos->line : 0), text));
}

// Statements that get no interlisting comment.
bool no_interlisting(const NODE* t) {
    if (t->opcode == PCOMMA || t->opcode == COMMAOP) return true;  // argument prologues
    if (t->opcode == PPRAGMA && t->x().pragma &&
        ((t->x().pragma->kind >= 41 && t->x().pragma->kind <= 44) || (t->x().pragma->kind >= 126 && t->x().pragma->kind <= 128)))
        return true;
    return t->opcode == ASM && t->value != INT65('$');
}

void wrexpr(BODY_ENTRY& e) {
    NODE* t = e.tree;
    if (source_interlist && !no_interlisting(t)) {
        if (t->opcode == LOOP) {
            if (t->left && t->left->opcode != NAME) o_file->if_write_comment(stmt2infix(t->left).c_str());
            o_file->if_write_comment(stmt2infix(t->right).c_str());
        } else if (t->opcode != LABELDEF) {
            o_file->if_write_comment(stmt2infix(t).c_str());
        }
    }
    switch (t->opcode) {
    case PPRAGMA:
        if (t->x().pragma && t->x().pragma->kind != PRAGMA_NEVER_WRITTEN) {
            o_file->if_write_pragma(t->x().pragma);
            if (print_debug && FDEBUG) {
                DBG_CHECK(std::fprintf(FDEBUG, "%c[Pragma] %d %d", '^', t->x().pragma->kind,
                                       static_cast<int>(t->x().pragma->args.size())));
                for (const std::string& a : t->x().pragma->args) DBG_CHECK(std::fprintf(FDEBUG, " %s", a.c_str()));
                DBG_CHECK(std::fprintf(FDEBUG, "\n"));
            }
        }
        return;
    case ASM: {
        int kind = t->value.as<int32_t>();
        wrasmr(kind == '/' ? '/' : '$', t->x().text.c_str(), &e.pos);
        return;
    }
    case LABELDEF: o_file->if_write_label(t->value.as<uint32_t>()); return;
    default: break;
    }
    // One walk spells out the conversions and, in a function without an
    // edge profile, marks its profile values unset.
    bool unset_profile = !currfuninfo->has_edge_profile;
    mandatory_cast(t);
    walk_and_modify_tree(t, [&](NODE*& slot) {
        mandatory_cast(slot);
        if (unset_profile && slot->opcode == EPVAL) slot->mx().edge_profile = 0xFFFFFFFFu;
    });
    e.tree = t;
    if (print_debug && FDEBUG) DBG_CHECK(std::fprintf(FDEBUG, ".%ld\n", static_cast<long>(e.pos.line)));
    o_file->if_write_expr(t, &e.pos, &opt_client);
}

void write_func_header() { wrstcr(IR_BEGIN_FUNC, &currfuninfo->begin_pos); }

// The labels that jumps of a function name, gathered statement by statement.
struct jump_targets {
    std::vector<int> labels;
    void add(NODE* tree) {
        walk_and_modify_tree(tree, [&](NODE*& n) {
            if (n->opcode == LABEL) labels.push_back(n->value.as<int32_t>());
        });
    }
    void seal() {
        std::sort(labels.begin(), labels.end());
        labels.erase(std::unique(labels.begin(), labels.end()), labels.end());
    }
    bool contains(int label) const { return std::binary_search(labels.begin(), labels.end(), label); }
};

// The labels a function's jumps and its exception table name.
jump_targets named_labels(const std::vector<BBLK*>& blocks) {
    jump_targets targets;
    for (BBLK* b : blocks)
        for (const BODY_ENTRY& e : b->statements) targets.add(e.tree);
    for (const EHT_ENTRY& e : currfuninfo->eht) targets.labels.push_back(static_cast<int>(e.label));
    targets.seal();
    return targets;
}

// The exception table as written: an entry whose label the function no
// longer has goes, unless it ends a cleanup or a kept entry names it as its
// parent; the kept entries are numbered 1, 2, ... in table order.
std::vector<EHT_ENTRY> kept_eht_entries(const std::vector<EHT_ENTRY>& eht, const std::set<int>& labels) {
    std::vector<bool> kept(eht.size());
    std::map<unsigned, size_t> by_id;
    for (size_t i = 0; i < eht.size(); ++i) {
        kept[i] = labels.count(static_cast<int>(eht[i].label)) || eht[i].kind == EHK_CLEANUP_END;
        by_id[eht[i].id] = i;
    }
    std::vector<size_t> work;
    for (size_t i = 0; i < eht.size(); ++i)
        if (kept[i]) work.push_back(i);
    while (!work.empty()) {
        size_t i = work.back();
        work.pop_back();
        auto parent = by_id.find(eht[i].parent);
        if (eht[i].parent != 0 && parent != by_id.end() && !kept[parent->second]) {
            kept[parent->second] = true;
            work.push_back(parent->second);
        }
    }
    std::map<unsigned, unsigned> new_ids;
    std::vector<EHT_ENTRY> out;
    for (size_t i = 0; i < eht.size(); ++i)
        if (kept[i]) {
            new_ids[eht[i].id] = static_cast<unsigned>(out.size() + 1);
            out.push_back(eht[i]);
        }
    for (EHT_ENTRY& e : out) {
        e.id = new_ids[e.id];
        auto parent = new_ids.find(e.parent);
        e.parent = parent == new_ids.end() ? 0 : parent->second;
    }
    return out;
}

// Labels as written: 1, 2, ... in the layout order of the blocks they
// begin; a label no block has (a cleanup end's) gets the next number when
// it is first asked for.
struct written_labels {
    std::unordered_map<int, int> number;
    int operator[](int label) { return number.try_emplace(label, static_cast<int>(number.size()) + 1).first->second; }
};

// The loop-header record in front of a loop's first block: its number,
// its control variable when it has one, and its flags byte.
void write_loop_icode(struct LOOP* loop) {
    auto* lcv = static_cast<SYMTAB*>(const_cast<void*>(loop->LCV));
    o_file->if_write_inloop(loop->uid, lcv, loop->flag_byte);
    if (!print_debug || !FDEBUG) return;
    DBG_CHECK(std::fprintf(FDEBUG, "%c  I_INLOOP  ^%d  (level %d)  flags: 0x%02x", '^', loop->uid, loop->level,
                           static_cast<unsigned>(loop->flag_byte)));
    if (lcv) DBG_CHECK(std::fprintf(FDEBUG, ", LCV: %s", lcv->name.c_str()));
    DBG_CHECK(std::fprintf(FDEBUG, "\n"));
}

// The statements of every block in layout order, each block that some jump
// names beginning with its label, each loop's header block preceded by the
// loop's record.  The labels are numbered afresh (`labels`), in the jumps
// too.
void wrbblocks(written_labels& labels) {
    build_loop_hierarchy(false, false, false, 0);
    std::vector<BBLK*> blocks = layout_blocks();
    jump_targets targets = named_labels(blocks);
    for (BBLK* b : blocks)
        if (targets.contains(b->label)) labels[b->label];
    auto relabel = [&](NODE*& n) {
        if (n->opcode == LABEL) n->value = INT65(labels[n->value.as<int32_t>()]);
    };
    for (BBLK* b : blocks) {
        if (print_debug && FDEBUG) {
            DBG_CHECK(std::fprintf(FDEBUG, "\n++++(WRBBLOCKS): START NEXT BB, UON=%d, DFN=%d\n", b->label, b->dfn));
            DBG_CHECK(std::fprintf(FDEBUG, "\tPREDS:"));
            for (EDGE* e = b->predecessors; e; e = e->rest) DBG_CHECK(std::fprintf(FDEBUG, " %d", e->bb->dfn));
            DBG_CHECK(std::fprintf(FDEBUG, "\n\tSUCCS:"));
            for (EDGE* e = b->successors; e; e = e->rest) DBG_CHECK(std::fprintf(FDEBUG, " %d", e->bb->dfn));
            DBG_CHECK(std::fprintf(FDEBUG, "\n\tLOOP DEPTH = %d\n", b->loop ? b->loop->level : 0));
        }
        if (b->loop && b->loop->head == b) write_loop_icode(b->loop);
        if (targets.contains(b->label)) o_file->if_write_label(static_cast<unsigned>(labels[b->label]));
        for (BODY_ENTRY& e : b->statements) {
            walk_and_modify_tree(e.tree, relabel);
            wrexpr(e);
        }
    }
}

// The scope records and local symbols as they were read (the leaf mark after
// the end of the locals), then the blocks, then the end of the function.
void write_func_body() {
    FUNINFO* fi = currfuninfo;
    // A function parked without its flow graph gets it again, so that its
    // loops are found; the blocks begin at the labels its statements have,
    // so the statements come out as they were.
    if (!fi->bb_list && std::any_of(fi->body.begin(), fi->body.end(),
                                    [](const BODY_ENTRY& e) { return e.kind == BODY_ENTRY::STMT; }))
        buildcfg();
    // Without statements there are no blocks: the records are still in the
    // body.
    bool flat = !fi->bb_list;
    const BODY_ENTRY* end = nullptr;
    for (BODY_ENTRY& e : flat ? fi->body : fi->scopes) {
        if (e.kind == BODY_ENTRY::STMT) continue;
        if (e.kind == BODY_ENTRY::SYMBOL) {
            o_file->if_write_symbol(e.sym);
            continue;
        }
        if (e.control == IR_END_FUNC) {
            end = &e;
            continue;
        }
        wrstcr(e.control, &e.pos);
        if (e.control == IR_END_LOCALS && fi->no_calls) {
            o_file->if_write_func_info('L');
            if (print_debug && FDEBUG)
                DBG_CHECK(std::fprintf(FDEBUG, "\n%c\t'L':\t%s is a leaf function.\n", '^', currfunc->name.c_str()));
        }
    }
    written_labels numbering;
    if (!flat) wrbblocks(numbering);
    if (!fi->eht.empty()) {
        std::set<int> labels;
        if (!flat)
            for (BBLK* b : layout_blocks()) labels.insert(b->label);
        std::vector<EHT_ENTRY> kept = kept_eht_entries(fi->eht, labels);
        for (EHT_ENTRY& e : kept) e.label = static_cast<unsigned>(numbering[static_cast<int>(e.label)]);
        if (!kept.empty()) o_file->if_write_func_eht(kept);
    }
    PSN none;
    wrstcr(IR_END_FUNC, end ? const_cast<PSN*>(&end->pos) : &none);
}

}  // namespace

NODE* insert_mandatory_casts(NODE* tree) {
    if (!tree) return tree;
    mandatory_cast(tree);
    walk_and_modify_tree(tree, mandatory_cast);
    return tree;
}

std::string type_text(TYPE* type, const INFIX_STYLE& style) {
    if (!type) return "?";
    return style.full_types ? type->stripped()->print() : type->print();
}

std::string symbol_address(const void* sym) {
    char b[32];
    std::snprintf(b, sizeof b, "@%p", sym);
    return b;
}

std::string stmt2infix(const NODE* tree) { return stmt2infix(tree, INFIX_STYLE{}); }

std::string stmt2infix(const NODE* tree, const INFIX_STYLE& style) {
    std::string out;
    infix(tree, out, style);
    return out;
}

void write_function(SYMTAB* fn) {
    if (!o_file) return;
    (void)fn;
    write_func_header();
    write_func_body();
}

void write_global_data() {
    if (!o_file) return;
    for (I_SYMTAB* g : o_file->globals) {
        if (!g->x().has_init) continue;
        std::vector<BASE_NODE*> trees;
        for (BASE_NODE*& t : g->mx().init_trees) {
            t = insert_mandatory_casts(static_cast<NODE*>(t));
            trees.push_back(t);
        }
        o_file->if_write_init(g, trees, &opt_client);
    }
    if (!print_debug || !FDEBUG) return;
    DBG_CHECK(std::fprintf(FDEBUG, "-- variable -- size -- offset/class\n"));
    for (I_SYMTAB* g : o_file->globals) {
        std::string type = g->type ? g->type->print() : "";
        const char* cls = g->x().has_init ? "initialized" : "external";
        DBG_CHECK(std::fprintf(FDEBUG, "%c   %-11.32s %2lu\t%4d   %2d  %#6x  %2u %-16s %13s\n",
                               g->type && g->type->stripped()->kind == TYPE::FUNC_T ? 'F' : 'D', g->name.c_str(),
                               g->size >> 4, static_cast<int>(g->value_b), g->value_c,
                               static_cast<unsigned>(g->value_d) & 0xFFFF, static_cast<unsigned>(g->align >> 4),
                               type.c_str(), cls));
        for (const PRAGMA& p : g->x().pragmas) {
            const char* arg = p.args.empty() ? "" : p.args[0].c_str();
            switch (p.kind) {
            case SP_SOURCE_LANGUAGE: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: SOURCE LANGUAGE = '%s'\n", arg)); break;
            case SP_TRANSLATION_UNIT_ID: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: TRANSLATION UNIT ID #%s\n", arg)); break;
            case SP_LOCAL_STATIC_OF: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: SYMBOL IS LOCAL STATIC OF %s()\n", arg)); break;
            case SP_COMDAT_GROUP: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: COMDAT GROUP %s\n", arg)); break;
            case SP_FUNCTION_SYNONYM: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: SYMBOL IS FUNCTION SYNONYM of %s\n", arg)); break;
            case SP_ALWAYS_INLINE: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: FUNCTION ALWAYS INLINE\n")); break;
            case SP_FUNC_RET_BY_CCTOR: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: FUNC_RET_BY_CCTOR\n")); break;
            case SP_CLASS_MEMBER: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: SYMBOL IS CLASS MEMBER\n")); break;
            case SP_CTOR_DTOR: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: SYMBOL IS CONSTRUCTOR/DESTRUCTOR\n")); break;
            case SP_CTOR: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: SYMBOL IS CONSTRUCTOR\n")); break;
            case SP_DTOR: DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: SYMBOL IS DESTRUCTOR\n")); break;
            case SP_EXCEPTION_SPEC:
                DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma: EXCEPTION SPEC: ("));
                for (const std::string& a : p.args) DBG_CHECK(std::fprintf(FDEBUG, " %s", a.c_str()));
                DBG_CHECK(std::fprintf(FDEBUG, " )\n"));
                break;
            default:
                DBG_CHECK(std::fprintf(FDEBUG, "\t  Symbol pragma #%d has %d arguments:", p.kind,
                                       static_cast<int>(p.args.size())));
                for (const std::string& a : p.args) DBG_CHECK(std::fprintf(FDEBUG, " %s", a.c_str()));
                DBG_CHECK(std::fprintf(FDEBUG, "\n"));
            }
        }
    }
}
