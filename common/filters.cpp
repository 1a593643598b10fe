// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Order-10 direct-form filters shared by both directions.
//
// kevrc_iir: all-pole synthesis 1/A(z), y[i] = x[i] - sum a_k y[i-k] / 4096,
//   rounded and saturated to 16 bits.
// kevrc_fir: prediction-error filter A(z), y[i] = x[i] + sum a_k x[i-k] / 4096,
//   wrapping (no saturation: the difference is intended).
// in/out: n int16 samples (out may be the same array as in); coef: a1..a10 in
// Q12; mem: 10 past samples, newest first (outputs for iir, inputs for fir),
// owned by the caller and updated. n <= 0 does nothing.
#include <algorithm>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

using namespace kevrc;

// Both filters keep the memory and the samples of a block in one history
// array (oldest first), so no shifting happens per tap. The accumulators wrap
// modulo 2^32, so the order in which the taps are summed does not matter.

namespace {

constexpr int kOrder = 10;
constexpr int kBlock = 160;

// Loads a newest-first memory into hist[0..9], oldest first.
void load_history(const int16_t *mem, int16_t *hist) {
  for (int k = 0; k < kOrder; ++k) hist[kOrder - 1 - k] = mem[k];
}

// Stores the newest ten samples of hist[0 .. 10 + n) as a newest-first memory.
void store_history(const int16_t *hist, int n, int16_t *mem) {
  for (int k = 0; k < kOrder; ++k) mem[k] = hist[kOrder + n - 1 - k];
}

// sum over k of 2 * coef[k] * past[-1 - k], wrapping.
int32_t taps(const int16_t *coef, const int16_t *past) {
  Mac2Wrap acc;
  for (int k = 0; k < kOrder; ++k) acc.add(coef[k], past[-1 - k]);
  return acc.value();
}

// One output of the recursion from the input x and the ten newest outputs
// y1 (newest) .. y10: the ten exact products are summed modulo 2^32
// (unsigned: wrapping is defined), doubled and subtracted from x in Q13;
// (8*acc + 0x8000) >> 16 = floor((acc + 4096) / 8192) =
// floor((floor(acc / 2) + 2048) / 4096) (within -2^18 .. 2^18; the inner
// sum cannot overflow), then saturated to 16 bits.
inline int32_t iir_round(int16_t x, uint32_t sum) {
  const int32_t acc = sub32_wrap(x * 8192, static_cast<int32_t>(sum << 1));
  const int32_t y = ((acc >> 1) + 2048) >> 12;
  // One unsigned comparison finds both saturating cases.
  if (static_cast<uint32_t>(y + 32768) > 65535u) return y < 0 ? -32768 : 32767;
  return y;
}

inline int32_t iir_output(int16_t x, const int32_t *c, int32_t y1, int32_t y2, int32_t y3, int32_t y4,
                          int32_t y5, int32_t y6, int32_t y7, int32_t y8, int32_t y9, int32_t y10) {
  const uint32_t sum = static_cast<uint32_t>(c[0] * y1) + static_cast<uint32_t>(c[1] * y2) +
                       static_cast<uint32_t>(c[2] * y3) + static_cast<uint32_t>(c[3] * y4) +
                       static_cast<uint32_t>(c[4] * y5) + static_cast<uint32_t>(c[5] * y6) +
                       static_cast<uint32_t>(c[6] * y7) + static_cast<uint32_t>(c[7] * y8) +
                       static_cast<uint32_t>(c[8] * y9) + static_cast<uint32_t>(c[9] * y10);
  return iir_round(x, sum);
}

// Two outputs per pass over the ten newest outputs. With the pair
// coefficients C_k = c_k + 2^32 c_{k+1} (c_10 = 0) and y1 (newest) .. y10,
// sum C_k y_{k+1} = S + 2^32 T, S = sum c_k y_{k+1} the tap sum of this
// output and T = sum over k >= 1 of c_k y_k the next output's sum less its
// c_0 term. When sum |c_k| <= 65535, |S| < 2^31 (|y| <= 32768), so
// S + 2^31 fills the low 32 bits of the 64-bit sum exactly: the low half
// gives S, the high half T, both modulo 2^32 as the one-output form sums.
struct PairCoefficients {
  uint64_t pair[kOrder];
  int32_t c0;
};

inline void iir_pair(int16_t x0, int16_t x1, const PairCoefficients &p, int32_t y1, int32_t y2,
                     int32_t y3, int32_t y4, int32_t y5, int32_t y6, int32_t y7, int32_t y8,
                     int32_t y9, int32_t y10, int32_t *first, int32_t *second) {
  auto term = [](uint64_t c, int32_t y) { return c * static_cast<uint64_t>(int64_t{y}); };
  const uint64_t t = (uint64_t{1} << 31) + term(p.pair[0], y1) + term(p.pair[1], y2) +
                     term(p.pair[2], y3) + term(p.pair[3], y4) + term(p.pair[4], y5) +
                     term(p.pair[5], y6) + term(p.pair[6], y7) + term(p.pair[7], y8) +
                     term(p.pair[8], y9) + term(p.pair[9], y10);
  const int32_t y = iir_round(x0, static_cast<uint32_t>(t) ^ 0x80000000u);  // S + 2^31 - 2^31
  *first = y;
  *second = iir_round(x1, static_cast<uint32_t>(t >> 32) + static_cast<uint32_t>(p.c0 * y));
}

// The pair form over blocks of ten outputs (the newest-first locals rotate
// by two per pair); returns the number of outputs done, a multiple of ten.
int iir_pairs(const int16_t *in, const int16_t *coef, int n, int16_t *out, int32_t *y) {
  PairCoefficients p{};
  for (int k = 0; k < kOrder; ++k) {
    const int64_t next = k + 1 < kOrder ? coef[k + 1] : 0;
    p.pair[k] = static_cast<uint64_t>(int64_t{coef[k]}) + (static_cast<uint64_t>(next) << 32);
  }
  p.c0 = coef[0];
  int32_t y1 = y[0], y2 = y[1], y3 = y[2], y4 = y[3], y5 = y[4];
  int32_t y6 = y[5], y7 = y[6], y8 = y[7], y9 = y[8], y10 = y[9];
  int i = 0;
  for (; i + kOrder <= n; i += kOrder) {
    iir_pair(in[i], in[i + 1], p, y1, y2, y3, y4, y5, y6, y7, y8, y9, y10, &y10, &y9);
    out[i] = static_cast<int16_t>(y10);
    out[i + 1] = static_cast<int16_t>(y9);
    iir_pair(in[i + 2], in[i + 3], p, y9, y10, y1, y2, y3, y4, y5, y6, y7, y8, &y8, &y7);
    out[i + 2] = static_cast<int16_t>(y8);
    out[i + 3] = static_cast<int16_t>(y7);
    iir_pair(in[i + 4], in[i + 5], p, y7, y8, y9, y10, y1, y2, y3, y4, y5, y6, &y6, &y5);
    out[i + 4] = static_cast<int16_t>(y6);
    out[i + 5] = static_cast<int16_t>(y5);
    iir_pair(in[i + 6], in[i + 7], p, y5, y6, y7, y8, y9, y10, y1, y2, y3, y4, &y4, &y3);
    out[i + 6] = static_cast<int16_t>(y4);
    out[i + 7] = static_cast<int16_t>(y3);
    iir_pair(in[i + 8], in[i + 9], p, y3, y4, y5, y6, y7, y8, y9, y10, y1, y2, &y2, &y1);
    out[i + 8] = static_cast<int16_t>(y2);
    out[i + 9] = static_cast<int16_t>(y1);
  }
  const int32_t newest[kOrder] = {y1, y2, y3, y4, y5, y6, y7, y8, y9, y10};
  for (int k = 0; k < kOrder; ++k) y[k] = newest[k];
  return i;
}

}  // namespace

// The ten newest outputs live in locals; blocks of ten outputs each overwrite
// the oldest local in turn, so no value moves between them. Each input is read
// before the output of the same index is written, so out may be in.
extern "C" void kevrc_iir(const int16_t *in, const int16_t *coef, int16_t *mem, int16_t n,
                          int16_t *out) {
  if (n <= 0) return;
  int32_t c[kOrder];
  for (int k = 0; k < kOrder; ++k) c[k] = coef[k];
  int32_t magnitudes = 0;  // sum of |a_k|, at most 10 * 32768
  for (int k = 0; k < kOrder; ++k) magnitudes += c[k] < 0 ? -c[k] : c[k];
  int i = 0;
  if (magnitudes <= 65535) {  // the pair form's bound
    int32_t y[kOrder];
    for (int k = 0; k < kOrder; ++k) y[k] = mem[k];
    i = iir_pairs(in, coef, n, out, y);
    for (int k = 0; k < kOrder; ++k) mem[k] = static_cast<int16_t>(y[k]);
  }
  int32_t y1 = mem[0], y2 = mem[1], y3 = mem[2], y4 = mem[3], y5 = mem[4];
  int32_t y6 = mem[5], y7 = mem[6], y8 = mem[7], y9 = mem[8], y10 = mem[9];
  for (; i + kOrder <= n; i += kOrder) {
    out[i] = static_cast<int16_t>(y10 = iir_output(in[i], c, y1, y2, y3, y4, y5, y6, y7, y8, y9, y10));
    out[i + 1] = static_cast<int16_t>(y9 = iir_output(in[i + 1], c, y10, y1, y2, y3, y4, y5, y6, y7, y8, y9));
    out[i + 2] = static_cast<int16_t>(y8 = iir_output(in[i + 2], c, y9, y10, y1, y2, y3, y4, y5, y6, y7, y8));
    out[i + 3] = static_cast<int16_t>(y7 = iir_output(in[i + 3], c, y8, y9, y10, y1, y2, y3, y4, y5, y6, y7));
    out[i + 4] = static_cast<int16_t>(y6 = iir_output(in[i + 4], c, y7, y8, y9, y10, y1, y2, y3, y4, y5, y6));
    out[i + 5] = static_cast<int16_t>(y5 = iir_output(in[i + 5], c, y6, y7, y8, y9, y10, y1, y2, y3, y4, y5));
    out[i + 6] = static_cast<int16_t>(y4 = iir_output(in[i + 6], c, y5, y6, y7, y8, y9, y10, y1, y2, y3, y4));
    out[i + 7] = static_cast<int16_t>(y3 = iir_output(in[i + 7], c, y4, y5, y6, y7, y8, y9, y10, y1, y2, y3));
    out[i + 8] = static_cast<int16_t>(y2 = iir_output(in[i + 8], c, y3, y4, y5, y6, y7, y8, y9, y10, y1, y2));
    out[i + 9] = static_cast<int16_t>(y1 = iir_output(in[i + 9], c, y2, y3, y4, y5, y6, y7, y8, y9, y10, y1));
  }
  for (; i < n; ++i) {  // the last n mod 10 outputs, shifting the locals
    const int32_t y = iir_output(in[i], c, y1, y2, y3, y4, y5, y6, y7, y8, y9, y10);
    y10 = y9; y9 = y8; y8 = y7; y7 = y6; y6 = y5;
    y5 = y4; y4 = y3; y3 = y2; y2 = y1; y1 = y;
    out[i] = static_cast<int16_t>(y);
  }
  const int32_t newest[kOrder] = {y1, y2, y3, y4, y5, y6, y7, y8, y9, y10};
  for (int k = 0; k < kOrder; ++k) mem[k] = static_cast<int16_t>(newest[k]);
}

extern "C" void kevrc_fir(const int16_t *in, const int16_t *coef, int16_t *mem, int16_t n,
                          int16_t *out) {
  int16_t hist[kOrder + kBlock];  // past inputs, then this block's inputs
  for (int done = 0; done < n; done += kBlock) {
    const int len = std::min<int>(n - done, kBlock);
    load_history(mem, hist);
    std::copy(in + done, in + done + len, &hist[kOrder]);  // before out (maybe in) is written
    for (int i = 0; i < len; ++i) {
      const int32_t acc = add32_wrap(hist[kOrder + i] * 8192, taps(coef, &hist[kOrder + i]));
      out[done + i] = round16(shl32_wrap(acc, 3));
    }
    store_history(hist, len, mem);
  }
}
