// CD vectorization of innermost loops.
//
// The loops handled are counted loops tested at the top:
//
//   H:  if (i >= bound) goto exit
//   B:  *(base + i) = <expression of *(base' + i) loads>; ...
//       i += 1; goto H
//
// with loop-invariant bases that are global arrays.  The body becomes a
// control/data-flow graph; every node is given its vector form for a SIMD
// factor by the machine description's rules; the factor is chosen by the
// cost model; and a vector loop that does SF iterations at a time is put in
// front of the original loop, which then does the iterations left over.
#include "OPT5/cdvect.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <unordered_map>

#include "DEBUG_DISABLE/switches.h"
#include "OPT5/abort.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/ddbloop.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/opt_client.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"

namespace {
const char THIS_MODULE[] = "OPT5/cdvect";

bool debugging() { return print_debug && FDEBUG; }
bool informing() { return write_opt_info && finfo; }

template <class... A>
void debug(const char* fmt, A... args) {
    if (debugging()) DBG_CHECK(std::fprintf(FDEBUG, fmt, args...));
}
template <class... A>
void info(const char* fmt, A... args) {
    if (informing()) std::fprintf(finfo, fmt, args...);
}
}  // namespace

// The parts of the loop the conversion relies on.
struct CD_LOOP_SHAPE {
    BBLK* head = nullptr;    // "if (iv >= bound) goto exit"
    BBLK* body = nullptr;    // the statements, "iv += 1", "goto head"
    BBLK* pre = nullptr;     // the block that enters the loop
    NODE* test = nullptr;
    const SYMTAB* iv = nullptr;
    NODE* bound = nullptr;
    int exit_label = 0;
    std::vector<NODE*> stmts;  // the body's own statements
    std::vector<unsigned long long> lines;  // and their source lines
};

CDFG::CDFG() = default;
CDFG::~CDFG() = default;

void CDFG::recycle_DFG_nodes_in_CDFG_region(bool all) {
    (void)all;
    arena.recycle();
}

// ---------------------------------------------------------------------------
// The cost model

int64_t SIMD_CONFIGURATION::compute_pain_for_configuration(bool trace) {
    int64_t pain = 5 * static_cast<int64_t>(16 / sf) * time + 9 * ptime;
    unitII = static_cast<double>(resII) / sf;
    if (trace && debugging())
        DBG_CHECK(std::fprintf(FDEBUG,
                               "PAIN FOR SF=%d, time=%ld, space=%ld, ptime=%ld, pspace=%ld, pain=%ld resmII=%d size=%d "
                               "unitII=%.2f\n",
                               sf, static_cast<long>(time), static_cast<long>(space), static_cast<long>(ptime),
                               static_cast<long>(pspace), static_cast<long>(pain), resII, size, unitII));
    return pain;
}

int SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(std::vector<SIMD_CONFIGURATION>& configs, int loop_uid) {
    // debug:conservative_vec takes no factor that needs a peeled loop;
    // debug:aggressive_vec takes a vector factor whenever one is left.
    auto peeled = [](const SIMD_CONFIGURATION& c) { return c.sf > 1 && c.ptime > 0; };
    bool any_vector = false;
    for (const SIMD_CONFIGURATION& c : configs)
        if (c.sf > 1 && !(pass_debug_conservative_vec && peeled(c))) any_vector = true;
    int best = -1;
    int64_t best_pain = 0;
    for (size_t i = 0; i < configs.size(); ++i) {
        SIMD_CONFIGURATION& c = configs[i];
        int64_t pain = c.compute_pain_for_configuration(true);
        info("Pain for loop #%d: SF=%d, time=%ld, space=%ld, ptime=%ld, pspace=%ld, pain=%ld\n", loop_uid, c.sf,
             static_cast<long>(c.time), static_cast<long>(c.space), static_cast<long>(c.ptime),
             static_cast<long>(c.pspace), static_cast<long>(pain));
        if (pass_debug_conservative_vec && peeled(c)) {
            debug("  SF=%d needs a peeled loop: not taken (debug:conservative_vec)\n", c.sf);
            continue;
        }
        if (pass_debug_aggressive_vec && c.sf == 1 && any_vector) {
            debug("  SF=1 not taken while a vector factor is left (debug:aggressive_vec)\n");
            continue;
        }
        if (best >= 0) {
            const SIMD_CONFIGURATION& b = configs[static_cast<size_t>(best)];
            if (best_pain < pain || (best_pain == pain && b.sf < c.sf)) continue;
        }
        best = static_cast<int>(i);
        best_pain = pain;
    }
    return best;
}

bool LOOP_UNROLLING_INFO::unrolling_completely_wins(bool trace) {
    if (completely) return true;
    float u = static_cast<float>(uf);
    float speed = Tu > 0 ? u * T1 / Tu : 0.0f;
    float space = Z1 > 0 ? Zu / Z1 : 0.0f;
    float ratio = space > 0 ? speed / space : 0.0f;
    if (trace && debugging()) {
        DBG_CHECK(std::fprintf(FDEBUG, "\tSpeed increase: %.3f\n", static_cast<double>(speed)));
        DBG_CHECK(std::fprintf(FDEBUG, "\tSpace increase: %.3f\t(%.3f amortized)\n", static_cast<double>(space),
                               static_cast<double>(space / u)));
        DBG_CHECK(std::fprintf(FDEBUG, "\tSpeed / Space:  %.3f\t(%.3f amortized)\n", static_cast<double>(ratio),
                               static_cast<double>(ratio * u)));
    }
    if (!(speed > 1.01f)) return false;
    if (!(space > 1.01f)) return true;
    int goal = size_speed_goal();
    if (goal < 2) return false;
    if (space > 10.0f || Zu > 110.0f) return false;
    if (goal < 3) return false;
    if (goal >= 5 && !(ratio * u >= 20.0f)) return false;
    if (trips < 0 || trips > 8) return false;
    if (trips <= 4 && Z1 <= 77.0f) {
        if (trace && debugging()) DBG_CHECK(std::fprintf(FDEBUG, "  OK to unroll %dx completely.\n", uf));
        return true;
    }
    return false;  // 5 to 8 trips would need a finer estimate of the unrolled body
}

TREP* vector_TREP_for_SF(TREP* trep, int sf) {
    bool power = sf >= 1 && (sf & (sf - 1)) == 0;
    if (!trep || !(power || sf == 3)) optassert("sf is a power of 2 or 3", THIS_MODULE, __LINE__);
    if (trep->lanes == sf) return trep;
    TREP* t = find_TREP(trep->kind, trep->bits, sf);
    if (!t->type) t->type = trep->type;
    return t;
}

TREP* vector_TREP_for_SF(TYPE* type, int sf) { return vector_TREP_for_SF(find_TREP(type, 1), sf); }

int md_cost_for_memref(int opcode, unsigned char kind, int esize, int lanes, INT65 alignment, bool is_volatile) {
    if (!md_rule_base) return 0;
    // A volatile object is accessed one element at a time, and a wide
    // access needs the alignment of its width (0: not known, taken as
    // aligned); otherwise only narrower accesses compose it.
    if (lanes > 1 && is_volatile) return 0;
    if (lanes > 1 && !alignment.is_zero() && alignment < INT65(esize * lanes * 16)) return 0;
    DFG probe;
    probe.op = opcode;
    probe.trep = find_TREP(kind, esize * 16, 1);
    probe.sf = lanes;
    std::vector<DECL_RULE*> d = md_rule_base->find_declaration_for_DFG(&probe, true, false);
    return d.empty() ? 0 : md_rule_base->cost_of(d[0]);
}

int memory_access_cost(DFG* access) {
    if (!access || (access->op != DFG_FETCH && access->op != DFG_STORE))
        optassert("memref->op == DFG_FETCH || memref->op == DFG_STORE", THIS_MODULE, __LINE__);
    TREP* t = access->trep;
    int esize = t ? t->bytes() : 1;
    unsigned char kind = t ? t->kind : 'i';
    if (access->opd[0] && access->opd[0]->op == STDOT && access->opd[0]->nopd > 1 && access->opd[0]->opd[1]->trep)
        esize = access->opd[0]->opd[1]->trep->bytes();
    int lanes = std::max(1, access->sf);
    INT65 alignment(access->alignment);
    bool is_volatile = access->is_volatile;
    for (int l = lanes, mult = 1;; l /= 2, mult *= 2) {
        int c = md_cost_for_memref(access->op, kind, esize, l, alignment, is_volatile);
        if (c) return c * mult;
        if (l % 2 || l < 2) break;
    }
    int total = esize * lanes;
    if (total % 16 == 0 && 16 % esize == 0) {
        int c = md_cost_for_memref(access->op, kind, esize, 16 / esize, alignment, is_volatile);
        return c * (total / 16);
    }
    optassert("memory access cost can be composed", THIS_MODULE, __LINE__);
}

bool unroll_completely_decision(struct LOOP* loop, const CDFG* region, int64_t trips, int& factor) {
    int64_t half = trips < 0 ? -((-trips) >> 1) : trips >> 1;
    if (trips <= 255 && factor == half && region->numBlocks == 1 && region->numStatements < 6) {
        factor *= 2;
        info("\nUnrolling loop #%d completely.\n", loop ? loop->uid : 0);
        debug("\nUnrolling loop #%d completely.\n", loop ? loop->uid : 0);
        return true;
    }
    if (region->numBlocks > 1) debug("\nNot unrolling completely:  R->numBlocks=%d\n", region->numBlocks);
    else if (region->numStatements >= 6) debug("\nNot unrolling completely:  R->numStatements=%d\n", region->numStatements);
    return false;
}

// ---------------------------------------------------------------------------
// Conversion of a loop body

namespace {


bool is_iv(const NODE* n, const SYMTAB* iv) { return n && n->opcode == NAME && n->symbol == iv; }

// A global array's address, as the front end may write it: `&a`, or
// `(int*)&a`.
bool is_array_address(const NODE* b) {
    if (b && b->opcode == PCONV) b = b->left;
    return b && b->opcode == UAND && b->left && b->left->opcode == NAME;
}

// base + iv with an invariant base: a global array's address, or a NAME
// the loop does not assign (a pointer that may alias anything).
bool is_unit_stride_address(const NODE* a, const SYMTAB* iv, const std::set<const SYMTAB*>& assigned) {
    if (!a || a->opcode != PLUS || !is_iv(a->right, iv)) return false;
    const NODE* b = a->left;
    if (is_array_address(b)) return true;
    return b->opcode == NAME && b->symbol != iv && !assigned.count(b->symbol);
}

TYPE* int16() { return type_pkg->mk_int(TYPE::IK_INT, true); }

bool is_16bit_int(TYPE* t) {
    TYPE* v = t ? integer_view(t) : nullptr;
    return v && t->stripped()->kind == TYPE::INT_T && v->size == 16;
}

bool find_shape(struct LOOP* loop, CD_LOOP_SHAPE& s, std::string& why) {
    if (!loop->head || !loop->tail || edge_length(loop->contents) != 2) return why = "not one body block", false;
    s.head = loop->head;
    s.body = loop->tail;
    if (s.head == s.body || s.head->statements.size() != 1) return why = "not tested at the top", false;
    NODE* t = s.head->statements[0].tree;
    if (t->opcode != CBRANCH || !t->left || t->left->opcode != GE || !t->right || t->right->opcode != LABEL)
        return why = "exit test is not iv >= bound", false;
    if (!t->left->left || t->left->left->opcode != NAME) return why = "exit test is not iv >= bound", false;
    s.test = t;
    s.iv = t->left->left->symbol;
    s.bound = t->left->right;
    s.exit_label = t->right->value.as<int32_t>();
    if (!is_16bit_int(t->left->left->type)) return why = "loop variable is not a 16-bit int", false;
    auto& st = s.body->statements;
    if (st.size() < 3) return why = "empty body", false;
    NODE* br = st.back().tree;
    NODE* step = st[st.size() - 2].tree;
    if (br->opcode != BRANCH || !br->left || br->left->value != INT65(s.head->label)) return why = "no back branch", false;
    if ((step->opcode != PLUSASG && step->opcode != PLUSPLUS) || !is_iv(step->left, s.iv) || !step->right ||
        step->right->opcode != ICON || step->right->value != INT65(1))
        return why = "loop variable does not step by 1", false;
    // The block that enters the loop.
    for (EDGE* e = s.head->predecessors; e; e = e->rest)
        if (e->bb != s.body) {
            if (s.pre) return why = "several entries", false;
            s.pre = e->bb;
        }
    if (!s.pre || s.pre->next != s.head) return why = "entry does not fall into the loop", false;
    for (size_t i = 0; i + 2 < st.size(); ++i) {
        s.stmts.push_back(st[i].tree);
        s.lines.push_back(st[i].pos.line);
    }
    // The stores of the body go through pointers: a variable whose address
    // is taken could change under them.
    const std::set<const SYMTAB*>& taken = currfuninfo->address_taken;
    if (!is_private_variable(s.iv, taken)) return why = "loop variable may change through a pointer", false;
    // The bound is computed from constants and variables the loop leaves
    // alone, reading no memory: the vector loop's test computes it again.
    if (!is_loop_invariant_value(loop, s.bound))
        return why = "bound is not computed from constants and variables the loop leaves alone", false;
    return true;
}

// Why a load (DFG_FETCH) or store (DFG_STORE) of the UMULT `access` can't
// join a vector or dual access: it is volatile, or the description declares
// no scalar access of its type.  Empty when it can.
std::string refused_access(int op, const NODE* access) {
    const char* what = op == DFG_FETCH ? "load" : "store";
    if (is_volatile_access(access)) return std::string("volatile ") + what;
    TREP* t = find_TREP(access->type, 1);
    if (md_cost_for_memref(op, t ? t->kind : 'i', t ? t->bytes() : 1, 1, INT65(0), false) == 0)
        return std::string("no ") + what + " of " + (access->type ? access->type->print() : "?") +
               " in the machine description";
    return "";
}

struct CONVERTER {
    CDFG* region;
    const CD_LOOP_SHAPE& shape;
    std::set<const SYMTAB*> assigned;
    std::map<DFG*, NODE*> addresses;  // address leaves -> their trees
    std::string why;

    DFG* make(int op, TREP* trep) {
        DFG* d = region->arena.make();
        d->op = op;
        d->trep = trep;
        return d;
    }
    DFG* address(NODE* a) {
        DFG* d = make(DFG_RCUSE, nullptr);
        d->name = stmt2infix(a);
        addresses[d] = a;
        return d;
    }
    // An element expression: loads and PLUS/MINUS/MULT of 16-bit ints.
    DFG* expr(NODE* t) {
        if (!t) return nullptr;
        if (!is_16bit_int(t->type)) return why = "not 16-bit integer arithmetic", nullptr;
        if (t->opcode == UMULT) {
            if (!is_unit_stride_address(t->left, shape.iv, assigned)) return why = "load is not base + iv", nullptr;
            if (!(why = refused_access(DFG_FETCH, t)).empty()) return nullptr;
            DFG* f = make(DFG_FETCH, find_TREP(t->type, 1));
            f->opd[0] = address(t->left);
            f->nopd = 1;
            return f;
        }
        if (t->opcode == PLUS || t->opcode == MINUS || t->opcode == MULT) {
            DFG* a = expr(t->left);
            DFG* b = a ? expr(t->right) : nullptr;
            if (!b) return nullptr;
            DFG* d = make(t->opcode, find_TREP(t->type, 1));
            d->opd[0] = a;
            d->opd[1] = b;
            d->nopd = 2;
            a->parent = b->parent = d;
            return d;
        }
        const char* name = t->opcode >= 0 && t->opcode < NUM_OPCODES ? node_operator_name[t->opcode] : nullptr;
        return why = "operator " + (name ? std::string(name) : std::to_string(t->opcode)) + " is not vectorised", nullptr;
    }
    CDSTMT* statement(NODE* t) {
        if (t->opcode != ASG || !t->left || t->left->opcode != UMULT) return why = "statement is not a store", nullptr;
        if (!is_unit_stride_address(t->left->left, shape.iv, assigned)) return why = "store is not base + iv", nullptr;
        if (!(why = refused_access(DFG_STORE, t->left)).empty()) return nullptr;
        DFG* value = expr(t->right);
        if (!value) return nullptr;
        DFG* st = make(DFG_STORE, find_TREP(t->left->type, 1));
        st->opd[0] = address(t->left->left);
        st->opd[1] = value;
        st->nopd = 2;
        auto s = std::make_unique<CDSTMT>();
        s->root = st;
        s->id = static_cast<int>(region->stmts.size()) + 1;
        CDSTMT* raw = s.get();
        region->owned.push_back(std::move(s));
        if (!region->stmts.empty()) region->stmts.back()->next = raw;
        region->stmts.push_back(raw);
        return raw;
    }
};

// The base a unit-stride address starts from ("&a" or "p"), the same text
// for `&a` and `(int*)&a`.
std::string base_of(const NODE* address) {
    const NODE* b = address->left;
    if (b->opcode == PCONV && is_array_address(b)) b = b->left;
    return stmt2infix(b);
}
bool base_is_array(const NODE* address) { return is_array_address(address->left); }


}  // namespace

CDFG* convert_simple_CFG_region_to_CDFG(EDGE* entries, struct LOOP* loop, bool force) {
    (void)entries;
    (void)force;
    CD_LOOP_SHAPE shape;
    std::string why;
    if (!find_shape(loop, shape, why)) {
        debug("  loop #%d not converted: %s\n", loop->uid, why.c_str());
        return nullptr;
    }
    auto* region = new CDFG;
    region->loop = loop;
    region->whole_loop_body = true;
    region->numBlocks = 1;
    region->numStatements = static_cast<int>(shape.body->statements.size());
    region->iv = shape.iv;
    region->bound = shape.bound;
    CONVERTER c{region, shape, {shape.iv}, {}, {}};
    for (NODE* s : shape.stmts)
        if (s->opcode == ASG && s->left->opcode == NAME) c.assigned.insert(s->left->symbol);
    for (NODE* s : shape.stmts)
        if (!c.statement(s)) {
            debug("  loop #%d not converted: %s\n", loop->uid, c.why.c_str());
            delete region;
            return nullptr;
        }
    // Dependences: a store may feed a load of another iteration unless they
    // touch different arrays, or the same element of the same array.
    // A pointer may point into any array, so a store through one is safe
    // only with no other access than to the very element it stores.
    std::map<std::string, std::set<std::string>> stores;  // base -> addresses stored
    bool pointer_store = false;
    for (NODE* s : shape.stmts) {
        stores[base_of(s->left->left)].insert(stmt2infix(s->left->left));
        pointer_store |= !base_is_array(s->left->left);
    }
    for (size_t k = 0; k < shape.stmts.size(); ++k) {
        NODE* s = shape.stmts[k];
        bool unsafe = pointer_store && shape.stmts.size() > 1;
        auto load = [&](NODE*& n) {
            if (n->opcode != UMULT) return;
            std::string address = stmt2infix(n->left);
            auto it = stores.find(base_of(n->left));
            bool same_element = it != stores.end() && it->second.size() == 1 && it->second.count(address);
            if (same_element) return;
            if (pointer_store || !base_is_array(n->left) || it != stores.end()) unsafe = true;
        };
        load(s->right);  // the walk below visits operands only
        walk_and_modify_tree(s->right, load);
        if (unsafe) {
            info("  This store to memory may affect other stores/fetches:\n\t%s\n", stmt2infix(s->left).c_str());
            info("\tThis statement: %s  (line %ld)\n", stmt2infix(s).c_str(), static_cast<long>(shape.lines[k]));
            info("\tmaking vectorization for either statement unsafe.\n\n");
            debug("  loop #%d not converted: dependences\n", loop->uid);
            delete region;
            return nullptr;
        }
    }
    region->shape = std::make_unique<CD_LOOP_SHAPE>(shape);
    region->addresses = c.addresses;
    return region;
}

void revert_CDFG_to_simple_CFG_region(CDFG* region) {
    // The loop's own blocks were never changed; only the graph goes.
    delete region;
}

namespace {
// The vector form of a statement's graph for a factor, node by node from
// the leaves; null when some node has none.
DFG* vectorise(DFG* d, CDSTMT* s, int sf, std::map<DFG*, DFG*>& made) {
    if (d->op == DFG_RCUSE) return d;  // addresses stay scalar
    DFG* copy = matcher_arena.make();
    *copy = *d;
    for (int i = 0; i < d->nopd; ++i) {
        copy->opd[i] = vectorise(d->opd[i], s, sf, made);
        if (!copy->opd[i]) return nullptr;
    }
    DFG* v = apply_SIMD_rules_to_DFG_node(copy, s, sf);
    if (!v) return nullptr;
    made[d] = v;
    return v;
}

// Reverts the OP and XOP nodes of a graph to generic operations; false when
// one is left.
bool generic_form(DFG* d) {
    if (!d) return true;
    if (d->op == DFG_TARGET) revert_OP_and_XOP_to_generic_node(d, nullptr);
    if (d->op == DFG_TARGET) return false;
    for (int i = 0; i < d->nopd; ++i)
        if (!generic_form(d->opd[i])) return false;
    return true;
}

int64_t scalar_cost(DFG* d, bool space) {
    if (!d || d->op == DFG_RCUSE) return 0;
    int64_t c = d->op == DFG_FETCH || d->op == DFG_STORE ? (space ? std::max(0, space_of_dfg_node(d)) : memory_access_cost(d))
                                                        : std::max(0, space ? space_of_dfg_node(d) : cost_of_dfg_node(d));
    for (int i = 0; i < d->nopd; ++i) c += scalar_cost(d->opd[i], space);
    return c;
}

}  // namespace

// What one iteration pays beside its statements, as the description prices
// it: the step of the loop variable and the test against the bound, both in
// the variable's type.  A jump is not declared; an undeclared operation is
// free.
int64_t cd_loop_overhead(const SYMTAB* iv, bool space) {
    TREP* trep = iv && iv->type ? find_TREP(iv->type, 1) : nullptr;
    if (!trep) return 0;
    int64_t c = 0;
    for (int op : {PLUS, LT}) {
        DFG* d = matcher_arena.make();
        d->op = op;
        d->trep = trep;
        c += std::max(0, space ? space_of_dfg_node(d) : cost_of_dfg_node(d));
    }
    return c;
}

bool convert_generic_CDFG_to_SIMD_form(CDFG* region, bool force) {
    (void)force;
    debug(" ======= converting generic CDFG to SIMD form ===\n");
    for (CDSTMT* s : region->stmts) {
        bool changed = false;
        simplify_using_rules(s->root, s, false, &changed);
    }
    region->simd_form = true;
    return true;
}

bool peel_unroll_and_vectorize_loop(CDFG* region, bool completely_allowed) {
    if (!region->shape) return false;
    CD_LOOP_SHAPE& shape = *region->shape;
    struct LOOP* loop = region->loop;
    info("\n\nOptimization summary for cross-iteration vectorization (SIMD)\nin %s()\n\n",
         currfunc ? currfunc->name.c_str() : "");
    // Candidate factors: scalar, and each factor whose every node has a
    // vector form.
    std::vector<SIMD_CONFIGURATION> configs;
    std::map<int, std::vector<DFG*>> forms;
    int64_t scalar_time = 0, scalar_space = 0;
    for (CDSTMT* s : region->stmts) {
        scalar_time += scalar_cost(s->root, false);
        scalar_space += scalar_cost(s->root, true);
    }
    const int64_t overhead_time = cd_loop_overhead(region->iv, false), overhead_space = cd_loop_overhead(region->iv, true);
    scalar_time += overhead_time;
    scalar_space += overhead_space;
    bool trips_known = loop->trips && loop->trips->opcode == ICON;
    int64_t trips = trips_known ? loop->trips->value.as<int64_t>() : -1;
    // What the loop's test tells of a count that is not a constant.
    const NODE* at_most = trips_known ? nullptr : loop->max_trips;
    // Whether a factor provably divides the iteration count.
    auto divides_count = [&](int f) { return trips_known ? trips % f == 0 : loop->tripFactor % f == 0; };
    SIMD_CONFIGURATION scalar;
    scalar.sf = 1;
    scalar.time = scalar_time;
    scalar.space = scalar_space;
    scalar.size = static_cast<int>(scalar_space);
    scalar.resII = static_cast<int>(scalar_time);
    configs.push_back(scalar);
    for (int sf : {2, 4}) {
        if (at_most && at_most->value < INT65(sf)) {
            debug("  SF=%d: at most %s iterations\n", sf, at_most->value.to_string().c_str());
            continue;
        }
        std::vector<DFG*> roots;
        bool ok = true;
        for (CDSTMT* s : region->stmts) {
            std::map<DFG*, DFG*> made;
            DFG* v = vectorise(s->root, s, sf, made);
            if (!v) {
                debug("  SF=%d: %s\n", sf, simd_failure_reason.c_str());
                ok = false;
                break;
            }
            roots.push_back(v);
        }
        if (!ok) continue;
        SIMD_CONFIGURATION c;
        c.sf = sf;
        for (DFG* r : roots) {
            c.time += scalar_cost(r, false);
            c.space += scalar_cost(r, true);
        }
        c.time += overhead_time;
        c.space += overhead_space;
        bool divides = divides_count(sf);
        c.ptime = divides ? 0 : scalar_time;
        c.pspace = divides ? 0 : scalar_space;
        c.size = static_cast<int>(c.space);
        c.resII = static_cast<int>(c.time);
        configs.push_back(c);
        forms[sf] = roots;
    }
    int best = SIMD_CONFIGURATION::choose_SIMD_configuration_for_region(configs, loop->uid);
    int sf = configs[static_cast<size_t>(best)].sf;
    if (sf == 1) {
        debug("  loop #%d stays scalar\n", loop->uid);
        return false;
    }
    // Target operations (OP/XOP) go back to the generic operations they
    // stand for; one that has none can't be written as a tree.
    for (DFG* root : forms[sf])
        if (!generic_form(root)) {
            debug("  loop #%d stays scalar: %s has no generic form\n", loop->uid, dfg_text(root).c_str());
            return false;
        }
    if (pass_debug_SIMD)
        for (DFG* root : forms[sf]) debug("  SIMD form (SF=%d): %s\n", sf, dfg_text(root).c_str());
    int factor = sf;
    bool completely = false;
    if (trips_known && completely_allowed) completely = unroll_completely_decision(loop, region, trips, factor);
    info("  %snrolling and vectorizing loop #%d at lines %s-%s by a factor of %dx.\n", completely ? "Completely u" : "U",
         loop->uid, std::to_string(shape.head->statements[0].pos.line).c_str(),
         std::to_string(shape.body->statements.back().pos.line).c_str(), factor);
    if (trips_known) info("  This loop has %s iterations.\n\n", std::to_string(trips).c_str());
    else info("  This loop's iteration count is %s\n", stmt2infix(loop->trips ? loop->trips : shape.bound).c_str());
    if (!trips_known && loop->tripFactor > 1)
        info("  It iterates a multiple of %s times.\n", std::to_string(loop->tripFactor).c_str());
    if (!trips_known && loop->min_trips >= 2)
        info("  It has at least %s iterations.\n", std::to_string(loop->min_trips).c_str());
    if (at_most && at_most->value >= INT65(2) && at_most->value <= INT65(1000000))
        info("  It has at most %s iterations.\n", at_most->value.to_string().c_str());
    bool divides = divides_count(factor);
    if (!divides)
        info("  The unrolling factor %d does not provably divide the\n  iteration count, so we will add a 'peeled' loop for\n"
             "  the last few iterations.  Its iteration count is %s.\n\n",
             factor, trips_known ? std::to_string(trips % factor).c_str() : ("at most " + std::to_string(factor - 1)).c_str());

    // The vector loop, in front of the scalar one:
    //   VH: if ((long) iv + SF > (long) bound) goto H
    //   VB: vector statements; iv += SF; goto VH
    // Unrolled completely, there is no loop: VB has the vector statements
    // once per SF iterations of the factor (iv + SF, iv + 2 SF ... in the
    // addresses), then iv += factor, and the scalar loop does the rest.
    TYPE* elem = int16();
    TYPE* vtype = type_pkg->mk_vector(elem, false, static_cast<unsigned long>(sf));
    TYPE* vptr = type_pkg->mk_ptr(vtype);
    std::map<DFG*, NODE*>& addr = region->addresses;
    std::function<NODE*(DFG*)> to_tree = [&](DFG* d) -> NODE* {
        switch (d->op) {
        case DFG_FETCH: return mktree(UMULT, vtype, mktree(PCONV, vptr, copy_tree(addr.at(d->opd[0]))));
        case DFG_STORE:
            return mktree(ASG, vtype, mktree(UMULT, vtype, mktree(PCONV, vptr, copy_tree(addr.at(d->opd[0])))),
                          to_tree(d->opd[1]));
        default: return mktree(d->op, vtype, to_tree(d->opd[0]), to_tree(d->opd[1]));
        }
    };
    // Instantiated templates lose the address leaves' identity; map by name.
    std::map<std::string, NODE*> by_name;
    for (auto& [leaf, tree] : addr) by_name[leaf->name] = tree;
    std::function<void(DFG*)> relink = [&](DFG* d) {
        if (!d) return;
        if (d->op == DFG_RCUSE && !addr.count(d) && by_name.count(d->name)) addr[d] = by_name[d->name];
        for (int i = 0; i < d->nopd; ++i) relink(d->opd[i]);
    };
    FUNINFO* fi = currfuninfo;
    BBLK* vh = mkbblock({}, shape.head, fi);
    int vh_label = mklabel(0, vh);
    BBLK* vb = mkbblock({}, shape.head, fi);
    mklabel(0, vb);
    PSN pos = shape.head->statements[0].pos;
    TYPE* ivt = shape.test->left->left->type;
    auto name_iv = [&]() { return copy_tree(shape.test->left->left); };
    if (!completely) {
        // iv + SF > bound, in long so that neither side can wrap.
        TYPE* wide = type_pkg->mk_int(TYPE::IK_LONG, true);
        auto widened = [&](NODE* t) { return simp_tree(mktree(SCONV, wide, t), nullptr); };
        NODE* ahead = simp_tree(mktree(PLUS, wide, widened(name_iv()), mk_ICON(INT65(sf), wide)), nullptr);
        BODY_ENTRY test;
        test.tree = mktree(CBRANCH, nullptr,
                           mktree(GT, type_pkg->mk_int(TYPE::IK_INT, true), ahead, widened(copy_tree(shape.bound))),
                           mk_LABELREF(shape.head->label));
        test.pos = pos;
        vh->statements.push_back(test);
    }
    for (auto& f : forms[sf]) relink(f);
    int copies = completely ? factor / sf : 1;
    for (int k = 0; k < copies; ++k)
        for (size_t i = 0; i < forms[sf].size(); ++i) {
            BODY_ENTRY e;
            e.tree = to_tree(forms[sf][i]);
            // The iterations k * SF further on.
            std::function<void(NODE*&)> shift = [&](NODE*& n) {
                if (!n) return;
                if (is_iv(n, shape.iv)) {
                    n = mktree(PLUS, ivt, n, mk_ICON(INT65(k * sf), ivt));
                    return;
                }
                shift(n->left);
                shift(n->right);
            };
            if (k > 0) shift(e.tree);
            e.pos = shape.body->statements[i].pos;
            vb->statements.push_back(e);
        }
    BODY_ENTRY step;
    step.tree = mktree(PLUSASG, ivt, name_iv(), mk_ICON(INT65(completely ? factor : sf), ivt));
    step.pos = shape.body->statements[shape.body->statements.size() - 2].pos;
    vb->statements.push_back(step);
    if (!completely) {
        BODY_ENTRY back;
        back.tree = mktree(BRANCH, nullptr, mk_LABELREF(vh_label));
        back.pos = step.pos;
        vb->statements.push_back(back);
    }
    // When the factor divides the iteration count, the vector code does
    // every iteration: the original loop is left at once, and goes.
    if (divides) {
        NODE* label = mk_LABELREF(shape.exit_label);
        erase_tree(shape.head->statements[0].tree);
        shape.head->statements[0].tree = mktree(BRANCH, nullptr, label);
    }
    rebuildcfg();
    return true;
}

// ---------------------------------------------------------------------------
// The passes

void do_cd_vectorization() {
    FUNINFO* fi = currfuninfo;
    if (!fi || !fi->bb_list || opt_level() < 2) return;
    debug("\n\n\t\t\t---------- ENTERING 'do_cd_vectorization' ----------\n");
    if (pass_debug_conservative_vec) debug(" simd-peeling DISABLED\n");
    if (!md_rule_base) matcher_init();
    // A body the front end left in pieces (the `continue` label before the
    // step) becomes one block where nothing jumps in between.
    simpcfg(true, false);
    build_loop_hierarchy(false, false, false, 0);
    // The innermost loops by their headers' labels: a vectorized loop's
    // blocks are made again and the loops found again, numbered afresh, but
    // the labels stay.
    std::vector<int> heads;
    for (struct LOOP* l : fi->loops)
        if (loop_is_innermost(l)) heads.push_back(l->head->label);
    bool changed = false;
    std::unordered_map<int, struct LOOP*> by_head;
    auto index_loops = [&] {
        by_head.clear();
        for (struct LOOP* x : fi->loops) by_head[x->head->label] = x;
    };
    index_loops();
    for (int head : heads) {
        auto found = by_head.find(head);
        if (found == by_head.end()) continue;
        struct LOOP* l = found->second;
        debug("\n---------- Preparing inner loop #%d ----------\n", l->uid);
        debug("\n------- ENTERING 'vectorize_CFG_regions' -----------\n");
        EDGE* entries = copy_edge_list(l->head->predecessors);
        CDFG* region = convert_simple_CFG_region_to_CDFG(entries, l, false);
        free_edge_list(entries);
        if (region) {
            convert_generic_CDFG_to_SIMD_form(region, false);
            bool done = peel_unroll_and_vectorize_loop(region, size_speed_goal() >= 2);
            revert_CDFG_to_simple_CFG_region(region);
            matcher_arena.recycle();
            if (done) {
                changed = true;
                build_loop_hierarchy(false, false, false, 0);
                index_loops();
            }
        }
        debug("\n------- EXITING 'vectorize_CFG_regions' -----------\n");
    }
    unbuild_loop_hierarchy();
    if (changed) simpcfg(false, false);
    debug("\n\n\t\t\t---------- EXITING 'do_cd_vectorization' ----------\n");
}

// ---------------------------------------------------------------------------
// Instruction-level parallelism

namespace {

// An address written as base + constant (or just base): its parts.
bool split_address(const NODE* a, std::string& base, INT65& offset) {
    offset = INT65(0);
    if (a->opcode == PLUS && a->right && a->right->opcode == ICON) {
        offset = a->right->value;
        a = a->left;
    }
    if (a->opcode != UAND || !a->left || a->left->opcode != NAME) return false;
    base = stmt2infix(a);
    return true;
}

// The statement as a graph for the COMBINE rules: its value, with loads of
// base + constant addresses.
DFG* ilp_graph(const NODE* t, DFG_ARENA& arena) {
    if (!t || !is_16bit_int(t->type)) return nullptr;
    if (t->opcode == UMULT && !refused_access(DFG_FETCH, t).empty()) return nullptr;
    DFG* d = arena.make();
    d->trep = find_TREP(t->type, 1);
    if (t->opcode == UMULT) {
        std::string base;
        INT65 offset;
        if (!split_address(t->left, base, offset)) return nullptr;
        d->op = DFG_FETCH;
        DFG* sum = arena.make();
        sum->op = PLUS;
        DFG* b = arena.make();
        b->op = DFG_RCUSE;
        b->name = base;
        DFG* k = arena.make();
        k->op = ICON;
        k->ivalue = offset;
        sum->opd[0] = b;
        sum->opd[1] = k;
        sum->nopd = 2;
        d->opd[0] = sum;
        d->nopd = 1;
        return d;
    }
    if (t->opcode != PLUS && t->opcode != MINUS && t->opcode != MULT) return nullptr;
    d->op = t->opcode;
    d->opd[0] = ilp_graph(t->left, arena);
    d->opd[1] = ilp_graph(t->right, arena);
    d->nopd = 2;
    return d->opd[0] && d->opd[1] ? d : nullptr;
}

// Every load of the tree at base + offset, as text.
void loads_of(const NODE* t, std::set<std::string>& out) {
    if (!t) return;
    if (t->opcode == UMULT) out.insert(stmt2infix(t->left));
    loads_of(t->left, out);
    loads_of(t->right, out);
}

// s1 stores to base + k + 1 and s2 to base + k, both computing the same
// operations on loads that are likewise one element apart: one vector
// statement at base + k does both.  `s1_first` says which runs first: the
// later one must not read what the earlier one stores, since the vector
// statement loads everything before it stores.
NODE* combine_pair(NODE* s1, NODE* s2, bool s1_first) {
    if (s1->opcode != ASG || s2->opcode != ASG || !s1->left || !s2->left || s1->left->opcode != UMULT ||
        s2->left->opcode != UMULT || !refused_access(DFG_STORE, s1->left).empty() ||
        !refused_access(DFG_STORE, s2->left).empty())
        return nullptr;
    std::string b1, b2;
    INT65 k1, k2;
    if (!split_address(s1->left->left, b1, k1) || !split_address(s2->left->left, b2, k2) || b1 != b2 ||
        k1 - k2 != INT65(1))
        return nullptr;
    NODE* earlier = s1_first ? s1 : s2;
    NODE* later = s1_first ? s2 : s1;
    std::set<std::string> reads;
    loads_of(later->right, reads);
    if (reads.count(stmt2infix(earlier->left->left))) return nullptr;
    DFG_ARENA arena;
    DFG* v1 = ilp_graph(s1->right, arena);
    DFG* v2 = ilp_graph(s2->right, arena);
    if (!v1 || !v2 || dfg2prefix(v1) != dfg2prefix(v2)) return nullptr;
    // Every pair of corresponding loads one element apart.
    std::function<bool(const DFG*, const DFG*)> adjacent = [&](const DFG* x, const DFG* y) {
        if (x->op == DFG_FETCH)
            return x->opd[0]->opd[0]->name == y->opd[0]->opd[0]->name &&
                   x->opd[0]->opd[1]->ivalue - y->opd[0]->opd[1]->ivalue == INT65(1);
        for (int i = 0; i < x->nopd; ++i)
            if (!adjacent(x->opd[i], y->opd[i])) return false;
        return true;
    };
    if (!adjacent(v1, v2)) return nullptr;
    // The description must have a COMBINE rule for the root operation.
    CDSTMT c1, c2;
    c1.root = v1;
    c2.root = v2;
    c1.next = &c2;
    if (!apply_COMBINE_rules(v1, &c1, false, false)) return nullptr;
    // Check that every operation has its dual form at factor 2.
    std::function<bool(DFG*)> dual = [&](DFG* d) {
        if (d->op == DFG_FETCH) return true;
        if (d->sf != 2) {
            DFG probe = *d;
            probe.sf = 2;
            if (md_rule_base->find_declaration_for_DFG(&probe, true, false).empty()) return false;
        }
        for (int i = 0; i < d->nopd; ++i)
            if (!dual(d->opd[i])) return false;
        return true;
    };
    if (!dual(v1)) return nullptr;
    TYPE* vtype = type_pkg->mk_vector(int16(), false, 2);
    TYPE* vptr = type_pkg->mk_ptr(vtype);
    std::function<NODE*(const NODE*)> vec = [&](const NODE* t) -> NODE* {
        if (t->opcode == UMULT) return mktree(UMULT, vtype, mktree(PCONV, vptr, copy_tree(t->left)));
        return mktree(t->opcode, vtype, vec(t->left), vec(t->right));
    };
    return mktree(ASG, vtype, mktree(UMULT, vtype, mktree(PCONV, vptr, copy_tree(s2->left->left))), vec(s2->right));
}

}  // namespace

void do_cd_ilp() {
    FUNINFO* fi = currfuninfo;
    if (!fi || !fi->bb_list || opt_level() < 2 || pass_disable_ilp) return;
    if (!md_rule_base) matcher_init();
    for (BBLK* b : layout_blocks()) {
        auto& st = b->statements;
        for (size_t i = 0; i + 1 < st.size(); ++i) {
            NODE* combined = combine_pair(st[i].tree, st[i + 1].tree, true);
            if (!combined) combined = combine_pair(st[i + 1].tree, st[i].tree, false);
            if (!combined) continue;
            debug("  ILP: %s\n    and %s\n    become %s\n", stmt2infix(st[i].tree).c_str(),
                  stmt2infix(st[i + 1].tree).c_str(), stmt2infix(combined).c_str());
            erase_tree(st[i].tree);
            erase_tree(st[i + 1].tree);
            st[i].tree = combined;
            st.erase(st.begin() + static_cast<long>(i) + 1);
        }
    }
}
