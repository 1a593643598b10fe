// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// RTP captures for the kevrc command: encoding audio to a capture, decoding
// the codec's streams of a capture, and listing a capture's RTP streams.
// See rtp_capture.h for each function's arguments.
//
// decode_capture reads the capture twice: once to find the streams and
// their payload format, once to feed each chosen stream's packets, in
// capture order, to its own depacketizer and decoder. Blank frames at the
// end of a stream (padding of the last interleave group) are dropped.
#include "tools/kevrc/rtp_capture.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <memory>
#include <utility>

namespace kevrc::tool {

namespace {

constexpr int64_t kFrameUs = 20000;

int fail(std::string *error, const std::string &message) {
  if (error != nullptr) *error = message;
  return 1;
}

// The codec's concealment of a lost frame.
int32_t conceal_frame(kevrcd_instance *decoder, int16_t *pcm) {
  kevrc_pcm_buffer out = {};
  out.data[0] = pcm;
  kevrcd_result result;
  return kevrcd_conceal(decoder, &out, &result);
}

template <typename T, void (*Delete)(T *)>
struct Deleter {
  void operator()(T *p) const { Delete(p); }
};
using Decoder = std::unique_ptr<kevrcd_instance, Deleter<kevrcd_instance, kevrcd_delete>>;
using Depacketizer =
    std::unique_ptr<kevrc_rtp_depacketizer, Deleter<kevrc_rtp_depacketizer, kevrc_rtp_depacketizer_delete>>;
using Reader = std::unique_ptr<kevrc_cap_reader, Deleter<kevrc_cap_reader, kevrc_cap_close>>;
using Streams = std::unique_ptr<kevrc_cap_streams, Deleter<kevrc_cap_streams, kevrc_cap_streams_delete>>;

Reader open_reader(const std::string &path, std::string *error) {
  char message[256] = "";
  int32_t err = 0;
  Reader r(kevrc_cap_open(path.c_str(), &err, message, sizeof message));
  if (!r && error != nullptr) *error = path + ": " + (message[0] ? message : kevrc_cap_strerror(err));
  return r;
}

// Writes every packet the packer has ready.
bool write_ready(kevrc_rtp_packer *packer, kevrc_cap_writer *writer, int64_t start_us, std::string *error) {
  uint8_t packet[KEVRC_RTP_MAX_PACKET_BYTES];
  kevrc_rtp_packet_info info;
  for (int32_t n; (n = kevrc_rtp_packer_pull(packer, packet, sizeof packet, &info)) > 0;) {
    const int32_t status = kevrc_cap_write(writer, start_us + info.send_frame * kFrameUs, packet, n);
    if (status != KEVRC_CAP_OK) return fail(error, kevrc_cap_strerror(status)), false;
  }
  return true;
}

// Encodes one frame and hands it to the packer.
bool encode_frame(kevrce_instance *encoder, int16_t *frame, kevrc_rtp_packer *packer, std::string *error) {
  uint8_t payload[KEVRC_ENCODER_BUFFER_BYTES];
  kevrce_result result;
  const int32_t status = encode_pcm_frame(encoder, frame, payload, &result);
  if (status != KEVRC_OK) return fail(error, std::string("encoder failed: ") + kevrc_strerror(status)), false;
  const int32_t pushed = kevrc_rtp_packer_push(packer, result.rate, payload, result.bytes);
  if (pushed != KEVRC_RTP_OK) return fail(error, std::string("packer: ") + kevrc_rtp_strerror(pushed)), false;
  return true;
}

// One stream being decoded.
struct Decoding {
  DecodedStream report;
  Depacketizer depacketizer;
  Decoder decoder;
  FrameSink sink;
  int64_t pending_blanks = 0;  // blank frames not yet written: dropped at the end
  int64_t first_timestamp = -1, frames = -1;
};

// Frames that may still be written: all, or up to the expected count.
int64_t room(const Decoding &d, int64_t count) {
  return d.frames < 0 ? count : std::min(count, d.frames - d.report.frames_written);
}

// Writes `count` concealed frames.
bool conceal(Decoding &d, int64_t count, std::string *error) {
  const kevrc_rtp_frame erasure = {KEVRC_RTP_RATE_ERASURE, 0, 0, 0, {}};
  int16_t pcm[KEVRC_FRAME_SAMPLES];
  for (count = room(d, count); count > 0; --count, ++d.report.frames_written) {
    decode_rtp_frame(d.decoder.get(), erasure, pcm);
    if (!d.sink(pcm, error)) return false;
  }
  return true;
}

bool emit(Decoding &d, const kevrc_rtp_frame &frame, std::string *error) {
  if (d.report.frames_written == 0 && d.pending_blanks == 0 && d.first_timestamp >= 0) {
    const int64_t lead = static_cast<int32_t>(frame.timestamp - static_cast<uint32_t>(d.first_timestamp));
    if (lead > 0 && !conceal(d, lead / KEVRC_RTP_FRAME_TICKS, error)) return false;
  }
  if (frame.rate == KEVRC_RTP_RATE_BLANK) return ++d.pending_blanks, true;
  if (!conceal(d, d.pending_blanks, error)) return false;
  d.pending_blanks = 0;
  if (room(d, 1) < 1) return true;
  int16_t pcm[KEVRC_FRAME_SAMPLES];
  decode_rtp_frame(d.decoder.get(), frame, pcm);
  ++d.report.frames_written;
  return d.sink(pcm, error);
}

bool pull_frames(Decoding &d, int32_t drain, std::string *error) {
  kevrc_rtp_frame frame;
  while (kevrc_rtp_depacketizer_pull(d.depacketizer.get(), drain, &frame) == 1)
    if (!emit(d, frame, error)) return false;
  return true;
}

bool push_packet(Decoding &d, const kevrc_cap_udp &u, std::string *error) {
  kevrc_rtp_depacketizer *dp = d.depacketizer.get();
  if (kevrc_rtp_depacketizer_push(dp, u.payload, u.length) == KEVRC_RTP_ERR_JUMP) {
    if (!pull_frames(d, 1, error)) return false;
    kevrc_rtp_depacketizer_push(dp, u.payload, u.length);
  }
  return pull_frames(d, 0, error);
}

bool same_stream(const kevrc_cap_stream &s, const kevrc_cap_udp &u, uint32_t ssrc) {
  return s.ssrc == ssrc && s.src_ip == u.src_ip && s.dst_ip == u.dst_ip && s.src_port == u.src_port &&
         s.dst_port == u.dst_port;
}

// Creates the depacketizer, decoder and sink of one chosen stream.
bool start_decoding(const DecodeCaptureOptions &opt, const CaptureStreamInfo &info, const SinkOpener &open_sink,
                    Decoding &d, std::string *error) {
  d.report.info = info;
  d.first_timestamp = opt.first_timestamp;
  d.frames = opt.frames;
  const kevrc_rtp_depacketizer_config dc = {info.stream.format, info.stream.payload_type, opt.window};
  int32_t err = 0;
  d.depacketizer.reset(kevrc_rtp_depacketizer_create(&dc, &err));
  if (!d.depacketizer) return fail(error, std::string("depacketizer: ") + kevrc_rtp_strerror(err)), false;
  const kevrcd_config cfg = {1, 0, 0, 0, opt.postfilter ? 1 : 0};
  d.decoder.reset(kevrcd_create(&cfg, &err));
  if (!d.decoder) return fail(error, std::string("cannot create a decoder: ") + kevrc_strerror(err)), false;
  d.sink = open_sink(info, error);
  return static_cast<bool>(d.sink);
}

}  // namespace

int32_t encode_pcm_frame(kevrce_instance *encoder, int16_t *frame, uint8_t *payload, kevrce_result *result) {
  std::memset(payload, 0, KEVRC_ENCODER_BUFFER_BYTES);
  kevrc_pcm_buffer in = {};
  in.data[0] = frame;
  in.samples[0] = KEVRC_FRAME_SAMPLES;
  in.bytes[0] = KEVRC_FRAME_SAMPLES * sizeof(int16_t);
  kevrc_bitstream_buffer out = {payload, 0, KEVRC_ENCODER_BUFFER_BYTES};
  *result = {};
  return kevrce_encode(encoder, &in, &out, result);
}

int32_t decode_rtp_frame(kevrcd_instance *decoder, const kevrc_rtp_frame &frame, int16_t *pcm) {
  const bool speech = frame.rate == KEVRC_RTP_RATE_EIGHTH || frame.rate == KEVRC_RTP_RATE_HALF ||
                      frame.rate == KEVRC_RTP_RATE_FULL;
  if (!speech) return conceal_frame(decoder, pcm);
  uint8_t packet[KEVRC_MAX_PACKET_BYTES] = {static_cast<uint8_t>(frame.rate)};
  std::memcpy(packet + 1, frame.payload, static_cast<size_t>(frame.bytes));
  kevrc_bitstream_buffer in = {packet, 0, 1 + frame.bytes};
  kevrc_pcm_buffer out = {};
  out.data[0] = pcm;
  kevrcd_result result;
  return kevrcd_decode(decoder, &in, &out, &result);
}

CaptureEncoder::~CaptureEncoder() {
  if (writer_ != nullptr) kevrc_cap_writer_close(writer_);
  kevrc_rtp_packer_delete(packer_);
  kevrce_delete(encoder_);
}

bool CaptureEncoder::open(const EncodeToCaptureOptions &opt, std::string *error) {
  const kevrc_rtp_packer_config pc = {opt.format, opt.bundle, opt.interleave, 0, opt.payload_type,
                                      opt.ssrc, opt.first_sequence, opt.first_timestamp};
  int32_t err = 0;
  start_us_ = opt.start_time_us;
  packer_ = kevrc_rtp_packer_create(&pc, &err);
  if (packer_ == nullptr)
    return fail(error, "bad RTP options (--rtp, --bundle 1..32, 1 for header-free, --interleave 0..7, --pt 0..127)"),
           false;
  encoder_ = kevrce_create(&opt.encoder, &err);
  if (encoder_ == nullptr) return fail(error, std::string("cannot create an encoder: ") + kevrc_strerror(err)), false;
  kevrce_set_robust(encoder_, opt.robust ? 1 : 0);
  char message[256] = "";
  writer_ = kevrc_cap_writer_open(opt.out.c_str(), &opt.endpoints, &err, message, sizeof message);
  if (writer_ == nullptr) return fail(error, opt.out + ": " + message), false;
  return true;
}

bool CaptureEncoder::add(int16_t *frame, std::string *error) {
  return encode_frame(encoder_, frame, packer_, error) && write_ready(packer_, writer_, start_us_, error);
}

bool CaptureEncoder::finish(std::string *error) {
  if (packer_ == nullptr || writer_ == nullptr) return false;
  bool ok = kevrc_rtp_packer_finish(packer_) == KEVRC_RTP_OK && write_ready(packer_, writer_, start_us_, error);
  const int32_t closed = kevrc_cap_writer_close(writer_);
  writer_ = nullptr;
  if (closed != KEVRC_CAP_OK && ok) return fail(error, "capture write failed"), false;
  return ok;
}

int encode_to_capture(const EncodeToCaptureOptions &opt, const FrameSource &source, std::string *error) {
  CaptureEncoder encoder;
  bool ok = encoder.open(opt, error);
  int16_t frame[KEVRC_FRAME_SAMPLES];
  while (ok && source(frame)) ok = encoder.add(frame, error);
  return ok && encoder.finish(error) ? 0 : 1;
}

bool is_capture(const std::string &path) {
  static constexpr uint8_t kMagic[][4] = {{0xd4, 0xc3, 0xb2, 0xa1}, {0xa1, 0xb2, 0xc3, 0xd4}, {0x4d, 0x3c, 0xb2, 0xa1},
                                          {0xa1, 0xb2, 0x3c, 0x4d}, {0x0a, 0x0d, 0x0d, 0x0a}};
  uint8_t head[4] = {};
  std::FILE *f = path == "-" ? nullptr : std::fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  const bool read = std::fread(head, 1, sizeof head, f) == sizeof head;
  std::fclose(f);
  for (const auto &m : kMagic)
    if (read && std::memcmp(head, m, sizeof head) == 0) return true;
  return false;
}

int info_capture(const std::string &path, int32_t payload_type, CaptureInfo *info, std::string *error) {
  Reader reader = open_reader(path, error);
  if (!reader) return 1;
  int32_t err = 0;
  Streams streams(kevrc_cap_streams_create(&err));
  if (!streams) return fail(error, "out of memory");
  *info = {};
  kevrc_cap_udp u;
  int32_t status;
  while ((status = kevrc_cap_next(reader.get(), &u)) == 1) {
    const int32_t added = kevrc_cap_streams_add(streams.get(), &u);
    if (added == KEVRC_CAP_ERR_ARG) ++info->not_rtp;
    if (added == KEVRC_CAP_ERR_FULL) return fail(error, path + ": more than 256 RTP streams");
  }
  if (status < 0) info->read_error = kevrc_cap_reader_error(reader.get());
  kevrc_cap_reader_counters(reader.get(), &info->counters);
  for (int32_t i = 0; i < kevrc_cap_streams_count(streams.get()); ++i) {
    CaptureStreamInfo s;
    kevrc_cap_streams_get(streams.get(), i, payload_type, &s.stream);
    s.duration_s = static_cast<double>(s.stream.frames) * 0.02;
    info->streams.push_back(s);
  }
  return 0;
}

int decode_capture(const DecodeCaptureOptions &opt, const SinkOpener &open_sink, std::string *error,
                   std::vector<DecodedStream> *report, CaptureInfo *capture) {
  if (opt.in == "-") return fail(error, "decoding a capture needs a file, not standard input (it is read twice)");
  CaptureInfo info;
  if (info_capture(opt.in, opt.payload_type, &info, error) != 0) return 1;
  if (capture != nullptr) *capture = info;
  std::vector<Decoding> chosen;
  for (const CaptureStreamInfo &s : info.streams)
    if (s.stream.format >= 0 && (opt.ssrc < 0 || s.stream.ssrc == opt.ssrc)) chosen.emplace_back().report.info = s;
  if (chosen.empty())
    return fail(error, opt.in + (opt.ssrc >= 0 ? ": no stream of this codec with that SSRC"
                                               : ": no RTP stream of this codec (try --pt)"));
  for (Decoding &d : chosen)
    if (!start_decoding(opt, d.report.info, open_sink, d, error)) return 1;
  Reader reader = open_reader(opt.in, error);
  if (!reader) return 1;
  kevrc_cap_udp u;
  while (kevrc_cap_next(reader.get(), &u) == 1) {
    kevrc_rtp_header h;
    if (kevrc_rtp_parse_header(u.payload, u.length, &h) != KEVRC_RTP_OK) continue;
    for (Decoding &d : chosen)
      if (same_stream(d.report.info.stream, u, h.ssrc) && !push_packet(d, u, error)) return 1;
  }
  for (Decoding &d : chosen) {
    if (!pull_frames(d, 1, error) || !conceal(d, d.frames - d.report.frames_written, error)) return 1;
    kevrc_rtp_depacketizer_counters(d.depacketizer.get(), &d.report.counters);
    if (report != nullptr) report->push_back(std::move(d.report));
  }
  return 0;
}

void print_capture_info(const CaptureInfo &info, std::FILE *out) {
  std::fprintf(out, "%-10s %-21s %-21s %3s %-12s %8s %6s %9s %5s %9s\n", "SSRC", "source", "destination", "PT",
               "payload", "packets", "lost", "reordered", "dups", "duration");
  const char *formats[] = {"header-free", "interleaved"};
  for (const CaptureStreamInfo &c : info.streams) {
    const kevrc_cap_stream &s = c.stream;
    auto endpoint = [](uint32_t ip, uint16_t port) {
      char text[32];
      std::snprintf(text, sizeof text, "%u.%u.%u.%u:%u", ip >> 24, ip >> 16 & 255, ip >> 8 & 255, ip & 255, port);
      return std::string(text);
    };
    std::fprintf(out, "0x%08" PRIx32 " %-21s %-21s %3d %-12s %8" PRId64 " %6" PRId64 " %9" PRId64 " %5" PRId64
                 " %8.2fs\n",
                 s.ssrc, endpoint(s.src_ip, s.src_port).c_str(), endpoint(s.dst_ip, s.dst_port).c_str(),
                 s.payload_type, s.format >= 0 ? formats[s.format] : "other", s.packets, s.lost, s.reordered,
                 s.duplicates, c.duration_s);
    if (s.wild_timestamps > 0)
      std::fprintf(out, "  warning: %" PRId64 " packets with wild timestamps\n", s.wild_timestamps);
  }
  for (const std::string &w : capture_warnings(info.counters)) std::fprintf(out, "warning: %s\n", w.c_str());
  if (info.not_rtp > 0) std::fprintf(out, "%" PRId64 " UDP datagrams are not RTP\n", info.not_rtp);
  if (!info.read_error.empty()) std::fprintf(out, "warning: capture cut short: %s\n", info.read_error.c_str());
}

std::vector<std::string> capture_warnings(const kevrc_cap_counters &c) {
  std::vector<std::string> lines;
  const std::pair<int64_t, const char *> kinds[] = {{c.non_ipv4, "records that are not IPv4 skipped"},
                                                    {c.fragments, "IPv4 fragments skipped (not reassembled)"},
                                                    {c.truncated, "truncated records skipped"}};
  for (const auto &[count, what] : kinds)
    if (count > 0) lines.push_back(std::to_string(count) + " " + what);
  return lines;
}

std::string stream_output_path(const std::string &out, uint32_t ssrc, size_t streams) {
  if (streams <= 1 || out == "-") return out;
  char tag[16];
  std::snprintf(tag, sizeof tag, "-%08" PRIx32, ssrc);
  const size_t slash = out.find_last_of('/');
  const size_t dot = out.find_last_of('.');
  const size_t at = dot != std::string::npos && (slash == std::string::npos || dot > slash) ? dot : out.size();
  return out.substr(0, at) + tag + out.substr(at);
}

}  // namespace kevrc::tool
