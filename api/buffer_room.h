// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// The size fields of the caller's buffer records: a field the caller leaves
// at 0 promises the room the frame needs (the caller provides it); a non-zero
// field states the room, which must be at least the frame's need.
#pragma once

#include <cstdint>

namespace kevrc {

// declared: the record's size field (samples, bytes or size); need: what the
// frame reads or writes there, in the same unit.
constexpr bool room_suffices(int64_t declared, int64_t need) { return declared == 0 || declared >= need; }

}  // namespace kevrc
