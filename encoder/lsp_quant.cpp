// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// LSP quantization: a weighted split vector quantizer searched split by
// split, with an ordering constraint at the seams between splits.
//
// kevrce_norm_lsp(lsp, weight, shift)
//   lsp     in   10 unquantized LSPs, Q15 (16384 = 4 kHz), ascending.
//   weight  out  10 weights, Q15 scaled by 2^-shift: about 1 + 1/(2 pi d),
//                d the spacing to the nearer neighbour as a fraction of
//                4 kHz (the first LSP only looks at the second). Spacings
//                that normalise to exactly 16384 come out negative.
//   shift   out  10 normalisation exponents of the spacings, 0..15.
//
// kevrce_lspmaq(lsp, num_splits, split_dims, split_entries, weight, index,
//               codebook, shift) -> weight
//   lsp            in      10 unquantized LSPs, Q15.
//   num_splits     in      number of splits (2, 3 or 4).
//   split_dims     in      LSPs per split, [0 .. num_splits).
//   split_entries  in      codewords per split, [0 .. num_splits).
//   weight         in/out  the weights of kevrce_norm_lsp; each split's
//                          positions are overwritten with the chosen codeword
//                          once the split is decided, so on return it holds
//                          the quantized LSP vector (Q15).
//   index          out     the chosen codeword per split, [0 .. num_splits).
//   codebook       in      the splits' codebooks one after another, each
//                          codeword the split's LSPs in position order.
//   shift          in      the exponents of kevrce_norm_lsp.
// Ties go to the later codeword; a codeword whose first value is not more
// than 261 above the previous split's last quantized LSP scores 32767.
#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

namespace kevrc {
namespace {

constexpr int kOrder = 10;
constexpr int16_t kWorst = 32767;
constexpr int32_t kMinSeam = 261;  // minimum seam spacing, Q15 (about 64 Hz)
constexpr int16_t kInvTwoPi = 5215;  // 1/(2 pi) in Q15
constexpr int32_t kTwoPow29 = 536870912;

// Spacing of each LSP to its nearer neighbour (16-bit differences).
void spacings(const int16_t *lsp, int16_t *d) {
  d[0] = sub16_wrap(lsp[1], lsp[0]);
  d[kOrder - 1] = sub16_wrap(lsp[kOrder - 1], lsp[kOrder - 2]);
  for (int i = kOrder - 2; i >= 1; --i) {
    const int16_t below = sub16_wrap(lsp[i], lsp[i - 1]);
    const int16_t above = sub16_wrap(lsp[i + 1], lsp[i]);
    d[i] = below < above ? below : above;
  }
}

// Weight of one spacing d, with its exponent e: (32768 >> e) plus 1/(2 pi)
// times 2^29 / (d << e), all kept to 16 bits. A normalised spacing of exactly
// 16384 gives the quotient 32768, which wraps to -32768.
int16_t spacing_weight(int16_t d, int16_t *e_out) {
  const int16_t e = norm_32(shl32_wrap(d, 16));
  const int16_t m = wrap16(shl32_wrap(d, e));
  const int16_t q = m == 0 ? int16_t{0} : wrap16(kTwoPow29 / m);
  *e_out = e;
  return wrap16(add32_wrap(32768 >> e, mul16(q, kInvTwoPi) >> 15));
}

// t0 << n saturated (Q31 product times 2^n, high half kept, Q15): a shift
// that leaves the 32-bit range gives -32768 for t0 < 0 and 32767 for
// t0 > 0, and t0 = 0 counts as an overflowing negative value (-32768).
// n <= 0 leaves t0 unshifted. An exact result of -2^31 and a saturated one
// have the same high half, so the saturating shift decides every case.
int16_t weighted_term(int32_t t0, int16_t n) {
  if (n <= 0) return static_cast<int16_t>(t0 >> 16);
  if (t0 == 0) return int16_t{-32768};
  return static_cast<int16_t>(shl32_sat(t0, n) >> 16);
}

// Weighted squared distance of one codeword to the split's LSPs, rounded to
// 16 bits (saturated). lsp, weight and shift point at the split's first
// position; n is kN when kN > 0 (a fixed count the compiler unrolls).
template <int kN>
int16_t distance(const int16_t *lsp, const int16_t *weight, const int16_t *shift, int n,
                 const int16_t *codeword) {
  if constexpr (kN > 0) n = kN;
  int32_t acc = 0;
  for (int k = 0; k < n; ++k) {
    const int16_t diff = sub16_wrap(lsp[k], codeword[k]);
    const int16_t t = weighted_term(mul2_16(weight[k], diff), shift[k]);
    acc = add32_wrap(acc, mul16(diff, t));
  }
  return round16_sat(shl32_wrap(acc, 1));
}

// Searches one split's codebook (n LSPs from position first); returns the
// chosen index.
// weighted_term for a whole block of t0 values with one exponent n: the
// saturating shift as two comparisons against the largest unsaturated
// magnitudes (exponents past 31 saturate as 31 does).
struct TermShift {
  int n = 0;         // the exponent, limited to 31 when positive
  int32_t high = 0;  // largest t0 that shifts without saturating
  int32_t low = 0;   // smallest such t0
  TermShift() = default;
  explicit TermShift(int16_t shift)
      : n(shift > 31 ? 31 : shift), high(n > 0 ? INT32_MAX >> n : 0), low(n > 0 ? INT32_MIN >> n : 0) {}
  int32_t term(int32_t t0) const {
    if (n <= 0) return t0 >> 16;
    if (t0 == 0) return -32768;
    if (t0 > high) return 32767;
    if (t0 < low) return -32768;
    return shl32_wrap(t0, n) >> 16;
  }
};

// round16_sat(shl32_wrap(acc, 1)) in 32 bits: below 0x7FFF8000 the rounding
// addition cannot overflow, and from there on the result saturates.
int16_t rounded_distance(uint32_t acc) {
  const int32_t v = static_cast<int32_t>(acc << 1);
  return v > 0x7FFF7FFF ? kWorst : static_cast<int16_t>((v + 0x8000) >> 16);
}

// The distances of kBlockSize consecutive codewords, dimension by dimension
// over the block (fixed counts: the compiler vectorizes the inner loops).
constexpr int kBlockSize = 16;

template <int kN>
void block_distances(const int16_t *lsp, const int16_t *weight, const TermShift *shifts,
                     const int16_t *codewords, int16_t *dist) {
  uint32_t acc[kBlockSize] = {};
  for (int k = 0; k < kN; ++k) {
    int16_t column[kBlockSize];
    for (int j = 0; j < kBlockSize; ++j) column[j] = codewords[j * kN + k];
    const int16_t l = lsp[k], w = weight[k];
    const TermShift ts = shifts[k];
    if (ts.n <= 0) {
      for (int j = 0; j < kBlockSize; ++j) {
        const int16_t diff = sub16_wrap(l, column[j]);
        acc[j] += static_cast<uint32_t>(mul16(diff, static_cast<int16_t>(mul2_16(w, diff) >> 16)));
      }
    } else {
      for (int j = 0; j < kBlockSize; ++j) {
        const int16_t diff = sub16_wrap(l, column[j]);
        acc[j] += static_cast<uint32_t>(mul16(diff, static_cast<int16_t>(ts.term(mul2_16(w, diff)))));
      }
    }
  }
  for (int j = 0; j < kBlockSize; ++j) dist[j] = rounded_distance(acc[j]);
}

template <int kN>
uint16_t search_split(const int16_t *lsp, const int16_t *weight, const int16_t *shift, int first,
                      int n, int entries, const int16_t *book) {
  int16_t best = kWorst;
  uint16_t chosen = 0;
  int j = 0;
  if constexpr (kN > 0) {
    // Whole blocks: the distances first, then the seam rule and the choice.
    TermShift shifts[kN];
    for (int k = 0; k < kN; ++k) shifts[k] = TermShift(shift[first + k]);
    const int32_t seam = first > 0 ? weight[first - 1] + kMinSeam : INT32_MIN;
    for (; j + kBlockSize <= entries; j += kBlockSize) {
      int16_t dist[kBlockSize];
      block_distances<kN>(lsp + first, weight + first, shifts, book + j * kN, dist);
      for (int b = 0; b < kBlockSize; ++b) {
        const int16_t d = book[(j + b) * kN] <= seam ? kWorst : dist[b];
        if (d <= best) {
          best = d;
          chosen = static_cast<uint16_t>(j + b);
        }
      }
    }
  }
  for (; j < entries; ++j) {
    const int16_t *codeword = book + j * n;
    const bool too_close = first > 0 && codeword[0] <= weight[first - 1] + kMinSeam;
    const int16_t dist =
        too_close ? kWorst : distance<kN>(lsp + first, weight + first, shift + first, n, codeword);
    if (dist <= best) {
      best = dist;
      chosen = static_cast<uint16_t>(j);
    }
  }
  return chosen;
}

uint16_t search_any_split(const int16_t *lsp, const int16_t *weight, const int16_t *shift, int first,
                          int n, int entries, const int16_t *book) {
  switch (n) {
    case 2: return search_split<2>(lsp, weight, shift, first, n, entries, book);
    case 3: return search_split<3>(lsp, weight, shift, first, n, entries, book);
    case 4: return search_split<4>(lsp, weight, shift, first, n, entries, book);
    case 5: return search_split<5>(lsp, weight, shift, first, n, entries, book);
    default: return search_split<0>(lsp, weight, shift, first, n, entries, book);
  }
}

}  // namespace
}  // namespace kevrc

extern "C" void kevrce_norm_lsp(const int16_t *lsp, int16_t *weight, int16_t *shift) {
  using namespace kevrc;
  spacings(lsp, weight);  // the spacings are held in the weight array meanwhile
  for (int i = kOrder - 1; i >= 0; --i) weight[i] = spacing_weight(weight[i], &shift[i]);
}

extern "C" int16_t *kevrce_lspmaq(const int16_t *lsp, int16_t num_splits, const int16_t *split_dims,
                                  const int16_t *split_entries, int16_t *weight, uint16_t *index,
                                  const int16_t *codebook, const int16_t *shift) {
  using namespace kevrc;
  int first = 0;
  const int16_t *book = codebook;
  for (int s = 0; s < num_splits; ++s) {
    const int n = split_dims[s];
    index[s] = search_any_split(lsp, weight, shift, first, n, split_entries[s], book);
    const int16_t *chosen = book + index[s] * n;
    for (int k = 0; k < n; ++k) weight[first + k] = chosen[k];
    first += n;
    book += n * split_entries[s];
  }
  return weight;
}
