#include "tests/test_util.h"

#include <cstdio>
#include <cstdlib>

namespace kevrc::testing {

uint64_t test_seed(const char *name) {
  uint64_t seed = 20261123;
  if (const char *env = std::getenv("KEVRC_TEST_SEED")) seed = std::strtoull(env, nullptr, 0);
  std::printf("[ seed     ] %s: KEVRC_TEST_SEED=%llu\n", name, static_cast<unsigned long long>(seed));
  return seed;
}

}  // namespace kevrc::testing
