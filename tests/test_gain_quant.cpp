// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
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

// 2048 (1.0 in Q11) followed by zeros: filtering with it leaves a vector as it is.
const std::array<int16_t, 55> kUnit = [] {
  std::array<int16_t, 55> h{};
  h[0] = 2048;
  return h;
}();

// Runs the closed-loop gain (v scaled in place); returns {index, gain}.
std::array<int16_t, 2> cl_gain(const int16_t *h, const int16_t *x, int n, int16_t *v) {
  int16_t gain = -1, index = -1;
  kevrce_cal_cl_gain(h, x, static_cast<int16_t>(n), v, &gain, &index);
  return {index, gain};
}

// ===========================================================================
// Closed-loop adaptive-codebook gain and the convolution

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
TEST(FixedCodebookGain, IndexWhereTheQ16ConstantDecides) {
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

// ===========================================================================
// Residual-domain target

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

}  // namespace
}  // namespace kevrc
