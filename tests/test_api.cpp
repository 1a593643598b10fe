// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The public interface: lifecycle, argument checks, status texts.
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "tests/test_util.h"

namespace kevrc {
namespace {

using testing::Decoder;
using testing::Encoder;
using testing::Packet;

TEST(Api, InitIsIdempotentAndDeinitKeepsTheFlag) {
  EXPECT_EQ(kevrc_init(), KEVRC_OK);
  EXPECT_EQ(kevrc_inited_flag(), 1);
  EXPECT_EQ(kevrc_inited, 1);
  EXPECT_EQ(kevrc_init(), KEVRC_OK);
  kevrc_deinit();
  EXPECT_EQ(kevrc_inited_flag(), 1);
  EXPECT_EQ(kevrc_init(), KEVRC_OK);
  int32_t code = 5;
  EXPECT_EQ(kevrc_platform_init(&code), 0);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(kevrc_platform_init(nullptr), 0);
}

TEST(Api, DecoderCreation) {
  int32_t err = 99;
  const kevrcd_config reserved = {1, 0, 0, 1, 1};
  EXPECT_EQ(kevrcd_create(&reserved, &err), nullptr);
  EXPECT_EQ(err, KEVRC_ERR_UNSUPPORTED);
  EXPECT_EQ(kevrcd_create(&reserved, nullptr), nullptr);
  EXPECT_EQ(kevrcd_create(nullptr, &err), nullptr);
  EXPECT_EQ(err, KEVRC_ERR_ARG);
  const kevrcd_config mono = {1, 0, 0, 0, 1};
  kevrcd_instance *d = kevrcd_create(&mono, &err);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(err, KEVRC_OK);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(d) % 32, 0u);
  EXPECT_EQ(d->self, d);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(d->work) % 32, 0u);
  kevrcd_delete(d);
  kevrcd_delete(nullptr);
}

TEST(Api, NullAndNegativeArgumentsAreRejectedWithoutEffect) {
  testing::Rng rng(testing::test_seed("NullArguments"));
  Decoder d;
  d.decode(testing::pack(testing::random_full(rng, 50)));
  const kevrcd_state before = d.state();
  Packet p = testing::pack(testing::random_full(rng, 50));
  kevrc_bitstream_buffer in = {p.data(), 0, static_cast<int32_t>(p.size())};
  int16_t pcm[160];
  kevrc_pcm_buffer out = {};
  out.data[0] = pcm;
  kevrcd_result res = {7, 7, 7, 7};
  EXPECT_EQ(kevrcd_decode(nullptr, &in, &out, &res), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrcd_decode(d.get(), nullptr, &out, &res), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrcd_decode(d.get(), &in, nullptr, &res), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrcd_decode(d.get(), &in, &out, nullptr), KEVRC_ERR_ARG);
  kevrc_bitstream_buffer no_data = {nullptr, 0, 23};
  EXPECT_EQ(kevrcd_decode(d.get(), &no_data, &out, &res), KEVRC_ERR_ARG);
  kevrc_bitstream_buffer negative = {p.data(), 0, -23};
  EXPECT_EQ(kevrcd_decode(d.get(), &negative, &out, &res), KEVRC_ERR_ARG);
  kevrc_pcm_buffer no_buffer = {};
  EXPECT_EQ(kevrcd_decode(d.get(), &in, &no_buffer, &res), KEVRC_ERR_ARG);
  EXPECT_EQ(res.consumed, 7u);
  EXPECT_EQ(0, std::memcmp(&before, &d.state(), sizeof before));
  EXPECT_EQ(kevrcd_decode(d.get(), &in, &out, &res), KEVRC_OK);
}

// Decodes p into three 320-sample buffers, enough for every layout; returns
// the status and everything written.
std::pair<int32_t, std::vector<int16_t>> decode_all(kevrcd_instance *dec, Packet p) {
  std::vector<int16_t> pcm(3 * 320, -7);
  kevrc_bitstream_buffer in = {p.data(), 0, static_cast<int32_t>(p.size())};
  kevrc_pcm_buffer out = {};
  for (int i = 0; i < 3; ++i) out.data[i] = &pcm[320 * i];
  kevrcd_result res;
  const int32_t status = kevrcd_decode(dec, &in, &out, &res);
  return {status, pcm};
}

kevrc_pcm_buffer pcm_record(void *data, int index, uint32_t samples, uint32_t bytes) {
  kevrc_pcm_buffer r = {};
  r.data[index] = data;
  r.samples[index] = samples;
  r.bytes[index] = bytes;
  return r;
}

// Each bad argument gets its status, writes nothing, and leaves the instance
// as it was: the next frame comes out exactly as from an untouched twin.
TEST(Api, BadArgumentsAreRefusedWithoutEffect) {
  int32_t err = 0;
  for (const kevrcd_config cfg : {kevrcd_config{1, 3, 0, 0, 1}, kevrcd_config{0, 0, 3, 0, 1},
                                  kevrcd_config{1, -1, 0, 0, 1}, kevrcd_config{0, 0, -2, 0, 1}}) {
    EXPECT_EQ(kevrcd_create(&cfg, &err), nullptr);
    EXPECT_EQ(err, KEVRC_ERR_UNSUPPORTED);
  }
  testing::Rng rng(testing::test_seed("BadArguments"));
  Packet p = testing::pack(testing::random_full(rng, 50));
  int16_t pcm[320];
  uint8_t payload[24];
  kevrcd_result dres = {7, 7, 7, 7};
  kevrce_result eres = {7, 7};
  const struct {
    const char *what;
    kevrcd_config cfg;  // of the decoder; reserved 1 marks an encoder row
    kevrc_pcm_buffer pcm;
    int32_t size;  // of the packet (decoder) or the payload room (encoder)
    bool conceal;
  } cases[] = {
      {"mono, 159 samples", {1, 0, 0, 0, 1}, pcm_record(pcm, 0, 159, 0), 23, false},
      {"mono, 319 bytes", {1, 0, 0, 0, 1}, pcm_record(pcm, 0, 0, 319), 23, true},
      {"interleaved stereo, 160 samples", {1, 2, 0, 0, 1}, pcm_record(pcm, 0, 160, 0), 23, false},
      {"interleaved 8-bit stereo, 319 bytes", {1, 2, 1, 0, 1}, pcm_record(pcm, 0, 0, 319), 23, false},
      {"8-bit channel 1, 159 bytes", {0, 0, 1, 0, 0}, pcm_record(pcm, 1, 0, 159), 23, true},
      {"channel 2 missing", {0, 1, 0, 0, 1}, pcm_record(pcm, 1, 0, 0), 23, false},
      {"negative packet size", {1, 0, 0, 0, 1}, pcm_record(pcm, 0, 0, 0), -1, false},
      {"encoder, 159 samples", {0, 0, 0, 1, 0}, pcm_record(pcm, 0, 159, 0), 0, false},
      {"encoder, 319 bytes", {0, 0, 0, 1, 0}, pcm_record(pcm, 0, 0, 319), 0, false},
      {"encoder, payload room 23", {0, 0, 0, 1, 0}, pcm_record(pcm, 0, 0, 0), 23, false},
      {"encoder, negative payload room", {0, 0, 0, 1, 0}, pcm_record(pcm, 0, 0, 0), -1, false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    kevrc_pcm_buffer record = c.pcm;
    for (int16_t &x : pcm) x = static_cast<int16_t>(static_cast<int>(rng.below(18001)) - 9000);
    const std::vector<int16_t> samples(pcm, pcm + 320);
    if (c.cfg.reserved != 0) {
      testing::Encoder e({4, 1, 0, 1}), twin({4, 1, 0, 1});
      kevrc_bitstream_buffer out = {payload, 0, c.size};
      EXPECT_EQ(kevrce_encode(e.get(), &record, &out, &eres), KEVRC_ERR_ARG);
      EXPECT_TRUE(std::equal(pcm, pcm + 320, samples.begin()));
      const Encoder::Frame got = e.encode(pcm), want = twin.encode(pcm);
      EXPECT_EQ(got.payload, want.payload);
      EXPECT_EQ(got.conditioned, want.conditioned);
    } else {
      testing::Decoder d(c.cfg), twin(c.cfg);
      kevrc_bitstream_buffer in = {p.data(), 0, c.size};
      EXPECT_EQ(c.conceal ? kevrcd_conceal(d.get(), &record, &dres) : kevrcd_decode(d.get(), &in, &record, &dres),
                KEVRC_ERR_ARG);
      EXPECT_TRUE(std::equal(pcm, pcm + 320, samples.begin()));
      EXPECT_EQ(decode_all(d.get(), p), decode_all(twin.get(), p));
    }
    EXPECT_EQ(0, std::memcmp(&record, &c.pcm, sizeof record));
  }
  EXPECT_EQ(dres.consumed, 7u);
  EXPECT_EQ(eres.rate, 7);
  kevrc_pcm_buffer mono = pcm_record(pcm, 0, 0, 0);
  EXPECT_EQ(kevrcd_conceal(nullptr, &mono, &dres), KEVRC_ERR_ARG);
  testing::Encoder e({4, 1, 0, 1});
  for (int32_t on : {-1, 2}) EXPECT_EQ(kevrce_set_robust(e.get(), on), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrce_set_robust(nullptr, 1), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrce_set_robust(e.get(), 1), KEVRC_OK);
}

// Concealing a lost packet is decoding the blank full-rate packet: same
// samples, same state afterwards. Exact size fields are enough.
TEST(Api, ConcealIsTheBlankPacketsErasure) {
  testing::Rng rng(testing::test_seed("Conceal"));
  testing::Decoder a, b;
  for (int i = 0; i < 3; ++i) {
    const Packet p = testing::pack(testing::random_full(rng, 50));
    a.decode(p);
    b.decode(p);
  }
  int16_t pcm[160];
  kevrc_pcm_buffer out = pcm_record(pcm, 0, 160, 320);
  kevrcd_result res;
  ASSERT_EQ(kevrcd_conceal(a.get(), &out, &res), KEVRC_OK);
  EXPECT_EQ(res.consumed, 0u);
  Packet blank(23, 0);
  blank[0] = 4;
  const Decoder::Frame f = b.decode(blank);
  EXPECT_TRUE(std::equal(pcm, pcm + 160, f.pcm.begin()));
  EXPECT_EQ(0, std::memcmp(&a.state(), &b.state(), sizeof a.state()));
}

// Samples at an odd address are read and written bytewise (UBSan checks).
TEST(Api, EncoderReadsMisalignedSamples) {
  testing::Encoder e, twin;
  alignas(4) uint8_t bytes[322];
  int16_t aligned[160];
  for (int n = 0; n < 160; ++n) aligned[n] = static_cast<int16_t>(n * 211 % 4001 - 2000);
  std::memcpy(bytes + 1, aligned, sizeof aligned);
  kevrc_pcm_buffer in = pcm_record(bytes + 1, 0, 160, 320);
  uint8_t payload[24] = {};
  kevrc_bitstream_buffer out = {payload, 0, 24};
  kevrce_result res;
  ASSERT_EQ(kevrce_encode(e.get(), &in, &out, &res), KEVRC_OK);
  const Encoder::Frame want = twin.encode(aligned);
  EXPECT_TRUE(std::equal(payload, payload + 24, want.payload.begin()));
  EXPECT_EQ(0, std::memcmp(bytes + 1, want.conditioned.data(), sizeof aligned));
}

TEST(Api, StatusTextsAndVersion) {
  for (int32_t s : {0, -1, -2, -3, -4, -5, -8, -9}) {
    ASSERT_NE(kevrc_strerror(s), nullptr);
    EXPECT_STRNE(kevrc_strerror(s), kevrc_strerror(12345));
  }
  EXPECT_STREQ(kevrc_strerror(-6), kevrc_strerror(12345));
  EXPECT_STREQ(kevrc_version(), KEVRC_VERSION_STRING);
}

}  // namespace
}  // namespace kevrc
