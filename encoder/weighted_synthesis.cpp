// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The encoder's weighted synthesis chain 1/Aq(z) -> A(z/g1) -> 1/A(z/g2)
// (g1 = 0.9, g2 = 0.5): its impulse response, its zero-input response, and
// the update of its memories with a subframe's final excitation.
//
// kevrce_weighed_imp_res(a, aq, h, scratch)
//   a        in   unquantized LPC a1..a10, Q12 (weighting filter).
//   aq       in   quantized LPC a1..a10, Q12 (synthesis filter).
//   h        out  the chain's impulse response h[0..53], Q11 (2048 = 1.0),
//                 54 values whatever the subframe length.
//   scratch  out  20 values: the synthesis history [0..9] and the output
//                 history [10..19], newest first, as left by the last step.
//
// kevrce_zeroinput(enc, a, aq, exc, n, update, out)
//   enc     in/out  enc->syn_mem (1/Aq), enc->wnum_mem (A(z/g1)) and
//                   enc->wden_mem (1/A(z/g2)): ten samples each, newest first.
//   a, aq   in      unquantized and quantized LPC a1..a10, Q12.
//   exc     in      n excitation samples (read in the update form only).
//   n       in      subframe length; n <= 0 does nothing.
//   update  in      1: filter exc through the chain and keep the memories;
//                   0: the chain's response to n zeros from its current
//                   memories, which are left unchanged.
//   out     out     n samples of the chain's output.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "common/pair_recursion.h"
#include "encoder/lpc_weighting.h"
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

constexpr int kImpLen = 54;
constexpr int16_t kOne = 2048;  // 1.0 in Q11

// sum over k < 10 of coef[k] * past[-k] (past[0] the newest sample), wrapping.
int32_t dot_past(const int16_t *coef, const int16_t *past) {
  uint32_t acc = 0;
  for (int k = 0; k < kLpcOrder; ++k) acc += static_cast<uint32_t>(mul16(coef[k], past[-k]));
  return static_cast<int32_t>(acc);
}

// Outputs 1 .. m of a recursion over y (y[0] given, zeros before it) in the
// pair form (common/pair_recursion.h) when coef allows it; returns m (0 when
// it does not).
template <class Output>
int pair_run(const int16_t *coef, const int16_t *y, Output output) {
  PairTaps p;
  if (!pair_taps(coef, &p)) return 0;
  int32_t newest[kLpcOrder] = {y[0]};
  return recursion_pairs(p, kImpLen - 1, newest, output);
}

}  // namespace
}  // namespace kevrc

extern "C" void kevrce_weighed_imp_res(const int16_t *a, const int16_t *aq, int16_t *h,
                                       int16_t *scratch) {
  using namespace kevrc;
  int16_t w1[kLpcOrder], w2[kLpcOrder];
  weigh_lpc(a, kevrc_tbl_wfac_gamma_1, w1);
  weigh_lpc(a, kevrc_tbl_wfac_gamma_2, w2);
  // Each stage runs over the whole response in turn, on arrays with ten
  // zeros of history in front: sy = 1/Aq(z) on the impulse, f = A(z/g1) on
  // sy, ho = 1/A(z/g2) on f (= h).
  int16_t sy_hist[kLpcOrder + kImpLen] = {};
  int16_t ho_hist[kLpcOrder + kImpLen] = {};
  int16_t f[kImpLen];
  int16_t *sy = sy_hist + kLpcOrder;
  int16_t *ho = ho_hist + kLpcOrder;
  sy[0] = kOne;
  // 1/Aq(z) with no further input: -sum syn*aq, Q23 -> Q27 -> Q11.
  auto synthesis = [](uint32_t sum) { return round16(neg32_wrap(shl32_wrap(static_cast<int32_t>(sum), 4))); };
  int i = 1 + pair_run(aq, sy, [&](int j, uint32_t sum) { return sy[1 + j] = synthesis(sum); });
  for (; i < kImpLen; ++i) sy[i] = synthesis(static_cast<uint32_t>(dot_past(aq, &sy[i - 1])));
  // A(z/g1): sy in Q24 plus 2 * sum syn*w1 (Q24), to Q27, rounded to Q11.
  for (int i = 1; i < kImpLen; ++i) {
    const int32_t num =
        shl32_wrap(add32_wrap(shl32_wrap(sy[i], 13), shl32_wrap(dot_past(w1, &sy[i - 1]), 1)), 3);
    f[i] = round16_sat(num);
  }
  // 1/A(z/g2): f in Q24 less 2 * sum out*w2 (Q24), to Q27, rounded to Q11.
  ho[0] = kOne;
  auto weighting = [&f](int n, uint32_t sum) {
    return round16(shl32_wrap(sub32_wrap(shl32_wrap(f[n], 13), shl32_wrap(static_cast<int32_t>(sum), 1)), 3));
  };
  i = 1 + pair_run(w2, ho, [&](int j, uint32_t sum) { return ho[1 + j] = weighting(1 + j, sum); });
  for (; i < kImpLen; ++i) ho[i] = weighting(i, static_cast<uint32_t>(dot_past(w2, &ho[i - 1])));
  std::memcpy(h, ho, kImpLen * sizeof(int16_t));
  for (int k = 0; k < kLpcOrder; ++k) {  // the histories, newest first
    scratch[k] = sy[kImpLen - 1 - k];
    scratch[kLpcOrder + k] = ho[kImpLen - 1 - k];
  }
}

extern "C" void kevrce_zeroinput(kevrce_instance *enc, const int16_t *a, const int16_t *aq,
                                 const int16_t *exc, int16_t n, int16_t update, int16_t *out) {
  using namespace kevrc;
  if (n <= 0) return;
  int16_t wa1[kLpcOrder], wa2[kLpcOrder];
  weigh_lpc(a, kevrc_tbl_wfac_gamma_1, wa1);
  weigh_lpc(a, kevrc_tbl_wfac_gamma_2, wa2);
  if (update != 0) {
    kevrc_iir(exc, aq, enc->syn_mem, n, out);
    kevrc_fir(out, wa1, enc->wnum_mem, n, out);
    kevrc_iir(out, wa2, enc->wden_mem, n, out);
    return;
  }
  // Zero-input form: the same chain on zeros, from copies of the memories.
  int16_t mem[kLpcOrder];
  std::memset(out, 0, static_cast<size_t>(n) * sizeof(int16_t));
  std::memcpy(mem, enc->syn_mem, sizeof mem);
  kevrc_iir(out, aq, mem, n, out);
  std::memcpy(mem, enc->wnum_mem, sizeof mem);
  kevrc_fir(out, wa1, mem, n, out);
  std::memcpy(mem, enc->wden_mem, sizeof mem);
  kevrc_iir(out, wa2, mem, n, out);
}
