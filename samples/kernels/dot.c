/* Dot product of two Q15 vectors with a 40-bit style accumulator (long
   long), and the same with 32-bit saturation. */
#include <stdio.h>
#include <stdint.h>

#define N 128
static int16_t a[N], b[N];

static int64_t dot(const int16_t *x, const int16_t *y, int n) {
    int64_t acc = 0;
    for (int i = 0; i < n; i++) acc += (int32_t)x[i] * y[i];
    return acc;
}

static int32_t dot_sat(const int16_t *x, const int16_t *y, int n) {
    int32_t acc = 0;
    for (int i = 0; i < n; i++) {
        int32_t p = (int32_t)x[i] * y[i];
        if (p > 0 && acc > INT32_MAX - p) acc = INT32_MAX;
        else if (p < 0 && acc < INT32_MIN - p) acc = INT32_MIN;
        else acc += p;
    }
    return acc;
}

int main(void) {
    for (int i = 0; i < N; i++) {
        a[i] = (int16_t)(i * 251 - 16000);
        b[i] = (int16_t)(30000 - i * 97);
    }
    int64_t d = dot(a, b, N);
    printf("dot = %ld %lu\n", (long)(d >> 16), (unsigned long)(d & 0xFFFF));
    printf("dot_sat = %ld\n", (long)dot_sat(a, b, N));
    for (int i = 0; i < N; i++) b[i] = a[i];
    printf("dot_sat(a, a) = %ld\n", (long)dot_sat(a, b, N));
    return 0;
}
