// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Adaptive-codebook (pitch) contribution: the past excitation read back along
// a continuously changing fractional delay.
//
// kevrc_bilinear_intrpol(x, delay, cutoff, n_half, out): one sample at the
//   position x, interpolated at delay (Q24) behind it with the windowed-sinc
//   row of the nearest eighth-sample phase. Reads x[-I-n_half .. -I+n_half]
//   where I is the rounded delay. cutoff 29491 selects the 17-tap table, any
//   other value the 7-tap one; n_half larger than the table's half-length is
//   limited to it, so no argument reads past the table.
// kevrc_get_codebook(out, x, L, contour, cutoff, n_half): L + 10 samples,
//   the delay moving linearly from contour[0] to contour[1] over the L
//   samples and on towards contour[2] for the 10 extra ones (contour in Q16).
//   out may be x: short delays then repeat samples produced in the same call.
// kevrcd_acb_excitation(out, gain, contour, history, L): the decoder's form,
//   built at history + 128 (after the 128-sample memory) and its first L
//   samples scaled by gain (Q14); the 10 extra samples stay unscaled.
#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

using namespace kevrc;

namespace {

constexpr int16_t kCutoffWide = 29491;  // 0.9 in Q15: the 17-tap table

// Rounded wrapping sum of 2 * row[k] * x[k] over kTaps taps (Q15 x Q0 ->
// Q0): a fixed count the compiler unrolls and vectorizes.
template <int kTaps>
int16_t dot_row(const int16_t *row, const int16_t *x) {
  Mac2Wrap acc;
  for (int k = 0; k < kTaps; ++k) acc.add(row[k], x[k]);
  return round16(acc.value());
}

// The same over a run-time count of taps (0 or more).
int16_t dot_row(const int16_t *row, const int16_t *x, int taps) {
  Mac2Wrap acc;
  for (int k = 0; k < taps; ++k) acc.add(row[k], x[k]);
  return taps <= 0 ? int16_t{0} : round16(acc.value());
}

// One interpolated sample (see kevrc_bilinear_intrpol): the delay (Q24)
// rounded to the nearest integer I and the eighth-sample phase of the rest,
// then the phase's table row against x[-I-n .. -I+n]. The table is a
// template argument so that the loops below get a copy without its choice.
template <bool kWide>
[[gnu::always_inline]] inline int16_t interpolate_with(const int16_t *x, int32_t delay, int16_t n_half) {
  int32_t i_delay = ((delay >> 16) + 128) >> 8;  // nearest integer, halves upward
  // |I - delay| <= 1/2, so the Q9 offset lies in -256..256 and the phase in 0..8.
  const int32_t e = sub32_wrap(shl32_wrap(i_delay, 24), delay);
  const int16_t v = wrap16(e >> 15);
  int phase = (v + 288) >> 6;
  if (phase == 8) {
    i_delay -= 1;
    phase = 0;
  }
  constexpr int kTableHalf = kWide ? 8 : 3;
  constexpr int kTaps = 2 * kTableHalf + 1;
  const int16_t *row = kWide ? &tbl_ham_win1[phase * kTaps] : &tbl_ham_win[phase * kTaps];
  const int n = n_half > kTableHalf ? kTableHalf : n_half;
  const int16_t *first = x - i_delay - n;
  if (n == kTableHalf) return dot_row<kTaps>(row, first);
  return dot_row(row, first, 2 * n + 1);
}

int16_t interpolate(const int16_t *x, int32_t delay, bool wide, int16_t n_half) {
  return wide ? interpolate_with<true>(x, delay, n_half) : interpolate_with<false>(x, delay, n_half);
}

// Samples [from, to) of kevrc_get_codebook: the delay d (Q24) at sample
// from - 1 moves by step per sample; returns the delay at sample to - 1.
template <bool kWide>
int32_t interpolate_run(int16_t *out, const int16_t *x, int from, int to, int32_t d, int32_t step,
                        int16_t n_half) {
  for (int i = from; i < to; ++i) {
    d = add32_wrap(d, step);
    out[i] = interpolate_with<kWide>(x + i, d, n_half);
  }
  return d;
}

int32_t interpolate_run(int16_t *out, const int16_t *x, int from, int to, int32_t d, int32_t step,
                        bool wide, int16_t n_half) {
  return wide ? interpolate_run<true>(out, x, from, to, d, step, n_half)
              : interpolate_run<false>(out, x, from, to, d, step, n_half);
}

}  // namespace

extern "C" void kevrc_bilinear_intrpol(const int16_t *x, int32_t delay, int16_t cutoff,
                                       int16_t n_half, int16_t *out) {
  *out = interpolate(x, delay, cutoff == kCutoffWide, n_half);
}

extern "C" void kevrc_get_codebook(int16_t *out, const int16_t *x, int16_t L, const int32_t *contour,
                                   int16_t cutoff, int16_t n_half) {
  if (L < 0) return;
  const int32_t c = L == 53 ? 1296593899 : 1272582903;  // 32/53, 32/54 in Q31
  const bool wide = cutoff == kCutoffWide;
  int32_t d = shl32_wrap(contour[0], 8);
  out[0] = interpolate(x, d, wide, n_half);
  const int32_t s1 = mul_32_32(c, shl32_wrap(sub32_wrap(contour[1], contour[0]), 3));  // Q24/sample
  interpolate_run(out, x, 1, L, d, s1, wide, n_half);
  d = shl32_wrap(contour[1], 8);  // restart exactly at the end-of-subframe delay
  out[L] = interpolate(x + L, d, wide, n_half);
  const int32_t s2 = mul_32_32(c, shl32_wrap(sub32_wrap(contour[2], contour[1]), 3));
  interpolate_run(out, x, L + 1, L + 10, d, s2, wide, n_half);
}

extern "C" void kevrcd_acb_excitation(int16_t *out, int16_t gain, const int32_t *contour,
                                      int16_t *history, int16_t L) {
  kevrc_get_codebook(out, history + 128, L, contour, kCutoffWide, 8);
  for (int i = L - 1; i >= 0; --i) out[i] = wrap16((out[i] * gain + 8192) >> 14);
}
