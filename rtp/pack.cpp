// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Packer: frames in play order (rate code + payload) become RTP packets.
// Frames collect into a group of B * (L + 1) frames (B frames per packet, L
// the interleave length; one frame for header-free). A complete group
// becomes L + 1 packets with consecutive sequence numbers; packet k carries
// frames k, k + L + 1, ... and has the timestamp of frame k. A group of
// blank frames only is not sent (silence suppression between groups); the
// first packet after such a gap has the marker bit. Erasures are sent as
// blank frames. Packets wait in a queue of at most L + 1 until pulled; they
// become sendable B frames apart once the group is complete.
#include <algorithm>
#include <cstring>
#include <new>

#include "kevrc/kevrc_rtp.h"
#include "rtp/rtp_internal.h"

struct kevrc_rtp_packer {
  kevrc_rtp_packer_config config;
  int32_t group_frames;  // B * (L + 1) of a complete group
  int32_t filled;        // frames of the current group pushed so far
  uint8_t rates[KEVRC_RTP_MAX_BUNDLE * (KEVRC_RTP_MAX_INTERLEAVE + 1)];
  uint8_t payloads[KEVRC_RTP_MAX_BUNDLE * (KEVRC_RTP_MAX_INTERLEAVE + 1)][KEVRC_RTP_MAX_PAYLOAD_BYTES];
  int64_t group_start;  // frame index of the group's first frame
  uint16_t sequence;    // of the next packet
  bool marker;          // next packet starts a talkspurt
  uint8_t queue[KEVRC_RTP_MAX_INTERLEAVE + 1][KEVRC_RTP_MAX_PACKET_BYTES];
  int32_t queue_length[KEVRC_RTP_MAX_INTERLEAVE + 1];
  kevrc_rtp_packet_info queue_info[KEVRC_RTP_MAX_INTERLEAVE + 1];
  int32_t queued, next_out;
};

namespace {

bool config_valid(const kevrc_rtp_packer_config &c) {
  if (c.payload_type < 0 || c.payload_type > 127 || c.mode_request < 0 || c.mode_request > 7) return false;
  if (c.format == KEVRC_RTP_FORMAT_HEADER_FREE) return c.frames_per_packet == 1 && c.interleave_length == 0;
  return c.format == KEVRC_RTP_FORMAT_INTERLEAVED && c.frames_per_packet >= 1 &&
         c.frames_per_packet <= KEVRC_RTP_MAX_BUNDLE && c.interleave_length >= 0 &&
         c.interleave_length <= KEVRC_RTP_MAX_INTERLEAVE;
}

// Writes packet k of the current group carrying frames k, k + stride, ...
// (per frames each) into the queue.
void queue_packet(kevrc_rtp_packer *p, int32_t k, int32_t per, int32_t stride) {
  uint8_t *out = p->queue[p->queued];
  kevrc_rtp_header h{};
  h.marker = p->marker && k == 0;
  h.payload_type = static_cast<uint8_t>(p->config.payload_type);
  h.sequence = p->sequence++;
  h.timestamp = p->config.first_timestamp + static_cast<uint32_t>((p->group_start + k) * KEVRC_RTP_FRAME_TICKS);
  h.ssrc = p->config.ssrc;
  int32_t n = kevrc_rtp_write_header(&h, out, KEVRC_RTP_MAX_PACKET_BYTES);
  if (p->config.format == KEVRC_RTP_FORMAT_INTERLEAVED) {
    out[n++] = static_cast<uint8_t>(p->config.interleave_length << 3 | k);
    out[n++] = static_cast<uint8_t>(p->config.mode_request << 5 | (per - 1));
    const int32_t table = (per + 1) / 2;
    std::memset(out + n, 0, static_cast<size_t>(table));
    for (int32_t j = 0; j < per; ++j)
      out[n + j / 2] |= static_cast<uint8_t>(p->rates[k + j * stride] << (j % 2 == 0 ? 4 : 0));
    n += table;
  }
  for (int32_t j = 0; j < per; ++j) {
    const int32_t f = k + j * stride;
    const int32_t bytes = kevrc_rtp_payload_bytes(p->rates[f]);
    std::memcpy(out + n, p->payloads[f], static_cast<size_t>(bytes));
    n += bytes;
  }
  p->queue_length[p->queued] = n;
  p->queue_info[p->queued] = {h.sequence, h.timestamp, per, 0};
  ++p->queued;
}

// Turns the frames pushed so far into packets of per frames each, padding
// the group with blank frames; a group without a sent frame only advances
// the timestamp.
void send_group(kevrc_rtp_packer *p, int32_t per) {
  const int32_t stride = p->config.interleave_length + 1;
  const int32_t total = per * stride;
  std::fill(p->rates + p->filled, p->rates + total, uint8_t{KEVRC_RTP_RATE_BLANK});
  const bool silent = std::all_of(p->rates, p->rates + total, [](uint8_t r) { return r == 0; });
  if (silent) {
    p->marker = true;
  } else {
    p->queued = p->next_out = 0;
    for (int32_t k = 0; k < stride; ++k) {
      queue_packet(p, k, per, stride);
      p->queue_info[k].send_frame = p->group_start + total + int64_t{k} * per;
    }
    p->marker = false;
  }
  p->group_start += total;
  p->filled = 0;
}

}  // namespace

extern "C" kevrc_rtp_packer *kevrc_rtp_packer_create(const kevrc_rtp_packer_config *config, int32_t *err) {
  int32_t status = KEVRC_RTP_OK;
  kevrc_rtp_packer *p = nullptr;
  if (config == nullptr || !config_valid(*config)) {
    status = KEVRC_RTP_ERR_ARG;
  } else {
    p = new (std::nothrow) kevrc_rtp_packer{};
    if (p == nullptr) {
      status = KEVRC_RTP_ERR_ARG;
    } else {
      p->config = *config;
      p->group_frames = config->frames_per_packet * (config->interleave_length + 1);
      p->sequence = config->first_sequence;
      p->marker = true;
    }
  }
  if (err != nullptr) *err = status;
  return p;
}

extern "C" void kevrc_rtp_packer_delete(kevrc_rtp_packer *packer) { delete packer; }

extern "C" int32_t kevrc_rtp_packer_push(kevrc_rtp_packer *p, int32_t rate, const uint8_t *payload,
                                         int32_t bytes) {
  if (p == nullptr) return KEVRC_RTP_ERR_ARG;
  if (rate == KEVRC_RTP_RATE_ERASURE) rate = KEVRC_RTP_RATE_BLANK, bytes = 0;
  if (kevrc_rtp_payload_bytes(rate) != bytes || (bytes > 0 && payload == nullptr)) return KEVRC_RTP_ERR_ARG;
  if (p->next_out < p->queued) return KEVRC_RTP_ERR_SHORT;
  p->rates[p->filled] = static_cast<uint8_t>(rate);
  if (bytes > 0) std::memcpy(p->payloads[p->filled], payload, static_cast<size_t>(bytes));
  if (++p->filled == p->group_frames) send_group(p, p->config.frames_per_packet);
  return KEVRC_RTP_OK;
}

extern "C" int32_t kevrc_rtp_packer_finish(kevrc_rtp_packer *p) {
  if (p == nullptr) return KEVRC_RTP_ERR_ARG;
  if (p->next_out < p->queued) return KEVRC_RTP_ERR_SHORT;
  if (p->filled == 0) return KEVRC_RTP_OK;
  const int32_t stride = p->config.interleave_length + 1;
  send_group(p, (p->filled + stride - 1) / stride);
  return KEVRC_RTP_OK;
}

extern "C" int32_t kevrc_rtp_packer_pull(kevrc_rtp_packer *p, uint8_t *out, int32_t capacity,
                                         kevrc_rtp_packet_info *info) {
  if (p == nullptr || out == nullptr) return KEVRC_RTP_ERR_ARG;
  if (p->next_out == p->queued) return 0;
  const int32_t n = p->queue_length[p->next_out];
  if (capacity < n) return KEVRC_RTP_ERR_SHORT;
  std::memcpy(out, p->queue[p->next_out], static_cast<size_t>(n));
  if (info != nullptr) *info = p->queue_info[p->next_out];
  ++p->next_out;
  return n;
}
