#include "BITVEC/bitvec.h"

#include <bit>

#include "UTIL/assert.h"

namespace {
const char THIS_MODULE[] = "BITVEC/bitvec";
}

void BITVEC::resize(size_t bits) {
    bits_ = bits;
    words_.resize((bits + 63) / 64, 0);
    trim();
}

void BITVEC::trim() {
    if (bits_ % 64 && !words_.empty()) words_.back() &= (uint64_t{1} << (bits_ % 64)) - 1;
}

void BITVEC::set(size_t i) {
    UTIL_REQUIRE(i < bits_);
    words_[i / 64] |= uint64_t{1} << (i % 64);
}

void BITVEC::reset(size_t i) {
    UTIL_REQUIRE(i < bits_);
    words_[i / 64] &= ~(uint64_t{1} << (i % 64));
}

void BITVEC::set_all() {
    for (uint64_t& w : words_) w = ~uint64_t{0};
    trim();
}

void BITVEC::clear_all() {
    for (uint64_t& w : words_) w = 0;
}

bool BITVEC::any() const {
    for (uint64_t w : words_)
        if (w) return true;
    return false;
}

size_t BITVEC::count() const {
    size_t n = 0;
    for (uint64_t w : words_) n += static_cast<size_t>(std::popcount(w));
    return n;
}

bool BITVEC::union_with(const BITVEC& other) {
    UTIL_REQUIRE(other.bits_ <= bits_);
    bool changed = false;
    for (size_t i = 0; i < other.words_.size(); ++i) {
        uint64_t w = words_[i] | other.words_[i];
        changed |= w != words_[i];
        words_[i] = w;
    }
    return changed;
}

void BITVEC::intersect_with(const BITVEC& other) {
    for (size_t i = 0; i < words_.size(); ++i) words_[i] &= i < other.words_.size() ? other.words_[i] : 0;
}

void BITVEC::subtract(const BITVEC& other) {
    for (size_t i = 0; i < words_.size() && i < other.words_.size(); ++i) words_[i] &= ~other.words_[i];
}

void BITVEC::print(FILE* out) const {
    std::fputc('{', out);
    bool first = true;
    for (size_t i = 0; i < bits_; ++i) {
        if (!test(i)) continue;
        std::fprintf(out, first ? "%zu" : " %zu", i);
        first = false;
    }
    std::fputc('}', out);
}

void free_bitvec(BITVEC* v) {
    if (!v) return;
    if (v->zoned()) internal_error("Should not free a zoned bitvector", THIS_MODULE, __LINE__);
    delete v;
}
