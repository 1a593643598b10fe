// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The encoder's per-frame operation and its starting state.
//
// kevrce_enc(enc, in, out, result): in->data[0] (in/out) holds 160 16-bit
//   samples, at any alignment, replaced by the conditioned speech that is
//   coded; out->data receives the payload (at least 24 writable bytes; no
//   rate byte); result gets the rate code and the payload size (2, 10 or 22).
//   Returns 0, or KEVRC_ERR_ARG, before anything runs, for a null record or
//   buffer, size fields that are set but too small (in->samples[0] < 160,
//   in->bytes[0] < 320, out->size < 24), a negative out->size, or a
//   noise-suppression switch other than 0 or 1 (which creation refuses).
// init_encoder(enc, work): the starting values of a freshly zeroed instance.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "api/buffer_room.h"
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"
#include "encoder/rcelp.h"
#include "encoder/robust_rate.h"

namespace kevrc {
namespace {

constexpr int16_t kFirstNoiseSeed = 1234;
constexpr int16_t kFirstImpulseEnergy = 8;
constexpr int32_t kPacketWords = 12;  // 24 bytes: the full-rate packer's padding lands in word 12

// Halves every sample, rounding half-way values up: 3 -> 2, -3 -> -1, -1 -> 0.
void halve(int16_t *samples) {
  for (int n = 0; n < kEncFrameLen; ++n) {
    samples[n] = static_cast<int16_t>((samples[n] & 1) + (samples[n] >> 1));
  }
}

int32_t payload_bytes(int16_t rate) {
  if (rate == 1) return 2;
  if (rate == 4) return 22;
  return 10;
}

// Every record and buffer is there, with the room its size fields state.
bool records_usable(const kevrc_pcm_buffer *in, const kevrc_bitstream_buffer *out,
                    const kevrce_result *result) {
  return in != nullptr && out != nullptr && result != nullptr && in->data[0] != nullptr &&
         out->data != nullptr && room_suffices(in->samples[0], kEncFrameLen) &&
         room_suffices(in->bytes[0], kEncFrameLen * sizeof(int16_t)) && out->size >= 0 &&
         room_suffices(out->size, KEVRC_ENCODER_BUFFER_BYTES);
}

// Quarter rate (2) is never produced: a bound of 2 acts as the nearest coded
// rate inside the bounds, max_rate 2 as 1 and min_rate 2 as 3 (creation
// refuses 2..2, which holds no coded rate).
int32_t coded_bound(int32_t bound, int32_t quarter_as) { return bound == 2 ? quarter_as : bound; }

}  // namespace
}  // namespace kevrc

extern "C" int32_t kevrce_enc(kevrce_instance *enc, const kevrc_pcm_buffer *in,
                              kevrc_bitstream_buffer *out, kevrce_result *result) {
  using namespace kevrc;
  if (enc == nullptr || enc->work == nullptr || !records_usable(in, out, result) ||
      (enc->config.noise_suppression != 0 && enc->config.noise_suppression != 1))
    return KEVRC_ERR_ARG;
  kevrce_work *w = enc->work;
  // The caller's samples may sit at any address: they are copied bytewise.
  int16_t *samples = w->hpf_in;
  std::memcpy(samples, in->data[0], sizeof w->hpf_in);
  kevrce_hpf(enc, samples);

  if (enc->config.noise_suppression == 1) {
    kevrce_noise_suprs(enc, samples);
    kevrce_noise_suprs(enc, samples + kEncFrameLen / 2);
  } else {
    halve(samples);
  }
  std::memcpy(in->data[0], samples, sizeof w->hpf_in);

  const int16_t analysis = kevrce_pre_encode(enc, samples);
  const int32_t max_rate = coded_bound(enc->config.max_rate, 1);
  const int32_t min_rate = coded_bound(enc->config.min_rate, 3);
  // The standard decision always runs: the quality mode reads its band energies.
  int16_t rate = kevrce_rate_detection(enc, w->r, max_rate, min_rate, analysis);
  if (enc->robust != 0) rate = robust_rate_decision(enc, max_rate, min_rate);

  kevrce_bsw_init(&enc->bsw, out->data, kPacketWords);
  kevrc_encode_frame(w, enc, rate);
  kevrce_vlc(enc);

  result->rate = rate;
  result->bytes = payload_bytes(rate);
  return KEVRC_OK;
}

extern "C" void init_encoder(kevrce_instance *enc, kevrce_work *work) {
  using namespace kevrc;
  enc->rate = 4;
  enc->params = &kParamsFull;
  std::memcpy(enc->prev_lsp_q, kevrc_prev_lsp, sizeof enc->prev_lsp_q);
  std::memcpy(enc->prev_lsp, kevrc_prev_lsp, sizeof enc->prev_lsp);
  enc->prev_delay = 40;
  enc->delay_adjust = 0;
  reset_rcelp(enc);
  enc->frame_count = 0;
  enc->prev_rate = 0;
  enc->noise_seed = kFirstNoiseSeed;
  enc->noise_pair_flag = 0;
  enc->ns.bin_gain[0] = 32767;
  enc->ns.bin_gain[1] = 32767;
  std::memcpy(enc->delay_kernel, kevrce_tbl_delay_kernel, sizeof enc->delay_kernel);
  work->prev_eh = kFirstImpulseEnergy;
}
