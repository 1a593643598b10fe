// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Encoder and decoder together on speech: every rate is coded and decodes,
// the decoder's state tracks the encoder's over minutes of speech, and frozen
// checksums of packets and decoded samples catch any change in the bits.
//
// Real speech comes from the held-out files of the speech corpus when it is
// installed (scripts/install-deps.sh --corpus); tests that need it skip
// otherwise. Generated material covers the rest.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/test_util.h"
#ifdef KEVRC_HAVE_CORPUS
#include "tools/support/corpus.h"
#endif

namespace kevrc {
namespace {

using testing::Decoder;
using testing::Encoder;

constexpr kevrcd_config kNoPostfilter = {1, 0, 0, 0, 0};

// Held-out corpus speech: files [first, first + count) of the sorted
// held-out list, concatenated, at most max_seconds. Empty without a corpus.
std::vector<int16_t> held_out_speech(size_t first, size_t count, double max_seconds) {
  std::vector<int16_t> all;
#ifdef KEVRC_HAVE_CORPUS
  const std::vector<std::string> list = corpus::files(corpus::Split::HeldOut);
  for (size_t i = first; i < list.size() && i < first + count; ++i) {
    std::vector<int16_t> pcm;
    std::string error;
    if (!corpus::read_pcm(std::string(corpus::kDefaultRoot) + "/" + list[i], pcm, error)) continue;
    all.insert(all.end(), pcm.begin(), pcm.end());
    if (all.size() >= max_seconds * 8000) break;
  }
  all.resize(std::min(all.size(), static_cast<size_t>(max_seconds * 8000)));
#else
  (void)first;
  (void)count;
  (void)max_seconds;
#endif
  all.resize(all.size() / 160 * 160);
  return all;
}

int16_t clip(double v) { return static_cast<int16_t>(std::clamp(std::lround(v), -32768L, 32767L)); }

// Speech-like material: voiced stretches whose pitch glides (a pulse train
// through two moving resonances), noise bursts, and pauses.
std::vector<int16_t> speechlike(int frames, uint64_t seed) {
  testing::Rng rng(seed);
  std::vector<int16_t> out(static_cast<size_t>(frames) * 160);
  double phase = 0, y1 = 0, y2 = 0, z1 = 0, z2 = 0;
  for (size_t n = 0; n < out.size(); ++n) {
    const double t = static_cast<double>(n) / 8000.0;
    const int part = static_cast<int>(t / 0.35) % 4;  // voiced, voiced, noise, pause
    const double period = 55 + 25 * std::sin(2 * M_PI * 0.7 * t);
    double x = 0;
    if (part < 2) {
      phase += 1.0 / period;
      if (phase >= 1.0) {
        phase -= 1.0;
        x = 1.0;
      }
    } else if (part == 2) {
      x = (static_cast<double>(rng.below(2001)) - 1000.0) / 20000.0;
    }
    const double f1 = 500 + 300 * std::sin(2 * M_PI * 1.3 * t);
    const double y = x + 2 * 0.95 * std::cos(2 * M_PI * f1 / 8000) * y1 - 0.9025 * y2;
    y2 = y1;
    y1 = y;
    const double z = y + 2 * 0.9 * std::cos(2 * M_PI * 1500 / 8000) * z1 - 0.81 * z2;
    z2 = z1;
    z1 = z;
    out[n] = clip(1500 * z);
  }
  return out;
}

// The whole chain on held-out speech with the default bounds: every frame
// is coded, the packets mix all three rates, and all of them decode.
TEST(CodecEndToEnd, VariableRateSpeechUsesEveryRateAndDecodes) {
  const std::vector<int16_t> speech = held_out_speech(0, 40, 60);
  if (speech.empty()) GTEST_SKIP() << "speech corpus not installed";
  Encoder e({4, 1, 0, 1});
  Decoder d;
  int count[5] = {};
  for (size_t k = 0; k < speech.size(); k += 160) {
    const Encoder::Frame f = e.encode(&speech[k]);
    ASSERT_EQ(f.status, KEVRC_OK) << "frame " << k / 160;
    ASSERT_TRUE(f.result.rate == 1 || f.result.rate == 3 || f.result.rate == 4);
    EXPECT_EQ(f.result.bytes, f.result.rate == 1 ? 2 : f.result.rate == 3 ? 10 : 22);
    ++count[f.result.rate];
    ASSERT_EQ(d.decode(f.packet()).status, KEVRC_OK) << "frame " << k / 160;
  }
  const int total = count[1] + count[3] + count[4];
  std::printf("rates: eighth %d, half %d, full %d of %d frames\n", count[1], count[3], count[4], total);
  EXPECT_GT(count[1], total / 20);
  EXPECT_GT(count[3], 0);
  EXPECT_GT(count[4], total / 2);
}

// The decoder's excitation history and synthesis memory stay within a small
// bound of the encoder's own over minutes of speech, and the difference does
// not grow. Frames coded at eighth rate and the two frames after them are
// also measured apart: both sides draw their noise from one generator, but
// the encoder draws only the 128 samples of its excitation history, so there
// the synthesis memories differ by about the noise's own level; they must
// not run away, and must close again once speech is coded.
TEST(CodecEndToEnd, DecoderTracksEncoderOverMinutesOfSpeech) {
  const std::vector<int16_t> speech = held_out_speech(0, 120, 180);
  if (speech.size() < 120 * 8000) GTEST_SKIP() << "speech corpus not installed";
  for (const kevrce_config cfg : {kevrce_config{4, 1, 0, 1}, kevrce_config{3, 3, 0, 0}}) {
    Encoder e(cfg);
    Decoder d(kNoPostfilter);
    const size_t frames = speech.size() / 160;
    int worst_exc[2] = {}, worst_syn[2] = {};
    double diff_energy[2] = {}, exc_energy[2] = {};
    // [0]: eighth-rate frames, [1]: the two frames after one.
    double noise_diff[2] = {}, noise_syn[2] = {};
    int worst_noise_syn[2] = {}, eighth = 0, since_eighth = 99;
    for (size_t k = 0; k < frames; ++k) {
      const Encoder::Frame f = e.encode(&speech[k * 160]);
      ASSERT_EQ(f.status, KEVRC_OK);
      ASSERT_EQ(d.decode(f.packet()).status, KEVRC_OK);
      ASSERT_EQ(d.state().frame_erased, 0) << "frame " << k;
      const kevrce_instance *enc = e.get();
      const kevrcd_state &st = d.state();
      since_eighth = f.result.rate == 1 ? 0 : since_eighth + 1;
      eighth += f.result.rate == 1 ? 1 : 0;
      if (since_eighth <= 2) {
        const int c = since_eighth == 0 ? 0 : 1;
        for (int n = 0; n < 10; ++n) {
          const int diff = std::abs(enc->syn_mem[n] - st.syn_mem[n]);
          worst_noise_syn[c] = std::max(worst_noise_syn[c], diff);
          noise_diff[c] += static_cast<double>(diff) * diff;
          noise_syn[c] += static_cast<double>(st.syn_mem[n]) * st.syn_mem[n];
        }
      }
      if (f.result.rate == 1) continue;
      const size_t half = k < frames / 2 ? 0 : 1;
      for (int n = 0; n < 128; ++n) {
        const int diff = std::abs(enc->exc[n] - st.exc[n]);
        worst_exc[half] = std::max(worst_exc[half], diff);
        diff_energy[half] += static_cast<double>(diff) * diff;
        exc_energy[half] += static_cast<double>(enc->exc[n]) * enc->exc[n];
      }
      for (int n = 0; n < 10; ++n) {
        worst_syn[half] = std::max(worst_syn[half], std::abs(enc->syn_mem[n] - st.syn_mem[n]));
      }
    }
    const double snr[2] = {10 * std::log10(exc_energy[0] / (diff_energy[0] + 1)),
                           10 * std::log10(exc_energy[1] / (diff_energy[1] + 1))};
    const double noise_snr[2] = {10 * std::log10((noise_syn[0] + 1) / (noise_diff[0] + 1)),
                                 10 * std::log10((noise_syn[1] + 1) / (noise_diff[1] + 1))};
    std::printf("bounds %d..%d, %zu frames: excitation difference at most %d / %d (first / second "
                "half), %.1f / %.1f dB below the excitation; synthesis memory at most %d / %d\n",
                cfg.min_rate, cfg.max_rate, frames, worst_exc[0], worst_exc[1], snr[0], snr[1],
                worst_syn[0], worst_syn[1]);
    std::printf("  %d eighth-rate frames: synthesis memory difference at most %d, %.1f dB below "
                "it; in the two frames after: at most %d, %.1f dB below\n",
                eighth, worst_noise_syn[0], noise_snr[0], worst_noise_syn[1], noise_snr[1]);
    EXPECT_LE(worst_exc[0], 32);
    EXPECT_LE(worst_exc[1], 32);
    EXPECT_GT(snr[0], 40.0);
    EXPECT_GT(snr[1], snr[0] - 3.0) << "the difference grows";
    // The synthesis filter amplifies the small excitation differences (and
    // carries those of the eighth-rate noise into the next frames).
    EXPECT_LE(worst_syn[0], 256);
    EXPECT_LE(worst_syn[1], 256);
    if (eighth == 0) continue;
    EXPECT_GT(noise_snr[0], -6.0) << "the eighth-rate synthesis memories run apart";
    EXPECT_GT(noise_snr[1], 40.0) << "the difference outlasts the eighth-rate frames";
    EXPECT_LE(worst_noise_syn[1], 256);
  }
}

// Frozen vectors. Each case encodes a signal with given bounds and decodes
// the packets (postfilter on); the checksums cover the rates, the payloads
// and the decoded samples. After a deliberate change to the bits, print the
// new values with
//   KEVRC_PRINT_CHECKSUMS=1 build/tests/kevrc_tests --gtest_filter='*FrozenCodec*'
// and paste them here, saying why in the commit.
struct FrozenCase {
  const char *name;
  int source;  // < 0: generated (speechlike seed -source); >= 0: held-out file index
  kevrce_config cfg;
  uint64_t packets;
  uint64_t decoded;
};

const FrozenCase kFrozen[] = {
    {"speechlike 1..4", -1, {4, 1, 0, 1}, 0x524E5C48E40F31B5ull, 0xF1F272627AC8D31Full},
    {"speechlike full", -1, {4, 4, 0, 0}, 0xDE1F32975C54DF83ull, 0x546B28806DE0A3B8ull},
    {"speechlike half", -2, {3, 3, 0, 0}, 0x7A6619E36ADCE5DCull, 0x090C8914BD89A3ACull},
    {"speechlike 1..3 ns", -3, {3, 1, 0, 1}, 0x3FE28FF89D2FEC58ull, 0xAC45036560BC5EF7ull},
    {"held-out 0 1..4", 0, {4, 1, 0, 1}, 0x6685F52C97811A0Cull, 0x2D0A3C29605165D6ull},
    {"held-out 55 1..4", 55, {4, 1, 0, 1}, 0xC1D027972C5408ECull, 0xEEAE7679C09773CDull},
    {"held-out 110 full", 110, {4, 4, 0, 0}, 0x54AD969C981C666Cull, 0xB0AF84046B78E9ACull},
    {"held-out 165 half", 165, {3, 3, 0, 1}, 0xFF9CD6228A37D66Dull, 0x7BD3B9842069E0E9ull},
    {"held-out 200 1..3", 200, {3, 1, 0, 0}, 0x003D7A7EA0A85CB1ull, 0x3BA3EBC1DE136765ull},
};

TEST(FrozenCodec, PacketsAndDecodedSamples) {
  const bool print = std::getenv("KEVRC_PRINT_CHECKSUMS") != nullptr;
  int skipped = 0;
  for (const FrozenCase &c : kFrozen) {
    const std::vector<int16_t> s =
        c.source < 0 ? speechlike(300, static_cast<uint64_t>(-c.source)) : held_out_speech(c.source, 1, 20);
    if (s.empty()) {
      ++skipped;
      continue;
    }
    Encoder e(c.cfg);
    Decoder d;
    uint64_t hp = testing::kFnvOffset, hd = testing::kFnvOffset;
    for (size_t k = 0; k < s.size(); k += 160) {
      const Encoder::Frame f = e.encode(&s[k]);
      ASSERT_EQ(f.status, KEVRC_OK) << c.name;
      const testing::Packet p = f.packet();
      std::vector<int16_t> bytes(p.begin(), p.end());
      hp = testing::fnv1a(hp, bytes.data(), bytes.size());
      const Decoder::Frame o = d.decode(p);
      ASSERT_EQ(o.status, KEVRC_OK) << c.name;
      hd = testing::fnv1a(hd, o.pcm.data(), o.pcm.size());
    }
    if (print) {
      std::printf("    {\"%s\", %d, {%d, %d, 0, %d}, 0x%016llXull, 0x%016llXull},\n", c.name, c.source,
                  c.cfg.max_rate, c.cfg.min_rate, c.cfg.noise_suppression,
                  static_cast<unsigned long long>(hp), static_cast<unsigned long long>(hd));
      continue;
    }
    EXPECT_EQ(hp, c.packets) << c.name;
    EXPECT_EQ(hd, c.decoded) << c.name;
  }
  if (skipped > 0) std::printf("%d held-out cases skipped: speech corpus not installed\n", skipped);
}

}  // namespace
}  // namespace kevrc
