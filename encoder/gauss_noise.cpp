// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Gaussian generator of the eighth-rate coder, kevrce_gauss_noise(enc):
// returns one Gaussian sample in Q13 (unit variance = 8192) from the
// generator shared with the decoder (common/gauss_noise.h), on the encoder's
// state: enc->noise_seed, enc->noise_pair_flag (0 or 1) and enc->noise_held
// (the second sample of a pair, Q29).
#include <kevrc/kevrc_kernels.h>
#include "common/gauss_noise.h"
#include "encoder/encoder_state.h"

extern "C" int16_t kevrce_gauss_noise(kevrce_instance *enc) {
  int16_t pair_flag = enc->noise_pair_flag != 0 ? 1 : 0;
  const int16_t g = kevrc::gauss_noise(&enc->noise_seed, &pair_flag, &enc->noise_held);
  enc->noise_pair_flag = pair_flag;
  return g;
}
