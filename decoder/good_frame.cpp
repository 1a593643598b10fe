// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Decoding of a good (not erased) half- or full-rate frame.
//
// Per subframe: interpolated LSPs -> LPC, the delay contour from the last
// frame's delay to this one's, the adaptive-codebook excitation at the
// transmitted gain, the fixed-codebook pulses (pitch-sharpened) at theirs,
// then synthesis, postfilter and output. The first full-rate frame after an
// erasure may first rebuild the erased frame's excitation from the delay
// difference, and with the LPC flag set it widens the bandwidth of its LPC
// filter and produces its first subframe only (the rest of the frame stays
// silent, by definition of that flag).
#include <algorithm>
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "decoder/decoder_paths.h"

namespace kevrc {

namespace {

constexpr int kMaxDelay = 120;
constexpr int kLpcFlagSubframe = 10;  // subframe number used by the LPC-flag frame

// Rebuilds the excitation memory of the erased frame along the contour from
// the delay before the erasure to the previous delay the packet reports.
void rebuild_after_erasure(kevrcd_instance *dec) {
  kevrcd_work *w = dec->work;
  kevrcd_state &st = dec->st;
  st.rebuild_start_delay = st.delay;
  st.delay = static_cast<int16_t>(w->delay + 16 - w->delay_diff);
  if (st.delay - st.rebuild_start_delay > 15 || st.rebuild_start_delay - st.delay > 15)
    st.rebuild_start_delay = st.delay;
  std::memcpy(st.exc, st.saved_exc, sizeof st.saved_exc);
  for (int sf = 0; sf < 3; ++sf) {
    const int len = kSubframeLen[sf];
    kevrc_interpol_delay(w->contour, st.rebuild_start_delay, st.delay, static_cast<int16_t>(sf));
    kevrcd_acb_excitation(&st.exc[kAcbMemory], st.mean_acb_gain, w->contour, st.exc,
                          static_cast<int16_t>(len));
    shift_excitation(st, len);
  }
}

// Pitch sharpening of the fixed-codebook vector (pulses +-1 scaled to Q11).
void sharpen(int16_t *c, int len, int16_t acb_gain, const int32_t *contour) {
  const int16_t f = acb_gain >= 14745 ? int16_t{29488}
                    : acb_gain < 3276 ? int16_t{6552}
                                      : static_cast<int16_t>(2 * acb_gain);
  const int t = add32_wrap(add32_wrap(contour[0], contour[1]) >> 1, 32768) >> 16;
  for (int n = 0; n < 60; ++n) c[n] = wrap16(shl32_wrap(c[n], 11));
  if (t < 0 || t >= len) return;
  for (int n = t; n < len; ++n) c[n] = round16(add32_wrap(shl32_wrap(c[n], 16), mul2_16(f, c[n - t])));
}

}  // namespace

GoodFrame decode_good_frame(kevrcd_instance *dec) {
  kevrcd_work *w = dec->work;
  kevrcd_state &st = dec->st;
  if (st.recovery_count > 0) --st.recovery_count;
  if (kevrcd_lsp_vq_evol(dec) != 0) return GoodFrame::kLspRejected;
  if (w->delay > kMaxDelay) {
    st.bad_frame_flag = 1;
    return GoodFrame::kDelayRejected;
  }
  const bool full = w->rate == 4;
  if (full && w->delay_diff != 0) {
    const int prev_minus_20 = w->delay - w->delay_diff - 4;  // previous delay - 20
    if (prev_minus_20 < 0 || prev_minus_20 > 100) {
      st.bad_frame_flag = 1;
      return GoodFrame::kDelayDiffRejected;
    }
    if (st.recovery_count == 2) rebuild_after_erasure(dec);
  }
  if (w->delay - st.delay > 15 || st.delay - w->delay > 15) st.delay = w->delay;  // no glide over jumps
  st.mean_acb_gain = 0;
  st.mean_fcb_gain = 0;

  const kevrcd_rate_params *p = st.params;
  int off = 0;
  for (int sf = 0; sf < 3; ++sf) {
    const int len = kSubframeLen[sf];
    kevrc_interpol(w->sub_lsp, st.prev_lsp, w->new_lsp, static_cast<int16_t>(sf));
    kevrc_lsp2lpc(w->sub_lsp, w->lpc);
    int slot = sf;
    if (full && w->lpc_flag != 0 && st.recovery_count == 2) {
      for (int k = 0; k < 10; ++k)
        w->lpc[k] = static_cast<int16_t>((w->lpc[k] * kevrcd_tbl_wfac_beta[k] + 16384) >> 15);
      slot = kLpcFlagSubframe;  // leaves the contour as it is; its parameter slots read 0
    }
    kevrc_interpol_delay(w->contour, st.delay, w->delay, static_cast<int16_t>(slot));

    const int16_t g = kevrc_tbl_pitch_q[w->acb_gain_index[slot] & 7];
    st.mean_acb_gain = static_cast<int16_t>(st.mean_acb_gain + ((g * 10923 + 16384) >> 15));
    int16_t *exc = &st.exc[kAcbMemory];
    kevrcd_acb_excitation(exc, g, w->contour, st.exc, static_cast<int16_t>(len));

    const int gain_index = std::clamp<int>(w->fcb_gain_index[slot], 0, p->fcb_gain_count - 1);
    const int16_t fcb_gain = p->fcb_gains[gain_index];
    st.mean_fcb_gain = static_cast<int16_t>(st.mean_fcb_gain + ((fcb_gain * 1365 + 16384) >> 15));
    if (full)
      kvrcd_fcb_fr(w->fcb_words[slot], w->fcb, static_cast<int16_t>(len));
    else
      kvrcd_fcb_hr(w->fcb_words[slot][0], w->fcb, static_cast<int16_t>(len));
    sharpen(w->fcb, len, g, w->contour);
    for (int n = 0; n < len; ++n) exc[n] = add16_wrap(exc[n], static_cast<int16_t>((w->fcb[n] * fcb_gain + 16384) >> 15));
    st.conceal_gain = add16_wrap(st.conceal_gain, 6554);  // wraps after a few frames, by definition

    shift_excitation(st, len);
    synthesize_subframe(dec, len, &w->frame[off]);
    off += len;
    if (slot == kLpcFlagSubframe) break;
  }
  st.frame_erased = static_cast<int16_t>(st.erasure_flag != 0 || st.bad_frame_flag != 0);
  st.delay = w->delay;
  return GoodFrame::kDecoded;
}

}  // namespace kevrc
