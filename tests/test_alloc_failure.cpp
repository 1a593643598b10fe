// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Creation when allocations fail: this binary links its own allocator, which
// fails on request and counts what is outstanding.
#include <gtest/gtest.h>

#include <cstdlib>

#include <kevrc/kevrc.h>
#include <kevrc/kevrc_kernels.h>

namespace {
int g_fail_at = -1;  // index of the allocation that fails; -1: none
int g_calls = 0;
int g_outstanding = 0;
}  // namespace

extern "C" void *kcmn_malloc_align32(size_t size) {
  if (g_calls++ == g_fail_at) return nullptr;
  void *p = std::aligned_alloc(32, (size + 31) & ~size_t{31});
  if (p != nullptr) ++g_outstanding;
  return p;
}

extern "C" void kcmn_mfree_align32(void *block) {
  if (block != nullptr) --g_outstanding;
  std::free(block);
}

namespace {

TEST(AllocationFailure, EachFailedAllocationReportsNoMemoryAndLeaksNothing) {
  const kevrcd_config cfg = {1, 0, 0, 0, 1};
  for (int fail = 0; fail < 2; ++fail) {  // the instance, then its work block
    g_fail_at = fail;
    g_calls = 0;
    int32_t err = 0;
    EXPECT_EQ(kevrcd_create(&cfg, &err), nullptr);
    EXPECT_EQ(err, KEVRC_ERR_NOMEM);
    EXPECT_EQ(g_outstanding, 0);
  }
  g_fail_at = -1;
  int32_t err = 1;
  kevrcd_instance *d = kevrcd_create(&cfg, &err);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(g_outstanding, 2);
  // Decoding allocates nothing.
  const int before = g_calls;
  uint8_t packet[23] = {4, 1, 2, 3};
  kevrc_bitstream_buffer in = {packet, 0, 23};
  int16_t pcm[160];
  kevrc_pcm_buffer out = {};
  out.data[0] = pcm;
  kevrcd_result res;
  for (int i = 0; i < 50; ++i) kevrcd_decode(d, &in, &out, &res);
  EXPECT_EQ(g_calls, before);
  kevrcd_delete(d);
  EXPECT_EQ(g_outstanding, 0);
  // A reserved field is refused after the instance was allocated: freed again.
  const kevrcd_config reserved = {1, 0, 0, 3, 1};
  EXPECT_EQ(kevrcd_create(&reserved, &err), nullptr);
  EXPECT_EQ(err, KEVRC_ERR_UNSUPPORTED);
  EXPECT_EQ(g_outstanding, 0);
}

TEST(AllocationFailure, EncoderCreationCleansUpAndEncodingAllocatesNothing) {
  const kevrce_config cfg = {1, 1, 0, 0};
  for (int fail = 0; fail < 2; ++fail) {
    g_fail_at = fail;
    g_calls = 0;
    int32_t err = 0;
    EXPECT_EQ(kevrce_create(&cfg, &err), nullptr);
    EXPECT_EQ(err, KEVRC_ERR_NOMEM);
    EXPECT_EQ(g_outstanding, 0);
  }
  g_fail_at = -1;
  int32_t err = 1;
  kevrce_instance *e = kevrce_create(&cfg, &err);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(g_outstanding, 2);
  const int before = g_calls;
  int16_t pcm[160];
  uint8_t payload[24];
  kevrc_pcm_buffer in = {};
  in.data[0] = pcm;
  kevrc_bitstream_buffer out = {payload, 0, 0};
  kevrce_result res;
  for (int i = 0; i < 50; ++i) {
    for (int n = 0; n < 160; ++n) pcm[n] = static_cast<int16_t>((n * 131 + i * 17) % 4001 - 2000);
    EXPECT_EQ(kevrce_encode(e, &in, &out, &res), KEVRC_OK);
  }
  EXPECT_EQ(g_calls, before);
  kevrce_delete(e);
  EXPECT_EQ(g_outstanding, 0);
  // Refusals after the instance allocation free it again.
  const kevrce_config bad_bounds = {3, 4, 0, 0};
  const kevrce_config reserved = {4, 1, 7, 0};
  EXPECT_EQ(kevrce_create(&bad_bounds, &err), nullptr);
  EXPECT_EQ(err, KEVRC_ERR_ARG);
  EXPECT_EQ(kevrce_create(&reserved, &err), nullptr);
  EXPECT_EQ(err, KEVRC_ERR_UNSUPPORTED);
  EXPECT_EQ(g_outstanding, 0);
}

}  // namespace
