// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Noise-update decision, SNR gating, per-channel gains and the noise update
// of the noise suppressor.
//
// update_decision(ns, v, d, total_energy): ns (in/out) update, hysteresis
//   and last-update counters; v = voice metric (32..800), d = spectral
//   deviation in dB units, total_energy = sum of the channel energies.
//   Returns true when the noise estimate is to be updated this call.
// gate_snr_indices(index, v): index (in/out) 16 SNR indices.
// gain_floor(total_noise): about -10 log10(total_noise / 256) dB, no lower
//   than -13 dB; log-gain units (Q26 of dB / 32).
// channel_gain(floor, index): floor from gain_floor; index (in/out) the
//   channel's SNR index, raised to 6 when below 7. Returns the linear gain,
//   Q15, about 10^((floor + 0.454 dB x (index - 6)) / 20), at most 0 dB.
// update_noise(noise, energy): 0.9 noise + 0.1 energy, at least 16.
#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "noise_suppression/ns_internal.h"

namespace kevrc::ns {

namespace {

constexpr int32_t kLog10Of2Pow23 = 0x1bb1dbc4;  // log10(2^23) in Q26
constexpr int32_t kMinGainFloor = -0x1a00000;   // -13 dB: 13 / 32 in Q26
constexpr int32_t kGainStep = 952256;           // log gain per SNR index step, Q26 of dB / 32

// 2^x for a log2 value w in Q16 (w < 0), as a Q31 number: the fraction is
// raised by a quadratic on [-1, 0) and the integer part becomes a shift.
int32_t pow2_q16(int32_t w) {
  const int32_t f = ((w & 0xFFFF) - 65536) >> 1;  // fraction - 1, Q15, -32768..-1
  const int16_t k = wrap16(~(w >> 16));           // -(integer part + 1)
  int32_t p;
  if (f == -32768) {
    p = 0x15eed422;  // 32767 x 11230, the saturated square below
  } else {
    const int64_t sq = 2 * int64_t{f} * f + 32768;
    p = static_cast<int32_t>((sq > INT32_MAX ? INT32_MAX : sq) >> 16) * 11230;
  }
  int32_t h = add32_wrap(add32_wrap(p, mul32_wrap(43742, f)), 0x7fbd0000);
  if (k > 0) h = asr32(h, k);
  return h;
}

}  // namespace

bool update_decision(kevrce_ns_state *ns, int32_t v, int32_t d, int32_t total_energy) {
  bool update = false;
  if (v < 36) {  // no voice: follow the noise
    update = true;
    ns->update_count = 0;
  } else if (d > 895 || total_energy < 257) {  // changing spectrum or too quiet
    update = false;
  } else {  // stationary: force an update after 50 calls
    ns->update_count = add16_wrap(ns->update_count, 1);
    update = ns->update_count > 49;
  }
  // A counter that stands still for more than six calls starts again.
  if (ns->update_count == ns->last_update_count) {
    ns->hysteresis_count = add16_wrap(ns->hysteresis_count, 1);
  } else {
    ns->hysteresis_count = 0;
  }
  ns->last_update_count = ns->update_count;
  if (ns->hysteresis_count > 6) ns->update_count = 0;
  return update;
}

void gate_snr_indices(int16_t *index, int32_t v) {
  int high = 0;
  for (int ch = 5; ch < kChannels; ++ch) high += index[ch] > 11 ? 1 : 0;
  if (high >= 5) return;
  for (int ch = 0; ch < kChannels; ++ch) {
    if (v < 46 || index[ch] < 13) index[ch] = 1;
  }
}

int32_t gain_floor(int32_t total_noise) {
  const int32_t g =
      mul_32_16(neg32_wrap(add32_wrap(kevrc::log10(total_noise), kLog10Of2Pow23)), 10270);
  return g < kMinGainFloor ? kMinGainFloor : g;
}

int16_t channel_gain(int32_t floor, int16_t *index) {
  int32_t term = 0;
  if (*index < 7) {
    *index = 6;
  } else {
    term = mul32_wrap(*index - 6, kGainStep);
  }
  int32_t g = add32_wrap(floor, term);
  if (g > 0) g = 0;
  g = shl32_wrap(mul_32_16(g, 1638), 5);  // dB / 32 -> log10 of the gain (x 32 / 20)
  if (g == 0) g = -1;
  const int32_t y = mul_32_16(g, 27213);  // log2 of the gain in Q24 (27213 ~ log2(10) / 4)
  const int32_t w = shl32_wrap(wrap16(y >> 14), 6);  // Q10 -> Q16
  return wrap16(pow2_q16(w) >> 16);
}

int32_t update_noise(int32_t noise, int32_t energy) {
  const int16_t n1 = norm_32(noise);
  const int16_t n2 = norm_32(energy);
  const int32_t old_part = mul32_wrap(shl32_wrap(noise, n1) >> 16, 58980) >> n1;  // 0.9 in Q16
  const int32_t new_part = mul32_wrap(shl32_wrap(energy, n2) >> 16, 6554) >> n2;  // 0.1 in Q16
  const int32_t n = add32_wrap(old_part, new_part);
  return n < 16 ? 16 : n;
}

}  // namespace kevrc::ns
