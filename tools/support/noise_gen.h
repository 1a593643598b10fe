// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Generated signals for the table-training and measurement tools (header
// only; the unit tests use it too). Everything is deterministic: a 64-bit
// splitmix generator with a fixed seed, Gaussian values by the Box-Muller
// transform, and plain filters in double precision.
//
//  make_noise(type, n, seed): n samples of white, pink (-3 dB/octave), brown
//    (-6 dB/octave, leaky integrator) or low-pass "car" noise (two cascaded
//    one-pole low-passes at 120 Hz plus a weaker 500 Hz component), scaled to
//    unit RMS.
//  synth_voice(n, seed, f0): a voice-like signal at 8 kHz: voiced segments (a
//    glottal pulse train with vibrato through three formant resonators whose
//    frequencies glide between vowel targets), unvoiced segments (high-passed
//    noise through a 3.5 kHz resonator) and pauses, plus a faint background
//    noise; active level about -20 dBFS.
//  steady_vowel(n, f0): a constant pulse train through fixed /a/ formants.
//  to_pcm(x, gain): x * gain rounded and saturated to 16 bits.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace kevrc::train {

// RMS over the 20 ms frames within 30 dB of the loudest one (the active level).
template <typename T>
double active_rms(const std::vector<T> &x) {
  std::vector<double> e;
  double peak = 0;
  for (size_t s = 0; s + 160 <= x.size(); s += 160) {
    double v = 0;
    for (size_t k = 0; k < 160; ++k) v += static_cast<double>(x[s + k]) * static_cast<double>(x[s + k]);
    e.push_back(v / 160);
    peak = std::max(peak, v / 160);
  }
  double act = 0;
  size_t n = 0;
  for (double v : e)
    if (v > peak * 1e-3) {
      act += v;
      ++n;
    }
  return n ? std::sqrt(act / static_cast<double>(n)) : 0.0;
}

class Rng {
 public:
  explicit Rng(uint64_t seed) : s_(seed) {}
  uint64_t next() {  // splitmix64
    uint64_t z = (s_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double uniform() {  // (0, 1)
    return (static_cast<double>(next() >> 11) + 0.5) * (1.0 / 9007199254740992.0);
  }
  double gauss() {
    if (has_spare_) {
      has_spare_ = false;
      return spare_;
    }
    const double r = std::sqrt(-2.0 * std::log(uniform())), t = 2.0 * M_PI * uniform();
    spare_ = r * std::sin(t);
    has_spare_ = true;
    return r * std::cos(t);
  }

 private:
  uint64_t s_;
  double spare_ = 0;
  bool has_spare_ = false;
};

enum class NoiseType { White, Pink, Brown, Car, Babble };
inline const char *noise_name(NoiseType t) {
  switch (t) {
    case NoiseType::White:
      return "white";
    case NoiseType::Pink:
      return "pink";
    case NoiseType::Brown:
      return "brown";
    case NoiseType::Car:
      return "car";
    case NoiseType::Babble:
      return "babble";
  }
  return "?";
}

inline double rms(const std::vector<double> &x) {
  double s = 0;
  for (double v : x) s += v * v;
  return x.empty() ? 0.0 : std::sqrt(s / static_cast<double>(x.size()));
}

inline void normalize_rms(std::vector<double> &x) {
  const double r = rms(x);
  if (r > 0)
    for (double &v : x) v /= r;
}

// White, pink, brown or car noise (Babble is made from speech by the caller).
inline std::vector<double> make_noise(NoiseType type, size_t n, uint64_t seed) {
  Rng rng(seed);
  std::vector<double> x(n);
  double b[7] = {0}, y1 = 0, y2 = 0, y3 = 0;
  const double a120 = std::exp(-2.0 * M_PI * 120.0 / 8000.0);
  const double a500 = std::exp(-2.0 * M_PI * 500.0 / 8000.0);
  for (size_t i = 0; i < n; ++i) {
    const double w = rng.gauss();
    switch (type) {
      case NoiseType::White:
      case NoiseType::Babble:
        x[i] = w;
        break;
      case NoiseType::Pink:  // sum of first-order sections approximating 1/f
        b[0] = 0.99886 * b[0] + w * 0.0555179;
        b[1] = 0.99332 * b[1] + w * 0.0750759;
        b[2] = 0.96900 * b[2] + w * 0.1538520;
        b[3] = 0.86650 * b[3] + w * 0.3104856;
        b[4] = 0.55000 * b[4] + w * 0.5329522;
        b[5] = -0.7616 * b[5] - w * 0.0168980;
        x[i] = b[0] + b[1] + b[2] + b[3] + b[4] + b[5] + b[6] + w * 0.5362;
        b[6] = w * 0.115926;
        break;
      case NoiseType::Brown:
        y1 = 0.999 * y1 + w;
        x[i] = y1;
        break;
      case NoiseType::Car:
        y1 = a120 * y1 + (1 - a120) * w;
        y2 = a120 * y2 + (1 - a120) * y1;
        y3 = a500 * y3 + (1 - a500) * w;
        x[i] = y2 + 0.15 * y3;
        break;
    }
  }
  normalize_rms(x);
  return x;
}

inline std::vector<int16_t> to_pcm(const std::vector<double> &x, double gain) {
  std::vector<int16_t> out(x.size());
  for (size_t i = 0; i < x.size(); ++i) {
    const double v = std::nearbyint(x[i] * gain);
    out[i] = static_cast<int16_t>(std::clamp(v, -32768.0, 32767.0));
  }
  return out;
}

// Two-pole resonator with unit gain near its centre frequency.
struct Resonator {
  double y1 = 0, y2 = 0;
  double step(double x, double freq, double bw) {
    const double r = std::exp(-M_PI * bw / 8000.0), th = 2.0 * M_PI * freq / 8000.0;
    const double y = (1 - r) * std::sqrt(1 - 2 * r * std::cos(2 * th) + r * r) * x +
                     2 * r * std::cos(th) * y1 - r * r * y2;
    y2 = y1;
    y1 = y;
    return y;
  }
};

inline std::vector<double> steady_vowel_double(size_t n, double f0) {
  std::vector<double> x(n);
  Resonator r1, r2, r3;
  double phase = 1.0, g = 0;
  for (size_t i = 0; i < n; ++i) {
    phase += f0 / 8000.0;
    double e = 0;
    if (phase >= 1.0) {
      phase -= 1.0;
      e = 1.0;
    }
    g = 0.9 * g + e;  // glottal low-pass
    x[i] = r3.step(r2.step(r1.step(g, 700, 80), 1220, 90), 2600, 120);
  }
  normalize_rms(x);
  return x;
}

inline std::vector<int16_t> steady_vowel(size_t n, double f0) {
  return to_pcm(steady_vowel_double(n, f0), 3277.0);  // RMS 3277: -20 dBFS
}

inline std::vector<int16_t> synth_voice(size_t n, uint64_t seed, double f0_base) {
  static const double kVowels[6][3] = {{700, 1220, 2600}, {300, 2300, 3000}, {300, 870, 2240},
                                       {530, 1840, 2480}, {570, 840, 2410},  {440, 1020, 2240}};
  Rng rng(seed);
  std::vector<double> x(n, 0.0);
  Resonator r1, r2, r3, rf;
  double f[3] = {500, 1500, 2500};
  double phase = 1.0, glottal = 0, env = 0, hp_prev = 0;
  size_t i = 0;
  while (i < n) {
    const double u = rng.uniform();
    const int kind = u < 0.6 ? 0 : (u < 0.8 ? 1 : 2);  // voiced, unvoiced, pause
    const size_t len = static_cast<size_t>(8000.0 * (kind == 0   ? 0.15 + 0.25 * rng.uniform()
                                                     : kind == 1 ? 0.08 + 0.07 * rng.uniform()
                                                                 : 0.1 + 0.2 * rng.uniform()));
    const double *target = kVowels[rng.next() % 6];
    const double level = 0.6 + 0.8 * rng.uniform();
    for (size_t k = 0; k < len && i < n; ++k, ++i) {
      const double t = static_cast<double>(i) / 8000.0;
      for (int m = 0; m < 3; ++m) f[m] += 0.004 * (target[m] - f[m]);  // formant glide
      const double want = kind == 2 ? 0.0 : level;
      env += 0.01 * (want - env);  // about 12 ms attack and decay
      double v = 0;
      if (kind == 0) {
        phase += f0_base * (1.0 + 0.08 * std::sin(2 * M_PI * 4.0 * t)) / 8000.0;
        double e = 0;
        if (phase >= 1.0) {
          phase -= 1.0;
          e = 1.0;
        }
        glottal = 0.9 * glottal + e;
        v = 10.0 * env * glottal;
      }
      double voiced = r3.step(r2.step(r1.step(v, f[0], 80), f[1], 100), f[2], 150);
      double fric = 0;
      if (kind == 1) {
        const double w = rng.gauss();
        fric = rf.step(w - hp_prev, 3500, 800) * env;
        hp_prev = w;
      }
      x[i] = voiced + 0.5 * fric + 0.001 * rng.gauss();
    }
  }
  // Active level about -20 dBFS.
  const double level = active_rms(x);
  return to_pcm(x, level > 0 ? 3277.0 / level : 1.0);
}

}  // namespace kevrc::train
