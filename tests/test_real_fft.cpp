// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The 128-point real FFT of the noise suppressor and its twiddle table.
#include <algorithm>
#include <cmath>
#include <complex>
#include <vector>

#include "common/fixed_point.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

using Buffer = std::array<int16_t, 128>;
using Spectrum = std::vector<std::complex<double>>;

constexpr double kPi = 3.14159265358979323846;

// Plain O(N^2) DFT of 128 real samples, bins 0..64.
Spectrum dft(const Buffer &x) {
  Spectrum out(65);
  for (int k = 0; k <= 64; ++k) {
    std::complex<double> acc = 0;
    for (int n = 0; n < 128; ++n) acc += double(x[n]) * std::polar(1.0, -2 * kPi * k * n / 128);
    out[k] = acc;
  }
  return out;
}

// Bin k (0..64) of a forward-transform result, as a complex number.
std::complex<double> bin(const Buffer &b, int k) {
  if (k == 0) return b[0];
  if (k == 64) return b[1];
  return {double(b[2 * k]), double(b[2 * k + 1])};
}

Buffer random_buffer(testing::Rng &rng, int amplitude) {
  Buffer b;
  for (auto &s : b) s = static_cast<int16_t>(int(rng.below(2 * amplitude + 1)) - amplitude);
  return b;
}

TEST(RealFft, ForwardIsTheDftOver64) {
  testing::Rng rng(testing::test_seed("RealFft.ForwardIsTheDftOver64"));
  double worst = 0;
  for (int trial = 0; trial < 50; ++trial) {
    const Buffer x = random_buffer(rng, trial % 2 ? 8000 : 400);
    Buffer b = x;
    kevrce_r_fft(b.data(), 1);
    const Spectrum ref = dft(x);
    for (int k = 0; k <= 64; ++k) worst = std::max(worst, std::abs(bin(b, k) - ref[k] / 64.0));
  }
  // Six rounded stages and the rounded split: a few LSBs at most.
  // Each of the six halvings floors (a bias of up to 1/2 LSB per stage, the
  // later stages halving the earlier errors less), plus the rounded split:
  // about 4.5 LSB at worst.
  EXPECT_LT(worst, 6.0);
}

TEST(RealFft, RoundTripRestoresTheInput) {
  testing::Rng rng(testing::test_seed("RealFft.RoundTripRestoresTheInput"));
  double worst = 0, err2 = 0, sig2 = 0;
  for (int trial = 0; trial < 50; ++trial) {
    const Buffer x = random_buffer(rng, 16000);
    Buffer b = x;
    kevrce_r_fft(b.data(), 1);
    kevrce_r_fft(b.data(), -1);
    for (int n = 0; n < 128; ++n) {
      worst = std::max(worst, std::abs(double(b[n]) - x[n]));
      err2 += (double(b[n]) - x[n]) * (double(b[n]) - x[n]);
      sig2 += double(x[n]) * x[n];
    }
  }
  // The forward transform keeps 1/64 of the amplitude, so its rounding
  // errors come back 64 times larger: about 45 LSB at worst, 63.5 dB SNR.
  EXPECT_LT(worst, 80.0);
  EXPECT_GT(10 * std::log10(sig2 / err2), 58.0);
}

TEST(RealFft, ForwardStagesSaturateBeforeHalving) {
  // Complex pairs 0 and 32 at full scale (pair 32 lands next to pair 0 after
  // the bit reversal). Stage 0, twiddle (32767, 0):
  //   t = (32767 * 32767 + 16384) >> 15 = 32766; top = sat(32767 + 32766) = 32767,
  //   halved to 16383 (unsaturated it would be 32766); bottom = (32767 - 32766) >> 1 = 0.
  // The later five stages only halve: 16383 -> 8191 -> ... -> 511, copied to
  // every even pair; odd pairs stay 0.
  Buffer b{};
  b[0] = b[1] = b[64] = b[65] = 32767;
  kevrce_complex_fft(b.data(), 1);
  for (int k = 0; k < 64; ++k) {
    ASSERT_EQ(b[2 * k], k % 2 ? 0 : 511) << k;
    ASSERT_EQ(b[2 * k + 1], k % 2 ? 0 : 511) << k;
  }
  // Negative full scale: t = (-32768 * 32767 + 16384) >> 15 = -32767, top =
  // sat(-65535) = -32768 -> -16384 -> ... -> -512; bottom = -1 >> 1 = -1,
  // which stays -1 through every halving.
  b.fill(0);
  b[0] = b[1] = b[64] = b[65] = -32768;
  kevrce_complex_fft(b.data(), 1);
  for (int k = 0; k < 64; ++k) {
    ASSERT_EQ(b[2 * k], k % 2 ? -1 : -512) << k;
    ASSERT_EQ(b[2 * k + 1], k % 2 ? -1 : -512) << k;
  }
}

TEST(RealFft, FullScaleDcDoesNotOverflow) {
  // All pairs (32767, 32767): stage 0 saturates as above (16383), the later
  // stages give (16383 + 16383) >> 1 = 16383 at pair 0 and 0 elsewhere. The
  // split then adds the two halves of pair 0 without halving: 32766 (the
  // true DC / 64 would be 65534, beyond 16 bits).
  Buffer b;
  b.fill(32767);
  kevrce_r_fft(b.data(), 1);
  EXPECT_EQ(b[0], 32766);
  for (int i = 1; i < 128; ++i) ASSERT_EQ(b[i], 0) << i;
}

TEST(RealFft, DcAndHalfRateTermsAreNotHalved) {
  // x[n] = 8192 (-1)^n: every complex pair is (8192, -8192), all stages keep
  // pair 0 at (8192, -8192). Word 0 = 8192 + (-8192) = 0, word 1 = 8192 -
  // (-8192) = 16384 = 128 * 8192 / 64, while bins 1..63 are zero.
  Buffer b;
  for (int n = 0; n < 128; ++n) b[n] = n % 2 ? -8192 : 8192;
  kevrce_r_fft(b.data(), 1);
  EXPECT_EQ(b[0], 0);
  EXPECT_EQ(b[1], 16384);
  for (int i = 2; i < 128; ++i) ASSERT_EQ(b[i], 0) << i;

  // Inverse: word 0 = (1000 + (-3000)) >> 1 = -1000 and word 1 = (1000 -
  // (-3000)) >> 1 = 2000 form complex pair 0, which the unscaled inverse
  // copies to every pair: x = -1000, 2000, -1000, 2000, ...
  b.fill(0);
  b[0] = 1000;
  b[1] = -3000;
  kevrce_r_fft(b.data(), -1);
  for (int n = 0; n < 128; ++n) ASSERT_EQ(b[n], n % 2 ? 2000 : -1000) << n;
}

TEST(RealFft, Pair32IsItsOwnMirror) {
  // x[2n] = 8192 (-1)^n, x[2n+1] = 4096 (-1)^n: the complex transform puts
  // (8192, 4096) in pair 32 alone. Pair 32 is its own mirror (u = 2 * 4096,
  // v = 0, P = 2 * 8192 * 65536, D = 0, twiddles (0, -32768)): real
  // (P + 65536) >> 17 = 8192, imaginary (2 * 8192 * -32768 + 65536) >> 17 =
  // -4096, the conjugate, which is the DFT bin 32 / 64 of x.
  Buffer b;
  for (int n = 0; n < 64; ++n) {
    b[2 * n] = static_cast<int16_t>(n % 2 ? -8192 : 8192);
    b[2 * n + 1] = static_cast<int16_t>(n % 2 ? -4096 : 4096);
  }
  kevrce_r_fft(b.data(), 1);
  for (int i = 0; i < 128; ++i) ASSERT_EQ(b[i], i == 64 ? 8192 : i == 65 ? -4096 : 0) << i;

  // And back: pair 32 alone, v = 0, u = -(2 * -4096) = 8192: real 8192,
  // imaginary (2 * 8192 * 32768 + 65536) >> 17 = 4096, then the complex
  // inverse gives (-1)^n (8192, 4096) again.
  kevrce_r_fft(b.data(), -1);
  for (int n = 0; n < 64; ++n) {
    ASSERT_EQ(b[2 * n], n % 2 ? -8192 : 8192) << n;
    ASSERT_EQ(b[2 * n + 1], n % 2 ? -4096 : 4096) << n;
  }
}

TEST(RealFft, InverseStagesSaturate) {
  // Complex pairs 0 and 32 = (20000, -20000). Stage 0, twiddle (32767, 0):
  //   tr = (20000 * 32767 + 16384) >> 15 = 19999 (19999.9 floored),
  //   ti = (-20000 * 32767 + 16384) >> 15 = -19999 (-19998.9 floored);
  //   top = (sat 39999, sat -39999) = (32767, -32768), bottom = (1, -1).
  // The unscaled later stages copy the tops to the even pairs and (1, -1) to
  // the odd ones. Unsaturated the even pairs would be (39999, -39999).
  Buffer b{};
  b[0] = b[64] = 20000;
  b[1] = b[65] = -20000;
  kevrce_complex_fft(b.data(), -1);
  for (int k = 0; k < 64; ++k) {
    ASSERT_EQ(b[2 * k], k % 2 ? 1 : 32767) << k;
    ASSERT_EQ(b[2 * k + 1], k % 2 ? -1 : -32768) << k;
  }
}

}  // namespace
}  // namespace kevrc
