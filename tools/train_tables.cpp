// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// train_tables: trains the codec's LSP codebooks and eighth-rate energy tables
// on speech, and writes them as C++ sources.
//
//   train_tables synth DIR
//       writes a few seconds of generated voice-like WAV files into DIR in the
//       corpus layout (DIR/<voice>/synth_NN.wav), for the CI smoke run.
//   train_tables train [--root DIR] --out OUTDIR [--quick] [--lsp-only]
//                      [--lsp-distance D[,D,D]] [--half-rate-frames 34|3]
//                      [--robust] [--compare-distances]
//       runs the encoder's front end over the training split of the corpus
//       (clean, mixed with generated noises at several SNRs and levels, and the
//       noises alone), trains
//         kevrc_tbl_lsp_fr / _hr / _1_8  (weighted split VQ, the quantizer's own
//                                         search and distance),
//         kevrce_tbl_energy_search        (256 x 3 log energies, squared error),
//         kevrc_tbl_energy_gain           (256 x 3 linear gains from the search rows),
//       reports spectral distortion and energy fit on the held-out split, and
//       writes OUTDIR/common/tbl_lsp.cpp, OUTDIR/common/tbl_energy_gain.cpp and
//       OUTDIR/encoder/tbl_energy_search.cpp.
//       --lsp-only            trains and writes the LSP codebooks only.
//       --lsp-distance D      the distance the LSP centroids minimise, one for
//                             all tables or full,half,eighth: quantizer (the
//                             search's own weighted squared error, the
//                             default), plain (squared error), ihm (weights
//                             1/(l[i]-l[i-1]) + 1/(l[i+1]-l[i])), sd-diag
//                             (each LSP's log-spectral sensitivity), sd-matrix
//                             (the whole sensitivity matrix of each split: the
//                             centroid minimises the cell's linearised squared
//                             spectral distortion). The cells are always those
//                             of the quantizer's search.
//       --half-rate-frames R  the decided rates whose frames train the
//                             half-rate table: 34 (default) or 3.
//       --robust              the front end runs with kevrce_set_robust on
//                             (the rate decision that feeds the half rate).
//       --compare-distances   trains the LSP tables with every distance and
//                             prints their held-out spectral distortion;
//                             writes nothing.
//
// Deterministic: sorted file lists, fixed seeds, no threads.
#include <sndfile.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <kevrc/kevrc.h>
#include <kevrc/kevrc_kernels.h>
#include "encoder/encoder_state.h"
#include "tools/support/corpus.h"
#include "tools/support/energy_vq.h"
#include "tools/support/lbg.h"
#include "tools/support/lsp_sd.h"
#include "tools/support/material.h"
#include "tools/support/noise_gen.h"

namespace {

using namespace kevrc::train;
namespace corpus = kevrc::corpus;

// ---- Fixed seeds -----------------------------------------------------------------
constexpr uint64_t kSeedTrainNoise = 0x5EED0001;     // training noise tracks (+ type)
constexpr uint64_t kSeedHeldNoise = 0x5EED1001;      // held-out noise tracks (+ type)
constexpr uint64_t kSeedBabbleOffsets = 0x5EED2001;  // babble source offsets
constexpr uint64_t kSeedSynth = 0x5EED3001;          // synth mode voices (+ file)

// One log-energy unit: the decoder's gain is 128 * 10^(s / 8192), so 8192
// units are a factor 10 in amplitude, 20 dB; one dB is 8192 / 20 = 409.6 units.
constexpr double kEnergyUnitsPerDb = 8192.0 / 20.0;
constexpr int kEnergyMin = -2988, kEnergyMax = 17596;

struct Options {
  std::string root = corpus::kDefaultRoot;
  std::string out;
  bool quick = false;
  bool half_rate_own_frames_only = false;  // --half-rate-frames 3: rate 3 only
  bool robust = false;                     // --robust
  bool lsp_only = false;                   // --lsp-only
  bool compare = false;                    // --compare-distances
  int lsp_distance[3] = {0, 0, 0};         // LspDistance per table: full, half, eighth
  std::string command_line;
};

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// ---- Material --------------------------------------------------------------------

enum Kind { kClean = 0, kMixed = 1, kNoise = 2 };
const char *kind_name(int k) { return k == kClean ? "clean" : k == kMixed ? "mixed" : "noise"; }

struct NoiseBank {
  std::vector<std::vector<double>> tracks;  // indexed by NoiseType (unit RMS)
  const std::vector<double> &get(NoiseType t) const { return tracks[static_cast<size_t>(t)]; }
};

NoiseBank make_noise_bank(const std::string &root, const std::vector<std::string> &babble_sources,
                          size_t length, uint64_t seed) {
  NoiseBank b;
  for (int t = 0; t < 4; ++t)
    b.tracks.push_back(
        make_noise(static_cast<NoiseType>(t), length, seed + static_cast<uint64_t>(t)));
  b.tracks.push_back(make_babble(root, babble_sources, length, seed + kSeedBabbleOffsets));
  return b;
}

// ---- Running the encoder's front end ---------------------------------------------

struct FrameRec {
  uint8_t rate;
  int16_t lsp[10];
  int32_t residual;  // index of the frame's 160 residual samples (rate 1), else -1
};

struct StreamRec {
  int kind;
  std::vector<FrameRec> frames;
};

struct Collected {
  std::vector<StreamRec> streams;
  std::vector<int16_t> residuals;  // 160 samples (residual[80..239]) per eighth-rate frame
  size_t frames_by_rate[2][3][5] =
      {};  // [counted?][kind][rate]: [1] excludes each stream's first frame
};

bool encode_stream(const std::vector<int16_t> &pcm, int kind, Collected &c, bool robust = false) {
  kevrce_config cfg = {4, 1, 0, 0};
  int32_t err = 0;
  kevrce_instance *enc = kevrce_create(&cfg, &err);
  if (enc == nullptr) {
    std::fprintf(stderr, "train_tables: kevrce_create failed (%d)\n", err);
    return false;
  }
  kevrce_set_robust(enc, robust ? 1 : 0);
  StreamRec s;
  s.kind = kind;
  for (size_t off = 0; off + 160 <= pcm.size(); off += 160) {
    int16_t buf[160];
    std::memcpy(buf, pcm.data() + off, sizeof buf);
    kevrc_pcm_buffer in = {};
    in.data[0] = buf;
    in.samples[0] = 160;
    uint8_t packet[KEVRC_ENCODER_BUFFER_BYTES] = {};
    kevrc_bitstream_buffer out = {packet, 0, sizeof packet};
    kevrce_result result = {};
    kevrce_encode(enc, &in, &out, &result);  // rates 3 and 4 may report -3 in this release
    FrameRec f;
    f.rate = static_cast<uint8_t>(enc->rate);
    std::memcpy(f.lsp, enc->work->lsp, sizeof f.lsp);
    f.residual = -1;
    if (f.rate == 1) {
      f.residual = static_cast<int32_t>(c.residuals.size() / 160);
      c.residuals.insert(c.residuals.end(), enc->work->residual + 80, enc->work->residual + 240);
    }
    const size_t r = f.rate <= 4 ? f.rate : 0;
    ++c.frames_by_rate[0][kind][r];
    if (!s.frames.empty()) ++c.frames_by_rate[1][kind][r];
    s.frames.push_back(f);
  }
  kevrce_delete(enc);
  c.streams.push_back(std::move(s));
  return true;
}

// The encoder must be complete enough to produce LSPs: checked on a vowel.
bool encoder_front_end_works() {
  const std::vector<int16_t> v = steady_vowel(1600, 150.0);
  Collected c;
  if (!encode_stream(v, kClean, c)) return false;
  const FrameRec &f = c.streams[0].frames.back();
  for (int i = 1; i < 10; ++i)
    if (f.lsp[i] <= f.lsp[i - 1]) return false;
  int16_t w[10] = {}, sh[10] = {};
  kevrce_norm_lsp(f.lsp, w, sh);
  for (int i = 0; i < 10; ++i)
    if (w[i] != 0) return true;
  return false;
}

// ---- Corpus passes ---------------------------------------------------------------

struct MixPlan {
  NoiseType type;
  double snr_db;
  double level_dbfs;
};

// Speech active levels (dBFS) and SNRs of the mixes, and levels of the noises
// alone: backgrounds mostly between -70 and -36 dBFS, the range in which the
// eighth-rate energy table can code them (louder ones hit its top row).
constexpr double kSnrs[6] = {30, 25, 20, 15, 10, 5};
constexpr double kLevels[3] = {-38, -32, -26};
constexpr double kNoiseLevels[5] = {-70, -62, -54, -46, -38};

// File i gets mixes of noise types i and i + 2 (mod 5) at SNRs and levels
// that walk through the lists, so every combination occurs.
std::vector<MixPlan> mix_plan(size_t i, int count) {
  std::vector<MixPlan> plans;
  for (int m = 0; m < count; ++m) {
    plans.push_back({static_cast<NoiseType>((i + 2 * static_cast<size_t>(m)) % 5),
                     kSnrs[(i / 5 + 3 * static_cast<size_t>(m)) % 6],
                     kLevels[(i / 30 + static_cast<size_t>(m)) % 3]});
  }
  return plans;
}

// Every eighth file of the list (half of them shifted) as babble sources:
// files of set A hear babble B and the others babble A.
void babble_sets(const std::vector<std::string> &files, std::vector<std::string> &a,
                 std::vector<std::string> &b) {
  const size_t n = files.size();
  for (size_t k = 0; k < 8 && n > 0; ++k) {
    a.push_back(files[(k * n) / 8]);
    b.push_back(files[(k * n) / 8 + n / 16 < n ? (k * n) / 8 + n / 16 : n - 1]);
  }
}

struct PassStats {
  size_t files = 0, failed = 0, samples = 0;
};

bool run_corpus_pass(const Options &o, const std::vector<std::string> &files, uint64_t noise_seed,
                     int mixes_per_file, double noise_seconds, Collected &c, PassStats &ps) {
  std::vector<std::string> set_a, set_b;
  babble_sets(files, set_a, set_b);
  const size_t track = static_cast<size_t>(8000 * (o.quick ? 20 : 60));
  const NoiseBank bank_a = make_noise_bank(o.root, set_a, track, noise_seed);
  const NoiseBank bank_b = make_noise_bank(o.root, set_b, track, noise_seed + 100);
  for (size_t i = 0; i < files.size(); ++i) {
    std::vector<int16_t> pcm;
    std::string err;
    if (!corpus::read_pcm(o.root + "/" + files[i], pcm, err)) {
      std::fprintf(stderr, "train_tables: skipping %s\n", err.c_str());
      ++ps.failed;
      continue;
    }
    ++ps.files;
    ps.samples += pcm.size();
    if (!encode_stream(pcm, kClean, c, o.robust)) return false;
    const bool in_a = std::find(set_a.begin(), set_a.end(), files[i]) != set_a.end();
    const NoiseBank &bank = in_a ? bank_b : bank_a;
    for (const MixPlan &m : mix_plan(i, mixes_per_file)) {
      const size_t offset = (i * 7919u * 160u + static_cast<size_t>(m.type) * 104729u) % track;
      if (!encode_stream(mix(pcm, bank.get(m.type), offset, m.snr_db, m.level_dbfs), kMixed, c,
                         o.robust))
        return false;
    }
  }
  // The noises alone, each type at every level.
  const size_t n = static_cast<size_t>(8000 * noise_seconds);
  for (int t = 0; t < 5; ++t)
    for (size_t l = 0; l < 5; ++l) {
      const size_t offset = (l * 3u + 1u) * 8000u * 7u;
      if (!encode_stream(
              noise_segment(bank_a.get(static_cast<NoiseType>(t)), offset, n, kNoiseLevels[l]),
              kNoise, c, o.robust))
        return false;
    }
  return true;
}

// ---- LSP quantization with the library ------------------------------------------------

struct RateTable {
  const char *name;
  const SplitLayout *layout;
  std::vector<int16_t> book;
};

LspFrame make_lsp_frame(const int16_t *lsp) {
  LspFrame f;
  std::memcpy(f.lsp, lsp, sizeof f.lsp);
  kevrce_norm_lsp(f.lsp, f.weight, f.shift);
  return f;
}

// The distances the LSP centroids can minimise (--lsp-distance).
enum LspDistance { kQuantizer = 0, kPlain, kIhm, kSdDiag, kSdMatrix, kDistances };
const char *const kDistanceNames[kDistances] = {"quantizer", "plain", "ihm", "sd-diag",
                                                "sd-matrix"};

// Fills a frame's training metric for a distance: the quantizer's effective
// weights, ones, the inverse harmonic mean weights of the neighbouring
// spacings (band edges 0 and 16384 as neighbours; per 1/16384 of the band),
// or the log-spectral sensitivity (its diagonal, or the whole matrix).
void set_metric(LspFrame &f, int distance) {
  for (auto &row : f.metric)
    for (float &v : row) v = 0.0f;
  if (distance == kSdDiag || distance == kSdMatrix) {
    double h[10][10];
    lsp_sd_sensitivity(f.lsp, h);
    for (int i = 0; i < 10; ++i)
      for (int j = 0; j < 10; ++j)
        if (i == j || distance == kSdMatrix) f.metric[i][j] = static_cast<float>(h[i][j]);
    return;
  }
  for (int p = 0; p < 10; ++p) {
    double w = 1.0;
    if (distance == kQuantizer) w = static_cast<float>(effective_weight(f, p));
    if (distance == kIhm) {
      const int below = f.lsp[p] - (p > 0 ? f.lsp[p - 1] : 0);
      const int above = (p < 9 ? f.lsp[p + 1] : 16384) - f.lsp[p];
      w = 16384.0 / std::max(below, 1) + 16384.0 / std::max(above, 1);
    }
    f.metric[p][p] = static_cast<float>(w);
  }
}

std::vector<LspFrame> with_metric(std::vector<LspFrame> frames, int distance) {
  for (LspFrame &f : frames) set_metric(f, distance);
  return frames;
}

// Quantizes with the library's kevrce_lspmaq and a candidate codebook.
void quantize_real(const int16_t *lsp, const SplitLayout &L, const int16_t *book, int16_t *q,
                   uint16_t *index) {
  int16_t w[10], sh[10], dims[4] = {}, ent[4] = {};
  for (int s = 0; s < L.num_splits; ++s) {
    dims[s] = static_cast<int16_t>(L.dims[s]);
    ent[s] = static_cast<int16_t>(L.entries[s]);
  }
  kevrce_norm_lsp(lsp, w, sh);
  kevrce_lspmaq(lsp, static_cast<int16_t>(L.num_splits), dims, ent, w, index, book, sh);
  std::memcpy(q, w, sizeof w);
}

// Training frames of the given rates (each stream's first frame, which the
// rate decision codes at max_rate whatever it holds, is left out).
std::vector<LspFrame> frames_of(const Collected &c, std::initializer_list<int> rates,
                                bool clean_only) {
  std::vector<LspFrame> out;
  for (const StreamRec &s : c.streams) {
    if (clean_only && s.kind != kClean) continue;
    for (size_t t = 1; t < s.frames.size(); ++t)
      if (std::find(rates.begin(), rates.end(), s.frames[t].rate) != rates.end())
        out.push_back(make_lsp_frame(s.frames[t].lsp));
  }
  return out;
}

struct FixedRow {
  int split, entry;
  std::vector<int16_t> v;
};

// The stated sample rows of each LSP table (they never move).
std::vector<FixedRow> fixed_rows(const SplitLayout &L) {
  if (&L == &kLayoutFull)
    return {{0, 0, {465, 635}},           {0, 1, {956, 2136}},
            {1, 0, {1710, 2747}},         {2, 0, {4470, 5526, 6707}},
            {3, 0, {9092, 10387, 12960}}, {3, 127, {13466, 14440, 14815}}};
  if (&L == &kLayoutHalf)
    return {{0, 0, {443, 597, 1291}},
            {0, 1, {752, 1173, 3452}},
            {1, 0, {3198, 4053, 5552}},
            {2, 0, {7763, 8392, 10386, 13354}},
            {2, 255, {12307, 13653, 14488, 14835}}};
  return {{0, 0, {1379, 2277, 3660, 4775, 6846}},
          {0, 1, {1800, 3219, 3607, 5207, 6733}},
          {1, 0, {8789, 10022, 10194, 12066, 13361}},
          {1, 15, {9141, 10572, 11684, 13175, 13884}}};
}

struct LspTrainResult {
  std::vector<int16_t> book;
  int lbg_iterations = 0, lbg_refills = 0;
  JointStats joint;
  double real_distortion = 0;   // mean weighted squared error with kevrce_lspmaq
  size_t model_mismatches = 0;  // frames where the model's indices differ from kevrce_lspmaq
};

LspTrainResult train_lsp(const std::vector<LspFrame> &frames, const SplitLayout &L,
                         const Options &o, bool full_metric) {
  LspTrainResult r;
  r.book.assign(static_cast<size_t>(L.table_size()), 0);
  int rows = 0;
  for (int s = 0; s < L.num_splits; ++s) rows += L.entries[s];
  std::vector<char> fixed(static_cast<size_t>(rows), 0);
  const std::vector<FixedRow> fx = fixed_rows(L);
  LbgOptions opt;
  opt.max_iterations = o.quick ? 4 : 25;
  opt.final_max_iterations = o.quick ? 8 : 60;
  opt.tolerance = 1e-4;
  // Stage 1: each split on its own (a deterministic subsample of at most
  // 150000 vectors), weighted LBG with splitting.
  const size_t cap = 150000;
  const size_t stride = frames.size() > cap ? (frames.size() + cap - 1) / cap : 1;
  int row0 = 0;
  for (int s = 0; s < L.num_splits; ++s) {
    const int n = L.dims[s], K = L.entries[s], p0 = L.start(s);
    WeightedSet ws;
    ws.n = n;
    for (size_t i = 0; i < frames.size(); i += stride) {
      float x[5], w[5];
      for (int k = 0; k < n; ++k) {
        x[k] = frames[i].lsp[p0 + k];
        w[k] = frames[i].metric[p0 + k][p0 + k];
      }
      ws.add(x, w);
    }
    std::vector<float> cb;
    const LbgStats st = lbg_train(ws, K, opt, constrain_lsp_codeword, cb);
    r.lbg_iterations += st.iterations;
    r.lbg_refills += st.refills;
    std::vector<std::pair<int, std::vector<float>>> pinned;
    for (const FixedRow &f : fx)
      if (f.split == s) {
        pinned.push_back({f.entry, std::vector<float>(f.v.begin(), f.v.end())});
        fixed[static_cast<size_t>(row0 + f.entry)] = 1;
      }
    const std::vector<float> placed = place_fixed_rows(cb, K, n, pinned);
    for (size_t i = 0; i < placed.size(); ++i)
      r.book[static_cast<size_t>(L.offset(s)) + i] = static_cast<int16_t>(std::lround(placed[i]));
    row0 += K;
  }
  // Stage 2: the whole table with the quantizer's own search.
  std::string trace;
  r.joint = lsp_joint_train(frames, L, r.book, fixed, o.quick ? 3 : 12, 1e-4, full_metric,
                            [&](int it, double d) {
                              char b[32];
                              std::snprintf(b, sizeof b, "%s%.5g", it ? " " : "", d);
                              trace += b;
                            });
  std::printf("  joint iterations, training distance: %s\n", trace.c_str());
  // Final figures with the library's quantizer.
  double total = 0;
  for (const LspFrame &f : frames) {
    int16_t q[10];
    uint16_t idx[4];
    quantize_real(f.lsp, L, r.book.data(), q, idx);
    int midx[4];
    int16_t mq[10];
    lsp_split_search(f, L, r.book.data(), midx, mq);
    for (int s = 0; s < L.num_splits; ++s)
      if (midx[s] != idx[s]) {
        ++r.model_mismatches;
        break;
      }
    for (int p = 0; p < 10; ++p) {
      const double e = static_cast<double>(f.lsp[p]) - q[p];
      total += effective_weight(f, p) * e * e;
    }
  }
  r.real_distortion = frames.empty() ? 0 : total / static_cast<double>(frames.size());
  return r;
}

// ---- Eighth-rate energies --------------------------------------------------------------

struct EnergyVec {
  int16_t e[3];
  int kind;
};

// The three subframe log energies of every eighth-rate frame, measured as the
// encoder does with the candidate LSP tables: quantize the frame's LSPs with
// its rate's table, interpolate from the previous frame's quantized LSPs,
// LPC, impulse response, its gain, and the residual's log energy. Also
// collects the spectral distortion per rate when sd is given
// (sd[0] full-rate table, sd[1] half, sd[2] eighth; rates 3 and 4 go to
// sd[0] and sd[1] both).
void measure_frames(const Collected &c, const RateTable &fr, const RateTable &hr,
                    const RateTable &e8, std::vector<EnergyVec> &energies,
                    std::vector<double> (*sd)[3]) {
  for (const StreamRec &s : c.streams) {
    int16_t prev_q[10];
    std::memcpy(prev_q, kevrc_prev_lsp, sizeof prev_q);
    for (size_t t = 0; t < s.frames.size(); ++t) {
      const FrameRec &f = s.frames[t];
      const RateTable &tab = f.rate == 1 ? e8 : f.rate == 3 ? hr : fr;
      int16_t q[10];
      uint16_t idx[4];
      quantize_real(f.lsp, *tab.layout, tab.book.data(), q, idx);
      if (sd != nullptr && t > 0) {
        if (f.rate == 1) {
          sd[s.kind][2].push_back(spectral_distortion_db(f.lsp, q));
        } else {
          int16_t q2[10];
          uint16_t idx2[4];
          quantize_real(f.lsp, *fr.layout, fr.book.data(), q2, idx2);
          sd[s.kind][0].push_back(spectral_distortion_db(f.lsp, q2));
          quantize_real(f.lsp, *hr.layout, hr.book.data(), q2, idx2);
          sd[s.kind][1].push_back(spectral_distortion_db(f.lsp, q2));
        }
      }
      if (f.rate == 1 && t > 0) {
        EnergyVec ev;
        ev.kind = s.kind;
        const int16_t *res = c.residuals.data() + static_cast<size_t>(f.residual) * 160;
        for (int i = 0; i < 3; ++i) {
          int16_t sub[10], lpc[10], h[54];
          kevrc_interpol(sub, prev_q, q, static_cast<int16_t>(i));
          kevrc_lsp2lpc(sub, lpc);  // may repair sub in place: it is a copy
          kevrce_imp_res(lpc, h);
          const int16_t L = static_cast<int16_t>(kevrc::kEncSubframeLen[i]);
          const int16_t g = kevrce_imp_res_gain(h, L);
          ev.e[i] = kevrce_lbr_energy(g, res + 53 * i, L);
        }
        energies.push_back(ev);
      }
      std::memcpy(prev_q, q, sizeof q);
    }
  }
}

// The stated energy rows: four rows with both tables given, and three rows
// given as gains only, whose search values are the nearest integers to
// 8192 * log10(gain / 128).
struct EnergyRow {
  int row;
  int search[3];
  int gain[3];
};
std::vector<EnergyRow> stated_energy_rows() {
  std::vector<EnergyRow> rows = {{0, {-202, -33, -907}, {121, 127, 99}},
                                 {1, {7155, 8225, 8135}, {956, 1292, 1260}},
                                 {2, {3459, 3190, 4112}, {338, 314, 407}},
                                 {64, {0, 0, 0}, {60, 65, 73}},
                                 {128, {0, 0, 0}, {116, 91, 107}},
                                 {254, {0, 0, 0}, {8207, 7067, 579}},
                                 {255, {16384, 16974, 16802}, {12800, 15108, 14395}}};
  for (EnergyRow &r : rows)
    if (r.row == 64 || r.row == 128 || r.row == 254)
      for (int k = 0; k < 3; ++k)
        r.search[k] = static_cast<int>(std::lround(8192.0 * std::log10(r.gain[k] / 128.0)));
  return rows;
}

struct EnergyTrainResult {
  std::vector<int16_t> search, gain;
  int iterations = 0, refills = 0;
  double distortion = 0;  // mean squared error per vector (units^2)
};

EnergyTrainResult train_energy(const std::vector<EnergyVec> &data, const Options &o) {
  WeightedSet ws;
  ws.n = 3;
  // Energies beyond the table's range are trained as the range's edge, where
  // the search will put them anyway (loud frames coded at eighth rate).
  for (const EnergyVec &v : data) {
    float x[3];
    for (int k = 0; k < 3; ++k)
      x[k] = static_cast<float>(std::clamp<int>(v.e[k], kEnergyMin, kEnergyMax));
    const float w[3] = {1, 1, 1};
    ws.add(x, w);
  }
  const Constrain clamp = [](float *c, int n) {
    for (int k = 0; k < n; ++k)
      c[k] = static_cast<float>(std::clamp<long>(std::lround(c[k]), kEnergyMin, kEnergyMax));
  };
  LbgOptions opt;
  opt.max_iterations = o.quick ? 4 : 30;
  opt.final_max_iterations = o.quick ? 8 : 100;
  std::vector<float> cb;
  EnergyTrainResult r;
  const LbgStats st = lbg_train(ws, 256, opt, clamp, cb);
  r.iterations = st.iterations;
  r.refills = st.refills;
  std::vector<std::pair<int, std::vector<float>>> pinned;
  std::vector<char> fixed(256, 0);
  for (const EnergyRow &e : stated_energy_rows()) {
    pinned.push_back({e.row, {float(e.search[0]), float(e.search[1]), float(e.search[2])}});
    fixed[static_cast<size_t>(e.row)] = 1;
  }
  cb = place_fixed_rows(cb, 256, 3, pinned);
  const LbgStats st2 = lloyd(ws, cb, 256, fixed, o.quick ? 5 : 100, 1e-4, clamp);
  r.iterations += st2.iterations;
  r.refills += st2.refills;
  r.distortion = st2.distortion;
  r.search.resize(768);
  r.gain.resize(768);
  for (int i = 0; i < 768; ++i) {
    r.search[static_cast<size_t>(i)] =
        static_cast<int16_t>(std::lround(cb[static_cast<size_t>(i)]));
    r.gain[static_cast<size_t>(i)] =
        static_cast<int16_t>(gain_of(r.search[static_cast<size_t>(i)]));
  }
  for (const EnergyRow &e : stated_energy_rows())
    for (int k = 0; k < 3; ++k) {
      r.search[static_cast<size_t>(3 * e.row + k)] = static_cast<int16_t>(e.search[k]);
      r.gain[static_cast<size_t>(3 * e.row + k)] = static_cast<int16_t>(e.gain[k]);
    }
  return r;
}

struct EnergyFit {
  size_t frames = 0;
  double mae_db = 0;  // mean |measured - search row| over subframes, in dB
  double pct_over_3db = 0;
  double mean_bias_db = 0;
};

// kind < 0: every kind. in_range_only: frames whose three measured energies
// lie inside the table's range (louder or quieter frames are capped by the
// table's edge rows whatever the table holds).
EnergyFit energy_fit(const std::vector<EnergyVec> &data, const std::vector<int16_t> &search,
                     int kind, bool in_range_only = false) {
  EnergyFit f;
  double sum = 0, bias = 0;
  size_t over = 0, n = 0;
  for (const EnergyVec &v : data) {
    if (kind >= 0 && v.kind != kind) continue;
    if (in_range_only &&
        !std::all_of(v.e, v.e + 3, [](int16_t x) { return x >= kEnergyMin && x <= kEnergyMax; }))
      continue;
    const int j = energy_search(v.e, search.data());
    for (int k = 0; k < 3; ++k) {
      const double d = (v.e[k] - search[static_cast<size_t>(3 * j + k)]) / kEnergyUnitsPerDb;
      sum += std::fabs(d);
      bias += d;
      if (std::fabs(d) > 3.0) ++over;
      ++n;
    }
    ++f.frames;
  }
  if (n) {
    f.mae_db = sum / static_cast<double>(n);
    f.mean_bias_db = bias / static_cast<double>(n);
    f.pct_over_3db = 100.0 * static_cast<double>(over) / static_cast<double>(n);
  }
  return f;
}

// ---- Output --------------------------------------------------------------------

std::string format_array(const char *decl, const std::vector<int16_t> &v, int per_line) {
  std::ostringstream s;
  s << decl << " = {\n";
  for (size_t i = 0; i < v.size(); ++i) {
    if (i % static_cast<size_t>(per_line) == 0) s << "    ";
    s << v[i] << ",";
    s << ((i % static_cast<size_t>(per_line) == static_cast<size_t>(per_line - 1) ||
           i + 1 == v.size())
              ? "\n"
              : " ");
  }
  s << "};\n";
  return s.str();
}

bool write_file(const std::filesystem::path &path, const std::string &text) {
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  std::ofstream f(path);
  f << text;
  f.close();
  if (!f) {
    std::fprintf(stderr, "train_tables: cannot write %s\n", path.c_str());
    return false;
  }
  std::printf("wrote %s\n", path.c_str());
  return true;
}

// The first lines of every generated source file.
constexpr const char *kLicenceHeader =
    "// SPDX-License-Identifier: BSD-3-Clause\n// Copyright (c) the kevrc authors\n";

std::string comment_block(const std::string &text) {
  std::istringstream in(text);
  std::string line, out;
  while (std::getline(in, line)) out += line.empty() ? "//\n" : "// " + line + "\n";
  return out;
}

// ---- Synth mode ----------------------------------------------------------------

int run_synth(const std::string &dir) {
  namespace fs = std::filesystem;
  int written = 0;
  for (int v = 0; v < 4; ++v) {
    const fs::path d = fs::path(dir) / corpus::kVoices[v];
    std::error_code ec;
    fs::create_directories(d, ec);
    for (int i = 0; i < 8; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "synth_%02d.wav", i);
      const double f0 = v == 3 ? 110.0 + 8.0 * i : 190.0 + 10.0 * i;  // the fourth voice is male
      const std::vector<int16_t> pcm =
          synth_voice(static_cast<size_t>(8000 * (2.5 + 0.25 * (i % 3))),
                      kSeedSynth + static_cast<uint64_t>(v * 100 + i), f0);
      SF_INFO info = {};
      info.samplerate = 8000;
      info.channels = 1;
      info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
      const std::string path = (d / name).string();
      SNDFILE *f = sf_open(path.c_str(), SFM_WRITE, &info);
      if (f == nullptr) {
        std::fprintf(stderr, "train_tables: cannot write %s: %s\n", path.c_str(),
                     sf_strerror(nullptr));
        return 1;
      }
      sf_write_short(f, pcm.data(), static_cast<sf_count_t>(pcm.size()));
      sf_close(f);
      ++written;
    }
  }
  std::printf("synth: wrote %d files into %s (%zu held out by the split rule)\n", written,
              dir.c_str(), corpus::files(corpus::Split::HeldOut, dir).size());
  return 0;
}

// ---- Train mode ----------------------------------------------------------------

void print_sd(const char *label, const std::vector<double> &sd) {
  const SdSummary s = summarize_sd(sd);
  std::printf("  %-34s frames %7zu  mean %.3f dB  2-4 dB %6.3f %%  >4 dB %6.3f %%\n", label,
              s.frames, s.mean_db, s.pct_2_to_4, s.pct_over_4);
}

int run_train(const Options &o) {
  const auto t_start = std::chrono::steady_clock::now();
  if (!encoder_front_end_works()) {
    std::fprintf(stderr,
                 "train_tables: the encoder front end does not produce LSPs yet "
                 "(kevrce_encode / kevrce_norm_lsp are placeholders)\n");
    return 2;
  }
  const std::vector<std::string> train_files = corpus::files(corpus::Split::Training, o.root);
  const std::vector<std::string> held_files = corpus::files(corpus::Split::HeldOut, o.root);
  if (train_files.empty()) {
    std::fprintf(stderr, "train_tables: no training files under %s\n", o.root.c_str());
    return 1;
  }
  std::printf("corpus %s: %zu training files, %zu held out\n", o.root.c_str(), train_files.size(),
              held_files.size());

  // --- Data ---
  Collected train, held;
  PassStats tp, hp;
  const int mixes = o.quick ? 1 : 2;
  if (!run_corpus_pass(o, train_files, kSeedTrainNoise, mixes, o.quick ? 3.0 : 20.0, train, tp))
    return 1;
  if (!held_files.empty() &&
      !run_corpus_pass(o, held_files, kSeedHeldNoise, 1, o.quick ? 2.0 : 10.0, held, hp))
    return 1;
  std::printf("encoder passes: %.1f s (training %zu files, %.0f s of speech; held out %zu files)\n",
              seconds_since(t_start), tp.files, static_cast<double>(tp.samples) / 8000.0, hp.files);
  std::ostringstream counts;
  for (int k = 0; k < 3; ++k)
    counts << "  " << kind_name(k) << ": rate 1 " << train.frames_by_rate[1][k][1] << ", rate 3 "
           << train.frames_by_rate[1][k][3] << ", rate 4 " << train.frames_by_rate[1][k][4] << "\n";
  std::printf("training frames by decided rate (each stream's first frame left out):\n%s",
              counts.str().c_str());

  // --- Training sets, with the neighbouring rate added where a rate is thin ---
  std::ostringstream notes;
  auto pick = [&](const char *name, std::initializer_list<int> own, std::initializer_list<int> both,
                  size_t needed) {
    std::vector<LspFrame> f = frames_of(train, own, false);
    if (f.size() < needed) {
      notes << name << ": only " << f.size() << " frames (want " << needed
            << "); the neighbouring rate's frames were added\n";
      f = frames_of(train, both, false);
    }
    return f;
  };
  const size_t want_fr = o.quick ? 200 : 512 * 20, want_hr = o.quick ? 200 : 256 * 20,
               want_e8 = o.quick ? 50 : 16 * 200;
  const std::vector<LspFrame> set_fr = pick("full rate", {4}, {3, 4}, want_fr);
  // The half-rate codebook is trained on the frames decided 3 and 4: it is
  // measured on both, and an encoder bounded to max_rate 3 codes every speech
  // frame with it. Trained on the (transitional) rate-3 frames alone it does
  // about 0.1 dB worse on held-out speech.
  std::vector<LspFrame> set_hr = pick("half rate", {3}, {3, 4}, want_hr);
  if (!o.half_rate_own_frames_only) {
    set_hr = frames_of(train, {3, 4}, false);
    notes << "half rate: trained on the frames decided 3 and 4\n";
  }
  const std::vector<LspFrame> set_e8 = pick("eighth rate", {1}, {1, 3}, want_e8);
  std::printf("%straining vectors: full %zu, half %zu, eighth %zu\n", notes.str().c_str(),
              set_fr.size(), set_hr.size(), set_e8.size());

  // --- LSP codebooks ---
  RateTable fr{"kevrc_tbl_lsp_fr", &kLayoutFull, {}}, hr{"kevrc_tbl_lsp_hr", &kLayoutHalf, {}},
      e8{"kevrc_tbl_lsp_1_8", &kLayoutEighth, {}};
  LspTrainResult res[3];
  const std::vector<LspFrame> *sets[3] = {&set_fr, &set_hr, &set_e8};
  RateTable *tabs[3] = {&fr, &hr, &e8};
  auto train_table = [&](int r, int distance) {
    const auto t0 = std::chrono::steady_clock::now();
    res[r] = train_lsp(with_metric(*sets[r], distance), *tabs[r]->layout, o, distance == kSdMatrix);
    tabs[r]->book = res[r].book;
    std::printf(
        "%s (%s): LBG %d iterations (%d refills), joint %d iterations (%d refills), weighted "
        "error %.1f (int %.2f), model/library index mismatches %zu, %.1f s\n",
        tabs[r]->name, kDistanceNames[distance], res[r].lbg_iterations, res[r].lbg_refills,
        res[r].joint.iterations, res[r].joint.refills, res[r].real_distortion,
        res[r].joint.int_distortion, res[r].model_mismatches, seconds_since(t0));
  };
  if (o.compare) {
    std::printf(
        "\nheld-out spectral distortion by training distance (mean dB, %% 2-4 dB, "
        "%% > 4 dB; clean | noisy):\n");
    std::vector<std::string> rows;
    for (int d = 0; d < kDistances; ++d) {
      for (int r = 0; r < 3; ++r) train_table(r, d);
      std::vector<EnergyVec> unused;
      std::vector<double> sd[3][3];
      measure_frames(held, fr, hr, e8, unused, sd);
      std::ostringstream line;
      line << kDistanceNames[d] << ":";
      for (int t = 0; t < 3; ++t) {
        char b[160];
        const SdSummary c = summarize_sd(sd[kClean][t]), n = summarize_sd(sd[kMixed][t]);
        std::snprintf(b, sizeof b, "  %s %.3f %.2f %.3f | %.3f %.2f %.3f",
                      t == 0   ? "full"
                      : t == 1 ? "half"
                               : "eighth",
                      c.mean_db, c.pct_2_to_4, c.pct_over_4, n.mean_db, n.pct_2_to_4, n.pct_over_4);
        line << b;
      }
      rows.push_back(line.str());
      std::printf("%s\n", line.str().c_str());
    }
    std::printf("\nsummary:\n");
    for (const std::string &l : rows) std::printf("%s\n", l.c_str());
    return 0;
  }
  for (int r = 0; r < 3; ++r) train_table(r, o.lsp_distance[r]);

  // --- Energies ---
  std::vector<EnergyVec> train_energy_data, held_energy_data;
  if (!o.lsp_only) measure_frames(train, fr, hr, e8, train_energy_data, nullptr);
  std::vector<double> sd[3][3];
  measure_frames(held, fr, hr, e8, held_energy_data, sd);
  EnergyTrainResult en;
  if (!o.lsp_only) {
    size_t below = 0, above = 0;
    for (const EnergyVec &v : train_energy_data)
      for (int k = 0; k < 3; ++k) {
        below += v.e[k] < kEnergyMin;
        above += v.e[k] > kEnergyMax;
      }
    std::printf("measured eighth-rate energies outside %d..%d: %.2f %% below, %.2f %% above\n",
                kEnergyMin, kEnergyMax,
                100.0 * static_cast<double>(below) /
                    (3.0 * static_cast<double>(std::max<size_t>(1, train_energy_data.size()))),
                100.0 * static_cast<double>(above) /
                    (3.0 * static_cast<double>(std::max<size_t>(1, train_energy_data.size()))));
    en = train_energy(train_energy_data, o);
    std::printf(
        "energy table: %zu training vectors, %d iterations (%d refills), rms error %.1f units\n",
        train_energy_data.size(), en.iterations, en.refills, std::sqrt(en.distortion));
    for (int i = 0; i < 768; ++i) {
      const int s = en.search[static_cast<size_t>(i)], g = en.gain[static_cast<size_t>(i)];
      if (!energy_pair_consistent(s, g) || s < kEnergyMin || s > kEnergyMax) {
        std::fprintf(stderr, "train_tables: energy row %d: search %d and gain %d disagree\n", i / 3,
                     s, g);
        return 1;
      }
    }
  }

  // --- Held-out report ---
  std::printf("\nheld-out report (%zu files; frames after each stream's first):\n", hp.files);
  std::printf(" spectral distortion, 0-4 kHz, 256 points:\n");
  print_sd("full-rate table, clean, rates 3+4", sd[kClean][0]);
  print_sd("half-rate table, clean, rates 3+4", sd[kClean][1]);
  print_sd("eighth-rate table, clean, rate 1", sd[kClean][2]);
  print_sd("full-rate table, noisy, rates 3+4", sd[kMixed][0]);
  print_sd("half-rate table, noisy, rates 3+4", sd[kMixed][1]);
  print_sd("eighth-rate table, noisy, rate 1", sd[kMixed][2]);
  print_sd("eighth-rate table, noise only", sd[kNoise][2]);
  const double run_time = seconds_since(t_start);
  if (!o.lsp_only) {
    std::printf(" energy fit (|measured - chosen search row|, 409.6 units = 1 dB):\n");
    const char *labels[4] = {"all", "clean", "noisy speech", "noise only"};
    for (int range = 0; range < 2; ++range)
      for (int k = -1; k < 3; ++k) {
        const EnergyFit f = energy_fit(held_energy_data, en.search, k, range == 1);
        std::printf("  %-9s %-13s frames %7zu  mean abs %.2f dB  bias %+.2f dB  >3 dB %5.2f %%\n",
                    range ? "in range" : "all", labels[k + 1], f.frames, f.mae_db, f.mean_bias_db,
                    f.pct_over_3db);
      }
    const EnergyFit train_fit = energy_fit(train_energy_data, en.search, -1);
    std::printf("training-set energy fit: mean abs %.2f dB\n", train_fit.mae_db);
  }
  std::printf("total run time %.1f s\n", run_time);

  // --- Tables ---
  if (o.out.empty()) return 0;
  std::ostringstream prov;
  prov << "Generated by: " << o.command_line << "\n"
       << "Tool: tools/train_tables.cpp ("
       << (o.quick ? "QUICK smoke run, not for use" : "full run") << "), "
       << static_cast<long>(run_time) << " s.\n"
       << "Corpus root: " << o.root << ", voices en_US_f_Allison, es_MX_f_Allison,\n"
       << "fr_CA_f_June, it_IT_m_Carlo (at the default root: Debian packages\n"
       << "asterisk-core-sounds-{en,es,fr,it}-wav). Training split: the files whose FNV-1a\n"
       << "hash of the relative path is not 0 mod 10: " << tp.files << " files, "
       << static_cast<long>(tp.samples / 8000) << " s. Each file also\n"
       << "mixed with " << mixes
       << " generated noise(s) (white, pink, brown, low-pass car, babble\n"
       << "of 8 other training files) at SNR 5..30 dB and active levels -38..-26 dBFS,\n"
       << "plus the noises alone at -70..-38 dBFS.\n"
       << "Encoder: kevrce_encode with {max_rate 4, min_rate 1, no noise suppression}"
       << (o.robust ? ", kevrce_set_robust on" : "") << ";\n"
       << "frames by decided rate (each stream's first frame left out):\n"
       << counts.str() << notes.str() << "Seeds: noise tracks 0x" << std::hex << kSeedTrainNoise
       << ", babble offsets 0x" << kSeedBabbleOffsets << std::dec << "; no other randomness.\n";
  std::ostringstream lsp_text;
  lsp_text << kLicenceHeader
           << comment_block(
                  prov.str() +
                  "\nLSP codebooks: split VQ. Per split, LBG with splitting on the table's\n"
                  "training distance (per-LSP weights: the diagonal of the distances below; at\n"
                  "most 150000 vectors, every k-th), then generalized Lloyd over the whole table\n"
                  "with the quantizer's own search assigning the cells (kevrce_norm_lsp weights,\n"
                  "split by split, ordering rule first value > previous last + 261, exact\n"
                  "integer distance) and centroids minimising the training distance over each\n"
                  "cell; the table with the lowest training distance seen is kept. Distances:\n"
                  "quantizer = the search's weighted squared error; sd-diag = sum H[i][i] e[i]^2\n"
                  "and sd-matrix = e^T H e (the block of each split), H the log-spectral\n"
                  "sensitivity of each frame's LSPs (lsp_sd_sensitivity, SD^2 ~= e^T H e), so\n"
                  "each centroid minimises the cell's linearised squared spectral distortion\n"
                  "(sd-diag without the cross terms, which change the held-out figures by\n"
                  "0.001 dB at most). Codewords kept ascending with gaps >= 50 inside\n"
                  "1..16383, empty cells refilled by splitting the busiest cell; each stage stops\n"
                  "when the relative change is below 1e-4 (or at 25 / 60 LBG iterations per size\n"
                  "/ at the full size, 12 joint iterations). The stated sample rows are fixed at\n"
                  "their positions.\n");
  for (int r = 0; r < 3; ++r) {
    char line[256];
    std::snprintf(line, sizeof line,
                  "%s: distance %s, %zu training frames, LBG %d + joint %d iterations,\n"
                  "mean quantizer weighted error %.1f (Q15^2)\n",
                  tabs[r]->name, kDistanceNames[o.lsp_distance[r]], sets[r]->size(),
                  res[r].lbg_iterations, res[r].joint.iterations, res[r].real_distortion);
    lsp_text << comment_block(line);
  }
  {
    const SdSummary a = summarize_sd(sd[kClean][0]), b = summarize_sd(sd[kClean][1]),
                    c = summarize_sd(sd[kClean][2]);
    char line[512];
    std::snprintf(
        line, sizeof line,
        "Held-out spectral distortion (clean): full %.2f dB (%.2f %% 2-4 dB, %.3f %% >4 dB),\n"
        "half %.2f dB (%.2f %%, %.3f %%), eighth %.2f dB (%.2f %%, %.3f %%).\n",
        a.mean_db, a.pct_2_to_4, a.pct_over_4, b.mean_db, b.pct_2_to_4, b.pct_over_4, c.mean_db,
        c.pct_2_to_4, c.pct_over_4);
    lsp_text << comment_block(line);
  }
  lsp_text << "#include \"common/tables.h\"\n\n";
  lsp_text << "// Full-rate LSP codebook: splits 64x2, 64x2, 512x3, 128x3 (Q15, 16384 = 4 kHz).\n"
           << format_array("extern \"C\" const int16_t kevrc_tbl_lsp_fr[2176]", fr.book, 12)
           << "\n// Half-rate LSP codebook: splits 128x3, 128x3, 256x4.\n"
           << format_array("extern \"C\" const int16_t kevrc_tbl_lsp_hr[1792]", hr.book, 12)
           << "\n// Eighth-rate LSP codebook: splits 16x5, 16x5.\n"
           << format_array("extern \"C\" const int16_t kevrc_tbl_lsp_1_8[160]", e8.book, 10);
  namespace fs = std::filesystem;
  const fs::path out(o.out);
  if (!write_file(out / "common" / "tbl_lsp.cpp", lsp_text.str())) return 1;
  if (o.lsp_only) return 0;

  const EnergyFit held_fit = energy_fit(held_energy_data, en.search, -1);
  const EnergyFit held_fit_in = energy_fit(held_energy_data, en.search, -1, true);
  char energy_line[768];
  std::snprintf(
      energy_line, sizeof energy_line,
      "Eighth-rate energies: %zu training frames (rate 1), three subframe log\n"
      "energies measured as the encoder does (kevrce_imp_res_gain, kevrce_lbr_energy)\n"
      "with the LSP tables trained in the same run; LBG with splitting and Lloyd on\n"
      "the squared error (energies outside the range clamped to it), %d iterations,\n"
      "rms error %.1f units; held-out fit %.2f dB mean absolute, %.2f dB on frames\n"
      "inside the range (409.6 units = 1 dB). Stated rows 0, 1, 2, 64, 128, 254, 255 fixed.\n",
      train_energy_data.size(), en.iterations, std::sqrt(en.distortion), held_fit.mae_db,
      held_fit_in.mae_db);
  std::ostringstream gain_text, search_text;
  gain_text << kLicenceHeader
            << comment_block(
                   prov.str() + "\n" + energy_line +
                   "Gain row = round(128 * 10^(search row / 8192)) for every trained row; the\n"
                   "stated rows are the stated gains (row 254 and 255 differ from the formula\n"
                   "by one unit: both tables are roundings of the same log energy).\n")
            << "#include \"common/tables.h\"\n\n"
            << "// Eighth-rate energy gain table: 256 rows x 3 subframe gains (linear).\n"
            << format_array("extern \"C\" const int16_t kevrc_tbl_energy_gain[768]", en.gain, 12);
  search_text << kLicenceHeader
              << comment_block(
                     prov.str() + "\n" + energy_line +
                     "Values clamped to -2988..17596; rows 64, 128 and 254 are the nearest\n"
                     "integers to 8192 * log10(stated gain / 128).\n")
              << "#include \"common/tables.h\"\n\n"
              << "// Eighth-rate energy search table: 256 rows x 3 subframe log energies\n"
              << "// (8192 = a factor 10 in amplitude).\n"
              << format_array("extern \"C\" const int16_t kevrce_tbl_energy_search[768]", en.search,
                              12);
  if (!write_file(out / "common" / "tbl_energy_gain.cpp", gain_text.str())) return 1;
  if (!write_file(out / "encoder" / "tbl_energy_search.cpp", search_text.str())) return 1;
  return 0;
}

// "D" or "D,D,D" (full, half, eighth) into distance numbers.
bool parse_distances(const std::string &arg, int *out) {
  std::vector<int> got;
  std::istringstream in(arg);
  std::string name;
  while (std::getline(in, name, ',')) {
    int d = 0;
    while (d < kDistances && name != kDistanceNames[d]) ++d;
    if (d == kDistances) return false;
    got.push_back(d);
  }
  if (got.size() != 1 && got.size() != 3) return false;
  for (int r = 0; r < 3; ++r) out[r] = got[got.size() == 1 ? 0 : static_cast<size_t>(r)];
  return true;
}

void usage() {
  std::fprintf(stderr,
               "usage: train_tables synth DIR\n"
               "       train_tables train [--root DIR] [--out OUTDIR] [--quick] [--lsp-only]\n"
               "                          [--lsp-distance D[,D,D]] [--half-rate-frames 34|3]\n"
               "                          [--robust] [--compare-distances]\n"
               "  D: quantizer (default), plain, ihm, sd-diag, sd-matrix; three names are\n"
               "  for the full-, half- and eighth-rate tables.\n");
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    usage();
    return 1;
  }
  const std::string mode = argv[1];
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--help") == 0) {
      usage();
      return 0;
    }
  if (mode == "synth") {
    if (argc != 3) {
      usage();
      return 1;
    }
    return run_synth(argv[2]);
  }
  if (mode != "train") {
    usage();
    return 1;
  }
  Options o;
  o.command_line = "train_tables";
  for (int i = 1; i < argc; ++i) o.command_line += std::string(" ") + argv[i];
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--root" && i + 1 < argc) {
      o.root = argv[++i];
    } else if (a == "--out" && i + 1 < argc) {
      o.out = argv[++i];
    } else if (a == "--quick") {
      o.quick = true;
    } else if (a == "--half-rate-frames" && i + 1 < argc) {
      const std::string v = argv[++i];
      if (v != "34" && v != "3") {
        usage();
        return 1;
      }
      o.half_rate_own_frames_only = v == "3";
    } else if (a == "--robust") {
      o.robust = true;
    } else if (a == "--lsp-only") {
      o.lsp_only = true;
    } else if (a == "--compare-distances") {
      o.compare = true;
    } else if (a == "--lsp-distance" && i + 1 < argc) {
      if (!parse_distances(argv[++i], o.lsp_distance)) {
        usage();
        return 1;
      }
    } else {
      usage();
      return 1;
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  kevrc_init();
  return run_train(o);
}
