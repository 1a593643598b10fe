// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Packet files: a QCP file written and read back field by field, and a table
// of storage-format and QCP inputs with the frames and counts they give.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kevrc/kevrc_formats.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Source {
  const Bytes *bytes;
  size_t pos;
};

// Hands out at most 5 bytes per call, so that records straddle reads.
int64_t read_memory(void *user, uint8_t *buf, size_t size) {
  auto *s = static_cast<Source *>(user);
  const size_t n = std::min({size, size_t{5}, s->bytes->size() - s->pos});
  if (n > 0) std::memcpy(buf, s->bytes->data() + s->pos, n);
  s->pos += n;
  return static_cast<int64_t>(n);
}

// Reads a whole file: the open status, then per frame its kind and octet
// ("S4 B0 E5 T"), and the reader for its counts.
std::string read_all(const Bytes &file, kevrcf_reader &r) {
  Source src{&file, 0};
  const int32_t status = kevrcf_reader_open(&r, read_memory, &src);
  std::string frames = std::to_string(status);
  kevrcf_packet p;
  while (status == KEVRCF_OK && kevrcf_reader_next(&r, &p) == 1)
    frames += std::string(" ") + "SBET"[p.kind] + (p.rate_octet >= 0 ? std::to_string(p.rate_octet) : "");
  return frames;
}

Bytes payload(int size, uint8_t fill) { return Bytes(static_cast<size_t>(size), fill); }

// A file written with kevrcf_writer: full, half and eighth rate records.
Bytes write_file(int32_t format, bool final_sizes) {
  kevrcf_writer w;
  EXPECT_EQ(kevrcf_writer_init(&w, format), KEVRCF_OK);
  uint8_t buf[KEVRCF_MAX_HEADER_BYTES];
  Bytes file(buf, buf + kevrcf_writer_header(&w, 0, buf, sizeof buf));
  for (auto [octet, size] : {std::pair{4, 22}, {3, 10}, {1, 2}}) {
    const Bytes pl = payload(size, static_cast<uint8_t>(0x10 * octet));
    file.insert(file.end(), buf, buf + kevrcf_writer_packet(&w, octet, pl.data(), pl.size(), buf, sizeof buf));
  }
  file.insert(file.end(), buf, buf + kevrcf_writer_trailer(&w, final_sizes, buf, sizeof buf));
  if (final_sizes) kevrcf_writer_header(&w, 1, file.data(), KEVRCF_MAX_HEADER_BYTES);
  return file;
}

uint32_t le32(const Bytes &b, size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}

TEST(Formats, QcpWrittenAndReadBackFieldByField) {
  const Bytes file = write_file(KEVRCF_FORMAT_QCP, true);
  ASSERT_EQ(file.size(), 194u + 38u);  // header, 23 + 11 + 3 record bytes, pad
  EXPECT_EQ(std::string(file.begin(), file.begin() + 4), "RIFF");
  EXPECT_EQ(le32(file, 4), file.size() - 8);
  EXPECT_EQ(std::string(file.begin() + 8, file.begin() + 16), "QLCMfmt ");
  EXPECT_EQ(le32(file, 16), 150u);
  const Bytes guid = {0x8D, 0xD4, 0x89, 0xE6, 0x76, 0x90, 0xB5, 0x46,
                      0x91, 0xEF, 0x73, 0x6A, 0x51, 0x00, 0xCE, 0xB4};
  EXPECT_EQ(Bytes(file.begin() + 22, file.begin() + 38), guid);
  EXPECT_EQ(std::string(file.begin() + 170, file.begin() + 186), std::string("vrat\x08\0\0\0\x01\0\0\0\x03\0\0\0", 16));
  EXPECT_EQ(std::string(file.begin() + 186, file.begin() + 190), "data");
  EXPECT_EQ(le32(file, 190), 37u);
  EXPECT_EQ(Bytes(file.begin() + 150, file.begin() + 170), Bytes(20, 0));  // reserved

  kevrcf_reader r;
  EXPECT_EQ(read_all(file, r), "0 S4 S3 S1");
  const kevrcf_qcp_info &q = r.qcp;
  EXPECT_EQ(q.major * 10 + q.minor, 10);
  EXPECT_EQ(q.codec_version, 1);
  EXPECT_STREQ(q.name, "kevrc narrow-band variable-rate CELP");
  EXPECT_EQ(q.average_bps, 37 * 8 * 50 / 3);
  EXPECT_EQ(q.packet_size, 23);
  EXPECT_EQ(q.block_size, 160);
  EXPECT_EQ(q.sample_rate, 8000);
  EXPECT_EQ(q.sample_size, 16);
  EXPECT_EQ(q.rate_count, 3u);
  const uint8_t table[8][2] = {{22, 4}, {10, 3}, {2, 1}};
  EXPECT_EQ(std::memcmp(q.rate_table, table, sizeof table), 0);
  EXPECT_EQ(q.variable_rate, 1);
  EXPECT_EQ(q.declared_packets, 3u);
  EXPECT_EQ(r.stats.record_bytes, 37u);
}

struct Case {
  const char *name;
  Bytes file;
  const char *frames;
  int unknown_octet;
  uint64_t unread, truncated;
};

Bytes storage(const Bytes &records) {
  Bytes file(records.size() + 7);
  std::memcpy(file.data(), "#!EVRC\n", 7);
  std::copy(records.begin(), records.end(), file.begin() + 7);
  return file;
}

// The written QCP file as a fixed-rate file (every record 23 bytes) with an
// unknown chunk before "data".
Bytes fixed_rate_qcp() {
  Bytes file = write_file(KEVRCF_FORMAT_QCP, true);
  file[178] = 0;  // vrat flag
  Bytes records = {4};
  records.resize(23, 0x40);
  records.insert(records.end(), {1, 0x10, 0x10});
  records.resize(46, 0xAA);
  const Bytes labl = {'l', 'a', 'b', 'l', 3, 0, 0, 0, 'a', 'b', 'c', 0};
  file.resize(186);
  file.insert(file.end(), labl.begin(), labl.end());
  file.insert(file.end(), {'d', 'a', 't', 'a', 46, 0, 0, 0});
  file.insert(file.end(), records.begin(), records.end());
  return file;
}

TEST(Formats, ReaderTable) {
  Bytes cut_qcp = write_file(KEVRCF_FORMAT_QCP, true);
  cut_qcp.resize(cut_qcp.size() - 3);
  const Case cases[] = {
      {"blank and erasures", storage({0, 5, 14, 1, 0xAB, 0xCD}), "0 B0 E5 E14 S1", -1, 0, 0},
      {"quarter rate concealed", storage({2, 1, 2, 3, 4, 5}), "0 E2", -1, 0, 0},
      {"cut-off last record", storage({1, 7, 7, 3, 1, 2}), "0 S1 T", -1, 0, 1},
      {"unknown octet", storage({1, 7, 7, 9, 1, 2, 3}), "0 S1", 9, 4, 0},
      {"magic only", storage({}), "0", -1, 0, 0},
      {"streamed QCP", write_file(KEVRCF_FORMAT_QCP, false), "0 S4 S3 S1", -1, 0, 0},
      {"QCP cut off", cut_qcp, "0 S4 S3 T", -1, 0, 1},
      {"fixed-rate QCP", fixed_rate_qcp(), "0 S4 S1", -1, 0, 0},
      {"storage written", write_file(KEVRCF_FORMAT_STORAGE, true), "0 S4 S3 S1", -1, 0, 0},
      {"garbage", Bytes(40, 'x'), "-2", -1, 0, 0},
      {"empty", {}, "-2", -1, 0, 0},
      {"QCP header cut", Bytes(cut_qcp.begin(), cut_qcp.begin() + 100), "-3", -1, 0, 0},
  };
  for (const Case &c : cases) {
    kevrcf_reader r;
    EXPECT_EQ(read_all(c.file, r), c.frames) << c.name;
    if (r.format == KEVRCF_FORMAT_UNKNOWN) continue;
    EXPECT_EQ(r.stats.unknown_octet, c.unknown_octet) << c.name;
    EXPECT_EQ(r.stats.unread_bytes, c.unread) << c.name;
    EXPECT_EQ(r.stats.truncated, c.truncated) << c.name;
  }
  Bytes other_codec = write_file(KEVRCF_FORMAT_QCP, true);
  other_codec[22] ^= 1;
  kevrcf_reader r;
  EXPECT_EQ(read_all(other_codec, r), "-4");
}

}  // namespace
