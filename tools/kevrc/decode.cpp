// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// kevrc decode: packet file in (storage format or QCP, told apart by
// content, "-" for stdin), audio out (any libsndfile format, raw, "-"),
// streamed record by record.
//
// Blank, erased, quarter-rate and cut-off records become an all-zero
// full-rate packet, which the decoder conceals. An unknown rate octet ends
// the readable part: the frames before it are kept. Damage (a cut-off record
// or an unknown octet) is a warning, or an error with --strict. The output
// is 16-bit audio at 8000 Hz unless --rate / --channels / --type /
// --encoding (or the output name) say otherwise.
//
// A capture (pcap or pcapng, told apart by content) is decoded stream by
// stream: the RTP streams of this codec (--pt, or found by their payload
// structure), or the one --ssrc names, each to OUT, or to OUT-SSRC.ext when
// there are several. Lost frames are concealed and suppressed silence is
// filled in.
#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include <kevrc/kevrc.h>
#include "kevrc/kevrc_formats.h"
#include "tools/kevrc/cli.h"
#include "tools/kevrc/commands.h"
#include "tools/kevrc/rtp_capture.h"
#include "tools/support/progress.h"
#include "tools/support/safe_output.h"

namespace kevrc::tool {
namespace {

// One frame of speech, or a concealed one for a blank, erased or cut-off
// record; frames the decoder rejects (damaged parameters) come out as it
// leaves them, so that the timing of the file is kept.
bool decode_frame(kevrcd_instance *dec, const kevrcf_packet &p, int16_t *pcm, std::string &error) {
  kevrc_bitstream_buffer in = {const_cast<uint8_t *>(p.data), 0, p.size};
  kevrc_pcm_buffer out = {};
  out.data[0] = pcm;
  kevrcd_result result;
  const int32_t status = p.kind == KEVRCF_SPEECH ? kevrcd_decode(dec, &in, &out, &result)
                                                 : kevrcd_conceal(dec, &out, &result);
  if (status == KEVRC_OK || status == KEVRC_ERR_LSP || status == KEVRC_ERR_NOMEM) return true;
  error = std::string("decoder failed: ") + kevrc_strerror(status);
  return false;
}

// "cut-off last record concealed; unknown rate octet 9 after frame 12, 40
// bytes not decoded", or "" for an undamaged file.
std::string damage(const kevrcf_stats &s) {
  std::string text;
  if (s.truncated != 0) text = "cut-off last record concealed";
  if (s.unknown_octet >= 0)
    text += (text.empty() ? "" : "; ") + std::string("unknown rate octet ") + std::to_string(s.unknown_octet) +
            " after frame " + std::to_string(s.frames) + ", " + std::to_string(s.unread_bytes) +
            " bytes not decoded";
  return text;
}

void print_stats(const std::string &in, const std::string &out, const kevrcf_reader &r, double seconds) {
  const kevrcf_stats &s = r.stats;
  const double audio = static_cast<double>(s.frames) / 50.0;
  std::fprintf(stderr,
               "kevrc: %s (%s) -> %s: %llu frames (%.2f s), eighth %llu, half %llu, full %llu, blank %llu, "
               "erasure %llu, %.2f s, %.0fx real time\n",
               in.c_str(), kevrcf_format_name(r.format), out.c_str(), static_cast<unsigned long long>(s.frames), audio,
               static_cast<unsigned long long>(s.eighth), static_cast<unsigned long long>(s.half),
               static_cast<unsigned long long>(s.full), static_cast<unsigned long long>(s.blank),
               static_cast<unsigned long long>(s.erasure), seconds, seconds > 0 ? audio / seconds : 0.0);
}

// One decoded stream of a capture: its output file and audio writer.
struct StreamOutput {
  SafeOutput file;
  AudioWriter audio;
};

bool decode_capture_file(const Options &opt, const std::string &in, const std::string &out) {
  DecodeCaptureOptions c;
  c.in = in;
  c.payload_type = opt.payload_type;
  c.ssrc = opt.ssrc;
  c.postfilter = opt.postfilter;
  std::vector<std::unique_ptr<StreamOutput>> outputs;
  std::vector<std::string> names;
  size_t streams = 0;
  CaptureInfo info;
  std::string error;
  if (info_capture(in, opt.payload_type, &info, &error) != 0) return fail(error);
  for (const CaptureStreamInfo &s : info.streams)
    streams += s.stream.format >= 0 && (opt.ssrc < 0 || s.stream.ssrc == opt.ssrc);
  const auto open_sink = [&](const CaptureStreamInfo &s, std::string *message) -> FrameSink {
    names.push_back(stream_output_path(out, s.stream.ssrc, streams));
    auto &o = outputs.emplace_back(std::make_unique<StreamOutput>());
    if (!o->file.open(names.back(), in, *message) || !o->audio.open(o->file.fd(), names.back(), opt.audio, *message))
      return {};
    return [&audio = o->audio](const int16_t *pcm, std::string *e) { return audio.write(pcm, KEVRC_FRAME_SAMPLES, *e); };
  };
  bool ok = decode_capture(c, open_sink, &error, nullptr, &info) == 0;
  for (size_t i = 0; ok && i < outputs.size(); ++i)
    ok = outputs[i]->audio.finish(error) && outputs[i]->file.commit(error);
  if (!ok) {
    for (auto &o : outputs) o->file.abandon();
    return fail_coding(in, out, error);
  }
  for (const std::string &w : capture_warnings(info.counters)) warn(opt, in + ": " + w);
  if (!info.read_error.empty()) warn(opt, in + ": " + info.read_error);
  if (opt.verbose)
    for (const std::string &name : names) std::fprintf(stderr, "kevrc: %s -> %s\n", in.c_str(), name.c_str());
  return true;
}

bool decode_file(const Options &opt, const std::string &in, const std::string &out, bool single) {
  if (is_capture(in)) return decode_capture_file(opt, in, out);
  std::string error;
  ByteSource source;
  if (!source.open(in, error)) return fail(error);
  kevrcf_reader reader;
  const int32_t opened = kevrcf_reader_open(&reader, ByteSource::read, &source);
  if (opened != KEVRCF_OK) return fail(in + ": " + kevrcf_strerror(opened));
  SafeOutput output;
  AudioWriter writer;
  if (!output.open(out, in, error)) return fail(error);
  if (!writer.open(output.fd(), out, opt.audio, error)) return fail(out + ": " + error);
  const kevrcd_config cfg = {1, 0, 0, 0, opt.postfilter ? 1 : 0};
  int32_t status = 0;
  kevrcd_instance *dec = kevrcd_create(&cfg, &status);
  if (dec == nullptr) return fail(std::string("cannot create a decoder: ") + kevrc_strerror(status));
  Progress progress(in, single && !opt.quiet && isatty(2));
  kevrcf_packet packet;
  int16_t pcm[KEVRC_FRAME_SAMPLES];
  bool ok = true;
  while (ok && (status = kevrcf_reader_next(&reader, &packet)) == 1) {
    ok = decode_frame(dec, packet, pcm, error) && writer.write(pcm, KEVRC_FRAME_SAMPLES, error);
    progress.update(source.fraction(), static_cast<double>(reader.stats.frames) / 50.0);
  }
  kevrcd_delete(dec);
  if (ok && status < 0) error = in + ": " + kevrcf_strerror(status), ok = false;
  const std::string damaged = damage(reader.stats);
  if (ok && opt.strict && !damaged.empty()) error = in + ": " + damaged, ok = false;
  if (!ok || !writer.finish(error) || !output.commit(error)) {
    output.abandon();
    return fail_coding(in, out, error);
  }
  if (!damaged.empty()) warn(opt, in + ": " + damaged);
  if (opt.verbose) print_stats(in, out, reader, progress.seconds());
  return true;
}

}  // namespace

int command_decode(int argc, char **argv) {
  Options opt;
  if (const int status = parse_command(kDecode, argc, argv, opt); status >= 0) return status;
  return run_files(opt, "decoded", type_extension(opt.audio.type), decode_file);
}

}  // namespace kevrc::tool
