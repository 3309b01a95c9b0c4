// Bit vectors of a fixed, resizable length, for data-flow sets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "UTIL/small_vector.h"

class BITVEC {
public:
    explicit BITVEC(size_t bits = 0, bool zoned = false) : bits_(bits), words_((bits + 63) / 64, 0), zoned_(zoned) {}

    size_t size() const { return bits_; }
    // Changes the length; new bits are clear.
    void resize(size_t bits);
    bool zoned() const { return zoned_; }

    bool test(size_t i) const { return i < bits_ && ((words_[i / 64] >> (i % 64)) & 1); }
    void set(size_t i);
    void reset(size_t i);
    void set_all();
    void clear_all();
    bool any() const;
    size_t count() const;

    // this |= other; the other vector must not be longer.  True when a bit
    // changed.
    bool union_with(const BITVEC& other);
    void intersect_with(const BITVEC& other);
    void subtract(const BITVEC& other);  // this &= ~other
    bool operator==(const BITVEC& other) const { return bits_ == other.bits_ && words_ == other.words_; }

    void print(FILE* out) const;  // "{1 4 7}"

private:
    size_t bits_;
    small_vector<uint64_t, 2> words_;  // sets of up to 128 bits need no heap block
    bool zoned_;
    void trim();
};

// Frees a vector made with new; a vector that belongs to a zone is never
// freed that way (internal error).
void free_bitvec(BITVEC* v);
