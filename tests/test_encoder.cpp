// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Encoder lifecycle, frame driver (input high-pass filter, level
// conditioning, result record) and payload packing.
#include <algorithm>
#include <cmath>
#include <memory>

#include "tests/test_util.h"

namespace kevrc {
namespace {

using testing::Encoder;

kevrce_instance *create(kevrce_config cfg, int32_t *err) { return kevrce_create(&cfg, err); }

TEST(EncoderApi, CreationChecksRateBoundsAndReserved) {
  struct Case {
    kevrce_config cfg;
    int32_t status;
  };
  const Case cases[] = {
      {{4, 1, 0, 0}, KEVRC_OK},           {{1, 1, 0, 1}, KEVRC_OK},
      {{3, 4, 0, 0}, KEVRC_ERR_ARG},      {{5, 1, 0, 0}, KEVRC_ERR_ARG},
      {{0, 0, 0, 0}, KEVRC_ERR_ARG},      {{4, 0, 0, 0}, KEVRC_ERR_ARG},
      {{4, 5, 0, 0}, KEVRC_ERR_ARG},      {{-1, -2, 0, 0}, KEVRC_ERR_ARG},
      {{4, 1, 1, 0}, KEVRC_ERR_UNSUPPORTED},
      {{5, 1, 1, 0}, KEVRC_ERR_ARG},  // the bounds are checked first
      {{2, 2, 0, 0}, KEVRC_ERR_ARG},  // no coded rate within the bounds
      {{4, 1, 0, 2}, KEVRC_ERR_ARG},      {{4, 1, 0, -1}, KEVRC_ERR_ARG},
  };
  for (const Case &c : cases) {
    int32_t err = 12345;
    kevrce_instance *enc = create(c.cfg, &err);
    EXPECT_EQ(err, c.status) << c.cfg.max_rate << "," << c.cfg.min_rate << "," << c.cfg.reserved;
    EXPECT_EQ(enc != nullptr, c.status == KEVRC_OK);
    kevrce_delete(enc);
    // A null status pointer suppresses the report only.
    enc = create(c.cfg, nullptr);
    EXPECT_EQ(enc != nullptr, c.status == KEVRC_OK);
    kevrce_delete(enc);
  }
  int32_t err = 0;
  EXPECT_EQ(kevrce_create(nullptr, &err), nullptr);
  EXPECT_EQ(err, KEVRC_ERR_ARG);
  kevrce_delete(nullptr);
}

TEST(EncoderApi, NullArgumentsAreRejectedWithoutTouchingState) {
  Encoder e;
  std::array<int16_t, 160> pcm{};
  std::array<uint8_t, 24> payload{};
  kevrc_pcm_buffer in = {};
  in.data[0] = pcm.data();
  kevrc_bitstream_buffer out = {payload.data(), 0, 0};
  kevrce_result result = {};
  EXPECT_EQ(kevrce_encode(nullptr, &in, &out, &result), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrce_encode(e.get(), nullptr, &out, &result), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrce_encode(e.get(), &in, nullptr, &result), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrce_encode(e.get(), &in, &out, nullptr), KEVRC_ERR_ARG);
  kevrc_pcm_buffer no_samples = {};
  EXPECT_EQ(kevrce_encode(e.get(), &no_samples, &out, &result), KEVRC_ERR_ARG);
  kevrc_bitstream_buffer no_payload = {nullptr, 0, 0};
  EXPECT_EQ(kevrce_encode(e.get(), &in, &no_payload, &result), KEVRC_ERR_ARG);
  EXPECT_EQ(e.get()->frame_count, 0u);
  EXPECT_EQ(kevrce_encode(e.get(), &in, &out, &result), KEVRC_OK);
  EXPECT_EQ(e.get()->frame_count, 1u);
}

// ---- Input high-pass filter ------------------------------------------------

// A constant input of any size dies away within a few hundred samples.
TEST(HighPass, DcDecays) {
  for (int16_t dc : {int16_t{32767}, int16_t{-32768}, int16_t{1000}, int16_t{-7}}) {
    Encoder e;
    std::array<int16_t, 160> x{};
    int last_peak = 0;
    for (int frame = 0; frame < 4; ++frame) {
      x.fill(dc);
      kevrce_hpf(e.get(), x.data());
      last_peak = 0;
      for (int16_t v : x) last_peak = std::max(last_peak, std::abs(int{v}));
    }
    EXPECT_LE(last_peak, 2) << dc;
  }
}

// A full-scale step overdrives the first section: the sample it hands on is
// clamped at the rail instead of wrapping to the other sign.
TEST(HighPass, OverdriveClampsInsteadOfWrapping) {
  Encoder e;
  std::array<int16_t, 160> x{};
  for (int n = 0; n < 160; ++n) x[n] = n < 80 ? -32768 : 32767;
  kevrce_hpf(e.get(), x.data());
  EXPECT_GT(x[80], 16000);
  EXPECT_GT(x[81], 0);
  std::array<int16_t, 160> y{};
  Encoder e2;
  for (int n = 0; n < 2; ++n) y[n] = n == 0 ? -32768 : 32767;
  kevrce_hpf(e2.get(), y.data());
  EXPECT_GT(y[1], 0);
}

// ---- Level conditioning and the result record ---------------------------------

// Switch 0: the filtered samples are halved, rounding half-way values up.
TEST(EncoderDriver, HalvesTheFilteredInput) {
  Encoder e;
  Encoder twin;
  testing::Rng rng(testing::test_seed("HalvesTheFilteredInput"));
  bool saw[4] = {};  // odd negative, odd positive, -1, even
  for (int frame = 0; frame < 10; ++frame) {
    std::array<int16_t, 160> x{};
    for (auto &v : x) v = static_cast<int16_t>(static_cast<int32_t>(rng.below(65536)) - 32768);
    Encoder::Frame f = e.encode(x.data());
    ASSERT_EQ(f.status, KEVRC_OK);
    kevrce_hpf(twin.get(), x.data());
    for (int n = 0; n < 160; ++n) {
      const int v = x[n];
      // floor(v / 2) plus the dropped bit: 3 -> 2, -3 -> -1, -1 -> 0.
      const int expected = v % 2 == 0 ? v / 2 : (v > 0 ? v / 2 + 1 : v / 2);
      EXPECT_EQ(f.conditioned[n], expected) << v;
      saw[0] |= v < -1 && v % 2 != 0;
      saw[1] |= v > 0 && v % 2 != 0;
      saw[2] |= v == -1;
      saw[3] |= v % 2 == 0;
    }
  }
  EXPECT_TRUE(saw[0] && saw[1] && saw[3]);
}

TEST(EncoderDriver, EighthRatePacketIsTwoBytes) {
  Encoder e;
  std::array<int16_t, 160> x{};
  for (int frame = 0; frame < 5; ++frame) {
    Encoder::Frame f = e.encode(x.data());
    EXPECT_EQ(f.status, KEVRC_OK);
    EXPECT_EQ(f.result.rate, 1);
    EXPECT_EQ(f.result.bytes, 2);
    EXPECT_TRUE(std::all_of(f.payload.begin() + 2, f.payload.begin() + 22, [](uint8_t b) { return b == 0; }));
  }
  EXPECT_EQ(e.get()->frame_count, 5u);
  EXPECT_EQ(e.get()->prev_rate, 1);
}

}  // namespace
}  // namespace kevrc
