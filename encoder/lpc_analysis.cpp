// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrce_calculate_lpc(work): LPC coefficients of the current frame by the
// autocorrelation method (Hamming window, white-noise correction, Gaussian
// lag window, tenth-order Levinson-Durbin recursion in Q28).
//
// in:  work->speech[160..319], the current frame (int16).
// out: work->windowed[0..159], the frame times the analysis window (int16);
//      work->r[0..16], the autocorrelation at lags 0..16, normalised: r[0] is
//        the energy times 1.00003/2 brought to [2^29, 2^30] unless the frame
//        is silent; r[1..16] carry the same scale and the lag window;
//      work->lpc[0..9], a1..a10 in Q12 (before bandwidth expansion), all zero
//        when r[0] < 2, in which case work->residual_mem[0..9] is cleared too.
// returns the shift (n0 + 3) - (e - 1) with n0 the normalisation of r[0] and
//   e the exponent of the energy sum: r[k] >> shift is sum x[i]x[i+k] / 8 (x
//   the windowed frame), the common scale of every frame. It lies in -5..32:
//   negative for very loud frames, 32 for a frame with a single unit of energy.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "common/tables.h"
#include "encoder/encoder_state.h"

using namespace kevrc;

namespace {

constexpr int kOrder = 10;
constexpr int kLags = 16;
constexpr int kLen = 160;
constexpr int32_t kEnergyLimit = 0x40000000;      // the energy sum is halved above this
constexpr int32_t kNoiseCorrection = 0x40007DD4;  // 1.00003/2 in Q31
constexpr int32_t kPredictionLimit = 1 << 30;     // magnitude limit of the Levinson sums

// x[i] = speech[i] * w[i], rounded to 16 bits (|x| <= 32767 since w < 32768).
void apply_window(const int16_t *speech, int16_t *x) {
  for (int i = 0; i < kLen; ++i) x[i] = round16(mul2_16(kevrce_tbl_analysis_window[i], speech[i]));
}

// sum over i of (2 x[i] x[i+lag]) >> shift, 32-bit wrapping. Plain loops
// the compiler vectorizes: without a shift a wrapping sum of products
// (doubled once at the end); with one, a shift of 32 or more fills with the
// sign as a shift by 31 does.
int32_t lag_product(const int16_t *x, int lag, int shift) {
  if (shift == 0) {
    Mac2Wrap sum;
    for (int i = 0; i < kLen - lag; ++i) sum.add(x[i], x[i + lag]);
    return sum.value();
  }
  const int n = shift < 31 ? shift : 31;
  int32_t s = 0;
  for (int i = 0; i < kLen - lag; ++i) s = add32_wrap(s, mul2_16(x[i], x[i + lag]) >> n);
  return s;
}

// S = sum over j < i of r[i-j] * a[j] (Q28 x Q31 -> Q28) as a signed
// block-floating sum, returned in Q31 (shifted left by its exponent plus 3).
int32_t prediction(const int32_t *r, const int32_t *a, int i) {
  int32_t sum = 0;
  int exp = 1;
  for (int j = 0; j < i; ++j) {
    sum = add32_wrap(sum, asr32(mul_32_32(r[i - j], a[j]), exp));
    if (sum > kPredictionLimit || sum < -kPredictionLimit) {
      sum >>= 1;
      ++exp;
    }
  }
  return shl32_wrap(sum, exp + 3);
}

// k = s / e in Q31, with e normalised for the division and the sign handled
// outside it.
int32_t reflection(int32_t s, int32_t e) {
  const int16_t m = norm_32(e);
  const int32_t den = shl32_wrap(e, m);
  if (s >= 0) return shl32_wrap(div_32_32(s, den), m);
  return neg32_wrap(shl32_wrap(div_32_32(neg32_wrap(s), den), m));
}

// a[j] -= k * a[i-1-j] for j < i, each exact in 64 bits and clamped to 32 bits.
void update_predictor(int32_t *a, int i, int32_t k) {
  int32_t t[kOrder];
  for (int j = 0; j < i; ++j) t[j] = sat32(int64_t{a[j]} - mul_32_32(k, a[i - 1 - j]));
  std::memcpy(a, t, sizeof(int32_t) * static_cast<size_t>(i));
}

// Predictor a[0..9] (Q28, x[n] ~ sum a[j] x[n-1-j]) from r[0..10], r[0] >= 2.
// An order whose error has fallen below r[0]/1024 (30 dB) gets k = 0.
void levinson_durbin(const int32_t *r, int32_t *a) {
  int32_t err = r[0];
  const int32_t err_floor = r[0] >> 10;
  for (int i = 0; i < kOrder; ++i) {
    a[i] = 0;
    if (err < err_floor) continue;
    const int32_t s = sub32_wrap(r[i + 1], prediction(r, a, i));
    const int32_t k = reflection(s, err);
    update_predictor(a, i, k);
    err = sub32_wrap(err, mul_32_32(s, k));
    a[i] = add32_wrap(k, 4) >> 3;  // Q31 -> Q28, rounded
  }
}

// lpc = -a rounded to Q12. For a1..a9 a rounded -32768 (which would negate to
// 32768) gives 32767; a10 is negated without that check (it is at most 1.0
// in Q28 and cannot reach it).
void predictor_to_lpc(const int32_t *a, int16_t *lpc) {
  for (int j = 0; j < kOrder - 1; ++j) {
    const int16_t v = round16(a[j]);
    lpc[j] = v == -32768 ? int16_t{32767} : static_cast<int16_t>(-v);
  }
  lpc[kOrder - 1] = wrap16(-int32_t{round16(a[kOrder - 1])});
}

}  // namespace

extern "C" int16_t kevrce_calculate_lpc(kevrce_work *work) {
  int16_t *x = work->windowed;
  int32_t *r = work->r;
  apply_window(&work->speech[kLen], x);

  BlockFloat energy;  // sum of 2 x^2, halved above 0x40000000
  if (!block_float_fast(x, x, kLen, kEnergyLimit, energy))
    for (int i = 0; i < kLen; ++i) block_float_add(energy, x[i], x[i], kEnergyLimit);
  const int32_t twice = shl32_wrap(energy.sum, 1);
  const int16_t n0 = norm_32(twice);
  r[0] = mul_32_32(shl32_wrap(twice, n0), kNoiseCorrection);
  for (int k = 1; k <= kLags; ++k) {
    const int32_t s = lag_product(x, k, energy.exp - 1);
    r[k] = mul_32_32(shl32_wrap(s, n0), kevrce_tbl_lag_window[k - 1]);
  }

  if (r[0] < 2) {
    std::memset(work->lpc, 0, sizeof work->lpc);
    std::memset(work->residual_mem, 0, sizeof work->residual_mem);
  } else {
    int32_t a[kOrder];
    levinson_durbin(r, a);
    predictor_to_lpc(a, work->lpc);
  }
  return static_cast<int16_t>(n0 + 3 - (energy.exp - 1));
}
