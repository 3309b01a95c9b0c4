/* A control kernel: a small command interpreter, as DSP firmware runs one to
   set up its signal chain, dispatching on each opcode with a switch, and a
   bit-level frame decoder driven by a state machine. */
#include <stdio.h>
#include <stdint.h>

enum op { OP_LOAD, OP_ADD, OP_MAC, OP_SHIFT, OP_CLAMP, OP_STORE, OP_JNZ, OP_HALT };

static int16_t regs[4];
static int16_t mem[8];

static const uint16_t program[] = {
    /* r0 and r1 set, then a loop of multiply-accumulates into r2 that counts
       r0 down to zero; then r2 is scaled, clamped and stored */
    OP_LOAD << 8 | 0x07, OP_LOAD << 8 | 0x1 << 6 | 0x2C, OP_ADD << 8 | 0x1 << 6 | 0x38,
    OP_MAC << 8 | 0x2 << 6 | 0x0 << 3 | 0x1, OP_ADD << 8 | 0x1 << 6 | 0x27, OP_ADD << 8 | 0x0 << 6 | 0x3F,
    OP_JNZ << 8 | 0x0 << 6 | 0x3, OP_SHIFT << 8 | 0x2 << 6 | 0x3, OP_CLAMP << 8 | 0x2 << 6 | 0x10,
    OP_STORE << 8 | 0x2 << 6 | 0x5, OP_HALT << 8,
};

static long run(const uint16_t *code, int len) {
    int pc = 0;
    long steps = 0;
    while (pc < len) {
        uint16_t w = code[pc++];
        int r = (w >> 6) & 3, a = w & 0x3F, s = (w >> 3) & 7, t = w & 7;
        int16_t imm = (int16_t)(a & 0x20 ? a - 64 : a);
        steps++;
        switch (w >> 8) {
        case OP_LOAD: regs[r] = imm; break;
        case OP_ADD: regs[r] += imm; break;
        case OP_MAC: regs[r] += (int16_t)(regs[s & 3] * regs[t & 3] >> 4); break;
        case OP_SHIFT: regs[r] >>= a & 15; break;
        case OP_CLAMP: {
            int16_t lim = (int16_t)(a << 4);
            if (regs[r] > lim) regs[r] = lim;
            else if (regs[r] < -lim) regs[r] = -lim;
            break;
        }
        case OP_STORE: mem[a & 7] = regs[r]; break;
        case OP_JNZ:
            if (regs[r] != 0) pc = a;
            break;
        case OP_HALT: return steps;
        default: return -1;
        }
    }
    return steps;
}

/* Frames are 0x7E flags around bits with a 0 stuffed after five 1s. */
enum state { HUNT, FLAG1, DATA, ESCAPE };

static int decode(const uint16_t *bits, int n, uint16_t *out) {
    enum state st = HUNT;
    int ones = 0, count = 0, nbits = 0;
    uint16_t shift = 0;
    uint16_t window = 0;
    for (int i = 0; i < n; i++) {
        int b = bits[i];
        window = (uint16_t)((window >> 1) | (b << 7)) & 0xFF;
        switch (st) {
        case HUNT:
            if (window == 0x7E) st = FLAG1;
            break;
        case FLAG1:
        case DATA:
            if (b) {
                if (++ones == 6) {
                    st = ESCAPE;
                    break;
                }
            } else if (ones == 5) {
                ones = 0;
                break; /* a stuffed zero */
            } else {
                ones = 0;
            }
            shift = (uint16_t)(shift >> 1 | b << 7);
            if (++nbits == 8) {
                out[count++] = shift & 0xFF;
                nbits = 0;
            }
            st = DATA;
            break;
        case ESCAPE:
            st = b ? HUNT : FLAG1; /* 0x7E closes the frame */
            ones = 0;
            nbits = 0;
            break;
        }
    }
    return count;
}

static void put_byte(uint16_t *bits, int *n, int *ones, unsigned v) {
    for (int k = 0; k < 8; k++) {
        int b = (v >> k) & 1;
        bits[(*n)++] = (uint16_t)b;
        *ones = b ? *ones + 1 : 0;
        if (*ones == 5) {
            bits[(*n)++] = 0;
            *ones = 0;
        }
    }
}

int main(void) {
    long steps = run(program, sizeof program / sizeof program[0]);
    printf("steps=%ld r0=%d r1=%d r2=%d mem5=%d\n", steps, regs[0], regs[1], regs[2], mem[5]);
    static uint16_t bits[400];
    static uint16_t bytes[40];
    int n = 0, ones = 0;
    const unsigned payload[] = {0x12, 0xFF, 0x7E, 0x3F, 0xA5, 0xF8};
    for (int k = 0; k < 8; k++) bits[n++] = (uint16_t)((0x7E >> k) & 1);
    for (unsigned k = 0; k < sizeof payload / sizeof payload[0]; k++) put_byte(bits, &n, &ones, payload[k]);
    for (int k = 0; k < 8; k++) bits[n++] = (uint16_t)((0x7E >> k) & 1);
    int got = decode(bits, n, bytes);
    printf("%d bits, %d bytes:", n, got);
    for (int k = 0; k < got; k++) printf(" %02X", bytes[k]);
    printf("\n");
    return 0;
}
