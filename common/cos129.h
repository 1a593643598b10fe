// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// cos129(x): cos(pi*x/16384) in Q31 for a Q15 frequency x (16384 = half the
// sampling rate), by a second-order Taylor step from the nearest lower point
// of the 129-entry cosine/sine tables:
//   cos(t_i + d) = cos t_i - d sin t_i - d^2/2 cos t_i.
// Inline so that the LSP conversions avoid a call per frequency; the C entry
// point kevrc_interpolation_cos129 returns the same values.
// The index uses |x| while the step uses the signed x (negative x lies outside
// the intended domain and keeps that quirk). Frequencies whose table index
// would pass 128 (|x| >= 16512, only reachable from damaged LSP vectors) are
// reflected about half the sampling rate first, so no input reads past the
// tables.
//
// kevrc_tbl_lsp_grid_cos[m + 7] = cos129 of the Q15 frequency (rounded) of
// m * 1704565 in Q31 of the sampling rate, m = -7 .. 637: every point the
// LSP root search of kevrce_lpc2lsp can visit (1704565 is an eighth of its
// grid step).
#ifndef KEVRC_COMMON_COS129_H
#define KEVRC_COMMON_COS129_H

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

extern "C" const int32_t kevrc_tbl_lsp_grid_cos[645];

namespace kevrc {

inline int32_t cos129(int16_t x) {
  int32_t a = x < 0 ? -int32_t{x} : int32_t{x};
  int32_t pos = x;
  if ((a >> 7) > 128) {
    a = 32768 - a;  // cos(2*pi - t) = cos t
    pos = a;
  }
  const int i = a >> 7;
  const int16_t g = wrap16(i * 128 - pos);  // minus the offset within the table step
  const int16_t c = kevrc_tbl_cos129[i];
  const int16_t s = kevrc_tbl_sin129[i];
  const int32_t t1 = mul_32_16(mul2_16(3217, g), s);  // 3217 = pi/128 in Q17
  const int16_t h = round16(mul2_16(10106, g));        // (pi/128)^2/2 per squared step
  const int32_t t2 = mul_32_16(mul2_16(g, h), c);
  return add32_wrap(shl32_wrap(sub32_wrap(t1, t2), 6), shl32_wrap(c, 16));
}

}  // namespace kevrc

#endif  // KEVRC_COMMON_COS129_H
