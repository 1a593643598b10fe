// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Bit writer of the encoder: appends fields most significant bit first into
// 16-bit words. A word that is not yet full stays in the machine's byte order;
// once full it is stored high byte first and the writer moves to the next
// word. The current word must be zero when writing into it starts (the packer
// clears the buffer), because its earlier content is shifted in.
#include <cstddef>
#include <cstring>

#include <kevrc/kevrc_kernels.h>

extern "C" void kevrce_bsw_init(kevrce_bsw *writer, uint8_t *buffer, int32_t words) {
  writer->pos = buffer;
  writer->end = buffer + 2 * static_cast<ptrdiff_t>(words > 1 ? words - 1 : 0);
  writer->free_bits = 16;
}

extern "C" void kevrce_put_bits(uint8_t **pos, uint32_t *free_bits, uint32_t value, int32_t n) {
  if (n < 1) return;
  if (n > 16) n = 16;
  if (*free_bits < 1 || *free_bits > 16) *free_bits = 16;
  uint32_t reg = (value << (16 - n)) & 0xFFFFu;  // left-aligned in 16 bits
  uint32_t remaining = static_cast<uint32_t>(n);
  while (remaining > 0) {
    const uint32_t k = remaining < *free_bits ? remaining : *free_bits;
    uint16_t word;
    std::memcpy(&word, *pos, 2);
    word = static_cast<uint16_t>((static_cast<uint32_t>(word) << k) | (reg >> (16 - k)));
    std::memcpy(*pos, &word, 2);
    reg = (reg << k) & 0xFFFFu;
    const bool full = *free_bits == k;
    *free_bits -= k;
    remaining -= k;
    if (full) {
      (*pos)[0] = static_cast<uint8_t>(word >> 8);  // high byte first in memory
      (*pos)[1] = static_cast<uint8_t>(word & 0xFF);
      *pos += 2;
      *free_bits = 16;
    }
  }
}
