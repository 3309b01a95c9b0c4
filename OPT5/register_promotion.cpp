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
                fold_access_offsets(e.tree, true);
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

// Values stored to scalars of globals, which the reads after the store in
// its block, and in the blocks only it falls into, take instead of loading
// them again.
class forwarder {
public:
    int run() {
        int forwarded = 0;
        BBLK* prev = nullptr;
        for (BBLK* b : layout_blocks()) {
            bool continues = prev && b->prev == prev && b->predecessors && !b->predecessors->rest &&
                             b->predecessors->bb == prev;
            if (!continues) stored_.clear();
            for (size_t i = 0; i < b->statements.size(); ++i) forwarded += statement(b, i);
            prev = b;
        }
        return forwarded;
    }

private:
    struct stored {
        SYMTAB* object;
        int64_t offset, units;
        TYPE* type;
        BBLK* block;
        size_t at;                 // the store, in its block
        const NODE* constant;      // the value stored, when it is a constant
        SYMTAB* temp = nullptr;    // else the temporary that holds it, once one is made
        bool split = false;        // the temporary is to be set in front of the store
    };
    std::vector<stored> stored_;
    static constexpr size_t MOST = 16;

    static bool overlaps(const stored& s, int64_t offset, int64_t units) {
        return offset < s.offset + s.units && s.offset < offset + units;
    }
    static int64_t units_of(const TYPE* t) { return static_cast<int64_t>((t->size + 15) / 16); }

    void forget(const SYMTAB* object) {
        std::erase_if(stored_, [&](const stored& s) { return s.object == object; });
    }

    // One statement: its reads take what is known, then what it changes is
    // forgotten and what it stores is known.
    int statement(BBLK* b, size_t& i) {
        NODE* tree = b->statements[i].tree;
        if (!tree) return 0;
        if (tree->opcode == ASM) {
            stored_.clear();
            return 0;
        }
        // What the statement may change before its own store.
        memory_effects fx, called;  // the statement's own (the globals it names aside), its callees'
        std::vector<const SYMTAB*> callees;
        add_tree_effects(tree, fx, &callees);
        for (const SYMTAB* c : callees) called.merge(effects_of_function(c));
        fx.unknown |= called.unknown;
        fx.through_pointers |= called.through_pointers;
        std::vector<const SYMTAB*> changed;  // objects the statement writes other than by its own store
        NODE* own = tree->opcode == ASG ? tree->left : nullptr;
        for_each_access(
            tree, [](const SYMTAB* s) { return s->global; },
            [&](const object_access& a) {
                if (a.role != VALUE && *a.slot != own) changed.push_back(a.sym);
            });
        auto disturbed = [&](const stored& s) {
            return fx.unknown || called.names(s.object) || (fx.through_pointers && !reached_only_directly(s.object)) ||
                   std::find(changed.begin(), changed.end(), s.object) != changed.end();
        };
        std::erase_if(stored_, disturbed);

        int forwarded = 0;
        for_each_access(
            tree, [](const SYMTAB* s) { return s->global; },
            [&](const object_access& a) {
                if (a.role != VALUE || is_volatile_access(*a.slot)) return;
                if (!a.whole() && !a.where.known) return;
                int64_t offset = a.whole() ? 0 : a.where.offset.as<int64_t>();
                for (stored& s : stored_)
                    if (s.object == a.sym && s.offset == offset && exact_types(s.type, (*a.slot)->type->stripped())) {
                        if (!s.constant && !s.temp) {
                            s.temp = make_local_temporary(s.type, s.object->name + ".s");
                            if (!s.temp) return;
                            s.split = true;
                        }
                        NODE* read = *a.slot;
                        *a.slot = s.constant ? copy_tree(s.constant) : mk_NAME(s.temp, s.type);
                        (*a.slot)->type = read->type;
                        erase_tree(read);
                        ++forwarded;
                        return;
                    }
            });
        b->statements[i].tree = tree;
        split_stores(b, i);

        // Its own store.
        if (!own) return forwarded;
        direct_access d;
        if (own->opcode == NAME && own->symbol && own->symbol->global && !is_aggregate_object(own->symbol))
            d.object = own->symbol;
        else if (own->opcode == UMULT)
            d = access_through(own->left, nullptr);
        if (!d.object || !d.object->global || is_function_symbol(d.object)) return forwarded;
        if (!d.known) {
            forget(d.object);
            return forwarded;
        }
        TYPE* type = own->type ? own->type->stripped() : nullptr;
        int64_t offset = d.offset.as<int64_t>();
        if (!type || !type->is_scalar() || type->size == 0 || is_volatile_access(own) || mentions_volatile(d.object->type)) {
            forget(d.object);
            return forwarded;
        }
        int64_t units = units_of(type);
        std::erase_if(stored_, [&](const stored& s) { return s.object == d.object && overlaps(s, offset, units); });
        if (offset < 0 || static_cast<uint64_t>(offset + units) * 16 > d.object->size) return forwarded;
        if (stored_.size() >= MOST) stored_.erase(stored_.begin());
        const NODE* constant = tree->right && tree->right->opcode == ICON ? tree->right : nullptr;
        stored_.push_back({d.object, offset, units, type, b, i, constant});
        return forwarded;
    }

    // Stores whose values got a temporary: `x = e` becomes `t = e; x = t`.
    void split_stores(BBLK* current, size_t& i) {
        for (stored& s : stored_) {
            if (!s.split) continue;
            s.split = false;
            BODY_ENTRY& e = s.block->statements[s.at];
            NODE* value = e.tree->right;
            e.tree->right = mk_NAME(s.temp, s.type);
            BODY_ENTRY set{BODY_ENTRY::STMT, mktree(ASG, s.type, mk_NAME(s.temp, s.type), value), e.pos};
            s.block->statements.insert(s.block->statements.begin() + static_cast<long>(s.at), set);
            for (stored& o : stored_)
                if (o.block == s.block && o.at >= s.at) ++o.at;
            if (s.block == current) ++i;  // the store was before the statement being read
        }
    }
};

}  // namespace

int promote_vars_to_registers(bool benign_loads) {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list || !fi->eht.empty()) return 0;
    for (BBLK* b = fi->bb_list; b; b = b->next)
        for (const BODY_ENTRY& e : b->statements)
            if (e.tree && calls_own_frame_function(e.tree)) return 0;
    build_loop_hierarchy(false, false, false, 0);
    std::vector<struct LOOP*> loops = fi->loops;
    std::stable_sort(loops.begin(), loops.end(),
                     [](const struct LOOP* a, const struct LOOP* b) { return loop_depth(a) > loop_depth(b); });
    promoter p(benign_loads);
    int total = 0;
    for (struct LOOP* l : loops) total += p.run(l);
    unbuild_loop_hierarchy();
    if (total) rebuildcfg();
    int forwarded = forwarder().run();
    if (forwarded && write_opt_info && finfo)
        std::fprintf(finfo, "Function %s(): %d load%s of globals take%s the value stored just before.\n",
                     currfunc->name.c_str(), forwarded, forwarded == 1 ? "" : "s", forwarded == 1 ? "s" : "");
    return total + forwarded;
}
