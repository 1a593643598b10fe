// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Eighth-rate energy codebook helpers for the training tool and its tests
// (header only).
//
//  energy_search(e, table): the encoder's search of the 256 x 3 log-energy
//    table for the three subframe energies e: squared error of the 16-bit
//    differences, summed in 64 bits and saturated to 32, rows scanned from 255
//    down to 0, a row replacing the best only when strictly better (ties go
//    to the higher index).
//  gain_of(s): the linear gain of a log energy s, round(128 * 10^(s / 8192)).
//  energy_pair_consistent(s, g): whether some real log energy rounds to the
//    search value s and has a gain that rounds to g.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace kevrc::train {

// The energy codebook search (the encoder's): squared error of 16-bit
// differences summed in 64 bits and saturated to 32, scanning 255 down to 0,
// a row replacing the best only when strictly better.
inline int energy_search(const int16_t *e, const int16_t *table) {
  int64_t best = 2147483647;
  int index = 255;
  for (int j = 255; j >= 0; --j) {
    int64_t D = 0;
    for (int k = 0; k < 3; ++k) {
      const int16_t d = static_cast<int16_t>(e[k] - table[3 * j + k]);
      D += 2 * int64_t{d} * d;
    }
    D = std::min<int64_t>(D, 2147483647);
    if (D < best) {
      best = D;
      index = j;
    }
  }
  return index;
}

inline int gain_of(int s) {
  return static_cast<int>(std::floor(128.0 * std::pow(10.0, s / 8192.0) + 0.5));
}

// A search value and a gain are consistent when some real log energy rounds
// to both: the search interval [s - 0.5, s + 0.5] meets the interval of
// values whose gain rounds to g.
inline bool energy_pair_consistent(int s, int g) {
  const double lo = 8192.0 * std::log10((g - 0.5) / 128.0),
               hi = 8192.0 * std::log10((g + 0.5) / 128.0);
  return s + 0.5 >= lo && s - 0.5 <= hi;
}

}  // namespace kevrc::train
