// Codebook gains (closed-loop pitch gain, filtered adaptive contribution,
// fixed-codebook gain and excitation update) and the residual-domain target.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "common/fixed_point.h"
#include "common/rate_params.h"
#include "encoder/encoder_state.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

constexpr double kPitchGains[8] = {0.0, 0.3, 0.55, 0.7, 0.8, 0.9, 1.0, 1.2};

int16_t random_sample(testing::Rng &rng, int amp) {
  return static_cast<int16_t>(static_cast<int>(rng.below(2 * amp + 1)) - amp);
}

// The weighted-synthesis response of two random LPC vectors.
void random_response(testing::Rng &rng, int16_t *h) {
  int16_t a[10], aq[10], scratch[20];
  testing::random_lpc(rng, a, 250);
  testing::random_lpc(rng, aq, 250);
  kevrce_weighed_imp_res(a, aq, h, scratch);
}

// 2048 (1.0 in Q11) followed by zeros: filtering with it leaves a vector as it is.
const std::array<int16_t, 55> kUnit = [] {
  std::array<int16_t, 55> h{};
  h[0] = 2048;
  return h;
}();

// Real convolution of v with h (Q11), i.e. y before rounding; exact in double.
std::vector<double> convolve(const int16_t *v, const int16_t *h, int n) {
  std::vector<double> y(n);
  for (int i = 0; i < n; ++i) {
    double s = 0;
    for (int j = 0; j <= i; ++j) s += static_cast<double>(v[i - j]) * h[j];
    y[i] = s / 2048.0;
  }
  return y;
}

bool exceeds(const std::vector<double> &y, double limit) {
  return std::any_of(y.begin(), y.end(), [&](double s) { return std::fabs(s) > limit; });
}

// Runs the closed-loop gain (v scaled in place); returns {index, gain}.
std::array<int16_t, 2> cl_gain(const int16_t *h, const int16_t *x, int n, int16_t *v) {
  int16_t gain = -1, index = -1;
  kevrce_cal_cl_gain(h, x, static_cast<int16_t>(n), v, &gain, &index);
  return {index, gain};
}

// ===========================================================================
// Closed-loop adaptive-codebook gain and the convolution

TEST(ClosedLoopGain, ThresholdsAreRoundedMidpointsOfTheLevels) {
  for (int k = 0; k < 7; ++k) {
    const double mid = 16384.0 * (kPitchGains[k] + kPitchGains[k + 1]) / 2.0;
    EXPECT_EQ(kevrce_tbl_pitch_threshold[k], static_cast<int16_t>(std::lround(mid))) << k;
  }
  for (int k = 0; k < 8; ++k)
    EXPECT_EQ(kevrc_tbl_pitch_q[k], static_cast<int16_t>(std::lround(16384.0 * kPitchGains[k])));
}

TEST(ClosedLoopGain, ConvolutionWrapsAndEmptyLengthWritesNothing) {
  const int16_t in[2] = {32767, 32767}, h[2] = {32767, 32767};
  int16_t out[3] = {7, 7, 7};
  kevrce_conv_imp_res(in, h, out, 2);
  // y0: 2 * 32767^2 = 2147352578, + 2048, >> 12 = 524256, low 16 bits -32.
  EXPECT_EQ(out[0], -32);
  // y1: 4 * 32767^2 = 4294705156 wraps to -262140; + 2048 = -260092, >> 12 = -64.
  EXPECT_EQ(out[1], -64);
  EXPECT_EQ(out[2], 7);
  kevrce_conv_imp_res(in, h, out, 0);
  EXPECT_EQ(out[0], -32);
}

// With the unit impulse y = v, Eyy = sum v^2 and Exy = sum x v (2 t >> 1).
// v = (1024, 1): Eyy = 1048577, whose high half is 16 and low bits 1..15 are
// 0, so 2 * mul_32_16(Eyy, t) = 2 * (2 * 16 * t) = 64 t, and
// Exy = 1024 x0 + x1 can be placed exactly on 64 t for every threshold t.
TEST(ClosedLoopGain, RatioOnAThresholdTakesTheLowerLevel) {
  for (int k = 0; k < 7; ++k) {
    const int32_t target = 64 * kevrce_tbl_pitch_threshold[k];
    for (int above = 0; above < 2; ++above) {
      int16_t v[2] = {1024, 1};
      const int16_t x[2] = {static_cast<int16_t>(target / 1024),
                            static_cast<int16_t>(target % 1024 + above)};
      EXPECT_EQ(cl_gain(kUnit.data(), x, 2, v),
                (std::array<int16_t, 2>{static_cast<int16_t>(k + above), kevrc_tbl_pitch_q[k + above]}))
          << "threshold " << k << " above " << above;
    }
  }
}

// Ratio 2.0 is above 1.1: index 7, gain 19661 (1.2), no higher level. Scaling
// rounds half up: (19661 * 1024 + 8192) >> 14 = 1229.3 -> 1229;
// (19661 + 8192) >> 14 = 1; (-19661000 + 8192) >> 14 = floor(-1199.5) = -1200.
TEST(ClosedLoopGain, ScalesTheVectorByTheChosenLevel) {
  int16_t v[3] = {1024, 1, -1000};
  const int16_t x[3] = {2048, 2, -2000};
  EXPECT_EQ(cl_gain(kUnit.data(), x, 3, v), (std::array<int16_t, 2>{7, 19661}));
  EXPECT_EQ(v[0], 1229);
  EXPECT_EQ(v[1], 1);
  EXPECT_EQ(v[2], -1200);
}

// Exy <= 0 (opposite or orthogonal target) gives level 0 and a zeroed
// vector; n < 1 gives level 0 and leaves the vector alone.
TEST(ClosedLoopGain, NonPositiveCorrelationOrEmptySubframeGivesLevelZero) {
  const std::array<int16_t, 2> level0{0, 0};
  int16_t v[4] = {500, -300, 200, 100};
  const int16_t opposite[4] = {-500, 300, -200, -100};
  EXPECT_EQ(cl_gain(kUnit.data(), opposite, 4, v), level0);
  for (int16_t s : v) EXPECT_EQ(s, 0);
  int16_t u[2] = {100, 0};
  const int16_t orth[2] = {0, 100};
  EXPECT_EQ(cl_gain(kUnit.data(), orth, 2, u), level0);
  EXPECT_EQ(u[0], 0);
  for (int n : {0, -5}) {
    int16_t w[2] = {1234, -4321};
    EXPECT_EQ(cl_gain(kUnit.data(), w, n, w), level0);
    EXPECT_EQ(w[0], 1234);
    EXPECT_EQ(w[1], -4321);
  }
}

// v = (32767, 256), unit impulse:
//   sample 0: Eyy = 32767^2 = 1073676289 (not above 2^30 - 1), Exy = 32767 x0;
//   sample 1: Eyy = 1073676289 + 65536 = 1073741825 > 1073741823, so both
//             sums are halved: Eyy = 2^29, Exy = (32767 x0 + 256 x1) >> 1.
//   Threshold 3 on 2^29: 2 * mul_32_16(2^29, 12288) = 402653184.
// x = (24575, 224): 32767 * 24575 + 256 * 224 = 805306369, halved (floor)
// 402653184: on the threshold, index 3. Without the halving the odd sum
// would be compared with 4 * 16384 * 12288 = 805306368 and pass (index 4).
// x = (24575, 225) gives 805306625 >> 1 = 402653312 > 402653184: index 4.
TEST(ClosedLoopGain, LargeEnergyHalvesBothSums) {
  for (int above = 0; above < 2; ++above) {
    int16_t v[2] = {32767, 256};
    const int16_t x[2] = {24575, static_cast<int16_t>(224 + above)};
    EXPECT_EQ(cl_gain(kUnit.data(), x, 2, v)[0], 3 + above);
  }
}

// Exy wraps like every other sum: h = unit impulse, v = 16000 and x = 32767
// (true ratio 2.05). Per sample Eyy gains 256000000 and Exy 524272000. After
// four samples Eyy = 1024000000 (no halving) and Exy = 2097088000: index 7.
// The fifth brings Exy to 2621360000, which wraps to -1673607296 (and Eyy
// triggers the halving): Exy < 1, index 0 and a zeroed vector.
TEST(ClosedLoopGain, CorrelationWrapsAsStated) {
  int16_t v[5] = {16000, 16000, 16000, 16000, 16000};
  const int16_t x[5] = {32767, 32767, 32767, 32767, 32767};
  EXPECT_EQ(cl_gain(kUnit.data(), x, 4, v)[0], 7);
  std::fill(v, v + 5, int16_t{16000});
  EXPECT_EQ(cl_gain(kUnit.data(), x, 5, v), (std::array<int16_t, 2>{0, 0}));
  EXPECT_EQ(v[4], 0);
}

// The level is the one nearest to the double-precision optimum Exy/Eyy (by
// the Q14 midpoints), the vector is scaled by it with rounding, and the
// convolution of the scaled vector is the real one rounded, floor(y + 1/2)
// (exact without wrapping: (sum + 2048) >> 12). Skipped: ties
// within the fixed-point rounding (mul_32_16 truncates; each halving floors,
// at most a unit per sample on sums above 2^29: 16 units plus 1e-5 relative
// in all), which must stay rare, and cases where Exy may wrap (a partial x.y
// near max(y.y, 2^30)).
TEST(ClosedLoopGain, LevelIsNearestToDoubleOptimum) {
  testing::Rng rng(testing::test_seed("ClosedLoopGain.LevelIsNearestToDoubleOptimum"));
  int checked = 0, ties = 0, wrap_prone = 0;
  for (int trial = 0; trial < 3000; ++trial) {
    int16_t h[54], v[54], x[54], scaled[54];
    random_response(rng, h);
    const int n = 53 + trial % 2;
    const int amp = 20 + static_cast<int>(rng.below(3000));
    for (int i = 0; i < n; ++i) v[i] = random_sample(rng, amp);
    std::vector<double> y = convolve(v, h, n);
    if (exceeds(y, 30000)) continue;
    for (double &s : y) s = std::floor(s + 0.5);  // the filtered vector
    // Target: a random gain in -0.3 .. 1.6 on y plus noise.
    const double rho = -0.3 + 1.9 * rng.below(10001) / 10000.0;
    const int noise = 1 + static_cast<int>(rng.below(static_cast<uint32_t>(amp)));
    double sxy = 0, syy = 0;
    bool may_wrap = false;
    for (int i = 0; i < n; ++i) {
      x[i] = static_cast<int16_t>(std::clamp(std::lround(rho * y[i] + random_sample(rng, noise)), -32768L, 32767L));
      sxy += x[i] * y[i];
      syy += y[i] * y[i];
      may_wrap = may_wrap || std::fabs(sxy) > 0.95 * std::max(syy, 1073741824.0);
    }
    if (may_wrap) {
      ++wrap_prone;
      continue;
    }
    int expected = 0;  // thresholds strictly below the optimum (0 for sxy <= 0)
    bool tie = false;
    for (int k = 0; k < 7 && sxy > 0; ++k) {
      const double t = kevrce_tbl_pitch_threshold[k], diff = sxy * 16384.0 - t * syy;
      tie = tie || std::fabs(diff) <= 16 * 16384.0 + 1e-5 * t * syy;
      if (diff > 0) expected = k + 1;
    }
    if (tie) {
      ++ties;
      continue;
    }
    std::copy(v, v + n, scaled);
    const auto [index, gain] = cl_gain(h, x, n, scaled);
    ASSERT_EQ(index, expected) << "trial " << trial << " ratio " << sxy / syy;
    ASSERT_EQ(gain, kevrc_tbl_pitch_q[index]);
    for (int i = 0; i < n; ++i)
      ASSERT_EQ(scaled[i], std::floor(gain * static_cast<double>(v[i]) / 16384.0 + 0.5)) << i;
    const std::vector<double> ys = convolve(scaled, h, n);
    int16_t out[55];
    out[n] = 0x5A5A;
    kevrce_conv_imp_res(scaled, h, out, static_cast<int16_t>(n));
    if (!exceeds(ys, 32000)) {
      for (int i = 0; i < n; ++i) ASSERT_EQ(out[i], std::floor(ys[i] + 0.5)) << i;
    }
    ASSERT_EQ(out[n], 0x5A5A);
    ++checked;
  }
  EXPECT_GT(checked, 1800);
  EXPECT_LT(ties, checked / 100 + 1);
  std::printf("checked %d, ties %d, wrap-prone %d\n", checked, ties, wrap_prone);
}

TEST(ClosedLoopGain, GarbageInputsStayInRange) {
  testing::Rng rng(testing::test_seed("ClosedLoopGain.GarbageInputsStayInRange"));
  for (int trial = 0; trial < 500; ++trial) {
    int16_t h[54], x[54], v[56], y[55];
    for (auto &s : h) s = static_cast<int16_t>(rng.next());
    for (auto &s : x) s = static_cast<int16_t>(rng.next());
    for (auto &s : v) s = trial % 3 == 0 ? int16_t{-32768} : static_cast<int16_t>(rng.next());
    v[54] = v[55] = 0x1234;
    const auto [index, gain] = cl_gain(h, x, trial % 2 ? 54 : 53, v);
    ASSERT_GE(index, 0);
    ASSERT_LE(index, 7);
    ASSERT_EQ(gain, kevrc_tbl_pitch_q[index]);
    ASSERT_EQ(v[54], 0x1234);
    y[54] = 0x4321;
    kevrce_conv_imp_res(v, h, y, 54);
    ASSERT_EQ(y[54], 0x4321);
  }
}

// ===========================================================================
// Fixed-codebook gain and excitation

struct FcbEncoder {
  explicit FcbEncoder(int16_t rate) : enc(std::make_unique<kevrce_instance>()) {
    enc->rate = rate;
    enc->params = rate == 4 ? &kParamsFull : &kParamsHalf;
  }
  int16_t quant(int acb_index, int g, const int16_t *c = nullptr, int16_t *e = nullptr, int n = 0) {
    return kevrce_fcb_gain_quant(enc.get(), static_cast<int16_t>(acb_index),
                                 static_cast<int16_t>(g), c, e, static_cast<int16_t>(n));
  }
  std::unique_ptr<kevrce_instance> enc;
};

// The index is the table level nearest to 16 * F * g, F the real factor
// (1 - 0.15 gp or 0.9 - 0.1 gp), except within rounding of a midpoint (the
// Q16 constants 9830 and 6554 differ from 0.15 and 0.1 by 3e-5 relative).
// This covers the top level, the lowest, and a larger g needed for the same
// index with a higher pitch gain.
TEST(FixedCodebookGain, IndexIsNearestLevelOfDoubleModel) {
  for (int16_t rate : {int16_t{4}, int16_t{3}}) {
    FcbEncoder e(rate);
    const int16_t *table = e.enc->params->fcb_gains;
    const int count = e.enc->params->fcb_gain_count;
    for (int acb = 0; acb < 8; ++acb) {
      const double gp = kevrc_tbl_pitch_q[acb] / 16384.0;
      const double factor = rate == 4 ? 1.0 - 0.15 * gp : 0.9 - 0.1 * gp;
      for (int g = -50; g <= 2000; ++g) {
        const double x = 16.0 * factor * g;
        int expected = 0;
        bool tie = false;
        for (int k = 1; k < count; ++k) {
          const double mid = (table[k] + table[k - 1]) / 2.0;
          tie = tie || std::fabs(x - mid) <= 1e-4 * mid + 0.01;
          if (x > mid) expected = k;
        }
        if (tie) continue;
        ASSERT_EQ(e.quant(acb, g), expected) << "rate " << rate << " acb " << acb << " g " << g;
      }
    }
  }
  // Exact where the Q16 constant decides (a tie above): full rate, pitch 1.2,
  // g = 1259: F = 1760948387, x = 2 mul_32_16(F, 1259) = 2 (26869 * 1259 * 2
  // + (30801 * 1259) >> 14) = 135317016 < (14464 + 18573) * 4096 = 135319552:
  // 29 (9829 would give 30). Half rate, pitch 1.2, g = 931: F = 1675018895,
  // x = 95180822 > (8773 + 14464) * 4096 = 95178752: 14 (6555 would give 13).
  EXPECT_EQ(FcbEncoder(4).quant(7, 1259), 29);
  EXPECT_EQ(FcbEncoder(3).quant(7, 931), 14);
}

// e += (c q + 16384) >> 15, q = table[index] >> 1, wrapping in 16 bits.
// g = 0 gives index 0, q = 10 >> 1 = 5 (not 0): a zero vector or |c q| <
// 16384 adds nothing, a unit pulse one LSB: (+-4096 * 5 + 16384) >> 15 = +-1.
// Index 31: q = 23848 >> 1 = 11924; 4096 * 11924 + 16384 = 1491 * 32768:
// adds 1491; (-48840704 + 16384) >> 15 = floor(-1490.0) = -1490;
// 1000 * 11924 + 16384 = 11940384 -> 364.4 -> 364. n <= 0 adds nothing.
TEST(FixedCodebookGain, AddsScaledCodeVectorWithWrap) {
  FcbEncoder full(4);
  int16_t e[5] = {100, -200, 32767, -32768, 555};
  const int16_t zeros[4] = {}, small[4] = {3276, -3276, 2000, -1};  // |c * 5| <= 16380
  EXPECT_EQ(full.quant(0, 0, zeros, e, 4), 0);
  EXPECT_EQ(full.quant(0, 0, small, e, 4), 0);
  EXPECT_EQ(e[0], 100);
  EXPECT_EQ(e[1], -200);
  EXPECT_EQ(e[2], 32767);
  EXPECT_EQ(e[3], -32768);
  const int16_t pulses[4] = {4096, -4096, 0, 0};
  EXPECT_EQ(full.quant(0, 0, pulses, e, 4), 0);
  EXPECT_EQ(e[0], 101);
  EXPECT_EQ(e[1], -201);

  const int16_t c[4] = {4096, -4096, 1000, 4096};
  std::fill(e, e + 4, int16_t{0});
  e[3] = 32000;
  EXPECT_EQ(full.quant(0, 2000, c, e, 4), 31);
  EXPECT_EQ(e[0], 1491);
  EXPECT_EQ(e[1], -1490);
  EXPECT_EQ(e[2], 364);
  EXPECT_EQ(e[3], -32045);  // 32000 + 1491 = 33491 keeps its low 16 bits
  EXPECT_EQ(e[4], 555);     // past n: untouched
  for (int n : {0, -3}) {
    EXPECT_EQ(full.quant(0, 2000, c, e, n), 31);
    EXPECT_EQ(e[0], 1491);
  }
}

// The doubling of F * g wraps in 32 bits: at full rate with pitch gain 0,
// g = 16384 gives x = 2 * 1073741823 = 2147483646 (top index) but g = 16385
// gives 2 * 1073807358, which wraps negative (index 0). Negative gains give 0.
TEST(FixedCodebookGain, OversizedOrNegativeGainsFollowTheWrap) {
  FcbEncoder full(4);
  EXPECT_EQ(full.quant(0, 16384), 31);
  EXPECT_EQ(full.quant(0, 16385), 0);
  EXPECT_EQ(full.quant(0, 32767), 0);  // x = -131076
  EXPECT_EQ(full.quant(0, -1), 0);
  EXPECT_EQ(full.quant(0, -32768), 0);
}

// Any gain, vector, rate code and adaptive-codebook index: the index stays
// in the table, nothing past n is written, and an adaptive-codebook index
// outside 0..7 is clamped (it must not read past the level table).
TEST(FixedCodebookGain, GarbageInputsStayInRange) {
  testing::Rng rng(testing::test_seed("FixedCodebookGain.GarbageInputsStayInRange"));
  for (int trial = 0; trial < 2000; ++trial) {
    FcbEncoder e(trial % 2 ? 4 : 3);
    // Any rate code other than 4 takes the half-rate factor.
    if (trial % 2 == 0) e.enc->rate = static_cast<int16_t>(rng.next() % 4);
    int16_t c[54], exc[55];
    for (auto &s : c) s = static_cast<int16_t>(rng.next());
    for (auto &s : exc) s = static_cast<int16_t>(rng.next());
    exc[54] = 0x2468;
    const int16_t edges[4] = {8, -1, 32767, -32768};
    const int16_t acb = trial % 5 < 4 ? edges[trial % 5] : static_cast<int16_t>(rng.next());
    const int16_t g = static_cast<int16_t>(rng.next() % 2 ? rng.next() : rng.below(1500));
    const int idx = e.quant(acb, g, c, exc, 54);
    ASSERT_GE(idx, 0);
    ASSERT_LT(idx, e.enc->params->fcb_gain_count);
    ASSERT_EQ(exc[54], 0x2468);
    ASSERT_EQ(idx, e.quant(std::clamp<int>(acb, 0, 7), g)) << "acb " << acb;
  }
}

// ===========================================================================
// Residual-domain target

// The stated recursion in double precision: every intermediate is an integer
// below 2^53 (or such an integer over a power of two) and each rounding is
// floor(v + 1/2) at the same three points, so the model must agree exactly.
// The fixed-point sums wrap modulo 2^32, which changes nothing as long as
// each of the three final 32-bit values lies in [-2^31, 2^31), that is as
// long as t, e and r fit in 16 bits; otherwise the model returns false and
// the caller skips the case.
bool weight2_res_model(const int16_t *x2, const int16_t *a, const int16_t *aq, double *r) {
  double c1[10], c2[10];
  for (int k = 0; k < 10; ++k) {
    c1[k] = std::floor(a[k] * (kevrc_tbl_wfac_gamma_1[k] / 32768.0) + 0.5);  // a g1^(k+1), Q12
    c2[k] = std::floor(a[k] * (kevrc_tbl_wfac_gamma_2[k] / 32768.0) + 0.5);
  }
  double xh[10] = {}, eh[10] = {};
  xh[0] = eh[0] = r[0] = x2[0];
  for (int n = 1; n < 54; ++n) {
    double f = 0, p1 = 0, p2 = 0;
    for (int k = 0; k < 10; ++k) {
      f += aq[k] * xh[k];
      p1 += c1[k] * eh[k];
      p2 += c2[k] * eh[k];
    }
    // Aq(z): x2 + f / 4096, rounded to an integer (the 16 f of the recursion
    // is f / 4096 in units of the output).
    const double t = std::floor(x2[n] + f / 4096.0 + 0.5);
    const double e = std::floor(t - p1 / 32768.0 + 0.5);  // 1/A(z/g1) at 1/8 weight
    r[n] = std::floor(e + p2 / 32768.0 + 0.5);            // A(z/g2) at 1/8 weight
    for (double v : {t, e, r[n]}) {
      if (v < -32768 || v > 32767) return false;
    }
    std::memmove(xh + 1, xh, 9 * sizeof(double));
    std::memmove(eh + 1, eh, 9 * sizeof(double));
    xh[0] = x2[n];
    eh[0] = e;
  }
  return true;
}

// aq = (1.0, 0, ...), a = 0: r[n] = x2[n] + x2[n-1], wrapping at full scale:
// n = 1: 32767 * 65536 + 16 * 4096 * 32767 + 32768 wraps to -98304; cleared
// low half -131072; e = (-131072 + 32768) >> 16 = -2; r = (-2 * 65536 +
// 32768) >> 16 = -2, the low 16 bits of 65534 (the model above stops there).
TEST(Weight2Res, QuantizedNumeratorWrapsAtFullScale) {
  const int16_t zero[10] = {};
  const int16_t aq[10] = {4096};
  int16_t x2[54] = {32767, 32767}, r[55], scratch[20];
  kevrce_weight2_res(x2, zero, aq, r, scratch);
  EXPECT_EQ(r[0], 32767);
  EXPECT_EQ(r[1], -2);
  EXPECT_EQ(r[2], 32767);
}

TEST(Weight2Res, MatchesDoubleModelExactly) {
  testing::Rng rng(testing::test_seed("Weight2Res.MatchesDoubleModelExactly"));
  int checked = 0, loud = 0;
  for (int trial = 0; trial < 1000; ++trial) {
    int16_t a[10], aq[10], x2[54], r[55], scratch[20];
    testing::random_lpc(rng, a, 150);
    testing::random_lpc(rng, aq, 150);
    int amp = 1 + static_cast<int>(rng.below(2000));
    if (trial % 4 == 0) {
      // Loud and speech-like: noise through 1/Aq(z), scaled to a peak of
      // 8000..32000, so that Aq(z) x2 stays moderate.
      amp = 8000 + static_cast<int>(rng.below(24001));
      double s[54], peak = 1e-9;
      for (int n = 0; n < 54; ++n) {
        s[n] = random_sample(rng, 1000);
        for (int k = 1; k <= 10 && k <= n; ++k) s[n] -= aq[k - 1] / 4096.0 * s[n - k];
        peak = std::max(peak, std::fabs(s[n]));
      }
      for (int n = 0; n < 54; ++n) x2[n] = static_cast<int16_t>(std::lround(s[n] * amp / peak));
    } else {
      for (auto &s : x2) s = random_sample(rng, amp);
    }
    double model[54];
    if (!weight2_res_model(x2, a, aq, model)) continue;
    kevrce_weight2_res(x2, a, aq, r, scratch);
    for (int n = 0; n < 54; ++n) ASSERT_EQ(r[n], model[n]) << "trial " << trial << " n " << n;
    ++checked;
    loud += amp >= 8000;
  }
  std::printf("checked %d (%d with a peak of 8000 or more)\n", checked, loud);
  EXPECT_GT(checked, 900);
  EXPECT_GT(loud, 200);
}

TEST(Weight2Res, GarbageInputsStayInBounds) {
  testing::Rng rng(testing::test_seed("Weight2Res.GarbageInputsStayInBounds"));
  for (int trial = 0; trial < 500; ++trial) {
    int16_t a[10], aq[10], x2[54], r[55], scratch[22];
    for (auto &s : a) s = static_cast<int16_t>(rng.next());
    for (auto &s : aq) s = static_cast<int16_t>(rng.next());
    for (auto &s : x2) s = trial % 5 == 0 ? int16_t{-32768} : static_cast<int16_t>(rng.next());
    if (trial % 7 == 0) std::fill(a, a + 10, int16_t{-32768});
    r[54] = 0x0F0F;
    scratch[20] = scratch[21] = 0x7070;
    kevrce_weight2_res(x2, a, aq, r, scratch);
    ASSERT_EQ(r[54], 0x0F0F);  // 54 samples written, no more
    ASSERT_EQ(scratch[20], 0x7070);
    ASSERT_EQ(scratch[21], 0x7070);
  }
}

}  // namespace
}  // namespace kevrc
