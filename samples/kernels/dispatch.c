/* A block-processing chain built from a table of stage functions, called
   through pointers: gain, DC removal, clipping and decimation of a Q15 block. */
#include <stdio.h>
#include <stdint.h>

#define LEN 32

typedef int (*stage_fn)(int16_t *buf, int len, int param);

static int gain(int16_t *buf, int len, int shift) {
    for (int i = 0; i < len; i++) buf[i] = (int16_t)((int32_t)buf[i] << shift >> 2);
    return len;
}

static int remove_dc(int16_t *buf, int len, int unused) {
    int32_t sum = 0;
    (void)unused;
    for (int i = 0; i < len; i++) sum += buf[i];
    int16_t mean = (int16_t)(sum / len);
    for (int i = 0; i < len; i++) buf[i] -= mean;
    return len;
}

static int clip(int16_t *buf, int len, int limit) {
    for (int i = 0; i < len; i++) {
        if (buf[i] > limit) buf[i] = (int16_t)limit;
        else if (buf[i] < -limit) buf[i] = (int16_t)-limit;
    }
    return len;
}

static int decimate(int16_t *buf, int len, int factor) {
    int n = 0;
    for (int i = 0; i < len; i += factor) buf[n++] = buf[i];
    return n;
}

static const struct stage {
    const char *name;
    stage_fn run;
    int param;
} chain[] = {
    {"gain", gain, 3}, {"dc", remove_dc, 0}, {"clip", clip, 9000}, {"decimate", decimate, 4},
};

int main(void) {
    int16_t block[LEN];
    for (int i = 0; i < LEN; i++) block[i] = (int16_t)(1500 + (i * 977 % 4001) - 2000);
    int len = LEN;
    for (unsigned s = 0; s < sizeof chain / sizeof chain[0]; s++) {
        len = chain[s].run(block, len, chain[s].param);
        long sum = 0;
        for (int i = 0; i < len; i++) sum += block[i];
        printf("%-8s len=%2d sum=%ld\n", chain[s].name, len, sum);
    }
    for (int i = 0; i < len; i++) printf("%d%c", block[i], i + 1 < len ? ' ' : '\n');
    return 0;
}
