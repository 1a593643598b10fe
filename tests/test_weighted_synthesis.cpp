// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Weighted synthesis chain 1/Aq(z) -> A(z/0.9) -> 1/A(z/0.5): impulse
// response, zero-input response and memory update.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "common/fixed_point.h"
#include "encoder/encoder_state.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

struct Chain {
  Chain() : enc(std::make_unique<kevrce_instance>()), work(std::make_unique<kevrce_work>()) {
    enc->work = work.get();
  }
  std::vector<int16_t> memories() const {
    std::vector<int16_t> m(enc->syn_mem, enc->syn_mem + 10);
    m.insert(m.end(), enc->wnum_mem, enc->wnum_mem + 10);
    m.insert(m.end(), enc->wden_mem, enc->wden_mem + 10);
    return m;
  }
  std::unique_ptr<kevrce_instance> enc;
  std::unique_ptr<kevrce_work> work;
};

std::vector<int16_t> random_signal(testing::Rng &rng, int n, int amp) {
  std::vector<int16_t> x(n);
  for (auto &s : x) s = static_cast<int16_t>(static_cast<int>(rng.below(2 * amp + 1)) - amp);
  return x;
}

// Weighted coefficients as the chain uses them: g^(k+1) a[k] rounded to Q12.
void weigh(const int16_t *a, const int16_t *gamma, int16_t *out) {
  for (int k = 0; k < 10; ++k) out[k] = static_cast<int16_t>((gamma[k] * a[k] + 16384) >> 15);
}

// The chain by hand with the shared filters.
void chain_by_hand(const int16_t *a, const int16_t *aq, int16_t *syn, int16_t *num, int16_t *den,
                   const int16_t *x, int n, int16_t *y) {
  int16_t wa1[10], wa2[10];
  weigh(a, kevrc_tbl_wfac_gamma_1, wa1);
  weigh(a, kevrc_tbl_wfac_gamma_2, wa2);
  kevrc_iir(x, aq, syn, static_cast<int16_t>(n), y);
  kevrc_fir(y, wa1, num, static_cast<int16_t>(n), y);
  kevrc_iir(y, wa2, den, static_cast<int16_t>(n), y);
}

// ---------------------------------------------------------------------------
// Impulse response

// A chain with random coefficient sets whose memories have run over one
// 53-sample random excitation (update form).
struct Primed {
  explicit Primed(testing::Rng &rng) {
    testing::random_lpc(rng, a, 200);
    testing::random_lpc(rng, aq, 200);
    exc = random_signal(rng, 53, 3000);
    std::vector<int16_t> out(53);
    kevrce_zeroinput(c.enc.get(), a, aq, exc.data(), 53, 1, out.data());
  }
  Chain c;
  int16_t a[10], aq[10];
  std::vector<int16_t> exc;
};

TEST(WeightedSynthesis, ImpulseResponseHandWorked) {
  const int16_t zero[10] = {};
  const int16_t half[10] = {-2048};  // a1 = -0.5 in Q12
  int16_t h[54], scratch[20];
  // 1/Aq with aq1 = -0.5 alone: 2048 >> i, and from 1 on the rounding
  // (-16 * 1 * -2048 + 32768) >> 16 = 1 holds the tail at 1.
  kevrce_weighed_imp_res(zero, half, h, scratch);
  for (int i = 0; i < 54; ++i) EXPECT_EQ(h[i], i <= 11 ? 2048 >> i : 1) << i;
  // The weighting alone, (1 - 0.45 z^-1) / (1 - 0.25 z^-1):
  // w1 = (2 * -2048 * 29491 + 32768) >> 16 = -1843, w2 = (2 * -2048 * 16384 + 32768) >> 16 = -1024;
  // h1: f = (2 * 2048 * -1843) << 3 = -60391424 -> (f + 32768) >> 16 = -921,
  //     ((-921 << 13) - 2 * 2048 * -1024) << 3 = -26804224 -> -409 (exact -409.6).
  kevrce_weighed_imp_res(half, zero, h, scratch);
  const int16_t want[7] = {2048, -409, -102, -25, -6, -1, 0};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(h[i], want[i]) << i;
  // Both: (1 - 0.45 z^-1) / ((1 - 0.5 z^-1)(1 - 0.25 z^-1)), exactly
  // 2048 * (0.2 * 0.5^i + 0.8 * 0.25^i) = 2048, 614.4, 204.8, 76.8, 32, ...;
  // the rounded recursions give:
  kevrce_weighed_imp_res(half, half, h, scratch);
  const int16_t both[10] = {2048, 615, 205, 77, 32, 14, 7, 4, 2, 1};
  for (int i = 0; i < 10; ++i) EXPECT_EQ(h[i], both[i]) << i;
}

// ---------------------------------------------------------------------------
// Zero-input response and update

TEST(WeightedSynthesis, ZeroInputLeavesMemoriesAndRepeats) {
  testing::Rng rng(testing::test_seed("WeightedSynthesis.ZeroInputLeavesMemories"));
  Primed p(rng);
  Chain &c = p.c;
  const int16_t *a = p.a, *aq = p.aq;
  const std::vector<int16_t> mem = c.memories();
  std::vector<int16_t> first(54), second(54);
  kevrce_zeroinput(c.enc.get(), a, aq, nullptr, 54, 0, first.data());
  EXPECT_EQ(c.memories(), mem);
  kevrce_zeroinput(c.enc.get(), a, aq, nullptr, 54, 0, second.data());
  EXPECT_EQ(first, second);
  EXPECT_NE(first, std::vector<int16_t>(54, 0));
}

TEST(WeightedSynthesis, UpdateFormIsTheThreeFiltersInCascade) {
  testing::Rng rng(testing::test_seed("WeightedSynthesis.UpdateFormIsTheThreeFilters"));
  Chain c;
  int16_t syn[10] = {}, num[10] = {}, den[10] = {};
  for (int sub = 0; sub < 12; ++sub) {
    int16_t a[10], aq[10];
    testing::random_lpc(rng, a, 150);
    testing::random_lpc(rng, aq, 150);
    const int n = sub % 3 == 2 ? 54 : 53;
    // Loud enough, now and then, to saturate the synthesis filters.
    const std::vector<int16_t> exc = random_signal(rng, n, sub % 4 == 3 ? 32767 : 4000);
    std::vector<int16_t> got(n), want(n);
    kevrce_zeroinput(c.enc.get(), a, aq, exc.data(), static_cast<int16_t>(n), 1, got.data());
    chain_by_hand(a, aq, syn, num, den, exc.data(), n, want.data());
    ASSERT_EQ(got, want) << sub;
    ASSERT_EQ(0, std::memcmp(c.enc->syn_mem, syn, sizeof syn));
    ASSERT_EQ(0, std::memcmp(c.enc->wnum_mem, num, sizeof num));
    ASSERT_EQ(0, std::memcmp(c.enc->wden_mem, den, sizeof den));
  }
}

TEST(WeightedSynthesis, UpdateThenZeroInputIsTheRinging) {
  testing::Rng rng(testing::test_seed("WeightedSynthesis.UpdateThenZeroInputIsTheRinging"));
  for (int trial = 0; trial < 20; ++trial) {
    Chain c;
    int16_t a[10], aq[10];
    testing::random_lpc(rng, a, 200);
    testing::random_lpc(rng, aq, 200);
    // One pass of the chain over the excitation followed by 54 zeros ...
    std::vector<int16_t> x = random_signal(rng, 53, 5000);
    x.resize(53 + 54, 0);
    int16_t syn[10] = {}, num[10] = {}, den[10] = {};
    std::vector<int16_t> y(x.size());
    chain_by_hand(a, aq, syn, num, den, x.data(), static_cast<int>(x.size()), y.data());
    // ... equals the update form over the excitation, then the zero-input form.
    std::vector<int16_t> head(53), ring(54);
    kevrce_zeroinput(c.enc.get(), a, aq, x.data(), 53, 1, head.data());
    kevrce_zeroinput(c.enc.get(), a, aq, nullptr, 54, 0, ring.data());
    ASSERT_TRUE(std::equal(head.begin(), head.end(), y.begin()));
    ASSERT_TRUE(std::equal(ring.begin(), ring.end(), y.begin() + 53)) << trial;
  }
}

TEST(WeightedSynthesis, UpdateInPlaceOverTheExcitation) {
  testing::Rng rng(testing::test_seed("WeightedSynthesis.UpdateInPlace"));
  Chain c1, c2;
  int16_t a[10], aq[10];
  testing::random_lpc(rng, a, 200);
  testing::random_lpc(rng, aq, 200);
  std::vector<int16_t> exc = random_signal(rng, 54, 3000), out(54);
  kevrce_zeroinput(c1.enc.get(), a, aq, exc.data(), 54, 1, out.data());
  kevrce_zeroinput(c2.enc.get(), a, aq, exc.data(), 54, 1, exc.data());
  EXPECT_EQ(exc, out);
  EXPECT_EQ(c1.memories(), c2.memories());
}

TEST(WeightedSynthesis, ZeroLengthChangesNothing) {
  testing::Rng rng(testing::test_seed("WeightedSynthesis.ZeroLength"));
  Primed p(rng);
  Chain &c = p.c;
  const int16_t *a = p.a, *aq = p.aq;
  const std::vector<int16_t> &exc = p.exc;
  const std::vector<int16_t> mem = c.memories();
  std::vector<int16_t> untouched(4, 1234);
  for (int16_t n : {int16_t{0}, int16_t{-5}}) {
    for (int16_t update : {int16_t{0}, int16_t{1}}) {
      kevrce_zeroinput(c.enc.get(), a, aq, exc.data(), n, update, untouched.data());
      EXPECT_EQ(untouched, std::vector<int16_t>(4, 1234));
      EXPECT_EQ(c.memories(), mem);
    }
  }
}

}  // namespace
}  // namespace kevrc
