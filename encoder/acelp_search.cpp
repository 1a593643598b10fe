// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Fixed-codebook (ACELP) search entry of a full- or half-rate subframe:
// pitch sharpening of the impulse response, backward filtering of the target
// and its scaling to 16 bits, the full- or half-rate search, sharpening of the
// chosen codevector and its optimal gain.
//
// kevrce_acelp_cbk_search(work, target, residual, impulse, lag, pitch_gain, L,
//                         filtered, full_rate, code, gain, index)
//   work        scratch  work->acelp; d(0..54), the scaled backward-filtered
//                        target, is left in work->acelp.d (sign-folded at
//                        full rate).
//   target      in/out   x(0..54), Q0 weighted-speech units; zeroed from L on.
//   residual    in/out   r(0..54), the full-rate sign reference; zeroed from L
//                        on (and overwritten by the full-rate search).
//   impulse     in/out   h(0..54), Q11, L significant samples; pitch-sharpened
//                        in place over 0..L-1.
//   lag         in       pitch lag T; T >= L (200 in use) or T < 0 disables
//                        the sharpening.
//   pitch_gain  in       adaptive-codebook gain, Q14; sets the sharpening
//                        factor f (Q15) = 2 * gain clamped to 6554..29492.
//   L           in       subframe length, 53 or 54 (0..55 are safe).
//   filtered    out      y(0..L-1), the filtered codevector.
//   full_rate   in       non-zero: 8-pulse full-rate search; 0: 3-pulse
//                        half-rate search.
//   code        out      c(0..L-1), pulses of 4096 (1.0 in Q12), sharpened.
//   gain        out      the optimal gain x.y / y.y in Q9 (formed with y >> 1);
//                        0 when 1 + x.y <= 0.
//   index       out      the codebook words: index[0..4] at full rate,
//                        index[0] at half rate.
#include <algorithm>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

constexpr int16_t kFactorMax = 29492;  // 0.9 in Q15
constexpr int16_t kFactorMin = 6554;   // 0.2 in Q15
constexpr int16_t kGainHigh = 14747;   // 0.9 in Q14: from here on f = kFactorMax
constexpr int16_t kGainLow = 3277;     // 0.2 in Q14: below it f = kFactorMin
constexpr int32_t kGainFloor = 65536;  // a normalised correlation below it gives gain 0

// Sharpening factor f in Q15 from the adaptive-codebook gain in Q14.
int16_t sharpening_factor(int16_t pitch_gain) {
  if (pitch_gain >= kGainHigh) return kFactorMax;
  if (pitch_gain < kGainLow) return kFactorMin;
  return static_cast<int16_t>(2 * pitch_gain);
}

// x(n) += (x(n - T) f) >> 15 for n = T..L-1, in place and forward, so that
// already sharpened values feed later ones.
void pitch_sharpen(int16_t *x, int L, int T, int16_t f) {
  if (T < 0) return;
  for (int n = T; n < L; ++n) x[n] = add16_wrap(x[n], wrap16(mul16(x[n - T], f) >> 15));
}

// D(p) = sum_{n=p}^{L-1} 2 x(n) h(n - p), 32-bit wrap, p = 0..54 (0 from L on:
// x is zero there). On zero-padded copies each sum runs over whole groups of
// eight terms: those past n = L-1 are zero.
void backward_filter(const int16_t *x, const int16_t *h, int L, int32_t *big_d) {
  int16_t x_pad[kAcelpPositions + kAcelpPadLen] = {};
  int16_t h_pad[kAcelpPadLen] = {};
  for (int n = 0; n < L; ++n) {
    x_pad[n] = x[n];
    h_pad[n] = h[n];
  }
  for (int p = 0; p < kAcelpPositions; ++p) {
    const int terms = std::max(L - p + 7, 0) & ~7;  // p + terms <= L + 7 <= 62
    uint32_t sum = 0;
    for (int k = 0; k < terms; ++k) sum += static_cast<uint32_t>(mul16(x_pad[p + k], h_pad[k]));
    big_d[p] = shl32_wrap(static_cast<int32_t>(sum), 1);
  }
}

// d(p) = ((D(p) << e) + 32768) >> 16 with e = norm_32(5 + sum over tracks of
// max |D| / 2) - 2, so that the correlation of the pulses (at most two per
// track) stays within 16 bits. The shift is taken in 32 bits (a negative e
// shifts right).
void scale_target(const int32_t *big_d, int16_t *d) {
  int32_t s = 5;
  for (int t = 0; t < kAcelpTracks; ++t) {
    int64_t peak = 0;
    for (int p = t; p < kAcelpPositions; p += kAcelpTracks) {
      const int64_t magnitude = big_d[p] < 0 ? -int64_t{big_d[p]} : int64_t{big_d[p]};
      if (magnitude > peak) peak = magnitude;
    }
    s = add32_wrap(s, static_cast<int32_t>(peak >> 1));
  }
  const int e = norm_32(s) - 2;
  int32_t shifted[kAcelpPositions];
  if (e >= 0) {
    for (int p = 0; p < kAcelpPositions; ++p) shifted[p] = shl32_wrap(big_d[p], e);
  } else {
    for (int p = 0; p < kAcelpPositions; ++p) shifted[p] = big_d[p] >> -e;
  }
  // (shifted + 32768) >> 16 as 16 bits: from 0x7FFF8000 on, 32768 wraps to
  // -32768, as the 32-bit wrap of round16 does.
  for (int p = 0; p < kAcelpPositions; ++p) d[p] = round16(shifted[p]);
}

// x.y / y.y by normalised division; y taken at half scale. The sums of
// 2 a b terms wrap in 32 bits, so their order does not matter.
int16_t optimal_gain(const int16_t *x, const int16_t *y, int L) {
  Mac2Wrap xy, yy;
  for (int n = 0; n < L; ++n) {
    const int16_t half_y = static_cast<int16_t>(y[n] >> 1);
    xy.add(x[n], half_y);
    yy.add(half_y, half_y);
  }
  const int32_t num = add32_wrap(1, xy.value());
  const int e1 = norm_32(num);
  const int32_t num_norm = shl32_wrap(num, e1);
  if (num_norm < kGainFloor) return 0;  // includes every non-positive correlation
  const int32_t den = yy.value();
  const int e2 = norm_32(den);
  const int16_t den_high = static_cast<int16_t>(shl32_wrap(den, e2) >> 16);
  const int16_t quotient = den_high == 0 ? int16_t{0} : wrap16(((num_norm >> 17) << 15) / den_high);
  return static_cast<int16_t>(int32_t{quotient} >> ((e1 + 6 - e2) & 31));  // count modulo 32
}

}  // namespace
}  // namespace kevrc

extern "C" void kevrce_acelp_cbk_search(kevrce_work *work, int16_t *target, int16_t *residual,
                                        int16_t *impulse, int16_t lag, int16_t pitch_gain,
                                        int16_t L, int16_t *filtered, int16_t full_rate,
                                        int16_t *code, int16_t *gain, int16_t *index) {
  using namespace kevrc;
  const int16_t f = sharpening_factor(pitch_gain);
  pitch_sharpen(impulse, L, lag, f);
  for (int n = L; n < kAcelpPositions; ++n) target[n] = residual[n] = 0;

  int32_t big_d[kAcelpPositions];
  backward_filter(target, impulse, L, big_d);
  int16_t *d = work->acelp.d;
  scale_target(big_d, d);

  if (full_rate != 0)
    kevrce_algcbk_fullrate(work, d, residual, L, impulse, code, filtered, index);
  else
    kevrce_algcbk_lowrate(work, d, L, impulse, code, filtered, index);

  pitch_sharpen(code, L, lag, f);
  *gain = optimal_gain(target, filtered, L);
}
