// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The shared Gaussian noise generator (see common/gauss_noise.h for the
// arguments): one Q13 sample per call, the polar method on a 16-bit linear
// congruential sequence, with a sum of three uniforms when a draw falls
// outside the unit circle.
#include "common/gauss_noise.h"

#include "common/fixed_point.h"

namespace kevrc {
namespace {

// seed * 50346 + 27698 for a 16-bit seed (fits in 32 bits).
int32_t lcg_product(int32_t seed) { return int32_t{static_cast<int16_t>(seed)} * 50346 + 27698; }
int32_t lcg_step(int32_t seed) { return lcg_product(seed) >> 1; }

// A Q15 uniform in [-32768, 32766] from a sequence value.
int32_t uniform_q15(int32_t t) { return (t & 65534) - 32768; }

// u*u in Q30; the square of -32768 is taken as 2^30 - 1.
int32_t square_q30(int32_t u) { return u == -32768 ? 1073741823 : u * u; }

// v shifted left with 32-bit saturation, or right (arithmetic) for shift < 0.
int32_t scale(int32_t v, int shift) { return shift < 0 ? asr32(v, -shift) : shl32_sat(v, shift); }

// (v + 0x8000) >> 16, saturated to 16 bits.
int16_t round_to_q13(int32_t v) { return sat16_64((int64_t{v} + 32768) >> 16); }

// sqrt(-2 ln(s) / s) for s = s_q30 / 2^30 in (0, 1), as a Q15 mantissa
// normalised to 16384..32767 and a shift: applying it to a 2*u*rn product
// (Q31) with that shift gives the Gaussian in Q29.
void polar_factor(int32_t s_q30, int16_t *rn, int *shift) {
  const int32_t s_q31 = s_q30 * 2;
  const int32_t ln = neg32_wrap(kevrc::log(s_q31));  // -ln(s), Q26
  const int e = norm_32(s_q31);
  const int32_t m = static_cast<int32_t>((int64_t{s_q31} * (int64_t{1} << e) + 32768) >> 16);
  const int32_t num = asr32(add32_wrap(ln, 32768), 16) * 32768;
  const int16_t q = m == 0 ? 0 : wrap16(num / m);  // -ln(s)/s * 2^(10-e), Q10 mantissa
  const int f = norm_32(shl32_wrap(q, 16));
  int16_t r = squar_rt(shl32_wrap(shl32_wrap(q, f), 16));
  int x;
  if (((e - f) & 1) != 0) {
    x = e - f + 7;
    r = static_cast<int16_t>((r * 23170) >> 15);  // 1/sqrt(2) in Q15
  } else {
    x = e - f + 6;
  }
  const int h = x >> 1;
  const int g = norm_32(shl32_wrap(r, 16));
  *rn = wrap16(shl32_wrap(r, g));
  *shift = h - g - 2;
}

}  // namespace

int16_t gauss_noise(int16_t *seed, int16_t *pair_flag, int32_t *held) {
  if (*pair_flag != 0) {
    *pair_flag = 0;
    const int64_t rounded = int64_t{*held} + 32768;
    return rounded >= (int64_t{1} << 31) ? 32767 : static_cast<int16_t>(rounded >> 16);
  }
  const int32_t t1 = lcg_step(*seed);
  const int32_t u1 = uniform_q15(t1);
  const int32_t t2 = lcg_step(t1);
  const int32_t u2 = uniform_q15(t2);
  *seed = static_cast<int16_t>(t2);
  const int32_t t3 = lcg_product(t2);
  const int16_t fallback = wrap16((u2 >> 3) + (u1 >> 3) + ((((t3 >> 2) & 32767) - 16384) >> 2));

  const int32_t s = square_q30(u1) + square_q30(u2);  // < 2^31
  const bool both_min = u1 == -32768 && u2 == -32768;
  if (both_min || s == 0 || s >= (int32_t{1} << 30)) {
    *seed = static_cast<int16_t>(t3 >> 1);
    return fallback;
  }
  int16_t rn;
  int shift;
  polar_factor(s, &rn, &shift);
  *held = scale(mul2_16(static_cast<int16_t>(u1), rn), shift);
  *pair_flag = 1;
  return round_to_q13(scale(mul2_16(static_cast<int16_t>(u2), rn), shift));
}

}  // namespace kevrc
