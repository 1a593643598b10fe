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

constexpr double kPi = 3.14159265358979323846;

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

// Levinson-Durbin in double precision: a1..a10 of the optimal A(z), except
// that, as in the codec, orders after the error has fallen below r[0]/1024
// (30 dB of prediction gain) get a zero reflection coefficient.
std::array<double, 10> reference_lpc(const std::vector<double> &r) {
  std::array<double, 11> a{1.0};
  double err = r[0];
  for (int i = 1; i <= 10 && err >= r[0] / 1024; ++i) {
    double acc = r[i];
    for (int j = 1; j < i; ++j) acc += a[j] * r[i - j];
    const double k = -acc / err;
    std::array<double, 11> next = a;
    for (int j = 1; j < i; ++j) next[j] = a[j] + k * a[i - j];
    next[i] = k;
    a = next;
    err *= 1 - k * k;
  }
  std::array<double, 10> out;
  std::copy(a.begin() + 1, a.end(), out.begin());
  return out;
}

// LSPs of a Q12 LPC vector in double precision, in Q15 units. On the unit
// circle e^(j5.5w) A(e^jw) = G(w); the sum polynomial vanishes where Re G = 0
// and the difference polynomial where Im G = 0 (excluding w = 0 and pi, the
// divided-out roots). Roots are bracketed on a fine grid and bisected.
std::vector<double> reference_lsp(const int16_t *lpc) {
  double a[11] = {1.0};
  for (int k = 1; k <= 10; ++k) a[k] = lpc[k - 1] / 4096.0;
  auto f = [&](int part, double w) {  // Re G or Im G, G(w) = sum a_k e^(j(5.5 - k)w)
    double v = 0;
    for (int k = 0; k <= 10; ++k)
      v += a[k] * (part ? std::sin((5.5 - k) * w) : std::cos((5.5 - k) * w));
    return v;
  };
  std::vector<double> roots;
  const int n = 4096;  // 4 Q15 units, far below the spacing of the test vectors
  for (int part = 0; part < 2; ++part) {
    double w0 = 1e-9, f0 = f(part, w0);
    for (int i = 1; i <= n; ++i) {
      const double w1 = kPi * i / n - 1e-9, f1 = f(part, w1);
      if ((f0 < 0) != (f1 < 0)) {
        double lo = w0, hi = w1;
        for (int it = 0; it < 50; ++it) {
          const double mid = 0.5 * (lo + hi);
          ((f(part, mid) < 0) == (f0 < 0) ? lo : hi) = mid;
        }
        roots.push_back(0.5 * (lo + hi) / kPi * 16384.0);
      }
      w0 = w1;
      f0 = f1;
    }
  }
  std::sort(roots.begin(), roots.end());
  return roots;
}

std::array<int16_t, 10> lpc_of(std::array<int16_t, 10> lsp) {
  std::array<int16_t, 10> lpc;
  kevrc_lsp2lpc(lsp.data(), lpc.data());  // takes a copy: it repairs its argument
  return lpc;
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

TEST(LpcAnalysisTables, WindowsFollowTheirFormulas) {
  // The Hamming window rounded to Q15 and clamped (32767 at i = 80); the
  // stated lag window follows 2^30 exp(-c k^2), c = 1.2337063e-4, within a unit.
  for (int i = 0; i < 160; ++i) {
    const double w = 0.54 - 0.46 * std::cos(2 * kPi * i / 160);
    EXPECT_EQ(kevrce_tbl_analysis_window[i], std::min(32767.0, std::floor(32768 * w + 0.5))) << i;
  }
  for (int k = 1; k <= 16; ++k)
    EXPECT_NEAR(kevrce_tbl_lag_window[k - 1], std::ldexp(std::exp(-1.2337063e-4 * k * k), 30), 1.0)
        << k;
}

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

TEST(LpcAnalysis, AutocorrelationOnTheCommonScale) {
  std::mt19937_64 rng(testing::test_seed("AutocorrelationOnTheCommonScale"));
  for (double peak : {3.0, 40.0, 700.0, 5000.0, 12000.0, 20000.0, 32767.0}) {
    Analysis a;
    a.run(ar_frame(from_reflection({0.7, -0.3}), peak, rng));
    // Model: r[k] = sum x[i] x[i+k] / 8 with x the windowed frame, times
    // 1.00003 at lag 0 and the Gaussian lag window elsewhere.
    const int16_t *x = a.work->windowed;
    for (int k = 0; k <= 16; ++k) {
      double r = 0;
      for (int i = 0; i + k < 160; ++i) r += double(x[i]) * x[i + k];
      r = r / 8 * (k == 0 ? 1.00003 : std::exp(-1.2337063e-4 * k * k));
      if (std::abs(r) >= 2147483647.0) {  // very loud frames saturate on this scale
        EXPECT_EQ(a.work->r[k], r > 0 ? INT32_MAX : INT32_MIN) << peak << " lag " << k;
      } else {
        EXPECT_NEAR(a.work->r[k], r, 2e-5 * a.work->r[0] + 4) << peak << " lag " << k;
      }
    }
  }
}

TEST(LpcAnalysis, LevinsonMatchesDoublePrecisionOnArSignals) {
  // AR(2) and AR(10) processes with reflection coefficients within +-0.85, at
  // two levels: double-precision Levinson-Durbin on the frame's own r[0..10]
  // agrees to 16 Q12 units. The prediction sum is built from Q28 products,
  // so late orders, where r[i+1] - S is small, get reflection coefficients
  // off by up to about 3e-4; coefficients near 4 turn that into up to 10 Q12
  // units (typically below one).
  std::mt19937_64 rng(testing::test_seed("LevinsonMatchesDoublePrecision"));
  std::uniform_real_distribution<double> refl(-0.85, 0.85);
  for (int trial = 0; trial < 200; ++trial) {
    std::vector<double> k(trial % 3 == 0 ? 2 : 10);
    for (double &v : k) v = refl(rng);
    const std::vector<int16_t> frame = ar_frame(from_reflection(k), trial % 2 ? 16000 : 900, rng);
    Analysis a;
    std::copy(frame.begin(), frame.end(), a.work->speech + 160);
    kevrce_calculate_lpc(a.work.get());
    const std::array<double, 10> same_r =
        reference_lpc(std::vector<double>(a.work->r, a.work->r + 11));
    for (int j = 0; j < 10; ++j)
      ASSERT_NEAR(a.work->lpc[j], 4096 * same_r[j], 16.0) << "trial " << trial << " a" << j + 1;
  }
}

// ---------------------------------------------------------------------------

TEST(LpcToLsp, RootsMatchDoublePrecision) {
  // The search ends on a grid of 1/8 of 0.00635 of the sampling rate (26 Q15
  // units) and takes the end with the smaller magnitude, so a root is off by
  // about half of that plus the cosine interpolation error: 16 units at most.
  // Half the vectors pair some LSPs closely (sharp formants, coefficients of
  // several units, where the evaluation scales down).
  std::mt19937_64 rng(testing::test_seed("LspRootsMatchDoublePrecision"));
  for (int trial = 0; trial < 300; ++trial) {
    const std::array<int16_t, 10> lpc = lpc_of(random_lsp(rng, trial % 2));
    const std::vector<double> ref = reference_lsp(lpc.data());
    ASSERT_EQ(ref.size(), 10u);
    int16_t out[10];
    kevrce_lpc2lsp(lpc.data(), out);
    for (int k = 0; k < 10; ++k)
      ASSERT_NEAR(out[k], ref[k], 16) << "trial " << trial << " lsp " << k;
  }
}

TEST(LpcToLsp, AnyCoefficientsStayInRange) {
  std::mt19937_64 rng(testing::test_seed("LspAnyCoefficients"));
  std::uniform_int_distribution<int> any(-32768, 32767);
  for (int trial = 0; trial < 2000; ++trial) {
    int16_t lpc[10], lsp[10];
    for (int16_t &c : lpc) {
      const int v = any(rng);
      const int choices[4] = {v, v % 4096, trial & 8 ? -32768 : 32767, v & 1 ? -32768 : 32767};
      c = static_cast<int16_t>(choices[trial % 4]);
    }
    kevrce_lpc2lsp(lpc, lsp);
    for (int k = 0; k < 10; ++k) ASSERT_TRUE(lsp[k] >= 0 && lsp[k] <= 16384) << trial;
  }
}

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

TEST(ImpRes, MatchesSynthesisFilterAndDoubleModel) {
  // Filters whose response stays clear of saturation (checked on the double
  // model). There the result equals kevrc_iir driven by an impulse (the same
  // rounding, half up, to the last unit of the tail), and each output's
  // rounding (at most half a unit) propagates through the response, so
  // |h[i] - y[i]| <= 0.5 * sum over m <= i of |y[m]| / 2048.
  std::mt19937_64 rng(testing::test_seed("ImpulseResponseMatches"));
  int tested = 0;
  while (tested < 100) {
    const std::array<int16_t, 10> lpc = lpc_of(random_lsp(rng));
    double y[54], bound[54], sum = 0, peak = 0;
    for (int i = 0; i < 54; ++i) {
      y[i] = i == 0 ? 2048.0 : 0.0;
      for (int k = 1; k <= 10 && k <= i; ++k) y[i] -= lpc[k - 1] / 4096.0 * y[i - k];
      sum += std::abs(y[i]);
      bound[i] = 0.5 * sum / 2048 + 0.5;
      peak = std::max(peak, std::abs(y[i]));
    }
    if (peak > 30000) continue;
    ++tested;
    int16_t h[54], syn[54], mem[10] = {}, impulse[54] = {2048};
    kevrce_imp_res(lpc.data(), h);
    kevrc_iir(impulse, lpc.data(), mem, 54, syn);
    for (int i = 0; i < 54; ++i) {
      ASSERT_EQ(h[i], syn[i]) << "filter " << tested << " sample " << i;
      ASSERT_NEAR(h[i], y[i], bound[i]) << "filter " << tested << " sample " << i;
    }
  }
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

TEST(PreEncode, UnusualInputsStayInRange) {
  std::mt19937_64 rng(testing::test_seed("PreEncodeUnusualInputs"));
  std::uniform_int_distribution<int> any(-32768, 32767);
  // Sample n of frame f for each kind of input.
  const std::function<int(int, int)> kinds[] = {
      [&](int, int) { return any(rng); },                                           // noise
      [](int f, int n) { return (n / (7 + f % 50)) % 2 ? 32767 : -32768; },         // square
      [](int, int) { return 32767; },                                               // dc+
      [](int, int) { return -32768; },                                              // dc-
      [](int, int) { return 0; },                                                   // silence
      [](int f, int n) { return n % (20 + f) == 0 ? 32767 : 0; },                   // impulses
      [](int, int n) { return n % 2 ? 32767 : -32768; },                            // alternating
      [&](int f, int n) { return f % 3 == 0 ? any(rng) : f % 3 == 1 ? 0 : (n % 3 - 1) * 32767; },
  };
  for (int kind = 0; kind < 8; ++kind) {
    Analysis a;
    for (int f = 0; f < 60; ++f) {
      std::vector<int16_t> frame(160);
      for (int i = 0; i < 160; ++i) frame[i] = static_cast<int16_t>(kinds[kind](f, f * 160 + i));
      const int16_t gain = a.run(frame);
      const kevrce_work &w = *a.work;
      for (int k = 0; k < 10; ++k)
        ASSERT_TRUE(w.lsp[k] >= 0 && w.lsp[k] <= 16384) << "kind " << kind << " frame " << f;
      ASSERT_TRUE(w.ol_delay >= 20 && w.ol_delay <= 120) << "kind " << kind << " frame " << f;
      ASSERT_TRUE(gain >= 0 && gain == w.ol_gain && (w.onset == 0 || w.onset == 1)) << kind;
      std::memcpy(a.enc->prev_lsp, w.lsp, sizeof a.enc->prev_lsp);
    }
  }
}

}  // namespace
}  // namespace kevrc
