// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Payload tables: the size of each rate's payload, the parsing of a
// header-free payload (rate from the length) and of an interleaved/bundled
// payload (2 header octets, 4-bit table entries padded to octets, payloads
// back to back, length exactly their sum), and the status strings.
#include <initializer_list>

#include "kevrc/kevrc_rtp.h"

namespace {

int32_t parse_header_free(int32_t length, kevrc_rtp_payload_info *info) {
  int32_t rate = -1;
  for (int32_t r : {KEVRC_RTP_RATE_EIGHTH, KEVRC_RTP_RATE_HALF, KEVRC_RTP_RATE_FULL})
    if (kevrc_rtp_payload_bytes(r) == length) rate = r;
  if (rate < 0) return KEVRC_RTP_ERR_PAYLOAD;
  *info = {};
  info->frames = 1;
  info->rates[0] = static_cast<uint8_t>(rate);
  return KEVRC_RTP_OK;
}

int32_t parse_interleaved(const uint8_t *payload, int32_t length, kevrc_rtp_payload_info *info) {
  if (length < 2) return KEVRC_RTP_ERR_PAYLOAD;
  info->interleave_length = (payload[0] >> 3) & 7;
  info->interleave_index = payload[0] & 7;
  info->mode_request = payload[1] >> 5;
  info->frames = (payload[1] & 31) + 1;
  if (info->interleave_index > info->interleave_length) return KEVRC_RTP_ERR_PAYLOAD;
  const int32_t table_bytes = (info->frames + 1) / 2;
  if (length < 2 + table_bytes) return KEVRC_RTP_ERR_PAYLOAD;
  if (info->frames % 2 == 1 && (payload[1 + table_bytes] & 15) != 0) return KEVRC_RTP_ERR_PAYLOAD;
  int32_t offset = 2 + table_bytes;
  for (int32_t i = 0; i < info->frames; ++i) {
    const uint8_t entry = payload[2 + i / 2];
    const int32_t rate = i % 2 == 0 ? entry >> 4 : entry & 15;
    const int32_t bytes = kevrc_rtp_payload_bytes(rate);
    if (bytes < 0) return KEVRC_RTP_ERR_PAYLOAD;
    info->rates[i] = static_cast<uint8_t>(rate);
    info->offsets[i] = offset;
    offset += bytes;
  }
  return offset == length ? KEVRC_RTP_OK : KEVRC_RTP_ERR_PAYLOAD;
}

}  // namespace

extern "C" int32_t kevrc_rtp_payload_bytes(int32_t rate) {
  switch (rate) {
    case KEVRC_RTP_RATE_BLANK: return 0;
    case KEVRC_RTP_RATE_EIGHTH: return 2;
    case KEVRC_RTP_RATE_HALF: return 10;
    case KEVRC_RTP_RATE_FULL: return 22;
    default: return KEVRC_RTP_ERR_PAYLOAD;
  }
}

extern "C" int32_t kevrc_rtp_parse_payload(int32_t format, const uint8_t *payload, int32_t length,
                                           kevrc_rtp_payload_info *info) {
  if (info == nullptr || length < 0 || (payload == nullptr && length > 0)) return KEVRC_RTP_ERR_ARG;
  if (format == KEVRC_RTP_FORMAT_HEADER_FREE) return parse_header_free(length, info);
  if (format == KEVRC_RTP_FORMAT_INTERLEAVED) return parse_interleaved(payload, length, info);
  return KEVRC_RTP_ERR_ARG;
}

extern "C" const char *kevrc_rtp_strerror(int32_t status) {
  switch (status) {
    case KEVRC_RTP_OK: return "success";
    case KEVRC_RTP_ERR_ARG: return "bad argument";
    case KEVRC_RTP_ERR_SHORT: return "packet or buffer too short";
    case KEVRC_RTP_ERR_VERSION: return "not an RTP version 2 packet";
    case KEVRC_RTP_ERR_PAYLOAD: return "invalid payload structure";
    case KEVRC_RTP_ERR_TYPE: return "unexpected payload type";
    case KEVRC_RTP_ERR_JUMP: return "packet beyond the buffered span";
    default: return status > 0 ? "success" : "unknown error";
  }
}
