// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrc_interpolation_cos129(x): cos(pi*x/16384) in Q31 for a Q15 frequency x
// (16384 = half the sampling rate); see common/cos129.h for the method and
// its quirks on negative and out-of-range x.
#include "common/cos129.h"

extern "C" int32_t kevrc_interpolation_cos129(int16_t x) { return kevrc::cos129(x); }
