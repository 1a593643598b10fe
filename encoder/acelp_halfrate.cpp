// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Half-rate algebraic codebook search: three pulses with one shared sign bit,
// one per track (track 0 = {0, 7, ..., 49}, track 1 = {2, 9, ..., 51},
// track 2 = {4, 11, ..., 53}); the pulses alternate in sign (+ - + for sign
// bit 0, - + - for sign bit 1). All 8 x 8 x 8 triples are searched for the
// largest K^2 / E. Result: one 10-bit word.
//
// kevrce_algcbk_lowrate(work, d, L, impulse, code, filtered, index)
//   work      scratch  work->acelp.half (hn, R0..R2, M01, M02, M12).
//   d         in       d(0..53), the scaled backward-filtered target (zero
//                      from L on as the entry leaves it).
//   L         in       subframe length, 53 or 54 (0..55 are safe). The
//                      correlations end at sample L-1.
//   impulse   in       h(0..L-1), the pitch-sharpened impulse response, Q11.
//   code      out      c(0..L-1): three pulses of +-4096 (1.0 in Q12); a
//                      pulse at p >= L is coded in the word only.
//   filtered  out      y(0..L-1) = (sum of +-h(n - p) + 2) >> 2.
//   index     out      index[0] = sign bit * 512 + u0 * 64 + u1 * 8 + u2,
//                      u_k the pulse's index on its track (0..7).
#include <algorithm>
#include <cstdint>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

constexpr int kStep = kHalfTrackStep;
constexpr int kLen = kHalfTrackLen;
constexpr int16_t kDiv7 = 4682;  // 1/7 in Q15, exact for p <= 53

int position(int track, int i) { return 2 * track + kStep * i; }

// Steps 1-3: hn, the diagonal energies and the three cross matrices, all over
// the span 0..L-1.
void build_correlations(const int16_t *h, int L, kevrce_acelp_half_scratch &s) {
  acelp_normalise_impulse(h, L, s.hn);
  const int last = L - 1;
  static constexpr int kStarts[kHalfTracks] = {0, 2, 4};
  acelp_diagonal_energies(s.hn, last, kStarts, kStep, kHalfTracks, kLen, &s.diag[0][0]);
  // M01 and M12 (offset 2) share their lags; M02 (offset 4) has its own.
  static constexpr int kLow[2] = {0, 2};
  static constexpr int kHigh[2] = {2, 4};
  int16_t *const m01_m12[2] = {s.cross[0], s.cross[2]};
  acelp_cross_correlations(s.hn, last, kStep, kLen, 2, kLow, kHigh, m01_m12);
  int16_t *const m02[1] = {s.cross[1]};
  acelp_cross_correlations(s.hn, last, kStep, kLen, 1, kLow, kHigh + 1, m02);
}

struct Triple {
  int i[3];  // index on each track
};

// Step 4: the exhaustive search; the first maximum in scan order wins.
Triple search_triples(const int16_t *d, const kevrce_acelp_half_scratch &s) {
  const int16_t *r0 = s.diag[0];
  const int16_t *r1 = s.diag[1];
  const int16_t *r2 = s.diag[2];
  int16_t d2[kLen];  // d on track 2, gathered
  for (int i2 = 0; i2 < kLen; ++i2) d2[i2] = d[position(2, i2)];
  Triple best{{0, 0, 0}};
  int16_t e_best = 1;
  int16_t k2_best = -1;
  for (int i0 = 0; i0 < kLen; ++i0) {
    const int16_t d0 = d[position(0, i0)];
    const int16_t *m01 = s.cross[0] + i0 * kLen;
    const int16_t *m02 = s.cross[1] + i0 * kLen;
    int16_t e2[kLen];  // pulse 2's diagonal and its cross term with pulse 0
    for (int i2 = 0; i2 < kLen; ++i2) e2[i2] = add16_wrap(r2[i2], m02[i2]);
    for (int i1 = 0; i1 < kLen; ++i1) {
      const int16_t k01 = sub16_wrap(d0, d[position(1, i1)]);
      const int16_t e01 = wrap16(int32_t{r0[i0]} + r1[i1] - m01[i1]);
      const int16_t *m12 = s.cross[2] + i1 * kLen;
      int16_t k2[kLen], e[kLen];
      int64_t gain = INT64_MIN;  // the row's largest improvement over the best so far
      for (int i2 = 0; i2 < kLen; ++i2) {
        const int16_t k = add16_wrap(k01, d2[i2]);
        k2[i2] = wrap16(mul16(k, k) >> 15);
        e[i2] = wrap16(int32_t{e01} + e2[i2] - m12[i2]);
        gain = std::max(gain, int64_t{e_best} * k2[i2] - int64_t{k2_best} * e[i2]);
      }
      if (gain <= 0) continue;  // no candidate beats the row-start best: no update
      for (int i2 = 0; i2 < kLen; ++i2) {
        // k2 / e > k2_best / e_best, cross-multiplied without overflow.
        if (int64_t{e_best} * k2[i2] - int64_t{k2_best} * e[i2] > 0) {
          e_best = e[i2];
          k2_best = k2[i2];
          best = {{i0, i1, i2}};
        }
      }
    }
  }
  return best;
}

}  // namespace
}  // namespace kevrc

extern "C" void kevrce_algcbk_lowrate(kevrce_work *work, const int16_t *d, int16_t L,
                                      const int16_t *impulse, int16_t *code, int16_t *filtered,
                                      int16_t *index) {
  using namespace kevrc;
  kevrce_acelp_half_scratch &s = work->acelp.half;
  build_correlations(impulse, L, s);
  const Triple t = search_triples(d, s);

  int16_t pos[kHalfTracks];
  for (int k = 0; k < kHalfTracks; ++k) pos[k] = static_cast<int16_t>(position(k, t.i[k]));
  const int16_t k_best = wrap16(int32_t{d[pos[0]]} + d[pos[2]] - d[pos[1]]);
  const bool sign_bit = k_best < 0;

  for (int n = 0; n < L; ++n) code[n] = 0;
  bool negative[kHalfTracks];
  int word = sign_bit ? 512 : 0;
  for (int k = 0; k < kHalfTracks; ++k) {
    negative[k] = (k != 1) == sign_bit;
    if (pos[k] < L) code[pos[k]] = negative[k] ? int16_t{-kAcelpPulse} : kAcelpPulse;
    const int u = (pos[k] * kDiv7) >> 15;
    word += u << (3 * (2 - k));  // u0 in bits 6-8, u1 in 3-5, u2 in 0-2
  }
  acelp_filter_pulses(impulse, L, pos, negative, kHalfTracks, filtered);
  index[0] = static_cast<int16_t>(word);
}
