// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// make_stream: writes a deterministic packet stream for cross-checks, or a
// seed input of the decoder fuzzer.
//   make_stream OUT FRAMES SEED speech|erasures|garbage|recovery [--fuzz SELECTOR | --storage]
// Default format: per packet a 2-byte little-endian length and the bytes.
// --fuzz: the selector byte, then per packet a length byte and the bytes.
// --storage: the packet file format of the kevrc tool (magic "#!EVRC\n", then
//   rate octet and payload per frame; packets that do not fit it: erasures).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/support/packet_gen.h"

int main(int argc, char **argv) {
  using namespace kevrc::testing;
  const bool storage = argc == 6 && std::strcmp(argv[5], "--storage") == 0;
  if (argc != 5 && !storage && !(argc == 7 && std::strcmp(argv[5], "--fuzz") == 0)) {
    std::fprintf(stderr,
                 "usage: make_stream OUT FRAMES SEED speech|erasures|garbage|recovery [--fuzz SELECTOR | --storage]\n");
    return 2;
  }
  const int frames = std::atoi(argv[2]);
  const uint64_t seed = std::strtoull(argv[3], nullptr, 0);
  StreamKind kind;
  if (std::strcmp(argv[4], "speech") == 0) {
    kind = StreamKind::kSpeechLike;
  } else if (std::strcmp(argv[4], "erasures") == 0) {
    kind = StreamKind::kErasures;
  } else if (std::strcmp(argv[4], "garbage") == 0) {
    kind = StreamKind::kGarbage;
  } else if (std::strcmp(argv[4], "recovery") == 0) {
    kind = StreamKind::kRecovery;
  } else {
    std::fprintf(stderr, "make_stream: unknown kind '%s'\n", argv[4]);
    return 2;
  }
  const std::vector<Packet> packets = make_stream(seed, frames, kind);
  if (argc == 7 || storage) {
    std::vector<uint8_t> bytes;
    if (storage) {
      const char magic[] = "#!EVRC\n";
      bytes.assign(magic, magic + 7);
      for (const Packet &p : packets) {
        const bool fits = !p.empty() && ((p[0] == 1 && p.size() == 3) || (p[0] == 3 && p.size() == 11) ||
                                         (p[0] == 4 && p.size() == 23));
        if (fits) {
          bytes.insert(bytes.end(), p.begin(), p.end());
        } else {
          bytes.push_back(14);  // erasure
        }
      }
    } else {
      bytes.push_back(static_cast<uint8_t>(std::atoi(argv[6])));
      for (const Packet &p : packets) {
        bytes.push_back(static_cast<uint8_t>(p.size() & 63));
        bytes.insert(bytes.end(), p.begin(), p.begin() + (p.size() & 63));
      }
    }
    FILE *f = std::fopen(argv[1], "wb");
    const bool ok = f != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    if (f == nullptr || std::fclose(f) != 0 || !ok) {
      std::fprintf(stderr, "make_stream: cannot write %s\n", argv[1]);
      return 1;
    }
    return 0;
  }
  if (!write_stream_file(argv[1], packets)) {
    std::fprintf(stderr, "make_stream: cannot write %s\n", argv[1]);
    return 1;
  }
  return 0;
}
