// The variable-length encodings of the I-file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

// An unsigned LEB128 read straight from a stream (the size of a record).
// False at the end of the stream or past 64 bits; `out` holds what was read.
inline bool if_read_uint(FILE* f, uint64_t& out) {
    out = 0;
    for (int shift = 0;; shift += 7) {
        int c = getc_unlocked(f);  // each stream is read by one thread
        if (c == EOF || shift > 63) return false;
        out |= static_cast<uint64_t>(c & 0x7F) << shift;
        if (!(c & 0x80)) return true;
    }
}

// Unsigned LEB128: 7 bits a byte, low group first, bit 7 set on all but the
// last byte.  False when the bytes run out or the value passes 64 bits.
inline bool if_decode_uint(const unsigned char* p, size_t n, size_t& pos, uint64_t& out) {
    out = 0;
    for (int shift = 0;; shift += 7) {
        if (shift > 63 || pos >= n) return false;
        unsigned c = p[pos++];
        out |= static_cast<uint64_t>(c & 0x7F) << shift;
        if (!(c & 0x80)) return true;
    }
}

// Signed LEB128 as this format reads it: values written as sint are 32-bit
// quantities, so only an encoding of at most four bytes is sign-extended; a
// longer one is kept as it is (the 5-byte pattern of 0xFFFFFFFF stays
// 0xFFFFFFFF, which is -1 once taken as 32 bits).
inline bool if_decode_sint(const unsigned char* p, size_t n, size_t& pos, int64_t& out) {
    uint64_t v = 0;
    int shift = 0;
    unsigned c;
    do {
        if (shift > 63 || pos >= n) return false;
        c = p[pos++];
        v |= static_cast<uint64_t>(c & 0x7F) << shift;
        shift += 7;
    } while (c & 0x80);
    if (shift <= 28 && (c & 0x40))
        v |= static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(0xFFFFFFFFu << shift)));
    out = static_cast<int64_t>(v);
    return true;
}

inline void if_encode_uint(std::vector<unsigned char>& out, uint64_t v) {
    do {
        unsigned char c = v & 0x7F;
        v >>= 7;
        if (v) c |= 0x80;
        out.push_back(c);
    } while (v);
}

// Groups of 7 bits, low first, up to the group after which the rest is 0
// with bit 6 clear or -1 with bit 6 set.
inline void if_encode_sint(std::vector<unsigned char>& out, int64_t v) {
    for (;;) {
        unsigned char c = v & 0x7F;
        v >>= 7;
        bool done = (v == 0 && !(c & 0x40)) || (v == -1 && (c & 0x40));
        if (!done) c |= 0x80;
        out.push_back(c);
        if (done) return;
    }
}
