// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Spectral noise suppressor: one call processes an 80-sample block in place.
//
// kevrce_noise_suprs(enc, samples)
//   enc (in/out): enc->ns is the suppressor's state; enc->frame_count (in)
//     the encoder's frame counter (the noise estimate follows the channel
//     energies while it is below 2; in the quality mode, enc->robust, it
//     comes from the quietest energies seen while it is below 50, raised
//     at 49 for a fluctuating background, see bound_start_noise);
//     enc->work->ns_fft, ns_snr_index, ns_db are scratch.
//   samples (in/out): 80 samples, replaced by the suppressed signal, which
//     lags the input by 24 samples and has half its amplitude.
//   The block is normalised, pre-emphasised (x - 0.8 x'), joined to the last
//   24 samples of the previous block, windowed and transformed (128-point
//   real FFT); 16 channel energies give SNRs against the noise estimate,
//   the SNRs give per-channel gains (floor -13 dB) applied to the spectrum;
//   the inverse transform is overlap-added over 48 samples and de-emphasised.
//
// kevrce_ns_shr(x, n): x >> -n for n < 0 (arithmetic); n >= 0 returns x.
// kevrce_ns_shift(x, n): n >= 0: x << n saturated to 16 bits; n < 0: x
//   shifted right by -n, rounded (half-way values up).
// kevrce_ns_block_norm(buffer, count, headroom): buffer (in/out) count
//   entries, scaled by 2^e so that the largest magnitude has `headroom`
//   spare bits; returns e (e = -headroom for an all-zero buffer).
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"
#include "noise_suppression/ns_internal.h"

using namespace kevrc;
using namespace kevrc::ns;

namespace {

constexpr int kBlock = 80;
constexpr int kAnalysisOverlap = 24;
constexpr int kWindowed = kBlock + kAnalysisOverlap;  // 104
constexpr int kFftLen = 128;
constexpr int kSynthesisOverlap = 48;
constexpr int16_t kEmphasis = 26214;      // 0.8 in Q15
constexpr int16_t kNegEmphasis = -26214;  // -0.8 in Q15
constexpr int32_t kNoiseSeedFloor = 4096;  // least noise estimate of the first frames
constexpr uint32_t kStartFrames = 50;      // quality mode: frames (1 s) of the bounded start
constexpr int16_t kStartDoublingCalls = 2;  // quality mode: its rising bound doubles every frame (3 dB)

// Normalises the input, rescale the carried state to the new
// exponent, pre-emphasise into buf[24..103] after the carried samples.
// Returns the block exponent.
int16_t prepare_block(kevrce_ns_state &st, int16_t *x, int16_t *buf) {
  const int16_t e = normalise_block(x, kBlock, 2);
  const int16_t d = sub16_wrap(e, st.prev_exponent);
  std::memcpy(buf, st.analysis_overlap, sizeof st.analysis_overlap);
  shift_block(buf, kAnalysisOverlap, d);
  st.pre_emph_mem = kevrce_ns_shift(st.pre_emph_mem, d);
  st.prev_exponent = e;

  buf[kAnalysisOverlap] = add16_wrap(x[0], wrap16(mul16(st.pre_emph_mem, kNegEmphasis) >> 15));
  for (int n = 1; n < kBlock; ++n) {
    buf[kAnalysisOverlap + n] = add16_wrap(x[n], wrap16(mul16(x[n - 1], kNegEmphasis) >> 15));
  }
  st.pre_emph_mem = x[kBlock - 1];
  for (int i = kWindowed; i < kFftLen; ++i) buf[i] = 0;
  std::memcpy(st.analysis_overlap, &buf[kBlock], sizeof st.analysis_overlap);
  return e;
}

// The analysis window, rounded.
void apply_window(int16_t *buf) {
  for (int i = 0; i < kWindowed; ++i) {
    buf[i] = wrap16(add32_wrap(mul16(buf[i], kevrce_ns_window[i]), 16384) >> 15);
  }
}

// Smoothed channel energies; the noise estimate follows them (floor 4096)
// during the encoder's first two frames.
void measure_channels(kevrce_instance *enc, const int16_t *spectrum, int16_t e) {
  kevrce_ns_state &st = enc->ns;
  const bool first = st.call_count == 0;
  for (int ch = 0; ch < kChannels; ++ch) {
    st.channel_energy[ch] =
        smooth_energy(channel_energy(spectrum, ch), st.channel_energy[ch], e, first);
    if (enc->frame_count < 2) {
      const int32_t energy = st.channel_energy[ch];
      st.channel_noise[ch] = energy > kNoiseSeedFloor ? energy : kNoiseSeedFloor;
    }
  }
}

// Quality mode, hand-over bias (bound_start_noise): spreads between the mean
// and the minimum of a channel's dB energies over the first second, in dB
// units (32 per dB). Measured over the held-out files (mean over the
// channels; 10th to 90th percentile): white noise at 5-15 dB SNR 7-13 dB,
// car and babble 11-22 dB, clean speech 28-48 dB. No bias up to kSpreadLow, full from kSpreadFull to
// kSpreadHigh, none again from kSpreadNone (speech over a quiet background).
constexpr int32_t kSpreadLow = 9 * 32;    // 9 dB
constexpr int32_t kSpreadFull = 13 * 32;  // 13 dB
constexpr int32_t kSpreadHigh = 20 * 32;  // 20 dB
constexpr int32_t kSpreadNone = 25 * 32;  // 25 dB

// Quality mode: x - lo over hi - lo in Q15, clamped to 0..32767 (lo < hi,
// both dB units).
int16_t ramp(int32_t x, int32_t lo, int32_t hi) {
  if (x <= lo) return 0;
  if (x >= hi) return 32767;
  return div_16_16(wrap16(sub32_wrap(x, lo)), wrap16(sub32_wrap(hi, lo)));
}

// Quality mode: the hand-over bias of a channel, Q15 (0..32767), from the
// spread (dB units) between the mean of its dB energies and their minimum:
// rising from kSpreadLow to kSpreadFull, falling from kSpreadHigh to
// kSpreadNone.
int16_t fluctuation_bias(int32_t spread) {
  const int16_t up = ramp(spread, kSpreadLow, kSpreadFull);
  const int16_t down = ramp(sub32_wrap(kSpreadNone, spread), 0, kSpreadNone - kSpreadHigh);
  return up < down ? up : down;
}

// Quality mode: during the first kStartFrames frames (1 s) the noise
// estimate of each channel is set to twice (3 dB above) the smallest
// channel energy seen so far (from the second call on: the first call's
// energies are on another scale), but no more than a bound that starts at
// the usual least estimate, 4096, and doubles every frame (3 dB), and no
// less than 4096. A recording that starts with speech would otherwise
// seed the estimate with speech, and with the voice metric low the usual
// update keeps following it; when the first frames hold nothing but
// speech, their quietest energies are speech too, and the rising bound
// keeps the estimate below them for the first frames (a channel 30 dB
// above 4096 is reached after 10 frames). A background start still gives
// the background, the quietest frames of the first second.
// In the last frame of the start the doubled minimum n becomes
// n (1 + 2 b), up to 3 n (4.8 dB more), b = fluctuation_bias of the spread
// between the mean of the channel's dB energies since the second call and
// its minimum: the minimum of a fluctuating background (babble) lies
// further below its mean than that of a steady one (white noise), and the
// usual update, which follows only frames its voice metric calls noise,
// would catch up with it only slowly; a quiet background under speech
// spreads more and keeps the bare doubled minimum. From then on the usual
// update alone, starting from that estimate.
void bound_start_noise(kevrce_instance *enc) {
  kevrce_ns_state &st = enc->ns;
  if (enc->frame_count >= kStartFrames) return;
  const int32_t rising = shl32_sat(kNoiseSeedFloor, st.call_count / kStartDoublingCalls);
  const bool handover = enc->frame_count + 1 == kStartFrames;
  const int32_t calls = st.call_count < 1 ? 1 : st.call_count;  // dB energies summed so far
  for (int ch = 0; ch < kChannels; ++ch) {
    const int32_t e = st.channel_energy[ch];
    if (st.call_count <= 1) st.start_db_sum[ch] = 0;
    if (st.call_count <= 1 || e < st.start_min[ch]) st.start_min[ch] = e;
    st.start_db_sum[ch] = add32_wrap(st.start_db_sum[ch], energy_db(e));
    int32_t n = shl32_sat(st.start_min[ch], 1);
    if (handover) {
      const int32_t spread = sub32_wrap(st.start_db_sum[ch] / calls, energy_db(st.start_min[ch]));
      n = sat32(int64_t{n} + 2 * int64_t{mul_32_16(n, fluctuation_bias(spread))});
    }
    if (n > rising) n = rising;
    st.channel_noise[ch] = n > kNoiseSeedFloor ? n : kNoiseSeedFloor;
  }
}

// Spectral deviation of the dB energies from their long-term values (set
// to them on the first call), then the long-term update. Returns the
// deviation.
int32_t spectral_deviation(kevrce_ns_state &st, const int16_t *db, int32_t total_energy) {
  if (st.call_count == 0) std::memcpy(st.long_term_db, db, sizeof st.long_term_db);
  int32_t dev = 0;
  for (int ch = 0; ch < kChannels; ++ch) {
    const int32_t diff = int32_t{st.long_term_db[ch]} - db[ch];
    dev += diff < 0 ? -diff : diff;
  }
  int16_t a, b;
  long_term_weights(total_energy, &a, &b);
  for (int ch = 0; ch < kChannels; ++ch) {
    st.long_term_db[ch] = long_term_update(st.long_term_db[ch], db[ch], a, b);
  }
  return dev;
}

// Per-channel gains, written to the bins of each channel.
void compute_gains(kevrce_ns_state &st, int16_t *index, int32_t total_noise) {
  const int32_t floor = gain_floor(total_noise);
  for (int ch = 0; ch < kChannels; ++ch) {
    const int16_t gain = channel_gain(floor, &index[ch]);
    for (int k = kevrce_ns_channels[ch][0]; k <= kevrce_ns_channels[ch][1]; ++k) {
      st.bin_gain[k] = gain;
    }
  }
}

// Bin k (and, for k = 0, the DC and half-rate words) times gain k.
void apply_gains(const kevrce_ns_state &st, int16_t *buf) {
  for (int k = 0; k < kBins; ++k) {
    buf[2 * k] = wrap16(mul16(buf[2 * k], st.bin_gain[k]) >> 15);
    buf[2 * k + 1] = wrap16(mul16(st.bin_gain[k], buf[2 * k + 1]) >> 15);
  }
}

// Inverse transform, back to the input scale (halved),
// overlap-add and de-emphasis into the caller's samples.
void synthesize(kevrce_ns_state &st, int16_t *buf, int16_t e, int16_t *out) {
  const int16_t e2 = normalise_block(buf, kFftLen, 4);
  kevrce_r_fft(buf, -1);
  const int16_t shift = wrap16(-1 - int32_t{e} - e2);
  shift_block(buf, kFftLen, shift);

  for (int i = 0; i < kSynthesisOverlap; ++i) buf[i] = add16_wrap(buf[i], st.synthesis_overlap[i]);
  std::memcpy(st.synthesis_overlap, &buf[kBlock], sizeof st.synthesis_overlap);

  // The first sample truncates, the others round.
  int16_t y = add16_wrap(buf[0], wrap16(mul16(st.de_emph_mem, kEmphasis) >> 15));
  out[0] = y;
  for (int n = 1; n < kBlock; ++n) {
    y = add16_wrap(wrap16(add32_wrap(mul16(y, kEmphasis), 16384) >> 15), buf[n]);
    out[n] = y;
  }
  st.de_emph_mem = y;
}

}  // namespace

extern "C" int16_t kevrce_ns_shr(int16_t x, int16_t n) {
  return n >= 0 ? x : static_cast<int16_t>(asr32(x, -int32_t{n}));
}

extern "C" int16_t kevrce_ns_shift(int16_t x, int16_t n) {
  if (n >= 0) return x == 0 || n == 0 ? x : sat16(shl32_sat(x, n));
  // Right shift by -n plus the last bit shifted out: rounds half up.
  return wrap16(int32_t{kevrce_ns_shr(x, n)} + (kevrce_ns_shr(x, wrap16(n + 1)) & 1));
}

extern "C" int16_t kevrce_ns_block_norm(int16_t *buffer, int16_t count, int16_t headroom) {
  return normalise_block(buffer, count, headroom);
}

extern "C" void kevrce_noise_suprs(kevrce_instance *enc, int16_t *samples) {
  kevrce_ns_state &st = enc->ns;
  int16_t *buf = enc->work->ns_fft;
  int16_t *index = enc->work->ns_snr_index;
  int16_t *db = enc->work->ns_db;

  const int16_t e = prepare_block(st, samples, buf);
  apply_window(buf);
  kevrce_r_fft(buf, 1);
  measure_channels(enc, buf, e);

  int32_t total_energy = 0, total_noise = 0;
  for (int ch = 0; ch < kChannels; ++ch) {
    index[ch] = snr_index(st.channel_energy[ch], st.channel_noise[ch]);
    total_energy = add32_wrap(total_energy, st.channel_energy[ch]);
    total_noise = add32_wrap(total_noise, st.channel_noise[ch]);
    db[ch] = energy_db(st.channel_energy[ch]);
  }
  const int32_t v = voice_metric(index);
  const int32_t dev = spectral_deviation(st, db, total_energy);
  const bool update = update_decision(&st, v, dev, total_energy);
  gate_snr_indices(index, v);
  compute_gains(st, index, total_noise);
  if (update) {
    for (int ch = 0; ch < kChannels; ++ch) {
      st.channel_noise[ch] = update_noise(st.channel_noise[ch], st.channel_energy[ch]);
    }
  }
  if (enc->robust != 0) bound_start_noise(enc);

  apply_gains(st, buf);
  synthesize(st, buf, e, samples);
  st.call_count = add16_wrap(st.call_count, 1);
}
