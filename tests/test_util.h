// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Helpers shared by the tests.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <vector>

#include <kevrc/kevrc.h>
#include <kevrc/kevrc_kernels.h>
#include "decoder/decoder_state.h"
#include "encoder/encoder_state.h"
#include "tools/support/packet_gen.h"

namespace kevrc::testing {

// A decoder instance that is deleted at the end of the scope.
class Decoder {
 public:
  explicit Decoder(kevrcd_config cfg = {1, 0, 0, 0, 1}) : cfg_(cfg) {
    int32_t err = 1;
    dec_ = kevrcd_create(&cfg_, &err);
    EXPECT_NE(dec_, nullptr);
    EXPECT_EQ(err, KEVRC_OK);
  }
  ~Decoder() { kevrcd_delete(dec_); }
  Decoder(const Decoder &) = delete;
  Decoder &operator=(const Decoder &) = delete;

  kevrcd_instance *get() { return dec_; }
  kevrcd_state &state() { return dec_->st; }
  kevrcd_work &work() { return *dec_->work; }

  struct Frame {
    int32_t status = 0;
    kevrcd_result result = {0xDEAD, 0xDEAD, 0xDEAD, 0xDEAD};
    std::array<int16_t, 160> pcm{};
    bool delivered = false;  // samples written (16-bit mono interleaved layout)
  };

  // Decodes one packet in the default 16-bit mono interleaved layout.
  Frame decode(const Packet &p) {
    Frame f;
    uint8_t dummy = 0;
    kevrc_bitstream_buffer in = {p.empty() ? &dummy : const_cast<uint8_t *>(p.data()), 0,
                                 static_cast<int32_t>(p.size())};
    kevrc_pcm_buffer out = {};
    out.data[0] = f.pcm.data();
    f.status = kevrcd_decode(dec_, &in, &out, &f.result);
    f.delivered = out.samples[0] == 160;
    return f;
  }

 private:
  kevrcd_config cfg_;
  kevrcd_instance *dec_ = nullptr;
};


// An encoder instance that is deleted at the end of the scope.
class Encoder {
 public:
  explicit Encoder(kevrce_config cfg = {1, 1, 0, 0}) : cfg_(cfg) {
    int32_t err = 1;
    enc_ = kevrce_create(&cfg_, &err);
    EXPECT_NE(enc_, nullptr);
    EXPECT_EQ(err, KEVRC_OK);
  }
  ~Encoder() { kevrce_delete(enc_); }
  Encoder(const Encoder &) = delete;
  Encoder &operator=(const Encoder &) = delete;

  kevrce_instance *get() { return enc_; }
  kevrce_work &work() { return *enc_->work; }

  struct Frame {
    int32_t status = 0;
    kevrce_result result = {-99, -99};
    std::array<uint8_t, 24> payload{};
    std::array<int16_t, 160> conditioned{};  // the input after conditioning
    // The payload with the rate byte in front, as the decoder reads it.
    Packet packet() const {
      Packet p{static_cast<uint8_t>(result.rate)};
      p.insert(p.end(), payload.begin(), payload.begin() + result.bytes);
      return p;
    }
  };

  Frame encode(const int16_t *samples) {
    Frame f;
    std::copy(samples, samples + 160, f.conditioned.begin());
    kevrc_pcm_buffer in = {};
    in.data[0] = f.conditioned.data();
    kevrc_bitstream_buffer out = {f.payload.data(), 0, 0};
    f.status = kevrce_encode(enc_, &in, &out, &f.result);
    return f;
  }

 private:
  kevrce_config cfg_;
  kevrce_instance *enc_ = nullptr;
};

inline int64_t energy(const std::array<int16_t, 160> &pcm) {
  int64_t e = 0;
  for (int16_t s : pcm) e += int64_t{s} * s;
  return e;
}

// FNV-1a over 16-bit samples, for frozen output checksums.
inline uint64_t fnv1a(uint64_t h, const int16_t *s, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    const uint16_t v = static_cast<uint16_t>(s[i]);
    for (int b = 0; b < 2; ++b) {
      h ^= (v >> (8 * b)) & 0xFF;
      h *= 0x100000001B3ull;
    }
  }
  return h;
}
constexpr uint64_t kFnvOffset = 0xCBF29CE484222325ull;

// A stable LPC vector (Q12) from random ascending LSPs at least min_gap apart.
void random_lpc(Rng &rng, int16_t *lpc, int min_gap);

// Random seed for randomized tests: fixed unless KEVRC_TEST_SEED is set; printed.
uint64_t test_seed(const char *name);

}  // namespace kevrc::testing
