// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Eighth-rate excitation coding: one 8-bit index of a three-value energy
// vector per frame, and the Gaussian noise excitation that the decoder will
// build from it.
//
// kevrce_imp_res_gain(h, L): h (in) the Q11 impulse response of the
//   subframe's synthesis filter, L (0..54) samples summed; returns about
//   sqrt(sum of h^2) as a 16-bit gain (Q11 scale, saturated).
// kevrce_lbr_energy(gain, residual, L): the subframe's log-domain energy
//   (the search table's domain) from its L residual samples and the gain.
// kevrce_lbr_search(energy): the row of kevrce_tbl_energy_search nearest to
//   energy[0..2] (squared error, ties to the higher row), 0..255.
// kevrce_calcexc_lbr(enc, gain, residual, L, keep_seed, subframe, exc, index):
//   stores the subframe's energy in enc->lbr_energy[subframe]; at subframe 2
//   searches the index (written to *index), replaces enc->lbr_energy by the
//   row's gains and writes 128 noise samples into exc. keep_seed 0 resets the
//   generator's seed first. subframe is 0..2; other values only measure.
//   In the quality mode (enc->robust != 0) the subframe's energy is instead
//   the one at which the decoder's noise through the subframe's quantized
//   synthesis filter (enc->work->aq, Q12) has the level of the coded input
//   samples (enc->work->speech[80 + 53 * subframe], L of them): the residual
//   measure misses the synthesis filter's power gain, which differs from
//   one background to another.
#include <algorithm>
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

constexpr int16_t kFirstNoiseSeed = 1234;
constexpr int kExcitationLen = 128;
constexpr int kCodedStart = 80;         // an eighth-rate frame codes analysis samples 80..239
constexpr int kPowerGainLen = 160;      // impulse-response samples summed for the power gain
constexpr int64_t kResponseLimit = int64_t{1} << 24;  // |h| bound (Q11) before squaring
// log2 of the wanted gain = kGainOffset + (log2 Ein - log2 L - log2 Pg) / 2, in
// Q26: 2^20 (the excitation's >> 20) times 2^11 (Pg's Q22 root) over the
// generator's RMS of 7903 (Q13): 31 - log2(7903) = 18.052.
constexpr int64_t kGainOffsetQ26 = 1211436818;  // 18.0518 in Q26
// The search table holds 8192 * log10(gain) - 17261 (fitted over its 768
// values, within 30): log10(2) in Q15 and that offset.
constexpr int64_t kLog10Of2Q15 = 9864;
constexpr int64_t kSearchOffset = 17261;

// r * 2^-k with the saturating and sign conventions of the gain scaling.
int16_t scale_gain(int16_t r, int k) {
  if (r == 0 || k == 0) return r;
  if (k > 0) {
    if (k >= 15) return r < 0 ? -1 : 0;
    return static_cast<int16_t>(r >> k);
  }
  if (k < -14) return r > 0 ? 32767 : -32768;
  return sat16(int32_t{r} * (int32_t{1} << -k));
}

// Sum of |x[n]| over n < L, doubled (at most 2 * 54 * 32768).
int32_t doubled_abs_sum(const int16_t *x, int16_t L) {
  int32_t s = 0;
  for (int n = 0; n < L; ++n) s += x[n] < 0 ? -int32_t{x[n]} : x[n];
  return 2 * s;
}

// The measured level (residual magnitude over the filter gain) in the log domain.
int16_t energy_from_level(int16_t gain, int32_t abs_sum) {
  const int32_t a = int32_t{gain} * 108;
  const int e1 = norm_32(a);
  const int e2 = norm_32(abs_sum) - 1;
  // Both operands are normalised, so the rounding is done exactly (no wrap).
  const auto a16 = static_cast<int32_t>((int64_t{a} * (int64_t{1} << e1) + 32768) >> 16);
  const auto b16 = static_cast<int32_t>((int64_t{abs_sum} * (int64_t{1} << e2) + 32768) >> 16);
  const int16_t q = a16 == 0 ? 0 : wrap16((b16 * 32768) / a16);
  const int k = static_cast<int16_t>(e1 - e2);
  const int32_t v = k >= 0 ? shl32_wrap(q, k > 31 ? 31 : k) : asr32(q, -k);
  const int32_t lg = kevrc::log10(shl32_wrap(v, 16));
  const int32_t t = add32_wrap(shl32_wrap(add32_wrap(lg, 141412467), 3), 969485490);
  return wrap16(static_cast<int32_t>((int64_t{t} + 32768) >> 16));
}

// The level of a subframe too quiet to measure: from the filter gain alone.
int16_t energy_from_gain(int16_t gain) {
  const int32_t lg = kevrc::log10(shl32_wrap(gain, 16));
  const int32_t t = sub32_wrap(-484942745, shl32_wrap(lg, 3));
  return wrap16(static_cast<int32_t>((int64_t{t} + 32768) >> 16));
}

// 128 noise samples, scaled by the gain of the subframe each falls in.
void noise_excitation(kevrce_instance *enc, const int16_t *gains, int16_t L, int16_t *exc) {
  const int span = L > 1 ? L - 1 : 1;
  for (int n = 0; n < kExcitationLen - 1; ++n) {
    int k = (n + 32) / span;
    if (k > 2) k = 2;
    const int16_t g = kevrce_gauss_noise(enc);
    exc[n] = wrap16(static_cast<int32_t>((int64_t{g} * gains[k] + 524288) >> 20));
  }
  const int16_t g = kevrce_gauss_noise(enc);
  exc[kExcitationLen - 1] = wrap16(static_cast<int32_t>((int64_t{g} * gains[2] + 524288) >> 20));
}

// log2(v) for v > 0 in Q26, from the normalised primitive.
int64_t log2_q26(int64_t v) {
  int p = 0;
  while (v >= (int64_t{1} << 31)) {
    v >>= 1;
    ++p;
  }
  const int n = norm_32(static_cast<int32_t>(v));
  const int32_t x = shl32_wrap(static_cast<int32_t>(v), n);  // 2^30 .. 2^31 - 1
  return int64_t{kevrc::log2(x)} + (int64_t{31 + p - n} << 26);
}

// Power gain of 1/A(z), lpc in Q12: the sum of the squared first 160 samples
// of its impulse response, in Q22 (the response is kept in Q11, 32-bit).
int64_t synthesis_power_gain(const int16_t *lpc) {
  int64_t h[kPowerGainLen];
  int64_t power = 0;
  for (int i = 0; i < kPowerGainLen; ++i) {
    int64_t acc = i == 0 ? int64_t{2048} * 4096 : 0;  // 1.0 in Q11, times 4096 for the Q12 taps
    for (int k = 1; k <= 10 && k <= i; ++k) acc -= int64_t{lpc[k - 1]} * h[i - k];
    h[i] = std::clamp<int64_t>((acc + 2048) >> 12, -kResponseLimit, kResponseLimit);
    power += h[i] * h[i];
  }
  return power;
}

// The subframe's energy (search-table domain) at which the decoded noise
// matches the energy of the L input samples x.
int16_t signal_matched_energy(const int16_t *x, int16_t L, const int16_t *lpc) {
  int64_t e_in = 1;
  for (int n = 0; n < L; ++n) e_in += int64_t{x[n]} * x[n];
  const int64_t half = (log2_q26(e_in) - log2_q26(L > 0 ? L : 1) - log2_q26(synthesis_power_gain(lpc))) / 2;
  const int64_t log2_gain = kGainOffsetQ26 + half;                    // Q26
  const int64_t log10_q13 = (log2_gain * kLog10Of2Q15) >> (26 + 15 - 13);  // 8192 * log10(gain)
  return sat16_64(log10_q13 - kSearchOffset);
}

}  // namespace
}  // namespace kevrc

extern "C" int16_t kevrce_imp_res_gain(const int16_t *h, int16_t L) {
  using namespace kevrc;
  int32_t energy = 0;
  for (int n = 0; n < L; ++n) energy = add32_wrap(energy, mul2_16(h[n], h[n]));
  const int e = norm_32(energy);
  int16_t r = squar_rt(shl32_wrap(energy, e));
  if ((e & 1) != 0) r = static_cast<int16_t>((r * 23170) >> 15);  // 1/sqrt(2) in Q15
  return scale_gain(r, (e >> 1) - 1);
}

extern "C" int16_t kevrce_lbr_energy(int16_t gain, const int16_t *residual, int16_t L) {
  using namespace kevrc;
  const int32_t s = L > 0 ? doubled_abs_sum(residual, L) : 0;
  return s > 53 ? energy_from_level(gain, s) : energy_from_gain(gain);
}

extern "C" int16_t kevrce_lbr_search(const int16_t *energy) {
  using namespace kevrc;
  int32_t best = INT32_MAX;
  int16_t index = 0;
  for (int j = 255; j >= 0; --j) {
    int64_t d = 0;
    for (int k = 0; k < 3; ++k) {
      const int16_t diff = sub16_wrap(energy[k], kevrce_tbl_energy_search[3 * j + k]);
      d += 2 * int64_t{mul16(diff, diff)};
    }
    const int32_t dist = sat32(d);
    if (dist < best) {
      best = dist;
      index = static_cast<int16_t>(j);
    }
  }
  return index;
}

extern "C" void kevrce_calcexc_lbr(kevrce_instance *enc, int16_t gain, const int16_t *residual,
                                   int16_t L, int16_t keep_seed, int16_t subframe, int16_t *exc,
                                   int16_t *energy_index) {
  using namespace kevrc;
  if (keep_seed == 0) enc->noise_seed = kFirstNoiseSeed;
  if (subframe < 0 || subframe > 2) return;
  enc->lbr_energy[subframe] = kevrce_lbr_energy(gain, residual, L);
  if (enc->robust != 0 && L > 0 && L <= 54) {
    const int16_t *x = &enc->work->speech[kCodedStart + 53 * subframe];
    enc->lbr_energy[subframe] = signal_matched_energy(x, L, enc->work->aq);
  }
  if (subframe != 2) return;
  std::memcpy(enc->work->lbr_measured, enc->lbr_energy, sizeof enc->lbr_energy);
  const int16_t index = kevrce_lbr_search(enc->lbr_energy);
  *energy_index = index;
  std::memcpy(enc->lbr_energy, &kevrc_tbl_energy_gain[3 * index], sizeof enc->lbr_energy);
  noise_excitation(enc, enc->lbr_energy, L, exc);
}
