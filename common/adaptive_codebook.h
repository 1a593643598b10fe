// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Interpolation of the adaptive codebook over a stretch at one delay, for
// the residual modification's searches and its unramped output.
//
// interpolate_fixed(x, delay, cutoff, n_half, count, out): out[m] for
// m < count is exactly what kevrc_bilinear_intrpol(x + m, delay, cutoff,
// n_half) gives (delay Q24, cutoff 29491 the 17-tap table, any other value
// the 7-tap one; out Q0, not overlapping x). The integer delay I and the
// phase are found once. Reads x[-I-n .. count-1-I+n] with n the table's
// half-length limited to n_half, and with the whole 7-tap row one sample
// more, x[count-1-I+4] (a zero lane: its value does not count).
#pragma once

#include <cstdint>

namespace kevrc {

void interpolate_fixed(const int16_t *x, int32_t delay, int16_t cutoff, int16_t n_half, int count,
                       int16_t *out);

}  // namespace kevrc
