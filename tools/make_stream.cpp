// make_stream: writes a deterministic packet stream (length-prefixed packets)
// for cross-checks and fuzzing corpora.
//   make_stream OUT FRAMES SEED speech|erasures|garbage|recovery
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/support/packet_gen.h"

int main(int argc, char **argv) {
  using namespace kevrc::testing;
  if (argc != 5) {
    std::fprintf(stderr, "usage: make_stream OUT FRAMES SEED speech|erasures|garbage|recovery\n");
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
  if (!write_stream_file(argv[1], make_stream(seed, frames, kind))) {
    std::fprintf(stderr, "make_stream: cannot write %s\n", argv[1]);
    return 1;
  }
  return 0;
}
