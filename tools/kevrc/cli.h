// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Shared parts of the kevrc commands: the option table and parser, one-line
// messages, packet-file byte streams, and the one-file / batch runner.
//
//  parse_options(command, argc, argv, opt): argv[2..] of "kevrc COMMAND";
//    returns kParsed, kHelp (the command's --help was asked for) or
//    kUsageError (message already printed).
//  run_files(opt, what, extension, code): one file (IN OUT) or a batch
//    (-o DIR IN...: DIR/NAME.extension per input, -j threads); code(in, out,
//    single) codes one file and returns true on success. Returns the exit
//    status: 0 when every file succeeded, 1 otherwise.
//  ByteSource: an input file or "-" (stdin) read by the packet-file reader;
//    fraction() is the share of the file read so far (-1 for a pipe).
//  ByteSink: buffered writes to a descriptor; patch() rewrites bytes at the
//    start of a seekable output.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/support/audio_stream.h"

namespace kevrc::tool {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

enum Command : unsigned { kEncode = 1, kDecode = 2, kInfo = 4 };
enum ParseResult { kParsed, kHelp, kUsageError };

struct Options {
  bool quiet = false, verbose = false, strict = false, json = false;
  unsigned jobs = 0;  // 0: all cores
  std::string out_dir;
  std::vector<std::string> files;
  AudioLayout audio;
  int min_rate = 1, max_rate = 4;
  bool noise_suppression = true;
  bool classic = false;  // --classic: the standard rate decision and suppressor, not the quality mode
  std::string format;  // encode: "storage", "qcp", "pcap" or "" (by extension)
  bool postfilter = true;
  // RTP captures: encode to a capture, decode or list one.
  bool interleaved = false;  // --rtp header-free|interleaved
  int bundle = 1;            // --bundle N: frames per packet
  int interleave = 0;        // --interleave L
  int payload_type = -1;     // --pt N: 97 on encode, by payload structure otherwise
  std::string dst;           // --dst IP:PORT
  int64_t ssrc = -1;         // --ssrc X: decode that stream only
};

ParseResult parse_options(Command command, int argc, char **argv, Options &opt);
// parse_options and its outcome: -1 to go on, or the exit status (0 after
// --help, which it prints; 2 after a usage error).
int parse_command(Command command, int argc, char **argv, Options &opt);
int usage_error(const std::string &message);
// "kevrc: message" on stderr; returns false so that callers can return it.
bool fail(const std::string &message);
void warn(const Options &opt, const std::string &message);
// fail() for a coding error: prefixed with out unless it already names in.
bool fail_coding(const std::string &in, const std::string &out, const std::string &error);

using CodeFile = bool (*)(const Options &opt, const std::string &in, const std::string &out, bool single);
int run_files(const Options &opt, const char *what, const std::string &extension, CodeFile code);

class ByteSource {
 public:
  ~ByteSource();
  bool open(const std::string &path, std::string &error);
  static int64_t read(void *self, uint8_t *buf, size_t size);
  double fraction() const;

 private:
  FILE *file_ = nullptr;
  int64_t size_ = -1, done_ = 0;
};

class ByteSink {
 public:
  explicit ByteSink(int fd) : fd_(fd) {}
  bool write(const uint8_t *data, size_t n);
  bool flush();
  bool patch(const uint8_t *data, size_t n);

 private:
  int fd_;
  std::vector<uint8_t> buf_;
};

}  // namespace kevrc::tool
