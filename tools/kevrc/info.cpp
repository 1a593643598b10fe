// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// kevrc info FILE...: what a file holds. Packet files (told apart by
// content): format, frames, duration, rate histogram, bit rate of the speech
// payload, blank, erasure and damaged counts. Other files: what libsndfile
// reports (format, rate, channels, frames, duration). Captures (pcap,
// pcapng): their RTP streams (SSRC, addresses, payload type, this codec's
// payload format, packets, lost, reordered, duplicates, duration) and the
// records skipped. Text, or one JSON array with --json. Exit status 1 when a file cannot be read (or, with
// --strict, is damaged).
#include <sys/stat.h>

#include <cstring>
#include <functional>

#include "kevrc/kevrc_formats.h"
#include "tools/kevrc/cli.h"
#include "tools/kevrc/commands.h"
#include "tools/kevrc/rtp_capture.h"

namespace kevrc::tool {
namespace {

// Field name and value pairs of one file, printed as text or JSON.
struct Report {
  std::vector<std::pair<std::string, std::string>> fields;  // value: JSON literal
  std::function<void()> text_table;                          // printed after the fields as text
  void number(const char *name, double v, const char *fmt = "%.0f") {
    char buf[64];
    std::snprintf(buf, sizeof buf, fmt, v);
    fields.emplace_back(name, buf);
  }
  void text(const char *name, const std::string &v) {
    std::string q = "\"";
    for (const char c : v) {
      if (c == '"' || c == '\\') q += '\\';
      if (static_cast<unsigned char>(c) < 0x20) {
        char esc[8];
        std::snprintf(esc, sizeof esc, "\\u%04x", c);
        q += esc;
      } else {
        q += c;
      }
    }
    fields.emplace_back(name, q + "\"");
  }
  void print(bool json, bool first) const {
    if (json) std::printf("%s\n  {", first ? "[" : ",");
    for (size_t i = 0; i < fields.size(); ++i) {
      const auto &[name, value] = fields[i];
      if (json) std::printf("%s\"%s\": %s", i > 0 ? ", " : "", name.c_str(), value.c_str());
      else if (i == 0) std::printf("%s\n", value.substr(1, value.size() - 2).c_str());
      else std::printf("  %-17s %s\n", name.c_str(), value[0] == '"' ? value.substr(1, value.size() - 2).c_str() : value.c_str());
    }
    if (json) std::printf("}");
    if (!json && text_table) text_table();
  }
};

void packet_report(const kevrcf_reader &r, Report &out) {
  const kevrcf_stats &s = r.stats;
  const double seconds = static_cast<double>(s.frames) / 50.0;
  const double bits = 8.0 * static_cast<double>(s.eighth * 2 + s.half * 10 + s.full * 22);
  out.text("type", "packet file");
  out.text("format", r.format == KEVRCF_FORMAT_QCP ? "QCP (RFC 3625)" : "storage format (RFC 3558)");
  out.number("frames", static_cast<double>(s.frames));
  out.number("duration", seconds, "%.2f");
  for (const auto &[name, count] : {std::pair{"eighth", s.eighth}, {"half", s.half}, {"full", s.full},
                                    {"blank", s.blank}, {"erasure", s.erasure}})
    out.number(name, static_cast<double>(count));
  out.number("bit_rate", seconds > 0 ? bits / seconds : 0);
  out.number("damaged", static_cast<double>(s.truncated + (s.unknown_octet >= 0 ? 1 : 0)));
  out.number("cut_off", static_cast<double>(s.truncated));
  out.number("unknown_octet", s.unknown_octet);
  out.number("unread_bytes", static_cast<double>(s.unread_bytes));
  if (r.format != KEVRCF_FORMAT_QCP) return;
  const kevrcf_qcp_info &q = r.qcp;
  out.text("codec", q.name);
  out.number("codec_version", q.codec_version);
  out.number("variable_rate", q.variable_rate);
  out.number("packet_size", q.packet_size);
  out.number("declared_packets", q.declared_packets);
}

bool audio_report(const std::string &path, Report &out, std::string &error) {
  SF_INFO info{};
  SNDFILE *f = sf_open(path.c_str(), SFM_READ, &info);
  if (f == nullptr) {
    error = path + ": neither a packet file nor audio libsndfile reads: " + sndfile_message(nullptr);
    return false;
  }
  out.text("type", "audio file");
  out.text("format", describe_format(info.format));
  out.number("sample_rate", info.samplerate);
  out.number("channels", info.channels);
  out.number("frames", static_cast<double>(info.frames));
  out.number("duration", info.samplerate > 0 ? static_cast<double>(info.frames) / info.samplerate : 0, "%.2f");
  sf_close(f);
  return true;
}

bool capture_report(const Options &opt, const std::string &path, Report &out, std::string &error) {
  CaptureInfo info;
  if (info_capture(path, opt.payload_type, &info, &error) != 0) return false;
  out.text("type", "RTP capture");
  const kevrc_cap_counters &c = info.counters;
  for (const auto &[name, count] : {std::pair{"records", c.records}, {"udp", c.udp}, {"non_ipv4", c.non_ipv4},
                                    {"fragments", c.fragments}, {"not_udp", c.not_udp}, {"truncated", c.truncated}})
    out.number(name, static_cast<double>(count));
  std::string streams = "[";
  for (const CaptureStreamInfo &i : info.streams) {
    const kevrc_cap_stream &s = i.stream;
    char item[256];
    std::snprintf(item, sizeof item,
                  "%s{\"ssrc\": %u, \"payload_type\": %d, \"format\": \"%s\", \"packets\": %lld, \"lost\": %lld, "
                  "\"reordered\": %lld, \"duplicates\": %lld, \"duration\": %.2f}",
                  streams.size() > 1 ? ", " : "", s.ssrc, s.payload_type,
                  s.format == KEVRC_RTP_FORMAT_INTERLEAVED ? "interleaved" : s.format >= 0 ? "header-free" : "other",
                  static_cast<long long>(s.packets), static_cast<long long>(s.lost),
                  static_cast<long long>(s.reordered), static_cast<long long>(s.duplicates), i.duration_s);
    streams += item;
  }
  if (opt.json) out.fields.emplace_back("streams", streams + "]");
  else out.text_table = [info] { print_capture_info(info, stdout); };
  return true;
}

// Fills out for one file; false with a message on failure.
bool inspect(const Options &opt, const std::string &path, Report &out, std::string &error) {
  out.text("file", path);
  if (is_capture(path)) return capture_report(opt, path, out, error);
  ByteSource source;
  if (!source.open(path, error)) return false;
  kevrcf_reader r;
  const int32_t opened = kevrcf_reader_open(&r, ByteSource::read, &source);
  if (opened == KEVRCF_ERR_NOT_PACKET && path != "-") return audio_report(path, out, error);
  kevrcf_packet p;
  int32_t status = opened;
  while (status == KEVRCF_OK && (status = kevrcf_reader_next(&r, &p)) == 1) status = KEVRCF_OK;
  if (status < 0) {
    error = path + ": " + kevrcf_strerror(status);
    return false;
  }
  packet_report(r, out);
  if (opt.strict && (r.stats.truncated != 0 || r.stats.unknown_octet >= 0)) {
    error = path + ": damaged packet file";
    return false;
  }
  return true;
}

}  // namespace

int command_info(int argc, char **argv) {
  Options opt;
  if (const int status = parse_command(kInfo, argc, argv, opt); status >= 0) return status;
  int status = kExitOk;
  for (size_t i = 0; i < opt.files.size(); ++i) {
    Report report;
    std::string error;
    if (!inspect(opt, opt.files[i], report, error)) {
      fail(error);
      status = kExitFailure;
      report.text("error", error);
      if (!opt.json) continue;
    }
    report.print(opt.json, i == 0);
  }
  if (opt.json) std::printf("\n]\n");
  return status;
}

}  // namespace kevrc::tool
