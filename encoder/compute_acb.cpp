// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Adaptive codebook and modified residual of a subframe:
// kevrce_compute_acb(enc, m, contour, residual, available, B, L).
//
//   enc->exc (in/out)          128 samples of past excitation; the subframe's
//                              adaptive-codebook vector (L + 10 samples) is
//                              written right after them, exactly as the
//                              decoder rebuilds it from the transmitted delay.
//   enc->mod_res_hist (in/out) 128 samples of past modified residual; the
//                              delayed copy along the same contour (the
//                              target of the warping) is written after them;
//                              on return the history has advanced by L.
//   m (out)                    modified residual (see kevrce_modifyresidual).
//   contour                    delay contour of the subframe, Q16, 3 values.
//   residual, available        the subframe's residual and the samples left
//                              in the 320-sample residual buffer from there.
//   B                          open-loop gain, Q15. L: 53 or 54.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "encoder/encoder_state.h"

extern "C" void kevrce_compute_acb(kevrce_instance *enc, int16_t *m, const int32_t *contour,
                                   const int16_t *residual, int16_t available, int16_t B,
                                   int16_t L) {
  using kevrc::kEncAcbMemory;
  int16_t *area = &enc->exc[kEncAcbMemory];
  kevrc_get_codebook(area, area, L, contour, 29491, 8);
  int16_t *target = &enc->mod_res_hist[kEncAcbMemory];
  kevrc_get_codebook(target, target, L, contour, 16384, 3);
  kevrce_modifyresidual(enc, m, &enc->rcelp_shift, B, residual, available, &enc->rcelp_carry,
                        contour[1], L);
  if (L >= kEncAcbMemory) return;
  std::memmove(enc->mod_res_hist, enc->mod_res_hist + L, sizeof(int16_t) * (kEncAcbMemory - L));
  std::memcpy(enc->mod_res_hist + kEncAcbMemory - L, m, sizeof(int16_t) * L);
}
