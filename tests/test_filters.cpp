// Filters, interpolation, the cosine evaluation and LSP-to-LPC conversion.
#include <cmath>
#include <cstring>

#include "common/fixed_point.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

TEST(Filters, ZeroCoefficientsCopyTheInput) {
  const int16_t a[10] = {};
  int16_t mem_i[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, mem_f[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  int16_t in[5] = {-32768, -1, 0, 1, 32767}, out[5];
  kevrc_iir(in, a, mem_i, 5, out);
  EXPECT_EQ(0, std::memcmp(in, out, sizeof in));
  kevrc_fir(in, a, mem_f, 5, out);
  EXPECT_EQ(0, std::memcmp(in, out, sizeof in));
  EXPECT_EQ(mem_i[0], 32767);  // synthesis memory holds outputs
  EXPECT_EQ(mem_f[4], -32768);  // inverse-filter memory holds inputs
  EXPECT_EQ(mem_f[5], 1);
}

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

// Direct-form LPC of an LSP vector in floating point.
std::vector<double> lpc_from_lsp_float(const int16_t *lsp) {
  std::vector<double> p = {1.0, 1.0}, q = {1.0, -1.0};
  auto mul = [](std::vector<double> v, double c) {
    std::vector<double> r(v.size() + 2, 0.0);
    for (size_t i = 0; i < v.size(); ++i) {
      r[i] += v[i];
      r[i + 1] -= 2 * c * v[i];
      r[i + 2] += v[i];
    }
    return r;
  };
  for (int j = 0; j < 5; ++j) {
    p = mul(p, std::cos(M_PI * lsp[2 * j] / 16384.0));
    q = mul(q, std::cos(M_PI * lsp[2 * j + 1] / 16384.0));
  }
  std::vector<double> a(10);
  for (int k = 0; k < 10; ++k) a[k] = (p[k + 1] + q[k + 1]) / 2;
  return a;
}

TEST(LspToLpc, MatchesTheFloatingPointConversion) {
  testing::Rng rng(testing::test_seed("LspToLpcMatchesFloat"));
  for (int trial = 0; trial < 500; ++trial) {
    int idx[4];
    const testing::FullFields f = testing::random_full(rng, 40);
    std::copy(f.lsp, f.lsp + 4, idx);
    const std::vector<int> v = testing::lsp_from_indices(4, idx);
    int16_t lsp[10], lpc[10];
    for (int k = 0; k < 10; ++k) lsp[k] = static_cast<int16_t>(v[k]);
    const std::vector<double> want = lpc_from_lsp_float(lsp);
    kevrc_lsp2lpc(lsp, lpc);
    for (int k = 0; k < 10; ++k) ASSERT_NEAR(lpc[k] / 4096.0, want[k], 0.02) << trial << " " << k;
  }
}

TEST(Tables, FormulaTablesMatchTheirFormulas) {
  for (int k = 0; k <= 128; ++k) {
    EXPECT_EQ(kevrc_tbl_cos129[k], std::clamp(std::lround(32768 * std::cos(k * M_PI / 128)), -32768L, 32767L));
    EXPECT_EQ(kevrc_tbl_sin129[k], std::clamp(std::lround(32768 * std::sin(k * M_PI / 128)), -32768L, 32767L));
  }
  for (int i = 0; i < 49; ++i)
    EXPECT_EQ(kInvSqrtTable[i], std::min(32767L, std::lround(131072 / std::sqrt(16.0 + i))));
  for (int k = 0; k < 10; ++k) {
    EXPECT_NEAR(kevrcd_tbl_wfac_alpha[k], 32768 * std::pow(0.57, k + 1), 1.0);
    EXPECT_NEAR(kevrcd_tbl_wfac_beta[k], 32768 * std::pow(0.75, k + 1), 1.0);
    EXPECT_NEAR(kevrc_tbl_wfac_gamma_1[k], 32768 * std::pow(0.9, k + 1), 1.0);
    EXPECT_NEAR(kevrc_tbl_wfac_gamma_2[k], 32768 * std::pow(0.5, k + 1), 1.0);
    EXPECT_NEAR(kevrc_tbl_wfac_gamma_4[k], 32768 * std::pow(0.994, k + 1), 1.0);
  }
  for (int k = 0; k < 16; ++k) EXPECT_EQ(kevrc_tbl_fcb_gain_hr[k], kevrc_tbl_fcb_gain_fr[2 * k + 1]);
  // Interpolation windows: zero-phase rows have the cutoff at the centre and are symmetric.
  EXPECT_EQ(tbl_ham_win1[4 * 17 + 8], 29491);
  EXPECT_EQ(tbl_ham_win[4 * 7 + 3], 16384);
  for (int p = 1; p < 8; ++p)
    for (int k = 0; k < 17; ++k) EXPECT_EQ(tbl_ham_win1[p * 17 + k], tbl_ham_win1[(8 - p) * 17 + 16 - k]);
}

struct CodebookShape {
  const int16_t *table;
  std::vector<int> dims, entries;
  std::vector<std::pair<int, std::vector<int>>> fixed;  // codeword index -> values
};

TEST(Tables, LspCodebooksKeepTheirFixedRowsAndOrdering) {
  const CodebookShape shapes[] = {
      {kevrc_tbl_lsp_fr, {2, 2, 3, 3}, {64, 64, 512, 128},
       {{0, {465, 635}}, {1, {956, 2136}}, {64, {1710, 2747}}, {128, {4470, 5526, 6707}},
        {640, {9092, 10387, 12960}}, {767, {13466, 14440, 14815}}}},
      {kevrc_tbl_lsp_hr, {3, 3, 4}, {128, 128, 256},
       {{0, {443, 597, 1291}}, {1, {752, 1173, 3452}}, {128, {3198, 4053, 5552}},
        {256, {7763, 8392, 10386, 13354}}, {511, {12307, 13653, 14488, 14835}}}},
      {kevrc_tbl_lsp_1_8, {5, 5}, {16, 16},
       {{0, {1379, 2277, 3660, 4775, 6846}}, {1, {1800, 3219, 3607, 5207, 6733}},
        {16, {8789, 10022, 10194, 12066, 13361}}, {31, {9141, 10572, 11684, 13175, 13884}}}},
  };
  for (const CodebookShape &s : shapes) {
    std::vector<std::vector<int>> rows;
    int off = 0;
    for (size_t sp = 0; sp < s.dims.size(); ++sp) {
      for (int j = 0; j < s.entries[sp]; ++j, off += s.dims[sp]) {
        std::vector<int> row(s.table + off, s.table + off + s.dims[sp]);
        for (size_t k = 1; k < row.size(); ++k) ASSERT_GT(row[k], row[k - 1]) << "codeword " << rows.size();
        for (int v : row) ASSERT_TRUE(v > 0 && v < 16384);
        rows.push_back(row);
      }
    }
    for (const auto &[index, values] : s.fixed) EXPECT_EQ(rows[index], values) << "codeword " << index;
  }
}

TEST(Tables, EnergyGainTableRowsAndRange) {
  const std::pair<int, std::array<int, 3>> fixed[] = {{0, {121, 127, 99}},    {1, {956, 1292, 1260}},
                                                      {2, {338, 314, 407}},    {64, {60, 65, 73}},
                                                      {128, {116, 91, 107}},   {254, {8207, 7067, 579}},
                                                      {255, {12800, 15108, 14395}}};
  for (const auto &[row, values] : fixed)
    for (int k = 0; k < 3; ++k) EXPECT_EQ(kevrc_tbl_energy_gain[3 * row + k], values[k]) << row;
  for (int i = 0; i < 768; ++i) {
    EXPECT_GE(kevrc_tbl_energy_gain[i], 55);
    EXPECT_LE(kevrc_tbl_energy_gain[i], 17997);
  }
}

}  // namespace
}  // namespace kevrc
