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
// No scratch memory beyond 512 bytes of locals (the complex FFT works on
// separate real and imaginary arrays and writes the result back).
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

// (acc + 16384) >> 15 as a 16-bit value; acc is a sum of two 16 x 16
// products held in a wrapping 32-bit accumulator.
int16_t round_q15(int32_t acc) { return wrap16(add32_wrap(acc, 16384) >> 15); }

// Butterfly output: saturated sum, halved in the forward direction. When
// kSaturate is false the caller has proven |sum| <= 32767.
template <bool kForward, bool kSaturate>
[[gnu::always_inline]] inline int16_t butterfly_out(int32_t sum) {
  const int16_t s = kSaturate ? sat16(sum) : static_cast<int16_t>(sum);
  return kForward ? static_cast<int16_t>(s >> 1) : s;
}

// One butterfly on the pairs (ar, ai) (top) and (br, bi) (bottom) with the
// twiddle (c, s); the pairs are updated in place.
template <bool kForward, bool kSaturate>
[[gnu::always_inline]] inline void butterfly(int16_t &ar, int16_t &ai, int16_t &br, int16_t &bi,
                                             int16_t c, int16_t s) {
  const int16_t re = br, im = bi;
  int16_t tr, ti;
  if constexpr (kForward) {  // (re + j im) * (c + j s), s = -sin
    tr = round_q15(sub32_wrap(mul16(re, c), mul16(im, s)));
    ti = round_q15(add32_wrap(mul16(re, s), mul16(im, c)));
  } else {  // (re + j im) * (c - j s)
    tr = round_q15(add32_wrap(mul16(re, c), mul16(im, s)));
    ti = round_q15(sub32_wrap(mul16(im, c), mul16(re, s)));
  }
  const int16_t top_r = ar, top_i = ai;
  br = butterfly_out<kForward, kSaturate>(int32_t{top_r} - tr);
  bi = butterfly_out<kForward, kSaturate>(int32_t{top_i} - ti);
  ar = butterfly_out<kForward, kSaturate>(int32_t{top_r} + tr);
  ai = butterfly_out<kForward, kSaturate>(int32_t{top_i} + ti);
}

// A stage needs no saturation when every part is at most 10922 in
// magnitude: with |c|, |s| <= 32768 the product sum is at most 65536 x 10922
// (no wrap) and rounds to at most 2 x 10922 (no 16-bit wrap), so a
// butterfly sum stays within 3 x 10922 = 32766.
constexpr int32_t kNoSaturationPeak = 10922;

// Whether every real and imaginary part is within kNoSaturationPeak
// (largest and smallest value in 16 bits: a plain loop that vectorizes).
bool within_peak(const int16_t *re, const int16_t *im) {
  int16_t hi = 0, lo = 0;
  for (int i = 0; i < kPairs; ++i) {
    hi = re[i] > hi ? re[i] : hi;
    hi = im[i] > hi ? im[i] : hi;
    lo = re[i] < lo ? re[i] : lo;
    lo = im[i] < lo ? im[i] : lo;
  }
  return hi <= kNoSaturationPeak && lo >= -kNoSaturationPeak;
}

// The transform on the pairs held as separate real and imaginary arrays,
// already in bit-reversed order, stage by stage. Each stage gathers its
// twiddles once and runs each group's butterflies in twiddle order; the
// butterflies of a stage are independent of one another, so this order
// gives the same values as any other. From the third stage on a group is
// a plain loop of fixed length over contiguous values (the compiler
// vectorizes it). A stage whose input is within kNoSaturationPeak runs
// without the saturation checks.
template <int kSpan, bool kForward, bool kSaturate>
void stage_with(int16_t *re, int16_t *im, const int16_t *cs, const int16_t *sns) {
  for (int base = 0; base < kPairs; base += 2 * kSpan) {
    int16_t *tr = re + base, *ti = im + base, *br = re + base + kSpan, *bi = im + base + kSpan;
    for (int j = 0; j < kSpan; ++j) {
      butterfly<kForward, kSaturate>(tr[j], ti[j], br[j], bi[j], cs[j], sns[j]);
    }
  }
}

template <int kSpan, bool kForward>
void stage(int16_t *re, int16_t *im) {
  constexpr int step = kPairs / kSpan;  // twiddle index step: angle 2 pi j / (2 kSpan)
  int16_t cs[kSpan], sns[kSpan];
  for (int j = 0; j < kSpan; ++j) {
    cs[j] = kevrce_tbl_phs[2 * j * step];
    sns[j] = kevrce_tbl_phs[2 * j * step + 1];
  }
  if (within_peak(re, im)) {
    stage_with<kSpan, kForward, false>(re, im, cs, sns);
  } else {
    stage_with<kSpan, kForward, true>(re, im, cs, sns);
  }
}

// The first two stages use twiddle pairs 0 and 32 only and combine pairs
// within groups of four: on the four phases q[16 m + g] = pair 4g + m
// (m = 0..3, g = 0..15) each is a set of plain loops over g.
constexpr int kGroups = kPairs / 4;

template <bool kForward, bool kSaturate>
void first_stage_with(int16_t *qr, int16_t *qi, int16_t c, int16_t s) {
  for (int m = 0; m < 4; m += 2) {
    int16_t *tr = qr + kGroups * m, *ti = qi + kGroups * m;
    int16_t *br = tr + kGroups, *bi = ti + kGroups;
    for (int g = 0; g < kGroups; ++g) butterfly<kForward, kSaturate>(tr[g], ti[g], br[g], bi[g], c, s);
  }
}

template <bool kForward, bool kSaturate>
void second_stage_with(int16_t *qr, int16_t *qi, const int16_t *cs, const int16_t *sns) {
  for (int m = 0; m < 2; ++m) {
    int16_t *tr = qr + kGroups * m, *ti = qi + kGroups * m;
    int16_t *br = tr + 2 * kGroups, *bi = ti + 2 * kGroups;
    for (int g = 0; g < kGroups; ++g) {
      butterfly<kForward, kSaturate>(tr[g], ti[g], br[g], bi[g], cs[m], sns[m]);
    }
  }
}

template <bool kForward>
void first_stages(int16_t *qr, int16_t *qi) {
  const int16_t cs[2] = {kevrce_tbl_phs[0], kevrce_tbl_phs[kPairs]};  // pairs 0 and 32
  const int16_t sns[2] = {kevrce_tbl_phs[1], kevrce_tbl_phs[kPairs + 1]};
  if (within_peak(qr, qi)) {
    first_stage_with<kForward, false>(qr, qi, cs[0], sns[0]);
  } else {
    first_stage_with<kForward, true>(qr, qi, cs[0], sns[0]);
  }
  if (within_peak(qr, qi)) {
    second_stage_with<kForward, false>(qr, qi, cs, sns);
  } else {
    second_stage_with<kForward, true>(qr, qi, cs, sns);
  }
}

// The remaining four stages on the pairs in order.
template <bool kForward>
void later_stages(int16_t *re, int16_t *im) {
  stage<4, kForward>(re, im);
  stage<8, kForward>(re, im);
  stage<16, kForward>(re, im);
  stage<32, kForward>(re, im);
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
  // Bit reversal of the pair order while splitting real and imaginary
  // parts into the four phases of the first two stages.
  int16_t qr[kPairs], qi[kPairs];
  for (int g = 0; g < kGroups; ++g) {
    for (int m = 0; m < 4; ++m) {
      const int j = kBitReversal.of[4 * g + m];
      qr[kGroups * m + g] = buffer[2 * j];
      qi[kGroups * m + g] = buffer[2 * j + 1];
    }
  }
  const bool forward = direction == 1;
  if (forward) {
    first_stages<true>(qr, qi);
  } else {
    first_stages<false>(qr, qi);
  }
  int16_t re[kPairs], im[kPairs];
  for (int g = 0; g < kGroups; ++g) {
    for (int m = 0; m < 4; ++m) {
      re[4 * g + m] = qr[kGroups * m + g];
      im[4 * g + m] = qi[kGroups * m + g];
    }
  }
  if (forward) {
    later_stages<true>(re, im);
  } else {
    later_stages<false>(re, im);
  }
  for (int i = 0; i < kPairs; ++i) {
    buffer[2 * i] = re[i];
    buffer[2 * i + 1] = im[i];
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
