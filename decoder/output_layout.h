// Which caller buffers a decoder configuration writes to.
#pragma once

#include <kevrc/kevrc.h>

namespace kevrc {

// True when every buffer pointer the configured layout writes is set. Layouts
// the formatter rejects (unknown format or channel mode) write nothing.
inline bool output_buffers_present(const kevrcd_config *config, const kevrc_pcm_buffer *out) {
  const bool known_format = config->sample_format >= 0 && config->sample_format <= 2;
  const bool known_mode = config->channel_mode >= 0 && config->channel_mode <= 2;
  if (!known_format || !known_mode) return true;
  if (config->interleaved != 0) return out->data[0] != nullptr;
  if (config->channel_mode == 0) return out->data[1] != nullptr;
  return out->data[1] != nullptr && out->data[2] != nullptr;
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
