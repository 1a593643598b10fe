// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrc_quality: objective distance between a decoded file and its reference.
//
//   kevrc_quality [--raw-reference] REF DEC
//   kevrc_quality [--raw-reference] --list FILE     (each line "REF DEC"; blank lines and lines
//                                  starting with '#' are skipped; names
//                                  cannot contain white space)
//
// Both files are read with the tools' audio support: channels averaged,
// resampled to 8000 Hz, in 16-bit units (full scale 32768). The reference
// then passes a double-precision model of the encoder's input high-pass
// (its three second-order sections): the codec removes the band below about
// 100 Hz on purpose, and that filter turns the phase of the low band by up
// to a half turn, so an unfiltered reference would count both as coding
// error. (--raw-reference skips this, for decoded files of other origin.)
//
// Figures, each on a line "name value":
//  delay   the lag L in -400..400 samples that maximises the normalised
//          cross-correlation sum r[n]·d[n+L] / sqrt(sum r[n]² · sum d[n+L]²)
//          over the overlap of the two signals; positive when DEC lags REF.
//          Lags are tried in the order 0, 1, -1, 2, -2, ... and a lag
//          replaces the best only when strictly better (the smallest lag
//          wins ties). xcorr is that maximum.
//  frames  the active frames: 20 ms (160-sample) frames of the aligned
//          overlap whose reference energy is within 40 dB of the loudest
//          reference frame and whose reference mean square is at least 1
//          (digital silence is never active). All averages below are over
//          the active frames.
//          Local alignment: the codec warps time (its residual modification
//          shifts speech by up to 72 samples, slowly varying), so each active
//          frame is compared with the decoded frame at its own best lag
//          within +-80 samples of the global delay (largest normalised
//          correlation over the frame; the smallest offset wins ties).
//          "jitter" is the mean absolute local offset in samples.
//  segsnr  10·log10(sum r² / sum (r - d)²) per frame, clamped to [-10, 35] dB
//          (35 when the frame is identical), averaged.
//  lsd     log-spectral distance: per frame, the 160 samples with a Hann
//          window w[n] = 0.5 - 0.5·cos(2π(n + 0.5)/160), zero-padded to a
//          256-point FFT; P = |X|² on bins 0..128, both spectra floored at
//          50 dB below the reference frame's strongest bin (so empty bands
//          do not dominate); the RMS over the bins of the telephone band
//          125..3750 Hz (bins 4..120) of 10·log10 Pr - 10·log10 Pd, in dB,
//          averaged.
//  mcd     mel-cepstral distortion: the same power spectra through 24
//          triangular filters whose 26 edges are equally spaced on the mel
//          scale (2595·log10(1 + f/700)) over 0..4000 Hz; L_m = ½·ln(E_m + 1)
//          (log amplitude); c_k = (1/24)·sum_m L_m·cos(πk(m + ½)/24) for
//          k = 0..12, so that c_k are the cosine-series coefficients of the
//          log-amplitude mel spectrum; per frame
//          (10/ln 10)·sqrt(2·sum_{k=1..12} (Δc_k)²) dB, averaged.
//
// With --list the figures of each pair are printed on one line starting
// "file REF DEC", then "files N", the mean over the files of segsnr, lsd and
// mcd (each file weighs the same), and the total of the active frames. A
// pair that cannot be measured is reported on stderr and left out; the exit
// status is then 1.
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tools/support/audio_io.h"
#include "tools/support/quality_metrics.h"

namespace {

using kevrc::quality::Figures;

bool filter_reference = true;  // cleared by --raw-reference

bool measure(const std::string &ref_path, const std::string &dec_path, Figures &fig, std::string &error) {
  std::vector<double> r, d;
  if (!kevrc::audio::read_mono_8k(ref_path, r, error) || !kevrc::audio::read_mono_8k(dec_path, d, error))
    return false;
  if (!kevrc::quality::compare_signals(std::move(r), std::move(d), filter_reference, fig)) {
    error = ref_path + ": no active speech frames to compare";
    return false;
  }
  return true;
}

// ------------------------------------------------------------------ output

void print_figures(const Figures &f, const char *sep) {
  std::printf("delay %d%sxcorr %.4f%sjitter %.1f%ssegsnr %.2f%slsd %.2f%smcd %.2f%sframes %ld\n",
              f.delay, sep, f.xcorr, sep, f.jitter, sep, f.segsnr, sep, f.lsd, sep, f.mcd, sep, f.frames);
}

int fail(const std::string &message) {
  std::fprintf(stderr, "kevrc_quality: %s\n", message.c_str());
  return 1;
}

int run_pair(const std::string &ref, const std::string &dec) {
  Figures f;
  std::string error;
  if (!measure(ref, dec, f, error)) return fail(error);
  print_figures(f, "\n");
  return 0;
}

int run_list(const std::string &list_path) {
  std::ifstream list(list_path);
  if (!list) return fail("cannot read " + list_path);
  std::string line;
  long line_no = 0, files = 0, failures = 0, frames = 0;
  double snr = 0, lsd = 0, mcd = 0, jitter = 0;
  while (std::getline(list, line)) {
    ++line_no;
    std::istringstream fields(line);
    std::string ref, dec, extra;
    if (!(fields >> ref) || ref[0] == '#') continue;
    if (!(fields >> dec) || (fields >> extra)) {
      fail(list_path + ": line " + std::to_string(line_no) + ": expected \"REF DEC\"");
      ++failures;
      continue;
    }
    Figures f;
    std::string error;
    if (!measure(ref, dec, f, error)) {
      fail(error);
      ++failures;
      continue;
    }
    std::printf("file %s %s ", ref.c_str(), dec.c_str());
    print_figures(f, " ");
    ++files;
    snr += f.segsnr;
    lsd += f.lsd;
    mcd += f.mcd;
    jitter += f.jitter;
    frames += f.frames;
  }
  const double n = files > 0 ? static_cast<double>(files) : 1.0;
  std::printf("files %ld\njitter %.1f\nsegsnr %.2f\nlsd %.2f\nmcd %.2f\nframes %ld\n", files, jitter / n, snr / n, lsd / n,
              mcd / n, frames);
  if (failures > 0) return fail(std::to_string(failures) + " of the listed pairs could not be measured");
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc > 1 && std::string(argv[1]) == "--raw-reference") {
    filter_reference = false;
    --argc;
    ++argv;
  }
  if (argc == 3 && std::string(argv[1]) == "--list") return run_list(argv[2]);
  if (argc == 3 && argv[1][0] != '-') return run_pair(argv[1], argv[2]);
  std::fprintf(stderr, "kevrc_quality: usage: kevrc_quality [--raw-reference] REF DEC | kevrc_quality [--raw-reference] --list FILE\n");
  return 2;
}
