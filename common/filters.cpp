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

}  // namespace

extern "C" void kevrc_iir(const int16_t *in, const int16_t *coef, int16_t *mem, int16_t n,
                          int16_t *out) {
  int16_t hist[kOrder + kBlock];  // past outputs, then this block's outputs
  for (int done = 0; done < n; done += kBlock) {
    const int len = std::min<int>(n - done, kBlock);
    load_history(mem, hist);
    for (int i = 0; i < len; ++i) {
      const int32_t acc = sub32_wrap(in[done + i] * 8192, taps(coef, &hist[kOrder + i]));
      // 8*acc in 64 bits, rounded to 16 bits with saturation at both ends.
      hist[kOrder + i] = sat16_64((int64_t{acc} * 8 + 0x8000) >> 16);
      out[done + i] = hist[kOrder + i];
    }
    store_history(hist, len, mem);
  }
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
