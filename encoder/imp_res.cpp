// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrce_imp_res(lpc, h): the first 54 samples of the impulse response of the
// all-pole filter 1/A(z), A(z) = 1 + sum a_k z^-k.
//
// lpc[0..9] in:  a1..a10, Q12.
// h[0..53]  out: the response in Q11, h[0] = 2048 (1.0).
//
// h[i] = (2048 * 4096 * [i = 0] - sum over k = 1..min(i, 10) of a_k h[i-k]
//         + 2048) >> 12, saturated to 16 bits.
// The sum of products (Q12 x Q11) is exact in 64 bits, so nothing wraps
// whatever the coefficients; rounding is half up. Wherever the 32-bit
// accumulator of kevrc_iir does not wrap the result equals kevrc_iir driven by
// an impulse of 2048 from a cleared memory.
#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

using namespace kevrc;

namespace {
constexpr int kOrder = 10;
constexpr int kLen = 54;
}  // namespace

extern "C" void kevrce_imp_res(const int16_t *lpc, int16_t *h) {
  for (int i = 0; i < kLen; ++i) {
    int64_t acc = i == 0 ? int64_t{2048} * 4096 : 0;  // 1.0 in Q11, times 4096 for the Q12 taps
    for (int k = 1; k <= kOrder && k <= i; ++k) acc -= int64_t{lpc[k - 1]} * h[i - k];
    h[i] = sat16_64((acc + 2048) >> 12);
  }
}
