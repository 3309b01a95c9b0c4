// INT65: a 65-bit two's-complement integer, so that every signed and every
// unsigned 64-bit constant is held exactly.  The value is a sign word (0 or
// -1, the 65th bit replicated) and a 64-bit low word; arithmetic wraps
// modulo 2^65.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

class INT65 {
public:
    constexpr INT65() = default;
    constexpr INT65(int v) : sign_(v < 0 ? -1 : 0), low_(static_cast<uint64_t>(static_cast<int64_t>(v))) {}
    constexpr INT65(long v) : sign_(v < 0 ? -1 : 0), low_(static_cast<uint64_t>(v)) {}
    constexpr INT65(long long v) : sign_(v < 0 ? -1 : 0), low_(static_cast<uint64_t>(v)) {}
    constexpr INT65(unsigned v) : sign_(0), low_(v) {}
    constexpr INT65(unsigned long v) : sign_(0), low_(v) {}
    constexpr INT65(unsigned long long v) : sign_(0), low_(v) {}
    static constexpr INT65 from_words(int32_t sign, uint64_t low) {
        INT65 r;
        r.sign_ = sign ? -1 : 0;
        r.low_ = low;
        return r;
    }

    int32_t sign_word() const { return sign_; }
    uint64_t low_word() const { return low_; }
    bool is_negative() const { return sign_ != 0; }
    bool is_zero() const { return sign_ == 0 && low_ == 0; }

    // Two's complement on 65 bits: the sign word holds bit 64 (0 or -1).
    INT65 operator-() const { return INT65::from_words(~sign_, ~low_) + INT65(1); }
    INT65 operator~() const { return from_words(~sign_, ~low_); }
    INT65 operator+(const INT65& o) const {
        uint64_t low = low_ + o.low_;
        unsigned bit64 = (static_cast<unsigned>(sign_) + static_cast<unsigned>(o.sign_) + (low < low_ ? 1u : 0u)) & 1u;
        return from_words(bit64 ? -1 : 0, low);
    }
    INT65 operator-(const INT65& o) const { return *this + (-o); }
    INT65 operator*(const INT65& o) const;
    // Division truncates toward zero; dividing by zero is the caller's error.
    INT65 operator/(const INT65& o) const;
    INT65 operator%(const INT65& o) const;
    INT65 operator&(const INT65& o) const { return from_words(sign_ & o.sign_, low_ & o.low_); }
    INT65 operator|(const INT65& o) const { return from_words(sign_ | o.sign_, low_ | o.low_); }
    INT65 operator^(const INT65& o) const { return from_words(sign_ ^ o.sign_, low_ ^ o.low_); }
    // Shifts by another INT65: a negative amount shifts the other way; a
    // left shift by more than 64 gives 0, a right shift fills with the sign.
    INT65 operator<<(const INT65& amount) const;
    INT65 operator>>(const INT65& amount) const;
    // Logical right shift of the 65-bit pattern.
    INT65 lshr(unsigned amount) const;

    // Exact arithmetic: false, with *out left alone, when the true result
    // does not fit in 65 bits.
    static bool checked_add(const INT65& a, const INT65& b, INT65* out);
    static bool checked_sub(const INT65& a, const INT65& b, INT65* out);
    static bool checked_mul(const INT65& a, const INT65& b, INT65* out);
    static bool checked_shl(const INT65& a, unsigned amount, INT65* out);

    bool operator==(const INT65& o) const { return sign_ == o.sign_ && low_ == o.low_; }
    bool operator!=(const INT65& o) const { return !(*this == o); }
    bool operator<(const INT65& o) const { return sign_ != o.sign_ ? sign_ < o.sign_ : low_ < o.low_; }
    bool operator>(const INT65& o) const { return o < *this; }
    bool operator<=(const INT65& o) const { return !(o < *this); }
    bool operator>=(const INT65& o) const { return !(*this < o); }

    // The value wrapped to `bits` bits (1..64), then sign- or zero-extended.
    INT65 truncate(unsigned bits, bool is_signed) const;

    template <class T>
    bool fits_in() const {
        static_assert(std::is_integral_v<T> && sizeof(T) <= 8);
        if constexpr (std::is_signed_v<T>) {
            int64_t v = static_cast<int64_t>(low_);
            if (sign_ != (v < 0 ? -1 : 0)) return false;
            return v >= static_cast<int64_t>(std::numeric_limits<T>::min()) &&
                   v <= static_cast<int64_t>(std::numeric_limits<T>::max());
        } else {
            return sign_ == 0 && low_ <= static_cast<uint64_t>(std::numeric_limits<T>::max());
        }
    }
    // The value as T; a value that does not fit is an internal error.
    template <class T>
    T as() const {
        if (!fits_in<T>()) fits_failure(__LINE__);
        return static_cast<T>(low_);
    }

    std::string to_string() const;
    // Parses an optional '-' and decimal digits; *overflow is set when the
    // magnitude needs more than 65 bits.  False when the text is not a number.
    static bool parse(const char* text, INT65& out, bool* overflow = nullptr);

private:
    int32_t sign_ = 0;
    uint64_t low_ = 0;
    [[noreturn]] static void fits_failure(int line);
};
