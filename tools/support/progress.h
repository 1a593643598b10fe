// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Progress line of the kevrc tool on a terminal: percent done (when the
// total is known), elapsed seconds and speed in multiples of real time,
// redrawn at most five times a second on stderr, cleared at the end.
//  Progress(label, enabled): enabled (in) is false for -q, batches and a
//    stderr that is not a terminal; then nothing is drawn.
//  update(fraction, audio_seconds): fraction (in) of the input done, 0..1,
//    or negative when unknown; audio_seconds (in) of audio coded so far.
//  seconds(): elapsed time since construction.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace kevrc::tool {

class Progress {
 public:
  Progress(std::string label, bool enabled) : label_(std::move(label)), enabled_(enabled) {}
  ~Progress() {
    if (drawn_) std::fprintf(stderr, "\r%*s\r", 72, "");
  }
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }
  void update(double fraction, double audio_seconds) {
    if (!enabled_) return;
    const double now = seconds();
    if (now - last_ < 0.2) return;
    last_ = now;
    drawn_ = true;
    char percent[16] = "";
    if (fraction >= 0) std::snprintf(percent, sizeof percent, "%3.0f%%  ", 100 * fraction);
    std::fprintf(stderr, "\rkevrc: %.40s  %s%.1f s  %.0fx real time  ", label_.c_str(), percent, now,
                 now > 0 ? audio_seconds / now : 0.0);
  }

 private:
  std::string label_;
  bool enabled_;
  bool drawn_ = false;
  double last_ = 0;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace kevrc::tool
