// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// libFuzzer target of the storage-format reader: the input, behind the
// "#!EVRC\n" magic when it lacks one, read in steps of 1 to 16 bytes (the
// first input byte picks the step).
#include <vector>

#include "packet_file_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const size_t step = size > 0 ? 1 + data[0] % 16 : 1;
  if (size >= 7 && std::memcmp(data, "#!EVRC\n", 7) == 0) {
    kevrc::fuzzing::read_packet_file(data, size, step);
    return 0;
  }
  std::vector<uint8_t> file = {'#', '!', 'E', 'V', 'R', 'C', '\n'};
  file.insert(file.end(), data, data + size);
  kevrc::fuzzing::read_packet_file(file.data(), file.size(), step);
  return 0;
}
