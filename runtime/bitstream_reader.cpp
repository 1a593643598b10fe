// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Bit-stream reader of the decoder: most significant bit first, fields of 1
// to 16 bits crossing byte boundaries freely.
//
// The reader loads bytes only as the fields it is asked for need them, and
// never outside [start, end): past the end of its input it delivers zero
// bits. It is a plain value: a copy reads on independently (the packet
// classifier peeks ahead that way).
#include <kevrc/kevrc_kernels.h>

extern "C" void kcmn_bsr_init(kcmn_bsr *reader, const uint8_t *data, int32_t size,
                              void (*refill)(kcmn_bsr *reader)) {
  reader->cache = 0;
  reader->bits = 0;
  reader->start = data;
  reader->pos = data;
  reader->end = data == nullptr || size <= 0 ? data : data + size;
  reader->refill = refill != nullptr ? refill : kcmn_bsr_flush;
}

// Loads the next byte of the input into the cache, if there is one and room.
extern "C" void kcmn_bsr_flush(kcmn_bsr *reader) {
  if (reader->bits <= 24 && reader->pos < reader->end) {
    reader->cache |= static_cast<uint32_t>(*reader->pos++) << (24 - reader->bits);
    reader->bits += 8;
  }
}

extern "C" uint32_t kcmn_bsr_read(kcmn_bsr *reader, int32_t n) {
  if (n < 1) return 0;
  if (n > 16) n = 16;
  const uint32_t want = static_cast<uint32_t>(n);
  while (reader->bits < want && reader->pos < reader->end) {
    const uint32_t before = reader->bits;
    reader->refill(reader);
    if (reader->bits == before) break;  // a refill that loads nothing: stop
  }
  const uint32_t value = reader->cache >> (32 - want);
  if (reader->bits >= want) {
    reader->cache <<= want;
    reader->bits -= want;
  } else {  // input exhausted: the missing bits read as zeros
    reader->cache = 0;
    reader->bits = 0;
  }
  return value;
}

extern "C" uint32_t kcmn_bsr_read1(kcmn_bsr *reader) { return kcmn_bsr_read(reader, 1); }

extern "C" uint32_t kcmn_bsr_consumed(const kcmn_bsr *reader) {
  return static_cast<uint32_t>(reader->pos - reader->start) - reader->bits / 8;
}
