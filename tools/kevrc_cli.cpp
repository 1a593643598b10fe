// kevrc: command-line front end of the codec library.
//
//   kevrc encode IN OUT [--min-rate N] [--max-rate N] [--ns|--no-ns]
//   kevrc decode IN OUT.wav [--no-postfilter]
//   kevrc --version
//
// encode reads any audio file libsndfile opens (any rate, any channel count),
// averages the channels, resamples to 8000 Hz (libsoxr) and rounds to 16
// bits; the last partial frame is padded with zeros to 160 samples. Each
// 20 ms frame becomes one packet; the rate bounds (rate codes 1, 3, 4;
// default 1..4) and noise suppression (default on) go to the encoder as they
// are. The output holds exactly ceil(samples / 160) frames.
//
// The packet file is the storage format of RFC 3558 section 11: the magic
// "#!EVRC\n", then per frame one rate octet followed by that rate's payload
// (1: 2 bytes, 3: 10 bytes, 4: 22 bytes; on reading also 0 blank and 14
// erasure, no payload, and 2 quarter rate, 5 bytes, which are concealed).
// decode writes 16-bit mono WAV at 8000 Hz.
//
// Errors are one line on stderr, "kevrc: <what>: <why>", with a non-zero exit
// status (2 for a bad command line, 1 otherwise). An output file appears only
// when the whole input was coded: it is written to a temporary file beside
// the target and renamed into place.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <kevrc/kevrc.h>
#include "tools/support/audio_io.h"

namespace {

using kevrc::audio::write_atomically;

constexpr char kMagic[] = "#!EVRC\n";
constexpr size_t kMagicLen = sizeof kMagic - 1;
constexpr double kFrameSeconds = 0.02;

constexpr char kUsage[] =
    "usage: kevrc encode IN OUT [--min-rate N] [--max-rate N] [--ns|--no-ns]\n"
    "       kevrc decode IN OUT.wav [--no-postfilter]\n"
    "       kevrc --version\n"
    "IN of encode: any audio file libsndfile reads (resampled to 8 kHz mono).\n"
    "OUT of encode / IN of decode: packet file (\"#!EVRC\\n\" storage format).\n"
    "Rate codes: 1 eighth, 3 half, 4 full; default bounds 1..4, noise suppression on.\n";

int fail(const std::string &message) {
  std::fprintf(stderr, "kevrc: %s\n", message.c_str());
  return 1;
}

int usage_error(const std::string &message) {
  std::fprintf(stderr, "kevrc: %s (see kevrc --help)\n", message.c_str());
  return 2;
}

// ---------------------------------------------------------------- packet file

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

bool read_file(const std::string &path, std::vector<uint8_t> &bytes, std::string &error) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  uint8_t buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) bytes.insert(bytes.end(), buf, buf + n);
  const bool ok = std::ferror(f) == 0;
  std::fclose(f);
  if (!ok) error = "cannot read " + path + ": read error";
  return ok;
}

bool write_bytes(const std::string &path, const std::vector<uint8_t> &bytes, std::string &error) {
  FILE *f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  const bool closed = std::fclose(f) == 0;
  if (!written || !closed) error = "cannot write " + path + ": " + std::strerror(errno);
  return written && closed;
}

// -------------------------------------------------------------- command line

struct EncodeOptions {
  std::string in, out;
  int min_rate = 1;
  int max_rate = 4;
  bool noise_suppression = true;
};

struct DecodeOptions {
  std::string in, out;
  bool postfilter = true;
};

// Splits "--name=value" or takes the value from the next argument.
bool option_value(const std::string &arg, const std::string &name, int argc, char **argv, int *i,
                  std::string *value) {
  if (arg == name) {
    if (*i + 1 >= argc) return false;
    *value = argv[++*i];
    return true;
  }
  if (arg.rfind(name + "=", 0) == 0) {
    *value = arg.substr(name.size() + 1);
    return true;
  }
  return false;
}

bool parse_rate(const std::string &name, const std::string &value, int *rate, std::string &error) {
  if (value.size() != 1 || value[0] < '1' || value[0] > '4') {
    error = name + ": expected a rate code 1..4, got '" + value + "'";
    return false;
  }
  *rate = value[0] - '0';
  return true;
}

bool expects_value(const std::string &arg) {
  return arg == "--min-rate" || arg == "--max-rate";
}

// argv[2..] of "kevrc encode".
bool parse_encode_args(int argc, char **argv, EncodeOptions &opt, std::string &error) {
  std::vector<std::string> files;
  bool options_done = false;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    std::string value;
    if (options_done || arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      files.push_back(arg);
    } else if (arg == "--") {
      options_done = true;
    } else if (option_value(arg, "--min-rate", argc, argv, &i, &value)) {
      if (!parse_rate("--min-rate", value, &opt.min_rate, error)) return false;
    } else if (option_value(arg, "--max-rate", argc, argv, &i, &value)) {
      if (!parse_rate("--max-rate", value, &opt.max_rate, error)) return false;
    } else if (expects_value(arg)) {
      error = arg + ": missing value";
      return false;
    } else if (arg == "--ns" || arg == "--no-ns") {
      opt.noise_suppression = arg == "--ns";
    } else {
      error = "encode: unknown option '" + arg + "'";
      return false;
    }
  }
  if (files.size() != 2) {
    error = "encode: expected IN and OUT, got " + std::to_string(files.size()) + " file names";
    return false;
  }
  if (opt.min_rate > opt.max_rate) {
    error = "--min-rate " + std::to_string(opt.min_rate) + " is above --max-rate " +
            std::to_string(opt.max_rate);
    return false;
  }
  opt.in = files[0];
  opt.out = files[1];
  return true;
}

// argv[2..] of "kevrc decode".
bool parse_decode_args(int argc, char **argv, DecodeOptions &opt, std::string &error) {
  std::vector<std::string> files;
  bool options_done = false;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (options_done || arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      files.push_back(arg);
    } else if (arg == "--") {
      options_done = true;
    } else if (arg == "--no-postfilter") {
      opt.postfilter = false;
    } else {
      error = "decode: unknown option '" + arg + "'";
      return false;
    }
  }
  if (files.size() != 2) {
    error = "decode: expected IN and OUT.wav, got " + std::to_string(files.size()) + " file names";
    return false;
  }
  opt.in = files[0];
  opt.out = files[1];
  return true;
}

// -------------------------------------------------------------------- encode

struct RateCounts {
  long eighth = 0, half = 0, full = 0;
  long frames() const { return eighth + half + full; }
  void add(int32_t rate) {
    if (rate == KEVRC_RATE_EIGHTH) ++eighth;
    else if (rate == KEVRC_RATE_HALF) ++half;
    else ++full;
  }
};

// Codes one frame (160 samples, overwritten by the encoder) and appends the
// rate octet and the payload to packets.
bool encode_one_frame(kevrce_instance *enc, int16_t *frame, std::vector<uint8_t> &packets,
                      RateCounts &counts, std::string &error) {
  uint8_t payload[KEVRC_ENCODER_BUFFER_BYTES] = {};
  kevrc_pcm_buffer in = {};
  in.data[0] = frame;
  in.samples[0] = KEVRC_FRAME_SAMPLES;
  in.bytes[0] = KEVRC_FRAME_SAMPLES * sizeof(int16_t);
  kevrc_bitstream_buffer out = {payload, 0, sizeof payload};
  kevrce_result result = {};
  const int32_t status = kevrce_encode(enc, &in, &out, &result);
  if (status != KEVRC_OK) {
    error = std::string("encoder failed: ") + kevrc_strerror(status) + " (status " +
            std::to_string(status) + ")";
    return false;
  }
  const bool known = result.rate == KEVRC_RATE_EIGHTH || result.rate == KEVRC_RATE_HALF ||
                     result.rate == KEVRC_RATE_FULL;
  if (!known || result.bytes != payload_size(static_cast<uint8_t>(result.rate))) {
    error = "encoder returned rate " + std::to_string(result.rate) + " with " +
            std::to_string(result.bytes) + " bytes";
    return false;
  }
  packets.push_back(static_cast<uint8_t>(result.rate));
  packets.insert(packets.end(), payload, payload + result.bytes);
  counts.add(result.rate);
  return true;
}

// The whole signal, frame by frame, the last one padded with zeros.
bool encode_signal(const std::vector<int16_t> &pcm, const EncodeOptions &opt,
                   std::vector<uint8_t> &packets, RateCounts &counts, std::string &error) {
  const kevrce_config cfg = {opt.max_rate, opt.min_rate, 0, opt.noise_suppression ? 1 : 0};
  int32_t err = 0;
  kevrce_instance *enc = kevrce_create(&cfg, &err);
  if (enc == nullptr) {
    error = std::string("cannot create an encoder: ") + kevrc_strerror(err);
    return false;
  }
  packets.assign(kMagic, kMagic + kMagicLen);
  bool ok = true;
  for (size_t pos = 0; ok && pos < pcm.size(); pos += KEVRC_FRAME_SAMPLES) {
    int16_t frame[KEVRC_FRAME_SAMPLES] = {};
    const size_t n = std::min<size_t>(KEVRC_FRAME_SAMPLES, pcm.size() - pos);
    std::memcpy(frame, &pcm[pos], n * sizeof(int16_t));
    ok = encode_one_frame(enc, frame, packets, counts, error);
    if (!ok) error = opt.in + ": frame " + std::to_string(pos / KEVRC_FRAME_SAMPLES) + ": " + error;
  }
  kevrce_delete(enc);
  return ok;
}

int encode(const EncodeOptions &opt) {
  std::vector<int16_t> pcm;
  std::string error;
  if (!kevrc::audio::read_pcm16_mono_8k(opt.in, pcm, error)) return fail(error);
  std::vector<uint8_t> packets;
  RateCounts counts;
  if (!encode_signal(pcm, opt, packets, counts, error)) return fail(error);
  const auto writer = [&](const std::string &tmp, std::string &e) { return write_bytes(tmp, packets, e); };
  if (!write_atomically(opt.out, writer, error)) return fail(error);
  const double seconds = static_cast<double>(counts.frames()) * kFrameSeconds;
  const double payload_bits = 8.0 * static_cast<double>(packets.size() - kMagicLen - counts.frames());
  std::fprintf(stderr,
               "kevrc: encoded %ld frames (%.2f s) to %s: %ld eighth, %ld half, %ld full rate; "
               "%.0f bit/s of payload\n",
               counts.frames(), seconds, opt.out.c_str(), counts.eighth, counts.half, counts.full,
               seconds > 0 ? payload_bits / seconds : 0.0);
  return 0;
}

// -------------------------------------------------------------------- decode

// The decoder's packet for one stored frame. Blank, erased and quarter-rate
// frames (not decodable here) become an all-zero full-rate packet, which the
// decoder conceals.
int32_t make_packet(uint8_t rate, const uint8_t *payload, int size, uint8_t *packet) {
  std::memset(packet, 0, KEVRC_MAX_PACKET_BYTES);
  if (rate == 0 || rate == 14 || rate == 2) {
    packet[0] = KEVRC_RATE_FULL;
    return KEVRC_MAX_PACKET_BYTES;
  }
  packet[0] = rate;
  std::memcpy(packet + 1, payload, static_cast<size_t>(size));
  return 1 + size;
}

// Checks the frame at pos and returns its payload size, or -1 with an error.
int frame_payload(const std::vector<uint8_t> &file, size_t pos, long frame, const std::string &path,
                  std::string &error) {
  const uint8_t rate = file[pos];
  const int size = payload_size(rate);
  const std::string where = path + ": frame " + std::to_string(frame) + " at byte " + std::to_string(pos);
  if (size < 0) {
    error = where + ": bad rate octet " + std::to_string(rate);
    return -1;
  }
  if (pos + 1 + static_cast<size_t>(size) > file.size()) {
    error = where + ": truncated (rate " + std::to_string(rate) + " needs " + std::to_string(size) +
            " payload bytes, " + std::to_string(file.size() - pos - 1) + " left)";
    return -1;
  }
  return size;
}

bool decode_packets(const std::vector<uint8_t> &file, const DecodeOptions &opt,
                    std::vector<int16_t> &pcm, std::string &error) {
  const kevrcd_config cfg = {1, 0, 0, 0, opt.postfilter ? 1 : 0};
  int32_t err = 0;
  kevrcd_instance *dec = kevrcd_create(&cfg, &err);
  if (dec == nullptr) {
    error = std::string("cannot create a decoder: ") + kevrc_strerror(err);
    return false;
  }
  size_t pos = kMagicLen;
  for (long frame = 0; pos < file.size() && error.empty(); ++frame) {
    const int size = frame_payload(file, pos, frame, opt.in, error);
    if (size < 0) break;
    uint8_t packet[KEVRC_MAX_PACKET_BYTES];
    const int32_t packet_size = make_packet(file[pos], &file[pos + 1], size, packet);
    int16_t out_frame[KEVRC_FRAME_SAMPLES] = {};
    kevrc_bitstream_buffer in = {packet, 0, packet_size};
    kevrc_pcm_buffer out = {};
    out.data[0] = out_frame;
    kevrcd_result result;
    const int32_t status = kevrcd_decode(dec, &in, &out, &result);
    // Frames the decoder rejects (damaged parameters) come out as it leaves
    // them, so that the timing of the file is kept.
    if (status != KEVRC_OK && status != KEVRC_ERR_LSP && status != KEVRC_ERR_NOMEM)
      error = opt.in + ": frame " + std::to_string(frame) + ": " + kevrc_strerror(status);
    pcm.insert(pcm.end(), out_frame, out_frame + KEVRC_FRAME_SAMPLES);
    pos += 1 + static_cast<size_t>(size);
  }
  kevrcd_delete(dec);
  return error.empty();
}

int decode(const DecodeOptions &opt) {
  std::vector<uint8_t> file;
  std::string error;
  if (!read_file(opt.in, file, error)) return fail(error);
  if (file.size() < kMagicLen || std::memcmp(file.data(), kMagic, kMagicLen) != 0)
    return fail(opt.in + ": not a packet file (no \"#!EVRC\\n\" header)");
  std::vector<int16_t> pcm;
  if (!decode_packets(file, opt, pcm, error)) return fail(error);
  const auto writer = [&](const std::string &tmp, std::string &e) {
    return kevrc::audio::write_wav16(tmp, pcm.data(), pcm.size(), KEVRC_SAMPLE_RATE, 1, e);
  };
  if (!write_atomically(opt.out, writer, error)) return fail(error);
  const long frames = static_cast<long>(pcm.size() / KEVRC_FRAME_SAMPLES);
  std::fprintf(stderr, "kevrc: decoded %ld frames (%.2f s) to %s\n", frames,
               static_cast<double>(frames) * kFrameSeconds, opt.out.c_str());
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string command = argc >= 2 ? argv[1] : "";
  std::string error;
  if (command == "encode") {
    EncodeOptions opt;
    if (!parse_encode_args(argc, argv, opt, error)) return usage_error(error);
    return encode(opt);
  }
  if (command == "decode") {
    DecodeOptions opt;
    if (!parse_decode_args(argc, argv, opt, error)) return usage_error(error);
    return decode(opt);
  }
  if (command == "--version") {
    std::printf("kevrc %s\n", kevrc_version());
    return 0;
  }
  if (command == "--help" || command == "-h") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (command.empty()) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  return usage_error("unknown command '" + command + "'");
}
