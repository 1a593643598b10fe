// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// bench_decoder: decoding speed on one core, in frames per second and as a
// multiple of real time (50 frames per second of speech).
//   bench_decoder [FRAMES]
// Streams are generated (speech-like: runs of full, half and eighth rate with
// a few damaged packets), so the figure covers every decoder path.
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <kevrc/kevrc.h>
#include "tools/support/packet_gen.h"

namespace {

double frames_per_second(const std::vector<kevrc::testing::Packet> &stream, kevrcd_config cfg, int repeats) {
  int32_t err = 0;
  kevrcd_instance *dec = kevrcd_create(&cfg, &err);
  if (dec == nullptr) {
    std::fprintf(stderr, "bench_decoder: %s\n", kevrc_strerror(err));
    std::exit(1);
  }
  int16_t pcm[160];
  kevrc_pcm_buffer out = {};
  out.data[0] = pcm;
  kevrcd_result res;
  int64_t checksum = 0;
  const auto start = std::chrono::steady_clock::now();
  for (int r = 0; r < repeats; ++r) {
    for (const auto &p : stream) {
      kevrc_bitstream_buffer in = {const_cast<uint8_t *>(p.data()), 0, static_cast<int32_t>(p.size())};
      kevrcd_decode(dec, &in, &out, &res);
      checksum += pcm[7];
    }
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  kevrcd_delete(dec);
  if (checksum == 42) std::printf(" ");  // keeps the work observable
  return static_cast<double>(stream.size()) * repeats / seconds;
}

}  // namespace

int main(int argc, char **argv) {
  const int frames = argc > 1 ? std::atoi(argv[1]) : 20000;
  const auto stream = kevrc::testing::make_stream(1, frames, kevrc::testing::StreamKind::kSpeechLike);
  std::printf("kevrc %s decoder, %d frames per run, one core\n", kevrc_version(), frames);
  for (int postfilter : {1, 0}) {
    frames_per_second(stream, {1, 0, 0, 0, postfilter}, 1);  // warm-up
    double best = 0;
    for (int run = 0; run < 3; ++run) {
      const double fps = frames_per_second(stream, {1, 0, 0, 0, postfilter}, 1);
      best = fps > best ? fps : best;
    }
    std::printf("  postfilter %-3s %9.0f frames/s  (%.0fx real time)\n", postfilter ? "on" : "off", best, best / 50.0);
  }
  return 0;
}
