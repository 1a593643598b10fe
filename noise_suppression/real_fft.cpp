// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// 128-point real FFT on 16-bit data, in place, through a 64-point complex FFT.
//
// kevrce_complex_fft(buffer, direction)
//   buffer (in/out): 64 complex values as (re, im) pairs, words 0..127.
//   direction (in): 1 = forward, multiplies by exp(-j theta) and halves after
//     every one of the six stages (the result is the DFT / 64); any other
//     value = inverse, multiplies by exp(+j theta) and does not scale (the
//     result is 64 times the inverse DFT), saturating to 16 bits.
//   Radix 2, decimation in time; stage s uses every (64 >> s)-th twiddle pair
//   of kevrce_tbl_phs. Butterfly sums saturate to [-32768, 32767] before the
//   forward halving.
//
// kevrce_r_fft(buffer, direction)
//   buffer (in/out): 128 words. Time domain: 128 real samples. Frequency
//     domain: word 0 = DC term, word 1 = term at half the sampling rate (both
//     real), words 2k, 2k+1 = re, im of bin k, k = 1..63.
//   direction (in): 1 = forward (time to frequency), scaled by 1/64; any other
//     value = inverse, which undoes the forward transform (forward then
//     inverse returns the input up to rounding).
//   The forward split combines bin k with its mirror 64 - k of the complex
//   result with the twiddles of pairs k and 64 - k; the inverse applies the
//   converse split first and then the inverse complex FFT.
//
// No scratch memory: everything happens in the caller's buffer.
#include <utility>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"

using namespace kevrc;

namespace {

constexpr int kPairs = 64;
constexpr int kStages = 6;

// The six-bit reversal of each pair index, worked out at compile time.
struct BitReversal {
  uint8_t of[kPairs];
  constexpr BitReversal() : of() {
    for (int i = 0; i < kPairs; ++i) {
      int j = 0;
      for (int b = 0; b < kStages; ++b) j |= ((i >> b) & 1) << (kStages - 1 - b);
      of[i] = static_cast<uint8_t>(j);
    }
  }
};
constexpr BitReversal kBitReversal;

// Bit-reversal permutation of the 64 complex pairs (6-bit indices).
void bit_reverse(int16_t *buf) {
  for (int i = 0; i < kPairs; ++i) {
    const int j = kBitReversal.of[i];
    if (i < j) {
      std::swap(buf[2 * i], buf[2 * j]);
      std::swap(buf[2 * i + 1], buf[2 * j + 1]);
    }
  }
}

// (acc + 16384) >> 15 as a 16-bit value; acc is a sum of two 16 x 16
// products held in a wrapping 32-bit accumulator.
int16_t round_q15(int32_t acc) { return wrap16(add32_wrap(acc, 16384) >> 15); }

// Butterfly output: saturated sum, halved in the forward direction.
int16_t butterfly_out(int32_t sum, bool forward) {
  const int16_t s = sat16(sum);
  return forward ? static_cast<int16_t>(s >> 1) : s;
}

// One butterfly on pairs top and bottom = top + span with twiddle (c, s).
void butterfly(int16_t *buf, int top, int bottom, int16_t c, int16_t s, bool forward) {
  const int16_t re = buf[2 * bottom], im = buf[2 * bottom + 1];
  int16_t tr, ti;
  if (forward) {  // (re + j im) * (c + j s), s = -sin
    tr = round_q15(sub32_wrap(mul16(re, c), mul16(im, s)));
    ti = round_q15(add32_wrap(mul16(re, s), mul16(im, c)));
  } else {  // (re + j im) * (c - j s)
    tr = round_q15(add32_wrap(mul16(re, c), mul16(im, s)));
    ti = round_q15(sub32_wrap(mul16(im, c), mul16(re, s)));
  }
  const int16_t ar = buf[2 * top], ai = buf[2 * top + 1];
  buf[2 * bottom] = butterfly_out(int32_t{ar} - tr, forward);
  buf[2 * bottom + 1] = butterfly_out(int32_t{ai} - ti, forward);
  buf[2 * top] = butterfly_out(int32_t{ar} + tr, forward);
  buf[2 * top + 1] = butterfly_out(int32_t{ai} + ti, forward);
}

// 2 * (a*b + c*d) and 2 * (a*b - c*d) in wrapping 32-bit arithmetic.
int32_t twice_sum(int16_t a, int16_t b, int16_t c, int16_t d) {
  return shl32_wrap(add32_wrap(mul16(a, b), mul16(c, d)), 1);
}
int32_t twice_diff(int16_t a, int16_t b, int16_t c, int16_t d) {
  return shl32_wrap(sub32_wrap(mul16(a, b), mul16(c, d)), 1);
}

// (acc + 65536) >> 17 as a 16-bit value; acc is a wrapping 32-bit sum.
int16_t round_shr17(int32_t acc) { return wrap16(add32_wrap(acc, 65536) >> 17); }

// Split of the complex result into the spectrum of the real signal.
void forward_split(int16_t *buf) {
  const int16_t r0 = buf[0], i0 = buf[1];
  buf[0] = add16_wrap(r0, i0);
  buf[1] = sub16_wrap(r0, i0);
  for (int k = 1; k <= kPairs / 2; ++k) {
    const int m = kPairs - k;
    const int16_t ar = buf[2 * k], ai = buf[2 * k + 1];
    const int16_t br = buf[2 * m], bi = buf[2 * m + 1];
    const int16_t c1 = kevrce_tbl_phs[2 * k], s1 = kevrce_tbl_phs[2 * k + 1];
    const int16_t c2 = kevrce_tbl_phs[2 * m], s2 = kevrce_tbl_phs[2 * m + 1];
    const int16_t u = add16_wrap(bi, ai);
    const int16_t v = sub16_wrap(br, ar);
    const int32_t p = shl32_wrap(int32_t{br} + ar, 16);
    const int32_t d = shl32_wrap(int32_t{ai} - bi, 16);
    buf[2 * k] = round_shr17(add32_wrap(p, twice_diff(u, c1, v, s1)));
    buf[2 * k + 1] = round_shr17(add32_wrap(d, twice_sum(u, s1, v, c1)));
    // For k = 32 the mirror is the pair itself: these writes come last.
    buf[2 * m] = round_shr17(add32_wrap(p, twice_sum(v, s2, u, c2)));
    buf[2 * m + 1] = round_shr17(sub32_wrap(twice_diff(u, s2, v, c2), d));
  }
}

// Converse split: the spectrum of a real signal back to the complex
// spectrum of its (even, odd) sample pairs.
void inverse_split(int16_t *buf) {
  const int16_t w0 = buf[0], w1 = buf[1];
  buf[0] = static_cast<int16_t>((int32_t{w0} + w1) >> 1);
  buf[1] = static_cast<int16_t>((int32_t{w0} - w1) >> 1);
  for (int k = 1; k <= kPairs / 2; ++k) {
    const int m = kPairs - k;
    const int16_t ar = buf[2 * k], ai = buf[2 * k + 1];
    const int16_t br = buf[2 * m], bi = buf[2 * m + 1];
    const int16_t c1 = kevrce_tbl_phs[2 * k], s1 = kevrce_tbl_phs[2 * k + 1];
    const int16_t c2 = kevrce_tbl_phs[2 * m], s2 = kevrce_tbl_phs[2 * m + 1];
    const int16_t v = sub16_wrap(ar, br);
    const int16_t u = wrap16(-(int32_t{bi} + ai));
    const int32_t p = shl32_wrap(int32_t{br} + ar, 16);
    const int32_t d = shl32_wrap(int32_t{ai} - bi, 16);
    buf[2 * k] = round_shr17(add32_wrap(p, twice_sum(v, s1, u, c1)));
    buf[2 * k + 1] = round_shr17(add32_wrap(d, twice_diff(c1, v, u, s1)));
    buf[2 * m + 1] = round_shr17(sub32_wrap(neg32_wrap(twice_sum(u, s2, v, c2)), d));
    buf[2 * m] = round_shr17(add32_wrap(p, twice_diff(u, c2, v, s2)));
  }
}


}  // namespace

extern "C" void kevrce_complex_fft(int16_t *buffer, int32_t direction) {
  const bool forward = direction == 1;
  bit_reverse(buffer);
  for (int s = 0; s < kStages; ++s) {
    const int span = 1 << s;
    const int step = kPairs >> s;  // twiddle index step: angle 2 pi j / 2^(s+1)
    if (span < 8) {
      for (int j = 0; j < span; ++j) {
        const int16_t c = kevrce_tbl_phs[2 * j * step];
        const int16_t sn = kevrce_tbl_phs[2 * j * step + 1];
        for (int i = j; i < kPairs; i += 2 * span) butterfly(buffer, i, i + span, c, sn, forward);
      }
      continue;
    }
    // Wide stages: the stage's twiddles gathered once, then each group's
    // butterflies in twiddle order (independent of one another).
    int16_t cs[kPairs / 2], sns[kPairs / 2];
    for (int j = 0; j < span; ++j) {
      cs[j] = kevrce_tbl_phs[2 * j * step];
      sns[j] = kevrce_tbl_phs[2 * j * step + 1];
    }
    for (int base = 0; base < kPairs; base += 2 * span) {
      if (forward) {
        for (int j = 0; j < span; ++j) butterfly(buffer, base + j, base + j + span, cs[j], sns[j], true);
      } else {
        for (int j = 0; j < span; ++j) butterfly(buffer, base + j, base + j + span, cs[j], sns[j], false);
      }
    }
  }
}

extern "C" void kevrce_r_fft(int16_t *buffer, int32_t direction) {
  if (direction == 1) {
    kevrce_complex_fft(buffer, 1);
    forward_split(buffer);
  } else {
    inverse_split(buffer);
    kevrce_complex_fft(buffer, -1);
  }
}
