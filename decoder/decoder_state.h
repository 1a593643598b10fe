// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Decoder instance, persistent state and per-frame work block.
//
// The instance is one aligned allocation made at creation; the work block is
// a second one, cleared at the start of every frame. Nothing here is shared
// between instances.
#pragma once

#include <cstdint>

#include <kevrc/kevrc_kernels.h>
#include "common/rate_params.h"

namespace kevrc {

constexpr int kFrameLen = 160;
constexpr int kMaxSubframe = 54;
constexpr int kAcbMemory = 128;
constexpr int kSubframeLen[3] = {53, 53, 54};
// The good-frame path may use subframe number 10 (the first good full-rate
// frame after an erasure with the LPC flag set): the per-subframe parameter
// slots are sized so that slot 10 exists and, never being unpacked, reads 0.
constexpr int kSubframeSlots = 11;
// Excitation history: 128 samples of memory, the current subframe with its 10
// extra samples (64), and 8 guard samples that a degenerate zero delay may
// read ahead into.
constexpr int kExcBufLen = kAcbMemory + 64 + 8;
// Postfilter residual buffer: 128 samples of history and one subframe.
constexpr int kApfResLen = kAcbMemory + kMaxSubframe;
constexpr int kDecWorkWords = 1044;  // 16-bit words of the work block

}  // namespace kevrc

// Per-rate selection (set_decode_params): one of three constant records.
using kevrcd_rate_params = kevrc_rate_params;

// Per-frame scratch, zeroed at the start of every frame.
struct kevrcd_work {
  uint16_t lookahead[11];  // first 1, 5 or 11 payload words (blank / all-ones tests)
  int16_t rate;            // the frame's rate code (1, 3 or 4 once classified)
  // Unpacked fields.
  int16_t lpc_flag;
  int16_t lsp_index[4];
  int16_t delay;       // pitch delay, 20 already added
  int16_t delay_diff;  // full rate: previous delay = delay - delay_diff + 16
  int16_t acb_gain_index[kevrc::kSubframeSlots];
  int16_t fcb_gain_index[kevrc::kSubframeSlots];  // eighth rate: the energy index, three times
  int16_t fcb_words[kevrc::kSubframeSlots][4];    // half rate uses word 0 only
  // Synthesis.
  int16_t new_lsp[10];  // Q15
  int16_t sub_lsp[10];  // interpolated for the subframe (repaired in place)
  int16_t lpc[10];      // Q12
  int16_t fcb[60];      // fixed-codebook vector
  int32_t contour[3];   // Q16 delay contour of the subframe
  int16_t syn[kevrc::kMaxSubframe];      // synthesis output of the subframe
  int16_t apf_out[kevrc::kMaxSubframe];  // postfilter output of the subframe
  // Postfilter scratch.
  int16_t apf_num[10];
  int16_t apf_den[10];
  int16_t apf_r[kevrc::kMaxSubframe];
  int16_t apf_p[kevrc::kMaxSubframe];
  int16_t apf_q[kevrc::kMaxSubframe];
  int16_t apf_mem_copy[10];
  // Output.
  int16_t frame[kevrc::kFrameLen];  // the decoded frame
  uint8_t out_bytes[2 * kevrc::kFrameLen];  // the frame in the output sample format
  uint8_t channel2[2 * kevrc::kFrameLen];   // second channel buffer
};

// The postfilter's persistent state.
struct kevrcd_apf_state {
  int16_t tilt_mem;
  int16_t num_mem[10];
  int16_t syn_mem[10];
  int16_t res[kevrc::kApfResLen];
};

// Decoder state kept across frames. Initial values: kevrcd_init_state; what
// a reset clears: kevrcd_reset.
struct kevrcd_state {
  int16_t prev_lsp[10];
  int16_t syn_mem[10];
  int16_t exc[kevrc::kExcBufLen];  // [0,128) adaptive-codebook memory, then the subframe
  int16_t saved_exc[kevrc::kAcbMemory];  // copy taken when a full-rate frame is concealed
  kevrcd_apf_state apf;
  int16_t spare[3];
  int16_t delay;          // delay at the end of the last frame, samples
  int16_t mean_acb_gain;  // Q14
  int16_t frame_erased;
  int16_t mean_fcb_gain;
  int16_t recovery_count;  // 3 after an erased frame, minus 1 per good frame
  int16_t erasure_flag;
  int16_t bad_frame_flag;
  int16_t all_ones_count;
  const kevrcd_rate_params *params;
  int16_t erasure_seed;  // seed of the concealment noise
  // Noise generator: the eighth-rate seed, and the pair flag and stored
  // sample that the concealment noise shares.
  int16_t noise_pair_flag;
  int16_t noise_seed;
  int32_t noise_stored;
  int16_t subframe_gains[3];
  int16_t last_energy_index;
  int16_t further_word;
  int16_t conceal_gain;  // 1.0 = 65536; wraps as a 16-bit value
  int16_t rebuild_start_delay;
  int16_t last_frame_erased;
  int32_t frame_count;
  uint8_t last_rate;
  uint8_t previous_rate;
};

struct kevrcd_instance {
  kcmn_bsr bsr;  // first, so the instance is the reader
  kevrcd_work *work;
  kevrcd_instance *self;
  kevrcd_config config;
  kevrc_ops ops;
  kevrcd_state st;
  uint32_t spare_word;
};
