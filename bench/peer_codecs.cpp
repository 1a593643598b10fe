// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Adapters from the peer codecs' own interfaces to PeerCodec (see
// peer_codecs.h). Settings: AMR-NB mode MR795 without DTX; G.729A without
// VAD; Speex narrow-band mode at quality 4 (complexity left at its
// default); Opus VOIP application, 8 kHz, 8000 bit/s, complexity 10.
#include "bench/peer_codecs.h"

#ifdef KEVRC_BENCH_HAVE_AMRNB
#include <opencore-amrnb/interf_dec.h>
#include <opencore-amrnb/interf_enc.h>
#endif
#ifdef KEVRC_BENCH_HAVE_BCG729
extern "C" {  // the headers lack C++ guards
#include <bcg729/decoder.h>
#include <bcg729/encoder.h>
}
#endif
#ifdef KEVRC_BENCH_HAVE_SPEEX
#include <speex/speex.h>
#endif
#ifdef KEVRC_BENCH_HAVE_OPUS
#include <opus.h>
#endif

namespace kevrc::bench {
namespace {

PeerCodec amrnb() {
#ifdef KEVRC_BENCH_HAVE_AMRNB
  return {"AMR-NB 7.95 (opencore)", 160,
          [] { return Encoder_Interface_init(0); },
          [](void *s, const int16_t *pcm, uint8_t *packet) {
            return Encoder_Interface_Encode(s, MR795, pcm, packet, 0);
          },
          [](void *s) { Encoder_Interface_exit(s); },
          [] { return Decoder_Interface_init(); },
          [](void *s, const uint8_t *packet, int, int16_t *pcm) { Decoder_Interface_Decode(s, packet, pcm, 0); },
          [](void *s) { Decoder_Interface_exit(s); }};
#else
  return {};
#endif
}

PeerCodec g729a() {
#ifdef KEVRC_BENCH_HAVE_BCG729
  return {"G.729 Annex A (bcg729)", 80,
          [] { return static_cast<void *>(initBcg729EncoderChannel(0)); },
          [](void *s, const int16_t *pcm, uint8_t *packet) {
            uint8_t bytes = 0;
            bcg729Encoder(static_cast<bcg729EncoderChannelContextStruct *>(s), pcm, packet, &bytes);
            return static_cast<int>(bytes);
          },
          [](void *s) { closeBcg729EncoderChannel(static_cast<bcg729EncoderChannelContextStruct *>(s)); },
          [] { return static_cast<void *>(initBcg729DecoderChannel()); },
          [](void *s, const uint8_t *packet, int bytes, int16_t *pcm) {
            bcg729Decoder(static_cast<bcg729DecoderChannelContextStruct *>(s), packet,
                          static_cast<uint8_t>(bytes), 0, 0, 0, pcm);
          },
          [](void *s) { closeBcg729DecoderChannel(static_cast<bcg729DecoderChannelContextStruct *>(s)); }};
#else
  return {};
#endif
}

#ifdef KEVRC_BENCH_HAVE_SPEEX
// A Speex state with its bit buffer.
struct SpeexState {
  void *state;
  SpeexBits bits;
};

// Frees a SpeexState with the destroy function of its encoder or decoder.
void speex_free(void *p, void (*destroy)(void *)) {
  auto *s = static_cast<SpeexState *>(p);
  destroy(s->state);
  speex_bits_destroy(&s->bits);
  delete s;
}
#endif

PeerCodec speex() {
#ifdef KEVRC_BENCH_HAVE_SPEEX
  return {"Speex NB quality 4", 160,
          [] {
            auto *s = new SpeexState{speex_encoder_init(&speex_nb_mode), {}};
            int quality = 4;
            speex_encoder_ctl(s->state, SPEEX_SET_QUALITY, &quality);
            speex_bits_init(&s->bits);
            return static_cast<void *>(s);
          },
          [](void *p, const int16_t *pcm, uint8_t *packet) {
            auto *s = static_cast<SpeexState *>(p);
            speex_bits_reset(&s->bits);
            speex_encode_int(s->state, const_cast<int16_t *>(pcm), &s->bits);
            return speex_bits_write(&s->bits, reinterpret_cast<char *>(packet), kMaxPeerPacket);
          },
          [](void *p) { speex_free(p, speex_encoder_destroy); },
          [] {
            auto *s = new SpeexState{speex_decoder_init(&speex_nb_mode), {}};
            speex_bits_init(&s->bits);
            return static_cast<void *>(s);
          },
          [](void *p, const uint8_t *packet, int bytes, int16_t *pcm) {
            auto *s = static_cast<SpeexState *>(p);
            speex_bits_read_from(&s->bits, reinterpret_cast<const char *>(packet), bytes);
            speex_decode_int(s->state, &s->bits, pcm);
          },
          [](void *p) { speex_free(p, speex_decoder_destroy); }};
#else
  return {};
#endif
}

PeerCodec opus() {
#ifdef KEVRC_BENCH_HAVE_OPUS
  return {"Opus 8 kbit/s, complexity 10", 160,
          [] {
            int err = 0;
            OpusEncoder *e = opus_encoder_create(8000, 1, OPUS_APPLICATION_VOIP, &err);
            opus_encoder_ctl(e, OPUS_SET_BITRATE(8000));
            opus_encoder_ctl(e, OPUS_SET_COMPLEXITY(10));
            return static_cast<void *>(e);
          },
          [](void *s, const int16_t *pcm, uint8_t *packet) {
            const opus_int32 n = opus_encode(static_cast<OpusEncoder *>(s), pcm, 160, packet, kMaxPeerPacket);
            return n < 0 ? 0 : static_cast<int>(n);
          },
          [](void *s) { opus_encoder_destroy(static_cast<OpusEncoder *>(s)); },
          [] {
            int err = 0;
            return static_cast<void *>(opus_decoder_create(8000, 1, &err));
          },
          [](void *s, const uint8_t *packet, int bytes, int16_t *pcm) {
            if (opus_decode(static_cast<OpusDecoder *>(s), packet, bytes, pcm, 160, 0) < 0) pcm[0] = 0;
          },
          [](void *s) { opus_decoder_destroy(static_cast<OpusDecoder *>(s)); }};
#else
  return {};
#endif
}

}  // namespace

std::vector<PeerCodec> peer_codecs() {
  std::vector<PeerCodec> peers;
  for (const PeerCodec &peer : {amrnb(), g729a(), speex(), opus()})
    if (peer.name != nullptr) peers.push_back(peer);
  return peers;
}

}  // namespace kevrc::bench
