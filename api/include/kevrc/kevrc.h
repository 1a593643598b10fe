// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
/*
 * kevrc: fixed-point narrow-band variable-rate CELP speech codec.
 *
 * Public C interface: status codes, configuration / buffer / result records
 * and the lifecycle of decoder and encoder instances. One call codes or
 * decodes one 20 ms frame (160 samples at 8000 Hz).
 *
 * Packets as the decoder reads them: one rate byte (1 eighth rate, 3 half
 * rate, 4 full rate) followed by the payload (2, 10 or 22 bytes). The encoder
 * writes the payload only; put the rate byte in front before decoding.
 *
 * Thread safety: instances are independent; one instance must not be used
 * from two threads at once. The library holds no mutable global state other
 * than the start-up flag of kevrc_init().
 */
#ifndef KEVRC_H
#define KEVRC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KEVRC_VERSION_MAJOR 0
#define KEVRC_VERSION_MINOR 1
#define KEVRC_VERSION_PATCH 0
#define KEVRC_VERSION_STRING "0.1.0"

#define KEVRC_SAMPLE_RATE 8000
#define KEVRC_FRAME_SAMPLES 160
/* Longest packet the decoder reads: rate byte + 22 payload bytes. */
#define KEVRC_MAX_PACKET_BYTES 23
/* Room the encoder needs at the packet pointer (the payload plus padding). */
#define KEVRC_ENCODER_BUFFER_BYTES 24

/* Rate codes. */
#define KEVRC_RATE_EIGHTH 1
#define KEVRC_RATE_HALF 3
#define KEVRC_RATE_FULL 4

/* Status codes: 0 is success, failures are negative. */
#define KEVRC_OK 0
#define KEVRC_ERR_LSP (-1)         /* decoded LSPs out of order / too close */
#define KEVRC_ERR_NOMEM (-2)       /* allocation failed; decoder: pitch delay out of range */
#define KEVRC_ERR_UNSUPPORTED (-3) /* reserved field set / unknown output format or channel mode */
#define KEVRC_ERR_ARG (-4)         /* bad argument: null handle or pointer, buffer too small,
                                      rate bounds, noise-suppression switch */
#define KEVRC_ERR_RATE (-5)        /* rate byte is not 1, 3 or 4 */
#define KEVRC_ERR_INTERNAL (-8)    /* defensive: cannot happen */
#define KEVRC_ERR_SHORT (-9)       /* packet shorter than its rate needs */

/* Decoder creation record. kevrcd_create() refuses other channel_mode or
 * sample_format values, and a non-zero reserved, with KEVRC_ERR_UNSUPPORTED. */
typedef struct kevrcd_config {
  int32_t interleaved;   /* 0: one buffer per channel; non-zero: one interleaved buffer */
  int32_t channel_mode;  /* 0 native (mono), 1 mono (written to both channel buffers),
                            2 two identical channels */
  int32_t sample_format; /* 0 or 2: 16-bit signed samples; 1: 8-bit signed samples */
  int32_t reserved;      /* must be 0 */
  int32_t postfilter;    /* non-zero: apply the adaptive postfilter */
} kevrcd_config;

/* Encoder creation record. kevrce_create() refuses bounds outside 1..4, a
 * max_rate below min_rate, the bounds 2..2 and a noise_suppression other than
 * 0 or 1 with KEVRC_ERR_ARG, then a non-zero reserved with
 * KEVRC_ERR_UNSUPPORTED. Rate 2 is never coded: a bound of 2 acts as the
 * nearest coded rate inside the bounds (max_rate 2 as 1, min_rate 2 as 3), so
 * every chosen rate lies within [min_rate, max_rate]; 2..2 holds no coded
 * rate. */
typedef struct kevrce_config {
  int32_t max_rate;          /* highest rate code the encoder may choose, 1..4 */
  int32_t min_rate;          /* lowest rate code, 1..4, not above max_rate */
  int32_t reserved;          /* must be 0 */
  int32_t noise_suppression; /* 1: suppress background noise; 0: do not */
} kevrce_config;

/*
 * Size fields. The caller owns every buffer. A size field left at 0 means
 * "the caller provides the room the frame needs"; a non-zero one states the
 * room, and a call whose stated room is smaller than the frame's need returns
 * KEVRC_ERR_ARG before it changes anything (the instance stays as it was).
 * The needs:
 *   encoder input:  samples[0] >= 160 and bytes[0] >= 320 (data[0], int16,
 *                   any alignment);
 *   encoder output: size >= KEVRC_ENCODER_BUFFER_BYTES (24); a negative size
 *                   is refused;
 *   decoder input:  size is the packet length (>= 0), always read;
 *   decoder output: per buffer the layout writes, samples >= 160 (320 for
 *                   interleaved two-channel output in data[0]) and bytes >=
 *                   samples x 2 (16-bit) or x 1 (8-bit). The decoder then
 *                   writes the counts it delivered into samples and bytes.
 */

/* Packet buffer: decoder input, encoder output. */
typedef struct kevrc_bitstream_buffer {
  uint8_t *data;     /* packet bytes */
  uint64_t user;     /* for the application; the codec never touches it */
  int32_t size;      /* decoder: packet length in bytes; encoder: room at data, or 0 */
} kevrc_bitstream_buffer;

/*
 * PCM buffer: decoder output, encoder input. Index 0 of samples/bytes/data is
 * the interleaved buffer, indices 1 and 2 the first and second channel
 * buffers. A decoder needs room for 160 samples per channel (640 bytes for
 * interleaved 16-bit stereo); the encoder reads 160 int16 samples from
 * data[0] and overwrites them with the conditioned input.
 */
typedef struct kevrc_pcm_buffer {
  uint32_t samples[8];
  uint32_t bytes[8];
  void *data[8];
  uint64_t user[8]; /* for the application; the codec never touches it */
  uint32_t channels;
  uint32_t bits_per_sample;
  uint32_t sample_rate;
  uint32_t interleaved;
} kevrc_pcm_buffer;

/* Decoder per-frame result. */
typedef struct kevrcd_result {
  uint32_t consumed; /* bytes of the packet used, rate byte included */
  uint32_t channels;
  uint32_t bits_per_sample;
  uint32_t sample_rate; /* always 8000 */
} kevrcd_result;

/* Encoder per-frame result. */
typedef struct kevrce_result {
  int32_t rate;  /* rate code chosen: 1, 3 or 4 */
  int32_t bytes; /* payload size written: 2, 10 or 22 */
} kevrce_result;

typedef struct kevrcd_instance kevrcd_instance;
typedef struct kevrce_instance kevrce_instance;

/* Library start-up and shut-down. kevrc_init() may be called any number of times. */
int32_t kevrc_init(void);
void kevrc_deinit(void);

/* Decoder lifecycle. kevrcd_create() returns NULL on failure and stores the
 * status through err when err is not NULL. */
kevrcd_instance *kevrcd_create(const kevrcd_config *config, int32_t *err);
void kevrcd_delete(kevrcd_instance *handle);
int32_t kevrcd_decode(kevrcd_instance *handle, const kevrc_bitstream_buffer *in,
                      kevrc_pcm_buffer *out, kevrcd_result *result);
/* Decodes one erased frame: call it for a packet that did not arrive in
 * time, or that the transport marked as lost or damaged. The decoder
 * conceals it from its history exactly as it does an erasure in the stream;
 * out and result are as for kevrcd_decode() (result->consumed is 0). */
int32_t kevrcd_conceal(kevrcd_instance *handle, kevrc_pcm_buffer *out, kevrcd_result *result);
/* Clears the decoder's speech history (filter memories, excitation, LSPs):
 * call it after a long gap or a discontinuity of the stream. */
void kevrcd_reset(kevrcd_instance *handle);

/* Encoder lifecycle. */
kevrce_instance *kevrce_create(const kevrce_config *config, int32_t *err);
void kevrce_delete(kevrce_instance *handle);
int32_t kevrce_encode(kevrce_instance *handle, kevrc_pcm_buffer *in, kevrc_bitstream_buffer *out,
                      kevrce_result *result);
/* Quality mode: on (1) or off (0, the default). Off, the encoder makes the
 * standard rate decision, comfort-noise level and noise-suppressor start, and
 * its packets are bit-exact with every earlier release. On, it tracks the true
 * background floor, never sends active speech to eighth rate, codes loud
 * stationary sounds (tones, music on hold) as signal, keeps a hangover after
 * speech, sets the comfort-noise level from the input signal rather than its
 * residual, and keeps a recording that starts with speech from seeding the
 * suppressor's noise estimate. Packets stay valid for any decoder. May be
 * called before any frame or between frames. Returns KEVRC_ERR_ARG for a NULL
 * handle or an `on` other than 0 or 1 (the mode then stays as it was). */
int32_t kevrce_set_robust(kevrce_instance *handle, int32_t on);

/* A short English description of a status code. Never NULL. */
const char *kevrc_strerror(int32_t status);
/* The library version, "major.minor.patch". */
const char *kevrc_version(void);

#ifdef __cplusplus
}
#endif

#endif /* KEVRC_H */
