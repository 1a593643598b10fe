// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Output formatting: sample formats, channel layouts, and what is written.
#include <cstring>

#include "tests/test_util.h"

namespace kevrc {
namespace {

using testing::Decoder;

TEST(Recon, EightBitConversionNeverOverflows) {
  Decoder d;
  kevrcd_work &w = d.work();
  const int16_t in[] = {32767, 32639, 32640, -32768, 127, 128, -129, -128, 0, -1};
  const int8_t want[] = {127, 127, 127, -128, 0, 1, -1, 0, 0, 0};
  std::memset(w.frame, 0, sizeof w.frame);
  std::memcpy(w.frame, in, sizeof in);
  const kevrcd_config cfg = {1, 0, 1, 0, 0};
  int8_t buf[160];
  kevrc_pcm_buffer out = {};
  out.data[0] = buf;
  EXPECT_EQ(kevrcd_recon(&w, &cfg, &out), KEVRC_OK);
  EXPECT_EQ(out.bits_per_sample, 8u);
  EXPECT_EQ(out.samples[0], 160u);
  EXPECT_EQ(out.bytes[0], 160u);
  EXPECT_EQ(0, std::memcmp(buf, want, sizeof want));
}

TEST(Recon, EveryLayoutWritesExactlyItsBuffers) {
  Decoder d;
  kevrcd_work &w = d.work();
  for (int i = 0; i < 160; ++i) w.frame[i] = static_cast<int16_t>(i * 200 - 16000);
  for (int interleaved : {0, 1}) {
    for (int mode : {0, 1, 2}) {
      for (int format : {0, 1, 2}) {
        const kevrcd_config cfg = {interleaved, mode, format, 0, 0};
        const uint32_t bps = format == 1 ? 1 : 2;
        // Exactly sized heap buffers: any overrun is caught by the sanitizer build.
        std::vector<uint8_t> b0(interleaved ? 160 * bps * (mode == 2 ? 2 : 1) : 1, 0xEE);
        std::vector<uint8_t> b1(160 * bps, 0xEE), b2(160 * bps, 0xEE);
        kevrc_pcm_buffer out = {};
        out.data[0] = b0.data();
        out.data[1] = b1.data();
        out.data[2] = b2.data();
        ASSERT_EQ(kevrcd_recon(&w, &cfg, &out), KEVRC_OK);
        EXPECT_EQ(out.bits_per_sample, 8 * bps);
        EXPECT_EQ(out.sample_rate, 8000u);
        EXPECT_EQ(out.interleaved, static_cast<uint32_t>(interleaved));
        EXPECT_EQ(out.channels, mode == 2 ? 2u : 1u);  // mode 1 stays 1 even with two buffers
        if (interleaved) {
          EXPECT_EQ(out.samples[0], mode == 2 ? 320u : 160u);
          EXPECT_EQ(out.bytes[0], out.samples[0] * bps);
          EXPECT_EQ(out.samples[1] + out.samples[2], 0u);
          EXPECT_EQ(b1[0], 0xEE);
          if (mode == 2) {  // both channels equal, sample by sample
            for (int i = 0; i < 160; ++i)
              ASSERT_EQ(0, std::memcmp(&b0[2 * i * bps], &b0[(2 * i + 1) * bps], bps));
          }
        } else {
          EXPECT_EQ(out.samples[1], 160u);
          EXPECT_EQ(out.bytes[1], 160u * bps);
          EXPECT_EQ(out.samples[2], mode == 0 ? 0u : 160u);
          EXPECT_EQ(b0[0], 0xEE);
          if (mode == 0) {
            EXPECT_EQ(b2[0], 0xEE);
          } else {
            EXPECT_EQ(b1, b2);
          }
        }
        if (format != 1) {
          const uint8_t *first = interleaved ? b0.data() : b1.data();
          int16_t s;
          std::memcpy(&s, first + (interleaved && mode == 2 ? 4 : 2) * 10, 2);
          EXPECT_EQ(s, w.frame[10]);
        }
      }
    }
  }
}

}  // namespace
}  // namespace kevrc
