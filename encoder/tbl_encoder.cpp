// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Encoder constants entered as stated for the codec: the input high-pass
// filter's coefficients and the delay interpolation kernel.
#include "common/tables.h"

extern "C" {

// Three second-order sections in cascade order, Q14 (8192 = 0.5). Per row:
// c0 (x[n-2]), c1 (x[n-1]), c2 (x[n]), c3 (y[n-2]), c4 (y[n-1]), unused.
// The slightly unequal numerators of the first two sections are intended.
const int16_t kevrce_tbl_hpf[18] = {
    8193, -16385, 8192, 7802, -15923, 8192,  //
    8191, -16383, 8192, 7170, -15294, 8192,  //
    6828, -13656, 6828, 6827, -14952, 8192,
};

// Quadratic three-tap kernel in Q15, eight fractional phases per row; row 2
// is 1 - ((k - 4)/8)^2 for phase k (32767 for 1.0).
const int16_t kevrce_tbl_delay_kernel[24] = {
    12288, 8448,  5120,  2304,  0,     -1792, -3072, -3840,  //
    24576, 28160, 30720, 32256, 32767, 32256, 30720, 28160,  //
    -4096, -3840, -3072, -1792, 0,     2304,  5120,  8448,
};

}  // extern "C"
