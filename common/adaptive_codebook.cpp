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
#include <algorithm>

#include <kevrc/kevrc_kernels.h>
#include "common/adaptive_codebook.h"
#include "common/fixed_point.h"

using namespace kevrc;

namespace {

constexpr int16_t kCutoffWide = 29491;  // 0.9 in Q15: the 17-tap table
constexpr int kNarrowRows = 8;          // phases 0..7 of the 7-tap table
constexpr int kLanes = 8;               // a 7-tap row padded with one zero

// Rounded wrapping sum of 2 * row[k] * x[k] over kTaps taps (Q15 x Q0 ->
// Q0): a fixed count the compiler vectorizes. Left rolled so that the loop
// vectorizer takes it inside the sample loops (fully unrolled early, eight
// taps stay scalar there).
template <int kTaps>
int16_t dot_row(const int16_t *row, const int16_t *x) {
  Mac2Wrap acc;
#pragma GCC unroll 1
  for (int k = 0; k < kTaps; ++k) acc.add(row[k], x[k]);
  return round16(acc.value());
}

// The same over a run-time count of taps (0 or more).
int16_t dot_row(const int16_t *row, const int16_t *x, int taps) {
  Mac2Wrap acc;
  for (int k = 0; k < taps; ++k) acc.add(row[k], x[k]);
  return taps <= 0 ? int16_t{0} : round16(acc.value());
}

// The delay (Q24) rounded to the nearest integer I (halves upward) and the
// eighth-sample phase of the rest; |I - delay| <= 1/2, so the Q9 offset lies
// in -256..256 and the phase in 0..8, phase 8 being phase 0 of I - 1.
struct Position {
  int32_t whole;
  int phase;
};

[[gnu::always_inline]] inline Position position_of(int32_t delay) {
  int32_t i_delay = ((delay >> 16) + 128) >> 8;
  const int32_t e = sub32_wrap(shl32_wrap(i_delay, 24), delay);
  const int16_t v = wrap16(e >> 15);
  const int phase = (v + 288) >> 6;
  if (phase == 8) return Position{i_delay - 1, 0};
  return Position{i_delay, phase};
}

// position_of for delays from 0 up to 127 samples, where no step above
// wraps: with D = ceil(delay / 2^15) (Q9) the phase is 8I + floor((288 - D)
// / 64), so K = 8I - phase = ceil((delay - 288 * 2^15) / 2^21) whatever I
// the rounding gave, and phase 8 taken as I - 1, phase 0 keeps K; then
// I = ceil(K / 8) and phase = 8I - K, from -K by a shift and a mask.
[[gnu::always_inline]] inline Position position_in_range(int32_t delay) {
  const int32_t minus_k = (9437184 - delay) >> 21;  // 288 * 2^15
  return Position{-(minus_k >> 3), minus_k & 7};
}

template <bool kWide>
constexpr int kTableHalf = kWide ? 8 : 3;

template <bool kWide>
const int16_t *table_row(int phase) {
  constexpr int kTaps = 2 * kTableHalf<kWide> + 1;
  return kWide ? &tbl_ham_win1[phase * kTaps] : &tbl_ham_win[phase * kTaps];
}

// One interpolated sample (see kevrc_bilinear_intrpol): the phase's table
// row against x[-I-n .. -I+n]. The table is a template argument so that the
// loops below get a copy without its choice.
template <bool kWide>
[[gnu::always_inline]] inline int16_t interpolate_with(const int16_t *x, int32_t delay, int16_t n_half) {
  const Position p = position_of(delay);
  constexpr int kHalf = kTableHalf<kWide>;
  const int16_t *row = table_row<kWide>(p.phase);
  const int n = n_half > kHalf ? kHalf : n_half;
  const int16_t *first = x - p.whole - n;
  if (n == kHalf) return dot_row<2 * kHalf + 1>(row, first);
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
  constexpr int kHalf = kTableHalf<kWide>;
  if (n_half >= kHalf) {  // the whole row: a fixed length
    for (int i = from; i < to; ++i) {
      d = add32_wrap(d, step);
      const Position p = position_of(d);
      out[i] = dot_row<2 * kHalf + 1>(table_row<kWide>(p.phase), x + i - p.whole - kHalf);
    }
    return d;
  }
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

// The 7-tap rows each followed by a zero, so that every sample is one
// 8-lane product; the zero lane reads x[-I+4], whose value does not count.
struct PaddedRows {
  int16_t row[kNarrowRows][kLanes];
};

PaddedRows padded_narrow_rows() {
  PaddedRows r{};
  for (int p = 0; p < kNarrowRows; ++p)
    for (int k = 0; k < kLanes - 1; ++k) r.row[p][k] = tbl_ham_win[p * (kLanes - 1) + k];
  return r;
}

// interpolate_run for the whole 7-tap row over padded rows, delays in the
// range of position_in_range.
int32_t narrow_run(const PaddedRows &rows, int16_t *out, const int16_t *x, int from, int to,
                   int32_t d, int32_t step) {
  for (int i = from; i < to; ++i) {
    d = add32_wrap(d, step);
    const Position p = position_in_range(d);
    out[i] = dot_row<kLanes>(rows.row[p.phase], x + i - p.whole - 3);
  }
  return d;
}

// interpolate_run for the whole row, delays in the range of position_in_range.
template <bool kWide>
int32_t row_run(int16_t *out, const int16_t *x, int from, int to, int32_t d, int32_t step) {
  constexpr int kHalf = kTableHalf<kWide>;
  for (int i = from; i < to; ++i) {
    d = add32_wrap(d, step);
    const Position p = position_in_range(d);
    out[i] = dot_row<2 * kHalf + 1>(table_row<kWide>(p.phase), x + i - p.whole - kHalf);
  }
  return d;
}

}  // namespace

namespace kevrc {

void interpolate_fixed(const int16_t *x, int32_t delay, int16_t cutoff, int16_t n_half, int count,
                       int16_t *out) {
  const Position p = position_of(delay);
  if (cutoff == kCutoffWide) {
    const int16_t *row = table_row<true>(p.phase);
    if (n_half >= kTableHalf<true>) {
      for (int m = 0; m < count; ++m) out[m] = dot_row<17>(row, x + m - p.whole - 8);
      return;
    }
    for (int m = 0; m < count; ++m) out[m] = interpolate_with<true>(x + m, delay, n_half);
    return;
  }
  if (n_half >= kTableHalf<false>) {
    int16_t row[kLanes] = {};
    std::copy_n(table_row<false>(p.phase), kLanes - 1, row);
    for (int m = 0; m < count; ++m) out[m] = dot_row<kLanes>(row, x + m - p.whole - 3);
    return;
  }
  for (int m = 0; m < count; ++m) out[m] = interpolate_with<false>(x + m, delay, n_half);
}

}  // namespace kevrc

extern "C" void kevrc_bilinear_intrpol(const int16_t *x, int32_t delay, int16_t cutoff,
                                       int16_t n_half, int16_t *out) {
  *out = interpolate(x, delay, cutoff == kCutoffWide, n_half);
}

namespace {

// A contour of 8 to 127 samples (Q16) keeps every delay of the call, which
// moves linearly between its values, inside the range of position_in_range.
bool contour_in_range(const int32_t *contour) {
  for (int k = 0; k < 3; ++k)
    if (contour[k] < (8 << 16) || contour[k] > (127 << 16)) return false;
  return true;
}

// The runs of a call over a contour in range with the whole row. In place
// (out = x), the 7-tap rows take the padded form: the zero lane's read
// x[i-I+4] lies at or before x[i-3] (I >= 7), history or a sample this call
// wrote.
void runs_in_range(int16_t *out, const int16_t *x, int L, bool wide, int32_t d0, int32_t s1,
                   int32_t d1, int32_t s2) {
  if (wide) {
    row_run<true>(out, x, 0, L, sub32_wrap(d0, s1), s1);
    row_run<true>(out, x, L, L + 10, sub32_wrap(d1, s2), s2);
  } else if (out == x) {
    const PaddedRows rows = padded_narrow_rows();
    narrow_run(rows, out, x, 0, L, sub32_wrap(d0, s1), s1);
    narrow_run(rows, out, x, L, L + 10, sub32_wrap(d1, s2), s2);
  } else {
    row_run<false>(out, x, 0, L, sub32_wrap(d0, s1), s1);
    row_run<false>(out, x, L, L + 10, sub32_wrap(d1, s2), s2);
  }
}

}  // namespace

extern "C" void kevrc_get_codebook(int16_t *out, const int16_t *x, int16_t L, const int32_t *contour,
                                   int16_t cutoff, int16_t n_half) {
  if (L < 0) return;
  const int32_t c = L == 53 ? 1296593899 : 1272582903;  // 32/53, 32/54 in Q31
  const bool wide = cutoff == kCutoffWide;
  const int32_t d = shl32_wrap(contour[0], 8);
  const int32_t s1 = mul_32_32(c, shl32_wrap(sub32_wrap(contour[1], contour[0]), 3));  // Q24/sample
  const int32_t s2 = mul_32_32(c, shl32_wrap(sub32_wrap(contour[2], contour[1]), 3));
  const int32_t d1 = shl32_wrap(contour[1], 8);  // restart exactly at the end-of-subframe delay
  if (n_half >= (wide ? kTableHalf<true> : kTableHalf<false>) && contour_in_range(contour)) {
    runs_in_range(out, x, L, wide, d, s1, d1, s2);
    return;
  }
  out[0] = interpolate(x, d, wide, n_half);
  interpolate_run(out, x, 1, L, d, s1, wide, n_half);
  out[L] = interpolate(x + L, d1, wide, n_half);
  interpolate_run(out, x, L + 1, L + 10, d1, s2, wide, n_half);
}

extern "C" void kevrcd_acb_excitation(int16_t *out, int16_t gain, const int32_t *contour,
                                      int16_t *history, int16_t L) {
  kevrc_get_codebook(out, history + 128, L, contour, kCutoffWide, 8);
  for (int i = L - 1; i >= 0; --i) out[i] = wrap16((out[i] * gain + 8192) >> 14);
}
