// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Per-rate quantizer record shared by the encoder and the decoder: the LSP
// split layout, the index widths, the LSP codebook and the fixed-codebook
// gain table of one rate. Rows are padded to four entries with zeros.
#pragma once

#include <cstdint>

struct kevrc_rate_params {
  int16_t num_splits;        // 4, 3 or 2: equal to the rate code at full and half rate
  int16_t split_dims[4];     // LSPs per split
  int16_t split_entries[4];  // entries per split codebook
  int16_t index_bits[4];     // bits per split index
  const int16_t *codebook;   // LSP codebook of the rate
  const int16_t *fcb_gains;  // fixed-codebook gain table (eighth rate: the half-rate one)
  int16_t fcb_gain_count;
};

namespace kevrc {
// tbl_rate_params.cpp
extern const kevrc_rate_params kParamsFull;
extern const kevrc_rate_params kParamsHalf;
extern const kevrc_rate_params kParamsEighth;
}  // namespace kevrc
