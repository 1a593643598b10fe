// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// RTP fixed header (RFC 3550): parsing of version, padding, extension,
// CSRC list, marker, payload type, sequence number, timestamp and SSRC, and
// writing of a header without extension or padding. Multi-octet fields are
// big-endian on the wire.
#include "kevrc/kevrc_rtp.h"
#include "rtp/rtp_internal.h"

using kevrc::rtp::load16;
using kevrc::rtp::load32;
using kevrc::rtp::store16;
using kevrc::rtp::store32;

extern "C" int32_t kevrc_rtp_parse_header(const uint8_t *packet, int32_t length,
                                          kevrc_rtp_header *header) {
  if (packet == nullptr || header == nullptr || length < 0) return KEVRC_RTP_ERR_ARG;
  if (length < KEVRC_RTP_HEADER_BYTES) return KEVRC_RTP_ERR_SHORT;
  if ((packet[0] >> 6) != 2) return KEVRC_RTP_ERR_VERSION;
  header->padding = (packet[0] >> 5) & 1;
  header->extension = (packet[0] >> 4) & 1;
  header->csrc_count = packet[0] & 15;
  header->marker = packet[1] >> 7;
  header->payload_type = packet[1] & 127;
  header->sequence = load16(packet + 2);
  header->timestamp = load32(packet + 4);
  header->ssrc = load32(packet + 8);
  int32_t offset = KEVRC_RTP_HEADER_BYTES + 4 * header->csrc_count;
  if (offset > length) return KEVRC_RTP_ERR_SHORT;
  for (int i = 0; i < header->csrc_count; ++i) header->csrc[i] = load32(packet + 12 + 4 * i);
  header->extension_profile = 0;
  if (header->extension) {
    if (offset + 4 > length) return KEVRC_RTP_ERR_SHORT;
    header->extension_profile = load16(packet + offset);
    offset += 4 + 4 * int32_t{load16(packet + offset + 2)};
    if (offset > length) return KEVRC_RTP_ERR_SHORT;
  }
  int32_t end = length;
  if (header->padding) {
    const int32_t pad = packet[length - 1];
    if (pad == 0 || offset + pad > length) return KEVRC_RTP_ERR_SHORT;
    end -= pad;
  }
  header->payload_offset = offset;
  header->payload_length = end - offset;
  return KEVRC_RTP_OK;
}

extern "C" int32_t kevrc_rtp_write_header(const kevrc_rtp_header *header, uint8_t *out,
                                          int32_t capacity) {
  if (header == nullptr || out == nullptr || header->csrc_count > 15 || header->payload_type > 127)
    return KEVRC_RTP_ERR_ARG;
  const int32_t bytes = KEVRC_RTP_HEADER_BYTES + 4 * header->csrc_count;
  if (capacity < bytes) return KEVRC_RTP_ERR_SHORT;
  out[0] = static_cast<uint8_t>(0x80 | header->csrc_count);
  out[1] = static_cast<uint8_t>((header->marker ? 0x80 : 0) | header->payload_type);
  store16(out + 2, header->sequence);
  store32(out + 4, header->timestamp);
  store32(out + 8, header->ssrc);
  for (int i = 0; i < header->csrc_count; ++i) store32(out + 12 + 4 * i, header->csrc[i]);
  return bytes;
}
