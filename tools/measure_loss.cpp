// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// measure_loss: speech quality after packet loss, per RTP payload format.
//
//   measure_loss [--files N] [--seed S] [FILE.wav ...]
//
// Each input (the given files, else the first N held-out corpus files,
// default 40) is encoded to a capture in three formats: header-free (one
// frame per packet), bundled (4 frames per packet) and interleaved (4 frames
// per packet, interleave length 3: a group of 16 frames over 4 packets).
// Each capture is read back, and 0, 3, 10 and 20 % of its packets are
// dropped (independently, seeded); 5 % of the remaining packets swap places
// with the next one (reordering within the jitter window). The edited
// capture is decoded (lost frames concealed) and compared with the input:
// the decoded length must equal the input's frames, and the figures of
// kevrc_quality (segmental SNR, log-spectral distance, mel-cepstral
// distortion over active frames) are averaged over the files. Prints a
// Markdown table: format, loss, packets lost, erased frames, figures, and
// the number of files whose decoded length differed.
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "tools/kevrc/rtp_capture.h"
#include "tools/support/audio_io.h"
#include "tools/support/corpus.h"
#include "tools/support/quality_metrics.h"

namespace {

using kevrc::tool::CaptureStreamInfo;
using kevrc::tool::DecodedStream;

struct Format {
  const char *name;
  int32_t format, bundle, interleave;
};
constexpr Format kFormats[] = {{"header-free", KEVRC_RTP_FORMAT_HEADER_FREE, 1, 0},
                               {"bundled B=4", KEVRC_RTP_FORMAT_INTERLEAVED, 4, 0},
                               {"interleaved B=4 L=3", KEVRC_RTP_FORMAT_INTERLEAVED, 4, 3}};
constexpr int kLossPercent[] = {0, 3, 10, 20};
constexpr double kReorderShare = 0.05;

struct Cell {
  double segsnr = 0, lsd = 0, mcd = 0;
  int64_t packets = 0, lost = 0, erasures = 0, frames = 0;
  int files = 0, length_mismatches = 0;
};

struct Packet {
  int64_t time_us;
  std::vector<uint8_t> bytes;
};

std::string temp_path(const char *tag) {
  return std::string("/tmp/measure_loss_") + std::to_string(getpid()) + "_" + tag + ".pcap";
}

bool read_packets(const std::string &path, std::vector<Packet> &packets, std::string &error) {
  int32_t err = 0;
  char message[256] = "";
  kevrc_cap_reader *r = kevrc_cap_open(path.c_str(), &err, message, sizeof message);
  if (r == nullptr) return error = path + ": " + message, false;
  kevrc_cap_udp u;
  while (kevrc_cap_next(r, &u) == 1) packets.push_back({u.time_us, {u.payload, u.payload + u.length}});
  kevrc_cap_close(r);
  return true;
}

// Drops each packet with probability loss and lets 5 % of the rest swap
// places with their successor.
std::vector<Packet> damage(const std::vector<Packet> &in, double loss, std::mt19937 &rng) {
  std::bernoulli_distribution drop(loss), swap(kReorderShare);
  std::vector<Packet> out;
  for (const Packet &p : in)
    if (!drop(rng)) out.push_back(p);
  for (size_t i = 0; i + 1 < out.size(); ++i)
    if (swap(rng)) std::swap(out[i].bytes, out[i + 1].bytes), ++i;
  return out;
}

bool write_packets(const std::string &path, const std::vector<Packet> &packets, std::string &error) {
  const kevrc_cap_endpoints ends = {0x7f000001, 0x7f000001, 5004, 5004};
  int32_t err = 0;
  char message[256] = "";
  kevrc_cap_writer *w = kevrc_cap_writer_open(path.c_str(), &ends, &err, message, sizeof message);
  if (w == nullptr) return error = path + ": " + message, false;
  for (const Packet &p : packets)
    kevrc_cap_write(w, p.time_us, p.bytes.data(), static_cast<int32_t>(p.bytes.size()));
  return kevrc_cap_writer_close(w) == KEVRC_CAP_OK || (error = path + ": write failed", false);
}

// Decodes the capture's single stream into pcm.
bool decode(const std::string &path, int64_t frames, std::vector<int16_t> &pcm, DecodedStream &report,
            std::string &error) {
  kevrc::tool::DecodeCaptureOptions opt;
  opt.in = path;
  opt.payload_type = 97;
  opt.first_timestamp = 0;
  opt.frames = frames;
  auto open = [&pcm](const CaptureStreamInfo &, std::string *) -> kevrc::tool::FrameSink {
    return [&pcm](const int16_t *frame, std::string *) {
      pcm.insert(pcm.end(), frame, frame + KEVRC_FRAME_SAMPLES);
      return true;
    };
  };
  std::vector<DecodedStream> reports;
  if (kevrc::tool::decode_capture(opt, open, &error, &reports) != 0) return false;
  report = reports.at(0);
  return true;
}

bool encode(const std::vector<int16_t> &input, const Format &f, const std::string &path, std::string &error) {
  kevrc::tool::EncodeToCaptureOptions opt;
  opt.out = path;
  opt.format = f.format;
  opt.bundle = f.bundle;
  opt.interleave = f.interleave;
  size_t at = 0;
  auto source = [&](int16_t *frame) {
    if (at >= input.size()) return false;
    for (size_t i = 0; i < KEVRC_FRAME_SAMPLES; ++i, ++at) frame[i] = at < input.size() ? input[at] : 0;
    return true;
  };
  return kevrc::tool::encode_to_capture(opt, source, &error) == 0;
}

// One file through every format and loss rate.
bool measure_file(const std::vector<int16_t> &input, unsigned seed, Cell (&cells)[3][4], std::string &error) {
  const std::string clean = temp_path("clean"), damaged = temp_path("damaged");
  const size_t frames = (input.size() + KEVRC_FRAME_SAMPLES - 1) / KEVRC_FRAME_SAMPLES;
  const std::vector<double> reference(input.begin(), input.end());
  for (size_t f = 0; f < 3; ++f) {
    std::vector<Packet> packets;
    if (!encode(input, kFormats[f], clean, error) || !read_packets(clean, packets, error)) return false;
    for (size_t l = 0; l < 4; ++l) {
      std::mt19937 rng(seed * 16 + static_cast<unsigned>(f * 4 + l));
      std::vector<int16_t> pcm;
      DecodedStream report;
      if (!write_packets(damaged, damage(packets, kLossPercent[l] / 100.0, rng), error) ||
          !decode(damaged, static_cast<int64_t>(frames), pcm, report, error))
        return false;
      Cell &c = cells[f][l];
      c.length_mismatches += pcm.size() != frames * KEVRC_FRAME_SAMPLES;
      kevrc::quality::Figures fig;
      if (!kevrc::quality::compare_signals(reference, {pcm.begin(), pcm.end()}, true, fig)) continue;
      c.segsnr += fig.segsnr;
      c.lsd += fig.lsd;
      c.mcd += fig.mcd;
      c.packets += static_cast<int64_t>(packets.size());
      c.lost += static_cast<int64_t>(packets.size()) - report.counters.received;
      c.erasures += report.counters.erasures;
      c.frames += static_cast<int64_t>(frames);
      ++c.files;
    }
  }
  std::remove(clean.c_str());
  std::remove(damaged.c_str());
  return true;
}

void print_table(const Cell (&cells)[3][4]) {
  std::printf("| format | drop | packets lost | frames erased | segSNR dB | LSD dB | MCD dB | length errors |\n");
  std::printf("|---|---|---|---|---|---|---|---|\n");
  for (size_t f = 0; f < 3; ++f) {
    for (size_t l = 0; l < 4; ++l) {
      const Cell &c = cells[f][l];
      const double n = c.files > 0 ? c.files : 1;
      std::printf("| %s | %d %% | %.1f %% | %.1f %% | %.2f | %.2f | %.2f | %d |\n", kFormats[f].name, kLossPercent[l],
                  100.0 * static_cast<double>(c.lost) / static_cast<double>(c.packets > 0 ? c.packets : 1),
                  100.0 * static_cast<double>(c.erasures) / static_cast<double>(c.frames > 0 ? c.frames : 1),
                  c.segsnr / n, c.lsd / n, c.mcd / n, c.length_mismatches);
    }
  }
}

}  // namespace

int main(int argc, char **argv) {
  size_t max_files = 40;
  unsigned seed = 1;
  std::vector<std::string> paths;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--files" && i + 1 < argc) {
      max_files = std::strtoul(argv[++i], nullptr, 10);
    } else if (a == "--seed" && i + 1 < argc) {
      seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
    } else if (a == "--help" || a == "-h") {
      std::printf("usage: measure_loss [--files N] [--seed S] [FILE.wav ...]\n");
      return 0;
    } else if (a[0] == '-') {
      std::fprintf(stderr, "measure_loss: unknown option %s\n", a.c_str());
      return 2;
    } else {
      paths.push_back(a);
    }
  }
  if (paths.empty()) {
    for (const std::string &rel : kevrc::corpus::files(kevrc::corpus::Split::HeldOut))
      if (paths.size() < max_files) paths.push_back(std::string(kevrc::corpus::kDefaultRoot) + "/" + rel);
    if (paths.empty()) {
      std::fprintf(stderr, "measure_loss: no input files and no corpus (scripts/install-deps.sh --corpus)\n");
      return 1;
    }
  }
  Cell cells[3][4];
  for (size_t i = 0; i < paths.size(); ++i) {
    std::vector<int16_t> input;
    std::string error;
    if (!kevrc::audio::read_pcm16_mono_8k(paths[i], input, error) ||
        !measure_file(input, seed + static_cast<unsigned>(i), cells, error)) {
      std::fprintf(stderr, "measure_loss: %s\n", error.c_str());
      return 1;
    }
  }
  std::printf("%zu files\n", paths.size());
  print_table(cells);
  return 0;
}
