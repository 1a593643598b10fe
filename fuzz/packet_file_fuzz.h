// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Shared body of the packet-file fuzzers: reads a whole file from memory
// through the kevrc_formats reader, in reads of 1 to 16 bytes, and checks
// that every frame and count is consistent. Aborts on a broken invariant.
#pragma once

#include <cstdlib>
#include <cstring>

#include "kevrc/kevrc_formats.h"

namespace kevrc::fuzzing {

struct MemorySource {
  const uint8_t *data;
  size_t size, pos, step;
};

inline int64_t read_memory(void *user, uint8_t *buf, size_t size) {
  auto *s = static_cast<MemorySource *>(user);
  size_t n = size < s->step ? size : s->step;
  if (n > s->size - s->pos) n = s->size - s->pos;
  if (n > 0) std::memcpy(buf, s->data + s->pos, n);
  s->pos += n;
  return static_cast<int64_t>(n);
}

inline void check(bool ok) {
  if (!ok) std::abort();
}

inline void read_packet_file(const uint8_t *data, size_t size, size_t step) {
  MemorySource src{data, size, 0, step};
  kevrcf_reader r;
  if (kevrcf_reader_open(&r, read_memory, &src) != KEVRCF_OK) return;
  kevrcf_packet p;
  uint64_t frames = 0;
  int32_t status;
  while ((status = kevrcf_reader_next(&r, &p)) == 1) {
    ++frames;
    check(p.size >= 0 && p.size <= KEVRCF_MAX_PACKET_BYTES);
    check(p.kind != KEVRCF_SPEECH || (p.size > 1 && p.data[0] == p.rate_octet));
  }
  const kevrcf_stats &s = r.stats;
  check(status == 0 && frames == s.frames && src.pos <= size);
  check(s.frames == s.eighth + s.half + s.full + s.blank + s.erasure + s.truncated);
  check(s.record_bytes <= size);
}

}  // namespace kevrc::fuzzing
