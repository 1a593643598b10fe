// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrce_ol_pitch(state, x, delay, gain): open-loop pitch delay and its
// normalised correlation for a 160-sample stretch of the short-term residual.
//
// state in/out: the decimated history, the decimation filter outputs and the
//   tracked delay P (20..120, 0 = none) with its gain Pg (Q15).
// x[0..159] in: the residual stretch; x[80..159] are the samples new since the
//   previous call and are decimated into the history.
// delay out: 20..120 samples. gain out: 0..32767, Q15,
//   F(D) / sqrt(E0 E1) with F(T) = sum x[i] x[i+T], E0 = sum x[i]^2,
//   E1 = sum x[i+T]^2 over i = 0..159-T, and 0 when F <= 0.
//
// Steps: 4:1 decimation of the new samples by a third-order recursive
// low-pass and a zero section; coarse search of decimated lags 5..30; a
// tracking search near the previous delay P/4 that takes over when it reaches
// 0.835 of the coarse maximum; full-rate refinement within +-3 of four times
// the decimated lag; the gain; a second tracking step at full rate within
// +-6 of P; the update of P and Pg.
//
// Correlations and energies are block-floating sums of 2 x y terms with the
// magnitude test |sum| > 0x3FFFFFFF. Maxima start at -2^31 with exponent 1 and
// are compared after aligning the exponents (the smaller one is shifted
// right, in place); a candidate wins only when strictly larger, so the first
// (smallest) lag wins ties.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

using namespace kevrc;

namespace {

constexpr int kLen = 160;
constexpr int kNew = 80;     // new samples per call (x[80..159])
constexpr int kDecLen = 40;  // decimated buffer
constexpr int kDecHistory = 20;
constexpr int kMinDecLag = 5;
constexpr int kMaxDecLag = 30;
constexpr int kMinDelay = 20;
constexpr int kMaxDelay = 120;
constexpr int kTrackWindow = 6;
constexpr int32_t kSumLimit = 0x3FFFFFFF;

// What a block-floating sum does when its magnitude passes the limit: halve
// (every sum but one), or add 1 while the exponent still rises (the energies
// of the tracked delay's gain, a required asymmetry).
enum class Overflow { kHalve, kAddOne };

// sum over i < n of 2 a[i] b[i] as a block-floating value.
BlockFloat correlate(const int16_t *a, const int16_t *b, int n, Overflow mode = Overflow::kHalve) {
  BlockFloat bf;
  if (block_float_fast(a, b, n, kSumLimit, bf)) return bf;  // neither overflow mode acts
  for (int i = 0; i < n; ++i) {
    bf.sum = add32_wrap(bf.sum, asr32(mul2_16(a[i], b[i]), bf.exp));
    if (bf.sum > kSumLimit || bf.sum < -kSumLimit) {
      bf.sum = mode == Overflow::kHalve ? bf.sum >> 1 : add32_wrap(bf.sum, 1);
      ++bf.exp;
    }
  }
  return bf;
}

// Aligns best and cand; cand replaces best only when strictly larger.
bool replaces(BlockFloat &best, BlockFloat cand) {
  block_float_align(best, cand);
  if (cand.sum <= best.sum) return false;
  best = cand;
  return true;
}

// A stretch s[0..len) of which correlations are taken. quiet: its energy
// sum s[i]^2 is at most kSumLimit (proved by the bound of block_float_fast).
// Then every correlation of two parts of it is event-free: its partial sums
// stay within sum |s[i] s[j]| <= (sum s[i]^2 + sum s[j]^2) / 2 <= kSumLimit
// (2|ab| <= a^2 + b^2; both parts lie inside s), and no term is the wrapping
// (-32768)^2 (that alone exceeds the limit), so the sum is the plain one with
// exponent 1 in either overflow mode.
struct Stretch {
  const int16_t *s;
  int len;
  bool quiet;
};

Stretch stretch_of(const int16_t *s, int len) {
  const TermSums t = product_sums(s, s, len);
  return Stretch{s, len, (int64_t{t.high_sum} + len) * 65536 <= kSumLimit};
}

// sum over i < n of a[i] b[i] modulo 2^32: the exact sum where no wrap can occur.
int32_t plain_sum(const int16_t *a, const int16_t *b, int n) {
  uint32_t acc = 0;
  for (int i = 0; i < n; ++i) acc += static_cast<uint32_t>(mul16(a[i], b[i]));
  return static_cast<int32_t>(acc);
}

// correlate() of two parts of a stretch (a and b point into st.s).
BlockFloat correlate_in(const Stretch &st, const int16_t *a, const int16_t *b, int n,
                        Overflow mode = Overflow::kHalve) {
  if (st.quiet) return BlockFloat{plain_sum(a, b, n), 1};
  return correlate(a, b, n, mode);
}

// The lag in lo..hi maximising sum over i < len - L of s[i] s[i+L]; its value in *best.
int best_lag(const Stretch &st, int lo, int hi, BlockFloat *best) {
  *best = BlockFloat{INT32_MIN, 1};
  int lag = lo;
  for (int L = lo; L <= hi; ++L)
    if (replaces(*best, correlate_in(st, st.s, st.s + L, st.len - L))) lag = L;
  return lag;
}

// Appends 20 decimated samples of x[0..79] to the history (shifted first).
void decimate(kevrce_olp_state *st, const int16_t *x) {
  std::memmove(st->decimated, st->decimated + kDecHistory, kDecHistory * sizeof(int16_t));
  int16_t *out = st->decimated + kDecHistory;
  int16_t y1 = st->y1, y2 = st->y2, y3 = st->y3;
  for (int n = 0; n < kNew; ++n) {
    // Low-pass y = x/4 + 2.2875 y1 - 1.9561 y2 + 0.5959 y3 (Q14 coefficients), scaled to Q16.
    int32_t w = mul32_wrap(x[n], 4096);
    w = add32_wrap(w, mul32_wrap(37478, y1));
    w = sub32_wrap(w, mul32_wrap(32048, y2));
    w = add32_wrap(w, mul32_wrap(9764, y3));
    w = shl32_wrap(w, 2);
    if ((n & 3) == 3) {
      // Zero section y + y3 - 0.312 (y1 + y2), doubled and rounded to 16 bits.
      const int32_t v = add32_wrap(sat32(int64_t{w} + int64_t{y3} * 65536),
                                   mul32_wrap(2 * -10224, int32_t{y1} + y2));
      *out++ = round16_sat(sat32(int64_t{v} * 2));
    }
    y3 = y2;
    y2 = y1;
    y1 = round16(w);
  }
  st->y1 = y1;
  st->y2 = y2;
  st->y3 = y3;
}

// Decimated lag: coarse maximum over 5..30, replaced by the best lag near P/4
// when that one exceeds 0.835 of it.
int decimated_lag(const int16_t *d, int prev_delay) {
  const Stretch st = stretch_of(d, kDecLen);
  BlockFloat coarse;
  int lag = best_lag(st, kMinDecLag, kMaxDecLag, &coarse);
  if (prev_delay != 0 && std::abs(prev_delay - 4 * lag) >= 3) {
    int lo = (prev_delay >> 2) - 2, hi = std::min((prev_delay >> 2) + 2, kMaxDecLag);
    if (lo <= kMinDecLag - 1) {
      lo = kMinDecLag;
      hi = kMinDecLag + 4;
    }
    BlockFloat tracked;
    const int tracked_lag = best_lag(st, lo, hi, &tracked);
    BlockFloat threshold{mul_32_16(coarse.sum, 27361), coarse.exp};  // 0.835 in Q15
    if (replaces(threshold, tracked)) lag = tracked_lag;
  }
  return lag;
}

// F / sqrt(E0 E1) in Q15 for delay t, F the block-floating correlation at t.
// With E0 E1 = u 2^z (u the normalised product in [0.5, 1)), sqrt(E0 E1) =
// root 2^(h - 31) where root = sqrt(u) in Q31, divided by sqrt(2) when z is
// odd, and h = (z + 1) >> 1; F is aligned to root by 2^(exp_F - h + 31).
int16_t normalised_gain(const Stretch &st, int t, BlockFloat f, Overflow mode) {
  const int16_t *x = st.s;
  const BlockFloat e0 = correlate_in(st, x, x, kLen - t, mode);
  const BlockFloat e1 = correlate_in(st, x + t, x + t, kLen - t, mode);
  if (e0.sum <= 0 || e1.sum <= 0 || f.sum <= 0) return 0;
  const int n0 = norm_32(e0.sum), n1 = norm_32(e1.sum);
  const int32_t product =
      mul_32_32(shl32_wrap(e0.sum, n0), shl32_wrap(e1.sum, n1));  // [2^29, 2^31)
  const int np = norm_32(product);
  const int z = 62 - np + e0.exp - n0 + e1.exp - n1;
  int32_t root = shl32_wrap(squar_rt(shl32_wrap(product, np)), 16);
  if (z & 1) root = mul_32_16(root, 23170);  // 1/sqrt(2) in Q15; stays >= 2^30
  const int h = (z + 1) >> 1;
  const int shift = f.exp - h + 31;
  const int32_t aligned = shift >= 0 ? shl32_sat(f.sum, shift) : asr32(f.sum, -shift);
  if (aligned <= 0) return 0;
  if (aligned >= root) return 32767;
  return round16_sat(div_32_32(aligned, root));
}

// Full-rate tracking: T1 outside P +- 6 may give way to the best delay inside.
void track_full_rate(const Stretch &st, int prev_delay, int *delay, int16_t *gain) {
  const int lo = std::max(prev_delay - kTrackWindow, kMinDelay);
  const int hi = std::min(prev_delay + kTrackWindow, kMaxDelay);
  const int t1 = *delay;
  const int32_t b1 = *gain;
  if (t1 >= lo && t1 <= hi) return;
  BlockFloat f2;
  const int t2 = best_lag(st, lo, hi, &f2);
  const int16_t b2 = normalised_gain(st, t2, f2, Overflow::kAddOne);
  bool take_t2;
  if (t1 > hi && (((b1 * 9830 + 16384) >> 15) < (b2 >> 1) || b2 == 32767)) {  // 0.3 in Q15
    take_t2 = true;
  } else if (t1 >= lo || ((b1 * 19661 + 16384) >> 15) >= (b2 >> 1)) {  // 0.6 in Q15
    take_t2 = false;
  } else {
    take_t2 = true;
  }
  if (take_t2) {
    *delay = t2;
    *gain = b2;
  }
}

}  // namespace

extern "C" void kevrce_ol_pitch(kevrce_olp_state *state, const int16_t *x, int16_t *delay,
                                int16_t *gain) {
  // P comes from this function and is 0 or 20..120; anything else would index
  // outside the buffers, so it counts as no previous delay.
  int prev_delay = state->prev_delay;
  if (prev_delay < kMinDelay || prev_delay > kMaxDelay) prev_delay = 0;

  decimate(state, x + kNew);
  const int lag = decimated_lag(state->decimated, prev_delay);

  const Stretch st = stretch_of(x, kLen);
  BlockFloat f1;
  const int lo = std::max(kMinDelay, 4 * lag - 3), hi = std::min(4 * lag + 3, kMaxDelay);
  int d = best_lag(st, lo, hi, &f1);
  int16_t b = normalised_gain(st, d, f1, Overflow::kHalve);
  if (prev_delay != 0) track_full_rate(st, prev_delay, &d, &b);

  *delay = static_cast<int16_t>(d);
  *gain = b;
  if (b < 13108) {  // 0.4: forget the tracked delay as its gain decays by 0.75 per call
    state->prev_gain = static_cast<int16_t>((state->prev_gain * 24576 + 16384) >> 15);
    if (state->prev_gain <= 9829) state->prev_delay = 0;
  } else {
    state->prev_delay = static_cast<int16_t>(d);
    state->prev_gain = b;
  }
}
