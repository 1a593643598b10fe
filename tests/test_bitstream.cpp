// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Bit-stream reader and bit writer.
#include <cstring>

#include "tests/test_util.h"

namespace kevrc {
namespace {

TEST(BitReader, MostSignificantBitFirstAcrossBytes) {
  const uint8_t data[] = {0xA5, 0x3C, 0xF0};
  kcmn_bsr r;
  kcmn_bsr_init(&r, data, 3, kcmn_bsr_flush);
  EXPECT_EQ(kcmn_bsr_read1(&r), 1u);
  EXPECT_EQ(kcmn_bsr_read(&r, 3), 0x2u);   // 010
  EXPECT_EQ(kcmn_bsr_read(&r, 7), 0x29u);  // 0101 001
  EXPECT_EQ(kcmn_bsr_read(&r, 9), 0x1CFu); // 1110 0 1111
  EXPECT_EQ(kcmn_bsr_consumed(&r), 3u);    // 20 bits: three bytes begun
  EXPECT_EQ(kcmn_bsr_read(&r, 4), 0x0u);
}

TEST(BitReader, PastTheEndReadsZerosWithoutLoading) {
  const uint8_t data[] = {0xFF, 0xFF, 0xAB};  // the third byte lies outside the input
  kcmn_bsr r;
  kcmn_bsr_init(&r, data, 2, kcmn_bsr_flush);
  EXPECT_EQ(kcmn_bsr_read(&r, 12), 0xFFFu);
  EXPECT_EQ(kcmn_bsr_read(&r, 8), 0xF0u);  // four real bits, then zeros
  for (int i = 0; i < 20; ++i) EXPECT_EQ(kcmn_bsr_read(&r, 16), 0u);
  EXPECT_EQ(kcmn_bsr_consumed(&r), 2u);
  kcmn_bsr_init(&r, nullptr, 0, nullptr);  // empty input, default refill
  EXPECT_EQ(kcmn_bsr_read(&r, 8), 0u);
  EXPECT_EQ(kcmn_bsr_consumed(&r), 0u);
}

TEST(BitReader, LoadsOnlyTheBytesItsFieldsNeed) {
  const uint8_t data[] = {0x12, 0x34, 0x56, 0x78};
  kcmn_bsr r;
  kcmn_bsr_init(&r, data, 4, kcmn_bsr_flush);
  EXPECT_EQ(kcmn_bsr_read(&r, 3), 0u);
  EXPECT_EQ(r.pos, data + 1);
  EXPECT_EQ(kcmn_bsr_read(&r, 6), 0x24u);  // 10 0100: into the second byte
  EXPECT_EQ(r.pos, data + 2);
  EXPECT_EQ(kcmn_bsr_consumed(&r), 2u);
}

void refill_nothing(kcmn_bsr *) {}

TEST(BitReader, ARefillThatLoadsNothingEndsTheRead) {
  const uint8_t data[] = {0xAB, 0xCD};
  kcmn_bsr r;
  kcmn_bsr_init(&r, data, 2, refill_nothing);
  EXPECT_EQ(kcmn_bsr_read(&r, 8), 0u);  // returns zeros instead of waiting for bits
}

TEST(BitReader, CopiesReadOnIndependently) {
  const uint8_t data[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC};
  kcmn_bsr r;
  kcmn_bsr_init(&r, data, 6, kcmn_bsr_flush);
  EXPECT_EQ(kcmn_bsr_read(&r, 8), 0x12u);
  kcmn_bsr peek = r;
  EXPECT_EQ(kcmn_bsr_read(&peek, 16), 0x3456u);
  EXPECT_EQ(kcmn_bsr_read(&peek, 16), 0x789Au);
  EXPECT_EQ(kcmn_bsr_read(&r, 16), 0x3456u);  // the original did not move
  EXPECT_EQ(kcmn_bsr_consumed(&r), 3u);
}

TEST(BitWriter, FieldsLandHighByteFirst) {
  uint8_t buf[24] = {};
  kevrce_bsw w;
  kevrce_bsw_init(&w, buf, 12);
  EXPECT_EQ(w.free_bits, 16u);
  EXPECT_EQ(w.end, buf + 22);
  kevrce_put_bits(&w.pos, &w.free_bits, 0x5, 3);     // 101
  kevrce_put_bits(&w.pos, &w.free_bits, 0x1FF, 9);   // 1 1111 1111
  kevrce_put_bits(&w.pos, &w.free_bits, 0x0, 0);     // nothing
  kevrce_put_bits(&w.pos, &w.free_bits, 0xABCD, 16); // crosses the word boundary
  kevrce_put_bits(&w.pos, &w.free_bits, 0x3, 4);     // completes the second word
  const uint8_t want[] = {0xBF, 0xFA, 0xBC, 0xD3};
  EXPECT_EQ(0, std::memcmp(buf, want, 4));
  EXPECT_EQ(w.pos, buf + 4);
  EXPECT_EQ(w.free_bits, 16u);
}

TEST(BitWriter, OnlyTheLowBitsAreWritten) {
  uint8_t buf[4] = {};
  kevrce_bsw w;
  kevrce_bsw_init(&w, buf, 2);
  kevrce_put_bits(&w.pos, &w.free_bits, 0xFFF0, 4);  // only the low four bits, 0000
  kevrce_put_bits(&w.pos, &w.free_bits, 0xFFFF, 12);
  EXPECT_EQ(buf[0], 0x0F);
  EXPECT_EQ(buf[1], 0xFF);
  kevrce_bsw_init(&w, buf, INT32_MAX);  // the end pointer is only set: no overflow
  EXPECT_EQ(w.pos, buf);
}

TEST(BitWriter, RoundTripsThroughTheReader) {
  testing::Rng rng(testing::test_seed("BitWriterRoundTrip"));
  for (int trial = 0; trial < 200; ++trial) {
    uint8_t buf[24] = {};
    kevrce_bsw w;
    kevrce_bsw_init(&w, buf, 12);
    std::vector<std::pair<uint32_t, int>> fields;
    int total = 0;
    while (total < 176) {
      const int n = 1 + static_cast<int>(rng.below(16));
      if (total + n > 176) break;
      const uint32_t v = static_cast<uint32_t>(rng.next()) & ((1u << n) - 1);
      kevrce_put_bits(&w.pos, &w.free_bits, v, n);
      fields.emplace_back(v, n);
      total += n;
    }
    kevrce_put_bits(&w.pos, &w.free_bits, 0, (16 - total % 16) % 16);  // fill the last word
    kcmn_bsr r;
    kcmn_bsr_init(&r, buf, 24, kcmn_bsr_flush);
    for (const auto &[v, n] : fields) ASSERT_EQ(kcmn_bsr_read(&r, n), v);
  }
}

}  // namespace
}  // namespace kevrc
