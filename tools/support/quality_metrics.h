// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Objective distance between a decoded signal and its reference: delay,
// cross-correlation, segmental SNR, log-spectral distance, mel-cepstral
// distortion and local-alignment jitter over the active frames. The
// definitions of each figure are in tools/quality.cpp's opening comment.
//
//  compare_signals(r, d, filter_reference, fig): r the reference and d the
//    decoded signal (in, 8 kHz, 16-bit units); with filter_reference the
//    reference first passes the codec's input high-pass. fig (out) gets the
//    figures. Returns false when there are no active frames to compare.
//  compare_aligned(r, d, fig): the same figures for two signals already
//    aligned (the delay is known and left at 0; no reference filter).
//  compare_signals(r, d, filter_reference, active, fig): the same over the
//    frames the caller marks active (below).
#pragma once

#include <vector>

namespace kevrc::quality {

struct Figures {
  int delay = 0;
  double xcorr = 0;
  double segsnr = 0, lsd = 0, mcd = 0;
  double jitter = 0;
  long frames = 0;
};

bool compare_signals(std::vector<double> r, std::vector<double> d, bool filter_reference, Figures &fig);
bool compare_aligned(std::vector<double> r, std::vector<double> d, Figures &fig);

// The same figures over the frames of the reference chosen by the caller
// instead of the 40 dB rule: a frame (of the aligned reference) counts when
// more than half of its samples are marked in active (one flag per
// reference sample; missing flags count as inactive). With lag >= -400 the
// signals are aligned at that lag instead of the searched one (fig.xcorr
// then stays 0): for decoded versions of one input whose delay is known.
bool compare_signals(std::vector<double> r, std::vector<double> d, bool filter_reference,
                     std::vector<bool> active, Figures &fig, int lag = -401);

}  // namespace kevrc::quality
