// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// measure_codec: the codec end to end on the held-out corpus files.
//
//   measure_codec OUTDIR [--max-rate N] [--min-rate N] [--no-ns] [--robust] [--root DIR]
//   measure_codec --rates [--max-rate N] [--min-rate N] [--root DIR]
//
// Encodes every held-out file (tools/support/corpus.h) with the given bounds
// (default 1..4, noise suppression on; --robust: the quality mode's rate
// decision, kevrce_set_robust), decodes the packets twice, with the
// postfilter on and off, and writes OUTDIR/pf/<n>.wav, OUTDIR/nopf/<n>.wav
// and two lists (OUTDIR/pf.list, OUTDIR/nopf.list: "REF DEC" per line) for
// kevrc_quality --list. Prints the rate shares, the average bit rate of
// the payloads (rate octets not counted: 800, 4000 and 8600 bit/s at eighth,
// half and full rate) and the encoding and decoding speed on this thread in
// frames per second (the library calls only; file I/O excluded).
//
// A design figure of the pitch coding is printed too: the adaptive
// codebook's prediction gain in the weighted domain, 10 log10 of the
// target's energy over the energy left after the scaled adaptive-codebook
// contribution, for the last subframe of every full- or half-rate frame
// whose target is not near silence (read from the encoder's work block).
//
// --rates compares the two rate decisions (classic: the standard one;
// robust: the quality mode's) with noise suppression on and off, writing
// nothing. Per file and configuration it prints the share of active frames
// coded at eighth rate ("act8"), the share of inactive frames coded at
// eighth rate ("ina8"), the average payload bit rate and "dmcd", the
// mel-cepstral distortion over the active frames (tools/quality.cpp's
// definition, postfilter on, reference through the codec's input
// high-pass) minus that of the same file coded at full rate only by the
// same mode (the quality mode also starts the noise suppressor
// differently, which alone moves a file's distortion by up to 1 dB), every
// version aligned at the delay searched on the full-rate one (the codec's
// delay does not depend on the rates; with noise suppression the searched
// delay of a single version can land far off); then the
// totals per configuration (shares over all frames, bit rate over all
// frames, dmcd averaged over the files and its largest value; "not lead":
// the inactive share leaving out the lead, the inactive packets among the
// three before an active one, where the envelope's smoothing has not yet
// caught up with a starting word) and the
// eighth-rate share of two loud stationary signals, a full-scale 200 Hz
// square wave and a 1 kHz sine 6 dB below full scale (4 s each).
//
// Active speech, in the manner of ITU-T P.56 (method B), on the input file:
// the envelope q is |x| through two first-order smoothers in cascade with
// time constant 0.03 s (g = exp(-1/240) at 8 kHz); for each threshold
// c_j = 2^j, j = 0..15 (16-bit units), a sample counts when q >= c_j or q
// reached c_j within the previous 0.2 s (1600 samples, the hangover); A_j
// is 10 log10 of the signal's energy over the count, and the active level A
// is where A_j - 20 log10 c_j falls to 15.9 dB, interpolated linearly in dB
// between the two thresholds around the crossing. The active samples are
// those counted at the threshold 15.9 dB below A, and a packet is active
// when more than half of the 160 input samples it codes are: packet k codes
// samples 160k - 80 .. 160k + 79, the encoder's analysis frame running half
// a frame ahead (the first packet: samples 0..79, of which more than 80
// cannot be active). A file without such a crossing (silence) has no
// active frame.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <kevrc/kevrc.h>
#include "encoder/encoder_state.h"
#include "tools/support/audio_io.h"
#include "tools/support/corpus.h"
#include "tools/support/quality_metrics.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Totals {
  long frames[5] = {};
  double encode_seconds = 0, decode_seconds[2] = {};
  double pitch_gain_db = 0;
  long pitch_frames = 0;
};

// Adds the last subframe's adaptive-codebook prediction gain of the frame.
void add_pitch_gain(const kevrce_work &w, Totals &t) {
  double target = 0, rest = 0;
  for (int n = 0; n < 54; ++n) {
    target += static_cast<double>(w.target[n]) * w.target[n];
    rest += static_cast<double>(w.target2[n]) * w.target2[n];
  }
  if (target < 54.0 * 100 * 100) return;  // below about -50 dBFS in the weighted domain
  t.pitch_gain_db += 10 * std::log10((target + 1) / (rest + 1));
  ++t.pitch_frames;
}

bool encode(const kevrce_config &cfg, bool robust, const std::vector<int16_t> &pcm,
            std::vector<std::vector<uint8_t>> &packets, Totals &t) {
  int32_t err = 0;
  kevrce_instance *enc = kevrce_create(&cfg, &err);
  if (enc == nullptr) return false;
  kevrce_set_robust(enc, robust ? 1 : 0);
  int16_t frame[160];
  uint8_t payload[24];
  const auto start = Clock::now();
  for (size_t k = 0; k + 160 <= pcm.size(); k += 160) {
    std::memcpy(frame, &pcm[k], sizeof frame);
    kevrc_pcm_buffer in = {};
    in.data[0] = frame;
    kevrc_bitstream_buffer out = {payload, 0, 0};
    kevrce_result res;
    if (kevrce_encode(enc, &in, &out, &res) != KEVRC_OK) {
      kevrce_delete(enc);
      return false;
    }
    std::vector<uint8_t> p{static_cast<uint8_t>(res.rate)};
    p.insert(p.end(), payload, payload + res.bytes);
    packets.push_back(std::move(p));
    ++t.frames[res.rate];
    const auto pause = Clock::now();
    if (res.rate != 1) add_pitch_gain(*enc->work, t);
    t.encode_seconds -= std::chrono::duration<double>(Clock::now() - pause).count();
  }
  t.encode_seconds += std::chrono::duration<double>(Clock::now() - start).count();
  kevrce_delete(enc);
  return true;
}

std::vector<int16_t> decode(std::vector<std::vector<uint8_t>> &packets, int postfilter, Totals &t) {
  kevrcd_config cfg = {1, 0, 0, 0, postfilter};
  int32_t err = 0;
  kevrcd_instance *dec = kevrcd_create(&cfg, &err);
  std::vector<int16_t> out(packets.size() * 160);
  const auto start = Clock::now();
  for (size_t k = 0; k < packets.size(); ++k) {
    kevrc_bitstream_buffer in = {packets[k].data(), 0, static_cast<int32_t>(packets[k].size())};
    kevrc_pcm_buffer pcm = {};
    pcm.data[0] = &out[k * 160];
    kevrcd_result res;
    kevrcd_decode(dec, &in, &pcm, &res);
  }
  t.decode_seconds[postfilter] += std::chrono::duration<double>(Clock::now() - start).count();
  kevrcd_delete(dec);
  return out;
}


// ------------------------------------------------------------ --rates

// Active samples in the manner of ITU-T P.56 (opening comment).
std::vector<bool> active_samples(const std::vector<int16_t> &x) {
  constexpr int kThresholds = 16;
  constexpr long kHangover = 1600;  // 0.2 s
  constexpr double kMargin = 15.9;  // dB
  const double g = std::exp(-1.0 / (0.03 * 8000));
  std::vector<double> q(x.size());
  double p1 = 0, p2 = 0, energy = 0;
  for (size_t n = 0; n < x.size(); ++n) {
    p1 = g * p1 + (1 - g) * std::abs(static_cast<double>(x[n]));
    p2 = g * p2 + (1 - g) * p1;
    q[n] = p2;
    energy += static_cast<double>(x[n]) * x[n];
  }
  auto marks = [&](double c) {
    std::vector<bool> m(x.size());
    long since = kHangover;
    for (size_t n = 0; n < x.size(); ++n) {
      since = q[n] >= c ? 0 : since + 1;
      m[n] = since < kHangover;
    }
    return m;
  };
  double prev_a = 0, prev_diff = 0;
  for (int j = 0; j < kThresholds; ++j) {
    const double c_db = 20 * std::log10(std::ldexp(1.0, j));
    const std::vector<bool> m = marks(std::ldexp(1.0, j));
    const long count = std::count(m.begin(), m.end(), true);
    if (count == 0) break;
    const double a = 10 * std::log10(energy / static_cast<double>(count));
    const double diff = a - c_db;
    if (diff <= kMargin && j > 0) {
      const double level = prev_a + (a - prev_a) * (prev_diff - kMargin) / (prev_diff - diff);
      return marks(std::pow(10.0, (level - kMargin) / 20));
    }
    prev_a = a;
    prev_diff = diff;
  }
  return std::vector<bool>(x.size(), false);
}

// Packet k codes input samples 160k - 80 .. 160k + 79 (the encoder's
// analysis runs half a frame ahead): it is active when more than 80 of them are.
std::vector<bool> active_frames(const std::vector<bool> &samples) {
  std::vector<bool> frames(samples.size() / 160);
  for (size_t f = 0; f < frames.size(); ++f) {
    const size_t first = f == 0 ? 0 : f * 160 - 80;
    frames[f] = 2 * std::count(samples.begin() + first, samples.begin() + f * 160 + 80, true) > 160;
  }
  return frames;
}

struct Coded {
  std::vector<int> rates;
  std::vector<int16_t> decoded;  // postfilter on
};

bool code(const std::vector<int16_t> &pcm, kevrce_config cfg, bool robust, Coded &out) {
  std::vector<std::vector<uint8_t>> packets;
  Totals t;
  if (!encode(cfg, robust, pcm, packets, t)) return false;
  out.rates.clear();
  for (const auto &p : packets) out.rates.push_back(p[0]);
  out.decoded = decode(packets, 1, t);
  return true;
}

// Rate figures of one file or of a configuration's total.
struct RateFigures {
  long active = 0, active8 = 0, inactive = 0, inactive8 = 0, frames = 0;
  long lead = 0, lead8 = 0;  // inactive packets among the 3 before an active one
  double bits = 0, dmcd_sum = 0, dmcd_max = -1e9;
  long files = 0;
  void add(const RateFigures &f) {
    active += f.active, active8 += f.active8, inactive += f.inactive, inactive8 += f.inactive8;
    lead += f.lead, lead8 += f.lead8;
    frames += f.frames, bits += f.bits;
    dmcd_sum += f.dmcd_sum, dmcd_max = std::max(dmcd_max, f.dmcd_max), files += f.files;
  }
  double act8() const { return active ? 100.0 * active8 / active : 0; }
  double ina8() const { return inactive ? 100.0 * inactive8 / inactive : 0; }
  double ina8_after_lead() const {
    return inactive > lead ? 100.0 * (inactive8 - lead8) / (inactive - lead) : 0;
  }
  double kbps() const { return frames ? bits / (frames / 50.0) / 1000 : 0; }
};

RateFigures rate_figures(const std::vector<int> &rates, const std::vector<bool> &active) {
  RateFigures f;
  for (size_t k = 0; k < rates.size() && k < active.size(); ++k) {
    const bool eighth = rates[k] == 1;
    (active[k] ? f.active : f.inactive) += 1;
    (active[k] ? f.active8 : f.inactive8) += eighth ? 1 : 0;
    const auto next = active.begin() + static_cast<long>(k) + 1;
    const auto end = active.begin() + static_cast<long>(std::min(k + 4, active.size()));
    const bool lead = !active[k] && std::find(next, end, true) != end;
    f.lead += lead ? 1 : 0;
    f.lead8 += lead && eighth ? 1 : 0;
    f.bits += rates[k] == 1 ? 16 : rates[k] == 3 ? 80 : 172;
    ++f.frames;
  }
  return f;
}

// MCD over the marked frames; lag: the alignment to use (-401: searched),
// set to the one used.
double active_mcd(const std::vector<int16_t> &ref, const std::vector<int16_t> &dec, const std::vector<bool> &marks,
                  int &lag) {
  kevrc::quality::Figures fig;
  kevrc::quality::compare_signals(std::vector<double>(ref.begin(), ref.end()),
                                  std::vector<double>(dec.begin(), dec.end()), true, marks, fig, lag);
  lag = fig.delay;
  return fig.mcd;
}

// Eighth-rate share (%) of a generated signal under a configuration.
double eighth_share(const std::vector<int16_t> &pcm, const kevrce_config &cfg, bool robust) {
  Coded c;
  if (!code(pcm, cfg, robust, c)) return -1;
  return 100.0 * static_cast<double>(std::count(c.rates.begin(), c.rates.end(), 1)) / static_cast<double>(c.rates.size());
}

int compare_rates(const kevrce_config &bounds, const std::string &root) {
  const std::vector<std::string> files = kevrc::corpus::files(kevrc::corpus::Split::HeldOut, root);
  if (files.empty()) {
    std::fprintf(stderr, "measure_codec: no corpus under %s\n", root.c_str());
    return 1;
  }
  const char *const names[4] = {"classic+ns", "robust+ns", "classic", "robust"};
  RateFigures totals[4];
  std::printf("# file frames active | per configuration (%s, %s, %s, %s): act8 %% ina8 %% kbit/s dmcd dB\n",
              names[0], names[1], names[2], names[3]);
  for (const std::string &name : files) {
    std::vector<int16_t> pcm;
    std::string error;
    if (!kevrc::corpus::read_pcm(root + "/" + name, pcm, error)) {
      std::fprintf(stderr, "measure_codec: %s\n", error.c_str());
      return 1;
    }
    pcm.resize((pcm.size() + 159) / 160 * 160, 0);
    const std::vector<bool> marks = active_samples(pcm);
    const std::vector<bool> active = active_frames(marks);
    std::printf("%s %zu %ld |", name.c_str(), active.size(), static_cast<long>(std::count(active.begin(), active.end(), true)));
    for (int ns = 1; ns >= 0; --ns) {
      kevrce_config cfg = bounds;
      cfg.noise_suppression = ns;
      kevrce_config full = cfg;
      full.min_rate = full.max_rate = 4;
      Coded reference[2];
      int lag = -401;  // searched on the standard full-rate version, kept for the others
      double full_mcd[2];
      for (int robust = 0; robust < 2; ++robust) {
        if (!code(pcm, full, robust != 0, reference[robust])) return 1;
        full_mcd[robust] = active_mcd(pcm, reference[robust].decoded, marks, lag);
      }
      for (int robust = 0; robust < 2; ++robust) {
        Coded c;
        if (!code(pcm, cfg, robust != 0, c)) return 1;
        RateFigures f = rate_figures(c.rates, active);
        const double dmcd = active_mcd(pcm, c.decoded, marks, lag) - full_mcd[robust];
        f.dmcd_sum = f.dmcd_max = dmcd;
        f.files = 1;
        totals[2 * (1 - ns) + robust].add(f);
        std::printf(" %5.1f %5.1f %4.2f %5.2f", f.act8(), f.ina8(), f.kbps(), dmcd);
      }
    }
    std::printf("\n");
    std::fflush(stdout);
  }
  std::printf("\nconfiguration  active->eighth  inactive->eighth (not lead)  kbit/s  dmcd mean  dmcd max\n");
  for (int c = 0; c < 4; ++c) {
    const RateFigures &f = totals[c];
    std::printf("%-12s  %12.2f %%  %14.1f %% (%5.1f %%)  %6.3f  %6.3f dB  %6.2f dB\n", names[c], f.act8(), f.ina8(),
                f.ina8_after_lead(), f.kbps(), f.dmcd_sum / static_cast<double>(f.files), f.dmcd_max);
  }
  std::vector<int16_t> square(32000), tone(32000);
  for (size_t n = 0; n < square.size(); ++n) {
    square[n] = (n / 20) % 2 ? -32767 : 32767;
    tone[n] = static_cast<int16_t>(std::lround(16422 * std::sin(2 * 3.14159265358979 * 1000 * static_cast<double>(n) / 8000)));
  }
  std::printf("\neighth-rate share   square 200 Hz   sine 1 kHz -6 dB\n");
  for (int c = 0; c < 4; ++c) {
    kevrce_config cfg = bounds;
    cfg.noise_suppression = c < 2 ? 1 : 0;
    std::printf("%-12s  %12.1f %%  %14.1f %%\n", names[c], eighth_share(square, cfg, c % 2 == 1),
                eighth_share(tone, cfg, c % 2 == 1));
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const char *const usage =
      "usage: measure_codec OUTDIR [--max-rate N] [--min-rate N] [--no-ns] [--robust] [--root DIR]\n"
      "       measure_codec --rates [--max-rate N] [--min-rate N] [--root DIR]\n";
  if (argc >= 2 && std::strcmp(argv[1], "--help") == 0) {
    std::fputs(usage, stdout);
    return 0;
  }
  if (argc < 2) {
    std::fputs(usage, stderr);
    return 2;
  }
  const std::string dir = argv[1];
  kevrce_config cfg = {4, 1, 0, 1};
  std::string root = kevrc::corpus::kDefaultRoot;
  bool robust = false;
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--max-rate" && i + 1 < argc) cfg.max_rate = std::atoi(argv[++i]);
    else if (a == "--min-rate" && i + 1 < argc) cfg.min_rate = std::atoi(argv[++i]);
    else if (a == "--no-ns") cfg.noise_suppression = 0;
    else if (a == "--robust") robust = true;
    else if (a == "--root" && i + 1 < argc) root = argv[++i];
    else {
      std::fprintf(stderr, "measure_codec: unknown option %s\n", a.c_str());
      return 2;
    }
  }
  kevrc_init();
  if (dir == "--rates") return compare_rates(cfg, root);
  mkdir(dir.c_str(), 0777);
  const char *const kinds[2] = {"nopf", "pf"};
  FILE *lists[2];
  for (int pf = 0; pf < 2; ++pf) {
    mkdir((dir + "/" + kinds[pf]).c_str(), 0777);
    lists[pf] = std::fopen((dir + "/" + kinds[pf] + ".list").c_str(), "w");
    if (lists[pf] == nullptr) {
      std::fprintf(stderr, "measure_codec: cannot write in %s\n", dir.c_str());
      return 1;
    }
  }
  const std::vector<std::string> files = kevrc::corpus::files(kevrc::corpus::Split::HeldOut, root);
  if (files.empty()) {
    std::fprintf(stderr, "measure_codec: no corpus under %s\n", root.c_str());
    return 1;
  }
  Totals t;
  for (size_t i = 0; i < files.size(); ++i) {
    const std::string ref = root + "/" + files[i];
    std::vector<int16_t> pcm;
    std::string error;
    if (!kevrc::corpus::read_pcm(ref, pcm, error)) {
      std::fprintf(stderr, "measure_codec: %s\n", error.c_str());
      continue;
    }
    pcm.resize((pcm.size() + 159) / 160 * 160, 0);
    std::vector<std::vector<uint8_t>> packets;
    if (!encode(cfg, robust, pcm, packets, t)) {
      std::fprintf(stderr, "measure_codec: encoding %s failed\n", ref.c_str());
      return 1;
    }
    for (int pf = 0; pf < 2; ++pf) {
      const std::vector<int16_t> out = decode(packets, pf, t);
      const std::string path = dir + "/" + kinds[pf] + "/" + std::to_string(i) + ".wav";
      if (!kevrc::audio::write_wav16(path, out.data(), out.size(), 8000, 1, error)) {
        std::fprintf(stderr, "measure_codec: %s\n", error.c_str());
        return 1;
      }
      std::fprintf(lists[pf], "%s %s\n", ref.c_str(), path.c_str());
    }
  }
  for (FILE *f : lists) std::fclose(f);
  const long total = t.frames[1] + t.frames[3] + t.frames[4];
  const double bits = 16.0 * t.frames[1] + 80.0 * t.frames[3] + 172.0 * t.frames[4];
  std::printf("files %zu, frames %ld (%.1f s)\n", files.size(), total, total / 50.0);
  std::printf("rate shares: eighth %.1f %%, half %.1f %%, full %.1f %%\n", 100.0 * t.frames[1] / total,
              100.0 * t.frames[3] / total, 100.0 * t.frames[4] / total);
  std::printf("average payload bit rate %.0f bit/s\n", bits / (total / 50.0));
  std::printf("adaptive-codebook prediction gain %.2f dB over %ld frames\n",
              t.pitch_gain_db / static_cast<double>(t.pitch_frames ? t.pitch_frames : 1), t.pitch_frames);
  std::printf("speed: encode %.0f frames/s, decode %.0f (postfilter on) / %.0f (off) frames/s\n",
              total / t.encode_seconds, total / t.decode_seconds[1], total / t.decode_seconds[0]);
  return 0;
}
