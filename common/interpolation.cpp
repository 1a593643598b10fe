// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Per-subframe interpolation of LSP vectors and of the pitch-delay contour,
// and the block copy of the adaptive-codebook memory.
//
// kevrc_interpol(out[10], prev[10], cur[10], sub): LSPs (Q15) of subframe sub:
//   prev + w*(cur - prev) with w = 1/6 (sub 0 and any other value), 1/2
//   (sub 1), 5/6 (sub 2), all in Q15.
// kevrc_interpol_delay(out[3], prev, cur, sub): Q16 delays at the start of
//   subframe sub, at its end and at the end of the next subframe, on a line
//   from prev (frame start) to cur (frame end, sample 160). sub outside 0..2
//   leaves out unchanged.
// kevrc_mcpy_acbsize(src, dst): copies 128 samples (overlapping ranges allowed).
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

using namespace kevrc;

extern "C" void kevrc_interpol(int16_t *out, const int16_t *prev, const int16_t *cur, int16_t sub) {
  const int16_t w = sub == 1 ? 16384 : sub == 2 ? 27306 : 5462;  // 1/2, 5/6, 1/6 in Q15
  for (int k = 0; k < 10; ++k) {
    const int16_t d = sub16_wrap(cur[k], prev[k]);
    out[k] = round16(add32_wrap(mul2_16(d, w), shl32_wrap(prev[k], 16)));
  }
}

extern "C" void kevrc_interpol_delay(int32_t *out, int16_t prev, int16_t cur, int16_t sub) {
  const int16_t d = sub16_wrap(cur, prev);
  const int32_t p = shl32_wrap(prev, 16);
  const int32_t d0 = p;
  const int32_t d53 = add32_wrap(p, mul2_16(10856, d));   // 53/160 in Q15
  const int32_t d106 = add32_wrap(p, mul2_16(21709, d));  // 106/160 in Q15
  const int32_t d160 = add32_wrap(p, shl32_wrap(d, 16));
  switch (sub) {
    case 0: out[0] = d0; out[1] = d53; out[2] = d106; break;
    case 1: out[0] = d53; out[1] = d106; out[2] = d160; break;
    case 2: out[0] = d106; out[1] = d160; out[2] = d160; break;
    default: break;
  }
}

extern "C" void kevrc_mcpy_acbsize(const int16_t *src, int16_t *dst) {
  std::memmove(dst, src, 128 * sizeof(int16_t));
}
