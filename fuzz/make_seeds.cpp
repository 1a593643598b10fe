// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Writes starting inputs for fuzz_rtp and fuzz_capture into DIR/rtp and
// DIR/capture: for each payload shape (header-free; bundles of 1, 3 and 32
// frames; interleave lengths 1 and 7), 40 frames of mixed rates packed, as a
// fuzz_rtp packet sequence and as a capture.
//   make_seeds DIR        (DIR/rtp and DIR/capture must exist)
#include <cstdio>
#include <string>
#include <vector>

#include "kevrc/kevrc_capture.h"
#include "kevrc/kevrc_rtp.h"

int main(int argc, char **argv) {
  if (argc != 2) return std::fprintf(stderr, "usage: make_seeds DIR\n"), 2;
  const int shapes[][3] = {{0, 1, 0}, {1, 1, 0}, {1, 3, 0}, {1, 32, 0}, {1, 2, 1}, {1, 1, 7}};
  const int rates[] = {4, 3, 1, 4, 0};
  int n = 0;
  for (const auto &s : shapes) {
    const kevrc_rtp_packer_config cfg = {s[0], s[1], s[2], 0, 97, 0x1234, 65500, 0xFFFFF000u};
    kevrc_rtp_packer *p = kevrc_rtp_packer_create(&cfg, nullptr);
    const std::string name = std::to_string(n++);
    std::FILE *seq = std::fopen((std::string(argv[1]) + "/rtp/" + name).c_str(), "wb");
    const kevrc_cap_endpoints ends = {0x7f000001, 0x7f000001, 5004, 5004};
    kevrc_cap_writer *w =
        kevrc_cap_writer_open((std::string(argv[1]) + "/capture/" + name).c_str(), &ends, nullptr, nullptr, 0);
    if (p == nullptr || seq == nullptr || w == nullptr) return std::fprintf(stderr, "make_seeds: cannot write\n"), 1;
    std::fputc(s[0] | 2 | 8 << 2, seq);  // format, any payload type, window 9
    uint8_t payload[22] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22};
    for (int i = 0; i <= 40; ++i) {
      if (i < 40) kevrc_rtp_packer_push(p, rates[i % 5], payload, kevrc_rtp_payload_bytes(rates[i % 5]));
      else kevrc_rtp_packer_finish(p);
      uint8_t packet[KEVRC_RTP_MAX_PACKET_BYTES];
      kevrc_rtp_packet_info info;
      for (int32_t len; (len = kevrc_rtp_packer_pull(p, packet, sizeof packet, &info)) > 0;) {
        std::fputc(len >> 8, seq);
        std::fputc(len & 255, seq);
        std::fwrite(packet, 1, static_cast<size_t>(len), seq);
        kevrc_cap_write(w, info.send_frame * 20000, packet, len);
      }
    }
    kevrc_cap_writer_close(w);
    std::fclose(seq);
    kevrc_rtp_packer_delete(p);
  }
  return 0;
}
