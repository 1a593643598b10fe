// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Residual modification: pulse measures, the interpolator's read span, the
// segment plan's invariants and the tracking of a drifting pitch.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "common/fixed_point.h"
#include "encoder/rcelp.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

TEST(PeakEnergy, SingleWindowReturnsStartAndHalfTheDoubledSum) {
  const int16_t x[] = {1, 2, 3, 4, 5, 6, 7};
  int16_t pos = -1;
  int32_t e = -1;
  kevrce_peak_energy(&pos, &e, x, 3, 1);  // window x[1..5]
  EXPECT_EQ(pos, 3);
  EXPECT_EQ(e, 4 + 9 + 16 + 25 + 36);
}

TEST(PeakEnergy, FirstStrongestWindowWins) {
  //                 0  1  2  3   4  5  6  7  8  9  10  11  12
  const int16_t x[] = {0, 0, 0, 0, 10, 0, 0, 0, 0, 0, 10, 0, 0};
  int16_t pos = -1;
  int32_t e = -1;
  kevrce_peak_energy(&pos, &e, x, 2, 9);  // centres 2..10; centres 2..6 all hold x[4]
  EXPECT_EQ(pos, 2);
  EXPECT_EQ(e, 100);
  kevrce_peak_energy(&pos, &e, x, 7, 4);  // centres 7..10: only 8..10 hold x[10]
  EXPECT_EQ(pos, 8);
}

TEST(PeakToAverage, SeparatesPulsesFromNoise) {
  std::vector<int16_t> pulse(40, 0);
  pulse[20] = 8000;
  const int16_t lone = peak2average(pulse.data(), 40);
  EXPECT_GE(lone, 100);
  std::mt19937 rng(static_cast<uint32_t>(testing::test_seed("PeakToAverage")));
  std::normal_distribution<double> g(0.0, 2000.0);
  int searched = 0;
  double mean40 = 0;
  for (int trial = 0; trial < 200; ++trial) {
    std::vector<int16_t> noise(80);
    for (auto &v : noise) v = static_cast<int16_t>(std::lround(g(rng)));
    if (peak2average(noise.data(), 80) >= 16) ++searched;
    mean40 += peak2average(noise.data(), 40) / 200.0;
  }
  EXPECT_LT(searched, 40) << "an 80-sample stretch of white noise should seldom be searched";
  EXPECT_GT(lone, 4 * mean40);
  std::vector<int16_t> square(60);
  for (int i = 0; i < 60; ++i) square[i] = (i & 1) ? 32767 : -32768;
  EXPECT_LT(peak2average(square.data(), 60), 16);
  std::vector<int16_t> zero(40, 0);
  EXPECT_EQ(peak2average(zero.data(), 40), 0);
  EXPECT_EQ(peak2average(pulse.data(), 4), 0);
}

// interp_offset() must name exactly the samples the interpolator reads: the
// residual bounds of the warping rest on it.
TEST(RcelpBounds, InterpOffsetIsTheInterpolatorsReadSpan) {
  std::vector<int16_t> buf(400, 0);
  int16_t *x = buf.data() + 200;
  for (int32_t d = -18432; d <= 18432; d += 7) {
    const int i = interp_offset(d);
    for (int taps : {3, 8}) {
      const int16_t cutoff = taps == 8 ? 29491 : 16384;
      for (int j = -i - taps - 2; j <= -i + taps + 2; ++j) {
        x[j] = 10000;
        int16_t out;
        kevrc_bilinear_intrpol(x, shl32_wrap(d, 16), cutoff, static_cast<int16_t>(taps), &out);
        x[j] = 0;
        const bool inside = j >= -i - taps && j <= -i + taps;
        if (!inside) {
          ASSERT_EQ(out, 0) << "delay " << d << " reads " << j;
        }
      }
    }
  }
}

TEST(RcelpBounds, RampStepsStayBelowOneSample) {
  for (int len = 0; len < 60; ++len) {
    const int32_t most = 128 * (len + 1);  // the search keeps |to - from| within this
    for (int32_t delta : {-most, -std::min(300, most), 0, std::min(77, most), most}) {
      int32_t prev = 1000;
      for (int k = 0; k <= len + 2; ++k) {
        const int32_t s = ramp_shift(1000, 1000 + delta, k, len);
        ASSERT_LT(std::abs(s - prev), 256) << len << " " << delta << " " << k;
        prev = s;
      }
      EXPECT_EQ(prev, 1000 + delta);
    }
  }
}

// A voiced residual: shaped pulses every `period` samples plus a little noise.
std::vector<int16_t> pulse_train(double period, int n, uint32_t seed, double noise = 150.0) {
  std::vector<int16_t> r(n);
  std::mt19937 rng(seed);
  std::normal_distribution<double> g(0.0, noise);
  std::vector<double> acc(n, 0.0);
  for (double t = 10.0; t < n - 3; t += period) {
    const int k = static_cast<int>(std::lround(t));
    acc[k] += 6000;
    acc[k - 1] -= 1500;
    acc[k + 1] -= 1500;
  }
  for (int i = 0; i < n; ++i) r[i] = static_cast<int16_t>(std::lround(acc[i] + g(rng)));
  return r;
}

// Drives compute_acb frame by frame over a long residual, planning each
// subframe on a copy of the state first so that the plan can be checked.
struct Warper {
  std::unique_ptr<kevrce_instance> enc = std::make_unique<kevrce_instance>();
  std::unique_ptr<kevrce_work> work = std::make_unique<kevrce_work>();
  int16_t m[128] = {};
  int16_t delay = 40;
  int16_t prev_delay = 40;
  int16_t gain = 16384;
  int64_t modified_time = 0;   // absolute index of the subframe's first sample
  double last_read = -1e9;     // residual time of the last modified sample
  double max_step = 0, min_step = 10;
  std::vector<RcelpSegment> last_plan;

  Warper() {
    enc->work = work.get();
    init_encoder(enc.get(), work.get());
  }

  // Codes one frame whose residual buffer is signal[first .. first + 320).
  void frame(const std::vector<int16_t> &signal, size_t first) {
    std::vector<int16_t> buf(signal.begin() + static_cast<long>(first),
                             signal.begin() + static_cast<long>(first) + kResidualLen);
    for (int i = 0; i < 3; ++i) subframe(buf, i, static_cast<double>(first));
    prev_delay = delay;
  }

  void subframe(std::vector<int16_t> &buf, int i, double first) {
    const auto L = static_cast<int16_t>(kEncSubframeLen[i]);
    int32_t contour[3];
    kevrc_interpol_delay(contour, prev_delay, delay, static_cast<int16_t>(i));
    const int16_t *res = &buf[80 + 53 * i];
    const auto avail = static_cast<int16_t>(240 - 53 * i);
    // Plan on a copy, then run the real thing and compare.
    auto copy = std::make_unique<kevrce_instance>(*enc);
    kevrc_get_codebook(&copy->mod_res_hist[128], &copy->mod_res_hist[128], L, contour, 16384, 3);
    int16_t shift = copy->rcelp_shift, carry = copy->rcelp_carry;
    const int16_t shift_in = shift, carry_in = carry;
    RcelpSegment plan[kMaxRcelpSegments];
    const int count = plan_segments(copy.get(), {res, avail, L, gain, contour[1]}, &shift, &carry, plan);
    kevrce_compute_acb(enc.get(), m, contour, res, avail, gain, L);
    ASSERT_EQ(enc->rcelp_shift, shift);
    ASSERT_EQ(enc->rcelp_carry, carry);
    check_plan(plan, count, shift_in, carry_in, shift, carry, L, first + 80 + 53 * i);
    last_plan.assign(plan, plan + count);
    if (enc->rcelp_carry > 0) std::memmove(m, m + L, sizeof(int16_t) * enc->rcelp_carry);
    modified_time += L;
  }

  void check_plan(const RcelpSegment *plan, int count, int16_t shift_in, int16_t carry_in,
                  int16_t shift_out, int16_t carry_out, int L, double res_origin) {
    ASSERT_LE(std::abs(shift_out), kMaxShiftQ8);
    ASSERT_GE(carry_out, 0);
    ASSERT_LE(carry_out, 10);
    ASSERT_GE(count, 1);
    EXPECT_EQ(plan[0].begin, carry_in);
    EXPECT_EQ(plan[0].from, shift_in);
    EXPECT_EQ(plan[count - 1].end, L + carry_out);
    EXPECT_EQ(plan[count - 1].to, shift_out);
    for (int k = 0; k < count; ++k) {
      const RcelpSegment &g = plan[k];
      ASSERT_LT(g.begin, g.end);
      if (k > 0) {
        ASSERT_EQ(g.begin, plan[k - 1].end);
        ASSERT_EQ(g.from, plan[k - 1].to);
      }
      for (int n = g.begin; n < g.end; ++n) {
        const int32_t s = ramp_shift(g.from, g.to, n - g.begin, g.ramp);
        ASSERT_LE(std::abs(s), kMaxShiftQ8);
        // Residual time of modified sample n: it must advance by 0.5 to 1.5
        // samples from the previous one, across segments and subframes.
        const double t = res_origin + n - s / 256.0;
        if (last_read > -1e8) {
          const double step = t - last_read;
          max_step = std::max(max_step, step);
          min_step = std::min(min_step, step);
          ASSERT_GT(step, 0.49) << "residual read backwards or repeated at " << n;
          ASSERT_LT(step, 1.51) << "residual samples skipped at " << n;
        }
        last_read = t;
      }
    }
  }
};

TEST(ResidualModification, FollowsAPitchSlowerThanTheDelay) {
  // True period 40.3 against a transmitted 40: each period the pulses come
  // 0.3 samples later than predicted, so the modified residual must read
  // ever later residual (the shift falls by about 0.3 samples per period).
  const auto signal = pulse_train(40.3, 160 * 40 + 320, 7);
  Warper w;
  for (int f = 0; f < 20; ++f) w.frame(signal, 160 * f);
  const double expected = -(20 * 160) / 40.3 * 0.3;  // samples
  EXPECT_NEAR(w.enc->rcelp_shift / 256.0, expected, 4.0);
  EXPECT_GT(w.min_step, 0.49);
  EXPECT_LT(w.max_step, 1.51);
}

TEST(ResidualModification, FollowsAPitchFasterThanTheDelay) {
  const auto signal = pulse_train(39.75, 160 * 40 + 320, 8);
  Warper w;
  for (int f = 0; f < 20; ++f) w.frame(signal, 160 * f);
  EXPECT_NEAR(w.enc->rcelp_shift / 256.0, (20 * 160) / 39.75 * 0.25, 4.0);
}

TEST(ResidualModification, ModifiedResidualMatchesItsPrediction) {
  // Once locked, the warped residual correlates with the delayed copy the
  // adaptive codebook predicts far better than the unwarped one does.
  const auto signal = pulse_train(40.4, 160 * 30 + 320, 9);
  Warper w;
  double warped = 0, plain = 0;
  for (int f = 0; f < 30; ++f) {
    std::vector<int16_t> buf(signal.begin() + 160 * f, signal.begin() + 160 * f + 320);
    for (int i = 0; i < 3; ++i) {
      const int L = kEncSubframeLen[i];
      int32_t contour[3];
      kevrc_interpol_delay(contour, 40, 40, static_cast<int16_t>(i));
      int16_t pred[64];
      std::memcpy(pred, &w.enc->mod_res_hist[128 - 40], sizeof pred);  // history 40 back
      w.subframe(buf, i, 160.0 * f);
      if (f < 10) continue;
      auto corr = [&](const int16_t *x) {
        double xy = 0, xx = 0, yy = 0;
        for (int n = 0; n < L - 40 && n < 13; ++n) {  // the part the history covers
          xy += x[n] * pred[n];
          xx += x[n] * x[n];
          yy += pred[n] * pred[n];
        }
        return xx > 0 && yy > 0 ? xy / std::sqrt(xx * yy) : 0.0;
      };
      warped += corr(&w.enc->mod_res_hist[128 - L]);
      plain += corr(&buf[80 + 53 * i]);
    }
  }
  EXPECT_GT(warped, plain + 1.0) << warped << " vs " << plain;
}

TEST(ResidualModification, FlatStretchesKeepTheShift) {
  std::vector<int16_t> flat(160 * 4 + 320);
  for (size_t i = 0; i < flat.size(); ++i) flat[i] = (i & 1) ? 900 : -900;
  Warper w;
  w.enc->rcelp_shift = 1234;
  for (int f = 0; f < 4; ++f) w.frame(flat, 160 * f);
  EXPECT_EQ(w.enc->rcelp_shift, 1234);
}

TEST(ResidualModification, LowGainCutsTheSearchAwayFromZero) {
  // The residual's pulses lag the prediction by 3 samples every period, and
  // the shift already stands at 16 samples: with B = 0.15 one segment may
  // only move it one sample further; with B = 0.5 it may move three.
  for (int16_t gain : {4915, 16384}) {
    const auto signal = pulse_train(43.0, 640, 11, 50.0);
    Warper w;
    w.gain = gain;
    w.frame(signal, 0);  // lock onto the pulses
    w.enc->rcelp_shift = 16 * 256;
    w.enc->rcelp_pulse = kNoPulse;
    int16_t before = w.enc->rcelp_shift;
    std::vector<int16_t> buf(signal.begin() + 160, signal.begin() + 480);
    w.last_read = -1e9;
    w.subframe(buf, 0, 160);
    int most = 0;
    for (const RcelpSegment &g : w.last_plan) most = std::max(most, g.to - g.from);
    if (gain == 4915) {
      EXPECT_LE(most, 256) << "moved " << most / 256.0 << " samples";
    } else {
      EXPECT_LE(most, 3 * 256);
    }
    EXPECT_GE(w.enc->rcelp_shift, before - 3 * 256);
  }
}

}  // namespace
}  // namespace kevrc
