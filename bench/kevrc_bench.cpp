// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrc_bench: encoder and decoder speed on held-out speech, as multiples of
// real time on one core, beside the peer codecs found at configure time.
//
//   kevrc_bench [--seconds N] [--repeat R] [--cpu C] [--config NAME]
//               [--postfilter 0|1] [--no-peers] [--root DIR]
//
// Input: the held-out corpus files (tools/support/corpus.h) in their sorted
// order until N seconds of speech are gathered (default 120), each file
// coded with a fresh encoder and decoder. Timed: the frame calls only
// (creation, copies and bookkeeping excluded), the best of R runs (default
// 3). --cpu pins the process to one CPU (or use taskset -c C). kevrc is
// timed per configuration (full, half, bounds 1..4, bounds 1..4 with noise
// suppression, the same in the quality mode); each configuration's packets are decoded with the
// postfilter on and off. --config runs one configuration only (full, half,
// var, var-ns, quality: var-ns in the quality mode) and --postfilter one decoder setting, for profiling (the
// other decoder column is then not measured). The last columns divide kevrc's figure
// (bounds 1..4 with noise suppression; decoder with the postfilter) by the
// peer's. Also printed: the instance and work-block sizes.
#include <sched.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <kevrc/kevrc.h>
#include "bench/peer_codecs.h"
#include "decoder/decoder_state.h"
#include "encoder/encoder_state.h"
#include "tools/support/corpus.h"

namespace {

using Clock = std::chrono::steady_clock;
using Packets = std::vector<std::vector<uint8_t>>;  // one file's packets
constexpr int kFrame = 160;
constexpr double kFramesPerSecond = 50.0;

struct Options {
  double seconds = 120;
  int repeat = 3;
  int cpu = -1;
  std::string config;  // empty: all
  int postfilter = -1;  // -1: both
  bool peers = true;
  std::string root = kevrc::corpus::kDefaultRoot;
};

struct KevrcConfig {
  const char *key;
  const char *name;
  kevrce_config cfg;
  int32_t robust;  // kevrce_set_robust
};
constexpr KevrcConfig kConfigs[] = {
    {"full", "kevrc full rate", {4, 4, 0, 0}, 0},
    {"half", "kevrc half rate", {3, 3, 0, 0}, 0},
    {"var", "kevrc rates 1..4", {4, 1, 0, 0}, 0},
    {"var-ns", "kevrc rates 1..4 + noise suppr.", {4, 1, 0, 1}, 0},
    {"quality", "kevrc 1..4 + NS, quality mode", {4, 1, 0, 1}, 1},
};

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Seconds spent in the encoder's frame calls over all files; fills packets.
double kevrc_encode(const std::vector<std::vector<int16_t>> &files, const KevrcConfig &config,
                    std::vector<Packets> &packets) {
  double seconds = 0;
  packets.assign(files.size(), {});
  for (size_t f = 0; f < files.size(); ++f) {
    int32_t err = 0;
    kevrce_instance *enc = kevrce_create(&config.cfg, &err);
    if (enc == nullptr || kevrce_set_robust(enc, config.robust) != KEVRC_OK) std::exit(1);
    int16_t frame[kFrame];
    uint8_t payload[KEVRC_ENCODER_BUFFER_BYTES];
    kevrce_result res;
    for (size_t k = 0; k + kFrame <= files[f].size(); k += kFrame) {
      std::memcpy(frame, &files[f][k], sizeof frame);
      kevrc_pcm_buffer in = {};
      in.data[0] = frame;
      kevrc_bitstream_buffer out = {payload, 0, 0};
      const auto start = Clock::now();
      kevrce_encode(enc, &in, &out, &res);
      seconds += since(start);
      std::vector<uint8_t> p{static_cast<uint8_t>(res.rate)};
      p.insert(p.end(), payload, payload + res.bytes);
      packets[f].push_back(std::move(p));
    }
    kevrce_delete(enc);
  }
  return seconds;
}

// Seconds spent in the decoder's frame calls over all files.
double kevrc_decode(const std::vector<Packets> &packets, int postfilter) {
  double seconds = 0;
  int64_t checksum = 0;
  for (const Packets &file : packets) {
    const kevrcd_config cfg = {1, 0, 0, 0, postfilter};
    int32_t err = 0;
    kevrcd_instance *dec = kevrcd_create(&cfg, &err);
    if (dec == nullptr) std::exit(1);
    int16_t pcm[kFrame];
    kevrcd_result res;
    const auto start = Clock::now();
    for (const auto &p : file) {
      kevrc_bitstream_buffer in = {const_cast<uint8_t *>(p.data()), 0, static_cast<int32_t>(p.size())};
      kevrc_pcm_buffer out = {};
      out.data[0] = pcm;
      kevrcd_decode(dec, &in, &out, &res);
      checksum += pcm[7];
    }
    seconds += since(start);
    kevrcd_delete(dec);
  }
  if (checksum == 42) std::printf(" ");  // keeps the work observable
  return seconds;
}

double peer_encode(const std::vector<std::vector<int16_t>> &files, const kevrc::bench::PeerCodec &codec,
                   std::vector<Packets> &packets) {
  double seconds = 0;
  packets.assign(files.size(), {});
  const size_t n = static_cast<size_t>(codec.frame_samples);
  for (size_t f = 0; f < files.size(); ++f) {
    void *state = codec.encoder_create();
    uint8_t packet[kevrc::bench::kMaxPeerPacket];
    for (size_t k = 0; k + n <= files[f].size(); k += n) {
      const auto start = Clock::now();
      const int bytes = codec.encode(state, &files[f][k], packet);
      seconds += since(start);
      packets[f].emplace_back(packet, packet + bytes);
    }
    codec.encoder_delete(state);
  }
  return seconds;
}

double peer_decode(const std::vector<Packets> &packets, const kevrc::bench::PeerCodec &codec) {
  double seconds = 0;
  std::vector<int16_t> pcm(static_cast<size_t>(codec.frame_samples));
  for (const Packets &file : packets) {
    void *state = codec.decoder_create();
    const auto start = Clock::now();
    for (const auto &p : file) codec.decode(state, p.data(), static_cast<int>(p.size()), pcm.data());
    seconds += since(start);
    codec.decoder_delete(state);
  }
  return seconds;
}

// Best (shortest) of opt.repeat runs of f().
template <typename F>
double best_of(int repeat, F f) {
  double best = 0;
  for (int r = 0; r < repeat; ++r) {
    const double s = f();
    if (r == 0 || s < best) best = s;
  }
  return best;
}

bool parse(int argc, char **argv, Options &o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool has_value = i + 1 < argc;
    if (a == "--seconds" && has_value) o.seconds = std::atof(argv[++i]);
    else if (a == "--repeat" && has_value) o.repeat = std::atoi(argv[++i]);
    else if (a == "--cpu" && has_value) o.cpu = std::atoi(argv[++i]);
    else if (a == "--config" && has_value) o.config = argv[++i];
    else if (a == "--root" && has_value) o.root = argv[++i];
    else if (a == "--postfilter" && has_value) o.postfilter = std::atoi(argv[++i]);
    else if (a == "--no-peers") o.peers = false;
    else return false;
  }
  return o.seconds > 0 && o.repeat > 0;
}

void print_row(const char *name, double audio, double enc, const double *dec, int dec_columns, double ref_enc,
               double ref_dec) {
  std::printf("%-33s %9.0f", name, audio / enc);
  for (int c = 0; c < 2; ++c) {
    if (c < dec_columns && dec[c] > 0) std::printf(" %12.0f", audio / dec[c]);
    else std::printf(" %12s", "-");
  }
  if (ref_enc > 0) std::printf(" %9.2f %9.2f", enc / ref_enc, dec[0] / ref_dec);
  std::printf("\n");
}

void print_memory() {
  std::printf("\nmemory per instance (allocated at creation, 32-byte aligned blocks):\n");
  std::printf("  encoder: instance %zu B + work block %zu B (kevrce_work uses %zu B)\n", sizeof(kevrce_instance),
              static_cast<size_t>(kevrc::kEncWorkWords) * sizeof(int16_t), sizeof(kevrce_work));
  std::printf("  decoder: instance %zu B + work block %zu B (kevrcd_work uses %zu B)\n", sizeof(kevrcd_instance),
              static_cast<size_t>(kevrc::kDecWorkWords) * sizeof(int16_t), sizeof(kevrcd_work));
}

}  // namespace

int main(int argc, char **argv) {
  Options o;
  if (!parse(argc, argv, o)) {
    std::fprintf(stderr,
                 "usage: kevrc_bench [--seconds N] [--repeat R] [--cpu C] [--config full|half|var|var-ns|quality]\n"
                 "                   [--postfilter 0|1] [--no-peers] [--root DIR]\n");
    return 2;
  }
  if (o.cpu >= 0) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(o.cpu, &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) std::perror("kevrc_bench: sched_setaffinity");
  }
  kevrc_init();
  std::vector<std::vector<int16_t>> files;
  double audio = 0;
  for (const std::string &rel : kevrc::corpus::files(kevrc::corpus::Split::HeldOut, o.root)) {
    if (audio >= o.seconds) break;
    std::vector<int16_t> pcm;
    std::string error;
    if (!kevrc::corpus::read_pcm(o.root + "/" + rel, pcm, error)) continue;
    pcm.resize(pcm.size() / kFrame * kFrame);  // whole frames only
    audio += static_cast<double>(pcm.size()) / (kFrame * kFramesPerSecond);
    files.push_back(std::move(pcm));
  }
  if (files.empty()) {
    std::fprintf(stderr, "kevrc_bench: no held-out speech under %s (scripts/install-deps.sh --corpus)\n",
                 o.root.c_str());
    return 1;
  }
  std::printf("kevrc %s: %zu held-out files, %.1f s of speech, fresh state per file, best of %d, %s\n",
              kevrc_version(), files.size(), audio, o.repeat,
              o.cpu >= 0 ? ("CPU " + std::to_string(o.cpu)).c_str() : "unpinned");
  std::printf("%-33s %9s %12s %12s %9s %9s\n", "codec / configuration", "enc xRT", "dec xRT", "dec no pf",
              "kevrc/enc", "kevrc/dec");
  double ref_enc = 0, ref_dec = 0;
  for (const KevrcConfig &c : kConfigs) {
    if (!o.config.empty() && o.config != c.key) continue;
    std::vector<Packets> packets;
    const double enc = best_of(o.repeat, [&] { return kevrc_encode(files, c, packets); });
    double dec[2] = {};
    for (int pf : {1, 0}) {
      if (o.postfilter < 0 || o.postfilter == pf) dec[1 - pf] = best_of(o.repeat, [&] { return kevrc_decode(packets, pf); });
    }
    print_row(c.name, audio, enc, dec, 2, 0, 0);
    if (std::strcmp(c.key, "var-ns") == 0) ref_enc = enc, ref_dec = dec[0];
  }
  if (o.peers && o.config.empty()) {
    for (const kevrc::bench::PeerCodec &peer : kevrc::bench::peer_codecs()) {
      std::vector<Packets> packets;
      const double enc = best_of(o.repeat, [&] { return peer_encode(files, peer, packets); });
      const double dec = best_of(o.repeat, [&] { return peer_decode(packets, peer); });
      print_row(peer.name, audio, enc, &dec, 1, ref_enc, ref_dec);
    }
  }
  print_memory();
  return 0;
}
