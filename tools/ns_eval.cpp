// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// ns_eval: measures the noise suppressor on the held-out speech corpus, in
// the classic mode and in the robust mode (kevrce_set_robust's field).
//
// Each held-out file is mixed with white noise, with "car" noise (white
// noise through a second-order low-pass at 400 Hz) and with babble (eight
// held-out files summed) at 5, 10 and 15 dB SNR, the SNR taken over the
// file's active speech (the 20 ms segments within 40 dB of its loudest
// one). The mixture is fed in 80-sample blocks through kevrce_noise_suprs on
// a fresh instance per file, the encoder's frame counter advancing every
// second call. As in the encoder, the input high-pass filter runs first (the
// SNR is set before it, so it removes part of the car noise); the clean
// reference is the filtered speech. The suppressor's delay is found per file
// by cross-correlating its output with the clean speech (lags 0..200), and
// the output is aligned by it and doubled (undoing the suppressor's fixed
// halving).
//
// Table 1, per noise and SNR, classic and robust: the segmental SNR against
// the clean speech of the input and of the aligned output (20 ms segments,
// each clamped to [-10, 35] dB, counting only segments within 40 dB of the
// file's loudest), their difference, and the speech-path level of the
// output (least-squares gain against the clean speech, in dB).
//
// Table 2, the output against its own input (clean speech, or the mixture):
// the level change on the active frames (output minus input energy, dB, the
// frames of the clean speech within 40 dB of its loudest) and the
// mel-cepstral distortion (tools/support/quality_metrics.h, its active
// frames), averaged over the files, split into files that start with speech
// (either of the first two frames within 30 dB of the loudest frame) and
// files that start with background; near-silent files (loudest frame below
// RMS 64) are left out. For the clean files that start with speech, the
// median level change and the number of files within 0.2 dB as well. With
// -v, one line per file as well.
//
// Usage: ns_eval [-v] [corpus root]   (default /usr/share/asterisk/sounds)
// The noise is deterministic (fixed seeds per file and condition).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <kevrc/kevrc_kernels.h>
#include "encoder/encoder_state.h"
#include "tools/support/corpus.h"
#include "tools/support/material.h"
#include "tools/support/quality_metrics.h"

namespace {

constexpr int kBlock = 80;
constexpr int kSegment = 160;  // 20 ms
constexpr int kMaxLag = 200;
constexpr double kPi = 3.14159265358979323846;

// Runs the suppressor over x (zero-padded to whole blocks plus three blocks,
// so that the output delayed by up to kMaxLag covers the input) on a fresh
// instance.
std::vector<int16_t> suppress(const std::vector<int16_t> &x, int robust) {
  auto enc = std::make_unique<kevrce_instance>();
  auto work = std::make_unique<kevrce_work>();
  enc->work = work.get();
  enc->robust = static_cast<int16_t>(robust);
  enc->ns.bin_gain[0] = enc->ns.bin_gain[1] = 32767;
  std::vector<int16_t> buf(x);
  buf.resize((x.size() + kBlock - 1) / kBlock * kBlock + 3 * kBlock, 0);
  for (size_t i = 0; i < buf.size(); i += kBlock) {
    kevrce_noise_suprs(enc.get(), &buf[i]);
    if ((i / kBlock) % 2 == 1) ++enc->frame_count;
  }
  return buf;
}

// The encoder's input high-pass filter, which runs before the suppressor:
// applied (with its own fresh state) to the clean speech and to each mixture.
std::vector<int16_t> highpass(std::vector<int16_t> x) {
  auto enc = std::make_unique<kevrce_instance>();
  for (size_t i = 0; i + 160 <= x.size(); i += 160) kevrce_hpf(enc.get(), &x[i]);
  return x;
}

std::vector<double> segment_energies(const std::vector<double> &x) {
  std::vector<double> e;
  for (size_t s = 0; s + kSegment <= x.size(); s += kSegment) {
    double acc = 0;
    for (int i = 0; i < kSegment; ++i) acc += x[s + i] * x[s + i];
    e.push_back(acc);
  }
  return e;
}

// Segments within 40 dB of the loudest one.
std::vector<bool> active_segments(const std::vector<double> &clean) {
  const auto e = segment_energies(clean);
  const double peak = e.empty() ? 0 : *std::max_element(e.begin(), e.end());
  std::vector<bool> active(e.size());
  for (size_t i = 0; i < e.size(); ++i) active[i] = peak > 0 && e[i] >= peak * 1e-4;
  return active;
}

// Sum of segment SNRs (clamped) over the active segments, and their count.
struct SegSnr {
  double sum = 0;
  long count = 0;
  double mean() const { return count ? sum / count : 0; }
};

void add_segsnr(SegSnr &acc, const std::vector<double> &clean, const std::vector<double> &est,
                const std::vector<bool> &active) {
  for (size_t s = 0; s < active.size(); ++s) {
    if (!active[s]) continue;
    double sig = 0, err = 0;
    for (int i = 0; i < kSegment; ++i) {
      const size_t n = s * kSegment + i;
      sig += clean[n] * clean[n];
      err += (clean[n] - est[n]) * (clean[n] - est[n]);
    }
    const double snr = err > 0 ? 10 * std::log10(sig / err) : 35.0;
    acc.sum += std::clamp(snr, -10.0, 35.0);
    ++acc.count;
  }
}

// Lag (0..kMaxLag) maximising the normalised correlation of out with clean.
int find_delay(const std::vector<double> &clean, const std::vector<int16_t> &out) {
  int best_lag = 0;
  double best = -2;
  for (int lag = 0; lag <= kMaxLag; ++lag) {
    double xy = 0, yy = 0;
    for (size_t n = 0; n < clean.size() && n + lag < out.size(); ++n) {
      xy += clean[n] * out[n + lag];
      yy += double(out[n + lag]) * out[n + lag];
    }
    const double c = yy > 0 ? xy / std::sqrt(yy) : 0;
    if (c > best) {
      best = c;
      best_lag = lag;
    }
  }
  return best_lag;
}

std::vector<double> white_noise(std::mt19937_64 &rng, size_t n) {
  std::normal_distribution<double> g(0.0, 1.0);
  std::vector<double> out(n);
  for (auto &v : out) v = g(rng);
  return out;
}

// White noise through a second-order Butterworth low-pass at 400 Hz
// (bilinear transform); the first 2000 samples settle the filter.
std::vector<double> car_noise(std::mt19937_64 &rng, size_t n) {
  const double k = std::tan(kPi * 400 / 8000), q = std::sqrt(0.5);
  const double norm = 1 / (1 + k / q + k * k);
  const double b0 = k * k * norm, b1 = 2 * b0, b2 = b0;
  const double a1 = 2 * (k * k - 1) * norm, a2 = (1 - k / q + k * k) * norm;
  const auto w = white_noise(rng, n + 2000);
  std::vector<double> out(n);
  double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
  for (size_t i = 0; i < w.size(); ++i) {
    const double y = b0 * w[i] + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
    x2 = x1;
    x1 = w[i];
    y2 = y1;
    y1 = y;
    if (i >= 2000) out[i - 2000] = y;
  }
  return out;
}

double active_power(const std::vector<double> &x, const std::vector<bool> &active) {
  double e = 0;
  long n = 0;
  const auto seg = segment_energies(x);
  for (size_t s = 0; s < active.size(); ++s) {
    if (active[s]) {
      e += seg[s];
      n += kSegment;
    }
  }
  return n ? e / n : 0;
}

struct Condition {
  SegSnr in, out;
  double xy = 0, yy = 0;  // clean . output, clean . clean (speech-path gain)
  std::map<int, int> delays;
  long clipped = 0;
};

// Output against input: level change and MCD, summed over files.
struct Fidelity {
  double level = 0, mcd = 0;
  long files = 0;
  void add(double l, double m) {
    level += l;
    mcd += m;
    ++files;
  }
};

// Either of the first two frames within 30 dB of the loudest frame.
bool starts_with_speech(const std::vector<double> &clean) {
  const auto e = segment_energies(clean);
  if (e.size() < 2) return false;
  const double peak = *std::max_element(e.begin(), e.end());
  return e[0] >= peak * 1e-3 || e[1] >= peak * 1e-3;
}

// Level change (dB) of out against in over the active segments.
double level_change(const std::vector<double> &in, const std::vector<double> &out,
                    const std::vector<bool> &active) {
  double ei = 0, eo = 0;
  for (size_t s = 0; s < active.size(); ++s) {
    if (!active[s]) continue;
    for (int i = 0; i < kSegment; ++i) {
      const size_t n = s * kSegment + i;
      ei += in[n] * in[n];
      eo += out[n] * out[n];
    }
  }
  return ei > 0 && eo > 0 ? 10 * std::log10(eo / ei) : 0.0;
}

}  // namespace

int main(int argc, char **argv) {
  bool verbose = false;
  std::string root = kevrc::corpus::kDefaultRoot;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "-v") {
      verbose = true;
    } else if (a == "-h" || a == "--help") {
      std::printf("usage: ns_eval [-v] [corpus root]\n");
      return 0;
    } else {
      root = a;
    }
  }
  const auto files = kevrc::corpus::files(kevrc::corpus::Split::HeldOut, root);
  if (files.empty()) {
    std::fprintf(stderr, "ns_eval: no corpus under %s\n", root.c_str());
    return 1;
  }
  const char *kNoiseNames[3] = {"white", "car", "babble"};
  const char *kInputNames[4] = {"clean", "white", "car", "babble"};
  const int kSnrs[3] = {5, 10, 15};
  Condition clean_run[2];
  Condition cond[2][3][3];     // mode, noise, SNR
  Fidelity fidelity[2][2][4];  // mode, starts with speech, input
  std::vector<double> speech_start_clean[2];  // per-file level change, clean files starting with speech
  long total_samples = 0;
  std::vector<std::string> babble_sources;
  for (size_t k = 0; k < 8; ++k) babble_sources.push_back(files[(k * files.size()) / 8]);
  const std::vector<double> babble =
      kevrc::train::make_babble(root, babble_sources, 8000u * 60u, 0x5EED4004);

  for (size_t f = 0; f < files.size(); ++f) {
    std::vector<int16_t> pcm;
    std::string error;
    if (!kevrc::corpus::read_pcm(root + "/" + files[f], pcm, error)) {
      std::fprintf(stderr, "ns_eval: %s\n", error.c_str());
      return 1;
    }
    pcm.resize(pcm.size() / kSegment * kSegment);
    if (pcm.empty()) continue;
    total_samples += static_cast<long>(pcm.size());
    const std::vector<int16_t> raw = pcm;
    pcm = highpass(pcm);
    const std::vector<double> clean(pcm.begin(), pcm.end());
    const auto active = active_segments(clean);
    const double speech_power = active_power(clean, active);
    // Files whose loudest frame is below RMS 64 (near-silent recordings) are
    // left out of table 2: their "active" frames are noise floor.
    const auto seg = segment_energies(clean);
    const bool silent = *std::max_element(seg.begin(), seg.end()) < 64.0 * 64.0 * kSegment;
    const int start = starts_with_speech(clean) ? 1 : 0;
    double file_level[2][4] = {}, file_mcd[2][4] = {};

    // Runs one input through the suppressor and accumulates the figures.
    auto measure = [&](int mode, Condition &c, int input_kind, const std::vector<int16_t> &input) {
      const auto out = suppress(input, mode);
      const int lag = find_delay(clean, out);
      c.delays[lag]++;
      std::vector<double> in_d(input.begin(), input.end()), out_d(clean.size());
      for (size_t n = 0; n < clean.size(); ++n) {
        out_d[n] = 2.0 * out[n + lag];
        c.xy += clean[n] * out_d[n];
        c.yy += clean[n] * clean[n];
      }
      add_segsnr(c.in, clean, in_d, active);
      add_segsnr(c.out, clean, out_d, active);
      kevrc::quality::Figures fig;
      kevrc::quality::compare_aligned(in_d, out_d, fig);
      const double level = level_change(in_d, out_d, active);
      file_level[mode][input_kind] += level / (input_kind == 0 ? 1 : 3);
      file_mcd[mode][input_kind] += fig.mcd / (input_kind == 0 ? 1 : 3);
    };

    for (int mode = 0; mode < 2; ++mode) {
      measure(mode, clean_run[mode], 0, pcm);
      for (int t = 0; t < 3; ++t) {
        std::mt19937_64 rng(1000003ull * (f + 1) + 17ull * t);
        std::vector<double> noise;
        if (t == 0) noise = white_noise(rng, pcm.size());
        if (t == 1) noise = car_noise(rng, pcm.size());
        if (t == 2) {
          noise.resize(pcm.size());
          for (size_t n = 0; n < pcm.size(); ++n) noise[n] = babble[(f * 7919u + n) % babble.size()];
        }
        const double noise_power = active_power(noise, std::vector<bool>(active.size(), true));
        for (int s = 0; s < 3; ++s) {
          const double scale =
              std::sqrt(speech_power / noise_power / std::pow(10.0, kSnrs[s] / 10.0));
          std::vector<int16_t> mix(pcm.size());
          for (size_t n = 0; n < pcm.size(); ++n) {
            const double v = std::lround(raw[n] + scale * noise[n]);
            if (v > 32767 || v < -32768) ++cond[mode][t][s].clipped;
            mix[n] = static_cast<int16_t>(std::clamp(v, -32768.0, 32767.0));
          }
          measure(mode, cond[mode][t][s], t + 1, highpass(mix));
        }
      }
      for (int k = 0; k < 4 && !silent; ++k)
        fidelity[mode][start][k].add(file_level[mode][k], file_mcd[mode][k]);
      if (!silent && start) speech_start_clean[mode].push_back(file_level[mode][0]);
    }
    if (verbose) {
      std::printf("%-40s %s", files[f].c_str(),
                  silent ? "silent" : start ? "speech-start" : "backgr-start");
      for (int mode = 0; mode < 2; ++mode)
        for (int k = 0; k < 4; ++k)
          std::printf(" %s %s %+5.2f dB %4.2f", mode ? "R" : "C", kInputNames[k],
                      file_level[mode][k], file_mcd[mode][k]);
      std::printf("\n");
    }
  }

  auto delay_text = [](const Condition &c) {
    int mode = 0, count = 0, total = 0;
    for (auto [lag, n] : c.delays) {
      total += n;
      if (n > count) {
        count = n;
        mode = lag;
      }
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, "%d (%d/%d)", mode, count, total);
    return std::string(buf);
  };
  auto level_text = [](const Condition &c) { return 10 * std::log10(c.xy / c.yy * (c.xy / c.yy)); };
  std::printf("held-out files: %zu (%.1f s of speech)\n", files.size(), total_samples / 8000.0);
  std::printf("segmental SNR in dB; output doubled and advanced by the delay found\n\n");
  std::printf("%-6s %5s | %-34s | %-34s | %s\n", "", "", "classic", "robust", "");
  std::printf("%-6s %5s | %7s %7s %7s %10s | %7s %7s %7s %10s | %s\n", "noise", "SNR", "in", "out",
              "gain", "level dB", "in", "out", "gain", "level dB", "delay (files)");
  for (int t = 0; t < 3; ++t) {
    for (int s = 0; s < 3; ++s) {
      const Condition &c = cond[0][t][s], &r = cond[1][t][s];
      std::printf("%-6s %5d | %7.2f %7.2f %7.2f %10.2f | %7.2f %7.2f %7.2f %10.2f | %s\n",
                  kNoiseNames[t], kSnrs[s], c.in.mean(), c.out.mean(), c.out.mean() - c.in.mean(),
                  level_text(c), r.in.mean(), r.out.mean(), r.out.mean() - r.in.mean(),
                  level_text(r), delay_text(r).c_str());
    }
  }
  std::printf("%-6s %5s | %7s %7.2f %7s %10.2f | %7s %7.2f %7s %10.2f | %s\n", "clean", "-", "-",
              clean_run[0].out.mean(), "-", level_text(clean_run[0]), "-", clean_run[1].out.mean(),
              "-", level_text(clean_run[1]), delay_text(clean_run[1]).c_str());

  std::printf("\noutput against its input, active frames: level change dB / MCD dB (file means)\n");
  std::printf("%-14s %-7s %6s | %17s | %17s\n", "files", "input", "count", "classic", "robust");
  for (int start = 1; start >= 0; --start) {
    for (int k = 0; k < 4; ++k) {
      const Fidelity &c = fidelity[0][start][k], &r = fidelity[1][start][k];
      const double n = c.files ? static_cast<double>(c.files) : 1.0;
      std::printf("%-14s %-7s %6ld | %+7.2f / %6.2f | %+7.2f / %6.2f\n",
                  start ? "speech start" : "backgr. start", k == 0 ? "clean" : kInputNames[k],
                  c.files, c.level / n, c.mcd / n, r.level / n, r.mcd / n);
    }
  }
  // Clean files that start with speech: median level change and the files
  // within 0.2 dB of their input level (rounded to 0.01 dB, as printed by -v).
  for (int mode = 0; mode < 2; ++mode) {
    std::vector<double> &v = speech_start_clean[mode];
    if (v.empty()) continue;
    std::sort(v.begin(), v.end());
    const size_t h = v.size() / 2;
    const double median = v.size() % 2 ? v[h] : (v[h - 1] + v[h]) / 2;
    const long within = std::count_if(
        v.begin(), v.end(), [](double l) { return std::fabs(std::round(l * 100)) <= 20; });
    std::printf("speech start, clean, %s: median level change %+.2f dB, %ld of %zu files within 0.2 dB\n",
                mode ? "robust" : "classic", median, within, v.size());
  }
  return 0;
}
