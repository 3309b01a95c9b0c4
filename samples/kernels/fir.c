/* FIR filter: 16 taps of Q15 coefficients over a block of 64 samples, with
   a 32-bit accumulator. */
#include <stdio.h>
#include <stdint.h>

#define TAPS 16
#define N 64

static const int16_t coeff[TAPS] = {
    -120, -340, 210, 1530, 3010, 4200, 5120, 5530, 5530, 5120, 4200, 3010, 1530, 210, -340, -120};
static int16_t input[N + TAPS - 1];
static int16_t output[N];

static void fir(const int16_t *x, int16_t *y, int n) {
    for (int i = 0; i < n; i++) {
        int32_t acc = 0;
        for (int k = 0; k < TAPS; k++) acc += (int32_t)coeff[k] * x[i + k];
        y[i] = (int16_t)(acc >> 15);
    }
}

int main(void) {
    uint16_t seed = 12345;
    for (int i = 0; i < N + TAPS - 1; i++) {
        seed = seed * 25173u + 13849u;
        input[i] = (int16_t)(seed >> 2) - 8192;
    }
    fir(input, output, N);
    int32_t sum = 0;
    for (int i = 0; i < N; i++) {
        sum += output[i];
        if (i % 16 == 0) printf("y[%d] = %d\n", i, output[i]);
    }
    printf("sum = %ld\n", (long)sum);
    return 0;
}
