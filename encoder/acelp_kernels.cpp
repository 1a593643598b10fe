// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Kernels of the full-rate algebraic codebook search (8 pulses on five
// interleaved tracks of 11 positions, track t = {t, t+5, ..., t+50}), and the
// two helpers that the full- and half-rate searches share.
//
// kevrce_buf_mul(row, factors, t) -> row advanced
//   row      in/out  one row of a cross-correlation matrix, one entry per
//                    position q = t, t+5, ..., <= 54, in that order.
//   factors  in      factors[0..54], Q15 (+32767 / -32768 in use).
//   t        in      first position of the row's column track; t > 54 (or
//                    t < 0) changes nothing.
//   Each entry becomes (entry * factors[q]) >> 15, kept as 16 bits; returns
//   the pointer just past the last entry changed.
//
// kevrce_buf_accumulate(acc, u, v)
//   acc  in/out  55 values; acc(n) += u(n) + v(n), 16-bit wrap, n = 0..54.
//   u, v in      55 values each (shifted pulse responses).
//
// kevrce_compute_corelation(hn, acc, t, s, R, out)
//   hn   in   normalised impulse response hn(0..54).
//   acc  in   acc(0..54), the signed responses of the pulses placed so far.
//   t    in   track start 0..4; out(i) is for position p = t + 5i.
//   s    in   s(0..54), Q15 signs.
//   R    in   R_t(0..10), the track's diagonal energies.
//   out  out  11 values: R_t(i) plus the signed correlation of the pulse at p
//             with acc, ((s(p) * ((2c + 32768) >> 16)) >> 15) + R_t(i),
//             c = sum_{k=0}^{54-p} hn(k) acc(p+k) (32-bit wrap), 16-bit wrap.
//             Positions outside 0..54 (t outside 0..4) give out(i) = R_t(i).
//
// kevrce_search_best_pulse(tracks, d, B, V1, V2, M, state)
//   tracks  in      tracks[0] = t1, tracks[1] = t2, track starts 0..4.
//   d       in      d(0..54), the scaled backward-filtered target, sign-folded.
//   B       in      B(0..54), pre-selection marks: rows with B(p) < 0 are skipped.
//   V1, V2  in      11 energies each, for the positions of t1 and of t2.
//   M       in      the 11 x 11 cross-correlation matrix of (t1, t2), row on t1.
//   state   in/out  in: [0] K0 running correlation, [1] E0 running energy;
//                   out: [0] K, [1] E, [2] first position, [3] second position.
//   Maximises K^2 / E by cross-multiplication; strictly better replaces the
//   best, so the first maximum in scan order wins.
//
// kevrc::acelp_normalise_impulse, acelp_filter_pulses, acelp_diagonal_energies
// and acelp_cross_correlations (shared with the half-rate search), and
// acelp_track_energies (compute_corelation on padded arrays): see
// encoder/acelp_scratch.h.
#include <algorithm>
#include <cstdlib>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

constexpr int kTrackStep = 5;

bool in_span(int p) { return p >= 0 && p <= kAcelpLastPos; }

// d(p), read as 0 outside the searched positions.
int16_t d_at(const int16_t *d, int p) { return in_span(p) ? d[p] : int16_t{0}; }

// A row of the pair search in 16 lanes: lanes 0..7 hold the second track's
// candidates j = 0..7, lanes 8..15 candidates j = 3..10. The two overlapping
// runs of eight give fixed trip counts for the vector units; the repeated
// candidates change neither the values nor the answer.
constexpr int kLanes = 16;
constexpr int kRun = 8;
constexpr int kHighFirst = kAcelpTrackLen - kRun;  // candidate of lane 8

// The lane that holds candidate j (lanes 3..7 and 8..12 repeat 3..7).
constexpr int candidate_lane(int j) { return j < kRun ? j : j + kRun - kHighFirst; }

// The candidate held by lane l.
constexpr int lane_candidate(int l) { return l < kRun ? l : l - kRun + kHighFirst; }

// The 11 values of a row laid out in lanes.
void to_lanes(const int16_t *v, int16_t *lanes) {
  std::copy(v, v + kRun, lanes);
  std::copy(v + kHighFirst, v + kAcelpTrackLen, lanes + kRun);
}

// One row's candidates in lanes: squared correlations k2 = (k * k) >> 15
// (Q15, kept as 16 bits) of k = k1 + d2, energies e = row + v2 + e1, and
// whether any candidate beats the best k2_best / e_best (cross-multiplied:
// k2_best e - e_best k2 < 0; both products lie within -2^30 + 32768 .. 2^30,
// so the difference is exact in 32 bits and its sign bit says it).
bool row_lanes(int16_t k1, int16_t e1, const int16_t *d2, const int16_t *v2, const int16_t *row,
               int16_t e_best, int16_t k2_best, int16_t *k2, int16_t *e) {
  uint32_t signs = 0;  // the differences ORed: the sign bit is set if any is negative
  // Kept as a loop (not unrolled first) so that it is vectorized whole.
#pragma GCC unroll 1
  for (int l = 0; l < kLanes; ++l) {
    const int16_t k = add16_wrap(k1, d2[l]);
    k2[l] = mul16_shr15_wrap(k, k);
    e[l] = add16_wrap(add16_wrap(row[l], v2[l]), e1);
    signs |= static_cast<uint32_t>(sub32_wrap(mul16(k2_best, e[l]), mul16(e_best, k2[l])));
  }
  return (signs >> 31) != 0;
}

}  // namespace

void acelp_normalise_impulse(const int16_t *h, int L, int16_t *hn) {
  Mac2Wrap energy;
  for (int n = 0; n < L; ++n) energy.add(h[n], h[n]);
  const int32_t eh = energy.value();
  const int sh = norm_32(eh) >> 1;  // an even shift of the energy: sh on the samples
  // With E' = Eh << 2sh: g = (inv_sqrt(E' >> 12) >> 8) = 2^28 / sqrt(E'), so
  // that hn = ((h << sh) g) >> 15 has sum 2 hn^2 = 2^26.
  const int16_t g = wrap16(inv_sqrt(shl32_wrap(eh, 2 * sh) >> 12) >> 8);
  for (int n = 0; n < L; ++n) hn[n] = wrap16(mul16(wrap16(shl32_wrap(h[n], sh)), g) >> 15);
  for (int n = L; n < kAcelpPositions; ++n) hn[n] = 0;
}

void acelp_filter_pulses(const int16_t *h, int L, const int16_t *pos, const bool *negative,
                         int count, int16_t *y) {
  int32_t sum[kAcelpPositions];
  for (int n = 0; n < L; ++n) sum[n] = 2;  // rounding for the >> 2
  for (int i = 0; i < count; ++i) {
    const int p = pos[i];
    if (negative[i])
      for (int n = p; n < L; ++n) sum[n] -= h[n - p];
    else
      for (int n = p; n < L; ++n) sum[n] += h[n - p];
  }
  for (int n = 0; n < L; ++n) y[n] = static_cast<int16_t>(wrap16(sum[n]) >> 2);
}

void acelp_diagonal_energies(const int16_t *hn, int last, const int *start, int step, int tracks,
                             int n, int16_t *out) {
  int32_t running[kAcelpPositions];  // running[m] = 65536 + sum_{k<=m} 2 hn(k)^2
  int32_t acc = 65536;               // rounds the >> 17
  for (int m = 0; m <= last; ++m) {
    acc = add32_wrap(acc, mul2_16(hn[m], hn[m]));
    running[m] = acc;
  }
  for (int t = 0; t < tracks; ++t) {
    for (int i = 0; i < n; ++i) {
      const int p = start[t] + step * i;
      out[t * n + i] = p > last ? int16_t{0} : wrap16(running[last - p] >> 17);  // 65536 >> 17 = 0
    }
  }
}

void acelp_cross_correlations(const int16_t *hn, int last, int step, int n, int count, const int *a,
                              const int *b, int16_t *const *out) {
  // Matrix m's diagonal c (j - i = c) has the constant lag |b - a + step c| =
  // |offset + step g| with g = c + shift[m]; one running sum per g serves them all.
  const int offset = b[0] - a[0];
  int shift[kAcelpTracks];
  int g_lo = 0, g_hi = 0;
  for (int m = 0; m < count; ++m) {
    shift[m] = (b[m] - a[m] - offset) / step;
    g_lo = m == 0 ? shift[m] - (n - 1) : std::min(g_lo, shift[m] - (n - 1));
    g_hi = m == 0 ? shift[m] + (n - 1) : std::max(g_hi, shift[m] + (n - 1));
  }
  int32_t running[kAcelpPositions];  // 32768 + sum_{k<=r} 2 hn(k) hn(k + lag)
  for (int g = g_lo; g <= g_hi; ++g) {
    const int lag = std::abs(offset + step * g);
    const int terms = last - lag + 1;
    int32_t acc = 32768;  // rounds the >> 16
    for (int k = 0; k < terms; ++k) running[k] = acc = add32_wrap(acc, mul2_16(hn[k], hn[k + lag]));
    for (int m = 0; m < count; ++m) {
      const int c = g - shift[m];
      if (c < -(n - 1) || c > n - 1) continue;
      // Along the diagonal hi = max(p, q) grows by step: the entries read
      // running[last - hi] (the sum over s = hi..last of hn(s-p) hn(s-q)) at a
      // falling index; 0 once hi passes last.
      const int i0 = c < 0 ? -c : 0;
      const int i1 = c < 0 ? n : n - c;
      int r = last - std::max(a[m] + step * i0, b[m] + step * (i0 + c));
      int16_t *entry = out[m] + i0 * (n + 1) + c;
      for (int i = i0; i < i1; ++i, r -= step, entry += n + 1)
        *entry = r < 0 ? int16_t{0} : wrap16(running[r] >> 16);
    }
  }
}

void acelp_track_energies(const int16_t *hn, const int16_t *acc, int t, const int16_t *s,
                          const int16_t *R, const int16_t *b, int16_t *out) {
  for (int i = 0; i < kAcelpTrackLen; ++i) {
    const int p = t + kTrackStep * i;
    if (!in_span(p)) {
      out[i] = R[i];
      continue;
    }
    if (b != nullptr && b[p] < 0) continue;  // never read by the pair search
    // acc is zero from 55 on: the terms past k = 54 - p add nothing, so
    // whole groups of eight up to that bound give the same sum.
    const int terms = (kAcelpPositions - p + 7) & ~7;
    uint32_t sum = 0;
    for (int k = 0; k < terms; ++k) sum += static_cast<uint32_t>(mul16(hn[k], acc[p + k]));
    const int32_t c = static_cast<int32_t>(sum);
    const int64_t v = (2 * int64_t{c} + 32768) >> 16;  // Q(2*hn) rounded to the matrix scale
    const int64_t signed_v = (int64_t{s[p]} * v) >> 15;
    out[i] = wrap16(add32_wrap(wrap32(signed_v), R[i]));
  }
}

}  // namespace kevrc

extern "C" int16_t *kevrce_buf_mul(int16_t *row, const int16_t *factors, int16_t t) {
  using namespace kevrc;
  if (t < 0) return row;
  for (int q = t; q <= kAcelpLastPos; q += kTrackStep) {
    *row = wrap16(mul16(*row, factors[q]) >> 15);
    ++row;
  }
  return row;
}

extern "C" void kevrce_buf_accumulate(int16_t *acc, const int16_t *u, const int16_t *v) {
  using namespace kevrc;
  for (int n = 0; n < kAcelpPositions; ++n) acc[n] = wrap16(int32_t{acc[n]} + u[n] + v[n]);
}

extern "C" void kevrce_compute_corelation(const int16_t *hn, const int16_t *acc, int16_t t,
                                          const int16_t *s, const int16_t *R, int16_t *out) {
  using namespace kevrc;
  // Zero-padded copies give every position the same sum length: the terms
  // past acc(54) are zero, as are those of the sum's stated range.
  int16_t hn_pad[kAcelpPadLen];
  int16_t acc_pad[kAcelpAccLen];
  for (int k = 0; k < kAcelpPositions; ++k) {
    hn_pad[k] = hn[k];
    acc_pad[k] = acc[k];
  }
  for (int k = kAcelpPositions; k < kAcelpPadLen; ++k) hn_pad[k] = 0;
  for (int k = kAcelpPositions; k < kAcelpAccLen; ++k) acc_pad[k] = 0;
  acelp_track_energies(hn_pad, acc_pad, t, s, R, nullptr, out);
}

extern "C" void kevrce_search_best_pulse(const int16_t *tracks, const int16_t *d, const int16_t *B,
                                         const int16_t *V1, const int16_t *V2, const int16_t *M,
                                         int16_t *state) {
  using namespace kevrc;
  const int t1 = tracks[0];
  const int t2 = tracks[1];
  const int16_t k0 = state[0];
  const int16_t e0 = state[1];
  int16_t e_best = 1;
  int16_t k2_best = -1;
  int best_p = t1;
  int best_q = t2;
  if (t1 >= 0 && t2 >= 0) {
    // A second track of 11 positions runs in lanes; a shorter one (t2 > 4)
    // candidate by candidate.
    const bool in_lanes = t2 < kAcelpTracks;
    int n2 = 0;
    for (int q = t2; q <= kAcelpLastPos; q += kTrackStep) ++n2;
    int16_t d2_lanes[kLanes], v2_lanes[kLanes];
    if (in_lanes) {
      for (int l = 0; l < kLanes; ++l) d2_lanes[l] = d[t2 + kTrackStep * lane_candidate(l)];
      to_lanes(V2, v2_lanes);
    }
    for (int i = 0, p = t1; p <= kAcelpLastPos; ++i, p += kTrackStep) {
      if (B[p] < 0) continue;  // not pre-selected as a first pulse
      const int16_t k1 = add16_wrap(k0, d[p]);
      const int16_t e1 = add16_wrap(e0, V1[i]);
      const int16_t *row = M + i * kAcelpTrackLen;
      int16_t k2[kLanes], e[kLanes];  // candidate j in lane j (j < 8) or j + 5
      if (in_lanes) {
        int16_t row_in_lanes[kLanes];
        to_lanes(row, row_in_lanes);
        // Until a candidate beats the best, the best stays as it was at the
        // row's start; if none does, the row changes nothing.
        if (!row_lanes(k1, e1, d2_lanes, v2_lanes, row_in_lanes, e_best, k2_best, k2, e)) continue;
      } else {
        for (int j = 0; j < n2; ++j) {
          const int16_t k = add16_wrap(k1, d[t2 + kTrackStep * j]);
          k2[candidate_lane(j)] = mul16_shr15_wrap(k, k);
          e[candidate_lane(j)] = add16_wrap(add16_wrap(row[j], V2[j]), e1);
        }
      }
      for (int j = 0; j < n2; ++j) {
        const int l = candidate_lane(j);
        // k2 / e > k2_best / e_best, cross-multiplied.
        if (sub32_wrap(mul16(e_best, k2[l]), mul16(k2_best, e[l])) > 0) {
          k2_best = k2[l];
          e_best = e[l];
          best_p = p;
          best_q = t2 + kTrackStep * j;
        }
      }
    }
  }
  state[0] = wrap16(int32_t{d_at(d, best_p)} + k0 + d_at(d, best_q));
  state[1] = e_best;
  state[2] = static_cast<int16_t>(best_p);
  state[3] = static_cast<int16_t>(best_q);
}
