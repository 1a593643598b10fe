// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Spectral analysis of the noise suppressor: per-channel energies, their
// smoothing, the channel SNR indices, the voice metric, the dB measure and
// the long-term energy smoothing weights.
//
// channel_energy(spectrum, ch): spectrum (in) 128 words in kevrce_r_fft
//   layout; ch 0..15 selects a row of kevrce_ns_channels. Returns the
//   channel's mean of 2 re^2 + 2 im^2 (32-bit, wrapping sum).
// smooth_energy(raw, old, exponent, first): raw = channel_energy of this
//   block, old = previous smoothed energy, exponent = block normalisation
//   exponent of the input (the spectrum is 2^(2 exponent) too large in
//   energy; the stored level is 2^7 times the unnormalised energy).
// snr_index(energy, noise): index ~ 10 log10(energy / noise) / 0.375, >= 0.
// voice_metric(index): index 16 values; sum of kevrce_ns_vm_table entries.
// db_units(x) / energy_db(x): ~ 32 x 10 log10(x / 256), 16-bit.
// long_term_weights(total, a, b): Q15 weights of old and new dB values.
// long_term_update(old, db, a, b): one smoothing step, 16-bit.
#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "noise_suppression/ns_internal.h"

namespace kevrc::ns {

namespace {

constexpr int32_t kLog10Of2Pow27 = 0x2082e098;  // log10(2^27) in Q26
constexpr int32_t kLog10Of2Pow23 = 0x1bb1dbc4;  // log10(2^23) in Q26
constexpr int32_t kNewWeight = 0x46666666;      // 0.55 in Q31
constexpr int32_t kOldWeight = 0x3999999a;      // 0.45 in Q31
constexpr int32_t kMinEnergy = 16;

// x times a Q31 factor, through the normalised high half of x.
int32_t scale_q31(int32_t x, int32_t factor_q31) {
  const int16_t n = norm_32(x);
  const int16_t x_hi = static_cast<int16_t>(shl32_wrap(x, n) >> 16);
  return mul_32_16(factor_q31, x_hi) >> n;
}

// x times a Q15 factor, through the normalised high half of x.
int32_t scale_q15(int32_t x, int16_t factor_q15) {
  const int16_t n = norm_32(x);
  const int32_t x_hi = shl32_wrap(x, n) >> 16;
  return mul32_wrap(mul32_wrap(x_hi, factor_q15), 2) >> n;
}

}  // namespace

int32_t channel_energy(const int16_t *spectrum, int ch) {
  const int16_t *row = kevrce_ns_channels[ch];
  int32_t sum = 0;
  for (int k = row[0]; k <= row[1]; ++k) {
    sum = add32_wrap(sum, mul2_16(spectrum[2 * k], spectrum[2 * k]));
    sum = add32_wrap(sum, mul2_16(spectrum[2 * k + 1], spectrum[2 * k + 1]));
  }
  if (row[2] == 1) return asr32(sum, row[3]);  // 2, 4 or 8 bins
  return scale_q15(sum, row[3]);               // 3, 5, 6 or 7 bins: times 1/count
}

int32_t smooth_energy(int32_t raw, int32_t old, int16_t exponent, bool first) {
  const int twice_exp = 2 * exponent;
  int32_t e;
  if (first) {
    // Both directions shift right here (unlike the later calls).
    e = asr32(raw, twice_exp <= 7 ? 7 - twice_exp : twice_exp - 7);
  } else {
    const int32_t a = scale_q31(raw, kNewWeight);
    const int32_t b = twice_exp > 7 ? asr32(a, twice_exp - 7) : shl32_sat(a, 7 - twice_exp);
    e = sat32(int64_t{b} + scale_q31(old, kOldWeight));
  }
  return e < kMinEnergy ? kMinEnergy : e;
}

int16_t snr_index(int32_t energy, int32_t noise) {
  const int16_t n1 = norm_32(noise);
  const int16_t n2 = norm_32(energy);
  // energy in [2^29, 2^30) over noise in [2^30, 2^31): a proper fraction.
  const int32_t num = n2 < 2 ? asr32(energy, 1 - n2) : shl32_wrap(energy, n2 - 1);
  const int32_t q = div_32_32(num, shl32_wrap(noise, n1));
  const int s = n2 + 26 - n1;  // q >> s is 16 energy / noise
  int32_t r;
  if (s < 31) {
    // s < 0 only for a noise estimate below 16 (never stored): scale up.
    r = s >= 0 ? asr32(q, s) : shl32_sat(q, -s);
    if (r == 0) r = 1;
  } else {
    r = q >= 1 ? 1 : -1;
  }
  // log10(r / 2^31) + log10(2^27) = log10(energy / noise), Q26 -> Q10.
  int32_t v = mul32_wrap(add32_wrap(kevrc::log10(r), kLog10Of2Pow27) >> 16, 20540);
  if (v < 0) v = 0;
  return wrap16(mul32_wrap(add32_wrap(v, 0x60000) >> 16, 2731) >> 15);  // 2731 ~ 1/12 in Q15
}

int32_t voice_metric(const int16_t *index) {
  int32_t v = 0;
  for (int ch = 0; ch < kChannels; ++ch) {
    const int i = index[ch] < 0 ? 0 : index[ch] > 89 ? 89 : index[ch];
    v += static_cast<int16_t>(kevrce_ns_vm_table[i]);
  }
  return v;
}

int16_t db_units(int32_t x) {
  const int32_t l = add32_wrap(kevrc::log10(x), kLog10Of2Pow23) >> 16;  // log10(x / 256), Q10
  return wrap16(mul32_wrap(l, 10270) >> 15);                            // 10270 ~ 320 / 1024 in Q15
}

int16_t energy_db(int32_t energy) { return db_units(energy == 0 ? 1 : energy); }

void long_term_weights(int32_t total_energy, int16_t *a, int16_t *b) {
  const int16_t t = sub16_wrap(1600, db_units(total_energy));  // 50 dB minus the level
  const int32_t t32 = 32 * int32_t{t};
  bool fast;  // equal weights
  if (t32 >= -32768 && t32 <= 32767) {
    const uint16_t u = static_cast<uint16_t>(1023 - ((t32 * 803) >> 15));
    if (u < 1024 && u >= 511) {
      *a = static_cast<int16_t>(32 * u);
      *b = static_cast<int16_t>(32767 - 32 * u);
      return;
    }
    fast = u < 511;
  } else {
    fast = t > 0;
  }
  *a = fast ? 16383 : 32440;  // 0.5 or 0.99 in Q15
  *b = fast ? 16384 : 327;    // 0.5 or 0.01 in Q15
}

int16_t long_term_update(int16_t old, int16_t db, int16_t a, int16_t b) {
  const int32_t acc = add32_wrap(mul16(db, b), mul16(old, a));
  return wrap16(shl32_wrap(acc, 1) >> 16);
}

}  // namespace kevrc::ns
