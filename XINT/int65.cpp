#include "XINT/int65.h"

#include <cctype>

#include "UTIL/assert.h"

namespace {
using u128 = unsigned __int128;
using s128 = __int128;

constexpr u128 MASK65 = (static_cast<u128>(1) << 65) - 1;

u128 bits(const INT65& v) { return (static_cast<u128>(v.sign_word() & 1) << 64) | v.low_word(); }

INT65 from_bits(u128 b) {
    b &= MASK65;
    return INT65::from_words((b >> 64) ? -1 : 0, static_cast<uint64_t>(b));
}

s128 value(const INT65& v) {
    return v.is_negative() ? static_cast<s128>(v.low_word()) - (static_cast<s128>(1) << 64)
                           : static_cast<s128>(v.low_word());
}
constexpr s128 MIN65 = -(static_cast<s128>(1) << 64);
constexpr s128 MAX65 = (static_cast<s128>(1) << 64) - 1;

bool store_if_fits(s128 v, INT65* out) {
    if (v < MIN65 || v > MAX65) return false;
    *out = from_bits(static_cast<u128>(v));
    return true;
}
}  // namespace

bool INT65::checked_add(const INT65& a, const INT65& b, INT65* out) { return store_if_fits(value(a) + value(b), out); }
bool INT65::checked_sub(const INT65& a, const INT65& b, INT65* out) { return store_if_fits(value(a) - value(b), out); }

bool INT65::checked_mul(const INT65& a, const INT65& b, INT65* out) {
    s128 p;
    return !__builtin_mul_overflow(value(a), value(b), &p) && store_if_fits(p, out);
}

bool INT65::checked_shl(const INT65& a, unsigned amount, INT65* out) {
    if (a.is_zero()) {
        *out = a;
        return true;
    }
    if (amount > 64) return false;  // 2^65 times anything but 0 needs more
    s128 p;
    return !__builtin_mul_overflow(value(a), static_cast<s128>(1) << amount, &p) && store_if_fits(p, out);
}

INT65 INT65::operator*(const INT65& o) const { return from_bits(bits(*this) * bits(o)); }

INT65 INT65::operator/(const INT65& o) const {
    s128 d = value(o);
    if (d == 0) return INT65();
    return from_bits(static_cast<u128>(value(*this) / d));
}

INT65 INT65::operator%(const INT65& o) const {
    s128 d = value(o);
    if (d == 0) return INT65();
    return from_bits(static_cast<u128>(value(*this) % d));
}


INT65 INT65::operator<<(const INT65& amount) const {
    if (amount.is_negative()) return *this >> -amount;
    if (amount.is_zero()) return *this;
    if (amount.sign_ != 0 || amount.low_ > 64) return INT65();
    return from_bits(bits(*this) << amount.low_);
}

INT65 INT65::operator>>(const INT65& amount) const {
    if (amount.is_negative()) return *this << -amount;
    if (amount.is_zero()) return *this;
    if (amount.sign_ != 0 || amount.low_ > 64) return is_negative() ? INT65(-1) : INT65();
    return from_bits(static_cast<u128>(value(*this) >> amount.low_));
}

INT65 INT65::lshr(unsigned amount) const {
    if (amount > 64) return INT65();
    return from_bits(bits(*this) >> amount);
}

INT65 INT65::truncate(unsigned n, bool is_signed) const {
    if (n == 0 || n > 64) return *this;
    uint64_t mask = n == 64 ? ~0ULL : ((1ULL << n) - 1);
    uint64_t low = low_ & mask;
    if (is_signed && (low >> (n - 1)) & 1) return from_words(-1, low | ~mask);
    return from_words(0, low);
}

std::string INT65::to_string() const {
    s128 v = value(*this);
    bool neg = v < 0;
    u128 m = neg ? static_cast<u128>(-v) : static_cast<u128>(v);
    std::string s;
    do {
        s.insert(s.begin(), static_cast<char>('0' + static_cast<int>(m % 10)));
        m /= 10;
    } while (m);
    return neg ? "-" + s : s;
}

bool INT65::parse(const char* text, INT65& out, bool* overflow) {
    if (overflow) *overflow = false;
    const char* p = text;
    bool neg = *p == '-';
    if (neg) ++p;
    if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
    u128 m = 0;
    for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
        m = m * 10 + static_cast<unsigned>(*p - '0');
        if (m > MASK65 && overflow) *overflow = true;
        m &= (static_cast<u128>(1) << 100) - 1;  // keep the arithmetic bounded
    }
    if (*p) return false;
    out = from_bits(m);
    if (neg) out = -out;
    return true;
}

void INT65::fits_failure(int line) { internal_error("fits_in<T>()", "XINT/int65", line); }
