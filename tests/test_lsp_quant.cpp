// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// LSP quantization: the spacing weights and the weighted split VQ search.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "common/fixed_point.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

struct Layout {
  int16_t splits;
  int16_t dims[4];
  int16_t entries[4];
  const int16_t *book;
};

const Layout kFull = {4, {2, 2, 3, 3}, {64, 64, 512, 128}, kevrc_tbl_lsp_fr};
const Layout kHalf = {3, {3, 3, 4}, {128, 128, 256, 0}, kevrc_tbl_lsp_hr};
const Layout kEighth = {2, {5, 5}, {16, 16}, kevrc_tbl_lsp_1_8};

struct Quantized {
  int16_t q[10];
  uint16_t index[4] = {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF};
};

// kevrce_norm_lsp then kevrce_lspmaq, as the coding loop calls them.
Quantized quantize(const int16_t *lsp, const Layout &l) {
  Quantized r;
  int16_t shift[10];
  kevrce_norm_lsp(lsp, r.q, shift);
  const int16_t *ret =
      kevrce_lspmaq(lsp, l.splits, l.dims, l.entries, r.q, r.index, l.book, shift);
  EXPECT_EQ(ret, r.q);
  return r;
}

// kevrce_lspmaq alone on a single split of `dim` LSPs, with the given weights
// and shifts; returns the chosen index.
int one_split(const int16_t *lsp, int16_t *w, int16_t *sh, int16_t dim, int16_t entries,
              const int16_t *book) {
  uint16_t index[1] = {99};
  kevrce_lspmaq(lsp, 1, &dim, &entries, w, index, book, sh);
  return index[0];
}


// ---------------------------------------------------------------------------
// Weights

TEST(LspQuant, WeightsOfHandWorkedSpacings) {
  // Spacings 512, 512, 513, 0, 0, -100, -100 (out of order), 500, 1, 1:
  const int16_t lsp[10] = {1000, 1512, 2025, 2538, 2538, 3000, 2900, 3400, 3900, 3901};
  int16_t w[10], sh[10];
  kevrce_norm_lsp(lsp, w, sh);
  // 512: e = 5, m = 16384, 2^29/m = 32768 wraps to -32768:
  //   1024 + (-32768*5215 >> 15) = 1024 - 5215 = -4191, a weight below zero.
  EXPECT_EQ(w[0], -4191);
  EXPECT_EQ(sh[0], 5);
  EXPECT_EQ(w[1], -4191);  // min(512, 512)
  // 513: m = 16416, q = 32704, (32704*5215) >> 15 = 5204: 1024 + 5204 = 6228.
  // One step more spacing than 512 yet a far larger weight.
  EXPECT_EQ(w[2], 6228);
  EXPECT_EQ(sh[2], 5);
  // Spacing 0: e = 0, q = 0, 32768 >> 0 kept to 16 bits = -32768.
  EXPECT_EQ(w[3], -32768);
  EXPECT_EQ(sh[3], 0);
  EXPECT_EQ(w[4], -32768);
  // -100: e = 8, m = -25600, q = -20971, (-20971*5215) >> 15 = -3338: 128 - 3338.
  EXPECT_EQ(w[5], -3210);
  EXPECT_EQ(sh[5], 8);
  EXPECT_EQ(w[6], -3210);
  // 500: e = 6, m = 32000, q = 16777, (16777*5215) >> 15 = 2670: 512 + 2670.
  EXPECT_EQ(w[7], 3182);
  EXPECT_EQ(sh[7], 6);
  // Spacing 1, a power of two: e = 14, 2 - 5215. The last LSP looks at its
  // lower neighbour only.
  EXPECT_EQ(w[8], -5213);
  EXPECT_EQ(w[9], -5213);
  EXPECT_EQ(sh[9], 14);
}

// ---------------------------------------------------------------------------
// Search on small hand-made codebooks

TEST(LspQuant, TieGoesToTheLaterCodeword) {
  // Entries 1 and 2 are the same codeword; the search keeps the later one.
  const int16_t book[8] = {100, 200, 1000, 2000, 1000, 2000, 5000, 6000};
  const Layout l = {1, {2}, {4}, book};
  const int16_t lsp[10] = {1010, 1990, 3000, 4000, 5000, 6000, 7000, 8000, 9000, 10000};
  EXPECT_EQ(quantize(lsp, l).index[0], 2);
}

TEST(LspQuant, OrderingTestIsStrictAndAllRejectedTakesTheLast) {
  // Split 1 decides {1000, 2000}; split 2 codewords need a first value above 2261.
  const int16_t lsp[10] = {1000, 2000, 2261, 3000, 5000, 6000, 7000, 8000, 9000, 10000};
  int16_t book[16] = {1000, 2000, 5000, 6000, 7000, 8000, 9000, 10000,
                      2262, 3000, 2261, 3000, 2000, 3000, 1500, 2500};
  const Layout l = {2, {2, 2}, {4, 4}, book};
  // Entry 1 matches exactly but sits at 2000 + 261 (rejected, 32767); entry 0,
  // one step higher, is accepted with a small distance.
  Quantized r = quantize(lsp, l);
  EXPECT_EQ(r.index[0], 0);
  EXPECT_EQ(r.index[1], 0);
  EXPECT_EQ(r.q[2], 2262);
  // With entry 0 pulled down to 2261 too, every codeword is rejected and the
  // last one of the split wins, out of order as it is.
  book[8] = 2261;
  r = quantize(lsp, l);
  EXPECT_EQ(r.index[1], 3);
  EXPECT_EQ(r.q[2], 1500);
  EXPECT_EQ(r.q[3], 2500);
}

TEST(LspQuant, NegativeWeightOfAPowerOfTwoSpacingPrefersTheFartherCodeword) {
  const int16_t book[4] = {1000, 1512, 1100, 1612};
  const Layout l = {1, {2}, {2}, book};
  // Spacings 512 and 512: weights -4191 (shift 5). For entry 1, diff = -100:
  // t0 = 2*(-4191)*(-100) = 838200, << 5 = 26822400, >> 16 = 409, diff*t = -40900;
  // two LSPs: acc = -81800, dist = (-163600 + 32768) >> 16 = -2 < 0 = dist(entry 0).
  const int16_t pow2[10] = {1000, 1512, 2600, 3000, 5000, 6000, 7000, 8000, 9000, 10000};
  EXPECT_EQ(quantize(pow2, l).index[0], 1);
  // One step more spacing (513) gives a positive weight: the exact match wins.
  const int16_t plain[10] = {1000, 1513, 2600, 3000, 5000, 6000, 7000, 8000, 9000, 10000};
  Quantized r = quantize(plain, l);
  EXPECT_EQ(r.index[0], 0);
}

TEST(LspQuant, ZeroProductAndDistanceRoundingEdges) {
  // Weight 0 with shift 3: t0 = 0 overflows at the first step to t = -32768.
  // Entry 0 (diff 10): acc = 10 * -32768, dist = (-655360 + 32768) >> 16 = -10.
  // Entry 1 (diff 0): dist 0. Were t 0, both would score 0 and entry 1 would win.
  const int16_t book[2] = {990, 1000};
  const int16_t lsp[10] = {1000};
  int16_t w[10] = {0}, sh[10] = {3};
  EXPECT_EQ(one_split(lsp, w, sh, 1, 2, book), 0);
  EXPECT_EQ(w[0], 990);
  // Entry 0 of {0, 0} against {32767, 2}:
  //   position 0: diff 32767, weight 32767, shift 1: 2*32767*32767 << 1 overflows, t = 32767;
  //   position 1: diff 2, weight 15000, shift 15: (60000 << 15) >> 16 = 30000;
  //   acc = 32767*32767 + 2*30000 = 1073736289, 2*acc = 2147472578, + 32768
  //   passes 2^31 - 1: the distance saturates at 32767 (wrapping would give
  //   -32768 and keep entry 0). Entry 1 matches exactly and wins.
  const int16_t book2[4] = {0, 0, 32767, 2};
  const int16_t lsp2[10] = {32767, 2};
  int16_t w2[10] = {32767, 15000}, sh2[10] = {1, 15};
  EXPECT_EQ(one_split(lsp2, w2, sh2, 2, 2, book2), 1);
}

// ---------------------------------------------------------------------------
// The codec's codebooks

TEST(LspQuant, StatedRowsAreFoundInTheCodecTables) {
  // Full rate, the first entry of every split.
  const int16_t fr[10] = {465, 635, 1710, 2747, 4470, 5526, 6707, 9092, 10387, 12960};
  Quantized r = quantize(fr, kFull);
  for (int s = 0; s < 4; ++s) EXPECT_EQ(r.index[s], 0) << s;
  EXPECT_EQ(0, std::memcmp(r.q, fr, sizeof fr));
  // ... with the table's last entry as split 4.
  const int16_t fr_last[10] = {465, 635, 1710, 2747, 4470, 5526, 6707, 13466, 14440, 14815};
  r = quantize(fr_last, kFull);
  EXPECT_EQ(r.index[3], 127);
  EXPECT_EQ(0, std::memcmp(r.q, fr_last, sizeof fr_last));
  // Half rate: first entries, last entry.
  const int16_t hr[10] = {443, 597, 1291, 3198, 4053, 5552, 12307, 13653, 14488, 14835};
  r = quantize(hr, kHalf);
  EXPECT_EQ(r.index[0], 0);
  EXPECT_EQ(r.index[1], 0);
  EXPECT_EQ(r.index[2], 255);
  EXPECT_EQ(0, std::memcmp(r.q, hr, sizeof hr));
  // Eighth rate: entry 1 of split 1, last entry.
  const int16_t er[10] = {1800, 3219, 3607, 5207, 6733, 9141, 10572, 11684, 13175, 13884};
  r = quantize(er, kEighth);
  EXPECT_EQ(r.index[0], 1);
  EXPECT_EQ(r.index[1], 15);
  EXPECT_EQ(0, std::memcmp(r.q, er, sizeof er));
}

}  // namespace
}  // namespace kevrc
