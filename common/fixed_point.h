// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Fixed-point primitives shared by the encoder and the decoder.
//
// Two layers live here:
//  1. Small named building blocks for every wrapping, saturating or rounding
//     step (add32_wrap, shl32_wrap, sat16, round16, ...). They are built on
//     unsigned arithmetic so that no signed overflow (undefined in C++) can
//     occur; whoever writes "acc + b" where the sum may wrap must use them.
//  2. The eleven arithmetic primitives of the codec (mul_32_32, mul_32_16,
//     div_32_32, div_16_16, squar_rt, inv_sqrt, norm_32, norm_16, log2, log,
//     log10), bit-exact, as constexpr functions. The exported C symbols
//     kevrc_mul_32_32() etc. are thin wrappers around them.
//
// Conventions: a value in Qn stands for v / 2^n; ">>" on a signed value is an
// arithmetic shift (guaranteed since C++20).
#pragma once

#include <bit>
#include <cstdint>

#include "common/tbl_inv_sqrt.h"

namespace kevrc {

// ---------------------------------------------------------------------------
// Building blocks
// ---------------------------------------------------------------------------

// Low 32 bits of v as a signed value (two's complement wrap).
constexpr inline int32_t wrap32(int64_t v) {
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v)));
}

// Low 16 bits of v as a signed value.
constexpr inline int16_t wrap16(int32_t v) {
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(v)));
}

constexpr inline int32_t add32_wrap(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

constexpr inline int32_t sub32_wrap(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

constexpr inline int32_t neg32_wrap(int32_t a) {
  return static_cast<int32_t>(0u - static_cast<uint32_t>(a));
}

// 32 x 32 -> low 32 bits of the product.
constexpr inline int32_t mul32_wrap(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

constexpr inline int16_t add16_wrap(int16_t a, int16_t b) {
  return wrap16(static_cast<int32_t>(a) + b);
}

constexpr inline int16_t sub16_wrap(int16_t a, int16_t b) {
  return wrap16(static_cast<int32_t>(a) - b);
}

// a << n keeping the low 32 bits; n in 0..31.
constexpr inline int32_t shl32_wrap(int32_t a, int n) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) << (n & 31));
}

// Arithmetic right shift for any n >= 0: shifts of 32 or more fill with the sign.
constexpr inline int32_t asr32(int32_t a, int n) {
  return n >= 32 ? (a < 0 ? -1 : 0) : (a >> n);
}

constexpr inline int64_t asr64(int64_t a, int n) {
  return n >= 64 ? (a < 0 ? -1 : 0) : (a >> n);
}

constexpr inline int16_t sat16(int32_t v) {
  return v > 32767 ? int16_t{32767} : v < -32768 ? int16_t{-32768} : static_cast<int16_t>(v);
}

constexpr inline int16_t sat16_64(int64_t v) {
  return v > 32767 ? int16_t{32767} : v < -32768 ? int16_t{-32768} : static_cast<int16_t>(v);
}

constexpr inline int32_t sat32(int64_t v) {
  return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : static_cast<int32_t>(v);
}

// a << n with saturation to the 32-bit range (n >= 0, any size).
constexpr inline int32_t shl32_sat(int32_t a, int n) {
  if (a == 0) return 0;
  if (n >= 32) return a > 0 ? INT32_MAX : INT32_MIN;
  return sat32(static_cast<int64_t>(a) * (int64_t{1} << n));
}

// Exact 16 x 16 product (always fits in 32 bits).
constexpr inline int32_t mul16(int16_t a, int16_t b) { return static_cast<int32_t>(a) * b; }

// 2*a*b, the Q15 x Q15 -> Q31 product; only (-32768)^2 wraps (to -2^31).
constexpr inline int32_t mul2_16(int16_t a, int16_t b) {
  return shl32_wrap(static_cast<int32_t>(a) * b, 1);
}

// A wrapping sum of 2*a*b terms (filter taps): the exact 16 x 16 products are
// summed modulo 2^32 and doubled once, which equals adding each doubled,
// wrapped product, in any order.
class Mac2Wrap {
 public:
  constexpr void add(int16_t a, int16_t b) { acc_ += static_cast<uint32_t>(int32_t{a} * b); }
  constexpr int32_t value() const { return static_cast<int32_t>(acc_ << 1); }

 private:
  uint32_t acc_ = 0;
};

// (acc + 0x8000) >> 16 with the addition wrapping in 32 bits.
constexpr inline int16_t round16(int32_t acc) {
  return static_cast<int16_t>(add32_wrap(acc, 0x8000) >> 16);
}

// (acc + 0x8000) >> 16 computed without overflow, then saturated to 16 bits.
constexpr inline int16_t round16_sat(int32_t acc) {
  return sat16_64((static_cast<int64_t>(acc) + 0x8000) >> 16);
}

// High part (a >> 16) and low part (bits 1..15) of a 32-bit multiplier operand.
constexpr inline int32_t hi16(int32_t a) { return a >> 16; }
constexpr inline int32_t lo15(int32_t a) { return (a >> 1) & 0x7FFF; }

// ---------------------------------------------------------------------------
// The arithmetic primitives
// ---------------------------------------------------------------------------

// About (a*b) >> 31, truncating; (-2^31)*(-2^31) wraps to -2^31.
// The value is defined by the split a = 2^16 ah + 2 al + bit 0 (al 15 bits,
// likewise b): 2 ah bh + ((ah bl + al bh + ((al bl) >> 15)) >> 14), wrapped.
// With A = a >> 1 = 2^15 ah + al (and B) that is floor(A*B / 2^29) exactly
// (an integer added inside a floor comes out of it), so one 64-bit product
// gives it; |A*B| <= 2^60.
constexpr inline int32_t mul_32_32(int32_t a, int32_t b) {
  return wrap32((int64_t{a >> 1} * (b >> 1)) >> 29);
}

// About (a*b) >> 15: Q31 x Q15 -> Q31; (-2^31)*(-32768) wraps to -2^31.
// Defined as 2 hi16(a) b + ((lo15(a) b) >> 14), wrapped, which is
// floor((a >> 1) * b / 2^14) exactly, as for mul_32_32.
constexpr inline int32_t mul_32_16(int32_t a, int16_t b) {
  return wrap32((int64_t{a >> 1} * b) >> 14);
}

// Number of left shifts that normalise x (0 for 0, 31 for -1).
constexpr inline int16_t norm_32(int32_t x) {
  if (x == 0) return 0;
  if (x == -1) return 31;
  // y = 1 .. 0x7FFFFFFF: the shifts that bring its top bit to bit 30.
  const uint32_t y = static_cast<uint32_t>(x ^ (x >> 31));
  return static_cast<int16_t>(std::countl_zero(y) - 1);
}

constexpr inline int16_t norm_16(int16_t x) { return norm_32(shl32_wrap(x, 16)); }

// num/den in Q31 by one Newton-Raphson step; den normalised, 0 <= num < den.
constexpr inline int32_t div_32_32(int32_t num, int32_t den) {
  const int16_t dh = static_cast<int16_t>(den >> 16);
  if (dh == 16383) return 32767;  // denominators 0x3FFF0000..0x3FFFFFFF
  if (dh < 16383) return 0;
  const int16_t a = static_cast<int16_t>(536838144 / dh);  // 1/den in Q14
  const int32_t e = sub32_wrap(0x7FFFFFFF, mul_32_16(den, a));
  const int32_t r = mul_32_16(e, a);
  return shl32_wrap(mul_32_32(num, r), 2);
}

// num/den in Q15; 0 for improper or negative fractions, 32767 when equal.
constexpr inline int16_t div_16_16(int16_t num, int16_t den) {
  if (num > den || num < 0 || den < 0) return 0;
  if (num == den) return 32767;
  return sat16((static_cast<int32_t>(num) * 32768) / den);
}

// sqrt(x) in Q15 for a normalised Q31 x, by a fifth-order series.
constexpr inline int16_t squar_rt(int32_t x) {
  const int32_t h = x >> 1;
  const int32_t t = sub32_wrap(h, 0x40000000) >> 16;  // (x - 1)/2 in Q15
  int32_t acc = add32_wrap(h, 0x40000000);
  const int32_t u = neg32_wrap(shl32_wrap(mul32_wrap(t, t), 1));
  acc = add32_wrap(acc, u >> 1);
  const int32_t t2 = u >> 16;
  const int32_t v = neg32_wrap(shl32_wrap(mul32_wrap(t2, t), 1));
  acc = add32_wrap(acc, v >> 1);
  const int32_t t3 = v >> 16;
  const int32_t r4 = add32_wrap(shl32_wrap(mul32_wrap(t, t3), 1), 0x8000) >> 16;
  const int32_t r5 = add32_wrap(neg32_wrap(shl32_wrap(mul32_wrap(t3, t2), 1)), 0x8000) >> 16;
  acc = add32_wrap(acc, shl32_wrap(mul32_wrap(-20480, r4), 1));  // -5/8 in Q15
  acc = add32_wrap(acc, shl32_wrap(mul32_wrap(28672, r5), 1));   //  7/8 in Q15
  const int64_t sum = static_cast<int64_t>(acc) + 0x8000;
  if (sum > 0x7FFFFFFF) return 32767;
  return static_cast<int16_t>(sum >> 16);
}

// About 2^30 / sqrt(x) (Q30 for integer x) by table interpolation.
constexpr inline int32_t inv_sqrt(int32_t x) {
  if (x <= 0) return 0x3FFFFFFF;
  const int16_t n = norm_32(x);
  int32_t y = shl32_wrap(x, n);
  const int e = 30 - n;
  if ((e & 1) == 0) y >>= 1;
  const int s = (e >> 1) + 1;
  const int i = (y >> 25) - 16;  // 0..47
  const int32_t f = (y >> 10) & 0x7FFF;
  const int16_t d = wrap16(kInvSqrtTable[i] - kInvSqrtTable[i + 1]);
  const int32_t r = sub32_wrap(shl32_wrap(kInvSqrtTable[i], 16), shl32_wrap(d * f, 1));
  return r >> s;
}

// log2 of x read as a Q31 fraction, in Q26, by a coarse quadratic.
constexpr inline int32_t log2(int32_t x) {
  const int16_t n = norm_32(x);
  const int16_t m = static_cast<int16_t>(shl32_wrap(x, n) >> 16);  // Q15 mantissa
  const int16_t q = wrap16(add32_wrap(mul16(m, m), 0x4000) >> 15);
  int32_t l = static_cast<int32_t>(0xAB300000u);  // C2 = -21712 in the high half
  l = add32_wrap(l, shl32_wrap(mul16(-11050, q), 1));
  l = add32_wrap(l, shl32_wrap(mul16(32709, m), 1));
  const int32_t frac = static_cast<int32_t>((static_cast<uint32_t>(l) >> 3) & 0x3FFFFFFu);
  return add32_wrap(frac, shl32_wrap(-n - 1, 26));
}

constexpr inline int32_t log(int32_t x) { return mul_32_16(log2(x), 22713); }    // ln 2 in Q15
constexpr inline int32_t log10(int32_t x) { return mul_32_16(log2(x), 9864); }  // log10 2 in Q15

// ---------------------------------------------------------------------------
// Block-floating accumulation of 2*x*y terms
// ---------------------------------------------------------------------------

// A sum that starts at 0 with exponent 1; each 2*x*y term is shifted right by
// the exponent before it is added; when the sum then exceeds `limit` it is
// halved and the exponent rises (from the next term on).
struct BlockFloat {
  int32_t sum = 0;
  int exp = 1;
};

constexpr inline void block_float_add(BlockFloat &bf, int16_t x, int16_t y, int32_t limit) {
  bf.sum = add32_wrap(bf.sum, asr32(mul2_16(x, y), bf.exp));
  if (bf.sum > limit) {
    bf.sum >>= 1;
    ++bf.exp;
  }
}

// The fast path of a block-floating sum of 2*a[i]*b[i] over i < n from
// BlockFloat{} (exponent 1): each term asr32(mul2_16(a, b), 1) is a*b unless
// a = b = -32768. When the magnitudes' sum is at most a limit L < 2^30, every
// prefix sum lies within -L..L, so an accumulation that halves (or otherwise
// reacts) only beyond L never does, never wraps, and ends at exactly the plain
// sum of a*b with exponent 1. The magnitudes are bounded from above by
// 2^16 * (sum of (|a|*|b| >> 16) + n), which needs only 16 x 16 -> high-16
// products; when that bound fails the caller accumulates term by term, so
// the bound's slack (at most n * 2^16) only costs speed. Plain loop with
// 32-bit lanes: the compiler vectorizes it (unsigned sums: no overflow).
struct TermSums {
  uint32_t sum = 0;        // sum of a*b modulo 2^32
  uint32_t high_sum = 0;   // sum of (|a|*|b|) >> 16, at most n * 2^14
};

inline TermSums product_sums(const int16_t *a, const int16_t *b, int n) {
  TermSums t;
  for (int i = 0; i < n; ++i) {
    const uint32_t ma = static_cast<uint16_t>(a[i] < 0 ? -a[i] : a[i]);  // |a|, 0..32768
    const uint32_t mb = static_cast<uint16_t>(b[i] < 0 ? -b[i] : b[i]);
    t.sum += static_cast<uint32_t>(int32_t{a[i]} * b[i]);
    t.high_sum += static_cast<uint16_t>((ma * mb) >> 16);
  }
  return t;
}

// The block-floating sum when product_sums proves it event-free under limit;
// false when the terms must be accumulated one by one (n <= 2^16).
inline bool block_float_fast(const int16_t *a, const int16_t *b, int n, int32_t limit, BlockFloat &out) {
  const TermSums t = product_sums(a, b, n);
  const int64_t bound = (int64_t{t.high_sum} + n) * 65536;
  if (bound > limit || bound >= (int64_t{1} << 30)) return false;
  out = BlockFloat{static_cast<int32_t>(t.sum), 1};
  return true;
}

// Brings two block-floating values to the larger exponent (the other mantissa
// is shifted right by the difference).
constexpr inline void block_float_align(BlockFloat &a, BlockFloat &b) {
  if (a.exp > b.exp) {
    b.sum = asr32(b.sum, a.exp - b.exp);
    b.exp = a.exp;
  } else if (b.exp > a.exp) {
    a.sum = asr32(a.sum, b.exp - a.exp);
    a.exp = b.exp;
  }
}

// ---------------------------------------------------------------------------
// Products in 16-bit lanes
// ---------------------------------------------------------------------------

// (a * b) >> 15 kept as 16 bits (wrap16(mul16(a, b) >> 15)), formed from the
// product's high half (a * b) >> 16 and the top bit of its low half: twice
// the high half plus that bit, modulo 2^16. Written this way a loop of them
// stays in 16-bit vector lanes (high- and low-half multiplies) instead of
// widening to 32 bits and narrowing back.
constexpr inline int16_t mul16_shr15_wrap(int16_t a, int16_t b) {
  const auto high = static_cast<uint16_t>((int32_t{a} * b) >> 16);
  const auto low = static_cast<uint16_t>(int32_t{a} * b);
  return static_cast<int16_t>(static_cast<uint16_t>((high << 1) | (low >> 15)));
}

}  // namespace kevrc
