/* Biquad IIR filter (direct form I) in Q14, two cascaded sections, over a
   unit step and an impulse. */
#include <stdio.h>
#include <stdint.h>

struct biquad {
    int16_t b0, b1, b2, a1, a2;  /* Q14; a1 and a2 with their signs flipped */
    int16_t x1, x2, y1, y2;
};

static int16_t step(struct biquad *s, int16_t x) {
    int32_t acc = (int32_t)s->b0 * x + (int32_t)s->b1 * s->x1 + (int32_t)s->b2 * s->x2 + (int32_t)s->a1 * s->y1 +
                  (int32_t)s->a2 * s->y2;
    int16_t y = (int16_t)(acc >> 14);
    s->x2 = s->x1;
    s->x1 = x;
    s->y2 = s->y1;
    s->y1 = y;
    return y;
}

static struct biquad sections[2] = {
    {1064, 2128, 1064, 19030, -6904, 0, 0, 0, 0},
    {4096, 8192, 4096, 12000, -4200, 0, 0, 0, 0},
};

int main(void) {
    int16_t y = 0;
    long energy = 0;
    for (int n = 0; n < 48; n++) {
        int16_t x = n == 0 ? 8000 : n >= 24 ? 4000 : 0;
        y = x;
        for (int k = 0; k < 2; k++) y = step(&sections[k], y);
        energy += (long)y * y >> 8;
        if (n % 8 == 7) printf("n=%d y=%d\n", n, y);
    }
    printf("energy = %ld\n", energy);
    return 0;
}
