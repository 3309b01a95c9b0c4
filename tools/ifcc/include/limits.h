/* ifcc's freestanding <limits.h>: every char type fills a 16-bit unit. */
#ifndef IFCC_LIMITS_H
#define IFCC_LIMITS_H
#define CHAR_BIT 16
#define SCHAR_MIN (-32767 - 1)
#define SCHAR_MAX 32767
#define UCHAR_MAX 65535U
#define CHAR_MIN SCHAR_MIN
#define CHAR_MAX SCHAR_MAX
#define SHRT_MIN (-32767 - 1)
#define SHRT_MAX 32767
#define USHRT_MAX 65535U
#define INT_MIN (-32767 - 1)
#define INT_MAX 32767
#define UINT_MAX 65535U
#define LONG_MIN (-2147483647L - 1)
#define LONG_MAX 2147483647L
#define ULONG_MAX 4294967295UL
#define LLONG_MIN (-9223372036854775807LL - 1)
#define LLONG_MAX 9223372036854775807LL
#define ULLONG_MAX 18446744073709551615ULL
#endif
