// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Payload packing, kevrce_vlc(enc): writes the coded parameters of the frame
// (enc->work, at rate enc->rate) through the instance's bit writer, most
// significant bit first. The writer must have been started on the caller's
// buffer of at least 24 bytes (12 words); the first 22 bytes are cleared
// first. Eighth rate: 16 bits; half rate: 80 bits; full rate: 171 bits plus
// 10 zero bits, the last 4 of which land beyond the 22-byte payload.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

constexpr int kFullIndexBits[4] = {6, 6, 9, 7};
constexpr int kHalfIndexBits[3] = {7, 7, 8};
constexpr int kFullFcbBits[4] = {8, 8, 8, 11};

struct Writer {
  kevrce_bsw *bsw;
  void put(int32_t value, int bits) {
    kevrce_put_bits(&bsw->pos, &bsw->free_bits, static_cast<uint32_t>(value), bits);
  }
};

void pack_eighth(Writer &out, const kevrce_work &w) {
  out.put(w.lsp_index[0], 4);
  out.put(w.lsp_index[1], 4);
  out.put(w.energy_index, 8);
}

void pack_full(Writer &out, const kevrce_work &w) {
  out.put(w.lpc_flag, 1);
  for (int s = 0; s < 4; ++s) out.put(w.lsp_index[s], kFullIndexBits[s]);
  out.put(w.delay - 20, 7);
  out.put(w.delta_delay, 5);
  for (int i = 0; i < 3; ++i) {
    out.put(w.acb_gain_index[i], 3);
    for (int k = 0; k < 4; ++k) out.put(w.fcb_words[i][k], kFullFcbBits[k]);
    out.put(w.fcb_gain_index[i], 5);
  }
  out.put(0, 10);
}

void pack_half(Writer &out, const kevrce_work &w) {
  for (int s = 0; s < 3; ++s) out.put(w.lsp_index[s], kHalfIndexBits[s]);
  out.put(w.delay - 20, 7);
  for (int i = 0; i < 3; ++i) {
    out.put(w.acb_gain_index[i], 3);
    out.put(w.fcb_words[i][0], 10);
    out.put(w.fcb_gain_index[i], 4);
  }
}

// Signed sum of the payload's first `words` big-endian 16-bit words: a
// decoder takes a full- or half-rate payload whose sum is 0 for a blank one.
int32_t word_sum(const uint8_t *payload, int words) {
  int32_t sum = 0;
  for (int i = 0; i < words; ++i) {
    sum += static_cast<int16_t>(static_cast<uint16_t>((payload[2 * i] << 8) | payload[2 * i + 1]));
  }
  return sum;
}

void pack(kevrce_instance *enc, uint8_t *payload) {
  std::memset(payload, 0, 22);
  Writer out{&enc->bsw};
  if (enc->rate == 1) {
    pack_eighth(out, *enc->work);
  } else if (enc->rate == 4) {
    pack_full(out, *enc->work);
  } else {
    pack_half(out, *enc->work);
  }
}

}  // namespace
}  // namespace kevrc

// Coded frames must never read as blank (about one frame in 10^4 of speech
// would). At full rate the payload's last padding bit is set, which no
// decoder reads. At half rate every bit is a parameter: the last subframe's
// fixed-codebook gain index moves to its neighbour (index ^ 1) and the
// payload is packed again; the encoder keeps the excitation it made with
// the chosen level, a one-subframe mismatch that decays like any other.
extern "C" void kevrce_vlc(kevrce_instance *enc) {
  using namespace kevrc;
  uint8_t *payload = enc->bsw.pos;
  pack(enc, payload);
  if (enc->rate == 1) return;
  const int words = enc->rate == 4 ? 11 : 5;
  if (word_sum(payload, words) != 0) return;
  if (enc->rate == 4) {
    payload[21] |= 1;
    return;
  }
  enc->bsw.pos = payload;
  enc->bsw.free_bits = 16;
  enc->work->fcb_gain_index[2] = static_cast<int16_t>(enc->work->fcb_gain_index[2] ^ 1);
  pack(enc, payload);
}
