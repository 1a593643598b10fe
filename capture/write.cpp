// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Capture writer: each RTP packet becomes an Ethernet II / IPv4 / UDP record
// written with pcap_dump (a dead pcap handle of Ethernet link type). The
// IPv4 header has no options, DF set, TTL 64, an identification that counts
// up and its ones'-complement header checksum; the UDP checksum covers the
// pseudo-header. MAC addresses are fixed, locally administered ones.
#include <pcap/pcap.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "kevrc/kevrc_capture.h"
#include "rtp/rtp_internal.h"

using kevrc::rtp::store16;
using kevrc::rtp::store32;

struct kevrc_cap_writer {
  pcap_t *dead;
  pcap_dumper_t *dumper;
  kevrc_cap_endpoints endpoints;
  uint16_t ip_id;
};

namespace {

constexpr int32_t kEther = 14, kIp = 20, kUdp = 8;
constexpr int32_t kMaxRtp = 1500 - kIp - kUdp;

// Ones'-complement sum of 16-bit big-endian words (an odd last byte is
// padded with zero), folded to 16 bits.
uint32_t ones_sum(const uint8_t *p, int32_t n, uint32_t sum = 0) {
  for (int32_t i = 0; i + 1 < n; i += 2) sum += uint32_t{p[i]} << 8 | p[i + 1];
  if (n % 2 == 1) sum += uint32_t{p[n - 1]} << 8;
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return sum;
}

void write_ipv4(uint8_t *ip, const kevrc_cap_endpoints &e, uint16_t id, int32_t total) {
  std::memset(ip, 0, kIp);
  ip[0] = 0x45;
  store16(ip + 2, static_cast<uint16_t>(total));
  store16(ip + 4, id);
  store16(ip + 6, 0x4000);
  ip[8] = 64;
  ip[9] = 17;
  store32(ip + 12, e.src_ip);
  store32(ip + 16, e.dst_ip);
  store16(ip + 10, static_cast<uint16_t>(~ones_sum(ip, kIp)));
}

void write_udp(uint8_t *udp, const uint8_t *ip, const kevrc_cap_endpoints &e, const uint8_t *rtp, int32_t length) {
  const int32_t n = kUdp + length;
  store16(udp, e.src_port);
  store16(udp + 2, e.dst_port);
  store16(udp + 4, static_cast<uint16_t>(n));
  store16(udp + 6, 0);
  std::memcpy(udp + kUdp, rtp, static_cast<size_t>(length));
  uint8_t pseudo[12] = {};
  std::memcpy(pseudo, ip + 12, 8);
  pseudo[9] = 17;
  store16(pseudo + 10, static_cast<uint16_t>(n));
  const uint16_t sum = static_cast<uint16_t>(~ones_sum(udp, n, ones_sum(pseudo, 12)));
  store16(udp + 6, sum == 0 ? 0xffff : sum);
}

}  // namespace

extern "C" kevrc_cap_writer *kevrc_cap_writer_open(const char *path, const kevrc_cap_endpoints *endpoints,
                                                   int32_t *err, char *message, int32_t capacity) {
  int32_t status = KEVRC_CAP_ERR_ARG;
  kevrc_cap_writer *w = nullptr;
  if (path != nullptr && endpoints != nullptr) {
    status = KEVRC_CAP_ERR_OPEN;
    pcap_t *dead = pcap_open_dead_with_tstamp_precision(DLT_EN10MB, 65535, PCAP_TSTAMP_PRECISION_MICRO);
    pcap_dumper_t *dumper = dead == nullptr ? nullptr : pcap_dump_open(dead, path);
    if (dumper != nullptr) w = new (std::nothrow) kevrc_cap_writer{dead, dumper, *endpoints, 0};
    if (w != nullptr) {
      status = KEVRC_CAP_OK;
    } else {
      if (message != nullptr && capacity > 0)
        std::snprintf(message, static_cast<size_t>(capacity), "%s", dead ? pcap_geterr(dead) : "out of memory");
      if (dumper != nullptr) pcap_dump_close(dumper);
      if (dead != nullptr) pcap_close(dead);
    }
  }
  if (err != nullptr) *err = status;
  return w;
}

extern "C" int32_t kevrc_cap_write(kevrc_cap_writer *w, int64_t time_us, const uint8_t *rtp, int32_t length) {
  if (w == nullptr || rtp == nullptr || length < 0 || length > kMaxRtp || time_us < 0) return KEVRC_CAP_ERR_ARG;
  uint8_t frame[kEther + 1500];
  const uint8_t macs[12] = {2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1};  // destination, source
  std::memcpy(frame, macs, sizeof macs);
  store16(frame + 12, 0x0800);
  write_ipv4(frame + kEther, w->endpoints, w->ip_id++, kIp + kUdp + length);
  write_udp(frame + kEther + kIp, frame + kEther, w->endpoints, rtp, length);
  pcap_pkthdr header{};
  header.ts.tv_sec = static_cast<time_t>(time_us / 1000000);
  header.ts.tv_usec = static_cast<suseconds_t>(time_us % 1000000);
  header.caplen = header.len = static_cast<bpf_u_int32>(kEther + kIp + kUdp + length);
  pcap_dump(reinterpret_cast<u_char *>(w->dumper), &header, frame);
  return std::ferror(pcap_dump_file(w->dumper)) ? KEVRC_CAP_ERR_WRITE : KEVRC_CAP_OK;
}

extern "C" int32_t kevrc_cap_writer_close(kevrc_cap_writer *w) {
  if (w == nullptr) return KEVRC_CAP_ERR_ARG;
  const bool failed = pcap_dump_flush(w->dumper) != 0 || std::ferror(pcap_dump_file(w->dumper));
  pcap_dump_close(w->dumper);
  pcap_close(w->dead);
  delete w;
  return failed ? KEVRC_CAP_ERR_WRITE : KEVRC_CAP_OK;
}

extern "C" int32_t kevrc_cap_parse_endpoint(const char *text, uint32_t *ip, uint16_t *port) {
  if (text == nullptr || ip == nullptr || port == nullptr) return KEVRC_CAP_ERR_ARG;
  unsigned a, b, c, d, p;
  int used = 0;
  if (std::sscanf(text, "%3u.%3u.%3u.%3u:%5u%n", &a, &b, &c, &d, &p, &used) != 5 || text[used] != '\0' ||
      a > 255 || b > 255 || c > 255 || d > 255 || p > 65535)
    return KEVRC_CAP_ERR_ARG;
  *ip = a << 24 | b << 16 | c << 8 | d;
  *port = static_cast<uint16_t>(p);
  return KEVRC_CAP_OK;
}

extern "C" const char *kevrc_cap_strerror(int32_t status) {
  switch (status) {
    case KEVRC_CAP_OK: return "success";
    case KEVRC_CAP_ERR_ARG: return "bad argument";
    case KEVRC_CAP_ERR_OPEN: return "cannot open the capture";
    case KEVRC_CAP_ERR_LINKTYPE: return "unsupported link type";
    case KEVRC_CAP_ERR_READ: return "capture truncated or corrupt";
    case KEVRC_CAP_ERR_FULL: return "too many streams";
    case KEVRC_CAP_ERR_WRITE: return "cannot write the capture";
    default: return status > 0 ? "success" : "unknown error";
  }
}
