// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// kevrc: command-line front end of the codec library. Dispatches to the
// commands (encode, decode, info), prints help and the version. Exit status
// 0 on success, 1 on failure, 2 on a bad command line; errors are one line
// "kevrc: what: why" on stderr. The full manual is doc/kevrc.1.
#include <cstring>

#include <kevrc/kevrc.h>
#include "tools/kevrc/cli.h"
#include "tools/kevrc/commands.h"
#include "tools/support/safe_output.h"

namespace kevrc::tool {
namespace {

constexpr char kToolHelp[] =
    "usage: kevrc COMMAND [OPTIONS] ARGS\n"
    "  encode IN OUT | -o DIR IN...    audio to packet file (.evrc storage format, .qcp)\n"
    "  decode IN OUT | -o DIR IN...    packet file to audio\n"
    "  info [--json] FILE...           what a packet or audio file holds\n"
    "  help [COMMAND]                  help of the tool or of a command\n"
    "  -V, --version                   version\n"
    "\"-\" is standard input or output. See kevrc help COMMAND and man kevrc.\n";

constexpr char kCommonHelp[] =
    "  -o, --output-dir DIR  batch: write DIR/NAME.EXT for every IN\n"
    "  -j, --jobs N          batch: files coded at once (default: all cores)\n"
    "  -q, --quiet           errors only      -v, --verbose  per-file statistics\n"
    "  -h, --help            this help\n";

constexpr char kEncodeHelp[] =
    "usage: kevrc encode [OPTIONS] IN OUT\n"
    "       kevrc encode [OPTIONS] -o DIR IN...\n"
    "IN: any audio libsndfile reads (any rate, channels averaged), raw with --type raw\n"
    "or .raw .pcm .ul .al; OUT: packet file, storage format or QCP by extension,\n"
    "or an RTP capture (.pcap).\n"
    "  -f, --format F        storage, qcp or pcap (default: by extension, else storage)\n"
    "      --rtp R           capture payload: header-free (default) or interleaved\n"
    "      --bundle N        interleaved: frames per packet, 1..32 (default 1)\n"
    "      --interleave L    interleaved: interleave length, 0..7 (default 0)\n"
    "      --pt N            RTP payload type (default 97)\n"
    "      --dst IP:PORT     destination of the packets (default 127.0.0.1:5004)\n"
    "      --min-rate N      lowest rate code (1 eighth, 3 half, 4 full; default 1)\n"
    "      --max-rate N      highest rate code (default 4)\n"
    "      --ns, --no-ns     noise suppression on (default) or off\n"
    "      --classic         the standard rate decision, comfort noise and noise\n"
    "                        suppressor instead of the quality mode (default)\n"
    "  -t, --type T          input type (raw, ul, al, wav, au, flac, ...)\n"
    "  -r, --rate N          raw input: sample rate (default 8000)\n"
    "  -c, --channels N      raw input: channels (default 1)\n"
    "  -e, --encoding E      raw input: s8 u8 s16 s24 s32 f32 f64 ulaw alaw (default s16)\n";

constexpr char kDecodeHelp[] =
    "usage: kevrc decode [OPTIONS] IN OUT\n"
    "       kevrc decode [OPTIONS] -o DIR IN...\n"
    "IN: packet file (storage format or QCP) or RTP capture, by content; OUT: audio,\n"
    "format by extension or --type (WAV by default, AU on standard output); one\n"
    "OUT-SSRC.ext per stream when a capture holds several.\n"
    "      --pt N            capture: the codec's RTP payload type (default: detected)\n"
    "      --ssrc X          capture: decode only this stream\n"
    "  -t, --type T          output type (wav, au, aiff, flac, raw, ul, al, ...)\n"
    "  -r, --rate N          output sample rate (default 8000; resampled)\n"
    "  -c, --channels N      output channels, copies of the mono signal (default 1)\n"
    "  -e, --encoding E      s8 u8 s16 s24 s32 f32 f64 ulaw alaw (default s16)\n"
    "      --no-postfilter   do not apply the adaptive postfilter\n"
    "      --strict          a damaged packet file is an error, not a warning\n";

constexpr char kInfoHelp[] =
    "usage: kevrc info [OPTIONS] FILE...\n"
    "Packet files: format, frames, duration, rate histogram, bit rate, blank,\n"
    "erasure and damaged counts (QCP: also codec name and version, variable-rate\n"
    "flag, packet size and declared packets). RTP captures: streams, packets, loss,\n"
    "reordering, duration. Audio files: what libsndfile reports.\n"
    "      --pt N            capture: the codec's RTP payload type (default: detected)\n"
    "      --json            one JSON array for scripts\n"
    "      --strict          a damaged packet file is an error\n"
    "  -q, --quiet           errors only\n"
    "  -h, --help            this help\n";

}  // namespace

int print_help(const char *command, FILE *to) {
  if (std::strcmp(command, "encode") == 0) std::fprintf(to, "%s%s", kEncodeHelp, kCommonHelp);
  else if (std::strcmp(command, "decode") == 0) std::fprintf(to, "%s%s", kDecodeHelp, kCommonHelp);
  else if (std::strcmp(command, "info") == 0) std::fputs(kInfoHelp, to);
  else std::fputs(kToolHelp, to);
  return kExitOk;
}

}  // namespace kevrc::tool

int main(int argc, char **argv) {
  using namespace kevrc::tool;
  const std::string command = argc >= 2 ? argv[1] : "";
  install_signal_cleanup();
  if (command == "encode") return command_encode(argc, argv);
  if (command == "decode") return command_decode(argc, argv);
  if (command == "info") return command_info(argc, argv);
  if (command == "-V" || command == "--version") {
    std::printf("kevrc %s\n", kevrc_version());
    return kExitOk;
  }
  if (command == "help" || command == "-h" || command == "--help") {
    const std::string topic = command == "help" && argc >= 3 ? argv[2] : "";
    if (!topic.empty() && topic != "encode" && topic != "decode" && topic != "info")
      return usage_error("help: unknown command '" + topic + "'");
    return print_help(topic.c_str(), stdout);
  }
  if (command.empty()) {
    print_help("", stderr);
    return kExitUsage;
  }
  return usage_error("unknown command '" + command + "'");
}
