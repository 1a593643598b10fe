// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Gain tables shared by the encoder and the decoder, and the start LSP
// vector. Values are the codec's stated ones.
#include "common/tables.h"

// Adaptive-codebook gain levels, Q14 (16384 = 1.0): 0, 0.3, 0.55, 0.7, 0.8, 0.9, 1.0, 1.2.
extern "C" const int16_t kevrc_tbl_pitch_q[8] = {0, 4915, 9011, 11469, 13107, 14746, 16384, 19661};

// Fixed-codebook gains, full rate (32 levels, ascending).
extern "C" const int16_t kevrc_tbl_fcb_gain_fr[32] = {
    10,   13,   17,   22,   28,   36,   46,   59,   76,    97,    125,   161,   206,   265,   340,   437,
    561,  720,  925,  1187, 1525, 1958, 2514, 3227, 4144,  5321,  6832,  8773,  11265, 14464, 18573, 23848};

// Fixed-codebook gains, half and eighth rate (16 levels: every second full-rate level).
extern "C" const int16_t kevrc_tbl_fcb_gain_hr[16] = {
    13, 22, 36, 59, 97, 161, 265, 437, 720, 1187, 1958, 3227, 5321, 8773, 14464, 23848};

// LSPs assumed before the first frame and after a reset: equally spaced, step
// 0.048 of the sampling rate (Q15). Also the mean towards which concealed LSPs drift.
extern "C" const int16_t kevrc_prev_lsp[10] = {1573, 3146, 4719, 6291, 7864,
                                               9437, 11010, 12583, 14156, 15729};
