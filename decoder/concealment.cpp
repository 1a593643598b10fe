// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Concealment of an erased half- or full-rate frame, and the subframe output
// stage shared with good frames.
//
// The LSPs drift 1/8 of the way towards the mean vector; the excitation
// repeats the past one at the last delay with the mean adaptive-codebook gain
// (decayed by 0.375 from the second erased frame on) and fades by 1638/65536
// per subframe; weakly voiced frames get noise at the mean fixed-codebook
// gain. A full-rate frame's excitation memory is saved first so that the
// first good frame after the erasure can rebuild it.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "decoder/decoder_paths.h"

namespace kevrc {

namespace {

// Fixed contours (whole samples) for weakly voiced concealment.
constexpr int16_t kUnvoicedContour[3][3] = {{55, 80, 39}, {80, 39, 71}, {39, 71, 33}};
constexpr int16_t kFadePerSubframe = 1638;

}  // namespace

void synthesize_subframe(kevrcd_instance *dec, int len, int16_t *out) {
  kevrcd_work *w = dec->work;
  kevrcd_state &st = dec->st;
  // The subframe's excitation is still at its build position behind the memory
  // (the shift copied it into the memory); concealment noise is added there only.
  kevrc_iir(&st.exc[kAcbMemory], w->lpc, st.syn_mem, static_cast<int16_t>(len), w->syn);
  const int16_t *src = w->syn;
  if (dec->config.postfilter != 0) {
    kecrcd_apf(dec, add32_wrap(w->contour[0], w->contour[1]) >> 1, static_cast<int16_t>(len));
    src = w->apf_out;
  }
  for (int i = 0; i < len; ++i) out[i] = sat16(2 * int32_t{src[i]});
}

void conceal_frame(kevrcd_instance *dec) {
  kevrcd_work *w = dec->work;
  kevrcd_state &st = dec->st;
  if (st.recovery_count != 3) {
    st.erasure_seed = wrap16(2 * int32_t{st.prev_lsp[9]});  // first erased frame of a run
  } else {
    st.mean_acb_gain = static_cast<int16_t>((st.mean_acb_gain * 24576 + 32768) >> 16);  // x 0.375
  }
  st.recovery_count = 3;
  for (int k = 0; k < 10; ++k) {
    const int32_t mix = add32_wrap(kevrc_prev_lsp[k] * 8192, st.prev_lsp[k] * 57344);  // 1/8, 7/8
    w->new_lsp[k] = static_cast<int16_t>(add32_wrap(mix, 32768) >> 16);
  }
  if (w->rate == 4) std::memcpy(st.saved_exc, st.exc, sizeof st.saved_exc);
  w->delay = st.delay;

  int off = 0;
  for (int sf = 0; sf < 3; ++sf) {
    const int len = kSubframeLen[sf];
    kevrc_interpol(w->sub_lsp, st.prev_lsp, w->new_lsp, static_cast<int16_t>(sf));
    kevrc_lsp2lpc(w->sub_lsp, w->lpc);
    kevrc_interpol_delay(w->contour, st.delay, w->delay, static_cast<int16_t>(sf));
    if (st.mean_acb_gain < 4915) {  // 0.3 in Q14
      for (int k = 0; k < 3; ++k) w->contour[k] = int32_t{kUnvoicedContour[sf][k]} << 16;
    }
    int16_t *exc = &st.exc[kAcbMemory];
    kevrcd_acb_excitation(exc, st.mean_acb_gain, w->contour, st.exc, static_cast<int16_t>(len));
    for (int i = 0; i < len; ++i) exc[i] = static_cast<int16_t>((exc[i] * st.conceal_gain + 32768) >> 16);
    st.conceal_gain = static_cast<int16_t>(st.conceal_gain > kFadePerSubframe ? st.conceal_gain - kFadePerSubframe : 0);
    shift_excitation(st, len);
    if (st.mean_acb_gain <= 6553) {  // 0.4 in Q14
      const int16_t amp = static_cast<int16_t>((st.mean_fcb_gain * 3277 + 16384) >> 15);
      int16_t *sub = &st.exc[kAcbMemory];  // reaches the output, not the memory
      for (int i = 0; i < len; ++i) {
        // The generator with its own seed; the pair state is the generator's.
        const int16_t noise = kevrcd_ran_noise_gen(&st.erasure_seed, &st.noise_pair_flag, &st.noise_stored);
        sub[i] = add16_wrap(sub[i], static_cast<int16_t>((amp * noise + 16384) >> 15));
      }
    }
    synthesize_subframe(dec, len, &w->frame[off]);
    off += len;
  }
  st.delay = w->delay;
}

}  // namespace kevrc
