/* A C host: includes the public header as C, links the shared library,
 * decodes a few packets in each output layout and encodes a few frames.
 * Exit status 0 on success. */
#include <stdio.h>
#include <string.h>

#include <kevrc/kevrc.h>

int main(void) {
  static const kevrcd_config configs[] = {
      {1, 0, 0, 0, 1}, {1, 2, 0, 0, 1}, {0, 1, 1, 0, 0}, {0, 2, 2, 0, 1}};
  unsigned char packet[KEVRC_MAX_PACKET_BYTES];
  size_t c;
  int i;
  if (kevrc_init() != KEVRC_OK) return 1;
  for (c = 0; c < sizeof configs / sizeof configs[0]; ++c) {
    int32_t err = -1;
    int16_t interleaved[2 * KEVRC_FRAME_SAMPLES], ch1[KEVRC_FRAME_SAMPLES], ch2[KEVRC_FRAME_SAMPLES];
    kevrc_bitstream_buffer in;
    kevrc_pcm_buffer out;
    kevrcd_result result;
    kevrcd_instance *dec = kevrcd_create(&configs[c], &err);
    if (dec == NULL || err != KEVRC_OK) return 2;
    memset(&out, 0, sizeof out);
    out.data[0] = interleaved;
    out.data[1] = ch1;
    out.data[2] = ch2;
    for (i = 0; i < 10; ++i) {
      int32_t status;
      memset(packet, 0, sizeof packet);
      packet[0] = KEVRC_RATE_EIGHTH;
      packet[1] = 0x00;
      packet[2] = (unsigned char)(100 + i);
      in.data = packet;
      in.user = 0;
      in.size = 3;
      status = kevrcd_decode(dec, &in, &out, &result);
      if (status != KEVRC_OK || result.consumed != 3 || result.sample_rate != 8000) {
        fprintf(stderr, "config %u frame %d: %s\n", (unsigned)c, i, kevrc_strerror(status));
        return 3;
      }
    }
    kevrcd_delete(dec);
  }
  {
    static const kevrce_config ecfg = {1, 1, 0, 0};
    int32_t err = -1;
    int16_t pcm[KEVRC_FRAME_SAMPLES];
    unsigned char payload[24];
    kevrc_pcm_buffer in;
    kevrc_bitstream_buffer out;
    kevrce_result result;
    kevrce_instance *enc = kevrce_create(&ecfg, &err);
    if (enc == NULL || err != KEVRC_OK) return 4;
    memset(&in, 0, sizeof in);
    in.data[0] = pcm;
    out.data = payload;
    out.user = 0;
    out.size = 0;
    for (i = 0; i < 10; ++i) {
      int n;
      for (n = 0; n < KEVRC_FRAME_SAMPLES; ++n) pcm[n] = (int16_t)((n * 37 + i * 11) % 2001 - 1000);
      if (kevrce_encode(enc, &in, &out, &result) != KEVRC_OK || result.rate != 1 || result.bytes != 2) return 5;
    }
    kevrce_delete(enc);
  }
  kevrc_deinit();
  printf("C host decoded with kevrc %s\n", kevrc_version());
  return 0;
}
