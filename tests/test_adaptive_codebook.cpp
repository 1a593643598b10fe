// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Adaptive codebook: fractional-delay interpolation and the contour builder.
#include <cstring>

#include "common/adaptive_codebook.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

constexpr int32_t Q24(int samples) { return samples << 24; }

TEST(AdaptiveCodebook, IntegerDelayUsesTheZeroPhaseRow) {
  std::vector<int16_t> buf(300, 0);
  int16_t *x = &buf[150];
  x[-40] = 10000;  // an isolated impulse 40 samples back
  int16_t out;
  kevrc_bilinear_intrpol(x, Q24(40), 29491, 8, &out);
  EXPECT_EQ(out, 9000);  // 0.9 * 10000: the centre tap is the cutoff
  kevrc_bilinear_intrpol(x, Q24(40), 16384, 3, &out);
  EXPECT_EQ(out, 5000);  // the 7-tap table's centre tap is 0.5
  kevrc_bilinear_intrpol(x + 1, Q24(41), 29491, 8, &out);
  EXPECT_EQ(out, 9000);
}

TEST(AdaptiveCodebook, HalfSampleDelayRoundsUpThenUsesRowZero) {
  std::vector<int16_t> buf(300);
  testing::Rng rng(testing::test_seed("HalfSampleDelay"));
  for (auto &s : buf) s = static_cast<int16_t>(static_cast<int>(rng.below(20001)) - 10000);
  const int16_t *x = &buf[150];
  for (int n = 20; n <= 120; n += 10) {
    int16_t out;
    kevrc_bilinear_intrpol(x, Q24(n) + (1 << 23), 29491, 8, &out);
    int32_t acc = 0;
    for (int k = 0; k < 17; ++k) acc += 2 * tbl_ham_win1[k] * x[k - n - 8];
    EXPECT_EQ(out, static_cast<int16_t>((acc + 0x8000) >> 16)) << n;
  }
}

TEST(AdaptiveCodebook, EveryDelayReadsOnlyItsTaps) {
  // The phase stays within the eight table rows for any delay, including the
  // extremes of the 32-bit range; the buffer has exactly the room the taps need.
  std::vector<int16_t> buf(2 * 140 + 1, 1);
  const int16_t *x = &buf[140];
  int16_t out;
  for (int64_t d = 0; d < Q24(128); d += 1 << 13) {
    kevrc_bilinear_intrpol(x, static_cast<int32_t>(d), 29491, 8, &out);
    kevrc_bilinear_intrpol(x, static_cast<int32_t>(-d), 16384, 3, &out);
  }
  kevrc_bilinear_intrpol(x, INT32_MAX, 29491, 8, &out);
  kevrc_bilinear_intrpol(x, INT32_MIN, 29491, 8, &out);
  // A half-length beyond the table is limited to the table.
  kevrc_bilinear_intrpol(x, Q24(40), 16384, 100, &out);
  EXPECT_EQ(out, 1);  // the 7 taps sum to 32758/32768: a constant passes
}

// Both tables at delays inside and outside 8..127 samples (the runs' one-step
// position), one with a fraction that takes phase 8 (the next row down), and
// a half-length below the table's.
struct DelayCase {
  int16_t cutoff, n_half;
  int32_t contour;
};
constexpr DelayCase kDelayCases[] = {
    {29491, 8, (37 << 16) + 12345}, {16384, 3, (37 << 16) + 12345}, {16384, 3, (37 << 16) + 34734},
    {29491, 8, (37 << 16) + 34734}, {16384, 3, 8 << 16},            {29491, 8, 120 << 16},
    {16384, 3, (7 << 16) + 40000},  {29491, 2, 40 << 16},
};

TEST(AdaptiveCodebook, ConstantContourGivesAConstantDelay) {
  std::vector<int16_t> buf(128 + 64, 0);
  testing::Rng rng(testing::test_seed("ConstantContour"));
  for (int i = 0; i < 128; ++i) buf[i] = static_cast<int16_t>(static_cast<int>(rng.below(16001)) - 8000);
  for (const DelayCase &c : kDelayCases) {
    const int32_t contour[3] = {c.contour, c.contour, c.contour};
    int16_t out[64];
    kevrc_get_codebook(out, &buf[128], 53, contour, c.cutoff, c.n_half);
    for (int i = 0; i < 63; ++i) {
      int16_t want;
      kevrc_bilinear_intrpol(&buf[128 + i], contour[0] << 8, c.cutoff, c.n_half, &want);
      EXPECT_EQ(out[i], want) << i << " " << c.contour;
    }
  }
}

// The residual modification's stretches at one delay are the samples one by one.
TEST(AdaptiveCodebook, FixedDelayStretchIsTheSampleByOne) {
  std::vector<int16_t> buf(400);  // x at 200: 120 samples of delay either way, 60 samples, 9 taps
  testing::Rng rng(testing::test_seed("FixedDelayStretch"));
  for (auto &s : buf) s = rng.below(4) == 0 ? -32768 : static_cast<int16_t>(static_cast<int>(rng.below(65536)) - 32768);
  for (const DelayCase &c : kDelayCases) {
    for (const int32_t shift : {c.contour << 8, -(c.contour << 8)}) {
      int16_t out[60];
      interpolate_fixed(&buf[200], shift, c.cutoff, c.n_half, 60, out);
      for (int m = 0; m < 60; ++m) {
        int16_t want;
        kevrc_bilinear_intrpol(&buf[200 + m], shift, c.cutoff, c.n_half, &want);
        ASSERT_EQ(out[m], want) << m << " " << shift;
      }
    }
  }
}

TEST(AdaptiveCodebook, StepDependsOnlyOnWhetherTheSubframeHas53Samples) {
  std::vector<int16_t> buf(128 + 80, 0);
  for (int i = 0; i < 128; ++i) buf[i] = static_cast<int16_t>((i * 7919) % 20001 - 10000);
  const int32_t contour[3] = {40 << 16, 60 << 16, 70 << 16};
  int16_t a[64], b[80], c[64];
  kevrc_get_codebook(a, &buf[128], 54, contour, 29491, 8);
  kevrc_get_codebook(b, &buf[128], 60, contour, 29491, 8);
  kevrc_get_codebook(c, &buf[128], 53, contour, 29491, 8);
  EXPECT_EQ(0, std::memcmp(a, b, 54 * sizeof(int16_t)));  // same 32/54 step
  EXPECT_NE(0, std::memcmp(a, c, 53 * sizeof(int16_t)));
}

TEST(AdaptiveCodebook, ShortDelayRepeatsWhatTheCallProduced) {
  for (const DelayCase &c : kDelayCases) {
    std::vector<int16_t> buf(128 + 64, 0);
    for (int i = 0; i < 128; ++i) buf[i] = static_cast<int16_t>(((i * 37) % 101) * 100 - 5000);
    const int32_t d = c.contour < (40 << 16) ? c.contour : (21 << 16) + c.contour % 65536;
    const int32_t contour[3] = {d, d, d};
    kevrc_get_codebook(&buf[128], &buf[128], 54, contour, c.cutoff, c.n_half);
    // Every output equals the interpolation of the final buffer at its position:
    // the taps it read were already final when it was produced.
    for (int i = 0; i < 64; ++i) {
      int16_t again;
      kevrc_bilinear_intrpol(&buf[128 + i], d << 8, c.cutoff, c.n_half, &again);
      EXPECT_EQ(buf[128 + i], again) << i << " " << d;
    }
  }
}

TEST(AdaptiveCodebook, DecoderFormScalesTheSubframeOnly) {
  std::vector<int16_t> hist(128 + 64), ref(128 + 64);
  for (int i = 0; i < 128; ++i) hist[i] = static_cast<int16_t>((i * 911) % 12001 - 6000);
  ref = hist;
  const int32_t contour[3] = {50 << 16, 52 << 16, 53 << 16};
  kevrc_get_codebook(&ref[128], &ref[128], 53, contour, 29491, 8);
  std::vector<int16_t> unity = hist;
  kevrcd_acb_excitation(&unity[128], 16384, contour, unity.data(), 53);
  EXPECT_EQ(unity, ref);  // gain 1.0 leaves every sample as built
  std::vector<int16_t> half = hist;
  kevrcd_acb_excitation(&half[128], 8192, contour, half.data(), 53);
  for (int i = 0; i < 53; ++i) EXPECT_EQ(half[128 + i], (ref[128 + i] * 8192 + 8192) >> 14) << i;
  for (int i = 53; i < 63; ++i) EXPECT_EQ(half[128 + i], ref[128 + i]) << i;  // extra samples unscaled
}

}  // namespace
}  // namespace kevrc
