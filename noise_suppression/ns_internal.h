// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Internal steps of the noise suppressor (kevrce_noise_suprs), one function
// per step, shared by the driver and the tests.
//
// Units used below:
//   channel energy / noise: 32-bit, mean 2 re^2 + 2 im^2 of the channel's
//     bins, rescaled to a common level by the block exponent; kept >= 16.
//   SNR index: about 10 log10(E / N) / 0.375 dB, rounded, >= 0.
//   dB units: about 32 x 10 log10(x / 256) (1/32 dB per unit).
//   log-gain values (gain floor, channel gain before conversion): Q26 of
//     dB / 32, i.e. 2^26 stands for 32 dB.
#pragma once

#include <cstdint>

#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

namespace kevrc::ns {

constexpr int kChannels = 16;
constexpr int kBins = 64;

// Mean of 2 re^2 + 2 im^2 over channel ch's bins (ch 0..15) of the spectrum
// (128 words, kevrce_r_fft layout); the sum wraps in 32 bits.
int32_t channel_energy(const int16_t *spectrum, int ch);

// Channel energy smoothing and rescaling by the block exponent (exponent is
// the input block's normalisation exponent): first = plain rescaling,
// otherwise 0.55 new + 0.45 old, saturated. Returns at least 16.
int32_t smooth_energy(int32_t raw, int32_t old, int16_t exponent, bool first);

// Quantised channel SNR from energy and noise estimate (both > 0 in normal
// use; any value is safe).
int16_t snr_index(int32_t energy, int32_t noise);

// Sum over the channels of the voice-metric table at each SNR index
// (indices clamped to 0..89).
int32_t voice_metric(const int16_t *index);

// Energy in dB units, without and with the substitution of 1 for 0.
int16_t db_units(int32_t x);
int16_t energy_db(int32_t energy);

// Weights (a for the old value, b for the new one, Q15) of the long-term
// channel-energy smoothing, from the total channel energy.
void long_term_weights(int32_t total_energy, int16_t *a, int16_t *b);

// One long-term smoothing step: ((db b + old a) 2) >> 16.
int16_t long_term_update(int16_t old, int16_t db, int16_t a, int16_t b);

// Noise-update decision from voice metric v, spectral deviation d and total
// energy; advances the update and hysteresis counters of ns.
bool update_decision(kevrce_ns_state *ns, int32_t v, int32_t d, int32_t total_energy);

// Sets the SNR indices of weak channels to 1 when too few high channels are
// above the threshold (index: 16 values, in/out).
void gate_snr_indices(int16_t *index, int32_t v);

// Gain floor from the total noise energy, log-gain units, >= -13 dB.
int32_t gain_floor(int32_t total_noise);

// Linear Q15 gain of a channel from the gain floor and its SNR index;
// *index is raised to 6 when below 7.
int16_t channel_gain(int32_t floor, int16_t *index);

// 0.9 noise + 0.1 energy, at least 16.
int32_t update_noise(int32_t noise, int32_t energy);

// kevrce_ns_shift(x[i], n) for i < count, in place, as one plain loop: n > 0
// shifts left and saturates to 16 bits (from n = 16 on every non-zero value
// saturates, so n is capped there); n < 0 shifts right by s = -n and adds
// the last bit shifted out, i.e. rounds half up (both parts and their sum
// stay within 16 bits; from s = 16 on every 16-bit value rounds to 0).
inline void shift_block(int16_t *x, int count, int16_t n) {
  if (n > 0) {
    const int s = n < 16 ? n : 16;
    for (int i = 0; i < count; ++i) x[i] = sat16(int32_t{x[i]} * (int32_t{1} << s));
  } else if (n <= -16) {
    for (int i = 0; i < count; ++i) x[i] = 0;
  } else if (n < 0) {
    const int s = -n;
    for (int i = 0; i < count; ++i) x[i] = static_cast<int16_t>((x[i] >> s) + ((x[i] >> (s - 1)) & 1));
  }
}

// kevrce_ns_block_norm(x, count, headroom) (inlined where count is fixed).
// The exponent is the normalisation of the largest magnitude less a
// headroom >= 0, so a left shift by it cannot saturate: a plain shift.
[[gnu::always_inline]] inline int16_t normalise_block(int16_t *x, int count, int16_t headroom) {
  // The largest magnitude from the largest and the smallest value (16-bit
  // comparisons: a plain loop that vectorizes).
  int16_t hi = 0, lo = 0;
  for (int i = 0; i < count; ++i) {
    hi = x[i] > hi ? x[i] : hi;
    lo = x[i] < lo ? x[i] : lo;
  }
  const int32_t peak = hi > -int32_t{lo} ? int32_t{hi} : -int32_t{lo};
  // |-32768| is taken as 32767 (both normalise with 0 shifts).
  const int16_t e = sub16_wrap(norm_16(sat16(peak)), headroom);
  if (e > 0 && headroom >= 0) {
    for (int i = 0; i < count; ++i) x[i] = static_cast<int16_t>(x[i] * (1 << e));
  } else {
    shift_block(x, count, e);
  }
  return e;
}

}  // namespace kevrc::ns
