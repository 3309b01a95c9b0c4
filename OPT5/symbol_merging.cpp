#include "OPT5/symbol_merging.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "BITVEC/bitvec.h"
#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/cmdline.h"
#include "OPT5/copyprop.h"
#include "OPT5/ddbloop.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/ptr_map.h"
#include "UTIL/small_vector.h"

namespace {
const char THIS_MODULE[] = "OPT5/symbol_merging";

// The interference matrix grows with the square of the candidates.
constexpr size_t MAX_CANDIDATES = 1024;

// A set of candidates, a bit each.
class cand_set {
public:
    explicit cand_set(size_t n = 0) : words_((n + 63) / 64, 0) {}
    void set(size_t i) { words_[i / 64] |= uint64_t{1} << (i % 64); }
    void reset(size_t i) { words_[i / 64] &= ~(uint64_t{1} << (i % 64)); }
    bool test(size_t i) const { return words_[i / 64] >> (i % 64) & 1; }
    void clear() { std::fill(words_.begin(), words_.end(), 0); }
    void unite(const cand_set& o) {
        for (size_t w = 0; w < words_.size(); ++w) words_[w] |= o.words_[w];
    }
    template <typename F>
    void each(F&& f) const {
        for (size_t w = 0; w < words_.size(); ++w)
            for (uint64_t m = words_[w]; m; m &= m - 1) f(w * 64 + static_cast<size_t>(std::countr_zero(m)));
    }

private:
    std::vector<uint64_t> words_;
};

// A variable of the source: the names the steps and the inliner make hold
// a '.', which no C identifier does.
bool is_source_variable(const SYMTAB* s) { return s->name.find('.') == std::string::npos; }

// A copy `a = b` between two tracked variables of exactly the same type.
bool is_copy(const NODE* t) {
    return t && t->opcode == ASG && t->left && t->right && t->left->opcode == NAME && t->right->opcode == NAME &&
           t->left->symbol != t->right->symbol && lva_index(t->left->symbol) >= 0 &&
           lva_index(t->right->symbol) >= 0 && exact_types(t->left->symbol->type, t->right->symbol->type);
}

class merger {
public:
    int run() {
        FUNINFO* fi = currfuninfo;
        if (has_inline_assembly(fi->bb_list)) return 0;
        find_live_variables(false, false);
        blocks_ = layout_blocks();
        if (!find_candidates()) {
            free_liveness(fi);
            return 0;
        }
        find_interference();
        free_liveness(fi);
        return join_and_rename();
    }

private:
    struct copy_site {
        const NODE* tree;
        int depth;  // loops around it
    };
    std::vector<BBLK*> blocks_;
    std::vector<SYMTAB*> cands_;
    ptr_map<const SYMTAB*, size_t> index_;
    std::vector<copy_site> copies_;
    std::vector<cand_set> interferes_;
    cand_set arguments_;

    int candidate(const NODE* n) const {
        if (!n || n->opcode != NAME) return -1;
        const size_t* i = index_.find(n->symbol);
        return i ? static_cast<int>(*i) : -1;
    }

    bool find_candidates() {
        build_minimal_loop_hierarchy(false);
        for (BBLK* b : blocks_) {
            int depth = 0;
            for (const struct LOOP* l = b->loop; l; l = l->parent) ++depth;
            for (const BODY_ENTRY& e : b->statements) {
                if (!is_copy(e.tree)) continue;
                copies_.push_back({e.tree, depth});
                for (SYMTAB* s : {e.tree->left->symbol, e.tree->right->symbol})
                    if (!index_.find(s) && cands_.size() < MAX_CANDIDATES) {
                        index_[s] = cands_.size();
                        cands_.push_back(s);
                    }
            }
        }
        unbuild_loop_hierarchy();
        std::stable_sort(copies_.begin(), copies_.end(),
                         [](const copy_site& a, const copy_site& b) { return a.depth > b.depth; });
        interferes_.assign(cands_.size(), cand_set(cands_.size()));
        return !copies_.empty();
    }

    void interfere(size_t a, const cand_set& with) {
        interferes_[a].unite(with);
        with.each([&](size_t z) { interferes_[z].set(a); });
        interferes_[a].reset(a);
    }

    // What a statement does with the candidates.
    struct facts {
        small_vector<int, 8> uses, kills, defs;
        bool root_def_only = false;  // one assignment, at the root: `d = e` with e assigning nothing
        int copy_source = -1;
    };

    facts scan(const NODE* stmt) const {
        facts f;
        struct item {
            const NODE* n;
            bool conditional;
        };
        small_vector<item, 32> work;
        work.push_back({stmt, false});
        while (!work.empty()) {
            auto [n, conditional] = work.back();
            work.pop_back();
            if (!n || n->opcode == LABEL || n->opcode == FIELD) continue;
            int c = candidate(n);
            if (c >= 0) {
                f.uses.push_back(c);
                continue;
            }
            if (is_assignment(n->opcode) && n->left && n->left->opcode == NAME) {
                int d = candidate(n->left);
                if (d >= 0) {
                    f.defs.push_back(d);
                    if (n->opcode != ASG) f.uses.push_back(d);
                    else if (!conditional) f.kills.push_back(d);
                }
                work.push_back({n->right, conditional});
                continue;
            }
            bool cond_right = n->opcode == QUEST || n->opcode == ANDAND || n->opcode == OROR;
            work.push_back({n->left, conditional});
            work.push_back({n->right, conditional || cond_right});
        }
        if (f.defs.size() == 1 && stmt->opcode == ASG && candidate(stmt->left) == f.defs[0]) {
            f.root_def_only = true;
            if (is_copy(stmt)) f.copy_source = candidate(stmt->right);
        }
        return f;
    }

    void find_interference() {
        size_t n = cands_.size();
        cand_set live(n), with(n);
        auto live_in = [&](const BBLK* b, cand_set& into) {
            if (!b->live_in) return;
            for (size_t k = 0; k < n; ++k)
                if (b->live_in->test(static_cast<size_t>(lva_index(cands_[k])))) into.set(k);
        };
        for (BBLK* b : blocks_) {
            live.clear();
            for (EDGE* e = b->successors; e; e = e->rest) live_in(e->bb, live);
            for (size_t i = b->statements.size(); i-- > 0;) {
                const NODE* t = b->statements[i].tree;
                if (!t) continue;
                facts f = scan(t);
                for (int d : f.defs) {
                    with = live;
                    if (f.root_def_only) {
                        if (f.copy_source >= 0) with.reset(static_cast<size_t>(f.copy_source));
                    } else {
                        for (int u : f.uses) with.set(static_cast<size_t>(u));
                        for (int o : f.defs) with.set(static_cast<size_t>(o));
                    }
                    interfere(static_cast<size_t>(d), with);
                }
                for (int k : f.kills) live.reset(static_cast<size_t>(k));
                for (int u : f.uses) live.set(static_cast<size_t>(u));
            }
        }
        // The entry assigns the arguments; what is live there holds values
        // from before the function (arguments) or none yet (the rest), and
        // each keeps its own.
        live.clear();
        live_in(currfuninfo->bb_list, live);
        arguments_ = cand_set(n);
        for (const FUNC_SYM& fs : function_symbols()) {
            const size_t* k = index_.find(fs.sym);
            if (fs.is_arg && k) arguments_.set(*k);
        }
        live.unite(arguments_);
        live.each([&](size_t k) { interfere(k, live); });
    }

    int join_and_rename() {
        size_t n = cands_.size();
        std::vector<size_t> group(n);
        std::vector<int> named(n, 0);  // per group: arguments and source variables in it
        for (size_t k = 0; k < n; ++k) {
            group[k] = k;
            named[k] = is_source_variable(cands_[k]) ? 1 : 0;
        }
        auto find = [&](size_t k) {
            while (group[k] != k) k = group[k] = group[group[k]];
            return k;
        };
        for (const copy_site& c : copies_) {
            int a = candidate(c.tree->left), b = candidate(c.tree->right);
            if (a < 0 || b < 0) continue;
            size_t ga = find(static_cast<size_t>(a)), gb = find(static_cast<size_t>(b));
            if (ga == gb || interferes_[ga].test(gb) || named[ga] + named[gb] > 1) continue;
            // The group's row stands for all its members.
            interfere(ga, interferes_[gb]);
            group[gb] = ga;
            named[ga] += named[gb];
        }
        // Each group's name: its argument, else its source variable, else
        // its first member.
        auto rank = [&](size_t k) { return arguments_.test(k) ? 2 : is_source_variable(cands_[k]) ? 1 : 0; };
        std::vector<size_t> name(n, n);
        for (size_t k = 0; k < n; ++k) {
            size_t g = find(k);
            if (name[g] == n || rank(k) > rank(name[g])) name[g] = k;
        }
        ptr_map<const SYMTAB*, SYMTAB*> renamed;
        for (size_t k = 0; k < n; ++k) {
            SYMTAB* to = cands_[name[find(k)]];
            if (to != cands_[k]) {
                renamed[cands_[k]] = to;
                if (print_debug)
                    DBG_CHECK(std::fprintf(FDEBUG, "merge symbols: '%s' becomes '%s'.\n", cands_[k]->name.c_str(),
                                           to->name.c_str()));
            }
        }
        if (renamed.empty()) return 0;
        int removed = 0;
        for (BBLK* b : blocks_) {
            std::vector<BODY_ENTRY>& st = b->statements;
            for (size_t i = 0; i < st.size();) {
                NODE* t = st[i].tree;
                auto rename = [&](NODE* c) {
                    if (c->opcode != NAME) return;
                    if (SYMTAB* const* to = renamed.find(c->symbol)) c->symbol = *to;
                };
                if (t) rename(t);
                walk_and_modify_tree(t, [&](NODE*& c) { rename(c); });
                if (t && t->opcode == ASG && t->left && t->right && t->left->opcode == NAME &&
                    t->right->opcode == NAME && t->left->symbol == t->right->symbol && candidate(t->left) >= 0) {
                    erase_tree(t);
                    st.erase(st.begin() + static_cast<long>(i));
                    ++removed;
                    continue;
                }
                ++i;
            }
        }
        return removed;
    }
};

}  // namespace

int merge_symbols() {
    FUNINFO* fi = currfuninfo;
    if (opt_level() < 2 || !fi || !fi->bb_list) return 0;
    int removed = merger().run();
    if (removed && write_opt_info && finfo)
        std::fprintf(finfo, "Function %s(): %d cop%s removed by merging the variables %s.\n", currfunc->name.c_str(),
                     removed, removed == 1 ? "y" : "ies", removed == 1 ? "it joins" : "they join");
    return removed;
}
