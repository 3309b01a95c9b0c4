#include "OPT5/stack_sharing.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/call_graph.h"
#include "OPT5/cmdline.h"
#include "OPT5/funinfo.h"
#include "OPT5/object_access.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/simp.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"

namespace {
const char THIS_MODULE[] = "OPT5/stack_sharing";

using mask = uint64_t;
constexpr size_t MAX_CANDIDATES = 64;  // one bit each

// What one statement does with the candidates.
struct stmt_use {
    mask accessed = 0, read = 0;
};

class sharer {
public:
    int run() {
        FUNINFO* fi = currfuninfo;
        if (!fi->eht.empty() || !find_candidates()) return 0;
        note_uses();
        find_conflicts();
        return choose_and_rename();
    }

private:
    struct candidate {
        SYMTAB* sym;
        bool whole = false;  // read or written as a whole somewhere
        mask conflicts = 0;
    };
    std::vector<candidate> cands_;
    ptr_map<const SYMTAB*, int> bit_;  // candidate -> its index and bit
    std::vector<BBLK*> blocks_;
    std::vector<std::vector<stmt_use>> uses_;  // per block, per statement

    // The locals that may share, largest first; false when there are fewer
    // than two or the function can't take part.
    bool find_candidates() {
        FUNINFO* fi = currfuninfo;
        struct local {
            bool may_share = true;
            bool through_address = false;
            bool variable_offset = false;
            bool whole_access = false;
        };
        ptr_map<const SYMTAB*, local> locals;
        std::vector<SYMTAB*> declared = function_locals(fi);
        for (SYMTAB* s : declared) locals[s].may_share = !mentions_volatile(s->type);
        blocks_ = layout_blocks();
        for (BBLK* b : blocks_)
            for (BODY_ENTRY& e : b->statements) {
                bool plain = for_each_local_access(e.tree, [&](const object_access& a) {
                    local* l = locals.find(a.sym);
                    if (!l) return;
                    if (a.role == ADDRESS || is_volatile_access(*a.slot)) l->may_share = false;
                    if (!a.whole()) l->through_address = true;
                    if (!a.where.known) l->variable_offset = true;
                    if (a.whole()) l->whole_access = true;
                });
                if (!plain || calls_own_frame_function(e.tree)) return false;
            }
        for (SYMTAB* s : declared) {
            const local* l = locals.find(s);
            // One reached only at known offsets is left to "explode auto
            // structs", which makes variables of its parts.
            if (l->may_share && (l->variable_offset || l->whole_access) && (is_aggregate_object(s) || l->through_address) && s->size > 0)
                cands_.push_back({s});
        }
        std::stable_sort(cands_.begin(), cands_.end(),
                         [](const candidate& a, const candidate& b) { return a.sym->size > b.sym->size; });
        if (cands_.size() > MAX_CANDIDATES) cands_.resize(MAX_CANDIDATES);
        for (size_t i = 0; i < cands_.size(); ++i) bit_[cands_[i].sym] = static_cast<int>(i);
        return cands_.size() >= 2;
    }


    void note_uses() {
        uses_.assign(blocks_.size(), {});
        for (size_t b = 0; b < blocks_.size(); ++b)
            for (BODY_ENTRY& e : blocks_[b]->statements) {
                stmt_use u;
                for_each_local_access(e.tree, [&](const object_access& a) {
                    const int* i = bit_.find(a.sym);
                    if (!i) return;
                    mask m = mask{1} << *i;
                    u.accessed |= m;
                    if (a.role != PLACE) u.read |= m;
                    if (a.whole()) cands_[static_cast<size_t>(*i)].whole = true;
                });
                uses_[b].push_back(u);
            }
    }

    // Two candidates conflict when, at some point, both may have been
    // accessed and may still be read, or when one statement accesses both
    // or accesses one while the other is in use across it.
    void find_conflicts() {
        size_t nb = blocks_.size();
        std::vector<mask> acc(nb, 0), rd(nb, 0), keep(nb, ~mask{0});
        for (size_t b = 0; b < nb; ++b)
            for (const stmt_use& u : uses_[b]) {
                acc[b] |= u.accessed;
                rd[b] |= u.read;
            }
        std::vector<mask> started_in = solve_block_masks(blocks_, true, false, 0, keep, acc).meet;
        block_masks needed = solve_block_masks(blocks_, false, false, 0, keep, rd);
        const std::vector<mask>& needed_in = needed.result;
        const std::vector<mask>& needed_out = needed.meet;
        std::vector<mask> needed_after;
        for (size_t b = 0; b < nb; ++b) {
            const std::vector<stmt_use>& us = uses_[b];
            needed_after.assign(us.size(), 0);
            mask need = needed_out[b];
            for (size_t k = us.size(); k-- > 0;) {
                needed_after[k] = need;
                need |= us[k].read;
            }
            mask started = started_in[b];
            clash(started & needed_in[b]);
            for (size_t k = 0; k < us.size(); ++k) {
                mask before = started & (needed_after[k] | us[k].read);
                started |= us[k].accessed;
                mask after = started & needed_after[k];
                clash(before);
                clash(after);
                clash((before & after) | us[k].accessed, us[k].accessed);
            }
        }
    }

    // Every member of `a` conflicts with every member of `b`.
    void clash(mask a, mask b) {
        for (mask m = a; m; m &= m - 1) cands_[static_cast<size_t>(std::countr_zero(m))].conflicts |= b;
        for (mask m = b; m; m &= m - 1) cands_[static_cast<size_t>(std::countr_zero(m))].conflicts |= a;
    }
    void clash(mask a) { clash(a, a); }

    // The scalar an array (of arrays) is made of; null for anything else.
    static const TYPE* element_of(TYPE* t) {
        t = t->stripped();
        if (t->kind != TYPE::ARRAY_T) return nullptr;
        while (t->kind == TYPE::ARRAY_T && t->base) t = t->base->stripped();
        return t->is_scalar() ? t : nullptr;
    }

    // Locals of one type share, and arrays of one element type: every
    // offset of the shared object is then read as one type, so that its
    // parts may still become variables once unrolling makes its indices
    // constants.
    static bool fits_in(const candidate& c, const SYMTAB* host) {
        if (exact_types(c.sym->type, host->type)) return true;
        const TYPE* e = element_of(c.sym->type);
        const TYPE* h = element_of(host->type);
        return e && h && exact_types(e, h) && !c.whole && host->size >= c.sym->size && host->align >= c.sym->align;
    }

    int choose_and_rename() {
        struct slot {
            size_t host;
            mask members;
        };
        std::vector<slot> slots;
        ptr_map<const SYMTAB*, SYMTAB*> host_of;
        int shared = 0;
        unsigned long long units = 0;
        for (size_t i = 0; i < cands_.size(); ++i) {
            candidate& c = cands_[i];
            slot* into = nullptr;
            for (slot& s : slots)
                if (!(s.members & c.conflicts) && fits_in(c, cands_[s.host].sym)) {
                    into = &s;
                    break;
                }
            if (!into) {
                slots.push_back({i, mask{1} << i});
                continue;
            }
            into->members |= mask{1} << i;
            SYMTAB* host = cands_[into->host].sym;
            host_of[c.sym] = host;
            ++shared;
            units += c.sym->size / 16;
            if (print_debug)
                DBG_CHECK(std::fprintf(FDEBUG, "stack sharing: '%s' uses the storage of '%s'.\n", c.sym->name.c_str(),
                                       host->name.c_str()));
        }
        if (!shared) return 0;
        note_address_change();  // a shared local's address becomes its host's
        for (BBLK* b : blocks_)
            for (BODY_ENTRY& e : b->statements)
                for_each_local_access(e.tree, [&](const object_access& a) {
                    SYMTAB* const* host = host_of.find(a.sym);
                    if (!host) return;
                    NODE** slot = a.whole() ? a.slot : a.address;
                    NODE* n = *slot;
                    NODE* name = a.whole() ? n : n->left;
                    bool same = exact_types(a.sym->type, (*host)->type);
                    name->symbol = *host;
                    if (same) return;
                    // The host's address, converted to the pointer the
                    // local's address was.
                    name->type = (*host)->type;
                    TYPE* pointer = n->type;
                    n->type = type_pkg->mk_ptr((*host)->type);
                    *slot = mktree(PCONV, pointer, n);
                });
        if (write_opt_info && finfo)
            std::fprintf(finfo, "Function %s(): %d local%s share%s storage with others, %llu units less.\n",
                         currfunc->name.c_str(), shared, shared == 1 ? "" : "s", shared == 1 ? "s" : "", units);
        return shared;
    }
};

}  // namespace

int share_stack_storage() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return 0;
    sharer s;
    return s.run();
}
