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
  int32_t p1[5] = {}, p2[5] = {}, q1[5] = {}, q2[5] = {};
  for (int k = 0; k <= 10; ++k) {
    int32_t up = k <= 1 ? kOne : 0;                      // 1 + z^-1
    int32_t uq = k == 0 ? kOne : k == 1 ? -kOne : 0;     // 1 - z^-1
    for (int j = 0; j < 5; ++j) {
      const int32_t yp = add32_wrap(p2[j], sub32_wrap(up, mul_32_16(shl32_wrap(p1[j], 1), p[j])));
      p2[j] = p1[j];
      p1[j] = up;
      up = yp;
      // The q-cascade drops the lowest bit of its input: keep the asymmetry.
      const int32_t yq = add32_wrap(q2[j], shl32_wrap(sub32_wrap(uq >> 1, mul_32_16(q1[j], q[j])), 1));
      q2[j] = q1[j];
      q1[j] = uq;
      uq = yq;
    }
    if (k >= 1) lpc[k - 1] = round16(shl32_wrap(add32_wrap(up, uq), 2));  // (P + Q)/2 in Q12
  }
}
