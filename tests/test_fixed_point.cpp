// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Arithmetic primitives: the stated exact values, the building blocks against
// an int64 reference on every pair of edge values, and accuracy properties.
#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "common/fixed_point.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

const std::vector<int32_t> kEdges32 = {INT32_MIN, INT32_MIN + 1, -0x40000001, -0x40000000, -65537, -65536,
                                       -65535,    -32769,        -32768,      -32767,      -2,     -1,
                                       0,         1,             2,           32767,       32768,  65535,
                                       65536,     0x3FFFFFFF,    0x40000000,  0x7FFF0000,  0x7FFF8000,
                                       0x7FFFFFFE, INT32_MAX};
const std::vector<int16_t> kEdges16 = {-32768, -32767, -16384, -2, -1, 0, 1, 2, 16383, 16384, 32766, 32767};

int64_t wrap_ref(int64_t v) {
  v &= 0xFFFFFFFFll;
  return v >= 0x80000000ll ? v - 0x100000000ll : v;
}

TEST(Primitives, WrapAndSaturateMatchInt64Reference) {
  for (int32_t a : kEdges32) {
    for (int32_t b : kEdges32) {
      EXPECT_EQ(add32_wrap(a, b), wrap_ref(int64_t{a} + b)) << a << " " << b;
      EXPECT_EQ(sub32_wrap(a, b), wrap_ref(int64_t{a} - b)) << a << " " << b;
      EXPECT_EQ(mul32_wrap(a, b), wrap_ref(int64_t{a} * b)) << a << " " << b;
    }
    EXPECT_EQ(neg32_wrap(a), wrap_ref(-int64_t{a}));
    EXPECT_EQ(sat16(a), std::clamp<int64_t>(a, -32768, 32767));
    EXPECT_EQ(round16(a), wrap_ref(int64_t{a} + 0x8000) >> 16);
    EXPECT_EQ(round16_sat(a), std::clamp<int64_t>((int64_t{a} + 0x8000) >> 16, -32768, 32767));
    for (int n = 0; n < 40; ++n) {
      EXPECT_EQ(asr32(a, n), n >= 32 ? (a < 0 ? -1 : 0) : a >> n);
      if (n < 32) {
        EXPECT_EQ(shl32_wrap(a, n), wrap_ref(int64_t{a} * (int64_t{1} << n)));
      }
      const int64_t exact = a == 0 ? 0 : n >= 32 ? (a > 0 ? INT64_MAX : INT64_MIN) : int64_t{a} * (int64_t{1} << n);
      EXPECT_EQ(shl32_sat(a, n), std::clamp<int64_t>(exact, INT32_MIN, INT32_MAX)) << a << " << " << n;
    }
  }
  for (int16_t a : kEdges16) {
    for (int16_t b : kEdges16) {
      EXPECT_EQ(mul2_16(a, b), wrap_ref(2 * int64_t{a} * b));
      EXPECT_EQ(mul16_shr15_wrap(a, b), static_cast<int16_t>((int64_t{a} * b) >> 15)) << a << " " << b;
    }
  }
  EXPECT_EQ(mul16_shr15_wrap(-32768, -32768), -32768);  // 32768 wraps
  EXPECT_EQ(mul16_shr15_wrap(-1, 1), -1);               // the shift floors
}

// The multipliers written out in 64-bit arithmetic from their definition.
int32_t mul_32_32_ref(int32_t a, int32_t b) {
  const int64_t ah = a >> 16, al = (a >> 1) & 0x7FFF, bh = b >> 16, bl = (b >> 1) & 0x7FFF;
  return static_cast<int32_t>(wrap_ref(2 * ah * bh + ((ah * bl + al * bh + ((al * bl) >> 15)) >> 14)));
}
int32_t mul_32_16_ref(int32_t a, int16_t b) {
  const int64_t ah = a >> 16, al = (a >> 1) & 0x7FFF;
  return static_cast<int32_t>(wrap_ref(2 * ah * b + ((al * b) >> 14)));
}

TEST(Primitives, MultipliersStatedValues) {
  EXPECT_EQ(kevrc_mul_32_32(0x7FFFFFFF, 0x7FFFFFFF), 0x7FFFFFFC);
  EXPECT_EQ(kevrc_mul_32_32(1, 0x7FFFFFFF), 0);
  EXPECT_EQ(kevrc_mul_32_32(INT32_MIN, INT32_MIN), INT32_MIN);  // wraps, no saturation
  EXPECT_EQ(kevrc_mul_32_16(0x7FFFFFFF, 32767), 2147418110);
  EXPECT_EQ(kevrc_mul_32_16(INT32_MIN, -32768), INT32_MIN);
}

TEST(Primitives, MultipliersMatchReferenceAndApproximateTheProduct) {
  for (int32_t a : kEdges32) {
    for (int32_t b : kEdges32) EXPECT_EQ(mul_32_32(a, b), mul_32_32_ref(a, b)) << a << " " << b;
    for (int16_t b : kEdges16) EXPECT_EQ(mul_32_16(a, b), mul_32_16_ref(a, b)) << a << " " << b;
  }
  testing::Rng rng(testing::test_seed("MultipliersMatchReference"));
  for (int i = 0; i < 200000; ++i) {
    const auto a = static_cast<int32_t>(rng.next()), b = static_cast<int32_t>(rng.next());
    const auto c = static_cast<int16_t>(rng.next());
    ASSERT_EQ(mul_32_32(a, b), mul_32_32_ref(a, b));
    ASSERT_EQ(mul_32_16(a, c), mul_32_16_ref(a, c));
    // Truncating to within a few units of the exact product (bit 0 is dropped).
    if (!(a == INT32_MIN && b == INT32_MIN)) {
      const double exact = std::ldexp(static_cast<double>(a) * b, -31);
      ASSERT_LE(std::fabs(mul_32_32(a, b) - exact), 4.0) << a << " " << b;
    }
  }
}

TEST(Primitives, Div32StatedValuesAndQuirks) {
  EXPECT_EQ(kevrc_div_32_32(0x40000000, 0x7FFFFFFF), 0x3FFFFFFC);
  EXPECT_EQ(kevrc_div_32_32(0x3FFFFFFF, 0x40000000), 0x7FFFFFF0);
  EXPECT_EQ(kevrc_div_32_32(0x10000000, 0x50000000), 0x19999994);
  for (int32_t x : {0, 1, 0x1234567, 0x7FFFFFFF, -5}) {
    EXPECT_EQ(kevrc_div_32_32(x, 0x3FFF8000), 32767);  // plain 32767, not the Q31 maximum
    EXPECT_EQ(kevrc_div_32_32(x, 0x3FFEFFFF), 0);
    EXPECT_EQ(kevrc_div_32_32(x, -0x40000000), 0);
  }
  EXPECT_LT(kevrc_div_32_32(0x50000000, 0x40000000), 0);  // num >= den wraps
}

TEST(Primitives, Div32IsAccurateOnNormalisedOperands) {
  testing::Rng rng(testing::test_seed("Div32IsAccurate"));
  for (int i = 0; i < 100000; ++i) {
    const int32_t den = 0x40000000 + static_cast<int32_t>(rng.below(0x3FFFFFFF));
    const int32_t num = static_cast<int32_t>(rng.below(static_cast<uint32_t>(den)));
    const double exact = std::ldexp(static_cast<double>(num) / den, 31);
    ASSERT_LE(std::fabs(div_32_32(num, den) - exact), 64.0) << num << "/" << den;
  }
}

TEST(Primitives, Div16) {
  EXPECT_EQ(kevrc_div_16_16(1, 3), 10922);
  EXPECT_EQ(kevrc_div_16_16(0, 0), 32767);
  EXPECT_EQ(kevrc_div_16_16(5, 4), 0);
  EXPECT_EQ(kevrc_div_16_16(-1, 5), 0);
  EXPECT_EQ(kevrc_div_16_16(1, -5), 0);
  for (int den = 1; den <= 32767; den += 97)
    for (int num = 0; num < den; num += 13)
      ASSERT_EQ(div_16_16(static_cast<int16_t>(num), static_cast<int16_t>(den)), (num * 32768) / den);
}

int norm_ref(int32_t x) {
  if (x == 0) return 0;
  const uint32_t y = static_cast<uint32_t>(x < 0 ? ~x : x);
  return y == 0 ? 31 : std::countl_zero(y) - 1;
}

TEST(Primitives, Norm) {
  EXPECT_EQ(kevrc_norm_32(0), 0);
  EXPECT_EQ(kevrc_norm_32(-1), 31);
  EXPECT_EQ(kevrc_norm_32(1), 30);
  EXPECT_EQ(kevrc_norm_32(0x7FFFFFFF), 0);
  EXPECT_EQ(kevrc_norm_32(INT32_MIN), 0);
  EXPECT_EQ(kevrc_norm_16(0), 0);
  EXPECT_EQ(kevrc_norm_16(1), 14);
  EXPECT_EQ(kevrc_norm_16(-1), 15);
  EXPECT_EQ(kevrc_norm_16(-32768), 0);
  EXPECT_EQ(kevrc_norm_16(0x4000), 0);
  for (int v = -32768; v <= 32767; ++v) ASSERT_EQ(norm_16(static_cast<int16_t>(v)), norm_ref(v * 65536));
  for (int b = 0; b < 31; ++b) {
    for (int32_t d : {-1, 0, 1}) {
      const int32_t x = static_cast<int32_t>((int64_t{1} << b) + d);
      EXPECT_EQ(norm_32(x), norm_ref(x));
      EXPECT_EQ(norm_32(-x), norm_ref(-x));
    }
  }
  // The normalised value lands in the stated ranges.
  for (int32_t x : kEdges32) {
    if (x == 0 || x == -1) continue;
    const int32_t y = shl32_wrap(x, norm_32(x));
    EXPECT_TRUE(x > 0 ? y >= 0x40000000 : y <= -0x40000000) << x;
  }
}

TEST(Primitives, SquareRoot) {
  EXPECT_EQ(kevrc_squar_rt(0x7FFFFFFF), 32767);
  EXPECT_EQ(kevrc_squar_rt(0x40000000), 23188);
  EXPECT_EQ(kevrc_squar_rt(0x60000000), 28378);
  EXPECT_EQ(kevrc_squar_rt(0), 8064);  // outside the normalised range: the series' value
  for (int64_t x = 0x40000000; x <= 0x7FFFFFFF; x += 0x10001) {
    const double exact = std::sqrt(std::ldexp(static_cast<double>(x), -31)) * 32768.0;
    ASSERT_LE(std::fabs(squar_rt(static_cast<int32_t>(x)) - exact), 24.0) << x;
  }
  for (int32_t x : kEdges32) (void)kevrc_squar_rt(x);  // any input is defined
}

TEST(Primitives, InverseSquareRoot) {
  EXPECT_EQ(kevrc_inv_sqrt(1), 0x3FFF8000);
  EXPECT_EQ(kevrc_inv_sqrt(4), 0x1FFFC000);
  EXPECT_EQ(kevrc_inv_sqrt(0x40000000), 32767);
  EXPECT_EQ(kevrc_inv_sqrt(0x7FFFFFFF), 23170);
  EXPECT_EQ(kevrc_inv_sqrt(0), 0x3FFFFFFF);
  EXPECT_EQ(kevrc_inv_sqrt(-5), 0x3FFFFFFF);
  testing::Rng rng(testing::test_seed("InverseSquareRoot"));
  for (int i = 0; i < 100000; ++i) {
    const int32_t x = 1 + static_cast<int32_t>(rng.below(0x7FFFFFFF));
    const double exact = std::ldexp(1.0, 30) / std::sqrt(static_cast<double>(x));
    ASSERT_LE(std::fabs(inv_sqrt(x) / exact - 1.0), 5e-4) << x;  // linear interpolation between 48 steps
  }
}

TEST(Primitives, Logarithms) {
  EXPECT_EQ(kevrc_log2(0x40000000), -66519040);  // -0.99121: the coarse polynomial
  EXPECT_EQ(kevrc_log2(0x60000000), -27819008);
  EXPECT_EQ(kevrc_log2(0x7FFFFFFF), -436829);
  EXPECT_EQ(kevrc_log2(0), -43646976);
  EXPECT_EQ(kevrc_log(0x40000000), -46107390);
  EXPECT_EQ(kevrc_log10(0x40000000), -20023920);
  for (int64_t x = 1; x <= 0x7FFFFFFF; x = x * 3 / 2 + 1) {
    const double exact = std::log2(std::ldexp(static_cast<double>(x), -31));
    ASSERT_LE(std::fabs(std::ldexp(log2(static_cast<int32_t>(x)), -26) - exact), 0.01) << x;
  }
}

TEST(Primitives, BlockFloatAccumulation) {
  BlockFloat bf;
  for (int i = 0; i < 4; ++i) block_float_add(bf, 32767, 32767, 0x3FFFFFFF);
  // Each term 2*32767^2 ~ 2^31 enters shifted by the exponent; the sum halves
  // whenever it passes the limit, so it never overflows.
  EXPECT_GE(bf.exp, 3);
  EXPECT_LE(bf.sum, 0x3FFFFFFF);
  const double value = std::ldexp(static_cast<double>(bf.sum), bf.exp);
  EXPECT_NEAR(value / (4.0 * 2.0 * 32767.0 * 32767.0), 1.0, 1e-3);
  BlockFloat a{1000, 1}, b{1000, 40};  // exponent difference beyond 32
  block_float_align(a, b);
  EXPECT_EQ(a.exp, 40);
  EXPECT_EQ(a.sum, 0);
}

}  // namespace
}  // namespace kevrc
