// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Streaming reader of packet files (RFC 3558 storage format and QCP): format
// detection, header parsing and one record per call, through the caller's
// read callback, in the caller's kevrcf_reader. See kevrc_formats.h.
#include <cstring>

#include "kevrc/kevrc_formats.h"
#include "qcp_layout.h"

using namespace kevrcf;

namespace {

// Reads up to n bytes (fewer only at the end of the input); count or status.
int64_t read_up_to(kevrcf_reader *r, uint8_t *buf, size_t n) {
  size_t got = 0;
  while (got < n) {
    const int64_t k = r->read(r->user, buf + got, n - got);
    if (k < 0) return KEVRCF_ERR_READ;
    if (k == 0) break;
    got += static_cast<size_t>(k);
  }
  return static_cast<int64_t>(got);
}

// Reads and drops up to n bytes; count or status.
int64_t skip(kevrcf_reader *r, uint64_t n) {
  uint8_t scratch[256];
  uint64_t done = 0;
  while (done < n) {
    const uint64_t want = n - done < sizeof scratch ? n - done : sizeof scratch;
    const int64_t k = read_up_to(r, scratch, static_cast<size_t>(want));
    if (k < 0) return k;
    done += static_cast<uint64_t>(k);
    if (static_cast<uint64_t>(k) < want) break;
  }
  return static_cast<int64_t>(done);
}

// Blank (0) and erasures (5, 14) carry no payload in either format; other
// octets are unknown until a rate table names them.
void clear_sizes(kevrcf_reader *r) {
  for (int16_t &s : r->payload_size) s = -1;
  r->payload_size[0] = 0;
  r->payload_size[5] = 0;
  r->payload_size[14] = 0;
}

void set_storage_sizes(kevrcf_reader *r) {
  clear_sizes(r);
  r->payload_size[2] = 5;
  for (const auto &entry : kRateTable) r->payload_size[entry[1]] = entry[0];
}

// The "fmt " chunk body: codec GUID and rate table.
int32_t parse_fmt(kevrcf_reader *r, const uint8_t *f) {
  if (std::memcmp(f + kGuid, kCodecGuid, sizeof kCodecGuid) != 0) return KEVRCF_ERR_CODEC;
  kevrcf_qcp_info &q = r->qcp;
  q.major = f[kMajor];
  q.minor = f[kMinor];
  q.codec_version = get16(f + kCodecVersion);
  std::memcpy(q.name, f + kName, 80);
  q.name[80] = '\0';
  q.average_bps = get16(f + kAverageBps);
  q.packet_size = get16(f + kPacketSize);
  q.block_size = get16(f + kBlockSize);
  q.sample_rate = get16(f + kSampleRate);
  q.sample_size = get16(f + kSampleSize);
  q.rate_count = get32(f + kRateCount);
  std::memcpy(q.rate_table, f + kRateMap, sizeof q.rate_table);
  clear_sizes(r);
  const uint32_t entries = q.rate_count < 8 ? q.rate_count : 8;
  for (uint32_t i = 0; i < entries; ++i) r->payload_size[q.rate_table[i][1]] = q.rate_table[i][0];
  for (const auto &entry : kRateTable)
    if (r->payload_size[entry[1]] != entry[0]) return KEVRCF_ERR_CODEC;
  return KEVRCF_OK;
}

// Reads a chunk body of size bytes of which the first want are kept in buf
// (and the pad byte of an odd chunk is skipped).
int32_t read_chunk(kevrcf_reader *r, uint32_t size, uint8_t *buf, uint32_t want) {
  if (size < want) return KEVRCF_ERR_HEADER;
  const int64_t got = read_up_to(r, buf, want);
  if (got < 0) return static_cast<int32_t>(got);
  if (got < want) return KEVRCF_ERR_HEADER;
  const uint64_t rest = static_cast<uint64_t>(size - want) + (size & 1u);
  const int64_t skipped = skip(r, rest);
  if (skipped < 0) return static_cast<int32_t>(skipped);
  return static_cast<uint64_t>(skipped) == rest ? KEVRCF_OK : KEVRCF_ERR_HEADER;
}

// Walks the chunks up to "data", reading "fmt " and "vrat", skipping others.
int32_t open_qcp(kevrcf_reader *r) {
  bool have_fmt = false;
  for (;;) {
    uint8_t head[kChunkHeadBytes];
    const int64_t got = read_up_to(r, head, sizeof head);
    if (got < 0) return static_cast<int32_t>(got);
    if (got < static_cast<int64_t>(sizeof head)) return KEVRCF_ERR_HEADER;
    const uint32_t size = get32(head + 4);
    int32_t status = KEVRCF_OK;
    if (std::memcmp(head, "data", 4) == 0) {
      if (!have_fmt) return KEVRCF_ERR_HEADER;
      if (r->qcp.variable_rate == 0 && r->qcp.packet_size == 0) return KEVRCF_ERR_HEADER;
      r->qcp.data_bytes = size;
      r->data_left = size;
      return KEVRCF_OK;
    } else if (std::memcmp(head, "fmt ", 4) == 0) {
      uint8_t fmt[kFmtBytes];
      status = read_chunk(r, size, fmt, kFmtBytes);
      if (status == KEVRCF_OK) status = parse_fmt(r, fmt);
      have_fmt = true;
    } else if (std::memcmp(head, "vrat", 4) == 0) {
      uint8_t vrat[kVratBytes];
      status = read_chunk(r, size, vrat, kVratBytes);
      if (status == KEVRCF_OK) {
        r->qcp.variable_rate = get32(vrat) != 0;
        r->qcp.declared_packets = get32(vrat + 4);
      }
    } else {
      status = read_chunk(r, size, nullptr, 0);
    }
    if (status != KEVRCF_OK) return status;
  }
}

// Fills a frame from its rate octet and the payload bytes in p->data[1..].
void classify(kevrcf_reader *r, int32_t octet, int16_t size, kevrcf_packet *p) {
  kevrcf_stats &s = r->stats;
  ++s.frames;
  s.record_bytes += 1u + static_cast<uint16_t>(size);
  p->rate_octet = octet;
  p->data[0] = static_cast<uint8_t>(octet);
  p->size = 1 + size;
  p->kind = KEVRCF_SPEECH;
  if (octet == 1) ++s.eighth;
  else if (octet == 3) ++s.half;
  else if (octet == 4) ++s.full;
  else if (octet == 0) p->kind = KEVRCF_BLANK, ++s.blank, p->size = 0;
  else p->kind = KEVRCF_ERASURE, ++s.erasure, p->size = 0;
}

int32_t truncated(kevrcf_reader *r, kevrcf_packet *p) {
  r->done = 1;
  ++r->stats.frames;
  r->stats.truncated = 1;
  p->kind = KEVRCF_TRUNCATED;
  p->size = 0;
  p->rate_octet = -1;
  return 1;
}

// The readable part ends at an unknown rate octet; the rest is counted.
int32_t unknown(kevrcf_reader *r, int32_t octet, uint64_t consumed, uint64_t limit) {
  r->done = 1;
  r->stats.unknown_octet = octet;
  const int64_t rest = skip(r, limit);
  if (rest < 0) return static_cast<int32_t>(rest);
  r->stats.unread_bytes = consumed + static_cast<uint64_t>(rest);
  return 0;
}

// Reads n payload bytes into p->data[1..] when they fit, otherwise drops them.
int64_t read_payload(kevrcf_reader *r, uint64_t n, kevrcf_packet *p) {
  if (n < KEVRCF_MAX_PACKET_BYTES) return read_up_to(r, p->data + 1, static_cast<size_t>(n));
  return skip(r, n);
}

int32_t next_record(kevrcf_reader *r, kevrcf_packet *p) {
  const bool fixed = r->format == KEVRCF_FORMAT_QCP && r->qcp.variable_rate == 0;
  const uint64_t record = fixed ? r->qcp.packet_size : 0;
  uint8_t octet;
  const int64_t got = read_up_to(r, &octet, 1);
  if (got <= 0) {
    r->done = 1;
    return static_cast<int32_t>(got);
  }
  r->data_left -= 1;
  const int16_t size = r->payload_size[octet];
  if (size < 0 || (fixed && 1u + static_cast<uint16_t>(size) > record))
    return unknown(r, octet, 1, r->data_left);
  const uint64_t want = fixed ? record - 1 : static_cast<uint16_t>(size);
  if (want > r->data_left) {
    const int64_t rest = skip(r, r->data_left);
    return rest < 0 ? static_cast<int32_t>(rest) : truncated(r, p);
  }
  const int64_t body = size > 0 ? read_payload(r, static_cast<uint16_t>(size), p) : 0;
  const int64_t pad = body >= 0 && body == size ? skip(r, want - static_cast<uint16_t>(size)) : 0;
  if (body < 0 || pad < 0) return KEVRCF_ERR_READ;
  if (body < size || static_cast<uint64_t>(pad) < want - static_cast<uint16_t>(size))
    return truncated(r, p);
  r->data_left -= want;
  classify(r, octet, size, p);
  if (fixed) r->stats.record_bytes += want - static_cast<uint16_t>(size);
  return 1;
}

}  // namespace

extern "C" {

int32_t kevrcf_detect(const uint8_t *head, size_t n) {
  if (head == nullptr) return KEVRCF_FORMAT_UNKNOWN;
  if (n >= sizeof kStorageMagic && std::memcmp(head, kStorageMagic, sizeof kStorageMagic) == 0)
    return KEVRCF_FORMAT_STORAGE;
  if (n >= kRiffPrefixBytes && std::memcmp(head, "RIFF", 4) == 0 &&
      std::memcmp(head + 8, "QLCM", 4) == 0)
    return KEVRCF_FORMAT_QCP;
  return KEVRCF_FORMAT_UNKNOWN;
}

const char *kevrcf_format_name(int32_t format) {
  switch (format) {
    case KEVRCF_FORMAT_STORAGE: return "storage";
    case KEVRCF_FORMAT_QCP: return "qcp";
    default: return "unknown";
  }
}

const char *kevrcf_strerror(int32_t status) {
  switch (status) {
    case KEVRCF_OK: return "success";
    case KEVRCF_ERR_ARG: return "bad argument";
    case KEVRCF_ERR_NOT_PACKET: return "not a packet file (neither \"#!EVRC\" nor QCP)";
    case KEVRCF_ERR_HEADER: return "damaged or cut-off QCP header";
    case KEVRCF_ERR_CODEC: return "QCP file of another codec or rate table";
    case KEVRCF_ERR_READ: return "read error";
    default: return "unknown status";
  }
}

int32_t kevrcf_reader_open(kevrcf_reader *r, kevrcf_read_fn read, void *user) {
  if (r == nullptr || read == nullptr) return KEVRCF_ERR_ARG;
  std::memset(r, 0, sizeof *r);
  r->read = read;
  r->user = user;
  r->stats.unknown_octet = -1;
  uint8_t head[KEVRCF_DETECT_BYTES];
  int64_t got = read_up_to(r, head, sizeof kStorageMagic);
  if (got < 0) return static_cast<int32_t>(got);
  if (kevrcf_detect(head, static_cast<size_t>(got)) == KEVRCF_FORMAT_STORAGE) {
    r->format = KEVRCF_FORMAT_STORAGE;
    r->data_left = UINT64_MAX;
    set_storage_sizes(r);
    return KEVRCF_OK;
  }
  const int64_t more = read_up_to(r, head + got, sizeof head - static_cast<size_t>(got));
  if (more < 0) return static_cast<int32_t>(more);
  if (kevrcf_detect(head, static_cast<size_t>(got + more)) != KEVRCF_FORMAT_QCP)
    return KEVRCF_ERR_NOT_PACKET;
  r->format = KEVRCF_FORMAT_QCP;
  return open_qcp(r);
}

int32_t kevrcf_reader_next(kevrcf_reader *r, kevrcf_packet *p) {
  if (r == nullptr || p == nullptr || r->format == KEVRCF_FORMAT_UNKNOWN) return KEVRCF_ERR_ARG;
  if (r->done != 0 || r->data_left == 0) return 0;
  return next_record(r, p);
}

}  // extern "C"
