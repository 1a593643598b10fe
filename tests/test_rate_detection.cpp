// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Rate determination: bounds, first frame, hangover, noise and signal
// estimates, SNR indices.
#include <cmath>
#include <memory>
#include <vector>

#include "common/fixed_point.h"
#include "encoder/encoder_state.h"
#include "encoder/rate_detection.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

constexpr int32_t kC0 = -226957676;  // band 0 offset of the unadapted SNR index, Q26
constexpr int32_t kC1 = -294066540;  // band 1
constexpr int16_t kQuiet = 0;        // analysis value: stationary, unvoiced
constexpr int16_t kBusy = 12000;     // above 0.3 (not stationary), not above 0.5 (not voiced)
constexpr int16_t kVoicedA = 20000;  // above 0.5

// A zeroed encoder instance driven one frame at a time, advancing the frame
// counter as the coding loop does.
class RateDecider {
 public:
  RateDecider() : enc_(std::make_unique<kevrce_instance>()), work_(std::make_unique<kevrce_work>()) {
    enc_->work = work_.get();
  }
  int16_t frame(const std::vector<int32_t> &r, int16_t analysis = kQuiet, int32_t max_rate = 4,
                int32_t min_rate = 1) {
    const int16_t rate = kevrce_rate_detection(enc_.get(), r.data(), max_rate, min_rate, analysis);
    ++enc_->frame_count;
    return rate;
  }
  std::vector<int16_t> frames(const std::vector<int32_t> &r, int n, int16_t analysis = kQuiet) {
    std::vector<int16_t> out;
    for (int i = 0; i < n; ++i) out.push_back(frame(r, analysis));
    return out;
  }
  kevrce_rate_state &rd() { return enc_->rd; }

 private:
  std::unique_ptr<kevrce_instance> enc_;
  std::unique_ptr<kevrce_work> work_;
};

// Autocorrelation of white noise: r[0] only. The band energies are then
// E0 = (r0 * 27055 / 32768) / 2 and E1 = (r0 * 31132 / 32768) / 2.
std::vector<int32_t> white(int32_t r0) {
  std::vector<int32_t> r(17, 0);
  r[0] = r0;
  return r;
}
const std::vector<int32_t> kSilence(17, 0);
const std::vector<int32_t> kLoud = white(1000000);  // 8*E0 = 3302296

std::vector<int16_t> seq(std::initializer_list<std::pair<int16_t, int>> runs) {
  std::vector<int16_t> v;
  for (auto [rate, n] : runs) v.insert(v.end(), n, rate);
  return v;
}

// ---------------------------------------------------------------------------
// Bounds and the first frame

TEST(RateDetection, MaxRateOneIsAlwaysEighthAndMinRateFourAlwaysFull) {
  RateDecider eighth, full;
  for (int i = 0; i < 30; ++i) {
    const auto &r = (i / 5) % 2 ? kLoud : kSilence;
    EXPECT_EQ(eighth.frame(r, kQuiet, 1, 1), 1) << i;
    EXPECT_EQ(full.frame(r, kQuiet, 4, 4), 4) << i;
  }
}

TEST(RateDetection, FirstFrameIsCodedAtMaxRateWhateverItsEnergy) {
  struct Case {
    int32_t max_rate, min_rate;
    bool loud;
    int16_t want;
  } cases[] = {
      {4, 1, false, 4}, {3, 1, false, 3}, {3, 1, true, 3}, {1, 1, true, 1},
      {7, 1, false, 4},  // above 4 counts as 4
      {1, 3, false, 3},  // raised to min_rate
  };
  for (const Case &c : cases) {
    RateDecider d;
    const auto &r = c.loud ? kLoud : kSilence;
    EXPECT_EQ(d.frame(r, kQuiet, c.max_rate, c.min_rate), c.want) << c.max_rate << " " << c.min_rate;
    // The smoothed energies start at 8 * E.
    EXPECT_EQ(d.rd().smoothed[0], 8 * d.rd().band_energy[0]);
    EXPECT_EQ(d.rd().smoothed[1], 8 * d.rd().band_energy[1]);
  }
}

TEST(RateDetection, LaterFramesTakeTheSmallerOfMaxRateAndTheDecision) {
  RateDecider d;
  d.frames(kSilence, 5);
  EXPECT_EQ(d.frame(kLoud, kBusy, 3, 1), 3);
  EXPECT_EQ(d.rd().band_rate[0], 4);  // the bands said full rate
  EXPECT_EQ(d.frame(kSilence, kQuiet, 3, 1), 1);  // the last rate was 3, not 4: no half-rate step
}

TEST(RateDetection, EighthDecidedRightAfterFullGoesAtHalf) {
  RateDecider d;
  // Frame 0 is full rate by rule; frame 1 is silent (eighth) after it: half.
  EXPECT_EQ(d.frames(kSilence, 4), seq({{4, 1}, {3, 1}, {1, 2}}));
}

// Near full scale 8*E no longer fits in 32 bits: it saturates, so the
// loudest frames stay loud instead of wrapping negative into "silence".
TEST(RateDetection, EnergiesBeyondThirtyTwoBitsSaturate) {
  RateDecider d;
  d.frames(kSilence, 12);
  const std::vector<int32_t> very_loud = white(1000000000);  // 8*E0 about 3.3e9
  EXPECT_EQ(d.frame(very_loud, kBusy), 4);
  EXPECT_EQ(d.rd().band_rate[0], 4);
  EXPECT_EQ(d.rd().band_rate[1], 4);
}

// ---------------------------------------------------------------------------
// Hangover

TEST(RateDetection, HangoverNeedsARunOfTwoAndEndsOnALoudFrame) {
  // Quiet background noise (8*E0 = 50104: SNR index 2, 8 frames of
  // hangover); the bursts are 1000 times louder.
  RateDecider n;
  const auto background = white(15173), burst = white(15173000);
  std::vector<int16_t> got = n.frames(background, 12);
  ASSERT_EQ(n.rd().snr_index[0], 2);
  EXPECT_EQ(n.rd().noise[0], 8 * n.rd().band_energy[0]);
  // A one-frame burst: the run is below two, no hangover.
  got.push_back(n.frame(burst, kBusy));
  for (int16_t r : n.frames(background, 3)) got.push_back(r);
  EXPECT_EQ(got, seq({{4, 1}, {3, 1}, {1, 10}, {4, 1}, {3, 1}, {1, 2}}));
  // A single loud frame inside a hangover ends it: the run restarts at one,
  // below the two that arm a hangover, so the next quiet frame goes at half rate.
  got = n.frames(burst, 2, kBusy);
  for (int16_t r : n.frames(background, 3)) got.push_back(r);
  got.push_back(n.frame(burst, kBusy));
  for (int16_t r : n.frames(background, 3)) got.push_back(r);
  EXPECT_EQ(got, seq({{4, 2}, {4, 3}, {4, 1}, {3, 1}, {1, 2}}));
  // Two loud frames arm a fresh hangover of the full length.
  got = n.frames(burst, 2, kBusy);
  for (int16_t r : n.frames(background, 11)) got.push_back(r);
  EXPECT_EQ(got, seq({{4, 2}, {4, 8}, {3, 1}, {1, 2}}));
}

TEST(RateDetection, HangoverLengthFollowsTheBandZeroSnrIndex) {
  const int kHangover[8] = {8, 8, 8, 4, 1, 0, 0, 0};
  // Background levels r0 whose 8*E0 sits mid-way in each index's half decade:
  // index i for 8*E0 near 10^(5.95 - (i + 0.5)/2).
  const int32_t levels[8] = {151738, 47984, 15173, 4798, 1517, 479, 151, 47};
  for (int i = 0; i < 8; ++i) {
    RateDecider d;
    d.frames(white(levels[i]), 12);
    ASSERT_EQ(d.rd().snr_index[0], i);
    ASSERT_EQ(d.rd().adapted, 0);
    EXPECT_EQ(d.frames(white(levels[i] * 1000), 3, kBusy), seq({{4, 3}}));
    EXPECT_EQ(d.frames(white(levels[i]), kHangover[i] + 3),
              seq({{4, kHangover[i]}, {3, 1}, {1, 2}}))
        << "index " << i;
  }
}

// ---------------------------------------------------------------------------
// Estimates

TEST(RateDetection, NoiseEstimatesStayWithinTheirClamps) {
  RateDecider d;
  d.frames(kSilence, 3);
  EXPECT_EQ(d.rd().noise[0], 160);
  EXPECT_EQ(d.rd().noise[1], 80);
  // A loud stationary signal (8*E near 1.2e9): the estimates rise by 3 % per
  // frame once nine stationary frames have passed, up to the ceiling.
  const auto loud = white(300000000);
  int32_t prev = d.rd().noise[0];
  for (int i = 0; i < 600; ++i) {
    d.frame(loud);
    ASSERT_TRUE(d.rd().noise[0] <= 80954304 && d.rd().noise[1] <= 80954304) << i;
    ASSERT_GE(d.rd().noise[0], prev);
    // At N near 1e6 the truncation is negligible:
    // max(2 * mul_32_16(N, 16876), N + 1) is about 1.03 N.
    if (i == 300) {
      EXPECT_NEAR(static_cast<double>(d.rd().noise[0]) / prev, 1.03, 0.001);
    }
    prev = d.rd().noise[0];
  }
  EXPECT_EQ(d.rd().noise[0], 80954304);
  EXPECT_EQ(d.rd().noise[1], 80954304);
  // Growth stops while the frames are not stationary.
  RateDecider b;
  b.frames(kSilence, 3);
  b.frames(loud, 30, kBusy);
  EXPECT_EQ(b.rd().noise[0], 160);
  // A small estimate grows by at least one per stationary frame: 2*mul(160, 16876) = 164.
  RateDecider s;
  s.frames(kSilence, 9);  // stationary count reaches 9 on frame 8
  EXPECT_EQ(s.rd().stationary_count, 9);
  s.frame(white(1000));
  EXPECT_EQ(s.rd().noise[0], 164);
}

TEST(RateDetection, SignalEstimateDecaysOnceAdaptedAndFollowsThePeaks) {
  RateDecider d;
  // Voiced frames of silence: the peak estimates keep their start values
  // until the voiced count exceeds 5 (sixth frame), then fall by 31785/32768
  // per voiced frame.
  d.frames(kSilence, 5, kVoicedA);
  EXPECT_EQ(d.rd().adapted, 0);
  EXPECT_EQ(d.rd().signal[0], 51200000);
  EXPECT_EQ(d.rd().signal[1], 5120000);
  d.frame(kSilence, kVoicedA);
  EXPECT_EQ(d.rd().adapted, 1);
  EXPECT_EQ(d.rd().signal[0], mul_32_16(51200000, 31785));  // 49664062
  EXPECT_EQ(d.rd().signal[1], mul_32_16(5120000, 31785));
  // An unvoiced frame resets the count but not the adaptation.
  d.frame(kSilence, kQuiet);
  EXPECT_EQ(d.rd().voiced_count, 0);
  EXPECT_EQ(d.rd().adapted, 1);
  EXPECT_EQ(d.rd().signal[0], mul_32_16(51200000, 31785));
  // A loud frame lifts the estimate to the smoothed energy.
  d.frame(white(200000000), kQuiet);
  EXPECT_EQ(d.rd().signal[0], d.rd().smoothed[0]);
  EXPECT_GT(d.rd().signal[0], 51200000);
}

TEST(RateDetection, AdaptedNoiseCreepsUpOnlyOutsideStationaryGrowth) {
  RateDecider d;
  d.frames(kSilence, 6, kVoicedA);  // adapted on the sixth voiced frame; N0 = 160
  ASSERT_EQ(d.rd().adapted, 1);
  ASSERT_EQ(d.rd().noise[0], 160);
  ASSERT_GT(d.rd().snr_index[0], 3);
  // Not stationary, SNR index above 3, noise below the smoothed energy:
  // N = max(2 * mul_32_16(N, 16474), N + 1); at 160 the product gives
  // 2 * ((80 * 16474) >> 14) = 160, so N + 1 wins.
  d.frame(white(1000), kBusy);
  EXPECT_EQ(d.rd().noise[0], 161);
  d.frame(white(1000), kBusy);
  EXPECT_EQ(d.rd().noise[0], 162);
  // A loud background lifts the estimate, 0.55 % per frame once it is large.
  for (int i = 0; i < 1500; ++i) d.frame(white(100000000), kBusy);
  const int32_t n0 = d.rd().noise[0];
  ASSERT_GT(n0, 100000);
  ASSERT_LT(n0, d.rd().smoothed[0]);
  d.frame(white(100000000), kBusy);
  EXPECT_EQ(d.rd().noise[0], 2 * mul_32_16(n0, 16474));
  // In a stationary stretch only the 3 % growth applies, once per frame.
  for (int i = 0; i < 8; ++i) d.frame(white(100000000), kQuiet);
  const int32_t n1 = d.rd().noise[0];
  d.frame(white(100000000), kQuiet);
  EXPECT_EQ(d.rd().noise[0], std::min(2 * mul_32_16(n1, 16876), d.rd().smoothed[0]));
}

TEST(RateDetection, SmoothedEnergyFollowsSixTenths) {
  RateDecider d;
  d.frame(kLoud);  // S = 8 E = 3302296
  const int32_t e8 = 8 * d.rd().band_energy[0];
  d.frame(kSilence);
  // S = 0 + mul_32_16(3302296, 19661): 0.6 of the previous value.
  EXPECT_EQ(d.rd().smoothed[0], mul_32_16(e8, 19661));
  EXPECT_NEAR(d.rd().smoothed[0], 19661.0 / 32768 * e8, 2);
}

// ---------------------------------------------------------------------------
// SNR ratio and indices

TEST(RateDetection, UnadaptedIndexKeepsTheLowThreeBits) {
  // Noise 16: x = (C0 - log10(16)) >> 25 = 9 (half-decade steps above the
  // band's reference), and the index is 9 & 7 = 1, not 7.
  //   log2(16) = 589824 - 27 * 2^26 = -1811349504 (Q26), log10(16) = mul_32_16(that,
  //   9864) = -545262192; C0 - log10(16) = 318304516, >> 25 = 9.
  EXPECT_EQ(rd_snr_index_unadapted(16, kC0), 1);
  EXPECT_EQ(rd_snr_index_unadapted(50, kC0), 0);  // x = 8
  EXPECT_EQ(rd_snr_index_unadapted(160, kC0), 7);  // the band-0 floor
  EXPECT_EQ(rd_snr_index_unadapted(80, kC1), 6);   // the band-1 floor
  EXPECT_EQ(rd_snr_index_unadapted(80954304, kC0), 0);  // negative x
  EXPECT_EQ(rd_snr_index_unadapted(0, kC0), 7);
  // Half a decade per step: 10^(5.95 - i/2) bounds the index-i band.
  for (int i = 1; i < 8; ++i) {
    const double edge = std::pow(10.0, 5.95 - 0.5 * i);
    EXPECT_EQ(rd_snr_index_unadapted(static_cast<int32_t>(edge * 1.05), kC0), i - 1) << i;
    EXPECT_EQ(rd_snr_index_unadapted(static_cast<int32_t>(edge / 1.05), kC0), i) << i;
  }
}

TEST(RateDetection, AdaptedIndexIsClampedToSeven) {
  EXPECT_EQ(rd_snr_index_adapted(-1000), 0);
  EXPECT_EQ(rd_snr_index_adapted(1), 0);          // a vanishing ratio: negative x
  EXPECT_EQ(rd_snr_index_adapted(8388608), 5);    // ratio 1.0 in Q23: x = 5.5
  EXPECT_EQ(rd_snr_index_adapted(INT32_MAX), 7);  // x = 10, clamped
}

TEST(RateDetection, SnrRatioIsQ23) {
  EXPECT_EQ(rd_snr_ratio_q23(1000, 0), 256000000);
  EXPECT_EQ(rd_snr_ratio_q23(0, 1000), 0);
  EXPECT_EQ(rd_snr_ratio_q23(INT32_MAX, 1000), INT32_MAX);  // ratios of 256 and above saturate
  testing::Rng rng(testing::test_seed("RateDetection.SnrRatioIsQ23"));
  for (int i = 0; i < 2000; ++i) {
    const int32_t noise = static_cast<int32_t>(80 + rng.below(80954304));
    // Ratios from 1/4 to 200, as signal >= noise keeps them in practice.
    const double want = std::exp(std::log(0.25) + std::log(800.0) * rng.below(10001) / 10000.0);
    const double signal_d = std::min(want * noise, 2147483647.0);
    const auto signal = static_cast<int32_t>(signal_d);
    const double exact = static_cast<double>(signal) / noise * 8388608.0;
    const int32_t got = rd_snr_ratio_q23(signal, noise);
    if (exact >= 2147483647.0) {
      ASSERT_EQ(got, INT32_MAX);
    } else {
      // One Newton step on normalised operands: about 2^-14 relative, plus the shift.
      ASSERT_NEAR(got, exact, exact * 1e-4 + 2) << signal << " / " << noise;
    }
  }
  // Equal estimates (the numerator is halved before the division): 1.0.
  EXPECT_NEAR(rd_snr_ratio_q23(5000000, 5000000), 8388608, 8);
}

// ---------------------------------------------------------------------------
// Robustness

}  // namespace
}  // namespace kevrc
