// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Frame coding at the chosen rate: kevrc_encode_frame(work, enc, rate).
//
// work (in/out) holds the frame's analysis (unquantized LSPs, residual,
// open-loop delay and gain) and receives the coded parameters that the packer
// reads; enc (in/out) carries the inter-frame memories. rate is 1, 3 or 4;
// any other value keeps the previous rate's quantizer record and takes the
// full/half-rate path.
//
// Eighth rate: two-split LSP quantization, then per subframe (53, 53, 54) the
// interpolated synthesis filter's impulse-response gain, the energy
// measurement, at the last subframe the energy search and the noise
// excitation, and the update of the weighted-synthesis memories.
// Full and half rate: LSP quantization, the delay correction that pulls the
// accumulated time shift back, the delta delay, then per subframe the
// analysis-by-synthesis loop: interpolated filters, zero-input response and
// weighted impulse response, adaptive codebook and residual modification,
// the target from the modified residual, the adaptive-codebook gain, the
// fixed-codebook search and gain, and the memory updates.
// Every rate ends with the frame-end updates: frame counter, previous rate,
// LSP memories.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "common/pair_recursion.h"
#include "encoder/encoder_state.h"
#include "encoder/lpc_weighting.h"
#include "encoder/rcelp.h"

namespace kevrc {
namespace {

constexpr int16_t kVoicedGain = 13107;    // 0.4 in Q15
constexpr int16_t kUnvoicedGain = 3277;   // 0.1 in Q15
constexpr int16_t kShiftFar = 5120;       // 20 samples in 1/256 sample
constexpr int16_t kShiftNear = 2560;      // 10 samples
constexpr int16_t kMinDelay = 20;
constexpr int16_t kMaxDelay = 120;
constexpr int16_t kNoSharpening = 200;    // a lag no subframe reaches
constexpr int kFirstSubframe = 80;        // residual sample of subframe 0
constexpr int kResidualAvailable = 240;   // residual samples from subframe 0 to the buffer end

void select_params(kevrce_instance *enc, int16_t rate) {
  enc->rate = rate;
  if (rate == 4) enc->params = &kParamsFull;
  if (rate == 3) enc->params = &kParamsHalf;
}

// Weighted split VQ of the frame's LSPs with a quantizer record's layout.
void quantize_lsp(kevrce_work *w, const kevrce_rate_params &p) {
  kevrce_norm_lsp(w->lsp, w->lsp_weight, w->lsp_shift);
  kevrce_lspmaq(w->lsp, p.num_splits, p.split_dims, p.split_entries, w->lsp_weight, w->lsp_index,
                p.codebook, w->lsp_shift);
  std::memcpy(w->lsp_q, w->lsp_weight, sizeof w->lsp_q);
}

// LPC (Q12) of subframe i from LSPs interpolated between the previous and
// the current frame's; sub_lsp receives the interpolated LSPs.
void interpolated_lpc(const int16_t *prev, const int16_t *cur, int i, int16_t *sub_lsp,
                      int16_t *lpc) {
  kevrc_interpol(sub_lsp, prev, cur, static_cast<int16_t>(i));
  int16_t lsp[10];
  std::memcpy(lsp, sub_lsp, sizeof lsp);  // lsp2lpc repairs its argument
  kevrc_lsp2lpc(lsp, lpc);
}

// Quantized LPC of subframe i (the synthesis filter's).
void subframe_lpc_q(const kevrce_instance *enc, kevrce_work *w, int i) {
  interpolated_lpc(enc->prev_lsp_q, w->lsp_q, i, w->sub_lsp_q, w->aq);
}

// Unquantized LPC of subframe i (the weighting filter's): the frame
// analysis already computed it from the same LSPs unless they changed since.
void subframe_lpc(const kevrce_instance *enc, kevrce_work *w, int i) {
  if (w->sub_lpc_ready == 1 && i >= 0 && i < 3 &&
      std::memcmp(w->sub_lpc_from[0], enc->prev_lsp, sizeof w->sub_lpc_from[0]) == 0 &&
      std::memcmp(w->sub_lpc_from[1], w->lsp, sizeof w->sub_lpc_from[1]) == 0) {
    std::memcpy(w->sub_lsp, w->sub_lsp_cache[i], sizeof w->sub_lsp);
    std::memcpy(w->a, w->sub_lpc_cache[i], sizeof w->a);
    return;
  }
  interpolated_lpc(enc->prev_lsp, w->lsp, i, w->sub_lsp, w->a);
}

void eighth_rate_frame(kevrce_work *w, kevrce_instance *enc) {
  enc->params = &kParamsHalf;  // the eighth rate uses the half-rate gain table
  reset_rcelp(enc);
  quantize_lsp(w, kParamsEighth);
  const int16_t *residual = &w->residual[80];
  for (int i = 0; i < 3; ++i) {
    const auto L = static_cast<int16_t>(kEncSubframeLen[i]);
    subframe_lpc_q(enc, w, i);
    kevrce_imp_res(w->aq, w->h);
    const int16_t gain = kevrce_imp_res_gain(w->h, L);
    const int16_t keep_seed = (i == 0 && enc->prev_rate != 1 && enc->frame_count == 0) ? 0 : 1;
    kevrce_calcexc_lbr(enc, gain, residual, L, keep_seed, static_cast<int16_t>(i), enc->exc,
                       &w->energy_index);
    // Subframes 0 and 1 run the memories over older excitation; only the
    // last subframe's update sees the new noise. This order is intended.
    int16_t *tail = &enc->exc[kEncAcbMemory - L];
    kevrce_zeroinput(enc, w->aq, w->aq, tail, L, 1, w->zir);
    residual += L;
  }
  // An all-ones eighth-rate packet is never sent.
  if (w->lsp_index[0] == 15 && w->lsp_index[1] == 15 && w->energy_index == 255) w->energy_index = 127;
}

// Moves the frame's delay by one sample so that the accumulated shift drifts
// back; two thresholds give hysteresis, and voiced frames are left alone.
int16_t corrected_delay(kevrce_instance *enc, int16_t d, int16_t b) {
  const int16_t s = enc->rcelp_shift;
  int16_t &st = enc->delay_adjust;
  if (b < kUnvoicedGain) {
    reset_rcelp(enc);
    st = 0;
  } else if (s > kShiftFar) {
    st = -1;
    if (b < kVoicedGain) --d;
  } else if (s < -kShiftFar) {
    st = 1;
    if (b < kVoicedGain) ++d;
  } else if (s > kShiftNear) {
    if (st == 1) {
      st = 0;
    } else if (st == -1 && b < kVoicedGain) {
      --d;
    }
  } else if (s < -kShiftNear) {
    if (st == -1) {
      st = 0;
    } else if (st == 1 && b < kVoicedGain) {
      ++d;
    }
  } else {
    st = 0;
  }
  return d < kMinDelay ? kMinDelay : (d > kMaxDelay ? kMaxDelay : d);
}

// Full rate sends D - P in 1..31 (0 when |D - P| >= 16, restarting the
// contour at D); half rate sends none but restarts the contour the same way.
void delta_delay(kevrce_work *w, kevrce_instance *enc, int16_t rate) {
  const int d = w->delay - enc->prev_delay;
  const int mag = d < 0 ? -d : d;
  w->delta_delay = 0;
  if (rate == 4 && mag < 16) {
    w->delta_delay = static_cast<int16_t>(d + 16);
  } else if (mag > 15) {
    enc->prev_delay = w->delay;
  }
}

// Modified speech: the modified residual through 1/A(z) (no saturation:
// the rounding keeps the low 16 bits), then the weighting A(z/g1)/A(z/g2).
// The outputs follow the memory in one array (oldest first), so no history
// moves per sample.
void modified_weighted_speech(kevrce_work *w, kevrce_instance *enc, int L) {
  int16_t *s = w->mod_speech;
  int16_t *mem = enc->mod_syn_mem;  // newest first
  int16_t hist[kLpcOrder + kEncMaxSubframe];
  for (int k = 0; k < kLpcOrder; ++k) hist[kLpcOrder - 1 - k] = mem[k];
  auto synthesis = [w](int n, uint32_t taps) {  // taps: sum of a_k s[n-k], wrapping
    const int32_t acc = sub32_wrap(mul16(w->mod_res[n], 8192), shl32_wrap(static_cast<int32_t>(taps), 1));
    return round16(shl32_wrap(acc, 3));
  };
  int n = 0;
  PairTaps p;
  if (pair_taps(w->a, &p)) {  // two outputs per pass (common/pair_recursion.h)
    int32_t newest[kLpcOrder];
    for (int k = 0; k < kLpcOrder; ++k) newest[k] = mem[k];
    n = recursion_pairs(p, L, newest, [&](int j, uint32_t taps) { return hist[kLpcOrder + j] = s[j] = synthesis(j, taps); });
  }
  for (; n < L; ++n) {
    const int16_t *past = &hist[kLpcOrder + n];  // past[-1] the newest output
    uint32_t taps = 0;
    for (int k = 0; k < kLpcOrder; ++k) taps += static_cast<uint32_t>(mul16(w->a[k], past[-1 - k]));
    hist[kLpcOrder + n] = s[n] = synthesis(n, taps);
  }
  for (int k = 0; k < kLpcOrder; ++k) mem[k] = hist[kLpcOrder + L - 1 - k];
  int16_t num[kLpcOrder], den[kLpcOrder];
  weigh_lpc(w->a, kevrc_tbl_wfac_gamma_1, num);
  weigh_lpc(w->a, kevrc_tbl_wfac_gamma_2, den);
  kevrc_fir(s, num, enc->mod_num_mem, static_cast<int16_t>(L), s);
  kevrc_iir(s, den, enc->mod_den_mem, static_cast<int16_t>(L), s);
}

// Rounded mean delay of the subframe, or no sharpening when it exceeds L.
int16_t sharpening_lag(const int32_t *contour, int L) {
  const int32_t mean = add32_wrap(contour[0], contour[1]) >> 1;
  const int32_t t = add32_wrap(mean, 32768) >> 16;
  return L < t ? kNoSharpening : static_cast<int16_t>(t);
}

void code_subframe(kevrce_work *w, kevrce_instance *enc, int16_t rate, int i) {
  const auto L = static_cast<int16_t>(kEncSubframeLen[i]);
  int16_t *exc = &enc->exc[kEncAcbMemory];
  subframe_lpc_q(enc, w, i);
  subframe_lpc(enc, w, i);
  kevrce_zeroinput(enc, w->a, w->aq, exc, L, 0, w->zir);
  kevrce_weighed_imp_res(w->a, w->aq, w->wh, w->wscratch);
  kevrc_interpol_delay(w->contour, enc->prev_delay, w->delay, static_cast<int16_t>(i));
  kevrce_compute_acb(enc, w->mod_res, w->contour, &w->residual[kFirstSubframe + 53 * i],
                     static_cast<int16_t>(kResidualAvailable - 53 * i), w->ol_gain, L);
  modified_weighted_speech(w, enc, L);
  for (int n = 0; n < L; ++n) w->target[n] = sub16_wrap(w->mod_speech[n], w->zir[n]);

  kevrce_cal_cl_gain(w->wh, w->target, L, exc, &w->pitch_gain, &w->acb_gain_index[i]);
  kevrce_conv_imp_res(exc, w->wh, w->filtered_acb, L);
  for (int n = 0; n < L; ++n) w->target2[n] = sub16_wrap(w->target[n], w->filtered_acb[n]);
  kevrce_weight2_res(w->target2, w->a, w->aq, w->res_target, w->wscratch);
  if (L < kEncMaxSubframe) w->target2[kEncMaxSubframe - 1] = 0;
  w->filtered_acb[L] = 0;
  w->res_target[L] = 0;

  kevrce_acelp_cbk_search(w, w->target2, w->res_target, w->wh, sharpening_lag(w->contour, L),
                          w->pitch_gain, L, w->filtered_code, rate == 4 ? 1 : 0, w->code,
                          &w->fcb_gain, w->fcb_words[i]);
  w->fcb_gain_index[i] =
      kevrce_fcb_gain_quant(enc, w->acb_gain_index[i], w->fcb_gain, w->code, exc, L);

  kevrce_zeroinput(enc, w->a, w->aq, exc, L, 1, w->zir);
  if (enc->rcelp_carry > 0) {
    std::memmove(w->mod_res, w->mod_res + L, sizeof(int16_t) * enc->rcelp_carry);
  }
  kevrc_mcpy_acbsize(enc->exc + L, enc->exc);
}

void full_half_rate_frame(kevrce_work *w, kevrce_instance *enc, int16_t rate) {
  quantize_lsp(w, *enc->params);
  w->delay = corrected_delay(enc, w->ol_delay, w->ol_gain);
  delta_delay(w, enc, rate);
  w->lpc_flag = 0;
  for (int i = 0; i < 3; ++i) code_subframe(w, enc, rate, i);
  const int index_sum = w->acb_gain_index[0] + w->acb_gain_index[1] + w->acb_gain_index[2];
  if (index_sum < 2 && w->rcelp_hold != 1) reset_rcelp(enc);
  enc->prev_delay = w->delay;
}

void frame_end(kevrce_work *w, kevrce_instance *enc, int16_t rate) {
  ++enc->frame_count;
  enc->prev_rate = rate;
  std::memcpy(enc->prev_lsp_q, w->lsp_q, sizeof enc->prev_lsp_q);
  std::memcpy(enc->prev_lsp, w->lsp, sizeof enc->prev_lsp);
}

}  // namespace
}  // namespace kevrc

extern "C" void kevrc_encode_frame(kevrce_work *work, kevrce_instance *enc, int16_t rate) {
  using namespace kevrc;
  select_params(enc, rate);
  if (rate == 1) {
    eighth_rate_frame(work, enc);
  } else {
    full_half_rate_frame(work, enc, rate);
  }
  frame_end(work, enc, rate);
}
