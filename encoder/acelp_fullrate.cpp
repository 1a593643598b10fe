// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Full-rate algebraic codebook search: 8 signed unit pulses on 55 positions
// split into five interleaved tracks of 11 (track t = {t, t+5, ..., t+50});
// three consecutive tracks carry two pulses, the other two one each. Four
// configurations (which track starts the two-pulse run) are searched pair by
// pair, and the best K^2 / E wins. Result: 35 bits as three 8-bit two-pulse
// words and one 11-bit word.
//
// kevrce_algcbk_fullrate(work, d, residual, L, impulse, code, filtered, index)
//   work      scratch  work->acelp.full (signs, hn, energies, matrices); the
//                      lag sums behind the matrices (7 KB) live on the stack.
//   d         in/out   d(0..54), the scaled backward-filtered target (Q of
//                      the entry's scaling, |d| < 2^14 in use); zeroed from
//                      L on, then sign-folded (d(p) * s(p) >= 0 afterwards).
//   residual  in/out   r(0..54), the second sign reference; zeroed from L
//                      on, then overwritten with the pre-selection values
//                      B(p) (0..32767, or -1 for a position removed from the
//                      first pulses of its track).
//   L         in       subframe length, 53 or 54 (0..55 are safe).
//   impulse   in       h(0..L-1), the pitch-sharpened impulse response, Q11.
//   code      out      c(0..L-1), pulses of +-4096 (1.0 in Q12), +-8192 for
//                      two pulses at one position.
//   filtered  out      y(0..L-1) = (sum of +-h(n - p) + 2) >> 2.
//   index     out      words 0..2: two-pulse words of tracks k, k+1, k+2;
//                      word 3: single-pulse word (bits 9-10 = k); word 4:
//                      not coded (holds track 4's intermediate value).
#include <algorithm>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"

namespace kevrc {
namespace {

constexpr int kConfigs = 4;
constexpr int kPairs = 4;
constexpr int kTrackStep = 5;
constexpr int16_t kPlus = 32767;      // +1 in Q15
constexpr int16_t kMinus = -32768;    // -1 in Q15
constexpr int16_t kInvSqrt2 = 23170;  // 1/sqrt(2) in Q15
constexpr int16_t kNegFlag = 16;      // track value u + 16: the pulse is negative
constexpr int16_t kDiv5 = 6554;       // 1/5 in Q15, exact for p <= 54

// sqrt(Er * Ed) with its exponents, for weighing d against r in the signs.
struct SignWeights {
  int16_t edh;  // Ed normalised, high half
  int16_t sq;   // sqrt of the normalised product Er * Ed, Q15
  int shift_r;  // right shift of the r term
  int shift_d;  // right shift of the d term
};

SignWeights sign_weights(const int16_t *d, const int16_t *r) {
  Mac2Wrap ed_acc, er_acc;
  for (int p = 0; p < kAcelpPositions; ++p) {
    ed_acc.add(d[p], d[p]);
    er_acc.add(r[p], r[p]);
  }
  const int32_t ed = ed_acc.value();
  const int32_t er = er_acc.value();
  const int nr = norm_32(er);
  const int nd = norm_32(ed);
  const int16_t erh = static_cast<int16_t>(shl32_wrap(er, nr) >> 16);
  const int16_t edh = static_cast<int16_t>(shl32_wrap(ed, nd) >> 16);
  const int32_t prod = mul2_16(erh, edh);
  const int np = norm_32(prod);
  const int16_t total = wrap16(nd + nr + np);
  int16_t sq = squar_rt(shl32_wrap(prod, np));
  if ((total & 1) != 0) sq = wrap16(mul16(sq, kInvSqrt2) >> 15);  // odd exponent
  const int a = nd + 2;
  const int b = (total >> 1) + 1;
  const int m = a < b ? a : b;
  return {edh, sq, a - m, b - m};
}

// Step 3: the sign of each position from beta = r-term + d-term; d is folded
// to that sign and r becomes the pre-selection value B = min(|beta| >> 8, 32767).
// Up to the common exponent, beta = Ed r(p) + 2 sqrt(Er Ed) d(p), that is
// r / |r| + 2 d / |d|: the backward-filtered target weighs twice the residual.
void select_signs(int16_t *d, int16_t *r, kevrce_acelp_full_scratch &s) {
  const SignWeights w = sign_weights(d, r);
  // Shifts of 32 and more fill with the sign, as a shift by 31 does.
  const int shift_r = std::min(w.shift_r, 31);
  const int shift_d = std::min(w.shift_d, 31);
  for (int p = 0; p < kAcelpPositions; ++p) {
    const int32_t beta =
        add32_wrap(mul2_16(w.edh, r[p]) >> shift_r, mul2_16(d[p], w.sq) >> shift_d);
    const bool negative = beta < 0;
    s.sign[p] = negative ? kMinus : kPlus;
    s.sign_neg[p] = negative ? kPlus : kMinus;
    d[p] = negative ? wrap16(-int32_t{d[p]}) : d[p];
    // High half of |beta| << 8, saturating: |beta| >> 8 clamped to 32767
    // (|beta| taken in 32 unsigned bits: 2^31 for -2^31).
    const auto magnitude = static_cast<uint32_t>(negative ? neg32_wrap(beta) : beta);
    r[p] = static_cast<int16_t>(std::min<uint32_t>(magnitude >> 8, 32767));
  }
}

// Step 4: per track, mark the five smallest B (ties: the last scanned) with -1.
void preselect(int16_t *b) {
  for (int t = 0; t < kAcelpTracks; ++t) {
    for (int round = 0; round < 5; ++round) {
      int16_t lowest = 32767;
      int at = -1;
      for (int p = t; p < kAcelpPositions; p += kTrackStep) {
        if (b[p] >= 0 && b[p] <= lowest) {
          lowest = b[p];
          at = p;
        }
      }
      if (at >= 0) b[at] = -1;
    }
  }
}

// Lag sums of hn at the lags that pair neighbouring tracks (|q - p| is 1 or
// 4 modulo 5): near(r, m) = sum_{k=0}^{r} hn(k) hn(k + 1 + 5m) and
// far(r, m) = sum_{k=0}^{r} hn(k) hn(k + 4 + 5m), 32-bit wrap, hn read as 0
// past 54. The correlation of the responses to pulses at p and q over the
// subframe, sum_{n=max(p,q)}^{54} hn(n-p) hn(n-q), is the lag sum of
// |q - p| in row 54 - max(p, q). m runs over 16 lanes (0..10 are read) so
// that every row is whole vector groups; from row 14 on only m <= 7 can be
// read (1 + 5m <= 54 - r), and only lanes 0..7 are formed.
constexpr int kLagLanes = 16;
constexpr int kNarrowFrom = 14;  // from row 14 on, m <= (53 - r) / 5 <= 7: eight lanes suffice
struct NeighbourLagSums {
  int32_t near[kAcelpPositions * kLagLanes];  // row r at r * kLagLanes
  int32_t far[kAcelpPositions * kLagLanes];
};

// One row of lag sums over `lanes` lanes: acc(m) += h * terms(m), stored.
template <int kLanes>
void lag_sum_row(int16_t h, const int16_t *terms, int32_t *acc, int32_t *out) {
  for (int m = 0; m < kLanes; ++m) {
    acc[m] = add32_wrap(acc[m], mul16(h, terms[m]));
    out[m] = acc[m];
  }
}

void fill_lag_sums(const int16_t *hn, NeighbourLagSums &sums) {
  // hn by phase: phase[f][m] = hn(f + 5m), 0 past 54; row r reads phase
  // entries up to (r + 4) / 5 + 15 <= 26.
  constexpr int kPhaseLen = kAcelpTrackLen + kLagLanes;
  int16_t phase[kAcelpTracks][kPhaseLen] = {};
  for (int f = 0; f < kAcelpTracks; ++f)
    for (int m = 0, n = f; n < kAcelpPositions; ++m, n += kTrackStep) phase[f][m] = hn[n];
  int32_t near[kLagLanes] = {}, far[kLagLanes] = {};
  int near_phase = 1, near_at = 0;  // hn(r + 1 + 5m) = phase[near_phase][near_at + m]
  int far_phase = 4, far_at = 0;    // hn(r + 4 + 5m) = phase[far_phase][far_at + m]
  for (int r = 0; r < kAcelpPositions; ++r) {
    int32_t *near_out = sums.near + r * kLagLanes;
    int32_t *far_out = sums.far + r * kLagLanes;
    if (r < kNarrowFrom) {
      lag_sum_row<kLagLanes>(hn[r], phase[near_phase] + near_at, near, near_out);
      lag_sum_row<kLagLanes>(hn[r], phase[far_phase] + far_at, far, far_out);
    } else {
      lag_sum_row<kLagLanes / 2>(hn[r], phase[near_phase] + near_at, near, near_out);
      lag_sum_row<kLagLanes / 2>(hn[r], phase[far_phase] + far_at, far, far_out);
    }
    if (++near_phase == kTrackStep) near_phase = 0, ++near_at;
    if (++far_phase == kTrackStep) far_phase = 0, ++far_at;
  }
}

// A matrix entry from the pulses' correlation c: (32768 + 2c) >> 16 (32-bit
// wrap, kept as 16 bits; 32768 rounds the >> 16), then ((M f) >> 15) with
// the sign factor f.
int16_t folded_entry(int32_t c, int16_t f) {
  const int32_t sum = add32_wrap(32768, shl32_wrap(c, 1));
  return wrap16(mul16(wrap16(sum >> 16), f) >> 15);
}

// Row i of M_t (p = t + 5i) against q = (t+1) mod 5 + 5j, j = 0..10:
// q - p = 1 + 5(j - i) for t < 4, 5(j - i) - 4 for t = 4. Columns before
// `split` have q < p (lag 4 + 5m, row 54 - p of far), the others q > p
// (lag 1 + 5m, row 54 - q of near).
void matrix_row(const NeighbourLagSums &sums, int t, int i, const int16_t *factors,
                int16_t *row) {
  const int wrap = t == kAcelpTracks - 1 ? 1 : 0;  // the next track starts at 0
  const int p = t + kTrackStep * i;
  const int next = (t + 1) % kAcelpTracks;
  const int split = std::min(i + wrap, kAcelpTrackLen);
  const int32_t *far = sums.far + (kAcelpLastPos - p) * kLagLanes;
  for (int j = 0; j < split; ++j)
    row[j] = folded_entry(far[i - j - 1 + wrap], factors[next + kTrackStep * j]);
  // Each column further: q up by 5, so the row of near 5 back and m up by 1.
  constexpr int kNearStep = kTrackStep * kLagLanes - 1;
  int at = (kAcelpLastPos - next - kTrackStep * split) * kLagLanes + split - i - wrap;
  for (int j = split, q = next + kTrackStep * split; j < kAcelpTrackLen;
       ++j, q += kTrackStep, at -= kNearStep)
    row[j] = folded_entry(sums.near[at], factors[q]);
}

// Steps 5-8: hn and -hn behind their zero guards, the diagonal energies, and
// the sign-folded cross-correlation matrices M_t(i, j) of p = t + 5i and
// q = (t+1) mod 5 + 5j: (32768 + 2c) >> 16 with c their lag sum (32-bit
// wrap, kept as 16 bits) times s(p) s(q), as ((M f) >> 15) with f = s(q) for
// s(p) >= 0, else -s(q). Rows of positions that the pre-selection removed
// (B(p) < 0) are never read by the pair search and are not formed.
void build_correlations(const int16_t *h, int L, const int16_t *b, NeighbourLagSums &lag_sums,
                        kevrce_acelp_full_scratch &s) {
  for (int n = 0; n < kAcelpGuard; ++n) s.hn_pos[n] = s.hn_neg[n] = 0;
  int16_t *hn = s.hn_pos + kAcelpGuard;
  acelp_normalise_impulse(h, L, hn);
  hn[kAcelpPositions] = 0;
  for (int n = 0; n < kAcelpPositions; ++n) s.hn_neg[kAcelpGuard + n] = wrap16(-int32_t{hn[n]});

  static constexpr int kStarts[kAcelpTracks] = {0, 1, 2, 3, 4};
  acelp_diagonal_energies(hn, kAcelpLastPos, kStarts, kTrackStep, kAcelpTracks, kAcelpTrackLen,
                          &s.diag[0][0]);
  fill_lag_sums(hn, lag_sums);
  for (int t = 0; t < kAcelpTracks; ++t) {
    for (int i = 0, p = t; i < kAcelpTrackLen; ++i, p += kTrackStep) {
      if (b[p] < 0) continue;
      matrix_row(lag_sums, t, i, s.sign[p] >= 0 ? s.sign : s.sign_neg,
                 s.cross[t] + i * kAcelpTrackLen);
    }
  }
}

// The signed, normalised response of a pulse at p, read from position 0 on.
const int16_t *pulse_response(const kevrce_acelp_full_scratch &s, int p) {
  return (s.sign[p] >= 0 ? s.hn_pos : s.hn_neg) + kAcelpGuard - p;
}

struct Choice {
  int16_t pos[kAcelpFullPulses];
  int16_t k;  // final correlation
  int16_t e;  // final energy
};

// Step 9: the four pair searches of configuration k.
Choice search_configuration(int k, const int16_t *d, const int16_t *b,
                            kevrce_acelp_full_scratch &s) {
  const int16_t *tracks = kevrce_track_order + k;
  const int16_t *hn = s.hn_pos + kAcelpGuard;
  Choice c{};
  int16_t state[4] = {0, 0, 0, 0};
  kevrce_search_best_pulse(tracks, d, b, s.diag[tracks[0]], s.diag[tracks[1]], s.cross[tracks[0]],
                           state);
  c.pos[0] = state[2];
  c.pos[1] = state[3];
  for (int n = 0; n < kAcelpAccLen; ++n) s.acc[n] = 0;
  for (int pair = 1; pair < kPairs; ++pair) {
    kevrce_buf_accumulate(s.acc, pulse_response(s, c.pos[2 * pair - 2]),
                          pulse_response(s, c.pos[2 * pair - 1]));
    const int16_t *tr = tracks + 2 * pair;
    // The first track's energies only where the pair search reads them.
    acelp_track_energies(hn, s.acc, tr[0], s.sign, s.diag[tr[0]], b, s.v1);
    acelp_track_energies(hn, s.acc, tr[1], s.sign, s.diag[tr[1]], nullptr, s.v2);
    kevrce_search_best_pulse(tr, d, b, s.v1, s.v2, s.cross[tr[0]], state);
    c.pos[2 * pair] = state[2];
    c.pos[2 * pair + 1] = state[3];
  }
  c.k = state[0];
  c.e = state[1];
  return c;
}

// Two track values (u, or u + 16 when negative; v1 found first) as one
// 8-bit word lo + 11 hi + 128 g: same signs keep hi <= lo, opposite signs put
// the larger index in hi and its sign in g.
int16_t two_pulse_word(int16_t v1, int16_t v2) {
  const int u1 = v1 & 15, g1 = v1 >> 4;
  const int u2 = v2 & 15, g2 = v2 >> 4;
  int hi, lo, g;
  if (g1 == g2) {
    hi = u1 < u2 ? u1 : u2;
    lo = u1 < u2 ? u2 : u1;
    g = g1;
  } else {
    hi = u1 > u2 ? u1 : u2;
    lo = u1 > u2 ? u2 : u1;
    g = u1 > u2 ? g1 : g2;
  }
  return static_cast<int16_t>(lo + 11 * hi + 128 * g);
}

// Steps 10-11: the codevector and the four codebook words of configuration k.
void encode_pulses(const Choice &c, int k, const int16_t *sign, int L, int16_t *code,
                   int16_t *index) {
  for (int n = 0; n < L; ++n) code[n] = 0;
  int16_t words[kAcelpTracks] = {-1, -1, -1, -1, -1};
  for (int i = 0; i < kAcelpFullPulses; ++i) {
    const int p = c.pos[i];
    const int u = (p * kDiv5) >> 15;
    const int track = p - kTrackStep * u;
    const bool negative = sign[p] < 0;
    if (p < L) code[p] = wrap16(int32_t{code[p]} + (negative ? -kAcelpPulse : kAcelpPulse));
    const int16_t value = static_cast<int16_t>(negative ? u + kNegFlag : u);
    words[track] = words[track] < 0 ? value : two_pulse_word(words[track], value);
  }
  const int a = (k + 3) % kAcelpTracks;  // single-pulse tracks
  const int b = (k + 4) % kAcelpTracks;
  for (int w = 0; w < 3; ++w) index[w] = words[(k + w) % kAcelpTracks];
  index[3] = static_cast<int16_t>((words[b] & 15) + 11 * (words[a] & 15) + ((words[b] >> 4) << 7) +
                                  ((words[a] >> 4) << 8) + (k << 9));
  index[4] = words[4];
}

}  // namespace
}  // namespace kevrc

extern "C" void kevrce_algcbk_fullrate(kevrce_work *work, int16_t *d, int16_t *residual, int16_t L,
                                       const int16_t *impulse, int16_t *code, int16_t *filtered,
                                       int16_t *index) {
  using namespace kevrc;
  kevrce_acelp_full_scratch &s = work->acelp.full;
  for (int p = L; p < kAcelpPositions; ++p) d[p] = residual[p] = 0;
  select_signs(d, residual, s);
  int16_t *b = residual;  // from here on residual holds B(p)
  preselect(b);
  NeighbourLagSums lag_sums;
  build_correlations(impulse, L, b, lag_sums, s);

  Choice best{};
  int best_k = 0;
  int16_t e_best = 1;
  int16_t k2_best = -1;
  for (int k = 0; k < kConfigs; ++k) {
    const Choice c = search_configuration(k, d, b, s);
    const int16_t k2 = wrap16(mul16(c.k, c.k) >> 15);
    // 2 (e_best k2 - k2_best e) > 0, all in wrapping 32-bit arithmetic. From
    // e_best = 1, k2_best = -1 configuration 0 passes unless its energy has
    // wrapped far negative; it is taken in any case, so that the words always
    // describe a searched configuration.
    if (k == 0 || shl32_wrap(sub32_wrap(mul16(e_best, k2), mul16(k2_best, c.e)), 1) > 0) {
      best = c;
      best_k = k;
      e_best = c.e;
      k2_best = k2;
    }
  }

  encode_pulses(best, best_k, s.sign, L, code, index);
  bool negative[kAcelpFullPulses];
  for (int i = 0; i < kAcelpFullPulses; ++i) negative[i] = s.sign[best.pos[i]] < 0;
  acelp_filter_pulses(impulse, L, best.pos, negative, kAcelpFullPulses, filtered);
}
