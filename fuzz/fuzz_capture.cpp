// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// libFuzzer target: the capture reader and the stream table over any bytes
// taken as a pcap or pcapng file (through fmemopen). Every datagram yielded
// must lie inside the record and the counters must add up; each stream's
// RTP packets then go through a depacketizer of the detected format.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kevrc/kevrc_capture.h"
#include "kevrc/kevrc_rtp.h"

namespace {

[[noreturn]] void fail() { std::abort(); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  std::vector<uint8_t> copy(data, data + size);
  std::FILE *file = fmemopen(copy.data(), copy.size(), "rb");
  if (file == nullptr) return 0;
  kevrc_cap_reader *r = kevrc_cap_open_file(file, nullptr, nullptr, 0);
  if (r == nullptr) return 0;
  kevrc_cap_streams *streams = kevrc_cap_streams_create(nullptr);
  const kevrc_rtp_depacketizer_config cfg = {KEVRC_RTP_FORMAT_INTERLEAVED, -1, 4};
  kevrc_rtp_depacketizer *d = kevrc_rtp_depacketizer_create(&cfg, nullptr);
  kevrc_cap_udp u;
  int64_t yielded = 0;
  int32_t status;
  while ((status = kevrc_cap_next(r, &u)) == 1) {
    ++yielded;
    if (u.length < 0 || u.length > 65535) fail();
    std::vector<uint8_t> payload(u.payload, u.payload + u.length);  // must be readable
    kevrc_cap_streams_add(streams, &u);
    if (kevrc_rtp_depacketizer_push(d, payload.data(), u.length) == KEVRC_RTP_ERR_JUMP) {
      for (kevrc_rtp_frame f; kevrc_rtp_depacketizer_pull(d, 1, &f) == 1;) {
      }
    }
    for (kevrc_rtp_frame f; kevrc_rtp_depacketizer_pull(d, 0, &f) == 1;) {
    }
  }
  if (status != 0 && status != KEVRC_CAP_ERR_READ) fail();
  kevrc_cap_counters c;
  kevrc_cap_reader_counters(r, &c);
  if (c.udp != yielded || c.udp + c.non_ipv4 + c.fragments + c.not_udp > c.records) fail();
  for (int32_t i = 0; i < kevrc_cap_streams_count(streams); ++i) {
    kevrc_cap_stream s;
    if (kevrc_cap_streams_get(streams, i, -1, &s) != KEVRC_CAP_OK || s.lost < 0 || s.frames < 0) fail();
  }
  kevrc_rtp_depacketizer_delete(d);
  kevrc_cap_streams_delete(streams);
  kevrc_cap_close(r);
  return 0;
}
