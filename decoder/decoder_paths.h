// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Internal interfaces between the decoder's frame driver and its paths.
#pragma once

#include <kevrc/kevrc_kernels.h>
#include "decoder/decoder_state.h"

namespace kevrc {

// Moves the adaptive-codebook memory on by one subframe: the subframe just
// built (behind the memory) becomes the newest part of the memory.
inline void shift_excitation(kevrcd_state &st, int len) { kevrc_mcpy_acbsize(st.exc + len, st.exc); }

// Synthesis of the subframe's excitation (at its build position, behind the
// memory), postfilter or copy, and output doubled with saturation into out.
void synthesize_subframe(kevrcd_instance *dec, int len, int16_t *out);

// Concealment of an erased half- or full-rate frame.
void conceal_frame(kevrcd_instance *dec);

enum class GoodFrame {
  kDecoded,
  kLspRejected,        // -1, result filled
  kDelayRejected,      // -2, delay above 120: result not filled
  kDelayDiffRejected,  // -2, delay difference out of range: result filled
};

// Decoding of a good half- or full-rate frame.
GoodFrame decode_good_frame(kevrcd_instance *dec);

}  // namespace kevrc
