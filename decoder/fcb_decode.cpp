// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Fixed-codebook code words -> the subframe's pulse vector (values +-1, a
// double pulse +-2), length 53 or 54; pulses at or beyond length are dropped.
//
// kvrcd_fcb_fr(words[4], vector, length): full rate, five interleaved tracks
//   (track m: positions m, m+5, ..., m+50). Words 1-3: bits 0-6 a pair index
//   p (121..127: no pulses), bit 7 the sign; both pulses lie on track t+k-1
//   (track 5 is track 0), at 5*(p div 11) + track and 5*(p mod 11) + track.
//   Word 4: bits 0-6 a pair index, bit 7 the second pulse's sign, bit 8 the
//   first's, bits 9-10 the start track t; its pulses lie on tracks t+3, t+4
//   (mod 5). A pair index above 120 in word 4 ends the decoding.
// kvrcd_fcb_hr(word, vector, length): half rate, three pulses at 7i+4 (sign
//   s), 7j+2 (opposite sign) and 7k (sign s): i, j, k = bits 0-2, 3-5, 6-8, s = bit 9.
#include <kevrc/kevrc_kernels.h>

namespace {

constexpr int kMaxPair = 120;

int div11(int p) { return (p * 2979) >> 15; }  // exact for p <= 120

}  // namespace

extern "C" void kvrcd_fcb_fr(const int16_t *words, int16_t *vector, int16_t length) {
  for (int i = 0; i < length; ++i) vector[i] = 0;
  const int t = (words[3] >> 9) & 3;
  for (int k = 0; k < 3; ++k) {
    const int p = words[k] & 0x7F;
    if (p > kMaxPair) continue;
    const int track = t + k == 5 ? 0 : t + k;
    const int16_t sign = (words[k] & 0x80) != 0 ? int16_t{-1} : int16_t{1};
    const int q = div11(p);
    const int first = 5 * q + track;
    const int second = 5 * (p - 11 * q) + track;
    if (first < length) vector[first] = sign;
    if (second < length) {
      if (first <= second)
        vector[second] = static_cast<int16_t>(vector[second] + sign);  // equal positions: +-2
      else
        vector[second] = static_cast<int16_t>(-sign);
    }
  }
  const int p = words[3] & 0x7F;
  if (p > kMaxPair) return;
  const int q = div11(p);
  const int first = 5 * q + (t + 3) % 5;
  const int second = 5 * (p - 11 * q) + (t + 4) % 5;
  if (first < length) vector[first] = (words[3] & 0x100) != 0 ? int16_t{-1} : int16_t{1};
  if (second < length) vector[second] = (words[3] & 0x80) != 0 ? int16_t{-1} : int16_t{1};
}

extern "C" void kvrcd_fcb_hr(int16_t word, int16_t *vector, int16_t length) {
  for (int i = 0; i < length; ++i) vector[i] = 0;
  const int16_t sign = (word & 0x200) != 0 ? int16_t{-1} : int16_t{1};
  const int pos[3] = {7 * (word & 7) + 4, 7 * ((word >> 3) & 7) + 2, 7 * ((word >> 6) & 7)};
  const int16_t val[3] = {sign, static_cast<int16_t>(-sign), sign};
  for (int k = 0; k < 3; ++k)
    if (pos[k] < length) vector[pos[k]] = val[k];
}
