// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Tenth-order recursions two outputs per pass over their memory.
//
// A recursion y[i] = output(i, S_i) with S_i = sum over k < 10 of
// c_k y[i-1-k] modulo 2^32 (c: ten int16 taps in any Q format; y: int16
// outputs). With the pair coefficients C_k = c_k + 2^32 c_(k+1) (c_10 = 0),
// sum C_k y[i-1-k] = S + 2^32 T where S is the exact tap sum of output i and
// T = sum over k >= 1 of c_k y[i-k], the sum of output i + 1 less its
// c_0 y[i] term. When sum |c_k| <= 65535, |S| < 2^31 (|y| <= 32768), so
// S + 2^31 fills the low 32 bits of the 64-bit sum exactly: the low half
// gives S and the high half T, both modulo 2^32, exactly the wrapping sums
// of the one-output form. Eleven products serve two outputs instead of 20.
//
// pair_taps(c, p): fills p from c[0..9]; false (p unusable) beyond the bound.
// recursion_pairs(p, n, y, output): outputs 0 .. m - 1, m = n - n mod 10;
//   y[0..9] (in/out) the ten newest outputs, newest first, as int32 holding
//   int16 values; output(i, S_i) returns y[i] (an int16 value) and stores it
//   wherever the caller keeps it. Returns m.
#pragma once

#include <cstdint>

namespace kevrc {

struct PairTaps {
  uint64_t pair[10];
  int32_t c0;
};

inline bool pair_taps(const int16_t *c, PairTaps *p) {
  int32_t magnitudes = 0;  // at most 10 * 32768
  for (int k = 0; k < 10; ++k) magnitudes += c[k] < 0 ? -c[k] : c[k];
  for (int k = 0; k < 10; ++k) {
    const int64_t next = k + 1 < 10 ? c[k + 1] : 0;
    p->pair[k] = static_cast<uint64_t>(int64_t{c[k]}) + (static_cast<uint64_t>(next) << 32);
  }
  p->c0 = c[0];
  return magnitudes <= 65535;
}

namespace pair_detail {

// Outputs i and i + 1 from the ten newest outputs y1 (newest) .. y10.
template <class Output>
[[gnu::always_inline]] inline void two_outputs(const PairTaps &p, int i, Output &output, int32_t y1,
                                               int32_t y2, int32_t y3, int32_t y4, int32_t y5,
                                               int32_t y6, int32_t y7, int32_t y8, int32_t y9,
                                               int32_t y10, int32_t *first, int32_t *second) {
  auto term = [](uint64_t c, int32_t y) { return c * static_cast<uint64_t>(int64_t{y}); };
  const uint64_t t = (uint64_t{1} << 31) + term(p.pair[0], y1) + term(p.pair[1], y2) +
                     term(p.pair[2], y3) + term(p.pair[3], y4) + term(p.pair[4], y5) +
                     term(p.pair[5], y6) + term(p.pair[6], y7) + term(p.pair[7], y8) +
                     term(p.pair[8], y9) + term(p.pair[9], y10);
  const int32_t y = output(i, static_cast<uint32_t>(t) ^ 0x80000000u);  // S + 2^31 - 2^31
  *first = y;
  *second = output(i + 1, static_cast<uint32_t>(t >> 32) + static_cast<uint32_t>(p.c0 * y));
}

}  // namespace pair_detail

// The newest-first locals rotate by two per pair, five pairs a block.
template <class Output>
[[gnu::always_inline]] inline int recursion_pairs(const PairTaps &p, int n, int32_t *y, Output output) {
  using pair_detail::two_outputs;
  int32_t y1 = y[0], y2 = y[1], y3 = y[2], y4 = y[3], y5 = y[4];
  int32_t y6 = y[5], y7 = y[6], y8 = y[7], y9 = y[8], y10 = y[9];
  int i = 0;
  for (; i + 10 <= n; i += 10) {
    two_outputs(p, i, output, y1, y2, y3, y4, y5, y6, y7, y8, y9, y10, &y10, &y9);
    two_outputs(p, i + 2, output, y9, y10, y1, y2, y3, y4, y5, y6, y7, y8, &y8, &y7);
    two_outputs(p, i + 4, output, y7, y8, y9, y10, y1, y2, y3, y4, y5, y6, &y6, &y5);
    two_outputs(p, i + 6, output, y5, y6, y7, y8, y9, y10, y1, y2, y3, y4, &y4, &y3);
    two_outputs(p, i + 8, output, y3, y4, y5, y6, y7, y8, y9, y10, y1, y2, &y2, &y1);
  }
  const int32_t newest[10] = {y1, y2, y3, y4, y5, y6, y7, y8, y9, y10};
  for (int k = 0; k < 10; ++k) y[k] = newest[k];
  return i;
}

}  // namespace kevrc
