// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
#include "tests/test_util.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace kevrc::testing {

uint64_t test_seed(const char *name) {
  uint64_t seed = 20261123;
  if (const char *env = std::getenv("KEVRC_TEST_SEED")) seed = std::strtoull(env, nullptr, 0);
  std::printf("[ seed     ] %s: KEVRC_TEST_SEED=%llu\n", name, static_cast<unsigned long long>(seed));
  return seed;
}

void random_lpc(Rng &rng, int16_t *lpc, int min_gap) {
  int16_t lsp[10];
  for (;;) {
    for (auto &v : lsp) v = static_cast<int16_t>(300 + rng.below(15800));
    std::sort(lsp, lsp + 10);
    bool ok = true;
    for (int k = 1; k < 10; ++k) ok = ok && lsp[k] - lsp[k - 1] >= min_gap;
    if (ok) break;
  }
  kevrc_lsp2lpc(lsp, lpc);
}

}  // namespace kevrc::testing
