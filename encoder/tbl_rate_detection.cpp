// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Constants of the rate decision, entered as stated for the codec.
//
// kevrce_tbl_band_filter[b][k], k = 0..16: the autocorrelation of the
//   band-pass response of band b (0 low band, 1 high band), Q15; the band
//   energy is the dot product of these taps with the frame's autocorrelation
//   r[0..16] (tap 0 counted once, so it is halved where it is used).
// kevrce_tbl_rate_threshold[i][t], i = SNR index 0..7, t = 0 half rate,
//   1 full rate: a band passes when 8*E > N * threshold / 256, i.e. the
//   thresholds are energy-to-noise ratios in Q8 (1792 = 7.0, 20378 = 79.6).
//   Both bands use the same rows.
// kevrce_tbl_hangover[i], i = band-0 SNR index 0..7: frames held at full
//   rate after speech ends.
#include "common/tables.h"
#include "encoder/rate_detection.h"

extern "C" {

const int16_t kevrce_tbl_band_filter[2][17] = {
    {27055, 17345, -1096, -10143, -5962, 96, -912, -5481, -6006, -1919, 1531, 1561, 227, -72, 416,
     525, 202},
    {31132, -20842, 1754, 6829, -1930, -3912, 2256, 2518, -3442, 857, 819, -342, -328, 171, 105,
     -70, 9},
};

const int16_t kevrce_tbl_rate_threshold[8][2] = {
    {1792, 2304}, {1792, 3226}, {2048, 4352}, {2202, 4736},
    {2278, 4966}, {2406, 5350}, {2816, 6528}, {8090, 20378},
};

const int16_t kevrce_tbl_hangover[8] = {8, 8, 8, 4, 1, 0, 0, 0};

}  // extern "C"
