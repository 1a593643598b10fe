// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Constant data of the full-rate algebraic codebook search.
#include <kevrc/kevrc_kernels.h>

extern "C" {

// Track sequence of the four pulse configurations: configuration k reads
// entries k..k+7 as four track pairs (t, (t+1) mod 5). Entry i is i mod 5;
// the eleventh entry (0) is needed by configuration 3.
const int16_t kevrce_track_order[11] = {0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 0};

}  // extern "C"
