// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Residual modification (relaxed CELP): kevrce_modifyresidual(enc, m, shift,
// B, residual, available, carry, contour_end, L).
//
// Warps the LPC residual, segment by segment around its pitch pulses, so that
// it follows the delayed modified residual that the transmitted delay
// contour predicts (the target, enc->mod_res_hist[128 ..], built by
// kevrce_compute_acb just before).
//
//   m (out)        modified residual of the subframe; m[0 .. carry) already
//                  holds the samples an earlier segment produced past the
//                  previous subframe's end; written up to L + carry (new).
//   shift (in/out) accumulated shift, 1/256 sample, |shift| <= 72 samples:
//                  modified sample n is read from residual time n - shift/256.
//   B              open-loop gain of the frame, Q15.
//   residual (in)  first residual sample of the subframe inside the
//                  320-sample residual buffer; available = samples from there
//                  to the buffer's end, so 320 - available samples lie before.
//   carry (in/out) samples already produced for this subframe (in); samples
//                  produced past its end (out, 0..10).
//   contour_end    delay at the end of the subframe, Q16.
//   L              subframe length, 53 or 54.
//
// Segment design
//  * Pulses. The next pitch pulse is looked for, in modified time at the
//    current shift, with kevrce_peak_energy: 0.75 to 1.25 delays after the
//    last located pulse, or, with no usable last pulse, within one delay from
//    the segment start (never closer than 2 samples to it).
//  * Segments. A segment runs from the end of the previous one to 10
//    samples past its pulse, at most to L + 10 (the extent of the target).
//    A pulse beyond L + 4, no pulse window, or fewer than 5 samples left
//    before L end the subframe with an unsearched segment up to L.
//  * Search. Segments scoring 16 or more on peak2average search the integer
//    shifts S - 3 .. S + 3 samples (the side growing |S| cut to one sample
//    past 15 samples when B < 0.2 and past 30 samples when B < 0.3), refine
//    to 1/8 sample with the quadratic delay kernel, and keep the new shift if
//    the normalised correlation with the target exceeds 0.7.
//  * Exactly once, in order. A changed shift does not jump: it ramps from
//    the old to the new value across the samples before the pulse window
//    (the search extent is limited to half a sample per ramp sample), so
//    consecutive modified samples read residual times 0.5 to 1.5 samples
//    apart and the whole residual is traversed forwards without gaps or
//    repeats, across segment and subframe boundaries.
//  * Bounds. The search never takes |shift| past 72 samples. Reads stay
//    inside the residual buffer: the 80 samples before the first subframe
//    and the 80 after the last cover 72 samples of shift plus the 8 taps of
//    the interpolator; segments, pulse windows and the shift extent towards
//    the future are cut so that no read passes the buffer's end.
//  * Bookkeeping. The last pulse's position (modified time, relative to the
//    next subframe's start) survives in enc->rcelp_pulse; resets of the
//    shift clear it.
#include <algorithm>

#include <kevrc/kevrc_kernels.h>
#include "common/adaptive_codebook.h"
#include "common/fixed_point.h"
#include "encoder/encoder_state.h"
#include "encoder/rcelp.h"

namespace kevrc {
namespace {

constexpr int16_t kFlatScore = 16;          // peak2average below this: not searched
constexpr int kBaseExtent = 3;              // samples searched each side
constexpr int16_t kFarShift = 3840;         // 15 samples
constexpr int16_t kVeryFarShift = 7681;     // 30 samples
constexpr int16_t kLowGain = 6554;          // 0.2 in Q15
constexpr int16_t kMidGain = 9830;          // 0.3 in Q15
constexpr int16_t kThreeQuarters = 24576;   // 0.75 in Q15
constexpr int16_t kCorrThreshold = 16056;   // 0.49 (0.7 squared) in Q15
constexpr int16_t kShortCutoff = 16384;     // 7-tap interpolator of the search
constexpr int16_t kLongCutoff = 29491;      // 17-tap interpolator of the output
constexpr int kPulseTail = 10;              // segment end past the pulse
constexpr int kLongTaps = 8;
constexpr int kMaxCandidates = 2 * kBaseExtent + 1;

struct Subframe {
  const int16_t *residual;
  const int16_t *target;
  int available;
  int L;
  int delay;
};

int32_t q24(int32_t shift_q8) { return shl32_wrap(shift_q8, 16); }

// Largest exclusive segment end whose output reads at shift s stay in the buffer.
int read_limit(const Subframe &sf, int32_t s) {
  return sf.available - kLongTaps + interp_offset(s);
}

int16_t sample_at(const int16_t *x, int32_t shift_q8, int16_t cutoff, int16_t taps) {
  int16_t out;
  kevrc_bilinear_intrpol(x, q24(shift_q8), cutoff, taps, &out);
  return out;
}

// Locates the next pulse (modified time) at or after `start`; kNoPulse when
// the window is empty.
int find_pulse(const Subframe &sf, int start, int last_pulse, int32_t shift) {
  const int d = sf.delay;
  int lo = start + 2;
  int hi = start + 1 + d;
  if (last_pulse != kNoPulse && last_pulse + d + (d >> 2) >= start + 2) {
    lo = last_pulse + mul_32_16(d, kThreeQuarters);
    hi = last_pulse + d + (d >> 2);
  }
  const int offset = (shift + 128) >> 8;  // whole samples of the shift
  lo = std::max(lo, start + 2);
  hi = std::min(hi, sf.available - 3 + offset);
  if (hi < lo) return kNoPulse;
  int16_t pos;
  int32_t energy;
  kevrce_peak_energy(&pos, &energy, sf.residual, static_cast<int16_t>(lo - offset),
                     static_cast<int16_t>(hi - lo + 1));
  return pos + offset;
}

// Integer search extents {towards larger shifts, towards smaller shifts}.
void search_extent(const Subframe &sf, int32_t s, int16_t b, int end, int ramp, int *up,
                   int *down) {
  int u = kBaseExtent, dn = kBaseExtent;
  const bool cut = (b < kLowGain && (s > kFarShift || s < -kFarShift)) ||
                   (b < kMidGain && (s >= kVeryFarShift || s <= -kVeryFarShift));
  if (cut && s > 0) u = std::min(u, 1);
  if (cut && s < 0) dn = std::min(dn, 1);
  u = std::min({u, (kMaxShiftQ8 - s) >> 8, ramp / 2});
  dn = std::min({dn, (kMaxShiftQ8 + s) >> 8, ramp / 2});
  while (dn > 0 && end > read_limit(sf, s - 256 * dn)) --dn;
  *up = std::max(u, 0);
  *down = std::max(dn, 0);
}

int32_t energy_sum(const int16_t *x, int n) {
  Mac2Wrap acc;
  for (int i = 0; i < n; ++i) acc.add(x[i], x[i]);
  return acc.value();
}

// Correlations of the target over [begin, end) with the residual read at
// the shifts s + 256 * (up - j), j = 0 .. up + down. A whole-sample change
// of the shift moves the interpolator's read position and keeps its phase,
// so candidate j at n is the residual read at shift s at n - (up - j): one
// interpolated stretch serves every candidate, bit for bit.
void correlations(const Subframe &sf, int begin, int end, int32_t s, int up, int down, int32_t *c) {
  int16_t base[64 + 2 * kBaseExtent];  // segments end by L + 10 <= 64
  const int first = begin - up;
  interpolate_fixed(sf.residual + first, q24(s), kShortCutoff, 3, end + down - first, base);
  for (int j = 0; j <= up + down; ++j) {
    uint32_t acc = 0;
    const int16_t *cand = base + j;  // cand[n - begin]: the residual read at n - (up - j)
    for (int n = begin; n < end; ++n) acc += static_cast<uint32_t>(mul16(sf.target[n], cand[n - begin]));
    c[j] = static_cast<int32_t>(acc);
  }
}

// Normalised correlation test: best^2 > 0.49 * Ec * Et.
bool accepted(const Subframe &sf, int begin, int end, int32_t s, int32_t best) {
  int16_t cand[64];  // segments end by L + 10
  const int len = end - begin;
  interpolate_fixed(sf.residual + begin, q24(s), kShortCutoff, 3, len, cand);
  const int32_t ec = energy_sum(cand, len);
  const int32_t et = energy_sum(sf.target + begin, len);
  if (ec <= 0 || et <= 0 || best <= 0) return false;  // wrapped energies count as none
  const int n1 = norm_32(best), n2 = norm_32(ec), n3 = norm_32(et);
  const int32_t bn = shl32_wrap(best, n1);
  const int32_t c2 = mul_32_32(bn, bn);
  int32_t p = mul_32_16(mul_32_32(shl32_wrap(ec, n2), shl32_wrap(et, n3)), kCorrThreshold);
  const int e = 2 * n1 - n2 - n3 - 2;
  p = e >= 0 ? shl32_sat(p, e) : asr32(p, -e);
  return c2 > p;
}

// Shift search of one segment; returns the new accumulated shift.
int32_t search_shift(const kevrce_instance *enc, const Subframe &sf, int begin, int end,
                     int32_t s, int16_t b, int ramp) {
  int up, down;
  search_extent(sf, s, b, end, ramp, &up, &down);
  const int count = up + down;
  if (count < 2) return s;
  int32_t c[kMaxCandidates];
  correlations(sf, begin, end, s, up, down, c);
  const int16_t *k0 = enc->delay_kernel, *k1 = enc->delay_kernel + 8, *k2 = enc->delay_kernel + 16;
  int32_t best = 0;
  int frac = 8 * up - 4;
  for (int j = 1; j < count; ++j) {
    for (int p = 0; p < 8; ++p) {
      const int32_t cf = add32_wrap(add32_wrap(mul_32_16(c[j - 1], k0[p]), mul_32_16(c[j], k1[p])),
                                    mul_32_16(c[j + 1], k2[p]));
      if (cf > best) {
        best = cf;
        frac = 8 * (j - 1) + p;
      }
    }
  }
  if (frac == 8 * up - 4) return s;
  const int32_t candidate = s + 256 * up - 32 * (frac + 4);
  return accepted(sf, begin, end, candidate, best) ? candidate : s;
}

}  // namespace

int plan_segments(kevrce_instance *enc, const RcelpInput &in, int16_t *shift, int16_t *carry,
                  RcelpSegment *segments) {
  int pulse = enc->rcelp_pulse;
  const int L = in.L;
  auto age = [L](int p) { return p == kNoPulse || p - L < -240 ? kNoPulse : p - L; };
  if (*carry >= L) {
    *carry = static_cast<int16_t>(*carry - L);
    enc->rcelp_pulse = static_cast<int16_t>(age(pulse));
    return 0;
  }
  const int delay = std::clamp((add32_wrap(in.contour_end, 32768) >> 16), 20, 120);
  const Subframe sf{in.residual, &enc->mod_res_hist[kEncAcbMemory], in.available, L, delay};
  int count = 0;
  int start = std::max<int>(*carry, 0);
  int32_t s = *shift;
  while (start < L) {
    const bool room = start <= L - 5 && count < kMaxRcelpSegments - 1;
    const int p = room ? find_pulse(sf, start, pulse, s) : kNoPulse;
    if (p == kNoPulse || p > L + 4) {  // no pulse to anchor on: copy up to L
      segments[count++] = {static_cast<int16_t>(start), static_cast<int16_t>(L), 0, s, s};
      start = L;
      break;
    }
    const int end = std::min({p + kPulseTail, L + 10, read_limit(sf, s)});
    const int ramp = std::max(p - 3 - start, 0);
    int32_t next = s;
    if (peak2average(in.residual + start - interp_offset(s), static_cast<int16_t>(end - start)) >=
        kFlatScore) {
      next = search_shift(enc, sf, start, end, s, in.B, ramp);
    }
    segments[count++] = {static_cast<int16_t>(start), static_cast<int16_t>(end),
                         static_cast<int16_t>(ramp), s, next};
    pulse = p + ((next - s + 128) >> 8);
    s = next;
    start = end;
  }
  *shift = static_cast<int16_t>(s);
  *carry = static_cast<int16_t>(start - L);
  enc->rcelp_pulse = static_cast<int16_t>(age(pulse));
  return count;
}

}  // namespace kevrc

extern "C" void kevrce_modifyresidual(kevrce_instance *enc, int16_t *m, int16_t *shift, int16_t B,
                                      const int16_t *residual, int16_t available, int16_t *carry,
                                      int32_t contour_end, int16_t L) {
  using namespace kevrc;
  RcelpSegment segments[kMaxRcelpSegments];
  const RcelpInput in{residual, available, L, B, contour_end};
  const int count = plan_segments(enc, in, shift, carry, segments);
  for (int i = 0; i < count; ++i) {
    const RcelpSegment &g = segments[i];
    // The ramp (none when the shift stays), then the final shift throughout.
    const int steady = g.from == g.to ? g.begin : std::min<int>(g.begin + g.ramp, g.end);
    for (int n = g.begin; n < steady; ++n) {
      const int32_t s = ramp_shift(g.from, g.to, n - g.begin, g.ramp);
      m[n] = sample_at(residual + n, s, kLongCutoff, kLongTaps);
    }
    if (steady < g.end)
      interpolate_fixed(residual + steady, q24(g.to), kLongCutoff, kLongTaps, g.end - steady, m + steady);
  }
}

