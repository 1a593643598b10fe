// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Test material for the training and measurement tools (header only): the
// active level of a recording, speech mixed with noise at an SNR, noise
// segments at a level, and babble made from corpus files.
//
//  active_rms(x) (noise_gen.h): RMS over the 20 ms frames within 30 dB of the loudest one.
//  mix(speech, noise, offset, snr_db, level_dbfs): the speech scaled to the
//    active level (dB relative to a full-scale RMS of 32768) plus the noise
//    (unit RMS, read cyclically from offset) snr_db below it, saturated.
//  noise_segment(noise, offset, n, level_dbfs): n noise samples at a level.
//  make_babble(root, sources, length, seed): the sum of the source files,
//    each at unit active RMS and looped from a pseudo-random start, scaled to
//    unit RMS.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/support/corpus.h"
#include "tools/support/noise_gen.h"

namespace kevrc::train {

inline double db_to_rms(double dbfs) { return 32768.0 * std::pow(10.0, dbfs / 20.0); }

// Speech scaled to an active level plus noise at an SNR below it, saturated.
inline std::vector<int16_t> mix(const std::vector<int16_t> &speech,
                                const std::vector<double> &noise, size_t noise_offset,
                                double snr_db, double level_dbfs) {
  const double a = active_rms(speech);
  const double gs = a > 0 ? db_to_rms(level_dbfs) / a : 1.0;
  const double gn = db_to_rms(level_dbfs) * std::pow(10.0, -snr_db / 20.0);
  std::vector<double> y(speech.size());
  size_t p = noise_offset % noise.size();
  for (size_t i = 0; i < speech.size(); ++i) {
    y[i] = gs * speech[i] + gn * noise[p];
    if (++p == noise.size()) p = 0;
  }
  return to_pcm(y, 1.0);
}

inline std::vector<int16_t> noise_segment(const std::vector<double> &noise, size_t offset, size_t n,
                                          double level_dbfs) {
  std::vector<double> y(n);
  for (size_t i = 0; i < n; ++i) y[i] = noise[(offset + i) % noise.size()];
  return to_pcm(y, db_to_rms(level_dbfs));
}

// Babble: the sum of several corpus files, each at unit active RMS, looped
// from a pseudo-random start; the sum is scaled to unit RMS.
inline std::vector<double> make_babble(const std::string &root,
                                       const std::vector<std::string> &sources, size_t length,
                                       uint64_t seed) {
  std::vector<double> out(length, 0.0);
  Rng rng(seed);
  for (const std::string &rel : sources) {
    std::vector<int16_t> pcm;
    std::string err;
    if (!corpus::read_pcm(root + "/" + rel, pcm, err) || pcm.size() < 160) continue;
    const double a = active_rms(pcm);
    if (a <= 0) continue;
    size_t pos = static_cast<size_t>(rng.next() % pcm.size());
    for (size_t i = 0; i < length; ++i) {
      out[i] += pcm[pos] / a;
      if (++pos == pcm.size()) pos = 0;
    }
  }
  normalize_rms(out);
  return out;
}

}  // namespace kevrc::train
