// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// measure_codec: the codec end to end on the held-out corpus files.
//
//   measure_codec OUTDIR [--max-rate N] [--min-rate N] [--no-ns] [--root DIR]
//
// Encodes every held-out file (tools/support/corpus.h) with the given bounds
// (default 1..4, noise suppression on), decodes the packets twice, with the
// postfilter on and off, and writes OUTDIR/pf/<n>.wav, OUTDIR/nopf/<n>.wav
// and two lists (OUTDIR/pf.list, OUTDIR/nopf.list: "REF DEC" per line) for
// kevrc_quality --list. Prints the rate shares, the average bit rate of
// the payloads (rate octets not counted: 800, 4000 and 8600 bit/s at eighth,
// half and full rate) and the encoding and decoding speed on this thread in
// frames per second (the library calls only; file I/O excluded).
//
// A design figure of the pitch coding is printed too: the adaptive
// codebook's prediction gain in the weighted domain, 10 log10 of the
// target's energy over the energy left after the scaled adaptive-codebook
// contribution, for the last subframe of every full- or half-rate frame
// whose target is not near silence (read from the encoder's work block).
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <kevrc/kevrc.h>
#include "encoder/encoder_state.h"
#include "tools/support/audio_io.h"
#include "tools/support/corpus.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Totals {
  long frames[5] = {};
  double encode_seconds = 0, decode_seconds[2] = {};
  double pitch_gain_db = 0;
  long pitch_frames = 0;
};

// Adds the last subframe's adaptive-codebook prediction gain of the frame.
void add_pitch_gain(const kevrce_work &w, Totals &t) {
  double target = 0, rest = 0;
  for (int n = 0; n < 54; ++n) {
    target += static_cast<double>(w.target[n]) * w.target[n];
    rest += static_cast<double>(w.target2[n]) * w.target2[n];
  }
  if (target < 54.0 * 100 * 100) return;  // below about -50 dBFS in the weighted domain
  t.pitch_gain_db += 10 * std::log10((target + 1) / (rest + 1));
  ++t.pitch_frames;
}

bool encode(const kevrce_config &cfg, const std::vector<int16_t> &pcm,
            std::vector<std::vector<uint8_t>> &packets, Totals &t) {
  int32_t err = 0;
  kevrce_instance *enc = kevrce_create(&cfg, &err);
  if (enc == nullptr) return false;
  int16_t frame[160];
  uint8_t payload[24];
  const auto start = Clock::now();
  for (size_t k = 0; k + 160 <= pcm.size(); k += 160) {
    std::memcpy(frame, &pcm[k], sizeof frame);
    kevrc_pcm_buffer in = {};
    in.data[0] = frame;
    kevrc_bitstream_buffer out = {payload, 0, 0};
    kevrce_result res;
    if (kevrce_encode(enc, &in, &out, &res) != KEVRC_OK) {
      kevrce_delete(enc);
      return false;
    }
    std::vector<uint8_t> p{static_cast<uint8_t>(res.rate)};
    p.insert(p.end(), payload, payload + res.bytes);
    packets.push_back(std::move(p));
    ++t.frames[res.rate];
    const auto pause = Clock::now();
    if (res.rate != 1) add_pitch_gain(*enc->work, t);
    t.encode_seconds -= std::chrono::duration<double>(Clock::now() - pause).count();
  }
  t.encode_seconds += std::chrono::duration<double>(Clock::now() - start).count();
  kevrce_delete(enc);
  return true;
}

std::vector<int16_t> decode(std::vector<std::vector<uint8_t>> &packets, int postfilter, Totals &t) {
  kevrcd_config cfg = {1, 0, 0, 0, postfilter};
  int32_t err = 0;
  kevrcd_instance *dec = kevrcd_create(&cfg, &err);
  std::vector<int16_t> out(packets.size() * 160);
  const auto start = Clock::now();
  for (size_t k = 0; k < packets.size(); ++k) {
    kevrc_bitstream_buffer in = {packets[k].data(), 0, static_cast<int32_t>(packets[k].size())};
    kevrc_pcm_buffer pcm = {};
    pcm.data[0] = &out[k * 160];
    kevrcd_result res;
    kevrcd_decode(dec, &in, &pcm, &res);
  }
  t.decode_seconds[postfilter] += std::chrono::duration<double>(Clock::now() - start).count();
  kevrcd_delete(dec);
  return out;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: measure_codec OUTDIR [--max-rate N] [--min-rate N] [--no-ns] [--root DIR]\n");
    return 2;
  }
  const std::string dir = argv[1];
  kevrce_config cfg = {4, 1, 0, 1};
  std::string root = kevrc::corpus::kDefaultRoot;
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--max-rate" && i + 1 < argc) cfg.max_rate = std::atoi(argv[++i]);
    else if (a == "--min-rate" && i + 1 < argc) cfg.min_rate = std::atoi(argv[++i]);
    else if (a == "--no-ns") cfg.noise_suppression = 0;
    else if (a == "--root" && i + 1 < argc) root = argv[++i];
    else {
      std::fprintf(stderr, "measure_codec: unknown option %s\n", a.c_str());
      return 2;
    }
  }
  kevrc_init();
  mkdir(dir.c_str(), 0777);
  const char *const kinds[2] = {"nopf", "pf"};
  FILE *lists[2];
  for (int pf = 0; pf < 2; ++pf) {
    mkdir((dir + "/" + kinds[pf]).c_str(), 0777);
    lists[pf] = std::fopen((dir + "/" + kinds[pf] + ".list").c_str(), "w");
    if (lists[pf] == nullptr) {
      std::fprintf(stderr, "measure_codec: cannot write in %s\n", dir.c_str());
      return 1;
    }
  }
  const std::vector<std::string> files = kevrc::corpus::files(kevrc::corpus::Split::HeldOut, root);
  if (files.empty()) {
    std::fprintf(stderr, "measure_codec: no corpus under %s\n", root.c_str());
    return 1;
  }
  Totals t;
  for (size_t i = 0; i < files.size(); ++i) {
    const std::string ref = root + "/" + files[i];
    std::vector<int16_t> pcm;
    std::string error;
    if (!kevrc::corpus::read_pcm(ref, pcm, error)) {
      std::fprintf(stderr, "measure_codec: %s\n", error.c_str());
      continue;
    }
    pcm.resize((pcm.size() + 159) / 160 * 160, 0);
    std::vector<std::vector<uint8_t>> packets;
    if (!encode(cfg, pcm, packets, t)) {
      std::fprintf(stderr, "measure_codec: encoding %s failed\n", ref.c_str());
      return 1;
    }
    for (int pf = 0; pf < 2; ++pf) {
      const std::vector<int16_t> out = decode(packets, pf, t);
      const std::string path = dir + "/" + kinds[pf] + "/" + std::to_string(i) + ".wav";
      if (!kevrc::audio::write_wav16(path, out.data(), out.size(), 8000, 1, error)) {
        std::fprintf(stderr, "measure_codec: %s\n", error.c_str());
        return 1;
      }
      std::fprintf(lists[pf], "%s %s\n", ref.c_str(), path.c_str());
    }
  }
  for (FILE *f : lists) std::fclose(f);
  const long total = t.frames[1] + t.frames[3] + t.frames[4];
  const double bits = 16.0 * t.frames[1] + 80.0 * t.frames[3] + 172.0 * t.frames[4];
  std::printf("files %zu, frames %ld (%.1f s)\n", files.size(), total, total / 50.0);
  std::printf("rate shares: eighth %.1f %%, half %.1f %%, full %.1f %%\n", 100.0 * t.frames[1] / total,
              100.0 * t.frames[3] / total, 100.0 * t.frames[4] / total);
  std::printf("average payload bit rate %.0f bit/s\n", bits / (total / 50.0));
  std::printf("adaptive-codebook prediction gain %.2f dB over %ld frames\n",
              t.pitch_gain_db / static_cast<double>(t.pitch_frames ? t.pitch_frames : 1), t.pitch_frames);
  std::printf("speed: encode %.0f frames/s, decode %.0f (postfilter on) / %.0f (off) frames/s\n",
              total / t.encode_seconds, total / t.decode_seconds[1], total / t.decode_seconds[0]);
  return 0;
}
