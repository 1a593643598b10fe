// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Audio and output-file support for the command-line tools and their tests.
//
//  read_mono_8k(path, samples, error, info): reads any file libsndfile opens
//    (any format, sample rate and channel count), averages the channels and
//    resamples to 8000 Hz with libsoxr at high quality (SOXR_HQ; skipped when
//    the file is already at 8 kHz). samples (out) are in 16-bit units (full
//    scale 32768) and not yet rounded; info (out, optional) describes the
//    file as stored. Returns false with a one-line message in error.
//  to_pcm16(x): rounds to nearest (half away from zero) and clips to
//    -32768..32767.
//  read_pcm16_mono_8k(...): read_mono_8k followed by to_pcm16.
//  write_wav16(path, interleaved, frames, rate, channels, error): writes a
//    16-bit PCM WAV file directly (no temporary file).
//  write_atomically(path, write, error): calls write(tmp) on a fresh
//    temporary file beside path and renames it onto path when write
//    succeeds; otherwise removes it, so that a failure never leaves a
//    half-written path (or a stray temporary) behind. The writer's error
//    message is passed on with the temporary's name replaced by path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kevrc::audio {

constexpr int kCodecRate = 8000;

struct FileInfo {
  int sample_rate = 0;
  int channels = 0;
  int64_t frames = 0;  // samples per channel as stored
};

bool read_mono_8k(const std::string &path, std::vector<double> &samples, std::string &error,
                  FileInfo *info = nullptr);
std::vector<int16_t> to_pcm16(const std::vector<double> &x);
bool read_pcm16_mono_8k(const std::string &path, std::vector<int16_t> &samples, std::string &error,
                        FileInfo *info = nullptr);

bool write_wav16(const std::string &path, const int16_t *interleaved, size_t frames, int sample_rate,
                 int channels, std::string &error);

// The writer gets the temporary path and reports its own failure through error.
using FileWriter = std::function<bool(const std::string &tmp_path, std::string &error)>;
bool write_atomically(const std::string &path, const FileWriter &write, std::string &error);

}  // namespace kevrc::audio
