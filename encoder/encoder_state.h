// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Encoder instance, persistent state and work block.
//
// The instance is one aligned allocation made at creation and cleared to zero
// before init_encoder() sets its starting values; the work block is a second
// one, also cleared at creation. Unlike the decoder's, the encoder's work
// block is NOT cleared per frame: it holds the analysis memories (previous
// input frame, open-loop pitch state, previous impulse-response energy) next
// to the per-frame analysis results and the subframe scratch. Nothing here is
// shared between instances.
#pragma once

#include <cstdint>

#include <kevrc/kevrc_kernels.h>
#include "common/rate_params.h"
#include "encoder/acelp_scratch.h"
#include "encoder/robust_rate.h"

namespace kevrc {

constexpr int kEncFrameLen = 160;
constexpr int kEncMaxSubframe = 54;
constexpr int kEncSubframeLen[3] = {53, 53, 54};
constexpr int kEncAcbMemory = 128;
constexpr int kEncWorkWords = 4060;  // 16-bit words of the work block

}  // namespace kevrc

// Per-rate quantizer parameters: one of the three shared constant records.
using kevrce_rate_params = kevrc_rate_params;

// Input high-pass filter: three second-order sections, each keeping its last
// two inputs (16-bit) and outputs (32-bit); index 0 is the older one.
struct kevrce_hpf_state {
  int16_t x[3][2];
  int32_t y[3][2];
};

// Open-loop pitch estimator state (kept in the work block).
struct kevrce_olp_state {
  int16_t decimated[40];  // [0,20) history, [20,40) the current call
  int16_t y1, y2, y3;     // decimation filter outputs, newest first
  int16_t prev_delay;     // P, 0 = none
  int16_t prev_gain;      // Pg, Q15
};

// Rate determination state; initialised on the first frame (frame count 0).
struct kevrce_rate_state {
  int32_t noise[2];         // background energy per band
  int32_t band_energy[2];   // this frame's band energies
  int32_t signal[2];        // peak energy per band
  int32_t smoothed[2];      // eight times the band energy, smoothed
  int32_t snr_ratio[2];     // signal / noise
  int16_t rate;             // rate returned for the last frame
  int16_t last_rate;        // rate chosen for the last frame after the bounds
  int16_t full_run;         // consecutive frames whose band decision was full rate
  int16_t hangover_count;   // frames since speech ended
  int16_t hangover_active;  // 1 while a hangover is running
  int16_t band_rate[2];     // per-band decision of this frame
  int16_t stationary_count;
  int16_t voiced_count;
  int16_t adapted;
  int16_t snr_index[2];     // 0..7
};

// Noise suppressor state. Zero at creation except bin_gain[0] and
// bin_gain[1], which init_encoder sets to 32767 and nobody changes after.
struct kevrce_ns_state {
  int16_t call_count;
  int16_t prev_exponent;
  int16_t pre_emph_mem;
  int16_t de_emph_mem;
  int16_t analysis_overlap[24];
  int16_t synthesis_overlap[48];
  int32_t channel_energy[16];
  int32_t channel_noise[16];
  int16_t long_term_db[16];
  int16_t bin_gain[64];  // Q15
  int16_t update_count;
  int16_t hysteresis_count;
  int16_t last_update_count;
  int32_t start_min[16];  // quality mode: smallest channel energies of the first frames
  int32_t start_db_sum[16];  // quality mode: sum of the first frames' channel energies, dB units (32 per dB)
};

// Work block: analysis memories, per-frame analysis results, coded
// parameters and subframe scratch. Must fit kEncWorkWords 16-bit words.
struct kevrce_work {
  // --- Frame input and analysis (LPC analysis, open-loop pitch) ---
  int16_t hpf_in[kevrc::kEncFrameLen];  // copy of the caller's samples
  int16_t speech[320];     // [0,160) previous frame (kept across calls), [160,320) current
  int16_t windowed[160];   // analysis-window product (temporary)
  int32_t r[17];           // autocorrelation, rescaled to a common scale
  int16_t lpc[10];         // Q12, bandwidth expanded
  int16_t h[54];           // impulse response of 1/A(z), Q11
  int16_t lsp[10];         // unquantized LSPs, Q15
  int16_t residual[320];   // short-term residual of the whole buffer
  int16_t residual_mem[10];
  int16_t onset;           // 1 when the impulse-response energy jumped
  int16_t prev_eh;         // previous frame's impulse-response energy (8 at creation)
  int16_t ol_delay;        // merged open-loop delay D, 20..120
  int16_t ol_gain;         // merged open-loop gain B, Q15
  int16_t rcelp_hold;      // further flag read at frame end; no producer, stays 0
  kevrce_olp_state olp;

  // --- Coded parameters (read by the packer) ---
  int16_t lsp_q[10];       // quantized LSPs of the frame
  uint16_t lsp_index[4];
  int16_t lpc_flag;
  int16_t delay;           // 20..120
  int16_t delta_delay;     // full rate: 0 or d + 16
  int16_t acb_gain_index[3];
  int16_t fcb_words[3][10];
  int16_t fcb_gain_index[3];
  int16_t energy_index;    // eighth rate
  int16_t lbr_measured[3]; // eighth rate: subframe log energies before the search

  // --- LSP quantizer scratch ---
  int16_t lsp_weight[10];
  int16_t lsp_shift[10];

  // --- Subframe scratch ---
  int16_t sub_lsp_q[10];
  int16_t sub_lsp[10];
  int16_t aq[10];          // quantized LPC of the subframe, Q12
  int16_t a[10];           // unquantized LPC of the subframe, Q12
  int16_t zir[kevrc::kEncMaxSubframe];
  int16_t wh[55];          // weighted-synthesis impulse response, Q11 (54 + search pad)
  int16_t wscratch[20];
  int32_t contour[3];
  int16_t mod_res[128];        // modified residual: carried samples, then the subframe's
  int16_t mod_speech[kevrc::kEncMaxSubframe];  // modified speech, then modified weighted speech
  int16_t target[55];          // x: weighted target
  int16_t target2[55];         // x2: fixed-codebook target
  int16_t res_target[55];      // r: residual-domain target
  int16_t filtered_acb[55];    // y: filtered adaptive-codebook contribution
  int16_t code[55];            // c: fixed-codebook vector, Q12
  int16_t filtered_code[55];   // filtered fixed-codebook vector
  int16_t pitch_gain;          // quantized adaptive-codebook gain, Q14
  int16_t fcb_gain;            // optimal fixed-codebook gain
  kevrce_acelp_scratch acelp;

  // --- Noise suppressor scratch ---
  int16_t ns_fft[128];
  int16_t ns_snr_index[16];
  int16_t ns_db[16];

  // --- Unquantized subframe LPC: filled by the frame analysis, reused by the
  //     subframe coding while the LSPs it came from are unchanged ---
  int16_t sub_lpc_from[2][10];    // the previous and the current LSPs they came from
  int16_t sub_lsp_cache[3][10];   // interpolated LSPs of subframes 0..2, Q15
  int16_t sub_lpc_cache[3][10];   // their LPC, Q12
  int16_t sub_lpc_ready;          // 1 once the entries were filled
};

struct kevrce_instance {
  kevrce_bsw bsw;  // bit writer state
  kevrce_work *work;
  kevrce_instance *self;

  // --- Persistent state ---
  kevrce_hpf_state hpf;
  int16_t rate;  // current rate
  const kevrce_rate_params *params;
  int16_t prev_lsp_q[10];  // previous quantized LSPs
  int16_t prev_lsp[10];    // previous unquantized LSPs
  int16_t prev_delay;      // 40 at creation
  int16_t delay_adjust;    // -1, 0, 1
  int16_t rcelp_shift;     // accumulated shift, 1/256 sample
  int16_t rcelp_carry;     // segment carry
  int16_t rcelp_pulse;     // last pitch pulse, relative to the next subframe (kNoPulse: none)
  uint32_t frame_count;
  int16_t prev_rate;
  int16_t noise_seed;      // 1234 at creation
  int32_t noise_pair_flag;
  int32_t noise_held;
  int16_t lbr_energy[3];   // eighth-rate subframe energies, then the chosen gains
  int16_t exc[kevrc::kEncAcbMemory + 64];  // excitation history, then the subframe area
  int16_t mod_res_hist[kevrc::kEncAcbMemory + 64];  // modified residual history, then its delayed copy
  // Weighted synthesis chain (1/Aq(z), A(z/g1), 1/A(z/g2)).
  int16_t syn_mem[10];
  int16_t wnum_mem[10];
  int16_t wden_mem[10];
  // Modified-speech path of the subframe loop.
  int16_t mod_syn_mem[10];
  int16_t mod_num_mem[10];
  int16_t mod_den_mem[10];
  int16_t delay_kernel[24];  // three rows of eight phases, Q15
  kevrce_rate_state rd;
  kevrce_ns_state ns;

  kevrce_config config;
  kevrc_ops ops;
  int16_t robust;  // quality mode (kevrce_set_robust): 0 at creation
  kevrc::kevrce_robust_rate_state robust_rd;  // the quality mode's rate decision
};
