/* ifcc's freestanding <stdint.h>: char, short and int are 16 bits, long is
   32 and long long 64; a pointer is 32 bits. */
#ifndef IFCC_STDINT_H
#define IFCC_STDINT_H
typedef int int16_t;
typedef unsigned int uint16_t;
typedef long int32_t;
typedef unsigned long uint32_t;
typedef long long int64_t;
typedef unsigned long long uint64_t;
typedef int int_least8_t, int_fast8_t, int_least16_t, int_fast16_t;
typedef unsigned int uint_least8_t, uint_fast8_t, uint_least16_t, uint_fast16_t;
typedef long int_least32_t, int_fast32_t;
typedef unsigned long uint_least32_t, uint_fast32_t;
typedef long long int_least64_t, int_fast64_t, intmax_t;
typedef unsigned long long uint_least64_t, uint_fast64_t, uintmax_t;
typedef long intptr_t;
typedef unsigned long uintptr_t;
#define INT16_MIN (-32767 - 1)
#define INT16_MAX 32767
#define UINT16_MAX 65535U
#define INT32_MIN (-2147483647L - 1)
#define INT32_MAX 2147483647L
#define UINT32_MAX 4294967295UL
#define INT64_MIN (-9223372036854775807LL - 1)
#define INT64_MAX 9223372036854775807LL
#define UINT64_MAX 18446744073709551615ULL
#define INTMAX_MIN INT64_MIN
#define INTMAX_MAX INT64_MAX
#define UINTMAX_MAX UINT64_MAX
#define INTPTR_MIN INT32_MIN
#define INTPTR_MAX INT32_MAX
#define UINTPTR_MAX UINT32_MAX
#define SIZE_MAX 65535U
#define INT16_C(c) c
#define UINT16_C(c) c##U
#define INT32_C(c) c##L
#define UINT32_C(c) c##UL
#define INT64_C(c) c##LL
#define UINT64_C(c) c##ULL
#endif
