/* ifcc's run-time support for randomly generated test programs: the
   checksum functions and the arithmetic that never overflows, for the data
   model of ifcc (int 16 bits, long 32, long long 64).  A "safe" operation
   whose exact result would not fit, or that would divide by zero or shift
   by too much, gives its left operand. */
#ifndef IFCC_CSMITH_H
#define IFCC_CSMITH_H
#include <float.h>
#include <limits.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define IFCC_SAFE_SIGNED(T, MIN, MAX, W)                                                              \
    static T safe_unary_minus_func_##T##_s(T a) { return a == MIN ? a : -a; }                          \
    static T safe_add_func_##T##_s_s(T a, T b) {                                                      \
        return ((a > 0 && b > MAX - a) || (a < 0 && b < MIN - a)) ? a : a + b;                         \
    }                                                                                                  \
    static T safe_sub_func_##T##_s_s(T a, T b) {                                                      \
        return ((b > 0 && a < MIN + b) || (b < 0 && a > MAX + b)) ? a : a - b;                         \
    }                                                                                                  \
    static T safe_mul_func_##T##_s_s(T a, T b) {                                                      \
        if (a > 0 ? (b > 0 ? a > MAX / b : b < MIN / a) : (b > 0 ? a < MIN / b : (a != 0 && b < MAX / a))) \
            return a;                                                                                  \
        return a * b;                                                                                  \
    }                                                                                                  \
    static T safe_mod_func_##T##_s_s(T a, T b) { return (b == 0 || (a == MIN && b == -1)) ? a : a % b; } \
    static T safe_div_func_##T##_s_s(T a, T b) { return (b == 0 || (a == MIN && b == -1)) ? a : a / b; } \
    static T safe_lshift_func_##T##_s_s(T a, int b) {                                                 \
        return (a < 0 || b < 0 || b >= W || a > (MAX >> b)) ? a : a << b;                              \
    }                                                                                                  \
    static T safe_lshift_func_##T##_s_u(T a, unsigned int b) {                                        \
        return (a < 0 || b >= W || a > (MAX >> b)) ? a : a << b;                                       \
    }                                                                                                  \
    static T safe_rshift_func_##T##_s_s(T a, int b) { return (a < 0 || b < 0 || b >= W) ? a : a >> b; } \
    static T safe_rshift_func_##T##_s_u(T a, unsigned int b) { return (a < 0 || b >= W) ? a : a >> b; }

#define IFCC_SAFE_UNSIGNED(T, MAX, W)                                                                 \
    static T safe_unary_minus_func_##T##_u(T a) { return -a; }                                         \
    static T safe_add_func_##T##_u_u(T a, T b) { return a + b; }                                       \
    static T safe_sub_func_##T##_u_u(T a, T b) { return a - b; }                                       \
    static T safe_mul_func_##T##_u_u(T a, T b) { return a * b; }                                       \
    static T safe_mod_func_##T##_u_u(T a, T b) { return b == 0 ? a : a % b; }                          \
    static T safe_div_func_##T##_u_u(T a, T b) { return b == 0 ? a : a / b; }                          \
    static T safe_lshift_func_##T##_u_s(T a, int b) { return (b < 0 || b >= W || a > (MAX >> b)) ? a : a << b; } \
    static T safe_lshift_func_##T##_u_u(T a, unsigned int b) { return (b >= W || a > (MAX >> b)) ? a : a << b; } \
    static T safe_rshift_func_##T##_u_s(T a, int b) { return (b < 0 || b >= W) ? a : a >> b; }          \
    static T safe_rshift_func_##T##_u_u(T a, unsigned int b) { return b >= W ? a : a >> b; }

IFCC_SAFE_SIGNED(int16_t, INT16_MIN, INT16_MAX, 16)
IFCC_SAFE_SIGNED(int32_t, INT32_MIN, INT32_MAX, 32)
IFCC_SAFE_SIGNED(int64_t, INT64_MIN, INT64_MAX, 64)
IFCC_SAFE_UNSIGNED(uint16_t, UINT16_MAX, 16)
IFCC_SAFE_UNSIGNED(uint32_t, UINT32_MAX, 32)
IFCC_SAFE_UNSIGNED(uint64_t, UINT64_MAX, 64)

/* Floating operations that would overflow give their left operand, as do
   divisions by numbers too small. */
static float safe_add_func_float_f_f(float a, float b) {
    return fabsf(0.5f * a + 0.5f * b) > 0.5f * FLT_MAX ? a : a + b;
}
static float safe_sub_func_float_f_f(float a, float b) {
    return fabsf(0.5f * a - 0.5f * b) > 0.5f * FLT_MAX ? a : a - b;
}
static float safe_mul_func_float_f_f(float a, float b) {
    return fabsf((0x1.0p-100f * a) * (0x1.0p-28f * b)) > 0x1.0p-100f * (0x1.0p-28f * FLT_MAX) ? a : a * b;
}
static float safe_div_func_float_f_f(float a, float b) {
    return fabsf(b) < 1.0f && (b == 0.0f || fabsf((0x1.0p-49f * a) / (0x1.0p100f * b)) > 0x1.0p-100f * (0x1.0p-49f * FLT_MAX))
               ? a
               : a / b;
}

static uint32_t crc32_tab[256];
static uint32_t crc32_context = 0xFFFFFFFFUL;

static void crc32_gentab(void) {
    int i, j;
    for (i = 0; i < 256; i++) {
        uint32_t crc = i;
        for (j = 0; j < 8; j++) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320UL : crc >> 1;
        crc32_tab[i] = crc;
    }
}

static void crc32_byte(uint16_t b) {
    crc32_context = ((crc32_context >> 8) & 0x00FFFFFFUL) ^ crc32_tab[(crc32_context ^ b) & 0xFF];
}

static void transparent_crc(uint64_t val, char *vname, int flag) {
    int i;
    for (i = 0; i < 8; i++) crc32_byte((uint16_t)((val >> (i * 8)) & 0xFF));
    if (flag) printf("...checksum after hashing %s : %lX\n", vname, crc32_context ^ 0xFFFFFFFFUL);
}

static void transparent_crc_bytes(char *ptr, int nbytes, char *vname, int flag) {
    int i;
    for (i = 0; i < nbytes; i++) { /* both bytes of each 16-bit unit */
        crc32_byte((uint16_t)(ptr[i] & 0xFF));
        crc32_byte((uint16_t)((ptr[i] >> 8) & 0xFF));
    }
    if (flag) printf("...checksum after hashing %s : %lX\n", vname, crc32_context ^ 0xFFFFFFFFUL);
}

static void platform_main_begin(void) {}

static void platform_main_end(uint32_t crc, int flag) { printf("checksum = %lX\n", crc); }
#endif
