// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Filters, interpolation, the cosine evaluation and LSP-to-LPC conversion.
#include <cmath>
#include <cstring>

#include "common/cos129.h"
#include "common/fixed_point.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

TEST(Filters, SynthesisSaturatesWhileInverseWraps) {
  // a1 = -2.0: a growing resonance.
  int16_t a[10] = {-8192};
  int16_t mem[10] = {};
  std::vector<int16_t> in(40, 20000), out(40);
  kevrc_iir(in.data(), a, mem, 40, out.data());
  EXPECT_EQ(out.back(), 32767);
  EXPECT_EQ(mem[0], 32767);  // the saturated value is what the memory keeps
  // The inverse filter x[i] + 2 x[i-1] wraps: 20000 + 40000 -> 60000 - 65536.
  int16_t fmem[10] = {};
  int16_t fa[10] = {8192};
  int16_t fin[2] = {20000, 20000}, fout[2];
  kevrc_fir(fin, fa, fmem, 2, fout);
  EXPECT_EQ(fout[0], 20000);
  EXPECT_EQ(fout[1], static_cast<int16_t>(60000 - 65536));
}

TEST(Filters, SynthesisRunsInPlaceAndTheInverseUndoesIt) {
  testing::Rng rng(testing::test_seed("SynthesisRunsInPlace"));
  // A stable filter from a valid LSP vector.
  int16_t lsp[10];
  std::memcpy(lsp, kevrc_prev_lsp, sizeof lsp);
  int16_t a[10];
  kevrc_lsp2lpc(lsp, a);
  for (int trial = 0; trial < 20; ++trial) {
    std::vector<int16_t> x(160);
    for (auto &s : x) s = static_cast<int16_t>(static_cast<int>(rng.below(8001)) - 4000);
    int16_t mem[10] = {}, mem2[10] = {};
    std::vector<int16_t> y(160), inplace = x;
    kevrc_iir(x.data(), a, mem, 160, y.data());
    kevrc_iir(inplace.data(), a, mem2, 160, inplace.data());
    EXPECT_EQ(y, inplace);
    // The inverse filter undoes the synthesis up to rounding.
    int16_t fmem[10] = {};
    std::vector<int16_t> back(160);
    kevrc_fir(y.data(), a, fmem, 160, back.data());
    for (int i = 0; i < 160; ++i) ASSERT_NEAR(back[i], x[i], 6) << i;
  }
}

// Blocks run two outputs per pass while the taps' magnitudes sum to at most
// 65535 and one beyond; either must equal the filter run one sample at a time.
TEST(Filters, SynthesisBlocksMatchSampleBySample) {
  const int16_t coefs[][10] = {
      {-32768, 32767},     // magnitudes 65535: the largest sums the pair form meets
      {-32768, 32767, 1},  // 65536: one output per pass
      {-9000, 7000, -5000, 3000, -1000, 500, -300, 200, -100, 50},
  };
  testing::Rng rng(testing::test_seed("SynthesisBlocks"));
  for (const auto &a : coefs) {
    std::vector<int16_t> x(57), block(57), single(57);
    for (auto &s : x) s = static_cast<int16_t>(rng.below(3) == 0 ? -32768 : static_cast<int>(rng.below(65536)) - 32768);
    int16_t mem[10] = {32767, -32768, 32767, -32768, 1, -1, 32767, -32768, 32767, -32768};
    int16_t mem1[10];
    std::memcpy(mem1, mem, sizeof mem);
    kevrc_iir(x.data(), a, mem, 57, block.data());
    for (int i = 0; i < 57; ++i) kevrc_iir(&x[i], a, mem1, 1, &single[i]);
    EXPECT_EQ(block, single);
    EXPECT_EQ(0, std::memcmp(mem, mem1, sizeof mem));
  }
}

TEST(Interpolation, LspWeights) {
  int16_t prev[10], cur[10], out[10];
  for (int k = 0; k < 10; ++k) {
    prev[k] = static_cast<int16_t>(1000 * k);
    cur[k] = static_cast<int16_t>(1000 * k + 6000);
  }
  kevrc_interpol(out, prev, cur, 1);
  EXPECT_EQ(out[0], 3000);
  kevrc_interpol(out, prev, cur, 2);
  EXPECT_EQ(out[0], 5000);  // 6000 * 27306 / 32768 = 4999.98
  kevrc_interpol(out, prev, cur, 0);
  const int16_t sub0 = out[0];
  EXPECT_EQ(sub0, 1000);
  kevrc_interpol(out, prev, cur, 3);  // any other subframe number weighs like subframe 0
  EXPECT_EQ(out[0], sub0);
  kevrc_interpol(out, prev, cur, -7);
  EXPECT_EQ(out[0], sub0);
}

TEST(Interpolation, DelayContour) {
  int32_t c[3] = {7, 7, 7};
  kevrc_interpol_delay(c, 40, 56, 3);
  EXPECT_EQ(c[0], 7);  // unknown subframe: untouched
  kevrc_interpol_delay(c, 40, 56, 0);
  EXPECT_EQ(c[0], 40 << 16);
  EXPECT_EQ(c[1], (40 << 16) + 2 * 10856 * 16);
  EXPECT_EQ(c[2], (40 << 16) + 2 * 21709 * 16);
  kevrc_interpol_delay(c, 40, 56, 2);
  EXPECT_EQ(c[1], 56 << 16);
  EXPECT_EQ(c[2], 56 << 16);
  kevrc_interpol_delay(c, 56, 40, 1);  // falling delays work the same way
  EXPECT_EQ(c[2], 40 << 16);
  EXPECT_NEAR(c[0] / 65536.0, 56 - 16 * 53.0 / 160, 1e-3);
}

TEST(Cosine, StatedValuesAndAccuracy) {
  EXPECT_EQ(kevrc_interpolation_cos129(0), 32767 * 65536);
  EXPECT_EQ(kevrc_interpolation_cos129(16384), -32768 * 65536);
  EXPECT_EQ(kevrc_interpolation_cos129(8192), 0);
  for (int x = 0; x <= 16384; ++x) {
    const double exact = std::cos(M_PI * x / 16384.0) * 2147483648.0;
    ASSERT_LE(std::fabs(kevrc_interpolation_cos129(static_cast<int16_t>(x)) - exact), 1e5) << x;  // 5e-5 of full scale
  }
}

TEST(Cosine, FrequenciesBeyondHalfTheRateStayInTheTables) {
  // Index 128 is the last table point; past it the frequency is reflected.
  for (int x = 16385; x <= 32767; ++x) {
    const double exact = std::cos(M_PI * x / 16384.0) * 2147483648.0;
    ASSERT_LE(std::fabs(kevrc_interpolation_cos129(static_cast<int16_t>(x)) - exact), 4e5) << x;
  }
  for (int x = -32768; x < 0; ++x) (void)kevrc_interpolation_cos129(static_cast<int16_t>(x));
  EXPECT_EQ(kevrc_interpolation_cos129(-32768), kevrc_interpolation_cos129(0));
}

TEST(Cosine, LspRootSearchTableMatchesTheFunction) {
  for (int m = -7; m <= 637; ++m)  // points m * 1704565 in Q31 of the sampling rate
    ASSERT_EQ(kevrc_tbl_lsp_grid_cos[m + 7],
              kevrc_interpolation_cos129(static_cast<int16_t>((m * 1704565 + 0x8000) >> 16))) << m;
}

TEST(LspToLpc, RangeRepairRewritesTheVector) {
  int16_t lsp[10] = {0, 1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000, 20000};
  int16_t lpc[10];
  kevrc_lsp2lpc(lsp, lpc);
  const int16_t want[10] = {721, 721 + 1563, 1000 + 1563, 2000 + 1563, 3000 + 1563,
                            4000 + 1563, 5000 + 1563, 6000 + 1563, 7000 + 1563, 8000 + 1563};
  EXPECT_EQ(0, std::memcmp(lsp, want, sizeof want));

  // Last LSP beyond half the rate only: a tenth of the remaining span.
  int16_t lsp2[10] = {1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000, 9000, 16384};
  kevrc_lsp2lpc(lsp2, lpc);
  const int16_t step = static_cast<int16_t>((2 * 3277 * (16351 - 1000) + 0x8000) >> 16);
  EXPECT_EQ(lsp2[0], 1000);
  EXPECT_EQ(lsp2[1], 1000 + step);
  EXPECT_EQ(lsp2[9], 9000 + step);

  // A valid vector is left alone.
  int16_t lsp3[10];
  std::memcpy(lsp3, kevrc_prev_lsp, sizeof lsp3);
  kevrc_lsp2lpc(lsp3, lpc);
  EXPECT_EQ(0, std::memcmp(lsp3, kevrc_prev_lsp, sizeof lsp3));
}


}  // namespace
}  // namespace kevrc
