// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Rate decision: the helpers that tests reach directly. The function and
// its tables are declared in api/kevrc_kernels.h.
#pragma once

#include <cstdint>

#include <kevrc/kevrc_kernels.h>

namespace kevrc {

// signal / noise in Q23, for noise > 0 (256000000 otherwise, 0 for signal <= 0);
// saturates at INT32_MAX (a ratio of 256).
int32_t rd_snr_ratio_q23(int32_t signal, int32_t noise);
// SNR index 0..7 before the estimates have adapted: from the noise energy alone,
// offset_q26 the band's constant (the low three bits of the step count are kept).
int16_t rd_snr_index_unadapted(int32_t noise, int32_t offset_q26);
// SNR index 0..7 once adapted: from the Q23 signal-to-noise ratio.
int16_t rd_snr_index_adapted(int32_t ratio_q23);

}  // namespace kevrc
