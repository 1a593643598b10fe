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
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <fstream>
#include <numbers>
#include <sstream>
#include <string>
#include <vector>

#include "tools/support/audio_io.h"

namespace {

constexpr int kMaxLag = 400;
constexpr size_t kFrame = 160;
constexpr size_t kFft = 256;
constexpr size_t kBins = kFft / 2 + 1;
constexpr int kMelBands = 24;
constexpr int kCepstra = 12;  // c1..c12 enter the distance
constexpr double kActiveRangeDb = 40.0;
constexpr double kSilenceMeanSquare = 1.0;
constexpr double kPowerFloor = 1.0;
constexpr double kLsdRangeDb = 50.0;
bool filter_reference = true;  // cleared by --raw-reference
constexpr size_t kLsdFirstBin = 4, kLsdLastBin = 120;  // 125..3750 Hz
constexpr int kLocalLag = 80;
constexpr double kSnrMin = -10.0, kSnrMax = 35.0;
constexpr double kPi = std::numbers::pi;

struct Figures {
  int delay = 0;
  double xcorr = 0;
  double segsnr = 0, lsd = 0, mcd = 0;
  double jitter = 0;
  long frames = 0;
};

// ------------------------------------------------------------ delay search

struct Alignment {
  int lag = 0;
  double xcorr = -2;
};

// Normalised cross-correlation of r[n] with d[n + lag] over their overlap.
double normalised_xcorr(const std::vector<double> &r, const std::vector<double> &d, int lag) {
  const long nr = static_cast<long>(r.size()), nd = static_cast<long>(d.size());
  const long start = std::max(0L, -static_cast<long>(lag));
  const long end = std::min(nr, nd - lag);
  double rd = 0, rr = 0, dd = 0;
  for (long n = start; n < end; ++n) {
    const double a = r[static_cast<size_t>(n)], b = d[static_cast<size_t>(n + lag)];
    rd += a * b;
    rr += a * a;
    dd += b * b;
  }
  return rr > 0 && dd > 0 ? rd / std::sqrt(rr * dd) : 0.0;
}

Alignment find_delay(const std::vector<double> &r, const std::vector<double> &d) {
  Alignment best;
  for (int step = 0; step <= 2 * kMaxLag; ++step) {
    const int lag = step % 2 == 1 ? (step + 1) / 2 : -(step / 2);  // 0, 1, -1, 2, -2, ...
    const double c = normalised_xcorr(r, d, lag);
    if (c > best.xcorr) best = {lag, c};
  }
  return best;
}

// ------------------------------------------------------------------ spectra

// In-place iterative radix-2 complex FFT (forward, unscaled); size a power of two.
void fft(std::vector<std::complex<double>> &x) {
  const size_t n = x.size();
  for (size_t i = 1, j = 0; i < n; ++i) {  // bit-reversal permutation
    size_t bit = n >> 1;
    for (; j & bit; bit >>= 1) j ^= bit;
    j ^= bit;
    if (i < j) std::swap(x[i], x[j]);
  }
  for (size_t len = 2; len <= n; len <<= 1) {
    const std::complex<double> w_len = std::polar(1.0, -2 * kPi / static_cast<double>(len));
    for (size_t i = 0; i < n; i += len) {
      std::complex<double> w = 1;
      for (size_t k = 0; k < len / 2; ++k) {
        const std::complex<double> u = x[i + k], v = x[i + k + len / 2] * w;
        x[i + k] = u + v;
        x[i + k + len / 2] = u - v;
        w *= w_len;
      }
    }
  }
}

// |X|² on bins 0..128 of the Hann-windowed frame, zero-padded to 256 points.
std::vector<double> power_spectrum(const double *frame) {
  std::vector<std::complex<double>> x(kFft);
  for (size_t n = 0; n < kFrame; ++n)
    x[n] = frame[n] * (0.5 - 0.5 * std::cos(2 * kPi * (static_cast<double>(n) + 0.5) / kFrame));
  fft(x);
  std::vector<double> p(kBins);
  for (size_t k = 0; k < kBins; ++k) p[k] = std::norm(x[k]);
  return p;
}

double lsd_frame(const std::vector<double> &pr, const std::vector<double> &pd) {
  const double peak = *std::max_element(pr.begin(), pr.end());
  const double floor = std::max(peak * std::pow(10.0, -kLsdRangeDb / 10), kPowerFloor);
  double sum = 0;
  for (size_t k = kLsdFirstBin; k <= kLsdLastBin; ++k) {
    const double diff = 10 * std::log10(std::max(pr[k], floor)) - 10 * std::log10(std::max(pd[k], floor));
    sum += diff * diff;
  }
  return std::sqrt(sum / static_cast<double>(kLsdLastBin - kLsdFirstBin + 1));
}

double hz_to_mel(double f) { return 2595 * std::log10(1 + f / 700); }
double mel_to_hz(double m) { return 700 * (std::pow(10.0, m / 2595) - 1); }

// Triangular mel filter weights, kMelBands rows of kBins.
std::vector<std::vector<double>> mel_filterbank() {
  std::vector<double> edge_hz(kMelBands + 2);
  const double top = hz_to_mel(4000);
  for (int i = 0; i < kMelBands + 2; ++i) edge_hz[i] = mel_to_hz(top * i / (kMelBands + 1));
  std::vector<std::vector<double>> bank(kMelBands, std::vector<double>(kBins, 0.0));
  for (int m = 0; m < kMelBands; ++m) {
    const double lo = edge_hz[m], mid = edge_hz[m + 1], hi = edge_hz[m + 2];
    for (size_t k = 0; k < kBins; ++k) {
      const double f = static_cast<double>(k) * 8000.0 / kFft;
      if (f > lo && f < mid) bank[m][k] = (f - lo) / (mid - lo);
      else if (f >= mid && f < hi) bank[m][k] = (hi - f) / (hi - mid);
    }
  }
  return bank;
}

// c1..c12 of the log-amplitude mel spectrum (c[0] unused).
std::vector<double> mel_cepstrum(const std::vector<double> &power,
                                 const std::vector<std::vector<double>> &bank) {
  std::vector<double> log_amp(kMelBands);
  for (int m = 0; m < kMelBands; ++m) {
    double e = 0;
    for (size_t k = 0; k < kBins; ++k) e += bank[m][k] * power[k];
    log_amp[m] = 0.5 * std::log(e + kPowerFloor);
  }
  std::vector<double> c(kCepstra + 1, 0.0);
  for (int k = 1; k <= kCepstra; ++k) {
    for (int m = 0; m < kMelBands; ++m) c[k] += log_amp[m] * std::cos(kPi * k * (m + 0.5) / kMelBands);
    c[k] /= kMelBands;
  }
  return c;
}

double mcd_frame(const std::vector<double> &cr, const std::vector<double> &cd) {
  double sum = 0;
  for (int k = 1; k <= kCepstra; ++k) sum += (cr[k] - cd[k]) * (cr[k] - cd[k]);
  return 10 / std::log(10.0) * std::sqrt(2 * sum);
}

// ------------------------------------------------------------------ frames

double energy(const double *x, size_t n) {
  double e = 0;
  for (size_t i = 0; i < n; ++i) e += x[i] * x[i];
  return e;
}

double segsnr_frame(const double *r, const double *d) {
  double noise = 0;
  for (size_t i = 0; i < kFrame; ++i) noise += (r[i] - d[i]) * (r[i] - d[i]);
  const double signal = energy(r, kFrame);
  if (noise == 0) return kSnrMax;
  const double snr = 10 * std::log10(signal / noise);
  return std::clamp(snr, kSnrMin, kSnrMax);
}

// Which frames of the reference are active speech (rule in the file comment).
std::vector<bool> active_frames(const std::vector<double> &r, size_t frames) {
  std::vector<double> e(frames);
  double peak = 0;
  for (size_t f = 0; f < frames; ++f) peak = std::max(peak, e[f] = energy(&r[f * kFrame], kFrame));
  const double threshold = std::max(peak * std::pow(10.0, -kActiveRangeDb / 10), kSilenceMeanSquare * kFrame);
  std::vector<bool> active(frames);
  for (size_t f = 0; f < frames; ++f) active[f] = e[f] >= threshold;
  return active;
}

// Best offset in -80..80 (kept inside d) of the decoded frame against the
// reference frame starting at `at`, by normalised correlation.
int local_offset(const std::vector<double> &r, const std::vector<double> &d, size_t at) {
  int best = 0;
  double best_c = -2;
  for (int step = 0; step <= 2 * kLocalLag; ++step) {
    const int off = step % 2 == 1 ? (step + 1) / 2 : -(step / 2);
    const long start = static_cast<long>(at) + off;
    if (start < 0 || start + static_cast<long>(kFrame) > static_cast<long>(d.size())) continue;
    double rd = 0, dd = 0;
    for (size_t n = 0; n < kFrame; ++n) {
      const double b = d[static_cast<size_t>(start) + n];
      rd += r[at + n] * b;
      dd += b * b;
    }
    const double c = dd > 0 ? rd / std::sqrt(dd) : 0.0;
    if (c > best_c) {
      best_c = c;
      best = off;
    }
  }
  return best;
}

// Segmental SNR, LSD and MCD over the active frames of the aligned signals.
void frame_figures(const std::vector<double> &r, const std::vector<double> &d, Figures &fig) {
  static const std::vector<std::vector<double>> bank = mel_filterbank();
  const size_t frames = std::min(r.size(), d.size()) / kFrame;
  const std::vector<bool> active = active_frames(r, frames);
  double snr_sum = 0, lsd_sum = 0, mcd_sum = 0, jitter_sum = 0;
  for (size_t f = 0; f < frames; ++f) {
    if (!active[f]) continue;
    const double *rf = &r[f * kFrame];
    const int offset = local_offset(r, d, f * kFrame);
    const double *df = &d[static_cast<size_t>(static_cast<long>(f * kFrame) + offset)];
    jitter_sum += std::abs(offset);
    snr_sum += segsnr_frame(rf, df);
    const std::vector<double> pr = power_spectrum(rf), pd = power_spectrum(df);
    lsd_sum += lsd_frame(pr, pd);
    mcd_sum += mcd_frame(mel_cepstrum(pr, bank), mel_cepstrum(pd, bank));
    ++fig.frames;
  }
  if (fig.frames > 0) {
    fig.segsnr = snr_sum / static_cast<double>(fig.frames);
    fig.lsd = lsd_sum / static_cast<double>(fig.frames);
    fig.mcd = mcd_sum / static_cast<double>(fig.frames);
    fig.jitter = jitter_sum / static_cast<double>(fig.frames);
  }
}

// The encoder's input high-pass in double precision: per section
// y = (c2 x[n] + c1 x[n-1] + c0 x[n-2]) / 8192 - (4 c4 y[n-1] + 4 c3 y[n-2]) / 32768,
// with the coefficient rows of the codec's filter table.
void codec_input_filter(std::vector<double> &x) {
  const double rows[3][5] = {{8193, -16385, 8192, 7802, -15923},
                             {8191, -16383, 8192, 7170, -15294},
                             {6828, -13656, 6828, 6827, -14952}};
  for (const auto &c : rows) {
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    for (double &v : x) {
      const double y = (c[2] * v + c[1] * x1 + c[0] * x2) / 8192 - (4 * c[4] * y1 + 4 * c[3] * y2) / 32768;
      x2 = x1;
      x1 = v;
      y2 = y1;
      y1 = y;
      v = y;
    }
  }
}

// The overlap of r[n] and d[n + lag], both starting at index 0.
void align(std::vector<double> &r, std::vector<double> &d, int lag) {
  if (lag > 0) d.erase(d.begin(), d.begin() + std::min<size_t>(static_cast<size_t>(lag), d.size()));
  if (lag < 0) r.erase(r.begin(), r.begin() + std::min<size_t>(static_cast<size_t>(-lag), r.size()));
  const size_t n = std::min(r.size(), d.size());
  r.resize(n);
  d.resize(n);
}

bool measure(const std::string &ref_path, const std::string &dec_path, Figures &fig, std::string &error) {
  std::vector<double> r, d;
  if (!kevrc::audio::read_mono_8k(ref_path, r, error) || !kevrc::audio::read_mono_8k(dec_path, d, error))
    return false;
  if (filter_reference) codec_input_filter(r);
  const Alignment a = find_delay(r, d);
  fig.delay = a.lag;
  fig.xcorr = a.xcorr;
  align(r, d, a.lag);
  frame_figures(r, d, fig);
  if (fig.frames == 0) {
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
