// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The rate decision of the encoder's quality mode (kevrce_set_robust): its
// state and its entry point. See encoder/robust_rate.cpp.
#pragma once

#include <cstdint>

struct kevrce_instance;

namespace kevrc {

constexpr int kRobustSubWindows = 5;  // minimum-statistics window: 5 runs of 16 frames
constexpr int kRobustLevels = 3;      // band 0, band 1, the coded segment's whole band

// State of the quality-mode decision; all zero at creation, set up on the
// first frame (frame count 0). Levels are log2 of an energy in Q10 (1024
// is 3.01 dB), 0..31744, indexed as kRobustLevels.
struct kevrce_robust_rate_state {
  int16_t run_min[kRobustLevels][kRobustSubWindows];  // minimum level of each finished run
  int16_t current_min[kRobustLevels];                 // minimum level of the current run
  int16_t run_frames;                                 // frames in the current run, 0..15
  int16_t floor[kRobustLevels];                       // background level
  int16_t hangover;                       // frames still held above eighth rate
  int16_t peak;                           // speech peak level, decaying
  int16_t last_top;                       // the louder band's level in the last frame
};

// The quality-mode rate code (1, 3 or 4) of the current frame, bounded to
// [min_rate, max_rate] like the standard decision's. Reads the band
// energies the standard decision left in enc->rd and the frame's speech and
// residual in enc->work; updates enc->robust_rd.
int16_t robust_rate_decision(kevrce_instance *enc, int32_t max_rate, int32_t min_rate);

}  // namespace kevrc
