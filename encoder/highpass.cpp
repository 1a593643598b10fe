// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Input high-pass filter of the encoder: three second-order sections in
// cascade (kevrce_tbl_hpf, Q14), a double zero at 0 Hz.
//
// kevrce_hpf(enc, samples): samples (in/out) are the frame's 160 16-bit
// input samples, replaced by the filter output. Each section keeps its last
// two 16-bit inputs and 32-bit outputs in enc->hpf across frames. A section's
// 32-bit output y is handed on as the 16-bit sample (16*y + 0x8000) >> 16,
// saturated; its feedback uses a split 32 x 16 product of y and the Q14
// coefficient; all other sums wrap.
#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

// 2*c*(y >> 16) + ((low half of y >> 1) * c >> 14): about y*c/16384, the
// split product mul_32_16(y, c).
int32_t feedback(int32_t y, int16_t c) { return mul_32_16(y, c); }

// The sample handed on: (16*y + 0x8000) >> 16 = (y + 2048) >> 12 exactly,
// saturated; computed as ((y >> 1) + 1024) >> 11, which cannot leave 32 bits
// (floor((floor(y/2) + 1024) / 2048) = floor((y + 2048) / 4096)), so a loop
// of them vectorizes.
int16_t section_output(int32_t y) { return sat16(((y >> 1) + 1024) >> 11); }

// The zero part of a section, 16*a with a = 2*(c0 x(n-2) + c1 x(n-1) + c2 x(n))
// wrapped, shifted down by 4 (arithmetic): x0, x1 are the two inputs before
// x(0). Over known inputs, so the loop vectorizes.
void zero_part(const int16_t *coef, int16_t x0, int16_t x1, const int16_t *x, int32_t *out) {
  const auto taps = [coef](int16_t a, int16_t b, int16_t c) {
    return add32_wrap(add32_wrap(mul2_16(coef[0], a), mul2_16(coef[1], b)), mul2_16(coef[2], c)) >> 4;
  };
  out[0] = taps(x0, x1, x[0]);
  out[1] = taps(x1, x[0], x[1]);
  for (int n = 2; n < kEncFrameLen; ++n) out[n] = taps(x[n - 2], x[n - 1], x[n]);
}

void run_section(const int16_t *coef, int16_t *x_hist, int32_t *y_hist, int16_t *samples) {
  int32_t ys[kEncFrameLen];  // the zero part, then the section's 32-bit outputs
  zero_part(coef, x_hist[0], x_hist[1], samples, ys);
  x_hist[0] = samples[kEncFrameLen - 2];
  x_hist[1] = samples[kEncFrameLen - 1];
  // The pole part, with the two last outputs in locals; only the recursion
  // stays in this loop.
  const int16_t c3 = coef[3];
  const int16_t c4 = coef[4];
  int32_t y0 = y_hist[0];
  int32_t y1 = y_hist[1];
  // Unrolled: the two-output shift and the loop count cost more than the taps.
#pragma GCC unroll 8
  for (int n = 0; n < kEncFrameLen; ++n) {
    int32_t y = sub32_wrap(ys[n], feedback(y0, c3));
    y = shl32_wrap(sub32_wrap(y, feedback(y1, c4)), 2);
    y0 = y1;
    y1 = y;
    ys[n] = y;
  }
  for (int n = 0; n < kEncFrameLen; ++n) samples[n] = section_output(ys[n]);
  y_hist[0] = y0;
  y_hist[1] = y1;
}

}  // namespace
}  // namespace kevrc

extern "C" void kevrce_hpf(kevrce_instance *enc, int16_t *samples) {
  for (int s = 0; s < 3; ++s) {
    kevrc::run_section(&kevrce_tbl_hpf[6 * s], enc->hpf.x[s], enc->hpf.y[s], samples);
  }
}
