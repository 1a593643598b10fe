// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Stream table: RTP packets filed by SSRC and UDP 5-tuple. Per stream,
// sequence numbers are extended to 64 bits against the newest one (loss =
// expected - distinct received; a bit per sequence number finds duplicates,
// cleared half a cycle behind the newest), timestamps likewise (a jump of
// more than a minute is counted as wild and left out of the duration), and
// each payload is tried as an interleaved/bundled payload and as a
// header-free frame. A stream is this codec's when at least 95 % of its
// packets (and at least two) are valid in one format.
#include <algorithm>
#include <bitset>
#include <memory>
#include <new>

#include "kevrc/kevrc_capture.h"
#include "kevrc/kevrc_rtp.h"
#include "rtp/rtp_internal.h"

struct kevrc_cap_streams {
  int32_t count;
  kevrc_cap_stream streams[KEVRC_CAP_MAX_STREAMS];
  std::unique_ptr<std::bitset<65536>> seen[KEVRC_CAP_MAX_STREAMS];  // made with the stream
};

namespace {

using kevrc::rtp::seq_distance;
using kevrc::rtp::ts_distance;

constexpr int64_t kWildTicks = 60 * KEVRC_RTP_CLOCK_RATE;

int32_t find_or_add(kevrc_cap_streams *t, const kevrc_cap_udp &u, const kevrc_rtp_header &h) {
  for (int32_t i = 0; i < t->count; ++i) {
    const kevrc_cap_stream &s = t->streams[i];
    if (s.ssrc == h.ssrc && s.src_ip == u.src_ip && s.dst_ip == u.dst_ip && s.src_port == u.src_port &&
        s.dst_port == u.dst_port)
      return i;
  }
  if (t->count == KEVRC_CAP_MAX_STREAMS) return KEVRC_CAP_ERR_FULL;
  t->seen[t->count].reset(new (std::nothrow) std::bitset<65536>());
  if (!t->seen[t->count]) return KEVRC_CAP_ERR_FULL;
  kevrc_cap_stream &s = t->streams[t->count];
  s = {};
  s.ssrc = h.ssrc;
  s.src_ip = u.src_ip;
  s.dst_ip = u.dst_ip;
  s.src_port = u.src_port;
  s.dst_port = u.dst_port;
  s.payload_type = h.payload_type;
  s.format = -1;
  s.first_time_us = u.time_us;
  s.seq_highest = s.seq_lowest = h.sequence;
  s.ts_highest = s.ts_lowest = s.ts_end = h.timestamp;
  return t->count++;
}

// Sequence number bookkeeping; returns false for a duplicate.
bool note_sequence(kevrc_cap_stream &s, std::bitset<65536> &seen, uint16_t seq) {
  const int64_t ext = s.seq_highest + seq_distance(static_cast<uint16_t>(s.seq_highest), seq);
  for (int64_t q = s.seq_highest + 1; q <= ext; ++q) seen.reset(static_cast<uint16_t>(q + 32768));
  if (seen.test(seq)) return ++s.duplicates, false;
  seen.set(seq);
  if (ext < s.seq_highest) ++s.reordered;
  s.seq_highest = std::max(s.seq_highest, ext);
  s.seq_lowest = std::min(s.seq_lowest, ext);
  return true;
}

// Timestamp extents; span_frames is how far the packet's frames reach.
void note_timestamp(kevrc_cap_stream &s, uint32_t ts, int32_t span_frames) {
  const int64_t d = ts_distance(static_cast<uint32_t>(s.ts_highest), ts);
  if (d > kWildTicks || d < -kWildTicks) {
    ++s.wild_timestamps;
    return;
  }
  const int64_t ext = s.ts_highest + d;
  s.ts_highest = std::max(s.ts_highest, ext);
  s.ts_lowest = std::min(s.ts_lowest, ext);
  s.ts_end = std::max(s.ts_end, ext + int64_t{span_frames} * KEVRC_RTP_FRAME_TICKS);
}

}  // namespace

extern "C" kevrc_cap_streams *kevrc_cap_streams_create(int32_t *err) {
  kevrc_cap_streams *t = new (std::nothrow) kevrc_cap_streams{};
  if (err != nullptr) *err = t == nullptr ? KEVRC_CAP_ERR_ARG : KEVRC_CAP_OK;
  return t;
}

extern "C" void kevrc_cap_streams_delete(kevrc_cap_streams *streams) { delete streams; }

extern "C" int32_t kevrc_cap_streams_add(kevrc_cap_streams *t, const kevrc_cap_udp *u) {
  if (t == nullptr || u == nullptr || (u->payload == nullptr && u->length > 0)) return KEVRC_CAP_ERR_ARG;
  kevrc_rtp_header h;
  if (kevrc_rtp_parse_header(u->payload, u->length, &h) != KEVRC_RTP_OK) return KEVRC_CAP_ERR_ARG;
  const int32_t i = find_or_add(t, *u, h);
  if (i < 0) return i;
  kevrc_cap_stream &s = t->streams[i];
  s.last_time_us = u->time_us;
  if (h.payload_type != s.payload_type) ++s.mixed_types;
  if (!note_sequence(s, *t->seen[i], h.sequence)) return i;
  ++s.packets;
  const uint8_t *payload = u->payload + h.payload_offset;
  kevrc_rtp_payload_info info;
  int32_t span = 1;
  if (kevrc_rtp_parse_payload(KEVRC_RTP_FORMAT_INTERLEAVED, payload, h.payload_length, &info) == KEVRC_RTP_OK) {
    ++s.valid_interleaved;
    span = (info.frames - 1) * (info.interleave_length + 1) + 1;
  }
  if (kevrc_rtp_parse_payload(KEVRC_RTP_FORMAT_HEADER_FREE, payload, h.payload_length, &info) == KEVRC_RTP_OK)
    ++s.valid_header_free;
  note_timestamp(s, h.timestamp, span);
  return i;
}

extern "C" int32_t kevrc_cap_streams_count(const kevrc_cap_streams *t) { return t == nullptr ? 0 : t->count; }

extern "C" int32_t kevrc_cap_streams_get(const kevrc_cap_streams *t, int32_t i, int32_t payload_type,
                                         kevrc_cap_stream *stream) {
  if (t == nullptr || stream == nullptr || i < 0 || i >= t->count || payload_type < -1 || payload_type > 127)
    return KEVRC_CAP_ERR_ARG;
  *stream = t->streams[i];
  kevrc_cap_stream &s = *stream;
  s.lost = std::max<int64_t>(0, s.seq_highest - s.seq_lowest + 1 - s.packets);
  s.frames = (s.ts_end - s.ts_lowest) / KEVRC_RTP_FRAME_TICKS;
  const int64_t best = std::max(s.valid_interleaved, s.valid_header_free);
  const bool by_type = payload_type >= 0 && s.payload_type == payload_type && best > 0;
  const bool by_structure = payload_type < 0 && s.packets >= 2 && s.mixed_types == 0 && best * 100 >= s.packets * 95;
  s.format = -1;
  if (by_type || by_structure)
    s.format = s.valid_interleaved >= s.valid_header_free ? KEVRC_RTP_FORMAT_INTERLEAVED : KEVRC_RTP_FORMAT_HEADER_FREE;
  return KEVRC_CAP_OK;
}
