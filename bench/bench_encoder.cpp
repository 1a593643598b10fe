// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// bench_encoder: encoding speed on one core, in frames per second and as a
// multiple of real time (50 frames per second of speech).
//   bench_encoder [FRAMES]
// The input is generated: a speech-like signal (voiced stretches of a
// pitch-pulse train through two resonances, alternating with low noise).
// Measured per configuration: the whole encoder at forced full, half and
// eighth rate, with the variable rate bounds 1..4, and with the noise
// suppressor.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <kevrc/kevrc.h>

namespace {

std::vector<int16_t> speech_like(int frames) {
  std::vector<int16_t> out(static_cast<size_t>(frames) * 160);
  double y1 = 0, y2 = 0, z1 = 0, z2 = 0;
  uint32_t seed = 12345;
  for (size_t n = 0; n < out.size(); ++n) {
    seed = seed * 1664525u + 1013904223u;
    const double noise = (static_cast<double>(seed >> 8) / 16777216.0 - 0.5) * 200.0;
    const bool voiced = (n / 4000) % 2 == 0;
    const double x = voiced && n % 73 == 0 ? 4000.0 : 0.0;
    const double y = x + 1.7 * y1 - 0.9 * y2;
    y2 = y1;
    y1 = y;
    const double z = y + 0.6 * z1 - 0.8 * z2;
    z2 = z1;
    z1 = z;
    out[n] = static_cast<int16_t>(std::lround(std::fmax(-32768.0, std::fmin(32767.0, z + noise))));
  }
  return out;
}

double frames_per_second(const std::vector<int16_t> &signal, kevrce_config cfg) {
  int32_t err = 0;
  kevrce_instance *enc = kevrce_create(&cfg, &err);
  if (enc == nullptr) {
    std::fprintf(stderr, "bench_encoder: %s\n", kevrc_strerror(err));
    std::exit(1);
  }
  int16_t pcm[160];
  uint8_t payload[24];
  kevrc_pcm_buffer in = {};
  in.data[0] = pcm;
  kevrc_bitstream_buffer out = {payload, 0, 0};
  kevrce_result res;
  int64_t checksum = 0;
  const size_t frames = signal.size() / 160;
  const auto start = std::chrono::steady_clock::now();
  for (size_t f = 0; f < frames; ++f) {
    for (int n = 0; n < 160; ++n) pcm[n] = signal[f * 160 + static_cast<size_t>(n)];
    kevrce_encode(enc, &in, &out, &res);
    checksum += payload[1];
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  kevrce_delete(enc);
  if (checksum == 42) std::printf(" ");  // keeps the work observable
  return static_cast<double>(frames) / seconds;
}

}  // namespace

int main(int argc, char **argv) {
  const int frames = argc > 1 ? std::atoi(argv[1]) : 20000;
  if (frames <= 0) {
    std::fprintf(stderr, "usage: bench_encoder [FRAMES]\n");
    return 2;
  }
  kevrc_init();
  const std::vector<int16_t> signal = speech_like(frames);
  struct Case {
    const char *name;
    kevrce_config cfg;
  } cases[] = {
      {"full rate", {4, 4, 0, 0}},
      {"half rate", {3, 3, 0, 0}},
      {"eighth rate", {1, 1, 0, 0}},
      {"bounds 1..4", {4, 1, 0, 0}},
      {"bounds 1..4, noise suppression", {4, 1, 0, 1}},
  };
  for (const Case &c : cases) {
    const double fps = frames_per_second(signal, c.cfg);
    std::printf("%-34s %9.0f frames/s  (%.0fx real time)\n", c.name, fps, fps / 50.0);
  }
  return 0;
}
