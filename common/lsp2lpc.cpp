// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrc_lsp2lpc(lsp[10], lpc[10]): LSP to LPC conversion.
//
// lsp: 10 frequencies in Q15 (16384 = half the sampling rate), in/out: a
//   vector whose first value is not above 0 or whose last reaches 16384 is
//   repaired in place first (shifted up one place plus a step).
// lpc: a1..a10 in Q12, out.
// A(z) = (P(z) + Q(z)) / 2 with P = (1 + z^-1) prod(1 - 2 cos(w_2j) z^-1 + z^-2)
// and Q = (1 - z^-1) prod(1 - 2 cos(w_2j+1) z^-1 + z^-2), evaluated by driving
// two cascades of five second-order sections with the impulse of the first
// factor (Q25: 0x2000000 is 1.0).
#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

using namespace kevrc;

namespace {

void repair_range(int16_t *lsp) {
  int16_t step;
  if (lsp[0] <= 0) {
    lsp[0] = 721;
    if (lsp[9] >= 16384) {
      step = 1563;
      lsp[9] = 16351;
    } else {
      step = round16(mul2_16(3277, sub16_wrap(lsp[9], 721)));  // a tenth, rounded
    }
  } else if (lsp[9] >= 16384) {
    step = round16(mul2_16(3277, sub16_wrap(16351, lsp[0])));
    lsp[9] = 16351;
  } else {
    return;
  }
  // Downwards, so each value is built from its not yet rewritten neighbour.
  for (int k = 9; k >= 1; --k) lsp[k] = sat16(int32_t{lsp[k - 1]} + step);
}

constexpr int32_t kOne = 0x2000000;  // 1.0 in Q25

}  // namespace

extern "C" void kevrc_lsp2lpc(int16_t *lsp, int16_t *lpc) {
  repair_range(lsp);
  int16_t p[5], q[5];
  for (int j = 0; j < 5; ++j) {
    p[j] = round16(kevrc_interpolation_cos129(lsp[2 * j]));
    q[j] = round16(kevrc_interpolation_cos129(lsp[2 * j + 1]));
  }
  // Each section's state is its last two inputs, so a section is a
  // three-tap filter over its whole input sequence (k = 0..10, zero before):
  // the sections run one after the other, each over the eleven outputs of
  // the one before, with the same operations as sample by sample.
  // Section j's output is zero past k = 3 + 2j (the input has two values
  // and each section adds two): only that stretch is computed, the rest of
  // the buffer is still zero from its initialisation. The p-cascade's
  // sequences are palindromes (the first factor is, and a section adds its
  // two outer inputs, which commute, and scales the middle one), so the
  // second half of each is copied from the first.
  int32_t bp[2][2 + 11] = {{0, 0, kOne, kOne}};   // two zeros, then 1 + z^-1
  int32_t bq[2][2 + 11] = {{0, 0, kOne, -kOne}};  // two zeros, then 1 - z^-1
  for (int j = 0; j < 5; ++j) {
    const int32_t *up = bp[j & 1];
    const int32_t *uq = bq[j & 1];
    int32_t *yp = bp[(j + 1) & 1];
    int32_t *yq = bq[(j + 1) & 1];
    const int last = 3 + 2 * j;               // the output's last non-zero k
    const int end = last < 10 ? last : 10;    // the last k kept
    for (int k = 2; k <= 2 + last / 2; ++k) {
      yp[k] = add32_wrap(up[k - 2], sub32_wrap(up[k], mul_32_16(shl32_wrap(up[k - 1], 1), p[j])));
    }
    for (int k = 2 + last / 2 + 1; k <= 2 + end; ++k) yp[k] = yp[2 + last - (k - 2)];
    for (int k = 2; k <= 2 + end; ++k) {
      // The q-cascade drops the lowest bit of its input: keep the asymmetry.
      yq[k] = add32_wrap(uq[k - 2], shl32_wrap(sub32_wrap(uq[k] >> 1, mul_32_16(uq[k - 1], q[j])), 1));
    }
  }
  const int32_t *up = bp[1];  // after five sections
  const int32_t *uq = bq[1];
  for (int k = 1; k <= 10; ++k) {
    lpc[k - 1] = round16(shl32_wrap(add32_wrap(up[k + 2], uq[k + 2]), 2));  // (P + Q)/2 in Q12
  }
}
