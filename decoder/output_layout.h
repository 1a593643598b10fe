// Which caller buffers a decoder configuration writes to.
#pragma once

#include "api/kevrc.h"

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

}  // namespace kevrc
