// A hash map keyed by pointers, for the maps an analysis fills and then
// asks: open addressing with linear probing in one array, so an entry costs
// no allocation of its own and a lookup touches one or two cache lines.
// Entries are never erased one by one; clear() empties the map.  The null
// pointer marks an empty slot and is not a key.  A map cleared and filled
// again keeps its first array.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

template <class K, class V>
class ptr_map {
    static_assert(std::is_pointer_v<K>, "ptr_map keys are pointers");

public:
    V* find(K key) { return const_cast<V*>(std::as_const(*this).find(key)); }
    const V* find(K key) const {
        if (!key || slots_.empty()) return nullptr;
        for (size_t i = hash(key) & mask();; i = (i + 1) & mask()) {
            const SLOT& s = slots_[i];
            if (s.key == key) return &s.value;
            if (!s.key) return nullptr;
        }
    }
    // The entry for `key`, made with a value-initialized V when missing.
    V& operator[](K key) {
        if ((size_ + 1) * 4 > slots_.size() * 3) grow();
        size_t i = hash(key) & mask();
        while (slots_[i].key && slots_[i].key != key) i = (i + 1) & mask();
        if (!slots_[i].key) {
            slots_[i].key = key;
            ++size_;
        }
        return slots_[i].value;
    }
    // f(key, value) for every entry, in no particular order.
    template <class F>
    void for_each(F&& f) const {
        for (const SLOT& s : slots_)
            if (s.key) f(s.key, s.value);
    }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    void clear() {
        slots_.clear();
        size_ = 0;
    }
    void reserve(size_t n) {
        while (slots_.size() * 3 < n * 4) grow();
    }

private:
    struct SLOT {
        K key = nullptr;
        V value{};
    };
    std::vector<SLOT> slots_;
    size_t size_ = 0;

    size_t mask() const { return slots_.size() - 1; }
    static size_t hash(K key) {
        uint64_t x = reinterpret_cast<uintptr_t>(key);
        x = (x ^ (x >> 31)) * 0x9E3779B97F4A7C15ull;
        return static_cast<size_t>(x ^ (x >> 29));
    }
    void grow() {
        if (slots_.empty()) {  // after clear(), the old room is used again
            slots_.assign(16, SLOT{});
            return;
        }
        std::vector<SLOT> old = std::move(slots_);
        slots_.assign(old.empty() ? 16 : old.size() * 2, SLOT{});
        for (SLOT& s : old) {
            if (!s.key) continue;
            size_t i = hash(s.key) & mask();
            while (slots_[i].key) i = (i + 1) & mask();
            slots_[i] = std::move(s);
        }
    }
};
