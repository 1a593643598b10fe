// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Packet-file writer: the storage-format magic or the QCP header (RIFF
// "QLCM", 150-byte "fmt ", "vrat", "data" chunk head), one record per call,
// and the QCP pad byte, into caller-provided buffers. See kevrc_formats.h.
#include <cstring>

#include "kevrc/kevrc_formats.h"
#include "qcp_layout.h"

using namespace kevrcf;

namespace {

bool speech_record(int32_t octet, size_t payload_size) {
  for (const auto &entry : kRateTable)
    if (octet == entry[1]) return payload_size == entry[0];
  return false;
}

uint32_t size_or_unknown(bool final_sizes, uint64_t value) {
  return final_sizes && value < kUnknownSize ? static_cast<uint32_t>(value) : kUnknownSize;
}

// The 150-byte "fmt " chunk body; average_bps is that of the stored records.
void put_fmt(uint8_t *f, uint32_t average_bps) {
  std::memset(f, 0, kFmtBytes);
  f[kMajor] = 1;
  f[kMinor] = 0;
  std::memcpy(f + kGuid, kCodecGuid, sizeof kCodecGuid);
  put16(f + kCodecVersion, 1);
  std::memcpy(f + kName, kCodecName, sizeof kCodecName - 1);
  put16(f + kAverageBps, average_bps);
  put16(f + kPacketSize, KEVRCF_MAX_PACKET_BYTES);
  put16(f + kBlockSize, 160);
  put16(f + kSampleRate, 8000);
  put16(f + kSampleSize, 16);
  put32(f + kRateCount, 3);
  for (size_t i = 0; i < 3; ++i) {
    f[kRateMap + 2 * i] = kRateTable[i][0];
    f[kRateMap + 2 * i + 1] = kRateTable[i][1];
  }
}

int32_t put_qcp_header(const kevrcf_writer *w, bool final_sizes, uint8_t *out) {
  const uint64_t pad = w->data_bytes & 1u;
  const uint32_t data = size_or_unknown(final_sizes, w->data_bytes);
  const uint32_t riff = size_or_unknown(final_sizes, kQcpHeaderBytes - 8 + w->data_bytes + pad);
  const uint32_t bps = final_sizes && w->packets > 0
                           ? static_cast<uint32_t>(w->data_bytes * 8 * kFramesPerSecond / w->packets)
                           : 0;
  uint8_t *p = out;
  std::memcpy(p, "RIFF", 4);
  put32(p + 4, riff);
  std::memcpy(p + 8, "QLCM", 4);
  p += kRiffPrefixBytes;
  std::memcpy(p, "fmt ", 4);
  put32(p + 4, kFmtBytes);
  put_fmt(p + kChunkHeadBytes, bps);
  p += kChunkHeadBytes + kFmtBytes;
  std::memcpy(p, "vrat", 4);
  put32(p + 4, kVratBytes);
  put32(p + 8, 1);
  put32(p + 12, size_or_unknown(final_sizes, w->packets));
  p += kChunkHeadBytes + kVratBytes;
  std::memcpy(p, "data", 4);
  put32(p + 4, data);
  return static_cast<int32_t>(kQcpHeaderBytes);
}

}  // namespace

extern "C" {

int32_t kevrcf_writer_init(kevrcf_writer *w, int32_t format) {
  if (w == nullptr || (format != KEVRCF_FORMAT_STORAGE && format != KEVRCF_FORMAT_QCP))
    return KEVRCF_ERR_ARG;
  *w = kevrcf_writer{format, 0, 0};
  return KEVRCF_OK;
}

int32_t kevrcf_writer_header(const kevrcf_writer *w, int32_t final_sizes, uint8_t *out, size_t cap) {
  if (w == nullptr || out == nullptr || cap < KEVRCF_MAX_HEADER_BYTES) return KEVRCF_ERR_ARG;
  if (w->format == KEVRCF_FORMAT_QCP) return put_qcp_header(w, final_sizes != 0, out);
  std::memcpy(out, kStorageMagic, sizeof kStorageMagic);
  return sizeof kStorageMagic;
}

int32_t kevrcf_writer_packet(kevrcf_writer *w, int32_t octet, const uint8_t *payload,
                             size_t payload_size, uint8_t *out, size_t cap) {
  if (w == nullptr || payload == nullptr || out == nullptr || cap < KEVRCF_MAX_PACKET_BYTES ||
      !speech_record(octet, payload_size))
    return KEVRCF_ERR_ARG;
  out[0] = static_cast<uint8_t>(octet);
  std::memcpy(out + 1, payload, payload_size);
  ++w->packets;
  w->data_bytes += 1 + payload_size;
  return static_cast<int32_t>(1 + payload_size);
}

int32_t kevrcf_writer_trailer(const kevrcf_writer *w, int32_t final_sizes, uint8_t *out, size_t cap) {
  if (w == nullptr || out == nullptr || cap < 1) return KEVRCF_ERR_ARG;
  if (w->format != KEVRCF_FORMAT_QCP || final_sizes == 0 || (w->data_bytes & 1u) == 0) return 0;
  out[0] = 0;
  return 1;
}

}  // extern "C"
