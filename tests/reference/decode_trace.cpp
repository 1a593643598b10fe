// decode_trace: decodes a length-prefixed packet stream with a 16-bit mono
// decoder and prints one line per packet: "status consumed s0 .. s159" when
// samples were delivered, "status consumed" when only the result was filled,
// "status -" otherwise. Used to compare the decoder with other models.
//   decode_trace STREAM OUT.txt [--postfilter 0|1] [--reset-at N,M,...]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include <kevrc/kevrc.h>
#include "tools/support/packet_gen.h"

int main(int argc, char **argv) {
  using namespace kevrc::testing;
  if (argc < 3) {
    std::fprintf(stderr, "usage: decode_trace STREAM OUT.txt [--postfilter 0|1] [--reset-at N,M,...]\n");
    return 2;
  }
  int postfilter = 1;
  std::set<long> resets;
  for (int i = 3; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--postfilter") == 0) {
      postfilter = std::atoi(argv[i + 1]);
    } else if (std::strcmp(argv[i], "--reset-at") == 0) {
      for (char *p = argv[i + 1]; *p != '\0';) {
        char *end;
        resets.insert(std::strtol(p, &end, 10));
        p = *end == ',' ? end + 1 : end;
        if (end == p && *p != '\0') break;
      }
    }
  }
  std::vector<Packet> packets;
  if (!read_stream_file(argv[1], &packets)) {
    std::fprintf(stderr, "decode_trace: cannot read %s\n", argv[1]);
    return 1;
  }
  FILE *out = std::fopen(argv[2], "w");
  if (out == nullptr) {
    std::fprintf(stderr, "decode_trace: cannot write %s\n", argv[2]);
    return 1;
  }
  const kevrcd_config cfg = {1, 0, 0, 0, postfilter};
  int32_t err = 0;
  kevrcd_instance *dec = kevrcd_create(&cfg, &err);
  if (dec == nullptr) {
    std::fprintf(stderr, "decode_trace: %s\n", kevrc_strerror(err));
    return 1;
  }
  int16_t pcm[160];
  for (size_t n = 0; n < packets.size(); ++n) {
    if (resets.count(static_cast<long>(n)) != 0) kevrcd_reset(dec);
    Packet &p = packets[n];
    uint8_t empty = 0;
    kevrc_bitstream_buffer in = {p.empty() ? &empty : p.data(), 0, static_cast<int32_t>(p.size())};
    kevrc_pcm_buffer pb = {};
    pb.data[0] = pcm;
    kevrcd_result res = {0xFFFFFFFFu, 0, 0, 0};
    const int32_t status = kevrcd_decode(dec, &in, &pb, &res);
    std::fprintf(out, "%d", static_cast<int>(status));
    if (res.consumed == 0xFFFFFFFFu) {
      std::fprintf(out, " -");
    } else {
      std::fprintf(out, " %u", static_cast<unsigned>(res.consumed));
      if (pb.samples[0] == 160)
        for (int i = 0; i < 160; ++i) std::fprintf(out, " %d", pcm[i]);
    }
    std::fprintf(out, "\n");
  }
  kevrcd_delete(dec);
  return std::fclose(out) == 0 ? 0 : 1;
}
