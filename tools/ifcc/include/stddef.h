/* ifcc's freestanding <stddef.h>. */
#ifndef IFCC_STDDEF_H
#define IFCC_STDDEF_H
typedef unsigned int size_t;
typedef int ptrdiff_t;
typedef int wchar_t;
#define NULL ((void *)0)
#define offsetof(type, member) __builtin_offsetof(type, member)
#endif
