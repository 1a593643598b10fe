// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// LSP dequantization and fixed-codebook decoding.
#include <cstring>

#include "tests/test_util.h"

namespace kevrc {
namespace {

using testing::Decoder;

// Runs the dequantizer on a fresh decoder with the given rate and indices.
int32_t dequantize(Decoder &d, int rate, std::vector<int> indices) {
  set_decode_params(d.get(), rate);
  d.work().rate = static_cast<int16_t>(rate);
  for (size_t s = 0; s < indices.size(); ++s) d.work().lsp_index[s] = static_cast<int16_t>(indices[s]);
  return kevrcd_lsp_vq_evol(d.get());
}

TEST(LspDequant, FullRateZeroIndicesGiveTheFirstCodewords) {
  Decoder d;
  EXPECT_EQ(dequantize(d, 4, {0, 0, 0, 0}), 0);
  const int16_t want[10] = {465, 635, 1710, 2747, 4470, 5526, 6707, 9092, 10387, 12960};
  EXPECT_EQ(0, std::memcmp(d.work().new_lsp, want, sizeof want));
  EXPECT_EQ(dequantize(d, 3, {0, 0, 0}), 0);
  const int16_t half[10] = {443, 597, 1291, 3198, 4053, 5552, 7763, 8392, 10386, 13354};
  EXPECT_EQ(0, std::memcmp(d.work().new_lsp, half, sizeof half));
}

TEST(LspDequant, OrderingAndSeamFaults) {
  // Search the tables for index sets that break the order or a seam.
  for (int rate : {3, 4}) {
    const int splits = rate == 4 ? 4 : 3;
    const int entries[4] = {rate == 4 ? 64 : 128, rate == 4 ? 64 : 128, rate == 4 ? 512 : 256, 128};
    bool seen_fault = false, seen_ok = false;
    for (int a = 0; a < entries[0] && !(seen_fault && seen_ok); a += 3) {
      for (int b = 0; b < entries[1]; b += 5) {
        int idx[4] = {a, b, 0, 0};
        Decoder d;
        const bool valid = testing::lsp_indices_valid(rate, idx);
        const int32_t st = dequantize(d, rate, std::vector<int>(idx, idx + splits));
        EXPECT_EQ(st, valid ? 0 : KEVRC_ERR_LSP) << rate << " " << a << " " << b;
        EXPECT_EQ(d.state().bad_frame_flag, valid ? 0 : 1);
        (valid ? seen_ok : seen_fault) = true;
      }
    }
    EXPECT_TRUE(seen_fault && seen_ok) << rate;
  }
}

TEST(LspDequant, EighthRateFaultFallsBackToThePreviousLsps) {
  for (int a = 0; a < 16; ++a) {
    for (int b = 0; b < 16; ++b) {
      Decoder d;
      for (int k = 0; k < 10; ++k) d.state().prev_lsp[k] = static_cast<int16_t>(1000 + 1000 * k);
      const int idx[2] = {a, b};
      EXPECT_EQ(dequantize(d, 1, {a, b}), 0);  // never rejected
      const bool valid = testing::lsp_indices_valid(1, idx);
      EXPECT_EQ(d.state().frame_erased, valid ? 0 : 1);
      if (!valid) {
        EXPECT_EQ(d.work().new_lsp[9], 10000);
      }
    }
  }
}

TEST(LspDequant, OutOfRangeIndicesAreClampedToTheTable) {
  Decoder d;
  EXPECT_NO_FATAL_FAILURE(dequantize(d, 4, {32767, -5, 9999, 128}));
  EXPECT_EQ(d.work().new_lsp[9], 14815);  // last codeword of the last split
}

std::vector<int> pulses(const int16_t *v, int n) { return std::vector<int>(v, v + n); }

TEST(FixedCodebook, FullRateWords) {
  int16_t v[60];
  const int16_t none = 0x7F;  // pair index 127: no pulses
  // Word 1 = 0 on track 0: both pulses at 0, same sign: +2.
  int16_t w1[4] = {0, none, none, none};
  kvrcd_fcb_fr(w1, v, 54);
  std::vector<int> want(54, 0);
  want[0] = 2;
  EXPECT_EQ(pulses(v, 54), want);
  // p = 11, negative: -1 at 5 and, since 5 > 0, +1 at 0.
  int16_t w2[4] = {0x80 | 11, none, none, none};
  kvrcd_fcb_fr(w2, v, 54);
  want.assign(54, 0);
  want[5] = -1;
  want[0] = 1;
  EXPECT_EQ(pulses(v, 54), want);
  // Start track 2: word 1 on track 2, word 2 on 3, word 3 on 4, word 4 on 0 and 1.
  // Word 4: p = 1 (first at 5*0 + 0, second at 5*1 + 1), bit 8 set, bit 7 clear.
  int16_t w3[4] = {12, 0x80 | 12, 1, static_cast<int16_t>((2 << 9) | 0x100 | 1)};
  kvrcd_fcb_fr(w3, v, 54);
  want.assign(54, 0);
  want[7] = 2;    // word 1: p = 12 -> 5 + 2 twice
  want[8] = -2;   // word 2: same positions on track 3, negative
  want[4] = 1;    // word 3: p = 1 -> first 4, second 9
  want[9] = 1;
  want[0] = -1;   // word 4 first pulse, bit 8
  want[6] = 1;    // word 4 second pulse, bit 7 clear
  EXPECT_EQ(pulses(v, 54), want);
  // Start track 3: word 3 lands on track 5 = track 0.
  int16_t w4[4] = {none, none, 0, static_cast<int16_t>(3 << 9 | none)};
  kvrcd_fcb_fr(w4, v, 54);
  want.assign(54, 0);
  want[0] = 2;
  EXPECT_EQ(pulses(v, 54), want);
}

TEST(FixedCodebook, FullRatePairIndexLimitsAndDroppedPositions) {
  int16_t v[60];
  // 121 in word 1 leaves that pair out; 121 in word 4 ends decoding, earlier pairs kept.
  int16_t w[4] = {121, 0x80 | 120, 0, 121};
  kvrcd_fcb_fr(w, v, 54);
  std::vector<int> want(54, 0);
  want[51] = -2;  // word 2, p = 120 on track 1: 5*10 + 1 twice
  want[2] = 2;
  EXPECT_EQ(pulses(v, 54), want);
  // Positions 53 and 54 exist only in longer subframes.
  int16_t w5[4] = {0x7F, 0x7F, 0x7F, static_cast<int16_t>((0 << 9) | 120)};  // 5*10+3, 5*10+4
  kvrcd_fcb_fr(w5, v, 53);
  EXPECT_EQ(pulses(v, 53), std::vector<int>(53, 0));
  kvrcd_fcb_fr(w5, v, 54);
  EXPECT_EQ(v[53], 1);
  // Every code word decodes without touching anything past the vector.
  for (int word = 0; word < 2048; ++word) {
    int16_t ww[4] = {static_cast<int16_t>(word & 0xFF), static_cast<int16_t>((word >> 3) & 0xFF),
                     static_cast<int16_t>((word * 7) & 0xFF), static_cast<int16_t>(word)};
    std::vector<int16_t> exact(53);
    kvrcd_fcb_fr(ww, exact.data(), 53);
    for (int16_t s : exact) ASSERT_TRUE(s >= -2 && s <= 2);
  }
}

TEST(FixedCodebook, HalfRateWords) {
  int16_t v[60];
  kvrcd_fcb_hr(0, v, 53);
  std::vector<int> want(53, 0);
  want[4] = 1;
  want[2] = -1;
  want[0] = 1;
  EXPECT_EQ(pulses(v, 53), want);
  kvrcd_fcb_hr(0x200 | 7, v, 53);  // i = 7: position 53, dropped in a 53-sample subframe
  want.assign(53, 0);
  want[2] = 1;
  want[0] = -1;
  EXPECT_EQ(pulses(v, 53), want);
  kvrcd_fcb_hr(0x200 | 7, v, 54);
  EXPECT_EQ(v[53], -1);
  kvrcd_fcb_hr((5 << 6) | (3 << 3) | 1, v, 54);
  want.assign(54, 0);
  want[11] = 1;
  want[23] = -1;
  want[35] = 1;
  EXPECT_EQ(pulses(v, 54), want);
}

}  // namespace
}  // namespace kevrc
