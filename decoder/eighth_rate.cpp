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
//   (unit variance = 8192) by the polar method on a 16-bit congruential
//   sequence; every second call returns the pair's stored value. seed,
//   pair_flag (16-bit) and stored (32-bit) are updated.
#include <cstring>

#include <kevrc/kevrc_kernels.h>
#include "common/fixed_point.h"
#include "decoder/decoder_paths.h"

using namespace kevrc;

namespace {

constexpr int16_t kFirstSeed = 1234;
constexpr int16_t kAllOnesEnergy = 64;  // energy index of accepted all-ones packets

// One step of the congruential sequence, truncated to 16 bits.
uint16_t lcg_step(int16_t s) { return static_cast<uint16_t>((int32_t{s} * 50346 + 27698) >> 1); }

// A uniform in [-16384, 16383] from a 16-bit sequence value.
int32_t uniform(uint16_t s) { return (s >> 1) - 16384; }

// d * t * 2^shift with 32-bit saturation (right shifts truncate).
int32_t scale_product(int16_t d, int16_t t, int shift) {
  const int32_t p = int32_t{d} * t;  // |p| < 2^30
  if (shift < 0) return asr32(p, -shift);
  return sat32(int64_t{p} * (int64_t{1} << (shift > 31 ? 31 : shift)));
}

// Gaussian factor sqrt(-2 ln(r)/r) of the polar method for r = r_q30 / 2^30,
// 0 < r < 1, as a Q15 mantissa t and a shift: the factor is t * 2^(shift+1-15).
// Built on the normalised log, a 16-bit division and the square root.
void gauss_factor(int32_t r_q30, int16_t *t, int *shift) {
  const int32_t r_q31 = r_q30 * 2;
  const int32_t ln = neg32_wrap(kevrc::log(r_q31));  // -ln(r) in Q26
  if (ln <= 0) {
    *t = 0;
    *shift = 0;
    return;
  }
  const int e = norm_32(r_q31);
  const int16_t m = static_cast<int16_t>(shl32_wrap(r_q31, e) >> 16);  // 16384..32767
  const int nl = norm_32(ln);
  int16_t lm = static_cast<int16_t>(shl32_wrap(ln, nl) >> 16);
  int x = e - nl + 6;  // -2 ln(r) / r = (lm / m) * 2^x
  if (lm > m) {        // keep the quotient a proper fraction
    lm = static_cast<int16_t>(lm >> 1);
    ++x;
  }
  int16_t q = div_16_16(lm, m);
  const int nq = norm_16(q);
  q = static_cast<int16_t>(q << nq);
  x -= nq;
  int16_t root = squar_rt(shl32_wrap(q, 16));
  if ((x & 1) != 0) {  // odd exponent: take 2^((x+1)/2) / sqrt(2)
    root = static_cast<int16_t>((root * 23170) >> 15);  // 1/sqrt(2) in Q15
    ++x;
  }
  *t = root;
  *shift = (x >> 1) - 1;  // output Q13 = Q15 input * factor / 4, stored in the high half
}

}  // namespace

extern "C" int16_t kevrcd_ran_noise_gen(int16_t *seed, int16_t *pair_flag, int32_t *stored) {
  if (*pair_flag != 0) {
    *pair_flag = 0;
    if (*stored == INT32_MAX) return 32767;
    if (*stored == INT32_MIN) return -32768;
    return wrap16(add32_wrap(*stored, 32768) >> 16);
  }
  const uint16_t s1 = lcg_step(*seed);
  const int32_t u1 = uniform(s1);
  const uint16_t s2 = lcg_step(static_cast<int16_t>(s1));
  const int32_t u2 = uniform(s2);
  *seed = static_cast<int16_t>(s2);
  const int16_t d1 = static_cast<int16_t>(2 * u1);  // Q15 uniforms in [-1, 1)
  const int16_t d2 = static_cast<int16_t>(2 * u2);
  const int32_t r = add32_wrap(mul16(d1, d1), mul16(d2, d2));  // Q30
  if (r > 0 && r < (int32_t{1} << 30)) {
    int16_t t;
    int shift;
    gauss_factor(r, &t, &shift);
    *stored = scale_product(d1, t, shift);
    *pair_flag = 1;
    return sat16_64((int64_t{scale_product(d2, t, shift)} + 32768) >> 16);
  }
  // Outside the unit circle: a sum of three uniforms instead.
  const uint16_t s3 = lcg_step(static_cast<int16_t>(s2));
  *seed = static_cast<int16_t>(s3);
  return static_cast<int16_t>((d2 >> 3) + (u1 >> 2) + (uniform(s3) >> 2));
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
