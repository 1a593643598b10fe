// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Internal pieces of the residual modification, shared with its tests.
#pragma once

#include <cstdint>

#include "encoder/encoder_state.h"

namespace kevrc {

constexpr int16_t kNoPulse = -32768;   // pulse bookkeeping: no pulse known
constexpr int16_t kMaxShiftQ8 = 18432; // 72 samples in 1/256 sample
constexpr int kResidualLen = 320;      // the residual buffer the subframes read from

// Whole-sample part of a delay (1/256 sample) exactly as the interpolator
// takes it: rounded, halves upward, minus one when the remaining fraction
// selects the last phase. Reads of an N-tap-per-side interpolation at delay
// d from position n cover n - offset - N .. n - offset + N.
constexpr int interp_offset(int32_t delay_q8) {
  int i = (delay_q8 + 128) >> 8;
  const int v = (i * 256 - delay_q8) * 2;  // offset I - delay in Q9, -256..256
  if (((v + 288) >> 6) == 8) --i;
  return i;
}

// Shift (1/256 sample) of sample k of a segment whose first len samples ramp
// from `from` to `to`; later samples take `to`. Consecutive values differ by
// less than one sample whenever |to - from| <= 128 * (len + 1), so the
// residual is read forwards without gaps or repeats.
constexpr int32_t ramp_shift(int32_t from, int32_t to, int k, int len) {
  if (k >= len) return to;
  const int32_t step = (to - from) * (k + 1);
  const int32_t den = len + 1;
  const int32_t q = step >= 0 ? (step + den / 2) / den : -((-step + den / 2) / den);
  return from + q;
}

// One warped segment of a subframe: modified samples [begin, end) read the
// residual at a shift ramping from `from` to `to` over the first `ramp`
// samples (ramp_shift), all shifts in 1/256 sample.
struct RcelpSegment {
  int16_t begin, end, ramp;
  int32_t from, to;
};
constexpr int kMaxRcelpSegments = 8;  // a 54-sample subframe holds at most 4 pulses at delay 20

struct RcelpInput {
  const int16_t *residual;  // first residual sample of the subframe
  int available;            // residual samples from there to the buffer's end
  int L;
  int16_t B;                // open-loop gain, Q15
  int32_t contour_end;      // delay at the subframe's end, Q16
};

// Plans the subframe's segments (the decisions of kevrce_modifyresidual),
// advancing shift, carry and the pulse bookkeeping exactly as it does.
// Reads the target at enc->mod_res_hist[128 ..]. Returns the segment count.
int plan_segments(kevrce_instance *enc, const RcelpInput &in, int16_t *shift, int16_t *carry,
                  RcelpSegment *segments);

// Clears the accumulated shift, the segment carry and the pulse bookkeeping.
inline void reset_rcelp(kevrce_instance *enc) {
  enc->rcelp_shift = 0;
  enc->rcelp_carry = 0;
  enc->rcelp_pulse = kNoPulse;
}

}  // namespace kevrc
