// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Rate decision of the encoder: eighth (1), half (3) or full (4) rate per
// frame, from the energies of two frequency bands measured against adaptive
// background-noise estimates, with a hangover after speech, then bounded to
// [min_rate, max_rate].
//
// kevrce_rate_detection(enc, r, max_rate, min_rate, analysis) -> rate code
//   enc       in/out  enc->rd is the decision's state, set up on the frame
//                     where enc->frame_count is 0; the frame counter itself
//                     is advanced by the coding loop, not here.
//   r         in      the frame's autocorrelation r[0..16] (32-bit, the
//                     common scale of the LPC analysis).
//   max_rate  in      highest rate code allowed (values above 4 count as 4).
//   min_rate  in      lowest rate code allowed.
//   analysis  in      Q15 value from the LPC analysis: above 9829 (0.3) the
//                     frame is not stationary, above 16384 (0.5) it is voiced.
//
// Energies are 32-bit: E_b is the band energy, S_b = 8*E_b smoothed, N_b the
// noise estimate (160..80954304 band 0, 80..80954304 band 1), signal_b the
// peak estimate. Sums wrap unless a comment says they saturate.
#include "encoder/rate_detection.h"

#include <algorithm>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

constexpr int16_t kEighth = 1;
constexpr int16_t kHalf = 3;
constexpr int16_t kFull = 4;

constexpr int32_t kNoiseMax = 80954304;
constexpr int32_t kNoiseMin[2] = {160, 80};
constexpr int32_t kSignalStart[2] = {51200000, 5120000};
constexpr int16_t kHangoverStart = 10;
constexpr int16_t kNotStationary = 9829;  // 0.3 in Q15
constexpr int16_t kVoiced = 16384;        // 0.5 in Q15
constexpr int16_t kSmoothing = 19661;     // 0.6 in Q15: weight of the old smoothed energy
constexpr int16_t kStationaryGrowth = 16876;  // 1.03 / 2 in Q15
constexpr int16_t kAdaptedGrowth = 16474;     // 1.0055 / 2 in Q15
constexpr int16_t kSignalDecay = 31785;       // 0.97 in Q15
// Before adaptation the index counts half decades of the noise energy below
// about 10^5.95 (band 0) and 10^4.95 (band 1): log10 offsets -3.382 and
// -4.382 in Q26, against log10 of the energy read as a Q31 fraction.
constexpr int32_t kUnadaptedOffset[2] = {-226957676, -294066540};
// Once adapted it counts half decades of the Q23 signal-to-noise ratio: 5.174 in Q26.
constexpr int32_t kAdaptedOffset = 347200452;
constexpr int32_t kRatioNoNoise = 256000000;  // the ratio when the noise estimate is not positive

// An SNR index read from the state, kept inside the tables' 0..7.
int index_of(int16_t snr_index) { return std::clamp<int>(snr_index, 0, 7); }

void init_state(kevrce_rate_state &rd) {
  rd = kevrce_rate_state{};
  for (int b = 0; b < 2; ++b) {
    rd.noise[b] = kNoiseMax;
    rd.signal[b] = kSignalStart[b];
    rd.smoothed[b] = kSignalStart[b];
    rd.snr_ratio[b] = rd_snr_ratio_q23(rd.signal[b], rd.noise[b]);
  }
  rd.rate = kEighth;
  rd.last_rate = kEighth;
  rd.hangover_count = kHangoverStart;
}

// E_b = (r[0]*tap[0] >> 1) + sum over k = 1..16 of r[k]*tap[k], Q15 taps.
int32_t band_energy(const int32_t *r, const int16_t *tap) {
  int32_t e = mul_32_16(r[0], tap[0]) >> 1;
  for (int k = 1; k < 17; ++k) e = add32_wrap(e, mul_32_16(r[k], tap[k]));
  return e;
}

// 1, stepped up to 3 when 8*E passes the half-rate threshold times the noise,
// and on to 4 when it also passes the full-rate one. Both sides of the
// comparison saturate at 32 bits, like the smoothed 8*E: a wrapping shift
// would turn the loudest frames (and the highest thresholds over a loud
// noise floor) negative and code loud speech at eighth rate.
int16_t band_decision(int32_t energy, int32_t noise, int snr_index) {
  const int32_t e8 = shl32_sat(energy, 3);
  int16_t rate = kEighth;
  for (int t = 0; t < 2; ++t) {
    const int32_t level = shl32_sat(mul_32_16(noise, kevrce_tbl_rate_threshold[snr_index][t]), 7);
    if (e8 > level) rate = rate == kEighth ? kHalf : kFull;
  }
  return rate;
}

// A frame decided eighth rate right after a full-rate frame goes at half rate.
int16_t soften_drop(int16_t r, int16_t last_rate) {
  return (last_rate == kFull && r == kEighth) ? kHalf : r;
}

// Hangover and run length: after at least two full-rate frames, the frames
// that follow stay at full rate for as long as the hangover table allows.
int16_t apply_hangover(kevrce_rate_state &rd, int16_t r) {
  if (rd.full_run < 2 && rd.hangover_active == 0) {
    if (r == kFull) {
      rd.hangover_count = 0;
      rd.full_run = add16_wrap(rd.full_run, 1);
    } else {
      rd.full_run = 0;
      r = soften_drop(r, rd.last_rate);
    }
  } else if (r == kFull) {
    rd.hangover_active = 0;
    rd.hangover_count = 0;
    rd.full_run = add16_wrap(rd.full_run, 1);
  } else {
    rd.hangover_count = add16_wrap(rd.hangover_count, 1);
    if (rd.hangover_count > kevrce_tbl_hangover[index_of(rd.snr_index[0])]) {
      rd.hangover_active = 0;
      rd.full_run = 0;
      r = soften_drop(r, rd.last_rate);
    } else {
      rd.hangover_active = 1;
      r = kFull;
      rd.full_run = 0;
    }
  }
  return r;
}

int16_t bound_rate(int32_t rate, int32_t max_rate, int32_t min_rate) {
  return static_cast<int16_t>(std::max(std::min(rate, max_rate), min_rate));
}

// S = 8E (saturated) + 0.6 (S - 8E).
int32_t smooth(int32_t smoothed, int32_t energy) {
  const int32_t e8 = shl32_sat(energy, 3);
  return add32_wrap(e8, mul_32_16(sub32_wrap(smoothed, e8), kSmoothing));
}

// max(2 * N * growth, N + 1), growth a halved Q15 factor.
int32_t grow(int32_t noise, int16_t growth) {
  return std::max(shl32_wrap(mul_32_16(noise, growth), 1), add32_wrap(noise, 1));
}

// Noise estimates: let them rise in stationary stretches (or,
// once adapted, where the SNR is high), then track the smoothed energy down.
void update_noise(kevrce_rate_state &rd, int16_t analysis) {
  bool grown = false;
  if (analysis > kNotStationary) {
    rd.stationary_count = 0;
  } else {
    rd.stationary_count = add16_wrap(rd.stationary_count, 1);
    if (rd.stationary_count > 8) {
      for (int b = 0; b < 2; ++b) rd.noise[b] = grow(rd.noise[b], kStationaryGrowth);
      rd.stationary_count = 9;
      grown = true;
    }
  }
  if (!grown && rd.adapted != 0) {
    for (int b = 0; b < 2; ++b) {
      if (rd.snr_index[b] > 3 && rd.noise[b] < rd.smoothed[b]) {
        rd.noise[b] = grow(rd.noise[b], kAdaptedGrowth);
      }
    }
  }
  for (int b = 0; b < 2; ++b) {
    rd.noise[b] = std::clamp(std::min(rd.noise[b], rd.smoothed[b]), kNoiseMin[b], kNoiseMax);
  }
}

// Peak estimates: they decay in voiced stretches and follow S upwards.
void update_signal(kevrce_rate_state &rd, int16_t analysis) {
  if (analysis > kVoiced) {
    rd.voiced_count = add16_wrap(rd.voiced_count, 1);
    if (rd.voiced_count > 5) {
      rd.adapted = 1;
      for (int b = 0; b < 2; ++b) rd.signal[b] = mul_32_16(rd.signal[b], kSignalDecay);
    }
  } else {
    rd.voiced_count = 0;
  }
  for (int b = 0; b < 2; ++b) rd.signal[b] = std::max(rd.signal[b], rd.smoothed[b]);
}

}  // namespace

int32_t rd_snr_ratio_q23(int32_t signal, int32_t noise) {
  if (noise <= 0) return kRatioNoNoise;
  if (signal <= 0) return 0;
  int ns = norm_32(signal);
  const int nn = norm_32(noise);
  int32_t num = shl32_wrap(signal, ns);
  const int32_t den = shl32_wrap(noise, nn);
  if (num >= den) {  // the division needs num < den
    num >>= 1;
    --ns;
  }
  // q = num/den in Q31, and signal/noise = num/den * 2^(nn - ns): Q23 is a
  // right shift of 8 - (nn - ns); ratios of 256 and above saturate.
  const int32_t q = div_32_32(num, den);
  const int shift = 8 - (nn - ns);
  return shift >= 0 ? asr32(q, shift) : shl32_sat(q, -shift);
}

int16_t rd_snr_index_unadapted(int32_t noise, int32_t offset_q26) {
  if (noise < 1) return 7;
  const int32_t x = sub32_wrap(offset_q26, kevrc::log10(noise)) >> 25;  // steps of 0.5 decade
  return x < 0 ? int16_t{0} : static_cast<int16_t>(x & 7);
}

int16_t rd_snr_index_adapted(int32_t ratio_q23) {
  if (ratio_q23 <= 0) return 0;
  const int32_t x = add32_wrap(kevrc::log10(ratio_q23), kAdaptedOffset) >> 25;
  return static_cast<int16_t>(std::clamp<int32_t>(x, 0, 7));
}

}  // namespace kevrc

extern "C" int16_t kevrce_rate_detection(kevrce_instance *enc, const int32_t *r, int32_t max_rate,
                                         int32_t min_rate, int16_t analysis) {
  using namespace kevrc;
  kevrce_rate_state &rd = enc->rd;
  const bool first_frame = enc->frame_count == 0;
  if (first_frame) init_state(rd);

  int16_t decided = kEighth;
  for (int b = 0; b < 2; ++b) {
    rd.band_energy[b] = band_energy(r, kevrce_tbl_band_filter[b]);
    rd.band_rate[b] = band_decision(rd.band_energy[b], rd.noise[b], index_of(rd.snr_index[b]));
    decided = std::max(decided, rd.band_rate[b]);
  }
  decided = apply_hangover(rd, decided);

  int16_t rate;
  if (first_frame) {
    rate = bound_rate(kFull, max_rate, min_rate);  // whatever the bands decided
    for (int b = 0; b < 2; ++b) rd.smoothed[b] = shl32_sat(rd.band_energy[b], 3);  // 8*E, saturated
  } else {
    rate = bound_rate(decided, max_rate, min_rate);
    for (int b = 0; b < 2; ++b) rd.smoothed[b] = smooth(rd.smoothed[b], rd.band_energy[b]);
  }
  rd.last_rate = rate;

  update_noise(rd, analysis);
  update_signal(rd, analysis);

  for (int b = 0; b < 2; ++b) rd.snr_ratio[b] = rd_snr_ratio_q23(rd.signal[b], rd.noise[b]);
  for (int b = 0; b < 2; ++b) {
    rd.snr_index[b] = rd.adapted != 0 ? rd_snr_index_adapted(rd.snr_ratio[b])
                                      : rd_snr_index_unadapted(rd.noise[b], kUnadaptedOffset[b]);
  }
  rd.rate = rate;
  return rate;
}
