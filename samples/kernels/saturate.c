/* Saturating Q15 arithmetic: add, subtract, multiply and a saturating
   accumulation, as a DSP's fractional unit would do them. */
#include <stdio.h>
#include <stdint.h>

static int16_t sat16(int32_t v) { return v > INT16_MAX ? INT16_MAX : v < INT16_MIN ? INT16_MIN : (int16_t)v; }
static int16_t qadd(int16_t a, int16_t b) { return sat16((int32_t)a + b); }
static int16_t qsub(int16_t a, int16_t b) { return sat16((int32_t)a - b); }
static int16_t qmul(int16_t a, int16_t b) {
    if (a == INT16_MIN && b == INT16_MIN) return INT16_MAX;
    return (int16_t)(((int32_t)a * b) >> 15);
}

static const int16_t vals[] = {0, 1, -1, 16384, -16384, 32767, -32768, 12345, -23456, 30000};
#define NV (sizeof vals / sizeof vals[0])

int main(void) {
    uint32_t h = 0;
    int16_t acc = 0;
    for (unsigned i = 0; i < NV; i++)
        for (unsigned j = 0; j < NV; j++) {
            int16_t s = qadd(vals[i], vals[j]), d = qsub(vals[i], vals[j]), m = qmul(vals[i], vals[j]);
            h = h * 33 + (uint16_t)s;
            h = h * 33 + (uint16_t)d;
            h = h * 33 + (uint16_t)m;
            acc = qadd(acc, m);
        }
    printf("qadd(32767, 1) = %d, qsub(-32768, 1) = %d, qmul(-32768, -32768) = %d\n", qadd(32767, 1), qsub(-32768, 1),
           qmul(INT16_MIN, INT16_MIN));
    printf("hash = %lu, acc = %d\n", (unsigned long)h, acc);
    return 0;
}
