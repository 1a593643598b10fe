// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// libFuzzer target of the QCP reader (and format detection): the input as a
// whole file, read in steps of 1 to 16 bytes picked by its size.
#include "packet_file_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  kevrc::fuzzing::read_packet_file(data, size, 1 + size % 16);
  return 0;
}
