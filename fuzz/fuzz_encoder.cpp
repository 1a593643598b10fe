// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// libFuzzer target: an encoder created from a record taken from the input,
// fed the frames that follow; every payload it produces goes to a decoder.
//
// Input: byte 0 selects the creation record. Values 0..251 pick one of the
// 18 valid records (selector mod 18: max_rate 1..4, min_rate 1..max_rate
// without 2..2, noise suppression 0/1), each equally often, with the
// quality mode on when selector / 18 is odd; 252..255 pick a record creation
// must refuse. Then frames of 320 bytes (160 little-endian
// samples; a short last frame is padded with zeros), at most 50. The sample
// buffer and the payload buffer are heap blocks of exactly 160 samples and 24
// bytes, and the records state those sizes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <kevrc/kevrc.h>

namespace {

[[noreturn]] void fail() { std::abort(); }

constexpr int kValidConfigs = 18;

// Valid record k: the (max_rate, min_rate) pair k / 2 of the nine below
// (2..2 holds no coded rate), noise suppression k % 2.
kevrce_config valid_config(int k) {
  static constexpr int32_t kBounds[9][2] = {{1, 1}, {2, 1}, {3, 1}, {3, 2}, {3, 3},
                                            {4, 1}, {4, 2}, {4, 3}, {4, 4}};
  return {kBounds[k / 2][0], kBounds[k / 2][1], 0, k % 2};
}

// Records creation refuses with KEVRC_ERR_ARG.
kevrce_config invalid_config(int k) {
  static constexpr kevrce_config kInvalid[4] = {{2, 2, 0, 0}, {3, 4, 0, 1}, {5, 1, 0, 0}, {4, 1, 0, 2}};
  return kInvalid[k];
}

int32_t payload_size(int32_t rate) { return rate == 1 ? 2 : (rate == 4 ? 22 : 10); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const int sel = data[0];
  const bool valid = sel < 252;
  const kevrce_config cfg = valid ? valid_config(sel % kValidConfigs) : invalid_config(sel - 252);
  int32_t err = 0;
  kevrce_instance *enc = kevrce_create(&cfg, &err);
  if (!valid) {
    if (enc != nullptr || err != KEVRC_ERR_ARG) fail();
    return 0;
  }
  if (enc == nullptr || err != KEVRC_OK) fail();
  if (kevrce_set_robust(enc, (sel / kValidConfigs) & 1) != KEVRC_OK) fail();
  // The coded rates the bounds allow: a bound of 2 acts as 1 (max) or 3 (min).
  const int32_t max_rate = cfg.max_rate == 2 ? 1 : cfg.max_rate;
  const int32_t min_rate = cfg.min_rate == 2 ? 3 : cfg.min_rate;
  const kevrcd_config dcfg = {1, 0, 0, 0, 1};
  kevrcd_instance *dec = kevrcd_create(&dcfg, &err);
  if (dec == nullptr) fail();

  std::vector<int16_t> pcm(160);
  std::vector<uint8_t> payload(24);
  std::vector<int16_t> decoded(160);
  size_t pos = 1;
  for (int frame = 0; frame < 50 && pos < size; ++frame, pos += 320) {
    for (size_t n = 0; n < 160; ++n) {
      const size_t at = pos + 2 * n;
      const uint16_t lo = at < size ? data[at] : 0;
      const uint16_t hi = at + 1 < size ? data[at + 1] : 0;
      pcm[n] = static_cast<int16_t>(lo | (hi << 8));
    }
    kevrc_pcm_buffer in = {};
    in.data[0] = pcm.data();
    in.samples[0] = 160;
    in.bytes[0] = 320;
    kevrc_bitstream_buffer out = {payload.data(), 0, 24};
    kevrce_result result = {-1, -1};
    if (kevrce_encode(enc, &in, &out, &result) != KEVRC_OK) fail();
    if (result.rate < min_rate || result.rate > max_rate) fail();
    if (result.bytes != payload_size(result.rate)) fail();
    std::vector<uint8_t> packet(1 + static_cast<size_t>(result.bytes));
    packet[0] = static_cast<uint8_t>(result.rate);
    std::memcpy(packet.data() + 1, payload.data(), static_cast<size_t>(result.bytes));
    kevrc_bitstream_buffer pin = {packet.data(), 0, static_cast<int32_t>(packet.size())};
    kevrc_pcm_buffer pout = {};
    pout.data[0] = decoded.data();
    pout.samples[0] = 160;
    kevrcd_result dres;
    if (kevrcd_decode(dec, &pin, &pout, &dres) != KEVRC_OK) fail();
  }
  kevrcd_delete(dec);
  kevrce_delete(enc);
  return 0;
}
