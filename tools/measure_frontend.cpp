// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// measure_frontend: measures the encoder's front end with the compiled-in
// tables and prints a compact report.
//
//   measure_frontend [--root DIR] [--seconds S]
//
//  (a) Rate shares with bounds 1..4 on the held-out corpus files, on generated
//      noises alone (white, pink, brown, car, babble at -60..-30 dBFS) and on a
//      steady synthetic vowel.
//  (b) Eighth rate end to end: an encoder with max_rate 1 on background noise
//      (the generated noises at several levels) and on held-out speech mixed
//      with noise, each packet (rate byte 1 + 2 payload bytes) decoded by a
//      decoder with the postfilter on. Per frame, the decoded energy against
//      the energy of the samples the packet codes. The encoder overwrites the
//      caller's input with the high-passed, halved samples, and the packet of
//      call n codes analysis-buffer samples 80..239, that is the last 80
//      conditioned samples of call n - 1 and the first 80 of call n; the
//      decoder's output of that packet is compared with those samples (the
//      eighth-rate output is not doubled, so the levels are comparable as
//      they are). Mean absolute error in dB over frames whose input is above
//      a floor (RMS 8), split into frames whose three measured subframe
//      energies lie inside the energy table's range (-2988..17596; the target
//      applies to these) and louder frames, which the table's top row caps.
//      The error against the whole previous input frame is printed too, and
//      a least-squares line of the in-range error against the frame's
//      prediction gain (coded input energy over its short-term residual's).
//      All of it in the classic and the robust mode (kevrce_set_robust);
//      noisy speech is held-out speech with noise at 10 dB SNR. Then a table
//      of the in-range level error per noise type, classic and robust, with
//      max_rate 1 and with bounds 1..4 (eighth-rate frames only).
//  (c) Front-end speed: frames per second of kevrce_encode with max_rate 1 on
//      one core.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <kevrc/kevrc.h>
#include <kevrc/kevrc_kernels.h>
#include "encoder/encoder_state.h"
#include "tools/support/corpus.h"
#include "tools/support/material.h"
#include "tools/support/noise_gen.h"

namespace {

using namespace kevrc::train;
namespace corpus = kevrc::corpus;

constexpr uint64_t kSeedNoise = 0x5EED4001;  // measurement noise tracks (+ type)
constexpr double kFloorRms = 8.0;            // frames below this input RMS are not scored
constexpr int kSettleFrames = 4;             // first packets of a stream not scored

struct Options {
  std::string root = corpus::kDefaultRoot;
  double seconds = 10.0;  // per generated noise item
};

class Encoder {
 public:
  Encoder(int max_rate, int min_rate, int robust = 0) {
    kevrce_config cfg = {max_rate, min_rate, 0, 0};
    int32_t err = 0;
    enc_ = kevrce_create(&cfg, &err);
    if (enc_ != nullptr) kevrce_set_robust(enc_, robust);
  }
  ~Encoder() { kevrce_delete(enc_); }
  Encoder(const Encoder &) = delete;
  Encoder &operator=(const Encoder &) = delete;
  bool ok() const { return enc_ != nullptr; }
  // Encodes 160 samples in place (they become the conditioned samples);
  // returns the rate (from the result, or -1 on failure) and the payload.
  int encode(int16_t *samples, uint8_t *payload) {
    kevrc_pcm_buffer in = {};
    in.data[0] = samples;
    in.samples[0] = 160;
    kevrc_bitstream_buffer out = {payload, 0, KEVRC_ENCODER_BUFFER_BYTES};
    kevrce_result result = {-1, 0};
    const int32_t status = kevrce_encode(enc_, &in, &out, &result);
    return status == KEVRC_OK ? result.rate : (status == KEVRC_ERR_UNSUPPORTED ? 0 : -1);
  }
  kevrce_instance *get() { return enc_; }

 private:
  kevrce_instance *enc_ = nullptr;
};

// Rate of a frame: the reported one, or for a frame that kevrce_encode
// reports as not yet codable (-3, rates 3 and 4 in this release) the
// instance's current rate.
int rate_of(Encoder &e, int reported) { return reported > 0 ? reported : e.get()->rate; }

// ---- (a) rate shares ---------------------------------------------------------------

struct RateShare {
  size_t frames = 0, count[5] = {};
  void add(int rate) {
    ++frames;
    if (rate >= 0 && rate <= 4) ++count[rate];
  }
  void print(const char *label) const {
    const double n = frames ? static_cast<double>(frames) : 1.0;
    std::printf("  %-28s frames %7zu  eighth %5.1f %%  half %5.1f %%  full %5.1f %%\n", label,
                frames, 100.0 * count[1] / n, 100.0 * count[3] / n, 100.0 * count[4] / n);
  }
};

// Counts the rates of the frames after the first skip_frames (at least the
// first frame, which is coded at max_rate by rule).
void rate_shares(const std::vector<int16_t> &pcm, RateShare &share, size_t skip_frames = 1) {
  Encoder e(4, 1);
  if (!e.ok()) return;
  uint8_t payload[KEVRC_ENCODER_BUFFER_BYTES];
  for (size_t off = 0; off + 160 <= pcm.size(); off += 160) {
    int16_t buf[160];
    std::memcpy(buf, pcm.data() + off, sizeof buf);
    const int r = rate_of(e, e.encode(buf, payload));
    if (off / 160 >= skip_frames) share.add(r);
  }
}

// ---- (b) eighth rate end to end ----------------------------------------------------------

double energy_db(const int16_t *x, size_t n) {
  double e = 0;
  for (size_t i = 0; i < n; ++i) e += static_cast<double>(x[i]) * x[i];
  return 10.0 * std::log10(e / static_cast<double>(n) + 1e-3);
}

struct LevelError {
  struct Part {
    size_t frames = 0;
    double abs_sum = 0, sum = 0, abs_prev_sum = 0;
  };
  // Mean level error (dB) of the in-range frames.
  double bias() const { return in_range.frames ? in_range.sum / static_cast<double>(in_range.frames) : 0.0; }
  Part in_range, beyond;
  // Least-squares line of the in-range error against the prediction gain.
  double fit_n = 0, fit_x = 0, fit_y = 0, fit_xx = 0, fit_xy = 0;
  void print_fit() const {
    if (fit_n < 2) return;
    const double mx = fit_x / fit_n, my = fit_y / fit_n;
    const double var = fit_xx / fit_n - mx * mx;
    const double slope = var > 0 ? (fit_xy / fit_n - mx * my) / var : 0.0;
    std::printf(
        "  in-range error against the frame's prediction gain G (input / residual, dB):\n"
        "    error = %+.2f dB %+.3f * G   (mean G %.1f dB)\n",
        my - slope * mx, slope, mx);
  }
  void print(const char *label) const {
    const Part &a = in_range;
    const double n = a.frames ? static_cast<double>(a.frames) : 1.0;
    const double nb = beyond.frames ? static_cast<double>(beyond.frames) : 1.0;
    std::printf(
        "  %-26s in range %6zu fr: |err| %5.2f dB bias %+5.2f (prev frame %5.2f) | beyond %6zu fr: "
        "|err| %5.2f dB\n",
        label, a.frames, a.abs_sum / n, a.sum / n, a.abs_prev_sum / n, beyond.frames,
        beyond.abs_sum / nb);
  }
  void merge(const LevelError &o) {
    for (int k = 0; k < 2; ++k) {
      Part &d = k ? beyond : in_range;
      const Part &s = k ? o.beyond : o.in_range;
      d.frames += s.frames;
      d.abs_sum += s.abs_sum;
      d.sum += s.sum;
      d.abs_prev_sum += s.abs_prev_sum;
    }
    fit_n += o.fit_n;
    fit_x += o.fit_x;
    fit_y += o.fit_y;
    fit_xx += o.fit_xx;
    fit_xy += o.fit_xy;
  }
};

// Encodes pcm with bounds min_rate..max_rate (and the quality mode on or
// off), decodes every packet with the postfilter on and scores the frames
// coded at eighth rate.
bool eighth_rate_round_trip(const std::vector<int16_t> &pcm, LevelError &err, int max_rate = 1,
                            int robust = 0) {
  Encoder e(max_rate, 1, robust);
  kevrcd_config dcfg = {1, 0, 0, 0, 1};
  int32_t status = 0;
  kevrcd_instance *dec = kevrcd_create(&dcfg, &status);
  if (!e.ok() || dec == nullptr) {
    kevrcd_delete(dec);
    return false;
  }
  std::vector<int16_t> conditioned;  // the encoder's conditioned input, call after call
  bool ok = true;
  for (size_t off = 0, n = 0; off + 160 <= pcm.size(); off += 160, ++n) {
    int16_t buf[160];
    std::memcpy(buf, pcm.data() + off, sizeof buf);
    uint8_t packet[1 + KEVRC_ENCODER_BUFFER_BYTES] = {};
    const int r = e.encode(buf, packet + 1);
    conditioned.insert(conditioned.end(), buf, buf + 160);
    if (r != 1 && (max_rate == 1 || (r != 3 && r != 4))) {
      ok = false;
      break;
    }
    packet[0] = static_cast<uint8_t>(r);
    int16_t out[160] = {};
    kevrc_bitstream_buffer in = {packet, 0, r == 1 ? 3 : r == 3 ? 11 : 23};
    kevrc_pcm_buffer o = {};
    o.data[0] = out;
    kevrcd_result res = {};
    if (kevrcd_decode(dec, &in, &o, &res) != KEVRC_OK) {
      ok = false;
      break;
    }
    if (r != 1) continue;
    if (n < kSettleFrames) continue;
    // Coded samples: conditioned[(n - 1) * 160 + 80 .. n * 160 + 80).
    const int16_t *coded = conditioned.data() + (n - 1) * 160 + 80;
    const int16_t *prev = conditioned.data() + (n - 1) * 160;
    const double in_db = energy_db(coded, 160);
    if (in_db < 20.0 * std::log10(kFloorRms)) continue;
    const double d = energy_db(out, 160) - in_db;
    // In range: the three measured subframe energies lie inside the energy
    // table's -2988..17596 (louder frames are capped by the table's top row).
    bool in_range = true;
    for (int k = 0; k < 3; ++k) {
      const int16_t m = e.get()->work->lbr_measured[k];
      in_range = in_range && m >= -2988 && m <= 17596;
    }
    if (in_range) {
      // Prediction gain of the frame: coded input over its short-term residual.
      const double x = in_db - energy_db(e.get()->work->residual + 80, 160);
      err.fit_n += 1;
      err.fit_x += x;
      err.fit_y += d;
      err.fit_xx += x * x;
      err.fit_xy += x * d;
    }
    LevelError::Part &p = in_range ? err.in_range : err.beyond;
    ++p.frames;
    p.sum += d;
    p.abs_sum += std::fabs(d);
    p.abs_prev_sum += std::fabs(energy_db(out, 160) - energy_db(prev, 160));
  }
  kevrcd_delete(dec);
  return ok;
}

// ---- (c) speed -------------------------------------------------------------------------

double encode_speed(const std::vector<int16_t> &pcm, int max_rate, size_t frames) {
  Encoder e(max_rate, 1);
  if (!e.ok() || pcm.size() < 160) return 0.0;
  const size_t avail = pcm.size() / 160;
  uint8_t payload[KEVRC_ENCODER_BUFFER_BYTES];
  const auto t0 = std::chrono::steady_clock::now();
  for (size_t n = 0; n < frames; ++n) {
    int16_t buf[160];
    std::memcpy(buf, pcm.data() + (n % avail) * 160, sizeof buf);
    e.encode(buf, payload);
  }
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  return s > 0 ? static_cast<double>(frames) / s : 0.0;
}

int run(const Options &o) {
  const std::vector<std::string> held = corpus::files(corpus::Split::HeldOut, o.root);
  std::vector<std::vector<int16_t>> speech;
  for (const std::string &rel : held) {
    std::vector<int16_t> pcm;
    std::string err;
    if (corpus::read_pcm(o.root + "/" + rel, pcm, err)) speech.push_back(std::move(pcm));
  }
  bool search_installed = false;
  for (int i = 0; i < 768; ++i)
    search_installed = search_installed || kevrce_tbl_energy_search[i] != 0;
  std::printf("measure_frontend: %zu held-out files under %s; energy search table %s\n",
              speech.size(), o.root.c_str(),
              search_installed ? "installed" : "ALL ZERO (placeholder)");
  // Noise tracks; babble from held-out files.
  std::vector<std::string> babble_sources;
  for (size_t k = 0; k < 8 && !held.empty(); ++k)
    babble_sources.push_back(held[(k * held.size()) / 8]);
  const size_t track = static_cast<size_t>(8000 * 60);
  std::vector<std::vector<double>> noises;
  for (int t = 0; t < 4; ++t)
    noises.push_back(make_noise(static_cast<NoiseType>(t), track, kSeedNoise + t));
  noises.push_back(babble_sources.empty()
                       ? make_noise(NoiseType::Pink, track, kSeedNoise + 9)
                       : make_babble(o.root, babble_sources, track, kSeedNoise + 4));
  const double levels[4] = {-60, -50, -40, -30};
  const size_t item = static_cast<size_t>(8000 * o.seconds);

  // (a)
  std::printf("(a) rate shares, bounds 1..4 (each stream's first frame left out):\n");
  RateShare clean, noise_only, vowel, vowel_after_background;
  for (const auto &s : speech) rate_shares(s, clean);
  for (int t = 0; t < 5; ++t)
    for (double l : levels)
      rate_shares(noise_segment(noises[static_cast<size_t>(t)], 8000u * 3u * t, item, l),
                  noise_only);
  const std::vector<int16_t> steady = steady_vowel(static_cast<size_t>(8000 * 10), 120.0);
  rate_shares(steady, vowel);
  // The rate decision takes what the first frames hold as the background; a
  // vowel from the very first frame is that background. After a second of
  // quiet pink noise it is speech.
  std::vector<int16_t> after = noise_segment(noises[1], 0, 8000, -60);
  after.insert(after.end(), steady.begin(), steady.end());
  rate_shares(after, vowel_after_background, 50);
  clean.print("held-out speech");
  noise_only.print("noise only (5 types x 4 levels)");
  vowel.print("steady synthetic vowel");
  vowel_after_background.print("same after 1 s of background");

  // (b)
  std::printf(
      "(b) eighth rate end to end, decoded vs coded input energy on eighth-rate frames (floor RMS "
      "%.0f):\n",
      kFloorRms);
  bool ok = true;
  for (int robust = 0; robust < 2; ++robust) {
    std::printf(" %s mode, max_rate 1:\n", robust ? "robust" : "classic");
    LevelError all;
    for (int t = 0; t < 5; ++t) {
      LevelError per_type;
      for (double l : levels)
        ok = eighth_rate_round_trip(
                 noise_segment(noises[static_cast<size_t>(t)], 8000u * 5u * t, item, l), per_type,
                 1, robust) &&
             ok;
      char label[64];
      std::snprintf(label, sizeof label, "%s noise, -60..-30 dBFS",
                    noise_name(static_cast<NoiseType>(t)));
      per_type.print(label);
      all.merge(per_type);
    }
    LevelError mixed;
    for (size_t i = 0; i < speech.size(); ++i) {
      const size_t t = i % 5;
      ok = eighth_rate_round_trip(mix(speech[i], noises[t], i * 160u * 977u, 10.0, -28.0), mixed,
                                  1, robust) &&
           ok;
    }
    mixed.print("held-out speech + noise 10 dB");
    all.merge(mixed);
    all.print("all");
    all.print_fit();
  }
  // Level error per noise type (decoded minus input, mean over the in-range
  // eighth-rate frames, dB), forced eighth rate and bounds 1..4.
  std::printf(" level error, dB (decoded - input, in-range eighth-rate frames):\n");
  std::printf("  %-16s %14s %14s %14s %14s\n", "", "classic 1..1", "robust 1..1", "classic 1..4",
              "robust 1..4");
  for (int t = 0; t <= 5; ++t) {
    double v[4];
    for (int c = 0; c < 4; ++c) {
      const int robust = c & 1, max_rate = c < 2 ? 1 : 4;
      LevelError e;
      if (t < 5) {
        for (double l : levels)
          ok = eighth_rate_round_trip(
                   noise_segment(noises[static_cast<size_t>(t)], 8000u * 5u * t, item, l), e,
                   max_rate, robust) &&
               ok;
      } else {
        for (size_t i = 0; i < speech.size(); ++i)
          ok = eighth_rate_round_trip(mix(speech[i], noises[i % 5], i * 160u * 977u, 10.0, -28.0),
                                      e, max_rate, robust) &&
               ok;
      }
      v[c] = e.bias();
    }
    std::printf("  %-16s %+14.2f %+14.2f %+14.2f %+14.2f\n",
                t < 5 ? noise_name(static_cast<NoiseType>(t)) : "noisy speech", v[0], v[1], v[2],
                v[3]);
  }
  if (!ok)
    std::printf(
        "  WARNING: some streams were cut short (a frame not coded at rate 1 or not decoded)\n");

  // (c)
  std::vector<int16_t> speed_input;
  for (const auto &s : speech) {
    speed_input.insert(speed_input.end(), s.begin(), s.end());
    if (speed_input.size() > 8000u * 120u) break;
  }
  if (speed_input.empty()) speed_input = noise_segment(noises[1], 0, 8000u * 60u, -40);
  const double fps = encode_speed(speed_input, 1, 20000);
  std::printf("(c) front-end speed, max_rate 1, one core: %.0f frames/s (%.1f x real time)\n", fps,
              fps / 50.0);
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--root" && i + 1 < argc) {
      o.root = argv[++i];
    } else if (a == "--seconds" && i + 1 < argc) {
      o.seconds = std::atof(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: measure_frontend [--root DIR] [--seconds S]\n");
      return 1;
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  kevrc_init();
  return run(o);
}
