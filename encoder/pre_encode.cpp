// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrce_pre_encode(enc, input): the per-frame analysis ahead of rate
// determination and coding.
//
// enc in/out: the instance; reads enc->prev_lsp (the previous frame's
//   unquantised LSPs, Q15; not updated here) and works in enc->work:
//   speech[0..319]  in/out: [160..319] (the previous input) moves to [0..159],
//                   the new input goes to [160..319];
//   r[0..16]        out: autocorrelation on the common scale sum x x / 8
//                   (saturated where a very loud frame exceeds 32 bits);
//   h[0..53]        out: impulse response of 1/A(z), Q11, unexpanded LPC;
//   onset, prev_eh  out, in/out: the onset flag and the response energy;
//   lpc[0..9]       out: a1..a10, Q12, bandwidth expanded by 0.994^k;
//   lsp[0..9]       out: the frame's unquantised LSPs, Q15;
//   residual[0..319], residual_mem: out: the short-term residual of speech;
//   sub_lsp_cache, sub_lpc_cache, sub_lpc_from, sub_lpc_ready: out: the
//                   three subframes' interpolated LSPs and LPC, and the LSPs
//                   they came from;
//   olp             in/out: the open-loop pitch state;
//   ol_delay        out: the merged open-loop delay, 20..120;
//   ol_gain         out: the merged open-loop gain, Q15.
// input[0..159] in: the frame's conditioned samples.
// returns ol_gain.
//
// The residual of the previous frame's half (speech[0..79]) uses the LPC of
// the previous LSPs, speech[80..239] uses the LSPs interpolated per subframe
// (1/6, 1/2, 5/6 of the way to the current ones; 53, 53, 54 samples), and
// speech[240..319] the current expanded LPC; the filter memory runs on from
// segment to segment. Open-loop pitch is estimated on residual[80..239] and
// residual[160..319] and the two results merged.
#include "encoder/pre_encode.h"

#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "common/tables.h"
#include "encoder/encoder_state.h"

using namespace kevrc;

namespace {

constexpr int kOrder = 10;
constexpr int kFrame = kEncFrameLen;
constexpr int kImpulseLen = 54;

// r >> shift: the common scale of r across frames. A shift of 32 or more
// (a nearly silent frame) leaves r as it is; a negative one (a very loud
// frame) becomes a left shift with saturation.
void rescale_autocorrelation(int32_t *r, int16_t shift) {
  if (shift >= 32) return;
  for (int k = 0; k <= 16; ++k) r[k] = shift >= 0 ? r[k] >> shift : shl32_sat(r[k], -shift);
}

// Energy of the impulse response: sum (h^2 >> 3), 32-bit wrapping, rounded
// to 16 bits. The flag is 1 when it exceeds ten times the previous frame's
// value (ten 16-bit saturating subtractions leave a positive remainder).
int16_t onset_flag(const int16_t *h, int16_t *prev_eh) {
  int32_t e = 0;
  for (int i = 0; i < kImpulseLen; ++i) e = add32_wrap(e, mul16(h[i], h[i]) >> 3);
  const int16_t eh = round16(e);
  int16_t d = eh;
  for (int n = 0; n < 10; ++n) d = sat16(int32_t{d} - *prev_eh);
  *prev_eh = eh;
  return d > 0 ? 1 : 0;
}

// lpc[k] *= 0.994^(k+1), rounded.
void expand_bandwidth(int16_t *lpc) {
  for (int k = 0; k < kOrder; ++k) lpc[k] = round16(mul2_16(kevrc_tbl_wfac_gamma_4[k], lpc[k]));
}

// Residual of the whole 320-sample buffer with per-segment filters.
void short_term_residual(const int16_t *prev_lsp, kevrce_work *w) {
  int16_t lsp[kOrder], lpc[kOrder];
  std::memset(w->residual_mem, 0, sizeof w->residual_mem);
  std::memcpy(lsp, prev_lsp, sizeof lsp);  // kevrc_lsp2lpc repairs its argument in place
  kevrc_lsp2lpc(lsp, lpc);
  kevrce_residu(w->speech, lpc, w->residual_mem, 80, w->residual);
  int start = 80;
  // The subframes' LPC are kept in w->sub_lpc_cache for the subframe coding.
  for (int sub = 0; sub < 3; ++sub) {
    const int16_t len = static_cast<int16_t>(kEncSubframeLen[sub]);
    kevrc_interpol(w->sub_lsp_cache[sub], prev_lsp, w->lsp, static_cast<int16_t>(sub));
    std::memcpy(lsp, w->sub_lsp_cache[sub], sizeof lsp);
    kevrc_lsp2lpc(lsp, w->sub_lpc_cache[sub]);
    kevrce_residu(&w->speech[start], w->sub_lpc_cache[sub], w->residual_mem, len,
                  &w->residual[start]);
    start += len;
  }
  std::memcpy(w->sub_lpc_from[0], prev_lsp, sizeof w->sub_lpc_from[0]);
  std::memcpy(w->sub_lpc_from[1], w->lsp, sizeof w->sub_lpc_from[1]);
  w->sub_lpc_ready = 1;
  kevrce_residu(&w->speech[240], w->lpc, w->residual_mem, 80, &w->residual[240]);
}

}  // namespace

// The second estimate unless the first is more than 0.4 better; then the
// first alone if the delays are more than 15 apart, else the averages.
void kevrc::merge_open_loop_pitch(int16_t d1, int16_t b1, int16_t d2, int16_t b2, int16_t *d,
                                  int16_t *b) {
  if (b1 - 13107 <= b2) {  // 0.4 in Q15
    *d = d2;
    *b = b2;
  } else if (d2 - d1 > 15 || d1 - d2 > 15) {
    *d = d1;
    *b = b1;
  } else {
    *d = static_cast<int16_t>((d1 + d2) >> 1);
    *b = static_cast<int16_t>(sat16(int32_t{b1} + b2) >> 1);
  }
}

extern "C" int16_t kevrce_pre_encode(kevrce_instance *enc, const int16_t *input) {
  kevrce_work *w = enc->work;
  std::memmove(w->speech, &w->speech[kFrame], kFrame * sizeof(int16_t));
  std::memcpy(&w->speech[kFrame], input, kFrame * sizeof(int16_t));

  rescale_autocorrelation(w->r, kevrce_calculate_lpc(w));
  kevrce_imp_res(w->lpc, w->h);
  w->onset = onset_flag(w->h, &w->prev_eh);
  expand_bandwidth(w->lpc);
  kevrce_a2lsp(w);
  short_term_residual(enc->prev_lsp, w);

  int16_t d1, b1, d2, b2;
  kevrce_ol_pitch(&w->olp, &w->residual[80], &d1, &b1);
  kevrce_ol_pitch(&w->olp, &w->residual[kFrame], &d2, &b2);
  merge_open_loop_pitch(d1, b1, d2, b2, &w->ol_delay, &w->ol_gain);
  return w->ol_gain;
}
