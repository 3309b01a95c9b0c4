/* Full convolution of a 40-sample signal with a 9-sample kernel. */
#include <stdio.h>
#include <stdint.h>

#define NX 40
#define NH 9
static int16_t x[NX], h[NH] = {1, 4, 9, 14, 16, 14, 9, 4, 1};
static int32_t y[NX + NH - 1];

static void conv(const int16_t *s, int ns, const int16_t *k, int nk, int32_t *out) {
    for (int n = 0; n < ns + nk - 1; n++) {
        int32_t acc = 0;
        int lo = n - nk + 1 > 0 ? n - nk + 1 : 0;
        int hi = n < ns - 1 ? n : ns - 1;
        for (int i = lo; i <= hi; i++) acc += (int32_t)s[i] * k[n - i];
        out[n] = acc;
    }
}

int main(void) {
    for (int i = 0; i < NX; i++) x[i] = (int16_t)((i % 7) * 300 - (i % 3) * 500);
    conv(x, NX, h, NH, y);
    int32_t check = 0;
    for (int n = 0; n < NX + NH - 1; n++) {
        check = check * 31 + y[n];
        if (n % 12 == 0) printf("y[%d] = %ld\n", n, (long)y[n]);
    }
    printf("check = %ld\n", (long)check);
    return 0;
}
