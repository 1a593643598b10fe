// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Test material for the command-line tests (tools/cli_tests/cli_test.sh).
//
//   make_test_audio signal KIND RATE CHANNELS SECONDS OUT.wav
//       KIND voice: a 120 Hz harmonic series (with a 5 Hz vibrato of ±4 %,
//       harmonics below 3.5 kHz) under three formant peaks, in 250 ms
//       syllables separated by 100 ms pauses; steady: the same without
//       syllables and pauses (a constant level). Peak about 0.3 of full
//       scale. Channel c carries the signal times 1 + 0.3·(c - (CHANNELS-1)/2),
//       so that the channel average is the signal itself and no single
//       channel is. white: white Gaussian noise, RMS 2000 (about -24 dBFS).
//   make_test_audio delay IN.wav N OUT.wav
//       IN (read as 8 kHz mono) with N zeros in front, 8 kHz mono.
//   make_test_audio gain IN.wav FACTOR OUT.wav
//       IN (8 kHz mono) times FACTOR, rounded and clipped to 16 bits.
//   make_test_audio noise IN.wav SNR_DB SEED OUT.wav
//       IN (8 kHz mono) plus white Gaussian noise whose power is SNR_DB below
//       the mean power of IN, rounded and clipped to 16 bits.
//   make_test_audio info FILE
//       prints "RATE CHANNELS FRAMES" of any audio file.
//
// Everything is deterministic (fixed seeds).
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "tools/support/audio_io.h"

namespace {

using kevrc::audio::FileInfo;

constexpr double kPi = std::numbers::pi;
constexpr double kLevel = 1500;  // the harmonic sum peaks near 7.3: about 0.33 of full scale

// Formant-shaped amplitude of a harmonic at f Hz (peaks near 700, 1200, 2600 Hz).
double formant_gain(double f) {
  const double centres[3] = {700, 1200, 2600}, widths[3] = {130, 150, 250}, gains[3] = {1.0, 0.6, 0.25};
  double g = 0.02;
  for (int i = 0; i < 3; ++i) {
    const double x = (f - centres[i]) / widths[i];
    g += gains[i] / (1 + x * x);
  }
  return g;
}

// Syllable envelope: 250 ms with raised-cosine edges, then 100 ms of silence.
double syllable_envelope(double t) {
  const double period = 0.35, on = 0.25, edge = 0.03;
  const double u = std::fmod(t, period);
  if (u >= on) return 0;
  if (u < edge) return 0.5 - 0.5 * std::cos(kPi * u / edge);
  if (u > on - edge) return 0.5 - 0.5 * std::cos(kPi * (on - u) / edge);
  return 1;
}

std::vector<double> make_signal(const std::string &kind, int rate, double seconds) {
  const size_t n = static_cast<size_t>(std::llround(seconds * rate));
  std::vector<double> x(n);
  const bool voice = kind == "voice";
  if (kind == "white") {
    std::mt19937 rng(1);
    std::normal_distribution<double> gauss(0.0, 2000.0);
    for (double &v : x) v = gauss(rng);
    return x;
  }
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / rate;
    // f0(t) = 120·(1 + 0.04·sin(2π·5t)); the phase (in cycles) is its integral,
    // so that every sampling rate samples the same continuous signal.
    const double phase = 120 * t - 120 * 0.04 / (2 * kPi * 5) * std::cos(2 * kPi * 5 * t);
    double v = 0;
    for (int h = 1; h * 125 < 0.45 * rate && h * 125 < 3500; ++h)
      v += formant_gain(h * 120) * std::cos(2 * kPi * h * phase);
    x[i] = kLevel * (voice ? v * syllable_envelope(t) : v);
  }
  return x;
}

// Channel gains 1 + 0.3·(c - (channels - 1)/2): unequal, with a mean of exactly 1.
double channel_gain(int c, int channels) { return 1 + 0.3 * (c - (channels - 1) / 2.0); }

int fail(const std::string &message) {
  std::fprintf(stderr, "make_test_audio: %s\n", message.c_str());
  return 1;
}

int write_mono_8k(const std::string &path, const std::vector<double> &x) {
  const std::vector<int16_t> pcm = kevrc::audio::to_pcm16(x);
  std::string error;
  if (!kevrc::audio::write_wav16(path, pcm.data(), pcm.size(), 8000, 1, error)) return fail(error);
  return 0;
}

int cmd_signal(const std::string &kind, int rate, int channels, double seconds, const std::string &out) {
  if ((kind != "voice" && kind != "steady" && kind != "white") || rate < 4000 || channels < 1 ||
      channels > 8 || seconds <= 0)
    return fail("bad signal parameters");
  const std::vector<double> x = make_signal(kind, rate, seconds);
  std::vector<double> interleaved;
  for (double v : x)
    for (int c = 0; c < channels; ++c) interleaved.push_back(v * channel_gain(c, channels));
  const std::vector<int16_t> pcm = kevrc::audio::to_pcm16(interleaved);
  std::string error;
  if (!kevrc::audio::write_wav16(out, pcm.data(), x.size(), rate, channels, error)) return fail(error);
  return 0;
}

int cmd_delay(const std::string &in, long n, const std::string &out) {
  std::vector<double> x;
  std::string error;
  if (n < 0 || !kevrc::audio::read_mono_8k(in, x, error)) return fail(error.empty() ? "bad delay" : error);
  x.insert(x.begin(), static_cast<size_t>(n), 0.0);
  return write_mono_8k(out, x);
}

int cmd_gain(const std::string &in, double factor, const std::string &out) {
  std::vector<double> x;
  std::string error;
  if (!kevrc::audio::read_mono_8k(in, x, error)) return fail(error);
  for (double &v : x) v *= factor;
  return write_mono_8k(out, x);
}

int cmd_noise(const std::string &in, double snr_db, unsigned seed, const std::string &out) {
  std::vector<double> x;
  std::string error;
  if (!kevrc::audio::read_mono_8k(in, x, error)) return fail(error);
  double power = 0;
  for (double v : x) power += v * v;
  power /= x.empty() ? 1.0 : static_cast<double>(x.size());
  std::mt19937 rng(seed);
  std::normal_distribution<double> gauss(0.0, std::sqrt(power * std::pow(10.0, -snr_db / 10)));
  for (double &v : x) v += gauss(rng);
  return write_mono_8k(out, x);
}

int cmd_info(const std::string &path) {
  std::vector<double> x;
  FileInfo info;
  std::string error;
  if (!kevrc::audio::read_mono_8k(path, x, error, &info)) return fail(error);
  std::printf("%d %d %lld\n", info.sample_rate, info.channels, static_cast<long long>(info.frames));
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::vector<std::string> a(argv + 1, argv + argc);
  if (a.size() == 6 && a[0] == "signal")
    return cmd_signal(a[1], std::atoi(a[2].c_str()), std::atoi(a[3].c_str()), std::atof(a[4].c_str()), a[5]);
  if (a.size() == 4 && a[0] == "delay") return cmd_delay(a[1], std::atol(a[2].c_str()), a[3]);
  if (a.size() == 4 && a[0] == "gain") return cmd_gain(a[1], std::atof(a[2].c_str()), a[3]);
  if (a.size() == 5 && a[0] == "noise")
    return cmd_noise(a[1], std::atof(a[2].c_str()), static_cast<unsigned>(std::atol(a[3].c_str())), a[4]);
  if (a.size() == 2 && a[0] == "info") return cmd_info(a[1]);
  return fail("usage: signal KIND RATE CHANNELS SECONDS OUT | delay IN N OUT | gain IN FACTOR OUT | "
              "noise IN SNR SEED OUT | info FILE");
}
