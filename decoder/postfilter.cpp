// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Adaptive postfilter of one decoded subframe.
//
// kecrcd_apf(dec, delay, n): reads the subframe's synthesis s = work->syn[0..n)
//   and its LPC vector work->lpc (Q12), writes work->apf_out[0..n). delay is
//   the subframe's pitch delay in Q16, n its length (1..54; other lengths do
//   nothing). Stages, with rate-dependent strength (work->rate):
//   1. tilt filter 1 - mu z^-1 (mu = 0 when s is negatively correlated);
//   2. the zero part A(z/g_num) of the short-term filter, to the residual r;
//   3. long-term filter in the residual domain: r + 0.5 g r(-T), T searched
//      around the delay, only when the normalised pitch gain g is above 1/2;
//   4. gain control: the residual is scaled so that its synthesis 1/A(z/g_den)
//      has the energy of s; then the synthesis itself.
//   Persistent: tilt memory, numerator and synthesis memories, and a residual
//   history of 128 samples. Block-floating sums (2*x*y terms, halved above
//   0x3FFFFFFF) carry the correlations and energies.
// kevrcd_apf_weight(f_num, f_den, num, den, lpc): num[k] = lpc[k]*f_num[k],
//   den[k] = lpc[k]*f_den[k] (Q15 factors, rounded).
// kevrcd_apf_loop(mem, in, mu, n, out): out[i] = in[i] - mu*in[i-1] (mu Q15).
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "decoder/decoder_state.h"

using namespace kevrc;

namespace {

constexpr int32_t kBlockLimit = 0x3FFFFFFF;
constexpr int kMaxLag = 120;

BlockFloat correlate(const int16_t *a, const int16_t *b, int n) {
  BlockFloat bf;
  if (block_float_fast(a, b, n, kBlockLimit, bf)) return bf;
  for (int i = 0; i < n; ++i) block_float_add(bf, a[i], b[i], kBlockLimit);
  return bf;
}

struct RateSettings {
  const int16_t *f_num;
  const int16_t *f_den;
  int16_t mu;
  int16_t pitch_factor;
};

RateSettings settings_for(int rate) {
  switch (rate) {
    case 4: return {kevrcd_tbl_wfac_alpha, kevrcd_tbl_wfac_beta, 6554, 16384};    // mu 0.2, 0.5
    case 3: return {kevrc_tbl_wfac_gamma_2, kevrcd_tbl_wfac_beta, 11469, 16384};  // mu 0.35, 0.5
    case 1: return {kevrcd_tbl_wfac_alpha, kevrcd_tbl_wfac_alpha, 0, 0};  // short-term cancels
    default: return {nullptr, nullptr, 0, 0};
  }
}

// Best lag of the residual's block-floating autocorrelation near the delay;
// ties keep the smaller lag, and the delay itself wins when nothing is positive.
// found is set when the returned lag's correlation was computed (then held in
// corr; the sum is symmetric in its two arguments).
int search_lag(const int16_t *r, int n, int t0, BlockFloat &corr, bool &found) {
  const int lo = t0 <= 22 ? 20 : t0 - 3;
  const int hi = t0 <= kMaxLag - 3 ? t0 + 3 : kMaxLag;
  BlockFloat best;  // 0 with exponent 1
  int best_lag = t0;
  found = false;
  for (int lag = lo; lag <= hi; ++lag) {
    const BlockFloat cand = correlate(r, r - lag, n);
    if (lag == best_lag) {
      corr = cand;
      found = true;
    }
    BlockFloat a = cand;
    BlockFloat b = best;
    block_float_align(a, b);
    if (a.sum > b.sum) {
      best = cand;
      best_lag = lag;
      corr = cand;
      found = true;
    }
  }
  return best_lag;
}

// Pitch gain in Q31 for lag t, or 0 when the long-term filter stays off;
// x_known, when given, is the correlation of r(-t) with r.
int32_t pitch_gain(const int16_t *r, int n, int t, const BlockFloat *x_known) {
  BlockFloat e = correlate(r - t, r - t, n);
  BlockFloat x = x_known != nullptr ? *x_known : correlate(r - t, r, n);
  block_float_align(e, x);
  if (e.sum == 0 || x.sum == 0 || (x.sum < 0 && e.sum > x.sum)) return 0;
  int32_t g = 0x7FFFFFFF;
  if (e.sum > x.sum) {
    const int k = norm_32(e.sum);
    g = div_32_32(shl32_wrap(x.sum, k), shl32_wrap(e.sum, k));
  }
  return g > 0x3FFFFFFF ? g : 0;
}

// 0.5*sqrt(es/eq) in Q31 (es, eq aligned, eq > 0).
int32_t agc_gain(int32_t es, int32_t eq) {
  const int k = norm_32(eq);
  const int32_t d = shl32_wrap(eq, k);
  const int j = k - 2;
  const int32_t m = j <= 0 ? asr32(es, -j) : shl32_sat(es, j);
  int32_t q = div_32_32(m, d);  // es / (4 eq) in Q31
  const int e = norm_32(q);
  if (e > 0) q = shl32_sat(q, e);
  const int16_t t = squar_rt(q);
  int32_t g = (e & 1) != 0 ? 2 * t * 23170 : t * 65536;  // 23170: 1/sqrt(2) in Q15
  return g >> (e >> 1);
}

// mul_32_16(a, b) for one a and many b: a's high and low parts are split
// once, and each product is then two 16 x 16 products (vectorizable).
struct Scale {
  int16_t high, low;
  explicit Scale(int32_t a) : high(static_cast<int16_t>(hi16(a))), low(static_cast<int16_t>(lo15(a))) {}
  int32_t times(int16_t b) const { return add32_wrap(shl32_wrap(mul16(high, b), 1), mul16(low, b) >> 14); }
};

}  // namespace

extern "C" void kevrcd_apf_weight(const int16_t *f_num, const int16_t *f_den, int16_t *num,
                                  int16_t *den, const int16_t *lpc) {
  for (int k = 0; k < 10; ++k) {
    num[k] = wrap16((lpc[k] * f_num[k] + 16384) >> 15);
    den[k] = wrap16((lpc[k] * f_den[k] + 16384) >> 15);
  }
}

extern "C" void kevrcd_apf_loop(int16_t *mem, const int16_t *in, int16_t mu, int16_t n, int16_t *out) {
  const auto at = [](const int16_t *ptr) { return reinterpret_cast<uintptr_t>(ptr); };
  if (n > 0 && (at(out + n) <= at(in) || at(in + n) <= at(out))) {
    // Separate arrays: every input is read as it was, so the loop vectorizes.
    out[0] = round16(sub32_wrap(shl32_wrap(in[0], 16), mul2_16(*mem, mu)));
    for (int i = 1; i < n; ++i) out[i] = round16(sub32_wrap(shl32_wrap(in[i], 16), mul2_16(in[i - 1], mu)));
    *mem = in[n - 1];
    return;
  }
  for (int i = 0; i < n; ++i) {
    out[i] = round16(sub32_wrap(shl32_wrap(in[i], 16), mul2_16(*mem, mu)));
    *mem = in[i];  // read after the output is written (matters when out is in)
  }
}

extern "C" void kecrcd_apf(kevrcd_instance *dec, int32_t delay, int16_t n) {
  if (n < 1 || n > kMaxSubframe) return;
  kevrcd_work *w = dec->work;
  kevrcd_apf_state &ps = dec->st.apf;
  const int16_t *s = w->syn;

  const RateSettings rs = settings_for(w->rate);
  if (rs.f_num != nullptr) kevrcd_apf_weight(rs.f_num, rs.f_den, w->apf_num, w->apf_den, w->lpc);

  // Tilt: off when neighbouring samples are negatively correlated.
  // The sum of the terms p = mul2_16(s[i], s[i+1]) in two 32-bit parts:
  // sum(p >> 8) * 256 + sum(p & 255), exact for n <= 54 (|p| <= 2^31), in a
  // loop the compiler vectorizes.
  int16_t mu = rs.mu;
  int32_t tilt_high = 0, tilt_low = 0;
  for (int i = 0; i + 1 < n; ++i) {
    const int32_t p = mul2_16(s[i], s[i + 1]);
    tilt_high += p >> 8;
    tilt_low += p & 255;
  }
  if (n - 1 >= 1 && int64_t{tilt_high} * 256 + tilt_low < 0) mu = 0;

  kevrcd_apf_loop(&ps.tilt_mem, s, mu, n, w->apf_r);
  kevrc_fir(w->apf_r, w->apf_num, ps.num_mem, n, w->apf_r);

  // Residual with its history; always 54 samples (a 53-sample subframe copies
  // the scratch sample behind it too).
  std::memcpy(&ps.res[kAcbMemory], w->apf_r, kMaxSubframe * sizeof(int16_t));
  const int16_t *r = &ps.res[kAcbMemory];

  const int t0 = static_cast<int16_t>(static_cast<uint32_t>(add32_wrap(delay, 0x8000)) >> 16);
  BlockFloat lag_corr;
  bool lag_corr_found = false;
  const int lag = search_lag(r, n, t0, lag_corr, lag_corr_found);
  // In the decoder the lag is 0..120; other values (only from direct calls)
  // would read outside the history and leave the long-term filter off.
  const int32_t g = w->rate != 1 && lag >= 0 && lag <= kAcbMemory
                        ? pitch_gain(r, n, lag, lag_corr_found ? &lag_corr : nullptr)
                        : 0;
  if (g != 0) {
    const Scale scaled(mul_32_16(g, rs.pitch_factor));
    for (int i = 0; i < n; ++i) w->apf_p[i] = add16_wrap(r[i], round16(scaled.times(r[i - lag])));
  } else {
    std::memcpy(w->apf_p, r, n * sizeof(int16_t));
  }

  // Gain control against a trial synthesis on a copy of the memory.
  std::memcpy(w->apf_q, w->apf_p, n * sizeof(int16_t));
  std::memcpy(w->apf_mem_copy, ps.syn_mem, sizeof ps.syn_mem);
  kevrc_iir(w->apf_q, w->apf_den, w->apf_mem_copy, n, w->apf_q);
  BlockFloat es = correlate(s, s, n);
  BlockFloat eq = correlate(w->apf_q, w->apf_q, n);
  block_float_align(es, eq);
  if (eq.sum != 0) {
    const Scale gain(agc_gain(es.sum, eq.sum));
    for (int i = 0; i < n; ++i) w->apf_p[i] = round16(shl32_wrap(gain.times(w->apf_p[i]), 1));
  }

  kevrc_iir(w->apf_p, w->apf_den, ps.syn_mem, n, w->apf_out);
  kevrc_mcpy_acbsize(&ps.res[n], ps.res);
}
