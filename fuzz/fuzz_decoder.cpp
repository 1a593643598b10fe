// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// libFuzzer target: a decoder created from a record taken from the input,
// then fed the packets that follow.
//
// Input: byte 0 selects the creation record (bit 0 interleaved, bits 1-2
// channel mode 0..3, bits 3-4 sample format 0..3, bit 5 postfilter, bit 6 a
// non-zero reserved field, bit 7 reset the decoder half way; creation refuses
// the reserved field and channel mode or sample format 3); then packets, each
// a length byte (0..63) followed by that many bytes. Every packet lies in a
// heap block of exactly its size and the output buffers are exactly as large
// as the layout needs, so any overread or overwrite is caught.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <kevrc/kevrc.h>

namespace {

[[noreturn]] void fail() { std::abort(); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const uint8_t sel = data[0];
  const kevrcd_config cfg = {sel & 1, (sel >> 1) & 3, (sel >> 3) & 3, (sel >> 6) & 1, (sel >> 5) & 1};
  int32_t err = 0;
  kevrcd_instance *dec = kevrcd_create(&cfg, &err);
  if (cfg.reserved != 0 || cfg.channel_mode > 2 || cfg.sample_format > 2) {
    if (dec != nullptr || err != KEVRC_ERR_UNSUPPORTED) fail();
    return 0;
  }
  if (dec == nullptr) fail();

  const size_t bytes_per_channel = 160 * (cfg.sample_format == 1 ? 1 : 2);
  const size_t channels = cfg.channel_mode == 2 ? 2 : 1;
  std::vector<uint8_t> interleaved(bytes_per_channel * channels), ch1(bytes_per_channel), ch2(bytes_per_channel);

  size_t pos = 1;
  const size_t half = size / 2;
  bool reset_done = false;
  while (pos < size) {
    if ((sel & 0x80) != 0 && !reset_done && pos >= half) {
      kevrcd_reset(dec);
      reset_done = true;
    }
    const size_t len = data[pos++] & 63;
    const size_t n = len < size - pos ? len : size - pos;
    uint8_t *packet = static_cast<uint8_t *>(std::malloc(n > 0 ? n : 1));
    if (n > 0) std::memcpy(packet, data + pos, n);
    pos += n;

    kevrc_bitstream_buffer in = {packet, 0, static_cast<int32_t>(n)};
    kevrc_pcm_buffer out = {};
    out.data[0] = interleaved.data();
    out.data[1] = ch1.data();
    out.data[2] = ch2.data();
    kevrcd_result result = {};
    const int32_t status = kevrcd_decode(dec, &in, &out, &result);
    std::free(packet);

    if (status != 0 && status != -1 && status != -2 && status != -5 && status != -9) fail();
    if (status == 0) {
      if (result.consumed > n || result.sample_rate != 8000) fail();
      if (out.samples[0] + out.samples[1] == 0) fail();
    }
  }
  kevrcd_delete(dec);
  return 0;
}
