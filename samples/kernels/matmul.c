/* Matrix multiply: 8x8 by 8x8 integer matrices, and a trace of the result. */
#include <stdio.h>
#include <stdint.h>

#define N 8
static int16_t A[N][N], B[N][N];
static int32_t C[N][N];

static void matmul(void) {
    for (int i = 0; i < N; i++)
        for (int j = 0; j < N; j++) {
            int32_t s = 0;
            for (int k = 0; k < N; k++) s += (int32_t)A[i][k] * B[k][j];
            C[i][j] = s;
        }
}

int main(void) {
    for (int i = 0; i < N; i++)
        for (int j = 0; j < N; j++) {
            A[i][j] = (int16_t)((i + 1) * (j + 3) - 20);
            B[i][j] = (int16_t)((i * 7 + j * 5) % 13 - 6);
        }
    matmul();
    int32_t trace = 0;
    for (int i = 0; i < N; i++) {
        trace += C[i][i];
        printf("C[%d] = %ld %ld %ld %ld\n", i, (long)C[i][0], (long)C[i][1], (long)C[i][6], (long)C[i][7]);
    }
    printf("trace = %ld\n", (long)trace);
    return 0;
}
