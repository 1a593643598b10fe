/* SPDX-License-Identifier: BSD-3-Clause */
/* Copyright (c) the kevrc authors */
/*
 * Encode / decode round trip: raw 16-bit PCM at 8 kHz (native byte order)
 * from stdin is coded frame by frame, each packet is decoded again, and the
 * decoded PCM goes to stdout.   kevrc_roundtrip < in.raw > out.raw
 */
#include <stdio.h>
#include <string.h>

#include <kevrc/kevrc.h>

int main(void) {
  const kevrce_config ecfg = {4, 1, 0, 1};    /* rates 1..4, noise suppression */
  const kevrcd_config dcfg = {1, 0, 0, 0, 1}; /* interleaved, mono, 16-bit, postfilter */
  int16_t pcm[KEVRC_FRAME_SAMPLES];
  uint8_t packet[1 + KEVRC_ENCODER_BUFFER_BYTES]; /* rate byte + encoder room */
  int32_t err = KEVRC_OK;
  long frames = 0, bytes = 0;
  size_t got;
  kevrce_instance *enc;
  kevrcd_instance *dec;

  kevrc_init();
  enc = kevrce_create(&ecfg, &err);
  dec = enc != NULL ? kevrcd_create(&dcfg, &err) : NULL;
  while (dec != NULL && (got = fread(pcm, 2, KEVRC_FRAME_SAMPLES, stdin)) > 0) {
    kevrc_pcm_buffer in = {0}, out = {0};
    kevrc_bitstream_buffer payload = {packet + 1, 0, KEVRC_ENCODER_BUFFER_BYTES};
    kevrc_bitstream_buffer received = {packet, 0, 0};
    kevrce_result coded;
    kevrcd_result decoded;
    memset(pcm + got, 0, 2 * (KEVRC_FRAME_SAMPLES - got)); /* pad the last frame */
    in.data[0] = pcm;
    in.samples[0] = KEVRC_FRAME_SAMPLES; /* stated sizes are checked; 0: not stated */
    err = kevrce_encode(enc, &in, &payload, &coded);
    if (err != KEVRC_OK) break;
    packet[0] = (uint8_t)coded.rate; /* the decoder reads the rate byte first */
    received.size = 1 + coded.bytes;
    out.data[0] = pcm;
    out.samples[0] = KEVRC_FRAME_SAMPLES;
    err = kevrcd_decode(dec, &received, &out, &decoded);
    if (err != KEVRC_OK) break;
    fwrite(pcm, 2, KEVRC_FRAME_SAMPLES, stdout);
    frames++;
    bytes += received.size;
  }
  kevrcd_delete(dec);
  kevrce_delete(enc);
  kevrc_deinit();
  if (err != KEVRC_OK) {
    fprintf(stderr, "kevrc_roundtrip: %s\n", kevrc_strerror(err));
    return 1;
  }
  fprintf(stderr, "kevrc_roundtrip: %ld frames, %ld packet bytes\n", frames, bytes);
  return 0;
}
