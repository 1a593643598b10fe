// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
/*
 * kevrc internal kernels, with C linkage under their own names.
 *
 * Applications need only kevrc.h. This header declares the building blocks
 * behind it (arithmetic primitives, filters, the adaptive codebook, the
 * decoder's stages and the runtime services) for tests, tools and hosts that
 * want to reuse them. The shared library exports the names with the prefixes
 * kevrc_, kevrcd_, kevrce_, kcmn_ and kvrcd_ (the list api/kevrc.symbols);
 * the others (set_decode_params, decode_rate_1_8, kecrcd_apf, init_encoder,
 * peak2average, tbl_ham_win, tbl_ham_win1) are in the static library only. Array arguments document their length and Q format;
 * kernels trust their callers on lengths, exactly like memcpy.
 */
#ifndef KEVRC_KERNELS_H
#define KEVRC_KERNELS_H

#include <stddef.h>
#include <stdint.h>

#include <kevrc/kevrc.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Runtime services ---------------------------------------------------- */

/* Bit-stream reader, most significant bit first. A plain value: a copy reads
 * on independently from the same position. It loads bytes only as the
 * requested fields need them; past the end of its input it delivers zero bits
 * and loads nothing. */
typedef struct kcmn_bsr {
  uint32_t cache;       /* unread bits, left-aligned */
  uint32_t bits;        /* number of bits held in cache */
  const uint8_t *pos;   /* next byte not yet loaded into the cache */
  const uint8_t *start; /* first byte of the input */
  const uint8_t *end;   /* one past the last byte of the input */
  void (*refill)(struct kcmn_bsr *reader);
} kcmn_bsr;

void kcmn_bsr_init(kcmn_bsr *reader, const uint8_t *data, int32_t size,
                   void (*refill)(kcmn_bsr *reader));
uint32_t kcmn_bsr_read(kcmn_bsr *reader, int32_t n); /* 1 <= n <= 16 */
uint32_t kcmn_bsr_read1(kcmn_bsr *reader);
void kcmn_bsr_flush(kcmn_bsr *reader); /* loads the next byte into the cache */
/* Bytes used so far: position - start - (bits held / 8). */
uint32_t kcmn_bsr_consumed(const kcmn_bsr *reader);

/* 32-byte aligned memory. A host may supply its own pair (the library's are
 * weak definitions). */
void *kcmn_malloc_align32(size_t size);
void kcmn_mfree_align32(void *block);

/* Encoder bit writer. */
typedef struct kevrce_bsw {
  uint8_t *pos;       /* current 16-bit word of the output buffer */
  uint32_t free_bits; /* bits still free in the current word, 1..16 */
  uint8_t *end;       /* last 16-bit word of the buffer (set, not checked) */
} kevrce_bsw;

void kevrce_bsw_init(kevrce_bsw *writer, uint8_t *buffer, int32_t words);
/* Appends the low n bits of value (n <= 16); the current word must start at 0. */
void kevrce_put_bits(uint8_t **pos, uint32_t *free_bits, uint32_t value, int32_t n);

/* ---- Instances and dispatch ---------------------------------------------- */

typedef struct kevrc_ops {
  int32_t (*alloc_work)(void *instance);
  void (*free_work)(void *instance);
  int32_t (*process)(void *instance, const void *in, void *out, void *result);
  int32_t (*init)(void *instance);
  void (*reset)(void *instance);
} kevrc_ops;

int32_t kevrc_platform_init(int32_t *code);
void kevrc_platform_deinit(void);
/* The start-up flag: 0 at load, 1 once kevrc_init() succeeded. Read it through
 * kevrc_inited_flag(); the library alone writes it. */
extern int32_t kevrc_inited;
int32_t kevrc_inited_flag(void);

typedef struct kevrcd_work kevrcd_work;

/* ---- Fixed-point primitives ---------------------------------------------- */

int32_t kevrc_mul_32_32(int32_t a, int32_t b);
int32_t kevrc_mul_32_16(int32_t a, int16_t b);
int32_t kevrc_div_32_32(int32_t num, int32_t den);
int16_t kevrc_div_16_16(int16_t num, int16_t den);
int16_t kevrc_squar_rt(int32_t x);
int32_t kevrc_inv_sqrt(int32_t x);
int16_t kevrc_norm_32(int32_t x);
int16_t kevrc_norm_16(int16_t x);
int32_t kevrc_log2(int32_t x);
int32_t kevrc_log(int32_t x);
int32_t kevrc_log10(int32_t x);

/* ---- Filters, interpolation, LSP to LPC ----------------------------------- */

/* All-pole synthesis 1/A(z); coef Q12 a1..a10, mem newest first; out may be in. */
void kevrc_iir(const int16_t *in, const int16_t *coef, int16_t *mem, int16_t n, int16_t *out);
/* Prediction-error filter A(z), wrapping; out may be in. */
void kevrc_fir(const int16_t *in, const int16_t *coef, int16_t *mem, int16_t n, int16_t *out);
/* Copies 128 samples from src to dst (overlap allowed). */
void kevrc_mcpy_acbsize(const int16_t *src, int16_t *dst);
/* LSP interpolation for subframe sub (weights 1/6, 1/2, 5/6 of cur). */
void kevrc_interpol(int16_t *out, const int16_t *prev, const int16_t *cur, int16_t sub);
/* Delay contour (Q16) of subframe sub from the previous to the current delay. */
void kevrc_interpol_delay(int32_t *out, int16_t prev, int16_t cur, int16_t sub);
/* cos(pi*x/16384) in Q31 for a Q15 frequency x. */
int32_t kevrc_interpolation_cos129(int16_t x);
/* LSPs (Q15, repaired in place when out of range) to LPC a1..a10 (Q12). */
void kevrc_lsp2lpc(int16_t *lsp, int16_t *lpc);

/* ---- Adaptive codebook ---------------------------------------------------- */

/* One sample interpolated at a Q24 delay behind x; cutoff 29491 selects the
 * 17-tap table (N = 8), anything else the 7-tap table (N = 3). */
void kevrc_bilinear_intrpol(const int16_t *x, int32_t delay, int16_t cutoff, int16_t n_half,
                            int16_t *out);
/* L + 10 samples along a Q16 contour; out may be x (self-extending). */
void kevrc_get_codebook(int16_t *out, const int16_t *x, int16_t L, const int32_t *contour,
                        int16_t cutoff, int16_t n_half);
/* Decoder form: codebook at history + 128, first L samples scaled by gain (Q14). */
void kevrcd_acb_excitation(int16_t *out, int16_t gain, const int32_t *contour, int16_t *history,
                           int16_t L);

/* ---- Decoder stages -------------------------------------------------------- */

int32_t kevrcd_dec(kevrcd_instance *dec, const kevrc_bitstream_buffer *in, kevrc_pcm_buffer *out,
                   kevrcd_result *result);
int32_t kevrcd_init_state(kevrcd_instance *dec);
int32_t kevrcd_vld(kevrcd_instance *dec);
void set_decode_params(kevrcd_instance *dec, int32_t rate);
int32_t kevrcd_lsp_vq_evol(kevrcd_instance *dec);
void kvrcd_fcb_fr(const int16_t *words, int16_t *vector, int16_t length);
void kvrcd_fcb_hr(int16_t word, int16_t *vector, int16_t length);
int32_t decode_rate_1_8(kevrcd_instance *dec, int32_t postfilter, int16_t *output);
void kevrcd_get_excitation(kevrcd_instance *dec, int16_t started, int16_t subframe);
int16_t kevrcd_ran_noise_gen(int16_t *seed, int16_t *pair_flag, int32_t *stored);
int32_t kevrcd_recon(kevrcd_work *work, const kevrcd_config *config, kevrc_pcm_buffer *out);
int32_t kevrcd_recon_interleave_2ch(int32_t format, const void *first, const void *second,
                                    void *destination);
void kecrcd_apf(kevrcd_instance *dec, int32_t delay, int16_t n);
void kevrcd_apf_weight(const int16_t *f_num, const int16_t *f_den, int16_t *num, int16_t *den,
                       const int16_t *lpc);
void kevrcd_apf_loop(int16_t *mem, const int16_t *in, int16_t mu, int16_t n, int16_t *out);

/* ---- Encoder stages -------------------------------------------------------- */

typedef struct kevrce_work kevrce_work;
typedef struct kevrce_olp_state kevrce_olp_state;

int32_t kevrce_enc(kevrce_instance *enc, const kevrc_pcm_buffer *in, kevrc_bitstream_buffer *out,
                   kevrce_result *result);
void init_encoder(kevrce_instance *enc, kevrce_work *work);
/* Input high-pass filter over 160 samples, in place. */
void kevrce_hpf(kevrce_instance *enc, int16_t *samples);

/* LPC analysis of the 320-sample buffer; returns the merged open-loop gain (Q15). */
int16_t kevrce_pre_encode(kevrce_instance *enc, const int16_t *input);
/* Windowing, autocorrelation, Levinson-Durbin; returns the rescaling shift of r. */
int16_t kevrce_calculate_lpc(kevrce_work *work);
/* Impulse response of 1/A(z), 54 samples, h[0] = 2048 (Q11); lpc Q12. */
void kevrce_imp_res(const int16_t *lpc, int16_t *h);
/* work->lpc (Q12) to work->lsp (Q15). */
void kevrce_a2lsp(kevrce_work *work);
/* LPC a1..a10 (Q12) to 10 LSPs (Q15). */
void kevrce_lpc2lsp(const int16_t *lpc, int16_t *lsp);
/* Prediction-error filter A(z) with per-tap clamping; mem newest first. */
void kevrce_residu(const int16_t *in, const int16_t *lpc, int16_t *mem, int16_t n, int16_t *out);
/* Open-loop pitch of the 160-sample residual stretch x: delay 20..120, gain Q15. */
void kevrce_ol_pitch(kevrce_olp_state *state, const int16_t *x, int16_t *delay, int16_t *gain);

/* Rate decision within [min_rate, max_rate]; r the frame's autocorrelation r[0..16]. */
int16_t kevrce_rate_detection(kevrce_instance *enc, const int32_t *r, int32_t max_rate,
                              int32_t min_rate, int16_t analysis);

/* LSP weights and shifts from the spacing of the unquantized LSPs. */
void kevrce_norm_lsp(const int16_t *lsp, int16_t *weight, int16_t *shift);
/* Weighted split VQ; weight is overwritten with the quantized LSPs; returns weight. */
int16_t *kevrce_lspmaq(const int16_t *lsp, int16_t num_splits, const int16_t *split_dims,
                       const int16_t *split_entries, int16_t *weight, uint16_t *index,
                       const int16_t *codebook, const int16_t *shift);

/* Weighted synthesis impulse response (54 samples, Q11); scratch 20 values. */
void kevrce_weighed_imp_res(const int16_t *a, const int16_t *aq, int16_t *h, int16_t *scratch);
/* Zero-input response (update 0) or memory update with exc (update 1). */
void kevrce_zeroinput(kevrce_instance *enc, const int16_t *a, const int16_t *aq, const int16_t *exc,
                      int16_t n, int16_t update, int16_t *out);

/* Eighth-rate energy measurement and, at subframe 2, the search and the noise. */
void kevrce_calcexc_lbr(kevrce_instance *enc, int16_t gain, const int16_t *residual, int16_t L,
                        int16_t keep_seed, int16_t subframe, int16_t *exc, int16_t *energy_index);
/* Impulse-response gain of an eighth-rate subframe (from h over L samples). */
int16_t kevrce_imp_res_gain(const int16_t *h, int16_t L);
/* Log-domain energy of an eighth-rate subframe from its residual and gain. */
int16_t kevrce_lbr_energy(int16_t gain, const int16_t *residual, int16_t L);
/* Energy-codebook index nearest to three log energies (ties to the higher index). */
int16_t kevrce_lbr_search(const int16_t *energy);
int16_t kevrce_gauss_noise(kevrce_instance *enc);

/* RCELP: adaptive-codebook vector of the subframe into the excitation area
 * and the warped (modified) residual m; available counts residual samples
 * from the subframe start to the end of the 320-sample buffer; B Q15. */
void kevrce_compute_acb(kevrce_instance *enc, int16_t *m, const int32_t *contour,
                        const int16_t *residual, int16_t available, int16_t B, int16_t L);
void kevrce_modifyresidual(kevrce_instance *enc, int16_t *m, int16_t *shift, int16_t B,
                           const int16_t *residual, int16_t available, int16_t *carry,
                           int32_t contour_end, int16_t L);
/* Peak-to-average ratio of the 5-sample energies of x[0..n-1]. */
int16_t peak2average(const int16_t *x, int16_t n);
/* Strongest 5-sample energy window centred in start .. start + n - 1. */
void kevrce_peak_energy(int16_t *position, int32_t *energy, const int16_t *x, int16_t start,
                        int16_t n);

/* Closed-loop adaptive-codebook gain: quantizes, scales v in place. */
void kevrce_cal_cl_gain(const int16_t *h, const int16_t *x, int16_t n, int16_t *v, int16_t *gain,
                        int16_t *index);
/* y = in * h, n samples (Q11 response). */
void kevrce_conv_imp_res(const int16_t *in, const int16_t *h, int16_t *out, int16_t n);
/* Residual-domain target over 54 samples: x2 * Aq(z) A(z/g2) / A(z/g1). */
void kevrce_weight2_res(const int16_t *x2, const int16_t *a, const int16_t *aq, int16_t *r,
                        int16_t *scratch);
/* Fixed-codebook gain index (and quantized gain q) for the optimal gain g;
 * adds (c * q) to the excitation e over n samples. */
int16_t kevrce_fcb_gain_quant(const kevrce_instance *enc, int16_t acb_index, int16_t g,
                              const int16_t *c, int16_t *e, int16_t n);

/* ACELP fixed-codebook search (full rate: 8 pulses on 5 tracks; half rate:
 * 3 pulses). index receives the codebook words. */
void kevrce_acelp_cbk_search(kevrce_work *work, int16_t *target, int16_t *residual,
                             int16_t *impulse, int16_t lag, int16_t pitch_gain, int16_t L,
                             int16_t *filtered, int16_t full_rate, int16_t *code, int16_t *gain,
                             int16_t *index);
void kevrce_algcbk_fullrate(kevrce_work *work, int16_t *d, int16_t *residual, int16_t L,
                            const int16_t *impulse, int16_t *code, int16_t *filtered,
                            int16_t *index);
void kevrce_algcbk_lowrate(kevrce_work *work, const int16_t *d, int16_t L, const int16_t *impulse,
                           int16_t *code, int16_t *filtered, int16_t *index);
int16_t *kevrce_buf_mul(int16_t *row, const int16_t *factors, int16_t t);
void kevrce_buf_accumulate(int16_t *acc, const int16_t *u, const int16_t *v);
void kevrce_compute_corelation(const int16_t *hn, const int16_t *acc, int16_t t, const int16_t *s,
                               const int16_t *R, int16_t *out);
void kevrce_search_best_pulse(const int16_t *tracks, const int16_t *d, const int16_t *B,
                              const int16_t *V1, const int16_t *V2, const int16_t *M,
                              int16_t *state);

void kevrc_encode_frame(kevrce_work *work, kevrce_instance *enc, int16_t rate);
void kevrce_vlc(kevrce_instance *enc);

/* ---- Noise suppression ------------------------------------------------------- */

void kevrce_noise_suprs(kevrce_instance *enc, int16_t *samples);
int16_t kevrce_ns_shr(int16_t x, int16_t n);
int16_t kevrce_ns_shift(int16_t x, int16_t n);
int16_t kevrce_ns_block_norm(int16_t *buffer, int16_t count, int16_t headroom);
void kevrce_r_fft(int16_t *buffer, int32_t direction);
void kevrce_complex_fft(int16_t *buffer, int32_t direction);

/* ---- Tables ---------------------------------------------------------------- */

extern const int16_t kevrc_tbl_lsp_fr[2176];
extern const int16_t kevrc_tbl_lsp_hr[1792];
extern const int16_t kevrc_tbl_lsp_1_8[160];
extern const int16_t kevrc_prev_lsp[10];
extern const int16_t kevrc_tbl_energy_gain[768];
extern const int16_t kevrc_tbl_pitch_q[8];
extern const int16_t kevrc_tbl_fcb_gain_fr[32];
extern const int16_t kevrc_tbl_fcb_gain_hr[16];
extern const int16_t kevrcd_tbl_wfac_alpha[10];
extern const int16_t kevrcd_tbl_wfac_beta[10];
extern const int16_t kevrc_tbl_wfac_gamma_1[10];
extern const int16_t kevrc_tbl_wfac_gamma_2[10];
extern const int16_t kevrc_tbl_wfac_gamma_4[10];
extern const int16_t tbl_ham_win1[136];
extern const int16_t tbl_ham_win[56];
extern const int16_t kevrce_tbl_energy_search[768];
extern const int16_t kevrce_tbl_hpf[18];
extern const int16_t kevrce_tbl_delay_kernel[24];
extern const int16_t kevrce_track_order[11];
extern const int16_t kevrce_tbl_pitch_threshold[8]; /* Q14 midpoints of kevrc_tbl_pitch_q, 8th unused */
extern const int16_t kevrce_tbl_analysis_window[160];
extern const int32_t kevrce_tbl_lag_window[16];
extern const int16_t kevrce_tbl_band_filter[2][17];
extern const int16_t kevrce_tbl_rate_threshold[8][2]; /* [SNR index][0 half, 1 full], Q8 */
extern const int16_t kevrce_tbl_hangover[8];
extern const int16_t kevrce_ns_window[104];
extern const int16_t kevrce_ns_channels[16][4]; /* lo, hi, shift flag, shift count or Q15 factor */
extern const int32_t kevrce_ns_vm_table[90];
extern const int16_t kevrce_tbl_phs[128];
extern const int16_t kevrc_tbl_cos129[129];
extern const int16_t kevrc_tbl_sin129[129];

#ifdef __cplusplus
}
#endif

#endif /* KEVRC_KERNELS_H */
