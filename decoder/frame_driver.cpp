// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Decoder frame driver and state lifecycle.
//
// kevrcd_dec(dec, in, out, result): one packet (rate byte + payload) -> 160
//   samples in the configured layout. Returns 0; -5 for a rate byte other
//   than 1, 3, 4 and -9 for a packet shorter than its rate (state untouched,
//   result not written); -1 for out-of-order LSPs and -2 for a delay
//   difference out of range (result filled); -2 for a delay above 120 (result
//   not written); -4 for null pointers, a negative size or output size fields
//   (samples, bytes) that are set but smaller than the layout needs (nothing
//   touched).
// kevrcd_init_state(dec): the state a new decoder starts from.
// kevrcd_reset(dec): clears the speech history (LSPs, filter memories,
//   excitation, postfilter) and the rate memories; flags, gains and the delay
//   are kept, which is the difference from the initial state.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "decoder/decoder_paths.h"
#include "decoder/output_layout.h"

using namespace kevrc;

namespace {

int32_t min_packet_size(int rate) { return rate == 4 ? 23 : rate == 3 ? 11 : 3; }

// The format fields are those the formatter writes for the configuration,
// also for a rejected frame, whose output record the formatter did not touch.
void fill_result(const kevrcd_instance *dec, kevrcd_result *result) {
  result->consumed = kcmn_bsr_consumed(&dec->bsr);
  output_format(&dec->config, &result->channels, &result->bits_per_sample);
  result->sample_rate = 8000;
}

// Bookkeeping shared by every path that completes a frame, then the output.
void finish_frame(kevrcd_instance *dec, kevrc_pcm_buffer *out) {
  kevrcd_work *w = dec->work;
  kevrcd_state &st = dec->st;
  std::memcpy(st.prev_lsp, w->new_lsp, sizeof st.prev_lsp);
  st.last_rate = static_cast<uint8_t>(w->rate);
  st.frame_count = add32_wrap(st.frame_count, 1);
  st.last_frame_erased = st.frame_erased;
  // An unknown output format delivers no samples; by design that is not an
  // error of the frame.
  (void)kevrcd_recon(w, &dec->config, out);
}

}  // namespace

extern "C" int32_t kevrcd_dec(kevrcd_instance *dec, const kevrc_bitstream_buffer *in,
                              kevrc_pcm_buffer *out, kevrcd_result *result) {
  if (dec == nullptr || dec->work == nullptr || in == nullptr || out == nullptr ||
      result == nullptr || in->data == nullptr || in->size < 0 ||
      !output_buffers_fit(&dec->config, out))
    return KEVRC_ERR_ARG;
  kevrcd_work *w = dec->work;
  kevrcd_state &st = dec->st;

  std::memset(w, 0, sizeof *w);
  kcmn_bsr_init(&dec->bsr, in->data, in->size, kcmn_bsr_flush);
  const int rate = static_cast<int>(kcmn_bsr_read(&dec->bsr, 8));
  if (rate != 1 && rate != 3 && rate != 4) return KEVRC_ERR_RATE;
  if (in->size < min_packet_size(rate)) return KEVRC_ERR_SHORT;
  w->rate = static_cast<int16_t>(rate);

  const int32_t status = kevrcd_vld(dec);
  if (status != 0) return status;
  st.frame_erased = static_cast<int16_t>(st.erasure_flag != 0 || st.bad_frame_flag != 0);

  if (w->rate == 1) {
    decode_rate_1_8(dec, dec->config.postfilter, w->frame);
  } else if (st.frame_erased != 0) {
    conceal_frame(dec);
  } else {
    switch (decode_good_frame(dec)) {
      case GoodFrame::kDecoded:
        break;
      case GoodFrame::kLspRejected:
        fill_result(dec, result);
        return KEVRC_ERR_LSP;
      case GoodFrame::kDelayRejected:
        return KEVRC_ERR_NOMEM;
      case GoodFrame::kDelayDiffRejected:
        fill_result(dec, result);
        return KEVRC_ERR_NOMEM;
    }
  }
  finish_frame(dec, out);
  fill_result(dec, result);
  return KEVRC_OK;
}

extern "C" int32_t kevrcd_init_state(kevrcd_instance *dec) {
  kevrcd_state &st = dec->st;
  set_decode_params(dec, 4);
  std::memcpy(st.prev_lsp, kevrc_prev_lsp, sizeof st.prev_lsp);
  std::memset(st.syn_mem, 0, sizeof st.syn_mem);
  std::memset(st.exc, 0, kAcbMemory * sizeof(int16_t));
  std::memset(st.saved_exc, 0, sizeof st.saved_exc);
  std::memset(st.spare, 0, sizeof st.spare);
  st.delay = 40;
  st.mean_acb_gain = 0;
  st.frame_erased = 0;
  st.mean_fcb_gain = 0;
  st.recovery_count = 0;
  st.erasure_flag = 0;
  st.bad_frame_flag = 0;
  st.all_ones_count = 0;
  st.erasure_seed = 0;
  st.noise_pair_flag = 0;
  st.noise_seed = 1234;
  st.further_word = 0;
  st.conceal_gain = 32767;
  st.last_frame_erased = 0;
  st.frame_count = 0;
  st.previous_rate = 1;
  return KEVRC_OK;
}

extern "C" void kevrcd_reset(kevrcd_instance *dec) {
  if (dec == nullptr) return;
  kevrcd_state &st = dec->st;
  std::memcpy(st.prev_lsp, kevrc_prev_lsp, sizeof st.prev_lsp);
  std::memset(st.syn_mem, 0, sizeof st.syn_mem);
  std::memset(st.exc, 0, sizeof st.exc);
  std::memset(st.saved_exc, 0, sizeof st.saved_exc);
  std::memset(&st.apf, 0, sizeof st.apf);
  std::memset(st.spare, 0, sizeof st.spare);
  st.further_word = 0;
  st.rebuild_start_delay = 0;
  st.last_rate = 0;
  st.previous_rate = 0;
}
