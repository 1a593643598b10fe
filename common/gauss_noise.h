// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// The Gaussian noise generator shared by the encoder's eighth-rate coder and
// the decoder's eighth-rate and concealment paths, so that both sides draw
// the same sequence from the same seed.
//
// gauss_noise(seed, pair_flag, held): returns one Gaussian sample in Q13
//   (unit variance = 8192) by the polar method on a 16-bit linear
//   congruential sequence. seed (in/out, any 16-bit value) is the sequence
//   state. A successful polar draw makes two samples: the second is kept in
//   *held (out, Q29, 32-bit) with *pair_flag (in/out) set to 1, and the next
//   call returns it (rounded to 16 bits) without touching the seed. A draw
//   outside the unit circle (or on it, or at the origin) returns a sum of
//   three uniforms instead and leaves *pair_flag at 0.
#pragma once

#include <cstdint>

namespace kevrc {

int16_t gauss_noise(int16_t *seed, int16_t *pair_flag, int32_t *held);

}  // namespace kevrc
