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
#include "common/cos129.h"
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

// Sequences of k = 0..10 after two leading zeros (index k + 2).
using Sequence = int32_t[2 + 11];

// Section j of the p-cascade (cos term c) over an input that is zero past
// k = 1 + 2j: the output is zero past kLast = 3 + 2j and a palindrome, so
// its first half is computed and the rest (up to k = 10) copied.
template <int kLast>
void p_section(const Sequence &u, Sequence &y, int16_t c) {
  for (int k = 2; k <= 2 + kLast / 2; ++k) {
    y[k] = add32_wrap(u[k - 2], sub32_wrap(u[k], mul_32_16(shl32_wrap(u[k - 1], 1), c)));
  }
  for (int k = 2 + kLast / 2 + 1; k <= 2 + (kLast < 10 ? kLast : 10); ++k) y[k] = y[4 + kLast - k];
}

// Section j of the q-cascade, computed up to kLast = 3 + 2j (or 10). The
// q-cascade drops the lowest bit of its input: keep the asymmetry.
template <int kLast>
void q_section(const Sequence &u, Sequence &y, int16_t c) {
  for (int k = 2; k <= 2 + (kLast < 10 ? kLast : 10); ++k) {
    y[k] = add32_wrap(u[k - 2], shl32_wrap(sub32_wrap(u[k] >> 1, mul_32_16(u[k - 1], c)), 1));
  }
}

}  // namespace

extern "C" void kevrc_lsp2lpc(int16_t *lsp, int16_t *lpc) {
  repair_range(lsp);
  int16_t p[5], q[5];
  for (int j = 0; j < 5; ++j) {
    p[j] = round16(kevrc::cos129(lsp[2 * j]));
    q[j] = round16(kevrc::cos129(lsp[2 * j + 1]));
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
  Sequence bp[2] = {{0, 0, kOne, kOne}};   // two zeros, then 1 + z^-1
  Sequence bq[2] = {{0, 0, kOne, -kOne}};  // two zeros, then 1 - z^-1
  p_section<3>(bp[0], bp[1], p[0]);
  q_section<3>(bq[0], bq[1], q[0]);
  p_section<5>(bp[1], bp[0], p[1]);
  q_section<5>(bq[1], bq[0], q[1]);
  p_section<7>(bp[0], bp[1], p[2]);
  q_section<7>(bq[0], bq[1], q[2]);
  p_section<9>(bp[1], bp[0], p[3]);
  q_section<9>(bq[1], bq[0], q[3]);
  p_section<11>(bp[0], bp[1], p[4]);
  q_section<11>(bq[0], bq[1], q[4]);
  const int32_t *up = bp[1];  // after five sections
  const int32_t *uq = bq[1];
  for (int k = 1; k <= 10; ++k) {
    lpc[k - 1] = round16(shl32_wrap(add32_wrap(up[k + 2], uq[k + 2]), 2));  // (P + Q)/2 in Q12
  }
}
