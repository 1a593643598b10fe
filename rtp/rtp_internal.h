// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Helpers shared by the RTP library's files: big-endian loads and stores,
// the signed distance between wrapping 16- and 32-bit counters, and the
// frame offset of a timestamp difference.
#pragma once

#include <cstdint>

namespace kevrc::rtp {

inline uint16_t load16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline uint32_t load32(const uint8_t *p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
inline void store16(uint8_t *p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
inline void store32(uint8_t *p, uint32_t v) {
  store16(p, static_cast<uint16_t>(v >> 16));
  store16(p + 2, static_cast<uint16_t>(v));
}
// b - a for counters that wrap, in -2^15..2^15-1 / -2^31..2^31-1.
inline int32_t seq_distance(uint16_t a, uint16_t b) { return static_cast<int16_t>(static_cast<uint16_t>(b - a)); }
inline int64_t ts_distance(uint32_t a, uint32_t b) { return static_cast<int32_t>(b - a); }
// Whole frames from a to b, rounded towards minus infinity.
inline int64_t frame_distance(uint32_t a, uint32_t b) {
  const int64_t d = ts_distance(a, b);
  return d >= 0 ? d / 160 : -((-d + 159) / 160);
}

}  // namespace kevrc::rtp
