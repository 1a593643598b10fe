// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrce_residu(in, lpc, mem, n, out): the prediction-error filter A(z),
// y[i] = x[i] + sum a_k x[i-k] / 4096, with a saturating accumulator.
//
// in[0..n-1]   in:  samples (int16); out may be the same array.
// lpc[0..9]    in:  a1..a10, Q12.
// mem[0..9]    in/out: the last ten inputs, newest first (owned by the caller).
// out[0..n-1]  out: residual samples (int16). n <= 0 does nothing.
//
// Per sample the accumulator starts at x[i] * 8192 (Q13 x Q12 scale, 64 bits);
// the taps a10 .. a2 are added one at a time as exact products 2 * a_k * x[i-k]
// and the sum is clamped to the 32-bit range after each of them; the last tap
// (a1) is added in 32-bit wrapping arithmetic (its product 2 * a1 * x[i-1]
// wrapping too), and the output is (8 * t + 0x8000) >> 16 with 8 * t wrapping.
// The clamped taps and the wrapping last tap both differ from kevrc_fir,
// which wraps throughout; each form is the one its callers rely on.
#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

using namespace kevrc;

extern "C" void kevrce_residu(const int16_t *in, const int16_t *lpc, int16_t *mem, int16_t n,
                              int16_t *out) {
  for (int i = 0; i < n; ++i) {
    const int16_t x = in[i];
    int32_t acc = int32_t{x} * 8192;
    for (int k = 9; k >= 1; --k) {
      acc = sat32(int64_t{acc} + 2 * int64_t{lpc[k]} * mem[k]);
      mem[k] = mem[k - 1];
    }
    const int32_t t = add32_wrap(acc, mul2_16(lpc[0], mem[0]));
    mem[0] = x;
    out[i] = round16(shl32_wrap(t, 3));
  }
}
