// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Runs count independent jobs on up to threads worker threads (std::thread);
// run(i) (in) codes job i and returns true on success. Returns the number of
// failed jobs; a failure does not stop the others.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

namespace kevrc::tool {

inline size_t run_batch(size_t count, unsigned threads, const std::function<bool(size_t)> &run) {
  std::atomic<size_t> next{0}, failed{0};
  const auto worker = [&] {
    for (size_t i; (i = next.fetch_add(1)) < count;)
      if (!run(i)) failed.fetch_add(1);
  };
  const size_t n = std::clamp<size_t>(threads, 1, std::max<size_t>(count, 1));
  std::vector<std::thread> pool;
  for (size_t t = 1; t < n; ++t) pool.emplace_back(worker);
  worker();
  for (auto &t : pool) t.join();
  return failed.load();
}

}  // namespace kevrc::tool
