// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Output reconstruction: delivers the decoded frame in the layout the decoder
// was created for.
//
// kevrcd_recon(work, config, out): 16-bit (sample_format 0 or 2) or 8-bit
//   signed (1) samples; one channel, or two identical ones (channel_mode 2);
//   one interleaved buffer (data[0]) or one per channel (data[1], data[2]).
//   Writes channels, bits_per_sample, sample_rate, interleaved and the sample
//   and byte counts of the buffers it fills. Returns 0, or -3 for an unknown
//   sample_format / channel_mode (no samples delivered).
// kevrcd_recon_interleave_2ch(format, first, second, destination): 160 pairs
//   of bytes (format 1) or of 16-bit samples (0, 2); -3 otherwise.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "decoder/decoder_state.h"
#include "decoder/output_layout.h"

using namespace kevrc;

namespace {

// 8-bit conversion that never rounds up to 128.
int8_t to_8bit(int16_t x) { return static_cast<int8_t>(x < 32640 ? (x + 128) >> 8 : x >> 8); }

}  // namespace

extern "C" int32_t kevrcd_recon_interleave_2ch(int32_t format, const void *first, const void *second,
                                               void *destination) {
  const auto *a = static_cast<const uint8_t *>(first);
  const auto *b = static_cast<const uint8_t *>(second);
  auto *d = static_cast<uint8_t *>(destination);
  if (format == 1) {
    for (int i = 0; i < kFrameLen; ++i) {
      d[2 * i] = a[i];
      d[2 * i + 1] = b[i];
    }
  } else if (format == 0 || format == 2) {
    for (int i = 0; i < kFrameLen; ++i) {
      std::memcpy(d + 4 * i, a + 2 * i, 2);
      std::memcpy(d + 4 * i + 2, b + 2 * i, 2);
    }
  } else {
    return KEVRC_ERR_UNSUPPORTED;
  }
  return KEVRC_OK;
}

extern "C" int32_t kevrcd_recon(kevrcd_work *work, const kevrcd_config *config, kevrc_pcm_buffer *out) {
  // The format fields come first; a rejected configuration keeps them.
  output_format(config, &out->channels, &out->bits_per_sample);
  out->sample_rate = 8000;
  out->interleaved = config->interleaved != 0 ? 1 : 0;
  uint32_t frame_bytes;
  if (config->sample_format == 1) {
    for (int i = 0; i < kFrameLen; ++i) work->out_bytes[i] = static_cast<uint8_t>(to_8bit(work->frame[i]));
    frame_bytes = kFrameLen;
  } else if (config->sample_format == 0 || config->sample_format == 2) {
    std::memcpy(work->out_bytes, work->frame, sizeof work->frame);
    frame_bytes = 2 * kFrameLen;
  } else {
    return KEVRC_ERR_UNSUPPORTED;
  }
  const int32_t mode = config->channel_mode;
  if (mode < 0 || mode > 2) return KEVRC_ERR_UNSUPPORTED;
  if (!output_buffers_fit(config, out)) return KEVRC_ERR_ARG;  // defensive: checked by the driver
  if (mode == 2) std::memcpy(work->channel2, work->out_bytes, frame_bytes);
  if (config->interleaved != 0) {
    if (mode == 2) {
      out->samples[0] = 2 * kFrameLen;
      out->bytes[0] = 2 * frame_bytes;
      return kevrcd_recon_interleave_2ch(config->sample_format, work->out_bytes, work->channel2,
                                         out->data[0]);
    }
    out->samples[0] = kFrameLen;
    out->bytes[0] = frame_bytes;
    std::memcpy(out->data[0], work->out_bytes, frame_bytes);
    return KEVRC_OK;
  }
  switch (mode) {
    case 0:
      out->samples[1] = kFrameLen;
      out->bytes[1] = frame_bytes;
      std::memcpy(out->data[1], work->out_bytes, frame_bytes);
      return KEVRC_OK;
    case 1:  // both channel buffers receive the frame while channels stays 1
      out->samples[1] = out->samples[2] = kFrameLen;
      out->bytes[1] = out->bytes[2] = frame_bytes;
      std::memcpy(out->data[1], work->out_bytes, frame_bytes);
      std::memcpy(out->data[2], work->out_bytes, frame_bytes);
      return KEVRC_OK;
    case 2:
      out->samples[1] = out->samples[2] = kFrameLen;
      out->bytes[1] = out->bytes[2] = frame_bytes;
      std::memcpy(out->data[1], work->out_bytes, frame_bytes);
      std::memcpy(out->data[2], work->channel2, frame_bytes);
      return KEVRC_OK;
    default:
      return KEVRC_ERR_INTERNAL;
  }
}
