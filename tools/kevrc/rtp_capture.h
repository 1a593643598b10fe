// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// RTP captures for the kevrc command: the work behind
//   kevrc encode in.wav out.pcap [--rtp header-free|interleaved] [--bundle N]
//                                [--interleave L] [--pt 97] [--dst IP:PORT]
//   kevrc decode call.pcap out.wav [--pt N] [--ssrc X]
//   kevrc info call.pcap [--pt N]
// The command parses its options into these records and supplies audio
// through callbacks, so this file needs no audio I/O.
//
//  encode_to_capture(opt, source, error): pulls 160-sample frames from
//    source until it returns false, encodes them, packs them (opt.format,
//    opt.bundle frames per packet, opt.interleave) and writes an
//    Ethernet/IPv4/UDP/RTP capture to opt.out (written in place: pass the
//    temporary path of write_atomically). Capture times start at
//    opt.start_time_us and are 20 ms x frames per packet apart.
//  decode_capture(opt, open_sink, error, report, capture): finds the
//    streams of this codec (opt.payload_type, or by payload structure),
//    decodes the one with opt.ssrc or every one, and hands each stream's
//    frames in play order to the sink that open_sink returns for it (called
//    once per stream, before its first frame). Lost frames and suppressed
//    silence are concealed. report (optional) gets each decoded stream's
//    counters, capture (optional) the capture's streams and skipped-record
//    counters (print capture_warnings(capture->counters) and
//    capture->read_error).
//  info_capture(path, payload_type, info, error): lists every RTP stream.
//  is_capture(path): whether the file starts as a pcap or pcapng file.
//  print_capture_info(info, out): prints that list as a table.
//  capture_warnings(counters): one line per kind of record skipped.
//  stream_output_path(out, ssrc, streams): out itself for one stream,
//    else "name-SSRC.ext" (SSRC as 8 hex digits).
// Each returns 0 on success or 1 with a one-line message in *error.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <kevrc/kevrc.h>
#include "kevrc/kevrc_capture.h"
#include "kevrc/kevrc_rtp.h"

namespace kevrc::tool {

// Fills frame with the next 160 samples (zero-padded at the end); false when
// the input is exhausted.
using FrameSource = std::function<bool(int16_t *frame)>;
// Takes the next 160 decoded samples; false with *error to stop.
using FrameSink = std::function<bool(const int16_t *frame, std::string *error)>;

struct EncodeToCaptureOptions {
  std::string out;                                 // capture path, "-" for standard output
  int32_t format = KEVRC_RTP_FORMAT_HEADER_FREE;   // --rtp header-free|interleaved
  int32_t bundle = 1;                              // --bundle N: frames per packet, 1..32
  int32_t interleave = 0;                          // --interleave L: 0..7
  int32_t payload_type = 97;                       // --pt
  kevrc_cap_endpoints endpoints = {0x7f000001, 0x7f000001, 5004, 5004};  // --dst sets dst_*
  uint32_t ssrc = 0x4b455652;
  uint16_t first_sequence = 0;
  uint32_t first_timestamp = 0;
  int64_t start_time_us = 0;                       // capture time of the first packet's frame 0
  kevrce_config encoder = {KEVRC_RATE_FULL, KEVRC_RATE_EIGHTH, 0, 1};
  bool robust = true;                              // quality mode; --classic turns it off
};

struct CaptureStreamInfo {
  kevrc_cap_stream stream;  // SSRC, addresses, payload type, format (-1: not this codec), counts
  double duration_s = 0;    // from the first timestamp to the end of the newest packet
};

struct CaptureInfo {
  std::vector<CaptureStreamInfo> streams;
  kevrc_cap_counters counters{};
  int64_t not_rtp = 0;       // UDP datagrams that are not RTP
  std::string read_error;    // non-empty when the capture ends inside a record
};

struct DecodeCaptureOptions {
  std::string in;             // capture path, "-" for standard input
  int32_t payload_type = -1;  // --pt, -1: detect by payload structure
  int64_t ssrc = -1;          // --ssrc, -1: every stream of this codec
  int32_t window = 50;        // jitter window in frames
  bool postfilter = true;
  // When known (>= 0): the timestamp of the stream's first frame, so that
  // frames lost before the first packet received are concealed too, and the
  // number of frames to write (concealed ones added or surplus ones dropped
  // at the end).
  int64_t first_timestamp = -1;
  int64_t frames = -1;
};

struct DecodedStream {
  CaptureStreamInfo info;
  kevrc_rtp_counters counters{};
  int64_t frames_written = 0;
};

// Returns the sink for one stream, or an empty function with *error set.
using SinkOpener = std::function<FrameSink(const CaptureStreamInfo &stream, std::string *error)>;

// Frame-by-frame form of encode_to_capture, for callers that push audio:
// open(opt, error), add(frame, error) per 160 samples, then finish(error),
// which writes the packer's last packets and closes the capture. Each
// returns false with a one-line message in *error.
class CaptureEncoder {
 public:
  CaptureEncoder() = default;
  CaptureEncoder(const CaptureEncoder &) = delete;
  CaptureEncoder &operator=(const CaptureEncoder &) = delete;
  ~CaptureEncoder();
  bool open(const EncodeToCaptureOptions &opt, std::string *error);
  bool add(int16_t *frame, std::string *error);
  bool finish(std::string *error);

 private:
  kevrce_instance *encoder_ = nullptr;
  kevrc_rtp_packer *packer_ = nullptr;
  kevrc_cap_writer *writer_ = nullptr;
  int64_t start_us_ = 0;
};

int encode_to_capture(const EncodeToCaptureOptions &opt, const FrameSource &source, std::string *error);
// Encodes one frame of 160 samples (in: frame, replaced by the conditioned
// samples) into payload (out, KEVRC_ENCODER_BUFFER_BYTES bytes of room);
// result gets the rate and payload size. Returns the encoder's status.
int32_t encode_pcm_frame(kevrce_instance *encoder, int16_t *frame, uint8_t *payload, kevrce_result *result);
// Whether path is a pcap or pcapng file (by its first four bytes).
bool is_capture(const std::string &path);
int decode_capture(const DecodeCaptureOptions &opt, const SinkOpener &open_sink, std::string *error,
                   std::vector<DecodedStream> *report = nullptr, CaptureInfo *capture = nullptr);
int info_capture(const std::string &path, int32_t payload_type, CaptureInfo *info, std::string *error);
void print_capture_info(const CaptureInfo &info, std::FILE *out);
std::vector<std::string> capture_warnings(const kevrc_cap_counters &counters);
std::string stream_output_path(const std::string &out, uint32_t ssrc, size_t streams);

// Decodes the frame in play order (rate code and payload from the
// depacketizer); erasures and blank frames are concealed. Writes 160
// samples to pcm. Returns the decoder's status.
int32_t decode_rtp_frame(kevrcd_instance *decoder, const kevrc_rtp_frame &frame, int16_t *pcm);

}  // namespace kevrc::tool
