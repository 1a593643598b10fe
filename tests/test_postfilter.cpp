// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Adaptive postfilter: its small kernels exactly, and the behaviour of the
// whole filter on prepared subframes.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "tests/test_util.h"

namespace kevrc {
namespace {

using testing::Decoder;

TEST(Postfilter, WeightingAndTiltKernels) {
  const int16_t lpc[10] = {-8000, 6000, -4000, 3000, -2000, 1000, -500, 250, -125, 60};
  int16_t num[10], den[10];
  kevrcd_apf_weight(kevrcd_tbl_wfac_alpha, kevrcd_tbl_wfac_beta, num, den, lpc);
  EXPECT_EQ(num[0], -4560);  // -8000 * 0.57
  EXPECT_EQ(den[0], -6000);  // -8000 * 0.75
  EXPECT_EQ(num[9], 0);      // 60 * 0.57^10 rounds to 0
  int16_t mem = 1000;
  const int16_t in[4] = {2000, -3000, 32767, -32768};
  int16_t out[4];
  kevrcd_apf_loop(&mem, in, 6554, 4, out);
  EXPECT_EQ(out[0], (2000 * 65536 - 2 * 1000 * 6554 + 0x8000) >> 16);
  EXPECT_EQ(out[1], (-3000 * 65536 - 2 * 2000 * 6554 + 0x8000) >> 16);
  EXPECT_EQ(mem, -32768);
  // In place, the memory takes the value read back after the output was written.
  int16_t buf[2] = {10000, 10000};
  mem = 0;
  kevrcd_apf_loop(&mem, buf, 16384, 2, buf);
  EXPECT_EQ(buf[0], 10000);
  EXPECT_EQ(buf[1], 5000);
  EXPECT_EQ(mem, 5000);
  kevrcd_apf_loop(&mem, buf, 16384, 0, buf);  // n = 0: nothing
  EXPECT_EQ(mem, 5000);
}

// Prepares a decoder's work block with a subframe of speech and its LPC.
void prepare(Decoder &d, int rate, const std::vector<int16_t> &s, const int16_t *lpc) {
  std::memset(&d.work(), 0, sizeof(kevrcd_work));
  d.work().rate = static_cast<int16_t>(rate);
  std::copy(s.begin(), s.end(), d.work().syn);
  std::copy(lpc, lpc + 10, d.work().lpc);
}

std::vector<int16_t> resonance(int n, int period, double amp, double phase = 0) {
  std::vector<int16_t> s(n);
  for (int i = 0; i < n; ++i)
    s[i] = static_cast<int16_t>(amp * std::sin(2 * M_PI * (i + phase) / period) + amp / 3 * std::sin(2 * M_PI * 3 * (i + phase) / period));
  return s;
}

double energy(const int16_t *x, int n) {
  double e = 0;
  for (int i = 0; i < n; ++i) e += static_cast<double>(x[i]) * x[i];
  return e;
}

// Postfilters `count` subframes of a two-harmonic tone through the filter of
// the given LSPs; returns the output over input energy in dB after the first
// three subframes, and the largest sample deviation from the input.
struct ToneResult {
  double gain_db;
  int max_dev;
};

ToneResult filter_tone(int rate, const int16_t *lsp_in, int period, double amp, int32_t delay) {
  Decoder d;
  int16_t lsp[10], lpc[10];
  std::copy(lsp_in, lsp_in + 10, lsp);
  kevrc_lsp2lpc(lsp, lpc);
  double in_e = 0, out_e = 0;
  int max_dev = 0;
  for (int sf = 0; sf < 15; ++sf) {
    const int n = sf % 3 == 2 ? 54 : 53;
    const auto s = resonance(n, period, amp, sf * 53);
    prepare(d, rate, s, lpc);
    kecrcd_apf(d.get(), delay, static_cast<int16_t>(n));
    if (sf < 3) continue;  // let the filter memories settle
    in_e += energy(s.data(), n);
    out_e += energy(d.work().apf_out, n);
    for (int i = 0; i < n; ++i) max_dev = std::max(max_dev, std::abs(d.work().apf_out[i] - s[i]));
  }
  return {10 * std::log10(out_e / in_e), max_dev};
}

TEST(Postfilter, EighthRateOnlyRestoresTheEnergy) {
  // Numerator and denominator cancel, no tilt, no pitch filter: only the gain control acts.
  const ToneResult r = filter_tone(1, kevrc_prev_lsp, 37, 3000, 20 << 16);
  EXPECT_NEAR(r.gain_db, 0.0, 0.5);
  EXPECT_LT(r.max_dev, 0.08 * 4000);
}

TEST(Postfilter, FullRateKeepsTheLevelOfVoicedSpeech) {
  const int16_t lsp[10] = {1200, 2000, 3500, 4700, 6500, 8200, 9800, 11500, 13200, 14800};
  EXPECT_NEAR(filter_tone(4, lsp, 40, 5000, 40 << 16).gain_db, 0.0, 1.5);
  EXPECT_NEAR(filter_tone(3, lsp, 40, 5000, 40 << 16).gain_db, 0.0, 1.5);
}

// A run of -32768 samples: each doubled product of neighbours wraps to
// -2^31, so the tilt sum is negative and the tilt stays off (outputs exact).
TEST(Postfilter, TiltOffWhenDoubledProductsWrap) {
  const struct {
    int rate, n, run_start, run_len;
    int16_t first, second, last;
  } cases[] = {{4, 53, 0, 53, -21485, 23746, -14776},
               {3, 54, 10, 30, 156, 134, 148},
               {4, 53, 20, 33, -2360, -2112, -14108}};
  int16_t lsp[10], lpc[10];
  std::copy(kevrc_prev_lsp, kevrc_prev_lsp + 10, lsp);
  kevrc_lsp2lpc(lsp, lpc);
  for (const auto &c : cases) {
    Decoder d;
    std::vector<int16_t> s(c.n, 3000);
    std::fill_n(s.begin() + c.run_start, c.run_len, int16_t{-32768});
    prepare(d, c.rate, s, lpc);
    kecrcd_apf(d.get(), 40 << 16, static_cast<int16_t>(c.n));
    EXPECT_EQ(d.work().apf_out[0], c.first) << c.run_start;
    EXPECT_EQ(d.work().apf_out[1], c.second) << c.run_start;
    EXPECT_EQ(d.work().apf_out[c.n - 1], c.last) << c.run_start;
  }
}

}  // namespace
}  // namespace kevrc
