// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Small pieces shared by the weighting-filter blocks of the encoder: the
// bandwidth-expanded coefficients of A(z/g) and the newest-first tap
// histories of the 10th-order filters.
#pragma once

#include <cstdint>
#include <cstring>

#include "common/fixed_point.h"

namespace kevrc {

constexpr int kLpcOrder = 10;

// out[k] = g^(k+1) a[k] in Q12: (gamma[k] a[k] + 16384) >> 15, low 16 bits
// (gamma Q15, the factor tables of the weighting filter).
inline void weigh_lpc(const int16_t *a, const int16_t *gamma, int16_t *out) {
  for (int k = 0; k < kLpcOrder; ++k) out[k] = wrap16(add32_wrap(mul16(gamma[k], a[k]), 16384) >> 15);
}

// sum over k of x[k] y[k], the exact products summed with 32-bit wrap.
inline int32_t dot_lpc(const int16_t *x, const int16_t *y) {
  int32_t acc = 0;
  for (int k = 0; k < kLpcOrder; ++k) acc = add32_wrap(acc, mul16(x[k], y[k]));
  return acc;
}

// Shifts a newest-first history by one place and puts v in front.
inline void push_history(int16_t *hist, int16_t v) {
  std::memmove(hist + 1, hist, (kLpcOrder - 1) * sizeof(int16_t));
  hist[0] = v;
}

}  // namespace kevrc
