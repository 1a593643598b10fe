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
// The library's own codebooks (recognised by address and layout) are searched
// in their search orders (common/tbl_lsp_order.h), skipping codewords whose
// first position alone proves they lose, whenever that is exact (see
// pruning_is_exact); any other codebook, or weights that rule pruning out,
// get the full search. Both choose the same codeword.
#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "common/tbl_lsp_order.h"

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

// One position's product diff * term for a difference diff.
int32_t weighted_product(int16_t diff, int16_t w, const TermShift &ts) {
  const int32_t t0 = mul2_16(w, diff);
  return mul16(diff, static_cast<int16_t>(ts.n <= 0 ? t0 >> 16 : ts.term(t0)));
}

// Pruning is exact when every codeword's products are non-negative and their
// sum stays below 2^30 (the doubling before the rounding cannot wrap): then
// the distance never falls as products are added, and a codeword whose first
// product alone already rounds above the best distance cannot be chosen.
// With a positive weight the product is 0 at diff 0 and grows with |diff| on
// either side (the term keeps the sign of diff and grows with it), so over
// the differences that the codebook's value ranges allow (range: lowest and
// highest value per position), the largest product sits at an end of the
// range. False when a weight is not positive, a difference could wrap, or
// the largest sum reaches 2^30.
template <int kN>
bool pruning_is_exact(const int16_t *lsp, const int16_t *weight, const TermShift *shifts,
                      const int16_t *range) {
  int64_t largest_sum = 0;
  for (int k = 0; k < kN; ++k) {
    const int32_t below = lsp[k] - range[2 * k + 1], above = lsp[k] - range[2 * k];  // extreme differences
    if (weight[k] <= 0 || below < -32768 || above > 32767) return false;
    const int32_t a = weighted_product(static_cast<int16_t>(below), weight[k], shifts[k]);
    const int32_t b = weighted_product(static_cast<int16_t>(above), weight[k], shifts[k]);
    largest_sum += a > b ? a : b;
  }
  return largest_sum < (int64_t{1} << 30);
}

// The largest product sum whose rounded distance is not above best:
// (2 acc + 0x8000) >> 16 <= best (no limit while best is the worst score).
uint32_t sum_limit(int16_t best) {
  if (best >= kWorst) return UINT32_MAX;
  if (best < 0) return 0;
  return static_cast<uint32_t>((int32_t{best} + 1) * 32768 - 16385);
}

// block_distances for the kBlockSize codewords order[0 ..) of book.
template <int kN>
void ordered_block_distances(const int16_t *lsp, const int16_t *weight, const TermShift *shifts,
                             const int16_t *book, const uint16_t *order, int16_t *dist) {
  int16_t codewords[kBlockSize * kN];
  for (int j = 0; j < kBlockSize; ++j)
    for (int k = 0; k < kN; ++k) codewords[j * kN + k] = book[order[j] * kN + k];
  block_distances<kN>(lsp, weight, shifts, codewords, dist);
}

// search_split in the search order (the split's codewords sorted by first
// value) when pruning_is_exact: blocks of kBlockSize sorted codewords from the
// block where the first values pass lsp[0], outward in both directions; a
// direction stops at the first block whose nearest first value alone gives a
// product above the best distance so far, since every block beyond has
// larger first products. The seam rule only ever raises a distance, so a
// skipped codeword loses with or without it. Equal distances go to the later
// codeword index, as in the plain search.
template <int kN>
uint16_t ordered_search(const int16_t *lsp, const int16_t *weight, const TermShift *shifts,
                        int32_t seam, int entries, const int16_t *book, const uint16_t *order) {
  int16_t best = kWorst;
  int chosen = -1;
  uint32_t limit = UINT32_MAX;
  auto visit = [&](int block) {
    int16_t dist[kBlockSize];
    const uint16_t *ids = order + block * kBlockSize;
    ordered_block_distances<kN>(lsp, weight, shifts, book, ids, dist);
    for (int b = 0; b < kBlockSize; ++b) {
      const int id = ids[b];
      const int16_t d = book[id * kN] <= seam ? kWorst : dist[b];
      if (d < best || (d == best && id > chosen)) {
        best = d;
        chosen = id;
      }
    }
    limit = sum_limit(best);
  };
  auto first_product = [&](int sorted) {
    return static_cast<uint32_t>(
        weighted_product(sub16_wrap(lsp[0], book[order[sorted] * kN]), weight[0], shifts[0]));
  };
  const int blocks = entries / kBlockSize;
  int start = 0;  // the block holding the first sorted first value >= lsp[0]
  while (start < blocks - 1 && book[order[start * kBlockSize + kBlockSize - 1] * kN] < lsp[0]) ++start;
  visit(start);
  int up = start + 1, down = start - 1;
  while (up < blocks || down >= 0) {
    if (up < blocks) {
      if (first_product(up * kBlockSize) > limit) {
        up = blocks;
      } else {
        visit(up++);
      }
    }
    if (down >= 0) {
      if (first_product(down * kBlockSize + kBlockSize - 1) > limit) {
        down = -1;
      } else {
        visit(down--);
      }
    }
  }
  return static_cast<uint16_t>(chosen);
}

// A library codebook's search order and value ranges (tbl_lsp_order.h).
struct SearchOrder {
  const uint16_t *order = nullptr;  // nullptr: not a library codebook
  const int16_t *range = nullptr;
};

template <int kN>
uint16_t search_split(const int16_t *lsp, const int16_t *weight, const int16_t *shift, int first,
                      int n, int entries, const int16_t *book, const SearchOrder &order) {
  int16_t best = kWorst;
  uint16_t chosen = 0;
  int j = 0;
  if constexpr (kN > 0) {
    // Whole blocks: the distances first, then the seam rule and the choice.
    TermShift shifts[kN];
    for (int k = 0; k < kN; ++k) shifts[k] = TermShift(shift[first + k]);
    const int32_t seam = first > 0 ? weight[first - 1] + kMinSeam : INT32_MIN;
    if (order.order != nullptr && entries % kBlockSize == 0 &&
        pruning_is_exact<kN>(lsp + first, weight + first, shifts, order.range + 2 * first))
      return ordered_search<kN>(lsp + first, weight + first, shifts, seam, entries, book, order.order);
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
                          int n, int entries, const int16_t *book, const SearchOrder &order) {
  switch (n) {
    case 2: return search_split<2>(lsp, weight, shift, first, n, entries, book, order);
    case 3: return search_split<3>(lsp, weight, shift, first, n, entries, book, order);
    case 4: return search_split<4>(lsp, weight, shift, first, n, entries, book, order);
    case 5: return search_split<5>(lsp, weight, shift, first, n, entries, book, order);
    default: return search_split<0>(lsp, weight, shift, first, n, entries, book, order);
  }
}

// The search order and value ranges of the library's codebook with this
// layout (none for other codebooks).
SearchOrder search_order(int16_t num_splits, const int16_t *split_dims, const int16_t *split_entries,
                         const int16_t *codebook) {
  struct Layout {
    const int16_t *codebook;
    const uint16_t *order;
    const int16_t *range;
    int16_t num_splits, dims[4], entries[4];
  };
  static constexpr Layout kLayouts[] = {
      {kevrc_tbl_lsp_fr, kevrc_tbl_lsp_fr_order, kevrc_tbl_lsp_fr_range, 4, {2, 2, 3, 3}, {64, 64, 512, 128}},
      {kevrc_tbl_lsp_hr, kevrc_tbl_lsp_hr_order, kevrc_tbl_lsp_hr_range, 3, {3, 3, 4, 0}, {128, 128, 256, 0}},
      {kevrc_tbl_lsp_1_8, kevrc_tbl_lsp_1_8_order, kevrc_tbl_lsp_1_8_range, 2, {5, 5, 0, 0}, {16, 16, 0, 0}},
  };
  for (const Layout &l : kLayouts) {
    bool same = l.codebook == codebook && l.num_splits == num_splits;
    for (int s = 0; same && s < num_splits; ++s)
      same = l.dims[s] == split_dims[s] && l.entries[s] == split_entries[s];
    if (same) return SearchOrder{l.order, l.range};
  }
  return SearchOrder{};
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
  SearchOrder order = search_order(num_splits, split_dims, split_entries, codebook);
  for (int s = 0; s < num_splits; ++s) {
    const int n = split_dims[s];
    index[s] = search_any_split(lsp, weight, shift, first, n, split_entries[s], book, order);
    if (order.order != nullptr) order.order += split_entries[s];
    const int16_t *chosen = book + index[s] * n;
    for (int k = 0; k < n; ++k) weight[first + k] = chosen[k];
    first += n;
    book += n * split_entries[s];
  }
  return weight;
}
