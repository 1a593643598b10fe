// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// kevrc encode: audio in (any libsndfile format, raw, "-"), packet file out
// (storage format or QCP, "-") or an RTP capture (.pcap, --format pcap),
// streamed block by block.
//
// The input is averaged over its channels, resampled to 8000 Hz and rounded
// to 16 bits; every 160 samples become one packet, the last partial frame
// padded with zeros, so the output holds ceil(samples / 160) frames. The
// rate bounds and noise suppression go to the encoder as given.
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <kevrc/kevrc.h>
#include "kevrc/kevrc_formats.h"
#include "tools/kevrc/cli.h"
#include "tools/kevrc/commands.h"
#include "tools/kevrc/rtp_capture.h"
#include "tools/support/progress.h"
#include "tools/support/safe_output.h"

namespace kevrc::tool {
namespace {

bool has_extension(const std::string &path, const char *extension) {
  const size_t n = path.size(), e = std::strlen(extension);
  return n >= e && strcasecmp(path.c_str() + n - e, extension) == 0;
}

bool writes_capture(const Options &opt, const std::string &out) {
  return opt.format == "pcap" || (opt.format.empty() && has_extension(out, ".pcap"));
}

int32_t format_of(const Options &opt, const std::string &out) {
  if (!opt.format.empty()) return opt.format == "qcp" ? KEVRCF_FORMAT_QCP : KEVRCF_FORMAT_STORAGE;
  return has_extension(out, ".qcp") ? KEVRCF_FORMAT_QCP : KEVRCF_FORMAT_STORAGE;
}

// The packet file being written: writer state, byte sink, rate counts.
struct PacketOutput {
  kevrcf_writer writer{};
  ByteSink sink;
  uint64_t counts[5] = {};

  bool header(bool final_sizes) {
    uint8_t buf[KEVRCF_MAX_HEADER_BYTES];
    const int32_t n = kevrcf_writer_header(&writer, final_sizes, buf, sizeof buf);
    return n > 0 && (final_sizes ? sink.patch(buf, static_cast<size_t>(n)) : sink.write(buf, static_cast<size_t>(n)));
  }
  bool finish(bool final_sizes) {
    uint8_t pad[1];
    const int32_t n = kevrcf_writer_trailer(&writer, final_sizes, pad, sizeof pad);
    return sink.write(pad, static_cast<size_t>(n)) && sink.flush() &&
           (!final_sizes || writer.format != KEVRCF_FORMAT_QCP || header(true));
  }
};

bool encode_frame(kevrce_instance *enc, int16_t *frame, PacketOutput &out, std::string &error) {
  uint8_t payload[KEVRC_ENCODER_BUFFER_BYTES];
  kevrce_result result;
  const int32_t status = encode_pcm_frame(enc, frame, payload, &result);
  uint8_t record[KEVRCF_MAX_PACKET_BYTES];
  const int32_t n = status == KEVRC_OK ? kevrcf_writer_packet(&out.writer, result.rate, payload,
                                                              static_cast<size_t>(result.bytes), record, sizeof record)
                                       : status;
  if (n < 0) {
    error = std::string("encoder failed: ") + (status != KEVRC_OK ? kevrc_strerror(status) : "bad packet");
    return false;
  }
  ++out.counts[result.rate];
  if (out.sink.write(record, static_cast<size_t>(n))) return true;
  error = std::string("write error: ") + std::strerror(errno);
  return false;
}

void print_stats(const std::string &in, const std::string &out, const PacketOutput &p, double seconds) {
  const uint64_t frames = p.writer.packets;
  const double audio = static_cast<double>(frames) / 50.0;
  const double bits = 8.0 * static_cast<double>(p.counts[1] * 2 + p.counts[3] * 10 + p.counts[4] * 22);
  std::fprintf(stderr,
               "kevrc: %s -> %s: %llu frames (%.2f s), eighth %llu, half %llu, full %llu, %.0f bit/s, "
               "%.2f s, %.0fx real time\n",
               in.c_str(), out.c_str(), static_cast<unsigned long long>(frames), audio,
               static_cast<unsigned long long>(p.counts[1]), static_cast<unsigned long long>(p.counts[3]),
               static_cast<unsigned long long>(p.counts[4]), audio > 0 ? bits / audio : 0.0, seconds,
               seconds > 0 ? audio / seconds : 0.0);
}

// Feeds the reader's samples to code_frame 160 at a time, the last partial
// frame padded with zeros; after each block, progress(). False as soon as
// reading or code_frame fails.
template <typename CodeFrame, typename OnBlock>
bool pump_frames(AudioReader &reader, CodeFrame code_frame, OnBlock progress, std::string &error) {
  int16_t frame[KEVRC_FRAME_SAMPLES];
  size_t fill = 0;
  const auto sink = [&](const int16_t *x, size_t n) {
    for (size_t i = 0; i < n; ++i) {
      frame[fill++] = x[i];
      if (fill == KEVRC_FRAME_SAMPLES && !code_frame(frame)) return false;
      fill %= KEVRC_FRAME_SAMPLES;
    }
    progress();
    return true;
  };
  if (!reader.pump(sink, error)) return false;
  if (fill == 0) return true;
  std::memset(frame + fill, 0, (KEVRC_FRAME_SAMPLES - fill) * sizeof frame[0]);
  return code_frame(frame);
}

// The capture form: RTP packets (--rtp, --bundle, --interleave, --pt) in an
// Ethernet/IPv4/UDP capture addressed to --dst.
bool encode_capture_file(const Options &opt, const std::string &in, const std::string &out) {
  std::string error;
  AudioReader reader;
  SafeOutput output;
  if (!reader.open(in, opt.audio, error) || !output.open(out, in, error)) return fail(error);
  EncodeToCaptureOptions c;
  c.out = "/dev/fd/" + std::to_string(output.fd());  // libpcap opens by name
  c.format = opt.interleaved ? KEVRC_RTP_FORMAT_INTERLEAVED : KEVRC_RTP_FORMAT_HEADER_FREE;
  c.bundle = opt.bundle;
  c.interleave = opt.interleave;
  if (opt.payload_type >= 0) c.payload_type = opt.payload_type;
  if (!opt.dst.empty() &&
      kevrc_cap_parse_endpoint(opt.dst.c_str(), &c.endpoints.dst_ip, &c.endpoints.dst_port) != KEVRC_CAP_OK)
    return fail("--dst: expected IPv4:PORT, got '" + opt.dst + "'");
  c.encoder = {opt.max_rate, opt.min_rate, 0, opt.noise_suppression ? 1 : 0};
  c.robust = !opt.classic;
  CaptureEncoder encoder;
  bool ok = encoder.open(c, &error) &&
            pump_frames(reader, [&](int16_t *frame) { return encoder.add(frame, &error); }, [] {}, error);
  std::string ignored;
  ok = encoder.finish(ok ? &error : &ignored) && ok;
  if (!ok || !output.commit(error)) {
    output.abandon();
    return fail_coding(in, out, error);
  }
  return true;
}

bool encode_file(const Options &opt, const std::string &in, const std::string &out, bool single) {
  if (writes_capture(opt, out)) return encode_capture_file(opt, in, out);
  std::string error;
  AudioReader reader;
  SafeOutput output;
  if (!reader.open(in, opt.audio, error) || !output.open(out, in, error)) return fail(error);
  const kevrce_config cfg = {opt.max_rate, opt.min_rate, 0, opt.noise_suppression ? 1 : 0};
  int32_t status = 0;
  kevrce_instance *enc = kevrce_create(&cfg, &status);
  if (enc == nullptr) return fail(std::string("cannot create an encoder: ") + kevrc_strerror(status));
  kevrce_set_robust(enc, opt.classic ? 0 : 1);
  PacketOutput packets{{}, ByteSink(output.fd()), {}};
  kevrcf_writer_init(&packets.writer, format_of(opt, out));
  Progress progress(in, single && !opt.quiet && isatty(2));
  const double total = in == "-" ? -1 : static_cast<double>(reader.info().frames);
  bool ok = packets.header(false) &&
            pump_frames(
                reader, [&](int16_t *frame) { return encode_frame(enc, frame, packets, error); },
                [&] {
                  const double done = static_cast<double>(reader.frames_read());
                  progress.update(total > 0 ? done / total : -1, static_cast<double>(packets.writer.packets) / 50.0);
                },
                error);
  kevrce_delete(enc);
  if (ok && !packets.finish(output.seekable())) ok = false;
  if (!ok || !output.commit(error)) {
    output.abandon();
    if (error.empty()) error = std::string("write error: ") + std::strerror(errno);
    return fail_coding(in, out, error);
  }
  if (opt.verbose) print_stats(in, out, packets, progress.seconds());
  return true;
}

}  // namespace

int command_encode(int argc, char **argv) {
  Options opt;
  if (const int status = parse_command(kEncode, argc, argv, opt); status >= 0) return status;
  const std::string extension = opt.format == "qcp" || opt.format == "pcap" ? opt.format : "evrc";
  return run_files(opt, "encoded", extension, encode_file);
}

}  // namespace kevrc::tool
