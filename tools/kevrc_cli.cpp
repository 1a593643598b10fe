// kevrc: command-line front end of the codec library.
//
//   kevrc decode IN OUT.wav [--no-postfilter]
//
// IN is a packet file in the storage format of RFC 3558 section 11: the magic
// "#!EVRC\n", then per frame one rate octet followed by that rate's payload
// (0 blank and 14 erasure: no payload, 1: 2 bytes, 3: 10 bytes, 4: 22 bytes).
// Blank and erased frames are concealed. OUT.wav is 16-bit mono at 8000 Hz.
// Errors are reported on one line; the output file only appears when the
// whole input decoded.
#include <sndfile.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "api/kevrc.h"

namespace {

constexpr char kMagic[] = "#!EVRC\n";
constexpr size_t kMagicLen = sizeof kMagic - 1;

int usage() {
  std::fprintf(stderr, "usage: kevrc decode IN OUT.wav [--no-postfilter]\n");
  return 2;
}

int fail(const std::string &message) {
  std::fprintf(stderr, "kevrc: %s\n", message.c_str());
  return 1;
}

bool read_file(const char *path, std::vector<uint8_t> *bytes) {
  FILE *f = std::fopen(path, "rb");
  if (f == nullptr) return false;
  uint8_t buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) bytes->insert(bytes->end(), buf, buf + n);
  const bool ok = std::ferror(f) == 0;
  std::fclose(f);
  return ok;
}

// Payload bytes of a storage-format rate octet; -1 for an unknown one.
int payload_size(uint8_t rate) {
  switch (rate) {
    case 0: case 14: return 0;
    case 1: return 2;
    case 2: return 5;
    case 3: return 10;
    case 4: return 22;
    default: return -1;
  }
}

// Writes the samples to path through a temporary file renamed into place.
bool write_wav(const std::string &path, const std::vector<int16_t> &pcm, std::string *error) {
  const std::string tmp = path + ".part";
  SF_INFO info = {};
  info.samplerate = KEVRC_SAMPLE_RATE;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE *f = sf_open(tmp.c_str(), SFM_WRITE, &info);
  if (f == nullptr) {
    *error = "cannot write " + path + ": " + sf_strerror(nullptr);
    return false;
  }
  const bool ok = sf_write_short(f, pcm.data(), static_cast<sf_count_t>(pcm.size())) ==
                  static_cast<sf_count_t>(pcm.size());
  if (sf_close(f) != 0 || !ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
    unlink(tmp.c_str());
    *error = "cannot write " + path;
    return false;
  }
  return true;
}

int decode(const char *in_path, const char *out_path, bool postfilter) {
  std::vector<uint8_t> file;
  if (!read_file(in_path, &file)) return fail(std::string("cannot read ") + in_path + ": " + std::strerror(errno));
  if (file.size() < kMagicLen || std::memcmp(file.data(), kMagic, kMagicLen) != 0)
    return fail(std::string(in_path) + ": not a packet file (no \"#!EVRC\\n\" header)");

  const kevrcd_config cfg = {1, 0, 0, 0, postfilter ? 1 : 0};
  int32_t err = 0;
  kevrcd_instance *dec = kevrcd_create(&cfg, &err);
  if (dec == nullptr) return fail(std::string("cannot create a decoder: ") + kevrc_strerror(err));

  std::vector<int16_t> pcm;
  size_t pos = kMagicLen;
  long frame = 0;
  std::string error;
  while (pos < file.size() && error.empty()) {
    const uint8_t rate = file[pos];
    const int size = payload_size(rate);
    if (size < 0 || pos + 1 + static_cast<size_t>(size) > file.size()) {
      error = std::string(in_path) + ": malformed frame " + std::to_string(frame) + " at byte " + std::to_string(pos);
      break;
    }
    uint8_t packet[KEVRC_MAX_PACKET_BYTES] = {};
    int32_t packet_size = 1 + size;
    packet[0] = rate;
    std::memcpy(packet + 1, &file[pos + 1], static_cast<size_t>(size));
    if (rate == 0 || rate == 14 || rate == 2) {
      // Blank, erased or quarter rate (not decodable here): an all-zero
      // full-rate packet makes the decoder conceal the frame.
      std::memset(packet, 0, sizeof packet);
      packet[0] = 4;
      packet_size = KEVRC_MAX_PACKET_BYTES;
    }
    int16_t out_frame[KEVRC_FRAME_SAMPLES] = {};
    kevrc_bitstream_buffer in = {packet, 0, packet_size};
    kevrc_pcm_buffer out = {};
    out.data[0] = out_frame;
    kevrcd_result result;
    const int32_t status = kevrcd_decode(dec, &in, &out, &result);
    // Frames the decoder rejects (damaged parameters) come out as silence so
    // that the timing of the file is kept.
    if (status != KEVRC_OK && status != KEVRC_ERR_LSP && status != KEVRC_ERR_NOMEM)
      error = std::string(in_path) + ": frame " + std::to_string(frame) + ": " + kevrc_strerror(status);
    pcm.insert(pcm.end(), out_frame, out_frame + KEVRC_FRAME_SAMPLES);
    pos += 1 + static_cast<size_t>(size);
    ++frame;
  }
  kevrcd_delete(dec);
  if (!error.empty()) return fail(error);
  if (!write_wav(out_path, pcm, &error)) return fail(error);
  std::fprintf(stderr, "kevrc: decoded %ld frames (%.2f s) to %s\n", frame, frame * 0.02, out_path);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return usage();
  const std::string command = argv[1];
  if (command == "decode") {
    if (argc < 4 || argc > 5) return usage();
    bool postfilter = true;
    if (argc == 5) {
      if (std::strcmp(argv[4], "--no-postfilter") != 0) return usage();
      postfilter = false;
    }
    return decode(argv[2], argv[3], postfilter);
  }
  if (command == "--version") {
    std::printf("kevrc %s\n", kevrc_version());
    return 0;
  }
  return usage();
}
