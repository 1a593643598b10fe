/* SPDX-License-Identifier: BSD-3-Clause */
/* Copyright (c) the kevrc authors */
/*
 * Packet loss: a receiver decodes the packets that arrive and conceals those
 * that do not with kevrcd_conceal(); after a long gap it resets the decoder.
 * The packets come from encoding a generated voiced sound; every seventh one
 * and a burst of 20 are lost on the way.
 */
#include <stdio.h>

#include <kevrc/kevrc.h>

#define FRAMES 150
#define LONG_GAP 10 /* frames (200 ms) */

static int lost(int frame) { return frame % 7 == 3 || (frame >= 80 && frame < 100); }

int main(void) {
  const kevrce_config ecfg = {4, 1, 0, 1};
  const kevrcd_config dcfg = {1, 0, 0, 0, 1};
  int32_t err = KEVRC_OK;
  int frame, gap = 0, concealed = 0, resets = 0;
  kevrce_instance *enc;
  kevrcd_instance *dec;

  kevrc_init();
  enc = kevrce_create(&ecfg, &err);
  dec = enc != NULL ? kevrcd_create(&dcfg, &err) : NULL;
  for (frame = 0; dec != NULL && err == KEVRC_OK && frame < FRAMES; ++frame) {
    int16_t pcm[KEVRC_FRAME_SAMPLES];
    uint8_t packet[1 + KEVRC_ENCODER_BUFFER_BYTES];
    kevrc_pcm_buffer in = {0}, out = {0};
    kevrc_bitstream_buffer payload = {packet + 1, 0, KEVRC_ENCODER_BUFFER_BYTES};
    kevrc_bitstream_buffer received = {packet, 0, 0};
    kevrce_result coded;
    kevrcd_result decoded;
    int n;
    for (n = 0; n < KEVRC_FRAME_SAMPLES; ++n) /* a 125 Hz buzz */
      pcm[n] = (int16_t)((n % 64) * 150 - 4800);
    in.data[0] = pcm;
    err = kevrce_encode(enc, &in, &payload, &coded);
    if (err != KEVRC_OK) break;
    packet[0] = (uint8_t)coded.rate;
    received.size = 1 + coded.bytes;

    out.data[0] = pcm;
    if (lost(frame)) { /* not arrived in time, or marked lost or damaged */
      err = kevrcd_conceal(dec, &out, &decoded);
      concealed++;
      gap++;
      continue;
    }
    if (gap > LONG_GAP) { /* the history is stale: start afresh */
      kevrcd_reset(dec);
      resets++;
    }
    gap = 0;
    err = kevrcd_decode(dec, &received, &out, &decoded);
  }
  kevrcd_delete(dec);
  kevrce_delete(enc);
  kevrc_deinit();
  if (err != KEVRC_OK) {
    fprintf(stderr, "kevrc_packet_loss: %s\n", kevrc_strerror(err));
    return 1;
  }
  printf("kevrc_packet_loss: %d frames, %d concealed, %d reset\n", FRAMES, concealed, resets);
  return 0;
}
