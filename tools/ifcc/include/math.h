/* ifcc's math.h: the few functions written in C here; the others are not
   provided. */
#ifndef IFCC_MATH_H
#define IFCC_MATH_H
#define HUGE_VAL (1.0 / 0.0)
#define HUGE_VALF (1.0f / 0.0f)
#define INFINITY HUGE_VALF
#define NAN (0.0f / 0.0f)
static double fabs(double x) { return x < 0.0 ? -x : x == 0.0 ? 0.0 : x; }
static float fabsf(float x) { return x < 0.0f ? -x : x == 0.0f ? 0.0f : x; }
#endif
