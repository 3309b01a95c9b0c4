/* LMS adaptive filter in single precision: an 8-tap filter learns an
   unknown 4-tap system from its input and output. */
#include <stdio.h>
#include <stdint.h>

#define TAPS 8
#define N 160

static const float unknown[4] = {0.6f, -0.3f, 0.15f, 0.05f};

static float x_hist[TAPS];
static float w[TAPS];

/* A reproducible input in [-1, 1): a 16-bit linear congruential sequence. */
static uint16_t seed = 12345;
static float noise(void) {
    seed = (uint16_t)(seed * 25173u + 13849u);
    return (float)(seed >> 1) / 16384.0f - 1.0f;
}

static float filter(const float *h, const float *x, int taps) {
    float y = 0.0f;
    for (int k = 0; k < taps; k++) y += h[k] * x[k];
    return y;
}

int main(void) {
    const float mu = 0.05f;
    float err2 = 0.0f;
    for (int n = 0; n < N; n++) {
        for (int k = TAPS - 1; k > 0; k--) x_hist[k] = x_hist[k - 1];
        x_hist[0] = noise();
        float d = filter(unknown, x_hist, 4);
        float e = d - filter(w, x_hist, TAPS);
        for (int k = 0; k < TAPS; k++) w[k] += mu * e * x_hist[k];
        err2 = 0.9f * err2 + 0.1f * e * e;
        if (n % 40 == 39) printf("n=%d err2=%.6f\n", n, (double)err2);
    }
    for (int k = 0; k < TAPS; k++) printf("w[%d] = %.4f\n", k, (double)w[k]);
    return 0;
}
