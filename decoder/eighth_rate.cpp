// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Eighth-rate decoding: the LPC synthesis filter driven by Gaussian noise,
// scaled per subframe by the frame's energy row.
//
// decode_rate_1_8(dec, postfilter, output): decodes one frame into output
//   (160 int16). The samples are taken from the postfilter's output area, so
//   with the postfilter off an eighth-rate frame comes out silent, and they
//   are not doubled like the other paths' output; both are how this rate is
//   defined.
// kevrcd_get_excitation(dec, started, subframe): writes the subframe's noise
//   excitation behind the 128-sample excitation history. started = 0 resets
//   the noise seed to 1234 (first frame after creation).
// kevrcd_ran_noise_gen(seed, pair_flag, stored): one Gaussian sample in Q13
//   (unit variance = 8192) from the generator the encoder uses too
//   (common/gauss_noise.h), so that both draw the same sequence from a seed;
//   the second of a pair comes from stored. seed, pair_flag (16-bit) and
//   stored (32-bit) are updated.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "common/gauss_noise.h"
#include "decoder/decoder_paths.h"

using namespace kevrc;

namespace {

constexpr int16_t kFirstSeed = 1234;
constexpr int16_t kAllOnesEnergy = 64;  // energy index of accepted all-ones packets

}  // namespace

extern "C" int16_t kevrcd_ran_noise_gen(int16_t *seed, int16_t *pair_flag, int32_t *stored) {
  return gauss_noise(seed, pair_flag, stored);
}

extern "C" void kevrcd_get_excitation(kevrcd_instance *dec, int16_t started, int16_t subframe) {
  kevrcd_state &st = dec->st;
  kevrcd_work *w = dec->work;
  if (subframe < 0 || subframe > 2) return;
  if (subframe == 0) {
    if (started == 0) st.noise_seed = kFirstSeed;
    if (st.frame_erased != 0) {
      // The mean of the last received row, for all three subframes.
      const int16_t *row = &kevrc_tbl_energy_gain[st.last_energy_index * 3];
      int32_t sum = 0;
      for (int k = 0; k < 3; ++k) sum += row[k] * 10923 * 2;  // 1/3 in Q15
      const int16_t mean = static_cast<int16_t>((sum + 32768) >> 16);
      for (int k = 0; k < 3; ++k) st.subframe_gains[k] = mean;
    } else {
      st.last_energy_index = static_cast<int16_t>(w->fcb_gain_index[0] & 0xFF);
      std::memcpy(st.subframe_gains, &kevrc_tbl_energy_gain[st.last_energy_index * 3],
                  sizeof st.subframe_gains);
    }
  }
  const int16_t gain = st.subframe_gains[subframe];
  int16_t *exc = &st.exc[kAcbMemory];
  for (int n = 0; n < kSubframeLen[subframe]; ++n) {
    const int16_t noise = kevrcd_ran_noise_gen(&st.noise_seed, &st.noise_pair_flag, &st.noise_stored);
    exc[n] = static_cast<int16_t>((((noise * gain) >> 4) + 32768) >> 16);
  }
}

extern "C" int32_t decode_rate_1_8(kevrcd_instance *dec, int32_t postfilter, int16_t *output) {
  kevrcd_state &st = dec->st;
  kevrcd_work *w = dec->work;
  for (int k = 0; k < 3; ++k) w->contour[k] = 20 << 16;  // used by the postfilter only
  if (st.frame_erased == 0) kevrcd_lsp_vq_evol(dec);
  int off = 0;
  for (int sf = 0; sf < 3; ++sf) {
    const int len = kSubframeLen[sf];
    const int16_t started = sf == 0 && st.frame_count == 0 && st.last_rate != 1 ? 0 : 1;
    if (st.all_ones_count > 2) w->fcb_gain_index[sf] = kAllOnesEnergy;
    kevrcd_get_excitation(dec, started, static_cast<int16_t>(sf));
    shift_excitation(st, len);
    kevrc_interpol(w->sub_lsp, st.prev_lsp, w->new_lsp, static_cast<int16_t>(sf));
    kevrc_lsp2lpc(w->sub_lsp, w->lpc);
    kevrc_iir(&st.exc[kAcbMemory], w->lpc, st.syn_mem, static_cast<int16_t>(len), w->syn);
    if (postfilter != 0) kecrcd_apf(dec, 20 << 16, static_cast<int16_t>(len));
    std::memcpy(output + off, w->apf_out, len * sizeof(int16_t));
    off += len;
  }
  return 0;
}
