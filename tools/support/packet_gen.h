// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Test and tool support: packets built from field values, and deterministic
// packet streams (speech-like, erasure-heavy, or garbage) for tests, the
// fuzzer corpus, the benchmark and cross-checks.
//
// The packer here is deliberately independent of the library's bit writer.
#pragma once

#include <cstdint>
#include <vector>

namespace kevrc::testing {

using Packet = std::vector<uint8_t>;  // rate byte + payload, as the decoder reads it

// splitmix64: small, fast, reproducible.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t next();
  uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
  bool chance(uint32_t percent) { return below(100) < percent; }

 private:
  uint64_t state_;
};

struct EighthFields {
  int lsp[2] = {0, 0};  // 4 bits each
  int energy = 0;       // 8 bits
};

struct HalfFields {
  int lsp[3] = {0, 0, 0};  // 7, 7, 8 bits
  int delay = 40;          // 20..147 (above 120 is rejected by the decoder)
  int acb_gain[3] = {0, 0, 0};
  int fcb[3] = {0, 0, 0};  // 10 bits
  int fcb_gain[3] = {0, 0, 0};
};

struct FullFields {
  int lpc_flag = 0;
  int lsp[4] = {0, 0, 0, 0};  // 6, 6, 9, 7 bits
  int delay = 40;
  int delay_diff = 0;  // 5 bits
  int acb_gain[3] = {0, 0, 0};
  int fcb[3][4] = {};  // 8, 8, 8, 11 bits
  int fcb_gain[3] = {0, 0, 0};
};

Packet pack(const EighthFields &f);
Packet pack(const HalfFields &f);
Packet pack(const FullFields &f);

// A packet of the given rate whose payload is all zero (the decoder erases it).
Packet blank_packet(int rate);

// Decoded LSP vector of a set of indices, straight from the tables.
std::vector<int> lsp_from_indices(int rate, const int *indices);
// True when the decoder's ordering and seam checks accept those LSPs.
bool lsp_indices_valid(int rate, const int *indices);

// Random fields whose LSPs pass the decoder's checks and whose delay is valid.
FullFields random_full(Rng &rng, int delay);
HalfFields random_half(Rng &rng, int delay);
EighthFields random_eighth(Rng &rng);

enum class StreamKind {
  kSpeechLike,  // runs of full, half and eighth rate with a gliding delay, few erasures
  kErasures,    // speech-like with frequent blank, all-ones and damaged packets
  kGarbage,     // random rate bytes, sizes and contents
  kRecovery,    // erasure bursts followed by the packets that rebuild and recover
};

std::vector<Packet> make_stream(uint64_t seed, int frames, StreamKind kind);

// Length-prefixed stream file: per packet a 2-byte little-endian length and the bytes.
bool write_stream_file(const char *path, const std::vector<Packet> &packets);
bool read_stream_file(const char *path, std::vector<Packet> *packets);

}  // namespace kevrc::testing
