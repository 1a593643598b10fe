// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// kevrcd_lsp_vq_evol(dec): LSP indices of the frame -> its ten LSPs (Q15,
// 16384 = half the sampling rate), by plain split vector quantization (each
// codeword holds absolute values), with the ordering checks.
//
// Reads work->lsp_index[], work->rate and the per-rate selection; writes
// work->new_lsp. Eighth rate: an ordering fault or a seam narrower than 261
// marks the frame erased and falls back to the previous LSPs (returns 0).
// Half and full rate: the same faults set bad_frame_flag and return -1.
#include <algorithm>
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "decoder/decoder_state.h"

namespace {

constexpr int kMinSeam = 261;  // Q15, about 64 Hz

bool ascending(const int16_t *lsp) {
  for (int i = 9; i >= 1; --i)
    if (lsp[i] <= lsp[i - 1]) return false;
  return true;
}

bool seam_ok(const int16_t *lsp, int i) { return lsp[i] > lsp[i - 1] + kMinSeam; }

}  // namespace

extern "C" int32_t kevrcd_lsp_vq_evol(kevrcd_instance *dec) {
  kevrcd_work *w = dec->work;
  kevrcd_state &st = dec->st;
  const kevrcd_rate_params *p = st.params;
  int pos = 0;
  int offset = 0;
  for (int s = 0; s < p->num_splits && pos < 10; ++s) {
    const int dim = p->split_dims[s];
    const int entries = p->split_entries[s];
    const int index = std::clamp<int>(w->lsp_index[s], 0, entries - 1);  // fields fit; guard anyway
    std::memcpy(&w->new_lsp[pos], &p->codebook[offset + dim * index], dim * sizeof(int16_t));
    pos += dim;
    offset += dim * entries;
  }

  if (w->rate == 1) {
    if (!ascending(w->new_lsp)) st.frame_erased = 1;
    if (seam_ok(w->new_lsp, 5) && st.frame_erased == 0) return 0;
    st.frame_erased = 1;
    std::memcpy(w->new_lsp, st.prev_lsp, sizeof st.prev_lsp);
    return 0;
  }
  const bool ok = ascending(w->new_lsp) &&
                  (w->rate == 3 ? seam_ok(w->new_lsp, 3) && seam_ok(w->new_lsp, 6)
                                : seam_ok(w->new_lsp, 2) && seam_ok(w->new_lsp, 4) &&
                                      seam_ok(w->new_lsp, 7));
  if (ok) return 0;
  st.bad_frame_flag = 1;
  return KEVRC_ERR_LSP;
}
