// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Search orders of the LSP codebooks (common/tbl_lsp.cpp): for each split in
// turn, its codeword indices (0 .. entries - 1 within the split) sorted by
// the codeword's first value, equal values in index order. The ranges hold,
// for each LSP position 0..9, the smallest and the largest codebook value
// there: {lowest_0, highest_0, lowest_1, ...}.
#ifndef KEVRC_COMMON_TBL_LSP_ORDER_H
#define KEVRC_COMMON_TBL_LSP_ORDER_H

#include <cstdint>

extern "C" const uint16_t kevrc_tbl_lsp_fr_order[768];   // splits 64, 64, 512, 128
extern "C" const uint16_t kevrc_tbl_lsp_hr_order[512];   // splits 128, 128, 256
extern "C" const uint16_t kevrc_tbl_lsp_1_8_order[32];   // splits 16, 16
extern "C" const int16_t kevrc_tbl_lsp_fr_range[20];
extern "C" const int16_t kevrc_tbl_lsp_hr_range[20];
extern "C" const int16_t kevrc_tbl_lsp_1_8_range[20];

#endif  // KEVRC_COMMON_TBL_LSP_ORDER_H
