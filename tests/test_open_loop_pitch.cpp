// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Open-loop pitch: period finding, the gain against a double-precision model,
// tracking of the previous delay, the decimator and unusual inputs.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "common/fixed_point.h"
#include "encoder/encoder_state.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

constexpr double kPi = 3.14159265358979323846;

// The estimator as the frame analysis drives it: each call sees 160 samples
// of a stream, 80 of them new, so consecutive calls advance by 80.
struct Estimator {
  kevrce_olp_state st{};
  int16_t delay = -1, gain = -1;
  void run(const int16_t *x) { kevrce_ol_pitch(&st, x, &delay, &gain); }
  // Runs over stream[80 c .. 80 c + 160) for c = 0, 1, ... and calls check(c).
  template <typename F>
  void stream(const std::vector<int16_t> &s, F check) {
    for (size_t c = 0; 80 * c + 160 <= s.size(); ++c) {
      run(&s[80 * c]);
      check(static_cast<int>(c));
    }
  }
};

TEST(OpenLoopPitch, SilenceGivesNoGainAndForgetsTheDelay) {
  Estimator e;
  e.st.prev_delay = 50;
  e.st.prev_gain = 30000;
  const std::vector<int16_t> zeros(160, 0);
  // Pg * 0.75 per call: (30000 * 24576 + 16384) >> 15 = 22500, then 16875,
  // 12656, 9492 <= 9829, when P is forgotten.
  const int16_t expected_pg[4] = {22500, 16875, 12656, 9492};
  for (int call = 0; call < 4; ++call) {
    e.run(zeros.data());
    EXPECT_EQ(e.gain, 0);
    EXPECT_EQ(e.delay, 20);  // every correlation is 0 and the first lag wins
    EXPECT_EQ(e.st.prev_gain, expected_pg[call]);
    EXPECT_EQ(e.st.prev_delay, call < 3 ? 50 : 0) << call;
  }
}

// A stream of pulses, one every `period` samples from sample 3, each a
// raised cosine of the given width (1: a single sample).
std::vector<int16_t> pulse_train(int period, int width, int length) {
  std::vector<int16_t> s(length, 0);
  for (int n = 3; n < length; n += period) {
    for (int k = 0; k < width && n + k < length; ++k) {
      s[n + k] =
          static_cast<int16_t>(std::lround(2500 * (1 - std::cos(2 * kPi * (k + 1) / (width + 1)))));
    }
  }
  return s;
}

TEST(OpenLoopPitch, FindsThePeriodOfPulseTrains) {
  // Spikes and smooth (glottal-like) pulses, periods 20..120. A stretch shows
  // the period only when a pulse pair fits in it with room for the decimation
  // filter's delay (about 12 samples) before the end; those calls must find
  // it: exactly for spikes, within a sample for smooth pulses (the raw
  // correlation F(T) may gain a pulse edge at T - 1 and outweigh F(T)).
  for (int width : {1, 9}) {
    for (int period = 20; period <= 120; ++period) {
      const std::vector<int16_t> s = pulse_train(period, width, 160 * 12);
      Estimator e;
      int checked = 0;
      e.stream(s, [&](int c) {
        bool pair = false;
        for (int i = 0; i + period + width + 12 <= 160; ++i) pair |= (80 * c + i) % period == 3;
        if (c < 1 || !pair) return;
        ++checked;
        EXPECT_NEAR(e.delay, period, width == 1 ? 0 : 1) << "width " << width << " call " << c;
        EXPECT_GT(e.gain, width == 1 ? 32700 : 29000)
            << "width " << width << " period " << period << " call " << c;
      });
      EXPECT_GE(checked, 1) << period;
    }
  }
}

// Pulses of a every 80 samples (at 10, 90, ...) and of ratio * a halfway
// between (50, 130, ...). Every 160-sample stretch starting at a multiple of
// 80 holds pulses at 10, 50, 90 and 130.
std::vector<int16_t> strong_weak_pulses(int16_t a, double ratio) {
  std::vector<int16_t> s(320, 0);
  for (int n = 10; n < 320; n += 80) {
    s[n] = a;
    s[n + 40] = static_cast<int16_t>(std::lround(a * ratio));
  }
  return s;
}

// Runs the second stretch of s with P set after a warm-up call.
Estimator tracked(const std::vector<int16_t> &s, int p) {
  Estimator e;
  e.run(s.data());
  e.st.prev_delay = static_cast<int16_t>(p);
  e.st.prev_gain = 20000;
  e.run(&s[80]);
  return e;
}

TEST(OpenLoopPitch, TrackingPrefersTheMultipleNearThePreviousDelay) {
  // Ratio 1/2: F(40) = 3 * 0.5 = 1.5 beats F(80) = 1 + 0.25 (in a^2), so
  // T1 = 40 with B1 = 1.5 / sqrt((2 + 0.25)(1 + 2 * 0.25)) = 0.8165 (26755).
  // With P = 80, T1 lies below the window 74..86 whose best is 80 with B2 = 1:
  // 0.6 * 0.8165 < 1/2, so 80 is taken.
  for (int16_t a : {int16_t{1000}, int16_t{4000}}) {
    const std::vector<int16_t> s = strong_weak_pulses(a, 0.5);
    const Estimator free = tracked(s, 0);  // P = 0: no tracking, D = T1
    EXPECT_EQ(free.delay, 40);
    EXPECT_NEAR(free.gain, 26755, 25);
    const Estimator near80 = tracked(s, 80);
    EXPECT_EQ(near80.delay, 80) << a;
    EXPECT_EQ(near80.gain, 32767) << a;
    EXPECT_EQ(near80.st.prev_delay, 80);
  }
}

TEST(OpenLoopPitch, DelayNearThePreviousOneIsKept) {
  // T1 = 40 (ratio 1/2, as above) with P anywhere in 34..46: kept as it is,
  // with the gain found without tracking.
  const std::vector<int16_t> s = strong_weak_pulses(4000, 0.5);
  const Estimator free = tracked(s, 0);
  for (int p : {34, 40, 46}) {
    const Estimator e = tracked(s, p);
    EXPECT_EQ(e.delay, 40) << "P " << p;
    EXPECT_EQ(e.gain, free.gain) << "P " << p;
  }
}

TEST(OpenLoopPitch, TrackedGainEnergiesAddOneOnOverflow) {
  // The same stream at full level: the tracked delay's energies pass
  // 0x3FFFFFFF, and there the sum gains 1 instead of being halved while the
  // exponent still rises, so each energy reads about twice its size and B2
  // about half: 0.6 * 0.8165 >= B2 / 2 keeps T1 = 40.
  const std::vector<int16_t> s = strong_weak_pulses(30000, 0.5);
  EXPECT_EQ(tracked(s, 0).delay, 40);
  EXPECT_EQ(tracked(s, 80).delay, 40);
}

TEST(OpenLoopPitch, TrackingPullsADoubledDelayBack) {
  // Ratio 0.37: F(80) = 1 + 0.137 just beats F(40) = 3 * 0.37, so alone the
  // estimate doubles to 80; with P = 40 it returns to 40.
  const std::vector<int16_t> s = strong_weak_pulses(3000, 0.37);
  EXPECT_EQ(tracked(s, 0).delay, 80);
  const Estimator e = tracked(s, 40);
  EXPECT_EQ(e.delay, 40);
  EXPECT_GT(e.gain, 19000);  // 1.11 / sqrt(2.137 * 1.274) = 0.673
}

TEST(OpenLoopPitch, DecimatorGainAndRejection) {
  // DC: low-pass 0.25 / (1 - 2.28748 + 1.95605 - 0.59595) = 3.44202, zero
  // section 2 - 2 * 20448/65536 = 1.37598, doubled: 1000 -> 9472. The 16-bit
  // rounding inside the recursion leaves a dead band of +-0.5 / 0.0726 = +-7
  // in its output, +-19 after the zero section.
  const double low = (4096.0 / 16384) / (1 - 37478.0 / 16384 + 32048.0 / 16384 - 9764.0 / 16384);
  const double dc_gain = low * (2 - 2 * 20448.0 / 65536) * 2;
  Estimator e;
  const std::vector<int16_t> dc(160, 1000);
  for (int c = 0; c < 20; ++c) e.run(dc.data());
  for (int i = 0; i < 40; ++i) EXPECT_NEAR(e.st.decimated[i], 1000 * dc_gain, 20) << i;
  // Half the sampling rate is a zero of the zero section: an alternating
  // input leaves only the dead band.
  Estimator a;
  std::vector<int16_t> alt(160);
  for (int i = 0; i < 160; ++i) alt[i] = i % 2 ? 1000 : -1000;
  for (int c = 0; c < 20; ++c) a.run(alt.data());
  for (int i = 0; i < 40; ++i) EXPECT_LE(std::abs(a.st.decimated[i]), 20) << i;
}

}  // namespace
}  // namespace kevrc
