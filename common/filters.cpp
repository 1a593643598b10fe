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
#include "common/pair_recursion.h"

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

}  // namespace

// The ten newest outputs live in locals; blocks of ten outputs each overwrite
// the oldest local in turn, so no value moves between them. Each input is read
// before the output of the same index is written, so out may be in.
extern "C" void kevrc_iir(const int16_t *in, const int16_t *coef, int16_t *mem, int16_t n,
                          int16_t *out) {
  if (n <= 0) return;
  int32_t c[kOrder];
  for (int k = 0; k < kOrder; ++k) c[k] = coef[k];
  int i = 0;
  PairTaps p;
  if (pair_taps(coef, &p)) {  // two outputs per pass (common/pair_recursion.h)
    int32_t y[kOrder];
    for (int k = 0; k < kOrder; ++k) y[k] = mem[k];
    i = recursion_pairs(p, n, y, [in, out](int j, uint32_t sum) {
      const int32_t v = iir_round(in[j], sum);
      out[j] = static_cast<int16_t>(v);
      return v;
    });
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
