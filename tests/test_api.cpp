// The public interface: lifecycle, argument checks, status texts.
#include <cstring>

#include "tests/test_util.h"

namespace kevrc {
namespace {

using testing::Decoder;
using testing::Packet;

TEST(Api, InitIsIdempotentAndDeinitKeepsTheFlag) {
  EXPECT_EQ(kevrc_init(), KEVRC_OK);
  EXPECT_EQ(kevrc_inited_flag(), 1);
  EXPECT_EQ(kevrc_init(), KEVRC_OK);
  kevrc_deinit();
  EXPECT_EQ(kevrc_inited_flag(), 1);
  EXPECT_EQ(kevrc_init(), KEVRC_OK);
  int32_t code = 5;
  EXPECT_EQ(kevrc_platform_init(&code), 0);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(kevrc_platform_init(nullptr), 0);
}

TEST(Api, DecoderCreation) {
  int32_t err = 99;
  const kevrcd_config reserved = {1, 0, 0, 1, 1};
  EXPECT_EQ(kevrcd_create(&reserved, &err), nullptr);
  EXPECT_EQ(err, KEVRC_ERR_UNSUPPORTED);
  EXPECT_EQ(kevrcd_create(&reserved, nullptr), nullptr);
  EXPECT_EQ(kevrcd_create(nullptr, &err), nullptr);
  EXPECT_EQ(err, KEVRC_ERR_ARG);
  const kevrcd_config odd = {0, 3, 7, 0, 0};  // formats the formatter rejects: created anyway
  kevrcd_instance *d = kevrcd_create(&odd, &err);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(err, KEVRC_OK);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(d) % 32, 0u);
  EXPECT_EQ(d->self, d);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(d->work) % 32, 0u);
  kevrcd_delete(d);
  kevrcd_delete(nullptr);
}

TEST(Api, NullAndNegativeArgumentsAreRejectedWithoutEffect) {
  testing::Rng rng(testing::test_seed("NullArguments"));
  Decoder d;
  d.decode(testing::pack(testing::random_full(rng, 50)));
  const kevrcd_state before = d.state();
  Packet p = testing::pack(testing::random_full(rng, 50));
  kevrc_bitstream_buffer in = {p.data(), 0, static_cast<int32_t>(p.size())};
  int16_t pcm[160];
  kevrc_pcm_buffer out = {};
  out.data[0] = pcm;
  kevrcd_result res = {7, 7, 7, 7};
  EXPECT_EQ(kevrcd_decode(nullptr, &in, &out, &res), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrcd_decode(d.get(), nullptr, &out, &res), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrcd_decode(d.get(), &in, nullptr, &res), KEVRC_ERR_ARG);
  EXPECT_EQ(kevrcd_decode(d.get(), &in, &out, nullptr), KEVRC_ERR_ARG);
  kevrc_bitstream_buffer no_data = {nullptr, 0, 23};
  EXPECT_EQ(kevrcd_decode(d.get(), &no_data, &out, &res), KEVRC_ERR_ARG);
  kevrc_bitstream_buffer negative = {p.data(), 0, -23};
  EXPECT_EQ(kevrcd_decode(d.get(), &negative, &out, &res), KEVRC_ERR_ARG);
  kevrc_pcm_buffer no_buffer = {};
  EXPECT_EQ(kevrcd_decode(d.get(), &in, &no_buffer, &res), KEVRC_ERR_ARG);
  EXPECT_EQ(res.consumed, 7u);
  EXPECT_EQ(0, std::memcmp(&before, &d.state(), sizeof before));
  EXPECT_EQ(kevrcd_decode(d.get(), &in, &out, &res), KEVRC_OK);
}

TEST(Api, UnknownOutputFormatDecodesButDeliversNothing) {
  testing::Rng rng(testing::test_seed("UnknownOutputFormat"));
  for (const kevrcd_config cfg : {kevrcd_config{1, 3, 0, 0, 1}, kevrcd_config{0, 0, 3, 0, 1},
                                  kevrcd_config{1, -1, 0, 0, 1}}) {
    Decoder d(cfg);
    Packet p = testing::pack(testing::random_full(rng, 50));
    kevrc_bitstream_buffer in = {p.data(), 0, static_cast<int32_t>(p.size())};
    kevrc_pcm_buffer out = {};  // no buffers at all: nothing may be written
    kevrcd_result res = {};
    EXPECT_EQ(kevrcd_decode(d.get(), &in, &out, &res), KEVRC_OK);
    EXPECT_EQ(out.samples[0] + out.samples[1] + out.samples[2], 0u);
    EXPECT_EQ(res.consumed, 23u);
    EXPECT_EQ(res.bits_per_sample, 16u);
    EXPECT_EQ(res.sample_rate, 8000u);
    EXPECT_EQ(d.state().frame_count, 1);  // the frame itself was decoded
  }
}

TEST(Api, StatusTextsAndVersion) {
  for (int32_t s : {0, -1, -2, -3, -4, -5, -8, -9}) {
    ASSERT_NE(kevrc_strerror(s), nullptr);
    EXPECT_STRNE(kevrc_strerror(s), kevrc_strerror(12345));
  }
  EXPECT_STREQ(kevrc_strerror(-6), kevrc_strerror(12345));
  EXPECT_STREQ(kevrc_version(), KEVRC_VERSION_STRING);
}

}  // namespace
}  // namespace kevrc
