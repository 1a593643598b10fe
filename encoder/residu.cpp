// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrce_residu(in, lpc, mem, n, out): the prediction-error filter A(z),
// y[i] = x[i] + sum a_k x[i-k] / 4096, with a saturating accumulator.
//
// in[0..n-1]   in:  samples (int16); out may be the same array.
// lpc[0..9]    in:  a1..a10, Q12.
// mem[0..9]    in/out: the last ten inputs, newest first (owned by the caller).
// out[0..n-1]  out: residual samples (int16). n <= 0 does nothing.
//
// Per sample the accumulator starts at x[i] * 8192 (Q13 x Q12 scale, 64 bits);
// the taps a10 .. a2 are added one at a time as exact products 2 * a_k * x[i-k]
// and the sum is clamped to the 32-bit range after each of them; the last tap
// (a1) is added in 32-bit wrapping arithmetic (its product 2 * a1 * x[i-1]
// wrapping too), and the output is (8 * t + 0x8000) >> 16 with 8 * t wrapping.
// The clamped taps and the wrapping last tap both differ from kevrc_fir,
// which wraps throughout; each form is the one its callers rely on.
//
// When the taps' magnitudes bound every partial sum inside the 32-bit range
// (8192 M + 2 M sum_{k>=2} |a_k| <= 2^31 - 1, M the largest input magnitude
// of a block including the memory), no clamp can act and the result equals a
// plain wrapping sum of all ten taps: such blocks take that path.
#include <algorithm>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

using namespace kevrc;

namespace {

constexpr int kOrder = 10;
constexpr int kBlock = 80;

// One sample as described above, shifting mem.
int16_t clamped_sample(int16_t x, const int16_t *lpc, int16_t *mem) {
  int32_t acc = int32_t{x} * 8192;
  for (int k = 9; k >= 1; --k) {
    acc = sat32(int64_t{acc} + 2 * int64_t{lpc[k]} * mem[k]);
    mem[k] = mem[k - 1];
  }
  const int32_t t = add32_wrap(acc, mul2_16(lpc[0], mem[0]));
  mem[0] = x;
  return round16(shl32_wrap(t, 3));
}

// A block of len <= kBlock samples whose clamps provably never act:
// hist[0..9] holds the memory oldest first, hist[10..] the block's inputs.
void wrapping_block(const int16_t *lpc, const int16_t *hist, int len, int16_t *out) {
  for (int i = 0; i < len; ++i) {
    const int16_t *past = &hist[kOrder + i];
    uint32_t acc = static_cast<uint32_t>(past[0] * 4096);  // x * 8192, halved
    for (int k = 0; k < kOrder; ++k) acc += static_cast<uint32_t>(lpc[k] * past[-1 - k]);
    out[i] = round16(static_cast<int32_t>(acc << 4));  // (2 acc) << 3
  }
}

}  // namespace

extern "C" void kevrce_residu(const int16_t *in, const int16_t *lpc, int16_t *mem, int16_t n,
                              int16_t *out) {
  int32_t taps = 0;  // sum of |a_k| over k >= 2, at most 9 * 32768
  for (int k = 1; k < kOrder; ++k) taps += lpc[k] < 0 ? -lpc[k] : lpc[k];
  int16_t hist[kOrder + kBlock];
  for (int done = 0; done < n; done += kBlock) {
    const int len = std::min<int>(n - done, kBlock);
    for (int k = 0; k < kOrder; ++k) hist[kOrder - 1 - k] = mem[k];
    std::copy(in + done, in + done + len, &hist[kOrder]);  // before out (maybe in) is written
    int32_t peak = 0;
    for (int j = 0; j < kOrder + len; ++j) peak = std::max(peak, hist[j] < 0 ? -int32_t{hist[j]} : int32_t{hist[j]});
    if ((8192 + 2 * int64_t{taps}) * peak <= INT32_MAX) {
      wrapping_block(lpc, hist, len, out + done);
      for (int k = 0; k < kOrder; ++k) mem[k] = hist[kOrder + len - 1 - k];
    } else {
      for (int i = 0; i < len; ++i) out[done + i] = clamped_sample(hist[kOrder + i], lpc, mem);
    }
  }
}
