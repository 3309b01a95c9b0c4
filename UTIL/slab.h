// Memory for objects made by the thousand: 2 MiB slabs, aligned so that the
// kernel can back each one by a single huge page (one page fault instead of
// five hundred), and objects built in place one after another.
#pragma once

#include <cstddef>
#include <new>
#include <utility>
#include <vector>

inline constexpr size_t SLAB_BYTES = size_t{2} << 20;

// A fresh slab of SLAB_BYTES; throws std::bad_alloc when there is none.
void* allocate_slab();
void release_slab(void* slab);

// Objects of type T, made in slabs and destroyed all together.  Pointers stay
// valid until clear().
template <class T>
class slab_store {
    static_assert(sizeof(T) <= SLAB_BYTES);
    static constexpr size_t per_slab = SLAB_BYTES / sizeof(T);

public:
    slab_store() = default;
    slab_store(const slab_store&) = delete;
    slab_store& operator=(const slab_store&) = delete;
    ~slab_store() { clear(); }

    template <class... A>
    T* make(A&&... args) {
        if (used_ == per_slab) {
            slabs_.reserve(slabs_.size() + 1);
            slabs_.push_back(static_cast<T*>(allocate_slab()));
            used_ = 0;
        }
        T* object = new (slabs_.back() + used_) T(std::forward<A>(args)...);
        ++used_;
        return object;
    }

    size_t size() const { return slabs_.empty() ? 0 : (slabs_.size() - 1) * per_slab + used_; }

    template <class F>
    void for_each(F&& f) {
        for (size_t s = 0; s < slabs_.size(); ++s)
            for (size_t i = 0, n = s + 1 == slabs_.size() ? used_ : per_slab; i < n; ++i) f(slabs_[s][i]);
    }

    void clear() {
        for_each([](T& object) { object.~T(); });
        for (T* slab : slabs_) release_slab(slab);
        slabs_.clear();
        used_ = per_slab;
    }

private:
    std::vector<T*> slabs_;
    size_t used_ = per_slab;
};
