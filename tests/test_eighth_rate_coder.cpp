// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Eighth-rate coding: the Gaussian generator, the impulse-response gain, the
// energy measurement and search, the noise excitation, and payload packing.
#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include "common/fixed_point.h"
#include "tests/test_util.h"
#include "tools/support/noise_gen.h"

namespace kevrc {
namespace {

using testing::Decoder;
using testing::Encoder;

// A bare, zeroed instance with its work block, as kevrce_create leaves it
// before init_encoder.
struct Bare {
  std::unique_ptr<kevrce_instance> enc = std::make_unique<kevrce_instance>();
  std::unique_ptr<kevrce_work> work = std::make_unique<kevrce_work>();
  Bare() {
    enc->work = work.get();
    init_encoder(enc.get(), work.get());
  }
};

TEST(GaussNoise, SecondOfAPairComesFromTheHeldValue) {
  Bare b;
  kevrce_instance *enc = b.enc.get();
  int pairs = 0;
  for (int i = 0; i < 1000; ++i) {
    kevrce_gauss_noise(enc);
    if (enc->noise_pair_flag == 0) continue;
    const int16_t seed = enc->noise_seed;
    const int32_t held = enc->noise_held;
    const int16_t second = kevrce_gauss_noise(enc);
    EXPECT_EQ(enc->noise_seed, seed);
    EXPECT_EQ(enc->noise_pair_flag, 0);
    EXPECT_EQ(second, held >= INT32_MAX - 32767 ? 32767 : (held + 32768) >> 16);
    ++pairs;
  }
  // About 79 % of the draws fall inside the unit circle.
  EXPECT_GT(pairs, 300);
}

// The encoder draws the decoder's sequence (one generator for both).
TEST(GaussNoise, EncoderDrawsTheDecodersSequence) {
  Bare b;
  int16_t seed = b.enc->noise_seed, pair = 0;
  int32_t stored = 0;
  for (int i = 0; i < 20000; ++i) {
    ASSERT_EQ(kevrce_gauss_noise(b.enc.get()), kevrcd_ran_noise_gen(&seed, &pair, &stored)) << i;
  }
}

// Quality mode: the decoded comfort noise of white and brown noise follows
// the coded input's level within 2 dB (the residual-based energy of the
// default mode comes out about 3.4 dB loud and 2.4 dB quiet on these).
TEST(EighthRateCoder, RobustComfortNoiseFollowsTheInputLevel) {
  for (const train::NoiseType type : {train::NoiseType::White, train::NoiseType::Brown}) {
    const std::vector<int16_t> pcm = train::to_pcm(train::make_noise(type, 8000 * 4, 7), 150.0);
    Encoder e;  // bounds 1..1
    ASSERT_EQ(kevrce_set_robust(e.get(), 1), KEVRC_OK);
    Decoder d;
    std::array<int16_t, 160> prev{};
    double in = 0, out = 0;
    for (size_t k = 0; k + 1 < pcm.size() / 160; ++k) {
      const Encoder::Frame f = e.encode(&pcm[k * 160]);
      ASSERT_EQ(f.result.rate, 1);
      const int64_t decoded = testing::energy(d.decode(f.packet()).pcm);
      // The packet codes the second half of the previous conditioned frame
      // and the first half of this one.
      std::array<int16_t, 160> coded{};
      std::copy(prev.begin() + 80, prev.end(), coded.begin());
      std::copy(f.conditioned.begin(), f.conditioned.begin() + 80, coded.begin() + 80);
      prev = f.conditioned;
      if (k < 4) continue;
      in += static_cast<double>(testing::energy(coded));
      out += static_cast<double>(decoded);
    }
    EXPECT_NEAR(10 * std::log10(out / in), 0.0, 2.0) << train::noise_name(type);
  }
}

TEST(GaussNoise, SeedRestartsOnRequest) {
  Bare a, b;
  for (int i = 0; i < 37; ++i) kevrce_gauss_noise(a.enc.get());
  const int16_t zeros[54] = {};
  int16_t exc[128], index = 0;
  kevrce_calcexc_lbr(a.enc.get(), 100, zeros, 53, 0, 0, exc, &index);
  EXPECT_EQ(a.enc->noise_seed, 1234);
  for (int i = 0; i < 10; ++i) {
    a.enc->noise_pair_flag = b.enc->noise_pair_flag = 0;
    EXPECT_EQ(kevrce_gauss_noise(a.enc.get()), kevrce_gauss_noise(b.enc.get()));
  }
}

// h = (2048, 0, ...): sum of 2h^2 = 2^23, norm 7 (odd), squar_rt(2^30)
// (about 0.7071 in Q15), times 1/sqrt(2) (about 0.5), shifted by
// 7/2 - 1 = 2: close to 4096 (4099 with the series square root).
TEST(ImpulseResponseGain, UnitImpulseAndScaling) {
  int16_t h[54] = {2048};
  EXPECT_EQ(kevrce_imp_res_gain(h, 54), ((squar_rt(1 << 30) * 23170) >> 15) >> 2);
  EXPECT_EQ(kevrce_imp_res_gain(h, 54), 4099);
  h[0] = 4096;
  EXPECT_NEAR(kevrce_imp_res_gain(h, 54), 8198, 2);
  h[0] = 1024;
  EXPECT_NEAR(kevrce_imp_res_gain(h, 54), 2049, 2);
  // Only the first L samples count.
  int16_t late[54] = {2048};
  late[53] = 30000;
  EXPECT_EQ(kevrce_imp_res_gain(late, 53), 4099);
  // Empty and silent responses: norm 0, twice the square root's value at 0.
  const int16_t zeros[54] = {};
  EXPECT_EQ(kevrce_imp_res_gain(h, 0), 2 * squar_rt(0));
  EXPECT_EQ(kevrce_imp_res_gain(zeros, 54), 2 * squar_rt(0));
  int16_t loud[54];
  std::fill(std::begin(loud), std::end(loud), int16_t{-32768});
  kevrce_imp_res_gain(loud, 54);
}

// The log domain has 8192 units per decade of amplitude (gain =
// 128 * 10^(e / 8192)): doubling the residual adds 8192 log10(2) = 2466,
// doubling the filter gain takes the same away.
TEST(LowRateEnergy, LogDomainScale) {
  int16_t res[54];
  for (int n = 0; n < 54; ++n) res[n] = static_cast<int16_t>((n % 2 ? 1 : -1) * (300 + 7 * n));
  int16_t res2[54];
  for (int n = 0; n < 54; ++n) res2[n] = static_cast<int16_t>(2 * res[n]);
  const int16_t e1 = kevrce_lbr_energy(4095, res, 54);
  EXPECT_NEAR(kevrce_lbr_energy(4095, res2, 54) - e1, 2466, 40);
  EXPECT_NEAR(e1 - kevrce_lbr_energy(8190, res, 54), 2466, 40);
}

// A residual whose doubled magnitude sum is at most 53 is not measured: the
// energy then depends on the filter gain alone.
TEST(LowRateEnergy, QuietSubframesUseTheGainOnly) {
  const int16_t zeros[54] = {};
  int16_t quiet[54] = {};
  for (int n = 0; n < 26; ++n) quiet[n] = n % 2 ? 1 : -1;  // doubled sum 52
  int16_t just_above[54] = {};
  for (int n = 0; n < 27; ++n) just_above[n] = 1;  // doubled sum 54
  for (int16_t g : {int16_t{1}, int16_t{100}, int16_t{4095}, int16_t{32767}}) {
    EXPECT_EQ(kevrce_lbr_energy(g, zeros, 54), kevrce_lbr_energy(g, quiet, 54)) << g;
    EXPECT_EQ(kevrce_lbr_energy(g, zeros, 0), kevrce_lbr_energy(g, zeros, 54)) << g;
  }
  EXPECT_NE(kevrce_lbr_energy(4095, just_above, 54), kevrce_lbr_energy(4095, zeros, 54));
}

// The last subframe searches the index, replaces the energies by the row's
// gains and writes exactly 128 noise samples, subframe k's gain covering
// n = 0..20, 21..73 and 74..127 for L = 54.
TEST(LowRateExcitation, LayoutOfTheNoise) {
  Bare a, twin;
  int16_t res[54];
  for (int n = 0; n < 54; ++n) res[n] = static_cast<int16_t>((n * 37 % 11 - 5) * 400);
  int16_t exc[130];
  std::fill(std::begin(exc), std::end(exc), int16_t{0x5A5A});
  int16_t index = -1;
  kevrce_calcexc_lbr(a.enc.get(), 4095, res, 53, 1, 0, exc, &index);
  kevrce_calcexc_lbr(a.enc.get(), 4095, res, 53, 1, 1, exc, &index);
  EXPECT_EQ(index, -1);  // only the last subframe searches
  EXPECT_EQ(exc[0], 0x5A5A);
  kevrce_calcexc_lbr(a.enc.get(), 4095, res, 54, 1, 2, exc, &index);
  ASSERT_GE(index, 0);
  ASSERT_LE(index, 255);
  EXPECT_EQ(index, kevrce_lbr_search(a.work->lbr_measured));
  const int16_t *gains = &kevrc_tbl_energy_gain[3 * index];
  EXPECT_TRUE(std::equal(gains, gains + 3, a.enc->lbr_energy));
  for (int n = 0; n < 128; ++n) {
    const int k = n <= 20 ? 0 : (n <= 73 ? 1 : 2);
    const int64_t g = kevrce_gauss_noise(twin.enc.get());
    EXPECT_EQ(exc[n], static_cast<int16_t>((g * gains[k] + 524288) >> 20)) << n;
  }
  EXPECT_EQ(exc[128], 0x5A5A);
}

// ---- Packing --------------------------------------------------------------

struct Packed {
  std::array<uint8_t, 24> bytes;
};

Packed pack(kevrce_instance *enc) {
  Packed p;
  p.bytes.fill(0xEE);
  kevrce_bsw_init(&enc->bsw, p.bytes.data(), 12);
  kevrce_vlc(enc);
  return p;
}

testing::Packet with_rate(const Packed &p, int rate, int bytes) {
  testing::Packet packet{static_cast<uint8_t>(rate)};
  packet.insert(packet.end(), p.bytes.begin(), p.bytes.begin() + bytes);
  return packet;
}

// A coded full- or half-rate payload whose 16-bit words sum to zero would
// read as blank: full rate sets a padding bit, half rate moves the last
// fixed-codebook gain index by one; either way the frame decodes as coded.
TEST(Packing, NeverReadsAsBlank) {
  for (int rate : {4, 3}) {
    Bare b;
    kevrce_work &w = *b.work;
    b.enc->rate = static_cast<int16_t>(rate);
    w.delay = 20;  // every field 0: all payload words 0
    const Packed p = pack(b.enc.get());
    const int bytes = rate == 4 ? 22 : 10;
    int32_t sum = 0;
    for (int i = 0; i < bytes / 2; ++i) sum += static_cast<int16_t>((p.bytes[2 * i] << 8) | p.bytes[2 * i + 1]);
    EXPECT_NE(sum, 0) << rate;
    if (rate == 4) {
      EXPECT_EQ(p.bytes[21], 1);
      EXPECT_EQ(w.fcb_gain_index[2], 0);
    } else {
      EXPECT_EQ(w.fcb_gain_index[2], 1);
      EXPECT_EQ(p.bytes[9], 1);  // the gain index is the payload's last 4 bits
    }
    Decoder d;
    EXPECT_EQ(d.decode(with_rate(p, rate, bytes)).status, KEVRC_OK);
    EXPECT_EQ(d.state().frame_erased, 0) << rate;
  }
}

TEST(Packing, DecoderReadsBackEveryField) {
  testing::Rng rng(testing::test_seed("Packing.DecoderReadsBackEveryField"));
  for (int trial = 0; trial < 40; ++trial) {
    Bare b;
    kevrce_work &w = *b.work;
    // Full rate, LSP indices 0 (a valid vector), everything else random.
    b.enc->rate = 4;
    w.lpc_flag = static_cast<int16_t>(rng.below(2));
    w.delay = static_cast<int16_t>(20 + rng.below(101));
    w.delta_delay = static_cast<int16_t>(rng.below(32));
    for (int i = 0; i < 3; ++i) {
      w.acb_gain_index[i] = static_cast<int16_t>(rng.below(8));
      w.fcb_gain_index[i] = static_cast<int16_t>(rng.below(32));
      for (int k = 0; k < 4; ++k) w.fcb_words[i][k] = static_cast<int16_t>(rng.below(k == 3 ? 2048 : 256));
    }
    const Packed full = pack(b.enc.get());
    EXPECT_EQ(full.bytes[21] & 0x3F, 0);  // the last 6 payload bits are padding
    Decoder d;
    d.decode(with_rate(full, 4, 22));
    const kevrcd_work &dw = d.work();
    EXPECT_EQ(dw.lpc_flag, w.lpc_flag);
    EXPECT_EQ(dw.delay, w.delay);
    EXPECT_EQ(dw.delay_diff, w.delta_delay);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(dw.acb_gain_index[i], w.acb_gain_index[i]);
      EXPECT_EQ(dw.fcb_gain_index[i], w.fcb_gain_index[i]);
      for (int k = 0; k < 4; ++k) EXPECT_EQ(dw.fcb_words[i][k], w.fcb_words[i][k]);
    }

    // Half rate: 80 bits exactly; bytes 10.. stay cleared.
    b.enc->rate = 3;
    for (int s = 0; s < 3; ++s) w.lsp_index[s] = static_cast<uint16_t>(rng.below(s == 2 ? 256 : 128));
    for (int i = 0; i < 3; ++i) {
      w.fcb_words[i][0] = static_cast<int16_t>(rng.below(1024));
      w.fcb_gain_index[i] = static_cast<int16_t>(rng.below(16));
    }
    const Packed half = pack(b.enc.get());
    EXPECT_TRUE(std::all_of(half.bytes.begin() + 10, half.bytes.begin() + 22, [](uint8_t v) { return v == 0; }));
    Decoder h;
    h.decode(with_rate(half, 3, 10));
    const kevrcd_work &hw = h.work();
    for (int s = 0; s < 3; ++s) EXPECT_EQ(hw.lsp_index[s], w.lsp_index[s]);
    EXPECT_EQ(hw.delay, w.delay);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(hw.acb_gain_index[i], w.acb_gain_index[i]);
      EXPECT_EQ(hw.fcb_words[i][0], w.fcb_words[i][0]);
      EXPECT_EQ(hw.fcb_gain_index[i], w.fcb_gain_index[i]);
    }

    // Eighth rate: two bytes.
    b.enc->rate = 1;
    w.lsp_index[0] = static_cast<uint16_t>(rng.below(16));
    w.lsp_index[1] = static_cast<uint16_t>(rng.below(16));
    w.energy_index = static_cast<int16_t>(rng.below(256));
    const Packed eighth = pack(b.enc.get());
    EXPECT_EQ(eighth.bytes[0], (w.lsp_index[0] << 4) | w.lsp_index[1]);
    EXPECT_EQ(eighth.bytes[1], w.energy_index);
    EXPECT_TRUE(std::all_of(eighth.bytes.begin() + 2, eighth.bytes.begin() + 22, [](uint8_t v) { return v == 0; }));
  }
}

}  // namespace
}  // namespace kevrc
