// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Exported C entry points of the arithmetic primitives (fixed_point.h holds
// the definitions, so that the kernels can inline them).
#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

extern "C" {

int32_t kevrc_mul_32_32(int32_t a, int32_t b) { return kevrc::mul_32_32(a, b); }
int32_t kevrc_mul_32_16(int32_t a, int16_t b) { return kevrc::mul_32_16(a, b); }
int32_t kevrc_div_32_32(int32_t num, int32_t den) { return kevrc::div_32_32(num, den); }
int16_t kevrc_div_16_16(int16_t num, int16_t den) { return kevrc::div_16_16(num, den); }
int16_t kevrc_squar_rt(int32_t x) { return kevrc::squar_rt(x); }
int32_t kevrc_inv_sqrt(int32_t x) { return kevrc::inv_sqrt(x); }
int16_t kevrc_norm_32(int32_t x) { return kevrc::norm_32(x); }
int16_t kevrc_norm_16(int16_t x) { return kevrc::norm_16(x); }
int32_t kevrc_log2(int32_t x) { return kevrc::log2(x); }
int32_t kevrc_log(int32_t x) { return kevrc::log(x); }
int32_t kevrc_log10(int32_t x) { return kevrc::log10(x); }

}  // extern "C"
