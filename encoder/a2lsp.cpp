// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// LPC to LSP conversion by a root search on the frequency axis.
//
// kevrce_lpc2lsp(lpc_q12, lsp_q15):
//   lpc_q12[0..9] in:  a1..a10 of A(z) = 1 + sum a_k z^-k, Q12.
//   lsp_q15[0..9] out: the ten line spectral frequencies, Q15 of the sampling
//     rate (16384 = half of it); even indices are roots of the sum polynomial,
//     odd ones of the difference polynomial. Always within 0..16384.
// kevrce_a2lsp(work): work->lpc -> work->lsp.
//
// Sum and difference polynomials, Q23 (1.0 = 0x800000), with the roots at
// z = -1 and z = 1 divided out:
//   p_0 = q_0 = 1, p_k = (a_k + a_(11-k)) - p_(k-1), q_k = q_(k-1) + (a_k - a_(11-k)),
// then p_5 and q_5 halved. On the unit circle each is e^(-j5w) times
//   2 * C(cos w), C(x) = p_0 T_5(x) + p_1 T_4(x) + ... + p_4 T_1(x) + p_5/2,
// with T_m the Chebyshev polynomials. C is evaluated by the Clenshaw
// recursion b_n = 2x b_(n+1) - b_(n+2) + c_n in 32 bits with mul_32_32.
//
// Q handling of the evaluation: every intermediate b_n equals
// sum over m >= n of c_m U_(m-n)(x) with |U_j(x)| <= j + 1, and |C| <= sum |c_m|,
// so all of them are bounded by W = sum over m of (m + 1) |c_m|. Each
// polynomial's coefficients are scaled by one power of two (exactly, in 64
// bits) so that W lies in (2^29, 2^30]: a flat filter is evaluated with about
// 5 more bits than Q23 gives, and no coefficient set, however large (up to
// |p_k| < 2^30 from full-scale Q12 input), can overflow. The root search
// compares signs and magnitudes of one polynomial only, so the per-polynomial
// scale does not change which grid point is taken, beyond rounding.
//
// Root search: the frequency f runs in Q31 of the sampling rate on a grid of
// 0.00635 (13636520); at a sign change (a zero counts as one) or at half the
// sampling rate the step is halved three times to 1/8 of the grid, stepping
// back by each new half step; the root is whichever of the last two points
// has the smaller magnitude. Each search starts where the previous root's
// first change was seen. A polynomial whose roots are not all on the unit
// circle (an unstable filter) can leave a search at or beyond half the
// sampling rate, or below 0 when C(1) < 0; such roots are clamped to 0..16384.
// Every point visited is a multiple m of an eighth of the grid, -7 <= m <= 637
// (a search moves forward only below half the sampling rate, m < 630, by at
// most a grid step; it steps back at most 7/8 of one from its start >= 0), so
// the cosines come from kevrc_tbl_lsp_grid_cos.
#include <algorithm>

#include <kevrc/kevrc_kernels.h>
#include "common/cos129.h"
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

using namespace kevrc;

namespace {

constexpr int kOrder = 10;
constexpr int kTerms = 6;                  // T_0..T_5
constexpr int32_t kOneQ23 = 0x800000;      // 1.0 in Q23
constexpr int32_t kGridStep = 13636520;    // 0.00635 of the sampling rate, Q31
constexpr int32_t kHalfRate = 0x40000000;  // half the sampling rate, Q31
constexpr int kHalvings = 3;               // the final step is 1/8 of the grid
constexpr int32_t kPoint = kGridStep >> kHalvings;  // the finest step, Q31
constexpr int kGridPoints = 1 << kHalvings;         // the grid step in finest steps
constexpr int kHalfRatePoint = (kHalfRate + kPoint - 1) / kPoint;  // first point >= half rate
constexpr int kLowestPoint = 1 - kGridPoints;                      // -7
constexpr int kHighestPoint = kHalfRatePoint - 1 + kGridPoints;    // 637
static_assert(kPoint * kGridPoints == kGridStep, "the halvings are exact");
static_assert(kHighestPoint - kLowestPoint + 1 ==
              sizeof kevrc_tbl_lsp_grid_cos / sizeof kevrc_tbl_lsp_grid_cos[0]);
constexpr int64_t kHeadroom = int64_t{1} << 30;

struct Polynomial {
  int32_t c[kTerms];  // Chebyshev coefficients c_0..c_5, scaled by one power of two
  int32_t kept;       // last value seen by the root search
};

// Chebyshev coefficients (Q23) of the sum (sign +1) or difference (sign -1)
// polynomial: c_(5-k) = p_k for k = 0..4, c_0 = p_5 / 2.
void chebyshev_coefficients(const int16_t *lpc, int sign, int64_t *c) {
  int64_t prev = kOneQ23;
  c[kTerms - 1] = prev;
  for (int k = 1; k <= 5; ++k) {
    const int64_t pair =
        (int64_t{lpc[k - 1]} + sign * int64_t{lpc[kOrder - k]}) * 2048;  // Q12 -> Q23
    prev = sign > 0 ? pair - prev : prev + pair;
    c[kTerms - 1 - k] = prev;
  }
  c[0] >>= 1;
}

// Scales c by a power of two so that sum (m + 1)|c_m| lies in (2^29, 2^30].
Polynomial scaled(const int64_t *c) {
  int64_t w = 0;
  for (int m = 0; m < kTerms; ++m) w += (m + 1) * (c[m] < 0 ? -c[m] : c[m]);
  int right = 0, left = 0;
  while ((w >> right) > kHeadroom) ++right;
  while ((w << (left + 1)) <= kHeadroom) ++left;  // w >= 6 * 2^23 > 0
  Polynomial p{};
  for (int m = 0; m < kTerms; ++m)
    p.c[m] = static_cast<int32_t>((c[m] >> right) * (int64_t{1} << left));
  p.kept = INT32_MAX;
  return p;
}

int16_t q15_frequency(int32_t f) { return static_cast<int16_t>((f + 0x8000) >> 16); }

// C(cos f) at f = m * kPoint by the Clenshaw recursion. Every true
// intermediate is within 2^30 + a few units, so the wrapping steps give exact
// results.
int32_t evaluate(const Polynomial &p, int m) {
  const int32_t x = kevrc_tbl_lsp_grid_cos[m - kLowestPoint];  // cos in Q31
  int32_t b1 = p.c[kTerms - 1], b2 = 0;
  for (int n = kTerms - 2; n >= 1; --n) {
    const int32_t b0 = add32_wrap(sub32_wrap(shl32_wrap(mul_32_32(x, b1), 1), b2), p.c[n]);
    b2 = b1;
    b1 = b0;
  }
  return add32_wrap(sub32_wrap(mul_32_32(x, b1), b2), p.c[0]);
}

bool same_sign(int32_t v, int32_t kept) { return v != 0 && ((v < 0) == (kept < 0)); }

int64_t magnitude(int32_t v) { return v < 0 ? -int64_t{v} : int64_t{v}; }

// The next root of p at or after point start (in finest steps); start is
// moved to where this root's first sign change was seen.
int16_t next_root(Polynomial &p, int &start) {
  int m = start;
  int step = kGridPoints;
  int halvings = 0;
  int32_t v;
  for (;;) {
    v = evaluate(p, m);
    if (same_sign(v, p.kept) && m < kHalfRatePoint) {
      p.kept = v;
      m += step;
      continue;
    }
    if (halvings == kHalvings) break;
    step >>= 1;
    if (halvings == 0) start = m;
    ++halvings;
    m -= step;
  }
  const int32_t root = (magnitude(v) >= magnitude(p.kept) ? m - step : m) * kPoint;
  p.kept = p.kept < 0 ? INT32_MAX : INT32_MIN;  // the next root changes the other way
  return std::clamp<int16_t>(q15_frequency(root), 0, 16384);
}

}  // namespace

extern "C" void kevrce_lpc2lsp(const int16_t *lpc_q12, int16_t *lsp_q15) {
  int64_t c[kTerms];
  chebyshev_coefficients(lpc_q12, 1, c);
  Polynomial sum = scaled(c);
  chebyshev_coefficients(lpc_q12, -1, c);
  Polynomial difference = scaled(c);
  int start = 0;
  for (int i = 0; i < kOrder; ++i) lsp_q15[i] = next_root(i % 2 == 0 ? sum : difference, start);
}

extern "C" void kevrce_a2lsp(kevrce_work *work) { kevrce_lpc2lsp(work->lpc, work->lsp); }
