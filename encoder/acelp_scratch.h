// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Scratch arrays of the fixed-codebook (ACELP) searches, kept in the
// encoder's work block as work->acelp, and the few helpers that the entry,
// the full-rate and the half-rate searches share. Rebuilt on every call;
// nothing here survives a subframe.
//
// Positions are 0..54 (a 53- or 54-sample subframe searched as 55 positions).
// The full-rate normalised impulse response and its negation are each
// preceded by a zero guard of 55 entries, so that hn(n - p) reads 0 for
// n < p when a pulse's shifted response is taken as a pointer
// (hn_pos + kAcelpGuard - p). Pulse responses never read past hn(54); hn_pos
// holds one zero more for the correlation sums of whole groups of eight.
#pragma once

#include <cstdint>

namespace kevrc {
constexpr int kAcelpPositions = 55;  // searched positions 0..54
constexpr int kAcelpLastPos = 54;
constexpr int kAcelpTracks = 5;  // full rate: track t holds t, t+5, ..., t+50
constexpr int kAcelpTrackLen = 11;
constexpr int kAcelpGuard = 55;  // zeros in front of hn, >= the largest position
constexpr int kAcelpFullPulses = 8;
constexpr int kHalfTracks = 3;  // half rate: track k holds 2k, 2k+7, ..., 2k+49
constexpr int kHalfTrackLen = 8;
constexpr int kHalfTrackStep = 7;
constexpr int16_t kAcelpPulse = 4096;  // pulse amplitude, 1.0 in Q12
constexpr int kAcelpPadLen = 56;       // >= 55 terms, a multiple of 8 for the vector units
// acc(0..54) and the zeros read past it by sums of whole groups of eight
// from any position (p + ((55 - p + 7) & ~7) <= 62).
constexpr int kAcelpAccLen = kAcelpPositions + 7;
}  // namespace kevrc

struct kevrce_acelp_full_scratch {
  int16_t sign[kevrc::kAcelpPositions];      // s(p): +32767 / -32768 per position
  int16_t sign_neg[kevrc::kAcelpPositions];  // -s(p): -32768 / +32767
  int16_t hn_pos[kevrc::kAcelpGuard + kevrc::kAcelpPadLen];  // zeros, then hn(0..54), 0
  int16_t hn_neg[kevrc::kAcelpGuard + kevrc::kAcelpPositions];  // zeros, then -hn(0..54)
  int16_t diag[kevrc::kAcelpTracks][kevrc::kAcelpTrackLen];     // R_t(i)
  // M_t(i, j), row i on track t, column j on track (t+1) mod 5, row after row,
  // sign-folded; only the rows of pre-selected positions (B(p) >= 0) are formed.
  int16_t cross[kevrc::kAcelpTracks][kevrc::kAcelpTrackLen * kevrc::kAcelpTrackLen];
  int16_t acc[kevrc::kAcelpAccLen];  // a(n): signed responses of the pulses placed so far, 0 past 54
  int16_t v1[kevrc::kAcelpTrackLen];    // pair search: energies of the first track
  int16_t v2[kevrc::kAcelpTrackLen];    // pair search: energies of the second track
};

struct kevrce_acelp_half_scratch {
  int16_t hn[kevrc::kAcelpPositions];                      // normalised response, 0 from L on
  int16_t diag[kevrc::kHalfTracks][kevrc::kHalfTrackLen];  // R0, R1, R2
  // M01, M02, M12: row on the lower track, column on the higher one.
  int16_t cross[kevrc::kHalfTracks][kevrc::kHalfTrackLen * kevrc::kHalfTrackLen];
};

struct kevrce_acelp_scratch {
  int16_t d[kevrc::kAcelpPositions];  // scaled backward-filtered target (sign-folded at full rate)
  union {
    kevrce_acelp_full_scratch full;
    kevrce_acelp_half_scratch half;
  };
};

namespace kevrc {

// kevrce_compute_corelation on arrays that need no padding: hn(0..55) readable
// (hn(55) is only ever multiplied by zeros), acc(0..61) with acc(55..61) = 0.
// With b != nullptr, positions with b(p) < 0 are skipped (out(i) unchanged).
void acelp_track_energies(const int16_t *hn, const int16_t *acc, int t, const int16_t *s,
                          const int16_t *R, const int16_t *b, int16_t *out);

// Normalises the impulse response h[0..L-1] (Q11) to hn[0..54] with a fixed
// energy (sum of 2 hn^2 about 2^26): hn = ((h << sh) * g) >> 15 with
// sh = norm_32(Eh) / 2 and g = inv_sqrt(Eh << 2sh >> 12) >> 8; hn(n) = 0
// from L on. L in 0..55.
void acelp_normalise_impulse(const int16_t *h, int L, int16_t *hn);

// The filtered codevector of `count` signed unit pulses:
// y(n) = (sum_i sign_i h(n - p_i) + 2, taken as 16 bits) >> 2 for n < L,
// h(m) = 0 for m < 0. negative[i] != 0 marks a pulse of sign -1. Positions
// at or past L contribute nothing.
void acelp_filter_pulses(const int16_t *h, int L, const int16_t *pos, const bool *negative,
                         int count, int16_t *y);

// Diagonal energies of the positions p = start[t] + step * i (t < tracks,
// i < n): R(p) = (65536 + sum_{k=0}^{last-p} 2 hn(k)^2) >> 17, 32-bit wrap,
// formed as one running sum; R(p) = 0 for p > last. out[t * n + i]. last <= 54.
void acelp_diagonal_energies(const int16_t *hn, int last, const int *start, int step, int tracks,
                             int n, int16_t *out);

// Cross-correlation matrices of `count` position pairs: matrix m pairs
// p = a[m] + step * i with q = b[m] + step * j (i, j < n, all positions >= 0):
// M(i, j) = (32768 + sum_{s=max(p,q)}^{last} 2 hn(s-p) hn(s-q)) >> 16, 32-bit
// wrap, kept as 16 bits, stored row after row in out[m][i * n + j]. The
// differences b[m] - a[m] must agree modulo step (count <= 5): the matrices'
// diagonals then share their lags: one running sum per lag (its partial
// sums are the entries along the diagonals) serves every matrix. last <= 54.
void acelp_cross_correlations(const int16_t *hn, int last, int step, int n, int count, const int *a,
                              const int *b, int16_t *const *out);

}  // namespace kevrc
