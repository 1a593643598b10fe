// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Which caller buffers a decoder configuration writes to, and the room each needs.
#pragma once

#include <kevrc/kevrc.h>

#include "api/buffer_room.h"

namespace kevrc {

// The samples (all channels together) that a layout writes into entry
// `index` of the output record; 0 for entries it does not write, and for
// layouts the formatter rejects (unknown format or channel mode).
inline uint32_t output_samples_needed(const kevrcd_config *config, int index) {
  const bool known_format = config->sample_format >= 0 && config->sample_format <= 2;
  const bool known_mode = config->channel_mode >= 0 && config->channel_mode <= 2;
  if (!known_format || !known_mode) return 0;
  if (config->interleaved != 0) return index == 0 ? (config->channel_mode == 2 ? 320 : 160) : 0;
  if (index == 1) return 160;
  return index == 2 && config->channel_mode != 0 ? 160 : 0;
}

// True when every buffer the configured layout writes is set and its size
// fields, where the caller set them, hold the frame.
inline bool output_buffers_fit(const kevrcd_config *config, const kevrc_pcm_buffer *out) {
  const uint32_t bytes_per_sample = config->sample_format == 1 ? 1 : 2;
  for (int index = 0; index < 3; ++index) {
    const uint32_t need = output_samples_needed(config, index);
    if (need == 0) continue;
    if (out->data[index] == nullptr || !room_suffices(out->samples[index], need) ||
        !room_suffices(out->bytes[index], need * bytes_per_sample))
      return false;
  }
  return true;
}

// The format fields the formatter reports for a configuration: 8 bits for
// sample_format 1, else 16; two channels for channel_mode 2 with a known
// sample format, else one.
inline void output_format(const kevrcd_config *config, uint32_t *channels, uint32_t *bits_per_sample) {
  const bool known_format = config->sample_format >= 0 && config->sample_format <= 2;
  *bits_per_sample = config->sample_format == 1 ? 8 : 16;
  *channels = known_format && config->channel_mode == 2 ? 2 : 1;
}

}  // namespace kevrc
