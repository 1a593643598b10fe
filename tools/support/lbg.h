// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Vector-quantizer training for the table-training tool (header only, so that
// the unit tests can use it without a library of their own).
//
// Two trainers:
//  - lbg_train(): generalized Lloyd / LBG on a weighted squared error,
//    sum_k w[k] * (x[k] - c[k])^2, with per-vector weights (plain squared
//    error when every weight is 1). The codebook grows from one centroid by
//    splitting every codeword in two until it has K rows; every size is
//    refined by Lloyd iterations. Rows marked fixed take part in the search
//    but are never moved. Empty cells are refilled by splitting the busiest
//    cell. Deterministic: no random numbers at all.
//  - lsp_joint_train(): Lloyd iterations of a whole split LSP codebook with
//    the encoder's own search, split by split with the ordering rule, on the
//    exact integer distance of the quantizer (lsp_split_distance below, the
//    same arithmetic as kevrce_lspmaq). Centroids minimise each frame's
//    training distance (LspFrame::metric) over the cell: per-dimension
//    weighted means with its diagonal, or, with full_metric, the solution of
//    (sum M) c = sum M x with the split's block M of every member.
//
// Floating point and allocation are fine here: this is tool code.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

namespace kevrc::train {

// ---- Split layout of an LSP codebook --------------------------------------

struct SplitLayout {
  int num_splits;
  int dims[4];     // LSPs per split
  int entries[4];  // codewords per split

  int start(int s) const {  // first LSP position of split s
    int p = 0;
    for (int i = 0; i < s; ++i) p += dims[i];
    return p;
  }
  int offset(int s) const {  // first table value of split s
    int o = 0;
    for (int i = 0; i < s; ++i) o += dims[i] * entries[i];
    return o;
  }
  int table_size() const { return offset(num_splits); }
};

inline constexpr SplitLayout kLayoutFull{4, {2, 2, 3, 3}, {64, 64, 512, 128}};
inline constexpr SplitLayout kLayoutHalf{3, {3, 3, 4, 0}, {128, 128, 256, 0}};
inline constexpr SplitLayout kLayoutEighth{2, {5, 5, 0, 0}, {16, 16, 0, 0}};

// Smallest first value of a later split's codeword, relative to the previous
// split's chosen last value, that the search accepts (the value must be
// greater than previous + 261).
constexpr int kSeamGap = 261;

// One training frame: unquantized LSPs (Q15) with the weights and shifts that
// kevrce_norm_lsp computes from them (the search's distance), and the
// training distance e^T metric e that the centroids minimise (diagonal for
// per-LSP weights; symmetric).
struct LspFrame {
  int16_t lsp[10];
  int16_t weight[10];
  int16_t shift[10];
  float metric[10][10] = {};
};

// Effective weight of LSP p in the quantizer's distance, which is
// sum_p W_p * diff_p^2 / 32768 while no saturation occurs:
// t = (2 * weight * diff << shift) >> 16 = weight * 2^shift * diff / 32768.
inline double effective_weight(const LspFrame &f, int p) {
  double w = f.weight[p];
  if (f.shift[p] > 0) w = std::ldexp(w, f.shift[p]);
  w /= 32768.0;
  return w > 1e-6 ? w : 1e-6;  // a wrapped (negative) weight only occurs on degenerate input
}

// Distance of one codeword of n values to the LSPs at positions start..,
// exactly as the quantizer computes it (16-bit differences, 32-bit products
// that wrap, the bit-by-bit saturating shift, a wrapping 32-bit sum, rounding
// of twice the sum to 16 bits).
inline int32_t lsp_split_distance(const LspFrame &f, int start, int n, const int16_t *cw) {
  uint32_t acc = 0;
  for (int k = 0; k < n; ++k) {
    const int p = start + k;
    const int16_t diff = static_cast<int16_t>(f.lsp[p] - cw[k]);
    const int32_t t0 = static_cast<int32_t>(static_cast<uint32_t>(2 * int64_t{f.weight[p]} * diff));
    int32_t t;
    if (f.shift[p] > 0) {
      // Shifting one bit at a time overflows at the first step whose bit 31
      // differs from the sign of t0 (0 counting as negative): that is exactly
      // "t0 << shift leaves the 32-bit range", and always for t0 = 0.
      const int64_t v = int64_t{t0} * (int64_t{1} << std::min<int>(f.shift[p], 32));
      const bool overflow = t0 == 0 || v > INT32_MAX || v < INT32_MIN;
      if (overflow)
        t = t0 <= 0 ? -32768 : 32767;
      else
        t = static_cast<int32_t>(v >> 16);
    } else {
      t = t0 >> 16;
    }
    acc += static_cast<uint32_t>(int32_t{diff} * t);
  }
  const int32_t twice = static_cast<int32_t>(acc * 2u);
  return static_cast<int32_t>((int64_t{twice} + 32768) >> 16);
}

// The quantizer's search: split by split, best distance with ties to the
// later codeword, codewords of a later split whose first value is not above
// the previous split's chosen last value + 261 scored 32767. Writes the
// indices and the quantized LSPs; returns the summed distance.
inline int64_t lsp_split_search(const LspFrame &f, const SplitLayout &layout, const int16_t *book,
                                int *index, int16_t *q) {
  int64_t total = 0;
  for (int s = 0; s < layout.num_splits; ++s) {
    const int n = layout.dims[s], start = layout.start(s);
    const int16_t *base = book + layout.offset(s);
    int32_t best = 32767;
    int bi = 0;
    for (int j = 0; j < layout.entries[s]; ++j) {
      const int16_t *cw = base + j * n;
      int32_t d = lsp_split_distance(f, start, n, cw);
      if (s > 0 && !(cw[0] > q[start - 1] + kSeamGap)) d = 32767;
      if (d <= best) {
        best = d;
        bi = j;
      }
    }
    index[s] = bi;
    std::memcpy(q + start, base + bi * n, sizeof(int16_t) * static_cast<size_t>(n));
    total += best;
  }
  return total;
}

// ---- Weighted LBG -------------------------------------------------------------

// N vectors of dimension n with a weight per component.
struct WeightedSet {
  int n = 1;
  std::vector<float> x;  // N * n
  std::vector<float> w;  // N * n
  size_t size() const { return x.size() / static_cast<size_t>(n); }
  void add(const float *v, const float *wt) {
    x.insert(x.end(), v, v + n);
    w.insert(w.end(), wt, wt + n);
  }
};

struct LbgOptions {
  int max_iterations = 60;         // per codebook size
  double tolerance = 1e-4;         // stop when the relative distortion change is below this
  int final_max_iterations = 100;  // at the full size
};

struct LbgStats {
  int iterations = 0;     // Lloyd iterations in total
  int refills = 0;        // empty cells refilled
  double distortion = 0;  // mean weighted squared error per vector, final
};

// Applied to a codeword after each centroid update (ordering, gaps, ranges).
using Constrain = std::function<void(float *cw, int n)>;

// Nearest codeword under the weighted squared error; ties go to the lower index.
inline int nearest_codeword(const float *x, const float *w, int n, const float *cb, int K,
                            double *dist) {
  int bi = 0;
  double best = INFINITY;
  for (int j = 0; j < K; ++j) {
    const float *c = cb + static_cast<size_t>(j) * n;
    double d = 0;
    for (int k = 0; k < n && d < best; ++k) {
      const double e = double{x[k]} - c[k];
      d += w[k] * e * e;
    }
    if (d < best) {
      best = d;
      bi = j;
    }
  }
  if (dist) *dist = best;
  return bi;
}

namespace detail {

struct CellSums {
  std::vector<double> wx, w, wxx;  // K * n each
  std::vector<size_t> count;       // K
  std::vector<double> far_d;       // K: largest member distance seen (-1: none or used)
  std::vector<float> far_x;        // K * n: that member
  void reset(int K, int n) {
    wx.assign(static_cast<size_t>(K) * n, 0.0);
    w.assign(static_cast<size_t>(K) * n, 0.0);
    wxx.assign(static_cast<size_t>(K) * n, 0.0);
    count.assign(static_cast<size_t>(K), 0);
    far_d.assign(static_cast<size_t>(K), -1.0);
    far_x.assign(static_cast<size_t>(K) * n, 0.0f);
  }
  void add(int j, int n, const float *x, const float *wt, double dist) {
    for (int k = 0; k < n; ++k) {
      const size_t i = static_cast<size_t>(j) * n + k;
      wx[i] += double{wt[k]} * x[k];
      w[i] += wt[k];
      wxx[i] += double{wt[k]} * x[k] * x[k];
    }
    ++count[static_cast<size_t>(j)];
    if (dist > far_d[static_cast<size_t>(j)]) {
      far_d[static_cast<size_t>(j)] = dist;
      std::copy(x, x + n, far_x.begin() + static_cast<ptrdiff_t>(j) * n);
    }
  }
  // Weighted standard deviation of cell j, component k (at least 1).
  double spread(int j, int n, int k) const {
    const size_t i = static_cast<size_t>(j) * n + k;
    if (w[i] <= 0) return 1.0;
    const double m = wx[i] / w[i];
    const double var = wxx[i] / w[i] - m * m;
    return var > 1.0 ? std::sqrt(var) : 1.0;
  }
};

}  // namespace detail

// Refills every empty non-fixed cell by splitting the busiest non-fixed cell
// (most members, lowest index on ties): the empty codeword moves onto the
// busiest cell's member farthest from its codeword. If that member was used
// already (or coincides with the codeword), the two codewords instead move a
// quarter of the cell's spread apart along every component. Returns the
// number of cells refilled.
inline int refill_empty_cells(std::vector<float> &cb, int K, int n, const std::vector<char> &fixed,
                              detail::CellSums &sums, const Constrain &constrain) {
  int refills = 0;
  for (int j = 0; j < K; ++j) {
    if (fixed[static_cast<size_t>(j)] || sums.count[static_cast<size_t>(j)] != 0) continue;
    int busiest = -1;
    for (int b = 0; b < K; ++b) {
      if (fixed[static_cast<size_t>(b)]) continue;
      if (busiest < 0 ||
          sums.count[static_cast<size_t>(b)] > sums.count[static_cast<size_t>(busiest)])
        busiest = b;
    }
    if (busiest < 0 || sums.count[static_cast<size_t>(busiest)] < 2) break;
    float *cbz = cb.data() + static_cast<size_t>(busiest) * n;
    float *cj = cb.data() + static_cast<size_t>(j) * n;
    if (sums.far_d[static_cast<size_t>(busiest)] > 0) {
      std::copy(sums.far_x.begin() + static_cast<ptrdiff_t>(busiest) * n,
                sums.far_x.begin() + static_cast<ptrdiff_t>(busiest + 1) * n, cj);
      sums.far_d[static_cast<size_t>(busiest)] = -1.0;
      if (constrain) constrain(cj, n);
    } else {
      for (int k = 0; k < n; ++k) {
        const float d = static_cast<float>(0.25 * sums.spread(busiest, n, k));
        cj[k] = cbz[k] + d;
        cbz[k] -= d;
      }
      if (constrain) {
        constrain(cj, n);
        constrain(cbz, n);
      }
    }
    // The two now share the busiest cell's members (for the next refill).
    const size_t half = sums.count[static_cast<size_t>(busiest)] / 2;
    sums.count[static_cast<size_t>(j)] = half;
    sums.count[static_cast<size_t>(busiest)] -= half;
    ++refills;
  }
  return refills;
}

// Lloyd iterations on a codebook of K rows until the relative distortion
// change falls below the tolerance or max_iterations have run.
inline LbgStats lloyd(const WeightedSet &data, std::vector<float> &cb, int K,
                      const std::vector<char> &fixed, int max_iterations, double tolerance,
                      const Constrain &constrain) {
  const int n = data.n;
  const size_t N = data.size();
  LbgStats st;
  detail::CellSums sums;
  double prev = INFINITY;
  for (int it = 0; it < max_iterations; ++it) {
    sums.reset(K, n);
    double total = 0;
    for (size_t v = 0; v < N; ++v) {
      const float *x = data.x.data() + v * n;
      const float *w = data.w.data() + v * n;
      double d = 0;
      const int j = nearest_codeword(x, w, n, cb.data(), K, &d);
      total += d;
      sums.add(j, n, x, w, d);
    }
    const double D = N ? total / static_cast<double>(N) : 0.0;
    st.distortion = D;
    ++st.iterations;
    for (int j = 0; j < K; ++j) {
      if (fixed[static_cast<size_t>(j)] || sums.count[static_cast<size_t>(j)] == 0) continue;
      float *c = cb.data() + static_cast<size_t>(j) * n;
      for (int k = 0; k < n; ++k) {
        const size_t i = static_cast<size_t>(j) * n + k;
        c[k] = static_cast<float>(sums.wx[i] / sums.w[i]);
      }
      if (constrain) constrain(c, n);
    }
    const int refills = refill_empty_cells(cb, K, n, fixed, sums, constrain);
    st.refills += refills;
    if (refills == 0 && std::isfinite(prev) && prev > 0 && (prev - D) / prev < tolerance) break;
    if (refills == 0 && D == 0) break;
    prev = D;
  }
  return st;
}

// LBG with splitting: grows from the weighted mean to K rows (K need not be a
// power of two: the last doubling splits only as many rows as needed, lowest
// indices first), refining every size with Lloyd iterations.
inline LbgStats lbg_train(const WeightedSet &data, int K, const LbgOptions &opt,
                          const Constrain &constrain, std::vector<float> &cb) {
  const int n = data.n;
  const size_t N = data.size();
  // Global spread per component: the splitting perturbation is 2 % of it.
  std::vector<double> mean(static_cast<size_t>(n), 0.0), wsum(static_cast<size_t>(n), 0.0),
      sq(static_cast<size_t>(n), 0.0);
  for (size_t v = 0; v < N; ++v)
    for (int k = 0; k < n; ++k) {
      const double x = data.x[v * n + k], w = data.w[v * n + k];
      mean[static_cast<size_t>(k)] += w * x;
      wsum[static_cast<size_t>(k)] += w;
      sq[static_cast<size_t>(k)] += w * x * x;
    }
  std::vector<float> delta(static_cast<size_t>(n));
  cb.assign(static_cast<size_t>(n), 0.0f);
  for (int k = 0; k < n; ++k) {
    const size_t kk = static_cast<size_t>(k);
    const double m = wsum[kk] > 0 ? mean[kk] / wsum[kk] : 0.0;
    const double var = wsum[kk] > 0 ? sq[kk] / wsum[kk] - m * m : 0.0;
    cb[kk] = static_cast<float>(m);
    delta[kk] = static_cast<float>(0.02 * (var > 1 ? std::sqrt(var) : 1.0));
  }
  if (constrain) constrain(cb.data(), n);
  LbgStats total;
  int size = 1;
  while (size < K) {
    const int grow = std::min(size, K - size);
    cb.resize(static_cast<size_t>(size + grow) * n);
    for (int j = 0; j < grow; ++j) {
      float *a = cb.data() + static_cast<size_t>(j) * n;
      float *b = cb.data() + static_cast<size_t>(size + j) * n;
      for (int k = 0; k < n; ++k) {
        b[k] = a[k] + delta[static_cast<size_t>(k)];
        a[k] -= delta[static_cast<size_t>(k)];
      }
      if (constrain) {
        constrain(a, n);
        constrain(b, n);
      }
    }
    size += grow;
    std::vector<char> none(static_cast<size_t>(size), 0);
    const LbgStats st =
        lloyd(data, cb, size, none, size == K ? opt.final_max_iterations : opt.max_iterations,
              opt.tolerance, constrain);
    total.iterations += st.iterations;
    total.refills += st.refills;
    total.distortion = st.distortion;
  }
  if (K == 1) {
    std::vector<char> none(1, 0);
    total = lloyd(data, cb, 1, none, 2, opt.tolerance, constrain);
  }
  return total;
}

// Places fixed rows into a trained codebook: each fixed row (in the order
// given) replaces the not yet replaced trained row nearest to it (plain
// squared distance). Returns the codebook with the fixed rows at their
// positions and the remaining trained rows, sorted lexicographically, in the
// free positions.
inline std::vector<float> place_fixed_rows(
    const std::vector<float> &trained, int K, int n,
    const std::vector<std::pair<int, std::vector<float>>> &rows) {
  std::vector<char> used(static_cast<size_t>(K), 0);
  for (const auto &r : rows) {
    int bi = -1;
    double best = INFINITY;
    for (int j = 0; j < K; ++j) {
      if (used[static_cast<size_t>(j)]) continue;
      double d = 0;
      for (int k = 0; k < n; ++k) {
        const double e =
            double{trained[static_cast<size_t>(j) * n + k]} - r.second[static_cast<size_t>(k)];
        d += e * e;
      }
      if (d < best) {
        best = d;
        bi = j;
      }
    }
    if (bi >= 0) used[static_cast<size_t>(bi)] = 1;
  }
  std::vector<std::vector<float>> free_rows;
  for (int j = 0; j < K; ++j)
    if (!used[static_cast<size_t>(j)])
      free_rows.emplace_back(trained.begin() + static_cast<ptrdiff_t>(j) * n,
                             trained.begin() + static_cast<ptrdiff_t>(j + 1) * n);
  std::sort(free_rows.begin(), free_rows.end());
  std::vector<char> is_fixed(static_cast<size_t>(K), 0);
  std::vector<float> out(static_cast<size_t>(K) * n, 0.0f);
  for (const auto &r : rows) {
    is_fixed[static_cast<size_t>(r.first)] = 1;
    std::copy(r.second.begin(), r.second.end(), out.begin() + static_cast<ptrdiff_t>(r.first) * n);
  }
  size_t f = 0;
  for (int j = 0; j < K && f < free_rows.size(); ++j) {
    if (is_fixed[static_cast<size_t>(j)]) continue;
    std::copy(free_rows[f].begin(), free_rows[f].end(),
              out.begin() + static_cast<ptrdiff_t>(j) * n);
    ++f;
  }
  return out;
}

// ---- LSP codeword constraints ----------------------------------------------------

constexpr int kLspMinGap = 50;  // smallest spacing inside a codeword (Q15, about 12 Hz)
constexpr int kLspMin = 1;
constexpr int kLspMax = 16383;  // just below half the sampling rate

// Rounds a codeword to integers and makes it strictly ascending with at
// least kLspMinGap between neighbours, inside kLspMin..kLspMax. Pairs that
// are too close are pushed apart symmetrically about their midpoint.
inline void constrain_lsp_codeword(float *cw, int n) {
  std::vector<int> v(static_cast<size_t>(n));
  for (int k = 0; k < n; ++k) v[static_cast<size_t>(k)] = static_cast<int>(std::lround(cw[k]));
  for (int pass = 0; pass < 4 * n; ++pass) {
    bool changed = false;
    for (int k = 1; k < n; ++k) {
      int &a = v[static_cast<size_t>(k - 1)], &b = v[static_cast<size_t>(k)];
      if (b - a < kLspMinGap) {
        const int lo = (a + b - kLspMinGap) / 2;
        a = lo;
        b = lo + kLspMinGap;
        changed = true;
      }
    }
    if (!changed) break;
  }
  // Final guarantees, whatever the passes left: range, then gaps.
  v[0] = std::clamp(v[0], kLspMin, kLspMax - kLspMinGap * (n - 1));
  for (int k = 1; k < n; ++k)
    v[static_cast<size_t>(k)] =
        std::max(v[static_cast<size_t>(k)], v[static_cast<size_t>(k - 1)] + kLspMinGap);
  if (v[static_cast<size_t>(n - 1)] > kLspMax) {
    v[static_cast<size_t>(n - 1)] = kLspMax;
    for (int k = n - 2; k >= 0; --k)
      v[static_cast<size_t>(k)] =
          std::min(v[static_cast<size_t>(k)], v[static_cast<size_t>(k + 1)] - kLspMinGap);
  }
  for (int k = 0; k < n; ++k) cw[k] = static_cast<float>(v[static_cast<size_t>(k)]);
}

inline bool lsp_codeword_valid(const int16_t *cw, int n) {
  for (int k = 0; k < n; ++k) {
    if (cw[k] < kLspMin || cw[k] > kLspMax) return false;
    if (k > 0 && cw[k] <= cw[k - 1]) return false;
  }
  return true;
}

// ---- Joint training of a split LSP codebook with the real search ----------------

struct JointStats {
  int iterations = 0;
  int refills = 0;
  double distortion = 0;      // mean training distance (float metric) per frame, best table
  double int_distortion = 0;  // mean summed quantizer distance per frame
};

// Solves the n x n system m c = b (n <= 5) by Gaussian elimination with
// partial pivoting; false when m is (numerically) singular.
inline bool solve_small(std::vector<double> m, std::vector<double> b, int n, float *c) {
  for (int col = 0; col < n; ++col) {
    int piv = col;
    for (int r = col + 1; r < n; ++r)
      if (std::fabs(m[static_cast<size_t>(r * n + col)]) >
          std::fabs(m[static_cast<size_t>(piv * n + col)]))
        piv = r;
    const double d = m[static_cast<size_t>(piv * n + col)];
    if (!(std::fabs(d) > 1e-300)) return false;
    for (int k = 0; k < n; ++k)
      std::swap(m[static_cast<size_t>(col * n + k)], m[static_cast<size_t>(piv * n + k)]);
    std::swap(b[static_cast<size_t>(col)], b[static_cast<size_t>(piv)]);
    for (int r = col + 1; r < n; ++r) {
      const double f = m[static_cast<size_t>(r * n + col)] / d;
      for (int k = col; k < n; ++k)
        m[static_cast<size_t>(r * n + k)] -= f * m[static_cast<size_t>(col * n + k)];
      b[static_cast<size_t>(r)] -= f * b[static_cast<size_t>(col)];
    }
  }
  for (int r = n - 1; r >= 0; --r) {
    double v = b[static_cast<size_t>(r)];
    for (int k = r + 1; k < n; ++k) v -= m[static_cast<size_t>(r * n + k)] * c[k];
    c[r] = static_cast<float>(v / m[static_cast<size_t>(r * n + r)]);
    if (!std::isfinite(c[r])) return false;
  }
  return true;
}

// Lloyd iterations of the whole codebook `book` (layout's table) with the
// sequential constrained search; rows with fixed[i] set (i indexes rows of
// the whole table, split after split) are never moved. Because the search's
// rounded integer distance and the ordering rule are not the error the
// centroids minimise, an iteration can make things worse: every codebook is
// evaluated with the search and the best one seen is returned in `book`.
// Stops when the relative change of the training distance is below the
// tolerance or after max_iterations evaluations.
inline JointStats lsp_joint_train(const std::vector<LspFrame> &frames, const SplitLayout &layout,
                                  std::vector<int16_t> &book, const std::vector<char> &fixed,
                                  int max_iterations, double tolerance, bool full_metric = false,
                                  const std::function<void(int, double)> &progress = nullptr) {
  JointStats st;
  double prev = INFINITY, best = INFINITY;
  std::vector<int16_t> best_book = book;
  std::vector<detail::CellSums> sums(static_cast<size_t>(layout.num_splits));
  // full_metric: per split and cell, sum of the members' blocks M (n x n)
  // and of M x (n).
  std::vector<std::vector<double>> msum(static_cast<size_t>(layout.num_splits)),
      mxsum(static_cast<size_t>(layout.num_splits));
  for (int it = 0; it < max_iterations; ++it) {
    for (int s = 0; s < layout.num_splits; ++s) {
      const size_t K = static_cast<size_t>(layout.entries[s]),
                   n = static_cast<size_t>(layout.dims[s]);
      sums[static_cast<size_t>(s)].reset(layout.entries[s], layout.dims[s]);
      if (full_metric) {
        msum[static_cast<size_t>(s)].assign(K * n * n, 0.0);
        mxsum[static_cast<size_t>(s)].assign(K * n, 0.0);
      }
    }
    double total = 0, itotal = 0;
    for (const LspFrame &f : frames) {
      int idx[4];
      int16_t q[10];
      itotal += static_cast<double>(lsp_split_search(f, layout, book.data(), idx, q));
      float x[10], w[10];
      double e2[10], ev[10];
      for (int p = 0; p < 10; ++p) {
        x[p] = f.lsp[p];
        w[p] = f.metric[p][p];
        const double e = static_cast<double>(f.lsp[p]) - q[p];
        ev[p] = e;
        e2[p] = w[p] * e * e;
        total += e2[p];
      }
      if (full_metric)
        for (int p = 0; p < 10; ++p)
          for (int r = 0; r < 10; ++r)
            if (r != p) total += double{f.metric[p][r]} * ev[p] * ev[r];
      for (int s = 0; s < layout.num_splits; ++s) {
        const int n = layout.dims[s], p0 = layout.start(s);
        double d = 0;
        for (int k = 0; k < n; ++k) d += e2[p0 + k];
        sums[static_cast<size_t>(s)].add(idx[s], n, x + p0, w + p0, d);
        if (!full_metric) continue;
        double *m = msum[static_cast<size_t>(s)].data() + static_cast<size_t>(idx[s] * n * n);
        double *mx = mxsum[static_cast<size_t>(s)].data() + static_cast<size_t>(idx[s] * n);
        for (int k = 0; k < n; ++k)
          for (int l = 0; l < n; ++l) {
            m[k * n + l] += f.metric[p0 + k][p0 + l];
            mx[k] += double{f.metric[p0 + k][p0 + l]} * x[p0 + l];
          }
      }
    }
    const double N = frames.empty() ? 1.0 : static_cast<double>(frames.size());
    const double D = total / N;
    ++st.iterations;
    if (progress) progress(it, D);
    if (D < best) {
      best = D;
      best_book = book;
      st.distortion = D;
      st.int_distortion = itotal / N;
    }
    if (std::isfinite(prev) && prev > 0 && std::fabs(prev - D) / prev < tolerance) break;
    if (it + 1 == max_iterations) break;
    prev = D;
    int row0 = 0;
    for (int s = 0; s < layout.num_splits; ++s) {
      const int n = layout.dims[s], K = layout.entries[s];
      std::vector<float> cb(static_cast<size_t>(K) * n);
      int16_t *base = book.data() + layout.offset(s);
      for (size_t i = 0; i < cb.size(); ++i) cb[i] = base[i];
      std::vector<char> fx(fixed.begin() + row0, fixed.begin() + row0 + K);
      auto &sm = sums[static_cast<size_t>(s)];
      for (int j = 0; j < K; ++j) {
        if (fx[static_cast<size_t>(j)] || sm.count[static_cast<size_t>(j)] == 0) continue;
        float *c = cb.data() + static_cast<size_t>(j) * n;
        const size_t nn = static_cast<size_t>(n) * static_cast<size_t>(n);
        const bool solved =
            full_metric &&
            solve_small(
                std::vector<double>(
                    msum[static_cast<size_t>(s)].begin() + static_cast<ptrdiff_t>(j * nn),
                    msum[static_cast<size_t>(s)].begin() + static_cast<ptrdiff_t>((j + 1) * nn)),
                std::vector<double>(mxsum[static_cast<size_t>(s)].begin() + j * n,
                                    mxsum[static_cast<size_t>(s)].begin() + (j + 1) * n),
                n, c);
        for (int k = 0; k < n && !solved; ++k) {
          const size_t i = static_cast<size_t>(j) * n + k;
          c[k] = static_cast<float>(sm.wx[i] / sm.w[i]);
        }
        constrain_lsp_codeword(c, n);
      }
      st.refills += refill_empty_cells(cb, K, n, fx, sm, constrain_lsp_codeword);
      for (int j = 0; j < K; ++j) {
        if (fx[static_cast<size_t>(j)]) continue;
        for (int k = 0; k < n; ++k)
          base[j * n + k] = static_cast<int16_t>(std::lround(cb[static_cast<size_t>(j) * n + k]));
      }
      row0 += K;
    }
  }
  book = best_book;
  return st;
}

}  // namespace kevrc::train
