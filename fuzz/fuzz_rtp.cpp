// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// libFuzzer target: the RTP depacketizer over a sequence of packets.
//
// Input: byte 0 selects the configuration (bit 0 the payload format, bit 1
// any payload type or 97 only, bits 2-7 the jitter window 1..64); then
// packets, each a 2-byte big-endian length (taken modulo 1024) and that many
// bytes. Each packet lies in a heap block of exactly its size. After each
// packet the ready frames are pulled; a packet refused as a jump is pushed
// again after a drain; the stream ends with a drain. Every yielded frame must
// have a valid rate and the matching payload size, and the counters must add
// up.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kevrc/kevrc_rtp.h"

namespace {

[[noreturn]] void fail() { std::abort(); }

void check_frame(const kevrc_rtp_frame &f) {
  const bool erasure = f.rate == KEVRC_RTP_RATE_ERASURE && f.bytes == 0;
  if (!erasure && kevrc_rtp_payload_bytes(f.rate) != f.bytes) fail();
}

int64_t pull_all(kevrc_rtp_depacketizer *d, int32_t drain) {
  kevrc_rtp_frame f;
  int64_t n = 0;
  for (int32_t s; (s = kevrc_rtp_depacketizer_pull(d, drain, &f)) != 0; ++n) {
    if (s != 1) fail();
    check_frame(f);
  }
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const kevrc_rtp_depacketizer_config cfg = {data[0] & 1, (data[0] & 2) ? -1 : 97, (data[0] >> 2) + 1};
  kevrc_rtp_depacketizer *d = kevrc_rtp_depacketizer_create(&cfg, nullptr);
  if (d == nullptr) fail();
  int64_t frames = 0;
  for (size_t at = 1; at + 2 <= size;) {
    size_t n = (size_t{data[at]} << 8 | data[at + 1]) % 1024;
    at += 2;
    if (n > size - at) n = size - at;
    std::vector<uint8_t> packet(data + at, data + at + n);
    at += n;
    const int32_t len = static_cast<int32_t>(n);
    int32_t status = kevrc_rtp_depacketizer_push(d, packet.data(), len);
    if (status == KEVRC_RTP_ERR_JUMP) {
      frames += pull_all(d, 1);
      status = kevrc_rtp_depacketizer_push(d, packet.data(), len);
      if (status == KEVRC_RTP_ERR_JUMP) fail();
    }
    frames += pull_all(d, 0);
  }
  frames += pull_all(d, 1);
  kevrc_rtp_counters c;
  kevrc_rtp_depacketizer_counters(d, &c);
  if (c.frames != frames || c.erasures + c.silence > c.frames || c.lost < 0) fail();
  kevrc_rtp_depacketizer_delete(d);
  return 0;
}
