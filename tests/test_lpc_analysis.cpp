// LPC analysis: tables, autocorrelation and Levinson-Durbin, LPC to LSP, the
// residual filter, the impulse response and the frame analysis as a whole.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "common/fixed_point.h"
#include "encoder/encoder_state.h"
#include "encoder/pre_encode.h"
#include "tests/test_util.h"

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

double window(int i) { return 0.54 - 0.46 * std::cos(2 * kPi * i / 160); }

// 160 samples of an AR process 1/A(z) (double coefficients a1..a10) driven by
// unit Gaussian noise, scaled to the given peak.
std::vector<int16_t> ar_frame(const std::vector<double> &a, double peak, std::mt19937_64 &rng) {
  std::normal_distribution<double> noise;
  std::vector<double> y(400, 0.0);
  for (size_t n = 0; n < y.size(); ++n) {
    double v = noise(rng);
    for (size_t k = 0; k < a.size() && k < n; ++k) v -= a[k] * y[n - 1 - k];
    y[n] = v;
  }
  const double m = *std::max_element(y.begin() + 240, y.end(),
                                     [](double p, double q) { return std::abs(p) < std::abs(q); });
  std::vector<int16_t> out(160);
  for (int i = 0; i < 160; ++i)
    out[i] = static_cast<int16_t>(std::lround(y[240 + i] / std::abs(m) * peak));
  return out;
}

// A(z) coefficients a1..a10 from reflection coefficients (step-up recursion).
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

// Double-precision autocorrelation r[0..10] of x[0..159] with 1.00003 on
// r[0] and the Gaussian lag window.
std::array<double, 11> corrected_autocorrelation(const double *x) {
  std::array<double, 11> r;
  for (int k = 0; k <= 10; ++k) {
    r[k] = 0;
    for (int i = 0; i + k < 160; ++i) r[k] += x[i] * x[i + k];
    r[k] *= k == 0 ? 1.00003 : std::exp(-1.2337063e-4 * k * k);
  }
  return r;
}

// Levinson-Durbin in double precision: a1..a10 of the optimal A(z), except
// that, as in the codec, orders after the error has fallen below r[0]/1024
// (30 dB of prediction gain) get a zero reflection coefficient.
std::array<double, 10> reference_lpc(const std::array<double, 11> &r) {
  std::array<double, 11> a{1.0};
  double err = r[0];
  for (int i = 1; i <= 10; ++i) {
    if (err < r[0] / 1024) break;
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
  for (int j = 0; j < 10; ++j) out[j] = a[j + 1];
  return out;
}

// Prediction-error energy of A(z) = 1 + sum a_k z^-k on autocorrelation r,
// relative to r[0].
template <typename Coef>
double prediction_error(const std::array<double, 11> &r, const Coef &a, double scale) {
  double c[11] = {1.0};
  for (int k = 0; k < 10; ++k) c[k + 1] = a[k] / scale;
  double e = 0;
  for (int i = 0; i <= 10; ++i)
    for (int j = 0; j <= 10; ++j) e += c[i] * c[j] * r[std::abs(i - j)];
  return e / r[0];
}

// LSPs of a Q12 LPC vector in double precision, in Q15 units. On the unit
// circle e^(j5.5w) A(e^jw) = G(w); the sum polynomial A(z) + z^-11 A(1/z)
// vanishes where Re G = 0 and the difference polynomial where Im G = 0
// (excluding w = pi and w = 0, the divided-out roots). Roots are bracketed on
// a fine grid and bisected.
std::vector<double> reference_lsp(const int16_t *lpc) {
  double a[11] = {1.0};
  for (int k = 1; k <= 10; ++k) a[k] = lpc[k - 1] / 4096.0;
  // G(w) = sum a_k e^(j(5.5 - k)w).
  auto f = [&](int part, double w) {
    double v = 0;
    for (int k = 0; k <= 10; ++k)
      v += a[k] * (part == 0 ? std::cos((5.5 - k) * w) : std::sin((5.5 - k) * w));
    return v;
  };
  std::vector<double> roots;
  const int n = 4096;  // 4 Q15 units, far below the spacing of the test vectors
  for (int part = 0; part < 2; ++part) {
    double w0 = 1e-9, f0 = f(part, w0);
    for (int i = 1; i <= n; ++i) {
      const double w1 = kPi * i / n - 1e-9;
      const double f1 = f(part, w1);
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

// Ten ascending LSPs (Q15) with neighbours, 0 and 16384 at least min_gap apart.
std::array<int16_t, 10> random_lsp(std::mt19937_64 &rng, int min_gap) {
  std::uniform_real_distribution<double> u(0.0, 1.0);
  double gaps[11], total = 0;
  for (double &g : gaps) total += g = u(rng);
  std::array<int16_t, 10> lsp;
  double pos = 0;
  for (int k = 0; k < 10; ++k) {
    pos += min_gap + gaps[k] / total * (16384 - 11 * min_gap);
    lsp[k] = static_cast<int16_t>(std::lround(pos));
  }
  return lsp;
}

std::array<int16_t, 10> lpc_of(std::array<int16_t, 10> lsp) {
  std::array<int16_t, 10> lpc;
  kevrc_lsp2lpc(lsp.data(), lpc.data());  // takes a copy: it repairs its argument
  return lpc;
}

// Largest |a_k| of the LPC vector of an LSP vector, in double precision:
// A = (P + Q) / 2, P = (1 + z^-1) prod (1 - 2 cos w_2j z^-1 + z^-2), Q likewise
// with 1 - z^-1 and the odd frequencies.
double largest_coefficient(const std::array<int16_t, 10> &lsp) {
  std::vector<double> p = {1, 1}, q = {1, -1};
  for (int j = 0; j < 10; ++j) {
    std::vector<double> &f = j % 2 ? q : p;
    const double c = -2 * std::cos(lsp[j] * kPi / 16384);
    std::vector<double> g(f.size() + 2, 0.0);
    for (size_t i = 0; i < f.size(); ++i) {
      g[i] += f[i];
      g[i + 1] += c * f[i];
      g[i + 2] += f[i];
    }
    f = g;
  }
  double m = 0;
  for (int k = 1; k <= 10; ++k) m = std::max(m, std::abs((p[k] + q[k]) / 2));
  return m;
}

// A random LSP vector whose LPC vector fits Q12 with room (|a_k| < 7.5).
std::array<int16_t, 10> random_filter_lsp(std::mt19937_64 &rng, int min_gap) {
  for (;;) {
    const std::array<int16_t, 10> lsp = random_lsp(rng, min_gap);
    if (largest_coefficient(lsp) < 7.5) return lsp;
  }
}

// ---------------------------------------------------------------------------

TEST(LpcAnalysisTables, AnalysisWindowIsTheRoundedHammingWindow) {
  for (int i = 0; i < 160; ++i) {
    const double v = std::min(32767.0, std::floor(32768 * window(i) + 0.5));
    EXPECT_EQ(kevrce_tbl_analysis_window[i], v) << i;
  }
  EXPECT_EQ(kevrce_tbl_analysis_window[0], 2621);
  EXPECT_EQ(kevrce_tbl_analysis_window[80], 32767);
}

TEST(LpcAnalysisTables, LagWindowIsGaussian) {
  // The stated values follow 2^30 exp(-c k^2) with c = 1.2337063e-4 to within a unit.
  for (int k = 1; k <= 16; ++k)
    EXPECT_NEAR(kevrce_tbl_lag_window[k - 1], std::ldexp(std::exp(-1.2337063e-4 * k * k), 30), 1.0)
        << k;
}

// ---------------------------------------------------------------------------

TEST(LpcAnalysis, SilentFrameGivesAFlatFilter) {
  Analysis a;
  std::memset(a.work->residual_mem, 0x55, sizeof a.work->residual_mem);
  std::memset(a.work->lpc, 0x55, sizeof a.work->lpc);
  // Energy 0: n0 = norm_32(0) = 0, e = 1, so the shift is (0 + 3) - 0.
  EXPECT_EQ(kevrce_calculate_lpc(a.work.get()), 3);
  for (int k = 0; k <= 16; ++k) EXPECT_EQ(a.work->r[k], 0);
  for (int k = 0; k < 10; ++k) {
    EXPECT_EQ(a.work->lpc[k], 0);
    EXPECT_EQ(a.work->residual_mem[k], 0);
  }
}

TEST(LpcAnalysis, SingleSampleExactValues) {
  Analysis a;
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
  // Through the frame analysis r comes out on the common scale sum x^2 / 8:
  // 1024030719 >> 13 = 125003 (1000000 / 8 times 1.00003).
  Analysis b;
  std::vector<int16_t> frame(160, 0);
  frame[80] = 1000;
  b.run(frame);
  EXPECT_EQ(b.work->r[0], 125003);
}

TEST(LpcAnalysis, AutocorrelationOnTheCommonScale) {
  std::mt19937_64 rng(testing::test_seed("AutocorrelationOnTheCommonScale"));
  for (double peak : {3.0, 40.0, 700.0, 5000.0, 12000.0, 20000.0, 32767.0}) {
    const std::vector<int16_t> frame = ar_frame(from_reflection({0.7, -0.3}), peak, rng);
    Analysis a;
    a.run(frame);
    // Model: r[k] = sum x[i] x[i+k] / 8 with x the windowed frame, corrected.
    double x[160];
    for (int i = 0; i < 160; ++i) x[i] = a.work->windowed[i];
    for (int k = 0; k <= 16; ++k) {
      double r = 0;
      for (int i = 0; i + k < 160; ++i) r += x[i] * x[i + k];
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
  // two levels.
  // 1. The recursion: double-precision Levinson-Durbin on the frame's own
  //    r[0..10] agrees to 16 Q12 units. The prediction sum is built from
  //    Q28 products (worth 8 to 16 units of Q31 each), so late orders, where
  //    s = r[i+1] - S is small, get reflection coefficients off by up to
  //    about 3e-4; high-order filters with coefficients near 4 turn that into
  //    up to 10 Q12 units (typically below one).
  // 2. The whole analysis against the unrounded window in double precision:
  //    coefficients of ill-conditioned sets move by several hundredths with
  //    the 16-bit windowed samples, so the check is that the prediction error
  //    they leave is within 0.5 % of the optimum.
  std::mt19937_64 rng(testing::test_seed("LevinsonMatchesDoublePrecision"));
  std::uniform_real_distribution<double> refl(-0.85, 0.85);
  double worst = 0, worst_ratio = 1;
  for (int trial = 0; trial < 200; ++trial) {
    std::vector<double> k(trial % 3 == 0 ? 2 : 10);
    for (double &v : k) v = refl(rng);
    const double peak = trial % 2 ? 16000.0 : 900.0;
    const std::vector<int16_t> frame = ar_frame(from_reflection(k), peak, rng);
    Analysis a;
    std::copy(frame.begin(), frame.end(), a.work->speech + 160);
    kevrce_calculate_lpc(a.work.get());
    std::array<double, 11> own_r;
    std::copy(a.work->r, a.work->r + 11, own_r.begin());
    const std::array<double, 10> same_r = reference_lpc(own_r);
    for (int j = 0; j < 10; ++j) {
      worst = std::max(worst, std::abs(a.work->lpc[j] - 4096 * same_r[j]));
      ASSERT_NEAR(a.work->lpc[j], 4096 * same_r[j], 16.0) << "trial " << trial << " a" << j + 1;
    }
    double x[160];
    for (int i = 0; i < 160; ++i) x[i] = frame[i] * window(i);
    const std::array<double, 11> r = corrected_autocorrelation(x);
    const double ratio =
        prediction_error(r, a.work->lpc, 4096.0) / prediction_error(r, reference_lpc(r), 1.0);
    worst_ratio = std::max(worst_ratio, ratio);
    ASSERT_LT(ratio, 1.005) << "trial " << trial;
  }
  std::printf("largest coefficient difference %.2f Q12 units, prediction error ratio %.5f\n", worst,
              worst_ratio);
}

// ---------------------------------------------------------------------------

TEST(LpcToLsp, FlatFilterGivesEquallySpacedFrequencies) {
  // A(z) = 1: the roots of 1 +- z^-11 lie at multiples of pi/11.
  const int16_t lpc[10] = {};
  int16_t lsp[10];
  kevrce_lpc2lsp(lpc, lsp);
  for (int k = 0; k < 10; ++k) EXPECT_NEAR(lsp[k], (k + 1) * 16384.0 / 11, 14) << k;
}

TEST(LpcToLsp, RootsMatchDoublePrecision) {
  // The search ends on a grid of 1/8 of 0.00635 of the sampling rate (26 Q15
  // units) and takes the end with the smaller magnitude, so a root is off by
  // about half of that plus the cosine interpolation error: 16 units at most.
  // Half the vectors pair some LSPs closely (sharp formants, coefficients of
  // several units, where the evaluation scales down).
  std::mt19937_64 rng(testing::test_seed("LspRootsMatchDoublePrecision"));
  double worst = 0;
  int largest = 0;
  for (int trial = 0; trial < 300; ++trial) {
    std::array<int16_t, 10> lsp;
    do {
      lsp = random_lsp(rng, 320);
      if (trial % 2) {  // two narrow pairs (the gaps were at least 320 before)
        for (int k : {1 + 2 * (trial % 5), 1 + 2 * ((trial / 5) % 5)})
          lsp[k] = static_cast<int16_t>(lsp[k - 1] + 230 + trial % 60);
      }
    } while (largest_coefficient(lsp) >= 7.5);
    const std::array<int16_t, 10> lpc = lpc_of(lsp);
    for (int16_t c : lpc) largest = std::max(largest, std::abs(int{c}));
    const std::vector<double> ref = reference_lsp(lpc.data());
    ASSERT_EQ(ref.size(), 10u);
    int16_t out[10];
    kevrce_lpc2lsp(lpc.data(), out);
    for (int k = 0; k < 10; ++k) {
      worst = std::max(worst, std::abs(out[k] - ref[k]));
      ASSERT_NEAR(out[k], ref[k], 16) << "trial " << trial << " lsp " << k;
    }
  }
  std::printf("largest root error %.2f Q15 units, largest |a_k| %d (Q12)\n", worst, largest);
}

TEST(LpcToLsp, RoundTripThroughLpc) {
  // LSP -> LPC -> LSP: the root error plus that of the conversion to rounded
  // Q12 coefficients. Well-spaced vectors (gaps of 500) keep the second
  // small, except for the outermost LSPs, where the cosine is flat; crowded
  // low LSPs can move by a hundred units in the Q12 rounding alone, which
  // the double-precision root test above separates out.
  std::mt19937_64 rng(testing::test_seed("LspRoundTrip"));
  double worst = 0;
  for (int trial = 0; trial < 300; ++trial) {
    const std::array<int16_t, 10> lsp = random_filter_lsp(rng, 500);
    int16_t back[10];
    kevrce_lpc2lsp(lpc_of(lsp).data(), back);
    for (int k = 0; k < 10; ++k) {
      worst = std::max(worst, std::abs(static_cast<double>(back[k] - lsp[k])));
      ASSERT_NEAR(back[k], lsp[k], k == 0 || k == 9 ? 64 : 32) << "trial " << trial << " lsp " << k;
    }
  }
  std::printf("largest round-trip error %.0f Q15 units\n", worst);
}

TEST(LpcToLsp, AnyCoefficientsStayInRange) {
  std::mt19937_64 rng(testing::test_seed("LspAnyCoefficients"));
  std::uniform_int_distribution<int> any(-32768, 32767);
  for (int trial = 0; trial < 2000; ++trial) {
    int16_t lpc[10], lsp[10];
    for (int16_t &c : lpc) {
      switch (trial % 4) {
        case 0:
          c = static_cast<int16_t>(any(rng));
          break;
        case 1:
          c = static_cast<int16_t>(any(rng) % 4096);
          break;
        case 2:
          c = trial & 8 ? int16_t{-32768} : int16_t{32767};
          break;
        default:
          c = static_cast<int16_t>(any(rng) & 1 ? -32768 : 32767);
          break;
      }
    }
    kevrce_lpc2lsp(lpc, lsp);
    for (int k = 0; k < 10; ++k) {
      ASSERT_GE(lsp[k], 0) << trial;
      ASSERT_LE(lsp[k], 16384) << trial;
    }
  }
}

TEST(LpcToLsp, WorkBlockForm) {
  Analysis a;
  const std::array<int16_t, 10> lpc =
      lpc_of({1000, 2500, 3600, 5200, 7000, 8300, 9900, 11500, 13000, 14800});
  std::copy(lpc.begin(), lpc.end(), a.work->lpc);
  int16_t expected[10];
  kevrce_lpc2lsp(lpc.data(), expected);
  kevrce_a2lsp(a.work.get());
  EXPECT_EQ(0, std::memcmp(expected, a.work->lsp, sizeof expected));
}

// ---------------------------------------------------------------------------

TEST(Residu, ClampsAfterEachTapWhereTheInverseFilterWraps) {
  // x = 100, a10 = +8 (32767) and a9 = -8 (-32767) against past inputs of 32767:
  // 819200 + 2147352578 clamps to 2147483647, minus 2147352578 leaves 131069,
  // so out = (8 * 131069 + 0x8000) >> 16 = 16. The exact sum is 819200: 100.
  int16_t lpc[10] = {};
  lpc[9] = 32767;
  lpc[8] = -32767;
  int16_t mem[10] = {0, 0, 0, 0, 0, 0, 0, 0, 32767, 32767}, fmem[10];
  std::memcpy(fmem, mem, sizeof mem);
  const int16_t in = 100;
  int16_t out, fout;
  kevrce_residu(&in, lpc, mem, 1, &out);
  kevrc_fir(&in, lpc, fmem, 1, &fout);
  EXPECT_EQ(out, 16);
  EXPECT_EQ(fout, 100);
  EXPECT_EQ(0, std::memcmp(mem, fmem, sizeof mem));  // both keep the inputs
  EXPECT_EQ(mem[0], 100);
  EXPECT_EQ(mem[9], 32767);
}

TEST(Residu, LastTapWraps) {
  // The clamped sum 2147483647 plus the wrapping last tap 2 * 32767 * 32767:
  // 4294836225 - 2^32 = -131071, out = (-1048568 + 0x8000) >> 16 = -16.
  int16_t lpc[10] = {32767, 0, 0, 0, 0, 0, 0, 0, 0, 32767};
  int16_t mem[10] = {32767, 0, 0, 0, 0, 0, 0, 0, 0, 32767};
  const int16_t in = 100;
  int16_t out;
  kevrce_residu(&in, lpc, mem, 1, &out);
  EXPECT_EQ(out, -16);
}

TEST(Residu, EqualsTheInverseFilterWithoutOverflow) {
  std::mt19937_64 rng(testing::test_seed("ResiduEqualsInverseFilter"));
  std::uniform_int_distribution<int> sample(-8000, 8000);
  for (int trial = 0; trial < 50; ++trial) {
    const std::array<int16_t, 10> lpc = lpc_of(random_filter_lsp(rng, 200));
    std::vector<int16_t> x(160), y(160), z(160);
    for (auto &s : x) s = static_cast<int16_t>(sample(rng));
    int16_t m1[10] = {}, m2[10] = {};
    kevrce_residu(x.data(), lpc.data(), m1, 100, y.data());
    kevrce_residu(&x[100], lpc.data(), m1, 60, &y[100]);  // memory carries over calls
    kevrc_fir(x.data(), lpc.data(), m2, 160, z.data());
    ASSERT_EQ(y, z) << trial;
  }
  int16_t mem[10] = {};
  int16_t out = 7;
  kevrce_residu(nullptr, mem, mem, 0, &out);  // n = 0 touches nothing
  EXPECT_EQ(out, 7);
}

// ---------------------------------------------------------------------------

TEST(ImpRes, FlatAndFirstOrderFilters) {
  int16_t lpc[10] = {}, h[54];
  kevrce_imp_res(lpc, h);
  EXPECT_EQ(h[0], 2048);
  for (int i = 1; i < 54; ++i) EXPECT_EQ(h[i], 0);
  // 1/(1 - 0.5 z^-1): 2048 >> n down to 1 at n = 11; then (2048 * 1 + 2048) >> 12 = 1
  // for ever (rounding half up holds the tail at one unit).
  lpc[0] = -2048;
  kevrce_imp_res(lpc, h);
  for (int i = 0; i <= 11; ++i) EXPECT_EQ(h[i], 2048 >> i) << i;
  for (int i = 12; i < 54; ++i) EXPECT_EQ(h[i], 1) << i;
}

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
  // model). There the result equals kevrc_iir driven by an impulse, and each
  // output's rounding (at most half a unit) propagates through the response,
  // so |h[i] - y[i]| <= 0.5 * sum over m <= i of |y[m]| / 2048.
  std::mt19937_64 rng(testing::test_seed("ImpulseResponseMatches"));
  int tested = 0;
  while (tested < 100) {
    const std::array<int16_t, 10> lpc = lpc_of(random_filter_lsp(rng, 250));
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
  std::vector<int16_t> frame(160, 0);
  EXPECT_EQ(a.run(frame), 0);
  const kevrce_work &w = *a.work;
  for (int k = 0; k < 10; ++k) EXPECT_EQ(w.lpc[k], 0);
  for (int i = 0; i < 320; ++i) ASSERT_EQ(w.residual[i], 0);  // A(z) = 1: residual = speech
  EXPECT_EQ(w.h[0], 2048);
  // Eh = ((2048^2 >> 3) + 0x8000) >> 16 = (524288 + 32768) >> 16 = 8.
  EXPECT_EQ(w.prev_eh, 8);
  EXPECT_EQ(w.onset, 0);
  for (int k = 0; k < 10; ++k) EXPECT_NEAR(w.lsp[k], (k + 1) * 16384.0 / 11, 14) << k;
  EXPECT_EQ(w.ol_delay, 20);  // all correlations 0: the first lag wins
  EXPECT_EQ(w.ol_gain, 0);
  EXPECT_EQ(0, std::memcmp(a.enc->prev_lsp, kevrc_prev_lsp, sizeof a.enc->prev_lsp));
}

TEST(PreEncode, KeepsThePreviousFrame) {
  Analysis a;
  std::vector<int16_t> f1(160), f2(160);
  for (int i = 0; i < 160; ++i) {
    f1[i] = static_cast<int16_t>(i * 7 - 500);
    f2[i] = static_cast<int16_t>(300 - i * 3);
  }
  a.run(f1);
  a.run(f2);
  EXPECT_TRUE(std::equal(f1.begin(), f1.end(), a.work->speech));
  EXPECT_TRUE(std::equal(f2.begin(), f2.end(), a.work->speech + 160));
}

TEST(PreEncode, ResidualUsesPerSegmentFilters) {
  // speech[0..79] with the previous LSPs, the three subframes with LSPs
  // interpolated 1/6, 1/2, 5/6 of the way, speech[240..319] with the expanded
  // LPC; one filter memory throughout. Checked with the wrapping inverse
  // filter, which agrees at these levels.
  std::mt19937_64 rng(testing::test_seed("ResidualUsesPerSegmentFilters"));
  Analysis a;
  const std::array<int16_t, 10> prev = random_lsp(rng, 300);
  std::copy(prev.begin(), prev.end(), a.enc->prev_lsp);
  a.run(ar_frame(from_reflection({0.5, -0.4, 0.2}), 6000, rng));
  a.run(ar_frame(from_reflection({-0.6, 0.3}), 6000, rng));
  const kevrce_work &w = *a.work;
  int16_t expected[320], mem[10] = {}, lpc[10], lsp[10];
  std::copy(prev.begin(), prev.end(), lsp);
  kevrc_lsp2lpc(lsp, lpc);
  kevrc_fir(w.speech, lpc, mem, 80, expected);
  const double weight[3] = {1.0 / 6, 0.5, 5.0 / 6};
  const int start[4] = {80, 133, 186, 240};
  for (int s = 0; s < 3; ++s) {
    for (int k = 0; k < 10; ++k)
      lsp[k] = static_cast<int16_t>(std::lround(prev[k] + weight[s] * (w.lsp[k] - prev[k])));
    int16_t interp[10];
    kevrc_interpol(interp, prev.data(), w.lsp, static_cast<int16_t>(s));
    for (int k = 0; k < 10; ++k) ASSERT_NEAR(interp[k], lsp[k], 1);
    kevrc_lsp2lpc(interp, lpc);
    kevrc_fir(&w.speech[start[s]], lpc, mem, static_cast<int16_t>(start[s + 1] - start[s]),
              &expected[start[s]]);
  }
  kevrc_fir(&w.speech[240], w.lpc, mem, 80, &expected[240]);
  for (int i = 0; i < 320; ++i) ASSERT_EQ(w.residual[i], expected[i]) << i;
  EXPECT_EQ(0, std::memcmp(mem, w.residual_mem, sizeof mem));
}

TEST(PreEncode, BandwidthExpansion) {
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
}

TEST(PreEncode, OnsetFlagAtTenTimesThePreviousEnergy) {
  // AR(1) frames of rising correlation rho have rising response energies Eh
  // (about 8 / (1 - rho^2)); a fine scan finds frames with Eh = 100 and 101.
  // With a previous Eh of 10 only 101 (more than 10 * 10) sets the flag.
  std::mt19937_64 rng(testing::test_seed("OnsetFlag"));
  std::normal_distribution<double> noise;
  bool seen[2] = {false, false};
  for (int realisation = 0; realisation < 50 && !(seen[0] && seen[1]); ++realisation) {
    std::vector<double> e(400);
    for (double &v : e) v = noise(rng);
    for (double rho = 0.93; rho < 0.99 && !(seen[0] && seen[1]); rho += 0.0002) {
      std::vector<int16_t> frame(160);
      double y = 0;
      for (int n = 0; n < 400; ++n) {
        y = rho * y + e[n];
        if (n >= 240) frame[n - 240] = sat16_64(std::llround(y * 300));
      }
      Analysis probe;
      probe.run(frame);
      const int16_t eh = probe.work->prev_eh;
      if ((eh != 100 && eh != 101) || seen[eh - 100]) continue;
      seen[eh - 100] = true;
      Analysis a;
      a.work->prev_eh = 10;
      a.run(frame);
      EXPECT_EQ(a.work->prev_eh, eh);
      EXPECT_EQ(a.work->onset, eh == 101 ? 1 : 0) << "Eh " << eh;
    }
  }
  EXPECT_TRUE(seen[0] && seen[1]);
}

TEST(PreEncode, OnsetSubtractionSaturates) {
  // A silent frame has Eh = 8. Ten subtractions of -32768 saturate at 32767
  // (a flag) rather than wrapping; ten of 32767 saturate at -32768 (no flag).
  Analysis a;
  std::vector<int16_t> frame(160, 0);
  a.work->prev_eh = -32768;
  a.run(frame);
  EXPECT_EQ(a.work->onset, 1);
  a.work->prev_eh = 32767;
  a.run(frame);
  EXPECT_EQ(a.work->onset, 0);
  a.work->prev_eh = 0;  // 8 - 10 * 0 > 0
  a.run(frame);
  EXPECT_EQ(a.work->onset, 1);
  a.run(frame);  // 8 - 10 * 8 < 0
  EXPECT_EQ(a.work->onset, 0);
}

TEST(PreEncode, MergeOfTheTwoPitchEstimates) {
  int16_t d, b;
  merge_open_loop_pitch(40, 20000, 50, 6000, &d, &b);  // 20000 - 13107 > 6000, |50 - 40| <= 15
  EXPECT_EQ(d, 45);
  EXPECT_EQ(b, 13000);
  merge_open_loop_pitch(40, 20000, 60, 6000, &d, &b);  // delays 20 apart: the first alone
  EXPECT_EQ(d, 40);
  EXPECT_EQ(b, 20000);
  merge_open_loop_pitch(40, 20000, 60, 6893, &d, &b);  // 20000 - 13107 <= 6893: the second
  EXPECT_EQ(d, 60);
  EXPECT_EQ(b, 6893);
  merge_open_loop_pitch(100, 32767, 85, 19000, &d, &b);  // sum saturates before halving
  EXPECT_EQ(d, 92);
  EXPECT_EQ(b, 16383);
}

TEST(PreEncode, VoicedSpeechPitch) {
  // A pulse train through a two-formant filter; the open-loop delay follows
  // the period after a frame of warm-up.
  for (int period : {23, 37, 58, 81, 117}) {
    Analysis a;
    std::vector<double> y(160 * 8, 0.0);
    const std::vector<double> lpc = from_reflection({-0.8, 0.6, -0.3, 0.2});
    for (size_t n = 0; n < y.size(); ++n) {
      double v = n % period == 0 ? 8000.0 : 0.0;
      for (size_t k = 0; k < lpc.size() && k < n; ++k) v -= lpc[k] * y[n - 1 - k];
      y[n] = v;
    }
    for (int f = 0; f < 8; ++f) {
      std::vector<int16_t> frame(160);
      for (int i = 0; i < 160; ++i) frame[i] = sat16_64(std::llround(y[f * 160 + i] / 4));
      const int16_t gain = a.run(frame);
      if (f >= 2) {
        EXPECT_NEAR(a.work->ol_delay, period, 1) << "period " << period << " frame " << f;
        EXPECT_GT(gain, 16384) << "period " << period << " frame " << f;
      }
      std::memcpy(a.enc->prev_lsp, a.work->lsp, sizeof a.enc->prev_lsp);  // as the frame end does
    }
  }
}

TEST(PreEncode, UnusualInputsStayInRange) {
  std::mt19937_64 rng(testing::test_seed("PreEncodeUnusualInputs"));
  std::uniform_int_distribution<int> any(-32768, 32767);
  const char *names[] = {"noise",   "square",   "dc+",         "dc-",
                         "silence", "impulses", "alternating", "mixed"};
  for (int kind = 0; kind < 8; ++kind) {
    Analysis a;
    for (int f = 0; f < 60; ++f) {
      std::vector<int16_t> frame(160);
      for (int i = 0; i < 160; ++i) {
        const int n = f * 160 + i;
        switch (kind) {
          case 0:
            frame[i] = static_cast<int16_t>(any(rng));
            break;
          case 1:
            frame[i] = (n / (7 + f % 50)) % 2 ? int16_t{32767} : int16_t{-32768};
            break;
          case 2:
            frame[i] = 32767;
            break;
          case 3:
            frame[i] = -32768;
            break;
          case 4:
            frame[i] = 0;
            break;
          case 5:
            frame[i] = n % (20 + f) == 0 ? int16_t{32767} : int16_t{0};
            break;
          case 6:
            frame[i] = n % 2 ? int16_t{32767} : int16_t{-32768};
            break;
          default:
            frame[i] = static_cast<int16_t>(f % 3 == 0   ? any(rng)
                                            : f % 3 == 1 ? 0
                                                         : (n % 3 - 1) * 32767);
            break;
        }
      }
      const int16_t gain = a.run(frame);
      const kevrce_work &w = *a.work;
      for (int k = 0; k < 10; ++k) {
        ASSERT_GE(w.lsp[k], 0) << names[kind] << " frame " << f;
        ASSERT_LE(w.lsp[k], 16384) << names[kind] << " frame " << f;
      }
      ASSERT_GE(w.ol_delay, 20) << names[kind];
      ASSERT_LE(w.ol_delay, 120) << names[kind];
      ASSERT_GE(gain, 0) << names[kind];
      ASSERT_EQ(gain, w.ol_gain);
      ASSERT_TRUE(w.onset == 0 || w.onset == 1);
      std::memcpy(a.enc->prev_lsp, w.lsp, sizeof a.enc->prev_lsp);
    }
  }
}

}  // namespace
}  // namespace kevrc
