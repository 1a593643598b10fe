// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The whole encoder on generated signals: rate bounds, the rate decision
// settling where it should, and frozen checksums of its output.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cmath>
#include <vector>

#include "tests/test_util.h"

namespace kevrc {
namespace {

using testing::Decoder;
using testing::Encoder;


int16_t clip(double v) { return static_cast<int16_t>(std::clamp(std::lround(v), -32768L, 32767L)); }

// A steady voiced sound: a 100 Hz pulse train through two resonances.
std::vector<int16_t> voiced(int frames, double level) {
  std::vector<int16_t> out(static_cast<size_t>(frames) * 160);
  double y1 = 0, y2 = 0, z1 = 0, z2 = 0;
  for (size_t n = 0; n < out.size(); ++n) {
    const double x = n % 80 == 0 ? 1.0 : 0.0;
    const double y = x + 1.8 * std::cos(2 * M_PI * 700 / 8000) * y1 * 0.95 - 0.9025 * y2;
    y2 = y1;
    y1 = y;
    const double z = y + 2 * 0.9 * std::cos(2 * M_PI * 1200 / 8000) * z1 - 0.81 * z2;
    z2 = z1;
    z1 = z;
    out[n] = clip(level * z);
  }
  return out;
}

// Gaussian noise of about the given rms; smoothing 0 gives white noise, 0.8
// a low-pass background (about -6 dB at 1 kHz, like room or car noise).
std::vector<int16_t> noise(int frames, double rms, uint64_t seed, double smoothing = 0.0) {
  testing::Rng rng(seed);
  std::vector<int16_t> out(static_cast<size_t>(frames) * 160);
  const double norm = std::sqrt((1 + smoothing) / (1 - smoothing));
  double lp = 0;
  for (auto &v : out) {
    double s = 0;
    for (int k = 0; k < 12; ++k) s += static_cast<double>(rng.below(1 << 16)) / 65536.0;
    lp = smoothing * lp + (1 - smoothing) * (s - 6.0);
    v = clip(lp * norm * rms);
  }
  return out;
}


// Quarter rate is never produced: a bound of 2 acts as eighth rate when it
// caps (max_rate 2) and as half rate when it raises (min_rate 2).
TEST(EncoderEndToEnd, QuarterRateBoundsNeverProduceRateTwo) {
  const std::vector<int16_t> loud = voiced(20, 3000.0);
  const std::vector<int16_t> quiet = noise(20, 3.0, 5);
  struct Case {
    kevrce_config cfg;
    int loud_rate, quiet_rate;
  } cases[] = {{{2, 1, 0, 0}, 1, 1}, {{4, 2, 0, 0}, 4, 3}, {{3, 2, 0, 1}, 3, 3}};
  for (const Case &c : cases) {
    Encoder e(c.cfg);
    Decoder d;
    for (const auto *s : {&quiet, &loud}) {
      int last = 0;
      for (size_t k = 0; k < s->size(); k += 160) {
        const Encoder::Frame f = e.encode(&(*s)[k]);
        ASSERT_EQ(f.status, KEVRC_OK);
        ASSERT_NE(f.result.rate, 2);
        ASSERT_EQ(d.decode(f.packet()).status, KEVRC_OK);
        last = f.result.rate;
      }
      EXPECT_EQ(last, s == &loud ? c.loud_rate : c.quiet_rate) << c.cfg.max_rate << ".." << c.cfg.min_rate;
    }
  }
}

// Silence settles at eighth rate; a loud steady voiced sound is coded at
// full rate; after it ends a hangover keeps the rate up for a while.
TEST(EncoderEndToEnd, RateDecisionSettles) {
  Encoder e({4, 1, 0, 0});
  std::vector<int16_t> quiet = noise(100, 3.0, 11);
  std::vector<int16_t> loud = voiced(50, 3000.0);
  std::vector<int> rates;
  auto run = [&](const std::vector<int16_t> &s) {
    for (size_t k = 0; k + 160 <= s.size(); k += 160) {
      e.encode(&s[k]);
      rates.push_back(e.get()->rate);
    }
  };
  run(quiet);
  run(loud);
  run(quiet);
  EXPECT_EQ(rates[0], 4);  // the first frame is coded at the upper bound
  auto share = [&](size_t from, size_t to, int rate) {
    return static_cast<double>(std::count(rates.begin() + from, rates.begin() + to, rate)) / (to - from);
  };
  EXPECT_EQ(share(50, 100, 1), 1.0);
  EXPECT_GE(share(110, 150, 4), 0.95);
  EXPECT_EQ(share(220, 250, 1), 1.0);
}

// Frozen output: checksums of the payloads, the rates and the conditioned
// samples for generated signals, so that any change in the encoder's bits
// shows. After a deliberate change, print the new values with
// KEVRC_PRINT_CHECKSUMS=1 build/tests/kevrc_tests --gtest_filter='*FrozenEncoder*'.
uint64_t encoder_checksum(kevrce_config cfg) {
  std::vector<int16_t> s = noise(100, 40.0, 21, 0.8);
  const std::vector<int16_t> v = voiced(100, 2500.0);
  const std::vector<int16_t> n2 = noise(100, 400.0, 22);
  s.insert(s.end(), v.begin(), v.end());
  s.insert(s.end(), n2.begin(), n2.end());
  Encoder e(cfg);
  uint64_t h = testing::kFnvOffset;
  for (size_t k = 0; k + 160 <= s.size(); k += 160) {
    Encoder::Frame f = e.encode(&s[k]);
    const int16_t head[3] = {static_cast<int16_t>(f.status), e.get()->rate, static_cast<int16_t>(f.result.bytes)};
    h = testing::fnv1a(h, head, 3);
    h = testing::fnv1a(h, f.conditioned.data(), 160);
    if (f.status == KEVRC_OK) {
      int16_t words[11];
      for (int i = 0; i < 11; ++i) words[i] = static_cast<int16_t>(f.payload[2 * i] | (f.payload[2 * i + 1] << 8));
      h = testing::fnv1a(h, words, 11);
    }
  }
  return h;
}

TEST(EncoderEndToEnd, FrozenEncoderChecksums) {
  struct Frozen {
    const char *name;
    kevrce_config cfg;
    uint64_t checksum;
  } const frozen[] = {
      {"eighth rate", {1, 1, 0, 0}, 0x781adaa5cb8d6342ull},
      {"eighth rate, noise suppression", {1, 1, 0, 1}, 0x7daa9d92a46d8b62ull},
      {"rate decision 1..4", {4, 1, 0, 0}, 0x1fc03119030fb515ull},
      {"rate decision 1..4, noise suppression", {4, 1, 0, 1}, 0x91bbe66d93f717eeull},
  };
  const bool print = std::getenv("KEVRC_PRINT_CHECKSUMS") != nullptr;
  for (const Frozen &f : frozen) {
    const uint64_t got = encoder_checksum(f.cfg);
    if (print) std::printf("  {\"%s\", ..., 0x%016llxull},\n", f.name, static_cast<unsigned long long>(got));
    EXPECT_EQ(got, f.checksum) << f.name;
  }
}

// ---------------------------------------------------------------------------
// The quality mode's rate decision (kevrce_set_robust)

std::vector<int> robust_rates(kevrce_config cfg, const std::vector<int16_t> &s) {
  Encoder e(cfg);
  EXPECT_EQ(kevrce_set_robust(e.get(), 1), KEVRC_OK);
  std::vector<int> rates;
  for (size_t k = 0; k + 160 <= s.size(); k += 160) rates.push_back(e.encode(&s[k]).result.rate);
  return rates;
}

void append(std::vector<int16_t> &to, const std::vector<int16_t> &s) { to.insert(to.end(), s.begin(), s.end()); }

// A quiet room (2 s), then six words 8 frames long at levels down to 24 dB
// below the first, with pauses of 4 frames, then the room again (2 s).
std::vector<int16_t> words_with_short_pauses() {
  std::vector<int16_t> s = noise(100, 3.0, 31);
  for (double level : {3000.0, 800.0, 1500.0, 190.0, 400.0, 2500.0}) {
    append(s, voiced(8, level));
    append(s, noise(4, 3.0, 32));
  }
  append(s, noise(96, 3.0, 33));
  return s;
}

TEST(RobustRate, SpeechWithShortPausesIsNeverCodedAtEighthRate) {
  const std::vector<int16_t> s = words_with_short_pauses();
  for (int ns : {0, 1}) {
    const std::vector<int> r = robust_rates({4, 1, 0, ns}, s);
    for (size_t k = 100; k < 168; ++k) EXPECT_NE(r[k], 1) << "frame " << k << ", ns " << ns;
    // The hangover covers 0.2 s after the last word, then the room is background.
    EXPECT_EQ(std::count(r.begin() + 168, r.begin() + 178, 1), 0) << ns;
    EXPECT_EQ(std::count(r.begin() + 182, r.end(), 1), 86) << ns;
    EXPECT_EQ(std::count(r.begin() + 20, r.begin() + 100, 1), 80) << ns;
  }
}

// Stationary sounds fill the background tracker's window but are signal,
// loud or tonal; digital silence is background, and so is the suppressor's
// output of a dither of a few units. (The first packet codes half a frame
// of the encoder's empty history.)
TEST(RobustRate, LoudStationarySoundsAreSignalAndSilenceIsBackground) {
  std::vector<int16_t> square(32000), tone(32000), quiet_tone(32000), silence(32000, 0);
  const std::vector<int16_t> loud_noise = noise(200, 6000.0, 41);  // -15 dB: loud, not tonal
  const std::vector<int16_t> dither = noise(200, 0.5, 42);  // a few units a frame: off-scale band energies
  for (size_t n = 0; n < square.size(); ++n) {
    square[n] = (n / 20) % 2 ? -32767 : 32767;
    tone[n] = clip(16400 * std::sin(2 * M_PI * 1000 * static_cast<double>(n) / 8000));
    quiet_tone[n] = clip(160 * std::sin(2 * M_PI * 440 * static_cast<double>(n) / 8000));  // -46 dB
  }
  struct Case {
    const std::vector<int16_t> *signal;
    int ns;
    long eighth;
  } const cases[] = {{&square, 0, 0}, {&square, 1, 0}, {&tone, 0, 0},       {&tone, 1, 0},
                     {&quiet_tone, 0, 0}, {&loud_noise, 0, 0}, {&silence, 0, 199}, {&silence, 1, 199}, {&dither, 1, 199}};
  for (const Case &c : cases) {
    const std::vector<int> r = robust_rates({4, 1, 0, c.ns}, *c.signal);
    EXPECT_EQ(std::count(r.begin() + 1, r.end(), 1), c.eighth) << &c - cases << " ns " << c.ns;
  }
}

// The start of a file: a background louder than the floor assumed before
// any is seen goes at eighth rate within a few frames (it used to take the
// 64..80 frames of the minimum window to fill), and a weak fricative that
// starts the file is never eighth: its own level must not become its floor.
TEST(RobustRate, FileStartBackgroundIsEighthAndAStartingFricativeIsNot) {
  struct Case {
    double background;  // RMS of the leading background (100: -47 dB)
    int frames;         // its length in frames
    double fricative;   // RMS of the 16 frames of noise that follow (130: -45 dB)
    long eighth;        // eighth-rate frames in the background
  } const cases[] = {{100, 60, 1500, 40}, {150, 60, 1500, 21}, {0, 0, 130, 0}, {0, 0, 180, 0}};
  for (const Case &c : cases) {
    std::vector<int16_t> s = noise(c.frames, c.background, 51);
    append(s, noise(16, c.fricative, 53));
    append(s, noise(20, c.background, 52));
    const std::vector<int> r = robust_rates({4, 1, 0, 0}, s);
    EXPECT_EQ(std::count(r.begin(), r.begin() + c.frames, 1), c.eighth) << &c - cases;
    EXPECT_EQ(std::count(r.begin() + c.frames + 1, r.begin() + c.frames + 16, 1), 0) << &c - cases;
  }
}

// The configured bounds still hold in the quality mode.
TEST(RobustRate, RateBoundsHold) {
  const std::vector<int16_t> s = words_with_short_pauses();
  struct Case {
    kevrce_config cfg;
    int lowest, highest;
  } const cases[] = {{{3, 1, 0, 0}, 1, 3}, {{4, 3, 0, 0}, 3, 4}, {{1, 1, 0, 1}, 1, 1}, {{4, 4, 0, 0}, 4, 4}};
  for (const Case &c : cases) {
    const std::vector<int> r = robust_rates(c.cfg, s);
    EXPECT_EQ(*std::min_element(r.begin(), r.end()), c.lowest) << c.cfg.max_rate << ".." << c.cfg.min_rate;
    EXPECT_EQ(*std::max_element(r.begin(), r.end()), c.highest) << c.cfg.max_rate << ".." << c.cfg.min_rate;
  }
}

}  // namespace
}  // namespace kevrc
