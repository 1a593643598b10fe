// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Algebraic fixed-codebook searches: the search entry (sharpening, backward
// filtering, scaling, gain), the full-rate 8-pulse search and its kernels,
// and the half-rate 3-pulse search.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "common/fixed_point.h"
#include "encoder/encoder_state.h"
#include "tests/test_util.h"

namespace kevrc {
namespace {

using testing::Rng;

constexpr int kN = 55;
using Vec = std::array<int16_t, kN>;

struct SearchIn {
  Vec target{}, residual{}, impulse{};
  int16_t lag = 200;  // no sharpening
  int16_t pitch_gain = 0;
  int16_t L = 54;
};

struct SearchOut {
  Vec target{}, residual{}, impulse{};  // as the call leaves them
  Vec code{}, filtered{};
  int16_t gain = -999;
  std::array<int16_t, 10> index{};
};

SearchOut run_search(kevrce_work &w, const SearchIn &in, bool full_rate) {
  SearchOut o;
  o.target = in.target;
  o.residual = in.residual;
  o.impulse = in.impulse;
  o.code.fill(0x5555);
  o.filtered.fill(0x5555);
  o.index.fill(0x7777);
  kevrce_acelp_cbk_search(&w, o.target.data(), o.residual.data(), o.impulse.data(), in.lag,
                          in.pitch_gain, in.L, o.filtered.data(), full_rate ? 1 : 0, o.code.data(),
                          &o.gain, o.index.data());
  return o;
}

// A subframe whose response is h(0) alone (2048 = 1.0 in Q11).
SearchIn unit_case(int16_t h0 = 2048) {
  SearchIn in;
  in.impulse[0] = h0;
  return in;
}

int rand_range(Rng &rng, int lo, int hi) { return lo + static_cast<int>(rng.below(hi - lo + 1)); }

// A weighted-synthesis impulse response (Q11) of a random stable LPC vector,
// drawn again until it stays well inside 16 bits (energy sum 2 h^2 < 2^30).
Vec realistic_impulse(Rng &rng) {
  for (;;) {
    int16_t a[10], scratch[20];
    testing::random_lpc(rng, a, 400);
    Vec h{};
    kevrce_weighed_imp_res(a, a, h.data(), scratch);
    double e = 0;
    for (int16_t v : h) e += 2.0 * v * v;
    if (e < 1073741824.0) return h;
  }
}

// A decaying random response with h(0) = 2048.
Vec decaying_impulse(Rng &rng) {
  Vec h{};
  h[0] = 2048;
  double amp = 1500;
  for (int n = 1; n < 54; ++n, amp *= 0.85)
    h[n] = static_cast<int16_t>(rand_range(rng, -static_cast<int>(amp), static_cast<int>(amp)));
  return h;
}

// A random subframe: the residual-domain target r is a few strong pulses over
// noise, the target is r filtered by h (Q11) plus noise, as the encoder's two
// references relate.
SearchIn random_case(Rng &rng, bool realistic_h) {
  SearchIn in;
  in.L = rng.chance(50) ? 53 : 54;
  in.impulse = realistic_h ? realistic_impulse(rng) : decaying_impulse(rng);
  const int amp = rand_range(rng, 50, 8000);
  for (int n = 0; n < in.L; ++n)
    in.residual[n] = static_cast<int16_t>(rand_range(rng, -amp, amp) / 4);
  for (int k = 0; k < 6; ++k)
    in.residual[rng.below(in.L)] = static_cast<int16_t>(rand_range(rng, -amp, amp));
  for (int n = 0; n < in.L; ++n) {
    int64_t y = 0;
    for (int m = 0; m <= n; ++m) y += int64_t{in.residual[m]} * in.impulse[n - m];
    y = (y >> 11) + rand_range(rng, -amp / 8, amp / 8);
    in.target[n] = static_cast<int16_t>(std::clamp<int64_t>(y, -32768, 32767));
  }
  return in;
}

// The decoder's reading of the words: pulses +-1 (+-2 for two at one place).
void decode_words(const SearchOut &o, bool full, int16_t *v, int len) {
  if (full)
    kvrcd_fcb_fr(o.index.data(), v, len);
  else
    kvrcd_fcb_hr(o.index[0], v, len);
}

// x(n) += (x(n - T) f) >> 15 for n = T..L-1, forward and in place, with the
// factor f (Q15) = 2 * pitch gain clamped to 6554..29492 (29492 from 14747 on).
// A negative T disables it, as T >= L does.
Vec sharpen(Vec x, const SearchIn &in) {
  const int g = in.pitch_gain, f = g >= 14747 ? 29492 : g < 3277 ? 6554 : 2 * g;
  if (in.lag < 0) return x;
  for (int n = in.lag; n < in.L; ++n)
    x[n] = wrap16(x[n] + ((x[n - in.lag] * f) >> 15));
  return x;
}

// Checks well-formed words; h sharpened; the codevector the decoder's reading
// of the words (c = 4096 v), sharpened; and y(n) = (sum_m v(m) h(n - m) + 2,
// as 16 bits) >> 2 with the sharpened h.
void expect_matches_decoder(const SearchIn &in, const SearchOut &o, bool full) {
  for (int w = 0; w < (full ? 4 : 1); ++w) {
    EXPECT_GE(o.index[w], 0);
    EXPECT_LT(o.index[w], !full ? 1024 : w < 3 ? 256 : 2048);
    if (full) {
      EXPECT_LE(o.index[w] & 127, 120);
    }
  }
  int16_t v[kN] = {};
  if (full) {
    decode_words(o, true, v, kN);
    int pulses = 0;
    for (int16_t p : v) pulses += std::abs(p);
    EXPECT_EQ(pulses, 8);
    std::fill(v + in.L, v + kN, int16_t{0});
  } else {
    decode_words(o, false, v, in.L);
  }
  const Vec h = sharpen(in.impulse, in);
  Vec c{};
  for (int n = 0; n < in.L; ++n) c[n] = static_cast<int16_t>(4096 * v[n]);
  c = sharpen(c, in);
  for (int n = 0; n < kN; ++n) ASSERT_EQ(o.impulse[n], h[n]) << "n=" << n;
  for (int n = 0; n < in.L; ++n) {
    ASSERT_EQ(o.code[n], c[n]) << "n=" << n;
    int32_t s = 2;
    for (int m = 0; m <= n; ++m) s += v[m] * h[n - m];
    ASSERT_EQ(o.filtered[n], wrap16(s) >> 2) << "n=" << n;
  }
}

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// The kernels' products and sums, at their wrap points.
TEST(AcelpKernels, BufMulAccumulateAndCorelationExact) {
  int16_t factors[kN];
  for (int q = 0; q < kN; ++q) factors[q] = (q % 2) != 0 ? int16_t{-32768} : int16_t{32767};
  // Track 3: q = 3 (-), 8 (+), 13 (-), ..., 53: 11 entries, (entry f) >> 15.
  int16_t row[12] = {100, 100, -32768, 0, 0, 0, 0, 0, 0, 0, 0, 1234};
  EXPECT_EQ(kevrce_buf_mul(row, factors, 3), row + 11);
  EXPECT_EQ(row[0], -100);
  EXPECT_EQ(row[1], 99);      // 99.997 truncated
  EXPECT_EQ(row[2], -32768);  // (-32768 * -32768) >> 15 = 32768 wraps
  EXPECT_EQ(row[11], 1234);   // untouched
  EXPECT_EQ(kevrce_buf_mul(row, factors, 55), row);  // a start past 54 changes nothing
  EXPECT_EQ(row[0], -100);

  int16_t acc[kN] = {}, u[kN] = {}, v[kN] = {};
  acc[0] = 32767, u[0] = 1;      // wraps to -32768
  acc[54] = -32768, v[54] = -1;  // wraps to 32767
  kevrce_buf_accumulate(acc, u, v);
  EXPECT_EQ(acc[0], -32768);
  EXPECT_EQ(acc[54], 32767);

  // compute_corelation: out(i) = ((s(p) v) >> 15) + R(i), v = (2c + 32768) >> 16.
  // The last position reads acc(54) only: c = 16384 * 7, v = 4, (32767 * 4) >> 15 = 3.
  int16_t hn[kN] = {}, s[kN], R[11] = {}, out[11];
  std::fill(s, s + kN, int16_t{32767});
  std::fill(acc, acc + kN, int16_t{0});
  hn[0] = 16384;
  acc[54] = 7;
  R[10] = 100;
  kevrce_compute_corelation(hn, acc, 4, s, R, out);
  EXPECT_EQ(out[10], 100 + 3);
  // The sum wraps in 32 bits before it is doubled in 64: c = 3 * 32767^2 =
  // 3221028867 wraps to -1073938429; v = (2c + 32768) >> 16 = -32774;
  // (32767 * -32774) >> 15 = -32773, which wraps to 32763 in 16 bits.
  std::fill(acc, acc + kN, int16_t{0});
  for (int k = 0; k < 3; ++k) hn[k] = acc[k] = 32767;
  kevrce_compute_corelation(hn, acc, 0, s, R, out);
  EXPECT_EQ(out[0], 32763);
}

// Pair search on tracks 0 and 1 with flat energies, so that the correlation
// decides: d = 1000 at 5 (track 0), 800 at 1 and at 11 (track 1).
TEST(AcelpKernels, SearchBestPulse) {
  int16_t d[kN] = {}, B[kN] = {}, V1[11], V2[11], M[121] = {};
  std::fill(V1, V1 + 11, int16_t{100});
  std::fill(V2, V2 + 11, int16_t{100});
  d[5] = 1000, d[1] = 800, d[11] = 800;
  using A4 = std::array<int16_t, 4>;
  auto run = [&](int16_t k0, int16_t e0, int16_t t1 = 0, int16_t t2 = 1) {
    const int16_t tracks[2] = {t1, t2};
    int16_t state[4] = {k0, e0, -1, -1};
    kevrce_search_best_pulse(tracks, d, B, V1, V2, M, state);
    return A4{state[0], state[1], state[2], state[3]};
  };
  EXPECT_EQ(run(0, 0), (A4{1800, 200, 5, 1}));     // (5, 11) ties: the first wins
  EXPECT_EQ(run(100, 50), (A4{1900, 250, 5, 1}));  // K0 and E0 carry
  M[1 * 11 + 2] = -100;                            // lowers E of (5, 11) to 100
  EXPECT_EQ(run(0, 0), (A4{1800, 100, 5, 11}));
  M[1 * 11 + 2] = 0;
  // Row p = 5 is not selectable: the first row (p = 0) with q = 1 (K = 800) wins.
  B[5] = -1;
  EXPECT_EQ(run(0, 0), (A4{800, 200, 0, 1}));
  // A first track past 54: K = d(t1) + K0 + d(t2) with d(60) read as 0, E = 1.
  EXPECT_EQ(run(7, 3, 60), (A4{807, 1, 60, 1}));
  // A second track of ten positions (6, 11, ..., 51): (0, 11) wins.
  EXPECT_EQ(run(0, 0, 0, 6), (A4{800, 200, 0, 11}));
}

// ---------------------------------------------------------------------------
// Search entry
// ---------------------------------------------------------------------------

// Both rates, with and without sharpening: h is sharpened in place, the
// codevector is the decoder's reading of the words, sharpened, and y is the
// decoded pulses through the sharpened h. The pitch gains include the
// factor's thresholds (f = 29492 for 14747 and for 14746 = 29492 / 2; 6554
// for 3277 and for 3276); the lags include T = L (off) and T = L - 1.
TEST(AcelpSearch, CodevectorAndFilteredVectorMatchTheDecoder) {
  Rng rng(testing::test_seed("AcelpSearch.MatchesDecoder"));
  auto w = std::make_unique<kevrce_work>();
  const int16_t gains[] = {14747, 14746, 3277, 3276, 8000, 20000, -5};
  for (int iter = 0; iter < 800; ++iter) {
    const bool full = iter % 2 == 0;
    SearchIn in = random_case(rng, iter % 4 < 2);
    if (iter % 5 == 0) in.residual.fill(0);
    const int lags[] = {200, in.L, in.L - 1, rand_range(rng, 20, 60)};
    in.lag = static_cast<int16_t>(lags[(iter / 4) % 4]);
    in.pitch_gain = gains[rng.below(7)];
    expect_matches_decoder(in, run_search(*w, in, full), full);
    if (HasFailure()) {
      ADD_FAILURE() << "iter " << iter;
      return;
    }
  }
}

// Near full scale the headroom shift turns right (the double model stops
// at 2^30). Unit response h(0) = -32768, x(10) = -32767:
TEST(AcelpSearch, BackwardFilteringAndScalingExact) {
  auto w = std::make_unique<kevrce_work>();
  const int16_t *d = w->acelp.d;
  // D = 2 * 32767 * 32768 = 2147418112 on one track: S = 5 + 1073709056,
  // norm 1, e = -1: d = ((D >> 1) + 32768) >> 16 = 16384.
  SearchIn in = unit_case(-32768);
  in.target[10] = -32767;
  run_search(*w, in, false);
  EXPECT_EQ(d[10], 16384);
  // The same on two tracks: S = 2147418117, norm 0, e = -2: d = 8192.
  in.target[11] = -32767;
  run_search(*w, in, false);
  EXPECT_EQ(d[10], 8192);
  EXPECT_EQ(d[11], 8192);
}

// Gain 0 when the target does not correlate with y (and the one exception
// the modulo-32 shift count makes).
TEST(AcelpSearch, ZeroGainWithoutPositiveCorrelation) {
  auto w = std::make_unique<kevrce_work>();
  // Half rate, a target only where no pulse can go: K = 0 for every triple,
  // so the first triple (0, 2, 4) stays with sign 0; x.y = 0 and N = 1.
  // Nn = 2^30 passes the floor, but the quotient (8192 << 15) / 24576 = 10922
  // is shifted out by 30 + 6 - 12 = 24.
  SearchIn in = unit_case();
  in.target[1] = 1000;
  in.target[3] = -700;
  SearchOut o = run_search(*w, in, false);
  EXPECT_EQ(o.index[0], 0);
  EXPECT_EQ(o.code[0], 4096);
  EXPECT_EQ(o.code[2], -4096);
  EXPECT_EQ(o.code[4], 4096);
  EXPECT_EQ(o.gain, 0);
  // The same with h(0) = 32767: y = 8192, -8192, 8192, Q = 6 * 4096^2, e2 = 4,
  // Qh = 24576, and the shift count 30 + 6 - 4 = 32 wraps to 0: the gain is
  // the bare quotient 10922.
  in.impulse[0] = 32767;
  o = run_search(*w, in, false);
  EXPECT_EQ(o.index[0], 0);
  EXPECT_EQ(o.gain, 10922);
  // Full rate, anti-correlated: with h(0) = 30000 the double pulse at 10
  // filters to 60002 wrapped to 16 bits, -5534 >> 2 = -1384, so x.y < 0
  // although the pulses follow the target.
  in = unit_case(30000);
  in.target[10] = 1000;
  o = run_search(*w, in, true);
  ASSERT_EQ(o.code[10], 8192);
  EXPECT_EQ(o.filtered[10], -1384);
  EXPECT_EQ(o.gain, 0);
}

// ---------------------------------------------------------------------------
// Full rate
// ---------------------------------------------------------------------------

// Unit response, d at position 10 only: the best configurations put both
// pulses of track 0 there (K doubles while E grows by less than 4x):
// code(10) = +-8192 and the word of track 0 has lo = hi = 2 (2 + 11 * 2 = 24),
// with the sign bit (128) for a negative target. Configurations 0 and 3 (both
// with two pulses on track 0) tie exactly: the earlier one stays.
TEST(AcelpFullRate, TwoPulsesAtOnePosition) {
  auto w = std::make_unique<kevrce_work>();
  for (int sign : {1, -1}) {
    SearchIn in = unit_case();
    in.target[10] = static_cast<int16_t>(1000 * sign);
    const SearchOut o = run_search(*w, in, true);
    EXPECT_EQ(o.code[10], 8192 * sign);
    EXPECT_EQ(o.index[3] >> 9, 0);
    EXPECT_EQ(o.index[0], 24 + (sign < 0 ? 128 : 0));
  }
}

// Two-tap response (2048, 1024), L = 53, target at 0 and 8: configuration 3
// (two pulses on tracks 3, 4 and 0) wins, and the second track-4 pulse has
// no target to follow; position 54, where only h(0) of its response lies in
// the span, costs the least energy. It is coded in word 1 but leaves code and
// y untouched.
TEST(AcelpFullRate, PulseBeyondTheSubframeIsCodedOnly) {
  auto w = std::make_unique<kevrce_work>();
  SearchIn in = unit_case();
  in.L = 53;
  in.impulse[1] = 1024;
  in.target[0] = 3000;
  in.target[8] = 2000;
  const SearchOut o = run_search(*w, in, true);
  expect_matches_decoder(in, o, true);
  ASSERT_EQ(o.index[3] >> 9, 3);
  int16_t all[kN] = {};
  decode_words(o, true, all, kN);
  EXPECT_EQ(all[54], 1);
  EXPECT_EQ(o.code[0], 8192);
  EXPECT_EQ(o.code[8], 8192);
  EXPECT_EQ(o.filtered[52], 0);  // no pulse at 51 or 52
}

// Signs and pre-selection values with r != 0, on track 0 only:
//   d = 100, 400, -200 and r = -600, -100, 300 at p = 0, 5, 10.
//   Ed = 420000: nd = 12, Edh = 26250; Er = 920000: nr = 11, Erh = 28750;
//   P = 2 * 28750 * 26250 = 1509375000, np = 0; total = 23 (odd):
//   sq = squar_rt(P) * 23170 >> 15 = 19425; a = 14, b = 12, m = 12.
//   beta = (2 * 26250 * r >> 2) + 2 * d * 19425 = -3990000, 14227500, -3832500;
//   B = |beta| >> 8 = 15585, 32767 (saturated), 14970.
// At p = 0 the residual outweighs the target (r / |r| = -0.89 against
// 2 d / |d| = 0.44), so the sign there is negative although d is positive.
// The five weakest B go (-1): the zeros at 30..50, scanned last among equals.
TEST(AcelpFullRate, SignsAndPreselectionValuesExact) {
  auto w = std::make_unique<kevrce_work>();
  int16_t d[kN] = {}, r[kN] = {};
  d[0] = 100, d[5] = 400, d[10] = -200;
  r[0] = -600, r[5] = -100, r[10] = 300;
  const Vec h = unit_case().impulse;
  int16_t code[kN], y[kN], index[10];
  kevrce_algcbk_fullrate(w.get(), d, r, 54, h.data(), code, y, index);
  const kevrce_acelp_full_scratch &s = w->acelp.full;
  EXPECT_EQ(s.sign[0], -32768);
  EXPECT_EQ(s.sign_neg[0], 32767);
  EXPECT_EQ(s.sign[5], 32767);
  EXPECT_EQ(s.sign[10], -32768);
  EXPECT_EQ(d[0], -100);  // folded to the sign of its position
  EXPECT_EQ(d[5], 400);
  EXPECT_EQ(d[10], 200);
  EXPECT_EQ(r[0], 15585);
  EXPECT_EQ(r[5], 32767);
  EXPECT_EQ(r[10], 14970);
  for (int p = 15; p <= 50; p += 5) EXPECT_EQ(r[p], p < 30 ? 0 : -1) << p;
}

// ---------------------------------------------------------------------------
// Half rate
// ---------------------------------------------------------------------------

// Unit response: all R = 512 for positions inside the subframe and 0 for
// position 53 when L = 53; all M = 0. With d only on tracks 0 and 1, pulse 2
// costs nothing at 53: it is coded (u2 = 7) but not placed.
TEST(AcelpHalfRate, ThirdPulseAt53WithL53) {
  auto w = std::make_unique<kevrce_work>();
  int16_t d[kN] = {};
  d[0] = 10000;
  d[2] = -10000;
  const Vec h = unit_case().impulse;
  Vec code, y;
  code.fill(0x5555);
  int16_t index[10] = {};
  kevrce_algcbk_lowrate(w.get(), d, 53, h.data(), code.data(), y.data(), index);
  EXPECT_EQ(index[0], 7);  // sign 0, u0 = 0, u1 = 0, u2 = 7
  for (int n = 0; n < 53; ++n) EXPECT_EQ(code[n], n == 0 ? 4096 : n == 2 ? -4096 : 0) << n;
  EXPECT_EQ(code[53], 0x5555);  // not written
  EXPECT_EQ(y[0], 512);
  EXPECT_EQ(y[2], -512);
  // With L = 54 the same d picks the first track-2 position (all E equal).
  kevrce_algcbk_lowrate(w.get(), d, 54, h.data(), code.data(), y.data(), index);
  EXPECT_EQ(index[0], 0);
  EXPECT_EQ(code[4], 4096);
}

// K = d(p0) - d(p1) + d(p2) < 0 at the best triple: sign bit 1 and pulses
// minus, plus, minus.
TEST(AcelpHalfRate, NegativeCorrelationSetsSignBit) {
  auto w = std::make_unique<kevrce_work>();
  int16_t d[kN] = {};
  d[7] = -10000;  // u0 = 1
  d[16] = 9000;   // u1 = 2
  d[25] = -8000;  // u2 = 3
  const Vec h = unit_case().impulse;
  Vec code{}, y{};
  int16_t index[10] = {};
  kevrce_algcbk_lowrate(w.get(), d, 54, h.data(), code.data(), y.data(), index);
  EXPECT_EQ(index[0], 512 + 64 * 1 + 8 * 2 + 3);
  EXPECT_EQ(code[7], -4096);
  EXPECT_EQ(code[16], 4096);
  EXPECT_EQ(code[25], -4096);
}

}  // namespace
}  // namespace kevrc
