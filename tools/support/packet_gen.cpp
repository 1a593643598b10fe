// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
#include "tools/support/packet_gen.h"

#include <cstdio>

#include <kevrc/kevrc_kernels.h>

namespace kevrc::testing {

uint64_t Rng::next() {
  uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

namespace {

// Most-significant-bit-first packer.
class BitPacker {
 public:
  explicit BitPacker(int rate, int payload_bytes) : bytes_(1 + payload_bytes, 0) {
    bytes_[0] = static_cast<uint8_t>(rate);
  }
  void put(int value, int bits) {
    for (int b = bits - 1; b >= 0; --b, ++bit_) {
      if ((value >> b) & 1) bytes_[1 + bit_ / 8] |= static_cast<uint8_t>(0x80 >> (bit_ % 8));
    }
  }
  Packet take() { return std::move(bytes_); }

 private:
  Packet bytes_;
  int bit_ = 0;
};

struct Layout {
  int splits;
  int dims[4];
  int entries[4];
  const int16_t *codebook;
};

Layout layout_of(int rate) {
  if (rate == 1) return {2, {5, 5}, {16, 16}, kevrc_tbl_lsp_1_8};
  if (rate == 3) return {3, {3, 3, 4}, {128, 128, 256}, kevrc_tbl_lsp_hr};
  return {4, {2, 2, 3, 3}, {64, 64, 512, 128}, kevrc_tbl_lsp_fr};
}

}  // namespace

Packet pack(const EighthFields &f) {
  BitPacker p(1, 2);
  p.put(f.lsp[0], 4);
  p.put(f.lsp[1], 4);
  p.put(f.energy, 8);
  return p.take();
}

Packet pack(const HalfFields &f) {
  BitPacker p(3, 10);
  p.put(f.lsp[0], 7);
  p.put(f.lsp[1], 7);
  p.put(f.lsp[2], 8);
  p.put(f.delay - 20, 7);
  for (int s = 0; s < 3; ++s) {
    p.put(f.acb_gain[s], 3);
    p.put(f.fcb[s], 10);
    p.put(f.fcb_gain[s], 4);
  }
  return p.take();
}

Packet pack(const FullFields &f) {
  BitPacker p(4, 22);
  p.put(f.lpc_flag, 1);
  p.put(f.lsp[0], 6);
  p.put(f.lsp[1], 6);
  p.put(f.lsp[2], 9);
  p.put(f.lsp[3], 7);
  p.put(f.delay - 20, 7);
  p.put(f.delay_diff, 5);
  for (int s = 0; s < 3; ++s) {
    p.put(f.acb_gain[s], 3);
    p.put(f.fcb[s][0], 8);
    p.put(f.fcb[s][1], 8);
    p.put(f.fcb[s][2], 8);
    p.put(f.fcb[s][3], 11);
    p.put(f.fcb_gain[s], 5);
  }
  return p.take();
}

std::vector<int> lsp_from_indices(int rate, const int *indices) {
  const Layout l = layout_of(rate);
  std::vector<int> lsp;
  int offset = 0;
  for (int s = 0; s < l.splits; ++s) {
    for (int k = 0; k < l.dims[s]; ++k) lsp.push_back(l.codebook[offset + l.dims[s] * indices[s] + k]);
    offset += l.dims[s] * l.entries[s];
  }
  return lsp;
}

Packet blank_packet(int rate) {
  Packet p(rate == 4 ? 23 : rate == 3 ? 11 : 3, 0);
  p[0] = static_cast<uint8_t>(rate);
  return p;
}

bool lsp_indices_valid(int rate, const int *indices) {
  const std::vector<int> lsp = lsp_from_indices(rate, indices);
  for (int i = 1; i < 10; ++i)
    if (lsp[i] <= lsp[i - 1]) return false;
  const std::vector<int> seams = rate == 1 ? std::vector<int>{5} : rate == 3 ? std::vector<int>{3, 6}
                                                                          : std::vector<int>{2, 4, 7};
  for (int i : seams)
    if (lsp[i] <= lsp[i - 1] + 261) return false;
  return true;
}

namespace {

void random_lsp(Rng &rng, int rate, int *indices) {
  const Layout l = layout_of(rate);
  do {
    for (int s = 0; s < l.splits; ++s) indices[s] = static_cast<int>(rng.below(l.entries[s]));
  } while (!lsp_indices_valid(rate, indices));
}

}  // namespace

FullFields random_full(Rng &rng, int delay) {
  FullFields f;
  random_lsp(rng, 4, f.lsp);
  f.delay = delay;
  f.delay_diff = rng.chance(70) ? static_cast<int>(rng.below(31)) + 1 : 0;
  const int prev = f.delay - f.delay_diff + 16;
  if (prev < 20 || prev > 120) f.delay_diff = 0;
  for (int s = 0; s < 3; ++s) {
    f.acb_gain[s] = static_cast<int>(rng.below(8));
    for (int k = 0; k < 3; ++k) f.fcb[s][k] = static_cast<int>(rng.below(256));
    f.fcb[s][3] = static_cast<int>(rng.below(2048));
    f.fcb_gain[s] = static_cast<int>(rng.below(32));
  }
  return f;
}

HalfFields random_half(Rng &rng, int delay) {
  HalfFields f;
  random_lsp(rng, 3, f.lsp);
  f.delay = delay;
  for (int s = 0; s < 3; ++s) {
    f.acb_gain[s] = static_cast<int>(rng.below(8));
    f.fcb[s] = static_cast<int>(rng.below(1024));
    f.fcb_gain[s] = static_cast<int>(rng.below(16));
  }
  return f;
}

EighthFields random_eighth(Rng &rng) {
  EighthFields f;
  random_lsp(rng, 1, f.lsp);
  f.energy = static_cast<int>(rng.below(256));
  return f;
}

namespace {


Packet garbage_packet(Rng &rng) {
  static const int kRates[] = {0, 1, 2, 3, 4, 5, 14, 255};
  Packet p(rng.below(31));
  for (auto &b : p) b = static_cast<uint8_t>(rng.below(256));
  if (!p.empty() && rng.chance(70)) p[0] = static_cast<uint8_t>(kRates[rng.below(8)]);
  if (!p.empty() && rng.chance(50)) p[0] = static_cast<uint8_t>(rng.chance(50) ? 4 : rng.chance(50) ? 3 : 1);
  return p;
}

// A damaged version of a good packet: flipped bits, cut short or blank.
Packet damage(Rng &rng, Packet p) {
  switch (rng.below(4)) {
    case 0:
      for (int i = 0; i < 3; ++i) p[1 + rng.below(static_cast<uint32_t>(p.size() - 1))] ^= static_cast<uint8_t>(1u << rng.below(8));
      return p;
    case 1:
      p.resize(rng.below(static_cast<uint32_t>(p.size())));
      return p;
    case 2:
      return blank_packet(p[0]);
    default:
      return Packet{1, 0xFF, 0xFF};  // all-ones eighth rate
  }
}

// An erasure burst and what follows it: an eighth-rate packet that is accepted
// but not unpacked, then a full-rate packet that rebuilds the excitation and
// may carry the LPC flag, then good and blank half-rate packets.
void append_recovery_episode(Rng &rng, std::vector<Packet> &out) {
  const int delay = 30 + static_cast<int>(rng.below(80));
  for (int i = 0, n = 3 + static_cast<int>(rng.below(8)); i < n; ++i) out.push_back(pack(random_full(rng, delay)));
  for (int i = 0, n = 1 + static_cast<int>(rng.below(4)); i < n; ++i) out.push_back(blank_packet(4));
  if (rng.chance(70)) out.push_back(pack(random_eighth(rng)));
  FullFields f = random_full(rng, delay);
  f.lpc_flag = rng.chance(70) ? 1 : 0;
  if (rng.chance(30)) f.delay_diff = 0;
  out.push_back(pack(f));
  for (int i = 0, n = 2 + static_cast<int>(rng.below(4)); i < n; ++i) out.push_back(pack(random_half(rng, delay)));
  if (rng.chance(50)) {
    out.push_back(blank_packet(3));
    out.push_back(pack(random_half(rng, delay)));
    out.push_back(pack(random_half(rng, delay)));
  }
  for (int i = 0, n = static_cast<int>(rng.below(6)); i < n; ++i) out.push_back(pack(random_full(rng, delay)));
  if (rng.chance(30))
    for (int i = 0; i < 4; ++i) out.push_back(Packet{1, 0xFF, 0xFF});
}

}  // namespace

std::vector<Packet> make_stream(uint64_t seed, int frames, StreamKind kind) {
  Rng rng(seed);
  std::vector<Packet> out;
  out.reserve(frames + 40);
  int delay = 40 + static_cast<int>(rng.below(60));
  while (static_cast<int>(out.size()) < frames) {
    if (kind == StreamKind::kGarbage) {
      out.push_back(garbage_packet(rng));
      continue;
    }
    if (kind == StreamKind::kRecovery) {
      append_recovery_episode(rng, out);
      continue;
    }
    const uint32_t pick = rng.below(10);
    const int rate = pick < 5 ? 4 : pick < 7 ? 3 : 1;
    const int run = 1 + static_cast<int>(rng.below(rate == 1 ? 20 : 12));
    for (int i = 0; i < run && static_cast<int>(out.size()) < frames; ++i) {
      delay += static_cast<int>(rng.below(7)) - 3;
      if (rng.chance(5)) delay = 20 + static_cast<int>(rng.below(101));
      delay = delay < 20 ? 20 : delay > 120 ? 120 : delay;
      Packet p = rate == 4 ? pack(random_full(rng, delay))
                 : rate == 3 ? pack(random_half(rng, delay))
                             : pack(random_eighth(rng));
      const uint32_t damage_percent = kind == StreamKind::kErasures ? 25 : 3;
      if (rng.chance(damage_percent)) p = damage(rng, std::move(p));
      out.push_back(std::move(p));
    }
  }
  out.resize(frames);
  return out;
}

bool write_stream_file(const char *path, const std::vector<Packet> &packets) {
  FILE *f = std::fopen(path, "wb");
  if (f == nullptr) return false;
  bool ok = true;
  for (const Packet &p : packets) {
    const uint8_t len[2] = {static_cast<uint8_t>(p.size() & 0xFF), static_cast<uint8_t>(p.size() >> 8)};
    ok = ok && std::fwrite(len, 1, 2, f) == 2 && (p.empty() || std::fwrite(p.data(), 1, p.size(), f) == p.size());
  }
  return std::fclose(f) == 0 && ok;
}

bool read_stream_file(const char *path, std::vector<Packet> *packets) {
  FILE *f = std::fopen(path, "rb");
  if (f == nullptr) return false;
  packets->clear();
  uint8_t len[2];
  bool ok = true;
  while (std::fread(len, 1, 2, f) == 2) {
    Packet p(len[0] | (len[1] << 8));
    if (!p.empty() && std::fread(p.data(), 1, p.size(), f) != p.size()) {
      ok = false;
      break;
    }
    packets->push_back(std::move(p));
  }
  std::fclose(f);
  return ok;
}

}  // namespace kevrc::testing
