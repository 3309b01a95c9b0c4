/* ifcc's freestanding <string.h>: small definitions in C, compiled with the
   program. */
#ifndef IFCC_STRING_H
#define IFCC_STRING_H
#include <stddef.h>
static size_t strlen(const char *s) {
    size_t n = 0;
    while (s[n]) n++;
    return n;
}
static int strcmp(const char *a, const char *b) {
    while (*a && *a == *b) {
        a++;
        b++;
    }
    return (*a > *b) - (*a < *b);
}
static void *memset(void *p, int c, size_t n) {
    char *d = (char *)p;
    while (n--) *d++ = (char)c;
    return p;
}
static void *memcpy(void *to, const void *from, size_t n) {
    char *d = (char *)to;
    const char *s = (const char *)from;
    while (n--) *d++ = *s++;
    return to;
}
#endif
