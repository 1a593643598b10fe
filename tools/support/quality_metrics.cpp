// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Quality figures of a decoded signal against its reference; see
// quality_metrics.h and tools/quality.cpp for their definitions.
#include "tools/support/quality_metrics.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

namespace kevrc::quality {

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
constexpr size_t kLsdFirstBin = 4, kLsdLastBin = 120;  // 125..3750 Hz
constexpr int kLocalLag = 80;
constexpr double kSnrMin = -10.0, kSnrMax = 35.0;
constexpr double kPi = std::numbers::pi;


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
// Frames with more than half of their samples marked (missing marks: inactive).
std::vector<bool> marked_frames(const std::vector<bool> &marks, size_t frames) {
  std::vector<bool> active(frames);
  for (size_t f = 0; f < frames; ++f) {
    size_t n = 0;
    for (size_t i = f * kFrame; i < std::min(marks.size(), (f + 1) * kFrame); ++i) n += marks[i] ? 1 : 0;
    active[f] = 2 * n > kFrame;
  }
  return active;
}

void frame_figures(const std::vector<double> &r, const std::vector<double> &d, const std::vector<bool> *marks,
                   Figures &fig) {
  static const std::vector<std::vector<double>> bank = mel_filterbank();
  const size_t frames = std::min(r.size(), d.size()) / kFrame;
  const std::vector<bool> active = marks != nullptr ? marked_frames(*marks, frames) : active_frames(r, frames);
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

}  // namespace

bool compare_signals(std::vector<double> r, std::vector<double> d, bool filter_reference, Figures &fig) {
  if (filter_reference) codec_input_filter(r);
  const Alignment a = find_delay(r, d);
  fig.delay = a.lag;
  fig.xcorr = a.xcorr;
  align(r, d, a.lag);
  frame_figures(r, d, nullptr, fig);
  return fig.frames > 0;
}

bool compare_signals(std::vector<double> r, std::vector<double> d, bool filter_reference,
                     std::vector<bool> active, Figures &fig, int lag) {
  if (filter_reference) codec_input_filter(r);
  const Alignment a = lag >= -kMaxLag ? Alignment{lag, 0} : find_delay(r, d);
  fig.delay = a.lag;
  fig.xcorr = a.xcorr;
  if (a.lag < 0) active.erase(active.begin(), active.begin() + std::min<size_t>(static_cast<size_t>(-a.lag), active.size()));
  align(r, d, a.lag);
  frame_figures(r, d, &active, fig);
  return fig.frames > 0;
}

bool compare_aligned(std::vector<double> r, std::vector<double> d, Figures &fig) {
  fig.delay = 0;
  fig.xcorr = 0;
  align(r, d, 0);
  frame_figures(r, d, nullptr, fig);
  return fig.frames > 0;
}

}  // namespace kevrc::quality
