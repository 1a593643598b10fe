// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Packet classification (blank, all-ones, forbidden rate changes) and field
// unpacking.
#include "tests/test_util.h"

namespace kevrc {
namespace {

using testing::Decoder;
using testing::Packet;

Packet good_full(int delay = 50) {
  testing::Rng rng(7);
  testing::FullFields f = testing::random_full(rng, delay);
  f.delay_diff = 0;
  f.lpc_flag = 0;
  return testing::pack(f);
}

Packet good_eighth() {
  testing::EighthFields f;
  f.energy = 200;
  return testing::pack(f);
}

const Packet kAllOnes = {1, 0xFF, 0xFF};

TEST(Unpack, BlankPacketsAreErased) {
  Decoder d;
  const auto f = d.decode(testing::blank_packet(4));
  EXPECT_EQ(f.status, KEVRC_OK);
  EXPECT_TRUE(f.delivered);
  EXPECT_EQ(d.state().frame_erased, 1);  // not decoded with zero indices
  EXPECT_EQ(d.work().rate, 1);  // previous rate 1 at creation: erased as eighth rate
  EXPECT_EQ(d.state().recovery_count, 0);  // the eighth-rate path keeps the recovery count

  // Words that cancel as signed 16-bit values count as blank too.
  Decoder c;
  c.decode(good_full());
  Packet cancel = testing::blank_packet(4);
  cancel[1] = 0x00, cancel[2] = 0x01, cancel[3] = 0xFF, cancel[4] = 0xFF;
  c.decode(cancel);
  EXPECT_EQ(c.state().frame_erased, 1);
  EXPECT_EQ(c.work().rate, 4);
  EXPECT_EQ(c.state().recovery_count, 3);

  // An all-zero eighth-rate packet is a real frame.
  Decoder e;
  e.decode(testing::blank_packet(1));
  EXPECT_EQ(e.state().frame_erased, 0);
}

TEST(Unpack, AllOnesEighthRateThirdInARowIsDecoded) {
  Decoder d;
  d.decode(kAllOnes);
  EXPECT_EQ(d.state().frame_erased, 1);
  d.decode(kAllOnes);
  EXPECT_EQ(d.state().frame_erased, 1);
  d.decode(kAllOnes);
  EXPECT_EQ(d.state().frame_erased, 0);
  EXPECT_EQ(d.state().all_ones_count, 3);
  EXPECT_EQ(d.work().fcb_gain_index[0], 64);  // accepted all-ones frames use energy 64
  EXPECT_EQ(d.state().last_energy_index, 64);
  d.decode(kAllOnes);
  EXPECT_EQ(d.state().frame_erased, 0);

  // Any other packet in between restarts the count.
  Decoder r;
  r.decode(kAllOnes);
  r.decode(kAllOnes);
  r.decode(good_eighth());
  r.decode(kAllOnes);
  EXPECT_EQ(r.state().frame_erased, 1);
  EXPECT_EQ(r.state().all_ones_count, 1);
}

TEST(Unpack, EighthRateRightAfterGoodFullRateIsNotBelieved) {
  Decoder d;
  d.decode(good_full());
  EXPECT_EQ(d.state().previous_rate, 4);
  const auto f = d.decode(good_eighth());
  EXPECT_EQ(f.status, KEVRC_OK);
  EXPECT_EQ(d.work().rate, 4);  // concealed as full rate
  EXPECT_EQ(d.state().frame_erased, 1);
  EXPECT_EQ(d.state().bad_frame_flag, 1);
  EXPECT_EQ(d.state().recovery_count, 3);
  // After the erased full-rate frame an eighth-rate packet is accepted.
  d.decode(good_eighth());
  EXPECT_EQ(d.work().rate, 1);
  EXPECT_EQ(d.state().frame_erased, 0);
  EXPECT_EQ(d.state().previous_rate, 1);
}

TEST(Unpack, ErasedEighthRateAfterAnErasedFullRateFrameStaysFullRate) {
  Decoder d;
  d.decode(good_full());
  d.decode(testing::blank_packet(4));  // erased full rate; previous rate stays 4
  d.decode(kAllOnes);                  // erased all-ones eighth rate right after it
  EXPECT_EQ(d.work().rate, 4);
  EXPECT_EQ(d.state().previous_rate, 4);
  EXPECT_EQ(d.state().frame_erased, 1);
}

TEST(Unpack, BlankPacketKeepsAnEarlierBadFrameFlag) {
  Decoder d;
  d.decode(good_full());
  testing::HalfFields h;
  h.delay = 140;  // rejected: sets the bad-frame flag
  EXPECT_EQ(d.decode(testing::pack(h)).status, KEVRC_ERR_NOMEM);
  d.decode(testing::blank_packet(3));
  EXPECT_EQ(d.state().bad_frame_flag, 1);
  EXPECT_EQ(d.state().erasure_flag, 1);
}

TEST(Unpack, GoodPacketAfterAnErasureKeepsItsFieldsZero) {
  Decoder d;
  d.decode(good_full());
  d.decode(testing::blank_packet(4));  // erased
  const auto f = d.decode(good_full(90));
  EXPECT_EQ(f.status, KEVRC_OK);
  const kevrcd_work &w = d.work();
  EXPECT_EQ(w.delay, 0);  // not unpacked: no 20 added either
  for (int s = 0; s < 4; ++s) EXPECT_EQ(w.lsp_index[s], 0);
  EXPECT_EQ(w.new_lsp[0], 465);  // first codewords
  EXPECT_EQ(f.result.consumed, 1u);  // only the rate byte was read
  EXPECT_EQ(d.state().delay, 0);
  // The frame after it is unpacked again, and the zero delay it left is safe.
  const auto g = d.decode(good_full(90));
  EXPECT_EQ(g.status, KEVRC_OK);
  EXPECT_EQ(d.work().delay, 90);
  EXPECT_EQ(g.result.consumed, 23u);
}

TEST(Unpack, RecoveryCountAndRates) {
  Decoder d;
  EXPECT_EQ(d.state().previous_rate, 1);
  d.decode(good_full());
  d.decode(testing::blank_packet(4));
  d.decode(testing::blank_packet(4));
  EXPECT_EQ(d.state().recovery_count, 3);
  d.decode(good_full());
  EXPECT_EQ(d.state().recovery_count, 2);
  d.decode(good_full());
  EXPECT_EQ(d.state().recovery_count, 1);
  d.decode(good_full());
  d.decode(good_full());
  EXPECT_EQ(d.state().recovery_count, 0);
}

}  // namespace
}  // namespace kevrc
