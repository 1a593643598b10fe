// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The rate decision of the encoder's quality mode: eighth rate for the
// background only, full rate for speech and for any loud or tonal signal,
// half rate for weak speech and for the hangover after speech.
//
// robust_rate_decision(enc, max_rate, min_rate) -> rate code 1, 3 or 4
//   enc       in/out  reads enc->rd.band_energy[0..1] (the band energies of
//                     the analysis frame speech[160..319], 32-bit, left there
//                     by kevrce_rate_detection), enc->work->speech[80..239]
//                     and residual[80..239] (the segment this packet codes
//                     and its short-term residual), enc->frame_count;
//                     updates enc->robust_rd, set up when the count is 0.
//   max_rate  in      highest rate code allowed (values above 4 count as 4).
//   min_rate  in      lowest rate code allowed.
//
// Levels are log2 of an energy in Q10 (1024 = 3.01 dB, 340 = 1 dB): 0 for
// an energy below 1, about 30700 for a full-scale sine. Three are tracked:
// the two band energies of the analysis frame and the whole-band energy of
// the coded segment (sum x^2 / 32, so that it reads like the bands, whose
// energies are about sum x^2 / 40 for a signal inside the band). The
// background of each is the minimum of its UNSMOOTHED levels over the
// earlier frames of the last 64..80 (1.3 to 1.6 s: five runs of 16 frames),
// never below the level of digital silence; a short pause between words
// reaches the true floor, which a smoothed energy does not. At the start
// it is the minimum of the frames seen so far, but at most about -60 dB
// rising by 0.2 dB per frame: a file that starts with background has it as
// its floor within a few frames, and a sound that starts the file does not
// become its own floor. Below digital silence the analysis frame's bands
// take its whole-band level: the LPC analysis leaves the autocorrelation of
// a frame of a few units of energy unscaled, and its band energies read
// loud.
//
// A frame is speech when a band lies more than 9 dB above its background
// and no more than 30 dB below the speech peak (a level that follows the
// loudest speech frame and decays by 5 dB/s). Coming out of background, the
// coded segment must also lie 9 dB above its own background: the analysis
// frame runs half a frame ahead of the coded segment, and an onset in that
// look-ahead is coded by the next packet. Speech goes at full rate, or at
// half rate when it is 20 dB or more below the peak (on the held-out corpus
// this costs less mel-cepstral distortion per bit saved than sending
// unvoiced frames at half rate).
// A loud signal (a band above about -40 dB against a full-scale sine) or a
// tonal one (above about -60 dB, its level steady within 1 dB from frame
// to frame, more than 18 dB of short-term prediction gain) is never background: a
// stationary sound such as music on hold, a tone or a square wave fills the
// minimum window and would otherwise pass for background. It goes at full
// rate.
// After speech or signal, the next kHangoverFrames frames go at half rate,
// then eighth rate; after weak speech (20 dB or more below the peak, coded
// at half rate) kWeakTailHangover frames: such a tail has usually fallen
// below the threshold of the activity measure behind the corpus figures
// (README), whose own 0.2 s hangover then already runs, so the eleventh
// frame mostly codes background. The result is bounded to [min_rate, max_rate].
#include "encoder/robust_rate.h"

#include <algorithm>
#include <cstdlib>

#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

constexpr int16_t kEighth = 1;
constexpr int16_t kHalf = 3;
constexpr int16_t kFull = 4;

constexpr int kCoded = 80;                // first sample of the coded segment in speech[]
constexpr int16_t kRunFrames = 16;        // frames per run of the minimum window
constexpr int16_t kNoLevel = 32767;       // start of a run's minimum
constexpr int32_t kLevelOffset = 31744;   // 31 in Q10: log2 of a Q31 fraction -> of the energy
constexpr int kSegmentShift = 5;          // coded-segment energy / 32
constexpr int16_t kSilenceLevel = 6200;   // about -72 dB against a full-scale sine: digital silence
constexpr int16_t kStartFloor = 10300;    // about -60 dB: background assumed before any is seen
constexpr int32_t kStartRise = 68;        // 0.2 dB per frame: how fast the start's floor may rise above it
constexpr uint32_t kStartRiseFrames = 400;  // by then the start's bound lies above any level
constexpr int16_t kSpeechMargin = 3060;   // 9 dB above the background
constexpr int16_t kBelowPeak = 10200;     // 30 dB: weaker frames are not speech
constexpr int16_t kWeak = 6800;           // 20 dB below the peak: weak speech, half rate
constexpr int16_t kPeakDecay = 34;        // 0.1 dB per frame
constexpr int16_t kLoudLevel = 17100;     // about -40 dB against a full-scale sine
constexpr int16_t kTonalLevel = 10300;    // about -60 dB
constexpr int64_t kTonalGain = 63;        // 18 dB of prediction gain, as an energy ratio
constexpr int16_t kSteady = 340;          // 1 dB
constexpr int16_t kHangoverFrames = 11;   // 220 ms
constexpr int16_t kWeakTailHangover = 10;  // 200 ms, after weak speech

// log2(energy) in Q10, 0 for energies below 1.
int16_t level_of(int32_t energy) {
  if (energy < 1) return 0;
  return static_cast<int16_t>(add32_wrap(kevrc::log2(energy) >> 16, kLevelOffset));
}

// Sum of x^2 over the 160 samples from x[first] on, each square saturated
// below 2^30 as the doubled product's half (64-bit: 160 of them cannot
// overflow).
int64_t segment_energy(const int16_t *x, int first = kCoded) {
  int64_t sum = 0;
  for (int n = first; n < first + kEncFrameLen; ++n) sum += asr32(mul2_16(x[n], x[n]), 1);
  return sum;
}

// The level of an energy sum of 160 samples, read like the bands' (/ 32).
int16_t sum_level(int64_t sum) { return level_of(sat32(asr64(sum, kSegmentShift))); }

// The levels of the frame: the two bands of the analysis frame, the coded
// segment. The LPC analysis leaves the autocorrelation of a nearly silent
// analysis frame (a few units of energy) unscaled, and its band energies
// then read up to 80 dB too loud: below the level of digital silence the
// bands take the analysis frame's whole-band level (a band holds no more
// than the whole frame). coded_energy (in) is the coded segment's sum of
// squares.
void frame_levels(const kevrce_instance *enc, int64_t coded_energy, int16_t *level) {
  const int16_t whole = sum_level(segment_energy(enc->work->speech, kEncFrameLen));
  for (int b = 0; b < 2; ++b) {
    level[b] = whole < kSilenceLevel ? whole : level_of(enc->rd.band_energy[b]);
  }
  level[2] = sum_level(coded_energy);
}

void start(kevrce_robust_rate_state &s) {
  s = kevrce_robust_rate_state{};
  for (int b = 0; b < kRobustLevels; ++b) {
    std::fill(s.run_min[b], s.run_min[b] + kRobustSubWindows, kNoLevel);
    s.current_min[b] = kNoLevel;
  }
}

// Minimum statistics: the background is the minimum of the earlier frames'
// levels in the window, then the current run's minimum takes the level and
// a full run moves into the window. Leaving the frame's own level out
// changes no decision (a level below the earlier minimum is not above it
// either). At the start the background is at most kStartFloor plus 0.2 dB
// per frame (frame `count`): a file that starts with background has it as
// its floor within a few frames (5 for a band at -50 dB, 30 at -45 dB)
// instead of after the 64..80 frames the window takes to fill, while a
// sound that starts the file, whose level would otherwise become its own
// floor, stays above that rising bound for longer than a syllable lasts
// (a band at -48 dB: 15 frames, after which a steady sound cannot be
// told from background; louder than -40 dB is never background).
void track_background(kevrce_robust_rate_state &s, const int16_t *level, uint32_t count) {
  const int32_t start_bound = kStartFloor + kStartRise * static_cast<int32_t>(std::min(count, kStartRiseFrames));
  for (int b = 0; b < kRobustLevels; ++b) {
    const int16_t seen = std::min(*std::min_element(s.run_min[b], s.run_min[b] + kRobustSubWindows), s.current_min[b]);
    s.floor[b] = std::max(static_cast<int16_t>(std::min<int32_t>(seen, start_bound)), kSilenceLevel);
    s.current_min[b] = std::min(s.current_min[b], level[b]);
  }
  s.run_frames = add16_wrap(s.run_frames, 1);
  if (s.run_frames < kRunFrames) return;
  s.run_frames = 0;
  for (int b = 0; b < kRobustLevels; ++b) {
    std::copy(s.run_min[b] + 1, s.run_min[b] + kRobustSubWindows, s.run_min[b]);
    s.run_min[b][kRobustSubWindows - 1] = s.current_min[b];
    s.current_min[b] = kNoLevel;
  }
}

bool above_background(const kevrce_robust_rate_state &s, const int16_t *level, int b) {
  return level[b] - s.floor[b] > kSpeechMargin;
}

bool is_speech(const kevrce_robust_rate_state &s, const int16_t *level) {
  const int16_t top = std::max(level[0], level[1]);
  if (top < s.peak - kBelowPeak) return false;
  if (!above_background(s, level, 0) && !above_background(s, level, 1)) return false;
  return s.hangover > 0 || above_background(s, level, 2);
}

// Loud, or tonal: a steady level (within 1 dB of the last frame's; a
// fading word is not steady) and a prediction gain above 18 dB,
// sum x^2 > 63 * sum e^2 over the coded segment (coded_energy: sum x^2).
bool is_stationary_signal(const kevrce_robust_rate_state &s, const kevrce_work &w, int64_t coded_energy,
                          const int16_t *level) {
  const int16_t top = std::max(level[0], level[1]);
  if (top > kLoudLevel) return true;
  if (top <= kTonalLevel || std::abs(top - s.last_top) > kSteady) return false;
  return coded_energy > kTonalGain * segment_energy(w.residual);
}

int16_t speech_rate(const kevrce_robust_rate_state &s, const int16_t *level) {
  return std::max(level[0], level[1]) < s.peak - kWeak ? kHalf : kFull;
}

}  // namespace

int16_t robust_rate_decision(kevrce_instance *enc, int32_t max_rate, int32_t min_rate) {
  kevrce_robust_rate_state &s = enc->robust_rd;
  if (enc->frame_count == 0) start(s);
  const int64_t coded_energy = segment_energy(enc->work->speech);
  int16_t level[kRobustLevels];
  frame_levels(enc, coded_energy, level);
  track_background(s, level, enc->frame_count);

  int16_t rate = kEighth;
  if (is_speech(s, level)) {
    s.peak = std::max(s.peak, std::max(level[0], level[1]));
    rate = speech_rate(s, level);
    s.hangover = rate == kHalf ? kWeakTailHangover : kHangoverFrames;
  } else if (is_stationary_signal(s, *enc->work, coded_energy, level)) {
    rate = kFull;
    s.hangover = kHangoverFrames;
  } else if (s.hangover > 0) {
    rate = kHalf;
    s.hangover = sub16_wrap(s.hangover, 1);
  }
  s.peak = std::max<int16_t>(sub16_wrap(s.peak, kPeakDecay), 0);
  s.last_top = std::max(level[0], level[1]);
  return static_cast<int16_t>(std::max(std::min<int32_t>(rate, max_rate), min_rate));
}

}  // namespace kevrc
