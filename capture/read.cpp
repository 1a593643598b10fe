// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Capture reader: libpcap's offline reader yields link-layer records; each
// is unwrapped down to a UDP payload: the link header (Ethernet with up to
// two VLAN tags, Linux cooked v1/v2, raw IP, BSD loopback), the IPv4 header
// (version, header length, total length within the captured bytes, no
// fragment) and the UDP header (length within the datagram). Records that
// stop on the way are counted by reason and skipped.
#include <pcap/pcap.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "kevrc/kevrc_capture.h"
#include "rtp/rtp_internal.h"

using kevrc::rtp::load16;
using kevrc::rtp::load32;

struct kevrc_cap_reader {
  pcap_t *pcap;
  int link;
  kevrc_cap_counters counters;
  std::string error;
};

namespace {

constexpr uint16_t kEtherIpv4 = 0x0800;
constexpr int kAfInet = 2;

void set_message(char *message, int32_t capacity, const char *text) {
  if (message != nullptr && capacity > 0) std::snprintf(message, static_cast<size_t>(capacity), "%s", text);
}

bool link_supported(int link) {
  return link == DLT_EN10MB || link == DLT_LINUX_SLL || link == DLT_LINUX_SLL2 || link == DLT_RAW ||
         link == DLT_IPV4 || link == DLT_NULL || link == DLT_LOOP;
}

// Offset of the IPv4 header in a record of the link type, 0 when the record
// carries something else, -1 when it is too short for its link header.
int32_t ipv4_offset(int link, const uint8_t *data, int32_t length) {
  switch (link) {
    case DLT_EN10MB: {
      int32_t type_at = 12;
      for (int tags = 0; tags < 3; ++tags) {
        if (length < type_at + 2) return -1;
        const uint16_t type = load16(data + type_at);
        if (type == kEtherIpv4) return type_at + 2;
        if (type != 0x8100 && type != 0x88a8) return 0;
        type_at += 4;
      }
      return 0;
    }
    case DLT_LINUX_SLL:
      if (length < 16) return -1;
      return load16(data + 14) == kEtherIpv4 ? 16 : 0;
    case DLT_LINUX_SLL2:
      if (length < 20) return -1;
      return load16(data) == kEtherIpv4 ? 20 : 0;
    case DLT_NULL:
    case DLT_LOOP: {
      if (length < 4) return -1;
      const uint32_t family = load32(data);
      return family == kAfInet || family == uint32_t{kAfInet} << 24 ? 4 : 0;
    }
    default:  // raw IP: the version nibble tells
      if (length < 1) return -1;
      return (data[0] >> 4) == 4 ? 0 : -2;
  }
}

// Unwraps one record; returns true with *udp filled when it holds a UDP
// datagram, else counts why not.
bool unwrap(kevrc_cap_reader *r, const uint8_t *data, int32_t length, kevrc_cap_udp *udp) {
  kevrc_cap_counters &c = r->counters;
  const int32_t at = ipv4_offset(r->link, data, length);
  const bool raw = r->link == DLT_RAW || r->link == DLT_IPV4;
  if (at == -1) return ++c.truncated, false;
  if (at == -2 || (at == 0 && !raw)) return ++c.non_ipv4, false;
  const uint8_t *ip = data + at;
  const int32_t avail = length - at;
  if (avail < 20) return ++c.truncated, false;
  if ((ip[0] >> 4) != 4) return ++c.non_ipv4, false;
  const int32_t header = (ip[0] & 15) * 4;
  const int32_t total = load16(ip + 2);
  if (header < 20 || total < header || total > avail) return ++c.truncated, false;
  if ((load16(ip + 6) & 0x3fff) != 0) return ++c.fragments, false;
  if (ip[9] != 17) return ++c.not_udp, false;
  const uint8_t *u = ip + header;
  if (total - header < 8) return ++c.truncated, false;
  const int32_t udp_length = load16(u + 4);
  if (udp_length < 8 || udp_length > total - header) return ++c.truncated, false;
  udp->src_ip = load32(ip + 12);
  udp->dst_ip = load32(ip + 16);
  udp->src_port = load16(u);
  udp->dst_port = load16(u + 2);
  udp->payload = u + 8;
  udp->length = udp_length - 8;
  ++c.udp;
  return true;
}

kevrc_cap_reader *wrap(pcap_t *pcap, const char *pcap_error, int32_t *err, char *message, int32_t capacity) {
  int32_t status = KEVRC_CAP_OK;
  kevrc_cap_reader *r = nullptr;
  if (pcap == nullptr) {
    status = KEVRC_CAP_ERR_OPEN;
    set_message(message, capacity, pcap_error);
  } else if (!link_supported(pcap_datalink(pcap))) {
    status = KEVRC_CAP_ERR_LINKTYPE;
    const char *name = pcap_datalink_val_to_name(pcap_datalink(pcap));
    set_message(message, capacity, (std::string("unsupported link type ") + (name ? name : "?")).c_str());
    pcap_close(pcap);
  } else {
    r = new (std::nothrow) kevrc_cap_reader{pcap, pcap_datalink(pcap), {}, {}};
    if (r == nullptr) {
      status = KEVRC_CAP_ERR_OPEN;
      set_message(message, capacity, "out of memory");
      pcap_close(pcap);
    }
  }
  if (err != nullptr) *err = status;
  return r;
}

}  // namespace

extern "C" kevrc_cap_reader *kevrc_cap_open(const char *path, int32_t *err, char *message, int32_t capacity) {
  if (path == nullptr) {
    if (err != nullptr) *err = KEVRC_CAP_ERR_ARG;
    return nullptr;
  }
  char pcap_error[PCAP_ERRBUF_SIZE] = "";
  pcap_t *pcap = pcap_open_offline_with_tstamp_precision(path, PCAP_TSTAMP_PRECISION_MICRO, pcap_error);
  return wrap(pcap, pcap_error, err, message, capacity);
}

extern "C" kevrc_cap_reader *kevrc_cap_open_file(FILE *file, int32_t *err, char *message, int32_t capacity) {
  if (file == nullptr) {
    if (err != nullptr) *err = KEVRC_CAP_ERR_ARG;
    return nullptr;
  }
  char pcap_error[PCAP_ERRBUF_SIZE] = "";
  pcap_t *pcap = pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_MICRO, pcap_error);
  if (pcap == nullptr) std::fclose(file);
  return wrap(pcap, pcap_error, err, message, capacity);
}

extern "C" void kevrc_cap_close(kevrc_cap_reader *reader) {
  if (reader == nullptr) return;
  pcap_close(reader->pcap);
  delete reader;
}

extern "C" int32_t kevrc_cap_next(kevrc_cap_reader *r, kevrc_cap_udp *udp) {
  if (r == nullptr || udp == nullptr) return KEVRC_CAP_ERR_ARG;
  for (;;) {
    pcap_pkthdr *header = nullptr;
    const u_char *data = nullptr;
    const int status = pcap_next_ex(r->pcap, &header, &data);
    if (status == PCAP_ERROR_BREAK) return 0;
    if (status != 1) {
      r->error = pcap_geterr(r->pcap);
      return KEVRC_CAP_ERR_READ;
    }
    ++r->counters.records;
    if (header->caplen < header->len) ++r->counters.truncated;
    udp->time_us = int64_t{header->ts.tv_sec} * 1000000 + header->ts.tv_usec;
    if (header->caplen >= header->len && unwrap(r, data, static_cast<int32_t>(header->caplen), udp)) return 1;
  }
}

extern "C" void kevrc_cap_reader_counters(const kevrc_cap_reader *reader, kevrc_cap_counters *counters) {
  if (reader != nullptr && counters != nullptr) *counters = reader->counters;
}

extern "C" const char *kevrc_cap_reader_error(const kevrc_cap_reader *reader) {
  return reader == nullptr ? "" : reader->error.c_str();
}
