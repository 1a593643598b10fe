// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Internal helpers of the frame analysis, shared with the tests.
#pragma once

#include <cstdint>

namespace kevrc {

// Merges the open-loop estimates (d1, b1) of residual[80..239] and (d2, b2) of
// residual[160..319] into the frame's delay *d and gain *b (Q15).
void merge_open_loop_pitch(int16_t d1, int16_t b1, int16_t d2, int16_t b2, int16_t *d, int16_t *b);

}  // namespace kevrc
