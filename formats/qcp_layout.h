// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Byte layout shared by the packet-file reader and writer: the storage-format
// magic, the QCP codec GUID, chunk sizes and offsets inside the 150-byte
// "fmt " chunk, the codec's rate table, and little-endian field access.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kevrcf {

inline constexpr uint8_t kStorageMagic[7] = {'#', '!', 'E', 'V', 'R', 'C', '\n'};
inline constexpr uint8_t kCodecGuid[16] = {0x8D, 0xD4, 0x89, 0xE6, 0x76, 0x90, 0xB5, 0x46,
                                           0x91, 0xEF, 0x73, 0x6A, 0x51, 0x00, 0xCE, 0xB4};
inline constexpr char kCodecName[] = "kevrc narrow-band variable-rate CELP";

inline constexpr uint32_t kFmtBytes = 150;
inline constexpr uint32_t kVratBytes = 8;
inline constexpr uint32_t kRiffPrefixBytes = 12;  // "RIFF", size, "QLCM"
inline constexpr uint32_t kChunkHeadBytes = 8;    // id, size
inline constexpr uint32_t kQcpHeaderBytes =
    kRiffPrefixBytes + kChunkHeadBytes + kFmtBytes + kChunkHeadBytes + kVratBytes + kChunkHeadBytes;
inline constexpr uint32_t kUnknownSize = 0xFFFFFFFFu;

// Offsets inside the "fmt " chunk body.
enum FmtOffset : size_t {
  kMajor = 0, kMinor = 1, kGuid = 2, kCodecVersion = 18, kName = 20, kAverageBps = 100,
  kPacketSize = 102, kBlockSize = 104, kSampleRate = 106, kSampleSize = 108, kRateCount = 110,
  kRateMap = 114, kReserved = 130
};

// The codec's rates: (payload bytes, rate octet), largest first.
inline constexpr uint8_t kRateTable[3][2] = {{22, 4}, {10, 3}, {2, 1}};
inline constexpr int kFramesPerSecond = 50;

inline uint16_t get16(const uint8_t *p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t get32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline void put16(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void put32(uint8_t *p, uint32_t v) {
  put16(p, v);
  put16(p + 2, v >> 16);
}

}  // namespace kevrcf
