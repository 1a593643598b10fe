// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// LPC analysis: tables, autocorrelation and Levinson-Durbin, LPC to LSP, the
// residual filter, the impulse response and the frame analysis as a whole.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "common/fixed_point.h"
#include "encoder/encoder_state.h"
#include "encoder/pre_encode.h"
#include "tests/test_util.h"
#include "tools/support/lsp_sd.h"

namespace kevrc {
namespace {

// A zeroed encoder instance and work block, set up as creation would leave
// them for the analysis.
struct Analysis {
  std::unique_ptr<kevrce_instance> enc = std::make_unique<kevrce_instance>();
  std::unique_ptr<kevrce_work> work = std::make_unique<kevrce_work>();
  Analysis() {
    enc->work = work.get();
    std::memcpy(enc->prev_lsp, kevrc_prev_lsp, sizeof enc->prev_lsp);
    work->prev_eh = 8;
  }
  int16_t run(const std::vector<int16_t> &frame) {
    return kevrce_pre_encode(enc.get(), frame.data());
  }
};

// 160 samples of an AR process 1/A(z) (double coefficients a1..) driven by
// unit Gaussian noise, scaled to the given peak.
std::vector<int16_t> ar_frame(const std::vector<double> &a, double peak, std::mt19937_64 &rng) {
  std::normal_distribution<double> noise;
  std::vector<double> y(400, 0.0);
  for (size_t n = 0; n < y.size(); ++n) {
    double v = noise(rng);
    for (size_t k = 0; k < a.size() && k < n; ++k) v -= a[k] * y[n - 1 - k];
    y[n] = v;
  }
  double m = 0;
  for (size_t n = 240; n < 400; ++n) m = std::max(m, std::abs(y[n]));
  std::vector<int16_t> out(160);
  for (int i = 0; i < 160; ++i) out[i] = static_cast<int16_t>(std::lround(y[240 + i] / m * peak));
  return out;
}

// A(z) coefficients a1.. from reflection coefficients (step-up recursion).
std::vector<double> from_reflection(const std::vector<double> &k) {
  std::vector<double> a;
  for (double ki : k) {
    std::vector<double> next(a.size() + 1);
    for (size_t j = 0; j < a.size(); ++j) next[j] = a[j] + ki * a[a.size() - 1 - j];
    next[a.size()] = ki;
    a = next;
  }
  return a;
}

// Ten ascending LSPs (Q15) with neighbours, 0 and 16384 at least 320 apart;
// with `narrow`, two pairs only 230..289 apart (sharp formants). Drawn again
// until the LPC vector fits Q12 with room (|a_k| < 7.5).
std::array<int16_t, 10> random_lsp(std::mt19937_64 &rng, bool narrow = false) {
  std::uniform_real_distribution<double> u(0.0, 1.0);
  for (;;) {
    double gaps[11], total = 0, pos = 0;
    for (double &g : gaps) total += g = u(rng);
    std::array<int16_t, 10> lsp;
    for (int k = 0; k < 10; ++k) {
      pos += 320 + gaps[k] / total * (16384 - 11 * 320);
      lsp[k] = static_cast<int16_t>(std::lround(pos));
    }
    for (int pair = 0; narrow && pair < 2; ++pair) {
      const int k = 1 + 2 * static_cast<int>(rng() % 5);
      lsp[k] = static_cast<int16_t>(lsp[k - 1] + 230 + rng() % 60);
    }
    double a[11];  // A(z) in double precision
    train::lsp_to_lpc_double(lsp.data(), a);
    if (std::all_of(a + 1, a + 11, [](double c) { return std::abs(c) < 7.5; })) return lsp;
  }
}

// ---------------------------------------------------------------------------

TEST(LpcAnalysis, SilentAndSingleSampleFramesExactly) {
  Analysis a;
  std::memset(a.work->residual_mem, 0x55, sizeof a.work->residual_mem);
  std::memset(a.work->lpc, 0x55, sizeof a.work->lpc);
  // Energy 0: n0 = norm_32(0) = 0, e = 1, so the shift is (0 + 3) - 0; the
  // LPC and the residual memory are cleared.
  EXPECT_EQ(kevrce_calculate_lpc(a.work.get()), 3);
  for (int k = 0; k <= 16; ++k) EXPECT_EQ(a.work->r[k], 0);
  for (int k = 0; k < 10; ++k) {
    EXPECT_EQ(a.work->lpc[k], 0);
    EXPECT_EQ(a.work->residual_mem[k], 0);
  }
  a.work->speech[160 + 80] = 1000;
  EXPECT_EQ(kevrce_calculate_lpc(a.work.get()), 13);
  // x[80] = (2 * 32767 * 1000 + 0x8000) >> 16 = 1000; 2 x^2 >> 1 = 1000000, e = 1.
  // 2 * sum = 2000000, n0 = 10: 2048000000 = 0x7A120000 (ah 31250, al 0).
  // 0x40007DD4: bh 16384, bl 16106. mul_32_32 = 2*31250*16384 + (31250*16106 >> 14)
  //   = 1024000000 + 30719. Shift (10 + 3) - (1 - 1) = 13.
  EXPECT_EQ(a.work->windowed[80], 1000);
  EXPECT_EQ(a.work->r[0], 1024030719);
  for (int k = 1; k <= 16; ++k) EXPECT_EQ(a.work->r[k], 0);
  for (int k = 0; k < 10; ++k) EXPECT_EQ(a.work->lpc[k], 0);  // no correlation, no prediction
}

// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------

TEST(Residu, ClampsAfterEachTapButWrapsTheLast) {
  // x = 100, a10 = +8 (32767) and a9 = -8 (-32767) against past inputs of 32767:
  // 819200 + 2147352578 clamps to 2147483647, minus 2147352578 leaves 131069,
  // so out = (8 * 131069 + 0x8000) >> 16 = 16 (the exact sum 819200 gives 100).
  int16_t lpc[10] = {0, 0, 0, 0, 0, 0, 0, 0, -32767, 32767};
  int16_t mem[10] = {0, 0, 0, 0, 0, 0, 0, 0, 32767, 32767};
  const int16_t in = 100;
  int16_t out;
  kevrce_residu(&in, lpc, mem, 1, &out);
  EXPECT_EQ(out, 16);
  EXPECT_EQ(mem[0], 100);  // the memory shifts in the input
  EXPECT_EQ(mem[9], 32767);
  // The clamped sum 2147483647 plus the wrapping last tap 2 * 32767 * 32767:
  // 4294836225 - 2^32 = -131071, out = (-1048568 + 0x8000) >> 16 = -16.
  int16_t lpc2[10] = {32767, 0, 0, 0, 0, 0, 0, 0, 0, 32767};
  int16_t mem2[10] = {32767, 0, 0, 0, 0, 0, 0, 0, 0, 32767};
  kevrce_residu(&in, lpc2, mem2, 1, &out);
  EXPECT_EQ(out, -16);
}

// ---------------------------------------------------------------------------

TEST(ImpRes, SaturatesInsteadOfWrapping) {
  // a1..a10 = -8: h[1] = 32768 * 2048 / 4096 = 16384, h[2] = 32768 * 18432 / 4096
  // = 147456 -> 32767, and every later sum is larger still.
  int16_t lpc[10], h[54];
  std::fill(lpc, lpc + 10, int16_t{-32768});
  kevrce_imp_res(lpc, h);
  EXPECT_EQ(h[1], 16384);
  for (int i = 2; i < 54; ++i) EXPECT_EQ(h[i], 32767) << i;
}

// ---------------------------------------------------------------------------

TEST(PreEncode, SilentFrame) {
  Analysis a;
  EXPECT_EQ(a.run(std::vector<int16_t>(160, 0)), 0);
  const kevrce_work &w = *a.work;
  for (int k = 0; k < 10; ++k) EXPECT_EQ(w.lpc[k], 0);
  for (int i = 0; i < 320; ++i) ASSERT_EQ(w.residual[i], 0);  // A(z) = 1: residual = speech
  EXPECT_EQ(w.h[0], 2048);
  // Eh = ((2048^2 >> 3) + 0x8000) >> 16 = (524288 + 32768) >> 16 = 8.
  EXPECT_EQ(w.prev_eh, 8);
  EXPECT_EQ(w.onset, 0);
  // A(z) = 1: the roots of 1 +- z^-11 lie at multiples of pi/11.
  for (int k = 0; k < 10; ++k) EXPECT_NEAR(w.lsp[k], (k + 1) * 16384.0 / 11, 14) << k;
  EXPECT_EQ(w.ol_delay, 20);  // all correlations 0: the first lag wins
  EXPECT_EQ(w.ol_gain, 0);
  EXPECT_EQ(0, std::memcmp(a.enc->prev_lsp, kevrc_prev_lsp, sizeof a.enc->prev_lsp));
}

TEST(PreEncode, ResidualUsesPerSegmentFilters) {
  // speech[0..79] with the previous LSPs, the three subframes with LSPs
  // interpolated 1/6, 1/2, 5/6 of the way, speech[240..319] with the expanded
  // LPC; one filter memory throughout. Checked with the wrapping inverse
  // filter, which agrees at these levels.
  std::mt19937_64 rng(testing::test_seed("ResidualUsesPerSegmentFilters"));
  Analysis a;
  const std::array<int16_t, 10> prev = random_lsp(rng);
  std::copy(prev.begin(), prev.end(), a.enc->prev_lsp);
  const std::vector<int16_t> f1 = ar_frame(from_reflection({0.5, -0.4, 0.2}), 6000, rng);
  const std::vector<int16_t> f2 = ar_frame(from_reflection({-0.6, 0.3}), 6000, rng);
  a.run(f1);
  a.run(f2);
  const kevrce_work &w = *a.work;
  EXPECT_TRUE(std::equal(f1.begin(), f1.end(), w.speech));  // the previous frame, then this one
  EXPECT_TRUE(std::equal(f2.begin(), f2.end(), w.speech + 160));
  int16_t expected[320], mem[10] = {}, lpc[10], lsp[10];
  std::copy(prev.begin(), prev.end(), lsp);
  kevrc_lsp2lpc(lsp, lpc);
  kevrc_fir(w.speech, lpc, mem, 80, expected);
  const int start[4] = {80, 133, 186, 240};
  for (int s = 0; s < 3; ++s) {
    kevrc_interpol(lsp, prev.data(), w.lsp, static_cast<int16_t>(s));
    kevrc_lsp2lpc(lsp, lpc);
    kevrc_fir(&w.speech[start[s]], lpc, mem, static_cast<int16_t>(start[s + 1] - start[s]),
              &expected[start[s]]);
  }
  kevrc_fir(&w.speech[240], w.lpc, mem, 80, &expected[240]);
  for (int i = 0; i < 320; ++i) ASSERT_EQ(w.residual[i], expected[i]) << i;
  EXPECT_EQ(0, std::memcmp(mem, w.residual_mem, sizeof mem));
}

TEST(PreEncode, BandwidthExpansionBeforeTheLsps) {
  std::mt19937_64 rng(testing::test_seed("BandwidthExpansion"));
  const std::vector<int16_t> frame = ar_frame(from_reflection({0.9, -0.6, 0.4, -0.2}), 12000, rng);
  Analysis a;
  std::copy(frame.begin(), frame.end(), a.work->speech + 160);
  kevrce_calculate_lpc(a.work.get());
  int16_t raw[10];
  std::memcpy(raw, a.work->lpc, sizeof raw);
  Analysis b;
  b.run(frame);
  // Rounding of the product and of 0.994^k in Q15 (half a unit times |a| < 8).
  for (int k = 0; k < 10; ++k)
    EXPECT_NEAR(b.work->lpc[k], raw[k] * std::pow(0.994, k + 1), 1.0) << k;
  int16_t lsp[10];  // the LSPs are those of the expanded LPC
  kevrce_lpc2lsp(b.work->lpc, lsp);
  EXPECT_EQ(0, std::memcmp(lsp, b.work->lsp, sizeof lsp));
}

TEST(PreEncode, OnsetFlagAboveTenTimesThePreviousEnergy) {
  // AR(1) frames of rising correlation rho have rising response energies Eh
  // (about 8 / (1 - rho^2)). With a previous Eh of m, an Eh of 10 m + 1 sets
  // the flag and one of exactly 10 m does not.
  std::mt19937_64 rng(testing::test_seed("OnsetFlag"));
  std::normal_distribution<double> noise;
  std::vector<double> e(400);
  for (double &v : e) v = noise(rng);
  bool seen[2] = {false, false};
  for (double rho = 0.9; rho < 0.995 && !(seen[0] && seen[1]); rho += 0.0002) {
    std::vector<int16_t> frame(160);
    double y = 0;
    for (int n = 0; n < 400; ++n) {
      y = rho * y + e[n];
      if (n >= 240) frame[n - 240] = sat16_64(std::llround(y * 300));
    }
    Analysis probe;
    probe.run(frame);
    const int16_t eh = probe.work->prev_eh, rem = eh % 10;
    if (eh < 20 || rem > 1 || seen[rem]) continue;
    seen[rem] = true;
    Analysis a;
    a.work->prev_eh = static_cast<int16_t>(eh / 10);
    a.run(frame);
    EXPECT_EQ(a.work->prev_eh, eh);
    EXPECT_EQ(a.work->onset, rem) << "Eh " << eh;
  }
  EXPECT_TRUE(seen[0] && seen[1]);
  // A silent frame has Eh = 8. Ten subtractions of -32768 saturate at 32767
  // (a flag) rather than wrapping; ten of 32767 saturate at -32768 (no flag).
  Analysis a;
  const std::vector<int16_t> silence(160, 0);
  a.work->prev_eh = -32768;
  a.run(silence);
  EXPECT_EQ(a.work->onset, 1);
  a.work->prev_eh = 32767;
  a.run(silence);
  EXPECT_EQ(a.work->onset, 0);
}

TEST(PreEncode, MergeOfTheTwoPitchEstimates) {
  const int16_t cases[][6] = {
      // d1, b1, d2, b2 -> d, b
      {40, 20000, 50, 6000, 45, 13000},   // 20000 - 13107 > 6000, |50 - 40| <= 15: averages
      {40, 20000, 60, 6000, 40, 20000},   // delays 20 apart: the first alone
      {40, 20000, 60, 6893, 60, 6893},    // 20000 - 13107 <= 6893: the second
      {100, 32767, 85, 19000, 92, 16383}  // the gain sum saturates before halving
  };
  for (const auto &c : cases) {
    int16_t d, b;
    merge_open_loop_pitch(c[0], c[1], c[2], c[3], &d, &b);
    EXPECT_EQ(d, c[4]) << c[0] << " " << c[2];
    EXPECT_EQ(b, c[5]) << c[0] << " " << c[2];
  }
}

}  // namespace
}  // namespace kevrc
