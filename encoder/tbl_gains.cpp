// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Decision thresholds of the adaptive-codebook (pitch) gain quantizer.
//
// Entry k (0..6) separates gain levels k and k+1 of kevrc_tbl_pitch_q: it is
// the midpoint of the two real gains, 0.0 0.3 0.55 0.7 0.8 0.9 1.0 1.2, in
// Q14 rounded to the nearest integer: round(16384 * (g[k] + g[k+1]) / 2),
// that is 0.15, 0.425, 0.625, 0.75, 0.85, 0.95 and 1.1. The eighth entry is
// padding and is never read.
#include "common/tables.h"

extern "C" const int16_t kevrce_tbl_pitch_threshold[8] = {2458,  6963,  10240, 12288,
                                                          13926, 15565, 18022, 0};
