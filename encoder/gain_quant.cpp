// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Codebook gains of a full- or half-rate subframe: the closed-loop
// adaptive-codebook (pitch) gain, the filtered adaptive contribution, and the
// fixed-codebook gain with the excitation update.
//
// kevrce_conv_imp_res(in, h, out, n)
//   in   in   n samples (Q0), indices 0..n-1.
//   h    in   weighted-synthesis impulse response h[0..n-1], Q11.
//   out  out  out[i] = sum_{j<=i} in[i-j] h[j], rounded to Q0, low 16 bits
//             kept; i = 0..n-1. n <= 0 writes nothing.
//
// kevrce_cal_cl_gain(h, x, n, v, gain, index)
//   h      in      impulse response h[0..n-1], Q11.
//   x      in      target x[0..n-1], Q0.
//   n      in      subframe length (53 or 54); n < 1 gives level 0 and
//                  leaves v alone.
//   v      in/out  adaptive-codebook vector v[0..n-1], Q0; scaled in place
//                  by the quantized gain.
//   gain   out     quantized gain, Q14 (a level of kevrc_tbl_pitch_q).
//   index  out     gain index 0..7: the level nearest to Exy/Eyy, where y is
//                  v filtered by h; the thresholds are the Q14 midpoints of
//                  kevrce_tbl_pitch_threshold, a ratio exactly on one takes
//                  the lower level, Exy <= 0 gives 0.
//
// kevrce_fcb_gain_quant(enc, acb_index, g, c, e, n)
//   enc        in      enc->rate (4 = full rate, anything else half rate) and
//                      enc->params->fcb_gains / fcb_gain_count (ascending).
//   acb_index  in      adaptive-codebook gain index 0..7 of the subframe
//                      (values outside are clamped into 0..7).
//   g          in      optimal fixed-codebook gain from the codebook search.
//   c          in      fixed-codebook vector c[0..n-1], Q12 (pulses 4096).
//   e          in/out  excitation e[0..n-1]: the scaled adaptive vector on
//                      entry, plus the scaled fixed-codebook vector on exit.
//   n          in      subframe length; n <= 0 leaves e alone.
//   Returns the fixed-codebook gain index 0..fcb_gain_count-1.
#include <algorithm>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

constexpr int kPitchLevels = 8;
constexpr int32_t kEnergyLimit = 1073741823;  // 2^30 - 1: block-floating headroom
constexpr int16_t kFullRate = 4;

constexpr int kChunk = 64;  // outputs convolved per pass

// Sample i of in * h, alone: the same sum and rounding as filtered_chunk,
// for an output that overlaps the input (each sample then reads the ones
// written before it).
int16_t filtered_sample(const int16_t *in, const int16_t *h, int i) {
  Mac2Wrap acc;
  for (int j = 0; j <= i; ++j) acc.add(in[i - j], h[j]);
  return wrap16(add32_wrap(acc.value(), 2048) >> 12);
}

bool overlap(const int16_t *a, const int16_t *b, int n) {
  const auto pa = reinterpret_cast<uintptr_t>(a), pb = reinterpret_cast<uintptr_t>(b);
  const uintptr_t bytes = static_cast<uintptr_t>(n) * sizeof(int16_t);
  return pa < pb + bytes && pb < pa + bytes;
}

// filtered_chunk from first = 0: each output a forward sum over whole groups
// of eight terms (the compiler vectorizes it), reading the input behind
// kChunk zeros and h reversed, zero past count: the extra terms are zero.
void first_chunk(const int16_t *in, const int16_t *h, int count, int16_t *out) {
  int16_t padded[2 * kChunk];  // kChunk zeros, then in[0 .. count)
  int16_t reversed[kChunk];    // reversed[kChunk - 1 - t] = h[t]
  for (int k = 0; k < kChunk; ++k) padded[k] = 0;
  for (int k = 0; k < count; ++k) padded[kChunk + k] = in[k];
  for (int t = 0; t < kChunk; ++t) reversed[kChunk - 1 - t] = t < count ? h[t] : int16_t{0};
  for (int i = 0; i < count; ++i) {
    // Terms t = 0 .. T - 1, T = i + 1 rounded up to eight; u = kChunk - 1 - t
    // reads h[t] and in[i - t] = padded[i + 1 + u].
    const int from = kChunk - ((i + 8) & ~7);
    const int16_t *x = &padded[i + 1];
    uint32_t acc = 0;
    for (int u = from; u < kChunk; ++u) acc += static_cast<uint32_t>(mul16(x[u], reversed[u]));
    out[i] = wrap16(add32_wrap(static_cast<int32_t>(acc << 1), 2048) >> 12);
  }
}

// Samples [first, first + count) of in * h, count <= kChunk: sample i is
// sum_{j=0..i} 2 in[i-j] h[j], Q12 for Q0 x Q11, rounded ((sum + 2048) >> 12)
// to Q0. The products are accumulated input by input across the chunk's
// outputs (a contiguous loop the compiler vectorizes); the sums wrap modulo
// 2^32, so the order does not change them. From sample 0 on, first_chunk
// computes the same.
void filtered_chunk(const int16_t *in, const int16_t *h, int first, int count, int16_t *out) {
  if (first == 0) {
    first_chunk(in, h, count, out);
    return;
  }
  uint32_t acc[kChunk] = {};
  const int end = first + count;
  for (int k = 0; k < end; ++k) {
    const int32_t x = in[k];
    const int from = k > first ? k : first;
    for (int i = from; i < end; ++i) acc[i - first] += static_cast<uint32_t>(x * h[i - k]);
  }
  for (int i = 0; i < count; ++i) {
    out[i] = wrap16(add32_wrap(static_cast<int32_t>(acc[i] << 1), 2048) >> 12);
  }
}

// Index of the level nearest to exy / eyy: the last threshold that exy
// strictly exceeds. mul_32_16(eyy, t) is eyy * t / 2^15, half of eyy times
// the Q14 threshold gain; doubled (wrapping) it is eyy times that gain.
int16_t pitch_gain_index(int32_t exy, int32_t eyy) {
  int16_t index = 0;
  if (exy < 1) return index;
  for (int k = 1; k < kPitchLevels; ++k) {
    if (exy > shl32_wrap(mul_32_16(eyy, kevrce_tbl_pitch_threshold[k - 1]), 1)) {
      index = static_cast<int16_t>(k);
    }
  }
  return index;
}

// Scale factor of the fixed-codebook gain, Q31, falling as the pitch gain
// (Q14) rises: 1.0 - 0.15 gp at full rate, 0.9 - 0.1 gp at half rate.
int32_t fcb_gain_factor(int16_t pitch_q14, bool full_rate) {
  if (full_rate) {
    // 0.15 gp in Q31 = pitch_q14 * 2 * 9830 (9830 = 0.15 in Q16).
    return sub32_wrap(2147483647, shl32_wrap(mul16(pitch_q14, 9830), 1));
  }
  // 1932735283 = 0.9 in Q31; 0.1 gp in Q31 = pitch_q14 * 2 * 6554 (0.1 in Q16).
  return sub32_wrap(1932735283, shl32_wrap(mul16(pitch_q14, 6554), 1));
}

// Last index k whose midpoint (table[k] + table[k-1]) / 2, scaled by 8192,
// x strictly exceeds; 0 when none.
int16_t fcb_gain_index(int32_t x, const int16_t *table, int16_t count) {
  int16_t index = 0;
  for (int k = 1; k < count; ++k) {
    // |table[k] + table[k-1]| <= 65536, so the product stays below 2^28.
    const int32_t midpoint = (int32_t{table[k]} + table[k - 1]) * 4096;
    if (x > midpoint) index = static_cast<int16_t>(k);
  }
  return index;
}

}  // namespace
}  // namespace kevrc

extern "C" void kevrce_conv_imp_res(const int16_t *in, const int16_t *h, int16_t *out, int16_t n) {
  using namespace kevrc;
  if (n > 0 && overlap(in, out, n)) {
    for (int i = 0; i < n; ++i) out[i] = filtered_sample(in, h, i);
    return;
  }
  // Leading zero inputs (all of them when the pitch gain is 0) give zero
  // outputs and add nothing to the later ones.
  int zeros = 0;
  while (zeros < n && in[zeros] == 0) out[zeros++] = 0;
  in += zeros;
  out += zeros;
  n = static_cast<int16_t>(n - zeros);
  int16_t chunk[kChunk];
  for (int first = 0; first < n; first += kChunk) {
    const int count = std::min<int>(kChunk, n - first);
    filtered_chunk(in, h, first, count, chunk);
    std::copy(chunk, chunk + count, out + first);
  }
}

extern "C" void kevrce_cal_cl_gain(const int16_t *h, const int16_t *x, int16_t n, int16_t *v,
                                   int16_t *gain, int16_t *index) {
  using namespace kevrc;
  *index = 0;
  *gain = kevrc_tbl_pitch_q[0];
  if (n < 1) return;

  // Energy of y = v * h and its correlation with x, block-floating: both
  // sums share the exponent sh and are halved together whenever the energy
  // passes 2^30 - 1 (at most once per sample).
  int32_t eyy = 0;
  int32_t exy = 0;
  int sh = 1;
  int16_t ys[kChunk];
  for (int i = 0; i < n; ++i) {
    if (i % kChunk == 0) filtered_chunk(v, h, i, std::min<int>(kChunk, n - i), ys);
    const int16_t y = ys[i % kChunk];
    eyy = add32_wrap(eyy, asr32(mul2_16(y, y), sh));
    exy = add32_wrap(exy, asr32(mul2_16(x[i], y), sh));
    if (eyy > kEnergyLimit) {
      ++sh;
      eyy >>= 1;
      exy >>= 1;
    }
  }

  *index = pitch_gain_index(exy, eyy);
  *gain = kevrc_tbl_pitch_q[*index];
  // v = gain * v: Q14 x Q0, rounded back to Q0 (|gain * v| < 2^30, exact).
  for (int i = 0; i < n; ++i) v[i] = wrap16(add32_wrap(mul16(*gain, v[i]), 8192) >> 14);
}

extern "C" int16_t kevrce_fcb_gain_quant(const kevrce_instance *enc, int16_t acb_index, int16_t g,
                                         const int16_t *c, int16_t *e, int16_t n) {
  using namespace kevrc;
  const int16_t *table = enc->params->fcb_gains;
  const int16_t count = enc->params->fcb_gain_count;
  if (count < 1) return 0;  // no levels: nothing to quantize to

  const int clamped = acb_index < 0 ? 0 : acb_index >= kPitchLevels ? kPitchLevels - 1 : acb_index;
  const int32_t factor = fcb_gain_factor(kevrc_tbl_pitch_q[clamped], enc->rate == kFullRate);
  // x = 2 * mul_32_16(factor, g), the doubling wrapping: x / 8192 is
  // 16 * factor * g, the scaled gain in the table's Q4 units.
  const int32_t x = shl32_wrap(mul_32_16(factor, g), 1);

  const int16_t index = fcb_gain_index(x, table, count);
  const int16_t q = static_cast<int16_t>(table[index] >> 1);
  // e += c * q: c (Q12) times q (the Q4 table gain halved, Q3) is Q15,
  // rounded to Q0 (|c * q| < 2^30, exact); the sum keeps its low 16 bits.
  for (int i = 0; i < n; ++i) {
    e[i] = add16_wrap(e[i], static_cast<int16_t>(add32_wrap(mul16(c[i], q), 16384) >> 15));
  }
  return index;
}
