// A vector of trivially copyable values that keeps its first N elements in
// the object itself and goes to the heap only beyond them: for the many small
// sets an analysis builds and copies.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

template <class T, size_t N>
class small_vector {
    static_assert(std::is_trivially_copyable_v<T>, "elements are moved as bytes");

public:
    small_vector() = default;
    small_vector(size_t n, const T& v) { resize(n, v); }
    small_vector(const small_vector& o) { assign(o); }
    small_vector(small_vector&& o) noexcept { take(o); }
    small_vector& operator=(const small_vector& o) {
        if (this != &o) {
            size_ = 0;
            assign(o);
        }
        return *this;
    }
    small_vector& operator=(small_vector&& o) noexcept {
        if (this != &o) {
            if (data_ != inline_data()) std::free(data_);
            data_ = inline_data();
            capacity_ = N;
            take(o);
        }
        return *this;
    }
    ~small_vector() {
        if (data_ != inline_data()) std::free(data_);
    }

    T* begin() { return data_; }
    T* end() { return data_ + size_; }
    const T* begin() const { return data_; }
    const T* end() const { return data_ + size_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    void clear() { size_ = 0; }
    T& operator[](size_t i) { return data_[i]; }
    const T& operator[](size_t i) const { return data_[i]; }
    const T& front() const { return data_[0]; }
    const T& back() const { return data_[size_ - 1]; }
    T& back() { return data_[size_ - 1]; }

    void push_back(const T& v) {
        T copy = v;  // `v` may live in this vector
        if (size_ == capacity_) reserve(size_ + 1);
        data_[size_++] = copy;
    }
    void pop_back() { --size_; }
    // New elements are v.
    void resize(size_t n, const T& v) {
        reserve(n);
        for (size_t i = size_; i < n; ++i) data_[i] = v;
        size_ = n;
    }
    T* insert(T* at, const T& v) {
        size_t i = static_cast<size_t>(at - data_);
        T copy = v;  // `v` may live in this vector
        reserve(size_ + 1);
        std::memmove(data_ + i + 1, data_ + i, (size_ - i) * sizeof(T));
        data_[i] = copy;
        ++size_;
        return data_ + i;
    }
    void swap(small_vector& o) {
        small_vector t(o);
        o = *this;
        *this = t;
    }
    bool operator==(const small_vector& o) const { return size_ == o.size_ && std::equal(begin(), end(), o.begin()); }

private:
    T* inline_data() { return reinterpret_cast<T*>(inline_); }
    void reserve(size_t n) {
        if (n <= capacity_) return;
        size_t cap = std::max(n, capacity_ * 2);
        T* p = static_cast<T*>(std::malloc(cap * sizeof(T)));
        if (!p) throw std::bad_alloc();
        std::memcpy(p, data_, size_ * sizeof(T));
        if (data_ != inline_data()) std::free(data_);
        data_ = p;
        capacity_ = cap;
    }
    // Takes o's heap block, or copies its inline elements; o is left empty.
    void take(small_vector& o) {
        if (o.data_ != o.inline_data()) {
            data_ = o.data_;
            capacity_ = o.capacity_;
            o.data_ = o.inline_data();
            o.capacity_ = N;
        } else {
            std::memcpy(data_, o.data_, o.size_ * sizeof(T));
        }
        size_ = o.size_;
        o.size_ = 0;
    }
    void assign(const small_vector& o) {
        reserve(o.size_);
        std::memcpy(data_, o.data_, o.size_ * sizeof(T));
        size_ = o.size_;
    }

    alignas(T) unsigned char inline_[N * sizeof(T)];
    T* data_ = inline_data();
    size_t size_ = 0;
    size_t capacity_ = N;
};
