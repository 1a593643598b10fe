// Order-10 direct-form filters shared by both directions.
//
// kevrc_iir: all-pole synthesis 1/A(z), y[i] = x[i] - sum a_k y[i-k] / 4096,
//   rounded and saturated to 16 bits.
// kevrc_fir: prediction-error filter A(z), y[i] = x[i] + sum a_k x[i-k] / 4096,
//   wrapping (no saturation: the difference is intended).
// in/out: n int16 samples (out may be the same array as in); coef: a1..a10 in
// Q12; mem: 10 past samples, newest first (outputs for iir, inputs for fir),
// owned by the caller and updated. n <= 0 does nothing.
#include "api/kevrc_kernels.h"
#include "common/fixed_point.h"

using namespace kevrc;

extern "C" void kevrc_iir(const int16_t *in, const int16_t *coef, int16_t *mem, int16_t n,
                          int16_t *out) {
  for (int i = 0; i < n; ++i) {
    int32_t acc = in[i] * 8192;
    for (int k = 9; k >= 1; --k) {
      acc = sub32_wrap(acc, mul2_16(coef[k], mem[k]));
      mem[k] = mem[k - 1];
    }
    acc = sub32_wrap(acc, mul2_16(coef[0], mem[0]));  // mem[0]: previous output
    // 8*acc in 64 bits, rounded to 16 bits with saturation at both ends.
    const int16_t y = sat16_64((int64_t{acc} * 8 + 0x8000) >> 16);
    out[i] = y;
    mem[0] = y;
  }
}

extern "C" void kevrc_fir(const int16_t *in, const int16_t *coef, int16_t *mem, int16_t n,
                          int16_t *out) {
  for (int i = 0; i < n; ++i) {
    const int16_t x = in[i];
    int32_t acc = x * 8192;
    for (int k = 9; k >= 1; --k) {
      acc = add32_wrap(acc, mul2_16(coef[k], mem[k]));
      mem[k] = mem[k - 1];
    }
    acc = add32_wrap(acc, mul2_16(coef[0], mem[0]));
    mem[0] = x;
    out[i] = round16(shl32_wrap(acc, 3));
  }
}
