#include "OPT5/park.h"

#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include "OPT5/abort.h"
#include "OPT5/bbutils.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/node.h"
#include "OPT5/symtab.h"
#include "UTIL/slab.h"

namespace {
const char THIS_MODULE[] = "OPT5/park";

// The packed form.  Integers are LEB128 varints; signed ones zigzag-coded.
// Pointers (types, symbols, file names) are written as the difference to the
// previous pointer of the same kind, which is small within a function.  A
// node is a header byte (which fields follow), its opcode, then those fields;
// trees are in preorder, a node before its left then its right operand.  A
// node's rare payloads are not copied: the packed body owns them while the
// function is parked.
constexpr unsigned H_LEFT = 1, H_RIGHT = 2, H_FLAGS = 4, H_VALUE = 8, H_SYMBOL = 16, H_CREATION = 32, H_EXTRA = 64,
                   H_TYPE = 128;

struct packer {
    std::vector<unsigned char>& out;
    uintptr_t last_type = 0, last_symbol = 0, last_file = 0, last_sym = 0;

    void uint(uint64_t v) {
        while (v >= 0x80) {
            out.push_back(static_cast<unsigned char>(v | 0x80));
            v >>= 7;
        }
        out.push_back(static_cast<unsigned char>(v));
    }
    void sint(int64_t v) { uint((static_cast<uint64_t>(v) << 1) ^ static_cast<uint64_t>(v >> 63)); }
    void pointer(const void* p, uintptr_t& last) {
        uintptr_t v = reinterpret_cast<uintptr_t>(p);
        sint(static_cast<int64_t>(v - last));
        last = v;
    }
    void raw(const void* p) {
        uintptr_t v = reinterpret_cast<uintptr_t>(p);
        for (int i = 0; i < 8; ++i) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
    }

    void node(NODE* n) {
        OPT_REQUIRE(n->opcode >= 0 && n->opcode < 256);
        unsigned h = (n->left ? H_LEFT : 0) | (n->right ? H_RIGHT : 0) |
                     (n->flags[0] | n->flags[1] | n->flags[2] | n->flags[3] ? H_FLAGS : 0) |
                     (n->value.is_zero() ? 0 : H_VALUE) | (n->symbol ? H_SYMBOL : 0) |
                     (n->creation_type != n->type ? H_CREATION : 0) | (n->has_extra() ? H_EXTRA : 0) |
                     (reinterpret_cast<uintptr_t>(n->type) != last_type ? H_TYPE : 0);
        out.push_back(static_cast<unsigned char>(h));
        out.push_back(static_cast<unsigned char>(n->opcode));
        if (h & H_TYPE) pointer(n->type, last_type);
        if (h & H_FLAGS) out.insert(out.end(), n->flags, n->flags + 4);
        if (h & H_VALUE) {
            sint(n->value.sign_word());
            sint(static_cast<int64_t>(n->value.low_word()));
        }
        if (h & H_SYMBOL) pointer(n->symbol, last_symbol);
        if (h & H_CREATION) raw(n->creation_type);
        if (h & H_EXTRA) raw(n->release_extra());
    }

    // Packs the tree and erases it in the same walk (its payloads now belong
    // to the bytes).
    void tree(NODE* root) {
        thread_local std::vector<NODE*> work;
        work.assign(1, root);
        while (!work.empty()) {
            NODE* n = work.back();
            work.pop_back();
            OPT_REQUIRE(n->opcode != CSE_DUPE);  // a shared operand would be packed twice
            node(n);
            if (n->right) work.push_back(n->right);
            if (n->left) work.push_back(n->left);
            erase_node(n);
        }
    }

    void entry(const BODY_ENTRY& e) {
        out.push_back(static_cast<unsigned char>(e.kind));
        uint(static_cast<uint64_t>(e.control));
        pointer(e.pos.file, last_file);
        uint(e.pos.line);
        uint(e.pos.col);
        pointer(e.sym, last_sym);
        out.push_back(e.tree ? 1 : 0);
        if (e.tree) tree(e.tree);
    }
};

struct unpacker {
    const unsigned char* at;
    const unsigned char* end;
    uintptr_t last_type = 0, last_symbol = 0, last_file = 0, last_sym = 0;

    unsigned byte() {
        OPT_REQUIRE(at < end);
        return *at++;
    }
    uint64_t uint() {
        uint64_t v = 0;
        for (int shift = 0;; shift += 7) {
            unsigned b = byte();
            v |= static_cast<uint64_t>(b & 0x7f) << shift;
            if (!(b & 0x80)) return v;
        }
    }
    int64_t sint() {
        uint64_t v = uint();
        return static_cast<int64_t>((v >> 1) ^ (~(v & 1) + 1));
    }
    uintptr_t pointer(uintptr_t& last) {
        last += static_cast<uintptr_t>(sint());
        return last;
    }
    uintptr_t raw() {
        uintptr_t v = 0;
        for (int i = 0; i < 8; ++i) v |= static_cast<uintptr_t>(byte()) << (8 * i);
        return v;
    }

    NODE* node(unsigned& h) {
        h = byte();
        NODE* n = new_node(NOP, nullptr);
        n->opcode = static_cast<int>(byte());
        if (h & H_TYPE) pointer(last_type);
        n->type = reinterpret_cast<TYPE*>(last_type);
        n->creation_type = n->type;
        if (h & H_FLAGS)
            for (unsigned char& f : n->flags) f = static_cast<unsigned char>(byte());
        if (h & H_VALUE) {
            int32_t sign = static_cast<int32_t>(sint());
            uint64_t low = static_cast<uint64_t>(sint());
            n->value = INT65::from_words(sign, low);
        }
        if (h & H_SYMBOL) n->symbol = reinterpret_cast<SYMTAB*>(pointer(last_symbol));
        if (h & H_CREATION) n->creation_type = reinterpret_cast<TYPE*>(raw());
        if (h & H_EXTRA) n->adopt_extra(reinterpret_cast<NODE_EXTRA*>(raw()));
        return n;
    }

    NODE* tree() {
        NODE* root = nullptr;
        thread_local std::vector<NODE**> slots;
        slots.assign(1, &root);
        while (!slots.empty()) {
            NODE** slot = slots.back();
            slots.pop_back();
            unsigned h;
            NODE* n = node(h);
            *slot = n;
            if (h & H_RIGHT) slots.push_back(&n->right);
            if (h & H_LEFT) slots.push_back(&n->left);
        }
        return root;
    }

    BODY_ENTRY entry() {
        BODY_ENTRY e;
        e.kind = static_cast<BODY_ENTRY::KIND>(byte());
        e.control = static_cast<int>(uint());
        e.pos.file = reinterpret_cast<const char*>(pointer(last_file));
        e.pos.line = uint();
        e.pos.col = uint();
        e.sym = reinterpret_cast<I_SYMTAB*>(pointer(last_sym));
        if (byte()) e.tree = tree();
        return e;
    }
};

// The largest statement list let go of lately, kept for the next function
// read or unparked, so that its storage is not allocated again.
thread_local std::vector<BODY_ENTRY> spare;

// Where parked bodies live.  Each slab begins with the count of bodies in
// it not yet let go of; slabs are aligned to their size, so a body finds its
// slab by rounding its address down.
class park_store {
public:
    unsigned char* allocate(size_t n) {
        if (n > large) return static_cast<unsigned char*>(::operator new(n));
        std::lock_guard<std::mutex> lock(mutex_);
        if (!current_ || used_ + n > SLAB_BYTES) {
            if (free_slabs_.empty()) {
                current_ = static_cast<unsigned char*>(allocate_slab());
            } else {
                current_ = free_slabs_.back();
                free_slabs_.pop_back();
            }
            live(current_) = 0;
            used_ = head;
        }
        unsigned char* p = current_ + used_;
        used_ += n;
        ++live(current_);
        return p;
    }
    void release(unsigned char* p, size_t n) {
        if (n > large) {
            ::operator delete(p);
            return;
        }
        unsigned char* slab = reinterpret_cast<unsigned char*>(reinterpret_cast<uintptr_t>(p) & ~(SLAB_BYTES - 1));
        std::lock_guard<std::mutex> lock(mutex_);
        if (--live(slab) > 0) return;
        if (slab == current_)
            used_ = head;
        else
            free_slabs_.push_back(slab);
    }

private:
    static constexpr size_t head = 64;  // the count, and room to keep bodies aligned
    static constexpr size_t large = SLAB_BYTES / 4;
    static size_t& live(unsigned char* slab) { return *reinterpret_cast<size_t*>(slab); }

    std::mutex mutex_;
    unsigned char* current_ = nullptr;
    size_t used_ = 0;
    std::vector<unsigned char*> free_slabs_;
};

park_store& store() {
    static park_store* s = new park_store;  // lives to the end of the run, like the bodies in it
    return *s;
}

}  // namespace

void parked_body::assign(const unsigned char* bytes, size_t n) {
    clear();
    if (n == 0) return;
    data_ = store().allocate(n);
    size_ = n;
    std::memcpy(data_, bytes, n);
}

void parked_body::clear() {
    if (data_) store().release(data_, size_);
    data_ = nullptr;
    size_ = 0;
}

void spare_body(std::vector<BODY_ENTRY>& body) {
    body.clear();
    if (body.capacity() > spare.capacity()) body.swap(spare);
    std::vector<BODY_ENTRY>().swap(body);
}

void take_spare_body(std::vector<BODY_ENTRY>& body) {
    if (!body.empty() || body.capacity() >= spare.capacity()) return;
    body.swap(spare);
}

void park_function() {
    FUNINFO* fi = currfuninfo;
    if (fi->is_parked) return;
    if (fi->bb_list) unbuildcfg();
    fi->unparked_without_cfg = false;
    // Packed into a buffer kept from one function to the next, then copied
    // once to a block of the exact size.
    thread_local std::vector<unsigned char> scratch;
    scratch.clear();
    packer p{scratch};
    p.uint(fi->body.size());
    for (const BODY_ENTRY& e : fi->body) p.entry(e);
    fi->parked.assign(scratch.data(), scratch.size());
    ++fi->packings;
    spare_body(fi->body);
    fi->is_parked = true;
    recycle_erased_nodes();  // parking happens between steps: no step holds a node
}

namespace {
void unpack_body(FUNINFO* fi) {
    unpacker u{fi->parked.data(), fi->parked.data() + fi->parked.size()};
    size_t n = static_cast<size_t>(u.uint());
    take_spare_body(fi->body);
    fi->body.reserve(n);
    for (size_t i = 0; i < n; ++i) fi->body.push_back(u.entry());
    OPT_REQUIRE(u.at == u.end);
    fi->is_parked = false;
    fi->unparked_without_cfg = true;
    note_address_change();
}
}  // namespace

void unpark_statements() {
    FUNINFO* fi = currfuninfo;
    if (!fi->is_parked) return;
    unpack_body(fi);
    fi->parked.clear();
    fi->summary.reset();  // what was read from the bytes goes with them
}

void unpark_statements_keeping_bytes() {
    FUNINFO* fi = currfuninfo;
    if (fi->is_parked) unpack_body(fi);
}

void repark_unchanged() {
    FUNINFO* fi = currfuninfo;
    if (fi->is_parked || !fi->parked.data()) return;  // it was not parked
    OPT_REQUIRE(!fi->bb_list);
    // What nodes hold out of line belongs to the bytes, which keep it.
    std::vector<NODE*> work;
    for (const BODY_ENTRY& e : fi->body) {
        if (e.tree) work.push_back(e.tree);
        while (!work.empty()) {
            NODE* n = work.back();
            work.pop_back();
            if (n->has_extra()) n->release_extra();
            if (n->left) work.push_back(n->left);
            if (n->right) work.push_back(n->right);
        }
    }
    erase_tree_list(fi->body);
    spare_body(fi->body);
    fi->unparked_without_cfg = false;
    fi->is_parked = true;
    recycle_erased_nodes();
}

void unpark_function() {
    FUNINFO* fi = currfuninfo;
    unpark_statements();
    if (!fi->unparked_without_cfg) return;
    fi->unparked_without_cfg = false;
    buildcfg();
}
