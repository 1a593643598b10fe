// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// 32-byte aligned memory for instances and their work blocks. Used only at
// instance creation and deletion, never per frame.
//
// Both are weak definitions: a host (or a test) may link its own pair, for
// example to account for or to fail allocations.
#include <cstdlib>

#include <kevrc/kevrc_kernels.h>

extern "C" __attribute__((weak)) void *kcmn_malloc_align32(size_t size) {
  const size_t rounded = (size + 31) & ~size_t{31};
  if (rounded < size) return nullptr;  // size near SIZE_MAX
  return std::aligned_alloc(32, rounded == 0 ? 32 : rounded);
}

extern "C" __attribute__((weak)) void kcmn_mfree_align32(void *block) { std::free(block); }
