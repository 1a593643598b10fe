// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Depacketizer: RTP packets in any order become frames in play order.
//
// A ring of kRing frame slots starts at the play position (the timestamp of
// the next frame to yield). Each packet belongs to a group: for interleaved
// payloads the B * (L + 1) frames starting at timestamp - NNN * 160, whose
// packets have sequence numbers seq - NNN .. seq - NNN + L; otherwise the
// packet's own frames. A packet fills its frames' slots and marks the rest of
// its group as expected. The frame at the play position is yielded when it
// is filled, or once a frame `window` slots later is filled (or on drain);
// the first frame always waits for the window to fill (the initial playout
// delay, so that packets overtaking the first one still play):
//  - a filled slot yields its frame;
//  - an expected slot (its packet never came) yields an erasure;
//  - an unknown slot lies between groups: blank (suppressed silence) when no
//    sequence number is missing between the group before and the group
//    after, else an erasure.
// Sequence numbers are extended to 64 bits to count loss, duplicates (a bit
// per sequence number, cleared half a cycle behind the newest) and
// reordering; timestamps are compared by their wrapping distance. A packet
// beyond the ring restarts play at its group (a resync) once nothing is
// pending.
#include <algorithm>
#include <bitset>
#include <cstring>
#include <new>

#include "kevrc/kevrc_rtp.h"
#include "rtp/rtp_internal.h"

namespace {

constexpr int64_t kRing = 4096;  // frames buffered: the window plus long silence gaps
enum SlotState : uint8_t { kUnknown, kExpected, kFilled };

struct Slot {
  uint8_t state, rate, mode;
  uint16_t seq_first, seq_last;  // sequence numbers of the slot's group
  uint8_t payload[KEVRC_RTP_MAX_PAYLOAD_BYTES];
};

}  // namespace

struct kevrc_rtp_depacketizer {
  kevrc_rtp_depacketizer_config config;
  kevrc_rtp_counters counters;
  Slot ring[kRing];
  bool started, yielded;
  uint32_t play_ts;       // timestamp of the frame at play_index
  int64_t play_index;     // slot counter of the play position
  int64_t newest_index;   // newest known slot, < play_index when none is pending
  int64_t newest_filled;  // newest slot holding a frame
  bool have_last;         // a known slot has been yielded
  uint16_t last_seq_last; // its group's last sequence number
  int64_t gap_left;       // unknown slots left in the current gap
  int32_t gap_rate;       // what they yield
  int64_t seq_highest, seq_lowest;
  std::bitset<65536> seen;
};

namespace {

using kevrc::rtp::frame_distance;
using kevrc::rtp::seq_distance;

Slot &slot_at(kevrc_rtp_depacketizer *d, int64_t index) {
  return d->ring[static_cast<uint64_t>(index) & (kRing - 1)];
}

bool pending(const kevrc_rtp_depacketizer *d) { return d->newest_index >= d->play_index; }

// Extends seq against the newest sequence number and tracks the seen bits.
int64_t extend_sequence(kevrc_rtp_depacketizer *d, uint16_t seq) {
  if (d->counters.received == 0) return d->seq_highest = d->seq_lowest = seq;
  const int64_t ext = d->seq_highest + seq_distance(static_cast<uint16_t>(d->seq_highest), seq);
  for (int64_t s = d->seq_highest + 1; s <= ext; ++s) d->seen.reset(static_cast<uint16_t>(s + 32768));
  d->seq_highest = std::max(d->seq_highest, ext);
  d->seq_lowest = std::min(d->seq_lowest, ext);
  return ext;
}

struct Group {
  uint32_t base_ts;    // timestamp of the group's first frame
  int32_t stride;      // L + 1
  int32_t index;       // NNN
  int32_t span;        // frames in the group
  uint16_t seq_first;  // sequence number of packet NNN = 0
};

Group group_of(const kevrc_rtp_header &h, const kevrc_rtp_payload_info &p) {
  const int32_t stride = p.interleave_length + 1;
  return {h.timestamp - static_cast<uint32_t>(p.interleave_index * KEVRC_RTP_FRAME_TICKS), stride,
          p.interleave_index, p.frames * stride, static_cast<uint16_t>(h.sequence - p.interleave_index)};
}

// Moves the play position to ts: a fresh start, a resync, or (before the
// first frame is yielded) back to a packet that overtook the first one.
void move_play(kevrc_rtp_depacketizer *d, uint32_t ts) {
  d->play_index += frame_distance(d->play_ts, ts);
  d->play_ts = ts;
  d->gap_left = 0;
}

// Writes the packet's frames and its group's expected slots; returns true
// when some of its frames had already been played.
bool place_frames(kevrc_rtp_depacketizer *d, const Group &g, const kevrc_rtp_payload_info &p,
                  const uint8_t *payload) {
  const int64_t base = d->play_index + frame_distance(d->play_ts, g.base_ts);
  bool late = false;
  for (int32_t i = 0; i < g.span; ++i) {
    const int64_t index = base + i;
    const bool own = i % g.stride == g.index;
    if (index < d->play_index) {
      late = late || own;
      continue;
    }
    Slot &s = slot_at(d, index);
    if (s.state == kFilled || (!own && s.state == kExpected)) continue;
    s.seq_first = g.seq_first;
    s.seq_last = static_cast<uint16_t>(g.seq_first + g.stride - 1);
    s.state = kExpected;
    if (own) {
      const int32_t j = i / g.stride;
      s.state = kFilled;
      s.rate = p.rates[j];
      s.mode = static_cast<uint8_t>(p.mode_request);
      std::memcpy(s.payload, payload + p.offsets[j], static_cast<size_t>(kevrc_rtp_payload_bytes(s.rate)));
      d->newest_filled = std::max(d->newest_filled, index);
    }
    d->newest_index = std::max(d->newest_index, index);
  }
  return late;
}

int32_t reject(kevrc_rtp_depacketizer *d, int32_t status) {
  ++d->counters.invalid;
  return status;
}

// What an unknown slot at the play position yields: looks ahead to the next
// known slot and compares its group's first sequence number with the last
// one yielded.
void open_gap(kevrc_rtp_depacketizer *d) {
  int64_t next = d->play_index + 1;
  while (next < d->newest_index && slot_at(d, next).state == kUnknown) ++next;
  d->gap_left = next - d->play_index;
  const bool contiguous = d->have_last && seq_distance(d->last_seq_last, slot_at(d, next).seq_first) == 1;
  d->gap_rate = contiguous ? KEVRC_RTP_RATE_BLANK : KEVRC_RTP_RATE_ERASURE;
}

}  // namespace

extern "C" kevrc_rtp_depacketizer *kevrc_rtp_depacketizer_create(const kevrc_rtp_depacketizer_config *config,
                                                                 int32_t *err) {
  int32_t status = KEVRC_RTP_OK;
  kevrc_rtp_depacketizer *d = nullptr;
  if (config == nullptr || config->window < 1 || config->window > KEVRC_RTP_MAX_WINDOW ||
      config->payload_type < -1 || config->payload_type > 127 ||
      (config->format != KEVRC_RTP_FORMAT_HEADER_FREE && config->format != KEVRC_RTP_FORMAT_INTERLEAVED)) {
    status = KEVRC_RTP_ERR_ARG;
  } else {
    d = new (std::nothrow) kevrc_rtp_depacketizer{};
    if (d == nullptr) status = KEVRC_RTP_ERR_ARG;
    else {
      d->config = *config;
      d->newest_index = d->newest_filled = -1;
    }
  }
  if (err != nullptr) *err = status;
  return d;
}

extern "C" void kevrc_rtp_depacketizer_delete(kevrc_rtp_depacketizer *d) { delete d; }

extern "C" int32_t kevrc_rtp_depacketizer_push(kevrc_rtp_depacketizer *d, const uint8_t *packet, int32_t length) {
  if (d == nullptr || packet == nullptr || length < 0) return KEVRC_RTP_ERR_ARG;
  kevrc_rtp_header h;
  int32_t status = kevrc_rtp_parse_header(packet, length, &h);
  if (status < 0) return reject(d, status);
  if (d->config.payload_type >= 0 && h.payload_type != d->config.payload_type)
    return reject(d, KEVRC_RTP_ERR_TYPE);
  kevrc_rtp_payload_info p;
  const uint8_t *payload = packet + h.payload_offset;
  status = kevrc_rtp_parse_payload(d->config.format, payload, h.payload_length, &p);
  if (status < 0) return reject(d, status);
  const Group g = group_of(h, p);

  if (!d->started) {
    d->started = true;
    d->play_ts = g.base_ts;
  }
  const int64_t offset = frame_distance(d->play_ts, g.base_ts);
  const bool newer = d->counters.received == 0 ||
                     seq_distance(static_cast<uint16_t>(d->seq_highest), h.sequence) > 0;
  const bool ahead = offset + g.span > kRing;
  const bool back = offset < -kRing && newer;
  const bool overtaken = offset < 0 && !d->yielded && d->newest_index - (d->play_index + offset) < kRing;
  if (ahead || back) {
    if (pending(d)) return KEVRC_RTP_ERR_JUMP;
    ++d->counters.resyncs;
    move_play(d, g.base_ts);
    d->newest_index = d->newest_filled = d->play_index - 1;  // nothing pending before the new start
  } else if (overtaken) {
    move_play(d, g.base_ts);
  }

  const int64_t ext = extend_sequence(d, h.sequence);
  if (d->seen.test(h.sequence)) {
    ++d->counters.duplicates;
    return KEVRC_RTP_OK;
  }
  d->seen.set(h.sequence);
  if (ext < d->seq_highest) ++d->counters.reordered;
  ++d->counters.received;
  if (place_frames(d, g, p, payload)) ++d->counters.late;
  return KEVRC_RTP_OK;
}

extern "C" int32_t kevrc_rtp_depacketizer_pull(kevrc_rtp_depacketizer *d, int32_t drain, kevrc_rtp_frame *frame) {
  if (d == nullptr || frame == nullptr) return KEVRC_RTP_ERR_ARG;
  if (!pending(d)) return 0;
  Slot &s = slot_at(d, d->play_index);
  const bool window_full = d->newest_filled >= d->play_index + d->config.window;
  if (!drain && !window_full && (s.state != kFilled || !d->yielded)) return 0;
  *frame = {};
  frame->timestamp = d->play_ts;
  if (s.state == kFilled) {
    frame->rate = s.rate;
    frame->bytes = kevrc_rtp_payload_bytes(s.rate);
    frame->mode_request = s.mode;
    std::memcpy(frame->payload, s.payload, static_cast<size_t>(frame->bytes));
  } else if (s.state == kExpected) {
    frame->rate = KEVRC_RTP_RATE_ERASURE;
  } else {
    if (d->gap_left == 0) open_gap(d);
    frame->rate = d->gap_rate;
    if (frame->rate == KEVRC_RTP_RATE_BLANK) ++d->counters.silence;
  }
  if (frame->rate == KEVRC_RTP_RATE_ERASURE) ++d->counters.erasures;
  if (s.state != kUnknown) {
    d->have_last = true;
    d->last_seq_last = s.seq_last;
  }
  if (d->gap_left > 0) --d->gap_left;
  s.state = kUnknown;
  ++d->play_index;
  d->play_ts += KEVRC_RTP_FRAME_TICKS;
  d->yielded = true;
  ++d->counters.frames;
  return 1;
}

extern "C" void kevrc_rtp_depacketizer_counters(const kevrc_rtp_depacketizer *d, kevrc_rtp_counters *counters) {
  if (d == nullptr || counters == nullptr) return;
  *counters = d->counters;
  const int64_t expected = d->counters.received == 0 ? 0 : d->seq_highest - d->seq_lowest + 1;
  counters->lost = std::max<int64_t>(0, expected - d->counters.received);
}
