// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Spectral distortion between two LSP vectors, in double precision (header
// only; used by the table-training tool and its tests).
//
// lsp_to_lpc_double(): LSPs in Q15 of the sampling rate (16384 = 4 kHz, angle
//   pi) to a[0..10] with a[0] = 1 and A(z) = sum a[k] z^-k, from
//   P(z) = (1 + z^-1) prod_{even i} (1 - 2 cos w_i z^-1 + z^-2),
//   Q(z) = (1 - z^-1) prod_{odd i}  (1 - 2 cos w_i z^-1 + z^-2),
//   A(z) = (P(z) + Q(z)) / 2, w_i = pi * lsp[i] / 16384.
// log_power_db(): 10 log10 of 1/|A(e^jw)|^2 at w = pi k / points, k = 0..points-1
//   (0 to 4 kHz).
// spectral_distortion_db(): root-mean-square difference of the two log
//   spectra over those points.
// lsp_sd_sensitivity(): the matrix H (dB^2 per Q15 unit^2) with
//   SD(lsp, lsp + e)^2 ~= e^T H e for small errors e: H[i][j] is the mean
//   over the points of g_i(w) g_j(w), g_i = d/d lsp[i] of the log spectrum,
//   computed exactly from dA/dw_i = sin(w_i) z^-1 R_i(z), R_i being P(z) or
//   Q(z) without the section of LSP i.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace kevrc::train {

// poly (degree deg, room for 12 coefficients) *= (1 + c z^-1 + z^-2); deg += 2.
inline void mul_lsp_section(double *poly, int &deg, double c) {
  double out[12] = {0};
  for (int k = 0; k <= deg; ++k) {
    out[k] += poly[k];
    out[k + 1] += c * poly[k];
    out[k + 2] += poly[k];
  }
  deg += 2;
  for (int k = 0; k <= deg; ++k) poly[k] = out[k];
}

inline void lsp_to_lpc_double(const int16_t *lsp, double *a) {
  double p[12] = {1.0}, q[12] = {1.0};
  int np = 0, nq = 0;  // current polynomial degrees
  const auto mul_section = mul_lsp_section;
  for (int i = 0; i < 10; i += 2) mul_section(p, np, -2.0 * std::cos(M_PI * lsp[i] / 16384.0));
  for (int i = 1; i < 10; i += 2) mul_section(q, nq, -2.0 * std::cos(M_PI * lsp[i] / 16384.0));
  // Multiply by (1 + z^-1) and (1 - z^-1): degree 11; the z^-11 terms cancel in the sum.
  double P[12], Q[12];
  for (int k = 0; k <= 11; ++k) {
    const double pk = k <= 10 ? p[k] : 0.0, pk1 = k >= 1 ? p[k - 1] : 0.0;
    const double qk = k <= 10 ? q[k] : 0.0, qk1 = k >= 1 ? q[k - 1] : 0.0;
    P[k] = pk + pk1;
    Q[k] = qk - qk1;
  }
  for (int k = 0; k <= 10; ++k) a[k] = 0.5 * (P[k] + Q[k]);
}

inline std::vector<double> log_power_db(const double *a, int points) {
  std::vector<double> out(static_cast<size_t>(points));
  for (int k = 0; k < points; ++k) {
    const double w = M_PI * k / points;
    double re = 0, im = 0;
    for (int i = 0; i <= 10; ++i) {
      re += a[i] * std::cos(w * i);
      im -= a[i] * std::sin(w * i);
    }
    const double mag2 = re * re + im * im;
    out[static_cast<size_t>(k)] = -10.0 * std::log10(mag2 > 1e-30 ? mag2 : 1e-30);
  }
  return out;
}

inline double spectral_distortion_db(const int16_t *lsp_ref, const int16_t *lsp_test,
                                     int points = 256) {
  double a[11], b[11];
  lsp_to_lpc_double(lsp_ref, a);
  lsp_to_lpc_double(lsp_test, b);
  const std::vector<double> x = log_power_db(a, points), y = log_power_db(b, points);
  double s = 0;
  for (int k = 0; k < points; ++k) {
    const double d = x[static_cast<size_t>(k)] - y[static_cast<size_t>(k)];
    s += d * d;
  }
  return std::sqrt(s / points);
}

inline void lsp_sd_sensitivity(const int16_t *lsp, double h[10][10], int points = 128) {
  double a[11];
  lsp_to_lpc_double(lsp, a);
  // r[i]: R_i(z), degree 9, for every LSP.
  double r[10][11];
  for (int i = 0; i < 10; ++i) {
    double poly[12] = {1.0, (i % 2 == 0) ? 1.0 : -1.0};
    int deg = 1;
    for (int j = i % 2; j < 10; j += 2) {
      if (j == i) continue;
      mul_lsp_section(poly, deg, -2.0 * std::cos(M_PI * lsp[j] / 16384.0));
    }
    for (int k = 0; k <= 10; ++k) r[i][k] = k <= deg ? poly[k] : 0.0;
  }
  // dB per radian -> dB per Q15 unit, with the sign of -10 log10 |A|^2.
  const double scale = -20.0 / std::log(10.0) * M_PI / 16384.0;
  for (int i = 0; i < 10; ++i)
    for (int j = 0; j < 10; ++j) h[i][j] = 0.0;
  for (int k = 0; k < points; ++k) {
    const double w = M_PI * k / points;
    double cr[12], ci[12];  // e^{-j w m}
    const double c1 = std::cos(w), s1 = -std::sin(w);
    cr[0] = 1.0;
    ci[0] = 0.0;
    for (int m = 1; m <= 11; ++m) {
      cr[m] = cr[m - 1] * c1 - ci[m - 1] * s1;
      ci[m] = cr[m - 1] * s1 + ci[m - 1] * c1;
    }
    double ar = 0, ai = 0;
    for (int m = 0; m <= 10; ++m) {
      ar += a[m] * cr[m];
      ai += a[m] * ci[m];
    }
    const double mag2 = std::max(ar * ar + ai * ai, 1e-30);
    double g[10];
    for (int i = 0; i < 10; ++i) {
      double dr = 0, di = 0;  // z^-1 R_i(z)
      for (int m = 0; m <= 9; ++m) {
        dr += r[i][m] * cr[m + 1];
        di += r[i][m] * ci[m + 1];
      }
      const double s = std::sin(M_PI * lsp[i] / 16384.0);
      g[i] = scale * s * (dr * ar + di * ai) / mag2;  // Re(dA conj(A)) / |A|^2
    }
    for (int i = 0; i < 10; ++i)
      for (int j = 0; j < 10; ++j) h[i][j] += g[i] * g[j];
  }
  for (int i = 0; i < 10; ++i)
    for (int j = 0; j < 10; ++j) h[i][j] /= points;
}

// Summary of per-frame spectral distortions.
struct SdSummary {
  size_t frames = 0;
  double mean_db = 0;
  double pct_2_to_4 = 0;  // % of frames with 2 dB < SD <= 4 dB
  double pct_over_4 = 0;  // % of frames with SD > 4 dB
};

inline SdSummary summarize_sd(const std::vector<double> &sd) {
  SdSummary s;
  s.frames = sd.size();
  if (sd.empty()) return s;
  size_t mid = 0, high = 0;
  double sum = 0;
  for (double v : sd) {
    sum += v;
    if (v > 4.0)
      ++high;
    else if (v > 2.0)
      ++mid;
  }
  s.mean_db = sum / static_cast<double>(sd.size());
  s.pct_2_to_4 = 100.0 * static_cast<double>(mid) / static_cast<double>(sd.size());
  s.pct_over_4 = 100.0 * static_cast<double>(high) / static_cast<double>(sd.size());
  return s;
}

}  // namespace kevrc::train
