// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The peer codecs kevrc_bench times beside kevrc, each behind the same small
// interface: Debian's AMR-NB (opencore, 7.95 kbit/s), G.729 Annex A
// (bcg729), Speex narrow-band (quality 4) and Opus (8 kbit/s, complexity
// 10). Each is compiled in only when its library was found at configure
// time (KEVRC_BENCH_HAVE_<NAME>); peer_codecs() lists those present.
#pragma once

#include <cstdint>
#include <vector>

namespace kevrc::bench {

// One peer codec. A state is created per file (fresh state, as for kevrc).
// encode: frame_samples samples of 8 kHz PCM in, packet bytes out into
//         packet (room kMaxPeerPacket), returns their count (>= 0).
// decode: one packet in, frame_samples samples out.
constexpr int kMaxPeerPacket = 256;
struct PeerCodec {
  const char *name;
  int frame_samples;
  void *(*encoder_create)();
  int (*encode)(void *state, const int16_t *pcm, uint8_t *packet);
  void (*encoder_delete)(void *state);
  void *(*decoder_create)();
  void (*decode)(void *state, const uint8_t *packet, int bytes, int16_t *pcm);
  void (*decoder_delete)(void *state);
};

std::vector<PeerCodec> peer_codecs();

}  // namespace kevrc::bench
