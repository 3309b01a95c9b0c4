/* ifcc's freestanding <stdio.h>: the output functions that ifrun provides. */
#ifndef IFCC_STDIO_H
#define IFCC_STDIO_H
#include <stddef.h>
int printf(const char *format, ...);
int putchar(int c);
#endif
