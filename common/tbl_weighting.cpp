// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Bandwidth weighting factors, Q15: entry k multiplies a(k+1) and is the
// (k+1)-th power of the base. Values are the codec's stated ones.
#include "common/tables.h"

extern "C" const int16_t kevrcd_tbl_wfac_alpha[10] = {  // 0.57^(k+1), postfilter numerator
    18678, 10646, 6068, 3459, 1972, 1124, 641, 365, 208, 119};
extern "C" const int16_t kevrcd_tbl_wfac_beta[10] = {  // 0.75^(k+1), postfilter denominator
    24576, 18432, 13824, 10368, 7776, 5832, 4374, 3281, 2460, 1845};
extern "C" const int16_t kevrc_tbl_wfac_gamma_1[10] = {  // 0.9^(k+1), weighting numerator
    29491, 26542, 23888, 21499, 19349, 17414, 15673, 14106, 12695, 11425};
extern "C" const int16_t kevrc_tbl_wfac_gamma_2[10] = {  // 0.5^(k+1)
    16384, 8192, 4096, 2048, 1024, 512, 256, 128, 64, 32};
extern "C" const int16_t kevrc_tbl_wfac_gamma_4[10] = {  // 0.994^(k+1), LPC bandwidth expansion
    32571, 32376, 32182, 31989, 31797, 31606, 31416, 31228, 31040, 30854};
