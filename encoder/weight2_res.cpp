// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Residual-domain target of the fixed-codebook search: the fixed-codebook
// target taken back through the inverse of the weighted synthesis chain,
// r = x2 * Aq(z) * A'(z/g2) / A'(z/g1), g1 = 0.9, g2 = 0.5, where the primes
// mark that the recursive branch 1/A(z/g1) and the second FIR branch
// A(z/g2) act with 1/8 of their nominal tap weights (their sums enter with
// the factor 2 where the Aq(z) sum enters with 16). That scaling is the
// codec's and is kept as it stands.
//
// kevrce_weight2_res(x2, a, aq, r, scratch)
//   x2       in   fixed-codebook target x2[0..53], Q0.
//   a        in   unquantized LPC a1..a10 (indices 0..9), Q12.
//   aq       in   quantized LPC a1..a10 (indices 0..9), Q12.
//   r        out  r[0..53], Q0: always 54 samples, whatever the subframe
//                 length (the caller clears r[L] itself).
//   scratch  out  20 values: the input history [0..9] and the history of the
//                 intermediate (after 1/A'(z/g1)) values [10..19], newest
//                 first, as left after the last sample.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "common/pair_recursion.h"
#include "encoder/lpc_weighting.h"

namespace kevrc {
namespace {

constexpr int kLen = 54;

// sum over k < 10 of coef[k] * past[-k] (past[0] the newest sample), wrapping.
int32_t dot_past(const int16_t *coef, const int16_t *past) {
  uint32_t acc = 0;
  for (int k = 0; k < kLpcOrder; ++k) acc += static_cast<uint32_t>(mul16(coef[k], past[-k]));
  return static_cast<int32_t>(acc);
}

// The sample-by-sample form, for r overlapping x2: each input joins the
// history after r[n] is written, so an output stored over a later input is
// read back as that input.
void interleaved(const int16_t *x2, const int16_t *aq, const int16_t *c1, const int16_t *c2,
                 int16_t *r, int16_t *scratch) {
  int16_t *xh = scratch;           // past inputs x2[n-1..n-10]
  int16_t *eh = scratch + kLpcOrder;  // past intermediate values e[n-1..n-10]
  std::memset(scratch, 0, 2 * kLpcOrder * sizeof(int16_t));
  xh[0] = x2[0];
  eh[0] = x2[0];
  r[0] = x2[0];
  for (int n = 1; n < kLen; ++n) {
    // Aq(z): x2 in Q16 plus 16 * sum aq*xh (Q12 -> Q16), rounded to an
    // integer in Q16 by clearing the low half after adding 0.5.
    const int32_t fir = add32_wrap(shl32_wrap(x2[n], 16), shl32_wrap(dot_lpc(aq, xh), 4));
    const int32_t t = static_cast<int32_t>(static_cast<uint32_t>(add32_wrap(fir, 32768)) &
                                           0xFFFF0000u);
    // 1/A'(z/g1): feedback 2 * sum c1*eh (Q12 -> Q13, 1/8 weight), to Q0.
    const int16_t e = round16(sub32_wrap(t, shl32_wrap(dot_lpc(c1, eh), 1)));
    // A'(z/g2): e in Q16 plus 2 * sum c2*eh (1/8 weight), to Q0.
    r[n] = round16(add32_wrap(shl32_wrap(e, 16), shl32_wrap(dot_lpc(c2, eh), 1)));
    push_history(xh, x2[n]);
    push_history(eh, e);
  }
}

bool overlap(const int16_t *a, const int16_t *b, int n) {
  const auto pa = reinterpret_cast<uintptr_t>(a), pb = reinterpret_cast<uintptr_t>(b);
  const uintptr_t bytes = static_cast<uintptr_t>(n) * sizeof(int16_t);
  return pa < pb + bytes && pb < pa + bytes;
}

}  // namespace
}  // namespace kevrc

extern "C" void kevrce_weight2_res(const int16_t *x2, const int16_t *a, const int16_t *aq,
                                   int16_t *r, int16_t *scratch) {
  using namespace kevrc;
  int16_t c1[kLpcOrder], c2[kLpcOrder];
  weigh_lpc(a, kevrc_tbl_wfac_gamma_1, c1);
  weigh_lpc(a, kevrc_tbl_wfac_gamma_2, c2);
  if (overlap(x2, r, kLen)) {
    interleaved(x2, aq, c1, c2, r, scratch);
    return;
  }
  // The three stages run over the whole subframe in turn, on arrays with ten
  // zeros of history in front (x: the input, e: after 1/A'(z/g1)).
  int16_t x_hist[kLpcOrder + kLen] = {};
  int16_t e_hist[kLpcOrder + kLen] = {};
  int16_t *x = x_hist + kLpcOrder;
  int16_t *e = e_hist + kLpcOrder;
  int32_t t[kLen];
  std::memcpy(x, x2, kLen * sizeof(int16_t));
  for (int n = 1; n < kLen; ++n) {
    // Aq(z): x2 in Q16 plus 16 * sum aq*xh (Q12 -> Q16), rounded to an
    // integer in Q16 by clearing the low half after adding 0.5.
    const int32_t fir = add32_wrap(shl32_wrap(x[n], 16), shl32_wrap(dot_past(aq, &x[n - 1]), 4));
    t[n] = static_cast<int32_t>(static_cast<uint32_t>(add32_wrap(fir, 32768)) & 0xFFFF0000u);
  }
  e[0] = x2[0];
  // 1/A'(z/g1): feedback 2 * sum c1*eh (Q12 -> Q13, 1/8 weight), to Q0;
  // outputs two per pass while c1 allows it (common/pair_recursion.h).
  auto feedback = [&t](int n, uint32_t sum) {
    return round16(sub32_wrap(t[n], shl32_wrap(static_cast<int32_t>(sum), 1)));
  };
  int n = 1;
  PairTaps p;
  if (pair_taps(c1, &p)) {
    int32_t newest[kLpcOrder] = {e[0]};
    n += recursion_pairs(p, kLen - 1, newest, [&](int j, uint32_t sum) { return e[1 + j] = feedback(1 + j, sum); });
  }
  for (; n < kLen; ++n) e[n] = feedback(n, static_cast<uint32_t>(dot_past(c1, &e[n - 1])));
  r[0] = x2[0];
  // A'(z/g2): e in Q16 plus 2 * sum c2*eh (1/8 weight), to Q0.
  for (int n = 1; n < kLen; ++n)
    r[n] = round16(add32_wrap(shl32_wrap(e[n], 16), shl32_wrap(dot_past(c2, &e[n - 1]), 1)));
  for (int k = 0; k < kLpcOrder; ++k) {  // the histories, newest first
    scratch[k] = x[kLen - 1 - k];
    scratch[kLpcOrder + k] = e[kLen - 1 - k];
  }
}
