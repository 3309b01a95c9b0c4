#include "OPT5/register_promotion.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/call_effects.h"
#include "OPT5/call_graph.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/ddbloop.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/object_access.h"
#include "OPT5/opt_client.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"

namespace {
const char THIS_MODULE[] = "OPT5/register_promotion";

constexpr size_t MOST_PER_LOOP = 12;

// One scalar of a global kept in a temporary over a loop.
struct promoted {
    SYMTAB* object;
    int64_t offset;
    TYPE* type;
    std::vector<NODE**> slots;  // its accesses in the loop
    bool written = false;
    bool in_head = false;
    SYMTAB* temp = nullptr;
    NODE* model = nullptr;  // a copy of an access, to load and store with
};

// What a loop does with one global.
struct object_in_loop {
    object_parts parts;
    std::vector<size_t> accesses;  // into the loop's access list
};

struct access_site {
    NODE** slot;
    SYMTAB* object;
    int64_t offset;
    bool written;
    bool in_head;
};

int loop_depth(const struct LOOP* l) {
    int d = 0;
    for (; l; l = l->parent) ++d;
    return d;
}

class promoter {
public:
    explicit promoter(bool benign_loads) : benign_loads_(benign_loads) {}

    int run(struct LOOP* loop) {
        loop_ = loop;
        std::vector<promoted> chosen = choose();
        if (chosen.empty()) return 0;
        BBLK* pre = preheader_of(loop);
        if (!pre) return 0;
        PSN pos = loop->head->statements.empty() ? PSN{} : loop->head->statements.front().pos;
        for (promoted& p : chosen) {
            std::string name = p.object->name + ".r";
            p.temp = make_local_temporary(p.type->stripped(), name);
            if (!p.temp) return 0;  // nothing rewritten yet: the temporaries made are named nowhere and go
        }
        // The accesses become the temporaries (before any block's statements
        // move, which would move the slots).
        std::vector<NODE*> replaced;
        for (promoted& p : chosen) {
            p.model = copy_tree(*p.slots.front());
            for (NODE** slot : p.slots) {
                replaced.push_back(*slot);
                *slot = mk_NAME(p.temp, (*slot)->type);
            }
        }
        for (NODE* n : replaced) erase_tree(n);
        bool stores = std::any_of(chosen.begin(), chosen.end(), [](const promoted& p) { return p.written; });
        if (stores)
            for (auto [b, at_top] : ways_out())
                for (const promoted& p : chosen) {
                    if (!p.written) continue;
                    NODE* place = copy_tree(p.model);
                    NODE* store = mktree(ASG, place->type, place, mk_NAME(p.temp, place->type));
                    if (at_top) b->statements.insert(b->statements.begin(), BODY_ENTRY{BODY_ENTRY::STMT, store, pos});
                    else append_before_jump(b, store, pos);
                }
        for (promoted& p : chosen)
            append_before_jump(pre, mktree(ASG, p.model->type, mk_NAME(p.temp, p.model->type), p.model), pos);
        report(chosen);
        return static_cast<int>(chosen.size());
    }

private:
    bool benign_loads_;
    struct LOOP* loop_ = nullptr;
    ptr_map<const BBLK*, bool> inside_;

    bool inside(const BBLK* b) const { return inside_.find(b) != nullptr; }

    // The scalars to promote, accesses most first.
    std::vector<promoted> choose() {
        inside_.clear();
        std::vector<BBLK*> blocks;
        for (EDGE* c = loop_->contents; c; c = c->rest) {
            blocks.push_back(c->bb);
            inside_[c->bb] = true;
        }
        memory_effects own, called;
        std::vector<const SYMTAB*> callees;
        ptr_map<const SYMTAB*, object_in_loop> objects;
        std::vector<SYMTAB*> order;
        std::vector<access_site> sites;
        for (BBLK* b : blocks)
            for (BODY_ENTRY& e : b->statements) {
                if (!e.tree) continue;
                fold_access_offsets(e.tree, [](const SYMTAB* s) { return s->global; });
                add_tree_effects(e.tree, own, &callees);
                bool plain = for_each_access(
                    e.tree, [](const SYMTAB* s) { return s->global; },
                    [&](const object_access& a) {
                        object_in_loop* o = objects.find(a.sym);
                        if (!o) {
                            o = &objects[a.sym];
                            order.push_back(a.sym);
                        }
                        o->parts.add(a);
                        if (!o->parts.ok) return;
                        int64_t off = a.whole() ? 0 : a.where.offset.as<int64_t>();
                        o->accesses.push_back(sites.size());
                        sites.push_back({a.slot, a.sym, off, a.role != VALUE, b == loop_->head});
                    });
                if (!plain) return {};
            }
        for (const SYMTAB* c : callees) called.merge(effects_of_function(c));
        if (own.unknown || called.unknown) return {};
        bool through_pointers = own.through_pointers || called.through_pointers;

        std::vector<promoted> chosen;
        for (SYMTAB* g : order) {
            object_in_loop& o = *objects.find(g);
            if (!o.parts.ok || mentions_volatile(g->type) || called.names(g) ||
                (through_pointers && !reached_only_directly(g)))
                continue;
            for (auto [off, type] : o.parts.at) {
                promoted p{g, off, type, {}, false, false, nullptr, nullptr};
                for (size_t i : o.accesses) {
                    const access_site& s = sites[i];
                    if (s.offset != off) continue;
                    p.slots.push_back(s.slot);
                    p.written |= s.written;
                    p.in_head |= s.in_head;
                }
                if (!benign_loads_ && !p.in_head) continue;
                chosen.push_back(std::move(p));
            }
        }
        std::stable_sort(chosen.begin(), chosen.end(),
                         [](const promoted& a, const promoted& b) { return a.slots.size() > b.slots.size(); });
        if (chosen.size() > MOST_PER_LOOP) chosen.resize(MOST_PER_LOOP);
        return chosen;
    }

    // The blocks where what the loop keeps goes back to memory, and whether
    // at their top: on each edge out of the loop a block of its own, or the
    // target itself (at its top) when every way into it is from the loop.
    // (Every block of a loop leads back to its head: returns are outside.)
    std::vector<std::pair<BBLK*, bool>> ways_out() {
        std::vector<std::pair<BBLK*, bool>> out;
        std::vector<std::pair<BBLK*, BBLK*>> edges;
        ptr_map<const BBLK*, bool> targets;
        for (EDGE* c = loop_->contents; c; c = c->rest) {
            BBLK* b = c->bb;
            for (EDGE* s = b->successors; s; s = s->rest)
                if (!inside(s->bb) &&
                    std::find(edges.begin(), edges.end(), std::make_pair(b, s->bb)) == edges.end())
                    edges.push_back({b, s->bb});
        }
        for (auto [from, to] : edges) {
            bool only_from_loop = true;
            for (EDGE* p = to->predecessors; p; p = p->rest) only_from_loop &= inside(p->bb);
            if (only_from_loop) {
                if (!targets.find(to)) out.push_back({to, true});
                targets[to] = true;
                continue;
            }
            BBLK* n = split_cfg_edge(from, to);
            // It belongs to the loops around this one that hold both ends.
            n->loop = nullptr;
            for (struct LOOP* l = loop_->parent; l; l = l->parent)
                if (loop_contains(l, from) && loop_contains(l, to)) {
                    if (!n->loop) n->loop = l;
                    l->contents = add_edge(n, l->contents);
                }
            out.push_back({n, false});
        }
        return out;
    }

    void report(const std::vector<promoted>& chosen) const {
        std::string what;
        for (const promoted& p : chosen) {
            if (!what.empty()) what += ", ";
            what += "'" + p.object->name + "'";
            if (is_aggregate_object(p.object)) what += "+" + std::to_string(p.offset);
            if (print_debug)
                DBG_CHECK(std::fprintf(FDEBUG, "register promotion: '%s'+%lld is kept in '%s' over loop #%d%s.\n",
                                       p.object->name.c_str(), static_cast<long long>(p.offset), p.temp->name.c_str(),
                                       loop_->uid, p.written ? ", stored back" : ""));
        }
        if (write_opt_info && finfo) {
            unsigned long long line = loop_->head->statements.empty() ? 0 : loop_->head->statements.front().pos.line;
            std::fprintf(finfo, "Loop at line %llu: %zu scalar%s of globals kept in temporaries while it runs: %s.\n",
                         line, chosen.size(), chosen.size() == 1 ? "" : "s", what.c_str());
        }
    }
};

// Values stored to scalars of globals, and of local arrays and structures
// whose address serves only their direct accesses, which later reads take
// instead of loading them again where every way to the read passes a store
// of the scalar and nothing since that may change it: availability over the
// flow graph, a bit per scalar stored.
class forwarder {
public:
    // Returns the loads replaced; `dead` gets the stores removed.
    int run(int& dead) {
        blocks_ = layout_blocks();
        find_local_objects();
        if (!collect()) return 0;
        solve();
        int forwarded = rewrite();
        dead = remove_dead_stores();
        return forwarded;
    }

private:
    using mask = uint64_t;
    static constexpr size_t MOST = 64;

    struct scalar {
        SYMTAB* object;
        int64_t offset, units;
        TYPE* type;
        SYMTAB* temp = nullptr;
        bool read_back = false;
    };
    struct read {
        NODE** slot;
        size_t scalar;
    };
    // What one statement does: what it may change before its reads, the
    // reads that may take a stored value, what its own store overwrites,
    // and what it may read.
    struct step {
        mask before = 0;
        std::vector<read> reads;
        mask after = 0;  // what its own store overlaps
        mask uses = 0;   // what it may read
        int stores = -1;  // the scalar it stores, or -1
    };
    std::vector<BBLK*> blocks_;
    std::vector<scalar> scalars_;
    std::vector<std::vector<step>> steps_;  // by block, by statement
    std::vector<mask> in_;

    ptr_map<const SYMTAB*, bool> locals_;  // local aggregates: whether only direct accesses reach them

    static int64_t units_of(const TYPE* t) { return static_cast<int64_t>((t->size + 15) / 16); }

    // Local arrays and structures reached only by direct accesses: no
    // pointer, no call can reach them, and nothing reads them once the
    // function ends.
    void find_local_objects() {
        ptr_map<const SYMTAB*, bool> escapes;
        std::vector<const SYMTAB*> seen;
        for (BBLK* b : blocks_)
            for (BODY_ENTRY& e : b->statements)
                for_each_local_access(e.tree, [&](const object_access& a) {
                    if (!is_aggregate_object(a.sym)) return;
                    if (!escapes.find(a.sym)) seen.push_back(a.sym);
                    bool& x = escapes[a.sym];
                    x = x || a.role == ADDRESS;
                });
        for (const SYMTAB* l : seen) locals_[l] = !*escapes.find(l);
    }

    bool wanted(const SYMTAB* o) const {
        if (o->global) return true;
        const bool* direct = locals_.find(o);
        return direct && *direct && !mentions_volatile(o->type);
    }

    // The scalar a top-level store writes, when it is one to keep.
    bool stored_scalar(const NODE* tree, direct_access& d, TYPE*& type) const {
        if (!tree || tree->opcode != ASG) return false;
        const NODE* own = tree->left;
        d = {};
        if (own->opcode == NAME && own->symbol && own->symbol->global && !is_aggregate_object(own->symbol))
            d.object = own->symbol;
        else if (own->opcode == UMULT)
            d = access_through(own->left, nullptr);
        if (!d.object || !wanted(d.object) || is_function_symbol(d.object) || !d.known) return false;
        type = own->type ? own->type->stripped() : nullptr;
        if (!type || !type->is_scalar() || type->size == 0 || is_volatile_access(own) || mentions_volatile(d.object->type))
            return false;
        int64_t offset = d.offset.as<int64_t>();
        return offset >= 0 && static_cast<uint64_t>(offset + units_of(type)) * 16 <= d.object->size;
    }

    mask overlapping(const SYMTAB* object, int64_t offset, int64_t units) const {
        mask m = 0;
        for (size_t k = 0; k < scalars_.size(); ++k) {
            const scalar& c = scalars_[k];
            if (c.object == object && offset < c.offset + c.units && c.offset < offset + units) m |= mask{1} << k;
        }
        return m;
    }

    mask of_object(const SYMTAB* object) const {
        mask m = 0;
        for (size_t k = 0; k < scalars_.size(); ++k)
            if (scalars_[k].object == object) m |= mask{1} << k;
        return m;
    }

    // The scalars stored, then what each statement does.
    bool collect() {
        for (BBLK* b : blocks_)
            for (const BODY_ENTRY& e : b->statements) {
                direct_access d;
                TYPE* type = nullptr;
                if (!stored_scalar(e.tree, d, type) || find(d.object, d.offset.as<int64_t>(), type) >= 0) continue;
                if (scalars_.size() == MOST) break;
                scalars_.push_back({d.object, d.offset.as<int64_t>(), units_of(type), type});
            }
        if (scalars_.empty()) return false;
        describe_all();
        return true;
    }

    void describe_all() {
        mask not_private = 0;
        for (size_t k = 0; k < scalars_.size(); ++k)
            if (scalars_[k].object->global && !reached_only_directly(scalars_[k].object)) not_private |= mask{1} << k;
        steps_.assign(blocks_.size(), {});
        for (size_t bi = 0; bi < blocks_.size(); ++bi)
            for (BODY_ENTRY& e : blocks_[bi]->statements) steps_[bi].push_back(describe(e.tree, not_private));
    }

    int find(const SYMTAB* object, int64_t offset, const TYPE* type) const {
        for (size_t k = 0; k < scalars_.size(); ++k)
            if (scalars_[k].object == object && scalars_[k].offset == offset && exact_types(scalars_[k].type, type))
                return static_cast<int>(k);
        return -1;
    }

    step describe(NODE*& tree, mask not_private) {
        step s;
        if (!tree) return s;
        if (tree->opcode == ASM) {
            s.before = s.uses = ~mask{0};
            return s;
        }
        memory_effects fx, called;  // the statement's own (the globals it names aside), its callees'
        std::vector<const SYMTAB*> callees;
        add_tree_effects(tree, fx, &callees);
        for (const SYMTAB* c : callees) called.merge(effects_of_function(c));
        if (fx.unknown || called.unknown) s.before = ~mask{0};
        if (fx.through_pointers || called.through_pointers) s.before |= not_private;
        for (size_t k = 0; k < scalars_.size(); ++k)
            if (called.names(scalars_[k].object)) s.before |= mask{1} << k;
        s.uses = s.before;
        NODE* own = tree->opcode == ASG ? tree->left : nullptr;
        for_each_access(
            tree, [&](const SYMTAB* o) { return wanted(o); },
            [&](const object_access& a) {
                if (*a.slot == own) return;
                if (a.role != PLACE) {
                    bool known = a.role != ADDRESS && (a.whole() ? !is_aggregate_object(a.sym) : a.where.known);
                    s.uses |= known ? overlapping(a.sym, a.whole() ? 0 : a.where.offset.as<int64_t>(),
                                                  units_of((*a.slot)->type->stripped()))
                                    : of_object(a.sym);
                }
                if (a.role != VALUE) {
                    s.before |= of_object(a.sym);
                    return;
                }
                if (a.slot == &tree || is_volatile_access(*a.slot) || (!a.whole() && !a.where.known)) return;
                int k = find(a.sym, a.whole() ? 0 : a.where.offset.as<int64_t>(), (*a.slot)->type->stripped());
                if (k >= 0) s.reads.push_back({a.slot, static_cast<size_t>(k)});
            });
        if (!own) return s;
        direct_access d;
        TYPE* type = nullptr;
        if (stored_scalar(tree, d, type)) {
            int64_t offset = d.offset.as<int64_t>();
            s.after = overlapping(d.object, offset, units_of(type));
            s.stores = find(d.object, offset, type);
        } else if (own->opcode == NAME || own->opcode == UMULT) {
            direct_access w = own->opcode == NAME ? direct_access{own->symbol, INT65(0), true} : access_through(own->left, nullptr);
            if (w.object && wanted(w.object)) s.after |= of_object(w.object);
        }
        return s;
    }

    // Available on entry to each block: on every way in, stored and not
    // changed since.
    void solve() {
        size_t n = blocks_.size();
        // Each block as out = (in & kept) | stored.
        std::vector<mask> kept(n, ~mask{0}), stored(n, 0);
        for (size_t i = 0; i < n; ++i)
            for (const step& s : steps_[i]) {
                kept[i] &= ~(s.before | s.after);
                stored[i] &= ~(s.before | s.after);
                if (s.stores >= 0) stored[i] |= mask{1} << s.stores;
            }
        in_ = solve_block_masks(blocks_, true, true, 0, kept, stored).meet;
    }

    int rewrite() {
        // The reads that take a stored value, by scalar.
        std::vector<std::pair<NODE**, size_t>> taken;
        for (size_t bi = 0; bi < blocks_.size(); ++bi) {
            mask avail = in_[bi];
            for (const step& s : steps_[bi]) {
                avail &= ~s.before;
                for (const read& r : s.reads)
                    if (avail >> r.scalar & 1) {
                        taken.push_back({r.slot, r.scalar});
                        scalars_[r.scalar].read_back = true;
                    }
                avail &= ~s.after;
                if (s.stores >= 0) avail |= mask{1} << s.stores;
            }
        }
        if (taken.empty()) return 0;
        for (scalar& c : scalars_)
            if (c.read_back && !(c.temp = make_local_temporary(c.type, c.object->name + ".s"))) return 0;
        for (auto [slot, k] : taken) {
            NODE* old = *slot;
            *slot = mk_NAME(scalars_[k].temp, old->type);
            erase_tree(old);
        }
        // Every store of a scalar read back sets its temporary: `t = e; x = t`.
        for (BBLK* b : blocks_)
            for (size_t i = 0; i < b->statements.size(); ++i) {
                NODE* tree = b->statements[i].tree;
                direct_access d;
                TYPE* type = nullptr;
                if (!stored_scalar(tree, d, type)) continue;
                int k = find(d.object, d.offset.as<int64_t>(), type);
                if (k < 0 || !scalars_[static_cast<size_t>(k)].temp) continue;
                SYMTAB* t = scalars_[static_cast<size_t>(k)].temp;
                NODE* value = tree->right;
                tree->right = mk_NAME(t, type);
                BODY_ENTRY set{BODY_ENTRY::STMT, mktree(ASG, type, mk_NAME(t, type), value), b->statements[i].pos};
                b->statements.insert(b->statements.begin() + static_cast<long>(i), set);
                ++i;
            }
        return static_cast<int>(taken.size());
    }

    // Stores that every way from them overwrites before anything may read
    // the scalar (the function's ends read every global, and no local): a
    // backward problem over the statements as they are now.
    int remove_dead_stores() {
        describe_all();
        size_t n = blocks_.size();
        // Each block as in = (out & kept) | overwritten.
        std::vector<mask> kept(n, ~mask{0}), overwritten(n, 0);
        for (size_t i = 0; i < n; ++i)
            for (auto s = steps_[i].rbegin(); s != steps_[i].rend(); ++s) {
                if (s->stores >= 0) overwritten[i] |= mask{1} << s->stores;
                kept[i] &= ~s->uses;
                overwritten[i] &= ~s->uses;
            }
        mask locals = 0;  // dead once the function ends
        for (size_t k = 0; k < scalars_.size(); ++k)
            if (!scalars_[k].object->global) locals |= mask{1} << k;
        std::vector<mask> out = solve_block_masks(blocks_, false, true, locals, kept, overwritten).meet;
        int removed = 0;
        for (size_t i = 0; i < n; ++i) {
            mask dead = out[i];
            std::vector<BODY_ENTRY>& st = blocks_[i]->statements;
            for (size_t j = st.size(); j-- > 0;) {
                const step& s = steps_[i][j];
                if (s.stores >= 0 && (dead >> s.stores & 1)) {
                    NODE* tree = st[j].tree;
                    if (print_debug)
                        DBG_CHECK(std::fprintf(FDEBUG, "\tDead store removed: %s\n", stmt2infix(tree).c_str()));
                    NODE* rest = peel_for_effect(tree->right);
                    tree->right = nullptr;
                    erase_tree(tree);
                    if (rest) st[j].tree = rest;
                    else st.erase(st.begin() + static_cast<long>(j));
                    ++removed;
                }
                if (s.stores >= 0) dead |= mask{1} << s.stores;
                dead &= ~s.uses;
            }
        }
        return removed;
    }
};

}  // namespace

int promote_vars_to_registers(bool benign_loads) {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list || !fi->eht.empty()) return 0;
    for (BBLK* b = fi->bb_list; b; b = b->next)
        for (const BODY_ENTRY& e : b->statements)
            if (e.tree && calls_own_frame_function(e.tree)) return 0;
    build_minimal_loop_hierarchy(false);
    std::vector<struct LOOP*> loops = fi->loops;
    std::stable_sort(loops.begin(), loops.end(),
                     [](const struct LOOP* a, const struct LOOP* b) { return loop_depth(a) > loop_depth(b); });
    promoter p(benign_loads);
    int total = 0;
    for (struct LOOP* l : loops) total += p.run(l);
    unbuild_loop_hierarchy();
    if (total) rebuildcfg();
    int dead = 0;
    int forwarded = forwarder().run(dead);
    if (forwarded && write_opt_info && finfo)
        std::fprintf(finfo, "Function %s(): %d load%s take%s the value stored before.\n",
                     currfunc->name.c_str(), forwarded, forwarded == 1 ? "" : "s", forwarded == 1 ? "s" : "");
    if (dead && write_opt_info && finfo)
        std::fprintf(finfo, "Function %s(): %d store%s overwritten or never read removed.\n",
                     currfunc->name.c_str(), dead, dead == 1 ? "" : "s");
    return total + forwarded + dead;
}
