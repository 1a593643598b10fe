// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The three per-rate quantizer records, entered as stated for the codec:
// full rate 4 splits of 2, 2, 3, 3 LSPs (64, 64, 512, 128 entries; 6, 6, 9,
// 7 bits; 32 gains), half rate 3 splits of 3, 3, 4 (128, 128, 256; 7, 7, 8;
// 16 gains), eighth rate 2 splits of 5, 5 (16, 16; 4, 4; the half-rate gains).
#include "common/rate_params.h"
#include "common/tables.h"

namespace kevrc {

const kevrc_rate_params kParamsFull = {
    4, {2, 2, 3, 3}, {64, 64, 512, 128}, {6, 6, 9, 7}, kevrc_tbl_lsp_fr, kevrc_tbl_fcb_gain_fr, 32};
const kevrc_rate_params kParamsHalf = {
    3, {3, 3, 4, 0}, {128, 128, 256, 0}, {7, 7, 8, 0}, kevrc_tbl_lsp_hr, kevrc_tbl_fcb_gain_hr, 16};
const kevrc_rate_params kParamsEighth = {
    2, {5, 5, 0, 0}, {16, 16, 0, 0}, {4, 4, 0, 0}, kevrc_tbl_lsp_1_8, kevrc_tbl_fcb_gain_hr, 16};

}  // namespace kevrc
